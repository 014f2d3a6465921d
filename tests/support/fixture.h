// fixture.h - the one fixture of the library's tests, with a start level:
// SetUp starts the library up to the layer the test talks to.
//   DiskTest   fsc_ShareInit + df_Init       no disk: ready_disk(disk, blocks)
//   BlockTest  fsc_ShareInit + bf_Init       no disk: ready_disk(disk, blocks)
//   FileTest   tf_Init                       disk 0 (kBlocks blocks) formatted and mounted: disk_
//   ApiTest    qvfs_Init                     disk 0 as for FileTest
// TearDown disarms the armed faults, closes the process's public handles
// (ApiTest) and unmounts every disk for all processes, so that no flush runs
// on images the sandbox deletes. Every helper works at every level once the
// layer it calls is started.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "api/qvfs.h"
#include "blockfile/bf.h"
#include "common/platform.h"
#include "disk/df.h"
#include "file/tf.h"
#include "support/sandbox.h"

// Expects `call` to return `ret` and to leave `err` in errno (cleared first,
// so that a stale value cannot pass).
#define EXPECT_ERR(ret, err, call) \
    do {                           \
        errno = 0;                 \
        EXPECT_EQ(ret, call);      \
        EXPECT_EQ(err, errno);     \
    } while (0)

namespace qvfs::test {

inline constexpr uint64_t kGiB = 1ull << 30;
// Size of a device that formats to exactly `blocks` blocks.
inline constexpr uint64_t image_bytes_for(uint32_t blocks) {
    return qvfs::disk::kDataStart + (uint64_t(blocks) + 1) * kGiB;
}
inline constexpr uint64_t block_addr(uint32_t block) { return qvfs::disk::kDataStart + uint64_t(block) * kGiB; }

// Deterministic test bytes: bytes from..from+len of stream `seed`.
std::vector<uint8_t> pattern(uint32_t seed, uint64_t from, size_t len);
// Block and slice number of a text name.
uint32_t name_block(const std::string& name);
uint32_t name_slice(const std::string& name);

enum class Level { kDisk, kBlock, kFile, kApi };

class Fixture : public SandboxTest {
protected:
    explicit Fixture(Level level) : level_(level) {}
    void SetUp() override;
    void TearDown() override;

    static constexpr uint32_t kBlocks = 4;

    // An image of `blocks` blocks, formatted (mode 0) and mounted; its device path.
    std::string ready_disk(int disk, uint32_t blocks);
    static TQvDiskShare& image(int disk) { return *g_astQvDisk[disk].share; }

    // Bytes of a disk's image file, past the library.
    std::vector<uint8_t> read_dev(int disk, uint64_t off, size_t len) const;
    void write_dev(int disk, uint64_t off, const void* buf, size_t len) const;
    bool dev_zero(int disk, uint64_t off, size_t len) const;
    TQvBlkInfo head_on_disk(int disk, uint32_t block) const;
    TQvBlkSliceInfo entry_on_disk(int disk, uint32_t block, uint32_t slice) const;
    void put_head(int disk, uint32_t block, const TQvBlkInfo& h) const { write_dev(disk, block_addr(block), &h, 512); }
    // Both header copies (when `headers`), the status map at both places and
    // every table chunk of the chosen meta regions on the device equal the image.
    ::testing::AssertionResult meta_on_disk_matches(int disk, bool region0 = true, bool region1 = true,
                                                    bool headers = true) const;

    // Arms a fault on [begin, begin + len) of a disk's device (-1: any disk).
    static int fault(unsigned ops, uint64_t begin = 0, uint64_t len = UINT64_MAX, int disk = -1,
                     long shortBytes = -1, int remaining = -1);

    // A create request on a disk; df_GetFileBlkId with it: the block, or -1.
    TQvfsOpenParam param(uint32_t chn = 1, int32_t fileType = 0, int32_t resSize = 0, int32_t recType = 5,
                         int disk = 0) const;
    int32_t alloc(int disk, uint32_t chn, int32_t fileType = 0, int32_t len = 0) const;

    struct BFile {  // a file created in the block-file layer
        TQvBlkRec* h = nullptr;
        char name[40] = {};
        TQvBlkSliceInfo slice{};
    };
    struct TFile {  // a file opened in the file layer
        TQvFileHandle* h = nullptr;
        std::string name;
    };
    // bf_CreateFile / tf_OpenFile of a new file; a failure ends the test.
    static BFile bf_create(const TQvfsOpenParam& req);
    TFile tf_create(int32_t fileType = 0, int32_t resSize = 0, uint32_t chn = 1, int32_t recType = 5) const;
    static TQvFileHandle* tf_open(const std::string& name);
    // The count of pid's owner slot of a file record; -1 when pid has none.
    static int owner_count(const TQvFileRec* rec, pid_t pid);
    static bool share_slot_used(uint32_t shareIndex);

    // qvfs_OpenV2 (read-write) of a new file on disk 0; the handle, its name in *name.
    int create(std::string* name, uint32_t chn = 1, int32_t fileType = 0, int32_t resSize = 0,
               int32_t recType = 5) const;
    // A closed new file holding `len` bytes of pattern(chn, 0, len).
    std::string new_file(uint32_t chn = 1, int32_t recType = 5, size_t len = 3) const;
    static int open_name(const std::string& name, int flags = QVFS_O_RDONLY);
    static std::vector<uint8_t> read_all(const std::string& name);
    static TQvFileStat stat_of(const std::string& name);

    Level level_;
    std::string disk_;  // device path of disk 0 (FileTest, ApiTest)
};

struct DiskTest : Fixture {
    DiskTest() : Fixture(Level::kDisk) {}
};
struct BlockTest : Fixture {
    BlockTest() : Fixture(Level::kBlock) {}
};
struct FileTest : Fixture {
    FileTest() : Fixture(Level::kFile) {}
};
struct ApiTest : Fixture {
    ApiTest() : Fixture(Level::kApi) {}
};

}  // namespace qvfs::test
