// Reclaiming the opens of processes that died: the owner-slot sweep used
// without a task device, the segments a sweep attaches, the task device's
// list-difference algorithm (through the platform's task-list seam), and the
// task-check thread observed over one poll. Real children, killed with SIGKILL.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <thread>

#include "common/platform.h"
#include "support/child.h"
#include "support/compat.h"

namespace {

using qvfs::file::kPoolFileRecords;
using qvfs::file::reclaim_vanished;
using qvfs::file::task_poll;
using qvfs::test::Child;
using qvfs::test::ChildLink;

class TaskCheckTest : public qvfs::test::FileCompat {
protected:
    void TearDown() override {
        qvfs::plat::set_task_source(nullptr, nullptr);
        FileCompat::TearDown();
    }
    // The share index of the live pool record whose stored name is `name`, or -1.
    static int find_record(const std::string& name) {
        for (uint32_t i = 0; i < kPoolFileRecords; ++i)
            if (share_slot_used(i) && name == static_cast<TQvFileRec*>(fsc_TfGetFileInfo(i))->name) return int(i);
        return -1;
    }
    // A shared record held by `pid` alone, under a key no file uses.
    static TQvFileRec* fake_record(uint64_t key, pid_t pid) {
        auto* r = static_cast<TQvFileRec*>(fsc_TfMalloc(key, sizeof(TQvFileRec)));
        EXPECT_NE(nullptr, r);
        if (r != nullptr) r->shrRef = 1, r->owner[0] = {pid, 1};
        return r;
    }
    // A child that opens `a` once and `b` (when given) twice, reports 1 and
    // waits to be killed.
    static Child holder(const std::string& a, const std::string& b = "") {
        Child c = Child::spawn([a, b](ChildLink& link) {
            CHILD_CHECK(link, open(a) != nullptr);
            CHILD_CHECK(link, b.empty() || (open(b) != nullptr && open(b) != nullptr));
            link.send(1);
            pause();
            return 0;
        });
        EXPECT_TRUE(c.expect(1)) << c.describe(c.wait());
        return c;
    }
    // Two files on disk, closed: children start with an empty file table.
    void SetUp() override {
        FileCompat::SetUp();
        for (std::string* n : {&a_, &b_}) {
            auto f = create();
            ASSERT_NE(nullptr, f.h);
            *n = f.name;
            ASSERT_EQ(0, tf_CloseFile(f.h));
        }
    }
    static int sysv_mappings() {
        std::ifstream in("/proc/self/maps");
        int n = 0;
        for (std::string line; std::getline(in, line);) n += line.find("SYSV") != std::string::npos ? 1 : 0;
        return n;
    }
    static long threads() {
        using std::filesystem::directory_iterator;
        return std::distance(directory_iterator("/proc/self/task"), directory_iterator());
    }
    std::string a_, b_;
};

TEST_F(TaskCheckTest, ADeadProcessIsReleasedAndTheSurvivorsKeepTheirCounts) {
    EXPECT_ERR(-1, QVFS_ERR_SYS + ENOENT, tc_Init());  // the sandbox has no task device
    Child doomed = holder(a_, b_), alive = holder(b_);
    TQvFileHandle* mine = open(b_);
    ASSERT_NE(nullptr, mine);
    const int ia = find_record(a_);
    ASSERT_GE(ia, 0);
    EXPECT_EQ(4, mine->rec->shrRef);
    EXPECT_EQ(2, owner_count(mine->rec, doomed.pid()));
    // A process we may not signal still exists (pid 1, unless we are root).
    TQvFileRec* init = fake_record(0x7700000002ull, 1);
    ASSERT_NE(nullptr, init);

    // Without the device the sweep reclaims the owners that vanished.
    EXPECT_EQ(0, reclaim_vanished());  // everybody is alive
    const pid_t dead = doomed.pid();
    doomed.kill_now();  // killed and reaped: gone from the system
    EXPECT_TRUE(share_slot_used(uint32_t(ia)));  // nothing happens by itself
    EXPECT_EQ(1, reclaim_vanished());
    EXPECT_FALSE(share_slot_used(uint32_t(ia)));  // held by the dead one alone: freed
    EXPECT_EQ(2, mine->rec->shrRef);
    EXPECT_EQ(-1, owner_count(mine->rec, dead));
    EXPECT_EQ(1, owner_count(mine->rec, alive.pid()));
    EXPECT_EQ(1, owner_count(mine->rec, getpid()));
    EXPECT_EQ(1, owner_count(init, 1));

    // A record nobody counts is freed by any sweep; counts never go below zero.
    auto* stray = static_cast<TQvFileRec*>(fsc_TfMalloc(0x7700000001ull, sizeof(TQvFileRec)));
    ASSERT_NE(nullptr, stray);
    EXPECT_EQ(0, tf_TfReleaseInvalid(dead));
    EXPECT_FALSE(share_slot_used(uint32_t(stray->shareIndex)));
    TQvFileRec r{};
    r.shrRef = 1;
    r.owner[3] = {77, 5};
    EXPECT_EQ(0, _tf_CheckProcessValid(&r, 77));
    EXPECT_EQ(0, r.owner[3].pid);

    // The poll without a device runs the same sweep and reports 1002.
    alive.kill_now();
    task_poll();
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    EXPECT_EQ(1, mine->rec->shrRef);
    const uint32_t ib = uint32_t(mine->rec->shareIndex);
    ASSERT_EQ(0, tf_CloseFile(mine));
    EXPECT_FALSE(share_slot_used(ib));
}

TEST_F(TaskCheckTest, SweepsGiveBackTheSegmentsTheyAttached) {
    // Fill the pool so that the next records live in segments of their own.
    for (uint64_t i = 0; i < kPoolFileRecords; ++i) ASSERT_NE(nullptr, fake_record(0x7800000000ull + i, getpid()));
    auto f = create();  // this process holds a record beyond the pool
    ASSERT_NE(nullptr, f.h);
    ASSERT_GE(f.h->rec->shareIndex, int(kPoolFileRecords));
    Child c = holder(f.name);
    TQvFileRec* other = fake_record(0x7900000000ull, c.pid());
    ASSERT_NE(nullptr, other);
    ASSERT_GE(other->shareIndex, int(kPoolFileRecords));

    const int before = sysv_mappings();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, tf_TfReleaseInvalid(999999));
        EXPECT_EQ(0, reclaim_vanished());
    }
    EXPECT_EQ(before, sysv_mappings());
    EXPECT_EQ(2, f.h->rec->shrRef);  // the process's own attachment stayed mapped
    c.kill_now();
    EXPECT_EQ(1, reclaim_vanished());
    EXPECT_EQ(1, f.h->rec->shrRef);
    EXPECT_EQ(0, other->shrRef);  // freed: the mapping stays until we detach
    EXPECT_EQ(before, sysv_mappings());
    ASSERT_EQ(0, tf_CloseFile(f.h));
}

