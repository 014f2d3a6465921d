// Deleting files, unlinking blocks, the block listing, block states, file
// counts and the debug dump.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "common/proc_lock.h"
#include "support/bf_env.h"
#include "support/child.h"

namespace {

using namespace qvfs::bf;
using qvfs::test::BlockTest;
using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::Created;
using qvfs::disk::QV_BLK_FREE;
using qvfs::disk::QV_BLK_USED;

class BlockUnlinkTest : public BlockTest {
protected:
    // The block's self-info area on disk (header and directory) is all zero.
    bool front_zero(int disk, uint32_t block, uint32_t len = 0x200000) const {
        auto v = read_dev(disk, block_addr(block), len);
        return all_zero(v.data(), v.size());
    }
    // Stores a changed entry through the layer, as the file layer does.
    static void store(Created& f) { ASSERT_EQ(0, bf_Sync(&f.slice, f.h)); }
};

TEST_F(BlockUnlinkTest, DeletingTheLastFileGivesTheBlockBack) {
    const std::string path = ready_disk(0, 2);
    Created f = create(request(path, 4, 0, 5));
    ASSERT_NE(nullptr, f.h);
    EXPECT_EQ(kRecTypeZero + 1, disk_header(0, 0).recType);
    f.slice.dataEnd = 0x280000;
    store(f);
    ASSERT_EQ(0, bf_CloseFile(f.h));

    EXPECT_EQ(0, bf_Unlink(f.name));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[0]);
    EXPECT_EQ(-1, image(0).current[0][4]);
    EXPECT_TRUE(front_zero(0, 0));
    for (uint32_t i = 0; i < kBlkTableSize; ++i) ASSERT_EQ(nullptr, table_entry(i));

    // The name leads nowhere now, and the block's next file starts afresh.
    TQvBlkSliceInfo s;
    EXPECT_EQ(nullptr, bf_OpenFile(f.name, &s));
    Created g = create(request(path, 4));
    ASSERT_NE(nullptr, g.h);
    EXPECT_EQ(0u, g.h->share->blkId);
    EXPECT_EQ(1u, g.slice.sliceID);
    bf_CloseFile(g.h);
}

TEST_F(BlockUnlinkTest, DeletingOneOfSeveralFilesKeepsTheBlock) {
    const std::string path = ready_disk(0, 2);
    Created a = create(request(path, 4, 0, 1));
    Created b = create(request(path, 4, 0, 5));
    Created c = create(request(path, 4, 0, 0));
    ASSERT_TRUE(a.h && b.h && c.h);
    // b is locked, as the file layer locks a file.
    b.slice.lock = 1;
    store(b);
    ASSERT_EQ(0, bf_BlockOpt(b.h, 0, 1));
    bf_CloseFile(a.h);
    bf_CloseFile(b.h);
    TQvBlkInfo h0 = disk_header(0, 0);
    EXPECT_EQ(kRecTypeZero + 2, h0.recType);
    EXPECT_EQ(kLockZero + 1, h0.lock);

    // Record type 1 leaves the record-type counter alone.
    EXPECT_EQ(0, bf_Unlink(a.name));
    TQvBlkSliceInfo gone = disk_entry(0, 0, 1);
    EXPECT_EQ(1u, gone.sliceID);
    EXPECT_TRUE(all_zero(reinterpret_cast<uint8_t*>(&gone) + 8, sizeof gone - 8));
    TQvBlkInfo h1 = disk_header(0, 0);
    EXPECT_EQ(2u, h1.cnt);
    EXPECT_EQ(3u, h1.slice) << "slice numbers are not reused";
    EXPECT_EQ(kRecTypeZero + 2, h1.recType);
    EXPECT_EQ(0, std::memcmp(&h1, &c.h->share->header, sizeof h1)) << "memory and disk agree";

    // A wrong check code changes nothing and sets no code.
    std::string wrong = b.name;
    wrong[15] = wrong[15] == 'A' ? 'B' : 'A';
    errno = 0;
    EXPECT_EQ(-1, bf_Unlink(wrong.c_str()));
    EXPECT_EQ(0, errno);
    // Neither do names whose slice lies outside the directory.
    std::string slice0 = b.name;
    slice0.replace(8, 4, "0000");
    EXPECT_EQ(-1, bf_Unlink(slice0.c_str()));
    std::string far = b.name;
    far.replace(8, 4, "FFFF");
    EXPECT_EQ(-1, bf_Unlink(far.c_str()));
    TQvBlkInfo h2 = disk_header(0, 0);
    EXPECT_EQ(0, std::memcmp(&h1, &h2, sizeof h1));
    EXPECT_EQ(0, std::memcmp(b.slice.magic, disk_entry(0, 0, 2).magic, 4));

    // The locked file with record type 5: both counters fall.
    EXPECT_EQ(0, bf_Unlink(b.name));
    TQvBlkInfo h3 = disk_header(0, 0);
    EXPECT_EQ(1u, h3.cnt);
    EXPECT_EQ(kLockZero, h3.lock);
    EXPECT_EQ(kRecTypeZero + 1, h3.recType);
    // A deleted file cannot be deleted twice.
    EXPECT_EQ(-1, bf_Unlink(b.name));
    EXPECT_EQ(1u, disk_header(0, 0).cnt);

    EXPECT_EQ(QV_BLK_USED, image(0).map[0]);
    bf_CloseFile(c.h);
}

