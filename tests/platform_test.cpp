// Platform module: root mapping, devices and their requests, the fault table,
// key files and the task device.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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
using PlatformTest = qvfs::test::SandboxTest;

namespace {

constexpr uint64_t kGiB = 1ull << 30;

// What an image file holds, read past the library.
std::string read_image(const std::string& path, uint64_t off, std::size_t len) {
    std::string out(len, '\0');
    const int fd = ::open(path.c_str(), O_RDONLY);
    out.resize(static_cast<std::size_t>(std::max<ssize_t>(0, ::pread(fd, out.data(), len, static_cast<off_t>(off)))));
    ::close(fd);
    return out;
}
std::string pattern(std::size_t len, int seed) {
    std::string v(len, '\0');
    for (std::size_t i = 0; i < len; ++i) v[i] = static_cast<char>(seed + i * 7);
    return v;
}
std::string zeros(std::size_t n) { return std::string(n, '\0'); }
// Expects `call` to return `ret` and to leave `err` in errno (cleared first).
#define EXPECT_ERR(ret, err, call) do { errno = 0; EXPECT_EQ(ret, call); EXPECT_EQ(err, errno); } while (0)

ssize_t write_at(int fd, uint64_t off, const std::string& s) {
    return plat::seek(fd, off) < 0 ? -2 : plat::write(fd, s.data(), s.size());
}
ssize_t read_at(int fd, uint64_t off, std::string* s) {
    return plat::seek(fd, off) < 0 ? -2 : plat::read(fd, s->data(), s->size());
}
iovec piece(const std::string& s, std::size_t n) { return {const_cast<char*>(s.data()), n}; }

}  // namespace

TEST_F(PlatformTest, RootMapsAbsolutePathsOnlyAndReloads) {
    char out[256];
    ASSERT_TRUE(plat::real_path("/dev/scsi/host03/part1", out, sizeof out));
    EXPECT_EQ(sbx_.root() + "/dev/scsi/host03/part1", out);
    ASSERT_TRUE(plat::real_path("dvr/qvfs", out, sizeof out));
    EXPECT_STREQ("dvr/qvfs", out);
    // The result and its terminator must fit exactly.
    const std::string want = sbx_.root() + "/dvr";
    EXPECT_TRUE(plat::real_path("/dvr", out, want.size() + 1));
    EXPECT_EQ(want, out);
    EXPECT_FALSE(plat::real_path("/dvr", out, want.size()));
    EXPECT_FALSE(plat::real_path(nullptr, out, sizeof out));

    // Trailing slashes are dropped; "", "/" and an unset variable mean no root.
    ::setenv("QVFS_ROOT", (sbx_.root() + "//").c_str(), 1);
    plat::reload_root();
    EXPECT_EQ(sbx_.root(), plat::root());
    for (const char* none : {"", "/", static_cast<const char*>(nullptr)}) {
        if (none != nullptr) ::setenv("QVFS_ROOT", none, 1); else ::unsetenv("QVFS_ROOT");
        plat::reload_root();
        ASSERT_TRUE(plat::real_path("/dev/qvfs_task", out, sizeof out));
        EXPECT_STREQ("/dev/qvfs_task", out) << (none != nullptr ? none : "unset");
        EXPECT_STREQ("", plat::root());
    }
}

TEST_F(PlatformTest, DeviceSizeTransfersAndPresence) {
    // Sparse images: 2 TB take no space; a removed one is missing.
    EXPECT_EQ(int64_t(2000398934016), plat::device_size(sbx_.add_disk(24, 2000398934016ull).c_str()));
    struct stat st;
    EXPECT_TRUE(::stat(sbx_.image_path(24).c_str(), &st) == 0 && st.st_blocks < 1024);
    sbx_.remove_disk(24);
    EXPECT_ERR(-1, ENOENT, plat::device_size(Sandbox::device_path(24).c_str()));
    const std::string dev = sbx_.add_disk(3, 12 * kGiB);
    EXPECT_EQ(-1, plat::device_size(sbx_.image_path(3).c_str()));  // a real path is mapped again
    const int fd = plat::open_device(dev.c_str(), O_RDWR);
    ASSERT_GE(fd, 0) << std::strerror(errno);

    // Beyond 4 GiB, so that 32-bit offsets would show: a write, then a
    // two-piece writev right behind it.
    const uint64_t off = 5 * kGiB + 4096;
    const std::string a = pattern(512, 1), b = pattern(512, 2);
    EXPECT_EQ(512, write_at(fd, off, a));
    const iovec iov[2] = {piece(b, 300), piece(a, 212)};
    ASSERT_EQ(int64_t(off + 512), plat::seek(fd, off + 512));
    EXPECT_EQ(512, plat::writev(fd, iov, 2));
    EXPECT_EQ(0, plat::flush(fd));
    const std::string want = a + b.substr(0, 300) + a.substr(0, 212);
    EXPECT_EQ(want, read_image(sbx_.image_path(3), off, 1024));
    std::string back(1024, 'x');
    EXPECT_EQ(1024, read_at(fd, off, &back));
    EXPECT_EQ(want, back);
    EXPECT_ERR(-1, EINVAL, plat::seek(fd, uint64_t(INT64_MAX) + 1));

    // An image and a character device do not know the presence request and
    // count as present; a closed descriptor is offline.
    const int null = ::open("/dev/null", O_RDWR);
    EXPECT_TRUE(plat::device_present(fd) && plat::device_present(null));
    ::close(null);
    EXPECT_EQ(0, plat::close_fd(fd));
    EXPECT_FALSE(plat::device_present(fd));
    EXPECT_EQ(-1, plat::read(fd, back.data(), 1));
}

