// Reclaiming the opens of processes that died: the sweep itself, the
// owner-slot sweep used without a task device, the task device's
// list-difference algorithm (through the platform's task-list seam), and the
// task-check thread observed over one poll. Real children, killed with
// SIGKILL.
#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "common/platform.h"
#include "support/child.h"
#include "support/file_env.h"

namespace {

using qvfs::test::Child;
using qvfs::test::ChildLink;

class TaskCheckTest : public qvfs::test::FileTest {
protected:
    void TearDown() override {
        qvfs::plat::set_task_source(nullptr, nullptr);
        FileTest::TearDown();
    }

    // The share index of the live record whose stored name is `name`, or -1.
    static int find_record(const std::string& name) {
        for (uint32_t i = 0; i < qvfs::file::kFileShareIndexes; ++i) {
            if (!share_slot_used(i)) continue;
            auto* rec = static_cast<TQvFileRec*>(fsc_TfGetFileInfo(i));
            bool same = rec != nullptr && name == rec->name;
            if (rec != nullptr && i >= qvfs::file::kPoolFileRecords) fsc_TfFree(rec);  // detach only
            if (same) return int(i);
        }
        return -1;
    }
    static TQvFileRec* pool_rec(int index) { return static_cast<TQvFileRec*>(fsc_TfGetFileInfo(uint32_t(index))); }
    static int count_of(const TQvFileRec* rec, pid_t pid) {
        for (const TQvFileOwner& o : rec->owner)
            if (o.pid == pid) return o.count;
        return 0;
    }

    // A child that opens each name (the second one twice), reports 1 and
    // waits to be killed.
    static Child holder(const std::string& a, const std::string& b) {
        return Child::spawn([a, b](ChildLink& link) {
            std::string x = a, y = b, z = b;
            CHILD_CHECK(link, tf_OpenFile(nullptr, x.data()) != nullptr);
            if (!b.empty()) {
                CHILD_CHECK(link, tf_OpenFile(nullptr, y.data()) != nullptr);
                CHILD_CHECK(link, tf_OpenFile(nullptr, z.data()) != nullptr);
            }
            link.send(1);
            pause();
            return 0;
        });
    }

    // Two closed files on disk: children start with an empty file table.
    void two_files(std::string* a, std::string* b) {
        auto fa = create();
        auto fb = create();
        ASSERT_NE(nullptr, fa.h);
        ASSERT_NE(nullptr, fb.h);
        *a = fa.name;
        *b = fb.name;
        ASSERT_EQ(0, tf_CloseFile(fa.h));
        ASSERT_EQ(0, tf_CloseFile(fb.h));
    }

