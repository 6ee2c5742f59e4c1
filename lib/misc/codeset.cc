// SPDX-License-Identifier: MIT
/*
 * Code-set conversion: engine selection, the public conversions and the
 * code-point helpers (UTF-8 validation is in codesetUtf8.cc).
 *
 * Engine selection happens in CodeSet_Init and only looks for ICU's data
 * file; ICU itself is loaded by the ICU engine on its first call, so a
 * program that never converts through ICU never maps it.
 */
#include "codeset.h"

#include <atomic>
#include <cstring>
#include <sys/stat.h>

#include "internal/fatal.h"
#include "internal/unique.h"
#include "misc/codesetInt.h"
#include "str.h"
#include "util.h"

using LocationGetFn = char *(*)(const char *key);
// Provided by the product-location module when the program links it.
extern "C" __attribute__((weak)) LocationGetFn Location_Get_Addr(void);

namespace halcyx {

namespace {

std::atomic<bool> gUseIcu{false};

// Whether CodeSet_Init found ICU's data file (or was told to use it).
bool IcuSelected() { return gUseIcu.load(std::memory_order_relaxed); }

constexpr char kIcuDataFile[] = "icudt44l.dat";
constexpr char kNoLocationIcuDir[] = "/dev/null/Non-existing DEFAULT_LIBDIRECTORY" "/icu";

}  // namespace

// The ICU engine serves once its data file was found and the library loads;
// a program that cannot load it (the opener loads no shared library) keeps
// the built-in engine rather than failing every conversion.
bool CodeSetUseIcu() { return IcuSelected() && CodeSetIcuLoad(); }

bool CodeSetDbToResult(bool ok, DynBuf *db, char **bufOut, size_t *sizeOut) {
   static constexpr char kTerminator[4] = {0, 0, 0, 0};
   uint64_t size = db->size;
   if (!ok || !DynBuf_Append(db, kTerminator, sizeof kTerminator)) {
      DynBuf_Destroy(db);
      return false;
   }
   *bufOut = static_cast<char *>(DynBuf_Detach(db));
   if (sizeOut != nullptr) {
      *sizeOut = size;
   }
   return true;
}

}  // namespace halcyx

using halcyx::CodeSetUseIcu;
using halcyx::kCodeSetModulePath;

bool CodeSet_Init(const char *icuDataDir) {
   halcyx::UniqueCStr located;
   const char *dir = icuDataDir;
   if (dir == nullptr) {
      if (Location_Get_Addr != nullptr) {
         LocationGetFn locationGet = Location_Get_Addr();
         located.reset(locationGet == nullptr ? nullptr : locationGet("icuDir"));
         if (located == nullptr) {
            halcyx::gUseIcu.store(false, std::memory_order_relaxed);
            return true;
         }
         dir = located.get();
      } else {
         dir = halcyx::kNoLocationIcuDir;
      }
   }
   halcyx::UniqueCStr path(Str_Asprintf(nullptr, "%s/%s", dir, halcyx::kIcuDataFile));
   struct stat st;
   bool found = path != nullptr && stat(path.get(), &st) == 0 && !S_ISDIR(st.st_mode);
   if (found) {
      halcyx::CodeSetIcuSetDataDirectory(path.get());
   }
   halcyx::gUseIcu.store(found, std::memory_order_relaxed);
   return true;
}

void CodeSet_DontUseIcu(void) { halcyx::gUseIcu.store(false, std::memory_order_relaxed); }

const char *CodeSet_GetCurrentCodeSet(void) { return CodeSetOld_GetCurrentCodeSet(); }

bool CodeSet_GenericToGenericDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                const char *codeOut, unsigned int flags, DynBuf *db) {
   if (CodeSetUseIcu()) {
      return halcyx::CodeSetIcuGenericToGenericDb(codeIn, bufIn, sizeIn, codeOut, flags, db);
   }
   return CodeSetOld_GenericToGenericDb(codeIn, bufIn, sizeIn, codeOut, flags, db);
}

