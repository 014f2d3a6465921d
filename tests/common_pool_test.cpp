// Keys, the key cache, the owner list and record pool, and the shared
// file, block-file and disk records, across threads and real processes.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/fsc.h"
#include "common/keys.h"
#include "support/child.h"
#include "support/sandbox.h"

namespace {

using qvfs::test::Child;
using qvfs::test::ChildLink;

class PoolTest : public qvfs::test::SandboxTest {
protected:
    void SetUp() override { qvfs::pool_reset_process_state(); }
    void TearDown() override { qvfs::pool_reset_process_state(); }

    void share_init() { ASSERT_EQ(0, fsc_ShareInit()); }

    int real_ftok(const std::string& sysPath, int proj) {
        return static_cast<int>(::ftok(sbx_.real(sysPath).c_str(), proj));
    }
};

uint64_t owner(uint32_t index) {
    return (uint64_t{g_stQvfsFileList->owner[index][1]} << 32) | g_stQvfsFileList->owner[index][0];
}

unsigned char* pool() { return static_cast<unsigned char*>(g_stQvfsShrPool); }

bool in_pool(const void* p) {
    auto* b = static_cast<const unsigned char*>(p);
    return b >= pool() && b < pool() + QVFS_SHR_POOL_SIZE;
}

// Size of the segment of a key, or -1 when there is none.
long segment_size(int key) {
    int id = shmget(key, 0, 0);
    if (id < 0) return -1;
    struct shmid_ds ds;
    if (shmctl(id, IPC_STAT, &ds) != 0) return -1;
    return static_cast<long>(ds.shm_segsz);
}

struct Kind {
    const char* name;
    void* (*alloc)(uint64_t, uint32_t);
    void (*release)(void*);
    uint32_t size, firstIndex, poolOffset;
    size_t shrRefOff, indexOff;
};
const Kind kFile{"file", fsc_TfMalloc, fsc_TfFree, QVFS_FILE_REC_SIZE, 0, 0, 576, 580};
const Kind kBlkFile{"block-file", fsc_BfMalloc, fsc_BfFree, QVFS_BLKFILE_REC_SIZE, 1024, 0x51000, 520, 536};

void set_ref(const Kind& k, void* rec, int32_t v) { qvfs::rec_put_u32(rec, k.shrRefOff, static_cast<uint32_t>(v)); }

// ---- keys ---------------------------------------------------------------------

TEST_F(PoolTest, ShareKeysFollowTheKeyFileRuleAndTheCache) {
    // Boundaries of the key-file / project-number mapping, computed with an
    // empty cache and then again from the cache.
    struct { int index; const char* file; int proj; } cases[] = {
        {0, "/dvr/qvfs/qvfs0", 1},      {125, "/dvr/qvfs/qvfs0", 126}, {126, "/dvr/qvfs/qvfs1", 1},
        {512, "/dvr/qvfs/qvfs4", 9},    {2048, "/dvr/qvfs/qvfs16", 33}, {2072, "/dvr/qvfs/qvfs16", 57},
    };
    for (int pass = 0; pass < 2; ++pass) {
        for (const auto& c : cases) {
            const int want = real_ftok(c.file, c.proj);
            ASSERT_NE(-1, want);
            EXPECT_EQ(want, fsc_GetShmKey(c.index)) << "index " << c.index << " pass " << pass;
        }
    }

    // Every index, filled from the top down, then read back from the cache.
    qvfs::pool_reset_process_state();
    for (int i = QVFS_SHARE_INDEXES - 1; i >= 0; --i) ASSERT_EQ(sbx_.share_key(i), fsc_GetShmKey(i)) << i;
    for (int i = 0; i < QVFS_SHARE_INDEXES; ++i) ASSERT_EQ(sbx_.share_key(i), fsc_GetShmKey(i)) << i;

    // Out of range: -1 and errno untouched.
    for (int bad : {-1, 2073, 1 << 30, -2147483647 - 1}) {
        errno = 4242;
        EXPECT_EQ(-1, fsc_GetShmKey(bad)) << bad;
        EXPECT_EQ(4242, errno);
    }

    // Record lock keys are the share key plus 0x10000, layer keys are those
    // of the layer key file.
    EXPECT_EQ(sbx_.share_key(700) + 0x10000, qvfs::record_lock_key(700));
    EXPECT_EQ(-1, qvfs::record_lock_key(2073));
    for (int proj : {65, 66, 97, 98, 99, 100}) EXPECT_EQ(sbx_.layer_key(proj), qvfs::layer_key(proj));
}

TEST_F(PoolTest, ShareKeysAgreeAcrossThreadsAndProcesses) {
    // Threads racing to fill the cache all see the right keys.
    std::vector<std::thread> threads;
    std::vector<int> wrong(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int n = 0; n < QVFS_SHARE_INDEXES; ++n) {
                const int i = (n * 7 + t * 501) % QVFS_SHARE_INDEXES;
                if (fsc_GetShmKey(i) != sbx_.share_key(i)) ++wrong[t];
            }
        });
    }
    for (auto& th : threads) th.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(0, wrong[t]) << "thread " << t;

    // Another process derives the same keys on its own.
    const int probe[] = {0, 125, 126, 512, 1536, 2072};
    Child c = Child::spawn([&](ChildLink& link) {
        qvfs::pool_reset_process_state();
        for (int i : probe) link.send(fsc_GetShmKey(i));
        return 0;
    });
    for (int i : probe) {
        int64_t v = 0;
        ASSERT_TRUE(c.recv(&v));
        EXPECT_EQ(fsc_GetShmKey(i), v) << i;
    }
    EXPECT_CHILD_OK(c);
}

