// The block-file layer: headers read from disk, creating and opening files,
// blocks loaded and dropped within a process and across processes, block
// I/O and sync with faults, deletion, block unlink, listing and states.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstdlib>
#include <set>
#include <tuple>

#include "common/proc_lock.h"
#include "support/child.h"
#include "support/fixture.h"

namespace {

// ---- the block-file table

using namespace qvfs::bf;
using namespace qvfs::test;
using qvfs::disk::QV_BLK_BAD;

auto fields(const TQvBlkInfo& h) {  // what the layer keeps in a header
    return std::make_tuple(h.Len, h.flg, h.startTime, h.endTime, h.chn, h.dataType, h.recType, h.lock, h.cnt,
                           h.addr, h.next, h.slice);
}
std::pair<int, int> refs(const TQvBlkRec* h) { return {h->inRef, h->share->shrRef}; }
bool table_empty() {
    for (uint32_t i = 0; i < kBlkTableSize; ++i)
        if (table_entry(i) != nullptr) return false;
    return true;
}
TQvBlkRec* get(uint32_t disk, int32_t block) {
    const TQvBlkId id{disk, block};
    return _bf_GetBlock(&id);
}

// A fresh (all-zero) header; Len up to 16 MiB; slice below Len / 512; next
// up to the unit, compared unsigned.
TEST(BlockHeader, Acceptance) {
    constexpr uint64_t kUnit = 0x40000000;
    const struct { uint32_t len, slice; uint64_t next; bool ok; } cases[] = {
        {0, 0, 0, true}, {0, 1, 0, false}, {0, 0, 0x1000, false},
        {0x1000000, 5, 0x1000000, true}, {0x1000001, 5, 0x1000000, false},
        {0x200000, 4095, 0x200000, true}, {0x200000, 4096, 0x200000, false},
        {0x1000000, 32767, 0x1000000, true}, {0x1000000, 32768, 0x1000000, false},
        {0x200000, 1, kUnit, true}, {0x200000, 1, kUnit + 1, false}, {0x200000, 1, ~0ull, false},
    };
    for (const auto& c : cases) {
        TQvBlkInfo h{};
        h.Len = c.len, h.slice = c.slice, h.next = c.next;
        EXPECT_EQ(c.ok, header_acceptable(h, kUnit)) << std::hex << c.len << " " << c.slice << " " << c.next;
    }
}

TEST_F(BlockTest, FilesOfAFreshBlock) {
    ready_disk(1, 3);
    TQvfsOpenParam r = param(5, 0, 0, 0, 1);
    r.startTime = 1700000123;
    BFile f = bf_create(r);
    const TQvBlkSliceInfo& e = f.slice;
    EXPECT_EQ("H10000000001" + std::string(e.verify, 4) + "0000C01.rvd", f.name);
    EXPECT_EQ("QVND.rvd", std::string(e.magic, 4) + "." + e.ext);
    EXPECT_EQ(std::make_tuple(1u, 5u, 1700000123u, 0x200000u, 0x200000u, 0u),
              std::make_tuple(e.sliceID, e.chn, e.startTime, e.dataStart, e.dataEnd, e.resStart));
    const TQvBlkSliceInfo onDisk = entry_on_disk(1, 0, 1);
    EXPECT_EQ(0, std::memcmp(&e, &onDisk, sizeof e)) << "entry at block offset 512";
    // The header went out initialised; record type 0 counts as "other".
    TQvBlkInfo h = head_on_disk(1, 0);
    EXPECT_EQ(std::make_tuple(0x200000u, 1u, uint64_t{1700000123}, uint64_t{0}, 5u, 0u, kRecTypeZero + 1, kLockZero,
                              1u, kAddrMark, uint64_t{0x200000}, 1u),
              fields(h));
    EXPECT_EQ(0, std::memcmp(&h, &f.h->share->header, sizeof h)) << "shared copy equals the disk";
    // Record type 1 is not counted; the block keeps its first start time.
    BFile g = bf_create(param(5, 0, 0, 1, 1));
    ASSERT_EQ(f.h, g.h) << "one handle per block and process";
    EXPECT_EQ(std::make_tuple(uint64_t{2}, std::string("0002"), std::make_pair(2, 2)),
              std::make_tuple(g.slice.sliceID, std::string(g.name).substr(8, 4), refs(f.h)));
    h.cnt = h.slice = 2;
    EXPECT_EQ(fields(h), fields(head_on_disk(1, 0)));
    // A reserved region (until its ring pointers are set the file is the part
    // of the area written so far; the next file starts behind the area), 7
    // characters of extension, a previous name; a backup file (lock 2, 'B',
    // its own block type) whose malformed previous name is ignored.
    TQvfsOpenParam res = param(2, 1, 0x100000, 0, 1), bak = param(2, 2, 0, 0, 1);
    std::memcpy(res.ext, "abcdefg", 8);
    std::strcpy(res.preName, "H1000000000112AB0000C01.jpg");
    std::strcpy(bak.preName, "too short");
    BFile a = bf_create(res), b = bf_create(bak);
    EXPECT_EQ(std::make_tuple(uint64_t{0x200000}, uint64_t{0x300000}, uint64_t{0x200000}, uint64_t{0x200000}, 0x300000u),
              std::make_tuple(a.slice.resStart, a.slice.resEnd, a.slice.dataStart, a.slice.dataEnd, a.h->share->header.next));
    EXPECT_STREQ(".abcdefg", std::strchr(a.name, '.'));
    EXPECT_STREQ("abcdefg", a.slice.ext);
    EXPECT_EQ(0, std::memcmp("1000000000112AB\x01", a.slice.preName, 16)) << "the 16-byte form";
    EXPECT_EQ(std::make_tuple(2u, 'B', 2u, 2u, 0), std::make_tuple(b.slice.lock, b.name[20], b.h->share->header.dataType,
                                                                   b.h->share->blkId, int(b.slice.preName[0])));
    for (TQvBlkRec* x : {f.h, g.h, a.h, b.h}) bf_CloseFile(x);
}

TEST_F(BlockTest, OpenMatchesTheCheckCodeInAnyCaseAcrossProcesses) {
    ready_disk(0, 2);
    BFile f = bf_create(param(9));
    const uint32_t index = f.h->share->shareIndex;
    ASSERT_EQ(0, bf_CloseFile(f.h));
    std::string lower = f.name;
    std::transform(lower.begin() + 12, lower.begin() + 16, lower.begin() + 12, ::tolower);
    Child c = Child::spawn([&](ChildLink& link) {
        TQvBlkSliceInfo s;
        TQvBlkRec* h = bf_OpenFile(lower.c_str(), &s);
        CHILD_CHECK(link, h != nullptr && std::memcmp(&s, &f.slice, sizeof s) == 0 && h->share->shareIndex == index);
        link.send(h->share->shrRef);
        int64_t go = 0;
        CHILD_CHECK(link, link.recv(&go) && bf_CloseFile(h) == 0);
        return link.send(2) ? 0 : 1;
    });
    ASSERT_TRUE(c.expect(1)) << c.describe(c.wait());
    // The parent finds the same shared record by its owner key.
    TQvBlkSliceInfo s;
    TQvBlkRec* h = bf_OpenFile(("/some/where/" + std::string(f.name)).c_str(), &s);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(std::make_tuple(index, std::make_pair(1, 2)), std::make_tuple(h->share->shareIndex, refs(h)));
    // One wrong check-code character, or a slice outside the directory:
    // refused, no error code, counts kept.
    std::string wrong = f.name, slice0 = f.name, slice4096 = f.name;
    wrong[13] = wrong[13] == '0' ? '1' : '0';
    slice0.replace(8, 4, "0000");
    slice4096.replace(8, 4, "1000");
    for (const std::string& n : {wrong, slice0, slice4096}) {
        SCOPED_TRACE(n);
        EXPECT_ERR(nullptr, 0, bf_OpenFile(n.c_str(), &s));
    }
    EXPECT_EQ(std::make_pair(1, 2), refs(h));
    ASSERT_TRUE(c.send(1) && c.expect(2));
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(1, h->share->shrRef);
    bf_CloseFile(h);
}

// 1025 distinct blocks need a disk of more than 1 TiB: a sparse image whose
// blocks are never written (fresh all-zero headers load fine).
TEST_F(BlockTest, AProcessHoldsAtMost1024Blocks) {
    struct rlimit rl {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &rl));
    rl.rlim_cur = std::min<rlim_t>(std::max<rlim_t>(rl.rlim_cur, 1200), rl.rlim_max);
    setrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur < 1200) GTEST_SKIP() << "needs 1200 descriptors";
    ready_disk(3, 1030);
    std::vector<TQvBlkRec*> held;
    for (int32_t b = 0; b < 1024; ++b) {
        held.push_back(get(3, b));
        ASSERT_NE(nullptr, held.back()) << "block " << b << " errno " << errno;
    }
    EXPECT_ERR(nullptr, QVFS_ERR_TOOMANYBLOCKS, get(3, 1024));
    EXPECT_EQ(held[700], get(3, 700)) << "a block already held is still found";
    _bf_PutBlock(held[700]);
    const int fd = held[5]->fd;
    ASSERT_EQ(0, bf_CloseFile(held[5]));
    EXPECT_EQ(-1, fcntl(fd, F_GETFD)) << "the last close closes the device";
    EXPECT_ERR(nullptr, QVFS_ERR_DISKNUM, get(3, -1));
    held[5] = get(3, 1024);
    ASSERT_NE(nullptr, held[5]) << errno;
    EXPECT_EQ(5u, held[5]->blkIdx) << "the lowest empty slot is reused";
    for (TQvBlkRec* p : held) _bf_PutBlock(p);
    EXPECT_TRUE(table_empty());
}

