// mount.cpp - the per-process disk table, mount, unmount, the mount-time
// loader with its version upgrade, and the small readiness queries.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/devio.h"
#include "common/platform.h"
#include "common/proc_lock.h"
#include "disk/df.h"

using namespace qvfs::disk;

namespace {

constexpr TQvDiskRec kUnsetDisk{-1, -1, -1, 0, nullptr};

// The header read as a zero-terminated string equals "QVFS": the four
// letters and a zero byte. Never looks past byte 4.
bool is_magic(const void* head) { return std::memcmp(head, "QVFS", 5) == 0; }

// Whether a header describes a disk of this format that the device holds
// whole: the fixed layout values, at most 131072 blocks whose area ends at
// dataEnd, and a device at least that long. Everything the layers compute
// an address from comes from these fields, so a header that breaks any of
// them is never used (its magic was tested before). False sets errno 1014,
// or 3000 + errno when the device size cannot be read.
bool head_fits(const TQvDiskHead& h, int fd) {
    const int64_t device = qvfs::plat::device_size_of(fd);
    if (device < 0) {
        qvfs::raise_sys_error();
        return false;
    }
    const bool layout = h.ver <= kDiskVersion && h.metaSize == kMetaSize && h.blockSize == kBlockSize &&
                        h.dataStart == kDataStart && h.tolblk <= kMaxBlocks &&
                        h.dataEnd == h.dataStart + uint64_t(h.tolblk) * h.blockSize;
    if (!layout || h.dataEnd > static_cast<uint64_t>(device)) {
        errno = QVFS_ERR_DAMAGED;
        return false;
    }
    return true;
}

// Brings the loaded status map and tables inside what the header allows, so
// that no damaged byte leads the allocator or a query outside the disk:
// a status other than the four defined ones makes the block bad (its content
// is unknown; it is neither handed out nor given back), statuses beyond the
// block count are cleared, a current block outside the disk becomes none and
// a block count above the disk's blocks is cut to them. Only the image
// changes; the meta regions take it with the next write of each piece.
void sanitise_tables(TQvDiskShare& s) {
    const uint32_t blocks = map_blocks(s.head);
    for (uint32_t i = 0; i < blocks; ++i) {
        const uint8_t v = s.map[i];
        if (v != QV_BLK_FREE && v != QV_BLK_USED && !is_bad(v)) s.map[i] = QV_BLK_BAD;
    }
    std::memset(s.map + blocks, 0, kMaxBlocks - blocks);
    for (uint32_t t = 0; t < kTypes; ++t) {
        for (uint32_t c = 0; c < kChannels; ++c) {
            if (s.current[t][c] < -1 || s.current[t][c] >= int64_t(blocks)) s.current[t][c] = -1;
            if (s.count[t][c] > blocks) s.count[t][c] = blocks;
        }
    }
}

// Reads one header copy into buf. False leaves errno + 3000.
bool read_head(int fd, void* buf) {
    return get_piece(fd, kHeadPrimary, buf, kHeadSize) || get_piece(fd, kHeadBackup, buf, kHeadSize);
}

// Writes the sixteen block-count chunks of the image to one meta region.
// Returns the number of chunks skipped offline or failed.
int write_count_chunks(const TQvDiskRec& d, uint32_t region) {
    int failures = 0;
    for (uint32_t t = 0; t < kTypes; ++t)
        if (put_count_chunk(d, region, t) != Put::kOk) ++failures;
    return failures;
}

// Reads one 4 KiB table chunk. Only a failing read counts; a short one is
// accepted (the chunk keeps what it had beyond the bytes read).
bool read_chunk(int fd, uint64_t off, void* chunk) {
    if (qvfs::plat::seek(fd, off) < 0) {
        qvfs::raise_sys_error();
        return false;
    }
    if (TCT_Read(fd, chunk, kChunk, 0) < 0) {
        qvfs::raise_sys_error();
        return false;
    }
    return true;
}

// The first-mount path of the loader: header, status map, upgrade of an old
// version, tables. Caller holds the disk lock; d.fd is open.
int load_image(TQvDiskRec& d) {
    TQvDiskShare& s = *d.share;
    uint32_t region = 0;
    if (!get_piece(d.fd, kHeadPrimary, &s.head, kHeadSize)) {
        if (!get_piece(d.fd, kHeadBackup, &s.head, kHeadSize)) return -1;
        region = 1;
    }
    // The header decides how much of the image is trusted: the magic says
    // the partition is ours, the layout values and the device size that its
    // addresses stay inside the disk.
    if (!is_magic(&s.head)) {
        errno = QVFS_ERR_NOTFORMATTED;
        return -1;
    }
    if (!head_fits(s.head, d.fd)) return -1;

    int32_t mapIndex = 0;
    if (!get_piece(d.fd, map_first(region), s.map, kMapSize)) {
        if (!get_piece(d.fd, map_second(region), s.map, kMapSize)) return -1;
        mapIndex = 1;
    }

    // Versions 0 and 1 kept no block-count table: rebuild it from the block
    // headers and write it to both regions. The rebuilt table then stays in
    // the image even when only the other region took it, so the chunks are
    // not read back below.
    bool upgraded = false;
    if (s.head.ver <= 1) {
        std::memset(s.count, 0, sizeof s.count);
        if (_df_GetBlockNumOfDataType(&d) != 0) return -1;
        const int fail0 = write_count_chunks(d, 0);
        const int fail1 = write_count_chunks(d, 1);
        if (fail0 > 0 && fail1 > 0) return -1;
        s.head.ver = kDiskVersion;
        uint32_t primaryFailed = 0;
        if (_df_WriteDiskHead(&d, &primaryFailed) == -1) return -1;
        upgraded = true;
    }

    for (uint32_t t = 0; t < kTypes; ++t) {
        if (!read_chunk(d.fd, current_chunk(region, t), s.current[t])) return -1;
        if (!upgraded && !read_chunk(d.fd, count_chunk(region, t), s.count[t])) return -1;
    }
    sanitise_tables(s);
    s.mapIndex = mapIndex;
    return 0;
}

// Process that last ran df_Init; a forked child runs it afresh.
std::atomic<pid_t> g_initPid{0};

}  // namespace

