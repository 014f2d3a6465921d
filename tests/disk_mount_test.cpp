// Mount and unmount across real processes, the version upgrade, damaged
// images, statfs, and the flush thread acting on sync marks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "common/platform.h"
#include "common/proc_lock.h"
#include "support/child.h"
#include "support/disk_env.h"

namespace {

using namespace qvfs::disk;
using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::image_bytes_for;
using qvfs::test::TestBlockHead;

class MountTest : public qvfs::test::DiskTest {
protected:
    void fault(uint64_t begin, uint64_t end, unsigned ops) {
        qvfs::plat::Fault f;
        f.begin = begin;
        f.end = end;
        f.ops = ops;
        qvfs::plat::fault_add(f);
    }
    void expect_failed_mount(const std::string& path, int disk, int err) {
        errno = 0;
        EXPECT_EQ(-1, df_DiskMount(path.c_str()));
        EXPECT_EQ(err, errno);
        EXPECT_EQ(-1, g_astQvDisk[disk].fd);
        EXPECT_EQ(nullptr, g_astQvDisk[disk].share);
    }
    void patch_head(int disk, uint32_t offset, uint32_t value) {
        for (uint64_t at : {kHeadPrimary, kHeadBackup}) write_dev(disk, at + offset, &value, 4);
    }
    static bool wait_for(const std::function<bool()>& cond, int ms = 8000) {
        for (int i = 0; i < ms / 10; ++i) {
            if (cond()) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return cond();
    }
};

TEST_F(MountTest, UnformattedAndDamagedImagesFailCleanly) {
    const std::string blank = sbx_.add_disk(0, image_bytes_for(2));
    expect_failed_mount(blank, 0, QVFS_ERR_NOTFORMATTED);

    const std::string p = ready_disk(1, 2);
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    patch_head(1, 64, kMaxBlocks + 1);
    expect_failed_mount(p, 1, QVFS_ERR_BADHANDLE);
    patch_head(1, 4, 'X');  // "QVFSX": the magic must end after four letters
    expect_failed_mount(p, 1, QVFS_ERR_NOTFORMATTED);

    // A device cut short behind its header: the status map cannot be read.
    const std::string cut = ready_disk(2, 2);
    ASSERT_EQ(0, df_DiskUnmout(cut.c_str(), 1));
    ASSERT_EQ(0, ::truncate(sbx_.image_path(2).c_str(), map_second(0)));
    expect_failed_mount(cut, 2, QVFS_ERR_SYS);
    // The next mount gets the image again from the pool (the lost regions
    // now read as zeros).
    ASSERT_EQ(0, ::truncate(sbx_.image_path(2).c_str(), image_bytes_for(2)));
    ASSERT_EQ(0, df_DiskMount(cut.c_str()));
    ASSERT_NE(nullptr, g_astQvDisk[2].share);
    EXPECT_EQ(2u, image(2).head.tolblk);
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_DiskMount(nullptr));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_DiskMount("/dev/scsi/host30/part1"));
}

TEST_F(MountTest, UnreadablePrimaryHeaderLoadsRegionOne) {
    const std::string p = ready_disk(0, 3);
    TQvfsOpenParam req = request(p, 5);
    TQvBlkId id{};
    ASSERT_EQ(0, df_GetFileBlkId(&req, &id));
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    // Region 0 says nothing is allocated; only region 1 has the allocation.
    const std::vector<uint8_t> zeros(kMapSize, 0);
    write_dev(0, map_first(0), zeros.data(), kMapSize);
    std::memset(image(0).map, 0, kMapSize);
    fault(kHeadPrimary, kHeadPrimary + 512, qvfs::plat::kFaultRead);
    fault(map_first(1), map_first(1) + kMapSize, qvfs::plat::kFaultRead);
    ASSERT_EQ(0, df_DiskMount(p.c_str())) << errno;
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]);
    EXPECT_EQ(0, image(0).current[0][5]);
    EXPECT_EQ(1, image(0).mapIndex) << "the map came from the second location";
}

