// Usage queries: the block-information scan and its slices, a channel's
// current block and held space, the block count, and the debug dump.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "support/disk_env.h"

namespace {

using namespace qvfs::disk;
using qvfs::test::TestBlockHead;

class QueryTest : public qvfs::test::DiskTest {
protected:
    void SetUp() override {
        DiskTest::SetUp();
        path_ = ready_disk(0, 9);
    }
    // Allocates a block and writes a recognisable header into it.
    int32_t alloc_with_head(uint32_t chn, int32_t code, uint32_t type, uint64_t start) {
        TQvfsOpenParam req = request(path_, chn, code, 0x7FFFFFFF);  // always a new block
        TQvBlkId id{};
        EXPECT_EQ(0, df_GetFileBlkId(&req, &id));
        TestBlockHead h;
        h.chn = chn;
        h.dataType = type;
        h.startTime = start;
        h.endTime = start + 60;
        h.cnt = chn + 1;
        write_block_head(0, static_cast<uint32_t>(id.block), h);
        return id.block;
    }
    std::string path_;
};

TEST_F(QueryTest, BlockInfoReportsTheHeadersOfBlocksInUse) {
    TQvDiskBlkInfo info[9];
    EXPECT_EQ(0, df_GetBlockInfo(path_.c_str(), info, 9));
    ASSERT_EQ(0, alloc_with_head(3, 0, 0, 1000));
    ASSERT_EQ(1, alloc_with_head(4, 5, 3, 2000));
    ASSERT_EQ(2, alloc_with_head(5, 7, 5, 3000));
    ASSERT_EQ(0, df_ReleaseBlock(0, 0, 3, 0, 0x200000));
    ASSERT_EQ(0, df_TagBadBlock(0, 2));

    std::memset(info, 0xAB, sizeof info);
    EXPECT_EQ(0, df_GetBlockInfo(path_.c_str(), info, 1)) << "only block 0 is examined";
    ASSERT_EQ(1, df_GetBlockInfo(path_.c_str(), info, 9));
    EXPECT_EQ(1u, info[0].blkId);
    EXPECT_EQ(2000u, info[0].startTime);
    EXPECT_EQ(2060u, info[0].endTime);
    EXPECT_EQ(5u, info[0].cnt);
    EXPECT_EQ(5u, info[0].fileType);
    EXPECT_EQ(0xABABABABu, info[0].reserved0);
    EXPECT_EQ(0xABABABABu, info[0].reserved2);
    EXPECT_EQ(0xABABABABu, info[1].blkId) << "one record per block in use";

    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_GetBlockInfo(path_.c_str(), info, 0));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_GetBlockInfo("/dev/scsi/host08/part1", info, 9));
}

// With no time budget every slice ends after one block; the cursor carries
// the scan on, and the slices together give what one pass gives.
TEST_F(QueryTest, ScanResumesWhereASliceStopped) {
    for (uint32_t c = 0; c < 5; ++c) alloc_with_head(c, 2, 2, 100 * c);
    ASSERT_EQ(0, df_ReleaseBlock(0, 1, 1, 2, 0));
    std::vector<uint32_t> ids;
    TQvDiskBlkInfo info[9];
    uint32_t cursor = 0;
    int32_t remaining = 9;
    int slices = 0;
    while (remaining > 0 && slices < 20) {
        const uint32_t before = cursor;
        const int n = _df_GetBlockInfo(info, 0, &cursor, &remaining, 0);
        ASSERT_GE(n, 0);
        ASSERT_GT(cursor, before);
        for (int i = 0; i < n; ++i) ids.push_back(info[i].blkId);
        ++slices;
    }
    EXPECT_EQ((std::vector<uint32_t>{0, 2, 3, 4}), ids);
    EXPECT_GT(slices, 1);
    EXPECT_EQ(4, df_GetBlockInfo(path_.c_str(), info, 9));

    cursor = 9;
    remaining = 3;
    EXPECT_EQ(0, _df_GetBlockInfo(info, 0, &cursor, &remaining, 200));
    EXPECT_EQ(0, remaining) << "a cursor past the disk ends the scan";
    EXPECT_EQ(-1, _df_GetBlockInfo(info, 25, &cursor, &remaining, 200));
}

TEST_F(QueryTest, CurrentBlockAndHeldSpacePerChannel) {
    EXPECT_EQ(9u, df_GetDiskUsedBlockNum(path_.c_str()));
    for (uint32_t code = 0; code < 16; ++code) EXPECT_EQ(-1, df_GetUsedInBlockOfDataTypeEx(0, 11, code));
    EXPECT_EQ(0, df_GetBlockNumOfDataType(path_.c_str(), 11, 0));
    alloc_with_head(11, 0, 0, 1);
    const int32_t pic = alloc_with_head(11, 5, 3, 1);
    alloc_with_head(11, 5, 3, 1);
    EXPECT_EQ(0, df_GetUsedInBlockOfDataType(path_.c_str(), 11, 1)) << "code 1 reads the REC row";
    EXPECT_EQ(0, df_GetUsedInBlockOfDataTypeEx(0, 11, 8));
    EXPECT_EQ(pic + 1, df_GetUsedInBlockOfDataTypeEx(0, 11, 5));
    EXPECT_EQ(1024, df_GetBlockNumOfDataType(path_.c_str(), 11, 0));
    EXPECT_EQ(2048, df_GetBlockNumOfDataType(path_.c_str(), 11, 5));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, df_GetUsedInBlockOfDataTypeEx(0, 11, 16));
    EXPECT_ERR(-1, QVFS_ERR_CHANNEL, df_GetUsedInBlockOfDataTypeEx(0, 1024, 0));
    EXPECT_ERR(-1, QVFS_ERR_CHANNEL, df_GetBlockNumOfDataType(path_.c_str(), 1024, 0));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, df_GetBlockNumOfDataType(path_.c_str(), 0, 16));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_GetUsedInBlockOfDataType(nullptr, 0, 0));
    EXPECT_ERR(0u, QVFS_ERR_BADARG, df_GetDiskUsedBlockNum("/dev/scsi/host12/part1"));

    ASSERT_EQ(0, df_DiskUnmout(path_.c_str(), 0));
    errno = 44;
    EXPECT_EQ(0u, df_GetDiskUsedBlockNum(path_.c_str()));
    EXPECT_EQ(-1, df_GetUsedInBlockOfDataTypeEx(0, 11, 0));
    EXPECT_EQ(-1, df_GetBlockNumOfDataType(path_.c_str(), 11, 0));
    EXPECT_EQ(44, errno) << "errno unchanged";
}

TEST_F(QueryTest, DebugDumpPrintsOneRowPerDiskAndStopsAtTheBufferSize) {
    alloc_with_head(1, 0, 0, 1);
    alloc_with_head(2, 3, 1, 1);
    alloc_with_head(1, 7, 5, 1);
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