TEST_F(PoolTest, ShareKeyChecksArgumentsAndMakesMissingKeyFiles) {
    errno = 0;
    EXPECT_EQ(-1, fsc_GetShareKey(nullptr, 1));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    EXPECT_EQ(-1, fsc_GetShareKey("", 1));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    for (int proj : {0, -1, 256}) {
        errno = 0;
        EXPECT_EQ(-1, fsc_GetShareKey("/dvr/qvfs/qvfslayer", proj)) << proj;
        EXPECT_EQ(QVFS_ERR_PROJID, errno);
    }

    // A missing key file is created empty; its key is stable afterwards.
    const std::string extra = sbx_.real("/dvr/qvfs/extra");
    ASSERT_FALSE(std::filesystem::exists(extra));
    const int key = fsc_GetShareKey("/dvr/qvfs/extra", 127);
    EXPECT_NE(-1, key);
    EXPECT_TRUE(std::filesystem::exists(extra));
    EXPECT_EQ(0u, std::filesystem::file_size(extra));
    EXPECT_EQ(key, fsc_GetShareKey("/dvr/qvfs/extra", 127));
    EXPECT_EQ(real_ftok("/dvr/qvfs/extra", 127), key);

    // A key file that cannot be made: the system's ENOENT as 3002.
    errno = 0;
    EXPECT_EQ(-1, fsc_GetShareKey("/dvr/missing-dir/qvfs0", 1));
    EXPECT_EQ(QVFS_ERR_SYS + ENOENT, errno);
}

// ---- owner list and record pool ---------------------------------------------

