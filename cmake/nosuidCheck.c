// SPDX-License-Identifier: MIT
/*
 * halcyx_nosuid_check PATH: exit 0 when a program installed at PATH (a
 * directory that may not exist yet) by this process would run set-user-ID
 * root: the process is root and the file system that will hold PATH (that
 * of its nearest existing ancestor) is not mounted nosuid. Otherwise exit 1
 * with the reason on standard error.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/statvfs.h>
#include <unistd.h>

int main(int argc, char **argv) {
   if (argc != 2 || argv[1][0] != '/') {
      fprintf(stderr, "usage: halcyx_nosuid_check ABSOLUTE-PATH\n");
      return 2;
   }
   if (geteuid() != 0) {
      fprintf(stderr, "halcyx: installing set-user-ID root needs root; %s would be owned by "
                      "user %u\n", argv[1], (unsigned)geteuid());
      return 1;
   }
   char *path = strdup(argv[1]);
   if (path == NULL) {
      return 2;
   }
   struct statvfs fs;
   while (statvfs(path, &fs) != 0) {
      char *slash = strrchr(path, '/');
      if ((errno != ENOENT && errno != ENOTDIR) || slash == NULL) {
         fprintf(stderr, "halcyx: cannot examine %s: %s\n", path, strerror(errno));
         free(path);
         return 1;
      }
      slash[slash == path ? 1 : 0] = '\0';
   }
   if (fs.f_flag & ST_NOSUID) {
      fprintf(stderr, "halcyx: %s is on a file system mounted nosuid, where the kernel ignores "
                      "the set-user-ID bit; install somewhere else or remount it suid\n", path);
      free(path);
      return 1;
   }
   free(path);
   return 0;
}
