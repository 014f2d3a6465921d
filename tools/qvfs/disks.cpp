// disks.cpp - subcommands about whole disks and blocks: image, format, df,
// blocks, unlink-block, tag-bad and dump.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <thread>

#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "check.h"
#include "cli.h"
#include "output.h"

namespace qvfs::cli {

namespace {

namespace fs = std::filesystem;

// Parsed arguments of the disk subcommands (one run uses one of them).
struct Args {
    std::string disk;
    std::vector<std::string> disks;
    std::string size;
    bool force = false;
    bool zeroHeads = false;
    uint32_t block = 0;
    std::optional<uint32_t> channel;
    std::string type, from, to;
    std::string offset, length;
} a;

// ---- image ---------------------------------------------------------------------

// Why a size is refused: the smallest disk that holds a block, in both units.
std::string too_small() {
    return fmt::format("a disk needs at least {} MiB ({} bytes) to hold one block", min_disk_bytes() >> 20,
                       min_disk_bytes());
}

// Size of a disk's device (or image) in bytes; 0 when it cannot be told.
uint64_t device_bytes(const Disk& d) {
    const int fd = ::open(real_device_path(d).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    const uint64_t bytes = device_size_of(fd);
    ::close(fd);
    return bytes;
}

int cmd_image() {
    const Disk d = parse_disk(a.disk);
    const uint64_t bytes = parse_size(a.size, "size");
    if (bytes < min_disk_bytes()) usage_error("invalid size '" + a.size + "': " + too_small());
    if (g.root.empty())
        throw Failure(fmt::format("image needs --root DIR (or QVFS_ROOT): without a root it would create {}", d.device));
    const std::string path = real_device_path(d);
    std::error_code ec;
    fs::create_directories(fs::path(path).parent_path(), ec);
    if (ec) throw Failure(fmt::format("cannot create {}: {}", fs::path(path).parent_path().string(), ec.message()));
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (a.force ? 0 : O_EXCL);
    const int fd = ::open(path.c_str(), flags, 0644);
    if (fd < 0 && errno == EEXIST)
        throw Failure(fmt::format("cannot create the image of {}: {} exists (use --force to resize it)", disk_label(d),
                                  path));
    if (fd < 0) throw Failure(fmt::format("cannot create the image of {}: {}", disk_label(d), std::strerror(errno)));
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd);
        throw Failure(fmt::format("cannot resize {}: not a regular file", path));
    }
    // ftruncate makes a sparse file: the image takes no space until written.
    if (ftruncate(fd, static_cast<off_t>(bytes)) != 0) {
        const int e = errno;
        ::close(fd);
        throw Failure(fmt::format("cannot size the image of {} to {} bytes: {}", disk_label(d), bytes, std::strerror(e)));
    }
    ::close(fd);
    const uint32_t blocks = blocks_for_device_size(bytes);
    if (g.json) {
        print_json(Json{{"disk", d.number}, {"device", d.device}, {"path", path}, {"size", bytes}, {"blocks", blocks}});
    } else {
        fmt::print("created {} for {}: {}, formats to {} block{}\n", path, disk_label(d), size_text(bytes), blocks,
                   blocks == 1 ? "" : "s");
    }
    return kExitOk;
}

// ---- format ----------------------------------------------------------------------

// Bytes this process has handed to write() so far. The format with zeroed
// block heads writes 16 MiB per block and reports nothing while it runs; the
// process's write count is how its progress can be watched from outside.
std::optional<uint64_t> written_bytes() {
    std::ifstream io("/proc/self/io");
    std::string key;
    uint64_t value = 0;
    while (io >> key >> value)
        if (key == "wchar:") return value;
    return std::nullopt;
}

Json dump_json(const std::string& text);
std::string debug_dump();

// How many processes have a disk mounted, this one included, as the disk
// layer's dump shows it; 0 when the disk cannot be mounted (not formatted).
int mount_count(const Disk& d) {
    try {
        Mounted m(d);
        const Json dump = dump_json(debug_dump());
        for (const Json& row : dump.value("QVDISK", Json::array()))
            if (row.value("id", -1) == d.number) return row.value("mounted", 0);
    } catch (const Failure& f) {
        if (f.code == kExitInterrupted) throw;
    }
    return 0;
}

int cmd_format() {
    const Disk d = parse_disk(a.disk);
    std::optional<uint64_t> size;
    if (!a.size.empty()) size = parse_size(a.size, "size");
    if (size && *size < min_disk_bytes()) usage_error("invalid size '" + a.size + "': " + too_small());
    // The format lays out the size asked for, or the whole device when that
    // is smaller; a device whose size cannot be told is left to the library.
    const uint64_t devBytes = device_bytes(d);
    if (devBytes != 0 && devBytes < min_disk_bytes())
        throw Failure(fmt::format("cannot format {}: the device holds {}; {}", disk_label(d), size_text(devBytes),
                                  too_small()));
    start_library();
    // A format takes the disk from under every process that uses it.
    if (!a.force) {
        const int users = mount_count(d) - 1;
        if (users > 0)
            throw Failure(fmt::format("cannot format {}: {} other process{} {} it mounted (--force formats it anyway)",
                                      disk_label(d), users, users == 1 ? "" : "es", users == 1 ? "has" : "have"));
    }

    int r = 0;
    int err = 0;
    if (size) {
        errno = 0;
        r = qvfs_FormatMini(d.device.c_str(), *size);
        err = errno;
    } else if (!a.zeroHeads) {
        errno = 0;
        r = qvfs_Format(d.device.c_str());
        err = errno;
    } else {
        // Zeroing every block head takes long. The format runs on a thread
        // of its own while this one draws the progress from the bytes written.
        const uint32_t blocks = blocks_for_device_size(devBytes);
        // A half-done format is of no use: an interrupt ends the process at
        // once, as it would without the tool's handlers.
        signal(SIGINT, SIG_DFL);
        signal(SIGTERM, SIG_DFL);
        std::atomic<bool> done{false};
        const auto base = written_bytes();
        std::thread worker([&] {
            errno = 0;
            r = qvfs_FormatEx(d.device.c_str(), QVFS_FORMAT_CLEAR_HEADS);
            err = errno;
            done = true;
        });
        {
            Progress bar(fmt::format("format disk {}", d.number), blocks, "blocks");
            while (!done) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                const auto now = written_bytes();
                if (base && now) bar.update((*now - *base) / block_head_clear_bytes());
            }
            if (r == 0) bar.update(blocks);
        }
        worker.join();
    }
    if (r != 0) throw Failure(fmt::format("cannot format {}: {}", disk_label(d), lib_error(err, false)));

