// badblock.cpp - marking blocks bad in the status map.
//
// Only the status map changes; the tables keep their entries until the
// channel's next allocation moves it off the block, or until the block is
// released (which makes it free again). Lifting a mark (after the operator
// checked the disk) is the one way back short of a release.
#include <algorithm>
#include <cerrno>
#include <iterator>

#include "common/proc_lock.h"
#include "disk/df.h"
#include "reason.h"

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
    // Only the layers call this, after the device failed a transfer of the
    // block: that is the reason of the failure they report.
    qvfs::why(QVFS_WHY_IO);
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

// Lifts the bad mark of one block. What the block returns to is decided by
// its header on the device, read under the disk's lock:
//   - the header counts files (cnt > 0): in use, for the channel and type the
//     tables still count it for (a mark never changed them);
//   - no files, but a channel's current-block entry names the block: in use,
//     as that channel's block waiting for its first file;
//   - otherwise: free. A header that is not all zero is zeroed first, as a
//     release does, and when it names a type and channel (Len set) that
//     channel's block count drops by one.
// The status map (and a changed count chunk) is written to both meta
// regions; when no region takes the change the image gets the mark back.
// Returns the new status, QV_BLK_FREE or QV_BLK_USED, or -1: 1001 disk above
// 24, no image or not ready; 1002 block out of range; QVFS_ERR_NOTBAD a block
// that is not bad; 3000 + errno the header cannot be read (the mark stays).
int df_ClearBadBlock(uint32_t disk, int32_t block) {
    if (disk >= QVFS_MAX_DISKS || rec(disk).share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = rec(disk);
    qvfs::ProcLockGuard lock(d.lock);
    if (!is_ready(d) || d.fd < 0) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskShare& s = *d.share;
    if (block < 0 || static_cast<uint32_t>(block) >= map_blocks(s.head)) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    const uint8_t mark = s.map[block];
    if (!is_bad(mark)) {
        errno = QVFS_ERR_NOTBAD;
        return -1;
    }
    uint8_t sector[kBlockHeadSize];
    if (!get_piece(d.fd, block_addr(s.head, static_cast<uint32_t>(block)), sector, kBlockHeadSize)) return -1;
    const BlockHeadView h = parse_block_head(sector);

    bool current = false;
    for (uint32_t t = 0; t < kTypes && !current; ++t)
        current = std::find(std::begin(s.current[t]), std::end(s.current[t]), block) != std::end(s.current[t]);
    const uint8_t status = (h.cnt > 0 || current) ? QV_BLK_USED : QV_BLK_FREE;

    // The channel whose count drops with a block given back, if any.
    const bool counted = status == QV_BLK_FREE && h.len != 0 && h.dataType < kTypes && h.chn < kChannels &&
                         s.count[h.dataType][h.chn] != 0;
    // The header's own length when it can be one (whole 512 KiB pieces are
    // cleared), else 16 MiB, the largest self-info area.
    const uint32_t clearLen = h.len >= 0x80000 ? h.len : 0;
    if (status == QV_BLK_FREE && std::any_of(std::begin(sector), std::end(sector), [](uint8_t b) { return b != 0; }) &&
        _df_ClearBlockHead(&d, block, clearLen) != 0)
        return -1;
    s.map[block] = status;
    if (counted) --s.count[h.dataType][h.chn];

    uint32_t mapIndex = 0;
    bool written = false;
    for (uint32_t r = 0; r < 2; ++r) {
        uint32_t index = 0;
        const bool ok = _df_WriteStatusMap(&d, r, &index) == 0 &&
                        (!counted || put_count_chunk(d, r, h.dataType) == Put::kOk);
        if (ok && !written) mapIndex = index;
        written = written || ok;
    }
    if (!written) {
        s.map[block] = mark;
        if (counted) ++s.count[h.dataType][h.chn];
        return -1;
    }
    s.mapIndex = static_cast<int32_t>(mapIndex);
    return status;
}

}  // extern "C"
