// Usage queries: the block-information scan and its slices, a channel's
// current block and held space, the block count, and the debug dump.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "support/fixture.h"

namespace {

using namespace qvfs::disk;
using namespace qvfs::test;

class QueryTest : public DiskTest {
protected:
    void SetUp() override {
        DiskTest::SetUp();
        path_ = ready_disk(0, 9);
    }
    // A new block for a channel whose header carries recognisable values.
    int32_t block_with_head(uint32_t chn, int32_t code, uint32_t type, uint64_t start) {
        TQvBlkInfo h{};
        h.startTime = start, h.endTime = start + 60, h.dataType = type, h.cnt = chn + 1;
        return new_block(0, chn, code, h);
    }
    std::string path_;
};

// The scan reports the header of every block in use. With no time budget
// every slice ends after one block; the cursor carries the scan on, and the
// slices together give what one pass gives.
TEST_F(QueryTest, BlockInfoScansTheHeadersOfBlocksInUseInSlices) {
    TQvDiskBlkInfo info[9];
    EXPECT_EQ(0, df_GetBlockInfo(path_.c_str(), info, 9));
    for (uint32_t c = 0; c < 5; ++c) block_with_head(c, 7, 5, 1000 * c);
    ASSERT_EQ(0, df_ReleaseBlock(0, 0, 0, 5, 0x200000));
    ASSERT_EQ(0, df_TagBadBlock(0, 2));
    std::vector<uint32_t> ids;
    uint32_t cursor = 0;
    int32_t remaining = 9;
    int slices = 0;
    for (; remaining > 0 && slices < 20; ++slices) {
        const uint32_t before = cursor;
        const int n = _df_GetBlockInfo(info, 0, &cursor, &remaining, 0);
        ASSERT_GE(n, 0);
        ASSERT_GT(cursor, before);
        for (int i = 0; i < n; ++i) ids.push_back(info[i].blkId);
    }
    EXPECT_EQ((std::vector<uint32_t>{1, 3, 4}), ids);
    EXPECT_GT(slices, 1);
    cursor = 9;
    remaining = 3;
    EXPECT_EQ(0, _df_GetBlockInfo(info, 0, &cursor, &remaining, 200));
    EXPECT_EQ(0, remaining) << "a cursor past the disk ends the scan";
    EXPECT_EQ(-1, _df_GetBlockInfo(info, 25, &cursor, &remaining, 200));

    std::memset(info, 0xAB, sizeof info);
    EXPECT_EQ(0, df_GetBlockInfo(path_.c_str(), info, 1)) << "only block 0 is examined";
    ASSERT_EQ(3, df_GetBlockInfo(path_.c_str(), info, 9));
    const TQvDiskBlkInfo& i = info[2];  // fileType: the file type of the header's block type 5
    EXPECT_EQ(std::make_tuple(4u, uint64_t{4000}, uint64_t{4060}, 5u, 7u),
              std::make_tuple(i.blkId, i.startTime, i.endTime, i.cnt, i.fileType));
    EXPECT_EQ(std::make_tuple(0xABABABABu, 0xABABABABu), std::make_tuple(i.reserved0, i.reserved2));
    EXPECT_EQ(0xABABABABu, info[3].blkId) << "one record per block in use";
}

TEST_F(QueryTest, DebugDumpPrintsOneRowPerDiskAndStopsAtTheBufferSize) {
    block_with_head(1, 0, 0, 1);
    block_with_head(2, 3, 1, 1);
    block_with_head(1, 7, 5, 1);
    ASSERT_EQ(0, df_TagBadBlock(0, 7));
    const std::string banner =
        "===========QVDISK============\nid\tfd\tmapIndex\tstat\tmounted\tver\ttolblk\tuseblk\tbadblk\t"
        "[REC\tIMG\tBACK\tPIC\tFPD\tITS]\n";
    char row[128];
    std::snprintf(row, sizeof row, "0\t%d\t0\t\t0\t1\t2\t9\t3\t1\t1\t1\t0\t0\t0\t1\n", g_astQvDisk[0].fd);
    std::string buf(8192, '\0');
    const int len = df_GetDebugInfo(buf.data(), static_cast<int32_t>(buf.size()));
    const std::string text(buf.c_str());
    EXPECT_EQ(static_cast<size_t>(len), text.size());
    EXPECT_EQ(0u, text.find(banner + row));
    EXPECT_NE(std::string::npos, text.find("===========Share Mem============", banner.size()));

    char small[100];
    std::memset(small, 'x', sizeof small);
    EXPECT_EQ(static_cast<int>(banner.size()), df_GetDebugInfo(small, 100));
    EXPECT_EQ(banner.substr(0, 99), std::string(small));
    const int cut = static_cast<int>(banner.size()) + 5;  // the row does not fit
    EXPECT_EQ(static_cast<int>(banner.size() + std::strlen(row)), df_GetDebugInfo(buf.data(), cut));
    EXPECT_EQ(0, df_GetDebugInfo(buf.data(), 99));
    EXPECT_EQ(0, df_GetDebugInfo(nullptr, 1000));
}

}  // namespace
