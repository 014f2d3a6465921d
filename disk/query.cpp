// query.cpp - read-only questions about a mounted disk: its block count,
// the blocks in use and what their headers say, a channel's current block
// and the space a channel holds.
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "common/proc_lock.h"
#include "disk/df.h"

using namespace qvfs::disk;

namespace {

constexpr uint32_t kSliceBudgetMs = 200;
constexpr useconds_t kSlicePause = 100000;  // 100 ms between slices

// Microseconds from a to b, as a signed 32-bit count (a clock step
// backwards gives a negative value, which ends the slice).
int32_t elapsed_us(const timeval& a, const timeval& b) {
    return static_cast<int32_t>((b.tv_sec - a.tv_sec) * 1000000 + (b.tv_usec - a.tv_usec));
}

}  // namespace

extern "C" {

uint32_t df_GetDiskUsedBlockNum(const char* path) {
    TQvDiskRec* disk = rec_of_path(path);
    if (disk == nullptr || disk->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return 0;
    }
    TQvDiskRec& d = *disk;
    qvfs::ProcLockGuard lock(d.lock);
    return is_ready(d) ? d.share->head.tolblk : 0;
}

// Scans at most n blocks from block 0 in slices of about 200 ms of lock
// time, pausing 100 ms between slices without the lock so that allocation
// on the same disk is not held up. Records already written stay in the
// array when a later slice fails.
int df_GetBlockInfo(const char* path, TQvDiskBlkInfo* array, int32_t n) {
    if (n < 1 || array == nullptr || path == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    const uint32_t disk = static_cast<uint32_t>(fsc_GetDiskNumByPath(path));
    uint32_t cursor = 0;
    int32_t remaining = n;
    int total = 0;
    for (;;) {
        const int r = _df_GetBlockInfo(array + total, disk, &cursor, &remaining, kSliceBudgetMs);
        if (r < 0) return r;
        total += r;
        if (remaining <= 0) return total;
        usleep(kSlicePause);
    }
}

// One slice of the scan: examines blocks from *cursor on, one record per
// block in use, until *remaining reaches 0, the disk ends or the budget is
// spent. *cursor and *remaining say where the next slice starts.
int _df_GetBlockInfo(TQvDiskBlkInfo* out, uint32_t disk, uint32_t* cursor, int32_t* remaining,
                     uint32_t budgetMs) {
    if (disk >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (out == nullptr || cursor == nullptr || remaining == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    timeval start{};
    gettimeofday(&start, nullptr);
    TQvDiskRec& d = rec(disk);
    qvfs::ProcLockGuard lock(d.lock);
    if (d.share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    const TQvDiskShare& s = *d.share;
    const uint32_t blocks = map_blocks(s.head);
    if (static_cast<int32_t>(*cursor) < 0 || *cursor >= blocks) {
        *remaining = 0;
        return 0;
    }
    if (*remaining <= 0) return 0;

    uint8_t sector[kBlockHeadSize];
    int count = 0;
    for (;;) {
        --*remaining;
        const uint32_t b = (*cursor)++;
        if (s.map[b] == QV_BLK_USED) {
            if (!get_piece(d.fd, block_addr(s.head, b), sector, kBlockHeadSize)) return -1;
            const BlockHeadView h = parse_block_head(sector);
            TQvDiskBlkInfo& r = out[count++];
            r.blkId = b;
            r.startTime = h.startTime;
            r.cnt = h.cnt;
            r.endTime = h.endTime;
            r.fileType = static_cast<uint32_t>(fsc_BlkType2FileType(static_cast<int>(h.dataType)));
        }
        timeval now{};
        gettimeofday(&now, nullptr);
        const int32_t spent = elapsed_us(start, now);
        if (spent < 0 || static_cast<int64_t>(spent) > int64_t(budgetMs) * 1000) return count;
        if (b + 1 >= blocks) {
            *remaining = 0;
            return count;
        }
        if (*remaining <= 0) return count;
    }
}

int32_t df_GetUsedInBlockOfDataTypeEx(uint32_t disk, uint32_t channel, uint32_t code) {
    if (channel >= kChannels) {
        errno = QVFS_ERR_CHANNEL;
        return -1;
    }
    if (code >= kTypes) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    if (disk >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = rec(disk);
    qvfs::ProcLockGuard lock(d.lock);
    if (!is_ready(d)) return -1;
    const uint32_t t = static_cast<uint32_t>(fsc_GetBlkType(static_cast<int>(code))) % kTypes;
    return d.share->current[t][channel];
}

int32_t df_GetUsedInBlockOfDataType(const char* path, uint32_t channel, uint32_t code) {
    if (path == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    return df_GetUsedInBlockOfDataTypeEx(static_cast<uint32_t>(fsc_GetDiskNumByPath(path)), channel, code);
}

// Space held by a channel for a data type, in MiB (1024 per block).
int32_t df_GetBlockNumOfDataType(const char* path, uint32_t channel, uint32_t code) {
    if (path == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (channel >= kChannels) {
        errno = QVFS_ERR_CHANNEL;
        return -1;
    }
    if (code >= kTypes) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    const uint32_t index = static_cast<uint32_t>(fsc_GetDiskNumByPath(path));
    if (index >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = rec(index);
    qvfs::ProcLockGuard lock(d.lock);
    if (!is_ready(d)) return -1;
    const uint32_t t = static_cast<uint32_t>(fsc_GetBlkType(static_cast<int>(code))) % kTypes;
    const uint32_t mib = d.share->count[t][channel] * (d.share->head.blockSize / 0x100000u);
    return static_cast<int32_t>(mib);
}

}  // extern "C"
