// tf.h - the file layer: files as byte streams shared by all processes, and
// the task check that reclaims the opens of processes that died.
//
// A file is one slice of one block. Every process that opens it holds one
// file handle (TQvFileHandle) in its file table; behind the handles of all
// processes stands one shared file record (TQvFileRec) with a copy of the
// file's slice entry.
//
// Locks (System V semaphores, SEM_UNDO), outer to the block-file layer's:
//   g_qvFileMutex  - the process's file table, inRef, and the name, shrRef
//                    and owner fields of every shared file record;
//   per-file lock  - one per record (TQvFileHandle::lockId): the record's
//                    slice copy, the handle's blkFile and the record's
//                    state in the state segment (file/flush.cpp).
// Nothing that holds a per-file lock waits for g_qvFileMutex or for
// g_tTimerMutex; so the flush pass (g_tTimerMutex, then per-file locks) and
// the reclamation of a dead process (g_qvFileMutex, then a flush pass) can
// take per-file locks inside them. Block-file calls are made inside either.
// The handle's errNo is stored whole and read without a lock.
//
// Failures return -1 (or null, or the value named below) with a library code
// in errno; no call throws.
#pragma once

#include <sys/uio.h>

#include "blockfile/bf.h"
#include "file/tf_format.h"
#include "fsc.h"
#include "qvfs_types.h"

