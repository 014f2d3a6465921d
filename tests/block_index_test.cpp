// The block search answers from the disk's index what the block headers on
// the device say: checked against the headers read from the image itself,
// through creates and deletions of this process and of another one, a
// remount that rebuilds the index, and a format.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <ctime>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/fixture.h"

namespace {

using namespace qvfs::test;

constexpr uint64_t kDataStart = 0x41100000, kBlockSize = 1ull << 30;

class BlockIndex : public ApiTest {
protected:
    struct Head {
        uint32_t block, chn, type;
        int64_t start, end;
    };
    // The headers of the blocks in use, from the image's bytes: the blocks
    // come from qvfs_GetBlockInfo, channel and type from bytes 24 and 28.
    std::vector<Head> heads() const {
        std::vector<TQvDiskBlkInfo> info(kBlocks);
        const int n = qvfs_GetBlockInfo(disk_.c_str(), info.data(), int(kBlocks));
        EXPECT_GE(n, 0);
        const int fd = ::open(sbx_.image_path(0).c_str(), O_RDONLY);
        std::vector<Head> out;
        for (int i = 0; i < n; ++i) {
            uint32_t word[2] = {};
            EXPECT_EQ(8, ::pread(fd, word, 8, off_t(kDataStart + info[i].blkId * kBlockSize + 24)));
            if (info[i].cnt == 0) continue;
            const int64_t start = int64_t(info[i].startTime);
            out.push_back({info[i].blkId, word[0], word[1], start,
                           info[i].endTime == 0 ? INT64_MAX : std::max(start, int64_t(info[i].endTime))});
        }
        ::close(fd);
        return out;
    }
    // Every query of a grid of channels, types and windows, against heads().
    void expect_agreement(const std::string& when) {
        SCOPED_TRACE(when);
        const std::vector<Head> hs = heads();
        const int64_t later = int64_t(time(nullptr)) + 3600;  // after every write's end time
        for (uint32_t chn : {0u, 1u, 2u, QVFS_ANY_CHANNEL})
            for (uint32_t type : {uint32_t(QVFS_BLK_REC), uint32_t(QVFS_BLK_PIC), QVFS_ANY_BLK_TYPE})
                for (auto [from, to] : {std::pair<int64_t, int64_t>{INT64_MIN, INT64_MAX}, {kT0 + 150, kT0 + 400},
                                        {kT0 + 500, INT64_MAX}, {INT64_MIN, kT0 - 1}, {later, INT64_MAX}}) {
                    std::vector<Head> want;
                    for (const Head& h : hs)
                        if ((chn == QVFS_ANY_CHANNEL || h.chn == chn) && (type == QVFS_ANY_BLK_TYPE || h.type == type) &&
                            h.start <= to && h.end >= from)
                            want.push_back(h);
                    std::sort(want.begin(), want.end(),
                              [](const Head& a, const Head& b) { return std::pair(a.start, a.block) < std::pair(b.start, b.block); });
                    TQvDiskBlkInfo got[kBlocks] = {};
                    const int n = qvfs_FindBlocks(disk_.c_str(), chn, type, from, to, got, 2);
                    ASSERT_EQ(int(want.size()), n) << chn << " " << type << " " << from << " " << to;
                    for (int i = 0; i < std::min(n, 2); ++i) EXPECT_EQ(want[size_t(i)].block, got[i].blkId) << i;
                }
    }
    static constexpr int64_t kT0 = 1'700'000'000;
};

TEST_F(BlockIndex, AgreesWithTheHeadersThroughChangesRemountAndFormat) {
    std::mt19937 rng(11);
    std::vector<std::pair<std::string, uint32_t>> live;  // name, channel
    int64_t t = kT0;
    auto record = [&](uint32_t chn, int32_t fileType) {
        TQvfsOpenParam p = param(chn, fileType);
        p.startTime = int32_t(t += 1 + int64_t(rng() % 90));
        char name[64] = {};
        const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
        if (h < 0) return;  // no block left: the search must say the same
        if (rng() % 4) {
            EXPECT_EQ(3, qvfs_Write(h, "abc", 3));
        }
        EXPECT_EQ(0, qvfs_Close(h));
        live.emplace_back(name, chn);
    };
    for (int step = 0; step < 24; ++step) {
        if (!live.empty() && rng() % 3 == 0) {
            const size_t i = rng() % live.size();
            EXPECT_EQ(0, qvfs_Unlink(live[i].first.c_str()));
            live.erase(live.begin() + long(i));
        } else {
            record(rng() % 2, rng() % 2 ? 0 : 5);
        }
        if (step % 6 == 5) expect_agreement("step " + std::to_string(step));
    }
    // Channel 1's blocks go back; another process records channel 2 in one
    // of them: its allocation and header writes reach this process's answers.
    for (const auto& [name, chn] : live)
        if (chn == 1) {
            EXPECT_EQ(0, qvfs_Unlink(name.c_str()));
        }
    Child other = Child::spawn([&](ChildLink&) {
        t = kT0 + 1000;
        record(2, 0);
        return 0;
    });
    ASSERT_EQ(0, other.wait());
    EXPECT_EQ(1, qvfs_FindBlocks(disk_.c_str(), 2, QVFS_BLK_REC, kT0 + 1000, INT64_MAX, nullptr, 0));
    expect_agreement("after another process");

    ASSERT_EQ(0, qvfs_UnMount_V2(disk_.c_str()));
    ASSERT_EQ(0, qvfs_Mount(disk_.c_str()));
    expect_agreement("after a remount rebuilt the index");

    TQvDiskBlkInfo one{};
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_FindBlocks(disk_.c_str(), 0, 0, 0, 0, nullptr, 1));
    ASSERT_EQ(0, qvfs_UnMount_V2(disk_.c_str()));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_FindBlocks(disk_.c_str(), 0, 0, INT64_MIN, INT64_MAX, &one, 1));
    ASSERT_EQ(0, qvfs_Format(disk_.c_str()));
    ASSERT_EQ(0, qvfs_Mount(disk_.c_str()));
    EXPECT_EQ(0, qvfs_FindBlocks(disk_.c_str(), QVFS_ANY_CHANNEL, QVFS_ANY_BLK_TYPE, INT64_MIN, INT64_MAX, &one, 1));
}

}  // namespace
