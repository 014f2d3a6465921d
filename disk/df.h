// df.h - the disk layer: format, mount, flush thread, block allocation,
// bad blocks, usage queries and the debug dump.
//
// Every function takes the disk's lock itself unless its comment says the
// caller holds it; the disk's lock is always the innermost lock.
#pragma once

#include <cerrno>

#include "disk/df_format.h"
#include "fsc.h"
#include "state.h"

extern "C" {

// Block-allocation result: disk index and block index (-1 for none).
struct TQvBlkId {
    uint32_t disk;
    int32_t block;
};

// Per-process disk table and process-wide block size.
extern QVFS_API TQvDiskRec g_astQvDisk[QVFS_MAX_DISKS];
extern QVFS_API int g_tTimerMutex;
extern QVFS_API uint64_t g_ullUnitSize;

// ---- layout and format ----
QVFS_API int64_t _df_QueryDevSize(const char* path);
QVFS_API int df_IsDiskOnline(int fd);
QVFS_API int df_SetOnlineCheck(uint32_t on);
QVFS_API int _df_WriteDiskHead(TQvDiskRec* disk, uint32_t* primaryFailed);
QVFS_API int _df_WriteStatusMap(TQvDiskRec* disk, uint32_t region, uint32_t* mapIndexOut);
QVFS_API int _df_WriteTypeTables(TQvDiskRec* disk, uint32_t region, uint32_t type);
QVFS_API int _df_ClearBlockHead(TQvDiskRec* disk, int32_t block, uint32_t length);
QVFS_API int df_DiskFormat(const char* path, uint32_t mode, uint64_t size);

// ---- disk table, mount, flush thread ----
// Once per process (again in a forked child, or when the process's locks
// were removed): makes the disk locks and g_tTimerMutex and starts the flush
// thread. A repeated call in the same process changes nothing.
QVFS_API int df_Init(void);
QVFS_API int df_Uninit(void);
// Opens the device and loads (first process) or checks (later ones) the
// disk's image. 0, or -1: 1005 not formatted, 1014 a header that breaks the
// layout's rules or describes more than the device holds, 3000 + errno.
QVFS_API int df_DiskMount(const char* path);
QVFS_API int df_DiskUnmout(const char* path, uint32_t mode);
QVFS_API int df_DiskStatfs(const char* path, TQvStatfs* out);
QVFS_API int df_IsDiskReady(uint32_t disk);
QVFS_API uint32_t df_GetDiskVersion(const char* path);
QVFS_API uint64_t df_GetDiskUnitSize(void);
QVFS_API int df_SetSyncMark(uint32_t disk, int32_t n);
QVFS_API int _df_LoadDisk(TQvDiskRec* disk);
QVFS_API int _df_GetBlockNumOfDataType(TQvDiskRec* disk);
QVFS_API void* _df_FlushThread(void*);

// ---- allocation and release ----
// req is the create request (TQvfsOpenParam): channel at byte 0, file
// data-type code at byte 8, length about to be written at byte 12, device
// path from byte 24.
QVFS_API int df_GetFileBlkId(const TQvfsOpenParam* req, TQvBlkId* out);
// The blocks in use of channel `chn` and block type `type` (or any, with
// QVFS_ANY_CHANNEL / QVFS_ANY_BLK_TYPE) holding files whose recorded time
// [startTime, max(startTime, endTime)] (endTime 0: no end yet, the block
// reaches on) meets [from, to], answered from the
// disk's index: the number of such blocks, with the `max` earliest by start
// time (then block number) in out, in that order. -1: 1001 (null path, no
// disk, negative max, null out with max > 0, disk not mounted), 3000 +
// errno when the index segment cannot be made. Takes the disk lock.
QVFS_API int df_FindBlocks(const char* path, uint32_t chn, uint32_t type, int64_t from, int64_t to,
                           TQvDiskBlkInfo* out, int32_t max);
QVFS_API int df_ReleaseBlock(uint32_t disk, int32_t block, uint32_t channel, uint32_t type,
                             uint32_t clearLen);
QVFS_API int64_t df_GetBlkAddr(uint32_t disk, int32_t block);
QVFS_API uint32_t df_IsBlockAllocated(uint32_t disk, int32_t block);

// ---- bad blocks ----
QVFS_API int df_TagBadBlock(uint32_t disk, int32_t block);
QVFS_API int df_TagBadUnit(const char* path, uint64_t offset, uint32_t length);
QVFS_API int df_ClearBadBlock(uint32_t disk, int32_t block);

// ---- usage queries and dump ----
QVFS_API uint32_t df_GetDiskUsedBlockNum(const char* path);
QVFS_API int df_GetBlockInfo(const char* path, TQvDiskBlkInfo* array, int32_t n);
QVFS_API int _df_GetBlockInfo(TQvDiskBlkInfo* out, uint32_t disk, uint32_t* cursor,
                              int32_t* remaining, uint32_t budgetMs);
QVFS_API int32_t df_GetUsedInBlockOfDataTypeEx(uint32_t disk, uint32_t channel, uint32_t code);
QVFS_API int32_t df_GetUsedInBlockOfDataType(const char* path, uint32_t channel, uint32_t code);
QVFS_API int32_t df_GetBlockNumOfDataType(const char* path, uint32_t channel, uint32_t code);
QVFS_API int df_GetDebugInfo(char* buf, int32_t size);

}  // extern "C"

