// SPDX-License-Identifier: MIT
/*
 * Both ends of the opener-to-daemon socket protocol.
 *
 * One connection carries one descriptor:
 *   1. the daemon writes one greeting byte (any value);
 *   2. the opener answers with one data byte, the greeting it just read,
 *      carrying the descriptor as SCM_RIGHTS;
 *   3. the daemon writes one verdict byte: '1' means the descriptor was
 *      taken, anything else is a refusal.
 *
 * The opener uses ServiceImplReadOne and ServiceImplSendFd; a daemon uses
 * ServiceImplWriteOne, ServiceImplRecvFd and ServiceImplSetBlockingState.
 * Each function makes exactly one system call (never retried on EINTR),
 * reports an unexpected failure once with Warning and returns false; a
 * peer that went away during a write (EPIPE) is expected and silent.
 * Writes on sockets never raise SIGPIPE. The exchange byte is per thread.
 */
#ifndef HALCYX_SERVICE_PROTOCOL_H
#define HALCYX_SERVICE_PROTOCOL_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* ServiceImplReadOne results. */
enum {
   SERVICE_IMPL_READ_ERROR = 0,
   SERVICE_IMPL_READ_EOF = 1,
   SERVICE_IMPL_READ_BYTE = 2,
};

/*
 * Reads one byte into *byteOut. The byte also becomes this thread's
 * exchange byte, the data byte that ServiceImplSendFd sends next.
 */
int ServiceImplReadOne(int fd, unsigned char *byteOut);

/* Writes the low byte of value. */
bool ServiceImplWriteOne(int fd, int value);

/* Sends fd with the exchange byte as SCM_RIGHTS. */
bool ServiceImplSendFd(int socket, int fd);

/*
 * Receives one data byte with exactly one descriptor, close-on-exec, into
 * *fdOut. End-of-file is false without a message. A message that carries
 * no descriptor, more than one, or was truncated is "Unexpected message":
 * false, and any descriptor that came with it is closed again.
 */
bool ServiceImplRecvFd(int socket, int *fdOut);

/* Clears O_NONBLOCK when blocking is true, sets it otherwise. */
bool ServiceImplSetBlockingState(int fd, bool blocking);

/*
 * Closes *fdSlot unless it holds -1 and sets it to -1. A failed close is
 * logged and, when okFlag is given, clears *okFlag. Returns whether the
 * close succeeded (a slot holding -1 counts as success).
 */
bool ServiceImplClose(int *fdSlot, bool *okFlag);

HALCYX_EXTERN_C_END

#endif /* HALCYX_SERVICE_PROTOCOL_H */
