// Allocation and release sequences checked against the meta regions on the
// device, the reuse test of a channel's current block, failures of the
// metadata writes, and two processes allocating at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <vector>

#include "common/platform.h"
#include "support/child.h"
#include "support/disk_env.h"

namespace {

using namespace qvfs::disk;
using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::TestBlockHead;

class AllocTest : public qvfs::test::DiskTest {
protected:
    void SetUp() override {
        DiskTest::SetUp();
        path_ = ready_disk(0, 9);
    }
    // The block handed to a channel for a file data-type code and length.
    int32_t alloc(uint32_t chn, int32_t code = 0, int32_t len = 0) {
        TQvfsOpenParam req = request(path_, chn, code, len);
        TQvBlkId id{77, -7};
        const int r = df_GetFileBlkId(&req, &id);
        EXPECT_EQ(r == 0 ? 0u : 77u, id.disk);
        return r == 0 ? id.block : -1;
    }
    // Arms a write fault on the whole device and returns the hit counter, so
    // that a test can show that an operation wrote nothing.
    long forbid_writes() {
        qvfs::plat::Fault f;
        f.ops = qvfs::plat::kFaultWrite;
        qvfs::plat::fault_add(f);
        return qvfs::plat::fault_hits();
    }
    void fail_writes(uint64_t begin, uint32_t len) {
        qvfs::plat::Fault f;
        f.begin = begin;
        f.end = begin + len;
        f.ops = qvfs::plat::kFaultWrite;
        qvfs::plat::fault_add(f);
    }
    std::string path_;
};

TEST_F(AllocTest, HandsOutLowestFreeBlocksAndRecordsThemOnDisk) {
    EXPECT_EQ(0x41100000, df_GetBlkAddr(0, 0));
    EXPECT_EQ(0x41100000 + 8 * int64_t{kBlockSize}, df_GetBlkAddr(0, 8));
    EXPECT_EQ(0, alloc(4));
    EXPECT_TRUE(meta_on_disk_matches(0));
    EXPECT_EQ(1, alloc(9, 5));  // PIC
    EXPECT_TRUE(meta_on_disk_matches(0));
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]);
    EXPECT_EQ(QV_BLK_USED, image(0).map[1]);
    EXPECT_EQ(0, image(0).current[0][4]);
    EXPECT_EQ(1, image(0).current[3][9]);
    EXPECT_EQ(1u, image(0).count[3][9]);
    EXPECT_EQ(1u, df_IsBlockAllocated(0, 1));
    EXPECT_EQ(0u, df_IsBlockAllocated(0, 2));
    EXPECT_EQ(0, image(0).mapIndex);
}

TEST_F(AllocTest, ReusesTheCurrentBlockWhileItHasRoom) {
    ASSERT_EQ(0, alloc(1));
    TestBlockHead h;  // 2 MiB header area, 3 MiB used
    h.next = 0x300000;
    h.slice = 1;
    write_block_head(0, 0, h);
    const int32_t fits = static_cast<int32_t>(kBlockSize - h.next - 0x500000 - 1);
    const long hits = forbid_writes();
    EXPECT_EQ(0, alloc(1, 0, fits));
    EXPECT_EQ(0, alloc(1, 1, 0)) << "codes outside 2..7 share the REC row";
    EXPECT_EQ(hits, qvfs::plat::fault_hits()) << "reusing writes nothing";
    qvfs::plat::fault_clear();

    EXPECT_EQ(1, alloc(1, 0, fits + 1)) << "5 MiB must stay free beyond the data";
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]);
    EXPECT_EQ(2u, image(0).count[0][1]);

    h.slice = 0x200000 / 512 - 1;  // directory full
    write_block_head(0, 1, h);
    errno = 0;
    EXPECT_EQ(2, alloc(1));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno) << "left behind by the reuse test";

    h.slice = 0;
    h.next = kBlockSize + 1;  // a damaged header never fits
    write_block_head(0, 2, h);
    EXPECT_EQ(3, alloc(1));
    h.next = 0x300000;
    write_block_head(0, 3, h);
    EXPECT_EQ(4, alloc(1, 0, -0x600000)) << "a negative need compares as a huge one";
    EXPECT_TRUE(meta_on_disk_matches(0));
}

