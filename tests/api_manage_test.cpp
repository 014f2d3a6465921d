// Disk and block management through the public interface: the arguments the
// three formats and two unmounts pass down, null pointers, usage and block
// queries, the version rule of the data-type size query, bad units, block
// listings and the public block-status words.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
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

constexpr uint64_t kSectorsPerBlock = kGiB / 512;

class ApiManage : public ApiTest {
protected:
    // Bytes at a device offset of a disk's image.
    std::vector<uint8_t> peek(int disk, uint64_t off, size_t len) const {
        std::vector<uint8_t> out(len);
        const int fd = ::open(sbx_.image_path(disk).c_str(), O_RDONLY);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(ssize_t(len), ::pread(fd, out.data(), len, off_t(off)));
        ::close(fd);
        return out;
    }
    void poke(int disk, uint64_t off, uint8_t value, size_t len) const {
        std::vector<uint8_t> v(len, value);
        const int fd = ::open(sbx_.image_path(disk).c_str(), O_WRONLY);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(ssize_t(len), ::pwrite(fd, v.data(), len, off_t(off)));
        ::close(fd);
    }
    static uint64_t blocks_of(const std::string& path) {
        TQvStatfs st{};
        EXPECT_EQ(0, qvfs_Statfs(path.c_str(), &st)) << "errno " << errno;
        return st.f_blocks / kSectorsPerBlock;
    }
    // Writes len bytes into a new file of a channel and closes it.
    std::string record(uint32_t chn, size_t len, int32_t recType = 5) {
        std::string name;
        const int h = create(&name, chn, 0, 0, recType);
        const std::string data(len, char('a' + chn % 26));
        EXPECT_EQ(int(len), qvfs_Write(h, data.data(), uint32_t(len)));
        EXPECT_EQ(0, qvfs_Close(h));
        return name;
    }
};

TEST_F(ApiManage, NullPointersLeaveErrnoAlone) {
    TQvStatfs sf;
    TQvDiskBlkInfo bi;
    TQvFileStat st;
    const char* p = disk_.c_str();
    const std::vector<std::pair<const char*, std::function<int()>>> calls = {
        {"Format", [] { return qvfs_Format(nullptr); }},
        {"FormatEx", [] { return qvfs_FormatEx(nullptr, 1); }},
        {"FormatMini", [] { return qvfs_FormatMini(nullptr, 2 * kGiB); }},
        {"Mount", [] { return qvfs_Mount(nullptr); }},
        {"UnMount", [] { return qvfs_UnMount(nullptr); }},
        {"UnMount_V2", [] { return qvfs_UnMount_V2(nullptr); }},
        {"Statfs path", [&] { return qvfs_Statfs(nullptr, &sf); }},
        {"Statfs record", [&] { return qvfs_Statfs(p, nullptr); }},
        {"GetUsedBlockNum", [] { return qvfs_GetUsedBlockNum(nullptr); }},
        {"GetBlockInfo path", [&] { return qvfs_GetBlockInfo(nullptr, &bi, 1); }},
        {"GetBlockInfo record", [&] { return qvfs_GetBlockInfo(p, nullptr, 1); }},
        {"GetUsedInBlockId", [] { return qvfs_GetUsedInBlockId(nullptr, 0, 0); }},
        {"GetUsedSizeOfDataType", [] { return qvfs_GetUsedSizeOfDataType(nullptr, 0, 0); }},
        {"TagBadUnit", [] { return qvfs_TagBadUnit(nullptr, 0, 512); }},
        {"BlockStat path", [&] { return qvfs_BlockStat(nullptr, 0, &st, 1); }},
        {"BlockStat record", [&] { return qvfs_BlockStat(p, 0, nullptr, 1); }},
        {"BlockStatSeg", [] { return qvfs_BlockStatSeg(nullptr); }},
        {"GetFileNum", [] { return qvfs_GetFileNum(nullptr, 0); }},
    };
    for (const auto& [what, call] : calls) {
        errno = 4242;
        EXPECT_EQ(-1, call()) << what;
        EXPECT_EQ(4242, errno) << what;
    }
    EXPECT_EQ(kBlocks, blocks_of(disk_)) << "the disk is untouched";
}

