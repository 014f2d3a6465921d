// Platform module: root mapping, device transfers and requests, key files,
// task device and the fault table.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "common/platform.h"
#include "support/child.h"
#include "support/sandbox.h"

namespace plat = qvfs::plat;
using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::Sandbox;
using qvfs::test::SandboxTest;
using PlatformTest = SandboxTest;

namespace {

constexpr uint64_t kGiB = 1ull << 30;

std::vector<uint8_t> read_image(const std::string& path, uint64_t off, std::size_t len) {
    std::vector<uint8_t> out(len, 0xEE);
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd >= 0) {
        ssize_t n = ::pread(fd, out.data(), len, static_cast<off_t>(off));
        if (n >= 0) out.resize(static_cast<std::size_t>(n));
        ::close(fd);
    }
    return out;
}

std::vector<uint8_t> pattern(std::size_t len, uint8_t seed) {
    std::vector<uint8_t> v(len);
    for (std::size_t i = 0; i < len; ++i) v[i] = static_cast<uint8_t>(seed + i * 7);
    return v;
}

ssize_t write_at(int fd, uint64_t off, const void* buf, std::size_t len) {
    if (plat::seek(fd, off) < 0) return -2;
    return plat::write(fd, buf, len);
}

ssize_t read_at(int fd, uint64_t off, void* buf, std::size_t len) {
    if (plat::seek(fd, off) < 0) return -2;
    return plat::read(fd, buf, len);
}

}  // namespace

// ---- root mapping ------------------------------------------------------------------

TEST_F(PlatformTest, RootMapsAbsolutePathsOnly) {
    EXPECT_EQ(sbx_.root(), plat::root());
    char out[256];
    ASSERT_TRUE(plat::real_path("/dev/scsi/host03/part1", out, sizeof out));
    EXPECT_EQ(sbx_.root() + "/dev/scsi/host03/part1", out);
    ASSERT_TRUE(plat::real_path("dvr/qvfs", out, sizeof out));
    EXPECT_STREQ("dvr/qvfs", out);

    // The result and its terminator must fit exactly.
    std::string want = sbx_.root() + "/dvr";
    EXPECT_TRUE(plat::real_path("/dvr", out, want.size() + 1));
    EXPECT_EQ(want, out);
    EXPECT_FALSE(plat::real_path("/dvr", out, want.size()));
    EXPECT_FALSE(plat::real_path(nullptr, out, sizeof out));
}

TEST_F(PlatformTest, RootReloadNormalisesAndUnsets) {
    ::setenv("QVFS_ROOT", (sbx_.root() + "//").c_str(), 1);
    plat::reload_root();
    EXPECT_EQ(sbx_.root(), plat::root());

    for (const char* none : {"", "/"}) {
        ::setenv("QVFS_ROOT", none, 1);
        plat::reload_root();
        EXPECT_STREQ("", plat::root()) << "QVFS_ROOT=\"" << none << "\"";
        char out[64];
        ASSERT_TRUE(plat::real_path("/dev/qvfs_task", out, sizeof out));
        EXPECT_STREQ("/dev/qvfs_task", out);
    }
    ::unsetenv("QVFS_ROOT");
    plat::reload_root();
    EXPECT_STREQ("", plat::root());
}

// ---- devices -------------------------------------------------------------------------

TEST_F(PlatformTest, DeviceSizeOfImagesAndMissingDevices) {
    EXPECT_EQ(int64_t(12 * kGiB), plat::device_size(sbx_.add_disk(3, 12 * kGiB).c_str()));
    const uint64_t big = 2000398934016ull;
    EXPECT_EQ(int64_t(big), plat::device_size(sbx_.add_disk(24, big).c_str()));

    errno = 0;
    EXPECT_EQ(-1, plat::device_size(Sandbox::device_path(5).c_str()));
    EXPECT_EQ(ENOENT, errno);
    // The real path (outside the sandbox) is not what the library opens.
    EXPECT_EQ(-1, plat::device_size(sbx_.image_path(3).c_str()));
}

