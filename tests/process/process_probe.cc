// SPDX-License-Identifier: MIT
// A program for the process tests to run where the situation under test
// needs a process of its own: set-user-ID root, at a chosen path, as a
// daemon. Results go to standard error as "key value" lines (standard output
// carries the log).
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

// Set-user-ID processes are not dumpable, so the leak checker of sanitizer
// builds cannot stop them; it is off here.
extern "C" const char *__asan_default_options() { return "detect_leaks=0"; }

namespace {

// One thread's effective user ID as the kernel reports it.
std::string Euid(pid_t tid) {
   std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
   std::string key, real, effective;
   while (status >> key && key != "Uid:") {
   }
   status >> real >> effective;
   return effective;
}

// Brackets the main thread while a second thread watches, after lowering the
// whole process to the real user as the product's programs do.
void Ids() {
   if (seteuid(getuid()) != 0) {
      exit(3);
   }
   int hold[2];
   if (pipe(hold) != 0) {
      exit(3);
   }
   pid_t other = 0;
   std::thread watcher([&] {
      __atomic_store_n(&other, gettid(), __ATOMIC_RELEASE);
      char c;
      (void)!read(hold[0], &c, 1);
   });
   while (__atomic_load_n(&other, __ATOMIC_ACQUIRE) == 0) {
      usleep(1000);
   }
   int previous = static_cast<int>(Id_BeginSuperUser());
   std::string raised = Euid(gettid()) + " " + Euid(other);
   int nested = static_cast<int>(Id_BeginSuperUser());
   Id_EndSuperUser(static_cast<uid_t>(nested));
   Id_EndSuperUser(static_cast<uid_t>(previous));
   fprintf(stderr, "setugid %d\nbegin %d\nraised %s\nnested %d\nlowered %s %s\n",
           Id_IsSetUGid(), previous, raised.c_str(), nested, Euid(gettid()).c_str(),
           Euid(other).c_str());
   close(hold[1]);
   watcher.join();
}

}  // namespace

int main(int argc, char **argv) {
   std::string mode = argc > 1 ? argv[1] : "";
   if (mode == "ids") {
      Ids();
   } else if (mode == "modulepath") {
      char *path = Hostinfo_GetModulePath(1);
      fprintf(stderr, "modulepath %s\n", path != nullptr ? path : "(null)");
      free(path);
   } else if (mode == "daemon" && argc == 4) {
      // Reports its process ID on one kept descriptor and lives until the
      // other reaches end-of-file.
      std::string pid = std::to_string(getpid()) + "\n";
      if (write(atoi(argv[2]), pid.data(), pid.size()) != static_cast<ssize_t>(pid.size())) {
         return 1;
      }
      char c;
      while (read(atoi(argv[3]), &c, 1) > 0) {
      }
   } else if (mode == "location" && argc >= 5) {
      // location TAG PRODUCT-FILE keep|lower KEY...
      if (strcmp(argv[4], "lower") == 0 && seteuid(getuid()) != 0) {
         return 3;
      }
      halcyx::gLocationProductFile = argv[3];
      Location_Init(argv[2]);
      for (int i = 5; i < argc; i++) {
         char *path = Location_Get(argv[i]);
         fprintf(stderr, "%s %s\n", argv[i], path != nullptr ? path : "(null)");
         free(path);
      }
   } else {
      return 2;
   }
   return 0;
}
