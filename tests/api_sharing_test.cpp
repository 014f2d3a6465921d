// Files shared by threads and processes through the public interface: a
// recorder process writing while a player process reads the same file as it
// grows and a third process deletes old recordings; threads on one handle;
// qvfs_DeInit giving back what a process left open.
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

#include "support/fixture.h"
#include "support/child.h"
#include "support/compat.h"

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
    for (int i = 0; i < 20000 && !cond(); ++i) usleep(1000);
    return cond();
}

class ApiSharing : public ApiTest {};

constexpr int kFiles = 4;
constexpr uint32_t kChunk = 65536;
constexpr int64_t kFileBytes = 24 * kChunk;  // 1.5 MiB per recording

struct Board {
    std::atomic<int> created{0};  // files the recorder has made
    char names[kFiles][64] = {};
    std::atomic<int> written0{0};        // the recorder wrote to the first file
    std::atomic<int> closed[kFiles] = {};  // the recorder closed the file
    std::atomic<int> played[kFiles] = {};  // the player read it to its end
    std::atomic<int> liveReads{0};       // reads that met the growing end
    std::atomic<int> probed{0};          // the cleaner tried the open recording
};

TEST_F(ApiSharing, LivePlaybackWhileRecordingAndDeletingOldFiles) {
    Board* b = shared_board<Board>();
    // All three processes are forked before any file exists, so that none
    // inherits another's block descriptors.
    Child recorder = Child::spawn([&](ChildLink& link) {
        for (int f = 0; f < kFiles; ++f) {
            TQvfsOpenParam p = param(6);
            const int h = qvfs_OpenV2(&p, b->names[f], QVFS_O_RDWR);
            CHILD_CHECK(link, h >= 0);
            b->created.store(f + 1);
            for (int64_t at = 0; at < kFileBytes; at += kChunk) {
                const auto data = pattern(uint32_t(f), uint64_t(at), kChunk);
                CHILD_CHECK(link, qvfs_Write(h, data.data(), kChunk) == int(kChunk));
                b->written0.store(1);
                if (at % (4 * kChunk) == 0) usleep(2000);  // so that the player catches up
            }
            // The first recording stays open until the cleaner has tried to delete it.
            if (f == 0) CHILD_CHECK(link, wait_for([&] { return b->probed.load() == 1; }));
            CHILD_CHECK(link, qvfs_error(h) == 0 && qvfs_Close(h) == 0);
            b->closed[f].store(1);
        }
        return 0;
    });
    Child player = Child::spawn([&](ChildLink& link) {
        std::vector<uint8_t> buf(kChunk);
        for (int f = 0; f < kFiles; ++f) {
            CHILD_CHECK(link, wait_for([&] { return b->created.load() > f; }));
            const int h = open_name(b->names[f]);
            CHILD_CHECK(link, h >= 0);
            for (int64_t pos = 0, idle = 0; pos < kFileBytes;) {
                buf.resize(kChunk);
                const int n = qvfs_Read(h, buf.data(), kChunk);
                if (n > 0) {
                    buf.resize(size_t(n));
                    if (pattern(uint32_t(f), uint64_t(pos), size_t(n)) != buf)
                        return link.fail("file %d: wrong bytes at %lld", f, (long long)pos);
                    pos += n, idle = 0;
                    continue;
                }
                // At the growing end: nothing more yet, and the position stays.
                b->liveReads.fetch_add(1);
                CHILD_CHECK(link, n == -1 && qvfs_Tell(h) == pos && ++idle < 20000);
                usleep(500);
            }
            CHILD_CHECK(link, wait_for([&] { return b->closed[f].load() == 1; }));
            CHILD_CHECK(link, qvfs_Eof(h) == 1 && qvfs_Close(h) == 0);
            b->played[f].store(1);
        }
        return 0;
    });
    Child cleaner = Child::spawn([&](ChildLink& link) {
        // The recording in progress is refused; the old ones go once played.
        CHILD_CHECK(link, wait_for([&] { return b->written0.load() == 1; }));
        CHILD_CHECK(link, qvfs_Unlink(b->names[0]) == -1);
        b->probed.store(1);
        for (int f = 0; f < 2; ++f) {
            CHILD_CHECK(link, wait_for([&] { return b->played[f].load() == 1; }));
            CHILD_CHECK(link, qvfs_Unlink(b->names[f]) == 0);
        }
        return 0;
    });
    EXPECT_CHILD_OK(recorder);
    EXPECT_CHILD_OK(player);
    EXPECT_CHILD_OK(cleaner);
    EXPECT_GT(b->liveReads.load(), 0) << "the player never met the growing end: not a live test";

    // The deleted ones are gone, the others intact and the only ones listed.
    for (int f = 0; f < 2; ++f) EXPECT_EQ(-1, open_name(b->names[f])) << f;
    for (int f = 2; f < kFiles; ++f) EXPECT_EQ(pattern(uint32_t(f), 0, kFileBytes), read_all(b->names[f])) << f;
    std::vector<TQvFileStat> list(8);
    ASSERT_EQ(2, qvfs_BlockStat(disk_.c_str(), qvfs::test::name_block(b->names[2]), list.data(), 8));
    EXPECT_EQ((std::set<std::string>{b->names[2], b->names[3]}), (std::set<std::string>{list[0].name, list[1].name}));
    munmap(b, sizeof *b);
}

