// File positions onto block addresses, and reading, writing, gathering
// writes, growth, the pre-record pointers and truncation on a real disk.
#include <gtest/gtest.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "support/disk_env.h"
#include "support/file_env.h"

namespace {

using V = std::vector<std::pair<uint32_t, uint32_t>>;  // {address, length} per segment

V map(const TQvBlkSliceInfo& s, uint32_t pos, uint32_t len, bool read) {
    uint32_t a[10] = {}, l[10] = {};
    const int n = _tf_MapSegments(pos, len, &s, a, l, read ? 1 : 0);
    V out;
    for (int i = 0; i < n; ++i) out.push_back({a[i], l[i]});
    return out;
}

TQvBlkSliceInfo slice(uint64_t resStart, uint64_t resEnd, uint64_t preStart, uint64_t preEnd, uint64_t dataStart,
                      uint64_t dataEnd) {
    TQvBlkSliceInfo s;
    std::memset(&s, 0, sizeof s);
    s.resStart = resStart, s.resEnd = resEnd, s.preStart = preStart, s.preEnd = preEnd;
    s.dataStart = dataStart, s.dataEnd = dataEnd;
    return s;
}

TEST(FileMapTest, PositionsOntoBlockAddresses) {
    const auto plain = slice(0, 0, 0, 0, 0x200000, 0x200100);
    const auto damaged = slice(0, 0, 0, 0, 0x300000, 0x200000);  // data ends before it starts
    const auto res = slice(0x200000, 0x300000, 0, 0, 0, 0);      // pointers not set yet
    const auto ring = slice(0x200000, 0x300000, 0x210000, 0x220000, 0x300000, 0x300100);
    const auto wrapped = slice(0x200000, 0x300000, 0x2F0000, 0x201000, 0x300000, 0x300100);
    const auto empty = slice(0x200000, 0x300000, 0x250000, 0x250000, 0x300000, 0x300100);
    const uint32_t top = 0x7FFFFFFF - 0x200000;  // writes reach up to address 0x7FFFFFFF
    const struct {
        const TQvBlkSliceInfo& s;
        uint32_t pos, len;
        bool read;
        V want;
    } cases[] = {
        {plain, 0x80, 0x100, true, {{0x200080, 0x80}}},  // reads stop at dataEnd
        {plain, 0x100, 1, true, {}},
        {plain, 0x100, 0x10, false, {{0x200100, 0x10}}},  // writes do not
        {plain, top - 4, 100, false, {{0x7FFFFFFB, 4}}},
        {plain, top, 1, false, {}},
        {damaged, 0, 16, true, {}},
        {res, 0xFFFF0, 0x20, false, {{0x2FFFF0, 0x10}}},  // linear from resStart, never past resEnd
        {ring, 0xFFF0, 0x20, true, {{0x21FFF0, 0x10}, {0x300000, 0x10}}},
        {ring, 0x10100, 1, true, {}},
        {ring, 0x10100, 0x10, false, {{0x300100, 0x10}}},
        {wrapped, 0xFFFF, 0x1002, true, {{0x2FFFFF, 1}, {0x200000, 0x1000}, {0x300000, 1}}},
        {wrapped, 0x10800, 0x810, true, {{0x200800, 0x800}, {0x300000, 0x10}}},
        {empty, 0, 0x1000, true, {{0x300000, 0x100}}},  // preStart == preEnd: no ring bytes
    };
    for (const auto& c : cases) EXPECT_EQ(c.want, map(c.s, c.pos, c.len, c.read)) << std::hex << c.pos;

    uint32_t a[10], l[10];
    EXPECT_ERR(-1, 0, _tf_MapSegments(0, 0, &plain, a, l, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, _tf_MapSegments(0, 1, nullptr, a, l, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, _tf_MapSegments(0, 1, &plain, nullptr, l, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, _tf_MapSegments(0, 1, &plain, a, nullptr, 1));
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
    EXPECT_EQ(-1, tf_Write(0, &byte, 1, &h));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, tf_UpdataePreRecPtr(&h, 1, 0));  // no reserved area
    EXPECT_ERR(-1, QVFS_ERR_BLOCKRANGE, tf_ftruncate(&h, 1));
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
    static std::string read(TQvFileHandle* h, uint32_t pos = 0, uint32_t len = 0x100000) {
        std::string out(len, '\0');
        out.resize(size_t(std::max(0, tf_Read(pos, out.data(), len, h))));
        return out;
    }
    static int64_t size_of(TQvFileHandle* h) {
        TQvFileStat st{};
        EXPECT_EQ(0, tf_GetFileStat(&st, h));
        return st.st.st_size;
    }
    // Whether the slice entry on disk is the record's copy, byte for byte,
    // once a flush pass wrote what growing writes left for it.
    bool synced(const Created& f) const {
        qvfs::disk::flush_disk_now(0);
        const TQvBlkSliceInfo d = entry_on_disk(f.name);
        return std::memcmp(&d, &f.h->rec->slice, sizeof d) == 0;
    }
    static constexpr uint32_t kRes = 0x10000;
};

TEST_F(FileIoTest, GrowthMovesDataEndAndSyncsWritesInsideDoNot) {
    auto f = create();
    ASSERT_NE(nullptr, f.h);
    TQvBlkSliceInfo& s = f.h->rec->slice;
    const uint64_t d = s.dataStart;
    const std::string first = pattern(100, 1), patch = pattern(10, 2);
    s.endTime = 1;
    const time_t before = time(nullptr);
    ASSERT_EQ(100, tf_Write(0, first.data(), 100, f.h));
    EXPECT_EQ(d + 100, s.dataEnd);
    EXPECT_GE(int64_t(s.endTime), int64_t(before));
    EXPECT_TRUE(synced(f));

    // Writes inside the data, one ending exactly at dataEnd, store the data
    // only: the change below stays in memory.
    s.usrParam[0] = 0x5A;
    s.endTime = 2;
    ASSERT_EQ(10, tf_Write(20, patch.data(), 10, f.h));
    ASSERT_EQ(10, tf_Write(90, patch.data(), 10, f.h));
    EXPECT_EQ(d + 100, s.dataEnd);
    EXPECT_EQ(2u, s.endTime);
    EXPECT_FALSE(synced(f));
    EXPECT_EQ(patch, bytes_on_disk(f.name, d + 20, 10));
    // Reads stop at dataEnd; zero lengths are refused.
    EXPECT_EQ(first.substr(50, 40) + patch, read(f.h, 50, 100));
    char b[4];
    EXPECT_EQ(-1, tf_Read(100, b, 4, f.h));
    EXPECT_EQ(-1, tf_Read(0, b, 0, f.h));
    EXPECT_EQ(-1, tf_Write(0, b, 0, f.h));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, tf_Read(0, nullptr, 1, f.h));
    // The next growing write stores the whole slice copy.
    ASSERT_EQ(4, tf_Write(100, "tail", 4, f.h));
    EXPECT_TRUE(synced(f));
    EXPECT_EQ(104, size_of(f.h));
    EXPECT_EQ(0, tf_GetErrorNo(f.h));

    // At the block's end: a write ending past it is refused and moves
    // nothing; one ending exactly there grows the file to it, and the block
    // reports itself nearly full.
    const uint64_t unit = df_GetDiskUnitSize();
    const uint32_t last = uint32_t(unit - d - 4096);
    const std::string page = pattern(4096, 3);
    EXPECT_EQ(-1, tf_Write(last + 1, page.data(), 4096, f.h));
    EXPECT_EQ(d + 104, s.dataEnd);
    ASSERT_EQ(4096, tf_Write(last, page.data(), 4096, f.h));
    EXPECT_EQ(28, tf_GetErrorNo(f.h));
    EXPECT_EQ(unit, s.dataEnd);
    EXPECT_EQ(page, bytes_on_disk(f.name, unit - 4096, 4096));
    EXPECT_EQ(-1, tf_SyncFile(nullptr));
    EXPECT_EQ(0, tf_CloseFile(f.h));
}

TEST_F(FileIoTest, PreRecordRingPlainWrappedAndEmptyAndTruncation) {
    auto f = create(1, kRes);
    ASSERT_NE(nullptr, f.h);
    TQvBlkSliceInfo& s = f.h->rec->slice;
    const uint64_t S = s.resStart;
    ASSERT_EQ(S + kRes, s.resEnd);

    // Before the pointers are set the file is its reserved area, written and
    // read linearly; reads end at the bytes written, and a write that does
    // not fit in the area is refused whole.
    const std::string ring = pattern(kRes, 4), data = pattern(0x2000, 5);
    ASSERT_EQ(int(kRes), tf_Write(0, ring.data(), kRes, f.h));
    EXPECT_EQ(ring, read(f.h, 0, kRes + 0x1000));
    char edge[100] = {};
    EXPECT_ERR(-1, QVFS_ERR_BLOCKRANGE, tf_Write(kRes - 10, edge, sizeof edge, f.h));
    EXPECT_EQ(-1, tf_Read(kRes, edge, sizeof edge, f.h));

    // A plain ring, then data behind it; truncation to exactly the ring's
    // length empties the data, one byte less is refused.
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, 0x1000, 0x4000));
    EXPECT_TRUE(synced(f));
    ASSERT_EQ(0x2000, tf_Write(0x3000, data.data(), 0x2000, f.h));
    EXPECT_EQ(ring.substr(0x1000, 0x3000) + data, read(f.h));
    EXPECT_EQ(0x5000, size_of(f.h));
    ASSERT_EQ(0, tf_ftruncate(f.h, 0x3000));
    EXPECT_EQ(s.dataStart, s.dataEnd);
    EXPECT_TRUE(synced(f));
    EXPECT_ERR(-1, 0, tf_ftruncate(f.h, 0x2FFF));
    ASSERT_EQ(0, tf_ftruncate(f.h, 0x4800));  // the data grows back
    EXPECT_EQ(ring.substr(0x1000, 0x3000) + data.substr(0, 0x1800), read(f.h));
    EXPECT_ERR(-1, QVFS_ERR_BLOCKRANGE, tf_ftruncate(f.h, df_GetDiskUnitSize() + 1));

