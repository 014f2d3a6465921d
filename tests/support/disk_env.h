// disk_env.h - a formatted, mounted disk on a sparse image for tests of the
// disk layer and the layers above it.
//
//   class MyTest : public qvfs::test::DiskTest {};
//   TEST_F(MyTest, X) {
//       std::string path = ready_disk(3, 9);   // 9 blocks, mounted
//       ...
//       EXPECT_TRUE(meta_on_disk_matches(3));  // both meta regions == image
//   }
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/platform.h"
#include "disk/df.h"
#include "support/sandbox.h"

// Expects `call` to return `ret` and to store `err` in errno (cleared first,
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

// The fields of a block header the disk layer reads (little-endian).
struct TestBlockHead {
    uint32_t len = 0x200000;
    uint64_t startTime = 0;
    uint64_t endTime = 0;
    uint32_t chn = 0;
    uint32_t dataType = 0;
    uint32_t cnt = 0;
    uint64_t next = 0x200000;
    uint32_t slice = 0;
};

class DiskTest : public SandboxTest {
protected:
    // Attaches the shared state and runs df_Init (locks, flush thread).
    void SetUp() override;
    // Forced unmount of every disk a test mounted, so that no flush of this
    // process runs on images that the sandbox is about to delete.
    void TearDown() override;

    // Creates an image that formats to `blocks` blocks, formats (mode 0) and
    // mounts it. Returns the device path; fails the test on error.
    std::string ready_disk(int disk, uint32_t blocks);

    TQvDiskShare& image(int disk) const { return *g_astQvDisk[disk].share; }

    // Raw bytes of a disk's image file.
    std::vector<uint8_t> read_dev(int disk, uint64_t off, size_t len) const;
    void write_dev(int disk, uint64_t off, const void* buf, size_t len) const;
    bool dev_zero(int disk, uint64_t off, size_t len) const;
    static bool all_zero(const void* p, size_t n);

    // Writes a block header at the start of a block.
    void write_block_head(int disk, uint32_t block, const TestBlockHead& h) const;

    // Both header copies (when `headers`), and the status map (both
    // locations) and all table chunks of the chosen meta regions, as stored
    // on the device, equal the shared image.
    ::testing::AssertionResult meta_on_disk_matches(int disk, bool region0 = true, bool region1 = true,
                                                    bool headers = true) const;

    // An allocation request for a channel, file data-type code and length.
    static TQvfsOpenParam request(const std::string& path, uint32_t chn, int32_t code = 0, int32_t len = 0);
    // df_GetFileBlkId on a sandbox disk: the block, or -1 (errno set).
    static int32_t alloc(int disk, uint32_t chn, int32_t code = 0, int32_t len = 0);
    // Allocates a new block (a length no current block has room for) and
    // writes `h`, with the channel set, as its header.
    int32_t new_block(int disk, uint32_t chn, int32_t code, TestBlockHead h = {}) const;

    // Arms a fault on [begin, begin + len) of a disk's device (-1: any disk).
    static int fault(unsigned ops, uint64_t begin = 0, uint64_t len = UINT64_MAX, int disk = -1,
                     long shortBytes = -1, int remaining = -1);
};

}  // namespace qvfs::test
