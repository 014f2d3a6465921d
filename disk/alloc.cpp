// alloc.cpp - handing blocks to channels and taking them back.
//
// Every change is made in the shared image first and then written to both
// meta regions: the status map and the 4 KiB chunks of the one data type
// that changed. The disk's lock is held across the meta writes, so the
// changes of one disk are strictly one after the other in all processes,
// and two processes never pick the same free block. Zeroing a block's head
// (up to 16 MiB) is done with the lock released: the block is taken in the
// image before and belongs to the allocating or releasing caller meanwhile.
#include <cerrno>
#include <cstring>

#include "common/devio.h"
#include "common/platform.h"
#include "common/proc_lock.h"
#include "disk/df.h"
#include "reason.h"

using namespace qvfs::disk;

namespace {

// Data beyond a new write must leave this much room in the block.
constexpr uint32_t kSpareRoom = 0x500000;

// Whether the channel's current block b can take `length` more bytes and
// one more slice entry. Reads b's header; failures only mean "no" (they may
// leave errno behind). Caller holds the disk lock.
bool has_room(const TQvDiskRec& d, int32_t b, int32_t length) {
    const TQvDiskShare& s = *d.share;
    if (b < 0 || static_cast<uint32_t>(b) >= map_blocks(s.head)) return false;
    // A block that is not in use (released, or turned bad) takes nothing;
    // testing this first also keeps a damaged table from sending the reuse
    // test to a block outside the disk.
    if (s.map[b] != QV_BLK_USED) return false;

    auto* sector = static_cast<uint8_t*>(qvfs_Malloc(kBlockHeadSize));
    if (sector == nullptr) {
        errno = QVFS_ERR_NOMEM;
        return false;
    }
    const bool read = get_piece(d.fd, block_addr(s.head, static_cast<uint32_t>(b)), sector, kBlockHeadSize);
    const BlockHeadView h = parse_block_head(sector);
    qvfs_Free(sector);
    if (!read) return false;

    const uint32_t selfInfo = static_cast<uint32_t>(fsc_GetSelfInfoLen(static_cast<int>(h.dataType)));
    const uint32_t len = (h.len == 0 || h.len > selfInfo) ? selfInfo : h.len;
    if (h.slice >= len / 512 - 1) {
        errno = QVFS_ERR_BADHANDLE;  // the slice directory is full
        return false;
    }
    const uint64_t blockSize = s.head.blockSize;
    if (h.next > blockSize) return false;
    // The request plus the spare room, in 32 bits and sign-extended: a
    // length near 2 GiB wraps negative and then never fits.
    const int32_t need32 = static_cast<int32_t>(static_cast<uint32_t>(length) + kSpareRoom);
    const uint64_t need = static_cast<uint64_t>(static_cast<int64_t>(need32));
    return need < blockSize - h.next;
}

// Zeroes a block's head (as _df_ClearBlockHead) through a descriptor of its
// own with the disk's lock released, so that an unmount meanwhile cannot
// close the descriptor under the writes, and takes the lock again. True
// when the head was zeroed and the disk is still ready. Caller holds `lock`
// (the disk's) and owns the block.
bool clear_unlocked(TQvDiskRec& d, qvfs::ProcLockGuard& lock, int32_t block, uint32_t length) {
    const uint64_t start = block_addr(d.share->head, static_cast<uint32_t>(block));
    const int fd = qvfs::plat::dup_device(d.fd);
    if (fd < 0) {
        errno += QVFS_ERR_SYS;
        return false;
    }
    lock.unlock();
    const bool cleared = clear_head(fd, start, length) == 0;
    qvfs::plat::close_fd(fd);
    lock.lock();
    return cleared && is_ready(d);
}

// Result of writing one change to the meta regions: written when at least
// one region took all its pieces; mapIndex is that region's map value.
struct MetaResult {
    bool written = false;
    uint32_t mapIndex = 0;
};

}  // namespace

