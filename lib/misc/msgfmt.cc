// SPDX-License-Identifier: MIT
/*
 * Message argument formats.
 *
 * Everything here is driven by one walk over the format (MsgFmt_Parse, a
 * four-state scanner: text, after "%", position digits, specification
 * body) and one classification of a specification body into an argument
 * type (ClassifySpec). Capture and formatting are both callbacks of the
 * walk and share that classification, so a format that captures is a
 * format that formats again.
 *
 * Capture first records the type of every position (refusing conflicts),
 * then checks that no position is left out, then reads the values from the
 * va_list in position order, which is the order the caller pushed them.
 * Only then are strings copied, either to the heap one by one or laid out
 * in a caller's buffer. Positions are bounded by the format's length (no
 * format of n bytes can use more than n/2 positions without a gap): larger
 * ones are kept in a small table of their own, only to find conflicting
 * types, so no format makes capture allocate more than its own size allows.
 */
#include "msgfmt.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <cwchar>

#include "convertutf.h"
#include "dynbuf.h"
#include "err.h"
#include "internal/alloc.h"
#include "internal/fatal.h"
#include "internal/unique.h"
#include "str.h"
#include "util.h"

namespace {

constexpr const char *kModulePath = "lib/misc/msgfmt";

constexpr bool Contains(const char *set, unsigned char c) {
   for (; *set != '\0'; set++) {
      if (static_cast<unsigned char>(*set) == c) {
         return true;
      }
   }
   return false;
}

// Characters of a specification body before its conversion character.
constexpr bool IsBodyChar(unsigned char c) {
   return (c >= '0' && c <= '9') || Contains(" #'+-ILZhjlqtz.", c);
}

// A specification ends at the first character that is neither a body
// character nor outside the printable range below "{"; capture then refuses
// the conversions it does not understand with a message of its own.
constexpr bool IsConversion(unsigned char c) { return c >= ' ' && c <= 'z'; }

int EmitLiteral(MsgFmt_LitFunc *litFunc, void *clientData, const char *start,
                const char *end) {
   return litFunc != nullptr && end > start
             ? litFunc(clientData, start, static_cast<size_t>(end - start))
             : MSGFMT_OK;
}

// Decimal digits at *p (advanced past them) as a position; -1 on overflow.
int ReadPosition(const char *&p) {
   long value = 0;
   for (; *p >= '0' && *p <= '9'; p++) {
      value = value * 10 + (*p - '0');
      if (value > INT_MAX) {
         return -1;
      }
   }
   return static_cast<int>(value);
}

/*
 * What a specification body asks for: an argument type, or why it cannot
 * be captured. prefix is the size character that makes the conversion
 * unsupported, for the "not supported" message.
 */
enum class SpecProblem { kNone, kPercentN, kUnsupportedSize, kNotUnderstood };

struct SpecClass {
   MsgFmt_ArgType type;
   SpecProblem problem;
   char prefix;
};

// Size prefixes that matter for capture, the way the engine reads them.
enum class SizeKind { kNone, kShort, kLong, kLongLong, kWide64 };

/*
 * The size prefixes of a body, read as the formatting engine reads them:
 * each prefix replaces the class chosen so far ("hh" and "ll" being the
 * second "h" or "l" in a row), except that once an "L" or "q" has been
 * seen a floating-point argument is a long double, whatever follows.
 */
struct BodySize {
   SizeKind size = SizeKind::kNone;
   char sizeChar = '\0';        // the prefix that chose size
   char longDoubleChar = '\0';  // "L" or "q" when one was seen
};

BodySize ReadBodySize(const char *type, size_t length) {
   BodySize body;
   for (size_t i = 0; i < length; i++) {
      char c = type[i];
      switch (c) {
      case 'h':
         body.size = SizeKind::kShort;
         break;
      case 'l':
         body.size = body.size == SizeKind::kLong ? SizeKind::kLongLong : SizeKind::kLong;
         break;
      case 'L':
      case 'q':
         body.size = SizeKind::kLongLong;
         body.longDoubleChar = c;
         break;
      case 'j':
      case 't':
      case 'z':
      case 'Z':
         body.size = SizeKind::kWide64;
         break;
      case 'I':
         if (i + 2 < length && type[i + 1] == '6' && type[i + 2] == '4') {
            body.size = SizeKind::kLongLong;
            i += 2;
         } else if (i + 2 < length && type[i + 1] == '3' && type[i + 2] == '2') {
            body.size = SizeKind::kNone;
            i += 2;
         } else {
            body.size = SizeKind::kWide64;
         }
         break;
      default:
         continue;
      }
      body.sizeChar = c;
   }
   return body;
}

SpecClass ClassifySpec(const char *type, size_t length) {
   char conversion = type[length - 1];
   BodySize body = ReadBodySize(type, length - 1);
   SizeKind size = body.size;
   auto ok = [](MsgFmt_ArgType t) { return SpecClass{t, SpecProblem::kNone, '\0'}; };
   auto unsupported = [](char prefix) {
      return SpecClass{MSGFMT_ARG_INVALID, SpecProblem::kUnsupportedSize, prefix};
   };

   switch (conversion) {
   case 'd':
   case 'i':
   case 'o':
   case 'u':
   case 'x':
   case 'X':
      return ok(size == SizeKind::kNone || size == SizeKind::kShort ? MSGFMT_ARG_INT32
                                                                    : MSGFMT_ARG_INT64);
   case 'D':
   case 'O':
   case 'U':
      return ok(MSGFMT_ARG_INT64);
   case 'c':
   case 'C':
      return ok(MSGFMT_ARG_INT32);
   case 's':
      if (size == SizeKind::kNone || size == SizeKind::kShort) {
         return ok(MSGFMT_ARG_STRING8);
      }
      return size == SizeKind::kLong ? ok(MSGFMT_ARG_STRING32) : unsupported(body.sizeChar);
   case 'S':
      return size == SizeKind::kNone || size == SizeKind::kLong ? ok(MSGFMT_ARG_STRING32)
                                                                : unsupported(body.sizeChar);
   case 'p':
      return ok(sizeof(void *) == 8 ? MSGFMT_ARG_PTR64 : MSGFMT_ARG_PTR32);
   case 'e':
   case 'E':
   case 'f':
   case 'F':
   case 'g':
   case 'G':
      // A long double cannot be kept in a captured argument.
      if (body.longDoubleChar != '\0') {
         return unsupported(body.longDoubleChar);
      }
      return size == SizeKind::kNone || size == SizeKind::kLong ? ok(MSGFMT_ARG_FLOAT64)
                                                                : unsupported(body.sizeChar);
   case 'n':
      return {MSGFMT_ARG_INVALID, SpecProblem::kPercentN, '\0'};
   default:
      return {MSGFMT_ARG_INVALID, SpecProblem::kNotUnderstood, '\0'};
   }
}

/*
 * The types of positions above the capture limit, by open addressing. Such
 * positions make the capture fail with a gap, but a conflict among their
 * specifications is found first, as it is for any other position; the
 * table holds one slot per distinct position, so it stays within the
 * format's size whatever numbers the format names.
 */
struct SparseTypes {
   struct Slot {
      int position;  // 0 for a free slot
      int32_t type;
   };
   Slot *slots = nullptr;
   size_t capacity = 0;  // 0 or a power of two
   size_t used = 0;