TEST_F(AllocTest, MovesOffBadOrReleasedCurrentBlocksAndFailsWhenFull) {
    ASSERT_EQ(0, alloc(2));
    write_block_head(0, 0, TestBlockHead{});
    ASSERT_EQ(0, df_TagBadBlock(0, 0));
    EXPECT_EQ(1, alloc(2));
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
    // A current entry that points at a block no longer in use (here: freed
    // behind the table's back) is not reused.
    write_block_head(0, 1, TestBlockHead{});
    image(0).map[1] = QV_BLK_FREE;
    EXPECT_EQ(1, alloc(2)) << "taken anew as the lowest free block";
    for (int32_t want = 2; want < 9; ++want) EXPECT_EQ(want, alloc(100 + want));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, alloc(500));
    EXPECT_EQ(-1, image(0).current[0][500]);
    EXPECT_TRUE(meta_on_disk_matches(0));
}

TEST_F(AllocTest, ReleaseFreesTheBlockAndItsTableEntries) {
    ASSERT_EQ(0, alloc(6, 3));  // IMG: 16 MiB header area
    ASSERT_EQ(1, alloc(7, 3));
    const uint8_t mark = 0x33;
    write_dev(0, kDataStart + 0x1FFFFF, &mark, 1);
    write_dev(0, kDataStart + 0x200000, &mark, 1);

    long hits = forbid_writes();
    EXPECT_EQ(0, df_ReleaseBlock(0, 5, 6, 1, 0)) << "a free block: nothing to do";
    EXPECT_EQ(hits, qvfs::plat::fault_hits());
    qvfs::plat::fault_clear();

    ASSERT_EQ(0, df_ReleaseBlock(0, 0, 6, 1, 0x200000));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[0]);
    EXPECT_EQ(-1, image(0).current[1][6]);
    EXPECT_EQ(0u, image(0).count[1][6]);
    EXPECT_EQ(0, read_dev(0, kDataStart + 0x1FFFFF, 1)[0]);
    EXPECT_EQ(mark, read_dev(0, kDataStart + 0x200000, 1)[0]) << "only clearLen bytes are zeroed";
    EXPECT_TRUE(meta_on_disk_matches(0));
    EXPECT_EQ(0, alloc(6, 3));

    // Without a type only the status map changes.
    ASSERT_EQ(0, df_ReleaseBlock(0, 1, 7, 16, 0));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[1]);
    EXPECT_EQ(1, image(0).current[1][7]);
    EXPECT_EQ(1u, image(0).count[1][7]);
    EXPECT_TRUE(meta_on_disk_matches(0));
    // A bad block is released like any other.
    ASSERT_EQ(0, df_TagBadBlock(0, 0));
    ASSERT_EQ(0, df_ReleaseBlock(0, 0, 6, 1, 0));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[0]);
}

TEST_F(AllocTest, MetadataWriteFailures) {
    // Region 0's first map location fails: region 1 carries the change.
    fail_writes(map_first(0), kMapSize);
    fail_writes(map_second(0), kMapSize);
    ASSERT_EQ(0, alloc(1));
    EXPECT_TRUE(meta_on_disk_matches(0, false, true));
    qvfs::plat::fault_clear();
    fail_writes(map_first(1), kMapSize);
    ASSERT_EQ(1, alloc(2));
    EXPECT_EQ(0, image(0).mapIndex);
    fail_writes(map_first(0), kMapSize);
    ASSERT_EQ(2, alloc(3));
    EXPECT_EQ(1, image(0).mapIndex) << "region 0 fell back to its second location";

    // Neither region: the call fails but the image keeps the change.
    fail_writes(count_chunk(0, 0), kChunk);
    fail_writes(current_chunk(1, 0), kChunk);
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, alloc(4));
    EXPECT_EQ(QV_BLK_USED, image(0).map[3]);
    EXPECT_EQ(-1, df_ReleaseBlock(0, 3, 4, 0, 0));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[3]);
    EXPECT_EQ(-1, image(0).current[0][4]);

    // Zeroing the header area fails: nothing changes.
    qvfs::plat::fault_clear();
    fail_writes(kDataStart + 3 * uint64_t{kBlockSize}, 0x80000);
    EXPECT_EQ(-1, alloc(4));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[3]);
}

