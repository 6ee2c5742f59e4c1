// SPDX-License-Identifier: MIT
// Runs a piece of test code in a forked child and reports how it ended.
//
// The child's standard output (the diagnostic log) and standard error are
// captured separately, so tests can check exact log lines and exit codes of
// code paths that end the process.
#ifndef HALCYX_TESTS_SUPPORT_CHILD_H
#define HALCYX_TESTS_SUPPORT_CHILD_H

#include <functional>
#include <string>
#include <vector>

namespace halcyx::test {

struct ChildResult {
   int waitStatus = 0;
   std::string out;  // the child's standard output
   std::string err;  // the child's standard error

   bool Exited() const;
   int ExitCode() const;  // -1 when the child did not exit normally
};

// Forks; the child runs body and then _exit(0) (after flushing stdio), so
// only an explicit exit, Panic or signal changes the status.
ChildResult RunInChild(const std::function<void()> &body);

// The part of each log entry after its "YYYY-MM-DDThh:mm:ss.mmm| " stamp; an
// entry ends where the next stamp begins. Text without a stamp has no entries.
std::vector<std::string> LogEntries(const std::string &text);

}  // namespace halcyx::test

#endif  // HALCYX_TESTS_SUPPORT_CHILD_H
