// The qvfs tool's disk subcommands, run as a real process against sandbox
// images: image, format, df, blocks, unlink-block, tag-bad, dump; the error
// line and exit code of each kind of failure; help on every level.
#include <gtest/gtest.h>

#if defined(QVFS_TOOL_PATH) && defined(QVFS_TOOL_RUNNER) && __has_include(<nlohmann/json.hpp>)

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include <nlohmann/json.hpp>

#include "disk/df_format.h"
#include "support/cli_env.h"
#include "support/disk_env.h"

namespace qvfs::test {
namespace {

using Json = nlohmann::json;
using qvfs::disk::kDataStart;

constexpr int32_t kT0 = 1709287200;  // 2024-03-01T10:00:00Z

std::string iso_utc(int64_t t) {
    const time_t tt = static_cast<time_t>(t);
    std::tm tm{};
    gmtime_r(&tt, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S+00:00", &tm);
    return buf;
}

class CliDisk : public CliTest {
protected:
    CliDisk() : CliTest(QVFS_TOOL_PATH, QVFS_TOOL_RUNNER) {}

    // Runs the tool and parses its JSON output; fails the test on a
    // non-zero status or output that is not JSON.
    Json json(const std::vector<std::string>& args) {
        const ToolRun r = qvfs(args);
        EXPECT_EQ(0, r.status) << r.describe();
        const Json j = Json::parse(r.out, nullptr, false);
        EXPECT_FALSE(j.is_discarded()) << r.describe();
        return j;
    }

    std::vector<uint8_t> bytes(size_t n, uint32_t seed) { return pattern(seed, 0, n); }

    void write_image(int disk, uint64_t off, const void* buf, size_t n) {
        const int fd = ::open(sbx_.image_path(disk).c_str(), O_RDWR);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(static_cast<ssize_t>(n), ::pwrite(fd, buf, n, static_cast<off_t>(off)));
        ::close(fd);
    }
    std::vector<uint8_t> read_image(int disk, uint64_t off, size_t n) {
        std::vector<uint8_t> out(n);
        const int fd = ::open(sbx_.image_path(disk).c_str(), O_RDONLY);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(static_cast<ssize_t>(n), ::pread(fd, out.data(), n, static_cast<off_t>(off)));
        ::close(fd);
        return out;
    }
};

// Every failure is one line on standard error, starting with "qvfs: ".
void expect_one_error_line(const ToolRun& r) {
    ASSERT_FALSE(r.err.empty()) << r.describe();
    EXPECT_EQ(0u, r.err.rfind("qvfs: ", 0)) << r.describe();
    EXPECT_EQ(r.err.size() - 1, r.err.find('\n')) << r.describe();
}

TEST_F(CliDisk, ImageFormatAndDfOfAFreshDisk) {
    const uint64_t size = image_bytes_for(3);
    const std::string real = sbx_.root() + Sandbox::device_path(2);
    Json j = json({"image", "2", std::to_string(size), "--json"});
    EXPECT_EQ((Json{{"disk", 2}, {"device", "/dev/scsi/host02/part1"}, {"path", real}, {"size", size}, {"blocks", 3}}), j);
    struct stat st;
    ASSERT_EQ(0, ::stat(real.c_str(), &st));
    EXPECT_EQ(static_cast<off_t>(size), st.st_size);
    EXPECT_LT(st.st_blocks * 512, 1 << 20) << "the image must be sparse";

    // An existing image is kept unless --force says to resize it.
    ToolRun again = qvfs({"image", "2", "1G"});
    EXPECT_EQ(1, again.status);
    EXPECT_NE(std::string::npos, again.err.find("exists (use --force")) << again.describe();
    expect_one_error_line(again);
    EXPECT_EQ(0, qvfs({"image", "2", std::to_string(size), "--force"}).status);

    j = json({"format", "/dev/scsi/host02/part1", "--json"});
    EXPECT_EQ(3, j["blocks"]);
    EXPECT_EQ(3 * kGiB, j["capacity"].get<uint64_t>());

    j = json({"--json", "df", "2"});
    const Json types = {{"REC", 0}, {"IMG", 0}, {"BACK", 0}, {"PIC", 0}, {"FPD", 0}, {"ITS", 0}};
    EXPECT_EQ((Json{{"disks",
                     {{{"disk", 2},
                       {"device", "/dev/scsi/host02/part1"},
                       {"formatted", true},
                       {"blocks", 3},
                       {"used", 0},
                       {"free", 3},
                       {"bad", 0},
                       {"block_size", kGiB},
                       {"capacity", 3 * kGiB},
                       {"free_space", 3 * kGiB},
                       {"types", types}}}}}),
              j);

    // Without a root the image would land in the real /dev: refused.
    const ToolRun noRoot = qvfs_plain({"image", "2", "4G"}, {"QVFS_ROOT="});
    EXPECT_EQ(1, noRoot.status);
    EXPECT_NE(std::string::npos, noRoot.err.find("needs --root")) << noRoot.describe();
}

TEST_F(CliDisk, FormatLaysOutTheSizeAskedForAndZeroesBlockHeads) {
    sbx_.add_disk(2, image_bytes_for(3));
    EXPECT_EQ(0, qvfs({"format", "2"}).status);
    // Something left in two block heads, where a mode-0 format never looks.
    const std::vector<uint8_t> junk(4096, 0xA5);
    write_image(2, kDataStart + 1 * kGiB, junk.data(), junk.size());
    write_image(2, kDataStart + 2 * kGiB + (8u << 20), junk.data(), junk.size());

    const ToolRun r = qvfs({"format", "2", "--zero-heads", "--progress"});
    ASSERT_EQ(0, r.status) << r.describe();
    EXPECT_EQ("formatted disk 2 (/dev/scsi/host02/part1): 3 blocks of 1.0 GiB, 3.0 GiB, block heads zeroed\n", r.out);
    EXPECT_NE(std::string::npos, r.err.find("format disk 2")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("3 / 3 blocks")) << r.err;
    EXPECT_EQ(std::vector<uint8_t>(4096, 0), read_image(2, kDataStart + 1 * kGiB, 4096));
    EXPECT_EQ(std::vector<uint8_t>(4096, 0), read_image(2, kDataStart + 2 * kGiB + (8u << 20), 4096));
    // Without --progress and without a terminal, standard error stays clean.
    const ToolRun quiet = qvfs({"format", "2"});
    EXPECT_EQ("", quiet.err);

    EXPECT_EQ(1, json({"format", "2", "--size", std::to_string(image_bytes_for(1)), "--json"})["blocks"]);
    EXPECT_EQ(1, json({"df", "2", "--json"})["disks"][0]["blocks"]);

    const ToolRun small = qvfs({"format", "2", "--size", "512M"});
    EXPECT_EQ(1, small.status);
    EXPECT_EQ(std::string("qvfs: cannot format disk 2 (/dev/scsi/host02/part1): ") +
                  qvfs_ErrorString(QVFS_ERR_FMT_TOOSMALL) + " (4004)\n",
              small.err);
    EXPECT_EQ(2, qvfs({"format", "2", "--size", "4G", "--zero-heads"}).status);
}

TEST_F(CliDisk, FormatLeavesADiskThatOthersUseAloneUnlessForced) {
    const std::string name = record(1, 0, kT0, bytes(100, 1));
    // This process (the "recorder") has disk 0 mounted.
    ToolRun r = qvfs({"format", "0"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("qvfs: cannot format disk 0 (/dev/scsi/host00/part1): 1 other process has it mounted "
              "(--force formats it anyway)\n",
              r.err);
    TQvFileStat st;
    EXPECT_EQ(0, qvfs_Stat(name.c_str(), &st)) << "the recording must survive the refusal";

    r = qvfs({"format", "0", "--force"});
    EXPECT_EQ(0, r.status) << r.describe();
    EXPECT_EQ(0, json({"df", "0", "--json"})["disks"][0]["used"]);
}

TEST_F(CliDisk, DfCountsBlocksAndTheSpaceOfEachDataType) {
    record(1, 0, kT0, bytes(1000, 1));
    record(1, 0, kT0 + 60, bytes(1000, 2));  // same channel and type: same block
    record(2, 3, kT0, bytes(1000, 3));       // pictures: a block of their own
    sbx_.add_disk(5, image_bytes_for(2));    // present, never formatted

    Json j = json({"df", "--json"});  // every disk present
    ASSERT_EQ(2u, j["disks"].size()) << j.dump();
    const Json& d0 = j["disks"][0];
    EXPECT_EQ(0, d0["disk"]);
    EXPECT_EQ(4, d0["blocks"]);
    EXPECT_EQ(2, d0["used"]);
    EXPECT_EQ(2, d0["free"]);
    EXPECT_EQ(0, d0["bad"]);
    EXPECT_EQ(2 * kGiB, d0["free_space"].get<uint64_t>());
    EXPECT_EQ(kGiB, d0["types"]["REC"].get<uint64_t>());
    EXPECT_EQ(kGiB, d0["types"]["IMG"].get<uint64_t>());
    EXPECT_EQ(0, d0["types"]["PIC"]);
    EXPECT_EQ((Json{{"disk", 5}, {"device", "/dev/scsi/host05/part1"}, {"formatted", false}}),
              (Json{{"disk", j["disks"][1]["disk"]}, {"device", j["disks"][1]["device"]},
                    {"formatted", j["disks"][1]["formatted"]}}));

    // Text: a header and one row per disk, exact bytes on request.
    const ToolRun t = qvfs({"df", "0", "--bytes"});
    ASSERT_EQ(0, t.status) << t.describe();
    EXPECT_EQ(0u, t.out.find("DISK  BLOCKS  USED  FREE  BAD")) << t.out;
    EXPECT_NE(std::string::npos, t.out.find(std::to_string(4 * kGiB))) << t.out;
    EXPECT_EQ(2, std::count(t.out.begin(), t.out.end(), '\n'));
}

TEST_F(CliDisk, BlocksShowChannelTypeTimesFilesAndState) {
    record(1, 0, kT0, bytes(5000, 1));
    record(1, 0, kT0 + 600, bytes(5000, 2));
    record(2, 3, kT0 + 7200, bytes(5000, 3));
    // A request that cannot fit beside the data of block 0 moves channel 1
    // on to a new block; block 0 is then full.
    record(1, 0, kT0 + 3600, bytes(5000, 4), 0, 0x3FC00000);
    const int64_t now = ::time(nullptr);

    const Json j = json({"blocks", "0", "--json"});
    ASSERT_EQ(3u, j["blocks"].size()) << j.dump(2);
    const auto block = [&](int b, int chn, const char* type, int64_t start, int files, const char* state) {
        // The end is the time of the last write: taken from the output after
        // checking that it is recent.
        const int64_t end = j["blocks"][b]["end_epoch"];
        EXPECT_LE(now - 60, end);
        EXPECT_LE(end, now + 1);
        return Json{{"block", b},       {"channel", chn},     {"type", type},   {"start", iso_utc(start)},
                    {"start_epoch", start}, {"end", iso_utc(end)}, {"end_epoch", end}, {"files", files},
                    {"state", state},   {"locked", false}};
    };
    EXPECT_EQ(block(0, 1, "REC", kT0, 2, "full"), j["blocks"][0]);
    EXPECT_EQ(block(1, 2, "IMG", kT0 + 7200, 1, "current"), j["blocks"][1]);
    EXPECT_EQ(block(2, 1, "REC", kT0 + 3600, 1, "current"), j["blocks"][2]);

    const auto blocks_of = [&](std::vector<std::string> args) {
        args.insert(args.begin(), {"blocks", "0", "--json"});
        std::vector<int> out;
        const Json j = json(args);
        for (const Json& b : j["blocks"]) out.push_back(b["block"]);
        return out;
    };
    EXPECT_EQ((std::vector<int>{1}), blocks_of({"--channel", "2"}));
    EXPECT_EQ((std::vector<int>{0, 2}), blocks_of({"--type", "rec"}));
    EXPECT_EQ((std::vector<int>{1}), blocks_of({"--type", "IMG"}));
    EXPECT_EQ((std::vector<int>{0, 2}), blocks_of({"--to", "2024-03-01T11:00:00"}));
    EXPECT_EQ((std::vector<int>{0}), blocks_of({"--to", "2024-03-01T10:59:59"}));
    EXPECT_EQ((std::vector<int>{}), blocks_of({"--from", "2037-12-31"}));
    EXPECT_EQ((std::vector<int>{0, 2}), blocks_of({"--channel", "1", "--from", "2024-03-01", "--to", "@1709294400"}));

    const ToolRun t = qvfs({"blocks", "0"});
    ASSERT_EQ(0, t.status) << t.describe();
    EXPECT_EQ(0u, t.out.find("BLOCK  CHANNEL  TYPE  START")) << t.out;
    EXPECT_NE(std::string::npos, t.out.find("2024-03-01T10:00:00")) << t.out;
    EXPECT_EQ(4, std::count(t.out.begin(), t.out.end(), '\n'));
    EXPECT_EQ(2, qvfs({"blocks", "0", "--type", "MOVIE"}).status);
    EXPECT_EQ(2, qvfs({"blocks", "0", "--channel", "1024"}).status);
}

TEST_F(CliDisk, UnlinkBlockReleasesABlockWithItsFiles) {
    const std::string a = record(1, 0, kT0, bytes(100, 1));
    const std::string b = record(1, 0, kT0 + 1, bytes(100, 2));
    const std::string c = record(2, 0, kT0, bytes(100, 3));

    EXPECT_EQ((Json{{"disk", 0}, {"block", 0}, {"released", true}}), json({"unlink-block", "0", "0", "--json"}));
    TQvFileStat st;
    EXPECT_EQ(-1, qvfs_Stat(a.c_str(), &st));
    EXPECT_EQ(-1, qvfs_Stat(b.c_str(), &st));
    EXPECT_EQ(0, qvfs_Stat(c.c_str(), &st));
    EXPECT_EQ(1u, json({"blocks", "0", "--json"})["blocks"].size());

    ToolRun r = qvfs({"unlink-block", "0", "0"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("qvfs: cannot unlink block 0 of disk 0 (/dev/scsi/host00/part1): the block is not in use\n", r.err);
    r = qvfs({"unlink-block", "0", "4"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("qvfs: block 4 is beyond the 4 blocks of disk 0 (/dev/scsi/host00/part1)\n", r.err);

    // A block that this (the "recorder") process holds goes back when the
    // holder lets go.
    const int h = open_name(c);
    ASSERT_GE(h, 0);
    EXPECT_EQ(false, json({"unlink-block", "0", "1", "--json"})["released"]);
    QvfsBlockStat bs{};
    ASSERT_EQ(0, qvfs_GetBlockStat(0, 1, &bs));
    EXPECT_NE(0u, bs.state);
    EXPECT_EQ(0, qvfs_Close(h));
    ASSERT_EQ(0, qvfs_GetBlockStat(0, 1, &bs));
    EXPECT_EQ(0u, bs.state);
}

TEST_F(CliDisk, TagBadMarksEveryBlockTouchingTheRange) {
    const std::string off = std::to_string(kDataStart + 2 * kGiB + 10);
    EXPECT_EQ((Json{{"disk", 0}, {"offset", kDataStart + 2 * kGiB + 10}, {"length", 20}, {"newly_bad", 1}, {"bad", 1}}),
              json({"tag-bad", "0", off, "20", "--json"}));
    // A range that ends where the data area begins touches no block; one
    // that covers a whole block also marks the block behind its end.
    EXPECT_EQ(0, json({"tag-bad", "0", "0", "0x41100000", "--json"})["newly_bad"]);
    EXPECT_EQ(2, json({"tag-bad", "0", "0x41100000", "1G", "--json"})["newly_bad"]);
    const Json d = json({"df", "0", "--json"})["disks"][0];
    EXPECT_EQ(3, d["bad"]);
    EXPECT_EQ(1, d["free"]);

    ToolRun r = qvfs({"tag-bad", "0", std::to_string(image_bytes_for(4)), "1"});
    EXPECT_EQ(1, r.status);
    EXPECT_NE(std::string::npos, r.err.find("(1002)")) << r.describe();
    expect_one_error_line(r);
    EXPECT_EQ(2, qvfs({"tag-bad", "0", "0", "0"}).status);
    EXPECT_EQ(2, qvfs({"tag-bad", "0", "0", "5G"}).status);
    EXPECT_EQ(2, qvfs({"tag-bad", "0", "-1", "5"}).status);
    EXPECT_EQ(2, qvfs({"tag-bad", "0", "12Q", "5"}).status);
}

TEST_F(CliDisk, DumpShowsEveryLayerAsTextAndAsJson) {
    record(1, 0, kT0, bytes(100, 1));
    const ToolRun t = qvfs({"dump"});
    ASSERT_EQ(0, t.status) << t.describe();
    for (const char* banner : {"QVFS", "QVFILE", "QVBLOCK", "QVDISK"})
        EXPECT_NE(std::string::npos, t.out.find(std::string("=") + banner + "=")) << banner << "\n" << t.out;

    const Json j = json({"dump", "0", "--json"});
    for (const char* section : {"QVFS", "QVFILE", "QVBLOCK", "QVDISK"}) EXPECT_TRUE(j.contains(section)) << section;
    ASSERT_EQ(1u, j["QVDISK"].size()) << j.dump(2);
    const Json& disk = j["QVDISK"][0];
    EXPECT_EQ("0", disk["id"]);
    EXPECT_EQ("4", disk["tolblk"]);
    EXPECT_EQ("1", disk["useblk"]);
    EXPECT_EQ("1", disk["REC"]);
    // Mounted by this process and by the tool while it dumps.
    EXPECT_EQ("2", disk["mounted"]);
}

TEST_F(CliDisk, FailuresSayWhatOnWhatAndWhyInOneLine) {
    ToolRun r = qvfs({"df", "3"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(std::string("qvfs: cannot mount disk 3 (/dev/scsi/host03/part1): ") +
                  qvfs_ErrorString(QVFS_ERR_SYS + ENOENT) + " (3002)\n",
              r.err);

    sbx_.add_disk(4, image_bytes_for(1));
    r = qvfs({"blocks", "/dev/scsi/host04/part1"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("qvfs: cannot mount disk 4 (/dev/scsi/host04/part1): not a formatted disk (1005)\n", r.err);
    EXPECT_EQ("", r.out);

    for (const std::vector<std::string>& args :
         std::vector<std::vector<std::string>>{{"df", "--bogus"},
                                               {"blocks"},
                                               {"blocks", "25"},
                                               {"blocks", "/dev/sda1"},
                                               {"ls", "0", "minus-one"},
                                               {},
                                               {"frobnicate"}}) {
        r = qvfs(args);
        EXPECT_EQ(2, r.status) << r.describe();
        expect_one_error_line(r);
    }
    r = qvfs_plain({"--root", sbx_.root() + "/missing", "df"});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("qvfs: root '" + sbx_.root() + "/missing' is not a directory\n", r.err);
}

TEST_F(CliDisk, HelpOnEveryLevel) {
    ToolRun r = qvfs({"--help"});
    ASSERT_EQ(0, r.status) << r.describe();
    EXPECT_NE(std::string::npos, r.out.find("Usage: qvfs")) << r.out;
    const char* subs[] = {"image", "format", "df",   "blocks", "ls",   "find",   "stat",   "cat",    "export",
                          "rm",    "lock",   "unlock", "unlink-block", "tag-bad", "dump", "check", "import"};
    for (const char* sub : subs) {
        EXPECT_NE(std::string::npos, r.out.find(std::string("  ") + sub + " ")) << sub << " missing from\n" << r.out;
        const ToolRun h = qvfs({sub, "--help"});
        EXPECT_EQ(0, h.status) << sub << h.describe();
        EXPECT_NE(std::string::npos, h.out.find(std::string("Usage: qvfs ") + sub)) << h.out;
        EXPECT_EQ("", h.err) << sub;
    }
    r = qvfs({"--version"});
    EXPECT_EQ(0, r.status);
    EXPECT_EQ(0u, r.out.find("qvfs ")) << r.out;
}

}  // namespace
}  // namespace qvfs::test

#else
TEST(CliDisk, Skipped) { GTEST_SKIP() << "the qvfs tool is not built for this target"; }
#endif
