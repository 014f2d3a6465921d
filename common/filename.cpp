// filename.cpp - recording file names.
//
// A file has no directory entry: its name says where it lives. Text form,
// 27 characters:
//
//   pos len content
//     0   1 'H'
//     1   1 disk character (fsc_DiskItoA)
//     2   6 block number, upper-case hex
//     8   4 slice number, upper-case hex
//    12   4 check code (the entry's verify)
//    16   4 "0000"
//    20   1 kind: 'C', 'L' locked, 'B' backup
//    21   1 location character (fsc_DiskToLocation)
//    22   1 disk character again
//    23   1 '.'
//    24   3 extension ("rvd", "jpg")
//
// Positions 0..23 are the stem. The 16-byte form kept in slice entries holds
// text characters 1..15 and an extension type (0 ".rvd", 1 ".jpg", 0xFF
// other); byte 0 zero means no name. Readers locate every field from the
// first '.', so a path may precede the name.
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fsc.h"

namespace {

constexpr char kNameMagic[4] = {'Q', 'V', 'N', 'D'};

}  // namespace

extern "C" {

QVFS_API int _bf_MakeFileName(uint32_t disk, int32_t block, uint32_t slice, char* out, uint8_t* tag,
                              uint32_t kind) {
    if (out == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    char field[6] = "0000C";
    char code[5] = {};
    if (tag != nullptr && tag[0] != 0) {
        std::memcpy(code, tag + 4, 4);
    } else {
        // A fresh check code: four hex digits drawn from the clock. It only
        // has to make a reused slice number's old name stop matching.
        struct timeval tv;
        gettimeofday(&tv, nullptr);
        unsigned int seed = static_cast<unsigned int>(tv.tv_sec) ^ static_cast<unsigned int>(tv.tv_usec);
        unsigned int value = static_cast<unsigned int>(rand_r(&seed)) & 0xFFFFu;
        std::snprintf(code, sizeof code, "%04X", value);
        if (tag != nullptr) {
            std::memcpy(tag, kNameMagic, 4);
            std::memcpy(tag + 4, code, 4);
        }
    }
    if (kind == 1) field[4] = 'L';
    else if (kind == 2) field[4] = 'B';
    const char diskChar = static_cast<char>(fsc_DiskItoA(disk));
    const char location = static_cast<char>(fsc_DiskToLocation(static_cast<int>(disk)));
    std::snprintf(out, 25, "H%c%06X%04X%4s%5s%c%c.", diskChar, static_cast<unsigned>(block), slice,
                  code, field, location, diskChar);
    return 0;
}

QVFS_API int _bf_ParseFileName(const char* name, uint32_t* diskAndBlock) {
    if (name == nullptr || diskAndBlock == nullptr) return -1;
    const char* dot = std::strchr(name, '.');
    // The stem stands before the first '.'; a shorter prefix carries no name.
    if (dot == nullptr || dot - name < 23) return -1;
    int disk = fsc_GetDiskNumByPath(name);
    if (disk < 0) {
        disk = static_cast<int>(fsc_DiskAtoI(static_cast<unsigned char>(dot[-2])) * 24 +
                                fsc_DiskAtoI(static_cast<unsigned char>(dot[-1])));
    }
    char digits[7] = {};
    std::memcpy(digits, dot - 21, 6);
    diskAndBlock[0] = static_cast<uint32_t>(disk);
    diskAndBlock[1] = static_cast<uint32_t>(std::strtol(digits, nullptr, 16));
    return 0;
}

QVFS_API int fsc_FileName16To27(const uint8_t* name16, char* out, int n) {
    if (name16 == nullptr || out == nullptr || n <= 0 || name16[0] == 0) return 0;
    const uint8_t type = name16[15] > 1 ? 0 : name16[15];
    char head[16] = {};
    std::memcpy(head, name16, 15);
    std::snprintf(out, size_t(n), "H%s%s%s", head, "0000C00", type == 1 ? ".jpg" : ".rvd");
    return 0;
}

QVFS_API int fsc_FileName27To16(uint8_t* name16, const char* name27) {
    if (name16 == nullptr) {
        errno = QVFS_ERR_BADARG;
        return -1;
    }
    // Exactly 27 characters. Measured with a bound, so that a text without
    // a terminator in its 28 bytes is refused without reading beyond them.
    if (name27 == nullptr || strnlen(name27, QVFS_NAME_LEN + 1) != QVFS_NAME_LEN) {
        errno = QVFS_ERR_BADHANDLE;
        return -1;
    }
    uint8_t type = 0xFF;
    if (std::strstr(name27, ".rvd") != nullptr) type = 0;
    else if (std::strstr(name27, ".jpg") != nullptr) type = 1;
    std::memcpy(name16, name27 + 1, 15);
    name16[15] = type;
    return 0;
}

}  // extern "C"
