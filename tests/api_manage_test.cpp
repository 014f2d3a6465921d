// Disk and block management through the public interface: the arguments the
// three formats and two unmounts pass down, null pointers, usage and block
// queries compared with the layers' own answers, the version rule of the
// data-type size query, and the public block-status words.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "blockfile/bf.h"
#include "disk/df.h"
#include "support/api_env.h"
#include "support/child.h"
#include "support/disk_env.h"
#include "support/file_env.h"

namespace {

using qvfs::test::ApiTest;
using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::image_bytes_for;
using qvfs::test::kGiB;
using qvfs::test::name_block;
using qvfs::test::Sandbox;

class ApiManage : public ApiTest {
protected:
    static uint64_t blocks_of(const std::string& path) {
        TQvStatfs st{};
        EXPECT_EQ(0, qvfs_Statfs(path.c_str(), &st)) << "errno " << errno;
        return st.f_blocks / (kGiB / 512);
    }
};

TEST_F(ApiManage, NullPointersLeaveErrnoAlone) {
    TQvStatfs sf;
    TQvDiskBlkInfo bi;
    TQvFileStat st;
    const char* p = disk_.c_str();
    EXPECT_ERR(-1, 0, qvfs_Format(nullptr)); EXPECT_ERR(-1, 0, qvfs_FormatEx(nullptr, 1));
    EXPECT_ERR(-1, 0, qvfs_FormatMini(nullptr, 2 * kGiB)); EXPECT_ERR(-1, 0, qvfs_Mount(nullptr));
    EXPECT_ERR(-1, 0, qvfs_UnMount(nullptr)); EXPECT_ERR(-1, 0, qvfs_UnMount_V2(nullptr));
    EXPECT_ERR(-1, 0, qvfs_Statfs(nullptr, &sf)); EXPECT_ERR(-1, 0, qvfs_Statfs(p, nullptr));
    EXPECT_ERR(-1, 0, qvfs_GetUsedBlockNum(nullptr)); EXPECT_ERR(-1, 0, qvfs_GetBlockInfo(nullptr, &bi, 1));
    EXPECT_ERR(-1, 0, qvfs_GetBlockInfo(p, nullptr, 1)); EXPECT_ERR(-1, 0, qvfs_GetUsedInBlockId(nullptr, 0, 0));
    EXPECT_ERR(-1, 0, qvfs_GetUsedSizeOfDataType(nullptr, 0, 0)); EXPECT_ERR(-1, 0, qvfs_TagBadUnit(nullptr, 0, 512));
    EXPECT_ERR(-1, 0, qvfs_BlockStat(nullptr, 0, &st, 1)); EXPECT_ERR(-1, 0, qvfs_BlockStat(p, 0, nullptr, 1));
    EXPECT_ERR(-1, 0, qvfs_BlockStatSeg(nullptr)); EXPECT_ERR(-1, 0, qvfs_GetFileNum(nullptr, 0));
    EXPECT_ERR(-1, 0, qvfs_ClearBadBlock(nullptr, 0));
    EXPECT_EQ(kBlocks, blocks_of(disk_)) << "the disk is untouched";
}

TEST_F(ApiManage, TheThreeFormatsPassModeAndSize) {
    const std::string d1 = sbx_.add_disk(1, image_bytes_for(2));
    const int fd = ::open(sbx_.image_path(1).c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    // Two sectors in block heads: the start of block 0, and one inside the
    // 16 MiB of block 1 that mode 1 clears.
    const off_t heads[2] = {off_t(qvfs::disk::kDataStart), off_t(qvfs::disk::kDataStart + kGiB + (15u << 20))};
    const std::vector<uint8_t> dirty(512, 0xEE), clean(512, 0);
    const struct {
        std::function<int()> format;
        uint64_t blocks;  // mounted afterwards
        bool clears;      // the block heads
    } formats[] = {
        {[&] { return qvfs_Format(d1.c_str()); }, 2, false},  // whole device, metadata only
        {[&] { return qvfs_FormatEx(d1.c_str(), QVFS_FORMAT_CLEAR_HEADS); }, 2, true},
        {[&] { return qvfs_FormatMini(d1.c_str(), image_bytes_for(1)); }, 1, false},  // only that much
        {[&] { return qvfs_FormatMini(d1.c_str(), image_bytes_for(9)); }, 2, false},  // beyond: the whole
    };
    for (const auto& f : formats) {
        SCOPED_TRACE(&f - formats);
        for (off_t off : heads) ASSERT_EQ(512, ::pwrite(fd, dirty.data(), 512, off));
        ASSERT_EQ(0, f.format());
        std::vector<uint8_t> b(512);
        // Every format clears the first sector of each block; mode 1 the rest of the head too.
        for (off_t off : heads)
            EXPECT_TRUE(::pread(fd, b.data(), 512, off) == 512 && b == (f.clears || off == heads[0] ? clean : dirty));
        ASSERT_EQ(0, qvfs_Mount(d1.c_str()));
        EXPECT_EQ(f.blocks, blocks_of(d1));
        ASSERT_EQ(0, qvfs_UnMount(d1.c_str()));
    }
    ::close(fd);
    EXPECT_ERR(-1, QVFS_ERR_FMT_TOOSMALL, qvfs_FormatMini(d1.c_str(), kGiB - 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Format("/dev/scsi/host25/part1"));
    EXPECT_ERR(-1, QVFS_ERR_NOTFORMATTED, qvfs_Mount(sbx_.add_disk(2, image_bytes_for(1)).c_str()));
}

TEST_F(ApiManage, PlainUnmountLeavesOthersAndTheSecondUnmountsForAll) {
    // Both processes mount with their own descriptors: the parent drops its
    // mount first so that the child does not inherit an open device.
    ASSERT_EQ(0, qvfs_UnMount(disk_.c_str()));
    Child c = Child::spawn([&](ChildLink& link) {
        int64_t cmd = 0;
        CHILD_CHECK(link, qvfs_Mount(disk_.c_str()) == 0 && link.send(1));
        CHILD_CHECK(link, link.recv(&cmd) && qvfs_UnMount(disk_.c_str()) == 0 && link.send(3));
        CHILD_CHECK(link, link.recv(&cmd) && qvfs_Mount(disk_.c_str()) == 0);
        CHILD_CHECK(link, qvfs_UnMount_V2(disk_.c_str()) == 0 && link.send(5));
        return 0;
    });
    ASSERT_TRUE(c.expect(1));
    ASSERT_EQ(0, qvfs_Mount(disk_.c_str()));
    TQvDiskShare& img = *g_astQvDisk[0].share;
    EXPECT_EQ(2, img.mounted);
    ASSERT_TRUE(c.send(2) && c.expect(3));
    EXPECT_EQ(1, img.mounted);
    TQvStatfs sf{};
    EXPECT_EQ(0, qvfs_Statfs(disk_.c_str(), &sf)) << "still ready here after the other's plain unmount";
    ASSERT_TRUE(c.send(4) && c.expect(5));
    EXPECT_EQ(0, img.mounted);
    EXPECT_ERR(-1, 0, qvfs_Statfs(disk_.c_str(), &sf));  // unmounted for every process
    EXPECT_CHILD_OK(c);
}

TEST_F(ApiManage, QueriesReturnWhatTheLayersReturn) {
    const std::string a = new_file(3, 5, 1000);
    new_file(3, 5, 2000);
    const std::string c = new_file(8, 5, 3000);
    ASSERT_EQ(0, qvfs_TagBadUnit(disk_.c_str(), qvfs::disk::kDataStart + 3 * kGiB, 512));
    const uint32_t blockA = name_block(a);
    const std::string none = Sandbox::device_path(7);  // no such disk: the layers' failures

    for (const char* path : {disk_.c_str(), none.c_str()}) {
        SCOPED_TRACE(path);
        TQvStatfs mine, theirs;
        std::memset(&mine, 0x11, sizeof mine);
        std::memset(&theirs, 0x11, sizeof theirs);
        EXPECT_EQ(df_DiskStatfs(path, &theirs), qvfs_Statfs(path, &mine));
        EXPECT_EQ(0, std::memcmp(&mine, &theirs, sizeof mine));
        EXPECT_EQ(int(df_GetDiskUsedBlockNum(path)), qvfs_GetUsedBlockNum(path));
        for (uint32_t chn : {3u, 8u, 9u, 1024u})
            EXPECT_EQ(df_GetUsedInBlockOfDataType(path, chn, 0), qvfs_GetUsedInBlockId(path, chn, 0)) << chn;
        for (uint32_t blk : {blockA, name_block(c), 3u, 99u}) {
            std::vector<TQvFileStat> x(4), y(4);
            EXPECT_EQ(bf_GetBlockFileNum(path, blk), qvfs_GetFileNum(path, blk)) << blk;
            EXPECT_EQ(bf_BlockStat(path, blk, x.data(), 4), qvfs_BlockStat(path, blk, y.data(), 4)) << blk;
            EXPECT_EQ(0, std::memcmp(x.data(), y.data(), 4 * sizeof x[0])) << blk;
        }
        for (int n : {1, int(kBlocks), 0}) {
            std::vector<TQvDiskBlkInfo> x(kBlocks + 1), y(kBlocks + 1);
            EXPECT_EQ(df_GetBlockInfo(path, x.data(), n), qvfs_GetBlockInfo(path, y.data(), n)) << n;
            EXPECT_EQ(0, std::memcmp(x.data(), y.data(), x.size() * sizeof x[0])) << n;
        }
    }
    EXPECT_EQ(int(kBlocks), qvfs_GetUsedBlockNum(disk_.c_str())) << "the data area's blocks, used or not";
    TQvStatfs sf{};
    ASSERT_EQ(0, qvfs_Statfs(disk_.c_str(), &sf));
    EXPECT_EQ(1u, sf.f_spare[0]) << "the bad unit reached the disk";

    // One segment of the listing, with the caller's buffers.
    std::vector<uint8_t> segBuf(0x80000);
    std::vector<TQvFileStat> segOut(4), all(4);
    TQvBlkSegQuery q{};
    q.blkId = blockA, q.total = 4, q.max = 4, q.segSize = 0x80000;
    q.segBuf = segBuf.data(), q.out = segOut.data();
    ASSERT_EQ(0, qvfs_BlockStatSeg(&q));
    EXPECT_EQ(2, q.segFound);
    ASSERT_EQ(2, qvfs_BlockStat(disk_.c_str(), blockA, all.data(), 4));
    EXPECT_EQ(0, std::memcmp(all.data(), segOut.data(), 2 * sizeof all[0]));
}

TEST_F(ApiManage, DataTypeSizeNeedsAVersion2Disk) {
    new_file(3);
    EXPECT_EQ(1024, qvfs_GetUsedSizeOfDataType(disk_.c_str(), 3, 0)) << "one 1 GiB block, in MiB";
    // A disk this process has no image of reads as version 1.
    EXPECT_ERR(-2, QVFS_ERR_OLDVERSION, qvfs_GetUsedSizeOfDataType(Sandbox::device_path(6).c_str(), 3, 0));
    TQvDiskShare& img = *g_astQvDisk[0].share;
    for (uint32_t old : {1u, 0u}) {
        img.head.ver = old;
        EXPECT_ERR(-2, QVFS_ERR_OLDVERSION, qvfs_GetUsedSizeOfDataType(disk_.c_str(), 3, 0));
    }
    img.head.ver = 2;
    EXPECT_EQ(1024, qvfs_GetUsedSizeOfDataType(disk_.c_str(), 3, 0));
    // The layer's own refusals come through unchanged.
    EXPECT_ERR(-1, QVFS_ERR_CHANNEL, qvfs_GetUsedSizeOfDataType(disk_.c_str(), 1024, 0));
}

TEST_F(ApiManage, BlockStatusWords) {
    // Record type 1 (in the class) and 5 (outside it) in one block.
    const std::string a = new_file(2, 1, 700), b = new_file(2, 5, 700);
    const uint32_t block = name_block(a);
    auto words = [&](uint32_t blk) {
        QvfsBlockStat bs;
        std::memset(&bs, 0x77, sizeof bs);
        EXPECT_EQ(0, qvfs_GetBlockStat(0, blk, &bs));
        return bs;
    };
    const QvfsBlockStat bs = words(block);
    TQvBlkStat raw{};
    ASSERT_EQ(0, bf_GetBlockStat(0, block, &raw));
    // {disk, block, data type, state (1: the channel's current block), end time, locked, other type}
    EXPECT_EQ((std::vector<uint32_t>{0, block, raw.dataType, 1, raw.endTimeLo, raw.endTimeHi, 0, 1}),
              (std::vector<uint32_t>{bs.diskId, bs.blkId, bs.dataType, bs.state, bs.endTimeLo, bs.endTimeHi,
                                     bs.locked, bs.otherType}));
    EXPECT_GT(bs.endTimeLo, 1600000000u) << "the end time moves with the writes";
    // The counts are biased by -65536: a flag is 1 when at least one file counts.
    for (auto [lock, flag] : {std::pair{1, 1u}, {1, 1u}, {0, 1u}, {0, 0u}}) {  // counts 1, 2, 1, 0
        ASSERT_EQ(0, qvfs_Lock(b.c_str(), lock));
        EXPECT_EQ(flag, words(block).locked);
    }
    ASSERT_EQ(0, qvfs_ChangeRecType(b.c_str(), 2));
    EXPECT_EQ(0u, words(block).otherType);

    // Unlinked with nobody holding it, the block goes back (state 0).
    const std::string gone = new_file(7, 5, 10);
    EXPECT_EQ(0, qvfs_BlockUnlink(0, name_block(gone)));
    EXPECT_EQ(0u, words(name_block(gone)).state);
    EXPECT_EQ(-1, open_name(gone));

    // A failed query returns the layer's result and leaves the record alone.
    QvfsBlockStat untouched;
    std::memset(&untouched, 0x5A, sizeof untouched);
    TQvBlkStat ignored;
    EXPECT_EQ(bf_GetBlockStat(0, 1u << 20, &ignored), qvfs_GetBlockStat(0, 1u << 20, &untouched));
    EXPECT_EQ(0x5A5A5A5Au, untouched.diskId);
    EXPECT_EQ(0x5A5A5A5Au, untouched.endTimeHi);
}

}  // namespace
