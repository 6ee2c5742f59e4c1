// SPDX-License-Identifier: MIT
/*
 * Descriptor-relative reading for the signature code.
 *
 * Every open here uses O_NOFOLLOW | O_CLOEXEC, and O_NONBLOCK so that a FIFO
 * planted where a file is expected cannot stall the verifier; the type is
 * then checked on the descriptor itself, never on the path.
 */
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <openssl/evp.h>

#include "codesignInt.h"
#include "internal/unique.h"

namespace halcyx::codesign {

namespace {

ssize_t PreadRetry(int fd, void *buf, size_t size, uint64_t offset) {
   ssize_t n;
   do {
      n = pread(fd, buf, size, static_cast<off_t>(offset));
   } while (n < 0 && errno == EINTR);
   return n;
}

}  // namespace

int OpenAtNoFollow(int dirFd, const char *relPath, int flags) {
   std::string_view rest(relPath);
   UniqueFd cur;
   int base = dirFd;
   while (true) {
      size_t slash = rest.find('/');
      std::string part(rest.substr(0, slash));
      if (part.empty() || part == "." || part == "..") {
         errno = EINVAL;
         return -1;
      }
      bool last = slash == std::string_view::npos;
      int f = last ? flags : O_RDONLY | O_DIRECTORY;
      int fd = openat(base, part.c_str(), f | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
      if (fd < 0) {
         return -1;
      }
      cur.reset(fd);
      base = fd;
      if (last) {
         return cur.release();
      }
      rest.remove_prefix(slash + 1);
   }
}

bool ReadFileAt(int dirFd, const char *relPath, size_t cap, std::string *out) {
   UniqueFd fd(OpenAtNoFollow(dirFd, relPath, O_RDONLY));
   struct stat st;
   if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
       static_cast<uint64_t>(st.st_size) > cap) {
      return false;
   }
   std::string data;
   data.resize(static_cast<size_t>(st.st_size));
   size_t done = 0;
   // One byte more than the size seen, to notice a file that grew meanwhile.
   char extra;
   while (true) {
      char *dst = done < data.size() ? &data[done] : &extra;
      size_t want = done < data.size() ? data.size() - done : 1;
      ssize_t n = PreadRetry(fd.get(), dst, want, done);
      if (n < 0) {
         return false;
      }
      if (n == 0) {
         break;
      }
      if (done >= data.size()) {
         return false;
      }
      done += static_cast<size_t>(n);
   }
   if (done != data.size()) {
      return false;
   }
   *out = std::move(data);
   return true;
}

/*
 * Only root can change the object: it is owned by root with no group or
 * other write (with an ACL the group bits are the mask, so no named entry
 * may write either), and it lives on a local file system that this kernel
 * serves itself, where nothing outside this host (a network peer, a FUSE
 * daemon) decides what a read returns.
 *
 * This is also what makes mapping a file safe: truncating a mapped file
 * turns the next access into SIGBUS, which for any other file would let its
 * owner crash the verifier, so those are read instead.
 */
bool OnlyRootCanWrite(int fd, const struct stat &st) {
   struct statfs fs;
   if (st.st_uid != 0 || (st.st_mode & (S_IWGRP | S_IWOTH)) != 0 || fstatfs(fd, &fs) != 0) {
      return false;
   }
   switch (static_cast<unsigned long>(fs.f_type)) {
   case EXT4_SUPER_MAGIC:
   case XFS_SUPER_MAGIC:
   case BTRFS_SUPER_MAGIC:
   case TMPFS_MAGIC:
      return true;
   default:
      return false;
   }
}

namespace {
std::atomic<uint64_t> gBytesHashed{0};
}

uint64_t BytesHashed() { return gBytesHashed.load(std::memory_order_relaxed); }

/*
 * Hashes a regular file through its descriptor, without moving its offset.
 * Large files that OnlyRootCanWrite are hashed from a mapping, which saves
 * copying every byte through a buffer; the rest is read. Either way the hash
 * then reads on towards the end of the file, so a file that grew meanwhile
 * no longer matches its recorded size; it stops one byte past limit, which
 * is enough to tell, so a file that keeps growing cannot keep it busy.
 */
bool HashFd(int fd, Digest *digest, uint64_t *size, uint64_t limit) {
   struct stat st;
   if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      return false;
   }
   std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX *)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
   if (!ctx || EVP_DigestInit_ex(ctx.get(), Sha256Md(), nullptr) != 1) {
      return false;
   }
   uint64_t total = 0;
   constexpr off_t kMapAtLeast = 1024 * 1024;
   if (st.st_size >= kMapAtLeast && static_cast<uint64_t>(st.st_size) <= limit &&
       OnlyRootCanWrite(fd, st)) {
      auto len = static_cast<size_t>(st.st_size);
      void *map = mmap(nullptr, len, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
      if (map != MAP_FAILED) {
         EVP_DigestUpdate(ctx.get(), map, len);
         munmap(map, len);
         total = len;
         gBytesHashed.fetch_add(len, std::memory_order_relaxed);
      }
   }
   // Small enough to stay in the cache between the copy and the hash, and
   // below the allocator's mapping threshold, so repeated calls reuse it.
   constexpr size_t kChunk = 64 * 1024;
   UniqueMalloc<char> buf(static_cast<char *>(malloc(kChunk)));
   if (!buf) {
      return false;
   }
   while (total <= limit) {
      uint64_t left = limit - total;
      size_t want = left >= kChunk ? kChunk : static_cast<size_t>(left) + 1;
      ssize_t n = PreadRetry(fd, buf.get(), want, total);
      if (n < 0) {
         return false;
      }
      if (n == 0) {
         break;
      }
      EVP_DigestUpdate(ctx.get(), buf.get(), static_cast<size_t>(n));
      total += static_cast<uint64_t>(n);
      gBytesHashed.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
   }
   unsigned int len = 0;
   if (EVP_DigestFinal_ex(ctx.get(), digest->data(), &len) != 1) {
      return false;
   }
   *size = total;
   return true;
}

}  // namespace halcyx::codesign
