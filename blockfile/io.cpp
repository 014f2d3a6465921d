// io.cpp - block I/O: reads, writes and gathered writes straight between the
// caller's memory and the device, and the sync that stores a slice entry and
// advances the block header.
//
// There is no buffer in this layer: each transfer is one seek and as many
// read/write calls as the device needs (one writev for a vector), under the
// block's record lock so that the seek and the transfer form one step for
// every process and thread using the block.
#include <climits>
#include <cerrno>

#include "blockfile/bf.h"
#include "platform.h"
#include "proc_lock.h"

using namespace qvfs;
using namespace qvfs::bf;

namespace {

// errNo is written under the record lock, also on the early refusals.
void set_xfer_result(TQvBlkRec* h, int value) {
    ProcLockGuard blockLock(h->lock);
    h->errNo = value;
}

int count_type(const TQvBlkShare* rec) {
    return counttest_BlkType2CountTestType(static_cast<int>(rec->header.dataType));
}

// A write whose remaining end reaches the block's last 4 MiB leaves the
// handle's errNo at 28, whether or not it completed.
void apply_near_full(TQvBlkRec* h, uint64_t end, uint64_t unit) {
    if (end + kNearFull >= unit) h->errNo = kXferNearFull;
}

// A transfer that failed because of the caller's memory (a buffer or an
// iovec the system cannot use) says nothing about the device: the block
// keeps its status and the handle's errNo names the caller's fault.
bool caller_fault(int err) { return err == EFAULT || err == EINVAL; }

void report_caller_fault(TQvBlkRec* h, int err) {
    h->errNo = QVFS_ERR_SYS + err;
    errno = QVFS_ERR_SYS + err;
}

// Data transfers stay in the data area: the header and the directory are
// written only as whole sectors by their own writers. A fresh block (Len 0)
// has no such area yet. Caller holds the record lock.
bool below_data_area(const TQvBlkShare* rec, uint32_t offset) { return offset < rec->header.Len; }

// Where a writev that moved only `done` bytes stopped: true when the next
// byte it should have taken lies in memory the process cannot read.
bool stopped_at_caller_memory(const struct iovec* iov, int count, uint64_t done) {
    for (int i = 0; i < count; ++i) {
        if (done < iov[i].iov_len) return !plat::memory_readable(static_cast<const char*>(iov[i].iov_base) + done, 1);
        done -= iov[i].iov_len;
    }
    return false;
}

}  // namespace

