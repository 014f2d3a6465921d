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
    char buf[32] = "untouched", want[32];
    EXPECT_EQ(-1, bf_GetPath(25, buf));
    EXPECT_EQ(QVFS_ERR_DISKNUM, errno);
    EXPECT_STREQ("untouched", buf);
    EXPECT_EQ(-1, bf_GetPath(3, nullptr));
    for (uint32_t d = 0; d < QVFS_MAX_DISKS; ++d) {
        ASSERT_EQ(0, bf_GetPath(d, buf));
        std::snprintf(want, sizeof want, "/dev/scsi/host%02u/part1", d);
        EXPECT_STREQ(want, buf);
        EXPECT_EQ(static_cast<int>(d), fsc_GetDiskNumByPath(buf));
    }

    const struct { const char* path; int want; } cases[] = {
        {"/mnt/x/dev/scsi/host12/part1", 12},                // the prefix may be anywhere
        {"/dev/scsi/hostab/part1", 0},                       // no digit: disk 0
        {"/dev/scsi/host99/part1", 99},                      // not range-checked here
        {"/dev/scsi/host01/dev/scsi/host02", 1},             // the first occurrence counts
        {"/dev/scsi/host99999999999999999999", 2147483647},  // saturates, no overflow
        {"", -1}, {"/dev/sda1", -1}, {"/dev/scsi/Host07", -1},  // no prefix: -1, errno kept
    };
    for (const auto& c : cases) {
        errno = 4242;
        EXPECT_EQ(c.want, fsc_GetDiskNumByPath(c.path)) << c.path;
        EXPECT_EQ(4242, errno) << c.path;
    }
    EXPECT_EQ(-1, fsc_GetDiskNumByPath(nullptr));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
}

TEST(Naming, BlockTypesAndDiskCharacters) {
    // File type -> block type, and back; out of range reads 0.
    const int blk[] = {0, 0, 2, 1, 2, 3, 4, 5}, back[] = {0, 3, 2, 5, 6, 7};
    for (int ft = -1; ft <= 8; ++ft) EXPECT_EQ(ft < 0 || ft > 7 ? 0 : blk[ft], fsc_GetBlkType(ft)) << ft;
    for (int bt = -1; bt <= 6; ++bt)
        EXPECT_EQ(bt < 1 || bt > 5 ? 0 : back[bt], fsc_BlkType2FileType(bt)) << bt;
    for (int x : {INT32_MIN, INT32_MAX}) EXPECT_TRUE(fsc_GetBlkType(x) == 0 && fsc_BlkType2FileType(x) == 0) << x;
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
    EXPECT_EQ('?', fsc_DiskItoA(25));
    // Characters read as base-36 digits in either case; anything else is 0.
    for (int c = -300; c < 600; ++c) {
        const bool alnum = c >= 0 && c < 128 && std::isalnum(c);
        EXPECT_EQ(!alnum ? 0 : std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10, int(fsc_DiskAtoI(c))) << c;
    }
}

class ParamTest : public qvfs::test::SandboxTest {
protected:
    void SetUp() override { qvfs::pool_reset_process_state(); }
    void TearDown() override { qvfs::pool_reset_process_state(); }
};

TEST_F(ParamTest, TheOnlineCheckByteIsSharedByEveryProcess) {
    uint32_t v = 99;
    EXPECT_EQ(-1, fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, 0));  // nothing attached
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
        CHILD_CHECK(link, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &seen) == 0 && link.send(seen));
        CHILD_CHECK(link, link.recv(&next));
        CHILD_CHECK(link, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &seen) == 0 && link.send(seen));
        return 0;
    });
    EXPECT_TRUE(c.expect(0));
    ASSERT_EQ(0, fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, 1));
    ASSERT_TRUE(c.send(1));
    EXPECT_TRUE(c.expect(1));
    EXPECT_CHILD_OK(c);
}

}  // namespace
