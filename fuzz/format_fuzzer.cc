// SPDX-License-Identifier: MIT
// Fuzzes the formatting engine with arbitrary formats and arguments of exactly
// the types they ask for. Input: a byte choosing the buffer size, the format up
// to the first NUL, then the bytes argument values come from. Formats whose
// arguments cannot be passed type-correctly in one call (over three of mixed
// types, over 16, positions mixed with sequential, gaps, conflicting types,
// unsettled size prefixes) or with numbers above 4096 are skipped.
#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "../tests/string/format_model.h"
#include "bsd_output.h"
#include "str.h"

using fmtmodel::Arg;
using fmtmodel::Kind;

namespace {

constexpr size_t kMaxArgs = 16;
constexpr int kMaxNumber = 4096;

bool ReadNumber(const char *&f, int *n) {
   bool small = true;
   for (*n = 0; *f >= '0' && *f <= '9'; f++) {
      small = small && *n * 10 + (*f - '0') <= kMaxNumber;
      *n = small ? *n * 10 + (*f - '0') : 0;
   }
   return small;
}

// The kind of every argument f reads, in the engine's grammar: flags, widths,
// precisions and size prefixes in any order; "n$" after digits selects a
// position, also after "*". dims marks the "*" arguments.
bool ParseSignature(const char *f, std::vector<Kind> *kinds, std::vector<bool> *dims) {
   bool positional = false, sequential = false;
   size_t next = 0;
   auto add = [&](size_t i, Kind k, bool dim) {
      if (i >= kMaxArgs) return false;
      if (kinds->size() <= i) kinds->resize(i + 1, fmtmodel::kNone), dims->resize(i + 1);
      if ((*kinds)[i] != fmtmodel::kNone && (*kinds)[i] != k) return false;
      (*kinds)[i] = k;
      (*dims)[i] = (*dims)[i] || dim;
      return true;
   };
   while ((f = strchr(f, '%')) != nullptr) {
      f++;
      std::string size;
      int position = 0, n;
      for (;; f++) {
         if (*f == '.' && f[1] != '*') {
            f++;
            if (!ReadNumber(f, &n)) return false;
            f--;
         } else if (*f != '\0' && strchr(" +-#0'.", *f)) {
         } else if (*f >= '1' && *f <= '9') {
            if (!ReadNumber(f, &n)) return false;
            if (*f != '$') {
               f--;
               continue;
            }
            if (position != 0) return false;
            position = n;
            positional = true;
         } else if (*f == '*') {
            const char *digits = ++f;
            bool small = ReadNumber(f, &n);
            if (*f == '$' && f != digits) {
               positional = true;
               if (!small || n == 0 || !add(static_cast<size_t>(n - 1), fmtmodel::kInt, true)) return false;
            } else {
               sequential = true;
               if (!small || !add(next++, fmtmodel::kInt, true)) return false;
               f--;
            }
         } else if (*f != '\0' && strchr("hlLqjtzZI", *f)) {
            if (!size.empty()) return false;
            size = *f;
            if ((*f == 'h' || *f == 'l') && f[1] == *f) size += *++f;
            if (*f == 'I' && (strncmp(f + 1, "64", 2) == 0 || strncmp(f + 1, "32", 2) == 0)) {
               size.append(f + 1, 2);
               f += 2;
            }
         } else {
            break;
         }
      }
      if (*f == '\0') break;  // a NUL inside a conversion ends the output
      Kind k = fmtmodel::KindOf(size, *f++);
      if (k == fmtmodel::kSkip) return false;
      if (k == fmtmodel::kNone) continue;
      sequential = sequential || position == 0;
      if (!add(position != 0 ? static_cast<size_t>(position - 1) : next++, k, false)) return false;
   }
   return !(positional && sequential) &&
          std::find(kinds->begin(), kinds->end(), fmtmodel::kNone) == kinds->end();
}

struct Bytes {
   const uint8_t *data;
   size_t size, pos = 0;
   uint8_t Byte() { return pos < size ? data[pos++] : 0; }
   uint64_t Word(size_t n, uint64_t v = 0) { return n == 0 ? v : Word(n - 1, v << 8 | Byte()); }
};

// Strings and "%n" targets, each allocated at exactly its type's size.
struct Storage {
   std::deque<std::string> strings;
   std::deque<std::wstring> wide;
   std::vector<std::pair<Kind, std::shared_ptr<void>>> targets;
   std::vector<std::function<long long()>> readers;
   template <class T>
   T *Target(Kind k) {
      T *p = static_cast<T *>(calloc(1, sizeof(T)));
      targets.emplace_back(k, std::shared_ptr<void>(p, free));
      readers.push_back([p] { return static_cast<long long>(*p); });
      return p;
   }
   std::vector<long long> Counts() const {
      std::vector<long long> out;
      for (auto &read : readers) out.push_back(read());
      return out;
   }
};

const char *const kStrings[] = {"", "a", "hello", "%d%s%n", "caf\xc3\xa9", "\xe2\x82\xac",
                                "\xf0\x9f\x98\x80", "ab\xe2\x82\xac", "\xc3", "\x80\x80", "\xff\xfe",
                                "0123456789abcdef0123456789abcdef0123456789abcdef"};

Arg MakeArg(Kind kind, bool dim, Bytes &in, Storage &store) {
   bool text = kind == fmtmodel::kStr || kind == fmtmodel::kWStr;
   uint64_t w = in.Word(kind <= fmtmodel::kUnsigned ? 4 : text ? 1 : kind >= fmtmodel::kNChar ? 0 : 8);
   double d;
   memcpy(&d, &w, sizeof d);
   uint8_t b = static_cast<uint8_t>(w);
   switch (kind) {
   case fmtmodel::kInt: return dim ? static_cast<int16_t>(w) % (kMaxNumber + 1) : static_cast<int>(w);
   case fmtmodel::kUnsigned: return static_cast<unsigned>(w);
   case fmtmodel::kLong: return static_cast<long>(w);
   case fmtmodel::kULong: return static_cast<unsigned long>(w);
   case fmtmodel::kLLong: return static_cast<long long>(w);
   case fmtmodel::kULLong: return static_cast<unsigned long long>(w);
   case fmtmodel::kDouble: return d;
   case fmtmodel::kLDouble: return static_cast<long double>(d);
   case fmtmodel::kPtr: return reinterpret_cast<void *>(static_cast<uintptr_t>(w));
   case fmtmodel::kStr:
      if (b == 0xff) return static_cast<const char *>(nullptr);
      if (b < 0x80) return kStrings[b % std::size(kStrings)];
      store.strings.emplace_back();
      for (size_t n = b & 0x3f; n > 0; n--) store.strings.back() += static_cast<char>(in.Byte() | 1);
      return store.strings.back().c_str();
   case fmtmodel::kWStr:
      if (b == 0xff) return static_cast<const wchar_t *>(nullptr);
      store.wide.emplace_back();
      for (size_t n = b & 0x1f; n > 0; n--) {  // any values, also invalid ones
         store.wide.back() += static_cast<wchar_t>(std::max<uint64_t>(in.Word(3), 1));
      }
      return store.wide.back().c_str();
   case fmtmodel::kNChar: return store.Target<signed char>(kind);
   case fmtmodel::kNShort: return store.Target<short>(kind);
   case fmtmodel::kNInt: return store.Target<int>(kind);
   case fmtmodel::kNLong: return store.Target<long>(kind);
   default: return store.Target<long long>(kind);
   }
}

struct Context {
   const char *format;
   size_t size;
   const Storage *store;
};

[[noreturn]] void Fail(const Context &c, const char *what) {
   fprintf(stderr, "format_fuzzer: %s\n  size %zu, format \"%s\"\n", what, c.size, c.format);
   abort();
}

// The length of text[0, used) cut so as not to end inside a UTF-8 sequence:
// the last lead byte must announce exactly the bytes that follow it.
size_t Boundary(const char *text, size_t used) {
   size_t i = used;
   while (i > 1 && (static_cast<unsigned char>(text[i - 1]) & 0xc0) == 0x80) i--;
   if (i == 0) return 0;
   unsigned char lead = static_cast<unsigned char>(text[--i]);
   size_t ones = 0;
   while (ones < 8 && (lead & (0x80 >> ones)) != 0) ones++;
   return lead < 0x80 || (ones == used - i && ones <= 7) ? used : i;
}

// Formats the same arguments in every form. Str_Vsnprintf returns -1 or a
// length below the size and writes only within the buffer; output that fits
// is Str_Vasprintf's, truncated output that cut at a UTF-8 boundary;
// bsd_vsnprintf returns the full length and keeps the plain prefix; all fail
// together; every "%n" stores one count in each form, within the output.
void Run(const Context *ctx, ...) {
   const Context &c = *ctx;
   va_list ap, aq;
   va_start(ap, ctx);
   char *bounded = static_cast<char *>(malloc(std::max<size_t>(c.size, 1)));
   bounded[0] = '\x7f';
   va_copy(aq, ap);
   int result = Str_Vsnprintf(bounded, c.size, c.format, aq);
   va_end(aq);
   std::vector<long long> counts = c.store->Counts();

   size_t length = SIZE_MAX;
   va_copy(aq, ap);
   char *text = Str_Vasprintf(&length, c.format, aq);
   va_end(aq);
   bool countsDiffer = counts != c.store->Counts();

   std::vector<char> raw(c.size + 1, '\x7f');
   char *out = raw.data();
   va_copy(aq, ap);
   int rawLength = bsd_vsnprintf(&out, c.size, c.format, aq);
   va_end(aq);
   va_end(ap);
   countsDiffer = countsDiffer || counts != c.store->Counts();

   auto check = [&](bool ok, const char *what) {
      if (!ok) Fail(c, what);
   };
   check(result >= -1 && (result < 0 || static_cast<size_t>(result) < c.size), "Str_Vsnprintf result out of range");
   check(c.size > 0 || bounded[0] == '\x7f', "Str_Vsnprintf wrote into a buffer of size 0");
   check(raw[c.size] == '\x7f', "bsd_vsnprintf wrote past the size");
   check(text != nullptr || (result == -1 && rawLength == -1 && length == SIZE_MAX), "an error in one form only");
   if (text != nullptr && c.size > 0) {
      size_t kept = std::min(length, c.size - 1), cut = length < c.size ? length : Boundary(text, kept);
      check(length <= INT_MAX && text[length] == '\0' && rawLength == static_cast<int>(length), "lengths differ");
      check(memcmp(raw.data(), text, kept) == 0 && raw[kept] == '\0', "bsd_vsnprintf kept other bytes");
      check(result == (length < c.size ? static_cast<int>(length) : -1) && memcmp(bounded, text, cut) == 0 &&
               bounded[cut] == '\0', "Str_Vsnprintf is not the full output cut at a UTF-8 boundary");
      check(!countsDiffer, "\"%n\" stored different counts in different forms");
      for (size_t i = 0; i < counts.size(); i++) {
         Kind k = c.store->targets[i].first;
         check(k == fmtmodel::kNChar || k == fmtmodel::kNShort ||
                  (counts[i] >= 0 && counts[i] <= static_cast<long long>(length)), "\"%n\" outside the output");
      }
   }
   free(text);
   free(bounded);
}

// Up to kMaxArgs arguments of one type; those past what the format reads are
// ignored.
template <size_t... I>
void RunSameType(const Context &ctx, const std::vector<Arg> &args, std::index_sequence<I...>) {
   std::visit([&](auto first) {
      decltype(first) values[kMaxArgs] = {};
      for (size_t i = 0; i < args.size(); i++) values[i] = std::get<decltype(first)>(args[i]);
      Run(&ctx, values[I]...);
   }, args[0]);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
   if (size < 1 || size > 4096) return 0;
   // Mostly small buffers, where truncation happens; sometimes large ones.
   size_t bufSize = data[0] < 0xc0 ? data[0] % 48 : 48 + (data[0] - 0xc0) * 32u;
   const uint8_t *nul = static_cast<const uint8_t *>(memchr(data + 1, 0, size - 1));
   std::string format(reinterpret_cast<const char *>(data + 1),
                      reinterpret_cast<const char *>(nul ? nul : data + size));
   std::vector<Kind> kinds;
   std::vector<bool> dims;
   if (format.size() > 512 || !ParseSignature(format.c_str(), &kinds, &dims)) return 0;
   size_t rest = 1 + format.size() + (nul ? 1 : 0);
   Bytes in{data + rest, size - rest};
   Storage store;
   std::vector<Arg> args;
   for (size_t i = 0; i < kinds.size(); i++) args.push_back(MakeArg(kinds[i], dims[i], in, store));
   Context ctx{format.c_str(), bufSize, &store};
   if (args.size() <= 3) {
      fmtmodel::Apply(args, [&](auto... a) { Run(&ctx, a...); });
   } else if (std::all_of(args.begin(), args.end(), [&](const Arg &a) { return a.index() == args[0].index(); })) {
      RunSameType(ctx, args, std::make_index_sequence<kMaxArgs>{});
   }
   return 0;
}
