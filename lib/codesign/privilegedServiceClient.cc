// SPDX-License-Identifier: MIT
/*
 * The client side of a privileged service: connect, wait for the hello,
 * then send dictionaries and wait for the replies that carry their serials.
 *
 * The client writes nothing before the hello: the listener refuses a peer
 * that does. Replies to earlier messages that timed out are skipped by
 * serial, so a late answer never passes for the current one.
 */
#include "privilegedService.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include "serviceInt.h"

using namespace halcyx;
using namespace halcyx::service;

struct PrivilegedServiceClient {
   UniqueFd sock;
   uint32_t nextSerial = 1;
   FrameReader reader;
   int recvTimeoutMs = -1;  // the socket's SO_RCVTIMEO; -1 none
};

namespace {

using Clock = std::chrono::steady_clock;

// Milliseconds left until deadline for poll (-1: no deadline).
int Remaining(bool forever, Clock::time_point deadline) {
   if (forever) {
      return -1;
   }
   auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
   return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Gives the socket a receive time-out of ms (-1: none); false when it
// cannot be given one (0 ms, which the socket reads as "none").
bool SocketTimeout(PrivilegedServiceClient *client, int ms) {
   if (ms == 0) {
      return false;
   }
   if (client->recvTimeoutMs == ms) {
      return true;
   }
   struct timeval tv = {};
   if (ms > 0) {
      tv.tv_sec = ms / 1000;
      tv.tv_usec = (ms % 1000) * 1000;
   }
   if (setsockopt(client->sock.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) != 0) {
      return false;
   }
   client->recvTimeoutMs = ms;
   return true;
}

// Waits for the next frame of a given type (and serial, for replies).
// False with errno ETIMEDOUT, EPIPE (closed) or EPROTO (malformed).
bool WaitFor(PrivilegedServiceClient *client, uint8_t type, uint32_t serial, int timeoutMs,
             codesign::UniquePlist *payloadOut) {
   const bool forever = timeoutMs < 0;
   const auto deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeoutMs);
   bool first = true;
   for (;;) {
      FrameHeader header;
      std::string_view payload;
      FrameReader::Result r = client->reader.Next(&header, &payload);
      if (r == FrameReader::Bad) {
         errno = EPROTO;
         return false;
      }
      if (r == FrameReader::Frame) {
         if (header.type == kError && header.serial == serial) {
            errno = EPROTO;
            return false;
         }
         if (header.type != type || header.serial != serial) {
            continue;  // the answer to an earlier message given up on
         }
         codesign::UniquePlist root(
            DecodePayload(reinterpret_cast<const uint8_t *>(payload.data()), payload.size()));
         if (!root) {
            errno = EPROTO;
            return false;
         }
         *payloadOut = std::move(root);
         return true;
      }
      // The first wait of a call blocks in recvmsg under the socket's own
      // time-out (one system call for the usual whole answer); later ones,
      // after part of a frame, poll for what is left of the time.
      if (!first || !SocketTimeout(client, forever ? -1 : timeoutMs)) {
         struct pollfd p = {client->sock.get(), POLLIN, 0};
         int n = poll(&p, 1, Remaining(forever, deadline));
         if (n < 0 && errno == EINTR) {
            continue;
         }
         if (n <= 0) {
            errno = n == 0 ? ETIMEDOUT : errno;
            return false;
         }
      }
      first = false;
      ssize_t got = RecvInto(client->sock.get(), &client->reader, nullptr);
      if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
         errno = ETIMEDOUT;
      } else if (got == 0) {
         errno = EPIPE;
      }
      if (got <= 0) {
         return false;
      }
   }
}

}  // namespace

PrivilegedServiceClient *
PrivilegedServiceClient_Connect(const char *serviceName, int timeoutMs)
{
   try {
      std::string path;
      if (!ServiceSocketPath(serviceName, &path)) {
         errno = EINVAL;
         return nullptr;
      }
      auto client = std::make_unique<PrivilegedServiceClient>();
      client->sock.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
      if (!client->sock) {
         return nullptr;
      }
      struct sockaddr_un addr = {};
      addr.sun_family = AF_UNIX;
      memcpy(addr.sun_path, path.c_str(), path.size() + 1);
      int rc;
      do {
         rc = connect(client->sock.get(), reinterpret_cast<struct sockaddr *>(&addr), sizeof addr);
      } while (rc != 0 && errno == EINTR);
      codesign::UniquePlist hello;
      if (rc != 0 || !WaitFor(client.get(), kHello, 0, timeoutMs, &hello)) {
         return nullptr;
      }
      return client.release();
   } catch (...) {
      errno = ENOMEM;
      return nullptr;
   }
}

bool
PrivilegedServiceClient_Send(PrivilegedServiceClient *client, plist_t message, plist_t *reply,
                             int timeoutMs)
{
   if (!client || !PLIST_IS_DICT(message)) {
      errno = EINVAL;
      return false;
   }
   try {
      const uint32_t serial = client->nextSerial++;
      std::string frame;
      if (!EncodeFrame(kMessage, serial, message, &frame)) {
         errno = EINVAL;
         return false;
      }
      if (!SendAll(client->sock.get(), frame)) {
         return false;
      }
      if (!reply) {
         return true;
      }
      codesign::UniquePlist answer;
      if (!WaitFor(client, kReply, serial, timeoutMs, &answer)) {
         return false;
      }
      *reply = static_cast<plist_t>(answer.release());
      return true;
   } catch (...) {
      errno = ENOMEM;
      return false;
   }
}

void
PrivilegedServiceClient_Close(PrivilegedServiceClient *client)
{
   delete client;
}
