// SPDX-License-Identifier: MIT
// Fuzzes the parser of lock-directory member files (bytes another host may
// have written): it never reads past the record, accepts only records with
// a numeric ticket and an "S" or "X" type, and an accepted record written
// back in the canonical form parses to the same values. The identities of
// an accepted record then go through the same checks a scan makes: machine
// match (new and old forms, Base64 included) and execution liveness.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "file/fileLockInt.h"
#include "log.h"

#define CHECK(cond) ((cond) ? (void)0 : __builtin_trap())

using namespace halcyx::filelock;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   static const int kQuiet = ServiceImplLogOpen("/dev/null");  // refusals are logged
   (void)kQuiet;
   // A member file is read into a zeroed buffer one byte longer than the record.
   char record[kMemberSize + 1] = {};
   memcpy(record, data, size < kMemberSize ? size : kMemberSize);

   LockValues v;
   char **argv = nullptr;
   int argc = 0;
   bool ok = ParseMember(record, &v, &argv, &argc);
   CHECK(argc >= 0 && argc <= kMaxTokens + 1);
   for (int i = 0; i < argc; i++) {
      CHECK(argv[i][0] != '\0' && strchr(argv[i], ' ') == nullptr);
   }
   FreeArgv(argv, argc);
   if (ok) {
      CHECK(v.machineID != nullptr && v.executionID != nullptr);
      CHECK(strcmp(v.lockType, v.exclusive ? "X" : "S") == 0);
      CHECK(MachineIDMatch(v.machineID, v.machineID));
      MachineIDMatch(GetMachineID(), v.machineID);
      OldMachineIDMatch(GetOldMachineID(), v.machineID);
      ValidExecutionID(v.executionID);
      char canonical[2 * kMemberSize];
      snprintf(canonical, sizeof canonical, "%s %s %u %s 0%s%s", v.machineID, v.executionID,
               v.ticket, v.lockType, v.locationChecksum != nullptr ? " lc=" : "",
               v.locationChecksum != nullptr ? v.locationChecksum : "");
      LockValues again;
      char **argv2 = nullptr;
      int argc2 = 0;
      bool reparsed = ParseMember(canonical, &again, &argv2, &argc2);
      FreeArgv(argv2, argc2);
      // A bare process id comes back as pid-starttime; otherwise identical.
      if (strchr(v.executionID, '-') != nullptr) {
         CHECK(reparsed);
         CHECK(strcmp(again.executionID, v.executionID) == 0);
         CHECK(strcmp(again.machineID, v.machineID) == 0);
         CHECK(again.ticket == v.ticket && again.exclusive == v.exclusive);
      }
      FreeValues(&again);
   }
   FreeValues(&v);
   return 0;
}
