// The calls by path: each status change touches exactly its field and is
// stored on disk (another process reads it back), the record-type class and
// lock counts of the block, argument rules checked before any open, file
// information, stat and unlink, and failed status writes reported.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "blockfile/bf.h"
#include "platform.h"
#include "support/api_env.h"
#include "support/child.h"
#include "support/disk_env.h"
#include "support/file_env.h"

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

    // A new file, closed again; its name.
    std::string new_file(int32_t recType = 5, uint32_t chn = 1) {
        std::string name;
        const int h = create(&name, chn, 0, 0, recType);
        EXPECT_EQ(3, qvfs_Write(h, "abc", 3));
        EXPECT_EQ(0, qvfs_Close(h));
        return name;
    }

    // The handle value the next open will get, found by making it. A call
    // that did not open the file leaves the generation where it was.
    int probe_next_handle(const std::string& name) {
        const int h = open_name(name);
        EXPECT_EQ(0, qvfs_Close(h));
        return h;
    }

    // qvfs_Stat of name in a new child process must equal want, byte for byte.
    void expect_other_process_sees(const std::string& name, const TQvFileStat& want) {
        Child c = Child::spawn([&](ChildLink& link) {
            TQvFileStat st;
            std::memset(&st, 0, sizeof st);
            CHILD_CHECK(link, qvfs_Stat(name.c_str(), &st) == 0);
            CHILD_CHECK(link, std::memcmp(&st, &want, sizeof st) == 0);
            return 0;
        });
        EXPECT_CHILD_OK(c);
    }
};

TEST_F(ApiPath, EachStatusCallChangesExactlyItsFieldAndStoresIt) {
    const std::string name = new_file(5);
    const std::string other = new_file(5, 2);
    const TQvFileStat otherBefore = stat_of(other);

    struct Step {
        const char* what;
        std::function<int()> call;
        std::function<void(TQvFileStat&)> expect;
    };
    const uint8_t param[5] = {1, 2, 3, 4, 5};
    const TimeValue times[2] = {{111, 0}, {1234567, 999}};
    const std::vector<Step> steps = {
        {"lock", [&] { return qvfs_Lock(name.c_str(), 1); }, [](TQvFileStat& s) { s.lock = 1; }},
        {"create time", [&] { return qvfs_ChangeCreateTime(name.c_str(), TimeValue{-1, 500}); },
         [](TQvFileStat& s) { s.startTime = ~0ull; }},
        {"end time",
         [&] { return qvfs_ChangeTime(name.c_str(), times); },
         [](TQvFileStat& s) {
             s.st.st_mtim.tv_sec = 1234567;
             s.st.st_ctim.tv_sec = 1234567;  // both report the end time
         }},
        {"record type", [&] { return qvfs_ChangeRecType(name.c_str(), -7); },
         [](TQvFileStat& s) { s.recType = uint64_t(int64_t{-7}); }},
        {"user parameter", [&] { return qvfs_SetUsrParam(name.c_str(), param, 5); },
         [&](TQvFileStat& s) { std::memcpy(s.usrParam, param, 5); }},
        {"unlock", [&] { return qvfs_Lock(name.c_str(), 0); }, [](TQvFileStat& s) { s.lock = 0; }},
    };
    for (const Step& step : steps) {
        TQvFileStat want = stat_of(name);
        ASSERT_EQ(0, step.call()) << step.what << " errno " << errno;
        step.expect(want);
        const TQvFileStat got = stat_of(name);
        EXPECT_EQ(0, std::memcmp(&want, &got, sizeof want)) << step.what;
    }
    const TQvFileStat last = stat_of(name);
    const TQvFileStat otherAfter = stat_of(other);
    EXPECT_EQ(0, std::memcmp(&otherBefore, &otherAfter, sizeof otherBefore)) << "another file changed";
    // Nobody holds the file: the other process loads the entry from disk.
    expect_other_process_sees(name, last);
}

TEST_F(ApiPath, RecordTypeClassMovesTheBlockCount) {
    // Two files in one block: record types 1 (in the class) and 0 (outside).
    const std::string a = new_file(1);
    const std::string b = new_file(0);
    ASSERT_EQ(name_block(a), name_block(b));
    const uint32_t base = block_of(a).recType;
    EXPECT_EQ(kBias + 1, base) << "one file of another type";

    struct Move {
        int32_t to;
        uint32_t count;  // files of other types afterwards
    };
    for (const Move m : {Move{2, 1}, Move{0, 2}, Move{5, 2}, Move{1, 1}, Move{2, 1}, Move{-1, 2}}) {
        ASSERT_EQ(0, qvfs_ChangeRecType(a.c_str(), m.to)) << "to " << m.to;
        EXPECT_EQ(uint64_t(int64_t{m.to}), stat_of(a).recType);
        EXPECT_EQ(kBias + m.count, block_of(a).recType) << "after the move to " << m.to;
    }
    QvfsBlockStat pub;
    ASSERT_EQ(0, qvfs_GetBlockStat(0, name_block(a), &pub));
    EXPECT_EQ(1u, pub.otherType);
    ASSERT_EQ(0, qvfs_ChangeRecType(a.c_str(), 2));
    ASSERT_EQ(0, qvfs_ChangeRecType(b.c_str(), 1));
    ASSERT_EQ(0, qvfs_GetBlockStat(0, name_block(a), &pub));
    EXPECT_EQ(0u, pub.otherType) << "every file now of type 1 or 2";
    EXPECT_EQ(kBias, block_of(a).recType);
}