bool CodeSet_GenericToGeneric(const char *codeIn, const char *bufIn, size_t sizeIn,
                              const char *codeOut, unsigned int flags, char **bufOut,
                              size_t *sizeOut) {
   DynBuf db;
   DynBuf_Init(&db);
   bool ok = CodeSet_GenericToGenericDb(codeIn, bufIn, sizeIn, codeOut, flags, &db);
   return halcyx::CodeSetDbToResult(ok, &db, bufOut, sizeOut);
}

namespace {

// A fixed pair: the ICU engine converts by names, the built-in engine by its
// own routine.
bool FixedPair(const char *codeIn, const char *codeOut,
               bool (*builtIn)(const char *, size_t, char **, size_t *), const char *bufIn,
               size_t sizeIn, char **bufOut, size_t *sizeOut) {
   if (CodeSetUseIcu()) {
      return CodeSet_GenericToGeneric(codeIn, bufIn, sizeIn, codeOut, CODESET_FLAG_STOP, bufOut,
                                      sizeOut);
   }
   return builtIn(bufIn, sizeIn, bufOut, sizeOut);
}

}  // namespace

bool CodeSet_Utf8ToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut) {
   return FixedPair("UTF-8", "UTF-16LE", CodeSetOld_Utf8ToUtf16le, bufIn, sizeIn, bufOut,
                    sizeOut);
}

bool CodeSet_Utf16leToUtf8(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut) {
   return FixedPair("UTF-16LE", "UTF-8", CodeSetOld_Utf16leToUtf8, bufIn, sizeIn, bufOut,
                    sizeOut);
}

bool CodeSet_Utf16leToUtf8Db(const char *bufIn, size_t sizeIn, DynBuf *db) {
   if (CodeSetUseIcu()) {
      return CodeSet_GenericToGenericDb("UTF-16LE", bufIn, sizeIn, "UTF-8", CODESET_FLAG_STOP,
                                        db);
   }
   return CodeSetOld_Utf16leToUtf8Db(bufIn, sizeIn, db);
}

bool CodeSet_CurrentToUtf16le(const char *bufIn, size_t sizeIn, char **bufOut,
                              size_t *sizeOut) {
   return FixedPair(CodeSet_GetCurrentCodeSet(), "UTF-16LE", CodeSetOld_CurrentToUtf16le, bufIn,
                    sizeIn, bufOut, sizeOut);
}

bool CodeSet_Utf16leToCurrent(const char *bufIn, size_t sizeIn, char **bufOut,
                              size_t *sizeOut) {
   return FixedPair("UTF-16LE", CodeSet_GetCurrentCodeSet(), CodeSetOld_Utf16leToCurrent, bufIn,
                    sizeIn, bufOut, sizeOut);
}

bool CodeSet_Utf16beToCurrent(const char *bufIn, size_t sizeIn, char **bufOut,
                              size_t *sizeOut) {
   return FixedPair("UTF-16BE", CodeSet_GetCurrentCodeSet(), CodeSetOld_Utf16beToCurrent, bufIn,
                    sizeIn, bufOut, sizeOut);
}

bool CodeSet_Utf8ToCurrent(const char *bufIn, size_t sizeIn, char **bufOut, size_t *sizeOut) {
   if (sizeIn == static_cast<size_t>(-1)) {
      return false;
   }
   // With ICU selected the current code set is UTF-8 and the bytes are the
   // answer, so the library need not even be loaded for it.
   if (!halcyx::IcuSelected()) {
      return CodeSetOld_Utf8ToCurrent(bufIn, sizeIn, bufOut, sizeOut);
   }
   char *copy = static_cast<char *>(malloc(sizeIn + 1));
   if (copy == nullptr) {
      return false;
   }
   if (sizeIn != 0) {
      std::memcpy(copy, bufIn, sizeIn);
   }
   copy[sizeIn] = '\0';
   *bufOut = copy;
   if (sizeOut != nullptr) {
      *sizeOut = sizeIn;
   }
   return true;
}

