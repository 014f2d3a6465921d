// bf_format.h - the front of a block on disk, the shared block-file record
// and the per-process block handle.
//
// A block (offsets from the block's start, the address df_GetBlkAddr gives):
//
//   range              content
//   0 .. 511           block header TQvBlkInfo
//   512 .. Len - 1     slice directory: the entry of slice k (k >= 1) at k * 512
//   Len .. unit - 1    data area, handed out in multiples of 4 KiB from `next`
//
// Len is the self-info length of the block's type (fsc_GetSelfInfoLen):
// 16 MiB (slices 1..32767) for types 1, 3, 4, 5; 2 MiB (slices 1..4095) for
// the others. All integers are little-endian, on disk and in shared memory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fsc.h"
#include "qvfs_types.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "block headers and slice entries are little-endian; this target is not");

namespace qvfs::bf {

inline constexpr uint32_t kSector = 512;
// Largest self-info area a header may claim (16 MiB).
inline constexpr uint32_t kMaxSelfInfo = 0x1000000;
// Value of the header's `addr` once the block received its first file.
inline constexpr uint64_t kAddrMark = 0x200000;
// Zero points of the biased counters: a counter reads "at least one such
// file" when, taken as a signed 32-bit value, it is -65535 or more.
inline constexpr uint32_t kLockZero = 0xFFFF0000u;
inline constexpr uint64_t kRecTypeZero = 0xFFFFFFFFFFFF0000ull;
// Data space is handed out in these steps; `next` is always a multiple.
inline constexpr uint64_t kSpaceAlign = 0x1000;
// A write that ends within this distance of the block's end marks the block
// nearly full (errNo 28), so that the file layer moves on to a new block.
inline constexpr uint64_t kNearFull = 0x400000;
// Per-process block table.
inline constexpr uint32_t kBlkTableSize = 1024;
// The semaphore of a block-file record has the record's share key plus this.
inline constexpr int kRecordLockKeyOffset = 0x10000;
// Magic of a live slice entry.
inline constexpr char kSliceMagic[4] = {'Q', 'V', 'N', 'D'};

// Block listing: 32 chunks of 512 KiB cover the largest self-info area.
inline constexpr uint32_t kScanChunk = 0x80000;
inline constexpr uint32_t kScanChunks = 32;
inline constexpr uint32_t kScanSectors = kScanChunk / kSector;  // 1024

// Outcome of the last transfer on a block handle (TQvBlkRec::errNo); a
// transfer that failed on the caller's memory leaves 3000 + EFAULT/EINVAL.
inline constexpr int kXferOk = 0;
inline constexpr int kXferIoError = 5;     // disk not ready / offline, transfer failed
inline constexpr int kXferNearFull = 28;   // write ended in the last 4 MiB

// Owner key of a block's shared record: disk << 40 | block << 16 | 0xFFFF,
// the block sign-extended first, so that every process finds the same record.
inline constexpr uint64_t block_owner_key(uint32_t disk, int32_t block) {
    return (uint64_t(disk) << 40) | (uint64_t(int64_t(block)) << 16) | 0xFFFFu;
}

}  // namespace qvfs::bf

// Block header, 512 bytes at the block's start; its copy in shared memory is
// the master while the block is loaded and is written back whole.
//
//   off size field      meaning
//     0    4 Len        self-info length (header + directory); 0 = never used
//     4    4 flg        1 once the block received its first file
//     8    8 startTime  start time of the block's first file, seconds
//    16    8 endTime    largest endTime synced from any entry
//    24    4 chn        channel of the most recently created file
//    28    4 dataType   block type of the most recently created file
//    32    8 recType    live files with record type not 1/2, biased (zero 0xFFFFFFFFFFFF0000)
//    40    4 lock       locked files, biased (zero 0xFFFF0000)
//    44    4 cnt        live files
//    48    8 addr       0x200000 once used (shown by the printer only)
//    56    8 next       block offset where the next file's data begins (4 KiB multiple)
//    64    4 slice      highest slice number handed out
//    68  444 reserved   zero
struct TQvBlkInfo {
    uint32_t Len;
    uint32_t flg;
    uint64_t startTime;
    uint64_t endTime;
    uint32_t chn;
    uint32_t dataType;
    uint64_t recType;
    uint32_t lock;
    uint32_t cnt;
    uint64_t addr;
    uint64_t next;
    uint32_t slice;
    uint8_t reserved[444];
};
static_assert(sizeof(TQvBlkInfo) == 512);
static_assert(offsetof(TQvBlkInfo, Len) == 0);
static_assert(offsetof(TQvBlkInfo, flg) == 4);
static_assert(offsetof(TQvBlkInfo, startTime) == 8);
static_assert(offsetof(TQvBlkInfo, endTime) == 16);
static_assert(offsetof(TQvBlkInfo, chn) == 24);
static_assert(offsetof(TQvBlkInfo, dataType) == 28);
static_assert(offsetof(TQvBlkInfo, recType) == 32);
static_assert(offsetof(TQvBlkInfo, lock) == 40);
static_assert(offsetof(TQvBlkInfo, cnt) == 44);
static_assert(offsetof(TQvBlkInfo, addr) == 48);
static_assert(offsetof(TQvBlkInfo, next) == 56);
static_assert(offsetof(TQvBlkInfo, slice) == 64);
static_assert(offsetof(TQvBlkInfo, reserved) == 68);

