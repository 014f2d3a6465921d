/*
 * fsc.h - common services: error convention, allocator and I/O hooks,
 * inter-process locks, shared-memory pools and keys, disk naming, block
 * types, the shared parameter and recording file names.
 *
 * Every function here has C linkage and is exported. Unless a comment says
 * otherwise a failure returns -1 (or null) with a library code in errno.
 */
#ifndef QVFS_FSC_H
#define QVFS_FSC_H

#include "qvfs_types.h"

QVFS_EXTERN_C_BEGIN

/* ---- allocator and hooks ------------------------------------------------ */

/* Sets both allocator hooks to null (system malloc/free). Returns 0. */
QVFS_API int qvfs_InitAllocatorInterface(void);
/* Replaces both hooks; one null pointer changes nothing. Returns 0. */
QVFS_API int qvfs_RegistAllocatorInterface(QvfsAllocFn allocHook, QvfsFreeFn freeHook);
QVFS_API void* qvfs_Malloc(uint32_t size);
QVFS_API void qvfs_Free(void* p);

/* Device I/O hooks: exactly read(2) / write(2); type is ignored. */
QVFS_API int TCT_Read(int fd, void* buf, uint32_t len, int type);
QVFS_API int TCT_Write(int fd, const void* buf, uint32_t len, int type);
/* Call-count hooks: both return 0. */
QVFS_API int counttest_BlkType2CountTestType(int blkType);
QVFS_API int countest_GetCallFuncObj(int callId);

/* "%F_%T" of the local time of seconds; strftime's result. */
QVFS_API int qvfs_GetTimeString(uint32_t seconds, char* buf, uint32_t size);

/* ---- inter-process locks -------------------------------------------------- */

/* Creates or opens the one-semaphore set of key; returns its id or -1. */
QVFS_API int fsc_ProcLockInit(int key);
/* Take / release (SEM_UNDO). A lock id of -1 makes both a no-op. */
QVFS_API void fsc_ProcLock(int semId);
QVFS_API void fsc_ProcUnlock(int semId);

/* ---- shared memory pools ------------------------------------------------------ */

#define QVFS_SHARE_INDEXES 2073
#define QVFS_FILE_REC_SIZE 648
#define QVFS_BLKFILE_REC_SIZE 544
#define QVFS_DISK_REC_SIZE 262672
#define QVFS_FILE_LIST_SIZE 16585
#define QVFS_SHR_POOL_SIZE 0x95000

/* Owner list segment: owner key of each share index and the parameter byte. */
/* Packed: the segment is 16585 bytes, the parameter byte the last one. */
typedef struct __attribute__((packed)) TQvfsFileList {
    uint32_t owner[QVFS_SHARE_INDEXES][2]; /* low word, high word; 0 = free */
    uint8_t param1;                        /* offset 16584: online check flag */
} TQvfsFileList;

extern QVFS_API TQvfsFileList* g_stQvfsFileList;
extern QVFS_API void* g_stQvfsShrPool;

QVFS_API int fsc_GetShareKey(const char* path, int projId);
QVFS_API int fsc_GetShmKey(int shareIndex);
QVFS_API void* fsc_MallocV2(int key, uint32_t size, int* created, int* shmId);
QVFS_API int fsc_ShareInit(void);
QVFS_API void* fsc_TfMalloc(uint64_t ownerKey, uint32_t size);
QVFS_API void* fsc_BfMalloc(uint64_t ownerKey, uint32_t size);
QVFS_API void* fsc_DfMalloc(uint64_t ownerKey, uint32_t size);
QVFS_API void fsc_TfFree(void* record);
QVFS_API void fsc_BfFree(void* record);
QVFS_API void fsc_DfFree(void* record);
QVFS_API void* fsc_TfGetFileInfo(uint32_t shareIndex);
QVFS_API int fsc_GetDebugInfo(char* buf, int size);

/* ---- disk naming, block types, parameters -------------------------------------- */

QVFS_API int bf_GetPath(uint32_t disk, char* buf);
QVFS_API int fsc_GetDiskNumByPath(const char* path);
QVFS_API int fsc_GetBlkType(int fileType);
QVFS_API int fsc_BlkType2FileType(int blkType);
QVFS_API int fsc_GetSelfInfoLen(int blkType);
QVFS_API uint32_t fsc_DiskAtoI(int c);
QVFS_API uint8_t fsc_DiskItoA(uint32_t disk);
QVFS_API uint8_t fsc_DiskToLocation(int disk);
QVFS_API int fsc_SetParam(int param, int value);
QVFS_API int fsc_GetParam(int param, uint32_t* value);

/* ---- recording file names -------------------------------------------------- */

/* Writes the 24-character stem (ending with '.') into out (>= 25 bytes).
 * tag is bytes 8..15 of a slice entry (magic, verify): an empty tag gets a
 * fresh check code and "QVND". kind 1 'L', 2 'B', else 'C'. Returns 0. */
QVFS_API int _bf_MakeFileName(uint32_t disk, int32_t block, uint32_t slice, char* out,
                              uint8_t* tag, uint32_t kind);
/* {disk, block} of a text name or a path ending in one; 0 or -1. */
QVFS_API int _bf_ParseFileName(const char* name, uint32_t* diskAndBlock);
QVFS_API int fsc_FileName16To27(const uint8_t* name16, char* out, int n);
QVFS_API int fsc_FileName27To16(uint8_t* name16, const char* name27);

QVFS_EXTERN_C_END

#ifdef __cplusplus
static_assert(sizeof(TQvfsFileList) == QVFS_FILE_LIST_SIZE, "owner list size");
static_assert(offsetof(TQvfsFileList, param1) == 16584, "parameter byte offset");
#endif

#endif /* QVFS_FSC_H */
