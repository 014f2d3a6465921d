// The disk's tables against a model: seeded random sequences of
// allocations, releases, bad blocks and bad units, block headers written as
// the block-file layer writes them, and remounts that reload the image from
// the device. After every step the shared image must equal the model's
// image, both meta regions on the device the model's copy of what was
// written, and the queries, statfs and the zeroed block heads what the model
// says. Beside it, rows computed by hand.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <sstream>

#include "support/fixture.h"

namespace {

using namespace qvfs::disk;
using namespace qvfs::test;

constexpr uint32_t kN = 9;           // blocks of the model's disk
constexpr uint32_t kPiece = 0x80000;  // block heads are zeroed in these

struct Tables {
    std::vector<uint8_t> map = std::vector<uint8_t>(kMapSize);
    std::vector<int32_t> current = std::vector<int32_t>(kTypes * kChannels, -1);
    std::vector<uint32_t> count = std::vector<uint32_t>(kTypes * kChannels);
};

// The row of a file type (types beyond 0..7 read row 0), and the length of
// the head of a block of that row.
int row(int fileType) {
    static const int rows[8] = {0, 0, 2, 1, 2, 3, 4, 5};
    return fileType < 0 || fileType > 7 ? 0 : rows[fileType];
}
uint32_t head_len(int row) { return row == 1 || row == 3 || row == 4 || row == 5 ? 0x1000000 : 0x200000; }

class DiskModel : public DiskTest {
protected:
    void SetUp() override {
        DiskTest::SetUp();
        path_ = ready_disk(0, kN);
    }
    bool run(uint32_t seed, int ops);
    // The image, the device's meta regions and the queries against the model.
    void check(const std::vector<std::set<uint32_t>>& marks);

