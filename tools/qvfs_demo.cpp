// qvfs-demo: a recorder in miniature, run in a sandbox directory.
//
// With QVFS_ROOT naming a directory (created when missing) it makes a sparse
// 16 GiB disk image there, formats and mounts it, records several channels at
// once from several threads in two processes (one channel with a pre-record
// ring, one channel played back live by the second process while the first
// records it), then a third process reads every recording back and compares
// it byte for byte, lists the blocks and files, and deletes the recordings.
// It prints a short summary and exits 0 when every byte came back as written.
//
//   qvfs-demo [--seconds N] [--mib N] [--keep] [--keep-ipc]
//   qvfs-demo --bench [--mib N]     one process, 16 channels, 256 KiB writes,
//                                   next to dd writing as many bytes
//   qvfs-demo --remove-ipc          only remove the sandbox's System V objects
//
// At the end the image is removed (--keep keeps it and the recordings) and so
// are the semaphores and shared segments whose keys come from the sandbox's
// key files (--keep-ipc keeps them), but only when no process is attached to
// any of them: the demo refuses to start in a sandbox that another process
// is using, and never removes what a running recorder needs.
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "api/qvfs.h"
#include "tools/root_ipc.h"

extern char** environ;

namespace fs = std::filesystem;

namespace {

// ---- settings -------------------------------------------------------------------

constexpr uint32_t kChunk = 256 * 1024;        // one encoder write
constexpr uint64_t kFileBytes = 4u << 20;      // a channel starts a new file every 4 MiB
constexpr int32_t kRingBytes = 2 << 20;        // pre-record ring of the ring channel
constexpr uint64_t kRingStream = 3u << 20;     // stream written round the ring before the trigger
constexpr uint64_t kRingKept = kRingBytes - kChunk;  // what the ring holds at the trigger
constexpr uint64_t kGiB = 1ull << 30;
constexpr uint64_t kDemoImage = 16 * kGiB;
constexpr uint64_t kBenchImage = 24 * kGiB;    // 16 channels need 16 blocks
constexpr int kMaxFiles = 1024;

struct Options {
    double seconds = 3.0;
    uint64_t mib = 192;
    bool keep = false;
    bool keepIpc = false;
    bool bench = false;
    bool removeIpcOnly = false;
};

// ---- what the processes tell each other (shared memory made before fork) ------

struct FileSlot {
    std::atomic<int> ready{0};   // name and fields below are set
    char name[64] = {};
    int chn = 0;
    uint64_t start = 0;          // stream offset of the file's first byte
    std::atomic<uint64_t> length{0};  // bytes written so far (readable)
    std::atomic<int> closed{0};
};

struct ProcStats {
    std::atomic<int> pid{0};
    std::atomic<int> failed{0};
    char why[160] = {};
    std::atomic<uint64_t> bytes{0};
    std::atomic<int64_t> startNs{0};
    std::atomic<int64_t> endNs{0};
    std::atomic<int64_t> writeNs{0};   // time spent inside qvfs_Write, all threads
};

struct Board {
    std::atomic<int> formatted{0};   // the first recorder has formatted and mounted
    std::atomic<int> go{0};          // both recorders are mounted: start
    std::atomic<int> mounted{0};
    std::atomic<int> nfiles{0};
    FileSlot files[kMaxFiles];
    ProcStats rec[2];
    ProcStats player;
    std::atomic<uint64_t> livePlayed{0};
    std::atomic<uint64_t> liveWaits{0};
    ProcStats verifier;
    std::atomic<int> verifiedFiles{0};
    std::atomic<uint64_t> verifiedBytes{0};
    std::atomic<int> badFiles{0};
    char firstBad[160] = {};
    std::atomic<int> blocksInUse{0};
    std::atomic<int> listedFiles{0};
    char listing[4096] = {};
    std::atomic<int> deleted{0};
    uint32_t tolblk = 0;
};

Board* g_board = nullptr;
Options g_opt;
std::string g_disk;  // device path of the demo's disk

int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void fail_in(ProcStats& p, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void fail_in(ProcStats& p, const char* fmt, ...) {
    if (p.failed.exchange(1) != 0) return;
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(p.why, sizeof p.why, fmt, ap);
    va_end(ap);
}

// ---- test data: each channel's stream is its own pseudo-random sequence -------
//
// Byte s of channel c's stream is pattern[c][s mod period(c)]. The periods are
// not multiples of a write, so no two writes of a channel carry the same
// bytes; the buffer holds two periods so that any write is one slice of it.

std::vector<std::vector<uint8_t>> g_pattern;

uint64_t period(int chn) { return (1u << 20) + 4096u * uint64_t(chn + 1) + 8; }

void make_patterns(int channels) {
    g_pattern.resize(size_t(channels));
    for (int c = 0; c < channels; ++c) {
        const uint64_t p = period(c);
        std::vector<uint8_t>& v = g_pattern[size_t(c)];
        v.resize(size_t(2 * p));
        std::mt19937_64 rng(0x5156465300000000ull + uint64_t(c));
        for (uint64_t i = 0; i < p; i += 8) {
            const uint64_t w = rng();
            std::memcpy(v.data() + i, &w, std::min<uint64_t>(8, p - i));
        }
        std::memcpy(v.data() + p, v.data(), size_t(p));
    }
}

const uint8_t* stream_at(int chn, uint64_t s) { return g_pattern[size_t(chn)].data() + s % period(chn); }

// ---- System V objects of the sandbox -----------------------------------------------

// The sandbox's objects and the pid of a process attached to one of them
// (0 when none).
std::vector<qvfs::tools::RootIpcObject> sandbox_ipc(const std::string& root, pid_t* attachedPid) {
    auto objs = qvfs::tools::root_ipc_objects(root);
    if (attachedPid != nullptr) *attachedPid = 0;
    for (const auto& o : objs)
        if (!o.users.empty() && attachedPid != nullptr) *attachedPid = o.users.front();
    return objs;
}

// Removes the sandbox's objects when nobody is attached; the number removed,
// or -1 (nothing removed) when a process uses them.
int remove_sandbox_ipc(const std::string& root, pid_t* user) {
    const auto objs = sandbox_ipc(root, user);
    return *user != 0 ? -1 : qvfs::tools::remove_ipc_objects(objs);
}

// ---- recording -------------------------------------------------------------------

struct Channel {
    int chn = 0;
    bool ring = false;     // records with a pre-record ring
    uint64_t budget = 0;   // bytes to record at most
    uint64_t stream = 0;   // stream offset of the next byte
    uint64_t written = 0;  // bytes in files (kept)
    int handle = -1;
    int slot = -1;         // FileSlot of the open file
    uint64_t inFile = 0;
    char prev[64] = {};  // name of the channel's previous file
};

// Opens the channel's next file. For the ring channel the file is filled up to
// the trigger: the stream goes round the ring, then the pointers are set.
bool open_next(Channel& ch, ProcStats& me) {
    TQvfsOpenParam p;
    std::memset(&p, 0, sizeof p);
    p.chn = uint32_t(ch.chn);
    p.startTime = int32_t(time(nullptr));
    p.fileType = ch.ring ? 1 : 0;
    p.resSize = ch.ring ? kRingBytes : 0;
    p.recType = 0;
    std::snprintf(p.path, sizeof p.path, "%s", g_disk.c_str());
    std::snprintf(p.ext, sizeof p.ext, "rvd");
    std::memcpy(p.preName, ch.prev, std::min(std::strlen(ch.prev), sizeof p.preName - 1));
    char name[64] = {};
    ch.handle = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
    if (ch.handle < 0) {
        fail_in(me, "channel %d: no new file (error %d)", ch.chn, errno);
        return false;
    }
    uint64_t start = ch.stream;
    if (ch.ring) {
        for (uint64_t s = 0; s < kRingStream; s += kChunk) {
            qvfs_Seek(ch.handle, int64_t(s % kRingBytes), 0);
            if (qvfs_Write(ch.handle, stream_at(ch.chn, ch.stream + s), kChunk) != int(kChunk)) {
                fail_in(me, "channel %d: ring write failed (error %d)", ch.chn, errno);
                return false;
            }
            me.bytes.fetch_add(kChunk);
        }
        const uint64_t end = kRingStream;
        const uint64_t first = end - kRingKept;
        if (qvfs_UpdataePreRecPtr(ch.handle, int32_t(first % kRingBytes), int32_t(end % kRingBytes)) != 0 ||
            qvfs_Seek(ch.handle, 0, 2) != int64_t(kRingKept)) {
            fail_in(me, "channel %d: pre-record pointers refused (error %d)", ch.chn, errno);
            return false;
        }
        start = ch.stream + first;
        ch.stream += end;
        ch.inFile = kRingKept;
    } else {
        ch.inFile = 0;
    }
    ch.slot = g_board->nfiles.fetch_add(1);
    if (ch.slot >= kMaxFiles) {
        fail_in(me, "too many files");
        return false;
    }
    FileSlot& f = g_board->files[ch.slot];
    std::snprintf(f.name, sizeof f.name, "%s", name);
    f.chn = ch.chn;
    f.start = start;
    f.length.store(ch.inFile);
    f.ready.store(1);
    std::snprintf(ch.prev, sizeof ch.prev, "%s", name);
    ch.written += ch.inFile;
    return true;
}

bool close_current(Channel& ch, ProcStats& me) {
    if (ch.handle < 0) return true;
    const bool ok = qvfs_Close(ch.handle) == 0;
    g_board->files[ch.slot].closed.store(1);
    ch.handle = -1;
    if (!ok) fail_in(me, "channel %d: close failed", ch.chn);
    return ok;
}

// One writer thread: its channels take turns, one 256 KiB write each. Paced
// (rate > 0, the demo) a channel's bytes are due as a camera delivers them,
// byte k at k / rate seconds after the start; unpaced (the benchmark) the
// least written channel goes next. Each channel stops at its budget, all at
// the deadline.
void writer(std::vector<Channel*> chans, ProcStats& me, int64_t start, int64_t deadline, double rate) {
    while (me.failed.load() == 0) {
        Channel* ch = nullptr;
        int64_t due = 0;
        for (Channel* c : chans) {
            if (c->written >= c->budget) continue;
            const int64_t d = rate > 0 ? start + int64_t(double(c->written) / rate * 1e9) : int64_t(c->written);
            if (ch == nullptr || d < due) {
                ch = c;
                due = d;
            }
        }
        const int64_t now = now_ns();
        if (ch == nullptr || now >= deadline) break;
        if (rate > 0 && due > now) {
            usleep(useconds_t((std::min(due, deadline) - now) / 1000 + 1));
            continue;
        }
        if (ch->handle >= 0 && ch->inFile >= kFileBytes && !close_current(*ch, me)) return;
        if (ch->handle < 0 && !open_next(*ch, me)) return;
        const int64_t t0 = now_ns();
        const int n = qvfs_Write(ch->handle, stream_at(ch->chn, ch->stream), kChunk);
        me.writeNs.fetch_add(now_ns() - t0);
        if (n != int(kChunk)) {
            fail_in(me, "channel %d: write failed (error %d, file error %d)", ch->chn, errno,
                    qvfs_error(ch->handle));
            return;
        }
        ch->stream += kChunk;
        ch->inFile += kChunk;
        ch->written += kChunk;
        me.bytes.fetch_add(kChunk);
        g_board->files[ch->slot].length.store(ch->inFile);
    }
    for (Channel* ch : chans) close_current(*ch, me);
}

// Live playback of one channel while it is being recorded: follows the
// channel from file to file and compares every byte.
void player(int chn, ProcStats& me) {
    std::vector<uint8_t> buf(kChunk);
    int next = 0;  // FileSlot index to look at next
    for (;;) {
        // The next file of the channel, or the end of the recording.
        int slot = -1;
        while (slot < 0) {
            // Slots fill in order; one being filled ends the scan for now.
            const int n = std::min(g_board->nfiles.load(), kMaxFiles);
            for (; next < n && g_board->files[next].ready.load(); ++next)
                if (g_board->files[next].chn == chn) {
                    slot = next++;
                    break;
                }
            if (slot >= 0) break;
            if (g_board->rec[0].endNs.load() != 0 || g_board->rec[0].failed.load()) return;
            usleep(2000);
        }
        FileSlot& f = g_board->files[slot];
        const int h = qvfs_Open(nullptr, f.name, QVFS_O_RDONLY);
        if (h < 0) return fail_in(me, "live: cannot open %s (error %d)", f.name, errno);
        uint64_t pos = 0;
        for (;;) {
            const int n = qvfs_Read(h, buf.data(), kChunk);
            if (n > 0) {
                if (std::memcmp(buf.data(), stream_at(chn, f.start + pos), size_t(n)) != 0) {
                    qvfs_Close(h);
                    return fail_in(me, "live: %s differs near byte %" PRIu64, f.name, pos);
                }
                pos += uint64_t(n);
                g_board->livePlayed.fetch_add(uint64_t(n));
                continue;
            }
            // At the end of what has been written so far.
            if (f.closed.load() && pos >= f.length.load()) break;
            g_board->liveWaits.fetch_add(1);
            usleep(1000);
        }
        qvfs_Close(h);
    }
}

// A recorder process: channels [first, first + count) on `threads` threads.
int recorder(int index, int first, int count, int threads, bool formats, bool withPlayer, uint64_t perChannel) {
    ProcStats& me = g_board->rec[index];
    me.pid.store(getpid());
    if (qvfs_Init() != 0) {
        fail_in(me, "qvfs_Init failed (error %d)", errno);
        return 1;
    }
    if (formats) {
        if (qvfs_Format(g_disk.c_str()) != 0) {
            fail_in(me, "format failed (error %d)", errno);
            g_board->formatted.store(-1);
            return 1;
        }
        g_board->formatted.store(1);
    } else {
        while (g_board->formatted.load() == 0) usleep(1000);
        if (g_board->formatted.load() < 0) return 1;
    }
    if (qvfs_Mount(g_disk.c_str()) != 0) {
        fail_in(me, "mount failed (error %d)", errno);
        g_board->go.store(-1);
        return 1;
    }
    if (formats) {
        TQvStatfs st{};
        qvfs_Statfs(g_disk.c_str(), &st);
        g_board->tolblk = uint32_t(st.f_blocks / (kGiB / 512));
    }
    // Both recorders start together once both are mounted.
    const int recorders = g_opt.bench ? 1 : 2;
    if (g_board->mounted.fetch_add(1) + 1 == recorders) g_board->go.store(1);
    while (g_board->go.load() == 0) usleep(500);
    if (g_board->go.load() < 0) return 1;

    std::vector<Channel> chans(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        chans[size_t(i)].chn = first + i;
        chans[size_t(i)].ring = !g_opt.bench && first + i == 0;
        chans[size_t(i)].budget = perChannel;
    }
    // Paced, each channel spreads its budget over the recording time; a
    // machine that cannot keep up gets half as long again, then stops.
    const double rate = g_opt.bench ? 0.0 : double(perChannel) / g_opt.seconds;
    const int64_t start = now_ns();
    const int64_t deadline = start + int64_t(g_opt.seconds * (g_opt.bench ? 100 : 1.5) * 1e9);
    me.startNs.store(start);
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) {
        std::vector<Channel*> mine;
        for (int i = t; i < count; i += threads) mine.push_back(&chans[size_t(i)]);
        pool.emplace_back(writer, mine, std::ref(me), start, deadline, rate);
    }
    std::thread live;
    if (withPlayer) live = std::thread(player, 1, std::ref(g_board->player));
    for (std::thread& t : pool) t.join();
    // The bytes count as recorded once they are on the device.
    const int fd = ::open((std::string(std::getenv("QVFS_ROOT")) + g_disk).c_str(), O_RDONLY);
    if (fd >= 0) {
        fdatasync(fd);
        ::close(fd);
    }
    me.endNs.store(now_ns());
    if (live.joinable()) live.join();
    qvfs_DeInit();
    qvfs_UnMount(g_disk.c_str());
    return me.failed.load() ? 1 : 0;
}

// ---- verification, listing and deletion in a fresh process -------------------------

int verifier() {
    ProcStats& me = g_board->verifier;
    me.pid.store(getpid());
    if (qvfs_Init() != 0 || qvfs_Mount(g_disk.c_str()) != 0) {
        fail_in(me, "start failed (error %d)", errno);
        return 1;
    }
    me.startNs.store(now_ns());
    std::vector<uint8_t> buf(kChunk);
    const int n = g_board->nfiles.load();
    for (int i = 0; i < n; ++i) {
        FileSlot& f = g_board->files[i];
        if (!f.ready.load()) continue;
        TQvFileStat st{};
        const int h = qvfs_Open(nullptr, f.name, QVFS_O_RDONLY);
        bool good = h >= 0 && qvfs_Stat(f.name, &st) == 0 && uint64_t(st.st.st_size) == f.length.load() &&
                    st.chn == uint64_t(f.chn);
        uint64_t pos = 0;
        int r;
        while (good && (r = qvfs_Read(h, buf.data(), kChunk)) > 0) {
            good = std::memcmp(buf.data(), stream_at(f.chn, f.start + pos), size_t(r)) == 0;
            pos += uint64_t(r);
        }
        good = good && pos == f.length.load();
        if (h >= 0) qvfs_Close(h);
        if (good) {
            g_board->verifiedFiles.fetch_add(1);
            g_board->verifiedBytes.fetch_add(pos);
        } else if (g_board->badFiles.fetch_add(1) == 0) {
            std::snprintf(g_board->firstBad, sizeof g_board->firstBad, "%s (channel %d): %" PRIu64 " of %" PRIu64
                          " bytes matched", f.name, f.chn, pos, f.length.load());
        }
    }
    me.endNs.store(now_ns());

    // Blocks in use and the files each one holds, as the disk lists them.
    std::vector<TQvDiskBlkInfo> blocks(g_board->tolblk + 1);
    const int used = qvfs_GetBlockInfo(g_disk.c_str(), blocks.data(), int(blocks.size()));
    g_board->blocksInUse.store(std::max(used, 0));
    std::vector<TQvFileStat> list(256);
    std::string text;
    for (int b = 0; b < used; ++b) {
        const int k = qvfs_BlockStat(g_disk.c_str(), blocks[size_t(b)].blkId, list.data(), int(list.size()));
        if (k < 0) continue;
        g_board->listedFiles.fetch_add(k);
        uint64_t bytes = 0;
        for (int j = 0; j < k; ++j) bytes += uint64_t(list[size_t(j)].st.st_size);
        char line[256];
        std::snprintf(line, sizeof line, "    block %2u  channel %2" PRIu64 "  %2d files  %6.1f MiB  %s .. %s\n",
                      blocks[size_t(b)].blkId, k > 0 ? list[0].chn : 0, k, double(bytes) / (1 << 20),
                      k > 0 ? list[0].name : "-", k > 0 ? list[size_t(k - 1)].name : "-");
        text += line;
    }
    std::snprintf(g_board->listing, sizeof g_board->listing, "%s", text.c_str());

    if (!g_opt.keep)
        for (int i = 0; i < n; ++i)
            if (g_board->files[i].ready.load() && qvfs_Unlink(g_board->files[i].name) == 0)
                g_board->deleted.fetch_add(1);
    qvfs_DeInit();
    qvfs_UnMount(g_disk.c_str());
    return g_board->badFiles.load() == 0 ? 0 : 1;
}

// ---- the supervisor ----------------------------------------------------------------

pid_t spawn(const std::function<int()>& body) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

int wait_child(pid_t pid) {
    int st = 0;
    if (pid < 0 || waitpid(pid, &st, 0) != pid) return -1;
    return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
}

bool make_image(const fs::path& image, uint64_t bytes) {
    std::error_code ec;
    fs::create_directories(image.parent_path(), ec);
    if (!fs::exists(image)) {
        const int fd = ::open(image.c_str(), O_WRONLY | O_CREAT, 0644);
        if (fd < 0) return false;
        ::close(fd);
    }
    if (fs::file_size(image, ec) < bytes) fs::resize_file(image, bytes, ec);  // sparse: no space used
    return !ec;
}

double secs(int64_t ns) { return double(ns) / 1e9; }
double mib(uint64_t b) { return double(b) / (1 << 20); }

// dd writing `bytes` in 256 KiB blocks to a file next to the image, synced at
// the end. Its wall time in seconds, or -1.
double time_dd(const std::string& file, uint64_t bytes) {
    const std::string of = "of=" + file;
    const std::string count = "count=" + std::to_string(bytes / kChunk);
    const char* argv[] = {"dd", "if=/dev/zero", of.c_str(), "bs=256K", count.c_str(), "conv=fdatasync",
                          "status=none", nullptr};
    pid_t pid;
    const int64_t t0 = now_ns();
    if (posix_spawnp(&pid, "dd", nullptr, nullptr, const_cast<char* const*>(argv), environ) != 0) return -1;
    const int rc = wait_child(pid);
    const int64_t t1 = now_ns();
    std::error_code ec;
    fs::remove(file, ec);
    return rc == 0 ? secs(t1 - t0) : -1;
}

int usage() {
    std::fprintf(stderr,
                 "usage: qvfs-demo [--seconds N] [--mib N] [--keep] [--keep-ipc]\n"
                 "       qvfs-demo --bench [--mib N]\n"
                 "       qvfs-demo --remove-ipc\n"
                 "QVFS_ROOT names the sandbox directory.\n");
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--seconds" && i + 1 < argc) g_opt.seconds = std::atof(argv[++i]);
        else if (a == "--mib" && i + 1 < argc) g_opt.mib = std::strtoull(argv[++i], nullptr, 10);
        else if (a == "--keep") g_opt.keep = true;
        else if (a == "--keep-ipc") g_opt.keepIpc = true;
        else if (a == "--bench") g_opt.bench = true;
        else if (a == "--remove-ipc") g_opt.removeIpcOnly = true;
        else return usage();
    }
    if (g_opt.seconds <= 0 || g_opt.mib < 4) return usage();
    const char* rootEnv = std::getenv("QVFS_ROOT");
    if (rootEnv == nullptr || *rootEnv == '\0') {
        std::fprintf(stderr, "qvfs-demo: set QVFS_ROOT to a sandbox directory\n");
        return 2;
    }
    std::error_code ec;
    fs::create_directories(rootEnv, ec);
    const std::string root = fs::canonical(rootEnv, ec).string();
    if (ec) {
        std::fprintf(stderr, "qvfs-demo: cannot use %s: %s\n", rootEnv, ec.message().c_str());
        return 2;
    }
    setenv("QVFS_ROOT", root.c_str(), 1);

