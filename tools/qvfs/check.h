// check.h - the read-only consistency check of a disk, and the layout facts
// of a formatted disk that other subcommands show.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace qvfs::cli {

// One inconsistency the check found.
struct Finding {
    std::string kind;    // "header", "header-copies", "status-map", "tables",
                         // "block-header", "free-header", "orphan-block",
                         // "block-count", "current-block", "slice-count", "slice-entry"
    int64_t block = -1;  // the block concerned, -1 for disk-wide findings
    std::string message;
};

struct CheckReport {
    uint32_t blocks = 0;
    uint32_t used = 0, free = 0, bad = 0;
    std::vector<Finding> findings;
};

class Progress;

// Checks the formatted disk whose device (or image) is at `path`, reading
// the bytes with pread and never writing. Throws a Failure when the device
// cannot be opened or read.
CheckReport check_device(const std::string& path, const std::string& label, bool showProgress);

// Layout facts of the format.
uint64_t block_size();
uint64_t data_start();
uint64_t block_head_clear_bytes();
uint32_t blocks_for_device_size(uint64_t bytes);
// The smallest device (or format size) that holds one block.
uint64_t min_disk_bytes();
// Why a mount of the device at `path` would fail before it gets past the
// header, as the library's code: 3000 + errno when it cannot be opened or
// read, 1005 when neither header copy carries the format's magic; 0 when a
// mount may go ahead.
int probe_format(const std::string& path);
// Size of an open device or image in bytes (0 when unknown).
uint64_t device_size_of(int fd);

}  // namespace qvfs::cli
