// SPDX-License-Identifier: MIT
/*
 * Environment scrub. The opener runs set-user-ID root and may start a
 * daemon or helper scripts; nothing the caller put in the environment may
 * change what a shell run on its behalf does.
 */
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "internal/alloc.h"
#include "serviceImpl.h"

namespace {

bool StartsWith(const char *text, const char *prefix) {
   return strncmp(text, prefix, strlen(prefix)) == 0;
}

bool IsOffending(const char *entry, const char *value) {
   return StartsWith(value, "() {") || StartsWith(entry, "BASH_ENV=") ||
          StartsWith(entry, "ENV=") || StartsWith(entry, "SHELLOPTS=");
}

/*
 * Unsets the first offending variable; false when there is none. unsetenv
 * reshuffles the environment array, so the caller must walk it again from
 * the start after every removal.
 */
bool RemoveFirstOffender() {
   for (char **entry = environ; *entry != nullptr; entry++) {
      const char *equals = strchr(*entry, '=');
      if (equals == nullptr || !IsOffending(*entry, equals + 1)) {
         continue;
      }
      size_t nameLength = static_cast<size_t>(equals - *entry);
      auto *name = static_cast<char *>(halcyx::Malloc(nameLength + 1));
      if (name == nullptr) {
         exit(1);
      }
      memcpy(name, *entry, nameLength);
      name[nameLength] = '\0';
      int rc = unsetenv(name);  // an empty name fails with EINVAL
      free(name);
      if (rc != 0) {
         exit(1);
      }
      return true;
   }
   return false;
}

}  // namespace

extern "C" void Shellshock_Mitigate(void) {
   while (RemoveFirstOffender()) {
   }
}
