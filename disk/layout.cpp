// layout.cpp - device primitives and the metadata writers of the disk layer.
//
// Every writer here is called with the disk's lock held and takes no lock
// itself. A metadata piece is written as: online test, one positioned write
// of the whole piece. A piece skipped because the device is offline leaves
// errno alone; a failed or short write leaves errno + 3000.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/devio.h"
#include "common/platform.h"
#include "disk/df.h"

using namespace qvfs::disk;

namespace qvfs::disk {

TQvDiskShare* attach_image(TQvDiskRec& d, uint32_t index) {
    auto* image = static_cast<TQvDiskShare*>(fsc_DfMalloc(owner_key(index), kImageSize));
    set_share(d, image);
    return image;
}

// The presence request is asked at most once per flush pass (the pass
// refreshes the answer kept in the disk's state); a transfer reads the
// answer. With no answer yet, or while tests have faults armed (an armed
// offline fault must act at once), the device itself is asked. A transfer
// that then fails on a device that went away in between fails as any
// failed transfer does.
bool device_online(int fd) {
    const int saved = errno;
    uint32_t check = 1;  // a failed read leaves the test on
    fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &check);
    bool online = true;
    if (check != 0) {
        const int disk = plat::disk_of(fd);
        TQvDiskState* st = disk < 0 ? nullptr : disk_state(uint32_t(disk));
        const uint32_t known = st == nullptr ? kPresenceUnknown : __atomic_load_n(&st->presence, __ATOMIC_RELAXED);
        if (known == kPresenceUnknown || plat::faults_armed()) {
            online = plat::device_present(fd);
            if (st != nullptr && known == kPresenceUnknown)
                __atomic_store_n(&st->presence, online ? kPresent : kGone, __ATOMIC_RELAXED);
        } else {
            online = known == kPresent;
        }
    }
    errno = saved;
    return online;
}

void refresh_presence(uint32_t disk, int fd) {
    TQvDiskState* st = disk_state(disk);
    if (st == nullptr) return;
    const int saved = errno;
    const bool present = plat::device_present(fd);
    errno = saved;
    __atomic_store_n(&st->presence, present ? kPresent : kGone, __ATOMIC_RELAXED);
    __atomic_store_n(&st->presenceMs, now_ms(), __ATOMIC_RELAXED);
}

int clear_head(int fd, uint64_t start, uint32_t length) {
    constexpr uint32_t kMaxClear = 0x1000000;
    constexpr uint32_t kPiece = 0x80000;
    const uint32_t len = (length >= 1 && length <= kMaxClear) ? length : kMaxClear;
    void* zero = qvfs_Malloc(kPiece);
    if (zero == nullptr) {
        errno = QVFS_ERR_NOMEM;
        return -1;
    }
    std::memset(zero, 0, kPiece);
    const uint32_t pieces = len / kPiece;
    for (uint32_t i = 0; i < pieces; ++i) {
        if (put_piece(fd, start + uint64_t(i) * kPiece, zero, kPiece) != Put::kOk) {
            qvfs_Free(zero);
            return -1;
        }
        if (i > 0 && i % 4 == 0 && static_cast<int32_t>(length) > 0) usleep(1000);
    }
    qvfs_Free(zero);
    return 0;
}

// A transfer that succeeds leaves errno as it was: a failure earlier in the
// same operation stays visible to its caller.
Put put_piece(int fd, uint64_t off, const void* buf, uint32_t len) {
    const int saved = errno;
    if (!device_online(fd)) return Put::kOffline;
    if (!dev_write_at(fd, off, buf, len)) {
        raise_sys_error();
        return Put::kFailed;
    }
    errno = saved;
    return Put::kOk;
}

bool get_piece(int fd, uint64_t off, void* buf, uint32_t len) {
    const int saved = errno;
    if (dev_read_at(fd, off, buf, len)) {
        errno = saved;
        return true;
    }
    raise_sys_error();
    return false;
}

Put put_current_chunk(const TQvDiskRec& d, uint32_t region, uint32_t t) {
    return put_piece(d.fd, current_chunk(region, t), d.share->current[t], kChunk);
}

Put put_count_chunk(const TQvDiskRec& d, uint32_t region, uint32_t t) {
    return put_piece(d.fd, count_chunk(region, t), d.share->count[t], kChunk);
}

