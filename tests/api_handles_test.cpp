// The public handle table and the stream calls, and the library's start and
// stop: handle values and generations, stale and foreign handles, access
// bits, zero-length and null arguments, seek and end-of-file rules, the
// table limit, the pre-record calls, the dump, options and qvfs_DeInit.
#include <gtest/gtest.h>
#include <sys/uio.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "api/handle_table.h"
#include "disk/df.h"
#include "file/tf.h"
#include "support/fixture.h"

namespace {

using qvfs::test::ApiTest;
using qvfs::test::pattern;

class ApiHandles : public ApiTest {};

TEST_F(ApiHandles, HandleValuesCarrySlotAndGenerationAndWrapAfter4096) {
    std::string name;
    const int first = create(&name);
    EXPECT_EQ(0, first);
    EXPECT_EQ(0x10001, open_name(name));  // slot 0 busy: slot 1, generation 1
    EXPECT_EQ(0, qvfs_Close(first));
    const int third = open_name(name);  // the lowest free slot, the next generation
    EXPECT_EQ(0x20000, third);
    EXPECT_EQ(-1, qvfs_Tell(first)) << "same slot, older generation";
    EXPECT_EQ(0, qvfs_Tell(third));

    // The n-th handle of the process takes generation n mod 4096: after 4096
    // more, the value of the first of them, long closed, is valid again.
    for (int n = 3; n < 3 + 4096; ++n) {
        const int h = open_name(name);
        ASSERT_EQ((n % 4096) << 16 | 2, h) << "handle number " << n;
        ASSERT_EQ(0, qvfs_Close(h));
    }
    EXPECT_EQ(0x30002, open_name(name));
    EXPECT_EQ(0, qvfs_Tell(0x30002));
}

TEST_F(ApiHandles, TheTableHoldsExactly1024HandlesAndDeInitClosesThem) {
    std::string name;
    std::vector<int> handles{create(&name)};
    ASSERT_EQ(0, handles[0]);
    for (int i = 1; i < 1024; ++i) {
        handles.push_back(open_name(name));
        ASSERT_EQ(i | (i << 16), handles.back());
    }
    TQvFileStat st;
    EXPECT_ERR(-1, QVFS_ERR_BADARG, open_name(name));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_Stat(name.c_str(), &st));  // path calls need a slot too
    // The file layer holds one handle for all these opens.
    ASSERT_NE(nullptr, qvfs::file::table_entry(0));
    EXPECT_EQ(1024, qvfs::file::table_entry(0)->inRef);

    EXPECT_EQ(0, qvfs_Close(handles[500]));
    EXPECT_EQ(500 | (1024 << 16), open_name(name));
    EXPECT_EQ(-1, qvfs_Unlink(name.c_str())) << "an open file is not deleted";
    qvfs_DeInit();
    EXPECT_EQ(nullptr, qvfs::file::table_entry(0)) << "DeInit closed every handle";
    EXPECT_EQ(-1, qvfs_Tell(handles[7]));
    // The library stays initialised; the generations keep counting.
    const int again = open_name(name);
    EXPECT_EQ(1025 << 16, again);
    EXPECT_EQ(0, qvfs_Close(again));
    EXPECT_EQ(0, qvfs_Unlink(name.c_str()));
}

TEST_F(ApiHandles, DebugDumpListsHandlesThenTheLayers) {
    std::string name;
    const int a = create(&name);
    ASSERT_EQ(0x10001, open_name(name, QVFS_O_WRONLY));
    ASSERT_EQ(6, qvfs_Write(a, "abcdef", 6));

    std::vector<char> buf(1023, 'q');
    EXPECT_EQ(0, qvfs_GetDebugInfo(buf.data(), 1023));
    EXPECT_EQ('q', buf[0]) << "too small: nothing written";
    EXPECT_EQ(0, qvfs_GetDebugInfo(nullptr, 65536));
    buf.assign(65536, 'q');
    const int n = qvfs_GetDebugInfo(buf.data(), 65536);
    const std::string text(buf.data());
    EXPECT_EQ(size_t(n), text.size());
    EXPECT_EQ(0u, text.find("===============QVFS===================\nid\tfd\t\trwflag\terrno\toffset\n"
                            "0\t0x00000000\t3\t0\t6\n1\t0x00010001\t1\t0\t0\n"));
    const size_t files = text.find("=================QVFILE");
    ASSERT_NE(std::string::npos, files);
    EXPECT_NE(std::string::npos, text.find(name, files)) << "the file layer's rows follow";

    // The smallest buffer allowed: truncated, zero-terminated in bounds.
    buf.assign(1024 + 16, 'q');
    EXPECT_GT(qvfs_GetDebugInfo(buf.data(), 1024), 0);
    EXPECT_EQ('\0', buf[1023]);
    EXPECT_EQ('q', buf[1024]);
    EXPECT_EQ(0, std::strncmp(buf.data(), text.c_str(), files));
}

TEST_F(ApiHandles, OptionsApplyBitByBit) {
    auto online_check = [] {
        uint32_t v = 9;
        EXPECT_EQ(0, fsc_GetParam(QVFS_PARAM_ONLINE_CHECK, &v));
        return v;
    };
    ASSERT_EQ(1u, online_check());
    EXPECT_ERR(0, QVFS_ERR_BADHANDLE, qvfs_SetOpt(3));  // the known bit still applies
    EXPECT_EQ(0u, online_check());
    EXPECT_ERR(0, QVFS_ERR_BADHANDLE, qvfs_SetOpt(QVFS_OPT_NO_ONLINE_CHECK | (1ull << 63)));
    EXPECT_ERR(0, 0, qvfs_SetOpt(QVFS_OPT_NO_ONLINE_CHECK));
}

TEST(ApiInit, HooksRegisteredBeforeInitAreDropped) {
    qvfs::test::Sandbox sbx;
    static int calls = 0;
    auto alloc = [](uint32_t n) -> void* { return ++calls, std::malloc(n); };
    auto release = [](void* p) { std::free(p); };
    char missing[] = "H0000003000100AB0000C00.rvd";
    ASSERT_EQ(0, qvfs_RegistAllocatorInterface(alloc, release));
    ASSERT_EQ(0, qvfs_Init());
    EXPECT_EQ(-1, qvfs_OpenV2(nullptr, missing, 0));
    EXPECT_EQ(0, calls) << "qvfs_Init reset the hooks";
    ASSERT_EQ(0, qvfs_RegistAllocatorInterface(alloc, release));
    EXPECT_EQ(-1, qvfs_OpenV2(nullptr, missing, 0));
    EXPECT_GT(calls, 0) << "the handle record comes from the registered allocator";
    qvfs_InitAllocatorInterface();
}

}  // namespace
