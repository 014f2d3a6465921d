// file_env.cpp - see file_env.h.
#include "support/file_env.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/platform.h"
#include "disk/df.h"
#include "support/disk_env.h"

namespace qvfs::test {

namespace {
constexpr uint32_t kBlocks = 3;
}

uint32_t name_block(const std::string& name) { return uint32_t(std::stoul(name.substr(2, 6), nullptr, 16)); }
uint32_t name_slice(const std::string& name) { return uint32_t(std::stoul(name.substr(8, 4), nullptr, 16)); }

void FileTest::SetUp() {
    ASSERT_EQ(0, tf_Init()) << "errno " << errno;
    disk_ = sbx_.add_disk(0, image_bytes_for(kBlocks));
    ASSERT_EQ(0, df_DiskFormat(disk_.c_str(), 0, 0)) << "errno " << errno;
    ASSERT_EQ(0, df_DiskMount(disk_.c_str())) << "errno " << errno;
}

void FileTest::TearDown() {
    qvfs::plat::fault_clear();
    for (int i = 0; i < QVFS_MAX_DISKS; ++i)
        if (g_astQvDisk[i].fd >= 0) df_DiskUnmout(Sandbox::device_path(i).c_str(), 1);
}

TQvfsOpenParam FileTest::param(int32_t fileType, int32_t resSize, uint32_t chn, int32_t recType) const {
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

FileTest::Created FileTest::create(int32_t fileType, int32_t resSize, uint32_t chn, int32_t recType) {
    TQvfsOpenParam p = param(fileType, resSize, chn, recType);
    char name[64] = {};
    Created c;
    c.h = tf_OpenFile(&p, name);
    EXPECT_NE(nullptr, c.h) << "create failed, errno " << errno;
    c.name = name;
    return c;
}

TQvBlkSliceInfo FileTest::entry_on_disk(const std::string& name) const {
    TQvBlkSliceInfo s;
    std::string raw = bytes_on_disk(name, uint64_t(name_slice(name)) * 512, sizeof s);
    std::memcpy(&s, raw.data(), sizeof s);
    return s;
}

std::string FileTest::bytes_on_disk(const std::string& name, uint64_t blockOffset, size_t len) const {
    int64_t blk = df_GetBlkAddr(0, int32_t(name_block(name)));
    EXPECT_GT(blk, 0);
    std::string out(len, '\0');
    int fd = ::open(sbx_.image_path(0).c_str(), O_RDONLY);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ssize_t(len), ::pread(fd, out.data(), len, off_t(uint64_t(blk) + blockOffset)));
    ::close(fd);
    return out;
}

bool FileTest::share_slot_used(uint32_t i) {
    return g_stQvfsFileList->owner[i][0] != 0 || g_stQvfsFileList->owner[i][1] != 0;
}

TQvFileHandle* FileTest::open(const std::string& name) {
    std::string buf = name;
    return tf_OpenFile(nullptr, buf.data());
}

int FileTest::owner_count(const TQvFileRec* rec, pid_t pid) {
    for (const TQvFileOwner& o : rec->owner)
        if (o.pid == pid) return o.count;
    return -1;
}

}  // namespace qvfs::test
