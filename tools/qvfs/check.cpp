// check.cpp - the read-only consistency check of a disk.
//
// Why this file reads the device itself: the library shows a disk through
// its shared image, which a mount loads from one header copy and one meta
// region and then trusts. Whether the two header copies, the four status
// map copies and the two table copies agree with each other and with the
// block headers and slice directories is exactly what the library never
// looks at, so the check opens the device (or image) read-only and reads the
// bytes with pread, using the on-disk record definitions of the disk layer
// (TQvDiskHead, meta-region offsets) and the block-file layer (TQvBlkInfo,
// TQvBlkSliceInfo). It never writes, takes no library lock and does not
// start the library. On a disk that a recorder is writing, a finding may be
// a change caught half-way; check a quiet disk for a verdict.
//
// What counts as consistent (the rules the library keeps):
//   - both header copies carry "QVFS" and are byte for byte the same, with
//     the fixed layout values and tolblk blocks inside the device;
//   - the status map is the same in both locations of both meta regions,
//     holds only 0, 1, 0xFE, 0xFF and nothing beyond tolblk; likewise the
//     current-block and block-count tables of the two regions agree;
//   - a block in use has a header the block loader accepts; a header that
//     received files has a known data type and channel, the self-info length
//     of its type, flg 1, and cnt equal to the live entries among slices
//     1..slice, each of which names its own slice, the block's channel and a
//     data region inside the block;
//   - a free block's header is all zero (a release zeroes it);
//   - the block-count entry of (type, channel) equals the blocks whose
//     header names that type and channel (bad blocks included: marking a
//     block bad leaves the tables alone until it is released);
//   - a current-block entry names a block that is not free and whose header
//     names the entry's type and channel. A block in use whose header is
//     still empty (allocated, no file created yet) is accepted only as some
//     channel's current block, and counts for that channel.
#include "check.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <optional>
#include <string_view>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "blockfile/bf_format.h"
#include "cli.h"
#include "disk/df_format.h"
#include "output.h"

namespace qvfs::cli {

uint64_t block_size() { return qvfs::disk::kBlockSize; }

// A format that zeroes block heads clears the largest self-info area, 16 MiB.
uint64_t block_head_clear_bytes() { return qvfs::bf::kMaxSelfInfo; }

uint64_t data_start() { return qvfs::disk::kDataStart; }

// One block's worth at the end of the device never belongs to a block.
uint64_t min_disk_bytes() { return qvfs::disk::kDataStart + 2ull * qvfs::disk::kBlockSize; }

uint32_t blocks_for_device_size(uint64_t bytes) {
    using namespace qvfs::disk;
    if (bytes < min_disk_bytes()) return 0;
    const uint64_t n = (bytes - kDataStart - kBlockSize) / kBlockSize;
    return static_cast<uint32_t>(std::min<uint64_t>(n, kMaxBlocks));
}

int probe_format(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return QVFS_ERR_SYS + errno;
    int code = QVFS_ERR_NOTFORMATTED;
    for (const uint64_t at : {qvfs::disk::kHeadPrimary, qvfs::disk::kHeadBackup}) {
        char magic[5] = {};
        const ssize_t n = ::pread(fd, magic, sizeof magic, static_cast<off_t>(at));
        if (n < 0) code = QVFS_ERR_SYS + errno;
        if (n == sizeof magic && std::memcmp(magic, "QVFS", sizeof magic) == 0) code = 0;
        if (code != QVFS_ERR_NOTFORMATTED) break;
    }
    ::close(fd);
    return code;
}

uint64_t device_size_of(int fd) {
    struct stat st;
    if (fstat(fd, &st) != 0) return 0;
    if (S_ISREG(st.st_mode)) return static_cast<uint64_t>(st.st_size);
    uint64_t bytes = 0;
    if (S_ISBLK(st.st_mode) && ioctl(fd, BLKGETSIZE64, &bytes) == 0) return bytes;
    return 0;
}

namespace {

using namespace qvfs::disk;
using qvfs::bf::kMaxSelfInfo;
using qvfs::bf::kSector;

constexpr uint32_t kTypesInTable = qvfs::disk::kTypes;

// Self-info length of a block type: 16 MiB for IMG, PIC, FPD and ITS.
uint32_t self_info_len(uint32_t type) {
    return (type == 1 || type == 3 || type == 4 || type == 5) ? 0x1000000u : 0x200000u;
}

const char* status_name(uint8_t s) {
    switch (s) {
        case QV_BLK_FREE: return "free";
        case QV_BLK_USED: return "in use";
        case QV_BLK_BADUNIT: return "bad range";
        case QV_BLK_BAD: return "bad";
        default: return "invalid";
    }
}

std::string plural(uint64_t n, const char* one, const char* many) {
    return fmt::format("{} {}", n, n == 1 ? one : many);
}

// A short list of block numbers: "2, 5 and 9", "2, 5, 9, 11 and 40 more".
std::string block_list(const std::vector<uint32_t>& v) {
    constexpr size_t kShown = 4;
    std::string out;
    for (size_t i = 0; i < v.size() && i < kShown; ++i) {
        if (i > 0) out += (i + 1 == v.size()) ? " and " : ", ";
        out += std::to_string(v[i]);
    }
    if (v.size() > kShown) out += fmt::format(" and {} more", v.size() - kShown);
    return out;
}

// What the block pass learnt about one block.
struct BlockNote {
    bool readable = false;
    bool accepted = false;  // the loader's header acceptance
    bool empty = false;     // accepted, Len 0: allocated, no file yet
    uint32_t chn = 0;
    uint32_t type = 0;
};

class Checker {
public:
    Checker(int fd, std::string label, uint64_t devSize) : fd_(fd), label_(std::move(label)), devSize_(devSize) {}

