// Disks damaged at random (header, meta region, block head, slice entries)
// and then used as a recorder would: no write may land outside the layout,
// a damaged entry leads no write into the directory or another block, and
// another disk of the process keeps recording.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "platform.h"
#include "support/fixture.h"

namespace {

using namespace qvfs::disk;
using namespace qvfs::test;

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