extern "C" {

int df_GetFileBlkId(const TQvfsOpenParam* req, TQvBlkId* out) {
    if (req == nullptr || out == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    const int disk = fsc_GetDiskNumByPath(req->path);
    if (disk < 0) {
        errno = QVFS_ERR_DISKNUM;
        qvfs::why(QVFS_WHY_NOT_MOUNTED);
        return -1;
    }
    if (disk >= QVFS_MAX_DISKS || rec(static_cast<uint32_t>(disk)).share == nullptr) {
        errno = QVFS_ERR_BADARG;
        qvfs::why(QVFS_WHY_NOT_MOUNTED);
        out->block = -1;
        return -1;
    }
    TQvDiskRec& d = rec(static_cast<uint32_t>(disk));
    qvfs::ProcLockGuard lock(d.lock);  // status map and tables of the image
    if (!is_ready(d)) {
        qvfs::why(QVFS_WHY_NOT_MOUNTED);
        out->block = -1;
        return -1;
    }
    const uint32_t c = req->chn;
    const uint32_t t = static_cast<uint32_t>(fsc_GetBlkType(req->fileType)) % kTypes;
    if (c >= kChannels) {
        errno = QVFS_ERR_CHANNEL;
        qvfs::why(QVFS_WHY_CHANNEL);
        out->block = -1;
        return -1;
    }
    TQvDiskShare& s = *d.share;

    // The channel keeps its current block while it has room.
    const int32_t current = s.current[t][c];
    if (current != -1) {
        if (has_room(d, current, req->resSize)) {
            out->disk = static_cast<uint32_t>(disk);
            out->block = current;
            return 0;
        }
        s.current[t][c] = -1;
    }

    // Otherwise the lowest free block becomes the channel's current block.
    const uint32_t blocks = map_blocks(s.head);
    const uint8_t* hit = static_cast<const uint8_t*>(std::memchr(s.map, QV_BLK_FREE, blocks));
    if (hit == nullptr) {
        errno = QVFS_ERR_BADHANDLE;
        qvfs::why(QVFS_WHY_DISK_FULL);
        out->block = -1;
        return -1;
    }
    const int32_t b = static_cast<int32_t>(hit - s.map);
    // The block is taken in the image (no process picks it again) and its
    // head is zeroed without the disk's lock, which every process's
    // recording needs meanwhile; it becomes the channel's current block and
    // reaches the meta regions only when its head is clean.
    qvfs::disk::index_note_alloc(static_cast<uint32_t>(disk), static_cast<uint32_t>(b), c, t);
    s.map[b] = QV_BLK_USED;
    if (!clear_unlocked(d, lock, b, static_cast<uint32_t>(fsc_GetSelfInfoLen(static_cast<int>(t))))) {
        if (d.share == &s) s.map[b] = QV_BLK_FREE;
        out->block = -1;
        return -1;
    }
    s.current[t][c] = b;
    ++s.count[t][c];

    MetaResult meta;
    uint32_t mapIndex = 0;
    if (_df_WriteStatusMap(&d, 0, &mapIndex) == 0 && _df_WriteTypeTables(&d, 0, t) == 0)
        meta = {true, mapIndex};
    if (_df_WriteStatusMap(&d, 1, &mapIndex) == 0 && _df_WriteTypeTables(&d, 1, t) == 0 && !meta.written)
        meta = {true, mapIndex};
    if (!meta.written) {
        // The image keeps the allocation; the block stays in use.
        out->block = -1;
        return -1;
    }
    s.mapIndex = static_cast<int32_t>(meta.mapIndex);
    out->disk = static_cast<uint32_t>(disk);
    out->block = b;
    return 0;
}

int df_ReleaseBlock(uint32_t disk, int32_t block, uint32_t channel, uint32_t type, uint32_t clearLen) {
    if (disk >= QVFS_MAX_DISKS || rec(disk).share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = rec(disk);
    qvfs::ProcLockGuard lock(d.lock);
    TQvDiskShare& s = *d.share;
    if (block < 0 || static_cast<uint32_t>(block) >= map_blocks(s.head) || channel >= kChannels) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    if (s.map[block] == QV_BLK_FREE) return 0;
    // The block is still in use and its caller's alone: its head is zeroed
    // without the disk's lock. A failure leaves the release to go on, as
    // before (the head is cleared again when the block is next taken).
    clear_unlocked(d, lock, block, clearLen);
    if (s.map[block] == QV_BLK_FREE) return 0;

    MetaResult meta;
    uint32_t mapIndex = 0;
    if (type >= kTypes) {
        // No type: only the status map changes.
        s.map[block] = QV_BLK_FREE;
        if (_df_WriteStatusMap(&d, 0, &mapIndex) == 0) meta = {true, mapIndex};
        if (_df_WriteStatusMap(&d, 1, &mapIndex) == 0 && !meta.written) meta = {true, mapIndex};
    } else {
        const bool wasCurrent = s.current[type][channel] == block;
        if (wasCurrent) s.current[type][channel] = -1;
        s.map[block] = QV_BLK_FREE;
        if (s.count[type][channel] != 0) --s.count[type][channel];

        // Region 0: every piece is attempted.
        bool ok0 = _df_WriteStatusMap(&d, 0, &mapIndex) == 0;
        const uint32_t mapIndex0 = mapIndex;
        ok0 = (put_count_chunk(d, 0, type) == Put::kOk) && ok0;
        if (wasCurrent) ok0 = (put_current_chunk(d, 0, type) == Put::kOk) && ok0;
        if (ok0) meta = {true, mapIndex0};

        // Region 1: the writing ends at the first piece that does not go out.
        bool ok1 = _df_WriteStatusMap(&d, 1, &mapIndex) == 0 && put_count_chunk(d, 1, type) == Put::kOk &&
                   (!wasCurrent || put_current_chunk(d, 1, type) == Put::kOk);
        if (ok1 && !meta.written) meta = {true, mapIndex};
    }
    if (!meta.written) return -1;  // the image keeps the release
    s.mapIndex = static_cast<int32_t>(meta.mapIndex);
    return 0;
}

int64_t df_GetBlkAddr(uint32_t disk, int32_t block) {
    if (disk >= QVFS_MAX_DISKS || rec(disk).share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return 0;
    }
    TQvDiskRec& d = rec(disk);
    qvfs::ProcLockGuard lock(d.lock);
    const TQvDiskHead& h = d.share->head;
    if (block < 0 || static_cast<uint32_t>(block) >= map_blocks(h)) {
        errno = QVFS_ERR_BADHANDLE;
        return 0;
    }
    return static_cast<int64_t>(block_addr(h, static_cast<uint32_t>(block)));
}

uint32_t df_IsBlockAllocated(uint32_t disk, int32_t block) {
    if (disk >= QVFS_MAX_DISKS || rec(disk).share == nullptr || block < 0) return 0;
    TQvDiskRec& d = rec(disk);
    qvfs::ProcLockGuard lock(d.lock);
    const TQvDiskShare& s = *d.share;
    if (static_cast<uint32_t>(block) >= map_blocks(s.head)) return 0;
    return s.map[block] != QV_BLK_FREE ? 1 : 0;
}

}  // extern "C"
