// The public handle table and the stream calls, and the library's start and
// stop: handle values and generations, stale and foreign handles, access
// bits, zero-length and null arguments, seek and end-of-file rules, the
// table limit, the pre-record calls, the dump, options and qvfs_DeInit.
#include <gtest/gtest.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "api/handle_table.h"
#include "disk/df.h"
#include "file/tf.h"
#include "support/api_env.h"
#include "support/disk_env.h"

namespace {

using qvfs::test::ApiTest;
using qvfs::test::pattern;

class ApiHandles : public ApiTest {
protected:
    // Every call on a handle that must be refused without touching errno.
    static void expect_refused_quietly(int h) {
        char buf[16] = {};
        TQvFileStat st;
        errno = 4242;
        EXPECT_EQ(-1, qvfs_Read(h, buf, sizeof buf));
        EXPECT_EQ(-1, qvfs_Write(h, buf, sizeof buf));
        iovec iov{buf, sizeof buf};
        EXPECT_EQ(-1, qvfs_Writev(h, &iov, 1));
        EXPECT_EQ(-1, qvfs_Seek(h, 0, 0));
        EXPECT_EQ(-1, qvfs_Tell(h));
        EXPECT_EQ(-1, qvfs_Eof(h));
        EXPECT_EQ(-1, qvfs_fsync(h));
        EXPECT_EQ(-1, qvfs_ftruncate(h, 0));
        EXPECT_EQ(-1, qvfs_UpdataePreRecPtr(h, 0, 0));
        EXPECT_EQ(-1, qvfs_fstat(h, &st));
        EXPECT_EQ(0, qvfs_error(h));
        EXPECT_EQ(0, qvfs_Close(h));
        EXPECT_EQ(4242, errno);
    }
};

// Runs first in its own process: nothing has called qvfs_Init.
TEST(ApiBeforeInit, EveryCallButTheExemptOnesFailsWithNotInitialised) {
    char buf[64] = "/dev/scsi/host00/part1";
    TQvfsOpenParam p{};
    TQvFileStat st{};
    TQvStatfs sf{};
    TQvDiskBlkInfo bi{};
    TQvBlkSegQuery q{};
    TQvFileInfo item{buf, sizeof buf};
    TimeValue tv[2] = {};
    iovec iov{buf, 4};
    // Each call must return -1 and leave errno -1010.
    auto check = [&](const char* name, long long r) {
        EXPECT_EQ(-1, r) << name;
        EXPECT_EQ(QVFS_ERR_NOTINIT, errno) << name;
        errno = 0;
    };
    errno = 0;
    check("OpenV2", qvfs_OpenV2(&p, buf, 2));
    check("Open", qvfs_Open(nullptr, buf, 0));
    check("Read", qvfs_Read(0, buf, 4));
    check("Read 0 bytes", qvfs_Read(0, buf, 0));
    check("Write", qvfs_Write(0, buf, 4));
    check("Writev", qvfs_Writev(0, &iov, 1));
    check("Seek", qvfs_Seek(0, 0, 0));
    check("Tell", qvfs_Tell(0));
    check("Eof", qvfs_Eof(0));
    check("fsync", qvfs_fsync(0));
    check("ftruncate", qvfs_ftruncate(0, 0));
    check("UpdataePreRecPtr", qvfs_UpdataePreRecPtr(0, 0, 0));
    check("Close", qvfs_Close(0));
    check("GetDebugInfo", qvfs_GetDebugInfo(buf, 4096));
    check("SetOpt", qvfs_SetOpt(1));
    check("error", qvfs_error(0));
    check("Stat", qvfs_Stat(buf, &st));
    check("fstat", qvfs_fstat(0, &st));
    check("Lock", qvfs_Lock(buf, 1));
    check("ChangeCreateTime", qvfs_ChangeCreateTime(buf, tv[0]));
    check("ChangeTime", qvfs_ChangeTime(buf, tv));
    check("ChangeRecType", qvfs_ChangeRecType(buf, 1));
    check("SetUsrParam", qvfs_SetUsrParam(buf, buf, 4));
    check("GetFileInfo", qvfs_GetFileInfo(buf, 1, &item, 1));
    check("SetFileInfo", qvfs_SetFileInfo(buf, 2, &item, 1));
    check("Unlink", qvfs_Unlink(buf));
    check("Format", qvfs_Format(buf));
    check("FormatEx", qvfs_FormatEx(buf, 1));
    check("FormatMini", qvfs_FormatMini(buf, 1ull << 31));
    check("Mount", qvfs_Mount(buf));
    check("UnMount", qvfs_UnMount(buf));
    check("UnMount_V2", qvfs_UnMount_V2(buf));
    check("Statfs", qvfs_Statfs(buf, &sf));
    check("GetUsedBlockNum", qvfs_GetUsedBlockNum(buf));
    check("GetBlockInfo", qvfs_GetBlockInfo(buf, &bi, 1));
    check("GetUsedInBlockId", qvfs_GetUsedInBlockId(buf, 0, 0));
    check("GetUsedSizeOfDataType", qvfs_GetUsedSizeOfDataType(buf, 0, 0));
    check("TagBadUnit", qvfs_TagBadUnit(buf, 0, 512));
    check("BlockStat", qvfs_BlockStat(buf, 0, &st, 1));
    check("BlockStatSeg", qvfs_BlockStatSeg(&q));
    check("GetFileNum", qvfs_GetFileNum(buf, 0));

    // The block calls do not test the flag: they fail in the layer instead
    // (no disk is known to this process).
    QvfsBlockStat bs;
    std::memset(&bs, 0xAB, sizeof bs);
    errno = 0;
    EXPECT_EQ(-1, qvfs_BlockUnlink(0, 0));
    EXPECT_NE(QVFS_ERR_NOTINIT, errno);
    EXPECT_NE(0, qvfs_GetBlockStat(0, 0, &bs));
    EXPECT_NE(QVFS_ERR_NOTINIT, errno);
    EXPECT_EQ(0xABABABABu, bs.state) << "a failed block status leaves the record alone";
    // DeInit before Init does nothing (and must not crash).
    qvfs_DeInit();
    EXPECT_STREQ("SVN_VERSION:106294    END", g_pcSvnVersion);
}

TEST_F(ApiHandles, HandleValuesCarrySlotAndGeneration) {
    std::string name;
    const int first = create(&name);
    EXPECT_EQ(0, first);
    // Slot 0 busy: slot 1, generation 1.
    const int second = open_name(name);
    EXPECT_EQ(0x10001, second);
    EXPECT_EQ(0, qvfs_Close(first));
    // The lowest free slot is taken again, with the next generation.
    const int third = open_name(name);
    EXPECT_EQ(0x20000, third);
    expect_refused_quietly(first);  // same slot, older generation
    EXPECT_EQ(0, qvfs_Tell(third));
    EXPECT_EQ(0, qvfs_Close(second));
    EXPECT_EQ(0, qvfs_Close(third));
}

TEST_F(ApiHandles, GenerationsWrapAfter4096Handles) {
    std::string name;
    const int keep = create(&name);  // handle 0, generation 0; keeps the file loaded
    ASSERT_EQ(0, keep);
    int h = -1;
    for (int n = 1; n <= 4096; ++n) {
        h = open_name(name);
        ASSERT_EQ((n % 4096) << 16 | 1, h) << "handle number " << n;
        ASSERT_EQ(0, qvfs_Close(h));
    }
    // The 4097th handle reuses generation 1 in slot 1: the value of handle 1,
    // long closed, is valid again (a stale value is told apart only while
    // fewer than 4096 handles were made in between).
    EXPECT_EQ(0x10001, open_name(name));
    EXPECT_EQ(0, qvfs_Tell(0x10001));
    EXPECT_EQ(0, qvfs_Close(0x10001));
    EXPECT_EQ(0, qvfs_Close(keep));
}

TEST_F(ApiHandles, InvalidHandlesTouchNothing) {
    std::string name;
    const int h = create(&name);
    ASSERT_EQ(0, h);
    const char data[] = "0123456789";
    ASSERT_EQ(10, qvfs_Write(h, data, 10));

    expect_refused_quietly(h | 0x10000);  // a generation that never existed
    expect_refused_quietly(7);            // an empty slot
    expect_refused_quietly(0x3FF);        // the last slot
    expect_refused_quietly(0x400);        // slot 1024: beyond the table
    expect_refused_quietly(0xFFFF);

    // Negative handles: 1002; -1 from the calls, 0 from close and error.
    char buf[4];
    errno = 0;
    EXPECT_EQ(-1, qvfs_Read(-1, buf, 4));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    errno = 0;
    EXPECT_EQ(-1, qvfs_Seek(-3, 0, 0));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    errno = 0;
    EXPECT_EQ(0, qvfs_Close(-5));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    errno = 0;
    EXPECT_EQ(0, qvfs_error(-5));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);

