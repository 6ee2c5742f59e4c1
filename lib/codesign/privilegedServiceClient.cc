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
#include <memory>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "serviceInt.h"

using namespace halcyx;
using namespace halcyx::service;

struct PrivilegedServiceClient {
   UniqueFd sock;
   uint32_t nextSerial = 1;
   FrameReader reader;
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

// Waits for the next frame of a given type (and serial, for replies).
// False with errno ETIMEDOUT, EPIPE (closed) or EPROTO (malformed).
bool WaitFor(PrivilegedServiceClient *client, uint8_t type, uint32_t serial, int timeoutMs,
             codesign::UniquePlist *payloadOut) {
   const bool forever = timeoutMs < 0;
   const auto deadline = Clock::now() + std::chrono::milliseconds(forever ? 0 : timeoutMs);
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
      struct pollfd p = {client->sock.get(), POLLIN, 0};
      int n = poll(&p, 1, Remaining(forever, deadline));
      if (n < 0 && errno == EINTR) {
         continue;
      }
      if (n == 0) {
         errno = ETIMEDOUT;
         return false;
      }
      ssize_t got = n > 0 ? RecvInto(client->sock.get(), &client->reader, nullptr) : -1;
      if (got == 0) {
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