    std::string path_;
    Tables image_, dev_;  // the shared image; what both meta regions hold
    uint64_t next_[kN] = {};
    uint32_t slice_[kN] = {};
};

void DiskModel::check(const std::vector<std::set<uint32_t>>& marks) {
    const TQvDiskShare& s = image(0);
    EXPECT_EQ(0, std::memcmp(image_.map.data(), s.map, kN)) << "status map";
    EXPECT_EQ(0, std::memcmp(image_.current.data(), s.current, sizeof s.current)) << "current-block table";
    EXPECT_EQ(0, std::memcmp(image_.count.data(), s.count, sizeof s.count)) << "block-count table";
    for (uint32_t r = 0; r < 2; ++r) {
        for (uint64_t at : {map_first(r), map_second(r)})
            EXPECT_TRUE(dev_.map == read_dev(0, at, kMapSize)) << "region " << r << " map at 0x" << std::hex << at;
        for (uint32_t t = 0; t < kTypes; ++t) {
            EXPECT_EQ(0, std::memcmp(&dev_.current[t * kChannels], read_dev(0, current_chunk(r, t), kChunk).data(), kChunk))
                << "region " << r << " current chunk " << t;
            EXPECT_EQ(0, std::memcmp(&dev_.count[t * kChannels], read_dev(0, count_chunk(r, t), kChunk).data(), kChunk))
                << "region " << r << " count chunk " << t;
        }
    }
    uint32_t freeBlocks = 0, bad = 0;
    for (uint32_t b = 0; b < kN; ++b) {
        freeBlocks += image_.map[b] == QV_BLK_FREE, bad += is_bad(image_.map[b]);
        EXPECT_EQ(image_.map[b] != QV_BLK_FREE, df_IsBlockAllocated(0, int32_t(b))) << b;
        for (uint32_t off : marks[b]) EXPECT_EQ(0xA5, read_dev(0, block_addr(b) + off, 1)[0]) << b << "+" << off;
    }
    TQvStatfs st{};
    ASSERT_EQ(0, df_DiskStatfs(path_.c_str(), &st));
    EXPECT_EQ((std::vector<uint64_t>{kN * 2097152ull, freeBlocks * 2097152ull, bad}),
              (std::vector<uint64_t>{st.f_blocks, st.f_bfree, st.f_spare[0]}));
    for (uint32_t c : {0u, 3u, 1023u})
        for (uint32_t code = 0; code < kTypes; ++code) {
            const size_t i = size_t(row(int(code))) * kChannels + c;
            EXPECT_EQ(image_.current[i], df_GetUsedInBlockOfDataTypeEx(0, c, code)) << c << " " << code;
            EXPECT_EQ(int32_t(image_.count[i] * 1024), df_GetBlockNumOfDataType(path_.c_str(), c, code));
        }
}

bool DiskModel::run(uint32_t seed, int ops) {
    std::mt19937 rng(seed);
    auto pick = [&](int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); };
    std::vector<std::set<uint32_t>> marks(kN);  // offsets in a block holding 0xA5
    std::map<uint32_t, std::pair<int, uint32_t>> owner;  // the row and channel a block went to
    std::vector<uint64_t> zeroed;                        // device bytes that held a mark and must be zero
    std::ostringstream log;
    log << "seed " << seed << "\n";
    // Zeroes [0, len) of a block's head in the model; the marks there must be zero now.
    auto clear_head = [&](uint32_t b, uint32_t len) {
        for (auto it = marks[b].begin(); it != marks[b].end() && *it < len / kPiece * kPiece;) {
            zeroed.push_back(block_addr(b) + *it);
            it = marks[b].erase(it);
        }
        if (len >= kPiece) next_[b] = 0, slice_[b] = 0;
    };
    auto written = [&](int t, bool current, bool count) {
        dev_.map = image_.map;
        const size_t at = size_t(t) * kChannels;
        if (current) std::copy_n(&image_.current[at], kChannels, &dev_.current[at]);
        if (count) std::copy_n(&image_.count[at], kChannels, &dev_.count[at]);
    };
    for (int op = 0; op < ops && !HasFailure(); ++op) {
        const int kind = int(pick(0, 99));
        const uint32_t b = uint32_t(pick(0, kN - 1));
        errno = 0;
        if (kind < 40) {
            const uint32_t c = std::vector<uint32_t>{0, 3, 1023}[size_t(pick(0, 2))];
            const int ft = int(pick(-1, 9)), t = row(ft);
            const size_t i = size_t(t) * kChannels + c;
            const int32_t cur = image_.current[i];
            const uint64_t next = cur >= 0 ? next_[cur] : 0;
            const int32_t lens[] = {0, 100000, 0x7FFFFFFF, int32_t(0x40000000 - next - 0x500000 - 1),
                                    int32_t(0x40000000 - next - 0x500000)};
            const int32_t len = lens[pick(0, 4)];
            log << op << ": allocate for channel " << c << ", file type " << ft << ", length " << len << "\n";
            // The current block is kept while it is in use, has a free slice
            // entry and leaves 5 MiB behind the request.
            const bool room = cur >= 0 && image_.map[cur] == QV_BLK_USED && slice_[cur] < 4095 &&
                              next <= 0x40000000 &&
                              uint64_t(int64_t(int32_t(uint32_t(len) + 0x500000))) < 0x40000000 - next;
            int32_t want = cur;
            if (!room) {
                image_.current[i] = -1;
                want = -1;
                for (uint32_t k = 0; k < kN && want < 0; ++k)
                    if (image_.map[k] == QV_BLK_FREE) want = int32_t(k);
                if (want >= 0) {
                    image_.map[want] = QV_BLK_USED, image_.current[i] = want, ++image_.count[i];
                    owner[uint32_t(want)] = {t, c};
                    clear_head(uint32_t(want), head_len(t));
                    written(t, true, true);
                }
            }
            EXPECT_EQ(want, alloc(0, c, ft, len));
            EXPECT_TRUE(want >= 0 || errno == QVFS_ERR_BADHANDLE) << "a full disk: errno " << errno;
        } else if (kind < 60) {
            // Mostly with the row and channel the block went to.
            auto [t, c] = owner.count(b) && pick(0, 4) > 0 ? owner[b] : std::pair{int(pick(0, 16)), uint32_t(pick(0, 3))};
            const uint32_t len = uint32_t(std::vector<int64_t>{0, kPiece - 1, 3 * kPiece + 7, 0x1000000, 0x2000000}[size_t(pick(0, 4))]);
            log << op << ": release " << b << " as row " << t << " channel " << c << ", clearing " << len << "\n";
            if (image_.map[b] != QV_BLK_FREE) {
                clear_head(b, len == 0 || len > 0x1000000 ? 0x1000000 : len);
                image_.map[b] = QV_BLK_FREE;
                const size_t i = size_t(t) * kChannels + c;
                const bool wasCurrent = t < 16 && image_.current[i] == int32_t(b);
                if (wasCurrent) image_.current[i] = -1;
                if (t < 16 && image_.count[i] > 0) --image_.count[i];
                written(t % 16, wasCurrent, t < 16);
            }
            EXPECT_EQ(0, df_ReleaseBlock(0, int32_t(b), c, uint32_t(t), len));
        } else if (kind < 75) {
            // The block-file layer's header: next and the highest slice, and a mark further in.
            next_[b] = uint64_t(pick(0, 3) == 0 ? pick(0x3FA00, 0x40000) : pick(0x200, 0x3FA00)) * 0x1000;
            slice_[b] = uint32_t(pick(0, 3) == 0 ? pick(4093, 4096) : pick(0, 4092));
            const uint32_t mark = uint32_t(pick(512, 0x1400000));
            log << op << ": header of " << b << ": next 0x" << std::hex << next_[b] << std::dec << ", slice "
                << slice_[b] << ", mark at " << mark << "\n";
            TQvBlkInfo h{};
            h.next = next_[b], h.slice = slice_[b];
            put_head(0, b, h);
            const uint8_t a5 = 0xA5;
            write_dev(0, block_addr(b) + mark, &a5, 1);
            marks[b].insert(mark);
        } else if (kind < 82) {
            log << op << ": block " << b << " bad\n";
            image_.map[b] = QV_BLK_BAD;
            written(0, false, false);
            EXPECT_EQ(0, df_TagBadBlock(0, int32_t(b)));
        } else if (kind < 88) {
            // Every block that overlaps [offset, offset + length], its end byte included.
            const uint64_t off = uint64_t(pick(0, int64_t(block_addr(kN + 1)) - 1));
            const uint32_t len = uint32_t(std::vector<int64_t>{1, 512, kGiB - 1, kGiB, 2 * kGiB}[size_t(pick(0, 4))]);
            log << op << ": bad unit at 0x" << std::hex << off << " length 0x" << len << std::dec << "\n";
            bool changed = false;
            for (uint32_t k = 0; k < kN; ++k) {
                if (off + len <= kDataStart || off + len < block_addr(k) || off >= block_addr(k + 1)) continue;
                if (is_bad(image_.map[k])) continue;
                image_.map[k] = QV_BLK_BADUNIT, changed = true;
            }
            if (changed) written(0, false, false);
            EXPECT_EQ(0, df_TagBadUnit(path_.c_str(), off, len));
        } else {
            // A remount by the only process: the image comes from the device.
            log << op << ": remount\n";
            EXPECT_EQ(0, df_DiskUnmout(path_.c_str(), 1));
            TQvDiskShare& s = image(0);
            std::memset(s.map, 0x5A, sizeof s.map + sizeof s.current + sizeof s.count);
            EXPECT_EQ(0, df_DiskMount(path_.c_str())) << errno;
            image_ = dev_;
        }
        check(marks);
        for (uint64_t at : zeroed) EXPECT_EQ(0, read_dev(0, at, 1)[0]) << "not zeroed: 0x" << std::hex << at;
        zeroed.clear();
    }
    if (HasFailure()) ADD_FAILURE() << log.str();
    return !HasFailure();
}