    // Wrapped: from preStart to resEnd, then from resStart to preEnd; the
    // length is the reserved area plus preEnd - preStart.
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, 0x8000, 0x3000));
    EXPECT_EQ(s.dataStart, s.dataEnd);
    const uint32_t pre = (kRes - 0x8000) + 0x3000;
    ASSERT_EQ(0x2000, tf_Write(pre, data.data(), 0x2000, f.h));
    const std::string stream = ring.substr(0x8000) + ring.substr(0, 0x3000) + data;
    EXPECT_EQ(stream, read(f.h));
    EXPECT_EQ(int64_t(stream.size()), size_of(f.h));
    EXPECT_EQ(-1, tf_ftruncate(f.h, pre - 1));
    ASSERT_EQ(0, tf_ftruncate(f.h, pre + 16));
    EXPECT_EQ(int64_t(pre + 16), size_of(f.h));

    // preStart == preEnd: nothing to read before the data, while the length
    // counts the whole reserved area.
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, 0x2000, 0x2000));
    char b[4];
    EXPECT_EQ(-1, tf_Read(0, b, 4, f.h));
    EXPECT_EQ(int64_t(kRes), size_of(f.h));
    ASSERT_EQ(4, tf_Write(0, "head", 4, f.h));
    EXPECT_EQ("head", read(f.h));
    EXPECT_EQ("head", bytes_on_disk(f.name, S + kRes, 4));

    EXPECT_ERR(-1, QVFS_ERR_BADARG, tf_UpdataePreRecPtr(f.h, kRes, 0));  // outside the ring
    EXPECT_EQ(S + 0x2000, s.preStart);
    EXPECT_EQ(-1, tf_UpdataePreRecPtr(nullptr, 0, 0));
    EXPECT_EQ(-1, tf_ftruncate(nullptr, 0));
    EXPECT_EQ(0, tf_CloseFile(f.h));
}

