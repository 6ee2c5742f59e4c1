// SPDX-License-Identifier: MIT
// Message formats: the scanner, argument capture with its error texts,
// and formatting again from captured arguments.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "alloc_seam.h"
#include "child.h"
#include "err.h"
#include "log.h"
#include "msgfmt.h"
#include "str.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

// A returned string ("<null>" for none), freed.
std::string Take(char *s) {
   std::string out = s == nullptr ? "<null>" : s;
   free(s);
   return out;
}

// The walk as text: literal stretches as they are, specifications as
// "{position:pos:type}".
int Walk(const char *fmt, std::string *events, bool win32 = false) {
   auto lit = [](void *cd, const char *text, size_t n) {
      static_cast<std::string *>(cd)->append(text, n);
      return 0;
   };
   auto spec = [](void *cd, int position, const char *pos, size_t posLen, const char *type,
                  size_t typeLen) {
      *static_cast<std::string *>(cd) += "{" + std::to_string(position) + ":" +
                                         std::string(pos, posLen) + ":" +
                                         std::string(type, typeLen) + "}";
      return 0;
   };
   return win32 ? MsgFmt_ParseWin32(lit, spec, events, fmt) : MsgFmt_Parse(lit, spec, events, fmt);
}

TEST(MsgFmtParse, LiteralsSpecificationsAndMalformedFormats) {
   struct Case { const char *fmt; int result; const char *events; } cases[] = {
      {"a%%b", 0, "a%b"},
      {"x=%-5.2ld, %s.", 0, "x={1:1:-5.2ld}, {2:2:s}."},
      {"%2$s %1$I64d", 0, "{2:2:s} {1:1:I64d}"}, {"%12$s", 0, "{12:12:s}"},
      {"%10s|%010d", 0, "{1:1:10s}|{2:2:010d}"},  // digits without "$" are a width
      {"%1$s %s", MSGFMT_BAD_FORMAT, nullptr}, {"%s %1$s", MSGFMT_BAD_FORMAT, nullptr},
      {"%*d|%-5$x", 0, "{1:1:*}d|{2:2:-5$}x"},  // capture judges the conversion
      {"%5{", MSGFMT_BAD_FORMAT, nullptr},
      {"%5\x01", MSGFMT_BAD_FORMAT, nullptr}, {"%\xc3\xa9", MSGFMT_BAD_FORMAT, nullptr},
      {"tail %", MSGFMT_BAD_FORMAT, nullptr}, {"tail %-5", MSGFMT_BAD_FORMAT, nullptr},
      {"%0$s", 0, "{1:1:0$}s"},  // "0" is a flag: "$" ends the body
      {"%99999999999$s", MSGFMT_BAD_FORMAT, nullptr},
   };
   for (const Case &c : cases) {
      std::string events;
      EXPECT_EQ(Walk(c.fmt, &events), c.result) << c.fmt;
      if (c.events != nullptr) {
         EXPECT_EQ(events, c.events) << c.fmt;
      }
   }
   EXPECT_EQ(MsgFmt_Parse(nullptr, nullptr, nullptr, nullptr), MSGFMT_BAD_FORMAT);
}

TEST(MsgFmtParse, CallbackResultStopsTheWalk) {
   int calls = 0;
   auto spec = [](void *cd, int, const char *, size_t, const char *, size_t) {
      return ++*static_cast<int *>(cd) == 2 ? 7 : 0;
   };
   EXPECT_EQ(MsgFmt_Parse(nullptr, spec, &calls, "%d %d %d"), 7);
   EXPECT_EQ(calls, 2);
}

TEST(MsgFmtParseWin32, NumberedReferencesAndFatalOnes) {
   std::string events;
   EXPECT_EQ(Walk("%1 and %12!d!%%%.", &events, true), 0);
   EXPECT_EQ(events, "{1:1:s} and {12:12:d}%.");
   EXPECT_EQ(Walk("%1!d", &events, true), MSGFMT_BAD_FORMAT);
   EXPECT_EQ(Walk("end%", &events, true), MSGFMT_BAD_FORMAT);

   for (const char *fmt : {"a %0", "a %n b"}) {
      auto r = RunInChild([fmt] {
         std::string ignored;
         Walk(fmt, &ignored, true);
      });
      EXPECT_EQ(r.ExitCode(), 1) << fmt;
      EXPECT_EQ(LogEntries(r.out), std::vector<std::string>{"Panic: VERIFY lib/misc/msgfmt:324 \n"})
         << fmt;
   }
}

struct Captured {
   bool ok = false;
   std::string error;
   MsgFmt_Arg *args = nullptr;
   int numArgs = -1;
   ~Captured() { MsgFmt_FreeArgs(args, numArgs); }
};

