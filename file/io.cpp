// io.cpp - file positions onto block addresses, reading, writing, gathering
// writes, growth, the pre-record pointers, truncation and syncing.
//
// The logical file is up to three parts laid end to end:
//   part 1  the older piece of a wrapped ring   [preStart, resEnd)
//   part 2  the rest of the ring (or all of it) [resStart or preStart, preEnd)
//   part 3  the main data                       [dataStart, limit)
// where the limit is dataEnd for reads and 0x7FFFFFFF for writes, so that a
// write may extend the data. Before the pre-record pointers are set, a file
// with a reserved area is one linear part [resStart, resEnd): reads end
// where the writes so far ended, and a write that does not fit in the area
// is refused whole (the area is all the room the file has until then; the
// block's next file may begin right behind it).
//
// Every call maps and transfers under the per-file lock, so the position
// fields cannot change between the mapping and the transfers, and a
// grower's new length is in the shared record before another caller maps.
// The block layer bounds every transfer by the block size, whatever the
// mapping produced.
#include <climits>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "common/proc_lock.h"
#include "file/tf_internal.h"

namespace qvfs::file {
namespace {

constexpr uint64_t kWriteLimit = 0x7FFFFFFF;
// Room of a segment list; the mapping produces at most 3 entries.
constexpr int kMaxSegments = 10;
constexpr int kParts = 3;
// writev takes at most this many entries; a split list needs one more slot
// for the remainder of an entry cut at a segment's end.
constexpr int kMaxIov = IOV_MAX;

struct Part {
    uint64_t base = 0;
    uint64_t len = 0;
};

using qvfs::bf::span;

void lay_out_parts(const TQvBlkSliceInfo& s, bool isRead, Part (&p)[kParts]) {
    uint64_t limit = isRead ? s.dataEnd : kWriteLimit;
    if (!qvfs::bf::has_ring_area(s)) {
        p[2] = {s.dataStart, span(s.dataStart, limit)};
    } else if (!qvfs::bf::ring_set(s)) {
        const uint64_t end = isRead && s.dataEnd < s.resEnd ? s.dataEnd : s.resEnd;
        p[2] = {s.resStart, span(s.resStart, end)};
    } else if (s.preStart <= s.preEnd) {
        p[1] = {s.preStart, s.preEnd - s.preStart};
        p[2] = {s.dataStart, span(s.dataStart, limit)};
    } else {
        p[0] = {s.preStart, span(s.preStart, s.resEnd)};
        p[1] = {s.resStart, span(s.resStart, s.preEnd)};
        p[2] = {s.dataStart, span(s.dataStart, limit)};
    }
}

bool usable(const TQvFileHandle* h) { return h != nullptr && h->rec != nullptr; }

// The handle's errNo is stored whole: tf_GetErrorNo reads it without the
// per-file lock.
void set_error_no(TQvFileHandle* h, int value) { __atomic_store_n(&h->errNo, value, __ATOMIC_RELAXED); }

// After a transfer that ended at `end` (block address): a file that grew
// takes the new dataEnd and the current time in the shared record, where
// every process reads them; the entry on the device follows with the next
// flush pass. Writes that end inside the data, or beyond the block, change
// nothing.
void grow_to(TQvFileHandle* h, uint64_t end) {
    TQvBlkSliceInfo& s = h->rec->slice;
    if (end > df_GetDiskUnitSize() || s.dataEnd >= end) return;
    s.dataEnd = end;
    s.endTime = uint64_t(int64_t(time(nullptr)));
    note_growth(h);
}

// Reads never leave the file's block, whatever the regions say: segments
// are cut at the block's end and dropped beyond it. Returns the number of
// segments left.
int clip_to_block(const uint32_t* addr, uint32_t* lens, int n) {
    const uint64_t unit = df_GetDiskUnitSize();
    for (int i = 0; i < n; ++i) {
        if (addr[i] >= unit) return i;
        if (uint64_t(addr[i]) + lens[i] > unit) {
            lens[i] = uint32_t(unit - addr[i]);
            return i + 1;
        }
    }
    return n;
}

}  // namespace
}  // namespace qvfs::file

using namespace qvfs;
using namespace qvfs::file;

