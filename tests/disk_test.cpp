// The disk layer: allocation, release, bad blocks and remounts against a
// model of the disk's tables; metadata writes hit by faults; two processes
// allocating; format; mount across processes, damaged images, the version
// upgrade, the block-information scan and the flush thread.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "common/proc_lock.h"
#include "support/child.h"
#include "support/fixture.h"

namespace {

// ---- the disk's tables against a model

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
            for (uint32_t& n : image_.count) n = std::min(n, kN);  // a count above the disk's blocks is cut
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

// ---- rows computed by hand

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

// ---- metadata writes hit by faults; two processes allocating

using qvfs::plat::fault_clear;
using qvfs::plat::kFaultWrite;

class Alloc : public DiskTest {
protected:
    void SetUp() override {
        DiskTest::SetUp();
        path_ = ready_disk(0, 9);
    }
    std::string path_;
};

// A change needs one meta region that takes all its pieces; the image
// keeps it either way.
TEST_F(Alloc, MetadataWriteFailures) {
    fault(kFaultWrite, map_first(0), kMapSize);  // region 0's map fails at both places
    fault(kFaultWrite, map_second(0), kMapSize);
    ASSERT_EQ(0, alloc(0, 1));
    EXPECT_TRUE(meta_on_disk_matches(0, false, true)) << "region 1 carries the change";
    fault_clear();
    fault(kFaultWrite, map_first(1), kMapSize);
    ASSERT_EQ(1, alloc(0, 2));
    EXPECT_EQ(0, image(0).mapIndex);
    fault(kFaultWrite, map_first(0), kMapSize);
    ASSERT_EQ(2, alloc(0, 3));
    EXPECT_EQ(1, image(0).mapIndex) << "region 0 fell back to its second place";
    // Neither region: the call fails but the image keeps the change.
    fault(kFaultWrite, count_chunk(0, 0), kChunk);
    fault(kFaultWrite, current_chunk(1, 0), kChunk);
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, alloc(0, 4));
    EXPECT_EQ(QV_BLK_USED, image(0).map[3]);
    EXPECT_EQ(-1, df_ReleaseBlock(0, 3, 4, 0, 0));
    EXPECT_EQ(std::make_pair(QV_BLK_FREE, -1), std::make_pair(image(0).map[3], image(0).current[0][4]));
    // Zeroing the head fails: nothing changes.
    fault_clear();
    fault(kFaultWrite, block_addr(3), 0x80000);
    EXPECT_EQ(-1, alloc(0, 4));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[3]);
    // Bad marks: blocks bad already change nothing and write nothing; a
    // failed map write is reported and the image keeps the mark.
    fault_clear();
    ASSERT_EQ(0, df_TagBadUnit(path_.c_str(), block_addr(5), kBlockSize));  // blocks 5 and 6
    ASSERT_EQ(0, df_TagBadBlock(0, 6));
    for (uint32_t r = 0; r < 2; ++r)
        for (uint64_t at : {map_first(r), map_second(r)}) fault(kFaultWrite, at, kMapSize);
    EXPECT_EQ(0, df_TagBadUnit(path_.c_str(), block_addr(5), 2 * kBlockSize - 1));
    EXPECT_EQ(0, qvfs::plat::fault_hits());
    EXPECT_EQ(-1, df_TagBadBlock(0, 5));
    EXPECT_EQ(-1, df_TagBadUnit(path_.c_str(), block_addr(8), 1));
    EXPECT_EQ(std::make_tuple(QV_BLK_BAD, QV_BLK_BAD, QV_BLK_BADUNIT), std::make_tuple(image(0).map[5], image(0).map[6], image(0).map[8]));
}

// Both processes allocate for their own channels as fast as they can; the
// disk's lock makes every pick see the other's.
TEST_F(Alloc, TwoProcessesNeverShareABlock) {
    auto worker = [this](uint32_t base) {
        return Child::spawn([this, base](ChildLink& link) {
            int64_t go;
            CHILD_CHECK(link, df_Init() == 0 && df_DiskMount(path_.c_str()) == 0 && link.recv(&go));
            for (uint32_t c = base; c < base + 6; ++c) link.send(alloc(0, c));
            return 0;
        });
    };
    Child a = worker(0), b = worker(500);
    a.send(1), b.send(1);
    std::vector<int32_t> got;
    for (Child* c : {&a, &b})
        for (int i = 0; i < 6; ++i) {
            int64_t v;
            ASSERT_TRUE(c->recv(&v));
            if (v >= 0) got.push_back(int32_t(v));
        }
    EXPECT_CHILD_OK(a);
    EXPECT_CHILD_OK(b);
    EXPECT_EQ(std::make_pair(size_t{9}, size_t{9}), std::make_pair(got.size(), std::set<int32_t>(got.begin(), got.end()).size()))
        << "every block handed out once";
    EXPECT_EQ(9, std::count(image(0).map, image(0).map + 9, QV_BLK_USED));
    EXPECT_TRUE(meta_on_disk_matches(0));
}

