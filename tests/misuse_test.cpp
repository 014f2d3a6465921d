// Calls a new user gets wrong, next to another recording in the same block,
// and an unlink racing an open in another process.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <random>
#include <string>

#include "support/fixture.h"
#include "support/child.h"

namespace {

using namespace qvfs::test;
using Clock = std::chrono::steady_clock;

constexpr uint32_t kChn = 3;
constexpr int32_t kMiB = 1 << 20;
constexpr int kFault = QVFS_ERR_SYS + EFAULT;

class Misuse : public ApiTest {
protected:
    // A ring file of channel kChn with `bytes` of pattern(seed) in its area.
    int ring(std::string* name, int32_t area, uint32_t bytes, uint32_t seed) {
        const int h = create(name, kChn, 1, area);
        EXPECT_EQ(int(bytes), qvfs_Write(h, pattern(seed, 0, bytes).data(), bytes));
        return h;
    }
};

TEST_F(Misuse, EachMisuseLeavesTheNeighbourAndTheBlockAlone) {
    const std::string neighbour = new_file(kChn, 5, 70000);
    const auto kept = read_all(neighbour);
    auto* none = static_cast<uint8_t*>(mmap(nullptr, 8192, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_EQ(0, mprotect(none + 4096, 4096, PROT_READ));  // and a read-only page behind it
    const struct {
        const char* what;
        std::function<void()> run;
    } rows[] = {
        {"ring pointers on a file without a reserved area, then a write", [&] {
             std::string n;
             const int h = create(&n, kChn);
             EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_UpdataePreRecPtr(h, 0, 0));
             EXPECT_EQ(4, qvfs_Write(h, "data", 4));
             EXPECT_EQ(0, qvfs_Close(h));
             EXPECT_EQ(4, stat_of(n).st.st_size);
         }},
        {"ring pointers outside the ring, a write that does not fit in it", [&] {
             std::string n;
             const int h = ring(&n, kMiB, kMiB - 0x8000, 7);
             for (int32_t at : {3 * kMiB, -1, kMiB}) EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_UpdataePreRecPtr(h, 0, at));
             EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_UpdataePreRecPtr(h, -1, 0));
             EXPECT_ERR(-1, QVFS_ERR_BLOCKRANGE, qvfs_Write(h, pattern(11, 0, 0x10000).data(), 0x10000));
             EXPECT_EQ(0, qvfs_Close(h));
             EXPECT_EQ(pattern(7, 0, kMiB - 0x8000), read_all(n)) << "nothing changed";
         }},
        {"negative or oversized reserved size", [&] {
             const int files = qvfs_GetFileNum(disk_.c_str(), 0);
             for (int32_t bad : {-kMiB, 1023 * kMiB}) {
                 TQvfsOpenParam p = param(kChn, 1, bad);
                 char n[64] = {};
                 EXPECT_EQ(-1, qvfs_OpenV2(&p, n, QVFS_O_RDWR)) << bad;
             }
             EXPECT_EQ(files, qvfs_GetFileNum(disk_.c_str(), 0));
         }},
        {"a ring left without pointers, then the channel's next file", [&] {
             std::string r, next;
             EXPECT_EQ(0, qvfs_Close(ring(&r, kMiB, kMiB, 8)));
             const int h = create(&next, kChn);
             EXPECT_EQ(kMiB, qvfs_Write(h, pattern(9, 0, kMiB).data(), kMiB));
             EXPECT_EQ(0, qvfs_Close(h));
             EXPECT_EQ(pattern(8, 0, kMiB), read_all(r));
             EXPECT_EQ(kMiB, stat_of(r).st.st_size) << "the bytes in the area, not the block offset";
         }},
        {"buffers and vectors the system cannot use", [&] {
             std::string n;
             const int h = create(&n, kChn);
             EXPECT_ERR(-1, kFault, qvfs_Write(h, none, 4096));
             EXPECT_EQ(kFault, qvfs_error(h)) << "the caller's fault, not the disk's";
             char ok[8] = "abcdefg";
             iovec nullBase[1] = {{nullptr, 16}}, halfBad[2] = {{ok, 8}, {none, 64}};
             EXPECT_ERR(-1, kFault, qvfs_Writev(h, nullBase, 1));
             EXPECT_ERR(-1, kFault, qvfs_Writev(h, halfBad, 2));
             EXPECT_EQ(8, qvfs_Write(h, ok, 8));
             EXPECT_EQ(0, qvfs_Seek(h, 0, 0));
             EXPECT_ERR(-1, kFault, qvfs_Read(h, none + 4096, 8));
             EXPECT_EQ(0, qvfs_Close(h));
         }},
        {"an older file of the block growing into the newer one behind it", [&] {
             std::string older, newer;
             const int a = create(&older, kChn);
             EXPECT_EQ(4, qvfs_Write(a, "abcd", 4));
             const int b = create(&newer, kChn);
             EXPECT_EQ(0x10000, qvfs_Write(b, pattern(12, 0, 0x10000).data(), 0x10000));
             EXPECT_EQ(100, qvfs_Write(a, pattern(13, 0, 100).data(), 100)) << "its own last 4 KiB";
             EXPECT_ERR(-1, QVFS_ERR_BLOCKRANGE, qvfs_Write(a, pattern(13, 0, 0x1000).data(), 0x1000));
             EXPECT_EQ(28, qvfs_error(a)) << "tells the recorder to go on in a new file";
             EXPECT_ERR(-1, QVFS_ERR_BLOCKRANGE, qvfs_ftruncate(a, 0x2000));
             EXPECT_EQ(0, qvfs_Close(a));
             EXPECT_EQ(0, qvfs_Close(b));
             EXPECT_EQ(104, stat_of(older).st.st_size);
             EXPECT_EQ(pattern(12, 0, 0x10000), read_all(newer));
         }},
        {"truncating through a read-only handle; block status into a null record", [&] {
             const int h = open_name(neighbour, QVFS_O_RDONLY);
             errno = 77;
             EXPECT_EQ(-1, qvfs_ftruncate(h, 10));
             EXPECT_EQ(77, errno);
             EXPECT_EQ(0, qvfs_Close(h));
             EXPECT_ERR(-1, QVFS_ERR_BADARG, qvfs_GetBlockStat(0, 0, nullptr));
         }},
        {"starting the library again with a handle open", [&] {
             std::string n;
             const int h = create(&n, kChn);
             EXPECT_EQ(0, qvfs_Init());
             EXPECT_EQ(3, qvfs_Write(h, "abc", 3)) << "the handle survives";
             EXPECT_EQ(0, qvfs_Close(h));
             EXPECT_EQ(0, qvfs_Unlink(n.c_str())) << "its shared record was given back";
         }},
        {"names with another extension, and extensions no name can carry", [&] {
             std::string n;
             const int h = create(&n, kChn);  // open: the handle-sharing path too
             const std::string other = n.substr(0, n.size() - 3) + "exe";
             EXPECT_EQ(-1, open_name(other));
             EXPECT_EQ(-1, open_name(n + "x"));
             EXPECT_EQ(0, qvfs_Close(h));
             EXPECT_EQ(-1, open_name(other));
             EXPECT_EQ(-1, qvfs_Unlink(other.c_str()));
             EXPECT_EQ(0, qvfs_Unlink(n.c_str()));
             for (const char* ext : {"a/b", "abcdefgh", "", "r\nd"}) {
                 TQvfsOpenParam p = param(kChn);
                 std::memset(p.ext, 0, sizeof p.ext);
                 std::memcpy(p.ext, ext, std::min(std::strlen(ext), sizeof p.ext));
                 char name[64] = {};
                 EXPECT_EQ(-1, qvfs_OpenV2(&p, name, QVFS_O_RDWR)) << ext;
             }
         }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.what);
        row.run();
        EXPECT_EQ(kept, read_all(neighbour));
        TQvStatfs st{};
        EXPECT_EQ(0, qvfs_Statfs(disk_.c_str(), &st));
        EXPECT_EQ(0u, st.f_spare[0]) << "no block marked bad";
    }
}

