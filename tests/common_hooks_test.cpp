// The replaceable allocator, the device I/O hooks, the time formatter and the
// texts of the error codes.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>

#include "common/devio.h"
#include "common/errors.h"
#include "common/fsc.h"
#include "common/platform.h"
#include "support/sandbox.h"

namespace {

int g_allocs = 0;
int g_frees = 0;
void* last_alloc = nullptr;
uint32_t last_size = 0;

void* counting_alloc(uint32_t size) {
    ++g_allocs;
    last_size = size;
    return last_alloc = std::malloc(size);
}
void counting_free(void* p) {
    ++g_frees;
    std::free(p);
}

TEST(Allocator, HooksAreReplacedOnlyAsAPairAndResetByInit) {
    g_allocs = g_frees = 0;
    // One null pointer changes nothing.
    EXPECT_EQ(0, qvfs_RegistAllocatorInterface(counting_alloc, nullptr));
    EXPECT_EQ(0, qvfs_RegistAllocatorInterface(nullptr, counting_free));
    void* p = qvfs_Malloc(64);
    ASSERT_NE(nullptr, p);
    qvfs_Free(p);
    EXPECT_EQ(0, g_allocs);
    EXPECT_EQ(0, g_frees);

    // A registered pair serves every later allocation.
    EXPECT_EQ(0, qvfs_RegistAllocatorInterface(counting_alloc, counting_free));
    p = qvfs_Malloc(4096);
    EXPECT_EQ(last_alloc, p);
    EXPECT_EQ(4096u, last_size);
    qvfs_Free(p);
    EXPECT_EQ(1, g_allocs);
    EXPECT_EQ(1, g_frees);

    // Reset: the system allocator again.
    EXPECT_EQ(0, qvfs_InitAllocatorInterface());
    p = qvfs_Malloc(16);
    ASSERT_NE(nullptr, p);
    qvfs_Free(p);
    EXPECT_EQ(1, g_allocs);
    EXPECT_EQ(1, g_frees);
}

class TimeString : public ::testing::Test {
protected:
    void SetUp() override {
        const char* tz = std::getenv("TZ");
        hadTz_ = tz != nullptr;
        if (hadTz_) oldTz_ = tz;
        setenv("TZ", "UTC0", 1);
        tzset();
    }
    void TearDown() override {
        if (hadTz_)
            setenv("TZ", oldTz_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }
    bool hadTz_ = false;
    std::string oldTz_;
};

TEST_F(TimeString, FormatsDateUnderscoreTimeOrNothingWhenItDoesNotFit) {
    char buf[32];
    EXPECT_EQ(19, qvfs_GetTimeString(0, buf, sizeof buf));
    EXPECT_STREQ("1970-01-01_00:00:00", buf);
    EXPECT_EQ(19, qvfs_GetTimeString(0xFFFFFFFFu, buf, sizeof buf));  // unsigned, not negative
    EXPECT_STREQ("2106-02-07_06:28:15", buf);
    EXPECT_EQ(19, qvfs_GetTimeString(1700000000u, buf, 20));
    EXPECT_STREQ("2023-11-14_22:13:20", buf);

    EXPECT_EQ(0, qvfs_GetTimeString(0, buf, 19));
    EXPECT_EQ(0, qvfs_GetTimeString(0, buf, 0));
    EXPECT_EQ(0, qvfs_GetTimeString(0, nullptr, 32));

    setenv("TZ", "XST-2", 1);  // two hours east
    tzset();
    EXPECT_EQ(19, qvfs_GetTimeString(0, buf, sizeof buf));
    EXPECT_STREQ("1970-01-01_02:00:00", buf);
}

class IoHooks : public qvfs::test::SandboxTest {
protected:
    void TearDown() override { qvfs::plat::fault_clear(); }
};

TEST_F(IoHooks, TransfersGoThroughThePlatformAndShortOnesAreReportedAsTheyAre) {
    const std::string dev = sbx_.add_disk(2, 1 << 20);
    const int fd = qvfs::plat::open_device(dev.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);

    unsigned char out[512], in[512];
    for (int i = 0; i < 512; ++i) out[i] = static_cast<unsigned char>(i * 7);
    ASSERT_TRUE(qvfs::dev_write_at(fd, 4096, out, sizeof out));
    ASSERT_TRUE(qvfs::dev_read_at(fd, 4096, in, sizeof in));
    EXPECT_EQ(0, std::memcmp(out, in, sizeof in));

    // A device that takes only 100 bytes: the hook returns 100, the
    // whole-piece transfer fails.
    qvfs::plat::Fault f;
    f.disk = 2;
    f.ops = qvfs::plat::kFaultWrite | qvfs::plat::kFaultRead;
    f.short_bytes = 100;
    qvfs::plat::fault_add(f);
    ASSERT_EQ(8192, qvfs::plat::seek(fd, 8192));
    EXPECT_EQ(100, TCT_Write(fd, out, sizeof out, counttest_BlkType2CountTestType(3)));
    EXPECT_FALSE(qvfs::dev_write_at(fd, 8192, out, sizeof out));
    EXPECT_FALSE(qvfs::dev_read_at(fd, 4096, in, sizeof in));
    EXPECT_GE(qvfs::plat::fault_hits(), 3);

    // A failing device: -1 and the system's errno.
    qvfs::plat::fault_clear();
    f.short_bytes = -1;
    f.error = EIO;
    qvfs::plat::fault_add(f);
    ASSERT_EQ(0, qvfs::plat::seek(fd, 0));
    errno = 0;
    EXPECT_EQ(-1, TCT_Read(fd, in, sizeof in, 0));
    EXPECT_EQ(EIO, errno);
    qvfs::plat::close_fd(fd);

    EXPECT_EQ(0, countest_GetCallFuncObj(12));
}

TEST(ErrorText, EveryCodeHasItsOwnWords) {
    const int codes[] = {QVFS_ERR_BADARG,      QVFS_ERR_BADHANDLE,    QVFS_ERR_DISKNUM, QVFS_ERR_NOTFORMATTED,
                         QVFS_ERR_NOMEM,       QVFS_ERR_PROJID,       QVFS_ERR_OLDVERSION, QVFS_ERR_INITFAILED,
                         QVFS_ERR_CHANNEL,     QVFS_ERR_BLOCKRANGE,   QVFS_ERR_TOOMANYBLOCKS,
                         QVFS_ERR_FMT_NOSHARE, QVFS_ERR_FMT_TOOSMALL, QVFS_ERR_NOTINIT};
    std::set<std::string> seen;
    for (int c : codes) {
        std::string t = qvfs::error_text(c);
        EXPECT_NE("unknown error", t) << c;
        EXPECT_TRUE(seen.insert(t).second) << "shared text for " << c << ": " << t;
    }
    EXPECT_EQ(std::string("system error: ") + std::strerror(ENOENT), qvfs::error_text(QVFS_ERR_SYS + ENOENT));
    EXPECT_EQ(std::string("system error: ") + std::strerror(EIO), qvfs::error_text(2 * QVFS_ERR_SYS + EIO));
    EXPECT_STREQ("unknown error", qvfs::error_text(1004));
    EXPECT_STREQ("unknown error", qvfs::error_text(-5));
}

}  // namespace
