// SPDX-License-Identifier: MIT
// The sandbox's fixed paths, as the sandbox build of the opener and the
// signed sample bundle lay them out under SANDBOX_DIR.
#ifndef HALCYX_TEST_SANDBOX_PATHS_H
#define HALCYX_TEST_SANDBOX_PATHS_H

#include <filesystem>
#include <string>

namespace halcyx::test::sandbox {

namespace fs = std::filesystem;

inline const fs::path kDir = SANDBOX_DIR;
inline const fs::path kApp = kDir / "Zorvex Halcyx.app";
inline const fs::path kOpener = kApp / "Contents/Library/services/Open Zorvex Halcyx Services";
inline const fs::path kHost = kDir / "Library/Application Support/Zorvex/Zorvex Halcyx";
inline const fs::path kTree = kHost / "Services";
inline const std::string kDaemonSub = "Contents/Library/services/Zorvex Halcyx Services";
inline const fs::path kDaemon = kTree / kDaemonSub;
inline const fs::path kPrefs = kDir / "Library/Preferences/Zorvex Halcyx";
inline const fs::path kProductFile = kPrefs / "lastLocationUsed";
inline const fs::path kRun = kDir / "run";
inline const fs::path kLock = kRun / "Zorvex Halcyx Services.lock";
inline const fs::path kSock = kRun / "Zorvex Halcyx Services.sock";
inline const fs::path kDaemonLog = kDir / "log/Zorvex Halcyx Services.log";

}  // namespace halcyx::test::sandbox

#endif  // HALCYX_TEST_SANDBOX_PATHS_H
