// Temporary stand-in: the C library formats until the engine lands.
#include "str.h"

#include <cstdio>
#include <cstdlib>

#include "log.h"

extern "C" {

int Str_Vsnprintf(char *buf, size_t size, const char *format, va_list ap) {
   int r = vsnprintf(buf, size, format, ap);
   return r >= 0 && static_cast<size_t>(r) < size ? r : -1;
}

int Str_Sprintf(char *buf, size_t maxSize, const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   int r = Str_Vsnprintf(buf, maxSize, format, ap);
   va_end(ap);
   if (r < 0) {
      Panic("%s:%d Buffer too small\n", "lib/string/str", 213);
   }
   return r;
}

}

extern "C" char *Str_Asprintf(size_t *length, const char *format, ...) {
   va_list ap;
   va_start(ap, format);
   char *out = nullptr;
   int r = vasprintf(&out, format, ap);
   va_end(ap);
   if (r < 0) {
      return nullptr;
   }
   if (length != nullptr) {
      *length = static_cast<size_t>(r);
   }
   return out;
}
