// info.cpp - file information: previous name, video abstract and the
// user-data store of the slice entry.
//
// User-data area, the last 356 bytes of the slice entry (zero until used):
//
//   area off  size  content
//          0     4  "UDMS"
//          4        entries: funcId (u16), length (u16), length data bytes
//   behind them  4  "UDME"
//
// A walk starts at offset 4. An entry whose funcId is above 64, or whose
// first four bytes are "UDME", ends the list; a walk whose next offset
// reaches 348 ends there too. Every read and write here stays inside the
// 356 bytes, whatever lengths a damaged area claims.
#include <cerrno>
#include <cstring>

#include "common/proc_lock.h"
#include "file/tf_internal.h"

namespace qvfs::file {
namespace {

constexpr int kAreaSize = 356;
constexpr int kFirstEntry = 4;
constexpr int kWalkEnd = 348;
constexpr int kEntryHead = 4;
constexpr uint32_t kMaxEntryData = 344;  // 4 magic + 4 head + 344 + 4 marker = 356
constexpr uint32_t kMaxFuncId = 64;
constexpr char kAreaMagic[4] = {'U', 'D', 'M', 'S'};
constexpr char kEndMarker[4] = {'U', 'D', 'M', 'E'};
static_assert(sizeof(TQvBlkSliceInfo::userData) == kAreaSize);
static_assert(4 + kEntryHead + kMaxEntryData + 4 == kAreaSize);

constexpr uint32_t kPrenameItemSize = 32;
constexpr int kLastInfoBit = 6;

uint16_t get_u16(const uint8_t* area, int off) {
    uint16_t v;
    std::memcpy(&v, area + off, sizeof v);
    return v;
}

void put_u16(uint8_t* area, int off, uint16_t v) { std::memcpy(area + off, &v, sizeof v); }

bool area_in_use(const uint8_t* area) { return std::memcmp(area, kAreaMagic, 4) == 0; }

bool ends_list(const uint8_t* area, int off) {
    return std::memcmp(area + off, kEndMarker, 4) == 0 || get_u16(area, off) > kMaxFuncId;
}

// What a walk over the entries (honouring the end of the list) found.
struct Walk {
    int firstMatch = -1;  // first entry with the wanted funcId
    int lastMatch = -1;   // last such entry
    int end = -1;         // where the list ends, -1 when the walk ran out first
    int tail = kFirstEntry;  // end of the last entry that lies wholly in the area
};

Walk walk_entries(const uint8_t* area, uint32_t funcId) {
    Walk w;
    int off = kFirstEntry;
    while (off < kWalkEnd) {
        if (ends_list(area, off)) {
            w.end = off;
            break;
        }
        if (get_u16(area, off) == funcId) {
            if (w.firstMatch < 0) w.firstMatch = off;
            w.lastMatch = off;
        }
        int next = off + kEntryHead + get_u16(area, off + 2);
        if (next <= kAreaSize) w.tail = next;
        off = next;
    }
    return w;
}

// Copies n bytes into the area at off, cut at the area's end.
void put_cut(uint8_t* area, int off, const void* src, size_t n) {
    if (off >= kAreaSize) return;
    size_t room = size_t(kAreaSize - off);
    std::memcpy(area + off, src, n < room ? n : room);
}

// Header, data and end marker at off, each cut at the area's end.
void put_entry(uint8_t* area, int off, uint32_t funcId, const void* data, uint32_t len) {
    uint8_t head[kEntryHead];
    put_u16(head, 0, uint16_t(funcId));
    put_u16(head, 2, uint16_t(len));
    put_cut(area, off, head, sizeof head);
    put_cut(area, off + kEntryHead, data, len);
    put_cut(area, off + kEntryHead + int(len), kEndMarker, sizeof kEndMarker);
}

// Replaces the entry at `at` by {funcId, len, data}; the complete entries
// behind it (up to the end of the list, or of the walk) move to follow the
// new entry and the end marker follows them. False, with the area
// untouched, when the result would not fit.
bool replace_entry(uint8_t* area, int at, const Walk& w, uint32_t funcId, const void* data,
                   uint32_t len) {
    int oldEnd = at + kEntryHead + get_u16(area, at + 2);
    int behindEnd = w.end >= 0 ? w.end : w.tail;
    int behind = behindEnd > oldEnd ? behindEnd - oldEnd : 0;
    int newEnd = at + kEntryHead + int(len);
    if (newEnd + behind + 4 > kAreaSize) return false;
    if (behind > 0) std::memmove(area + newEnd, area + oldEnd, size_t(behind));
    put_u16(area, at, uint16_t(funcId));
    put_u16(area, at + 2, uint16_t(len));
    std::memcpy(area + at + kEntryHead, data, len);
    std::memcpy(area + newEnd + behind, kEndMarker, sizeof kEndMarker);
    return true;
}

bool usable(const TQvFileHandle* h) { return h != nullptr && h->rec != nullptr; }

// The get converter of mask bit `bit` (0..6).
int get_item(const TQvBlkSliceInfo* s, int bit, TQvFileInfo* item) {
    if (bit == 0) return _Slice2TQvFileInfoPrename(s, item);
    if (bit == 1) return _Slice2TQvFileInfoVideoAbstract(s, item);
    return _Slice2TQvFileInfoUserData(s, 1u << bit, item);
}

// The set converter of mask bit `bit` (1..6).
int set_item(TQvBlkSliceInfo* s, int bit, const TQvFileInfo* item) {
    if (bit == 1) return _TQvFileInfoVideoAbstract2Slice(item, s);
    return _TQvFileInfoUserData2SliceReserved(item, s, 1u << bit);
}

}  // namespace
}  // namespace qvfs::file

