// SPDX-License-Identifier: MIT
// The privilege brackets as scopes.
#ifndef HALCYX_OPENER_ROOTBRACKET_H
#define HALCYX_OPENER_ROOTBRACKET_H

#include <signal.h>
#include <unistd.h>

#include "internal/fatal.h"
#include "serviceImpl.h"

namespace halcyx {

// Root (the saved effective user ID) for the lifetime of the object, the
// caller's user ID again when it ends, on every path out of the scope.
class [[nodiscard]] RootBracket {
public:
   RootBracket() { ServiceImpl_PrivRaise(); }
   ~RootBracket() { ServiceImpl_PrivLower(); }
   RootBracket(const RootBracket &) = delete;
   RootBracket &operator=(const RootBracket &) = delete;
};

/*
 * Root out of the caller's reach, for stretches that other users' openers
 * wait on. With root in all three user IDs the caller may no longer signal
 * this process (SIGSTOP cannot be blocked, but neither can it be sent), and
 * the terminal's stop signals are blocked, so a write to a terminal that
 * stops background writers does not stop it either.
 *
 * Entering blocks the stop signals first and changes the IDs second: a stop
 * the caller sent before the change is delivered when the change returns,
 * that is before anything is taken inside the bracket. Leaving restores the
 * IDs first (real, effective and saved as they were) and the signal mask
 * exactly second, so a stop held back meanwhile lands once the caller may
 * signal us again, and only after everything taken inside was given back.
 *
 * A process that cannot become root in all IDs (not installed set-user-ID
 * root) gets the plain bracket instead, with its messages and outcome.
 */
class [[nodiscard]] SealedRootBracket {
public:
   SealedRootBracket() { Enter(); }
   ~SealedRootBracket() { Leave(); }
   SealedRootBracket(const SealedRootBracket &) = delete;
   SealedRootBracket &operator=(const SealedRootBracket &) = delete;

   // Leave and Enter alternate; the constructor enters, the destructor
   // leaves when inside.
   void Enter() {
      sigset_t stops;
      sigemptyset(&stops);
      sigaddset(&stops, SIGTSTP);
      sigaddset(&stops, SIGTTIN);
      sigaddset(&stops, SIGTTOU);
      sigprocmask(SIG_BLOCK, &stops, &mask_);
      getresuid(&real_, &effective_, &saved_);
      sealed_ = setresuid(0, 0, 0) == 0;
      if (!sealed_) {
         ServiceImpl_PrivRaise();
      }
      inside_ = true;
   }

   void Leave() {
      if (!inside_) {
         return;
      }
      inside_ = false;
      if (!sealed_) {
         ServiceImpl_PrivLower();
      } else if (setresuid(real_, effective_, saved_) != 0) {
         // Going on as root in every ID would hand the caller's work to root.
         PanicVerify("opener/rootBracket", __LINE__);
      }
      sigprocmask(SIG_SETMASK, &mask_, nullptr);
   }

   // The real user ID found on the last entry: the caller's.
   uid_t CallerUid() const { return real_; }

private:
   sigset_t mask_;
   uid_t real_ = 0;
   uid_t effective_ = 0;
   uid_t saved_ = 0;
   bool sealed_ = false;
   bool inside_ = false;
};

}  // namespace halcyx

#endif  // HALCYX_OPENER_ROOTBRACKET_H