struct FakeDevice {
    TQvTaskList list{};
    bool fail = false;
    void set(std::initializer_list<int32_t> pids) {
        std::memset(&list, 0, sizeof list);
        list.word = 0xABCD;
        int k = 0;
        for (int32_t p : pids) list.pid[k++] = p;
    }
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
    Child c1 = holder(a_), c2 = holder(a_);
    TQvFileHandle* mine = open(a_);
    ASSERT_NE(nullptr, mine);
    TQvFileRec* rec = mine->rec;
    ASSERT_EQ(3, rec->shrRef);
    FakeDevice dev;
    qvfs::plat::set_task_source(fake_list, &dev);
    qvfs::file::task_reset();
    ASSERT_EQ(0, tc_Init());
    const int32_t self = int32_t(getpid()), p1 = c1.pid(), p2 = c2.pid();

    dev.set({self, p1, p2});
    task_poll();  // the first list only becomes the previous one
    dev.set({p2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, self, p1});
    task_poll();  // moved entries are not gone, up to the last one
    dev.set({p2, 0, p1, self});
    task_poll();
    EXPECT_EQ(3, rec->shrRef);
    EXPECT_EQ(1, owner_count(rec, p1));

    dev.set({p2, self});
    task_poll();  // c1 left the list (alive or not, it is released)
    EXPECT_EQ(2, rec->shrRef);
    EXPECT_EQ(-1, owner_count(rec, p1));
    dev.set({p2});
    task_poll();  // the own process is never released
    EXPECT_EQ(2, rec->shrRef);
    EXPECT_EQ(1, owner_count(rec, self));

    dev.fail = true;
    dev.set({});
    errno = 0;
    task_poll();
    EXPECT_EQ(QVFS_ERR_SYS + EIO, errno);
    EXPECT_EQ(2, rec->shrRef);
    dev.fail = false;
    task_poll();  // the failed poll kept the previous list
    EXPECT_EQ(1, rec->shrRef);
    EXPECT_EQ(-1, owner_count(rec, p2));
    const uint32_t index = uint32_t(rec->shareIndex);
    ASSERT_EQ(0, tf_CloseFile(mine));
    EXPECT_FALSE(share_slot_used(index));
}

TEST_F(TaskCheckTest, SlowThreadReclaimsWithinOnePoll) {
    Child c = holder(a_);
    const int ia = find_record(a_);
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
