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
using Strings = std::vector<std::string>;

// A returned string ("<null>" for none), freed.
std::string Take(void *s) {
   std::string out = s == nullptr ? "<null>" : static_cast<char *>(s);
   free(s);
   return out;
}

// A returned NULL-terminated list of strings, freed with its elements.
Strings TakeList(char **list) {
   Strings out;
   for (char **p = list; p != nullptr && *p != nullptr; p++) out.push_back(Take(*p));
   free(list);
   return out;
}

// The first count units of a returned buffer, freed.
template <typename T>
std::vector<T> TakeUnits(void *p, size_t count) {
   std::vector<T> out(static_cast<T *>(p), static_cast<T *>(p) + (p != nullptr ? count : 0));
   free(p);
   return out;
}

TEST(EncodingNames, LookupsAndSpellings) {
   const struct { const char *name; int32_t expected; } kCases[] = {
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
   for (const auto &c : kCases) EXPECT_EQ(Unicode_EncodingNameToEnum(c.name), c.expected) << c.name;
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
   for (auto [e, name] : {std::pair{-1, "UTF-8"}, {13, "ISO-8859-6"}, {7, "ASCII"}, {35, "windows-1252"},
                          {315, "ibm-813_P100-1995"}})
      EXPECT_STREQ(Unicode_EncodingEnumToName(e), name);
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
   const uint16_t utf16[] = {'h', 0xE9, 0xD83D, 0xDE00, 0};
   for (bool withIcu : {false, true}) {
      std::unique_ptr<IcuEngine> icu(withIcu ? new IcuEngine : nullptr);
      EXPECT_EQ(Take(Unicode_AllocWithLength(utf16, -1, UNICODE_ENCODING_UTF16_LE)), "h\xC3\xA9\xF0\x9F\x98\x80");
      EXPECT_EQ(Take(Unicode_AllocWithLength("abc", 2, UNICODE_ENCODING_DEFAULT)), "ab");
      EXPECT_EQ(Take(Unicode_AllocWithLength("\0h\0i\0\0", -1, UNICODE_ENCODING_UTF16_BE)), "hi");
      // Host order.
      EXPECT_EQ(Take(Unicode_AllocWithLength(utf16, 4, UNICODE_ENCODING_UTF16_XE)), "h\xC3\xA9");
      EXPECT_EQ(Unicode_AllocWithLength(nullptr, -1, 0), nullptr);
   }
   IcuEngine icu;
   const uint32_t utf32[] = {'h', 0x1F600, 0};
   EXPECT_EQ(Take(Unicode_AllocWithLength(utf32, -1, UNICODE_ENCODING_UTF32_XE)), "h\xF0\x9F\x98\x80");
   const uint16_t lowSurrogate[] = {0xDC00, 0};
   EXPECT_FALSE(Unicode_IsBufferValid(lowSurrogate, -1, UNICODE_ENCODING_UTF16_XE));
   EXPECT_EQ(Take(Unicode_AllocWithLength("caf\xE9", -1, 8)), "caf\xC3\xA9");
   EXPECT_EQ(Take(UnicodeAllocInternal("a\xFF", 2, UNICODE_ENCODING_UTF8, false)), "a\xEF\xBF\xBD");
}

TEST(Alloc, InvalidInputIsFatal) {
   const struct { const char *bytes; int32_t encoding; const char *message; } kCases[] = {
      {"A\n\xC3", UNICODE_ENCODING_UTF8, "[A\\x0A\\xC3] from UTF-8 to"},
      {"\xFF", UNICODE_ENCODING_US_ASCII, "[\\xFF] from ASCII to"},
      {"ab", 8, "[ab] from ISO-8859-1 to"},  // the built-in engine has no Latin-1
   };
   for (const auto &c : kCases) {
      auto r = RunInChild([&] { Unicode_AllocWithLength(c.bytes, -1, c.encoding); });
      EXPECT_EQ(r.ExitCode(), 1);
      EXPECT_EQ(LogEntries(r.out), Strings{std::string("Panic: Unicode_AllocWithLength: Couldn't convert "
                                                       "invalid buffer ") + c.message + " Unicode.\n"});
   }
}

TEST(Alloc, Lists) {
   char *in[] = {const_cast<char *>("a"), const_cast<char *>("b\xC3\xA9"), nullptr};
   char **list = Unicode_AllocList(in, -1, UNICODE_ENCODING_UTF8);
   ASSERT_NE(list, nullptr);
   EXPECT_EQ(Strings(list, list + 2), (Strings{"a", "b\xC3\xA9"}));
   char **ascii = Unicode_GetAllocList(list, 1, UNICODE_ENCODING_US_ASCII);
   ASSERT_NE(ascii, nullptr);
   EXPECT_EQ(Take(ascii[0]), "a");
   free(ascii);
   // The second element has no US-ASCII form: nothing is kept.
   EXPECT_EQ(Unicode_GetAllocList(list, -1, UNICODE_ENCODING_US_ASCII), nullptr);
   EXPECT_EQ(TakeList(list).size(), 2u);
}

TEST(Alloc, WideArgumentsAtInitialisation) {
   const uint16_t arg0[] = {'p', 0xE9, 0}, arg1[] = {0xD83D, 0xDE00, 0}, env0[] = {'A', '=', 0};
   uint16_t *wargv[] = {const_cast<uint16_t *>(arg0), const_cast<uint16_t *>(arg1), nullptr};
   uint16_t *wenvp[] = {const_cast<uint16_t *>(env0), nullptr};
   char **argv = nullptr, **envp = nullptr;
   Unicode_InitW(2, wargv, wenvp, &argv, &envp);
   ASSERT_NE(argv, nullptr);
   ASSERT_NE(envp, nullptr);
   EXPECT_EQ(TakeList(argv), (Strings{"p\xC3\xA9", "\xF0\x9F\x98\x80"}));
   EXPECT_EQ(TakeList(envp), Strings{"A="});
}

TEST(GetBytes, IntoEncodings) {
   for (bool withIcu : {false, true}) {
      std::unique_ptr<IcuEngine> icu(withIcu ? new IcuEngine : nullptr);
      size_t n = 0;
      using U16 = std::vector<uint16_t>;
      EXPECT_EQ(TakeUnits<uint16_t>(UnicodeGetAllocBytesInternal("h\xC3\xA9", UNICODE_ENCODING_UTF16_LE, -1, &n), 3),
                (U16{'h', 0xE9, 0}));
      EXPECT_EQ(n, 4u);
      // Host order: the same units, and no byte-order mark.
      auto *w = static_cast<uint16_t *>(
         UnicodeGetAllocBytesInternal("h\xC3\xA9", UNICODE_ENCODING_UTF16_XE, -1, &n));
      ASSERT_NE(w, nullptr);
      EXPECT_EQ(n, 4u);
      EXPECT_EQ(U16(w, w + 3), (U16{'h', 0xE9, 0}));
      if (withIcu) {
         EXPECT_EQ(TakeUnits<uint32_t>(UnicodeGetAllocBytesInternal("h\xC3\xA9", UNICODE_ENCODING_UTF32_XE, -1, &n), 3),
                   (std::vector<uint32_t>{'h', 0xE9, 0}));
         EXPECT_EQ(n, 8u);
      }
      uint16_t *copy = Unicode_UTF16Strdup(w);
      EXPECT_EQ(Unicode_UTF16Strlen(copy), 2);
      EXPECT_EQ(Unicode_LengthInBytes(copy, UNICODE_ENCODING_UTF16_LE), 4);
      free(copy);
      free(w);
      EXPECT_EQ(Take(Unicode_GetAllocBytesWithLength("abc", 0, 2)), "ab");
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
   EXPECT_EQ(Take(Unicode_EscapeBuffer("A\n\xC3\\~\x7F", -1, UNICODE_ENCODING_UTF8)), "A\\x0A\\xC3\\x5C~\\x7F");
   EXPECT_EQ(Unicode_EscapeBuffer(nullptr, -1, 0), nullptr);
}

}  // namespace
