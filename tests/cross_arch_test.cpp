// The same disk, whichever build wrote it: a fixed scenario recorded through
// the public calls, everything they report read into a text (bytes and fields
// checked against the scenario on the way), the same text read by a fresh
// process and, with QVFS_XARCH_DIR (scripts/armhf.sh), by the other
// architecture's build. And the values that outgrow 32 bits on ARM.
#include <gtest/gtest.h>
#include <sys/uio.h>

#include <filesystem>
#include <fstream>
#include <iomanip>
#include <map>
#include <sstream>

#include "common/proc_lock.h"
#include "support/child.h"
#include "support/fixture.h"

namespace {

using namespace qvfs::test;

constexpr int kDisk = 3;
constexpr uint32_t kBlocksX = 5;
constexpr uint64_t kSectors = kGiB / 512;  // per block
constexpr int32_t kT0 = 1700000000, kMovedCreation = 0x7FFFFFF0;
constexpr uint32_t kAbstract = 0x5EED0C0D;
// The ring file's area fills linearly; the ring starts at kRingStart, runs
// to the area's end and wraps to kRingEnd; main data follows.
constexpr uint32_t kRingArea = 256 * 1024, kRingStart = 100000, kRingEnd = 40000, kRingMain = 50000;
// 4 KiB inside block 2, tagged before any block is taken: channel 7 skips to block 3.
constexpr uint64_t kBadUnit = qvfs::disk::kDataStart + 2 * kGiB + 0x123000;

// Every file is known by the seed of its bytes, which its user parameter carries.
enum Seed : uint32_t { kPlain = 11, kNext, kRing, kPicture, kEarly, kGone };
struct FileSpec {
    uint32_t seed, chn;
    int32_t fileType, resSize, recType, start;
    uint32_t len;
};
const FileSpec kFiles[] = {
    {kPlain, 0, 0, 0, 5, kT0, 300000},     // locked, written in three pieces
    {kNext, 0, 0, 0, 5, kT0 + 60, 70001},  // names kPlain as previous file; file information; moved creation time
    {kGone, 0, 0, 0, 5, kT0 + 90, 1000},   // deleted again
    {kRing, 1, 1, int32_t(kRingArea), 5, kT0 + 120, kRingArea - kRingStart + kRingEnd + kRingMain},
    {kPicture, 7, 5, 0, 5, kT0 + 150, 40000},  // one gathering write
    {kEarly, 7, 5, 0, 1, -100, 5000},          // a negative 32-bit start time
};
std::vector<uint8_t> user_data(uint32_t funcId, size_t len) { return pattern(1000 + funcId, 0, len); }

struct Lib : ApiTest {  // the helpers that need no started fixture
    using ApiTest::read_all;
    using ApiTest::stat_of;
};

void record_scenario(const std::string& dev) {
    ASSERT_EQ(0, qvfs_TagBadUnit(dev.c_str(), kBadUnit, 4096)) << "errno " << errno;
    std::map<uint32_t, std::string> names;
    for (const FileSpec& f : kFiles) {
        TQvfsOpenParam p{f.chn, f.start, f.fileType, f.resSize, f.recType, 0, {}, {}, {}, 0};
        std::snprintf(p.path, sizeof p.path, "%s", dev.c_str());
        std::snprintf(p.ext, sizeof p.ext, "%s", f.fileType == 5 ? "jpg" : "rvd");
        if (f.seed == kNext) std::snprintf(p.preName, sizeof p.preName, "%s", names[kPlain].c_str());
        char name[64] = {};
        const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
        ASSERT_GE(h, 0) << "seed " << f.seed << " errno " << errno;
        names[f.seed] = name;
        std::vector<uint8_t> b = pattern(f.seed, 0, f.len);
        if (f.seed == kRing) {
            std::vector<uint8_t> area(kRingArea, 0xEE);
            std::copy_n(b.begin(), kRingArea - kRingStart, area.begin() + kRingStart);
            std::copy_n(b.begin() + (kRingArea - kRingStart), kRingEnd, area.begin());
            EXPECT_EQ(int(kRingArea), qvfs_Write(h, area.data(), kRingArea));
            EXPECT_EQ(0, qvfs_UpdataePreRecPtr(h, int32_t(kRingStart), int32_t(kRingEnd)));
            EXPECT_EQ(int64_t(kRingArea - kRingStart + kRingEnd), qvfs_Seek(h, 0, 2));
            EXPECT_EQ(int(kRingMain), qvfs_Write(h, &b[kRingArea - kRingStart + kRingEnd], kRingMain));
        } else if (f.seed == kPicture) {
            iovec iov[3] = {{&b[0], 1000}, {&b[1000], 30000}, {&b[31000], f.len - 31000}};
            EXPECT_EQ(int(f.len), qvfs_Writev(h, iov, 3));
        } else {
            for (uint32_t at = 0; at < f.len; at += 100000)
                EXPECT_EQ(int(std::min(f.len - at, 100000u)), qvfs_Write(h, &b[at], std::min(f.len - at, 100000u)));
        }
        EXPECT_EQ(0, qvfs_Close(h));
        EXPECT_EQ(0, qvfs_SetUsrParam(name, &f.seed, sizeof f.seed)) << name;
    }
    EXPECT_EQ(0, qvfs_Lock(names[kPlain].c_str(), 1));
    EXPECT_EQ(0, qvfs_ChangeCreateTime(names[kNext].c_str(), TimeValue{kMovedCreation, 0}));
    uint32_t abstract = kAbstract;
    auto ud4 = user_data(4, 40), ud16 = user_data(16, 123);
    TQvFileInfo items[3] = {{&abstract, 4}, {ud4.data(), uint32_t(ud4.size())}, {ud16.data(), uint32_t(ud16.size())}};
    EXPECT_EQ(0, qvfs_SetFileInfo(names[kNext].c_str(), QVFS_INFO_VIDEO_ABSTRACT | QVFS_INFO_USERDATA_4 | QVFS_INFO_USERDATA_16,
                                  items, 3));
    EXPECT_EQ(0, qvfs_Unlink(names[kGone].c_str()));
}

std::string hex(const void* p, size_t n) {
    std::ostringstream s;
    for (size_t i = 0; i < n; ++i) s << std::hex << std::setw(2) << std::setfill('0') << int(static_cast<const uint8_t*>(p)[i]);
    return s.str();
}
template <typename... V>
void fact(std::ostream& out, const char* label, const V&... v) {
    out << label;
    ((out << ' ' << v), ...);
    out << '\n';
}

// Everything the public calls report about the mounted disk, one line per
// fact in a fixed order; bytes and fields checked against the scenario.
std::string disk_report(const std::string& dev) {
    std::ostringstream out;
    const char* p = dev.c_str();
    TQvStatfs sf{};
    EXPECT_EQ(0, qvfs_Statfs(p, &sf)) << "errno " << errno;
    fact(out, "statfs", sf.f_type, sf.f_bsize, sf.f_blocks, sf.f_bfree, sf.f_bavail, sf.f_spare[0], qvfs_GetUsedBlockNum(p));
    TQvDiskBlkInfo info[kBlocksX] = {};
    const int inUse = qvfs_GetBlockInfo(p, info, int(kBlocksX));
    EXPECT_EQ(std::make_tuple(3, kBlocksX * kSectors, uint64_t{1}, (kBlocksX - 4) * kSectors),
              std::make_tuple(inUse, sf.f_blocks, uint64_t{sf.f_spare[0]}, sf.f_bfree))
        << "channels 0, 1 and 7 hold one block each; the bad unit's block";
    for (int i = 0; i < inUse; ++i)
        fact(out, "blockinfo", info[i].blkId, info[i].startTime, info[i].cnt, info[i].endTime, info[i].fileType);
    for (uint32_t b = 0; b < kBlocksX; ++b) {
        QvfsBlockStat bs{};
        const int r = qvfs_GetBlockStat(kDisk, b, &bs);
        fact(out, "blockstat", b, r, bs.diskId, bs.dataType, bs.locked, bs.otherType, bs.state, bs.endTimeHi,
             bs.endTimeLo, qvfs_GetFileNum(p, b));
    }
    for (auto [chn, type] : {std::pair{0u, 0u}, {1u, 0u}, {7u, 5u}, {7u, 0u}})
        fact(out, "current", chn, type, qvfs_GetUsedInBlockId(p, chn, type), qvfs_GetUsedSizeOfDataType(p, chn, type));
    std::map<uint32_t, std::string> names;  // by seed, from the block listings
    for (int i = 0; i < inUse; ++i) {
        TQvFileStat list[8] = {};
        const int n = qvfs_BlockStat(p, info[i].blkId, list, 8);
        for (int k = 0; k < n; ++k) {
            const TQvFileStat& st = list[k];
            uint32_t seed = 0;
            std::memcpy(&seed, st.usrParam, sizeof seed);
            fact(out, "file", st.name, st.st.st_size, st.st.st_blocks, st.st.st_mtim.tv_sec, st.st.st_ctim.tv_sec, st.chn,
                 st.lock, st.recType, st.startTime, hex(st.usrParam, sizeof st.usrParam));
            const FileSpec* f = std::find_if(std::begin(kFiles), std::end(kFiles), [&](const FileSpec& x) { return x.seed == seed; });
            EXPECT_TRUE(f != std::end(kFiles) && seed != kGone && names.emplace(seed, st.name).second)
                << st.name << " carries seed " << seed << ": deleted, unknown or listed twice";
            if (f == std::end(kFiles)) continue;
            EXPECT_EQ((std::vector<int64_t>{f->len, f->len / 512, f->seed == kPlain, f->recType}),
                      (std::vector<int64_t>{st.st.st_size, st.st.st_blocks, int64_t(st.lock), int64_t(st.recType)}))
                << st.name << ": size, sectors, lock, record type";
            const TQvFileStat byName = Lib::stat_of(st.name);
            EXPECT_EQ(0, std::memcmp(&st, &byName, sizeof st)) << st.name << ": listing and qvfs_Stat differ";
            EXPECT_TRUE(Lib::read_all(st.name) == pattern(seed, 0, f->len)) << st.name << ": bytes differ";
        }
    }
    EXPECT_EQ(5u, names.size()) << "the deleted file is not listed, every other one is";
    if (names.size() != 5) return out.str();
    // Times widened from 32-bit words keep their sign.
    EXPECT_EQ(std::make_pair(uint64_t(int64_t(-100)), uint64_t(kMovedCreation)),
              std::make_pair(Lib::stat_of(names[kEarly]).startTime, Lib::stat_of(names[kNext]).startTime));
    for (const auto& [seed, name] : names) {
        char pre[64] = {};
        uint32_t abstract = 0;
        std::vector<uint8_t> ud4(400), ud16(400);
        TQvFileInfo items[4] = {{pre, sizeof pre}, {&abstract, 4}, {ud4.data(), 400}, {ud16.data(), 400}};
        const int r = qvfs_GetFileInfo(name.c_str(), QVFS_INFO_PRENAME | QVFS_INFO_VIDEO_ABSTRACT, items, 2);
        const int r4 = qvfs_GetFileInfo(name.c_str(), QVFS_INFO_USERDATA_4, &items[2], 1);
        const int r16 = qvfs_GetFileInfo(name.c_str(), QVFS_INFO_USERDATA_16, &items[3], 1);
        ud4.resize(r4 == 0 ? items[2].len : 0);
        ud16.resize(r16 == 0 ? items[3].len : 0);
        fact(out, "info", name, r, pre, abstract, r4, hex(ud4.data(), ud4.size()), r16, hex(ud16.data(), ud16.size()));
        if (seed != kNext) continue;  // the stored previous name keeps disk, block, slice and check code
        EXPECT_EQ(std::make_tuple(0, names[kPlain].substr(0, 16), kAbstract, user_data(4, 40), user_data(16, 123)),
                  std::make_tuple(r, std::string(pre).substr(0, 16), abstract, ud4, ud16));
    }
    return out.str();
}

std::string slurp(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

// In a child with a sandbox of its own (new keys: no shared state of an
// earlier process) whose disk is the image file: formats it and records the
// scenario when `record`, then writes what it reads to `reportPath`.
Child spawn(const std::string& image, bool record, const std::string& reportPath) {
    return Child::spawn([=](ChildLink& link) {
        Sandbox own;
        const std::string dev = own.add_disk(kDisk, 0);
        if (record) std::ofstream(image).close(), std::filesystem::resize_file(image, image_bytes_for(kBlocksX));
        std::filesystem::remove(own.image_path(kDisk));
        std::filesystem::create_symlink(image, own.image_path(kDisk));
        CHILD_CHECK(link, qvfs_Init() == 0 && (!record || qvfs_Format(dev.c_str()) == 0) && qvfs_Mount(dev.c_str()) == 0);
        if (record) record_scenario(dev);
        const std::string report = disk_report(dev);
        qvfs_DeInit();
        CHILD_CHECK(link, qvfs_UnMount(dev.c_str()) == 0);
        CHILD_CHECK(link, bool(std::ofstream(reportPath, std::ios::binary) << report << std::flush));
        return 0;
    });
}

std::string exchange_dir() {
    const char* d = std::getenv("QVFS_XARCH_DIR");
    return d != nullptr ? d : "";
}

// Records the scenario and reads the image back in a fresh process: both
// reports agree. With QVFS_XARCH_DIR, leaves image and report there.
class CrossArchImage : public SandboxTest {};

TEST_F(CrossArchImage, RecordForTheOtherBuild) {
    const std::string dir = exchange_dir().empty() ? sbx_.root() : exchange_dir(), live = sbx_.root() + "/live.txt";
    Child recorder = spawn(dir + "/disk.img", true, live);
    EXPECT_CHILD_OK(recorder);
    Child reader = spawn(dir + "/disk.img", false, dir + "/report.txt");
    EXPECT_CHILD_OK(reader);
    ASSERT_FALSE(slurp(live).empty());
    EXPECT_EQ(slurp(live), slurp(dir + "/report.txt")) << "what the recording process saw differs from the disk";
    if (HasFailure()) std::filesystem::remove(dir + "/report.txt");
}

// Run by scripts/armhf.sh with the other build's image: the same report.
TEST_F(CrossArchImage, ReadTheOtherBuildsImage) {
    const std::string dir = exchange_dir(), mine = sbx_.root() + "/mine.txt";
    if (dir.empty()) GTEST_SKIP() << "set QVFS_XARCH_DIR to exchange an image with the other build";
    const std::string theirs = slurp(dir + "/report.txt");
    ASSERT_FALSE(theirs.empty()) << "no report in " << dir;
    Child reader = spawn(dir + "/disk.img", false, mine);
    EXPECT_CHILD_OK(reader);
    EXPECT_EQ(theirs, slurp(mine)) << "this build reads the other build's image differently";
    if (!HasFailure()) std::ofstream(dir + "/verified") << theirs;
}

// A 2 TB disk has 1861 blocks behind 0x41100000: addresses far beyond
// 4 GiB, statfs counts beyond 2^31 (1861 * 2^21 sectors). With every block but the last two taken and the next to last
// reported bad by an offset beyond 2^40, a new file lands in the last block;
// stretched to nearly the whole block, it reports size, sectors and
// positions exactly.
TEST_F(ApiTest, WideValuesInTheLastBlockOfA1861BlockDisk) {
    constexpr uint32_t kLast = 1860;
    const uint64_t last = block_addr(kLast);
    const std::string big = sbx_.add_disk(1, 2000398934016ull);
    ASSERT_EQ(0, qvfs_Format(big.c_str()));
    ASSERT_EQ(0, qvfs_Mount(big.c_str()));
    const TQvDiskHead& hd = image(1).head;
    EXPECT_EQ(std::make_tuple(2u, uint64_t{0x41100000}, 1861u, uint64_t{0x1D181100000}, int64_t(last)),
              std::make_tuple(hd.ver, hd.dataStart, hd.tolblk, hd.dataEnd, df_GetBlkAddr(1, int32_t(kLast))));
    {
        qvfs::ProcLockGuard lock(g_astQvDisk[1].lock);
        std::memset(image(1).map, qvfs::disk::QV_BLK_BAD, kLast - 1);
    }
    ASSERT_EQ(0, qvfs_TagBadUnit(big.c_str(), last - kGiB + 0x7000, 512));
    TQvStatfs sf{};
    ASSERT_EQ(0, qvfs_Statfs(big.c_str(), &sf));
    EXPECT_EQ(std::make_tuple(0x51564653u, 512u, uint64_t{3902799872}, uint64_t{2097152}, uint64_t{2097152}, kLast),
              std::make_tuple(sf.f_type, sf.f_bsize, sf.f_blocks, sf.f_bfree, sf.f_bavail, sf.f_spare[0]));
    TQvfsOpenParam p = param(2, 0, 0, 5, 1);
    char name[64] = {};
    const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
    EXPECT_EQ(int(kLast), qvfs_GetUsedInBlockId(big.c_str(), 2, 0));
    const auto data = pattern(77, 0, 300000);
    EXPECT_EQ(300000, qvfs_Write(h, data.data(), 300000));
    EXPECT_EQ(0, qvfs_Close(h));
    EXPECT_EQ(data, read_all(name));
    EXPECT_EQ(data, read_dev(1, last + 0x200000, data.size())) << "behind the block's 2 MiB directory";
    const int64_t len = 0x3F000000 + 777;
    const int w = open_name(name, QVFS_O_RDWR);
    ASSERT_EQ(0, qvfs_ftruncate(w, len));
    EXPECT_EQ(len - 4096, qvfs_Seek(w, -4096, 2));
    EXPECT_EQ(len - 4096, qvfs_Tell(w));
    std::vector<uint8_t> tail(8192, 0xFF);
    EXPECT_EQ(4096, qvfs_Read(w, tail.data(), uint32_t(tail.size())));
    EXPECT_EQ(std::vector<uint8_t>(4096, 0), std::vector<uint8_t>(tail.begin(), tail.begin() + 4096));
    TQvFileStat st;
    std::memset(&st, 0xA5, sizeof st);
    ASSERT_EQ(0, qvfs_fstat(w, &st));
    EXPECT_EQ(std::make_tuple(1, len, len / 512, 0xA5), std::make_tuple(qvfs_Eof(w), st.st.st_size, st.st.st_blocks,
                                                                    int(reinterpret_cast<const uint8_t*>(&st)[0])));
}

}  // namespace
