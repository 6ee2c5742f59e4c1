#include "location.h"

#include <cstring>

#include "log.h"
#include "openerConfig.h"

namespace {

struct ProductRow {
   const char *processTag;
   uint32_t upCount;
};

// How many path components lie between each program's executable and the
// product root.
constexpr ProductRow locationProduct[] = {
   {"halcyx-opener", 4},
   {"halcyx-daemon", 4},
   {nullptr, 0},
};

struct KeyRow {
   const char *key;
   const char *subPath;  // empty, or beginning with "/"
};

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
   {"pngLibFile", "/Contents/Frameworks/libpng16.16.dylib"},
   {"sslLibFile", "/Contents/Frameworks/libssl.3.dylib"},
   {"cryptoLibFile", "/Contents/Frameworks/libcrypto.3.dylib"},
   {"zorvexbaseLibFile", "/Contents/Frameworks/libzorvexbase.dylib"},
   {"netcfgLibFile", "/Contents/Frameworks/libnetcfg.dylib"},
   {nullptr, nullptr},
};

uint32_t sUpCount;

}  // namespace

extern "C" {

void Location_Init(const char *processTag) {
   for (const ProductRow *row = locationProduct; row->processTag != nullptr; row++) {
      if (strcmp(row->processTag, processTag) == 0) {
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
   for (const KeyRow *row = kKeys; row->key != nullptr; row++) {
      if (strcmp(row->key, key) == 0) {
         return row->subPath;
      }
   }
   return nullptr;
}

const char *Location_GetProductFile(void) { return HALCYX_PRODUCT_FILE; }

const char *Location_GetHostDir(void) { return HALCYX_HOST_DIR; }

}  // extern "C"