TEST_F(ApiManage, TheThreeFormatsPassModeAndSize) {
    const std::string d1 = sbx_.add_disk(1, image_bytes_for(2));
    auto head_of = [&](uint32_t block, uint64_t into) {
        return qvfs::disk::kDataStart + uint64_t(block) * kGiB + into;
    };
    auto dirty_heads = [&] {
        poke(1, head_of(0, 0), 0xEE, 512);
        poke(1, head_of(1, 15u << 20), 0xEE, 512);  // inside the 16 MiB that mode 1 clears
    };
    auto heads_clean = [&] {
        return peek(1, head_of(0, 0), 512) == std::vector<uint8_t>(512, 0) &&
               peek(1, head_of(1, 15u << 20), 512) == std::vector<uint8_t>(512, 0);
    };

    // Whole device, metadata only: the block heads keep their bytes.
    dirty_heads();
    ASSERT_EQ(0, qvfs_Format(d1.c_str()));
    ASSERT_EQ(0, qvfs_Mount(d1.c_str()));
    EXPECT_EQ(2u, blocks_of(d1));
    EXPECT_FALSE(heads_clean());
    ASSERT_EQ(0, qvfs_UnMount(d1.c_str()));

    // Mode 1: every block head zeroed.
    ASSERT_EQ(0, qvfs_FormatEx(d1.c_str(), QVFS_FORMAT_CLEAR_HEADS));
    EXPECT_TRUE(heads_clean());
    ASSERT_EQ(0, qvfs_Mount(d1.c_str()));
    EXPECT_EQ(2u, blocks_of(d1));
    ASSERT_EQ(0, qvfs_UnMount(d1.c_str()));

    // A size: only that much laid out, and never the heads.
    dirty_heads();
    ASSERT_EQ(0, qvfs_FormatMini(d1.c_str(), image_bytes_for(1)));
    ASSERT_EQ(0, qvfs_Mount(d1.c_str()));
    EXPECT_EQ(1u, blocks_of(d1));
    EXPECT_FALSE(heads_clean());
    ASSERT_EQ(0, qvfs_UnMount(d1.c_str()));
    // A size at or above the device means the whole device.
    ASSERT_EQ(0, qvfs_FormatMini(d1.c_str(), image_bytes_for(9)));
    ASSERT_EQ(0, qvfs_Mount(d1.c_str()));
    EXPECT_EQ(2u, blocks_of(d1));
    ASSERT_EQ(0, qvfs_UnMount(d1.c_str()));

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
        CHILD_CHECK(link, qvfs_Mount(disk_.c_str()) == 0);
        link.send(1);
        CHILD_CHECK(link, link.recv(&cmd) && cmd == 2);
        CHILD_CHECK(link, qvfs_UnMount(disk_.c_str()) == 0);
        link.send(3);
        CHILD_CHECK(link, link.recv(&cmd) && cmd == 4);
        CHILD_CHECK(link, qvfs_Mount(disk_.c_str()) == 0);
        CHILD_CHECK(link, qvfs_UnMount_V2(disk_.c_str()) == 0);
        link.send(5);
        return 0;
    });
    ASSERT_TRUE(c.expect(1));
    ASSERT_EQ(0, qvfs_Mount(disk_.c_str()));
    TQvDiskShare& img = *g_astQvDisk[0].share;
    EXPECT_EQ(2, img.mounted);
    ASSERT_TRUE(c.send(2));
    ASSERT_TRUE(c.expect(3));
    EXPECT_EQ(1, img.mounted);
    TQvStatfs sf{};
    EXPECT_EQ(0, qvfs_Statfs(disk_.c_str(), &sf)) << "still ready here after the other's plain unmount";
    ASSERT_TRUE(c.send(4));
    ASSERT_TRUE(c.expect(5));
    EXPECT_EQ(0, img.mounted);
    errno = 4242;
    EXPECT_EQ(-1, qvfs_Statfs(disk_.c_str(), &sf)) << "unmounted for every process";
    EXPECT_EQ(4242, errno);
    EXPECT_CHILD_OK(c);
}

