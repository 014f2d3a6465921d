// The replaceable allocator, the device I/O hooks and the time formatter.
#include <gtest/gtest.h>
#include <fcntl.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "common/devio.h"
#include "common/fsc.h"
#include "common/platform.h"
#include "support/sandbox.h"

namespace {

int g_allocs = 0, g_frees = 0;
void* counting_alloc(uint32_t size) { return ++g_allocs, std::malloc(size); }
void counting_free(void* p) { ++g_frees, std::free(p); }

TEST(Hooks, AllocatorIsReplacedOnlyAsAPairAndResetByInit) {
    EXPECT_EQ(0, qvfs_RegistAllocatorInterface(counting_alloc, nullptr));
    EXPECT_EQ(0, qvfs_RegistAllocatorInterface(nullptr, counting_free));
    qvfs_Free(qvfs_Malloc(64));
    EXPECT_EQ(0, g_allocs + g_frees);

    EXPECT_EQ(0, qvfs_RegistAllocatorInterface(counting_alloc, counting_free));
    qvfs_Free(qvfs_Malloc(4096));
    EXPECT_EQ(1, g_allocs);
    EXPECT_EQ(1, g_frees);

    EXPECT_EQ(0, qvfs_InitAllocatorInterface());
    qvfs_Free(qvfs_Malloc(16));
    EXPECT_EQ(2, g_allocs + g_frees);  // unchanged: the system allocator again
}

TEST(Hooks, TimeStringIsDateUnderscoreTimeOrNothing) {
    setenv("TZ", "UTC0", 1);
    tzset();
    char buf[32];
    EXPECT_EQ(19, qvfs_GetTimeString(0, buf, sizeof buf));
    EXPECT_STREQ("1970-01-01_00:00:00", buf);
    if (sizeof(time_t) >= 8) {
        EXPECT_EQ(19, qvfs_GetTimeString(0xFFFFFFFFu, buf, 20));  // unsigned seconds
        EXPECT_STREQ("2106-02-07_06:28:15", buf);
    } else {  // 32-bit ARM: time_t ends in 2038; no text rather than a date before 1970
        EXPECT_EQ(19, qvfs_GetTimeString(0x7FFFFFFFu, buf, 20));
        EXPECT_STREQ("2038-01-19_03:14:07", buf);
        EXPECT_EQ(0, qvfs_GetTimeString(0x80000000u, buf, 20));
        EXPECT_STREQ("", buf);
    }
    EXPECT_EQ(0, qvfs_GetTimeString(0, buf, 19));
    EXPECT_EQ(0, qvfs_GetTimeString(0, nullptr, 32));
    setenv("TZ", "XST-2", 1);  // local time: two hours east
    tzset();
    EXPECT_EQ(19, qvfs_GetTimeString(0, buf, sizeof buf));
    EXPECT_STREQ("1970-01-01_02:00:00", buf);
    unsetenv("TZ");
    tzset();
}

class IoHooks : public qvfs::test::SandboxTest {
protected:
    void TearDown() override { qvfs::plat::fault_clear(); }
};

TEST_F(IoHooks, TransfersGoThroughThePlatformAndShortOnesComeBackAsTheyAre) {
    const int fd = qvfs::plat::open_device(sbx_.add_disk(2, 1 << 20).c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    unsigned char out[512], in[512];
    for (int i = 0; i < 512; ++i) out[i] = static_cast<unsigned char>(i * 7);
    ASSERT_TRUE(qvfs::dev_write_at(fd, 4096, out, sizeof out));
    ASSERT_TRUE(qvfs::dev_read_at(fd, 4096, in, sizeof in));
    EXPECT_EQ(0, std::memcmp(out, in, sizeof in));

    // A device that takes only 100 bytes: the hook says 100, the whole-piece
    // transfer fails.
    qvfs::plat::Fault f;
    f.disk = 2;
    f.ops = qvfs::plat::kFaultWrite | qvfs::plat::kFaultRead;
    f.short_bytes = 100;
    qvfs::plat::fault_add(f);
    ASSERT_EQ(8192, qvfs::plat::seek(fd, 8192));
    EXPECT_EQ(100, TCT_Write(fd, out, sizeof out, counttest_BlkType2CountTestType(3)));
    EXPECT_FALSE(qvfs::dev_read_at(fd, 4096, in, sizeof in));

    // A failing device: -1 and the system's errno.
    qvfs::plat::fault_clear();
    f.short_bytes = -1;
    qvfs::plat::fault_add(f);
    errno = 0;
    EXPECT_EQ(-1, TCT_Read(fd, in, sizeof in, 0));
    EXPECT_EQ(EIO, errno);
    qvfs::plat::close_fd(fd);
}

}  // namespace
