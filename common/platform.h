// platform.h - the one seam between the library and the operating system.
//
// Every device open, seek, read, write, writev, fdatasync, fadvise and ioctl,
// every key-file path and ftok, and the task device go through here. Nothing
// else in the library calls open, ioctl or ftok directly.
//
// System paths. The library computes paths such as "/dev/scsi/host03/part1",
// "/dvr/qvfs/qvfslayer" and "/dev/qvfs_task". When the environment variable
// QVFS_ROOT names a directory (read once per process), every absolute system
// path is opened below it ("$QVFS_ROOT/dev/scsi/host03/part1"); the names the
// library computes, returns and prints stay as they are. Unset, the real paths
// are used.
//
// Devices. A device is a block device (a partition, a loop device) or a
// regular file (a sparse disk image); for a regular file the size is the
// file's size and the presence request is not supported (counts as present).
//
// Fault injection. Tests arm faults for a disk and a byte range: reads,
// writes and gathered writes in the range fail with a chosen errno or move
// fewer bytes, and the presence request reports the disk offline. Unarmed,
// the seam costs one relaxed atomic load per transfer.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>
#include <cstddef>
#include <cstdint>

namespace qvfs::plat {

// ---- system paths ---------------------------------------------------------

// The sandbox root ("" when QVFS_ROOT is unset). Read once per process.
const char* root();

// Re-reads QVFS_ROOT. For tests that set the variable after the first use.
void reload_root();

// Writes the real path of a system path into out (size n): the root followed
// by the path when the path is absolute and a root is set, else the path.
// Returns false when it does not fit.
bool real_path(const char* sys_path, char* out, std::size_t n);

// ---- devices --------------------------------------------------------------

// Opens a device (or image file) by its system path; the disk number is taken
// from the path (the digits after "/dev/scsi/host") so that armed faults can
// find the descriptor. Retries EINTR. Returns the descriptor or -1 with errno.
int open_device(const char* sys_path, int flags);

// Closes a descriptor opened here. Returns close's result.
int close_fd(int fd);

// A second descriptor of what a descriptor opened here refers to, known to
// the fault table as the same disk (dup). The descriptor or -1 with errno.
int dup_device(int fd);

// The disk number of a descriptor opened by open_device (from its path), or
// -1 when it names none.
int disk_of(int fd);

// lseek64(fd, offset, SEEK_SET). Returns the new offset or -1 with errno.
int64_t seek(int fd, uint64_t offset);

// One positioned transfer as the system performs it (one call, may be
// short; EINTR retried; the descriptor's position is neither used nor
// moved). These are the library's device transfers, and the one place
// where armed faults take a read, a write or a gathered write: the
// transfer's position is its `pos` argument. A position above INT64_MAX
// fails with EINVAL.
ssize_t pread(int fd, void* buf, std::size_t len, uint64_t pos);
ssize_t pwrite(int fd, const void* buf, std::size_t len, uint64_t pos);
ssize_t pwritev(int fd, const struct iovec* iov, int count, uint64_t pos);

// The same at the descriptor's position, which then moves past what was
// moved: the primitives behind TCT_Read / TCT_Write, built on the
// positioned forms above.
ssize_t read(int fd, void* buf, std::size_t len);
ssize_t write(int fd, const void* buf, std::size_t len);
ssize_t writev(int fd, const struct iovec* iov, int count);

// fdatasync, then drop the device's cached pages (posix_fadvise DONTNEED).
int flush(int fd);

// Size of the device behind a system path in bytes: BLKGETSIZE64, else
// BLKGETSIZE x 512, else 0 (for a regular file its size). -1 with errno when
// the path cannot be opened.
int64_t device_size(const char* sys_path);
// The same for a descriptor already open; -1 with errno when fstat fails.
int64_t device_size_of(int fd);

// ---- caller memory ------------------------------------------------------------

// Whether the first len bytes (at most 64 are probed) at p can be read by
// the process, tested without touching them: tells a transfer that stopped
// at the caller's memory from one the device cut short.
bool memory_readable(const void* p, std::size_t len);

// The presence request (0x400): true when the device counts as present.
// A device that does not support the request (ENOTTY, EINVAL, or not a
// block device) is present; any other failure, or an answer other than 1,
// means offline. An armed "offline" fault for the fd's disk means offline.
bool device_present(int fd);

// ---- key files and System V keys ------------------------------------------

// ftok of a system path (mapped below the root). -1 with errno on failure.
int ftok(const char* sys_path, int proj_id);

// Creates an empty key file (O_RDWR | O_CREAT | O_TRUNC, 0777) at a system
// path. Returns 0 or -1 with errno.
int create_key_file(const char* sys_path);

// Makes a directory and its parents (0777) at a system path. 0 or -1.
int make_dirs(const char* sys_path);

// True when the directory at the system path exists.
bool dir_exists(const char* sys_path);

// ---- task device ----------------------------------------------------------

// Opens the task device "/dev/qvfs_task" (under the root) for reading and
// writing, non-blocking, or the test source when one is set. Returns a
// descriptor (a positive pseudo descriptor for the test source, never passed
// to the kernel) or -1 with errno.
int open_task_device();

// Issues the task-list request (0x40545401) with an 84-byte buffer.
// Returns 0 or -1 with errno.
int task_list(int fd, void* list84);

// ---- fault injection (tests only) ------------------------------------------

enum FaultOp : unsigned {
    kFaultRead = 1u << 0,
    kFaultWrite = 1u << 1,
    kFaultWritev = 1u << 2,
    kFaultOffline = 1u << 3,  // presence request reports offline
};

struct Fault {
    int disk = -1;              // disk number; -1 for every disk
    uint64_t begin = 0;         // byte range [begin, end) of the device
    uint64_t end = UINT64_MAX;  // a transfer that overlaps it is hit
    unsigned ops = 0;           // FaultOp bits
    int error = 5;              // errno of a failing transfer (EIO)
    long short_bytes = -1;      // >= 0: move this many bytes instead of failing
    int remaining = -1;         // hits left; -1 unlimited
};

// Arms a fault; returns its id (> 0), or -1 with ENOSPC when 32 are armed.
// The first armed fault that matches a transfer takes it: an error fault
// fails it with `error` and moves nothing; a short fault moves
// min(short_bytes, len) bytes for real and returns that count. A transfer's
// position is its offset argument (for read, write and writev the
// descriptor's current offset); a descriptor's disk is the one named by the
// path open_device opened it with. Offline faults ignore the
// range. Faults are per process (a forked child inherits them).
int fault_add(const Fault& f);
// Disarms one fault, or all with -1.
void fault_clear(int id = -1);
// Number of times armed faults were hit since the last fault_clear(-1).
long fault_hits();
// Whether any fault is armed (one relaxed load): callers that keep an
// answer of the presence request ask the device again while one is, so
// that an armed offline fault acts at once.
bool faults_armed();

// Task-list source for tests: when set, open_task_device() succeeds without
// a device and task_list() calls fn to fill the 84-byte list.
using TaskListFn = int (*)(void* list84, void* ctx);
void set_task_source(TaskListFn fn, void* ctx);

}  // namespace qvfs::plat
