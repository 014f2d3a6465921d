// The qvfs tool's disk subcommands, run as a real process against sandbox
// images: image, format, df, dump, blocks, unlink-block, tag-bad; the error
// line and exit code of each kind of failure; help on every level.
#include <gtest/gtest.h>

#if defined(QVFS_TOOL_PATH) && defined(QVFS_TOOL_RUNNER) && __has_include(<nlohmann/json.hpp>)

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "disk/df.h"
#include "support/cli_env.h"

namespace qvfs::test {
namespace {

using Json = nlohmann::json;
using Args = std::vector<std::string>;
using qvfs::disk::kDataStart;

constexpr int32_t kT0 = 1709287200;  // 2024-03-01T10:00:00Z

size_t lines(const std::string& s) { return size_t(std::count(s.begin(), s.end(), '\n')); }

class CliDisk : public CliTest {
protected:
    CliDisk() : CliTest(QVFS_TOOL_PATH, QVFS_TOOL_RUNNER) {}
    Json json(const Args& args) { return json_of(qvfs(args)); }
    std::string rec(uint32_t chn, int32_t type, int32_t start, int32_t resSize = 0) {
        return record(chn, type, start, pattern(uint32_t(start), 0, 5000), 0, resSize);
    }
};

TEST_F(CliDisk, ImageFormatAndDfOfAFreshDisk) {
    const uint64_t size = image_bytes_for(3);
    const std::string dev = "/dev/scsi/host02/part1", real = sbx_.root() + dev;
    EXPECT_EQ((Json{{"disk", 2}, {"device", dev}, {"path", real}, {"size", size}, {"blocks", 3}}),
              json({"image", "2", std::to_string(size), "--json"}));
    struct stat st;
    ASSERT_EQ(0, ::stat(real.c_str(), &st));
    EXPECT_EQ(off_t(size), st.st_size);
    EXPECT_LT(st.st_blocks * 512, 1 << 20) << "the image must be sparse";
    // An existing image is kept unless --force says to resize it; without a
    // root the image would land in the real /dev.
    EXPECT_TRUE(fails_with(1, qvfs({"image", "2", "4G"}), "exists (use --force"));
    EXPECT_EQ(0, qvfs({"image", "2", std::to_string(size), "--force"}).status);
    EXPECT_TRUE(fails_with(1, qvfs_plain({"image", "2", "4G"}, {"QVFS_ROOT="}), "needs --root"));
    // Sizes that hold no block are refused with the real minimum, by the
    // request or by the device.
    const std::string tooSmall = "a disk needs at least 3089 MiB (3239051264 bytes) to hold one block";
    static_assert(image_bytes_for(1) == 3239051264);
    for (const Args& small : {Args{"image", "3", "3088M"}, Args{"format", "2", "--size", "2100M"}})
        EXPECT_TRUE(fails_with(2, qvfs(small), tooSmall)) << small[0];
    sbx_.add_disk(4, image_bytes_for(1) - 512);
    EXPECT_TRUE(fails_with(1, qvfs({"format", "4"}), "the device holds 3.0 GiB; " + tooSmall));

    EXPECT_EQ(3, json({"format", dev, "--json"})["blocks"]);
    const Json types = {{"REC", 0}, {"IMG", 0}, {"BACK", 0}, {"PIC", 0}, {"FPD", 0}, {"ITS", 0}};
    EXPECT_EQ((Json{{"disks", {{{"disk", 2}, {"device", dev}, {"formatted", true}, {"blocks", 3}, {"used", 0},
                                {"free", 3}, {"bad", 0}, {"block_size", kGiB}, {"capacity", 3 * kGiB},
                                {"free_space", 3 * kGiB}, {"types", types}}}}}),
              json({"--json", "df", "2"}));
}

TEST_F(CliDisk, FormatLaysOutTheSizeAskedForAndZeroesBlockHeads) {
    sbx_.add_disk(2, image_bytes_for(3));
    EXPECT_EQ(0, qvfs({"format", "2"}).status);
    // Something left in two block heads, where a mode-0 format never looks.
    const std::vector<uint8_t> junk(4096, 0xA5);
    const uint64_t heads[] = {kDataStart + kGiB, kDataStart + 2 * kGiB + (8u << 20)};
    for (uint64_t at : heads) write_dev(2, at, junk.data(), junk.size());
    const ToolRun r = qvfs({"format", "2", "--zero-heads", "--progress"});
    EXPECT_EQ(0, r.status) << r.describe();
    EXPECT_EQ("formatted disk 2 (/dev/scsi/host02/part1): 3 blocks of 1.0 GiB, 3.0 GiB, block heads zeroed\n", r.out);
    EXPECT_NE(std::string::npos, r.err.find("format disk 2")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("3 / 3 blocks")) << r.err;
    for (uint64_t at : heads) EXPECT_EQ(std::vector<uint8_t>(4096, 0), read_dev(2, at, 4096)) << at;
    EXPECT_EQ("", qvfs({"format", "2"}).err) << "a progress bar only on request or on a terminal";

    EXPECT_EQ(1, json({"format", "2", "--size", std::to_string(image_bytes_for(1)), "--json"})["blocks"]);
    EXPECT_EQ(1, json({"df", "2", "--json"})["disks"][0]["blocks"]);
    EXPECT_TRUE(fails_with(2, qvfs({"format", "2", "--size", "4G", "--zero-heads"})));
}

TEST_F(CliDisk, FormatLeavesADiskThatOthersUseAloneUnlessForced) {
    const std::string name = rec(1, 0, kT0);
    // This process (the "recorder") has disk 0 mounted.
    EXPECT_TRUE(fails_with(1, qvfs({"format", "0"}),
                           "qvfs: cannot format disk 0 (/dev/scsi/host00/part1): 1 other process has it mounted "
                           "(--force formats it anyway)\n"));
    EXPECT_EQ(5000, stat_of(name).st.st_size) << "the recording survives the refusal";
    EXPECT_EQ(0, qvfs({"format", "0", "--force"}).status);
    EXPECT_EQ(0, json({"df", "0", "--json"})["disks"][0]["used"]);
}

TEST_F(CliDisk, DfAndDumpCountTheBlocksOfEachDataType) {
    rec(1, 0, kT0);
    rec(1, 0, kT0 + 60);                   // same channel and type: same block
    rec(2, 3, kT0);                        // pictures: a block of their own
    sbx_.add_disk(5, image_bytes_for(2));  // present, never formatted: the run fails
    const ToolRun all = qvfs({"df", "--json"});  // every disk present
    EXPECT_TRUE(fails_with(1, all, "cannot mount disk 5 (/dev/scsi/host05/part1): not a formatted disk (1005)\n"));
    const Json j = Json::parse(all.out);
    ASSERT_EQ(2u, j["disks"].size()) << j.dump();
    const Json types = {{"REC", kGiB}, {"IMG", kGiB}, {"BACK", 0}, {"PIC", 0}, {"FPD", 0}, {"ITS", 0}};
    EXPECT_EQ((Json{{"disk", 0}, {"device", "/dev/scsi/host00/part1"}, {"formatted", true}, {"blocks", 4},
                    {"used", 2}, {"free", 2}, {"bad", 0}, {"block_size", kGiB}, {"capacity", 4 * kGiB},
                    {"free_space", 2 * kGiB}, {"types", types}}),
              j["disks"][0]);
    Json d5 = j["disks"][1];
    EXPECT_TRUE(d5.contains("error")) << d5;
    d5.erase("error");
    EXPECT_EQ((Json{{"disk", 5}, {"device", "/dev/scsi/host05/part1"}, {"formatted", false}}), d5);
    // Text: a header and one row per disk, exact bytes on request.
    const ToolRun t = qvfs({"df", "0", "--bytes"});
    EXPECT_EQ(0u, t.out.find("DISK  BLOCKS  USED  FREE  BAD")) << t.describe();
    EXPECT_NE(std::string::npos, t.out.find(std::to_string(4 * kGiB))) << t.out;
    EXPECT_EQ(2u, lines(t.out));

    const std::string text = qvfs({"dump"}).out;
    const Json dump = json({"dump", "0", "--json"});
    for (const std::string s : {"QVFS", "QVFILE", "QVBLOCK", "QVDISK"}) {
        EXPECT_NE(std::string::npos, text.find("=" + s + "=")) << s << "\n" << text;
        EXPECT_TRUE(dump.contains(s)) << s;
    }
    ASSERT_EQ(1u, dump["QVDISK"].size()) << dump.dump(2);
    const Json& d = dump["QVDISK"][0];
    // Mounted by this process and by the tool while it dumps; numbers as numbers.
    EXPECT_EQ(Json({0, 4, 2, 1, 2}), Json({d["id"], d["tolblk"], d["useblk"], d["REC"], d["mounted"]}));
}

TEST_F(CliDisk, BlocksShowChannelTypeTimesFilesAndState) {
    rec(1, 0, kT0);
    rec(1, 0, kT0 + 600);
    rec(2, 3, kT0 + 7200);
    // A request that cannot fit beside the data of block 0 moves channel 1
    // on to a new block; block 0 is then full.
    rec(1, 0, kT0 + 3600, 0x3FC00000);
    const int64_t now = ::time(nullptr);
    const Json j = json({"blocks", "0", "--json"});
    ASSERT_EQ(3u, j["blocks"].size()) << j.dump(2);
    const auto block = [&](int b, int chn, const char* type, int64_t start, int files, const char* state) {
        // The end is the time of the last write: taken from the output after
        // checking that it is recent.
        const int64_t end = j["blocks"][b]["end_epoch"];
        EXPECT_LE(now - 60, end);
        EXPECT_LE(end, now + 1);
        return Json{{"block", b}, {"channel", chn}, {"type", type}, {"start", iso_time(start)},
                    {"start_epoch", start}, {"end", iso_time(end)}, {"end_epoch", end}, {"files", files},
                    {"state", state}, {"locked", false}};
    };
    EXPECT_EQ(block(0, 1, "REC", kT0, 2, "full"), j["blocks"][0]);
    EXPECT_EQ(block(1, 2, "IMG", kT0 + 7200, 1, "current"), j["blocks"][1]);
    EXPECT_EQ(block(2, 1, "REC", kT0 + 3600, 1, "current"), j["blocks"][2]);

    const std::pair<Args, std::vector<int>> filters[] = {
        {{"--channel", "2"}, {1}}, {{"--type", "rec"}, {0, 2}}, {{"--type", "IMG"}, {1}},
        {{"--to", "2024-03-01T11:00:00"}, {0, 2}}, {{"--to", "2024-03-01T10:59:59"}, {0}},
        {{"--from", "2037-12-31"}, {}}, {{"--channel", "1", "--from", "2024-03-01", "--to", "@1709294400"}, {0, 2}}};
    for (const auto& [filter, want] : filters) {
        Args args{"blocks", "0", "--json"};
        args.insert(args.end(), filter.begin(), filter.end());
        const Json listed = json(args);
        std::vector<int> got;
        for (const Json& b : listed["blocks"]) got.push_back(b["block"]);
        EXPECT_EQ(want, got) << filter[0] << " " << filter[1];
    }
    const ToolRun t = qvfs({"blocks", "0"});
    EXPECT_EQ(0u, t.out.find("BLOCK  CHANNEL  TYPE  START")) << t.describe();
    EXPECT_NE(std::string::npos, t.out.find("2024-03-01T10:00:00")) << t.out;
    EXPECT_EQ(4u, lines(t.out));
    for (Args bad : {Args{"--type", "MOVIE"}, Args{"--channel", "1024"}, Args{"--from", "@2", "--to", "@1"}}) {
        bad.insert(bad.begin(), {"blocks", "0"});
        EXPECT_TRUE(fails_with(2, qvfs(bad))) << bad[2];
    }
}

TEST_F(CliDisk, UnlinkBlockReleasesABlockWithItsFiles) {
    const std::string a = rec(1, 0, kT0), b = rec(1, 0, kT0 + 1), c = rec(2, 0, kT0);
    ASSERT_EQ(0, qvfs_Lock(b.c_str(), 1));
    EXPECT_TRUE(fails_with(1, qvfs({"unlink-block", "0", "0"}), "it holds locked files (--force unlinks it anyway)"));
    EXPECT_EQ((Json{{"disk", 0}, {"block", 0}, {"released", true}}),
              json({"unlink-block", "0", "0", "--force", "--json"}));
    TQvFileStat st;
    EXPECT_EQ(-1, qvfs_Stat(a.c_str(), &st));
    EXPECT_EQ(-1, qvfs_Stat(b.c_str(), &st));
    EXPECT_EQ(0, qvfs_Stat(c.c_str(), &st));
    EXPECT_EQ(1u, json({"blocks", "0", "--json"})["blocks"].size());
    EXPECT_TRUE(fails_with(1, qvfs({"unlink-block", "0", "0"}), "qvfs: cannot unlink block 0 of disk 0 "
                                                                "(/dev/scsi/host00/part1): the block is not in use\n"));
    EXPECT_TRUE(fails_with(1, qvfs({"unlink-block", "0", "4"}),
                           "qvfs: block 4 is beyond the 4 blocks of disk 0 (/dev/scsi/host00/part1)\n"));
    // A block that this (the "recorder") process holds goes back when the
    // holder lets go.
    const int h = open_name(c);
    ASSERT_GE(h, 0);
    EXPECT_TRUE(fails_with(1, qvfs({"unlink-block", "0", "1"}), "files of it are open in a process (--force"));
    EXPECT_EQ(false, json({"unlink-block", "0", "1", "-f", "--json"})["released"]);
    QvfsBlockStat bs{};
    ASSERT_EQ(0, qvfs_GetBlockStat(0, 1, &bs));
    EXPECT_NE(0u, bs.state);
    EXPECT_EQ(0, qvfs_Close(h));
    ASSERT_EQ(0, qvfs_GetBlockStat(0, 1, &bs));
    EXPECT_EQ(0u, bs.state);
}

TEST_F(CliDisk, TagBadMarksTheBlocksOfARangeAndClearBadLiftsTheMarks) {
    const std::string name = rec(1, 0, kT0);  // block 0
    const uint64_t off = kDataStart + 2 * kGiB + 10;
    EXPECT_EQ((Json{{"disk", 0}, {"offset", off}, {"length", 20}, {"newly_bad", 1}, {"bad", 1}}),
              json({"tag-bad", "0", std::to_string(off), "20", "--json"}));
    // A range that ends where the data area begins touches no block; one
    // that covers a whole block also marks the block behind its end.
    EXPECT_EQ(0, json({"tag-bad", "0", "0", "0x41100000", "--json"})["newly_bad"]);
    EXPECT_TRUE(fails_with(1, qvfs({"tag-bad", "0", "0x41100000", "1G"}), "block 0 is in use (--force marks it"));
    EXPECT_EQ(2, json({"tag-bad", "0", "0x41100000", "1G", "--force", "--json"})["newly_bad"]);
    const Json d = json({"df", "0", "--json"})["disks"][0];
    EXPECT_EQ(3, d["bad"]);
    EXPECT_EQ(1, d["free"]);
    EXPECT_TRUE(fails_with(1, qvfs({"tag-bad", "0", std::to_string(image_bytes_for(4)), "1"}), "(1002)\n"));
    for (const Args& range : {Args{"0", "0"}, Args{"0", "5G"}, Args{"-1", "5"}, Args{"12Q", "5"}})
        EXPECT_TRUE(fails_with(2, qvfs({"tag-bad", "0", range[0], range[1]})));

    // Block 3 becomes channel 9's, marked bad before its first file. Lifted,
    // a block is in use again when it holds files or is a channel's current
    // block, else free; block 2 stays bad, and the disk checks clean.
    TQvfsOpenParam req = param(9);
    TQvBlkId got{};
    ASSERT_EQ(0, df_GetFileBlkId(&req, &got));
    ASSERT_EQ(0, qvfs_TagBadUnit(disk_.c_str(), kDataStart + 3 * kGiB, 1));
    for (auto [b, state] : {std::pair{"0", "in use"}, {"1", "free"}, {"3", "in use"}})
        EXPECT_EQ(state, json({"clear-bad", "0", b, "--json"})["state"]) << b;
    EXPECT_TRUE(fails_with(1, qvfs({"clear-bad", "0", "1"}), "the block is not marked bad (1020)\n"));
    EXPECT_EQ(1, json({"df", "0", "--json"})["disks"][0]["bad"]);
    EXPECT_EQ(0, qvfs({"check", "0"}).status) << qvfs({"check", "0"}).out;
    EXPECT_EQ(read_all(name), pattern(uint32_t(kT0), 0, 5000));
}

TEST_F(CliDisk, FailuresSayWhatOnWhatAndWhyInOneLine) {
    EXPECT_TRUE(fails_with(1, qvfs({"df", "3"}),
                           std::string("qvfs: cannot mount disk 3 (/dev/scsi/host03/part1): ") +
                               qvfs_ErrorString(QVFS_ERR_SYS + ENOENT) + " (3002)\n"));
    sbx_.add_disk(4, image_bytes_for(1));
    const ToolRun r = qvfs({"blocks", "/dev/scsi/host04/part1"});
    EXPECT_TRUE(fails_with(1, r, "qvfs: cannot mount disk 4 (/dev/scsi/host04/part1): not a formatted disk (1005)\n"));
    EXPECT_EQ("", r.out);
    for (const Args& bad : {Args{"df", "--bogus"}, Args{"blocks"}, Args{"blocks", "25"}, Args{"blocks", "/dev/sda1"},
                            Args{"ls", "0", "minus-one"}, Args{}, Args{"frobnicate"}})
        EXPECT_TRUE(fails_with(2, qvfs(bad)));
    EXPECT_TRUE(fails_with(1, qvfs_plain({"--root", sbx_.root() + "/missing", "df"}),
                           "qvfs: root '" + sbx_.root() + "/missing' is not a directory\n"));
    // Without a root, a read-only command on a disk that is not there leaves
    // no key directory (nor System V objects keyed by it) on the host.
    namespace fs = std::filesystem;
    if (fs::exists("/dev/scsi/host24/part1")) return;
    const bool hadKeys = fs::exists("/dvr/qvfs");
    for (const Args& cmd : {Args{"df", "24"}, Args{"ls", "24", "0"}, Args{"dump", "24"}})
        EXPECT_TRUE(fails_with(1, qvfs_plain(cmd, {"QVFS_ROOT="}), "No such file or directory (3002)\n")) << cmd[0];
    EXPECT_TRUE(hadKeys || !fs::exists("/dvr/qvfs"));
}

TEST_F(CliDisk, HelpOnEveryLevel) {
    const ToolRun r = qvfs({"--help"});
    EXPECT_EQ(0, r.status) << r.describe();
    EXPECT_NE(std::string::npos, r.out.find("Usage: qvfs")) << r.out;
    for (const std::string sub : {"image", "format", "df", "blocks", "ls", "find", "stat", "cat", "export", "rm",
                                  "lock", "unlock", "unlink-block", "tag-bad", "clear-bad", "dump", "check",
                                  "import"}) {
        EXPECT_NE(std::string::npos, r.out.find("  " + sub + " ")) << sub << " missing from\n" << r.out;
        const ToolRun h = qvfs({sub, "--help"});
        EXPECT_EQ(0, h.status) << sub << h.describe();
        EXPECT_NE(std::string::npos, h.out.find("Usage: qvfs " + sub)) << h.out;
        EXPECT_EQ("", h.err) << sub;
    }
    EXPECT_EQ(0u, qvfs({"--version"}).out.find("qvfs ")) << "--version";
}

}  // namespace
}  // namespace qvfs::test

#else
TEST(CliDisk, Skipped) { GTEST_SKIP() << "the qvfs tool is not built for this target"; }
#endif
