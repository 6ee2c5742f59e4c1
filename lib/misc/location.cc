// SPDX-License-Identifier: MIT
/*
 * Product location.
 *
 * The product root is found afresh on every lookup, in one of two ways. A
 * program with a known process tag strips its up-count of trailing
 * components from the real path of its own executable; nothing a user sets
 * can move that root. A program without one takes the root from the
 * environment variable or else from the product file, as they stand (no
 * trimming, no resolution), and only when it runs without borrowed
 * identity: a set-user-ID process never trusts either.
 */
#include "location.h"

#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <unistd.h>

#include "hostinfo.h"
#include "id.h"
#include "internal/location.h"
#include "internal/unique.h"
#include "locationConfig.h"
#include "log.h"
#include "posix.h"
#include "str.h"

namespace halcyx {

const char *gLocationRootVariable = HALCYX_LOCATION_ROOT_VARIABLE;
const char *gLocationProductFile = HALCYX_LOCATION_PRODUCT_FILE;

}  // namespace halcyx

namespace {

struct ProductRow {
   const char *processTag;
   uint32_t upCount;
};

// How many path components lie between each program's executable and the
// product root: 3 for Contents/MacOS/x and Contents/Library/x, 4 for the
// programs one directory deeper (services, LaunchServices, tools).
constexpr ProductRow locationProduct[] = {
   {"halcyx-opener", 4},
   {"halcyx-daemon", 4},
   {"halcyx-usbarb-opener", 4},
   {"halcyx-usbarb-daemon", 4},
   {"halcyx-cdshelper", 4},
   {"halcyx-diskhelper", 4},
   {"halcyx-idhelper", 4},
   {"halcyx-mounthelper", 4},
   {"halcyx-vdiskmanager", 4},
   {"halcyx-ovftool", 4},
   {"halcyx-vmrun", 4},
   {"halcyx-codesign", 4},
   {"halcyx-app", 3},
   {"halcyx-vmx", 3},
   {"halcyx-vmx-debug", 3},
   {"halcyx-vmx-stats", 3},
   {"halcyx-menubar", 3},
   {"zorvex-id", 3},
   {"zorvex-usbarbitrator", 3},
   {"zxnet-bridge", 3},
   {"zxnet-cfgcli", 3},
   {"zxnet-cli", 3},
   {"zxnet-dhcpd", 3},
   {"zxnet-natd", 3},
   {"zxnet-netifup", 3},
   {"zxnet-sniffer", 3},
   {nullptr, 0},
};
static_assert(std::size(locationProduct) == 26 + 1);

struct KeyRow {
   const char *key;
   const char *subPath;  // empty, or beginning with "/"
};

#define LAUNCH_SERVICES "/Contents/Library/LaunchServices/"

constexpr KeyRow kKeys[] = {
   {"rootDir", ""},
   {"serviceDaemonFile", "/Contents/Library/services/Zorvex Halcyx Services"},
   {"idFile", "/Contents/Library/zorvex-id"},
   {"zxnetBridgeFile", "/Contents/Library/zxnet-bridge"},
   {"zxnetCfgCliFile", "/Contents/Library/zxnet-cfgcli"},
   {"zxnetCliFile", "/Contents/Library/zxnet-cli"},
   {"zxnetDhcpdFile", "/Contents/Library/zxnet-dhcpd"},
   {"zxnetNatFile", "/Contents/Library/zxnet-natd"},
   {"zxnetNetifupFile", "/Contents/Library/zxnet-netifup"},
   // The key is spelt this way by every program that looks it up.
   {"zxnetSinfferFile", "/Contents/Library/zxnet-sniffer"},
   {"usbarbFile", "/Contents/Library/zorvex-usbarbitrator"},
   {"productInfo", "/Contents/Library/productInfo"},
   {"serviceScriptFile", "/Contents/Library/services/services.sh"},
   {"usbarbOpenerFile", "/Contents/Library/services/Open Zorvex USB Arbitrator Service"},
   {"usbarbDaemonFile", "/Contents/Library/services/Zorvex USB Arbitrator Service"},
   {"usbarbScriptFile", "/Contents/Library/services/usbarbService.sh"},
   {"cdsHelperFile", LAUNCH_SERVICES LOCATION_CDS_HELPER_ID},
   {"cdsHelperPlistFile", LAUNCH_SERVICES LOCATION_CDS_HELPER_ID ".plist"},
   {"diskHelperFile", LAUNCH_SERVICES LOCATION_DISK_HELPER_ID},
   {"diskHelperPlistFile", LAUNCH_SERVICES LOCATION_DISK_HELPER_ID ".plist"},
   {"idHelperFile", LAUNCH_SERVICES LOCATION_ID_HELPER_ID},
   {"idHelperPlistFile", LAUNCH_SERVICES LOCATION_ID_HELPER_ID ".plist"},
   {"mountHelperFile", LAUNCH_SERVICES LOCATION_MOUNT_HELPER_ID},
   {"mountHelperPlistFile", LAUNCH_SERVICES LOCATION_MOUNT_HELPER_ID ".plist"},
   {"pngLibFile", "/Contents/Frameworks/libpng16.16.dylib"},
   {"sslLibFile", "/Contents/Frameworks/libssl.3.dylib"},
   {"cryptoLibFile", "/Contents/Frameworks/libcrypto.3.dylib"},
   {"zorvexbaseLibFile", "/Contents/Frameworks/libzorvexbase.dylib"},
   {"netcfgLibFile", "/Contents/Frameworks/libnetcfg.dylib"},
   // Directories of the bundle.
   {"contentsDir", "/Contents"},
   {"macosDir", "/Contents/MacOS"},
   {"libraryDir", "/Contents/Library"},
   {"servicesDir", "/Contents/Library/services"},
   {"launchServicesDir", "/Contents/Library/LaunchServices"},
   {"frameworksDir", "/Contents/Frameworks"},
   {"resourcesDir", "/Contents/Resources"},
   {"toolsDir", "/Contents/Library/tools"},
   {"codeSignatureDir", "/Contents/_CodeSignature"},
   {"icuDir", "/Contents/Resources/icu"},
   {"messagesDir", "/Contents/Library/messages"},
   {"messagesEnDir", "/Contents/Library/messages/en"},
   {"localizedStringsFile", "/Contents/Resources/en.lproj/Localizable.strings"},
   {"helpDir", "/Contents/Resources/help"},
   {"keyboardDir", "/Contents/Library/keyboard"},
   {"firmwareDir", "/Contents/Library/firmware"},
   {"isoImagesDir", "/Contents/Library/isoimages"},
   // Files of the bundle.
   {"infoPlistFile", "/Contents/Info.plist"},
   {"appExecutableFile", "/Contents/MacOS/Zorvex Halcyx"},
   {"vmxFile", "/Contents/Library/halcyx-vmx"},
   {"vmxDebugFile", "/Contents/Library/halcyx-vmx-debug"},
   {"vmxStatsFile", "/Contents/Library/halcyx-vmx-stats"},
   {"menubarFile", "/Contents/Library/halcyx-menubar"},
   {"vdiskManagerFile", "/Contents/Library/tools/halcyx-vdiskmanager"},
   {"ovfToolFile", "/Contents/Library/tools/halcyx-ovftool"},
   {"vmrunFile", "/Contents/Library/tools/halcyx-vmrun"},
   {"codesignToolFile", "/Contents/Library/tools/halcyx-codesign"},
   {"biosFile", "/Contents/Library/firmware/bios.rom"},
   {"efi32File", "/Contents/Library/firmware/efi32.rom"},
   {"efi64File", "/Contents/Library/firmware/efi64.rom"},
   {"keymapFile", "/Contents/Library/keyboard/keymap.dat"},
   {"linuxToolsIsoFile", "/Contents/Library/isoimages/linux.iso"},
   {"windowsToolsIsoFile", "/Contents/Library/isoimages/windows.iso"},
   {"messagesEnFile", "/Contents/Library/messages/en/halcyx.vmsg"},
   {"productIconFile", "/Contents/Resources/halcyx.icns"},
   {"documentIconFile", "/Contents/Resources/halcyx-vm.icns"},
   {"licenseFile", "/Contents/Resources/license.txt"},
   {"defaultSettingsFile", "/Contents/Library/settings.default"},
   {"usbarbPlistFile", "/Contents/Library/services/com.zorvex.halcyx.usbarbitrator.plist"},
   // Libraries of the bundle.
   {"icuucLibFile", "/Contents/Frameworks/libicuuc.72.dylib"},
   {"icudataLibFile", "/Contents/Frameworks/libicudata.72.dylib"},
   {"plistLibFile", "/Contents/Frameworks/libplist-2.0.4.dylib"},
   {"zLibFile", "/Contents/Frameworks/libz.1.dylib"},
   {"xml2LibFile", "/Contents/Frameworks/libxml2.2.dylib"},
   {"curlLibFile", "/Contents/Frameworks/libcurl.4.dylib"},
   {"usbLibFile", "/Contents/Frameworks/libusb-1.0.0.dylib"},
   {"jpegLibFile", "/Contents/Frameworks/libjpeg.8.dylib"},
   {"expatLibFile", "/Contents/Frameworks/libexpat.1.dylib"},
   {"zorvexuiLibFile", "/Contents/Frameworks/libzorvexui.dylib"},
   {"vmxcoreLibFile", "/Contents/Frameworks/libvmxcore.dylib"},
   {nullptr, nullptr},
};
static_assert(std::size(kKeys) == 79 + 1);

#undef LAUNCH_SERVICES

// Number of trailing components to strip from the executable's real path;
// 0 until Location_Init finds the tag.
uint32_t sUpCount;

constexpr const char kGetRoot[] = "LocationGetRoot";
constexpr const char kLastUsed[] = "LocationLastUsed";

// The root recorded in the product file: one read of at most 1023 bytes,
// taken as it stands.
char *LocationLastUsed(const char *productFile) {
   char buffer[1024];
   ssize_t length = -1;
   halcyx::UniqueFd fd(open(productFile, O_RDONLY | O_CLOEXEC));
   if (fd) {
      length = read(fd.get(), buffer, sizeof buffer);
   }
   if (length < 0 || static_cast<size_t>(length) >= sizeof buffer) {
      Log("%s: Failed opening lastLocationUsed.\n", kLastUsed);
      return nullptr;
   }
   buffer[length] = '\0';
   char *root = strdup(buffer);
   if (root == nullptr) {
      Log("%s: Failed to copy last used path: %s\n", kLastUsed, buffer);
   }
   return root;
}

// The executable's real path without its last upCount components.
char *LocationRootFromExecutable(uint32_t upCount) {
   halcyx::UniqueCStr modulePath(Hostinfo_GetModulePath(1));
   if (!modulePath) {
      Warning("%s: Unable to retrieve path to executable.", kGetRoot);
      return nullptr;
   }
   halcyx::UniqueCStr realPath(Posix_RealPath(modulePath.get()));
   if (!realPath) {
      Warning("%s: Unable to get the realpath for %s", kGetRoot, modulePath.get());
      return nullptr;
   }
   size_t end = strlen(realPath.get());
   for (uint32_t i = 0; i < upCount; i++) {
      const void *slash = memrchr(realPath.get(), '/', end);
      if (slash == nullptr) {
         Warning("%s: sUpCount (%u) is too large for %s\n", kGetRoot, upCount,
                 realPath.get());
         return nullptr;
      }
      end = static_cast<size_t>(static_cast<const char *>(slash) - realPath.get());
   }
   return strndup(realPath.get(), end);
}

char *LocationGetRoot() {
   if (sUpCount != 0) {
      return LocationRootFromExecutable(sUpCount);
   }
   // Borrowed identity in any form refuses, including a set-user-ID program
   // that has lowered its effective user ID for the moment.
   if (geteuid() != getuid() || Id_IsSetUGid()) {
      Warning("%s: Cannot get location root of a setuid process.\n", kGetRoot);
      return nullptr;
   }
   const char *variable = halcyx::gLocationRootVariable;
   const char *productFile = halcyx::gLocationProductFile;
   const char *value = variable != nullptr ? getenv(variable) : nullptr;
   if (value != nullptr) {
      char *root = strdup(value);
      if (root == nullptr) {
         Warning("%s: Unable to copy the environment variable.\n", kGetRoot);
      }
      return root;
   }
   if (productFile != nullptr) {
      char *root = LocationLastUsed(productFile);
      if (root == nullptr) {
         Warning("%s: Unable to determine the product location. It is likely that the "
                 "product has never been run on this machine.\n",
                 kGetRoot);
      }
      return root;
   }
   // Without either source only the executable itself is left to go by.
   return variable == nullptr ? LocationRootFromExecutable(0) : nullptr;
}

}  // namespace

