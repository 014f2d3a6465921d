// Files shared by threads and processes through the public interface: a
// recorder process writing while a player process reads the same file as it
// grows and a third process deletes old recordings; threads on one handle
// and on many; qvfs_DeInit giving back what a process left open.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "support/api_env.h"
#include "support/child.h"
#include "support/file_env.h"

namespace {

using qvfs::test::ApiTest;
using qvfs::test::Child;
using qvfs::test::ChildLink;
using qvfs::test::pattern;

// Memory shared by the test's processes, made before they are forked.
template <class T>
T* shared_board() {
    void* p = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    EXPECT_NE(MAP_FAILED, p);
    return new (p) T();
}

// Waits up to 20 s for cond; false on timeout.
template <class Cond>
bool wait_for(Cond cond) {
    for (int i = 0; i < 20000; ++i) {
        if (cond()) return true;
        usleep(1000);
    }
    return false;
}

class ApiSharing : public ApiTest {};

constexpr int kFiles = 4;
constexpr uint32_t kChunk = 65536;
constexpr uint32_t kChunksPerFile = 24;  // 1.5 MiB per recording

struct Board {
    std::atomic<int> created{0};                 // files the recorder has made
    char names[kFiles][64] = {};
    std::atomic<int64_t> written[kFiles] = {};   // bytes written (and so readable)
    std::atomic<int> closed[kFiles] = {};        // the recorder closed the file
    std::atomic<int> played[kFiles] = {};        // the player read it to its end
    std::atomic<int64_t> liveReads{0};           // reads that met the growing end
    std::atomic<int> deleted{0};
    std::atomic<int> probed{0};                  // the cleaner tried the open recording
};

TEST_F(ApiSharing, LivePlaybackWhileRecordingAndDeletingOldFiles) {
    Board* b = shared_board<Board>();
    const std::string disk = disk_;

    // All three processes are forked before any file exists, so that none
    // inherits another's block descriptors.
    Child recorder = Child::spawn([&](ChildLink& link) {
        TQvfsOpenParam p = param(6);
        for (int f = 0; f < kFiles; ++f) {
            char name[64] = {};
            const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
            CHILD_CHECK(link, h >= 0);
            std::memcpy(b->names[f], name, sizeof name);
            b->created.store(f + 1);
            for (uint32_t c = 0; c < kChunksPerFile; ++c) {
                const auto data = pattern(uint32_t(f), uint64_t(c) * kChunk, kChunk);
                CHILD_CHECK(link, qvfs_Write(h, data.data(), kChunk) == int(kChunk));
                b->written[f].store(int64_t(c + 1) * kChunk);
                // Pace the recording a little so that the player catches up.
                if (c % 4 == 3) usleep(2000);
            }
            // The first recording stays open until the cleaner has tried to
            // delete it.
            if (f == 0) CHILD_CHECK(link, wait_for([&] { return b->probed.load() == 1; }));
            CHILD_CHECK(link, qvfs_error(h) == 0);
            CHILD_CHECK(link, qvfs_Close(h) == 0);
            b->closed[f].store(1);
            std::snprintf(p.preName, sizeof p.preName, "%.27s", name);
        }
        return 0;
    });

    Child player = Child::spawn([&](ChildLink& link) {
        std::vector<uint8_t> buf(kChunk);
        for (int f = 0; f < kFiles; ++f) {
            CHILD_CHECK(link, wait_for([&] { return b->created.load() > f; }));
            const int h = open_name(b->names[f]);
            CHILD_CHECK(link, h >= 0);
            const int64_t total = int64_t(kChunksPerFile) * kChunk;
            int64_t pos = 0;
            int idle = 0;
            while (pos < total) {
                const int n = qvfs_Read(h, buf.data(), kChunk);
                if (n > 0) {
                    const auto want = pattern(uint32_t(f), uint64_t(pos), size_t(n));
                    if (std::memcmp(want.data(), buf.data(), size_t(n)) != 0)
                        return link.fail("file %d: wrong bytes at %lld", f, (long long)pos);
                    pos += n;
                    idle = 0;
                    continue;
                }
                // At the growing end: nothing more yet.
                b->liveReads.fetch_add(1);
                CHILD_CHECK(link, n == -1);
                CHILD_CHECK(link, qvfs_Tell(h) == pos);
                CHILD_CHECK(link, ++idle < 20000);
                usleep(500);
            }
            CHILD_CHECK(link, wait_for([&] { return b->closed[f].load() == 1; }));
            CHILD_CHECK(link, qvfs_Eof(h) == 1);
            CHILD_CHECK(link, qvfs_Close(h) == 0);
            b->played[f].store(1);
        }
        return 0;
    });

    Child cleaner = Child::spawn([&](ChildLink& link) {
        // The recording in progress is refused; the old ones go once played.
        CHILD_CHECK(link, wait_for([&] { return b->created.load() >= 1 && b->written[0].load() > 0; }));
        CHILD_CHECK(link, qvfs_Unlink(b->names[0]) == -1);
        b->probed.store(1);
        for (int f = 0; f < 2; ++f) {
            CHILD_CHECK(link, wait_for([&] { return b->played[f].load() == 1; }));
            CHILD_CHECK(link, qvfs_Unlink(b->names[f]) == 0);
            b->deleted.fetch_add(1);
        }
        return 0;
    });

    EXPECT_CHILD_OK(recorder);
    EXPECT_CHILD_OK(player);
    EXPECT_CHILD_OK(cleaner);
    EXPECT_GT(b->liveReads.load(), 0) << "the player never met the growing end: not a live test";
    EXPECT_EQ(2, b->deleted.load());

    // Deleted ones are gone, the others intact, chained by their names.
    for (int f = 0; f < 2; ++f) EXPECT_EQ(-1, open_name(b->names[f])) << f;
    for (int f = 2; f < kFiles; ++f)
        EXPECT_EQ(pattern(uint32_t(f), 0, size_t(kChunksPerFile) * kChunk), read_all(b->names[f])) << f;
    char pre[32] = {};
    TQvFileInfo item{pre, sizeof pre};
    ASSERT_EQ(0, qvfs_GetFileInfo(b->names[3], QVFS_INFO_PRENAME, &item, 1));
    EXPECT_STREQ(b->names[2], pre);

    // The block lists exactly the two survivors.
    std::vector<TQvFileStat> list(8);
    const uint32_t block = qvfs::test::name_block(b->names[2]);
    ASSERT_EQ(2, qvfs_BlockStat(disk_.c_str(), block, list.data(), 8));
    std::set<std::string> listed{list[0].name, list[1].name};
    EXPECT_EQ((std::set<std::string>{b->names[2], b->names[3]}), listed);
    munmap(b, sizeof *b);
}

TEST_F(ApiSharing, ThreadsOnOneHandleNeverSplitAWrite) {
    std::string name;
    const int h = create(&name);
    ASSERT_GE(h, 0);
    constexpr int kThreads = 4;
    constexpr int kWrites = 150;
    constexpr uint32_t kPiece = 4096;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            std::vector<uint32_t> piece(kPiece / 4);
            for (int i = 0; i < kWrites; ++i) {
                // Every word of a piece carries its writer and number.
                std::fill(piece.begin(), piece.end(), uint32_t(t << 16 | i));
                if (qvfs_Write(h, piece.data(), kPiece) != int(kPiece)) failures.fetch_add(1);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(0, failures.load());
    EXPECT_EQ(int64_t(kThreads) * kWrites * kPiece, qvfs_Tell(h));
    EXPECT_EQ(0, qvfs_Close(h));

    const auto all = read_all(name);
    ASSERT_EQ(size_t(kThreads) * kWrites * kPiece, all.size());
    std::set<uint32_t> seen;
    for (size_t off = 0; off < all.size(); off += kPiece) {
        uint32_t w0;
        std::memcpy(&w0, all.data() + off, 4);
        for (size_t k = 4; k < kPiece; k += 4) {
            uint32_t w;
            std::memcpy(&w, all.data() + off + k, 4);
            ASSERT_EQ(w0, w) << "a piece at " << off << " was split by another write";
        }
        EXPECT_TRUE(seen.insert(w0).second) << "piece written twice";
    }
    EXPECT_EQ(size_t(kThreads) * kWrites, seen.size());
}

TEST_F(ApiSharing, DeInitGivesBackWhatAProcessLeftOpen) {
    struct Names {
        char left[64];
        char kept[64];
    };
    Names* n = shared_board<Names>();
    // One process leaves a file open and calls qvfs_DeInit; another leaves
    // one open and does not. Both stay alive.
    auto leaver = [&](bool deinit) {
        return Child::spawn([&, deinit](ChildLink& link) {
            TQvfsOpenParam p = param(deinit ? 30 : 31);
            char name[64] = {};
            const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
            CHILD_CHECK(link, h >= 0);
            const auto data = pattern(deinit ? 30 : 31, 0, 200000);
            CHILD_CHECK(link, qvfs_Write(h, data.data(), 200000) == 200000);
            std::memcpy(deinit ? n->left : n->kept, name, sizeof name);
            if (deinit) qvfs_DeInit();
            link.send(1);
            int64_t cmd;
            link.recv(&cmd, 20000);
            return 0;
        });
    };
    Child a = leaver(true);
    ASSERT_TRUE(a.expect(1));
    Child b = leaver(false);
    ASSERT_TRUE(b.expect(1));

    EXPECT_EQ(pattern(30, 0, 200000), read_all(n->left));
    EXPECT_EQ(pattern(31, 0, 200000), read_all(n->kept));
    EXPECT_EQ(200000, stat_of(n->left).st.st_size);
    EXPECT_EQ(0, qvfs_Unlink(n->left)) << "released by qvfs_DeInit in a living process";
    EXPECT_EQ(-1, qvfs_Unlink(n->kept)) << "still held by the other living process";
    a.send(0);
    b.send(0);
    EXPECT_CHILD_OK(a);
    EXPECT_CHILD_OK(b);
    munmap(n, sizeof *n);
}

}  // namespace