extern "C" {

QVFS_API int bf_Read(uint32_t offset, void* data, uint32_t length, TQvBlkRec* h) {
    if (data == nullptr || h == nullptr || h->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvBlkShare* rec = h->share;
    if (df_IsDiskReady(rec->diskId) != 0) {
        set_xfer_result(h, kXferIoError);
        return -1;
    }
    const uint64_t unit = df_GetDiskUnitSize();
    // Only the block's own bytes are read: a read that runs past its end is
    // cut there, one that starts at the end reads nothing.
    if (unit <= offset) {
        errno = QVFS_ERR_BLOCKRANGE;
        return -1;
    }
    if (uint64_t(offset) + length > unit) length = static_cast<uint32_t>(unit - offset);

    ProcLockGuard blockLock(h->lock);
    auto* p = static_cast<uint8_t*>(data);
    uint32_t done = 0;
    if (plat::seek(h->fd, rec->blkAddr + offset) < 0) {
        h->errNo = kXferIoError;
    } else {
        const int type = count_type(rec);
        while (done < length) {
            int n = TCT_Read(h->fd, p + done, length - done, type);
            if (n < 0 && caller_fault(errno)) {
                report_caller_fault(h, errno);
                return -1;
            }
            if (n <= 0) {
                df_TagBadBlock(rec->diskId, static_cast<int32_t>(rec->blkId));
                h->errNo = kXferIoError;
                break;
            }
            done += static_cast<uint32_t>(n);
            h->errNo = kXferOk;
        }
    }
    return done == 0 ? -1 : static_cast<int>(done);
}

QVFS_API int bf_Write(uint32_t offset, const void* data, uint32_t length, TQvBlkRec* h) {
    const int refused = length == 0 ? 0 : -1;
    if (data == nullptr || h == nullptr || h->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return refused;
    }
    TQvBlkShare* rec = h->share;
    if (df_IsDiskReady(rec->diskId) != 0) {
        set_xfer_result(h, kXferIoError);
        return refused;
    }
    const uint64_t unit = df_GetDiskUnitSize();
    if (unit < offset) {
        errno = QVFS_ERR_BLOCKRANGE;
        return refused;
    }
    // Nothing is written past the block's end: the file layer reads the 28
    // and moves on to a new block.
    if (unit < uint64_t(offset) + length) {
        errno = QVFS_ERR_BADHANDLE;
        set_xfer_result(h, kXferNearFull);
        return refused;
    }

    ProcLockGuard blockLock(h->lock);
    if (below_data_area(rec, offset)) {
        errno = QVFS_ERR_BLOCKRANGE;
        return refused;
    }
    const auto* p = static_cast<const uint8_t*>(data);
    uint32_t done = 0;
    if (plat::seek(h->fd, rec->blkAddr + offset) < 0) {
        h->errNo = kXferIoError;
    } else {
        const int type = count_type(rec);
        while (done < length) {
            if (!df_IsDiskOnline(h->fd)) {
                h->errNo = kXferIoError;
                break;
            }
            int n = TCT_Write(h->fd, p + done, length - done, type);
            if (n < 0 && caller_fault(errno)) {
                report_caller_fault(h, errno);
                return -1;
            }
            if (n <= 0) {
                df_TagBadBlock(rec->diskId, static_cast<int32_t>(rec->blkId));
                h->errNo = kXferIoError;
                break;
            }
            done += static_cast<uint32_t>(n);
            h->errNo = kXferOk;
        }
    }
    apply_near_full(h, uint64_t(offset) + (length - done), unit);
    return done == length ? static_cast<int>(length) : -1;
}

QVFS_API int bf_Writev(uint32_t offset, const struct iovec* iov, int count, TQvBlkRec* h) {
    if (iov == nullptr || h == nullptr || h->share == nullptr) return -1;
    TQvBlkShare* rec = h->share;
    if (df_IsDiskReady(rec->diskId) != 0) {
        set_xfer_result(h, kXferIoError);
        return -1;
    }
    const uint64_t unit = df_GetDiskUnitSize();
    if (unit < offset) {
        errno = QVFS_ERR_BLOCKRANGE;
        return -1;
    }
    if (count <= 0) return 0;
    uint64_t total = 0;
    for (int i = 0; i < count; ++i) total += iov[i].iov_len;
    if (total == 0) return 0;
    // The vector goes to the system in one call; one it would refuse as a
    // whole is the caller's error, not the block's.
    if (count > IOV_MAX) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    const uint64_t end = uint64_t(offset) + total;
    if (unit < end) {
        errno = QVFS_ERR_BADHANDLE;
        set_xfer_result(h, kXferNearFull);
        return -1;
    }

    ProcLockGuard blockLock(h->lock);
    if (below_data_area(rec, offset)) {
        errno = QVFS_ERR_BLOCKRANGE;
        return -1;
    }
    if (plat::seek(h->fd, rec->blkAddr + offset) < 0 || !df_IsDiskOnline(h->fd)) {
        h->errNo = kXferIoError;
    } else {
        const ssize_t n = plat::writev(h->fd, iov, count);
        if (n == static_cast<ssize_t>(total)) {
            h->errNo = kXferOk;
            apply_near_full(h, end, unit);
            return static_cast<int>(total);
        }
        // The system stops a vector at the first byte it cannot fetch and
        // reports what it wrote before; only when that byte is readable did
        // the device cut the transfer short.
        const int err = errno;
        if (n < 0 ? caller_fault(err) : stopped_at_caller_memory(iov, count, uint64_t(n))) {
            report_caller_fault(h, n < 0 ? err : EFAULT);
            return -1;
        }
        // A partial writev is not continued: the device failed mid-vector.
        df_TagBadBlock(rec->diskId, static_cast<int32_t>(rec->blkId));
        h->errNo = kXferIoError;
    }
    apply_near_full(h, end, unit);
    return -1;
}

QVFS_API int bf_Sync(const TQvBlkSliceInfo* s, TQvBlkRec* h) {
    if (s == nullptr || h == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard blockLock(h->lock);
    TQvBlkShare* rec = h->share;
    if (rec == nullptr || df_IsDiskReady(rec->diskId) != 0) return -1;
    TQvBlkInfo& hd = rec->header;
    // An entry is only ever written inside the directory: sliceID 0 is the
    // header itself, and beyond Len lies file data.
    if (!slice_in_directory(hd, s->sliceID)) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    const int32_t blk = static_cast<int32_t>(rec->blkId);
    // The disk was found ready under this lock just above.
    if (put_sector(s, h->fd, rec->diskId, blk, rec->blkAddr + s->sliceID * kSector, hd.dataType) != 0)
        return -1;

    const uint64_t unit = df_GetDiskUnitSize();
    // The block's space and time range grow only from entries whose regions
    // are consistent: no reserved region at all, or a complete one whose
    // pre-record pointers lie inside the block.
    const bool noRegion = s->resStart == 0 && s->resEnd == 0 && s->preStart == 0 && s->preEnd == 0;
    const bool fullRegion = s->resStart != 0 && s->resEnd != 0 && s->preStart != 0 &&
                            s->preEnd != 0 && s->preStart <= unit && s->preEnd <= unit;
    const bool regionOk = noRegion || fullRegion;

    bool writeHeader = false;
    if (s->dataEnd <= unit && hd.next < s->dataEnd) {
        if (regionOk) {
            hd.next = (s->dataEnd + (kSpaceAlign - 1)) & ~(kSpaceAlign - 1);
            if (hd.endTime < s->endTime) hd.endTime = s->endTime;
            writeHeader = true;
        }
    } else if (regionOk && s->endTime > hd.endTime) {
        hd.endTime = s->endTime;
        writeHeader = true;
    }
    // The header is written only when next or endTime moved; a failed write
    // leaves the advance in the shared copy for the next header write.
    if (writeHeader) {
        if (put_sector(&hd, h->fd, rec->diskId, blk, rec->blkAddr, hd.dataType) != 0) return -1;
        qvfs::disk::index_note_head(rec->diskId, blk, &hd);
    }
    df_SetSyncMark(rec->diskId, 1);
    return 0;
}

QVFS_API int bf_GetErrorNo(TQvBlkRec* h) {
    if (h == nullptr) {
        errno = QVFS_ERR_BADARG;
        return 0;
    }
    ProcLockGuard blockLock(h->lock);
    return h->errNo;
}

}  // extern "C"
