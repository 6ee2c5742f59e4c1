// SPDX-License-Identifier: MIT
/*
 * The sample client of the example helper: asks it "whoami" and prints the
 * answer as an XML property list. Exit status 0 on an answer, 1 when the
 * helper is not running, refuses this program or does not answer in time.
 */
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "privilegedService.h"

int
main(void)
{
   PrivilegedServiceClient *client =
      PrivilegedServiceClient_Connect("com.zorvex.halcyx.example-helper", 5000);
   plist_t request;
   plist_t reply = NULL;
   char *xml = NULL;
   uint32_t length = 0;

   if (!client) {
      fprintf(stderr, "example-client: the helper is not running or refused us (%s)\n",
              strerror(errno));
      return 1;
   }
   request = plist_new_dict();
   plist_dict_set_item(request, "request", plist_new_string("whoami"));
   if (!PrivilegedServiceClient_Send(client, request, &reply, 5000)) {
      fprintf(stderr, "example-client: no answer (%s)\n", strerror(errno));
      plist_free(request);
      PrivilegedServiceClient_Close(client);
      return 1;
   }
   plist_to_xml(reply, &xml, &length);
   fwrite(xml, 1, length, stdout);
   plist_to_xml_free(xml);
   plist_free(reply);
   plist_free(request);
   PrivilegedServiceClient_Close(client);
   return 0;
}
