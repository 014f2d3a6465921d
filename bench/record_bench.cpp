// record_bench - what recording costs on qvfs, next to ext4 used the way
// recorders use it, with the raw device as the limit. record_bench.sh
// prepares the devices and starts it; the README says how to read it.
//
// Every measurement runs in a process of its own (forked from this one,
// which never starts the library), so that CPU time, the library's threads
// and its per-process state belong to that one measurement:
//   qvfs  one file per channel (a new one when the block fills), qvfs_Write;
//         at the end every handle is closed and the device flushed;
//   ext4  one file per channel per 64 MiB segment, write(2), and an inline
//         fdatasync of each file every 0.8 s; at the end each file is
//         flushed and closed;
//   raw   pwrite into one 1 GiB region per channel of a block device or
//         image, fdatasync of the device every 0.8 s.
// Workloads: C channels written round robin in fixed chunks by one thread
// (throughput); channels paced like cameras (a write due every
// chunk / rate seconds per channel, staggered); cold playback of one
// recording; listing a channel's recordings by time and opening by name.
// Rounds interleave the systems (the order alternates) and the figures
// are medians over rounds.
//
// CPU: "cpu" is the user + system time of the measuring process and all its
// threads (getrusage), so the library's flush thread is in and the kernel's
// own writeback threads are not; "sys" is the whole machine's busy time
// (/proc/stat) over the run, which includes writeback, the loop devices'
// workers and whatever else the machine was doing.
#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "api/qvfs.h"
#include "tools/root_ipc.h"

namespace {

constexpr uint64_t kKiB = 1024, kMiB = 1024 * kKiB, kGiB = 1024 * kMiB;
constexpr double kSyncEvery = 0.8;           // ext4 and raw: fdatasync period
constexpr uint64_t kSegment = 64 * kMiB;     // ext4: one file per channel per segment
constexpr uint64_t kRawRegion = kGiB;        // raw: one region per channel
constexpr double kLate = 0.1;                // paced: a write this late counts
constexpr uint32_t kPlayChunk = 256 * kKiB;  // playback: write and read size
constexpr uint32_t kPlayChannel = 1000;
constexpr int64_t kListT0 = 1700000000;      // listing: start time of the first files

struct Options {
    std::string qvfsDev = "/dev/scsi/host00/part1";  // the library's name of the disk
    std::string qvfsReal;                            // that device (loop device or image)
    uint64_t qvfsBytes = 0;                          // bytes formatted for qvfs
    std::string ext4Dir;
    std::string raw;
    uint64_t rawOffset = 0;
    std::string setting;  // what the devices are, printed in the heading
    int rounds = 3;
    uint64_t runBytes = 512 * kMiB;
    double pacedSeconds = 20;
    int pacedChannels = 64;
    uint64_t playBytes = 256 * kMiB;
    int listBlocks = 1000;
    bool quick = false;
    bool dropCaches = false;
    std::string svg;
    std::vector<std::pair<int, uint32_t>> workloads;
} g_opt;

// ---- measuring --------------------------------------------------------------------

double mono() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
}

double cpu_self() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    auto s = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) * 1e-6; };
    return s(ru.ru_utime) + s(ru.ru_stime);
}

// Busy seconds of the whole machine (all CPUs) since boot.
double machine_busy() {
    FILE* f = std::fopen("/proc/stat", "r");
    if (f == nullptr) return 0;
    unsigned long long v[8] = {};
    const int n = std::fscanf(f, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &v[0], &v[1], &v[2], &v[3], &v[4],
                              &v[5], &v[6], &v[7]);
    std::fclose(f);
    if (n < 5) return 0;
    unsigned long long busy = 0;
    for (int i = 0; i < n; ++i)
        if (i != 3 && i != 4) busy += v[i];  // all but idle and iowait
    return double(busy) / double(sysconf(_SC_CLK_TCK));
}

std::string load_average() {
    double l[3] = {};
    if (getloadavg(l, 3) != 3) return "?";
    char b[64];
    std::snprintf(b, sizeof b, "%.2f %.2f %.2f", l[0], l[1], l[2]);
    return b;
}

// What one measuring process reports back through a pipe.
struct Result {
    int ok = 0;
    char error[200] = {};
    char name[64] = {};  // playback: the recording written
    uint64_t bytes = 0, writes = 0, late = 0;
    double seconds = 0, cpu = 0, machine = 0;
    double p50 = 0, p99 = 0, max = 0;  // write-call latency, seconds
    double lateMax = 0, syncMax = 0;
    double extra[4] = {};  // listing: warm ms, found, open us, ext4 open us
};

void fail(Result& r, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(r.error, sizeof r.error, fmt, ap);
    va_end(ap);
    r.ok = 0;
}