TEST_F(BlockTest, DamagedOrUnreadableHeadersAreNeverUsed) {
    ready_disk(0, 4);
    TQvBlkInfo bad{};
    bad.Len = 0x1000001;
    put_head(0, 1, bad);
    bad.Len = 0x200000, bad.slice = 4096;
    put_head(0, 2, bad);
    fault(qvfs::plat::kFaultRead, block_addr(3), 512, 0);
    // Rejected: no code. Unreadable: 3000 + the system's code. Both bad.
    for (auto [b, err] : {std::pair{1, 4242}, {2, 4242}, {3, QVFS_ERR_SYS + EIO}}) {
        errno = 4242;
        EXPECT_EQ(nullptr, get(0, b)) << b;
        EXPECT_EQ(std::make_pair(err, QV_BLK_BAD), std::make_pair(errno, image(0).map[b])) << b;
    }
    EXPECT_TRUE(table_empty());
    TQvBlkSliceInfo s;
    EXPECT_EQ(nullptr, bf_OpenFile("H0000001000112340000C00.rvd", &s)) << "a name leading into a damaged block";
}

// The header is read from disk only when no process holds the block.
TEST_F(BlockTest, ALoadKeepsTheSharedCopyOfABlockOthersHold) {
    ready_disk(0, 2);
    Child c = Child::spawn([&](ChildLink& link) {  // forked before the parent loads anything
        int64_t go = 0;
        TQvBlkRec* h = link.recv(&go) ? get(0, 0) : nullptr;
        CHILD_CHECK(link, h != nullptr);
        link.send(h->share->header.lock);
        return _bf_PutBlock(h);
    });
    BFile f = bf_create(param(1));
    {
        qvfs::ProcLockGuard lock(f.h->lock);  // a counter change only in memory
        _bf_BlockOpt(f.h, 0, 1);
    }
    ASSERT_TRUE(c.send(1));
    EXPECT_TRUE(c.expect(kLockZero + 1)) << "the child must see the shared copy, not the disk";
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(std::make_pair(kLockZero + 1, 1), std::make_pair(f.h->share->header.lock, f.h->share->shrRef));
    bf_CloseFile(f.h);
    TQvBlkInfo fresh{};
    fresh.Len = 0x200000, fresh.next = 0x200000, fresh.cnt = 77, fresh.slice = 77;
    put_head(0, 0, fresh);
    TQvBlkRec* h = get(0, 0);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(std::make_pair(77u, 0u), std::make_pair(h->share->header.cnt, h->share->unlinkPending));
    _bf_PutBlock(h);
}