void Capture(Captured *out, const char *fmt, ...) {
   va_list va;
   va_start(va, fmt);
   char *error = nullptr;
   out->ok = MsgFmt_GetArgs(fmt, va, &out->args, &out->numArgs, &error);
   va_end(va);
   if (error != nullptr) {
      out->error = error;
      free(error);
   }
}

TEST(MsgFmtCapture, ErrorTexts) {
   struct Case { const char *fmt; const char *error; } cases[] = {
      {"%2$s", "MsgFmt_GetArgs: gap in arguments at position 1"},
      {"%1$s %3$d", "MsgFmt_GetArgs: gap in arguments at position 2"},
      {"%1$d %99999$d", "MsgFmt_GetArgs: gap in arguments at position 2"},
      {"%1$d %9$d %9$s",
       "MsgFmtGetArg1: incompatible specifiers for argument 9, old type 1, new type 6, "
       "pos \"9\", type \"s\""},
      {"%1$d %2$s %1$s",
       "MsgFmtGetArg1: incompatible specifiers for argument 1, old type 1, new type 6, "
       "pos \"1\", type \"s\""},
      {"%d %n", "MsgFmtGetArg1: %n not supported, pos \"2\", type \"n\""},
      {"%Lf", "MsgFmtGetArg1: %Lf not supported, pos \"1\", type \"Lf\""},
      {"%Llf", "MsgFmtGetArg1: %Lf not supported, pos \"1\", type \"Llf\""},
      {"%2$qlg %1$d", "MsgFmtGetArg1: %qg not supported, pos \"2\", type \"qlg\""},
      {"%1$zs", "MsgFmtGetArg1: %zs not supported, pos \"1\", type \"zs\""},
      {"%1$s %s", "MsgFmt_GetArgs: error in format string"},
      {"%y", "MsgFmtGetArg1: %y not understood, pos \"1\", type \"y\""},
      {"%d %-*d", "MsgFmtGetArg1: %* not understood, pos \"2\", type \"-*\""},
      {"%\x7f", "MsgFmt_GetArgs: error in format string"},
   };
   for (const Case &c : cases) {
      Captured got;
      Capture(&got, c.fmt, 1, 2, 3);
      EXPECT_FALSE(got.ok) << c.fmt;
      EXPECT_EQ(got.error, c.error) << c.fmt;
      EXPECT_EQ(got.numArgs, -1) << c.fmt;
   }

   halcyx::test::AllocationSeam seam;
   seam.FailAll();
   Captured got;
   Capture(&got, "%s %d", "x", 1);
   seam.FailAll(false);
   EXPECT_EQ(got.error, "MsgFmt_GetArgs: out of memory");
}

TEST(MsgFmtCapture, PositionsTypesAndOwnedCopies) {
   char text[] = "first";
   wchar_t wide[] = L"wide";
   Captured got;
   Capture(&got, "%3$p %2$ls %1$s %4$.1f %5$I64d %6$hd %7$c %8$I32x %9$Iu", text, wide, &got,
           2.5, -1LL << 40, 7, 'z', 8, size_t{9});
   ASSERT_TRUE(got.ok) << got.error;
   ASSERT_EQ(got.numArgs, 9);
   std::vector<int32_t> types;
   for (int i = 0; i < got.numArgs; i++) types.push_back(got.args[i].type);
   EXPECT_EQ(types, (std::vector<int32_t>{6, 8, 4, 5, 2, 1, 1, 1, 2}));
   EXPECT_STREQ(got.args[0].v.string8, "first");
   EXPECT_NE(got.args[0].v.string8, text);
   EXPECT_STREQ(got.args[1].v.string32, L"wide");
   EXPECT_EQ(got.args[2].v.ptr64, reinterpret_cast<uintptr_t>(&got));
   EXPECT_EQ(got.args[4].v.signed64, -1LL << 40);

   Captured none;
   Capture(&none, "100%% plain");
   EXPECT_TRUE(none.ok);
   EXPECT_EQ(none.numArgs, 0);
   EXPECT_EQ(none.args, nullptr);
}

// Formatting from captured arguments matches the engine on the originals.
#define EXPECT_REFORMATS(fmt, ...)                                                 \
   do {                                                                           \
      Captured got;                                                               \
      Capture(&got, fmt, __VA_ARGS__);                                            \
      ASSERT_TRUE(got.ok) << fmt << ": " << got.error;                            \
      size_t length = 0;                                                          \
      std::string mine = Take(MsgFmt_Asprintf(&length, fmt, got.args, got.numArgs)); \
      EXPECT_EQ(mine, Take(Str_Asprintf(nullptr, fmt, __VA_ARGS__))) << fmt;      \
      EXPECT_EQ(length, mine.size()) << fmt;                                      \
   } while (0)

