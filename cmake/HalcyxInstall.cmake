# SPDX-License-Identifier: MIT
# What `cmake --install` puts where (DESTDIR is honoured throughout):
#
#   <libdir>/libhalcyx.a, <libdir>/libhalcyx_codesign.a   the archives
#   <includedir>/halcyx/*.h                              the C headers
#   <libdir>/pkgconfig/halcyx.pc, halcyx-codesign.pc     pkg-config files
#   <libdir>/cmake/halcyx/                               find_package(halcyx)
#   <HALCYX_INSTALL_BUNDLE_DIR>/Contents/Library/services/Open Zorvex Halcyx Services
#                                                        the opener
#   <HALCYX_HOST_DIR>/Services/Contents/Library/services/Zorvex Halcyx Services
#                                                        the reference daemon
#   <HALCYX_ADMIN_TRUST_STORE>/                          empty, root's
#
# Both archives need only the C++ runtime and the C library (libhalcyx) or
# also libcrypto and libplist (libhalcyx_codesign); the pkg-config and CMake
# files name all of it, so a C program links with one line either way.
#
# The opener is installed set-user-ID root only with -DHALCYX_INSTALL_SETUID=ON;
# that install runs as root and refuses a destination on a nosuid mount,
# where the bit would be ignored.
#
# Other parts of the build add their own install rules where they are made,
# and name the targets they install with halcyx_package_targets() so that
# the `deb` target builds them before it packs the install tree.
include_guard(GLOBAL)
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

option(HALCYX_INSTALL_SETUID
       "Install the opener set-user-ID root (install as root; refused on a nosuid mount)" OFF)
set(HALCYX_INSTALL_BUNDLE_DIR "${CMAKE_INSTALL_LIBEXECDIR}/halcyx/Zorvex Halcyx.app" CACHE STRING
    "Product bundle that holds the installed opener (relative: under the install prefix)")

# The opener finds the bundle's root four levels above itself; the daemon is
# where the opener's daemon path points.
set(HALCYX_INSTALL_OPENER_DIR "${HALCYX_INSTALL_BUNDLE_DIR}/Contents/Library/services")
set(HALCYX_INSTALL_OPENER_NAME "Open Zorvex Halcyx Services")
set(HALCYX_INSTALL_DAEMON_DIR "${HALCYX_HOST_DIR}/Services/Contents/Library/services")
set(HALCYX_INSTALL_DAEMON_NAME "Zorvex Halcyx Services")

# Targets whose files the install tree holds; the deb target builds them first.
function(halcyx_package_targets)
  set_property(GLOBAL APPEND PROPERTY HALCYX_PACKAGE_TARGETS ${ARGN})
endfunction()

# --- library ------------------------------------------------------------------
install(TARGETS halcyx halcyx_codesign ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/lib/public/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/halcyx
        FILES_MATCHING PATTERN "*.h")
halcyx_package_targets(halcyx halcyx_codesign)

# What a program linking the archives needs besides them.
set(HALCYX_INSTALL_LINK_LIBS stdc++ m ${CMAKE_DL_LIBS})

# The pkg-config files name the prefix given at install time
# (`cmake --install --prefix`), not only the configured one.
set(_pkg ${PROJECT_BINARY_DIR}/halcyx-pkg)
foreach(_dir LIBDIR INCLUDEDIR)
  if(IS_ABSOLUTE "${CMAKE_INSTALL_${_dir}}")
    set(HALCYX_PC_${_dir} "${CMAKE_INSTALL_${_dir}}")
  else()
    set(HALCYX_PC_${_dir} "\${prefix}/${CMAKE_INSTALL_${_dir}}")
  endif()
