// SPDX-License-Identifier: MIT
// The listener under test: copied into a bundle by the tests and run as
//    test_listener SOCKET_DIR SERVICE_NAME
// It answers every message with a copy of it plus "peer" (the sender's pid),
// after sleeping "sleepMs" milliseconds when the message asks for it.
// Before each admission it reads SOCKET_DIR/hook: "delay" stalls 300 ms,
// "exit" waits for the peer to exit, "reuse" waits for that and then hands
// over the listener's own pid, as if the peer's pid had been reused.
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <unistd.h>

#include "privilegedService.h"
#include "serviceInt.h"

namespace {

std::string gHookFile;

void Hook(int pidfd, pid_t *pid) {
   char mode[16] = {};
   int fd = open(gHookFile.c_str(), O_RDONLY | O_CLOEXEC);
   if (fd >= 0) {
      (void)!read(fd, mode, sizeof mode - 1);
      close(fd);
   }
   if (strncmp(mode, "delay", 5) == 0) {
      usleep(300 * 1000);
   } else if (strncmp(mode, "exit", 4) == 0 || strncmp(mode, "reuse", 5) == 0) {
      struct pollfd p = {pidfd, POLLIN, 0};
      poll(&p, 1, 5000);
      if (mode[0] == 'r') {
         *pid = getpid();
      }
   }
}

void Answer(void *, PrivilegedServiceMessage *message) {
   plist_t dict = PrivilegedServiceMessage_GetDictionary(message);
   uint64_t ms = 0;
   plist_t sleep = plist_dict_get_item(dict, "sleepMs");
   if (sleep) {
      plist_get_uint_val(sleep, &ms);
      usleep(static_cast<useconds_t>(ms * 1000));
   }
   plist_t reply = plist_copy(dict);
   plist_dict_set_item(reply, "peer",
                       plist_new_uint(static_cast<uint64_t>(PrivilegedServiceMessage_GetPeerPid(message))));
   PrivilegedServiceMessage_Reply(message, reply);
   plist_free(reply);
}

}  // namespace

int main(int argc, char **argv) {
   if (argc != 3) {
      fprintf(stderr, "usage: test_listener SOCKET_DIR SERVICE_NAME\n");
      return 2;
   }
   setvbuf(stdout, nullptr, _IONBF, 0);
   gHookFile = std::string(argv[1]) + "/hook";
   halcyx::service::SetSocketDirForTesting(argv[1]);
   halcyx::service::SetAdmissionHookForTesting(Hook);
   PrivilegedXPCMachService_Main(argv[2], Answer, nullptr);
}
