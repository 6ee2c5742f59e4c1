// Fuzzes the formatting engine with arbitrary formats and arguments of the
// types those formats ask for.
//
// Input: one byte choosing the caller's buffer size, the format (up to the
// first NUL byte), then the bytes the argument values are drawn from.
//
// The harness parses the format with the engine's grammar to learn the C
// type of every argument it will read, and passes exactly those types, so
// every call is well defined. Formats whose arguments cannot be supplied
// that way are skipped: more than 16 arguments, positions mixed with
// sequential arguments, gaps or conflicting types between positions, size
// prefixes whose argument type is not settled for a conversion, and numbers
// above 4096 in widths, precisions or positions (to bound the output).
//
// Checked for every input (a failure prints the case and aborts):
// - Str_Vsnprintf returns -1 or a length below the size, never writes past
//   the buffer (the buffer has exactly that size), leaves a size-0 buffer
//   alone, and on success holds exactly the allocating form's output;
// - on truncation it holds the longest prefix of that output that fits and
//   does not end inside a UTF-8 sequence (the engine's boundary rule);
// - the allocating forms (Str_Vasprintf, bsd_vsnprintf_c_locale in the C
//   locale) and the raw engine into the caller's buffer agree on length and
//   bytes, and all fail together;
// - every "%n" stores the same count in every form, within the output, and
//   through a pointer of exactly its size class (each target is a separate
//   allocation of that size).
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <optional>
#include <string>
#include <sys/types.h>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>
#include <wchar.h>

#include "bsd_output.h"
#include "str.h"

namespace {

constexpr size_t kMaxInput = 4096;
constexpr size_t kMaxFormat = 512;
constexpr int kMaxArgs = 16;
constexpr int kMaxNumber = 4096;

// The argument types the engine reads. The size-class aliases are the same
// types as these on this C library; the static assertions keep it honest.
enum class Kind {
   kInt, kUnsigned, kLong, kULong, kLLong, kULLong, kDouble, kLDouble,
   kStr, kWStr, kPtr, kNChar, kNShort, kNInt, kNLong, kNLLong, kNSize,
};
static_assert(std::is_same_v<intmax_t, long> && std::is_same_v<ptrdiff_t, long> &&
              std::is_same_v<ssize_t, long> && std::is_same_v<size_t, unsigned long> &&
              std::is_same_v<uintmax_t, unsigned long> && std::is_same_v<wint_t, unsigned>,
              "the harness maps size classes onto long and unsigned long");

using Arg = std::variant<int, unsigned, long, unsigned long, long long, unsigned long long,
                         double, long double, const char *, const wchar_t *, void *,
                         signed char *, short *, int *, long *, long long *, size_t *>;
// The types a three-argument call may use.
using CoreArg = std::variant<int, unsigned, long long, double, const char *>;

// ---------------------------------------------------------------------------
// The format grammar, as far as argument types go.

enum class Size { kNone, kChar, kShort, kLong, kLongLong, kLongDouble, kSize, kPtrdiff, kIntmax };

// The argument kind of a conversion character with a size class; false when
// the conversion reads no argument, *skip when the combination is not
// settled.
bool KindOf(char conv, Size size, bool sized, Kind *kind, bool *skip) {
   auto integer = [&](bool isSigned) {
      switch (size) {
      case Size::kNone:
      case Size::kChar:
      case Size::kShort: return isSigned || size != Size::kNone ? Kind::kInt : Kind::kUnsigned;
      case Size::kLong:
      case Size::kSize:
      case Size::kPtrdiff:
      case Size::kIntmax: return isSigned ? Kind::kLong : Kind::kULong;
      case Size::kLongLong:
      case Size::kLongDouble: return isSigned ? Kind::kLLong : Kind::kULLong;
      }
      return Kind::kInt;
   };
   *skip = false;
   switch (conv) {
   case 'd': case 'i': *kind = integer(true); return true;
   case 'o': case 'u': case 'x': case 'X': *kind = integer(false); return true;
   case 'D': *skip = sized; *kind = Kind::kLong; return true;
   case 'O': case 'U': *skip = sized; *kind = Kind::kULong; return true;
   case 'c':
      *skip = size != Size::kNone && size != Size::kLong;
      *kind = size == Size::kLong ? Kind::kUnsigned : Kind::kInt;  // wint_t or int
      return true;
   case 'C': *skip = sized; *kind = Kind::kUnsigned; return true;
   case 's':
      *skip = size != Size::kNone && size != Size::kLong;
      *kind = size == Size::kLong ? Kind::kWStr : Kind::kStr;
      return true;
   case 'S': *skip = sized; *kind = Kind::kWStr; return true;
   case 'p': *skip = sized; *kind = Kind::kPtr; return true;
   case 'n':
      switch (size) {
      case Size::kNone: *kind = Kind::kNInt; break;
      case Size::kChar: *kind = Kind::kNChar; break;
      case Size::kShort: *kind = Kind::kNShort; break;
      case Size::kLong: case Size::kPtrdiff: case Size::kIntmax: *kind = Kind::kNLong; break;
      case Size::kLongLong: case Size::kLongDouble: *kind = Kind::kNLLong; break;
      case Size::kSize: *kind = Kind::kNSize; break;
      }
      return true;
   case 'e': case 'E': case 'f': case 'F': case 'g': case 'G':
      *skip = size != Size::kNone && size != Size::kLong && size != Size::kLongDouble;
      *kind = size == Size::kLongDouble ? Kind::kLDouble : Kind::kDouble;
      return true;
   default: return false;
   }
}

struct Signature {
   std::vector<Kind> kinds;  // argument i + 1
   std::vector<bool> used;
   std::vector<bool> dimension;  // read by a "*" width or precision
   bool positional = false;
   bool sequential = false;

