// SPDX-License-Identifier: MIT
// Replays fuzz inputs without libFuzzer: every file named on the command
// line, and every regular file inside a directory named there, in name order.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fs = std::filesystem;

static bool Replay(const fs::path &file) {
   std::ifstream in(file, std::ios::binary);
   if (!in) {
      fprintf(stderr, "replay: cannot read %s\n", file.c_str());
      return false;
   }
   std::vector<uint8_t> data((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
   // As under libFuzzer, an empty input still comes at a valid address.
   static const uint8_t kEmpty = 0;
   LLVMFuzzerTestOneInput(data.empty() ? &kEmpty : data.data(), data.size());
   return true;
}

int main(int argc, char **argv) {
   size_t replayed = 0;
   bool ok = true;
   for (int i = 1; i < argc; i++) {
      std::vector<fs::path> files;
      if (fs::is_directory(argv[i])) {
         for (const auto &entry : fs::directory_iterator(argv[i])) {
            if (entry.is_regular_file()) {
               files.push_back(entry.path());
            }
         }
         std::sort(files.begin(), files.end());
      } else {
         files.emplace_back(argv[i]);
      }
      for (const auto &file : files) {
         ok = Replay(file) && ok;
         replayed++;
      }
   }
   printf("%zu inputs replayed\n", replayed);
   return ok && replayed > 0 ? 0 : 1;
}