// Runs fn in a forked process and returns what it reported.
Result in_child(const std::function<void(Result&)>& fn) {
    int p[2];
    if (pipe(p) != 0) return Result{};
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(p[0]);
        auto* r = new Result;
        r->ok = 1;
        fn(*r);
        const char* b = reinterpret_cast<const char*>(r);
        for (size_t done = 0; done < sizeof *r;) {
            const ssize_t n = write(p[1], b + done, sizeof *r - done);
            if (n <= 0) break;
            done += size_t(n);
        }
        _exit(0);
    }
    close(p[1]);
    Result r;
    char* b = reinterpret_cast<char*>(&r);
    size_t got = 0;
    while (got < sizeof r) {
        const ssize_t n = read(p[0], b + got, sizeof r - got);
        if (n <= 0) break;
        got += size_t(n);
    }
    close(p[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (got != sizeof r) {
        r = Result{};
        std::snprintf(r.error, sizeof r.error, "measuring process ended without a report (status 0x%x)", status);
    }
    return r;
}

struct Latencies {
    std::vector<float> v;
    void add(double s) { v.push_back(float(s)); }
    void into(Result& r) {
        if (v.empty()) return;
        auto at = [&](double q) {
            const size_t k = std::min(v.size() - 1, size_t(q * double(v.size())));
            std::nth_element(v.begin(), v.begin() + long(k), v.end());
            return double(v[k]);
        };
        r.p50 = at(0.5);
        r.p99 = at(0.99);
        r.max = *std::max_element(v.begin(), v.end());
        r.writes = v.size();
    }
};

// A buffer of one chunk with a recognisable pattern, aligned for any device.
std::unique_ptr<uint8_t, decltype(&std::free)> chunk_buffer(uint32_t len) {
    void* p = nullptr;
    if (posix_memalign(&p, 4096, len) != 0) p = nullptr;
    auto* b = static_cast<uint8_t*>(p);
    for (uint32_t i = 0; b != nullptr && i < len; ++i) b[i] = uint8_t(i * 7 + 1);
    return {b, &std::free};
}

// ---- the three systems ------------------------------------------------------------

// A recorder's view of a system: open C channels, write one chunk to a
// channel, housekeeping after a write (periodic syncs, new files) outside
// the write's latency, and making everything durable at the end.
struct Sink {
    virtual ~Sink() = default;
    virtual bool open(int channels, Result& r) = 0;
    virtual bool write(int ch, const uint8_t* buf, uint32_t len, Result& r) = 0;
    virtual void after_write(int, double, Result&) {}
    virtual bool finish(Result& r) = 0;
};

bool flush_path(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return false;
    const bool ok = fdatasync(fd) == 0;
    ::close(fd);
    return ok;
}

struct QvfsSink : Sink {
    uint32_t firstChannel = 0;
    std::vector<int> h;
    std::vector<char> rotate;
    std::string lastName;

    static bool start(Result& r) {
        if (qvfs_Init() != 0) {
            fail(r, "qvfs_Init failed: errno %d", errno);
            return false;
        }
        if (qvfs_Mount(g_opt.qvfsDev.c_str()) != 0) {
            fail(r, "qvfs_Mount(%s) failed: %s", g_opt.qvfsDev.c_str(), qvfs_ErrorString(errno));
            return false;
        }
        return true;
    }
    int create(uint32_t chn, int64_t start) {
        TQvfsOpenParam p{};
        p.chn = chn;
        p.startTime = int32_t(start);
        p.fileType = 0;
        std::snprintf(p.path, sizeof p.path, "%s", g_opt.qvfsDev.c_str());
        std::snprintf(p.ext, sizeof p.ext, "rvd");
        char name[64] = {};
        const int fd = qvfs_OpenV2(&p, name, 1);
        if (fd >= 0) lastName = name;
        return fd;
    }
    bool open(int channels, Result& r) override {
        if (!start(r)) return false;
        for (int c = 0; c < channels; ++c) {
            h.push_back(create(firstChannel + uint32_t(c), time(nullptr)));
            if (h.back() < 0) {
                fail(r, "cannot create a file on channel %d: %s", c, qvfs_ErrorString(errno));
                return false;
            }
        }
        rotate.assign(size_t(channels), 0);
        return true;
    }
    bool next_file(int ch) {
        qvfs_Close(h[size_t(ch)]);
        h[size_t(ch)] = create(firstChannel + uint32_t(ch), time(nullptr));
        rotate[size_t(ch)] = 0;
        return h[size_t(ch)] >= 0;
    }
    bool write(int ch, const uint8_t* buf, uint32_t len, Result& r) override {
        const int n = qvfs_Write(h[size_t(ch)], buf, len);
        // 28: the block is (nearly) full, the recorder goes on in a new file.
        if (qvfs_error(h[size_t(ch)]) == 28) rotate[size_t(ch)] = 1;
        if (n == int(len)) return true;
        if (rotate[size_t(ch)] && next_file(ch) && qvfs_Write(h[size_t(ch)], buf, len) == int(len)) return true;
        fail(r, "qvfs_Write on channel %d failed: %s, error %d", ch, qvfs_ErrorString(errno),
             qvfs_error(h[size_t(ch)]));
        return false;
    }
    void after_write(int ch, double, Result&) override {
        if (rotate[size_t(ch)]) next_file(ch);
    }
    bool finish(Result& r) override {
        for (int fd : h) qvfs_Close(fd);
        h.clear();
        if (!flush_path(g_opt.qvfsReal)) {
            fail(r, "fdatasync of %s failed: %s", g_opt.qvfsReal.c_str(), std::strerror(errno));
            return false;
        }
        return true;
    }
};

struct Ext4Sink : Sink {
    std::string sub = "rec";
    std::vector<int> fd;
    std::vector<uint64_t> inSegment, segments;
    std::vector<double> lastSync;

    std::string dir(int ch) const { return g_opt.ext4Dir + "/" + sub + "/ch" + std::to_string(ch); }
    bool next_segment(int ch) {
        auto c = size_t(ch);
        if (fd[c] >= 0) {
            fdatasync(fd[c]);
            ::close(fd[c]);
        }
        char name[32];
        std::snprintf(name, sizeof name, "/seg%06llu.rvd", static_cast<unsigned long long>(segments[c]++));
        fd[c] = ::open((dir(ch) + name).c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        inSegment[c] = 0;
        return fd[c] >= 0;
    }
    bool open(int channels, Result& r) override {
        // The previous run's files go first, outside the measurement.
        std::string cmd = "rm -rf '" + g_opt.ext4Dir + "/" + sub + "'";
        if (std::system(cmd.c_str()) != 0) {
            fail(r, "cannot clear %s", g_opt.ext4Dir.c_str());
            return false;
        }
        ::mkdir((g_opt.ext4Dir + "/" + sub).c_str(), 0755);
        fd.assign(size_t(channels), -1);
        inSegment.assign(size_t(channels), 0);
        segments.assign(size_t(channels), 0);
        lastSync.assign(size_t(channels), mono());
        for (int c = 0; c < channels; ++c) {
            ::mkdir(dir(c).c_str(), 0755);
            if (!next_segment(c)) {
                fail(r, "cannot create a file in %s: %s", dir(c).c_str(), std::strerror(errno));
                return false;
            }
        }
        ::sync();
        return true;
    }
    bool write(int ch, const uint8_t* buf, uint32_t len, Result& r) override {
        const auto c = size_t(ch);
        for (uint32_t done = 0; done < len;) {
            const ssize_t n = ::write(fd[c], buf + done, len - done);
            if (n <= 0) {
                fail(r, "write on channel %d failed: %s", ch, std::strerror(errno));
                return false;
            }
            done += uint32_t(n);
        }
        inSegment[c] += len;
        return true;
    }
    void after_write(int ch, double now, Result& r) override {
        const auto c = size_t(ch);
        if (inSegment[c] >= kSegment) {
            next_segment(ch);
            lastSync[c] = now;
        } else if (now - lastSync[c] >= kSyncEvery) {
            const double a = mono();
            fdatasync(fd[c]);
            r.syncMax = std::max(r.syncMax, mono() - a);
            lastSync[c] = now;
        }
    }
    bool finish(Result& r) override {
        for (int f : fd) {
            if (fdatasync(f) != 0) {
                fail(r, "fdatasync failed: %s", std::strerror(errno));
                return false;
            }
            ::close(f);
        }
        fd.clear();
        return true;
    }
};

struct RawSink : Sink {
    int fd = -1;
    std::vector<uint64_t> pos;
    double lastSync = 0;

    bool open(int channels, Result& r) override {
        fd = ::open(g_opt.raw.c_str(), O_WRONLY);
        if (fd < 0) {
            fail(r, "cannot open %s: %s", g_opt.raw.c_str(), std::strerror(errno));
            return false;
        }
        pos.assign(size_t(channels), 0);
        lastSync = mono();
        return true;
    }
    bool write(int ch, const uint8_t* buf, uint32_t len, Result& r) override {
        auto& p = pos[size_t(ch)];
        if (p + len > kRawRegion) p = 0;
        const uint64_t at = g_opt.rawOffset + uint64_t(ch) * kRawRegion + p;
        if (pwrite(fd, buf, len, off_t(at)) != ssize_t(len)) {
            fail(r, "pwrite at %llu failed: %s", static_cast<unsigned long long>(at), std::strerror(errno));
            return false;
        }
        p += len;
        return true;
    }
    void after_write(int, double now, Result& r) override {
        if (now - lastSync < kSyncEvery) return;
        const double a = mono();
        fdatasync(fd);
        r.syncMax = std::max(r.syncMax, mono() - a);
        lastSync = now;
    }
    bool finish(Result& r) override {
        const bool ok = fdatasync(fd) == 0;
        if (!ok) fail(r, "fdatasync failed: %s", std::strerror(errno));
        ::close(fd);
        return ok;
    }
};

enum System { kQvfs, kExt4, kRaw, kSystems };
const char* const kSystemNames[kSystems] = {"qvfs", "ext4", "raw"};

std::unique_ptr<Sink> make_sink(System s) {
    if (s == kQvfs) return std::make_unique<QvfsSink>();
    if (s == kExt4) return std::make_unique<Ext4Sink>();
    return std::make_unique<RawSink>();
}

// ---- workloads -----------------------------------------------------------------------

struct Clock {
    double t0 = mono(), c0 = cpu_self(), m0 = machine_busy();
    void into(Result& r) const {
        r.seconds = mono() - t0;
        r.cpu = cpu_self() - c0;
        r.machine = machine_busy() - m0;
    }
};

void throughput(System sys, int channels, uint32_t chunk, Result& r) {
    auto sink = make_sink(sys);
    auto buf = chunk_buffer(chunk);
    const uint64_t writes = std::max<uint64_t>(g_opt.runBytes / chunk, uint64_t(channels));
    Latencies lat;
    lat.v.reserve(writes);
    if (!sink->open(channels, r)) return;
    Clock clock;
    for (uint64_t i = 0; i < writes; ++i) {
        const int ch = int(i % uint64_t(channels));
        const double a = mono();
        if (!sink->write(ch, buf.get(), chunk, r)) return;
        const double b = mono();
        lat.add(b - a);
        sink->after_write(ch, b, r);
    }
    if (!sink->finish(r)) return;
    clock.into(r);
    r.bytes = writes * chunk;
    lat.into(r);
}

// Cameras: channel c's k-th write is due at t0 + k * period + c * period / C.
void paced(System sys, int channels, uint32_t chunk, double rate, double seconds, Result& r) {
    auto sink = make_sink(sys);
    auto buf = chunk_buffer(chunk);
    const double period = double(chunk) / rate;
    const uint64_t total = uint64_t(seconds / period) * uint64_t(channels);
    Latencies lat;
    lat.v.reserve(total);
    if (!sink->open(channels, r)) return;
    Clock clock;
    const double t0 = clock.t0 + 0.05;
    for (uint64_t j = 0; j < total; ++j) {
        const int ch = int(j % uint64_t(channels));
        const double due = t0 + double(j / uint64_t(channels)) * period + double(ch) * period / channels;
        double now = mono();
        if (now < due) {
            const double wait = due - now;
            timespec ts{time_t(wait), long((wait - std::floor(wait)) * 1e9)};
            nanosleep(&ts, nullptr);
            now = mono();
        }
        const double late = now - due;
        if (late > kLate) ++r.late;
        r.lateMax = std::max(r.lateMax, late);
        if (!sink->write(ch, buf.get(), chunk, r)) return;
        const double b = mono();
        lat.add(b - now);
        sink->after_write(ch, b, r);
    }
    if (!sink->finish(r)) return;
    clock.into(r);
    r.bytes = total * chunk;
    lat.into(r);
}

// Forgets what the page cache holds of the recordings: the devices' and
// files' cached pages, and with --drop-caches the whole machine's.
void drop_caches(const std::vector<std::string>& paths) {
    ::sync();
    for (const std::string& p : paths) {
        const int fd = ::open(p.c_str(), O_RDONLY);
        if (fd < 0) continue;
        posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
        ::close(fd);
    }
    if (!g_opt.dropCaches) return;
    if (FILE* f = std::fopen("/proc/sys/vm/drop_caches", "w")) {
        std::fputs("3\n", f);
        std::fclose(f);
    }
}

std::vector<std::string> ext4_files(const std::string& dir) {
    std::vector<std::string> out;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (const dirent* e = ::readdir(d))
            if (e->d_name[0] != '.') out.push_back(dir + "/" + e->d_name);
        ::closedir(d);
    }
    std::sort(out.begin(), out.end());
    return out;
}

// Writes the recording that playback reads (qvfs: returns its name).
void play_write(System sys, Result& r) {
    if (sys == kRaw) return;  // reads what the raw runs left in channel 0's region
    auto buf = chunk_buffer(kPlayChunk);
    if (sys == kQvfs) {
        QvfsSink q;
        if (!QvfsSink::start(r)) return;
        const int h = q.create(kPlayChannel, time(nullptr));
        for (uint64_t done = 0; h >= 0 && done < g_opt.playBytes; done += kPlayChunk) {
            if (qvfs_Write(h, buf.get(), kPlayChunk) != int(kPlayChunk)) {
                fail(r, "playback recording: qvfs_Write failed: %s", qvfs_ErrorString(errno));
                return;
            }
        }
        if (h < 0) fail(r, "playback recording: create failed: %s", qvfs_ErrorString(errno));
        qvfs_Close(h);
        std::snprintf(r.name, sizeof r.name, "%s", q.lastName.c_str());
        return;
    }
    Ext4Sink e;
    e.sub = "play";
    if (!e.open(1, r)) return;
    for (uint64_t done = 0; done < g_opt.playBytes; done += kPlayChunk) {
        if (!e.write(0, buf.get(), kPlayChunk, r)) return;
        e.after_write(0, mono(), r);
    }
    e.finish(r);
}

void play_read(System sys, const char* name, Result& r) {
    auto buf = chunk_buffer(kPlayChunk);
    uint64_t got = 0;
    if (sys == kQvfs) {
        if (!QvfsSink::start(r)) return;
        Clock clock;
        const int h = qvfs_Open(nullptr, const_cast<char*>(name), 0);
        if (h < 0) {
            fail(r, "cannot open %s: %s", name, qvfs_ErrorString(errno));
            return;
        }
        for (int n; (n = qvfs_Read(h, buf.get(), kPlayChunk)) > 0;) got += uint64_t(n);
        qvfs_Close(h);
        clock.into(r);
    } else if (sys == kExt4) {
        Clock clock;
        for (const std::string& f : ext4_files(g_opt.ext4Dir + "/play/ch0")) {
            const int fd = ::open(f.c_str(), O_RDONLY);
            for (ssize_t n; fd >= 0 && (n = ::read(fd, buf.get(), kPlayChunk)) > 0;) got += uint64_t(n);
            if (fd >= 0) ::close(fd);
        }
        clock.into(r);
    } else {
        const int fd = ::open(g_opt.raw.c_str(), O_RDONLY);
        Clock clock;
        for (ssize_t n; fd >= 0 && got < g_opt.playBytes &&
                        (n = pread(fd, buf.get(), kPlayChunk, off_t(g_opt.rawOffset + got))) > 0;)
            got += uint64_t(n);
        if (fd >= 0) ::close(fd);
        clock.into(r);
    }
    r.bytes = got;
    if (got < g_opt.playBytes) fail(r, "playback read %llu of %llu bytes", static_cast<unsigned long long>(got),
                                    static_cast<unsigned long long>(g_opt.playBytes));
}

// ---- listing and open by name ------------------------------------------------------------

// A channel's recordings that overlap [from, to], through the public calls
// a listing tool has: the blocks in use, the channel of each (its first
// directory segment), then the files of the channel's blocks.
int list_channel(uint32_t chn, int64_t from, int64_t to, std::vector<std::string>* names) {
    const char* dev = g_opt.qvfsDev.c_str();
    const int blocks = qvfs_GetUsedBlockNum(dev);
    if (blocks <= 0) return -1;
    std::vector<TQvDiskBlkInfo> info(static_cast<size_t>(blocks));
    const int k = qvfs_GetBlockInfo(dev, info.data(), blocks);
    constexpr uint32_t kSeg = 0x10000;
    static std::vector<uint8_t> seg(kSeg);
    static std::vector<TQvFileStat> stats(kSeg / 512);
    int found = 0;
    for (int i = 0; i < k; ++i) {
        const TQvDiskBlkInfo& b = info[size_t(i)];
        if (b.cnt == 0 || (b.endTime != 0 && int64_t(b.endTime) < from) || int64_t(b.startTime) > to) continue;
        int seen = 0;
        for (int32_t s = 0; s < int32_t(0x1000000 / kSeg) && seen < int(b.cnt); ++s) {
            TQvBlkSegQuery q{};
            q.diskId = 0;
            q.blkId = b.blkId;
            q.total = int32_t(b.cnt);
            q.found = seen;
            q.segIndex = s;
            q.max = int32_t(stats.size());
            q.segSize = kSeg;
            q.segBuf = seg.data();
            q.out = stats.data();
            if (qvfs_BlockStatSeg(&q) != 0) return -1;
            const int n = std::min<int>(q.segFound, int(stats.size()));
            if (n > 0 && stats[0].chn != chn && seen == 0) break;  // another channel's block
            for (int j = 0; j < n; ++j) {
                const TQvFileStat& st = stats[size_t(j)];
                const int64_t start = int64_t(st.startTime), end = std::max<int64_t>(start, st.st.st_mtime);
                if (st.chn == chn && end >= from && start <= to) {
                    ++found;
                    if (names != nullptr) names->push_back(st.name);
                }
            }
            seen += n;
        }
    }
    return found;
}

double median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Blocks [first, last) of channels first.. get files: three per channel
// among the first ten (ten minutes apart), one on each later channel.
void list_fill(int first, int last, Result& r) {
    if (!QvfsSink::start(r)) return;
    QvfsSink q;
    auto buf = chunk_buffer(64 * kKiB);
    for (int c = first; c < last; ++c) {
        for (int k = 0; k < (c < 10 ? 3 : 1); ++k) {
            const int h = q.create(uint32_t(c), kListT0 + k * 600);
            if (h < 0 || qvfs_Write(h, buf.get(), 64 * kKiB) != int(64 * kKiB)) {
                fail(r, "listing set-up: channel %d: %s", c, qvfs_ErrorString(errno));
                return;
            }
            qvfs_Close(h);
        }
    }
}

// Warm listing (median of 20) and open + close by name (qvfs and ext4).
void list_measure(bool warm, Result& r) {
    if (!QvfsSink::start(r)) return;
    std::vector<std::string> names;
    std::vector<double> ms;
    for (int i = 0; i < (warm ? 21 : 1); ++i) {
        names.clear();
        const double a = mono();
        const int n = list_channel(3, kListT0 + 300, kListT0 + 900, &names);
        ms.push_back((mono() - a) * 1e3);
        r.extra[1] = n;
    }
    if (warm) ms.erase(ms.begin());  // the first one warms the caches
    r.extra[0] = median(ms);
    if (!warm) return;
    for (int c = 0; c < 10; ++c) list_channel(uint32_t(c), 0, INT64_MAX, &names);
    if (names.empty()) {
        fail(r, "the listing found no recordings");
        return;
    }
    constexpr int kOpens = 2000;
    double a = mono();
    for (int i = 0; i < kOpens; ++i) {
        const int h = qvfs_Open(nullptr, names[size_t(i) % names.size()].data(), 0);
        if (h < 0) {
            fail(r, "open by name of %s failed: %s", names[size_t(i) % names.size()].c_str(), qvfs_ErrorString(errno));
            return;
        }
        qvfs_Close(h);
    }
    r.extra[2] = (mono() - a) * 1e6 / kOpens;
    const std::string dir = g_opt.ext4Dir + "/open";
    ::mkdir(dir.c_str(), 0755);
    std::vector<std::string> files;
    for (size_t i = 0; i < names.size(); ++i) {
        files.push_back(dir + "/" + names[i]);
        const int fd = ::open(files.back().c_str(), O_WRONLY | O_CREAT, 0644);
        if (fd >= 0) ::close(fd);
    }
    a = mono();
    for (int i = 0; i < kOpens; ++i) {
        const int fd = ::open(files[size_t(i) % files.size()].c_str(), O_RDONLY);
        if (fd >= 0) ::close(fd);
    }
    r.extra[3] = (mono() - a) * 1e6 / kOpens;
}

// ---- report -----------------------------------------------------------------------------

struct Cell {
    std::vector<Result> runs;
    Result med() const {  // medians field by field over the good runs
        Result m;
        std::vector<const Result*> ok;
        for (const Result& r : runs)
            if (r.ok) ok.push_back(&r);
        if (ok.empty()) return runs.empty() ? m : runs.front();
        m = *ok.front();
        auto f = [&](auto get) {
            std::vector<double> v;
            for (const Result* r : ok) v.push_back(double(get(*r)));
            return median(v);
        };
        m.seconds = f([](const Result& r) { return r.seconds; });
        m.bytes = uint64_t(f([](const Result& r) { return double(r.bytes) / r.seconds; }) * m.seconds);
        m.cpu = f([](const Result& r) { return r.cpu / (double(r.bytes) / kGiB); }) * (double(m.bytes) / kGiB);
        m.machine = f([](const Result& r) { return r.machine / (double(r.bytes) / kGiB); }) * (double(m.bytes) / kGiB);
        m.p50 = f([](const Result& r) { return r.p50; });
        m.p99 = f([](const Result& r) { return r.p99; });
        m.max = f([](const Result& r) { return r.max; });
        m.late = uint64_t(f([](const Result& r) { return double(r.late); }));
        m.lateMax = f([](const Result& r) { return r.lateMax; });
        m.syncMax = f([](const Result& r) { return r.syncMax; });
        return m;
    }
};

double mbps(const Result& r) { return r.seconds > 0 ? double(r.bytes) / r.seconds / 1e6 : 0; }
double cpu_per_gib(const Result& r) { return r.bytes ? r.cpu / (double(r.bytes) / kGiB) : 0; }
double sys_per_gib(const Result& r) { return r.bytes ? r.machine / (double(r.bytes) / kGiB) : 0; }
double ratio(double a, double b) { return b > 0 ? a / b : 0; }

std::string chunk_label(uint32_t chunk) { return std::to_string(chunk / kKiB) + " KiB"; }

struct Bar {
    std::string label;
    double value;
    bool good;
};

std::string xml(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == '<') out += "&lt;";
        else if (c == '>') out += "&gt;";
        else if (c == '&') out += "&amp;";
        else out += c;
    }
    return out;
}

