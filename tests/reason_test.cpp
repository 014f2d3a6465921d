// The cause a failed call names (qvfs_LastReason): one row per cause, each
// reached through the public calls as an application reaches it.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "support/fixture.h"

namespace {

using namespace qvfs::test;

class Reason : public ApiTest {
protected:
    static int create_raw(TQvfsOpenParam p) {
        char name[64] = {};
        return qvfs_OpenV2(&p, name, QVFS_O_RDWR);
    }
};

TEST_F(Reason, EachFailureNamesItsCause) {
    std::string kept;
    const int rw = create(&kept, 1);
    ASSERT_EQ(3, qvfs_Write(rw, "abc", 3));
    const int ro = open_name(kept, QVFS_O_RDONLY);
    const int wo = open_name(kept, QVFS_O_WRONLY);
    ASSERT_GE(ro, 0);
    ASSERT_GE(wo, 0);
    std::string wrongCode = kept;
    wrongCode[12] = wrongCode[12] == '0' ? '1' : '0';  // first character of the check code
    char buf[8];
    const struct {
        const char* what;
        int reason;
        std::function<int()> call;
    } rows[] = {
        {"channel 1024", QVFS_WHY_CHANNEL, [&] { return create_raw(param(1024)); }},
        {"extension with a slash", QVFS_WHY_BAD_EXTENSION, [&] {
             TQvfsOpenParam p = param(2);
             std::memcpy(p.ext, "a/b", 4);
             return create_raw(p);
         }},
        {"negative pre-record size", QVFS_WHY_BAD_RESERVE, [&] { return create_raw(param(2, 1, -4096)); }},
        {"a disk that is not mounted", QVFS_WHY_NOT_MOUNTED, [&] {
             TQvfsOpenParam p = param(2);
             std::snprintf(p.path, sizeof p.path, "%s07/part1", QVFS_DEV_PREFIX);
             return create_raw(p);
         }},
        {"a name no call gives out", QVFS_WHY_BAD_NAME, [&] { return open_name("H0not-a-name"); }},
        {"a name whose check code is wrong", QVFS_WHY_NO_SUCH_FILE, [&] { return open_name(wrongCode); }},
        {"deleting a file that is open", QVFS_WHY_FILE_OPEN, [&] { return qvfs_Unlink(kept.c_str()); }},
        {"writing through a read-only handle", QVFS_WHY_NOT_WRITABLE, [&] { return qvfs_Write(ro, "x", 1); }},
        {"truncating through a read-only handle", QVFS_WHY_NOT_WRITABLE, [&] { return qvfs_ftruncate(ro, 1); }},
        {"reading through a write-only handle", QVFS_WHY_NOT_READABLE, [&] { return qvfs_Read(wo, buf, 1); }},
        {"a handle that was never given", QVFS_WHY_BAD_HANDLE, [&] { return qvfs_Read(4095, buf, 1); }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        EXPECT_EQ(-1, row.call());
        EXPECT_EQ(row.reason, qvfs_LastReason()) << qvfs_ErrorString(qvfs_LastReason());
        EXPECT_EQ(3, qvfs_Read(ro, buf, 3) + int(qvfs_Seek(ro, 0, 0)));  // a success clears the note
        EXPECT_EQ(QVFS_WHY_NONE, qvfs_LastReason());
    }
    for (int h : {rw, ro, wo}) EXPECT_EQ(0, qvfs_Close(h));
}

// The disk's blocks all belong to channels: the next channel finds none.
// Then the process's handle table: every open takes one slot.
TEST_F(Reason, DiskFullAndHandleTableFull) {
    std::vector<std::string> names(kBlocks);
    for (uint32_t c = 0; c < kBlocks; ++c) names[c] = new_file(10 + c);
    EXPECT_EQ(-1, create_raw(param(10 + kBlocks)));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    EXPECT_EQ(QVFS_WHY_DISK_FULL, qvfs_LastReason());

    std::vector<int> handles;
    for (int h; (h = open_name(names[0])) >= 0;) handles.push_back(h);
    EXPECT_EQ(QVFS_WHY_HANDLES_FULL, qvfs_LastReason());
    EXPECT_GE(handles.size(), 1000u);
    for (int h : handles) EXPECT_EQ(0, qvfs_Close(h));
}

TEST(ReasonWords, EveryReasonHasWordsOfItsOwn) {
    std::set<std::string> seen;
    for (int r = QVFS_WHY_NOT_INIT; r <= QVFS_WHY_IO; ++r) {
        const std::string words = qvfs_ErrorString(r);
        EXPECT_NE("unknown error", words) << r;
        EXPECT_TRUE(seen.insert(words).second) << r << ": " << words;
    }
}

}  // namespace
