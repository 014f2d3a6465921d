// The block-file table: creating and opening files, loading and dropping
// blocks within a process and across processes, the table's limit, damaged
// headers and the header counters.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/bf_env.h"
#include "support/child.h"
#include "common/proc_lock.h"

namespace {

using namespace qvfs::bf;
using qvfs::test::BlockTest;
using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::Created;
using qvfs::disk::QV_BLK_BAD;
using qvfs::disk::QV_BLK_USED;

class BlockTableTest : public BlockTest {};

bool fd_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST_F(BlockTableTest, FirstFileOfAFreshBlock) {
    const std::string path = ready_disk(1, 3);
    Created f = create(request(path, 5, 0, 0, 0, "rvd", 1700000123));
    ASSERT_NE(nullptr, f.h);
    const std::string name = f.name;
    ASSERT_EQ(27u, name.size()) << name;
    EXPECT_EQ("H1000000" "0001", name.substr(0, 12));
    EXPECT_EQ("0000C01.rvd", name.substr(16));

    // The entry: magic and check code from the name, data region at next.
    EXPECT_EQ(1u, f.slice.sliceID);
    EXPECT_EQ(0, std::memcmp(f.slice.magic, "QVND", 4));
    EXPECT_EQ(name.substr(12, 4), std::string(f.slice.verify, 4));
    EXPECT_STREQ("rvd", f.slice.ext);
    EXPECT_EQ(5u, f.slice.chn);
    EXPECT_EQ(1700000123u, f.slice.startTime);
    EXPECT_EQ(0x200000u, f.slice.dataStart);
    EXPECT_EQ(0x200000u, f.slice.dataEnd);
    EXPECT_EQ(0u, f.slice.resStart);
    TQvBlkSliceInfo onDisk = disk_entry(1, 0, 1);
    EXPECT_EQ(0, std::memcmp(&f.slice, &onDisk, sizeof onDisk)) << "entry at block offset 512";

    // The header went out initialised; record type 0 counts as "other".
    TQvBlkInfo h = disk_header(1, 0);
    EXPECT_EQ(0x200000u, h.Len);
    EXPECT_EQ(0x200000u, h.next);
    EXPECT_EQ(1u, h.cnt);
    EXPECT_EQ(1u, h.slice);
    EXPECT_EQ(1u, h.flg);
    EXPECT_EQ(kAddrMark, h.addr);
    EXPECT_EQ(kLockZero, h.lock);
    EXPECT_EQ(kRecTypeZero + 1, h.recType);
    EXPECT_EQ(5u, h.chn);
    EXPECT_EQ(0u, h.dataType);
    EXPECT_EQ(1700000123u, h.startTime);
    EXPECT_EQ(0, std::memcmp(&h, &f.h->share->header, sizeof h)) << "shared copy equals the disk";
    EXPECT_EQ(1, f.h->inRef);
    EXPECT_EQ(1, f.h->share->shrRef);

    // A second file of record type 1 takes slice 2 and leaves the counter.
    Created g = create(request(path, 5, 0, 1));
    ASSERT_EQ(f.h, g.h) << "one handle per block and process";
    EXPECT_EQ(2u, g.slice.sliceID);
    EXPECT_EQ("0002", std::string(g.name).substr(8, 4));
    EXPECT_EQ(2, f.h->inRef);
    EXPECT_EQ(2, f.h->share->shrRef);
    h = disk_header(1, 0);
    EXPECT_EQ(2u, h.cnt);
    EXPECT_EQ(2u, h.slice);
    EXPECT_EQ(kRecTypeZero + 1, h.recType);
    EXPECT_EQ(1700000123u, h.startTime) << "the block's start time is its first file's";

    EXPECT_EQ(0, bf_CloseFile(g.h));
    EXPECT_EQ(0, bf_CloseFile(f.h));
}

TEST_F(BlockTableTest, ReservedRegionsBackupFilesExtensionsAndPreviousNames) {
    const std::string path = ready_disk(1, 3);
    TQvfsOpenParam r = request(path, 2, 1, 0, 0x100000, "abcdefgh");
    std::strcpy(r.preName, "H1000000000112AB0000C01.jpg");
    Created f = create(r);
    ASSERT_NE(nullptr, f.h);
    EXPECT_EQ(0x200000u, f.slice.resStart);
    EXPECT_EQ(0x300000u, f.slice.resEnd);
    EXPECT_EQ(0u, f.slice.dataStart);
    EXPECT_EQ(0u, f.slice.dataEnd);
    // The name takes up to 8 characters of extension, the entry 7.
    EXPECT_STREQ(".abcdefgh", std::strchr(f.name, '.'));
    EXPECT_STREQ("abcdefg", f.slice.ext);
    uint8_t pre[16];
    ASSERT_EQ(0, fsc_FileName27To16(pre, r.preName));
    EXPECT_EQ(0, std::memcmp(pre, f.slice.preName, 16));

    // File type 2 is a backup: entry lock 2, kind 'B', its own block type.
    TQvfsOpenParam b = request(path, 2, 2, 0, 0, "rvd");
    std::strcpy(b.preName, "too short");
    errno = 0;
    Created g = create(b);
    ASSERT_NE(nullptr, g.h);
    EXPECT_EQ(0, errno) << "a malformed previous name is ignored";
    EXPECT_NE(f.h, g.h);
    EXPECT_EQ(2u, g.slice.lock);
    EXPECT_EQ('B', g.name[20]);
    EXPECT_TRUE(all_zero(g.slice.preName, 16));
    EXPECT_EQ(0x200000u, g.slice.dataStart);
    EXPECT_EQ(2u, g.h->share->header.dataType);
    EXPECT_EQ(1u, g.h->share->blkId);
    bf_CloseFile(g.h);
    bf_CloseFile(f.h);
}

TEST_F(BlockTableTest, OpenMatchesTheCheckCodeInAnyCaseAcrossProcesses) {
    const std::string path = ready_disk(0, 2);
    Created f = create(request(path, 9));
    ASSERT_NE(nullptr, f.h);
    const uint32_t shareIndex = f.h->share->shareIndex;
    ASSERT_EQ(0, bf_CloseFile(f.h));
    std::string lower = f.name;
    for (size_t i = 12; i < 16; ++i) lower[i] = static_cast<char>(std::tolower(lower[i]));

    Child c = Child::spawn([&](ChildLink& link) {
        TQvBlkSliceInfo s;
        TQvBlkRec* h = bf_OpenFile(lower.c_str(), &s);
        CHILD_CHECK(link, h != nullptr);
        CHILD_CHECK(link, std::memcmp(&s, &f.slice, sizeof s) == 0);
        CHILD_CHECK(link, h->share->shareIndex == shareIndex);
        link.send(h->share->shrRef);
        int64_t go = 0;
        CHILD_CHECK(link, link.recv(&go));
        CHILD_CHECK(link, bf_CloseFile(h) == 0);
        link.send(2);
        return 0;
    });
    ASSERT_TRUE(c.expect(1)) << c.describe(c.wait());

    // The parent finds the same shared record by its owner key.
    TQvBlkSliceInfo s;
    const std::string withPath = "/some/where/" + std::string(f.name);
    TQvBlkRec* h = bf_OpenFile(withPath.c_str(), &s);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(shareIndex, h->share->shareIndex);
    EXPECT_EQ(1, h->inRef);
    EXPECT_EQ(2, h->share->shrRef);
    TQvBlkRec* h2 = bf_OpenFile(f.name, &s);
    EXPECT_EQ(h, h2);
    EXPECT_EQ(2, h->inRef);
    EXPECT_EQ(3, h->share->shrRef);

    // One wrong check-code character: refused, no error code, counts kept.
    std::string wrong = f.name;
    wrong[13] = wrong[13] == '0' ? '1' : '0';
    errno = 0;
    EXPECT_EQ(nullptr, bf_OpenFile(wrong.c_str(), &s));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(2, h->inRef);
    EXPECT_EQ(3, h->share->shrRef);
    // A slice number outside the directory (0, or past 4095) is refused too.
    std::string slice0 = f.name;
    slice0.replace(8, 4, "0000");
    EXPECT_EQ(nullptr, bf_OpenFile(slice0.c_str(), &s));
    std::string slice4096 = f.name;
    slice4096.replace(8, 4, "1000");
    EXPECT_EQ(nullptr, bf_OpenFile(slice4096.c_str(), &s));
    EXPECT_EQ(3, h->share->shrRef);

    ASSERT_TRUE(c.send(1));
    ASSERT_TRUE(c.expect(2));
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(2, h->share->shrRef);
    bf_CloseFile(h2);
    bf_CloseFile(h);
}

TEST_F(BlockTableTest, LastCloseClosesTheDeviceAndFreesTheSlot) {
    const std::string path = ready_disk(0, 2);
    TQvBlkId id{0, 1};
    TQvBlkRec* a = _bf_GetBlock(&id);
    ASSERT_NE(nullptr, a);
    TQvBlkRec* b = _bf_GetBlock(&id);
    ASSERT_EQ(a, b);
    EXPECT_EQ(2, a->inRef);
    EXPECT_EQ(2, a->share->shrRef);
    const int fd = a->fd;
    const uint32_t slot = a->blkIdx;
    EXPECT_EQ(a, table_entry(slot));

    EXPECT_EQ(0, bf_CloseFile(a));
    EXPECT_TRUE(fd_open(fd));
    EXPECT_EQ(a, table_entry(slot));
    EXPECT_EQ(1, a->share->shrRef);
    EXPECT_EQ(0, bf_CloseFile(b));
    EXPECT_FALSE(fd_open(fd));
    EXPECT_EQ(nullptr, table_entry(slot));

    errno = 0;
    EXPECT_EQ(-1, bf_CloseFile(nullptr));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    // Refusals before the table is touched.
    TQvBlkId neg{0, -1};
    EXPECT_EQ(nullptr, _bf_GetBlock(&neg));
    EXPECT_EQ(QVFS_ERR_DISKNUM, errno);
    errno = 0;
    TQvBlkId unmounted{4, 0};
    EXPECT_EQ(nullptr, _bf_GetBlock(&unmounted));
}

TEST_F(BlockTableTest, AProcessHoldsAtMost1024Blocks) {
    // 1025 distinct blocks need a disk of more than 1 TiB: a sparse image
    // whose blocks are never written (fresh all-zero headers load fine).
    struct rlimit rl {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &rl));
    if (rl.rlim_cur < 1200) {
        rl.rlim_cur = rl.rlim_max < 1200 ? rl.rlim_max : 1200;
        setrlimit(RLIMIT_NOFILE, &rl);
        if (rl.rlim_cur < 1200) GTEST_SKIP() << "needs 1200 descriptors";
    }
    const std::string path = ready_disk(3, 1030);
    std::vector<TQvBlkRec*> held;
    for (int32_t b = 0; b < 1024; ++b) {
        TQvBlkId id{3, b};
        TQvBlkRec* h = _bf_GetBlock(&id);
        ASSERT_NE(nullptr, h) << "block " << b << " errno " << errno;
        held.push_back(h);
    }
    TQvBlkId extra{3, 1024};
    errno = 0;
    EXPECT_EQ(nullptr, _bf_GetBlock(&extra));
    EXPECT_EQ(QVFS_ERR_TOOMANYBLOCKS, errno);
    // A block already held is still found while the table is full.
    TQvBlkId again{3, 700};
    EXPECT_EQ(held[700], _bf_GetBlock(&again));
    EXPECT_EQ(2, held[700]->inRef);
    _bf_PutBlock(held[700]);