TEST_F(ApiManage, QueriesReturnWhatTheLayersReturn) {
    const std::string a = record(3, 1000);
    record(3, 2000);
    const std::string c = record(8, 3000);
    ASSERT_EQ(0, qvfs_TagBadUnit(disk_.c_str(), qvfs::disk::kDataStart + 3 * kGiB, 512));
    const uint32_t blockA = name_block(a);
    const char* d = disk_.c_str();
    const std::string none = Sandbox::device_path(7);  // no such disk: the layers' failures

    for (const char* path : {d, none.c_str()}) {
        TQvStatfs mine, theirs;
        std::memset(&mine, 0x11, sizeof mine);
        std::memset(&theirs, 0x11, sizeof theirs);
        EXPECT_EQ(df_DiskStatfs(path, &theirs), qvfs_Statfs(path, &mine));
        EXPECT_EQ(0, std::memcmp(&mine, &theirs, sizeof mine));
        EXPECT_EQ(int(df_GetDiskUsedBlockNum(path)), qvfs_GetUsedBlockNum(path));
        for (uint32_t chn : {3u, 8u, 9u, 1024u})
            EXPECT_EQ(df_GetUsedInBlockOfDataType(path, chn, 0), qvfs_GetUsedInBlockId(path, chn, 0)) << chn;
        for (uint32_t blk : {blockA, name_block(c), 3u, 99u}) {
            EXPECT_EQ(bf_GetBlockFileNum(path, blk), qvfs_GetFileNum(path, blk)) << blk;
            std::vector<TQvFileStat> x(4), y(4);
            EXPECT_EQ(bf_BlockStat(path, blk, x.data(), 4), qvfs_BlockStat(path, blk, y.data(), 4)) << blk;
            EXPECT_EQ(0, std::memcmp(x.data(), y.data(), 4 * sizeof x[0])) << blk;
        }
        for (int n : {1, int(kBlocks), 0}) {
            std::vector<TQvDiskBlkInfo> x(kBlocks + 1), y(kBlocks + 1);
            EXPECT_EQ(df_GetBlockInfo(path, x.data(), n), qvfs_GetBlockInfo(path, y.data(), n)) << n;
            EXPECT_EQ(0, std::memcmp(x.data(), y.data(), x.size() * sizeof x[0])) << n;
        }
    }
    EXPECT_EQ(int(kBlocks), qvfs_GetUsedBlockNum(d)) << "the data area's blocks, used or not";
    TQvStatfs sf{};
    ASSERT_EQ(0, qvfs_Statfs(d, &sf));
    EXPECT_EQ(1u, sf.f_spare[0]) << "the bad unit reached the disk";

    // One segment of the listing, with the caller's buffers.
    std::vector<uint8_t> segBuf(0x80000);
    std::vector<TQvFileStat> segOut(4), all(4);
    TQvBlkSegQuery q{};
    q.blkId = blockA;
    q.total = 4;
    q.max = 4;
    q.segSize = 0x80000;
    q.segBuf = segBuf.data();
    q.out = segOut.data();
    ASSERT_EQ(0, qvfs_BlockStatSeg(&q));
    EXPECT_EQ(2, q.segFound);
    ASSERT_EQ(2, qvfs_BlockStat(d, blockA, all.data(), 4));
    EXPECT_EQ(0, std::memcmp(all.data(), segOut.data(), 2 * sizeof all[0]));
}

TEST_F(ApiManage, DataTypeSizeNeedsAVersion2Disk) {
    record(3, 100);
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
    const std::string a = record(2, 700, 1);
    const std::string b = record(2, 700, 5);
    const uint32_t block = name_block(a);
    auto words = [&] {
        QvfsBlockStat bs;
        std::memset(&bs, 0x77, sizeof bs);
        EXPECT_EQ(0, qvfs_GetBlockStat(0, block, &bs));
        return bs;
    };
    QvfsBlockStat bs = words();
    TQvBlkStat raw{};
    ASSERT_EQ(0, bf_GetBlockStat(0, block, &raw));
    EXPECT_EQ(0u, bs.diskId);
    EXPECT_EQ(block, bs.blkId);
    EXPECT_EQ(raw.dataType, bs.dataType);
    EXPECT_EQ(1u, bs.state) << "the channel's current block";
    EXPECT_EQ(raw.endTimeLo, bs.endTimeLo);
    EXPECT_EQ(raw.endTimeHi, bs.endTimeHi);
    EXPECT_GT(bs.endTimeLo, 1600000000u) << "the end time moves with the writes";
    // The counts are biased by -65536: a flag is 1 exactly when one file counts.
    EXPECT_EQ(0u, bs.locked);
    EXPECT_EQ(1u, bs.otherType);
    ASSERT_EQ(0, qvfs_Lock(b.c_str(), 1));
    EXPECT_EQ(1u, words().locked);
    ASSERT_EQ(0, qvfs_Lock(b.c_str(), 0));
    EXPECT_EQ(0u, words().locked);
    ASSERT_EQ(0, qvfs_ChangeRecType(b.c_str(), 2));
    EXPECT_EQ(0u, words().otherType);

    // A bad unit: the channel moves on, the block stays allocated (state 2).
    ASSERT_EQ(0, qvfs_TagBadUnit(disk_.c_str(), qvfs::disk::kDataStart + uint64_t(block) * kGiB + 4096, 512));
    const std::string moved = record(2, 10);
    EXPECT_NE(block, name_block(moved));
    EXPECT_EQ(2u, words().state);
    // Unlinked with nobody holding it, the block goes back (state 0).
    EXPECT_EQ(0, qvfs_BlockUnlink(0, name_block(moved)));
    ASSERT_EQ(0, qvfs_GetBlockStat(0, name_block(moved), &bs));
    EXPECT_EQ(0u, bs.state);
    EXPECT_EQ(-1, open_name(moved));

    // A failed query returns the layer's result and leaves the record alone.
    std::memset(&bs, 0x5A, sizeof bs);
    TQvBlkStat ignored;
    EXPECT_EQ(bf_GetBlockStat(0, 1u << 20, &ignored), qvfs_GetBlockStat(0, 1u << 20, &bs));
    EXPECT_EQ(0x5A5A5A5Au, bs.diskId);
    EXPECT_EQ(0x5A5A5A5Au, bs.endTimeHi);
}

}  // namespace
