// view.cpp - the mount-view subcommand: a read-only FUSE file system that
// shows the recordings of disks as ordinary files,
//
//   DIR/disk0/ch001/2024-03-01T10-00-00_H00000000001846A0000C00.rvd
//
// (disk, channel, the recording's start in local time, its name). Every
// size and time comes from the file's status at the moment it is asked for,
// and reads bypass the kernel's page cache, so a recording that is being
// written grows in the view as it grows on disk. Nothing can be written.
//
// The view uses only the library's public calls. It serves one request at a
// time (fuse_loop), so no state here is shared between threads.
#define FUSE_USE_VERSION 31

#include <fuse.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "cli.h"

namespace qvfs::cli {

namespace {

struct Args {
    std::string dir;
    std::vector<std::string> disks;
    bool foreground = false;
    bool allowOther = false;
} a;

// The directory tree of one disk: channel -> file names in the view.
struct ViewDisk {
    Disk disk;
    std::unique_ptr<Mounted> mount;
    std::map<uint32_t, std::map<std::string, std::string>> channels;  // view name -> recording name
    std::chrono::steady_clock::time_point listed{};
    bool valid = false;
};

std::vector<ViewDisk> g_disks;
time_t g_mountTime = 0;

// Listings are rebuilt at most once a second: new recordings appear within
// a second, while `ls -l` of a channel does not walk the disk once per entry.
constexpr auto kListingAge = std::chrono::seconds(1);

std::string stamp(int64_t t) {
    const time_t tt = static_cast<time_t>(t);
    struct tm tm {};
    localtime_r(&tt, &tm);
    char buf[32];
    return strftime(buf, sizeof buf, "%Y-%m-%dT%H-%M-%S", &tm) != 0 ? buf : "0000-00-00T00-00-00";
}

std::string view_name(const FileRow& f) { return stamp(f.start) + "_" + f.name; }

int refresh(ViewDisk& v) {
    const auto now = std::chrono::steady_clock::now();
    if (v.valid && now - v.listed < kListingAge) return 0;
    try {
        v.channels.clear();
        for (const BlockRow& b : used_blocks(v.disk))
            for (const FileRow& f : block_files(v.disk, b.block)) v.channels[f.channel][view_name(f)] = f.name;
    } catch (const std::exception&) {  // nothing may leave a FUSE callback
        v.valid = false;
        return -EIO;
    }
    v.valid = true;
    v.listed = now;
    return 0;
}

// A path split into its parts: disk, channel and file, as far as present.
struct Where {
    ViewDisk* disk = nullptr;
    std::optional<uint32_t> channel;
    std::string file;  // the view's file name
};

// Resolves a path; a negative errno when nothing is there.
int resolve(const char* path, Where* w) {
    std::vector<std::string> parts;
    for (const char* p = path; *p != '\0';) {
        while (*p == '/') ++p;
        const char* e = std::strchr(p, '/');
        const size_t n = e != nullptr ? size_t(e - p) : std::strlen(p);
        if (n > 0) parts.emplace_back(p, n);
        p += n;
    }
    if (parts.empty()) return 0;
    if (parts.size() > 3) return -ENOENT;
    for (ViewDisk& v : g_disks)
        if (parts[0] == "disk" + std::to_string(v.disk.number)) w->disk = &v;
    if (w->disk == nullptr) return -ENOENT;
    if (parts.size() == 1) return 0;
    const std::string& ch = parts[1];
    if (ch.size() < 5 || ch.size() > 6 || ch.compare(0, 2, "ch") != 0 ||
        ch.find_first_not_of("0123456789", 2) != std::string::npos)
        return -ENOENT;
    w->channel = static_cast<uint32_t>(std::stoul(ch.substr(2)));
    if (ch != fmt::format("ch{:03}", *w->channel)) return -ENOENT;
    if (parts.size() == 3) w->file = parts[2];
    if (const int r = refresh(*w->disk); r != 0) return r;
    const auto it = w->disk->channels.find(*w->channel);
    if (it == w->disk->channels.end()) return -ENOENT;
    if (!w->file.empty() && it->second.count(w->file) == 0) return -ENOENT;
    return 0;
}

// The library's name of a file of the view (device path and recording
// name, so that it opens on that disk).
std::string library_name(const Where& w) {
    return w.disk->disk.device + "/" + w.disk->channels[*w.channel][w.file];
}

void dir_stat(struct stat* st) {
    st->st_mode = S_IFDIR | 0555;
    st->st_nlink = 2;
    st->st_uid = getuid();
    st->st_gid = getgid();
    st->st_mtime = st->st_ctime = st->st_atime = g_mountTime;
}

// ---- operations ---------------------------------------------------------------------

void* op_init(struct fuse_conn_info*, struct fuse_config* cfg) {
    // Nothing is cached by the kernel: every stat and read asks again.
    cfg->entry_timeout = 0;
    cfg->attr_timeout = 0;
    cfg->negative_timeout = 0;
    cfg->direct_io = 1;
    cfg->kernel_cache = 0;
    return nullptr;
}

int op_getattr(const char* path, struct stat* st, struct fuse_file_info*) {
    Where w;
    if (const int r = resolve(path, &w); r != 0) return r;
    std::memset(st, 0, sizeof *st);
    dir_stat(st);
    if (w.file.empty()) return 0;
    // The file's status now: its size grows while it is recorded.
    TQvFileStat fs{};
    if (qvfs_Stat(library_name(w).c_str(), &fs) != 0) {
        w.disk->valid = false;  // deleted since the listing
        return -ENOENT;
    }
    const FileRow f = file_row(fs, w.disk->disk.number);
    st->st_mode = S_IFREG | 0444;
    st->st_nlink = 1;
    st->st_size = static_cast<off_t>(f.size);
    st->st_blocks = static_cast<blkcnt_t>((f.size + 511) / 512);
    st->st_mtime = st->st_ctime = st->st_atime = static_cast<time_t>(std::max(f.end, f.start));
    return 0;
}

int op_readdir(const char* path, void* buf, fuse_fill_dir_t fill, off_t, struct fuse_file_info*,
               enum fuse_readdir_flags) {
    Where w;
    if (const int r = resolve(path, &w); r != 0) return r;
    if (!w.file.empty()) return -ENOTDIR;
    fill(buf, ".", nullptr, 0, fuse_fill_dir_flags(0));
    fill(buf, "..", nullptr, 0, fuse_fill_dir_flags(0));
    if (w.disk == nullptr) {
        for (const ViewDisk& v : g_disks)
            fill(buf, ("disk" + std::to_string(v.disk.number)).c_str(), nullptr, 0, fuse_fill_dir_flags(0));
    } else if (!w.channel) {
        if (const int r = refresh(*w.disk); r != 0) return r;
        for (const auto& [chn, files] : w.disk->channels)
            fill(buf, fmt::format("ch{:03}", chn).c_str(), nullptr, 0, fuse_fill_dir_flags(0));
    } else {
        for (const auto& [name, rec] : w.disk->channels[*w.channel])
            fill(buf, name.c_str(), nullptr, 0, fuse_fill_dir_flags(0));
    }
    return 0;
}

int op_open(const char* path, struct fuse_file_info* fi) {
    if ((fi->flags & O_ACCMODE) != O_RDONLY || (fi->flags & O_TRUNC) != 0) return -EROFS;
    Where w;
    if (const int r = resolve(path, &w); r != 0) return r;
    if (w.file.empty()) return -EISDIR;
    std::string name = library_name(w);
    const int h = qvfs_Open(nullptr, name.data(), QVFS_O_RDONLY);
    if (h < 0) {
        w.disk->valid = false;
        return -ENOENT;
    }
    fi->fh = static_cast<uint64_t>(h);
    fi->direct_io = 1;
    fi->keep_cache = 0;
    return 0;
}

int op_read(const char*, char* buf, size_t size, off_t off, struct fuse_file_info* fi) {
    const int h = static_cast<int>(fi->fh);
    TQvFileStat st{};
    if (qvfs_fstat(h, &st) != 0) return -EIO;
    const int64_t end = static_cast<int64_t>(st.st.st_size);
    if (off < 0 || off >= end) return 0;
    size = static_cast<size_t>(std::min<int64_t>(static_cast<int64_t>(size), end - off));
    if (qvfs_Seek(h, off, 0) != off) return -EIO;
    size_t done = 0;
    while (done < size) {
        const int n = qvfs_Read(h, buf + done, static_cast<uint32_t>(size - done));
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    return done > 0 || size == 0 ? static_cast<int>(done) : -EIO;
}

int op_release(const char*, struct fuse_file_info* fi) {
    qvfs_Close(static_cast<int>(fi->fh));
    return 0;
}

// Every call that would change something.
int refuse_path(const char*) { return -EROFS; }
int refuse_mode(const char*, mode_t) { return -EROFS; }
int refuse_two(const char*, const char*) { return -EROFS; }

struct fuse_operations operations() {
    struct fuse_operations ops {};
    ops.init = op_init;
    ops.getattr = op_getattr;
    ops.readdir = op_readdir;
    ops.open = op_open;
    ops.read = op_read;
    ops.release = op_release;
    ops.mkdir = refuse_mode;
    ops.unlink = refuse_path;
    ops.rmdir = refuse_path;
    ops.symlink = refuse_two;
    ops.link = refuse_two;
    ops.rename = [](const char*, const char*, unsigned int) { return -EROFS; };
    ops.chmod = [](const char*, mode_t, struct fuse_file_info*) { return -EROFS; };
    ops.chown = [](const char*, uid_t, gid_t, struct fuse_file_info*) { return -EROFS; };
    ops.truncate = [](const char*, off_t, struct fuse_file_info*) { return -EROFS; };
    ops.write = [](const char*, const char*, size_t, off_t, struct fuse_file_info*) { return -EROFS; };
    ops.create = [](const char*, mode_t, struct fuse_file_info*) { return -EROFS; };
    ops.mknod = [](const char*, mode_t, dev_t) { return -EROFS; };
    ops.utimens = [](const char*, const struct timespec*, struct fuse_file_info*) { return -EROFS; };
    ops.setxattr = [](const char*, const char*, const char*, size_t, int) { return -EROFS; };
    ops.removexattr = [](const char*, const char*) { return -EROFS; };
    ops.fallocate = [](const char*, int, off_t, off_t, struct fuse_file_info*) { return -EROFS; };
    return ops;
}

// ---- the command ----------------------------------------------------------------------

// Runs the file system until it is unmounted (fusermount3 -u DIR) or the
// process gets SIGINT, SIGTERM or SIGHUP. `ready` is called once the view is
// mounted.
int serve(const std::string& dir, const std::function<void()>& ready) {
    std::vector<Disk> disks;
    for (const std::string& s : a.disks) disks.push_back(parse_disk(s));
    const bool all = disks.empty();
    if (all) disks = present_disks();
    for (const Disk& d : disks) {
        ViewDisk v;
        v.disk = d;
        try {
            v.mount = std::make_unique<Mounted>(d);
        } catch (const Failure& f) {
            if (!all || f.code == kExitInterrupted) throw;
            continue;  // a device that holds no qvfs disk is left out
        }
        g_disks.push_back(std::move(v));
    }
    if (g_disks.empty()) throw Failure("no mountable disk to show (give DISK arguments, or --root)");
    g_mountTime = time(nullptr);

    std::string opts = "ro,default_permissions,fsname=qvfs,subtype=qvfs";
    if (a.allowOther) opts += ",allow_other";
    const char* argv[] = {"qvfs", "-o", opts.c_str()};
    struct fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(argv));
    const struct fuse_operations ops = operations();
    struct fuse* fuse = fuse_new(&args, &ops, sizeof ops, nullptr);
    fuse_opt_free_args(&args);
    if (fuse == nullptr) throw Failure("cannot start the FUSE file system");
    if (fuse_mount(fuse, dir.c_str()) != 0) {
        fuse_destroy(fuse);
        throw Failure(fmt::format("cannot mount the view on {} (is fusermount3 installed and /dev/fuse usable?)", dir));
    }
    // FUSE ends its loop on these signals only when they have their default
    // handlers; the tool's own handlers would keep the view mounted.
    for (int sig : {SIGINT, SIGTERM, SIGHUP}) signal(sig, SIG_DFL);
    fuse_set_signal_handlers(fuse_get_session(fuse));
    ready();
    const int r = fuse_loop(fuse);
    fuse_remove_signal_handlers(fuse_get_session(fuse));
    fuse_unmount(fuse);
    fuse_destroy(fuse);
    g_disks.clear();  // the disks are unmounted before the library goes
    // fuse_loop: 0 after an unmount, the signal's number after a signal.
    return r >= 0 ? kExitOk : kExitFailed;
}

int cmd_view() {
    char real[PATH_MAX];
    struct stat st;
    if (realpath(a.dir.c_str(), real) == nullptr || ::stat(real, &st) != 0 || !S_ISDIR(st.st_mode))
        throw Failure(fmt::format("mount point '{}' is not a directory", a.dir));
    const std::string dir = real;
    if (a.foreground) return serve(dir, [] {});

    // In the background: a child serves the view. The library is started
    // in the child (its threads do not survive a fork), which reports
    // failures on this terminal until it is mounted; the parent waits for
    // that moment and returns the child's verdict.
    int pipefd[2];
    if (pipe(pipefd) != 0) throw Failure(fmt::format("cannot start the view: {}", std::strerror(errno)));
    const pid_t pid = fork();
    if (pid < 0) throw Failure(fmt::format("cannot start the view: {}", std::strerror(errno)));
    if (pid > 0) {
        close(pipefd[1]);
        char ok = 0;
        const ssize_t n = read(pipefd[0], &ok, 1);
        close(pipefd[0]);
        if (n == 1) {
            fmt::print("{}: read-only view of the recordings (unmount with: fusermount3 -u {})\n", dir, dir);
            return kExitOk;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        throw Failure("", WIFEXITED(status) ? WEXITSTATUS(status) : kExitFailed);
    }
    close(pipefd[0]);
    setsid();
    return serve(dir, [&] {
        const int null = ::open("/dev/null", O_RDWR);
        if (null >= 0) {
            dup2(null, STDIN_FILENO);
            dup2(null, STDOUT_FILENO);
            dup2(null, STDERR_FILENO);
            if (null > STDERR_FILENO) close(null);
        }
        if (chdir("/") != 0) { /* the view does not need a working directory */ }
        const char ok = 1;
        if (write(pipefd[1], &ok, 1) != 1) { /* the parent went away: serve all the same */ }
        close(pipefd[1]);
    });
}

}  // namespace

void add_view_command(CLI::App& app) {
    auto* v = app.add_subcommand("mount-view", "Show the recordings as read-only files under DIR (FUSE)");
    v->add_option("DIR", a.dir, "Mount point (an existing directory)")->required();
    v->add_option("DISK", a.disks, "Disks to show (default: every disk under the root that mounts)");
    v->add_flag("-f,--foreground", a.foreground, "Stay in the foreground until the view is unmounted");
    v->add_flag("--allow-other", a.allowOther, "Let other users read the view (FUSE allow_other)");
    v->footer("Paths: DIR/disk0/ch001/2024-03-01T10-00-00_H00000000001846A0000C00.rvd (channel, start in local "
              "time, recording name). Unmount with fusermount3 -u DIR.");
    v->callback([] { set_action(cmd_view); });
}

}  // namespace qvfs::cli