    // The real handle is untouched by all of it.
    EXPECT_EQ(10, qvfs_Tell(h));
    EXPECT_EQ(10, qvfs_Seek(h, 0, 2));
    EXPECT_EQ(0, qvfs_Close(h));
    // Closed: refused, and a second close changes nothing.
    expect_refused_quietly(h);
    EXPECT_EQ(data, std::string(reinterpret_cast<const char*>(read_all(name).data()), 10));
}

TEST_F(ApiHandles, AccessBitsGuardReadWriteAndSync) {
    std::string name;
    const int rw = create(&name);
    ASSERT_GE(rw, 0);
    ASSERT_EQ(4, qvfs_Write(rw, "abcd", 4));
    ASSERT_EQ(0, qvfs_Close(rw));

    const int ro = open_name(name, QVFS_O_RDONLY);
    const int wo = open_name(name, QVFS_O_WRONLY);
    const int both = open_name(name, 3);  // bit 1 wins: read-write
    ASSERT_GE(ro, 0);
    ASSERT_GE(wo, 0);
    ASSERT_GE(both, 0);
    char buf[4];
    errno = 4242;
    EXPECT_EQ(-1, qvfs_Write(ro, "x", 1));
    EXPECT_EQ(-1, qvfs_fsync(ro));
    EXPECT_EQ(-1, qvfs_Read(wo, buf, 4));
    EXPECT_EQ(4242, errno);
    EXPECT_EQ(0, qvfs_Tell(ro)) << "a refused call moves nothing";
    EXPECT_EQ(0, qvfs_Tell(wo));

    EXPECT_EQ(4, qvfs_Read(ro, buf, 4));
    EXPECT_EQ(0, std::memcmp(buf, "abcd", 4));
    EXPECT_EQ(2, qvfs_Write(wo, "XY", 2));
    EXPECT_EQ(0, qvfs_fsync(wo));
    EXPECT_EQ(4, qvfs_Read(both, buf, 4));
    EXPECT_EQ(0, std::memcmp(buf, "XYcd", 4)) << "handles share the file, not the position";
    EXPECT_EQ(1, qvfs_Write(both, "Z", 1));
    EXPECT_EQ(0, qvfs_fsync(both));
    for (int h : {ro, wo, both}) EXPECT_EQ(0, qvfs_Close(h));
    EXPECT_EQ(5, stat_of(name).st.st_size);
}

