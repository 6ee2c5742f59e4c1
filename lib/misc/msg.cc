// SPDX-License-Identifier: MIT
/*
 * The pending user message: a list kept oldest first with a tail pointer,
 * so appending does not walk it. The state needs no allocation and no
 * construction at run time, so no call here can fail for want of memory.
 */
#include "msg.h"

#include <mutex>

namespace {

struct PendingMessage {
   std::mutex lock;
   MsgList *head = nullptr;
   MsgList **tail = &head;
};

// Never destroyed (nothing to destroy), so a thread still appending while
// the process exits finds it intact.
constinit PendingMessage gPending;

PendingMessage &Pending() { return gPending; }

}  // namespace

void Msg_Append(const char *fmt, ...) {
   va_list va;
   va_start(va, fmt);
   MsgList *m = MsgList_VCreate(fmt, va);
   va_end(va);
   if (m == nullptr) {
      return;
   }
   PendingMessage &state = Pending();
   std::lock_guard<std::mutex> hold(state.lock);
   *state.tail = m;
   state.tail = &m->next;
}

MsgList *Msg_GetMsgListAndReset(void) {
   PendingMessage &state = Pending();
   std::lock_guard<std::mutex> hold(state.lock);
   MsgList *list = state.head;
   state.head = nullptr;
   state.tail = &state.head;
   return list;
}