// op 0 counts locks (values 1 and 0 only), op 1 record types; every change
// is written through and tells the flush thread.
TEST_F(BlockTest, BlockOptWritesCounterChangesThrough) {
    ready_disk(0, 2);
    BFile f = bf_create(param(1, 0, 0, 2));  // record type 2: not counted
    const struct { uint32_t op; int32_t value; uint32_t lock; uint64_t rec; } steps[] = {
        {7, 1, 0, 0}, {0, 1, 1, 0}, {1, 1, 1, 1}, {1, 1, 1, 2}, {1, -1, 1, 1}, {0, 0, 0, 1}, {0, 2, 0, 1},
    };
    for (const auto& s : steps) {
        EXPECT_EQ(0, bf_BlockOpt(f.h, s.op, s.value));
        const TQvBlkInfo h = head_on_disk(0, 0);
        EXPECT_EQ(std::make_pair(kLockZero + s.lock, kRecTypeZero + s.rec), std::make_pair(h.lock, h.recType)) << s.op;
        EXPECT_EQ(0, std::memcmp(&h, &f.h->share->header, sizeof h)) << "written through";
    }
    {
        qvfs::ProcLockGuard pass(g_tTimerMutex);  // no flush pass takes the mark meanwhile
        g_astQvDisk[0].syncMark = 0;
        EXPECT_EQ(0, bf_BlockOpt(f.h, 0, 1));
        EXPECT_EQ(1, g_astQvDisk[0].syncMark);
    }
    // A failed header write: -1, the block reported bad, memory keeps it.
    fault(qvfs::plat::kFaultWrite, block_addr(0), 512, 0);
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, bf_BlockOpt(f.h, 0, 1));
    EXPECT_EQ(std::make_tuple(kLockZero + 2, kLockZero + 1, QV_BLK_BAD),
              std::make_tuple(f.h->share->header.lock, head_on_disk(0, 0).lock, image(0).map[0]));
    bf_CloseFile(f.h);
}

