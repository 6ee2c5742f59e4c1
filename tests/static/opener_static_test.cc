// SPDX-License-Identifier: MIT
// The opener is one static program: no interpreter, no needed library, and
// at exit nothing is mapped from any file but the program itself.
#include <gtest/gtest.h>

#include <elf.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

std::string ReadFile(const char *path) {
   std::ifstream in(path, std::ios::binary);
   std::stringstream s;
   s << in.rdbuf();
   return s.str();
}

TEST(OpenerStatic, NoInterpreterNoNeededLibrary) {
   for (const char *path : {OPENER_PATH, STATIC_PROBE_PATH}) {
      SCOPED_TRACE(path);
      std::string elf = ReadFile(path);
      ASSERT_GE(elf.size(), sizeof(Elf64_Ehdr));
      Elf64_Ehdr eh;
      memcpy(&eh, elf.data(), sizeof eh);
      ASSERT_EQ(memcmp(eh.e_ident, ELFMAG, SELFMAG), 0);
      ASSERT_EQ(eh.e_ident[EI_CLASS], ELFCLASS64);
      EXPECT_EQ(eh.e_type, ET_DYN) << "not position independent";
      int dynamics = 0;
      for (unsigned i = 0; i < eh.e_phnum; i++) {
         Elf64_Phdr ph;
         ASSERT_LE(eh.e_phoff + (i + 1) * sizeof ph, elf.size());
         memcpy(&ph, elf.data() + eh.e_phoff + i * sizeof ph, sizeof ph);
         EXPECT_NE(ph.p_type, static_cast<unsigned>(PT_INTERP));
         if (ph.p_type != PT_DYNAMIC) {
            continue;
         }
         dynamics++;
         ASSERT_LE(ph.p_offset + ph.p_filesz, elf.size());
         for (size_t off = 0; off + sizeof(Elf64_Dyn) <= ph.p_filesz; off += sizeof(Elf64_Dyn)) {
            Elf64_Dyn d;
            memcpy(&d, elf.data() + ph.p_offset + off, sizeof d);
            EXPECT_NE(d.d_tag, DT_NEEDED);
         }
      }
      EXPECT_EQ(dynamics, 1);  // a static PIE keeps its own relocations there
   }
}

struct TraceResult {
   int status = -1;           // exit status
   std::vector<std::string> files;  // every file mapped when it exited
};

// Runs argv under ptrace and stops it on its way out, while its mappings
// are still in place: a library loaded at any time is still mapped then.
TraceResult TracedRun(std::vector<const char *> argv, std::vector<const char *> envp) {
   TraceResult run;
   argv.push_back(nullptr);
   envp.push_back(nullptr);
   pid_t pid = fork();
   if (pid == 0) {
      int null = open("/dev/null", O_WRONLY);
      dup2(null, 1);
      dup2(null, 2);
      ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
      execve(argv[0], const_cast<char **>(argv.data()), const_cast<char **>(envp.data()));
      _exit(127);
   }
   int status = 0;
   if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) {
      return run;
   }
   ptrace(PTRACE_SETOPTIONS, pid, nullptr, PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL);
   int signal = 0;
   for (;;) {
      ptrace(PTRACE_CONT, pid, nullptr, signal);
      if (waitpid(pid, &status, 0) != pid || !WIFSTOPPED(status)) {
         break;
      }
      signal = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
      if (status >> 8 == (SIGTRAP | (PTRACE_EVENT_EXIT << 8))) {
         std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
         for (std::string line; std::getline(maps, line);) {
            size_t slash = line.find('/');
            if (slash != std::string::npos) {
               run.files.push_back(line.substr(slash));
            }
         }
      }
   }
   if (WIFEXITED(status)) {
      run.status = WEXITSTATUS(status);
   }
   return run;
}

TEST(OpenerStatic, MapsNoSharedObject) {
   const char *poison = "OPENSSL_CONF=" POISON_CONF;
   const char *modules = "OPENSSL_MODULES=/usr/lib/x86_64-linux-gnu/ossl-modules";
   const struct {
      std::vector<const char *> argv;
      int status;
   } cases[] = {
      // Start-up and the argument check, then exit: the opener's own path.
      {{OPENER_PATH, "1", "2"}, 1},
      // The verifier's libcrypto, told to read a file and load a module.
      {{STATIC_PROBE_PATH}, 0},
   };
   for (const auto &c : cases) {
      SCOPED_TRACE(c.argv[0]);
      TraceResult run = TracedRun(c.argv, {poison, modules, "OPENSSL_ENGINES=/nonexistent"});
      EXPECT_EQ(run.status, c.status);
      ASSERT_FALSE(run.files.empty());
      std::string self = std::filesystem::canonical(c.argv[0]).string();
      for (const std::string &file : run.files) {
         EXPECT_EQ(file, self);
      }
   }
}

}  // namespace