   bool Add(int position, Kind kind, bool isDimension = false) {
      if (position < 1 || position > kMaxArgs) {
         return false;
      }
      size_t i = static_cast<size_t>(position - 1);
      if (kinds.size() <= i) {
         kinds.resize(i + 1, Kind::kInt);
         used.resize(i + 1, false);
         dimension.resize(i + 1, false);
      }
      if (used[i] && kinds[i] != kind) {
         return false;
      }
      kinds[i] = kind;
      used[i] = true;
      dimension[i] = dimension[i] || isDimension;
      return true;
   }
};

// Reads the digits at p; false when their value is above kMaxNumber.
bool ReadNumber(const char *&p, int *value) {
   bool small = true;
   *value = 0;
   while (*p >= '0' && *p <= '9') {
      small = small && *value * 10 + (*p - '0') <= kMaxNumber;
      *value = small ? *value * 10 + (*p - '0') : 0;
      p++;
   }
   return small;
}

// Records the arguments of the conversion after a "%" and leaves fmt after
// it, in the engine's grammar: flags, widths, precisions and size prefixes
// in any order up to the conversion character; "n$" after digits selects a
// position, also after a "*"; a "*" followed by digits without "$" is a
// sequential "*" and the digits are a width. False when the harness cannot
// supply the arguments (fmt still ends up after the conversion). *end is
// set when the format ends inside the conversion.
bool ParseConversion(const char *&fmt, Signature *sig, int *next, bool *end) {
   Size size = Size::kNone;
   bool sized = false;
   int position = 0;
   bool ok = true;
   for (;;) {
      char ch = *fmt++;
      switch (ch) {
      case ' ': case '+': case '-': case '#': case '0': case '\'':
         continue;
      case '.':
         if (*fmt != '*') {
            int ignored;
            ok = ReadNumber(fmt, &ignored) && ok;
            continue;
         }
         fmt++;
         [[fallthrough]];
      case '*': {
         const char *cp = fmt;
         int n;
         bool small = ReadNumber(cp, &n);
         if (*cp == '$' && cp != fmt) {
            fmt = cp + 1;
            sig->positional = true;
            ok = small && sig->Add(n, Kind::kInt, true) && ok;
         } else {
            sig->sequential = true;
            ok = sig->Add((*next)++, Kind::kInt, true) && ok;
         }
         continue;
      }
      case '1': case '2': case '3': case '4': case '5': case '6': case '7': case '8': case '9': {
         fmt--;
         int n;
         ok = ReadNumber(fmt, &n) && ok;
         if (*fmt == '$') {
            // Any position switches the engine to positional arguments, even
            // in a conversion that reads none.
            fmt++;
            sig->positional = true;
            ok = ok && position == 0;  // a second position in one conversion
            position = n;
         }
         continue;
      }
      case 'h': case 'l': case 'L': case 'q': case 'j': case 't': case 'z': case 'Z': case 'I':
         ok = ok && !sized;  // combined size prefixes
         sized = true;
         switch (ch) {
         case 'h':
            size = *fmt == 'h' ? (fmt++, Size::kChar) : Size::kShort;
            break;
         case 'l':
            size = *fmt == 'l' ? (fmt++, Size::kLongLong) : Size::kLong;
            break;
         case 'L': case 'q': size = Size::kLongDouble; break;
         case 'j': size = Size::kIntmax; break;
         case 't': size = Size::kPtrdiff; break;
         case 'z': case 'Z': size = Size::kSize; break;
         default:
            if (fmt[0] == '6' && fmt[1] == '4') {
               size = Size::kLongLong;
               fmt += 2;
            } else if (fmt[0] == '3' && fmt[1] == '2') {
               size = Size::kNone;
               sized = false;  // "I32" is no prefix at all
               fmt += 2;
            } else {
               size = Size::kSize;
            }
            break;
         }
         continue;
      case '\0':
         // A NUL inside a conversion ends the output.
         fmt--;
         *end = true;
         return ok;
      default: {
         Kind kind;
         bool skip;
         if (KindOf(ch, size, sized, &kind, &skip)) {
            ok = ok && !skip;
            if (position != 0) {
               sig->positional = true;
               ok = sig->Add(position, kind) && ok;
            } else {
               sig->sequential = true;
               ok = sig->Add((*next)++, kind) && ok;
            }
         }
         return ok;
      }
      }
   }
}

// The type of every argument the whole format reads; false when the
// harness cannot supply them.
bool ParseSignature(const char *fmt, Signature *sig) {
   int next = 1;
   bool end = false;
   while (!end && (fmt = strchr(fmt, '%')) != nullptr) {
      fmt++;
      if (!ParseConversion(fmt, sig, &next, &end)) {
         return false;
      }
   }
   if (sig->positional && sig->sequential) {
      return false;
   }
   for (bool u : sig->used) {
      if (!u) {
         return false;  // a position no conversion reads
      }
   }
   return true;
}

// The format cut into pieces of literal text followed by one conversion
// each (the last piece may be text only).
std::vector<std::string> Pieces(const char *fmt) {
   std::vector<std::string> pieces;
   const char *start = fmt;
   const char *p = fmt;
   bool end = false;
   while (!end && (p = strchr(p, '%')) != nullptr) {
      p++;
      Signature ignored;
      int next = 1;
      ParseConversion(p, &ignored, &next, &end);
      pieces.emplace_back(start, p);
      start = p;
   }
   if (*start != '\0') {
      pieces.emplace_back(start);
   }
   return pieces;
}

// ---------------------------------------------------------------------------
// Argument values.

class Bytes {
public:
   Bytes(const uint8_t *data, size_t size) : data_(data), size_(size) {}
   uint8_t Byte() { return pos_ < size_ ? data_[pos_++] : 0; }
   uint64_t Word(size_t n) {
      uint64_t v = 0;
      for (size_t i = 0; i < n; i++) {
         v = v << 8 | Byte();
      }
      return v;
   }

private:
   const uint8_t *data_;
   size_t size_;
   size_t pos_ = 0;
};

// Owns the strings, wide strings and "%n" targets of one input.
struct Storage {
   std::deque<std::string> strings;
   std::deque<std::vector<wchar_t>> wide;
   // Each "%n" target is its own allocation of exactly its type's size.
   std::vector<void *> targets;
   std::vector<Kind> targetKinds;

