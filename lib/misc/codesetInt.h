// SPDX-License-Identifier: MIT
/*
 * Inside the code-set layer: the two engines behind lib/public/codeset.h.
 *
 * The public functions (codeset.cc) ask CodeSetUseIcu() and forward either
 * to the ICU engine (codesetIcu.cc, which loads ICU on its first call) or to
 * the built-in engine (codesetOld.cc, the CodeSetOld_ functions). Both
 * engines take and return exactly what the public functions do.
 */
#ifndef HALCYX_MISC_CODESETINT_H
#define HALCYX_MISC_CODESETINT_H

#include <cstddef>
#include <cstdint>

#include "codeset.h"

namespace halcyx {

inline constexpr char kCodeSetModulePath[] = "lib/misc/codeset";

bool CodeSetUseIcu();

// Turns a filled DynBuf into the plain forms' result: 4 zero bytes are
// appended, the block goes to *bufOut and its length without them to
// *sizeOut. On failure the buffer is destroyed and false returned.
bool CodeSetDbToResult(bool ok, DynBuf *db, char **bufOut, size_t *sizeOut);

// Makes room for `more` bytes beyond db's size; false when it cannot.
inline bool CodeSetReserve(DynBuf *db, uint64_t more) {
   if (db->allocated - db->size >= more) {
      return true;
   }
   uint64_t need = db->size + more;
   return need >= more && DynBuf_Enlarge(db, need);
}

// ICU engine. Each returns false (or the fallback documented) when ICU
// cannot be loaded.
bool CodeSetIcuGenericToGenericDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                  const char *codeOut, unsigned int flags, DynBuf *db);
bool CodeSetIcuIsEncodingSupported(const char *name);
// 1 valid, 0 invalid, -1 the converter could not be opened or configured.
int CodeSetIcuValidate(const char *buf, size_t size, const char *code);
bool CodeSetIcuNormalizeNfc(const char *bufIn, size_t sizeIn, DynBuf *db);
void CodeSetIcuSetDataDirectory(const char *path);
// Loads ICU on first call; whether it is usable in this process.
bool CodeSetIcuLoad();
// Whether ICU has been loaded into this process (for tests).
bool CodeSetIcuIsLoaded();

// Writes the UTF-8 form of a scalar value (at most 4 bytes); its length.
inline size_t CodeSetEncodeUtf8(uint32_t cp, uint8_t *out) {
   if (cp < 0x80) {
      out[0] = static_cast<uint8_t>(cp);
      return 1;
   }
   if (cp < 0x800) {
      out[0] = static_cast<uint8_t>(0xC0 | (cp >> 6));
      out[1] = static_cast<uint8_t>(0x80 | (cp & 0x3F));
      return 2;
   }
   if (cp < 0x10000) {
      out[0] = static_cast<uint8_t>(0xE0 | (cp >> 12));
      out[1] = static_cast<uint8_t>(0x80 | ((cp >> 6) & 0x3F));
      out[2] = static_cast<uint8_t>(0x80 | (cp & 0x3F));
      return 3;
   }
   out[0] = static_cast<uint8_t>(0xF0 | (cp >> 18));
   out[1] = static_cast<uint8_t>(0x80 | ((cp >> 12) & 0x3F));
   out[2] = static_cast<uint8_t>(0x80 | ((cp >> 6) & 0x3F));
   out[3] = static_cast<uint8_t>(0x80 | (cp & 0x3F));
   return 4;
}

// UTF-8 validation (codesetUtf8.cc): CodeSetValidateUtf8 picks the fastest
// path. The plain automaton, byte by byte, is the reference that every
// other path must agree with; the AVX2 path may only be called when
// CodeSetHasAvx2().
bool CodeSetValidateUtf8(const uint8_t *buf, size_t size);
bool CodeSetValidateUtf8Dfa(const uint8_t *buf, size_t size);
bool CodeSetValidateUtf8Scalar(const uint8_t *buf, size_t size);
bool CodeSetValidateUtf8Avx2(const uint8_t *buf, size_t size);
bool CodeSetHasAvx2();

}  // namespace halcyx

// Built-in engine.
bool CodeSetOld_GenericToGenericDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                   const char *codeOut, unsigned int flags, DynBuf *db);
bool CodeSetOld_GenericToGeneric(const char *codeIn, const char *bufIn, size_t sizeIn,
                                 const char *codeOut, unsigned int flags, char **bufOut,
                                 size_t *sizeOut);
const char *CodeSetOld_GetCurrentCodeSet();
bool CodeSetOld_Utf8ToUtf16leDb(const char *bufIn, size_t sizeIn, DynBuf *db);
bool CodeSetOld_Utf16leToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db);
bool CodeSetOld_Utf16beToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db);
bool CodeSetOld_AsciiToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db);
bool CodeSetOld_Utf8ToAsciiDb(const char *bufIn, size_t sizeIn, DynBuf *db);
bool CodeSetOld_Utf8ToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSetOld_Utf16leToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSetOld_Utf16beToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSetOld_AsciiToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSetOld_Utf8ToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut);
bool CodeSetOld_CurrentToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut,
                                 size_t *sizeOut);
bool CodeSetOld_Utf16leToCurrent(const char *bufIn, size_t sizeIn, char **bufOut,
                                 size_t *sizeOut);
bool CodeSetOld_Utf16beToCurrent(const char *bufIn, size_t sizeIn, char **bufOut,
                                 size_t *sizeOut);

#endif  // HALCYX_MISC_CODESETINT_H
