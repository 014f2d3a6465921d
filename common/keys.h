// keys.h - the System V key scheme and the shared-record layout facts that
// the common services and the layers agree on. Internal (hidden) helpers.
//
// Keys. Every key is an ftok key of a file in the key directory "/dvr/qvfs":
//
//   layer key file  "/dvr/qvfs/qvfslayer"  project numbers
//        65  owner list segment        97  g_qvFileMutex
//        66  record pool segment       98  g_tBlkFileMutex
//        67  state segment             99  g_tBlkMutex
//   101..125 segment of disk 0..24    100  g_tTimerMutex
//   share key files "/dvr/qvfs/qvfs<f>", f = 0..16: share index i uses file
//        i / 126 with project number (i % 126) + 1.
//
// A record lock's semaphore key is its record's share key plus 0x10000; a
// disk's lock uses the disk record's share key itself (semaphore and segment
// name spaces are separate).
//
// Share indexes (one per shared record, fixed while the record exists):
//
//      0 ..  511  file record (648 bytes)        record pool, index * 648
//    512 .. 1023  file record                    own segment
//   1024 .. 1535  block-file record (544 bytes)  record pool, 0x51000 + (index - 1024) * 544
//   1536 .. 2047  block-file record              own segment
//   2048 .. 2072  disk record of disk 0..24      own segment (262672 bytes)
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "fsc.h"

namespace qvfs {

// ---- key files --------------------------------------------------------------

inline constexpr char kLayerKeyFormat[] = "%s/qvfslayer";
inline constexpr char kShareKeyFormat[] = "%s/qvfs%d";
inline constexpr std::size_t kKeyPathSize = 64;

inline constexpr int kProjFileList = 65;
inline constexpr int kProjShrPool = 66;
inline constexpr int kProjFileMutex = 97;     // g_qvFileMutex
inline constexpr int kProjBlkFileMutex = 98;  // g_tBlkFileMutex
inline constexpr int kProjBlkMutex = 99;      // g_tBlkMutex
inline constexpr int kProjTimerMutex = 100;   // g_tTimerMutex
// The library's own segments beyond the fixed records (common/state.h): the
// state segment, and one segment per disk d with project number
// kProjDiskSegment0 + d for what a disk needs in proportion to its blocks.
inline constexpr int kProjState = 67;
inline constexpr int kProjDiskSegment0 = 101;  // 101..125

inline constexpr int kIndexesPerKeyFile = 126;
inline constexpr int kKeyCacheEntries = 32;  // room for key files 0..31 (0..16 used)
inline constexpr uint32_t kRecordLockKeyOffset = 0x10000;

// ---- share indexes ---------------------------------------------------------

inline constexpr uint32_t kFileIndexBase = 0;
inline constexpr uint32_t kBlkFileIndexBase = 1024;
inline constexpr uint32_t kDiskIndexBase = 2048;
inline constexpr uint32_t kSlotsPerKind = 1024;      // file and block-file records
inline constexpr uint32_t kPoolSlotsPerKind = 512;   // of which the first 512 are in the pool
inline constexpr uint32_t kMaxShareIndex = QVFS_SHARE_INDEXES - 1;  // 2072

// Record pool: 512 file records, then 512 block-file records, no padding.
inline constexpr uint32_t kPoolFileOffset = 0;
inline constexpr uint32_t kPoolBlkFileOffset = 0x51000;
static_assert(kPoolSlotsPerKind * QVFS_FILE_REC_SIZE == kPoolBlkFileOffset);
static_assert(kPoolBlkFileOffset + kPoolSlotsPerKind * QVFS_BLKFILE_REC_SIZE == QVFS_SHR_POOL_SIZE);
static_assert((kDiskIndexBase + QVFS_MAX_DISKS) == QVFS_SHARE_INDEXES);
static_assert((QVFS_SHARE_INDEXES - 1) / kIndexesPerKeyFile < kKeyCacheEntries);

// ---- fields the pool reads inside the layers' records ------------------------
// 32-bit little-endian words; every process reads them at these offsets, so
// the layers' record definitions must keep them here.

inline constexpr std::size_t kFileRecShrRefOff = 576;  // int32 shrRef
inline constexpr std::size_t kFileRecIndexOff = 580;   // uint32 share index
inline constexpr std::size_t kBlkRecShrRefOff = 520;   // int32 shrRef
inline constexpr std::size_t kBlkRecIndexOff = 536;    // uint32 share index
inline constexpr std::size_t kDiskRecMapIndexOff = 262656;  // mapIndex
inline constexpr std::size_t kDiskRecStatOff = 262660;      // stat (1 = not mounted)
inline constexpr std::size_t kDiskRecMountedOff = 262664;   // mounted
inline constexpr std::size_t kDiskRecShmNoOff = 262668;     // share index, 2048 + disk

inline uint32_t rec_u32(const void* rec, std::size_t off) {
    uint32_t v;
    std::memcpy(&v, static_cast<const unsigned char*>(rec) + off, sizeof v);
    return v;
}
inline int32_t rec_i32(const void* rec, std::size_t off) {
    int32_t v;
    std::memcpy(&v, static_cast<const unsigned char*>(rec) + off, sizeof v);
    return v;
}
inline void rec_put_u32(void* rec, std::size_t off, uint32_t v) {
    std::memcpy(static_cast<unsigned char*>(rec) + off, &v, sizeof v);
}

// ---- helpers -----------------------------------------------------------------

// "/dvr/qvfs/qvfslayer": the layer key file's system path.
void layer_key_path(char (&buf)[kKeyPathSize]);

// ftok key of the layer key file with a project number (creating the file if
// missing); -1 with errno as fsc_GetShareKey leaves it.
int layer_key(int projId);

// Semaphore key of the lock of the record with a share index: its share key
// plus 0x10000; -1 when the share key cannot be had.
int record_lock_key(uint32_t shareIndex);

// Number of references all processes hold on the block-file record
// registered under ownerKey (its shrRef), 0 when no record is registered
// under that key. Registers, creates and attaches nothing for good: a record
// in its own segment is attached read-only for the read and detached again.
// The caller holds g_tBlkFileMutex, which guards the owner slots of
// block-file records and their counts.
int32_t blkfile_record_refs(uint64_t ownerKey);

// The shared file or block-file record of a share index (0..2047) while it
// is registered: the record pool's copy, or a new attachment of its own
// segment, which record_release gives back. Null when the index is free or
// its segment is gone. Looks up only: creates and registers nothing. For
// work on another process's records (the flush pass); the record may be
// freed meanwhile, so callers check under the record's lock that it is
// still the one they mean.
void* record_at(uint32_t shareIndex);
void record_release(void* rec);

// One entry of the per-process share table (one per disk), filled by
// fsc_DfMalloc. All zero until then.
struct ShareEntry {
    int32_t id;    // segment id
    uint32_t key;  // segment key
    void* addr;    // attach address in this process
};
const ShareEntry& share_entry(int disk);

// Makes this process's common state look freshly started: detaches the owner
// list and the record pool, forgets the cached key identities and clears the
// share table. Shared state is not touched. For tests (a test that plays a
// second process, a fixture that runs several cases in one process).
void pool_reset_process_state();

}  // namespace qvfs
