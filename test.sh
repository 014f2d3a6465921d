#!/usr/bin/env bash
# Builds everything (library, tools, examples, tests) and runs the whole test
# suite; installs the build tools and libraries if missing.
# Extra arguments are passed to ctest (for example: -R disk_).
set -euo pipefail
source "$(dirname "$0")/scripts/common.sh"
qvfs_need_packages
BUILD=${QVFS_BUILD_DIR:-$QVFS_TOP/build}
qvfs_build "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQVFS_BUILD_TESTS=ON ${QVFS_CMAKE_ARGS:-}
cd "$BUILD"
ctest -j "${QVFS_TEST_JOBS:-4}" --output-on-failure --timeout 300 "$@"
