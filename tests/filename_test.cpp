// Recording file names: stems, check codes, parsing and the 16/27 forms.
#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <string>

#include "fsc.h"

namespace {

std::string stem(uint32_t disk, int32_t block, uint32_t slice, uint8_t* tag, uint32_t kind) {
    char out[32];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(0, _bf_MakeFileName(disk, block, slice, out, tag, kind));
    return std::string(out);
}

bool is_upper_hex(const std::string& s) {
    for (char c : s)
        if (!std::isxdigit(static_cast<unsigned char>(c)) || std::islower(static_cast<unsigned char>(c)))
            return false;
    return true;
}

}  // namespace

TEST(FileNameMake, FreshCodeFillsTagAndStem) {
    uint8_t tag[8] = {};
    std::string s = stem(3, 0x12, 1, tag, 0);
    ASSERT_EQ(24u, s.size()) << s;
    EXPECT_EQ("H3", s.substr(0, 2));
    EXPECT_EQ("000012", s.substr(2, 6));
    EXPECT_EQ("0001", s.substr(8, 4));
    std::string code = s.substr(12, 4);
    EXPECT_TRUE(is_upper_hex(code)) << code;
    EXPECT_EQ("0000C03.", s.substr(16));
    // The tag becomes the entry's magic and check code.
    EXPECT_EQ(0, std::memcmp(tag, "QVND", 4));
    EXPECT_EQ(code, std::string(reinterpret_cast<char*>(tag + 4), 4));
}

TEST(FileNameMake, KindsDiskCharactersAndFieldWidths) {
    uint8_t tag[8] = {'Q', 'V', 'N', 'D', 'a', 'B', '1', '9'};
    // A set tag keeps its code exactly (no new one is drawn, case kept).
    EXPECT_EQ("H3000012" "0001" "aB19" "0000L03.", stem(3, 0x12, 1, tag, 1));
    EXPECT_EQ("H3000012" "0001" "aB19" "0000B03.", stem(3, 0x12, 1, tag, 2));
    EXPECT_EQ("H3000012" "0001" "aB19" "0000C03.", stem(3, 0x12, 1, tag, 7));
    EXPECT_EQ(0, std::memcmp(tag, "QVNDaB19", 8));
    // Disks 10..24 are letters; the location character is '0'.
    EXPECT_EQ("Hb000000" "0002" "aB19" "0000C0b.", stem(11, 0, 2, tag, 0));
    EXPECT_EQ("Ho" "ABCDEF" "FFFF" "aB19" "0000C0o.", stem(24, 0xABCDEF, 0xFFFF, tag, 0));
}

TEST(FileNameParse, BareNamesAndPaths) {
    uint32_t out[2] = {99, 99};
    const char* bare = "H5ABCDEF00011A2B0000C05.rvd";
    errno = 0;
    ASSERT_EQ(0, _bf_ParseFileName(bare, out));
    EXPECT_EQ(5u, out[0]);
    EXPECT_EQ(0xABCDEFu, out[1]);
    EXPECT_EQ(0, errno);

    // The device prefix decides the disk over the name's own characters.
    ASSERT_EQ(0, _bf_ParseFileName("/dev/scsi/host07/H5000123000112340000C05.rvd", out));
    EXPECT_EQ(7u, out[0]);
    EXPECT_EQ(0x123u, out[1]);

    // Disk from the (location, digit) pair: 'a' reads 10, so 0 * 24 + 10.
    ASSERT_EQ(0, _bf_ParseFileName("some/dir/Ha0000FF000112340000C0a.jpg", out));
    EXPECT_EQ(10u, out[0]);
    EXPECT_EQ(0xFFu, out[1]);
    // Location '1' counts 24 disks.
    ASSERT_EQ(0, _bf_ParseFileName("H0000001000112340000C10.rvd", out));
    EXPECT_EQ(24u, out[0]);
    // Hex reading stops at the first non-hex character.
    ASSERT_EQ(0, _bf_ParseFileName("H00012zz000112340000C00.rvd", out));
    EXPECT_EQ(0x12u, out[1]);
}

