// The example program as an application builds it: installed library and
// header in a fresh prefix, compiler flags from pkg-config, compiled as C99,
// then run in a sandbox on a sparse disk image.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/fixture.h"

#ifndef QVFS_BUILD_DIR
#error "tests/extra.cmake gives this test the build and source directories"
#endif

namespace {

struct Outcome {
    int status = -1;
    std::string out;
};

// Runs a shell command and collects its standard output and error.
Outcome run(const std::string& cmd) {
    Outcome r;
    std::FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (p == nullptr) return r;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

std::string trim(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s;
}

TEST(ApiExample, BuildsAsCAgainstTheInstalledLibraryAndRuns) {
    qvfs::test::Sandbox sbx;
    sbx.add_disk(0, qvfs::test::image_bytes_for(2));
    const std::string prefix = sbx.root() + "/prefix";

    const Outcome install = run("cmake --install '" QVFS_BUILD_DIR "' --prefix '" + prefix + "'");
    ASSERT_EQ(0, install.status) << install.out;

    const std::string libdir = prefix + "/" QVFS_INSTALL_LIBDIR;
    const Outcome flags = run("PKG_CONFIG_PATH='" + libdir + "/pkgconfig' pkg-config --define-variable=prefix='" +
                          prefix + "' --cflags --libs qvfs");
    ASSERT_EQ(0, flags.status) << flags.out;
    EXPECT_NE(std::string::npos, flags.out.find("-lqvfs"));
    EXPECT_NE(std::string::npos, flags.out.find(prefix)) << "flags point into the prefix: " << flags.out;

    const std::string exe = prefix + "/road_of_a_recording";
    const Outcome cc = run(std::string("'" QVFS_C_COMPILER "' -std=c99 -Wall -Wextra -pedantic -Werror " QVFS_EXTRA_CFLAGS
                                   " '" QVFS_SOURCE_DIR "/examples/road_of_a_recording.c' -o '") +
                       exe + "' " + trim(flags.out));
    ASSERT_EQ(0, cc.status) << cc.out;

    // The sandbox's QVFS_ROOT is in the environment the program inherits.
    const Outcome ex =
        run("LD_LIBRARY_PATH='" + libdir + "' " QVFS_EXAMPLE_RUNNER " '" + exe + "' /dev/scsi/host00/part1");
    EXPECT_EQ(0, ex.status) << ex.out;
    EXPECT_NE(std::string::npos, ex.out.find("played    2031616 bytes, all as recorded")) << ex.out;
    EXPECT_NE(std::string::npos, ex.out.find("holds 1 file(s)")) << ex.out;
    EXPECT_NE(std::string::npos, ex.out.find("\nok\n")) << ex.out;
}

}  // namespace
