/*
 * qvfs.h - public interface of the qvfs recording file system.
 *
 * Compiles as C99 and as C++. Link with -lqvfs (pkg-config qvfs).
 *
 * Conventions. A failing call returns -1 (or the value its comment names)
 * and leaves one of the codes of qvfs_types.h in errno; a failed system call
 * is reported as QVFS_ERR_SYS + its errno. Some refusals return -1 and leave
 * errno as it was; their comments say "errno untouched". Before a successful
 * qvfs_Init every call that tests it fails with errno QVFS_ERR_NOTINIT
 * (-1010); the calls that do not test it say so.
 *
 * Threads. Any thread may call. Calls on one handle are serialised by the
 * handle's own lock; calls on different handles run in parallel. A handle
 * must not be used by other threads while one thread closes it.
 *
 * Processes. Every process calls qvfs_Init once. Disks, blocks and files are
 * shared between processes through System V shared memory and semaphores; a
 * file opened by name in one process may be written by another at the same
 * time (live playback while recording).
 *
 * Lifecycle. qvfs_Init starts the library in a process; a second call there
 * changes nothing and keeps the handles. A process closes its handles and
 * unmounts its disks (qvfs_UnMount: this process only) before it exits, or
 * calls qvfs_DeInit, which closes them all. A process that dies without
 * doing so loses nothing its returned writes acknowledged (the file entries
 * on the device carry it), and the file records it held are given back by
 * the task check of the processes that remain (qvfs_SetMainTask). The flush
 * thread brings written data to the device in the background.
 *
 * Why a call failed. errno holds a code of qvfs_types.h, shared by many
 * causes; qvfs_LastReason names the one cause (disk full, not mounted,
 * handle table full, no such file, ...) and qvfs_ErrorString words both.
 *
 * The road of one recording:
 *   qvfs_Init(); qvfs_Mount("/dev/scsi/host00/part1");
 *   TQvfsOpenParam p = {0}; p.chn = 3; p.startTime = time(NULL); ...
 *   char name[64]; int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
 *   qvfs_Write(h, buf, len); ... qvfs_Close(h);
 *   h = qvfs_Open(NULL, name, QVFS_O_RDONLY); qvfs_Read(h, buf, len); ...
 */
#ifndef QVFS_H
#define QVFS_H

#include <sys/uio.h> /* struct iovec */

#include "qvfs_types.h"

QVFS_EXTERN_C_BEGIN

/* ---- allocator, I/O hooks and small helpers ----------------------------- */

/* Resets both allocator hooks to the system allocator. Returns 0. */
QVFS_API int qvfs_InitAllocatorInterface(void);
/* Replaces both allocator hooks; a null pointer for either changes nothing.
 * Hooks registered before qvfs_Init are dropped by it. Returns 0. */
QVFS_API int qvfs_RegistAllocatorInterface(QvfsAllocFn allocHook, QvfsFreeFn freeHook);
QVFS_API void* qvfs_Malloc(uint32_t size);
QVFS_API void qvfs_Free(void* p);
/* Formats seconds since the epoch as local "YYYY-MM-DD_hh:mm:ss".
 * Returns the length written, 0 when it does not fit. */
QVFS_API int qvfs_GetTimeString(uint32_t seconds, char* buf, uint32_t size);

/* ---- library lifecycle ---------------------------------------------------- */

/* Build stamp kept for older applications; it does not change with the
 * library. qvfs_Version gives the library's version ("major.minor.patch",
 * the same as the shared object's). */
extern QVFS_API const char* g_pcSvnVersion;
QVFS_API const char* qvfs_Version(void);

/* Starts the library in this process: makes the key directory "/dvr/qvfs"
 * when missing, clears the handle table, resets the allocator hooks, starts
 * the layers (shared tables, semaphores, the flush thread) and opens the
 * task device (which may be missing). Call before any other call. A second
 * call in a process that is started returns 0 and changes nothing (its
 * handles stay valid); a forked child starts the library afresh. 0, or the
 * layers' non-zero result with errno QVFS_ERR_INITFAILED (the library then
 * stays uninitialised; it may be called again). */
QVFS_API int qvfs_Init(void);
/* Syncs (when writable) and closes every handle this process still holds.
 * Shared state stays for the other processes, and the library stays
 * initialised: later calls still work. Does nothing before qvfs_Init. */
QVFS_API void qvfs_DeInit(void);