namespace {

// A file whose data would end beyond what it may reach (a newer file of the
// block starts there) is refused whole: 1012, and the handle's errNo says the
// block is full, which tells a recorder to go on in a new file.
bool refuse_overgrowth(TQvFileHandle* h, uint64_t end) {
    if (end <= qvfs::bf::growth_limit(h->blkFile, h->rec->slice, df_GetDiskUnitSize())) return false;
    set_error_no(h, qvfs::bf::kXferNearFull);
    errno = QVFS_ERR_BLOCKRANGE;
    return true;
}

// Maps a write, which goes whole or not at all: a range the file's parts
// cannot take entire (the reserved area before the ring pointers are set, or
// beyond the highest address a write may reach) is refused with 1012 before
// a byte moves. The number of segments, or -1.
int map_write(uint32_t pos, uint32_t len, TQvFileHandle* h, uint32_t* addr, uint32_t* lens) {
    const TQvBlkSliceInfo& s = h->rec->slice;
    int n = _tf_MapSegments(pos, len, &s, addr, lens, 0);
    if (n < 0) {
        if (len != 0) errno = QVFS_ERR_BLOCKRANGE;  // nothing of the range lies where the file may go
        return -1;
    }
    uint64_t mapped = 0;
    for (int i = 0; i < n; ++i) mapped += lens[i];
    if (mapped < len) {
        errno = QVFS_ERR_BLOCKRANGE;
        return -1;
    }
    const uint64_t end = uint64_t(addr[n - 1]) + lens[n - 1];
    if (refuse_overgrowth(h, end)) return -1;
    // A growing write claims its space before its transfer, then looks
    // again whether a newer file started meanwhile (bf.h, reserve_space).
    if (end > s.dataEnd) {
        qvfs::bf::reserve_space(h->blkFile, s, end, df_GetDiskUnitSize());
        if (refuse_overgrowth(h, end)) return -1;
    }
    return n;
}

}  // namespace

