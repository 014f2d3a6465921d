// sandbox.cpp - private roots, sparse disk images and key hygiene for tests.

#include "support/sandbox.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "common/platform.h"

namespace qvfs::test {
namespace {

constexpr int kLayerProjects[6] = {65, 66, 97, 98, 99, 100};
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
    release_claims();
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

    // Claim the identity and the one the record locks reach by adding 0x10000.
    const int ids[2] = {id, (id + kLockOffset) & 0xFFFFFF};
    std::vector<std::string> mine;
    for (int want : ids) {
        char name[32];
        std::snprintf(name, sizeof name, "/%06x", static_cast<unsigned>(want));
        std::string c = claimDir_ + name;
        for (int tries = 0; tries < 2; ++tries) {
            int cfd = ::open(c.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
            if (cfd >= 0) {
                std::string pid = std::to_string(::getpid());
                if (::write(cfd, pid.data(), pid.size()) < 0) { /* the claim stands without it */ }
                ::close(cfd);
                mine.push_back(c);
                break;
            }
            if (errno != EEXIST) fail("claim " + c);
            // Taken: steal it only from a process that is gone.
            char text[32] = {};
            int rfd = ::open(c.c_str(), O_RDONLY);
            if (rfd >= 0) {
                ssize_t got = ::read(rfd, text, sizeof text - 1);
                (void)got;
                ::close(rfd);
            }
            pid_t holder = static_cast<pid_t>(std::atoll(text));
            if (holder == ::getpid() || pid_alive(holder) || tries > 0) {
                for (const std::string& m : mine) ::unlink(m.c_str());
                *why = "identity " + c + " claimed by " + std::to_string(holder);
                return false;
            }
            ::unlink(c.c_str());
        }
    }
    claims_.insert(claims_.end(), mine.begin(), mine.end());
    return true;
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
                compute_keys();
                if (!keys_in_use(n)) break;
                why = "a key of " + key_file(n) + " is in use";
            }
            // Park the rejected file so that its inode is not handed out
            // again to the next attempt.
            std::string spare = root_ + "/.spare/" + std::to_string(spare_++);
            if (::rename(key_file(n).c_str(), spare.c_str()) != 0) fail("rename " + key_file(n));
        }
    }
    compute_keys();
    keys_.clear();
    for (int k : shareKeys_) {
        keys_.push_back(k);
        keys_.push_back(k + kLockOffset);
    }
    for (int k : layerKeys_) keys_.push_back(k);
}

void Sandbox::compute_keys() {
    for (int i = 0; i < kShareIndexes; ++i) {
        std::string f = key_file(i / 126);
        shareKeys_[i] = static_cast<int>(::ftok(f.c_str(), i % 126 + 1));
    }
    for (int j = 0; j < 6; ++j) {
        layerKeys_[j] = static_cast<int>(::ftok(key_file(kKeyFiles).c_str(), kLayerProjects[j]));
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
    for (int j = 0; j < 6; ++j) {
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
