// files.cpp - subcommands about recordings: ls, find, stat, cat, export,
// rm, lock and unlock.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "check.h"
#include "cli.h"
#include "output.h"

namespace qvfs::cli {

namespace {

struct Args {
    std::string disk;
    uint32_t block = 0;
    uint32_t channel = 0;
    std::string type, from, to;
    std::string name;
    std::string file;
    std::string start, end;
    int32_t recType = 0;
    std::string ext;
    bool force = false;
} a;

// Closes a descriptor with its scope.
struct FdCloser {
    int fd;
    ~FdCloser() { ::close(fd); }
};

Json file_json(const FileRow& f) {
    return Json{{"name", f.name},
                {"disk", f.disk},
                {"block", f.block},
                {"slice", f.slice},
                {"channel", f.channel},
                {"size", f.size},
                {"start", time_json(f.start)},
                {"start_epoch", f.start},
                {"end", time_json(f.end)},
                {"end_epoch", f.end},
                {"lock", lock_text(f.lock)},
                {"record_type", f.recType}};
}

Table file_table(bool withBlock) {
    std::vector<Table::Column> cols = {{"NAME"}};
    if (withBlock) cols.push_back({"BLOCK", true});
    for (Table::Column c : std::initializer_list<Table::Column>{
             {"SIZE", true}, {"START"}, {"END"}, {"LOCK"}, {"RECTYPE", true}})
        cols.push_back(c);
    return Table(cols);
}

void add_file(Table& t, const FileRow& f, bool withBlock) {
    std::vector<std::string> row = {f.name};
    if (withBlock) row.push_back(std::to_string(f.block));
    for (auto s : {size_text(f.size), time_text(f.start), time_text(f.end),
                   std::string(f.lock == 0 ? "-" : lock_text(f.lock)), std::to_string(f.recType)})
        row.push_back(s);
    t.add(row);
}

// ---- ls, find ----------------------------------------------------------------------

int cmd_ls() {
    const Disk d = parse_disk(a.disk);
    Mounted m(d);
    const uint32_t n = disk_blocks(d);
    if (a.block >= n)
        throw Failure(fmt::format("block {} is beyond the {} block{} of {}", a.block, n, n == 1 ? "" : "s",
                                  disk_label(d)));
    QvfsBlockStat bs{};
    errno = 0;
    if (qvfs_GetBlockStat(static_cast<uint32_t>(d.number), a.block, &bs) != 0)
        throw Failure(fmt::format("cannot read block {} of {}: {}", a.block, disk_label(d), lib_error(errno)));
    if (bs.state == 0) throw Failure(fmt::format("block {} of {} is not in use", a.block, disk_label(d)));
    const auto files = block_files(d, a.block);
    if (g.json) {
        Json list = Json::array();
        for (const auto& f : files) list.push_back(file_json(f));
        print_json(Json{{"disk", d.number}, {"block", a.block}, {"type", type_label(bs.dataType)}, {"files", list}});
    } else {
        Table t = file_table(false);
        for (const auto& f : files) add_file(t, f, false);
        t.print();
    }
    return kExitOk;
}

int cmd_find() {
    const Disk d = parse_disk(a.disk);
    const auto [type, from, to] = parse_window(a.type, a.from, a.to);
    Mounted m(d);

    // The disk's index names the channel's blocks that did not end before
    // the range (a block's end is the latest end of its files). Its start
    // is only its first file's, so the files are tested one by one.
    std::vector<TQvDiskBlkInfo> blocks(64);
    for (;;) {
        errno = 0;
        const int n = qvfs_FindBlocks(d.device.c_str(), a.channel, type ? *type : QVFS_ANY_BLK_TYPE,
                                      from ? *from : INT64_MIN, INT64_MAX, blocks.data(), int(blocks.size()));
        if (n < 0) throw Failure(fmt::format("cannot search the blocks of {}: {}", disk_label(d), lib_error(errno)));
        if (size_t(n) <= blocks.size()) {
            blocks.resize(size_t(n));
            break;
        }
        blocks.resize(size_t(n));  // grown meanwhile: ask again with room for all
    }
    std::vector<FileRow> hits;
    for (const TQvDiskBlkInfo& b : blocks) {
        for (const FileRow& f : block_files(d, b.blkId)) {
            if (f.channel != a.channel) continue;
            int64_t end = f.end < f.start ? f.start : f.end;
            if (from && end < *from) continue;
            if (to && f.start > *to) continue;
            hits.push_back(f);
        }
    }
    std::sort(hits.begin(), hits.end(), [](const FileRow& x, const FileRow& y) {
        return x.start != y.start ? x.start < y.start : x.name < y.name;
    });
    if (g.json) {
        Json list = Json::array();
        for (const auto& f : hits) list.push_back(file_json(f));
        print_json(Json{{"disk", d.number}, {"channel", a.channel}, {"files", list}});
    } else {
        Table t = file_table(true);
        for (const auto& f : hits) add_file(t, f, true);
        t.print();
    }
    return kExitOk;
}

// ---- stat ----------------------------------------------------------------------------

FileRow stat_file(const FileName& f) {
    TQvFileStat st{};
    errno = 0;
    if (qvfs_Stat(f.forLibrary.c_str(), &st) != 0)
        throw Failure(fmt::format("cannot open {} on {}: {}", f.name, disk_label(disk_of(f.disk)), lib_error(errno)));
    return file_row(st, f.disk);
}

int cmd_stat() {
    const FileName f = parse_name(a.name);
    Mounted m(disk_of(f.disk));
    const FileRow r = stat_file(f);
    std::string usr;
    for (uint8_t b : r.usrParam) usr += fmt::format("{:02x}", b);
    if (g.json) {
        Json j = file_json(r);
        j["device"] = disk_of(f.disk).device;
        j["user_param"] = usr;
        print_json(j);
        return kExitOk;
    }
    const auto line = [](const char* k, const std::string& v) { fmt::print("{:<12}{}\n", k, v); };
    line("name", r.name);
    line("disk", disk_label(disk_of(r.disk)));
    line("block", std::to_string(r.block));
    line("slice", std::to_string(r.slice));
    line("channel", std::to_string(r.channel));
    line("size", g.bytes ? std::to_string(r.size) : fmt::format("{} ({} bytes)", human_size(r.size), r.size));
    line("start", time_text(r.start));
    line("end", time_text(r.end));
    line("lock", lock_text(r.lock));
    line("record type", std::to_string(r.recType));
    line("user param", usr);
    return kExitOk;
}

// ---- cat, export -------------------------------------------------------------------------

// An open recording, closed with its scope.
class OpenFile {
public:
    explicit OpenFile(const FileName& f) : f_(f) {
        std::vector<char> path(f.forLibrary.begin(), f.forLibrary.end());
        path.push_back('\0');
        errno = 0;
        h_ = qvfs_Open(nullptr, path.data(), QVFS_O_RDONLY);
        if (h_ < 0)
            throw Failure(fmt::format("cannot open {} on {}: {}", f.name, disk_label(disk_of(f.disk)), lib_error(errno)));
    }
    ~OpenFile() { qvfs_Close(h_); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;

    uint64_t size() const {
        TQvFileStat st{};
        errno = 0;
        if (qvfs_fstat(h_, &st) != 0) throw Failure(fmt::format("cannot read the status of {}: {}", f_.name, lib_error(errno)));
        return static_cast<uint64_t>(st.st.st_size);
    }

    // Reads up to n bytes at the handle's position; throws on a failure.
    size_t read(void* buf, size_t n, uint64_t at) {
        errno = 0;
        const int r = qvfs_Read(h_, buf, static_cast<uint32_t>(n));
        if (r > 0) return static_cast<size_t>(r);
        const int why = qvfs_error(h_);
        if (why == 5)
            throw Failure(fmt::format("cannot read {} at byte {}: the disk failed or went offline", f_.name, at));
        throw Failure(fmt::format("cannot read {} at byte {}: {}", f_.name, at,
                                  errno != 0 ? lib_error(errno) : std::string("the file ended early")));
    }

private:
    FileName f_;
    int h_ = -1;
};

// Copies a recording to a descriptor; returns the bytes copied. A reader of
// standard output that went away ends the copy as SIGPIPE would.
uint64_t copy_out(OpenFile& in, int out, const std::string& outName, const std::string& label, bool bar) {
    const uint64_t size = in.size();
    std::vector<char> buf(1 << 20);
    uint64_t done = 0;
    std::optional<Progress> progress;
    if (bar) progress.emplace(label, size, "");
    while (done < size) {
        check_interrupted();
        const size_t want = static_cast<size_t>(std::min<uint64_t>(buf.size(), size - done));
        const size_t got = in.read(buf.data(), want, done);
        for (size_t off = 0; off < got;) {
            const ssize_t w = ::write(out, buf.data() + off, got - off);
            if (w < 0 && errno == EINTR) continue;
            if (w < 0 && errno == EPIPE) throw Failure("", kExitBrokenPipe);
            if (w < 0) throw Failure(fmt::format("cannot write {}: {}", outName, std::strerror(errno)));
            off += static_cast<size_t>(w);
        }
        done += got;
        if (progress) progress->update(done);
    }
    return done;
}

int cmd_cat() {
    const FileName f = parse_name(a.name);
    Mounted m(disk_of(f.disk));
    OpenFile in(f);
    copy_out(in, STDOUT_FILENO, "standard output", "", false);
    return kExitOk;
}

// A new file in the directory of `target`, removed again by the destructor
// unless it was moved into place: an export that fails or is interrupted
// leaves the target as it was.
class TempFile {
public:
    explicit TempFile(const std::string& target) {
        const size_t slash = target.rfind('/');
        path_ = target.substr(0, slash == std::string::npos ? 0 : slash + 1) + ".qvfs-export-XXXXXX";
        fd_ = ::mkostemp(path_.data(), O_CLOEXEC);
        if (fd_ < 0) throw Failure(fmt::format("cannot create {}: {}", target, std::strerror(errno)));
        // The mode a plain create would give.
        const mode_t mask = ::umask(0);
        ::umask(mask);
        ::fchmod(fd_, 0644 & ~mask);
    }
    ~TempFile() {
        if (fd_ >= 0) ::close(fd_);
        if (!path_.empty()) ::unlink(path_.c_str());
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    int fd() const { return fd_; }

    // Flushes and moves the file to target: over an existing one only when
    // `replace`, otherwise through a hard link, which refuses an existing
    // target however late it appeared.
    void commit(const std::string& target, bool replace) {
        const auto failed = [&](int e) {
            return Failure(fmt::format("cannot write {}: {}", target, std::strerror(e)));
        };
        if (::fsync(fd_) != 0 || ::close(fd_) != 0) {
            fd_ = -1;
            throw failed(errno);
        }
        fd_ = -1;
        if (replace ? ::rename(path_.c_str(), target.c_str()) != 0 : ::link(path_.c_str(), target.c_str()) != 0) {
            if (errno == EEXIST) throw exists(target);
            throw failed(errno);
        }
        if (!replace) ::unlink(path_.c_str());
        path_.clear();
    }

    static Failure exists(const std::string& target) {
        return Failure(fmt::format("cannot export to {}: it exists (--force replaces it)", target));
    }

private:
    std::string path_;
    int fd_ = -1;
};

int cmd_export() {
    const FileName f = parse_name(a.name);
    const std::string label = fmt::format("export {}", f.name);
    struct stat st;
    const bool exists = ::stat(a.file.c_str(), &st) == 0;
    // A device or a pipe is written into; a file is never replaced unasked.
    const bool stream = a.file == "-" || (exists && !S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode));
    if (exists && !stream && !a.force) throw TempFile::exists(a.file);
    Mounted m(disk_of(f.disk));
    OpenFile in(f);
    uint64_t n = 0;
    if (a.file == "-") {
        copy_out(in, STDOUT_FILENO, "standard output", label, true);
        return kExitOk;
    }
    if (stream) {
        const int out = ::open(a.file.c_str(), O_WRONLY | O_CLOEXEC);
        if (out < 0) throw Failure(fmt::format("cannot open {}: {}", a.file, std::strerror(errno)));
        const FdCloser closer{out};
        n = copy_out(in, out, a.file, label, true);
    } else {
        TempFile out(a.file);
        n = copy_out(in, out.fd(), a.file, label, true);
        out.commit(a.file, a.force);
    }
    if (g.json)
        print_json(Json{{"name", f.name}, {"file", a.file}, {"size", n}});
    else
        fmt::print("exported {} to {}: {}\n", f.name, a.file, size_text(n));
    return kExitOk;
}

// ---- rm, lock, unlock ----------------------------------------------------------------------

int cmd_rm() {
    const FileName f = parse_name(a.name);
    Mounted m(disk_of(f.disk));
    // Also a clear message for a file that does not exist.
    if (stat_file(f).lock == 1 && !a.force)
        throw Failure(fmt::format("cannot remove {}: the file is locked (--force removes it anyway)", f.name));
    errno = 0;
    if (qvfs_Unlink(f.forLibrary.c_str()) != 0) {
        // The refusal of a file that is open somewhere sets no library code
        // (it may leave a system call's stray errno behind); anything else
        // carries one.
        const int e = errno;
        const bool coded = e >= 1000 || e < 0;
        throw Failure(fmt::format("cannot remove {}: {}", f.name,
                                  coded ? lib_error(e) : std::string("the file is open in a process")));
    }
    if (!g.json) fmt::print("removed {}\n", f.name);
    else print_json(Json{{"name", f.name}, {"removed", true}});
    return kExitOk;
}

int set_lock(bool lock) {
    const FileName f = parse_name(a.name);
    Mounted m(disk_of(f.disk));
    const FileRow r = stat_file(f);
    // The block counts its locked files; only a real change of state may
    // move that count, so locking twice or unlocking a backup file is refused
    // or skipped here rather than passed on.
    if (r.lock == 2) throw Failure(fmt::format("cannot {} {}: it is a backup file", lock ? "lock" : "unlock", f.name));
    const uint32_t want = lock ? 1 : 0;
    bool changed = false;
    if (r.lock != want) {
        errno = 0;
        if (qvfs_Lock(f.forLibrary.c_str(), static_cast<int32_t>(want)) != 0)
            throw Failure(fmt::format("cannot {} {}: {}", lock ? "lock" : "unlock", f.name, lib_error(errno)));
        changed = true;
    }
    if (g.json)
        print_json(Json{{"name", f.name}, {"lock", lock_text(want)}, {"changed", changed}});
    else
        fmt::print("{} {}{}\n", f.name, changed ? "" : "is already ", lock ? "locked" : "unlocked");
    return kExitOk;
}

// ---- import ---------------------------------------------------------------------------------

// Records a file's bytes as a new recording: how a disk gets content to try
// the other subcommands on without a recorder.
int cmd_import() {
    const Disk d = parse_disk(a.disk);
    const uint32_t type = a.type.empty() ? 0 : parse_type(a.type);
    // A recording's times are signed 32-bit second counts on the disk.
    const auto disk_time = [](const std::string& text, const char* what) {
        const int64_t t = parse_time(text, what);
        if (t < 0 || t > INT32_MAX)
            usage_error(fmt::format("invalid {} '{}': a disk holds times from {} to {} (UTC)", what, text,
                                    "1970-01-01T00:00:00", "2038-01-19T03:14:07"));
        return t;
    };
    const int64_t start = a.start.empty() ? static_cast<int64_t>(::time(nullptr)) : disk_time(a.start, "--start time");
    std::optional<int64_t> end;
    if (!a.end.empty()) end = disk_time(a.end, "--end time");
    if (end && *end < start) usage_error("--end is earlier than --start");
    const std::string ext = !a.ext.empty() ? a.ext : (type == 1 || type == 3) ? "jpg" : "rvd";
    if (!valid_extension(ext) || ext.find('.') != std::string::npos)
        usage_error(fmt::format("invalid extension '{}': 1 to 7 printable characters, no '/' or '.'", printable(ext)));
    const int in = ::open(a.file.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) throw Failure(fmt::format("cannot open {}: {}", a.file, std::strerror(errno)));
    const FdCloser closer{in};
    struct stat st;
    if (fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) throw Failure(fmt::format("cannot import {}: not a regular file", a.file));
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    if (size >= block_size()) throw Failure(fmt::format("cannot import {}: a recording must fit in one block", a.file));

    Mounted m(d);
    TQvfsOpenParam p{};
    p.chn = a.channel;
    p.startTime = static_cast<int32_t>(start);
    p.fileType = static_cast<int32_t>(kTypes[type].fileCode);
    p.resSize = static_cast<int32_t>(size);  // lets the disk pick a block with room for it
    p.recType = a.recType;
    std::snprintf(p.path, sizeof p.path, "%s", d.device.c_str());
    std::snprintf(p.ext, sizeof p.ext, "%s", ext.c_str());
    char name[64] = {};
    errno = 0;
    const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
    if (h < 0)
        throw Failure(fmt::format("cannot create a recording of channel {} on {}: {}", a.channel, disk_label(d),
                                  lib_error(errno)));
    std::vector<char> buf(1 << 20);
    uint64_t done = 0;
    try {
        std::optional<Progress> bar;
        bar.emplace(fmt::format("import {}", a.file), size, "");
        while (done < size) {
            check_interrupted();
            const ssize_t n = ::read(in, buf.data(), buf.size());
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw Failure(fmt::format("cannot read {}: {}", a.file, std::strerror(errno)));
            if (n == 0) break;
            errno = 0;
            if (qvfs_Write(h, buf.data(), static_cast<uint32_t>(n)) != n) {
                const int why = qvfs_error(h);
                throw Failure(fmt::format("cannot write {} at byte {}: {}", name, done,
                                          why == 5 ? std::string("the disk failed or went offline") : lib_error(errno)));
            }
            done += static_cast<uint64_t>(n);
            bar->update(done);
        }
    } catch (...) {
        qvfs_Close(h);
        qvfs_Unlink(name);  // no half recording is left behind
        throw;
    }
    qvfs_Close(h);
    // The end time is the time of the last write unless one is given.
    if (end) {
        const TimeValue times[2] = {{static_cast<int32_t>(*end), 0}, {static_cast<int32_t>(*end), 0}};
        errno = 0;
        if (qvfs_ChangeTime(name, times) != 0)
            throw Failure(fmt::format("cannot set the end time of {}: {}", name, lib_error(errno)));
    }
    if (g.json)
        print_json(Json{{"name", name}, {"disk", d.number}, {"channel", a.channel}, {"type", type_label(type)},
                        {"size", done}});
    else
        fmt::print("{}\n", name);
    return kExitOk;
}

}  // namespace

void add_file_commands(CLI::App& app) {
    auto* imp = app.add_subcommand("import", "Record a file's bytes as a new recording; prints its name");
    imp->add_option("DISK", a.disk, "Disk number or device path")->required();
    imp->add_option("FILE", a.file, "File to record")->required();
    imp->add_option("--channel", a.channel, "Channel 0 to 1023")->required()->check(CLI::Range(0, 1023));
    imp->add_option("--type", a.type, "Data type (REC, IMG, BACK, PIC, FPD, ITS; default REC)");
    imp->add_option("--start", a.start, "Start time (default: now)")->type_name("TIME");
    imp->add_option("--end", a.end, "End time (default: the time of the last write)")->type_name("TIME");
    imp->add_option("--record-type", a.recType, "Record type chosen by the application (default 0)");
    imp->add_option("--ext", a.ext, "Name extension (default rvd, jpg for IMG and PIC)");
    imp->callback([] { set_action(cmd_import); });

    auto* ls = app.add_subcommand("ls", "The files of a block");
    ls->add_option("DISK", a.disk, "Disk number or device path")->required();
    ls->add_option("BLOCK", a.block, "Block number")->required();
    ls->callback([] { set_action(cmd_ls); });

    auto* find = app.add_subcommand("find", "The recordings of a channel across a disk, optionally in a time range");
    find->add_option("DISK", a.disk, "Disk number or device path")->required();
    find->add_option("--channel", a.channel, "Channel 0 to 1023")->required()->check(CLI::Range(0, 1023));
    find->add_option("--type", a.type, "Only this data type (REC, IMG, BACK, PIC, FPD, ITS)");
    find->add_option("--from", a.from, "Only recordings that end at or after this time")->type_name("TIME");
    find->add_option("--to", a.to, "Only recordings that start at or before this time")->type_name("TIME");
    find->callback([] { set_action(cmd_find); });

    const auto named = [&](const char* name, const char* what, int (*action)()) {
        auto* sub = app.add_subcommand(name, what);
        sub->add_option("NAME", a.name, "Recording name, e.g. H000000100018C3F0000C00.rvd")->required();
        sub->callback([action] { set_action(action); });
        return sub;
    };
    named("stat", "Status of a recording", cmd_stat);
    named("cat", "Write a recording's bytes to standard output", cmd_cat);
    auto* exp = named("export", "Copy a recording into a file", cmd_export);
    exp->add_option("FILE", a.file, "Target file ('-' for standard output)")->required();
    exp->add_flag("-f,--force", a.force, "Replace an existing file");
    named("rm", "Delete a recording", cmd_rm)->add_flag("-f,--force", a.force, "Delete also a locked recording");
    named("lock", "Lock a recording", [] { return set_lock(true); });
    named("unlock", "Unlock a recording", [] { return set_lock(false); });
}

}  // namespace qvfs::cli