extern "C" {

// The file-table lock, -1 until tf_Init.
extern QVFS_API int g_qvFileMutex;

// ---- layer start and stop -----------------------------------------------------------

// Clears the file table, creates or opens g_qvFileMutex (key file
// "/dvr/qvfs/qvfslayer", project number 97), attaches the owner list and the
// record pool (fsc_ShareInit, result ignored) and returns bf_Init's result.
// Once per process, before any other call of this layer.
QVFS_API int tf_Init(void);
// Releases one reference of every handle in the file table (once per
// handle, whatever its inRef). Returns 0.
QVFS_API int tf_Uninit(void);

// ---- open and close ----------------------------------------------------------------

// With param and name: creates a new file (bf_CreateFile) and writes its
// 27-character name (plus extension) into name, which must hold 33 bytes.
// With name only: opens the file named by a text name or a path containing
// one; a file this process has open already (name ends with its stored
// name, extension included) returns the same handle with one more reference. Otherwise null
// without an error code. Returns the handle, or null: 1002 for a name that
// leads to no usable file (empty, no '.', disk not ready, owner key 0), a
// full file table or no shared record; the block-file layer's code when the
// block file cannot be opened or created.
QVFS_API TQvFileHandle* tf_OpenFile(const TQvfsOpenParam* param, char* name);
// Releases one reference: the process's last one closes the block file and
// frees the handle, the last one of all processes frees the shared record.
// 0, or -1 with 1001 for a null handle. Takes g_qvFileMutex.
QVFS_API int tf_CloseFile(TQvFileHandle* handle);
// Deletes the file of a name when nobody else holds it: bf_Unlink's result.
// -1 with 1001 for a null name; -1 without an error code when another open
// of the file exists in this or another process (the file stays); -1 with
// the open's code when no handle can be made for the name. g_qvFileMutex is
// held from the test to the end of the deletion, so an open of the same
// file in any process either comes first (the unlink is refused) or finds
// the file gone; never both succeed.
QVFS_API int tf_Unlink(const char* name);

// Finds the handle whose stored name ends name (one more reference) or
// makes a new handle and attaches the file's shared record (first reference).
// Does not open the block file. Null with 1002 on failure; the file table and
// the records are then as before. Takes g_qvFileMutex.
QVFS_API TQvFileHandle* _tf_GetFile(const char* name);
// The create path of tf_OpenFile.
QVFS_API TQvFileHandle* _tf_CreateFile(const TQvfsOpenParam* param, char* name);

// ---- file I/O -----------------------------------------------------------------------
// A file is up to three parts laid end to end: the older piece of a wrapped
// pre-record ring, the rest of the ring, then the main data; before the
// pre-record pointers are set, a file with a reserved area is that area,
// addressed linearly from resStart and never beyond resEnd. Every call runs
// under the per-file lock.

// Maps [pos, pos + len) onto block addresses: fills addr[] and lens[] (room
// for 10 entries) in file order and returns the number of segments (1..3).
// Reads are bounded by dataEnd, writes by 0x7FFFFFFF (by resEnd before the
// ring pointers are set). -1 with 1001 for a
// null slice or array; -1 without an error code for len 0 or when nothing
// of the range lies in the file. Pure arithmetic.
QVFS_API int _tf_MapSegments(uint32_t pos, uint32_t len, const TQvBlkSliceInfo* slice,
                             uint32_t* addr, uint32_t* lens, int isRead);
// Reads up to len bytes from file position pos; returns the bytes read, or
// -1 (1001 null argument; no code for len 0 or pos at or beyond the end; a
// failed block read leaves the block layer's outcome in errNo). A read never
// runs past the end of the file's block.
QVFS_API int tf_Read(uint32_t pos, void* buf, uint32_t len, TQvFileHandle* handle);
// Writes len bytes at file position pos; returns len, or -1 (as tf_Read;
// 1012, nothing written, for a range the file cannot take whole).
// A write that ends beyond dataEnd (and within the block) moves dataEnd and
// endTime and stores the slice entry (bf_Sync); one inside the data does not.
QVFS_API int tf_Write(uint32_t pos, const void* buf, uint32_t len, TQvFileHandle* handle);
// Gathering write of iovcnt entries at pos, split over the file's parts
// without copying data; returns the sum of the entry lengths, or -1 without
// an error code (null argument, negative count, sum 0 or above the block
// size; a failed block write leaves its outcome in errNo). Grows like
// tf_Write. More entries than one system writev takes are refused.
QVFS_API int tf_Writev(uint32_t pos, const struct iovec* iov, int iovcnt, TQvFileHandle* handle);
// Stores the record's slice entry in the block: bf_Sync's result, or -1 with
// 1001 for a null handle or one without record.
QVFS_API int tf_SyncFile(TQvFileHandle* handle);
// Sets the pre-record ring to [resStart + start, resStart + end) (wrapping
// when end < start) and empties the main data at resEnd; stores the entry.
// bf_Sync's result, or -1 with 1001 and nothing changed: null handle, a file
// without a reserved area, start or end not below the area's size.
QVFS_API int tf_UpdataePreRecPtr(TQvFileHandle* handle, uint64_t start, uint64_t end);
// Sets the file's length (the main data grows or shrinks; the pre-record
// part stays; before the ring pointers are set, the part of the reserved
// area that counts) and stores the entry. bf_Sync's result, or -1: 1001 null
// handle, 1012 length beyond the block size, a data end beyond the block or
// beyond the reserved area, no code for a length shorter than the
// pre-record part.
QVFS_API int tf_ftruncate(TQvFileHandle* handle, uint64_t length);

// ---- status and file information ------------------------------------------------

// Fills st_size, st_blocks, st_mtime, st_ctime, chn, lock, recType,
// startTime, usrParam and name of stat; the other bytes stay. 0, or -1 with
// 1001 for a null argument or a handle without record.
QVFS_API int tf_GetFileStat(TQvFileStat* stat, TQvFileHandle* handle);
// Copies lock, recType, endTime (from st_mtime), chn, startTime and usrParam
// back into the record and stores the entry under the per-file lock, then
// the name under g_qvFileMutex (the two are never held together):
// bf_Sync's result, or -1 with 1001 as above.
QVFS_API int tf_SetFileStat(const TQvFileStat* stat, TQvFileHandle* handle);

// Information mask bits; the items belong in order to the set bits the call
// handles (get: bits 0..6; set: bits 1..6).
#ifndef QVFS_INFO_PRENAME
#define QVFS_INFO_PRENAME 1
#endif
#ifndef QVFS_INFO_VIDEO_ABSTRACT
#define QVFS_INFO_VIDEO_ABSTRACT 2
#endif
// Bits 2..6 (values 4..64) select the user-data entry of that function id.

// Reads the selected pieces into the items. 0 (also for mask 0 or count
// <= 0), a converter's -1 (which ends the walk), or -1 with 1001 for a null
// handle or one without record. Under the per-file lock.
QVFS_API int tf_GetFileInfo(TQvFileHandle* handle, uint32_t mask, TQvFileInfo* items, int count);
// Writes the selected pieces from the items into a working copy of the slice
// entry; when every converter succeeded the copy replaces the record's entry
// and is stored: bf_Sync's result. A failing converter's -1 leaves the
// record unchanged.
QVFS_API int tf_SetFileInfo(TQvFileHandle* handle, uint32_t mask, TQvFileInfo* items, int count);

// Converters between the slice entry and one item; 0 or -1.
// Previous name: item len >= 32 with a buffer (else 1001); writes the
// 27-character name, or nothing when the entry has none.
QVFS_API int _Slice2TQvFileInfoPrename(const TQvBlkSliceInfo* slice, TQvFileInfo* item);
// Video abstract: item len >= 4 with a buffer (else 1001).
QVFS_API int _Slice2TQvFileInfoVideoAbstract(const TQvBlkSliceInfo* slice, TQvFileInfo* item);
QVFS_API int _TQvFileInfoVideoAbstract2Slice(const TQvFileInfo* item, TQvBlkSliceInfo* slice);
// User data of a function id (4, 8, 16, 32, 64). Get: 1001 null buffer, 1002
// id above 64, -1 without a code when the area is unused or holds no such
// entry; copies at most item->len bytes and writes the count to item->len.
QVFS_API int _Slice2TQvFileInfoUserData(const TQvBlkSliceInfo* slice, uint32_t funcId,
                                        TQvFileInfo* item);
// Set: 1001 null item or slice; 1002 len above 344, null buffer, id above
// 64, or a replacement that would not fit the area (the area is then
// unchanged). A new entry goes where the list ends; a replaced entry keeps
// its place and the entries behind it move to follow it.
QVFS_API int _TQvFileInfoUserData2SliceReserved(const TQvFileInfo* item, TQvBlkSliceInfo* slice,
                                                uint32_t funcId);
// Place of an entry in the user-data area (offsets from the area's start).
// Without endPointer: the first entry with funcId, else where the list ends,
// else -1. With endPointer: the last entry with funcId, else where the list
// ends, else 4; *endPointer receives where the list ends, or -1 when the
// walk reached the area's end without meeting it.
QVFS_API int _GetOffsetByFuncId(const TQvBlkSliceInfo* slice, uint32_t funcId, int* endPointer);

// bf_BlockOpt on the file's block under the per-file lock (-1 with 1001 for
// a null handle or one without block file).
QVFS_API int tf_BlockOpt(TQvFileHandle* handle, uint32_t op, int32_t arg);
// The handle's errNo, read under the per-file lock; -1 with 1001 for null.
QVFS_API int tf_GetErrorNo(TQvFileHandle* handle);

// The file table, one row per handle, then the block-file layer's dump.
// Returns the text length (0 and nothing written for a null buf or a size
// of 139 or less). Takes g_qvFileMutex slot by slot.
QVFS_API int tf_GetDebugInfo(char* buf, int size);

// ---- dead-process reclamation and task check ---------------------------------------

// Opens the task device "/dev/qvfs_task" once per process. 0, or -1 with
// 3000 + errno when it cannot be opened.
QVFS_API int tc_Init(void);
// Starts the task-check thread once per process (a second call returns 0).
// 0, or -1 without an error code when the thread cannot be created.
QVFS_API int tc_SetMainTask(void);
// The task-check thread: every 5 seconds reads the task list and reclaims the
// processes that left it. Without the task device it reclaims instead every
// process recorded in an owner slot that no longer exists. Never returns.
QVFS_API void* _tc_MainTaskProc(void* arg);
// Removes the opens of process pid from every shared file record and frees
// the records nobody holds any more. Returns 0. Takes g_qvFileMutex.
QVFS_API int tf_TfReleaseInvalid(int pid);
// Removes the opens of pid from one record: returns the remaining shrRef.
// The caller holds g_qvFileMutex.
QVFS_API int _tf_CheckProcessValid(TQvFileRec* rec, int pid);

}  // extern "C"

namespace qvfs::file {

// The handle in slot i of the process's file table, or null. For the dump
// and tests; the caller holds g_qvFileMutex when others may change it.
TQvFileHandle* table_entry(uint32_t slot);

// One poll of the task-check thread (the thread calls it every 5 seconds).
// With the task device: the list-difference reclamation; without it: the
// owner-slot sweep. Sets errno as the thread does.
void task_poll(void);

// Reclaims every process recorded in an owner slot that no longer exists
// (kill(pid, 0) fails with ESRCH), never the caller's own process. Returns
// the number of processes reclaimed.
int reclaim_vanished(void);

// Forgets the task device and the previous task list (tests: a fresh start
// after set_task_source).
void task_reset(void);

// Makes the file's written bytes and its entry durable: a flush of the
// device, the entry and header stored, and a second flush. What the result
// of bf_Sync is, or -1 with 3000 + errno when a flush failed. Takes the
// per-file lock.
int sync_durable(TQvFileHandle* handle);

}  // namespace qvfs::file
