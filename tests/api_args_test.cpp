// The argument rules in one table: for each state (library not started; a
// mounted disk with an open file; the disk unmounted) and each argument, the
// result, the error code or an errno left as the caller had it, and that
// nothing changed: the file's status, bytes and position, the disk's image,
// and the handle table (only calls that open a file use a slot, and give it
// back). The layers' own calls have their rows too.
#include <gtest/gtest.h>
#include <sys/uio.h>

#include <functional>

#include "support/fixture.h"

namespace {

using namespace qvfs::test;
constexpr int kKeep = 4242;  // errno as the caller left it
constexpr int kAny = -999;   // errno not part of the contract

struct Row {
    const char* what;
    std::function<int64_t()> call;
    int64_t ret;
    int err;
    int slots = 0;  // handle slots the call uses (and gives back)
};

class ApiArgs : public ApiTest {
protected:
    void SetUp() override {
        ApiTest::SetUp();
        h_ = create(&name_);
        ASSERT_EQ(10, qvfs_Write(h_, "0123456789", 10));
        stale_ = open_name(name_);
        ASSERT_EQ(0, qvfs_Close(stale_));
        disk1_ = sbx_.add_disk(1, image_bytes_for(1));  // not formatted
    }
    // The file's status, position and first bytes, and the disk's image.
    std::vector<uint8_t> snap() const {
        TQvFileStat st{};
        qvfs_fstat(h_, &st);
        const int64_t pos = qvfs_Tell(h_);
        std::vector<uint8_t> s = read_dev(0, block_addr(0) + 0x200000, 16);
        const auto* img = reinterpret_cast<const uint8_t*>(g_astQvDisk[0].share);
        s.insert(s.end(), img, img + sizeof(TQvDiskShare));
        s.insert(s.end(), (const uint8_t*)&st, (const uint8_t*)(&st + 1));
        s.insert(s.end(), (const uint8_t*)&pos, (const uint8_t*)(&pos + 1));
        return s;
    }
    // The value the next open gets (made and closed to find it).
    int probe() const {
        const int h = open_name(name_);
        qvfs_Close(h);
        return h;
    }
    void run(const std::vector<Row>& rows) {
        const int before = probe();
        int slots = 0;
        for (const Row& r : rows) {
            const std::vector<uint8_t> s = snap();
            errno = kKeep;
            EXPECT_EQ(r.ret, r.call()) << r.what;
            EXPECT_TRUE(r.err == kAny || r.err == errno) << r.what << ": errno " << errno;
            EXPECT_TRUE(s == snap()) << r.what << ": something changed";
            slots += r.slots;
        }
        EXPECT_EQ(before + ((slots + 1) << 16), probe()) << "handle slots used";
    }
    int h_ = -1, stale_ = -1;
    std::string name_, disk1_;
};

// Every call on a handle that names no open handle: the calls -1 and close
// and the error query 0, with errno untouched; a negative one says 1002.
TEST_F(ApiArgs, HandlesThatNameNoOpenFile) {
    char b[16];
    iovec iov{b, 4};
    TQvFileStat st;
    const std::pair<const char*, std::function<int(int)>> calls[] = {
        {"read", [&](int h) { return qvfs_Read(h, b, 4); }},
        {"write", [&](int h) { return qvfs_Write(h, b, 4); }},
        {"writev", [&](int h) { return qvfs_Writev(h, &iov, 1); }},
        {"seek", [&](int h) { return int(qvfs_Seek(h, 0, 0)); }},
        {"tell", [&](int h) { return int(qvfs_Tell(h)); }},
        {"eof", [&](int h) { return qvfs_Eof(h); }},
        {"fsync", [&](int h) { return qvfs_fsync(h); }},
        {"ftruncate", [&](int h) { return qvfs_ftruncate(h, 0); }},
        {"pointers", [&](int h) { return qvfs_UpdataePreRecPtr(h, 0, 0); }},
        {"fstat", [&](int h) { return qvfs_fstat(h, &st); }},
        {"error", [&](int h) { return qvfs_error(h) - 1; }},  // 0, shifted to -1 like the others
        {"close", [&](int h) { return qvfs_Close(h) - 1; }},
    };
    // Closed; a generation that never existed; an empty slot; the last
    // slot; slot 1024, beyond the table; the largest slot number; negative.
    std::vector<Row> rows;
    for (const auto& c : calls)
        for (int h : {stale_, h_ | 0x20000, 7, 0x3FF, 0x400, 0xFFFF, -3})
            rows.push_back({c.first, [&c, h] { return c.second(h); }, -1, h < 0 ? QVFS_ERR_BADHANDLE : kKeep});
    run(rows);
}

TEST_F(ApiArgs, PublicCalls) {
    char b[16];
    iovec iov{b, 4};
    TQvFileStat st;
    TQvStatfs sf;
    TQvDiskBlkInfo bi;
    QvfsBlockStat bs;
    TimeValue tv[2] = {};
    uint8_t par[33] = {};
    uint32_t word = 0;
    TQvFileInfo item{&word, 4}, noBuf{nullptr, 4};
    const char *n = name_.c_str(), *p = disk_.c_str();
    const std::string none = Sandbox::device_path(7), missing = "H0000003000100AB0000C00.rvd";
    run({
        {"read of 0 bytes", [&] { return qvfs_Read(h_, b, 0); }, 0, kKeep},
        {"read of 0 bytes, no handle", [&] { return qvfs_Read(777, b, 0); }, 0, kKeep},
        {"write of 0 bytes, negative handle", [&] { return qvfs_Write(-1, b, 0); }, 0, kKeep},
        {"writev of 0 entries", [&] { return qvfs_Writev(777, &iov, 0); }, 0, kKeep},
        {"read into null", [&] { return qvfs_Read(h_, nullptr, 10); }, -1, QVFS_ERR_BADARG},
        {"write from null", [&] { return qvfs_Write(h_, nullptr, 0); }, -1, QVFS_ERR_BADARG},
        {"writev of null", [&] { return qvfs_Writev(h_, nullptr, 1); }, -1, kKeep},
        {"fstat into null", [&] { return qvfs_fstat(h_, nullptr); }, -1, QVFS_ERR_BADARG},
        {"ftruncate beyond the block", [&] { return qvfs_ftruncate(h_, kGiB + 1); }, -1, QVFS_ERR_BLOCKRANGE},
        {"pointer -1, widened", [&] { return qvfs_UpdataePreRecPtr(h_, -1, 0); }, -1, QVFS_ERR_BLOCKRANGE},
        {"open without a path", [&] { return qvfs_OpenV2(nullptr, nullptr, 0); }, -1, QVFS_ERR_BADARG},
        {"open of a missing file", [&] { return open_name(missing); }, -1, QVFS_ERR_BADARG, 1},
        {"open of no name", [&] { return open_name("no dot here"); }, -1, QVFS_ERR_BADARG, 1},
        {"stat of a missing file", [&] { return qvfs_Stat(missing.c_str(), &st); }, -1, QVFS_ERR_BADARG, 1},
        {"lock of a missing file", [&] { return qvfs_Lock(missing.c_str(), 1); }, -1, QVFS_ERR_BADARG, 1},
        {"stat, no path", [&] { return qvfs_Stat(nullptr, &st); }, -1, QVFS_ERR_BADARG},
        {"stat, no record", [&] { return qvfs_Stat(n, nullptr); }, -1, QVFS_ERR_BADARG},
        {"lock, no path", [&] { return qvfs_Lock(nullptr, 1); }, -1, QVFS_ERR_BADARG},
        {"create time, no path", [&] { return qvfs_ChangeCreateTime(nullptr, tv[0]); }, -1, QVFS_ERR_BADARG},
        {"times, none", [&] { return qvfs_ChangeTime(n, nullptr); }, -1, QVFS_ERR_BADARG},
        {"record type, no path", [&] { return qvfs_ChangeRecType(nullptr, 1); }, -1, QVFS_ERR_BADARG},
        {"get info, no path", [&] { return qvfs_GetFileInfo(nullptr, 2, &item, 1); }, -1, QVFS_ERR_BADARG},
        {"get info, no items", [&] { return qvfs_GetFileInfo(n, 2, nullptr, 1); }, -1, QVFS_ERR_BADARG},
        {"get info, count 0", [&] { return qvfs_GetFileInfo(n, 2, &item, 0); }, -1, QVFS_ERR_BADARG},
        {"get info, no buffer", [&] { return qvfs_GetFileInfo(n, 2, &noBuf, 1); }, -1, QVFS_ERR_BADARG},
        {"set info, no buffer", [&] { return qvfs_SetFileInfo(n, 2, &noBuf, 1); }, -1, QVFS_ERR_BADARG},
        {"set info, count 0", [&] { return qvfs_SetFileInfo(n, 2, &item, 0); }, -1, QVFS_ERR_BADARG},
        {"user parameter of 0", [&] { return qvfs_SetUsrParam(n, par, 0); }, -1, QVFS_ERR_BADARG},
        {"user parameter of 33", [&] { return qvfs_SetUsrParam(n, par, 33); }, -1, QVFS_ERR_BADARG},
        {"user parameter of -1", [&] { return qvfs_SetUsrParam(n, par, -1); }, -1, QVFS_ERR_BADARG},
        {"user parameter, no data", [&] { return qvfs_SetUsrParam(n, nullptr, 4); }, -1, QVFS_ERR_BADARG},
        {"user parameter, no path", [&] { return qvfs_SetUsrParam(nullptr, par, 4); }, -1, QVFS_ERR_BADARG},
        {"unlink, no path", [&] { return qvfs_Unlink(nullptr); }, -1, kKeep},
        {"unlink of an open file", [&] { return qvfs_Unlink(n); }, -1, kKeep},
        {"format, no path", [&] { return qvfs_Format(nullptr); }, -1, kKeep},
        {"format with a mode, no path", [&] { return qvfs_FormatEx(nullptr, 1); }, -1, kKeep},
        {"format a size, no path", [&] { return qvfs_FormatMini(nullptr, 2 * kGiB); }, -1, kKeep},
        {"mount, no path", [&] { return qvfs_Mount(nullptr); }, -1, kKeep},
        {"unmount, no path", [&] { return qvfs_UnMount(nullptr); }, -1, kKeep},
        {"unmount for all, no path", [&] { return qvfs_UnMount_V2(nullptr); }, -1, kKeep},
        {"statfs, no path", [&] { return qvfs_Statfs(nullptr, &sf); }, -1, kKeep},
        {"statfs, no record", [&] { return qvfs_Statfs(p, nullptr); }, -1, kKeep},
        {"used blocks, no path", [&] { return qvfs_GetUsedBlockNum(nullptr); }, -1, kKeep},
        {"block info, no path", [&] { return qvfs_GetBlockInfo(nullptr, &bi, 1); }, -1, kKeep},
        {"block info, no array", [&] { return qvfs_GetBlockInfo(p, nullptr, 1); }, -1, kKeep},
        {"current block, no path", [&] { return qvfs_GetUsedInBlockId(nullptr, 0, 0); }, -1, kKeep},
        {"held space, no path", [&] { return qvfs_GetUsedSizeOfDataType(nullptr, 0, 0); }, -1, kKeep},
        {"bad unit, no path", [&] { return qvfs_TagBadUnit(nullptr, 0, 512); }, -1, kKeep},
        {"block listing, no path", [&] { return qvfs_BlockStat(nullptr, 0, &st, 1); }, -1, kKeep},
        {"block listing, no array", [&] { return qvfs_BlockStat(p, 0, nullptr, 1); }, -1, kKeep},
        {"listing segment, no query", [&] { return qvfs_BlockStatSeg(nullptr); }, -1, kKeep},
        {"file count, no path", [&] { return qvfs_GetFileNum(nullptr, 0); }, -1, kKeep},
        {"current block of channel 1024", [&] { return qvfs_GetUsedInBlockId(p, 1024, 0); }, -1, QVFS_ERR_CHANNEL},
        {"current block of type 16", [&] { return qvfs_GetUsedInBlockId(p, 0, 16); }, -1, QVFS_ERR_BADHANDLE},
        {"held space of channel 1024", [&] { return qvfs_GetUsedSizeOfDataType(p, 1024, 0); }, -1, QVFS_ERR_CHANNEL},
        {"held space, disk never seen", [&] { return qvfs_GetUsedSizeOfDataType(none.c_str(), 3, 0); }, -2,
         QVFS_ERR_OLDVERSION},
        {"block info of 0 blocks", [&] { return qvfs_GetBlockInfo(p, &bi, 0); }, -1, QVFS_ERR_BADARG},
        {"block info, no disk", [&] { return qvfs_GetBlockInfo("/dev/scsi/host08/part1", &bi, 9); }, -1,
         QVFS_ERR_BADARG},
        {"statfs of a disk never seen", [&] { return qvfs_Statfs(none.c_str(), &sf); }, -1, kKeep},
        {"bad unit at the device's end", [&] { return qvfs_TagBadUnit(p, image_bytes_for(kBlocks), 1); }, -1,
         QVFS_ERR_BADHANDLE},
        {"bad unit, no device", [&] { return qvfs_TagBadUnit(none.c_str(), 0, 1); }, -1, QVFS_ERR_BADHANDLE},
        {"format of disk 25", [&] { return qvfs_Format("/dev/scsi/host25/part1"); }, -1, QVFS_ERR_BADARG},
        {"format below 1 GiB", [&] { return qvfs_FormatMini(disk1_.c_str(), kGiB - 1); }, -1, QVFS_ERR_FMT_TOOSMALL},
        {"mount of disk 30", [&] { return qvfs_Mount("/dev/scsi/host30/part1"); }, -1, QVFS_ERR_BADARG},
        {"mount of an unformatted disk", [&] { return qvfs_Mount(disk1_.c_str()); }, -1, QVFS_ERR_NOTFORMATTED},
        {"block status beyond the disk", [&] { return qvfs_GetBlockStat(0, 1u << 20, &bs); }, -1, kAny},
        {"block unlink beyond the disk", [&] { return qvfs_BlockUnlink(0, 5000); }, -1, kAny},
        {"no option", [&] { return qvfs_SetOpt(0); }, -1, kKeep},
        {"unknown option", [&] { return qvfs_SetOpt(2); }, -1, QVFS_ERR_BADHANDLE},
    });
}

// The disk unmounted by this process, the only one that had it.
TEST_F(ApiArgs, UnmountedDisk) {
    ASSERT_EQ(0, qvfs_UnMount(disk_.c_str()));
    TQvStatfs sf;
    TQvfsOpenParam req = param(2);
    char name[64];
    const char* p = disk_.c_str();
    run({
        {"statfs", [&] { return qvfs_Statfs(p, &sf); }, -1, kKeep},
        {"used blocks", [&] { return qvfs_GetUsedBlockNum(p); }, 0, kKeep},
        {"current block", [&] { return qvfs_GetUsedInBlockId(p, 1, 0); }, -1, kKeep},
        {"bad unit", [&] { return qvfs_TagBadUnit(p, qvfs::disk::kDataStart, 1); }, -1, kKeep},
        {"new file", [&] { return qvfs_OpenV2(&req, name, QVFS_O_RDWR); }, -1, QVFS_ERR_BADARG, 1},
        {"disk ready", [&] { return df_IsDiskReady(0); }, -1, kKeep},
        {"allocation", [&] { return alloc(0, 0); }, -1, kKeep},
    });
    // Not ready is no obstacle for one bad block, but with the descriptor
    // closed no meta region can be written.
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, df_TagBadBlock(0, 2));
    EXPECT_EQ(qvfs::disk::QV_BLK_BAD, image(0).map[2]);
}