    Mounted m(d);
    const uint32_t blocks = disk_blocks(d);
    const uint64_t blockSize = block_size();
    if (g.json) {
        print_json(Json{{"disk", d.number},
                        {"device", d.device},
                        {"blocks", blocks},
                        {"block_size", blockSize},
                        {"capacity", uint64_t(blocks) * blockSize},
                        {"heads_zeroed", a.zeroHeads}});
    } else {
        fmt::print("formatted {}: {} block{} of {}, {}{}\n", disk_label(d), blocks, blocks == 1 ? "" : "s",
                   size_text(blockSize), size_text(uint64_t(blocks) * blockSize),
                   a.zeroHeads ? ", block heads zeroed" : "");
    }
    return kExitOk;
}

// ---- df --------------------------------------------------------------------------

struct DiskSpace {
    uint64_t blocks = 0, used = 0, free = 0, bad = 0;
    uint64_t capacity = 0, freeBytes = 0;
    uint64_t perType[std::size(kTypes)] = {};
};

DiskSpace disk_space(const Disk& d) {
    TQvStatfs st{};
    errno = 0;
    if (qvfs_Statfs(d.device.c_str(), &st) != 0)
        throw Failure(fmt::format("cannot read the space of {}: {}", disk_label(d), lib_error(errno)));
    DiskSpace s;
    const uint64_t perBlock = block_size() / st.f_bsize;
    s.blocks = perBlock ? st.f_blocks / perBlock : 0;
    s.free = perBlock ? st.f_bfree / perBlock : 0;
    s.bad = st.f_spare[0];
    s.used = s.blocks - s.free - s.bad;
    s.capacity = st.f_blocks * st.f_bsize;
    s.freeBytes = st.f_bfree * st.f_bsize;
    // Space per data type: the disk's block-count table, summed over the
    // channels. Disks of the oldest format cannot answer; their block
    // listing can.
    bool fromTable = true;
    for (size_t t = 0; t < std::size(kTypes) && fromTable; ++t) {
        for (uint32_t c = 0; c < QVFS_MAX_CHANNELS; ++c) {
            const int mib = qvfs_GetUsedSizeOfDataType(d.device.c_str(), c, kTypes[t].fileCode);
            if (mib == -2) {
                fromTable = false;
                break;
            }
            if (mib > 0) s.perType[t] += uint64_t(mib) << 20;
        }
    }
    if (!fromTable) {
        std::fill(std::begin(s.perType), std::end(s.perType), 0);
        for (const BlockRow& b : used_blocks(d))
            if (b.type < std::size(kTypes)) s.perType[b.type] += block_size();
    }
    return s;
}

