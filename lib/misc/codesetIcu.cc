// SPDX-License-Identifier: MIT
/*
 * The ICU engine: conversions, validation and normalisation through the
 * system's ICU common library.
 *
 * ICU is never linked: the few entry points used are loaded with dlopen on
 * the first call that needs them (lib/internal/dynload.h), so programs that
 * do not convert through ICU never map it. The data file that CodeSet_Init
 * found is handed to ICU right after loading, before any other ICU call.
 * Each conversion opens and closes its own converters; nothing else is
 * shared between threads.
 */
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>

#include <unicode/ucnv.h>
#include <unicode/unorm2.h>
#include <unicode/ustring.h>
#include <unicode/putil.h>

#include "internal/dynload.h"
#include "internal/fatal.h"
#include "misc/codesetInt.h"
#include "util.h"

namespace halcyx {

namespace {

// The entry points, filled by DynLoad. ICU's headers rename each function
// after its version; decltype of the renamed declaration gives the type.
struct IcuApi {
   decltype(&ucnv_open) open;
   decltype(&ucnv_close) close;
   decltype(&ucnv_setToUCallBack) setToUCallBack;
   decltype(&ucnv_setFromUCallBack) setFromUCallBack;
   decltype(&ucnv_convertEx) convertEx;
   decltype(&ucnv_toUChars) toUChars;
   decltype(&u_setDataDirectory) setDataDirectory;
   UConverterToUCallback toStop, toSubstitute, toSkip;
   UConverterFromUCallback fromStop, fromSubstitute, fromSkip;
   decltype(&unorm2_getNFCInstance) getNfc;
   decltype(&unorm2_normalize) normalize;
   decltype(&u_strFromUTF8) fromUtf8;
   decltype(&u_strToUTF8) toUtf8;
};

IcuApi gIcu;
DynLoadState gIcuState;
std::atomic<char *> gPendingDataPath{nullptr};

template <typename T> void **Slot(T &field) { return reinterpret_cast<void **>(&field); }

// Versions of Debian's ICU, newest first; the version also names the symbols.
constexpr const char *kIcuSonames[] = {
   "libicuuc.so.72", "libicuuc.so.76", "libicuuc.so.74", "libicuuc.so.73",
   "libicuuc.so.71", "libicuuc.so.70", "libicuuc.so.67", "libicuuc.so.63",
};

bool LoadIcu() {
   static const DynSymbol kSymbols[] = {
      {"ucnv_open", Slot(gIcu.open)},
      {"ucnv_close", Slot(gIcu.close)},
      {"ucnv_setToUCallBack", Slot(gIcu.setToUCallBack)},
      {"ucnv_setFromUCallBack", Slot(gIcu.setFromUCallBack)},
      {"ucnv_convertEx", Slot(gIcu.convertEx)},
      {"ucnv_toUChars", Slot(gIcu.toUChars)},
      {"u_setDataDirectory", Slot(gIcu.setDataDirectory)},
      {"UCNV_TO_U_CALLBACK_STOP", Slot(gIcu.toStop)},
      {"UCNV_TO_U_CALLBACK_SUBSTITUTE", Slot(gIcu.toSubstitute)},
      {"UCNV_TO_U_CALLBACK_SKIP", Slot(gIcu.toSkip)},
      {"UCNV_FROM_U_CALLBACK_STOP", Slot(gIcu.fromStop)},
      {"UCNV_FROM_U_CALLBACK_SUBSTITUTE", Slot(gIcu.fromSubstitute)},
      {"UCNV_FROM_U_CALLBACK_SKIP", Slot(gIcu.fromSkip)},
      {"unorm2_getNFCInstance", Slot(gIcu.getNfc)},
      {"unorm2_normalize", Slot(gIcu.normalize)},
      {"u_strFromUTF8", Slot(gIcu.fromUtf8)},
      {"u_strToUTF8", Slot(gIcu.toUtf8)},
   };
   static const DynLibrary kLibrary = {kIcuSonames, std::size(kIcuSonames), kSymbols,
                                       std::size(kSymbols), "_%s"};
   if (!DynLoad(kLibrary, &gIcuState)) {
      return false;
   }
   if (char *path = gPendingDataPath.exchange(nullptr)) {
      gIcu.setDataDirectory(path);
      free(path);
   }
   return true;
}

// Converters closed on every exit.
class Converter {
public:
   explicit Converter(const char *name) {
      UErrorCode err = U_ZERO_ERROR;
      cnv_ = name == nullptr ? nullptr : gIcu.open(name, &err);
      if (U_FAILURE(err) && cnv_ != nullptr) {
         gIcu.close(cnv_);
         cnv_ = nullptr;
      }
   }
   ~Converter() {
      if (cnv_ != nullptr) {
         gIcu.close(cnv_);
      }
   }
   Converter(const Converter &) = delete;
   Converter &operator=(const Converter &) = delete;
   UConverter *get() const { return cnv_; }

private:
   UConverter *cnv_;
};

bool SetCallbacks(UConverter *in, UConverter *out, unsigned int flags) {
   const UConverterToUCallback toU[] = {gIcu.toStop, gIcu.toSubstitute, gIcu.toSkip};
   const UConverterFromUCallback fromU[] = {gIcu.fromStop, gIcu.fromSubstitute, gIcu.fromSkip};
   UErrorCode err = U_ZERO_ERROR;
   gIcu.setToUCallBack(in, toU[flags], nullptr, nullptr, nullptr, &err);
   if (U_FAILURE(err)) {
      return false;
   }
   gIcu.setFromUCallBack(out, fromU[flags], nullptr, nullptr, nullptr, &err);
   return U_SUCCESS(err);
}

}  // namespace

void CodeSetIcuSetDataDirectory(const char *path) {
   free(gPendingDataPath.exchange(UtilSafeStrdup0(path)));
   if (CodeSetIcuIsLoaded()) {
      LoadIcu();  // applies the path now
   }
}

bool CodeSetIcuLoad() { return LoadIcu(); }

bool CodeSetIcuIsLoaded() {
   return std::atomic_ref<int>(gIcuState.once).load(std::memory_order_acquire) == 2 &&
          gIcuState.loaded;
}

bool CodeSetIcuGenericToGenericDb(const char *codeIn, const char *bufIn, size_t sizeIn,
                                  const char *codeOut, unsigned int flags, DynBuf *db) {
   if (bufIn == nullptr || sizeIn == 0) {
      if (flags > CODESET_FLAG_SKIP) {
         PanicNotImplemented(kCodeSetModulePath, __LINE__);
      }
      return true;
   }
   if (!LoadIcu()) {
      return false;
   }
   Converter in(codeIn);
   if (in.get() == nullptr) {
      return false;
   }
   Converter out(codeOut);
   if (out.get() == nullptr) {
      return false;
   }
   if (flags > CODESET_FLAG_SKIP) {
      PanicNotImplemented(kCodeSetModulePath, __LINE__);
   }
   if (!SetCallbacks(in.get(), out.get(), flags) || sizeIn > UINT64_MAX - 4 ||
       !CodeSetReserve(db, uint64_t{sizeIn} + 4)) {
      return false;
   }
   UChar pivot[1024];
   UChar *pivotSource = pivot;
   UChar *pivotTarget = pivot;
   const char *source = bufIn;
   // What ICU wrote before it stopped is not part of a failed conversion.
   const uint64_t start = db->size;
   for (;;) {
      char *target = db->data + db->size;
      UErrorCode err = U_ZERO_ERROR;
      gIcu.convertEx(out.get(), in.get(), &target, db->data + db->allocated, &source,
                     bufIn + sizeIn, pivot, &pivotSource, &pivotTarget, pivot + std::size(pivot),
                     false, true, &err);
      db->size = static_cast<uint64_t>(target - db->data);
      if (U_SUCCESS(err)) {
         return true;
      }
      uint64_t doubled = 2 * db->allocated;
      if (err != U_BUFFER_OVERFLOW_ERROR || doubled < db->allocated ||
          !DynBuf_Enlarge(db, doubled)) {
         db->size = start;
         return false;
      }
   }
}

bool CodeSetIcuIsEncodingSupported(const char *name) {
   if (name == nullptr || !LoadIcu()) {
      return false;
   }
   Converter cnv(name);
   return cnv.get() != nullptr;
}

int CodeSetIcuValidate(const char *buf, size_t size, const char *code) {
   if (!LoadIcu()) {
      return -1;
   }
   Converter cnv(code);
   if (cnv.get() == nullptr) {
      return -1;
   }
   UErrorCode err = U_ZERO_ERROR;
   gIcu.setToUCallBack(cnv.get(), gIcu.toStop, nullptr, nullptr, nullptr, &err);
   if (U_FAILURE(err)) {
      return -1;
   }
   // Into an empty target on purpose: overflow means all input converted.
   gIcu.toUChars(cnv.get(), nullptr, 0, buf, static_cast<int32_t>(size), &err);
   return err == U_BUFFER_OVERFLOW_ERROR ? 1 : 0;
}

bool CodeSetIcuNormalizeNfc(const char *bufIn, size_t sizeIn, DynBuf *db) {
   if (bufIn == nullptr && sizeIn != 0) {
      return false;
   }
   // Composition may triple the units of its input; everything stays in int32_t.
   if (sizeIn > INT32_MAX / 4 || !LoadIcu()) {
      return false;
   }
   auto length = static_cast<int32_t>(sizeIn);
   UErrorCode err = U_ZERO_ERROR;
   const UNormalizer2 *nfc = gIcu.getNfc(&err);
   if (U_FAILURE(err)) {
      return false;
   }
   // UTF-8 never needs more UTF-16 units than bytes; composition only
   // shortens, but a few characters' NFC forms are longer than their input.
   int32_t capacity = length + 1;
   auto utf16 = static_cast<UChar *>(malloc(sizeof(UChar) * static_cast<size_t>(capacity)));
   auto composed = static_cast<UChar *>(malloc(sizeof(UChar) * 3 * static_cast<size_t>(capacity)));
   bool ok = false;
   if (utf16 != nullptr && composed != nullptr) {
      int32_t units = 0;
      gIcu.fromUtf8(utf16, capacity, &units, bufIn == nullptr ? "" : bufIn, length, &err);
      int32_t composedUnits =
         U_SUCCESS(err) ? gIcu.normalize(nfc, utf16, units, composed, 3 * capacity, &err) : 0;
      int32_t bytes = 0;
      if (U_SUCCESS(err) && CodeSetReserve(db, 3 * static_cast<uint64_t>(composedUnits) + 1)) {
         uint64_t room = std::min<uint64_t>(db->allocated - db->size, INT32_MAX);
         gIcu.toUtf8(db->data + db->size, static_cast<int32_t>(room), &bytes, composed,
                     composedUnits, &err);
         if (U_SUCCESS(err)) {
            db->size += static_cast<uint64_t>(bytes);
            ok = true;
         }
      }
   }
   free(utf16);
   free(composed);
   return ok;
}

}  // namespace halcyx
