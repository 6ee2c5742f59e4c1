// SPDX-License-Identifier: MIT
/*
 * Encodings: the name table, name and enumerator lookups, the default
 * encoding and the layer's initialisation.
 *
 * The table (unicodeEncodingTable.inc, generated) holds one row per
 * character set: IANA MIB, Windows code page, enumerator, supported flag,
 * preferred name and aliases. A name is looked up by Windows code page
 * ("windows-NNNN"), then exactly, then by its letters and digits alone
 * without regard to case, each time in table order so that the first row
 * wins. Hits are remembered in a cache shared by all threads (created
 * once, lock-free), keyed by the exact spelling: the exact comparison tells
 * "ISO-8859-8-I" from "iso-8859-8-i", two rows apart, so a key that ignored
 * case would let whichever came first answer for the other. Misses are not
 * cached, so a bad name costs a table walk and a log line every time.
 */
#include <atomic>
#include <bit>
#include <cctype>
#include <cstring>
#include <unistd.h>

#include "codeset.h"
#include "hashTable.h"
#include "internal/fatal.h"
#include "log.h"
#include "unicode.h"

namespace {

constexpr char kModulePath[] = "lib/unicode/unicodeSimpleTypes";
constexpr int kMaxNames = 21;

struct EncodingRow {
   int32_t mib;          // IANA MIB number, -1 when none
   int32_t winCodePage;  // Windows code page, -1 when none
   int32_t encoding;     // enumerator; several rows may share one
   bool supported;       // an unsupported row resolves to unknown
   int32_t preferredIndex;
   const char *names[kMaxNames + 1];  // null-terminated
};

constexpr EncodingRow kEncodingTable[] = {
#include "unicode/unicodeEncodingTable.inc"
};
static_assert(std::size(kEncodingTable) == 325);

// Name to row index; HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY.
constexpr int kCacheFlags = HASH_STRING_KEY | HASH_FLAG_ATOMIC | HASH_FLAG_COPYKEY;
constexpr uint32_t kCacheBuckets = 128;
HashTable *gNameCache;

std::atomic<int32_t> gDefaultEncoding{UNICODE_ENCODING_UNKNOWN};

std::atomic<bool> gInitSpin{false};
bool gInitialized;

// The Windows code page named by "windows-NNN" or "Windows-NNN", or -1.
int32_t WindowsCodePage(const char *name) {
   if (std::strncmp(name, "windows-", 8) != 0 && std::strncmp(name, "Windows-", 8) != 0) {
      return -1;
   }
   const char *digits = name + 8;
   size_t n = std::strlen(digits);
   if (n == 0 || n > 9) {
      return -1;
   }
   int32_t value = 0;
   for (size_t i = 0; i < n; i++) {
      if (!std::isdigit(static_cast<unsigned char>(digits[i]))) {
         return -1;
      }
      value = value * 10 + (digits[i] - '0');
   }
   return value;
}

// Equal when both have the same letters and digits, ignoring case and every
// other character.
bool SameLettersAndDigits(const char *a, const char *b) {
   auto next = [](const char *&p) {
      while (*p != '\0' && !std::isalnum(static_cast<unsigned char>(*p))) {
         p++;
      }
      return std::tolower(static_cast<unsigned char>(*p));
   };
   for (;;) {
      int ca = next(a);
      int cb = next(b);
      if (ca != cb) {
         return false;
      }
      if (ca == '\0') {
         return true;
      }
      a++;
      b++;
   }
}

template <typename Match> int FindRow(Match match) {
   for (size_t i = 0; i < std::size(kEncodingTable); i++) {
      for (const char *const *n = kEncodingTable[i].names; *n != nullptr; n++) {
         if (match(*n)) {
            return static_cast<int>(i);
         }
      }
   }
   return -1;
}

// The row for a name, or -1 after a log line.
int UnicodeIANALookup(const char *name) {
   HashTable *cache = HashTable_AllocOnce(&gNameCache, kCacheBuckets, kCacheFlags, nullptr);
   void *cached;
   if (HashTable_Lookup(cache, name, &cached)) {
      return static_cast<int>(reinterpret_cast<uintptr_t>(cached));
   }
   int row = -1;
   int32_t codePage = WindowsCodePage(name);
   if (codePage >= 0) {
      for (size_t i = 0; i < std::size(kEncodingTable) && row < 0; i++) {
         if (kEncodingTable[i].winCodePage == codePage) {
            row = static_cast<int>(i);
         }
      }
   }
   if (row < 0) {
      row = FindRow([name](const char *n) { return std::strcmp(n, name) == 0; });
   }
   if (row < 0) {
      row = FindRow([name](const char *n) { return SameLettersAndDigits(n, name); });
   }
   if (row < 0) {
      Log("%s: Did not find an IANA match for encoding \"%s\"\n", "UnicodeIANALookup", name);
      return -1;
   }
   HashTable_Insert(cache, name, reinterpret_cast<void *>(static_cast<uintptr_t>(row)));
   return row;
}

}  // namespace

