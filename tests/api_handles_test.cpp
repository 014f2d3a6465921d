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

// Every call on a handle that names no open handle: refused without a code;
// close and the error query give 0.
void expect_refused_quietly(int h) {
    SCOPED_TRACE(h);
    char buf[16] = {};
    TQvFileStat st;
    iovec iov{buf, sizeof buf};
    EXPECT_ERR(-1, 0, qvfs_Read(h, buf, sizeof buf)); EXPECT_ERR(-1, 0, qvfs_Write(h, buf, sizeof buf));
    EXPECT_ERR(-1, 0, qvfs_Writev(h, &iov, 1)); EXPECT_ERR(-1, 0, qvfs_Seek(h, 0, 0));
    EXPECT_ERR(-1, 0, qvfs_Tell(h)); EXPECT_ERR(-1, 0, qvfs_Eof(h)); EXPECT_ERR(-1, 0, qvfs_fsync(h));
    EXPECT_ERR(-1, 0, qvfs_ftruncate(h, 0)); EXPECT_ERR(-1, 0, qvfs_UpdataePreRecPtr(h, 0, 0));
    EXPECT_ERR(-1, 0, qvfs_fstat(h, &st)); EXPECT_ERR(0, 0, qvfs_error(h)); EXPECT_ERR(0, 0, qvfs_Close(h));
}

class ApiHandles : public ApiTest {};

#define EXPECT_NOTINIT(call) EXPECT_ERR(-1, QVFS_ERR_NOTINIT, call)

// Runs in its own process: nothing has called qvfs_Init.
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
    EXPECT_NOTINIT(qvfs_OpenV2(&p, buf, 2)); EXPECT_NOTINIT(qvfs_Open(nullptr, buf, 0));
    EXPECT_NOTINIT(qvfs_Read(0, buf, 4)); EXPECT_NOTINIT(qvfs_Read(0, buf, 0)); EXPECT_NOTINIT(qvfs_Write(0, buf, 4));
    EXPECT_NOTINIT(qvfs_Writev(0, &iov, 1)); EXPECT_NOTINIT(qvfs_Seek(0, 0, 0)); EXPECT_NOTINIT(qvfs_Tell(0));
    EXPECT_NOTINIT(qvfs_Eof(0)); EXPECT_NOTINIT(qvfs_fsync(0)); EXPECT_NOTINIT(qvfs_ftruncate(0, 0));
    EXPECT_NOTINIT(qvfs_UpdataePreRecPtr(0, 0, 0)); EXPECT_NOTINIT(qvfs_Close(0));
    EXPECT_NOTINIT(qvfs_GetDebugInfo(buf, 4096)); EXPECT_NOTINIT(qvfs_SetOpt(1)); EXPECT_NOTINIT(qvfs_error(0));
    EXPECT_NOTINIT(qvfs_Stat(buf, &st)); EXPECT_NOTINIT(qvfs_fstat(0, &st)); EXPECT_NOTINIT(qvfs_Lock(buf, 1));
    EXPECT_NOTINIT(qvfs_ChangeCreateTime(buf, tv[0])); EXPECT_NOTINIT(qvfs_ChangeTime(buf, tv));
    EXPECT_NOTINIT(qvfs_ChangeRecType(buf, 1)); EXPECT_NOTINIT(qvfs_SetUsrParam(buf, buf, 4));
    EXPECT_NOTINIT(qvfs_GetFileInfo(buf, 1, &item, 1)); EXPECT_NOTINIT(qvfs_SetFileInfo(buf, 2, &item, 1));
    EXPECT_NOTINIT(qvfs_Unlink(buf)); EXPECT_NOTINIT(qvfs_Format(buf)); EXPECT_NOTINIT(qvfs_FormatEx(buf, 1));
    EXPECT_NOTINIT(qvfs_FormatMini(buf, 1ull << 31)); EXPECT_NOTINIT(qvfs_Mount(buf));
    EXPECT_NOTINIT(qvfs_UnMount(buf)); EXPECT_NOTINIT(qvfs_UnMount_V2(buf)); EXPECT_NOTINIT(qvfs_Statfs(buf, &sf));
    EXPECT_NOTINIT(qvfs_GetUsedBlockNum(buf)); EXPECT_NOTINIT(qvfs_GetBlockInfo(buf, &bi, 1));
    EXPECT_NOTINIT(qvfs_GetUsedInBlockId(buf, 0, 0)); EXPECT_NOTINIT(qvfs_GetUsedSizeOfDataType(buf, 0, 0));
    EXPECT_NOTINIT(qvfs_TagBadUnit(buf, 0, 512)); EXPECT_NOTINIT(qvfs_BlockStat(buf, 0, &st, 1));
    EXPECT_NOTINIT(qvfs_BlockStatSeg(&q)); EXPECT_NOTINIT(qvfs_GetFileNum(buf, 0));

    // The block calls do not test the flag: they fail in the layer instead
    // (no disk is known to this process) and leave the record alone.
    QvfsBlockStat bs;
    std::memset(&bs, 0xAB, sizeof bs);
    errno = 0;
    EXPECT_EQ(-1, qvfs_BlockUnlink(0, 0));
    EXPECT_NE(QVFS_ERR_NOTINIT, errno);
    EXPECT_NE(0, qvfs_GetBlockStat(0, 0, &bs));
    EXPECT_NE(QVFS_ERR_NOTINIT, errno);
    EXPECT_EQ(0xABABABABu, bs.state);
    qvfs_DeInit();  // does nothing before Init, and must not crash
    EXPECT_STREQ("SVN_VERSION:106294    END", g_pcSvnVersion);
}

