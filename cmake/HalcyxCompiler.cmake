# SPDX-License-Identifier: MIT
# Warnings, sanitizers and hardening shared by every target of the project.

add_compile_options(-Wall -Wextra -fno-strict-aliasing)
if(HALCYX_WERROR)
  add_compile_options(-Werror)
endif()
# The privileged program must not depend on the caller's environment for
# anything the loader could be talked into, so build position independent,
# with full RELRO and a stack that is never executable.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
add_link_options(-Wl,-z,relro,-z,now -Wl,-z,noexecstack)

# Every target, the set-user-ID opener first: canaries in every function
# with an array or an address-taken local, stack growth probed page by page
# so that it cannot jump over the guard page, indirect branches and returns
# checked by the processor where it can, and no format string that is not
# a literal.
add_compile_options(-fstack-protector-strong -fstack-clash-protection
                    -Wformat -Werror=format-security)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64|i[3-6]86)$")
  add_compile_options(-fcf-protection)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  add_compile_options(-mbranch-protection=standard)
endif()

# Checked string, memory and I/O calls. They need optimisation, so Debug
# builds go without; sanitizer builds (the fuzz build included) go without
# too, as the sanitizers check those calls themselves through their own
# interceptors. Level 3 (sizes known only at run time) where this compiler
# and C library provide it, 2 elsewhere; a level the toolchain set by
# default is replaced, not redefined.
if(NOT HALCYX_SANITIZE)
  include(CheckCSourceCompiles)
  set(CMAKE_REQUIRED_FLAGS "-O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3")
  check_c_source_compiles([[
#include <string.h>
#if !defined __USE_FORTIFY_LEVEL || __USE_FORTIFY_LEVEL < 3
#error no _FORTIFY_SOURCE=3
#endif
int main(void) { return 0; }
]] HALCYX_HAVE_FORTIFY_SOURCE_3)
  unset(CMAKE_REQUIRED_FLAGS)
  if(HALCYX_HAVE_FORTIFY_SOURCE_3)
    set(_fortify 3)
  else()
    set(_fortify 2)
  endif()
  add_compile_options("$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>"
                      "$<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=${_fortify}>")
endif()

if(HALCYX_SANITIZE)
  set(_san "-fsanitize=${HALCYX_SANITIZE}")
  add_compile_options(${_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(${_san})
endif()

find_package(Threads REQUIRED)
link_libraries(Threads::Threads)
