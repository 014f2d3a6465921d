// Allocation and release sequences checked against the meta regions on the
// device, the reuse test of a channel's current block, failures of the
// metadata writes, and two processes allocating at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <vector>

#include "support/child.h"
#include "support/fixture.h"

namespace {

using namespace qvfs::disk;
using namespace qvfs::test;
using qvfs::plat::fault_hits;
using qvfs::plat::kFaultWrite;

class AllocTest : public DiskTest {
protected:
    void SetUp() override {
        DiskTest::SetUp();
        path_ = ready_disk(0, 9);
    }
    std::string path_;
};

TEST_F(AllocTest, MetadataWriteFailures) {
    // Region 0's map fails at both locations: region 1 carries the change.
    fault(kFaultWrite, map_first(0), kMapSize);
    fault(kFaultWrite, map_second(0), kMapSize);
    ASSERT_EQ(0, alloc(0, 1));
    EXPECT_TRUE(meta_on_disk_matches(0, false, true));
    qvfs::plat::fault_clear();
    fault(kFaultWrite, map_first(1), kMapSize);
    ASSERT_EQ(1, alloc(0, 2));
    EXPECT_EQ(0, image(0).mapIndex);
    fault(kFaultWrite, map_first(0), kMapSize);
    ASSERT_EQ(2, alloc(0, 3));
    EXPECT_EQ(1, image(0).mapIndex) << "region 0 fell back to its second location";

    // Neither region: the call fails but the image keeps the change.
    fault(kFaultWrite, count_chunk(0, 0), kChunk);
    fault(kFaultWrite, current_chunk(1, 0), kChunk);
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, alloc(0, 4));
    EXPECT_EQ(QV_BLK_USED, image(0).map[3]);
    EXPECT_EQ(-1, df_ReleaseBlock(0, 3, 4, 0, 0));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[3]);
    EXPECT_EQ(-1, image(0).current[0][4]);

    // Zeroing the header area fails: nothing changes.
    qvfs::plat::fault_clear();
    fault(kFaultWrite, kDataStart + 3ull * kBlockSize, 0x80000);
    EXPECT_EQ(-1, alloc(0, 4));
    EXPECT_EQ(QV_BLK_FREE, image(0).map[3]);
}

// Both processes allocate for their own channels as fast as they can; the
// disk's lock makes every pick see the other's.
TEST_F(AllocTest, TwoProcessesNeverShareABlock) {
    auto worker = [this](uint32_t base) {
        return Child::spawn([this, base](ChildLink& link) {
            CHILD_CHECK(link, df_Init() == 0 && df_DiskMount(path_.c_str()) == 0);
            int64_t go;
            CHILD_CHECK(link, link.recv(&go));
            for (uint32_t c = base; c < base + 6; ++c) link.send(alloc(0, c));
            return 0;
        });
    };
    Child a = worker(0), b = worker(500);
    a.send(1);
    b.send(1);
    std::vector<int32_t> got;
    for (Child* c : {&a, &b})
        for (int i = 0; i < 6; ++i) {
            int64_t v;
            ASSERT_TRUE(c->recv(&v));
            if (v >= 0) got.push_back(static_cast<int32_t>(v));
        }
    EXPECT_CHILD_OK(a);
    EXPECT_CHILD_OK(b);
    EXPECT_EQ(9u, got.size()) << "every block handed out once";
    EXPECT_EQ(9u, std::set<int32_t>(got.begin(), got.end()).size());
    EXPECT_EQ(9, std::count(image(0).map, image(0).map + 9, QV_BLK_USED));
    EXPECT_TRUE(meta_on_disk_matches(0));
}

}  // namespace
