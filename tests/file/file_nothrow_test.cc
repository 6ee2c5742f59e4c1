// SPDX-License-Identifier: MIT
// The C functions that use C++ containers, run with the 1st, 2nd, ...
// operator new of the call refused in turn: each ends in its failure result
// with ENOMEM (or panics, where it has no failure result), never throws and
// never leaks a descriptor.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>

#include "file.h"
#include "msg.h"
#include "msgList.h"
#include "temp_dir.h"

namespace {

long gFailAt = -1;  // the number of the request to refuse; -1: none
long gRequests = 0;

void *Allocate(size_t size) {
   if (gFailAt >= 0 && gRequests++ == gFailAt) {
      throw std::bad_alloc();
   }
   if (void *p = std::malloc(size != 0 ? size : 1)) {
      return p;
   }
   throw std::bad_alloc();
}

}  // namespace

void *operator new(size_t size) { return Allocate(size); }
void *operator new[](size_t size) { return Allocate(size); }
void operator delete(void *p) noexcept { std::free(p); }
void operator delete[](void *p) noexcept { std::free(p); }
void operator delete(void *p, size_t) noexcept { std::free(p); }
void operator delete[](void *p, size_t) noexcept { std::free(p); }

namespace {

int OpenFds() {
   int n = 0;
   if (DIR *d = opendir("/proc/self/fd")) {
      while (readdir(d) != nullptr) {
         n++;
      }
      closedir(d);
   }
   return n;
}

// Declared first so that it runs before anything else could have made the
// pending message's state.
TEST(NoThrow, PendingMessageNeedsNoCxxHeap) {
   gRequests = 0;
   gFailAt = 0;
   Msg_Append("kept %d\n", 1);
   MsgList *list = Msg_GetMsgListAndReset();
   gFailAt = -1;
   EXPECT_EQ(gRequests, 0);
   ASSERT_NE(list, nullptr);
   MsgList_Free(list);
}

class NoThrowTest : public halcyx::test::TempDirTest {
protected:
   std::string P(const char *rel) const { return (dir_ / rel).string(); }

   void Tree(const char *root) {
      std::string r = P(root);
      for (const char *sub : {"", "/d", "/d/e"}) {
         ASSERT_EQ(mkdir((r + sub).c_str(), 0755), 0);
      }
      for (const char *f : {"/f", "/d/g", "/d/e/h"}) {
         int fd = open((r + f).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
         ASSERT_GE(fd, 0);
         ASSERT_EQ(write(fd, "data", 4), 4);
         close(fd);
      }
   }
};

TEST_F(NoThrowTest, EveryRefusedRequestIsAReportedFailure) {
   struct Case {
      const char *name;
      std::function<void()> setUp;
      std::function<bool()> call;  // true: it succeeded
   };
   // Built before any request is refused: only the library's own may fail.
   const std::string chain = P("h/a/b/c"), tree = P("t"), link = P("link"),
                     missing = P("missing/x"), copy = P("c");
   char *topmost = nullptr;
   int srcFd = -1, dstFd = -1;
   const Case cases[] = {
      {"CreateDirectoryHierarchyEx", [&] { File_DeleteDirectoryTree(P("h").c_str()); },
       [&] {
          bool ok = File_CreateDirectoryHierarchyEx(chain.c_str(), 0755, &topmost);
          free(topmost);
          return ok;
       }},
      {"DeleteDirectoryTree", [&] { File_DeleteDirectoryTree(tree.c_str()), Tree("t"); },
       [&] { return File_DeleteDirectoryTree(tree.c_str()); }},
      {"DeleteDirectoryContent", [&] { File_DeleteDirectoryTree(tree.c_str()), Tree("t"); },
       [&] { return File_DeleteDirectoryContent(tree.c_str()); }},
      {"Unlink through a relative link",
       [&] {
          unlink(link.c_str());
          ASSERT_EQ(symlink("target", link.c_str()), 0);
          close(open(P("target").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
       },
       [&] {
          int err = File_Unlink(link.c_str());
          EXPECT_EQ(err, errno);
          return err == 0;
       }},
      {"FullPath", [] {}, [&] {
          char *full = File_FullPath(missing.c_str());
          free(full);
          return full != nullptr;
       }},
      {"CopyTree",
       [&] {
          File_DeleteDirectoryTree(tree.c_str()), Tree("t");
          File_DeleteDirectoryTree(copy.c_str()), mkdir(copy.c_str(), 0755);
       },
       [&] { return File_CopyTree(tree.c_str(), copy.c_str(), true, true); }},
      {"CopyDescriptorAll",
       [&] {
          File_DeleteDirectoryTree(tree.c_str()), Tree("t");
          close(srcFd), close(dstFd);
          srcFd = open(P("t/f").c_str(), O_RDONLY | O_CLOEXEC);
          dstFd = open(P("t/copy").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
          // Attributes make the copy allocate where the file system keeps them.
          (void)fsetxattr(srcFd, "user.k", "v", 1, 0);
       },
       [&] { return File_CopyDescriptorAll(srcFd, dstFd); }},
   };
   for (const Case &c : cases) {
      for (long failAt = 0;; failAt++) {
         SCOPED_TRACE(std::string(c.name) + ", request " + std::to_string(failAt) + " refused");
         c.setUp();
         int fds = OpenFds();
         bool ok = false;
         gRequests = 0;
         gFailAt = failAt;
         errno = 0;
         try {
            ok = c.call();
         } catch (...) {
            gFailAt = -1;
            ADD_FAILURE() << "an exception left the C interface";
            break;
         }
         int err = errno;
         gFailAt = -1;
         EXPECT_EQ(OpenFds(), fds) << "descriptor leaked";
         if (gRequests <= failAt) {
            EXPECT_TRUE(ok) << "failed without a refused request";
            break;
         }
         EXPECT_FALSE(ok);
         EXPECT_EQ(err, ENOMEM);
      }
   }
   close(srcFd), close(dstFd);
}

// Functions without a failure result may not depend on the C++ heap.
TEST(NoThrow, PathBuildersNeedNoCxxHeap) {
   // Longer than any string kept inline.
   const char *from[] = {"/old/prefix"}, *to[] = {"/a/new/and/longer/prefix"};
   gRequests = 0;
   gFailAt = 0;
   char *made[] = {File_PathJoin("/a/long/directory/", "/and/a/long/name"),
                   File_StripFwdSlashes("a//long//path//with//doubled//slashes"),
                   File_ReplaceExtension("a/long/file/name.x", ".y", 0),
                   File_ReplaceExtension("a/long/file/name", ".extension", 0),
                   File_MapPathPrefix("/old/prefix/and/more/below", from, to, 1)};
   gFailAt = -1;
   EXPECT_EQ(gRequests, 0);
   for (char *m : made) {
      free(m);
   }
}

}  // namespace
