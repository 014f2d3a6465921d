// The example program as an application builds it: installed library and
// header in a fresh prefix, compiler flags from pkg-config, compiled as C99,
// then run in a sandbox on a sparse disk image.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "support/fixture.h"

#ifndef QVFS_BUILD_DIR
#error "tests/extra.cmake gives this test the build and source directories"
#endif

namespace {

// Runs a shell command: exit code and output, trailing newlines dropped.
std::pair<int, std::string> run(const std::string& cmd) {
    std::string out;
    std::FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    char buf[4096];
    for (size_t n; p != nullptr && (n = std::fread(buf, 1, sizeof buf, p)) > 0;) out.append(buf, n);
    const int st = p != nullptr ? pclose(p) : -1;
    while (!out.empty() && out.back() == '\n') out.pop_back();
    return {WIFEXITED(st) ? WEXITSTATUS(st) : -1, out};
}

TEST(ApiExample, BuildsAsCAgainstTheInstalledLibraryAndRuns) {
    qvfs::test::Sandbox sbx;
    sbx.add_disk(0, qvfs::test::image_bytes_for(2));
    const std::string prefix = sbx.root() + "/prefix", libdir = prefix + "/" QVFS_INSTALL_LIBDIR;
    const auto install = run("cmake --install '" QVFS_BUILD_DIR "' --prefix '" + prefix + "'");
    ASSERT_EQ(0, install.first) << install.second;
    const auto flags = run("PKG_CONFIG_PATH='" + libdir + "/pkgconfig' pkg-config --define-variable=prefix='" + prefix +
                           "' --cflags --libs qvfs");
    ASSERT_EQ(0, flags.first) << flags.second;
    EXPECT_TRUE(flags.second.find("-lqvfs") != std::string::npos && flags.second.find(prefix) != std::string::npos)
        << "flags point into the prefix: " << flags.second;
    const std::string exe = prefix + "/road_of_a_recording";
    const auto cc = run("'" QVFS_C_COMPILER "' -std=c99 -Wall -Wextra -pedantic -Werror " QVFS_EXTRA_CFLAGS " '" QVFS_SOURCE_DIR
                        "/examples/road_of_a_recording.c' -o '" + exe + "' " + flags.second);
    ASSERT_EQ(0, cc.first) << cc.second;
    const auto ex = run("LD_LIBRARY_PATH='" + libdir + "' " QVFS_EXAMPLE_RUNNER " '" + exe + "' /dev/scsi/host00/part1");
    EXPECT_EQ(0, ex.first) << ex.second;
    for (const char* line : {"played    2031616 bytes, all as recorded", "holds 1 file(s)", "\nok"})
        EXPECT_NE(std::string::npos, ex.second.find(line)) << line << " in:\n" << ex.second;
}

}  // namespace
