// handle_table.h - the process's table of public handles (internal).
//
// A public handle is an int: slot number in bits 0..15, generation in bits
// 16..27, bits 28..31 zero. Each slot holds null or one TQvfsHandle, which
// holds one open file of the file layer.
//
// Locks (process mutexes, never held together):
//   g_tQvFsMutex  - the slots and the generation counter; held only while a
//                   slot is looked up, filled or cleared, never while the
//                   file layer runs;
//   handle lock   - TQvfsHandle::lock: the record's fields and every call
//                   into the file layer for the handle, so calls on one
//                   handle are serialised and calls on different handles run
//                   in parallel.
// Neither is taken while the other is held. The handle lock is the only one
// held while the file layer runs (and takes its semaphores).
#pragma once

#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

#include "api/qvfs.h"
#include "file/tf.h"
#include "reason.h"

namespace qvfs::api {

inline constexpr uint32_t kSlots = QVFS_MAX_HANDLES;  // 1024
inline constexpr uint32_t kGenerations = 4096;        // 12 bits
inline constexpr int kSlotMask = 0xFFFF;
inline constexpr int kGenerationShift = 16;

// Access bits of TQvfsHandle::rwflag.
inline constexpr int32_t kCanWrite = 1;
inline constexpr int32_t kCanRead = 2;

// Call ids of the call-count hook (countest_GetCallFuncObj).
enum CallId : int {
    kCallRead = 0,
    kCallWrite = 1,
    kCallOpen = 2,
    kCallOpenV2 = 3,
    kCallStat = 4,
    kCallSetUsrParam = 5,
    kCallWritev = 6,
};

}  // namespace qvfs::api

// One open public handle. Per process, taken with qvfs_Malloc.
struct TQvfsHandle {
    int32_t fd;             // the handle value itself
    int32_t rwflag;         // kCanWrite | kCanRead
    int32_t errNo;          // the file layer's error number after the last read/write
    int64_t offset;         // current position in the file
    TQvFileHandle* file;    // the file layer's open file
    pthread_mutex_t lock;   // guards the fields above and the calls into the file layer
};

namespace qvfs::api {

// 1 once qvfs_Init succeeded in this process; never cleared.
extern std::atomic<int32_t> g_initialised;

// The process mutex of the handle table.
extern pthread_mutex_t g_tQvFsMutex;

// True when the library is initialised; otherwise errno -1010.
// Every public call that tests it starts here, so the thread's reason note
// is cleared here too: it then tells about this call only.
inline bool initialised() {
    if (g_initialised.load(std::memory_order_acquire) == 1) {
        why_clear();
        return true;
    }
    errno = QVFS_ERR_NOTINIT;
    why(QVFS_WHY_NOT_INIT);
    return false;
}

// rwflag of the open flags: bit 1 read-write, else bit 0 write-only, else
// read-only (as O_RDWR, O_WRONLY, O_RDONLY).
inline int32_t access_of(int flags) {
    if (flags & 2) return kCanWrite | kCanRead;
    if (flags & 1) return kCanWrite;
    return kCanRead;
}

// Empties every slot (the records are not freed) and re-initialises the
// table mutex. For qvfs_Init only.
void reset_table();

// The record of a handle value, or null: a negative handle sets errno
// 1002; a slot out of range, empty or holding another handle value leaves
// errno alone. Does not test the initialised flag. Takes g_tQvFsMutex.
TQvfsHandle* lookup(int handle);

// Takes the lowest free slot, makes its record (handle value with the next
// generation), and opens the file with tf_OpenFile(param, path) under the
// record's lock. The record, or null with errno 1001 whatever the cause; the
// slot is then free again. The caller tested the initialised flag.
TQvfsHandle* open_handle(const TQvfsOpenParam* param, char* path, int flags);

// Frees a record and clears its slot (under g_tQvFsMutex). The caller has
// closed the file and holds neither lock.
void release_handle(TQvfsHandle* h);

// The record in a slot, copied under g_tQvFsMutex (for the dump): false for
// an empty slot.
bool copy_slot(uint32_t slot, TQvfsHandle* out);

// The record in a slot or null (for qvfs_DeInit, which owns the table).
TQvfsHandle* slot_record(uint32_t slot);

}  // namespace qvfs::api