TEST_F(BlockUnlinkTest, AnUnlinkedBlockGoesBackAtTheLastDropOfAnyProcess) {
    const std::string path = ready_disk(0, 3);
    Created f = create(request(path, 6));
    ASSERT_NE(nullptr, f.h);
    ASSERT_EQ(0, bf_CloseFile(f.h));

    Child c = Child::spawn([&](ChildLink& link) {
        TQvBlkSliceInfo s;
        TQvBlkRec* h = bf_OpenFile(f.name, &s);
        CHILD_CHECK(link, h != nullptr);
        link.send(1);
        int64_t go = 0;
        CHILD_CHECK(link, link.recv(&go));
        CHILD_CHECK(link, h->share->unlinkPending == 1);
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
    EXPECT_EQ(QV_BLK_FREE, image(0).map[0]);
    EXPECT_TRUE(front_zero(0, 0));

    // Nobody holds block 1: it goes back at once.
    Created g = create(request(path, 6));
    ASSERT_NE(nullptr, g.h);
    const uint32_t blk = g.h->share->blkId;
    bf_CloseFile(g.h);
    EXPECT_EQ(QV_BLK_USED, image(0).map[blk]);
    EXPECT_EQ(0, bf_BlockUnlink(0, blk));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[blk]);
    EXPECT_EQ(-1, bf_BlockUnlink(0, 5000)) << "a block that cannot be loaded";
}

class BlockListTest : public BlockUnlinkTest {
protected:
    void SetUp() override {
        BlockUnlinkTest::SetUp();
        path_ = ready_disk(0, 3);
        for (int i = 0; i < 5; ++i) {
            files_.push_back(create(request(path_, 2, 0, 10 + i)));
            ASSERT_NE(nullptr, files_.back().h);
        }
    }
    void TearDown() override {
        for (Created& f : files_)
            if (f.h != nullptr) bf_CloseFile(f.h);
        BlockUnlinkTest::TearDown();
    }
    std::string path_;
    std::vector<Created> files_;
};

TEST_F(BlockListTest, ListsLiveEntriesWithSizesKindsAndLimits) {
    // File 1 locked, file 3 with a wrapped pre-record ring.
    files_[1].slice.lock = 1;
    store(files_[1]);
    Created& r = files_[3];
    r.slice.resStart = 0x200000;
    r.slice.resEnd = 0x400000;
    r.slice.preStart = 0x300000;
    r.slice.preEnd = 0x280000;
    r.slice.dataStart = 0x400000;
    r.slice.dataEnd = 0x500000;
    r.slice.endTime = 0x1234567890ull;
    std::memset(r.slice.usrParam, 0xC3, sizeof r.slice.usrParam);
    store(r);
    files_[0].slice.dataEnd = files_[0].slice.dataStart + 1000;
    store(files_[0]);
    ASSERT_EQ(0, bf_Unlink(files_[4].name));

    std::vector<TQvFileStat> out(10);
    for (TQvFileStat& o : out) {
        std::memset(&o, 0, sizeof o);
        o.st.st_uid = 0xABCD;
    }
    ASSERT_EQ(4, bf_BlockStat(path_.c_str(), 0, out.data(), 10));
    EXPECT_EQ(std::string(files_[0].name), out[0].name);
    EXPECT_EQ(1000, out[0].st.st_size);
    EXPECT_EQ(1, out[0].st.st_blocks);
    std::string locked = files_[1].name;
    locked[20] = 'L';
    EXPECT_EQ(locked, out[1].name) << "a locked file is listed with 'L'";
    EXPECT_EQ(1u, out[1].lock);
    EXPECT_EQ(std::string(files_[2].name), out[2].name);
    EXPECT_EQ(12u, out[2].recType);
    EXPECT_EQ(2u, out[2].chn);
    EXPECT_EQ(1700000000u, out[2].startTime);
    EXPECT_EQ(std::string(files_[3].name), out[3].name);
    EXPECT_EQ(0x280000, out[3].st.st_size);
    EXPECT_EQ(0x1400, out[3].st.st_blocks);
    EXPECT_EQ(0x34567890, out[3].st.st_mtim.tv_sec);
    EXPECT_EQ(0x34567890, out[3].st.st_ctim.tv_sec);
    EXPECT_EQ(0xC3, out[3].usrParam[31]);
    EXPECT_EQ(0xABCDu, out[3].st.st_uid) << "members the listing does not fill are kept";
    EXPECT_EQ('\0', out[4].name[0]);

    // Limits: 2 of 4; 0 gives 0 and leaves the block alone.
    std::vector<TQvFileStat> two(2);
    EXPECT_EQ(2, bf_BlockStat(path_.c_str(), 0, two.data(), 2));
    EXPECT_EQ(std::string(files_[1].name).substr(0, 20), std::string(two[1].name).substr(0, 20));
    EXPECT_EQ(0, bf_BlockStat(path_.c_str(), 0, two.data(), 0));
    EXPECT_EQ(4, bf_GetBlockFileNum(path_.c_str(), 0));
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]);
    EXPECT_EQ(-1, bf_BlockStat("/dev/scsi/host09/part1", 0, two.data(), 2)) << "disk not mounted";
}

