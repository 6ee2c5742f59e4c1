// SPDX-License-Identifier: MIT
/*
 * The formatting engine.
 *
 * One pass over the format: literal runs are found with strchrnul and
 * copied whole; each conversion is parsed through a constexpr table that
 * classifies every format byte, converted into a small local buffer, and
 * emitted as a few (pointer, length) pieces: padding runs, sign, prefix,
 * digits. A piece that fits in the room left goes straight into the sink;
 * only truncation and growth take the out-of-line path. Nothing is
 * allocated for the caller's buffer form unless the format uses wide
 * strings, floating point or positions beyond 7.
 *
 * All state lives in the call, including the digits of a floating-point
 * conversion (see dtoa), so the engine shares nothing between threads.
 */
#include "bsd_output.h"

#include <cerrno>
#include <climits>
#include <clocale>
#include <cfenv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <strings.h>

#include "convertutf.h"
#include "internal/alloc.h"
#include "internal/fatal.h"
#include "string/bsd_vsnprintf_int.h"

namespace halcyx::bsdfmt {

namespace {

constexpr const char *kModulePath = "lib/string/bsd_vsnprintf";

constexpr char kBlanks[16] = {' ', ' ', ' ', ' ', ' ', ' ', ' ', ' ',
                              ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
constexpr char kZeroes[16] = {'0', '0', '0', '0', '0', '0', '0', '0',
                              '0', '0', '0', '0', '0', '0', '0', '0'};
constexpr char kDigitsLower[] = "0123456789abcdef";
constexpr char kDigitsUpper[] = "0123456789ABCDEF";

// "00" "01" ... "99": two decimal digits per division.
struct DigitPairs {
   char text[200];
   constexpr DigitPairs() : text() {
      for (int i = 0; i < 100; i++) {
         text[2 * i] = static_cast<char>('0' + i / 10);
         text[2 * i + 1] = static_cast<char>('0' + i % 10);
      }
   }
};
constexpr DigitPairs kDigitPairs;

constexpr int kDefaultPrecision = 6;
// Room for the digits of a 64-bit value in octal with separators.
constexpr int kNumberBufferSize = 100;
// Room for an exponent: the character, its sign and up to 10 digits.
constexpr int kExponentBufferSize = 16;
constexpr int kStaticArgTableSize = 8;

/*
 * Output sink: the caller's buffer (capacity = its size) or an allocation of
 * the engine's. used never exceeds capacity - 1, so the terminator always
 * fits; in the caller's form the bytes beyond that are dropped but counted.
 */
struct Sink {
   char *buf;
   size_t capacity;
   size_t used;
   size_t room;   // capacity - 1 - used; 0 for a caller's buffer of size 0
   size_t total;  // every byte produced, stored or not
   bool allocating;
   bool error;  // sticky for the rest of the call
};

/*
 * Stores a piece that does not fit in the room left: the caller's form
 * keeps what fits, the allocating form grows by whole multiples of the
 * current capacity. A failed growth sets the error flag.
 */
[[gnu::noinline]] void BSDFmt_SFVWrite(Sink &sink, const char *p, size_t n) {
   if (!sink.allocating) {
      memcpy(sink.buf + sink.used, p, sink.room);
      sink.used += sink.room;
      sink.room = 0;
      return;
   }
   if (sink.error) {
      return;
   }
   if (n > SIZE_MAX - sink.used - sink.capacity) {
      sink.error = true;
      return;
   }
   size_t want = sink.used + n + sink.capacity;
   size_t capacity = want - want % sink.capacity;
   auto *grown = static_cast<char *>(Realloc(sink.buf, capacity));
   if (grown == nullptr) {
      sink.error = true;
      return;
   }
   sink.buf = grown;
   sink.capacity = capacity;
   memcpy(sink.buf + sink.used, p, n);
   sink.used += n;
   sink.room = capacity - 1 - sink.used;
}

// Copies a short piece without a call; longer ones go to memcpy. (GCC's
// bounds analysis, once this is inlined at a call with a small source
// array, cannot see that n never exceeds the array.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Warray-bounds"
#ifndef __clang__
#pragma GCC diagnostic ignored "-Wstringop-overread"
#endif
inline void CopyBurst(char *d, const char *s, size_t n) {
   if (n >= 8 && n <= 16) {
      memcpy(d, s, 8);
      memcpy(d + n - 8, s + n - 8, 8);
   } else if (n >= 4 && n < 8) {
      memcpy(d, s, 4);
      memcpy(d + n - 4, s + n - 4, 4);
   } else if (n < 4) {
      for (size_t i = 0; i < n; i++) {
         d[i] = s[i];
      }
   } else {
      memcpy(d, s, n);
   }
}
#pragma GCC diagnostic pop

// Emits one piece of output: straight into the room left when it fits.
inline void BSDFmt_SPrint(Sink &sink, const char *p, size_t n) {
   sink.total += n;
   if (n <= sink.room) [[likely]] {
      CopyBurst(sink.buf + sink.used, p, n);
      sink.used += n;
      sink.room -= n;
      return;
   }
   BSDFmt_SFVWrite(sink, p, n);
}

// n copies of a 16-byte run's character.
inline void Pad(Sink &sink, int64_t n, const char *with) {
   if (n <= 0) [[likely]] {
      return;
   }
   while (n > 16) {
      if (!sink.allocating && sink.room == 0) {
         // A full caller's buffer only counts.
         sink.total += static_cast<size_t>(n);
         return;
      }
      BSDFmt_SPrint(sink, with, 16);
      n -= 16;
   }
   BSDFmt_SPrint(sink, with, static_cast<size_t>(n));
}

// The digits [p, end) cut or padded with with to exactly n bytes.
inline void PrintAndPad(Sink &sink, const char *p, const char *end, int64_t n,
                        const char *with) {
   int64_t have = p < end ? end - p : 0;
   if (have > n) {
      have = n;
   }
   if (have > 0) {
      BSDFmt_SPrint(sink, p, static_cast<size_t>(have));
   }
   Pad(sink, n - have, with);
}

/*
 * Locale parameters of one call. The current locale's are read on first
 * use, so that formats without floating point or grouping never pay for
 * localeconv.
 */
struct LocaleParams {
   const char *decimalPoint;
   size_t decimalLength;
   const char *grouping;  // null or "" for none
   char thousandsSep;
   bool pending;  // still to be read from the current locale
};

void LoadLocale(LocaleParams &locale) {
   if (locale.pending) {
      const struct lconv *lc = localeconv();
      locale.decimalPoint = lc->decimal_point;
      const char *point = lc->decimal_point;
      locale.decimalLength = point[0] != '\0' && point[1] == '\0' ? 1 : strlen(point);
      locale.thousandsSep = lc->thousands_sep[0];
      locale.grouping = lc->grouping;
      locale.pending = false;
   }
}

// A grouping byte that ends grouping: CHAR_MAX, and anything not positive.
inline bool GroupingStops(char group) { return group <= 0 || group == CHAR_MAX; }

/*
 * Converts val to digits ending just before endp and returns where they
 * begin. Bases 8, 10 and 16 only; any other base aborts. In base 10 with a
 * grouping, thousep goes between the groups the grouping describes (the last
 * group size repeats).
 */
char *BSDFmt_UJToA(uintmax_t val, char *endp, int base, bool octzero, const char *xdigs,
                   bool needGrouping, char thousep, const char *grouping) {
   char *cp = endp;
   switch (base) {
   case 10:
      if (needGrouping && grouping != nullptr && !GroupingStops(*grouping)) {
         int ndig = 0;
         const char *grp = grouping;
         do {
            *--cp = static_cast<char>('0' + val % 10);
            ndig++;
            if (!GroupingStops(*grp) && ndig == *grp && val > 9) {
               *--cp = thousep;
               ndig = 0;
               if (grp[1] != '\0') {
                  grp++;
               }
            }
            val /= 10;
         } while (val != 0);
         break;
      }
      while (val >= 100) {
         unsigned pair = static_cast<unsigned>(val % 100);
         val /= 100;
         cp -= 2;
         memcpy(cp, &kDigitPairs.text[2 * pair], 2);
      }
      if (val >= 10) {
         cp -= 2;
         memcpy(cp, &kDigitPairs.text[2 * val], 2);
      } else {
         *--cp = static_cast<char>('0' + val);
      }
      break;
   case 8:
      do {
         *--cp = static_cast<char>('0' + (val & 7));
         val >>= 3;
      } while (val != 0);
      if (octzero && *cp != '0') {
         *--cp = '0';
      }
      break;
   case 16:
      do {
         *--cp = xdigs[val & 15];
         val >>= 4;
      } while (val != 0);
      break;
   default:
      abort();
   }
   return cp;
}

// Writes the exponent ("e+07", "E-123") and returns its length.
int BSDFmt_Exponent(char *p0, int exp, char expChar) {
   char *p = p0;
   *p++ = expChar;
   unsigned magnitude;
   if (exp < 0) {
      *p++ = '-';
      magnitude = 0u - static_cast<unsigned>(exp);
   } else {
      *p++ = '+';
      magnitude = static_cast<unsigned>(exp);
   }
   char digits[12];
   char *t = digits + sizeof digits;
   do {
      *--t = static_cast<char>('0' + magnitude % 10);
      magnitude /= 10;
   } while (magnitude != 0);
   if (digits + sizeof digits - t < 2) {
      *--t = '0';
   }
   while (t < digits + sizeof digits) {
      *p++ = *t++;
   }
   return static_cast<int>(p - p0);
}

/*
 * What each format byte means after "%". One table drives both the
 * conversion loop and the positional-argument pre-scan.
 */
enum class Kind : uint8_t {
   kFlagSpace,
   kFlagPlus,
   kFlagMinus,
   kFlagHash,
   kFlagZero,
   kFlagQuote,
   kStar,
   kDot,
   kDigit,  // 1-9: width or argument position
   kSizeH,
   kSizeL,
   kSizeLongDouble,  // "L" and "q": long long, or long double for floats
   kSizeJ,
   kSizeT,
   kSizeZ,
   kSizeI,  // "I", "I32", "I64"
   kSigned,
   kUnsigned,
   kChar,
   kString,
   kPointer,
   kCount,
   kFloat,
   kOther,  // printed itself, like "%c" of that byte
   kEnd,    // the format's terminator
};

struct ConversionInfo {
   Kind kind;
   uint8_t base;      // integer conversions
   bool forceLong;    // "D", "O", "U", "C", "S"
   bool upper;        // "X", "E", "F", "G"
};

struct ConversionTable {
   ConversionInfo entry[256];
   constexpr void Set(char c, Kind kind, uint8_t base = 0, bool forceLong = false,
                      bool upper = false) {
      entry[static_cast<unsigned char>(c)] = {kind, base, forceLong, upper};
   }
   constexpr ConversionTable() : entry() {
      for (auto &e : entry) {
         e = {Kind::kOther, 0, false, false};
      }
      Set('\0', Kind::kEnd);
      Set(' ', Kind::kFlagSpace);
      Set('+', Kind::kFlagPlus);
      Set('-', Kind::kFlagMinus);
      Set('#', Kind::kFlagHash);
      Set('0', Kind::kFlagZero);
      Set('\'', Kind::kFlagQuote);
      Set('*', Kind::kStar);
      Set('.', Kind::kDot);
      for (char c = '1'; c <= '9'; c++) {
         Set(c, Kind::kDigit);
      }
      Set('h', Kind::kSizeH);
      Set('l', Kind::kSizeL);
      Set('L', Kind::kSizeLongDouble);
      Set('q', Kind::kSizeLongDouble);
      Set('j', Kind::kSizeJ);
      Set('t', Kind::kSizeT);
      Set('z', Kind::kSizeZ);
      Set('Z', Kind::kSizeZ);
      Set('I', Kind::kSizeI);
      Set('d', Kind::kSigned, 10);
      Set('i', Kind::kSigned, 10);
      Set('D', Kind::kSigned, 10, true);
      Set('o', Kind::kUnsigned, 8);
      Set('O', Kind::kUnsigned, 8, true);
      Set('u', Kind::kUnsigned, 10);
      Set('U', Kind::kUnsigned, 10, true);
      Set('x', Kind::kUnsigned, 16);
      Set('X', Kind::kUnsigned, 16, false, true);
      Set('c', Kind::kChar);
      Set('C', Kind::kChar, 0, true);
      Set('s', Kind::kString);
      Set('S', Kind::kString, 0, true);
      Set('p', Kind::kPointer, 16);
      Set('n', Kind::kCount);
      Set('e', Kind::kFloat);
      Set('E', Kind::kFloat, 0, false, true);
      Set('f', Kind::kFloat);
      Set('F', Kind::kFloat, 0, false, true);
      Set('g', Kind::kFloat);
      Set('G', Kind::kFloat, 0, false, true);
   }
};
constexpr ConversionTable kConversions;

inline const ConversionInfo &Classify(char c) {
   return kConversions.entry[static_cast<unsigned char>(c)];
}

// The one size class of a conversion.
enum class SizeClass : uint8_t { kNone, kChar, kShort, kLong, kLongLong, kSize, kPtrdiff, kIntmax };

// Conversion flags.
enum : unsigned {
   kAlt = 1u << 0,
   kLeftAdjust = 1u << 1,
   kZeroPad = 1u << 2,
   kGrouping = 1u << 3,
   kLongDouble = 1u << 4,  // "L" or "q": a float argument is a long double
   kFloatBody = 1u << 5,   // the body is a floating-point number
};

/*
 * Applies one size-prefix character (kind, already consumed) to the size
 * class: "hh" and "ll" are the second "h" or "l" seen; "L" and "q" also mark
 * a long double; "I64" and "I32" consume their digits, any other "I" means
 * size.
 */
inline void ApplySizePrefix(Kind kind, const char *&fmt, SizeClass &size, bool &longDouble) {
   switch (kind) {
   case Kind::kSizeH:
      size = size == SizeClass::kShort ? SizeClass::kChar : SizeClass::kShort;
      break;
   case Kind::kSizeL:
      size = size == SizeClass::kLong ? SizeClass::kLongLong : SizeClass::kLong;
      break;
   case Kind::kSizeLongDouble:
      size = SizeClass::kLongLong;
      longDouble = true;
      break;
   case Kind::kSizeJ:
      size = SizeClass::kIntmax;
      break;
   case Kind::kSizeT:
      size = SizeClass::kPtrdiff;
      break;
   case Kind::kSizeZ:
      size = SizeClass::kSize;
      break;
   case Kind::kSizeI:
      if (fmt[0] == '6' && fmt[1] == '4') {
         size = SizeClass::kLongLong;
         fmt += 2;
      } else if (fmt[0] == '3' && fmt[1] == '2') {
         size = SizeClass::kNone;
         fmt += 2;
      } else {
         size = SizeClass::kSize;
      }
      break;
   default:
      break;
   }
}

// The argument type of a position, as far as fetching it is concerned.
enum class ArgType : uint8_t {
   kUnused,
   kInt,
   kLong,
   kLongLong,
   kSize,
   kPtrdiff,
   kIntmax,
   kWint,
   kDouble,
   kLongDouble,
   kPointer,
};

// One fetched positional argument, kept as raw bytes of its type.
struct Arg {
   alignas(16) unsigned char bytes[16];
};

// Reads "[digits]" into *value; false on overflow of int.
inline bool AppendDigit(int &value, char c) {
   int digit = c - '0';
   if (value > (INT_MAX - digit) / 10) {
      return false;
   }
   value = value * 10 + digit;
   return true;
}

ArgType IntegerType(SizeClass size) {
   switch (size) {
   case SizeClass::kLong:
      return ArgType::kLong;
   case SizeClass::kLongLong:
      return ArgType::kLongLong;
   case SizeClass::kSize:
      return ArgType::kSize;
   case SizeClass::kPtrdiff:
      return ArgType::kPtrdiff;
   case SizeClass::kIntmax:
      return ArgType::kIntmax;
   default:
      return ArgType::kInt;
   }
}

/*
 * The positional-argument type table: 8 entries held by the call, grown on
 * demand into an allocation. Allocation failure aborts: the arguments can
 * then no longer be fetched safely.
 */
struct TypeTable {
   ArgType fixed[kStaticArgTableSize];
   ArgType *types;
   int size;
   int max;  // highest index recorded

   TypeTable() : fixed(), types(fixed), size(kStaticArgTableSize), max(0) {}
   ~TypeTable() {
      if (types != fixed) {
         free(types);
      }
   }
   TypeTable(const TypeTable &) = delete;
   TypeTable &operator=(const TypeTable &) = delete;
};

void BSDFmt_GrowTypeTable(TypeTable &table, int needed) {
   int64_t grown = 2 * static_cast<int64_t>(table.size);
   if (grown < static_cast<int64_t>(needed) + 1) {
      grown = static_cast<int64_t>(needed) + 1;
   }
   ArgType *types;
   if (table.types == table.fixed) {
      types = static_cast<ArgType *>(Malloc(static_cast<size_t>(grown) * sizeof(ArgType)));
      if (types == nullptr) {
         abort();
      }
      memcpy(types, table.fixed, sizeof table.fixed);
   } else {
      types = static_cast<ArgType *>(
         Realloc(table.types, static_cast<size_t>(grown) * sizeof(ArgType)));
      if (types == nullptr) {
         abort();
      }
   }
   memset(types + table.size, 0, static_cast<size_t>(grown - table.size) * sizeof(ArgType));
   table.types = types;
   table.size = static_cast<int>(grown);
}

void AddType(TypeTable &table, int &nextArg, ArgType type) {
   if (nextArg >= table.size) {
      BSDFmt_GrowTypeTable(table, nextArg);
   }
   if (nextArg > table.max) {
      table.max = nextArg;
   }
   table.types[nextArg++] = type;
}

/*
 * Reads "digits$" at fmt for a "*" width or precision. Returns the position
 * (and advances fmt past the "$") or 0 when there is none.
 */
int StarPosition(const char *&fmt, bool &overflow) {
   const char *cp = fmt;
   int n = 0;
   while (*cp >= '0' && *cp <= '9') {
      if (!AppendDigit(n, *cp)) {
         overflow = true;
         return 0;
      }
      cp++;
   }
   if (*cp == '$' && cp != fmt) {
      fmt = cp + 1;
      return n;
   }
   return 0;
}

/*
 * Records the type of every argument position the format uses, following
 * the same parse as the conversion loop. Returns false on a number that
 * overflows int (the conversion loop fails on it as well).
 */
bool BSDFmt_FindArguments(const char *fmt, TypeTable &table) {
   int nextArg = 1;
   bool overflow = false;
   for (;;) {
      fmt = strchrnul(fmt, '%');
      if (*fmt == '\0') {
         return true;
      }
      fmt++;
      SizeClass size = SizeClass::kNone;
      bool longDouble = false;
      for (;;) {
         char ch = *fmt++;
         const ConversionInfo &info = Classify(ch);
         switch (info.kind) {
         case Kind::kFlagSpace:
         case Kind::kFlagPlus:
         case Kind::kFlagMinus:
         case Kind::kFlagHash:
         case Kind::kFlagZero:
         case Kind::kFlagQuote:
            continue;
         case Kind::kStar:
         case Kind::kDot: {
            if (info.kind == Kind::kDot) {
               if (*fmt != '*') {
                  while (*fmt >= '0' && *fmt <= '9') {
                     fmt++;
                  }
                  continue;
               }
               fmt++;
            }
            int position = StarPosition(fmt, overflow);
            if (overflow) {
               return false;
            }
            if (position != 0) {
               int hold = nextArg;
               nextArg = position;
               AddType(table, nextArg, ArgType::kInt);
               nextArg = hold;
            } else {
               AddType(table, nextArg, ArgType::kInt);
            }
            continue;
         }
         case Kind::kDigit: {
            int n = 0;
            fmt--;
            while (*fmt >= '0' && *fmt <= '9') {
               if (!AppendDigit(n, *fmt)) {
                  return false;
               }
               fmt++;
            }
            if (*fmt == '$') {
               fmt++;
               nextArg = n;
            }
            continue;
         }
         case Kind::kSizeH:
         case Kind::kSizeL:
         case Kind::kSizeLongDouble:
         case Kind::kSizeJ:
         case Kind::kSizeT:
         case Kind::kSizeZ:
         case Kind::kSizeI:
            ApplySizePrefix(info.kind, fmt, size, longDouble);
            continue;
         case Kind::kSigned:
         case Kind::kUnsigned:
            AddType(table, nextArg, IntegerType(info.forceLong ? SizeClass::kLong : size));
            break;
         case Kind::kChar:
            AddType(table, nextArg,
                    info.forceLong || size == SizeClass::kLong ? ArgType::kWint : ArgType::kInt);
            break;
         case Kind::kString:
         case Kind::kPointer:
         case Kind::kCount:
            AddType(table, nextArg, ArgType::kPointer);
            break;
         case Kind::kFloat:
            AddType(table, nextArg, longDouble ? ArgType::kLongDouble : ArgType::kDouble);
            break;
         case Kind::kEnd:
            return true;
         case Kind::kOther:
            break;
         }
         break;
      }
   }
}

/*
 * Where conversions take their arguments from: the va_list in order, or,
 * once a position has been seen, the table of all arguments fetched in
 * order by type.
 */
struct ArgSource {
   va_list ap;
   va_list original;  // the arguments as they were at the start
   const char *format;
   Arg fixed[kStaticArgTableSize];
   Arg *table = nullptr;
   int tableSize = 0;
   int next = 1;  // position of the next argument

   ~ArgSource() {
      if (table != nullptr && table != fixed) {
         free(table);
      }
   }

   // Switches to positional fetching; false on a malformed format.
   bool BuildTable() {
      if (table != nullptr) {
         return true;
      }
      TypeTable types;
      if (!BSDFmt_FindArguments(format, types)) {
         return false;
      }
      int count = types.max + 1;
      if (count <= kStaticArgTableSize) {
         table = fixed;
      } else {
         table = static_cast<Arg *>(Malloc(static_cast<size_t>(count) * sizeof(Arg)));
         if (table == nullptr) {
            abort();
         }
      }
      memset(table, 0, static_cast<size_t>(count) * sizeof(Arg));
      tableSize = count;
      va_list args;
      va_copy(args, original);
      for (int n = 1; n < count; n++) {
         Arg &slot = table[n];
         switch (types.types[n]) {
         case ArgType::kUnused:
         case ArgType::kInt:
            Store(slot, va_arg(args, int));
            break;
         case ArgType::kWint:
            Store(slot, va_arg(args, wint_t));
            break;
         case ArgType::kLong:
            Store(slot, va_arg(args, long));
            break;
         case ArgType::kLongLong:
            Store(slot, va_arg(args, long long));
            break;
         case ArgType::kSize:
            Store(slot, va_arg(args, size_t));
            break;
         case ArgType::kPtrdiff:
            Store(slot, va_arg(args, ptrdiff_t));
            break;
         case ArgType::kIntmax:
            Store(slot, va_arg(args, intmax_t));
            break;
         case ArgType::kDouble:
            Store(slot, va_arg(args, double));
            break;
         case ArgType::kLongDouble:
            Store(slot, va_arg(args, long double));
            break;
         case ArgType::kPointer:
            Store(slot, va_arg(args, void *));
            break;
         }
      }
      va_end(args);
      return true;
   }

   template <typename T> static void Store(Arg &slot, T value) {
      static_assert(sizeof(T) <= sizeof slot.bytes);
      memcpy(slot.bytes, &value, sizeof value);
   }

   template <typename T> T Get() {
      if (table == nullptr) {
         next++;
         return va_arg(ap, T);
      }
      int n = next++;
      T value{};
      if (n > 0 && n < tableSize) {
         memcpy(&value, table[n].bytes, sizeof value);
      }
      return value;
   }
};

intmax_t SignedArg(ArgSource &args, SizeClass size) {
   switch (size) {
   case SizeClass::kChar:
      return static_cast<signed char>(args.Get<int>());
   case SizeClass::kShort:
      return static_cast<short>(args.Get<int>());
   case SizeClass::kLong:
      return args.Get<long>();
   case SizeClass::kLongLong:
      return args.Get<long long>();
   case SizeClass::kSize:
      return static_cast<ssize_t>(args.Get<size_t>());
   case SizeClass::kPtrdiff:
      return args.Get<ptrdiff_t>();
   case SizeClass::kIntmax:
      return args.Get<intmax_t>();
   case SizeClass::kNone:
      break;
   }
   return args.Get<int>();
}

uintmax_t UnsignedArg(ArgSource &args, SizeClass size) {
   switch (size) {
   case SizeClass::kChar:
      return static_cast<unsigned char>(args.Get<int>());
   case SizeClass::kShort:
      return static_cast<unsigned short>(args.Get<int>());
   case SizeClass::kLong:
      return args.Get<unsigned long>();
   case SizeClass::kLongLong:
      return args.Get<unsigned long long>();
   case SizeClass::kSize:
      return args.Get<size_t>();
   case SizeClass::kPtrdiff:
      return static_cast<uintmax_t>(args.Get<ptrdiff_t>());
   case SizeClass::kIntmax:
      return args.Get<uintmax_t>();
   case SizeClass::kNone:
      break;
   }
   return args.Get<unsigned int>();
}

// Stores count through the "%n" pointer of the given width.
void StoreCount(ArgSource &args, SizeClass size, int count) {
   void *p = args.Get<void *>();
   switch (size) {
   case SizeClass::kChar:
      *static_cast<signed char *>(p) = static_cast<signed char>(count);
      break;
   case SizeClass::kShort:
      *static_cast<short *>(p) = static_cast<short>(count);
      break;
   case SizeClass::kLong:
      *static_cast<long *>(p) = count;
      break;
   case SizeClass::kLongLong:
      *static_cast<long long *>(p) = count;
      break;
   case SizeClass::kSize:
      *static_cast<ssize_t *>(p) = count;
      break;
   case SizeClass::kPtrdiff:
      *static_cast<ptrdiff_t *>(p) = count;
      break;
   case SizeClass::kIntmax:
      *static_cast<intmax_t *>(p) = count;
      break;
   case SizeClass::kNone:
      *static_cast<int *>(p) = count;
      break;
   }
}

// Owns a converted wide string until the conversion ends.
struct Scratch {
   char *wide = nullptr;
   ~Scratch() { Release(); }
   void Release() {
      if (wide != nullptr) {
         free(wide);
         wide = nullptr;
      }
   }
};

// True when text (after an optional "-") is "inf" or "nan" in any case.
bool IsInfOrNan(const char *text, bool &negative) {
   negative = text[0] == '-';
   const char *t = negative ? text + 1 : text;
   if (*t >= '0' && *t <= '9') {
      return false;
   }
   return strcasecmp(t, "inf") == 0 || strcasecmp(t, "nan") == 0;
}

/*
 * How the integer part of a float of expt digits is grouped: lead digits
 * first, then nseps groups taken from successive grouping bytes (walking
 * back) and nrepeats groups of the last size.
 */
struct FloatGrouping {
   int64_t lead;
   int nseps;
   int64_t nrepeats;
   const char *last;  // the grouping byte in force after the lead digits
};

FloatGrouping PlanGrouping(int64_t expt, const char *grouping) {
   FloatGrouping plan = {expt, 0, 0, grouping};
   while (!GroupingStops(*plan.last) && plan.lead > *plan.last) {
      plan.lead -= *plan.last;
      if (plan.last[1] != '\0') {
         plan.nseps++;
         plan.last++;
      } else {
         plan.nrepeats++;
      }
   }
   return plan;
}

/*
 * The engine. Returns the full length of the output or -1; the sink holds
 * what fitted.
 */
int Format(Sink &sink, LocaleParams &locale, const char *fmt0, va_list ap0) {
   ArgSource args;
   va_copy(args.ap, ap0);
   va_copy(args.original, ap0);
   args.format = fmt0;

   Scratch scratch;
   DtoaBuffer digitsBuf;
   const char *fmt = fmt0;
   bool failed = false;

   for (;;) {
      // Adjacent conversions and the format's end need no scan.
      const char *pct = *fmt == '%' || *fmt == '\0' ? fmt : strchrnul(fmt, '%');
      if (pct != fmt) {
         size_t n = static_cast<size_t>(pct - fmt);
         if (sink.total + n > INT_MAX) {
            failed = true;
            break;
         }
         BSDFmt_SPrint(sink, fmt, n);
      }
      if (*pct == '\0') {
         break;
      }
      fmt = pct + 1;

      unsigned flags = 0;
      int width = 0;
      int64_t prec = -1;
      int64_t dprec = 0;
      char sign = '\0';
      SizeClass size = SizeClass::kNone;
      char ox[2] = {'0', '\0'};
      const char *cp = nullptr;
      int64_t csize = 0;
      char expChar = '\0';
      int expSize = 0;
      int64_t expt = 0;
      int64_t ndig = 0;
      const char *digitsEnd = nullptr;
      FloatGrouping grouping = {0, 0, 0, nullptr};
      bool grouped = false;
      char buf[kNumberBufferSize];
      char expBuf[kExponentBufferSize];
      char ch;
      bool done = false;
      bool numberPending = false;
      uintmax_t ujval = 0;
      int base = 10;
      const char *xdigs = kDigitsLower;

      for (;;) {
         ch = *fmt++;
         const ConversionInfo &info = Classify(ch);
         // Flags, width, precision and size first; each loops for more.
         if (info.kind < Kind::kSigned) {
            switch (info.kind) {
            case Kind::kFlagSpace:
               if (sign == '\0') {
                  sign = ' ';
               }
               continue;
            case Kind::kFlagPlus:
               sign = '+';
               continue;
            case Kind::kFlagMinus:
               flags |= kLeftAdjust;
               continue;
            case Kind::kFlagHash:
               flags |= kAlt;
               continue;
            case Kind::kFlagZero:
               flags |= kZeroPad;
               continue;
            case Kind::kFlagQuote:
               flags |= kGrouping;
               continue;
            case Kind::kStar:
            case Kind::kDot: {
               bool isPrecision = info.kind == Kind::kDot;
               if (isPrecision) {
                  if (*fmt != '*') {
                     int n = 0;
                     while (*fmt >= '0' && *fmt <= '9') {
                        if (!AppendDigit(n, *fmt)) {
                           failed = true;
                           break;
                        }
                        fmt++;
                     }
                     if (failed) {
                        break;
                     }
                     prec = n;
                     continue;
                  }
                  fmt++;
               }
               bool overflow = false;
               int position = StarPosition(fmt, overflow);
               if (overflow) {
                  failed = true;
                  break;
               }
               int value;
               if (position != 0) {
                  if (!args.BuildTable()) {
                     failed = true;
                     break;
                  }
                  int hold = args.next;
                  args.next = position;
                  value = args.Get<int>();
                  args.next = hold;
               } else {
                  value = args.Get<int>();
               }
               if (isPrecision) {
                  prec = value < 0 ? -1 : value;
               } else if (value >= 0) {
                  width = value;
               } else if (value == INT_MIN) {
                  failed = true;
                  break;
               } else {
                  width = -value;
                  flags |= kLeftAdjust;
               }
               continue;
            }
            case Kind::kDigit: {
               int n = 0;
               fmt--;
               while (*fmt >= '0' && *fmt <= '9') {
                  if (!AppendDigit(n, *fmt)) {
                     failed = true;
                     break;
                  }
                  fmt++;
               }
               if (failed) {
                  break;
               }
               if (*fmt == '$') {
                  fmt++;
                  if (!args.BuildTable()) {
                     failed = true;
                     break;
                  }
                  args.next = n;
               } else {
                  width = n;
               }
               continue;
            }
            case Kind::kSizeH:
            case Kind::kSizeL:
            case Kind::kSizeLongDouble:
            case Kind::kSizeJ:
            case Kind::kSizeT:
            case Kind::kSizeZ:
            case Kind::kSizeI: {
               bool longDouble = false;
               ApplySizePrefix(info.kind, fmt, size, longDouble);
               if (longDouble) {
                  flags |= kLongDouble;
               }
               continue;
            }

            default:
               break;
            }
            break;  // reached only on failure
         }
         switch (info.kind) {
         case Kind::kSigned: {
            intmax_t value = SignedArg(args, info.forceLong ? SizeClass::kLong : size);
            ujval = static_cast<uintmax_t>(value);
            if (value < 0) {
               ujval = 0 - ujval;
               sign = '-';
            }
            base = 10;
            numberPending = true;
            break;
         }
         case Kind::kUnsigned:
            ujval = UnsignedArg(args, info.forceLong ? SizeClass::kLong : size);
            base = info.base;
            sign = '\0';
            if (base == 16) {
               xdigs = info.upper ? kDigitsUpper : kDigitsLower;
               // "0x"/"0X" only for a non-zero value.
               if ((flags & kAlt) != 0 && ujval != 0) {
                  ox[1] = ch;
               }
            }
            if (base != 10) {
               flags &= ~kGrouping;
            }
            numberPending = true;
            break;
         case Kind::kPointer:
            // Upper-case digits, no "0x" and no forced width: null is "0".
            ujval = reinterpret_cast<uintptr_t>(args.Get<void *>());
            base = 16;
            xdigs = kDigitsUpper;
            sign = '\0';
            flags &= ~kGrouping;
            numberPending = true;
            break;

         case Kind::kChar:
            if (info.forceLong || size == SizeClass::kLong) {
               mbstate_t state;
               memset(&state, 0, sizeof state);
               wint_t wc = args.Get<wint_t>();
               size_t n = wcrtomb(buf, static_cast<wchar_t>(wc), &state);
               if (n == static_cast<size_t>(-1)) {
                  failed = true;
                  break;
               }
               csize = static_cast<int64_t>(n);
            } else {
               buf[0] = static_cast<char>(args.Get<int>());
               csize = 1;
            }
            cp = buf;
            sign = '\0';
            break;

         case Kind::kString: {
            if (info.forceLong || size == SizeClass::kLong) {
               const wchar_t *wide = args.Get<const wchar_t *>();
               if (wide == nullptr) {
                  cp = "(null)";
               } else {
                  scratch.wide = BSDFmt_WCharToUTF8(
                     wide, prec < 0 ? -1 : static_cast<int>(prec > INT_MAX ? INT_MAX : prec));
                  if (scratch.wide == nullptr) {
                     failed = true;
                     break;
                  }
                  cp = scratch.wide;
               }
            } else {
               cp = args.Get<const char *>();
               if (cp == nullptr) {
                  cp = "(null)";
               }
            }
            if (prec >= 0 && scratch.wide == nullptr) {
               // At most prec bytes, and never a partial character at the end
               // of what is taken, whether the precision or the terminator
               // ended it. (A converted wide string is already cut.)
               csize = static_cast<int64_t>(
                  Utf8BoundaryLength(cp, strnlen(cp, static_cast<size_t>(prec))));
            } else {
               csize = static_cast<int64_t>(strlen(cp));
            }
            sign = '\0';
            break;
         }

         case Kind::kCount:
            StoreCount(args, size, static_cast<int>(sink.total));
            done = true;
            break;

         case Kind::kFloat: {
            LoadLocale(locale);
            char lower = static_cast<char>(ch | 0x20);
            if (lower == 'e') {
               expChar = ch;
               prec = prec < 0 ? kDefaultPrecision + 1 : prec + 1;
            } else if (lower == 'f') {
               expChar = '\0';
            } else {
               expChar = static_cast<char>(ch - ('g' - 'e'));
               if (prec == 0) {
                  prec = 1;
               }
            }
            if (prec < 0) {
               prec = kDefaultPrecision;
            }
            int ndigitsAsked = static_cast<int>(prec > INT_MAX ? INT_MAX : prec);
            int decpt = 0;
            int signFlag = 0;
            char *end = nullptr;
            if ((flags & kLongDouble) != 0) {
               cp = ldtoa(args.Get<long double>(), expChar ? 2 : 3, ndigitsAsked, &decpt,
                          &signFlag, &end, digitsBuf);
            } else {
               cp = dtoa(args.Get<double>(), expChar ? 2 : 3, ndigitsAsked, &decpt, &signFlag,
                         &end, digitsBuf);
            }
            bool negative = false;
            if (decpt == 9999 || IsInfOrNan(cp, negative)) {
               bool nan = strcasestr(cp, "nan") != nullptr || (decpt == 9999 && *cp == 'N');
               if (negative || signFlag) {
                  sign = '-';
               }
               cp = nan ? (info.upper ? "NAN" : "nan") : (info.upper ? "INF" : "inf");
               csize = 3;
               flags &= ~kZeroPad;
               break;
            }
            flags |= kFloatBody;
            if (signFlag) {
               sign = '-';
            }
            expt = decpt;
            digitsEnd = end;
            ndig = end - cp;
            if (expChar != '\0' && ndig == 0) {
               // The exponent form always shows a first digit.
               cp = "0";
               digitsEnd = cp + 1;
               ndig = 1;
            }
            if (lower == 'g') {
               if (expt > -4 && expt <= prec) {
                  // Plain notation; "#" keeps the trailing zeros.
                  expChar = '\0';
                  if ((flags & kAlt) != 0) {
                     prec -= expt;
                  } else {
                     prec = ndig - expt;
                  }
                  if (prec < 0) {
                     prec = 0;
                  }
               } else if ((flags & kAlt) == 0) {
                  prec = ndig;
               }
            }
            if (expChar != '\0') {
               expSize = BSDFmt_Exponent(expBuf, static_cast<int>(expt - 1), expChar);
               csize = expSize + prec;
               if (prec > 1 || (flags & kAlt) != 0) {
                  csize += static_cast<int64_t>(locale.decimalLength);
               }
            } else {
               csize = expt > 0 ? expt : 1;
               if (prec != 0 || (flags & kAlt) != 0) {
                  csize += prec + static_cast<int64_t>(locale.decimalLength);
               }
               if ((flags & kGrouping) != 0 && expt > 0) {
                  if (locale.grouping != nullptr && !GroupingStops(*locale.grouping)) {
                     grouping = PlanGrouping(expt, locale.grouping);
                     grouped = true;
                     csize += grouping.nseps + grouping.nrepeats;
                  }
               }
            }
            break;
         }

         case Kind::kEnd:
            done = true;
            fmt--;
            break;
         case Kind::kOther:
            // Printed itself, like "%c" of it.
            buf[0] = ch;
            cp = buf;
            csize = 1;
            sign = '\0';
            break;
         default:
            break;
         }
         break;
      }
      if (failed) {
         break;
      }
      if (done) {
         if (*fmt == '\0') {
            break;
         }
         continue;
      }

      if (numberPending) {
         // An explicit precision turns zero padding off; a zero value with
         // precision 0 has no digits (except the octal "#" zero).
         dprec = prec;
         if (dprec >= 0) {
            flags &= ~kZeroPad;
         }
         char *endp = buf + sizeof buf;
         cp = endp;
         if (ujval != 0 || prec != 0 || ((flags & kAlt) != 0 && base == 8)) {
            bool group = (flags & kGrouping) != 0 && base == 10;
            if (group) {
               LoadLocale(locale);
            }
            cp = BSDFmt_UJToA(ujval, endp, base, (flags & kAlt) != 0, xdigs, group,
                              locale.thousandsSep, locale.grouping);
         }
         csize = endp - cp;
      }

      int64_t realsz = dprec > csize ? dprec : csize;
      if (sign != '\0') {
         realsz++;
      }
      if (ox[1] != '\0') {
         realsz += 2;
      }
      int64_t prsize = width > realsz ? width : realsz;
      if (sink.total + static_cast<uint64_t>(prsize) > INT_MAX) {
         failed = true;
         break;
      }

      if ((flags & (kLeftAdjust | kZeroPad)) == 0) {
         Pad(sink, width - realsz, kBlanks);
      }
      if (sign != '\0') {
         BSDFmt_SPrint(sink, &sign, 1);
      }
      if (ox[1] != '\0') {
         BSDFmt_SPrint(sink, ox, 2);
      }
      if ((flags & (kLeftAdjust | kZeroPad)) == kZeroPad) {
         Pad(sink, width - realsz, kZeroes);
      }
      Pad(sink, dprec - csize, kZeroes);

      if ((flags & kFloatBody) == 0) {
         BSDFmt_SPrint(sink, cp, static_cast<size_t>(csize));
      } else if (expChar == '\0') {
         const char *decimal = locale.decimalPoint;
         size_t decimalLength = locale.decimalLength;
         if (expt <= 0) {
            BSDFmt_SPrint(sink, kZeroes, 1);
            if (prec != 0 || (flags & kAlt) != 0) {
               BSDFmt_SPrint(sink, decimal, decimalLength);
            }
            Pad(sink, -expt, kZeroes);
            // The leading zeros count towards the precision.
            prec += expt;
         } else {
            int64_t lead = grouped ? grouping.lead : expt;
            PrintAndPad(sink, cp, digitsEnd, lead, kZeroes);
            cp += lead < ndig ? lead : ndig;
            if (grouped) {
               const char *g = grouping.last;
               int nseps = grouping.nseps;
               int64_t nrepeats = grouping.nrepeats;
               while (nseps > 0 || nrepeats > 0) {
                  if (nrepeats > 0) {
                     nrepeats--;
                  } else {
                     g--;
                     nseps--;
                  }
                  BSDFmt_SPrint(sink, &locale.thousandsSep, 1);
                  const char *from = cp;
                  PrintAndPad(sink, from, digitsEnd, *g, kZeroes);
                  int64_t step = *g;
                  int64_t left = digitsEnd - cp;
                  cp += step < left ? step : left;
               }
            }
            if (prec != 0 || (flags & kAlt) != 0) {
               BSDFmt_SPrint(sink, decimal, decimalLength);
            }
         }
         PrintAndPad(sink, cp, digitsEnd, prec, kZeroes);
      } else {
         // d.ddde+XX, or dE+XX when no digits follow the point.
         if (prec > 1 || (flags & kAlt) != 0) {
            BSDFmt_SPrint(sink, cp, 1);
            BSDFmt_SPrint(sink, locale.decimalPoint, locale.decimalLength);
            BSDFmt_SPrint(sink, cp + 1, static_cast<size_t>(ndig - 1));
            Pad(sink, prec - ndig, kZeroes);
         } else {
            BSDFmt_SPrint(sink, cp, 1);
         }
         BSDFmt_SPrint(sink, expBuf, static_cast<size_t>(expSize));
      }

      if ((flags & kLeftAdjust) != 0) {
         Pad(sink, width - realsz, kBlanks);
      }
      scratch.Release();
   }

   va_end(args.ap);
   va_end(args.original);
   if (failed || sink.error || sink.total > INT_MAX) {
      return -1;
   }
   return static_cast<int>(sink.total);
}

// Runs the engine over either form of sink and terminates the output.
int Run(char **outbuf, size_t size, LocaleParams &locale, const char *format, va_list ap) {
   Sink sink;
   sink.used = 0;
   sink.total = 0;
   sink.error = false;
   if (*outbuf == nullptr) {
      // First capacity from the format's length, so that short results
      // never grow: the next multiple of 64 above it.
      size_t length = strlen(format);
      sink.capacity = length == 0 ? 1 : (length + 64) / 64 * 64;
      sink.allocating = true;
      sink.buf = static_cast<char *>(Malloc(sink.capacity));
      if (sink.buf == nullptr) {
         return -1;
      }
   } else {
      sink.capacity = size;
      sink.allocating = false;
      sink.buf = *outbuf;
   }

   sink.room = sink.capacity == 0 ? 0 : sink.capacity - 1;
   int result = Format(sink, locale, format, ap);

   if (sink.allocating) {
      if (result < 0) {
         free(sink.buf);
         return -1;
      }
      sink.buf[sink.used] = '\0';
      *outbuf = sink.buf;
      return result;
   }
   if (sink.capacity != 0) {
      sink.buf[sink.used] = '\0';
   }
   return result;
}

}  // namespace

// ---------------------------------------------------------------------------

size_t Utf8BoundaryLength(const char *text, size_t p) {
   if (p == 0) {
      return 0;
   }
   auto *s = reinterpret_cast<const unsigned char *>(text);
   size_t i = p - 1;
   while (i > 0 && (s[i] & 0xC0) == 0x80) {
      i--;
   }
   if (s[i] < 0x80) {
      return p;
   }
   size_t n = p - i;
   size_t ones = 0;
   for (unsigned bit = 0x80; bit != 0 && (s[i] & bit) != 0; bit >>= 1) {
      ones++;
   }
   return n <= 7 && ones == n ? p : i;
}

namespace {

/*
 * fcvt's result for ndigits >= 1, computed exactly where that is cheap: a
 * finite value below 2^53 in magnitude, in the default rounding mode.
 * Otherwise false, and fcvt_r does the work.
 *
 * fcvt prints |value| with min(ndigits, 17) digits after the point, rounded
 * half to even on the exact binary value, and returns those digits without
 * the point and without leading zeros (a zero value keeps "0" and its
 * zeros). With |value| = m / 2^k (m below 2^53), that is the integer
 * q = round(m * 10^nd / 2^k), which fits in 128 bits.
 */
bool FixedDigitsExact(double value, int ndigits, int *decpt, int *sign, char *text) {
   if (!std::isfinite(value) || std::fabs(value) >= 0x1p53 || fegetround() != FE_TONEAREST) {
      return false;
   }
   static constexpr uint64_t kPow10[18] = {
      1, 10, 100, 1000, 10000, 100000, 1000000, 10000000, 100000000, 1000000000,
      10000000000, 100000000000, 1000000000000, 10000000000000, 100000000000000,
      1000000000000000, 10000000000000000, 100000000000000000};
   const int nd = ndigits < 17 ? ndigits : 17;
   int exponent;
   double fraction = std::frexp(std::fabs(value), &exponent);
   auto m = static_cast<uint64_t>(std::ldexp(fraction, 53));
   const int k = 53 - exponent;  // at least 0
   unsigned __int128 scaled = static_cast<unsigned __int128>(m) * kPow10[nd];  // below 2^110
   unsigned __int128 q = 0;
   if (k == 0) {
      q = scaled;
   } else if (k < 112) {  // from 112 on, scaled / 2^k is below a quarter
      q = scaled >> k;
      unsigned __int128 rest = scaled - (q << k), half = static_cast<unsigned __int128>(1) << (k - 1);
      if (rest > half || (rest == half && (q & 1) != 0)) {
         q++;
      }
   }
   char digits[40];
   char *end = digits + sizeof digits, *p = end;
   auto put = [&p](uint64_t v, int width) {  // at least width digits
      for (int i = 0; i < width || v != 0; i++) {
         *--p = static_cast<char>('0' + v % 10);
         v /= 10;
      }
   };
   constexpr uint64_t kTen19 = 10000000000000000000u;
   if ((q >> 64) != 0) {
      put(static_cast<uint64_t>(q % kTen19), 19);
      put(static_cast<uint64_t>(q / kTen19), 1);
   } else {
      put(static_cast<uint64_t>(q), 1);
   }
   auto length = static_cast<int>(end - p);
   *sign = std::signbit(value) ? 1 : 0;
   if (value == 0) {
      memset(text, '0', static_cast<size_t>(nd) + 1);
      text[nd + 1] = '\0';
      *decpt = 1;
   } else if (q == 0) {
      text[0] = '\0';
      *decpt = -nd;
   } else {
      memcpy(text, p, static_cast<size_t>(length));
      text[length] = '\0';
      *decpt = length - nd;
   }
   return true;
}

}  // namespace

char *dtoa(double value, int mode, int ndigits, int *decpt, int *sign, char **rve,
           DtoaBuffer &buf) {
   char *text = buf.digits;
   bool dropLast = false;
   // The reentrant forms fill the caller's buffer with exactly the digits
   // ecvt and fcvt would leave in their static one; the buffer is large
   // enough that they never fail.
   if (mode == 2) {
      ecvt_r(value, ndigits, decpt, sign, text, sizeof buf.digits);
   } else {
      if (ndigits <= 0) {
         // No digits after the point: round half away from zero here, as
         // fcvt would round half to even; then drop fcvt's one fraction digit.
         value = std::trunc(value + std::copysign(0.49999999999999994, value));
         ndigits = 1;
         dropLast = true;
      }
      if (!FixedDigitsExact(value, ndigits, decpt, sign, text)) {
         fcvt_r(value, ndigits, decpt, sign, text, sizeof buf.digits);
      }
   }
   size_t length = strlen(text);
   if (dropLast && length > 0 && text[length - 1] >= '0' && text[length - 1] <= '9') {
      text[--length] = '\0';
   }
   char *end = text + length;
   if (length > 0 && text[0] >= '0' && text[0] <= '9') {
      while (end > text + 1 && end[-1] == '0') {
         end--;
      }
   }
   *rve = end;
   return text;
}

char *ldtoa(long double value, int mode, int ndigits, int *decpt, int *sign, char **rve,
            DtoaBuffer &buf) {
   return dtoa(static_cast<double>(value), mode, ndigits, decpt, sign, rve, buf);
}

}  // namespace halcyx::bsdfmt

using halcyx::bsdfmt::LocaleParams;

extern "C" {

char *BSDFmt_WCharToUTF8(const wchar_t *wideString, int precision) {
   size_t wideLength = wcslen(wideString);
   size_t capacity = 4 * wideLength;
   bool limited = precision >= 0;
   size_t limit = limited ? static_cast<size_t>(precision) : 0;
   if (limited && limit < capacity) {
      capacity = limit;
   }
   auto *out = static_cast<char *>(halcyx::Malloc(capacity + 4));
   if (out == nullptr) {
      return nullptr;
   }
   auto *source = reinterpret_cast<const UTF32 *>(wideString);
   const UTF32 *sourceEnd = source + wideLength;
   size_t used = 0;
   for (;;) {
      auto *target = reinterpret_cast<UTF8 *>(out) + used;
      auto *targetEnd = reinterpret_cast<UTF8 *>(out) + capacity;
      ConversionResult result =
         ConvertUTF32toUTF8(&source, sourceEnd, &target, targetEnd, lenientConversion);
      used = static_cast<size_t>(reinterpret_cast<char *>(target) - out);
      if (result == targetExhausted) {
         if (limited && capacity == limit) {
            // Cut at the last whole character within the precision.
            break;
         }
         size_t grown = 2 * capacity;
         if (limited && grown > limit) {
            grown = limit;
         }
         auto *bigger = static_cast<char *>(halcyx::Realloc(out, grown + 4));
         if (bigger == nullptr) {
            free(out);
            return nullptr;
         }
         out = bigger;
         capacity = grown;
         continue;
      }
      if (result != conversionOK && result != sourceExhausted && result != sourceIllegal) {
         halcyx::PanicNotImplemented(halcyx::bsdfmt::kModulePath, 424);
      }
      break;
   }
   memset(out + used, 0, 4);
   return out;
}

int bsd_vsnprintf_core(char **outbuf, char *grouping, char thousandsSep, char *decimalPoint,
                       size_t size, const char *format, va_list ap) {
   const char *point = decimalPoint != nullptr ? decimalPoint : ".";
   LocaleParams locale = {point, strlen(point), grouping, thousandsSep, false};
   return halcyx::bsdfmt::Run(outbuf, size, locale, format, ap);
}

int bsd_vsnprintf(char **outbuf, size_t size, const char *format, va_list ap) {
   LocaleParams locale = {".", 1, nullptr, '\0', true};
   return halcyx::bsdfmt::Run(outbuf, size, locale, format, ap);
}

int bsd_vsnprintf_c_locale(char **outbuf, size_t size, const char *format, va_list ap) {
   LocaleParams locale = {".", 1, nullptr, ',', false};
   return halcyx::bsdfmt::Run(outbuf, size, locale, format, ap);
}

}  // extern "C"
