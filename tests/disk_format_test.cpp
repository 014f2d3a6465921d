// Format: the layout figures, sizes too small to hold a block, the metadata
// write failures through the fault seam, and the zeroing of block heads.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "common/platform.h"
#include "support/disk_env.h"

namespace {

using namespace qvfs::disk;
using qvfs::plat::Fault;
using qvfs::test::image_bytes_for;
using qvfs::test::kGiB;

class FormatTest : public qvfs::test::DiskTest {
protected:
    // Bytes of the image file that hold data (a sparse image that was never
    // written has none).
    long long allocated(int disk) {
        struct stat st {};
        EXPECT_EQ(0, ::stat(sbx_.image_path(disk).c_str(), &st));
        return static_cast<long long>(st.st_blocks);
    }
    bool region_blank(int disk, uint32_t r) {
        const auto map = read_dev(disk, map_first(r), kMapSize);
        const auto cur = read_dev(disk, current_chunk(r, 0), kChunk);
        auto zero = [](const std::vector<uint8_t>& v) {
            for (uint8_t b : v)
                if (b != 0) return false;
            return true;
        };
        return zero(map) && zero(cur);
    }
    int fault(uint64_t begin, uint64_t end, unsigned ops = qvfs::plat::kFaultWrite) {
        Fault f;
        f.begin = begin;
        f.end = end;
        f.ops = ops;
        return qvfs::plat::fault_add(f);
    }
};

TEST_F(FormatTest, LaysOutTheDeviceAndBothMetaRegions) {
    const std::string big = sbx_.add_disk(1, 2000398934016ull);
    ASSERT_EQ(0, df_DiskFormat(big.c_str(), 0, 0)) << errno;
    const TQvDiskHead& h = image(1).head;
    EXPECT_STREQ("QVFS", h.magic);
    EXPECT_EQ(2u, h.ver);
    EXPECT_EQ(0x41100000u, h.dataStart);
    EXPECT_EQ(1861u, h.tolblk);
    EXPECT_EQ(0x1D181100000ull, h.dataEnd);
    EXPECT_NEAR(static_cast<double>(h.createTime), static_cast<double>(time(nullptr)), 5);
    for (uint32_t t = 0; t < kTypes; ++t)
        for (uint32_t c = 0; c < kChannels; ++c) ASSERT_EQ(-1, image(1).current[t][c]);
    EXPECT_TRUE(meta_on_disk_matches(1));
    EXPECT_EQ(0, image(1).mounted);
    EXPECT_EQ(-1, g_astQvDisk[1].fd) << "a descriptor opened by the format is closed";

    const std::string mid = sbx_.add_disk(2, 500107862016ull);
    ASSERT_EQ(0, df_DiskFormat(mid.c_str(), 0, 0));
    EXPECT_EQ(463u, image(2).head.tolblk);
    // A requested size below the device lays out only that much; one at or
    // above it lays out the whole device.
    ASSERT_EQ(0, df_DiskFormat(mid.c_str(), 0, image_bytes_for(9)));
    EXPECT_EQ(9u, image(2).head.tolblk);
    ASSERT_EQ(0, df_DiskFormat(mid.c_str(), 0, 500107862016ull));
    EXPECT_EQ(463u, image(2).head.tolblk);
}

TEST_F(FormatTest, RefusesSizesThatHoldNoWholeBlockWithoutWriting) {
    const std::string small = sbx_.add_disk(3, kGiB - 512);
    EXPECT_ERR(-1, QVFS_ERR_FMT_TOOSMALL, df_DiskFormat(small.c_str(), 0, 0));
    const std::string edge = sbx_.add_disk(4, image_bytes_for(0) - 1);  // passes the 1 GiB test
    EXPECT_ERR(-1, QVFS_ERR_FMT_TOOSMALL, df_DiskFormat(edge.c_str(), 0, 0));
    const std::string big = sbx_.add_disk(5, image_bytes_for(4));
    EXPECT_ERR(-1, QVFS_ERR_FMT_TOOSMALL, df_DiskFormat(big.c_str(), 0, image_bytes_for(0) - 1));
    EXPECT_EQ(0, allocated(3) + allocated(4) + allocated(5));

    const std::string exact = sbx_.add_disk(6, image_bytes_for(0));
    ASSERT_EQ(0, df_DiskFormat(exact.c_str(), 0, 0));
    EXPECT_EQ(0u, image(6).head.tolblk);
    EXPECT_EQ(image(6).head.dataStart, image(6).head.dataEnd);
}

TEST_F(FormatTest, RejectsBadPathsAndMissingDevices) {
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_DiskFormat(nullptr, 0, 0));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_DiskFormat("/dev/sda1", 0, 0));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_DiskFormat("/dev/scsi/host25/part1", 0, 0));
    EXPECT_ERR(-1, QVFS_ERR_SYS + ENOENT, df_DiskFormat("/dev/scsi/host07/part1", 0, 0));  // no image
    EXPECT_EQ(-1, g_astQvDisk[7].fd);
}

