// SPDX-License-Identifier: MIT
// Mode selection and the privilege bracket of the opener's service logic.
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <regex>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "child.h"
#include "rootBracket.h"
#include "serviceImpl.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

std::vector<std::string> OpenerLog(int argc, std::vector<const char *> argv, int *status) {
   argv.push_back(nullptr);
   auto r = RunInChild([&] {
      _exit(ServiceImpl_Opener(argc, const_cast<char **>(argv.data()), 2, "/nonexistent/lock",
                               "/nonexistent/sock", "/nonexistent/daemon"));
   });
   *status = r.ExitCode();
   return LogEntries(r.out);
}

TEST(OpenerModes, ArgumentCountsOtherThanOneOrTwoAreRejected) {
   for (int argc : {0, 3, 4, 100}) {
      int status = -1;
      auto log = OpenerLog(argc, {}, &status);
      EXPECT_EQ(status, 1);
      ASSERT_EQ(log.size(), 2u);
      EXPECT_TRUE(std::regex_match(log[0], std::regex("ServiceImpl_Opener: PID [0-9]+\n")));
      EXPECT_EQ(log[1], "Warning: Invalid number of arguments.\n");
   }
}

TEST(OpenerModes, ShellModeLeavesNoPipeBehindOnFailure) {
   auto r = RunInChild([] {
      int before = dup(0);
      close(before);
      char arg0[] = "opener";
      char *argv[] = {arg0, nullptr};
      if (ServiceImpl_Opener(1, argv, 2, "/x", "/y", "/z") != 1) {
         _exit(2);
      }
      // The lowest free descriptor is the same as before: both ends closed.
      int after = dup(0);
      _exit(after == before ? 0 : 3);
   });
   EXPECT_EQ(r.ExitCode(), 0) << r.out;
}

TEST(ServiceImplClose, ClosesOnceAndReportsFailure) {
   int fds[2];
   ASSERT_EQ(pipe(fds), 0);
   bool ok = true;
   EXPECT_TRUE(ServiceImplClose(&fds[0], &ok));
   EXPECT_EQ(fds[0], -1);
   EXPECT_TRUE(ok);
   EXPECT_TRUE(ServiceImplClose(&fds[0], &ok)) << "an empty slot counts as success";
   ASSERT_EQ(close(fds[1]), 0);
   auto r = RunInChild([&] {
      bool flag = true;
      int slot = fds[1];  // already closed: EBADF
      bool closed = ServiceImplClose(&slot, &flag);
      _exit(!closed && !flag && slot == -1 ? 0 : 1);
   });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(LogEntries(r.out), std::vector<std::string>{"Warning: ServiceImplClose: close " +
                                                          std::to_string(fds[1]) + " errno " +
                                                          std::to_string(EBADF) + ".\n"});
}

// The bracket as the set-user-ID program sees it: real user unprivileged,
// effective and saved user root.
TEST(PrivilegeBracket, LowerAndRaiseAlternate) {
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root";
   }
   auto r = RunInChild([] {
      if (setresuid(65534, 0, 0) != 0) {
         _exit(10);
      }
      ServiceImpl_PrivLower();
      if (geteuid() != 65534) {
         _exit(11);
      }
      ServiceImpl_PrivRaise();
      if (geteuid() != 0) {
         _exit(12);
      }
      ServiceImpl_PrivLower();
      _exit(geteuid() == 65534 ? 0 : 13);
   });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(r.out, "");
}

TEST(PrivilegeBracket, AFailedRaiseIsLoggedAndRootIsNotRegained) {
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root";
   }
   auto r = RunInChild([] {
      // Root only in the effective ID: once lowered it cannot come back.
      if (setresuid(65534, 0, 65534) != 0) {
         _exit(10);
      }
      ServiceImpl_PrivLower();
      ServiceImpl_PrivRaise();
      ServiceImpl_PrivLower();
      ServiceImpl_PrivRaise();
      _exit(geteuid() == 65534 ? 0 : 11);
   });
   EXPECT_EQ(r.ExitCode(), 0);
   std::string eperm = std::to_string(EPERM);
   EXPECT_EQ(LogEntries(r.out),
             (std::vector<std::string>{
                "Warning: ServiceImpl_PrivRaise: seteuid errno " + eperm + ".\n"}));
}

