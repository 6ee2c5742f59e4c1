// SPDX-License-Identifier: MIT
// Racing first users of the string layer: initialisation runs once, the
// name cache is created once and every thread gets the same answers.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "unicode.h"

namespace {

TEST(UnicodeRaces, InitialisationAndNameLookups) {
   static const struct {
      const char *name;
      int32_t expected;
   } kNames[] = {{"utf8", 0}, {"Latin1", 8}, {"windows-1252", 35}, {"UTF-16LE", 1},
                 {"ASCII", 7}, {"ISO_8859-6", 13}, {"Windows-57002", 305}};
   for (int round = 0; round < 20; round++) {
      Unicode_Shutdown();
      std::vector<std::jthread> threads;
      std::atomic<int> wrong{0};
      for (int t = 0; t < 4; t++) {
         threads.emplace_back([&wrong, t] {
            Unicode_Init(0, nullptr, nullptr);
            for (size_t i = 0; i < std::size(kNames); i++) {
               const auto &n = kNames[(i + t) % std::size(kNames)];
               wrong += Unicode_EncodingNameToEnum(n.name) != n.expected;
               wrong += Unicode_GetCurrentEncoding() != UNICODE_ENCODING_UTF8;
            }
         });
      }
      threads.clear();
      EXPECT_EQ(wrong.load(), 0) << "round " << round;
   }
}

}  // namespace