TEST_F(BlockTest, CreateFailuresLeaveNoHandleBehind) {
    const TQvfsOpenParam r = param(1);
    ready_disk(0, 3);
    BFile first = bf_create(r), c;
    // The entry cannot be written: 3000 + EIO, block bad, reference dropped.
    fault(qvfs::plat::kFaultWrite, block_addr(0) + 1024, 512, 0);
    EXPECT_ERR(nullptr, QVFS_ERR_SYS + EIO, bf_CreateFile(&r, c.name, &c.slice));
    EXPECT_EQ(std::make_pair(QV_BLK_BAD, std::make_pair(1, 1)), std::make_pair(image(0).map[0], refs(first.h)));
    qvfs::plat::fault_clear();
    bf_CloseFile(first.h);
    EXPECT_TRUE(table_empty());
    // The channel moves on. A directory full in the shared copy (ahead of the
    // disk, which the disk layer judges by) refuses without writing.
    BFile g = bf_create(r);
    EXPECT_EQ(1u, g.h->share->blkId);
    g.h->share->header.slice = 4095;
    const TQvBlkInfo before = head_on_disk(0, 1);
    EXPECT_ERR(nullptr, QVFS_ERR_BADHANDLE, bf_CreateFile(&r, c.name, &c.slice));
    EXPECT_EQ(fields(before), fields(head_on_disk(0, 1)));
    EXPECT_EQ(1, g.h->inRef);
    bf_CloseFile(g.h);
}

// ---- block I/O

using qvfs::disk::QV_BLK_USED;
using qvfs::plat::kFaultRead;
using qvfs::plat::kFaultWrite;
constexpr uint32_t kUnit = 0x40000000;

int g_allocs = 0;

class BlockIo : public BlockTest {
protected:
    void SetUp() override {
        BlockTest::SetUp();
        path_ = ready_disk(0, 2);
        f_ = bf_create(param(3));
        qvfs_RegistAllocatorInterface([](uint32_t n) { return ++g_allocs, std::malloc(n); }, std::free);
        g_allocs = 0;
    }
    void TearDown() override {
        EXPECT_EQ(0, g_allocs) << "allocations during the test";
        qvfs_InitAllocatorInterface();
        bf_CloseFile(f_.h);
        BlockTest::TearDown();
    }
    std::vector<uint8_t> on_disk(uint64_t off, size_t n) const { return read_dev(0, block_addr(0) + off, n); }
    int err() { return bf_GetErrorNo(f_.h); }
    // Whether the block was reported bad; makes it good again and disarms the faults.
    bool reported_bad() {
        const bool bad = image(0).map[0] == QV_BLK_BAD;
        image(0).map[0] = QV_BLK_USED;
        qvfs::plat::fault_clear();
        return bad;
    }
    std::string path_;
    BFile f_;
};

// bf_Write judges the last 4 MiB by the start of a transfer, bf_Writev by
// its end; both refuse to pass the block's end, and then signal 28 too.
TEST_F(BlockIo, TransfersAtTheBlocksEnd) {
    enum Op { W, R, V };
    const struct { Op op; uint32_t off, len; int ret, code, xferErr; } steps[] = {
        {W, kUnit - 4096, 4096, 4096, 0, 28},     {R, kUnit - 4096, 4096, 4096, 0, 0},
        {W, kUnit - 0x400001, 4096, 4096, 0, 0},  {V, kUnit - 0x400001, 4096, 4096, 0, 28},
        {W, kUnit - 0x400000, 4096, 4096, 0, 28}, {V, kUnit - 0x401001, 4096, 4096, 0, 0},
        {V, kUnit - 0x401000, 4096, 4096, 0, 28}, {W, 0x300000, 4096, 4096, 0, 0},
        {W, kUnit - 4095, 4096, -1, QVFS_ERR_BADHANDLE, 28}, {W, 0x300000, 1, 1, 0, 0},
        {V, kUnit - 4095, 4096, -1, QVFS_ERR_BADHANDLE, 28}, {W, kUnit + 1, 1, -1, QVFS_ERR_BLOCKRANGE, 28},
        {R, kUnit + 1, 1, -1, QVFS_ERR_BLOCKRANGE, -1},     {W, 0x300000, 0, 0, 0, -1},
        {R, 0x300000, 0, -1, 0, -1},                        {V, 0x300000, 0, 0, 0, -1},
    };
    for (size_t i = 0; i < std::size(steps); ++i) {
        const auto& s = steps[i];
        SCOPED_TRACE(i);
        std::vector<uint8_t> buf = pattern(uint32_t(i), 0, s.len + 1);  // never empty: never null
        iovec v[2] = {{buf.data(), s.len / 2}, {buf.data() + s.len / 2, s.len - s.len / 2}};
        EXPECT_ERR(s.ret, s.code,
                   s.op == R   ? bf_Read(s.off, buf.data(), s.len, f_.h)
                   : s.op == W ? bf_Write(s.off, buf.data(), s.len, f_.h)
                               : bf_Writev(s.off, v, 2, f_.h));
        EXPECT_TRUE(s.xferErr < 0 || s.xferErr == err()) << err();
        buf.resize(s.len);
        EXPECT_TRUE(s.ret <= 0 || on_disk(s.off, s.len) == buf) << "the device holds what the buffer holds";
    }
    EXPECT_EQ(pattern(0, 0, 4096), on_disk(kUnit - 4096, 4096)) << "the block's last bytes are untouched";
    EXPECT_TRUE(dev_zero(0, block_addr(1), 4096)) << "and so is the next block";
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]) << "no refusal reports the block";
}

