// The qvfs tool's file subcommands, run as a real process against a sandbox
// disk whose recordings this process made through the library: ls, find,
// stat, cat, export, rm, lock, unlock and import.
#include <gtest/gtest.h>

#if defined(QVFS_TOOL_PATH) && defined(QVFS_TOOL_RUNNER) && __has_include(<nlohmann/json.hpp>)

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "blockfile/bf_format.h"
#include "disk/df_format.h"
#include "support/cli_env.h"

namespace qvfs::test {
namespace {

using Json = nlohmann::json;
using Args = std::vector<std::string>;

constexpr int32_t kT0 = 1709287200;  // 2024-03-01T10:00:00Z
constexpr int32_t kMin = 60;

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class CliFiles : public CliTest {
protected:
    CliFiles() : CliTest(QVFS_TOOL_PATH, QVFS_TOOL_RUNNER) {}
    Json json(const Args& args, const Args& env = {}) { return json_of(qvfs(args, env)); }
    // The error line of a name that is well formed but not on disk 0: the
    // cause the library named, with the code.
    static std::string no_such(const std::string& name) {
        return "qvfs: cannot open " + name + " on disk 0 (/dev/scsi/host00/part1): " +
               qvfs_ErrorString(QVFS_WHY_NO_SUCH_FILE) + " (1001)\n";
    }
};

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
    const std::string text = qvfs({"stat", a}).out;
    EXPECT_NE(std::string::npos, text.find("size        3.0 MiB (3145851 bytes)\n")) << text;
    EXPECT_NE(std::string::npos, text.find("start       2024-03-01T10:00:00\n")) << text;

    EXPECT_TRUE(qvfs({"cat", a}).out == bytes) << "cat";
    const std::string file = sbx_.root() + "/a.rvd";
    const ToolRun exp = qvfs({"export", a, file, "--progress"});
    EXPECT_EQ(0, exp.status) << exp.describe();
    EXPECT_EQ("exported " + a + " to " + file + ": 3.0 MiB\n", exp.out);
    EXPECT_NE(std::string::npos, exp.err.find("100%")) << exp.err;
    EXPECT_TRUE(slurp(file) == bytes) << "export";
    const ToolRun toStdout = qvfs({"export", a, "-"});
    EXPECT_TRUE(toStdout.out == bytes) << "export to standard output";
    EXPECT_EQ("", toStdout.err) << "no progress bar without a terminal";
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
    const std::string text = qvfs({"find", "0", "--channel", "1", "--type", "IMG"}).out;
    EXPECT_EQ(0u, text.find("NAME")) << text;
    EXPECT_NE(std::string::npos, text.find(n[3])) << text;
    EXPECT_EQ(2, std::count(text.begin(), text.end(), '\n'));
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
    write_image(0, qvfs::disk::kDataStart + 512 + offsetof(TQvBlkSliceInfo, ext), "\x01\xff\n", 4);
    const std::string shown = a.substr(0, 24) + "\\x01\\xff\\x0a";
    EXPECT_EQ(shown, json({"ls", "0", "0", "--json"})["files"][0]["name"]);
    EXPECT_EQ(shown, json({"find", "0", "--channel", "1", "--json"})["files"][0]["name"]);
    const std::string text = qvfs({"ls", "0", "0"}).out;
    EXPECT_EQ(2, std::count(text.begin(), text.end(), '\n')) << text;
    EXPECT_EQ(shown + " ", text.substr(text.find('\n') + 1, shown.size() + 1)) << text;
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

}  // namespace
}  // namespace qvfs::test

#else
TEST(CliFiles, Skipped) { GTEST_SKIP() << "the qvfs tool is not built for this target"; }
#endif
