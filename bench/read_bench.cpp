// read_bench - the read side of recording, measured through the public
// calls: opening by name, listing a channel's recordings by time, cold
// playback against ext4, and recording latency while pictures are allocated.
//
//   read_bench open [n]               n opens + closes of one name, warm
//   read_bench list [extra] [qvfs]    a channel's recordings between two
//                                     times, with `extra` more blocks of other
//                                     channels in use; with the path of the
//                                     qvfs tool also its `find` and `df`
//                                     (time and semaphore operations)
//   read_bench playback [MiB] [dir]   one recording read cold from a loop
//                                     device against the same bytes read from
//                                     a file on ext4 on a second loop device
//                                     (root; backing files in dir)
//   read_bench alloc [seconds]        16 channels recording 1 MB/s each in
//                                     64 KiB writes while a picture block is
//                                     allocated and one released twice a
//                                     second: write latency percentiles
//
// Every mode runs in a private sandbox (QVFS_ROOT); `list` and `alloc` on
// sparse image files, so their figures are those of the page cache unless
// caches are dropped (`list` drops them for its cold figures when run as
// root). Times are medians of several runs; ratios are printed so that runs
// on other machines compare.
//
// System calls per open: trace the main thread alone and take the
// difference of two runs:
//   strace -c -o a read_bench open 0 ; strace -c -o b read_bench open 1000
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "api/qvfs.h"
#include "support/fixture.h"
#include "support/sandbox.h"

namespace {

using qvfs::test::image_bytes_for;
using qvfs::test::Sandbox;

constexpr int64_t kT0 = 1700000000;
constexpr int32_t kWholeBlock = 0x3FF00000;  // a "length about to be written" that no block has room for

double now_us() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) * 1e6 + double(ts.tv_nsec) / 1e3;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[std::min(v.size() - 1, size_t(p * double(v.size())))];
}

[[noreturn]] void die(const char* what) {
    std::fprintf(stderr, "read_bench: %s (errno %d)\n", what, errno);
    std::exit(1);
}

void drop_caches() {
    sync();
    std::ofstream("/proc/sys/vm/drop_caches") << "3\n";
}

bool is_root() { return geteuid() == 0; }

// The library started on a sandbox disk of `blocks` blocks, formatted and
// mounted. Returns the device path.
std::string start_disk(Sandbox& sbx, uint32_t blocks) {
    const std::string path = sbx.add_disk(0, image_bytes_for(blocks));
    if (qvfs_Init() != 0 || qvfs_Format(path.c_str()) != 0 || qvfs_Mount(path.c_str()) != 0) die("setup");
    return path;
}

TQvfsOpenParam param(const std::string& disk, uint32_t chn, int32_t fileType, int64_t start, int32_t length = 0) {
    TQvfsOpenParam p{};
    p.chn = chn;
    p.startTime = static_cast<int32_t>(start);
    p.fileType = fileType;
    p.resSize = length;  // also the length the disk layer must find room for
    p.recType = 5;
    std::snprintf(p.path, sizeof p.path, "%s", disk.c_str());
    std::memcpy(p.ext, fileType == 5 ? "jpg" : "rvd", 4);
    return p;
}

// Creates a file (read-write handle) and returns the handle; name receives it.
int create(TQvfsOpenParam p, std::string* name) {
    char buf[64] = {};
    const int h = qvfs_OpenV2(&p, buf, QVFS_O_RDWR);
    if (h < 0) die("create");
    *name = buf;
    return h;
}

// ---- open ---------------------------------------------------------------------

