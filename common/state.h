// state.h - the library's state segment: what every process shares beyond
// the fixed-layout records of the owner list, the record pool and the disk
// images, whose bytes other programs may read and which have no room left.
//
// One System V segment for the whole system, keyed by the layer key file
// with project number 67 (common/keys.h), created zeroed by the first process
// that attaches it (fsc_ShareInit) and, like the owner list, never removed by
// the library. Its layout is the library's own and not part of any format:
// the first process writes a magic and the layout version, and a process
// that finds another layout (a segment left by a library of another version)
// does not use it; the features that need it then work as if it were absent
// or fail with the pool's code.
//
//   off       size            content
//   0         64              TQvStateHead: magic, layout version, sizes
//   64        25 x 1024       TQvDiskState, one per disk (index 0..24)
//   25664     1024 x 128      TQvBlkState, one per block-file record
//                             (share index 1024 + i)
//   156736    1024 x 64       TQvFileState, one per file record (share index i)
//
// Each section says which lock guards its fields. A field is zero until the
// feature that owns it writes it, so zero must always mean "nothing known".
#pragma once

#include <cstddef>
#include <cstdint>

#include "fsc.h"

// Per disk. Guarded by the disk's lock unless a field says otherwise.
//
// The flush machinery (disk/flush.cpp, file/flush.cpp) keeps its part in
// the first 160 bytes; every one of these fields is read and written with
// atomic operations and no lock, by any process:
//   pendingFiles  bit i: file record i holds a length or end time that its
//                 entry on the device lacks (set by a growing write, cleared
//                 by the flush pass that wrote the entry)
//   markMs        monotonic milliseconds of the oldest sync mark that no
//                 flush has served yet; 0 none
//   lastFlushMs   when a process last flushed the device (fdatasync)
//   presenceMs    when a process last asked the device's presence request
//   presence      its answer: 0 not known, 1 present, 2 gone
//   flushes       flushes of the device by all processes together
struct TQvDiskState {
    uint64_t pendingFiles[16];
    int64_t markMs;
    int64_t lastFlushMs;
    int64_t presenceMs;
    uint32_t presence;
    uint32_t flushes;
    uint8_t reserved[864];
};
static_assert(sizeof(TQvDiskState) == 1024);
static_assert(offsetof(TQvDiskState, pendingFiles) == 0);
static_assert(offsetof(TQvDiskState, markMs) == 128);
static_assert(offsetof(TQvDiskState, lastFlushMs) == 136);
static_assert(offsetof(TQvDiskState, presenceMs) == 144);
static_assert(offsetof(TQvDiskState, presence) == 152);
static_assert(offsetof(TQvDiskState, flushes) == 156);
static_assert(offsetof(TQvDiskState, reserved) == 160);

// Per block-file record. Guarded by g_tBlkFileMutex unless a field says
// otherwise.
//   reservedNext  the block offset (a multiple of 4 KiB) up to which growing
//                 writes of the block's files have claimed space before
//                 their transfers (atomic, raised without a lock; zeroed
//                 under the record lock when the block is loaded from the
//                 device, released, or given its first file). The header's
//                 `next` on the device follows with the flush pass; a file
//                 created in the block starts at or beyond it.
struct TQvBlkState {
    uint64_t reservedNext;
    uint8_t reserved[120];
};
static_assert(sizeof(TQvBlkState) == 128);
static_assert(offsetof(TQvBlkState, reservedNext) == 0);
static_assert(offsetof(TQvBlkState, reserved) == 8);

// Per file record. Guarded by the per-file lock unless a field says
// otherwise. Written when a process opens or creates the file and the
// record's slice copy is filled (`loaded`), zeroed when a new file takes the
// record; what a flush pass of any process needs to write the file's entry
// and advance its block's header without the file or the block being open
// in that process (lock ids are System V ids, the same in every process):
//   loaded      1: the record's slice copy is the file's master copy (an
//               open in another process must not read the entry over it)
//   pending     1: the slice copy's dataEnd or endTime is ahead of the entry
//               on the device (atomic; set under the per-file lock)
//   candidate   1: candEnd/candTime were taken before a flush of the device,
//               so an entry carrying them covers only flushed data
//   fileLock    the per-file lock's id
//   blkLock     the block record's lock id
//   disk, blkId, blkShare (share index of the block record), blkType
//   blkAddr     the block's byte address on the device
struct TQvFileState {
    uint32_t loaded;
    uint32_t pending;
    uint32_t candidate;
    int32_t fileLock;
    int32_t blkLock;
    uint32_t disk;
    uint32_t blkId;
    uint32_t blkShare;
    uint64_t blkAddr;
    uint64_t candEnd;
    uint64_t candTime;
    uint32_t blkType;
    uint8_t reserved[4];
};
static_assert(sizeof(TQvFileState) == 64);
static_assert(offsetof(TQvFileState, loaded) == 0);
static_assert(offsetof(TQvFileState, pending) == 4);
static_assert(offsetof(TQvFileState, candidate) == 8);
static_assert(offsetof(TQvFileState, fileLock) == 12);
static_assert(offsetof(TQvFileState, blkLock) == 16);
static_assert(offsetof(TQvFileState, disk) == 20);
static_assert(offsetof(TQvFileState, blkId) == 24);
static_assert(offsetof(TQvFileState, blkShare) == 28);
static_assert(offsetof(TQvFileState, blkAddr) == 32);
static_assert(offsetof(TQvFileState, candEnd) == 40);
static_assert(offsetof(TQvFileState, candTime) == 48);
static_assert(offsetof(TQvFileState, blkType) == 56);