    ASSERT_EQ(0, bf_CloseFile(held[5]));
    TQvBlkRec* h = _bf_GetBlock(&extra);
    ASSERT_NE(nullptr, h) << errno;
    EXPECT_EQ(5u, h->blkIdx) << "the lowest empty slot is reused";
    held[5] = h;
    for (TQvBlkRec* p : held) _bf_PutBlock(p);
    for (uint32_t i = 0; i < kBlkTableSize; ++i) ASSERT_EQ(nullptr, table_entry(i));
}

TEST_F(BlockTableTest, DamagedOrUnreadableHeadersAreNeverUsed) {
    const std::string path = ready_disk(0, 4);
    qvfs::test::TestBlockHead bad;
    bad.len = 0x1000001;
    write_block_head(0, 1, bad);
    qvfs::test::TestBlockHead badSlice;
    badSlice.len = 0x200000;
    badSlice.slice = 4096;
    write_block_head(0, 2, badSlice);

    for (int32_t b : {1, 2}) {
        TQvBlkId id{0, b};
        errno = 4242;
        EXPECT_EQ(nullptr, _bf_GetBlock(&id)) << b;
        EXPECT_EQ(4242, errno) << "a rejected header sets no code";
        EXPECT_EQ(QV_BLK_BAD, image(0).map[b]) << b;
    }
    for (uint32_t i = 0; i < kBlkTableSize; ++i) ASSERT_EQ(nullptr, table_entry(i));

    // A header that cannot be read: 3000 + the system's code, block bad.
    fault(0, block_addr(3), block_addr(3) + 512, qvfs::plat::kFaultRead);
    TQvBlkId id{0, 3};
    EXPECT_EQ(nullptr, _bf_GetBlock(&id));
    EXPECT_EQ(QVFS_ERR_SYS + EIO, errno);
    EXPECT_EQ(QV_BLK_BAD, image(0).map[3]);
    qvfs::plat::fault_clear();

    // Opening a file by a name that leads into a damaged block fails.
    TQvBlkSliceInfo s;
    EXPECT_EQ(nullptr, bf_OpenFile("H0000001000112340000C00.rvd", &s));
    // The refused loads left no record registered: a good block loads as
    // the only user.
    TQvBlkId good{0, 0};
    TQvBlkRec* h = _bf_GetBlock(&good);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(1, h->share->shrRef);
    _bf_PutBlock(h);
}