TEST_F(ApiPath, FailedStatusWritesAreReported) {
    const std::string name = new_file(5);
    qvfs::plat::Fault f;
    f.disk = 0;
    f.ops = qvfs::plat::kFaultWrite | qvfs::plat::kFaultWritev;
    ASSERT_GT(qvfs::plat::fault_add(f), 0);
    // Changing the record type to the one the file has writes nothing: it
    // does not notice the fault and moves no block count.
    const long hits = qvfs::plat::fault_hits();
    EXPECT_EQ(0, qvfs_ChangeRecType(name.c_str(), 5));
    EXPECT_EQ(hits, qvfs::plat::fault_hits()) << "no write attempted";
    EXPECT_EQ(kBias + 1, block_of(name).recType);

    const uint8_t one = 1;
    const TimeValue times[2] = {{0, 0}, {99, 0}};
    const std::vector<std::pair<const char*, std::function<int()>>> calls = {
        {"Lock", [&] { return qvfs_Lock(name.c_str(), 2); }},
        {"ChangeCreateTime", [&] { return qvfs_ChangeCreateTime(name.c_str(), TimeValue{5, 0}); }},
        {"ChangeTime", [&] { return qvfs_ChangeTime(name.c_str(), times); }},
        {"ChangeRecType", [&] { return qvfs_ChangeRecType(name.c_str(), 7); }},
        {"SetUsrParam", [&] { return qvfs_SetUsrParam(name.c_str(), &one, 1); }},
    };
    for (const auto& [what, call] : calls) {
        errno = 0;
        EXPECT_EQ(-1, call()) << what;
        EXPECT_EQ(QVFS_ERR_SYS + EIO, errno) << what;
    }
    EXPECT_GT(qvfs::plat::fault_hits(), hits);
    // Every call gave its handle slot back.
    qvfs::plat::fault_clear();
    EXPECT_EQ(0x70000, probe_next_handle(name));
}

TEST_F(ApiPath, LockingTwiceCountsTwiceInTheBlock) {
    const std::string name = new_file();
    EXPECT_EQ(kBias, block_of(name).lock);
    QvfsBlockStat pub;
    ASSERT_EQ(0, qvfs_GetBlockStat(0, name_block(name), &pub));
    EXPECT_EQ(0u, pub.locked);

    ASSERT_EQ(0, qvfs_Lock(name.c_str(), 1));
    ASSERT_EQ(0, qvfs_Lock(name.c_str(), 1));
    EXPECT_EQ(1u, stat_of(name).lock);
    EXPECT_EQ(kBias + 2, block_of(name).lock);
    ASSERT_EQ(0, qvfs_GetBlockStat(0, name_block(name), &pub));
    EXPECT_EQ(1u, pub.locked);
    // A backup mark (2) is the file's business only.
    ASSERT_EQ(0, qvfs_Lock(name.c_str(), 2));
    EXPECT_EQ(2u, stat_of(name).lock);
    EXPECT_EQ(kBias + 2, block_of(name).lock);
    ASSERT_EQ(0, qvfs_Lock(name.c_str(), 0));
    ASSERT_EQ(0, qvfs_Lock(name.c_str(), 0));
    EXPECT_EQ(kBias, block_of(name).lock);
    ASSERT_EQ(0, qvfs_GetBlockStat(0, name_block(name), &pub));
    EXPECT_EQ(0u, pub.locked);
    // A negative lock value is widened with its sign.
    ASSERT_EQ(0, qvfs_Lock(name.c_str(), -2));
    EXPECT_EQ(0xFFFFFFFEull, stat_of(name).lock) << "the entry keeps 32 bits, read back without sign";
    EXPECT_EQ(kBias, block_of(name).lock);
}