TEST_F(DiskModel, FixedSeeds) {
    for (uint32_t seed = 1; seed <= 3 && run(seed, 150); ++seed) {
    }
}

TEST_F(DiskModel, SlowManySeeds) {
    for (uint32_t seed = 100; seed < 110 && run(seed, 600); ++seed) {
    }
}

// ---- rows computed by hand ----------------------------------------------------------

// A 2 TB device: 1861 blocks behind 0x41100000; ten blocks taken and one
// bad leave 1850 blocks of 2^21 sectors.
TEST_F(DiskTest, StatfsOfA1861BlockDisk) {
    const std::string p = sbx_.add_disk(0, 2000398934016ull);
    ASSERT_EQ(0, df_DiskFormat(p.c_str(), 0, 0));
    ASSERT_EQ(0, df_DiskMount(p.c_str()));
    const TQvDiskHead& h = image(0).head;
    EXPECT_EQ(std::make_tuple(2u, uint64_t{0x41100000}, 1861u, uint64_t{0x1D181100000}),
              std::make_tuple(h.ver, h.dataStart, h.tolblk, h.dataEnd));
    for (uint32_t c = 0; c < 10; ++c) ASSERT_EQ(int32_t(c), alloc(0, c));
    ASSERT_EQ(0, df_TagBadBlock(0, 100));
    TQvStatfs st;
    std::memset(&st, 0xEE, sizeof st);
    ASSERT_EQ(0, df_DiskStatfs(p.c_str(), &st));
    EXPECT_EQ(std::make_tuple(0x51564653u, 512u, uint64_t{3902799872}, uint64_t{3879731200}, uint64_t{3879731200}, 1u),
              std::make_tuple(st.f_type, st.f_bsize, st.f_blocks, st.f_bfree, st.f_bavail, st.f_spare[0]));
    EXPECT_EQ(0xEEEEEEEEEEEEEEEEull, st.f_files) << "other fields are left alone";
}

