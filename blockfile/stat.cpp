// stat.cpp - block statistics: listing a block's files from its directory on
// disk, the block status and the file count.
#include <pthread.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "blockfile/bf.h"
#include "keys.h"
#include "platform.h"
#include "proc_lock.h"

using namespace qvfs;
using namespace qvfs::bf;

namespace {

// One 512 KiB listing buffer per process, taken at its first use and kept
// for the life of the process; used only under g_tBlkMutex.
void* g_scanBuf = nullptr;
pthread_mutex_t g_scanBufMutex = PTHREAD_MUTEX_INITIALIZER;

void* scan_buffer() {
    MutexGuard guard(g_scanBufMutex);
    if (g_scanBuf == nullptr) g_scanBuf = qvfs_Malloc(kScanChunk);
    return g_scanBuf;
}

// Writes the members of a status record that a listing provides; the others
// keep what the caller put there.
void fill_stat(TQvFileStat& o, const TQvBlkSliceInfo& e, const TQvBlkShare& rec) {
    const int64_t size = static_cast<int64_t>(file_length(e));
    o.st.st_size = size;
    o.st.st_blocks = size / 512;
    o.st.st_mtim.tv_sec = static_cast<int32_t>(static_cast<uint32_t>(e.endTime));
    o.st.st_ctim.tv_sec = static_cast<int32_t>(static_cast<uint32_t>(e.endTime));
    o.chn = e.chn;
    o.lock = e.lock;
    o.recType = e.recType;
    o.startTime = e.startTime;
    std::memcpy(o.usrParam, e.usrParam, sizeof o.usrParam);
    // The name carries the entry's lock as its kind, so a locked file is
    // listed with 'L' although it was created with 'C'.
    uint8_t tag[8];
    std::memcpy(tag, e.magic, 4);
    std::memcpy(tag + 4, e.verify, 4);
    _bf_MakeFileName(rec.diskId, static_cast<int32_t>(rec.blkId), static_cast<uint32_t>(e.sliceID),
                     o.name, tag, e.lock);
    const std::size_t stem = std::strlen(o.name);
    std::snprintf(o.name + stem, sizeof o.name - stem, "%.7s", e.ext);
}

}  // namespace

namespace qvfs::bf {

int scan_sectors(const TQvBlkRec* h, const void* buf, uint32_t sectors, TQvFileStat* out, int n) {
    if (n < 1 || h == nullptr || h->share == nullptr || buf == nullptr || out == nullptr) return 0;
    const auto* base = static_cast<const uint8_t*>(buf);
    int count = 0;
    for (uint32_t i = 0; i < sectors && count < n; ++i) {
        const uint8_t* sector = base + size_t(i) * kSector;
        // An entry is recognised by its magic alone (in any letter case).
        if (strncasecmp(reinterpret_cast<const char*>(sector) + 8, "QVND", 4) != 0) continue;
        TQvBlkSliceInfo e;
        std::memcpy(&e, sector, sizeof e);
        fill_stat(out[count], e, *h->share);
        ++count;
    }
    return count;
}

}  // namespace qvfs::bf

