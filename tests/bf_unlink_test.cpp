// Deleting files, unlinking blocks, the block listing, block states, file
// counts and the debug dump.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/compat.h"
#include "support/child.h"

namespace {

using namespace qvfs::bf;
using namespace qvfs::disk;
using namespace qvfs::test;

class BlockUnlinkTest : public BlockCompat {
protected:
    // Stores a changed entry through the layer, as the file layer does.
    static void store(Created& f) { ASSERT_EQ(0, bf_Sync(&f.slice, f.h)); }
    // Disk 0 has the block back: free, its self-info area zero on the device.
    bool given_back(uint32_t block) const {
        return image(0).map[block] == QV_BLK_FREE && dev_zero(0, block_addr(block), 0x200000);
    }
    // A segment query of block 0 for up to `total` files.
    TQvBlkSegQuery seg_query(int total) {
        segBuf_.assign(kScanChunk, 0);
        segOut_.assign(total, TQvFileStat{});
        TQvBlkSegQuery q{};
        q.total = q.max = total;
        q.segSize = kScanChunk;
        q.segBuf = segBuf_.data();
        q.out = segOut_.data();
        return q;
    }
    std::vector<uint8_t> segBuf_;
    std::vector<TQvFileStat> segOut_;
};

TEST_F(BlockUnlinkTest, DeletingTheLastFileGivesTheBlockBack) {
    const std::string path = ready_disk(0, 2);
    Created f = create(request(path, 4, 0, 5));
    f.slice.dataEnd = 0x280000;
    store(f);
    ASSERT_EQ(0, bf_CloseFile(f.h));
    EXPECT_EQ(0, bf_Unlink(f.name));
    EXPECT_TRUE(given_back(0));
    EXPECT_EQ(-1, image(0).current[0][4]);
    EXPECT_TRUE(table_empty());
    // The name leads nowhere now, and the block's next file starts afresh.
    TQvBlkSliceInfo s;
    EXPECT_EQ(nullptr, bf_OpenFile(f.name, &s));
    Created g = create(request(path, 4));
    EXPECT_EQ(std::make_pair(0u, uint64_t{1}), std::make_pair(g.h->share->blkId, g.slice.sliceID));
    bf_CloseFile(g.h);
}

TEST_F(BlockUnlinkTest, DeletingOneOfSeveralFilesKeepsTheBlock) {
    const std::string path = ready_disk(0, 2);
    Created a = create(request(path, 4, 0, 1)), b = create(request(path, 4, 0, 5)), c = create(request(path, 4));
    b.slice.lock = 1;  // locked, as the file layer locks a file
    store(b);
    ASSERT_EQ(0, bf_BlockOpt(b.h, 0, 1));
    bf_CloseFile(a.h);
    bf_CloseFile(b.h);
    TQvBlkInfo h = disk_header(0, 0);
    EXPECT_EQ(std::make_pair(kLockZero + 1, kRecTypeZero + 2), std::make_pair(h.lock, h.recType));

    // Record type 1 leaves the record-type counter alone; slice numbers are
    // not reused, the entry keeps only its number.
    EXPECT_EQ(0, bf_Unlink(a.name));
    const TQvBlkSliceInfo gone = disk_entry(0, 0, 1);
    EXPECT_EQ(1u, gone.sliceID);
    EXPECT_TRUE(all_zero(reinterpret_cast<const uint8_t*>(&gone) + 8, sizeof gone - 8));
    h.cnt = 2;
    EXPECT_EQ(head_fields(h), head_fields(disk_header(0, 0)));
    EXPECT_EQ(head_fields(h), head_fields(c.h->share->header)) << "memory and disk agree";

    // A wrong check code, or a slice outside the directory: nothing changes
    // and no code is set.
    std::string wrong = b.name, slice0 = b.name, far = b.name;
    wrong[15] = wrong[15] == 'A' ? 'B' : 'A';
    slice0.replace(8, 4, "0000");
    far.replace(8, 4, "FFFF");
    for (const std::string& n : {wrong, slice0, far}) {
        SCOPED_TRACE(n);
        EXPECT_ERR(-1, 0, bf_Unlink(n.c_str()));
    }
    EXPECT_EQ(head_fields(h), head_fields(disk_header(0, 0)));
    EXPECT_EQ(0, std::memcmp(b.slice.magic, disk_entry(0, 0, 2).magic, 4));

    // The locked file of record type 5: both counters fall; once only.
    EXPECT_EQ(0, bf_Unlink(b.name));
    EXPECT_EQ(-1, bf_Unlink(b.name));
    h = disk_header(0, 0);
    EXPECT_EQ(std::make_tuple(1u, kLockZero, kRecTypeZero + 1), std::make_tuple(h.cnt, h.lock, h.recType));
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]);
    bf_CloseFile(c.h);
}