   ~SparseTypes() { free(slots); }

   // The type slot of position (0 when new), or null when memory runs out.
   int32_t *Find(int position) {
      if (2 * (used + 1) > capacity && !Grow()) {
         return nullptr;
      }
      Slot &slot = Probe(slots, capacity, position);
      if (slot.position == 0) {
         slot = {position, MSGFMT_ARG_INVALID};
         used++;
      }
      return &slot.type;
   }

private:
   static Slot &Probe(Slot *table, size_t size, int position) {
      size_t i = (static_cast<size_t>(position) * 0x9E3779B1u) & (size - 1);
      while (table[i].position != 0 && table[i].position != position) {
         i = (i + 1) & (size - 1);
      }
      return table[i];
   }

   bool Grow() {
      size_t newCapacity = capacity == 0 ? 16 : 2 * capacity;
      auto *grown = static_cast<Slot *>(halcyx::Malloc(newCapacity * sizeof(Slot)));
      if (grown == nullptr) {
         return false;
      }
      memset(grown, 0, newCapacity * sizeof(Slot));
      for (size_t i = 0; i < capacity; i++) {
         if (slots[i].position != 0) {
            Probe(grown, newCapacity, slots[i].position) = slots[i];
         }
      }
      free(slots);
      slots = grown;
      capacity = newCapacity;
      return true;
   }
};

/*
 * Capture state. args[i] holds the type of position i + 1 (0 while no
 * specification uses it) and, after the values are read, its value.
 */
struct Capture {
   MsgFmt_Arg *args = nullptr;
   int capacity = 0;
   int maxPosition = 0;
   int positionLimit = 0;  // positions above it are certain gaps
   SparseTypes beyondLimit;  // the types of such positions
   char error[512] = "";

