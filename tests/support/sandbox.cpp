// sandbox.cpp - private roots, sparse disk images and key hygiene for tests.

#include "support/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "common/platform.h"

namespace qvfs::test {
namespace {

// Every project number the library uses on the layer key file: the owner
// list, the pool, the state segment, the named locks, the disk segments.
constexpr int kLayerProjects[] = {65,  66,  67,  97,  98,  99,  100, 101, 102, 103, 104, 105, 106, 107, 108, 109,
                                  110, 111, 112, 113, 114, 115, 116, 117, 118, 119, 120, 121, 122, 123, 124, 125};
constexpr int kLayerKeyCount = sizeof kLayerProjects / sizeof kLayerProjects[0];
constexpr int kLockOffset = 0x10000;
constexpr int kMaxAttempts = 256;

std::string tmp_base() {
    const char* t = std::getenv("TMPDIR");
    std::string base = (t != nullptr && t[0] != '\0') ? t : "/tmp";
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    return base;
}

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error("sandbox: " + what + ": " + std::strerror(errno));
}

// The 24 bits ftok takes from a file (device and inode), or -1.
int identity(const std::string& path) {
    key_t k = ::ftok(path.c_str(), 1);
    return k == -1 ? -1 : static_cast<int>(k & 0xFFFFFF);
}

bool pid_alive(pid_t pid) { return pid > 0 && (::kill(pid, 0) == 0 || errno != ESRCH); }

std::string claim_name(int id) {
    char name[16];
    std::snprintf(name, sizeof name, "%06x", static_cast<unsigned>(id));
    return name;
}

// Serialises claiming, sweeping and releasing between sandboxes (flock on
// a file in the claim directory; a dead holder's lock goes with it).
class ClaimLock {
public:
    explicit ClaimLock(const std::string& dir) {
        std::string p = dir + "/.lock";
        fd_ = ::open(p.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd_ >= 0) {
            while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
        }
    }
    ~ClaimLock() {
        if (fd_ >= 0) ::close(fd_);  // releases the lock
    }
    ClaimLock(const ClaimLock&) = delete;
    ClaimLock& operator=(const ClaimLock&) = delete;

private:
    int fd_ = -1;
};

bool key_in_use(int key) {
    // EACCES means it exists but belongs to someone else: in use all the same.
    if (::shmget(key, 0, 0) >= 0 || errno == EACCES) return true;
    if (::semget(key, 0, 0) >= 0 || errno == EACCES) return true;
    return false;
}

}  // namespace

Sandbox::Sandbox() : owner_(::getpid()) {
    std::string base = tmp_base();
    std::string tmpl = base + "/qvfs-sbx-XXXXXX";
    std::vector<char> buf(tmpl.begin(), tmpl.end());
    buf.push_back('\0');
    if (::mkdtemp(buf.data()) == nullptr) fail("mkdtemp " + tmpl);
    root_ = buf.data();

    claimDir_ = base + "/qvfs-sbx-claims";
    if (::mkdir(claimDir_.c_str(), 01777) != 0 && errno != EEXIST) fail("mkdir " + claimDir_);

    const char* old = std::getenv("QVFS_ROOT");
    hadRoot_ = old != nullptr;
    if (hadRoot_) oldRoot_ = old;
    ::setenv("QVFS_ROOT", root_.c_str(), 1);
    plat::reload_root();

    std::error_code ec;
    std::filesystem::create_directories(root_ + "/dvr/qvfs", ec);
    std::filesystem::create_directories(root_ + "/.spare", ec);
    if (ec) {
        errno = ec.value();
        fail("mkdir " + root_ + "/dvr/qvfs");
    }
    ClaimLock lock(claimDir_);
    sweep_stale();
    try {
        make_key_files();
    } catch (...) {
        release_claims();
        std::filesystem::remove_all(root_, ec);
        throw;
    }
}

Sandbox::~Sandbox() {
    if (::getpid() != owner_) return;  // a forked child leaves the sandbox to its parent
    remove_ipc();
    // The claims stay until this process is gone: whatever it still creates
    // under its cached keys after this point (a library thread, a late call)
    // is removed by the first sandbox that finds the claims stale.
    claims_.clear();
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
    if (hadRoot_) {
        ::setenv("QVFS_ROOT", oldRoot_.c_str(), 1);
    } else {
        ::unsetenv("QVFS_ROOT");
    }
    plat::reload_root();
}