// ---- format

class Format : public DiskTest {
protected:
    // Formats a new image of `bytes` with write faults on the (offset,
    // length) ranges, then disarms them: 0, or the errno of the failure.
    int format(int disk, uint64_t bytes, std::initializer_list<std::pair<uint64_t, uint64_t>> fail = {},
               uint64_t size = 0) {
        const std::string p = sbx_.add_disk(disk, bytes);
        for (auto [at, len] : fail) fault(qvfs::plat::kFaultWrite, at, len);
        errno = 0;
        const int r = df_DiskFormat(p.c_str(), 0, size) == 0 ? 0 : errno == 0 ? -1 : errno;
        qvfs::plat::fault_clear();
        return r;
    }
    bool nothing_written(int disk) {
        struct stat st {};
        return ::stat(sbx_.image_path(disk).c_str(), &st) == 0 && st.st_blocks == 0;
    }
    bool region_blank(int disk, uint32_t r) {
        return dev_zero(disk, map_first(r), kMapSize) && dev_zero(disk, current_chunk(r, 0), kChunk);
    }
};

// Below 1 GiB, or one byte short of a block by the device or by the
// request: refused, nothing written; exactly one block is a format.
TEST_F(Format, SizesThatHoldNoWholeBlock) {
    EXPECT_EQ(QVFS_ERR_FMT_TOOSMALL, format(0, kGiB - 512));
    EXPECT_EQ(QVFS_ERR_FMT_TOOSMALL, format(1, image_bytes_for(1) - 1));
    EXPECT_EQ(QVFS_ERR_FMT_TOOSMALL, format(2, image_bytes_for(4), {}, image_bytes_for(1) - 1));
    EXPECT_TRUE(nothing_written(0) && nothing_written(1) && nothing_written(2));
    ASSERT_EQ(0, format(6, image_bytes_for(1)));
    EXPECT_EQ(1u, image(6).head.tolblk);
    EXPECT_NEAR(double(image(6).head.createTime), double(time(nullptr)), 5);
    EXPECT_TRUE(meta_on_disk_matches(6));
    EXPECT_EQ(std::make_pair(0, -1), std::make_pair(image(6).mounted, g_astQvDisk[6].fd)) << "not mounted, closed";
}

// One header copy and one complete meta region are enough: region 0 goes
// with the primary copy, region 1 with the backup.
TEST_F(Format, NeedsOneHeaderCopyAndItsMetaRegion) {
    const std::pair<uint64_t, uint64_t> primary{kHeadPrimary, 512}, map0a{map_first(0), kMapSize},
        map0b{map_second(0), kMapSize};
    const uint64_t size = image_bytes_for(3);
    ASSERT_EQ(0, format(0, size, {primary}));
    EXPECT_TRUE(region_blank(0, 0)) << "only region 1 is written";
    EXPECT_TRUE(meta_on_disk_matches(0, false, true, false));
    EXPECT_EQ(0, std::memcmp(read_dev(0, kHeadBackup, 512).data(), &image(0).head, 512));
    ASSERT_EQ(0, format(1, size, {map0a, map0b}));
    EXPECT_TRUE(meta_on_disk_matches(1, false, true));
    // No complete region that goes with a written copy, or no copy at all.
    const int eio = QVFS_ERR_SYS * 2 + EIO;
    EXPECT_EQ(eio, format(2, size, {primary, {count_chunk(1, 7), kChunk}}));
    EXPECT_EQ(eio, format(3, size, {map0a, map0b, {current_chunk(1, 15), kChunk}}));
    EXPECT_EQ(eio, format(4, size, {primary, {kHeadBackup, 512}}));
    EXPECT_TRUE(region_blank(4, 0) && region_blank(4, 1));
    // Offline at the first header write: nothing at all is written.
    fault(qvfs::plat::kFaultOffline);
    EXPECT_NE(0, format(5, size));
    EXPECT_EQ(std::make_pair(true, -1), std::make_pair(nothing_written(5), g_astQvDisk[5].fd));
}

