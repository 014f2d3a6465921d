// fixture.cpp - see fixture.h.
#include "support/fixture.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace qvfs::test {

using namespace qvfs::disk;

std::vector<uint8_t> pattern(uint32_t seed, uint64_t from, size_t len) {
    std::vector<uint8_t> v(len);
    for (size_t k = 0; k < len; ++k) {
        const uint64_t i = from + k;
        uint64_t x = (i / 8) * 0x9E3779B97F4A7C15ull + seed * 0xBF58476D1CE4E5B9ull + 1;
        x = (x ^ (x >> 31)) * 0x94D049BB133111EBull;
        v[k] = uint8_t((x ^ (x >> 29)) >> (8 * (i % 8)));
    }
    return v;
}

uint32_t name_block(const std::string& name) { return uint32_t(std::stoul(name.substr(2, 6), nullptr, 16)); }
uint32_t name_slice(const std::string& name) { return uint32_t(std::stoul(name.substr(8, 4), nullptr, 16)); }

void Fixture::SetUp() {
    const bool ok = level_ == Level::kDisk    ? fsc_ShareInit() == 0 && df_Init() == 0
                    : level_ == Level::kBlock ? fsc_ShareInit() == 0 && bf_Init() == 0
                    : level_ == Level::kFile  ? tf_Init() == 0
                                              : qvfs_Init() == 0;
    ASSERT_TRUE(ok) << "errno " << errno;
    if (level_ == Level::kFile || level_ == Level::kApi) disk_ = ready_disk(0, kBlocks);
}

void Fixture::TearDown() {
    qvfs::plat::fault_clear();
    if (level_ == Level::kApi) qvfs_DeInit();
    for (int i = 0; i < QVFS_MAX_DISKS; ++i)
        if (g_astQvDisk[i].fd >= 0) df_DiskUnmout(Sandbox::device_path(i).c_str(), 1);
}

std::string Fixture::ready_disk(int disk, uint32_t blocks) {
    const std::string path = sbx_.add_disk(disk, image_bytes_for(blocks));
    EXPECT_EQ(0, df_DiskFormat(path.c_str(), 0, 0)) << "errno " << errno;
    EXPECT_EQ(0, df_DiskMount(path.c_str())) << "errno " << errno;
    return path;
}

std::vector<uint8_t> Fixture::read_dev(int disk, uint64_t off, size_t len) const {
    std::vector<uint8_t> out(len);
    const int fd = ::open(sbx_.image_path(disk).c_str(), O_RDONLY);
    EXPECT_EQ(ssize_t(len), ::pread(fd, out.data(), len, off_t(off))) << "image of disk " << disk;
    ::close(fd);
    return out;
}

void Fixture::write_dev(int disk, uint64_t off, const void* buf, size_t len) const {
    const int fd = ::open(sbx_.image_path(disk).c_str(), O_RDWR);
    EXPECT_EQ(ssize_t(len), ::pwrite(fd, buf, len, off_t(off))) << "image of disk " << disk;
    ::close(fd);
}

bool Fixture::dev_zero(int disk, uint64_t off, size_t len) const {
    const std::vector<uint8_t> v = read_dev(disk, off, len);
    return std::all_of(v.begin(), v.end(), [](uint8_t b) { return b == 0; });
}

TQvBlkInfo Fixture::head_on_disk(int disk, uint32_t block) const {
    TQvBlkInfo h;
    return std::memcpy(&h, read_dev(disk, block_addr(block), sizeof h).data(), sizeof h), h;
}

TQvBlkSliceInfo Fixture::entry_on_disk(int disk, uint32_t block, uint32_t slice) const {
    TQvBlkSliceInfo e;
    return std::memcpy(&e, read_dev(disk, block_addr(block) + uint64_t(slice) * 512, sizeof e).data(), sizeof e), e;
}

::testing::AssertionResult Fixture::meta_on_disk_matches(int disk, bool region0, bool region1, bool headers) const {
    const TQvDiskShare& s = image(disk);
    auto same = [&](uint64_t off, const void* want, size_t len) {
        return std::memcmp(read_dev(disk, off, len).data(), want, len) == 0;
    };
    for (uint64_t at : {kHeadPrimary, kHeadBackup})
        if (headers && !same(at, &s.head, sizeof s.head))
            return ::testing::AssertionFailure() << "header at 0x" << std::hex << at << " differs";
    for (uint32_t r = 0; r < 2; ++r) {
        if (!(r == 0 ? region0 : region1)) continue;
        for (uint64_t at : {map_first(r), map_second(r)})
            if (!same(at, s.map, kMapSize))
                return ::testing::AssertionFailure() << "status map at 0x" << std::hex << at << " differs";
        for (uint32_t t = 0; t < kTypes; ++t)
            if (!same(current_chunk(r, t), s.current[t], kChunk) || !same(count_chunk(r, t), s.count[t], kChunk))
                return ::testing::AssertionFailure() << "region " << r << ": a table chunk of type " << t << " differs";
    }
    return ::testing::AssertionSuccess();
}

