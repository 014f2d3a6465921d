// create.cpp - creating a file's slice in a block and opening a file by name.
#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "blockfile/bf.h"
#include "platform.h"
#include "proc_lock.h"

namespace qvfs::bf {

namespace {

// Position of the first '.' in a name that is long enough to hold a stem
// before it (the dot stands at least 23 characters from the start), or null.
const char* name_dot(const char* name) {
    if (name == nullptr) return nullptr;
    const char* dot = std::strchr(name, '.');
    if (dot == nullptr || dot - name < 23) return nullptr;
    return dot;
}

}  // namespace

bool name_slice_number(const char* name, uint32_t* slice) {
    const char* dot = name_dot(name);
    if (dot == nullptr || slice == nullptr) return false;
    char digits[5] = {};
    std::memcpy(digits, dot - 15, 4);
    *slice = static_cast<uint32_t>(std::strtol(digits, nullptr, 16));
    return true;
}

const char* name_check_code(const char* name) {
    const char* dot = name_dot(name);
    return dot == nullptr ? nullptr : dot - 11;
}

}  // namespace qvfs::bf

using namespace qvfs;
using namespace qvfs::bf;

extern "C" {

QVFS_API TQvBlkRec* bf_CreateFile(const TQvfsOpenParam* req, char* name, TQvBlkSliceInfo* slice) {
    if (req == nullptr || name == nullptr || slice == nullptr) {
        errno = QVFS_ERR_BADARG;
        return nullptr;
    }
    ProcLockGuard blkMutex(g_tBlkMutex);
    TQvBlkId id{0, -1};
    if (df_GetFileBlkId(req, &id) != 0) return nullptr;
    TQvBlkRec* h = _bf_GetBlock(&id);
    if (h == nullptr) return nullptr;

    ProcLockGuard blockLock(h->lock);
    TQvBlkShare* rec = h->share;
    TQvBlkInfo& hd = rec->header;
    std::memset(slice, 0, sizeof *slice);

    const uint32_t blkType = static_cast<uint32_t>(fsc_GetBlkType(req->fileType));
    // The new slice must be a directory entry of the header as it will be
    // after this create; the disk layer only hands out blocks with room, but
    // it judges by the disk's header, which may lag behind the shared copy.
    const uint32_t len = hd.cnt == 0 ? static_cast<uint32_t>(fsc_GetSelfInfoLen(int(blkType))) : hd.Len;
    if (uint64_t(hd.slice) + 1 >= len / kSector) {
        errno = QVFS_ERR_BADHANDLE;
        blockLock.unlock();
        _bf_PutBlock(h);
        return nullptr;
    }

    const uint32_t kind = req->fileType == 2 ? 2 : 0;
    _bf_MakeFileName(rec->diskId, static_cast<int32_t>(rec->blkId), hd.slice + 1, name,
                     reinterpret_cast<uint8_t*>(slice) + offsetof(TQvBlkSliceInfo, magic), kind);
    std::strncat(name, req->ext, sizeof(TQvfsOpenParam::ext));  // at most the 8 characters of the field
    std::strncpy(slice->ext, req->ext, sizeof slice->ext);
    slice->ext[sizeof slice->ext - 1] = '\0';

    slice->chn = req->chn;
    slice->recType = static_cast<uint64_t>(static_cast<int64_t>(req->recType));
    slice->startTime = static_cast<uint64_t>(static_cast<int64_t>(req->startTime));
    {
        // An empty or malformed previous name just leaves the field zero.
        int saved = errno;
        fsc_FileName27To16(slice->preName, req->preName);
        errno = saved;
    }

    hd.cnt += 1;
    hd.slice += 1;
    hd.chn = req->chn;
    hd.dataType = blkType;
    if (hd.cnt == 1) {
        // The block had no live file: (re)initialise its header. slice keeps
        // counting, so no earlier entry's number is handed out again.
        hd.startTime = static_cast<uint64_t>(static_cast<int64_t>(req->startTime));
        hd.Len = len;
        hd.addr = kAddrMark;
        hd.flg = 1;
        hd.next = hd.Len;
        hd.lock = kLockZero;
        hd.recType = kRecTypeZero;
    }
    if (slice->recType - 1 >= 2) _bf_BlockOpt(h, 1, 1);

    if (req->fileType == 1) {
        slice->resStart = hd.next;
        slice->resEnd = hd.next + static_cast<uint64_t>(static_cast<int64_t>(req->resSize));
    } else {
        if (req->fileType == 2) slice->lock = 2;
        slice->dataStart = hd.next;
        slice->dataEnd = hd.next;
    }
    slice->sliceID = hd.slice;

    const int32_t blk = static_cast<int32_t>(rec->blkId);
    if (_bf_WriteSlice(slice, h->fd, rec->diskId, blk, rec->blkAddr, hd.dataType) != 0 ||
        _bf_WriteBlkInfo(&hd, h->fd, rec->diskId, blk, rec->blkAddr, hd.dataType) != 0) {
        // The counters raised above stay in the shared copy and reach the
        // disk with the block's next header write.
        blockLock.unlock();
        int saved = errno;
        _bf_PutBlock(h);
        errno = saved;
        return nullptr;
    }
    df_SetSyncMark(rec->diskId, 1);
    return h;
}

QVFS_API TQvBlkRec* bf_OpenFile(const char* name, TQvBlkSliceInfo* slice) {
    if (name == nullptr || slice == nullptr) {
        errno = QVFS_ERR_BADARG;
        return nullptr;
    }
    ProcLockGuard blkMutex(g_tBlkMutex);
    uint32_t pair[2];
    if (_bf_ParseFileName(name, pair) != 0) return nullptr;
    TQvBlkId id{pair[0], static_cast<int32_t>(pair[1])};
    TQvBlkRec* h = _bf_GetBlock(&id);
    if (h == nullptr) return nullptr;

    ProcLockGuard blockLock(h->lock);
    TQvBlkShare* rec = h->share;
    uint32_t k = 0;
    bool ok = name_slice_number(name, &k) && slice_in_directory(rec->header, k);
    if (ok) {
        // The check code, not the magic, decides: a deleted entry has a zero
        // code and never matches a name.
        slice->sliceID = k;
        int type = counttest_BlkType2CountTestType(static_cast<int>(rec->header.dataType));
        if (plat::seek(h->fd, rec->blkAddr + uint64_t(k) * kSector) < 0 ||
            TCT_Read(h->fd, slice, kSector, type) < 0) {
            errno += QVFS_ERR_SYS;
            int saved = errno;
            df_TagBadBlock(rec->diskId, static_cast<int32_t>(rec->blkId));
            errno = saved;
            ok = false;
        } else {
            ok = strncasecmp(name_check_code(name), slice->verify, 4) == 0;
        }
    }
    if (ok) return h;
    blockLock.unlock();
    int saved = errno;
    _bf_PutBlock(h);
    errno = saved;
    return nullptr;
}

}  // extern "C"