TEST_F(Format, OnlineCheckFollowsTheSharedParameter) {
    ready_disk(0, 1);
    fault(qvfs::plat::kFaultOffline);
    // {parameter, online}: 0 switches the check off, values above 1 are ignored.
    for (auto [on, online] : {std::pair{1u, 0}, {0u, 1}, {7u, 1}, {1u, 0}}) {
        EXPECT_EQ(0, df_SetOnlineCheck(on));
        const long hits = qvfs::plat::fault_hits();
        EXPECT_EQ(online, df_IsDiskOnline(g_astQvDisk[0].fd)) << on;
        EXPECT_EQ(online == 0, hits != qvfs::plat::fault_hits()) << "the device is asked only with the check on";
    }
}

// ---- mount

using qvfs::plat::kFaultRead;

class MountTest : public DiskTest {
protected:
    void expect_failed_mount(const std::string& path, int disk, int err) {
        EXPECT_ERR(-1, err, df_DiskMount(path.c_str()));
        EXPECT_EQ(std::make_pair(-1, (TQvDiskShare*)nullptr), std::make_pair(g_astQvDisk[disk].fd, g_astQvDisk[disk].share))
            << "the descriptor is closed again";
    }
    void patch_head(int disk, uint32_t offset, uint32_t value) {
        for (uint64_t at : {kHeadPrimary, kHeadBackup}) write_dev(disk, at + offset, &value, 4);
    }
    // A new block for a channel (a length no current block has room for)
    // whose header says `h`.
    int32_t new_block(uint32_t chn, int32_t fileType, TQvBlkInfo h) {
        const int32_t b = alloc(0, chn, fileType, 0x7FFFFFFF);
        EXPECT_GE(b, 0) << "errno " << errno;
        h.chn = chn;
        if (b >= 0) put_head(0, uint32_t(b), h);
        return b;
    }
};

TEST_F(MountTest, DamagedImagesFailCleanlyAndUnreadableCopiesAreSkipped) {
    expect_failed_mount(sbx_.add_disk(0, image_bytes_for(2)), 0, QVFS_ERR_NOTFORMATTED);
    const std::string p = ready_disk(1, 2);
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    patch_head(1, 64, kMaxBlocks + 1);  // tolblk
    expect_failed_mount(p, 1, QVFS_ERR_DAMAGED);
    patch_head(1, 4, 'X');  // "QVFSX": the magic must end after four letters
    expect_failed_mount(p, 1, QVFS_ERR_NOTFORMATTED);

    // A device cut short behind its header: shorter than the header says.
    const std::string cut = ready_disk(2, 2);
    ASSERT_EQ(0, df_DiskUnmout(cut.c_str(), 1));
    ASSERT_EQ(0, ::truncate(sbx_.image_path(2).c_str(), map_second(0)));
    expect_failed_mount(cut, 2, QVFS_ERR_DAMAGED);
    // The next mount gets the image again from the pool.
    ASSERT_EQ(0, ::truncate(sbx_.image_path(2).c_str(), image_bytes_for(2)));
    ASSERT_EQ(0, df_DiskMount(cut.c_str()));
    EXPECT_EQ(2u, image(2).head.tolblk);

    // An unreadable primary header: region 1 is loaded (here the only one
    // that records an allocation), its map from the second location.
    const std::string p3 = ready_disk(3, 3);
    ASSERT_EQ(0, alloc(3, 5));
    ASSERT_EQ(0, df_DiskUnmout(p3.c_str(), 1));
    const std::vector<uint8_t> zeros(kMapSize, 0);
    write_dev(3, map_first(0), zeros.data(), kMapSize);
    std::memset(image(3).map, 0, kMapSize);
    fault(kFaultRead, kHeadPrimary, 512);
    fault(kFaultRead, map_first(1), kMapSize);
    ASSERT_EQ(0, df_DiskMount(p3.c_str())) << errno;
    const TQvDiskShare& s = image(3);
    EXPECT_EQ(std::make_tuple(QV_BLK_USED, 0, 1), std::make_tuple(s.map[0], s.current[0][5], s.mapIndex));
}