TEST_F(ApiHandles, ZeroLengthsAndNullArguments) {
    std::string name;
    const int h = create(&name);
    ASSERT_GE(h, 0);
    char buf[16];
    // A length of 0 returns 0 before the handle is even looked at.
    errno = 4242;
    EXPECT_EQ(0, qvfs_Read(h, buf, 0));
    EXPECT_EQ(0, qvfs_Write(h, buf, 0));
    EXPECT_EQ(0, qvfs_Read(777, buf, 0));
    EXPECT_EQ(0, qvfs_Write(-1, buf, 0));
    iovec iov{buf, 4};
    EXPECT_EQ(0, qvfs_Writev(777, &iov, 0));
    EXPECT_EQ(-1, qvfs_Writev(h, nullptr, 1)) << "a null vector leaves errno";
    EXPECT_EQ(4242, errno);

    errno = 0;
    EXPECT_EQ(-1, qvfs_Read(h, nullptr, 10));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    errno = 0;
    EXPECT_EQ(-1, qvfs_Write(h, nullptr, 0));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    errno = 0;
    EXPECT_EQ(-1, qvfs_OpenV2(nullptr, nullptr, 0));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    errno = 0;
    EXPECT_EQ(-1, qvfs_fstat(h, nullptr));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);

    // Opening what does not exist: 1001 whatever the file layer said, and
    // the slot is free again.
    errno = 0;
    EXPECT_EQ(-1, open_name("H0000003000100AB0000C00.rvd"));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    errno = 0;
    EXPECT_EQ(-1, open_name("no dot here"));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    EXPECT_EQ(0x30001, open_name(name)) << "failed opens used and gave back slot 1";
    EXPECT_EQ(0, qvfs_Tell(h));
}

