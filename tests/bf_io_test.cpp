// Block I/O: transfers at the block's end, failed and short transfers
// through the fault seam, and bf_Sync's advance of the header.
#include <gtest/gtest.h>
#include <sys/uio.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "support/bf_env.h"

namespace {

using namespace qvfs::bf;
using qvfs::test::BlockTest;
using qvfs::test::Created;
using qvfs::disk::QV_BLK_BAD;
using qvfs::disk::QV_BLK_USED;
using qvfs::plat::kFaultOffline;
using qvfs::plat::kFaultRead;
using qvfs::plat::kFaultWrite;
using qvfs::plat::kFaultWritev;

constexpr uint32_t kUnit = 0x40000000;

class BlockIoTest : public BlockTest {
protected:
    void SetUp() override {
        BlockTest::SetUp();
        path_ = ready_disk(0, 2);
        f_ = create(request(path_, 3));
        ASSERT_NE(nullptr, f_.h);
        ASSERT_EQ(kUnit, df_GetDiskUnitSize());
    }
    void TearDown() override {
        if (f_.h != nullptr) bf_CloseFile(f_.h);
        BlockTest::TearDown();
    }
    static std::vector<uint8_t> pattern(size_t n, uint8_t seed) {
        std::vector<uint8_t> v(n);
        for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(seed + i * 7);
        return v;
    }
    std::vector<uint8_t> on_disk(uint64_t off, size_t n) const { return read_dev(0, block_addr(0) + off, n); }
    int err() { return bf_GetErrorNo(f_.h); }

    std::string path_;
    Created f_;
};

TEST_F(BlockIoTest, WritesAndReadsAtTheBlocksEnd) {
    auto data = pattern(4096, 1);
    // A write in the last 4 MiB succeeds and tells the file layer to move on.
    EXPECT_EQ(4096, bf_Write(kUnit - 4096, data.data(), 4096, f_.h));
    EXPECT_EQ(28, err());
    EXPECT_EQ(data, on_disk(kUnit - 4096, 4096));
    std::vector<uint8_t> back(4096);
    EXPECT_EQ(4096, bf_Read(kUnit - 4096, back.data(), 4096, f_.h));
    EXPECT_EQ(data, back);
    EXPECT_EQ(0, err());

    // Starting one byte before the last 4 MiB: bf_Write judges the start
    // (0), bf_Writev the end (28).
    const uint32_t at = kUnit - 0x400001;
    EXPECT_EQ(4096, bf_Write(at, data.data(), 4096, f_.h));
    EXPECT_EQ(0, err());
    iovec one{data.data(), 4096};
    EXPECT_EQ(4096, bf_Writev(at, &one, 1, f_.h));
    EXPECT_EQ(28, err());
    EXPECT_EQ(4096, bf_Write(0x300000, data.data(), 4096, f_.h));
    EXPECT_EQ(0, err());

    // An end one byte past the block: refused, nothing written.
    auto other = pattern(4096, 99);
    errno = 0;
    EXPECT_EQ(-1, bf_Write(kUnit - 4095, other.data(), 4096, f_.h));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    EXPECT_EQ(28, err());
    iovec two[2] = {{other.data(), 2048}, {other.data() + 2048, 2048}};
    EXPECT_EQ(1, bf_Write(0x300000, data.data(), 1, f_.h));
    EXPECT_EQ(0, err());
    EXPECT_EQ(-1, bf_Writev(kUnit - 4095, two, 2, f_.h));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    EXPECT_EQ(28, err());
    EXPECT_EQ(data, on_disk(kUnit - 4096, 4096)) << "the block's last bytes are untouched";
    auto next = read_dev(0, block_addr(1), 4096);
    EXPECT_TRUE(all_zero(next.data(), next.size())) << "and so is the next block";

    // Offsets beyond the block, zero lengths, empty vectors.
    errno = 0;
    EXPECT_EQ(-1, bf_Write(kUnit + 1, data.data(), 1, f_.h));
    EXPECT_EQ(QVFS_ERR_BLOCKRANGE, errno);
    EXPECT_EQ(-1, bf_Read(kUnit + 1, back.data(), 1, f_.h));
    EXPECT_EQ(0, bf_Write(0x300000, data.data(), 0, f_.h));
    EXPECT_EQ(-1, bf_Read(0x300000, back.data(), 0, f_.h));
    iovec empty[2] = {{data.data(), 0}, {data.data(), 0}};
    EXPECT_EQ(0, bf_Writev(0x300000, empty, 2, f_.h));
    EXPECT_EQ(0, bf_Writev(0x300000, &one, 0, f_.h));
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]) << "no refusal reports the block";
}

