// SPDX-License-Identifier: MIT
// The privileged service against plain Unix sockets doing the same
// transport work.
//
// BM_Admission/halcyx: connect to the listener and wait for its hello (the
// listener logs, reads its bundle's list, opens the client's executable
// through its pidfd and verifies its signature). baseline: codesignVerifyFd
// of the same executable plus a plain connect and accept.
// BM_RoundTrip/halcyx: one small dictionary sent on an admitted connection
// and answered (the handler replies with the message). baseline: the same
// frame's bytes echoed by a plain Unix-socket server process (a thread per
// connection, as the listener has).
// BM_Throughput64/halcyx and /baseline: the same, from 64 connections at
// once, 20 round trips each per iteration.
//
// The program runs itself three times: as the driver, which copies itself
// into a temporary bundle (the listener, whose Info.plist admits the
// driver) and into a copy signed with the build's development identity,
// then re-runs from that signed copy, which starts the listener and runs the
// benchmarks. Both copies are removed at exit.
#include <benchmark/benchmark.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <openssl/x509.h>  // before codesignInt.h, which names STACK_OF(X509)

#include "codesign.h"
#include "codesignInt.h"
#include "privilegedService.h"
#include "serviceInt.h"

namespace fs = std::filesystem;
using namespace halcyx::service;

namespace {

const char kService[] = "bench";
fs::path gDir;
std::string gEchoPath;

void Echo(void *, PrivilegedServiceMessage *message) {
   PrivilegedServiceMessage_Reply(message, PrivilegedServiceMessage_GetDictionary(message));
}

plist_t SmallDictionary() {
   plist_t dict = plist_new_dict();
   plist_dict_set_item(dict, "request", plist_new_string("whoami"));
   plist_dict_set_item(dict, "serial", plist_new_uint(42));
   return dict;
}

int ConnectTo(const std::string &path) {
   int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   memcpy(addr.sun_path, path.c_str(), path.size() + 1);
   if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
      abort();
   }
   return fd;
}

int ListenAt(const std::string &path) {
   int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   memcpy(addr.sun_path, path.c_str(), path.size() + 1);
   unlink(path.c_str());
   if (bind(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0 ||
       listen(fd, SOMAXCONN) != 0) {
      abort();
   }
   return fd;
}

void ReadExactly(int fd, char *buf, size_t n) {
   while (n > 0) {
      ssize_t got = read(fd, buf, n);
      if (got <= 0) {
         abort();
      }
      buf += got;
      n -= static_cast<size_t>(got);
   }
}

// The plain echo server: one thread per connection writes back what it reads.
[[noreturn]] void EchoServer(int listener) {
   for (;;) {
      int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) {
         continue;
      }
      std::thread([fd] {
         char buf[4096];
         ssize_t n;
         while ((n = read(fd, buf, sizeof buf)) > 0) {
            halcyx::service::SendAll(fd, std::string_view(buf, static_cast<size_t>(n)));
         }
         close(fd);
      }).detach();
   }
}

std::string SmallFrame() {
   plist_t dict = SmallDictionary();
   std::string frame;
   EncodeFrame(kMessage, 1, dict, &frame);
   plist_free(dict);
   return frame;
}

void RawRoundTrips(int fd, const std::string &frame, int count) {
   std::string back(frame.size(), '\0');
   for (int i = 0; i < count; i++) {
      SendAll(fd, frame);
      ReadExactly(fd, back.data(), back.size());
   }
}

void ServiceRoundTrips(PrivilegedServiceClient *client, plist_t dict, int count) {
   for (int i = 0; i < count; i++) {
      plist_t reply = nullptr;
      if (!PrivilegedServiceClient_Send(client, dict, &reply, 10000)) {
         abort();
      }
      plist_free(reply);
   }
}

void Admission(benchmark::State &state, bool service) {
   if (!service) {
      const std::string exe = fs::read_symlink("/proc/self/exe").string();
      const std::string path = (gDir / "plain.sock").string();
      int listener = ListenAt(path);
      for (auto _ : state) {
         int code = open(exe.c_str(), O_RDONLY | O_CLOEXEC);
         if (!codesignVerifyFd(code, exe.c_str(), "bench.client")) {
            abort();
         }
         close(code);
         int c = ConnectTo(path);
         int a = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
         close(a);
         close(c);
      }
      close(listener);
      unlink(path.c_str());
   } else {
      for (auto _ : state) {
         PrivilegedServiceClient *client = PrivilegedServiceClient_Connect(kService, 10000);
         if (!client) {
            abort();
         }
         PrivilegedServiceClient_Close(client);
      }
   }
}

void RoundTrip(benchmark::State &state, bool service) {
   if (!service) {
      const std::string frame = SmallFrame();
      int fd = ConnectTo(gEchoPath);
      for (auto _ : state) {
         RawRoundTrips(fd, frame, 1);
      }
      close(fd);
   } else {
      PrivilegedServiceClient *client = PrivilegedServiceClient_Connect(kService, 10000);
      plist_t dict = SmallDictionary();
      for (auto _ : state) {
         ServiceRoundTrips(client, dict, 1);
      }
      plist_free(dict);
      PrivilegedServiceClient_Close(client);
   }
}