TEST(MsgFmtAsprintf, MatchesTheEngine) {
   EXPECT_REFORMATS("%d|%-5ld|%llu|%#x|%zu|%hd|%'d|%+.3i", -42, 7L, 1ULL << 63, 255u, size_t{9},
                    short{3}, 1234567, 5);
   EXPECT_REFORMATS("%.3f|%g|%e|%10.2E|%G", 3.14159, 1e-7, 12345.678, -0.5, 1e300);
   EXPECT_REFORMATS("%s|%.2s|%ls|%c|%p|%-6S|%s", "abc", "xyz", L"\u00e9t\u00e9", 'q',
                    reinterpret_cast<void *>(0xabc), L"w", static_cast<char *>(nullptr));
   EXPECT_REFORMATS("%3$s-%1$d-%2$.1f-%1$x", 255, 2.25, "three");
   EXPECT_REFORMATS("100%% of %s", "it");
}

TEST(MsgFmtAsprintf, RefusesArgumentsThatDoNotFit) {
   Captured got;
   Capture(&got, "%d %s", 1, "x");
   ASSERT_TRUE(got.ok);
   for (const char *fmt : {"%d %s %d", "%s %s", "%d %n"})
      EXPECT_EQ(MsgFmt_Asprintf(nullptr, fmt, got.args, got.numArgs), nullptr) << fmt;
   Captured real;
   Capture(&real, "%f", 1.5);
   ASSERT_TRUE(real.ok);
   EXPECT_EQ(MsgFmt_Asprintf(nullptr, "%Llf", real.args, real.numArgs), nullptr);
   EXPECT_EQ(Take(MsgFmt_Asprintf(nullptr, "%2$s=%1$d", got.args, got.numArgs)), "x=1");

   uint16_t utf16[] = {0x68, 0xD83D, 0xDE00, 0};
   MsgFmt_Arg wide{};
   wide.type = MSGFMT_ARG_STRING16;
   wide.v.string16 = utf16;
   EXPECT_EQ(Take(MsgFmt_Asprintf(nullptr, "[%ls]", &wide, 1)), "[h\xF0\x9F\x98\x80]");
}

TEST(MsgFmtCapture, ErrorStringsKeepTheirNumber) {
   const char *enoent = Err_Errno2String(ENOENT);
   char *lookalike = strdup(enoent);
   Captured got;
   Capture(&got, "%s / %s", enoent, lookalike);
   ASSERT_TRUE(got.ok);
   EXPECT_EQ(got.args[0].type, MSGFMT_ARG_ERRNO);
   EXPECT_EQ(got.args[0].errorNumber, ENOENT);
   EXPECT_NE(got.args[0].v.string8, enoent);
   EXPECT_EQ(got.args[1].type, MSGFMT_ARG_STRING8);

   // Formatting translates the number again.
   got.args[0].errorNumber = EACCES;
   EXPECT_EQ(Take(MsgFmt_Asprintf(nullptr, "%s / %s", got.args, got.numArgs)),
             std::string(Err_Errno2String(EACCES)) + " / " + lookalike);
   free(lookalike);
}

void CaptureInto(void *buf, size_t *size, bool *ok, MsgFmt_Arg **args, int *n, const char *fmt,
                 ...) {
   va_list va;
   va_start(va, fmt);
   *ok = MsgFmt_GetArgsWithBuf(fmt, va, args, n, nullptr, buf, size);
   va_end(va);
}

TEST(MsgFmtCapture, CallersBufferHoldsArrayAndStrings) {
   alignas(8) char small[16];
   size_t size = sizeof small;
   bool ok;
   MsgFmt_Arg *args = nullptr;
   int n = 0;
   CaptureInto(small, &size, &ok, &args, &n, "%s %ls %d", "string", L"ws", 3);
   EXPECT_FALSE(ok);
   ASSERT_GT(size, sizeof small);

   std::vector<char> buf(size + 1);
   char *unaligned = buf.data() + 1;  // the layout aligns itself
   CaptureInto(unaligned, &size, &ok, &args, &n, "%s %ls %d", "string", L"ws", 3);
   ASSERT_TRUE(ok);
   ASSERT_EQ(n, 3);
   for (void *p : {static_cast<void *>(args), static_cast<void *>(args[0].v.string8),
                   static_cast<void *>(args[1].v.string32)}) {
      EXPECT_TRUE(p >= unaligned && p < unaligned + size);
   }
   EXPECT_STREQ(args[0].v.string8, "string");
   EXPECT_STREQ(args[1].v.string32, L"ws");
   EXPECT_EQ(args[2].v.signed32, 3);
}

}  // namespace
