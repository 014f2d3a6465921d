// The same disk, whichever build wrote it; and the values that outgrow 32
// bits on the 32-bit ARM recorders.
//
// CrossArchImage records a fixed scenario on a sparse disk image through the
// public calls (three channels, a pre-record ring that wraps, user data, a
// locked file, a deleted file, a bad unit) and reads everything the public
// calls report about it into a text, one line per fact, checking each file's
// bytes and fields against the scenario on the way. The text that the
// recording process sees is compared with the text of a fresh process that
// mounts a copy of the image under new keys: it loads everything from the
// device, nothing from shared memory.
//
// Across builds (scripts/armhf.sh): with QVFS_XARCH_DIR set, RecordForTheOtherBuild
// leaves the image and the fresh process's text in that directory, and
// ReadTheOtherBuildsImage, run by the other architecture's build, reads the
// image and must produce the same text.
//
// WideValues covers the arithmetic that differs when long and pointers are
// 32 bits: block addresses far beyond 4 GiB, 64-bit file sizes and positions,
// handle values, and times sign-extended from 32-bit words.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "api/qvfs.h"
#include "disk/df.h"
#include "support/api_env.h"
#include "support/child.h"
#include "support/disk_env.h"
#include "support/sandbox.h"
#include "proc_lock.h"