TEST(FileNameParse, RefusalsSetNoErrorCode) {
    uint32_t out[2] = {7, 7};
    errno = 0;
    EXPECT_EQ(-1, _bf_ParseFileName("H5ABCDEF00011A2B0000C05rvd", out));   // no dot
    EXPECT_EQ(-1, _bf_ParseFileName("H5ABCDEF00011A2B0000C5.rvd", out));   // dot at 22
    EXPECT_EQ(-1, _bf_ParseFileName("a.H5ABCDEF00011A2B0000C05.rvd", out)); // first dot too early
    EXPECT_EQ(-1, _bf_ParseFileName("", out));
    EXPECT_EQ(-1, _bf_ParseFileName("H5ABCDEF00011A2B0000C05.rvd", nullptr));
    EXPECT_EQ(-1, _bf_ParseFileName(nullptr, out));
    EXPECT_EQ(0, errno);
    EXPECT_EQ(7u, out[0]);
    EXPECT_EQ(7u, out[1]);
}

TEST(FileNameParse, MadeStemsParseBack) {
    for (uint32_t disk : {0u, 10u, 24u}) {
        uint8_t tag[8] = {};
        std::string name = stem(disk, 0x1FFFF, 0x0FFF, tag, 1) + "rvd";
        uint32_t out[2] = {};
        ASSERT_EQ(0, _bf_ParseFileName(name.c_str(), out)) << name;
        EXPECT_EQ(disk, out[0]) << name;
        EXPECT_EQ(0x1FFFFu, out[1]) << name;
    }
}

TEST(FileNameForms, JpgRoundTripAndOtherExtensions) {
    const char* jpg = "H3000012000112AB0000L03.jpg";
    uint8_t n16[16];
    ASSERT_EQ(0, fsc_FileName27To16(n16, jpg));
    EXPECT_EQ(0, std::memcmp(n16, jpg + 1, 15));
    EXPECT_EQ(1, n16[15]);
    char back[64];
    ASSERT_EQ(0, fsc_FileName16To27(n16, back, sizeof back));
    // Kind, location and disk characters always come back as "C00".
    EXPECT_STREQ("H3000012000112AB0000C00.jpg", back);

    ASSERT_EQ(0, fsc_FileName27To16(n16, "H3000012000112AB0000C03.rvd"));
    EXPECT_EQ(0, n16[15]);
    ASSERT_EQ(0, fsc_FileName27To16(n16, "H3000012000112AB0000C03.avi"));
    EXPECT_EQ(0xFF, n16[15]);
    ASSERT_EQ(0, fsc_FileName16To27(n16, back, sizeof back));
    EXPECT_STREQ("H3000012000112AB0000C00.rvd", back);

    // Without a device prefix, a converted name reads disk 0.
    uint32_t out[2] = {9, 9};
    ASSERT_EQ(0, _bf_ParseFileName(back, out));
    EXPECT_EQ(0u, out[0]);
    EXPECT_EQ(0x12u, out[1]);
}

TEST(FileNameForms, RefusalsAndEmptyNames) {
    uint8_t n16[16];
    std::memset(n16, 0xAA, sizeof n16);
    const char* bad[] = {"", "H3000012000112AB0000C03.rv", "H3000012000112AB0000C03.rvdd"};
    for (const char* b : bad) {
        errno = 0;
        EXPECT_EQ(-1, fsc_FileName27To16(n16, b)) << b;
        EXPECT_EQ(QVFS_ERR_BADHANDLE, errno) << b;
    }
    // A 28-byte buffer holding no terminator is refused without reading on.
    char unterminated[28];
    std::memset(unterminated, 'H', sizeof unterminated);
    EXPECT_EQ(-1, fsc_FileName27To16(n16, unterminated));
    for (uint8_t b : n16) EXPECT_EQ(0xAA, b) << "refusals leave the output untouched";

    // A 16-byte name with byte 0 zero stands for no name.
    uint8_t none[16] = {};
    none[1] = '5';
    char out[40];
    std::memset(out, 'z', sizeof out);
    EXPECT_EQ(0, fsc_FileName16To27(none, out, sizeof out));
    EXPECT_EQ('z', out[0]);

    // The output size bounds the text.
    uint8_t n[16];
    ASSERT_EQ(0, fsc_FileName27To16(n, "H3000012000112AB0000C03.rvd"));
    char small[10];
    EXPECT_EQ(0, fsc_FileName16To27(n, small, sizeof small));
    EXPECT_STREQ("H30000120", small);
}