TEST_F(PlatformTest, TransfersReachTheImageAtTheSeekPosition) {
    std::string dev = sbx_.add_disk(3, 12 * kGiB);
    int fd = plat::open_device(dev.c_str(), O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);

    // Beyond 4 GiB, so that 32-bit offsets would show.
    const uint64_t off = 5 * kGiB + 4096;
    auto a = pattern(512, 1);
    auto b = pattern(300, 2);
    auto c = pattern(212, 3);
    EXPECT_EQ(512, write_at(fd, off, a.data(), a.size()));
    struct iovec iov[2] = {{b.data(), b.size()}, {c.data(), c.size()}};
    ASSERT_EQ(int64_t(off + 512), plat::seek(fd, off + 512));
    EXPECT_EQ(512, plat::writev(fd, iov, 2));
    EXPECT_EQ(0, plat::flush(fd));

    auto disk = read_image(sbx_.image_path(3), off, 1024);
    std::vector<uint8_t> want = a;
    want.insert(want.end(), b.begin(), b.end());
    want.insert(want.end(), c.begin(), c.end());
    EXPECT_EQ(want, disk);

    std::vector<uint8_t> back(1024);
    EXPECT_EQ(1024, read_at(fd, off, back.data(), back.size()));
    EXPECT_EQ(want, back);

    errno = 0;
    EXPECT_EQ(-1, plat::seek(fd, uint64_t(INT64_MAX) + 1));
    EXPECT_EQ(EINVAL, errno);
    EXPECT_EQ(0, plat::close_fd(fd));
    EXPECT_EQ(-1, plat::read(fd, back.data(), 1));
}

TEST_F(PlatformTest, PresenceOfNonBlockDevicesAndBadDescriptors) {
    int img = plat::open_device(sbx_.add_disk(3, kGiB).c_str(), O_RDWR);
    ASSERT_GE(img, 0);
    EXPECT_TRUE(plat::device_present(img));

    int null = ::open("/dev/null", O_RDWR);  // a character device
    ASSERT_GE(null, 0);
    EXPECT_TRUE(plat::device_present(null));
    ::close(null);

    plat::close_fd(img);
    EXPECT_FALSE(plat::device_present(img));
}

