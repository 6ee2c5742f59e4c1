# SPDX-License-Identifier: MIT
# Initial cache for a sandbox build (cmake -C cmake/HalcyxSandbox.cmake):
# every fixed path of the opener and the reference daemon lies under one
# short directory, so the socket path fits sun_path wherever the sources
# are. The demo, the integration tests and the opener benchmarks cover /tmp
# with a private tmpfs in their own mount namespace and make that directory
# inside it; a sandbox
# opener must never be installed set-user-ID anywhere else.
set(HALCYX_SANDBOX_DIR "/tmp/halcyx-sbx" CACHE STRING "Root of the sandbox's fixed paths")
set(HALCYX_LOCK_PATH "${HALCYX_SANDBOX_DIR}/run/Zorvex Halcyx Services.lock" CACHE STRING "")
set(HALCYX_SOCKET_PATH "${HALCYX_SANDBOX_DIR}/run/Zorvex Halcyx Services.sock" CACHE STRING "")
set(HALCYX_HOST_DIR "${HALCYX_SANDBOX_DIR}/Library/Application Support/Zorvex/Zorvex Halcyx"
    CACHE STRING "")
set(HALCYX_PRODUCT_FILE "${HALCYX_SANDBOX_DIR}/Library/Preferences/Zorvex Halcyx/lastLocationUsed"
    CACHE STRING "")
set(HALCYX_DAEMON_LOG_PATH "${HALCYX_SANDBOX_DIR}/log/Zorvex Halcyx Services.log" CACHE STRING "")
# Tests wait for the rendezvous bound to pass, so it is shorter here; the
# test user's openers pause with the lock held (never in a real build).
set(HALCYX_RENDEZVOUS_BOUND_SECONDS "10" CACHE STRING "")
set(HALCYX_TEST_PAUSE_UID "65530" CACHE STRING "")
# Pause points and allocation failure for the adversarial tests.
set(HALCYX_TEST_SEAMS ON CACHE BOOL "")
set(HALCYX_BUILD_TESTS OFF CACHE BOOL "")
set(HALCYX_BUILD_BENCH OFF CACHE BOOL "")