int _tf_MapSegments(uint32_t pos, uint32_t len, const TQvBlkSliceInfo* slice, uint32_t* addr,
                    uint32_t* lens, int isRead) {
    if (slice == nullptr || addr == nullptr || lens == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (len == 0) return -1;
    Part parts[kParts];
    lay_out_parts(*slice, isRead != 0, parts);
    uint64_t cur = pos;
    uint64_t remaining = len;
    uint64_t partStart = 0;
    int n = 0;
    for (const Part& p : parts) {
        uint64_t partEnd = partStart + p.len;
        if (partEnd > cur) {
            uint64_t take = partEnd - cur < remaining ? partEnd - cur : remaining;
            addr[n] = uint32_t(p.base + (cur - partStart));
            lens[n] = uint32_t(take);
            ++n;
            cur += take;
            remaining -= take;
            if (remaining == 0) break;
        }
        partStart = partEnd;
    }
    return n == 0 ? -1 : n;
}

int tf_Read(uint32_t pos, void* buf, uint32_t len, TQvFileHandle* handle) {
    if (buf == nullptr || !usable(handle)) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard file(handle->lockId);
    uint32_t addr[kMaxSegments], lens[kMaxSegments];
    int n = _tf_MapSegments(pos, len, &handle->rec->slice, addr, lens, 1);
    if (n < 0) return -1;
    n = clip_to_block(addr, lens, n);
    if (n == 0) return -1;
    auto* out = static_cast<unsigned char*>(buf);
    int total = 0;
    for (int i = 0; i < n; ++i) {
        int r = bf_Read(addr[i], out, lens[i], handle->blkFile);
        set_error_no(handle, bf_GetErrorNo(handle->blkFile));
        if (r < 0) return -1;
        out += lens[i];
        total += r;
    }
    return total;
}

int tf_Write(uint32_t pos, const void* buf, uint32_t len, TQvFileHandle* handle) {
    if (buf == nullptr || !usable(handle)) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard file(handle->lockId);
    uint32_t addr[kMaxSegments], lens[kMaxSegments];
    int n = map_write(pos, len, handle, addr, lens);
    if (n < 0) return -1;
    auto* in = static_cast<const unsigned char*>(buf);
    int last = 0;
    for (int i = 0; i < n; ++i) {
        last = bf_Write(addr[i], in, lens[i], handle->blkFile);
        set_error_no(handle, bf_GetErrorNo(handle->blkFile));
        if (last < 0) return -1;
        in += lens[i];
    }
    if (last != 0) grow_to(handle, uint64_t(addr[n - 1]) + lens[n - 1]);
    return int(len);
}

int tf_Writev(uint32_t pos, const struct iovec* iov, int iovcnt, TQvFileHandle* handle) {
    if (iov == nullptr || !usable(handle) || iovcnt < 0) return -1;
    uint32_t sum = 0;
    for (int i = 0; i < iovcnt; ++i) sum += uint32_t(iov[i].iov_len);
    if (sum > df_GetDiskUnitSize()) return -1;

    ProcLockGuard file(handle->lockId);
    uint32_t addr[kMaxSegments], lens[kMaxSegments];
    int n = map_write(pos, sum, handle, addr, lens);
    if (n < 0) return -1;

    int last = 0;
    if (n == 1) {
        last = bf_Writev(addr[0], iov, iovcnt, handle->blkFile);
        set_error_no(handle, bf_GetErrorNo(handle->blkFile));
        if (last < 0) return -1;
    } else {
        // Each segment gets the run of the caller's entries that falls into
        // it: an entry cut at a segment's end continues the next segment's
        // list, so a list never needs more than iovcnt + 1 slots. The data
        // itself is not copied.
        if (iovcnt > kMaxIov) return -1;
        struct iovec split[kMaxIov + 1];
        int entry = 0;      // the caller's entry reached
        size_t used = 0;    // bytes of it already given to earlier segments
        for (int s = 0; s < n; ++s) {
            int count = 0;
            uint64_t room = lens[s];
            while (room > 0 && entry < iovcnt) {
                size_t avail = iov[entry].iov_len - used;
                char* base = static_cast<char*>(iov[entry].iov_base) + used;
                if (avail <= room) {
                    split[count++] = {base, avail};
                    room -= avail;
                    ++entry;
                    used = 0;
                } else {
                    split[count++] = {base, size_t(room)};
                    used += size_t(room);
                    room = 0;
                }
            }
            last = bf_Writev(addr[s], split, count, handle->blkFile);
            set_error_no(handle, bf_GetErrorNo(handle->blkFile));
            if (last < 0) return -1;
        }
    }
    if (last != 0) grow_to(handle, uint64_t(addr[n - 1]) + lens[n - 1]);
    return int(sum);
}

int tf_SyncFile(TQvFileHandle* handle) {
    if (!usable(handle)) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard file(handle->lockId);
    return store_entry(handle);
}

int tf_UpdataePreRecPtr(TQvFileHandle* handle, uint64_t start, uint64_t end) {
    if (!usable(handle)) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard file(handle->lockId);
    TQvBlkSliceInfo& s = handle->rec->slice;
    // Both pointers lie inside the file's own reserved area: a file without
    // one has no ring, and a pointer elsewhere would read other bytes of
    // the block as ring bytes. Refused with nothing changed.
    const uint64_t area = qvfs::bf::has_ring_area(s) ? span(s.resStart, s.resEnd) : 0;
    if (start >= area || end >= area) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    s.preStart = s.resStart + start;
    s.preEnd = s.resStart + end;
    s.dataStart = s.resEnd;
    s.dataEnd = s.resEnd;
    return store_entry(handle);
}

int tf_ftruncate(TQvFileHandle* handle, uint64_t length) {
    if (!usable(handle)) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    uint64_t unit = df_GetDiskUnitSize();
    if (length > unit) {
        errno = QVFS_ERR_BLOCKRANGE;
        return -1;
    }
    ProcLockGuard file(handle->lockId);
    TQvBlkSliceInfo& s = handle->rec->slice;
    if (qvfs::bf::has_ring_area(s) && !qvfs::bf::ring_set(s)) {
        // Before the pointers are set the file is its reserved area.
        if (length > span(s.resStart, s.resEnd)) {
            errno = QVFS_ERR_BLOCKRANGE;
            return -1;
        }
        s.dataStart = s.resStart;
        s.dataEnd = s.resStart + length;
        return store_entry(handle);
    }
    uint64_t pre = qvfs::bf::ring_length(s);
    if (length < pre) return -1;  // the pre-record part cannot be cut
    uint64_t data = length - pre;
    // The data never reaches past the block's end.
    if (s.dataStart + data > unit) {
        errno = QVFS_ERR_BLOCKRANGE;
        return -1;
    }
    if (s.dataStart + data > s.dataEnd && refuse_overgrowth(handle, s.dataStart + data)) return -1;
    s.dataEnd = s.dataStart + data;
    return store_entry(handle);
}