    static int sysv_mappings() {
        std::ifstream maps("/proc/self/maps");
        std::string line;
        int n = 0;
        while (std::getline(maps, line)) n += line.find("SYSV") != std::string::npos ? 1 : 0;
        return n;
    }
    static int threads() {
        int n = 0;
        DIR* d = opendir("/proc/self/task");
        if (d == nullptr) return -1;
        while (dirent* e = readdir(d)) n += e->d_name[0] != '.' ? 1 : 0;
        closedir(d);
        return n;
    }
};

TEST_F(TaskCheckTest, ReleasingADeadProcessKeepsTheSurvivorsCounts) {
    std::string a, b;
    two_files(&a, &b);
    Child c = holder(a, b);
    ASSERT_TRUE(c.expect(1)) << c.describe(c.wait());
    std::string bn = b;
    TQvFileHandle* mine = tf_OpenFile(nullptr, bn.data());
    ASSERT_NE(nullptr, mine);
    const int ia = find_record(a);
    const int ib = mine->rec->shareIndex;
    ASSERT_GE(ia, 0);
    EXPECT_EQ(3, mine->rec->shrRef);
    EXPECT_EQ(2, count_of(mine->rec, c.pid()));

    const pid_t dead = c.pid();
    c.kill_now();
    EXPECT_TRUE(share_slot_used(uint32_t(ia)));  // nothing happens by itself
    EXPECT_EQ(0, tf_TfReleaseInvalid(dead));
    EXPECT_FALSE(share_slot_used(uint32_t(ia)));  // held by the dead one alone
    EXPECT_TRUE(share_slot_used(uint32_t(ib)));
    EXPECT_EQ(1, mine->rec->shrRef);
    EXPECT_EQ(0, count_of(mine->rec, dead));
    EXPECT_EQ(1, count_of(mine->rec, getpid()));

    // A record nobody counts is freed by any sweep.
    auto* stray = static_cast<TQvFileRec*>(fsc_TfMalloc(0x7700000001ull, sizeof(TQvFileRec)));
    ASSERT_NE(nullptr, stray);
    const uint32_t is = uint32_t(stray->shareIndex);
    EXPECT_TRUE(share_slot_used(is));
    EXPECT_EQ(0, tf_TfReleaseInvalid(dead));
    EXPECT_FALSE(share_slot_used(is));

    // Counts never go below zero.
    TQvFileRec r;
    std::memset(&r, 0, sizeof r);
    r.shrRef = 1;
    r.owner[3] = {77, 5};
    EXPECT_EQ(0, _tf_CheckProcessValid(&r, 77));
    EXPECT_EQ(0, r.owner[3].pid);
    r.shrRef = 4;
    EXPECT_EQ(4, _tf_CheckProcessValid(&r, 78));

    ASSERT_EQ(0, tf_CloseFile(mine));
    EXPECT_FALSE(share_slot_used(uint32_t(ib)));
}

TEST_F(TaskCheckTest, WithoutTheDeviceVanishedOwnersAreReclaimed) {
    errno = 0;
    EXPECT_EQ(-1, tc_Init());  // the sandbox has no task device
    EXPECT_EQ(QVFS_ERR_SYS + ENOENT, errno);

    std::string a, b;
    two_files(&a, &b);
    Child doomed = holder(a, b);
    ASSERT_TRUE(doomed.expect(1)) << doomed.describe(doomed.wait());
    Child alive = holder(b, "");
    ASSERT_TRUE(alive.expect(1)) << alive.describe(alive.wait());
    std::string bn = b;
    TQvFileHandle* mine = tf_OpenFile(nullptr, bn.data());
    ASSERT_NE(nullptr, mine);
    const int ia = find_record(a);
    ASSERT_GE(ia, 0);
    EXPECT_EQ(4, mine->rec->shrRef);

    // A process we may not signal still exists (pid 1, unless we are root).
    auto* init = static_cast<TQvFileRec*>(fsc_TfMalloc(0x7700000002ull, sizeof(TQvFileRec)));
    ASSERT_NE(nullptr, init);
    init->shrRef = 1;
    init->owner[0] = {1, 1};

    EXPECT_EQ(0, qvfs::file::reclaim_vanished());  // everybody is alive
    EXPECT_EQ(4, mine->rec->shrRef);
    doomed.kill_now();  // killed and reaped: gone from the system
    EXPECT_EQ(1, qvfs::file::reclaim_vanished());
    EXPECT_FALSE(share_slot_used(uint32_t(ia)));
    EXPECT_EQ(2, mine->rec->shrRef);
    EXPECT_EQ(1, count_of(mine->rec, alive.pid()));
    EXPECT_EQ(1, count_of(mine->rec, getpid()));
    EXPECT_EQ(1, init->shrRef);
    EXPECT_EQ(1, init->owner[0].pid);

    // The poll without a device runs the same sweep and reports 1002.
    alive.kill_now();
    qvfs::file::task_poll();
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    EXPECT_EQ(1, mine->rec->shrRef);
    ASSERT_EQ(0, tf_CloseFile(mine));
}

TEST_F(TaskCheckTest, SweepsGiveBackTheSegmentsTheyAttached) {
    // Fill the pool so that the next records live in segments of their own.
    const pid_t self = getpid();
    for (uint64_t i = 0; i < qvfs::file::kPoolFileRecords; ++i) {
        auto* r = static_cast<TQvFileRec*>(fsc_TfMalloc(0x7800000000ull + i, sizeof(TQvFileRec)));
        ASSERT_NE(nullptr, r);
        r->shrRef = 1;
        r->owner[0] = {self, 1};
    }
    auto f = create();  // this process holds a record beyond the pool
    ASSERT_NE(nullptr, f.h);
    ASSERT_GE(f.h->rec->shareIndex, int(qvfs::file::kPoolFileRecords));
    Child c = holder(f.name, "");
    ASSERT_TRUE(c.expect(1)) << c.describe(c.wait());
    auto* other = static_cast<TQvFileRec*>(fsc_TfMalloc(0x7900000000ull, sizeof(TQvFileRec)));
    ASSERT_NE(nullptr, other);
    other->shrRef = 1;
    other->owner[0] = {c.pid(), 1};
    ASSERT_GE(other->shareIndex, int(qvfs::file::kPoolFileRecords));

    const int before = sysv_mappings();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, tf_TfReleaseInvalid(999999));
        EXPECT_EQ(0, qvfs::file::reclaim_vanished());
    }
    EXPECT_EQ(before, sysv_mappings());
    // The process's own attachment stayed mapped and counted.
    EXPECT_EQ(2, f.h->rec->shrRef);
    c.kill_now();
    EXPECT_EQ(1, qvfs::file::reclaim_vanished());
    EXPECT_EQ(1, f.h->rec->shrRef);
    EXPECT_EQ(0, other->shrRef);  // freed: the mapping stays until we detach
    EXPECT_EQ(before, sysv_mappings());
    ASSERT_EQ(0, tf_CloseFile(f.h));
}

