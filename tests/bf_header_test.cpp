// Block header and slice entries: acceptance of a header read from disk, the
// two sector writers and their failures, and the debug printers.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "support/bf_env.h"

namespace {

using namespace qvfs::bf;
using qvfs::test::BlockTest;

constexpr uint64_t kUnit = 0x40000000;

TQvBlkInfo header(uint32_t len, uint32_t slice, uint64_t next) {
    TQvBlkInfo h{};
    h.Len = len;
    h.slice = slice;
    h.next = next;
    return h;
}

TEST(BlockHeaderAcceptance, Boundaries) {
    EXPECT_TRUE(header_acceptable(header(0, 0, 0), kUnit)) << "a fresh block";
    EXPECT_FALSE(header_acceptable(header(0, 1, 0), kUnit));
    EXPECT_FALSE(header_acceptable(header(0, 0, 0x1000), kUnit));

    EXPECT_TRUE(header_acceptable(header(0x1000000, 5, 0x1000000), kUnit));
    EXPECT_FALSE(header_acceptable(header(0x1000001, 5, 0x1000000), kUnit));

    EXPECT_TRUE(header_acceptable(header(0x200000, 4095, 0x200000), kUnit));
    EXPECT_FALSE(header_acceptable(header(0x200000, 4096, 0x200000), kUnit));
    EXPECT_TRUE(header_acceptable(header(0x1000000, 32767, 0x1000000), kUnit));
    EXPECT_FALSE(header_acceptable(header(0x1000000, 32768, 0x1000000), kUnit));

    EXPECT_TRUE(header_acceptable(header(0x200000, 1, kUnit), kUnit));
    EXPECT_FALSE(header_acceptable(header(0x200000, 1, kUnit + 1), kUnit));
    // next is compared as unsigned: a huge value is not "negative and small".
    EXPECT_FALSE(header_acceptable(header(0x200000, 1, ~0ull), kUnit));
}

class SectorWriterTest : public BlockTest {
protected:
    void SetUp() override {
        BlockTest::SetUp();
        path_ = ready_disk(2, 2);
        fd_ = qvfs::plat::open_device(path_.c_str(), O_RDWR);
        ASSERT_GE(fd_, 0);
    }
    void TearDown() override {
        if (fd_ >= 0) qvfs::plat::close_fd(fd_);
        BlockTest::TearDown();
    }
    TQvBlkSliceInfo entry(uint64_t id, char fill) {
        TQvBlkSliceInfo s{};
        s.sliceID = id;
        std::memset(s.userData, fill, sizeof s.userData);
        return s;
    }
    std::string path_;
    int fd_ = -1;
};

TEST_F(SectorWriterTest, WritesWholeSectorsAtTheirPlaces) {
    TQvBlkSliceInfo s = entry(3, 'e');
    ASSERT_EQ(0, _bf_WriteSlice(&s, fd_, 2, 1, block_addr(1), 0));
    TQvBlkSliceInfo back = disk_entry(2, 1, 3);
    EXPECT_EQ(0, std::memcmp(&s, &back, sizeof s)) << "entry 3 lies at block offset 1536";
    EXPECT_TRUE(all_zero(read_dev(2, block_addr(1), 1536).data(), 1536)) << "nothing before it";

    TQvBlkInfo h = header(0x200000, 3, 0x200000);
    h.cnt = 3;
    ASSERT_EQ(0, _bf_WriteBlkInfo(&h, fd_, 2, 1, block_addr(1), 0));
    TQvBlkInfo hb = disk_header(2, 1);
    EXPECT_EQ(0, std::memcmp(&h, &hb, sizeof h));
    EXPECT_EQ(qvfs::disk::QV_BLK_FREE, image(2).map[1]) << "a good write reports nothing";
}

TEST_F(SectorWriterTest, RefusesWhenTheDiskIsNotReadyOrOffline) {
    TQvBlkSliceInfo s = entry(2, 'x');
    fault(2, 0, UINT64_MAX, qvfs::plat::kFaultOffline);
    errno = 4242;
    EXPECT_EQ(-1, _bf_WriteSlice(&s, fd_, 2, 0, block_addr(0), 0));
    EXPECT_EQ(4242, errno);
    qvfs::plat::fault_clear();
    EXPECT_TRUE(all_zero(read_dev(2, block_addr(0) + 1024, 512).data(), 512));
    EXPECT_EQ(qvfs::disk::QV_BLK_FREE, image(2).map[0]) << "offline is not the block's fault";

    ASSERT_EQ(0, df_DiskUnmout(path_.c_str(), 1));
    errno = 4242;
    EXPECT_EQ(-1, _bf_WriteSlice(&s, fd_, 2, 0, block_addr(0), 0));
    EXPECT_EQ(4242, errno);
    EXPECT_TRUE(all_zero(read_dev(2, block_addr(0) + 1024, 512).data(), 512));
}

TEST_F(SectorWriterTest, ShortAndFailedWritesReportTheBlockBad) {
    TQvBlkInfo h = header(0x200000, 1, 0x200000);
    // A short write: errno 3000 + 0 (the system reported no error).
    fault(2, block_addr(0), block_addr(0) + 512, qvfs::plat::kFaultWrite, 100, 1);
    EXPECT_EQ(-1, _bf_WriteBlkInfo(&h, fd_, 2, 0, block_addr(0), 0));
    EXPECT_EQ(QVFS_ERR_SYS, errno);
    EXPECT_EQ(qvfs::disk::QV_BLK_BAD, image(2).map[0]);
    EXPECT_EQ(qvfs::disk::QV_BLK_FREE, image(2).map[1]);

    // A failed write: 3000 + EIO, and only the block written to is marked.
    TQvBlkSliceInfo s = entry(1, 'y');
    fault(2, block_addr(1) + 512, block_addr(1) + 1024, qvfs::plat::kFaultWrite);
    EXPECT_EQ(-1, _bf_WriteSlice(&s, fd_, 2, 1, block_addr(1), 0));
    EXPECT_EQ(QVFS_ERR_SYS + EIO, errno);
    EXPECT_EQ(qvfs::disk::QV_BLK_BAD, image(2).map[1]);
}

class PrinterTest : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tz = std::getenv("TZ");
        hadTz_ = tz != nullptr;
        if (hadTz_) oldTz_ = tz;
        setenv("TZ", "UTC", 1);
        tzset();
    }
    void TearDown() override {
        if (hadTz_) setenv("TZ", oldTz_.c_str(), 1);
        else unsetenv("TZ");
        tzset();
    }
    bool hadTz_ = false;
    std::string oldTz_;
};

