// cli.h - what the subcommands of the qvfs tool share: global options,
// failures and exit codes, disk and file-name arguments, the library session
// and mounts, and the block and file listings built on the public interface.
#pragma once

#include <csignal>
#include <cstdint>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "qvfs.h"

namespace CLI {
class App;
}

namespace qvfs::cli {

// Exit codes of the tool.
enum Exit : int {
    kExitOk = 0,
    kExitFailed = 1,        // an operation failed (message on stderr)
    kExitUsage = 2,         // bad option or argument
    kExitDamaged = 3,       // check: the disk has findings
    kExitInterrupted = 130, // SIGINT / SIGTERM during a long operation
    kExitBrokenPipe = 141,  // standard output closed by its reader (as SIGPIPE)
};

// A failure that ends the run: main prints "qvfs: <what>" on stderr and
// exits with `code`.
struct Failure : std::runtime_error {
    int code;
    int libCode = 0;  // the library's error code behind it, when there is one
    explicit Failure(const std::string& what, int code = kExitFailed) : std::runtime_error(what), code(code) {}
};
[[noreturn]] void usage_error(const std::string& what);

// "<words> (<code>)" for a failure the library reported with `code`, e.g.
// "not a formatted disk (1005)". The words are those of the cause it named
// for this thread's last call when there is one (sameThread false: the call
// ran on another thread, only the code is known).
std::string lib_error(int code, bool sameThread = true);

// Options that apply to every subcommand.
struct Globals {
    std::string root;       // --root, or QVFS_ROOT
    bool json = false;      // --json: machine-readable output
    bool bytes = false;     // --bytes: exact byte counts instead of human units
    bool progress = false;  // --progress: progress bars even when stderr is no terminal
};
extern Globals g;

// Set by SIGINT / SIGTERM / SIGHUP; long loops call check_interrupted(),
// which throws so that every mount is undone on the way out.
extern volatile std::sig_atomic_t g_interrupted;
void check_interrupted();

// ---- disks ------------------------------------------------------------------

struct Disk {
    int number = -1;
    std::string device;  // the library's name: "/dev/scsi/hostNN/part1"
};
// A disk argument: a number 0..24 or a path ending in "/dev/scsi/hostNN/part1".
// Throws a usage failure otherwise.
Disk parse_disk(const std::string& arg);
Disk disk_of(int number);
// "disk 3 (/dev/scsi/host03/part1)", for messages.
std::string disk_label(const Disk& d);
// Where the device really is: below the root when one is set.
std::string real_device_path(const Disk& d);
// The disks whose device exists (under the root), in number order.
std::vector<Disk> present_disks();

// ---- library session ----------------------------------------------------------

// Starts the library once in this process (qvfs_Init). Throws on failure.
void start_library();

// A mount for the duration of a scope: qvfs_Mount in the constructor (throws
// "cannot mount ..." on failure), the plain qvfs_UnMount in the destructor,
// which leaves the disk mounted for every other process that uses it. A
// device that is missing, unreadable or carries no format is refused before
// the library starts, so such a run leaves no key directory and no System V
// objects behind.
class Mounted {
public:
    explicit Mounted(const Disk& d);
    ~Mounted();
    Mounted(const Mounted&) = delete;
    Mounted& operator=(const Mounted&) = delete;
    const Disk& disk() const { return disk_; }

private:
    Disk disk_;
};

// ---- data types -----------------------------------------------------------------

// A block (data) type: its label, index in the disk tables, and the file
// data-type code that the disk queries take for it.
struct TypeInfo {
    const char* label;
    uint32_t blockType;
    uint32_t fileCode;
};
inline constexpr TypeInfo kTypes[] = {
    {"REC", 0, 0}, {"IMG", 1, 3}, {"BACK", 2, 2}, {"PIC", 3, 5}, {"FPD", 4, 6}, {"ITS", 5, 7},
};
std::string type_label(uint32_t blockType);
// REC, IMG, ... (any case) or a block type number 0..5; throws a usage failure.
uint32_t parse_type(const std::string& arg);

// The data type and time window of the listing commands (--type, --from,
// --to), each absent when not given. A window that ends before it starts is
// a usage failure; with `span` (a picture of the window) so is an empty one.
struct Window {
    std::optional<uint32_t> type;
    std::optional<int64_t> from, to;
};
Window parse_window(const std::string& type, const std::string& from, const std::string& to, bool span = false);

// ---- recording file names ----------------------------------------------------------

struct FileName {
    std::string forLibrary;  // what the library opens (the bare name, or device path + name)
    std::string name;        // the bare name, e.g. "H0000000000018C3F0000C00.rvd"
    int disk = -1;
    uint32_t block = 0;
    uint32_t slice = 0;
};
// Parses a recording name (optionally behind a directory or a device path);
// throws a usage failure for anything that is not one.
FileName parse_name(const std::string& arg);
// Whether an extension is one the disk can hold and a name can carry: 1 to
// 7 printable characters, no '/'.
bool valid_extension(const std::string& ext);

// ---- listings -----------------------------------------------------------------------

// One file as the listings and stat report it.
struct FileRow {
    std::string name;
    int disk = 0;
    uint32_t block = 0;
    uint32_t slice = 0;
    uint32_t channel = 0;
    uint64_t size = 0;
    int64_t start = 0;
    int64_t end = 0;
    uint32_t lock = 0;  // 0 normal, 1 locked, 2 backup
    int64_t recType = 0;
    uint8_t usrParam[32] = {};
};
FileRow file_row(const TQvFileStat& st, int disk);
const char* lock_text(uint32_t lock);

// One block in use as `blocks` reports it.
struct BlockRow {
    uint32_t block = 0;
    int64_t channel = -1;  // -1: unknown (the block holds no file)
    uint32_t type = 0;     // block type
    int64_t start = 0;
    int64_t end = 0;
    uint32_t files = 0;
    uint32_t state = 0;    // 0 not allocated, 1 current, 2 full
    bool locked = false;
};
const char* state_text(uint32_t state);

// Number of blocks of a mounted disk (its data area), 0 when not ready.
uint32_t disk_blocks(const Disk& d);
// The blocks in use of a mounted disk, with channel and state.
std::vector<BlockRow> used_blocks(const Disk& d);
// The files of one block of a mounted disk, in slice order. Reads only as
// much of the slice directory as the header's file count needs.
std::vector<FileRow> block_files(const Disk& d, uint32_t block);

// ---- subcommands -----------------------------------------------------------------------

// Each adds its subcommands to the app; the callback it installs stores the
// action that main runs after the whole command line has been parsed.
void add_disk_commands(CLI::App& app);
void add_file_commands(CLI::App& app);
void add_check_command(CLI::App& app);
void add_ipc_command(CLI::App& app);
void add_timeline_command(CLI::App& app);
#ifdef QVFS_TOOL_FUSE
void add_view_command(CLI::App& app);
#endif
void set_action(std::function<int()> action);

}  // namespace qvfs::cli