TEST_F(BlockUnlinkTest, AnUnlinkedBlockGoesBackAtTheLastDropOfAnyProcess) {
    const std::string path = ready_disk(0, 3);
    Created f = create(request(path, 6));
    ASSERT_EQ(0, bf_CloseFile(f.h));
    Child c = Child::spawn([&](ChildLink& link) {
        TQvBlkSliceInfo s;
        TQvBlkRec* h = bf_OpenFile(f.name, &s);
        CHILD_CHECK(link, h != nullptr);
        link.send(1);
        int64_t go = 0;
        CHILD_CHECK(link, link.recv(&go) && h->share->unlinkPending == 1);
        CHILD_CHECK(link, bf_CloseFile(h) == 0);
        link.send(2);
        return 0;
    });
    ASSERT_TRUE(c.expect(1)) << c.describe(c.wait());
    EXPECT_EQ(0, bf_BlockUnlink(0, 0));
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]) << "the child still holds the block";
    EXPECT_EQ(1u, disk_header(0, 0).cnt);
    ASSERT_TRUE(c.send(1));
    ASSERT_TRUE(c.expect(2));
    EXPECT_CHILD_OK(c);
    EXPECT_TRUE(given_back(0));

    // Nobody holds block 1: it goes back at once.
    Created g = create(request(path, 6));
    const uint32_t blk = g.h->share->blkId;
    ASSERT_EQ(0, bf_CloseFile(g.h));
    EXPECT_EQ(QV_BLK_USED, image(0).map[blk]);
    EXPECT_EQ(0, bf_BlockUnlink(0, blk));
    EXPECT_TRUE(given_back(blk));
    EXPECT_EQ(-1, bf_BlockUnlink(0, 5000)) << "a block that cannot be loaded";
}

class BlockListTest : public BlockUnlinkTest {
protected:
    void SetUp() override {
        BlockUnlinkTest::SetUp();
        path_ = ready_disk(0, 3);
        for (int i = 0; i < 5; ++i) files_.push_back(create(request(path_, 2, 0, 10 + i)));
    }
    void TearDown() override {
        for (Created& f : files_) bf_CloseFile(f.h);
        BlockUnlinkTest::TearDown();
    }
    std::string path_;
    std::vector<Created> files_;
};

