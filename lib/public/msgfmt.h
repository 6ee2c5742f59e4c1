// SPDX-License-Identifier: MIT
/*
 * Message argument formats: walking printf-style formats and capturing
 * their arguments, so that a message can be kept (and formatted again
 * later) without the caller's va_list.
 *
 * A format holds literal text and specifications "%[N$]body", where body
 * is any run of the flag and size characters " #'+-ILZhjlqtz.0123456789"
 * ended by one conversion character: any other character from " " to "z"
 * (a character outside that range is a format error). Capture takes the
 * conversions of the formatting engine (d i o u x X c s p e E f F g G and
 * D O U C S) and refuses any other with its own message. "%%" is a
 * literal "%".
 * Either every specification names its position (%N$, N from 1) or none
 * does; non-positional ones are numbered 1, 2, 3 ... in order. Width and
 * precision come only as digits: there is no "*".
 *
 * Capture reads one value per position, in position order, with the C type
 * the conversion implies, and copies strings. A string that is a text
 * from Err_Errno2String is kept as an error string with its number.
 *
 *    MsgFmt_Arg *args; int n; char *error;
 *    if (MsgFmt_GetArgs(fmt, va, &args, &n, &error)) {
 *       char *text = MsgFmt_Asprintf(NULL, fmt, args, n);
 *       ...
 *       MsgFmt_FreeArgs(args, n);
 *    }
 */
#ifndef HALCYX_MSGFMT_H
#define HALCYX_MSGFMT_H

#include <wchar.h>

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* Argument type codes. */
typedef enum MsgFmt_ArgType {
   MSGFMT_ARG_INVALID = 0,  /* a position no specification uses */
   MSGFMT_ARG_INT32 = 1,    /* int and narrower; %c and %lc too */
   MSGFMT_ARG_INT64 = 2,    /* long, long long, size_t, ptrdiff_t, intmax_t */
   MSGFMT_ARG_PTR32 = 3,    /* %p on 32-bit hosts */
   MSGFMT_ARG_PTR64 = 4,    /* %p on 64-bit hosts */
   MSGFMT_ARG_FLOAT64 = 5,  /* double */
   MSGFMT_ARG_STRING8 = 6,  /* char *, UTF-8 */
   MSGFMT_ARG_STRING16 = 7, /* uint16_t *, UTF-16 (never captured here) */
   MSGFMT_ARG_STRING32 = 8, /* wchar_t * (32-bit), for %ls and %S */
   MSGFMT_ARG_ERRNO = 9     /* a text of Err_Errno2String and its number */
} MsgFmt_ArgType;

typedef struct MsgFmt_Arg {
   int32_t type; /* MsgFmt_ArgType */
   union {
      int32_t signed32;
      int64_t signed64;
      uint32_t ptr32;
      uint64_t ptr64;
      double float64;
      char *string8;     /* STRING8 and ERRNO; may be null */
      uint16_t *string16;
      wchar_t *string32;
   } v;
   int32_t errorNumber; /* ERRNO only */
} MsgFmt_Arg;

/*
 * Walk callbacks. A literal stretch (never empty) or a specification:
 * position counts from 1, pos/posLength is its decimal text (made up for
 * non-positional formats), type/typeLength the body after "%" or "N$"
 * including the conversion character. A non-zero result stops the walk
 * and becomes its result.
 */
typedef int MsgFmt_LitFunc(void *clientData, const char *text, size_t length);
typedef int MsgFmt_SpecFunc(void *clientData, int position, const char *pos,
                            size_t posLength, const char *type, size_t typeLength);

/* Walk results besides a callback's own. */
#define MSGFMT_OK 0
#define MSGFMT_NO_MEMORY (-1)
#define MSGFMT_BAD_FORMAT (-2)

/*
 * Walks fmt, calling litFunc (when not null) and specFunc (when not null)
 * in order. 0, MSGFMT_BAD_FORMAT for a malformed format, or the first
 * non-zero callback result.
 */
int MsgFmt_Parse(MsgFmt_LitFunc *litFunc, MsgFmt_SpecFunc *specFunc,
                 void *clientData, const char *fmt);

/*
 * The same for Windows-style formats: "%1" ... "%9" (further digits
 * continue the number) with an optional "!body!" giving the conversion
 * ("s" when absent); "%" followed by any other character is that character
 * as text. "%0" and "%n" are programming errors and end the process.
 */
int MsgFmt_ParseWin32(MsgFmt_LitFunc *litFunc, MsgFmt_SpecFunc *specFunc,
                      void *clientData, const char *fmt);

/*
 * Captures the arguments fmt asks for from va. On success *args is a new
 * array of *numArgs entries (free it with MsgFmt_FreeArgs; null when the
 * format takes none). On failure returns false and, when error is not
 * null, stores a newly allocated description in *error (caller frees);
 * *args and *numArgs are left alone.
 */
bool MsgFmt_GetArgs(const char *fmt, va_list va, MsgFmt_Arg **args, int *numArgs,
                    char **error);

/*
 * As MsgFmt_GetArgs, but when buf is not null the array and every string
 * copy are laid out in the caller's buf of *bufSize bytes, nothing is
 * allocated for them and MsgFmt_FreeArgs must not be called. *bufSize
 * receives the bytes used, or, when they do not fit, the bytes needed (the
 * call then fails with "out of memory"). With buf null it is
 * MsgFmt_GetArgs and bufSize is ignored.
 */
bool MsgFmt_GetArgsWithBuf(const char *fmt, va_list va, MsgFmt_Arg **args, int *numArgs,
                           char **error, void *buf, size_t *bufSize);

/* Frees an array made by MsgFmt_GetArgs or MsgFmt_CopyArgs; null is ignored. */
void MsgFmt_FreeArgs(MsgFmt_Arg *args, int numArgs);

/* A deep copy of args (null for none); allocation failure is fatal. */
MsgFmt_Arg *MsgFmt_CopyArgs(const MsgFmt_Arg *args, int numArgs);

/*
 * fmt formatted with captured arguments, as the formatting engine would
 * have formatted it with the original ones; an error string is formatted
 * as the current text of its number. Null when the format is malformed or
 * does not match the arguments (a missing position, another type). On
 * success the length goes to *length when length is not null.
 */
char *MsgFmt_Asprintf(size_t *length, const char *fmt, const MsgFmt_Arg *args,
                      int numArgs);

HALCYX_EXTERN_C_END

#endif /* HALCYX_MSGFMT_H */
