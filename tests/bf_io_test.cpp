// Block I/O: transfers at the block's end, failed and short transfers
// through the fault seam, and bf_Sync's advance of the header.
#include <gtest/gtest.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/compat.h"

namespace {

using namespace qvfs::bf;
using namespace qvfs::disk;
using namespace qvfs::test;
using qvfs::plat::kFaultRead;
using qvfs::plat::kFaultWrite;

constexpr uint32_t kUnit = 0x40000000;

// Library allocations, counted while a test runs.
int g_allocs = 0;
void* counting_alloc(uint32_t n) {
    ++g_allocs;
    return std::malloc(n);
}

// Every test runs with one file in block 0 of a two-block disk, and proves
// on the way that transfers and syncs allocate nothing: every library
// allocation goes through the replaceable allocator, counted here.
class BlockIoTest : public BlockCompat {
protected:
    void SetUp() override {
        BlockCompat::SetUp();
        path_ = ready_disk(0, 2);
        f_ = create(request(path_, 3));
        ASSERT_EQ(kUnit, df_GetDiskUnitSize());
        qvfs_RegistAllocatorInterface(counting_alloc, std::free);
        g_allocs = 0;
    }
    void TearDown() override {
        EXPECT_EQ(0, g_allocs) << "allocations during the test";
        qvfs_InitAllocatorInterface();
        bf_CloseFile(f_.h);
        BlockCompat::TearDown();
    }
    static std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
        std::vector<uint8_t> v(n);
        for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 7);
        return v;
    }
    std::vector<uint8_t> on_disk(uint64_t off, size_t n) const { return read_dev(0, block_addr(0) + off, n); }
    int err() { return bf_GetErrorNo(f_.h); }
    // True when the block was reported bad; makes it good again and
    // disarms the faults for the next case.
    bool reported_bad() {
        const bool bad = image(0).map[0] == QV_BLK_BAD;
        image(0).map[0] = QV_BLK_USED;
        qvfs::plat::fault_clear();
        return bad;
    }
    std::string path_;
    Created f_;
};

// bf_Write judges the last 4 MiB by the start of a transfer, bf_Writev by
// its end; both refuse to pass the block's end, and then signal 28 too.
TEST_F(BlockIoTest, WritesAndReadsAtTheBlocksEnd) {
    enum Op { W, R, V };
    const struct { Op op; uint32_t off, len; int ret, code, xferErr; } steps[] = {
        {W, kUnit - 4096, 4096, 4096, 0, 28},
        {R, kUnit - 4096, 4096, 4096, 0, 0},
        {W, kUnit - 0x400001, 4096, 4096, 0, 0},
        {V, kUnit - 0x400001, 4096, 4096, 0, 28},
        {W, kUnit - 0x400000, 4096, 4096, 0, 28},
        {V, kUnit - 0x401001, 4096, 4096, 0, 0},
        {V, kUnit - 0x401000, 4096, 4096, 0, 28},
        {W, 0x300000, 4096, 4096, 0, 0},
        {W, kUnit - 4095, 4096, -1, QVFS_ERR_BADHANDLE, 28},
        {W, 0x300000, 1, 1, 0, 0},
        {V, kUnit - 4095, 4096, -1, QVFS_ERR_BADHANDLE, 28},
        {W, kUnit + 1, 1, -1, QVFS_ERR_BLOCKRANGE, 28},
        {R, kUnit + 1, 1, -1, QVFS_ERR_BLOCKRANGE, -1},
        {W, 0x300000, 0, 0, 0, -1},
        {R, 0x300000, 0, -1, 0, -1},
        {V, 0x300000, 0, 0, 0, -1},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        const auto& s = steps[i];
        SCOPED_TRACE(i);
        std::vector<uint8_t> buf = pattern(s.len + 1, static_cast<uint8_t>(i));  // never empty: never null
        iovec v[2] = {{buf.data(), s.len / 2}, {buf.data() + s.len / 2, s.len - s.len / 2}};
        errno = 0;
        EXPECT_EQ(s.ret, s.op == R   ? bf_Read(s.off, buf.data(), s.len, f_.h)
                         : s.op == W ? bf_Write(s.off, buf.data(), s.len, f_.h)
                                     : bf_Writev(s.off, v, 2, f_.h));
        EXPECT_EQ(s.code, errno);
        EXPECT_TRUE(s.xferErr < 0 || s.xferErr == err()) << err();
        buf.resize(s.len);
        EXPECT_TRUE(s.ret <= 0 || on_disk(s.off, s.len) == buf) << "the device holds what the buffer holds";
    }
    iovec none{nullptr, 0};
    EXPECT_EQ(0, bf_Writev(0x300000, &none, 0, f_.h));
    EXPECT_EQ(pattern(4096, 0), on_disk(kUnit - 4096, 4096)) << "the block's last bytes are untouched";
    EXPECT_TRUE(dev_zero(0, block_addr(1), 4096)) << "and so is the next block";
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]) << "no refusal reports the block";
}