TEST_F(PrinterTest, HeaderLineWithFullWidthTimes) {
    TQvBlkInfo h{};
    h.Len = 0x200000;
    h.flg = 1;
    h.chn = 7;
    h.dataType = 3;
    h.recType = kRecTypeZero + 1;
    h.lock = kLockZero + 1;
    h.cnt = 2;
    h.slice = 5;
    h.startTime = 0;                // 1970-01-01_00:00:00
    h.endTime = 0x100000000ull;     // beyond 32 bits: 2106-02-07_06:28:16
    h.addr = kAddrMark;
    h.next = 0x203000;
    testing::internal::CaptureStdout();
    int n = bf_PrintTQvBlkInfo(&h);
    std::string out = testing::internal::GetCapturedStdout();
    // A 32-bit time_t (the ARM recorders) cannot hold the end time: its text
    // stays empty, the number is printed all the same.
    const std::string endText = sizeof(time_t) >= 8 ? "2106-02-07_06:28:16" : "";
    EXPECT_EQ(
        "Block. Len=2097152 flg=1 chn=7 dataType=3 recType=0xFFFFFFFFFFFF0001 lock=4294901761 cnt=2 "
        "slice=5 startTime=1970-01-01_00:00:00(0) endTime=" + endText + "(4294967296) "
        "addr=0x200000 next=0x203000\n",
        out);
    EXPECT_EQ(static_cast<int>(out.size()), n);
}

TEST_F(PrinterTest, EntryLineAndTheEntriesItSkips) {
    TQvBlkSliceInfo s{};
    s.sliceID = 9;
    s.chn = 3;
    s.recType = 0x10;
    s.lock = 1;
    s.videoAbstract = 77;
    std::memcpy(s.verify, "1A2B", 4);
    std::memcpy(s.ext, "rvd", 3);
    // A name filling all 16 bytes is printed up to them and no further.
    std::memset(s.preName, 'P', sizeof s.preName);
    std::memset(s.userData, 'U', sizeof s.userData);
    s.startTime = 86400;
    s.endTime = 86401;
    s.dataStart = 0x200000;
    s.dataEnd = 0x40000000;
    s.resStart = 1;
    s.resEnd = 2;
    s.preStart = 3;
    s.preEnd = 4;
    testing::internal::CaptureStdout();
    bf_PrintTQvBlkSliceInfo(&s);
    EXPECT_EQ(
        "sliceID=9 chn=3 recType=0x10 lock=1 videoAbstract=77 verify=1A2B ext=rvd "
        "preName=PPPPPPPPPPPPPPPP startTime=1970-01-02_00:00:00(86400) "
        "endTime=1970-01-02_00:00:01(86401) dataStart=0x200000 dataEnd=0x40000000 resStart=0x1 "
        "resEnd=0x2 preStart=0x3 preEnd=0x4\n",
        testing::internal::GetCapturedStdout());

    for (int which = 0; which < 3; ++which) {
        TQvBlkSliceInfo t = s;
        if (which == 0) t.startTime = 0;
        if (which == 1) t.startTime = 0x80000000ull;
        if (which == 2) t.dataEnd = 0x40000001ull;
        testing::internal::CaptureStdout();
        bf_PrintTQvBlkSliceInfo(&t);
        EXPECT_EQ("", testing::internal::GetCapturedStdout()) << which;
    }
}

}  // namespace
