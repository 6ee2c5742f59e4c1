// SPDX-License-Identifier: MIT
/*
 * The diagnostic log and fatal failures.
 *
 * Log, Warning and Panic write one time-stamped entry each to the process's
 * log descriptor (standard output until ServiceImplLogOpen replaces it; -1
 * switches logging off). An entry is three separate writes: the stamp
 * "YYYY-MM-DDThh:mm:ss.mmm| ", the prefix ("", "Warning: " or "Panic: ")
 * and the message, formatted into a 1024-byte buffer. No newline is added.
 * A message of 1024 bytes or more is dropped whole, never cut off: its
 * stamp and prefix are still written. Write errors are ignored.
 *
 * Panic ends the process with exit(1) after writing, so exit handlers and
 * stdio flushing run.
 */
#ifndef HALCYX_LOG_H
#define HALCYX_LOG_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

void Log(const char *format, ...) HALCYX_PRINTF(1, 2);
void Warning(const char *format, ...) HALCYX_PRINTF(1, 2);
HALCYX_NORETURN void Panic(const char *format, ...) HALCYX_PRINTF(1, 2);

/*
 * Replaces the log descriptor with open(path, O_WRONLY | O_CREAT | O_TRUNC,
 * 0644), close-on-exec, and returns it; a failed open returns -1, which switches logging off.
 * The previous descriptor is left open.
 */
int ServiceImplLogOpen(const char *path);

HALCYX_EXTERN_C_END

#endif /* HALCYX_LOG_H */
