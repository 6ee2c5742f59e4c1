// SPDX-License-Identifier: MIT
// The "key value" lines that test probe programs print, as a map.
#ifndef HALCYX_TESTS_SUPPORT_PROBE_REPORT_H
#define HALCYX_TESTS_SUPPORT_PROBE_REPORT_H

#include <map>
#include <sstream>
#include <string>

namespace halcyx::test {

inline std::map<std::string, std::string> ProbeReport(const std::string &text) {
   std::map<std::string, std::string> report;
   std::istringstream lines(text);
   std::string key, value;
   while (lines >> key && std::getline(lines >> std::ws, value)) {
      report[key] = value;
   }
   return report;
}

}  // namespace halcyx::test

#endif  // HALCYX_TESTS_SUPPORT_PROBE_REPORT_H