/* Options of qvfs_SetOpt, one bit each. */
/* Switches the disk online check off for every process sharing the disks
 * (for devices that do not answer the presence request). There is no option
 * that switches it back on. */
#define QVFS_OPT_NO_ONLINE_CHECK (1ULL << 0)

/* Applies every set bit of options from bit 0 up: the result of the last
 * option applied, or -1 when none was. An unknown bit leaves errno
 * QVFS_ERR_BADHANDLE and the walk goes on. */
QVFS_API int qvfs_SetOpt(uint64_t options);
/* Starts this process's task-check thread, which every 5 seconds reclaims
 * the file references of recorder processes that have died. Does not test
 * the initialised flag. 0, or -1 (errno untouched) when the thread cannot be
 * started; a second call returns 0. */
QVFS_API int qvfs_SetMainTask(void);
/* The file layer's error number recorded in a handle after its last read or
 * write: 0, 5 (the disk failed or went offline; the block is marked bad),
 * 28 (the write ended in the last 4 MiB of its block: time to open a new
 * file), or QVFS_ERR_SYS + EFAULT / EINVAL (the caller's buffer or iovec
 * could not be used; the disk and the block are fine). 0 for an unknown
 * handle; a negative handle also leaves errno QVFS_ERR_BADHANDLE. */
QVFS_API int qvfs_error(int handle);

/* ---- handles and streams ---------------------------------------------------- */

/* File types (TQvfsOpenParam.fileType). The type decides the block type of
 * the block a file goes into; any other value records as QVFS_FILE_REC. */
#define QVFS_FILE_REC 0    /* video recording */
#define QVFS_FILE_PREREC 1 /* recording with a pre-record ring of resSize bytes */
#define QVFS_FILE_KEEP 2   /* recording kept apart (BACK block, 'B' in its name, entry lock 2) */
#define QVFS_FILE_IMG 3
#define QVFS_FILE_BACK 4
#define QVFS_FILE_PIC 5    /* pictures */
#define QVFS_FILE_FPD 6
#define QVFS_FILE_ITS 7

/* Block types (a block's data type, QvfsBlockStat word 2, the dataType
 * argument of the block queries), labelled as the tool prints them. */
#define QVFS_BLK_REC 0  /* file types 0, 1 and any other value */
#define QVFS_BLK_IMG 1  /* file type 3 */
#define QVFS_BLK_BACK 2 /* file types 2 and 4 */
#define QVFS_BLK_PIC 3  /* file type 5 */
#define QVFS_BLK_FPD 4  /* file type 6 */
#define QVFS_BLK_ITS 5  /* file type 7 */

/* Open flags (the third argument of the open calls). */
#define QVFS_O_RDONLY 0
#define QVFS_O_WRONLY 1
#define QVFS_O_RDWR 2

/* Opens a file and returns its handle (>= 0), or -1 with errno
 * QVFS_ERR_BADARG whatever the cause (no such file, no free handle, no
 * memory, no room on the disk).
 *   param null: opens the existing file named by path (its 27-character name
 *     with the extension it was created with, or a device path followed by
 *     it).
 *   param set: creates a new file as the record describes and writes its
 *     name (27 characters plus the extension) into path, which must then
 *     hold at least 33 bytes. The extension (ext) is 1 to 7 printable
 *     characters without '/'. File type 1 with a resSize above 0 reserves
 *     that many bytes for the pre-record ring (see qvfs_UpdataePreRecPtr);
 *     a negative resSize, or one larger than a block's data area, is
 *     refused.
 * A process has at most 1024 handles open. Opening one file several times
 * gives separate handles, each with its own position. */
QVFS_API int qvfs_OpenV2(TQvfsOpenParam* param, char* path, int flags);
/* As qvfs_OpenV2 with the older 96-byte parameter record (no previous-file
 * name); param96 may be null. */
QVFS_API int qvfs_Open(const void* param96, char* path, int flags);

/* Read / write len bytes at the handle's position and advance it.
 * The count transferred, 0 for len 0 (whatever the handle), or -1:
 * QVFS_ERR_BADARG for a null buffer; errno untouched for a stale handle or
 * a handle opened without the access; a failing disk or a read at the end
 * of the file gives -1 with the reason in qvfs_error(handle); a buffer the
 * system cannot use gives -1 with QVFS_ERR_SYS + EFAULT. A write that
 * reaches beyond the file's end grows it; one that does not fit where the
 * file may grow (the reserved area of a file whose pre-record phase has not
 * ended) is refused whole with QVFS_ERR_BLOCKRANGE. */
