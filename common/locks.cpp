// locks.cpp - inter-process locks: one System V semaphore per lock.
//
// A lock is a semaphore set with one semaphore whose value is 1 when free and
// 0 when held. Both operations carry SEM_UNDO, so the kernel gives back a lock
// that a process still holds when it dies: a crashed recorder process never
// leaves a shared table locked. Sets are created by the first process that
// asks and never removed by the library.
//
// The locks report nothing: a failed take or release ends silently, and
// errno is left as the caller had it (a release on an error path must not
// replace the error the call is about to report).
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>

#include "fsc.h"
#include "proc_lock.h"

namespace {

// The caller-defined argument of semctl.
union SemArg {
    int val;
    struct semid_ds* buf;
    unsigned short* array;
};

constexpr useconds_t kEintrPauseUs = 1000;

// ThreadSanitizer does not know System V semaphores: in a build with it, a
// take of a lock is declared to see what the last release of that lock saw,
// as for a mutex, so that the threads of one process are judged by the
// locks they really hold. (Ids that meet in the table share a token: that
// can only hide a race, never invent one.)
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define QVFS_TSAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define QVFS_TSAN 1
#endif
#ifdef QVFS_TSAN
extern "C" void __tsan_acquire(void* addr);
extern "C" void __tsan_release(void* addr);
char g_tsanTokens[4096];
void tsan_acquired(int semId) { __tsan_acquire(&g_tsanTokens[unsigned(semId) % sizeof g_tsanTokens]); }
void tsan_releasing(int semId) { __tsan_release(&g_tsanTokens[unsigned(semId) % sizeof g_tsanTokens]); }
#else
void tsan_acquired(int) {}
void tsan_releasing(int) {}
#endif

// One semop of delta on semaphore 0, retried after a short pause while a
// signal interrupts it.
void sem_step(int semId, short delta) {
    if (semId == -1) return;
    const int saved = errno;
    struct sembuf op;
    op.sem_num = 0;
    op.sem_op = delta;
    op.sem_flg = SEM_UNDO;
    while (semop(semId, &op, 1) != 0) {
        if (errno != EINTR) break;  // set removed or invalid id: give up quietly
        usleep(kEintrPauseUs);
    }
    errno = saved;
}

}  // namespace

int fsc_ProcLockInit(int key) {
    if (key <= 0) return -1;
    int id = semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
    if (id >= 0) {
        // This process created the set; until the value is 1 every other
        // process that opened it waits in fsc_ProcLock.
        SemArg arg;
        arg.val = 1;
        semctl(id, 0, SETVAL, arg);
        return id;
    }
    if (errno == EEXIST) {
        // Someone else created it: open it without touching its value, so a
        // lock that is held stays held.
        return semget(key, 1, 0666);
    }
    errno += QVFS_ERR_SYS;
    return -1;
}

namespace qvfs {

bool lock_exists(int semId) {
    if (semId < 0) return false;
    const int saved = errno;
    const bool exists = semctl(semId, 0, GETVAL) >= 0;
    errno = saved;
    return exists;
}

}  // namespace qvfs

void fsc_ProcLock(int semId) {
    sem_step(semId, -1);
    tsan_acquired(semId);
}

void fsc_ProcUnlock(int semId) {
    tsan_releasing(semId);
    sem_step(semId, +1);
}