TEST_F(FileIoTest, WritevSplitsEntriesAtTheRingEnd) {
    auto f = create(1, kRes);
    ASSERT_NE(nullptr, f.h);
    const uint64_t S = f.h->rec->slice.resStart;
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, 0, 0x100));  // ring [S, S + 0x100)

    char e1[] = "ABCDE", e3[] = "0123456789";
    iovec v[3] = {{e1, 5}, {e1, 0}, {e3, 10}};
    ASSERT_EQ(15, tf_Writev(0xFD, v, 3, f.h));
    EXPECT_EQ("ABC", bytes_on_disk(f.name, S + 0xFD, 3));
    EXPECT_EQ("DE0123456789", bytes_on_disk(f.name, S + kRes, 12));
    EXPECT_EQ(S + kRes + 12, f.h->rec->slice.dataEnd);
    EXPECT_TRUE(synced(f));

    // A wrapped ring splits one list over three segments.
    ASSERT_EQ(0, tf_UpdataePreRecPtr(f.h, kRes - 2, 2));  // [resEnd-2, resEnd) + [S, S+2)
    char w[] = "wxyz!";
    iovec parts[2] = {{w, 3}, {w + 3, 2}};
    ASSERT_EQ(5, tf_Writev(0, parts, 2, f.h));
    EXPECT_EQ("wx", bytes_on_disk(f.name, S + kRes - 2, 2));
    EXPECT_EQ("yz", bytes_on_disk(f.name, S, 2));
    EXPECT_EQ("!", bytes_on_disk(f.name, S + kRes, 1));
    // One segment: the caller's list goes whole.
    iovec tail[2] = {{e3, 4}, {e1, 2}};
    ASSERT_EQ(6, tf_Writev(5, tail, 2, f.h));
    EXPECT_EQ("wxyz!0123AB", read(f.h));

    // Refusals set no error code and write nothing.
    iovec huge[2] = {{nullptr, 0x30000000}, {nullptr, 0x30000000}};
    EXPECT_ERR(-1, 0, tf_Writev(0, nullptr, 1, f.h));
    EXPECT_ERR(-1, 0, tf_Writev(0, v, -1, f.h));
    EXPECT_ERR(-1, 0, tf_Writev(0, v, 0, f.h));
    EXPECT_ERR(-1, 0, tf_Writev(0, v, 3, nullptr));
    EXPECT_ERR(-1, 0, tf_Writev(0, huge, 2, f.h));
    EXPECT_EQ("wxyz!0123AB", read(f.h));
    EXPECT_EQ(0, tf_CloseFile(f.h));
}

}  // namespace
