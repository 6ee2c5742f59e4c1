// SPDX-License-Identifier: MIT
/*
 * What the lock-file protocol asks of the host: process existence and start
 * times, the hardware address and host name behind the machine ID, SHA-1,
 * time, sleeps and the random numbers behind member names.
 *
 * A process's start time is its start in clock ticks after boot
 * (/proc/<pid>/stat) plus the boot time (/proc/stat), in microseconds since
 * the epoch. The boot time is read once per process, so the start time of
 * one process reads the same on every call even if the clock is stepped.
 */
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include "file/fileLockInt.h"
#include "internal/dynload.h"
#include "internal/unique.h"

namespace halcyx::filelock {

namespace {

// Reads a small /proc file whole into buf (NUL-terminated); false on error.
bool ReadProcFile(const char *path, char *buf, size_t size) {
   UniqueFd fd(open(path, O_RDONLY | O_CLOEXEC));
   if (!fd) {
      return false;
   }
   size_t used = 0;
   while (used + 1 < size) {
      ssize_t n = read(fd.get(), buf + used, size - 1 - used);
      if (n < 0 && errno == EINTR) {
         continue;
      }
      if (n < 0) {
         return false;
      }
      if (n == 0) {
         break;
      }
      used += static_cast<size_t>(n);
   }
   buf[used] = '\0';
   return true;
}

std::atomic<uint64_t> gBootTime;  // seconds since the epoch; 0 until read

bool BootTime(uint64_t *seconds) {
   uint64_t cached = gBootTime.load(std::memory_order_relaxed);
   if (cached != 0) {
      *seconds = cached;
      return true;
   }
   static char buf[8192];  // /proc/stat grows with the number of CPUs
   static std::atomic_flag busy = ATOMIC_FLAG_INIT;
   while (busy.test_and_set(std::memory_order_acquire)) {
   }
   const char *line = ReadProcFile("/proc/stat", buf, sizeof buf) ? strstr(buf, "\nbtime ") : nullptr;
   unsigned long long value = 0;
   bool ok = line != nullptr && sscanf(line + 7, "%llu", &value) == 1 && value != 0;
   busy.clear(std::memory_order_release);
   if (!ok) {
      return false;
   }
   uint64_t expected = 0;
   gBootTime.compare_exchange_strong(expected, value, std::memory_order_relaxed);
   *seconds = gBootTime.load(std::memory_order_relaxed);
   return true;
}

// Random_Quick: splitmix64 over a counter seeded with the process id.
struct QuickRandom {
   std::atomic_flag busy = ATOMIC_FLAG_INIT;
   pid_t seededBy = 0;
   uint64_t state = 0;
};
QuickRandom gRandom;

uint64_t SplitMix(uint64_t *state) {
   uint64_t z = (*state += 0x9E3779B97F4A7C15ull);
   z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
   z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
   return z ^ (z >> 31);
}

using EvpDigestFn = int (*)(const void *, size_t, unsigned char *, unsigned int *, const void *,
                            void *);
using EvpSha1Fn = const void *(*)();
EvpDigestFn gEvpDigest;
EvpSha1Fn gEvpSha1;

}  // namespace

bool ProcessStartTime(int pid, uint64_t *usec) {
   char path[64];
   char buf[1024];
   snprintf(path, sizeof path, "/proc/%d/stat", pid);
   if (pid <= 0 || !ReadProcFile(path, buf, sizeof buf)) {
      return false;
   }
   // The command name in parentheses may hold blanks and ")": skip to the last one.
   const char *p = strrchr(buf, ')');
   if (p == nullptr) {
      return false;
   }
   // Field 22 (start time) is the 20th after the name: step from the blank
   // before field 3 to the blank before field 22.
   for (int field = 2; field < 22; field++) {
      p = strchr(p + 1, ' ');
      if (p == nullptr) {
         return false;
      }
   }
   unsigned long long ticks;
   uint64_t boot;
   long hz = sysconf(_SC_CLK_TCK);
   if (sscanf(p + 1, "%llu", &ticks) != 1 || hz <= 0 || !BootTime(&boot)) {
      return false;
   }
   *usec = boot * 1000000 + ticks * 1000000 / static_cast<uint64_t>(hz);
   return true;
}

int QueryProcessExistence(int pid) {
   if (kill(pid, 0) == 0 || errno == EPERM) {
      return 1;
   }
   return errno == ESRCH ? 0 : -1;
}

uint64_t HardwareID() {
   struct ifaddrs *list;
   if (getifaddrs(&list) != 0) {
      return 0;
   }
   uint64_t id = 0;
   int bestIndex = INT_MAX;
   for (struct ifaddrs *ifa = list; ifa != nullptr; ifa = ifa->ifa_next) {
      if (ifa->ifa_addr == nullptr || ifa->ifa_addr->sa_family != AF_PACKET ||
          (ifa->ifa_flags & IFF_LOOPBACK) != 0) {
         continue;
      }
      const auto *ll = reinterpret_cast<const struct sockaddr_ll *>(ifa->ifa_addr);
      uint64_t address = 0;
      memcpy(&address, ll->sll_addr, ll->sll_halen < 8 ? ll->sll_halen : 8);
      if (address != 0 && ll->sll_ifindex < bestIndex) {
         bestIndex = ll->sll_ifindex;
         id = address;
      }
   }
   freeifaddrs(list);
   return id;
}

uint32_t HostNameHash() {
   char name[HOST_NAME_MAX + 1] = {};
   gethostname(name, sizeof name - 1);
   uint32_t hash = 5381;
   for (const unsigned char *p = reinterpret_cast<unsigned char *>(name); *p != '\0'; p++) {
      hash = hash * 33 + *p;
   }
   return hash;
}

bool Sha1(const void *data, size_t size, unsigned char digest[20]) {
   static const char *const kSonames[] = {"libcrypto.so.3"};
   static const DynSymbol kSymbols[] = {
      {"EVP_Digest", reinterpret_cast<void **>(&gEvpDigest)},
      {"EVP_sha1", reinterpret_cast<void **>(&gEvpSha1)},
   };
   static const DynLibrary kCrypto = {kSonames, 1, kSymbols, 2, nullptr};
   static DynLoadState state;
   if (!DynLoad(kCrypto, &state)) {
      return false;
   }
   unsigned int length = 0;
   return gEvpDigest(data, size, digest, &length, gEvpSha1(), nullptr) == 1 && length == 20;
}

uint32_t SimpleRandom() {
   while (gRandom.busy.test_and_set(std::memory_order_acquire)) {
   }
   // A forked child must not repeat its parent's numbers: its member names
   // would collide with theirs.
   pid_t pid = getpid();
   if (gRandom.seededBy != pid) {
      gRandom.seededBy = pid;
      gRandom.state = static_cast<uint64_t>(pid);
   }
   uint32_t value = static_cast<uint32_t>(SplitMix(&gRandom.state) >> 32);
   gRandom.busy.clear(std::memory_order_release);
   return value;
}

void Sleeper(uint32_t msecMin, uint32_t msecMax) {
   uint32_t msec = msecMin;
   if (msecMax > msecMin) {
      float span = static_cast<float>(msecMax - msecMin) * static_cast<float>(SimpleRandom());
      msec += static_cast<uint32_t>(span / 4294967296.0f);
   }
   struct timespec left = {static_cast<time_t>(msec / 1000), static_cast<long>(msec % 1000) * 1000000};
   while (nanosleep(&left, &left) != 0 && errno == EINTR) {
   }
}

uint64_t NowMsec() {
   struct timespec now;
   clock_gettime(CLOCK_MONOTONIC, &now);
   return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

}  // namespace halcyx::filelock
