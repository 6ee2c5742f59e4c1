// SPDX-License-Identifier: MIT
/*
 * Product location: symbolic keys to absolute paths inside the installed
 * product bundle, and the fixed places outside it (host directory, product
 * file).
 *
 * Every program of the product links this module and identifies itself once,
 * at start, with its process tag; the tag fixes how many levels below the
 * product root its executable lies, so the program finds the root from its
 * own location. Programs without a tag of their own take the root from the
 * environment variable or from the product file, never when set-user-ID.
 *
 *    Location_Init("halcyx-opener");
 *    char *daemon = Location_Get("serviceDaemonFile");   (free it)
 */
#ifndef HALCYX_LOCATION_H
#define HALCYX_LOCATION_H

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

/*
 * Bundle identifiers of the four launch-services helpers: their file names
 * under Contents/Library/LaunchServices and their signing identities.
 */
#define LOCATION_CDS_HELPER_ID "com.zorvex.halcyx.cdshelper"
#define LOCATION_DISK_HELPER_ID "com.zorvex.halcyx.diskhelper"
#define LOCATION_ID_HELPER_ID "com.zorvex.halcyx.idhelper"
#define LOCATION_MOUNT_HELPER_ID "com.zorvex.halcyx.mounthelper"

/*
 * Looks the tag up and records its up-count. An unknown tag, a second call
 * or a row with up-count 0 is logged; an unknown tag leaves up-count 0.
 */
void Location_Init(const char *processTag);

/* The key's sub-path (empty or beginning with "/"), borrowed; null if unknown. */
const char *Location_GetSubPath(const char *key);

/*
 * The product root followed by the key's sub-path, newly allocated, or null
 * (unknown key, or no root: the reason is logged). The root is found afresh
 * on every call.
 */
char *Location_Get(const char *key);

/* The address of Location_Get, for modules that reach it by pointer. */
typedef char *(*LocationGetFn)(const char *);
LocationGetFn Location_Get_Addr(void);

/* The product file's path, borrowed; may be null. */
const char *Location_GetProductFile(void);

/* The host directory, a constant. */
const char *Location_GetHostDir(void);

HALCYX_EXTERN_C_END

#endif /* HALCYX_LOCATION_H */
