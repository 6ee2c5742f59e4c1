// SPDX-License-Identifier: MIT
// halcyx-check --root against a safe layout and against one fault at a
// time. The layouts need root-owned files: skipped when not root.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "temp_dir.h"

namespace fs = std::filesystem;

namespace {

constexpr uid_t kUser = 65534;
const std::string kBundle = "/Applications/Zorvex Halcyx.app";
const std::string kOpener = kBundle + "/Contents/Library/services/Open Zorvex Halcyx Services";

void Write(const fs::path &path, const std::string &text, mode_t mode) {
   fs::create_directories(path.parent_path());
   std::ofstream(path) << text;
   chmod(path.c_str(), mode);
}

// A self-signed certificate with this common name, as PEM text.
std::string SelfSigned(const fs::path &dir, const std::string &cn) {
   const fs::path pem = dir / (cn + ".pem");
   const std::string command = std::string(OPENSSL_CLI) +
                               " req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
                               " -keyout /dev/null -days 2 -subj '/O=Zorvex, Inc./CN=" + cn +
                               "' -out '" + pem.string() + "' 2>/dev/null";
   EXPECT_EQ(system(command.c_str()), 0) << command;
   std::ifstream in(pem);
   return {std::istreambuf_iterator<char>(in), {}};
}

class CheckLayout : public halcyx::test::TempDirTest {
protected:
   void SetUp() override {
      if (geteuid() != 0) {
         GTEST_SKIP() << "the layouts need root-owned files";
      }
      TempDirTest::SetUp();
      umask(022);
      root_ = dir_ / "root";
      fs::create_directories(At(SOCKET_PATH).parent_path());
      Write(At(HOST_DIR "/Services/Contents/Library/services/Zorvex Halcyx Services"), "x", 0755);
      Write(At(LOCK_PATH), "", 0600);
      Write(At(PRODUCT_FILE), kBundle, 0444);
      Write(At(kOpener), "x", 04755);
      static const std::string vendor = SelfSigned(dir_, "Zorvex Root CA");
      Write(At(TRUST_STORE) / "vendor.pem", vendor, 0644);
      // A socket file, left behind by its listener.
      int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      struct sockaddr_un addr = {};
      addr.sun_family = AF_UNIX;
      ASSERT_LT(At(SOCKET_PATH).string().size(), sizeof addr.sun_path);
      strcpy(addr.sun_path, At(SOCKET_PATH).c_str());
      ASSERT_EQ(bind(sock, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr), 0);
      close(sock);
      chmod(addr.sun_path, 0600);
   }

   fs::path At(const std::string &path) const { return root_.string() + path; }

   // The tool's findings (its "unsafe:" lines) and exit status.
   std::pair<std::string, int> Run() const {
      const std::string command = std::string(CHECK_TOOL) + " --root '" + root_.string() + "'";
      FILE *out = popen(command.c_str(), "r");
      std::string text;
      char buf[512];
      size_t n;
      while (out != nullptr && (n = fread(buf, 1, sizeof buf, out)) > 0) {
         text.append(buf, n);
      }
      int status = out != nullptr ? pclose(out) : -1;
      std::string findings;
      for (size_t at = 0, end; at < text.size(); at = end + 1) {
         end = text.find('\n', at);
         end = end == std::string::npos ? text.size() : end;
         if (text.compare(at, 8, "unsafe: ") == 0) {
            findings += text.substr(at, end - at) + "\n";
         }
      }
      return {findings, WIFEXITED(status) ? WEXITSTATUS(status) : -1};
   }

   // Replaces dir with a link to a copy of it elsewhere under the root.
   void Relink(const std::string &dir, const std::string &target, uid_t owner) {
      fs::rename(At(dir), At(target));
      fs::create_symlink(target, At(dir));
      ASSERT_EQ(lchown(At(dir).c_str(), owner, 0), 0);
   }

   fs::path root_;
};

TEST_F(CheckLayout, ReportsEachFaultOnceAndOnlyIt) {
   const std::string sockDir = fs::path(SOCKET_PATH).parent_path().string();
   const std::string libraryTop = "/" + (++fs::path(HOST_DIR).begin())->string();
   const struct {
      const char *name;
      std::function<void()> change;
      std::string finding;  // below the root; empty: safe
   } rows[] = {
      {"the safe layout", [] {}, ""},
      {"the socket directory through root's own link", [&] { Relink(sockDir, "/elsewhere", 0); },
       ""},
      {"group-writable host directory", [&] { chmod(At(HOST_DIR).c_str(), 0775); },
       std::string(HOST_DIR) + ": writable by group or others"},
      {"socket directory through a user's link", [&] { Relink(sockDir, "/elsewhere", kUser); },
       sockDir + ": symbolic link owned by uid 65534, not root"},
      {"host directory through root's own link", [&] { Relink(libraryTop, "/elsewhere", 0); },
       libraryTop + ": symbolic link"},
      {"opener not set-user-ID", [&] { chmod(At(kOpener).c_str(), 0755); },
       kOpener + ": not set-user-ID"},
      {"opener owned by a user",
       [&] {
          ASSERT_EQ(chown(At(kOpener).c_str(), kUser, 0), 0);
          chmod(At(kOpener).c_str(), 04755);
       },
       kOpener + ": owned by uid 65534, not root"},
      {"product file owned by a user", [&] { ASSERT_EQ(chown(At(PRODUCT_FILE).c_str(), kUser, 0), 0); },
       std::string(PRODUCT_FILE) + ": owned by uid 65534, not root"},
      {"development root in the trust store",
       [&] {
          Write(At(TRUST_STORE) / "dev.pem", SelfSigned(dir_, "Zorvex Development Root CA"),
                0644);
       },
       std::string(TRUST_STORE) + "/dev.pem: development root \"Zorvex Development Root CA\""},
   };
   for (const auto &row : rows) {
      SCOPED_TRACE(row.name);
      TearDown();
      SetUp();
      row.change();
      auto [out, status] = Run();
      EXPECT_EQ(out, row.finding.empty() ? "" : "unsafe: " + root_.string() + row.finding + "\n");
      EXPECT_EQ(status, row.finding.empty() ? 0 : 1);
   }
}

}  // namespace