TEST_F(MountTest, SecondProcessReadsOnlyTheHeader) {
    const std::string p = ready_disk(0, 2);
    EXPECT_EQ(0, df_DiskMount(p.c_str())) << "mounting twice in one process";
    EXPECT_EQ(std::make_tuple(1, 0, 0), std::make_tuple(image(0).mounted, image(0).stat, df_IsDiskReady(0)));
    image(0).map[1] = QV_BLK_BAD;  // in the image only: a reload would lose it

    Child c = Child::spawn([&](ChildLink& link) {
        CHILD_CHECK(link, df_Init() == 0);
        fault(kFaultRead, kHeadPrimary + 512, kHeadBackup - kHeadPrimary - 512);  // only the headers may be read
        fault(kFaultRead, kHeadBackup + 512);
        CHILD_CHECK(link, df_DiskMount(p.c_str()) == 0 && qvfs::plat::fault_hits() == 0);
        CHILD_CHECK(link, g_astQvDisk[0].share->map[1] == QV_BLK_BAD);
        link.send(g_astQvDisk[0].share->mounted);
        int64_t v = 0;
        CHILD_CHECK(link, link.recv(&v) && df_IsDiskReady(0) == 0);  // after the parent's plain unmount
        link.send(1);
        CHILD_CHECK(link, link.recv(&v) && df_IsDiskReady(0) == -1);  // after the forced one
        CHILD_CHECK(link, g_astQvDisk[0].fd >= 0);  // kept until its own unmount
        CHILD_CHECK(link, df_DiskUnmout(p.c_str(), 0) == 0 && g_astQvDisk[0].fd == -1);
        return 0;
    });
    ASSERT_TRUE(c.expect(2));
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 0));
    EXPECT_EQ(-1, g_astQvDisk[0].fd);
    EXPECT_EQ(1, image(0).mounted);
    EXPECT_EQ(0, df_IsDiskReady(0)) << "still mounted by the other process";
    c.send(1);
    ASSERT_TRUE(c.expect(1));
    ASSERT_EQ(0, df_DiskMount(p.c_str()));
    EXPECT_EQ(2, image(0).mounted);
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    EXPECT_EQ(std::make_tuple(0, 1), std::make_tuple(image(0).mounted, image(0).stat));
    c.send(1);
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(0, image(0).mounted) << "a plain unmount never counts below zero";
}

// Version 1 kept no block-count table: the first mount rebuilds it from the
// headers of the blocks in use and writes it, and the version, to the disk.
TEST_F(MountTest, UpgradesAVersionOneDisk) {
    const std::string p = ready_disk(0, 4);
    const struct { uint32_t chn; int32_t code; uint32_t type; } uses[] = {{3, 0, 0}, {3, 5, 3}, {700, 0, 0}, {3, 0, 0}};
    for (auto [chn, code, type] : uses) {
        TQvBlkInfo h{};
        h.dataType = type;
        new_block(chn, code, h);
    }
    ASSERT_EQ(0, df_TagBadBlock(0, 3));  // a bad block is not counted
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    patch_head(0, 8, 1);
    const std::vector<uint8_t> junk(0x10000, 0x77);  // the old count tables
    write_dev(0, count_chunk(0, 15), junk.data(), junk.size());
    write_dev(0, count_chunk(1, 15), junk.data(), junk.size());

    // Region 0 cannot take the rebuilt table: it stays in the image anyway.
    fault(kFaultWrite, count_chunk(0, 0), kChunk);
    ASSERT_EQ(0, df_DiskMount(p.c_str())) << errno;
    EXPECT_EQ(2u, df_GetDiskVersion(p.c_str()));
    const auto& n = image(0).count;
    EXPECT_EQ(std::make_tuple(1u, 1u, 1u, 0u), std::make_tuple(n[0][3], n[3][3], n[0][700], n[0][5]));
    EXPECT_EQ(3, image(0).current[0][3]) << "current tables are read as stored";
    EXPECT_TRUE(meta_on_disk_matches(0, false, true));
    EXPECT_EQ(0x77, read_dev(0, count_chunk(0, 0), 1)[0]);

    // Both regions refusing the table fails the mount.
    ASSERT_EQ(0, df_DiskUnmout(p.c_str(), 1));
    patch_head(0, 8, 0);
    fault(kFaultWrite, count_chunk(1, 9), kChunk);
    EXPECT_EQ(-1, df_DiskMount(p.c_str()));
    EXPECT_EQ(-1, g_astQvDisk[0].fd);
}

