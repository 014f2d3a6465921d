// session.cpp - arguments that name disks, types and files; the library
// session and mounts; the block and file listings.
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include <fmt/format.h>

#include "check.h"
#include "cli.h"
#include "output.h"

namespace qvfs::cli {

Globals g;
volatile std::sig_atomic_t g_interrupted = 0;

void usage_error(const std::string& what) { throw Failure(what, kExitUsage); }

// The cause the library named for the failure just seen, else the words of
// its code; the code itself stays in the message for scripts and reports.
std::string lib_error(int code, bool sameThread) {
    const int why = sameThread ? qvfs_LastReason() : QVFS_WHY_NONE;
    return fmt::format("{} ({})", qvfs_ErrorString(why != QVFS_WHY_NONE ? why : code), code);
}

void check_interrupted() {
    if (g_interrupted) throw Failure("interrupted", kExitInterrupted);
}

// ---- disks --------------------------------------------------------------------

Disk disk_of(int number) {
    return Disk{number, fmt::format("{}{:02}/part1", QVFS_DEV_PREFIX, number)};
}

Disk parse_disk(const std::string& arg) {
    const auto bad = [&]() -> Disk {
        usage_error(fmt::format("invalid disk '{}': expected a disk number 0 to 24 or a device path {}NN/part1", arg,
                                QVFS_DEV_PREFIX));
    };
    const auto number = [](const std::string& s, size_t from, size_t to) {
        if (from >= to || to - from > 2) return -1;
        int v = 0;
        for (size_t i = from; i < to; ++i) {
            if (!std::isdigit(static_cast<unsigned char>(s[i]))) return -1;
            v = v * 10 + (s[i] - '0');
        }
        return v;
    };
    int n = number(arg, 0, arg.size());
    if (n < 0) {
        // A device path, also the real path of one below the root.
        const std::string prefix = QVFS_DEV_PREFIX;
        const size_t at = arg.rfind(prefix);
        const std::string tail = "/part1";
        if (at == std::string::npos || arg.size() < tail.size() ||
            arg.compare(arg.size() - tail.size(), tail.size(), tail) != 0)
            return bad();
        n = number(arg, at + prefix.size(), arg.size() - tail.size());
    }
    if (n < 0 || n >= QVFS_MAX_DISKS) return bad();
    return disk_of(n);
}

std::string disk_label(const Disk& d) { return fmt::format("disk {} ({})", d.number, d.device); }

std::string real_device_path(const Disk& d) { return g.root.empty() ? d.device : g.root + d.device; }

std::vector<Disk> present_disks() {
    std::vector<Disk> out;
    for (int n = 0; n < QVFS_MAX_DISKS; ++n) {
        const Disk d = disk_of(n);
        struct stat st;
        if (::stat(real_device_path(d).c_str(), &st) == 0) out.push_back(d);
    }
    return out;
}

// ---- library session ------------------------------------------------------------

void start_library() {
    static bool started = false;
    if (started) return;
    errno = 0;
    if (qvfs_Init() != 0) throw Failure("cannot start the library: " + lib_error(errno));
    started = true;
}

namespace {

[[noreturn]] void mount_failed(const Disk& d, int code) {
    Failure f(fmt::format("cannot mount {}: {}", disk_label(d), lib_error(code)));
    f.libCode = code;
    throw f;
}

}  // namespace

Mounted::Mounted(const Disk& d) : disk_(d) {
    if (const int code = probe_format(real_device_path(d))) mount_failed(d, code);
    start_library();
    errno = 0;
    if (qvfs_Mount(d.device.c_str()) != 0) mount_failed(d, errno);
}

Mounted::~Mounted() { qvfs_UnMount(disk_.device.c_str()); }

// ---- data types ------------------------------------------------------------------

std::string type_label(uint32_t blockType) {
    for (const TypeInfo& t : kTypes)
        if (t.blockType == blockType) return t.label;
    return fmt::format("TYPE{}", blockType);
}

uint32_t parse_type(const std::string& arg) {
    std::string up(arg);
    std::transform(up.begin(), up.end(), up.begin(), [](unsigned char c) { return std::toupper(c); });
    for (const TypeInfo& t : kTypes)
        if (up == t.label || up == std::to_string(t.blockType)) return t.blockType;
    usage_error(fmt::format("invalid data type '{}': expected REC, IMG, BACK, PIC, FPD or ITS", arg));
}

Window parse_window(const std::string& type, const std::string& from, const std::string& to, bool span) {
    Window w;
    if (!type.empty()) w.type = parse_type(type);
    if (!from.empty()) w.from = parse_time(from, "--from time");
    if (!to.empty()) w.to = parse_time(to, "--to time");
    if (w.from && w.to) {
        if (span && *w.from >= *w.to) usage_error("--from must be earlier than --to");
        if (*w.from > *w.to) usage_error("--from is later than --to");
    }
    return w;
}

// ---- recording file names ------------------------------------------------------------

namespace {

// Value of a disk character of a name: '0'..'9' and 'a'..'z' (either case).
int digit_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'z') return c - 'a' + 10;
    if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
    return -1;
}