TEST_F(ApiHandles, ReadWriteAndWritevMoveThePosition) {
    std::string name;
    const int h = create(&name);
    ASSERT_GE(h, 0);
    const auto a = pattern(1, 0, 100000);
    ASSERT_EQ(100000, qvfs_Write(h, a.data(), 100000));
    EXPECT_EQ(100000, qvfs_Tell(h));
    // A gathered write of three pieces, one of them empty.
    const auto b = pattern(1, 100000, 5000);
    iovec iov[3] = {{const_cast<uint8_t*>(b.data()), 3000}, {nullptr, 0},
                    {const_cast<uint8_t*>(b.data()) + 3000, 2000}};
    EXPECT_EQ(5000, qvfs_Writev(h, iov, 3));
    EXPECT_EQ(105000, qvfs_Tell(h));
    EXPECT_EQ(1, qvfs_Eof(h));
    EXPECT_EQ(0, qvfs_error(h));

    // Read back across both writes through the same handle.
    EXPECT_EQ(99000, qvfs_Seek(h, 99000, 0));
    std::vector<uint8_t> back(4000);
    EXPECT_EQ(4000, qvfs_Read(h, back.data(), 4000));
    EXPECT_EQ(pattern(1, 99000, 4000), back);
    EXPECT_EQ(103000, qvfs_Tell(h));
    EXPECT_EQ(0, qvfs_Eof(h));
    // A read that runs past the end returns what is there; at the end, -1
    // and the position stays.
    EXPECT_EQ(2000, qvfs_Read(h, back.data(), 4000));
    EXPECT_EQ(105000, qvfs_Tell(h));
    EXPECT_EQ(-1, qvfs_Read(h, back.data(), 4000));
    EXPECT_EQ(105000, qvfs_Tell(h));
    // Writing inside the data does not grow the file.
    EXPECT_EQ(10, qvfs_Seek(h, 10, 0));
    EXPECT_EQ(3, qvfs_Write(h, "new", 3));
    EXPECT_EQ(0, qvfs_Close(h));
    auto all = read_all(name);
    ASSERT_EQ(105000u, all.size());
    EXPECT_EQ(0, std::memcmp(all.data() + 10, "new", 3));
    all[10] = a[10], all[11] = a[11], all[12] = a[12];
    EXPECT_EQ(pattern(1, 0, 105000), all);
}

TEST_F(ApiHandles, SeekRules) {
    std::string name;
    const int h = create(&name);
    ASSERT_GE(h, 0);
    const auto data = pattern(2, 0, 1000);
    ASSERT_EQ(1000, qvfs_Write(h, data.data(), 1000));
    const int64_t unit = int64_t(df_GetDiskUnitSize());
    ASSERT_EQ(int64_t(1) << 30, unit);

    EXPECT_EQ(1000, qvfs_Seek(h, 0, 2));
    EXPECT_EQ(990, qvfs_Seek(h, -10, 2));
    EXPECT_EQ(995, qvfs_Seek(h, 5, 1));
    EXPECT_EQ(985, qvfs_Seek(h, -10, 1));
    EXPECT_EQ(7, qvfs_Seek(h, 7, 0));
    EXPECT_EQ(8, qvfs_Seek(h, 8, 42)) << "an unknown whence counts from the start";
    // Out of range: position 0, result 0, errno untouched.
    errno = 4242;
    EXPECT_EQ(0, qvfs_Seek(h, -1, 0));
    EXPECT_EQ(0, qvfs_Tell(h));
    EXPECT_EQ(500, qvfs_Seek(h, 500, 0));
    EXPECT_EQ(0, qvfs_Seek(h, -501, 1));
    EXPECT_EQ(0, qvfs_Tell(h));
    EXPECT_EQ(unit, qvfs_Seek(h, unit, 0)) << "the block size itself is allowed";
    EXPECT_EQ(0, qvfs_Seek(h, unit + 1, 0));
    EXPECT_EQ(0, qvfs_Tell(h));
    EXPECT_EQ(0, qvfs_Seek(h, INT64_MAX, 2)) << "a wrapping target is out of range";
    EXPECT_EQ(0, qvfs_Seek(h, INT64_MIN, 0));
    EXPECT_EQ(4242, errno);

    // End of file at and beyond the size (unsigned comparison).
    EXPECT_EQ(0, qvfs_Eof(h));
    qvfs_Seek(h, 999, 0);
    EXPECT_EQ(0, qvfs_Eof(h));
    qvfs_Seek(h, 1000, 0);
    EXPECT_EQ(1, qvfs_Eof(h));
    qvfs_Seek(h, 5000, 0);
    EXPECT_EQ(1, qvfs_Eof(h));
    // After a seek beyond the end a write leaves a gap that reads back.
    EXPECT_EQ(4, qvfs_Write(h, "tail", 4));
    EXPECT_EQ(5004, qvfs_Seek(h, 0, 2));
    EXPECT_EQ(0, qvfs_Close(h));
}