    pid_t user = 0;
    if (g_opt.removeIpcOnly) {
        const int n = remove_sandbox_ipc(root, &user);
        if (n < 0) {
            std::fprintf(stderr, "qvfs-demo: process %d uses the sandbox; nothing removed\n", int(user));
            return 1;
        }
        std::printf("removed %d System V objects of %s\n", n, root.c_str());
        return 0;
    }
    sandbox_ipc(root, &user);
    if (user != 0) {
        std::fprintf(stderr, "qvfs-demo: process %d is using the sandbox %s; nothing done\n", int(user), root.c_str());
        return 1;
    }

    // The disk: a sparse image where the library looks for the device.
    const int diskNo = g_opt.bench ? 1 : 0;
    char dev[32];
    std::snprintf(dev, sizeof dev, "%s%02d/part1", QVFS_DEV_PREFIX, diskNo);
    g_disk = dev;
    const fs::path image = root + g_disk;
    const uint64_t imageBytes = g_opt.bench ? kBenchImage : kDemoImage;
    if (!make_image(image, imageBytes)) {
        std::fprintf(stderr, "qvfs-demo: cannot make the image %s\n", image.c_str());
        return 1;
    }

    // Who records what.
    const int channels = g_opt.bench ? 16 : 12;
    const uint64_t perChannel = std::max<uint64_t>((g_opt.mib << 20) / uint64_t(channels) / kChunk, 1) * kChunk;
    make_patterns(channels);
    void* mem = mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mem == MAP_FAILED) return 1;
    g_board = new (mem) Board();

    std::printf("qvfs demo in %s\n", root.c_str());
    std::printf("  disk       %s: %" PRIu64 " GiB sparse image %s\n", g_disk.c_str(), imageBytes / kGiB,
                image.c_str());
    if (g_opt.bench) {
        std::printf("  recording  16 channels in one process, one thread each, %u KiB writes, %" PRIu64
                    " MiB in all\n",
                    kChunk / 1024, (perChannel * 16) >> 20);
        g_opt.seconds = 6;  // a time limit only: the benchmark writes flat out
    } else {
        std::printf("  recording  12 channels for up to %.1f s or %" PRIu64 " MiB, %u KiB writes, a file per %" PRIu64
                    " MiB:\n"
                    "             process A: channels 0-7 on 4 threads (channel 0 with a %d MiB pre-record ring)\n"
                    "             process B: channels 8-11 on 2 threads, and plays channel 1 live\n",
                    g_opt.seconds, g_opt.mib, kChunk / 1024, kFileBytes >> 20, kRingBytes >> 20);
    }
    std::fflush(stdout);

    // The benchmark's yardstick: dd writing as many bytes with a final
    // fdatasync, once before and once after the recording, so that neither
    // side alone meets a device still busy with the other's writes.
    const uint64_t benchBytes = perChannel * uint64_t(channels);
    const std::string ddFile = root + "/dd-compare.bin";
    const double ddBefore = g_opt.bench ? time_dd(ddFile, benchBytes) : -1;

    // Recording.
    pid_t a, b = -1;
    if (g_opt.bench) {
        a = spawn([&] { return recorder(0, 0, 16, 16, true, false, perChannel); });
    } else {
        a = spawn([&] { return recorder(0, 0, 8, 4, true, false, perChannel); });
        b = spawn([&] { return recorder(1, 8, 4, 2, false, true, perChannel); });
    }
    int rcA = wait_child(a);
    int rcB = g_opt.bench ? 0 : wait_child(b);
    if (rcB != 0 && g_board->formatted.load() == 0) g_board->formatted.store(-1);

    bool ok = rcA == 0 && rcB == 0;
    const int nrec = g_opt.bench ? 1 : 2;
    int64_t t0 = INT64_MAX, t1 = 0, inWrites = 0;
    uint64_t bytes = 0;
    for (int i = 0; i < nrec; ++i) {
        ProcStats& p = g_board->rec[i];
        if (p.failed.load()) std::printf("  FAILED     process %c: %s\n", 'A' + i, p.why);
        if (p.startNs.load() != 0) t0 = std::min<int64_t>(t0, p.startNs.load());
        t1 = std::max<int64_t>(t1, p.endNs.load());
        bytes += p.bytes.load();
        inWrites += p.writeNs.load();
    }
    const double recSecs = t1 > t0 ? secs(t1 - t0) : 0;
    const int files = std::min(g_board->nfiles.load(), kMaxFiles);
    uint64_t kept = 0;
    for (int i = 0; i < files; ++i) kept += g_board->files[i].length.load();
    std::printf("  recorded   %d files holding %.1f MiB (%.1f MiB written) in %.2f s, synced to the device: "
                "%.1f MiB/s\n",
                files, mib(kept), mib(bytes), recSecs, recSecs > 0 ? mib(bytes) / recSecs : 0.0);
    std::printf("             time inside qvfs_Write: %.2f s summed over all writer threads\n", secs(inWrites));
    if (!g_opt.bench) {
        if (g_board->player.failed.load()) {
            std::printf("  FAILED     live playback: %s\n", g_board->player.why);
            ok = false;
        } else {
            std::printf("  live       process B played channel 1 while A recorded it: %.1f MiB, all as recorded "
                        "(%" PRIu64 " times at the growing end)\n",
                        mib(g_board->livePlayed.load()), g_board->liveWaits.load());
        }
    }

    // Read back, list, delete.
    int rcC = -1;
    if (files > 0 && g_board->formatted.load() == 1) rcC = wait_child(spawn([] { return verifier(); }));
    const int vf = g_board->verifiedFiles.load();
    std::printf("  blocks     %d in use of %u, listing %d files:\n%s", g_board->blocksInUse.load(), g_board->tolblk,
                g_board->listedFiles.load(), g_board->listing);
    const ProcStats& v = g_board->verifier;
    const double vSecs = secs(v.endNs.load() - v.startNs.load());
    std::printf("  verified   %d of %d files, %.1f MiB read back by another process in %.2f s (%.1f MiB/s): %s\n", vf,
                files, mib(g_board->verifiedBytes.load()), vSecs, vSecs > 0 ? mib(g_board->verifiedBytes.load()) / vSecs : 0.0,
                rcC == 0 && vf == files ? "every byte as recorded" : "MISMATCH");
    if (g_board->badFiles.load() > 0) std::printf("  FAILED     %s\n", g_board->firstBad);
    if (v.failed.load()) std::printf("  FAILED     verifier: %s\n", v.why);
    ok = ok && rcC == 0 && vf == files && files > 0;

    // Leave the sandbox as tidy as asked.
    std::string tidy;
    if (!g_opt.keep) {
        tidy += std::to_string(g_board->deleted.load()) + " recordings deleted";
        sandbox_ipc(root, &user);
        if (user == 0) {
            fs::remove(image, ec);
            tidy += ", image removed";
        }
    } else {
        tidy += "recordings and image kept";
    }
    if (!g_opt.keepIpc) {
        const int n = remove_sandbox_ipc(root, &user);
        tidy += n >= 0 ? ", " + std::to_string(n) + " System V objects removed"
                       : ", System V objects kept (process " + std::to_string(user) + " uses them)";
    } else {
        tidy += ", System V objects kept";
    }
    std::printf("  sandbox    %s\n", tidy.c_str());

    // The yardstick once more, now that the image is gone again: both dd runs
    // and the recording then write into the same free space (a file system
    // that still holds the recording writes the next GiB noticeably slower).
    if (g_opt.bench) {
        const double ddAfter = fs::exists(image) ? -1 : time_dd(ddFile, benchBytes);
        const int runs = (ddBefore > 0 ? 1 : 0) + (ddAfter > 0 ? 1 : 0);
        if (runs > 0 && recSecs > 0) {
            const double dd = (std::max(ddBefore, 0.0) + std::max(ddAfter, 0.0)) / runs;
            std::printf("  dd         the same %.1f MiB, bs=256K conv=fdatasync, on the same file system: %.2f s "
                        "before the recording, %.2f s after it: %.1f MiB/s\n"
                        "  ratio      qvfs wrote at %.2f times dd's rate\n",
                        mib(benchBytes), ddBefore, ddAfter, mib(benchBytes) / dd, dd / recSecs);
        } else {
            std::printf("  dd         could not be timed (is dd installed?)\n");
        }
    }
    std::printf("%s\n", ok ? "RESULT: OK" : "RESULT: FAILED");
    munmap(mem, sizeof(Board));
    return ok ? 0 : 1;
}