int32_t Unicode_EncodingNameToEnum(const char *encodingName) {
   int row = UnicodeIANALookup(encodingName == nullptr ? "(null)" : encodingName);
   if (row < 0 || !kEncodingTable[row].supported) {
      return UNICODE_ENCODING_UNKNOWN;
   }
   return kEncodingTable[row].encoding;
}

const char *Unicode_EncodingEnumToName(int32_t encoding) {
   encoding = Unicode_ResolveEncoding(encoding);
   for (const EncodingRow &row : kEncodingTable) {
      if (row.encoding == encoding) {
         return row.names[row.preferredIndex];
      }
   }
   Log("%s: Unknown encoding %d.\n", "Unicode_EncodingEnumToName", encoding);
   halcyx::PanicNotReached(kModulePath, __LINE__);
}

int32_t Unicode_GetCurrentEncoding(void) {
   int32_t encoding = gDefaultEncoding.load(std::memory_order_relaxed);
   if (encoding == UNICODE_ENCODING_UNKNOWN) {
      // Every thread that gets here stores the same value.
      encoding = Unicode_EncodingNameToEnum(CodeSet_GetCurrentCodeSet());
      gDefaultEncoding.store(encoding, std::memory_order_relaxed);
   }
   return encoding;
}

int32_t Unicode_ResolveEncoding(int32_t encoding) {
   return encoding == UNICODE_ENCODING_DEFAULT ? Unicode_GetCurrentEncoding() : encoding;
}

bool Unicode_IsEncodingValid(int32_t encoding) {
   return encoding >= 0 && encoding < UNICODE_ENCODING_LIMIT;
}

void Unicode_Shutdown(void) {
   HashTable *cache = gNameCache;
   gNameCache = nullptr;
   HashTable_Free(cache);
}

namespace {

void UnicodeInitInternal(const char *icuDataDir) {
   bool expected = false;
   while (!gInitSpin.compare_exchange_strong(expected, true, std::memory_order_acquire)) {
      expected = false;
      usleep(250 * 1000);
   }
   if (!gInitialized) {
      if (!CodeSet_Init(icuDataDir)) {
         Panic("%s", "Failed to initialize codeset.\n");
      }
      gInitialized = true;
   }
   gInitSpin.store(false, std::memory_order_release);
}

}  // namespace

void Unicode_Init(int, char ***, char ***) { UnicodeInitInternal(nullptr); }

void Unicode_InitEx(int, char ***, char ***, const char *icuDataDir) {
   UnicodeInitInternal(icuDataDir);
}

void Unicode_InitW(int argc, uint16_t **wargv, uint16_t **wenvp, char ***argv, char ***envp) {
   UnicodeInitInternal(nullptr);
   constexpr int32_t kHostUtf16 = std::endian::native == std::endian::little
                                     ? UNICODE_ENCODING_UTF16_LE
                                     : UNICODE_ENCODING_UTF16_BE;
   if (argv != nullptr && wargv != nullptr) {
      *argv = Unicode_AllocList(reinterpret_cast<char **>(wargv), argc, kHostUtf16);
   }
   if (envp != nullptr && wenvp != nullptr) {
      *envp = Unicode_AllocList(reinterpret_cast<char **>(wenvp), -1, kHostUtf16);
   }
}