struct TQvStateHead {
    char magic[8];          // "QVFSSTAT"
    uint32_t version;       // layout version, kStateVersion
    uint32_t size;          // sizeof(TQvfsState)
    uint8_t reserved[48];
};
static_assert(sizeof(TQvStateHead) == 64);

struct TQvfsState {
    TQvStateHead head;
    TQvDiskState disk[QVFS_MAX_DISKS];
    TQvBlkState blk[1024];
    TQvFileState file[1024];
};
static_assert(offsetof(TQvfsState, disk) == 64);
static_assert(offsetof(TQvfsState, blk) == 25664);
static_assert(offsetof(TQvfsState, file) == 156736);
static_assert(sizeof(TQvfsState) == 222272);

// ---- the block index of a disk ----------------------------------------------
// One segment per disk (project kProjDiskSegment0 + disk of the layer key
// file), sized for the disk's blocks: the head, then one entry per block.
// It answers "which blocks hold channel c's recordings of type t between two
// times" from memory, without reading a block header. Built from the block
// headers when a disk's image is loaded (and whenever a process finds it not
// built), kept current by allocation and release (under the disk's lock)
// and by every block-header write (without it: each field is stored and
// loaded atomically). Never part of any format: a segment that does not
// match the disk is rebuilt.
struct TQvBlkIndexHead {
    char magic[8];     // "QVFSBIDX"
    uint32_t version;  // kBlkIndexVersion
    uint32_t blocks;   // entries that follow (the disk's blocks)
    uint32_t built;    // 1 once the entries describe the disk
    uint32_t reserved[3];
};
static_assert(sizeof(TQvBlkIndexHead) == 32);

struct TQvBlkIndexEntry {
    uint32_t chn;        // channel of the header, valid while the block is in use
    uint32_t type;       // block type of the header
    uint32_t cnt;        // live files
    uint32_t reserved;
    uint64_t startTime;  // header's startTime
    uint64_t endTime;    // header's endTime
};
static_assert(sizeof(TQvBlkIndexEntry) == 32);
static_assert(offsetof(TQvBlkIndexEntry, startTime) == 16 && offsetof(TQvBlkIndexEntry, endTime) == 24);

namespace qvfs {

inline constexpr uint32_t kBlkIndexVersion = 1;
inline constexpr char kBlkIndexMagic[8] = {'Q', 'V', 'F', 'S', 'B', 'I', 'D', 'X'};

// The fields of the state segment that its sections read and write without
// a lock, from any process: whole-word loads and stores that order what was
// written before them.
template <class T>
T shared_load(const T& v) {
    return __atomic_load_n(&v, __ATOMIC_ACQUIRE);
}
template <class T>
void shared_store(T& v, T x) {
    __atomic_store_n(&v, x, __ATOMIC_RELEASE);
}

// Layout version of the segment; raise it whenever a field moves or changes
// meaning, so that processes of different library versions never share a
// misread segment.
inline constexpr uint32_t kStateVersion = 2;
inline constexpr char kStateMagic[8] = {'Q', 'V', 'F', 'S', 'S', 'T', 'A', 'T'};

// Attaches (creating if needed) the state segment once per process; called
// by fsc_ShareInit. 0, or -1 with errno as fsc_MallocV2 leaves it, or 1002
// for a segment of another layout.
int state_attach();

// This process's attachment, or null before state_attach succeeded.
TQvfsState* state();

// The sections of a disk (0..24), a block-file record and a file record by
// share index; null when the segment is not attached or the index is out of
// range.
TQvDiskState* disk_state(uint32_t disk);
TQvBlkState* blk_state(uint32_t shareIndex);    // 1024..2047
TQvFileState* file_state(uint32_t shareIndex);  // 0..1023

// Detaches the segment (tests: a process made to look freshly started).
void state_detach();

}  // namespace qvfs
