// taskcheck.cpp - reclaiming the opens of processes that died, and the
// task-check thread.
//
// A process that dies with files open leaves its counts in the shared file
// records (shrRef and its owner slot); no close will come for them. The
// task-check thread finds such processes and removes their counts:
//   - with the task device: every 5 seconds it reads the list of living
//     tasks and reclaims every process id that was in the previous list and
//     is in none of the new entries;
//   - without it (stock Linux): every 5 seconds it reclaims every process
//     recorded in an owner slot that no longer exists (kill(pid, 0) fails
//     with ESRCH; a process we may not signal still exists).
// The caller's own process is never reclaimed.
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/platform.h"
#include "common/proc_lock.h"
#include "file/tf_internal.h"

namespace qvfs::file {
namespace {

// Process-wide state of the task check.
int g_taskFd = -1;            // task device, -1 until tc_Init opens it
TQvTaskList g_prevList;       // the list of the previous poll, zero at start
pthread_t g_taskThread;       // valid when g_taskThreadStarted
bool g_taskThreadStarted = false;
pthread_mutex_t g_taskStartMutex = PTHREAD_MUTEX_INITIALIZER;

// Gives back the attachment a sweep made of a record that it did not free:
// records in segments of their own (share index 512 and above) were
// attached only for the check, unless a handle of this process uses this
// very attachment. fsc_TfFree only detaches a record that is still counted.
void drop_sweep_attachment(TQvFileRec* rec, uint32_t index) {
    if (index >= kPoolFileRecords && !holds_attachment(rec)) fsc_TfFree(rec);
}

bool in_list(const TQvTaskList& list, int32_t pid) {
    for (int32_t p : list.pid) {
        if (p == pid) return true;
    }
    return false;
}

// The list-difference step of a poll with the task device.
void poll_device(int fd, int32_t self) {
    TQvTaskList cur;
    std::memset(&cur, 0, sizeof cur);
    if (plat::task_list(fd, &cur) != 0) {
        errno += QVFS_ERR_SYS;
        return;
    }
    bool changed = false;
    for (uint32_t k = 0; k < kTaskListPids; ++k) {
        int32_t old = g_prevList.pid[k];
        if (old != cur.pid[k]) changed = true;
        if (old != 0 && old != self && !in_list(cur, old)) tf_TfReleaseInvalid(old);
    }
    if (changed) std::memcpy(&g_prevList, &cur, sizeof cur);
}

}  // namespace

void task_poll(void) {
    int fd = g_taskFd;
    int32_t self = int32_t(getpid());
    if (fd <= 0) {
        reclaim_vanished();
        errno = QVFS_ERR_BADHANDLE;
        return;
    }
    poll_device(fd, self);
}

int reclaim_vanished(void) {
    const int32_t self = int32_t(getpid());
    // Distinct openers recorded anywhere, gathered under the table lock and
    // tested outside it. At most 8 per record.
    static_assert(kFileShareIndexes * kOwnerSlots <= 8192);
    int32_t pids[kFileShareIndexes * kOwnerSlots];
    int n = 0;
    {
        ProcLockGuard table(g_qvFileMutex);
        for (uint32_t i = 0; i < kFileShareIndexes; ++i) {
            auto* rec = static_cast<TQvFileRec*>(fsc_TfGetFileInfo(i));
            if (rec == nullptr) continue;
            for (const TQvFileOwner& o : rec->owner) {
                if (o.pid <= 0 || o.pid == self) continue;
                bool seen = false;
                for (int j = 0; j < n && !seen; ++j) seen = pids[j] == o.pid;
                if (!seen) pids[n++] = o.pid;
            }
            drop_sweep_attachment(rec, i);
        }
    }
    int reclaimed = 0;
    for (int j = 0; j < n; ++j) {
        if (kill(pids[j], 0) == -1 && errno == ESRCH) {
            tf_TfReleaseInvalid(pids[j]);
            ++reclaimed;
        }
    }
    return reclaimed;
}

void task_reset(void) {
    g_taskFd = -1;
    std::memset(&g_prevList, 0, sizeof g_prevList);
}

}  // namespace qvfs::file

using namespace qvfs;
using namespace qvfs::file;

int _tf_CheckProcessValid(TQvFileRec* rec, int pid) {
    if (rec == nullptr) {
        errno = QVFS_ERR_BADARG;
        return 0;
    }
    for (TQvFileOwner& o : rec->owner) {
        if (o.pid != pid) continue;
        int32_t left = rec->shrRef - (o.count > 0 ? o.count : 0);
        rec->shrRef = left > 0 ? left : 0;
        o = TQvFileOwner{0, 0};
    }
    return rec->shrRef;
}

int tf_TfReleaseInvalid(int pid) {
    ProcLockGuard table(g_qvFileMutex);
    for (uint32_t i = 0; i < kFileShareIndexes; ++i) {
        auto* rec = static_cast<TQvFileRec*>(fsc_TfGetFileInfo(i));
        if (rec == nullptr) continue;
        if (_tf_CheckProcessValid(rec, pid) < 1) {
            // The dead process may have left a length that its entry on the
            // device lacks: a pass of the disk writes it (and every other
            // one pending there) before the record goes. g_tTimerMutex and
            // the per-file locks come after g_qvFileMutex.
            const TQvFileState* st = file_state(i);
            if (st != nullptr && (__atomic_load_n(&st->pending, __ATOMIC_ACQUIRE) != 0 ||
                                  __atomic_load_n(&st->candidate, __ATOMIC_ACQUIRE) != 0))
                disk::flush_disk_now(st->disk);
            fsc_TfFree(rec);  // nobody counts it: the record is freed
        } else {
            drop_sweep_attachment(rec, i);
        }
    }
    return 0;
}

int tc_Init(void) {
    if (g_taskFd > 0) return 0;
    int fd = plat::open_task_device();
    if (fd <= 0) {
        if (fd == 0) plat::close_fd(fd);
        errno += QVFS_ERR_SYS;
        return -1;
    }
    g_taskFd = fd;
    return 0;
}

void* _tc_MainTaskProc(void*) {
    for (;;) {
        task_poll();
        sleep(kTaskPollSeconds);
    }
    return nullptr;
}

int tc_SetMainTask(void) {
    MutexGuard once(g_taskStartMutex);
    if (g_taskThreadStarted) return 0;
    if (pthread_create(&g_taskThread, nullptr, _tc_MainTaskProc, nullptr) != 0) return -1;
    pthread_detach(g_taskThread);
    g_taskThreadStarted = true;
    return 0;
}