TEST_F(BlockIoTest, FailedTransfersReportTheBlockBadUnlessTheDiskIsAway) {
    auto data = pattern(8192, 5);
    std::vector<uint8_t> back(8192);
    iovec v[2] = {{data.data(), 2048}, {data.data() + 2048, 2048}};
    auto arm = [](unsigned op, uint32_t off, long shortBytes = -1, int hits = -1) {
        fault(op, block_addr(0) + off, 8192, 0, shortBytes, hits);
    };
    // One short write or read is continued to the end.
    arm(kFaultWrite, 0x200000, 1000, 1);
    EXPECT_EQ(8192, bf_Write(0x200000, data.data(), 8192, f_.h));
    EXPECT_EQ(data, on_disk(0x200000, 8192));
    arm(kFaultRead, 0x200000, 300, 1);
    EXPECT_EQ(8192, bf_Read(0x200000, back.data(), 8192, f_.h));
    EXPECT_EQ(data, back);
    EXPECT_EQ(0, err());
    EXPECT_FALSE(reported_bad());
    // A read that fails after a first piece returns what it got.
    arm(kFaultRead, 0x200000, 300, 1);
    arm(kFaultRead, 0x200000, -1, 1);
    EXPECT_EQ(300, bf_Read(0x200000, back.data(), 8192, f_.h));
    EXPECT_EQ(5, err());
    EXPECT_TRUE(reported_bad());
    arm(kFaultWrite, 0x300000);
    EXPECT_EQ(-1, bf_Write(0x300000, data.data(), 4096, f_.h));
    EXPECT_EQ(5, err());
    EXPECT_TRUE(reported_bad());
    // A failed write near the end leaves 28: the file layer must move on.
    arm(kFaultWrite, kUnit - 4096);
    EXPECT_EQ(-1, bf_Write(kUnit - 4096, data.data(), 4096, f_.h));
    EXPECT_EQ(28, err());
    EXPECT_TRUE(reported_bad());
    // A short writev is not continued.
    arm(qvfs::plat::kFaultWritev, 0x400000, 1000, 1);
    EXPECT_EQ(-1, bf_Writev(0x400000, v, 2, f_.h));
    EXPECT_EQ(5, err());
    EXPECT_TRUE(dev_zero(0, block_addr(0) + 0x400000 + 1000, 3096));
    EXPECT_TRUE(reported_bad());

    // Offline: nothing moves, and it is not the block's fault.
    ASSERT_EQ(4096, bf_Write(0x600000, data.data(), 4096, f_.h));
    fault(qvfs::plat::kFaultOffline);
    EXPECT_EQ(-1, bf_Writev(0x500000, v, 2, f_.h));
    EXPECT_EQ(5, err());
    EXPECT_EQ(-1, bf_Write(0x500000, data.data(), 4096, f_.h));
    EXPECT_EQ(-1, bf_Sync(&f_.slice, f_.h));
    EXPECT_FALSE(reported_bad());
    EXPECT_TRUE(dev_zero(0, block_addr(0) + 0x500000, 4096));
    // A disk that is not ready: every transfer and the sync refused.
    ASSERT_EQ(4096, bf_Write(0x600000, data.data(), 4096, f_.h));
    ASSERT_EQ(0, df_DiskUnmout(path_.c_str(), 1));
    EXPECT_EQ(-1, bf_Read(0x200000, back.data(), 16, f_.h));
    EXPECT_EQ(5, err());
    EXPECT_EQ(-1, bf_Write(0x300000, data.data(), 4096, f_.h));
    EXPECT_EQ(-1, bf_Writev(0x300000, v, 2, f_.h));
    EXPECT_EQ(-1, bf_Sync(&f_.slice, f_.h));
}

