// File positions onto block addresses, and reading, writing, gathering
// writes, growth, the pre-record pointers and truncation on a real disk.
#include <gtest/gtest.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "support/file_env.h"

namespace {

struct Seg {
    uint32_t addr;
    uint32_t len;
    bool operator==(const Seg& o) const { return addr == o.addr && len == o.len; }
};

std::vector<Seg> map(const TQvBlkSliceInfo& s, uint32_t pos, uint32_t len, bool read) {
    uint32_t a[10] = {}, l[10] = {};
    int n = _tf_MapSegments(pos, len, &s, a, l, read ? 1 : 0);
    std::vector<Seg> out;
    for (int i = 0; i < n; ++i) out.push_back({a[i], l[i]});
    return out;
}

TQvBlkSliceInfo slice(uint64_t resStart, uint64_t resEnd, uint64_t preStart, uint64_t preEnd,
                      uint64_t dataStart, uint64_t dataEnd) {
    TQvBlkSliceInfo s;
    std::memset(&s, 0, sizeof s);
    s.resStart = resStart;
    s.resEnd = resEnd;
    s.preStart = preStart;
    s.preEnd = preEnd;
    s.dataStart = dataStart;
    s.dataEnd = dataEnd;
    return s;
}

using V = std::vector<Seg>;

TEST(FileMapTest, PlainDataIsBoundedByDataEndForReadsOnly) {
    auto s = slice(0, 0, 0, 0, 0x200000, 0x200100);
    EXPECT_EQ((V{{0x200080, 0x80}}), map(s, 0x80, 0x100, true));
    EXPECT_TRUE(map(s, 0x100, 1, true).empty());
    EXPECT_EQ((V{{0x200100, 0x10}}), map(s, 0x100, 0x10, false));
    // Writes reach up to 0x7FFFFFFF and are mapped as far as they reach.
    EXPECT_EQ((V{{0x7FFFFFFB, 4}}), map(s, 0x7FFFFFFF - 0x200000 - 4, 100, false));
    EXPECT_TRUE(map(s, 0x7FFFFFFF - 0x200000, 1, false).empty());
    // A damaged entry whose data ends before it starts holds nothing.
    auto bad = slice(0, 0, 0, 0, 0x300000, 0x200000);
    EXPECT_TRUE(map(bad, 0, 16, true).empty());
}

TEST(FileMapTest, ReservedAreaBeforeThePointersIsLinearFromResStart) {
    auto s = slice(0x200000, 0x300000, 0, 0, 0, 0);
    EXPECT_EQ((V{{0x200010, 0x20}}), map(s, 0x10, 0x20, true));
    EXPECT_EQ((V{{0x2FFFF0, 0x20}}), map(s, 0xFFFF0, 0x20, true));  // runs on past resEnd
    EXPECT_EQ((V{{0x200010, 0x20}}), map(s, 0x10, 0x20, false));
}

TEST(FileMapTest, RingPartsComeBeforeTheData) {
    // Plain ring [0x210000, 0x220000), data [0x300000, 0x300100).
    auto plain = slice(0x200000, 0x300000, 0x210000, 0x220000, 0x300000, 0x300100);
    EXPECT_EQ((V{{0x21FFF0, 0x10}, {0x300000, 0x10}}), map(plain, 0xFFF0, 0x20, true));
    EXPECT_EQ((V{{0x300000, 0x100}}), map(plain, 0x10000, 0x1000, true));
    EXPECT_TRUE(map(plain, 0x10100, 1, true).empty());
    EXPECT_EQ((V{{0x300100, 0x10}}), map(plain, 0x10100, 0x10, false));

    // Wrapped: [0x2F0000, 0x300000) then [0x200000, 0x201000), then data.
    auto wrapped = slice(0x200000, 0x300000, 0x2F0000, 0x201000, 0x300000, 0x300100);
    EXPECT_EQ((V{{0x2F0000, 0x10000}, {0x200000, 0x1000}, {0x300000, 0x100}}),
              map(wrapped, 0, 0x20000, true));
    EXPECT_EQ((V{{0x2FFFFF, 1}, {0x200000, 0x1000}, {0x300000, 1}}), map(wrapped, 0xFFFF, 0x1002, true));
    EXPECT_EQ((V{{0x200800, 0x800}, {0x300000, 0x10}}), map(wrapped, 0x10800, 0x810, true));

    // preStart == preEnd: no pre-record bytes at all.
    auto empty = slice(0x200000, 0x300000, 0x250000, 0x250000, 0x300000, 0x300100);
    EXPECT_EQ((V{{0x300000, 0x100}}), map(empty, 0, 0x1000, true));
}

TEST(FileMapTest, RefusedArguments) {
    auto s = slice(0, 0, 0, 0, 0x200000, 0x200100);
    uint32_t a[10], l[10];
    errno = 0;
    EXPECT_EQ(-1, _tf_MapSegments(0, 0, &s, a, l, 1));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(-1, _tf_MapSegments(0, 1, nullptr, a, l, 1));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    errno = 0;
    EXPECT_EQ(-1, _tf_MapSegments(0, 1, &s, nullptr, l, 1));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    errno = 0;
    EXPECT_EQ(-1, _tf_MapSegments(0, 1, &s, a, nullptr, 1));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
}

// Without a mounted disk the block size is 0: nothing may grow or move.
TEST(FileNoDiskTest, BlockSizeZeroRefusesGrowthAndPointers) {
    ASSERT_EQ(0u, df_GetDiskUnitSize());
    TQvFileRec rec;
    std::memset(&rec, 0, sizeof rec);
    rec.slice.dataStart = rec.slice.dataEnd = 0x200000;
    TQvFileHandle h{0, 0, 1, &rec, nullptr, -1};
    char byte = 'x';
    iovec one{&byte, 1};
    EXPECT_EQ(-1, tf_Writev(0, &one, 1, &h));
    errno = 0;
    EXPECT_EQ(-1, tf_UpdataePreRecPtr(&h, 1, 0));
    EXPECT_EQ(QVFS_ERR_BLOCKRANGE, errno);
    errno = 0;
    EXPECT_EQ(-1, tf_ftruncate(&h, 1));
    EXPECT_EQ(QVFS_ERR_BLOCKRANGE, errno);
    EXPECT_EQ(-1, tf_Write(0, &byte, 1, &h));
    EXPECT_EQ(0x200000u, rec.slice.dataEnd);
    EXPECT_EQ(0u, rec.slice.preStart);
}

class FileIoTest : public qvfs::test::FileTest {
protected:
    static std::string pattern(size_t n, unsigned seed) {
        std::string s(n, '\0');
        for (size_t i = 0; i < n; ++i) s[i] = char((i * 131 + seed * 7 + (i >> 8)) & 0xFF);
        return s;
    }
    static std::string read_all(TQvFileHandle* h, uint32_t pos = 0, uint32_t len = 0x100000) {
        std::string out(len, '\0');
        int n = tf_Read(pos, out.data(), len, h);
        out.resize(n < 0 ? 0 : size_t(n));
        return out;
    }
    static int64_t size_of(TQvFileHandle* h) {
        TQvFileStat st;
        std::memset(&st, 0, sizeof st);
        EXPECT_EQ(0, tf_GetFileStat(&st, h));
        return st.st.st_size;
    }
    static constexpr uint32_t kRes = 0x10000;
};

TEST_F(FileIoTest, GrowthMovesDataEndAndSyncsWritesInsideDoNot) {
    auto f = create();
    ASSERT_NE(nullptr, f.h);
    TQvBlkSliceInfo& s = f.h->rec->slice;
    const uint64_t d = s.dataStart;
    ASSERT_EQ(d, s.dataEnd);

    const std::string first = pattern(100, 1);
    s.endTime = 1;
    const time_t before = time(nullptr);
    ASSERT_EQ(100, tf_Write(0, first.data(), 100, f.h));
    EXPECT_EQ(d + 100, s.dataEnd);
    EXPECT_GE(int64_t(s.endTime), int64_t(before));
    EXPECT_EQ(d + 100, entry_on_disk(f.name).dataEnd);
    EXPECT_EQ(s.endTime, entry_on_disk(f.name).endTime);
    EXPECT_EQ(first, bytes_on_disk(f.name, d, 100));

    // A write inside the data stores nothing but the data: the unsynced
    // change below stays in memory only.
    s.usrParam[0] = 0x5A;
    s.endTime = 2;
    const std::string patch = pattern(10, 2);
    ASSERT_EQ(10, tf_Write(20, patch.data(), 10, f.h));
    EXPECT_EQ(d + 100, s.dataEnd);
    EXPECT_EQ(2u, s.endTime);
    EXPECT_EQ(0, entry_on_disk(f.name).usrParam[0]);
    EXPECT_EQ(patch, bytes_on_disk(f.name, d + 20, 10));
    // One that ends exactly at dataEnd does not grow either.
    ASSERT_EQ(10, tf_Write(90, patch.data(), 10, f.h));
    EXPECT_EQ(2u, s.endTime);

    // Reads stop at dataEnd.
    std::string expect = first;
    expect.replace(20, 10, patch);
    expect.replace(90, 10, patch);
    EXPECT_EQ(expect.substr(50), read_all(f.h, 50, 100));
    char b[4];
    EXPECT_EQ(-1, tf_Read(100, b, 4, f.h));
    EXPECT_EQ(-1, tf_Read(0, b, 0, f.h));
    EXPECT_EQ(-1, tf_Write(0, b, 0, f.h));

    // The next growing write stores the whole slice copy.
    ASSERT_EQ(4, tf_Write(100, "tail", 4, f.h));
    EXPECT_EQ(0x5A, entry_on_disk(f.name).usrParam[0]);
    EXPECT_EQ(d + 104, entry_on_disk(f.name).dataEnd);
    EXPECT_EQ(104, size_of(f.h));
    EXPECT_EQ(0, tf_GetErrorNo(f.h));
    EXPECT_EQ(0, tf_CloseFile(f.h));
}

TEST_F(FileIoTest, WritesAtTheBlockEnd) {
    auto f = create();
    ASSERT_NE(nullptr, f.h);
    TQvBlkSliceInfo& s = f.h->rec->slice;
    const uint64_t unit = df_GetDiskUnitSize();
    ASSERT_EQ(1ull << 30, unit);
    const uint32_t last = uint32_t(unit - s.dataStart - 4096);

    // Ending past the block: refused, nothing moves.
    const std::string page = pattern(4096, 3);
    EXPECT_EQ(-1, tf_Write(last + 1, page.data(), 4096, f.h));
    EXPECT_EQ(28, tf_GetErrorNo(f.h));
    EXPECT_EQ(s.dataStart, s.dataEnd);

    // Ending exactly at the block's end: written, the file grows to it, and
    // the block reports itself nearly full.
    ASSERT_EQ(4096, tf_Write(last, page.data(), 4096, f.h));
    EXPECT_EQ(28, tf_GetErrorNo(f.h));
    EXPECT_EQ(unit, s.dataEnd);
    EXPECT_EQ(page, bytes_on_disk(f.name, unit - 4096, 4096));

    errno = 0;
    EXPECT_EQ(-1, tf_Read(0, nullptr, 1, f.h));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    EXPECT_EQ(-1, tf_SyncFile(nullptr));
    EXPECT_EQ(0, tf_CloseFile(f.h));
}

TEST_F(FileIoTest, PreRecordRingPlainWrappedAndEmpty) {
    auto f = create(1, kRes);
    ASSERT_NE(nullptr, f.h);
    TQvBlkSliceInfo& s = f.h->rec->slice;
    const uint64_t S = s.resStart;
    ASSERT_NE(0u, S);
    ASSERT_EQ(S + kRes, s.resEnd);

    // Before the pointers are set the reserved area is written and read
    // linearly; reads are not bounded by dataEnd.
    const std::string ring = pattern(kRes, 4);
    ASSERT_EQ(int(kRes), tf_Write(0, ring.data(), kRes, f.h));
    EXPECT_EQ(S + kRes, s.dataEnd);
    std::string lin = read_all(f.h, 0, kRes + 0x1000);
    ASSERT_EQ(size_t(kRes + 0x1000), lin.size());
    EXPECT_EQ(ring, lin.substr(0, kRes));
    EXPECT_EQ(std::string(0x1000, '\0'), lin.substr(kRes));
    // ...but they stop at the end of the file's block, not in the next one.
    const uint32_t toEnd = uint32_t(df_GetDiskUnitSize() - S);
    char edge[100];
    EXPECT_EQ(10, tf_Read(toEnd - 10, edge, sizeof edge, f.h));
    EXPECT_EQ(-1, tf_Read(toEnd, edge, sizeof edge, f.h));

    // A plain ring, then data behind it.
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, 0x1000, 0x4000));
    EXPECT_EQ(S + 0x1000, s.preStart);
    EXPECT_EQ(S + 0x4000, s.preEnd);
    EXPECT_EQ(S + kRes, s.dataStart);
    EXPECT_EQ(S + kRes, s.dataEnd);
    EXPECT_EQ(S + 0x1000, entry_on_disk(f.name).preStart);
    EXPECT_EQ(ring.substr(0x1000, 0x3000), read_all(f.h));
    const std::string data = pattern(0x2000, 5);
    ASSERT_EQ(0x2000, tf_Write(0x3000, data.data(), 0x2000, f.h));
    EXPECT_EQ(ring.substr(0x1000, 0x3000) + data, read_all(f.h));
    EXPECT_EQ(0x5000, size_of(f.h));

    // Wrapped: from preStart to resEnd, then from resStart to preEnd.
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, 0x8000, 0x3000));
    EXPECT_EQ(s.dataStart, s.dataEnd);
    const uint32_t pre = (kRes - 0x8000) + 0x3000;
    ASSERT_EQ(0x2000, tf_Write(pre, data.data(), 0x2000, f.h));
    const std::string stream = ring.substr(0x8000) + ring.substr(0, 0x3000) + data;
    EXPECT_EQ(stream, read_all(f.h));
    EXPECT_EQ(int64_t(stream.size()), size_of(f.h));
    EXPECT_EQ(stream.substr(pre - 5, 10), read_all(f.h, pre - 5, 10));

    // preStart == preEnd: nothing to read before the data, while the length
    // counts the whole reserved area.
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, 0x2000, 0x2000));
    char b[4];
    EXPECT_EQ(-1, tf_Read(0, b, 4, f.h));
    EXPECT_EQ(int64_t(kRes), size_of(f.h));
    ASSERT_EQ(4, tf_Write(0, "head", 4, f.h));
    EXPECT_EQ("head", read_all(f.h));
    EXPECT_EQ("head", bytes_on_disk(f.name, S + kRes, 4));

    errno = 0;
    EXPECT_EQ(-1, tf_UpdataePreRecPtr(f.h, df_GetDiskUnitSize() + 1, 0));
    EXPECT_EQ(QVFS_ERR_BLOCKRANGE, errno);
    EXPECT_EQ(S + 0x2000, s.preStart);
    EXPECT_EQ(-1, tf_UpdataePreRecPtr(nullptr, 0, 0));
    EXPECT_EQ(0, tf_CloseFile(f.h));
}

