// create.cpp - creating a file's slice in a block and opening a file by name.
#include <strings.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "blockfile/bf.h"
#include "platform.h"
#include "proc_lock.h"
#include "reason.h"

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

bool name_extension_matches(const char* name, const TQvBlkSliceInfo& entry) {
    const char* dot = name_dot(name);
    if (dot == nullptr) return false;
    const char* ext = dot + 1;
    const std::size_t n = strnlen(entry.ext, sizeof entry.ext);
    return n < sizeof entry.ext && std::strlen(ext) == n && std::memcmp(ext, entry.ext, n) == 0;
}

bool extension_acceptable(const char (&ext)[8]) {
    const std::size_t n = strnlen(ext, sizeof ext);
    if (n == 0 || n == sizeof ext) return false;
    for (std::size_t i = 0; i < n; ++i)
        if (ext[i] < 0x20 || ext[i] > 0x7E || ext[i] == '/') return false;
    return true;
}

bool block_in_use(uint32_t disk, int32_t block) { return df_IsBlockAllocated(disk, block) == 1; }

}  // namespace qvfs::bf

using namespace qvfs;
using namespace qvfs::bf;

extern "C" {

QVFS_API TQvBlkRec* bf_CreateFile(const TQvfsOpenParam* req, char* name, TQvBlkSliceInfo* slice) {
    if (req == nullptr || name == nullptr || slice == nullptr) {
        errno = QVFS_ERR_BADARG;
        return nullptr;
    }
    const uint32_t blkType = static_cast<uint32_t>(fsc_GetBlkType(req->fileType));
    const uint64_t selfInfo = static_cast<uint64_t>(fsc_GetSelfInfoLen(int(blkType)));
    // Refused before anything is allocated or written: an extension that
    // would make a name no call can give back, and a reserved area that is
    // negative or larger than a block's data area.
    const bool reserves = req->fileType == 1 && req->resSize != 0;
    if (!extension_acceptable(req->ext)) {
        errno = QVFS_ERR_BADARG;
        why(QVFS_WHY_BAD_EXTENSION);
        return nullptr;
    }
    if (reserves && (req->resSize < 0 || uint64_t(req->resSize) > span(selfInfo, df_GetDiskUnitSize()))) {
        errno = QVFS_ERR_BADARG;
        why(QVFS_WHY_BAD_RESERVE);
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

    // The new slice must be a directory entry of the header as it will be
    // after this create, and a reserved area must fit behind `next`; the
    // disk layer only hands out blocks with room, but it judges by the
    // disk's header, which may lag behind the shared copy.
    // Growing writes of the block's files claim their space before the
    // header's `next` follows them.
    if (hd.cnt != 0) raise_to_claims(rec);
    const uint32_t len = hd.cnt == 0 ? static_cast<uint32_t>(selfInfo) : hd.Len;
    const uint64_t start = hd.cnt == 0 ? len : hd.next;
    if (uint64_t(hd.slice) + 1 >= len / kSector ||
        (reserves && start + uint64_t(req->resSize) > df_GetDiskUnitSize())) {
        errno = QVFS_ERR_BADHANDLE;
        blockLock.unlock();
        _bf_PutBlock(h);
        return nullptr;
    }

    const uint32_t kind = req->fileType == 2 ? 2 : 0;
    _bf_MakeFileName(rec->diskId, static_cast<int32_t>(rec->blkId), hd.slice + 1, name,
                     reinterpret_cast<uint8_t*>(slice) + offsetof(TQvBlkSliceInfo, magic), kind);
    const std::size_t stem = std::strlen(name);
    const std::size_t extLen = strnlen(req->ext, sizeof req->ext);  // 1..7, tested above
    std::memcpy(name + stem, req->ext, extLen);
    name[stem + extLen] = '\0';
    std::memcpy(slice->ext, req->ext, sizeof slice->ext);
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

    // Read without the record lock by the growth limit of the block's files:
    // published before the claims are read again, so that a write of an
    // older file either claimed its space by now or sees this file and
    // stops at its own end (reserve_space).
    __atomic_store_n(&hd.slice, hd.slice + 1, __ATOMIC_SEQ_CST);
    if (hd.cnt != 0) raise_to_claims(rec);
    hd.cnt += 1;
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
        clear_claims(rec);
        hd.lock = kLockZero;
        hd.recType = kRecTypeZero;
    }
    if (slice->recType - 1 >= 2) _bf_BlockOpt(h, 1, 1);

    if (reserves && hd.next + uint64_t(req->resSize) > df_GetDiskUnitSize()) {
        // A claim made between the room test and the publication of the
        // slice number left no room for the area (rare); the number stays
        // used, as after a failed write below.
        errno = QVFS_ERR_BADHANDLE;
        blockLock.unlock();
        _bf_PutBlock(h);
        return nullptr;
    }
    if (reserves) {
        // The whole reserved area belongs to the file from now on: `next`
        // moves past it at once, so no later file of the block starts inside
        // the ring, whether or not its pointers are ever set. Until they are,
        // the data region is the part of the area written so far.
        slice->resStart = hd.next;
        slice->resEnd = hd.next + uint64_t(req->resSize);
        slice->dataStart = slice->dataEnd = slice->resStart;
        hd.next = (slice->resEnd + (kSpaceAlign - 1)) & ~(kSpaceAlign - 1);
    } else {
        // File type 1 without a reserved size is an ordinary file.
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
    if (_bf_ParseFileName(name, pair) != 0) {
        why(QVFS_WHY_BAD_NAME);
        return nullptr;
    }
    TQvBlkId id{pair[0], static_cast<int32_t>(pair[1])};
    TQvBlkRec* h = _bf_GetBlock(&id);
    if (h == nullptr) return nullptr;

    ProcLockGuard blockLock(h->lock);
    TQvBlkShare* rec = h->share;
    uint32_t k = 0;
    why(QVFS_WHY_NO_SUCH_FILE);  // until the entry is found and matches
    TQvBlkSliceInfo entry;
    std::memset(&entry, 0, sizeof entry);  // a short read leaves zeros, never stale bytes
    // A free block holds no file, whatever its front still shows.
    bool ok = block_in_use(id.disk, id.block) && name_slice_number(name, &k) && slice_in_directory(rec->header, k);
    if (ok) {
        // The check code, not the magic, decides: a deleted entry has a zero
        // code and never matches a name. The extension must be the entry's.
        int type = counttest_BlkType2CountTestType(static_cast<int>(rec->header.dataType));
        if (plat::seek(h->fd, rec->blkAddr + uint64_t(k) * kSector) < 0 ||
            TCT_Read(h->fd, &entry, kSector, type) < 0) {
            errno += QVFS_ERR_SYS;
            int saved = errno;
            df_TagBadBlock(rec->diskId, static_cast<int32_t>(rec->blkId));
            errno = saved;
            ok = false;
        } else {
            ok = strncasecmp(name_check_code(name), entry.verify, 4) == 0 && name_extension_matches(name, entry);
        }
    }
    if (ok && !entry_regions_valid(entry, rec->header.Len, df_GetDiskUnitSize())) {
        // Every position of the file is computed from these regions: a
        // damaged entry is never handed up.
        errno = QVFS_ERR_DAMAGED;
        why(QVFS_WHY_DAMAGED);
        ok = false;
    }
    if (ok) {
        why_clear();
        entry.sliceID = k;
        std::memcpy(slice, &entry, sizeof entry);
        return h;
    }
    blockLock.unlock();
    int saved = errno;
    _bf_PutBlock(h);
    errno = saved;
    return nullptr;
}

}  // extern "C"