namespace {

using qvfs::test::ApiTest;
using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::image_bytes_for;
using qvfs::test::kGiB;
using qvfs::test::pattern;
using qvfs::test::Sandbox;
using qvfs::test::SandboxTest;

// ---- the scenario -------------------------------------------------------------------

constexpr int kDisk = 3;
constexpr uint32_t kBlocks = 5;
constexpr uint64_t kImageBytes = image_bytes_for(kBlocks);
constexpr uint64_t kSectorsPerBlock = kGiB / 512;

// Every file is known by the seed of its bytes (pattern(seed, ...)), which it
// also carries in the first word of its user parameter.
enum Seed : uint32_t {
    kPlain = 11,    // channel 0, recording, locked, written in three pieces
    kNext = 12,     // channel 0, names kPlain as previous file, user data, moved creation time
    kRing = 13,     // channel 1, reserved area: a wrapped pre-record ring, then main data
    kPicture = 14,  // channel 7, picture, one gathering write
    kEarly = 15,    // channel 7, picture with a negative 32-bit start time, record type 1
    kGone = 16,     // channel 0, deleted again
};
constexpr int32_t kStartTime = 1700000000;
constexpr int32_t kEarlyStart = -100;
constexpr int32_t kMovedCreation = 0x7FFFFFF0;
constexpr uint32_t kPlainLen = 300000;
constexpr uint32_t kNextLen = 70001;
constexpr uint32_t kRingArea = 256 * 1024;  // reserved area of kRing
constexpr uint32_t kRingStart = 100000;     // the ring's oldest byte, from the area's start
constexpr uint32_t kRingEnd = 40000;        // where the ring wrapped to
constexpr uint32_t kRingMain = 50000;
constexpr uint32_t kRingLen = kRingArea - kRingStart + kRingEnd + kRingMain;
constexpr uint32_t kPictureLen = 40000;
constexpr uint32_t kEarlyLen = 5000;
// The bad unit: 4 KiB inside block 2, tagged before any block is taken, so
// that channel 7 skips to block 3.
constexpr uint64_t kBadUnitOffset = qvfs::disk::kDataStart + 2 * kGiB + 0x123000;

const std::map<uint32_t, uint32_t> kLengths = {
    {kPlain, kPlainLen}, {kNext, kNextLen}, {kRing, kRingLen}, {kPicture, kPictureLen}, {kEarly, kEarlyLen}};

// Deterministic values of the file information of kNext.
std::vector<uint8_t> user_data(uint32_t funcId, size_t len) { return pattern(1000 + funcId, 0, len); }
constexpr uint32_t kAbstract = 0x5EED0C0D;

TQvfsOpenParam open_param(const std::string& dev, uint32_t chn, int32_t fileType, int32_t resSize,
                          int32_t recType, int32_t startTime, const char* ext, const std::string& preName) {
    TQvfsOpenParam p;
    std::memset(&p, 0, sizeof p);
    p.chn = chn;
    p.startTime = startTime;
    p.fileType = fileType;
    p.resSize = resSize;
    p.recType = recType;
    std::snprintf(p.path, sizeof p.path, "%s", dev.c_str());
    std::snprintf(p.ext, sizeof p.ext, "%s", ext);
    std::snprintf(p.preName, sizeof p.preName, "%s", preName.c_str());
    return p;
}

// Creates a file and tags it with its seed; returns the handle (or -1 after
// a failed expectation) and stores the name.
int create(const TQvfsOpenParam& param, uint32_t seed, std::string* name) {
    TQvfsOpenParam p = param;
    char buf[64] = {};
    const int h = qvfs_OpenV2(&p, buf, QVFS_O_RDWR);
    EXPECT_GE(h, 0) << "create seed " << seed << " errno " << errno;
    *name = buf;
    return h;
}

void tag_seed(const std::string& name, uint32_t seed) {
    EXPECT_EQ(0, qvfs_SetUsrParam(name.c_str(), &seed, sizeof seed)) << name;
}

void write_all(int h, const std::vector<uint8_t>& data) {
    EXPECT_EQ(int(data.size()), qvfs_Write(h, data.data(), uint32_t(data.size())));
}

// Records the scenario on the mounted disk `dev`.
void record_scenario(const std::string& dev) {
    ASSERT_EQ(0, qvfs_TagBadUnit(dev.c_str(), kBadUnitOffset, 4096)) << "errno " << errno;
    std::string plain, next, ring, picture, early, gone;

    int h = create(open_param(dev, 0, 0, 0, 5, kStartTime, "rvd", ""), kPlain, &plain);
    ASSERT_GE(h, 0);
    for (uint32_t at = 0; at < kPlainLen; at += 100000) write_all(h, pattern(kPlain, at, 100000));
    EXPECT_EQ(0, qvfs_Close(h));

    h = create(open_param(dev, 0, 0, 0, 5, kStartTime + 60, "rvd", plain), kNext, &next);
    ASSERT_GE(h, 0);
    write_all(h, pattern(kNext, 0, kNextLen));
    EXPECT_EQ(0, qvfs_Close(h));

    h = create(open_param(dev, 0, 0, 0, 5, kStartTime + 90, "rvd", ""), kGone, &gone);
    ASSERT_GE(h, 0);
    write_all(h, pattern(kGone, 0, 1000));
    EXPECT_EQ(0, qvfs_Close(h));

    // The reserved area fills linearly; the ring then starts at kRingStart,
    // runs to the area's end and wraps to kRingEnd; main data follows it.
    h = create(open_param(dev, 1, 1, int32_t(kRingArea), 5, kStartTime + 120, "rvd", ""), kRing, &ring);
    ASSERT_GE(h, 0);
    std::vector<uint8_t> area(kRingArea, 0xEE);
    const auto older = pattern(kRing, 0, kRingArea - kRingStart);
    const auto newer = pattern(kRing, kRingArea - kRingStart, kRingEnd);
    std::memcpy(area.data() + kRingStart, older.data(), older.size());
    std::memcpy(area.data(), newer.data(), newer.size());
    write_all(h, area);
    EXPECT_EQ(0, qvfs_UpdataePreRecPtr(h, int32_t(kRingStart), int32_t(kRingEnd)));
    EXPECT_EQ(int64_t(kRingArea - kRingStart + kRingEnd), qvfs_Seek(h, 0, 2));
    write_all(h, pattern(kRing, kRingArea - kRingStart + kRingEnd, kRingMain));
    EXPECT_EQ(0, qvfs_Close(h));

    h = create(open_param(dev, 7, 5, 0, 5, kStartTime + 150, "jpg", ""), kPicture, &picture);
    ASSERT_GE(h, 0);
    const auto bytes = pattern(kPicture, 0, kPictureLen);
    struct iovec iov[3] = {{const_cast<uint8_t*>(bytes.data()), 1000},
                           {const_cast<uint8_t*>(bytes.data()) + 1000, 30000},
                           {const_cast<uint8_t*>(bytes.data()) + 31000, kPictureLen - 31000}};
    EXPECT_EQ(int(kPictureLen), qvfs_Writev(h, iov, 3));
    EXPECT_EQ(0, qvfs_Close(h));

    h = create(open_param(dev, 7, 5, 0, 1, kEarlyStart, "jpg", ""), kEarly, &early);
    ASSERT_GE(h, 0);
    write_all(h, pattern(kEarly, 0, kEarlyLen));
    EXPECT_EQ(0, qvfs_Close(h));

    for (auto [name, seed] : {std::pair{plain, kPlain}, {next, kNext}, {ring, kRing}, {picture, kPicture},
                              {early, kEarly}})
        tag_seed(name, seed);
    EXPECT_EQ(0, qvfs_Lock(plain.c_str(), 1));
    TimeValue moved{kMovedCreation, 0};
    EXPECT_EQ(0, qvfs_ChangeCreateTime(next.c_str(), moved));
    uint32_t abstract = kAbstract;
    auto ud4 = user_data(4, 40), ud16 = user_data(16, 123);
    TQvFileInfo items[3] = {{&abstract, 4}, {ud4.data(), uint32_t(ud4.size())}, {ud16.data(), uint32_t(ud16.size())}};
    EXPECT_EQ(0, qvfs_SetFileInfo(next.c_str(), QVFS_INFO_VIDEO_ABSTRACT | QVFS_INFO_USERDATA_4 | QVFS_INFO_USERDATA_16,
                                  items, 3));
    EXPECT_EQ(0, qvfs_Unlink(gone.c_str()));
}

// ---- reading it back ------------------------------------------------------------------

// The whole content of a named file, read through a read-only handle.
std::vector<uint8_t> read_file(const std::string& name) {
    std::vector<uint8_t> out;
    const int h = qvfs_OpenV2(nullptr, const_cast<char*>(name.c_str()), QVFS_O_RDONLY);
    EXPECT_GE(h, 0) << name << " errno " << errno;
    if (h < 0) return out;
    std::vector<uint8_t> buf(65536);
    for (int n; (n = qvfs_Read(h, buf.data(), uint32_t(buf.size()))) > 0;) out.insert(out.end(), buf.begin(), buf.begin() + n);
    EXPECT_EQ(0, qvfs_Close(h));
    return out;
}

TQvFileStat stat_file(const std::string& name) {
    TQvFileStat st;
    std::memset(&st, 0, sizeof st);
    EXPECT_EQ(0, qvfs_Stat(name.c_str(), &st)) << name << " errno " << errno;
    return st;
}

std::string hex(const void* p, size_t n) {
    std::string s;
    char b[3];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, "%02x", static_cast<const uint8_t*>(p)[i]);
        s += b;
    }
    return s;
}

