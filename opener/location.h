/*
 * Product location: symbolic keys to paths inside the product bundle, and
 * the fixed places outside it (host directory, product file).
 *
 * Every program of the product identifies itself with a process tag; the
 * tag fixes how many levels below the product root its executable lies.
 */
#ifndef HALCYX_OPENER_LOCATION_H
#define HALCYX_OPENER_LOCATION_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/*
 * Looks the tag up and records its up-count. An unknown tag, a second call
 * or a row with up-count 0 is logged; an unknown tag leaves up-count 0.
 */
void Location_Init(const char *processTag);

/* The key's sub-path (empty or beginning with "/"), borrowed; null if unknown. */
const char *Location_GetSubPath(const char *key);

/* The product file's path, borrowed; may be null. */
const char *Location_GetProductFile(void);

/* The host directory, a constant. */
const char *Location_GetHostDir(void);

HALCYX_EXTERN_C_END

#endif /* HALCYX_OPENER_LOCATION_H */
