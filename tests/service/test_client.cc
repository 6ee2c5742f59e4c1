// SPDX-License-Identifier: MIT
// The clients of the listener tests, copied and signed (or not) by them:
//    test_client SOCKET_DIR SERVICE MODE [ARG...]
// Exit status 0 when the listener behaved as the mode expects, 3 when it
// refused the connection, 1 otherwise. Modes:
//    send N             N messages through the client library, in turn
//    many K N           K connections at once, each with N pipelined
//                       messages whose replies must come in order
//    slow               one message that the handler sleeps 3 s on
//    early              writes before the hello; expects no hello
//    exit               connects and exits at once
//    exec PROGRAM       admitted, then execs PROGRAM, which writes on the
//                       connection (mode "continue FD") and must be cut off
//    fork               admitted; a forked child writes and must be cut off
//    frame KIND         admitted, then sends a frame of KIND (oversized,
//                       truncated, garbage, magic, nondict); expects the
//                       connection closed, or kept for nondict
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "privilegedService.h"
#include "serviceInt.h"

using namespace halcyx::service;

namespace {

const char *gService;

plist_t Numbered(uint64_t seq) {
   plist_t dict = plist_new_dict();
   plist_dict_set_item(dict, "seq", plist_new_uint(seq));
   return dict;
}

int RawConnect() {
   std::string path;
   ServiceSocketPath(gService, &path);
   int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   memcpy(addr.sun_path, path.c_str(), path.size() + 1);
   if (connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
      exit(1);
   }
   return fd;
}

// The next frame's type and serial, or false at end of stream.
bool ReadFrame(int fd, FrameReader *reader, FrameHeader *header) {
   std::string_view payload;
   for (;;) {
      FrameReader::Result r = reader->Next(header, &payload);
      if (r == FrameReader::Frame) {
         return true;
      }
      if (r == FrameReader::Bad || RecvInto(fd, reader, nullptr) <= 0) {
         return false;
      }
   }
}

bool SendNumbered(int fd, uint32_t serial) {
   std::string frame;
   plist_t dict = Numbered(serial);
   bool ok = EncodeFrame(kMessage, serial, dict, &frame) && SendAll(fd, frame);
   plist_free(dict);
   return ok;
}

// An admitted raw connection, or exit 3 when the listener refuses it.
int Admitted(FrameReader *reader) {
   int fd = RawConnect();
   FrameHeader h;
   if (!ReadFrame(fd, reader, &h) || h.type != kHello) {
      exit(3);
   }
   return fd;
}

// True when the listener closes the connection without answering.
bool CutOff(int fd, FrameReader *reader) {
   FrameHeader h;
   return !ReadFrame(fd, reader, &h);
}

int Send(int n) {
   PrivilegedServiceClient *client = PrivilegedServiceClient_Connect(gService, 10000);
   if (!client) {
      return 3;
   }
   for (int i = 0; i < n; i++) {
      plist_t msg = Numbered(static_cast<uint64_t>(i)), reply = nullptr;
      uint64_t seq = ~0ull;
      if (!PrivilegedServiceClient_Send(client, msg, &reply, 10000)) {
         return 1;
      }
      plist_get_uint_val(plist_dict_get_item(reply, "seq"), &seq);
      plist_free(msg);
      plist_free(reply);
      if (seq != static_cast<uint64_t>(i)) {
         return 1;
      }
   }
   PrivilegedServiceClient_Close(client);
   return 0;
}

int Many(int k, int n) {
   std::vector<std::thread> threads;
   std::vector<int> failed(static_cast<size_t>(k), 1);
   for (int t = 0; t < k; t++) {
      threads.emplace_back([&, t] {
         FrameReader reader;
         int fd = Admitted(&reader);
         for (int i = 1; i <= n; i++) {
            if (!SendNumbered(fd, static_cast<uint32_t>(i))) {
               return;
            }
         }
         FrameHeader h;
         for (int i = 1; i <= n; i++) {
            if (!ReadFrame(fd, &reader, &h) || h.type != kReply || h.serial != static_cast<uint32_t>(i)) {
               return;
            }
         }
         close(fd);
         failed[static_cast<size_t>(t)] = 0;
      });
   }
   for (auto &t : threads) {
      t.join();
   }
   for (int f : failed) {
      if (f) {
         return 1;
      }
   }
   return 0;
}

int Frame(const std::string &kind) {
   FrameReader reader;
   int fd = Admitted(&reader);
   std::string frame;
   plist_t payload = kind == "nondict" ? plist_new_array() : Numbered(1);
   EncodeFrame(kMessage, 1, payload, &frame);
   plist_free(payload);
   auto putLength = [&](uint32_t v) {
      for (int i = 0; i < 4; i++) {
         frame[8 + static_cast<size_t>(i)] = static_cast<char>(v >> (24 - 8 * i));
      }
   };
   if (kind == "oversized") {
      putLength(kMaxPayload + 1);
   } else if (kind == "truncated") {
      frame.resize(frame.size() - 3);
   } else if (kind == "garbage") {
      frame.replace(kHeaderSize, 8, "bplist00");
      frame.replace(kHeaderSize + 8, std::string::npos, frame.size() - kHeaderSize - 8, '\xff');
   } else if (kind == "magic") {
      frame[0] = 'X';
   }
   SendAll(fd, frame);
   if (kind == "truncated") {
      shutdown(fd, SHUT_WR);
   }
   if (kind != "nondict") {
      return CutOff(fd, &reader) ? 0 : 1;
   }
   FrameHeader h;
   return SendNumbered(fd, 2) && ReadFrame(fd, &reader, &h) && h.serial == 2 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
   if (argc < 4) {
      return 2;
   }
   SetSocketDirForTesting(argv[1]);
   gService = argv[2];
   const std::string mode = argv[3];
   const char *arg = argc > 4 ? argv[4] : "1";
   FrameReader reader;
   FrameHeader h;
   if (mode == "send") {
      return Send(atoi(arg));
   }
   if (mode == "many") {
      return Many(atoi(arg), argc > 5 ? atoi(argv[5]) : 1);
   }
   if (mode == "early") {
      int fd = RawConnect();
      SendNumbered(fd, 1);
      return CutOff(fd, &reader) ? 0 : 1;
   }
   if (mode == "slow") {
      PrivilegedServiceClient *client = PrivilegedServiceClient_Connect(gService, 10000);
      plist_t msg = plist_new_dict(), reply = nullptr;
      plist_dict_set_item(msg, "sleepMs", plist_new_uint(3000));
      bool ok = client && PrivilegedServiceClient_Send(client, msg, &reply, 10000);
      plist_free(msg);
      plist_free(reply);
      PrivilegedServiceClient_Close(client);
      return ok ? 0 : 1;
   }
   if (mode == "exit") {
      RawConnect();
      return 0;
   }
   if (mode == "frame") {
      return Frame(arg);
   }
   if (mode == "continue") {
      int fd = atoi(arg);
      return SendNumbered(fd, 2) && CutOff(fd, &reader) ? 0 : 1;
   }
   int fd = Admitted(&reader);
   if (!SendNumbered(fd, 1) || !ReadFrame(fd, &reader, &h) || h.serial != 1) {
      return 1;
   }
   if (mode == "exec") {
      int inherited = dup(fd);  // without close-on-exec
      std::string num = std::to_string(inherited);
      execl(arg, arg, argv[1], argv[2], "continue", num.c_str(), static_cast<char *>(nullptr));
      return 1;
   }
   if (mode == "fork") {
      pid_t child = fork();
      if (child == 0) {
         _exit(SendNumbered(fd, 2) ? 0 : 1);
      }
      int status = 0;
      waitpid(child, &status, 0);
      return CutOff(fd, &reader) ? 0 : 1;
   }
   return 2;
}