int cmd_df() {
    std::vector<Disk> disks;
    const bool all = a.disks.empty();
    if (all) {
        disks = present_disks();
        if (disks.empty())
            throw Failure(fmt::format("no disks found (looked for {}NN/part1{})", QVFS_DEV_PREFIX,
                                      g.root.empty() ? "" : " under " + g.root));
    } else {
        for (const auto& arg : a.disks) disks.push_back(parse_disk(arg));
    }
    int status = kExitOk;
    Json list = Json::array();
    std::vector<Table::Column> cols = {{"DISK", true}, {"BLOCKS", true}, {"USED", true}, {"FREE", true},
                                       {"BAD", true},  {"SIZE", true},   {"AVAIL", true}};
    for (const TypeInfo& t : kTypes) cols.push_back({t.label, true});
    Table table(cols);
    for (const Disk& d : disks) {
        check_interrupted();
        try {
            Mounted m(d);
            const DiskSpace s = disk_space(d);
            Json types = Json::object();
            std::vector<std::string> row = {std::to_string(d.number), std::to_string(s.blocks),
                                            std::to_string(s.used),   std::to_string(s.free),
                                            std::to_string(s.bad),    size_text(s.capacity),
                                            size_text(s.freeBytes)};
            for (size_t t = 0; t < std::size(kTypes); ++t) {
                types[kTypes[t].label] = s.perType[t];
                row.push_back(size_text(s.perType[t]));
            }
            table.add(row);
            list.push_back(Json{{"disk", d.number},
                                {"device", d.device},
                                {"formatted", true},
                                {"blocks", s.blocks},
                                {"used", s.used},
                                {"free", s.free},
                                {"bad", s.bad},
                                {"block_size", block_size()},
                                {"capacity", s.capacity},
                                {"free_space", s.freeBytes},
                                {"types", types}});
        } catch (const Failure& f) {
            if (f.code == kExitInterrupted) throw;
            // The other disks are still shown; the run fails.
            fmt::print(stderr, "qvfs: {}\n", f.what());
            status = kExitFailed;
            list.push_back(Json{{"disk", d.number}, {"device", d.device}, {"formatted", false}, {"error", f.what()}});
            std::vector<std::string> row(cols.size(), "-");
            row[0] = std::to_string(d.number);
            table.add(row);
        }
    }
    if (g.json)
        print_json(Json{{"disks", list}});
    else
        table.print();
    return status;
}

// ---- blocks ------------------------------------------------------------------------

