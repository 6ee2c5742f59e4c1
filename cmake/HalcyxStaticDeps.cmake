# SPDX-License-Identifier: MIT
# Static libcrypto and libplist for the opener.
#
# The opener is one static PIE that loads no shared library, and it links the
# code-signature verifier (halcyx_codesign), so libcrypto and libplist must go
# into it as archives. Debian ships libcrypto.a (libssl-dev) but no static
# libplist; libplist is built here from Debian's own source package, fetched
# once through a private apt configuration (the host's sources, lists and
# locks are left alone), kept in a cache and pinned by its SHA-256.
#
# Every other program (the sign tool, tests, benchmarks) and every sanitizer
# build keeps the shared libraries. Provides:
#   HALCYX_OPENER_STATIC        option: the opener is a static PIE
#   HALCYX_OPENER_STATIC_DEPS   true when the archives below exist
#   halcyx_codesign_deps        interface target for halcyx_codesign: links
#                               the archives into a program whose property
#                               HALCYX_STATIC_DEPS is true, the shared
#                               libraries into any other
#   halcyx_crypto_static, halcyx_plist_static
#   HALCYX_DEPS_CACHE           where fetched sources are kept
#   halcyx_link_static_program(target)
#                               links a program as the opener is linked
include_guard(GLOBAL)

# A static PIE (a program with the shared C library in sanitizer builds, or
# with HALCYX_OPENER_STATIC off), libcrypto and libplist as archives, and
# the refusing loader of opener/noSharedLibraries.cc in place of the C
# library's and of the library's lazy loader.
function(halcyx_link_static_program target)
  target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/opener/noSharedLibraries.cc)
  target_link_libraries(${target} PRIVATE halcyx_internal)
  # The functions through which linked-in library code could load a shared
  # object; noSharedLibraries.cc defines refusing __wrap_ versions. Not in
  # sanitizer builds: their runtime, linked into the program, finds the C
  # library's functions through dlsym.
  if(NOT HALCYX_SANITIZE)
    foreach(_f dlopen dlsym dlclose dlerror dladdr
               getaddrinfo freeaddrinfo getnameinfo gai_strerror gethostbyname)
      target_link_options(${target} PRIVATE -Wl,--wrap=${_f})
    endforeach()
    if(HALCYX_OPENER_STATIC)
      set_target_properties(${target} PROPERTIES HALCYX_STATIC_DEPS ON)
      # A static PIE relocates itself at start: every page holding a pointer
      # (libcrypto's method and ASN.1 tables are most of them) is written,
      # and every relocation entry read. Unused objects are dropped, and the
      # relative relocations are packed (DT_RELR) into a few kilobytes.
      target_link_options(${target} PRIVATE -static-pie -Wl,--gc-sections
                                            -Wl,-z,pack-relative-relocs)
    else()
      target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc -Wl,--as-needed)
    endif()
  endif()
endfunction()

option(HALCYX_OPENER_STATIC "Link the opener as a static position-independent executable" ON)

find_package(OpenSSL 3 REQUIRED COMPONENTS Crypto)
find_package(PkgConfig REQUIRED)
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)

if(NOT HALCYX_SANITIZE AND HALCYX_OPENER_STATIC)
  set(HALCYX_OPENER_STATIC_DEPS TRUE)
else()
  set(HALCYX_OPENER_STATIC_DEPS FALSE)
endif()

add_library(halcyx_codesign_deps INTERFACE)
if(NOT HALCYX_OPENER_STATIC_DEPS)
  target_link_libraries(halcyx_codesign_deps INTERFACE OpenSSL::Crypto PkgConfig::PLIST)
  return()
endif()

# libcrypto.a from the same package as the headers and the shared library.
get_filename_component(_crypto_dir "${OPENSSL_CRYPTO_LIBRARY}" DIRECTORY)
find_file(HALCYX_CRYPTO_ARCHIVE libcrypto.a HINTS ${_crypto_dir} NO_DEFAULT_PATH)
if(NOT HALCYX_CRYPTO_ARCHIVE)
  message(FATAL_ERROR "halcyx: no libcrypto.a beside ${OPENSSL_CRYPTO_LIBRARY} "
                      "(install libssl-dev, or configure with -DHALCYX_OPENER_STATIC=OFF)")
endif()
add_library(halcyx_crypto_static STATIC IMPORTED)
set_target_properties(halcyx_crypto_static PROPERTIES
  IMPORTED_LOCATION ${HALCYX_CRYPTO_ARCHIVE}
  INTERFACE_INCLUDE_DIRECTORIES "${OPENSSL_INCLUDE_DIR}")

