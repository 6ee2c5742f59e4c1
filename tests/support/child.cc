// SPDX-License-Identifier: MIT
#include "child.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <regex>
#include <sys/wait.h>
#include <unistd.h>

namespace halcyx::test {

bool ChildResult::Exited() const { return WIFEXITED(waitStatus); }

int ChildResult::ExitCode() const {
   return WIFEXITED(waitStatus) ? WEXITSTATUS(waitStatus) : -1;
}

namespace {

// Reads both pipes until both reach end of file.
void Drain(int outFd, int errFd, std::string &out, std::string &err) {
   struct pollfd fds[2] = {{outFd, POLLIN, 0}, {errFd, POLLIN, 0}};
   std::string *sinks[2] = {&out, &err};
   int open = 2;
   while (open > 0) {
      if (poll(fds, 2, -1) < 0) {
         if (errno == EINTR) {
            continue;
         }
         abort();
      }
      for (int i = 0; i < 2; i++) {
         if (fds[i].fd < 0 || fds[i].revents == 0) {
            continue;
         }
         char chunk[4096];
         ssize_t n = read(fds[i].fd, chunk, sizeof chunk);
         if (n > 0) {
            sinks[i]->append(chunk, static_cast<size_t>(n));
         } else if (n == 0 || errno != EINTR) {
            close(fds[i].fd);
            fds[i].fd = -1;
            open--;
         }
      }
   }
}

}  // namespace

ChildResult RunInChild(const std::function<void()> &body) {
   int outPipe[2];
   int errPipe[2];
   if (pipe(outPipe) != 0 || pipe(errPipe) != 0) {
      abort();
   }
   fflush(nullptr);
   pid_t pid = fork();
   if (pid < 0) {
      abort();
   }
   if (pid == 0) {
      dup2(outPipe[1], STDOUT_FILENO);
      dup2(errPipe[1], STDERR_FILENO);
      close(outPipe[0]);
      close(outPipe[1]);
      close(errPipe[0]);
      close(errPipe[1]);
      body();
      fflush(nullptr);
      _exit(0);
   }
   close(outPipe[1]);
   close(errPipe[1]);
   ChildResult result;
   Drain(outPipe[0], errPipe[0], result.out, result.err);
   while (waitpid(pid, &result.waitStatus, 0) < 0 && errno == EINTR) {
   }
   return result;
}

std::vector<std::string> LogEntries(const std::string &text) {
   static const std::regex stamp(
      R"(\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}\| )");
   std::vector<std::string> entries;
   auto it = std::sregex_iterator(text.begin(), text.end(), stamp);
   for (; it != std::sregex_iterator(); ++it) {
      size_t start = static_cast<size_t>(it->position() + it->length());
      auto next = std::next(it);
      size_t end = next == std::sregex_iterator() ? text.size()
                                                  : static_cast<size_t>(next->position());
      entries.push_back(text.substr(start, end - start));
   }
   return entries;
}

}  // namespace halcyx::test
