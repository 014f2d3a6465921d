#!/usr/bin/env bash
# Builds qvfs (library, tests, tools) for the 32-bit ARM recorders (armhf)
# and runs the test suite under qemu-arm (the record layouts are checked when
# it compiles); then shows that a disk image recorded by either build reads
# the same on the other. Installs what it needs with apt-get when
# missing. Extra arguments go to the armhf ctest run (for example: -R disk_).
#
#   QVFS_ARMHF_BUILD_DIR  armhf build directory (default build-armhf)
#   QVFS_BUILD_DIR        x86_64 build used for the cross checks (default build,
#                         as test.sh; configured here when it does not exist)
#   QVFS_CMAKE_ARGS       extra CMake options for both builds (e.g. -DQVFS_WERROR=ON)
set -euo pipefail
source "$(dirname "$0")/common.sh"
qvfs_need_packages
qvfs_need_armhf_packages

ARM=${QVFS_ARMHF_BUILD_DIR:-$QVFS_TOP/build-armhf}
HOST=${QVFS_BUILD_DIR:-$QVFS_TOP/build}
TOOLCHAIN=$QVFS_TOP/cmake/toolchain-armhf.cmake
JOBS=${QVFS_TEST_JOBS:-$(nproc)}

# Tests that cannot run under user-mode emulation, with the reason. qemu-user
# passes to the kernel only the ioctl requests it knows how to translate and
# answers the others with ENOSYS; the disk presence request and the task list
# request are not among them.
EXCLUDED=(
    'PlatformTest.LoopDeviceSizeAndPresence'     # presence request 0x400 on a loop device
    'PlatformTest.TaskDeviceIsOpenedBelowTheRoot' # expects ENOTTY from the task list request
)
# A process forked from a multi-threaded one cannot start a thread under
# qemu-arm 7.2: the emulator aborts with this message. Tests that meet it are
# reported and left to the x86_64 run.
EMULATOR_ABORT='qemu_plugin_vcpu_init_hook: assertion failed'

# ---- GoogleTest for the target, from Debian's sources, once per build directory.
GTEST=$ARM/googletest
if [ ! -f "$GTEST/install/lib/cmake/GTest/GTestConfig.cmake" ]; then
    echo "== GoogleTest for armhf"
    cmake -S /usr/src/googletest -B "$GTEST/build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" \
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$GTEST/install" >/dev/null
    cmake --build "$GTEST/build" -j "$(nproc)" >/dev/null
    cmake --install "$GTEST/build" >/dev/null
fi

echo "== armhf build"
# shellcheck disable=SC2086
qvfs_build "$ARM" -DCMAKE_TOOLCHAIN_FILE="$TOOLCHAIN" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DGTest_DIR="$GTEST/install/lib/cmake/GTest" ${QVFS_CMAKE_ARGS:-}
# The command that runs ARM programs here, as the toolchain file chose it.
IFS=';' read -r -a EMULATOR <<<"$(sed -n 's/^QVFS_ARMHF_EMULATOR:INTERNAL=//p' "$ARM/CMakeCache.txt")"
[ ${#EMULATOR[@]} -gt 0 ] && [ -x "${EMULATOR[0]}" ] || { echo "no qemu-arm found" >&2; exit 1; }
arm_run() { "${EMULATOR[@]}" "$@"; }

echo "== armhf test suite under ${EMULATOR[*]}"
exclude="^($(IFS='|'; echo "${EXCLUDED[*]//./\\.}"))\$"
log=$ARM/armhf-ctest.log
suite_start=$(date +%s)
rm -f "$ARM/Testing/Temporary/LastTestsFailed.log"
set +e
# ctest's own summary would count the emulator's aborts as failures; it goes
# to the log, and the verdict below is printed instead.
(cd "$ARM" && ctest -j "$JOBS" --timeout 900 -E "$exclude" "$@") >"$log" 2>&1
set -e
suite_secs=$(($(date +%s) - suite_start))

# Sort the failures: the emulator's own abort, or a real one.
total=$(sed -n 's/.* tests failed out of \([0-9]*\)$/\1/p' "$log" | tail -1)
[ -n "$total" ] || { echo "ctest did not finish" >&2; exit 1; }
skipped=$(grep -c '(Skipped)$' "$log" || true)
emulated=()
failed=()
if [ -f "$ARM/Testing/Temporary/LastTestsFailed.log" ]; then
    while IFS=: read -r _ name; do
        block=$(awk -v t="$name" '
            /^[0-9]+\/[0-9]+ Testing: / { s = $0; sub(/^[0-9]+\/[0-9]+ Testing: /, "", s); on = (s == t) }
            on' "$ARM/Testing/Temporary/LastTest.log")
        if grep -q "$EMULATOR_ABORT" <<<"$block"; then
            emulated+=("$name")
        else
            failed+=("$name")
            echo "---- $name"
            echo "$block" | tail -40
        fi
    done <"$ARM/Testing/Temporary/LastTestsFailed.log"
fi
if [ ${#emulated[@]} -gt 0 ]; then
    echo "left to x86_64 (the emulator cannot start a thread in a forked child):"
    printf '    %s\n' "${emulated[@]}"
fi
echo "left to x86_64 (ioctl requests the emulator does not pass on): ${EXCLUDED[*]}"
passed=$((total - ${#emulated[@]} - ${#failed[@]} - skipped))
echo "armhf suite: ${suite_secs} s on $JOBS jobs"
echo "armhf: $passed passed, ${#failed[@]} failed, $((skipped + ${#emulated[@]} + ${#EXCLUDED[@]})) skipped"
[ ${#failed[@]} -eq 0 ] || exit 1

# ---- Cross checks against the x86_64 build.
echo "== disk images across x86_64 and armhf"
if [ ! -f "$HOST/CMakeCache.txt" ]; then
    # shellcheck disable=SC2086
    cmake -S "$QVFS_TOP" -B "$HOST" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo ${QVFS_CMAKE_ARGS:-} >/dev/null
fi
cmake --build "$HOST" -j "$(nproc)" --target cross_arch_test
work=$(mktemp -d "${TMPDIR:-/tmp}/qvfs-xarch-XXXXXX")
trap 'rm -rf "$work"' EXIT

# An image recorded by one build, read by the other; the reader compares what
# it finds with what the recording build itself read back from that image.
xarch() {  # xarch WRITER READER
    local dir=$work/$1
    mkdir -p "$dir"
    QVFS_XARCH_DIR=$dir run_"$1" "$(build_of "$1")/tests/cross_arch_test" --gtest_brief=1 \
        --gtest_filter=CrossArchImage.RecordForTheOtherBuild
    [ -f "$dir/report.txt" ] || { echo "$1 wrote no image report" >&2; exit 1; }
    QVFS_XARCH_DIR=$dir run_"$2" "$(build_of "$2")/tests/cross_arch_test" --gtest_brief=1 \
        --gtest_filter=CrossArchImage.ReadTheOtherBuildsImage
    [ -f "$dir/verified" ] || { echo "$2 did not verify the image of $1" >&2; exit 1; }
    echo "image recorded by $1 reads the same on $2 ($(wc -l <"$dir/report.txt") report lines)"
}
build_of() { if [ "$1" = armhf ]; then echo "$ARM"; else echo "$HOST"; fi; }
run_armhf() { arm_run "$@"; }
run_x86_64() { "$@"; }
xarch armhf x86_64
xarch x86_64 armhf
