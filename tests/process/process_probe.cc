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
   } else {
      return 2;
   }
   fflush(stdout);
   return 0;
}
