// SPDX-License-Identifier: MIT
// The C type each conversion of the engine reads, and a call of a variadic
// function with argument values at exactly those types. Shared by the
// differential test and the fuzz harness.
#ifndef HALCYX_TESTS_STRING_FORMAT_MODEL_H
#define HALCYX_TESTS_STRING_FORMAT_MODEL_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <sys/types.h>
#include <type_traits>
#include <variant>
#include <vector>
#include <wchar.h>

namespace fmtmodel {

static_assert(std::is_same_v<intmax_t, long> && std::is_same_v<ptrdiff_t, long> &&
                 std::is_same_v<ssize_t, long> && std::is_same_v<size_t, unsigned long> &&
                 std::is_same_v<wint_t, unsigned>,
              "the size classes map onto long and unsigned long");

// In the order of Arg's alternatives.
enum Kind {
   kSkip = -2, kNone = -1,
   kInt, kUnsigned, kLong, kULong, kLLong, kULLong, kDouble, kLDouble,
   kStr, kWStr, kPtr, kNChar, kNShort, kNInt, kNLong, kNLLong,
};
using Arg = std::variant<int, unsigned, long, unsigned long, long long, unsigned long long,
                         double, long double, const char *, const wchar_t *, void *,
                         signed char *, short *, int *, long *, long long *>;

// What `conv` reads after the size prefix `size`: kNone for no argument,
// kSkip where the combination's type is not settled.
inline Kind KindOf(std::string_view size, char conv) {
   if (size == "I32") size = "";
   if (size == "I64" || size == "q") size = "ll";
   bool none = size.empty(), shortish = size == "h" || size == "hh";
   bool big = size == "ll" || size == "L";
   bool word = size == "l" || size == "j" || size == "z" || size == "Z" || size == "t" || size == "I";
   auto pick = [&](Kind plain, Kind s, Kind w, Kind b) {
      return none ? plain : shortish ? s : word ? w : big ? b : kSkip;
   };
   switch (conv) {
   case 'd': case 'i': return pick(kInt, kInt, kLong, kLLong);
   case 'o': case 'u': case 'x': case 'X': return pick(kUnsigned, kInt, kULong, kULLong);
   case 'n': return pick(kNInt, size == "h" ? kNShort : kNChar, kNLong, kNLLong);
   case 'D': return none ? kLong : kSkip;
   case 'O': case 'U': return none ? kULong : kSkip;
   case 'c': return none ? kInt : size == "l" ? kUnsigned : kSkip;
   case 's': return none ? kStr : size == "l" ? kWStr : kSkip;
   case 'C': return none ? kUnsigned : kSkip;
   case 'S': return none ? kWStr : kSkip;
   case 'p': return none ? kPtr : kSkip;
   case 'e': case 'E': case 'f': case 'F': case 'g': case 'G':
      return none || size == "l" ? kDouble : size == "L" ? kLDouble : kSkip;
   default: return kNone;
   }
}

// f(a...) with the values of args, at most three, at their own types.
template <class F>
void Apply(const std::vector<Arg> &args, F f) {
   switch (args.size()) {
   case 0: f(); break;
   case 1: std::visit(f, args[0]); break;
   case 2: std::visit(f, args[0], args[1]); break;
   default: std::visit(f, args[0], args[1], args[2]); break;
   }
}

}  // namespace fmtmodel

#endif  // HALCYX_TESTS_STRING_FORMAT_MODEL_H