QVFS_API int qvfs_Read(int handle, void* buf, uint32_t len);
QVFS_API int qvfs_Write(int handle, const void* buf, uint32_t len);
/* Gathering write of count entries, written as one piece; as qvfs_Write,
 * except that a null iov leaves errno untouched and count 0 returns 0. */
QVFS_API int qvfs_Writev(int handle, const struct iovec* iov, int count);

/* Moves the position: whence 1 from the current position, 2 from the file's
 * end, any other value (0) from the start. The new position, or 0 (position
 * 0) when the target is negative or beyond the block size; -1 for a bad
 * handle. */
QVFS_API int64_t qvfs_Seek(int handle, int64_t offset, int whence);
/* The position, or -1. */
QVFS_API int64_t qvfs_Tell(int handle);
/* 1 when the position is at or beyond the file's end, 0 before it, -1. */
QVFS_API int qvfs_Eof(int handle);
/* Returns once the file's bytes and its description (length, end time) are
 * durable on the device: they survive a power cut. 0, or -1 (errno
 * untouched for a handle opened read-only; QVFS_ERR_SYS + errno when the
 * device could not be flushed). Without it, written bytes are durable and
 * covered by the file's length on the device within two flush periods (see
 * the README); every process reads them at once either way. */
QVFS_API int qvfs_fsync(int handle);
/* Sets the file's length: the main data grows or shrinks; the pre-record
 * part cannot be cut. 0, or -1 (errno untouched for a handle opened without
 * write access; QVFS_ERR_BLOCKRANGE beyond the block, or beyond the reserved
 * area while the pre-record phase lasts). */
QVFS_API int qvfs_ftruncate(int handle, int64_t length);
/* Ends the pre-record phase of a file created with a reserved area (file
 * type 1): the valid ring is [preStart, preEnd) inside the reserved area
 * (wrapping when preEnd < preStart), and the main data starts empty behind
 * the area. The file then reads as the ring, oldest byte first, followed by
 * the main data; seek to the end (qvfs_Seek(h, 0, 2)) to append. Until then
 * the file is the reserved area, written and read from its start. Both
 * offsets count from the area's start and lie inside it (0 <= offset <
 * resSize). 0, or -1: QVFS_ERR_BADARG, with nothing changed, for a file
 * without a reserved area or an offset outside it. */
QVFS_API int qvfs_UpdataePreRecPtr(int handle, int32_t preStart, int32_t preEnd);
/* Stores the file's description in its block (when writable) and closes the
 * handle; durability comes with the next flush (qvfs_fsync waits for it).
 * 0, also for a handle that is not open (a negative one leaves errno
 * QVFS_ERR_BADHANDLE); -1 only before qvfs_Init. */
QVFS_API int qvfs_Close(int handle);
/* Debug dump of the handle table followed by the layers' dumps (files,
 * blocks, disks), tab-separated, into buf. The text length; 0 for a null
 * buf or a size below 1024. */
QVFS_API int qvfs_GetDebugInfo(char* buf, int size);

/* ---- calls by path ---------------------------------------------------------- */

/* A time value as struct timeval of the 32-bit recorders: seconds, then a
 * fraction of a second (not used). */
typedef struct TimeValue {
    int32_t tv_sec;
    int32_t tv_usec;
} TimeValue;

/* Each of these opens the named file for the duration of the call (using one
 * handle slot) and returns 0, or -1: QVFS_ERR_BADARG for a missing argument
 * or a file that cannot be opened; for a change, the code of a status write
 * that failed. */

/* The file's status record: length, end time, channel, lock state, record
 * type, creation time, user parameter and name. */
QVFS_API int qvfs_Stat(const char* path, TQvFileStat* stat);
/* The same for an open handle (-1, errno untouched, for a stale one). */
QVFS_API int qvfs_fstat(int handle, TQvFileStat* stat);
/* Sets the file's lock value (0 normal, 1 locked, 2 backup). Locking (1) and
 * unlocking (0) also count the file in or out of its block's locked files. */
QVFS_API int qvfs_Lock(const char* path, int32_t lockValue);
/* Sets the creation time to the seconds of createTime. */
QVFS_API int qvfs_ChangeCreateTime(const char* path, TimeValue createTime);
/* Sets the end (modification) time to the seconds of times[1], as utimes. */
QVFS_API int qvfs_ChangeTime(const char* path, const TimeValue* times);
/* Sets the record type. Types 1 and 2 form one class; moving a file into or
 * out of it moves the block's count of files of other types. */
