// handles.cpp - the public handle table and the calls on an open handle.
#include <cstdio>
#include <cstring>

#include "api/handle_table.h"
#include "proc_lock.h"

static_assert(offsetof(TQvfsOpenParam, preName) == QVFS_OPEN_PARAM_V1_SIZE,
              "the older parameter record ends where the previous-file name begins");
static_assert(sizeof(TQvfsOpenParam) == 128);
static_assert(offsetof(TQvFileStat, st.st_size) == 48, "the seek and eof calls read the size here");

namespace qvfs::api {

pthread_mutex_t g_tQvFsMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

// Guarded by g_tQvFsMutex.
TQvfsHandle* g_slots[kSlots];
// Generation of the next handle; starts at 0 with the process and is not
// reset by qvfs_Init, so handle values stay distinct across a re-init.
uint16_t g_generation;

// The n-th handle of the process gets generation n mod 4096.
uint32_t next_generation() {
    if (g_generation >= kGenerations) {
        g_generation = 1;
        return 0;
    }
    return g_generation++;
}

}  // namespace

void reset_table() {
    std::memset(g_slots, 0, sizeof g_slots);
    pthread_mutex_init(&g_tQvFsMutex, nullptr);
}

TQvfsHandle* lookup(int handle) {
    TQvfsHandle* h = nullptr;
    if (handle < 0) {
        errno = QVFS_ERR_BADHANDLE;
    } else {
        const uint32_t slot = static_cast<uint32_t>(handle) & kSlotMask;
        MutexGuard table(g_tQvFsMutex);
        // A stale value names a slot that is empty or was reused by a later
        // open with another generation.
        if (slot < kSlots && g_slots[slot] != nullptr && g_slots[slot]->fd == handle) h = g_slots[slot];
    }
    if (h == nullptr) why(QVFS_WHY_BAD_HANDLE);
    return h;
}

TQvfsHandle* open_handle(const TQvfsOpenParam* param, char* path, int flags) {
    TQvfsHandle* h = nullptr;
    {
        MutexGuard table(g_tQvFsMutex);
        uint32_t slot = 0;
        while (slot < kSlots && g_slots[slot] != nullptr) ++slot;
        if (slot == kSlots) {
            errno = QVFS_ERR_BADARG;
            why(QVFS_WHY_HANDLES_FULL);
            return nullptr;
        }
        h = static_cast<TQvfsHandle*>(qvfs_Malloc(sizeof(TQvfsHandle)));
        if (h == nullptr) {
            errno = QVFS_ERR_BADARG;
            return nullptr;
        }
        std::memset(static_cast<void*>(h), 0, sizeof *h);
        h->fd = static_cast<int32_t>(slot | (next_generation() << kGenerationShift));
        pthread_mutex_init(&h->lock, nullptr);
        g_slots[slot] = h;
    }
    TQvFileHandle* file;
    {
        MutexGuard own(h->lock);
        h->rwflag = access_of(flags);
        h->file = tf_OpenFile(param, path);
        file = h->file;
    }
    if (file == nullptr) {
        release_handle(h);
        errno = QVFS_ERR_BADARG;
        // A name the layers could not place (a block beyond the disk, say)
        // names no file either.
        if (param == nullptr) why_if_none(QVFS_WHY_NO_SUCH_FILE);
        return nullptr;
    }
    return h;
}

void release_handle(TQvfsHandle* h) {
    const uint32_t slot = static_cast<uint32_t>(h->fd) & kSlotMask;
    {
        MutexGuard table(g_tQvFsMutex);
        if (slot < kSlots && g_slots[slot] == h) g_slots[slot] = nullptr;
    }
    pthread_mutex_destroy(&h->lock);
    qvfs_Free(h);
}

bool copy_slot(uint32_t slot, TQvfsHandle* out) {
    MutexGuard table(g_tQvFsMutex);
    const TQvfsHandle* h = slot < kSlots ? g_slots[slot] : nullptr;
    if (h == nullptr) return false;
    out->fd = h->fd;
    out->rwflag = h->rwflag;
    out->errNo = h->errNo;
    out->offset = h->offset;
    out->file = h->file;
    return true;
}

