// Marking blocks bad: single blocks reported by the block-file layer and
// device byte ranges reported by the recorder.
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "support/fixture.h"

namespace {

using namespace qvfs::disk;
using namespace qvfs::test;

class BadBlockTest : public DiskTest {
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
    std::string path_;
};

// Blocks that are bad already: nothing changes, nothing is written. A
// failed map write is reported and the image keeps the mark.
TEST_F(BadBlockTest, WritesOnlyChangesAndReportsFailedWrites) {
    const uint64_t bs = kBlockSize;
    ASSERT_EQ(0, tag_unit(kDataStart + 3 * bs + 10, 20));
    ASSERT_EQ(0, tag_unit(kDataStart, kBlockSize));  // blocks 0 and 1
    ASSERT_EQ(0, df_TagBadBlock(0, 1));
    for (uint32_t r = 0; r < 2; ++r)
        for (uint64_t at : {map_first(r), map_second(r)}) fault(qvfs::plat::kFaultWrite, at, kMapSize);
    EXPECT_EQ(0, tag_unit(kDataStart, 2 * kBlockSize - 1));
    EXPECT_EQ(0, qvfs::plat::fault_hits());
    EXPECT_EQ(QV_BLK_BAD, image(0).map[1]);
    // Through df_TagBadBlock a 0xFE block becomes 0xFF and the map is written
    // (here: fails, the image keeps the mark).
    EXPECT_EQ(-1, df_TagBadBlock(0, 3));
    EXPECT_EQ(QV_BLK_BAD, image(0).map[3]);
    EXPECT_LT(0, qvfs::plat::fault_hits());
    EXPECT_EQ(-1, tag_unit(kDataStart + 5 * bs, 1));
    EXPECT_EQ(QV_BLK_BADUNIT, image(0).map[5]);
}

}  // namespace
