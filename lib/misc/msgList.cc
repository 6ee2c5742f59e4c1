// SPDX-License-Identifier: MIT
/*
 * Message lists.
 *
 * Every entry has an identifier: a marked text gives its own, anything
 * else is kept as the one string argument of the literal message, so the
 * English rendering of an entry never depends on whether it was marked.
 */
#include "msgList.h"

#include <cstring>

#include "dynbuf.h"
#include "internal/unique.h"
#include "log.h"
#include "str.h"
#include "util.h"

namespace {

constexpr const char kLiteralId[] = "msg.literal";

struct Marked {
   const char *id;
   size_t idLength;
   const char *format;
};

// The identifier and format of a text that begins with a complete marker.
bool SplitMarker(const char *text, Marked *out) {
   if (strncmp(text, MSG_MAGIC, MSG_MAGIC_LEN) != 0 || text[MSG_MAGIC_LEN] != '(') {
      return false;
   }
   const char *id = text + MSG_MAGIC_LEN + 1;
   const char *close = strchr(id, ')');
   if (close == nullptr) {
      return false;
   }
   *out = {id, static_cast<size_t>(close - id), close + 1};
   return true;
}

MsgList *NewEntry(const char *id, size_t idLength, const char *format) {
   auto *m = static_cast<MsgList *>(Util_SafeCalloc(1, sizeof(MsgList)));
   m->id = Util_SafeStrndup(id, idLength);
   m->format = Util_SafeStrdup(format);
   return m;
}

// The literal message with text (owned from now on) as its argument.
MsgList *LiteralEntry(char *text) {
   MsgList *m = NewEntry(kLiteralId, sizeof kLiteralId - 1, "%s");
   m->args = static_cast<MsgFmt_Arg *>(Util_SafeCalloc(1, sizeof(MsgFmt_Arg)));
   m->args[0].type = MSGFMT_ARG_STRING8;
   m->args[0].v.string8 = text;
   m->numArgs = 1;
   return m;
}

void PushFront(MsgList **list, MsgList *entry) {
   entry->next = *list;
   *list = entry;
}

}  // namespace

MsgList *MsgList_VCreate(const char *fmt, va_list va) {
   if (fmt == nullptr) {
      return nullptr;
   }
   Marked marked;
   if (!SplitMarker(fmt, &marked)) {
      return LiteralEntry(Str_SafeVasprintf(nullptr, fmt, va));
   }
   MsgList *m = NewEntry(marked.id, marked.idLength, marked.format);
   char *error = nullptr;
   if (!MsgFmt_GetArgs(m->format, va, &m->args, &m->numArgs, &error)) {
      Panic("%s error: %s\nformat <%s>\n", "MsgList_VAppend",
            error != nullptr ? error : "MsgFmt_GetArgs: out of memory", fmt);
   }
   return m;
}

MsgList *MsgList_Create(const char *fmt, ...) {
   va_list va;
   va_start(va, fmt);
   MsgList *m = MsgList_VCreate(fmt, va);
   va_end(va);
   return m;
}

void MsgList_VAppend(MsgList **list, const char *fmt, va_list va) {
   if (list != nullptr && fmt != nullptr) {
      PushFront(list, MsgList_VCreate(fmt, va));
   }
}

void MsgList_Append(MsgList **list, const char *fmt, ...) {
   va_list va;
   va_start(va, fmt);
   MsgList_VAppend(list, fmt, va);
   va_end(va);
}

void MsgList_AppendStr(MsgList **list, const char *text) {
   if (list == nullptr || text == nullptr) {
      return;
   }
   Marked marked;
   PushFront(list, SplitMarker(text, &marked)
                      ? NewEntry(marked.id, marked.idLength, marked.format)
                      : LiteralEntry(Util_SafeStrdup(text)));
}

MsgList *MsgList_Copy(const MsgList *list) {
   MsgList *head = nullptr;
   MsgList **tail = &head;
   for (const MsgList *m = list; m != nullptr; m = m->next) {
      MsgList *copy = NewEntry(m->id, strlen(m->id), m->format);
      copy->args = MsgFmt_CopyArgs(m->args, m->numArgs);
      copy->numArgs = copy->args == nullptr ? 0 : m->numArgs;
      *tail = copy;
      tail = &copy->next;
   }
   return head;
}

void MsgList_Free(MsgList *list) {
   halcyx::ErrnoSaver keepErrno;
   while (list != nullptr) {
      MsgList *next = list->next;
      free(list->id);
      free(list->format);
      MsgFmt_FreeArgs(list->args, list->numArgs);
      free(list);
      list = next;
   }
}

void MsgList_AppendMsgList(MsgList **list, MsgList *other) {
   if (list == nullptr) {
      MsgList_Free(other);
      return;
   }
   if (other == nullptr) {
      return;
   }
   MsgList *tail = other;
   while (tail->next != nullptr) {
      tail = tail->next;
   }
   tail->next = *list;
   *list = other;
}

const char *MsgList_GetMsgID(const MsgList *list) {
   if (list == nullptr) {
      return nullptr;
   }
   while (list->next != nullptr) {
      list = list->next;
   }
   return list->id;
}

namespace {

// The English text of one entry. A format that its own arguments cannot
// fill (only possible for texts pushed whole) is shown as it stands.
char *EntryText(const MsgList *m, size_t *length) {
   char *text = MsgFmt_Asprintf(length, m->format, m->args, m->numArgs);
   if (text == nullptr) {
      text = Util_SafeStrdup(m->format);
      *length = strlen(text);
   }
   return text;
}

bool EndsInNewline(const char *text, size_t length) {
   return length > 0 && text[length - 1] == '\n';
}

}  // namespace

char *MsgList_ToEnglishString(const MsgList *list) {
   if (list == nullptr) {
      return nullptr;
   }
   DynBuf out;
   DynBuf_Init(&out);
   for (const MsgList *m = list; m != nullptr; m = m->next) {
      size_t length;
      halcyx::UniqueCStr text(EntryText(m, &length));
      DynBuf_SafeAppend(&out, text.get(), length);
      if (!EndsInNewline(text.get(), length)) {
         DynBuf_SafeAppend(&out, "\n", 1);
      }
   }
   return DynBuf_DetachString(&out);
}

void MsgList_Log(const MsgList *list) {
   for (const MsgList *m = list; m != nullptr; m = m->next) {
      size_t length;
      halcyx::UniqueCStr text(EntryText(m, &length));
      Log("[%s] %s%s", m->id, text.get(), EndsInNewline(text.get(), length) ? "" : "\n");
   }
}