   ~Capture() { free(args); }

   void SetError(const char *format, ...) HALCYX_PRINTF(2, 3) {
      va_list ap;
      va_start(ap, format);
      Str_Vsnprintf(error, sizeof error, format, ap);
      va_end(ap);
   }

   bool Grow(int position) {
      if (position <= capacity) {
         return true;
      }
      int newCapacity = position < 2 * capacity ? 2 * capacity : position;
      auto *grown = static_cast<MsgFmt_Arg *>(
         halcyx::Realloc(args, static_cast<size_t>(newCapacity) * sizeof(MsgFmt_Arg)));
      if (grown == nullptr) {
         return false;
      }
      memset(grown + capacity, 0, static_cast<size_t>(newCapacity - capacity) * sizeof *grown);
      args = grown;
      capacity = newCapacity;
      return true;
   }
};

int MsgFmtGetArg1(void *clientData, int position, const char *pos, size_t posLength,
                  const char *type, size_t typeLength) {
   auto *state = static_cast<Capture *>(clientData);
   int posLen = static_cast<int>(posLength);
   int typeLen = static_cast<int>(typeLength);
   SpecClass spec = ClassifySpec(type, typeLength);
   char conversion = type[typeLength - 1];

   switch (spec.problem) {
   case SpecProblem::kNone:
      break;
   case SpecProblem::kPercentN:
      state->SetError("MsgFmtGetArg1: %%n not supported, pos \"%.*s\", type \"%.*s\"", posLen,
                      pos, typeLen, type);
      return MSGFMT_BAD_FORMAT;
   case SpecProblem::kUnsupportedSize:
      state->SetError("MsgFmtGetArg1: %%%c%c not supported, pos \"%.*s\", type \"%.*s\"",
                      spec.prefix, conversion, posLen, pos, typeLen, type);
      return MSGFMT_BAD_FORMAT;
   case SpecProblem::kNotUnderstood:
      state->SetError("MsgFmtGetArg1: %%%c not understood, pos \"%.*s\", type \"%.*s\"",
                      conversion, posLen, pos, typeLen, type);
      return MSGFMT_BAD_FORMAT;
   }

   int32_t *known;
   if (position > state->positionLimit) {
      known = state->beyondLimit.Find(position);
   } else {
      known = state->Grow(position) ? &state->args[position - 1].type : nullptr;
   }
   if (known == nullptr) {
      return MSGFMT_NO_MEMORY;
   }
   if (*known != MSGFMT_ARG_INVALID && *known != spec.type) {
      state->SetError("MsgFmtGetArg1: incompatible specifiers for argument %d, old type %d, "
                      "new type %d, pos \"%.*s\", type \"%.*s\"",
                      position, *known, spec.type, posLen, pos, typeLen, type);
      return MSGFMT_BAD_FORMAT;
   }
   *known = spec.type;
   if (position <= state->positionLimit && position > state->maxPosition) {
      state->maxPosition = position;
   }
   return MSGFMT_OK;
}

// The first position no specification uses, or 0.
int FirstGap(const Capture &state) {
   for (int i = 0; i < state.maxPosition; i++) {
      if (state.args[i].type == MSGFMT_ARG_INVALID) {
         return i + 1;
      }
   }
   return state.beyondLimit.used != 0 ? state.maxPosition + 1 : 0;
}

void ReadValues(MsgFmt_Arg *args, int numArgs, va_list va) {
   for (int i = 0; i < numArgs; i++) {
      MsgFmt_Arg &a = args[i];
      switch (a.type) {
      case MSGFMT_ARG_INT32:
         a.v.signed32 = va_arg(va, int32_t);
         break;
      case MSGFMT_ARG_INT64:
         a.v.signed64 = va_arg(va, int64_t);
         break;
      case MSGFMT_ARG_PTR32:
         a.v.ptr32 = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(va_arg(va, void *)));
         break;
      case MSGFMT_ARG_PTR64:
         a.v.ptr64 = reinterpret_cast<uintptr_t>(va_arg(va, void *));
         break;
      case MSGFMT_ARG_FLOAT64:
         a.v.float64 = va_arg(va, double);
         break;
      case MSGFMT_ARG_STRING8:
         a.v.string8 = va_arg(va, char *);
         break;
      case MSGFMT_ARG_STRING32:
         a.v.string32 = va_arg(va, wchar_t *);
         break;
      default:
         halcyx::PanicNotReached(kModulePath, __LINE__);
      }
   }
}

