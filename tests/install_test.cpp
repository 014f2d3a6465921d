// The install tree: install_check.sh installs the build into a prefix inside
// this test's sandbox, builds the example against it with pkg-config and
// with find_package, and runs the installed tool and the three builds of the
// example there (the sandbox gives them keys no other test uses).
#include <gtest/gtest.h>

#include "support/cli_env.h"

#ifndef QVFS_BUILD_DIR
#error "tests/extra.cmake gives this test the build and source directories"
#endif

TEST(Install, SlowPkgConfigFindPackageAndRunPaths) {  // builds and installs: the slow tier
    qvfs::test::Sandbox sbx;
    const qvfs::test::ToolRun r = qvfs::test::run_program(
        "/bin/bash", {QVFS_SOURCE_DIR "/tests/install_check.sh"},
        {"QVFS_BUILD_DIR=" QVFS_BUILD_DIR, "QVFS_SOURCE_DIR=" QVFS_SOURCE_DIR,
         "QVFS_INSTALL_LIBDIR=" QVFS_INSTALL_LIBDIR, "QVFS_C_COMPILER=" QVFS_C_COMPILER,
         "QVFS_EXTRA_CFLAGS=" QVFS_EXTRA_CFLAGS, "QVFS_RUNNER=" QVFS_EXAMPLE_RUNNER,
         "QVFS_TOOLCHAIN_FILE=" QVFS_TOOLCHAIN_FILE, "QVFS_TOOL=" QVFS_INSTALLED_TOOL},
        600000);
    EXPECT_EQ(0, r.status) << r.describe();
    EXPECT_EQ(0, sbx.ipc_objects()) << "qvfs ipc --remove left objects of the sandbox";
}