// A small bar chart of the qvfs/ext4 ratios, one group per kind of figure.
void write_svg(const std::string& path, const std::vector<std::pair<std::string, std::vector<Bar>>>& groups,
               const std::string& caption) {
    FILE* f = std::fopen(path.c_str(), "w");
    if (f == nullptr) return;
    // Each group is as wide as its bars or its title, whichever is wider.
    const double bw = 34, gap = 30, left = 50, plotH = 300, base = 370, charW = 6.5;
    double top = 2.0, width = left + 30;
    std::vector<double> groupW;
    for (const auto& g : groups) {
        groupW.push_back(std::max(double(g.second.size()) * bw, double(g.first.size()) * charW));
        width += groupW.back() + gap;
        for (const Bar& b : g.second) top = std::max(top, std::ceil(b.value * 2) / 2);
    }
    width = std::max(width, left + double(caption.size()) * charW);
    auto y = [&](double v) { return base - v / top * plotH; };
    std::fprintf(f, "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"460\" font-family=\"sans-serif\" "
                    "font-size=\"11\">\n<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n", width);
    std::fprintf(f, "<text x=\"%.0f\" y=\"18\" font-size=\"13\">%s</text>\n", left, xml(caption).c_str());
    for (double v = 0; v <= top + 1e-9; v += 0.5) {
        std::fprintf(f, "<line x1=\"%.0f\" x2=\"%.0f\" y1=\"%.1f\" y2=\"%.1f\" stroke=\"%s\"%s/>\n", left, width - 10,
                     y(v), y(v), v == 1.0 ? "black" : "#ddd", v == 1.0 ? " stroke-dasharray=\"4 3\"" : "");
        std::fprintf(f, "<text x=\"%.0f\" y=\"%.1f\" text-anchor=\"end\">%.1f</text>\n", left - 4, y(v) + 4, v);
    }
    double x = left + 10;
    for (size_t gi = 0; gi < groups.size(); ++gi) {
        const auto& [title, list] = groups[gi];
        std::fprintf(f, "<text x=\"%.1f\" y=\"%.0f\" font-weight=\"bold\">%s</text>\n", x, base - plotH - 16,
                     xml(title).c_str());
        double bx = x;
        for (const Bar& b : list) {
            const double v = std::min(b.value, top);
            std::fprintf(f, "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.0f\" height=\"%.1f\" fill=\"%s\"/>\n", bx + 3, y(v),
                         bw - 6, base - y(v), b.good ? "#4a9a5c" : "#e08a2c");
            std::fprintf(f, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"middle\">%.2f</text>\n", bx + bw / 2, y(v) - 3,
                         b.value);
            std::fprintf(f, "<text x=\"%.1f\" y=\"%.1f\" text-anchor=\"end\" transform=\"rotate(-45 %.1f %.1f)\">%s</text>\n",
                         bx + bw / 2, base + 12, bx + bw / 2, base + 12, xml(b.label).c_str());
            bx += bw;
        }
        x += groupW[gi] + gap;
    }
    std::fprintf(f, "</svg>\n");
    std::fclose(f);
}

