// Mount and unmount across real processes, the version upgrade, damaged
// images, statfs, and the flush thread acting on sync marks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>
#include <tuple>

#include "common/proc_lock.h"
#include "support/child.h"
#include "support/disk_env.h"

namespace {

using namespace qvfs::disk;
using namespace qvfs::test;
using qvfs::plat::kFaultRead;
using qvfs::plat::kFaultWrite;

class MountTest : public DiskTest {
protected:
    void expect_failed_mount(const std::string& path, int disk, int err) {
        EXPECT_ERR(-1, err, df_DiskMount(path.c_str()));
        EXPECT_EQ(-1, g_astQvDisk[disk].fd) << "the descriptor is closed again";
        EXPECT_EQ(nullptr, g_astQvDisk[disk].share);
    }
    void patch_head(int disk, uint32_t offset, uint32_t value) {
        for (uint64_t at : {kHeadPrimary, kHeadBackup}) write_dev(disk, at + offset, &value, 4);
    }
};

TEST_F(MountTest, DamagedImagesFailCleanlyAndUnreadableCopiesAreSkipped) {
    for (const char* p : {static_cast<const char*>(nullptr), "/dev/scsi/host30/part1"})
        EXPECT_ERR(-1, QVFS_ERR_BADARG, df_DiskMount(p));
    expect_failed_mount(sbx_.add_disk(0, image_bytes_for(2)), 0, QVFS_ERR_NOTFORMATTED);
    const std::string p = ready_disk(1, 2);
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    patch_head(1, 64, kMaxBlocks + 1);  // tolblk
    expect_failed_mount(p, 1, QVFS_ERR_DAMAGED);
    patch_head(1, 4, 'X');  // "QVFSX": the magic must end after four letters
    expect_failed_mount(p, 1, QVFS_ERR_NOTFORMATTED);

    // A device cut short behind its header: shorter than the header says.
    const std::string cut = ready_disk(2, 2);
    ASSERT_EQ(0, df_DiskUnmout(cut.c_str(), 1));
    ASSERT_EQ(0, ::truncate(sbx_.image_path(2).c_str(), map_second(0)));
    expect_failed_mount(cut, 2, QVFS_ERR_DAMAGED);
    // The next mount gets the image again from the pool.
    ASSERT_EQ(0, ::truncate(sbx_.image_path(2).c_str(), image_bytes_for(2)));
    ASSERT_EQ(0, df_DiskMount(cut.c_str()));
    EXPECT_EQ(2u, image(2).head.tolblk);

    // An unreadable primary header: region 1 is loaded (here the only one
    // that records an allocation), its map from the second location.
    const std::string p3 = ready_disk(3, 3);
    ASSERT_EQ(0, alloc(3, 5));
    ASSERT_EQ(0, df_DiskUnmout(p3.c_str(), 1));
    const std::vector<uint8_t> zeros(kMapSize, 0);
    write_dev(3, map_first(0), zeros.data(), kMapSize);
    std::memset(image(3).map, 0, kMapSize);
    fault(kFaultRead, kHeadPrimary, 512);
    fault(kFaultRead, map_first(1), kMapSize);
    ASSERT_EQ(0, df_DiskMount(p3.c_str())) << errno;
    const TQvDiskShare& s = image(3);
    EXPECT_EQ(std::make_tuple(QV_BLK_USED, 0, 1), std::make_tuple(s.map[0], s.current[0][5], s.mapIndex));
}

TEST_F(MountTest, SecondProcessReadsOnlyTheHeader) {
    const std::string p = ready_disk(0, 2);
    EXPECT_EQ(0, df_DiskMount(p.c_str())) << "mounting twice in one process";
    EXPECT_EQ(std::make_tuple(1, 0, 0), std::make_tuple(image(0).mounted, image(0).stat, df_IsDiskReady(0)));
    image(0).map[1] = QV_BLK_BAD;  // in the image only: a reload would lose it

    Child c = Child::spawn([&](ChildLink& link) {
        CHILD_CHECK(link, df_Init() == 0);
        fault(kFaultRead, kHeadPrimary + 512, kHeadBackup - kHeadPrimary - 512);  // only the headers may be read
        fault(kFaultRead, kHeadBackup + 512);
        CHILD_CHECK(link, df_DiskMount(p.c_str()) == 0 && qvfs::plat::fault_hits() == 0);
        CHILD_CHECK(link, g_astQvDisk[0].share->map[1] == QV_BLK_BAD);
        link.send(g_astQvDisk[0].share->mounted);
        int64_t v = 0;
        CHILD_CHECK(link, link.recv(&v) && df_IsDiskReady(0) == 0);  // after the parent's plain unmount
        link.send(1);
        CHILD_CHECK(link, link.recv(&v) && df_IsDiskReady(0) == -1);  // after the forced one
        CHILD_CHECK(link, g_astQvDisk[0].fd >= 0);  // kept until its own unmount
        CHILD_CHECK(link, df_DiskUnmout(p.c_str(), 0) == 0 && g_astQvDisk[0].fd == -1);
        return 0;
    });
    ASSERT_TRUE(c.expect(2));
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 0));
    EXPECT_EQ(-1, g_astQvDisk[0].fd);
    EXPECT_EQ(1, image(0).mounted);
    EXPECT_EQ(0, df_IsDiskReady(0)) << "still mounted by the other process";
    c.send(1);
    ASSERT_TRUE(c.expect(1));
    ASSERT_EQ(0, df_DiskMount(p.c_str()));
    EXPECT_EQ(2, image(0).mounted);
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    EXPECT_EQ(std::make_tuple(0, 1), std::make_tuple(image(0).mounted, image(0).stat));
    c.send(1);
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(0, image(0).mounted) << "a plain unmount never counts below zero";
}