// A real block device: a loop device over a sparse image, reached through a
// link placed where the library opens disk 6. Needs loop-device rights.
TEST_F(PlatformTest, LoopDeviceSizeAndPresence) {
    const int ctl = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const int n = ctl < 0 ? -1 : ::ioctl(ctl, LOOP_CTL_GET_FREE);
    if (ctl >= 0) ::close(ctl);
    const std::string loop = "/dev/loop" + std::to_string(n);
    const int lfd = n < 0 ? -1 : ::open(loop.c_str(), O_RDWR | O_CLOEXEC);
    sbx_.add_disk(7, 64 << 20);
    const int backing = ::open(sbx_.image_path(7).c_str(), O_RDWR | O_CLOEXEC);
    const bool attached = lfd >= 0 && ::ioctl(lfd, LOOP_SET_FD, backing) == 0;
    const int why = errno;
    ::close(backing);
    if (!attached) {
        if (lfd >= 0) ::close(lfd);
        GTEST_SKIP() << "no loop device to attach: " << std::strerror(why);
    }
    struct Detach {
        int fd;
        ~Detach() { ::ioctl(fd, LOOP_CLR_FD, 0); ::close(fd); }
    } detach{lfd};

    const std::string dev = Sandbox::device_path(6);
    ASSERT_EQ(0, ::mkdir(sbx_.real("/dev/scsi/host06").c_str(), 0777));
    ASSERT_EQ(0, ::symlink(loop.c_str(), sbx_.real(dev).c_str()));
    EXPECT_EQ(int64_t(64 << 20), plat::device_size(dev.c_str()));
    const int fd = plat::open_device(dev.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_TRUE(plat::device_present(fd));  // the loop driver does not know the request
    const int id = plat::fault_add({.disk = 6, .ops = plat::kFaultOffline});
    EXPECT_FALSE(plat::device_present(fd));
    plat::fault_clear(id);
    plat::close_fd(fd);
}

// ---- fault table -------------------------------------------------------------------

class FaultTest : public PlatformTest {
protected:
    void SetUp() override {
        fd3_ = plat::open_device(sbx_.add_disk(3, 4 * kGiB).c_str(), O_RDWR);
        fd4_ = plat::open_device(sbx_.add_disk(4, 4 * kGiB).c_str(), O_RDWR);
        ASSERT_TRUE(fd3_ >= 0 && fd4_ >= 0);
    }
    void TearDown() override {
        plat::fault_clear();
        plat::close_fd(fd3_);
        plat::close_fd(fd4_);
    }
    int fd3_ = -1, fd4_ = -1;
    std::string byte_ = "x";
};

TEST_F(FaultTest, ErrorFaultHitsOnlyOverlappingTransfersOfItsKind) {
    plat::fault_add({.disk = 3, .begin = 8192, .end = 12288, .ops = plat::kFaultWrite, .error = ENOSPC});
    const std::string buf = pattern(16384, 9);
    // Ending at the range's start or starting at its end misses; one byte
    // inside, or spanning the whole range, hits and moves nothing.
    const struct { uint64_t off; std::size_t len; bool hit; } rows[] = {
        {4096, 4096, false}, {12288, 4096, false}, {12287, 1, true}, {0, 16384, true}, {4096, 8192, true}};
    for (const auto& r : rows) {
        errno = 0;
        EXPECT_EQ(r.hit ? -1 : ssize_t(r.len), write_at(fd3_, r.off, buf.substr(0, r.len))) << r.off;
        EXPECT_EQ(r.hit ? ENOSPC : 0, errno) << r.off;
    }
    EXPECT_EQ(3, plat::fault_hits());
    EXPECT_EQ(zeros(4096), read_image(sbx_.image_path(3), 8192, 4096));

    // Reads and writev of the same range are other kinds.
    std::string back(4096, 'x');
    EXPECT_EQ(4096, read_at(fd3_, 8192, &back));
    const iovec iov = piece(buf, 4096);
    ASSERT_GE(plat::seek(fd3_, 8192), 0);
    EXPECT_EQ(4096, plat::writev(fd3_, &iov, 1));
    EXPECT_EQ(3, plat::fault_hits());
}

TEST_F(FaultTest, ShortFaultsMoveOnlyTheLeadingBytes) {
    const std::string data = pattern(4096, 4), other = pattern(4096, 77), img = sbx_.image_path(3);
    ASSERT_EQ(4096, write_at(fd3_, 1 << 20, data));
    int id = plat::fault_add(
        {.disk = 3, .ops = plat::kFaultRead | plat::kFaultWrite | plat::kFaultWritev, .short_bytes = 100});
    std::string back(4096, 'x');
    EXPECT_EQ(100, read_at(fd3_, 1 << 20, &back));
    EXPECT_EQ(data.substr(0, 100) + std::string(3996, 'x'), back);
    EXPECT_EQ(int64_t((1 << 20) + 100), ::lseek(fd3_, 0, SEEK_CUR));  // moved by what was moved
    EXPECT_EQ(100, write_at(fd3_, 2 << 20, other));
    EXPECT_EQ(other.substr(0, 100) + zeros(3996), read_image(img, 2 << 20, 4096));
    // writev: the first bytes of the vector, across its pieces.
    const iovec iov[3] = {piece(other, 60), piece(data, 60), piece(other, 60)};
    ASSERT_GE(plat::seek(fd3_, 3 << 20), 0);
    EXPECT_EQ(100, plat::writev(fd3_, iov, 3));
    EXPECT_EQ(other.substr(0, 60) + data.substr(0, 40) + zeros(3996), read_image(img, 3 << 20, 4096));

    // A zero-byte short transfer moves nothing; one longer than the request
    // is the request.
    plat::fault_clear(id);
    id = plat::fault_add({.disk = 3, .ops = plat::kFaultWrite, .short_bytes = 0});
    EXPECT_EQ(0, write_at(fd3_, 4 << 20, other));
    EXPECT_EQ(zeros(16), read_image(img, 4 << 20, 16));
    plat::fault_clear(id);
    plat::fault_add({.disk = 3, .ops = plat::kFaultWrite, .short_bytes = 1 << 20});
    EXPECT_EQ(4096, write_at(fd3_, 4 << 20, other));
}

TEST_F(FaultTest, DiskSelectionCountdownAndClearing) {
    // Offline ignores the range and counts down; a transfer fault leaves
    // presence alone. Faults hit their own disk only.
    plat::fault_add({.disk = 3, .begin = 0, .end = 1, .ops = plat::kFaultOffline, .remaining = 1});
    plat::fault_add({.disk = 4, .ops = plat::kFaultWrite, .remaining = 2});
    ASSERT_GT(plat::seek(fd3_, 1 << 20), 0);  // outside the range
    EXPECT_TRUE(plat::device_present(fd4_));
    EXPECT_FALSE(plat::device_present(fd3_));
    EXPECT_TRUE(plat::device_present(fd3_));
    EXPECT_EQ(1, write_at(fd3_, 0, byte_));
    EXPECT_ERR(-1, EIO, write_at(fd4_, 0, byte_));
    EXPECT_EQ(-1, write_at(fd4_, 0, byte_));
    EXPECT_EQ(1, write_at(fd4_, 0, byte_));  // used up
    EXPECT_EQ(3, plat::fault_hits());

    // Clearing one keeps the others; clearing all resets the count.
    const int r = plat::fault_add({.disk = 4, .ops = plat::kFaultRead});
    const int w = plat::fault_add({.disk = 4, .ops = plat::kFaultWrite});
    ASSERT_TRUE(r > 0 && w > 0 && r != w);
    plat::fault_clear(w);
    EXPECT_EQ(1, write_at(fd4_, 0, byte_));
    EXPECT_EQ(-1, read_at(fd4_, 0, &byte_));
    plat::fault_clear();
    EXPECT_EQ(0, plat::fault_hits());
    EXPECT_EQ(1, read_at(fd4_, 0, &byte_));

    // A descriptor reused for another disk belongs to that disk.
    plat::fault_add({.disk = 3, .ops = plat::kFaultWrite});
    const int old = fd3_;
    plat::close_fd(fd3_);
    fd3_ = plat::open_device(Sandbox::device_path(4).c_str(), O_RDWR);
    ASSERT_EQ(old, fd3_);  // the lowest free descriptor comes back
    EXPECT_EQ(1, write_at(fd3_, 0, byte_));
    // Disk -1 reaches every disk, and descriptors the table does not know.
    plat::fault_add({.ops = plat::kFaultRead});
    const int raw = ::open(sbx_.image_path(3).c_str(), O_RDONLY);
    for (int fd : {fd3_, fd4_, raw}) EXPECT_EQ(-1, read_at(fd, 0, &byte_)) << fd;
    ::close(raw);
}

TEST_F(FaultTest, HitsAreCountedExactlyAcrossThreads) {
    plat::fault_add({.disk = 3, .ops = plat::kFaultWrite, .remaining = 50});
    std::atomic<int> failed{0};
    std::vector<std::thread> ts;
    for (int t = 0; t < 4; ++t)
        ts.emplace_back([&, t] {
            const int fd = plat::open_device(Sandbox::device_path(3).c_str(), O_RDWR);
            for (int i = 0; i < 100; ++i) failed += write_at(fd, 512 * t, "t") < 0;
            plat::close_fd(fd);
        });
    for (auto& t : ts) t.join();
    EXPECT_EQ(50, failed.load());
    EXPECT_EQ(50, plat::fault_hits());
}

TEST_F(FaultTest, ForkedChildInheritsFaultsButClearsOnlyItsOwn) {
    plat::fault_add({.disk = 3, .ops = plat::kFaultWrite});
    Child c = Child::spawn([this](ChildLink& link) {
        CHILD_CHECK(link, write_at(fd3_, 0, byte_) == -1 && errno == EIO);
        plat::fault_clear();
        CHILD_CHECK(link, write_at(fd3_, 0, byte_) == 1);
        return 0;
    });
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(-1, write_at(fd3_, 0, byte_));
}

// ---- key files and the task device ---------------------------------------------------

TEST_F(PlatformTest, DirectoriesAndKeyFilesLiveBelowTheRoot) {
    struct stat st;
    EXPECT_FALSE(plat::dir_exists("/dvr/rec/a"));
    ASSERT_EQ(0, plat::make_dirs("/dvr/rec/a"));
    EXPECT_TRUE(plat::dir_exists("/dvr/rec/a") && ::stat(sbx_.real("/dvr/rec/a").c_str(), &st) == 0);
    EXPECT_EQ(0, plat::make_dirs("/dvr/rec/a"));  // existing is fine
    ASSERT_EQ(0, plat::create_key_file("/dvr/rec/key"));
    EXPECT_TRUE(::stat(sbx_.real("/dvr/rec/key").c_str(), &st) == 0 && S_ISREG(st.st_mode));
    EXPECT_FALSE(plat::dir_exists("/dvr/rec/key"));
    EXPECT_ERR(-1, ENOTDIR, plat::make_dirs("/dvr/rec/key/sub"));
    EXPECT_EQ(int(::ftok(sbx_.real("/dvr/rec/key").c_str(), 66)), plat::ftok("/dvr/rec/key", 66));
    EXPECT_ERR(-1, ENOENT, plat::ftok("/dvr/rec/none", 1));
    EXPECT_EQ(-1, plat::create_key_file("/dvr/none/key"));
}

// (The task check's tests drive the source with real lists.)
TEST_F(PlatformTest, TaskSourceStandsInForTheDevice) {
    EXPECT_ERR(-1, ENOENT, plat::open_task_device());
    int calls = 0;
    plat::set_task_source([](void* list, void* ctx) {
        static_cast<int32_t*>(list)[20] = -7;
        return ++*static_cast<int*>(ctx) > 1 ? -1 : 0;
    }, &calls);
    const int fd = plat::open_task_device();
    EXPECT_GT(fd, 0);
    std::array<int32_t, 21> list{};
    EXPECT_EQ(0, plat::task_list(fd, list.data()));
    EXPECT_EQ(-7, list[20]);
    EXPECT_EQ(-1, plat::task_list(fd, list.data()));  // the source's failure
    plat::set_task_source(nullptr, nullptr);
    EXPECT_ERR(-1, EBADF, plat::task_list(fd, list.data()));
    EXPECT_EQ(2, calls);
}

TEST_F(PlatformTest, TaskDeviceIsOpenedBelowTheRoot) {
    ASSERT_EQ(0, plat::make_dirs("/dev"));
    ASSERT_EQ(0, plat::create_key_file("/dev/qvfs_task"));
    const int fd = plat::open_task_device();
    ASSERT_GT(fd, 0);
    EXPECT_EQ(O_RDWR | O_NONBLOCK, ::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
    std::array<int32_t, 21> list{};
    EXPECT_ERR(-1, ENOTTY, plat::task_list(fd, list.data()));  // a plain file knows no requests
    ::close(fd);
}