TEST_F(BlockListTest, ListsLiveEntriesWithSizesKindsAndLimits) {
    // File 0 holds 1000 bytes, file 1 is locked, file 3 has a wrapped
    // pre-record ring, file 4 is deleted.
    files_[0].slice.dataEnd = files_[0].slice.dataStart + 1000;
    files_[1].slice.lock = 1;
    TQvBlkSliceInfo& r = files_[3].slice;
    r.resStart = 0x200000;
    r.resEnd = 0x400000;
    r.preStart = 0x300000;
    r.preEnd = 0x280000;
    r.dataStart = 0x400000;
    r.dataEnd = 0x500000;
    r.endTime = 0x1234567890ull;
    std::memset(r.usrParam, 0xC3, sizeof r.usrParam);
    for (int i : {0, 1, 3}) store(files_[i]);
    ASSERT_EQ(0, bf_Unlink(files_[4].name));

    std::vector<TQvFileStat> out(10);
    for (TQvFileStat& o : out) {
        std::memset(&o, 0, sizeof o);
        o.st.st_uid = 0xABCD;
    }
    ASSERT_EQ(4, bf_BlockStat(path_.c_str(), 0, out.data(), 10));
    std::string locked = files_[1].name;
    locked[20] = 'L';  // a locked file is listed with 'L'
    const std::string names[] = {files_[0].name, locked, files_[2].name, files_[3].name, ""};
    for (int i = 0; i < 5; ++i) EXPECT_EQ(names[i], out[i].name) << i;
    EXPECT_EQ(std::make_tuple(1000, 1), std::make_tuple(out[0].st.st_size, out[0].st.st_blocks));
    EXPECT_EQ(std::make_tuple(1u, 12u, 2u, 1700000000u),
              std::make_tuple(out[1].lock, out[2].recType, out[2].chn, out[2].startTime));
    // The ring counts from preStart to resEnd and from resStart to preEnd;
    // the times are the end time's low 32 bits.
    EXPECT_EQ(std::make_tuple(0x280000, 0x1400), std::make_tuple(out[3].st.st_size, out[3].st.st_blocks));
    EXPECT_EQ(std::make_pair(0x34567890, 0x34567890),
              std::make_pair(out[3].st.st_mtim.tv_sec, out[3].st.st_ctim.tv_sec));
    EXPECT_EQ(0xC3, out[3].usrParam[31]);
    EXPECT_EQ(0xABCDu, out[3].st.st_uid) << "members the listing does not fill are kept";

    // Limits: 2 of 4; 0 gives 0 and leaves the block alone.
    std::vector<TQvFileStat> two(2);
    EXPECT_EQ(2, bf_BlockStat(path_.c_str(), 0, two.data(), 2));
    EXPECT_EQ(locked, two[1].name);
    EXPECT_EQ(0, bf_BlockStat(path_.c_str(), 0, two.data(), 0));
    EXPECT_EQ(4, bf_GetBlockFileNum(path_.c_str(), 0));
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]);
    EXPECT_EQ(-1, bf_BlockStat("/dev/scsi/host09/part1", 0, two.data(), 2)) << "disk not mounted";
}

TEST_F(BlockListTest, SegmentsCoverTheDirectoryAndAFailedReadReportsTheBlock) {
    TQvBlkSegQuery q = seg_query(8);
    std::set<std::string> names;
    for (q.segIndex = 0; q.segIndex <= 32 && q.found < q.total; ++q.segIndex) {
        ASSERT_EQ(0, bf_BlockStatSeg(&q)) << q.segIndex;
        for (int i = 0; i < q.segFound; ++i) names.insert(segOut_[i].name);
        q.found += q.segFound;
    }
    EXPECT_EQ(5, q.found);
    for (Created& f : files_) EXPECT_EQ(1u, names.count(f.name)) << f.name;
    q.found = q.total;
    EXPECT_EQ(-1, bf_BlockStatSeg(&q)) << "nothing left to find";

    // Reading the directory fails: the listing reports the block bad.
    fault(qvfs::plat::kFaultRead, block_addr(0), kScanChunk, 0);
    std::vector<TQvFileStat> two(2);
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, bf_BlockStat(path_.c_str(), 0, two.data(), 2));
    EXPECT_EQ(QV_BLK_BAD, image(0).map[0]);
}

TEST_F(BlockUnlinkTest, AHeaderCountingFilesOverAnEmptyDirectoryGivesTheBlockBack) {
    const std::string path = ready_disk(0, 2);
    const std::vector<uint8_t> zero(512, 0);
    auto orphan = [&] {  // a file whose entry vanishes behind the layer's back
        bf_CloseFile(create(request(path, 3)).h);
        write_dev(0, block_addr(0) + 512, zero.data(), zero.size());
    };
    // A segment walk gives the block back only at the last segment.
    orphan();
    TQvBlkSegQuery q = seg_query(4);
    q.segIndex = 31;
    ASSERT_EQ(0, bf_BlockStatSeg(&q));
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]);
    q.segIndex = 32;
    ASSERT_EQ(0, bf_BlockStatSeg(&q));
    EXPECT_EQ(0, q.segFound);
    EXPECT_TRUE(given_back(0));
    // The whole listing does it at once.
    orphan();
    std::vector<TQvFileStat> out(4);
    EXPECT_EQ(0, bf_BlockStat(path.c_str(), 0, out.data(), 4));
    EXPECT_TRUE(given_back(0));
}