uint64_t fnv1a(const std::vector<uint8_t>& v) {
    uint64_t h = 0xcbf29ce484222325ull;
    for (uint8_t c : v) h = (h ^ c) * 0x100000001b3ull;
    return h;
}

// Everything the public calls report about the mounted disk `dev`, one line
// per fact, in a fixed order; the files' bytes and fields are checked against
// the scenario on the way.
std::string disk_report(const std::string& dev) {
    std::ostringstream out;
    char line[512];
    const char* p = dev.c_str();

    TQvStatfs sf;
    std::memset(&sf, 0, sizeof sf);
    EXPECT_EQ(0, qvfs_Statfs(p, &sf)) << "errno " << errno;
    std::snprintf(line, sizeof line, "statfs type=%08" PRIx32 " bsize=%" PRIu32 " blocks=%" PRIu64 " bfree=%" PRIu64
                  " bavail=%" PRIu64 " bad=%" PRIu32 "\n",
                  sf.f_type, sf.f_bsize, sf.f_blocks, sf.f_bfree, sf.f_bavail, sf.f_spare[0]);
    out << line;
    EXPECT_EQ(kBlocks * kSectorsPerBlock, sf.f_blocks);
    EXPECT_EQ(1u, sf.f_spare[0]) << "the bad unit's block";
    out << "usedblocks " << qvfs_GetUsedBlockNum(p) << "\n";

    TQvDiskBlkInfo info[kBlocks];
    std::memset(info, 0, sizeof info);
    const int inUse = qvfs_GetBlockInfo(p, info, int(kBlocks));
    EXPECT_EQ(3, inUse) << "channels 0, 1 and 7 hold one block each";
    EXPECT_EQ((kBlocks - 1 - uint64_t(inUse)) * kSectorsPerBlock, sf.f_bfree);
    for (int i = 0; i < inUse; ++i) {
        std::snprintf(line, sizeof line, "blockinfo %" PRIu32 " start=%" PRIu64 " files=%" PRIu32 " end=%" PRIu64
                      " type=%" PRIu32 "\n",
                      info[i].blkId, info[i].startTime, info[i].cnt, info[i].endTime, info[i].fileType);
        out << line;
    }
    for (uint32_t b = 0; b < kBlocks; ++b) {
        QvfsBlockStat bs;
        std::memset(&bs, 0, sizeof bs);
        const int r = qvfs_GetBlockStat(kDisk, b, &bs);
        std::snprintf(line, sizeof line, "blockstat %" PRIu32 " r=%d disk=%" PRIu32 " type=%" PRIu32 " locked=%" PRIu32
                      " other=%" PRIu32 " state=%" PRIu32 " end=%" PRIu32 ":%" PRIu32 " files=%d\n",
                      b, r, bs.diskId, bs.dataType, bs.locked, bs.otherType, bs.state, bs.endTimeHi, bs.endTimeLo,
                      qvfs_GetFileNum(p, b));
        out << line;
    }
    for (auto [chn, type] : {std::pair{0u, 0u}, {1u, 0u}, {7u, 5u}, {7u, 0u}}) {
        std::snprintf(line, sizeof line, "current chn=%u type=%u block=%d mib=%d\n", chn, type,
                      qvfs_GetUsedInBlockId(p, chn, type), qvfs_GetUsedSizeOfDataType(p, chn, type));
        out << line;
    }

    // The files, as the block listings give them.
    std::map<uint32_t, std::string> names;  // by seed
    for (int i = 0; i < inUse; ++i) {
        std::vector<TQvFileStat> list(8);
        const int n = qvfs_BlockStat(p, info[i].blkId, list.data(), int(list.size()));
        EXPECT_GE(n, 1) << "block " << info[i].blkId;
        for (int k = 0; k < n; ++k) {
            const TQvFileStat& st = list[k];
            uint32_t seed = 0;
            std::memcpy(&seed, st.usrParam, sizeof seed);
            std::snprintf(line, sizeof line, "file %s size=%" PRId64 " blocks=%" PRId64 " mtime=%" PRId32
                          " ctime=%" PRId32 " chn=%" PRIu64 " lock=%" PRIu64 " rec=%" PRIu64 " start=%" PRIu64
                          " usr=%s\n",
                          st.name, st.st.st_size, st.st.st_blocks, st.st.st_mtim.tv_sec, st.st.st_ctim.tv_sec,
                          st.chn, st.lock, st.recType, st.startTime, hex(st.usrParam, sizeof st.usrParam).c_str());
            out << line;
            EXPECT_TRUE(kLengths.count(seed)) << st.name << " carries seed " << seed;
            EXPECT_TRUE(names.emplace(seed, st.name).second) << "seed " << seed << " listed twice";
            if (!kLengths.count(seed)) continue;
            EXPECT_EQ(int64_t(kLengths.at(seed)), st.st.st_size) << st.name;
            EXPECT_EQ(st.st.st_size / 512, st.st.st_blocks) << st.name;
            EXPECT_EQ(seed == kPlain ? 1u : 0u, st.lock) << st.name;
            EXPECT_EQ(seed == kEarly ? 1u : 5u, st.recType) << st.name;

            // The same file by name, and its bytes.
            TQvFileStat byName;
            std::memset(&byName, 0, sizeof byName);
            EXPECT_EQ(0, qvfs_Stat(st.name, &byName)) << st.name;
            EXPECT_EQ(st.st.st_size, byName.st.st_size) << st.name;
            EXPECT_EQ(st.startTime, byName.startTime) << st.name;
            EXPECT_EQ(0, std::memcmp(st.usrParam, byName.usrParam, sizeof st.usrParam)) << st.name;
            const std::vector<uint8_t> bytes = read_file(st.name);
            EXPECT_TRUE(bytes == pattern(seed, 0, kLengths.at(seed))) << st.name << ": bytes differ from the scenario";
            std::snprintf(line, sizeof line, "bytes %s len=%zu fnv=%016" PRIx64 "\n", st.name, bytes.size(),
                          fnv1a(bytes));
            out << line;
        }
    }
    EXPECT_EQ(kLengths.size(), names.size()) << "the deleted file is not listed, every other one is";
    if (names.size() != kLengths.size()) return out.str();

    // Times widened from 32-bit words keep their sign.
    EXPECT_EQ(uint64_t(int64_t(kEarlyStart)), stat_file(names[kEarly]).startTime);
    EXPECT_EQ(uint64_t(kMovedCreation), stat_file(names[kNext]).startTime);

    // File information of every file.
    for (const auto& [seed, name] : names) {
        char pre[64] = {};
        uint32_t abstract = 0;
        std::vector<uint8_t> ud4(400), ud16(400);
        TQvFileInfo items[4] = {{pre, sizeof pre},
                                {&abstract, 4},
                                {ud4.data(), uint32_t(ud4.size())},
                                {ud16.data(), uint32_t(ud16.size())}};
        const int r = qvfs_GetFileInfo(name.c_str(), QVFS_INFO_PRENAME | QVFS_INFO_VIDEO_ABSTRACT, items, 2);
        const int r4 = qvfs_GetFileInfo(name.c_str(), QVFS_INFO_USERDATA_4, &items[2], 1);
        const int r16 = qvfs_GetFileInfo(name.c_str(), QVFS_INFO_USERDATA_16, &items[3], 1);
        ud4.resize(r4 == 0 ? items[2].len : 0);
        ud16.resize(r16 == 0 ? items[3].len : 0);
        std::snprintf(line, sizeof line, "info %s r=%d prename=%s abstract=%08" PRIx32 " ud4=%d:%s ud16=%d:%s\n",
                      name.c_str(), r, pre, abstract, r4, hex(ud4.data(), ud4.size()).c_str(), r16,
                      hex(ud16.data(), ud16.size()).c_str());
        out << line;
        if (seed == kNext) {
            EXPECT_EQ(0, r);
            // The stored previous name keeps disk, block, slice and check code.
            EXPECT_EQ(names[kPlain].substr(0, 16), std::string(pre).substr(0, 16));
            EXPECT_EQ(kAbstract, abstract);
            EXPECT_EQ(user_data(4, 40), ud4);
            EXPECT_EQ(user_data(16, 123), ud16);
        }
    }
    return out.str();
}

