// badblock.cpp - marking blocks bad in the status map.
//
// Only the status map changes; the tables keep their entries until the
// channel's next allocation moves it off the block, or until the block is
// released (which makes it free again).
#include <cerrno>

#include "common/proc_lock.h"
#include "disk/df.h"

using namespace qvfs::disk;

extern "C" {

// Marks one block 0xFF, also one that is free or bad already. The block-file
// layer calls it when a transfer of the block fails.
int df_TagBadBlock(uint32_t disk, int32_t block) {
    if (disk >= QVFS_MAX_DISKS || rec(disk).share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = rec(disk);
    qvfs::ProcLockGuard lock(d.lock);
    TQvDiskShare& s = *d.share;
    if (block < 0 || static_cast<uint32_t>(block) >= map_blocks(s.head)) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    s.map[block] = QV_BLK_BAD;

    uint32_t mapIndex = 0;
    int result = -1;
    if (_df_WriteStatusMap(&d, 0, &mapIndex) == 0) {
        result = 0;
        s.mapIndex = static_cast<int32_t>(mapIndex);
    }
    if (d.fd < 0) {
        errno = QVFS_ERR_BADHANDLE;
        return result;
    }
    if (_df_WriteStatusMap(&d, 1, &mapIndex) == 0 && result != 0) {
        result = 0;
        s.mapIndex = static_cast<int32_t>(mapIndex);
    }
    return result;
}

// Marks 0xFE every block of the data area that overlaps the device bytes
// [offset, offset + length], the block holding the byte at the end included.
// Blocks in use are marked too; blocks already bad keep their value.
int df_TagBadUnit(const char* path, uint64_t offset, uint32_t length) {
    if (path == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    const uint32_t index = static_cast<uint32_t>(fsc_GetDiskNumByPath(path));
    const uint64_t device = static_cast<uint64_t>(_df_QueryDevSize(path));
    // A size that cannot be read (-1 from a failed open) counts as 0.
    if (static_cast<int64_t>(device) < 0 || offset >= device) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    if (index >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = rec(index);
    qvfs::ProcLockGuard lock(d.lock);
    if (d.share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (!is_ready(d)) return -1;

    TQvDiskShare& s = *d.share;
    const TQvDiskHead& h = s.head;
    const uint64_t end = offset + length;
    const uint64_t areaEnd = h.dataStart + uint64_t(h.blockSize) * h.tolblk;
    if (h.blockSize == 0 || h.tolblk == 0 || end <= h.dataStart || offset >= areaEnd) return 0;

    uint64_t first = 0;
    if (offset > h.dataStart) {
        first = (offset - h.dataStart) / h.blockSize;
        if (first >= kMaxBlocks) return 0;
    }
    const uint64_t last = end >= areaEnd ? h.tolblk - 1 : (end - h.dataStart) / h.blockSize;
    if (last < first) return 0;

    bool changed = false;
    for (uint64_t b = first; b <= last && b < kMaxBlocks; ++b) {
        if (!is_bad(s.map[b])) {
            s.map[b] = QV_BLK_BADUNIT;
            changed = true;
        }
    }
    if (!changed) return 0;
    const int r0 = _df_WriteStatusMap(&d, 0, nullptr);
    const int r1 = _df_WriteStatusMap(&d, 1, nullptr);
    return (r0 == -1 && r1 == -1) ? -1 : 0;
}

}  // extern "C"
