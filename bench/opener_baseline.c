// SPDX-License-Identifier: MIT
/*
 * The opener's hot path and nothing else, as the lower bound for the
 * opener benchmark: the same system calls in the same order (scrub the
 * environment, lower the effective user ID, the time-stamped start line,
 * block the stop signals and become root in all IDs, lock, connect,
 * release the lock, restore IDs and mask, then greeting, descriptor
 * and verdict), with none of the opener's checks or messages. Built statically from the sandbox's fixed paths and installed
 * set-user-ID root only inside the benchmark's private sandbox.
 */
#define _GNU_SOURCE
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "openerConfig.h"

extern char **environ;

static int Offending(const char *entry) {
   const char *eq = strchr(entry, '=');
   return eq != NULL && (strncmp(eq + 1, "() {", 4) == 0 || strncmp(entry, "BASH_ENV=", 9) == 0 ||
                         strncmp(entry, "ENV=", 4) == 0 || strncmp(entry, "SHELLOPTS=", 10) == 0);
}

static void Scrub(void) {
   for (char **e = environ; *e != NULL; e++) {
      if (Offending(*e)) {
         char name[256];
         size_t n = (size_t)(strchr(*e, '=') - *e);
         if (n >= sizeof name) {
            exit(1);
         }
         memcpy(name, *e, n);
         name[n] = '\0';
         unsetenv(name);
         e = environ - 1;
      }
   }
}

int main(int argc, char **argv) {
   Scrub();
   uid_t root = geteuid();
   seteuid(getuid());
   umask(022);
   int fd = argc == 2 ? atoi(argv[1]) : 0;

   struct timeval tv;
   struct tm tm;
   char text[128];
   gettimeofday(&tv, NULL);
   localtime_r(&tv.tv_sec, &tm);
   int n = snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03d| ", tm.tm_year + 1900,
                    tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec,
                    (int)(tv.tv_usec / 1000));
   write(1, text, (size_t)n);
   write(1, "", 0);
   n = snprintf(text, sizeof text, "ServiceImpl_Opener: PID %u\n", (unsigned)getpid());
   write(1, text, (size_t)n);
   fcntl(fd, F_GETFD);

   (void)root;
   sigset_t stops;
   sigset_t mask;
   sigemptyset(&stops);
   sigaddset(&stops, SIGTSTP);
   sigaddset(&stops, SIGTTIN);
   sigaddset(&stops, SIGTTOU);
   sigprocmask(SIG_BLOCK, &stops, &mask);
   uid_t ruid;
   uid_t euid;
   uid_t suid;
   getresuid(&ruid, &euid, &suid);
   setresuid(0, 0, 0);
   int s = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   struct timeval bound = {HALCYX_RENDEZVOUS_BOUND_SECONDS, 0};
   setsockopt(s, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
   struct sockaddr_un addr = {AF_UNIX, HALCYX_SOCKET_PATH};
   int lock = open(HALCYX_LOCK_PATH, O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
   if (flock(lock, LOCK_EX | LOCK_NB) != 0) {
      flock(lock, LOCK_EX);
   }
   int rc = connect(s, (struct sockaddr *)&addr, sizeof addr);
   close(lock);
   setresuid(ruid, euid, suid);
   sigprocmask(SIG_SETMASK, &mask, NULL);
   if (rc != 0) {
      return 1;
   }

   unsigned char byte;
   if (read(s, &byte, 1) != 1) {
      return 1;
   }
   union {
      char buf[CMSG_SPACE(sizeof(int))];
      struct cmsghdr align;
   } control;
   memset(&control, 0, sizeof control);
   struct iovec iov = {&byte, 1};
   struct msghdr msg = {0};
   msg.msg_iov = &iov;
   msg.msg_iovlen = 1;
   msg.msg_control = control.buf;
   msg.msg_controllen = sizeof control.buf;
   struct cmsghdr *c = CMSG_FIRSTHDR(&msg);
   c->cmsg_len = CMSG_LEN(sizeof(int));
   c->cmsg_level = SOL_SOCKET;
   c->cmsg_type = SCM_RIGHTS;
   memcpy(CMSG_DATA(c), &fd, sizeof fd);
   if (sendmsg(s, &msg, MSG_NOSIGNAL) != 1 || read(s, &byte, 1) != 1) {
      return 1;
   }
   close(s);
   return byte == '1' ? 0 : 1;
}
