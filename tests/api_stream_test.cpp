// The stream calls against a model: seeded random sequences of writes,
// gathering writes with random splits, seeks, reads, truncations, pre-record
// pointers on ring files, access bits, closes and reopens (some in another
// process), each call checked against a byte-string model of the file. Beside
// it, rows computed by hand (the mapping of file positions onto the block,
// a wrapped ring read end to end), so that model and code cannot share a
// misreading of the ring.
#include <gtest/gtest.h>
#include <sys/uio.h>

#include <algorithm>
#include <random>
#include <sstream>

#include "support/child.h"
#include "support/fixture.h"

namespace {

using namespace qvfs::test;
constexpr int64_t kUnit = 1ll << 30;
constexpr uint64_t kFirstData = 0x200000;  // a fresh REC block's first file starts behind its directory

// What the stream calls must show of one file. `area` shadows the device from
// the reserved area's start (ring files) or the data's start (plain files).
struct Model {
    bool ring = false;
    uint64_t R = 0;           // reserved area of a ring file
    bool ptrs = false;        // pre-record pointers set
    uint64_t ps = 0, pe = 0;  // the valid ring inside the area
    uint64_t dlen = 0;        // main data
    std::vector<uint8_t> area;

    bool linear() const { return ring && !ptrs; }  // before the pointers: one piece from the area's start
    uint64_t ring_read() const { return !ptrs ? 0 : ps <= pe ? pe - ps : R - ps + pe; }
    uint64_t ring_size() const { return !ptrs ? 0 : ps < pe ? pe - ps : R + pe - ps; }  // ps == pe counts R
    uint64_t size() const { return ring_size() + dlen; }
    uint64_t index(uint64_t p) const {
        const uint64_t pre = ring_read();
        if (linear()) return p;
        if (p >= pre) return R + p - pre;
        return ps <= pe || p < R - ps ? ps + p : p - (R - ps);
    }
    void write(uint64_t p, const std::vector<uint8_t>& d) {
        for (size_t k = 0; k < d.size(); ++k) {
            const uint64_t i = index(p + k);
            if (i >= area.size()) area.resize(i + 1);
            area[i] = d[k];
        }
        if (!linear() && p + d.size() > ring_read()) dlen = std::max(dlen, p + d.size() - ring_read());
    }
    // A read of n at p: the bytes, or -1 (nothing there).
    int64_t read(uint64_t p, uint64_t n, std::vector<uint8_t>* out) const {
        const uint64_t end = std::min(p + n, linear() ? kUnit - kFirstData : ring_read() + dlen);
        if (p >= end) return -1;
        out->clear();
        for (uint64_t q = p; q < end; ++q) out->push_back(index(q) < area.size() ? area[index(q)] : 0);
        return int64_t(out->size());
    }
};

struct Handle {
    int fd;
    int flags;
    int64_t pos = 0;
    bool can_write() const { return (flags & 3) != 0; }
    bool can_read() const { return (flags & 2) != 0 || (flags & 1) == 0; }
};

class StreamModel : public ApiTest {
protected:
    void SetUp() override {
        ApiTest::SetUp();
        disk1_ = ready_disk(1, 64);  // a fresh block for every run
    }
    // One file (channel = seed) through `ops` random calls. Returns false
    // after reporting the seed and the calls made up to the failure.
    bool run(uint32_t seed, int ops);
    std::string disk1_;
};

bool StreamModel::run(uint32_t seed, int ops) {
    std::mt19937 rng(seed);
    auto pick = [&](int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); };
    Model m;
    m.ring = pick(0, 1) == 1;
    m.R = m.ring ? uint64_t(pick(1, 0x20000)) : 0;
    std::ostringstream log;
    log << "seed " << seed << (m.ring ? ", ring file, reserved " : ", plain file") << m.R << "\n";
    TQvfsOpenParam p = param(seed, m.ring ? 1 : 0, int32_t(m.R), 5, 1);
    char buf[64] = {};
    std::vector<Handle> hs{{qvfs_OpenV2(&p, buf, QVFS_O_RDWR), QVFS_O_RDWR}};
    const std::string name = buf;
    EXPECT_GE(hs[0].fd, 0) << "errno " << errno;
    std::vector<uint8_t> got, want;
    // Compares the whole file, read through a new handle, with the model.
    auto whole = [&](const char* where) {
        if (m.linear()) return;
        std::vector<uint8_t> all;
        m.read(0, m.size(), &all);
        EXPECT_EQ(all, read_all(name)) << where;
    };
    for (int op = 0; op < ops && !HasFailure(); ++op) {
        Handle& h = hs[size_t(pick(0, int64_t(hs.size()) - 1))];
        const int kind = int(pick(0, 99));
        const uint32_t dataSeed = seed * 100000 + uint32_t(op);
        errno = 0;
        log << op << ": handle " << h.fd << " at " << h.pos << ": ";
        if (kind < 30 && h.pos < (4 << 20)) {
            const uint32_t n = uint32_t(pick(0, 7) == 0 ? 4096 * pick(1, 3) : pick(1, 20000));
            const auto d = pattern(dataSeed, 0, n);
            log << "write " << n << "\n";
            EXPECT_EQ(h.can_write() ? int(n) : -1, qvfs_Write(h.fd, d.data(), n));
            EXPECT_EQ(0, errno);
            if (h.can_write()) m.write(uint64_t(h.pos), d), h.pos += n;
        } else if (kind < 45 && h.pos < (4 << 20)) {
            const auto d = pattern(dataSeed, 0, 40000);
            iovec iov[4];
            const int count = int(pick(1, 4));
            size_t sum = 0;
            log << "writev";
            for (int i = 0; i < count; ++i) {
                iov[i] = {const_cast<uint8_t*>(d.data()) + sum, size_t(pick(0, 3) == 0 ? 0 : pick(1, 9000))};
                sum += iov[i].iov_len;
                log << " " << iov[i].iov_len;
            }
            log << "\n";
            const bool ok = h.can_write() && sum > 0;  // only empty pieces: nothing to map
            EXPECT_EQ(ok ? int(sum) : -1, qvfs_Writev(h.fd, iov, count));
            EXPECT_EQ(0, errno);
            if (ok) m.write(uint64_t(h.pos), std::vector<uint8_t>(d.begin(), d.begin() + long(sum))), h.pos += sum;
        } else if (kind < 65) {
            const uint32_t n = uint32_t(pick(1, 30000));
            log << "read " << n << "\n";
            got.assign(n, 0xEE);
            const int64_t r = h.can_read() ? m.read(uint64_t(h.pos), n, &want) : -1;
            EXPECT_EQ(r, qvfs_Read(h.fd, got.data(), n));
            EXPECT_EQ(0, errno);
            if (r > 0) {
                got.resize(size_t(r)), h.pos += r;
                EXPECT_EQ(want, got);
            }
        } else if (kind < 75) {
            const int whence = m.linear() ? 0 : int(pick(0, 3));  // 3 counts from the start
            const int64_t size = int64_t(m.size());
            const int64_t offs[] = {pick(-size - 100, size + 100), kUnit - (whence == 2 ? size : 0),
                                    kUnit + 1, -1, INT64_MIN};
            const int64_t off = offs[pick(0, 9) < 6 ? 0 : pick(1, 4)];
            const int64_t base = whence == 1 ? h.pos : whence == 2 ? size : 0;
            const int64_t target = int64_t(uint64_t(base) + uint64_t(off));
            h.pos = target < 0 || target > kUnit ? 0 : target;
            log << "seek " << off << " from " << whence << "\n";
            EXPECT_EQ(h.pos, qvfs_Seek(h.fd, off, whence));
        } else if (kind < 80 && !m.linear()) {
            const int64_t pre = int64_t(m.ring_size());
            const int64_t len = pick(0, 2) == 0 ? pre - pick(-1, 1) : pick(0, int64_t(m.size()) + 20000);
            log << "truncate " << len << "\n";
            EXPECT_EQ(len < pre ? -1 : 0, qvfs_ftruncate(h.fd, len));
            if (len >= pre) m.dlen = uint64_t(len - pre);
        } else if (kind < 83 && m.ring) {
            m.ps = uint64_t(pick(0, int64_t(m.R)));
            m.pe = pick(0, 9) == 0 ? m.ps : uint64_t(pick(0, int64_t(m.R)));
            log << "pointers " << m.ps << " " << m.pe << "\n";
            EXPECT_EQ(0, qvfs_UpdataePreRecPtr(h.fd, int32_t(m.ps), int32_t(m.pe)));
            m.ptrs = true, m.dlen = 0;
        } else if (kind < 87) {
            if (pick(0, 1) == 0 || hs.size() == 1) {
                const int flags = int(pick(0, 3));
                log << "open with flags " << flags << "\n";
                hs.push_back({open_name(name, flags), flags});
                EXPECT_GE(hs.back().fd, 0);
            } else {
                log << "close\n";
                EXPECT_EQ(0, qvfs_Close(h.fd));
                hs.erase(hs.begin() + (&h - hs.data()));
            }
        } else if (kind < 90) {
            log << "fsync\n";
            EXPECT_EQ(h.can_write() ? 0 : -1, qvfs_fsync(h.fd));
        } else if (kind < 94) {
            // Every handle closed: the next open loads the file from the disk.
            log << "close all, reopen\n";
            for (const Handle& x : hs) EXPECT_EQ(0, qvfs_Close(x.fd));
            whole("after reopen");
            hs = {{open_name(name, QVFS_O_RDWR), QVFS_O_RDWR}};
        } else if (kind < 96 && !m.linear()) {
            // Another process finds the file as left on the disk and appends.
            const uint32_t n = uint32_t(pick(1, 9000));
            const auto d = pattern(dataSeed, 0, n);
            log << "another process appends " << n << "\n";
            for (const Handle& x : hs) EXPECT_EQ(0, qvfs_Close(x.fd));
            const int64_t r = m.read(0, m.size() + 1, &want);
            Child c = Child::spawn([&](ChildLink& link) {
                const int fd = open_name(name, QVFS_O_RDWR);
                std::vector<uint8_t> all(m.size() + 1);
                CHILD_CHECK(link, fd >= 0 && qvfs_Read(fd, all.data(), uint32_t(all.size())) == r);
                CHILD_CHECK(link, r < 0 || std::equal(want.begin(), want.end(), all.begin()));
                CHILD_CHECK(link, qvfs_Seek(fd, 0, 2) == int64_t(m.size()) && qvfs_Write(fd, d.data(), n) == int(n));
                return qvfs_Close(fd);
            });
            EXPECT_CHILD_OK(c);
            m.write(m.size(), d);
            hs = {{open_name(name, QVFS_O_RDWR), QVFS_O_RDWR}};
        } else if (!m.linear()) {
            log << "eof\n";
            EXPECT_EQ(uint64_t(h.pos) >= m.size() ? 1 : 0, qvfs_Eof(h.fd));
        } else {
            log << "-\n";
        }
        for (const Handle& x : hs) EXPECT_EQ(x.pos, qvfs_Tell(x.fd));
        TQvFileStat st{};
        EXPECT_EQ(0, qvfs_fstat(hs[0].fd, &st));
        if (!m.linear()) {
            EXPECT_EQ(std::make_pair(int64_t(m.size()), int64_t(m.size() / 512)),
                      std::make_pair(st.st.st_size, st.st.st_blocks));
        }
    }
    whole("at the end");
    for (const Handle& x : hs) qvfs_Close(x.fd);
    if (HasFailure()) ADD_FAILURE() << log.str();
    return !HasFailure();
}