// Whether [start, end] overlaps [from, to]; an end of 0 (nothing synced yet)
// counts as the start.
bool overlaps(int64_t start, int64_t end, std::optional<int64_t> from, std::optional<int64_t> to) {
    if (end < start) end = start;
    if (from && end < *from) return false;
    if (to && start > *to) return false;
    return true;
}

Json block_json(const BlockRow& b) {
    return Json{{"block", b.block},
                {"channel", b.channel < 0 ? Json(nullptr) : Json(b.channel)},
                {"type", type_label(b.type)},
                {"start", time_json(b.start)},
                {"start_epoch", b.start},
                {"end", time_json(b.end)},
                {"end_epoch", b.end},
                {"files", b.files},
                {"state", state_text(b.state)},
                {"locked", b.locked}};
}

int cmd_blocks() {
    const Disk d = parse_disk(a.disk);
    const auto [type, from, to] = parse_window(a.type, a.from, a.to);
    Mounted m(d);
    Json list = Json::array();
    Table table({{"BLOCK", true},
                 {"CHANNEL", true},
                 {"TYPE"},
                 {"START"},
                 {"END"},
                 {"FILES", true},
                 {"STATE"},
                 {"LOCKED"}});
    for (const BlockRow& b : used_blocks(d)) {
        if (a.channel && b.channel != int64_t(*a.channel)) continue;
        if (type && b.type != *type) continue;
        if (!overlaps(b.start, b.end, from, to)) continue;
        list.push_back(block_json(b));
        table.add({std::to_string(b.block), b.channel < 0 ? "-" : std::to_string(b.channel), type_label(b.type),
                   time_text(b.start), time_text(b.end), std::to_string(b.files), state_text(b.state),
                   b.locked ? "yes" : "-"});
    }
    if (g.json)
        print_json(Json{{"disk", d.number}, {"device", d.device}, {"blocks", list}});
    else
        table.print();
    return kExitOk;
}

// ---- unlink-block, tag-bad ---------------------------------------------------------------

// The state of a block of a mounted disk; throws when it is beyond the disk.
QvfsBlockStat block_state(const Disk& d, uint32_t block) {
    const uint32_t n = disk_blocks(d);
    if (block >= n)
        throw Failure(fmt::format("block {} is beyond the {} block{} of {}", block, n, n == 1 ? "" : "s", disk_label(d)));
    QvfsBlockStat bs{};
    errno = 0;
    if (qvfs_GetBlockStat(static_cast<uint32_t>(d.number), block, &bs) != 0)
        throw Failure(fmt::format("cannot read block {} of {}: {}", block, disk_label(d), lib_error(errno)));
    return bs;
}

int cmd_unlink_block() {
    const Disk d = parse_disk(a.disk);
    Mounted m(d);
    const QvfsBlockStat bs = block_state(d, a.block);
    const auto refuse = [&](const std::string& why) {
        throw Failure(fmt::format("cannot unlink block {} of {}: {}", a.block, disk_label(d), why));
    };
    if (bs.state == 0) refuse("the block is not in use");
    // Unlinking takes every file of the block: locked ones, and those a
    // recorder or player has open, only when asked for explicitly.
    if (!a.force && bs.locked != 0) refuse("it holds locked files (--force unlinks it anyway)");
    const int users = a.force ? 0 : qvfs_GetBlockUsers(static_cast<uint32_t>(d.number), a.block);
    if (users != 0)
        refuse(users < 0 ? "cannot tell whether it is in use: " + lib_error(errno)
                         : "files of it are open in a process (--force unlinks it anyway)");
    errno = 0;
    if (qvfs_BlockUnlink(static_cast<uint32_t>(d.number), a.block) != 0)
        throw Failure(fmt::format("cannot unlink block {} of {}: {}", a.block, disk_label(d), lib_error(errno)));
    // The block goes back at once unless another process still uses it.
    const bool released = block_state(d, a.block).state == 0;
    if (g.json) {
        print_json(Json{{"disk", d.number}, {"block", a.block}, {"released", released}});
    } else if (released) {
        fmt::print("block {} of {} released\n", a.block, disk_label(d));
    } else {
        fmt::print("block {} of {} is in use by another process; it is released when that process lets it go\n",
                   a.block, disk_label(d));
    }
    return kExitOk;
}