TEST_F(ApiSharing, ThreadsOnOneHandleNeverSplitAWrite) {
    std::string name;
    const int h = create(&name);
    ASSERT_GE(h, 0);
    constexpr int kThreads = 4, kWrites = 150;
    constexpr uint32_t kPiece = 4096;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // Every word of a piece carries its writer and number.
            for (int i = 0; i < kWrites; ++i) {
                const std::vector<uint32_t> piece(kPiece / 4, uint32_t(t << 16 | i));
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
        std::vector<uint32_t> words(kPiece / 4);
        std::memcpy(words.data(), all.data() + off, kPiece);
        ASSERT_EQ(std::vector<uint32_t>(kPiece / 4, words[0]), words) << "the piece at " << off << " was split";
        EXPECT_TRUE(seen.insert(words[0]).second) << "piece written twice";
    }
    EXPECT_EQ(size_t(kThreads) * kWrites, seen.size());
}

TEST_F(ApiSharing, DeInitGivesBackWhatAProcessLeftOpen) {
    struct Names {
        char name[2][64];
    };
    Names* n = shared_board<Names>();
    // Two living processes each leave a file open; only the first calls
    // qvfs_DeInit.
    auto leaver = [&](int k) {
        return Child::spawn([&, k](ChildLink& link) {
            TQvfsOpenParam p = param(30 + k);
            const int h = qvfs_OpenV2(&p, n->name[k], QVFS_O_RDWR);
            CHILD_CHECK(link, h >= 0 && qvfs_Write(h, pattern(30 + k, 0, 200000).data(), 200000) == 200000);
            if (k == 0) qvfs_DeInit();
            link.send(1);
            int64_t cmd;
            link.recv(&cmd, 20000);
            return 0;
        });
    };
    Child a = leaver(0);
    ASSERT_TRUE(a.expect(1));
    Child b = leaver(1);
    ASSERT_TRUE(b.expect(1));
    for (int k : {0, 1}) EXPECT_EQ(pattern(30 + k, 0, 200000), read_all(n->name[k])) << k;
    EXPECT_EQ(0, qvfs_Unlink(n->name[0])) << "released by qvfs_DeInit in a living process";
    EXPECT_EQ(-1, qvfs_Unlink(n->name[1])) << "still held by the other living process";
    a.send(0);
    b.send(0);
    EXPECT_CHILD_OK(a);
    EXPECT_CHILD_OK(b);
    munmap(n, sizeof *n);
}

}  // namespace
