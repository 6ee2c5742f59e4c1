// SPDX-License-Identifier: MIT
/*
 * The diagnostic log: time-stamped entries on one process-wide descriptor.
 */
#include "log.h"

#include <atomic>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include "str.h"

namespace {

// -1 switches logging off.
std::atomic<int> gLogFd{STDOUT_FILENO};

constexpr size_t kEntrySize = 1024;

void WriteIgnoringErrors(int fd, const void *data, size_t length) {
   ssize_t ignored = ::write(fd, data, length);
   (void)ignored;
}

/*
 * Writes stamp, prefix and message as three separate writes. A message that
 * does not fit in the entry buffer is dropped whole, so an over-long message
 * never produces a cut-off line; the stamp and prefix are written anyway.
 */
void LogEntry(const char *prefix, size_t prefixLength, const char *format,
              va_list ap) {
   int fd = gLogFd.load(std::memory_order_relaxed);
   if (fd == -1) {
      return;
   }

   struct timeval now;
   gettimeofday(&now, nullptr);
   struct tm local;
   localtime_r(&now.tv_sec, &local);

   char buffer[kEntrySize];
   int length = Str_Sprintf(buffer, sizeof buffer,
                            "%04d-%02d-%02dT%02d:%02d:%02d.%03d| ",
                            local.tm_year + 1900, local.tm_mon + 1, local.tm_mday,
                            local.tm_hour, local.tm_min, local.tm_sec,
                            static_cast<int>(now.tv_usec / 1000));
   WriteIgnoringErrors(fd, buffer, static_cast<size_t>(length));
   WriteIgnoringErrors(fd, prefix, prefixLength);

   length = Str_Vsnprintf(buffer, sizeof buffer, format, ap);
   if (length >= 0) {
      WriteIgnoringErrors(fd, buffer, static_cast<size_t>(length));
   }
}

}  // namespace

extern "C" {

void Log(const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   LogEntry("", 0, format, ap);
   va_end(ap);
}

void Warning(const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   LogEntry("Warning: ", 9, format, ap);
   va_end(ap);
}

void Panic(const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   LogEntry("Panic: ", 7, format, ap);
   va_end(ap);
   exit(1);
}

int ServiceImplLogOpen(const char *path) {
   // Not inherited: a program the process starts gets no log of ours.
   int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
   gLogFd.store(fd, std::memory_order_relaxed);
   return fd;
}

}  // extern "C"