QVFS_API int qvfs_ChangeRecType(const char* path, int32_t recType);
/* Copies len (1 to 32) bytes to the start of the 32-byte user parameter;
 * the rest keeps its bytes. */
QVFS_API int qvfs_SetUsrParam(const char* path, const void* data, int len);

/* Information mask of qvfs_GetFileInfo / qvfs_SetFileInfo: the items of the
 * array belong, in order, to the set bits the call handles. */
#ifndef QVFS_INFO_PRENAME
#define QVFS_INFO_PRENAME 1        /* get only: previous file's name, item len >= 32 */
#endif
#ifndef QVFS_INFO_VIDEO_ABSTRACT
#define QVFS_INFO_VIDEO_ABSTRACT 2 /* 32-bit word, item len >= 4 */
#endif
/* User-data entries of function ids 4, 8, 16, 32 and 64 (at most
 * QVFS_USERDATA_MAX bytes each, all of them together in 348 bytes). A get
 * writes the number of bytes delivered into the item's len. */
#define QVFS_INFO_USERDATA_4 4
#define QVFS_INFO_USERDATA_8 8
#define QVFS_INFO_USERDATA_16 16
#define QVFS_INFO_USERDATA_32 32
#define QVFS_INFO_USERDATA_64 64
#define QVFS_USERDATA_MAX 344

/* Reads / writes the selected pieces of file information. path, items and
 * the first item's buffer must be set and count must not be 0. The layer's
 * result: 0, or -1 when a piece could not be converted (a set then changes
 * nothing). */
QVFS_API int qvfs_GetFileInfo(const char* path, uint32_t infoMask, TQvFileInfo* items, int count);
QVFS_API int qvfs_SetFileInfo(const char* path, uint32_t infoMask, TQvFileInfo* items, int count);
/* Deletes the file when no handle of any process holds it; the block goes
 * back to the disk when its last file goes. 0 or -1 (a null path, or a file
 * that is open somewhere: errno untouched). */
QVFS_API int qvfs_Unlink(const char* path);

/* ---- disks and blocks ---------------------------------------------------------- */

/* Disks are named by the device path of their partition,
 * "/dev/scsi/hostNN/part1" (NN = 00 to 24). A null required pointer makes
 * these calls return -1 with errno untouched; everything else is the disk or
 * block layer's result. */

/* Format modes of qvfs_FormatEx. */
#define QVFS_FORMAT_META 0        /* write the metadata only */
#define QVFS_FORMAT_CLEAR_HEADS 1 /* also zero the head of every block */

/* Formats the whole device (mode 0), with a mode, or only its first size
 * bytes (mode 0). Every file on the disk is lost (every mode clears the
 * first sector of each block, so no earlier name opens); the disk must be
 * mounted again afterwards. 0 or -1 (QVFS_ERR_FMT_TOOSMALL when the device
 * or the size cannot hold one block). Blocks start at dataStart 0x41100000
 * and one block's worth at the device's end never belongs to a block, so a
 * disk holds its first block from 0xC1100000 bytes (3089 MiB) on and one
 * more per GiB. */
QVFS_API int qvfs_Format(const char* path);
QVFS_API int qvfs_FormatEx(const char* path, uint32_t mode);
QVFS_API int qvfs_FormatMini(const char* path, uint64_t size);
/* Mounts the disk for this process: QVFS_ERR_NOTFORMATTED for a disk that
 * carries no qvfs format, QVFS_ERR_DAMAGED for a header that breaks the
 * format's layout or describes more than the device holds. Damaged status
 * bytes or table entries are not trusted: a block of unknown status counts
 * as bad. */
QVFS_API int qvfs_Mount(const char* path);
/* Ends this process's use of the disk; the disk stays usable by the other
 * processes that mounted it. Returns once everything written to the disk
 * (by any process) and the files' descriptions are durable on the device. */
QVFS_API int qvfs_UnMount(const char* path);
/* Unmounts the disk for every process at once, durably as qvfs_UnMount. */
QVFS_API int qvfs_UnMount_V2(const char* path);
/* Fills a TQvStatfs (out): sizes in 512-byte units, the number of bad
 * blocks in f_spare[0]. -1 with errno untouched when the disk is not ready. */
