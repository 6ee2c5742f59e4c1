// SPDX-License-Identifier: MIT
// Fuzzes encoding-name lookup: any name gives unknown or a valid enumerator,
// the same answer again from the cache, and an enumerator whose preferred
// name leads back to it. A name spelled with the other case gives the same
// answer whether or not the first spelling was looked up before it.
#include <cctype>
#include <cstdint>
#include <string>

#include "log.h"
#include "unicode.h"

#define CHECK(cond) ((cond) ? (void)0 : __builtin_trap())

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   static const int kQuiet = ServiceImplLogOpen("/dev/null");  // misses are logged
   (void)kQuiet;
   if (size > 256) {
      return 0;
   }
   std::string name(reinterpret_cast<const char *>(data), size);
   name = name.c_str();  // up to the first NUL
   int32_t e = Unicode_EncodingNameToEnum(name.c_str());
   CHECK(e == UNICODE_ENCODING_UNKNOWN || Unicode_IsEncodingValid(e));
   CHECK(Unicode_EncodingNameToEnum(name.c_str()) == e);
   if (e != UNICODE_ENCODING_UNKNOWN) {
      CHECK(Unicode_EncodingNameToEnum(Unicode_EncodingEnumToName(e)) == e);
   }
   std::string other = name;
   for (char &c : other) {
      unsigned char u = static_cast<unsigned char>(c);
      c = static_cast<char>(std::isupper(u) ? std::tolower(u) : std::toupper(u));
   }
   Unicode_Shutdown();
   int32_t fresh = Unicode_EncodingNameToEnum(other.c_str());
   Unicode_Shutdown();
   CHECK(Unicode_EncodingNameToEnum(name.c_str()) == e);
   CHECK(Unicode_EncodingNameToEnum(other.c_str()) == fresh);
   if (size > 0 && data[0] == '!') {
      Unicode_Shutdown();  // a later lookup builds the cache again
   }
   return 0;
}
