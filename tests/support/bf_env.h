// bf_env.h - a mounted disk with the block-file layer started, for tests of
// the block-file layer and the layers above it.
//
//   class MyTest : public qvfs::test::BlockTest {};
//   TEST_F(MyTest, X) {
//       std::string path = ready_disk(3, 4);
//       Created f = create(request(path, 7));   // first file of block 0
//       ...
//       bf_CloseFile(f.h);
//   }
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "blockfile/bf.h"
#include "common/platform.h"
#include "support/disk_env.h"

namespace qvfs::test {

// One created file: its block handle (one reference), name and entry.
struct Created {
    TQvBlkRec* h = nullptr;
    char name[40] = {};
    TQvBlkSliceInfo slice{};
};

class BlockTest : public DiskTest {
protected:
    // Attaches the shared state and starts the block-file layer (which
    // starts the disk layer).
    void SetUp() override {
        ASSERT_EQ(0, fsc_ShareInit());
        ASSERT_EQ(0, bf_Init());
    }

    // A create request: channel, file type, record type, reserved size,
    // extension and start time.
    static TQvfsOpenParam request(const std::string& path, uint32_t chn, int32_t fileType = 0,
                                  int32_t recType = 0, int32_t resSize = 0, const char* ext = "rvd",
                                  int32_t startTime = 1700000000) {
        TQvfsOpenParam p{};
        p.chn = chn;
        p.startTime = startTime;
        p.fileType = fileType;
        p.resSize = resSize;
        p.recType = recType;
        std::snprintf(p.path, sizeof p.path, "%s", path.c_str());
        // The field may be full (8 characters, no terminator).
        std::memcpy(p.ext, ext, std::min(std::strlen(ext), sizeof p.ext));
        return p;
    }

    static Created create(const TQvfsOpenParam& req) {
        Created c;
        c.h = bf_CreateFile(&req, c.name, &c.slice);
        EXPECT_NE(nullptr, c.h) << "bf_CreateFile errno " << errno;
        return c;
    }

    static uint64_t block_addr(uint32_t block) {
        return qvfs::disk::kDataStart + uint64_t(block) * qvfs::disk::kBlockSize;
    }

    // The header and an entry as stored on the device.
    TQvBlkInfo disk_header(int disk, uint32_t block) const {
        TQvBlkInfo h;
        auto v = read_dev(disk, block_addr(block), sizeof h);
        std::memcpy(&h, v.data(), sizeof h);
        return h;
    }
    TQvBlkSliceInfo disk_entry(int disk, uint32_t block, uint32_t slice) const {
        TQvBlkSliceInfo e;
        auto v = read_dev(disk, block_addr(block) + uint64_t(slice) * 512, sizeof e);
        std::memcpy(&e, v.data(), sizeof e);
        return e;
    }

    static bool all_zero(const void* p, size_t n) {
        const auto* b = static_cast<const uint8_t*>(p);
        for (size_t i = 0; i < n; ++i)
            if (b[i] != 0) return false;
        return true;
    }

    // Arms a fault on a disk's device byte range.
    static int fault(int disk, uint64_t begin, uint64_t end, unsigned ops, long shortBytes = -1,
                     int remaining = -1) {
        qvfs::plat::Fault f;
        f.disk = disk;
        f.begin = begin;
        f.end = end;
        f.ops = ops;
        f.short_bytes = shortBytes;
        f.remaining = remaining;
        return qvfs::plat::fault_add(f);
    }
};

}  // namespace qvfs::test
