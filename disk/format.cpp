// format.cpp - laying out an empty disk: header twice, both meta regions,
// and the zeroed head of every block (its first sector, or in mode 1 its
// whole self-info area).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "common/devio.h"
#include "common/platform.h"
#include "common/proc_lock.h"
#include "disk/df.h"

using namespace qvfs::disk;

namespace {

// Smallest size that holds one whole block: the data area starts at
// dataStart, and one block's worth at the end of the device never belongs to
// a block. A smaller size would format to a disk without a block.
constexpr uint64_t kMinFormatSize = kDataStart + 2ull * kBlockSize;  // 0xC1100000

// Writes the status map and all sixteen type chunks of one meta region.
// Returns the number of pieces that failed or were skipped offline.
int write_meta_region(TQvDiskRec& d, uint32_t region) {
    uint32_t ignored = 0;
    int failures = _df_WriteStatusMap(&d, region, &ignored) == -1 ? 1 : 0;
    for (uint32_t t = 0; t < kTypes; ++t) failures += _df_WriteTypeTables(&d, region, t);
    return failures;
}

// Fills the image as an empty disk of `size` bytes (size >= kMinFormatSize).
// mapIndex, stat and shmNo belong to the mount state and are kept.
void lay_out_image(TQvDiskShare& s, uint64_t size) {
    TQvDiskHead& h = s.head;
    std::memset(&h, 0, sizeof h);
    std::memcpy(h.magic, "QVFS", 5);
    h.ver = kDiskVersion;
    h.blockSize = kBlockSize;
    h.metaSize = kMetaSize;
    h.createTime = static_cast<int64_t>(time(nullptr));
    h.dataStart = uint64_t(h.blockSize) + kHeadPrimary + 2ull * h.metaSize;
    const uint64_t blocks = (size - h.dataStart - h.blockSize) / h.blockSize;
    h.tolblk = static_cast<uint32_t>(std::min<uint64_t>(blocks, kMaxBlocks));
    h.dataEnd = h.dataStart + uint64_t(h.tolblk) * h.blockSize;
    std::memset(s.current, 0xFF, sizeof s.current);
    std::memset(s.count, 0, sizeof s.count);
    std::memset(s.map, 0, sizeof s.map);
    s.mounted = 0;
}

}  // namespace

extern "C" {

// Formats the disk at path. The disk's lock is held throughout, except for
// 1 ms pauses in mode 1 once a wall-clock second has passed. A descriptor
// opened here is closed again; one the process had open stays open.
int df_DiskFormat(const char* path, uint32_t mode, uint64_t size) {
    if (path == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    const uint32_t index = static_cast<uint32_t>(fsc_GetDiskNumByPath(path));
    const uint64_t device = static_cast<uint64_t>(_df_QueryDevSize(path));
    const uint64_t layout = (size != 0 && size < device) ? size : device;
    if (index >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }

    TQvDiskRec& d = rec(index);
    qvfs::ProcLockGuard lock(d.lock);  // the disk's image and device
    if (d.index < 0) d.index = static_cast<int32_t>(index);
    bool openedHere = false;
    if (d.fd < 0) {
        d.fd = qvfs::plat::open_device(path, O_RDWR | O_LARGEFILE);
        if (d.fd < 0) {
            qvfs::raise_sys_error();
            return -1;
        }
        openedHere = true;
    }

    const int result = [&]() -> int {
        if (d.share == nullptr && attach_image(d, index) == nullptr) {
            errno = QVFS_ERR_FMT_NOSHARE;
            return -1;
        }
        // Refused before anything changes: a size that cannot hold one
        // whole block would describe blocks beyond the device.
        if (layout < kMinFormatSize) {
            errno = QVFS_ERR_FMT_TOOSMALL;
            return -1;
        }
        lay_out_image(*d.share, layout);
        qvfs::disk::index_invalidate(index);

        uint32_t primaryFailed = 0;
        if (_df_WriteDiskHead(&d, &primaryFailed) == -1) {
            qvfs::raise_sys_error();
            return -1;
        }
        // The region that goes with the header copy that was written comes
        // first; with the primary copy written, region 1 is written too and
        // one intact region is enough.
        bool written;
        if (primaryFailed) {
            written = write_meta_region(d, 1) == 0;
        } else {
            const int fail0 = write_meta_region(d, 0);
            const int fail1 = write_meta_region(d, 1);
            written = fail0 == 0 || fail1 == 0;
        }
        if (!written) {
            qvfs::raise_sys_error();
            return -1;
        }

        // Every block's head goes: the whole self-info area in mode 1, else
        // its first sector, which leaves a header that reads as a fresh
        // block, so that no name from before the format leads anywhere.
        // The lock is let go for 1 ms once a second so that other
        // processes can reach the disk's image.
        static const uint8_t kZeroSector[kBlockHeadSize] = {};
        time_t noted = time(nullptr);
        for (uint32_t b = 0; b < d.share->head.tolblk; ++b) {
            if (time(nullptr) > noted) {
                lock.unlock();
                usleep(1000);
                lock.lock();
                noted = time(nullptr);
            }
            if (mode == 1) {
                if (_df_ClearBlockHead(&d, static_cast<int32_t>(b), 0xFFFFFFFFu) != 0) return -1;
            } else if (put_piece(d.fd, block_addr(d.share->head, b), kZeroSector, kBlockHeadSize) != Put::kOk) {
                return -1;
            }
        }
        return 0;
    }();

    if (openedHere) {
        qvfs::plat::close_fd(d.fd);
        d.fd = -1;
    }
    return result;
}

}  // extern "C"
