// SPDX-License-Identifier: MIT
// Fuzzes the product file as the location module reads it (bytes any
// earlier run, or whoever could write the file, left there): a record
// shorter than the 1024-byte buffer gives a root of the bytes before the
// first NUL, taken as they stand; anything longer gives no root. Keys are
// the root followed by their sub-path, and no descriptor is left open.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include "internal/location.h"
#include "location.h"
#include "log.h"

#define CHECK(cond) ((cond) ? (void)0 : __builtin_trap())

namespace {

struct ProductFile {
   int fd;
   std::string path;
};

// An in-memory product file, named through /proc so that every lookup
// opens it afresh at offset 0 as it would open the real one.
const ProductFile &File() {
   static const ProductFile file = [] {
      ServiceImplLogOpen("/dev/null");  // every refusal is logged
      int fd = memfd_create("product-file", MFD_CLOEXEC);
      CHECK(fd >= 0);
      ProductFile f{fd, "/proc/self/fd/" + std::to_string(fd)};
      halcyx::gLocationRootVariable = nullptr;
      halcyx::gLocationProductFile = strdup(f.path.c_str());
      return f;
   }();
   return file;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > 4096) {
      return 0;
   }
   const ProductFile &file = File();
   CHECK(ftruncate(file.fd, 0) == 0);
   CHECK(pwrite(file.fd, data, size, 0) == static_cast<ssize_t>(size));

   // The lowest free descriptor before and after the lookups.
   const int probe = dup(file.fd);
   close(probe);
   char *root = Location_Get("rootDir");
   char *daemon = Location_Get("serviceDaemonFile");
   if (size >= 1024) {
      CHECK(root == nullptr && daemon == nullptr);
   } else {
      const std::string expected(reinterpret_cast<const char *>(data),
                                 strnlen(reinterpret_cast<const char *>(data), size));
      CHECK(root != nullptr && expected == root);
      CHECK(daemon != nullptr &&
            expected + Location_GetSubPath("serviceDaemonFile") == daemon);
   }
   free(root);
   free(daemon);
   const int after = dup(file.fd);
   CHECK(after == probe);
   close(after);
   return 0;
}
