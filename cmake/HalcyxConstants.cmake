# SPDX-License-Identifier: MIT
# The fixed paths and names of the opener. Their defaults are the product's
# real values; test builds may point them somewhere else.

set(HALCYX_LOCK_PATH "/var/run/Zorvex Halcyx Services.lock" CACHE STRING
    "Lock file that serialises the choice between client and listener")
set(HALCYX_SOCKET_PATH "/var/run/Zorvex Halcyx Services.sock" CACHE STRING
    "Unix-domain socket of the services daemon")
set(HALCYX_HOST_DIR "/Library/Application Support/Zorvex/Zorvex Halcyx" CACHE STRING
    "Host directory holding the root-owned Services tree")
set(HALCYX_PRODUCT_FILE "/Library/Preferences/Zorvex Halcyx/lastLocationUsed" CACHE STRING
    "File recording where the product bundle was last used from")
set(HALCYX_LOCATION_ENV "ZORVEX_LOCATION_ROOT_FULLPATH" CACHE STRING
    "Environment variable naming the product root for untagged programs")
set(HALCYX_PROCESS_TAG "halcyx-opener" CACHE STRING "Process tag of the opener")
set(HALCYX_LOG_LEVEL "2" CACHE STRING "Log level handed to the opener")
set(HALCYX_RENDEZVOUS_BOUND_SECONDS "30" CACHE STRING
    "Seconds the opener waits for the rendezvous lock, and for a connect that blocks under it")
set(HALCYX_SERVICE_SOCKET_DIR "/run" CACHE STRING
    "Directory of the privileged service listener's sockets")
set(HALCYX_ADMIN_TRUST_STORE "/etc/halcyx/trust" CACHE STRING
    "Root-owned directory of PEM anchors for 'anchor trusted'")
set(HALCYX_DAEMON_LOG_PATH "/var/log/Zorvex Halcyx Services.log" CACHE STRING
    "Log file of the reference services daemon")
set(HALCYX_VENDOR_ROOTS_PEM "" CACHE FILEPATH
    "PEM file of the vendor root certificates pinned into the code-signature verifier (empty: a development root is generated in the build tree)")
option(HALCYX_TEST_SEAMS
       "Pause points and allocation failure for the adversarial tests (sandbox builds only)" OFF)
