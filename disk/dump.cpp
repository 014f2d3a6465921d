// dump.cpp - the disk layer's debug dump: one row per disk whose image this
// process has, then the share table of the common services.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/proc_lock.h"
#include "disk/df.h"

using namespace qvfs::disk;

namespace {

constexpr const char* kBanner =
    "===========QVDISK============\n"
    "id\tfd\tmapIndex\tstat\tmounted\tver\ttolblk\tuseblk\tbadblk\t[REC\tIMG\tBACK\tPIC\tFPD\tITS]\n";
constexpr const char* kRow = "%d\t%d\t%d\t\t%d\t%d\t%d\t%d\t%d\t%d\t%d\t%d\t%d\t%d\t%d\t%d\n";
constexpr uint32_t kDumpedTypes = 6;  // REC, IMG, BACK, PIC, FPD, ITS

struct DiskRow {
    uint32_t used = 0;
    uint32_t bad = 0;
    uint32_t perType[kDumpedTypes] = {};
};

DiskRow summarise(const TQvDiskShare& s) {
    DiskRow row;
    const uint32_t blocks = map_blocks(s.head);
    for (uint32_t i = 0; i < blocks; ++i) {
        if (s.map[i] == QV_BLK_USED) ++row.used;
        else if (is_bad(s.map[i])) ++row.bad;
    }
    for (uint32_t t = 0; t < kDumpedTypes; ++t)
        for (uint32_t c = 0; c < kChannels; ++c) row.perType[t] += s.count[t][c];
    return row;
}

}  // namespace

extern "C" {

// Returns the length of the text; once the text reaches `size` it stops and
// returns the length it would have had up to the piece that did not fit.
// Each disk's image is copied under its lock and formatted afterwards.
int df_GetDebugInfo(char* buf, int32_t size) {
    if (buf == nullptr || size <= 99) return 0;
    int len = std::snprintf(buf, static_cast<size_t>(size), "%s", kBanner);
    if (len >= size) return len;

    TQvDiskShare* copy = nullptr;
    for (uint32_t i = 0; i < QVFS_MAX_DISKS; ++i) {
        TQvDiskRec& d = rec(i);
        qvfs::ProcLockGuard lock(d.lock);
        if (d.share == nullptr) continue;
        if (copy == nullptr) {
            copy = static_cast<TQvDiskShare*>(qvfs_Malloc(kImageSize));
            if (copy == nullptr) {
                errno = QVFS_ERR_NOMEM;
                return len;
            }
        }
        std::memcpy(copy, d.share, kImageSize);
        const int fd = d.fd;
        lock.unlock();

        const DiskRow row = summarise(*copy);
        const TQvDiskHead& h = copy->head;
        len += std::snprintf(buf + len, static_cast<size_t>(size - len), kRow, static_cast<int>(i), fd,
                             copy->mapIndex, copy->stat, copy->mounted, static_cast<int>(h.ver),
                             static_cast<int>(h.tolblk), static_cast<int>(row.used), static_cast<int>(row.bad),
                             static_cast<int>(row.perType[0]), static_cast<int>(row.perType[1]),
                             static_cast<int>(row.perType[2]), static_cast<int>(row.perType[3]),
                             static_cast<int>(row.perType[4]), static_cast<int>(row.perType[5]));
        if (len >= size) {
            qvfs_Free(copy);
            return len;
        }
    }
    if (copy != nullptr) qvfs_Free(copy);
    return len + fsc_GetDebugInfo(buf + len, size - len);
}

}  // extern "C"