QVFS_API int qvfs_Statfs(const char* path, void* out);
/* Number of blocks of the disk's data area, in use or not; 0 for a disk
 * that is not ready. */
QVFS_API int qvfs_GetUsedBlockNum(const char* path);
/* One TQvDiskBlkInfo per block in use among the first count blocks; the
 * number of records written. */
QVFS_API int qvfs_GetBlockInfo(const char* path, TQvDiskBlkInfo* out, int count);
/* The blocks holding a channel's recordings of one block type over a time
 * range: the blocks in use of channel chn (or QVFS_ANY_CHANNEL) and block
 * type blkType (a QVFS_BLK_* or QVFS_ANY_BLK_TYPE) that hold files and whose
 * recorded time [startTime, max(startTime, endTime)] meets [from, to] (a
 * block whose files hold no data yet, endTime 0, reaches on). The
 * disk keeps an index of its blocks for this, shared by every process and
 * current with every allocation and block-header write, so the cost grows
 * with the answer, not with the disk: no block header is read. Returns how
 * many blocks match, and writes the max earliest of them by start time
 * (then block number) to out, in that order, as qvfs_GetBlockInfo would
 * describe them (the times and file count of their headers). max 0 with a
 * null out only counts. -1: QVFS_ERR_BADARG (null path, no disk, negative
 * max, null out with max > 0, disk not mounted), QVFS_ERR_SYS + errno (the
 * index cannot be made). */
QVFS_API int qvfs_FindBlocks(const char* path, uint32_t chn, uint32_t blkType, int64_t from, int64_t to,
                             TQvDiskBlkInfo* out, int max);
/* The block a channel is currently filling with a file data type, or -1. */
QVFS_API int qvfs_GetUsedInBlockId(const char* path, uint32_t channel, uint32_t dataType);
/* Space a channel holds with a file data type, in MiB; -2 with errno
 * QVFS_ERR_OLDVERSION on a disk of format version 1 or lower. */
QVFS_API int qvfs_GetUsedSizeOfDataType(const char* path, uint32_t channel, uint32_t dataType);
/* Marks bad every block that overlaps the device bytes [offset,
 * offset + length). */
QVFS_API int qvfs_TagBadUnit(const char* path, uint64_t offset, uint32_t length);
/* The status records of the files in a block, at most count; the number
 * written. */
QVFS_API int qvfs_BlockStat(const char* path, uint32_t blockId, TQvFileStat* out, int count);
/* One 512 KiB segment of the same listing into the caller's buffers. */
QVFS_API int qvfs_BlockStatSeg(TQvBlkSegQuery* query);
/* Number of files in a block. */
QVFS_API int qvfs_GetFileNum(const char* path, uint32_t blockId);

/* Public block-status record, eight 32-bit words. */
typedef struct QvfsBlockStat {
    uint32_t diskId;    /* 0 */
    uint32_t blkId;     /* 1 */
    uint32_t dataType;  /* 2: block type, 0 REC, 1 IMG, 2 BACK, 3 PIC, 4 FPD, 5 ITS */
    uint32_t locked;    /* 3: 1 when the block holds a locked file */
    uint32_t otherType; /* 4: 1 when it holds a file of a record type other than 1 and 2 */
    uint32_t state;     /* 5: 0 not allocated, 1 current block of its channel and type, 2 allocated */
    uint32_t endTimeLo; /* 6: the block's end time, low word */
    uint32_t endTimeHi; /* 7: high word */
} QvfsBlockStat;

/* Lifts the bad mark of a block after the disk was found sound again. The
 * block's header on the device decides what it returns to: in use when the
 * header counts files, or when a channel's current-block entry names the
 * block; free otherwise (a header that is not zero is zeroed first, and the
 * block-count entry its header names drops by one). The status map is
 * written to both meta regions. Returns the new status, 0 free or 1 in use;
 * -1: QVFS_ERR_NOTINIT, QVFS_ERR_BADARG (path names no disk, disk not
 * mounted), QVFS_ERR_BADHANDLE (block beyond the disk), QVFS_ERR_NOTBAD (the
 * block is not marked bad), QVFS_ERR_SYS + errno (the header cannot be read
 * or the metadata not written: the mark stays); a null path returns -1 with
 * errno untouched. Takes the disk's lock. */