TEST_F(AllocTest, RejectsBadArguments) {
    TQvBlkId id{5, 5};
    TQvfsOpenParam req = request(path_, 0);
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_GetFileBlkId(nullptr, &id));
    EXPECT_EQ(-1, df_GetFileBlkId(&req, nullptr));
    req = request("/dev/sdb1", 0);
    EXPECT_ERR(-1, QVFS_ERR_DISKNUM, df_GetFileBlkId(&req, &id));
    EXPECT_EQ(5, id.block) << "untouched when the path names no disk";
    for (const char* p : {"/dev/scsi/host31/part1", "/dev/scsi/host04/part1"}) {
        req = request(p, 0);
        EXPECT_ERR(-1, QVFS_ERR_BADARG, df_GetFileBlkId(&req, &id));
        EXPECT_EQ(-1, id.block);
    }
    EXPECT_ERR(-1, QVFS_ERR_CHANNEL, alloc(1024));

    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, df_ReleaseBlock(0, 9, 0, 0, 0));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, df_ReleaseBlock(0, 0, 1024, 0, 0));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_ReleaseBlock(4, 0, 0, 0, 0));
    EXPECT_ERR(0, QVFS_ERR_BADHANDLE, df_GetBlkAddr(0, 9));
    EXPECT_ERR(0, QVFS_ERR_BADARG, df_GetBlkAddr(25, 0));
    EXPECT_EQ(0u, df_IsBlockAllocated(4, 0));
    EXPECT_EQ(0u, df_IsBlockAllocated(0, 9));

    ASSERT_EQ(0, df_DiskUnmout(path_.c_str(), 0));
    errno = 55;
    EXPECT_EQ(-1, alloc(0));
    EXPECT_EQ(55, errno) << "a disk that is not ready";
}

// Both processes allocate for their own channels as fast as they can; the
// disk's lock makes every pick see the other's.
TEST_F(AllocTest, TwoProcessesNeverShareABlock) {
    auto worker = [this](uint32_t base) {
        return Child::spawn([this, base](ChildLink& link) {
            CHILD_CHECK(link, df_Init() == 0 && df_DiskMount(path_.c_str()) == 0);
            int64_t go;
            CHILD_CHECK(link, link.recv(&go));
            for (uint32_t c = base; c < base + 6; ++c) link.send(alloc(c));
            return 0;
        });
    };
    Child a = worker(0), b = worker(500);
    a.send(1);
    b.send(1);
    std::vector<int32_t> got;
    for (Child* c : {&a, &b})
        for (int i = 0; i < 6; ++i) {
            int64_t v;
            ASSERT_TRUE(c->recv(&v));
            if (v >= 0) got.push_back(static_cast<int32_t>(v));
        }
    EXPECT_CHILD_OK(a);
    EXPECT_CHILD_OK(b);
    EXPECT_EQ(9u, got.size()) << "every block handed out once";
    EXPECT_EQ(9u, std::set<int32_t>(got.begin(), got.end()).size());
    EXPECT_EQ(9, std::count(image(0).map, image(0).map + 9, QV_BLK_USED));
    EXPECT_TRUE(meta_on_disk_matches(0));
}

}  // namespace
