// bf.h - the block-file layer: one block as a unit of work.
//
// A block in use by any process has one shared record (TQvBlkShare) holding
// its header and the reference count of all processes; each process that uses
// the block has one handle (TQvBlkRec) with its own device descriptor.
//
// Locks, outer first (all System V semaphores, SEM_UNDO):
//   g_tBlkMutex      - operations that load a block by address or name:
//                      create, open, delete by name, statistics;
//   record lock      - one per block (TQvBlkRec::lock): the shared header
//                      copy (data transfers are positioned and take no
//                      lock; the handle's errNo is stored whole);
//   g_tBlkFileMutex  - the block table, inRef, shrRef, owner slots of the
//                      records and the release of a block at its last drop;
//                      taken only inside _bf_GetBlock / _bf_PutBlock (and row
//                      by row in the dump), never while waiting for a block.
// Disk-layer calls are made inside these; the disk's lock is innermost.
//
// Failures return -1 (or null, or the value named below) with a library
// code in errno; a failed system call reports 3000 + its errno. No call
// throws.
#pragma once

#include <sys/uio.h>

#include "blockfile/bf_format.h"
#include "disk/df.h"
#include "fsc.h"

extern "C" {

// Lock ids, -1 until bf_Init.
extern QVFS_API int g_tBlkFileMutex;
extern QVFS_API int g_tBlkMutex;

// ---- layer start ------------------------------------------------------------

// Clears the block table, creates or opens g_tBlkFileMutex and g_tBlkMutex
// (key file "/dvr/qvfs/qvfslayer", project numbers 98 and 99) and returns
// df_Init's result. Once per process.
QVFS_API int bf_Init(void);
// Does nothing; returns 0.
QVFS_API int bf_UnInit(void);

// ---- header and slice directory ---------------------------------------------

// Write the 512 bytes of a header at blkAddr, or of an entry at
// blkAddr + sliceID * 512, through TCT_Write. 0, or -1: disk not ready or
// device offline (errno untouched); short or failed write (errno + 3000, the
// block reported bad). The caller holds the block's record lock.
QVFS_API int _bf_WriteBlkInfo(const TQvBlkInfo* info, int fd, uint32_t disk, int32_t block,
                              uint64_t blkAddr, uint32_t blkType);
QVFS_API int _bf_WriteSlice(const TQvBlkSliceInfo* slice, int fd, uint32_t disk, int32_t block,
                            uint64_t blkAddr, uint32_t blkType);

// Debug printers to standard output; take no lock (print a copy, or hold the
// record lock). The entry printer prints nothing for an entry whose times or
// data end cannot be an entry's (startTime 0 or above 0x7FFFFFFF, dataEnd
// above 1 GiB).
QVFS_API int bf_PrintTQvBlkInfo(const TQvBlkInfo* info);
QVFS_API void bf_PrintTQvBlkSliceInfo(const TQvBlkSliceInfo* slice);

// ---- block-file table ---------------------------------------------------------

// Loads block {disk, block}: the process's handle with one more reference
// (inRef and shrRef + 1), or null. Null without an error code when the disk
// is not ready or the header on disk is rejected (the block is then reported
// bad); 1003 for a disk above 24 or a negative block; 1013 when the process
// has 1024 blocks loaded; 3000 + errno when the device cannot be opened or
// the header cannot be read. The header is read from disk only when no
// process held the block; otherwise the shared copy (possibly ahead of the
// disk) is kept. Takes g_tBlkFileMutex.
QVFS_API TQvBlkRec* _bf_GetBlock(const TQvBlkId* id);
// Drops one reference. The process's last reference closes the descriptor
// and frees the handle; the last reference of all processes to a block
// marked unlinked gives the block back to the disk layer. Returns 0.
// Takes g_tBlkFileMutex.
QVFS_API int _bf_PutBlock(TQvBlkRec* handle);

// Creates a file: the disk layer picks the block (df_GetFileBlkId), a new
// slice entry with a fresh check code is written with the header, and a sync
// mark is set. A file of type 1 with a reserved size gets the area
// [next, next + resSize) and `next` moves past it at once. Fills name
// (>= 33 bytes) with the text name plus req->ext, and slice with the new
// entry. Returns the block handle holding one reference for the file, or
// null: 1001 for a null argument, an extension that is not 1 to 7 printable
// characters without '/', or a reserved size that is negative or larger
// than a block's data area (all refused before anything is allocated); the
// disk layer's or the loader's code; 1002 when the block's directory is
// full or the area does not fit behind `next`. Takes g_tBlkMutex, then the
// record lock.
QVFS_API TQvBlkRec* bf_CreateFile(const TQvfsOpenParam* req, char* name, TQvBlkSliceInfo* slice);
// Opens the file named by a text name or a path ending in one and fills
// slice with its entry read from disk. Returns the block handle holding one
// reference, or null: 1001 for a null argument, 3000 + errno when the entry
// cannot be read (block reported bad), 1014 when the entry's regions do not
// lie in the block's data area (slice untouched), no error code when the
// name is malformed, names a free block, its slice lies outside the
// directory, its check code (compared without regard to case) differs or
// its extension is not the entry's. Takes g_tBlkMutex, then the record lock.
QVFS_API TQvBlkRec* bf_OpenFile(const char* name, TQvBlkSliceInfo* slice);
// Drops the reference of a create or open. 0, or -1 with 1001 for null.
QVFS_API int bf_CloseFile(TQvBlkRec* handle);

// Header counters. op 0: value 1 locks (+1), value 0 unlocks (-1), other
// values nothing; op 1: recType + value; other ops nothing.
// bf_BlockOpt takes the record lock and, when a counter changed, writes the
// header through and sets the sync mark: 0, or -1 when that write failed
// (the shared copy keeps the change). _bf_BlockOpt expects the record lock
// held and changes only the shared copy; returns 0.
QVFS_API int bf_BlockOpt(TQvBlkRec* handle, uint32_t op, int32_t value);
QVFS_API int _bf_BlockOpt(TQvBlkRec* handle, uint32_t op, int32_t value);

// ---- block I/O ------------------------------------------------------------------
// Offsets are bytes from the block's start. Transfers go straight between the
// caller's memory and the device, one positioned system call each and no
// lock, and never leave the block. Each records its outcome in the handle's errNo: 0, 5 (disk not ready
// or offline, transfer failed on the device: the block is reported bad), 28
// (a write ended in the block's last 4 MiB), or 3000 + EFAULT/EINVAL when the
// caller's memory or vector could not be used: then -1 with the same code in
// errno, and the block is not reported (the device did nothing wrong).

// Bytes read, or -1 (nothing read; also for length 0). 1001 null argument,
// 1012 offset at or beyond the block size; a read that runs past the
// block's end is cut there.
QVFS_API int bf_Read(uint32_t offset, void* data, uint32_t length, TQvBlkRec* handle);
// length, or -1 (0 for length 0 when refused). 1001 null argument, 1012
// offset beyond the block or below its data area (the header and directory
// are written only by their own writers), 1002 (errNo 28) end beyond the
// block: nothing written.
QVFS_API int bf_Write(uint32_t offset, const void* data, uint32_t length, TQvBlkRec* handle);
// One writev of the caller's vector: the total length, 0 (no element or
// only empty ones; no lock taken), or -1. Null arguments give -1 without an
// error code; 1012, 1002 as bf_Write; 1002 also for more elements than the
// system takes in one call. A partial writev is not continued (block bad).
QVFS_API int bf_Writev(uint32_t offset, const struct iovec* iov, int count, TQvBlkRec* handle);
// Writes the entry back at sliceID * 512 and advances the header: `next` to
// dataEnd rounded up to 4 KiB and `endTime` to the entry's, writing the
// header only when one of them moved. Sets the sync mark.
// Takes the record lock. 0 or -1: 1001 null
// argument, 1002 sliceID outside the directory, 3000 + errno on a failed
// write (block reported bad). The shared copy keeps an advance whose header
// write failed.
QVFS_API int bf_Sync(const TQvBlkSliceInfo* slice, TQvBlkRec* handle);
// The handle's errNo; 0 with 1001 for null. Takes no lock.
QVFS_API int bf_GetErrorNo(TQvBlkRec* handle);

// ---- deletion and statistics ----------------------------------------------------

// Deletes the file of a text name: its entry is cleared (sliceID kept), the
// header's counters drop, and the block's last file gives the block back
// (the result is then df_ReleaseBlock's). 0 or -1: 1001 null name, the
// loader's code, 3000 + errno entry unreadable (block bad), no code for a
// wrong check code or extension, a free block or a slice outside the
// directory. Takes g_tBlkMutex, then the record lock.
QVFS_API int bf_Unlink(const char* name);
// Marks the block unlinked and drops this call's reference: the block goes
// back to the disk layer at the last drop of any process. 0, or -1 when the
// block cannot be loaded.
QVFS_API int bf_BlockUnlink(uint32_t disk, uint32_t blkId);
// Lists the live entries found in the first 16 MiB of the block (read in
// 512 KiB chunks through one buffer kept for the process) as file status
// records, at most max. The number written, or -1 (1001 null argument, 1006
// no buffer, loader's code, 3000 + errno on a failed read). A block whose
// header counts files but whose directory holds none is given back; a free
// block lists nothing.
QVFS_API int bf_BlockStat(const char* path, uint32_t blkId, TQvFileStat* out, int max);
// One 512 KiB segment of the listing into the caller's buffers; the count is
// in segFound. 0 or -1.
QVFS_API int bf_BlockStatSeg(TQvBlkSegQuery* query);
// Block status: disk, block, dataType, lock and recType counters, state
// (0 not allocated, 1 the current block of its channel and type,
// 2 allocated), endTime. 0 or -1 (null out: 1001).
QVFS_API int bf_GetBlockStat(uint32_t disk, uint32_t blkId, TQvBlkStat* out);
// The header's cnt, or 0 (1001 for a null path).
QVFS_API int bf_GetBlockFileNum(const char* path, uint32_t blkId);
// Number of references all processes hold on the block's shared record
// (open files, writers, listings in progress), 0 when no process has the
// block loaded. Does not load the block or read the disk. -1 with 1001 for a
// disk above 24, 1002 for a block number of 131072 or more. Takes
// g_tBlkFileMutex.
QVFS_API int bf_GetBlockUsers(uint32_t disk, uint32_t blkId);
// Scans n <= 1024 sectors of buf for live entries (bytes 8..11 "QVND" in any
// case) and fills at most n status records. Returns the number filled.
QVFS_API int _bf_ScanSlices(const TQvBlkRec* handle, const void* buf, TQvFileStat* out, int n);
// The process's block handles, one row each, then the disk layer's dump.
// Returns the text length (0 for null text or size below 120).
QVFS_API int bf_GetDebugInfo(char* text, int size);

}  // extern "C"