void Throughput64(benchmark::State &state, bool service) {
   constexpr int kConnections = 64, kTrips = 20;
   std::vector<int> raw;
   std::vector<PrivilegedServiceClient *> clients;
   for (int i = 0; i < kConnections; i++) {
      if (service) {
         clients.push_back(PrivilegedServiceClient_Connect(kService, 10000));
      } else {
         raw.push_back(ConnectTo(gEchoPath));
      }
   }
   const std::string frame = SmallFrame();
   for (auto _ : state) {
      std::vector<std::thread> threads;
      for (int i = 0; i < kConnections; i++) {
         threads.emplace_back([&, i] {
            if (service) {
               plist_t dict = SmallDictionary();
               ServiceRoundTrips(clients[static_cast<size_t>(i)], dict, kTrips);
               plist_free(dict);
            } else {
               RawRoundTrips(raw[static_cast<size_t>(i)], frame, kTrips);
            }
         });
      }
      for (auto &t : threads) {
         t.join();
      }
   }
   state.SetItemsProcessed(state.iterations() * kConnections * kTrips);
   for (auto *c : clients) {
      PrivilegedServiceClient_Close(c);
   }
   for (int fd : raw) {
      close(fd);
   }
}
// The work happens in the listener's process: compare wall-clock times.
#define SERVICE_PAIR(name)                                                                   \
   void BM_##name##_baseline(benchmark::State &s) { name(s, false); }                        \
   void BM_##name##_halcyx(benchmark::State &s) { name(s, true); }                           \
   BENCHMARK(BM_##name##_baseline)->Name("BM_" #name "/baseline")->UseRealTime();            \
   BENCHMARK(BM_##name##_halcyx)->Name("BM_" #name "/halcyx")->UseRealTime()
SERVICE_PAIR(Admission);
SERVICE_PAIR(RoundTrip);
SERVICE_PAIR(Throughput64);

void CopyExecutable(const fs::path &to) {
   fs::copy_file("/proc/self/exe", to, fs::copy_options::overwrite_existing);
   fs::permissions(to, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
}

// The driver: lays out the bundle and the signed copy, then runs the copy.
int Prepare(int argc, char **argv) {
   char tmpl[] = "/tmp/halcyx-service-bench.XXXXXX";
   if (!mkdtemp(tmpl)) {
      return 1;
   }
   const fs::path dir = tmpl;
   const fs::path contents = dir / "Listener.bundle/Contents";
   fs::create_directories(contents / "MacOS");
   fs::create_directories(dir / "sock");
   CopyExecutable(contents / "MacOS/listener");
   std::ofstream(contents / "Info.plist")
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
         "<key>XPCService</key><dict><key>_AllowedClients</key><array>"
         "<string>identifier \"bench.client\" and anchor apple generic</string>"
         "</array></dict></dict></plist>\n";
   CopyExecutable(dir / "client");
   halcyx::codesign::Identity id;
   std::string error;
   halcyx::UniqueFd fd(halcyx::codesign::OpenCode((dir / "client").c_str()));
   if (!halcyx::codesign::LoadIdentity(HALCYX_DEV_SIGNING_DIR "/developer.identity.pem", &id,
                                       &error) ||
       !fd || !halcyx::codesign::SignCode(fd.get(), "bench.client", id, &error)) {
      fprintf(stderr, "service_benchmark: cannot sign the client: %s\n", error.c_str());
      return 1;
   }
   fd.reset();
   const std::string client = (dir / "client").string();
   std::vector<char *> args = {const_cast<char *>(client.c_str()),
                               const_cast<char *>("--signed-copy"), const_cast<char *>(tmpl)};
   for (int i = 1; i < argc; i++) {
      args.push_back(argv[i]);
   }
   args.push_back(nullptr);
   pid_t pid = fork();
   if (pid == 0) {
      execv(args[0], args.data());
      _exit(127);
   }
   int status = 0;
   waitpid(pid, &status, 0);
   std::error_code ignored;
   fs::remove_all(dir, ignored);
   return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

}  // namespace

int main(int argc, char **argv) {
   if (argc >= 3 && strcmp(argv[1], "--listener") == 0) {
      SetSocketDirForTesting(argv[2]);
      int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
      dup2(null, 1);
      PrivilegedXPCMachService_Main(kService, Echo, nullptr);
   }
   if (argc < 3 || strcmp(argv[1], "--signed-copy") != 0) {
      return Prepare(argc, argv);
   }
   gDir = argv[2];
   const std::string sock = (gDir / "sock").string();
   SetSocketDirForTesting(sock.c_str());
   const std::string listenerExe = (gDir / "Listener.bundle/Contents/MacOS/listener").string();
   pid_t listener = fork();
   if (listener == 0) {
      execl(listenerExe.c_str(), listenerExe.c_str(), "--listener", sock.c_str(),
            static_cast<char *>(nullptr));
      _exit(127);
   }
   for (int i = 0; i < 500 && !fs::exists(gDir / "sock" / "bench.sock"); i++) {
      usleep(10 * 1000);
   }
   // The plain server is a process of its own too, as the listener is.
   gEchoPath = (gDir / "echo.sock").string();
   int echoSocket = ListenAt(gEchoPath);
   pid_t echo = fork();
   if (echo == 0) {
      EchoServer(echoSocket);
   }
   close(echoSocket);

   argv[2] = argv[0];
   int rest = argc - 2;
   benchmark::Initialize(&rest, argv + 2);
   benchmark::RunSpecifiedBenchmarks();
   benchmark::Shutdown();
   for (pid_t child : {listener, echo}) {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
   }
   return 0;
}