// Inside the sealed bracket: root in every ID when the saved ID allows it,
// the stop signals blocked. Afterwards (also after leaving and entering
// again, as a waiter does) the IDs and the mask exactly as they were: a
// signal the caller had blocked stays blocked.
TEST(PrivilegeBracket, SealedBracketRestoresIdsAndMaskExactly) {
   if (geteuid() != 0) {
      GTEST_SKIP() << "needs root";
   }
   using Ids = std::array<uid_t, 3>;
   auto ids = [] {
      Ids now;
      getresuid(&now[0], &now[1], &now[2]);
      return now;
   };
   const struct {
      Ids start, inside;
   } cases[] = {
      {{65534, 65534, 0}, {0, 0, 0}},              // set-user-ID root, lowered
      {{65534, 65534, 65534}, {65534, 65534, 65534}}, // no root to regain
   };
   for (const auto &c : cases) {
      auto r = RunInChild([&] {
         sigset_t mask[3];
         sigemptyset(&mask[1]);
         sigaddset(&mask[1], SIGTTIN);
         if (sigprocmask(SIG_BLOCK, &mask[1], nullptr) != 0 ||
             setresuid(c.start[0], c.start[1], c.start[2]) != 0) {
            _exit(10);
         }
         ServiceImpl_PrivLower();
         sigprocmask(SIG_BLOCK, nullptr, &mask[0]);
         {
            halcyx::SealedRootBracket root;
            root.Leave();
            root.Enter();
            sigprocmask(SIG_BLOCK, nullptr, &mask[1]);
            if (ids() != c.inside || !sigismember(&mask[1], SIGTSTP) ||
                !sigismember(&mask[1], SIGTTOU) || root.CallerUid() != c.start[0]) {
               _exit(11);
            }
         }
         sigprocmask(SIG_BLOCK, nullptr, &mask[2]);
         for (int sig = 1; sig <= SIGRTMAX; sig++) {
            if (sigismember(&mask[0], sig) != sigismember(&mask[2], sig)) {
               _exit(12);
            }
         }
         _exit(ids() == c.start ? 0 : 13);
      });
      EXPECT_EQ(r.ExitCode(), 0) << c.start[2];
      EXPECT_EQ(r.out, "");
   }
}

// The rendezvous itself, in this process, with paths in a temporary directory.
class Rendezvous : public ::testing::Test {
protected:
   void SetUp() override {
      std::string pattern = "/tmp/halcyx-rdv-XXXXXX";
      ASSERT_NE(mkdtemp(pattern.data()), nullptr);
      dir_ = pattern;
   }
   void TearDown() override { std::filesystem::remove_all(dir_); }

   std::filesystem::path dir_;
};

TEST_F(Rendezvous, ARefusingCallbackStartsNothingAndEndsTheRendezvous) {
   static int calls;
   std::string lock = dir_ / "lock";
   std::string sock = dir_ / "sock";
   std::string daemon = dir_ / "daemon";
   auto r = RunInChild([&] {
      ServiceImpl_SetPrepareDaemonCallback([] {
         calls++;
         return false;
      });
      bool ok = ServiceImplOpener(lock.c_str(), sock.c_str(), daemon.c_str(), 0);
      _exit(ok ? 10 : calls);
   });
   EXPECT_EQ(r.ExitCode(), 1) << "called once, then failure without another pass";
   EXPECT_EQ(r.out, "");
   EXPECT_TRUE(std::filesystem::exists(lock));
}

// From now on flock fails in this process with error, whatever it is given.
bool RefuseFlock(int error) {
   struct sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(struct seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_flock, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | (error & SECCOMP_RET_DATA)),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
   };
   struct sock_fprog program = {sizeof filter / sizeof filter[0], filter};
   return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
          prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Taking the lock file's lock is part of opening it: either failing is the
// open's failure, and ends the rendezvous.
TEST_F(Rendezvous, ALockThatCannotBeTakenIsAFailedOpen) {
   const struct {
      std::string lock;
      int flockError;  // 0: flock works
      int error;
   } cases[] = {
      {dir_ / "missing" / "lock", 0, ENOENT},
      {dir_ / "lock", ENOLCK, ENOLCK},
   };
   std::string sock = dir_ / "sock";
   for (const auto &c : cases) {
      auto r = RunInChild([&] {
         ServiceImpl_PrivLower();  // whoever runs the test: raising restores it
         if (c.flockError != 0 && !RefuseFlock(c.flockError)) {
            _exit(10);
         }
         _exit(ServiceImplOpener(c.lock.c_str(), sock.c_str(), "/nonexistent", 0) ? 11 : 0);
      });
      EXPECT_EQ(r.ExitCode(), 0);
      EXPECT_EQ(LogEntries(r.out),
                std::vector<std::string>{"Warning: ServiceImplPickSockSide: open errno " +
                                         std::to_string(c.error) + ".\n"});
   }
}

TEST_F(Rendezvous, SocketPathsThatCannotBeAddressedEndTheProcess) {
   // An empty path would name Linux's abstract namespace, open to anyone.
   for (const std::string &sock : {std::string(), std::string(108, 's')}) {
      std::string lock = dir_ / "lock";
      auto r = RunInChild([&] {
         ServiceImplOpener(lock.c_str(), sock.c_str(), "/nonexistent", 0);
         _exit(0);
      });
      EXPECT_EQ(r.ExitCode(), 1) << sock.size();
      auto entries = LogEntries(r.out);
      ASSERT_EQ(entries.size(), 1u) << r.out;
      EXPECT_TRUE(entries[0].starts_with("Panic: ")) << entries[0];
   }
}

}  // namespace