// One process deletes a file while another opens it and keeps it open until
// the deletion returned, released together after random microseconds: the
// open fails as for a missing file, or the unlink is refused; never both.
TEST_F(Misuse, UnlinkAndOpenOfOneFileNeverBothSucceed) {
    struct Board {
        std::atomic<int> round{0}, ready{0}, go{0}, unlinked{0}, done{0}, opened{0};
        char name[64] = {};
    };
    auto* b = new (mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Board();
    const std::string keeper = new_file(kChn);  // the block is never given back between rounds
    constexpr int kRounds = 400;
    auto spin = [](std::mt19937& rng, unsigned most) {
        for (auto until = Clock::now() + std::chrono::microseconds(rng() % most); Clock::now() < until;) {
        }
    };
    auto wait = [](const std::atomic<int>& v, int want) {  // false after 20 s
        for (auto until = Clock::now() + std::chrono::seconds(20); v.load() != want && Clock::now() < until;)
            sched_yield();
        return v.load() == want;
    };
    // The two sides on different processors, so that they really overlap.
    cpu_set_t all, cpu;
    sched_getaffinity(0, sizeof all, &all);
    auto pin = [&](int nth) {
        CPU_ZERO(&cpu);
        for (int c = 0, seen = 0; c < CPU_SETSIZE; ++c)
            if (CPU_ISSET(c, &all) && seen++ % 2 == nth) CPU_SET(c, &cpu);
        sched_setaffinity(0, sizeof cpu, &cpu);
    };
    Child opener = Child::spawn([&](ChildLink&) {
        pin(1);
        std::mt19937 rng(2);
        for (int r = 1; r <= kRounds; ++r) {
            if (!wait(b->round, r)) return 1;
            b->ready.store(r);
            if (!wait(b->go, r)) return 1;
            spin(rng, 50);
            const int h = open_name(b->name, QVFS_O_RDWR);
            b->opened.store(h >= 0 ? 1 : 0);
            if (!wait(b->unlinked, r)) return 1;
            if (h >= 0) qvfs_Write(h, "x", 1), qvfs_Close(h);
            b->done.store(r);
        }
        return 0;
    });
    pin(0);
    std::mt19937 rng(1);
    int both = 0, opens = 0, unlinks = 0;
    for (int r = 1; r <= kRounds; ++r) {
        const std::string name = new_file(kChn, 5, 16);
        std::strcpy(b->name, name.c_str());
        b->round.store(r);
        ASSERT_TRUE(wait(b->ready, r)) << "the opener stopped";
        b->go.store(r);
        spin(rng, 250);  // an open takes longer than an unlink
        const bool unlinked = qvfs_Unlink(name.c_str()) == 0;
        b->unlinked.store(r);
        ASSERT_TRUE(wait(b->done, r)) << "the opener stopped";
        opens += b->opened.load();
        unlinks += unlinked ? 1 : 0;
        both += unlinked && b->opened.load() == 1 ? 1 : 0;
        EXPECT_TRUE(unlinked || qvfs_Unlink(name.c_str()) == 0) << "the opener has closed it";
    }
    sched_setaffinity(0, sizeof all, &all);
    EXPECT_EQ(0, opener.wait());
    EXPECT_EQ(0, both) << opens << " opens, " << unlinks << " unlinks won";
    EXPECT_TRUE(CPU_COUNT(&all) < 2 || (opens > 0 && unlinks > 0)) << "both sides must win some rounds";
    EXPECT_EQ(1, qvfs_GetFileNum(disk_.c_str(), 0)) << "only the keeper is left";
}

}  // namespace