extern "C" {

QVFS_API TQvDiskRec g_astQvDisk[QVFS_MAX_DISKS] = {
    kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk,
    kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk,
    kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk,
    kUnsetDisk, kUnsetDisk, kUnsetDisk, kUnsetDisk};
QVFS_API int g_tTimerMutex = -1;
QVFS_API uint64_t g_ullUnitSize = 0;

// Once per process: a second call in the same process changes nothing
// (the flush thread is reading the table), while a forked child, which
// inherits the table but not the thread, starts over, and so does a process
// whose locks were removed under it.
int df_Init(void) {
    if (g_initPid.load() == getpid() && qvfs::lock_exists(g_tTimerMutex)) return 0;
    int failures = 0;
    for (uint32_t i = 0; i < QVFS_MAX_DISKS; ++i) {
        TQvDiskRec& d = rec(i);
        d.fd = -1;
        d.index = -1;
        d.syncMark = 0;
        set_share(d, nullptr);
        d.lock = fsc_ProcLockInit(fsc_GetShmKey(2048 + static_cast<int>(i)));
        if (d.lock < 0) ++failures;
    }
    char path[64] = {};
    std::snprintf(path, sizeof path, "%s/qvfslayer", QVFS_KEY_DIR);
    g_tTimerMutex = fsc_ProcLockInit(fsc_GetShareKey(path, 100));
    start_flush_thread();
    if (failures) return -1;
    g_initPid.store(getpid());
    return 0;
}

int df_Uninit(void) { return 0; }

// Loads the disk's image at mount. The first process to mount reads the
// header, status map and tables into the shared image; later ones only
// check that the device still carries a header. Caller holds the disk lock.
// On failure the process forgets its attachment (share null).
int _df_LoadDisk(TQvDiskRec* disk) {
    if (disk == nullptr || disk->index < 0 || disk->index >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = *disk;
    if (d.share == nullptr && attach_image(d, static_cast<uint32_t>(d.index)) == nullptr) return -1;

    const int result = [&]() -> int {
        if (d.fd < 0) {
            errno = QVFS_ERR_BADHANDLE;
            return -1;
        }
        if (d.share->mounted == 0) return load_image(d);
        char head[kHeadSize] = {};
        if (!read_head(d.fd, head)) return -1;
        if (!is_magic(head)) {
            errno = QVFS_ERR_NOTFORMATTED;
            return -1;
        }
        // The image was checked by the process that loaded it; this
        // process's device must still hold the disk it describes.
        return head_fits(d.share->head, d.fd) ? 0 : -1;
    }();
    if (result != 0) set_share(d, nullptr);
    return result;
}

// Rebuilds the block-count table of the image from the headers of the
// blocks in use. Caller holds the disk lock and has zeroed the table.
int _df_GetBlockNumOfDataType(TQvDiskRec* disk) {
    if (disk == nullptr || disk->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    auto* sector = static_cast<uint8_t*>(qvfs_Malloc(kBlockHeadSize));
    if (sector == nullptr) {
        errno = QVFS_ERR_NOMEM;
        return -1;
    }
    TQvDiskShare& s = *disk->share;
    const uint32_t blocks = map_blocks(s.head);
    for (uint32_t i = 0; i < blocks; ++i) {
        if (s.map[i] != QV_BLK_USED) continue;
        if (!get_piece(disk->fd, block_addr(s.head, i), sector, kBlockHeadSize)) {
            qvfs_Free(sector);
            return -1;
        }
        const BlockHeadView h = parse_block_head(sector);
        if (h.chn < kChannels && h.dataType < kTypes) ++s.count[h.dataType][h.chn];
    }
    qvfs_Free(sector);
    return 0;
}

int df_DiskMount(const char* path) {
    TQvDiskRec* disk = rec_of_path(path);
    if (disk == nullptr) return -1;
    TQvDiskRec& d = *disk;
    qvfs::ProcLockGuard lock(d.lock);  // the disk's image and this record
    if (d.index < 0) d.index = static_cast<int32_t>(disk - g_astQvDisk);
    bool openedHere = false;
    if (d.fd < 0) {
        d.fd = qvfs::plat::open_device(path, O_RDWR | O_LARGEFILE);
        if (d.fd < 0) {
            qvfs::raise_sys_error();
            return -1;
        }
        openedHere = true;
    }
    if (_df_LoadDisk(&d) != 0) {
        const int err = errno;
        qvfs::plat::close_fd(d.fd);
        d.fd = -1;
        errno = err;
        return -1;
    }
    // Taken from a header that passed head_fits: every disk has the one
    // block size of the format, so no disk changes what another one does.
    __atomic_store_n(&g_ullUnitSize, uint64_t(d.share->head.blockSize), __ATOMIC_RELAXED);
    // The index is built with the image; a mount that finds it current
    // only attaches. Without it the disk still works; its queries retry.
    qvfs::disk::index_mount(d, static_cast<uint32_t>(d.index), d.share->mounted == 0);
    // Only a mount that opened the device counts: a process mounts a disk
    // once however often it calls this.
    if (openedHere) ++d.share->mounted;
    d.share->stat = 0;
    // The device may be another one than at the last mount: its presence
    // is asked afresh.
    if (TQvDiskState* st = qvfs::disk_state(static_cast<uint32_t>(d.index)))
        __atomic_store_n(&st->presence, kPresenceUnknown, __ATOMIC_RELAXED);
    return 0;
}

int df_DiskUnmout(const char* path, uint32_t mode) {
    TQvDiskRec* disk = rec_of_path(path);
    if (disk == nullptr) return -1;
    TQvDiskRec& d = *disk;
    // What was written is made durable, entries included, before the
    // descriptor goes; g_tTimerMutex keeps a flush pass off the descriptor
    // until it is closed.
    qvfs::ProcLockGuard timer(g_tTimerMutex);
    flush_disk_now_locked(static_cast<uint32_t>(disk - g_astQvDisk));
    qvfs::ProcLockGuard lock(d.lock);
    if (d.share != nullptr && d.fd >= 0) {
        qvfs::plat::close_fd(d.fd);
        d.fd = -1;
        TQvDiskShare& s = *d.share;
        if (mode == 1) {
            s.mounted = 0;
            s.stat = 1;
        } else if (--s.mounted <= 0) {
            s.mounted = 0;
            s.stat = 1;
        }
    }
    d.index = -1;
    return 0;
}

int df_DiskStatfs(const char* path, TQvStatfs* out) {
    TQvDiskRec* disk = out == nullptr ? nullptr : rec_of_path(path);
    if (disk == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = *disk;
    qvfs::ProcLockGuard lock(d.lock);
    if (!is_ready(d)) return -1;
    const TQvDiskShare& s = *d.share;
    uint64_t freeBlocks = 0;
    uint32_t bad = 0;
    const uint32_t blocks = map_blocks(s.head);
    for (uint32_t i = 0; i < blocks; ++i) {
        if (s.map[i] == QV_BLK_FREE) ++freeBlocks;
        else if (is_bad(s.map[i])) ++bad;
    }
    const uint64_t sectorsPerBlock = s.head.blockSize / 512u;
    out->f_type = QVFS_STATFS_MAGIC;
    out->f_bsize = 512;
    out->f_blocks = sectorsPerBlock * s.head.tolblk;
    out->f_bfree = sectorsPerBlock * freeBlocks;
    out->f_bavail = out->f_bfree;
    out->f_spare[0] = bad;
    return 0;
}

int df_IsDiskReady(uint32_t disk) {
    if (disk >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = rec(disk);
    qvfs::ProcLockGuard lock(d.lock);  // a mount may be setting share
    if (d.share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    return is_ready(d) ? 0 : -1;
}

uint32_t df_GetDiskVersion(const char* path) {
    TQvDiskRec* disk = rec_of_path(path);
    if (disk == nullptr || disk->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return 1;
    }
    TQvDiskRec& d = *disk;
    qvfs::ProcLockGuard lock(d.lock);
    return d.share->head.ver;
}

uint64_t df_GetDiskUnitSize(void) { return __atomic_load_n(&g_ullUnitSize, __ATOMIC_RELAXED); }

}  // extern "C"
