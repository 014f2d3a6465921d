#!/usr/bin/env bash
# Builds qvfs and runs the demo in a sandbox below the working directory
# (./qvfs-sandbox, created when missing). No real disk is touched.
set -euo pipefail
source "$(dirname "$0")/scripts/common.sh"
qvfs_need_packages
BUILD=${QVFS_BUILD_DIR:-$QVFS_TOP/build}
qvfs_build "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo
export QVFS_ROOT=${QVFS_ROOT:-$PWD/qvfs-sandbox}
mkdir -p "$QVFS_ROOT"
exec "$BUILD/tools/qvfs-demo" "$@"