// A real block device: a loop device over a sparse image, reached through a
// link placed where the library opens disk 6. Needs loop-device rights.
TEST_F(PlatformTest, LoopDeviceSizeAndPresence) {
    int ctl = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    if (ctl < 0) GTEST_SKIP() << "no /dev/loop-control: " << std::strerror(errno);
    int n = ::ioctl(ctl, LOOP_CTL_GET_FREE);
    ::close(ctl);
    if (n < 0) GTEST_SKIP() << "no free loop device";
    std::string loop = "/dev/loop" + std::to_string(n);
    int lfd = ::open(loop.c_str(), O_RDWR | O_CLOEXEC);
    if (lfd < 0) GTEST_SKIP() << "cannot open " << loop;

    sbx_.add_disk(7, 64 << 20);
    int backing = ::open(sbx_.image_path(7).c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(backing, 0);
    if (::ioctl(lfd, LOOP_SET_FD, backing) != 0) {
        ::close(backing);
        ::close(lfd);
        GTEST_SKIP() << "LOOP_SET_FD: " << std::strerror(errno);
    }
    ::close(backing);
    struct Detach {
        int fd;
        ~Detach() {
            ::ioctl(fd, LOOP_CLR_FD, 0);
            ::close(fd);
        }
    } detach{lfd};

    std::string dev = Sandbox::device_path(6);
    ASSERT_EQ(0, ::mkdir(sbx_.real("/dev/scsi/host06").c_str(), 0777));
    ASSERT_EQ(0, ::symlink(loop.c_str(), sbx_.real(dev).c_str()));

    EXPECT_EQ(int64_t(64 << 20), plat::device_size(dev.c_str()));
    int fd = plat::open_device(dev.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    // The loop driver does not know the presence request: counts as present.
    EXPECT_TRUE(plat::device_present(fd));

    plat::Fault off;
    off.disk = 6;
    off.ops = plat::kFaultOffline;
    int id = plat::fault_add(off);
    EXPECT_FALSE(plat::device_present(fd));
    plat::fault_clear(id);
    plat::close_fd(fd);
}

// ---- fault table -----------------------------------------------------------------------

class FaultTest : public PlatformTest {
protected:
    void SetUp() override {
        fd3_ = plat::open_device(sbx_.add_disk(3, 4 * kGiB).c_str(), O_RDWR);
        fd4_ = plat::open_device(sbx_.add_disk(4, 4 * kGiB).c_str(), O_RDWR);
        ASSERT_GE(fd3_, 0);
        ASSERT_GE(fd4_, 0);
    }
    void TearDown() override {
        plat::fault_clear();
        plat::close_fd(fd3_);
        plat::close_fd(fd4_);
    }
    static plat::Fault fault(int disk, unsigned ops, uint64_t begin = 0, uint64_t end = UINT64_MAX) {
        plat::Fault f;
        f.disk = disk;
        f.ops = ops;
        f.begin = begin;
        f.end = end;
        return f;
    }
    int fd3_ = -1, fd4_ = -1;
};

TEST_F(FaultTest, ErrorFaultHitsOnlyOverlappingTransfersOfItsKind) {
    plat::Fault f = fault(3, plat::kFaultWrite, 8192, 12288);
    f.error = ENOSPC;
    plat::fault_add(f);
    auto buf = pattern(16384, 9);

    // Ending exactly at the range's start, or starting at its end: missed.
    EXPECT_EQ(4096, write_at(fd3_, 4096, buf.data(), 4096));
    EXPECT_EQ(4096, write_at(fd3_, 12288, buf.data(), 4096));
    EXPECT_EQ(0, plat::fault_hits());

    // One byte inside, and a transfer spanning the whole range: hit, and
    // nothing reaches the device.
    errno = 0;
    EXPECT_EQ(-1, write_at(fd3_, 12287, buf.data(), 1));
    EXPECT_EQ(ENOSPC, errno);
    EXPECT_EQ(-1, write_at(fd3_, 0, buf.data(), buf.size()));
    EXPECT_EQ(-1, write_at(fd3_, 4096, buf.data(), 8192));
    EXPECT_EQ(3, plat::fault_hits());
    EXPECT_EQ(std::vector<uint8_t>(4096, 0), read_image(sbx_.image_path(3), 8192, 4096));

    // Reads and writev of the same range are another kind.
    std::vector<uint8_t> back(4096);
    EXPECT_EQ(4096, read_at(fd3_, 8192, back.data(), back.size()));
    struct iovec iov = {buf.data(), 4096};
    ASSERT_GE(plat::seek(fd3_, 8192), 0);
    EXPECT_EQ(4096, plat::writev(fd3_, &iov, 1));
    EXPECT_EQ(3, plat::fault_hits());
}

TEST_F(FaultTest, ShortFaultMovesOnlyTheLeadingBytes) {
    auto data = pattern(4096, 4);
    ASSERT_EQ(4096, write_at(fd3_, 1 << 20, data.data(), data.size()));

    plat::Fault f = fault(3, plat::kFaultRead | plat::kFaultWrite);
    f.short_bytes = 100;
    int id = plat::fault_add(f);
    std::vector<uint8_t> back(4096, 0xAB);
    EXPECT_EQ(100, read_at(fd3_, 1 << 20, back.data(), back.size()));
    EXPECT_TRUE(std::equal(data.begin(), data.begin() + 100, back.begin()));
    EXPECT_EQ(0xAB, back[100]);
    // The descriptor moved by what was transferred.
    EXPECT_EQ(int64_t((1 << 20) + 100), ::lseek(fd3_, 0, SEEK_CUR));

    auto other = pattern(4096, 77);
    EXPECT_EQ(100, write_at(fd3_, 2 << 20, other.data(), other.size()));
    auto disk = read_image(sbx_.image_path(3), 2 << 20, 4096);
    EXPECT_TRUE(std::equal(other.begin(), other.begin() + 100, disk.begin()));
    EXPECT_EQ(std::vector<uint8_t>(disk.begin() + 100, disk.end()), std::vector<uint8_t>(3996, 0));
    plat::fault_clear(id);

    // A zero-byte short transfer moves nothing; one longer than the request
    // is the request.
    f.short_bytes = 0;
    id = plat::fault_add(f);
    EXPECT_EQ(0, write_at(fd3_, 3 << 20, other.data(), other.size()));
    EXPECT_EQ(std::vector<uint8_t>(16, 0), read_image(sbx_.image_path(3), 3 << 20, 16));
    plat::fault_clear(id);
    f.short_bytes = 1 << 20;
    plat::fault_add(f);
    EXPECT_EQ(4096, write_at(fd3_, 3 << 20, other.data(), other.size()));
}

TEST_F(FaultTest, ShortWritevWritesTheFirstBytesOfTheVector) {
    auto a = pattern(100, 1), b = pattern(100, 2), c = pattern(100, 3);
    struct iovec iov[3] = {{a.data(), 100}, {b.data(), 100}, {c.data(), 100}};
    plat::Fault f = fault(3, plat::kFaultWritev);
    f.short_bytes = 150;
    plat::fault_add(f);
    ASSERT_GE(plat::seek(fd3_, 8192), 0);
    EXPECT_EQ(150, plat::writev(fd3_, iov, 3));
    auto disk = read_image(sbx_.image_path(3), 8192, 300);
    std::vector<uint8_t> want(a);
    want.insert(want.end(), b.begin(), b.begin() + 50);
    want.resize(300, 0);
    EXPECT_EQ(want, disk);
}

TEST_F(FaultTest, DiskSelectionAndRemainingHits) {
    uint8_t byte = 1;
    plat::Fault f = fault(4, plat::kFaultWrite);
    f.remaining = 2;
    plat::fault_add(f);
    EXPECT_EQ(1, write_at(fd3_, 0, &byte, 1));
    EXPECT_EQ(-1, write_at(fd4_, 0, &byte, 1));
    EXPECT_EQ(EIO, errno);
    EXPECT_EQ(-1, write_at(fd4_, 0, &byte, 1));
    EXPECT_EQ(1, write_at(fd4_, 0, &byte, 1));  // used up
    EXPECT_EQ(2, plat::fault_hits());
    plat::fault_clear();
    EXPECT_EQ(0, plat::fault_hits());

    // Disk -1 reaches every disk, and descriptors the table does not know.
    plat::fault_add(fault(-1, plat::kFaultRead));
    EXPECT_EQ(-1, read_at(fd3_, 0, &byte, 1));
    EXPECT_EQ(-1, read_at(fd4_, 0, &byte, 1));
    int raw = ::open(sbx_.image_path(3).c_str(), O_RDONLY);
    ASSERT_GE(raw, 0);
    EXPECT_EQ(-1, read_at(raw, 0, &byte, 1));
    ::close(raw);
}

TEST_F(FaultTest, OfflineFaultIgnoresTheRangeAndCountsDown) {
    plat::Fault f = fault(3, plat::kFaultOffline, 0, 1);
    f.remaining = 1;
    plat::fault_add(f);
    plat::fault_add(fault(3, plat::kFaultWrite));  // no effect on presence
    EXPECT_TRUE(plat::device_present(fd4_));
    EXPECT_FALSE(plat::device_present(fd3_));
    EXPECT_TRUE(plat::device_present(fd3_));
}

TEST_F(FaultTest, ClearOneKeepsTheOthers) {
    uint8_t byte = 1;
    int w = plat::fault_add(fault(3, plat::kFaultWrite));
    int r = plat::fault_add(fault(3, plat::kFaultRead));
    ASSERT_GT(w, 0);
    ASSERT_GT(r, 0);
    EXPECT_NE(w, r);
    plat::fault_clear(w);
    EXPECT_EQ(1, write_at(fd3_, 0, &byte, 1));
    EXPECT_EQ(-1, read_at(fd3_, 0, &byte, 1));
    plat::fault_clear();
    EXPECT_EQ(1, read_at(fd3_, 0, &byte, 1));

    // The table is bounded; a full table refuses with ENOSPC.
    std::vector<int> ids;
    for (int i = 0; i < 64; ++i) {
        int id = plat::fault_add(fault(9, plat::kFaultRead));
        if (id < 0) break;
        ids.push_back(id);
    }
    EXPECT_EQ(-1, plat::fault_add(fault(9, plat::kFaultRead)));
    EXPECT_EQ(ENOSPC, errno);
    plat::fault_clear(ids.front());
    EXPECT_GT(plat::fault_add(fault(9, plat::kFaultRead)), 0);
}

TEST_F(FaultTest, ReusedDescriptorBelongsToItsNewDisk) {
    plat::fault_add(fault(3, plat::kFaultWrite));
    int old = fd3_;
    plat::close_fd(fd3_);
    fd3_ = plat::open_device(Sandbox::device_path(4).c_str(), O_RDWR);
    ASSERT_GE(fd3_, 0);
    EXPECT_EQ(old, fd3_);  // the lowest free descriptor comes back
    uint8_t byte = 1;
    EXPECT_EQ(1, write_at(fd3_, 0, &byte, 1));
}

TEST_F(FaultTest, HitsAreCountedExactlyAcrossThreads) {
    plat::Fault f = fault(3, plat::kFaultWrite);
    f.remaining = 50;
    plat::fault_add(f);
    std::atomic<int> failed{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; ++t) {
        ts.emplace_back([&, t] {
            int fd = plat::open_device(Sandbox::device_path(3).c_str(), O_RDWR);
            uint8_t byte = static_cast<uint8_t>(t);
            for (int i = 0; i < 100; ++i) {
                if (write_at(fd, 512 * t, &byte, 1) < 0) ++failed;
            }
            plat::close_fd(fd);
        });
    }
    for (auto& t : ts) t.join();
    EXPECT_EQ(50, failed.load());
    EXPECT_EQ(50, plat::fault_hits());
}

TEST_F(FaultTest, ForkedChildInheritsFaultsButClearsOnlyItsOwn) {
    plat::fault_add(fault(3, plat::kFaultWrite));
    int fd = fd3_;
    Child c = Child::spawn([fd](ChildLink& link) {
        uint8_t byte = 1;
        CHILD_CHECK(link, write_at(fd, 0, &byte, 1) == -1 && errno == EIO);
        plat::fault_clear();
        CHILD_CHECK(link, write_at(fd, 0, &byte, 1) == 1);
        return 0;
    });
    EXPECT_CHILD_OK(c);
    uint8_t byte = 1;
    EXPECT_EQ(-1, write_at(fd3_, 0, &byte, 1));
}

// ---- key files -----------------------------------------------------------------------

TEST_F(PlatformTest, DirectoriesAndKeyFilesLiveBelowTheRoot) {
    EXPECT_FALSE(plat::dir_exists("/dvr/rec/a"));
    ASSERT_EQ(0, plat::make_dirs("/dvr/rec/a"));
    EXPECT_TRUE(plat::dir_exists("/dvr/rec/a"));
    struct stat st;
    EXPECT_EQ(0, ::stat(sbx_.real("/dvr/rec/a").c_str(), &st));
    EXPECT_EQ(0, plat::make_dirs("/dvr/rec/a"));  // existing is fine

    ASSERT_EQ(0, plat::create_key_file("/dvr/rec/key"));
    EXPECT_FALSE(plat::dir_exists("/dvr/rec/key"));
    EXPECT_EQ(-1, plat::make_dirs("/dvr/rec/key/sub"));
    EXPECT_EQ(ENOTDIR, errno);

    // Re-creating a key file empties it but keeps its identity (and keys).
    int before = plat::ftok("/dvr/rec/key", 66);
    ASSERT_NE(-1, before);
    EXPECT_EQ(int(::ftok(sbx_.real("/dvr/rec/key").c_str(), 66)), before);
    int fd = ::open(sbx_.real("/dvr/rec/key").c_str(), O_WRONLY);
    ASSERT_EQ(5, ::write(fd, "hello", 5));
    ::close(fd);
    ASSERT_EQ(0, plat::create_key_file("/dvr/rec/key"));
    ASSERT_EQ(0, ::stat(sbx_.real("/dvr/rec/key").c_str(), &st));
    EXPECT_EQ(0, st.st_size);
    EXPECT_EQ(before, plat::ftok("/dvr/rec/key", 66));

    EXPECT_EQ(-1, plat::ftok("/dvr/rec/none", 1));
    EXPECT_EQ(-1, plat::create_key_file("/dvr/none/key"));
}

// ---- task device ---------------------------------------------------------------------

namespace {
int fill_list(void* list84, void* ctx) {
    auto* words = static_cast<int32_t*>(list84);
    int* calls = static_cast<int*>(ctx);
    ++*calls;
    words[1] = 4242;
    words[20] = -7;
    return *calls > 1 ? -1 : 0;
}
}  // namespace

TEST_F(PlatformTest, TaskSourceStandsInForTheDevice) {
    errno = 0;
    EXPECT_EQ(-1, plat::open_task_device());
    EXPECT_EQ(ENOENT, errno);

    int calls = 0;
    plat::set_task_source(fill_list, &calls);
    int fd = plat::open_task_device();
    EXPECT_GT(fd, 0);
    std::array<int32_t, 21> list{};
    EXPECT_EQ(0, plat::task_list(fd, list.data()));
    EXPECT_EQ(4242, list[1]);
    EXPECT_EQ(-7, list[20]);
    EXPECT_EQ(-1, plat::task_list(fd, list.data()));  // the source's failure
    EXPECT_EQ(2, calls);

    plat::set_task_source(nullptr, nullptr);
    EXPECT_EQ(-1, plat::task_list(fd, list.data()));
    EXPECT_EQ(EBADF, errno);
    EXPECT_EQ(2, calls);
}

TEST_F(PlatformTest, TaskDeviceIsOpenedBelowTheRoot) {
    ASSERT_EQ(0, plat::make_dirs("/dev"));
    ASSERT_EQ(0, plat::create_key_file("/dev/qvfs_task"));
    int fd = plat::open_task_device();
    ASSERT_GT(fd, 0);
    EXPECT_NE(0, ::fcntl(fd, F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(O_RDWR, ::fcntl(fd, F_GETFL) & O_ACCMODE);
    std::array<int32_t, 21> list{};
    EXPECT_EQ(-1, plat::task_list(fd, list.data()));  // a plain file knows no requests
    EXPECT_EQ(ENOTTY, errno);
    ::close(fd);
}