// ---- images and processes -------------------------------------------------------------

std::string slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

bool spill(const std::string& path, const std::string& text) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f << text;
    return bool(f.flush());
}

// Copies the data of a sparse image (its holes stay holes) over `to`, whose
// size is set to the source's.
::testing::AssertionResult copy_image(const std::string& from, const std::string& to) {
    const int in = ::open(from.c_str(), O_RDONLY);
    if (in < 0) return ::testing::AssertionFailure() << "open " << from << ": " << std::strerror(errno);
    const int out = ::open(to.c_str(), O_WRONLY | O_CREAT, 0644);
    if (out < 0) {
        ::close(in);
        return ::testing::AssertionFailure() << "open " << to << ": " << std::strerror(errno);
    }
    struct stat st;
    bool ok = ::fstat(in, &st) == 0 && ::ftruncate(out, st.st_size) == 0;
    std::vector<char> buf(1 << 20);
    off_t at = 0;
    while (ok) {
        off_t data = ::lseek(in, at, SEEK_DATA);
        if (data < 0) {
            ok = errno == ENXIO;  // no data behind `at`
            break;
        }
        off_t hole = ::lseek(in, data, SEEK_HOLE);
        ok = hole > data;
        for (off_t pos = data; ok && pos < hole;) {
            const size_t n = size_t(std::min<off_t>(hole - pos, off_t(buf.size())));
            ok = ::pread(in, buf.data(), n, pos) == ssize_t(n) && ::pwrite(out, buf.data(), n, pos) == ssize_t(n);
            pos += off_t(n);
        }
        at = hole;
    }
    ::close(in);
    ok = ::close(out) == 0 && ok;
    if (!ok) return ::testing::AssertionFailure() << "copying " << from << " to " << to << ": " << std::strerror(errno);
    return ::testing::AssertionSuccess();
}