TEST_F(BlockIoTest, ShortTransfersContinueButAFailedOneReportsTheBlockBad) {
    auto data = pattern(8192, 5);
    // One short write is continued to the end: the data is complete.
    fault(0, block_addr(0) + 0x200000, block_addr(0) + 0x202000, kFaultWrite, 1000, 1);
    EXPECT_EQ(8192, bf_Write(0x200000, data.data(), 8192, f_.h));
    EXPECT_EQ(0, err());
    EXPECT_EQ(data, on_disk(0x200000, 8192));
    // So is a short read.
    fault(0, block_addr(0) + 0x200000, block_addr(0) + 0x202000, kFaultRead, 300, 1);
    std::vector<uint8_t> back(8192);
    EXPECT_EQ(8192, bf_Read(0x200000, back.data(), 8192, f_.h));
    EXPECT_EQ(data, back);
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]);

    // A read that fails after a first piece returns what it got.
    fault(0, block_addr(0) + 0x200000, block_addr(0) + 0x202000, kFaultRead, 300, 1);
    fault(0, block_addr(0) + 0x200000, block_addr(0) + 0x202000, kFaultRead, -1, 1);
    EXPECT_EQ(300, bf_Read(0x200000, back.data(), 8192, f_.h));
    EXPECT_EQ(5, err());
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
}

TEST_F(BlockIoTest, FailedWritesAndPartialVectors) {
    auto data = pattern(4096, 9);
    fault(0, block_addr(0) + 0x300000, block_addr(0) + 0x301000, kFaultWrite);
    EXPECT_EQ(-1, bf_Write(0x300000, data.data(), 4096, f_.h));
    EXPECT_EQ(5, err());
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
    qvfs::plat::fault_clear();

    // A failed write near the end leaves 28: the file layer must move on.
    fault(0, block_addr(0) + kUnit - 4096, block_addr(0) + kUnit, kFaultWrite);
    EXPECT_EQ(-1, bf_Write(kUnit - 4096, data.data(), 4096, f_.h));
    EXPECT_EQ(28, err());
    qvfs::plat::fault_clear();

    // A short writev is not continued.
    iovec v[2] = {{data.data(), 2048}, {data.data() + 2048, 2048}};
    fault(0, block_addr(0) + 0x400000, block_addr(0) + 0x401000, kFaultWritev, 1000, 1);
    EXPECT_EQ(-1, bf_Writev(0x400000, v, 2, f_.h));
    EXPECT_EQ(5, err());
    auto tail = on_disk(0x400000 + 1000, 3096);
    EXPECT_TRUE(all_zero(tail.data(), tail.size()));
}

TEST_F(BlockIoTest, OfflineAndNotReadyDisksMoveNothing) {
    auto data = pattern(4096, 11);
    iovec one{data.data(), 4096};
    fault(0, 0, UINT64_MAX, kFaultOffline);
    EXPECT_EQ(-1, bf_Write(0x300000, data.data(), 4096, f_.h));
    EXPECT_EQ(5, err());
    EXPECT_EQ(-1, bf_Writev(0x300000, &one, 1, f_.h));
    EXPECT_EQ(5, err());
    qvfs::plat::fault_clear();
    auto got = on_disk(0x300000, 4096);
    EXPECT_TRUE(all_zero(got.data(), got.size()));
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]) << "offline is not the block's fault";

    ASSERT_EQ(0, df_DiskUnmout(path_.c_str(), 1));
    std::vector<uint8_t> back(16);
    EXPECT_EQ(-1, bf_Read(0x200000, back.data(), 16, f_.h));
    EXPECT_EQ(5, err());
    EXPECT_EQ(-1, bf_Write(0x300000, data.data(), 4096, f_.h));
    EXPECT_EQ(-1, bf_Writev(0x300000, &one, 1, f_.h));
    EXPECT_EQ(-1, bf_Sync(&f_.slice, f_.h));
}

TEST_F(BlockIoTest, SyncAdvancesNextAndEndTimeAndWritesTheHeaderOnlyThen) {
    TQvBlkSliceInfo s = f_.slice;
    s.dataEnd = 0x200001;
    s.endTime = 1000;
    ASSERT_EQ(0, bf_Sync(&s, f_.h));
    TQvBlkInfo h = disk_header(0, 0);
    EXPECT_EQ(0x201000u, h.next) << "next moves to the 4 KiB boundary";
    EXPECT_EQ(1000u, h.endTime);
    TQvBlkSliceInfo e = disk_entry(0, 0, 1);
    EXPECT_EQ(0, std::memcmp(&s, &e, sizeof e));

    // A marker in the on-disk header shows whether the header is rewritten.
    const uint8_t mark = 0x5A;
    const uint64_t markAt = block_addr(0) + 200;
    auto marked = [&] { return read_dev(0, markAt, 1)[0] == mark; };
    write_dev(0, markAt, &mark, 1);

    // Nothing advances: the entry is written, the header is not.
    s.dataEnd = 0x201000;
    s.endTime = 999;
    s.videoAbstract = 4;
    ASSERT_EQ(0, bf_Sync(&s, f_.h));
    EXPECT_TRUE(marked());
    EXPECT_EQ(4u, disk_entry(0, 0, 1).videoAbstract);
    EXPECT_EQ(0x201000u, f_.h->share->header.next);

    // An incomplete reserved region never moves the header.
    s.resStart = 0x200000;
    s.dataEnd = 0x280000;
    s.endTime = 5000;
    ASSERT_EQ(0, bf_Sync(&s, f_.h));
    EXPECT_TRUE(marked());
    EXPECT_EQ(0x201000u, f_.h->share->header.next);
    EXPECT_EQ(1000u, f_.h->share->header.endTime);
    EXPECT_EQ(0x280000u, disk_entry(0, 0, 1).dataEnd);

    // A complete one does; an endTime alone also rewrites the header.
    s.resEnd = 0x240000;
    s.preStart = 0x200000;
    s.preEnd = 0x210000;
    ASSERT_EQ(0, bf_Sync(&s, f_.h));
    EXPECT_FALSE(marked());
    h = disk_header(0, 0);
    EXPECT_EQ(0x280000u, h.next);
    EXPECT_EQ(5000u, h.endTime);
    write_dev(0, markAt, &mark, 1);
    s.endTime = 6000;
    ASSERT_EQ(0, bf_Sync(&s, f_.h));
    EXPECT_FALSE(marked());
    EXPECT_EQ(6000u, disk_header(0, 0).endTime);
    EXPECT_EQ(0x280000u, disk_header(0, 0).next) << "a multiple of 4 KiB stays";
}

