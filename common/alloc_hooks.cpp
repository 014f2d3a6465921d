// alloc_hooks.cpp - the replaceable allocator, the device I/O hooks, the
// call-count hooks, the time formatter and the texts of the error codes.
//
// All of it is per process and takes no lock. The allocator hooks are meant
// to be set while no other thread uses the library; they are still kept in
// atomics so that a late registration is never seen half-written.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "errors.h"
#include "fsc.h"
#include "platform.h"

namespace {

std::atomic<QvfsAllocFn> g_allocHook{nullptr};
std::atomic<QvfsFreeFn> g_freeHook{nullptr};

}  // namespace

int qvfs_InitAllocatorInterface(void) {
    g_allocHook.store(nullptr, std::memory_order_relaxed);
    g_freeHook.store(nullptr, std::memory_order_relaxed);
    return 0;
}

int qvfs_RegistAllocatorInterface(QvfsAllocFn allocHook, QvfsFreeFn freeHook) {
    // A pair is replaced only as a whole: memory from one allocator must go
    // back to the same allocator's free.
    if (allocHook == nullptr || freeHook == nullptr) return 0;
    g_allocHook.store(allocHook, std::memory_order_relaxed);
    g_freeHook.store(freeHook, std::memory_order_relaxed);
    return 0;
}

void* qvfs_Malloc(uint32_t size) {
    QvfsAllocFn fn = g_allocHook.load(std::memory_order_relaxed);
    return fn != nullptr ? fn(size) : std::malloc(size);
}

void qvfs_Free(void* p) {
    QvfsFreeFn fn = g_freeHook.load(std::memory_order_relaxed);
    if (fn != nullptr)
        fn(p);
    else
        std::free(p);
}

// The single path of the layers' device reads and plain writes: one system
// read or write, short transfers returned as they are (callers treat anything
// but the full length as a failure).
int TCT_Read(int fd, void* buf, uint32_t len, int /*type*/) {
    return static_cast<int>(qvfs::plat::read(fd, buf, len));
}

int TCT_Write(int fd, const void* buf, uint32_t len, int /*type*/) {
    return static_cast<int>(qvfs::plat::write(fd, buf, len));
}

int counttest_BlkType2CountTestType(int /*blkType*/) { return 0; }

int countest_GetCallFuncObj(int /*callId*/) { return 0; }

int qvfs_GetTimeString(uint32_t seconds, char* buf, uint32_t size) {
    if (buf == nullptr || size == 0) return 0;
    time_t t = static_cast<time_t>(seconds);
    struct tm tmv;
    std::memset(&tmv, 0, sizeof tmv);
    localtime_r(&t, &tmv);
    return static_cast<int>(std::strftime(buf, size, "%F_%T", &tmv));
}

namespace qvfs {

const char* error_text(int code) {
    switch (code) {
        case 0: return "success";
        case QVFS_ERR_BADARG: return "bad argument";
        case QVFS_ERR_BADHANDLE: return "bad handle, record or range";
        case QVFS_ERR_DISKNUM: return "disk number out of range";
        case QVFS_ERR_NOTFORMATTED: return "not a formatted disk";
        case QVFS_ERR_NOMEM: return "out of memory";
        case QVFS_ERR_PROJID: return "key project number out of range";
        case QVFS_ERR_OLDVERSION: return "disk format version too old";
        case QVFS_ERR_INITFAILED: return "library start failed";
        case QVFS_ERR_CHANNEL: return "channel number out of range";
        case QVFS_ERR_BLOCKRANGE: return "offset or length beyond the block";
        case QVFS_ERR_TOOMANYBLOCKS: return "too many blocks loaded";
        case QVFS_ERR_FMT_NOSHARE: return "format: no shared disk image";
        case QVFS_ERR_FMT_TOOSMALL: return "format: device smaller than one block";
        case QVFS_ERR_NOTINIT: return "library not initialised";
        default: break;
    }
    // System failures: 3000 + errno, or 6000 + errno when a format's metadata
    // writes failed.
    int sys = -1;
    if (code > 2 * QVFS_ERR_SYS)
        sys = code - 2 * QVFS_ERR_SYS;
    else if (code > QVFS_ERR_SYS)
        sys = code - QVFS_ERR_SYS;
    if (sys > 0 && sys < 1000) {
        static thread_local char text[96];
        char sysText[64];
        const char* s = strerror_r(sys, sysText, sizeof sysText);
        std::snprintf(text, sizeof text, "system error: %s", s);
        return text;
    }
    return "unknown error";
}

}  // namespace qvfs