std::string Sandbox::key_file(int n) const {
    if (n == kKeyFiles) return root_ + "/dvr/qvfs/qvfslayer";
    return root_ + "/dvr/qvfs/qvfs" + std::to_string(n);
}

bool Sandbox::claim(int n, std::string* why) {
    std::string path = key_file(n);
    int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0777);
    if (fd < 0) fail("create " + path);
    ::close(fd);
    int id = identity(path);
    if (id < 0) fail("ftok " + path);

    // Claim the identity and the one the record locks reach by adding
    // 0x10000. The claim directory is locked and swept of dead owners, so a
    // claim that exists is a living sandbox's.
    const int ids[2] = {id, (id + kLockOffset) & 0xFFFFFF};
    std::vector<std::string> mine;
    for (int want : ids) {
        std::string c = claimDir_ + "/" + claim_name(want);
        int cfd = ::open(c.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
        if (cfd < 0) {
            if (errno != EEXIST) fail("claim " + c);
            for (const std::string& m : mine) ::unlink(m.c_str());
            *why = "identity " + claim_name(want) + " is claimed";
            return false;
        }
        std::string text = std::to_string(::getpid()) + " " + root_ + "\n";
        if (::write(cfd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            ::close(cfd);
            ::unlink(c.c_str());
            fail("write claim " + c);
        }
        ::close(cfd);
        mine.push_back(c);
    }
    claims_.insert(claims_.end(), mine.begin(), mine.end());
    return true;
}

void Sandbox::unclaim_last() {
    // claim() added exactly two.
    for (int i = 0; i < 2 && !claims_.empty(); ++i) {
        ::unlink(claims_.back().c_str());
        claims_.pop_back();
    }
}

void Sandbox::sweep_stale() {
    DIR* d = ::opendir(claimDir_.c_str());
    if (d == nullptr) return;
    std::vector<std::string> names;
    while (struct dirent* e = ::readdir(d)) {
        if (e->d_name[0] != '.') names.push_back(e->d_name);
    }
    ::closedir(d);
    for (const std::string& name : names) {
        std::string c = claimDir_ + "/" + name;
        char text[PATH_MAX + 32] = {};
        int fd = ::open(c.c_str(), O_RDONLY);
        if (fd < 0) continue;
        ssize_t got = ::read(fd, text, sizeof text - 1);
        ::close(fd);
        if (got <= 0) continue;
        char* rest = nullptr;
        long pid = std::strtol(text, &rest, 10);
        if (pid <= 0 || pid_alive(static_cast<pid_t>(pid))) continue;

        // Its process died without tearing down: remove what it may have
        // left under the identity (every project number), and its tree.
        int id = static_cast<int>(std::strtol(name.c_str(), nullptr, 16));
        for (int proj = 1; proj <= 126; ++proj) {  // every project number a key file serves
            int key = (proj << 24) | id;
            int shm = ::shmget(key, 0, 0);
            if (shm >= 0) ::shmctl(shm, IPC_RMID, nullptr);
            int sem = ::semget(key, 0, 0);
            if (sem >= 0) ::semctl(sem, 0, IPC_RMID);
        }
        std::string oldRoot = rest != nullptr ? rest : "";
        while (!oldRoot.empty() && (oldRoot.front() == ' ')) oldRoot.erase(0, 1);
        while (!oldRoot.empty() && (oldRoot.back() == '\n')) oldRoot.pop_back();
        std::string prefix = claimDir_.substr(0, claimDir_.rfind('/')) + "/qvfs-sbx-";
        if (oldRoot.rfind(prefix, 0) == 0 && oldRoot.find("/..") == std::string::npos) {
            std::error_code ec;
            std::filesystem::remove_all(oldRoot, ec);
        }
        ::unlink(c.c_str());
    }
}

bool Sandbox::keys_in_use(int n) const {
    auto busy = [](int key) { return key_in_use(key) || key_in_use(key + kLockOffset); };
    if (n == kKeyFiles) {
        for (int k : layerKeys_) {
            if (key_in_use(k)) return true;
        }
        return false;
    }
    for (int i = n * 126; i < kShareIndexes && i < (n + 1) * 126; ++i) {
        if (busy(shareKeys_[i])) return true;
    }
    return false;
}

void Sandbox::make_key_files() {
    shareKeys_.assign(kShareIndexes, -1);
    for (int n = 0; n <= kKeyFiles; ++n) {
        std::string why;
        int attempt = 0;
        for (;; ++attempt) {
            if (attempt == kMaxAttempts) {
                errno = EADDRINUSE;
                fail("no free keys for " + key_file(n) + " (" + why + ")");
            }
            bool ok = claim(n, &why);
            if (ok) {
                compute_keys(n);
                if (!keys_in_use(n)) break;
                why = "a key of " + key_file(n) + " is in use";
                // Not ours: a claim would make a later sweep remove the
                // objects that are using these keys.
                unclaim_last();
            }
            // Park the rejected file so that its inode is not handed out
            // again to the next attempt.
            std::string spare = root_ + "/.spare/" + std::to_string(spare_++);
            if (::rename(key_file(n).c_str(), spare.c_str()) != 0) fail("rename " + key_file(n));
        }
    }
    keys_.clear();
    for (int k : shareKeys_) {
        keys_.push_back(k);
        keys_.push_back(k + kLockOffset);
    }
    for (int k : layerKeys_) keys_.push_back(k);
}

void Sandbox::compute_keys(int n) {
    if (n == kKeyFiles) {
        for (int j = 0; j < kLayerKeyCount; ++j) {
            layerKeys_[j] = static_cast<int>(::ftok(key_file(n).c_str(), kLayerProjects[j]));
        }
        return;
    }
    std::string f = key_file(n);
    for (int i = n * 126; i < kShareIndexes && i < (n + 1) * 126; ++i) {
        shareKeys_[i] = static_cast<int>(::ftok(f.c_str(), i % 126 + 1));
    }
}

void Sandbox::release_claims() {
    for (const std::string& c : claims_) ::unlink(c.c_str());
    claims_.clear();
}

int Sandbox::share_key(int shareIndex) const {
    if (shareIndex < 0 || shareIndex >= kShareIndexes) return -1;
    return shareKeys_[shareIndex];
}

int Sandbox::layer_key(int projId) const {
    for (int j = 0; j < kLayerKeyCount; ++j) {
        if (kLayerProjects[j] == projId) return layerKeys_[j];
    }
    return -1;
}

std::string Sandbox::device_path(int disk) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "/dev/scsi/host%02d/part1", disk);
    return buf;
}