    CheckReport run(bool showProgress);

private:
    void add(const char* kind, int64_t block, std::string message) {
        rep_.findings.push_back(Finding{kind, block, std::move(message)});
    }
    // pread of the whole piece; false when the device ends before it.
    bool read_at(uint64_t off, void* buf, size_t n) {
        auto* p = static_cast<uint8_t*>(buf);
        size_t done = 0;
        while (done < n) {
            const ssize_t r = ::pread(fd_, p + done, n - done, static_cast<off_t>(off + done));
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) throw Failure(fmt::format("cannot read {} at byte {:#x}: {}", label_, off + done, std::strerror(errno)));
            if (r == 0) return false;
            done += static_cast<size_t>(r);
        }
        return true;
    }

    bool check_headers();
    void check_maps();
    void check_tables();
    void check_block(uint32_t b);
    void check_directory(uint32_t b, const TQvBlkInfo& h);
    void check_counts();
    void check_current();
    std::string chan_type(uint32_t c, uint32_t t) const { return fmt::format("channel {} {}", c, type_label(t)); }

    int fd_;
    std::string label_;
    uint64_t devSize_;
    CheckReport rep_;
    TQvDiskHead head_{};
    uint32_t region_ = 0;  // the meta region that goes with the header copy in use
    std::vector<uint8_t> map_;
    std::vector<int32_t> current_;   // [type][channel] of region_
    std::vector<uint32_t> count_;    // [type][channel] of region_
    std::vector<uint32_t> expected_; // blocks per [type][channel] by their headers
    std::vector<BlockNote> notes_;
    std::vector<uint8_t> dir_;
};

bool magic_ok(const TQvDiskHead& h) { return std::memcmp(h.magic, "QVFS", 5) == 0; }

bool Checker::check_headers() {
    TQvDiskHead copy[2];
    const bool got[2] = {read_at(kHeadPrimary, &copy[0], sizeof copy[0]),
                         read_at(kHeadBackup, &copy[1], sizeof copy[1])};
    if (!got[0] || !got[1]) {
        add("header", -1, fmt::format("the device ends at {} bytes, before the header copies", devSize_));
        return false;
    }
    const bool ok[2] = {magic_ok(copy[0]), magic_ok(copy[1])};
    if (!ok[0] && !ok[1]) {
        add("header", -1, "no header copy carries the magic \"QVFS\": not a formatted disk");
        return false;
    }
    if (ok[0] != ok[1]) {
        add("header-copies", -1,
            fmt::format("the {} header copy does not carry the magic \"QVFS\"", ok[0] ? "backup" : "primary"));
    } else if (std::memcmp(&copy[0], &copy[1], sizeof copy[0]) != 0) {
        std::vector<std::string> diffs;
        const auto field = [&](const char* name, auto x, auto y) {
            if (x != y) diffs.push_back(fmt::format("{} {} (primary) vs {} (backup)", name, x, y));
        };
        field("ver", copy[0].ver, copy[1].ver);
        field("metaSize", copy[0].metaSize, copy[1].metaSize);
        field("blockSize", copy[0].blockSize, copy[1].blockSize);
        field("createTime", copy[0].createTime, copy[1].createTime);
        field("dataStart", copy[0].dataStart, copy[1].dataStart);
        field("dataEnd", copy[0].dataEnd, copy[1].dataEnd);
        field("tolblk", copy[0].tolblk, copy[1].tolblk);
        std::string what = diffs.empty() ? std::string("in reserved bytes") : diffs[0];
        for (size_t i = 1; i < diffs.size(); ++i) what += ", " + diffs[i];
        add("header-copies", -1, "the header copies differ: " + what);
    }
    // The mount reads the primary copy with meta region 0 unless it cannot.
    region_ = ok[0] ? 0 : 1;
    head_ = copy[region_];
    const TQvDiskHead& h = head_;
    std::vector<std::string> bad;
    if (h.metaSize != kMetaSize) bad.push_back(fmt::format("metaSize {:#x} is not {:#x}", h.metaSize, kMetaSize));
    if (h.blockSize != kBlockSize) bad.push_back(fmt::format("blockSize {:#x} is not {:#x}", h.blockSize, kBlockSize));
    if (h.dataStart != kDataStart) bad.push_back(fmt::format("dataStart {:#x} is not {:#x}", h.dataStart, kDataStart));
    if (h.tolblk > kMaxBlocks) bad.push_back(fmt::format("tolblk {} is above {}", h.tolblk, kMaxBlocks));
    if (!bad.empty()) {
        std::string what = bad[0];
        for (size_t i = 1; i < bad.size(); ++i) what += ", " + bad[i];
        add("header", -1, "the header's layout is not this format's (" + what + "): nothing more can be checked");
        return false;
    }
    if (h.ver > kDiskVersion) add("header", -1, fmt::format("unknown format version {}", h.ver));
    const uint64_t end = kDataStart + uint64_t(h.tolblk) * kBlockSize;
    if (h.dataEnd != end)
        add("header", -1, fmt::format("dataEnd {:#x} does not match {} blocks ({:#x})", h.dataEnd, h.tolblk, end));
    if (devSize_ != 0 && end > devSize_)
        add("header", -1,
            fmt::format("{} blocks end at byte {:#x}, beyond the device's {:#x}", h.tolblk, end, devSize_));
    rep_.blocks = h.tolblk;
    return true;
}

void Checker::check_maps() {
    struct Copy {
        uint32_t region;
        bool first;
        std::vector<uint8_t> bytes;
        std::string name() const {
            return fmt::format("meta region {} ({} location)", region, first ? "first" : "second");
        }
    };
    std::vector<Copy> copies;
    for (uint32_t r = 0; r < 2; ++r)
        for (bool first : {true, false}) {
            Copy c{r, first, std::vector<uint8_t>(kMapSize)};
            if (!read_at(first ? map_first(r) : map_second(r), c.bytes.data(), kMapSize))
                throw Failure(fmt::format("cannot read the status map of {}: the device ends before it", label_));
            copies.push_back(std::move(c));
        }
    // The copy a mount reads first is the reference.
    const size_t ref = region_ * 2;
    map_ = copies[ref].bytes;
    for (size_t i = 0; i < copies.size(); ++i) {
        if (i == ref) continue;
        std::vector<uint32_t> diff;
        for (uint32_t b = 0; b < kMapSize; ++b)
            if (copies[i].bytes[b] != map_[b]) diff.push_back(b);
        if (diff.empty()) continue;
        const uint32_t b0 = diff[0];
        add("status-map", diff.size() == 1 ? int64_t(b0) : -1,
            fmt::format("the status map of {} differs from {} at {} {} (block {}: {} there, {} here)",
                        copies[i].name(), copies[ref].name(), diff.size() == 1 ? "block" : "blocks",
                        block_list(diff), b0, status_name(copies[i].bytes[b0]), status_name(map_[b0])));
    }
    std::vector<uint32_t> beyond;
    for (uint32_t b = 0; b < kMapSize; ++b) {
        const uint8_t s = map_[b];
        if (b >= head_.tolblk) {
            if (s != 0) beyond.push_back(b);
        } else if (s != QV_BLK_FREE && s != QV_BLK_USED && !is_bad(s)) {
            add("status-map", b, fmt::format("block {}: status byte {:#04x} is not a valid status", b, s));
        }
    }
    if (!beyond.empty())
        add("status-map", -1,
            fmt::format("the status map marks {} beyond the disk's {}: {}", plural(beyond.size(), "block", "blocks"),
                        plural(head_.tolblk, "block", "blocks"), block_list(beyond)));
}

void Checker::check_tables() {
    constexpr size_t kEntries = kChunk / 4;  // one 32-bit entry per channel
    std::vector<int32_t> cur[2];
    std::vector<uint32_t> cnt[2];
    for (uint32_t r = 0; r < 2; ++r) {
        cur[r].resize(kTypesInTable * kEntries);
        cnt[r].resize(kTypesInTable * kEntries);
        for (uint32_t t = 0; t < kTypesInTable; ++t) {
            if (!read_at(current_chunk(r, t), &cur[r][t * kEntries], kChunk) ||
                !read_at(count_chunk(r, t), &cnt[r][t * kEntries], kChunk))
                throw Failure(fmt::format("cannot read the tables of {}: the device ends before them", label_));
        }
    }
    const uint32_t other = 1 - region_;
    for (uint32_t t = 0; t < kTypesInTable; ++t) {
        const auto compare = [&](const char* table, const auto& mine, const auto& theirs) {
            std::vector<uint32_t> chans;
            for (uint32_t c = 0; c < kEntries; ++c)
                if (mine[t * kEntries + c] != theirs[t * kEntries + c]) chans.push_back(c);
            if (chans.empty()) return;
            const uint32_t c0 = chans[0];
            add("tables", -1,
                fmt::format("the {} table of meta region {} differs from meta region {} for {} at {} {} "
                            "(channel {}: {} there, {} here)",
                            table, other, region_, type_label(t), chans.size() == 1 ? "channel" : "channels",
                            block_list(chans), c0, theirs[t * kEntries + c0], mine[t * kEntries + c0]));
        };
        compare("current-block", cur[region_], cur[other]);
        compare("block-count", cnt[region_], cnt[other]);
    }
    current_ = std::move(cur[region_]);
    count_ = std::move(cnt[region_]);
}

void Checker::check_directory(uint32_t b, const TQvBlkInfo& h) {
    const uint64_t addr = kDataStart + uint64_t(b) * kBlockSize;
    const size_t bytes = size_t(h.slice) * kSector;
    dir_.resize(bytes);
    if (bytes != 0 && !read_at(addr + kSector, dir_.data(), bytes)) {
        add("slice-entry", b, fmt::format("block {}: the slice directory lies beyond the end of the device", b));
        return;
    }
    uint32_t live = 0;
    for (uint32_t k = 1; k <= h.slice; ++k) {
        TQvBlkSliceInfo e;
        std::memcpy(&e, dir_.data() + size_t(k - 1) * kSector, sizeof e);
        // The listing recognises an entry by its magic in any letter case.
        if (strncasecmp(e.magic, qvfs::bf::kSliceMagic, 4) != 0) continue;
        ++live;
        if (e.sliceID != k)
            add("slice-entry", b, fmt::format("block {} slice {}: the entry names slice {}", b, k, e.sliceID));
        if (e.chn != h.chn)
            add("slice-entry", b,
                fmt::format("block {} slice {}: channel {} differs from the block's channel {}", b, k, e.chn, h.chn));
        if (e.dataStart < h.Len || e.dataEnd < e.dataStart || e.dataEnd > kBlockSize)
            add("slice-entry", b,
                fmt::format("block {} slice {}: data region [{:#x}, {:#x}) lies outside the block's data area", b, k,
                            e.dataStart, e.dataEnd));
        // The check code and the extension make the file's name: a byte in
        // them that is not a printable character leaves a name that cannot
        // be typed, listed in one line or matched.
        const std::string_view ext(e.ext, strnlen(e.ext, sizeof e.ext));
        const auto graphic = [](std::string_view v) {
            return std::all_of(v.begin(), v.end(), [](unsigned char c) { return c > 0x20 && c < 0x7F; });
        };
        if (e.ext[sizeof e.ext - 1] != 0)
            add("slice-entry", b, fmt::format("block {} slice {}: the extension is not terminated", b, k));
        else if (!graphic(std::string_view(e.verify, sizeof e.verify)) || !graphic(ext) || ext.empty() ||
                 ext.find('/') != ext.npos)
            add("slice-entry", b,
                fmt::format("block {} slice {}: damaged name: check code \"{}\", extension \"{}\" (both "
                            "printable, the extension 1 to 7 characters without '/')",
                            b, k, printable(std::string_view(e.verify, sizeof e.verify)), printable(ext)));
    }
    if (live != h.cnt)
        add("slice-count", b,
            fmt::format("block {}: the header counts {} (cnt) but the slice directory holds {}", b,
                        plural(h.cnt, "file", "files"), plural(live, "live entry", "live entries")));
}

void Checker::check_block(uint32_t b) {
    const uint8_t status = map_[b];
    BlockNote& note = notes_[b];
    TQvBlkInfo h;
    if (!read_at(kDataStart + uint64_t(b) * kBlockSize, &h, sizeof h)) {
        if (status == QV_BLK_USED)
            add("block-header", b, fmt::format("block {}: in use but beyond the end of the device", b));
        return;
    }
    note.readable = true;
    note.chn = h.chn;
    note.type = h.dataType;

    // The block loader's acceptance rule.
    std::string reject;
    if (h.Len == 0) {
        if (h.slice != 0 || h.next != 0)
            reject = fmt::format("Len is 0 but slice is {} and next {:#x}", h.slice, h.next);
        note.empty = reject.empty();
    } else if (h.Len > kMaxSelfInfo) {
        reject = fmt::format("Len {:#x} exceeds {:#x}", h.Len, kMaxSelfInfo);
    } else if (h.next > kBlockSize) {
        reject = fmt::format("next {:#x} lies beyond the block", h.next);
    } else if (h.slice >= h.Len / kSector) {
        reject = fmt::format("slice {} does not fit a directory of {:#x} bytes", h.slice, h.Len);
    }
    note.accepted = reject.empty();
    const bool inUse = note.accepted && !note.empty;
    const bool countable = inUse && h.dataType < kTypesInTable && h.chn < kChannels;

    if (status == QV_BLK_FREE) {
        ++rep_.free;
        static const uint8_t kZero[sizeof(TQvBlkInfo)] = {};
        if (std::memcmp(&h, kZero, sizeof h) != 0)
            add("free-header", b,
                fmt::format("block {}: marked free but its header is not zero (Len {:#x}, cnt {}, channel {}, {})", b,
                            h.Len, h.cnt, h.chn, type_label(h.dataType)));
        return;
    }
    if (is_bad(status)) {
        // A bad block keeps its place in the tables until it is released.
        ++rep_.bad;
        if (countable) ++expected_[h.dataType * kChannels + h.chn];
        return;
    }
    if (status != QV_BLK_USED) return;  // reported with the status map

    ++rep_.used;
    if (!note.accepted) {
        add("block-header", b, fmt::format("block {}: in use but its header is not acceptable: {}", b, reject));
        return;
    }
    if (note.empty) return;  // judged with the current-block table
    if (h.dataType > 5)
        add("block-header", b, fmt::format("block {}: unknown data type {}", b, h.dataType));
    else if (h.Len != self_info_len(h.dataType))
        add("block-header", b,
            fmt::format("block {}: Len {:#x} is not the self-info length of {} ({:#x})", b, h.Len,
                        type_label(h.dataType), self_info_len(h.dataType)));
    if (h.chn >= kChannels) add("block-header", b, fmt::format("block {}: channel {} is out of range", b, h.chn));
    if (h.flg != 1) add("block-header", b, fmt::format("block {}: flg is {} in a header that received files", b, h.flg));
    if (countable) ++expected_[h.dataType * kChannels + h.chn];
    check_directory(b, h);
}

void Checker::check_current() {
    std::map<int32_t, std::pair<uint32_t, uint32_t>> owner;  // block -> (type, channel)
    for (uint32_t t = 0; t < kTypesInTable; ++t) {
        for (uint32_t c = 0; c < kChannels; ++c) {
            const int32_t cur = current_[t * kChannels + c];
            if (cur == -1) continue;
            const std::string who = chan_type(c, t);
            if (cur < 0 || uint32_t(cur) >= head_.tolblk) {
                add("current-block", -1,
                    fmt::format("{}: the current block {} is beyond the disk's {}", who, cur,
                                plural(head_.tolblk, "block", "blocks")));
                continue;
            }
            const auto [it, fresh] = owner.emplace(cur, std::make_pair(t, c));
            if (!fresh)
                add("current-block", cur,
                    fmt::format("{}: the current block {} is also the current block of {}", who, cur,
                                chan_type(it->second.second, it->second.first)));
            const BlockNote& n = notes_[uint32_t(cur)];
            if (map_[uint32_t(cur)] == QV_BLK_FREE) {
                add("current-block", cur, fmt::format("{}: the current block {} is marked free", who, cur));
            } else if (n.accepted && n.empty) {
                // Allocated for this channel, no file yet: it counts for it.
                if (fresh) ++expected_[t * kChannels + c];
            } else if (n.accepted && (n.chn != c || n.type != t)) {
                add("current-block", cur,
                    fmt::format("{}: the current block {} belongs to {}", who, cur, chan_type(n.chn, n.type)));
            }
        }
    }
    for (uint32_t b = 0; b < head_.tolblk; ++b)
        if (map_[b] == QV_BLK_USED && notes_[b].accepted && notes_[b].empty && owner.count(int32_t(b)) == 0)
            add("orphan-block", b,
                fmt::format("block {}: in use but it holds no file and is no channel's current block", b));
}

void Checker::check_counts() {
    // Disks of version 1 or older get this table rebuilt at their next mount.
    if (head_.ver < 2) return;
    for (uint32_t t = 0; t < kTypesInTable; ++t)
        for (uint32_t c = 0; c < kChannels; ++c) {
            const uint32_t have = count_[t * kChannels + c], want = expected_[t * kChannels + c];
            if (have != want)
                add("block-count", -1,
                    fmt::format("{}: the block-count table says {} but {} {} to it", chan_type(c, t),
                                plural(have, "block", "blocks"), plural(want, "block", "blocks"),
                                want == 1 ? "belongs" : "belong"));
        }
}

CheckReport Checker::run(bool showProgress) {
    if (!check_headers()) return rep_;
    check_maps();
    check_tables();
    notes_.assign(head_.tolblk, BlockNote{});
    expected_.assign(size_t(kTypesInTable) * kChannels, 0);
    {
        std::optional<Progress> bar;
        if (showProgress) bar.emplace("check " + label_, head_.tolblk, "blocks");
        for (uint32_t b = 0; b < head_.tolblk; ++b) {
            check_interrupted();
            check_block(b);
            if (bar) bar->update(b + 1);
        }
    }
    check_current();
    check_counts();
    return rep_;
}

}  // namespace

