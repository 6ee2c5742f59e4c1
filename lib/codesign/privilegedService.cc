// SPDX-License-Identifier: MIT
/*
 * The privileged service listener.
 *
 * One thread accepts; each connection then has a thread of its own, which
 * admits or refuses the peer and, once admitted, reads its frames and calls
 * the handler for one message at a time. A refused peer gets nothing: its
 * connection is closed before a byte is sent or a message read. An
 * admitted one gets the hello, and from then on every read must carry the
 * pidfd of the admitted process (see serviceIdentity.cc).
 *
 * The allowed clients come from the listener's own bundle, read again for
 * every connection, so a helper picks up a new list without a restart.
 */
#include "privilegedService.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "codesignInt.h"
#include "internal/nothrow.h"
#include "log.h"
#include "serviceInt.h"

#ifndef SO_PASSPIDFD
#define SO_PASSPIDFD 76
#endif
#ifndef SO_PEERPIDFD
#define SO_PEERPIDFD 77
#endif

using namespace halcyx;
using namespace halcyx::service;

BundleFault halcyx::service::AllowedClientsOf(std::string_view infoPlist,
                                              std::vector<std::string> *out) {
   codesign::UniquePlist info;
   if (!codesign::ParseInfoPlist(infoPlist, &info)) {
      return kNoServiceDictionary;
   }
   plist_t service = plist_dict_get_item(static_cast<plist_t>(info.get()), "XPCService");
   if (!PLIST_IS_DICT(service)) {
      return kNoServiceDictionary;
   }
   plist_t clients = plist_dict_get_item(service, "_AllowedClients");
   if (!clients) {
      return kNoAllowedClients;
   }
   if (!PLIST_IS_ARRAY(clients)) {
      return kAllowedClientsType;
   }
   // The copy is of texts: an entry that is not one cannot be copied.
   std::vector<std::string> texts;
   for (uint32_t i = 0; i < plist_array_get_size(clients); i++) {
      plist_t item = plist_array_get_item(clients, i);
      uint64_t len = 0;
      const char *s = PLIST_IS_STRING(item) ? plist_get_string_ptr(item, &len) : nullptr;
      if (!s) {
         return kCopyFailed;
      }
      texts.emplace_back(s, len);
   }
   *out = std::move(texts);
   return kNoFault;
}

struct PrivilegedServiceMessage {
   plist_t dictionary;
   pid_t pid;
   int sock;
   uint32_t serial;
   bool answered;
};