std::string Sandbox::real(const std::string& sysPath) const {
    return sysPath.empty() || sysPath[0] != '/' ? sysPath : root_ + sysPath;
}

std::string Sandbox::image_path(int disk) const { return real(device_path(disk)); }

std::string Sandbox::add_disk(int disk, uint64_t bytes) {
    std::string img = image_path(disk);
    std::error_code ec;
    std::filesystem::create_directories(std::filesystem::path(img).parent_path(), ec);
    if (ec) {
        errno = ec.value();
        fail("mkdir for " + img);
    }
    int fd = ::open(img.c_str(), O_RDWR | O_CREAT, 0666);
    if (fd < 0) fail("create " + img);
    if (::ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        int e = errno;
        ::close(fd);
        errno = e;
        fail("ftruncate " + img);
    }
    ::close(fd);
    return device_path(disk);
}

void Sandbox::remove_disk(int disk) { ::unlink(image_path(disk).c_str()); }

int Sandbox::ipc_objects() const {
    int n = 0;
    for (int k : keys_) {
        if (::shmget(k, 0, 0) >= 0) ++n;
        if (::semget(k, 0, 0) >= 0) ++n;
    }
    return n;
}

int Sandbox::remove_ipc() {
    int n = 0;
    for (int k : keys_) {
        int id = ::shmget(k, 0, 0);
        if (id >= 0 && ::shmctl(id, IPC_RMID, nullptr) == 0) ++n;
        id = ::semget(k, 0, 0);
        if (id >= 0 && ::semctl(id, 0, IPC_RMID) == 0) ++n;
    }
    return n;
}

}  // namespace qvfs::test