TEST_F(ApiArgs, LayerCalls) {
    TQvFileHandle* f = tf_open(name_);
    ASSERT_NE(nullptr, f);
    char b[8];
    iovec v[3] = {{b, 5}, {b, 0}, {b, 3}}, huge[2] = {{nullptr, 0x30000000}, {nullptr, 0x30000000}};
    TQvBlkId id{5, 5};
    TQvfsOpenParam other = param(0);
    std::snprintf(other.path, sizeof other.path, "/dev/sdb1");
    const TQvfsOpenParam noImage = param(0, 0, 0, 5, 4);
    TQvStatfs sf;
    TQvDiskBlkInfo info;
    uint32_t cursor = 0;
    int32_t remaining = 1;
    const char* p = disk_.c_str();
    run({
        {"gathering write, no list", [&] { return tf_Writev(0, nullptr, 1, f); }, -1, kKeep},
        {"gathering write of -1 entries", [&] { return tf_Writev(0, v, -1, f); }, -1, kKeep},
        {"gathering write of 0 entries", [&] { return tf_Writev(0, v, 0, f); }, -1, kKeep},
        {"gathering write, no file", [&] { return tf_Writev(0, v, 3, nullptr); }, -1, kKeep},
        {"gathering write beyond the block", [&] { return tf_Writev(0, huge, 2, f); }, -1, kKeep},
        {"file read into null", [&] { return tf_Read(0, nullptr, 1, f); }, -1, QVFS_ERR_BADARG},
        {"file close of null", [&] { return tf_CloseFile(nullptr); }, -1, QVFS_ERR_BADARG},
        {"file unlink, no name", [&] { return tf_Unlink(nullptr); }, -1, QVFS_ERR_BADARG},
        {"block close of null", [&] { return bf_CloseFile(nullptr); }, -1, QVFS_ERR_BADARG},
        {"block sync of null", [&] { return bf_Sync(nullptr, f->blkFile); }, -1, QVFS_ERR_BADARG},
        {"allocation, no request", [&] { return df_GetFileBlkId(nullptr, &id); }, -1, QVFS_ERR_BADARG},
        {"allocation, no disk path (block kept)", [&] { return df_GetFileBlkId(&other, &id) - id.block + 5; }, -1, QVFS_ERR_DISKNUM},
        {"allocation, no image (block -1)", [&] { return df_GetFileBlkId(&noImage, &id) + id.block; }, -2, QVFS_ERR_BADARG},
        {"allocation for channel 1024", [&] { return alloc(0, 1024); }, -1, QVFS_ERR_CHANNEL},
        {"release past the disk", [&] { return df_ReleaseBlock(0, kBlocks, 0, 0, 0); }, -1, QVFS_ERR_BADHANDLE},
        {"release for channel 1024", [&] { return df_ReleaseBlock(0, 0, 1024, 0, 0); }, -1, QVFS_ERR_BADHANDLE},
        {"release on disk 25", [&] { return df_ReleaseBlock(25, 0, 0, 0, 0); }, -1, QVFS_ERR_BADARG},
        {"address past the disk", [&] { return df_GetBlkAddr(0, kBlocks); }, 0, QVFS_ERR_BADHANDLE},
        {"address on disk 25", [&] { return df_GetBlkAddr(25, 0); }, 0, QVFS_ERR_BADARG},
        {"allocated, no image", [&] { return df_IsBlockAllocated(4, 0); }, 0, kKeep},
        {"allocated past the disk", [&] { return df_IsBlockAllocated(0, kBlocks); }, 0, kKeep},
        {"bad block on disk 25", [&] { return df_TagBadBlock(25, 0); }, -1, QVFS_ERR_BADARG},
        {"bad block, no image", [&] { return df_TagBadBlock(6, 0); }, -1, QVFS_ERR_BADARG},
        {"bad block past the disk", [&] { return df_TagBadBlock(0, kBlocks); }, -1, QVFS_ERR_BADHANDLE},
        {"bad block -1", [&] { return df_TagBadBlock(0, -1); }, -1, QVFS_ERR_BADHANDLE},
        {"bad unit, no path", [&] { return df_TagBadUnit(nullptr, 0, 1); }, -1, QVFS_ERR_BADARG},
        {"held space, no path", [&] { return df_GetUsedInBlockOfDataType(nullptr, 0, 0); }, -1, QVFS_ERR_BADARG},
        {"used blocks, no image", [&] { return df_GetDiskUsedBlockNum("/dev/scsi/host12/part1"); }, 0,
         QVFS_ERR_BADARG},
        {"statfs, no record", [&] { return df_DiskStatfs(p, nullptr); }, -1, QVFS_ERR_BADARG},
        {"ready, no image", [&] { return df_IsDiskReady(9); }, -1, QVFS_ERR_BADARG},
        {"scan of disk 25", [&] { return _df_GetBlockInfo(&info, 25, &cursor, &remaining, 200); }, -1,
         QVFS_ERR_BADARG},
        {"format, no path", [&] { return df_DiskFormat(nullptr, 0, 0); }, -1, QVFS_ERR_BADARG},
        {"format of no disk path", [&] { return df_DiskFormat("/dev/sda1", 0, 0); }, -1, QVFS_ERR_BADARG},
        {"format, no image", [&] { return df_DiskFormat("/dev/scsi/host07/part1", 0, 0); }, -1,
         QVFS_ERR_SYS + ENOENT},
        {"version, no image", [&] { return df_GetDiskVersion("/dev/scsi/host09/part1"); }, 1, QVFS_ERR_BADARG},
        {"statfs, no image", [&] { return df_DiskStatfs("/dev/scsi/host09/part1", &sf); }, -1, kKeep},
    });
    EXPECT_EQ(0, tf_CloseFile(f));
}