int cmd_tag_bad() {
    const Disk d = parse_disk(a.disk);
    const uint64_t offset = parse_size(a.offset, "offset");
    const uint64_t length = parse_size(a.length, "length");
    if (length == 0 || length > UINT32_MAX)
        usage_error(fmt::format("invalid length '{}': must be 1 byte to 4 GiB - 1", a.length));
    Mounted m(d);
    // The blocks the range touches, as the library counts them: the block
    // holding the range's end byte too.
    const uint64_t blocks = disk_blocks(d), start = data_start(), end = offset + length;
    const uint64_t areaEnd = start + blocks * block_size();
    if (!a.force && blocks != 0 && end > start && offset < areaEnd) {
        const uint64_t first = offset <= start ? 0 : (offset - start) / block_size();
        const uint64_t last = end >= areaEnd ? blocks - 1 : (end - start) / block_size();
        std::vector<uint32_t> inUse;
        std::vector<TQvDiskBlkInfo> info(blocks);
        errno = 0;
        const int k = qvfs_GetBlockInfo(d.device.c_str(), info.data(), static_cast<int>(blocks));
        if (k < 0) throw Failure(fmt::format("cannot list the blocks of {}: {}", disk_label(d), lib_error(errno)));
        for (int i = 0; i < k; ++i)
            if (info[i].blkId >= first && info[i].blkId <= last) inUse.push_back(info[i].blkId);
        if (!inUse.empty())
            throw Failure(fmt::format("cannot mark bytes {:#x}..{:#x} of {} bad: {} {} {} in use (--force marks "
                                      "{} anyway)",
                                      offset, end, disk_label(d), inUse.size() == 1 ? "block" : "blocks",
                                      fmt::join(inUse, ", "), inUse.size() == 1 ? "is" : "are",
                                      inUse.size() == 1 ? "it" : "them"));
    }
    const uint64_t before = disk_space(d).bad;
    errno = 0;
    if (qvfs_TagBadUnit(d.device.c_str(), offset, static_cast<uint32_t>(length)) != 0)
        throw Failure(fmt::format("cannot mark bytes {:#x}..{:#x} of {} bad: {}", offset, offset + length,
                                  disk_label(d), lib_error(errno)));
    const uint64_t after = disk_space(d).bad;
    if (g.json) {
        print_json(Json{{"disk", d.number}, {"offset", offset}, {"length", length}, {"newly_bad", after - before},
                        {"bad", after}});
    } else {
        fmt::print("{}: {} block{} newly marked bad, {} bad in all\n", disk_label(d), after - before,
                   after - before == 1 ? "" : "s", after);
    }
    return kExitOk;
}

// Lifts a block's bad mark; the library decides from the block's header
// whether it is free again or still holds recordings.
int cmd_clear_bad() {
    const Disk d = parse_disk(a.disk);
    Mounted m(d);
    block_state(d, a.block);  // a clear message for a block beyond the disk
    errno = 0;
    const int status = qvfs_ClearBadBlock(d.device.c_str(), a.block);
    if (status < 0)
        throw Failure(fmt::format("cannot clear the bad mark of block {} of {}: {}", a.block, disk_label(d),
                                  lib_error(errno)));
    const char* now = status == 0 ? "free" : "in use";
    if (g.json)
        print_json(Json{{"disk", d.number}, {"block", a.block}, {"state", now}});
    else
        fmt::print("block {} of {} is no longer marked bad; it is {}\n", a.block, disk_label(d), now);
    return kExitOk;
}

// ---- dump ------------------------------------------------------------------------------