namespace qvfs::bf {

// Whether a header read from disk may be used, given the unit size: a fresh
// header (Len 0) only with slice and next 0; otherwise Len at most 16 MiB,
// Len <= next <= the unit size, slice below Len / 512 and cnt at most slice.
bool header_acceptable(const TQvBlkInfo& h, uint64_t unitSize);

// ---- a file's regions ----------------------------------------------------------
// A file is one of three shapes (block offsets, [from, to)):
//   - no reserved area (resStart and resEnd 0): the data [dataStart, dataEnd);
//   - a reserved area whose ring pointers are not set (preStart or preEnd 0):
//     the bytes written into the area from its start, [resStart, dataEnd),
//     never beyond resEnd;
//   - ring pointers set: the ring inside the area (from preStart, wrapping
//     at resEnd to resStart, up to preEnd), then the data from dataStart.

// b - a, or 0 when a damaged entry has b below a.
inline uint64_t span(uint64_t a, uint64_t b) { return b > a ? b - a : 0; }
inline bool has_ring_area(const TQvBlkSliceInfo& e) { return e.resStart != 0 && e.resEnd != 0; }
inline bool ring_set(const TQvBlkSliceInfo& e) {
    return has_ring_area(e) && e.preStart != 0 && e.preEnd != 0;
}
// Bytes of the ring once its pointers are set (0 before): preEnd - preStart,
// or, wrapped or with preStart == preEnd, the area's two pieces.
uint64_t ring_length(const TQvBlkSliceInfo& e);
// The file's length: never counts a byte outside its own regions, and never
// wraps whatever a damaged entry holds.
uint64_t file_length(const TQvBlkSliceInfo& e);

// The highest block offset a file may reach without touching another
// file's bytes. Files of a block are laid out in the order they were created,
// each starting at the header's `next` of its creation, which is never below
// the 4 KiB rounding of the file before it. So only the newest file of the
// block (its slice number is the header's `slice`) may grow on to the block's
// end; an older one keeps to its reserved area before its ring pointers are
// set, else to its data end rounded up to 4 KiB. The header's `slice` is read
// without the record lock: it only rises while the block holds files.
uint64_t growth_limit(const TQvBlkRec* h, const TQvBlkSliceInfo& e, uint64_t unitSize);

// Space claims of growing writes. The header's `next` reaches the shared
// copy and the device only with the flush pass, so a write that will move a
// file's data end to `end` claims the space first (reserve_space: the
// block's claim rises to `end` rounded up to 4 KiB, atomically, no lock) and
// only then checks growth_limit; a file created in the block starts beyond
// every claim made before its slice number was published
// (raise_to_claims, under the record lock). Either the creator sees the
// claim or the writer sees the newer file and refuses: the two never
// overlap. Claims follow the same region rule as the header's advance.
void reserve_space(const TQvBlkRec* h, const TQvBlkSliceInfo& e, uint64_t end, uint64_t unitSize);
// Raises the shared header's `next` to the block's claims. Caller holds the
// record lock.
void raise_to_claims(TQvBlkShare* rec);
// Drops the block's claims (a header that starts afresh). Caller holds the
// record lock.
void clear_claims(const TQvBlkShare* rec);

// Whether an entry read from disk describes regions that lie in the block's
// data area [dataArea, unitSize) in one of the shapes above, so that every
// address the file layer computes from it stays there.
bool entry_regions_valid(const TQvBlkSliceInfo& e, uint64_t dataArea, uint64_t unitSize);

// Tests that the device is online (the answer the flush pass keeps) and
// writes one 512-byte sector at target: 0, or -1 (offline: errno untouched;
// failed or short write: errno + 3000 and the block reported bad). The
// sector writers add the disk-ready test; callers that made it already use
// this. fd is any descriptor of the disk's device.
int put_sector(const void* sector, int fd, uint32_t disk, int32_t block, uint64_t target);
// put_sector of a block header at the block's address; the disk's block
// index takes the header's new times and count when the write succeeded.
int put_head(const TQvBlkInfo& hd, int fd, uint32_t disk, int32_t block, uint64_t blkAddr);

// Advances a block header by a slice entry that the block's space and time
// range must cover: `next` to the entry's dataEnd rounded up to 4 KiB and
// `endTime` to the entry's, for an entry whose regions are consistent (no
// reserved area, or a complete one inside the block). True when a field
// moved (the header must then be written). Caller holds the record lock.
bool advance_header(TQvBlkInfo& hd, const TQvBlkSliceInfo& s, uint64_t unitSize);

// Advances the header of the block whose shared record has share index
// `shareIndex` (lock id `lockId`) by an entry and writes it through fd when
// it moved, also from a process that does not have the block loaded. The
// record must still be that of {disk, block}; otherwise nothing is done.
// Takes the record lock. 0, or -1 (record gone, header write failed).
int push_header(uint32_t shareIndex, int lockId, uint32_t disk, uint32_t block, const TQvBlkSliceInfo& s,
                int fd);

// fdatasync of the disk's device through the handle's descriptor. 0 or -1.
int flush_block_device(TQvBlkRec* h);

// Whether slice number k names a directory entry of the header: 1 <= k and
// k * 512 < Len. A header with Len 0 has none.
inline bool slice_in_directory(const TQvBlkInfo& h, uint64_t k) {
    return k >= 1 && k < (h.Len / kSector);
}

// The slice number (four hexadecimal characters 15 before the first '.') and
// the check code (four characters 11 before it) of a text name or a path
// ending in one. Both need a first '.' at least 23 characters from the start.
bool name_slice_number(const char* name, uint32_t* slice);
const char* name_check_code(const char* name);
// Whether everything after the name's first '.' is exactly the entry's
// extension: a name must be given with the extension it was made with.
bool name_extension_matches(const char* name, const TQvBlkSliceInfo& entry);
// Whether a create request's extension can be part of a name that every
// call and tool can give back: 1 to 7 printable characters, no '/'.
bool extension_acceptable(const char (&ext)[8]);
// Whether the disk layer holds the block as allocated (in use or bad): a
// free block holds no file, whatever its front still shows.
bool block_in_use(uint32_t disk, int32_t block);

// The handle in slot i of the process's block table, or null. For the dump
// and tests; the caller holds g_tBlkFileMutex when others may change it.
TQvBlkRec* table_entry(uint32_t slot);

// Gives the block of a loaded record back to the disk layer (the channel
// whose tables count it; type and self-info length from the header) and,
// when that succeeded, clears the shared header copy to match the zeroed
// block front. The caller holds the record lock, or g_tBlkFileMutex with the
// last reference.
int release_block(TQvBlkShare* rec, uint32_t chn);

// Scans `sectors` sectors of buf like _bf_ScanSlices.
int scan_sectors(const TQvBlkRec* handle, const void* buf, uint32_t sectors, TQvFileStat* out,
                 int n);

}  // namespace qvfs::bf
