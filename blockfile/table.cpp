// table.cpp - the block-file table: loading and dropping blocks, the layer's
// start, and the header counters.
#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "blockfile/bf.h"
#include "platform.h"
#include "proc_lock.h"

extern "C" {
QVFS_API int g_tBlkFileMutex = -1;
QVFS_API int g_tBlkMutex = -1;
}

namespace qvfs::bf {
namespace {

// The process's block table (guarded by g_tBlkFileMutex). A handle stands in
// slot blkIdx while its inRef is above 0.
TQvBlkRec* g_blkTable[kBlkTableSize];

void close_device(TQvBlkRec* h) {
    if (h->fd >= 0) plat::close_fd(h->fd);
    h->fd = -1;
}

// Undoes a load that got as far as the record: the record goes back to the
// pool (its owner slot is freed only when no process references it), the
// descriptor is closed and the handle freed.
void abandon_load(TQvBlkRec* h, TQvBlkShare* rec) {
    int saved = errno;
    fsc_BfFree(rec);
    close_device(h);
    qvfs_Free(h);
    errno = saved;
}

}  // namespace

TQvBlkRec* table_entry(uint32_t slot) { return slot < kBlkTableSize ? g_blkTable[slot] : nullptr; }

}  // namespace qvfs::bf

using namespace qvfs;
using namespace qvfs::bf;

