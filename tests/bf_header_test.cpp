// Block header and slice entries: acceptance of a header read from disk and
// the debug printers. (The sector writers are exercised by every create,
// sync and delete in the other block-file tests.)
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <tuple>
#include <utility>

#include "blockfile/bf.h"

namespace {

using namespace qvfs::bf;

TEST(BlockHeaderAcceptance, Boundaries) {
    constexpr uint64_t kUnit = 0x40000000;
    // A fresh (all-zero) header; Len up to 16 MiB; slice below Len / 512;
    // next up to the unit, compared unsigned.
    const struct { uint32_t len, slice; uint64_t next; bool ok; } cases[] = {
        {0, 0, 0, true}, {0, 1, 0, false}, {0, 0, 0x1000, false},
        {0x1000000, 5, 0x1000000, true}, {0x1000001, 5, 0x1000000, false},
        {0x200000, 4095, 0x200000, true}, {0x200000, 4096, 0x200000, false},
        {0x1000000, 32767, 0x1000000, true}, {0x1000000, 32768, 0x1000000, false},
        {0x200000, 1, kUnit, true}, {0x200000, 1, kUnit + 1, false}, {0x200000, 1, ~0ull, false},
    };
    for (const auto& c : cases) {
        TQvBlkInfo h{};
        std::tie(h.Len, h.slice, h.next) = std::tie(c.len, c.slice, c.next);
        EXPECT_EQ(c.ok, header_acceptable(h, kUnit)) << std::hex << c.len << " " << c.slice << " " << c.next;
    }
}

// Runs a printer with the times in UTC and returns what it printed.
template <class Print>
std::string printed(Print print) {
    setenv("TZ", "UTC", 1);
    tzset();
    testing::internal::CaptureStdout();
    print();
    return testing::internal::GetCapturedStdout();
}

TEST(PrinterTest, HeaderLineWithFullWidthTimes) {
    const TQvBlkInfo h{.Len = 0x200000, .flg = 1, .startTime = 0, .endTime = 0x100000000ull, .chn = 7,
                       .dataType = 3, .recType = kRecTypeZero + 1, .lock = kLockZero + 1, .cnt = 2,
                       .addr = kAddrMark, .next = 0x203000, .slice = 5, .reserved = {}};
    int n = 0;
    const std::string out = printed([&] { n = bf_PrintTQvBlkInfo(&h); });
    // A 32-bit time_t (the ARM recorders) cannot hold the end time: its text
    // stays empty, the number is printed all the same.
    const std::string endText = sizeof(time_t) >= 8 ? "2106-02-07_06:28:16" : "";
    EXPECT_EQ("Block. Len=2097152 flg=1 chn=7 dataType=3 recType=0xFFFFFFFFFFFF0001 lock=4294901761 cnt=2 "
              "slice=5 startTime=1970-01-01_00:00:00(0) endTime=" + endText + "(4294967296) "
              "addr=0x200000 next=0x203000\n",
              out);
    EXPECT_EQ(static_cast<int>(out.size()), n);
}

TEST(PrinterTest, EntryLineAndTheEntriesItSkips) {
    TQvBlkSliceInfo s{.sliceID = 9, .magic = {}, .verify = {'1', 'A', '2', 'B'}, .ext = "rvd", .chn = 3,
                      .lock = 1, .startTime = 86400, .endTime = 86401, .recType = 0x10, .resStart = 1,
                      .resEnd = 2, .preStart = 3, .preEnd = 4, .dataStart = 0x200000, .dataEnd = 0x40000000,
                      .usrParam = {}, .preName = {}, .videoAbstract = 77, .userData = {}};
    // A name filling all 16 bytes is printed up to them and no further.
    std::memset(s.preName, 'P', sizeof s.preName);
    std::memset(s.userData, 'U', sizeof s.userData);
    EXPECT_EQ("sliceID=9 chn=3 recType=0x10 lock=1 videoAbstract=77 verify=1A2B ext=rvd "
              "preName=PPPPPPPPPPPPPPPP startTime=1970-01-02_00:00:00(86400) "
              "endTime=1970-01-02_00:00:01(86401) dataStart=0x200000 dataEnd=0x40000000 resStart=0x1 "
              "resEnd=0x2 preStart=0x3 preEnd=0x4\n",
              printed([&] { bf_PrintTQvBlkSliceInfo(&s); }));
    // No start time, one at 2^31 or later, or data beyond the unit: skipped.
    const std::pair<uint64_t TQvBlkSliceInfo::*, uint64_t> skips[] = {
        {&TQvBlkSliceInfo::startTime, 0}, {&TQvBlkSliceInfo::startTime, 0x80000000ull},
        {&TQvBlkSliceInfo::dataEnd, 0x40000001ull}};
    for (auto [field, value] : skips) {
        TQvBlkSliceInfo t = s;
        t.*field = value;
        EXPECT_EQ("", printed([&] { bf_PrintTQvBlkSliceInfo(&t); })) << std::hex << value;
    }
}

}  // namespace
