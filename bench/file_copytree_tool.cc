// SPDX-License-Identifier: MIT
// file_copytree_tool SRC DST: creates DST and copies the tree SRC into it
// with File_CopyTree (overwriting, links recreated), as a whole process so
// that it can be timed side by side with other copy programs.
#include <cstdio>
#include <sys/stat.h>

#include "file.h"
#include "msg.h"
#include "msgList.h"

int main(int argc, char **argv) {
   if (argc != 3) {
      fprintf(stderr, "usage: %s SRC DST\n", argv[0]);
      return 2;
   }
   if (mkdir(argv[2], 0755) != 0) {
      perror(argv[2]);
      return 1;
   }
   if (!File_CopyTree(argv[1], argv[2], true, false)) {
      MsgList_Log(Msg_GetMsgListAndReset());
      return 1;
   }
   return 0;
}
