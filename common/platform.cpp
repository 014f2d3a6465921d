// platform.cpp - the operating-system seam: root mapping, device I/O, device
// requests, key files and the task device, with the test fault table.
//
// Hot path. pread, pwrite and pwritev cost one relaxed atomic load beyond
// the system call while no fault is armed. Paths are mapped into fixed buffers
// at open and ftok time only; no transfer allocates.

#include "platform.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#ifndef O_LARGEFILE
#define O_LARGEFILE 0
#endif

namespace qvfs::plat {
namespace {

// ---- root ---------------------------------------------------------------------

// The root directory without trailing slashes; "" for the real system.
char g_root[PATH_MAX];
std::once_flag g_rootOnce;

void load_root() {
    g_root[0] = '\0';
    const char* env = std::getenv("QVFS_ROOT");
    if (env == nullptr || env[0] == '\0') return;
    std::size_t len = std::strlen(env);
    while (len > 1 && env[len - 1] == '/') --len;  // "/x/" and "/x" are one root
    if (len == 1 && env[0] == '/') return;         // "/" is the real system
    if (len >= sizeof(g_root)) return;             // unusable; stay on the real paths
    std::memcpy(g_root, env, len);
    g_root[len] = '\0';
}

const char* current_root() {
    std::call_once(g_rootOnce, load_root);
    return g_root;
}

// ---- descriptor -> disk --------------------------------------------------------

// Disk number + 1 of each descriptor opened by open_device (0: not a disk).
// Descriptors beyond the table are simply unknown; faults aimed at every
// disk still reach them.
constexpr int kFdSlots = 4096;
std::array<std::atomic<int8_t>, kFdSlots> g_fdDisk{};

// The disk number in a system path ("/dev/scsi/host07/part1" -> 7), or -1.
int disk_of_path(const char* sysPath) {
    static constexpr char kPrefix[] = "/dev/scsi/host";
    const char* p = std::strstr(sysPath, kPrefix);
    if (p == nullptr) return -1;
    p += sizeof(kPrefix) - 1;
    if (*p < '0' || *p > '9') return -1;
    int n = 0;
    while (*p >= '0' && *p <= '9' && n < 1000) n = n * 10 + (*p++ - '0');
    return n <= 100 ? n : -1;
}

void remember_disk(int fd, int disk) {
    if (fd >= 0 && fd < kFdSlots) {
        g_fdDisk[fd].store(static_cast<int8_t>(disk + 1), std::memory_order_relaxed);
    }
}

// What kind of file each descriptor opened by open_device is, learnt once at
// open so that the presence test on every write needs no fstat.
enum FdKind : uint8_t { kKindUnknown = 0, kKindBlockDevice = 1, kKindOther = 2 };
std::array<std::atomic<uint8_t>, kFdSlots> g_fdKind{};

void remember_kind(int fd, FdKind kind) {
    if (fd >= 0 && fd < kFdSlots) g_fdKind[fd].store(kind, std::memory_order_relaxed);
}

FdKind kind_of_fd(int fd) {
    if (fd < 0 || fd >= kFdSlots) return kKindUnknown;
    return static_cast<FdKind>(g_fdKind[fd].load(std::memory_order_relaxed));
}

int disk_of_fd(int fd) {
    if (fd < 0 || fd >= kFdSlots) return -1;
    return g_fdDisk[fd].load(std::memory_order_relaxed) - 1;
}

// ---- fault table ------------------------------------------------------------------

struct FaultSlot {
    int id = 0;  // 0: slot unused
    Fault f;
};

constexpr std::size_t kFaultSlots = 32;
std::atomic<bool> g_armed{false};  // any slot in use; the only hot-path cost
pthread_mutex_t g_faultMutex = PTHREAD_MUTEX_INITIALIZER;
std::array<FaultSlot, kFaultSlots> g_faults;
int g_nextFaultId = 1;
long g_faultHits = 0;

// What an armed fault makes of one transfer.
struct Verdict {
    bool hit = false;
    int error = 0;       // != 0: fail with this errno, move nothing
    std::size_t move = 0;  // otherwise: move this many bytes (< requested)
};

bool overlaps(const Fault& f, bool posKnown, uint64_t pos, std::size_t len) {
    // A transfer whose position is unknown (a descriptor that cannot seek)
    // is only hit by a fault covering the whole device.
    if (!posKnown) return f.begin == 0 && f.end == UINT64_MAX;
    uint64_t last = pos + (len > 0 ? len - 1 : 0);
    if (last < pos) last = UINT64_MAX;
    return pos < f.end && last >= f.begin;
}

// Consumes one hit of the first fault matching a transfer of len bytes of
// kind op on fd at device position pos (posKnown false: a descriptor that
// cannot seek). Caller checked g_armed.
Verdict judge(int fd, unsigned op, bool posKnown, uint64_t pos, std::size_t len) {
    Verdict v;
    int disk = disk_of_fd(fd);
    pthread_mutex_lock(&g_faultMutex);
    for (FaultSlot& s : g_faults) {
        if (s.id == 0 || (s.f.ops & op) == 0 || s.f.remaining == 0) continue;
        if (s.f.disk != -1 && s.f.disk != disk) continue;
        if (op != kFaultOffline && !overlaps(s.f, posKnown, pos, len)) continue;
        if (s.f.remaining > 0) --s.f.remaining;
        ++g_faultHits;
        v.hit = true;
        if (s.f.short_bytes >= 0) {
            v.move = static_cast<std::size_t>(s.f.short_bytes) < len
                         ? static_cast<std::size_t>(s.f.short_bytes)
                         : len;
        } else {
            v.error = s.f.error != 0 ? s.f.error : EIO;
        }
        break;
    }
    pthread_mutex_unlock(&g_faultMutex);
    return v;
}

bool armed() { return g_armed.load(std::memory_order_relaxed); }

ssize_t raw_pread(int fd, void* buf, std::size_t len, off_t pos) {
    ssize_t n;
    do {
        n = ::pread(fd, buf, len, pos);
    } while (n < 0 && errno == EINTR);
    return n;
}

ssize_t raw_pwrite(int fd, const void* buf, std::size_t len, off_t pos) {
    ssize_t n;
    do {
        n = ::pwrite(fd, buf, len, pos);
    } while (n < 0 && errno == EINTR);
    return n;
}

ssize_t raw_pwritev(int fd, const struct iovec* iov, int count, off_t pos) {
    ssize_t n;
    do {
        n = ::pwritev(fd, iov, count, pos);
    } while (n < 0 && errno == EINTR);
    return n;
}

// A device position the system takes, or false with EINVAL.
bool valid_pos(uint64_t pos) {
    if (pos <= static_cast<uint64_t>(INT64_MAX)) return true;
    errno = EINVAL;
    return false;
}

// ---- task device -------------------------------------------------------------------

// open_task_device hands out this value while a test source is set; it is
// above every real descriptor and never passed to the kernel.
constexpr int kTaskPseudoFd = 0x3FFFFFF0;
constexpr unsigned long kTaskListRequest = 0x40545401UL;
constexpr unsigned long kPresenceRequest = 0x400UL;

pthread_mutex_t g_taskMutex = PTHREAD_MUTEX_INITIALIZER;
TaskListFn g_taskFn = nullptr;
void* g_taskCtx = nullptr;

}  // namespace

// ---- system paths ---------------------------------------------------------------------

const char* root() { return current_root(); }

void reload_root() {
    current_root();  // the first load must not run after this one
    load_root();
}

bool real_path(const char* sysPath, char* out, std::size_t n) {
    if (sysPath == nullptr || out == nullptr || n == 0) return false;
    const char* r = (sysPath[0] == '/') ? current_root() : "";
    std::size_t rl = std::strlen(r);
    std::size_t pl = std::strlen(sysPath);
    if (rl + pl + 1 > n) return false;
    std::memcpy(out, r, rl);
    std::memcpy(out + rl, sysPath, pl + 1);
    return true;
}

// ---- devices ------------------------------------------------------------------

int open_device(const char* sysPath, int flags) {
    char path[PATH_MAX];
    if (!real_path(sysPath, path, sizeof(path))) {
        errno = sysPath == nullptr ? EFAULT : ENAMETOOLONG;
        return -1;
    }
    int fd;
    do {
        fd = ::open(path, flags | O_LARGEFILE, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd >= 0) {
        remember_disk(fd, disk_of_path(sysPath));
        struct stat st;
        const int saved = errno;
        if (::fstat(fd, &st) == 0) remember_kind(fd, S_ISBLK(st.st_mode) ? kKindBlockDevice : kKindOther);
        errno = saved;
    }
    return fd;
}

int disk_of(int fd) { return disk_of_fd(fd); }

int dup_device(int fd) {
    const int copy = ::dup(fd);
    if (copy >= 0) {
        remember_disk(copy, disk_of_fd(fd));
        remember_kind(copy, fd >= 0 && fd < kFdSlots ? FdKind(g_fdKind[fd].load(std::memory_order_relaxed))
                                                     : kKindUnknown);
    }
    return copy;
}

int close_fd(int fd) {
    remember_disk(fd, -1);
    remember_kind(fd, kKindUnknown);
    return ::close(fd);
}

int64_t seek(int fd, uint64_t offset) {
    if (offset > static_cast<uint64_t>(INT64_MAX)) {
        errno = EINVAL;
        return -1;
    }
    return ::lseek(fd, static_cast<off_t>(offset), SEEK_SET);
}

namespace {

// A transfer an armed fault hit: fails with the fault's errno, or moves only
// v.move bytes through `partial` (which gets that count).
template <class Partial>
ssize_t faulted(const Verdict& v, Partial partial) {
    if (v.error != 0) {
        errno = v.error;
        return -1;
    }
    return v.move == 0 ? 0 : partial(v.move);
}

}  // namespace

// The three transfer kinds each pass one point where an armed fault can take
// them: pread, pwrite and pwritev. The descriptor-position forms below are
// built on them.

ssize_t pread(int fd, void* buf, std::size_t len, uint64_t pos) {
    if (!valid_pos(pos)) return -1;
    if (armed()) {
        const Verdict v = judge(fd, kFaultRead, true, pos, len);
        if (v.hit) return faulted(v, [&](std::size_t n) { return raw_pread(fd, buf, n, off_t(pos)); });
    }
    return raw_pread(fd, buf, len, off_t(pos));
}

ssize_t pwrite(int fd, const void* buf, std::size_t len, uint64_t pos) {
    if (!valid_pos(pos)) return -1;
    if (armed()) {
        const Verdict v = judge(fd, kFaultWrite, true, pos, len);
        if (v.hit) return faulted(v, [&](std::size_t n) { return raw_pwrite(fd, buf, n, off_t(pos)); });
    }
    return raw_pwrite(fd, buf, len, off_t(pos));
}

ssize_t pwritev(int fd, const struct iovec* iov, int count, uint64_t pos) {
    if (!valid_pos(pos)) return -1;
    if (armed() && iov != nullptr && count > 0) {
        std::size_t total = 0;
        for (int i = 0; i < count; ++i) total += iov[i].iov_len;
        const Verdict v = judge(fd, kFaultWritev, true, pos, total);
        if (v.hit) {
            return faulted(v, [&](std::size_t left) {
                // The first bytes of the vector, in a trimmed copy (test
                // path only, so the allocation does not matter).
                std::vector<struct iovec> part;
                for (int i = 0; i < count && left > 0; ++i) {
                    struct iovec piece = iov[i];
                    if (piece.iov_len > left) piece.iov_len = left;
                    left -= piece.iov_len;
                    part.push_back(piece);
                }
                return raw_pwritev(fd, part.data(), static_cast<int>(part.size()), off_t(pos));
            });
        }
    }
    return raw_pwritev(fd, iov, count, off_t(pos));
}

namespace {

// A transfer at the descriptor's position through its positioned form, the
// position then moved past what it moved. A descriptor that cannot seek
// (no device of ours) goes to the system as it is, judged as a transfer of
// unknown position.
template <class Positioned, class Plain>
ssize_t at_position(int fd, unsigned op, std::size_t len, Positioned positioned, Plain plain) {
    const int saved = errno;
    const off_t cur = ::lseek(fd, 0, SEEK_CUR);
    if (cur < 0) {
        errno = saved;
        if (armed()) {
            const Verdict v = judge(fd, op, false, 0, len);
            if (v.hit && v.error != 0) {
                errno = v.error;
                return -1;
            }
            if (v.hit) len = v.move;
        }
        return plain(len);
    }
    errno = saved;
    const ssize_t n = positioned(static_cast<uint64_t>(cur));
    if (n > 0) ::lseek(fd, cur + n, SEEK_SET);
    return n;
}

}  // namespace

ssize_t read(int fd, void* buf, std::size_t len) {
    return at_position(
        fd, kFaultRead, len, [&](uint64_t pos) { return pread(fd, buf, len, pos); },
        [&](std::size_t n) { return n == 0 && len != 0 ? ssize_t(0) : ::read(fd, buf, n); });
}

ssize_t write(int fd, const void* buf, std::size_t len) {
    return at_position(
        fd, kFaultWrite, len, [&](uint64_t pos) { return pwrite(fd, buf, len, pos); },
        [&](std::size_t n) { return n == 0 && len != 0 ? ssize_t(0) : ::write(fd, buf, n); });
}

ssize_t writev(int fd, const struct iovec* iov, int count) {
    std::size_t total = 0;
    for (int i = 0; iov != nullptr && i < count; ++i) total += iov[i].iov_len;
    return at_position(
        fd, kFaultWritev, total, [&](uint64_t pos) { return pwritev(fd, iov, count, pos); },
        [&](std::size_t) { return ::writev(fd, iov, count); });
}

int flush(int fd) {
    if (::fdatasync(fd) != 0) return -1;
    // Only a hint: recordings are not read back soon, so the pages would
    // just crowd out the application's memory.
    (void)::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    return 0;
}

int64_t device_size_of(int fd) {
    struct stat st;
    if (::fstat(fd, &st) != 0) return -1;
    if (S_ISREG(st.st_mode)) return st.st_size;
    uint64_t bytes = 0;
    unsigned long sectors = 0;
    if (::ioctl(fd, BLKGETSIZE64, &bytes) == 0) return static_cast<int64_t>(bytes);
    if (::ioctl(fd, BLKGETSIZE, &sectors) == 0) return static_cast<int64_t>(sectors) * 512;
    return 0;
}

int64_t device_size(const char* sysPath) {
    int fd = open_device(sysPath, O_RDONLY);
    if (fd < 0) return -1;
    int64_t size = device_size_of(fd);
    if (size < 0) size = 0;
    close_fd(fd);
    return size;
}

bool memory_readable(const void* p, std::size_t len) {
    if (len == 0) return true;
    // The kernel copies from our own address space and reports EFAULT
    // instead of faulting: a probe that cannot crash.
    char sink[64];
    std::size_t n = len < sizeof sink ? len : sizeof sink;
    struct iovec local{sink, n};
    struct iovec remote{const_cast<void*>(p), n};
    const int saved = errno;
    bool fault = false;
    if (::process_vm_readv(::getpid(), &local, 1, &remote, 1, 0) < 0) {
        fault = errno == EFAULT;
        // Where that call is refused or not there (EPERM under a strict
        // sandbox, ENOSYS under a user-mode emulator), a write of the first
        // byte into a pipe of our own asks the same question.
        int fds[2];
        if (!fault && ::pipe2(fds, O_CLOEXEC | O_NONBLOCK) == 0) {
            fault = ::write(fds[1], p, 1) < 0 && errno == EFAULT;
            ::close(fds[0]);
            ::close(fds[1]);
        }
    }
    errno = saved;
    // A probe that cannot be made proves nothing: the memory then counts
    // as readable.
    return !fault;
}

bool device_present(int fd) {
    if (armed() && judge(fd, kFaultOffline, false, 0, 0).hit) return false;
    FdKind kind = kind_of_fd(fd);
    if (kind == kKindUnknown) {
        struct stat st;
        if (::fstat(fd, &st) != 0) return false;
        kind = S_ISBLK(st.st_mode) ? kKindBlockDevice : kKindOther;
    }
    // Image files, character devices and the like have no presence request.
    if (kind == kKindOther) return true;
    int32_t state = 0;
    if (::ioctl(fd, kPresenceRequest, &state) == 0) return state == 1;
    return errno == ENOTTY || errno == EINVAL;
}

// ---- key files and System V keys ---------------------------------------------------

int ftok(const char* sysPath, int projId) {
    char path[PATH_MAX];
    if (!real_path(sysPath, path, sizeof(path))) {
        errno = sysPath == nullptr ? EFAULT : ENAMETOOLONG;
        return -1;
    }
    return static_cast<int>(::ftok(path, projId));
}

int create_key_file(const char* sysPath) {
    char path[PATH_MAX];
    if (!real_path(sysPath, path, sizeof(path))) {
        errno = sysPath == nullptr ? EFAULT : ENAMETOOLONG;
        return -1;
    }
    int fd;
    do {
        fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC, 0777);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) return -1;
    ::close(fd);
    return 0;
}

int make_dirs(const char* sysPath) {
    char path[PATH_MAX];
    if (!real_path(sysPath, path, sizeof(path))) {
        errno = sysPath == nullptr ? EFAULT : ENAMETOOLONG;
        return -1;
    }
    // Create each prefix in turn; an existing one is fine.
    std::size_t len = std::strlen(path);
    for (std::size_t i = 1; i <= len; ++i) {
        if (path[i] != '/' && path[i] != '\0') continue;
        char c = path[i];
        path[i] = '\0';
        if (::mkdir(path, 0777) != 0 && errno != EEXIST) return -1;
        path[i] = c;
    }
    return dir_exists(sysPath) ? 0 : -1;
}

bool dir_exists(const char* sysPath) {
    char path[PATH_MAX];
    if (!real_path(sysPath, path, sizeof(path))) return false;
    struct stat st;
    return ::stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

// ---- task device ---------------------------------------------------------------------

int open_task_device() {
    pthread_mutex_lock(&g_taskMutex);
    bool pseudo = g_taskFn != nullptr;
    pthread_mutex_unlock(&g_taskMutex);
    if (pseudo) return kTaskPseudoFd;
    char path[PATH_MAX];
    if (!real_path("/dev/qvfs_task", path, sizeof(path))) {
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd;
    do {
        fd = ::open(path, O_RDWR | O_NONBLOCK | O_LARGEFILE);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

int task_list(int fd, void* list84) {
    if (list84 == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (fd == kTaskPseudoFd) {
        pthread_mutex_lock(&g_taskMutex);
        TaskListFn fn = g_taskFn;
        void* ctx = g_taskCtx;
        pthread_mutex_unlock(&g_taskMutex);
        if (fn == nullptr) {
            errno = EBADF;
            return -1;
        }
        return fn(list84, ctx) == 0 ? 0 : -1;
    }
    return ::ioctl(fd, kTaskListRequest, list84) == 0 ? 0 : -1;
}

void set_task_source(TaskListFn fn, void* ctx) {
    pthread_mutex_lock(&g_taskMutex);
    g_taskFn = fn;
    g_taskCtx = ctx;
    pthread_mutex_unlock(&g_taskMutex);
}

// ---- fault injection ---------------------------------------------------------------------

int fault_add(const Fault& f) {
    pthread_mutex_lock(&g_faultMutex);
    int id = -1;
    for (FaultSlot& s : g_faults) {
        if (s.id != 0) continue;
        s.id = g_nextFaultId++;
        s.f = f;
        id = s.id;
        break;
    }
    if (id > 0) g_armed.store(true, std::memory_order_relaxed);
    pthread_mutex_unlock(&g_faultMutex);
    if (id < 0) errno = ENOSPC;
    return id;
}

void fault_clear(int id) {
    pthread_mutex_lock(&g_faultMutex);
    bool any = false;
    for (FaultSlot& s : g_faults) {
        if (id == -1 || s.id == id) s.id = 0;
        any = any || s.id != 0;
    }
    if (id == -1) g_faultHits = 0;
    g_armed.store(any, std::memory_order_relaxed);
    pthread_mutex_unlock(&g_faultMutex);
}

bool faults_armed() { return armed(); }

long fault_hits() {
    pthread_mutex_lock(&g_faultMutex);
    long n = g_faultHits;
    pthread_mutex_unlock(&g_faultMutex);
    return n;
}

}  // namespace qvfs::plat
