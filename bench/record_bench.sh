#!/usr/bin/env bash
# record_bench.sh [--quick] [record_bench options...]
#
# The recording benchmark in one command: qvfs against ext4 used the way
# recorders use it, with the raw device as the limit (bench/record_bench.cpp
# says what is measured). As root it makes two loop devices with direct I/O
# over sparse backing files in QVFS_BENCH_DIR (default: bench-data in the
# build directory): qvfs on the first (formatted by the library over its
# first part; the raw limit writes behind that part), ext4 on the second,
# made and mounted here. Without root it falls back to an image file for
# qvfs and the raw limit and a plain directory of the file system that holds
# QVFS_BENCH_DIR instead of ext4, and says so. --quick is the short version
# that ctest runs (label "bench"): tiny sizes, one round; it needs root and
# loop devices and exits 77 (skipped) without them. Everything made here is
# removed at the end: the loop devices, the mount, the backing files and the
# System V objects of the sandbox root.
set -euo pipefail

TOP=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${QVFS_BUILD_DIR:-$TOP/build}
QUICK=0
ARGS=()
for a in "$@"; do
    if [ "$a" = --quick ]; then QUICK=1; fi
    ARGS+=("$a")
done

BIN=$BUILD/bench/record_bench
if [ ! -x "$BIN" ]; then
    cmake --build "$BUILD" --target record_bench >/dev/null
fi

WORK=${QVFS_BENCH_DIR:-$BUILD/bench-data}
mkdir -p "$WORK"
WORK=$(cd "$WORK" && pwd)
ROOT=$WORK/root
GIB=$((1024 * 1024 * 1024))

use_loop=0
if [ "$(id -u)" -eq 0 ] && command -v losetup >/dev/null && command -v mkfs.ext4 >/dev/null &&
    [ -e /dev/loop-control ]; then
    use_loop=1
fi
if [ $use_loop -eq 0 ] && [ $QUICK -eq 1 ]; then
    echo "record_bench --quick: needs root and loop devices; skipped"
    exit 77
fi

# qvfs needs 3 GiB of metadata area and one block per channel (and, for the
# listing, one per listed block); the raw limit writes 64 regions of 1 GiB
# behind the qvfs part.
if [ $QUICK -eq 1 ]; then
    QVFS_GIB=40
    EXT4_GIB=2
else
    QVFS_GIB=1040
    EXT4_GIB=16
fi
RAW_GIB=64
QVFS_BYTES=$((QVFS_GIB * GIB))

QLOOP=""
ELOOP=""
MNT=$WORK/ext4
cleanup() {
    set +e
    if mountpoint -q "$MNT" 2>/dev/null; then umount "$MNT"; fi
    [ -n "$ELOOP" ] && losetup -d "$ELOOP"
    [ -n "$QLOOP" ] && losetup -d "$QLOOP"
    rm -rf "$WORK/qvfs.img" "$WORK/ext4.img" "$MNT" "$ROOT"
    rmdir "$WORK" 2>/dev/null
}
trap cleanup EXIT
trap 'exit 130' INT TERM

rm -f "$WORK/qvfs.img" "$WORK/ext4.img"
truncate -s $(((QVFS_GIB + RAW_GIB) * GIB)) "$WORK/qvfs.img"
mkdir -p "$ROOT/dev/scsi/host00" "$MNT"
if [ $use_loop -eq 1 ]; then
    truncate -s $((EXT4_GIB * GIB)) "$WORK/ext4.img"
    QLOOP=$(losetup -f --show --direct-io=on "$WORK/qvfs.img")
    ELOOP=$(losetup -f --show --direct-io=on "$WORK/ext4.img")
    # No lazy initialisation: nothing of mkfs may still run during the runs.
    mkfs.ext4 -q -F -E lazy_itable_init=0,lazy_journal_init=0 "$ELOOP"
    mount -o noatime "$ELOOP" "$MNT"
    QDEV=$QLOOP
    SETTING="loop devices with direct I/O ($QLOOP qvfs, $ELOOP ext4 mounted noatime) over sparse files in $WORK"
    EXTRA=(--drop-caches)
    [ $QUICK -eq 1 ] && EXTRA=()
else
    QDEV=$WORK/qvfs.img
    SETTING="NOT loop devices (no root): qvfs on the image file $QDEV, ext4 replaced by a directory of $(df --output=fstype "$WORK" | tail -1) at $MNT"
    echo "record_bench.sh: no root or no loop devices: image files instead (the figures are those of the page cache)" >&2
    EXTRA=()
fi
ln -sf "$QDEV" "$ROOT/dev/scsi/host00/part1"

export QVFS_ROOT=$ROOT
"$BIN" --qvfs-real "$QDEV" --qvfs-bytes "$QVFS_BYTES" --ext4-dir "$MNT" --raw "$QDEV" \
    --raw-offset "$QVFS_BYTES" --setting "$SETTING" --svg "$BUILD/record_bench.svg" "${EXTRA[@]}" "${ARGS[@]}"