TEST_F(StreamModel, FixedSeeds) {
    for (uint32_t seed = 1; seed <= 6 && run(seed, 300); ++seed) {
    }
}

TEST_F(StreamModel, SlowManySeeds) {
    for (uint32_t seed = 100; seed < 130 && run(seed, 1200); ++seed) {
    }
}

// ---- rows computed by hand ----------------------------------------------------------

using Segs = std::vector<std::pair<uint32_t, uint32_t>>;  // {address, length} per segment

TQvBlkSliceInfo slice(uint64_t resStart, uint64_t resEnd, uint64_t preStart, uint64_t preEnd, uint64_t dataStart,
                      uint64_t dataEnd) {
    TQvBlkSliceInfo s{};
    s.resStart = resStart, s.resEnd = resEnd, s.preStart = preStart, s.preEnd = preEnd;
    s.dataStart = dataStart, s.dataEnd = dataEnd;
    return s;
}

TEST(FileMap, PositionsOntoBlockAddresses) {
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
        Segs want;
    } cases[] = {
        {plain, 0x80, 0x100, true, {{0x200080, 0x80}}},  // reads stop at dataEnd
        {plain, 0x100, 1, true, {}},
        {plain, 0x100, 0x10, false, {{0x200100, 0x10}}},  // writes do not
        {plain, top - 4, 100, false, {{0x7FFFFFFB, 4}}},
        {plain, top, 1, false, {}},
        {damaged, 0, 16, true, {}},
        {res, 0xFFFF0, 0x20, true, {{0x2FFFF0, 0x20}}},  // linear from resStart, past resEnd
        {ring, 0xFFF0, 0x20, true, {{0x21FFF0, 0x10}, {0x300000, 0x10}}},
        {ring, 0x10100, 1, true, {}},
        {ring, 0x10100, 0x10, false, {{0x300100, 0x10}}},
        {wrapped, 0xFFFF, 0x1002, true, {{0x2FFFFF, 1}, {0x200000, 0x1000}, {0x300000, 1}}},
        {wrapped, 0x10800, 0x810, true, {{0x200800, 0x800}, {0x300000, 0x10}}},
        {empty, 0, 0x1000, true, {{0x300000, 0x100}}},  // preStart == preEnd: no ring bytes
    };
    for (const auto& c : cases) {
        uint32_t a[10] = {}, l[10] = {};
        const int n = _tf_MapSegments(c.pos, c.len, &c.s, a, l, c.read ? 1 : 0);
        Segs got;
        for (int i = 0; i < n; ++i) got.push_back({a[i], l[i]});
        EXPECT_EQ(c.want, got) << std::hex << c.pos;
    }
    uint32_t a[10], l[10];
    EXPECT_ERR(-1, 0, _tf_MapSegments(0, 0, &plain, a, l, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, _tf_MapSegments(0, 1, nullptr, a, l, 1));
}