TEST_F(BlockIoTest, SyncAdvancesNextAndEndTimeAndWritesTheHeaderOnlyThen) {
    // A marker in the on-disk header shows whether the header was rewritten.
    const uint8_t mark = 0x5A;
    const uint64_t markAt = block_addr(0) + 200;
    auto sync = [&](const TQvBlkSliceInfo& s, bool rewritten, uint64_t next, uint64_t endTime) {
        write_dev(0, markAt, &mark, 1);
        ASSERT_EQ(0, bf_Sync(&s, f_.h));
        const TQvBlkSliceInfo e = disk_entry(0, 0, 1);
        EXPECT_EQ(0, std::memcmp(&s, &e, sizeof e)) << "the entry is always written";
        EXPECT_EQ(rewritten, read_dev(0, markAt, 1)[0] != mark);
        EXPECT_EQ(std::make_pair(next, endTime), std::make_pair(f_.h->share->header.next, f_.h->share->header.endTime));
        EXPECT_EQ(head_fields(f_.h->share->header), head_fields(disk_header(0, 0))) << "disk and memory agree";
    };
    TQvBlkSliceInfo s = f_.slice;
    s.dataEnd = 0x200001;
    s.endTime = 1000;
    sync(s, true, 0x201000, 1000);  // next moves to the 4 KiB boundary
    s.dataEnd = 0x201000;
    s.endTime = 999;
    s.videoAbstract = 4;
    sync(s, false, 0x201000, 1000);  // nothing advances
    s.resStart = 0x200000;
    s.dataEnd = 0x280000;
    s.endTime = 5000;
    sync(s, false, 0x201000, 1000);  // an incomplete reserved region never moves the header
    s.resEnd = 0x240000;
    s.preStart = 0x200000;
    s.preEnd = 0x210000;
    sync(s, true, 0x280000, 5000);  // a complete one does
    s.endTime = 6000;
    sync(s, true, 0x280000, 6000);  // so does an endTime alone
}

TEST_F(BlockIoTest, SyncFailuresAndEntriesOutsideTheDirectory) {
    TQvBlkSliceInfo s = f_.slice;
    const TQvBlkInfo before = disk_header(0, 0);
    // sliceID 0 would overwrite the header; beyond Len lies file data.
    for (uint64_t id : {uint64_t(0), uint64_t(4096), uint64_t(1) << 40}) {
        s.sliceID = id;
        EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, bf_Sync(&s, f_.h));
    }
    const TQvBlkInfo after = disk_header(0, 0);
    EXPECT_EQ(0, std::memcmp(&before, &after, sizeof before));
    EXPECT_TRUE(dev_zero(0, block_addr(0) + 0x200000, 512));

    // A failed header write (here: short, 40 of 512 bytes, 3000 + no system
    // code) keeps the advance in memory for the next write.
    s = f_.slice;
    s.dataEnd = 0x300000;
    s.endTime = 77;
    fault(kFaultWrite, block_addr(0), 512, 0, 40, 1);
    EXPECT_ERR(-1, QVFS_ERR_SYS, bf_Sync(&s, f_.h));
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
    EXPECT_EQ(0x300000u, f_.h->share->header.next);
    EXPECT_EQ(0x200000u, disk_header(0, 0).next);
    EXPECT_EQ(0, bf_BlockOpt(f_.h, 0, 1));
    EXPECT_EQ(std::make_pair(uint64_t{0x300000}, uint64_t{77}),
              std::make_pair(disk_header(0, 0).next, disk_header(0, 0).endTime));
    // A failed entry write: 3000 + EIO, and the header is left alone.
    fault(kFaultWrite, block_addr(0) + 512, 512, 0);
    s.dataEnd = 0x400000;
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, bf_Sync(&s, f_.h));
    EXPECT_EQ(0x300000u, f_.h->share->header.next);
}

}  // namespace
