// Marking blocks bad: single blocks reported by the block-file layer and
// device byte ranges reported by the recorder.
#include <gtest/gtest.h>

#include <cerrno>

#include "common/platform.h"
#include "support/disk_env.h"

namespace {

using namespace qvfs::disk;

class BadBlockTest : public qvfs::test::DiskTest {
protected:
    void SetUp() override {
        DiskTest::SetUp();
        path_ = ready_disk(0, 9);
    }
    // The block indexes whose status is bad, in order.
    std::vector<uint32_t> bad_blocks() {
        std::vector<uint32_t> out;
        for (uint32_t b = 0; b < 9; ++b)
            if (is_bad(image(0).map[b])) out.push_back(b);
        return out;
    }
    int tag_unit(uint64_t offset, uint32_t length) { return df_TagBadUnit(path_.c_str(), offset, length); }
    void fail_map_writes() {
        for (uint32_t r = 0; r < 2; ++r)
            for (uint64_t at : {map_first(r), map_second(r)}) {
                qvfs::plat::Fault f;
                f.begin = at;
                f.end = at + kMapSize;
                f.ops = qvfs::plat::kFaultWrite;
                qvfs::plat::fault_add(f);
            }
    }
    std::string path_;
};

TEST_F(BadBlockTest, TaggedBlocksAreSkippedAndCounted) {
    ASSERT_EQ(0, df_TagBadBlock(0, 0));
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
    EXPECT_TRUE(meta_on_disk_matches(0));
    EXPECT_EQ(1u, df_IsBlockAllocated(0, 0));
    TQvfsOpenParam req = request(path_, 3);
    TQvBlkId id{};
    ASSERT_EQ(0, df_GetFileBlkId(&req, &id));
    EXPECT_EQ(1, id.block);
    TQvStatfs st{};
    ASSERT_EQ(0, df_DiskStatfs(path_.c_str(), &st));
    EXPECT_EQ(1u, st.f_spare[0]);
    EXPECT_EQ(7u * (kBlockSize / 512), st.f_bfree);
    // Tagging keeps the tables: the channel still points at its block.
    ASSERT_EQ(0, df_TagBadBlock(0, 1));
    EXPECT_EQ(1, image(0).current[0][3]);
    EXPECT_EQ(1u, image(0).count[0][3]);
}

TEST_F(BadBlockTest, UnitRangesMarkEveryOverlappedBlock) {
    const uint64_t bs = kBlockSize;
    const long hitsBefore = qvfs::plat::fault_hits();
    EXPECT_EQ(0, tag_unit(0, 0x41100000));  // ends exactly at the data area
    EXPECT_TRUE(bad_blocks().empty());
    EXPECT_EQ(0, tag_unit(kDataStart + 3 * bs + 10, 20));
    EXPECT_EQ(std::vector<uint32_t>{3}, bad_blocks());
    EXPECT_EQ(QV_BLK_BADUNIT, image(0).map[3]);
    EXPECT_EQ(0, tag_unit(kDataStart, kBlockSize));  // the end byte lies in block 1
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 3}), bad_blocks());
    EXPECT_EQ(0, tag_unit(kDataStart + 7 * bs + 5, 2 * kBlockSize));  // runs past the data area
    EXPECT_EQ((std::vector<uint32_t>{0, 1, 3, 7, 8}), bad_blocks());
    EXPECT_TRUE(meta_on_disk_matches(0));
    EXPECT_EQ(hitsBefore, qvfs::plat::fault_hits());

    // Blocks that are bad already: nothing changes, nothing is written.
    ASSERT_EQ(0, df_TagBadBlock(0, 1));
    fail_map_writes();
    const long hits = qvfs::plat::fault_hits();
    EXPECT_EQ(0, tag_unit(kDataStart, 2 * kBlockSize - 1));
    EXPECT_EQ(hits, qvfs::plat::fault_hits());
    EXPECT_EQ(QV_BLK_BAD, image(0).map[1]);
    // Through df_TagBadBlock a 0xFE block becomes 0xFF and the map is written.
    EXPECT_EQ(-1, df_TagBadBlock(0, 3));
    EXPECT_EQ(QV_BLK_BAD, image(0).map[3]) << "the image keeps the mark";
    EXPECT_LT(hits, qvfs::plat::fault_hits());
    EXPECT_EQ(-1, tag_unit(kDataStart + 5 * bs, 1));
    EXPECT_EQ(QV_BLK_BADUNIT, image(0).map[5]);
}

TEST_F(BadBlockTest, RejectsBadArgumentsAndUnreadyDisks) {
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_TagBadBlock(25, 0));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_TagBadBlock(6, 0));  // no image
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, df_TagBadBlock(0, 9));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, df_TagBadBlock(0, -1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_TagBadUnit(nullptr, 0, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, tag_unit(qvfs::test::image_bytes_for(9), 1));  // at the device's end
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, df_TagBadUnit("/dev/scsi/host06/part1", 0, 1));  // no device: size 0

    ASSERT_EQ(0, df_DiskUnmout(path_.c_str(), 0));
    errno = 66;
    EXPECT_EQ(-1, tag_unit(kDataStart, 1));
    EXPECT_EQ(66, errno) << "errno unchanged";
    // Not ready is no obstacle for a single block, but with the descriptor
    // closed no meta region can be written.
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, df_TagBadBlock(0, 2));
    EXPECT_EQ(QV_BLK_BAD, image(0).map[2]);
}

}  // namespace
