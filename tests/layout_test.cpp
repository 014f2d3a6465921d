// Byte layout of every record that leaves a process: the disk's header and
// shared image, the block header and slice entry, the shared block-file and
// file records, the owner list and record pool, the task list, and the
// records of the public interface. The recorders are 32-bit ARM; this file is
// compiled for both ARM and x86_64, and each build checks the same table.
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
#include <set>
#include <string>
#include <vector>

#include "api/qvfs.h"
#include "blockfile/bf_format.h"
#include "disk/df_format.h"
#include "file/tf_format.h"
#include "keys.h"

namespace {

// One field: where this build puts it, and where the format says it is.
struct Field {
    std::string name;
    size_t offset;
    size_t size;
    size_t wantOffset;
    size_t wantSize;
};

struct Record {
    std::string name;
    size_t size;
    size_t wantSize;
    std::vector<Field> fields;
};

#define F(T, f, off, sz) Field{#f, offsetof(T, f), sizeof(static_cast<T*>(nullptr)->f), off, sz}
#define R(T, sz, ...) Record{#T, sizeof(T), sz, {__VA_ARGS__}}

// Records on disk and in the disk's shared image.
std::vector<Record> disk_records() {
    return {
        R(TQvDiskHead, 512,
          F(TQvDiskHead, magic, 0, 5), F(TQvDiskHead, ver, 8, 4), F(TQvDiskHead, metaSize, 12, 4),
          F(TQvDiskHead, blockSize, 16, 4), F(TQvDiskHead, createTime, 24, 8),
          F(TQvDiskHead, dataStart, 48, 8), F(TQvDiskHead, dataEnd, 56, 8), F(TQvDiskHead, tolblk, 64, 4)),
        R(TQvDiskShare, 262672,
          F(TQvDiskShare, head, 0, 512), F(TQvDiskShare, map, 0x200, 0x20000),
          F(TQvDiskShare, current, 0x20200, 0x10000), F(TQvDiskShare, count, 0x30200, 0x10000),
          F(TQvDiskShare, mapIndex, 0x40200, 4), F(TQvDiskShare, stat, 0x40204, 4),
          F(TQvDiskShare, mounted, 0x40208, 4), F(TQvDiskShare, shmNo, 0x4020C, 4)),
    };
}

// The front of a block and the shared block-file record.
std::vector<Record> block_records() {
    return {
        R(TQvBlkInfo, 512,
          F(TQvBlkInfo, Len, 0, 4), F(TQvBlkInfo, flg, 4, 4), F(TQvBlkInfo, startTime, 8, 8),
          F(TQvBlkInfo, endTime, 16, 8), F(TQvBlkInfo, chn, 24, 4), F(TQvBlkInfo, dataType, 28, 4),
          F(TQvBlkInfo, recType, 32, 8), F(TQvBlkInfo, lock, 40, 4), F(TQvBlkInfo, cnt, 44, 4),
          F(TQvBlkInfo, addr, 48, 8), F(TQvBlkInfo, next, 56, 8), F(TQvBlkInfo, slice, 64, 4)),
        R(TQvBlkSliceInfo, 512,
          F(TQvBlkSliceInfo, sliceID, 0, 8), F(TQvBlkSliceInfo, magic, 8, 4), F(TQvBlkSliceInfo, verify, 12, 4),
          F(TQvBlkSliceInfo, ext, 16, 8), F(TQvBlkSliceInfo, chn, 24, 4), F(TQvBlkSliceInfo, lock, 28, 4),
          F(TQvBlkSliceInfo, startTime, 32, 8), F(TQvBlkSliceInfo, endTime, 40, 8),
          F(TQvBlkSliceInfo, recType, 48, 8), F(TQvBlkSliceInfo, resStart, 56, 8),
          F(TQvBlkSliceInfo, resEnd, 64, 8), F(TQvBlkSliceInfo, preStart, 72, 8),
          F(TQvBlkSliceInfo, preEnd, 80, 8), F(TQvBlkSliceInfo, dataStart, 88, 8),
          F(TQvBlkSliceInfo, dataEnd, 96, 8), F(TQvBlkSliceInfo, usrParam, 104, 32),
          F(TQvBlkSliceInfo, preName, 136, 16), F(TQvBlkSliceInfo, videoAbstract, 152, 4),
          F(TQvBlkSliceInfo, userData, 156, 356)),
        R(TQvBlkShare, 544,
          F(TQvBlkShare, header, 0, 512), F(TQvBlkShare, diskId, 512, 4), F(TQvBlkShare, blkId, 516, 4),
          F(TQvBlkShare, shrRef, 520, 4), F(TQvBlkShare, blkAddr, 528, 8),
          F(TQvBlkShare, shareIndex, 536, 4), F(TQvBlkShare, unlinkPending, 540, 4)),
    };
}

// The shared file record, the owner list and the task device's list.
std::vector<Record> file_records() {
    return {
        R(TQvFileRec, 648,
          F(TQvFileRec, slice, 0, 512), F(TQvFileRec, name, 512, 64), F(TQvFileRec, shrRef, 576, 4),
          F(TQvFileRec, shareIndex, 580, 4), F(TQvFileRec, owner, 584, 64)),
        R(TQvFileOwner, 8, F(TQvFileOwner, pid, 0, 4), F(TQvFileOwner, count, 4, 4)),
        R(TQvfsFileList, 16585, F(TQvfsFileList, owner, 0, 2073 * 8), F(TQvfsFileList, param1, 16584, 1)),
        R(TQvTaskList, 84, F(TQvTaskList, word, 0, 4), F(TQvTaskList, pid, 4, 80)),
    };
}

// Records an application hands to the library or gets back. An application
// built for the recorders passes them with the ARM layout, so they keep it on
// every build.
std::vector<Record> interface_records() {
    return {
        R(TQvfsOpenParam, 128,
          F(TQvfsOpenParam, chn, 0, 4), F(TQvfsOpenParam, startTime, 4, 4), F(TQvfsOpenParam, fileType, 8, 4),
          F(TQvfsOpenParam, resSize, 12, 4), F(TQvfsOpenParam, recType, 16, 4), F(TQvfsOpenParam, path, 24, 64),
          F(TQvfsOpenParam, ext, 88, 8), F(TQvfsOpenParam, preName, 96, 28)),
        R(TQvStat64, 104,
          F(TQvStat64, st_dev, 0, 8), F(TQvStat64, st_mode, 16, 4), F(TQvStat64, st_rdev, 32, 8),
          F(TQvStat64, st_size, 48, 8), F(TQvStat64, st_blksize, 56, 4), F(TQvStat64, st_blocks, 64, 8),
          F(TQvStat64, st_atim, 72, 8), F(TQvStat64, st_mtim, 80, 8), F(TQvStat64, st_ctim, 88, 8),
          F(TQvStat64, st_ino, 96, 8)),
        R(TQvFileStat, 232,
          F(TQvFileStat, st, 0, 104), F(TQvFileStat, chn, 104, 8), F(TQvFileStat, lock, 112, 8),
          F(TQvFileStat, recType, 120, 8), F(TQvFileStat, startTime, 128, 8), F(TQvFileStat, usrParam, 136, 32),
          F(TQvFileStat, name, 168, 64)),
        R(TQvStatfs, 88,
          F(TQvStatfs, f_type, 0, 4), F(TQvStatfs, f_bsize, 4, 4), F(TQvStatfs, f_blocks, 8, 8),
          F(TQvStatfs, f_bfree, 16, 8), F(TQvStatfs, f_bavail, 24, 8), F(TQvStatfs, f_files, 32, 8),
          F(TQvStatfs, f_ffree, 40, 8), F(TQvStatfs, f_fsid, 48, 8), F(TQvStatfs, f_namelen, 56, 4),
          F(TQvStatfs, f_frsize, 60, 4), F(TQvStatfs, f_flags, 64, 4), F(TQvStatfs, f_spare, 68, 16)),
        R(TQvDiskBlkInfo, 40,
          F(TQvDiskBlkInfo, blkId, 0, 4), F(TQvDiskBlkInfo, startTime, 8, 8), F(TQvDiskBlkInfo, cnt, 16, 4),
          F(TQvDiskBlkInfo, endTime, 24, 8), F(TQvDiskBlkInfo, fileType, 32, 4)),
        R(TQvBlkStat, 32,
          F(TQvBlkStat, diskId, 0, 4), F(TQvBlkStat, blkId, 4, 4), F(TQvBlkStat, dataType, 8, 4),
          F(TQvBlkStat, lock, 12, 4), F(TQvBlkStat, recType, 16, 4), F(TQvBlkStat, state, 20, 4),
          F(TQvBlkStat, endTimeLo, 24, 4), F(TQvBlkStat, endTimeHi, 28, 4)),
        R(QvfsBlockStat, 32,
          F(QvfsBlockStat, diskId, 0, 4), F(QvfsBlockStat, blkId, 4, 4), F(QvfsBlockStat, dataType, 8, 4),
          F(QvfsBlockStat, locked, 12, 4), F(QvfsBlockStat, otherType, 16, 4), F(QvfsBlockStat, state, 20, 4),
          F(QvfsBlockStat, endTimeLo, 24, 4), F(QvfsBlockStat, endTimeHi, 28, 4)),
        R(TimeValue, 8, F(TimeValue, tv_sec, 0, 4), F(TimeValue, tv_usec, 4, 4)),
    };
}

#undef F
#undef R

void expect_layout(const std::vector<Record>& records) {
    for (const Record& r : records) {
        EXPECT_EQ(r.wantSize, r.size) << "size of " << r.name;
        for (const Field& f : r.fields) {
            EXPECT_EQ(f.wantOffset, f.offset) << r.name << "." << f.name << " offset";
            EXPECT_EQ(f.wantSize, f.size) << r.name << "." << f.name << " size";
        }
    }
}

TEST(Layout, DiskHeaderAndSharedImage) { expect_layout(disk_records()); }

TEST(Layout, BlockHeaderSliceEntryAndBlockFileRecord) { expect_layout(block_records()); }

TEST(Layout, FileRecordOwnerListAndTaskList) { expect_layout(file_records()); }

TEST(Layout, InterfaceRecords) { expect_layout(interface_records()); }

// The pool reads and writes a few words inside the layers' records by fixed
// offset, and places the records in one segment by fixed strides; the
// layers' own definitions must put those words at the same places.
TEST(Layout, PoolOffsetsMatchTheLayersRecords) {
    EXPECT_EQ(qvfs::kFileRecShrRefOff, offsetof(TQvFileRec, shrRef));
    EXPECT_EQ(qvfs::kFileRecIndexOff, offsetof(TQvFileRec, shareIndex));
    EXPECT_EQ(qvfs::kBlkRecShrRefOff, offsetof(TQvBlkShare, shrRef));
    EXPECT_EQ(qvfs::kBlkRecIndexOff, offsetof(TQvBlkShare, shareIndex));
    EXPECT_EQ(qvfs::kDiskRecMapIndexOff, offsetof(TQvDiskShare, mapIndex));
    EXPECT_EQ(qvfs::kDiskRecStatOff, offsetof(TQvDiskShare, stat));
    EXPECT_EQ(qvfs::kDiskRecMountedOff, offsetof(TQvDiskShare, mounted));
    EXPECT_EQ(qvfs::kDiskRecShmNoOff, offsetof(TQvDiskShare, shmNo));
    EXPECT_EQ(size_t(QVFS_FILE_REC_SIZE), sizeof(TQvFileRec));
    EXPECT_EQ(size_t(QVFS_BLKFILE_REC_SIZE), sizeof(TQvBlkShare));
    EXPECT_EQ(size_t(QVFS_DISK_REC_SIZE), sizeof(TQvDiskShare));
    EXPECT_EQ(0x51000u, qvfs::kPoolBlkFileOffset);
    EXPECT_EQ(0x95000u, qvfs::kPoolBlkFileOffset + 512 * sizeof(TQvBlkShare));
    // Records in the pool are packed back to back: a stride that is not a
    // multiple of the records' alignment would misalign every other one.
    EXPECT_EQ(0u, sizeof(TQvFileRec) % alignof(TQvFileRec));
    EXPECT_EQ(0u, qvfs::kPoolBlkFileOffset % alignof(TQvBlkShare));
    EXPECT_EQ(0u, sizeof(TQvBlkShare) % alignof(TQvBlkShare));
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

// The whole table as text, one line per record and per field.
std::string layout_table() {
    std::string out;
    char line[160];
    for (const auto& group : {disk_records(), block_records(), file_records(), interface_records()}) {
        for (const Record& r : group) {
            std::snprintf(line, sizeof line, "%s size %zu\n", r.name.c_str(), r.size);
            out += line;
            for (const Field& f : r.fields) {
                std::snprintf(line, sizeof line, "%s.%s offset %zu size %zu\n", r.name.c_str(),
                              f.name.c_str(), f.offset, f.size);
                out += line;
            }
        }
    }
    return out;
}

// Every record and field appears once, so that comparing the tables of two
// builds compares each of them.
TEST(Layout, TableNamesEachRecordAndFieldOnce) {
    std::set<std::string> seen;
    size_t lines = 0;
    const std::string table = layout_table();
    size_t at = 0;
    while (at < table.size()) {
        size_t end = table.find('\n', at);
        std::string line = table.substr(at, end - at);
        EXPECT_TRUE(seen.insert(line.substr(0, line.find(' '))).second) << line;
        ++lines;
        at = end + 1;
    }
    EXPECT_GT(lines, 100u);
}

// Writes the table for the comparison of two builds when asked to.
class TableWriter : public ::testing::Environment {
public:
    void SetUp() override {
        const char* out = std::getenv("QVFS_LAYOUT_OUT");
        if (out == nullptr || *out == '\0') return;
        FILE* f = std::fopen(out, "w");
        ASSERT_NE(nullptr, f) << out;
        const std::string table = layout_table();
        EXPECT_EQ(table.size(), std::fwrite(table.data(), 1, table.size(), f));
        EXPECT_EQ(0, std::fclose(f));
    }
};
[[maybe_unused]] ::testing::Environment* const g_tableWriter =
    ::testing::AddGlobalTestEnvironment(new TableWriter);

}  // namespace
