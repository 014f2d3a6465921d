// The public interface: the stream calls against a model, the argument
// rules in one table, handles and the library's start and stop, the calls
// by path, disk management, misuse next to a neighbour recording, and
// randomly damaged disks.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "support/child.h"
#include "support/fixture.h"

namespace {

// ---- the stream calls against a model

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
    uint64_t dlen = 0;        // main data; before the pointers, the bytes of the area that count
    std::vector<uint8_t> area;

    bool linear() const { return ring && !ptrs; }  // before the pointers: the area, from its start
    uint64_t ring_read() const { return !ptrs ? 0 : ps <= pe ? pe - ps : R - ps + pe; }
    uint64_t ring_size() const { return !ptrs ? 0 : ps < pe ? pe - ps : R + pe - ps; }  // ps == pe counts R
    uint64_t size() const { return ring_size() + dlen; }
    bool fits(uint64_t p, uint64_t n) const { return !linear() || p + n <= R; }  // else refused whole
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
        if (p + d.size() > ring_read()) dlen = std::max(dlen, p + d.size() - ring_read());
    }
    // A read of n at p: the bytes, or -1 (nothing there).
    int64_t read(uint64_t p, uint64_t n, std::vector<uint8_t>* out) const {
        const uint64_t end = std::min(p + n, ring_read() + dlen);
        if (p >= end) return -1;
        out->clear();
        for (uint64_t q = p; q < end; ++q) out->push_back(index(q) < area.size() ? area[index(q)] : 0);
        return int64_t(out->size());
    }
};

struct Handle {
    int fd, flags;
    int64_t pos = 0;
    bool can_write() const { return (flags & 3) != 0; }
    bool can_read() const { return (flags & 2) != 0 || (flags & 1) == 0; }
};

class StreamModel : public ApiTest {
protected:
    void SetUp() override { ApiTest::SetUp(), ready_disk(1, 64); }  // a fresh block for every run
    // One file (channel = seed) through `ops` random calls. Returns false
    // after reporting the seed and the calls made up to the failure.
    bool run(uint32_t seed, int ops);
};

bool StreamModel::run(uint32_t seed, int ops) {
    std::mt19937 rng(seed);
    auto pick = [&](int64_t lo, int64_t hi) { return std::uniform_int_distribution<int64_t>(lo, hi)(rng); };
    Model m;
    m.ring = pick(0, 1) == 1, m.R = m.ring ? uint64_t(pick(1, 0x20000)) : 0;
    std::ostringstream log;
    log << "seed " << seed << (m.ring ? ", ring file, reserved " : ", plain file") << m.R << "\n";
    TQvfsOpenParam p = param(seed, m.ring ? 1 : 0, int32_t(m.R), 5, 1);
    char buf[64] = {};
    std::vector<Handle> hs{{qvfs_OpenV2(&p, buf, QVFS_O_RDWR), QVFS_O_RDWR}};
    const std::string name = buf;
    EXPECT_GE(hs[0].fd, 0) << "errno " << errno;
    std::vector<uint8_t> got, want;
    auto whole = [&](const char* where) {  // the file read whole through a new handle
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
        if (kind < 45 && h.pos < (4 << 20)) {
            // A write, or a gathering write of up to 4 pieces (some empty).
            const auto d = pattern(dataSeed, 0, 40000);
            iovec iov[4];
            const int count = kind < 30 ? 0 : int(pick(1, 4));
            size_t sum = count == 0 ? size_t(pick(0, 7) == 0 ? 4096 * pick(1, 3) : pick(1, 20000)) : 0;
            log << (count == 0 ? "write " : "writev") << (count == 0 ? std::to_string(sum) : "");
            for (int i = 0; i < count; ++i) {
                iov[i] = {const_cast<uint8_t*>(d.data()) + sum, size_t(pick(0, 3) == 0 ? 0 : pick(1, 9000))};
                sum += iov[i].iov_len;
                log << " " << iov[i].iov_len;
            }
            log << "\n";
            const bool ok = h.can_write() && sum > 0 && m.fits(uint64_t(h.pos), sum);  // empty pieces: nothing to map
            EXPECT_EQ(ok ? int(sum) : -1, count == 0 ? qvfs_Write(h.fd, d.data(), uint32_t(sum)) : qvfs_Writev(h.fd, iov, count));
            EXPECT_EQ(ok || !h.can_write() || sum == 0 ? 0 : QVFS_ERR_BLOCKRANGE, errno);
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
            const int whence = int(pick(0, 3));  // 3 counts from the start
            const int64_t size = int64_t(m.size());
            const int64_t offs[] = {pick(-size - 100, size + 100), kUnit - (whence == 2 ? size : 0),
                                    kUnit + 1, -1, INT64_MIN};
            const int64_t off = offs[pick(0, 9) < 6 ? 0 : pick(1, 4)];
            const int64_t base = whence == 1 ? h.pos : whence == 2 ? size : 0;
            const int64_t target = int64_t(uint64_t(base) + uint64_t(off));
            h.pos = target < 0 || target > kUnit ? 0 : target;
            log << "seek " << off << " from " << whence << "\n";
            EXPECT_EQ(h.pos, qvfs_Seek(h.fd, off, whence));
        } else if (kind < 80) {
            const int64_t pre = int64_t(m.ring_size());
            const int64_t len = pick(0, 2) == 0 ? pre - pick(-1, 1) : pick(0, int64_t(m.size()) + 20000);
            log << "truncate " << len << "\n";
            const bool ok = h.can_write() && len >= pre && m.fits(0, uint64_t(len));
            EXPECT_EQ(ok ? 0 : -1, qvfs_ftruncate(h.fd, len));
            if (ok) m.dlen = uint64_t(len - pre);
        } else if (kind < 83) {
            // Both pointers inside the area; anything else is refused and changes nothing.
            const int64_t ps = pick(0, int64_t(m.R)), pe = pick(0, 9) == 0 ? ps : pick(-1, int64_t(m.R));
            log << "pointers " << ps << " " << pe << "\n";
            const bool ok = ps < int64_t(m.R) && pe >= 0 && pe < int64_t(m.R);
            EXPECT_EQ(ok ? 0 : -1, qvfs_UpdataePreRecPtr(h.fd, int32_t(ps), int32_t(pe)));
            EXPECT_EQ(ok ? 0 : QVFS_ERR_BADARG, errno);
            if (ok) m.ps = uint64_t(ps), m.pe = uint64_t(pe), m.ptrs = true, m.dlen = 0;
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
        } else if (kind < 96 && m.fits(m.size(), 9000)) {
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
        } else {
            log << "eof\n";
            EXPECT_EQ(uint64_t(h.pos) >= m.size() ? 1 : 0, qvfs_Eof(h.fd));
        }
        for (const Handle& x : hs) EXPECT_EQ(x.pos, qvfs_Tell(x.fd));
        TQvFileStat st{};
        EXPECT_EQ(0, qvfs_fstat(hs[0].fd, &st));
        EXPECT_TRUE(st.st.st_size == int64_t(m.size()) && st.st.st_blocks == int64_t(m.size() / 512))
            << "size " << st.st.st_size << " sectors " << st.st.st_blocks;
    }
    whole("at the end");
    for (const Handle& x : hs) qvfs_Close(x.fd);
    if (HasFailure()) ADD_FAILURE() << log.str();
    return !HasFailure();
}

TEST_F(StreamModel, FixedSeeds) {
    for (uint32_t seed = 1; seed <= 6;) ASSERT_TRUE(run(seed++, 300));
}

TEST_F(StreamModel, SlowManySeeds) {
    for (uint32_t seed = 100; seed < 130;) ASSERT_TRUE(run(seed++, 1200));
}

// ---- rows computed by hand

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
        {res, 0xFFFF0, 0x20, false, {{0x2FFFF0, 0x10}}},  // linear from resStart, never past resEnd
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

