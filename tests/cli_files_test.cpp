// The qvfs tool's file subcommands, run as a real process against a sandbox
// disk whose recordings this process made through the library: ls, find,
// stat, cat, export, rm, lock, unlock and import.
#include <gtest/gtest.h>

#if defined(QVFS_TOOL_PATH) && defined(QVFS_TOOL_RUNNER) && __has_include(<nlohmann/json.hpp>)

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>

#include <nlohmann/json.hpp>

#include "support/cli_env.h"

namespace qvfs::test {
namespace {

using Json = nlohmann::json;

constexpr int32_t kT0 = 1709287200;  // 2024-03-01T10:00:00Z
constexpr int32_t kMin = 60;

std::string iso(int64_t t, const char* zone = "+00:00", int offset = 0) {
    const time_t tt = static_cast<time_t>(t + offset);
    std::tm tm{};
    gmtime_r(&tt, &tm);
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    return std::string(buf) + zone;
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

class CliFiles : public CliTest {
protected:
    CliFiles() : CliTest(QVFS_TOOL_PATH, QVFS_TOOL_RUNNER) {}

    Json json(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
        const ToolRun r = qvfs(args, env);
        EXPECT_EQ(0, r.status) << r.describe();
        const Json j = Json::parse(r.out, nullptr, false);
        EXPECT_FALSE(j.is_discarded()) << r.describe();
        return j;
    }

    // The names of the files of a listing, in order.
    static std::vector<std::string> names(const Json& list) {
        std::vector<std::string> out;
        for (const Json& f : list) out.push_back(f["name"]);
        return out;
    }

    // Sets a recording's end time (the time of its last write otherwise).
    static void set_end(const std::string& name, int32_t end) {
        const TimeValue times[2] = {{end, 0}, {end, 0}};
        ASSERT_EQ(0, qvfs_ChangeTime(name.c_str(), times)) << errno;
    }
};

TEST_F(CliFiles, LsStatCatAndExportShowWhatWasRecorded) {
    const std::vector<uint8_t> data = pattern(7, 0, (3u << 20) + 123);
    const std::string a = record(1, 0, kT0, data, 5);
    const std::string b = record(1, 0, kT0 + 10 * kMin, pattern(8, 0, 4096), 0);
    const uint8_t usr[3] = {1, 2, 0xAB};
    ASSERT_EQ(0, qvfs_SetUsrParam(a.c_str(), usr, 3));
    ASSERT_EQ(0, qvfs_Lock(b.c_str(), 1));
    const TQvFileStat sa = stat_of(a), sb = stat_of(b);
    const uint32_t endA = static_cast<uint32_t>(sa.st.st_mtim.tv_sec);
    const uint32_t endB = static_cast<uint32_t>(sb.st.st_mtim.tv_sec);

    // A locked file is listed with the kind letter L in its name.
    std::string bLocked = b;
    bLocked[20] = 'L';
    const Json ls = json({"ls", "0", "0", "--json"});
    const Json want = {
        {"disk", 0},
        {"block", 0},
        {"type", "REC"},
        {"files",
         {{{"name", a}, {"disk", 0}, {"block", 0}, {"slice", 1}, {"channel", 1}, {"size", data.size()},
           {"start", iso(kT0)}, {"start_epoch", kT0}, {"end", iso(endA)}, {"end_epoch", endA},
           {"lock", "normal"}, {"record_type", 5}},
          {{"name", bLocked}, {"disk", 0}, {"block", 0}, {"slice", 2}, {"channel", 1}, {"size", 4096},
           {"start", iso(kT0 + 10 * kMin)}, {"start_epoch", kT0 + 10 * kMin}, {"end", iso(endB)},
           {"end_epoch", endB}, {"lock", "locked"}, {"record_type", 0}}}}};
    EXPECT_EQ(want, ls) << ls.dump(2);

    Json st = json({"stat", a, "--json"});
    Json wantStat = want["files"][0];
    wantStat["device"] = "/dev/scsi/host00/part1";
    wantStat["user_param"] = "0102ab" + std::string(58, '0');
    EXPECT_EQ(wantStat, st);
    // The same file named through its device path.
    EXPECT_EQ(a, json({"stat", "/dev/scsi/host00/part1/" + a, "--json"})["name"]);

    const ToolRun text = qvfs({"stat", a});
    ASSERT_EQ(0, text.status) << text.describe();
    EXPECT_NE(std::string::npos, text.out.find("size        3.0 MiB (3145851 bytes)\n")) << text.out;
    EXPECT_NE(std::string::npos, text.out.find("start       2024-03-01T10:00:00\n")) << text.out;

    const std::string bytes(data.begin(), data.end());
    const ToolRun cat = qvfs({"cat", a});
    ASSERT_EQ(0, cat.status) << cat.err;
    EXPECT_TRUE(cat.out == bytes) << "cat gave " << cat.out.size() << " bytes";

    const std::string file = sbx_.root() + "/a.rvd";
    const ToolRun exp = qvfs({"export", a, file, "--progress"});
    ASSERT_EQ(0, exp.status) << exp.describe();
    EXPECT_EQ("exported " + a + " to " + file + ": 3.0 MiB\n", exp.out);
    EXPECT_NE(std::string::npos, exp.err.find("100%")) << exp.err;
    EXPECT_TRUE(slurp(file) == bytes);
    const ToolRun toStdout = qvfs({"export", a, "-"});
    EXPECT_TRUE(toStdout.out == bytes);
    EXPECT_EQ("", toStdout.err) << "no progress bar without a terminal";

    const ToolRun nowhere = qvfs({"export", a, sbx_.root() + "/no/such/dir/x"});
    EXPECT_EQ(1, nowhere.status);
    EXPECT_EQ(0u, nowhere.err.find("qvfs: cannot create " + sbx_.root() + "/no/such/dir/x: ")) << nowhere.err;
}

TEST_F(CliFiles, FindCrossesBlocksAndChannelsWithinTheTimeRange) {
    // Channel 1 recordings in two REC blocks and one IMG block, channel 2 in
    // a REC block of its own; each recording lasts ten minutes.
    struct Rec {
        uint32_t chn;
        int32_t type, start, resSize;
    };
    const Rec recs[] = {{1, 0, kT0, 0},
                        {1, 0, kT0 + 30 * kMin, 0},
                        {2, 0, kT0 + 15 * kMin, 0},
                        {1, 3, kT0 + 45 * kMin, 0},
                        {1, 0, kT0 + 60 * kMin, 0x3FC00000},  // does not fit block 0: a new block
                        {1, 0, kT0 + 90 * kMin, 0}};
    std::vector<std::string> n;
    for (const Rec& r : recs) {
        n.push_back(record(r.chn, r.type, r.start, pattern(r.start, 0, 1000), 0, r.resSize));
        set_end(n.back(), r.start + 10 * kMin);
    }
    const auto find = [&](std::vector<std::string> args, const std::vector<std::string>& env = {}) {
        args.insert(args.begin(), {"find", "0", "--json"});
        const Json j = json(args, env);
        return names(j["files"]);
    };
    // Sorted by start time across blocks 0 and 3 (REC) and 2 (IMG).
    EXPECT_EQ((std::vector<std::string>{n[0], n[1], n[3], n[4], n[5]}), find({"--channel", "1"}));
    EXPECT_EQ((std::vector<std::string>{n[0], n[1], n[4], n[5]}), find({"--channel", "1", "--type", "REC"}));
    EXPECT_EQ((std::vector<std::string>{n[2]}), find({"--channel", "2"}));
    EXPECT_EQ((std::vector<std::string>{}), find({"--channel", "3"}));
    // Overlap with [10:20, 11:05]: 10:30, 10:45 and 11:00 start inside; 10:00
    // ended at 10:10 before it, 11:30 starts after it.
    EXPECT_EQ((std::vector<std::string>{n[1], n[3], n[4]}),
              find({"--channel", "1", "--from", "2024-03-01T10:20", "--to", "2024-03-01T11:05:00"}));
    // Bounds are inclusive: a recording that ends at --from, one that starts at --to.
    EXPECT_EQ((std::vector<std::string>{n[0], n[1], n[3], n[4]}),
              find({"--channel", "1", "--from", "2024-03-01T10:10:00", "--to", "2024-03-01T11:00:00Z"}));
    // Local time: in Central European time the same range reads an hour later.
    const std::vector<std::string> cet{"TZ=CET-1CEST,M3.5.0,M10.5.0/3"};
    EXPECT_EQ((std::vector<std::string>{n[1], n[3], n[4]}),
              find({"--channel", "1", "--from", "2024-03-01T11:20", "--to", "2024-03-01 12:05"}, cet));
    const Json local = json({"find", "0", "--channel", "2", "--json"}, cet);
    EXPECT_EQ(iso(kT0 + 15 * kMin, "+01:00", 3600), local["files"][0]["start"]);
    EXPECT_EQ(1, local["files"][0]["block"]);

    const ToolRun text = qvfs({"find", "0", "--channel", "1", "--type", "IMG"});
    ASSERT_EQ(0, text.status) << text.describe();
    EXPECT_EQ(0u, text.out.find("NAME")) << text.out;
    EXPECT_NE(std::string::npos, text.out.find(n[3])) << text.out;
    EXPECT_EQ(2, std::count(text.out.begin(), text.out.end(), '\n'));

    EXPECT_EQ(2, qvfs({"find", "0"}).status);  // the channel is required
    EXPECT_EQ(2, qvfs({"find", "0", "--channel", "1", "--from", "yesterday"}).status);
    EXPECT_EQ(2, qvfs({"find", "0", "--channel", "1", "--from", "2024-02-30"}).status);
    EXPECT_EQ(2, qvfs({"find", "0", "--channel", "1", "--from", "2024-03-02", "--to", "2024-03-01"}).status);
}

TEST_F(CliFiles, LockUnlockAndRemoveKeepTheBlockCountsRight) {
    const std::string a = record(1, 0, kT0, pattern(1, 0, 100));
    const std::string b = record(1, 0, kT0 + 1, pattern(2, 0, 100));
    const auto block_locked = [] {
        QvfsBlockStat bs{};
        EXPECT_EQ(0, qvfs_GetBlockStat(0, 0, &bs));
        return bs.locked;
    };

    EXPECT_EQ((Json{{"name", a}, {"lock", "locked"}, {"changed", true}}), json({"lock", a, "--json"}));
    EXPECT_EQ(1u, stat_of(a).lock);
    // Locking again changes nothing, so one unlock leaves the block with no
    // locked file.
    const ToolRun again = qvfs({"lock", a});
    EXPECT_EQ(0, again.status);
    EXPECT_EQ(a + " is already locked\n", again.out);
    EXPECT_EQ(1u, block_locked());
    EXPECT_EQ(0, qvfs({"unlock", a}).status);
    EXPECT_EQ(0u, stat_of(a).lock);
    EXPECT_EQ(0u, block_locked());
    EXPECT_EQ(a + " is already unlocked\n", qvfs({"unlock", a}).out);

    // A backup recording (file type 2) keeps its state.
    const std::string backup = record(3, 2, kT0, pattern(3, 0, 100));
    const ToolRun refused = qvfs({"lock", backup});
    EXPECT_EQ(1, refused.status);
    EXPECT_EQ("qvfs: cannot lock " + backup + ": it is a backup file\n", refused.err);

    // A file that a process holds open is not removed.
    const int h = open_name(b);
    ASSERT_GE(h, 0);
    const ToolRun busy = qvfs({"rm", b});
    EXPECT_EQ(1, busy.status);
    EXPECT_EQ("qvfs: cannot remove " + b + ": the file is open in a process\n", busy.err);
    EXPECT_EQ(0, qvfs_Close(h));

    const ToolRun rm = qvfs({"rm", a});
    EXPECT_EQ(0, rm.status) << rm.describe();
    EXPECT_EQ("removed " + a + "\n", rm.out);
    TQvFileStat st;
    EXPECT_EQ(-1, qvfs_Stat(a.c_str(), &st));
    const ToolRun gone = qvfs({"rm", a});
    EXPECT_EQ(1, gone.status);
    EXPECT_EQ("qvfs: cannot open " + a + " on disk 0 (/dev/scsi/host00/part1): " + qvfs_ErrorString(QVFS_ERR_BADARG) +
                  " (1001)\n",
              gone.err);
    EXPECT_EQ(1, qvfs_GetFileNum(disk_.c_str(), 0));
}

TEST_F(CliFiles, NamesAreCheckedBeforeAnyDiskIsUsed) {
    const std::string a = record(1, 0, kT0, pattern(1, 0, 100));
    for (const std::string& bad : {std::string("Hxyz"), a.substr(1), "X" + a.substr(1), a.substr(0, 23) + "x" + "rvd",
                                  std::string("")}) {
        for (const char* cmd : {"stat", "cat", "rm"}) {
            const ToolRun r = qvfs({cmd, bad});
            EXPECT_EQ(2, r.status) << cmd << " " << bad << r.describe();
            EXPECT_EQ(0u, r.err.find("qvfs: ")) << r.err;
        }
    }
    // Well formed, but no such slice.
    std::string missing = a;
    missing.replace(8, 4, "00FF");
    ToolRun r = qvfs({"cat", missing});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ("", r.out);
    EXPECT_EQ("qvfs: cannot open " + missing + " on disk 0 (/dev/scsi/host00/part1): " +
                  qvfs_ErrorString(QVFS_ERR_BADARG) + " (1001)\n",
              r.err);
    // A name on a disk that is not there.
    std::string elsewhere = a;
    elsewhere[1] = elsewhere[22] = '7';
    r = qvfs({"stat", elsewhere});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(0u, r.err.find("qvfs: cannot mount disk 7 (/dev/scsi/host07/part1): ")) << r.err;
}

TEST_F(CliFiles, ImportRecordsAFileThatTheLibraryReadsBack) {
    const std::vector<uint8_t> data = pattern(11, 0, 200000);
    const std::string src = sbx_.root() + "/pic.jpg";
    {
        std::ofstream out(src, std::ios::binary);
        out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    }
    const Json j = json({"import", "0", src, "--channel", "4", "--type", "PIC", "--start", "@1709287200", "--end",
                         "2024-03-01T10:05:00", "--record-type", "3", "--json"});
    const std::string name = j["name"];
    EXPECT_EQ(".jpg", name.substr(name.size() - 4));
    EXPECT_EQ(200000, j["size"]);
    EXPECT_EQ(data, read_all(name));
    const TQvFileStat st = stat_of(name);
    EXPECT_EQ(4u, st.chn);
    EXPECT_EQ(3u, st.recType);
    EXPECT_EQ(static_cast<uint64_t>(kT0), st.startTime);
    EXPECT_EQ(kT0 + 5 * kMin, st.st.st_mtim.tv_sec);
    QvfsBlockStat bs{};
    ASSERT_EQ(0, qvfs_GetBlockStat(0, static_cast<uint32_t>(std::stoul(name.substr(2, 6), nullptr, 16)), &bs));
    EXPECT_EQ(3u, bs.dataType);  // PIC

    EXPECT_EQ(1, qvfs({"import", "0", sbx_.root() + "/none", "--channel", "4"}).status);
    EXPECT_EQ(2, qvfs({"import", "0", src}).status);  // no channel
    EXPECT_EQ(2, qvfs({"import", "0", src, "--channel", "4", "--start", "@1709287200", "--end", "@1709287199"}).status);
}

}  // namespace
}  // namespace qvfs::test

#else
TEST(CliFiles, Skipped) { GTEST_SKIP() << "the qvfs tool is not built for this target"; }
#endif