TEST_F(ApiHandles, TheTableHoldsExactly1024Handles) {
    std::string name;
    std::vector<int> handles{create(&name)};
    ASSERT_EQ(0, handles[0]);
    for (int i = 1; i < 1024; ++i) {
        const int h = open_name(name);
        ASSERT_EQ(i | (i << 16), h);
        handles.push_back(h);
    }
    errno = 0;
    EXPECT_EQ(-1, open_name(name));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    // The path calls need a slot too.
    errno = 0;
    TQvFileStat st;
    EXPECT_EQ(-1, qvfs_Stat(name.c_str(), &st));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    // The file layer holds one handle for all these opens.
    TQvFileHandle* file = qvfs::file::table_entry(0);
    ASSERT_NE(nullptr, file);
    EXPECT_EQ(1024, file->inRef);

    EXPECT_EQ(0, qvfs_Close(handles[500]));
    EXPECT_EQ(500 | (1024 << 16), open_name(name));
    EXPECT_EQ(-1, qvfs_Unlink(name.c_str())) << "an open file is not deleted";
    qvfs_DeInit();
    EXPECT_EQ(nullptr, qvfs::file::table_entry(0)) << "DeInit closed every handle";
    EXPECT_EQ(0, qvfs_error(handles[0]));
    EXPECT_EQ(-1, qvfs_Tell(handles[7]));
    // The library stays initialised; the generations keep counting.
    const int again = open_name(name);
    EXPECT_EQ(1025 << 16, again);
    EXPECT_EQ(0, qvfs_Close(again));
    EXPECT_EQ(0, qvfs_Unlink(name.c_str()));
}

TEST_F(ApiHandles, PreRecordRingReadsOldestFirst) {
    constexpr int32_t kRing = 1 << 20;
    std::string name;
    const int h = create(&name, 3, 1, kRing);  // file type 1: reserved area
    ASSERT_GE(h, 0);
    // The recorder writes its ring through plain positions 0..kRing: stream
    // bytes s go to ring offset s mod kRing. 1.5 rings of stream.
    const uint64_t streamEnd = kRing + kRing / 2;
    for (uint64_t s = 0; s < streamEnd; s += 65536) {
        ASSERT_EQ(int64_t(s % kRing), qvfs_Seek(h, int64_t(s % kRing), 0));
        const auto chunk = pattern(3, s, 65536);
        ASSERT_EQ(65536, qvfs_Write(h, chunk.data(), 65536));
    }
    // The ring keeps the last kRing - 64 KiB bytes: it has wrapped.
    const uint64_t keep = kRing - 65536;
    const int32_t preEnd = int32_t(streamEnd % kRing);
    const int32_t preStart = int32_t((streamEnd - keep) % kRing);
    ASSERT_GT(preStart, preEnd);
    ASSERT_EQ(0, qvfs_UpdataePreRecPtr(h, preStart, preEnd));
    EXPECT_EQ(int64_t(keep), qvfs_Seek(h, 0, 2));
    const auto main = pattern(3, streamEnd, 300000);
    ASSERT_EQ(300000, qvfs_Write(h, main.data(), 300000));
    EXPECT_EQ(0, qvfs_Close(h));

    EXPECT_EQ(pattern(3, streamEnd - keep, keep + 300000), read_all(name));
    EXPECT_EQ(int64_t(keep + 300000), stat_of(name).st.st_size);

    // Truncation keeps the pre-record part; pointers are widened with sign.
    const int w = open_name(name, QVFS_O_RDWR);
    ASSERT_GE(w, 0);
    EXPECT_EQ(0, qvfs_ftruncate(w, int64_t(keep) + 10));
    EXPECT_EQ(-1, qvfs_ftruncate(w, int64_t(keep) - 1));
    errno = 0;
    EXPECT_EQ(-1, qvfs_UpdataePreRecPtr(w, -1, 0));
    EXPECT_EQ(QVFS_ERR_BLOCKRANGE, errno);
    errno = 0;
    EXPECT_EQ(-1, qvfs_ftruncate(w, (int64_t(1) << 30) + 1));
    EXPECT_EQ(QVFS_ERR_BLOCKRANGE, errno);
    EXPECT_EQ(0, qvfs_Close(w));
    EXPECT_EQ(pattern(3, streamEnd - keep, keep + 10), read_all(name));
}

