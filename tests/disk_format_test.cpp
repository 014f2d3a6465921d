// Format: the layout figures, sizes too small to hold a block, the metadata
// write failures through the fault seam, and the zeroing of block heads.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <tuple>

#include "support/disk_env.h"

namespace {

using namespace qvfs::disk;
using namespace qvfs::test;

class FormatTest : public DiskTest {
protected:
    // Formats a new image of `bytes` with write faults on the (offset,
    // length) ranges, then disarms all faults; 0, or the errno of the failure.
    int format(int disk, uint64_t bytes, std::initializer_list<std::pair<uint64_t, uint64_t>> fail = {},
               uint64_t size = 0) {
        const std::string p = sbx_.add_disk(disk, bytes);
        for (auto [at, len] : fail) fault(qvfs::plat::kFaultWrite, at, len);
        errno = 0;
        const int r = df_DiskFormat(p.c_str(), 0, size) == 0 ? 0 : errno == 0 ? -1 : errno;
        qvfs::plat::fault_clear();
        return r;
    }
    bool nothing_written(int disk) {
        struct stat st {};
        return ::stat(sbx_.image_path(disk).c_str(), &st) == 0 && st.st_blocks == 0;
    }
    bool region_blank(int disk, uint32_t r) {
        return dev_zero(disk, map_first(r), kMapSize) && dev_zero(disk, current_chunk(r, 0), kChunk);
    }
};

TEST_F(FormatTest, LaysOutTheDeviceAndBothMetaRegions) {
    ASSERT_EQ(0, format(1, 2000398934016ull));
    const TQvDiskHead& h = image(1).head;
    EXPECT_STREQ("QVFS", h.magic);
    EXPECT_EQ(std::make_tuple(2u, uint64_t{0x41100000}, 1861u, uint64_t{0x1D181100000}),
              std::make_tuple(h.ver, h.dataStart, h.tolblk, h.dataEnd));
    EXPECT_NEAR(static_cast<double>(h.createTime), static_cast<double>(time(nullptr)), 5);
    const int32_t* cur = &image(1).current[0][0];
    EXPECT_TRUE(std::all_of(cur, cur + kTypes * kChannels, [](int32_t v) { return v == -1; }));
    EXPECT_TRUE(meta_on_disk_matches(1));
    EXPECT_EQ(std::make_pair(0, -1), std::make_pair(image(1).mounted, g_astQvDisk[1].fd)) << "not mounted, closed";
    // A requested size below the device lays out only that much; one at or
    // above it, or 0, the whole device.
    ASSERT_EQ(0, format(2, 500107862016ull));
    EXPECT_EQ(463u, image(2).head.tolblk);
    for (auto [size, blocks] : {std::pair{image_bytes_for(9), 9u}, {500107862016ull, 463u}}) {
        ASSERT_EQ(0, df_DiskFormat(Sandbox::device_path(2).c_str(), 0, size)) << errno;
        EXPECT_EQ(blocks, image(2).head.tolblk) << size;
    }
}

TEST_F(FormatTest, RefusesBadPathsAndSizesThatHoldNoWholeBlock) {
    for (const char* p : {static_cast<const char*>(nullptr), "/dev/sda1", "/dev/scsi/host25/part1"})
        EXPECT_ERR(-1, QVFS_ERR_BADARG, df_DiskFormat(p, 0, 0));
    EXPECT_ERR(-1, QVFS_ERR_SYS + ENOENT, df_DiskFormat("/dev/scsi/host07/part1", 0, 0));  // no image
    // Below 1 GiB; passing the 1 GiB test but one byte short of a block, by
    // the device or by the request: refused, nothing written.
    EXPECT_EQ(QVFS_ERR_FMT_TOOSMALL, format(0, kGiB - 512));
    EXPECT_EQ(QVFS_ERR_FMT_TOOSMALL, format(1, image_bytes_for(1) - 1));
    EXPECT_EQ(QVFS_ERR_FMT_TOOSMALL, format(2, image_bytes_for(4), {}, image_bytes_for(1) - 1));
    EXPECT_TRUE(nothing_written(0) && nothing_written(1) && nothing_written(2));
    ASSERT_EQ(0, format(6, image_bytes_for(1)));
    EXPECT_EQ(1u, image(6).head.tolblk);
}

// One header copy and one complete meta region are enough: region 0 goes
// with the primary copy, region 1 with the backup.
TEST_F(FormatTest, NeedsOneHeaderCopyAndItsMetaRegion) {
    const std::pair<uint64_t, uint64_t> primary{kHeadPrimary, 512}, map0a{map_first(0), kMapSize},
        map0b{map_second(0), kMapSize};
    const uint64_t size = image_bytes_for(3);
    ASSERT_EQ(0, format(0, size, {primary}));
    EXPECT_TRUE(region_blank(0, 0)) << "only region 1 is written";
    EXPECT_TRUE(meta_on_disk_matches(0, false, true, false));
    EXPECT_EQ(0, std::memcmp(read_dev(0, kHeadBackup, 512).data(), &image(0).head, 512));
    ASSERT_EQ(0, format(1, size, {map0a, map0b}));
    EXPECT_TRUE(meta_on_disk_matches(1, false, true));
    // No complete region that goes with a written copy, or no copy at all.
    const int eio = QVFS_ERR_SYS * 2 + EIO;
    EXPECT_EQ(eio, format(2, size, {primary, {count_chunk(1, 7), kChunk}}));
    EXPECT_EQ(eio, format(3, size, {map0a, map0b, {current_chunk(1, 15), kChunk}}));
    EXPECT_EQ(eio, format(4, size, {primary, {kHeadBackup, 512}}));
    EXPECT_TRUE(region_blank(4, 0) && region_blank(4, 1));
    // Offline at the first header write: nothing at all is written.
    fault(qvfs::plat::kFaultOffline);
    EXPECT_NE(0, format(5, size));
    EXPECT_TRUE(nothing_written(5));
    EXPECT_EQ(-1, g_astQvDisk[5].fd);
}

TEST_F(FormatTest, OnlineCheckFollowsTheSharedParameter) {
    ready_disk(0, 1);
    fault(qvfs::plat::kFaultOffline);
    // {parameter, online}: 0 switches the check off, values above 1 are ignored.
    for (auto [on, online] : {std::pair{1u, 0}, {0u, 1}, {7u, 1}, {1u, 0}}) {
        EXPECT_EQ(0, df_SetOnlineCheck(on));
        const long hits = qvfs::plat::fault_hits();
        EXPECT_EQ(online, df_IsDiskOnline(g_astQvDisk[0].fd)) << on;
        EXPECT_EQ(online == 0, hits != qvfs::plat::fault_hits()) << "the device is asked only with the check on";
    }
}

// Mode 1 zeroes the first 16 MiB of every block, in 512 KiB pieces: a
// shorter length is rounded down.
TEST_F(FormatTest, ClearsBlockHeads) {
    const std::string path = sbx_.add_disk(0, image_bytes_for(2));
    const uint64_t d = kDataStart, b1 = kDataStart + kBlockSize;
    const uint8_t mark = 0x5A;
    auto stamp = [&](std::initializer_list<uint64_t> offs) {
        for (uint64_t off : offs) write_dev(0, off, &mark, 1);
    };
    auto at = [&](uint64_t off) { return read_dev(0, off, 1)[0]; };
    stamp({d + 0xFFFFFF, d + 0x1000000, b1 + 0x800000});
    ASSERT_EQ(0, df_DiskFormat(path.c_str(), 1, 0));
    EXPECT_EQ(std::make_tuple(0, mark, 0), std::make_tuple(at(d + 0xFFFFFF), at(d + 0x1000000), at(b1 + 0x800000)));
    ASSERT_EQ(0, df_DiskMount(path.c_str()));
    stamp({d, d + 0x17FFFF, d + 0x180000});
    EXPECT_EQ(0, _df_ClearBlockHead(&g_astQvDisk[0], 0, 0x7FFFF));
    EXPECT_EQ(mark, at(d)) << "below one piece nothing is written";
    EXPECT_EQ(0, _df_ClearBlockHead(&g_astQvDisk[0], 0, 0x1FFFFF));  // three pieces, 1.5 MiB
    EXPECT_EQ(std::make_tuple(0, 0, mark), std::make_tuple(at(d), at(d + 0x17FFFF), at(d + 0x180000)));
}

}  // namespace