size_t Utf16Length(const uint16_t *s) {
   size_t n = 0;
   while (s[n] != 0) {
      n++;
   }
   return n;
}

// Bytes of the string an argument points to, terminator included; 0 for
// arguments that hold no string.
size_t StringBytes(const MsgFmt_Arg &a) {
   switch (a.type) {
   case MSGFMT_ARG_STRING8:
   case MSGFMT_ARG_ERRNO:
      return a.v.string8 == nullptr ? 0 : strlen(a.v.string8) + 1;
   case MSGFMT_ARG_STRING16:
      return a.v.string16 == nullptr ? 0 : (Utf16Length(a.v.string16) + 1) * sizeof(uint16_t);
   case MSGFMT_ARG_STRING32:
      return a.v.string32 == nullptr ? 0 : (wcslen(a.v.string32) + 1) * sizeof(wchar_t);
   default:
      return 0;
   }
}

void *&StringSlot(MsgFmt_Arg &a) { return reinterpret_cast<void *&>(a.v.string8); }

constexpr size_t AlignUp(size_t n) {
   return (n + alignof(MsgFmt_Arg) - 1) & ~(alignof(MsgFmt_Arg) - 1);
}

// Replaces every string pointer of args with a heap copy. False, with
// every copy made so far freed and args as they were, when memory runs out.
bool CopyStringsToHeap(MsgFmt_Arg *args, int numArgs) {
   for (int i = 0; i < numArgs; i++) {
      size_t bytes = StringBytes(args[i]);
      if (bytes == 0) {
         continue;
      }
      void *copy = halcyx::Malloc(bytes);
      if (copy == nullptr) {
         while (--i >= 0) {
            if (StringBytes(args[i]) != 0) {
               free(StringSlot(args[i]));
            }
         }
         return false;
      }
      StringSlot(args[i]) = memcpy(copy, StringSlot(args[i]), bytes);
   }
   return true;
}

// Lays the array and its strings out in buf; *used gets the bytes taken.
MsgFmt_Arg *LayOut(const MsgFmt_Arg *args, int numArgs, void *buf, size_t *used) {
   auto base = reinterpret_cast<uintptr_t>(buf);
   size_t offset = AlignUp(base) - base;
   auto *out = reinterpret_cast<MsgFmt_Arg *>(static_cast<char *>(buf) + offset);
   memcpy(out, args, static_cast<size_t>(numArgs) * sizeof *out);
   offset += AlignUp(static_cast<size_t>(numArgs) * sizeof *out);
   for (int i = 0; i < numArgs; i++) {
      size_t bytes = StringBytes(out[i]);
      if (bytes != 0) {
         StringSlot(out[i]) = memcpy(static_cast<char *>(buf) + offset, StringSlot(out[i]), bytes);
         offset += AlignUp(bytes);
      }
   }
   *used = offset;
   return out;
}

void ReportError(char **error, const char *text) {
   if (error != nullptr) {
      *error = strdup(text);
   }
}

}  // namespace

