// SPDX-License-Identifier: MIT
/*
 * Error-number texts.
 *
 * Two process-wide atomic hash tables, created once: number -> record and
 * text address -> record. A record and its text are never freed, which is
 * what lets callers keep the pointer and lets the reverse table key on the
 * address alone. Racing first callers for one number each build a record
 * and enter it in the text table first; the number table's lookup-or-insert
 * then picks one winner, whose text every caller gets.
 */
#include "err.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "hashTable.h"
#include "internal/unique.h"
#include "str.h"
#include "string/bsd_vsnprintf_int.h"
#include "util.h"

namespace {

constexpr uint32_t kTableBuckets = 2048;
constexpr size_t kTextBufferSize = 2048;

struct ErrorRecord {
   int number;
   char *text;
};

HashTable *gNumberTable;  // number -> ErrorRecord
HashTable *gTextTable;    // text address -> ErrorRecord

HashTable *NumberTable() {
   return HashTable_AllocOnce(&gNumberTable, kTableBuckets, HASH_INT_KEY | HASH_FLAG_ATOMIC,
                              nullptr);
}

HashTable *TextTable() {
   return HashTable_AllocOnce(&gTextTable, kTableBuckets, HASH_INT_KEY | HASH_FLAG_ATOMIC,
                              nullptr);
}

const void *NumberKey(int number) {
   return reinterpret_cast<const void *>(static_cast<intptr_t>(number));
}

// glibc declares the GNU strerror_r (returns the text) or the XSI one
// (returns 0 or an error number) depending on feature macros; accept both.
[[maybe_unused]] const char *StrerrorText(int rc, const char *buf) {
   return rc == 0 ? buf : nullptr;
}
[[maybe_unused]] const char *StrerrorText(const char *text, const char *) { return text; }

// A new heap copy of the library's text for number, cut back so that it
// does not end inside a UTF-8 sequence.
char *MakeText(int number) {
   char buf[kTextBufferSize];
   const char *text = StrerrorText(strerror_r(number, buf, sizeof buf), buf);
   if (text == nullptr || *text == '\0') {
      Str_Snprintf(buf, sizeof buf, "Unknown error %d", number);
      text = buf;
   }
   size_t length = halcyx::bsdfmt::Utf8BoundaryLength(text, strlen(text));
   return Util_SafeStrndup(text, length);
}

}  // namespace

const char *Err_Errno2String(int errorNumber) {
   halcyx::ErrnoSaver keepErrno;
   HashTable *numbers = NumberTable();
   void *found;
   if (HashTable_Lookup(numbers, NumberKey(errorNumber), &found)) {
      return static_cast<ErrorRecord *>(found)->text;
   }

   auto *mine = static_cast<ErrorRecord *>(Util_SafeMalloc(sizeof(ErrorRecord)));
   mine->number = errorNumber;
   mine->text = MakeText(errorNumber);
   // The reverse entry exists before the record can be found by number, so
   // a racing caller that finds it there can translate its text back at once.
   // A loser's record stays in the reverse table under a text that nobody is
   // ever given: a few bytes per lost race, never a dangling entry.
   HashTable_Insert(TextTable(), mine->text, mine);
   auto *record =
      static_cast<ErrorRecord *>(HashTable_LookupOrInsert(numbers, NumberKey(errorNumber), mine));
   return record->text;
}

const char *Err_ErrString(void) { return Err_Errno2String(errno); }

int Err_String2Errno(const char *text) {
   halcyx::ErrnoSaver keepErrno;
   void *found;
   if (text != nullptr && HashTable_Lookup(TextTable(), text, &found)) {
      return static_cast<ErrorRecord *>(found)->number;
   }
   return -1;
}
