# Warnings, sanitizers and hardening shared by every target of the project.

add_compile_options(-Wall -Wextra -fno-strict-aliasing)
if(HALCYX_WERROR)
  add_compile_options(-Werror)
endif()
# The privileged program must not depend on the caller's environment for
# anything the loader could be talked into, so build position independent
# and with full RELRO.
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
add_link_options(-Wl,-z,relro,-z,now)

if(HALCYX_SANITIZE)
  set(_san "-fsanitize=${HALCYX_SANITIZE}")
  add_compile_options(${_san} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(${_san})
endif()

find_package(Threads REQUIRED)
link_libraries(Threads::Threads)
