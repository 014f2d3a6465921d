// The calls by path: each status change touches exactly its field and is
// stored on disk (another process reads it back), the record-type class and
// lock counts of the block, argument rules checked before any open, file
// information, stat and unlink, and failed status writes reported.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "blockfile/bf.h"
#include "platform.h"
#include "support/fixture.h"
#include "support/child.h"
#include "support/compat.h"

namespace {

using qvfs::test::ApiTest;
using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::name_block;

constexpr uint32_t kBias = 0xFFFF0000u;  // block header counts start here

class ApiPath : public ApiTest {
protected:
    // The raw block status of the block a named file lies in.
    static TQvBlkStat block_of(const std::string& name) {
        TQvBlkStat s{};
        EXPECT_EQ(0, bf_GetBlockStat(0, name_block(name), &s));
        return s;
    }
    // The handle value the next open will get, found by making it. A call
    // that did not open the file leaves the generation where it was.
    static int probe_next_handle(const std::string& name) {
        const int h = open_name(name);
        EXPECT_EQ(0, qvfs_Close(h));
        return h;
    }
    static bool same(const TQvFileStat& a, const TQvFileStat& b) { return std::memcmp(&a, &b, sizeof a) == 0; }
};

TEST_F(ApiPath, EachStatusCallChangesExactlyItsFieldAndStoresIt) {
    const std::string name = new_file(1, 5), other = new_file(2, 5);
    const TQvFileStat otherBefore = stat_of(other);
    const uint8_t param[5] = {1, 2, 3, 4, 5};
    uint8_t full[32];
    for (int i = 0; i < 32; ++i) full[i] = uint8_t(0xA0 + i);
    const TimeValue times[2] = {{111, 0}, {1234567, 999}};
    const std::vector<std::pair<std::function<int()>, std::function<void(TQvFileStat&)>>> steps = {
        {[&] { return qvfs_Lock(name.c_str(), 1); }, [](TQvFileStat& s) { s.lock = 1; }},
        {[&] { return qvfs_ChangeCreateTime(name.c_str(), TimeValue{-1, 500}); },
         [](TQvFileStat& s) { s.startTime = ~0ull; }},
        {[&] { return qvfs_ChangeTime(name.c_str(), times); },  // both times report the end time
         [](TQvFileStat& s) { s.st.st_mtim.tv_sec = s.st.st_ctim.tv_sec = 1234567; }},
        {[&] { return qvfs_ChangeRecType(name.c_str(), -7); }, [](TQvFileStat& s) { s.recType = uint64_t(-7ll); }},
        {[&] { return qvfs_SetUsrParam(name.c_str(), param, 5); },
         [&](TQvFileStat& s) { std::memcpy(s.usrParam, param, 5); }},
        {[&] { return qvfs_SetUsrParam(name.c_str(), param + 4, 1); }, [](TQvFileStat& s) { s.usrParam[0] = 5; }},
        {[&] { return qvfs_SetUsrParam(name.c_str(), full, 32); }, [&](TQvFileStat& s) { std::memcpy(s.usrParam, full, 32); }},
        {[&] { return qvfs_Lock(name.c_str(), 0); }, [](TQvFileStat& s) { s.lock = 0; }},
    };
    for (size_t i = 0; i < steps.size(); ++i) {
        TQvFileStat want = stat_of(name);
        ASSERT_EQ(0, steps[i].first()) << "step " << i << " errno " << errno;
        steps[i].second(want);
        EXPECT_TRUE(same(want, stat_of(name))) << "step " << i;
    }
    EXPECT_TRUE(same(otherBefore, stat_of(other))) << "another file changed";
    // Nobody holds the file: another process loads the entry from disk.
    const TQvFileStat last = stat_of(name);
    Child c = Child::spawn([&](ChildLink& link) {
        TQvFileStat st;
        std::memset(&st, 0, sizeof st);
        CHILD_CHECK(link, qvfs_Stat(name.c_str(), &st) == 0 && same(st, last));
        return 0;
    });
    EXPECT_CHILD_OK(c);
}

TEST_F(ApiPath, RecordTypeClassAndLocksMoveTheBlockCounts) {
    // Two files in one block: record types 1 (in the class) and 0 (outside).
    const std::string a = new_file(1, 1), b = new_file(1, 0);
    ASSERT_EQ(name_block(a), name_block(b));
    EXPECT_EQ(kBias + 1, block_of(a).recType) << "one file of another type";
    // {new type, files of other types afterwards}
    for (auto [to, count] : {std::pair{2, 1u}, {3, 2u}, {0, 2u}, {5, 2u}, {1, 1u}, {2, 1u}, {-1, 2u}}) {
        ASSERT_EQ(0, qvfs_ChangeRecType(a.c_str(), to)) << "to " << to;
        EXPECT_EQ(uint64_t(int64_t{to}), stat_of(a).recType);
        EXPECT_EQ(kBias + count, block_of(a).recType) << "after the move to " << to;
    }
    // Locking twice counts twice; a backup mark (2) is the file's business only.
    for (auto [value, count] : {std::pair{1, 1u}, {1, 2u}, {2, 2u}, {0, 1u}, {0, 0u}, {-2, 0u}}) {
        ASSERT_EQ(0, qvfs_Lock(b.c_str(), value));
        EXPECT_EQ(uint64_t(uint32_t(value)), stat_of(b).lock) << "the entry keeps 32 bits";
        EXPECT_EQ(kBias + count, block_of(b).lock) << "after lock " << value;
    }
}

TEST_F(ApiPath, FailedStatusWritesAreReported) {
    const std::string name = new_file();
    qvfs::plat::Fault f;
    f.disk = 0;
    f.ops = qvfs::plat::kFaultWrite | qvfs::plat::kFaultWritev;
    ASSERT_GT(qvfs::plat::fault_add(f), 0);
    // Changing the record type to the one the file has writes nothing and
    // moves no block count.
    const long hits = qvfs::plat::fault_hits();
    EXPECT_EQ(0, qvfs_ChangeRecType(name.c_str(), 5));
    EXPECT_EQ(hits, qvfs::plat::fault_hits()) << "no write attempted";
    EXPECT_EQ(kBias + 1, block_of(name).recType);

    const uint8_t one = 1;
    const TimeValue times[2] = {{0, 0}, {99, 0}};
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, qvfs_Lock(name.c_str(), 2));
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, qvfs_ChangeCreateTime(name.c_str(), TimeValue{5, 0}));
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, qvfs_ChangeTime(name.c_str(), times));
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, qvfs_ChangeRecType(name.c_str(), 7));
    EXPECT_ERR(-1, QVFS_ERR_SYS + EIO, qvfs_SetUsrParam(name.c_str(), &one, 1));
    // Every call gave its handle slot back.
    qvfs::plat::fault_clear();
    EXPECT_EQ(0x70000, probe_next_handle(name));
}