// Where a wrapped ring's bytes are on the device (the model sees only what
// the calls show): the oldest at resStart + 0x30000, main data behind the area.
TEST_F(ApiTest, WrappedRingReadsOldestFirst) {
    std::string name;
    const int h = create(&name, 3, 1, 0x40000);
    const auto ring = pattern(3, 0, 0x40000);
    ASSERT_EQ(0x40000, qvfs_Write(h, ring.data(), 0x40000));
    ASSERT_EQ(0, qvfs_UpdataePreRecPtr(h, 0x30000, 0x10000));  // 0x20000 bytes kept
    ASSERT_EQ(0x20000, qvfs_Seek(h, 0, 2));
    ASSERT_EQ(2, qvfs_Write(h, "af", 2));
    EXPECT_EQ(0, qvfs_Close(h));
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

// ---- argument rules

constexpr int kKeep = 4242;  // errno as the caller left it
constexpr int kAny = -999;   // errno not part of the contract
constexpr int kArg = QVFS_ERR_BADARG, kHandle = QVFS_ERR_BADHANDLE;

struct Row {
    const char* call;
    std::function<int64_t()> fn;
    int64_t ret;
    int err;
    int slots = 0;  // handle slots the call uses (and gives back)
};
#define ROW(ret, err, ...) Row{#__VA_ARGS__, [&] { return int64_t(__VA_ARGS__); }, ret, err}
#define OPENS(ret, err, ...) Row{#__VA_ARGS__, [&] { return int64_t(__VA_ARGS__); }, ret, err, 1}

class ApiArgs : public ApiTest {
protected:
    void SetUp() override {
        ApiTest::SetUp();
        h_ = create(&name_);
        ASSERT_EQ(10, qvfs_Write(h_, "0123456789", 10));
        ASSERT_EQ(0, qvfs_Close(stale_ = open_name(name_)));
        disk1_ = sbx_.add_disk(1, image_bytes_for(1));  // not formatted
    }
    // The file's status, position and first bytes, and the disk's image.
    std::vector<uint8_t> snap() const {
        TQvFileStat st{};
        qvfs_fstat(h_, &st);
        const int64_t pos = qvfs_Tell(h_);
        std::vector<uint8_t> s = read_dev(0, block_addr(0) + 0x200000, 16);
        const auto* img = reinterpret_cast<const uint8_t*>(g_astQvDisk[0].share);
        s.insert(s.end(), img, img + sizeof(TQvDiskShare));
        s.insert(s.end(), (const uint8_t*)&st, (const uint8_t*)(&st + 1));
        s.insert(s.end(), (const uint8_t*)&pos, (const uint8_t*)(&pos + 1));
        return s;
    }
    int probe() const {  // the value the next open gets (made and closed)
        const int h = open_name(name_);
        qvfs_Close(h);
        return h;
    }
    void run(const std::vector<Row>& rows) {
        const int before = probe();
        int slots = 0;
        for (const Row& r : rows) {
            const std::vector<uint8_t> s = snap();
            errno = kKeep;
            EXPECT_EQ(r.ret, r.fn()) << r.call;
            EXPECT_TRUE(r.err == kAny || r.err == errno) << r.call << ": errno " << errno << ", not " << r.err;
            EXPECT_TRUE(s == snap()) << r.call << ": something changed";
            slots += r.slots;
        }
        EXPECT_EQ(before + ((slots + 1) << 16), probe()) << "handle slots used";
    }
    int h_ = -1, stale_ = -1;
    std::string name_, disk1_;
};

// Every call on a handle that names no open file: closed; a generation that
// never existed; an empty slot; the last slot; beyond the table; the largest
// slot number; negative (1002). Close and the error query give 0.
TEST_F(ApiArgs, HandlesThatNameNoOpenFile) {
    char b[16];
    iovec iov{b, 4};
    TQvFileStat st;
    std::vector<Row> rows;
#define HROW(ret, err, ...) Row{#__VA_ARGS__, [&, h] { return int64_t(__VA_ARGS__); }, ret, err}
    for (int h : {stale_, h_ | 0x20000, 7, 0x3FF, 0x400, 0xFFFF, -3}) {
        const int err = h < 0 ? kHandle : kKeep;
        rows.insert(rows.end(), {
            HROW(-1, err, qvfs_Read(h, b, 4)), HROW(-1, err, qvfs_Write(h, b, 4)), HROW(-1, err, qvfs_Writev(h, &iov, 1)),
            HROW(-1, err, qvfs_Seek(h, 0, 0)), HROW(-1, err, qvfs_Tell(h)), HROW(-1, err, qvfs_Eof(h)),
            HROW(-1, err, qvfs_fsync(h)), HROW(-1, err, qvfs_ftruncate(h, 0)), HROW(-1, err, qvfs_UpdataePreRecPtr(h, 0, 0)),
            HROW(-1, err, qvfs_fstat(h, &st)), HROW(0, err, qvfs_error(h)), HROW(0, err, qvfs_Close(h)),
        });
    }
    run(rows);
}

TEST_F(ApiArgs, PublicCalls) {
    char b[16];
    iovec iov{b, 4};
    TQvFileStat st;
    TQvStatfs sf;
    TQvDiskBlkInfo bi;
    QvfsBlockStat bs;
    TimeValue tv[2] = {};
    uint8_t par[33] = {};
    uint32_t word = 0;
    TQvFileInfo item{&word, 4}, noBuf{nullptr, 4};
    const char *n = name_.c_str(), *p = disk_.c_str(), *d1 = disk1_.c_str();
    const char *none = "/dev/scsi/host07/part1", *missing = "H0000003000100AB0000C00.rvd";
    run({
        ROW(0, kKeep, qvfs_Read(h_, b, 0)), ROW(0, kKeep, qvfs_Read(777, b, 0)),  // length 0 first
        ROW(0, kKeep, qvfs_Write(-1, b, 0)), ROW(0, kKeep, qvfs_Writev(777, &iov, 0)),
        ROW(-1, kArg, qvfs_Read(h_, nullptr, 10)), ROW(-1, kArg, qvfs_Write(h_, nullptr, 0)),
        ROW(-1, kKeep, qvfs_Writev(h_, nullptr, 1)), ROW(-1, kArg, qvfs_fstat(h_, nullptr)),
        ROW(-1, QVFS_ERR_BLOCKRANGE, qvfs_ftruncate(h_, kGiB + 1)),
        ROW(-1, kArg, qvfs_UpdataePreRecPtr(h_, -1, 0)),  // widened with its sign: outside the ring
        ROW(-1, kArg, qvfs_OpenV2(nullptr, nullptr, 0)), OPENS(-1, kArg, open_name(missing)),
        OPENS(-1, kArg, open_name("no dot here")), OPENS(-1, kArg, qvfs_Stat(missing, &st)),
        OPENS(-1, kArg, qvfs_Lock(missing, 1)), ROW(-1, kArg, qvfs_Stat(nullptr, &st)),
        ROW(-1, kArg, qvfs_Stat(n, nullptr)), ROW(-1, kArg, qvfs_Lock(nullptr, 1)),
        ROW(-1, kArg, qvfs_ChangeCreateTime(nullptr, tv[0])), ROW(-1, kArg, qvfs_ChangeTime(n, nullptr)),
        ROW(-1, kArg, qvfs_ChangeRecType(nullptr, 1)), ROW(-1, kArg, qvfs_GetFileInfo(nullptr, 2, &item, 1)),
        ROW(-1, kArg, qvfs_GetFileInfo(n, 2, nullptr, 1)), ROW(-1, kArg, qvfs_GetFileInfo(n, 2, &item, 0)),
        ROW(-1, kArg, qvfs_GetFileInfo(n, 2, &noBuf, 1)), ROW(-1, kArg, qvfs_SetFileInfo(n, 2, &noBuf, 1)),
        ROW(-1, kArg, qvfs_SetFileInfo(n, 2, &item, 0)), ROW(-1, kArg, qvfs_SetUsrParam(n, par, 0)),
        ROW(-1, kArg, qvfs_SetUsrParam(n, par, 33)), ROW(-1, kArg, qvfs_SetUsrParam(n, par, -1)),
        ROW(-1, kArg, qvfs_SetUsrParam(n, nullptr, 4)), ROW(-1, kArg, qvfs_SetUsrParam(nullptr, par, 4)),
        ROW(-1, kKeep, qvfs_Unlink(nullptr)), ROW(-1, kKeep, qvfs_Unlink(n)),  // open here
        ROW(-1, kKeep, qvfs_Format(nullptr)), ROW(-1, kKeep, qvfs_FormatEx(nullptr, 1)),
        ROW(-1, kKeep, qvfs_FormatMini(nullptr, 2 * kGiB)), ROW(-1, kKeep, qvfs_Mount(nullptr)),
        ROW(-1, kKeep, qvfs_UnMount(nullptr)), ROW(-1, kKeep, qvfs_UnMount_V2(nullptr)),
        ROW(-1, kKeep, qvfs_Statfs(nullptr, &sf)), ROW(-1, kKeep, qvfs_Statfs(p, nullptr)),
        ROW(-1, kKeep, qvfs_GetUsedBlockNum(nullptr)), ROW(-1, kKeep, qvfs_GetBlockInfo(nullptr, &bi, 1)),
        ROW(-1, kKeep, qvfs_GetBlockInfo(p, nullptr, 1)), ROW(-1, kKeep, qvfs_GetUsedInBlockId(nullptr, 0, 0)),
        ROW(-1, kKeep, qvfs_GetUsedSizeOfDataType(nullptr, 0, 0)), ROW(-1, kKeep, qvfs_TagBadUnit(nullptr, 0, 512)),
        ROW(-1, kKeep, qvfs_BlockStat(nullptr, 0, &st, 1)), ROW(-1, kKeep, qvfs_BlockStat(p, 0, nullptr, 1)),
        ROW(-1, kKeep, qvfs_BlockStatSeg(nullptr)), ROW(-1, kKeep, qvfs_GetFileNum(nullptr, 0)),
        ROW(-1, kKeep, qvfs_ClearBadBlock(nullptr, 0)),
        ROW(-1, QVFS_ERR_CHANNEL, qvfs_GetUsedInBlockId(p, 1024, 0)), ROW(-1, kHandle, qvfs_GetUsedInBlockId(p, 0, 16)),
        ROW(-1, QVFS_ERR_CHANNEL, qvfs_GetUsedSizeOfDataType(p, 1024, 0)),
        ROW(-2, QVFS_ERR_OLDVERSION, qvfs_GetUsedSizeOfDataType(none, 3, 0)),  // no image: version 1
        ROW(-1, kArg, qvfs_GetBlockInfo(p, &bi, 0)), ROW(-1, kArg, qvfs_GetBlockInfo(none, &bi, 9)),
        ROW(-1, kKeep, qvfs_Statfs(none, &sf)), ROW(-1, kHandle, qvfs_TagBadUnit(p, image_bytes_for(kBlocks), 1)),
        ROW(-1, kHandle, qvfs_TagBadUnit(none, 0, 1)), ROW(-1, kArg, qvfs_Format("/dev/scsi/host25/part1")),
        ROW(-1, QVFS_ERR_FMT_TOOSMALL, qvfs_FormatMini(d1, kGiB - 1)), ROW(-1, kArg, qvfs_Mount("/dev/scsi/host30/part1")),
        ROW(-1, QVFS_ERR_NOTFORMATTED, qvfs_Mount(d1)), ROW(-1, kAny, qvfs_GetBlockStat(0, 1u << 20, &bs)),
        ROW(-1, kArg, qvfs_GetBlockStat(0, 0, nullptr)),
        ROW(-1, kAny, qvfs_BlockUnlink(0, 5000)), ROW(-1, kKeep, qvfs_SetOpt(0)), ROW(-1, kHandle, qvfs_SetOpt(2)),
    });
}

// The disk unmounted by this process, the only one that had it.
TEST_F(ApiArgs, UnmountedDisk) {
    ASSERT_EQ(0, qvfs_UnMount(disk_.c_str()));
    TQvStatfs sf;
    TQvfsOpenParam req = param(2);
    char name[64];
    const char* p = disk_.c_str();
    run({
        ROW(-1, kKeep, qvfs_Statfs(p, &sf)), ROW(0, kKeep, qvfs_GetUsedBlockNum(p)),
        ROW(-1, kKeep, qvfs_GetUsedInBlockId(p, 1, 0)), ROW(-1, kKeep, qvfs_TagBadUnit(p, qvfs::disk::kDataStart, 1)),
        OPENS(-1, kArg, qvfs_OpenV2(&req, name, QVFS_O_RDWR)), ROW(-1, kKeep, df_IsDiskReady(0)),
        ROW(-1, kKeep, alloc(0, 0)),
    });
    // Not ready is no obstacle for one bad block, but with the descriptor
    // closed no meta region can be written.
    EXPECT_ERR(-1, kHandle, df_TagBadBlock(0, 2));
    EXPECT_EQ(qvfs::disk::QV_BLK_BAD, image(0).map[2]);
}

TEST_F(ApiArgs, LayerCalls) {
    TQvFileHandle* f = tf_open(name_);
    ASSERT_NE(nullptr, f);
    char b[8];
    iovec v[3] = {{b, 5}, {b, 0}, {b, 3}}, huge[2] = {{nullptr, 0x30000000}, {nullptr, 0x30000000}};
    TQvBlkId id{5, 5};
    TQvfsOpenParam other = param(0);
    std::snprintf(other.path, sizeof other.path, "/dev/sdb1");
    const TQvfsOpenParam noImage = param(0, 0, 0, 5, 4);
    TQvStatfs sf;
    TQvDiskBlkInfo info;
    uint32_t cursor = 0;
    int32_t remaining = 1;
    const char *p = disk_.c_str(), *none = "/dev/scsi/host09/part1";
    run({
        ROW(-1, kKeep, tf_Writev(0, nullptr, 1, f)), ROW(-1, kKeep, tf_Writev(0, v, -1, f)),
        ROW(-1, kKeep, tf_Writev(0, v, 0, f)), ROW(-1, kKeep, tf_Writev(0, v, 3, nullptr)),
        ROW(-1, kKeep, tf_Writev(0, huge, 2, f)), ROW(-1, kArg, tf_Read(0, nullptr, 1, f)),
        ROW(-1, kArg, tf_CloseFile(nullptr)), ROW(-1, kArg, tf_Unlink(nullptr)),
        ROW(-1, kArg, bf_CloseFile(nullptr)), ROW(-1, kArg, bf_Sync(nullptr, f->blkFile)),
        ROW(-1, kArg, df_GetFileBlkId(nullptr, &id)), ROW(-1, QVFS_ERR_DISKNUM, df_GetFileBlkId(&other, &id) + id.block - 5),
        ROW(-2, kArg, df_GetFileBlkId(&noImage, &id) + id.block),  // the block set to -1
        ROW(-1, QVFS_ERR_CHANNEL, alloc(0, 1024)), ROW(-1, kHandle, df_ReleaseBlock(0, kBlocks, 0, 0, 0)),
        ROW(-1, kHandle, df_ReleaseBlock(0, 0, 1024, 0, 0)), ROW(-1, kArg, df_ReleaseBlock(25, 0, 0, 0, 0)),
        ROW(0, kHandle, df_GetBlkAddr(0, kBlocks)), ROW(0, kArg, df_GetBlkAddr(25, 0)),
        ROW(0, kKeep, df_IsBlockAllocated(4, 0)), ROW(0, kKeep, df_IsBlockAllocated(0, kBlocks)),
        ROW(-1, kArg, df_TagBadBlock(25, 0)), ROW(-1, kArg, df_TagBadBlock(6, 0)),
        ROW(-1, kHandle, df_TagBadBlock(0, kBlocks)), ROW(-1, kHandle, df_TagBadBlock(0, -1)),
        ROW(-1, kArg, df_TagBadUnit(nullptr, 0, 1)), ROW(-1, kArg, df_GetUsedInBlockOfDataType(nullptr, 0, 0)),
        ROW(0, kArg, df_GetDiskUsedBlockNum("/dev/scsi/host12/part1")), ROW(-1, kArg, df_DiskStatfs(p, nullptr)),
        ROW(-1, kArg, df_IsDiskReady(9)), ROW(-1, kArg, _df_GetBlockInfo(&info, 25, &cursor, &remaining, 200)),
        ROW(-1, kArg, df_DiskFormat(nullptr, 0, 0)), ROW(-1, kArg, df_DiskFormat("/dev/sda1", 0, 0)),
        ROW(-1, QVFS_ERR_SYS + ENOENT, df_DiskFormat(none, 0, 0)), ROW(1, kArg, df_GetDiskVersion(none)),
        ROW(-1, kKeep, df_DiskStatfs(none, &sf)),
    });
    EXPECT_EQ(0, tf_CloseFile(f));
}

// Runs in its own process: nothing has called qvfs_Init. Every call that
// tests the flag fails with -1010; the block calls fail in their layer.
TEST(ApiBeforeInit, EveryCallThatTestsTheFlagFails) {
    char buf[64] = "/dev/scsi/host00/part1";
    TQvfsOpenParam p{};
    TQvFileStat st{};
    TQvStatfs sf{};
    TQvDiskBlkInfo bi{};
    TQvBlkSegQuery q{};
    TQvFileInfo item{buf, sizeof buf};
    TimeValue tv[2] = {};
    iovec iov{buf, 4};
    const int e = QVFS_ERR_NOTINIT;
    for (const Row& r : std::vector<Row>{
             ROW(-1, e, qvfs_OpenV2(&p, buf, 2)), ROW(-1, e, qvfs_Open(nullptr, buf, 0)), ROW(-1, e, qvfs_Read(0, buf, 4)),
             ROW(-1, e, qvfs_Read(0, buf, 0)), ROW(-1, e, qvfs_Write(0, buf, 4)), ROW(-1, e, qvfs_Writev(0, &iov, 1)),
             ROW(-1, e, qvfs_Seek(0, 0, 0)), ROW(-1, e, qvfs_Tell(0)), ROW(-1, e, qvfs_Eof(0)), ROW(-1, e, qvfs_fsync(0)),
             ROW(-1, e, qvfs_ftruncate(0, 0)), ROW(-1, e, qvfs_UpdataePreRecPtr(0, 0, 0)), ROW(-1, e, qvfs_Close(0)),
             ROW(-1, e, qvfs_GetDebugInfo(buf, 4096)), ROW(-1, e, qvfs_SetOpt(1)), ROW(-1, e, qvfs_error(0)),
             ROW(-1, e, qvfs_Stat(buf, &st)), ROW(-1, e, qvfs_fstat(0, &st)), ROW(-1, e, qvfs_Lock(buf, 1)),
             ROW(-1, e, qvfs_ChangeCreateTime(buf, tv[0])), ROW(-1, e, qvfs_ChangeTime(buf, tv)),
             ROW(-1, e, qvfs_ChangeRecType(buf, 1)), ROW(-1, e, qvfs_SetUsrParam(buf, buf, 4)),
             ROW(-1, e, qvfs_GetFileInfo(buf, 1, &item, 1)), ROW(-1, e, qvfs_SetFileInfo(buf, 2, &item, 1)),
             ROW(-1, e, qvfs_Unlink(buf)), ROW(-1, e, qvfs_Format(buf)), ROW(-1, e, qvfs_FormatEx(buf, 1)),
             ROW(-1, e, qvfs_FormatMini(buf, 1ull << 31)), ROW(-1, e, qvfs_Mount(buf)), ROW(-1, e, qvfs_UnMount(buf)),
             ROW(-1, e, qvfs_UnMount_V2(buf)), ROW(-1, e, qvfs_Statfs(buf, &sf)), ROW(-1, e, qvfs_GetUsedBlockNum(buf)),
             ROW(-1, e, qvfs_GetBlockInfo(buf, &bi, 1)), ROW(-1, e, qvfs_GetUsedInBlockId(buf, 0, 0)),
             ROW(-1, e, qvfs_GetUsedSizeOfDataType(buf, 0, 0)), ROW(-1, e, qvfs_TagBadUnit(buf, 0, 512)),
             ROW(-1, e, qvfs_BlockStat(buf, 0, &st, 1)), ROW(-1, e, qvfs_BlockStatSeg(&q)), ROW(-1, e, qvfs_GetFileNum(buf, 0)),
         }) {
        SCOPED_TRACE(r.call);
        EXPECT_ERR(r.ret, r.err, r.fn());
    }
    QvfsBlockStat bs;
    std::memset(&bs, 0xAB, sizeof bs);
    errno = 0;
    EXPECT_EQ(-1, qvfs_BlockUnlink(0, 0));
    EXPECT_NE(QVFS_ERR_NOTINIT, errno);
    EXPECT_NE(0, qvfs_GetBlockStat(0, 0, &bs));
    EXPECT_EQ(0xABABABABu, bs.state) << "the record is left alone";
    qvfs_DeInit();  // does nothing before Init, and must not crash
}

// ---- handles, start and stop

TEST_F(ApiTest, HandleValuesCarrySlotAndGenerationAndWrapAfter4096) {
    std::string name;
    const int first = create(&name);
    EXPECT_EQ(std::make_pair(0, 0x10001), std::make_pair(first, open_name(name)));  // slot 1, generation 1
    EXPECT_EQ(0, qvfs_Close(first));
    EXPECT_EQ(0x20000, open_name(name)) << "the lowest free slot, the next generation";
    EXPECT_EQ(std::make_pair(int64_t{-1}, int64_t{0}), std::make_pair(qvfs_Tell(first), qvfs_Tell(0x20000)));
    // The n-th handle takes generation n mod 4096: after 4096 more, the value
    // of the first of them, long closed, is valid again.
    for (int n = 3; n < 3 + 4096; ++n) {
        const int h = open_name(name);
        ASSERT_EQ((n % 4096) << 16 | 2, h) << "handle number " << n;
        ASSERT_EQ(0, qvfs_Close(h));
    }
    EXPECT_EQ(0x30002, open_name(name));
    EXPECT_EQ(0, qvfs_Tell(0x30002));
}

TEST_F(ApiTest, TheTableHoldsExactly1024HandlesAndDeInitClosesThem) {
    std::string name;
    std::vector<int> handles{create(&name)};
    for (int i = 1; i < 1024; ++i) {
        handles.push_back(open_name(name));
        ASSERT_EQ(i | (i << 16), handles.back());
    }
    TQvFileStat st;
    EXPECT_ERR(-1, QVFS_ERR_BADARG, open_name(name));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Stat(name.c_str(), &st));  // path calls need a slot too
    ASSERT_NE(nullptr, qvfs::file::table_entry(0));
    EXPECT_EQ(1024, qvfs::file::table_entry(0)->inRef) << "the file layer holds one handle for all";
    EXPECT_EQ(0, qvfs_Close(handles[500]));
    EXPECT_EQ(500 | (1024 << 16), open_name(name));
    qvfs_DeInit();
    EXPECT_EQ(nullptr, qvfs::file::table_entry(0)) << "DeInit closed every handle";
    EXPECT_EQ(-1, qvfs_Tell(handles[7]));
    const int again = open_name(name);  // still initialised; the generations keep counting
    EXPECT_EQ(1025 << 16, again);
    EXPECT_EQ(0, qvfs_Close(again));
    EXPECT_EQ(0, qvfs_Unlink(name.c_str()));
}