// The current block is reused while the request leaves 5 MiB free behind
// `next` and the directory has a free entry.
TEST_F(DiskModel, ReuseRuleByHand) {
    ASSERT_EQ(0, alloc(0, 1));
    const int32_t fits = int32_t(kBlockSize - 0x300000 - 0x500000 - 1);
    const struct { uint64_t next; uint32_t slice; int32_t fileType, len, want; } steps[] = {
        {0x300000, 1, 0, fits, 0},
        {0x300000, 1, 1, 0, 0},  // file type 1 shares the REC row
        {0x300000, 1, 0, fits + 1, 1},
        {0x300000, 4095, 0, 0, 2},         // directory full
        {kBlockSize + 1ull, 0, 0, 0, 3},   // a damaged header never fits
        {0x300000, 0, 0, -0x600000, 4},    // a negative need compares as a huge one
    };
    int32_t current = 0;
    for (const auto& s : steps) {
        TQvBlkInfo h{};
        h.next = s.next, h.slice = s.slice;
        put_head(0, uint32_t(current), h);
        EXPECT_EQ(s.want, current = alloc(0, 1, s.fileType, s.len)) << s.want;
    }
    EXPECT_EQ(5u, image(0).count[0][1]);
}

// Ranges of device bytes: one ending exactly at the data area; one inside
// block 3; a whole block's length from block 0's start (its end byte lies in
// block 1); one running past the data area.
TEST_F(DiskModel, BadUnitRangesByHand) {
    const struct { uint64_t off; uint32_t len; std::vector<uint32_t> bad; } steps[] = {
        {0, 0x41100000, {}},
        {kDataStart + 3 * kGiB + 10, 20, {3}},
        {kDataStart, kBlockSize, {0, 1, 3}},
        {kDataStart + 7 * kGiB + 5, 2 * kBlockSize, {0, 1, 3, 7, 8}},
    };
    for (const auto& s : steps) {
        EXPECT_EQ(0, df_TagBadUnit(path_.c_str(), s.off, s.len));
        std::vector<uint32_t> bad;
        for (uint32_t b = 0; b < kN; ++b)
            if (image(0).map[b] == QV_BLK_BADUNIT) bad.push_back(b);
        EXPECT_EQ(s.bad, bad) << std::hex << s.off;
    }
}

}  // namespace