TEST_F(BlockTableTest, ALoadKeepsTheSharedCopyOfABlockOthersHold) {
    const std::string path = ready_disk(0, 2);
    // The child is forked before the parent loads anything.
    Child c = Child::spawn([&](ChildLink& link) {
        int64_t go = 0;
        CHILD_CHECK(link, link.recv(&go));
        TQvBlkId id{0, 0};
        TQvBlkRec* h = _bf_GetBlock(&id);
        CHILD_CHECK(link, h != nullptr);
        link.send(h->share->header.lock);
        link.send(h->share->header.cnt);
        _bf_PutBlock(h);
        return 0;
    });
    Created f = create(request(path, 1));
    ASSERT_NE(nullptr, f.h);
    {
        // A counter change that is only in memory.
        qvfs::ProcLockGuard lock(f.h->lock);
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
    qvfs::test::TestBlockHead marker;
    marker.cnt = 77;
    marker.slice = 3;
    write_block_head(0, 0, marker);
    TQvBlkId id{0, 0};
    TQvBlkRec* h = _bf_GetBlock(&id);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(77u, h->share->header.cnt);
    EXPECT_EQ(0u, h->share->unlinkPending);
    _bf_PutBlock(h);
}

TEST_F(BlockTableTest, BlockOptWritesCounterChangesThrough) {
    const std::string path = ready_disk(0, 2);
    Created f = create(request(path, 1, 0, 2));
    ASSERT_NE(nullptr, f.h);
    EXPECT_EQ(kRecTypeZero, disk_header(0, 0).recType) << "record type 2 is not counted";

    EXPECT_EQ(0, bf_BlockOpt(f.h, 0, 1));
    EXPECT_EQ(kLockZero + 1, disk_header(0, 0).lock);
    EXPECT_EQ(0, bf_BlockOpt(f.h, 1, 1));
    EXPECT_EQ(0, bf_BlockOpt(f.h, 1, 1));
    EXPECT_EQ(0, bf_BlockOpt(f.h, 1, -1));
    EXPECT_EQ(kRecTypeZero + 1, disk_header(0, 0).recType);
    EXPECT_EQ(0, bf_BlockOpt(f.h, 0, 0));
    EXPECT_EQ(kLockZero, disk_header(0, 0).lock);

    // Values and ops that change nothing leave memory and disk alone.
    TQvBlkInfo before = f.h->share->header;
    EXPECT_EQ(0, bf_BlockOpt(f.h, 0, 2));
    EXPECT_EQ(0, bf_BlockOpt(f.h, 7, 1));
    EXPECT_EQ(0, std::memcmp(&before, &f.h->share->header, sizeof before));
    TQvBlkInfo onDisk = disk_header(0, 0);
    EXPECT_EQ(0, std::memcmp(&before, &onDisk, sizeof before));

    // A failed header write: -1, the block reported bad, memory keeps it.
    fault(0, block_addr(0), block_addr(0) + 512, qvfs::plat::kFaultWrite);
    EXPECT_EQ(-1, bf_BlockOpt(f.h, 0, 1));
    EXPECT_EQ(QVFS_ERR_SYS + EIO, errno);
    EXPECT_EQ(kLockZero + 1, f.h->share->header.lock);
    EXPECT_EQ(kLockZero, disk_header(0, 0).lock);
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
    bf_CloseFile(f.h);
}

TEST_F(BlockTableTest, CreateFailuresLeaveNoHandleBehind) {
    const std::string path = ready_disk(0, 3);
    TQvfsOpenParam r = request(path, 1);
    Created c;

    // The second file's entry cannot be written: null, 3000 + EIO, block
    // bad, and the reference of the failed create is dropped again.
    Created first = create(r);
    ASSERT_NE(nullptr, first.h);
    fault(0, block_addr(0) + 1024, block_addr(0) + 1536, qvfs::plat::kFaultWrite);
    EXPECT_EQ(nullptr, bf_CreateFile(&r, c.name, &c.slice));
    EXPECT_EQ(QVFS_ERR_SYS + EIO, errno);
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
    EXPECT_EQ(1, first.h->inRef);
    EXPECT_EQ(1, first.h->share->shrRef);
    qvfs::plat::fault_clear();
    bf_CloseFile(first.h);
    for (uint32_t i = 0; i < kBlkTableSize; ++i) ASSERT_EQ(nullptr, table_entry(i));

    // The channel moves on to a good block.
    Created g = create(r);
    ASSERT_NE(nullptr, g.h);
    EXPECT_EQ(1u, g.h->share->blkId);

    // A directory that is full in the shared copy (ahead of the disk, which
    // the disk layer judges by) refuses the file without writing anything.
    {
        qvfs::ProcLockGuard lock(g.h->lock);
        g.h->share->header.slice = 4095;
    }
    TQvBlkInfo before = disk_header(0, 1);
    errno = 0;
    EXPECT_EQ(nullptr, bf_CreateFile(&r, c.name, &c.slice));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    TQvBlkInfo after = disk_header(0, 1);
    EXPECT_EQ(0, std::memcmp(&before, &after, sizeof before));
    EXPECT_EQ(1, g.h->inRef);
    bf_CloseFile(g.h);

    // A disk that is not ready.
    ASSERT_EQ(0, df_DiskUnmout(path.c_str(), 1));
    EXPECT_EQ(nullptr, bf_CreateFile(&r, c.name, &c.slice));
}

}  // namespace
