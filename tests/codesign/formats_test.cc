// SPDX-License-Identifier: MIT
// The strict parsers: requirement text, code directory and CodeResources.
#include <gtest/gtest.h>

#include "codesignInt.h"

using namespace halcyx::codesign;

namespace {

TEST(RequirementParser, ErrorsNameTheOffset) {
   struct {
      std::string text;
      const char *error;  // empty: parses
   } cases[] = {
      {"identifier \"a\" and anchor apple generic and anchor trusted", ""},
      {"identifier = com.zorvex.x or !(cdhash H\"" + std::string(64, 'A') + "\")", ""},
      {"/* c */ cert -1 = H\"" + std::string(64, '0') + "\" // tail", ""},
      {"certificate 2 trusted and info [Tier] >= \"b\" and cert root[subject.O] exists", ""},
      {"identifier", "string expected at offset 10"},
      {"identifier \"a\" identifier \"b\"", "end of requirement expected at offset 15"},
      {"anchor google", "'apple', 'trusted' or '=' expected at offset 7"},
      {"cert leaf[subject.SN] exists", "certificate field expected at offset 10"},
      {"cert 1000 trusted", "certificate position expected at offset 5"},
      {"cert -0 trusted", "certificate position expected at offset 6"},
      {"cdhash H\"abc\"", "64 hexadecimal digits expected at offset 7"},
      {"info [k] = *x", "quoted string expected at offset 12"},
      {"identifier \"a\\q\"", "bad escape at offset 13"},
      {"identifier \"a", "unterminated string at offset 11"},
      {"anchor trusted /* open", "unterminated comment at offset 22"},
      {"(anchor trusted", "')' expected at offset 15"},
      {"anchor trusted and", "requirement term expected at offset 18"},
      {"anchor trusted && anchor apple", "unexpected character at offset 15"},
      {"", "requirement term expected at offset 0"},
   };
   for (const auto &c : cases) {
      Requirement req;
      std::string error;
      bool ok = ParseRequirement(c.text, &req, &error);
      EXPECT_EQ(ok, c.error[0] == '\0') << c.text;
      EXPECT_EQ(error, c.error) << c.text;
   }
   Requirement deep;
   std::string error;
   EXPECT_FALSE(ParseRequirement(std::string(200, '(') + "anchor trusted" + std::string(200, ')'),
                                 &deep, &error));
   EXPECT_EQ(error, "less nesting expected at offset 64");
}

TEST(RequirementParser, ProductRequirementText) {
   std::string text;
   ASSERT_TRUE(FormatProductRequirement("com.zorvex.Tool Helper", &text));
   EXPECT_EQ(text, "identifier \"com.zorvex.Tool Helper\" and anchor apple generic and anchor "
                   "trusted and (cert leaf[subject.CN] = *\"Zorvex, Inc.\"* or  cert "
                   "leaf[subject.CN] = *\"Tarnwick Wireless LLC\"*) ");
   Requirement req;
   std::string error;
   EXPECT_TRUE(ParseRequirement(text, &req, &error)) << error;
   for (const char *bad : {"a\"b", "a\\b", "tab\there", "", "\xc3\x28"}) {
      EXPECT_FALSE(FormatProductRequirement(bad, &text)) << bad;
   }
}

TEST(CodeDirectoryParser, AcceptsOnlyTheCanonicalForm) {
   const std::string hash(64, 'a');
   const std::string good = "CodeDirectory-Version: 1\nIdentifier: com.zorvex.x y\nKind: file\n"
                            "Hash-Type: sha256\nContent-Size: 12\nContent-Hash: " + hash + "\n";
   CodeDirectory cd;
   ASSERT_TRUE(ParseCodeDirectory(good, &cd));
   EXPECT_EQ(cd.identifier, "com.zorvex.x y");
   EXPECT_EQ(cd.contentSize, 12u);
   EXPECT_EQ(FormatCodeDirectory(cd), good);

   auto replaced = [&](const std::string &from, const std::string &to) {
      std::string s = good;
      return s.replace(s.find(from), from.size(), to);
   };
   const std::string bad[] = {
      good.substr(0, good.size() - 1),                   // no final LF
      good + "\n",                                       // empty line
      replaced("Size: 12", "Size: 012"),                 // leading zero
      replaced("Size: 12", "Size:  12"),                 // extra blank
      replaced(hash, std::string(64, 'A')),              // upper-case hex
      replaced(hash, std::string(63, 'a')),              // short hash
      replaced("Kind: file\n", "Kind: file\r\n"),        // CR
      replaced("Kind: file", "Kind: bundle"),            // file keys under bundle kind
      replaced("Hash-Type: sha256\n", ""),               // missing key
      replaced("Version: 1", "Version: 2"),
      replaced("com.zorvex.x y", "a\tb"),                // control character
      good + "Extra: 1\n",
      "Identifier: x\nCodeDirectory-Version: 1\nKind: file\nHash-Type: sha256\n"
      "Content-Size: 1\nContent-Hash: " + hash + "\n",   // order
      replaced("com.zorvex.x y", std::string(2100, 'x')),
   };
   for (const std::string &text : bad) {
      EXPECT_FALSE(ParseCodeDirectory(text, &cd)) << text;
   }
}

TEST(CodeResourcesParser, AcceptsOnlyWhatTheSignerWrites) {
   Digest hash;
   hash.fill(7);
   const SealedEntry file{false, hash, ""};
   auto link = [](const char *target) { return SealedEntry{true, {}, target}; };
   const std::string good = FormatCodeResources({{"a/b", file}, {"a/c", link("../b")}});
   Seal seal;
   ASSERT_TRUE(ParseCodeResources(good, &seal));
   EXPECT_EQ(seal.size(), 2u);
   EXPECT_TRUE(seal["a/c"].isLink);
   const size_t first = good.find("<key>a/b</key>"), second = good.find("<key>a/c</key>");
   const std::string bad[] = {
      FormatCodeResources({{"/abs", file}}),
      FormatCodeResources({{"./a", file}}),
      FormatCodeResources({{"a/../b", file}}),
      FormatCodeResources({{"a//b", file}}),
      FormatCodeResources({{"Contents/_CodeSignature/x", file}}),
      FormatCodeResources({{"a", link("../../x")}}),
      FormatCodeResources({{"a", link("/etc")}}),
      good + "junk",
      good + good,                                                 // a second list
      good.substr(0, good.rfind("</plist>")),                      // unclosed
      good.substr(0, second) + good.substr(first, second - first) +
         good.substr(second),                                      // a key twice
      "<plist version=\"1.0\"><array/></plist>",
      "bplist00garbage",
      "",
   };
   for (const std::string &text : bad) {
      EXPECT_FALSE(ParseCodeResources(text, &seal)) << text;
   }
}

}  // namespace
