# SPDX-License-Identifier: MIT
# The opener and the reference daemon built once more, in a sandbox
# configuration (cmake/HalcyxSandbox.cmake) with this build's compiler,
# flags and sanitizers, for the integration tests and the opener benchmark.
# Provides the target halcyx_sandbox and the paths below.
include(ExternalProject)

set(HALCYX_SANDBOX_TEST_DIR "/tmp/halcyx-sbx")
set(HALCYX_SANDBOX_BINARY_DIR ${CMAKE_BINARY_DIR}/sandbox)
set(HALCYX_SANDBOX_OPENER ${HALCYX_SANDBOX_BINARY_DIR}/opener/halcyx-opener)
set(HALCYX_SANDBOX_DAEMON ${HALCYX_SANDBOX_BINARY_DIR}/daemon/halcyx-services-daemon)
# The sandbox's fixed paths, as the opener itself was built with them.
set(HALCYX_SANDBOX_CONFIG_DIR ${HALCYX_SANDBOX_BINARY_DIR}/opener/generated)

if(TARGET halcyx_sandbox)
  return()
endif()
# The sandbox's verifier trusts what this build's signing identity signs.
set(_sandbox_roots "${HALCYX_VENDOR_ROOTS_PEM}")
if(NOT _sandbox_roots)
  set(_sandbox_roots ${HALCYX_DEV_SIGNING_DIR}/root.pem)
endif()
ExternalProject_Add(halcyx_sandbox
  SOURCE_DIR ${PROJECT_SOURCE_DIR}
  BINARY_DIR ${HALCYX_SANDBOX_BINARY_DIR}
  CMAKE_ARGS -DHALCYX_SANDBOX_DIR=${HALCYX_SANDBOX_TEST_DIR}
             -C ${PROJECT_SOURCE_DIR}/cmake/HalcyxSandbox.cmake
             -DCMAKE_BUILD_TYPE=${CMAKE_BUILD_TYPE}
             -DCMAKE_C_COMPILER=${CMAKE_C_COMPILER}
             -DCMAKE_CXX_COMPILER=${CMAKE_CXX_COMPILER}
             -DCMAKE_CXX_FLAGS=${CMAKE_CXX_FLAGS}
             -DCMAKE_EXE_LINKER_FLAGS=${CMAKE_EXE_LINKER_FLAGS}
             -DHALCYX_SANITIZE=${HALCYX_SANITIZE}
             -DHALCYX_WERROR=${HALCYX_WERROR}
             -DHALCYX_OPENER_STATIC=${HALCYX_OPENER_STATIC}
             -DHALCYX_DEPS_CACHE=${HALCYX_DEPS_CACHE_DIR}
             -DHALCYX_VENDOR_ROOTS_PEM=${_sandbox_roots}
  BUILD_COMMAND ${CMAKE_COMMAND} --build ${HALCYX_SANDBOX_BINARY_DIR}
                --target halcyx-opener halcyx-services-daemon
  INSTALL_COMMAND ""
  BUILD_ALWAYS ON
  BUILD_BYPRODUCTS ${HALCYX_SANDBOX_OPENER} ${HALCYX_SANDBOX_DAEMON})
