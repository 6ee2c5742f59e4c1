// SPDX-License-Identifier: MIT
// The C library's ecvt and fcvt share static storage; the engine's digits
// must not, or threads formatting floats at once read each other's digits.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "str.h"

TEST(FloatConcurrency, EveryThreadGetsItsOwnDigits) {
   constexpr int kThreads = 4;
   std::vector<std::string> failures(kThreads), expected;
   auto format = [](double v) {
      char buf[64];
      Str_Snprintf(buf, sizeof buf, "%.3f", v);
      char *e = Str_Asprintf(nullptr, "|%.4e", v);
      std::string out = std::string(buf) + (e ? e : "(null)");
      free(e);
      return out;
   };
   for (int t = 0; t < kThreads; t++) expected.push_back(format(1000.0 * (t + 1) + 0.125 * (t + 1)));
   std::vector<std::thread> threads;
   for (int t = 0; t < kThreads; t++) {
      threads.emplace_back([&, t] {
         for (int i = 0; i < 3000 && failures[t].empty(); i++) {
            std::string got = format(1000.0 * (t + 1) + 0.125 * (t + 1));
            if (got != expected[t]) failures[t] = got + " != " + expected[t];
         }
      });
   }
   for (auto &thread : threads) thread.join();
   for (int t = 0; t < kThreads; t++) EXPECT_EQ(failures[t], "") << "thread " << t;
}