int bench_open(int n) {
    Sandbox sbx;
    const std::string disk = start_disk(sbx, 2);
    std::string name;
    const int w = create(param(disk, 1, 0, kT0), &name);
    std::vector<uint8_t> data(4096, 7);
    if (qvfs_Write(w, data.data(), uint32_t(data.size())) != int(data.size())) die("write");
    qvfs_Close(w);
    std::vector<char> path(name.begin(), name.end());
    path.push_back('\0');
    // Warm: the name's block and record have been used once.
    for (int i = 0; i < 50 && n > 0; ++i) qvfs_Close(qvfs_Open(nullptr, path.data(), QVFS_O_RDONLY));
    std::vector<double> open, close, both;
    for (int i = 0; i < n; ++i) {
        const double t0 = now_us();
        const int h = qvfs_Open(nullptr, path.data(), QVFS_O_RDONLY);
        const double t1 = now_us();
        if (h < 0) die("open");
        qvfs_Close(h);
        const double t2 = now_us();
        open.push_back(t1 - t0);
        close.push_back(t2 - t1);
        both.push_back(t2 - t0);
    }
    if (n > 0)
        std::printf("open by name: median %.1f us (p90 %.1f), close %.1f us, open + close %.1f us, n=%d\n",
                    percentile(open, 0.5), percentile(open, 0.9), percentile(close, 0.5), percentile(both, 0.5), n);
    qvfs_UnMount_V2(disk.c_str());
    return 0;
}

// ---- list -------------------------------------------------------------------------

struct Listing {
    int blocks = 0;
    int files = 0;
};

// The files of one block, through the 512 KiB directory segments until the
// block's file count is reached (what an application can do with the calls).
int list_block_files(uint32_t block, const std::string& disk, std::vector<TQvFileStat>& out) {
    const int cnt = qvfs_GetFileNum(disk.c_str(), block);
    if (cnt <= 0) return 0;
    static std::vector<uint8_t> seg(0x80000);
    std::vector<TQvFileStat> found(1024);
    int total = 0;
    for (int i = 0; i < 32 && total < cnt; ++i) {
        TQvBlkSegQuery q{};
        q.diskId = 0;
        q.blkId = block;
        q.total = cnt;
        q.found = total;
        q.segIndex = i;
        q.max = 1024;
        q.segSize = 0x80000;
        q.segBuf = seg.data();
        q.out = found.data();
        if (qvfs_BlockStatSeg(&q) != 0) die("segment");
        out.insert(out.end(), found.begin(), found.begin() + q.segFound);
        total += q.segFound;
    }
    return total;
}

bool overlaps(const TQvDiskBlkInfo& b, int64_t from, int64_t to) {
    const int64_t s = int64_t(b.startTime);
    const int64_t e = b.endTime == 0 ? INT64_MAX : std::max(s, int64_t(b.endTime));
    return s <= to && e >= from;
}

// Without an index: every block's information, its first directory segment
// for its channel, then the files of the blocks that match.
Listing list_by_scan(const std::string& disk, uint32_t chn, int64_t from, int64_t to) {
    const int n = qvfs_GetUsedBlockNum(disk.c_str());
    std::vector<TQvDiskBlkInfo> info(size_t(std::max(n, 1)));
    const int k = qvfs_GetBlockInfo(disk.c_str(), info.data(), n);
    if (k < 0) die("block info");
    std::vector<uint8_t> seg(0x10000);
    std::vector<TQvFileStat> first(128), files;
    Listing r;
    for (int i = 0; i < k; ++i) {
        if (!overlaps(info[size_t(i)], from, to)) continue;
        TQvBlkSegQuery q{};
        q.blkId = info[size_t(i)].blkId;
        q.total = 1;
        q.max = 128;
        q.segSize = 0x10000;
        q.segBuf = seg.data();
        q.out = first.data();
        if (qvfs_BlockStatSeg(&q) != 0) die("first segment");
        if (q.segFound < 1 || first[0].chn != chn) continue;
        ++r.blocks;
        r.files += list_block_files(info[size_t(i)].blkId, disk, files);
    }
    return r;
}

#ifdef QVFS_ANY_BLK_TYPE
Listing list_by_index(const std::string& disk, uint32_t chn, int64_t from, int64_t to) {
    TQvDiskBlkInfo found[64];
    const int k = qvfs_FindBlocks(disk.c_str(), chn, 0, from, to, found, 64);
    if (k < 0) die("find blocks");
    std::vector<TQvFileStat> files;
    Listing r;
    for (int i = 0; i < std::min(k, 64); ++i) {
        ++r.blocks;
        r.files += list_block_files(found[i].blkId, disk, files);
    }
    return r;
}
#endif

