// path.cpp - calls that read or change one file named by its path, without
// keeping a handle, and the status query on an open handle.
//
// Each path call opens the file read-only through the handle table (so it
// uses one slot for its duration), works under the handle's lock, closes the
// file and gives the slot back. Status changes are read-modify-write of the
// whole status record under that lock only: two callers changing the same
// file at once may overwrite each other's change (the last write wins).
#include <cstring>

#include "api/handle_table.h"
#include "proc_lock.h"

using namespace qvfs::api;
using qvfs::MutexGuard;

namespace {

// Opens path, runs action(file) under the handle's lock, closes the file and
// frees the slot. The action's result, or -1 with 1001 when the file cannot
// be opened. errno is the action's.
template <class Action>
int with_file(const char* path, Action&& action) {
    // With no parameter record the file layer only reads the name.
    TQvfsHandle* h = open_handle(nullptr, const_cast<char*>(path), QVFS_O_RDONLY);
    if (h == nullptr) return -1;
    int result;
    {
        MutexGuard own(h->lock);
        result = action(h->file);
        const int err = errno;
        tf_CloseFile(h->file);
        h->file = nullptr;
        errno = err;
    }
    release_handle(h);
    return result;
}

// Reads the status, lets change() edit it and writes it back. A change
// returns false to leave the file as it is. -1 when the status cannot be
// read or the write fails (with the layers' code), else 0.
template <class Change>
int change_status(const char* path, Change&& change) {
    return with_file(path, [&](TQvFileHandle* file) {
        TQvFileStat st;
        std::memset(&st, 0, sizeof st);
        if (tf_GetFileStat(&st, file) != 0) return -1;
        if (!change(st, file)) return 0;
        return tf_SetFileStat(&st, file) == 0 ? 0 : -1;
    });
}

int bad_argument() {
    errno = QVFS_ERR_BADARG;
    return -1;
}

// Record types 1 and 2 form one class; the block counts its files of other
// types. The tests are unsigned on the value minus 1, so 0 is outside.
bool in_class_old(uint64_t recType) { return recType - 1 < 2; }
bool in_class_new(int32_t recType) { return static_cast<uint32_t>(recType) - 1u < 2u; }

}  // namespace

extern "C" {

int qvfs_Stat(const char* path, TQvFileStat* stat) {
    if (!initialised()) return -1;
    countest_GetCallFuncObj(kCallStat);
    if (path == nullptr || stat == nullptr) return bad_argument();
    return with_file(path, [&](TQvFileHandle* file) { return tf_GetFileStat(stat, file) == 0 ? 0 : -1; });
}

int qvfs_fstat(int handle, TQvFileStat* stat) {
    if (!initialised()) return -1;
    TQvfsHandle* h = lookup(handle);
    if (h == nullptr) return -1;
    if (stat == nullptr) return bad_argument();
    MutexGuard own(h->lock);
    return tf_GetFileStat(stat, h->file) == 0 ? 0 : -1;
}

int qvfs_Lock(const char* path, int32_t lockValue) {
    if (!initialised()) return -1;
    if (path == nullptr) return bad_argument();
    return change_status(path, [&](TQvFileStat& st, TQvFileHandle* file) {
        // Locking (1) and unlocking (0) also move the block's locked-file
        // count; other values change only the file. A failed header write
        // keeps the count in the shared header copy and is not reported.
        tf_BlockOpt(file, 0, lockValue);
        st.lock = static_cast<uint64_t>(int64_t{lockValue});
        return true;
    });
}

int qvfs_ChangeCreateTime(const char* path, TimeValue createTime) {
    if (!initialised()) return -1;
    if (path == nullptr) return bad_argument();
    return change_status(path, [&](TQvFileStat& st, TQvFileHandle*) {
        st.startTime = static_cast<uint64_t>(int64_t{createTime.tv_sec});
        return true;
    });
}

int qvfs_ChangeTime(const char* path, const TimeValue* times) {
    if (!initialised()) return -1;
    if (path == nullptr || times == nullptr) return bad_argument();
    return change_status(path, [&](TQvFileStat& st, TQvFileHandle*) {
        st.st.st_mtim.tv_sec = times[1].tv_sec;  // access time, times[0], has no place
        return true;
    });
}

int qvfs_ChangeRecType(const char* path, int32_t recType) {
    if (!initialised()) return -1;
    if (path == nullptr) return bad_argument();
    return change_status(path, [&](TQvFileStat& st, TQvFileHandle* file) {
        if (st.recType == static_cast<uint64_t>(int64_t{recType})) return false;
        const bool was = in_class_old(st.recType);
        const bool will = in_class_new(recType);
        if (!was && will) tf_BlockOpt(file, 1, -1);
        if (was && !will) tf_BlockOpt(file, 1, 1);
        st.recType = static_cast<uint64_t>(int64_t{recType});
        return true;
    });
}

int qvfs_SetUsrParam(const char* path, const void* data, int len) {
    if (!initialised()) return -1;
    countest_GetCallFuncObj(kCallSetUsrParam);
    if (path == nullptr || data == nullptr || len < 1 || len > static_cast<int>(sizeof(TQvFileStat::usrParam)))
        return bad_argument();
    return change_status(path, [&](TQvFileStat& st, TQvFileHandle*) {
        std::memcpy(st.usrParam, data, static_cast<size_t>(len));  // the rest keeps its bytes
        return true;
    });
}

int qvfs_GetFileInfo(const char* path, uint32_t infoMask, TQvFileInfo* items, int count) {
    if (!initialised()) return -1;
    if (path == nullptr || items == nullptr || count == 0 || items[0].buf == nullptr) return bad_argument();
    return with_file(path, [&](TQvFileHandle* file) { return tf_GetFileInfo(file, infoMask, items, count); });
}

int qvfs_SetFileInfo(const char* path, uint32_t infoMask, TQvFileInfo* items, int count) {
    if (!initialised()) return -1;
    if (path == nullptr || items == nullptr || count == 0 || items[0].buf == nullptr) return bad_argument();
    return with_file(path, [&](TQvFileHandle* file) { return tf_SetFileInfo(file, infoMask, items, count); });
}

int qvfs_Unlink(const char* path) {
    if (!initialised()) return -1;
    if (path == nullptr) return -1;
    return tf_Unlink(path);
}

}  // extern "C"
