// Disk device paths and numbers, the block-type tables, the disk characters
// of recording file names and the shared parameter.
#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "common/fsc.h"
#include "common/keys.h"
#include "support/child.h"
#include "support/sandbox.h"

namespace {

using qvfs::test::Child;
using qvfs::test::ChildLink;

TEST(DiskNaming, PathsAndNumbersConvertBothWays) {
    for (uint32_t d = 0; d < QVFS_MAX_DISKS; ++d) {
        char buf[32];
        std::memset(buf, 'x', sizeof buf);
        ASSERT_EQ(0, bf_GetPath(d, buf));
        char want[32];
        std::snprintf(want, sizeof want, "/dev/scsi/host%02u/part1", d);
        EXPECT_STREQ(want, buf);
        EXPECT_LE(std::strlen(buf), 22u);
        EXPECT_EQ(static_cast<int>(d), fsc_GetDiskNumByPath(buf));
    }

    // Refusals leave the buffer alone.
    char buf[32] = "untouched";
    errno = 0;
    EXPECT_EQ(-1, bf_GetPath(25, buf));
    EXPECT_EQ(QVFS_ERR_DISKNUM, errno);
    EXPECT_EQ(-1, bf_GetPath(UINT32_MAX, buf));
    EXPECT_STREQ("untouched", buf);
    errno = 0;
    EXPECT_EQ(-1, bf_GetPath(3, nullptr));
    EXPECT_EQ(0, errno);
}

TEST(DiskNaming, DiskNumberIsTheDigitRunAfterThePrefix) {
    struct { const char* path; int want; } cases[] = {
        {"/dev/scsi/host07/part1", 7},
        {"/dev/scsi/host7", 7},
        {"/mnt/x/dev/scsi/host12/part1", 12},     // the prefix may be anywhere
        {"/dev/scsi/hostab/part1", 0},            // a letter: disk 0
        {"/dev/scsi/host", 0},                    // nothing after the prefix
        {"/dev/scsi/host99/part1", 99},           // not range-checked here
        {"/dev/scsi/host003x", 3},
        {"/dev/scsi/host-1", 0},
        {"/dev/scsi/host01/dev/scsi/host02", 1},  // the first occurrence counts
        {"/dev/scsi/host99999999999999999999", 2147483647},  // saturates
    };
    for (const auto& c : cases) EXPECT_EQ(c.want, fsc_GetDiskNumByPath(c.path)) << c.path;

    for (const char* none : {"", "/dev/sda1", "/dev/scsi/hos07", "dev/scsi/Host07"}) {
        errno = 4242;
        EXPECT_EQ(-1, fsc_GetDiskNumByPath(none)) << none;
        EXPECT_EQ(4242, errno);
    }
    errno = 0;
    EXPECT_EQ(-1, fsc_GetDiskNumByPath(nullptr));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
}

TEST(BlockTypes, FileAndBlockTypesMapThroughTheTables) {
    // File types 2..7 select BACK, IMG, BACK, PIC, FPD, ITS; all others REC.
    const int blk[] = {0, 0, 2, 1, 2, 3, 4, 5};
    for (int ft = 0; ft < 8; ++ft) EXPECT_EQ(blk[ft], fsc_GetBlkType(ft)) << ft;
    for (int ft : {-1, 8, 1000, INT32_MIN, INT32_MAX}) EXPECT_EQ(0, fsc_GetBlkType(ft)) << ft;

    // Back again: every block type names one file type, BACK's is 2.
    for (int ft : {2, 3, 5, 6, 7}) EXPECT_EQ(ft, fsc_BlkType2FileType(fsc_GetBlkType(ft))) << ft;
    EXPECT_EQ(2, fsc_BlkType2FileType(fsc_GetBlkType(4)));
    for (int bt : {0, -1, 6, INT32_MIN, INT32_MAX}) EXPECT_EQ(0, fsc_BlkType2FileType(bt)) << bt;

    // Self-information: 16 MiB for IMG, PIC, FPD and ITS, 2 MiB otherwise.
    for (int bt = -2; bt < 9; ++bt) {
        const bool large = bt == 1 || bt == 3 || bt == 4 || bt == 5;
        EXPECT_EQ(large ? 16 << 20 : 2 << 20, fsc_GetSelfInfoLen(bt)) << bt;
    }
}

TEST(DiskCharacters, DigitsRoundTripAndEveryCharacterIsSafe) {
    for (uint32_t d = 0; d < QVFS_MAX_DISKS; ++d) {
        const uint8_t c = fsc_DiskItoA(d);
        EXPECT_TRUE((c >= '0' && c <= '9') || (c >= 'a' && c <= 'o')) << d;
        EXPECT_EQ(d, fsc_DiskAtoI(c));
        const uint8_t loc = fsc_DiskToLocation(static_cast<int>(d));
        EXPECT_EQ(d, fsc_DiskAtoI(loc) * 24 + fsc_DiskAtoI(c)) << d;
    }
    EXPECT_EQ('o', fsc_DiskItoA(24));
    EXPECT_EQ('?', fsc_DiskItoA(25));
    EXPECT_EQ('?', fsc_DiskItoA(UINT32_MAX));
    EXPECT_EQ(24u, fsc_DiskAtoI('o'));
    EXPECT_EQ(24u, fsc_DiskAtoI('O'));
    EXPECT_EQ(35u, fsc_DiskAtoI('z'));

    // Every character code: letters and digits have their value, all else 0.
    for (int c = -300; c < 600; ++c) {
        const uint32_t v = fsc_DiskAtoI(c);
        const bool alnum = c >= 0 && c < 128 && std::isalnum(c);
        if (!alnum) {
            EXPECT_EQ(0u, v) << c;
        }
        EXPECT_LE(v, 35u) << c;
    }
}

class ParamTest : public qvfs::test::SandboxTest {
protected:
    void SetUp() override { qvfs::pool_reset_process_state(); }
    void TearDown() override { qvfs::pool_reset_process_state(); }
};

TEST_F(ParamTest, TheOnlineCheckByteIsSharedByEveryProcess) {
    uint32_t v = 99;
    errno = 0;
    EXPECT_EQ(-1, fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, 0));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    EXPECT_EQ(-1, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &v));
    EXPECT_EQ(99u, v);

    ASSERT_EQ(0, fsc_ShareInit());
    ASSERT_EQ(0, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &v));
    EXPECT_EQ(1u, v);

    // Unknown parameters: -2, nothing read or written, errno untouched.
    for (int p : {0, 2, -1}) {
        errno = 4242;
        EXPECT_EQ(-2, fsc_SetParam(p, 0)) << p;
        EXPECT_EQ(-2, fsc_GetParam(p, &v)) << p;
        EXPECT_EQ(4242, errno);
    }
    EXPECT_EQ(1u, v);
    EXPECT_EQ(1, g_stQvfsFileList->param1);
    errno = 0;
    EXPECT_EQ(-1, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, nullptr));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);

    // Only the low byte is kept.
    ASSERT_EQ(0, fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, 0x1FE));
    ASSERT_EQ(0, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &v));
    EXPECT_EQ(0xFEu, v);

    // Switched off in one process, off in another one that starts later.
    ASSERT_EQ(0, fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, 0));
    Child c = Child::spawn([&](ChildLink& link) {
        qvfs::pool_reset_process_state();
        CHILD_CHECK(link, fsc_ShareInit() == 0);
        uint32_t seen = 77;
        CHILD_CHECK(link, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &seen) == 0);
        link.send(seen);
        int64_t next = 0;
        CHILD_CHECK(link, link.recv(&next));
        CHILD_CHECK(link, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &seen) == 0);
        link.send(seen);
        return 0;
    });
    EXPECT_TRUE(c.expect(0));
    // ... and a change made later is seen by the running process too.
    ASSERT_EQ(0, fsc_SetParam(QVFS_PARAM_ONLINE_CHECK, 1));
    ASSERT_TRUE(c.send(1));
    EXPECT_TRUE(c.expect(1));
    EXPECT_CHILD_OK(c);
}

}  // namespace
