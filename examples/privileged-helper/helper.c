// SPDX-License-Identifier: MIT
/*
 * An example privileged helper: it serves "com.zorvex.halcyx.example-helper"
 * and answers the request { request = "whoami" } with the pid of the
 * admitted caller and the user IDs the helper runs under. Anything else is
 * answered with { error = "unknown request" }.
 *
 * The helper admits only the programs that its bundle's Info.plist lists
 * under XPCService / _AllowedClients, so run it from its bundle:
 *    sudo ExampleHelper.bundle/Contents/MacOS/example-helper
 * (as root, since the socket goes to the build's service-socket directory)
 * and then, as any user, the signed sample client:
 *    example-client
 */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "privilegedService.h"

static void
Answer(void *context, PrivilegedServiceMessage *message)
{
   plist_t request = plist_dict_get_item(PrivilegedServiceMessage_GetDictionary(message),
                                         "request");
   const char *name = PLIST_IS_STRING(request) ? plist_get_string_ptr(request, NULL) : NULL;
   plist_t reply = plist_new_dict();

   (void)context;
   if (name && strcmp(name, "whoami") == 0) {
      plist_dict_set_item(reply, "callerPid",
                          plist_new_uint((uint64_t)PrivilegedServiceMessage_GetPeerPid(message)));
      plist_dict_set_item(reply, "helperUid", plist_new_uint((uint64_t)getuid()));
      plist_dict_set_item(reply, "helperEuid", plist_new_uint((uint64_t)geteuid()));
   } else {
      plist_dict_set_item(reply, "error", plist_new_string("unknown request"));
   }
   PrivilegedServiceMessage_Reply(message, reply);
   plist_free(reply);
}

int
main(void)
{
   PrivilegedXPCMachService_Main("com.zorvex.halcyx.example-helper", Answer, NULL);
}