TEST_F(ApiTest, ThreadsOnOneHandleNeverSplitAWrite) {
    std::string name;
    const int h = create(&name);
    constexpr int kThreads = 4, kWrites = 150;
    constexpr uint32_t kPiece = 4096;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kWrites; ++i) {  // every word of a piece carries its writer and number
                const std::vector<uint32_t> piece(kPiece / 4, uint32_t(t << 16 | i));
                failures += qvfs_Write(h, piece.data(), kPiece) != int(kPiece);
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(std::make_pair(0, int64_t(kThreads) * kWrites * kPiece), std::make_pair(failures.load(), qvfs_Tell(h)));
    EXPECT_EQ(0, qvfs_Close(h));
    const auto all = read_all(name);
    ASSERT_EQ(size_t(kThreads) * kWrites * kPiece, all.size());
    std::set<uint32_t> seen;
    for (size_t off = 0; off < all.size(); off += kPiece) {
        std::vector<uint32_t> words(kPiece / 4);
        std::memcpy(words.data(), all.data() + off, kPiece);
        ASSERT_EQ(std::vector<uint32_t>(kPiece / 4, words[0]), words) << "the piece at " << off << " was split";
        EXPECT_TRUE(seen.insert(words[0]).second) << "piece written twice";
    }
}

// Two living processes each leave a file open; only the first calls qvfs_DeInit.
TEST_F(ApiTest, DeInitGivesBackWhatAnotherLivingProcessLeftOpen) {
    auto* names = static_cast<char(*)[64]>(mmap(nullptr, 128, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(names));
    auto leaver = [&](int k) {
        return Child::spawn([&, k](ChildLink& link) {
            TQvfsOpenParam p = param(30 + k);
            const int h = qvfs_OpenV2(&p, names[k], QVFS_O_RDWR);
            CHILD_CHECK(link, h >= 0 && qvfs_Write(h, pattern(30 + k, 0, 200000).data(), 200000) == 200000);
            if (k == 0) qvfs_DeInit();
            int64_t cmd;
            return link.send(1) && link.recv(&cmd, 20000) ? 0 : 1;
        });
    };
    Child a = leaver(0);
    ASSERT_TRUE(a.expect(1));
    Child b = leaver(1);
    ASSERT_TRUE(b.expect(1));
    for (int k : {0, 1}) EXPECT_EQ(pattern(30 + k, 0, 200000), read_all(names[k])) << k;
    EXPECT_EQ(0, qvfs_Unlink(names[0])) << "released by qvfs_DeInit in a living process";
    EXPECT_EQ(-1, qvfs_Unlink(names[1])) << "still held by the other living process";
    a.send(0), b.send(0);
    EXPECT_CHILD_OK(a);
    EXPECT_CHILD_OK(b);
    munmap(names, 128);
}

// The dump chains every layer's rows; whatever the buffer's size, nothing is
// written beyond it and the text ends inside it.
TEST_F(ApiTest, DebugDumpOfEveryLayerStaysInItsBuffer) {
    std::string name;
    const int h = create(&name);
    ASSERT_EQ(6, qvfs_Write(h, "abcdef", 6));
    std::vector<char> buf(1 << 16, 'q');
    const int n = qvfs_GetDebugInfo(buf.data(), int(buf.size()));
    const std::string text(buf.data());
    EXPECT_EQ(size_t(n), text.size());
    for (const std::string& part : {std::string("QVFS"), name, std::string("QVBLOCK"), std::string("QVDISK")})
        EXPECT_NE(std::string::npos, text.find(part)) << part;
    EXPECT_EQ(0, qvfs_GetDebugInfo(buf.data(), 1023)) << "below 1024 nothing is written";
    for (int size = 1024; size < n + 2; size += 7) {
        buf.assign(size_t(size) + 16, 'q');
        qvfs_GetDebugInfo(buf.data(), size);
        ASSERT_EQ(std::string(16, 'q'), std::string(buf.data() + size, 16)) << "written beyond " << size;
        ASSERT_EQ(text.substr(0, std::strlen(buf.data())), buf.data()) << size;
        ASSERT_LT(std::strlen(buf.data()), size_t(size));
    }
}

TEST(ApiInit, AllocatorHooksAsAPairAndResetByInit) {
    Sandbox sbx;
    static int calls = 0;
    auto alloc = [](uint32_t n) -> void* { return ++calls, std::malloc(n); };
    char missing[] = "H0000003000100AB0000C00.rvd";
    ASSERT_EQ(0, qvfs_RegistAllocatorInterface(alloc, nullptr));  // half a pair changes nothing
    qvfs_Free(qvfs_Malloc(64));
    ASSERT_EQ(0, qvfs_RegistAllocatorInterface(alloc, std::free));
    ASSERT_EQ(0, qvfs_Init());
    EXPECT_EQ(-1, qvfs_OpenV2(nullptr, missing, 0));
    EXPECT_EQ(0, calls) << "qvfs_Init reset the hooks";
    ASSERT_EQ(0, qvfs_RegistAllocatorInterface(alloc, std::free));
    EXPECT_EQ(-1, qvfs_OpenV2(nullptr, missing, 0));
    EXPECT_GT(calls, 0) << "the handle record comes from the registered allocator";
    qvfs_InitAllocatorInterface();
}

TEST(ErrorString, EveryCodeHasItsOwnWords) {
    std::set<std::string> seen{"unknown error"};
    for (int c : std::initializer_list<int>{QVFS_ERR_BADARG, QVFS_ERR_BADHANDLE, QVFS_ERR_DISKNUM, QVFS_ERR_NOTFORMATTED, QVFS_ERR_NOMEM,
                  QVFS_ERR_PROJID, QVFS_ERR_OLDVERSION, QVFS_ERR_INITFAILED, QVFS_ERR_CHANNEL, QVFS_ERR_BLOCKRANGE,
                  QVFS_ERR_TOOMANYBLOCKS, QVFS_ERR_FMT_NOSHARE, QVFS_ERR_FMT_TOOSMALL, QVFS_ERR_NOTINIT, QVFS_ERR_NOTBAD, QVFS_ERR_DAMAGED, 0, QVFS_ERR_SYS})
        EXPECT_TRUE(seen.insert(qvfs_ErrorString(c)).second) << c << " shares its words";
    for (int c : {-1, -5000, 1004, 2000, 5000, 9999, 123456}) EXPECT_STREQ("unknown error", qvfs_ErrorString(c)) << c;
    // System codes carry the system's words, offset once, twice (a format's
    // failed metadata writes) or not at all.
    for (int c : {QVFS_ERR_SYS + ENOENT, 2 * QVFS_ERR_SYS + EIO, EACCES})
        EXPECT_NE(std::string::npos, std::string(qvfs_ErrorString(c)).find(std::strerror(c % QVFS_ERR_SYS))) << c;
    EXPECT_NE(std::string::npos, std::string(qvfs_ErrorString(2 * QVFS_ERR_SYS + EIO)).find("format"));
}

// ---- calls by path

constexpr uint32_t kBias = 0xFFFF0000u;  // block header counts start here

bool same(const TQvFileStat& a, const TQvFileStat& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST_F(ApiTest, EachStatusCallChangesExactlyItsFieldAndStoresIt) {
    const std::string name = new_file(1, 5), other = new_file(2, 5);
    const TQvFileStat otherBefore = stat_of(other);
    const uint8_t param[5] = {1, 2, 3, 4, 5};
    uint8_t full[32];
    for (int i = 0; i < 32; ++i) full[i] = uint8_t(0xA0 + i);
    const TimeValue times[2] = {{111, 0}, {1234567, 999}};
    const char* n = name.c_str();
    const std::pair<std::function<int()>, std::function<void(TQvFileStat&)>> steps[] = {
        {[&] { return qvfs_Lock(n, 1); }, [](TQvFileStat& s) { s.lock = 1; }},
        {[&] { return qvfs_ChangeCreateTime(n, TimeValue{-1, 500}); }, [](TQvFileStat& s) { s.startTime = ~0ull; }},
        {[&] { return qvfs_ChangeTime(n, times); },  // both times report the end time
         [](TQvFileStat& s) { s.st.st_mtim.tv_sec = s.st.st_ctim.tv_sec = 1234567; }},
        {[&] { return qvfs_ChangeRecType(n, -7); }, [](TQvFileStat& s) { s.recType = uint64_t(-7ll); }},
        {[&] { return qvfs_SetUsrParam(n, param, 5); }, [&](TQvFileStat& s) { std::memcpy(s.usrParam, param, 5); }},
        {[&] { return qvfs_SetUsrParam(n, param + 4, 1); }, [](TQvFileStat& s) { s.usrParam[0] = 5; }},
        {[&] { return qvfs_SetUsrParam(n, full, 32); }, [&](TQvFileStat& s) { std::memcpy(s.usrParam, full, 32); }},
        {[&] { return qvfs_Lock(n, 0); }, [](TQvFileStat& s) { s.lock = 0; }},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        TQvFileStat want = stat_of(name);
        ASSERT_EQ(0, steps[i].first()) << "step " << i << " errno " << errno;
        steps[i].second(want);
        EXPECT_TRUE(same(want, stat_of(name))) << "step " << i;
    }
    EXPECT_TRUE(same(otherBefore, stat_of(other))) << "another file changed";
    // Nobody holds the file: another process loads the entry from disk.
    const TQvFileStat last = stat_of(name);
    Child c = Child::spawn([&](ChildLink& link) {
        TQvFileStat st{};
        CHILD_CHECK(link, qvfs_Stat(n, &st) == 0 && same(st, last));
        return 0;
    });
    EXPECT_CHILD_OK(c);
}

// Record types 1 and 2 form a class; the block counts files of other types,
// and locked files, from a bias; the public flags say "at least one".
TEST_F(ApiTest, RecordTypeClassAndLocksMoveTheBlockCounts) {
    const std::string a = new_file(1, 1), b = new_file(1, 0);
    const uint32_t block = name_block(a);
    ASSERT_EQ(block, name_block(b));
    auto counts = [&] {
        TQvBlkStat raw{};
        QvfsBlockStat pub;
        std::memset(&pub, 0x77, sizeof pub);
        EXPECT_EQ(0, bf_GetBlockStat(0, block, &raw));
        EXPECT_EQ(0, qvfs_GetBlockStat(0, block, &pub));
        EXPECT_EQ(std::make_tuple(0u, block, raw.dataType, 1u, raw.endTimeLo, raw.endTimeHi),
                  std::make_tuple(pub.diskId, pub.blkId, pub.dataType, pub.state, pub.endTimeLo, pub.endTimeHi));
        EXPECT_EQ(std::make_pair(raw.lock != kBias, raw.recType != kBias), std::make_pair(pub.locked == 1, pub.otherType == 1));
        return std::make_pair(raw.recType - kBias, raw.lock - kBias);
    };
    EXPECT_EQ(1u, counts().first) << "one file of another type";
    for (auto [to, count] : {std::pair{2, 1u}, {3, 2u}, {0, 2u}, {5, 2u}, {1, 1u}, {2, 1u}, {-1, 2u}, {2, 1u}}) {
        ASSERT_EQ(0, qvfs_ChangeRecType(a.c_str(), to)) << "to " << to;
        EXPECT_EQ(std::make_pair(uint64_t(int64_t{to}), count), std::make_pair(stat_of(a).recType, counts().first)) << to;
    }
    // Locking twice counts twice; a backup mark (2) is the file's business only.
    for (auto [value, count] : {std::pair{1, 1u}, {1, 2u}, {2, 2u}, {0, 1u}, {0, 0u}, {-2, 0u}}) {
        ASSERT_EQ(0, qvfs_Lock(b.c_str(), value));
        EXPECT_EQ(std::make_pair(uint64_t(uint32_t(value)), count), std::make_pair(stat_of(b).lock, counts().second))
            << "lock " << value << ": the entry keeps 32 bits";
    }
}

TEST_F(ApiTest, FailedStatusWritesAreReported) {
    const std::string name = new_file();
    const char* n = name.c_str();
    fault(qvfs::plat::kFaultWrite | qvfs::plat::kFaultWritev, 0, UINT64_MAX, 0);
    EXPECT_EQ(0, qvfs_ChangeRecType(n, 5)) << "the type it has: nothing to write";
    EXPECT_EQ(0, qvfs::plat::fault_hits());
    const uint8_t one = 1;
    const TimeValue times[2] = {{0, 0}, {99, 0}};
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, qvfs_Lock(n, 2));
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, qvfs_ChangeCreateTime(n, TimeValue{5, 0}));
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, qvfs_ChangeTime(n, times));
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, qvfs_ChangeRecType(n, 7));
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, qvfs_SetUsrParam(n, &one, 1));
    qvfs::plat::fault_clear();
    EXPECT_EQ(0x70000, open_name(name)) << "every call gave its handle slot back";
}