bool all_hex(const std::string& s, size_t from, size_t n) {
    for (size_t i = from; i < from + n; ++i)
        if (!std::isxdigit(static_cast<unsigned char>(s[i]))) return false;
    return true;
}

}  // namespace

bool valid_extension(const std::string& ext) {
    return !ext.empty() && ext.size() <= 7 && ext.find('/') == std::string::npos &&
           std::all_of(ext.begin(), ext.end(), [](unsigned char c) { return std::isgraph(c); });
}

FileName parse_name(const std::string& arg) {
    const auto bad = [&]() -> FileName {
        usage_error(fmt::format("invalid file name '{}': expected a recording name such as "
                                "H000000100018C3F0000C00.rvd",
                                printable(arg)));
    };
    const size_t slash = arg.rfind('/');
    FileName f;
    f.name = slash == std::string::npos ? arg : arg.substr(slash + 1);
    const std::string& s = f.name;
    // Stem: 'H', disk char, 6 hex block digits, 4 hex slice digits, 4-char
    // check code, "0000", kind letter, location and disk chars, '.'; then the
    // extension. Nothing in a name is a control character or a space.
    if (s.size() < 24 || s[0] != 'H' || s[23] != '.' || !all_hex(s, 2, 6) || !all_hex(s, 8, 4) ||
        s.compare(16, 4, "0000") != 0 || std::strchr("CLB", s[20]) == nullptr || s.find('.') != 23 ||
        !valid_extension(s.substr(24)) ||
        !std::all_of(s.begin(), s.end(), [](unsigned char c) { return std::isgraph(c); }))
        return bad();
    f.block = static_cast<uint32_t>(std::stoul(s.substr(2, 6), nullptr, 16));
    f.slice = static_cast<uint32_t>(std::stoul(s.substr(8, 4), nullptr, 16));

    // The disk as the library finds it: the device path's number when the
    // argument carries one, else location and disk characters before the dot.
    const std::string prefix = QVFS_DEV_PREFIX;
    const size_t at = arg.find(prefix);
    if (at != std::string::npos) {
        const Disk d = parse_disk(arg.substr(0, slash));
        f.disk = d.number;
        f.forLibrary = d.device + "/" + s;
    } else {
        const int loc = digit_value(s[21]), dig = digit_value(s[22]);
        if (loc < 0 || dig < 0) return bad();
        f.disk = loc * 24 + dig;
        f.forLibrary = s;
    }
    if (f.disk >= QVFS_MAX_DISKS || f.slice == 0) return bad();
    return f;
}

// ---- listings --------------------------------------------------------------------------

const char* lock_text(uint32_t lock) {
    switch (lock) {
        case 0: return "normal";
        case 1: return "locked";
        case 2: return "backup";
        default: return "unknown";
    }
}

const char* state_text(uint32_t state) {
    switch (state) {
        case 0: return "not allocated";
        case 1: return "current";
        case 2: return "full";
        default: return "unknown";
    }
}

FileRow file_row(const TQvFileStat& st, int disk) {
    FileRow r;
    std::string name(st.name, strnlen(st.name, sizeof st.name));
    // A file opened through its device path keeps that path in its status.
    const size_t slash = name.rfind('/');
    if (slash != std::string::npos) name.erase(0, slash + 1);
    r.disk = disk;
    if (name.size() >= 12) {
        r.block = static_cast<uint32_t>(std::strtoul(name.substr(2, 6).c_str(), nullptr, 16));
        r.slice = static_cast<uint32_t>(std::strtoul(name.substr(8, 4).c_str(), nullptr, 16));
    }
    // The check code and the extension come from the disk as they are.
    r.name = printable(name);
    r.channel = static_cast<uint32_t>(st.chn);
    r.size = static_cast<uint64_t>(st.st.st_size);
    r.start = static_cast<int64_t>(st.startTime);
    // The status record keeps the low 32 bits of the end time.
    r.end = static_cast<uint32_t>(st.st.st_mtim.tv_sec);
    r.lock = static_cast<uint32_t>(st.lock);
    r.recType = static_cast<int64_t>(st.recType);
    std::memcpy(r.usrParam, st.usrParam, sizeof r.usrParam);
    return r;
}