TEST_F(ApiPath, ArgumentRulesComeBeforeTheOpen) {
    const std::string name = new_file();
    const int h0 = probe_next_handle(name);
    TQvFileStat st;
    uint32_t word = 0;
    TQvFileInfo item{&word, 4};
    TQvFileInfo noBuf{nullptr, 4};
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Stat(nullptr, &st));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Stat(name.c_str(), nullptr));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Lock(nullptr, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_ChangeCreateTime(nullptr, TimeValue{1, 0}));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_ChangeTime(nullptr, nullptr));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_ChangeTime(name.c_str(), nullptr));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_ChangeRecType(nullptr, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_GetFileInfo(nullptr, 2, &item, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_GetFileInfo(name.c_str(), 2, nullptr, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_GetFileInfo(name.c_str(), 2, &item, 0));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_GetFileInfo(name.c_str(), 2, &noBuf, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_SetFileInfo(name.c_str(), 2, &noBuf, 1));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_SetFileInfo(name.c_str(), 2, &item, 0));
    uint8_t full[33];
    for (int i = 0; i < 33; ++i) full[i] = uint8_t(0xA0 + i);
    for (int len : {0, 33, -1}) EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_SetUsrParam(name.c_str(), full, len));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_SetUsrParam(name.c_str(), nullptr, 4));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_SetUsrParam(nullptr, full, 4));
    EXPECT_EQ(h0 + 0x10000, probe_next_handle(name)) << "no refused call took a slot";

    // User parameter: 32 bytes fill the area, 1 byte changes only the first.
    ASSERT_EQ(0, qvfs_SetUsrParam(name.c_str(), full, 32));
    EXPECT_EQ(0, std::memcmp(full, stat_of(name).usrParam, 32));
    const uint8_t x = 0x11;
    ASSERT_EQ(0, qvfs_SetUsrParam(name.c_str(), &x, 1));
    full[0] = 0x11;
    EXPECT_EQ(0, std::memcmp(full, stat_of(name).usrParam, 32));

    // A missing file: the open fails, 1001, and the slot is given back.
    const std::string missing = "H0000003000100AB0000C00.rvd";
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Stat(missing.c_str(), &st));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Lock(missing.c_str(), 1));
    EXPECT_EQ(h0 + 0x80000, probe_next_handle(name));
    // Unlink of a null path fails quietly.
    errno = 4242;
    EXPECT_EQ(-1, qvfs_Unlink(nullptr));
    EXPECT_EQ(4242, errno);
}

TEST_F(ApiPath, FileInformationRoundTrip) {
    std::string first;
    const int h1 = create(&first, 4);
    ASSERT_EQ(0, qvfs_Close(h1));
    // The next file of the channel names its predecessor.
    TQvfsOpenParam p = param(4);
    std::strncpy(p.preName, first.c_str(), sizeof p.preName - 1);
    char buf[64] = {};
    const int h2 = qvfs_OpenV2(&p, buf, QVFS_O_RDWR);
    ASSERT_GE(h2, 0);
    const std::string second = buf;
    ASSERT_EQ(0, qvfs_Close(h2));

    uint32_t abstract = 0xC0FFEE11;
    char ud[20] = "user data entry 4";
    TQvFileInfo set[2] = {{&abstract, 4}, {ud, 18}};
    // Bit 0 cannot be set and takes no item.
    ASSERT_EQ(0, qvfs_SetFileInfo(second.c_str(), QVFS_INFO_PRENAME | QVFS_INFO_VIDEO_ABSTRACT | QVFS_INFO_USERDATA_4,
                                  set, 2));

    char pre[32] = {};
    uint32_t abstractBack = 0;
    char udBack[64] = {};
    TQvFileInfo get[3] = {{pre, sizeof pre}, {&abstractBack, 4}, {udBack, sizeof udBack}};
    ASSERT_EQ(0, qvfs_GetFileInfo(second.c_str(), QVFS_INFO_PRENAME | QVFS_INFO_VIDEO_ABSTRACT | QVFS_INFO_USERDATA_4,
                                  get, 3));
    EXPECT_EQ(first, std::string(pre)) << "disk 0 names come back unchanged";
    EXPECT_EQ(0xC0FFEE11u, abstractBack);
    EXPECT_EQ(18u, get[2].len);
    EXPECT_STREQ(ud, udBack);
    // A conversion that fails gives its -1 (no such user-data entry).
    TQvFileInfo none{udBack, sizeof udBack};
    EXPECT_EQ(-1, qvfs_GetFileInfo(second.c_str(), QVFS_INFO_USERDATA_8, &none, 1));

}

TEST_F(ApiPath, StatFstatAndUnlink) {
    std::string name;
    const int h = create(&name, 9);
    ASSERT_GE(h, 0);
    ASSERT_EQ(1000, qvfs_Write(h, std::string(1000, 'x').data(), 1000));
    TQvFileStat viaHandle, viaPath;
    std::memset(&viaHandle, 0, sizeof viaHandle);
    std::memset(&viaPath, 0, sizeof viaPath);
    ASSERT_EQ(0, qvfs_fstat(h, &viaHandle));
    ASSERT_EQ(0, qvfs_Stat(name.c_str(), &viaPath));
    EXPECT_EQ(0, std::memcmp(&viaHandle, &viaPath, sizeof viaPath));
    EXPECT_EQ(1000, viaPath.st.st_size);
    EXPECT_EQ(1, viaPath.st.st_blocks);
    EXPECT_EQ(9u, viaPath.chn);
    EXPECT_EQ(1700000000u, viaPath.startTime);
    EXPECT_EQ(name, std::string(viaPath.name));

    errno = 4242;
    EXPECT_EQ(-1, qvfs_Unlink(name.c_str())) << "held open by this process";
    EXPECT_EQ(4242, errno);
    EXPECT_EQ(0, qvfs_Close(h));
    EXPECT_EQ(0, qvfs_Unlink(name.c_str()));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Stat(name.c_str(), &viaPath));
    EXPECT_EQ(-1, open_name(name));
}

}  // namespace