BlockHeadView parse_block_head(const uint8_t* s) {
    BlockHeadView v{};
    std::memcpy(&v.len, s + 0, 4);
    std::memcpy(&v.startTime, s + 8, 8);
    std::memcpy(&v.endTime, s + 16, 8);
    std::memcpy(&v.chn, s + 24, 4);
    std::memcpy(&v.dataType, s + 28, 4);
    std::memcpy(&v.cnt, s + 44, 4);
    std::memcpy(&v.next, s + 56, 8);
    std::memcpy(&v.slice, s + 64, 4);
    return v;
}

}  // namespace qvfs::disk

extern "C" {

int64_t _df_QueryDevSize(const char* path) {
    if (path == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    const int64_t size = qvfs::plat::device_size(path);
    if (size < 0) {
        qvfs::raise_sys_error();
        return -1;
    }
    return size;
}

// The presence test must not disturb errno: callers test it between a
// failing transfer and the report of that failure.
int df_IsDiskOnline(int fd) {
    const int saved = errno;
    uint32_t check = 1;  // a failed read leaves the test on
    fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &check);
    int online = 1;
    if (check != 0) online = qvfs::plat::device_present(fd) ? 1 : 0;
    errno = saved;
    return online;
}

int df_SetOnlineCheck(uint32_t on) {
    if (on <= 1) fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, static_cast<int>(on));
    return 0;
}

namespace {

// Writes one piece of the image to its first and then its second place on
// the device. 0 when either place took it (the first place's online test
// having passed); *firstFailed says whether the first one did not. -1 when
// the device was offline at the first test or neither write succeeded.
int put_twice(TQvDiskRec* disk, uint64_t first, uint64_t second, const void* data, uint32_t len,
              uint32_t* firstFailed) {
    if (disk->fd < 0) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    int result;
    switch (put_piece(disk->fd, first, data, len)) {
        case Put::kOffline:
            return -1;
        case Put::kOk:
            result = 0;
            if (firstFailed) *firstFailed = 0;
            break;
        default:
            result = -1;
            if (firstFailed) *firstFailed = 1;
            break;
    }
    if (put_piece(disk->fd, second, data, len) == Put::kOk) return 0;
    return result;
}

}  // namespace

// Writes the image's header to the primary place, then to the backup place.
// 0 when either copy was written (the primary one's online test passed);
// *primaryFailed tells which. -1 when the device was offline at the first
// test or neither write succeeded.
int _df_WriteDiskHead(TQvDiskRec* disk, uint32_t* primaryFailed) {
    if (disk == nullptr || disk->share == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    return put_twice(disk, kHeadPrimary, kHeadBackup, &disk->share->head, kHeadSize, primaryFailed);
}

// Writes the status map to the first and then the second location of meta
// region `region`; *mapIndexOut says whether the first location took it.
int _df_WriteStatusMap(TQvDiskRec* disk, uint32_t region, uint32_t* mapIndexOut) {
    if (disk == nullptr || disk->share == nullptr || region > 1) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    return put_twice(disk, map_first(region), map_second(region), disk->share->map, kMapSize, mapIndexOut);
}

int _df_WriteTypeTables(TQvDiskRec* disk, uint32_t region, uint32_t type) {
    if (disk == nullptr || disk->share == nullptr || region > 1 || type >= kTypes) {
        errno = QVFS_ERR_BADARG;
        return 2;
    }
    if (disk->fd < 0) {
        errno = QVFS_ERR_BADHANDLE;
        return 2;
    }
    int failures = 0;
    if (put_current_chunk(*disk, region, type) != Put::kOk) ++failures;
    if (put_count_chunk(*disk, region, type) != Put::kOk) ++failures;
    return failures;
}

// Zeroes the head of a block in whole 512 KiB pieces. Lengths 0 and above
// 16 MiB mean 16 MiB; a remainder below 512 KiB is not written. A positive
// length (as signed) pauses 1 ms after every fourth piece so that recording
// traffic on the device is not starved.
int _df_ClearBlockHead(TQvDiskRec* disk, int32_t block, uint32_t length) {
    if (disk == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (block < 0) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    if (disk->share == nullptr) return -1;
    return qvfs::disk::clear_head(disk->fd, block_addr(disk->share->head, static_cast<uint32_t>(block)), length);
}

}  // extern "C"