TQvfsHandle* slot_record(uint32_t slot) {
    MutexGuard table(g_tQvFsMutex);
    return slot < kSlots ? g_slots[slot] : nullptr;
}

namespace {

// The common body of read, write and writev: handle lookup, the access bit,
// then the transfer at the handle's position under the handle's lock. The
// position advances by what was transferred; the file layer's error number
// is kept for qvfs_error whatever the outcome.
template <class Transfer>
int transfer(int handle, int32_t access, Transfer&& fn) {
    TQvfsHandle* h = lookup(handle);
    if (h == nullptr) return -1;
    MutexGuard own(h->lock);
    if ((h->rwflag & access) == 0) {
        why(access == kCanWrite ? QVFS_WHY_NOT_WRITABLE : QVFS_WHY_NOT_READABLE);
        return -1;
    }
    // File positions are 32-bit in the file layer: a file lies in one block.
    const int n = fn(static_cast<uint32_t>(h->offset), h->file);
    if (n >= 0) h->offset += n;
    else if (errno == QVFS_ERR_BLOCKRANGE) why_if_none(QVFS_WHY_BLOCK_FULL);
    h->errNo = tf_GetErrorNo(h->file);
    return n;
}

// The file size of an open file (the caller holds the handle's lock).
int64_t file_size(TQvFileHandle* file) {
    TQvFileStat st;
    std::memset(&st, 0, sizeof st);
    tf_GetFileStat(&st, file);
    return st.st.st_size;
}

}  // namespace
}  // namespace qvfs::api

using namespace qvfs::api;
using qvfs::MutexGuard;
using qvfs::why;
using qvfs::why_clear;