TEST_F(ApiHandles, HandleValuesCarrySlotAndGenerationAndWrapAfter4096) {
    std::string name;
    const int first = create(&name);
    EXPECT_EQ(0, first);
    EXPECT_EQ(0x10001, open_name(name));  // slot 0 busy: slot 1, generation 1
    EXPECT_EQ(0, qvfs_Close(first));
    const int third = open_name(name);  // the lowest free slot, the next generation
    EXPECT_EQ(0x20000, third);
    expect_refused_quietly(first);  // same slot, older generation
    EXPECT_EQ(0, qvfs_Tell(third));

    // The n-th handle of the process takes generation n mod 4096: after 4096
    // more, the value of the first of them, long closed, is valid again.
    for (int n = 3; n < 3 + 4096; ++n) {
        const int h = open_name(name);
        ASSERT_EQ((n % 4096) << 16 | 2, h) << "handle number " << n;
        ASSERT_EQ(0, qvfs_Close(h));
    }
    EXPECT_EQ(0x30002, open_name(name));
    EXPECT_EQ(0, qvfs_Tell(0x30002));
}

TEST_F(ApiHandles, InvalidHandlesAndArgumentsTouchNothing) {
    std::string name;
    const int h = create(&name);
    ASSERT_EQ(0, h);
    ASSERT_EQ(10, qvfs_Write(h, "0123456789", 10));
    // A generation that never existed, an empty slot, the last slot, slot
    // 1024 (beyond the table), the largest slot number.
    for (int bad : {h | 0x10000, 7, 0x3FF, 0x400, 0xFFFF}) expect_refused_quietly(bad);
    // Negative handles: 1002; -1 from the calls, 0 from close and error.
    char buf[16];
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, qvfs_Read(-1, buf, 4));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, qvfs_Seek(-3, 0, 0));
    EXPECT_ERR(0, QVFS_ERR_BADHANDLE, qvfs_Close(-5));
    EXPECT_ERR(0, QVFS_ERR_BADHANDLE, qvfs_error(-5));
    // A length of 0 returns 0 before the handle is even looked at.
    iovec iov{buf, 4};
    EXPECT_ERR(0, 0, qvfs_Read(h, buf, 0));
    EXPECT_ERR(0, 0, qvfs_Write(h, buf, 0));
    EXPECT_ERR(0, 0, qvfs_Read(777, buf, 0));
    EXPECT_ERR(0, 0, qvfs_Write(-1, buf, 0));
    EXPECT_ERR(0, 0, qvfs_Writev(777, &iov, 0));
    EXPECT_ERR(-1, 0, qvfs_Writev(h, nullptr, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Read(h, nullptr, 10));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Write(h, nullptr, 0));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_OpenV2(nullptr, nullptr, 0));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_fstat(h, nullptr));
    // Opening what does not exist: 1001 whatever the file layer said, and
    // the slot is free again.
    EXPECT_ERR(-1, QVFS_ERR_BADARG, open_name("H0000003000100AB0000C00.rvd"));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, open_name("no dot here"));
    const int probe = open_name(name);
    EXPECT_EQ(0x30001, probe) << "failed opens used and gave back slot 1";
    EXPECT_EQ(0, qvfs_Close(probe));

    // The real handle is untouched by all of it; closed, it is refused too.
    EXPECT_EQ(10, qvfs_Tell(h));
    EXPECT_EQ(0, qvfs_Close(h));
    expect_refused_quietly(h);
    const auto back = read_all(name);
    EXPECT_EQ("0123456789", std::string(back.begin(), back.end()));
}