#define EXPECT_BADARG(call) EXPECT_ERR(-1, QVFS_ERR_BADARG, call)

TEST_F(ApiPath, InformationStatAndUnlinkGoThroughTheFile) {
    std::string name;
    const int h = create(&name, 9);
    ASSERT_GE(h, 0);
    ASSERT_EQ(1000, qvfs_Write(h, std::string(1000, 'x').data(), 1000));
    uint32_t abstract = 0xC0FFEE11, back = 0;
    TQvFileInfo set{&abstract, 4}, get{&back, 4};
    ASSERT_EQ(0, qvfs_SetFileInfo(name.c_str(), QVFS_INFO_VIDEO_ABSTRACT, &set, 1));
    ASSERT_EQ(0, qvfs_GetFileInfo(name.c_str(), QVFS_INFO_VIDEO_ABSTRACT, &get, 1));
    EXPECT_EQ(abstract, back);
    EXPECT_EQ(-1, qvfs_GetFileInfo(name.c_str(), QVFS_INFO_USERDATA_8, &get, 1)) << "no such entry";

    TQvFileStat viaHandle, viaPath;
    std::memset(&viaHandle, 0, sizeof viaHandle);
    std::memset(&viaPath, 0, sizeof viaPath);
    ASSERT_EQ(0, qvfs_fstat(h, &viaHandle));
    ASSERT_EQ(0, qvfs_Stat(name.c_str(), &viaPath));
    EXPECT_TRUE(same(viaHandle, viaPath));
    EXPECT_EQ(1000, viaPath.st.st_size);
    EXPECT_EQ(9u, viaPath.chn);
    EXPECT_EQ(name, std::string(viaPath.name));

    EXPECT_ERR(-1, 0, qvfs_Unlink(name.c_str()));  // held open by this process
    EXPECT_EQ(0, qvfs_Close(h));
    EXPECT_EQ(0, qvfs_Unlink(name.c_str()));
    EXPECT_BADARG(qvfs_Stat(name.c_str(), &viaPath));
}

}  // namespace