extern "C" {

QVFS_API int bf_Init(void) {
    std::memset(g_blkTable, 0, sizeof g_blkTable);
    char path[64] = {};
    std::snprintf(path, sizeof path, "%s/qvfslayer", QVFS_KEY_DIR);
    g_tBlkFileMutex = fsc_ProcLockInit(fsc_GetShareKey(path, 98));
    g_tBlkMutex = fsc_ProcLockInit(fsc_GetShareKey(path, 99));
    return df_Init();
}

QVFS_API int bf_UnInit(void) { return 0; }

QVFS_API TQvBlkRec* _bf_GetBlock(const TQvBlkId* id) {
    if (id == nullptr) {
        errno = QVFS_ERR_BADARG;
        return nullptr;
    }
    const uint32_t d = id->disk;
    const int32_t b = id->block;
    const int callerErrno = errno;  // what a rejected header leaves
    if (df_IsDiskReady(d) != 0) return nullptr;

    ProcLockGuard tableLock(g_tBlkFileMutex);
    if (d >= QVFS_MAX_DISKS || b < 0) {
        errno = QVFS_ERR_DISKNUM;
        return nullptr;
    }

    // One handle per block and process: a second user shares it.
    int freeSlot = -1;
    for (uint32_t i = 0; i < kBlkTableSize; ++i) {
        TQvBlkRec* h = g_blkTable[i];
        if (h == nullptr) {
            if (freeSlot < 0) freeSlot = static_cast<int>(i);
            continue;
        }
        if (h->share->diskId == d && h->share->blkId == static_cast<uint32_t>(b)) {
            h->share->shrRef += 1;
            h->inRef += 1;
            return h;
        }
    }
    if (freeSlot < 0) {
        errno = QVFS_ERR_TOOMANYBLOCKS;
        return nullptr;
    }

    char path[32] = {};
    if (bf_GetPath(d, path) != 0) return nullptr;
    int fd = plat::open_device(path, O_RDWR | O_LARGEFILE);
    if (fd < 0) {
        errno += QVFS_ERR_SYS;
        return nullptr;
    }
    auto* h = static_cast<TQvBlkRec*>(qvfs_Malloc(sizeof(TQvBlkRec)));
    if (h == nullptr) {
        plat::close_fd(fd);
        errno = QVFS_ERR_NOMEM;
        return nullptr;
    }
    h->fd = fd;
    h->errNo = kXferOk;
    h->blkIdx = kBlkTableSize;
    h->inRef = 0;
    h->share = nullptr;
    h->lock = -1;

    auto* rec = static_cast<TQvBlkShare*>(fsc_BfMalloc(block_owner_key(d, b), sizeof(TQvBlkShare)));
    if (rec == nullptr) {
        int saved = errno;
        close_device(h);
        qvfs_Free(h);
        errno = saved;
        return nullptr;
    }
    int key = fsc_GetShmKey(static_cast<int>(rec->shareIndex));
    h->lock = key < 0 ? -1 : fsc_ProcLockInit(key + kRecordLockKeyOffset);
    if (h->lock < 0) {
        abandon_load(h, rec);
        return nullptr;
    }

    // No process holds the record: this load registered it, and the header
    // is read from disk. Otherwise the shared copy is the master (it may be
    // ahead of the disk: counter changes, or an advance whose header write
    // failed) and must not be overwritten. g_tBlkFileMutex serialises all
    // loads and drops, so no other process can be reading or changing a
    // record that nobody references.
    const bool registered = rec->shrRef <= 0;
    rec->diskId = d;
    rec->blkId = static_cast<uint32_t>(b);
    int64_t addr = df_GetBlkAddr(d, b);
    if (addr <= 0) {
        abandon_load(h, rec);
        return nullptr;
    }
    rec->blkAddr = static_cast<uint64_t>(addr);

    if (registered) {
        rec->shrRef = 0;
        rec->reserved = 0;
        rec->unlinkPending = 0;
        clear_claims(rec);  // claims of an earlier block in this record
        errno = 0;
        bool readOk = plat::pread(fd, &rec->header, kSector, rec->blkAddr) == static_cast<ssize_t>(kSector);
        if (readOk) errno = callerErrno;  // a rejected header sets no code
        else errno += QVFS_ERR_SYS;
        if (!readOk || !header_acceptable(rec->header, df_GetDiskUnitSize())) {
            // A damaged or unreadable header is never used.
            int saved = errno;
            df_TagBadBlock(d, b);
            errno = saved;
            abandon_load(h, rec);
            return nullptr;
        }
    }

    rec->shrRef += 1;
    h->share = rec;
    h->blkIdx = static_cast<uint32_t>(freeSlot);
    h->inRef = 1;
    g_blkTable[freeSlot] = h;
    return h;
}

QVFS_API int _bf_PutBlock(TQvBlkRec* h) {
    if (h == nullptr || h->blkIdx >= kBlkTableSize) return 0;
    ProcLockGuard tableLock(g_tBlkFileMutex);
    TQvBlkShare* rec = h->share;
    h->inRef -= 1;
    rec->shrRef -= 1;
    if (h->inRef > 0) return 0;

    if (rec->shrRef <= 0 && rec->unlinkPending == 1) release_block(rec, rec->header.chn);
    g_blkTable[h->blkIdx] = nullptr;
    fsc_BfFree(rec);
    close_device(h);
    h->share = nullptr;
    qvfs_Free(h);
    return 0;
}

QVFS_API int bf_CloseFile(TQvBlkRec* h) {
    if (h == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    _bf_PutBlock(h);
    return 0;
}

QVFS_API int _bf_BlockOpt(TQvBlkRec* h, uint32_t op, int32_t value) {
    if (h == nullptr || h->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvBlkInfo& hd = h->share->header;
    if (op == 0) {
        if (value == 1) hd.lock += 1;
        else if (value == 0) hd.lock -= 1;
    } else if (op == 1) {
        hd.recType += static_cast<uint64_t>(static_cast<int64_t>(value));
    }
    return 0;
}

QVFS_API int bf_BlockOpt(TQvBlkRec* h, uint32_t op, int32_t value) {
    if (h == nullptr || h->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard blockLock(h->lock);
    TQvBlkShare* rec = h->share;
    const bool changes = (op == 0 && (value == 0 || value == 1)) || (op == 1 && value != 0);
    _bf_BlockOpt(h, op, value);
    if (!changes) return 0;
    // Written through at once: a counter change left only in memory would be
    // lost when the block's last reference is dropped without another header
    // write, and the block status would no longer show locked files.
    if (_bf_WriteBlkInfo(&rec->header, h->fd, rec->diskId, static_cast<int32_t>(rec->blkId),
                         rec->blkAddr, rec->header.dataType) != 0)
        return -1;
    df_SetSyncMark(rec->diskId, 1);
    return 0;
}

}  // extern "C"