TEST_F(ApiHandles, AccessBitsGuardReadWriteAndSync) {
    const std::string name = new_file(1, 5, 4);
    const int ro = open_name(name, QVFS_O_RDONLY);
    const int wo = open_name(name, QVFS_O_WRONLY);
    const int both = open_name(name, 3);  // bit 1 wins: read-write
    ASSERT_TRUE(ro >= 0 && wo >= 0 && both >= 0);
    char buf[4];
    EXPECT_ERR(-1, 0, qvfs_Write(ro, "x", 1));
    EXPECT_ERR(-1, 0, qvfs_fsync(ro));
    EXPECT_ERR(-1, 0, qvfs_Read(wo, buf, 4));
    EXPECT_EQ(0, qvfs_Tell(ro)) << "a refused call moves nothing";
    EXPECT_EQ(0, qvfs_Tell(wo));

    EXPECT_EQ(4, qvfs_Read(ro, buf, 4));
    EXPECT_EQ(pattern(1, 0, 4), std::vector<uint8_t>(buf, buf + 4));
    EXPECT_EQ(2, qvfs_Write(wo, "XY", 2));
    EXPECT_EQ(0, qvfs_fsync(wo));
    EXPECT_EQ(4, qvfs_Read(both, buf, 4));
    EXPECT_EQ(0, std::memcmp(buf, "XY", 2)) << "handles share the file, not the position";
    EXPECT_EQ(1, qvfs_Write(both, "Z", 1));
    EXPECT_EQ(0, qvfs_fsync(both));
    for (int h : {ro, wo, both}) EXPECT_EQ(0, qvfs_Close(h));
    EXPECT_EQ(5, stat_of(name).st.st_size);
}

TEST_F(ApiHandles, ReadWriteAndWritevMoveThePosition) {
    std::string name;
    const int h = create(&name);
    ASSERT_GE(h, 0);
    const auto a = pattern(1, 0, 105000);
    ASSERT_EQ(100000, qvfs_Write(h, a.data(), 100000));
    EXPECT_EQ(100000, qvfs_Tell(h));
    // A gathered write of three pieces, one of them empty.
    auto* b = const_cast<uint8_t*>(a.data()) + 100000;
    iovec iov[3] = {{b, 3000}, {nullptr, 0}, {b + 3000, 2000}};
    EXPECT_EQ(5000, qvfs_Writev(h, iov, 3));
    EXPECT_EQ(105000, qvfs_Tell(h));

    // Read back across both writes through the same handle; a read that
    // runs past the end returns what is there; at the end, -1 and the
    // position stays.
    EXPECT_EQ(99000, qvfs_Seek(h, 99000, 0));
    std::vector<uint8_t> back(4000);
    EXPECT_EQ(4000, qvfs_Read(h, back.data(), 4000));
    EXPECT_EQ(pattern(1, 99000, 4000), back);
    EXPECT_EQ(2000, qvfs_Read(h, back.data(), 4000));
    EXPECT_EQ(-1, qvfs_Read(h, back.data(), 4000));
    EXPECT_EQ(105000, qvfs_Tell(h));
    // Writing inside the data does not grow the file.
    EXPECT_EQ(10, qvfs_Seek(h, 10, 0));
    EXPECT_EQ(3, qvfs_Write(h, a.data() + 10, 3));
    EXPECT_EQ(0, qvfs_Close(h));
    EXPECT_EQ(a, read_all(name));
}