struct FakeDevice {
    TQvTaskList list{};
    bool fail = false;
};

int fake_list(void* out, void* ctx) {
    auto* dev = static_cast<FakeDevice*>(ctx);
    if (dev->fail) {
        errno = EIO;
        return -1;
    }
    std::memcpy(out, &dev->list, sizeof dev->list);
    return 0;
}

TEST_F(TaskCheckTest, DeviceListDifferenceReleasesOnlyWhoLeftTheList) {
    std::string a, b;
    two_files(&a, &b);
    Child c1 = holder(a, "");
    ASSERT_TRUE(c1.expect(1)) << c1.describe(c1.wait());
    Child c2 = holder(a, "");
    ASSERT_TRUE(c2.expect(1)) << c2.describe(c2.wait());
    std::string an = a;
    TQvFileHandle* mine = tf_OpenFile(nullptr, an.data());
    ASSERT_NE(nullptr, mine);
    TQvFileRec* rec = mine->rec;
    ASSERT_EQ(3, rec->shrRef);

    FakeDevice dev;
    qvfs::plat::set_task_source(fake_list, &dev);
    qvfs::file::task_reset();
    ASSERT_EQ(0, tc_Init());
    const int32_t self = int32_t(getpid());
    auto set = [&](std::initializer_list<int32_t> pids) {
        std::memset(&dev.list, 0, sizeof dev.list);
        dev.list.word = 0xABCD;
        int k = 0;
        for (int32_t p : pids) dev.list.pid[k++] = p;
    };

    set({self, c1.pid(), c2.pid()});
    qvfs::file::task_poll();  // the first list only becomes the previous one
    EXPECT_EQ(3, rec->shrRef);
    set({c2.pid(), 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, self, c1.pid()});
    qvfs::file::task_poll();  // moved entries are not gone, up to the last one
    set({c2.pid(), 0, c1.pid(), self});
    qvfs::file::task_poll();
    EXPECT_EQ(3, rec->shrRef);
    EXPECT_EQ(1, count_of(rec, c1.pid()));

    set({c2.pid(), self});
    qvfs::file::task_poll();  // c1 left the list (alive or not, it is released)
    EXPECT_EQ(2, rec->shrRef);
    EXPECT_EQ(0, count_of(rec, c1.pid()));
    EXPECT_EQ(1, count_of(rec, c2.pid()));

    set({c2.pid()});
    qvfs::file::task_poll();  // the own process is never released
    EXPECT_EQ(2, rec->shrRef);
    EXPECT_EQ(1, count_of(rec, self));

    dev.fail = true;
    set({});
    errno = 0;
    qvfs::file::task_poll();
    EXPECT_EQ(QVFS_ERR_SYS + EIO, errno);
    EXPECT_EQ(2, rec->shrRef);

    dev.fail = false;
    qvfs::file::task_poll();  // the failed poll kept the previous list
    EXPECT_EQ(1, rec->shrRef);
    EXPECT_EQ(0, count_of(rec, c2.pid()));

    c1.kill_now();
    c2.kill_now();
    const uint32_t index = uint32_t(rec->shareIndex);
    ASSERT_EQ(0, tf_CloseFile(mine));
    EXPECT_FALSE(share_slot_used(index));
}

TEST_F(TaskCheckTest, TheThreadReclaimsWithinOnePoll) {
    std::string a, b;
    two_files(&a, &b);
    Child c = holder(a, "");
    ASSERT_TRUE(c.expect(1)) << c.describe(c.wait());
    const int ia = find_record(a);
    ASSERT_GE(ia, 0);

    const int before = threads();
    ASSERT_EQ(0, tc_SetMainTask());
    EXPECT_EQ(0, tc_SetMainTask());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(before + 1, threads());
    EXPECT_TRUE(share_slot_used(uint32_t(ia)));  // the first poll found it alive

    c.kill_now();
    const auto start = std::chrono::steady_clock::now();
    while (share_slot_used(uint32_t(ia)) && std::chrono::steady_clock::now() - start < std::chrono::seconds(7))
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(share_slot_used(uint32_t(ia)));
    EXPECT_LE(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
}

}  // namespace