TEST_F(BlockIo, FailedTransfersReportTheBlockBadUnlessTheDiskIsAway) {
    const auto data = pattern(5, 0, 8192);
    std::vector<uint8_t> back(8192);
    iovec v[2] = {{const_cast<uint8_t*>(data.data()), 2048}, {const_cast<uint8_t*>(data.data()) + 2048, 2048}};
    auto arm = [](unsigned op, uint32_t off, long shortBytes = -1, int hits = -1) {
        fault(op, block_addr(0) + off, 8192, 0, shortBytes, hits);
    };
    // One short write or read is continued to the end.
    arm(kFaultWrite, 0x200000, 1000, 1);
    EXPECT_EQ(8192, bf_Write(0x200000, data.data(), 8192, f_.h));
    arm(kFaultRead, 0x200000, 300, 1);
    EXPECT_EQ(8192, bf_Read(0x200000, back.data(), 8192, f_.h));
    EXPECT_EQ(std::make_tuple(data, data, 0, false), std::make_tuple(on_disk(0x200000, 8192), back, err(), reported_bad()));
    // A read failing after a first piece returns what it got; failed writes
    // report 5, or 28 near the end (the file layer must move on); a short
    // writev is not continued.
    arm(kFaultRead, 0x200000, 300, 1);
    arm(kFaultRead, 0x200000, -1, 1);
    EXPECT_EQ(300, bf_Read(0x200000, back.data(), 8192, f_.h));
    EXPECT_EQ(std::make_pair(5, true), std::make_pair(err(), reported_bad()));
    arm(kFaultWrite, 0x300000);
    EXPECT_EQ(-1, bf_Write(0x300000, data.data(), 4096, f_.h));
    EXPECT_EQ(std::make_pair(5, true), std::make_pair(err(), reported_bad()));
    arm(kFaultWrite, kUnit - 4096);
    EXPECT_EQ(-1, bf_Write(kUnit - 4096, data.data(), 4096, f_.h));
    EXPECT_EQ(std::make_pair(28, true), std::make_pair(err(), reported_bad()));
    arm(qvfs::plat::kFaultWritev, 0x400000, 1000, 1);
    EXPECT_EQ(-1, bf_Writev(0x400000, v, 2, f_.h));
    EXPECT_EQ(std::make_tuple(5, true, true),
              std::make_tuple(err(), dev_zero(0, block_addr(0) + 0x400000 + 1000, 3096), reported_bad()));
    // Offline: nothing moves, and it is not the block's fault. Not ready:
    // every transfer and the sync refused.
    ASSERT_EQ(4096, bf_Write(0x600000, data.data(), 4096, f_.h));
    fault(qvfs::plat::kFaultOffline);
    EXPECT_EQ(-1, bf_Writev(0x500000, v, 2, f_.h));
    EXPECT_EQ(5, err());
    EXPECT_EQ(-1, bf_Write(0x500000, data.data(), 4096, f_.h));
    EXPECT_EQ(-1, bf_Sync(&f_.slice, f_.h));
    EXPECT_EQ(std::make_pair(false, true), std::make_pair(reported_bad(), dev_zero(0, block_addr(0) + 0x500000, 4096)));
    ASSERT_EQ(4096, bf_Write(0x600000, data.data(), 4096, f_.h));
    ASSERT_EQ(0, df_DiskUnmout(path_.c_str(), 1));
    EXPECT_EQ(-1, bf_Read(0x200000, back.data(), 16, f_.h));
    EXPECT_EQ(5, err());
    for (int r : {bf_Write(0x300000, data.data(), 4096, f_.h), bf_Writev(0x300000, v, 2, f_.h), bf_Sync(&f_.slice, f_.h)})
        EXPECT_EQ(-1, r);
}

