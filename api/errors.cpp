// errors.cpp - words for the library's error codes, so that applications and
// the qvfs tool print the same message for the same failure.
#include <cstdio>
#include <cstring>

#include "disk/df_format.h"
#include "qvfs.h"

namespace {

// The smallest disk that holds a block, in the words of the format's code:
// the data area starts at dataStart, and one block's worth at the device's
// end never belongs to a block.
static_assert(((qvfs::disk::kDataStart + 2ull * qvfs::disk::kBlockSize) >> 20) == 3089 &&
                  (qvfs::disk::kDataStart + 2ull * qvfs::disk::kBlockSize) % (1u << 20) == 0,
              "the words of QVFS_ERR_FMT_TOOSMALL name the smallest disk that holds a block");

// A failed system call is reported as kSys + errno; the format adds kSys once
// more when its metadata writes fail, so kFormatSys + errno names those.
constexpr int kSys = QVFS_ERR_SYS;
constexpr int kFormatSys = 2 * QVFS_ERR_SYS;
// Largest errno the system-code ranges are taken to hold. Linux stays far
// below it; anything above falls through to "unknown".
constexpr int kMaxErrno = 999;

struct CodeText {
    int code;
    const char* text;
};

// One line per code of qvfs_types.h; the words say what went wrong from the
// caller's side, not which function noticed it.
constexpr CodeText kTexts[] = {
    {0, "no error"},
    {QVFS_ERR_BADARG, "bad argument, or no such file"},
    {QVFS_ERR_BADHANDLE, "bad handle, record or range, or no free block"},
    {QVFS_ERR_DISKNUM, "not a disk: number out of range or not a disk path"},
    {QVFS_ERR_NOTFORMATTED, "not a formatted disk"},
    {QVFS_ERR_NOMEM, "out of memory"},
    {QVFS_ERR_PROJID, "key project number out of range"},
    {QVFS_ERR_OLDVERSION, "disk format version too old for this query"},
    {QVFS_ERR_INITFAILED, "the library could not start its layers"},
    {QVFS_ERR_CHANNEL, "channel number out of range (0 to 1023)"},
    {QVFS_ERR_BLOCKRANGE, "offset or length beyond the block"},
    {QVFS_ERR_TOOMANYBLOCKS, "too many blocks loaded in this process"},
    {QVFS_ERR_DAMAGED, "the disk's header or a file entry does not match the format or the device: "
                       "damaged metadata or a truncated device"},
    {QVFS_ERR_FMT_NOSHARE, "format: the disk's shared image is not available"},
    {QVFS_ERR_NOTBAD, "the block is not marked bad"},
    {QVFS_ERR_FMT_TOOSMALL, "format: device or size too small to hold a block (a disk needs at least 3089 MiB)"},
    {QVFS_ERR_NOTINIT, "the library is not initialised"},
    {QVFS_WHY_NOT_INIT, "qvfs_Init has not run in this process"},
    {QVFS_WHY_NOT_MOUNTED, "the disk is not mounted"},
    {QVFS_WHY_DISK_FULL, "the disk is full: no free block for the channel"},
    {QVFS_WHY_CHANNEL, "channel number out of range (0 to 1023)"},
    {QVFS_WHY_HANDLES_FULL, "all handles of this process are open"},
    {QVFS_WHY_FILES_FULL, "all 1024 shared file records are in use"},
    {QVFS_WHY_NO_SUCH_FILE, "no such file"},
    {QVFS_WHY_BAD_NAME, "not a qvfs file name"},
    {QVFS_WHY_FILE_OPEN, "the file is open"},
    {QVFS_WHY_BAD_HANDLE, "the handle is not open"},
    {QVFS_WHY_NOT_WRITABLE, "the handle was opened read-only"},
    {QVFS_WHY_NOT_READABLE, "the handle was opened write-only"},
    {QVFS_WHY_BAD_EXTENSION, "bad extension: 1 to 7 printable characters, no '/'"},
    {QVFS_WHY_BAD_RESERVE, "bad pre-record size: negative or larger than a block"},
    {QVFS_WHY_BLOCK_FULL, "the file's block has no room for these bytes: go on in a new file"},
    {QVFS_WHY_DAMAGED, "the file's entry or the disk's metadata is damaged"},
    {QVFS_WHY_IO, "the device failed; the block is marked bad"},
};

// The message of a system code, in a buffer of the calling thread. The
// GNU strerror_r may return a static string instead of filling buf. Code 0
// comes from a transfer that moved fewer bytes than asked without an error.
const char* system_text(int err, char* buf, size_t n) {
    if (err == 0) return "short transfer (fewer bytes moved than asked)";
#if defined(__GLIBC__) && defined(_GNU_SOURCE)
    return strerror_r(err, buf, n);
#else
    if (strerror_r(err, buf, n) != 0) std::snprintf(buf, n, "system error %d", err);
    return buf;
#endif
}

}  // namespace

extern "C" {

QVFS_API const char* qvfs_ErrorString(int code) {
    for (const CodeText& t : kTexts)
        if (t.code == code) return t.text;

    thread_local char text[160];
    char sys[128];
    if (code >= kFormatSys && code <= kFormatSys + kMaxErrno) {
        std::snprintf(text, sizeof text, "format: metadata not written: %s",
                      system_text(code - kFormatSys, sys, sizeof sys));
        return text;
    }
    if (code >= kSys && code <= kSys + kMaxErrno) {
        std::snprintf(text, sizeof text, "%s", system_text(code - kSys, sys, sizeof sys));
        return text;
    }
    // A bare errno value: some lower calls leave the system's own code.
    if (code > 0 && code <= kMaxErrno) {
        std::snprintf(text, sizeof text, "%s", system_text(code, sys, sizeof sys));
        return text;
    }
    return "unknown error";
}

}  // extern "C"
