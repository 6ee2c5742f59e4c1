// SPDX-License-Identifier: MIT
// Message lists, the pending user message and the error-number texts.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "child.h"
#include "err.h"
#include "msg.h"
#include "msgList.h"

using halcyx::test::LogEntries;
using halcyx::test::RunInChild;

namespace {

std::string English(const MsgList *list) {
   char *text = MsgList_ToEnglishString(list);
   std::string s = text == nullptr ? "<null>" : text;
   free(text);
   return s;
}

TEST(MsgListMarker, IdentifierAndFormat) {
   struct Case { const char *text, *id, *format, *english; } cases[] = {
      {"@&!*@*@(a.b)Hello", "a.b", "Hello", "Hello\n"},
      {"@&!*@*@(a.bHello", "msg.literal", "%s", "@&!*@*@(a.bHello\n"},
      {"@&!*@*@a.b)Hello", "msg.literal", "%s", "@&!*@*@a.b)Hello\n"},
      {"plain 100%\n", "msg.literal", "%s", "plain 100%\n"},
      {"@&!*@*@()x) y", "", "x) y", "x) y\n"},
   };
   for (const Case &c : cases) {
      MsgList *list = nullptr;
      MsgList_AppendStr(&list, c.text);
      ASSERT_NE(list, nullptr);
      EXPECT_STREQ(list->id, c.id) << c.text;
      EXPECT_STREQ(list->format, c.format) << c.text;
      EXPECT_EQ(English(list), c.english) << c.text;
      MsgList_Free(list);
   }
}

TEST(MsgListOrder, NewestFirstAndRootCauseLast) {
   MsgList *list = nullptr;
   EXPECT_EQ(MsgList_GetMsgID(list), nullptr);
   EXPECT_EQ(English(list), "<null>");
   MsgList_Append(&list, "@&!*@*@(m.root)A %d of %s", 1, "two");
   MsgList_Append(&list, "unmarked %s\n", "B");
   MsgList_AppendStr(&list, "@&!*@*@(m.top)C");
   EXPECT_EQ(English(list), "C\nunmarked B\nA 1 of two\n");
   EXPECT_STREQ(MsgList_GetMsgID(list), "m.root");

   MsgList *copy = MsgList_Copy(list);
   MsgList_Free(list);
   EXPECT_EQ(English(copy), "C\nunmarked B\nA 1 of two\n");

   MsgList *front = MsgList_Create("@&!*@*@(m.e)E");
   MsgList_Append(&front, "@&!*@*@(m.f)F");
   MsgList_AppendMsgList(&copy, front);
   EXPECT_EQ(English(copy), "F\nE\nC\nunmarked B\nA 1 of two\n");
   EXPECT_STREQ(MsgList_GetMsgID(copy), "m.root");

   MsgList_AppendMsgList(nullptr, MsgList_Create("freed"));  // no leak
   MsgList_AppendMsgList(&copy, nullptr);
   MsgList_Append(nullptr, "ignored %d", 1);
   MsgList_Free(copy);

   MsgList *empty = nullptr;
   MsgList_AppendMsgList(&empty, MsgList_Create("only"));
   EXPECT_EQ(English(empty), "only\n");
   MsgList_Free(empty);
}

TEST(MsgListLog, OneLinePerEntryAndFatalCapture) {
   auto r = RunInChild([] {
      MsgList *list = MsgList_Create("@&!*@*@(m.a)first\n");
      MsgList_Append(&list, "@&!*@*@(m.b)second %d", 2);
      MsgList_Log(list);
      MsgList_Free(list);
   });
   EXPECT_EQ(r.ExitCode(), 0);
   EXPECT_EQ(LogEntries(r.out), (std::vector<std::string>{"[m.b] second 2\n", "[m.a] first\n"}));

   r = RunInChild([] {
      MsgList *list = nullptr;
      const char *gap = "@&!*@*@(m.x)%2$s";  // not a literal: the compiler would refuse it
      MsgList_Append(&list, gap, "a", "b");
   });
   EXPECT_EQ(r.ExitCode(), 1);
   EXPECT_EQ(LogEntries(r.out),
             std::vector<std::string>{"Panic: MsgList_VAppend error: MsgFmt_GetArgs: gap in "
                                      "arguments at position 1\nformat <@&!*@*@(m.x)%2$s>\n"});
}

TEST(MsgPending, KeepsAppendOrderUntilTaken) {
   EXPECT_EQ(Msg_GetMsgListAndReset(), nullptr);
   Msg_Append("@&!*@*@(m.one)one");
   Msg_Append("two %s", Err_Errno2String(ENOENT));
   MsgList *pending = Msg_GetMsgListAndReset();
   EXPECT_EQ(English(pending), "one\ntwo " + std::string(Err_Errno2String(ENOENT)) + "\n");
   EXPECT_EQ(Msg_GetMsgListAndReset(), nullptr);
   MsgList_Free(pending);
   Msg_Append("again");
   pending = Msg_GetMsgListAndReset();
   EXPECT_EQ(English(pending), "again\n");
   MsgList_Free(pending);
}

TEST(ErrTexts, StableTextsTranslateBack) {
   errno = 77;
   const char *enoent = Err_Errno2String(ENOENT);
   EXPECT_EQ(errno, 77);
   EXPECT_STREQ(enoent, strerror(ENOENT));
   EXPECT_EQ(Err_Errno2String(ENOENT), enoent);
   EXPECT_EQ(Err_String2Errno(enoent), ENOENT);
   EXPECT_EQ(errno, 77);

   std::string copy = enoent;
   EXPECT_EQ(Err_String2Errno(copy.c_str()), -1);
   EXPECT_EQ(Err_String2Errno(nullptr), -1);

   for (int unknown : {123456, -3}) {
      const char *text = Err_Errno2String(unknown);
      EXPECT_EQ(std::string(text), "Unknown error " + std::to_string(unknown));
      EXPECT_EQ(Err_String2Errno(text), unknown);
   }
   errno = EACCES;
   EXPECT_EQ(Err_ErrString(), Err_Errno2String(EACCES));
   EXPECT_EQ(errno, EACCES);
}

TEST(ErrTexts, RacingFirstCallersShareOneText) {
   constexpr int kThreads = 8;
   constexpr int kNumbers = 64;
   std::vector<std::vector<const char *>> seen(kThreads);
   {
      std::vector<std::jthread> threads;
      for (int t = 0; t < kThreads; t++) {
         threads.emplace_back([&seen, t] {
            for (int n = 0; n < kNumbers; n++) {
               const char *text = Err_Errno2String(1000 + n);
               EXPECT_EQ(Err_String2Errno(text), 1000 + n);
               seen[t].push_back(text);
            }
         });
      }
   }
   for (int t = 1; t < kThreads; t++) EXPECT_EQ(seen[t], seen[0]);
}

}  // namespace
