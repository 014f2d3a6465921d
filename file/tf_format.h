// tf_format.h - the shared file record, the per-process file handle and the
// task list of the task device.
//
// A file open in any process has one shared file record (TQvFileRec) in
// System V shared memory; every process that opens the same file attaches the
// same record, found through the owner list under the file's owner key. Each
// process has one file handle (TQvFileHandle) per open file, private to it.
// All integers are little-endian, in shared memory as on disk.
#pragma once

#include <cstddef>
#include <cstdint>

#include "blockfile/bf_format.h"
#include "fsc.h"
#include "qvfs_types.h"

namespace qvfs::file {

// Per-process file table: one handle per distinct open file.
inline constexpr uint32_t kFileTableSize = 1024;
// Processes recorded as openers of one file.
inline constexpr uint32_t kOwnerSlots = 8;
// Size of a record's name field; at most kNameSize - 1 characters are kept.
inline constexpr uint32_t kNameSize = 64;
// The semaphore of a file record has the record's share key plus this.
inline constexpr int kRecordLockKeyOffset = 0x10000;
// Share indexes of file records: 0..511 in the record pool, 512..1023 in
// segments of their own.
inline constexpr uint32_t kFileShareIndexes = 1024;
inline constexpr uint32_t kPoolFileRecords = 512;

// Owner key of a file's record: disk << 40 + block << 16 + slice, with the
// block number 24 bits and the slice number 16 bits wide as a name holds them.
inline constexpr uint64_t file_owner_key(uint32_t disk, uint32_t block, uint32_t slice) {
    return (uint64_t(disk) << 40) + (uint64_t(block & 0xFFFFFFu) << 16) + uint64_t(slice & 0xFFFFu);
}
static_assert(file_owner_key(3, 0x12, 1) == 0x30000120001ull);

// Task device: the list request and the number of process ids in a list.
inline constexpr unsigned long kTaskListRequest = 0x40545401UL;
inline constexpr uint32_t kTaskListPids = 20;
// Seconds between two polls of the task-check thread.
inline constexpr unsigned kTaskPollSeconds = 5;

}  // namespace qvfs::file

// One opener of a file: a process id (0 = free slot) and its number of opens.
struct TQvFileOwner {
    int32_t pid;
    int32_t count;
};
static_assert(sizeof(TQvFileOwner) == 8 && offsetof(TQvFileOwner, pid) == 0 && offsetof(TQvFileOwner, count) == 4);

// Shared file record, 648 bytes, a shared record of the file kind (owner
// slots 0..1023, see fsc_TfMalloc). `slice` changes under the record's own
// lock (the per-file lock); `name`, `shrRef` and `owner` under g_qvFileMutex.
//
//   off size field       meaning
//     0  512 slice       copy of the file's slice entry (TQvBlkSliceInfo)
//   512   64 name        name the file was opened by, <= 63 chars, zero-terminated
//   576    4 shrRef      opens of the file in all processes together
//   580    4 shareIndex  share index 0..1023, written by fsc_TfMalloc
//   584   64 owner       8 x {pid, count}: processes holding the file; pid 0 = free
//
// Slice fields the file layer uses (offsets inside the record, positions are
// byte offsets inside the file's block, 0 = not set):
//    24 chn, 28 lock, 32 startTime, 40 endTime, 48 recType      status
//    56 resStart, 64 resEnd       the reserved (pre-record) area
//    72 preStart, 80 preEnd       the valid pre-record data, a ring in it
//    88 dataStart, 96 dataEnd     the main data
//   104 usrParam (32)             status
//   136 preName (16), 152 videoAbstract, 156 userData (356)   file information
struct TQvFileRec {
    TQvBlkSliceInfo slice;
    char name[qvfs::file::kNameSize];
    int32_t shrRef;
    int32_t shareIndex;
    TQvFileOwner owner[qvfs::file::kOwnerSlots];
};
static_assert(sizeof(TQvFileRec) == 648);
static_assert(sizeof(TQvFileRec) == QVFS_FILE_REC_SIZE, "the pool allocates records of this size");
static_assert(offsetof(TQvFileRec, slice) == 0);
static_assert(offsetof(TQvFileRec, name) == 512);
static_assert(offsetof(TQvFileRec, shrRef) == 576);
static_assert(offsetof(TQvFileRec, shareIndex) == 580);
static_assert(offsetof(TQvFileRec, owner) == 584);
static_assert(sizeof(TQvFileRec) % alignof(TQvFileRec) == 0, "the pool packs records back to back");
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, chn) == 24);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, lock) == 28);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, startTime) == 32);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, endTime) == 40);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, recType) == 48);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, resStart) == 56);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, resEnd) == 64);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, preStart) == 72);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, preEnd) == 80);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, dataStart) == 88);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, dataEnd) == 96);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, usrParam) == 104);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, preName) == 136);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, videoAbstract) == 152);
static_assert(offsetof(TQvFileRec, slice) + offsetof(TQvBlkSliceInfo, userData) == 156);

// File handle, private to a process (qvfs_Malloc). One handle serves every
// open of the file in the process: inRef counts them, and each also holds
// one count of the record's shrRef. The handle stands in slot `index` of the
// process's file table while inRef > 0.
struct TQvFileHandle {
    int32_t errNo;       // block layer's outcome of the last transfer (bf_GetErrorNo); stored whole
    uint32_t index;      // slot in the file table, 0..1023
    int32_t inRef;       // opens of the file in this process; g_qvFileMutex
    TQvFileRec* rec;     // this process's attachment of the shared record
    TQvBlkRec* blkFile;  // the block handle of the file's block; per-file lock
    int32_t lockId;      // the per-file lock (semaphore id)
};

// Task list, 84 bytes, filled by the task device's list request.
//
//   off size content
//     0    4 word   not interpreted, copied along
//     4   80 pid    20 process ids; 0 = empty entry; order carries no meaning
struct TQvTaskList {
    uint32_t word;
    int32_t pid[qvfs::file::kTaskListPids];
};
static_assert(sizeof(TQvTaskList) == 84);
static_assert(offsetof(TQvTaskList, word) == 0);
static_assert(offsetof(TQvTaskList, pid) == 4);
