// The replaceable allocator, the device I/O hooks and the time formatter.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <utility>

#include "common/devio.h"
#include "common/fsc.h"
#include "common/platform.h"
#include "support/sandbox.h"

namespace {

namespace plat = qvfs::plat;
int g_allocs = 0, g_frees = 0;

TEST(Hooks, AllocatorIsReplacedOnlyAsAPairAndResetByInit) {
    auto alloc = [](uint32_t size) { return ++g_allocs, std::malloc(size); };
    auto release = [](void* p) { ++g_frees, std::free(p); };
    // Half a pair changes nothing; a pair takes over; init gives the system
    // allocator back.
    EXPECT_EQ(0, qvfs_RegistAllocatorInterface(alloc, nullptr));
    EXPECT_EQ(0, qvfs_RegistAllocatorInterface(nullptr, release));
    qvfs_Free(qvfs_Malloc(64));
    EXPECT_EQ(std::pair(0, 0), std::pair(g_allocs, g_frees));
    EXPECT_EQ(0, qvfs_RegistAllocatorInterface(alloc, release));
    qvfs_Free(qvfs_Malloc(4096));
    EXPECT_EQ(std::pair(1, 1), std::pair(g_allocs, g_frees));
    EXPECT_EQ(0, qvfs_InitAllocatorInterface());
    qvfs_Free(qvfs_Malloc(16));
    EXPECT_EQ(std::pair(1, 1), std::pair(g_allocs, g_frees));
}

TEST(Hooks, TimeStringIsLocalDateUnderscoreTimeOrNothing) {
    char buf[32];
    setenv("TZ", "XST-2", 1);  // two hours east
    tzset();
    EXPECT_EQ(19, qvfs_GetTimeString(0, buf, sizeof buf));
    EXPECT_STREQ("1970-01-01_02:00:00", buf);
    setenv("TZ", "UTC0", 1);
    tzset();
    // Seconds are unsigned; a 32-bit time_t ends in 2038, and beyond it
    // there is no text rather than a date before 1970.
    const bool wide = sizeof(time_t) >= 8;
    EXPECT_EQ(19, qvfs_GetTimeString(wide ? 0xFFFFFFFFu : 0x7FFFFFFFu, buf, 20));
    EXPECT_STREQ(wide ? "2106-02-07_06:28:15" : "2038-01-19_03:14:07", buf);
    if (!wide) {
        EXPECT_EQ(0, qvfs_GetTimeString(0x80000000u, buf, 20));
        EXPECT_STREQ("", buf);
    }
    EXPECT_EQ(0, qvfs_GetTimeString(0, buf, 19));  // no room for the terminator
    EXPECT_EQ(0, qvfs_GetTimeString(0, nullptr, 32));
    unsetenv("TZ");
    tzset();
}

class IoHooks : public qvfs::test::SandboxTest {
protected:
    void TearDown() override { plat::fault_clear(); }
};

TEST_F(IoHooks, TransfersGoThroughThePlatformAndShortOnesComeBackAsTheyAre) {
    const int fd = plat::open_device(sbx_.add_disk(2, 1 << 20).c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    unsigned char buf[512] = {};
    // Whole transfers are what every layer's tests run on. A device that
    // takes only 100 bytes: the hook says 100, a whole-piece transfer fails.
    // A failing device: -1 and the system's errno.
    const int id = plat::fault_add({.disk = 2, .ops = plat::kFaultWrite | plat::kFaultRead, .short_bytes = 100});
    ASSERT_EQ(8192, plat::seek(fd, 8192));
    EXPECT_EQ(100, TCT_Write(fd, buf, sizeof buf, counttest_BlkType2CountTestType(3)));
    EXPECT_FALSE(qvfs::dev_read_at(fd, 4096, buf, sizeof buf));
    plat::fault_clear(id);
    plat::fault_add({.disk = 2, .ops = plat::kFaultRead});
    errno = 0;
    EXPECT_EQ(-1, TCT_Read(fd, buf, sizeof buf, 0));
    EXPECT_EQ(EIO, errno);
    plat::close_fd(fd);
}

}  // namespace