// In a child process that has not started the library: records the scenario
// on the disk of the caller's sandbox and writes what it then reads (from
// its live shared state) to `reportPath`.
Child spawn_recorder(const std::string& dev, const std::string& reportPath) {
    return Child::spawn([=](ChildLink& link) {
        CHILD_CHECK(link, qvfs_Init() == 0);
        CHILD_CHECK(link, qvfs_Format(dev.c_str()) == 0);
        CHILD_CHECK(link, qvfs_Mount(dev.c_str()) == 0);
        record_scenario(dev);
        const std::string report = disk_report(dev);
        qvfs_DeInit();
        CHILD_CHECK(link, qvfs_UnMount(dev.c_str()) == 0);
        CHILD_CHECK(link, spill(reportPath, report));
        return 0;
    });
}

// In a child process with a sandbox of its own (new keys, so no shared state
// of any earlier process): mounts a copy of `image` and writes its report.
Child spawn_reader(const std::string& image, const std::string& reportPath) {
    return Child::spawn([=](ChildLink& link) {
        Sandbox own;
        const std::string dev = own.add_disk(kDisk, kImageBytes);
        EXPECT_TRUE(copy_image(image, own.image_path(kDisk)));
        CHILD_CHECK(link, qvfs_Init() == 0);
        CHILD_CHECK(link, qvfs_Mount(dev.c_str()) == 0);
        const std::string report = disk_report(dev);
        qvfs_DeInit();
        CHILD_CHECK(link, qvfs_UnMount(dev.c_str()) == 0);
        CHILD_CHECK(link, spill(reportPath, report));
        return 0;
    });
}

