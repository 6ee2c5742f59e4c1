// SPDX-License-Identifier: MIT
/*
 * Dynamic buffers.
 *
 * Every allocation goes through the library's allocation seam, and every
 * operation that can fail decides success before it touches the buffer, so
 * a failure leaves all three fields as they were.
 */
#include "dynbuf.h"

#include <cstdlib>
#include <cstring>

#include "internal/alloc.h"
#include "log.h"

namespace {

constexpr uint64_t kFirstCapacity = 128;
constexpr uint64_t kLinearStep = 0x40000;  // 262,144: doubling stops here

// Sets the capacity to exactly newAllocated. A capacity of 0 frees the
// block; a failed reallocation changes nothing.
bool DynBufRealloc(DynBuf *b, uint64_t newAllocated) {
   if (newAllocated == 0) {
      free(b->data);
      b->data = nullptr;
      b->allocated = 0;
      return true;
   }
   void *data = halcyx::Realloc(b->data, newAllocated);
   if (data == nullptr) {
      return false;
   }
   b->data = static_cast<char *>(data);
   b->allocated = newAllocated;
   return true;
}

// Grows to at least minSize by the growth rule.
bool DynBufGrow(DynBuf *b, uint64_t minSize) {
   uint64_t current = b->allocated;
   uint64_t candidate = current == 0            ? kFirstCapacity
                        : current < kLinearStep ? current * 2
                                                : current + kLinearStep;
   uint64_t newAllocated = candidate > minSize ? candidate : minSize;
   if (newAllocated < current) {
      return false;  // the linear step wrapped around
   }
   return DynBufRealloc(b, newAllocated);
}

[[noreturn]] void DynBufFail(const char *file, uint32_t line) {
   Panic("Unrecoverable memory allocation failure at %s:%u\n", file, line);
}

}  // namespace

extern "C" {

void DynBuf_Init(DynBuf *b) {
   b->data = nullptr;
   b->size = 0;
   b->allocated = 0;
}

void DynBuf_InitWithMemory(DynBuf *b, uint64_t capacity, void *block) {
   b->data = static_cast<char *>(block);
   b->size = 0;
   b->allocated = capacity;
}

void DynBuf_InitWithString(DynBuf *b, char *string) {
   if (string == nullptr) {
      DynBuf_Init(b);
      return;
   }
   // The length passes through a signed 32-bit value on purpose: strings of
   // 2 GiB and more are not supported, and their lengths wrap as such.
   auto length = static_cast<int32_t>(strlen(string));
   auto allocated = static_cast<int32_t>(static_cast<uint32_t>(length) + 1u);
   b->data = string;
   b->size = static_cast<uint64_t>(static_cast<int64_t>(length));
   b->allocated = static_cast<uint64_t>(static_cast<int64_t>(allocated));
}

void DynBuf_Destroy(DynBuf *b) {
   free(b->data);
   DynBuf_Init(b);
}

void DynBuf_Attach(DynBuf *b, uint64_t size, void *block) {
   free(b->data);
   b->data = static_cast<char *>(block);
   b->size = size;
   b->allocated = size;
}

void *DynBuf_Detach(DynBuf *b) {
   void *data = b->data;
   b->data = nullptr;
   b->allocated = 0;
   return data;
}

char *DynBuf_DetachString(DynBuf *b) {
   if (b->size == b->allocated && !DynBufGrow(b, b->size + 1)) {
      Panic("MEM_ALLOC %s:%d \n", "lib/public/dynbuf", 162);
   }
   b->data[b->size] = '\0';
   return static_cast<char *>(DynBuf_Detach(b));
}

// Grows on every call, even when minSize already fits: deciding whether
// growth is needed is the caller's business (DynBuf_Insert does).
bool DynBuf_Enlarge(DynBuf *b, uint64_t minSize) { return DynBufGrow(b, minSize); }

bool DynBuf_Insert(DynBuf *b, uint64_t offset, const void *bytes, uint64_t length) {
   if (length == 0) {
      return true;
   }
   uint64_t newSize = b->size + length;
   if (newSize < length) {
      return false;
   }
   if (newSize > b->allocated && !DynBufGrow(b, newSize)) {
      return false;
   }
   memmove(b->data + offset + length, b->data + offset, b->size - offset);
   memcpy(b->data + offset, bytes, length);
   b->size = newSize;
   return true;
}

bool (DynBuf_Append)(DynBuf *b, const void *bytes, uint64_t length) {
   return DynBuf_Insert(b, b->size, bytes, length);
}

bool DynBuf_Trim(DynBuf *b) { return DynBufRealloc(b, b->size); }

bool DynBuf_Copy(const DynBuf *src, DynBuf *dest) {
   char *data = nullptr;
   if (src->allocated != 0) {
      data = static_cast<char *>(halcyx::Malloc(src->allocated));
      if (data == nullptr) {
         return false;
      }
      if (src->size != 0) {
         memcpy(data, src->data, src->size);
      }
   }
   dest->data = data;
   dest->size = src->size;
   dest->allocated = src->allocated;
   return true;
}

void *DynBuf_SafeInternalEnlarge(DynBuf *b, uint64_t minSize, const char *file,
                                 uint32_t line) {
   if (!DynBuf_Enlarge(b, minSize)) {
      DynBufFail(file, line);
   }
   return b->data;
}

void DynBuf_SafeInternalInsert(DynBuf *b, uint64_t offset, const void *bytes,
                               uint64_t length, const char *file, uint32_t line) {
   if (!DynBuf_Insert(b, offset, bytes, length)) {
      DynBufFail(file, line);
   }
}

void DynBuf_SafeInternalAppend(DynBuf *b, const void *bytes, uint64_t length,
                               const char *file, uint32_t line) {
   if (!DynBuf_Append(b, bytes, length)) {
      DynBufFail(file, line);
   }
}

}  // extern "C"
