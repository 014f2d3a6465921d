// Sandbox setup and sweeping, which look at keys and claims shared by every
// sandbox on the machine. The cases run alone (the program is serial under
// ctest): other sandboxes starting meanwhile would claim, probe and sweep the
// very identities and objects these tests watch.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/sandbox.h"

using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::Sandbox;

namespace {

bool sem_exists(int64_t key) { return ::semget(static_cast<int>(key), 0, 0) >= 0; }
bool shm_exists(int64_t key) { return ::shmget(static_cast<int>(key), 0, 0) >= 0; }
bool path_exists(const std::string& p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0;
}
std::string tmp_base() {
    const char* t = std::getenv("TMPDIR");
    return (t != nullptr && t[0] != '\0') ? t : "/tmp";
}

}  // namespace

// Semaphores are placed under the keys that the next key files are likely to
// get: the sandbox must see the keys in use and replace its key files until
// none is. Likely identities: those of a probe tree just deleted (file
// systems that reuse the lowest free inode hand them out again) and the ones
// after it (file systems that count inodes up; the sandbox's directories and
// claim files take some of them first).
TEST(SandboxKeys, BusyKeysForceNewKeyFiles) {
    std::set<int> idents;
    std::string dir = tmp_base() + "/qvfs-probe-XXXXXX";
    ASSERT_NE(nullptr, ::mkdtemp(dir.data()));
    int last = 0;
    for (int i = 0; i <= 24; ++i) {
        const std::string f = i == 0 ? dir : dir + "/" + std::to_string(i);
        if (i > 0) ::close(::open(f.c_str(), O_CREAT | O_RDWR, 0666));
        idents.insert(last = static_cast<int>(::ftok(f.c_str(), 1) & 0xFFFFFF));
    }
    for (int i = 1; i <= 24; ++i) ::unlink((dir + "/" + std::to_string(i)).c_str());
    ::rmdir(dir.c_str());
    for (int k = 1; k <= 96; ++k) idents.insert((last & 0xFF0000) | ((last + k) & 0xFFFF));

    // The semaphores hold 1, so that a library elsewhere that happened to
    // adopt one would still find a working lock; identities that a living
    // sandbox has claimed are left alone.
    std::vector<int> mine;  // semaphore ids
    std::set<int> busy;     // their keys
    for (int id : idents) {
        char claim[16];
        std::snprintf(claim, sizeof claim, "%06x", static_cast<unsigned>(id));
        if (path_exists(tmp_base() + "/qvfs-sbx-claims/" + claim)) continue;
        for (int key : {(1 << 24) | id, (97 << 24) | id}) {
            const int sem = ::semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
            if (sem < 0) continue;
            ::semctl(sem, 0, SETVAL, 1);
            mine.push_back(sem);
            busy.insert(key);
        }
    }
    ASSERT_FALSE(busy.empty());
    int replaced = 0;
    {
        Sandbox s;
        replaced = s.replaced();
        for (int key : s.keys()) EXPECT_EQ(0u, busy.count(key)) << std::hex << "key 0x" << key;
        EXPECT_EQ(0, s.ipc_objects());
    }
    // The teardown left the foreign semaphores alone. Ours to remove unless
    // some library took one up as its lock meanwhile (a sandbox that checked
    // its keys just before they were made busy): the last operation on it is
    // then not our setting of the value.
    for (int key : busy) EXPECT_TRUE(sem_exists(key)) << std::hex << "key 0x" << key;
    for (int sem : mine)
        if (::semctl(sem, 0, GETPID) == ::getpid()) ::semctl(sem, 0, IPC_RMID);
    if (replaced == 0) GTEST_SKIP() << "the file system handed out no inode in the busy window";
}

// A test process killed before its teardown, and one that made an object
// under its keys after its teardown (a library thread still running, say):
// the next sandbox cleans up after both once they are gone.
TEST(SandboxTeardown, NextSandboxSweepsAfterDeadOnes) {
    Child killed = Child::spawn([](ChildLink& link) {
        auto* s = new Sandbox;  // never torn down: the process is killed
        const int sem = s->share_key(2050), shm = s->layer_key(65), lock = s->share_key(9) + 0x10000;
        CHILD_CHECK(link, ::semget(sem, 1, IPC_CREAT | 0666) >= 0 && ::semget(lock, 1, IPC_CREAT | 0666) >= 0);
        CHILD_CHECK(link, ::shmget(shm, 4096, IPC_CREAT | 0666) >= 0);
        link.note("%s", s->root().c_str());
        for (int k : {sem, shm, lock}) link.send(k);
        for (;;) ::pause();
    });
    Child late = Child::spawn([](ChildLink& link) {
        int key = 0;
        { Sandbox s; key = s.share_key(2060); }
        CHILD_CHECK(link, ::semget(key, 1, IPC_CREAT | 0666) >= 0);
        link.send(key);
        return 0;
    });
    int64_t sem = 0, shm = 0, lock = 0, lateKey = 0;
    ASSERT_TRUE(killed.recv(&sem) && killed.recv(&shm) && killed.recv(&lock)) << killed.describe(killed.wait(0));
    ASSERT_TRUE(late.recv(&lateKey)) << late.describe(late.wait());
    EXPECT_CHILD_OK(late);
    EXPECT_EQ(Child::signalled(SIGKILL), killed.kill_now());
    std::string root = killed.text();
    while (!root.empty() && root.back() == '\n') root.pop_back();
    ASSERT_TRUE(path_exists(root) && shm_exists(shm) && sem_exists(sem) && sem_exists(lateKey)) << root;

    Sandbox next;
    for (int64_t k : {sem, lock, lateKey}) EXPECT_FALSE(sem_exists(k)) << std::hex << "semaphore 0x" << k;
    EXPECT_FALSE(shm_exists(shm));
    EXPECT_FALSE(path_exists(root));
}
