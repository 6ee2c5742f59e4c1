// SPDX-License-Identifier: MIT
// Code-set conversion: the fast validator against the plain automaton and
// ICU, the built-in engine against ICU for every pair and flag, engine
// selection, and ICU mapped only when something needs it.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "child.h"
#include "codeset.h"
#include "codeset_engine.h"
#include "misc/codesetInt.h"

namespace {

using halcyx::test::IcuEngine;
using halcyx::test::RunInChild;

struct Converted {
   bool ok;
   std::string bytes;
   bool operator==(const Converted &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Converted &c) {
   os << (c.ok ? "ok [" : "failed [");
   for (unsigned char b : c.bytes) os << ' ' << std::hex << static_cast<int>(b);
   return os << " ]";
}

Converted Convert(const char *from, const std::string &in, const char *to, unsigned flags) {
   char *out = nullptr;
   size_t size = 0;
   bool ok = CodeSet_GenericToGeneric(from, in.data(), in.size(), to, flags, &out, &size);
   Converted c{ok, ok ? std::string(out, size) : ""};
   if (ok) {
      EXPECT_EQ(std::memcmp(out + size, "\0\0\0\0", 4), 0);
   }
   free(out);
   return c;
}

// n bytes of a returned buffer, freed.
std::string Own(char *out, size_t n) {
   std::string s(out, n);
   free(out);
   return s;
}

std::string Hex(const std::string &s) {
   std::string h;
   for (unsigned char b : s) {
      h += "0123456789ABCDEF"[b >> 4];
      h += "0123456789ABCDEF"[b & 15];
   }
   return h;
}

// Hand-picked traps, then random strings over the bytes that matter most to
// UTF-8 and UTF-16 decoding, then fully random ones.
std::vector<std::string> AdversarialInputs() {
   std::vector<std::string> inputs = {
      "", "abc", std::string("a\0b", 3), "\xC3\x28", "\xC0\x80", "\xC1\xBF", "\xC2\x80",
      "\xE0\x80\x80", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xED\xA0\x80", "\xED\xBF\xBF",
      "\xEF\xBF\xBF", "\xF0\x8F\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF",
      "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "\x80", "\xE2\x82", "\xE2\x82\xAC",
      "a\xF0\x9F\x98", "\xF0\x9F\x98\x80", "\xE2\x82\x41", "\xF0\x9F\x41\x42",
      std::string("\x00\xD8\x41\x00", 4), std::string("\x00\xDC\x41\x00", 4),
      std::string("\x3D\xD8\x00\xDE", 4), std::string("\x00\xD8", 2), "\x41",
      std::string("\x00\xD8\x41", 3), std::string("\xD8\x3D\xDE\x00", 4),
   };
   static const uint8_t kInteresting[] = {0x00, 0x41, 0x7F, 0x80, 0x8F, 0x90, 0x9F, 0xA0,
                                          0xBF, 0xC0, 0xC1, 0xC2, 0xDF, 0xE0, 0xE1, 0xED,
                                          0xEF, 0xF0, 0xF3, 0xF4, 0xF5, 0xFF, 0xD8, 0xDB,
                                          0xDC, 0xDF, 0x3D, 0xDE};
   std::mt19937 rng(20261123);
   // Valid text of every width, long enough to cross vector strides and
   // blocks, and the same text with one byte changed.
   for (int i = 0; i < 1500; i++) {
      std::string s;
      for (size_t n = rng() % 90; n > 0; n--) {
         uint32_t cp = rng() % 4 == 0 ? rng() % 0x110000 : 0x20 + rng() % 95;
         uint8_t utf8[4];
         if (cp < 0xD800 || cp > 0xDFFF) {
            s.append(reinterpret_cast<char *>(utf8), halcyx::CodeSetEncodeUtf8(cp, utf8));
         }
      }
      inputs.push_back(s);
      if (!s.empty()) {
         s[rng() % s.size()] = static_cast<char>(rng());
         inputs.push_back(s);
      }
   }
   for (int i = 0; i < 3000; i++) {
      std::string s(rng() % 24, '\0');
      for (char &c : s) {
         c = static_cast<char>(i % 3 == 0 ? rng() : kInteresting[rng() % sizeof kInteresting]);
      }
      inputs.push_back(s);
   }
   return inputs;
}

TEST(Utf8Validation, FastPathAgreesWithAutomatonAndIcu) {
   IcuEngine icu;
   auto check = [](const std::string &s) {
      auto bytes = reinterpret_cast<const uint8_t *>(s.data());
      bool dfa = halcyx::CodeSetValidateUtf8Dfa(bytes, s.size());
      ASSERT_EQ(CodeSet_IsValidUTF8(s.data(), s.size()), dfa) << Hex(s);
      ASSERT_EQ(halcyx::CodeSetValidateUtf8Scalar(bytes, s.size()), dfa) << Hex(s);
      if (halcyx::CodeSetHasAvx2()) {
         ASSERT_EQ(halcyx::CodeSetValidateUtf8Avx2(bytes, s.size()), dfa) << Hex(s);
      }
      ASSERT_EQ(CodeSet_Validate(s.data(), s.size(), "UTF-8"), dfa) << Hex(s);
   };
   for (const std::string &s : AdversarialInputs()) {
      check(s);
      check(std::string(64, 'x') + s);        // after an ASCII block
      check(s + std::string(70 - s.size() % 64, '\xC3'));  // across blocks
   }
   // A bad or multi-byte sequence at every offset of ASCII runs that cross
   // the 16- and 64-byte strides, including a sequence cut by the end.
   for (size_t length : {15, 16, 63, 64, 65, 130}) {
      for (const char *piece : {"\x80", "\xC3\xA9", "\xE2\x82", "\xF0\x9F\x98\x80", "\xFF"}) {
         for (size_t at = 0; at < length; at++) {
            std::string s(length, 'x');
            s.replace(at, std::strlen(piece), piece);
            s.resize(length);
            check(s);
         }
      }
   }
}

TEST(Utf8Validation, StringForms) {
   EXPECT_TRUE(CodeSet_IsStringValidUTF8("h\xC3\xA9"));
   EXPECT_FALSE(CodeSet_IsStringValidUTF8("\xC3"));
   EXPECT_FALSE(CodeSet_IsStringValidUTF8(nullptr));
   EXPECT_TRUE(CodeSet_IsValidUTF8(std::string("a\0b", 3).data(), 3));
   EXPECT_FALSE(CodeSet_IsValidUTF8String(std::string("a\0b", 3).data(), 3));
   EXPECT_TRUE(CodeSet_IsValidUTF8(nullptr, 0));
}

TEST(BuiltInEngine, MatchesIcuForEveryPairAndFlag) {
   static const char *const kSets[] = {"UTF-8", "UTF-16LE", "UTF-16BE", "US-ASCII"};
   const std::vector<std::string> inputs = AdversarialInputs();
   for (const char *from : kSets) {
      for (const char *to : kSets) {
         for (unsigned flags = 0; flags <= 2; flags++) {
            std::vector<Converted> builtIn;
            for (const std::string &in : inputs) builtIn.push_back(Convert(from, in, to, flags));
            IcuEngine icu;
            for (size_t i = 0; i < inputs.size(); i++) {
               ASSERT_EQ(builtIn[i], Convert(from, inputs[i], to, flags))
                  << from << " to " << to << " flag " << flags << " input " << Hex(inputs[i]);
            }
         }
      }
   }
}

// Code points that US-ASCII cannot hold: substituted, except those that
// both engines drop silently.
TEST(BuiltInEngine, UnmappableCodePointsAsIcu) {
   std::string all;
   for (uint32_t c = 0x80; c <= 0x10FFFF; c++) {
      uint8_t utf8[4];
      if (c < 0xD800 || c > 0xDFFF) {
         all += 'x';
         all.append(reinterpret_cast<char *>(utf8), halcyx::CodeSetEncodeUtf8(c, utf8));
      }
   }
   Converted builtIn = Convert("UTF-8", all, "US-ASCII", 1);
   IcuEngine icu;
   EXPECT_TRUE(builtIn == Convert("UTF-8", all, "US-ASCII", 1));
}

TEST(Conversion, FlagsDecideTheFateOfBadInput) {
   for (bool withIcu : {false, true}) {
      std::unique_ptr<IcuEngine> icu(withIcu ? new IcuEngine : nullptr);
      EXPECT_FALSE(Convert("UTF-8", "\xC3\x28", "UTF-16LE", 0).ok);
      EXPECT_EQ(Convert("UTF-8", "\xC3\x28", "UTF-16LE", 1), (Converted{true, std::string("\xFD\xFF(\0", 4)}));
      EXPECT_EQ(Convert("UTF-8", "\xC3\x28", "UTF-16LE", 2), (Converted{true, std::string("(\0", 2)}));
      EXPECT_EQ(Convert("UTF-8", "", "UTF-16LE", 0), (Converted{true, ""}));
      EXPECT_EQ(Convert("latin1", "a", "UTF-8", 0).ok, withIcu);
      EXPECT_FALSE(Convert(nullptr, "a", "UTF-8", 0).ok);
      EXPECT_FALSE(Convert("UTF-8", "a", "no-such-set", 0).ok);
      // A failure leaves a caller's buffer as it was, whatever had been converted.
      for (const char *to : {"UTF-16LE", "UTF-16BE", "US-ASCII", "UTF-8"}) {
         DynBuf db;
         DynBuf_Init(&db);
         ASSERT_TRUE(DynBuf_Append(&db, "keep", 4));
         EXPECT_FALSE(CodeSet_GenericToGenericDb("UTF-8", "ab\xC3\x28", 4, to, 0, &db));
         EXPECT_FALSE(CodeSet_Utf16leToUtf8Db("a\0\x00\xDC", 4, &db));
         EXPECT_EQ(std::string(db.data, db.size), "keep") << to << (withIcu ? " ICU" : "");
         DynBuf_Destroy(&db);
      }
      auto r = RunInChild([] { Convert("UTF-8", "a", "UTF-16LE", 3); });
      EXPECT_EQ(r.ExitCode(), 1);
      EXPECT_NE(r.out.find("NOT_IMPLEMENTED lib/misc/codeset:"), std::string::npos) << r.out;
   }
}

TEST(Conversion, IcuOutputGrowsByDoubling) {
   IcuEngine icu;
   std::string ascii(100000, 'a');
   Converted c = Convert("UTF-8", ascii, "UTF-32LE", 0);
   ASSERT_TRUE(c.ok);
   ASSERT_EQ(c.bytes.size(), 4 * ascii.size());
   EXPECT_EQ(c.bytes.substr(c.bytes.size() - 4), std::string("a\0\0\0", 4));
}

TEST(Conversion, FixedPairsBothEngines) {
   for (bool withIcu : {false, true}) {
      std::unique_ptr<IcuEngine> icu(withIcu ? new IcuEngine : nullptr);
      char *out;
      size_t n;
      ASSERT_TRUE(CodeSet_Utf8ToUtf16le("h\xC3\xA9", 3, &out, &n));
      EXPECT_EQ(Own(out, n), std::string("h\0\xE9\0", 4));
      ASSERT_TRUE(CodeSet_Utf16beToCurrent("\0h\0\xE9", 4, &out, &n));
      EXPECT_EQ(Own(out, strlen(out)), "h\xC3\xA9");
      EXPECT_FALSE(CodeSet_Utf16leToUtf8("\x00\xDC", 2, &out, &n));
      ASSERT_TRUE(CodeSet_Utf8ToCurrent("abc", 3, &out, &n));
      EXPECT_EQ(Own(out, strlen(out)), "abc");
      EXPECT_FALSE(CodeSet_Utf8ToCurrent("abc", static_cast<size_t>(-1), &out, &n));
   }
}

TEST(Normalisation, ComposesDecomposedText) {
   char *out;
   size_t n;
   ASSERT_TRUE(CodeSet_Utf8FormDToUtf8FormC("e\xCC\x81t\xC3\xA9", 6, &out, &n));
   EXPECT_EQ(Own(out, n), "\xC3\xA9t\xC3\xA9");
   EXPECT_FALSE(CodeSet_Utf8FormDToUtf8FormC("\xC3", 1, &out, &n));
}

TEST(IcuQueries, SupportAndValidation) {
   EXPECT_TRUE(CodeSet_IsEncodingSupported("ISO-8859-1"));
   EXPECT_FALSE(CodeSet_IsEncodingSupported("no-such-set"));
   EXPECT_TRUE(CodeSet_Validate("\xFF", 1, "ISO-8859-1"));
   EXPECT_FALSE(CodeSet_Validate("\xFF", 1, "UTF-8"));
   EXPECT_TRUE(CodeSet_Validate(nullptr, 0, "no-such-set"));
   auto r = RunInChild([] { CodeSet_Validate("a", 1, "no-such-set"); });
   EXPECT_EQ(r.ExitCode(), 1);
   EXPECT_NE(r.out.find("VERIFY lib/misc/codeset:"), std::string::npos) << r.out;
}

// CTest runs every test in a process of its own, where ICU starts unmapped.
TEST(EngineSelection, DataFileIsTheSwitchAndIcuLoadsOnDemand) {
   if (halcyx::CodeSetIcuIsLoaded()) {
      GTEST_SKIP() << "ICU already mapped by an earlier test; run this test alone";
   }
   auto r = RunInChild([] {
      auto icuMapped = [] {
         std::ifstream maps("/proc/self/maps");
         std::string line;
         while (std::getline(maps, line)) if (line.find("libicuuc") != std::string::npos) return true;
         return false;
      };
      char *out;
      // No data file anywhere: the built-in engine, and ICU never mapped.
      CodeSet_Init(nullptr);
      if (!CodeSet_Utf8ToUtf16le("abc", 3, &out, nullptr) || icuMapped()) _exit(10);
      free(out);
      // A directory of that name is not the file.
      IcuEngine icu;
      std::filesystem::create_directory(icu.Dir() + "/sub");
      std::filesystem::create_directory(icu.Dir() + "/sub/icudt44l.dat");
      CodeSet_Init((icu.Dir() + "/sub").c_str());
      if (Convert("latin1", "a", "UTF-8", 0).ok || icuMapped()) _exit(11);
      CodeSet_Init(icu.Dir().c_str());
      if (!Convert("latin1", "a", "UTF-8", 0).ok || !icuMapped()) _exit(12);
   });
   EXPECT_EQ(r.ExitCode(), 0) << r.out << r.err;
}

TEST(CodePoints, CountDecodeAndUtf32RoundTrip) {
   EXPECT_EQ(CodeSet_LengthInCodePoints("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), 4);
   EXPECT_EQ(CodeSet_LengthInCodePoints("\xC3"), -1);
   uint32_t cp = 0;
   const char euro[] = "\xE2\x82\xAC";
   EXPECT_EQ(CodeSet_GetUtf8(euro, euro + 3, &cp), 3);
   EXPECT_EQ(cp, 0x20ACu);
   EXPECT_EQ(CodeSet_GetUtf8(euro, euro + 2, &cp), 0);
   char *utf32;
   ASSERT_TRUE(CodeSet_UTF8ToUTF32("a\xF0\x9F\x98\x80", &utf32));
   auto units = reinterpret_cast<const uint32_t *>(utf32);
   EXPECT_EQ(std::vector<uint32_t>(units, units + 3), (std::vector<uint32_t>{0x61, 0x1F600, 0}));
   char *back;
   ASSERT_TRUE(CodeSet_UTF32ToUTF8(utf32, &back));
   EXPECT_EQ(Own(back, strlen(back)), "a\xF0\x9F\x98\x80");
   free(utf32);
   EXPECT_FALSE(CodeSet_UTF8ToUTF32("\xED\xA0\x80", &utf32));
   const uint32_t surrogate[] = {0xD800, 0};
   EXPECT_FALSE(CodeSet_UTF32ToUTF8(reinterpret_cast<const char *>(surrogate), &back));
}

}  // namespace
