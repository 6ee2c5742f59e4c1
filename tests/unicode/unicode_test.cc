// SPDX-License-Identifier: MIT
// The string layer: encoding names, conversion in and out of strings, the
// fatal paths and escaping, with both conversion engines where they differ.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "child.h"
#include "codeset_engine.h"
#include "unicode.h"
#include "unicode/unicodeInt.h"

namespace {

using halcyx::test::IcuEngine;
using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

TEST(EncodingNames, LookupsAndSpellings) {
   const struct {
      const char *name;
      int32_t expected;
   } kCases[] = {
      {"UTF-8", 0}, {"utf8", 0}, {"UTF8", 0}, {"Utf-8", 0}, {"utf_8", 0}, {"cp1208", 0},
      {"windows-1252", 35}, {"Windows-1252", 35}, {"cp1252", 35}, {"latin1", 8},
      {"ISO_8859-1", 8}, {"l1", 8}, {"US-ASCII", 7}, {"ascii", 7}, {"ANSI_X3.4-1968", 7},
      {"ASMO-708", 13}, {"ISO-8859-6", 13}, {"utf-16le", 1}, {"UTF-16BE", 2},
      {"UTF16_LittleEndian", 1}, {"UTF-16", 3}, {"UTF-32LE", 4}, {"UTF32_BigEndian", 5},
      {"Windows-57011", 314}, {"windows-65001", 0}, {"windows-949-2000", 318},
      {"ISO-2022-JP", 29}, {"csISO2022JP", 293},
      // Rows that are not supported, and names that match nothing.
      {"ibm-813", -2}, {"8859_7", 14}, {"BS_4730", -2}, {"windows-12x", -2}, {"", -2},
   };
   for (const auto &c : kCases) {
      EXPECT_EQ(Unicode_EncodingNameToEnum(c.name), c.expected) << c.name;
   }
   // Twice: the second answer comes from the cache, which never changes an
   // answer, even for names that differ only in case.
   EXPECT_EQ(Unicode_EncodingNameToEnum("LATIN1"), 8);
   EXPECT_EQ(Unicode_EncodingNameToEnum("LATIN1"), 8);
   for (int round = 0; round < 2; round++) {
      EXPECT_EQ(Unicode_EncodingNameToEnum("iso-8859-8-i"), -2);
      EXPECT_EQ(Unicode_EncodingNameToEnum("ISO-8859-8-I"), 107);
   }
   Unicode_Shutdown();
   EXPECT_EQ(Unicode_EncodingNameToEnum("latin1"), 8);
}

TEST(EncodingNames, MissesAreLoggedAndUnknownEnumeratorsFatal) {
   auto r = RunInChild([] { Unicode_EncodingNameToEnum("windows-12x"); });
   EXPECT_EQ(LogEntries(r.out),
             std::vector<std::string>{
                "UnicodeIANALookup: Did not find an IANA match for encoding \"windows-12x\"\n"});
   r = RunInChild([] { Unicode_EncodingEnumToName(324); });
   EXPECT_EQ(r.ExitCode(), 1);
   auto entries = LogEntries(r.out);
   ASSERT_EQ(entries.size(), 2u) << r.out;
   EXPECT_EQ(entries[0], "Unicode_EncodingEnumToName: Unknown encoding 324.\n");
   EXPECT_EQ(entries[1].rfind("Panic: NOT_REACHED lib/unicode/unicodeSimpleTypes:", 0), 0u);
}

TEST(EncodingNames, EnumeratorsToPreferredNames) {
   EXPECT_STREQ(Unicode_EncodingEnumToName(-1), "UTF-8");
   EXPECT_STREQ(Unicode_EncodingEnumToName(13), "ISO-8859-6");
   EXPECT_STREQ(Unicode_EncodingEnumToName(7), "ASCII");
   EXPECT_STREQ(Unicode_EncodingEnumToName(35), "windows-1252");
   EXPECT_STREQ(Unicode_EncodingEnumToName(315), "ibm-813_P100-1995");
   EXPECT_EQ(Unicode_ResolveEncoding(-1), 0);
   EXPECT_EQ(Unicode_ResolveEncoding(42), 42);
   EXPECT_EQ(Unicode_GetCurrentEncoding(), 0);
   EXPECT_TRUE(Unicode_IsEncodingValid(323));
   EXPECT_FALSE(Unicode_IsEncodingValid(324));
   EXPECT_FALSE(Unicode_IsEncodingValid(-2));
   // Every enumerator names a row whose name leads back to it, unless the
   // row is not supported or an earlier row holds the same name
   // ("iso-8859-8-i" and the second "ISO-2022-JP").
   int supported = 0;
   for (int32_t e = 0; e < UNICODE_ENCODING_LIMIT; e++) {
      int32_t back = Unicode_EncodingNameToEnum(Unicode_EncodingEnumToName(e));
      EXPECT_TRUE(back == e || back == -2 || e == 292 || e == 294) << e;
      supported += back == e;
   }
   EXPECT_EQ(supported, 76);  // 77 supported rows, two of them sharing 13
}

TEST(Alloc, FromEncodedBuffers) {
   for (bool withIcu : {false, true}) {
      std::unique_ptr<IcuEngine> icu(withIcu ? new IcuEngine : nullptr);
      const uint16_t utf16[] = {'h', 0xE9, 0xD83D, 0xDE00, 0};
      char *s = Unicode_AllocWithLength(utf16, -1, UNICODE_ENCODING_UTF16_LE);
      EXPECT_STREQ(s, "h\xC3\xA9\xF0\x9F\x98\x80");
      free(s);
      s = Unicode_AllocWithLength("abc", 2, UNICODE_ENCODING_DEFAULT);
      EXPECT_STREQ(s, "ab");
      free(s);
      s = Unicode_AllocWithLength("\0h\0i\0\0", -1, UNICODE_ENCODING_UTF16_BE);
      EXPECT_STREQ(s, "hi");
      free(s);
      s = Unicode_AllocWithLength(utf16, 4, UNICODE_ENCODING_UTF16_XE);  // host order
      EXPECT_STREQ(s, "h\xC3\xA9");
      free(s);
      EXPECT_EQ(Unicode_AllocWithLength(nullptr, -1, 0), nullptr);
   }
   IcuEngine icu;
   const uint32_t utf32[] = {'h', 0x1F600, 0};
   char *s = Unicode_AllocWithLength(utf32, -1, UNICODE_ENCODING_UTF32_XE);
   EXPECT_STREQ(s, "h\xF0\x9F\x98\x80");
   free(s);
   const uint16_t lowSurrogate[] = {0xDC00, 0};
   EXPECT_FALSE(Unicode_IsBufferValid(lowSurrogate, -1, UNICODE_ENCODING_UTF16_XE));
   s = Unicode_AllocWithLength("caf\xE9", -1, 8);
   EXPECT_STREQ(s, "caf\xC3\xA9");
   free(s);
   s = UnicodeAllocInternal("a\xFF", 2, UNICODE_ENCODING_UTF8, false);
   EXPECT_STREQ(s, "a\xEF\xBF\xBD");
   free(s);
}

TEST(Alloc, InvalidInputIsFatal) {
   const struct {
      const char *bytes;
      int32_t encoding;
      const char *message;
   } kCases[] = {
      {"A\n\xC3", UNICODE_ENCODING_UTF8, "[A\\x0A\\xC3] from UTF-8 to"},
      {"\xFF", UNICODE_ENCODING_US_ASCII, "[\\xFF] from ASCII to"},
      {"ab", 8, "[ab] from ISO-8859-1 to"},  // the built-in engine has no Latin-1
   };
   for (const auto &c : kCases) {
      auto r = RunInChild([&] { Unicode_AllocWithLength(c.bytes, -1, c.encoding); });
      EXPECT_EQ(r.ExitCode(), 1);
      EXPECT_EQ(LogEntries(r.out),
                std::vector<std::string>{std::string("Panic: Unicode_AllocWithLength: Couldn't convert "
                                                     "invalid buffer ") +
                                         c.message + " Unicode.\n"})
         << r.out;
   }
}

TEST(Alloc, Lists) {
   char *in[] = {const_cast<char *>("a"), const_cast<char *>("b\xC3\xA9"), nullptr};
   char **list = Unicode_AllocList(in, -1, UNICODE_ENCODING_UTF8);
   ASSERT_NE(list, nullptr);
   EXPECT_STREQ(list[0], "a");
   EXPECT_STREQ(list[1], "b\xC3\xA9");
   EXPECT_EQ(list[2], nullptr);
   char **ascii = Unicode_GetAllocList(list, 1, UNICODE_ENCODING_US_ASCII);
   ASSERT_NE(ascii, nullptr);
   EXPECT_STREQ(ascii[0], "a");
   free(ascii[0]);
   free(ascii);
   // The second element has no US-ASCII form: nothing is kept.
   EXPECT_EQ(Unicode_GetAllocList(list, -1, UNICODE_ENCODING_US_ASCII), nullptr);
   for (int i = 0; i < 3; i++) {
      free(list[i]);
   }
   free(list);
}

TEST(Alloc, WideArgumentsAtInitialisation) {
   const uint16_t arg0[] = {'p', 0xE9, 0}, arg1[] = {0xD83D, 0xDE00, 0}, env0[] = {'A', '=', 0};
   uint16_t *wargv[] = {const_cast<uint16_t *>(arg0), const_cast<uint16_t *>(arg1), nullptr};
   uint16_t *wenvp[] = {const_cast<uint16_t *>(env0), nullptr};
   char **argv = nullptr, **envp = nullptr;
   Unicode_InitW(2, wargv, wenvp, &argv, &envp);
   ASSERT_NE(argv, nullptr);
   ASSERT_NE(envp, nullptr);
   EXPECT_STREQ(argv[0], "p\xC3\xA9");
   EXPECT_STREQ(argv[1], "\xF0\x9F\x98\x80");
   EXPECT_EQ(argv[2], nullptr);
   EXPECT_STREQ(envp[0], "A=");
   EXPECT_EQ(envp[1], nullptr);
   for (char **list : {argv, envp}) {
      for (char **p = list; *p != nullptr; p++) {
         free(*p);
      }
      free(list);
   }
}

TEST(GetBytes, IntoEncodings) {
   for (bool withIcu : {false, true}) {
      std::unique_ptr<IcuEngine> icu(withIcu ? new IcuEngine : nullptr);
      size_t n = 0;
      auto *w = static_cast<uint16_t *>(
         UnicodeGetAllocBytesInternal("h\xC3\xA9", UNICODE_ENCODING_UTF16_LE, -1, &n));
      ASSERT_NE(w, nullptr);
      EXPECT_EQ(n, 4u);
      EXPECT_EQ(w[0], 'h');
      EXPECT_EQ(w[1], 0xE9);
      EXPECT_EQ(w[2], 0);
      free(w);
      // Host order: the same units, and no byte-order mark.
      w = static_cast<uint16_t *>(
         UnicodeGetAllocBytesInternal("h\xC3\xA9", UNICODE_ENCODING_UTF16_XE, -1, &n));
      ASSERT_NE(w, nullptr);
      EXPECT_EQ(n, 4u);
      EXPECT_EQ(std::vector<uint16_t>(w, w + 3), (std::vector<uint16_t>{'h', 0xE9, 0}));
      if (withIcu) {
         auto *w32 = static_cast<uint32_t *>(
            UnicodeGetAllocBytesInternal("h\xC3\xA9", UNICODE_ENCODING_UTF32_XE, -1, &n));
         ASSERT_NE(w32, nullptr);
         EXPECT_EQ(n, 8u);
         EXPECT_EQ(std::vector<uint32_t>(w32, w32 + 3), (std::vector<uint32_t>{'h', 0xE9, 0}));
         free(w32);
      }
      uint16_t *copy = Unicode_UTF16Strdup(w);
      EXPECT_EQ(Unicode_UTF16Strlen(copy), 2);
      EXPECT_EQ(Unicode_LengthInBytes(copy, UNICODE_ENCODING_UTF16_LE), 4);
      free(copy);
      free(w);
      char *prefix = static_cast<char *>(Unicode_GetAllocBytesWithLength("abc", 0, 2));
      EXPECT_STREQ(prefix, "ab");
      free(prefix);
      EXPECT_EQ(Unicode_GetAllocBytes("\xC3\xA9", UNICODE_ENCODING_US_ASCII), nullptr);
      EXPECT_FALSE(Unicode_CanGetBytesWithEncoding("\xC3\xA9", UNICODE_ENCODING_US_ASCII));
      EXPECT_TRUE(Unicode_CanGetBytesWithEncoding(nullptr, UNICODE_ENCODING_US_ASCII));
      EXPECT_EQ(Unicode_CanGetBytesWithEncoding("\xC3\xA9", 8), withIcu);
   }
   auto r = RunInChild([] { Unicode_GetAllocBytes("\xC3", UNICODE_ENCODING_UTF16_LE); });
   EXPECT_EQ(r.ExitCode(), 1);
   EXPECT_NE(r.out.find("NOT_IMPLEMENTED lib/unicode/unicodeSimpleBase:"), std::string::npos);
}

TEST(Measures, ValidityLengthsAndEscaping) {
   EXPECT_TRUE(Unicode_IsBufferValid(nullptr, 3, UNICODE_ENCODING_UTF8));
   EXPECT_TRUE(Unicode_IsBufferValid("a\xC3\xA9", -1, UNICODE_ENCODING_UTF8));
   EXPECT_FALSE(Unicode_IsBufferValid("a\xC3\xA9", 2, UNICODE_ENCODING_UTF8));
   EXPECT_FALSE(Unicode_IsBufferValid("a\x80", -1, UNICODE_ENCODING_US_ASCII));
   EXPECT_TRUE(Unicode_IsBufferValid("a\x80", 1, UNICODE_ENCODING_US_ASCII));
   EXPECT_TRUE(Unicode_IsBufferValid("\xFF", -1, 8));
   const uint32_t utf32[] = {'a', 0x1F600, 0};
   EXPECT_EQ(Unicode_LengthInBytes(utf32, UNICODE_ENCODING_UTF32_LE), 8);
   EXPECT_EQ(Unicode_LengthInBytes("abc", 8), 3);
   EXPECT_EQ(Unicode_LengthInCodePoints("a\xC3\xA9\xE2\x82\xAC"), 3);
   char *e = Unicode_EscapeBuffer("A\n\xC3\\~\x7F", -1, UNICODE_ENCODING_UTF8);
   EXPECT_STREQ(e, "A\\x0A\\xC3\\x5C~\\x7F");
   free(e);
   EXPECT_EQ(Unicode_EscapeBuffer(nullptr, -1, 0), nullptr);
}

}  // namespace
