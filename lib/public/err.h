// SPDX-License-Identifier: MIT
/*
 * Error-number texts.
 *
 * Err_Errno2String gives the C library's text for an error number. Each
 * text is made once per number and kept until the process exits, so the
 * same number always yields the same pointer and callers never free it;
 * the text is valid UTF-8 (a sequence cut short at its end is dropped).
 * Because every text is remembered, Err_String2Errno can tell a pointer
 * that came from Err_Errno2String apart from any other string and give
 * back its number; message lists use that to keep error texts translatable.
 *
 * All three functions are safe to call from any thread and leave errno as
 * they found it.
 *
 *    Warning("open failed: %s\n", Err_Errno2String(errno));
 */
#ifndef HALCYX_ERR_H
#define HALCYX_ERR_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/* The text for errorNumber; "Unknown error N" when the library has none. */
const char *Err_Errno2String(int errorNumber);

/* Err_Errno2String(errno). */
const char *Err_ErrString(void);

/*
 * The number whose text is at exactly this address, or -1 (0xFFFFFFFF)
 * when text did not come from Err_Errno2String (a copy of such a text
 * does not count). A null text gives -1.
 */
int Err_String2Errno(const char *text);

HALCYX_EXTERN_C_END

#endif /* HALCYX_ERR_H */
