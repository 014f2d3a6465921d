// unlink.cpp - deleting a file by name and unlinking a whole block.
#include <strings.h>

#include <cerrno>
#include <cstring>

#include "blockfile/bf.h"
#include "platform.h"
#include "proc_lock.h"
#include "reason.h"

using namespace qvfs;
using namespace qvfs::bf;

namespace qvfs::bf {

int release_block(TQvBlkShare* rec, uint32_t chn) {
    TQvBlkInfo& hd = rec->header;
    int r = df_ReleaseBlock(rec->diskId, static_cast<int32_t>(rec->blkId), chn, hd.dataType, hd.Len);
    // The disk layer zeroed the block's self-info area; the shared copy
    // follows, so that a holder that creates the block's next file starts
    // again at slice 1 and no stale entry number leads into the zeroed front.
    if (r == 0) {
        std::memset(&hd, 0, sizeof hd);
        clear_claims(rec);
    }
    return r;
}

}  // namespace qvfs::bf

extern "C" {

QVFS_API int bf_Unlink(const char* name) {
    if (name == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard blkMutex(g_tBlkMutex);
    uint32_t pair[2];
    if (_bf_ParseFileName(name, pair) != 0) {
        why(QVFS_WHY_BAD_NAME);
        return -1;
    }
    TQvBlkId id{pair[0], static_cast<int32_t>(pair[1])};
    TQvBlkRec* h = _bf_GetBlock(&id);
    if (h == nullptr) return -1;

    int result = -1;
    {
        ProcLockGuard blockLock(h->lock);
        TQvBlkShare* rec = h->share;
        TQvBlkInfo& hd = rec->header;
        const int32_t blk = static_cast<int32_t>(rec->blkId);
        auto* entry = static_cast<TQvBlkSliceInfo*>(qvfs_Malloc(sizeof(TQvBlkSliceInfo)));
        uint32_t k = 0;
        if (entry != nullptr) std::memset(entry, 0, sizeof *entry);  // a short read leaves zeros
        if (entry == nullptr) {
            errno = QVFS_ERR_NOMEM;
        } else if (!block_in_use(rec->diskId, blk) || !name_slice_number(name, &k) || !slice_in_directory(hd, k)) {
            // A free block, or a slice number that leads outside the
            // directory, names no file: refused like a wrong check code,
            // nothing read or written.
            why(QVFS_WHY_NO_SUCH_FILE);
        } else if (plat::seek(h->fd, rec->blkAddr + uint64_t(k) * kSector) < 0 ||
                   TCT_Read(h->fd, entry, kSector, counttest_BlkType2CountTestType(int(hd.dataType))) < 0) {
            errno += QVFS_ERR_SYS;
            int saved = errno;
            df_TagBadBlock(rec->diskId, blk);
            errno = saved;
        } else if (strncasecmp(name_check_code(name), entry->verify, 4) != 0 ||
                   !name_extension_matches(name, *entry)) {
            // Wrong check code (a deleted entry has none) or another
            // extension: no such file, no error code.
            why(QVFS_WHY_NO_SUCH_FILE);
        } else {
            if (entry->lock == 1) _bf_BlockOpt(h, 0, 0);
            if (entry->recType - 1 >= 2) _bf_BlockOpt(h, 1, -1);
            const uint32_t chn = entry->chn;
            std::memset(entry, 0, sizeof *entry);
            entry->sliceID = k;
            if (_bf_WriteSlice(entry, h->fd, rec->diskId, blk, rec->blkAddr, hd.dataType) == 0) {
                hd.cnt -= 1;
                if (_bf_WriteBlkInfo(&hd, h->fd, rec->diskId, blk, rec->blkAddr, hd.dataType) == 0) {
                    df_SetSyncMark(rec->diskId, 1);
                    if (hd.cnt == 0) {
                        // The block's last file: the block goes back to the
                        // disk layer, which zeroes its front.
                        result = release_block(rec, chn);
                    } else {
                        result = 0;
                    }
                }
            }
        }
        if (entry != nullptr) qvfs_Free(entry);
    }
    int saved = errno;
    _bf_PutBlock(h);
    errno = saved;
    return result;
}

QVFS_API int bf_BlockUnlink(uint32_t disk, uint32_t blkId) {
    ProcLockGuard blkMutex(g_tBlkMutex);
    TQvBlkId id{disk, static_cast<int32_t>(blkId)};
    TQvBlkRec* h = _bf_GetBlock(&id);
    if (h == nullptr) return -1;
    {
        ProcLockGuard blockLock(h->lock);
        h->share->unlinkPending = 1;
    }
    // When no other reference remains anywhere, this drop gives the block
    // back at once; otherwise the last drop of any process does.
    _bf_PutBlock(h);
    return 0;
}

}  // extern "C"