class CrossArchImage : public SandboxTest {
protected:
    // Records the scenario and reads it back in a fresh process; both
    // reports must agree. Leaves the fresh report in *fresh.
    void record_and_read_back(std::string* fresh) {
        const std::string dev = sbx_.add_disk(kDisk, kImageBytes);
        const std::string liveFile = sbx_.root() + "/live.txt", freshFile = sbx_.root() + "/fresh.txt";
        Child recorder = spawn_recorder(dev, liveFile);
        EXPECT_CHILD_OK(recorder);
        Child reader = spawn_reader(sbx_.image_path(kDisk), freshFile);
        EXPECT_CHILD_OK(reader);
        const std::string live = slurp(liveFile);
        *fresh = slurp(freshFile);
        ASSERT_FALSE(live.empty());
        EXPECT_EQ(live, *fresh) << "what the recording process saw differs from what the disk holds";
    }

    static std::string exchange_dir() {
        const char* d = std::getenv("QVFS_XARCH_DIR");
        return d != nullptr ? d : "";
    }
};

TEST_F(CrossArchImage, RecordedImageReadsTheSameInAFreshProcess) {
    std::string fresh;
    record_and_read_back(&fresh);
}

// Run by scripts/armhf.sh: the image and the report for the other build.
TEST_F(CrossArchImage, RecordForTheOtherBuild) {
    const std::string dir = exchange_dir();
    if (dir.empty()) GTEST_SKIP() << "set QVFS_XARCH_DIR to exchange an image with the other build";
    std::string fresh;
    record_and_read_back(&fresh);
    if (HasFailure()) return;
    ASSERT_TRUE(copy_image(sbx_.image_path(kDisk), dir + "/disk.img"));
    ASSERT_TRUE(spill(dir + "/report.txt", fresh));
}

// Run by scripts/armhf.sh with the other build's image: the same report.
TEST_F(CrossArchImage, ReadTheOtherBuildsImage) {
    const std::string dir = exchange_dir();
    if (dir.empty()) GTEST_SKIP() << "set QVFS_XARCH_DIR to exchange an image with the other build";
    const std::string theirs = slurp(dir + "/report.txt");
    ASSERT_FALSE(theirs.empty()) << "no report in " << dir;
    const std::string mineFile = sbx_.root() + "/mine.txt";
    Child reader = spawn_reader(dir + "/disk.img", mineFile);
    EXPECT_CHILD_OK(reader);
    const std::string mine = slurp(mineFile);
    EXPECT_EQ(theirs, mine) << "this build reads the other build's image differently";
    if (!HasFailure()) {
        ASSERT_TRUE(spill(dir + "/verified", mine));
    }
}

// ---- values beyond 32 bits --------------------------------------------------------------

class WideValues : public ApiTest {
protected:
    // Statfs of a disk, failing the test when the call fails.
    static TQvStatfs statfs_of(const std::string& dev) {
        TQvStatfs sf;
        std::memset(&sf, 0, sizeof sf);
        EXPECT_EQ(0, qvfs_Statfs(dev.c_str(), &sf)) << "errno " << errno;
        return sf;
    }
};