TEST_F(FileIoTest, WritevSplitsEntriesAtTheRingEnd) {
    auto f = create(1, kRes);
    ASSERT_NE(nullptr, f.h);
    TQvBlkSliceInfo& s = f.h->rec->slice;
    const uint64_t S = s.resStart;
    const std::string ring = pattern(kRes, 6);
    ASSERT_EQ(int(kRes), tf_Write(0, ring.data(), kRes, f.h));
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, 0, 0x100));  // ring [S, S + 0x100)

    char e1[] = "ABCDE", e3[] = "0123456789";
    iovec v[3] = {{e1, 5}, {e1, 0}, {e3, 10}};
    ASSERT_EQ(15, tf_Writev(0xFD, v, 3, f.h));
    EXPECT_EQ("ABC", bytes_on_disk(f.name, S + 0xFD, 3));
    EXPECT_EQ("DE0123456789", bytes_on_disk(f.name, S + kRes, 12));
    EXPECT_EQ(S + kRes + 12, s.dataEnd);
    EXPECT_EQ(S + kRes + 12, entry_on_disk(f.name).dataEnd);
    EXPECT_EQ(ring.substr(0, 0xFD) + "ABCDE0123456789", read_all(f.h));
    EXPECT_EQ(ring.substr(0x100, 0x10), bytes_on_disk(f.name, S + 0x100, 0x10));

    // A wrapped ring splits one list over three segments.
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, kRes - 2, 2));  // [resEnd-2, resEnd) + [S, S+2)
    char w[] = "wxyz!";
    iovec parts[2] = {{w, 3}, {w + 3, 2}};
    ASSERT_EQ(5, tf_Writev(0, parts, 2, f.h));
    EXPECT_EQ("wx", bytes_on_disk(f.name, S + kRes - 2, 2));
    EXPECT_EQ("yz", bytes_on_disk(f.name, S, 2));
    EXPECT_EQ("!", bytes_on_disk(f.name, S + kRes, 1));
    EXPECT_EQ("wxyz!", read_all(f.h));

    // One segment: the caller's list goes whole.
    iovec tail[2] = {{e3, 4}, {e1, 2}};
    ASSERT_EQ(6, tf_Writev(5, tail, 2, f.h));
    EXPECT_EQ("wxyz!0123AB", read_all(f.h));

    // Refusals: no error code is set.
    errno = 0;
    EXPECT_EQ(-1, tf_Writev(0, nullptr, 1, f.h));
    EXPECT_EQ(-1, tf_Writev(0, v, -1, f.h));
    EXPECT_EQ(-1, tf_Writev(0, v, 0, f.h));
    EXPECT_EQ(-1, tf_Writev(0, v, 3, nullptr));
    iovec huge[2] = {{nullptr, 0x30000000}, {nullptr, 0x30000000}};
    EXPECT_EQ(-1, tf_Writev(0, huge, 2, f.h));
    EXPECT_EQ(0, errno);
    EXPECT_EQ("wxyz!0123AB", read_all(f.h));
    EXPECT_EQ(0, tf_CloseFile(f.h));
}

