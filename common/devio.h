// devio.h - positioned whole-piece transfers on a device descriptor.
//
// Every device access of the disk and block-file layers is a positioning
// followed by one TCT_Read or TCT_Write of the whole piece; a transfer that
// moves anything other than the full length counts as failed, and errno is
// left as the system call set it (0 for a short transfer), so that callers
// add 3000 to it.
#pragma once

#include <cerrno>
#include <cstdint>

#include "fsc.h"
#include "platform.h"

namespace qvfs {

inline bool dev_read_at(int fd, uint64_t offset, void* buf, uint32_t len, int type = 0) {
    if (plat::seek(fd, offset) < 0) return false;
    errno = 0;
    return TCT_Read(fd, buf, len, type) == static_cast<int>(len);
}

inline bool dev_write_at(int fd, uint64_t offset, const void* buf, uint32_t len, int type = 0) {
    if (plat::seek(fd, offset) < 0) return false;
    errno = 0;
    return TCT_Write(fd, buf, len, type) == static_cast<int>(len);
}

// errno := code (a library error code).
inline void set_error(int code) { errno = code; }
// errno := errno + 3000, reporting a failed system call.
inline void raise_sys_error() { errno += QVFS_ERR_SYS; }

}  // namespace qvfs