// The scan reports the header of every block in use. With no time budget
// every slice ends after one block; the cursor carries the scan on, and the
// slices together give what one pass gives.
TEST_F(MountTest, BlockInfoScansTheHeadersOfBlocksInUseInSlices) {
    const std::string path = ready_disk(0, 9);
    TQvDiskBlkInfo info[9];
    EXPECT_EQ(0, df_GetBlockInfo(path.c_str(), info, 9));
    for (uint32_t c = 0; c < 5; ++c) {
        TQvBlkInfo h{};
        h.startTime = 1000 * c, h.endTime = 1000 * c + 60, h.dataType = 5, h.cnt = c + 1;
        new_block(c, 7, h);
    }
    ASSERT_EQ(0, df_ReleaseBlock(0, 0, 0, 5, 0x200000));
    ASSERT_EQ(0, df_TagBadBlock(0, 2));
    std::vector<uint32_t> ids;
    uint32_t cursor = 0;
    int32_t remaining = 9;
    int slices = 0;
    for (; remaining > 0 && slices < 20; ++slices) {
        const uint32_t before = cursor;
        const int n = _df_GetBlockInfo(info, 0, &cursor, &remaining, 0);
        ASSERT_TRUE(n >= 0 && cursor > before);
        for (int i = 0; i < n; ++i) ids.push_back(info[i].blkId);
    }
    EXPECT_EQ(std::make_pair(std::vector<uint32_t>{1, 3, 4}, true), std::make_pair(ids, slices > 1));
    cursor = 9, remaining = 3;
    EXPECT_EQ(0, _df_GetBlockInfo(info, 0, &cursor, &remaining, 200));
    EXPECT_EQ(0, remaining) << "a cursor past the disk ends the scan";
    std::memset(info, 0xAB, sizeof info);
    EXPECT_EQ(0, df_GetBlockInfo(path.c_str(), info, 1)) << "only block 0 is examined";
    ASSERT_EQ(3, df_GetBlockInfo(path.c_str(), info, 9));
    const TQvDiskBlkInfo& i = info[2];  // fileType: the file type of the header's block type 5
    EXPECT_EQ(std::make_tuple(4u, uint64_t{4000}, uint64_t{4060}, 5u, 7u, 0xABABABABu, 0xABABABABu, 0xABABABABu),
              std::make_tuple(i.blkId, i.startTime, i.endTime, i.cnt, i.fileType, i.reserved0, i.reserved2, info[3].blkId))
        << "reserved words untouched; one record per block in use";
}

// Marks of 1 stay 1, larger ones add up; a marked disk is flushed by the
// next pass. A disk that is ready while this process has closed its
// descriptor is passed over.
TEST_F(MountTest, SlowFlushThreadTurnsMarksIntoFlushes) {
    const std::string p0 = ready_disk(0, 1);
    const std::string p1 = ready_disk(1, 1);
    Child holder = Child::spawn([&](ChildLink& link) {
        CHILD_CHECK(link, df_Init() == 0 && df_DiskMount(p1.c_str()) == 0);
        link.send(1);
        int64_t v;
        link.recv(&v, 60000);
        return 0;
    });
    ASSERT_TRUE(holder.expect(1));
    ASSERT_EQ(0, df_DiskUnmout(p1.c_str(), 0));  // disk 1 stays ready, our fd is closed
    const long disk1Flushes = flush_count(1);       // the unmount's own flush
    {
        qvfs::ProcLockGuard pass(g_tTimerMutex);  // hold the flush thread off
        for (int i = 0; i < 3; ++i) ASSERT_EQ(0, df_SetSyncMark(0, 1));
        EXPECT_EQ(1, g_astQvDisk[0].syncMark);
        ASSERT_EQ(0, df_SetSyncMark(0, 2));
        ASSERT_EQ(0, df_SetSyncMark(0, 1));
        EXPECT_EQ(3, g_astQvDisk[0].syncMark);
        ASSERT_EQ(0, df_SetSyncMark(1, 5));
    }
    EXPECT_EQ(-1, df_SetSyncMark(25, 1));
    // Waits (at most 8 s) for disk 0's flush count to pass `n`.
    auto flushed_past = [](long n) {
        for (int i = 0; i < 800 && flush_count(0) <= n; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return flush_count(0) > n;
    };
    const long before = flush_count(0);
    ASSERT_TRUE(flushed_past(before));
    EXPECT_EQ(0, g_astQvDisk[0].syncMark);
    // One more full pass for disk 1 to have been seen.
    ASSERT_EQ(0, df_SetSyncMark(0, 2));
    ASSERT_TRUE(flushed_past(before + 1));
    EXPECT_EQ(disk1Flushes, flush_count(1));
    holder.send(0);
    EXPECT_CHILD_OK(holder);
}

}  // namespace