QVFS_API int qvfs_ClearBadBlock(const char* path, uint32_t blockId);
/* Number of references all processes hold on the block's shared record:
 * open files, writers, listings in progress; 0 when no process has the
 * block loaded. Neither loads the block nor reads the disk, so the answer
 * may change as soon as it is given. -1: QVFS_ERR_NOTINIT, QVFS_ERR_BADARG
 * (disk above 24), QVFS_ERR_BADHANDLE (block 131072 or more). */
QVFS_API int qvfs_GetBlockUsers(uint32_t disk, uint32_t blockId);
/* Marks a block for release: it goes back to the disk, with every file in
 * it, as soon as no process uses it. Does not test the initialised flag.
 * 0, or -1 when the block cannot be loaded. */
QVFS_API int qvfs_BlockUnlink(uint32_t disk, uint32_t blockId);
/* The block's status. Does not test the initialised flag. 0, or -1:
 * QVFS_ERR_BADARG for a null out, else the block layer's failure (out
 * untouched). */
QVFS_API int qvfs_GetBlockStat(uint32_t disk, uint32_t blockId, QvfsBlockStat* out);

/* ---- error messages ------------------------------------------------------------ */

/* Words for a code that a call left in errno, for messages to people: every
 * code and reason of qvfs_types.h, QVFS_ERR_SYS + a system errno (the system's message),
 * 2 * QVFS_ERR_SYS + errno (a format whose metadata writes failed), a bare
 * system errno, and "unknown error" for anything else. Never null. The text
 * is static or lives in a buffer of the calling thread that its next call
 * overwrites. Does not test the initialised flag; any thread may call. */
QVFS_API const char* qvfs_ErrorString(int code);

/* The cause of the calling thread's last failure, one of the QVFS_WHY_*
 * reasons of qvfs_types.h (qvfs_ErrorString words it). Every call that tests
 * the initialised flag clears it on entry, so it tells about the thread's
 * last such call: QVFS_WHY_NONE after a success, or after a failure whose
 * errno code says all that is known (a system error, say). Any thread may
 * call; does not test the initialised flag. */
QVFS_API int qvfs_LastReason(void);

QVFS_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(TimeValue) == 8 && offsetof(TimeValue, tv_sec) == 0 && offsetof(TimeValue, tv_usec) == 4);
static_assert(sizeof(QvfsBlockStat) == 32 && offsetof(QvfsBlockStat, diskId) == 0);
static_assert(offsetof(QvfsBlockStat, blkId) == 4 && offsetof(QvfsBlockStat, dataType) == 8);
static_assert(offsetof(QvfsBlockStat, locked) == 12 && offsetof(QvfsBlockStat, otherType) == 16);
static_assert(offsetof(QvfsBlockStat, state) == 20 && offsetof(QvfsBlockStat, endTimeLo) == 24);
static_assert(offsetof(QvfsBlockStat, endTimeHi) == 28);
#if defined(__arm__) && !defined(__aarch64__)
/* On the recorders' 32-bit ARM C library the interface records are its own
 * stat64, statfs64 and timeval, field for field. */
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>
static_assert(sizeof(long) == 4 && sizeof(void*) == 4 && sizeof(time_t) == 4);
static_assert(sizeof(struct stat64) == sizeof(TQvStat64));
static_assert(offsetof(struct stat64, st_size) == offsetof(TQvStat64, st_size));
static_assert(offsetof(struct stat64, st_blksize) == offsetof(TQvStat64, st_blksize));
static_assert(offsetof(struct stat64, st_blocks) == offsetof(TQvStat64, st_blocks));
static_assert(offsetof(struct stat64, st_mtim) == offsetof(TQvStat64, st_mtim));
static_assert(offsetof(struct stat64, st_ctim) == offsetof(TQvStat64, st_ctim));
static_assert(offsetof(struct stat64, st_ino) == offsetof(TQvStat64, st_ino));
static_assert(sizeof(struct statfs64) == sizeof(TQvStatfs));
static_assert(offsetof(struct statfs64, f_blocks) == offsetof(TQvStatfs, f_blocks));
static_assert(offsetof(struct statfs64, f_bfree) == offsetof(TQvStatfs, f_bfree));
static_assert(offsetof(struct statfs64, f_bavail) == offsetof(TQvStatfs, f_bavail));
static_assert(offsetof(struct statfs64, f_spare) == offsetof(TQvStatfs, f_spare));
static_assert(sizeof(struct timeval) == sizeof(TimeValue));
static_assert(sizeof(TQvFileInfo) == 8 && offsetof(TQvFileInfo, len) == 4);
#endif
#endif

#endif /* QVFS_H */
