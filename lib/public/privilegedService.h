// SPDX-License-Identifier: MIT
/*
 * The privileged service listener and its client library (library
 * halcyx_codesign).
 *
 * A product's privileged helper calls PrivilegedXPCMachService_Main with a
 * service name and a handler. The listener serves a Unix stream socket at
 * the build's service-socket directory + serviceName + ".sock" (mode 0666:
 * admission is by code identity, not by file permissions) and admits a
 * connecting process only when its executable's code signature satisfies one
 * of the requirement texts listed in the helper's own bundle, in
 * Contents/Info.plist under XPCService / _AllowedClients. The list is read
 * again for every connection. The helper's bundle is the directory holding
 * the Contents directory nearest above the helper's real executable path.
 *
 * The peer is named by a pidfd, never by its pid alone: its executable is
 * opened through that process, which must still be alive after the open,
 * and every message after admission must come from that same process
 * running that same executable. A message whose sender has exited or exec'd
 * by the time it is read closes the connection without reaching the
 * handler; a client that sends anything before the listener's hello is
 * refused.
 *
 * The log lines about a connection (standard output, see log.h) begin with
 * the peer's pid: "Received connection from", one "Failed validation. (%d)"
 * per requirement that did not pass, where the status is
 *   1 the process could not be identified (it has gone, its executable
 *     cannot be opened, the kernel cannot name it by pidfd, or it sent
 *     bytes before the hello),
 *   3 its executable is not signed,
 *   6 the requirement text does not parse,
 *   7 the signature, its certificate chain or the requirement fails;
 * then, for a refused client, "Validation failed. Canceling connection.".
 *
 * Each admitted connection has its own thread: the handler is called for
 * one message at a time per connection, in arrival order, and for several
 * connections at once. The listener adds no locking around it.
 */
#ifndef HALCYX_PRIVILEGED_SERVICE_H
#define HALCYX_PRIVILEGED_SERVICE_H

#include <sys/types.h>

#include <plist/plist.h>

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* One received message; valid only during the handler call that gets it. */
typedef struct PrivilegedServiceMessage PrivilegedServiceMessage;

/* Called with the caller's context for every dictionary message. */
typedef void PrivilegedServiceHandler(void *context, PrivilegedServiceMessage *message);

/*
 * Serves serviceName (which must match [A-Za-z0-9][A-Za-z0-9._-]* and fit a
 * socket address) for ever. A stale socket file of that name is removed
 * first. Failing to set up the socket ends the process through Panic.
 */
HALCYX_NORETURN void PrivilegedXPCMachService_Main(const char *serviceName,
                                                  PrivilegedServiceHandler *handler,
                                                  void *context);

/* The message's dictionary, borrowed from the message. */
plist_t PrivilegedServiceMessage_GetDictionary(const PrivilegedServiceMessage *message);

/* The pid of the admitted process that sent the message. */
pid_t PrivilegedServiceMessage_GetPeerPid(const PrivilegedServiceMessage *message);

/*
 * Sends reply (a copy; the caller keeps ownership) as the answer to
 * message. False when reply is null or cannot be encoded, when the message
 * was already answered, or when the peer has gone.
 */
bool PrivilegedServiceMessage_Reply(PrivilegedServiceMessage *message, plist_t reply);

/* A client connection. One thread at a time may use it. */
typedef struct PrivilegedServiceClient PrivilegedServiceClient;

/*
 * Connects to serviceName and waits at most timeoutMs (-1: for ever) for
 * the listener's hello. Null when the service is not there, the time runs
 * out, or the listener refuses this process (it closes the connection).
 */
PrivilegedServiceClient *PrivilegedServiceClient_Connect(const char *serviceName, int timeoutMs);

/*
 * Sends message (a dictionary; the caller keeps ownership). With a reply
 * pointer it waits at most timeoutMs (-1: for ever) for the answer and
 * stores it (free it with plist_free); null reply pointer: no waiting.
 * False (errno ETIMEDOUT on time-out, EPIPE when the listener closed the
 * connection, EPROTO for a malformed answer, EINVAL for a bad argument) and
 * *reply untouched on failure. After a time-out the connection stays
 * usable: a late answer to the abandoned message is skipped.
 */
bool PrivilegedServiceClient_Send(PrivilegedServiceClient *client, plist_t message,
                                  plist_t *reply, int timeoutMs);

/* Closes the connection and frees client (null is ignored). */
void PrivilegedServiceClient_Close(PrivilegedServiceClient *client);

HALCYX_EXTERN_C_END

#endif /* HALCYX_PRIVILEGED_SERVICE_H */
