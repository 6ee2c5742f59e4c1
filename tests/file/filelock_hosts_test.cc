// SPDX-License-Identifier: MIT
// Lock files shared by two hosts: lockers in network namespaces whose
// interfaces carry different hardware addresses have different machine IDs,
// as on two machines sharing one file system. Needs root; this executable
// holds nothing else, so the machine ID is never computed (and cached)
// before a child has moved to its namespace.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sched.h>
#include <string>
#include <unistd.h>

#include "child.h"
#include "file/fileLockInt.h"
#include "file_test_util.h"
#include "fileLock.h"

namespace fs = std::filesystem;
using halcyx::filelock::GetMachineID;
using halcyx::test::ChildResult;
using halcyx::test::RunInChild;

namespace {

constexpr int kNoNamespace = 77;

// Runs body as a process of the "host" whose first interface has address mac.
ChildResult OnHost(const std::string &mac, const std::function<void()> &body) {
   return RunInChild([&] {
      std::string cmd = "ip link add h0 address " + mac + " type veth peer name h1 address " + mac +
                        " >/dev/null 2>&1";
      if (unshare(CLONE_NEWNET) != 0 || system(cmd.c_str()) != 0) {
         _exit(kNoNamespace);
      }
      body();
   });
}

TEST(LockFileHosts, OtherHostsMembersAreOnlyWaitedFor) {
   if (geteuid() != 0) {
      GTEST_SKIP() << "network namespaces need root";
   }
   halcyx::test::TempDir tmp;
   std::string path = tmp.Path("shared");
   const std::string hostA = "02:00:00:00:0a:01";
   const std::string hostB = "02:00:00:00:0b:01";

   // A locker of host A takes the lock and dies holding it.
   auto a = OnHost(hostA, [&] {
      int err;
      if (FileLock_Lock(path.c_str(), false, 0, &err, nullptr) == nullptr) {
         _exit(1);
      }
      fputs(GetMachineID(), stderr);
   });
   if (a.ExitCode() == kNoNamespace) {
      GTEST_SKIP() << "cannot make a network namespace with a veth pair (iproute2)";
   }
   ASSERT_EQ(a.ExitCode(), 0) << a.out;
   const std::string idA = a.err;
   ASSERT_EQ(idA.rfind("uuid=", 0), 0u) << idA;

   // Host B cannot tell whether A's process lives: it waits and gives up,
   // naming the other machine, and leaves the member alone.
   auto b = OnHost(hostB, [&] {
      if (idA == GetMachineID()) {
         _exit(2);
      }
      int err = 0;
      FileLockToken *t = FileLock_Lock(path.c_str(), false, 400, &err, nullptr);
      _exit(t == nullptr && err == EAGAIN ? 0 : 3);
   });
   EXPECT_EQ(b.ExitCode(), 0) << b.out;
   EXPECT_NE(b.out.find("due to another machine '" + idA + "'"), std::string::npos) << b.out;
   int err;
   EXPECT_TRUE(FileLock_IsLocked(path.c_str(), &err, nullptr));

   // Host A itself recognises its dead process and takes over at once.
   auto again = OnHost(hostA, [&] {
      int e;
      FileLockToken *t = FileLock_Lock(path.c_str(), false, 0, &e, nullptr);
      _exit(t != nullptr && FileLock_Unlock(t, &e, nullptr) ? 0 : 1);
   });
   EXPECT_EQ(again.ExitCode(), 0) << again.out;
   EXPECT_NE(again.out.find("invalid executionID"), std::string::npos) << again.out;
   EXPECT_FALSE(fs::exists(path + ".lck"));
}

}  // namespace
