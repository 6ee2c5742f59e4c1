// Floating-point conversions from many threads at once: ecvt and fcvt share
// static storage, so without the engine's mutex the threads would read each
// other's digits.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "str.h"

namespace {

TEST(FloatConcurrency, EveryThreadGetsItsOwnDigits) {
   constexpr int kThreads = 4;
   constexpr int kRounds = 3000;
   std::vector<std::string> failures(kThreads);
   // Each thread formats a value whose digits no other thread produces; the
   // expected text is the engine's own, computed before any thread starts.
   std::vector<double> values;
   std::vector<std::string> expectedF;
   std::vector<std::string> expectedE;
   for (int t = 0; t < kThreads; t++) {
      values.push_back(1000.0 * (t + 1) + 0.125 * (t + 1));
      char buf[64];
      Str_Snprintf(buf, sizeof buf, "%.3f", values[t]);
      expectedF.emplace_back(buf);
      Str_Snprintf(buf, sizeof buf, "%.4e", values[t]);
      expectedE.emplace_back(buf);
   }
   std::vector<std::thread> threads;
   for (int t = 0; t < kThreads; t++) {
      threads.emplace_back([&, t] {
         double value = values[t];
         for (int i = 0; i < kRounds && failures[t].empty(); i++) {
            char buf[64];
            Str_Snprintf(buf, sizeof buf, "%.3f", value);
            if (buf != expectedF[t]) {
               failures[t] = std::string(buf) + " != " + expectedF[t];
            }
            char *e = Str_Asprintf(nullptr, "%.4e", value);
            if (e == nullptr || e != expectedE[t]) {
               failures[t] = std::string(e != nullptr ? e : "(null)") + " != " + expectedE[t];
            }
            free(e);
         }
      });
   }
   for (auto &thread : threads) {
      thread.join();
   }
   for (int t = 0; t < kThreads; t++) {
      EXPECT_EQ(failures[t], "") << "thread " << t;
   }
}

}  // namespace