   ~Storage() {
      for (void *t : targets) {
         free(t);
      }
   }
};

const char *const kStrings[] = {
   "", "a", "hello", "%d%s%n", "caf\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x98\x80",
   "ab\xe2\x82\xac", "\xc3", "\x80\x80", "\xe2\x82", "\xff\xfe",
   "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef",
};
const wchar_t kWide0[] = L"";
const wchar_t kWide1[] = L"wide";
const wchar_t kWide2[] = {0xe9, 0x20ac, 0x1f600, 'x', 0};
const wchar_t kWide3[] = {0xd800, 0xdfff, 0x110000, 0x7fffffff, 0};
const wchar_t *const kWideStrings[] = {kWide0, kWide1, kWide2, kWide3};

template <class T>
T Target(Storage &store, Kind kind) {
   using Pointee = std::remove_pointer_t<T>;
   auto *p = static_cast<Pointee *>(malloc(sizeof(Pointee)));
   *p = 0;
   store.targets.push_back(p);
   store.targetKinds.push_back(kind);
   return p;
}

int Dimension(Bytes &in) {
   // A "*" width or precision stays within the cap on numbers.
   return static_cast<int>(static_cast<int16_t>(in.Word(2)) % (kMaxNumber + 1));
}

Arg MakeArg(Kind kind, bool dimension, Bytes &in, Storage &store) {
   switch (kind) {
   case Kind::kInt:
      return dimension ? Dimension(in) : static_cast<int>(in.Word(4));
   case Kind::kUnsigned: return static_cast<unsigned>(in.Word(4));
   case Kind::kLong: return static_cast<long>(in.Word(8));
   case Kind::kULong: return static_cast<unsigned long>(in.Word(8));
   case Kind::kLLong: return static_cast<long long>(in.Word(8));
   case Kind::kULLong: return static_cast<unsigned long long>(in.Word(8));
   case Kind::kDouble:
   case Kind::kLDouble: {
      uint64_t bits = in.Word(8);
      double d;
      memcpy(&d, &bits, sizeof d);
      return kind == Kind::kDouble ? Arg{d} : Arg{static_cast<long double>(d)};
   }
   case Kind::kStr: {
      uint8_t b = in.Byte();
      if (b == 0xff) {
         return static_cast<const char *>(nullptr);
      }
      if (b < 0x80) {
         return kStrings[b % std::size(kStrings)];
      }
      std::string s;
      for (size_t n = b & 0x3f; n > 0; n--) {
         s += static_cast<char>(in.Byte() | 1);  // never NUL
      }
      store.strings.push_back(std::move(s));
      return store.strings.back().c_str();
   }
   case Kind::kWStr: {
      uint8_t b = in.Byte();
      if (b == 0xff) {
         return static_cast<const wchar_t *>(nullptr);
      }
      if (b < 0x80) {
         return kWideStrings[b % std::size(kWideStrings)];
      }
      std::vector<wchar_t> w;
      for (size_t n = b & 0x1f; n > 0; n--) {
         wchar_t c = static_cast<wchar_t>(in.Word(3));
         w.push_back(c == 0 ? L'0' : c);
      }
      w.push_back(0);
      store.wide.push_back(std::move(w));
      return static_cast<const wchar_t *>(store.wide.back().data());
   }
   case Kind::kPtr: return reinterpret_cast<void *>(static_cast<uintptr_t>(in.Word(8)));
   case Kind::kNChar: return Target<signed char *>(store, kind);
   case Kind::kNShort: return Target<short *>(store, kind);
   case Kind::kNInt: return Target<int *>(store, kind);
   case Kind::kNLong: return Target<long *>(store, kind);
   case Kind::kNLLong: return Target<long long *>(store, kind);
   case Kind::kNSize: return Target<size_t *>(store, kind);
   }
   abort();
}

// ---------------------------------------------------------------------------
// The calls and the checks.

struct Context {
   const char *format;
   size_t size;
   const Storage *store;
};

[[noreturn]] void Fail(const Context &ctx, const char *what) {
   fprintf(stderr, "format_fuzzer: %s\n  size %zu, format \"", what, ctx.size);
   for (const char *p = ctx.format; *p; p++) {
      unsigned char c = static_cast<unsigned char>(*p);
      fprintf(stderr, c >= 0x20 && c < 0x7f && c != '"' ? "%c" : "\\x%02x", c);
   }
   fprintf(stderr, "\"\n");
   abort();
}

// The value of every "%n" target, widened.
std::vector<long long> Counts(const Storage &store) {
   std::vector<long long> out;
   for (size_t i = 0; i < store.targets.size(); i++) {
      const void *t = store.targets[i];
      switch (store.targetKinds[i]) {
      case Kind::kNChar: out.push_back(*static_cast<const signed char *>(t)); break;
      case Kind::kNShort: out.push_back(*static_cast<const short *>(t)); break;
      case Kind::kNInt: out.push_back(*static_cast<const int *>(t)); break;
      case Kind::kNLong: out.push_back(*static_cast<const long *>(t)); break;
      case Kind::kNLLong: out.push_back(*static_cast<const long long *>(t)); break;
      default: out.push_back(static_cast<long long>(*static_cast<const size_t *>(t))); break;
      }
   }
   return out;
}

// Where text of `used` bytes is cut to end on a UTF-8 sequence boundary:
// walk back over continuation bytes to a lead byte (or to the start) and
// keep the sequence only if the lead byte announces exactly that many bytes.
size_t Boundary(const char *text, size_t used) {
   if (used == 0) {
      return 0;
   }
   size_t i = used - 1;
   while (i > 0 && (static_cast<unsigned char>(text[i]) & 0xc0) == 0x80) {
      i--;
   }
   unsigned char lead = static_cast<unsigned char>(text[i]);
   if (lead < 0x80) {
      return used;
   }
   size_t ones = 0;
   while (ones < 8 && (lead & (0x80 >> ones)) != 0) {
      ones++;
   }
   return ones == used - i && used - i <= 7 ? used : i;
}

// Formats the arguments every way the engine offers and checks that the
// results agree. Variadic so that every form reads the same va_list.
void Run(const Context *ctx, ...) {
   const Context &c = *ctx;
   va_list ap, ap1, ap2, ap3, ap4;
   va_start(ap, ctx);

   // The caller's buffer, exactly size bytes (one guard byte for size 0).
   std::vector<char> storage(c.size == 0 ? 1 : c.size, '\x7f');
   char *buf = storage.data();
   char *exact = static_cast<char *>(malloc(c.size == 0 ? 1 : c.size));
   memset(exact, 0x7f, c.size == 0 ? 1 : c.size);

   va_copy(ap1, ap);
   int bounded = Str_Vsnprintf(c.size == 0 ? buf : exact, c.size, c.format, ap1);
   va_end(ap1);
   std::vector<long long> counts1 = Counts(*c.store);
   if (c.size != 0) {
      memcpy(buf, exact, c.size);
   }
   free(exact);

   va_copy(ap2, ap);
   size_t length = SIZE_MAX;
   char *text = Str_Vasprintf(&length, c.format, ap2);
   va_end(ap2);
   std::vector<long long> counts2 = Counts(*c.store);

   va_copy(ap3, ap);
   char *cText = nullptr;
   int cLength = bsd_vsnprintf_c_locale(&cText, 0, c.format, ap3);
   va_end(ap3);
   std::vector<long long> counts3 = Counts(*c.store);

   // The raw engine into a caller's buffer: the whole length, the bytes
   // that fit, terminated, no trimming.
   std::vector<char> rawStorage(c.size + 1, '\x7f');
   char *raw = rawStorage.data();
   va_copy(ap4, ap);
   int rawLength = bsd_vsnprintf(&raw, c.size, c.format, ap4);
   va_end(ap4);
   std::vector<long long> counts4 = Counts(*c.store);
   va_end(ap);

   if (bounded < -1 || (bounded >= 0 && static_cast<size_t>(bounded) >= c.size)) {
      Fail(c, "Str_Vsnprintf result out of range");
   }
   if (c.size == 0 && buf[0] != '\x7f') {
      Fail(c, "Str_Vsnprintf wrote into a buffer of size 0");
   }
   if (text == nullptr) {
      if (bounded != -1 || cLength != -1 || rawLength != -1 || cText != nullptr) {
         Fail(c, "an engine error in one form only");
      }
      if (length != SIZE_MAX) {
         Fail(c, "Str_Vasprintf stored a length on failure");
      }
      return;
   }
   if (length > INT_MAX || memchr(text + length, '\0', 1) == nullptr) {
      Fail(c, "Str_Vasprintf result not terminated at its length");
   }
   if (cLength != static_cast<int>(length) || cText == nullptr ||
       memcmp(cText, text, length + 1) != 0) {
      Fail(c, "bsd_vsnprintf_c_locale differs from Str_Vasprintf in the C locale");
   }
   free(cText);
   if (rawLength != static_cast<int>(length)) {
      Fail(c, "bsd_vsnprintf into a buffer returned another length");
   }
   if (c.size > 0) {
      size_t kept = std::min(length, c.size - 1);
      if (memcmp(raw, text, kept) != 0 || raw[kept] != '\0') {
         Fail(c, "bsd_vsnprintf into a buffer kept other bytes");
      }
   }
   if (rawStorage[c.size] != '\x7f') {
      Fail(c, "bsd_vsnprintf wrote past the size");
   }
   if (c.size > 0) {
      if (length < c.size) {
         if (bounded != static_cast<int>(length) || memcmp(buf, text, length + 1) != 0) {
            Fail(c, "Str_Vsnprintf differs from Str_Vasprintf on output that fits");
         }
      } else {
         size_t cut = Boundary(text, c.size - 1);
         if (bounded != -1 || memcmp(buf, text, cut) != 0 || buf[cut] != '\0') {
            Fail(c, "Str_Vsnprintf truncation is not the UTF-8 boundary prefix");
         }
      }
   }
   free(text);

   if (counts1 != counts2 || counts1 != counts3 || counts1 != counts4) {
      Fail(c, "\"%n\" stored different counts in different forms");
   }
   for (size_t i = 0; i < counts1.size(); i++) {
      Kind k = c.store->targetKinds[i];
      bool wide = k != Kind::kNChar && k != Kind::kNShort;
      if (wide && (counts1[i] < 0 || counts1[i] > static_cast<long long>(length))) {
         Fail(c, "\"%n\" stored a count outside the output");
      }
   }
}

template <size_t... I>
void RunHomogeneous(const Context &ctx, const std::vector<Arg> &args, std::index_sequence<I...>) {
   std::visit(
      [&](auto first) {
         using T = decltype(first);
         T values[kMaxArgs] = {};
         for (size_t i = 0; i < args.size(); i++) {
            values[i] = std::get<T>(args[i]);
         }
         // Arguments past those the format reads are ignored.
         Run(&ctx, values[I]...);
      },
      args[0]);
}

std::optional<CoreArg> Core(const Arg &a) {
   return std::visit(
      [](auto v) -> std::optional<CoreArg> {
         using T = decltype(v);
         if constexpr (std::is_constructible_v<CoreArg, std::in_place_type_t<T>, T> &&
                       (std::is_same_v<T, int> || std::is_same_v<T, unsigned> ||
                        std::is_same_v<T, long long> || std::is_same_v<T, double> ||
                        std::is_same_v<T, const char *>)) {
            return CoreArg{std::in_place_type<T>, v};
         } else {
            return std::nullopt;
         }
      },
      a);
}

// One call with exactly the argument types of the signature: any types up
// to two arguments, a common subset for three, and one type repeated for
// up to kMaxArgs. False for other signatures.
bool Dispatch(const Context &ctx, const std::vector<Arg> &args) {
   auto call = [&](auto... a) { Run(&ctx, a...); };
   switch (args.size()) {
   case 0: Run(&ctx); return true;
   case 1: std::visit(call, args[0]); return true;
   case 2: std::visit(call, args[0], args[1]); return true;
   case 3: {
      auto a = Core(args[0]), b = Core(args[1]), x = Core(args[2]);
      if (a && b && x) {
         std::visit(call, *a, *b, *x);
         return true;
      }
      break;
   }
   default: break;
   }
   for (const Arg &a : args) {
      if (a.index() != args[0].index()) {
         return false;
      }
   }
   RunHomogeneous(ctx, args, std::make_index_sequence<kMaxArgs>{});
   return true;
}

// Formats `format` with arguments drawn from in; false when the harness
// cannot supply its arguments.
bool Format(const std::string &format, size_t bufSize, Bytes &in) {
   Signature sig;
   if (!ParseSignature(format.c_str(), &sig)) {
      return false;
   }
   Storage store;
   std::vector<Arg> args;
   for (size_t i = 0; i < sig.kinds.size(); i++) {
      args.push_back(MakeArg(sig.kinds[i], sig.dimension[i], in, store));
   }
   Context ctx{format.c_str(), bufSize, &store};
   return Dispatch(ctx, args);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size < 1 || size > kMaxInput) {
      return 0;
   }
   // Mostly small buffers, where truncation happens; sometimes large ones.
   uint8_t sizeByte = data[0];
   size_t bufSize = sizeByte < 0xc0 ? sizeByte % 48 : 48 + (sizeByte - 0xc0) * 32u;
   data++;
   size--;
   const uint8_t *nul = static_cast<const uint8_t *>(memchr(data, 0, size));
   size_t formatLength = nul ? static_cast<size_t>(nul - data) : size;
   if (formatLength > kMaxFormat) {
      return 0;
   }
   std::string format(reinterpret_cast<const char *>(data), formatLength);
   size_t rest = formatLength + (nul ? 1 : 0);
   Bytes in(data + rest, size - rest);

   // A format whose arguments cannot be passed in one call is formatted a
   // conversion at a time (positions only make sense in one call).
   if (!Format(format, bufSize, in)) {
      for (const std::string &piece : Pieces(format.c_str())) {
         Format(piece, bufSize, in);
      }
   }
   return 0;
}