// A field of the dump as JSON: a number when it is one (decimal, possibly
// padded, or hexadecimal with "0x"), else the text made printable. (The
// block rows' bare hexadecimal block numbers never occur here: the dump
// shows the tool's own block handles, and it holds none while dumping.)
Json dump_value(const std::string& field) {
    const size_t b = field.find_first_not_of(' ');
    const std::string v = b == std::string::npos ? field : field.substr(b);
    const bool hex = v.size() > 2 && v[0] == '0' && (v[1] == 'x' || v[1] == 'X');
    const bool negative = !v.empty() && v[0] == '-';
    if (v.empty() || !(std::isdigit(static_cast<unsigned char>(v[negative ? 1 : 0])))) return printable(field);
    errno = 0;
    char* end = nullptr;
    if (negative) {
        const long long n = std::strtoll(v.c_str(), &end, 10);
        if (errno == 0 && *end == '\0') return n;
    } else {
        const unsigned long long n = std::strtoull(v.c_str(), &end, hex ? 16 : 10);
        if (errno == 0 && *end == '\0') return n;
    }
    return printable(field);
}

// The dump text is a series of sections, each a banner "===NAME===", a
// tab-separated title row and tab-separated rows; empty fields (double
// tabs) are layout only.
Json dump_json(const std::string& text) {
    Json doc = Json::object();
    std::vector<std::string> titles;
    std::string section;
    size_t pos = 0;
    const auto fields = [](const std::string& line) {
        std::vector<std::string> out;
        size_t p = 0;
        while (p <= line.size()) {
            const size_t t = line.find('\t', p);
            const std::string f = line.substr(p, t == std::string::npos ? std::string::npos : t - p);
            if (!f.empty()) out.push_back(f);
            if (t == std::string::npos) break;
            p = t + 1;
        }
        return out;
    };
    while (pos < text.size()) {
        size_t eol = text.find('\n', pos);
        if (eol == std::string::npos) eol = text.size();
        const std::string line = text.substr(pos, eol - pos);
        pos = eol + 1;
        if (line.empty()) continue;
        if (line[0] == '=') {
            const size_t b = line.find_first_not_of('=');
            const size_t e = line.find_last_not_of('=');
            section = b == std::string::npos ? "" : line.substr(b, e - b + 1);
            doc[section] = Json::array();
            titles.clear();
            continue;
        }
        if (section.empty()) continue;
        if (titles.empty()) {
            titles = fields(line);
            // "[REC ... ITS]" marks a group of columns; the names are the words.
            for (auto& t : titles) std::erase_if(t, [](char c) { return c == '[' || c == ']'; });
            continue;
        }
        const auto values = fields(line);
        Json row = Json::object();
        for (size_t i = 0; i < values.size(); ++i)
            row[i < titles.size() ? titles[i] : fmt::format("field{}", i)] = dump_value(values[i]);
        doc[section].push_back(row);
    }
    return doc;
}

// The library's dump, in a buffer that grows until the whole text fits.
std::string debug_dump() {
    std::vector<char> buf(256 * 1024);
    for (;;) {
        errno = 0;
        const int n = qvfs_GetDebugInfo(buf.data(), static_cast<int>(buf.size()));
        if (n < 0) throw Failure("cannot read the debug dump: " + lib_error(errno));
        if (size_t(n) + 1 < buf.size() || buf.size() >= (64u << 20)) break;
        buf.resize(buf.size() * 2);
    }
    return std::string(buf.data(), strnlen(buf.data(), buf.size()));
}