// Version 1 kept no block-count table: the first mount rebuilds it from the
// headers of the blocks in use and writes it, and the version, to the disk.
TEST_F(MountTest, UpgradesAVersionOneDisk) {
    const std::string p = ready_disk(0, 4);
    const struct { uint32_t chn; int32_t code; uint32_t type; } uses[] = {{3, 0, 0}, {3, 5, 3}, {700, 0, 0}, {3, 0, 0}};
    for (auto [chn, code, type] : uses) new_block(0, chn, code, {.dataType = type});
    ASSERT_EQ(0, df_TagBadBlock(0, 3));  // a bad block is not counted
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    patch_head(0, 8, 1);
    const std::vector<uint8_t> junk(0x10000, 0x77);  // the old count tables
    write_dev(0, count_chunk(0, 15), junk.data(), junk.size());
    write_dev(0, count_chunk(1, 15), junk.data(), junk.size());

    // Region 0 cannot take the rebuilt table: it stays in the image anyway.
    fault(kFaultWrite, count_chunk(0, 0), kChunk);
    ASSERT_EQ(0, df_DiskMount(p.c_str())) << errno;
    EXPECT_EQ(2u, df_GetDiskVersion(p.c_str()));
    const auto& n = image(0).count;
    EXPECT_EQ(std::make_tuple(1u, 1u, 1u, 0u), std::make_tuple(n[0][3], n[3][3], n[0][700], n[0][5]));
    EXPECT_EQ(3, image(0).current[0][3]) << "current tables are read as stored";
    EXPECT_TRUE(meta_on_disk_matches(0, false, true));
    EXPECT_EQ(0x77, read_dev(0, count_chunk(0, 0), 1)[0]);

    // Both regions refusing the table fails the mount.
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    patch_head(0, 8, 0);
    fault(kFaultWrite, count_chunk(1, 9), kChunk);
    EXPECT_EQ(-1, df_DiskMount(p.c_str()));
    EXPECT_EQ(-1, g_astQvDisk[0].fd);
}

