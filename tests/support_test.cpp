// The test harness itself: sandbox keys and teardown, forked children.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <set>
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

bool sem_exists(int key) { return ::semget(key, 0, 0) >= 0; }
bool shm_exists(int key) { return ::shmget(key, 0, 0) >= 0; }

std::string tmp_base() {
    const char* t = std::getenv("TMPDIR");
    return (t != nullptr && t[0] != '\0') ? t : "/tmp";
}

bool path_exists(const std::string& p) {
    struct stat st;
    return ::stat(p.c_str(), &st) == 0;
}

}  // namespace

// ---- sandbox --------------------------------------------------------------------------

TEST(SandboxKeys, MatchTheLibraryDerivationAndAreDistinct) {
    Sandbox s;
    const struct {
        int index, file, proj;
    } cases[] = {{0, 0, 1}, {125, 0, 126}, {126, 1, 1}, {512, 4, 9}, {2072, 16, 57}};
    for (const auto& c : cases) {
        std::string f = "/dvr/qvfs/qvfs" + std::to_string(c.file);
        EXPECT_EQ(plat::ftok(f.c_str(), c.proj), s.share_key(c.index)) << "share index " << c.index;
    }
    for (int p : {65, 66, 97, 98, 99, 100}) {
        EXPECT_EQ(plat::ftok("/dvr/qvfs/qvfslayer", p), s.layer_key(p)) << "project " << p;
    }
    EXPECT_EQ(-1, s.share_key(2073));
    EXPECT_EQ(-1, s.layer_key(64));

    std::set<int> all(s.keys().begin(), s.keys().end());
    EXPECT_EQ(std::size_t(2 * 2073 + 6), s.keys().size());
    EXPECT_EQ(s.keys().size(), all.size());
    EXPECT_TRUE(all.count(s.share_key(700) + 0x10000));
    EXPECT_EQ(0, s.ipc_objects());
}

TEST(SandboxKeys, ParallelSandboxesNeverShareAKey) {
    Sandbox a;
    std::set<int> ak(a.keys().begin(), a.keys().end());
    std::vector<int> bk;
    {
        Sandbox b;
        bk = b.keys();
        EXPECT_NE(a.root(), b.root());
        EXPECT_EQ(b.root(), plat::root());
    }
    for (int k : bk) EXPECT_EQ(0u, ak.count(k)) << std::hex << "key 0x" << k;
    EXPECT_STREQ(a.root().c_str(), plat::root());  // the inner sandbox restored the outer root
}