TEST_F(PoolTest, ShareInitAttachesOnceAndOnlyTheCreatorSetsTheParameter) {
    // Without the key directory nothing can be attached.
    const std::string dir = sbx_.real("/dvr/qvfs");
    std::filesystem::rename(dir, dir + ".away");
    errno = 0;
    EXPECT_EQ(-1, fsc_ShareInit());
    EXPECT_EQ(QVFS_ERR_SYS + ENOENT, errno);
    EXPECT_EQ(nullptr, g_stQvfsFileList);
    EXPECT_EQ(nullptr, g_stQvfsShrPool);
    std::filesystem::rename(dir + ".away", dir);
    EXPECT_EQ(0, sbx_.ipc_objects());

    share_init();
    ASSERT_NE(nullptr, g_stQvfsFileList);
    ASSERT_NE(nullptr, g_stQvfsShrPool);
    EXPECT_EQ(QVFS_FILE_LIST_SIZE, segment_size(sbx_.layer_key(65)));
    EXPECT_EQ(QVFS_SHR_POOL_SIZE, segment_size(sbx_.layer_key(66)));
    EXPECT_EQ(1, g_stQvfsFileList->param1);
    EXPECT_EQ(2, sbx_.ipc_objects());

    // A second call keeps the attachments.
    auto* list = g_stQvfsFileList;
    void* shr = g_stQvfsShrPool;
    share_init();
    EXPECT_EQ(list, g_stQvfsFileList);
    EXPECT_EQ(shr, g_stQvfsShrPool);

    // A later process attaches the existing segments and leaves the
    // parameter as it finds it.
    g_stQvfsFileList->param1 = 0;
    pool()[QVFS_SHR_POOL_SIZE - 1] = 0x5A;
    Child c = Child::spawn([&](ChildLink& link) {
        qvfs::pool_reset_process_state();
        CHILD_CHECK(link, fsc_ShareInit() == 0);
        CHILD_CHECK(link, g_stQvfsFileList->param1 == 0);
        CHILD_CHECK(link, pool()[QVFS_SHR_POOL_SIZE - 1] == 0x5A);
        return 0;
    });
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(2, sbx_.ipc_objects());
}

TEST_F(PoolTest, BadRequestsFailWithTheirCodesAndChangeNothing) {
    // Nothing attached yet.
    errno = 0;
    EXPECT_EQ(nullptr, fsc_TfMalloc(1, QVFS_FILE_REC_SIZE));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    EXPECT_EQ(nullptr, fsc_DfMalloc(uint64_t{1} << 40, QVFS_DISK_REC_SIZE));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    EXPECT_EQ(nullptr, fsc_TfGetFileInfo(0));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);

    share_init();
    struct {
        void* (*fn)(uint64_t, uint32_t);
        uint64_t key;
        uint32_t size;
        int err;
    } bad[] = {
        {fsc_TfMalloc, 1, QVFS_FILE_REC_SIZE - 1, QVFS_ERR_BADHANDLE},
        {fsc_TfMalloc, 0, QVFS_FILE_REC_SIZE, QVFS_ERR_BADHANDLE},
        {fsc_TfMalloc, 1, QVFS_BLKFILE_REC_SIZE, QVFS_ERR_BADHANDLE},
        {fsc_BfMalloc, 1, QVFS_FILE_REC_SIZE, QVFS_ERR_BADHANDLE},
        {fsc_BfMalloc, 0, QVFS_BLKFILE_REC_SIZE, QVFS_ERR_BADHANDLE},
        {fsc_DfMalloc, uint64_t{1} << 40, QVFS_DISK_REC_SIZE + 1, QVFS_ERR_BADHANDLE},
        {fsc_DfMalloc, 0, QVFS_DISK_REC_SIZE, QVFS_ERR_BADHANDLE},
        {fsc_DfMalloc, uint64_t{25} << 40, QVFS_DISK_REC_SIZE, QVFS_ERR_DISKNUM},
        {fsc_DfMalloc, uint64_t{0xFF} << 40, QVFS_DISK_REC_SIZE, QVFS_ERR_DISKNUM},
    };
    for (size_t n = 0; n < std::size(bad); ++n) {
        errno = 0;
        EXPECT_EQ(nullptr, bad[n].fn(bad[n].key, bad[n].size)) << n;
        EXPECT_EQ(bad[n].err, errno) << n;
    }
    errno = 0;
    EXPECT_EQ(nullptr, fsc_TfGetFileInfo(1024));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    errno = 77;
    EXPECT_EQ(nullptr, fsc_TfGetFileInfo(3));  // free slot: null, no error
    EXPECT_EQ(77, errno);

    // Register three file records and one block-file record to guard.
    void* recs[3];
    for (int i = 0; i < 3; ++i) ASSERT_NE(nullptr, recs[i] = fsc_TfMalloc(100 + i, QVFS_FILE_REC_SIZE));
    void* blk = fsc_BfMalloc(200, QVFS_BLKFILE_REC_SIZE);
    ASSERT_NE(nullptr, blk);

    // Frees of things that are not a record of the kind, where it should be.
    fsc_TfFree(nullptr);
    fsc_BfFree(nullptr);
    fsc_DfFree(nullptr);
    alignas(8) static unsigned char fake[QVFS_DISK_REC_SIZE];
    const std::pair<void (*)(void*), std::pair<size_t, uint32_t>> fakes[] = {
        {fsc_TfFree, {580, 1}},     // right index, wrong place
        {fsc_TfFree, {580, 3000}},  // beyond every share index
        {fsc_TfFree, {580, 1024}},  // a block-file index
        {fsc_TfFree, {580, 600}},   // a segment index, not a segment
        {fsc_BfFree, {536, 1024}},  // right index, wrong place
        {fsc_BfFree, {536, 2}},     // a file index
        {fsc_DfFree, {262668, 7}},  // not a disk index
        {fsc_DfFree, {262668, 2050}},  // a disk index, not a segment
    };
    for (size_t n = 0; n < std::size(fakes); ++n) {
        std::memset(fake, 0, sizeof fake);
        qvfs::rec_put_u32(fake, fakes[n].second.first, fakes[n].second.second);
        errno = 0;
        fakes[n].first(fake);
        EXPECT_EQ(QVFS_ERR_BADHANDLE, errno) << n;
    }
    // A file record handed to the block-file free is refused as well.
    errno = 0;
    fsc_BfFree(recs[1]);
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);

    for (int i = 0; i < 3; ++i) EXPECT_EQ(100u + i, owner(i));
    EXPECT_EQ(200u, owner(1024));
    int used = 0;
    for (uint32_t i = 0; i < QVFS_SHARE_INDEXES; ++i) used += owner(i) != 0;
    EXPECT_EQ(4, used);
    EXPECT_EQ(2, sbx_.ipc_objects());
    EXPECT_EQ(1, g_stQvfsFileList->param1);
}