// Runs in its own process: nothing has called qvfs_Init. Every call that
// tests the flag fails with -1010; the block calls fail in their layer.
TEST(ApiBeforeInit, EveryCallThatTestsTheFlagFails) {
    char buf[64] = "/dev/scsi/host00/part1";
    TQvfsOpenParam p{};
    TQvFileStat st{};
    TQvStatfs sf{};
    TQvDiskBlkInfo bi{};
    TQvBlkSegQuery q{};
    TQvFileInfo item{buf, sizeof buf};
    TimeValue tv[2] = {};
    iovec iov{buf, 4};
    const std::function<int64_t()> calls[] = {
        [&] { return qvfs_OpenV2(&p, buf, 2); }, [&] { return qvfs_Open(nullptr, buf, 0); },
        [&] { return qvfs_Read(0, buf, 4); }, [&] { return qvfs_Read(0, buf, 0); },
        [&] { return qvfs_Write(0, buf, 4); }, [&] { return qvfs_Writev(0, &iov, 1); },
        [&] { return qvfs_Seek(0, 0, 0); }, [&] { return qvfs_Tell(0); }, [&] { return qvfs_Eof(0); },
        [&] { return qvfs_fsync(0); }, [&] { return qvfs_ftruncate(0, 0); },
        [&] { return qvfs_UpdataePreRecPtr(0, 0, 0); }, [&] { return qvfs_Close(0); },
        [&] { return qvfs_GetDebugInfo(buf, 4096); }, [&] { return qvfs_SetOpt(1); }, [&] { return qvfs_error(0); },
        [&] { return qvfs_Stat(buf, &st); }, [&] { return qvfs_fstat(0, &st); }, [&] { return qvfs_Lock(buf, 1); },
        [&] { return qvfs_ChangeCreateTime(buf, tv[0]); }, [&] { return qvfs_ChangeTime(buf, tv); },
        [&] { return qvfs_ChangeRecType(buf, 1); }, [&] { return qvfs_SetUsrParam(buf, buf, 4); },
        [&] { return qvfs_GetFileInfo(buf, 1, &item, 1); }, [&] { return qvfs_SetFileInfo(buf, 2, &item, 1); },
        [&] { return qvfs_Unlink(buf); }, [&] { return qvfs_Format(buf); }, [&] { return qvfs_FormatEx(buf, 1); },
        [&] { return qvfs_FormatMini(buf, 1ull << 31); }, [&] { return qvfs_Mount(buf); },
        [&] { return qvfs_UnMount(buf); }, [&] { return qvfs_UnMount_V2(buf); },
        [&] { return qvfs_Statfs(buf, &sf); }, [&] { return qvfs_GetUsedBlockNum(buf); },
        [&] { return qvfs_GetBlockInfo(buf, &bi, 1); }, [&] { return qvfs_GetUsedInBlockId(buf, 0, 0); },
        [&] { return qvfs_GetUsedSizeOfDataType(buf, 0, 0); }, [&] { return qvfs_TagBadUnit(buf, 0, 512); },
        [&] { return qvfs_BlockStat(buf, 0, &st, 1); }, [&] { return qvfs_BlockStatSeg(&q); },
        [&] { return qvfs_GetFileNum(buf, 0); },
    };
    for (const auto& call : calls) {
        SCOPED_TRACE(&call - calls);
        EXPECT_ERR(-1, QVFS_ERR_NOTINIT, call());
    }
    QvfsBlockStat bs;
    std::memset(&bs, 0xAB, sizeof bs);
    errno = 0;
    EXPECT_EQ(-1, qvfs_BlockUnlink(0, 0));
    EXPECT_NE(QVFS_ERR_NOTINIT, errno);
    EXPECT_NE(0, qvfs_GetBlockStat(0, 0, &bs));
    EXPECT_EQ(0xABABABABu, bs.state) << "the record is left alone";
    qvfs_DeInit();  // does nothing before Init, and must not crash
}

}  // namespace