// A wrapped ring through the public calls: the area written whole, the
// pointers set, then the oldest bytes first, the newer ones, the main data.
TEST_F(ApiTest, WrappedRingReadsOldestFirst) {
    std::string name;
    const int h = create(&name, 3, 1, 0x40000);
    const auto ring = pattern(3, 0, 0x40000);
    ASSERT_EQ(0x40000, qvfs_Write(h, ring.data(), 0x40000));
    ASSERT_EQ(0, qvfs_UpdataePreRecPtr(h, 0x30000, 0x10000));  // 0x20000 bytes kept
    EXPECT_EQ(0x20000, qvfs_Seek(h, 0, 2));
    ASSERT_EQ(5, qvfs_Write(h, "after", 5));
    EXPECT_EQ(0, qvfs_ftruncate(h, 0x20000 + 2));
    EXPECT_EQ(-1, qvfs_ftruncate(h, 0x20000 - 1)) << "the ring cannot be cut";
    EXPECT_EQ(0, qvfs_Close(h));
    std::vector<uint8_t> kept(ring.begin() + 0x30000, ring.end());
    kept.insert(kept.end(), ring.begin(), ring.begin() + 0x10000);
    kept.insert(kept.end(), {'a', 'f'});
    EXPECT_EQ(kept, read_all(name));
    // Where the bytes are on the device: the ring's oldest byte at resStart + 0x30000.
    const uint64_t res = block_addr(name_block(name)) + 0x200000;
    EXPECT_EQ(std::vector<uint8_t>(ring.begin() + 0x30000, ring.begin() + 0x30010), read_dev(0, res + 0x30000, 16));
    EXPECT_EQ((std::vector<uint8_t>{'a', 'f'}), read_dev(0, res + 0x40000, 2)) << "main data behind the area";
}

// A write ending past the block's end is refused and moves nothing; one
// ending exactly there grows the file to it and says the block is nearly full.
TEST_F(ApiTest, WritesAtTheBlocksEnd) {
    std::string name;
    const int h = create(&name);
    const int64_t last = kUnit - int64_t(kFirstData) - 4096;
    const auto page = pattern(9, 0, 4096);
    ASSERT_EQ(last + 1, qvfs_Seek(h, last + 1, 0));
    EXPECT_EQ(-1, qvfs_Write(h, page.data(), 4096));
    EXPECT_EQ(0, qvfs_Seek(h, 0, 2)) << "nothing grew";
    ASSERT_EQ(last, qvfs_Seek(h, last, 0));
    EXPECT_EQ(4096, qvfs_Write(h, page.data(), 4096));
    EXPECT_EQ(28, qvfs_error(h));
    EXPECT_EQ(last + 4096, qvfs_Seek(h, 0, 2));
    EXPECT_EQ(page, read_dev(0, block_addr(name_block(name)) + kUnit - 4096, 4096));
}

}  // namespace
