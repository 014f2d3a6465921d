#!/usr/bin/env bash
# Builds qvfs and runs the whole test suite (installs build tools if missing).
# Extra arguments are passed to ctest (for example: -R disk_).
set -euo pipefail
source "$(dirname "$0")/scripts/common.sh"
qvfs_need_packages
BUILD=${QVFS_BUILD_DIR:-$QVFS_TOP/build}
qvfs_build "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo ${QVFS_CMAKE_ARGS:-}
cd "$BUILD"
ctest -j "${QVFS_TEST_JOBS:-4}" --output-on-failure --timeout 300 "$@"