// Semaphores are placed under the keys that the next key files are likely to
// get: the sandbox must see the keys in use and replace its key files until
// none is. Likely identities: those of a probe tree just deleted (file
// systems that reuse the lowest free inode hand them out again) and the ones
// after it (file systems that count inodes up; the sandbox's directories and
// claim files take some of them first).
TEST(SandboxKeys, BusyKeysForceNewKeyFiles) {
    std::set<int> idents;
    {
        std::string tmpl = tmp_base() + "/qvfs-probe-XXXXXX";
        std::vector<char> dir(tmpl.begin(), tmpl.end());
        dir.push_back('\0');
        ASSERT_NE(nullptr, ::mkdtemp(dir.data()));
        std::vector<std::string> files;
        int last = static_cast<int>(::ftok(dir.data(), 1) & 0xFFFFFF);
        idents.insert(last);
        for (int i = 0; i < 24; ++i) {
            files.push_back(std::string(dir.data()) + "/" + std::to_string(i));
            int fd = ::open(files.back().c_str(), O_CREAT | O_RDWR, 0666);
            ASSERT_GE(fd, 0);
            ::close(fd);
            last = static_cast<int>(::ftok(files.back().c_str(), 1) & 0xFFFFFF);
            idents.insert(last);
        }
        for (const std::string& f : files) ::unlink(f.c_str());
        ::rmdir(dir.data());
        for (int k = 1; k <= 96; ++k) idents.insert((last & 0xFF0000) | ((last + k) & 0xFFFF));
    }

    // The semaphores hold 1, so that a library elsewhere that happened to
    // adopt one would still find a working lock; identities that a living
    // sandbox has claimed are left alone.
    std::string claims = tmp_base() + "/qvfs-sbx-claims/";
    auto claimed = [&](int id) {
        char name[16];
        std::snprintf(name, sizeof name, "%06x", static_cast<unsigned>(id));
        return path_exists(claims + name);
    };
    std::vector<int> mine;  // semaphore ids
    std::set<int> busy;
    for (int id : idents) {
        if (claimed(id)) continue;
        for (int proj : {1, 97}) {
            int key = (proj << 24) | id;
            int sem = ::semget(key, 1, IPC_CREAT | IPC_EXCL | 0666);
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
    // The sandbox's teardown must not have touched the foreign semaphores.
    for (int key : busy) EXPECT_TRUE(sem_exists(key)) << std::hex << "key 0x" << key;
    // Ours to remove unless some library took one up as its lock in the
    // meantime (a sandbox that checked its keys just before they were made
    // busy): the last operation on it is then not our setting of the value.
    for (int sem : mine) {
        if (::semctl(sem, 0, GETPID) == ::getpid()) ::semctl(sem, 0, IPC_RMID);
    }
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
        sems = {s.share_key(0), s.share_key(2072) + 0x10000, s.layer_key(100)};
        shms = {s.layer_key(65), s.share_key(2048)};
        for (int k : sems) ASSERT_GE(::semget(k, 1, IPC_CREAT | 0666), 0);
        for (int k : shms) ASSERT_GE(::shmget(k, 4096, IPC_CREAT | 0666), 0);
        attached = ::shmat(::shmget(shms[0], 0, 0), nullptr, 0);
        ASSERT_NE((void*)-1, attached);

        // A child's objects count too, even after the child is gone.
        int lockKey = s.share_key(600) + 0x10000;
        Child c = Child::spawn([lockKey](ChildLink& link) {
            CHILD_CHECK(link, ::semget(lockKey, 1, IPC_CREAT | 0666) >= 0);
            return 0;
        });
        EXPECT_CHILD_OK(c);
        sems.push_back(lockKey);
        EXPECT_EQ(6, s.ipc_objects());
        EXPECT_TRUE(path_exists(s.image_path(3)));
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

// A test process killed before its teardown: the next sandbox cleans up
// after it.
TEST(SandboxTeardown, NextSandboxSweepsAfterAKilledOne) {
    Child c = Child::spawn([](ChildLink& link) {
        auto* s = new Sandbox;  // never torn down: the process is killed
        int sem = s->share_key(2050);
        int shm = s->layer_key(65);
        CHILD_CHECK(link, ::semget(sem, 1, IPC_CREAT | 0666) >= 0);
        CHILD_CHECK(link, ::shmget(shm, 4096, IPC_CREAT | 0666) >= 0);
        CHILD_CHECK(link, ::semget(s->share_key(9) + 0x10000, 1, IPC_CREAT | 0666) >= 0);
        link.note("%s", s->root().c_str());
        link.send(sem);
        link.send(shm);
        link.send(s->share_key(9) + 0x10000);
        for (;;) ::pause();
    });
    int64_t sem = 0, shm = 0, lock = 0;
    ASSERT_TRUE(c.recv(&sem) && c.recv(&shm) && c.recv(&lock)) << c.describe(c.wait(0));
    EXPECT_EQ(Child::signalled(SIGKILL), c.kill_now());
    std::string root = c.text();
    while (!root.empty() && root.back() == '\n') root.pop_back();
    ASSERT_TRUE(path_exists(root)) << root;
    ASSERT_TRUE(sem_exists(int(sem)));
    ASSERT_TRUE(shm_exists(int(shm)));

    Sandbox next;
    EXPECT_FALSE(sem_exists(int(sem)));
    EXPECT_FALSE(shm_exists(int(shm)));
    EXPECT_FALSE(sem_exists(int(lock)));
    EXPECT_FALSE(path_exists(root));
}

// Objects a process makes under its keys after its teardown (a library thread
// still running, say) are removed once the process is gone.
TEST(SandboxTeardown, ObjectsMadeAfterTeardownGoWithTheProcess) {
    Child c = Child::spawn([](ChildLink& link) {
        int key;
        {
            Sandbox s;
            key = s.share_key(2060);
        }
        CHILD_CHECK(link, ::semget(key, 1, IPC_CREAT | 0666) >= 0);
        link.send(key);
        return 0;
    });
    int64_t key = 0;
    ASSERT_TRUE(c.recv(&key)) << c.describe(c.wait());
    EXPECT_CHILD_OK(c);
    ASSERT_TRUE(sem_exists(int(key)));
    Sandbox next;
    EXPECT_FALSE(sem_exists(int(key)));
}

TEST(SandboxTeardown, RemoveIpcKeepsTheFiles) {
    Sandbox s;
    s.add_disk(0, 1ull << 30);
    ASSERT_GE(::semget(s.layer_key(97), 1, IPC_CREAT | 0666), 0);
    ASSERT_GE(::shmget(s.layer_key(66), 4096, IPC_CREAT | 0666), 0);
    EXPECT_EQ(2, s.remove_ipc());
    EXPECT_EQ(0, s.ipc_objects());
    EXPECT_EQ(0, s.remove_ipc());
    EXPECT_TRUE(path_exists(s.image_path(0)));
    EXPECT_TRUE(path_exists(s.real("/dvr/qvfs/qvfslayer")));
    // Same files, same keys: the next "boot" finds nothing under them.
    EXPECT_EQ(s.layer_key(97), plat::ftok("/dvr/qvfs/qvfslayer", 97));
}

TEST(SandboxDisks, ImagesAreSparseAndRemovable) {
    Sandbox s;
    EXPECT_EQ("/dev/scsi/host07/part1", s.add_disk(7, 2000398934016ull));
    EXPECT_EQ(s.root() + "/dev/scsi/host07/part1", s.image_path(7));
    struct stat st;
    ASSERT_EQ(0, ::stat(s.image_path(7).c_str(), &st));
    EXPECT_EQ(2000398934016, st.st_size);
    EXPECT_LT(st.st_blocks, 1024);  // no space taken
    s.add_disk(7, 12ull << 30);   // resize
    EXPECT_EQ(int64_t(12) << 30, plat::device_size("/dev/scsi/host07/part1"));
    s.remove_disk(7);
    EXPECT_EQ(-1, plat::device_size("/dev/scsi/host07/part1"));
}

// ---- children ---------------------------------------------------------------------------

TEST(ChildProcess, ExchangesValuesBothWays) {
    Child c = Child::spawn([](ChildLink& link) {
        int64_t v = 0;
        CHILD_CHECK(link, link.recv(&v));
        link.send(v * 2);
        link.send(::getpid());
        return 7;
    });
    ASSERT_GT(c.pid(), 0);
    EXPECT_TRUE(c.send(21));
    EXPECT_TRUE(c.expect(42));
    int64_t pid = 0;
    EXPECT_TRUE(c.recv(&pid));
    EXPECT_EQ(c.pid(), pid);
    EXPECT_EQ(7, c.wait());
    EXPECT_EQ(7, c.wait());  // repeated
    // The child is gone: no value comes, and sending fails without SIGPIPE.
    EXPECT_FALSE(c.recv(&pid, 100));
    EXPECT_FALSE(c.send(1));
}

TEST(ChildProcess, FailuresReachTheParentReport) {
    Child a = Child::spawn([](ChildLink& link) {
        link.note("step %d done", 1);
        CHILD_CHECK(link, 1 + 1 == 3);
        return 0;
    });
    EXPECT_EQ(1, a.wait());
    EXPECT_NE(std::string::npos, a.text().find("step 1 done"));
    EXPECT_NE(std::string::npos, a.text().find("1 + 1 == 3"));
    EXPECT_NE(std::string::npos, a.describe(1).find("exited with 1"));

    // An EXPECT failing in the child turns its 0 into 1 and names the check.
    Child b = Child::spawn([](ChildLink&) {
        int x = 4;
        EXPECT_EQ(5, x) << "value of x";
        return 0;
    });
    EXPECT_EQ(1, b.wait());
    EXPECT_NE(std::string::npos, b.text().find("value of x"));

    Child e = Child::spawn([](ChildLink&) -> int { throw std::runtime_error("boom"); });
    EXPECT_EQ(1, e.wait());
    EXPECT_NE(std::string::npos, e.text().find("boom"));
}

// The use the harness exists for: a child dies holding a lock, the kernel's
// undo gives the lock back.
TEST(ChildProcess, KilledWhileHoldingASemaphore) {
    Sandbox s;
    int key = s.layer_key(98);
    int sem = ::semget(key, 1, IPC_CREAT | 0666);
    ASSERT_GE(sem, 0);
    ASSERT_EQ(0, ::semctl(sem, 0, SETVAL, 1));
    Child c = Child::spawn([sem](ChildLink& link) {
        struct sembuf op = {0, -1, SEM_UNDO};
        CHILD_CHECK(link, ::semop(sem, &op, 1) == 0);
        link.send(1);
        for (;;) ::pause();
    });
    ASSERT_TRUE(c.expect(1)) << c.describe(c.wait(0));
    EXPECT_EQ(0, ::semctl(sem, 0, GETVAL));
    EXPECT_EQ(Child::signalled(SIGKILL), c.kill_now());
    EXPECT_FALSE(c.running());
    EXPECT_EQ(1, ::semctl(sem, 0, GETVAL));
    EXPECT_NE(std::string::npos, c.describe(c.wait()).find("signal 9"));
}

// A child whose parent dies goes with it instead of running on unattended.
TEST(ChildProcess, ChildrenDieWithTheirParent) {
    Child c = Child::spawn([](ChildLink& link) -> int {
        Child grandchild = Child::spawn([](ChildLink&) -> int {
            for (;;) ::pause();
        });
        link.send(grandchild.pid());
        for (;;) ::pause();
    });
    int64_t gpid = 0;
    ASSERT_TRUE(c.recv(&gpid)) << c.describe(c.wait(0));
    ASSERT_GT(gpid, 0);
    c.kill_now();
    // Gone, or a zombie waiting for a reaper that is not us.
    auto alive = [&] {
        char path[64];
        std::snprintf(path, sizeof path, "/proc/%lld/stat", static_cast<long long>(gpid));
        FILE* f = std::fopen(path, "r");
        if (f == nullptr) return false;
        int pid = 0;
        char comm[256] = {}, state = 0;
        int n = std::fscanf(f, "%d %255s %c", &pid, comm, &state);
        std::fclose(f);
        return n == 3 && state != 'Z' && state != 'X';
    };
    for (int i = 0; i < 500 && alive(); ++i) ::usleep(2000);
    EXPECT_FALSE(alive());
    ::kill(static_cast<pid_t>(gpid), SIGKILL);  // in case it did survive
}

TEST(ChildProcess, TimeoutKillsAndDestructorReaps) {
    Child c = Child::spawn([](ChildLink&) {
        ::sleep(30);
        return 0;
    });
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(Child::kTimeout, c.wait(100));
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5));
    EXPECT_EQ(-1, ::kill(c.pid(), 0));  // killed and reaped
    EXPECT_NE(std::string::npos, c.describe(Child::kTimeout).find("in time"));

    pid_t pid;
    {
        Child d = Child::spawn([](ChildLink&) {
            ::pause();
            return 0;
        });
        pid = d.pid();
        ASSERT_GT(pid, 0);
        EXPECT_TRUE(d.running());
        Child moved = std::move(d);  // the moved-to object owns it now
        EXPECT_EQ(pid, moved.pid());
        EXPECT_FALSE(d.running());
    }
    errno = 0;
    EXPECT_EQ(-1, ::kill(pid, 0));
    EXPECT_EQ(ESRCH, errno);  // no zombie left behind
    EXPECT_EQ(Child::kNoChild, Child().wait());
}
