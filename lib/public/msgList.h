// SPDX-License-Identifier: MIT
/*
 * Message lists: user-visible errors kept as message identifier, English
 * format and captured arguments, so that they can be logged in English now
 * and localised later.
 *
 * A message text may begin with the marker "@&!*@*@(" ID ")" followed by
 * the English format, e.g. "@&!*@*@(msg.fileio.lock)Failed to lock %s".
 * Text without a marker, or whose marker has no ")", has no identifier of
 * its own: it is kept as the argument of "@&!*@*@(msg.literal)%s" (after
 * formatting, for the variadic forms).
 *
 * A list is singly linked with the NEWEST message at its head; the oldest,
 * at its tail, is the root cause. A list belongs to one caller and is not
 * locked. Every allocation failure here is fatal.
 *
 *    MsgList *msgs = NULL;
 *    MsgList_Append(&msgs, "@&!*@*@(msg.x.open)Cannot open %s: %s\n",
 *                   path, Err_Errno2String(errno));
 *    char *text = MsgList_ToEnglishString(msgs);
 *    MsgList_Free(msgs);
 */
#ifndef HALCYX_MSGLIST_H
#define HALCYX_MSGLIST_H

#include "halcyx_base.h"
#include "msgfmt.h"

HALCYX_EXTERN_C_BEGIN

#define MSG_MAGIC "@&!*@*@"
#define MSG_MAGIC_LEN 7

typedef struct MsgList {
   struct MsgList *next; /* older entries */
   char *id;             /* identifier, without parentheses */
   char *format;         /* English format */
   MsgFmt_Arg *args;     /* captured arguments */
   int numArgs;
} MsgList;

/*
 * Pushes a new message at the head of *list. A null list pointer or a null
 * format does nothing. A format whose arguments cannot be captured ends
 * the process ("MsgList_VAppend error: ...").
 */
void MsgList_Append(MsgList **list, const char *fmt, ...) HALCYX_PRINTF(2, 3);
void MsgList_VAppend(MsgList **list, const char *fmt, va_list va);

/* Pushes text as a message without arguments ("%" is taken literally only
 * when text has no marker). Null list or text does nothing. */
void MsgList_AppendStr(MsgList **list, const char *text);

/* A new one-entry list; null for a null format. */
MsgList *MsgList_Create(const char *fmt, ...) HALCYX_PRINTF(1, 2);
MsgList *MsgList_VCreate(const char *fmt, va_list va);

/* A deep copy in the same order; null for null. */
MsgList *MsgList_Copy(const MsgList *list);

/* Frees every entry; null is ignored. */
void MsgList_Free(MsgList *list);

/*
 * Puts other in front of *list (its tail linked to the old head) and gives
 * *list to it. With a null list pointer other is freed.
 */
void MsgList_AppendMsgList(MsgList **list, MsgList *other);

/* The identifier of the oldest entry (the root cause); null for null. */
const char *MsgList_GetMsgID(const MsgList *list);

/*
 * Every entry formatted in English, newest first, each ended by one
 * newline (none added when it already ends in one). Null for an empty
 * list. The caller frees the result.
 */
char *MsgList_ToEnglishString(const MsgList *list);

/* One log line per entry, newest first: "[ID] text". */
void MsgList_Log(const MsgList *list);

HALCYX_EXTERN_C_END

#endif /* HALCYX_MSGLIST_H */
