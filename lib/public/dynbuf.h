// SPDX-License-Identifier: MIT
/*
 * Dynamic buffers: growable byte buffers embedded by value.
 *
 * A DynBuf owns its heap block (data) until the block is detached; after
 * DynBuf_Detach or DynBuf_DetachString the caller owns it and releases it
 * with free(). Invariants: size <= allocated, and data is null only when
 * allocated is 0. The contents are not NUL-terminated, except by
 * DynBuf_DetachString.
 *
 * Growth: when an operation needs a capacity larger than the current one,
 * and on every DynBuf_Enlarge, the candidate capacity is 128 from 0,
 * double the current one below 262,144 bytes and the current one plus
 * 262,144 from there on; the larger of the candidate and the required
 * capacity is taken. A capacity that would wrap around, or a failed
 * reallocation, is failure, and failure leaves the buffer exactly as it was.
 *
 * Plain forms report failure through their result. The Safe forms end the
 * process through Panic("Unrecoverable memory allocation failure at
 * %s:%u\n") naming the caller's source position; use them through the
 * DynBuf_SafeEnlarge, DynBuf_SafeInsert and DynBuf_SafeAppend macros, which
 * fill in __FILE__ and __LINE__.
 *
 *    DynBuf b;
 *    DynBuf_Init(&b);
 *    DynBuf_SafeAppend(&b, "abc", 3);
 *    char *s = DynBuf_DetachString(&b);   // "abc", caller frees
 */
#ifndef HALCYX_DYNBUF_H
#define HALCYX_DYNBUF_H

#include <string.h>

#include "halcyx_base.h"

HALCYX_EXTERN_C_BEGIN

typedef struct DynBuf {
   char *data;         /* owned heap block, or null when allocated is 0 */
   uint64_t size;      /* bytes in use */
   uint64_t allocated; /* capacity of data in bytes */
} DynBuf;

/* An empty buffer: every field zero. */
void DynBuf_Init(DynBuf *b);

/* Takes ownership of a heap block of the given capacity; size becomes 0. */
void DynBuf_InitWithMemory(DynBuf *b, uint64_t capacity, void *block);

/*
 * Takes ownership of a heap string: size is its length and allocated its
 * length + 1, both computed as signed 32-bit values. A null string gives an
 * empty buffer.
 */
void DynBuf_InitWithString(DynBuf *b, char *string);

/* Frees data and zeroes every field. */
void DynBuf_Destroy(DynBuf *b);

/* Frees the old data and takes the block: size = allocated = size given. */
void DynBuf_Attach(DynBuf *b, uint64_t size, void *block);

/*
 * Hands data to the caller; data becomes null and allocated 0, while size
 * keeps its value, so a buffer reused afterwards must be initialised again.
 */
void *DynBuf_Detach(DynBuf *b);

/*
 * Terminates the contents with a NUL (growing by the growth rule when no
 * byte is spare) and detaches them like DynBuf_Detach. Cannot fail: when it
 * cannot grow it ends the process with Panic("MEM_ALLOC %s:%d \n").
 */
char *DynBuf_DetachString(DynBuf *b);

/*
 * Grows the block by the growth rule to at least minSize, every time it is
 * called: from 0 to 128 and from 128 to 256 even when minSize already fits,
 * so callers test whether they need room first. False on failure, buffer
 * unchanged.
 */
bool DynBuf_Enlarge(DynBuf *b, uint64_t minSize);

/*
 * Inserts length bytes at offset, which must lie within the used bytes,
 * moving the tail up. Length 0 changes nothing and succeeds. False when
 * size + length overflows or the buffer cannot grow; the buffer is then
 * unchanged.
 */
bool DynBuf_Insert(DynBuf *b, uint64_t offset, const void *bytes, uint64_t length);

/*
 * DynBuf_Insert at offset size. Callers get an inline form that copies a
 * piece which fits without a call; (DynBuf_Append) names the function.
 */
bool DynBuf_Append(DynBuf *b, const void *bytes, uint64_t length);

/*
 * Shrinks the block to exactly size bytes; a size of 0 frees it and leaves
 * data null. False when the reallocation fails, buffer unchanged.
 */
bool DynBuf_Trim(DynBuf *b);

/*
 * Makes dest a new buffer with a block of src's capacity holding a copy of
 * src's used bytes. dest's previous contents are overwritten, not freed.
 * False when the allocation fails, dest unchanged.
 */
bool DynBuf_Copy(const DynBuf *src, DynBuf *dest);

/* Fatal-on-failure forms; file and line name the caller's position. */
void *DynBuf_SafeInternalEnlarge(DynBuf *b, uint64_t minSize, const char *file,
                                 uint32_t line);
void DynBuf_SafeInternalInsert(DynBuf *b, uint64_t offset, const void *bytes,
                               uint64_t length, const char *file, uint32_t line);
void DynBuf_SafeInternalAppend(DynBuf *b, const void *bytes, uint64_t length,
                               const char *file, uint32_t line);

#define DynBuf_SafeEnlarge(b, minSize) \
   DynBuf_SafeInternalEnlarge((b), (minSize), __FILE__, __LINE__)
#define DynBuf_SafeInsert(b, offset, bytes, length) \
   DynBuf_SafeInternalInsert((b), (offset), (bytes), (length), __FILE__, __LINE__)
#define DynBuf_SafeAppend(b, bytes, length) \
   DynBuf_SafeInternalAppend((b), (bytes), (length), __FILE__, __LINE__)

/* The block, which the buffer still owns; null when nothing is allocated. */
static inline void *DynBuf_Get(const DynBuf *b) { return b->data; }

static inline uint64_t DynBuf_GetSize(const DynBuf *b) { return b->size; }

static inline uint64_t DynBuf_GetAllocatedSize(const DynBuf *b) { return b->allocated; }

/* Sets the number of bytes in use; size must not exceed the capacity. */
static inline void DynBuf_SetSize(DynBuf *b, uint64_t size) { b->size = size; }

static inline bool DynBufAppendInline(DynBuf *b, const void *bytes, uint64_t length) {
   /*
    * A non-empty piece that fits: data is a real block. Pieces of up to 16
    * bytes are copied as two overlapping moves instead of a memcpy call.
    */
   if (b->size <= b->allocated && length - 1 < b->allocated - b->size) {
      char *d = b->data + b->size;
      const char *s = (const char *)bytes;
      if (length > 16) {
         memcpy(d, s, length);
      } else if (length >= 8) {
         memcpy(d, s, 8);
         memcpy(d + length - 8, s + length - 8, 8);
      } else if (length >= 4) {
         memcpy(d, s, 4);
         memcpy(d + length - 4, s + length - 4, 4);
      } else {
         d[0] = s[0];
         d[length / 2] = s[length / 2];
         d[length - 1] = s[length - 1];
      }
      b->size += length;
      return true;
   }
   return (DynBuf_Append)(b, bytes, length);
}
#define DynBuf_Append(b, bytes, length) DynBufAppendInline((b), (bytes), (length))

HALCYX_EXTERN_C_END

#endif /* HALCYX_DYNBUF_H */