TEST_F(BlockListTest, SegmentsCoverTheDirectoryAndAFailedReadReportsTheBlock) {
    std::vector<uint8_t> seg(kScanChunk);
    std::vector<TQvFileStat> out(8);
    TQvBlkSegQuery q{};
    q.diskId = 0;
    q.blkId = 0;
    q.total = 8;
    q.max = 8;
    q.segSize = kScanChunk;
    q.segBuf = seg.data();
    q.out = out.data();
    std::set<std::string> names;
    for (q.segIndex = 0; q.segIndex <= 32 && q.found < q.total; ++q.segIndex) {
        ASSERT_EQ(0, bf_BlockStatSeg(&q)) << q.segIndex;
        for (int i = 0; i < q.segFound; ++i) names.insert(out[i].name);
        q.found += q.segFound;
    }
    EXPECT_EQ(5, q.found);
    for (Created& f : files_) EXPECT_EQ(1u, names.count(f.name)) << f.name;
    q.found = q.total;
    EXPECT_EQ(-1, bf_BlockStatSeg(&q)) << "nothing left to find";

    // Reading the directory fails: the listing reports the block bad.
    fault(0, block_addr(0), block_addr(0) + kScanChunk, qvfs::plat::kFaultRead);
    std::vector<TQvFileStat> two(2);
    EXPECT_EQ(-1, bf_BlockStat(path_.c_str(), 0, two.data(), 2));
    EXPECT_EQ(QVFS_ERR_SYS + EIO, errno);
    EXPECT_EQ(qvfs::disk::QV_BLK_BAD, image(0).map[0]);
}

TEST_F(BlockUnlinkTest, AHeaderCountingFilesOverAnEmptyDirectoryGivesTheBlockBack) {
    const std::string path = ready_disk(0, 2);
    Created f = create(request(path, 3));
    ASSERT_NE(nullptr, f.h);
    bf_CloseFile(f.h);
    // The entry vanishes behind the layer's back.
    std::vector<uint8_t> zero(512, 0);
    write_dev(0, block_addr(0) + 512, zero.data(), zero.size());

    // A segment walk gives it back only at segment 32.
    std::vector<uint8_t> seg(kScanChunk);
    std::vector<TQvFileStat> out(4);
    TQvBlkSegQuery q{};
    q.total = 4;
    q.max = 4;
    q.segSize = kScanChunk;
    q.segBuf = seg.data();
    q.out = out.data();
    q.segIndex = 31;
    ASSERT_EQ(0, bf_BlockStatSeg(&q));
    EXPECT_EQ(QV_BLK_USED, image(0).map[0]);
    q.segIndex = 32;
    ASSERT_EQ(0, bf_BlockStatSeg(&q));
    EXPECT_EQ(0, q.segFound);
    EXPECT_EQ(QV_BLK_FREE, image(0).map[0]);

    // And the whole listing does it at once.
    Created g = create(request(path, 3));
    ASSERT_NE(nullptr, g.h);
    bf_CloseFile(g.h);
    write_dev(0, block_addr(0) + 512, zero.data(), zero.size());
    EXPECT_EQ(0, bf_BlockStat(path.c_str(), 0, out.data(), 4));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[0]);
    EXPECT_TRUE(front_zero(0, 0));
}

