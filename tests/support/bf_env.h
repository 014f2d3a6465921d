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

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include "blockfile/bf.h"
#include "support/disk_env.h"

namespace qvfs::test {

// The header fields the layer maintains, for comparing whole headers:
// Len, flg, startTime, endTime, chn, dataType, recType, lock, cnt, addr,
// next, slice.
inline auto head_fields(const TQvBlkInfo& h) {
    return std::make_tuple(h.Len, h.flg, h.startTime, h.endTime, h.chn, h.dataType, h.recType, h.lock, h.cnt,
                           h.addr, h.next, h.slice);
}

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

    // Creates a file; a failure ends the test (gtest reports the exception).
    static Created create(const TQvfsOpenParam& req) {
        Created c;
        c.h = bf_CreateFile(&req, c.name, &c.slice);
        if (c.h == nullptr) throw std::runtime_error("bf_CreateFile failed, errno " + std::to_string(errno));
        return c;
    }

    // A handle's references: in this process, and of all processes.
    static std::pair<int, int> refs(const TQvBlkRec* h) { return {h->inRef, h->share->shrRef}; }
    // No block handle left in this process's table.
    static bool table_empty() {
        for (uint32_t i = 0; i < qvfs::bf::kBlkTableSize; ++i)
            if (qvfs::bf::table_entry(i) != nullptr) return false;
        return true;
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
};

}  // namespace qvfs::test