TEST_F(MountTest, SecondProcessReadsOnlyTheHeader) {
    const std::string p = ready_disk(0, 2);
    EXPECT_EQ(0, df_DiskMount(p.c_str())) << "mounting twice in one process";
    EXPECT_EQ(1, image(0).mounted);
    EXPECT_EQ(0, image(0).stat);
    EXPECT_EQ(0, df_IsDiskReady(0));
    EXPECT_EQ(uint64_t{kBlockSize}, df_GetDiskUnitSize());
    EXPECT_EQ(2u, df_GetDiskVersion(p.c_str()));
    image(0).map[1] = QV_BLK_BAD;  // in the image only: a reload would lose it

    Child c = Child::spawn([&](ChildLink& link) {
        CHILD_CHECK(link, df_Init() == 0);
        qvfs::plat::Fault f;  // only the two header places may be read
        f.begin = kHeadPrimary + 512;
        f.end = kHeadBackup;
        f.ops = qvfs::plat::kFaultRead;
        qvfs::plat::fault_add(f);
        f.begin = kHeadBackup + 512;
        f.end = UINT64_MAX;
        qvfs::plat::fault_add(f);
        CHILD_CHECK(link, df_DiskMount(p.c_str()) == 0);
        CHILD_CHECK(link, qvfs::plat::fault_hits() == 0);
        CHILD_CHECK(link, g_astQvDisk[0].share->map[1] == QV_BLK_BAD);
        link.send(g_astQvDisk[0].share->mounted);
        int64_t v = 0;
        CHILD_CHECK(link, link.recv(&v));  // parent: unmount plainly
        CHILD_CHECK(link, df_IsDiskReady(0) == 0);
        link.send(1);
        CHILD_CHECK(link, link.recv(&v));  // parent: mounted again, then forced
        CHILD_CHECK(link, df_IsDiskReady(0) == -1);
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
    EXPECT_EQ(0, image(0).mounted);
    EXPECT_EQ(1, image(0).stat);
    c.send(1);
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(0, image(0).mounted) << "a plain unmount never counts below zero";
}

// Version 1 kept no block-count table: the first mount rebuilds it from the
// headers of the blocks in use and writes it, and the version, to the disk.
TEST_F(MountTest, UpgradesAVersionOneDisk) {
    const std::string p = ready_disk(0, 4);
    const struct {
        uint32_t chn;
        int32_t code;
        uint32_t type;
    } uses[] = {{3, 0, 0}, {3, 5, 3}, {700, 0, 0}, {3, 0, 0}};
    for (const auto& u : uses) {
        TQvfsOpenParam req = request(p, u.chn, u.code, 0x7FFFFFFF);  // never reuses
        TQvBlkId id{};
        ASSERT_EQ(0, df_GetFileBlkId(&req, &id));
        TestBlockHead h;
        h.chn = u.chn;
        h.dataType = u.type;
        write_block_head(0, static_cast<uint32_t>(id.block), h);
    }
    ASSERT_EQ(0, df_TagBadBlock(0, 3));  // a bad block is not counted
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    patch_head(0, 8, 1);
    const std::vector<uint8_t> junk(0x10000, 0x77);  // the old count tables
    write_dev(0, count_chunk(0, 15), junk.data(), junk.size());
    write_dev(0, count_chunk(1, 15), junk.data(), junk.size());

    // Region 0 cannot take the rebuilt table: it stays in the image anyway.
    fault(count_chunk(0, 0), count_chunk(0, 0) + kChunk, qvfs::plat::kFaultWrite);
    ASSERT_EQ(0, df_DiskMount(p.c_str())) << errno;
    EXPECT_EQ(2u, image(0).head.ver);
    EXPECT_EQ(1u, image(0).count[0][3]);
    EXPECT_EQ(1u, image(0).count[3][3]);
    EXPECT_EQ(1u, image(0).count[0][700]);
    EXPECT_EQ(0u, image(0).count[0][5]);
    EXPECT_EQ(3, image(0).current[0][3]) << "current tables are read as stored";
    EXPECT_TRUE(meta_on_disk_matches(0, false, true));
    EXPECT_EQ(0x77, read_dev(0, count_chunk(0, 0), 1)[0]);

    // Both regions refusing the table fails the mount.
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    patch_head(0, 8, 0);
    fault(count_chunk(1, 9), count_chunk(1, 9) + kChunk, qvfs::plat::kFaultWrite);
    EXPECT_EQ(-1, df_DiskMount(p.c_str()));
    EXPECT_EQ(-1, g_astQvDisk[0].fd);
}

TEST_F(MountTest, StatfsCountsFreeAndBadBlocks) {
    const std::string p = sbx_.add_disk(0, 2000398934016ull);
    ASSERT_EQ(0, df_DiskFormat(p.c_str(), 0, 0));
    ASSERT_EQ(0, df_DiskMount(p.c_str()));
    for (uint32_t c = 0; c < 10; ++c) {
        TQvfsOpenParam req = request(p, c);
        TQvBlkId id{};
        ASSERT_EQ(0, df_GetFileBlkId(&req, &id));
    }
    ASSERT_EQ(0, df_TagBadBlock(0, 100));
    TQvStatfs st;
    std::memset(&st, 0xEE, sizeof st);
    ASSERT_EQ(0, df_DiskStatfs(p.c_str(), &st));
    EXPECT_EQ(0x51564653u, st.f_type);
    EXPECT_EQ(0, std::memcmp(&st.f_type, "SFVQ", 4));
    EXPECT_EQ(512u, st.f_bsize);
    EXPECT_EQ(3902799872ull, st.f_blocks);
    EXPECT_EQ(3879731200ull, st.f_bfree);
    EXPECT_EQ(3879731200ull, st.f_bavail);
    EXPECT_EQ(1u, st.f_spare[0]);
    EXPECT_EQ(0xEEEEEEEEEEEEEEEEull, st.f_files) << "other fields are left alone";

    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 0));
    errno = 77;
    EXPECT_EQ(-1, df_DiskStatfs(p.c_str(), &st));
    EXPECT_EQ(-1, df_IsDiskReady(0));
    EXPECT_EQ(77, errno) << "errno unchanged";
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_DiskStatfs(p.c_str(), nullptr));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, df_IsDiskReady(9));  // no image
    EXPECT_EQ(1u, df_GetDiskVersion("/dev/scsi/host09/part1"));
}

// Marks of 1 stay 1 and wait for the twentieth pass; a larger mark flushes
// in the next pass. A disk that is ready while this process has closed its
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
    const long before = flush_count(0);
    ASSERT_TRUE(wait_for([&] { return flush_count(0) > before; }));
    EXPECT_EQ(0, g_astQvDisk[0].syncMark);
    // One more full pass for disk 1 to have been seen.
    ASSERT_EQ(0, df_SetSyncMark(0, 2));
    ASSERT_TRUE(wait_for([&] { return flush_count(0) > before + 1; }));
    EXPECT_EQ(0, flush_count(1));
    holder.send(0);
    EXPECT_CHILD_OK(holder);
}

}  // namespace
