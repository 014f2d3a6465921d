// header.cpp - the block header and slice entries on disk: the two sector
// writers, header acceptance and the debug printers.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "blockfile/bf.h"
#include "platform.h"

namespace {

int write_sector(const void* sector, int fd, uint32_t disk, int32_t block, uint64_t target,
                 uint32_t blkType) {
    if (disk >= QVFS_MAX_DISKS || !qvfs::disk::ready(disk)) return -1;
    (void)blkType;  // the transfer is not counted by category
    return qvfs::bf::put_sector(sector, fd, disk, block, target);
}

// Local-time text of a 64-bit time ("%F_%T"); empty when the value does not
// fit the platform's time_t or cannot be converted.
void time_text(uint64_t seconds, char* buf, std::size_t size) {
    std::memset(buf, 0, size);
    time_t t = static_cast<time_t>(seconds);
    if (static_cast<uint64_t>(t) != seconds || t < 0) return;
    struct tm tmv;
    std::memset(&tmv, 0, sizeof tmv);
    if (localtime_r(&t, &tmv) == nullptr) return;
    std::strftime(buf, size, "%F_%T", &tmv);
}

}  // namespace

namespace qvfs::bf {

// The writers always put whole sectors from the copy in memory: there is no
// read-modify-write, so a torn header can only come from the device, never
// from this layer.
int put_sector(const void* sector, int fd, uint32_t disk, int32_t block, uint64_t target) {
    if (!disk::device_online(fd)) return -1;
    errno = 0;
    if (plat::pwrite(fd, sector, kSector, target) == static_cast<ssize_t>(kSector)) return 0;
    errno += QVFS_ERR_SYS;
    df_TagBadBlock(disk, block);
    return -1;
}

int put_head(const TQvBlkInfo& hd, int fd, uint32_t disk, int32_t block, uint64_t blkAddr) {
    if (put_sector(&hd, fd, disk, block, blkAddr) != 0) return -1;
    disk::index_note_head(disk, block, &hd);
    return 0;
}

bool header_acceptable(const TQvBlkInfo& h, uint64_t unitSize) {
    if (h.Len == 0) return h.slice == 0 && h.next == 0;
    if (h.Len > kMaxSelfInfo) return false;
    if (h.next > unitSize) return false;
    if (h.slice >= (h.Len >> 9)) return false;
    // The next file's data starts at `next`: never inside the header and
    // directory. A header that counts more files than it handed out slices
    // is not one this layer wrote.
    if (h.next < h.Len || h.cnt > h.slice) return false;
    return true;
}

bool entry_regions_valid(const TQvBlkSliceInfo& e, uint64_t dataArea, uint64_t unitSize) {
    auto inside = [&](uint64_t from, uint64_t to) { return dataArea <= from && from <= to && to <= unitSize; };
    const bool noRing = e.resStart == 0 && e.resEnd == 0;
    if (noRing) return e.preStart == 0 && e.preEnd == 0 && inside(e.dataStart, e.dataEnd);
    if (!inside(e.resStart, e.resEnd) || e.resStart == e.resEnd) return false;
    if (e.preStart == 0 || e.preEnd == 0) {
        // Pointers not set: the data region, when there is one, is the part
        // of the reserved area written so far (older disks kept it at 0 and
        // dataEnd at the end of the bytes written).
        return e.dataStart == 0 ? e.dataEnd <= unitSize : inside(e.dataStart, e.dataEnd);
    }
    auto inRing = [&](uint64_t p) { return e.resStart <= p && p <= e.resEnd; };
    return inRing(e.preStart) && inRing(e.preEnd) && e.resEnd <= e.dataStart && inside(e.dataStart, e.dataEnd);
}

uint64_t ring_length(const TQvBlkSliceInfo& e) {
    if (!ring_set(e)) return 0;
    if (e.preStart < e.preEnd) return e.preEnd - e.preStart;
    // Wrapped, or preStart == preEnd: a full turn counts the whole area.
    return span(e.preStart, e.resEnd) + span(e.resStart, e.preEnd);
}

uint64_t file_length(const TQvBlkSliceInfo& e) {
    if (has_ring_area(e) && !ring_set(e)) {
        const uint64_t written = e.dataEnd < e.resEnd ? e.dataEnd : e.resEnd;
        return span(e.resStart, written);
    }
    return ring_length(e) + span(e.dataStart, e.dataEnd);
}

uint64_t growth_limit(const TQvBlkRec* h, const TQvBlkSliceInfo& e, uint64_t unitSize) {
    if (h == nullptr || h->share == nullptr) return unitSize;  // the transfer itself refuses
    // Ordered after the caller's space claim (reserve_space).
    const uint32_t newest = __atomic_load_n(&h->share->header.slice, __ATOMIC_SEQ_CST);
    if (e.sliceID >= newest) return unitSize;
    if (has_ring_area(e) && !ring_set(e)) return e.resEnd;
    return (e.dataEnd + (kSpaceAlign - 1)) & ~(kSpaceAlign - 1);
}

}  // namespace qvfs::bf

