// SPDX-License-Identifier: MIT
/*
 * The process's pending user message: messages collected for the user
 * while an operation runs, kept in the order they were appended (unlike a
 * MsgList, whose head is the newest), until someone takes them.
 *
 *    Msg_Append("@&!*@*@(msg.x.cwd)Cannot get the current directory\n");
 *    ...
 *    MsgList *pending = Msg_GetMsgListAndReset();   // oldest first
 *    MsgList_Free(pending);
 *
 * Safe to call from any thread.
 */
#ifndef HALCYX_MSG_H
#define HALCYX_MSG_H

#include "halcyx_base.h"
#include "msgList.h"

HALCYX_EXTERN_C_BEGIN

/* Adds one message (see MsgList_Append for the marker) at the end. */
void Msg_Append(const char *fmt, ...) HALCYX_PRINTF(1, 2);

/* Hands the pending messages to the caller, oldest first (null when
 * none), and leaves none pending. */
MsgList *Msg_GetMsgListAndReset(void);

HALCYX_EXTERN_C_END

#endif /* HALCYX_MSG_H */