# --- libplist 2.2.0-6, Debian bookworm ---------------------------------------
# The package has no Debian patches; only its upstream tarball is needed.
set(_plist_version 2.2.0)
set(_plist_debian_version 2.2.0-6)
set(_plist_tarball libplist_${_plist_version}.orig.tar.bz2)
set(_plist_sha256 bd700c1a7862fe732e9292ef65e21bd25e05d09f542ff0b1c49aace0d1bd495e)

set(HALCYX_DEPS_CACHE "" CACHE PATH
    "Where the fetched source of the opener's static libplist is kept (empty: the environment's \
HALCYX_DEPS_CACHE, else halcyx-deps in the user's cache directory)")
if(HALCYX_DEPS_CACHE)
  set(_cache "${HALCYX_DEPS_CACHE}")
elseif(NOT "$ENV{HALCYX_DEPS_CACHE}" STREQUAL "")
  set(_cache "$ENV{HALCYX_DEPS_CACHE}")
elseif(IS_ABSOLUTE "$ENV{XDG_CACHE_HOME}")
  set(_cache "$ENV{XDG_CACHE_HOME}/halcyx-deps")
elseif(IS_DIRECTORY "$ENV{HOME}")
  set(_cache "$ENV{HOME}/.cache/halcyx-deps")
else()
  set(_cache "${CMAKE_BINARY_DIR}/deps-cache")
endif()
# The sandbox build (cmake/HalcyxSandboxBuild.cmake) shares it.
set(HALCYX_DEPS_CACHE_DIR "${_cache}" CACHE INTERNAL "")

set(_tarball ${_cache}/${_plist_tarball})
file(MAKE_DIRECTORY ${_cache})
# Concurrent configures (the sandbox build, other build trees) share the cache.
file(LOCK ${_cache}/.lock GUARD FILE TIMEOUT 600)
if(NOT EXISTS ${_tarball})
  message(STATUS "halcyx: fetching Debian source of libplist ${_plist_debian_version} into ${_cache}")
  find_program(HALCYX_APT_GET apt-get)
  if(NOT HALCYX_APT_GET)
    message(FATAL_ERROR "halcyx: apt-get is needed once to fetch libplist's source; "
                        "or put ${_plist_tarball} into ${_cache}")
  endif()
  # A private apt state: its own sources list, index and download cache.
  set(_apt ${_cache}/apt.tmp)
  file(REMOVE_RECURSE ${_apt})
  file(MAKE_DIRECTORY ${_apt}/lists/partial ${_apt}/cache/archives/partial ${_apt}/src)
  file(WRITE ${_apt}/sources.list
       "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] "
       "http://deb.debian.org/debian bookworm main\n")
  set(_apt_options
    -o Dir::Etc::SourceList=${_apt}/sources.list -o Dir::Etc::SourceParts=/dev/null
    -o Dir::State::Lists=${_apt}/lists -o Dir::Cache=${_apt}/cache
    -o Debug::NoLocking=1 -o APT::Sandbox::User=root -q)
  execute_process(COMMAND ${HALCYX_APT_GET} ${_apt_options} update
                  OUTPUT_FILE ${_apt}/log ERROR_FILE ${_apt}/log RESULT_VARIABLE _rc)
  if(_rc EQUAL 0)
    execute_process(
      COMMAND ${HALCYX_APT_GET} ${_apt_options} source --download-only libplist=${_plist_debian_version}
      WORKING_DIRECTORY ${_apt}/src OUTPUT_FILE ${_apt}/log.source ERROR_FILE ${_apt}/log.source
      RESULT_VARIABLE _rc)
  endif()
  if(NOT _rc EQUAL 0 OR NOT EXISTS ${_apt}/src/${_plist_tarball})
    file(READ ${_apt}/log _log)
    if(EXISTS ${_apt}/log.source)
      file(READ ${_apt}/log.source _log2)
      string(APPEND _log "${_log2}")
    endif()
    message(FATAL_ERROR "halcyx: could not fetch libplist ${_plist_debian_version}'s source "
                        "with apt-get:\n${_log}\nPut ${_plist_tarball} into ${_cache}, "
                        "or configure with -DHALCYX_OPENER_STATIC=OFF.")
  endif()
  file(SHA256 ${_apt}/src/${_plist_tarball} _got)
  if(NOT _got STREQUAL _plist_sha256)
    message(FATAL_ERROR "halcyx: the fetched ${_plist_tarball} has SHA-256 ${_got}, "
                        "expected ${_plist_sha256}; it is not used.")
  endif()
  file(RENAME ${_apt}/src/${_plist_tarball} ${_tarball})
  file(REMOVE_RECURSE ${_apt})