namespace {

// The listener's own lines are written whole even when connections log at
// the same moment (an entry is three writes).
std::mutex gLogLock;

#define SERVICE_LOG(fn, ...)                        \
   do {                                             \
      std::lock_guard<std::mutex> hold_(gLogLock); \
      fn(__VA_ARGS__);                              \
   } while (0)

struct Service {
   PrivilegedServiceHandler *handler;
   void *context;
};

constexpr const char *kFaultMessages[] = {
   nullptr,
   "%5d: Unable to find main bundle.\n",
   "%5d: Unable to find XPCService dictionary.\n",
   "%5d: Unable to find _AllowedClients array.\n",
   "%5d: Unexpected _AllowedClients type.\n",
   "%5d: Failed to copy requirement array.\n",
};

// The directory holding the "Contents" nearest above the running
// executable, opened; -1 when there is none or it lacks Contents/Info.plist
// (which *info then holds).
int OpenMainBundle(std::string *info) {
   char exe[PATH_MAX];
   ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
   if (n <= 0) {
      return -1;
   }
   std::string path(exe, static_cast<size_t>(n));
   // The last component is the executable itself.
   for (size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0;) {
      size_t prev = path.rfind('/', slash - 1);
      if (prev == std::string::npos) {
         break;
      }
      if (path.compare(prev + 1, slash - prev - 1, "Contents") == 0) {
         std::string bundle = prev == 0 ? "/" : path.substr(0, prev);
         UniqueFd fd(open(bundle.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
         if (!fd || !codesign::ReadFileAt(fd.get(), codesign::kInfoPlist,
                                          codesign::kMaxInfoPlist, info)) {
            return -1;
         }
         return fd.release();
      }
      slash = prev;
   }
   return -1;
}

BundleFault ReadAllowedClients(std::vector<std::string> *out) {
   std::string data;
   UniqueFd bundle(OpenMainBundle(&data));
   if (!bundle) {
      return kNoMainBundle;
   }
   return AllowedClientsOf(data, out);
}

// What the log calls the peer: its executable's path, or "unknown process".
std::string ExecutablePathOf(pid_t pid) {
   char link[64];
   char path[4096];
   snprintf(link, sizeof link, "/proc/%d/exe", static_cast<int>(pid));
   ssize_t n = pid > 0 ? readlink(link, path, sizeof path - 1) : -1;
   return n > 0 ? std::string(path, static_cast<size_t>(n)) : "unknown process";
}

pid_t PeerCredPid(int sock) {
   struct ucred cred = {};
   socklen_t len = sizeof cred;
   return getsockopt(sock, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0 ? cred.pid : -1;
}

// True when the peer has sent nothing yet: a client speaks only after the
// hello, so bytes already queued were written before it was admitted.
bool NothingQueued(int sock) {
   char byte;
   ssize_t n = recv(sock, &byte, 1, MSG_PEEK | MSG_DONTWAIT);
   return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
}

// Runs the admission of one connection; true when the peer is admitted.
bool Admit(int sock, Peer *peer, pid_t *logPid) {
   const bool named = TakePeerPidfd(sock, peer);
   *logPid = named ? peer->pid : PeerCredPid(sock);
   SERVICE_LOG(Log, "%5d: Received connection from %s\n", *logPid,
               ExecutablePathOf(*logPid).c_str());

   std::vector<std::string> requirements;
   BundleFault fault = kCopyFailed;
   try {
      fault = ReadAllowedClients(&requirements);
   } catch (...) {
   }
   if (fault != kNoFault) {
      SERVICE_LOG(Warning, kFaultMessages[fault], *logPid);
      return false;
   }
   CodeIdentity code;
   int identity = kUnidentified;
   if (named && !requirements.empty()) {
      UniqueFd exe(OpenPeerExecutable(peer));
      identity = exe ? code.Establish(exe.get()) : kUnidentified;
   }
   for (const std::string &requirement : requirements) {
      int status = identity == kAdmitted ? code.Check(requirement) : identity;
      if (status == kAdmitted) {
         // Checked after the executable was opened: bytes written before
         // an exec into the verified program are already queued by then.
         return NothingQueued(sock);
      }
      SERVICE_LOG(Log, "%5d: Failed validation. (%d)\n", *logPid, status);
   }
   return false;
}

void ConnectionError(pid_t pid, const char *what) {
   SERVICE_LOG(Warning, "%5d: Connection received unexpected XPC Error: %s\n", pid, what);
}

// Handles one frame; false when the connection must close.
bool Deliver(const Service &service, int sock, pid_t pid, const FrameHeader &header,
             std::string_view payload) {
   if (header.type != kMessage) {
      ConnectionError(pid, "Unexpected frame type");
      return false;
   }
   codesign::UniquePlist root =
      DecodePayload(reinterpret_cast<const uint8_t *>(payload.data()), payload.size());
   if (!root) {
      ConnectionError(pid, "Message is not a property list");
      return false;
   }
   if (!PLIST_IS_DICT(static_cast<plist_t>(root.get()))) {
      SERVICE_LOG(Warning, "%5d: Connection received unexpected event type.\n", pid);
      return true;
   }
   PrivilegedServiceMessage message = {static_cast<plist_t>(root.get()), pid, sock,
                                       header.serial, false};
   service.handler(service.context, &message);
   return true;
}

void Serve(const Service &service, UniqueFd sock) {
   Peer peer;
   pid_t pid = -1;
   if (!Admit(sock.get(), &peer, &pid)) {
      SERVICE_LOG(Warning, "Validation failed. Canceling connection.\n");
      return;
   }
   codesign::UniquePlist empty(plist_new_dict());
   std::string hello;
   if (!EncodeFrame(kHello, 0, static_cast<plist_t>(empty.get()), &hello) ||
       !SendAll(sock.get(), hello)) {
      SERVICE_LOG(Log, "%5d: Connection closed by client.\n", pid);
      return;
   }
   FrameReader reader;
   for (;;) {
      FrameHeader header;
      std::string_view payload;
      switch (reader.Next(&header, &payload)) {
      case FrameReader::Frame:
         if (!Deliver(service, sock.get(), pid, header, payload)) {
            return;
         }
         continue;
      case FrameReader::Bad:
         ConnectionError(pid, "Malformed frame");
         return;
      case FrameReader::NeedMore:
         break;
      }
      Sender sender;
      ssize_t n = RecvInto(sock.get(), &reader, &sender);
      UniqueFd senderPidfd(sender.pidfd);
      const bool reset = n < 0 && errno == ECONNRESET;
      if ((n == 0 && reader.Empty()) || reset) {
         SERVICE_LOG(Log, "%5d: Connection closed by client.\n", pid);
         return;
      }
      if (n < 0) {
         ConnectionError(pid, "Connection interrupted");
         return;
      }
      if (n == 0) {
         ConnectionError(pid, "Truncated frame");
         return;
      }
      // Checked before a byte of what arrived is looked at. A peer that has
      // exited can no longer be told apart from what it may have exec'd, so
      // its last bytes are dropped with the connection.
      if (!SenderIsPeer(peer, sender)) {
         if (PeerAlive(peer)) {
            ConnectionError(pid, "Message not sent by the admitted process");
         } else {
            SERVICE_LOG(Log, "%5d: Connection closed by client.\n", pid);
         }
         return;
      }
   }
}

void ServeNoThrow(Service service, int fd) {
   UniqueFd sock(fd);
   try {
      Serve(service, std::move(sock));
   } catch (...) {
      // Out of memory: the connection is dropped, the listener goes on.
   }
}

void WarnWithoutPidfds() {
   int pair[2];
   if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
      return;
   }
   UniqueFd a(pair[0]), b(pair[1]);
   int pidfd = -1;
   socklen_t len = sizeof pidfd;
   if (getsockopt(a.get(), SOL_SOCKET, SO_PEERPIDFD, &pidfd, &len) != 0) {
      Warning("PrivilegedXPCMachService_Main: this kernel cannot name a peer process by "
              "pidfd (getsockopt SO_PEERPIDFD errno %d); every client will be refused.\n",
              errno);
      return;
   }
   close(pidfd);
}

UniqueFd ListenOn(const char *serviceName) {
   std::string path;
   if (!ServiceSocketPath(serviceName, &path)) {
      Panic("PrivilegedXPCMachService_Main: invalid service name.\n");
   }
   UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   if (!fd) {
      Panic("PrivilegedXPCMachService_Main: socket errno %d.\n", errno);
   }
   struct sockaddr_un addr = {};
   addr.sun_family = AF_UNIX;
   memcpy(addr.sun_path, path.c_str(), path.size() + 1);
   if (unlink(path.c_str()) != 0 && errno != ENOENT) {
      Panic("PrivilegedXPCMachService_Main: unlink errno %d.\n", errno);
   }
   if (bind(fd.get(), reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) != 0) {
      Panic("PrivilegedXPCMachService_Main: bind errno %d.\n", errno);
   }
   // Anyone may connect: admission is by code identity.
   if (chmod(path.c_str(), 0666) != 0) {
      Panic("PrivilegedXPCMachService_Main: chmod errno %d.\n", errno);
   }
   int one = 1;
   // Accepted sockets inherit them, so a client's very first bytes carry
   // its pidfd and pid.
   setsockopt(fd.get(), SOL_SOCKET, SO_PASSPIDFD, &one, sizeof one);
   setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &one, sizeof one);
   if (listen(fd.get(), SOMAXCONN) != 0) {
      Panic("PrivilegedXPCMachService_Main: listen errno %d.\n", errno);
   }
   return fd;
}

}  // namespace

void
PrivilegedXPCMachService_Main(const char *serviceName, PrivilegedServiceHandler *handler,
                              void *context)
{
   Log("Starting service: %s\n", serviceName ? serviceName : "(null)");
   UniqueFd listener = halcyx::CallOrPanic([&] { return ListenOn(serviceName); });
   WarnWithoutPidfds();
   const Service service = {handler, context};
   for (;;) {
      int fd = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
      if (fd < 0) {
         const int error = errno;
         if (error == EINTR || error == ECONNABORTED) {
            continue;
         }
         if (error == EBADF || error == EINVAL || error == ENOTSOCK) {
            Panic("PrivilegedXPCMachService_Main: accept errno %d.\n", error);
         }
         SERVICE_LOG(Warning, "Listener received unexpected XPC Error: accept errno %d\n", error);
         usleep(10 * 1000);  // out of resources: let connections finish
         continue;
      }
      // Normally inherited from the listening socket. Should it fail, no
      // message can be attributed to the peer and the connection closes
      // at the first one.
      int one = 1;
      (void)setsockopt(fd, SOL_SOCKET, SO_PASSPIDFD, &one, sizeof one);
      (void)setsockopt(fd, SOL_SOCKET, SO_PASSCRED, &one, sizeof one);
      try {
         std::thread(ServeNoThrow, service, fd).detach();
      } catch (...) {
         close(fd);
         SERVICE_LOG(Warning, "PrivilegedXPCMachService_Main: no thread for a connection; "
                              "it is dropped.\n");
      }
   }
}

plist_t
PrivilegedServiceMessage_GetDictionary(const PrivilegedServiceMessage *message)
{
   return message ? message->dictionary : nullptr;
}

pid_t
PrivilegedServiceMessage_GetPeerPid(const PrivilegedServiceMessage *message)
{
   return message ? message->pid : -1;
}

bool
PrivilegedServiceMessage_Reply(PrivilegedServiceMessage *message, plist_t reply)
{
   if (!message || !reply || message->answered) {
      errno = EINVAL;
      return false;
   }
   std::string frame;
   try {
      if (!EncodeFrame(kReply, message->serial, reply, &frame)) {
         errno = EINVAL;
         return false;
      }
   } catch (...) {
      errno = ENOMEM;
      return false;
   }
   message->answered = true;
   return SendAll(message->sock, frame);
}