TEST_F(PoolTest, ProcessesFindTheSameRecordByOwnerKey) {
    share_init();
    const uint64_t fileKey = 0x1122334455667788ull;
    const uint64_t blkKey = 0x0000000100000002ull;

    Child c = Child::spawn([&](ChildLink& link) {
        qvfs::pool_reset_process_state();
        CHILD_CHECK(link, fsc_ShareInit() == 0);
        auto* f = static_cast<unsigned char*>(fsc_TfMalloc(fileKey, QVFS_FILE_REC_SIZE));
        auto* b = static_cast<unsigned char*>(fsc_BfMalloc(blkKey, QVFS_BLKFILE_REC_SIZE));
        CHILD_CHECK(link, f != nullptr && b != nullptr);
        std::memcpy(f, "file-rec", 8);
        std::memcpy(b, "blk-rec", 8);
        set_ref(kFile, f, 1);
        set_ref(kBlkFile, b, 1);
        link.send(f - pool());
        link.send(b - pool());
        return 0;
    });
    int64_t fOff = -1, bOff = -1;
    ASSERT_TRUE(c.recv(&fOff));
    ASSERT_TRUE(c.recv(&bOff));
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(0, fOff);
    EXPECT_EQ(0x51000, bOff);

    // The owner key is stored low word first.
    EXPECT_EQ(0x55667788u, g_stQvfsFileList->owner[0][0]);
    EXPECT_EQ(0x11223344u, g_stQvfsFileList->owner[0][1]);
    EXPECT_EQ(blkKey, owner(1024));

    // Found again here, unchanged (a registered record is not cleared).
    auto* f = static_cast<unsigned char*>(fsc_TfMalloc(fileKey, QVFS_FILE_REC_SIZE));
    auto* b = static_cast<unsigned char*>(fsc_BfMalloc(blkKey, QVFS_BLKFILE_REC_SIZE));
    ASSERT_EQ(pool(), f);
    ASSERT_EQ(pool() + 0x51000, b);
    EXPECT_EQ(0, std::memcmp(f, "file-rec", 8));
    EXPECT_EQ(0, std::memcmp(b, "blk-rec", 8));
    EXPECT_EQ(0u, qvfs::rec_u32(f, 580));
    EXPECT_EQ(1024u, qvfs::rec_u32(b, 536));
    EXPECT_EQ(f, fsc_TfGetFileInfo(0));

    // Keys that differ only in the high word are different owners.
    auto* g = static_cast<unsigned char*>(fsc_TfMalloc(fileKey ^ (uint64_t{1} << 63), QVFS_FILE_REC_SIZE));
    EXPECT_EQ(pool() + QVFS_FILE_REC_SIZE, g);
    EXPECT_EQ(1u, qvfs::rec_u32(g, 580));
}