int Fixture::fault(unsigned ops, uint64_t begin, uint64_t len, int disk, long shortBytes, int remaining) {
    const uint64_t end = len > UINT64_MAX - begin ? UINT64_MAX : begin + len;
    return qvfs::plat::fault_add(
        {.disk = disk, .begin = begin, .end = end, .ops = ops, .short_bytes = shortBytes, .remaining = remaining});
}

TQvfsOpenParam Fixture::param(uint32_t chn, int32_t fileType, int32_t resSize, int32_t recType, int disk) const {
    TQvfsOpenParam p{chn, 1700000000, fileType, resSize, recType, 0, {}, "rvd", {}, 0};
    std::snprintf(p.path, sizeof p.path, "%s", Sandbox::device_path(disk).c_str());
    return p;
}

int32_t Fixture::alloc(int disk, uint32_t chn, int32_t fileType, int32_t len) const {
    const TQvfsOpenParam req = param(chn, fileType, len, 0, disk);
    TQvBlkId id{77, -7};
    const int r = df_GetFileBlkId(&req, &id);
    EXPECT_EQ(r == 0 ? uint32_t(disk) : 77u, id.disk) << "the disk number is set on success only";
    return r == 0 ? id.block : -1;
}

Fixture::BFile Fixture::bf_create(const TQvfsOpenParam& req) {
    BFile f;
    f.h = bf_CreateFile(&req, f.name, &f.slice);
    if (f.h == nullptr) throw std::runtime_error("bf_CreateFile failed, errno " + std::to_string(errno));
    return f;
}

Fixture::TFile Fixture::tf_create(int32_t fileType, int32_t resSize, uint32_t chn, int32_t recType) const {
    const TQvfsOpenParam p = param(chn, fileType, resSize, recType);
    char name[64] = {};
    TFile f{tf_OpenFile(&p, name), name};
    if (f.h == nullptr) throw std::runtime_error("tf_OpenFile failed, errno " + std::to_string(errno));
    return f;
}

TQvFileHandle* Fixture::tf_open(const std::string& name) {
    std::string buf = name;
    return tf_OpenFile(nullptr, buf.data());
}

int Fixture::owner_count(const TQvFileRec* rec, pid_t pid) {
    for (const TQvFileOwner& o : rec->owner)
        if (o.pid == pid) return o.count;
    return -1;
}

bool Fixture::share_slot_used(uint32_t i) { return (g_stQvfsFileList->owner[i][0] | g_stQvfsFileList->owner[i][1]) != 0; }

int Fixture::create(std::string* name, uint32_t chn, int32_t fileType, int32_t resSize, int32_t recType) const {
    TQvfsOpenParam p = param(chn, fileType, resSize, recType);
    char buf[64] = {};
    const int h = qvfs_OpenV2(&p, buf, QVFS_O_RDWR);
    EXPECT_GE(h, 0) << "create failed, errno " << errno;
    if (name != nullptr) *name = buf;
    return h;
}

std::string Fixture::new_file(uint32_t chn, int32_t recType, size_t len) const {
    std::string name;
    const int h = create(&name, chn, 0, 0, recType);
    EXPECT_EQ(int(len), qvfs_Write(h, pattern(chn, 0, len).data(), uint32_t(len)));
    EXPECT_EQ(0, qvfs_Close(h));
    return name;
}

int Fixture::open_name(const std::string& name, int flags) {
    std::string buf = name;
    return qvfs_OpenV2(nullptr, buf.data(), flags);
}

std::vector<uint8_t> Fixture::read_all(const std::string& name) {
    std::vector<uint8_t> out;
    const int h = open_name(name);
    EXPECT_GE(h, 0) << name << " errno " << errno;
    uint8_t buf[65536];
    for (int n; h >= 0 && (n = qvfs_Read(h, buf, sizeof buf)) > 0;) out.insert(out.end(), buf, buf + n);
    qvfs_Close(h);
    return out;
}

TQvFileStat Fixture::stat_of(const std::string& name) {
    TQvFileStat st{};
    EXPECT_EQ(0, qvfs_Stat(name.c_str(), &st)) << name << " errno " << errno;
    return st;
}

}  // namespace qvfs::test
