#!/usr/bin/env bash
# Builds the library and the demo program (nothing else: the test suite is
# test.sh's) and runs the demo in a sandbox below the working directory
# (./qvfs-sandbox, created when missing). No real disk is touched. The build
# prints nothing but errors.
set -euo pipefail
source "$(dirname "$0")/scripts/common.sh"
qvfs_need_build_tools
BUILD=${QVFS_BUILD_DIR:-$QVFS_TOP/build}
echo "building the qvfs library and the demo in $BUILD ..."
qvfs_build_quiet "$BUILD" qvfs-demo -DCMAKE_BUILD_TYPE=RelWithDebInfo
export QVFS_ROOT=${QVFS_ROOT:-$PWD/qvfs-sandbox}
mkdir -p "$QVFS_ROOT"
exec "$BUILD/tools/qvfs-demo" "$@"