// Registers 512 records of a kind (the whole pool share), then checks that the
// 513th lives in a segment of its own that another process finds, and that
// its last free removes the segment.
void check_own_segment_records(const qvfs::test::Sandbox& sbx, const Kind& k) {
    SCOPED_TRACE(k.name);
    const uint64_t base = uint64_t{k.firstIndex + 1} << 32;
    for (uint32_t s = 0; s < 512; ++s) {
        void* r = k.alloc(base + s, k.size);
        ASSERT_EQ(pool() + k.poolOffset + s * k.size, r) << s;
    }
    const uint32_t index = k.firstIndex + 512;
    const int key = sbx.share_key(static_cast<int>(index));
    EXPECT_EQ(-1, segment_size(key));

    auto* rec = static_cast<unsigned char*>(k.alloc(base + 512, k.size));
    ASSERT_NE(nullptr, rec);
    EXPECT_FALSE(in_pool(rec));
    EXPECT_EQ(index, qvfs::rec_u32(rec, k.indexOff));
    EXPECT_EQ(k.size, segment_size(key));
    EXPECT_EQ(base + 512, owner(index));
    std::memcpy(rec, "parent", 6);
    set_ref(k, rec, 2);

    // Another process attaches the same segment by the same owner key.
    Child c = Child::spawn([&](ChildLink& link) {
        qvfs::pool_reset_process_state();
        CHILD_CHECK(link, fsc_ShareInit() == 0);
        auto* r = static_cast<unsigned char*>(k.alloc(base + 512, k.size));
        CHILD_CHECK(link, r != nullptr && !in_pool(r));
        CHILD_CHECK(link, std::memcmp(r, "parent", 6) == 0);
        std::memcpy(r, "child", 5);
        set_ref(k, r, 1);
        k.release(r);  // still used: only detached
        return 0;
    });
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(0, std::memcmp(rec, "child", 5));
    EXPECT_EQ(base + 512, owner(index));

    // Still referenced: a free only detaches this process's mapping.
    k.release(rec);
    EXPECT_EQ(base + 512, owner(index));
    EXPECT_EQ(k.size, segment_size(key));

    // Attached again, the last user frees it: slot and segment are gone.
    rec = static_cast<unsigned char*>(k.alloc(base + 512, k.size));
    ASSERT_NE(nullptr, rec);
    EXPECT_EQ(0, std::memcmp(rec, "child", 5));
    if (k.firstIndex == 0) {
        auto* seen = static_cast<unsigned char*>(fsc_TfGetFileInfo(index));
        ASSERT_NE(nullptr, seen);
        EXPECT_EQ(0, std::memcmp(seen, "child", 5));
        shmdt(seen);
    }
    set_ref(k, rec, 0);
    k.release(rec);
    EXPECT_EQ(0u, owner(index));
    EXPECT_EQ(-1, segment_size(key));
    if (k.firstIndex == 0) {
        EXPECT_EQ(nullptr, fsc_TfGetFileInfo(index));
    }

    // The slot is taken again by a new owner, with a fresh zero segment.
    rec = static_cast<unsigned char*>(k.alloc(base + 999, k.size));
    ASSERT_NE(nullptr, rec);
    EXPECT_EQ(index, qvfs::rec_u32(rec, k.indexOff));
    EXPECT_EQ(0, rec[0]);
    set_ref(k, rec, 0);
    k.release(rec);
}

TEST_F(PoolTest, The513thRecordOfEachKindGetsItsOwnSegment) {
    share_init();
    check_own_segment_records(sbx_, kFile);
    check_own_segment_records(sbx_, kBlkFile);
    EXPECT_EQ(2, sbx_.ipc_objects());
}

