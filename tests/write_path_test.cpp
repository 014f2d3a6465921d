// The write path's promises: a byte that a returned qvfs_Write acknowledged
// is read back, with the file's right length, by every other process at once
// and from the device once the writer is gone, even when the writer was
// killed before any flush; and a marked disk is flushed within about a
// second, at most once per flush period, however few disks are mounted.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/proc_lock.h"
#include "disk/df.h"
#include "file/tf.h"
#include "support/child.h"
#include "support/fixture.h"

namespace {

using qvfs::test::ApiTest;
using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::pattern;
using Clock = std::chrono::steady_clock;

class WritePath : public ApiTest {
protected:
    // The slice entry of a named file as the device holds it.
    TQvBlkSliceInfo entry_on_device(const std::string& name) const {
        TQvBlkSliceInfo e{};
        const int64_t blk = df_GetBlkAddr(0, int32_t(qvfs::test::name_block(name)));
        const int fd = ::open(sbx_.image_path(0).c_str(), O_RDONLY);
        EXPECT_TRUE(blk > 0 && fd >= 0);
        const off_t at = off_t(blk) + off_t(qvfs::test::name_slice(name)) * 512;
        EXPECT_EQ(ssize_t(sizeof e), ::pread(fd, &e, sizeof e, at));
        ::close(fd);
        return e;
    }
    uint64_t length_on_device(const std::string& name) const {
        const TQvBlkSliceInfo e = entry_on_device(name);
        return e.dataEnd - e.dataStart;
    }
};

// What the recorder writes to file f: whole chunks through qvfs_Write, then
// an odd tail through qvfs_Writev in two pieces.
constexpr uint32_t kChunk = 65536, kTail = 1000;
constexpr int kChunks = 5;
constexpr uint64_t kLength = uint64_t(kChunks) * kChunk + kTail;

int record(TQvfsOpenParam p, uint32_t f, char* name, ChildLink& link) {
    const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
    CHILD_CHECK(link, h >= 0);
    for (int i = 0; i < kChunks; ++i) {
        const auto data = pattern(f, uint64_t(i) * kChunk, kChunk);
        CHILD_CHECK(link, qvfs_Write(h, data.data(), kChunk) == int(kChunk));
    }
    auto tail = pattern(f, uint64_t(kChunks) * kChunk, kTail);
    iovec v[2] = {{tail.data(), 7}, {tail.data() + 7, kTail - 7}};
    CHILD_CHECK(link, qvfs_Writev(h, v, 2) == int(kTail));
    return 0;
}

// The recorder is killed right after its last write returned, while no flush
// pass can run (the pass lock is held here), so that no entry on the device
// covers the bytes yet. File 0 is read by this process before the dead one is
// reclaimed; file 1 only after, so its entry must come from the reclamation.
// Both then read right from the device after a remount.
TEST_F(WritePath, KilledRecorderLosesNoAcknowledgedByte) {
    char names[2][64] = {};
    auto* board = static_cast<char(*)[64]>(mmap(nullptr, sizeof names, PROT_READ | PROT_WRITE,
                                                 MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(board));
    qvfs::ProcLockGuard passes(g_tTimerMutex);
    Child recorder = Child::spawn([&](ChildLink& link) {
        for (uint32_t f = 0; f < 2; ++f)
            if (record(param(10 + f), f, board[f], link) != 0) return 1;
        link.send(1);
        pause();
        return 0;
    });
    ASSERT_TRUE(recorder.expect(1)) << recorder.describe(recorder.wait());
    recorder.kill_now();
    std::memcpy(names, board, sizeof names);
    munmap(board, sizeof names);

    // Another process, the writer dead and nothing flushed: every byte.
    const int h0 = open_name(names[0]);
    ASSERT_GE(h0, 0);
    EXPECT_EQ(int64_t(kLength), qvfs_Seek(h0, 0, 2));
    EXPECT_EQ(pattern(0, 0, kLength), read_all(names[0]));
    const uint64_t lagging = length_on_device(names[1]);

    // Reclaiming the dead process writes the entries it left behind.
    passes.unlock();
    EXPECT_EQ(1, qvfs::file::reclaim_vanished());
    EXPECT_EQ(0, qvfs_Close(h0));
    EXPECT_EQ(kLength, length_on_device(names[1])) << "before reclamation: " << lagging;
    EXPECT_EQ(kLength, length_on_device(names[0]));

    // A fresh mount reads the lengths from the device.
    ASSERT_EQ(0, qvfs_UnMount_V2(disk_.c_str()));
    ASSERT_EQ(0, qvfs_Mount(disk_.c_str()));
    for (uint32_t f = 0; f < 2; ++f) {
        EXPECT_EQ(kLength, uint64_t(stat_of(names[f]).st.st_size)) << f;
        EXPECT_EQ(pattern(f, 0, kLength), read_all(names[f])) << f;
    }
}

// With one disk mounted of 25, the first growing write is flushed and its
// entry stored within about a second, and a recorder that keeps writing
// causes at most one flush per flush period. qvfs_fsync does not wait for
// the cadence: the entry is on the device when it returns.
TEST_F(WritePath, OneMountedDiskIsFlushedEverySecondAtMost) {
    std::string name;
    const int h = create(&name);
    ASSERT_GE(h, 0);
    const auto chunk = pattern(3, 0, 4096);
    std::this_thread::sleep_for(std::chrono::milliseconds(qvfs::disk::kFlushSpacing + 200));  // the create's flush is done
    const long before = qvfs::disk::flush_count(0);
    const auto t0 = Clock::now();
    ASSERT_EQ(4096, qvfs_Write(h, chunk.data(), 4096));
    while (length_on_device(name) < 4096 && Clock::now() - t0 < std::chrono::seconds(5))
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const auto served = Clock::now() - t0;
    EXPECT_EQ(4096u, length_on_device(name));
    EXPECT_LT(served, std::chrono::milliseconds(1500));
    EXPECT_GT(qvfs::disk::flush_count(0), before);

    // Two seconds of steady writing: a flush every period, never more.
    const long steady = qvfs::disk::flush_count(0);
    const auto t1 = Clock::now();
    uint64_t at = 4096;
    while (Clock::now() - t1 < std::chrono::seconds(2)) {
        ASSERT_EQ(4096, qvfs_Write(h, chunk.data(), 4096));
        at += 4096;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const long flushes = qvfs::disk::flush_count(0) - steady;
    EXPECT_GE(flushes, 1);
    EXPECT_LE(flushes, 2000 / qvfs::disk::kFlushSpacing + 1);

    ASSERT_EQ(0, qvfs_fsync(h));
    EXPECT_EQ(at, length_on_device(name));
    EXPECT_EQ(0, qvfs_Close(h));
}

}  // namespace
