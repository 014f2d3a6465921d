// devio.h - positioned whole-piece transfers on a device descriptor.
//
// A device access of the disk and block-file layers is one positioned read
// or write of the whole piece (pread/pwrite through the platform seam, so
// that threads sharing a descriptor need no lock around a seek); a transfer
// that moves anything other than the full length counts as failed, and
// errno is left as the system call set it (0 for a short transfer), so that
// callers add 3000 to it.
#pragma once

#include <cerrno>
#include <cstdint>

#include "fsc.h"
#include "platform.h"

namespace qvfs {

inline bool dev_read_at(int fd, uint64_t offset, void* buf, uint32_t len) {
    errno = 0;
    return plat::pread(fd, buf, len, offset) == static_cast<ssize_t>(len);
}

inline bool dev_write_at(int fd, uint64_t offset, const void* buf, uint32_t len) {
    errno = 0;
    return plat::pwrite(fd, buf, len, offset) == static_cast<ssize_t>(len);
}

// errno := code (a library error code).
inline void set_error(int code) { errno = code; }
// errno := errno + 3000, reporting a failed system call.
inline void raise_sys_error() { errno += QVFS_ERR_SYS; }

}  // namespace qvfs
