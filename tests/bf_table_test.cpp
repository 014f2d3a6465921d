// The block-file table: creating and opening files, loading and dropping
// blocks within a process and across processes, the table's limit, damaged
// headers and the header counters.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "common/proc_lock.h"
#include "support/bf_env.h"
#include "support/child.h"

namespace {

using namespace qvfs::bf;
using namespace qvfs::disk;
using namespace qvfs::test;

class BlockTableTest : public BlockTest {};

bool fd_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST_F(BlockTableTest, FirstFileOfAFreshBlock) {
    const std::string path = ready_disk(1, 3);
    Created f = create(request(path, 5, 0, 0, 0, "rvd", 1700000123));
    // The entry: magic, the name's check code, data region at next.
    const TQvBlkSliceInfo& e = f.slice;
    EXPECT_EQ("H10000000001" + std::string(e.verify, 4) + "0000C01.rvd", f.name);
    EXPECT_EQ("QVND.rvd", std::string(e.magic, 4) + "." + e.ext);
    EXPECT_EQ(std::make_tuple(1u, 5u, 1700000123u, 0x200000u, 0x200000u, 0u),
              std::make_tuple(e.sliceID, e.chn, e.startTime, e.dataStart, e.dataEnd, e.resStart));
    const TQvBlkSliceInfo onDisk = disk_entry(1, 0, 1);
    EXPECT_EQ(0, std::memcmp(&e, &onDisk, sizeof e)) << "entry at block offset 512";
    // The header went out initialised; record type 0 counts as "other".
    TQvBlkInfo h = disk_header(1, 0);
    EXPECT_EQ(std::make_tuple(0x200000u, 1u, uint64_t{1700000123}, uint64_t{0}, 5u, 0u, kRecTypeZero + 1, kLockZero, 1u,
                              kAddrMark, uint64_t{0x200000}, 1u),
              head_fields(h));
    EXPECT_EQ(0, std::memcmp(&h, &f.h->share->header, sizeof h)) << "shared copy equals the disk";
    EXPECT_EQ(std::make_pair(1, 1), refs(f.h));

    // A second file, record type 1 (not counted), takes slice 2; the block
    // keeps its first file's start time.
    Created g = create(request(path, 5, 0, 1));
    ASSERT_EQ(f.h, g.h) << "one handle per block and process";
    EXPECT_EQ(std::make_pair(uint64_t{2}, std::string("0002")),
              std::make_pair(g.slice.sliceID, std::string(g.name).substr(8, 4)));
    EXPECT_EQ(std::make_pair(2, 2), refs(f.h));
    h.cnt = h.slice = 2;
    EXPECT_EQ(head_fields(h), head_fields(disk_header(1, 0)));
    EXPECT_EQ(0, bf_CloseFile(g.h));
    EXPECT_EQ(0, bf_CloseFile(f.h));
}

TEST_F(BlockTableTest, ReservedRegionsBackupFilesExtensionsAndPreviousNames) {
    const std::string path = ready_disk(1, 3);
    TQvfsOpenParam r = request(path, 2, 1, 0, 0x100000, "abcdefg");
    std::strcpy(r.preName, "H1000000000112AB0000C01.jpg");
    Created f = create(r);
    const TQvBlkSliceInfo& e = f.slice;
    // Until its ring pointers are set the file's data is the part of the
    // area written so far; the block's next file starts behind the area.
    EXPECT_EQ(std::make_tuple(uint64_t{0x200000}, uint64_t{0x300000}, uint64_t{0x200000}, uint64_t{0x200000}),
              std::make_tuple(e.resStart, e.resEnd, e.dataStart, e.dataEnd));
    EXPECT_EQ(0x300000u, f.h->share->header.next);
    EXPECT_STREQ(".abcdefg", std::strchr(f.name, '.'));
    EXPECT_STREQ("abcdefg", e.ext);
    uint8_t pre[16];
    ASSERT_EQ(0, fsc_FileName27To16(pre, r.preName));
    EXPECT_EQ(0, std::memcmp(pre, e.preName, 16));

    // File type 2 is a backup: entry lock 2, kind 'B', its own block type.
    // A malformed previous name is ignored.
    TQvfsOpenParam b = request(path, 2, 2);
    std::strcpy(b.preName, "too short");
    errno = 0;
    Created g = create(b);
    EXPECT_EQ(0, errno);
    EXPECT_EQ(std::make_tuple(2u, 'B', 0x200000u, 2u, 1u),
              std::make_tuple(g.slice.lock, g.name[20], g.slice.dataStart, g.h->share->header.dataType,
                              g.h->share->blkId));
    EXPECT_TRUE(all_zero(g.slice.preName, 16));
    bf_CloseFile(g.h);
    bf_CloseFile(f.h);
}

TEST_F(BlockTableTest, OpenMatchesTheCheckCodeInAnyCaseAcrossProcesses) {
    const std::string path = ready_disk(0, 2);
    Created f = create(request(path, 9));
    const uint32_t shareIndex = f.h->share->shareIndex;
    ASSERT_EQ(0, bf_CloseFile(f.h));
    std::string lower = f.name;
    std::transform(lower.begin() + 12, lower.begin() + 16, lower.begin() + 12, [](char c) { return std::tolower(c); });

    Child c = Child::spawn([&](ChildLink& link) {
        TQvBlkSliceInfo s;
        TQvBlkRec* h = bf_OpenFile(lower.c_str(), &s);
        CHILD_CHECK(link, h != nullptr && std::memcmp(&s, &f.slice, sizeof s) == 0);
        CHILD_CHECK(link, h->share->shareIndex == shareIndex);
        link.send(h->share->shrRef);
        int64_t go = 0;
        CHILD_CHECK(link, link.recv(&go) && bf_CloseFile(h) == 0);
        link.send(2);
        return 0;
    });
    ASSERT_TRUE(c.expect(1)) << c.describe(c.wait());

    // The parent finds the same shared record by its owner key.
    TQvBlkSliceInfo s;
    TQvBlkRec* h = bf_OpenFile(("/some/where/" + std::string(f.name)).c_str(), &s);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(shareIndex, h->share->shareIndex);
    EXPECT_EQ(std::make_pair(1, 2), refs(h));
    EXPECT_EQ(h, bf_OpenFile(f.name, &s));
    EXPECT_EQ(std::make_pair(2, 3), refs(h));
    // One wrong check-code character, or a slice outside the directory (0,
    // past 4095): refused, no error code, counts kept.
    std::string wrong = f.name, slice0 = f.name, slice4096 = f.name;
    wrong[13] = wrong[13] == '0' ? '1' : '0';
    slice0.replace(8, 4, "0000");
    slice4096.replace(8, 4, "1000");
    for (const std::string& n : {wrong, slice0, slice4096}) {
        SCOPED_TRACE(n);
        EXPECT_ERR(nullptr, 0, bf_OpenFile(n.c_str(), &s));
    }
    EXPECT_EQ(std::make_pair(2, 3), refs(h));

    ASSERT_TRUE(c.send(1));
    ASSERT_TRUE(c.expect(2));
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(2, h->share->shrRef);
    bf_CloseFile(h);
    bf_CloseFile(h);
}

TEST_F(BlockTableTest, LastCloseClosesTheDeviceAndFreesTheSlot) {
    ready_disk(0, 2);
    const TQvBlkId id{0, 1};
    TQvBlkRec* a = _bf_GetBlock(&id);
    ASSERT_NE(nullptr, a);
    ASSERT_EQ(a, _bf_GetBlock(&id));
    EXPECT_EQ(std::make_pair(2, 2), refs(a));
    const int fd = a->fd;
    const uint32_t slot = a->blkIdx;
    EXPECT_EQ(a, table_entry(slot));
    EXPECT_EQ(0, bf_CloseFile(a));
    EXPECT_TRUE(fd_open(fd));
    EXPECT_EQ(a, table_entry(slot));
    EXPECT_EQ(1, a->share->shrRef);
    EXPECT_EQ(0, bf_CloseFile(a));
    EXPECT_FALSE(fd_open(fd));
    EXPECT_EQ(nullptr, table_entry(slot));

    EXPECT_ERR(-1, QVFS_ERR_BADARG, bf_CloseFile(nullptr));
    const TQvBlkId negative{0, -1}, unmounted{4, 0};
    EXPECT_ERR(nullptr, QVFS_ERR_DISKNUM, _bf_GetBlock(&negative));
    EXPECT_EQ(nullptr, _bf_GetBlock(&unmounted));
}

TEST_F(BlockTableTest, AProcessHoldsAtMost1024Blocks) {
    // 1025 distinct blocks need a disk of more than 1 TiB: a sparse image
    // whose blocks are never written (fresh all-zero headers load fine).
    struct rlimit rl {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &rl));
    rl.rlim_cur = std::min<rlim_t>(std::max<rlim_t>(rl.rlim_cur, 1200), rl.rlim_max);
    setrlimit(RLIMIT_NOFILE, &rl);
    if (rl.rlim_cur < 1200) GTEST_SKIP() << "needs 1200 descriptors";
    ready_disk(3, 1030);
    auto get = [](int32_t b) {
        const TQvBlkId id{3, b};
        return _bf_GetBlock(&id);
    };
    std::vector<TQvBlkRec*> held;
    for (int32_t b = 0; b < 1024; ++b) {
        held.push_back(get(b));
        ASSERT_NE(nullptr, held.back()) << "block " << b << " errno " << errno;
    }
    EXPECT_ERR(nullptr, QVFS_ERR_TOOMANYBLOCKS, get(1024));
    EXPECT_EQ(held[700], get(700)) << "a block already held is still found";
    EXPECT_EQ(2, held[700]->inRef);
    _bf_PutBlock(held[700]);

