// SPDX-License-Identifier: MIT
// The privilege bracket as a scope: root (the saved effective user ID) for
// the lifetime of the object, the caller's user ID again when it ends, on
// every path out of the scope.
#ifndef HALCYX_OPENER_ROOTBRACKET_H
#define HALCYX_OPENER_ROOTBRACKET_H

#include "serviceImpl.h"

namespace halcyx {

class [[nodiscard]] RootBracket {
public:
   RootBracket() { ServiceImpl_PrivRaise(); }
   ~RootBracket() { ServiceImpl_PrivLower(); }
   RootBracket(const RootBracket &) = delete;
   RootBracket &operator=(const RootBracket &) = delete;
};

}  // namespace halcyx

#endif  // HALCYX_OPENER_ROOTBRACKET_H