extern "C" {

void Location_Init(const char *processTag) {
   for (const ProductRow *row = locationProduct; row->processTag != nullptr; row++) {
      if (processTag != nullptr && strcmp(row->processTag, processTag) == 0) {
         if (sUpCount != 0 || row->upCount == 0) {
            Warning("%s: Invalid initialization: sUpCount %u, processTag %s.\n",
                    "Location_Init", sUpCount, processTag);
         }
         sUpCount = row->upCount;
         return;
      }
   }
   Warning("%s: Invalid initialization: sUpCount %u, processTag %s.\n", "Location_Init",
           sUpCount, processTag);
   sUpCount = 0;
}

const char *Location_GetSubPath(const char *key) {
   for (const KeyRow *row = kKeys; key != nullptr && row->key != nullptr; row++) {
      if (strcmp(row->key, key) == 0) {
         return row->subPath;
      }
   }
   return nullptr;
}

char *Location_Get(const char *key) {
   const char *subPath = Location_GetSubPath(key);
   if (subPath == nullptr) {
      return nullptr;
   }
   halcyx::UniqueCStr root(LocationGetRoot());
   if (!root) {
      return nullptr;
   }
   return Str_Asprintf(nullptr, "%s%s", root.get(), subPath);
}

LocationGetFn Location_Get_Addr(void) { return Location_Get; }

const char *Location_GetProductFile(void) { return halcyx::gLocationProductFile; }

const char *Location_GetHostDir(void) { return HALCYX_LOCATION_HOST_DIR; }

}  // extern "C"
