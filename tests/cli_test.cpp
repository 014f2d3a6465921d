// The qvfs tool run as a real process against sandbox images, beside this
// process recording through the library: the disk subcommands, the file
// subcommands, `check` with a table of damage, and the views of a disk.
#include <gtest/gtest.h>

#if defined(QVFS_TOOL_PATH) && defined(QVFS_TOOL_RUNNER) && __has_include(<nlohmann/json.hpp>)

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>

#include "blockfile/bf_format.h"
#include "disk/df.h"
#include "disk/df_format.h"
#include "support/child.h"
#include "support/cli_env.h"

namespace qvfs::test {
namespace {

using Json = nlohmann::json;
using Args = std::vector<std::string>;
using namespace qvfs::disk;

constexpr int32_t kT0 = 1709287200;  // 2024-03-01T10:00:00Z
constexpr int32_t kMin = 60;

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class Cli : public CliTest {
protected:
    Cli() : CliTest(QVFS_TOOL_PATH, QVFS_TOOL_RUNNER) {}
    Json json(const Args& args, const Args& env = {}) { return json_of(qvfs(args, env)); }
    std::string rec(uint32_t chn, int32_t type, int32_t start, int32_t resSize = 0) {
        return record(chn, type, start, pattern(uint32_t(start), 0, 5000), 0, resSize);
    }
    // The error line of a name that is well formed but not on disk 0.
    static std::string no_such(const std::string& name) {
        return "qvfs: cannot open " + name + " on disk 0 (/dev/scsi/host00/part1): " +
               qvfs_ErrorString(QVFS_WHY_NO_SUCH_FILE) + " (1001)\n";
    }
};
using CliDisk = Cli;
using CliFiles = Cli;
using CliViews = Cli;

// ---- disk subcommands

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

// The options reach the library's format modes (whose clearing ApiTest.
// TheThreeFormatsPassModeAndSize checks): one head sector a mode-0 format keeps.
TEST_F(CliDisk, FormatLaysOutTheSizeAskedForAndZeroesBlockHeads) {
    sbx_.add_disk(2, image_bytes_for(3));
    const uint64_t head = kDataStart + 2 * kGiB + (8u << 20);
    write_dev(2, head, "junk", 4);
    EXPECT_EQ(0, qvfs({"format", "2", "--zero-heads"}).status);
    EXPECT_TRUE(dev_zero(2, head, 4));
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
    const Json dump = json({"dump", "0", "--json"});
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
    // holder lets go (BlockUnlink.AnUnlinkedBlockGoesBack...).
    const int h = open_name(c);
    EXPECT_TRUE(fails_with(1, qvfs({"unlink-block", "0", "1"}), "files of it are open in a process (--force"));
    EXPECT_EQ(false, json({"unlink-block", "0", "1", "-f", "--json"})["released"]);
    EXPECT_EQ(0, qvfs_Close(h));
}

TEST_F(CliDisk, TagBadMarksTheBlocksOfARangeAndClearBadLiftsTheMarks) {
    const std::string name = rec(1, 0, kT0);  // block 0
    const uint64_t off = kDataStart + 2 * kGiB + 10;
    EXPECT_EQ((Json{{"disk", 0}, {"offset", off}, {"length", 20}, {"newly_bad", 1}, {"bad", 1}}),
              json({"tag-bad", "0", std::to_string(off), "20", "--json"}));
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

// ---- file subcommands

TEST_F(CliFiles, LsStatCatAndExportShowWhatWasRecorded) {
    const std::vector<uint8_t> data = pattern(7, 0, (3u << 20) + 123);
    const std::string bytes(data.begin(), data.end());
    const std::string a = record(1, 0, kT0, data, 5), b = record(1, 0, kT0 + 10 * kMin, pattern(8, 0, 4096));
    const uint8_t usr[3] = {1, 2, 0xAB};
    ASSERT_EQ(0, qvfs_SetUsrParam(a.c_str(), usr, 3));
    ASSERT_EQ(0, qvfs_Lock(b.c_str(), 1));
    const auto entry = [](const std::string& name, int slice, size_t size, int32_t start, const char* lock, int rec) {
        const int64_t end = stat_of(name).st.st_mtim.tv_sec;
        // A locked file is listed with the kind letter L in its name.
        std::string listed = name;
        if (*lock == 'l') listed[20] = 'L';
        return Json{{"name", listed}, {"disk", 0}, {"block", 0}, {"slice", slice}, {"channel", 1}, {"size", size},
                    {"start", iso_time(start)}, {"start_epoch", start}, {"end", iso_time(end)}, {"end_epoch", end},
                    {"lock", lock}, {"record_type", rec}};
    };
    const Json fileA = entry(a, 1, data.size(), kT0, "normal", 5);
    EXPECT_EQ((Json{{"disk", 0}, {"block", 0}, {"type", "REC"},
                    {"files", {fileA, entry(b, 2, 4096, kT0 + 10 * kMin, "locked", 0)}}}),
              json({"ls", "0", "0", "--json"}));
    Json statA = fileA;
    statA["device"] = "/dev/scsi/host00/part1";
    statA["user_param"] = "0102ab" + std::string(58, '0');
    EXPECT_EQ(statA, json({"stat", a, "--json"}));
    // The same file named through its device path.
    EXPECT_EQ(a, json({"stat", "/dev/scsi/host00/part1/" + a, "--json"})["name"]);

    EXPECT_TRUE(qvfs({"cat", a}).out == bytes) << "cat";
    const std::string file = sbx_.root() + "/a.rvd";
    EXPECT_EQ(0, qvfs({"export", a, file}).status);
    EXPECT_TRUE(slurp(file) == bytes) << "export";
    EXPECT_TRUE(fails_with(1, qvfs({"export", a, sbx_.root() + "/no/such/dir/x"}),
                           "cannot create " + sbx_.root() + "/no/such/dir/x: "));
    // An existing file is replaced only with --force, through a temporary
    // file that is gone afterwards; a failed export leaves the file as it was.
    std::ofstream(file) << "mine";
    EXPECT_TRUE(fails_with(1, qvfs({"export", a, file}), "cannot export to " + file + ": it exists (--force"));
    std::string missing = a;
    missing.replace(8, 4, "00FF");
    EXPECT_TRUE(fails_with(1, qvfs({"export", missing, file, "--force"}), no_such(missing)));
    EXPECT_EQ("mine", slurp(file));
    EXPECT_EQ(0, qvfs({"export", a, file, "--force"}).status);
    EXPECT_TRUE(slurp(file) == bytes) << "export --force";
    for (const auto& e : std::filesystem::directory_iterator(sbx_.root()))
        EXPECT_EQ(std::string::npos, e.path().filename().string().find("qvfs-export")) << e.path();
}

TEST_F(CliFiles, FindCrossesBlocksAndChannelsWithinTheTimeRange) {
    // Channel 1 recordings in two REC blocks and one IMG block, channel 2 in
    // a REC block of its own; each recording lasts ten minutes.
    const struct { uint32_t chn; int32_t type, start, resSize; } recs[] = {
        {1, 0, kT0, 0}, {1, 0, kT0 + 30 * kMin, 0}, {2, 0, kT0 + 15 * kMin, 0}, {1, 3, kT0 + 45 * kMin, 0},
        {1, 0, kT0 + 60 * kMin, 0x3FC00000},  // does not fit block 0: a new block
        {1, 0, kT0 + 90 * kMin, 0}};
    std::vector<std::string> n;
    for (const auto& r : recs) {
        n.push_back(record(r.chn, r.type, r.start, pattern(uint32_t(r.start), 0, 1000), 0, r.resSize));
        const TimeValue times[2] = {{r.start + 10 * kMin, 0}, {r.start + 10 * kMin, 0}};
        ASSERT_EQ(0, qvfs_ChangeTime(n.back().c_str(), times)) << errno;
    }
    const Args cet{"TZ=CET-1CEST,M3.5.0,M10.5.0/3"};
    const struct { Args args, env; std::vector<int> want; } cases[] = {
        // Sorted by start time across blocks 0 and 3 (REC) and 2 (IMG).
        {{"--channel", "1"}, {}, {0, 1, 3, 4, 5}},
        {{"--channel", "1", "--type", "REC"}, {}, {0, 1, 4, 5}},
        {{"--channel", "2"}, {}, {2}},
        {{"--channel", "3"}, {}, {}},
        // Overlap with [10:20, 11:05]: 10:30, 10:45 and 11:00 start inside;
        // 10:00 ended at 10:10 before it, 11:30 starts after it.
        {{"--channel", "1", "--from", "2024-03-01T10:20", "--to", "2024-03-01T11:05:00"}, {}, {1, 3, 4}},
        // Bounds are inclusive: a recording that ends at --from, one that starts at --to.
        {{"--channel", "1", "--from", "2024-03-01T10:10:00", "--to", "2024-03-01T11:00:00Z"}, {}, {0, 1, 3, 4}},
        // Local time: in Central European time the same range reads an hour later.
        {{"--channel", "1", "--from", "2024-03-01T11:20", "--to", "2024-03-01 12:05"}, cet, {1, 3, 4}}};
    for (const auto& c : cases) {
        Args args{"find", "0", "--json"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const Json found = json(args, c.env);
        std::vector<std::string> got, want;
        for (const Json& f : found["files"]) got.push_back(f["name"]);
        for (int i : c.want) want.push_back(n[size_t(i)]);
        EXPECT_EQ(want, got) << Json(c.args).dump();
    }
    const Json local = json({"find", "0", "--channel", "2", "--json"}, cet)["files"][0];
    EXPECT_EQ(iso_time(kT0 + 15 * kMin, 3600), local["start"]);
    EXPECT_EQ(1, local["block"]);
    // The channel is required; times must be real dates in order.
    for (const Args& bad : {Args{}, Args{"--channel", "1", "--from", "yesterday"},
                            Args{"--channel", "1", "--from", "2024-02-30"},
                            Args{"--channel", "1", "--from", "2024-03-02", "--to", "2024-03-01"}}) {
        Args args{"find", "0"};
        args.insert(args.end(), bad.begin(), bad.end());
        EXPECT_TRUE(fails_with(2, qvfs(args)));
    }
}

TEST_F(CliFiles, LockUnlockAndRemoveKeepTheBlockCountsRight) {
    const std::string a = record(1, 0, kT0, pattern(1, 0, 100)), b = record(1, 0, kT0 + 1, pattern(2, 0, 100));
    const auto block_locked = [] {
        QvfsBlockStat bs{};
        EXPECT_EQ(0, qvfs_GetBlockStat(0, 0, &bs));
        return bs.locked;
    };
    EXPECT_EQ((Json{{"name", a}, {"lock", "locked"}, {"changed", true}}), json({"lock", a, "--json"}));
    EXPECT_EQ(1u, stat_of(a).lock);
    // Locking again changes nothing, so one unlock leaves the block with no
    // locked file.
    EXPECT_EQ(a + " is already locked\n", qvfs({"lock", a}).out);
    EXPECT_EQ(1u, block_locked());
    EXPECT_EQ(0, qvfs({"unlock", a}).status);
    EXPECT_EQ(0u, stat_of(a).lock);
    EXPECT_EQ(0u, block_locked());
    EXPECT_EQ(a + " is already unlocked\n", qvfs({"unlock", a}).out);
    // A backup recording (file type 2) keeps its state.
    const std::string backup = record(3, 2, kT0, pattern(3, 0, 100));
    EXPECT_TRUE(fails_with(1, qvfs({"lock", backup}), "qvfs: cannot lock " + backup + ": it is a backup file\n"));

    // A file that a process holds open is not removed.
    const int h = open_name(b);
    ASSERT_GE(h, 0);
    EXPECT_TRUE(fails_with(1, qvfs({"rm", b}), "qvfs: cannot remove " + b + ": the file is open in a process\n"));
    EXPECT_EQ(0, qvfs_Close(h));
    // Nor is a locked one, unless forced.
    ASSERT_EQ(0, qvfs_Lock(a.c_str(), 1));
    EXPECT_TRUE(fails_with(1, qvfs({"rm", a}), ": the file is locked (--force removes it anyway)\n"));
    EXPECT_EQ("removed " + a + "\n", qvfs({"rm", a, "--force"}).out);
    TQvFileStat st;
    EXPECT_EQ(-1, qvfs_Stat(a.c_str(), &st));
    EXPECT_TRUE(fails_with(1, qvfs({"rm", a}), no_such(a)));
    EXPECT_EQ(1, qvfs_GetFileNum(disk_.c_str(), 0));
}

TEST_F(CliFiles, NamesAreCheckedBeforeAnyDiskIsUsed) {
    const std::string a = record(1, 0, kT0, pattern(1, 0, 100));
    // Extensions are 1 to 7 printable characters.
    for (const std::string& bad : {std::string("Hxyz"), a.substr(1), "X" + a.substr(1), a.substr(0, 23) + "xrvd",
                                   std::string(""), a.substr(0, 24), a.substr(0, 24) + "r\x01d", a + "12345"})
        for (const char* cmd : {"stat", "cat", "rm"}) EXPECT_TRUE(fails_with(2, qvfs({cmd, bad}))) << cmd << " " << bad;
    // Well formed, but no such slice; a name on a disk that is not there.
    std::string missing = a, elsewhere = a;
    missing.replace(8, 4, "00FF");
    const ToolRun r = qvfs({"cat", missing});
    EXPECT_TRUE(fails_with(1, r, no_such(missing)));
    EXPECT_EQ("", r.out);
    elsewhere[1] = elsewhere[22] = '7';
    EXPECT_TRUE(fails_with(1, qvfs({"stat", elsewhere}), "cannot mount disk 7 (/dev/scsi/host07/part1): "));

    // A damaged disk: bytes in a stored extension that are no text are shown
    // escaped, in one table row and in valid JSON.
    write_dev(0, qvfs::disk::kDataStart + 512 + offsetof(TQvBlkSliceInfo, ext), "\x01\xff\n", 4);
    const std::string shown = a.substr(0, 24) + "\\x01\\xff\\x0a";
    EXPECT_EQ(shown, json({"ls", "0", "0", "--json"})["files"][0]["name"]);
    EXPECT_EQ(shown, json({"find", "0", "--channel", "1", "--json"})["files"][0]["name"]);
}

TEST_F(CliFiles, ImportRecordsAFileThatTheLibraryReadsBack) {
    const std::vector<uint8_t> data = pattern(11, 0, 200000);
    const std::string src = sbx_.root() + "/pic.jpg";
    std::ofstream(src, std::ios::binary) << std::string(data.begin(), data.end());
    const Json j = json({"import", "0", src, "--channel", "4", "--type", "PIC", "--start", "@1709287200", "--end",
                         "2024-03-01T10:05:00", "--record-type", "3", "--json"});
    const std::string name = j["name"];
    EXPECT_EQ(".jpg", name.substr(name.size() - 4));
    EXPECT_EQ(200000, j["size"]);
    EXPECT_EQ(data, read_all(name));
    const TQvFileStat st = stat_of(name);
    EXPECT_EQ((std::vector<uint64_t>{4, 3, uint64_t(kT0), uint64_t(kT0 + 5 * kMin)}),
              (std::vector<uint64_t>{st.chn, st.recType, st.startTime, uint64_t(st.st.st_mtim.tv_sec)}));
    QvfsBlockStat bs{};
    ASSERT_EQ(0, qvfs_GetBlockStat(0, static_cast<uint32_t>(std::stoul(name.substr(2, 6), nullptr, 16)), &bs));
    EXPECT_EQ(3u, bs.dataType);  // PIC

    EXPECT_TRUE(fails_with(1, qvfs({"import", "0", sbx_.root() + "/none", "--channel", "4"})));
    EXPECT_TRUE(fails_with(2, qvfs({"import", "0", src})));  // no channel
    // Times the disk cannot hold, extensions a name cannot carry.
    for (const Args& bad : {Args{"--start", "@1709287200", "--end", "@1709287199"}, Args{"--start", "2040-01-01"},
                            Args{"--start", "@4294967296"}, Args{"--end", "@-1"}, Args{"--ext", "a/b"},
                            Args{"--ext", "12345678"}, Args{"--ext", "r\tv"}}) {
        Args args{"import", "0", src, "--channel", "4"};
        args.insert(args.end(), bad.begin(), bad.end());
        EXPECT_TRUE(fails_with(2, qvfs(args))) << bad[1];
    }
}

// ---- check

uint64_t block_at(uint32_t b) { return kDataStart + uint64_t(b) * kBlockSize; }
uint64_t entry_at(uint32_t b, uint32_t slice) { return block_at(b) + uint64_t(slice) * 512; }

// The disk every test starts from: channel 1 recordings in block 0 (three
// made, the second deleted again), channel 2 pictures in block 1, blocks 2
// and 3 free.
class CliCheck : public Cli {
protected:
    void SetUp() override {
        Cli::SetUp();
        if (HasFatalFailure()) return;
        a_ = record(1, 0, kT0, pattern(1, 0, 5000));
        const std::string b = record(1, 0, kT0 + 60, pattern(2, 0, 5000));
        record(1, 0, kT0 + 120, pattern(3, 0, 5000));
        record(2, 3, kT0, pattern(4, 0, 5000));
        ASSERT_EQ(0, qvfs_Unlink(b.c_str()));
    }

    // The JSON verdict; the exit code must agree with it.
    Json check_json() {
        const ToolRun r = qvfs({"check", "0", "--json"});
        const Json j = Json::parse(r.out, nullptr, false);
        EXPECT_FALSE(j.is_discarded()) << r.describe();
        EXPECT_EQ(j.value("clean", false) ? 0 : 3, r.status) << r.describe();
        return j;
    }

    std::string a_;

public:
    // Damage to disk 0's image, behind the library's back.
    template <typename T>
    void put(uint64_t off, const T& v) { write_dev(0, off, &v, sizeof v); }
    // Sets a status byte in every copy of the map.
    void set_status_everywhere(uint32_t b, uint8_t s) {
        for (uint32_t r = 0; r < 2; ++r) put(map_first(r) + b, s), put(map_second(r) + b, s);
    }
    void set_table_everywhere(bool current, uint32_t type, uint32_t chn, int32_t v) {
        for (uint32_t r = 0; r < 2; ++r) put((current ? current_chunk(r, type) : count_chunk(r, type)) + 4ull * chn, v);
    }
};

TEST_F(CliCheck, AHealthyDiskIsClean) {
    EXPECT_EQ((Json{{"disk", 0}, {"device", "/dev/scsi/host00/part1"}, {"blocks", 4}, {"used", 2}, {"free", 2},
                    {"bad", 0}, {"clean", true}, {"findings", Json::array()}}),
              check_json());

    // What the library does on purpose stays clean: a locked file, a block
    // marked bad while a channel still counts it, a block that a channel got
    // but has not written a file into yet.
    ASSERT_EQ(0, qvfs_Lock(a_.c_str(), 1));
    ASSERT_EQ(0, qvfs_TagBadUnit(disk_.c_str(), block_at(1) + 100, 1));
    TQvfsOpenParam req = param(9);
    TQvBlkId got{};
    ASSERT_EQ(0, df_GetFileBlkId(&req, &got));
    ASSERT_EQ(2, got.block);
    const ToolRun r = qvfs({"check", "0"});
    EXPECT_EQ(0, r.status) << r.describe();
    EXPECT_EQ("disk 0 (/dev/scsi/host00/part1): 4 blocks, 2 in use, 1 free, 1 bad: clean\n", r.out);
}

TEST_F(CliCheck, AnUnformattedOrMissingDiskIsNoVerdict) {
    sbx_.add_disk(4, image_bytes_for(1));
    const ToolRun r = qvfs({"check", "4"});
    EXPECT_EQ(3, r.status) << r.describe();
    EXPECT_EQ(0u, r.out.find("no header copy carries the magic \"QVFS\": not a formatted disk\n")) << r.out;
    EXPECT_TRUE(fails_with(1, qvfs({"check", "3"}),
                           "qvfs: cannot open disk 3 (/dev/scsi/host03/part1): No such file or directory\n"));
}

// One kind of damage and the finding it must produce.
struct Damage {
    const char* name;
    std::function<void(CliCheck&)> apply;
    const char* kind;   // a finding of this kind ...
    int64_t block;      // ... about this block (-1: the whole disk) ...
    const char* text;   // ... whose message contains this
    size_t findings;    // all findings, 0 when others may come along
};

// Test names and failure messages show a damage by its name.
void PrintTo(const Damage& d, std::ostream* os) { *os << d.name; }

class CliCheckDamage : public CliCheck, public ::testing::WithParamInterface<Damage> {};

TEST_P(CliCheckDamage, IsReportedInItsOwnLine) {
    const Damage& d = GetParam();
    d.apply(*this);
    const Json j = check_json();
    const Json& f = j["findings"];
    EXPECT_EQ(false, j["clean"]) << j.dump(2);
    EXPECT_TRUE(d.findings == 0 || d.findings == f.size()) << f.dump(2);
    EXPECT_TRUE(std::any_of(f.begin(), f.end(), [&](const Json& x) {
        return x["kind"] == d.kind && (d.block < 0 ? x["block"].is_null() : x["block"] == d.block) &&
               x["message"].get<std::string>().find(d.text) != std::string::npos;
    })) << "no " << d.kind << " finding with \"" << d.text << "\" in\n" << f.dump(2);
}

const Damage kDamages[] = {
    {"BackupHeaderChanged", [](CliCheck& t) { t.put(kHeadBackup + offsetof(TQvDiskHead, createTime), int64_t{1}); },
     "header-copies", -1, "createTime", 1},
    {"PrimaryHeaderLostItsMagic", [](CliCheck& t) { t.put(kHeadPrimary, 'X'); }, "header-copies", -1,
     "the primary header copy does not carry the magic", 1},
    {"StatusByteFlippedInOneCopy", [](CliCheck& t) { t.put(map_first(1) + 0, uint8_t{0}); }, "status-map", 0,
     "meta region 1 (first location)", 1},
    {"InvalidStatusByte", [](CliCheck& t) { t.set_status_everywhere(2, 7); }, "status-map", 2,
     "status byte 0x07 is not a valid status", 1},
    {"FreeBlockMarkedInUse", [](CliCheck& t) { t.set_status_everywhere(2, 1); }, "orphan-block", 2,
     "holds no file and is no channel's current block", 1},
    {"UsedBlockMarkedFree", [](CliCheck& t) { t.set_status_everywhere(1, 0); }, "free-header", 1,
     "marked free but its header is not zero", 0},
    {"CountOffByOne", [](CliCheck& t) { t.set_table_everywhere(false, 0, 1, 2); }, "block-count", -1,
     "channel 1 REC: the block-count table says 2 blocks but 1 block belongs to it", 1},
    {"CountChangedInOneRegion", [](CliCheck& t) { t.put(count_chunk(1, 1) + 4 * 2, uint32_t{0}); }, "tables", -1,
     "block-count table of meta region 1 differs from meta region 0 for IMG", 1},
    {"SliceEntryRemovedBehindTheHeader",
     [](CliCheck& t) { t.put(entry_at(0, 1) + offsetof(TQvBlkSliceInfo, magic), uint32_t{0}); }, "slice-count", 0,
     "counts 2 files (cnt) but the slice directory holds 1 live entry", 1},
    {"EntryOfAnotherChannel", [](CliCheck& t) { t.put(entry_at(0, 3) + offsetof(TQvBlkSliceInfo, chn), uint32_t{9}); },
     "slice-entry", 0, "slice 3: channel 9 differs from the block's channel 1", 1},
    {"NameNotText", [](CliCheck& t) { t.put(entry_at(0, 1) + offsetof(TQvBlkSliceInfo, ext), uint16_t{0xFF01}); },
     "slice-entry", 0, "slice 1: damaged name: check code", 1},
    {"FreeBlockWithAHeader", [](CliCheck& t) { t.put(block_at(3) + offsetof(TQvBlkInfo, chn), uint32_t{7}); },
     "free-header", 3, "block 3: marked free but its header is not zero", 1},
    {"HeaderNotAcceptable", [](CliCheck& t) { t.put(block_at(0) + offsetof(TQvBlkInfo, slice), uint32_t{5000}); },
     "block-header", 0, "slice 5000 does not fit a directory", 0},
    {"CurrentBlockIsFree", [](CliCheck& t) { t.set_table_everywhere(true, 0, 5, 3); }, "current-block", 3,
     "channel 5 REC: the current block 3 is marked free", 1},
    {"CurrentBlockOfAnotherChannel", [](CliCheck& t) { t.set_table_everywhere(true, 0, 5, 1); }, "current-block", 1,
     "channel 5 REC: the current block 1 belongs to channel 2 IMG", 0},
};

INSTANTIATE_TEST_SUITE_P(Kinds, CliCheckDamage, ::testing::ValuesIn(kDamages),
                         [](const ::testing::TestParamInfo<Damage>& i) { return std::string(i.param.name); });

// ---- views


TEST_F(CliViews, TimelineDrawsAGapAsTwoBarsAndMarksLockedTime) {
    const auto end_at = [](const std::string& name, int32_t end) {
        const TimeValue t[2] = {{end, 0}, {end, 0}};
        ASSERT_EQ(0, qvfs_ChangeTime(name.c_str(), t));
    };
    end_at(record(1, 0, kT0, pattern(1, 0, 4096)), kT0 + 600);
    const std::string locked = record(1, 0, kT0 + 1200, pattern(2, 0, 4096));
    end_at(locked, kT0 + 1800);
    ASSERT_EQ(0, qvfs_Lock(locked.c_str(), 1));
    end_at(record(2, 0, kT0, pattern(3, 0, 4096)), kT0 + 1800);

    const std::string svg = sbx_.root() + "/timeline.svg";
    const nlohmann::json j = json_of(qvfs({"timeline", "0", "--svg", svg, "--json"}));
    ASSERT_EQ(2u, j["channels"].size()) << j.dump(1);
    EXPECT_EQ(1800, j["seconds"]);
    const auto& ch1 = j["channels"][0];
    EXPECT_EQ((nlohmann::json{1, 1200, 1, 2, 1}),
              (nlohmann::json{ch1["channel"], ch1["recorded_seconds"], ch1["gaps"], ch1["files"], ch1["locked_files"]}));
    EXPECT_EQ(0, j["channels"][1]["gaps"]);
    EXPECT_EQ(1800, j["channels"][1]["recorded_seconds"]);
    EXPECT_NE(std::string::npos, slurp(svg).find("data-channel=\"2\"")) << "the picture is drawn";
}

TEST_F(CliViews, IpcListsTheRootsObjectsAndKeepsThemWhileAProcessIsAttached) {
    const nlohmann::json j = json_of(qvfs({"ipc", "--json"}));
    const int objects = sbx_.ipc_objects();
    ASSERT_GT(objects, 0);
    EXPECT_EQ(size_t(objects), j["objects"].size()) << j.dump(1);
    EXPECT_TRUE(fails_with(1, qvfs({"ipc", "--remove"}), "process " + std::to_string(getpid()) + " is attached"));
    EXPECT_EQ(objects, sbx_.ipc_objects());
}

#ifdef QVFS_TOOL_FUSE

// The tool serving the view in the foreground; stopped (SIGTERM, then
// SIGKILL and a lazy unmount) when the test ends, however it ends.
struct View {
    pid_t pid = -1;
    std::string dir, log;
    int stop() {
        int st = 0;
        if (pid <= 0) return -1;
        kill(pid, SIGTERM);
        for (int i = 0; i < 500 && waitpid(pid, &st, WNOHANG) == 0; ++i) usleep(10000);
        if (waitpid(pid, &st, WNOHANG) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &st, 0);
            umount2(dir.c_str(), MNT_DETACH);
            (void)std::system(("fusermount3 -uz '" + dir + "' 2>/dev/null").c_str());
        }
        pid = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    ~View() { stop(); }
};

TEST_F(CliViews, MountViewReadsAGrowingRecordingAndRefusesWrites) {
    if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable here";
    if (std::system("command -v fusermount3 >/dev/null 2>&1") != 0) GTEST_SKIP() << "fusermount3 is not installed";
    constexpr uint32_t kChunk = 256 * 1024;
    constexpr int kSteps = 6;
    char* name = static_cast<char*>(mmap(nullptr, 64, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    // The recorder writes one chunk each time the test asks for it.
    Child rec = Child::spawn([&](ChildLink& link) {
        TQvfsOpenParam p = param(3);
        p.startTime = kT0;
        const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
        CHILD_CHECK(link, h >= 0);
        link.send(0);
        for (int64_t k = 0, go; k < kSteps && link.recv(&go); ++k) {
            const auto data = pattern(3, uint64_t(k) * kChunk, kChunk);
            CHILD_CHECK(link, qvfs_Write(h, data.data(), kChunk) == int(kChunk));
            link.send(k + 1);
        }
        return qvfs_Close(h);
    });
    ASSERT_TRUE(rec.expect(0));

    View v;
    v.dir = sbx_.root() + "/view";
    v.log = sbx_.root() + "/view.log";
    ASSERT_EQ(0, mkdir(v.dir.c_str(), 0755));
    std::vector<std::string> args = command({"--root", sbx_.root(), "mount-view", v.dir, "0", "-f"});
    const std::string program = args.front();
    args.erase(args.begin());
    const int log = ::open(v.log.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    v.pid = start_program(program, args, {"TZ=UTC"}, 0, log, log);
    ::close(log);
    ASSERT_GT(v.pid, 0);

    const std::string path = v.dir + "/disk0/ch003/2024-03-01T10-00-00_" + name;
    struct stat st {};
    for (int i = 0; i < 1000 && ::stat(path.c_str(), &st) != 0 && waitpid(v.pid, nullptr, WNOHANG) == 0; ++i)
        usleep(10000);
    if (::stat(path.c_str(), &st) != 0) {
        std::ifstream in(v.log);
        const std::string log((std::istreambuf_iterator<char>(in)), {});
        if (log.find("not permitted") != std::string::npos || log.find("Permission denied") != std::string::npos)
            GTEST_SKIP() << "mounting FUSE is not permitted here: " << log;
        FAIL() << path << " did not appear; the tool said: " << log;
    }
    EXPECT_EQ(0, st.st_size);
    const int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << strerror(errno);
    std::vector<uint8_t> got(kChunk + 1);
    for (int k = 0; k < kSteps; ++k) {
        ASSERT_TRUE(rec.send(k));
        ASSERT_TRUE(rec.expect(k + 1));
        ASSERT_EQ(0, ::stat(path.c_str(), &st));
        EXPECT_EQ(off_t(k + 1) * kChunk, st.st_size) << "the size in the view lags behind";
        // Through the descriptor opened on the empty file: the new chunk,
        // then the end of what is recorded so far.
        size_t n = 0;
        for (ssize_t r; n < got.size() && (r = ::read(fd, got.data() + n, got.size() - n)) > 0;) n += size_t(r);
        ASSERT_EQ(kChunk, n) << "step " << k;
        got.resize(kChunk);
        EXPECT_TRUE(got == pattern(3, uint64_t(k) * kChunk, kChunk)) << "step " << k;
        got.resize(kChunk + 1);
    }
    ::close(fd);
    errno = 0;
    EXPECT_EQ(-1, ::open(path.c_str(), O_WRONLY));
    EXPECT_EQ(EROFS, errno);
    EXPECT_CHILD_OK(rec);
    EXPECT_EQ(0, v.stop()) << "the view did not shut down cleanly";
    EXPECT_NE(0, ::stat((v.dir + "/disk0").c_str(), &st)) << "still mounted";
}

#endif  // QVFS_TOOL_FUSE

}  // namespace
}  // namespace qvfs::test

#else
TEST(Cli, Skipped) { GTEST_SKIP() << "the qvfs tool is not built for this target"; }
#endif