bool CodeSet_Utf8FormDToUtf8FormC(const char *bufIn, size_t sizeIn, char **bufOut,
                                  size_t *sizeOut) {
   DynBuf db;
   DynBuf_Init(&db);
   bool ok = halcyx::CodeSetIcuNormalizeNfc(bufIn, sizeIn, &db);
   return halcyx::CodeSetDbToResult(ok, &db, bufOut, sizeOut);
}

bool CodeSet_IsEncodingSupported(const char *name) {
   return halcyx::CodeSetIcuIsEncodingSupported(name);
}

bool CodeSet_Validate(const char *buf, size_t size, const char *code) {
   if (size == 0) {
      return true;
   }
   if (size >= (size_t{1} << 31)) {
      halcyx::PanicVerify(kCodeSetModulePath, __LINE__);
   }
   int valid = halcyx::CodeSetIcuValidate(buf, size, code);
   if (valid < 0) {
      halcyx::PanicVerify(kCodeSetModulePath, __LINE__);
   }
   return valid == 1;
}

bool CodeSet_IsValidUTF8(const char *buf, size_t size) {
   if (buf == nullptr) {
      return size == 0;
   }
   return halcyx::CodeSetValidateUtf8(reinterpret_cast<const uint8_t *>(buf), size);
}

bool CodeSet_IsStringValidUTF8(const char *string) {
   return string != nullptr && CodeSet_IsValidUTF8(string, std::strlen(string));
}

bool CodeSet_IsValidUTF8String(const char *buf, size_t size) {
   return CodeSet_IsValidUTF8(buf, size) && (size == 0 || std::memchr(buf, '\0', size) == nullptr);
}

int CodeSet_LengthInCodePoints(const char *utf8) {
   if (utf8 == nullptr) {
      return 0;
   }
   size_t size = std::strlen(utf8);
   if (!CodeSet_IsValidUTF8(utf8, size)) {
      return -1;
   }
   // Valid UTF-8: count the bytes that are not continuation bytes.
   size_t count = 0;
   for (size_t i = 0; i < size; i++) {
      count += (static_cast<uint8_t>(utf8[i]) & 0xC0) != 0x80;
   }
   return static_cast<int>(count);
}

bool CodeSet_UTF8ToUTF32(const char *utf8, char **utf32) {
   if (utf8 == nullptr) {
      *utf32 = nullptr;
      return true;
   }
   size_t size = std::strlen(utf8);
   // At most one code point per byte, plus the terminator.
   auto out = static_cast<uint32_t *>(malloc((size + 1) * sizeof(uint32_t)));
   if (out == nullptr) {
      return false;
   }
   const char *p = utf8;
   const char *end = utf8 + size;
   size_t n = 0;
   while (p < end) {
      int len = CodeSet_GetUtf8(p, end, &out[n]);
      if (len == 0) {
         halcyx::ErrnoSaver keep;
         free(out);
         return false;
      }
      p += len;
      n++;
   }
   out[n] = 0;
   *utf32 = reinterpret_cast<char *>(out);
   return true;
}

bool CodeSet_UTF32ToUTF8(const char *utf32, char **utf8) {
   if (utf32 == nullptr) {
      *utf8 = nullptr;
      return true;
   }
   auto in = reinterpret_cast<const uint32_t *>(utf32);
   size_t count = 0;
   while (in[count] != 0) {
      count++;
   }
   auto out = static_cast<uint8_t *>(malloc(4 * count + 1));
   if (out == nullptr) {
      return false;
   }
   size_t n = 0;
   for (size_t i = 0; i < count; i++) {
      uint32_t cp = in[i];
      if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
         free(out);
         return false;
      }
      n += halcyx::CodeSetEncodeUtf8(cp, out + n);
   }
   out[n] = '\0';
   *utf8 = reinterpret_cast<char *>(out);
   return true;
}