// Runs a command; returns its wall time in ms, or -1.
double run_ms(const std::vector<std::string>& argv) {
    std::fflush(stdout);
    const double t0 = now_us();
    const pid_t pid = fork();
    if (pid == 0) {
        std::vector<char*> args;
        for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        if (std::freopen("/dev/null", "w", stdout) == nullptr) _exit(127);
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? (now_us() - t0) / 1000 : -1;
}

// Semaphore operations of a command and its threads, counted by strace.
long semops(std::vector<std::string> argv) {
    char out[] = "/tmp/read_bench_strace_XXXXXX";
    const int fd = mkstemp(out);
    if (fd < 0) return -1;
    close(fd);
    argv.insert(argv.begin(), {"strace", "-f", "-qq", "-c", "-e", "trace=semop,semtimedop", "-o", out});
    if (run_ms(argv) < 0) return -1;
    std::ifstream in(out);
    std::string line;
    long calls = 0;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::vector<std::string> w;
        for (std::string s; words >> s;) w.push_back(s);
        if (w.size() >= 5 && (w.back() == "semop" || w.back() == "semtimedop")) calls += std::atol(w[3].c_str());
    }
    unlink(out);
    return calls;
}

int bench_list(int extra, const char* tool) {
    Sandbox sbx;
    const uint32_t mine = 10;
    const std::string disk = start_disk(sbx, mine + uint32_t(extra) + 1);
    std::string name;
    // Channel 1 fills one block an hour, each with one file that ends 50
    // minutes after its start; the other channels one block each, earlier.
    TQvFileStat st{};
    for (uint32_t i = 0; i < mine + uint32_t(extra); ++i) {
        const bool ours = i >= uint32_t(extra);
        const int64_t start = ours ? kT0 + int64_t(i - uint32_t(extra)) * 3600 : kT0 - 86400 + int64_t(i) * 60;
        const int h = create(param(disk, ours ? 1 : 2 + i % 1000, 0, start, kWholeBlock), &name);
        qvfs_Close(h);
        TimeValue tv[2] = {{int32_t(start), 0}, {int32_t(start + 3000), 0}};
        if (qvfs_ChangeTime(name.c_str(), tv) != 0) die("change time");
    }
    if (qvfs_Stat(name.c_str(), &st) != 0) die("stat");
    const int64_t from = kT0 + 2 * 3600 + 600, to = kT0 + 5 * 3600 - 600;  // blocks 2..4 of channel 1

    struct Way {
        const char* what;
        Listing (*fn)(const std::string&, uint32_t, int64_t, int64_t);
    };
    std::vector<Way> ways = {{"scan of every block", list_by_scan}};
#ifdef QVFS_ANY_BLK_TYPE
    ways.push_back({"qvfs_FindBlocks", list_by_index});
#endif
    std::printf("blocks in use: %u (channel 1: %u)\n", mine + uint32_t(extra), mine);
    for (const Way& w : ways) {
        std::vector<double> warm;
        Listing r;
        for (int i = 0; i < 7; ++i) {
            const double t0 = now_us();
            r = w.fn(disk, 1, from, to);
            warm.push_back(now_us() - t0);
        }
        std::printf("  %-22s %d blocks, %d files: warm median %.3f ms", w.what, r.blocks, r.files,
                    percentile(warm, 0.5) / 1000);
        if (is_root()) {
            std::vector<double> cold;
            for (int i = 0; i < 3; ++i) {
                drop_caches();
                const double t0 = now_us();
                w.fn(disk, 1, from, to);
                cold.push_back(now_us() - t0);
            }
            std::printf(", cold median %.3f ms", percentile(cold, 0.5) / 1000);
        }
        std::printf("\n");
    }
    if (tool != nullptr) {
        const std::vector<std::string> find = {tool, "--root", sbx.root(), "find", "0", "--channel", "1",
                                               "--from", "@" + std::to_string(from), "--to", "@" + std::to_string(to)};
        const std::vector<std::string> df = {tool, "--root", sbx.root(), "df", "0"};
        for (const auto& cmd : {find, df}) {
            std::vector<double> ms;
            for (int i = 0; i < 3; ++i) ms.push_back(run_ms(cmd));
            std::printf("  qvfs %-4s warm median %.1f ms", cmd[3].c_str(), percentile(ms, 0.5));
            if (is_root()) {
                drop_caches();
                std::printf(", cold %.1f ms", run_ms(cmd));
            }
            std::printf(", %ld semaphore operations\n", semops(cmd));
        }
    }
    qvfs_UnMount_V2(disk.c_str());
    return 0;
}