TEST_F(PoolTest, LastFreeReleasesTheSlotAndTheLowestFreeSlotIsReused) {
    share_init();
    for (const Kind* k : {&kFile, &kBlkFile}) {
        SCOPED_TRACE(k->name);
        unsigned char* r[3];
        for (int i = 0; i < 3; ++i) {
            r[i] = static_cast<unsigned char*>(k->alloc(10 + i, k->size));
            ASSERT_EQ(pool() + k->poolOffset + i * k->size, r[i]);
            std::memset(r[i], 0xA0 + i, 16);
        }
        set_ref(*k, r[1], 1);
        k->release(r[1]);
        EXPECT_EQ(11u, owner(k->firstIndex + 1));
        set_ref(*k, r[1], 0);
        k->release(r[1]);
        EXPECT_EQ(0u, owner(k->firstIndex + 1));
        set_ref(*k, r[0], -1);  // below zero counts as the last user too
        k->release(r[0]);
        EXPECT_EQ(0u, owner(k->firstIndex));
        EXPECT_EQ(0xA0, r[0][0]);  // a pool record keeps its bytes until reuse

        // New owners take slot 0, then slot 1, each cleared; a known owner
        // still finds its slot 2 untouched.
        unsigned char* n0 = static_cast<unsigned char*>(k->alloc(20, k->size));
        unsigned char* n1 = static_cast<unsigned char*>(k->alloc(21, k->size));
        EXPECT_EQ(r[0], n0);
        EXPECT_EQ(r[1], n1);
        EXPECT_EQ(0, n0[0]);
        EXPECT_EQ(0, n1[0]);
        EXPECT_EQ(k->firstIndex + 1, qvfs::rec_u32(n1, k->indexOff));
        EXPECT_EQ(r[2], k->alloc(12, k->size));
        EXPECT_EQ(0xA2, r[2][0]);
        EXPECT_EQ(k->firstIndex + 2, qvfs::rec_u32(r[2], k->indexOff));
    }
}

TEST_F(PoolTest, AFullFileTableRefusesWithoutAnErrorAndEmptiesCleanly) {
    share_init();
    std::vector<void*> recs;
    for (uint64_t key = 1; key <= 1024; ++key) {
        void* r = fsc_TfMalloc(key, QVFS_FILE_REC_SIZE);
        ASSERT_NE(nullptr, r) << key;
        recs.push_back(r);
    }
    EXPECT_EQ(2 + 512, sbx_.ipc_objects());
    errno = 4242;
    EXPECT_EQ(nullptr, fsc_TfMalloc(5000, QVFS_FILE_REC_SIZE));
    EXPECT_EQ(4242, errno);
    // Known owners are still found in a full table.
    EXPECT_EQ(recs[7], fsc_TfMalloc(8, QVFS_FILE_REC_SIZE));

    for (void* r : recs) fsc_TfFree(r);  // shrRef 0 everywhere: last users
    for (uint32_t i = 0; i < 1024; ++i) ASSERT_EQ(0u, owner(i)) << i;
    EXPECT_EQ(2, sbx_.ipc_objects());
}

// ---- disk records and the share table -----------------------------------------

