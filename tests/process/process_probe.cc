// A program for the process tests to run in the situations under test (as
// set-user-ID root, from a deep path, as a daemon). It prints "key value"
// lines on standard output.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>

#include "hostinfo.h"
#include "id.h"
#include "internal/location.h"
#include "location.h"

// Set-user-ID processes cannot be stopped by the leak checker of sanitizer
// builds (they are not dumpable), so it is switched off here.
extern "C" const char *__asan_default_options() { return "detect_leaks=0"; }

namespace {

// The effective user ID of one thread, as the kernel reports it.
std::string ThreadEuid(pid_t tid) {
   std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
   std::string key;
   while (status >> key) {
      if (key == "Uid:") {
         std::string real, effective;
         status >> real >> effective;
         return effective;
      }
   }
   return "?";
}

void Print(const char *key, long long value) { printf("%s %lld\n", key, value); }

// Run set-user-ID root: lowers the whole process to the real user first,
// as the product's set-user-ID programs do.
void Ids() {
   if (seteuid(getuid()) != 0) {
      exit(3);
   }
   Print("setugid", Id_IsSetUGid());
   int hold[2];
   if (pipe(hold) != 0) {
      exit(2);
   }
   pid_t otherTid = 0;
   int ready[2];
   if (pipe(ready) != 0) {
      exit(2);
   }
   std::thread other([&] {
      otherTid = gettid();
      char c = 0;
      (void)!write(ready[1], &c, 1);
      (void)!read(hold[0], &c, 1);
   });
   char c;
   (void)!read(ready[0], &c, 1);

   uid_t previous = Id_BeginSuperUser();
   Print("begin", static_cast<int>(previous));
   printf("raised %s %s\n", ThreadEuid(gettid()).c_str(), ThreadEuid(otherTid).c_str());
   uid_t nested = Id_BeginSuperUser();
   Print("nested", static_cast<int>(nested));
   Id_EndSuperUser(nested);
   Id_EndSuperUser(previous);
   printf("lowered %s %s\n", ThreadEuid(gettid()).c_str(), ThreadEuid(otherTid).c_str());

   close(hold[1]);
   other.join();
}

// Run as a daemon: reports its process ID on one kept descriptor, then
// lives until the other one reaches end-of-file.
int Daemon(int reportFd, int holdFd) {
   std::string pid = std::to_string(getpid()) + "\n";
   if (write(reportFd, pid.data(), pid.size()) != static_cast<ssize_t>(pid.size())) {
      return 1;
   }
   char c;
   while (read(holdFd, &c, 1) > 0) {
   }
   return 0;
}

// Looks the keys up under a process tag and prints "key=result" lines on
// standard error (standard output carries the log). Set-user-ID, it first
// lowers its effective user ID when asked to, as the product's programs do.
int Locate(const char *tag, const char *productFile, bool lower, char **keys) {
   if (lower && seteuid(getuid()) != 0) {
      return 3;
   }
   halcyx::gLocationProductFile = productFile;
   Location_Init(tag);
   for (; *keys != nullptr; keys++) {
      char *path = Location_Get(*keys);
      fprintf(stderr, "%s=%s\n", *keys, path != nullptr ? path : "(null)");
      free(path);
   }
   return 0;
}

}  // namespace

int main(int argc, char **argv) {
   if (argc < 2) {
      return 2;
   }
   if (strcmp(argv[1], "modulepath") == 0) {
      char *path = Hostinfo_GetModulePath(1);
      printf("modulepath %s\n", path != nullptr ? path : "(null)");
      free(path);
   } else if (strcmp(argv[1], "ids") == 0) {
      Ids();
   } else if (strcmp(argv[1], "location") == 0 && argc >= 5) {
      return Locate(argv[2], argv[3], strcmp(argv[4], "lower") == 0, argv + 5);
   } else if (strcmp(argv[1], "daemon") == 0 && argc == 4) {
      return Daemon(atoi(argv[2]), atoi(argv[3]));
   } else {
      return 2;
   }
   fflush(stdout);
   return 0;
}
