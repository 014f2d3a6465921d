// compat.h - the helpers of the block-file and file-layer tests written
// before support/fixture.h; they go as those tests are rewritten.
#pragma once

#include <algorithm>
#include <tuple>

#include "support/fixture.h"

namespace qvfs::test {

inline auto head_fields(const TQvBlkInfo& h) {
    return std::make_tuple(h.Len, h.flg, h.startTime, h.endTime, h.chn, h.dataType, h.recType, h.lock, h.cnt,
                           h.addr, h.next, h.slice);
}

struct BlockCompat : BlockTest {
    using Created = BFile;
    static TQvfsOpenParam request(const std::string& path, uint32_t chn, int32_t fileType = 0, int32_t recType = 0,
                                  int32_t resSize = 0, const char* ext = "rvd", int32_t startTime = 1700000000) {
        TQvfsOpenParam p{};
        p.chn = chn, p.startTime = startTime, p.fileType = fileType, p.resSize = resSize, p.recType = recType;
        std::snprintf(p.path, sizeof p.path, "%s", path.c_str());
        std::memcpy(p.ext, ext, std::min(std::strlen(ext), sizeof p.ext));
        return p;
    }
    static BFile create(const TQvfsOpenParam& req) { return bf_create(req); }
    static std::pair<int, int> refs(const TQvBlkRec* h) { return {h->inRef, h->share->shrRef}; }
    static bool table_empty() {
        for (uint32_t i = 0; i < qvfs::bf::kBlkTableSize; ++i)
            if (qvfs::bf::table_entry(i) != nullptr) return false;
        return true;
    }
    TQvBlkInfo disk_header(int disk, uint32_t block) const { return head_on_disk(disk, block); }
    TQvBlkSliceInfo disk_entry(int disk, uint32_t block, uint32_t slice) const { return entry_on_disk(disk, block, slice); }
    static bool all_zero(const void* p, size_t n) {
        return std::all_of((const uint8_t*)p, (const uint8_t*)p + n, [](uint8_t b) { return b == 0; });
    }
};

struct FileCompat : FileTest {
    using Created = TFile;
    TFile create(int32_t fileType = 0, int32_t resSize = 0, uint32_t chn = 1, int32_t recType = 5) {
        return tf_create(fileType, resSize, chn, recType);
    }
    TQvfsOpenParam param(int32_t fileType, int32_t resSize, uint32_t chn, int32_t recType) const {
        return Fixture::param(chn, fileType, resSize, recType);
    }
    static TQvFileHandle* open(const std::string& name) { return tf_open(name); }
    using Fixture::entry_on_disk;
    TQvBlkSliceInfo entry_on_disk(const std::string& name) const {
        return entry_on_disk(0, name_block(name), name_slice(name));
    }
    std::string bytes_on_disk(const std::string& name, uint64_t off, size_t len) const {
        const auto v = read_dev(0, block_addr(name_block(name)) + off, len);
        return std::string(v.begin(), v.end());
    }
};

}  // namespace qvfs::test
