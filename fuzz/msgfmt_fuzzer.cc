// SPDX-License-Identifier: MIT
// Fuzzes the message-format scanner and everything built on it. Input: the
// format (cut at the first NUL). The format is walked in both syntaxes
// (every piece reported must lie inside it), captured, formatted again from
// the captured arguments and pushed as a message text. Invariants: a format
// that captures also formats (unless it has a wide character); a copy
// formats the same.
//
// Capture reads values of the types the format asks for from a va_list that
// holds only pointers to one buffer valid both as a narrow and as a wide
// string, so strings read from it are real strings and numbers are
// harmless garbage; formats asking for more than 8 positions, or with
// numbers of 5 digits or more (widths that would allocate gigabytes), are
// not captured.
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>

#include "msgList.h"
#include "msgfmt.h"

namespace {

constexpr size_t kMaxFormat = 4096;
constexpr int kMaxCapturedPositions = 8;

struct Walked {
   const char *begin;
   const char *end;
   int maxPosition = 0;

   void CheckInside(const char *text, size_t length) const {
      if (length == 0 || text < begin || text + length > end) {
         abort();
      }
   }
};

int OnLiteral(void *cd, const char *text, size_t length) {
   static_cast<Walked *>(cd)->CheckInside(text, length);
   return 0;
}

int OnSpec(void *cd, int position, const char *, size_t, const char *type, size_t typeLength) {
   auto *w = static_cast<Walked *>(cd);
   if (position < 1) {
      abort();
   }
   // A Windows-style reference without "!type!" reports a type of its own.
   if (!(typeLength == 1 && type[0] == 's')) {
      w->CheckInside(type, typeLength);
   }
   w->maxPosition = position > w->maxPosition ? position : w->maxPosition;
   return 0;
}

bool HasLongNumber(const std::string &s) {
   int run = 0;
   for (char c : s) {
      run = c >= '0' && c <= '9' ? run + 1 : 0;
      if (run >= 5) {
         return true;
      }
   }
   return false;
}

const wchar_t kBoth[] = L"ab";  // as bytes: "a" then NUL, a valid narrow string

bool Capture(const char *fmt, MsgFmt_Arg **args, int *n, ...) {
   va_list va;
   va_start(va, n);
   char *error = nullptr;
   bool ok = MsgFmt_GetArgs(fmt, va, args, n, &error);
   va_end(va);
   if (ok == (error != nullptr)) {
      abort();
   }
   free(error);
   return ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size > kMaxFormat) {
      return 0;
   }
   std::string fmt(reinterpret_cast<const char *>(data), strnlen(reinterpret_cast<const char *>(data), size));

   Walked walked{fmt.data(), fmt.data() + fmt.size()};
   int rc = MsgFmt_Parse(OnLiteral, OnSpec, &walked, fmt.c_str());
   if (fmt.find("%0") == std::string::npos && fmt.find("%n") == std::string::npos) {
      Walked win32{fmt.data(), fmt.data() + fmt.size()};
      MsgFmt_ParseWin32(OnLiteral, OnSpec, &win32, fmt.c_str());
   }

   if (rc == 0 && walked.maxPosition <= kMaxCapturedPositions && !HasLongNumber(fmt)) {
      MsgFmt_Arg *args = nullptr;
      int n = 0;
      const void *p = kBoth;
      if (Capture(fmt.c_str(), &args, &n, p, p, p, p, p, p, p, p, p, p, p, p, p, p, p, p)) {
         char *text = MsgFmt_Asprintf(nullptr, fmt.c_str(), args, n);
         MsgFmt_Arg *copy = MsgFmt_CopyArgs(args, n);
         char *again = MsgFmt_Asprintf(nullptr, fmt.c_str(), copy, n);
         // Only a wide character can fail to format: its value is garbage.
         bool mayFail = fmt.find('C') != std::string::npos ||
                        (fmt.find('l') != std::string::npos && fmt.find('c') != std::string::npos);
         if ((text == nullptr) != (again == nullptr) || (text == nullptr && !mayFail) ||
             (text != nullptr && strcmp(text, again) != 0)) {
            abort();
         }
         free(text);
         free(again);
         MsgFmt_FreeArgs(copy, n);
         MsgFmt_FreeArgs(args, n);
      }
   }

   MsgList *list = nullptr;
   MsgList_AppendStr(&list, fmt.c_str());
   char *english = MsgList_ToEnglishString(list);
   if (english == nullptr) {
      abort();
   }
   free(english);
   MsgList_Free(list);
   return 0;
}
