// io.cpp - block I/O: reads, writes and gathered writes straight between the
// caller's memory and the device, and the sync that stores a slice entry and
// advances the block header.
//
// There is no buffer in this layer. Each transfer is one positioned read or
// write (pread/pwrite/pwritev) on the handle's descriptor, so a transfer
// needs no lock: there is no descriptor position to share, the readiness
// and presence tests read shared words, and the handle's errNo is stored
// whole. The record lock is taken only where the shared header copy is
// read and changed (bf_Sync, the header push of the flush pass).
#include <climits>
#include <cerrno>

#include "blockfile/bf.h"
#include "keys.h"
#include "platform.h"
#include "proc_lock.h"
#include "state.h"

using namespace qvfs;
using namespace qvfs::bf;

namespace {

// errNo is stored whole: the last transfer on the handle, from any thread,
// is what bf_GetErrorNo reads.
void set_xfer_result(TQvBlkRec* h, int value) { __atomic_store_n(&h->errNo, value, __ATOMIC_RELAXED); }

// A write whose remaining end reaches the block's last 4 MiB leaves the
// handle's errNo at 28, whether or not it completed.
int near_full(int result, uint64_t end, uint64_t unit) { return end + kNearFull >= unit ? kXferNearFull : result; }

// A transfer that failed because of the caller's memory (a buffer or an
// iovec the system cannot use) says nothing about the device: the block
// keeps its status and the handle's errNo names the caller's fault.
bool caller_fault(int err) { return err == EFAULT || err == EINVAL; }

void report_caller_fault(TQvBlkRec* h, int err) {
    set_xfer_result(h, QVFS_ERR_SYS + err);
    errno = QVFS_ERR_SYS + err;
}

// Data transfers stay in the data area: the header and the directory are
// written only as whole sectors by their own writers. A fresh block (Len 0)
// has no such area yet. Len is set when the block receives its first file
// and cleared only when the block is given back, which no holder of a
// reference sees; it is read whole.
bool below_data_area(const TQvBlkShare* rec, uint32_t offset) {
    return offset < __atomic_load_n(&rec->header.Len, __ATOMIC_RELAXED);
}

bool disk_ready(uint32_t disk) { return disk < QVFS_MAX_DISKS && disk::ready(disk); }

// The transfer loop of bf_Read and bf_Write: move(from) transfers the rest
// from byte `from` on with one positioned system call and returns what it
// returned; a write first asks whether the device is there. The loop stops
// at the first failure: a device failure reports the block bad and leaves
// kXferIoError in result; a fault of the caller's memory reports itself and
// gives false (nothing is said about the device).
template <class Move>
bool move_all(TQvBlkRec* h, uint32_t length, bool write, uint32_t& done, int& result, Move move) {
    while (done < length) {
        if (write && !disk::device_online(h->fd)) {
            result = kXferIoError;
            return true;
        }
        const ssize_t n = move(done);
        if (n < 0 && caller_fault(errno)) {
            report_caller_fault(h, errno);
            return false;
        }
        if (n <= 0) {
            df_TagBadBlock(h->share->diskId, static_cast<int32_t>(h->share->blkId));
            result = kXferIoError;
            return true;
        }
        done += static_cast<uint32_t>(n);
    }
    return true;
}

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

namespace qvfs::bf {

namespace {

// The block's space and time range grow only from entries whose regions
// are consistent: no reserved region at all, or a complete one whose
// pre-record pointers lie inside the block.
bool regions_advance(const TQvBlkSliceInfo& s, uint64_t unit) {
    const bool noRegion = s.resStart == 0 && s.resEnd == 0 && s.preStart == 0 && s.preEnd == 0;
    const bool fullRegion = s.resStart != 0 && s.resEnd != 0 && s.preStart != 0 && s.preEnd != 0 &&
                            s.preStart <= unit && s.preEnd <= unit;
    return noRegion || fullRegion;
}

uint64_t round_up(uint64_t v) { return (v + (kSpaceAlign - 1)) & ~(kSpaceAlign - 1); }

uint64_t* claims_of(const TQvBlkShare* rec) {
    TQvBlkState* st = rec == nullptr ? nullptr : blk_state(rec->shareIndex);
    return st == nullptr ? nullptr : &st->reservedNext;
}

}  // namespace

void reserve_space(const TQvBlkRec* h, const TQvBlkSliceInfo& e, uint64_t end, uint64_t unit) {
    if (h == nullptr || end > unit || !regions_advance(e, unit)) return;
    uint64_t* claim = claims_of(h->share);
    if (claim == nullptr) return;
    const uint64_t want = round_up(end);
    uint64_t cur = __atomic_load_n(claim, __ATOMIC_SEQ_CST);
    while (cur < want && !__atomic_compare_exchange_n(claim, &cur, want, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST)) {
    }
}

void raise_to_claims(TQvBlkShare* rec) {
    const uint64_t* claim = claims_of(rec);
    if (claim == nullptr) return;
    const uint64_t c = __atomic_load_n(claim, __ATOMIC_SEQ_CST);
    if (c > rec->header.next && c <= df_GetDiskUnitSize()) rec->header.next = c;
}

void clear_claims(const TQvBlkShare* rec) {
    if (uint64_t* claim = claims_of(rec)) __atomic_store_n(claim, uint64_t{0}, __ATOMIC_SEQ_CST);
}

bool advance_header(TQvBlkInfo& hd, const TQvBlkSliceInfo& s, uint64_t unit) {
    if (!regions_advance(s, unit)) return false;
    bool moved = false;
    if (s.dataEnd <= unit && hd.next < s.dataEnd) {
        hd.next = round_up(s.dataEnd);
        moved = true;
    }
    if (hd.endTime < s.endTime) {
        hd.endTime = s.endTime;
        moved = true;
    }
    return moved;
}

int push_header(uint32_t shareIndex, int lockId, uint32_t disk, uint32_t block, const TQvBlkSliceInfo& s, int fd) {
    auto* rec = static_cast<TQvBlkShare*>(record_at(shareIndex));
    if (rec == nullptr) return -1;
    int result = -1;
    {
        ProcLockGuard blockLock(lockId);
        // The record may have been freed and taken by another block since
        // the file noted it.
        if (rec->shareIndex == shareIndex && rec->diskId == disk && rec->blkId == block && rec->shrRef > 0) {
            TQvBlkInfo& hd = rec->header;
            result = 0;
            if (advance_header(hd, s, df_GetDiskUnitSize()) &&
                put_head(hd, fd, disk, static_cast<int32_t>(block), rec->blkAddr) != 0)
                result = -1;
        }
    }
    record_release(rec);
    return result;
}

int flush_block_device(TQvBlkRec* h) {
    if (h == nullptr || h->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    return disk::flush_device(h->share->diskId, h->fd);
}

}  // namespace qvfs::bf

extern "C" {

QVFS_API int bf_Read(uint32_t offset, void* data, uint32_t length, TQvBlkRec* h) {
    if (data == nullptr || h == nullptr || h->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvBlkShare* rec = h->share;
    if (!disk_ready(rec->diskId)) {
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

    auto* p = static_cast<uint8_t*>(data);
    uint32_t done = 0;
    int result = kXferOk;
    const uint64_t at = rec->blkAddr + offset;
    if (!move_all(h, length, false, done, result,
                  [&](uint32_t from) { return plat::pread(h->fd, p + from, length - from, at + from); }))
        return -1;
    set_xfer_result(h, result);
    return done == 0 ? -1 : static_cast<int>(done);
}

QVFS_API int bf_Write(uint32_t offset, const void* data, uint32_t length, TQvBlkRec* h) {
    const int refused = length == 0 ? 0 : -1;
    if (data == nullptr || h == nullptr || h->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return refused;
    }
    TQvBlkShare* rec = h->share;
    if (!disk_ready(rec->diskId)) {
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
    if (below_data_area(rec, offset)) {
        errno = QVFS_ERR_BLOCKRANGE;
        return refused;
    }
    const auto* p = static_cast<const uint8_t*>(data);
    uint32_t done = 0;
    int result = kXferOk;
    const uint64_t at = rec->blkAddr + offset;
    if (!move_all(h, length, true, done, result,
                  [&](uint32_t from) { return plat::pwrite(h->fd, p + from, length - from, at + from); }))
        return -1;
    set_xfer_result(h, near_full(result, uint64_t(offset) + (length - done), unit));
    return done == length ? static_cast<int>(length) : -1;
}

QVFS_API int bf_Writev(uint32_t offset, const struct iovec* iov, int count, TQvBlkRec* h) {
    if (iov == nullptr || h == nullptr || h->share == nullptr) return -1;
    TQvBlkShare* rec = h->share;
    if (!disk_ready(rec->diskId)) {
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
    if (below_data_area(rec, offset)) {
        errno = QVFS_ERR_BLOCKRANGE;
        return -1;
    }
    if (disk::device_online(h->fd)) {
        const ssize_t n = plat::pwritev(h->fd, iov, count, rec->blkAddr + offset);
        if (n == static_cast<ssize_t>(total)) {
            set_xfer_result(h, near_full(kXferOk, end, unit));
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
    }
    set_xfer_result(h, near_full(kXferIoError, end, unit));
    return -1;
}

QVFS_API int bf_Sync(const TQvBlkSliceInfo* s, TQvBlkRec* h) {
    if (s == nullptr || h == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard blockLock(h->lock);
    TQvBlkShare* rec = h->share;
    if (rec == nullptr || !disk_ready(rec->diskId)) return -1;
    TQvBlkInfo& hd = rec->header;
    // An entry is only ever written inside the directory: sliceID 0 is the
    // header itself, and beyond Len lies file data.
    if (!slice_in_directory(hd, s->sliceID)) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    const int32_t blk = static_cast<int32_t>(rec->blkId);
    if (put_sector(s, h->fd, rec->diskId, blk, rec->blkAddr + s->sliceID * kSector) != 0) return -1;
    // The header is written only when next or endTime moved; a failed write
    // leaves the advance in the shared copy for the next header write. Both
    // sectors reach the device's cache together, and the next flush makes
    // them durable together.
    if (advance_header(hd, *s, df_GetDiskUnitSize()) && put_head(hd, h->fd, rec->diskId, blk, rec->blkAddr) != 0)
        return -1;
    df_SetSyncMark(rec->diskId, 1);
    return 0;
}

QVFS_API int bf_GetErrorNo(TQvBlkRec* h) {
    if (h == nullptr) {
        errno = QVFS_ERR_BADARG;
        return 0;
    }
    return __atomic_load_n(&h->errNo, __ATOMIC_RELAXED);
}

}  // extern "C"
