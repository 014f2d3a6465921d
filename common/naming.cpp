// naming.cpp - disk device paths and numbers, the block-type tables, the disk
// characters of recording file names and the shared parameter.
//
// Everything here is a pure conversion except the parameter calls, which read
// and write one byte of the owner list segment without a lock (a byte store is
// atomic for every reader).
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "fsc.h"

namespace {

constexpr char kDevPathFormat[] = "%s%02d/part1";

// File type -> block type. Block types: 0 REC, 1 IMG, 2 BACK, 3 PIC, 4 FPD,
// 5 ITS. File types outside the table record into REC blocks.
constexpr int kFileTypeToBlkType[] = {0, 0, 2, 1, 2, 3, 4, 5};
// Block type -> file type (BACK blocks report file type 2, not 4).
constexpr int kBlkTypeToFileType[] = {0, 3, 2, 5, 6, 7};

// Length of a block's self-information area: 16 MiB for IMG, PIC, FPD and ITS
// blocks, 2 MiB for REC, BACK and anything else.
constexpr int kSelfInfoLarge = 0x1000000;
constexpr int kSelfInfoSmall = 0x200000;

bool online_param_known(int param) { return param == QVFS_PARAM_ONLINE_CHECK; }

}  // namespace

int bf_GetPath(uint32_t disk, char* buf) {
    if (disk >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_DISKNUM;
        return -1;
    }
    if (buf == nullptr) return -1;
    // At most 22 characters and the terminator: "/dev/scsi/host24/part1".
    std::sprintf(buf, kDevPathFormat, QVFS_DEV_PREFIX, static_cast<int>(disk));
    return 0;
}

int fsc_GetDiskNumByPath(const char* path) {
    if (path == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    const char* p = std::strstr(path, QVFS_DEV_PREFIX);
    if (p == nullptr) return -1;
    p += sizeof(QVFS_DEV_PREFIX) - 1;
    // The run of decimal digits after the prefix; none reads as disk 0. The
    // value is not range-checked here (callers refuse numbers above 24); an
    // absurdly long run saturates instead of overflowing.
    int n = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        const int digit = *p - '0';
        n = (n > (INT_MAX - digit) / 10) ? INT_MAX : n * 10 + digit;
    }
    return n;
}

int fsc_GetBlkType(int fileType) {
    if (fileType < 0 || fileType >= static_cast<int>(std::size(kFileTypeToBlkType))) return 0;
    return kFileTypeToBlkType[fileType];
}

int fsc_BlkType2FileType(int blkType) {
    if (blkType < 0 || blkType >= static_cast<int>(std::size(kBlkTypeToFileType))) return 0;
    return kBlkTypeToFileType[blkType];
}

int fsc_GetSelfInfoLen(int blkType) {
    switch (blkType) {
        case 1:
        case 3:
        case 4:
        case 5:
            return kSelfInfoLarge;
        default:
            return kSelfInfoSmall;
    }
}

uint32_t fsc_DiskAtoI(int c) {
    if (c >= '0' && c <= '9') return static_cast<uint32_t>(c - '0');
    if (c >= 'a' && c <= 'z') return static_cast<uint32_t>(c - 'a' + 10);
    if (c >= 'A' && c <= 'Z') return static_cast<uint32_t>(c - 'A' + 10);
    return 0;
}

uint8_t fsc_DiskItoA(uint32_t disk) {
    if (disk <= 9) return static_cast<uint8_t>('0' + disk);
    if (disk < QVFS_MAX_DISKS) return static_cast<uint8_t>('a' + (disk - 10));
    return '?';
}

// A name carries the pair (location, digit); a reader computes
// value(location) * 24 + value(digit). All 25 disks fit in one digit, so the
// location is always '0'.
uint8_t fsc_DiskToLocation(int /*disk*/) { return '0'; }

int fsc_SetParam(int param, int value) {
    if (g_stQvfsFileList == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (!online_param_known(param)) return -2;
    __atomic_store_n(&g_stQvfsFileList->param1, static_cast<uint8_t>(value & 0xFF), __ATOMIC_RELAXED);
    return 0;
}

int fsc_GetParam(int param, uint32_t* value) {
    if (g_stQvfsFileList == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (!online_param_known(param)) return -2;
    if (value == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    *value = __atomic_load_n(&g_stQvfsFileList->param1, __ATOMIC_RELAXED);
    return 0;
}
