// Inter-process locks: creation and reopening, mutual exclusion between real
// processes, a killed holder, and a signal during a wait.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "common/fsc.h"
#include "common/keys.h"
#include "support/child.h"
#include "support/sandbox.h"

namespace {

using qvfs::test::Child;
using qvfs::test::ChildLink;
class LockTest : public qvfs::test::SandboxTest {
protected:
    void SetUp() override { qvfs::pool_reset_process_state(); }  // no key cached from another root
};

int sem_value(int id) { return semctl(id, 0, GETVAL); }
// Polls for about five seconds until the lock has exactly one waiter.
bool one_waiter(int id) {
    for (int i = 0; i < 500 && semctl(id, 0, GETNCNT) != 1; ++i) usleep(10000);
    return semctl(id, 0, GETNCNT) == 1;
}

TEST_F(LockTest, InitRefusesBadKeysAndReopensTheSameSetUntouched) {
    errno = 4242;
    EXPECT_EQ(-1, fsc_ProcLockInit(0));
    EXPECT_EQ(-1, fsc_ProcLockInit(-1));
    EXPECT_EQ(4242, errno);
    EXPECT_EQ(0, sbx_.ipc_objects());

    const int key = qvfs::layer_key(qvfs::kProjBlkMutex);
    ASSERT_EQ(sbx_.layer_key(99), key);
    const int id = fsc_ProcLockInit(key);
    ASSERT_GE(id, 0);
    EXPECT_EQ(1, sem_value(id));
    fsc_ProcLock(id);
    EXPECT_EQ(id, fsc_ProcLockInit(key));  // a held lock stays held
    EXPECT_EQ(0, sem_value(id));
    errno = 1002;  // the error a call is about to report survives the release
    fsc_ProcUnlock(id);
    EXPECT_EQ(1002, errno);
    EXPECT_EQ(1, sem_value(id));
    EXPECT_EQ(1, sbx_.ipc_objects());

    // No lock, and a removed set: both calls return at once, silently.
    errno = 55;
    fsc_ProcLock(-1);
    fsc_ProcUnlock(-1);
    ASSERT_EQ(0, semctl(id, 0, IPC_RMID));
    fsc_ProcLock(id);
    EXPECT_EQ(55, errno);
}

TEST_F(LockTest, ProcessesRacingToCreateShareOneLockThatExcludesThem) {
    const int key = qvfs::record_lock_key(700);
    ASSERT_EQ(sbx_.share_key(700) + 0x10000, key);
    auto* counter = static_cast<long*>(mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(counter));
    *counter = 0;

    // Released together, each creates or opens the lock, then counts under
    // it: read, pause, write, so that any overlap of two holders loses a count.
    constexpr int kProcs = 4, kRounds = 300;
    std::vector<Child> kids;
    for (int p = 0; p < kProcs; ++p)
        kids.push_back(Child::spawn([&](ChildLink& link) {
            int64_t go = 0;
            CHILD_CHECK(link, link.recv(&go));
            const int id = fsc_ProcLockInit(key);
            link.send(id);
            for (int r = 0; r < kRounds; ++r) {
                fsc_ProcLock(id);
                const long v = __atomic_load_n(counter, __ATOMIC_RELAXED);
                if (r % 8 == 0) sched_yield();
                __atomic_store_n(counter, v + 1, __ATOMIC_RELAXED);
                fsc_ProcUnlock(id);
            }
            return 0;
        }));
    for (auto& k : kids) ASSERT_TRUE(k.send(1));
    std::vector<int64_t> ids(kProcs, -1);
    for (int p = 0; p < kProcs; ++p) ASSERT_TRUE(kids[p].recv(&ids[p]));
    for (auto& k : kids) EXPECT_CHILD_OK(k);
    EXPECT_GE(ids[0], 0);
    EXPECT_EQ(std::vector<int64_t>(kProcs, ids[0]), ids);
    EXPECT_EQ(long{kProcs} * kRounds, *counter);
    EXPECT_EQ(1, sem_value(static_cast<int>(ids[0])));
    munmap(counter, sizeof(long));
}

std::atomic<int> g_signals{0};

// A waiter blocked on a lock that another process holds: signals do not end
// its wait, killing the holder gives the lock to it.
TEST_F(LockTest, AWaitSurvivesSignalsAndAKilledHolderGivesTheLockBack) {
    const int id = fsc_ProcLockInit(qvfs::layer_key(qvfs::kProjFileMutex));
    ASSERT_GE(id, 0);
    Child holder = Child::spawn([&](ChildLink& link) {
        fsc_ProcLock(id);
        link.send(1);
        return pause(), 0;
    });
    ASSERT_TRUE(holder.expect(1));
    struct sigaction sa {};  // no SA_RESTART: the waiter's semop sees EINTR
    sa.sa_handler = [](int) { g_signals.fetch_add(1); };
    ASSERT_EQ(0, sigaction(SIGUSR1, &sa, nullptr));

    std::atomic<bool> acquired{false};
    std::atomic<int> errnoAfter{0};
    std::thread waiter([&] {
        errno = 777;
        fsc_ProcLock(id);
        errnoAfter = errno;
        acquired = true;
        fsc_ProcUnlock(id);
    });
    ASSERT_TRUE(one_waiter(id));
    for (int i = 0; i < 5; ++i, usleep(20000)) pthread_kill(waiter.native_handle(), SIGUSR1);
    EXPECT_GE(g_signals.load(), 1);
    EXPECT_FALSE(acquired.load()) << "the waiter got a held lock";
    EXPECT_TRUE(one_waiter(id)) << "the waiter gave up";

    EXPECT_EQ(Child::signalled(SIGKILL), holder.kill_now());
    for (int i = 0; i < 500 && !acquired; ++i) usleep(10000);
    EXPECT_TRUE(acquired.load()) << "the killed holder kept the lock";
    if (!acquired) fsc_ProcUnlock(id);
    waiter.join();
    EXPECT_EQ(777, errnoAfter.load());
    EXPECT_EQ(1, sem_value(id));
    signal(SIGUSR1, SIG_DFL);
}

}  // namespace