// A 2 TB disk has 1861 blocks: block addresses reach far beyond 4 GiB and
// the sector counts of statfs beyond 2^31. A file in the last block lands at
// dataStart + 1860 * 1 GiB on the device.
TEST_F(WideValues, LastBlockOfA1861BlockDisk) {
    constexpr int kBig = 1;
    constexpr uint64_t kDeviceBytes = 2000398934016ull;
    constexpr uint32_t kLast = 1860;
    const std::string big = sbx_.add_disk(kBig, kDeviceBytes);
    ASSERT_EQ(0, qvfs_Format(big.c_str())) << "errno " << errno;
    ASSERT_EQ(0, qvfs_Mount(big.c_str())) << "errno " << errno;
    const TQvDiskHead& head = g_astQvDisk[kBig].share->head;
    EXPECT_EQ(1861u, head.tolblk);
    EXPECT_EQ(0x1D181100000ull, head.dataEnd);
    EXPECT_EQ(int64_t(0x41100000ull + uint64_t(kLast) * kGiB), df_GetBlkAddr(kBig, int32_t(kLast)));
    TQvStatfs sf = statfs_of(big);
    EXPECT_EQ(1861ull * kSectorsPerBlock, sf.f_blocks);
    EXPECT_GT(sf.f_blocks, uint64_t(INT32_MAX));
    EXPECT_EQ(sf.f_blocks, sf.f_bfree);

    // Every block but the last two taken, then the next to last reported bad
    // by a byte offset beyond 2^40: the next file goes to the last block.
    {
        qvfs::ProcLockGuard lock(g_astQvDisk[kBig].lock);
        std::memset(g_astQvDisk[kBig].share->map, qvfs::disk::QV_BLK_BAD, kLast - 1);
    }
    const uint64_t badUnit = head.dataStart + uint64_t(kLast - 1) * kGiB + 0x7000;
    ASSERT_GT(badUnit, 1ull << 40);
    ASSERT_EQ(0, qvfs_TagBadUnit(big.c_str(), badUnit, 512));
    EXPECT_EQ(qvfs::disk::QV_BLK_BADUNIT, g_astQvDisk[kBig].share->map[kLast - 1]);
    EXPECT_EQ(qvfs::disk::QV_BLK_FREE, g_astQvDisk[kBig].share->map[kLast]);
    sf = statfs_of(big);
    EXPECT_EQ(kLast, sf.f_spare[0]);
    EXPECT_EQ(kSectorsPerBlock, sf.f_bfree);

    TQvfsOpenParam p = param(2);
    std::snprintf(p.path, sizeof p.path, "%s", big.c_str());
    char name[64] = {};
    const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
    ASSERT_GE(h, 0) << "errno " << errno;
    EXPECT_EQ(int(kLast), qvfs_GetUsedInBlockId(big.c_str(), 2, 0));
    const auto data = pattern(77, 0, 300000);
    EXPECT_EQ(300000, qvfs_Write(h, data.data(), 300000));
    EXPECT_EQ(0, qvfs_Close(h));
    EXPECT_EQ(data, read_all(name));

    // On the device: the file's data starts behind the block's 2 MiB header
    // area, 1860 GiB and some into the image.
    const uint64_t at = 0x41100000ull + uint64_t(kLast) * kGiB + 0x200000;
    std::vector<uint8_t> raw(data.size());
    const int fd = ::open(sbx_.image_path(kBig).c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ssize_t(raw.size()), ::pread(fd, raw.data(), raw.size(), off_t(at)));
    ::close(fd);
    EXPECT_EQ(data, raw);
}

// File lengths and positions are 64-bit values on every build: a file
// stretched to nearly a whole block by truncation reports its size, its
// sector count and its end position exactly, in the record's fixed places.
TEST_F(WideValues, SizesAndPositionsOfANearlyFullBlock) {
    std::string name;
    const int h = create(&name);
    ASSERT_GE(h, 0);
    const int64_t len = 0x3F000000 + 777;  // the block is 1 GiB, its header area 2 MiB
    ASSERT_EQ(0, qvfs_ftruncate(h, len));
    EXPECT_EQ(len, qvfs_Seek(h, 0, 2));
    EXPECT_EQ(len - 4096, qvfs_Seek(h, -4096, 2));
    EXPECT_EQ(len - 4096, qvfs_Tell(h));
    std::vector<uint8_t> tail(8192, 0xFF);
    EXPECT_EQ(4096, qvfs_Read(h, tail.data(), uint32_t(tail.size())));
    EXPECT_EQ(std::vector<uint8_t>(4096, 0), std::vector<uint8_t>(tail.begin(), tail.begin() + 4096));
    EXPECT_EQ(1, qvfs_Eof(h));

    TQvFileStat st;
    std::memset(&st, 0xA5, sizeof st);
    ASSERT_EQ(0, qvfs_fstat(h, &st));
    EXPECT_EQ(len, st.st.st_size);
    EXPECT_EQ(len / 512, st.st.st_blocks);
    const auto* raw = reinterpret_cast<const uint8_t*>(&st);
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(uint8_t(uint64_t(len) >> (8 * i)), raw[48 + i]) << "st_size byte " << i;
        EXPECT_EQ(uint8_t(uint64_t(len / 512) >> (8 * i)), raw[64 + i]) << "st_blocks byte " << i;
    }
    EXPECT_EQ(0xA5, raw[0]) << "the platform fields stay as the caller left them";
    EXPECT_EQ(0xA5, raw[56]);
    EXPECT_EQ(0, qvfs_Close(h));
}