int MsgFmt_Parse(MsgFmt_LitFunc *litFunc, MsgFmt_SpecFunc *specFunc, void *clientData,
                 const char *fmt) {
   enum class State { kText, kPercent, kPosition, kBody };
   enum class Mode { kUnknown, kPositional, kSequential };

   if (fmt == nullptr) {
      return MSGFMT_BAD_FORMAT;
   }
   State state = State::kText;
   Mode mode = Mode::kUnknown;
   const char *text = fmt;     // start of the pending literal stretch
   const char *posStart = nullptr;
   const char *posEnd = nullptr;
   const char *body = nullptr;
   int sequence = 0;
   const char *p = fmt;

   for (;;) {
      unsigned char c = static_cast<unsigned char>(*p);
      switch (state) {
      case State::kText:
         if (c == '\0' || c == '%') {
            int rc = EmitLiteral(litFunc, clientData, text, p);
            if (rc != MSGFMT_OK || c == '\0') {
               return rc;
            }
            state = State::kPercent;
         }
         p++;
         continue;

      case State::kPercent:
         if (c == '%') {
            int rc = EmitLiteral(litFunc, clientData, p, p + 1);
            if (rc != MSGFMT_OK) {
               return rc;
            }
            text = ++p;
            state = State::kText;
         } else if (c >= '1' && c <= '9') {
            posStart = p++;
            state = State::kPosition;
         } else {
            posStart = nullptr;
            body = p;
            state = State::kBody;
         }
         continue;

      case State::kPosition:
         if (c >= '0' && c <= '9') {
            p++;
         } else if (c == '$') {
            posEnd = p;
            body = ++p;
            state = State::kBody;
         } else {
            // The digits were a width.
            body = posStart;
            posStart = nullptr;
            state = State::kBody;
         }
         continue;

      case State::kBody:
         if (IsBodyChar(c)) {
            p++;
            continue;
         }
         if (!IsConversion(c)) {
            return MSGFMT_BAD_FORMAT;
         }
         break;
      }

      // A whole specification ends at p.
      int position;
      char sequenceText[16];
      const char *pos;
      size_t posLength;
      if (posStart != nullptr) {
         if (mode == Mode::kSequential) {
            return MSGFMT_BAD_FORMAT;
         }
         mode = Mode::kPositional;
         const char *digits = posStart;
         position = ReadPosition(digits);
         if (position < 0) {
            return MSGFMT_BAD_FORMAT;
         }
         pos = posStart;
         posLength = static_cast<size_t>(posEnd - posStart);
      } else {
         if (mode == Mode::kPositional || sequence == INT_MAX) {
            return MSGFMT_BAD_FORMAT;
         }
         mode = Mode::kSequential;
         position = ++sequence;
         posLength = static_cast<size_t>(
            Str_Snprintf(sequenceText, sizeof sequenceText, "%d", position));
         pos = sequenceText;
      }
      if (specFunc != nullptr) {
         int rc = specFunc(clientData, position, pos, posLength, body,
                           static_cast<size_t>(p + 1 - body));
         if (rc != MSGFMT_OK) {
            return rc;
         }
      }
      text = ++p;
      state = State::kText;
   }
}

int MsgFmt_ParseWin32(MsgFmt_LitFunc *litFunc, MsgFmt_SpecFunc *specFunc, void *clientData,
                      const char *fmt) {
   if (fmt == nullptr) {
      return MSGFMT_BAD_FORMAT;
   }
   const char *text = fmt;
   const char *p = fmt;
   for (;;) {
      if (*p != '\0' && *p != '%') {
         p++;
         continue;
      }
      int rc = EmitLiteral(litFunc, clientData, text, p);
      if (rc != MSGFMT_OK || *p == '\0') {
         return rc;
      }
      char next = p[1];
      if (next == '\0') {
         return MSGFMT_BAD_FORMAT;
      }
      if (next == '0' || next == 'n') {
         halcyx::PanicVerify(kModulePath, 324);
      }
      if (next < '1' || next > '9') {
         // "%%", "%!", "%." ...: the character itself.
         rc = EmitLiteral(litFunc, clientData, p + 1, p + 2);
         if (rc != MSGFMT_OK) {
            return rc;
         }
         text = p += 2;
         continue;
      }

      const char *pos = ++p;
      int position = ReadPosition(p);
      if (position < 0) {
         return MSGFMT_BAD_FORMAT;
      }
      size_t posLength = static_cast<size_t>(p - pos);
      const char *type = "s";
      size_t typeLength = 1;
      if (*p == '!') {
         const char *close = strchr(p + 1, '!');
         if (close == nullptr || close == p + 1) {
            return MSGFMT_BAD_FORMAT;
         }
         type = p + 1;
         typeLength = static_cast<size_t>(close - type);
         p = close + 1;
      }
      if (specFunc != nullptr) {
         rc = specFunc(clientData, position, pos, posLength, type, typeLength);
         if (rc != MSGFMT_OK) {
            return rc;
         }
      }
      text = p;
   }
}

