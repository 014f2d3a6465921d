// The demo program, run as the README runs it but briefly and inside a test
// sandbox: it records, verifies and leaves no System V object behind; it
// refuses to touch a sandbox that another process is using.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "support/fixture.h"

#ifndef QVFS_DEMO_PATH
#error "tests/extra.cmake gives this test the demo's path"
#endif

namespace {

// Runs the demo with arguments (QVFS_ROOT is the sandbox's): exit code and output.
std::pair<int, std::string> demo(const std::string& args) {
    std::string out;
    std::FILE* p = popen((QVFS_EXAMPLE_RUNNER " '" QVFS_DEMO_PATH "' " + args + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int st = p != nullptr ? pclose(p) : -1;
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, out};
}

TEST(ApiDemo, RecordsVerifiesAndCleansUp) {
    qvfs::test::Sandbox sbx;
    const auto [status, out] = demo("--seconds 1 --mib 48");
    EXPECT_EQ(0, status) << out;
    for (const char* line : {"12 of 12 files, 48.0 MiB read back", "every byte as recorded", "all as recorded", "RESULT: OK"})
        EXPECT_NE(std::string::npos, out.find(line)) << line << " in:\n" << out;
    struct stat st;
    EXPECT_NE(0, ::stat(sbx.image_path(0).c_str(), &st)) << "the image is removed";
    EXPECT_EQ(0, sbx.ipc_objects()) << "the demo removed its semaphores and segments";
}

TEST(ApiDemo, LeavesASandboxInUseAlone) {
    qvfs::test::Sandbox sbx;
    ASSERT_EQ(0, qvfs_Init());  // this process uses the sandbox
    sbx.add_disk(0, 1ull << 30);
    const int before = sbx.ipc_objects();
    ASSERT_GT(before, 0);
    for (const char* args : {"--seconds 1 --mib 8", "--remove-ipc"}) {
        const auto [status, out] = demo(args);
        EXPECT_EQ(1, status) << out;
        EXPECT_NE(std::string::npos, out.find("the sandbox")) << out;
    }
    struct stat st;
    EXPECT_EQ(before, sbx.ipc_objects()) << "nothing removed";
    EXPECT_TRUE(::stat(sbx.image_path(0).c_str(), &st) == 0 && st.st_size == off_t(1) << 30) << "the image is untouched";
}

}  // namespace
