// df_format.h - on-disk layout of a disk and its shared image.
//
// A formatted partition (byte offsets from the start of the partition):
//
//   offset      length    content
//   0x0         0x100000  not used
//   0x100000    512       header TQvDiskHead, primary copy
//   0x8A0000    0x10000   meta region 0: block-count table (16 chunks of 4 KiB)
//   0x8B0000    0x10000   meta region 0: current-block table
//   0x8C0000    0x20000   meta region 0: status map, second location
//   0x8E0000    0x20000   meta region 0: status map, first location
//   0x900000    512       header, backup copy
//   0x10A0000 .. 0x1100000 meta region 1, laid out as region 0
//   dataStart + i * blockSize   block i
//
// Meta region r has base R = (r + 1) * 0x800000. Table chunks are stored one
// per data type, in descending order: the current-block chunk of type t at
// R + 0xC0000 - (t + 1) * 0x1000, the block-count chunk at
// R + 0xB0000 - (t + 1) * 0x1000. All integers are little-endian; the shared
// image holds the same bytes, so chunks are written straight from it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "qvfs_types.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "disk and shared-memory records are little-endian; this target is not");

namespace qvfs::disk {

inline constexpr uint64_t kHeadPrimary = 0x100000;
inline constexpr uint64_t kHeadBackup = 0x900000;
inline constexpr uint32_t kMetaSize = 0x800000;
inline constexpr uint32_t kBlockSize = 0x40000000;
inline constexpr uint64_t kDataStart = uint64_t(kBlockSize) + 0x100000 + 2ull * kMetaSize;  // 0x41100000
inline constexpr uint32_t kMaxBlocks = 131072;
inline constexpr uint32_t kTypes = 16;
inline constexpr uint32_t kChannels = 1024;
inline constexpr uint32_t kChunk = 0x1000;
inline constexpr uint32_t kMapSize = 0x20000;
inline constexpr uint32_t kDiskVersion = 2;

inline constexpr uint64_t meta_base(uint32_t region) { return uint64_t(region + 1) * kMetaSize; }
inline constexpr uint64_t map_first(uint32_t region) { return meta_base(region) + 0xE0000; }
inline constexpr uint64_t map_second(uint32_t region) { return meta_base(region) + 0xC0000; }
inline constexpr uint64_t current_chunk(uint32_t region, uint32_t t) {
    return meta_base(region) + 0xC0000 - uint64_t(t + 1) * kChunk;
}
inline constexpr uint64_t count_chunk(uint32_t region, uint32_t t) {
    return meta_base(region) + 0xB0000 - uint64_t(t + 1) * kChunk;
}
static_assert(current_chunk(0, 0) == 0x8BF000 && count_chunk(0, 15) == 0x8A0000);
static_assert(map_first(1) == 0x10E0000 && map_second(1) == 0x10C0000);
static_assert(kDataStart == 0x41100000);

// Status map values.
inline constexpr uint8_t QV_BLK_FREE = 0;
inline constexpr uint8_t QV_BLK_USED = 1;
inline constexpr uint8_t QV_BLK_BADUNIT = 0xFE;
inline constexpr uint8_t QV_BLK_BAD = 0xFF;
inline constexpr bool is_bad(uint8_t status) { return uint8_t(status + 2) <= 1; }

}  // namespace qvfs::disk

// Disk header, 512 bytes, kept twice on the disk and first in the image.
//
//   off size field
//     0    5 magic      "QVFS" and a zero byte
//     8    4 ver        format version (2; 0 and 1 are upgraded at mount)
//    12    4 metaSize   0x800000
//    16    4 blockSize  0x40000000
//    24    8 createTime seconds since the epoch, signed
//    48    8 dataStart  0x41100000
//    56    8 dataEnd    dataStart + tolblk * blockSize
//    64    4 tolblk     number of blocks, at most 131072
struct TQvDiskHead {
    char magic[5];
    uint8_t reserved0[3];
    uint32_t ver;
    uint32_t metaSize;
    uint32_t blockSize;
    uint32_t reserved1;
    int64_t createTime;
    uint8_t reserved2[16];
    uint64_t dataStart;
    uint64_t dataEnd;
    uint32_t tolblk;
    uint8_t reserved3[444];
};
static_assert(sizeof(TQvDiskHead) == 512 && sizeof(TQvDiskHead::magic) == 5);
static_assert(offsetof(TQvDiskHead, ver) == 8);
static_assert(offsetof(TQvDiskHead, metaSize) == 12);
static_assert(offsetof(TQvDiskHead, blockSize) == 16);
static_assert(offsetof(TQvDiskHead, createTime) == 24);
static_assert(offsetof(TQvDiskHead, dataStart) == 48);
static_assert(offsetof(TQvDiskHead, dataEnd) == 56);
static_assert(offsetof(TQvDiskHead, tolblk) == 64);

// Shared disk image, 262672 bytes, one System V segment per disk.
//
//   off      size     content
//   0x00000  512      header
//   0x00200  0x20000  status map
//   0x20200  0x10000  current-block table, chunk t at 0x20200 + t * 0x1000
//   0x30200  0x10000  block-count table, chunk t at 0x30200 + t * 0x1000
//   0x40200  4        mapIndex
//   0x40204  4        stat      1 not mounted, 0 mounted
//   0x40208  4        mounted   processes that have the disk mounted
//   0x4020C  4        shmNo     2048 + disk
struct TQvDiskShare {
    TQvDiskHead head;
    uint8_t map[qvfs::disk::kMaxBlocks];
    int32_t current[qvfs::disk::kTypes][qvfs::disk::kChannels];
    uint32_t count[qvfs::disk::kTypes][qvfs::disk::kChannels];
    int32_t mapIndex;
    int32_t stat;
    int32_t mounted;
    int32_t shmNo;
};
static_assert(sizeof(TQvDiskShare) == 262672);
static_assert(offsetof(TQvDiskShare, map) == 0x200);
static_assert(offsetof(TQvDiskShare, current) == 0x20200);
static_assert(offsetof(TQvDiskShare, count) == 0x30200);
static_assert(offsetof(TQvDiskShare, mapIndex) == 0x40200);
static_assert(offsetof(TQvDiskShare, stat) == 0x40204);
static_assert(offsetof(TQvDiskShare, mounted) == 0x40208);
static_assert(offsetof(TQvDiskShare, shmNo) == 0x4020C);
static_assert(offsetof(TQvDiskShare, mapIndex) == 262656);

// Per-process disk record, one per disk index in g_astQvDisk.
struct TQvDiskRec {
    int32_t lock;        // the disk's inter-process lock
    int32_t fd;          // this process's descriptor of the device, -1 closed
    int32_t index;       // disk index, -1 unset
    int32_t syncMark;    // pending flush mark for the flush thread
    TQvDiskShare* share; // this process's attachment of the image, or null
};
