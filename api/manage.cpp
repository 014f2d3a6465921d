// manage.cpp - disk and block management: thin gates in front of the disk
// and block-file layers. Each refuses work before qvfs_Init, returns -1 with
// errno untouched for a missing required pointer, and otherwise returns
// exactly what the layer returns; the few that fix an argument or convert a
// result say so.
#include <cstring>

#include "api/handle_table.h"
#include "blockfile/bf.h"
#include "disk/df.h"

using namespace qvfs::api;

static_assert(sizeof(QvfsBlockStat) == sizeof(TQvBlkStat));

namespace {

// The block header keeps its locked-file and other-record-type counts
// biased by -65536 (they start at 0xFFFF0000), so a count read as a signed
// 32-bit number is -65535 or more exactly when it counts at least one file.
uint32_t counts_any(uint32_t biased) { return static_cast<int32_t>(biased) >= -65535 ? 1u : 0u; }

}  // namespace

extern "C" {

int qvfs_Format(const char* path) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return df_DiskFormat(path, QVFS_FORMAT_META, 0);
}

int qvfs_FormatEx(const char* path, uint32_t mode) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return df_DiskFormat(path, mode, 0);
}

int qvfs_FormatMini(const char* path, uint64_t size) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return df_DiskFormat(path, QVFS_FORMAT_META, size);
}

int qvfs_Mount(const char* path) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return df_DiskMount(path);
}

int qvfs_UnMount(const char* path) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return df_DiskUnmout(path, 0);  // this process only
}

int qvfs_UnMount_V2(const char* path) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return df_DiskUnmout(path, 1);  // every process at once
}

int qvfs_Statfs(const char* path, void* out) {
    if (!initialised()) return -1;
    if (path == nullptr || out == nullptr) return -1;
    return df_DiskStatfs(path, static_cast<TQvStatfs*>(out));
}

int qvfs_GetUsedBlockNum(const char* path) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return static_cast<int>(df_GetDiskUsedBlockNum(path));
}

int qvfs_GetBlockInfo(const char* path, TQvDiskBlkInfo* out, int count) {
    if (!initialised()) return -1;
    if (path == nullptr || out == nullptr) return -1;
    return df_GetBlockInfo(path, out, count);
}

int qvfs_FindBlocks(const char* path, uint32_t chn, uint32_t blkType, int64_t from, int64_t to,
                    TQvDiskBlkInfo* out, int max) {
    if (!initialised()) return -1;
    return df_FindBlocks(path, chn, blkType, from, to, out, max);
}

int qvfs_GetUsedInBlockId(const char* path, uint32_t channel, uint32_t dataType) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return df_GetUsedInBlockOfDataType(path, channel, dataType);
}

int qvfs_GetUsedSizeOfDataType(const char* path, uint32_t channel, uint32_t dataType) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    // Disks of format version 1 carry no trustworthy block counts; a version
    // that cannot be read counts as 1.
    if (df_GetDiskVersion(path) > 1) return df_GetBlockNumOfDataType(path, channel, dataType);
    errno = QVFS_ERR_OLDVERSION;
    return -2;
}

int qvfs_TagBadUnit(const char* path, uint64_t offset, uint32_t length) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return df_TagBadUnit(path, offset, length);
}

int qvfs_BlockStat(const char* path, uint32_t blockId, TQvFileStat* out, int count) {
    if (!initialised()) return -1;
    if (path == nullptr || out == nullptr) return -1;
    return bf_BlockStat(path, blockId, out, count);
}

int qvfs_BlockStatSeg(TQvBlkSegQuery* query) {
    if (!initialised()) return -1;
    if (query == nullptr) return -1;
    return bf_BlockStatSeg(query);
}

int qvfs_GetFileNum(const char* path, uint32_t blockId) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return bf_GetBlockFileNum(path, blockId);
}

int qvfs_ClearBadBlock(const char* path, uint32_t blockId) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    // A path that names no disk gives a disk number the layer refuses; a
    // block number beyond int32 turns negative and is refused as a range.
    return df_ClearBadBlock(static_cast<uint32_t>(fsc_GetDiskNumByPath(path)), static_cast<int32_t>(blockId));
}

int qvfs_GetBlockUsers(uint32_t disk, uint32_t blockId) {
    if (!initialised()) return -1;
    return bf_GetBlockUsers(disk, blockId);
}

int qvfs_BlockUnlink(uint32_t disk, uint32_t blockId) { return bf_BlockUnlink(disk, blockId); }

int qvfs_GetBlockStat(uint32_t disk, uint32_t blockId, QvfsBlockStat* out) {
    if (out == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvBlkStat raw;
    std::memset(&raw, 0, sizeof raw);
    const int r = bf_GetBlockStat(disk, blockId, &raw);
    if (r != 0) return r;
    out->diskId = raw.diskId;
    out->blkId = raw.blkId;
    out->dataType = raw.dataType;
    out->locked = counts_any(raw.lock);
    out->otherType = counts_any(raw.recType);
    out->state = raw.state;
    out->endTimeLo = raw.endTimeLo;
    out->endTimeHi = raw.endTimeHi;
    return 0;
}

}  // extern "C"