uint32_t disk_blocks(const Disk& d) { return static_cast<uint32_t>(qvfs_GetUsedBlockNum(d.device.c_str())); }

namespace {

constexpr uint32_t kSector = 512;
// The slice directory lies in the first 16 MiB of a block.
constexpr uint64_t kDirectoryBytes = 0x1000000;

// Walks a block's slice directory in segments of segSize bytes through
// qvfs_BlockStatSeg until `want` files are found or the directory's 16 MiB
// are covered. The walk never asks for the segment behind the directory,
// which is the one that lets the library give a block with a disagreeing
// header back: listing stays read-only.
std::vector<TQvFileStat> scan_directory(const Disk& d, uint32_t block, int want, uint32_t segSize) {
    std::vector<TQvFileStat> found;
    if (want <= 0) return found;
    const int perSeg = static_cast<int>(segSize / kSector);
    std::vector<uint8_t> seg(segSize);
    std::vector<TQvFileStat> out(static_cast<size_t>(perSeg));
    const int32_t segments = static_cast<int32_t>(kDirectoryBytes / segSize);
    for (int32_t i = 0; i < segments && static_cast<int>(found.size()) < want; ++i) {
        check_interrupted();
        TQvBlkSegQuery q{};
        q.diskId = static_cast<uint32_t>(d.number);
        q.blkId = block;
        q.total = want;
        q.found = static_cast<int32_t>(found.size());
        q.segIndex = i;
        q.max = perSeg;
        q.segSize = segSize;
        q.segBuf = seg.data();
        q.out = out.data();
        errno = 0;
        if (qvfs_BlockStatSeg(&q) != 0)
            throw Failure(fmt::format("cannot read the slice directory of block {} of {}: {}", block,
                                      disk_label(d), lib_error(errno)));
        found.insert(found.end(), out.begin(), out.begin() + std::min(q.segFound, perSeg));
    }
    return found;
}

}  // namespace

std::vector<FileRow> block_files(const Disk& d, uint32_t block) {
    const int cnt = qvfs_GetFileNum(d.device.c_str(), block);
    std::vector<FileRow> rows;
    for (const TQvFileStat& st : scan_directory(d, block, cnt, 0x80000)) rows.push_back(file_row(st, d.number));
    std::sort(rows.begin(), rows.end(), [](const FileRow& a, const FileRow& b) { return a.slice < b.slice; });
    return rows;
}

std::vector<BlockRow> used_blocks(const Disk& d) {
    const uint32_t n = disk_blocks(d);
    std::vector<BlockRow> rows;
    if (n == 0) return rows;
    std::vector<TQvDiskBlkInfo> info(n);
    errno = 0;
    const int k = qvfs_GetBlockInfo(d.device.c_str(), info.data(), static_cast<int>(n));
    if (k < 0) throw Failure(fmt::format("cannot list the blocks of {}: {}", disk_label(d), lib_error(errno)));
    for (int i = 0; i < k; ++i) {
        check_interrupted();
        BlockRow r;
        r.block = info[i].blkId;
        r.start = static_cast<int64_t>(info[i].startTime);
        r.end = static_cast<int64_t>(info[i].endTime);
        r.files = info[i].cnt;
        QvfsBlockStat bs{};
        errno = 0;
        if (qvfs_GetBlockStat(static_cast<uint32_t>(d.number), r.block, &bs) != 0)
            throw Failure(fmt::format("cannot read block {} of {}: {}", r.block, disk_label(d), lib_error(errno)));
        r.type = bs.dataType;
        r.state = bs.state;
        r.locked = bs.locked != 0 && r.files != 0;
        // A block belongs to one channel: that of its files. The first
        // entries are almost always in the directory's first 64 KiB.
        if (r.files != 0) {
            const auto first = scan_directory(d, r.block, 1, 0x10000);
            if (!first.empty()) r.channel = static_cast<int64_t>(first[0].chn);
        }
        rows.push_back(r);
    }
    return rows;
}

}  // namespace qvfs::cli
