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
struct TQvDiskState {
    uint8_t reserved[1024];
};
static_assert(sizeof(TQvDiskState) == 1024);

// Per block-file record. Guarded by g_tBlkFileMutex unless a field says
// otherwise.
struct TQvBlkState {
    uint8_t reserved[128];
};
static_assert(sizeof(TQvBlkState) == 128);

// Per file record. Guarded by the per-file lock unless a field says
// otherwise.
struct TQvFileState {
    uint8_t reserved[64];
};
static_assert(sizeof(TQvFileState) == 64);

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

// Layout version of the segment; raise it whenever a field moves or changes
// meaning, so that processes of different library versions never share a
// misread segment.
inline constexpr uint32_t kStateVersion = 1;
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