    ASSERT_EQ(0, bf_CloseFile(held[5]));
    held[5] = get(1024);
    ASSERT_NE(nullptr, held[5]) << errno;
    EXPECT_EQ(5u, held[5]->blkIdx) << "the lowest empty slot is reused";
    for (TQvBlkRec* p : held) _bf_PutBlock(p);
    EXPECT_TRUE(table_empty());
}

TEST_F(BlockTableTest, DamagedOrUnreadableHeadersAreNeverUsed) {
    ready_disk(0, 4);
    write_block_head(0, 1, {.len = 0x1000001});
    write_block_head(0, 2, {.slice = 4096});
    for (int32_t b : {1, 2}) {
        const TQvBlkId id{0, b};
        errno = 4242;
        EXPECT_EQ(nullptr, _bf_GetBlock(&id)) << b;
        EXPECT_EQ(4242, errno) << "a rejected header sets no code";
        EXPECT_EQ(QV_BLK_BAD, image(0).map[b]) << b;
    }
    // A header that cannot be read: 3000 + the system's code, block bad.
    fault(qvfs::plat::kFaultRead, block_addr(3), 512, 0);
    const TQvBlkId id3{0, 3};
    EXPECT_ERR(nullptr, QVFS_ERR_SYS + EIO, _bf_GetBlock(&id3));
    EXPECT_EQ(QV_BLK_BAD, image(0).map[3]);
    EXPECT_TRUE(table_empty());
    // Opening a file by a name that leads into a damaged block fails.
    TQvBlkSliceInfo s;
    EXPECT_EQ(nullptr, bf_OpenFile("H0000001000112340000C00.rvd", &s));
}

