#!/usr/bin/env bash
# The install tree as a user gets it: `cmake --install` into a fresh prefix,
# then the example program built against it both ways (pkg-config without
# any define, and find_package in a CMake project), the installed tool run,
# and every program run without LD_LIBRARY_PATH where a run path must do.
# Run by install_test inside a test sandbox (QVFS_ROOT) with:
#   QVFS_BUILD_DIR QVFS_SOURCE_DIR QVFS_INSTALL_LIBDIR QVFS_C_COMPILER
#   QVFS_EXTRA_CFLAGS (sanitizer flags) QVFS_RUNNER (emulator of a cross build)
#   QVFS_TOOLCHAIN_FILE (of a cross build) QVFS_TOOL (1: the qvfs tool is built)
set -euo pipefail
: "${QVFS_ROOT:?}" "${QVFS_BUILD_DIR:?}" "${QVFS_SOURCE_DIR:?}" "${QVFS_INSTALL_LIBDIR:?}" "${QVFS_C_COMPILER:?}"
read -r -a runner <<<"${QVFS_RUNNER:-}"
extra=${QVFS_EXTRA_CFLAGS:-}
prefix=$QVFS_ROOT/prefix
work=$QVFS_ROOT/work
example=$QVFS_SOURCE_DIR/examples/road_of_a_recording.c
disk=/dev/scsi/host00/part1
unset LD_LIBRARY_PATH
mkdir -p "$work/app"

fail() { echo "FAILED: $*" >&2; exit 1; }
# Runs the example on disk 0 and checks what it says.
run_example() {
    local out
    out=$("$@" "$disk" 2>&1) || fail "$* exited with $?: $out"
    grep -qF "played    2031616 bytes, all as recorded" <<<"$out" && grep -qF "holds 1 file(s)" <<<"$out" &&
        grep -qx "ok" <<<"$out" || fail "$*: $out"
}

echo "== install into $prefix"
cmake --install "$QVFS_BUILD_DIR" --prefix "$prefix" >/dev/null
[ -f "$prefix/$QVFS_INSTALL_LIBDIR/libqvfs.a" ] || fail "no static library installed"

echo "== pkg-config, plain"
flags=$(PKG_CONFIG_PATH=$prefix/$QVFS_INSTALL_LIBDIR/pkgconfig pkg-config --cflags --libs qvfs)
# shellcheck disable=SC2086
"$QVFS_C_COMPILER" -std=c99 -Wall -Wextra -pedantic -Werror $extra "$example" -o "$work/road_pc" $flags

echo "== CMake, find_package(qvfs)"
cat >"$work/app/CMakeLists.txt" <<EOF
cmake_minimum_required(VERSION 3.18)
project(road C)
find_package(qvfs 0.1 REQUIRED)
add_executable(road_shared "$example")
target_link_libraries(road_shared PRIVATE qvfs::qvfs)
add_executable(road_static "$example")
target_link_libraries(road_static PRIVATE qvfs::qvfs_static)
EOF
cmake -S "$work/app" -B "$work/app/build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_C_COMPILER="$QVFS_C_COMPILER" \
    -DCMAKE_C_FLAGS="$extra" -DCMAKE_EXE_LINKER_FLAGS="$extra" \
    ${QVFS_TOOLCHAIN_FILE:+-DCMAKE_TOOLCHAIN_FILE="$QVFS_TOOLCHAIN_FILE"} >"$work/app/configure.log" 2>&1 ||
    { cat "$work/app/configure.log"; fail "the CMake project does not configure"; }
cmake --build "$work/app/build" >"$work/app/build.log" 2>&1 || { cat "$work/app/build.log"; fail "the CMake project does not build"; }

echo "== the installed tool, by its run path"
if [ "${QVFS_TOOL:-0}" = 1 ]; then
    "${runner[@]}" "$prefix/bin/qvfs" --help >/dev/null || fail "qvfs --help"
    "${runner[@]}" "$prefix/bin/qvfs" --root "$QVFS_ROOT" image 0 5G || fail "qvfs image"
else
    echo "(the tool is not built here)"
    mkdir -p "$(dirname "$QVFS_ROOT$disk")" && truncate -s 5G "$QVFS_ROOT$disk"
fi
usage=$("${runner[@]}" "$prefix/bin/qvfs-demo" --help 2>&1 || true)
grep -q "usage: qvfs-demo" <<<"$usage" || fail "qvfs-demo does not start: $usage"

echo "== the example, three builds"
LD_LIBRARY_PATH=$prefix/$QVFS_INSTALL_LIBDIR run_example "${runner[@]}" "$work/road_pc"
run_example "${runner[@]}" "$work/app/build/road_shared"
run_example "${runner[@]}" "$work/app/build/road_static"

[ "${QVFS_TOOL:-0}" = 1 ] || { echo "install tree OK (without the tool)"; exit 0; }
echo "== qvfs ipc: lists, removes, and creates nothing where there are no keys"
listed=$("${runner[@]}" "$prefix/bin/qvfs" --root "$QVFS_ROOT" ipc)
grep -q "owner list" <<<"$listed" || fail "ipc does not list the owner list: $listed"
"${runner[@]}" "$prefix/bin/qvfs" --root "$QVFS_ROOT" ipc --remove
left=$("${runner[@]}" "$prefix/bin/qvfs" --root "$QVFS_ROOT" ipc)
[ "$left" = "no System V objects under the keys of root $QVFS_ROOT" ] || fail "left after --remove: $left"
mkdir "$work/empty"
"${runner[@]}" "$prefix/bin/qvfs" --root "$work/empty" ipc >/dev/null
[ -z "$(ls -A "$work/empty")" ] || fail "ipc created $(ls -A "$work/empty") in an empty root"
echo "install tree OK"