// ---- disk management

TEST_F(ApiTest, TheThreeFormatsPassModeAndSize) {
    const std::string d1 = sbx_.add_disk(1, image_bytes_for(2));
    // Sectors in block heads: block 0's first (every format clears it), the
    // last of the 16 MiB of block 1 that mode 1 clears, the first behind them.
    const uint64_t heads[3] = {block_addr(0), block_addr(1) + 0xFFFE00, block_addr(1) + 0x1000000};
    const std::vector<uint8_t> dirty(512, 0xEE), clean(512, 0);
    const struct { std::function<int()> format; uint64_t blocks; bool clears; } formats[] = {
        {[&] { return qvfs_Format(d1.c_str()); }, 2, false},  // whole device, metadata only
        {[&] { return qvfs_FormatEx(d1.c_str(), QVFS_FORMAT_CLEAR_HEADS); }, 2, true},
        {[&] { return qvfs_FormatMini(d1.c_str(), image_bytes_for(1)); }, 1, false},  // only that much
        {[&] { return qvfs_FormatMini(d1.c_str(), image_bytes_for(9)); }, 2, false},  // beyond: the whole
    };
    for (const auto& f : formats) {
        SCOPED_TRACE(&f - formats);
        for (uint64_t at : heads) write_dev(1, at, dirty.data(), 512);
        ASSERT_EQ(0, f.format());
        for (uint64_t at : heads)
            EXPECT_EQ(at == heads[0] || (f.clears && at != heads[2]) ? clean : dirty, read_dev(1, at, 512));
        TQvStatfs st{};
        ASSERT_EQ(0, qvfs_Mount(d1.c_str()));
        EXPECT_EQ(0, qvfs_Statfs(d1.c_str(), &st));
        EXPECT_EQ(f.blocks * (kGiB / 512), st.f_blocks);
        ASSERT_EQ(0, qvfs_UnMount(d1.c_str()));
    }
}

