// status.cpp - the file status record, block options and the error number.
#include <cerrno>
#include <cstring>

#include "common/proc_lock.h"
#include "file/tf_internal.h"

using namespace qvfs;
using namespace qvfs::file;

int tf_GetFileStat(TQvFileStat* stat, TQvFileHandle* handle) {
    if (stat == nullptr || handle == nullptr || handle->rec == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard file(handle->lockId);
    const TQvFileRec& rec = *handle->rec;
    const TQvBlkSliceInfo& s = rec.slice;
    // The length counts the pre-record ring (a ring with preStart == preEnd
    // counts as full) and the main data, or before the ring pointers are set
    // the bytes written into the reserved area.
    int64_t size = int64_t(qvfs::bf::file_length(s));
    stat->st.st_size = size;
    stat->st.st_blocks = size / 512;
    stat->st.st_mtim.tv_sec = int32_t(uint32_t(s.endTime));
    stat->st.st_ctim.tv_sec = int32_t(uint32_t(s.endTime));
    stat->chn = s.chn;
    stat->lock = s.lock;
    stat->recType = s.recType;
    stat->startTime = s.startTime;
    std::memcpy(stat->usrParam, s.usrParam, sizeof stat->usrParam);
    std::memcpy(stat->name, rec.name, sizeof stat->name);
    stat->name[sizeof stat->name - 1] = '\0';
    return 0;
}

int tf_SetFileStat(const TQvFileStat* stat, TQvFileHandle* handle) {
    if (stat == nullptr || handle == nullptr || handle->rec == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard file(handle->lockId);
    TQvFileRec& rec = *handle->rec;
    TQvBlkSliceInfo& s = rec.slice;
    s.lock = uint32_t(stat->lock);
    s.recType = stat->recType;
    s.endTime = uint64_t(int64_t(stat->st.st_mtim.tv_sec));
    s.chn = uint32_t(stat->chn);
    s.startTime = stat->startTime;
    std::memcpy(s.usrParam, stat->usrParam, sizeof s.usrParam);
    const int result = store_entry(handle);
    file.unlock();
    // The record's name belongs to the file table (the lookup by name reads
    // it under g_qvFileMutex), never to the per-file lock.
    set_record_name(rec, stat->name);
    return result;
}

int tf_BlockOpt(TQvFileHandle* handle, uint32_t op, int32_t arg) {
    if (handle == nullptr || handle->blkFile == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    ProcLockGuard file(handle->lockId);
    return bf_BlockOpt(handle->blkFile, op, arg);
}

int tf_GetErrorNo(TQvFileHandle* handle) {
    if (handle == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    // Stored whole by the transfers; read without the per-file lock.
    return __atomic_load_n(&handle->errNo, __ATOMIC_RELAXED);
}