TEST_F(FileIoTest, TruncationKeepsThePreRecordPart) {
    auto f = create(1, kRes);
    ASSERT_NE(nullptr, f.h);
    TQvBlkSliceInfo& s = f.h->rec->slice;
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, 0x1000, 0x4000));
    const std::string data = pattern(0x2000, 7);
    ASSERT_EQ(0x2000, tf_Write(0x3000, data.data(), 0x2000, f.h));

    ASSERT_EQ(0, tf_ftruncate(f.h, 0x3000));  // exactly the pre-record length
    EXPECT_EQ(s.dataStart, s.dataEnd);
    EXPECT_EQ(s.dataStart, entry_on_disk(f.name).dataEnd);
    EXPECT_EQ(0x3000, size_of(f.h));
    errno = 0;
    EXPECT_EQ(-1, tf_ftruncate(f.h, 0x2FFF));
    EXPECT_EQ(0, errno);
    ASSERT_EQ(0, tf_ftruncate(f.h, 0x3000 + 0x1800));  // the data grows back
    EXPECT_EQ(s.dataStart + 0x1800, s.dataEnd);
    EXPECT_EQ(data.substr(0, 0x1800), read_all(f.h, 0x3000));
    errno = 0;
    EXPECT_EQ(-1, tf_ftruncate(f.h, df_GetDiskUnitSize() + 1));
    EXPECT_EQ(QVFS_ERR_BLOCKRANGE, errno);

    // A wrapped ring's length is the reserved area plus preEnd - preStart.
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, 0x8000, 0x3000));
    const uint64_t pre = kRes - 0x5000;
    EXPECT_EQ(-1, tf_ftruncate(f.h, pre - 1));
    ASSERT_EQ(0, tf_ftruncate(f.h, pre + 16));
    EXPECT_EQ(s.dataStart + 16, s.dataEnd);
    EXPECT_EQ(int64_t(pre + 16), size_of(f.h));
    EXPECT_EQ(-1, tf_ftruncate(nullptr, 0));
    EXPECT_EQ(0, tf_CloseFile(f.h));
}

}  // namespace