TEST_F(BlockIo, SyncAdvancesNextAndEndTimeAndWritesTheHeaderOnlyThen) {
    // A marker in the on-disk header shows whether the header was rewritten.
    const uint8_t mark = 0x5A;
    auto sync = [&](const TQvBlkSliceInfo& s, bool rewritten, uint64_t next, uint64_t endTime) {
        write_dev(0, block_addr(0) + 200, &mark, 1);
        ASSERT_EQ(0, bf_Sync(&s, f_.h));
        const TQvBlkSliceInfo e = entry_on_disk(0, 0, 1);
        const TQvBlkInfo h = head_on_disk(0, 0);
        EXPECT_EQ(0, std::memcmp(&s, &e, sizeof e)) << "the entry is always written";
        EXPECT_EQ(rewritten, h.reserved[200 - 68] != mark);
        EXPECT_EQ(std::make_pair(next, endTime), std::make_pair(f_.h->share->header.next, f_.h->share->header.endTime));
        EXPECT_EQ(std::make_pair(next, endTime), std::make_pair(h.next, h.endTime)) << "disk and memory agree";
    };
    TQvBlkSliceInfo s = f_.slice;
    s.dataEnd = 0x200001, s.endTime = 1000;
    sync(s, true, 0x201000, 1000);  // next moves to the 4 KiB boundary
    s.dataEnd = 0x201000, s.endTime = 999, s.videoAbstract = 4;
    sync(s, false, 0x201000, 1000);  // nothing advances
    s.resStart = 0x200000, s.dataEnd = 0x280000, s.endTime = 5000;
    sync(s, false, 0x201000, 1000);  // an incomplete reserved region never moves the header
    s.resEnd = 0x240000, s.preStart = 0x200000, s.preEnd = 0x210000;
    sync(s, true, 0x280000, 5000);  // a complete one does
    s.endTime = 6000;
    sync(s, true, 0x280000, 6000);  // so does an endTime alone
}

TEST_F(BlockIo, SyncFailuresAndEntriesOutsideTheDirectory) {
    TQvBlkSliceInfo s = f_.slice;
    const TQvBlkInfo before = head_on_disk(0, 0);
    // sliceID 0 would overwrite the header; beyond Len lies file data.
    for (uint64_t id : {uint64_t(0), uint64_t(4096), uint64_t(1) << 40}) {
        s.sliceID = id;
        EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, bf_Sync(&s, f_.h));
    }
    const TQvBlkInfo after = head_on_disk(0, 0);
    EXPECT_EQ(0, std::memcmp(&before, &after, sizeof before));
    EXPECT_TRUE(dev_zero(0, block_addr(0) + 0x200000, 512));
    // A failed header write (here: 40 of 512 bytes, 3000 + no system code)
    // keeps the advance in memory for the next write.
    s = f_.slice;
    s.dataEnd = 0x300000, s.endTime = 77;
    fault(kFaultWrite, block_addr(0), 512, 0, 40, 1);
    EXPECT_ERR(-1, QVFS_ERR_SYS, bf_Sync(&s, f_.h));
    EXPECT_EQ(std::make_tuple(QV_BLK_BAD, uint64_t{0x300000}, uint64_t{0x200000}),
              std::make_tuple(image(0).map[0], f_.h->share->header.next, head_on_disk(0, 0).next));
    EXPECT_EQ(0, bf_BlockOpt(f_.h, 0, 1));
    EXPECT_EQ(std::make_pair(uint64_t{0x300000}, uint64_t{77}), std::make_pair(head_on_disk(0, 0).next, head_on_disk(0, 0).endTime));
    // A failed entry write: 3000 + EIO, and the header is left alone.
    fault(kFaultWrite, block_addr(0) + 512, 512, 0);
    s.dataEnd = 0x400000;
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, bf_Sync(&s, f_.h));
    EXPECT_EQ(0x300000u, f_.h->share->header.next);
}

// ---- deletion, listing, states

using namespace qvfs::disk;

class BlockUnlink : public BlockTest {
protected:
    // Disk 0 has the block back: free, its directory zero on the device.
    bool given_back(uint32_t block) const {
        return image(0).map[block] == QV_BLK_FREE && dev_zero(0, block_addr(block), 0x200000);
    }
};

TEST_F(BlockUnlink, DeletingTheLastFileGivesTheBlockBack) {
    ready_disk(0, 2);
    BFile f = bf_create(param(4));
    f.slice.dataEnd = 0x280000;
    ASSERT_EQ(0, bf_Sync(&f.slice, f.h));
    ASSERT_EQ(0, bf_CloseFile(f.h));
    EXPECT_EQ(0, bf_Unlink(f.name));
    EXPECT_TRUE(given_back(0));
    EXPECT_EQ(-1, image(0).current[0][4]);
    TQvBlkSliceInfo s;
    EXPECT_EQ(nullptr, bf_OpenFile(f.name, &s)) << "the name leads nowhere";
    BFile g = bf_create(param(4));
    EXPECT_EQ(std::make_pair(0u, uint64_t{1}), std::make_pair(g.h->share->blkId, g.slice.sliceID)) << "a fresh start";
    bf_CloseFile(g.h);
}