using namespace qvfs;
using namespace qvfs::file;

int _Slice2TQvFileInfoPrename(const TQvBlkSliceInfo* slice, TQvFileInfo* item) {
    if (slice == nullptr || item == nullptr || item->buf == nullptr || item->len < kPrenameItemSize) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    return fsc_FileName16To27(slice->preName, static_cast<char*>(item->buf), int(kPrenameItemSize));
}

int _Slice2TQvFileInfoVideoAbstract(const TQvBlkSliceInfo* slice, TQvFileInfo* item) {
    if (slice == nullptr || item == nullptr || item->buf == nullptr || item->len < 4) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    std::memcpy(item->buf, &slice->videoAbstract, 4);
    return 0;
}

int _TQvFileInfoVideoAbstract2Slice(const TQvFileInfo* item, TQvBlkSliceInfo* slice) {
    if (slice == nullptr || item == nullptr || item->buf == nullptr || item->len < 4) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    std::memcpy(&slice->videoAbstract, item->buf, 4);
    return 0;
}

int _Slice2TQvFileInfoUserData(const TQvBlkSliceInfo* slice, uint32_t funcId, TQvFileInfo* item) {
    if (slice == nullptr || item == nullptr || item->buf == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (funcId > kMaxFuncId) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    const uint8_t* area = slice->userData;
    if (!area_in_use(area)) return -1;
    // The end marker is not looked for: its bytes never read as a wanted
    // funcId, and its "length" carries the walk past the area.
    for (int off = kFirstEntry; off < kWalkEnd;) {
        uint32_t dlen = get_u16(area, off + 2);
        if (get_u16(area, off) == funcId) {
            uint32_t room = uint32_t(kAreaSize - (off + kEntryHead));
            uint32_t n = dlen < item->len ? dlen : item->len;
            if (n > room) n = room;
            std::memcpy(item->buf, area + off + kEntryHead, n);
            item->len = n;
            return 0;
        }
        off += kEntryHead + int(dlen);
    }
    return -1;
}

int _GetOffsetByFuncId(const TQvBlkSliceInfo* slice, uint32_t funcId, int* endPointer) {
    if (slice == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (endPointer == nullptr) {
        // First entry with funcId, or the list's end when that comes first.
        const uint8_t* area = slice->userData;
        for (int off = kFirstEntry; off < kWalkEnd;) {
            if (ends_list(area, off)) return off;
            if (get_u16(area, off) == funcId) return off;
            off += kEntryHead + get_u16(area, off + 2);
        }
        return -1;
    }
    Walk w = walk_entries(slice->userData, funcId);
    *endPointer = w.end;
    if (w.lastMatch >= 0) return w.lastMatch;
    return w.end >= 0 ? w.end : kFirstEntry;
}

int _TQvFileInfoUserData2SliceReserved(const TQvFileInfo* item, TQvBlkSliceInfo* slice,
                                       uint32_t funcId) {
    if (item == nullptr || slice == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (item->len > kMaxEntryData || item->buf == nullptr || funcId > kMaxFuncId) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    uint8_t* area = slice->userData;
    if (!area_in_use(area)) {
        std::memcpy(area, kAreaMagic, sizeof kAreaMagic);
        put_entry(area, kFirstEntry, funcId, item->buf, item->len);
        return 0;
    }
    Walk w = walk_entries(area, funcId);
    if (w.lastMatch >= 0) {
        if (!replace_entry(area, w.lastMatch, w, funcId, item->buf, item->len)) {
            errno = QVFS_ERR_BADHANDLE;
            return -1;
        }
        return 0;
    }
    // A new entry goes where the list ends; an area whose walk never meets
    // an end starts over at the first entry.
    put_entry(area, w.end >= 0 ? w.end : kFirstEntry, funcId, item->buf, item->len);
    return 0;
}

int tf_GetFileInfo(TQvFileHandle* handle, uint32_t mask, TQvFileInfo* items, int count) {
    if (!usable(handle)) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard file(handle->lockId);
    if (mask == 0 || count <= 0) return 0;
    if (items == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    const TQvBlkSliceInfo* s = &handle->rec->slice;
    uint32_t work = mask;
    int item = 0;
    int result = 0;
    for (int bit = 0; bit <= kLastInfoBit && work != 0 && item < count; ++bit) {
        uint32_t b = 1u << bit;
        if ((work & b) == 0) continue;
        work &= ~b;
        result = get_item(s, bit, &items[item++]);
        if (result < 0) break;
    }
    return result;
}

int tf_SetFileInfo(TQvFileHandle* handle, uint32_t mask, TQvFileInfo* items, int count) {
    if (!usable(handle)) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard file(handle->lockId);
    // Converters work on a copy, so that a failing one leaves the record
    // as it was.
    TQvBlkSliceInfo work;
    std::memcpy(&work, &handle->rec->slice, sizeof work);
    if (mask != 0 && count > 0) {
        if (items == nullptr) {
            errno = QVFS_ERR_BADARG;
            return -1;
        }
        uint32_t bits = mask & ~uint32_t(QVFS_INFO_PRENAME);  // the previous name is not settable
        int item = 0;
        for (int bit = 1; bit <= kLastInfoBit && bits != 0 && item < count; ++bit) {
            uint32_t b = 1u << bit;
            if ((bits & b) == 0) continue;
            bits &= ~b;
            int r = set_item(&work, bit, &items[item++]);
            if (r < 0) return r;
        }
    }
    std::memcpy(&handle->rec->slice, &work, sizeof work);
    return store_entry(handle);
}