TEST_F(ApiHandles, SeekAndEofRules) {
    std::string name;
    const int h = create(&name);
    ASSERT_GE(h, 0);
    const auto data = pattern(2, 0, 1000);
    ASSERT_EQ(1000, qvfs_Write(h, data.data(), 1000));
    const int64_t unit = int64_t(df_GetDiskUnitSize());
    ASSERT_EQ(int64_t(1) << 30, unit);
    // {offset, whence, result}: out of range gives 0 and position 0; an
    // unknown whence counts from the start.
    const int64_t steps[][3] = {
        {0, 2, 1000},    {-10, 2, 990}, {5, 1, 995},       {-10, 1, 985}, {7, 0, 7},
        {8, 42, 8},      {-1, 0, 0},    {500, 0, 500},     {-501, 1, 0},  {unit, 0, unit},
        {unit + 1, 0, 0}, {INT64_MAX, 2, 0}, {INT64_MIN, 0, 0},
    };
    errno = 0;
    for (const auto& s : steps) {
        EXPECT_EQ(s[2], qvfs_Seek(h, s[0], int(s[1]))) << s[0] << " from " << s[1];
        EXPECT_EQ(s[2], qvfs_Tell(h)) << s[0] << " from " << s[1];
    }
    EXPECT_EQ(0, errno);
    // End of file at and beyond the size (unsigned comparison).
    for (auto [pos, eof] : {std::pair{0, 0}, {999, 0}, {1000, 1}, {5000, 1}}) {
        qvfs_Seek(h, pos, 0);
        EXPECT_EQ(eof, qvfs_Eof(h)) << pos;
    }
    // After a seek beyond the end a write leaves a gap.
    EXPECT_EQ(4, qvfs_Write(h, "tail", 4));
    EXPECT_EQ(5004, qvfs_Seek(h, 0, 2));
}

TEST_F(ApiHandles, TheTableHoldsExactly1024HandlesAndDeInitClosesThem) {
    std::string name;
    std::vector<int> handles{create(&name)};
    ASSERT_EQ(0, handles[0]);
    for (int i = 1; i < 1024; ++i) {
        handles.push_back(open_name(name));
        ASSERT_EQ(i | (i << 16), handles.back());
    }
    TQvFileStat st;
    EXPECT_ERR(-1, QVFS_ERR_BADARG, open_name(name));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Stat(name.c_str(), &st));  // path calls need a slot too
    // The file layer holds one handle for all these opens.
    ASSERT_NE(nullptr, qvfs::file::table_entry(0));
    EXPECT_EQ(1024, qvfs::file::table_entry(0)->inRef);

    EXPECT_EQ(0, qvfs_Close(handles[500]));
    EXPECT_EQ(500 | (1024 << 16), open_name(name));
    EXPECT_EQ(-1, qvfs_Unlink(name.c_str())) << "an open file is not deleted";
    qvfs_DeInit();
    EXPECT_EQ(nullptr, qvfs::file::table_entry(0)) << "DeInit closed every handle";
    EXPECT_EQ(-1, qvfs_Tell(handles[7]));
    // The library stays initialised; the generations keep counting.
    const int again = open_name(name);
    EXPECT_EQ(1025 << 16, again);
    EXPECT_EQ(0, qvfs_Close(again));
    EXPECT_EQ(0, qvfs_Unlink(name.c_str()));
}

TEST_F(ApiHandles, PreRecordCallsPassTheirValuesThrough) {
    std::string name;
    const int h = create(&name, 3, 1, 0x40000);  // file type 1: a reserved area
    ASSERT_GE(h, 0);
    const auto ring = pattern(3, 0, 0x40000);
    ASSERT_EQ(0x40000, qvfs_Write(h, ring.data(), 0x40000));
    ASSERT_EQ(0, qvfs_UpdataePreRecPtr(h, 0x30000, 0x10000));  // wrapped: 0x20000 bytes kept
    EXPECT_EQ(0x20000, qvfs_Seek(h, 0, 2));
    ASSERT_EQ(5, qvfs_Write(h, "after", 5));
    EXPECT_EQ(0, qvfs_ftruncate(h, 0x20000 + 2));
    EXPECT_EQ(-1, qvfs_ftruncate(h, 0x20000 - 1));
    // Pointers are widened with their sign.
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_UpdataePreRecPtr(h, -1, 0));  // outside the ring
    EXPECT_ERR(-1, QVFS_ERR_BLOCKRANGE, qvfs_ftruncate(h, (int64_t(1) << 30) + 1));
    EXPECT_EQ(0, qvfs_Close(h));
    std::vector<uint8_t> kept(ring.begin() + 0x30000, ring.end());
    kept.insert(kept.end(), ring.begin(), ring.begin() + 0x10000);
    kept.insert(kept.end(), {'a', 'f'});
    EXPECT_EQ(kept, read_all(name));
}