TEST_F(BlockUnlinkTest, BlockStatesForRecordingsAndPictures) {
    const std::string path = ready_disk(0, 4);
    Created rec = create(request(path, 8, 0, 5));
    ASSERT_NE(nullptr, rec.h);
    rec.slice.endTime = 0x100000002ull;
    rec.slice.dataEnd = 0x201000;
    store(rec);
    ASSERT_EQ(0, bf_BlockOpt(rec.h, 0, 1));
    TQvBlkStat st{};
    ASSERT_EQ(0, bf_GetBlockStat(0, 0, &st));
    EXPECT_EQ(0u, st.diskId);
    EXPECT_EQ(0u, st.blkId);
    EXPECT_EQ(0u, st.dataType);
    EXPECT_EQ(kLockZero + 1, st.lock);
    EXPECT_EQ(0xFFFF0001u, st.recType);
    EXPECT_EQ(1u, st.state) << "the channel's current recording block";
    EXPECT_EQ(2u, st.endTimeLo);
    EXPECT_EQ(1u, st.endTimeHi);

    // Pictures (file type 5, block type 3) of the same channel.
    Created pic = create(request(path, 8, 5, 1, 0, "jpg"));
    ASSERT_NE(nullptr, pic.h);
    const uint32_t picBlk = pic.h->share->blkId;
    EXPECT_NE(0u, picBlk);
    ASSERT_EQ(0, bf_GetBlockStat(0, picBlk, &st));
    EXPECT_EQ(3u, st.dataType);
    EXPECT_EQ(1u, st.state);
    EXPECT_EQ(kLockZero, st.lock);

    // A request too long for block 0's rest moves the channel on: block 0
    // is then allocated but not current.
    Created more = create(request(path, 8, 0, 0, 0x40000000 - 0x200000 - 0x500000));
    ASSERT_NE(nullptr, more.h);
    EXPECT_NE(0u, more.h->share->blkId);
    ASSERT_EQ(0, bf_GetBlockStat(0, 0, &st));
    EXPECT_EQ(2u, st.state);
    // A block nobody allocated.
    ASSERT_EQ(0, bf_GetBlockStat(0, 3, &st));
    EXPECT_EQ(0u, st.state);
    for (Created* c : {&rec, &pic, &more}) bf_CloseFile(c->h);
}

TEST_F(BlockUnlinkTest, DebugDumpListsTheProcessesBlocks) {
    const std::string path = ready_disk(0, 3);
    Created f = create(request(path, 12));
    ASSERT_NE(nullptr, f.h);
    TQvBlkId id{0, 2};
    TQvBlkRec* h = _bf_GetBlock(&id);
    ASSERT_NE(nullptr, h);

    char small[119];
    std::memset(small, 'z', sizeof small);
    EXPECT_EQ(0, bf_GetDebugInfo(small, sizeof small));
    EXPECT_EQ('z', small[0]);

    std::vector<char> text(65536);
    const int n = bf_GetDebugInfo(text.data(), static_cast<int>(text.size()));
    ASSERT_GT(n, 0);
    const std::string s(text.data());
    EXPECT_EQ(static_cast<size_t>(n), s.size());
    const std::string banner =
        "==============QVBLOCK===========\n"
        "blkidx\tFd\terrno\tichan\tdiskid\tblkid\tInRef\tShrRef\tblkaddr\n";
    ASSERT_EQ(0u, s.find(banner));
    char row[160];
    std::snprintf(row, sizeof row, "0\t%d\t0\t12\t0\t0\t1\t1\t%lld\n", f.h->fd,
                  static_cast<long long>(block_addr(0)));
    EXPECT_EQ(banner.size(), s.find(row)) << s;
    std::snprintf(row, sizeof row, "1\t%d\t0\t0\t0\t2\t1\t1\t%lld\n", h->fd,
                  static_cast<long long>(block_addr(2)));
    EXPECT_NE(std::string::npos, s.find(row)) << s;
    EXPECT_NE(std::string::npos, s.find("QVDISK")) << "the disk layer's dump follows";

    // A buffer that holds only part of the text: the length reaches it.
    std::vector<char> part(120);
    EXPECT_GE(bf_GetDebugInfo(part.data(), 120), 120);
    EXPECT_EQ(119u, std::strlen(part.data()));
    _bf_PutBlock(h);
    bf_CloseFile(f.h);
}

}  // namespace
