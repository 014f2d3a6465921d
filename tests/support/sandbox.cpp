// sandbox.cpp - private roots, sparse disk images and key hygiene for tests.
#include "support/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "common/keys.h"
#include "common/platform.h"

namespace qvfs::test {
namespace {

namespace fs = std::filesystem;
// Every project number the library uses on the layer key file: the owner
// list, the pool, the state segment, the named locks, the disk segments.
constexpr auto kLayerProjects = [] {
    std::array<int, Sandbox::kLayerKeys> p{kProjFileList, kProjShrPool, kProjState, kProjFileMutex,
                                  kProjBlkFileMutex, kProjBlkMutex, kProjTimerMutex};
    for (int d = 0; d < QVFS_MAX_DISKS; ++d) p[size_t(7 + d)] = kProjDiskSegment0 + d;
    return p;
}();
constexpr int kLockOffset = 0x10000;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("sandbox: " + what + ": " + std::strerror(errno));
}

std::string tmp_base() {
    const char* t = std::getenv("TMPDIR");
    std::string base = (t != nullptr && t[0] != '\0') ? t : "/tmp";
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    return base;
}

// EACCES means the object exists but is someone else's: in use all the same.
bool key_in_use(int key) {
    return ::shmget(key, 0, 0) >= 0 || errno == EACCES || ::semget(key, 0, 0) >= 0 || errno == EACCES;
}

int remove_key(int key) {
    int n = 0, id = ::shmget(key, 0, 0);
    if (id >= 0 && ::shmctl(id, IPC_RMID, nullptr) == 0) ++n;
    id = ::semget(key, 0, 0);
    if (id >= 0 && ::semctl(id, 0, IPC_RMID) == 0) ++n;
    return n;
}

// Serialises claiming and sweeping between sandboxes (flock; a dead holder's
// lock goes with it).
struct ClaimLock {
    int fd;
    explicit ClaimLock(const std::string& dir) : fd(::open((dir + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666)) {
        while (fd >= 0 && ::flock(fd, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~ClaimLock() {
        if (fd >= 0) ::close(fd);
    }
};

}  // namespace

Sandbox::Sandbox() : owner_(::getpid()) {
    const std::string base = tmp_base();
    std::string tmpl = base + "/qvfs-sbx-XXXXXX";
    if (::mkdtemp(tmpl.data()) == nullptr) fail("mkdtemp " + tmpl);
    root_ = tmpl;
    claimDir_ = base + "/qvfs-sbx-claims";
    if (::mkdir(claimDir_.c_str(), 01777) != 0 && errno != EEXIST) fail("mkdir " + claimDir_);
    if (const char* old = std::getenv("QVFS_ROOT")) hadRoot_ = true, oldRoot_ = old;
    ::setenv("QVFS_ROOT", root_.c_str(), 1);
    plat::reload_root();
    std::error_code ec;
    fs::create_directories(root_ + "/dvr/qvfs", ec);
    fs::create_directories(root_ + "/.spare", ec);

    ClaimLock lock(claimDir_);
    sweep_stale();
    shareKeys_.assign(kShareIndexes, -1);
    for (int n = 0, spare = 0; n <= kKeyFiles; ++n) {
        for (int attempt = 0; !claim(n); ++attempt) {
            // Park the rejected file so that its inode is not handed out again.
            const std::string parked = root_ + "/.spare/" + std::to_string(spare++);
            if (attempt == 255 || ::rename(key_file(n).c_str(), parked.c_str()) != 0) {
                for (const std::string& c : claims_) ::unlink(c.c_str());
                fs::remove_all(root_, ec);
                errno = EADDRINUSE;
                fail("no free keys for " + key_file(n));
            }
        }
    }
    for (int k : shareKeys_) keys_.insert(keys_.end(), {k, k + kLockOffset});
    keys_.insert(keys_.end(), layerKeys_, layerKeys_ + kLayerKeys);
}

Sandbox::~Sandbox() {
    if (::getpid() != owner_) return;
    remove_ipc();
    std::error_code ec;
    fs::remove_all(root_, ec);
    if (hadRoot_) {
        ::setenv("QVFS_ROOT", oldRoot_.c_str(), 1);
    } else {
        ::unsetenv("QVFS_ROOT");
    }
    plat::reload_root();
}

std::string Sandbox::key_file(int n) const {
    return root_ + (n == kKeyFiles ? std::string("/dvr/qvfs/qvfslayer") : "/dvr/qvfs/qvfs" + std::to_string(n));
}

// Creates key file n, claims its identities and computes its keys; false
// (claims given back) when an identity is claimed or a key is in use.
bool Sandbox::claim(int n) {
    const std::string path = key_file(n);
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0666);
    if (fd < 0) fail("create " + path);
    ::close(fd);
    const key_t k = ::ftok(path.c_str(), 1);
    if (k == -1) fail("ftok " + path);
    std::vector<std::string> mine;
    bool ok = true;
    for (int id : {int(k & 0xFFFFFF), int(k + kLockOffset)}) {
        char c[512];
        std::snprintf(c, sizeof c, "%s/%06x", claimDir_.c_str(), unsigned(id & 0xFFFFFF));
        const int cfd = ::open(c, O_WRONLY | O_CREAT | O_EXCL, 0666);
        if (cfd < 0) {
            ok = false;
            break;
        }
        const std::string text = std::to_string(::getpid()) + " " + root_ + "\n";
        ok = ::write(cfd, text.data(), text.size()) == ssize_t(text.size());
        ::close(cfd);
        mine.push_back(c);
        if (!ok) break;
    }
    if (ok && n == kKeyFiles) {
        for (int j = 0; j < kLayerKeys; ++j) ok = ok && !key_in_use(layerKeys_[j] = ::ftok(path.c_str(), kLayerProjects[size_t(j)]));
    } else if (ok) {
        for (int i = n * 126; ok && i < kShareIndexes && i < (n + 1) * 126; ++i) {
            shareKeys_[i] = ::ftok(path.c_str(), i % 126 + 1);
            ok = !key_in_use(shareKeys_[i]) && !key_in_use(shareKeys_[i] + kLockOffset);
        }
    }
    if (!ok) {
        for (const std::string& c : mine) ::unlink(c.c_str());
        return false;
    }
    claims_.insert(claims_.end(), mine.begin(), mine.end());
    return true;
}

void Sandbox::sweep_stale() {
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(claimDir_, ec)) {
        const std::string name = e.path().filename();
        long pid = 0;
        std::string oldRoot;
        if (name[0] == '.' || !(std::ifstream(e.path()) >> pid >> oldRoot) || pid <= 0) continue;
        if (::kill(pid_t(pid), 0) == 0 || errno != ESRCH) continue;
        // Its process died without tearing down: every project number of the
        // identity, and its tree.
        const int id = int(std::strtol(name.c_str(), nullptr, 16));
        for (int proj = 1; proj <= 126; ++proj) remove_key((proj << 24) | id);
        if (oldRoot.rfind(tmp_base() + "/qvfs-sbx-", 0) == 0 && oldRoot.find("/..") == std::string::npos)
            fs::remove_all(oldRoot, ec);
        ::unlink(e.path().c_str());
    }
}

int Sandbox::share_key(int index) const { return index >= 0 && index < kShareIndexes ? shareKeys_[index] : -1; }

int Sandbox::layer_key(int projId) const {
    const auto* p = std::find(kLayerProjects.begin(), kLayerProjects.end(), projId);
    return p == kLayerProjects.end() ? -1 : layerKeys_[p - kLayerProjects.begin()];
}

std::string Sandbox::device_path(int disk) {
    char buf[32];
    return std::snprintf(buf, sizeof buf, "/dev/scsi/host%02d/part1", disk), buf;
}

std::string Sandbox::real(const std::string& sysPath) const {
    return sysPath.empty() || sysPath[0] != '/' ? sysPath : root_ + sysPath;
}

std::string Sandbox::image_path(int disk) const { return real(device_path(disk)); }

std::string Sandbox::add_disk(int disk, uint64_t bytes) {
    const std::string img = image_path(disk);
    std::error_code ec;
    fs::create_directories(fs::path(img).parent_path(), ec);
    const int fd = ::open(img.c_str(), O_RDWR | O_CREAT, 0666);
    if (fd < 0 || ::ftruncate(fd, off_t(bytes)) != 0) fail("image " + img);
    ::close(fd);
    return device_path(disk);
}

void Sandbox::remove_disk(int disk) { ::unlink(image_path(disk).c_str()); }

int Sandbox::ipc_objects() const {
    int n = 0;
    for (int k : keys_) n += (::shmget(k, 0, 0) >= 0) + (::semget(k, 0, 0) >= 0);
    return n;
}

int Sandbox::remove_ipc() {
    int n = 0;
    for (int k : keys_) n += remove_key(k);
    return n;
}

}  // namespace qvfs::test
