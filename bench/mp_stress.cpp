// mp_stress - recorder processes with several threads each on one sandbox
// disk, all at once: create files (some with a pre-record ring), write them,
// read them back through a second handle, open and read the files of other
// processes by name, lock and unlock them (status writes), delete old ones
// and race deletions against opens. Meant for sanitizer builds: with
// -fsanitize=thread it shows data races between the threads of a process.
//
//   mp_stress [processes=3] [threads=4] [seconds=5]
//
// Under ThreadSanitizer (the library tells it what its semaphores order):
//   cmake -S . -B build-tsan -G Ninja -DCMAKE_CXX_FLAGS=-fsanitize=thread
//     -DCMAKE_C_FLAGS=-fsanitize=thread -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread
//     -DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread   (one command)
//   cmake --build build-tsan -t mp_stress && build-tsan/bench/mp_stress 3 4 15
//
// Exits 1 when a file reads back other bytes than were written, or a process
// fails; prints what each process did.
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "api/qvfs.h"
#include "support/fixture.h"
#include "support/sandbox.h"

namespace {

constexpr int kSlots = 64;     // recent names shown to every process
constexpr uint32_t kPiece = 16384;

// Names in shared memory, word by word (a torn name just fails to open).
struct Board {
    std::atomic<uint32_t> next{0};
    std::atomic<uint64_t> names[kSlots][5];
    void put(const char* name) {
        uint64_t w[5] = {};
        std::memcpy(w, name, std::min<size_t>(std::strlen(name), 39));
        for (int i = 0; i < 5; ++i) names[next.fetch_add(1) % kSlots][i].store(w[i]);
    }
    void get(uint32_t slot, char (&out)[40]) {
        uint64_t w[5];
        for (int i = 0; i < 5; ++i) w[i] = names[slot % kSlots][i].load();
        std::memcpy(out, w, 40);
        out[39] = '\0';
    }
};

uint8_t byte_of(uint32_t seed, uint32_t i) { return uint8_t((i * 2654435761u) >> 24 ^ seed); }

std::vector<uint8_t> bytes(uint32_t seed, uint32_t from, uint32_t n) {
    std::vector<uint8_t> v(n);
    for (uint32_t i = 0; i < n; ++i) v[i] = byte_of(seed, from + i);
    return v;
}

std::vector<uint8_t> read_all(const char* name) {
    std::vector<uint8_t> out, buf(65536);
    const int h = qvfs_Open(nullptr, const_cast<char*>(name), QVFS_O_RDONLY);
    if (h < 0) return out;
    for (int n; (n = qvfs_Read(h, buf.data(), uint32_t(buf.size()))) > 0;) out.insert(out.end(), buf.begin(), buf.begin() + n);
    qvfs_Close(h);
    return out;
}

struct Counts {
    std::atomic<long> files{0}, foreign{0}, unlinks{0}, wrong{0};
};

// One recorder thread: its own channel, files of 2 to 5 pieces.
void recorder(Board* board, const std::string& disk, uint32_t chn, int seconds, Counts& c) {
    qvfs_Init();  // each component of a recorder starts the library it uses
    std::mt19937 rng(chn);
    std::vector<std::string> mine;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < end) {
        const bool ring = rng() % 3 == 0;
        TQvfsOpenParam p{};
        p.chn = chn;
        p.startTime = 1700000000;
        p.fileType = ring ? 1 : 0;
        p.resSize = ring ? 0x8000 : 0;
        p.recType = 5;
        std::snprintf(p.path, sizeof p.path, "%s", disk.c_str());
        std::memcpy(p.ext, "rvd", 4);
        char name[40] = {};
        const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
        if (h < 0) continue;
        const uint32_t seed = rng(), pieces = 2 + rng() % 4;
        std::vector<uint8_t> want;
        if (ring) {  // a ring of 0x8000 bytes; [0x1000, 0x3000) is kept
            qvfs_Write(h, bytes(seed, 0, 0x8000).data(), 0x8000);
            qvfs_UpdataePreRecPtr(h, 0x1000, 0x3000);
            qvfs_Seek(h, 0, 2);
            want = bytes(seed, 0x1000, 0x2000);
        }
        for (uint32_t k = 0; k < pieces; ++k) {
            const auto piece = bytes(seed + 1, k * kPiece, kPiece);
            qvfs_Write(h, piece.data(), kPiece);
            want.insert(want.end(), piece.begin(), piece.end());
        }
        if (read_all(name) != want) ++c.wrong;  // a second handle while the first is open
        qvfs_Close(h);
        ++c.files;
        board->put(name);
        mine.push_back(name);

        // Someone's recent file: read it, lock and unlock it, maybe delete it.
        char other[40];
        board->get(rng(), other);
        if (!read_all(other).empty()) ++c.foreign;
        qvfs_Lock(other, 1);
        qvfs_Lock(other, 0);
        if (rng() % 8 == 0 && qvfs_Unlink(other) == 0) ++c.unlinks;
        if (mine.size() > 4) {
            if (qvfs_Unlink(mine.front().c_str()) == 0) ++c.unlinks;
            mine.erase(mine.begin());
        }
    }
}

int process(Board* board, const std::string& disk, int id, int threads, int seconds) {
    if (qvfs_Init() != 0 || qvfs_Mount(disk.c_str()) != 0) return std::fprintf(stderr, "start failed\n"), 1;
    Counts c;
    std::vector<std::thread> ts;
    for (int t = 0; t < threads; ++t)
        ts.emplace_back(recorder, board, disk, uint32_t(id * threads + t), seconds, std::ref(c));
    for (auto& t : ts) t.join();
    std::printf("process %d: %ld files, %ld of others read, %ld unlinks, %ld read back wrong\n", id, c.files.load(),
                c.foreign.load(), c.unlinks.load(), c.wrong.load());
    std::fflush(stdout);  // the process leaves with _exit
    qvfs_DeInit();
    qvfs_UnMount(disk.c_str());
    return c.wrong.load() == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const int procs = argc > 1 ? std::atoi(argv[1]) : 3;
    const int threads = argc > 2 ? std::atoi(argv[2]) : 4;
    const int seconds = argc > 3 ? std::atoi(argv[3]) : 5;
    try {
        qvfs::test::Sandbox sbx;
        const std::string disk = sbx.add_disk(0, qvfs::test::image_bytes_for(16));
        auto* board = new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board();
        // Every process starts the library itself, the formatter included:
        // no process forks after the library started threads.
        auto run = [&](auto body) {
            const pid_t pid = fork();
            if (pid == 0) _exit(body());
            return pid;
        };
        auto ok = [](pid_t pid) {
            int status = 0;
            return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        };
        if (!ok(run([&] { return qvfs_Init() == 0 && qvfs_Format(disk.c_str()) == 0 ? 0 : 1; })))
            return std::fprintf(stderr, "format failed\n"), 1;
        std::vector<pid_t> pids;
        for (int i = 0; i < procs; ++i) pids.push_back(run([&, i] { return process(board, disk, i, threads, seconds); }));
        bool all = true;
        for (pid_t pid : pids) all = ok(pid) && all;
        sbx.remove_ipc();
        return all ? 0 : 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mp_stress: %s\n", e.what());
        return 1;
    }
}
