// Recording file names: stems, check codes, parsing and the 16/27 forms.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "fsc.h"

namespace {

std::string stem(uint32_t disk, int32_t block, uint32_t slice, uint8_t* tag, uint32_t kind) {
    char out[32];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(0, _bf_MakeFileName(disk, block, slice, out, tag, kind));
    return std::string(out);
}

}  // namespace

TEST(FileNameMake, FreshCodeFillsTagAndStem) {
    uint8_t tag[8] = {};
    const std::string s = stem(3, 0x12, 1, tag, 0);
    ASSERT_EQ(24u, s.size()) << s;
    const std::string code = s.substr(12, 4);
    EXPECT_EQ("H30000120001" + code + "0000C03.", s);
    EXPECT_TRUE(std::all_of(code.begin(), code.end(), [](char c) { return std::isdigit(c) || (c >= 'A' && c <= 'F'); }))
        << code;
    // The tag becomes the entry's magic and check code.
    EXPECT_EQ("QVND" + code, std::string(reinterpret_cast<char*>(tag), 8));
}

TEST(FileNameMake, KindsDiskCharactersAndFieldWidths) {
    // A set tag keeps its code exactly: no new one is drawn, case kept.
    uint8_t tag[8] = {'Q', 'V', 'N', 'D', 'a', 'B', '1', '9'};
    const struct { uint32_t disk; int32_t block; uint32_t slice, kind; const char* want; } rows[] = {
        {3, 0x12, 1, 1, "H30000120001aB190000L03."},
        {3, 0x12, 1, 2, "H30000120001aB190000B03."},
        {3, 0x12, 1, 7, "H30000120001aB190000C03."},
        {11, 0, 2, 0, "Hb0000000002aB190000C0b."},  // disks 10..24 are letters, location '0'
        {24, 0xABCDEF, 0xFFFF, 0, "HoABCDEFFFFFaB190000C0o."},
    };
    for (const auto& r : rows) EXPECT_EQ(r.want, stem(r.disk, r.block, r.slice, tag, r.kind));
    EXPECT_EQ(0, std::memcmp(tag, "QVNDaB19", 8));
}

TEST(FileNameParse, NamesPathsAndRefusals) {
    // disk -1: refused, output untouched. Never an error code.
    const struct { const char* name; int disk; uint32_t block; } rows[] = {
        {"H5ABCDEF00011A2B0000C05.rvd", 5, 0xABCDEF},
        {"/dev/scsi/host07/H5000123000112340000C05.rvd", 7, 0x123},  // the device prefix decides the disk
        {"some/dir/Ha0000FF000112340000C0a.jpg", 10, 0xFF},          // (location, digit): 0 * 24 + 10
        {"H0000001000112340000C10.rvd", 24, 1},                      // location '1' counts 24 disks
        {"H00012zz000112340000C00.rvd", 0, 0x12},                    // hex stops at the first non-hex
        {"H5ABCDEF00011A2B0000C05rvd", -1, 0},                       // no dot
        {"H5ABCDEF00011A2B0000C5.rvd", -1, 0},                       // dot at 22
        {"a.H5ABCDEF00011A2B0000C05.rvd", -1, 0},                    // first dot too early
        {"", -1, 0},
        {nullptr, -1, 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name != nullptr ? r.name : "(null)");
        uint32_t out[2] = {99, 99};
        errno = 0;
        EXPECT_EQ(r.disk < 0 ? -1 : 0, _bf_ParseFileName(r.name, out));
        EXPECT_EQ(r.disk < 0 ? 99u : static_cast<uint32_t>(r.disk), out[0]);
        EXPECT_EQ(r.disk < 0 ? 99u : r.block, out[1]);
        EXPECT_EQ(0, errno);
    }
    EXPECT_EQ(-1, _bf_ParseFileName("H5ABCDEF00011A2B0000C05.rvd", nullptr));

    // Made stems parse back.
    for (uint32_t disk : {0u, 10u, 24u}) {
        uint8_t tag[8] = {};
        const std::string name = stem(disk, 0x1FFFF, 0x0FFF, tag, 1) + "rvd";
        uint32_t out[2] = {};
        ASSERT_EQ(0, _bf_ParseFileName(name.c_str(), out)) << name;
        EXPECT_EQ(disk, out[0]) << name;
        EXPECT_EQ(0x1FFFFu, out[1]) << name;
    }
}

TEST(FileNameForms, ConversionsBothWays) {
    // Kind, location and disk characters always come back as "C00"; an
    // extension other than jpg and rvd comes back as rvd.
    const struct { const char* name; uint8_t ext; const char* back; } rows[] = {
        {"H3000012000112AB0000L03.jpg", 1, "H3000012000112AB0000C00.jpg"},
        {"H3000012000112AB0000C03.rvd", 0, "H3000012000112AB0000C00.rvd"},
        {"H3000012000112AB0000C03.avi", 0xFF, "H3000012000112AB0000C00.rvd"},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.name);
        uint8_t n16[16];
        char back[64];
        ASSERT_EQ(0, fsc_FileName27To16(n16, r.name));
        EXPECT_EQ(0, std::memcmp(n16, r.name + 1, 15));
        EXPECT_EQ(r.ext, n16[15]);
        ASSERT_EQ(0, fsc_FileName16To27(n16, back, sizeof back));
        EXPECT_STREQ(r.back, back);
    }
}

TEST(FileNameForms, RefusalsEmptyNamesAndShortBuffers) {
    // Refusals leave the output untouched; a 28-byte buffer holding no
    // terminator is refused without reading on.
    uint8_t n16[16];
    std::memset(n16, 0xAA, sizeof n16);
    char unterminated[28];
    std::memset(unterminated, 'H', sizeof unterminated);
    const char* bad[] = {"", "H3000012000112AB0000C03.rv", "H3000012000112AB0000C03.rvdd", unterminated};
    for (std::size_t i = 0; i < std::size(bad); ++i) {
        errno = 0;
        EXPECT_EQ(-1, fsc_FileName27To16(n16, bad[i])) << i;
        EXPECT_EQ(QVFS_ERR_BADHANDLE, errno) << i;
    }
    EXPECT_EQ(std::vector<uint8_t>(16, 0xAA), std::vector<uint8_t>(n16, n16 + 16));

    // A 16-byte name with byte 0 zero stands for no name; the output size
    // bounds the text.
    const uint8_t none[16] = {0, '5'};
    char out[40];
    std::memset(out, 'z', sizeof out);
    EXPECT_EQ(0, fsc_FileName16To27(none, out, sizeof out));
    EXPECT_EQ('z', out[0]);
    ASSERT_EQ(0, fsc_FileName27To16(n16, "H3000012000112AB0000C03.rvd"));
    EXPECT_EQ(0, fsc_FileName16To27(n16, out, 10));
    EXPECT_STREQ("H30000120", out);
}