TEST_F(BlockTableTest, ALoadKeepsTheSharedCopyOfABlockOthersHold) {
    const std::string path = ready_disk(0, 2);
    // The child is forked before the parent loads anything.
    Child c = Child::spawn([&](ChildLink& link) {
        int64_t go = 0;
        CHILD_CHECK(link, link.recv(&go));
        const TQvBlkId id{0, 0};
        TQvBlkRec* h = _bf_GetBlock(&id);
        CHILD_CHECK(link, h != nullptr);
        link.send(h->share->header.lock);
        link.send(h->share->header.cnt);
        _bf_PutBlock(h);
        return 0;
    });
    Created f = create(request(path, 1));
    {
        qvfs::ProcLockGuard lock(f.h->lock);  // a counter change only in memory
        _bf_BlockOpt(f.h, 0, 1);
    }
    EXPECT_EQ(kLockZero, disk_header(0, 0).lock);
    ASSERT_TRUE(c.send(1));
    EXPECT_TRUE(c.expect(kLockZero + 1)) << "the child must see the shared copy, not the disk";
    EXPECT_TRUE(c.expect(1));
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(kLockZero + 1, f.h->share->header.lock) << "nor may its load overwrite it";
    EXPECT_EQ(1, f.h->share->shrRef);
    bf_CloseFile(f.h);

    // Nobody holds the block any more: the next load reads the disk.
    write_block_head(0, 0, {.cnt = 77, .slice = 77});
    const TQvBlkId id{0, 0};
    TQvBlkRec* h = _bf_GetBlock(&id);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(77u, h->share->header.cnt);
    EXPECT_EQ(0u, h->share->unlinkPending);
    _bf_PutBlock(h);
}