TEST_F(MountTest, StatfsCountsFreeAndBadBlocks) {
    const std::string p = sbx_.add_disk(0, 2000398934016ull);
    ASSERT_EQ(0, df_DiskFormat(p.c_str(), 0, 0));
    ASSERT_EQ(0, df_DiskMount(p.c_str()));
    for (uint32_t c = 0; c < 10; ++c) ASSERT_EQ(static_cast<int32_t>(c), alloc(0, c));
    ASSERT_EQ(0, df_TagBadBlock(0, 100));
    TQvStatfs st;
    std::memset(&st, 0xEE, sizeof st);
    ASSERT_EQ(0, df_DiskStatfs(p.c_str(), &st));
    EXPECT_EQ(std::make_tuple(0x51564653u, 512u, uint64_t{3902799872}, uint64_t{3879731200}, uint64_t{3879731200}, 1u),
              std::make_tuple(st.f_type, st.f_bsize, st.f_blocks, st.f_bfree, st.f_bavail, st.f_spare[0]));
    EXPECT_EQ(0xEEEEEEEEEEEEEEEEull, st.f_files) << "other fields are left alone";

    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 0));
    errno = 77;
    EXPECT_EQ(-1, df_DiskStatfs(p.c_str(), &st));
    EXPECT_EQ(-1, df_IsDiskReady(0));
    EXPECT_EQ(77, errno) << "a disk that is not ready: errno unchanged";
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_DiskStatfs(p.c_str(), nullptr));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_IsDiskReady(9));  // no image
    EXPECT_EQ(1u, df_GetDiskVersion("/dev/scsi/host09/part1"));
}

// Marks of 1 stay 1, larger ones add up; a marked disk is flushed by the
// next pass. A disk that is ready while this process has closed its
// descriptor is passed over.
TEST_F(MountTest, FlushThreadTurnsMarksIntoFlushes) {
    const std::string p0 = ready_disk(0, 1);
    const std::string p1 = ready_disk(1, 1);
    Child holder = Child::spawn([&](ChildLink& link) {
        CHILD_CHECK(link, df_Init() == 0 && df_DiskMount(p1.c_str()) == 0);
        link.send(1);
        int64_t v;
        link.recv(&v, 60000);
        return 0;
    });
    ASSERT_TRUE(holder.expect(1));
    ASSERT_EQ(0, df_DiskUnmout(p1.c_str(), 0));  // disk 1 stays ready, our fd is closed
    const long disk1Flushes = flush_count(1);       // the unmount's own flush
    {
        qvfs::ProcLockGuard pass(g_tTimerMutex);  // hold the flush thread off
        for (int i = 0; i < 3; ++i) ASSERT_EQ(0, df_SetSyncMark(0, 1));
        EXPECT_EQ(1, g_astQvDisk[0].syncMark);
        ASSERT_EQ(0, df_SetSyncMark(0, 2));
        ASSERT_EQ(0, df_SetSyncMark(0, 1));
        EXPECT_EQ(3, g_astQvDisk[0].syncMark);
        ASSERT_EQ(0, df_SetSyncMark(1, 5));
    }
    EXPECT_EQ(-1, df_SetSyncMark(25, 1));
    // Waits (at most 8 s) for disk 0's flush count to pass `n`.
    auto flushed_past = [](long n) {
        for (int i = 0; i < 800 && flush_count(0) <= n; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return flush_count(0) > n;
    };
    const long before = flush_count(0);
    ASSERT_TRUE(flushed_past(before));
    EXPECT_EQ(0, g_astQvDisk[0].syncMark);
    // One more full pass for disk 1 to have been seen.
    ASSERT_EQ(0, df_SetSyncMark(0, 2));
    ASSERT_TRUE(flushed_past(before + 1));
    EXPECT_EQ(disk1Flushes, flush_count(1));
    holder.send(0);
    EXPECT_CHILD_OK(holder);
}

}  // namespace