extern "C" {

int qvfs_OpenV2(TQvfsOpenParam* param, char* path, int flags) {
    if (!initialised()) return -1;
    countest_GetCallFuncObj(kCallOpenV2);
    if (path == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvfsHandle* h = open_handle(param, path, flags);
    return h != nullptr ? h->fd : -1;
}

int qvfs_Open(const void* param96, char* path, int flags) {
    if (!initialised()) return -1;
    countest_GetCallFuncObj(kCallOpen);
    if (param96 == nullptr) return qvfs_OpenV2(nullptr, path, flags);
    // The older record lacks the previous-file name: widen it with zeros.
    TQvfsOpenParam wide;
    std::memset(&wide, 0, sizeof wide);
    std::memcpy(&wide, param96, QVFS_OPEN_PARAM_V1_SIZE);
    return qvfs_OpenV2(&wide, path, flags);
}

int qvfs_Read(int handle, void* buf, uint32_t len) {
    if (!initialised()) return -1;
    countest_GetCallFuncObj(kCallRead);
    if (buf == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (len == 0) return 0;
    return transfer(handle, kCanRead, [&](uint32_t pos, TQvFileHandle* f) {
        return tf_Read(pos, buf, len, f);
    });
}

int qvfs_Write(int handle, const void* buf, uint32_t len) {
    if (!initialised()) return -1;
    countest_GetCallFuncObj(kCallWrite);
    if (buf == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    if (len == 0) return 0;
    return transfer(handle, kCanWrite, [&](uint32_t pos, TQvFileHandle* f) {
        return tf_Write(pos, buf, len, f);
    });
}

int qvfs_Writev(int handle, const struct iovec* iov, int count) {
    if (!initialised()) return -1;
    countest_GetCallFuncObj(kCallWritev);
    if (iov == nullptr) return -1;
    if (count == 0) return 0;
    return transfer(handle, kCanWrite, [&](uint32_t pos, TQvFileHandle* f) {
        return tf_Writev(pos, iov, count, f);
    });
}

int64_t qvfs_Seek(int handle, int64_t offset, int whence) {
    if (!initialised()) return -1;
    TQvfsHandle* h = lookup(handle);
    if (h == nullptr) return -1;
    MutexGuard own(h->lock);
    const int64_t size = file_size(h->file);
    const int64_t base = whence == 1 ? h->offset : whence == 2 ? size : 0;
    // Wrapping addition: an absurd offset must land out of range, not in UB.
    const int64_t target = static_cast<int64_t>(static_cast<uint64_t>(base) + static_cast<uint64_t>(offset));
    if (target < 0 || static_cast<uint64_t>(target) > df_GetDiskUnitSize()) {
        h->offset = 0;
        return 0;
    }
    h->offset = target;
    return target;
}

int64_t qvfs_Tell(int handle) {
    if (!initialised()) return -1;
    TQvfsHandle* h = lookup(handle);
    if (h == nullptr) return -1;
    MutexGuard own(h->lock);
    return h->offset;
}

int qvfs_Eof(int handle) {
    if (!initialised()) return -1;
    TQvfsHandle* h = lookup(handle);
    if (h == nullptr) return -1;
    MutexGuard own(h->lock);
    return static_cast<uint64_t>(h->offset) >= static_cast<uint64_t>(file_size(h->file)) ? 1 : 0;
}

int qvfs_fsync(int handle) {
    if (!initialised()) return -1;
    TQvfsHandle* h = lookup(handle);
    if (h == nullptr) return -1;
    MutexGuard own(h->lock);
    if ((h->rwflag & kCanWrite) == 0) {
        why(QVFS_WHY_NOT_WRITABLE);
        return -1;
    }
    // Returns once the file's bytes and its entry are durable on the device;
    // a close stays cheap (it stores the entry and leaves the flush to the
    // flush pass).
    return qvfs::file::sync_durable(h->file);
}

int qvfs_ftruncate(int handle, int64_t length) {
    if (!initialised()) return -1;
    TQvfsHandle* h = lookup(handle);
    if (h == nullptr) return -1;
    MutexGuard own(h->lock);
    if ((h->rwflag & kCanWrite) == 0) {  // changes the file: needs the write access
        why(QVFS_WHY_NOT_WRITABLE);
        return -1;
    }
    return tf_ftruncate(h->file, static_cast<uint64_t>(length));
}

int qvfs_UpdataePreRecPtr(int handle, int32_t preStart, int32_t preEnd) {
    if (!initialised()) return -1;
    TQvfsHandle* h = lookup(handle);
    if (h == nullptr) return -1;
    MutexGuard own(h->lock);
    return tf_UpdataePreRecPtr(h->file, static_cast<uint64_t>(int64_t{preStart}),
                               static_cast<uint64_t>(int64_t{preEnd}));
}

int qvfs_Close(int handle) {
    if (!initialised()) return -1;
    TQvfsHandle* h = lookup(handle);
    if (h == nullptr) {
        why_clear();  // closing what is not open is no failure
        return 0;
    }
    {
        MutexGuard own(h->lock);
        if (h->rwflag & kCanWrite) tf_SyncFile(h->file);
        tf_CloseFile(h->file);
        h->file = nullptr;
    }
    release_handle(h);
    return 0;
}

int qvfs_GetDebugInfo(char* buf, int size) {
    if (!initialised()) return -1;
    if (buf == nullptr || size < 1024) return 0;
    buf[0] = '\0';
    int len = std::snprintf(buf, static_cast<size_t>(size),
                            "===============QVFS===================\nid\tfd\t\trwflag\terrno\toffset\n");
    if (len >= size) return len;
    for (uint32_t slot = 0; slot < kSlots; ++slot) {
        TQvfsHandle row;
        if (!copy_slot(slot, &row)) continue;
        len += std::snprintf(buf + len, static_cast<size_t>(size - len), "%d\t0x%08x\t%d\t%d\t%lld\n",
                             static_cast<int>(slot), static_cast<unsigned>(row.fd), row.rwflag, row.errNo,
                             static_cast<long long>(row.offset));
        if (len >= size) return len;
    }
    const int more = tf_GetDebugInfo(buf + len, size - len - 1);
    buf[size - 1] = '\0';
    return len + more;
}

}  // extern "C"