TEST_F(BlockTableTest, BlockOptWritesCounterChangesThrough) {
    const std::string path = ready_disk(0, 2);
    Created f = create(request(path, 1, 0, 2));
    // {op, value, lock and record-type counters after}: op 0 counts locks,
    // op 1 record types; other ops and lock values change nothing. Record
    // type 2 (the file's) is not counted.
    const struct { uint32_t op; int32_t value; uint32_t lock; uint64_t rec; } steps[] = {
        {7, 1, 0, 0}, {0, 1, 1, 0}, {1, 1, 1, 1}, {1, 1, 1, 2}, {1, -1, 1, 1}, {0, 0, 0, 1}, {0, 2, 0, 1},
    };
    for (const auto& s : steps) {
        EXPECT_EQ(0, bf_BlockOpt(f.h, s.op, s.value));
        const TQvBlkInfo h = disk_header(0, 0);
        EXPECT_EQ(std::make_pair(kLockZero + s.lock, kRecTypeZero + s.rec), std::make_pair(h.lock, h.recType))
            << s.op << " " << s.value;
        EXPECT_EQ(0, std::memcmp(&h, &f.h->share->header, sizeof h)) << "written through";
    }
    {
        qvfs::ProcLockGuard pass(g_tTimerMutex);  // no flush pass takes the mark meanwhile
        g_astQvDisk[0].syncMark = 0;
        EXPECT_EQ(0, bf_BlockOpt(f.h, 0, 1));
        EXPECT_EQ(1, g_astQvDisk[0].syncMark) << "the flush thread is told";
        EXPECT_EQ(0, bf_BlockOpt(f.h, 0, 0));
    }
    // A failed header write: -1, the block reported bad, memory keeps it.
    fault(qvfs::plat::kFaultWrite, block_addr(0), 512, 0);
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, bf_BlockOpt(f.h, 0, 1));
    EXPECT_EQ(kLockZero + 1, f.h->share->header.lock);
    EXPECT_EQ(kLockZero, disk_header(0, 0).lock);
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
    bf_CloseFile(f.h);
}

TEST_F(BlockTableTest, CreateFailuresLeaveNoHandleBehind) {
    const std::string path = ready_disk(0, 3);
    const TQvfsOpenParam r = request(path, 1);
    Created c;
    // The second file's entry cannot be written: null, 3000 + EIO, block
    // bad, and the reference of the failed create is dropped again.
    Created first = create(r);
    fault(qvfs::plat::kFaultWrite, block_addr(0) + 1024, 512, 0);
    EXPECT_ERR(nullptr, QVFS_ERR_SYS + EIO, bf_CreateFile(&r, c.name, &c.slice));
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
    EXPECT_EQ(std::make_pair(1, 1), refs(first.h));
    qvfs::plat::fault_clear();
    bf_CloseFile(first.h);
    EXPECT_TRUE(table_empty());

    // The channel moves on to a good block. A directory that is full in the
    // shared copy (ahead of the disk, which the disk layer judges by)
    // refuses the file without writing anything.
    Created g = create(r);
    EXPECT_EQ(1u, g.h->share->blkId);
    {
        qvfs::ProcLockGuard lock(g.h->lock);
        g.h->share->header.slice = 4095;
    }
    const TQvBlkInfo before = disk_header(0, 1);
    EXPECT_ERR(nullptr, QVFS_ERR_BADHANDLE, bf_CreateFile(&r, c.name, &c.slice));
    const TQvBlkInfo after = disk_header(0, 1);
    EXPECT_EQ(0, std::memcmp(&before, &after, sizeof before));
    EXPECT_EQ(1, g.h->inRef);
    bf_CloseFile(g.h);

    ASSERT_EQ(0, df_DiskUnmout(path.c_str(), 1));
    EXPECT_EQ(nullptr, bf_CreateFile(&r, c.name, &c.slice)) << "a disk that is not ready";
}

}  // namespace