TEST_F(BlockIoTest, SyncFailuresAndEntriesOutsideTheDirectory) {
    TQvBlkSliceInfo s = f_.slice;
    const TQvBlkInfo before = disk_header(0, 0);
    // sliceID 0 would overwrite the header; beyond Len lies file data.
    for (uint64_t id : {uint64_t(0), uint64_t(4096), uint64_t(1) << 40}) {
        s.sliceID = id;
        errno = 0;
        EXPECT_EQ(-1, bf_Sync(&s, f_.h)) << id;
        EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    }
    TQvBlkInfo after = disk_header(0, 0);
    EXPECT_EQ(0, std::memcmp(&before, &after, sizeof before));
    auto data = on_disk(0x200000, 512);
    EXPECT_TRUE(all_zero(data.data(), data.size()));
    errno = 0;
    EXPECT_EQ(-1, bf_Sync(nullptr, f_.h));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);

    // A failed header write keeps the advance in memory for the next write.
    s = f_.slice;
    s.dataEnd = 0x300000;
    s.endTime = 77;
    fault(0, block_addr(0), block_addr(0) + 512, kFaultWrite, -1, 1);
    EXPECT_EQ(-1, bf_Sync(&s, f_.h));
    EXPECT_EQ(QVFS_ERR_SYS + EIO, errno);
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
    EXPECT_EQ(0x300000u, f_.h->share->header.next);
    EXPECT_EQ(0x200000u, disk_header(0, 0).next);
    EXPECT_EQ(0, bf_BlockOpt(f_.h, 0, 1));
    EXPECT_EQ(0x300000u, disk_header(0, 0).next);
    EXPECT_EQ(77u, disk_header(0, 0).endTime);

    // A failed entry write: 3000 + EIO, and the header is left alone.
    fault(0, block_addr(0) + 512, block_addr(0) + 1024, kFaultWrite);
    s.dataEnd = 0x400000;
    EXPECT_EQ(-1, bf_Sync(&s, f_.h));
    EXPECT_EQ(QVFS_ERR_SYS + EIO, errno);
    EXPECT_EQ(0x300000u, f_.h->share->header.next);
}

// Transfers allocate nothing: every library allocation goes through the
// replaceable allocator, which counts here.
std::atomic<int> g_allocs{0};
void* counting_alloc(uint32_t n) {
    g_allocs.fetch_add(1);
    return std::malloc(n);
}
void counting_free(void* p) { std::free(p); }

TEST_F(BlockIoTest, TransfersGoStraightToTheDeviceWithoutAllocating) {
    auto a = pattern(1000, 3);
    auto b = pattern(64536, 40);
    iovec v[2] = {{a.data(), a.size()}, {b.data(), b.size()}};
    std::vector<uint8_t> want(a);
    want.insert(want.end(), b.begin(), b.end());
    std::vector<uint8_t> back(want.size());
    TQvBlkSliceInfo s = f_.slice;
    s.dataEnd = 0x210000;
    qvfs_RegistAllocatorInterface(counting_alloc, counting_free);
    g_allocs = 0;
    EXPECT_EQ(65536, bf_Write(0x300000, want.data(), 65536, f_.h));
    EXPECT_EQ(65536, bf_Writev(0x200000, v, 2, f_.h));
    EXPECT_EQ(65536, bf_Read(0x200000, back.data(), 65536, f_.h));
    EXPECT_EQ(0, bf_Sync(&s, f_.h));
    EXPECT_EQ(0, g_allocs.load());
    qvfs_InitAllocatorInterface();
    EXPECT_EQ(want, back) << "the vector's pieces land in order";
    EXPECT_EQ(want, on_disk(0x300000, want.size()));
}

}  // namespace
