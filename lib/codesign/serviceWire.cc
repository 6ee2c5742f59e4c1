// SPDX-License-Identifier: MIT
/*
 * The privileged service's frames and socket paths.
 *
 * The decoder trusts nothing in a header: the magic, type, flags and
 * reserved bits must be exactly as written, and a length over the cap is
 * refused before a byte of payload is buffered, so a peer cannot make the
 * reader hold more than one capped frame.
 */
#include <cerrno>
#include <cstring>
#include <mutex>
#include <sys/socket.h>
#include <sys/un.h>

#include "serviceInt.h"

#ifndef SCM_PIDFD
#define SCM_PIDFD 4
#endif

namespace halcyx::service {

namespace {

bool IsNameChar(unsigned char c) {
   return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

void PutU32(uint8_t *p, uint32_t v) {
   p[0] = static_cast<uint8_t>(v >> 24);
   p[1] = static_cast<uint8_t>(v >> 16);
   p[2] = static_cast<uint8_t>(v >> 8);
   p[3] = static_cast<uint8_t>(v);
}

uint32_t GetU32(const uint8_t *p) {
   return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// The directory is a build constant; only tests replace it.
std::mutex gDirLock;
std::string gSocketDirOverride;

}  // namespace

bool DecodeHeader(const uint8_t *bytes, FrameHeader *out) {
   if (GetU32(bytes) != kFrameMagic || bytes[5] != 0 || bytes[6] != 0 || bytes[7] != 0) {
      return false;
   }
   const uint8_t type = bytes[4];
   const uint32_t length = GetU32(bytes + 8);
   if (type < kMessage || type > kError || length > kMaxPayload) {
      return false;
   }
   *out = FrameHeader{type, length, GetU32(bytes + 12)};
   return true;
}

bool EncodeFrame(uint8_t type, uint32_t serial, plist_t payload, std::string *out) {
   char *bin = nullptr;
   uint32_t length = 0;
   if (!payload) {
      return false;
   }
   plist_to_bin(payload, &bin, &length);
   if (!bin || length == 0 || length > kMaxPayload) {
      plist_to_bin_free(bin);
      return false;
   }
   uint8_t header[kHeaderSize] = {};
   PutU32(header, kFrameMagic);
   header[4] = type;
   PutU32(header + 8, length);
   PutU32(header + 12, serial);
   try {
      out->assign(reinterpret_cast<char *>(header), kHeaderSize);
      out->append(bin, length);
   } catch (...) {
      plist_to_bin_free(bin);
      return false;
   }
   plist_to_bin_free(bin);
   return true;
}

codesign::UniquePlist DecodePayload(const uint8_t *bytes, size_t size) {
   plist_t root = nullptr;
   if (size >= 8 && size <= kMaxPayload && memcmp(bytes, "bplist00", 8) == 0) {
      plist_from_bin(reinterpret_cast<const char *>(bytes), static_cast<uint32_t>(size), &root);
   }
   return codesign::UniquePlist(root);
}

void FrameReader::Append(const void *bytes, size_t size) {
   if (pos_ > 0 && pos_ == buf_.size()) {
      buf_.clear();
      pos_ = 0;
   }
   const auto *p = static_cast<const uint8_t *>(bytes);
   buf_.insert(buf_.end(), p, p + size);
}

FrameReader::Result FrameReader::Next(FrameHeader *header, std::string_view *payload) {
   if (bad_) {
      return Bad;
   }
   // Drop what earlier frames used once it is most of the buffer.
   if (pos_ > 0 && pos_ * 2 >= buf_.size()) {
      buf_.erase(buf_.begin(), buf_.begin() + static_cast<ptrdiff_t>(pos_));
      pos_ = 0;
   }
   const size_t avail = buf_.size() - pos_;
   FrameHeader h;
   if (avail < kHeaderSize) {
      return NeedMore;
   }
   if (!DecodeHeader(buf_.data() + pos_, &h)) {
      bad_ = true;
      return Bad;
   }
   if (avail - kHeaderSize < h.length) {
      return NeedMore;
   }
   *header = h;
   *payload = std::string_view(reinterpret_cast<const char *>(buf_.data() + pos_ + kHeaderSize),
                               h.length);
   pos_ += kHeaderSize + h.length;
   return Frame;
}

ssize_t RecvInto(int sock, FrameReader *reader, Sender *sender) {
   uint8_t data[64 * 1024];
   alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int)) * 2 +
                                        CMSG_SPACE(sizeof(struct ucred))];
   struct iovec iov = {data, sizeof data};
   struct msghdr msg = {};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = control;
   msg.msg_controllen = sizeof control;
   Sender got;
   ssize_t n;
   do {
      n = recvmsg(sock, &msg, MSG_CMSG_CLOEXEC);
   } while (n < 0 && errno == EINTR);
   for (struct cmsghdr *c = n >= 0 ? CMSG_FIRSTHDR(&msg) : nullptr; c; c = CMSG_NXTHDR(&msg, c)) {
      if (c->cmsg_level != SOL_SOCKET) {
         continue;
      }
      if (c->cmsg_type == SCM_CREDENTIALS && c->cmsg_len == CMSG_LEN(sizeof(struct ucred))) {
         struct ucred cred;
         memcpy(&cred, CMSG_DATA(c), sizeof cred);
         got.pid = cred.pid;
         continue;
      }
      // A peer may pass descriptors of its own; none is kept.
      for (size_t off = 0; off + sizeof(int) <= c->cmsg_len - CMSG_LEN(0); off += sizeof(int)) {
         int fd;
         memcpy(&fd, CMSG_DATA(c) + off, sizeof fd);
         if (c->cmsg_type == SCM_PIDFD && got.pidfd < 0) {
            got.pidfd = fd;
         } else if (c->cmsg_type == SCM_RIGHTS || c->cmsg_type == SCM_PIDFD) {
            close(fd);
         }
      }
   }
   if (sender) {
      *sender = got;
   } else if (got.pidfd >= 0) {
      close(got.pidfd);
   }
   if (n > 0) {
      reader->Append(data, static_cast<size_t>(n));
   }
   return n;
}

bool SendAll(int sock, std::string_view data) {
   while (!data.empty()) {
      ssize_t n = send(sock, data.data(), data.size(), MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) {
         continue;
      }
      if (n <= 0) {
         return false;
      }
      data.remove_prefix(static_cast<size_t>(n));
   }
   return true;
}

bool ServiceSocketPath(const char *serviceName, std::string *out) {
   if (!serviceName || !IsNameChar(static_cast<unsigned char>(serviceName[0]))) {
      return false;
   }
   for (const char *p = serviceName; *p; p++) {
      const unsigned char c = static_cast<unsigned char>(*p);
      if (!IsNameChar(c) && c != '.' && c != '_' && c != '-') {
         return false;
      }
   }
   std::string path;
   {
      std::lock_guard<std::mutex> hold(gDirLock);
      path = gSocketDirOverride.empty() ? HALCYX_SERVICE_SOCKET_DIR : gSocketDirOverride;
   }
   path += "/";
   path += serviceName;
   path += ".sock";
   if (path.size() >= sizeof(sockaddr_un::sun_path)) {
      return false;
   }
   *out = std::move(path);
   return true;
}

void SetSocketDirForTesting(const char *dir) {
   std::lock_guard<std::mutex> hold(gDirLock);
   gSocketDirOverride = dir ? dir : "";
}

}  // namespace halcyx::service
