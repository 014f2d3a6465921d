// The demo program, run as the README runs it but briefly and inside a test
// sandbox: it records, verifies and leaves no System V object behind, and it
// refuses to touch a sandbox that another process is using.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "api/qvfs.h"
#include "support/sandbox.h"

#ifndef QVFS_DEMO_PATH
#error "tests/extra.cmake gives this test the demo's path"
#endif

namespace {

struct Outcome {
    int status = -1;
    std::string out;
};

// Runs the demo with arguments; QVFS_ROOT is the sandbox's, inherited.
Outcome demo(const std::string& args) {
    Outcome r;
    std::FILE* p = popen((QVFS_EXAMPLE_RUNNER " '" QVFS_DEMO_PATH "' " + args + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

TEST(ApiDemo, RecordsVerifiesAndCleansUp) {
    qvfs::test::Sandbox sbx;
    const Outcome r = demo("--seconds 1 --mib 48");
    EXPECT_EQ(0, r.status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("12 of 12 files, 48.0 MiB read back")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("every byte as recorded")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("all as recorded")) << "live playback: " << r.out;
    EXPECT_NE(std::string::npos, r.out.find("RESULT: OK")) << r.out;
    EXPECT_FALSE(exists(sbx.image_path(0))) << "the image is removed";
    EXPECT_EQ(0, sbx.ipc_objects()) << "the demo removed its semaphores and segments";
}

TEST(ApiDemo, LeavesASandboxInUseAlone) {
    qvfs::test::Sandbox sbx;
    // This process uses the sandbox: the library is started and a disk made.
    ASSERT_EQ(0, qvfs_Init());
    const std::string image = sbx.image_path(0);
    sbx.add_disk(0, 1ull << 30);
    const int before = sbx.ipc_objects();
    ASSERT_GT(before, 0);

    const Outcome r = demo("--seconds 1 --mib 8");
    EXPECT_EQ(1, r.status) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("is using the sandbox")) << r.out;
    const Outcome rm = demo("--remove-ipc");
    EXPECT_EQ(1, rm.status) << rm.out;
    EXPECT_EQ(before, sbx.ipc_objects()) << "nothing removed";
    struct stat st;
    ASSERT_EQ(0, ::stat(image.c_str(), &st));
    EXPECT_EQ(off_t(1) << 30, st.st_size) << "the image is untouched";
}

}  // namespace
