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

void fsc_ProcLock(int semId) { sem_step(semId, -1); }

void fsc_ProcUnlock(int semId) { sem_step(semId, +1); }
