// Byte layout of every record that leaves a process: the disk's header and
// shared image, the block header and slice entry, the shared block-file and
// file records, the owner list and task list, and the records of the public
// interface. The recorders are 32-bit ARM; this file is compiled for both ARM
// and x86_64, and each build checks the same table.
//
// With QVFS_LAYOUT_OUT set, the program also writes the table of sizes and
// offsets as this build sees them to that file; scripts/armhf.sh compares the
// files of the two builds line by line.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/time.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "api/qvfs.h"
#include "blockfile/bf_format.h"
#include "disk/df_format.h"
#include "file/tf_format.h"
#include "keys.h"

namespace {

// A record (no field name) or one of its fields: where and how large this
// build makes it, and where and how large the format wants it.
struct Row {
    std::string name;
    size_t offset, size, wantOffset, wantSize;
};

// LAYOUT(T, size, (field, offset, size)...) gives the rows of record T and
// its fields, in order.
#define LAYOUT(T, sz, ...) Row{#T, 0, sizeof(T), 0, sz}, LAYOUT_EXPAND(LAYOUT_EACH(T, __VA_ARGS__))
#define LAYOUT_EACH(T, f, ...) LAYOUT_FIELD(T, LAYOUT_ID f) __VA_OPT__(, LAYOUT_AGAIN LAYOUT_PARENS(T, __VA_ARGS__))
#define LAYOUT_AGAIN() LAYOUT_EACH
#define LAYOUT_PARENS ()
#define LAYOUT_ID(...) __VA_ARGS__
#define LAYOUT_FIELD(...) LAYOUT_ROW(__VA_ARGS__)
#define LAYOUT_ROW(T, f, off, sz) Row{#T "." #f, offsetof(T, f), sizeof(T::f), off, sz}
#define LAYOUT_EXPAND(...) LAYOUT_EXPAND3(LAYOUT_EXPAND3(LAYOUT_EXPAND3(__VA_ARGS__)))
#define LAYOUT_EXPAND3(...) LAYOUT_EXPAND2(LAYOUT_EXPAND2(LAYOUT_EXPAND2(__VA_ARGS__)))
#define LAYOUT_EXPAND2(...) LAYOUT_EXPAND1(LAYOUT_EXPAND1(LAYOUT_EXPAND1(__VA_ARGS__)))
#define LAYOUT_EXPAND1(...) __VA_ARGS__

const Row kLayout[] = {
    // On disk and in the disk's shared image.
    LAYOUT(TQvDiskHead, 512, (magic, 0, 5), (ver, 8, 4), (metaSize, 12, 4), (blockSize, 16, 4), (createTime, 24, 8),
           (dataStart, 48, 8), (dataEnd, 56, 8), (tolblk, 64, 4)),
    LAYOUT(TQvDiskShare, 262672, (head, 0, 512), (map, 0x200, 0x20000), (current, 0x20200, 0x10000),
           (count, 0x30200, 0x10000), (mapIndex, 0x40200, 4), (stat, 0x40204, 4), (mounted, 0x40208, 4),
           (shmNo, 0x4020C, 4)),
    // The front of a block and the shared block-file record.
    LAYOUT(TQvBlkInfo, 512, (Len, 0, 4), (flg, 4, 4), (startTime, 8, 8), (endTime, 16, 8), (chn, 24, 4),
           (dataType, 28, 4), (recType, 32, 8), (lock, 40, 4), (cnt, 44, 4), (addr, 48, 8), (next, 56, 8),
           (slice, 64, 4)),
    LAYOUT(TQvBlkSliceInfo, 512, (sliceID, 0, 8), (magic, 8, 4), (verify, 12, 4), (ext, 16, 8), (chn, 24, 4),
           (lock, 28, 4), (startTime, 32, 8), (endTime, 40, 8), (recType, 48, 8), (resStart, 56, 8), (resEnd, 64, 8),
           (preStart, 72, 8), (preEnd, 80, 8), (dataStart, 88, 8), (dataEnd, 96, 8), (usrParam, 104, 32),
           (preName, 136, 16), (videoAbstract, 152, 4), (userData, 156, 356)),
    LAYOUT(TQvBlkShare, 544, (header, 0, 512), (diskId, 512, 4), (blkId, 516, 4), (shrRef, 520, 4),
           (blkAddr, 528, 8), (shareIndex, 536, 4), (unlinkPending, 540, 4)),
    // The shared file record, the owner list and the task device's list.
    LAYOUT(TQvFileRec, 648, (slice, 0, 512), (name, 512, 64), (shrRef, 576, 4), (shareIndex, 580, 4),
           (owner, 584, 64)),
    LAYOUT(TQvFileOwner, 8, (pid, 0, 4), (count, 4, 4)),
    LAYOUT(TQvfsFileList, 16585, (owner, 0, 2073 * 8), (param1, 16584, 1)),
    LAYOUT(TQvTaskList, 84, (word, 0, 4), (pid, 4, 80)),
    // Records an application hands to the library or gets back. An
    // application built for the recorders passes them with the ARM layout, so
    // they keep it on every build.
    LAYOUT(TQvfsOpenParam, 128, (chn, 0, 4), (startTime, 4, 4), (fileType, 8, 4), (resSize, 12, 4), (recType, 16, 4),
           (path, 24, 64), (ext, 88, 8), (preName, 96, 28)),
    LAYOUT(TQvStat64, 104, (st_dev, 0, 8), (st_mode, 16, 4), (st_rdev, 32, 8), (st_size, 48, 8), (st_blksize, 56, 4),
           (st_blocks, 64, 8), (st_atim, 72, 8), (st_mtim, 80, 8), (st_ctim, 88, 8), (st_ino, 96, 8)),
    LAYOUT(TQvFileStat, 232, (st, 0, 104), (chn, 104, 8), (lock, 112, 8), (recType, 120, 8), (startTime, 128, 8),
           (usrParam, 136, 32), (name, 168, 64)),
    LAYOUT(TQvStatfs, 88, (f_type, 0, 4), (f_bsize, 4, 4), (f_blocks, 8, 8), (f_bfree, 16, 8), (f_bavail, 24, 8),
           (f_files, 32, 8), (f_ffree, 40, 8), (f_fsid, 48, 8), (f_namelen, 56, 4), (f_frsize, 60, 4),
           (f_flags, 64, 4), (f_spare, 68, 16)),
    LAYOUT(TQvDiskBlkInfo, 40, (blkId, 0, 4), (startTime, 8, 8), (cnt, 16, 4), (endTime, 24, 8), (fileType, 32, 4)),
    LAYOUT(TQvBlkStat, 32, (diskId, 0, 4), (blkId, 4, 4), (dataType, 8, 4), (lock, 12, 4), (recType, 16, 4),
           (state, 20, 4), (endTimeLo, 24, 4), (endTimeHi, 28, 4)),
    LAYOUT(QvfsBlockStat, 32, (diskId, 0, 4), (blkId, 4, 4), (dataType, 8, 4), (locked, 12, 4), (otherType, 16, 4),
           (state, 20, 4), (endTimeLo, 24, 4), (endTimeHi, 28, 4)),
    LAYOUT(TimeValue, 8, (tv_sec, 0, 4), (tv_usec, 4, 4)),
};

// The pool reads and writes a few words inside the layers' records by fixed
// offset and packs the records back to back in one segment: the layers' own
// definitions must put those words at the same places, and a stride that is
// not a multiple of a record's alignment would misalign every other record.
static_assert(qvfs::kFileRecShrRefOff == offsetof(TQvFileRec, shrRef));
static_assert(qvfs::kFileRecIndexOff == offsetof(TQvFileRec, shareIndex));
static_assert(qvfs::kBlkRecShrRefOff == offsetof(TQvBlkShare, shrRef));
static_assert(qvfs::kBlkRecIndexOff == offsetof(TQvBlkShare, shareIndex));
static_assert(qvfs::kDiskRecMapIndexOff == offsetof(TQvDiskShare, mapIndex));
static_assert(qvfs::kDiskRecStatOff == offsetof(TQvDiskShare, stat));
static_assert(qvfs::kDiskRecMountedOff == offsetof(TQvDiskShare, mounted));
static_assert(qvfs::kDiskRecShmNoOff == offsetof(TQvDiskShare, shmNo));
static_assert(QVFS_DISK_REC_SIZE == sizeof(TQvDiskShare));
static_assert(sizeof(TQvFileRec) % alignof(TQvFileRec) == 0 && sizeof(TQvBlkShare) % alignof(TQvBlkShare) == 0 &&
              qvfs::kPoolBlkFileOffset % alignof(TQvBlkShare) == 0);

TEST(Layout, EveryRecordAndFieldWhereTheFormatPutsIt) {
    for (const Row& r : kLayout) {
        EXPECT_EQ(r.wantOffset, r.offset) << r.name << " offset";
        EXPECT_EQ(r.wantSize, r.size) << r.name << " size";
    }
}

// The interface records copy the 32-bit ARM C library's own records. Where
// this build is that target, the library's records must match them field for
// field (on x86_64 the system's records are laid out differently and only the
// table above applies).
TEST(Layout, SameAsTheTargetsSystemRecords) {
#if defined(__arm__) && !defined(__aarch64__)
    static_assert(sizeof(long) == 4 && sizeof(void*) == 4);
    EXPECT_EQ(4u, sizeof(time_t)) << "the recorders' C library has a 32-bit time_t";
    EXPECT_EQ(sizeof(struct stat64), sizeof(TQvStat64));
    EXPECT_EQ(offsetof(struct stat64, st_size), offsetof(TQvStat64, st_size));
    EXPECT_EQ(offsetof(struct stat64, st_blocks), offsetof(TQvStat64, st_blocks));
    EXPECT_EQ(offsetof(struct stat64, st_blksize), offsetof(TQvStat64, st_blksize));
    EXPECT_EQ(offsetof(struct stat64, st_mtim), offsetof(TQvStat64, st_mtim));
    EXPECT_EQ(offsetof(struct stat64, st_ctim), offsetof(TQvStat64, st_ctim));
    EXPECT_EQ(offsetof(struct stat64, st_ino), offsetof(TQvStat64, st_ino));
    EXPECT_EQ(sizeof(struct statfs64), sizeof(TQvStatfs));
    EXPECT_EQ(offsetof(struct statfs64, f_blocks), offsetof(TQvStatfs, f_blocks));
    EXPECT_EQ(offsetof(struct statfs64, f_bfree), offsetof(TQvStatfs, f_bfree));
    EXPECT_EQ(offsetof(struct statfs64, f_bavail), offsetof(TQvStatfs, f_bavail));
    EXPECT_EQ(offsetof(struct statfs64, f_spare), offsetof(TQvStatfs, f_spare));
    EXPECT_EQ(sizeof(struct timeval), sizeof(TimeValue));
    // The in-process records with pointers take the target's pointer size.
    EXPECT_EQ(8u, sizeof(TQvFileInfo));
    EXPECT_EQ(4u, offsetof(TQvFileInfo, len));
#else
    GTEST_SKIP() << "this build is not the 32-bit ARM target";
#endif
}

// Writes the table as this build sees it, one line per record and field,
// for the comparison of two builds when asked to.
class TableWriter : public ::testing::Environment {
public:
    void SetUp() override {
        const char* path = std::getenv("QVFS_LAYOUT_OUT");
        if (path == nullptr || *path == '\0') return;
        FILE* f = std::fopen(path, "w");
        ASSERT_NE(nullptr, f) << path;
        for (const Row& r : kLayout) std::fprintf(f, "%s offset %zu size %zu\n", r.name.c_str(), r.offset, r.size);
        EXPECT_EQ(0, std::fclose(f));
    }
};
[[maybe_unused]] ::testing::Environment* const g_tableWriter = ::testing::AddGlobalTestEnvironment(new TableWriter);

}  // namespace