int cmd_dump() {
    std::vector<Disk> disks;
    if (a.disks.empty()) {
        disks = present_disks();
    } else {
        for (const auto& arg : a.disks) disks.push_back(parse_disk(arg));
    }
    // The dump shows the disks this process has mounted: mount every one
    // that can be, and say which could not. When none of the disks asked
    // for can be, nothing is started.
    std::vector<std::unique_ptr<Mounted>> mounts;
    int status = kExitOk;
    for (const Disk& d : disks) {
        try {
            mounts.push_back(std::make_unique<Mounted>(d));
        } catch (const Failure& f) {
            fmt::print(stderr, "qvfs: {}\n", f.what());
            status = kExitFailed;
        }
    }
    if (!disks.empty() && mounts.empty()) return status;
    start_library();
    const std::string text = debug_dump();
    if (g.json)
        print_json(dump_json(text));
    else
        fmt::print("{}", text);
    return status;
}

}  // namespace

void add_disk_commands(CLI::App& app) {
    auto* image = app.add_subcommand("image", "Make a sparse disk image for a disk under the root");
    image->add_option("DISK", a.disk, "Disk number or device path")->required();
    image->add_option("SIZE", a.size, "Image size in bytes (units K, M, G, T allowed)")->required();
    image->add_flag("-f,--force", a.force, "Resize an existing image");
    image->callback([] { set_action(cmd_image); });

    auto* format = app.add_subcommand("format", "Format a disk (every file on it is lost)");
    format->add_option("DISK", a.disk, "Disk number or device path")->required();
    auto* zero = format->add_flag("--zero-heads", a.zeroHeads, "Also zero the head of every block (slow)");
    format->add_option("--size", a.size, "Lay out only this many bytes of the device")->type_name("BYTES")
        ->excludes(zero);
    format->add_flag("-f,--force", a.force, "Format even when other processes have the disk mounted");
    format->callback([] { set_action(cmd_format); });

    auto* df = app.add_subcommand("df", "Space of disks: blocks in all, used, free, bad, space per data type");
    df->add_option("DISK", a.disks, "Disks (default: every disk present)");
    df->callback([] { set_action(cmd_df); });

    auto* blocks = app.add_subcommand("blocks", "The blocks in use of a disk");
    blocks->add_option("DISK", a.disk, "Disk number or device path")->required();
    blocks->add_option("--channel", a.channel, "Only blocks of this channel")->check(CLI::Range(0, 1023));
    blocks->add_option("--type", a.type, "Only blocks of this data type (REC, IMG, BACK, PIC, FPD, ITS)");
    blocks->add_option("--from", a.from, "Only blocks that end at or after this time")->type_name("TIME");
    blocks->add_option("--to", a.to, "Only blocks that start at or before this time")->type_name("TIME");
    blocks->callback([] { set_action(cmd_blocks); });

    auto* unlink = app.add_subcommand("unlink-block", "Release a block with every file in it");
    unlink->add_option("DISK", a.disk, "Disk number or device path")->required();
    unlink->add_option("BLOCK", a.block, "Block number")->required();
    unlink->add_flag("-f,--force", a.force, "Unlink also a block with locked or open files");
    unlink->callback([] { set_action(cmd_unlink_block); });

    auto* bad = app.add_subcommand("tag-bad", "Mark every block touching a byte range of the device bad");
    bad->add_option("DISK", a.disk, "Disk number or device path")->required();
    bad->add_option("OFFSET", a.offset, "First byte of the range on the device")->required();
    bad->add_option("LENGTH", a.length, "Length of the range in bytes")->required();
    bad->add_flag("-f,--force", a.force, "Mark also blocks that hold recordings");
    bad->callback([] { set_action(cmd_tag_bad); });

    auto* clear = app.add_subcommand("clear-bad", "Lift the bad mark of a block after the disk was checked");
    clear->add_option("DISK", a.disk, "Disk number or device path")->required();
    clear->add_option("BLOCK", a.block, "Block number")->required();
    clear->callback([] { set_action(cmd_clear_bad); });

    auto* dump = app.add_subcommand("dump", "The library's debug dump of every layer");
    dump->add_option("DISK", a.disks, "Disks to mount first (default: every disk present)");
    dump->callback([] { set_action(cmd_dump); });
}

}  // namespace qvfs::cli