TEST_F(ApiHandles, DebugDumpListsHandlesThenTheLayers) {
    std::string name;
    const int a = create(&name);
    ASSERT_EQ(0x10001, open_name(name, QVFS_O_WRONLY));
    ASSERT_EQ(6, qvfs_Write(a, "abcdef", 6));

    std::vector<char> buf(1023, 'q');
    EXPECT_EQ(0, qvfs_GetDebugInfo(buf.data(), 1023));
    EXPECT_EQ('q', buf[0]) << "too small: nothing written";
    EXPECT_EQ(0, qvfs_GetDebugInfo(nullptr, 65536));
    buf.assign(65536, 'q');
    const int n = qvfs_GetDebugInfo(buf.data(), 65536);
    const std::string text(buf.data());
    EXPECT_EQ(size_t(n), text.size());
    EXPECT_EQ(0u, text.find("===============QVFS===================\nid\tfd\t\trwflag\terrno\toffset\n"
                            "0\t0x00000000\t3\t0\t6\n1\t0x00010001\t1\t0\t0\n"));
    const size_t files = text.find("=================QVFILE");
    ASSERT_NE(std::string::npos, files);
    EXPECT_NE(std::string::npos, text.find(name, files)) << "the file layer's rows follow";

    // The smallest buffer allowed: truncated, zero-terminated in bounds.
    buf.assign(1024 + 16, 'q');
    EXPECT_GT(qvfs_GetDebugInfo(buf.data(), 1024), 0);
    EXPECT_EQ('\0', buf[1023]);
    EXPECT_EQ('q', buf[1024]);
    EXPECT_EQ(0, std::strncmp(buf.data(), text.c_str(), files));
}

TEST_F(ApiHandles, OptionsApplyBitByBit) {
    auto online_check = [] {
        uint32_t v = 9;
        EXPECT_EQ(0, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &v));
        return v;
    };
    ASSERT_EQ(1u, online_check());
    EXPECT_ERR(-1, 0, qvfs_SetOpt(0));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, qvfs_SetOpt(2));
    EXPECT_EQ(1u, online_check()) << "an unknown bit changes nothing";
    EXPECT_ERR(0, QVFS_ERR_BADHANDLE, qvfs_SetOpt(3));  // the known bit still applies
    EXPECT_EQ(0u, online_check());
    EXPECT_ERR(0, QVFS_ERR_BADHANDLE, qvfs_SetOpt(QVFS_OPT_NO_ONLINE_CHECK | (1ull << 63)));
    EXPECT_ERR(0, 0, qvfs_SetOpt(QVFS_OPT_NO_ONLINE_CHECK));
}

TEST(ApiInit, HooksRegisteredBeforeInitAreDropped) {
    qvfs::test::Sandbox sbx;
    static int calls = 0;
    auto alloc = [](uint32_t n) -> void* { return ++calls, std::malloc(n); };
    auto release = [](void* p) { std::free(p); };
    char missing[] = "H0000003000100AB0000C00.rvd";
    ASSERT_EQ(0, qvfs_RegistAllocatorInterface(alloc, release));
    ASSERT_EQ(0, qvfs_Init());
    EXPECT_EQ(-1, qvfs_OpenV2(nullptr, missing, 0));
    EXPECT_EQ(0, calls) << "qvfs_Init reset the hooks";
    ASSERT_EQ(0, qvfs_RegistAllocatorInterface(alloc, release));
    EXPECT_EQ(-1, qvfs_OpenV2(nullptr, missing, 0));
    EXPECT_GT(calls, 0) << "the handle record comes from the registered allocator";
    qvfs_InitAllocatorInterface();
}

}  // namespace
