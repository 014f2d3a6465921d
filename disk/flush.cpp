// flush.cpp - the flush thread and the sync mark.
//
// The block-file layer writes straight to the device and leaves a sync mark;
// each process's flush thread turns marks into fdatasync on its own
// descriptors, one pass over the 25 disks at a time under g_tTimerMutex, so
// the processes' threads take turns.
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "common/platform.h"
#include "common/proc_lock.h"
#include "disk/df.h"

using namespace qvfs::disk;

namespace {

constexpr useconds_t kPassPause = 40000;  // 40 ms
constexpr int32_t kPassesPerFlush = 20;

std::atomic<long> g_flushes[QVFS_MAX_DISKS];
std::atomic<pid_t> g_flushThreadPid{0};

void flush_disk(uint32_t disk, int fd) {
    qvfs::plat::flush(fd);
    g_flushes[disk].fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

namespace qvfs::disk {

long flush_count(uint32_t disk) {
    return disk < QVFS_MAX_DISKS ? g_flushes[disk].load(std::memory_order_relaxed) : 0;
}

// One flush thread per process. A forked child inherits the flag but not the
// thread, so the owner's pid is compared rather than a plain flag.
void start_flush_thread() {
    const pid_t self = getpid();
    pid_t owner = g_flushThreadPid.load();
    if (owner == self || !g_flushThreadPid.compare_exchange_strong(owner, self)) return;
    pthread_t thread;
    if (pthread_create(&thread, nullptr, _df_FlushThread, nullptr) == 0) {
        pthread_detach(thread);
    } else {
        g_flushThreadPid.store(0);
    }
}

}  // namespace qvfs::disk

extern "C" {

// A mark of 1 (what the block-file layer sets) is acted on in the pass in
// which the disk's counter reaches 20; a larger mark flushes in the next
// pass. A disk that is not ready costs an extra 40 ms of the pass.
void* _df_FlushThread(void*) {
    int32_t passes[QVFS_MAX_DISKS] = {};
    for (;;) {
        qvfs::ProcLockGuard timer(g_tTimerMutex);  // one pass over all disks
        for (uint32_t i = 0; i < QVFS_MAX_DISKS; ++i) {
            TQvDiskRec& d = rec(i);
            qvfs::ProcLockGuard lock(d.lock);
            if (!is_ready(d)) {
                lock.unlock();
                usleep(kPassPause);
                continue;
            }
            int32_t mark = d.syncMark;
            d.syncMark = 0;
            const int fd = d.fd;
            lock.unlock();

            // A ready disk whose descriptor this process has closed (its own
            // plain unmount while another process keeps the disk mounted) has
            // nothing to flush here.
            if (fd < 0) continue;
            if (passes[i]++ >= kPassesPerFlush) {
                if (mark != 0) {
                    flush_disk(i, fd);
                    mark = 0;
                }
                passes[i] = 0;
            }
            if (mark > 1) {
                flush_disk(i, fd);
                passes[i] = 0;
            }
        }
        usleep(kPassPause);
    }
    return nullptr;
}

int df_SetSyncMark(uint32_t disk, int32_t n) {
    if (disk >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = rec(disk);
    qvfs::ProcLockGuard lock(d.lock);
    d.syncMark = d.syncMark > 1 ? d.syncMark + n : n;
    return 0;
}

}  // extern "C"
