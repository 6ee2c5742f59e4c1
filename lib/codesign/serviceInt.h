// SPDX-License-Identifier: MIT
/*
 * The privileged service: wire format and peer identity, shared by the
 * listener, the client library, their tests and the fuzz target.
 *
 * A frame is a 16-byte big-endian header followed by a binary property
 * list:
 *    u32 magic 0x48585350 ("HXSP")  u8 type  u8 flags (0)  u16 reserved (0)
 *    u32 payload length (at most 16 MiB)  u32 serial
 * Types: 1 message (serial chosen by the client), 2 reply (the serial of
 * the message it answers), 3 hello (serial 0, an empty dictionary, sent by
 * the listener once it has admitted the client), 4 error.
 */
#ifndef HALCYX_CODESIGN_SERVICEINT_H
#define HALCYX_CODESIGN_SERVICEINT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

#include <plist/plist.h>

#include "codesignInt.h"
#include "internal/unique.h"

namespace halcyx::service {

inline constexpr uint32_t kFrameMagic = 0x48585350;
inline constexpr size_t kHeaderSize = 16;
inline constexpr uint32_t kMaxPayload = 16 * 1024 * 1024;

enum FrameType : uint8_t { kMessage = 1, kReply = 2, kHello = 3, kError = 4 };

struct FrameHeader {
   uint8_t type = 0;
   uint32_t length = 0;
   uint32_t serial = 0;
};

// False for a wrong magic, an unknown type, non-zero flags or reserved
// bits, or a length over the cap.
bool DecodeHeader(const uint8_t *bytes, FrameHeader *out);
// The header and the binary plist of payload; false when it cannot be
// encoded or is over the cap.
bool EncodeFrame(uint8_t type, uint32_t serial, plist_t payload, std::string *out);

// A property list decoded from a frame's payload (binary form only).
// Null when the bytes are not one.
codesign::UniquePlist DecodePayload(const uint8_t *bytes, size_t size);

// Splits a byte stream into frames. Feed it what arrives, then take whole
// frames with Next until it says NeedMore. Bad is final.
class FrameReader {
public:
   enum Result { NeedMore, Frame, Bad };

   void Append(const void *bytes, size_t size);
   // On Frame, *header and *payload describe the frame, valid until the
   // next Append or Next.
   Result Next(FrameHeader *header, std::string_view *payload);
   bool Empty() const { return pos_ == buf_.size(); }

private:
   std::vector<uint8_t> buf_;
   size_t pos_ = 0;
   bool bad_ = false;
};

// The sender of what one recvmsg returned, as the kernel recorded it.
struct Sender {
   int pidfd = -1;  // SCM_PIDFD (close-on-exec; the caller closes it)
   pid_t pid = -1;  // SCM_CREDENTIALS
};
// Reads from a stream socket into reader with one recvmsg; with sender
// non-null, what the kernel said of the sender is stored there. Returns the
// recvmsg result.
ssize_t RecvInto(int sock, FrameReader *reader, Sender *sender);
// Writes all of data (MSG_NOSIGNAL); false with errno on failure.
bool SendAll(int sock, std::string_view data);

// The socket path of a service; false when the name breaks the naming rule
// or the path does not fit a socket address.
bool ServiceSocketPath(const char *serviceName, std::string *out);
// Tests point listener and client at a private directory; null restores the
// build's directory.
void SetSocketDirForTesting(const char *dir);

/* ---- Allowed clients ---------------------------------------------------- */

// Why a listener has no list of allowed clients (kNoFault: it has one).
enum BundleFault {
   kNoFault,
   kNoMainBundle,
   kNoServiceDictionary,
   kNoAllowedClients,
   kAllowedClientsType,
   kCopyFailed,
};

// The requirement texts under XPCService/_AllowedClients of a bundle's
// Info.plist bytes (XML or binary). *out is set only with kNoFault; an
// entry that is not a string fails the whole list.
BundleFault AllowedClientsOf(std::string_view infoPlist, std::vector<std::string> *out);

/* ---- Peer identity ------------------------------------------------------ */

// A connected process, named by its pidfd, and the executable that it ran
// when it was admitted.
struct Peer {
   UniqueFd pidfd;
   pid_t pid = -1;
   UniqueFd procDir;  // /proc/<pid>, opened while the pidfd was alive
   UniqueFd statFd;   // its "stat", re-read for every message
   dev_t exeDev = 0;
   ino_t exeIno = 0;
   // Where the address space was laid out at admission: an exec lays it
   // out again (randomised), even for the same executable.
   std::string layout;
   // Where the kernel allows it (a root listener): the admitted address
   // space itself, which reads as empty once an exec or exit replaced it.
   UniqueFd mem;
   uint64_t codeAddress = 0;
   bool pidfs = false;  // pidfds of one process share an inode
   ino_t pidfdIno = 0;
};

enum AdmissionStatus {
   kAdmitted = 0,
   kUnidentified = 1,
   kUnsigned = 3,
   kRequirementParse = 6,
   kInvalid = 7,
};

// The pid behind a pidfd (its fdinfo), or -1 when the process has gone.
pid_t PidOfPidfd(int pidfd);
// Takes the peer's pidfd from a connected socket; false when the kernel
// cannot give one.
bool TakePeerPidfd(int sock, Peer *peer);
// Opens the peer's executable through its process and checks that the
// process is still the one behind the pidfd. Returns the executable's
// descriptor, or -1.
int OpenPeerExecutable(Peer *peer);
// True while the admitted process has not exited.
bool PeerAlive(const Peer &peer);
// True while the message's sender (the pidfd that came with it) is the
// admitted process and still runs the executable that was admitted.
bool SenderIsPeer(const Peer &peer, const Sender &sender);
// Between reading the peer's pid and opening its process, tests may stand
// in for a slow kernel or a reused pid.
using AdmissionHook = void (*)(int pidfd, pid_t *pid);
void SetAdmissionHookForTesting(AdmissionHook hook);

// The signature of the code behind exeFd, checked once; then requirements
// are evaluated against it. Nothing is logged.
class CodeIdentity {
public:
   // kAdmitted, kUnsigned or kInvalid.
   int Establish(int exeFd);
   // kAdmitted, kRequirementParse or kInvalid (or the Establish failure).
   int Check(std::string_view requirement) const;

private:
   int status_ = kUnidentified;
   codesign::Evidence evidence_;
};

}  // namespace halcyx::service

#endif  // HALCYX_CODESIGN_SERVICEINT_H