CheckReport check_device(const std::string& path, const std::string& label, bool showProgress) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw Failure(fmt::format("cannot open {}: {}", label, std::strerror(errno)));
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    Checker c(fd, label, device_size_of(fd));
    return c.run(showProgress);
}

namespace {

std::string g_checkDisk;

int cmd_check() {
    const Disk d = parse_disk(g_checkDisk);
    const CheckReport r = check_device(real_device_path(d), disk_label(d), true);
    if (g.json) {
        Json list = Json::array();
        for (const Finding& f : r.findings)
            list.push_back(Json{{"kind", f.kind}, {"block", f.block < 0 ? Json(nullptr) : Json(f.block)},
                                {"message", f.message}});
        print_json(Json{{"disk", d.number},
                        {"device", d.device},
                        {"blocks", r.blocks},
                        {"used", r.used},
                        {"free", r.free},
                        {"bad", r.bad},
                        {"clean", r.findings.empty()},
                        {"findings", list}});
    } else {
        for (const Finding& f : r.findings) fmt::print("{}\n", f.message);
        fmt::print("{}: {}, {} in use, {} free, {} bad: {}\n", disk_label(d), plural(r.blocks, "block", "blocks"),
                   r.used, r.free, r.bad,
                   r.findings.empty() ? std::string("clean") : plural(r.findings.size(), "finding", "findings"));
    }
    return r.findings.empty() ? kExitOk : kExitDamaged;
}

}  // namespace

void add_check_command(CLI::App& app) {
    auto* check = app.add_subcommand("check", "Read-only consistency check of a disk (exit 3 when damaged)");
    check->add_option("DISK", g_checkDisk, "Disk number or device path")->required();
    check->callback([] { set_action(cmd_check); });
}

}  // namespace qvfs::cli