TEST_F(PoolTest, DiskRecordsAreRegisteredOncePerDiskAndListed) {
    share_init();
    const uint64_t key3 = (uint64_t{3} << 40) | 0x1234;
    auto* rec = static_cast<unsigned char*>(fsc_DfMalloc(key3, QVFS_DISK_REC_SIZE));
    ASSERT_NE(nullptr, rec);
    EXPECT_EQ(2051u, qvfs::rec_u32(rec, qvfs::kDiskRecShmNoOff));
    EXPECT_EQ(0u, qvfs::rec_u32(rec, qvfs::kDiskRecMapIndexOff));
    EXPECT_EQ(1u, qvfs::rec_u32(rec, qvfs::kDiskRecStatOff));
    EXPECT_EQ(0u, qvfs::rec_u32(rec, qvfs::kDiskRecMountedOff));
    EXPECT_EQ(key3, owner(2051));
    const int segKey = sbx_.share_key(2051);
    EXPECT_EQ(QVFS_DISK_REC_SIZE, segment_size(segKey));
    const qvfs::ShareEntry& e = qvfs::share_entry(3);
    EXPECT_EQ(rec, e.addr);
    EXPECT_EQ(static_cast<uint32_t>(segKey), e.key);
    EXPECT_EQ(shmget(segKey, 0, 0), e.id);

    // The same owner in another process attaches the record as it is; a new
    // owner of the disk registers it afresh.
    qvfs::rec_put_u32(rec, qvfs::kDiskRecMountedOff, 1);
    qvfs::rec_put_u32(rec, qvfs::kDiskRecStatOff, 0);
    Child c = Child::spawn([&](ChildLink& link) {
        qvfs::pool_reset_process_state();
        CHILD_CHECK(link, fsc_ShareInit() == 0);
        auto* r = static_cast<unsigned char*>(fsc_DfMalloc(key3, QVFS_DISK_REC_SIZE));
        CHILD_CHECK(link, r != nullptr);
        CHILD_CHECK(link, qvfs::rec_u32(r, qvfs::kDiskRecMountedOff) == 1);
        CHILD_CHECK(link, qvfs::share_entry(3).addr == r);
        r = static_cast<unsigned char*>(fsc_DfMalloc(key3 + 1, QVFS_DISK_REC_SIZE));
        CHILD_CHECK(link, r != nullptr);
        CHILD_CHECK(link, qvfs::rec_u32(r, qvfs::kDiskRecMountedOff) == 0);
        CHILD_CHECK(link, qvfs::rec_u32(r, qvfs::kDiskRecStatOff) == 1);
        return 0;
    });
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(key3 + 1, owner(2051));
    EXPECT_EQ(1u, qvfs::rec_u32(rec, qvfs::kDiskRecStatOff));

    // The share table is listed one row per disk with a record.
    char buf[512];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(0, fsc_GetDebugInfo(buf, 99));
    EXPECT_EQ('#', buf[0]);
    EXPECT_EQ(0, fsc_GetDebugInfo(nullptr, 512));
    EXPECT_EQ(0, fsc_GetDebugInfo(buf, -5));
    ASSERT_NE(nullptr, fsc_DfMalloc((uint64_t{24} << 40) | 1, QVFS_DISK_REC_SIZE));
    ASSERT_NE(nullptr, fsc_DfMalloc((uint64_t{0} << 40) | 1, QVFS_DISK_REC_SIZE));
    const int len = fsc_GetDebugInfo(buf, sizeof buf);
    ASSERT_EQ(static_cast<int>(std::strlen(buf)), len);
    const std::string text(buf);
    const std::string banner = "===========Share Mem============\nindex\tid\tkey\t\tpointer\n";
    ASSERT_EQ(0u, text.rfind(banner, 0)) << text;
    char row[128];
    std::snprintf(row, sizeof row, "3\t%d\t0x%x\t%p\n", e.id, e.key, e.addr);
    EXPECT_NE(std::string::npos, text.find(row)) << text;
    const size_t rows = std::count(text.begin() + banner.size(), text.end(), '\n');
    EXPECT_EQ(3u, rows);
    EXPECT_LT(text.find("\n0\t"), text.find("\n3\t"));
    EXPECT_LT(text.find("\n3\t"), text.find("\n24\t"));

    // A buffer too small for everything: the text stops there, zero-terminated.
    char small[100];
    EXPECT_GE(fsc_GetDebugInfo(small, sizeof small), 100);
    EXPECT_EQ(99u, std::strlen(small));
    EXPECT_EQ(0, std::memcmp(small, buf, 99));

    // Freeing removes the segment and the owner, whatever the counts say;
    // the share table keeps its entry.
    fsc_DfFree(rec);
    EXPECT_EQ(0u, owner(2051));
    EXPECT_EQ(-1, segment_size(segKey));
    EXPECT_EQ(rec, qvfs::share_entry(3).addr);
}

}  // namespace