// ---- disk-layer internals (hidden; shared by the disk/*.cpp files) ----
namespace qvfs::disk {

inline constexpr uint32_t kImageSize = sizeof(TQvDiskShare);
inline constexpr uint32_t kHeadSize = sizeof(TQvDiskHead);
inline constexpr uint32_t kBlockHeadSize = 512;

// Owner key of a disk's shared image: high word disk * 256 + 255, low word
// all ones. The pool takes the disk index from bits 40..47.
inline constexpr uint64_t owner_key(uint32_t disk) {
    return (uint64_t(disk * 256u + 255u) << 32) | 0xFFFFFFFFull;
}

// The process's record of a disk index (the caller checked index <= 24).
inline TQvDiskRec& rec(uint32_t disk) { return g_astQvDisk[disk]; }

// The process's record of the disk a device path names, or null with errno
// 1001 for a null path or a path that names no disk from 0 to 24.
inline TQvDiskRec* rec_of_path(const char* path) {
    const uint32_t index = path == nullptr ? UINT32_MAX : static_cast<uint32_t>(fsc_GetDiskNumByPath(path));
    if (index >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return nullptr;
    }
    return &rec(index);
}

// A disk is ready in this process when the image is attached, some process
// has it mounted and it is not marked unmounted. Caller holds the disk lock.
inline bool is_ready(const TQvDiskRec& d) {
    return d.share != nullptr && d.share->mounted != 0 && d.share->stat != 1;
}

// The process's attachment of a disk's image, stored and read whole so that
// the readiness test of a transfer needs no lock.
inline void set_share(TQvDiskRec& d, TQvDiskShare* image) { __atomic_store_n(&d.share, image, __ATOMIC_RELEASE); }

// The same test without the disk's lock, for transfers: the three words are
// aligned and each is written whole, so the answer is one that held at some
// moment during the call (a mount or unmount racing with a transfer may go
// either way, as it may with the lock).
inline bool ready(uint32_t disk) {
    const TQvDiskShare* s = __atomic_load_n(&rec(disk).share, __ATOMIC_ACQUIRE);
    return s != nullptr && __atomic_load_n(&s->mounted, __ATOMIC_RELAXED) != 0 &&
           __atomic_load_n(&s->stat, __ATOMIC_RELAXED) != 1;
}

// The answers of the presence request kept in a disk's state.
inline constexpr uint32_t kPresenceUnknown = 0, kPresent = 1, kGone = 2;

// Whether the device behind fd (a descriptor of a disk opened through the
// platform) counts as present for a transfer: always with the online check
// switched off; otherwise the answer the flush pass keeps, or the device's
// own answer while none is kept or while faults are armed. Leaves errno.
bool device_online(int fd);
// Asks the presence request of the disk's device through fd and keeps the
// answer (the flush pass, once per pass).
void refresh_presence(uint32_t disk, int fd);

// Zeroes `length` bytes of a block head at device offset `start` through fd
// as _df_ClearBlockHead does; takes no lock (the allocation and release of
// a block call it with the disk's lock released, on a descriptor of their
// own, the block being theirs meanwhile). 0 or -1 as put_piece leaves it.
int clear_head(int fd, uint64_t start, uint32_t length);

// Attaches (or creates) the image of disk `index` and stores it in d.share.
// Returns the image or null with errno from the pool.
TQvDiskShare* attach_image(TQvDiskRec& d, uint32_t index);

// Outcome of one positioned metadata write.
enum class Put { kOk, kOffline, kFailed };

// Seeks fd to off, tests that the device is online, then writes the whole
// piece with TCT_Write. kFailed leaves errno + 3000 (3000 for a short write);
// kOffline leaves errno as it was.
Put put_piece(int fd, uint64_t off, const void* buf, uint32_t len);

// Seeks and reads the whole piece; false leaves errno + 3000.
bool get_piece(int fd, uint64_t off, void* buf, uint32_t len);

// Writes one 4 KiB chunk of type t of the current-block (resp. block-count)
// table from the image to meta region `region`. Caller holds the disk lock.
Put put_current_chunk(const TQvDiskRec& d, uint32_t region, uint32_t t);
Put put_count_chunk(const TQvDiskRec& d, uint32_t region, uint32_t t);

// Byte offset of block b of a disk whose header is h (64-bit arithmetic).
inline uint64_t block_addr(const TQvDiskHead& h, uint32_t b) {
    return h.dataStart + uint64_t(b) * h.blockSize;
}

// Number of blocks the status map describes: min(tolblk, 131072).
inline uint32_t map_blocks(const TQvDiskHead& h) {
    return h.tolblk < kMaxBlocks ? h.tolblk : kMaxBlocks;
}

// ---- the block index (disk/index.cpp) ----
// Attaches this process to the disk's index and builds it from the block
// headers when `fresh` (the image was just loaded) or when it does not
// describe the disk. Caller holds the disk lock; the image is loaded. 0, or
// -1 with errno + 3000 when the system refuses the segment.
int index_mount(TQvDiskRec& d, uint32_t disk, bool fresh);
// The disk was formatted: its index, in whichever process, is built again.
void index_invalidate(uint32_t disk);
// A block was given to channel `chn` for block type `type` (no file yet).
// Caller holds the disk lock.
void index_note_alloc(uint32_t disk, uint32_t block, uint32_t chn, uint32_t type);
// A block header (512 bytes) was written to the device. No lock needed.
void index_note_head(uint32_t disk, int32_t block, const void* sector);

// Fields of a block header (the first 512 bytes of a block) that the disk
// layer reads; the record itself belongs to the block-file layer.
struct BlockHeadView {
    uint32_t len;        // byte 0: length of the header area
    uint64_t startTime;  // byte 8
    uint64_t endTime;    // byte 16
    uint32_t chn;        // byte 24
    uint32_t dataType;   // byte 28
    uint32_t cnt;        // byte 44
    uint64_t next;       // byte 56
    uint32_t slice;      // byte 64
};
BlockHeadView parse_block_head(const uint8_t* sector);

// Starts this process's flush thread once (again in a forked child).
void start_flush_thread();

// Number of descriptor flushes the flush thread of this process has made
// for a disk since the process started. For tests and diagnosis.
long flush_count(uint32_t disk);

// Monotonic milliseconds (one clock for all processes of the machine).
int64_t now_ms();

// The flush cadence: a flush pass looks at the disks every kFlushTick ms; a
// disk whose sync mark is set is flushed as soon as kFlushSpacing ms have
// passed since its last flush by any process, so a mark is served within
// kFlushSpacing + kFlushTick ms and a device sees at most one fdatasync per
// kFlushSpacing ms from the passes.
inline constexpr int64_t kFlushTick = 100;
inline constexpr int64_t kFlushSpacing = 800;

// The upper layers' part of a flush pass. Calls go only downwards, so the
// disk layer cannot call the layers that keep file lengths; the file layer
// registers this one function at its start instead (set_flush_hook). A pass
// of disk `disk` calls it twice with a descriptor of the disk's device:
// phase kBeforeFlush, before the pass's fdatasync (it takes each pending
// file's length as a candidate and writes the block headers that must cover
// it), and phase kAfterFlush, after it (it writes the entries that carry
// the candidates, whose data the fdatasync made durable). The hook runs with
// g_tTimerMutex held and no disk lock; it may take per-file and block locks
// (which come after g_tTimerMutex in the lock order) and returns the number
// of sectors it wrote.
inline constexpr int kBeforeFlush = 0, kAfterFlush = 1;
using FlushHook = unsigned (*)(uint32_t disk, int fd, int phase);
void set_flush_hook(FlushHook hook);

// fdatasync of a disk's device through fd (any descriptor of it), counted as
// the disk's flush (its last-flush time moves). 0 or -1 with errno.
int flush_device(uint32_t disk, int fd);

// Makes everything written to the disk so far durable, entries included:
// a pass of the disk now, with a second fdatasync after the entries the
// hook wrote. Takes g_tTimerMutex, then the disk's lock; the caller holds
// no lock of the library. 0, or -1 when the process has no descriptor of
// the disk or a flush failed.
int flush_disk_now(uint32_t disk);
// The same with g_tTimerMutex already held by the caller.
int flush_disk_now_locked(uint32_t disk);

}  // namespace qvfs::disk
