// disk_env.cpp - see disk_env.h.
#include "support/disk_env.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "common/fsc.h"

namespace qvfs::test {

using namespace qvfs::disk;

void DiskTest::SetUp() {
    ASSERT_EQ(0, fsc_ShareInit());
    ASSERT_EQ(0, df_Init());
}

void DiskTest::TearDown() {
    qvfs::plat::fault_clear();
    for (int i = 0; i < QVFS_MAX_DISKS; ++i)
        if (g_astQvDisk[i].fd >= 0) df_DiskUnmout(Sandbox::device_path(i).c_str(), 1);
}

std::string DiskTest::ready_disk(int disk, uint32_t blocks) {
    const std::string path = sbx_.add_disk(disk, image_bytes_for(blocks));
    EXPECT_EQ(0, df_DiskFormat(path.c_str(), 0, 0)) << "errno " << errno;
    EXPECT_EQ(0, df_DiskMount(path.c_str())) << "errno " << errno;
    return path;
}

std::vector<uint8_t> DiskTest::read_dev(int disk, uint64_t off, size_t len) const {
    std::vector<uint8_t> out(len);
    const int fd = ::open(sbx_.image_path(disk).c_str(), O_RDONLY);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(static_cast<ssize_t>(len), ::pread(fd, out.data(), len, static_cast<off_t>(off)));
    ::close(fd);
    return out;
}

void DiskTest::write_dev(int disk, uint64_t off, const void* buf, size_t len) const {
    const int fd = ::open(sbx_.image_path(disk).c_str(), O_RDWR);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(static_cast<ssize_t>(len), ::pwrite(fd, buf, len, static_cast<off_t>(off)));
    ::close(fd);
}

bool DiskTest::all_zero(const void* p, size_t n) {
    const auto* b = static_cast<const uint8_t*>(p);
    return std::all_of(b, b + n, [](uint8_t v) { return v == 0; });
}

bool DiskTest::dev_zero(int disk, uint64_t off, size_t len) const {
    return all_zero(read_dev(disk, off, len).data(), len);
}

void DiskTest::write_block_head(int disk, uint32_t block, const TestBlockHead& h) const {
    uint8_t s[512] = {};
    std::memcpy(s + 0, &h.len, 4);
    std::memcpy(s + 8, &h.startTime, 8);
    std::memcpy(s + 16, &h.endTime, 8);
    std::memcpy(s + 24, &h.chn, 4);
    std::memcpy(s + 28, &h.dataType, 4);
    std::memcpy(s + 44, &h.cnt, 4);
    std::memcpy(s + 56, &h.next, 8);
    std::memcpy(s + 64, &h.slice, 4);
    write_dev(disk, kDataStart + uint64_t(block) * kBlockSize, s, sizeof s);
}

::testing::AssertionResult DiskTest::meta_on_disk_matches(int disk, bool region0, bool region1,
                                                          bool headers) const {
    const TQvDiskShare& s = *g_astQvDisk[disk].share;
    auto same = [&](uint64_t off, const void* want, size_t len) {
        return std::memcmp(read_dev(disk, off, len).data(), want, len) == 0;
    };
    for (uint64_t at : {kHeadPrimary, kHeadBackup})
        if (headers && !same(at, &s.head, sizeof s.head))
            return ::testing::AssertionFailure() << "header at 0x" << std::hex << at << " differs";
    for (uint32_t r = 0; r < 2; ++r) {
        if ((r == 0 && !region0) || (r == 1 && !region1)) continue;
        for (uint64_t at : {map_first(r), map_second(r)})
            if (!same(at, s.map, kMapSize))
                return ::testing::AssertionFailure() << "status map at 0x" << std::hex << at << " differs";
        for (uint32_t t = 0; t < kTypes; ++t) {
            if (!same(current_chunk(r, t), s.current[t], kChunk))
                return ::testing::AssertionFailure() << "region " << r << " current chunk of type " << t;
            if (!same(count_chunk(r, t), s.count[t], kChunk))
                return ::testing::AssertionFailure() << "region " << r << " count chunk of type " << t;
        }
    }
    return ::testing::AssertionSuccess();
}

TQvfsOpenParam DiskTest::request(const std::string& path, uint32_t chn, int32_t code, int32_t len) {
    TQvfsOpenParam p{};
    p.chn = chn;
    p.fileType = code;
    p.resSize = len;
    std::snprintf(p.path, sizeof p.path, "%s", path.c_str());
    return p;
}

int32_t DiskTest::alloc(int disk, uint32_t chn, int32_t code, int32_t len) {
    const TQvfsOpenParam req = request(Sandbox::device_path(disk), chn, code, len);
    TQvBlkId id{77, -7};
    const int r = df_GetFileBlkId(&req, &id);
    EXPECT_EQ(r == 0 ? uint32_t(disk) : 77u, id.disk) << "the disk number is set on success only";
    return r == 0 ? id.block : -1;
}

int32_t DiskTest::new_block(int disk, uint32_t chn, int32_t code, TestBlockHead h) const {
    const int32_t b = alloc(disk, chn, code, 0x7FFFFFFF);
    EXPECT_GE(b, 0) << "errno " << errno;
    h.chn = chn;
    if (b >= 0) write_block_head(disk, static_cast<uint32_t>(b), h);
    return b;
}

int DiskTest::fault(unsigned ops, uint64_t begin, uint64_t len, int disk, long shortBytes, int remaining) {
    qvfs::plat::Fault f;
    f.disk = disk;
    f.begin = begin;
    f.end = len > UINT64_MAX - begin ? UINT64_MAX : begin + len;
    f.ops = ops;
    f.short_bytes = shortBytes;
    f.remaining = remaining;
    return qvfs::plat::fault_add(f);
}

}  // namespace qvfs::test