endforeach()
list(TRANSFORM HALCYX_INSTALL_LINK_LIBS PREPEND "-l" OUTPUT_VARIABLE HALCYX_PC_LIBS)
list(JOIN HALCYX_PC_LIBS " " HALCYX_PC_LIBS)
set(HALCYX_PC_PREFIX "@HALCYX_PC_PREFIX@")  # filled in at install time
foreach(_pc halcyx halcyx-codesign)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/${_pc}.pc.in ${_pkg}/${_pc}.pc.in @ONLY)
  install(CODE "
    set(HALCYX_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
    configure_file(\"${_pkg}/${_pc}.pc.in\" \"${_pkg}/install/${_pc}.pc\" @ONLY)")
  install(FILES ${_pkg}/install/${_pc}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# The CMake package finds its prefix from its own location.
set(_cmakedir ${CMAKE_INSTALL_LIBDIR}/cmake/halcyx)
if(IS_ABSOLUTE "${_cmakedir}")
  set(HALCYX_CONFIG_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH _up /p/${_cmakedir} /p)
  set(HALCYX_CONFIG_PREFIX "\${CMAKE_CURRENT_LIST_DIR}/${_up}")
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/halcyxConfig.cmake.in ${_pkg}/halcyxConfig.cmake @ONLY)
write_basic_package_version_file(${_pkg}/halcyxConfigVersion.cmake
                                 VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${_pkg}/halcyxConfig.cmake ${_pkg}/halcyxConfigVersion.cmake
        DESTINATION ${_cmakedir})

# --- programs -----------------------------------------------------------------
# Reports whether the kernel would honour a set-user-ID bit at a path (run
# by the set-user-ID install and by the install tests).
add_executable(halcyx_nosuid_check ${CMAKE_CURRENT_LIST_DIR}/nosuidCheck.c)

set(_opener_mode OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                 WORLD_READ WORLD_EXECUTE)
if(HALCYX_INSTALL_SETUID)
  list(APPEND _opener_mode SETUID)
  if(IS_ABSOLUTE "${HALCYX_INSTALL_OPENER_DIR}")
    set(_dest "${HALCYX_INSTALL_OPENER_DIR}")
  else()
    set(_dest "\${CMAKE_INSTALL_PREFIX}/${HALCYX_INSTALL_OPENER_DIR}")
  endif()
  install(CODE "
    execute_process(COMMAND \"$<TARGET_FILE:halcyx_nosuid_check>\" \"\$ENV{DESTDIR}${_dest}\"
                    RESULT_VARIABLE _rc)
    if(NOT _rc EQUAL 0)
      message(FATAL_ERROR \"halcyx: the opener is not installed set-user-ID root there \"
                          \"(see above); configure with -DHALCYX_INSTALL_SETUID=OFF to \"
                          \"install it without the bit.\")
    endif()")
endif()
install(PROGRAMS $<TARGET_FILE:halcyx-opener> DESTINATION "${HALCYX_INSTALL_OPENER_DIR}"
        RENAME "${HALCYX_INSTALL_OPENER_NAME}" PERMISSIONS ${_opener_mode})
install(PROGRAMS $<TARGET_FILE:halcyx-services-daemon> DESTINATION "${HALCYX_INSTALL_DAEMON_DIR}"
        RENAME "${HALCYX_INSTALL_DAEMON_NAME}")
# Anchors are added by the administrator; only root may write the store.
install(DIRECTORY DESTINATION "${HALCYX_ADMIN_TRUST_STORE}"
        DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                              WORLD_READ WORLD_EXECUTE)
halcyx_package_targets(halcyx-opener halcyx-services-daemon halcyx-sign)

# --- Debian package -----------------------------------------------------------
# What scripts/make-deb.sh needs to know about this build.
set(_conf "")
foreach(_v PROJECT_NAME PROJECT_VERSION HALCYX_INSTALL_OPENER_DIR HALCYX_INSTALL_OPENER_NAME
           HALCYX_HOST_DIR HALCYX_ADMIN_TRUST_STORE HALCYX_SANDBOX_DIR HALCYX_VENDOR_ROOTS_PEM
           CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_LIBEXECDIR CMAKE_INSTALL_MANDIR CMAKE_INSTALL_DOCDIR)
  string(FIND "${${_v}}" "'" _quote)
  if(NOT _quote EQUAL -1)
    message(FATAL_ERROR "halcyx: ${_v} may not contain a single quote")
  endif()
  string(APPEND _conf "${_v}='${${_v}}'\n")
endforeach()
file(CONFIGURE OUTPUT ${_pkg}/package.conf CONTENT "${_conf}" @ONLY)

add_custom_target(deb
  COMMAND ${PROJECT_SOURCE_DIR}/scripts/make-deb.sh ${PROJECT_BINARY_DIR} ${PROJECT_BINARY_DIR}
  COMMENT "Making the Debian package from the install tree"
  USES_TERMINAL VERBATIM)
function(_halcyx_deb_depends)
  get_property(_targets GLOBAL PROPERTY HALCYX_PACKAGE_TARGETS)
  add_dependencies(deb ${_targets})
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL _halcyx_deb_depends)