TEST_F(ApiHandles, DebugDumpListsHandlesThenTheLayers) {
    std::string name;
    const int a = create(&name);
    const int b = open_name(name, QVFS_O_WRONLY);
    ASSERT_EQ(0, a);
    ASSERT_EQ(0x10001, b);
    ASSERT_EQ(6, qvfs_Write(a, "abcdef", 6));

    std::vector<char> buf(1023, 'q');
    EXPECT_EQ(0, qvfs_GetDebugInfo(buf.data(), 1023));
    EXPECT_EQ('q', buf[0]) << "too small: nothing written";
    EXPECT_EQ(0, qvfs_GetDebugInfo(nullptr, 65536));

    buf.assign(65536, 'q');
    const int n = qvfs_GetDebugInfo(buf.data(), 65536);
    ASSERT_GT(n, 0);
    const std::string text(buf.data());
    EXPECT_EQ(size_t(n), text.size());
    EXPECT_EQ(0u, text.find("===============QVFS===================\nid\tfd\t\trwflag\terrno\toffset\n"));
    EXPECT_NE(std::string::npos, text.find("\n0\t0x00000000\t3\t0\t6\n"));
    EXPECT_NE(std::string::npos, text.find("\n1\t0x00010001\t1\t0\t0\n"));
    const size_t files = text.find("=================QVFILE");
    ASSERT_NE(std::string::npos, files);
    EXPECT_NE(std::string::npos, text.find(name, files)) << "the file layer's rows follow";

    // The smallest buffer allowed: truncated, zero-terminated in bounds.
    buf.assign(1024 + 16, 'q');
    const int m = qvfs_GetDebugInfo(buf.data(), 1024);
    EXPECT_GT(m, 0);
    EXPECT_EQ('\0', buf[1023]);
    EXPECT_EQ('q', buf[1024]);
    EXPECT_EQ(0, std::strncmp(buf.data(), text.c_str(), files));
}

TEST_F(ApiHandles, OptionsApplyBitByBit) {
    uint32_t check = 9;
    ASSERT_EQ(0, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &check));
    ASSERT_EQ(1u, check);
    errno = 4242;
    EXPECT_EQ(-1, qvfs_SetOpt(0));
    EXPECT_EQ(4242, errno);
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, qvfs_SetOpt(2));
    EXPECT_EQ(0, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &check));
    EXPECT_EQ(1u, check) << "an unknown bit changes nothing";
    EXPECT_ERR(0, QVFS_ERR_BADHANDLE, qvfs_SetOpt(3));
    EXPECT_EQ(0, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &check));
    EXPECT_EQ(0u, check);
    EXPECT_ERR(0, QVFS_ERR_BADHANDLE, qvfs_SetOpt(QVFS_OPT_NO_ONLINE_CHECK | (1ull << 63)));
    errno = 4242;
    EXPECT_EQ(0, qvfs_SetOpt(QVFS_OPT_NO_ONLINE_CHECK));
    EXPECT_EQ(4242, errno);
}

TEST(ApiInit, HooksRegisteredBeforeInitAreDropped) {
    qvfs::test::Sandbox sbx;
    static int calls = 0;
    auto alloc = [](uint32_t n) -> void* {
        ++calls;
        return std::malloc(n);
    };
    auto release = [](void* p) { std::free(p); };
    ASSERT_EQ(0, qvfs_RegistAllocatorInterface(alloc, release));
    ASSERT_EQ(0, qvfs_Init());
    const std::string disk = sbx.add_disk(0, qvfs::test::image_bytes_for(2));
    ASSERT_EQ(0, qvfs_Format(disk.c_str()));
    EXPECT_EQ(0, calls) << "qvfs_Init reset the hooks";
    ASSERT_EQ(0, qvfs_RegistAllocatorInterface(alloc, release));
    ASSERT_EQ(0, qvfs_Mount(disk.c_str()));
    TQvfsOpenParam p{};
    std::strcpy(p.path, disk.c_str());
    std::strcpy(p.ext, "rvd");
    char name[64];
    const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
    ASSERT_GE(h, 0);
    EXPECT_GT(calls, 0) << "the handle record comes from the registered allocator";
    EXPECT_EQ(0, qvfs_Close(h));
    qvfs_InitAllocatorInterface();
    qvfs_UnMount_V2(disk.c_str());
}

}  // namespace