TEST_F(BlockUnlink, DeletingOneOfSeveralFilesKeepsTheBlock) {
    ready_disk(0, 2);
    BFile a = bf_create(param(4, 0, 0, 1)), b = bf_create(param(4, 0, 0, 5)), c = bf_create(param(4));
    b.slice.lock = 1;  // locked, as the file layer locks a file
    ASSERT_EQ(0, bf_Sync(&b.slice, b.h));
    ASSERT_EQ(0, bf_BlockOpt(b.h, 0, 1));
    bf_CloseFile(a.h);
    bf_CloseFile(b.h);
    // Record type 1 leaves the record-type counter alone; the entry keeps
    // only its number (slice numbers are not reused).
    EXPECT_EQ(0, bf_Unlink(a.name));
    TQvBlkSliceInfo gone = entry_on_disk(0, 0, 1), zero{};
    zero.sliceID = 1;
    EXPECT_EQ(0, std::memcmp(&zero, &gone, sizeof gone));
    TQvBlkInfo h = head_on_disk(0, 0);
    EXPECT_EQ(std::make_tuple(2u, kLockZero + 1, kRecTypeZero + 2), std::make_tuple(h.cnt, h.lock, h.recType));
    EXPECT_EQ(0, std::memcmp(&h, &c.h->share->header, sizeof h)) << "memory and disk agree";
    // A wrong check code, or a slice outside the directory: nothing changes,
    // no code is set.
    std::string wrong = b.name, slice0 = b.name, far = b.name;
    wrong[15] = wrong[15] == 'A' ? 'B' : 'A';
    slice0.replace(8, 4, "0000");
    far.replace(8, 4, "FFFF");
    for (const std::string& n : {wrong, slice0, far}) {
        SCOPED_TRACE(n);
        EXPECT_ERR(-1, 0, bf_Unlink(n.c_str()));
    }
    EXPECT_EQ(0, std::memcmp(&h, &c.h->share->header, sizeof h));
    // The locked file of record type 5: both counters fall, once.
    EXPECT_EQ(0, bf_Unlink(b.name));
    EXPECT_EQ(-1, bf_Unlink(b.name));
    h = head_on_disk(0, 0);
    EXPECT_EQ(std::make_tuple(1u, kLockZero, kRecTypeZero + 1, QV_BLK_USED),
              std::make_tuple(h.cnt, h.lock, h.recType, image(0).map[0]));
    bf_CloseFile(c.h);
}

TEST_F(BlockUnlink, AnUnlinkedBlockGoesBackAtTheLastDropOfAnyProcess) {
    ready_disk(0, 3);
    BFile f = bf_create(param(6));
    ASSERT_EQ(0, bf_CloseFile(f.h));
    Child c = Child::spawn([&](ChildLink& link) {
        TQvBlkSliceInfo s;
        TQvBlkRec* h = bf_OpenFile(f.name, &s);
        int64_t go = 0;
        CHILD_CHECK(link, h != nullptr && link.send(1) && link.recv(&go) && h->share->unlinkPending == 1);
        CHILD_CHECK(link, bf_CloseFile(h) == 0);
        return link.send(2) ? 0 : 1;
    });
    ASSERT_TRUE(c.expect(1)) << c.describe(c.wait());
    EXPECT_EQ(0, bf_BlockUnlink(0, 0));
    EXPECT_EQ(std::make_pair(QV_BLK_USED, 1u), std::make_pair(image(0).map[0], head_on_disk(0, 0).cnt))
        << "the child still holds the block";
    ASSERT_TRUE(c.send(1) && c.expect(2));
    EXPECT_CHILD_OK(c);
    EXPECT_TRUE(given_back(0));
    // Nobody holds block 1: it goes back at once.
    BFile g = bf_create(param(6));
    ASSERT_EQ(0, bf_CloseFile(g.h));
    EXPECT_EQ(0, bf_BlockUnlink(0, 1));
    EXPECT_TRUE(given_back(1));
}