// Slice entry, 512 bytes at block offset sliceID * 512; one per file.
// A deleted entry is zero but for sliceID. Region offsets count from the
// block's start; [x, y) ranges, 0 = none.
//
//   off size field          meaning
//     0    8 sliceID        the entry's own slice number
//     8    4 magic          "QVND" when live, zero when free or deleted
//    12    4 verify         check code: four upper-case hex digits, no terminator
//    16    8 ext            extension without the dot, NUL-terminated (byte 23 is 0)
//    24    4 chn            channel
//    28    4 lock           0 normal, 1 locked, 2 backup file
//    32    8 startTime      seconds since the epoch
//    40    8 endTime        time of the last write
//    48    8 recType        record type chosen by the application
//    56    8 resStart       reserved region (file type 1) begin
//    64    8 resEnd         reserved region end
//    72    8 preStart       pre-record ring begin (inside the reserved region)
//    80    8 preEnd         pre-record ring end
//    88    8 dataStart      data region begin
//    96    8 dataEnd        data region end
//   104   32 usrParam       application parameters, stored unchanged
//   136   16 preName        previous file's name in the 16-byte form, or zero
//   152    4 videoAbstract  stored unchanged
//   156  356 userData       "UDMS", records, "UDME" once used; zero before
struct TQvBlkSliceInfo {
    uint64_t sliceID;
    char magic[4];
    char verify[4];
    char ext[8];
    uint32_t chn;
    uint32_t lock;
    uint64_t startTime;
    uint64_t endTime;
    uint64_t recType;
    uint64_t resStart;
    uint64_t resEnd;
    uint64_t preStart;
    uint64_t preEnd;
    uint64_t dataStart;
    uint64_t dataEnd;
    uint8_t usrParam[32];
    uint8_t preName[16];
    uint32_t videoAbstract;
    uint8_t userData[356];
};
static_assert(sizeof(TQvBlkSliceInfo) == 512);
static_assert(offsetof(TQvBlkSliceInfo, sliceID) == 0);
static_assert(offsetof(TQvBlkSliceInfo, magic) == 8);
static_assert(offsetof(TQvBlkSliceInfo, verify) == 12);
static_assert(offsetof(TQvBlkSliceInfo, ext) == 16);
static_assert(offsetof(TQvBlkSliceInfo, chn) == 24);
static_assert(offsetof(TQvBlkSliceInfo, lock) == 28);
static_assert(offsetof(TQvBlkSliceInfo, startTime) == 32);
static_assert(offsetof(TQvBlkSliceInfo, endTime) == 40);
static_assert(offsetof(TQvBlkSliceInfo, recType) == 48);
static_assert(offsetof(TQvBlkSliceInfo, resStart) == 56);
static_assert(offsetof(TQvBlkSliceInfo, resEnd) == 64);
static_assert(offsetof(TQvBlkSliceInfo, preStart) == 72);
static_assert(offsetof(TQvBlkSliceInfo, preEnd) == 80);
static_assert(offsetof(TQvBlkSliceInfo, dataStart) == 88);
static_assert(offsetof(TQvBlkSliceInfo, dataEnd) == 96);
static_assert(offsetof(TQvBlkSliceInfo, usrParam) == 104);
static_assert(offsetof(TQvBlkSliceInfo, preName) == 136);
static_assert(offsetof(TQvBlkSliceInfo, videoAbstract) == 152);
static_assert(offsetof(TQvBlkSliceInfo, userData) == 156);

// Block-file record, 544 bytes, shared by every process that has the block
// loaded (owner slots 1024..2047, see fsc_BfMalloc). The header copy and
// unlinkPending change under the record's lock; shrRef under g_tBlkFileMutex.
//
//   off size field          meaning
//     0  512 header         the block header (master copy while loaded)
//   512    4 diskId         disk number 0..24
//   516    4 blkId          block number within the disk
//   520    4 shrRef         references held by all processes together
//   524    4 reserved       zero
//   528    8 blkAddr        byte address of the block on the device
//   536    4 shareIndex     1024 + owner slot, written by fsc_BfMalloc
//   540    4 unlinkPending  1: give the block back at the last drop
struct TQvBlkShare {
    TQvBlkInfo header;
    uint32_t diskId;
    uint32_t blkId;
    int32_t shrRef;
    uint32_t reserved;
    uint64_t blkAddr;
    uint32_t shareIndex;
    uint32_t unlinkPending;
};
static_assert(sizeof(TQvBlkShare) == 544);
static_assert(sizeof(TQvBlkShare) == QVFS_BLKFILE_REC_SIZE, "the pool allocates records of this size");
static_assert(offsetof(TQvBlkShare, header) == 0);
static_assert(offsetof(TQvBlkShare, diskId) == 512);
static_assert(offsetof(TQvBlkShare, blkId) == 516);
static_assert(offsetof(TQvBlkShare, shrRef) == 520);
static_assert(offsetof(TQvBlkShare, reserved) == 524);
static_assert(offsetof(TQvBlkShare, blkAddr) == 528);
static_assert(offsetof(TQvBlkShare, shareIndex) == 536);
static_assert(offsetof(TQvBlkShare, unlinkPending) == 540);
static_assert(sizeof(TQvBlkShare) % alignof(TQvBlkShare) == 0 && 0x51000 % alignof(TQvBlkShare) == 0,
              "the pool packs records back to back from 0x51000");

// Block handle, private to a process (qvfs_Malloc). One handle serves every
// user of the block in the process: inRef counts them, and each also holds
// one count of the record's shrRef. The handle stands in slot blkIdx of the
// process's block table while inRef > 0.
struct TQvBlkRec {
    int32_t fd;          // this handle's descriptor of the disk's device; -1 after close
    int32_t errNo;       // outcome of the last transfer: 0, 5, 28 or 3000 + a caller fault (stored whole, no lock)
    uint32_t blkIdx;     // slot in the process's block table
    int32_t inRef;       // users inside this process (under g_tBlkFileMutex)
    TQvBlkShare* share;  // this process's attachment of the shared record
    int32_t lock;        // the record's semaphore id
};