bool MsgFmt_GetArgsWithBuf(const char *fmt, va_list va, MsgFmt_Arg **args, int *numArgs,
                           char **error, void *buf, size_t *bufSize) {
   Capture state;
   state.positionLimit = fmt == nullptr ? 0 : static_cast<int>(strnlen(fmt, INT_MAX) / 2);

   int rc = MsgFmt_Parse(nullptr, MsgFmtGetArg1, &state, fmt);
   if (rc == MSGFMT_OK) {
      int gap = FirstGap(state);
      if (gap != 0) {
         state.SetError("MsgFmt_GetArgs: gap in arguments at position %d", gap);
         rc = MSGFMT_BAD_FORMAT;
      }
   }
   if (rc != MSGFMT_OK) {
      if (state.error[0] == '\0') {
         if (rc == MSGFMT_BAD_FORMAT) {
            state.SetError("MsgFmt_GetArgs: error in format string");
         } else if (rc == MSGFMT_NO_MEMORY) {
            state.SetError("MsgFmt_GetArgs: out of memory");
         } else {
            state.SetError("MsgFmt_GetArgs: error %d", rc);
         }
      }
      ReportError(error, state.error);
      return false;
   }

   int n = state.maxPosition;
   ReadValues(state.args, n, va);
   for (int i = 0; i < n; i++) {
      MsgFmt_Arg &a = state.args[i];
      if (a.type == MSGFMT_ARG_STRING8 && a.v.string8 != nullptr) {
         int number = Err_String2Errno(a.v.string8);
         if (number != -1) {
            a.type = MSGFMT_ARG_ERRNO;
            a.errorNumber = number;
         }
      }
   }

   if (buf != nullptr) {
      size_t needed = alignof(MsgFmt_Arg) - 1 + AlignUp(static_cast<size_t>(n) * sizeof(MsgFmt_Arg));
      for (int i = 0; i < n; i++) {
         needed += AlignUp(StringBytes(state.args[i]));
      }
      if (needed > *bufSize) {
         *bufSize = needed;
         ReportError(error, "MsgFmt_GetArgs: out of memory");
         return false;
      }
      *args = n == 0 ? nullptr : LayOut(state.args, n, buf, bufSize);
      if (n == 0) {
         *bufSize = 0;
      }
   } else {
      if (!CopyStringsToHeap(state.args, n)) {
         ReportError(error, "MsgFmt_GetArgs: out of memory");
         return false;
      }
      *args = state.args;  // null when the format takes no argument
      state.args = nullptr;
   }
   *numArgs = n;
   return true;
}

bool MsgFmt_GetArgs(const char *fmt, va_list va, MsgFmt_Arg **args, int *numArgs,
                    char **error) {
   return MsgFmt_GetArgsWithBuf(fmt, va, args, numArgs, error, nullptr, nullptr);
}

void MsgFmt_FreeArgs(MsgFmt_Arg *args, int numArgs) {
   if (args == nullptr) {
      return;
   }
   halcyx::ErrnoSaver keepErrno;
   for (int i = 0; i < numArgs; i++) {
      if (StringBytes(args[i]) != 0) {
         free(StringSlot(args[i]));
      }
   }
   free(args);
}

MsgFmt_Arg *MsgFmt_CopyArgs(const MsgFmt_Arg *args, int numArgs) {
   if (args == nullptr || numArgs <= 0) {
      return nullptr;
   }
   auto *copy = static_cast<MsgFmt_Arg *>(
      Util_SafeMalloc(static_cast<size_t>(numArgs) * sizeof(MsgFmt_Arg)));
   memcpy(copy, args, static_cast<size_t>(numArgs) * sizeof(MsgFmt_Arg));
   for (int i = 0; i < numArgs; i++) {
      size_t bytes = StringBytes(copy[i]);
      if (bytes != 0) {
         StringSlot(copy[i]) = memcpy(Util_SafeMalloc(bytes), StringSlot(copy[i]), bytes);
      }
   }
   return copy;
}