extern "C" {

QVFS_API int _bf_ScanSlices(const TQvBlkRec* h, const void* buf, TQvFileStat* out, int n) {
    return scan_sectors(h, buf, kScanSectors, out, n);
}

QVFS_API int bf_BlockStat(const char* path, uint32_t blkId, TQvFileStat* out, int max) {
    if (out == nullptr || path == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    auto* buf = static_cast<uint8_t*>(scan_buffer());
    if (buf == nullptr) {
        errno = QVFS_ERR_NOMEM;
        return -1;
    }
    const int disk = fsc_GetDiskNumByPath(path);
    ProcLockGuard blkMutex(g_tBlkMutex);
    TQvBlkId id{static_cast<uint32_t>(disk), static_cast<int32_t>(blkId)};
    TQvBlkRec* h = _bf_GetBlock(&id);
    if (h == nullptr) return -1;

    int result = 0;
    {
        ProcLockGuard blockLock(h->lock);
        TQvBlkShare* rec = h->share;
        TQvBlkInfo& hd = rec->header;
        // A free block lists nothing: what its front still holds belongs to
        // files that no longer exist.
        if (max >= 1 && block_in_use(rec->diskId, static_cast<int32_t>(rec->blkId))) {
            // The scan covers the largest self-info area whatever the
            // block's Len; a short read leaves zeros, which hold no entry.
            int found = 0;
            uint32_t chunk = 0;
            const int type = counttest_BlkType2CountTestType(static_cast<int>(hd.dataType));
            for (; chunk < kScanChunks; ++chunk) {
                std::memset(buf, 0, kScanChunk);
                if (plat::seek(h->fd, rec->blkAddr + uint64_t(chunk) * kScanChunk) < 0 ||
                    TCT_Read(h->fd, buf, kScanChunk, type) < 0) {
                    errno += QVFS_ERR_SYS;
                    int saved = errno;
                    df_TagBadBlock(rec->diskId, static_cast<int32_t>(rec->blkId));
                    errno = saved;
                    found = -1;
                    break;
                }
                found += _bf_ScanSlices(h, buf, out + found, max - found);
                if (found >= max) {
                    ++chunk;
                    break;
                }
            }
            // A header that counts files over an empty directory is wrong
            // about the block: it goes back to the disk layer.
            if (chunk == kScanChunks && found == 0 && hd.cnt != 0 && hd.flg != 0)
                release_block(rec, hd.chn);
            result = found;
        }
    }
    int saved = errno;
    _bf_PutBlock(h);
    errno = saved;
    return result;
}

QVFS_API int bf_BlockStatSeg(TQvBlkSegQuery* q) {
    if (q == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard blkMutex(g_tBlkMutex);
    const int n = std::min(q->total - q->found, q->max);
    if (n <= 0) return -1;
    if (q->segBuf == nullptr || q->out == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvBlkId id{q->diskId, static_cast<int32_t>(q->blkId)};
    TQvBlkRec* h = _bf_GetBlock(&id);
    if (h == nullptr) return -1;

    int result = -1;
    {
        ProcLockGuard blockLock(h->lock);
        TQvBlkShare* rec = h->share;
        const uint64_t offset = uint64_t(q->segIndex) * q->segSize;
        if (rec == nullptr) {
            // no record: refused
        } else if (q->segIndex < 0 || offset + q->segSize > df_GetDiskUnitSize()) {
            // The segment must lie inside the block.
            errno = QVFS_ERR_BADHANDLE;
        } else {
            std::memset(q->segBuf, 0, q->segSize);
            std::memset(q->out, 0, size_t(q->max) * sizeof(TQvFileStat));
            if (plat::seek(h->fd, rec->blkAddr + offset) < 0 ||
                plat::read(h->fd, q->segBuf, q->segSize) < 0) {
                int saved = errno;
                df_TagBadBlock(rec->diskId, static_cast<int32_t>(rec->blkId));
                errno = saved;
            } else if (!block_in_use(rec->diskId, static_cast<int32_t>(rec->blkId))) {
                q->segFound = 0;  // a free block lists nothing
                result = 0;
            } else {
                const uint32_t sectors = std::min(kScanSectors, q->segSize / kSector);
                q->segFound = scan_sectors(h, q->segBuf, sectors, q->out, n);
                const TQvBlkInfo& hd = rec->header;
                if (q->segIndex == int32_t(kScanChunks) && q->segFound + q->found == 0 && hd.cnt != 0 &&
                    hd.flg != 0)
                    release_block(rec, hd.chn);
                result = 0;
            }
        }
    }
    int saved = errno;
    _bf_PutBlock(h);
    errno = saved;
    return result;
}

QVFS_API int bf_GetBlockStat(uint32_t disk, uint32_t blkId, TQvBlkStat* out) {
    if (out == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard blkMutex(g_tBlkMutex);
    TQvBlkId id{disk, static_cast<int32_t>(blkId)};
    TQvBlkRec* h = _bf_GetBlock(&id);
    if (h == nullptr) return -1;
    {
        ProcLockGuard blockLock(h->lock);
        const TQvBlkInfo& hd = h->share->header;
        out->diskId = disk;
        out->blkId = blkId;
        out->dataType = hd.dataType;
        out->lock = hd.lock;
        out->recType = static_cast<uint32_t>(hd.recType);
        out->endTimeLo = static_cast<uint32_t>(hd.endTime);
        out->endTimeHi = static_cast<uint32_t>(hd.endTime >> 32);
        // The header holds a block type; the disk layer's current-block
        // query takes a file data-type code.
        if (df_IsBlockAllocated(disk, static_cast<int32_t>(blkId)) != 1)
            out->state = 0;
        else if (df_GetUsedInBlockOfDataTypeEx(disk, hd.chn,
                                               uint32_t(fsc_BlkType2FileType(int(hd.dataType)))) ==
                 static_cast<int32_t>(blkId))
            out->state = 1;
        else
            out->state = 2;
    }
    _bf_PutBlock(h);
    return 0;
}

QVFS_API int bf_GetBlockFileNum(const char* path, uint32_t blkId) {
    if (path == nullptr) {
        errno = QVFS_ERR_BADARG;
        return 0;
    }
    const int disk = fsc_GetDiskNumByPath(path);
    ProcLockGuard blkMutex(g_tBlkMutex);
    TQvBlkId id{static_cast<uint32_t>(disk), static_cast<int32_t>(blkId)};
    TQvBlkRec* h = _bf_GetBlock(&id);
    if (h == nullptr) return 0;
    int cnt;
    {
        ProcLockGuard blockLock(h->lock);
        cnt = static_cast<int>(h->share->header.cnt);
    }
    _bf_PutBlock(h);
    return cnt;
}

QVFS_API int bf_GetBlockUsers(uint32_t disk, uint32_t blkId) {
    if (disk >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (blkId >= qvfs::disk::kMaxBlocks) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    // Loads and drops change the count under this lock only.
    ProcLockGuard tableLock(g_tBlkFileMutex);
    const int32_t refs = blkfile_record_refs(block_owner_key(disk, static_cast<int32_t>(blkId)));
    return refs > 0 ? refs : 0;
}

}  // extern "C"