// With another process counted in: the plain unmount leaves the disk ready,
// the second one unmounts it for all.
TEST_F(ApiTest, PlainUnmountLeavesOthersAndTheSecondUnmountsForAll) {
    TQvStatfs sf{};
    image(0).mounted = 2;
    ASSERT_EQ(0, qvfs_UnMount(disk_.c_str()));
    EXPECT_EQ(std::make_tuple(1, 0, 0), std::make_tuple(image(0).mounted, image(0).stat, qvfs_Statfs(disk_.c_str(), &sf)));
    ASSERT_EQ(0, qvfs_Mount(disk_.c_str()));
    ASSERT_EQ(0, qvfs_UnMount_V2(disk_.c_str()));
    EXPECT_EQ(std::make_pair(0, 1), std::make_pair(image(0).mounted, image(0).stat));
    EXPECT_ERR(-1, 0, qvfs_Statfs(disk_.c_str(), &sf));
}

// ---- calls a new user gets wrong, next to another recording in the same
// block, and an unlink racing an open in another process

using Clock = std::chrono::steady_clock;

constexpr uint32_t kChn = 3;
constexpr int32_t kMiB = 1 << 20;
constexpr int kFault = QVFS_ERR_SYS + EFAULT;

class Misuse : public ApiTest {
protected:
    // A ring file of channel kChn with `bytes` of pattern(seed) in its area.
    int ring(std::string* name, int32_t area, uint32_t bytes, uint32_t seed) {
        const int h = create(name, kChn, 1, area);
        EXPECT_EQ(int(bytes), qvfs_Write(h, pattern(seed, 0, bytes).data(), bytes));
        return h;
    }
};

