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
bool has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }
// A process that is gone and reaped: no zombie left behind.
#define EXPECT_REAPED(pid) do { errno = 0; EXPECT_EQ(-1, ::kill(pid, 0)) << pid; EXPECT_EQ(ESRCH, errno) << pid; } while (0)

}  // namespace

// ---- sandbox ------------------------------------------------------------------------

// The library's key tests compare every share key with the sandbox's; the
// layer keys are checked here.
TEST(SandboxKeys, AreAllDistinctAndNeverMeetAnotherSandbox) {
    Sandbox a;
    for (int p : {65, 66, 67, 97, 98, 99, 100, 101, 125}) EXPECT_EQ(plat::ftok("/dvr/qvfs/qvfslayer", p), a.layer_key(p)) << p;
    // Share keys, their lock keys and the layer keys, each once.
    const std::set<int> ak(a.keys().begin(), a.keys().end());
    EXPECT_EQ(std::size_t(2 * 2073 + 32), ak.size());
    EXPECT_EQ(a.keys().size(), ak.size());
    {
        Sandbox b;
        EXPECT_EQ(b.root(), plat::root());
        EXPECT_NE(a.root(), b.root());
        for (int k : b.keys()) EXPECT_EQ(0u, ak.count(k)) << std::hex << "key 0x" << k;
    }
    EXPECT_EQ(a.root(), plat::root());  // the inner sandbox restored the outer root
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
