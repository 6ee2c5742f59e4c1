/*
 * Preparation of the Services tree before the daemon starts.
 */
#include "log.h"
#include "serviceImpl.h"

/*
 * Rebuilding the tree from verified components is not part of this build
 * yet. Refusing here guarantees that no daemon is ever started from a tree
 * that was not rebuilt and verified.
 */
extern "C" bool ServiceImplPrepareServicesTree(void) {
   Warning("%s: Rebuilding the Services tree is not available in this build.\n",
           "ServiceImplPrepareServicesTree");
   return false;
}
