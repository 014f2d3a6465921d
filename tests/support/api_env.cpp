// api_env.cpp - see api_env.h.
#include "support/api_env.h"

#include <cerrno>
#include <cstring>

#include "disk/df.h"
#include "platform.h"
#include "support/disk_env.h"

namespace qvfs::test {

void ApiTest::SetUp() {
    ASSERT_EQ(0, qvfs_Init()) << "errno " << errno;
    disk_ = sbx_.add_disk(0, image_bytes_for(kBlocks));
    ASSERT_EQ(0, qvfs_Format(disk_.c_str())) << "errno " << errno;
    ASSERT_EQ(0, qvfs_Mount(disk_.c_str())) << "errno " << errno;
}

void ApiTest::TearDown() {
    qvfs::plat::fault_clear();
    qvfs_DeInit();
    for (int i = 0; i < QVFS_MAX_DISKS; ++i)
        if (g_astQvDisk[i].fd >= 0) df_DiskUnmout(Sandbox::device_path(i).c_str(), 1);
}

TQvfsOpenParam ApiTest::param(uint32_t chn, int32_t fileType, int32_t resSize, int32_t recType) const {
    TQvfsOpenParam p;
    std::memset(&p, 0, sizeof p);
    p.chn = chn;
    p.startTime = 1700000000;
    p.fileType = fileType;
    p.resSize = resSize;
    p.recType = recType;
    std::strncpy(p.path, disk_.c_str(), sizeof p.path - 1);
    std::strncpy(p.ext, "rvd", sizeof p.ext - 1);
    return p;
}

int ApiTest::create(std::string* name, uint32_t chn, int32_t fileType, int32_t resSize, int32_t recType) {
    TQvfsOpenParam p = param(chn, fileType, resSize, recType);
    char buf[64] = {};
    const int h = qvfs_OpenV2(&p, buf, QVFS_O_RDWR);
    EXPECT_GE(h, 0) << "create failed, errno " << errno;
    if (name != nullptr) *name = buf;
    return h;
}

std::string ApiTest::new_file(uint32_t chn, int32_t recType, size_t len) {
    std::string name;
    const int h = create(&name, chn, 0, 0, recType);
    const std::vector<uint8_t> data = pattern(chn, 0, len);
    EXPECT_EQ(int(len), qvfs_Write(h, data.data(), uint32_t(len)));
    EXPECT_EQ(0, qvfs_Close(h));
    return name;
}

int ApiTest::open_name(const std::string& name, int flags) {
    std::vector<char> buf(name.begin(), name.end());
    buf.push_back('\0');
    return qvfs_OpenV2(nullptr, buf.data(), flags);
}

std::vector<uint8_t> ApiTest::read_all(const std::string& name) {
    std::vector<uint8_t> out;
    const int h = open_name(name);
    EXPECT_GE(h, 0) << name << " errno " << errno;
    if (h < 0) return out;
    uint8_t buf[65536];
    for (;;) {
        const int n = qvfs_Read(h, buf, sizeof buf);
        if (n <= 0) break;
        out.insert(out.end(), buf, buf + n);
    }
    qvfs_Close(h);
    return out;
}

TQvFileStat ApiTest::stat_of(const std::string& name) {
    TQvFileStat st;
    std::memset(&st, 0, sizeof st);
    EXPECT_EQ(0, qvfs_Stat(name.c_str(), &st)) << name << " errno " << errno;
    return st;
}

uint8_t pattern_byte(uint32_t seed, uint64_t i) {
    uint64_t x = (i / 8) * 0x9E3779B97F4A7C15ull + seed * 0xBF58476D1CE4E5B9ull + 1;
    x ^= x >> 31;
    x *= 0x94D049BB133111EBull;
    x ^= x >> 29;
    return static_cast<uint8_t>(x >> (8 * (i % 8)));
}

std::vector<uint8_t> pattern(uint32_t seed, uint64_t from, size_t len) {
    std::vector<uint8_t> v(len);
    for (size_t k = 0; k < len; ++k) v[k] = pattern_byte(seed, from + k);
    return v;
}

}  // namespace qvfs::test