// ---- playback -----------------------------------------------------------------------

std::string shell_out(const std::string& cmd) {
    std::string out;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char buf[256];
        while (std::fgets(buf, sizeof buf, p) != nullptr) out += buf;
        pclose(p);
    }
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) out.pop_back();
    return out;
}

void shell(const std::string& cmd) {
    if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "read_bench: '%s' failed\n", cmd.c_str());
}

int bench_playback(uint32_t mib, const std::string& dir) {
    if (!is_root()) {
        std::fprintf(stderr, "read_bench playback needs root (loop devices, mount, drop_caches)\n");
        return 1;
    }
    Sandbox sbx;
    const uint64_t devBytes = image_bytes_for(2);
    const std::string qimg = dir + "/read_bench_qvfs.img", eimg = dir + "/read_bench_ext4.img";
    const std::string mnt = dir + "/read_bench_ext4";
    shell("truncate -s " + std::to_string(devBytes) + " " + qimg + " " + eimg);
    const std::string qdev = shell_out("losetup --direct-io=on -f --show " + qimg);
    const std::string edev = shell_out("losetup --direct-io=on -f --show " + eimg);
    if (qdev.empty() || edev.empty()) die("losetup");
    shell("mkfs.ext4 -q -F " + edev + " && mkdir -p " + mnt + " && mount " + edev + " " + mnt);
    // The disk's device path in the sandbox leads to the loop device.
    const std::string disk = Sandbox::device_path(0);
    shell("mkdir -p " + sbx.real("/dev/scsi/host00") + " && ln -sf " + qdev + " " + sbx.real(disk));

    const uint64_t bytes = uint64_t(mib) << 20;
    std::vector<uint8_t> chunk(1 << 20);
    for (size_t i = 0; i < chunk.size(); ++i) chunk[i] = uint8_t(i * 131 + 7);
    if (qvfs_Init() != 0 || qvfs_Format(disk.c_str()) != 0 || qvfs_Mount(disk.c_str()) != 0) die("qvfs setup");
    std::string name;
    const int w = create(param(disk, 1, 0, kT0), &name);
    for (uint64_t done = 0; done < bytes; done += chunk.size())
        if (qvfs_Write(w, chunk.data(), uint32_t(chunk.size())) != int(chunk.size())) die("qvfs write");
    qvfs_Close(w);
    const std::string efile = mnt + "/rec.rvd";
    {
        const int fd = ::open(efile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        for (uint64_t done = 0; done < bytes; done += chunk.size())
            if (::write(fd, chunk.data(), chunk.size()) != ssize_t(chunk.size())) die("ext4 write");
        fsync(fd);
        ::close(fd);
    }
    std::vector<char> path(name.begin(), name.end());
    path.push_back('\0');
    std::printf("cold playback of %u MiB (loop devices with direct I/O on the same file system)\n", mib);
    for (uint32_t size : {64u << 10, 1u << 20}) {
        std::vector<uint8_t> buf(size);
        std::vector<double> q, e;
        for (int round = 0; round < 3; ++round) {
            drop_caches();
            double t0 = now_us();
            const int h = qvfs_Open(nullptr, path.data(), QVFS_O_RDONLY);
            uint64_t got = 0;
            for (int n; (n = qvfs_Read(h, buf.data(), size)) > 0;) got += uint64_t(n);
            qvfs_Close(h);
            if (got != bytes) die("qvfs read");
            q.push_back(double(bytes) / (now_us() - t0));  // MB/s
            drop_caches();
            t0 = now_us();
            const int fd = ::open(efile.c_str(), O_RDONLY);
            got = 0;
            for (ssize_t n; (n = ::read(fd, buf.data(), size)) > 0;) got += uint64_t(n);
            ::close(fd);
            if (got != bytes) die("ext4 read");
            e.push_back(double(bytes) / (now_us() - t0));
        }
        const double qm = percentile(q, 0.5), em = percentile(e, 0.5);
        std::printf("  reads of %4u KiB: qvfs %7.1f MB/s, ext4 %7.1f MB/s, qvfs/ext4 %.2f\n", size >> 10, qm, em,
                    qm / em);
    }
    qvfs_UnMount_V2(disk.c_str());
    shell("umount " + mnt + "; rmdir " + mnt + "; losetup -d " + qdev + " " + edev + "; rm -f " + qimg + " " + eimg);
    return 0;
}

// ---- alloc --------------------------------------------------------------------------------

int bench_alloc(int seconds) {
    Sandbox sbx;
    constexpr int kChannels = 16;
    const std::string disk = start_disk(sbx, kChannels + 8);
    std::atomic<bool> stop{false};
    std::vector<std::vector<double>> lat(kChannels);
    std::vector<std::thread> recorders;
    for (int c = 0; c < kChannels; ++c) {
        recorders.emplace_back([&, c] {
            std::string name;
            int h = create(param(disk, uint32_t(c), 0, kT0), &name);
            std::vector<uint8_t> buf(64 << 10, uint8_t(c));
            const double period = 1e6 * double(buf.size()) / 1e6;  // 1 MB/s
            double next = now_us();
            while (!stop.load()) {
                const double t0 = now_us();
                if (qvfs_Write(h, buf.data(), uint32_t(buf.size())) != int(buf.size())) die("record");
                lat[size_t(c)].push_back(now_us() - t0);
                next += period;
                const double wait = next - now_us();
                if (wait > 0) usleep(useconds_t(wait));
            }
            qvfs_Close(h);
        });
    }
    // Pictures: every 0.5 s a new block is allocated (a picture with no
    // room in its channel's block) and the previous picture's block given
    // back (its only file deleted). Both zero a 16 MiB head.
    int pictures = 0;
    std::string last;
    const double end = now_us() + seconds * 1e6;
    while (now_us() < end) {
        std::string name;
        const int h = create(param(disk, 500, 5, kT0 + pictures, kWholeBlock), &name);
        std::vector<uint8_t> jpg(100000, 3);
        qvfs_Write(h, jpg.data(), uint32_t(jpg.size()));
        qvfs_Close(h);
        if (!last.empty() && qvfs_Unlink(last.c_str()) != 0) die("unlink picture");
        last = name;
        ++pictures;
        usleep(500000);
    }
    stop = true;
    for (auto& t : recorders) t.join();
    std::vector<double> all;
    for (auto& v : lat) all.insert(all.end(), v.begin(), v.end());
    const long late = std::count_if(all.begin(), all.end(), [](double us) { return us > 100000; });
    std::printf("16 channels x 1 MB/s, %d picture blocks allocated and released in %d s: %zu writes, "
                "p50 %.2f ms, p99 %.2f ms, max %.2f ms, %ld above 100 ms\n",
                pictures, seconds, all.size(), percentile(all, 0.5) / 1000, percentile(all, 0.99) / 1000,
                percentile(all, 1.0) / 1000, late);
    qvfs_UnMount_V2(disk.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string mode = argc > 1 ? argv[1] : "";
    try {
        if (mode == "open") return bench_open(argc > 2 ? std::atoi(argv[2]) : 20000);
        if (mode == "list") return bench_list(argc > 2 ? std::atoi(argv[2]) : 0, argc > 3 ? argv[3] : nullptr);
        if (mode == "playback")
            return bench_playback(argc > 2 ? uint32_t(std::atoi(argv[2])) : 512, argc > 3 ? argv[3] : "/tmp");
        if (mode == "alloc") return bench_alloc(argc > 2 ? std::atoi(argv[2]) : 15);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "read_bench: %s\n", e.what());
        return 1;
    }
    std::fprintf(stderr, "usage: read_bench open|list|playback|alloc [args]\n");
    return 2;
}