void usage() {
    std::fprintf(stderr,
                 "usage: record_bench --qvfs-real DEV --ext4-dir DIR --raw DEV --raw-offset BYTES\n"
                 "                    [--qvfs-bytes N] [--rounds N] [--mib N] [--paced-seconds S]\n"
                 "                    [--play-mib N] [--list-blocks N] [--drop-caches] [--quick]\n"
                 "                    [--svg FILE] [--setting TEXT] [--workloads CxBYTES,...]\n"
                 "The disk is reached as %s below QVFS_ROOT.\n",
                 g_opt.qvfsDev.c_str());
}

bool parse(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto val = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
        if (a == "--qvfs-real") g_opt.qvfsReal = val();
        else if (a == "--qvfs-bytes") g_opt.qvfsBytes = std::strtoull(val().c_str(), nullptr, 0);
        else if (a == "--ext4-dir") g_opt.ext4Dir = val();
        else if (a == "--raw") g_opt.raw = val();
        else if (a == "--raw-offset") g_opt.rawOffset = std::strtoull(val().c_str(), nullptr, 0);
        else if (a == "--rounds") g_opt.rounds = std::atoi(val().c_str());
        else if (a == "--mib") g_opt.runBytes = std::strtoull(val().c_str(), nullptr, 0) * kMiB;
        else if (a == "--paced-seconds") g_opt.pacedSeconds = std::atof(val().c_str());
        else if (a == "--play-mib") g_opt.playBytes = std::strtoull(val().c_str(), nullptr, 0) * kMiB;
        else if (a == "--list-blocks") g_opt.listBlocks = std::atoi(val().c_str());
        else if (a == "--drop-caches") g_opt.dropCaches = true;
        else if (a == "--quick") g_opt.quick = true;
        else if (a == "--svg") g_opt.svg = val();
        else if (a == "--setting") g_opt.setting = val();
        else if (a == "--workloads") {
            // CxBYTES[,CxBYTES...]: channels and chunk size of each run
            const std::string list = val();
            for (size_t at = 0; at < list.size();) {
                size_t end = list.find(',', at);
                if (end == std::string::npos) end = list.size();
                int c = 0;
                unsigned long long bytes = 0;
                if (std::sscanf(list.substr(at, end - at).c_str(), "%dx%llu", &c, &bytes) != 2 || c <= 0 ||
                    bytes == 0 || bytes > 16 * kMiB)
                    return false;
                g_opt.workloads.emplace_back(c, uint32_t(bytes));
                at = end + 1;
            }
        } else return false;
    }
    if (g_opt.quick) {
        g_opt.rounds = 1;
        g_opt.runBytes = 16 * kMiB;
        g_opt.pacedSeconds = 1;
        g_opt.pacedChannels = 16;
        g_opt.playBytes = 8 * kMiB;
        g_opt.listBlocks = 20;
        g_opt.workloads = {{16, 64 * 1024}};
    } else if (g_opt.workloads.empty()) {
        g_opt.workloads = {{16, 4096}, {16, 65536}, {16, 262144}, {64, 4096}, {64, 65536}, {64, 262144}};
    }
    return !g_opt.qvfsReal.empty() && !g_opt.ext4Dir.empty() && !g_opt.raw.empty() && g_opt.rounds > 0 &&
           g_opt.listBlocks >= 10;
}