endif()
file(LOCK ${_cache}/.lock RELEASE)

file(SHA256 ${_tarball} _got)
if(NOT _got STREQUAL _plist_sha256)
  message(FATAL_ERROR "halcyx: ${_tarball} has SHA-256 ${_got}, expected ${_plist_sha256}. "
                      "Remove it to fetch it again.")
endif()

set(_src ${CMAKE_BINARY_DIR}/_deps/libplist-${_plist_version})
set(_stamp ${CMAKE_BINARY_DIR}/_deps/libplist-${_plist_version}.${_plist_sha256})
if(NOT EXISTS ${_stamp})
  file(REMOVE_RECURSE ${_src})
  file(ARCHIVE_EXTRACT INPUT ${_tarball} DESTINATION ${CMAKE_BINARY_DIR}/_deps)
  file(TOUCH ${_stamp})
endif()

# plist.c runs a constructor and a destructor that do nothing in a build
# without DEBUG; dropped, so no libplist code runs unless the opener parses
# a property list.
set(_gen ${CMAKE_BINARY_DIR}/_deps/libplist-generated)
file(READ ${_src}/src/plist.c _plist_c)
set(_edited "${_plist_c}")
string(REPLACE "static void __attribute__((constructor)) libplist_initialize(void)"
               "static void __attribute__((unused)) libplist_initialize(void)" _edited "${_edited}")
string(REPLACE "static void __attribute__((destructor)) libplist_deinitialize(void)"
               "static void __attribute__((unused)) libplist_deinitialize(void)" _edited "${_edited}")
string(FIND "${_edited}" "__attribute__((constructor))" _ctor)
string(FIND "${_edited}" "__attribute__((destructor))" _dtor)
if(_edited STREQUAL _plist_c OR NOT _ctor EQUAL -1 OR NOT _dtor EQUAL -1)
  message(FATAL_ERROR "halcyx: libplist's plist.c is not as expected")
endif()
file(CONFIGURE OUTPUT ${_gen}/plist.c CONTENT "${_edited}" @ONLY)
# What its configure script finds on glibc.
file(CONFIGURE OUTPUT ${_gen}/config.h CONTENT
"/* libplist ${_plist_version} on glibc, for the opener's static build. */
#define HAVE_ASPRINTF 1
#define HAVE_STRCASECMP 1
#define HAVE_STRDUP 1
#define HAVE_STRERROR 1
#define HAVE_STRNDUP 1
#define HAVE_STPCPY 1
#define HAVE_VASPRINTF 1
#define HAVE_GMTIME_R 1
#define HAVE_LOCALTIME_R 1
#define HAVE_TIMEGM 1
#define HAVE_STRPTIME 1
#define HAVE_MEMMEM 1
#define HAVE_TM_TM_GMTOFF 1
#define HAVE_TM_TM_ZONE 1
#define HAVE_FVISIBILITY 1
#define __LITTLE_ENDIAN__ 1
" @ONLY)

add_library(halcyx_plist_static STATIC
  ${_src}/libcnary/node.c
  ${_src}/libcnary/node_list.c
  ${_src}/src/base64.c
  ${_src}/src/bytearray.c
  ${_src}/src/hashtable.c
  ${_src}/src/ptrarray.c
  ${_src}/src/time64.c
  ${_src}/src/xplist.c
  ${_src}/src/bplist.c
  ${_gen}/plist.c)
set_target_properties(halcyx_plist_static PROPERTIES POSITION_INDEPENDENT_CODE ON C_STANDARD 11
                                                     C_EXTENSIONS ON)
target_include_directories(halcyx_plist_static
  PUBLIC ${_src}/include
  PRIVATE ${_gen} ${_src}/src ${_src} ${_src}/libcnary/include)
target_compile_definitions(halcyx_plist_static PRIVATE HAVE_CONFIG_H)
# Not our code: its own visibility, none of our warnings.
target_compile_options(halcyx_plist_static PRIVATE -w -fvisibility=hidden)

# A program opts in with set_target_properties(prog PROPERTIES HALCYX_STATIC_DEPS ON).
set(_static "$<BOOL:$<TARGET_PROPERTY:HALCYX_STATIC_DEPS>>")
target_link_libraries(halcyx_codesign_deps INTERFACE
  "$<${_static}:halcyx_crypto_static;halcyx_plist_static>"
  "$<$<NOT:${_static}>:OpenSSL::Crypto;PkgConfig::PLIST>")
