// `qvfs check`: clean on a healthy disk, and each kind of damage written
// into the image on purpose reported in its own line with a non-zero exit;
// the tool on a loop device.
#include <gtest/gtest.h>

#if defined(QVFS_TOOL_PATH) && defined(QVFS_TOOL_RUNNER) && __has_include(<nlohmann/json.hpp>)

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>

#include "blockfile/bf_format.h"
#include "disk/df.h"
#include "disk/df_format.h"
#include "support/cli_env.h"

namespace qvfs::test {
namespace {

using Json = nlohmann::json;
using namespace qvfs::disk;

constexpr int32_t kT0 = 1709287200;

uint64_t block_at(uint32_t b) { return kDataStart + uint64_t(b) * kBlockSize; }
uint64_t entry_at(uint32_t b, uint32_t slice) { return block_at(b) + uint64_t(slice) * 512; }

// The disk every test starts from: channel 1 recordings in block 0 (three
// made, the second deleted again), channel 2 pictures in block 1, blocks 2
// and 3 free.
class CliCheck : public CliTest {
protected:
    CliCheck() : CliTest(QVFS_TOOL_PATH, QVFS_TOOL_RUNNER) {}

    void SetUp() override {
        CliTest::SetUp();
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
    ToolRun r = qvfs({"check", "0", "--progress"});
    EXPECT_EQ(0, r.status) << r.describe();
    EXPECT_EQ("disk 0 (/dev/scsi/host00/part1): 4 blocks, 2 in use, 2 free, 0 bad: clean\n", r.out);
    EXPECT_NE(std::string::npos, r.err.find("check disk 0")) << r.err;
    EXPECT_NE(std::string::npos, r.err.find("4 / 4 blocks")) << r.err;
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
    r = qvfs({"check", "0"});
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
    const ToolRun text = qvfs({"check", "0"});
    EXPECT_EQ(3, text.status) << text.describe();
    const Json j = check_json();
    const Json& f = j["findings"];
    EXPECT_EQ(false, j["clean"]) << j.dump(2);
    EXPECT_TRUE(d.findings == 0 || d.findings == f.size()) << f.dump(2);
    EXPECT_TRUE(std::any_of(f.begin(), f.end(), [&](const Json& x) {
        return x["kind"] == d.kind && (d.block < 0 ? x["block"].is_null() : x["block"] == d.block) &&
               x["message"].get<std::string>().find(d.text) != std::string::npos;
    })) << "no " << d.kind << " finding with \"" << d.text << "\" in\n" << f.dump(2);
    // Text: one line per finding, then the verdict.
    EXPECT_EQ(f.size() + 1, size_t(std::count(text.out.begin(), text.out.end(), '\n'))) << text.out;
    for (const Json& x : f) EXPECT_NE(std::string::npos, text.out.find(x["message"].get<std::string>() + "\n"));
    EXPECT_NE(std::string::npos, text.out.find(f.size() == 1 ? ": 1 finding\n" : " findings\n")) << text.out;
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

// The tool on a real block device: a loop device over an image, linked in
// as the disk's device. Needs root and losetup.
TEST_F(CliCheck, WorksOnALoopDevice) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root for losetup";
    const std::string image = sbx_.root() + "/loop.img", src = sbx_.root() + "/clip.rvd";
    std::ofstream(image).close();
    std::filesystem::resize_file(image, image_bytes_for(2));
    char loop[128] = {};
    if (FILE* p = popen(("losetup -f --show " + image + " 2>/dev/null").c_str(), "r")) {
        if (std::fgets(loop, sizeof loop, p) == nullptr) loop[0] = '\0';
        pclose(p);
    }
    loop[std::strcspn(loop, "\n")] = '\0';
    if (loop[0] == '\0') GTEST_SKIP() << "no loop device available";
    struct Detach { std::string dev; ~Detach() { (void)std::system(("losetup -d " + dev).c_str()); } } detach{loop};
    // An emulator does not pass the device's presence request on to the
    // kernel; a recorder with such devices switches the online check off.
    ASSERT_TRUE(runner_.empty() || qvfs_SetOpt(QVFS_OPT_NO_ONLINE_CHECK) == 0);
    const std::string link = sbx_.real(Sandbox::device_path(6));
    std::filesystem::create_directories(std::filesystem::path(link).parent_path());
    std::filesystem::create_symlink(loop, link);
    const std::vector<uint8_t> data = pattern(5, 0, 300000);
    std::ofstream(src, std::ios::binary) << std::string(data.begin(), data.end());

    ToolRun r = qvfs({"format", "6"});
    EXPECT_EQ("formatted disk 6 (/dev/scsi/host06/part1): 2 blocks of 1.0 GiB, 2.0 GiB\n", r.out) << r.describe();
    r = qvfs({"import", "6", src, "--channel", "3"});
    ASSERT_EQ(0, r.status) << r.describe();
    const std::string name = r.out.substr(0, r.out.size() - 1);
    EXPECT_EQ(1, json_of(qvfs({"df", "6", "--json"}))["disks"][0]["used"]);
    r = qvfs({"check", "6"});
    EXPECT_EQ(0, r.status) << r.describe();
    EXPECT_EQ("disk 6 (/dev/scsi/host06/part1): 2 blocks, 1 in use, 1 free, 0 bad: clean\n", r.out);
    EXPECT_TRUE(qvfs({"cat", name}).out == std::string(data.begin(), data.end())) << "cat from the loop device";
}

}  // namespace
}  // namespace qvfs::test

#else
TEST(CliCheck, Skipped) { GTEST_SKIP() << "the qvfs tool is not built for this target"; }
#endif
