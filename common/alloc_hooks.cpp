// alloc_hooks.cpp - the replaceable allocator, the device I/O hooks, the
// call-count hooks and the time formatter.
//
// All of it is per process and takes no lock. The allocator hooks are meant
// to be set while no other thread uses the library; they are still kept in
// atomics so that a late registration is never seen half-written.
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

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
    // With the recorders' 32-bit time_t, seconds from 2^31 on (2038) would
    // turn into dates before 1970: no text rather than a wrong one.
    if (t < 0) {
        buf[0] = '\0';
        return 0;
    }
    struct tm tmv;
    std::memset(&tmv, 0, sizeof tmv);
    localtime_r(&t, &tmv);
    return static_cast<int>(std::strftime(buf, size, "%F_%T", &tmv));
}