namespace {

struct Printer {
   const MsgFmt_Arg *args;
   int numArgs;
   DynBuf out;
};

int PrintLiteral(void *clientData, const char *text, size_t length) {
   auto *printer = static_cast<Printer *>(clientData);
   return DynBuf_Append(&printer->out, text, length) ? MSGFMT_OK : MSGFMT_NO_MEMORY;
}

// A UTF-16 string as a new wide string (unpaired surrogates kept), or null.
wchar_t *WidenUtf16(const uint16_t *s) {
   size_t n = Utf16Length(s);
   auto *wide = static_cast<wchar_t *>(halcyx::Malloc((n + 1) * sizeof(wchar_t)));
   if (wide == nullptr) {
      return nullptr;
   }
   const UTF16 *src = s;
   auto *dst = reinterpret_cast<UTF32 *>(wide);
   ConvertUTF16toUTF32(&src, s + n, &dst, dst + n, lenientConversion);
   *dst = 0;
   return wide;
}

// One specification formatted by the engine with one captured value.
char *FormatOne(const char *spec, const MsgFmt_Arg &arg, size_t *length) {
   switch (arg.type) {
   case MSGFMT_ARG_INT32:
      return Str_Asprintf(length, spec, arg.v.signed32);
   case MSGFMT_ARG_INT64:
      return Str_Asprintf(length, spec, arg.v.signed64);
   case MSGFMT_ARG_PTR32:
      return Str_Asprintf(length, spec, reinterpret_cast<void *>(uintptr_t{arg.v.ptr32}));
   case MSGFMT_ARG_PTR64:
      return Str_Asprintf(length, spec, reinterpret_cast<void *>(arg.v.ptr64));
   case MSGFMT_ARG_FLOAT64:
      return Str_Asprintf(length, spec, arg.v.float64);
   case MSGFMT_ARG_STRING8:
      return Str_Asprintf(length, spec, arg.v.string8);
   case MSGFMT_ARG_ERRNO:
      // Translated again: the text of the number, not the text captured.
      return Str_Asprintf(length, spec, Err_Errno2String(arg.errorNumber));
   case MSGFMT_ARG_STRING32:
      return Str_Asprintf(length, spec, arg.v.string32);
   case MSGFMT_ARG_STRING16: {
      if (arg.v.string16 == nullptr) {
         return Str_Asprintf(length, spec, static_cast<wchar_t *>(nullptr));
      }
      halcyx::UniqueMalloc<wchar_t> wide(WidenUtf16(arg.v.string16));
      return wide ? Str_Asprintf(length, spec, wide.get()) : nullptr;
   }
   default:
      return nullptr;
   }
}

bool Compatible(MsgFmt_ArgType wanted, int32_t captured) {
   return wanted == captured || (wanted == MSGFMT_ARG_STRING8 && captured == MSGFMT_ARG_ERRNO) ||
          (wanted == MSGFMT_ARG_STRING32 && captured == MSGFMT_ARG_STRING16);
}

int PrintSpec(void *clientData, int position, const char *, size_t, const char *type,
              size_t typeLength) {
   auto *printer = static_cast<Printer *>(clientData);
   SpecClass spec = ClassifySpec(type, typeLength);
   if (spec.problem != SpecProblem::kNone || position > printer->numArgs ||
       !Compatible(spec.type, printer->args[position - 1].type)) {
      return MSGFMT_BAD_FORMAT;
   }
   halcyx::UniqueCStr specText(Str_Asprintf(nullptr, "%%%.*s", static_cast<int>(typeLength), type));
   if (!specText) {
      return MSGFMT_NO_MEMORY;
   }
   size_t length;
   halcyx::UniqueCStr piece(FormatOne(specText.get(), printer->args[position - 1], &length));
   if (!piece) {
      return MSGFMT_NO_MEMORY;
   }
   return DynBuf_Append(&printer->out, piece.get(), length) ? MSGFMT_OK : MSGFMT_NO_MEMORY;
}

}  // namespace

char *MsgFmt_Asprintf(size_t *length, const char *fmt, const MsgFmt_Arg *args, int numArgs) {
   Printer printer{args, args == nullptr ? 0 : numArgs, {}};
   DynBuf_Init(&printer.out);
   if (MsgFmt_Parse(PrintLiteral, PrintSpec, &printer, fmt) != MSGFMT_OK ||
       !DynBuf_Append(&printer.out, "", 1)) {
      DynBuf_Destroy(&printer.out);
      return nullptr;
   }
   if (length != nullptr) {
      *length = printer.out.size - 1;
   }
   return static_cast<char *>(DynBuf_Detach(&printer.out));
}