// Handle values: slot in bits 0-15, generation in bits 16-27, the n-th
// handle made in the process taking generation n mod 4096; so 4096 handles
// later a slot's value repeats, and never turns negative on the way.
TEST_F(WideValues, HandleValuesCarrySlotAndGeneration) {
    std::string name;
    const int first = create(&name);
    ASSERT_GE(first, 0);
    const int second = open_name(name);
    ASSERT_GE(second, 0);
    const int gen0 = first >> 16;
    EXPECT_EQ(0, first & 0xFFFF);
    EXPECT_EQ(1, second & 0xFFFF);
    EXPECT_EQ((gen0 + 1) % 4096, second >> 16);
    EXPECT_EQ(0, qvfs_Close(first));
    int last = -1;
    for (int made = 2; made < 4096; ++made) {
        last = open_name(name);
        ASSERT_GE(last, 0) << made;
        ASSERT_EQ(0, last & 0xFFFF) << "the lowest free slot";
        ASSERT_EQ((gen0 + made) % 4096, last >> 16);
        ASSERT_EQ(0, qvfs_Close(last));
    }
    const int again = open_name(name);
    EXPECT_EQ(first, again) << "slot 0 with the first handle's generation";
    char buf[16];
    EXPECT_EQ(-1, qvfs_Read(last, buf, sizeof buf)) << "a stale handle of the same slot";
    EXPECT_EQ(0, qvfs_Close(again));
    EXPECT_EQ(0, qvfs_Close(second));
}

// Times travel as signed 32-bit words and are stored as 64-bit values: they
// are widened with their sign, as the 32-bit time() is on the recorders.
TEST_F(WideValues, TimesWidenWithTheirSign) {
    const int64_t before = int64_t(time(nullptr));
    const TQvDiskHead& head = g_astQvDisk[0].share->head;
    EXPECT_GE(head.createTime, before - 5);
    EXPECT_LE(head.createTime, before);

    TQvfsOpenParam p = param(3);
    p.startTime = INT32_MIN;
    char name[64] = {};
    const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
    ASSERT_GE(h, 0);
    EXPECT_EQ(4, qvfs_Write(h, "data", 4));
    EXPECT_EQ(0, qvfs_Close(h));
    TQvFileStat st = stat_of(name);
    EXPECT_EQ(0xFFFFFFFF80000000ull, st.startTime);
    EXPECT_GE(int64_t(int32_t(st.st.st_mtim.tv_sec)), before);

    TQvDiskBlkInfo info[ApiTest::kBlocks];
    ASSERT_EQ(1, qvfs_GetBlockInfo(disk_.c_str(), info, int(ApiTest::kBlocks)));
    EXPECT_EQ(0xFFFFFFFF80000000ull, info[0].startTime) << "the block's start time is its first file's";

    TimeValue t{-2, 0};
    EXPECT_EQ(0, qvfs_ChangeCreateTime(name, t));
    EXPECT_EQ(uint64_t(int64_t(-2)), stat_of(name).startTime);
    TimeValue times[2] = {{0, 0}, {INT32_MAX, 0}};
    EXPECT_EQ(0, qvfs_ChangeTime(name, times));
    st = stat_of(name);
    EXPECT_EQ(INT32_MAX, st.st.st_mtim.tv_sec);
    QvfsBlockStat bs;
    ASSERT_EQ(0, qvfs_GetBlockStat(0, info[0].blkId, &bs));
    EXPECT_EQ(uint32_t(INT32_MAX), bs.endTimeLo);
    EXPECT_EQ(0u, bs.endTimeHi) << "a positive end time has no high word";
}

}  // namespace