extern "C" {

QVFS_API int _bf_WriteBlkInfo(const TQvBlkInfo* info, int fd, uint32_t disk, int32_t block,
                              uint64_t blkAddr, uint32_t blkType) {
    if (info == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    const int r = write_sector(info, fd, disk, block, blkAddr, blkType);
    if (r == 0) qvfs::disk::index_note_head(disk, block, info);
    return r;
}

QVFS_API int _bf_WriteSlice(const TQvBlkSliceInfo* slice, int fd, uint32_t disk, int32_t block,
                            uint64_t blkAddr, uint32_t blkType) {
    if (slice == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    // The product is formed as in the directory's definition: slice numbers
    // stay far below 2^22, so 32 bits are exact; callers keep sliceID inside
    // the directory.
    int64_t rel = static_cast<int32_t>(static_cast<uint32_t>(slice->sliceID) * qvfs::bf::kSector);
    return write_sector(slice, fd, disk, block, blkAddr + static_cast<uint64_t>(rel), blkType);
}

QVFS_API int bf_PrintTQvBlkInfo(const TQvBlkInfo* info) {
    if (info == nullptr) return 0;
    char start[128];
    char end[128];
    time_text(info->startTime, start, sizeof start);
    time_text(info->endTime, end, sizeof end);
    return std::printf(
        "Block. Len=%u flg=%u chn=%u dataType=%u recType=0x%llX lock=%u cnt=%u slice=%u "
        "startTime=%s(%llu) endTime=%s(%llu) addr=0x%llX next=0x%llX\n",
        info->Len, info->flg, info->chn, info->dataType,
        static_cast<unsigned long long>(info->recType), info->lock, info->cnt, info->slice, start,
        static_cast<unsigned long long>(info->startTime), end,
        static_cast<unsigned long long>(info->endTime),
        static_cast<unsigned long long>(info->addr), static_cast<unsigned long long>(info->next));
}

QVFS_API void bf_PrintTQvBlkSliceInfo(const TQvBlkSliceInfo* s) {
    if (s == nullptr) return;
    if (s->startTime == 0 || s->startTime > 0x7FFFFFFFull || s->dataEnd > 0x40000000ull) return;
    char start[128];
    char end[128];
    time_text(s->startTime, start, sizeof start);
    time_text(s->endTime, end, sizeof end);
    // Both text fields are bounded copies: a damaged entry may lack the
    // terminator, and nothing beyond a field is ever printed.
    char ext[sizeof s->ext + 1] = {};
    std::memcpy(ext, s->ext, sizeof s->ext);
    char preName[sizeof s->preName + 1] = {};
    std::memcpy(preName, s->preName, sizeof s->preName);
    std::printf(
        "sliceID=%llu chn=%u recType=0x%llX lock=%u videoAbstract=%u verify=%.4s ext=%s "
        "preName=%s startTime=%s(%llu) endTime=%s(%llu) dataStart=0x%llX dataEnd=0x%llX "
        "resStart=0x%llX resEnd=0x%llX preStart=0x%llX preEnd=0x%llX\n",
        static_cast<unsigned long long>(s->sliceID), s->chn,
        static_cast<unsigned long long>(s->recType), s->lock, s->videoAbstract, s->verify, ext,
        preName, start, static_cast<unsigned long long>(s->startTime), end,
        static_cast<unsigned long long>(s->endTime),
        static_cast<unsigned long long>(s->dataStart), static_cast<unsigned long long>(s->dataEnd),
        static_cast<unsigned long long>(s->resStart), static_cast<unsigned long long>(s->resEnd),
        static_cast<unsigned long long>(s->preStart), static_cast<unsigned long long>(s->preEnd));
}

}  // extern "C"