// Five files: 0 holds 1000 bytes, 1 is locked, 3 has a wrapped ring and
// user parameters, 4 is deleted.
TEST_F(BlockUnlink, ListingWholeAndBySegments) {
    const std::string path = ready_disk(0, 3);
    std::vector<BFile> f;
    for (int i = 0; i < 5; ++i) f.push_back(bf_create(param(2, 0, 0, 10 + i)));
    f[0].slice.dataEnd = f[0].slice.dataStart + 1000;
    f[1].slice.lock = 1;
    TQvBlkSliceInfo& r = f[3].slice;
    r.resStart = 0x200000, r.resEnd = 0x400000, r.preStart = 0x300000, r.preEnd = 0x280000;
    r.dataStart = 0x400000, r.dataEnd = 0x500000, r.endTime = 0x1234567890ull;
    std::memset(r.usrParam, 0xC3, sizeof r.usrParam);
    for (int i : {0, 1, 3}) ASSERT_EQ(0, bf_Sync(&f[i].slice, f[i].h));
    ASSERT_EQ(0, bf_Unlink(f[4].name));
    std::vector<TQvFileStat> out(10);
    for (TQvFileStat& o : out) o.st.st_uid = 0xABCD;
    ASSERT_EQ(4, bf_BlockStat(path.c_str(), 0, out.data(), 10));
    std::string locked = f[1].name;
    locked[20] = 'L';  // a locked file is listed with 'L'
    const std::string names[] = {f[0].name, locked, f[2].name, f[3].name, ""};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(names[i], out[i].name) << i;
    // The ring counts from preStart to resEnd and from resStart to preEnd;
    // the times are the end time's low 32 bits.
    EXPECT_EQ(std::make_tuple(1000, 1, 1u, 12u, 2u, 1700000000u, 0x280000, 0x1400, 0x34567890, 0x34567890, 0xC3),
              std::make_tuple(out[0].st.st_size, out[0].st.st_blocks, out[1].lock, out[2].recType, out[2].chn,
                              out[2].startTime, out[3].st.st_size, out[3].st.st_blocks, out[3].st.st_mtim.tv_sec,
                              out[3].st.st_ctim.tv_sec, int(out[3].usrParam[31])));
    EXPECT_EQ(0xABCDu, out[3].st.st_uid) << "members the listing does not fill are kept";
    EXPECT_EQ(std::make_tuple(2, 0, 4), std::make_tuple(bf_BlockStat(path.c_str(), 0, out.data(), 2),
                                                        bf_BlockStat(path.c_str(), 0, out.data(), 0),
                                                        bf_GetBlockFileNum(path.c_str(), 0)));
    EXPECT_EQ(-1, bf_BlockStat("/dev/scsi/host09/part1", 0, out.data(), 2)) << "disk not mounted";
    // The 32 segments of 512 KiB find the same live entries.
    std::vector<uint8_t> segBuf(kScanChunk);
    TQvBlkSegQuery q{};
    q.total = q.max = 8, q.segSize = kScanChunk, q.segBuf = segBuf.data(), q.out = out.data();
    std::set<std::string> seen;
    for (q.segIndex = 0; q.segIndex < 32 && q.found < q.total; ++q.segIndex) {
        ASSERT_EQ(0, bf_BlockStatSeg(&q)) << q.segIndex;
        for (int i = 0; i < q.segFound; ++i) seen.insert(out[i].name);
        q.found += q.segFound;
    }
    EXPECT_EQ((std::set<std::string>{f[0].name, locked, f[2].name, f[3].name}), seen);
    q.found = q.total;
    EXPECT_EQ(-1, bf_BlockStatSeg(&q)) << "nothing left to find";
    // Reading the directory fails: the listing reports the block bad.
    fault(qvfs::plat::kFaultRead, block_addr(0), kScanChunk, 0);
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, bf_BlockStat(path.c_str(), 0, out.data(), 2));
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
    for (BFile& x : f) bf_CloseFile(x.h);
}

// A header counting files over a directory that holds none: a segment walk
// gives the block back at the last segment, the whole listing at once.
TEST_F(BlockUnlink, AnEmptyDirectoryUnderACountingHeaderGivesTheBlockBack) {
    const std::string path = ready_disk(0, 2);
    const std::vector<uint8_t> zero(512, 0);
    std::vector<uint8_t> segBuf(kScanChunk);
    std::vector<TQvFileStat> out(4);
    for (int whole : {0, 1}) {
        bf_CloseFile(bf_create(param(3)).h);
        write_dev(0, block_addr(0) + 512, zero.data(), zero.size());  // the entry vanishes behind the layer's back
        if (whole == 1) {
            EXPECT_EQ(0, bf_BlockStat(path.c_str(), 0, out.data(), 4));
        } else {
            TQvBlkSegQuery q{};
            q.total = q.max = 4, q.segSize = kScanChunk, q.segBuf = segBuf.data(), q.out = out.data(), q.segIndex = 31;
            ASSERT_EQ(0, bf_BlockStatSeg(&q));
            EXPECT_EQ(QV_BLK_USED, image(0).map[0]);
            q.segIndex = 32;
            ASSERT_EQ(0, bf_BlockStatSeg(&q));
        }
        EXPECT_TRUE(given_back(0)) << whole;
    }
}

}  // namespace