TEST_F(Misuse, EachMisuseLeavesTheNeighbourAndTheBlockAlone) {
    const std::string neighbour = new_file(kChn, 5, 70000);
    const auto kept = read_all(neighbour);
    auto* none = static_cast<uint8_t*>(mmap(nullptr, 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(0, mprotect(none + 4096, 4096, PROT_READ));  // and a read-only page behind it
    const struct {
        const char* what;
        std::function<void()> run;
    } rows[] = {
        {"negative or oversized reserved size", [&] {
             const int files = qvfs_GetFileNum(disk_.c_str(), 0);
             for (int32_t bad : {-kMiB, 1023 * kMiB}) {
                 TQvfsOpenParam p = param(kChn, 1, bad);
                 char n[64] = {};
                 EXPECT_EQ(-1, qvfs_OpenV2(&p, n, QVFS_O_RDWR)) << bad;
             }
             EXPECT_EQ(files, qvfs_GetFileNum(disk_.c_str(), 0));
         }},
        {"a ring left without pointers, then the channel's next file", [&] {
             std::string r, next;
             EXPECT_EQ(0, qvfs_Close(ring(&r, kMiB, kMiB, 8)));
             const int h = create(&next, kChn);
             EXPECT_EQ(kMiB, qvfs_Write(h, pattern(9, 0, kMiB).data(), kMiB));
             EXPECT_EQ(0, qvfs_Close(h));
             EXPECT_EQ(pattern(8, 0, kMiB), read_all(r));
             EXPECT_EQ(kMiB, stat_of(r).st.st_size) << "the bytes in the area, not the block offset";
         }},
        {"buffers and vectors the system cannot use", [&] {
             std::string n;
             const int h = create(&n, kChn);
             EXPECT_ERR(-1, kFault, qvfs_Write(h, none, 4096));
             EXPECT_EQ(kFault, qvfs_error(h)) << "the caller's fault, not the disk's";
             char ok[8] = "abcdefg";
             iovec nullBase[1] = {{nullptr, 16}}, halfBad[2] = {{ok, 8}, {none, 64}};
             EXPECT_ERR(-1, kFault, qvfs_Writev(h, nullBase, 1));
             EXPECT_ERR(-1, kFault, qvfs_Writev(h, halfBad, 2));
             EXPECT_EQ(8, qvfs_Write(h, ok, 8));
             EXPECT_EQ(0, qvfs_Seek(h, 0, 0));
             EXPECT_ERR(-1, kFault, qvfs_Read(h, none + 4096, 8));
             EXPECT_EQ(0, qvfs_Close(h));
         }},
        {"an older file of the block growing into the newer one behind it", [&] {
             std::string older, newer;
             const int a = create(&older, kChn);
             EXPECT_EQ(4, qvfs_Write(a, "abcd", 4));
             const int b = create(&newer, kChn);
             EXPECT_EQ(0x10000, qvfs_Write(b, pattern(12, 0, 0x10000).data(), 0x10000));
             EXPECT_EQ(100, qvfs_Write(a, pattern(13, 0, 100).data(), 100)) << "its own last 4 KiB";
             EXPECT_ERR(-1, QVFS_ERR_BLOCKRANGE, qvfs_Write(a, pattern(13, 0, 0x1000).data(), 0x1000));
             EXPECT_EQ(28, qvfs_error(a)) << "tells the recorder to go on in a new file";
             EXPECT_ERR(-1, QVFS_ERR_BLOCKRANGE, qvfs_ftruncate(a, 0x2000));
             EXPECT_EQ(0, qvfs_Close(a));
             EXPECT_EQ(0, qvfs_Close(b));
             EXPECT_EQ(104, stat_of(older).st.st_size);
             EXPECT_EQ(pattern(12, 0, 0x10000), read_all(newer));
         }},
        {"starting the library again with a handle open", [&] {
             std::string n;
             const int h = create(&n, kChn);
             EXPECT_EQ(0, qvfs_Init());
             EXPECT_EQ(3, qvfs_Write(h, "abc", 3)) << "the handle survives";
             EXPECT_EQ(0, qvfs_Close(h));
             EXPECT_EQ(0, qvfs_Unlink(n.c_str())) << "its shared record was given back";
         }},
        {"names with another extension, and extensions no name can carry", [&] {
             std::string n;
             const int h = create(&n, kChn);  // open: the handle-sharing path too
             const std::string other = n.substr(0, n.size() - 3) + "exe";
             EXPECT_EQ(-1, open_name(other));
             EXPECT_EQ(-1, open_name(n + "x"));
             EXPECT_EQ(0, qvfs_Close(h));
             EXPECT_EQ(-1, open_name(other));
             EXPECT_EQ(-1, qvfs_Unlink(other.c_str()));
             EXPECT_EQ(0, qvfs_Unlink(n.c_str()));
             for (const char* ext : {"a/b", "abcdefgh", "", "r\nd"}) {
                 TQvfsOpenParam p = param(kChn);
                 std::memset(p.ext, 0, sizeof p.ext);
                 std::memcpy(p.ext, ext, std::min(std::strlen(ext), sizeof p.ext));
                 char name[64] = {};
                 EXPECT_EQ(-1, qvfs_OpenV2(&p, name, QVFS_O_RDWR)) << ext;
             }
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        row.run();
        EXPECT_EQ(kept, read_all(neighbour));
        TQvStatfs st{};
        EXPECT_EQ(0, qvfs_Statfs(disk_.c_str(), &st));
        EXPECT_EQ(0u, st.f_spare[0]) << "no block marked bad";
    }
}

// One process deletes a file while another opens it and keeps it open until
// the deletion returned, released together after random microseconds: the
// open fails as for a missing file, or the unlink is refused; never both.
TEST_F(Misuse, UnlinkAndOpenOfOneFileNeverBothSucceed) {
    struct Board {
        std::atomic<int> round{0}, ready{0}, go{0}, unlinked{0}, done{0}, opened{0};
        char name[64] = {};
    };
    auto* b = new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board();
    const std::string keeper = new_file(kChn);  // the block is never given back between rounds
    constexpr int kRounds = 400;
    auto spin = [](std::mt19937& rng, unsigned most) {
        for (auto until = Clock::now() + std::chrono::microseconds(rng() % most); Clock::now() < until;) {
        }
    };
    auto wait = [](const std::atomic<int>& v, int want) {  // false after 20 s
        for (auto until = Clock::now() + std::chrono::seconds(20); v.load() != want && Clock::now() < until;)
            sched_yield();
        return v.load() == want;
    };
    // The two sides on different processors, so that they really overlap.
    cpu_set_t all, cpu;
    sched_getaffinity(0, sizeof all, &all);
    auto pin = [&](int nth) {
        CPU_ZERO(&cpu);
        for (int c = 0, seen = 0; c < CPU_SETSIZE; ++c)
            if (CPU_ISSET(c, &all) && seen++ % 2 == nth) CPU_SET(c, &cpu);
        sched_setaffinity(0, sizeof cpu, &cpu);
    };
    Child opener = Child::spawn([&](ChildLink&) {
        pin(1);
        std::mt19937 rng(2);
        for (int r = 1; r <= kRounds; ++r) {
            if (!wait(b->round, r)) return 1;
            b->ready.store(r);
            if (!wait(b->go, r)) return 1;
            spin(rng, 50);
            const int h = open_name(b->name, QVFS_O_RDWR);
            b->opened.store(h >= 0 ? 1 : 0);
            if (!wait(b->unlinked, r)) return 1;
            if (h >= 0) qvfs_Write(h, "x", 1), qvfs_Close(h);
            b->done.store(r);
        }
        return 0;
    });
    pin(0);
    std::mt19937 rng(1);
    int both = 0, opens = 0, unlinks = 0;
    for (int r = 1; r <= kRounds; ++r) {
        const std::string name = new_file(kChn, 5, 16);
        std::strcpy(b->name, name.c_str());
        b->round.store(r);
        ASSERT_TRUE(wait(b->ready, r)) << "the opener stopped";
        b->go.store(r);
        spin(rng, 250);  // an open takes longer than an unlink
        const bool unlinked = qvfs_Unlink(name.c_str()) == 0;
        b->unlinked.store(r);
        ASSERT_TRUE(wait(b->done, r)) << "the opener stopped";
        opens += b->opened.load();
        unlinks += unlinked ? 1 : 0;
        both += unlinked && b->opened.load() == 1 ? 1 : 0;
        EXPECT_TRUE(unlinked || qvfs_Unlink(name.c_str()) == 0) << "the opener has closed it";
    }
    sched_setaffinity(0, sizeof all, &all);
    EXPECT_EQ(0, opener.wait());
    EXPECT_EQ(0, both) << opens << " opens, " << unlinks << " unlinks won";
    EXPECT_TRUE(CPU_COUNT(&all) < 2 || (opens > 0 && unlinks > 0)) << "both sides must win some rounds";
    EXPECT_EQ(1, qvfs_GetFileNum(disk_.c_str(), 0)) << "only the keeper is left";
}

// ---- disks damaged at random (header, meta region, block head, slice
// entries) and then used as a recorder would: no write may land outside the
// layout, a damaged entry leads no write into the directory or another
// block, and another disk of the process keeps recording

using namespace qvfs::disk;

class DamagedDisk : public ApiTest {
protected:
    // A closed file of a channel (a ring of 0x8000 bytes for file type 1,
    // ended after `len` bytes), holding 2 * len bytes; its name or "".
    std::string put(uint32_t chn, int32_t fileType, uint32_t len) {
        TQvfsOpenParam p = param(chn, fileType, fileType == 1 ? 0x8000 : 0);
        char name[64] = {};
        const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
        const auto data = pattern(chn, 0, len);
        qvfs_Write(h, data.data(), len);
        qvfs_UpdataePreRecPtr(h, 0x1000, 0x3000);
        qvfs_Write(h, data.data(), len);
        qvfs_Close(h);
        return h < 0 ? "" : name;
    }
};

TEST_F(DamagedDisk, RandomDamageNeverLeadsOutsideTheLayout) {
    const std::string other = sbx_.add_disk(1, image_bytes_for(1));
    ASSERT_TRUE(qvfs_Format(other.c_str()) == 0 && qvfs_Mount(other.c_str()) == 0);
    TQvfsOpenParam op = param(9);
    std::strncpy(op.path, other.c_str(), sizeof op.path - 1);
    char otherName[64] = {};
    const int live = qvfs_OpenV2(&op, otherName, QVFS_O_RDWR);
    ASSERT_GE(live, 0);

    const int fd = ::open(sbx_.image_path(0).c_str(), O_RDWR);
    const off_t imageSize = ::lseek(fd, 0, SEEK_END);
    const std::pair<uint64_t, uint64_t> outside[] = {  // every write there fails and is counted
        {0, kHeadPrimary}, {kHeadPrimary + 512, meta_base(0) + 0xA0000}, {kHeadBackup + 512, meta_base(1) + 0xA0000},
        {meta_base(2), kDataStart}, {kDataStart + kBlocks * kGiB, UINT64_MAX}};
    auto block = [](const std::string& n) { return kDataStart + std::stoul(n.substr(2, 6), nullptr, 16) * kGiB; };
    auto slice = [](const std::string& n) { return std::stoul(n.substr(8, 4), nullptr, 16) * 512; };
    std::mt19937 rng(20240301);
    for (int round = 0; round < 200; ++round) {
        SCOPED_TRACE(round);
        qvfs_UnMount_V2(disk_.c_str());
        ASSERT_TRUE(qvfs_Format(disk_.c_str()) == 0 && qvfs_Mount(disk_.c_str()) == 0);
        // a: the neighbour; b: a ring in its block; c: a file in a block of its own.
        const std::string a = put(1, 0, 0x8000), b = put(1, 1, 0x4000), c = put(2, 0, 0x4000);
        ASSERT_FALSE(a.empty() || b.empty() || c.empty());
        ASSERT_EQ(0, qvfs_UnMount_V2(disk_.c_str()));
        auto neighbour = [&] {  // a's entry, then its data
            std::vector<uint8_t> bytes(512 + 0x8000);
            EXPECT_EQ(512, ::pread(fd, bytes.data(), 512, off_t(block(a) + slice(a))));
            EXPECT_EQ(0x8000, ::pread(fd, bytes.data() + 512, 0x8000, off_t(block(a) + 0x200000)));
            return bytes;
        };
        const std::vector<uint8_t> before = neighbour();

        const int where = int(rng() % 5);
        for (int n = 1 + int(rng() % 4); n > 0; --n) {
            const uint64_t at = where == 0   ? kHeadPrimary + rng() % 72
                                : where == 1 ? (rng() % 2 ? current_chunk(0, rng() % 4) : map_first(0)) + rng() % 16
                                : where == 2 ? block(b) + rng() % 72
                                             : block(where == 3 ? b : c) + slice(where == 3 ? b : c) + rng() % 104;
            const uint8_t v = uint8_t(rng());
            ASSERT_EQ(1, ::pwrite(fd, &v, 1, off_t(at)));
        }

        for (const auto& [from, to] : outside)
            qvfs::plat::fault_add({0, from, to, qvfs::plat::kFaultWrite | qvfs::plat::kFaultWritev, 5, -1, -1});
        if (qvfs_Mount(disk_.c_str()) == 0) {
            for (const std::string& n : {b, c}) {
                const int h = open_name(n, QVFS_O_RDWR);
                std::vector<uint8_t> buf(0x10000);
                while (qvfs_Read(h, buf.data(), 0x10000) > 0) {
                }
                qvfs_Write(h, buf.data(), 0x2000);
                qvfs_UpdataePreRecPtr(h, 0x100, 0x200);
                qvfs_Seek(h, 0x7000, 0);
                qvfs_Write(h, buf.data(), 0x3000);
                qvfs_ftruncate(h, 0x5000);
                qvfs_Close(h);
            }
            put(1, 1, 0x4000), put(2, 0, 0x4000);
            TQvFileStat list[8];
            for (uint32_t blk = 0; blk < kBlocks; ++blk) qvfs_BlockStat(disk_.c_str(), blk, list, 8);
            qvfs_Unlink(c.c_str());
        }
        qvfs_UnMount_V2(disk_.c_str());
        EXPECT_EQ(uint64_t(kBlockSize), df_GetDiskUnitSize()) << "the block size of every disk of the process";
        EXPECT_EQ(0, qvfs::plat::fault_hits()) << "a write outside the layout, damage at " << where;
        qvfs::plat::fault_clear();
        EXPECT_EQ(imageSize, ::lseek(fd, 0, SEEK_END));
        // An entry consistent in itself may still name a neighbour's bytes in
        // its own block (only the whole directory could tell), never more.
        const std::vector<uint8_t> after = neighbour();
        EXPECT_TRUE(where != 3 || std::equal(after.begin(), after.begin() + 512, before.begin())) << "a's entry";
        EXPECT_TRUE(where != 4 || after == before) << "a, in another block than the damaged entry";
        ASSERT_EQ(16, qvfs_Write(live, otherName, 16)) << "the other disk records on";
    }
    ::close(fd);
    EXPECT_EQ(0, qvfs_Close(live));
}

}  // namespace
