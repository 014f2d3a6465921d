// flush.cpp - the flush thread and the sync mark.
//
// Data reaches the device by the transfers of the block-file layer; what
// makes it durable is a flush (fdatasync) of the device, and what makes it
// findable after a power cut is the slice entry and block header that cover
// it. A sync mark says that a disk has something to flush. Marks, the time
// of each disk's last flush and the files whose entries lag their length
// live in the disks' shared state, so that the flush thread of any process
// serves them: the first thread that finds a disk due flushes it for every
// process (one pass at a time, under g_tTimerMutex), and the entries of a
// process that died with files open still reach the device.
//
// Cadence. Every thread looks at the disks every kFlushTick ms without a
// lock; a disk that is not ready costs nothing. A disk whose mark is set is
// due once kFlushSpacing ms have passed since its last flush, so a mark is
// served within kFlushSpacing + kFlushTick ms (plus the time other disks'
// flushes take in the same thread), and passes flush a device at most once
// per kFlushSpacing ms whatever the number of processes.
//
// One pass of a disk, in this order:
//   1. the hook's kBeforeFlush phase: pending lengths become candidates and
//      the block headers grow to cover them (a header's `next` reaches the
//      device before an entry beyond it);
//   2. fdatasync: the data and those headers are durable;
//   3. the hook's kAfterFlush phase: the entries that carry the candidates
//      are written, so an entry never covers data that was not flushed
//      before it; a new mark makes the next pass flush them in turn.
// A byte acknowledged by a write is thus on the device with an entry that
// covers it at the latest two passes after the write: within
// 2 x (kFlushSpacing + kFlushTick) ms plus the time of the flushes.
#include <pthread.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

#include "common/platform.h"
#include "common/proc_lock.h"
#include "disk/df.h"

using namespace qvfs::disk;
using qvfs::disk_state;

namespace {

using qvfs::shared_load;
using qvfs::shared_store;

std::atomic<long> g_flushes[QVFS_MAX_DISKS];
std::atomic<pid_t> g_flushThreadPid{0};
std::atomic<FlushHook> g_hook{nullptr};

// Sets a disk's shared mark unless one is set: the oldest mark counts.
void mark_shared(TQvDiskState& st) {
    int64_t none = 0;
    __atomic_compare_exchange_n(&st.markMs, &none, now_ms(), false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// Whether a disk is due for a pass now: marked, and its last flush (by any
// process) at least kFlushSpacing ms ago.
bool due(const TQvDiskState& st, int64_t now) {
    return shared_load(st.markMs) != 0 && now - shared_load(st.lastFlushMs) >= kFlushSpacing;
}

// This process's descriptor of a ready disk, or -1. Caller holds
// g_tTimerMutex: an unmount of this process closes the descriptor only
// while holding it too, so the descriptor stays open for the pass.
int pass_fd(uint32_t disk, bool takeMark) {
    TQvDiskRec& d = rec(disk);
    qvfs::ProcLockGuard lock(d.lock);
    if (!is_ready(d) || d.fd < 0) return -1;
    if (takeMark) d.syncMark = 0;
    return d.fd;
}

// One pass of a disk (see the top of the file). Caller holds g_tTimerMutex.
// `settle` adds the flush after the entries (an unmount, an explicit sync).
int run_pass(uint32_t disk, int fd, bool settle) {
    TQvDiskState* st = disk_state(disk);
    if (st != nullptr) shared_store(st->markMs, int64_t{0});
    refresh_presence(disk, fd);
    const FlushHook hook = g_hook.load();
    if (hook != nullptr) hook(disk, fd, kBeforeFlush);
    int result = flush_device(disk, fd);
    g_flushes[disk].fetch_add(1, std::memory_order_relaxed);
    const unsigned entries = hook != nullptr ? hook(disk, fd, kAfterFlush) : 0;
    if (entries > 0) {
        if (settle) {
            if (flush_device(disk, fd) != 0) result = -1;
        } else if (st != nullptr) {
            mark_shared(*st);  // the next pass makes the entries durable
        }
    }
    return result;
}

}  // namespace

namespace qvfs::disk {

int64_t now_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

long flush_count(uint32_t disk) {
    return disk < QVFS_MAX_DISKS ? g_flushes[disk].load(std::memory_order_relaxed) : 0;
}

void set_flush_hook(FlushHook hook) { g_hook.store(hook); }

int flush_device(uint32_t disk, int fd) {
    const int result = plat::flush(fd);
    if (TQvDiskState* st = disk_state(disk)) {
        shared_store(st->lastFlushMs, now_ms());
        __atomic_add_fetch(&st->flushes, 1u, __ATOMIC_RELAXED);
    }
    return result;
}

int flush_disk_now_locked(uint32_t disk) {
    if (disk >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    const int fd = pass_fd(disk, false);
    if (fd < 0) return -1;
    return run_pass(disk, fd, true);
}

int flush_disk_now(uint32_t disk) {
    ProcLockGuard timer(g_tTimerMutex);
    return flush_disk_now_locked(disk);
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

// Every kFlushTick ms: the disks that are ready here and due get a pass,
// and the presence answer of the others that are ready here is refreshed
// when no process asked within the tick. The shared words are read without
// a lock; g_tTimerMutex is taken only when there is something to do, and
// the test is made again under it (another process may have served the
// disk meanwhile).
void* _df_FlushThread(void*) {
    for (;;) {
        usleep(useconds_t(kFlushTick) * 1000);
        for (uint32_t i = 0; i < QVFS_MAX_DISKS; ++i) {
            TQvDiskState* st = disk_state(i);
            if (!ready(i)) continue;
            if (st == nullptr) {
                // Without the shared state (a segment of another layout)
                // each process serves its own marks.
                if (shared_load(rec(i).syncMark) == 0) continue;
                qvfs::ProcLockGuard timer(g_tTimerMutex);
                const int fd = pass_fd(i, true);
                if (fd >= 0) run_pass(i, fd, false);
                continue;
            }
            const int64_t now = now_ms();
            const bool isDue = due(*st, now);
            if (!isDue && now - shared_load(st->presenceMs) < kFlushTick) continue;
            qvfs::ProcLockGuard timer(g_tTimerMutex);
            const int64_t again = now_ms();
            if (due(*st, again)) {
                const int fd = pass_fd(i, true);
                if (fd >= 0) run_pass(i, fd, false);
            } else if (again - shared_load(st->presenceMs) >= kFlushTick) {
                const int fd = pass_fd(i, false);
                if (fd >= 0) refresh_presence(i, fd);
            }
        }
    }
    return nullptr;
}

// A mark that is already set, here and in the disk's shared state, costs
// two loads and no lock; only the first mark after a flush takes the disk's
// lock (for this process's own mark).
int df_SetSyncMark(uint32_t disk, int32_t n) {
    if (disk >= QVFS_MAX_DISKS) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    TQvDiskRec& d = rec(disk);
    TQvDiskState* st = disk_state(disk);
    if (n == 1 && shared_load(d.syncMark) == 1 && (st == nullptr || shared_load(st->markMs) != 0)) return 0;
    qvfs::ProcLockGuard lock(d.lock);
    shared_store(d.syncMark, d.syncMark > 1 ? d.syncMark + n : n);
    if (st != nullptr) mark_shared(*st);
    return 0;
}

}  // extern "C"
