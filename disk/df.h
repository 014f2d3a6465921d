// df.h - the disk layer: format, mount, flush thread, block allocation,
// bad blocks, usage queries and the debug dump.
//
// Every function takes the disk's lock itself unless its comment says the
// caller holds it; the disk's lock is always the innermost lock.
#pragma once

#include "disk/df_format.h"
#include "fsc.h"

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
QVFS_API int df_Init(void);
QVFS_API int df_Uninit(void);
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
QVFS_API int df_ReleaseBlock(uint32_t disk, int32_t block, uint32_t channel, uint32_t type,
                             uint32_t clearLen);
QVFS_API int64_t df_GetBlkAddr(uint32_t disk, int32_t block);
QVFS_API uint32_t df_IsBlockAllocated(uint32_t disk, int32_t block);

// ---- bad blocks ----
QVFS_API int df_TagBadBlock(uint32_t disk, int32_t block);
QVFS_API int df_TagBadUnit(const char* path, uint64_t offset, uint32_t length);

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
