// bf_bench - cost of the block-file layer's hot paths: one 64 KiB bf_Write,
// one 64 KiB bf_Writev of 4 pieces, and one bf_Sync (entry only, and entry
// plus header when `next` advances).
//
//   bf_bench [all|write|writev|sync-entry|sync-header] [iterations]
//
// Runs in a private sandbox (QVFS_ROOT) on a sparse image file, so the
// figures are those of the page cache, not of a disk; what they show is the
// layer's own overhead: locks, checks and system calls per operation.
//
// System calls per operation: the operations run on the main thread only,
// so trace it alone (no -f: the flush thread stays out of the count) and
// take the difference of two runs:
//   strace -c -o a ./bf_bench write 0  ;  strace -c -o b ./bf_bench write 1000
#include <sys/uio.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "blockfile/bf.h"
#include "support/fixture.h"
#include "support/sandbox.h"

namespace {

constexpr uint32_t kPiece = 64 * 1024;
constexpr uint32_t kDataBase = 0x200000;
constexpr uint32_t kSpan = 256;  // writes cycle over 16 MiB of the block

double now_ns() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) * 1e9 + double(ts.tv_nsec);
}

void report(const char* what, std::vector<double>& ns) {
    if (ns.empty()) return;
    std::sort(ns.begin(), ns.end());
    double sum = 0;
    for (double v : ns) sum += v;
    std::printf("%-34s n=%-6zu median %8.0f ns   p90 %8.0f ns   mean %8.0f ns\n", what, ns.size(),
                ns[ns.size() / 2], ns[ns.size() * 9 / 10], sum / double(ns.size()));
}

int run(const std::string& mode, int n) {
    qvfs::test::Sandbox sbx;
    const std::string path = sbx.add_disk(0, qvfs::test::image_bytes_for(2));
    if (fsc_ShareInit() != 0 || bf_Init() != 0 || df_DiskFormat(path.c_str(), 0, 0) != 0 ||
        df_DiskMount(path.c_str()) != 0) {
        std::fprintf(stderr, "setup failed: errno %d\n", errno);
        return 1;
    }
    TQvfsOpenParam req{};
    req.chn = 1;
    req.startTime = 1700000000;
    std::snprintf(req.path, sizeof req.path, "%s", path.c_str());
    std::memcpy(req.ext, "rvd", 4);
    char name[40] = {};
    TQvBlkSliceInfo slice{};
    TQvBlkRec* h = bf_CreateFile(&req, name, &slice);
    if (h == nullptr) {
        std::fprintf(stderr, "create failed: errno %d\n", errno);
        return 1;
    }

    std::vector<uint8_t> buf(kPiece, 0x5A);
    const bool all = mode == "all";
    std::vector<double> ns;
    ns.reserve(size_t(n));

    if (all || mode == "write") {
        for (int i = 0; i < n; ++i) {
            const uint32_t off = kDataBase + uint32_t(i % kSpan) * kPiece;
            double t0 = now_ns();
            int r = bf_Write(off, buf.data(), kPiece, h);
            ns.push_back(now_ns() - t0);
            if (r != int(kPiece)) return std::fprintf(stderr, "bf_Write %d errno %d\n", r, errno), 1;
        }
        report("bf_Write 64 KiB", ns);
        ns.clear();
    }
    if (all || mode == "writev") {
        iovec v[4];
        for (int k = 0; k < 4; ++k) v[k] = {buf.data() + k * (kPiece / 4), kPiece / 4};
        for (int i = 0; i < n; ++i) {
            const uint32_t off = kDataBase + uint32_t(i % kSpan) * kPiece;
            double t0 = now_ns();
            int r = bf_Writev(off, v, 4, h);
            ns.push_back(now_ns() - t0);
            if (r != int(kPiece)) return std::fprintf(stderr, "bf_Writev %d errno %d\n", r, errno), 1;
        }
        report("bf_Writev 64 KiB (4 pieces)", ns);
        ns.clear();
    }
    if (all || mode == "sync-entry") {
        // dataEnd and endTime do not move: the entry alone is written.
        slice.dataEnd = kDataBase;
        for (int i = 0; i < n; ++i) {
            double t0 = now_ns();
            int r = bf_Sync(&slice, h);
            ns.push_back(now_ns() - t0);
            if (r != 0) return std::fprintf(stderr, "bf_Sync errno %d\n", errno), 1;
        }
        report("bf_Sync, entry only", ns);
        ns.clear();
    }
    if (all || mode == "sync-header") {
        // Every sync moves dataEnd by 4 KiB: entry and header are written.
        for (int i = 0; i < n; ++i) {
            slice.dataEnd = kDataBase + uint64_t(i + 1) * 4096;
            double t0 = now_ns();
            int r = bf_Sync(&slice, h);
            ns.push_back(now_ns() - t0);
            if (r != 0) return std::fprintf(stderr, "bf_Sync errno %d\n", errno), 1;
        }
        report("bf_Sync, entry + header", ns);
        ns.clear();
    }

    bf_CloseFile(h);
    df_DiskUnmout(path.c_str(), 1);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "all";
    const int n = argc > 2 ? std::atoi(argv[2]) : 2000;
    try {
        return run(mode, n);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "bf_bench: %s\n", e.what());
        return 1;
    }
}