TEST_F(BlockUnlinkTest, BlockStatesForRecordingsAndPictures) {
    const std::string path = ready_disk(0, 4);
    auto stat = [](uint32_t blk) {
        TQvBlkStat st{};
        EXPECT_EQ(0, bf_GetBlockStat(0, blk, &st));
        return st;
    };
    Created rec = create(request(path, 8, 0, 5));
    rec.slice.endTime = 0x100000002ull;
    rec.slice.dataEnd = 0x201000;
    store(rec);
    ASSERT_EQ(0, bf_BlockOpt(rec.h, 0, 1));
    // The channel's current recording block (state 1); the end time in two words.
    const TQvBlkStat st = stat(0);
    EXPECT_EQ(std::make_tuple(0u, 0u, 0u, kLockZero + 1, 0xFFFF0001u, 1u, 2u, 1u),
              std::make_tuple(st.diskId, st.blkId, st.dataType, st.lock, st.recType, st.state, st.endTimeLo,
                              st.endTimeHi));
    // Pictures (file type 5) of the same channel: block type 3, current too.
    Created pic = create(request(path, 8, 5, 1, 0, "jpg"));
    ASSERT_EQ(1u, pic.h->share->blkId);
    EXPECT_EQ(std::make_tuple(3u, 1u, kLockZero), std::make_tuple(stat(1).dataType, stat(1).state, stat(1).lock));
    // A request too long for block 0's rest moves the channel on: block 0 is
    // then allocated but not current (2); block 3 was never allocated (0).
    Created more = create(request(path, 8, 0, 0, 0x40000000 - 0x200000 - 0x500000));
    EXPECT_EQ(2u, more.h->share->blkId);
    EXPECT_EQ(std::make_pair(2u, 0u), std::make_pair(stat(0).state, stat(3).state));
    for (Created* c : {&rec, &pic, &more}) bf_CloseFile(c->h);
}

TEST_F(BlockUnlinkTest, DebugDumpListsTheProcessesBlocks) {
    const std::string path = ready_disk(0, 3);
    Created f = create(request(path, 12));
    const TQvBlkId id{0, 2};
    TQvBlkRec* h = _bf_GetBlock(&id);
    ASSERT_NE(nullptr, h);
    char small[119];
    std::memset(small, 'z', sizeof small);
    EXPECT_EQ(0, bf_GetDebugInfo(small, sizeof small));
    EXPECT_EQ('z', small[0]) << "below 120 bytes nothing is written";

    std::vector<char> text(65536);
    const int n = bf_GetDebugInfo(text.data(), static_cast<int>(text.size()));
    const std::string s(text.data());
    EXPECT_EQ(static_cast<size_t>(n), s.size());
    char rows[256];
    std::snprintf(rows, sizeof rows, "0\t%d\t0\t12\t0\t0\t1\t1\t%lld\n1\t%d\t0\t0\t0\t2\t1\t1\t%lld\n", f.h->fd,
                  static_cast<long long>(block_addr(0)), h->fd, static_cast<long long>(block_addr(2)));
    EXPECT_EQ(0u, s.find("==============QVBLOCK===========\n"
                         "blkidx\tFd\terrno\tichan\tdiskid\tblkid\tInRef\tShrRef\tblkaddr\n" + std::string(rows)))
        << s;
    EXPECT_NE(std::string::npos, s.find("QVDISK")) << "the disk layer's dump follows";
    // A buffer that holds only part of the text: the length reaches it.
    std::vector<char> part(120);
    EXPECT_GE(bf_GetDebugInfo(part.data(), 120), 120);
    EXPECT_EQ(119u, std::strlen(part.data()));
    _bf_PutBlock(h);
    bf_CloseFile(f.h);
}

}  // namespace
