// The test harness itself: sandbox keys and teardown, forked children.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/platform.h"
#include "support/child.h"
#include "support/sandbox.h"

namespace plat = qvfs::plat;
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
bool has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }
// A process that is gone and reaped: no zombie left behind.
#define EXPECT_REAPED(pid) do { errno = 0; EXPECT_EQ(-1, ::kill(pid, 0)) << pid; EXPECT_EQ(ESRCH, errno) << pid; } while (0)

}  // namespace

// ---- sandbox ------------------------------------------------------------------------

// The library's key tests compare every share key with the sandbox's; the
// layer keys are checked here.
TEST(SandboxKeys, AreAllDistinctAndNeverMeetAnotherSandbox) {
    Sandbox a;
    for (int p : {65, 66, 97, 98, 99, 100}) EXPECT_EQ(plat::ftok("/dvr/qvfs/qvfslayer", p), a.layer_key(p)) << p;
    // Share keys, their lock keys and the layer keys, each once.
    const std::set<int> ak(a.keys().begin(), a.keys().end());
    EXPECT_EQ(std::size_t(2 * 2073 + 6), ak.size());
    EXPECT_EQ(a.keys().size(), ak.size());
    {
        Sandbox b;
        EXPECT_EQ(b.root(), plat::root());
        EXPECT_NE(a.root(), b.root());
        for (int k : b.keys()) EXPECT_EQ(0u, ak.count(k)) << std::hex << "key 0x" << k;
    }
    EXPECT_EQ(a.root(), plat::root());  // the inner sandbox restored the outer root
}

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

TEST(SandboxTeardown, RemovesEveryObjectOfItsKeysAndItsTree) {
    std::string root;
    std::vector<int> sems, shms;
    void* attached = nullptr;
    {
        Sandbox s;
        root = s.root();
        s.add_disk(3, 12ull << 30);
        // A simulated reboot removes the objects, keeps files and keys.
        ASSERT_GE(::semget(s.layer_key(97), 1, IPC_CREAT | 0666), 0);
        ASSERT_GE(::shmget(s.layer_key(66), 4096, IPC_CREAT | 0666), 0);
        EXPECT_EQ(2, s.remove_ipc());
        EXPECT_EQ(0, s.ipc_objects());
        EXPECT_EQ(s.layer_key(97), plat::ftok("/dvr/qvfs/qvfslayer", 97));
        EXPECT_TRUE(path_exists(s.image_path(3)));

        sems = {s.share_key(0), s.share_key(2072) + 0x10000, s.layer_key(100)};
        shms = {s.layer_key(65), s.share_key(2048)};
        for (int k : sems) ASSERT_GE(::semget(k, 1, IPC_CREAT | 0666), 0);
        for (int k : shms) ASSERT_GE(::shmget(k, 4096, IPC_CREAT | 0666), 0);
        attached = ::shmat(::shmget(shms[0], 0, 0), nullptr, 0);
        ASSERT_NE((void*)-1, attached);
        // A child's objects count too, even after the child is gone.
        const int lockKey = s.share_key(600) + 0x10000;
        Child c = Child::spawn([lockKey](ChildLink& link) {
            CHILD_CHECK(link, ::semget(lockKey, 1, IPC_CREAT | 0666) >= 0);
            return 0;
        });
        EXPECT_CHILD_OK(c);
        sems.push_back(lockKey);
        EXPECT_EQ(6, s.ipc_objects());
    }
    for (int k : sems) EXPECT_FALSE(sem_exists(k)) << std::hex << "semaphore 0x" << k;
    for (int k : shms) EXPECT_FALSE(shm_exists(k)) << std::hex << "segment 0x" << k;
    EXPECT_FALSE(path_exists(root));
    EXPECT_EQ(nullptr, std::getenv("QVFS_ROOT"));
    EXPECT_STREQ("", plat::root());
    // The attachment outlives the removal and stays usable until detached.
    static_cast<char*>(attached)[0] = 1;
    EXPECT_EQ(0, ::shmdt(attached));
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

// ---- children -----------------------------------------------------------------------

// Values both ways are what every cross-process test runs on; here: what
// happens when a child fails or is gone.
TEST(ChildProcess, FailuresReachTheReport) {
    // A failed check, a failed EXPECT (which turns 0 into 1) and an exception
    // each end the child with 1 and leave their text in the report.
    Child a = Child::spawn([](ChildLink& link) {
        link.note("step %d done", 1);
        CHILD_CHECK(link, 1 + 1 == 3);
        return 0;
    });
    Child b = Child::spawn([](ChildLink&) {
        const int x = 4;
        EXPECT_EQ(5, x) << "value of x";
        return 0;
    });
    Child e = Child::spawn([](ChildLink&) -> int { throw std::runtime_error("boom"); });
    for (Child* k : {&a, &b, &e}) EXPECT_EQ(1, k->wait());
    EXPECT_TRUE(has(a.text(), "step 1 done") && has(a.text(), "1 + 1 == 3")) << a.text();
    EXPECT_TRUE(has(a.describe(1), "exited with 1"));
    EXPECT_TRUE(has(b.text(), "value of x")) << b.text();
    EXPECT_TRUE(has(e.text(), "boom")) << e.text();
    // The child is gone: repeated waits agree, no value comes, and sending
    // fails without SIGPIPE.
    int64_t v = 0;
    EXPECT_EQ(1, a.wait());
    EXPECT_FALSE(a.recv(&v, 100));
    EXPECT_FALSE(a.send(1));
}

// No child outlives its owner: one that does not end in time is killed and
// reaped, a Child going out of scope takes its process with it, and a child
// whose parent dies goes too instead of running on unattended.
TEST(ChildProcess, NoChildOutlivesItsOwner) {
    Child slow = Child::spawn([](ChildLink&) { return ::sleep(30), 0; });
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(Child::kTimeout, slow.wait(100));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
    EXPECT_TRUE(has(slow.describe(Child::kTimeout), "in time"));
    pid_t pid;
    {
        const Child d = Child::spawn([](ChildLink&) { return ::pause(), 0; });
        pid = d.pid();
        ASSERT_TRUE(pid > 0 && d.running());
    }
    for (pid_t p : {slow.pid(), pid}) EXPECT_REAPED(p);

    Child c = Child::spawn([](ChildLink& link) -> int {
        const Child grandchild = Child::spawn([](ChildLink&) { return ::pause(), 0; });
        link.send(grandchild.pid());
        for (;;) ::pause();
    });
    int64_t gpid = 0;
    ASSERT_TRUE(c.recv(&gpid) && gpid > 0) << c.describe(c.wait(0));
    EXPECT_TRUE(has(c.describe(c.kill_now()), "signal 9"));
    // Gone, or a zombie waiting for a reaper that is not us.
    auto alive = [&] {
        char path[64], state = 0;
        std::snprintf(path, sizeof path, "/proc/%lld/stat", static_cast<long long>(gpid));
        FILE* f = std::fopen(path, "r");
        const int n = f != nullptr ? std::fscanf(f, "%*d %*s %c", &state) : 0;
        if (f != nullptr) std::fclose(f);
        return n == 1 && state != 'Z' && state != 'X';
    };
    for (int i = 0; i < 500 && alive(); ++i) ::usleep(2000);
    EXPECT_FALSE(alive());
    ::kill(static_cast<pid_t>(gpid), SIGKILL);  // in case it did survive
}
