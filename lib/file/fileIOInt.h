// SPDX-License-Identifier: MIT
/*
 * Internals of the file-handle layer shared by its modules and tests.
 */
#ifndef HALCYX_FILE_FILEIOINT_H
#define HALCYX_FILE_FILEIOINT_H

#include <cstdint>

#include "fileIO.h"

// The result for an errno value of a failed call.
uint32_t FileIOErrno2Result(int error);

// Mandatory-lock requests become the unsupported mandatory bit, best-effort
// requests the advisory lock.
uint32_t FileIOResolveLockBits(uint32_t access);

// The open(2) flags for access bits and an action (O_CLOEXEC included).
int FileIOOpenFlags(uint32_t access, int action);

#endif  // HALCYX_FILE_FILEIOINT_H