bool report_failure(const char* what, const Result& r) {
    if (r.ok) return false;
    std::printf("FAILED %s: %s\n", what, r.error);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (!parse(argc, argv)) {
        usage();
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const std::string loadStart = load_average();
    std::printf("qvfs recording benchmark: %s\n", g_opt.setting.c_str());
    std::printf("%d round%s, systems interleaved, medians over rounds; load average at start %s\n", g_opt.rounds,
                g_opt.rounds == 1 ? "" : "s", loadStart.c_str());
    std::printf("cpu = user+system time of the measuring process and its threads (getrusage) per GiB;\n"
                "sys = busy time of the whole machine per GiB (kernel writeback and loop workers included,\n"
                "      and whatever else runs on the machine)\n\n");
    int failures = 0;

    // The qvfs disk, formatted once for the recording runs.
    Result fmt = in_child([](Result& r) {
        if (qvfs_Init() != 0 || qvfs_FormatMini(g_opt.qvfsDev.c_str(), g_opt.qvfsBytes) != 0)
            fail(r, "format of %s failed: %s", g_opt.qvfsDev.c_str(), qvfs_ErrorString(errno));
    });
    if (report_failure("format", fmt)) return 1;

    std::map<std::pair<int, uint32_t>, Cell> tput[kSystems];
    Cell pacedCell[kSystems], playCell[kSystems];
    const double rate = 1e6;  // paced: bytes per second per channel
    const uint32_t pacedChunk = 64 * 1024;
    for (int round = 0; round < g_opt.rounds; ++round) {
        // The order of the systems alternates from round to round.
        const System order[2][kSystems] = {{kQvfs, kExt4, kRaw}, {kExt4, kQvfs, kRaw}};
        const System* ord = order[round % 2];
        for (const auto& w : g_opt.workloads) {
            for (int k = 0; k < kSystems; ++k) {
                const System s = ord[k];
                Result r = in_child([&](Result& x) { throughput(s, w.first, w.second, x); });
                char what[64];
                std::snprintf(what, sizeof what, "%s %d x %s", kSystemNames[s], w.first, chunk_label(w.second).c_str());
                failures += report_failure(what, r);
                std::printf("  round %d  %-18s %8.1f MB/s  cpu %6.3f s/GiB  p99 %7.3f ms\n", round + 1, what, mbps(r),
                            cpu_per_gib(r), r.p99 * 1e3);
                tput[s][w].runs.push_back(r);
            }
        }
        for (int k = 0; k < 2; ++k) {
            const System s = ord[k];
            Result r = in_child([&](Result& x) {
                paced(s, g_opt.pacedChannels, pacedChunk, rate, g_opt.pacedSeconds, x);
            });
            failures += report_failure(kSystemNames[s], r);
            std::printf("  round %d  paced %-12s late %llu  p99 %7.3f ms  max %7.3f ms\n", round + 1, kSystemNames[s],
                        static_cast<unsigned long long>(r.late), r.p99 * 1e3, r.max * 1e3);
            pacedCell[s].runs.push_back(r);
        }
        for (int k = 0; k < kSystems; ++k) {
            const System s = ord[k];
            Result w = in_child([&](Result& x) { play_write(s, x); });
            if (report_failure("playback recording", w)) {
                ++failures;
                continue;
            }
            std::vector<std::string> paths = {g_opt.qvfsReal, g_opt.raw};
            for (const std::string& f : ext4_files(g_opt.ext4Dir + "/play/ch0")) paths.push_back(f);
            drop_caches(paths);
            Result r = in_child([&](Result& x) { play_read(s, w.name, x); });
            failures += report_failure("playback", r);
            std::printf("  round %d  playback %-9s %8.1f MB/s\n", round + 1, kSystemNames[s], mbps(r));
            playCell[s].runs.push_back(r);
        }
    }

    // Listing and open by name on a freshly formatted disk: ten blocks in
    // use, then listBlocks.
    double listWarm[2] = {}, listCold[2] = {}, openUs[2] = {}, ext4OpenUs = 0;
    int listFound[2] = {};
    bool listed = true;
    for (int phase = 0; phase < 2 && listed; ++phase) {
        Result fill = in_child([&](Result& r) {
            if (phase == 0 && (qvfs_Init() != 0 || qvfs_FormatMini(g_opt.qvfsDev.c_str(), g_opt.qvfsBytes) != 0)) {
                fail(r, "format failed: %s", qvfs_ErrorString(errno));
                return;
            }
            list_fill(phase == 0 ? 0 : 10, phase == 0 ? 10 : g_opt.listBlocks, r);
        });
        if (report_failure("listing set-up", fill)) {
            ++failures;
            listed = false;
            break;
        }
        Result warm = in_child([](Result& r) { list_measure(true, r); });
        std::vector<double> cold;
        for (int i = 0; i < 3; ++i) {
            drop_caches({g_opt.qvfsReal});
            Result c = in_child([](Result& r) { list_measure(false, r); });
            if (c.ok) cold.push_back(c.extra[0]);
        }
        if (report_failure("listing", warm)) {
            ++failures;
            listed = false;
            break;
        }
        listWarm[phase] = warm.extra[0];
        listFound[phase] = int(warm.extra[1]);
        openUs[phase] = warm.extra[2];
        ext4OpenUs = warm.extra[3];
        listCold[phase] = median(cold);
    }

    // ---- the report ----
    std::printf("\nthroughput (one process, C channels round robin, fixed chunks, %llu MiB per run)\n",
                static_cast<unsigned long long>(g_opt.runBytes / kMiB));
    std::printf("%-14s %9s %9s %9s %6s | %-22s %6s | %-13s %6s | %-17s %-17s\n", "workload", "qvfs MB/s", "ext4",
                "raw", "q/e", "cpu s/GiB qvfs ext4 raw", "q/e", "sys qvfs ext4", "q/e", "qvfs p50/p99/max", "ext4 ms");
    std::vector<Bar> tbars, cbars;
    for (const auto& w : g_opt.workloads) {
        const Result q = tput[kQvfs][w].med(), e = tput[kExt4][w].med(), raw = tput[kRaw][w].med();
        const double tr = ratio(mbps(q), mbps(e)), cr = ratio(cpu_per_gib(q), cpu_per_gib(e));
        const std::string label = std::to_string(w.first) + " x " + chunk_label(w.second);
        std::printf("%-14s %9.1f %9.1f %9.1f %6.2f | %6.3f %6.3f %6.3f    %6.2f | %6.2f %6.2f %6.2f | %5.2f/%5.2f/%6.1f %5.2f/%5.2f/%6.1f\n",
                    label.c_str(), mbps(q), mbps(e), mbps(raw), tr, cpu_per_gib(q), cpu_per_gib(e), cpu_per_gib(raw),
                    cr, sys_per_gib(q), sys_per_gib(e), ratio(sys_per_gib(q), sys_per_gib(e)), q.p50 * 1e3,
                    q.p99 * 1e3, q.max * 1e3, e.p50 * 1e3, e.p99 * 1e3, e.max * 1e3);
        tbars.push_back({label, tr, tr >= 1.0});
        cbars.push_back({label, cr, cr <= 1.0});
    }
    const Result pq = pacedCell[kQvfs].med(), pe = pacedCell[kExt4].med();
    std::printf("\npaced: %d channels x 1 MB/s in 64 KiB writes for %.0f s\n", g_opt.pacedChannels, g_opt.pacedSeconds);
    for (System s : {kQvfs, kExt4}) {
        const Result r = s == kQvfs ? pq : pe;
        std::printf("  %-5s writes %llu, late > 0.1 s: %llu (latest %.3f s), latency p50 %.3f p99 %.3f max %.1f ms, "
                    "cpu %.1f %% of a core, longest inline fdatasync %.1f ms\n",
                    kSystemNames[s], static_cast<unsigned long long>(r.writes), static_cast<unsigned long long>(r.late),
                    r.lateMax, r.p50 * 1e3, r.p99 * 1e3, r.max * 1e3, r.seconds > 0 ? 100 * r.cpu / r.seconds : 0,
                    r.syncMax * 1e3);
    }
    const double p99r = ratio(pq.p99, pe.p99), pcpu = ratio(pq.cpu, pe.cpu);
    std::printf("  qvfs/ext4: p99 %.2f, cpu %.2f\n", p99r, pcpu);
    const Result lq = playCell[kQvfs].med(), le = playCell[kExt4].med(), lr = playCell[kRaw].med();
    const double playr = ratio(mbps(lq), mbps(le));
    std::printf("\ncold playback of one %llu MiB recording (256 KiB reads): qvfs %.1f MB/s, ext4 %.1f, raw %.1f; "
                "qvfs/ext4 %.2f\n",
                static_cast<unsigned long long>(g_opt.playBytes / kMiB), mbps(lq), mbps(le), mbps(lr), playr);
    if (listed) {
        std::printf("\nlisting channel 3's recordings in a time range (public calls, as a listing tool makes them):\n"
                    "  %4d blocks in use: warm %.3f ms, cold %.1f ms (%d found)\n"
                    "  %4d blocks in use: warm %.3f ms, cold %.1f ms (%d found); growth warm %.2fx, cold %.2fx\n",
                    10, listWarm[0], listCold[0], listFound[0], g_opt.listBlocks, listWarm[1], listCold[1],
                    listFound[1], ratio(listWarm[1], listWarm[0]), ratio(listCold[1], listCold[0]));
        std::printf("open + close by name, warm: qvfs %.1f us (10 blocks), %.1f us (%d blocks); ext4 %.1f us\n",
                    openUs[0], openUs[1], g_opt.listBlocks, ext4OpenUs);
    }
    std::printf("\nratios qvfs/ext4:");
    for (size_t i = 0; i < tbars.size(); ++i)
        std::printf(" %s: throughput %.2f cpu %.2f;", tbars[i].label.c_str(), tbars[i].value, cbars[i].value);
    std::printf(" paced p99 %.2f; playback %.2f\n", p99r, playr);
    std::printf("load average at end %s\n", load_average().c_str());
    if (!g_opt.svg.empty()) {
        write_svg(g_opt.svg,
                  {{"throughput (>= 1 is better)", tbars},
                   {"cpu per GiB (<= 1 is better)", cbars},
                   {"paced / playback", {{"paced p99 (<= 2)", p99r, p99r <= 2.0}, {"playback", playr, playr >= 1.0}}}},
                  "qvfs / ext4, " + g_opt.setting);
        std::printf("chart: %s\n", g_opt.svg.c_str());
    }
    // The System V objects the runs left under the sandbox root.
    if (const char* root = std::getenv("QVFS_ROOT"))
        qvfs::tools::remove_ipc_objects(qvfs::tools::root_ipc_objects(root));
    std::printf("%s\n", failures == 0 ? "RESULT: ran" : "RESULT: failures above");
    return failures == 0 ? 0 : 1;
}