// One header copy and one complete meta region are enough; which region
// must be complete depends on which header copy was written.
TEST_F(FormatTest, SurvivesLosingOneHeaderCopyOrOneMetaRegion) {
    const std::string path = sbx_.add_disk(0, image_bytes_for(3));
    fault(kHeadPrimary, kHeadPrimary + 512);
    ASSERT_EQ(0, df_DiskFormat(path.c_str(), 0, 0)) << errno;
    EXPECT_TRUE(region_blank(0, 0)) << "region 0 goes with the primary copy and is not written";
    EXPECT_TRUE(meta_on_disk_matches(0, false, true, false));
    EXPECT_EQ(0, std::memcmp(read_dev(0, kHeadBackup, 512).data(), &image(0).head, 512));
    EXPECT_EQ(0, read_dev(0, kHeadPrimary, 512)[0]) << "the primary place stays blank";
    qvfs::plat::fault_clear();

    // Primary copy lost and region 1 incomplete: the format fails.
    const std::string p1 = sbx_.add_disk(1, image_bytes_for(3));
    fault(kHeadPrimary, kHeadPrimary + 512);
    fault(count_chunk(1, 7), count_chunk(1, 7) + kChunk);
    EXPECT_ERR(-1, QVFS_ERR_SYS * 2 + EIO, df_DiskFormat(p1.c_str(), 0, 0));
    qvfs::plat::fault_clear();

    // Both copies written: a failure in one region is tolerated, in both not.
    const std::string p2 = sbx_.add_disk(2, image_bytes_for(3));
    fault(map_first(0), map_first(0) + kMapSize);
    fault(map_second(0), map_second(0) + kMapSize);
    EXPECT_EQ(0, df_DiskFormat(p2.c_str(), 0, 0));
    EXPECT_TRUE(meta_on_disk_matches(2, false, true));
    fault(current_chunk(1, 15), current_chunk(1, 15) + kChunk);
    EXPECT_ERR(-1, QVFS_ERR_SYS * 2 + EIO, df_DiskFormat(p2.c_str(), 0, 0));
}

TEST_F(FormatTest, FailsWhenNoHeaderCopyGoesOut) {
    const std::string path = sbx_.add_disk(0, image_bytes_for(3));
    fault(kHeadPrimary, kHeadPrimary + 512);
    fault(kHeadBackup, kHeadBackup + 512);
    EXPECT_ERR(-1, QVFS_ERR_SYS * 2 + EIO, df_DiskFormat(path.c_str(), 0, 0));
    EXPECT_TRUE(region_blank(0, 0) && region_blank(0, 1));
    qvfs::plat::fault_clear();

    // Offline at the first header write: nothing at all is written.
    fault(0, UINT64_MAX, qvfs::plat::kFaultOffline);
    EXPECT_EQ(-1, df_DiskFormat(path.c_str(), 0, 0));
    EXPECT_EQ(0, allocated(0));
    EXPECT_EQ(-1, g_astQvDisk[0].fd);
}

TEST_F(FormatTest, OnlineCheckFollowsTheSharedParameter) {
    const std::string path = ready_disk(0, 1);
    const int fd = g_astQvDisk[0].fd;
    fault(0, UINT64_MAX, qvfs::plat::kFaultOffline);
    EXPECT_EQ(0, df_IsDiskOnline(fd));
    EXPECT_EQ(0, df_SetOnlineCheck(0));
    const long hits = qvfs::plat::fault_hits();
    EXPECT_EQ(1, df_IsDiskOnline(fd));
    EXPECT_EQ(hits, qvfs::plat::fault_hits()) << "the device is not asked";
    EXPECT_EQ(0, df_SetOnlineCheck(7));  // ignored
    EXPECT_EQ(1, df_IsDiskOnline(fd));
    EXPECT_EQ(0, df_SetOnlineCheck(1));
    EXPECT_EQ(0, df_IsDiskOnline(fd));
}

// Mode 1 zeroes the first 16 MiB of every block; the clearing length rounds
// down to whole 512 KiB pieces.
TEST_F(FormatTest, ClearsBlockHeads) {
    const std::string path = sbx_.add_disk(0, image_bytes_for(2));
    const uint8_t mark = 0x5A;
    auto stamp = [&](uint64_t off) { write_dev(0, off, &mark, 1); };
    auto at = [&](uint64_t off) { return read_dev(0, off, 1)[0]; };
    const uint64_t b1 = kDataStart + kBlockSize;
    for (uint64_t off : {kDataStart, kDataStart + 0xFFFFFF, kDataStart + 0x1000000, b1 + 0x800000}) stamp(off);
    ASSERT_EQ(0, df_DiskFormat(path.c_str(), 0, 0));
    EXPECT_EQ(mark, at(kDataStart)) << "mode 0 writes only metadata";
    ASSERT_EQ(0, df_DiskFormat(path.c_str(), 1, 0));
    EXPECT_EQ(0, at(kDataStart));
    EXPECT_EQ(0, at(kDataStart + 0xFFFFFF));
    EXPECT_EQ(mark, at(kDataStart + 0x1000000));
    EXPECT_EQ(0, at(b1 + 0x800000));

    ASSERT_EQ(0, df_DiskMount(path.c_str()));
    for (uint64_t off : {kDataStart, kDataStart + 0x17FFFF, kDataStart + 0x180000}) stamp(off);
    EXPECT_EQ(0, _df_ClearBlockHead(&g_astQvDisk[0], 0, 0x7FFFF));
    EXPECT_EQ(mark, at(kDataStart)) << "below one piece nothing is written";
    EXPECT_EQ(0, _df_ClearBlockHead(&g_astQvDisk[0], 0, 0x1FFFFF));
    EXPECT_EQ(0, at(kDataStart));
    EXPECT_EQ(0, at(kDataStart + 0x17FFFF));
    EXPECT_EQ(mark, at(kDataStart + 0x180000)) << "three pieces, 1.5 MiB";
}

}  // namespace
