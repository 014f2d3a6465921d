// Disk device paths and numbers, the block-type tables, the disk characters
// of recording file names and the shared parameter.
#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/fsc.h"
#include "common/keys.h"
#include "support/child.h"
#include "support/sandbox.h"

namespace {

using qvfs::test::Child;
using qvfs::test::ChildLink;

TEST(Naming, DevicePathsAndDiskNumbersConvertBothWays) {
    char buf[32], want[32];
    for (uint32_t d = 0; d < QVFS_MAX_DISKS; ++d) {
        ASSERT_EQ(0, bf_GetPath(d, buf));
        std::snprintf(want, sizeof want, "/dev/scsi/host%02u/part1", d);
        EXPECT_STREQ(want, buf);
        EXPECT_EQ(static_cast<int>(d), fsc_GetDiskNumByPath(buf));
    }
    std::strcpy(buf, "untouched");
    EXPECT_EQ(-1, bf_GetPath(25, buf));
    EXPECT_EQ(QVFS_ERR_DISKNUM, errno);
    EXPECT_STREQ("untouched", buf);
    EXPECT_EQ(-1, bf_GetPath(3, nullptr));

    struct { const char* path; int want; } cases[] = {
        {"/mnt/x/dev/scsi/host12/part1", 12},     // the prefix may be anywhere
        {"/dev/scsi/hostab/part1", 0},            // no digit: disk 0
        {"/dev/scsi/host99/part1", 99},           // not range-checked here
        {"/dev/scsi/host003x", 3},
        {"/dev/scsi/host01/dev/scsi/host02", 1},  // the first occurrence counts
        {"/dev/scsi/host99999999999999999999", 2147483647},  // saturates, no overflow
    };
    for (const auto& c : cases) EXPECT_EQ(c.want, fsc_GetDiskNumByPath(c.path)) << c.path;
    for (const char* none : {"", "/dev/sda1", "/dev/scsi/Host07"}) {
        errno = 4242;
        EXPECT_EQ(-1, fsc_GetDiskNumByPath(none)) << none;
        EXPECT_EQ(4242, errno);
    }
    EXPECT_EQ(-1, fsc_GetDiskNumByPath(nullptr));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
}

TEST(Naming, BlockTypesAndDiskCharacters) {
    const int blk[] = {0, 0, 2, 1, 2, 3, 4, 5};
    for (int ft = 0; ft < 8; ++ft) EXPECT_EQ(blk[ft], fsc_GetBlkType(ft)) << ft;
    for (int ft : {-1, 8, INT32_MIN, INT32_MAX}) EXPECT_EQ(0, fsc_GetBlkType(ft)) << ft;
    for (int ft : {2, 3, 5, 6, 7}) EXPECT_EQ(ft, fsc_BlkType2FileType(fsc_GetBlkType(ft))) << ft;
    EXPECT_EQ(2, fsc_BlkType2FileType(fsc_GetBlkType(4)));
    for (int bt : {0, -1, 6, INT32_MIN}) EXPECT_EQ(0, fsc_BlkType2FileType(bt)) << bt;
    for (int bt = -2; bt < 9; ++bt) {
        const bool large = bt == 1 || bt == 3 || bt == 4 || bt == 5;
        EXPECT_EQ(large ? 16 << 20 : 2 << 20, fsc_GetSelfInfoLen(bt)) << bt;
    }

    // Every disk's (location, digit) pair reads back as the disk.
    for (uint32_t d = 0; d < QVFS_MAX_DISKS; ++d) {
        const uint8_t c = fsc_DiskItoA(d);
        EXPECT_TRUE(std::isdigit(c) || (c >= 'a' && c <= 'o')) << d;
        EXPECT_EQ(d, fsc_DiskAtoI(fsc_DiskToLocation(static_cast<int>(d))) * 24 + fsc_DiskAtoI(c));
    }
    EXPECT_EQ('o', fsc_DiskItoA(24));
    EXPECT_EQ('?', fsc_DiskItoA(25));
    EXPECT_EQ(24u, fsc_DiskAtoI('O'));
    EXPECT_EQ(35u, fsc_DiskAtoI('z'));
    for (int c = -300; c < 600; ++c) {
        if (c < 0 || c > 127 || !std::isalnum(c)) {
            EXPECT_EQ(0u, fsc_DiskAtoI(c)) << c;
        }
    }
}

class ParamTest : public qvfs::test::SandboxTest {
protected:
    void SetUp() override { qvfs::pool_reset_process_state(); }
    void TearDown() override { qvfs::pool_reset_process_state(); }
};

TEST_F(ParamTest, TheOnlineCheckByteIsSharedByEveryProcess) {
    uint32_t v = 99;
    EXPECT_EQ(-1, fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, 0));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    EXPECT_EQ(-1, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &v));
    EXPECT_EQ(99u, v);

    ASSERT_EQ(0, fsc_ShareInit());
    for (int p : {0, 2, -1}) {
        errno = 4242;
        EXPECT_EQ(-2, fsc_SetParam(p, 0)) << p;
        EXPECT_EQ(-2, fsc_GetParam(p, &v)) << p;
        EXPECT_EQ(4242, errno);
    }
    EXPECT_EQ(-1, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, nullptr));
    ASSERT_EQ(0, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &v));
    EXPECT_EQ(1u, v);
    ASSERT_EQ(0, fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, 0x1FE));  // the low byte only
    ASSERT_EQ(0, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &v));
    EXPECT_EQ(0xFEu, v);

    // Switched off here: off in a process that starts later; switched on
    // again: seen by that running process.
    ASSERT_EQ(0, fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, 0));
    Child c = Child::spawn([&](ChildLink& link) {
        qvfs::pool_reset_process_state();
        CHILD_CHECK(link, fsc_ShareInit() == 0);
        uint32_t seen = 77;
        int64_t next = 0;
        CHILD_CHECK(link, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &seen) == 0);
        link.send(seen);
        CHILD_CHECK(link, link.recv(&next));
        CHILD_CHECK(link, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &seen) == 0);
        link.send(seen);
        return 0;
    });
    EXPECT_TRUE(c.expect(0));
    ASSERT_EQ(0, fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, 1));
    ASSERT_TRUE(c.send(1));
    EXPECT_TRUE(c.expect(1));
    EXPECT_CHILD_OK(c);
}

}  // namespace
