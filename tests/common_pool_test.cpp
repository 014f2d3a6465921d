// Keys and the key cache, the owner list and record pool, and the shared
// file, block-file and disk records, across threads and real processes.
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <algorithm>
#include <atomic>
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
using Rec = unsigned char*;

class PoolTest : public qvfs::test::SandboxTest {
protected:
    void SetUp() override { qvfs::pool_reset_process_state(); }
    void TearDown() override { qvfs::pool_reset_process_state(); }
};

uint64_t owner(uint32_t i) { return (uint64_t{g_stQvfsFileList->owner[i][1]} << 32) | g_stQvfsFileList->owner[i][0]; }
Rec pool() { return static_cast<Rec>(g_stQvfsShrPool); }
bool in_pool(const void* p) { return p >= pool() && p < pool() + QVFS_SHR_POOL_SIZE; }

// Size of the segment of a key, or -1 when there is none.
long segment_size(int key) {
    struct shmid_ds ds;
    const int id = shmget(key, 0, 0);
    return id >= 0 && shmctl(id, IPC_STAT, &ds) == 0 ? static_cast<long>(ds.shm_segsz) : -1;
}

// Expects `call` to return `ret` and to leave `err` in errno (cleared first).
#define EXPECT_ERR(ret, err, call) do { errno = 0; EXPECT_EQ(ret, call); EXPECT_EQ(err, errno); } while (0)

// A child that starts as a fresh process would and attaches the pool.
#define FRESH_PROCESS(link)           \
    qvfs::pool_reset_process_state(); \
    CHILD_CHECK(link, fsc_ShareInit() == 0)

struct Kind {
    void* (*alloc)(uint64_t, uint32_t);
    void (*release)(void*);
    uint32_t size, firstIndex, poolOffset;
    size_t shrRefOff, indexOff;
    Rec get(uint64_t key) const { return static_cast<Rec>(alloc(key, size)); }
    void set_ref(void* rec, int32_t v) const { qvfs::rec_put_u32(rec, shrRefOff, static_cast<uint32_t>(v)); }
};
const Kind kFile{fsc_TfMalloc, fsc_TfFree, QVFS_FILE_REC_SIZE, 0, 0, 576, 580};
const Kind kBlkFile{fsc_BfMalloc, fsc_BfFree, QVFS_BLKFILE_REC_SIZE, 1024, 0x51000, 520, 536};

TEST_F(PoolTest, ShareKeysFollowTheKeyFileRuleInEveryThread) {
    // Boundaries of the index -> (key file, project number) mapping, with an
    // empty cache and then from the cache.
    const struct { int index; const char* file; int proj; } cases[] = {
        {125, "/dvr/qvfs/qvfs0", 126}, {126, "/dvr/qvfs/qvfs1", 1}, {2072, "/dvr/qvfs/qvfs16", 57}, {0, "/dvr/qvfs/qvfs0", 1}};
    for (int pass = 0; pass < 2; ++pass)
        for (const auto& c : cases)
            EXPECT_EQ(::ftok(sbx_.real(c.file).c_str(), c.proj), fsc_GetShmKey(c.index)) << c.index;
    for (int bad : {-1, 2073}) {
        errno = 4242;
        EXPECT_EQ(-1, fsc_GetShmKey(bad));
        EXPECT_EQ(4242, errno);
    }
    for (int proj : {65, 100})
        EXPECT_EQ(::ftok(sbx_.real("/dvr/qvfs/qvfslayer").c_str(), proj), qvfs::layer_key(proj)) << proj;

    // Threads racing to fill an empty cache all get every key right.
    qvfs::pool_reset_process_state();
    std::vector<std::thread> threads;
    std::atomic<int> wrong{0};
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int n = 0; n < QVFS_SHARE_INDEXES; ++n) {
                const int i = (n * 7 + t * 501) % QVFS_SHARE_INDEXES;
                wrong += fsc_GetShmKey(i) != sbx_.share_key(i);
            }
        });
    for (auto& th : threads) th.join();
    EXPECT_EQ(0, wrong.load());
}

TEST_F(PoolTest, KeyFilesAreMadeOnDemandAndShareInitAttachesOnce) {
    EXPECT_ERR(-1, QVFS_ERR_BADARG, fsc_GetShareKey("", 1));
    EXPECT_ERR(-1, QVFS_ERR_PROJID, fsc_GetShareKey("/dvr/qvfs/qvfs0", 256));
    const int key = fsc_GetShareKey("/dvr/qvfs/extra", 127);  // missing: made empty
    EXPECT_EQ(::ftok(sbx_.real("/dvr/qvfs/extra").c_str(), 127), key);

    // Without the key directory nothing attaches: ENOENT as a system error.
    const std::string dir = sbx_.real("/dvr/qvfs");
    std::filesystem::rename(dir, dir + ".away");
    EXPECT_ERR(-1, QVFS_ERR_SYS + ENOENT, fsc_ShareInit());
    EXPECT_EQ(nullptr, g_stQvfsFileList);
    std::filesystem::rename(dir + ".away", dir);

    ASSERT_EQ(0, fsc_ShareInit());
    EXPECT_EQ(QVFS_FILE_LIST_SIZE, segment_size(sbx_.layer_key(65)));
    EXPECT_EQ(QVFS_SHR_POOL_SIZE, segment_size(sbx_.layer_key(66)));
    EXPECT_EQ(1, g_stQvfsFileList->param1);  // set by the creator only
    void* list = g_stQvfsFileList;
    ASSERT_EQ(0, fsc_ShareInit());
    EXPECT_EQ(list, g_stQvfsFileList);
    EXPECT_EQ(3, sbx_.ipc_objects());  // the owner list, the pool, the state segment
}

TEST_F(PoolTest, BadRequestsFailWithTheirCodesAndChangeNothing) {
    EXPECT_ERR(nullptr, QVFS_ERR_BADARG, fsc_TfMalloc(1, QVFS_FILE_REC_SIZE));  // nothing attached
    ASSERT_EQ(0, fsc_ShareInit());
    void* recs[2] = {fsc_TfMalloc(100, QVFS_FILE_REC_SIZE), fsc_BfMalloc(200, QVFS_BLKFILE_REC_SIZE)};
    ASSERT_TRUE(recs[0] && recs[1]);
    EXPECT_ERR(nullptr, QVFS_ERR_BADHANDLE, fsc_TfMalloc(1, QVFS_BLKFILE_REC_SIZE));  // wrong size
    EXPECT_ERR(nullptr, QVFS_ERR_BADHANDLE, fsc_BfMalloc(0, QVFS_BLKFILE_REC_SIZE));  // owner 0 marks a free slot
    EXPECT_ERR(nullptr, QVFS_ERR_DISKNUM, fsc_DfMalloc(uint64_t{25} << 40, QVFS_DISK_REC_SIZE));
    EXPECT_ERR(nullptr, QVFS_ERR_BADHANDLE, fsc_TfGetFileInfo(1024));
    errno = 77;
    EXPECT_EQ(nullptr, fsc_TfGetFileInfo(3));  // a free slot: null, no error
    EXPECT_EQ(77, errno);

    // Frees of anything that is not a record of the kind where its share
    // index says: refused, nothing freed or detached.
    alignas(8) static unsigned char fake[QVFS_DISK_REC_SIZE];
    const struct { void (*fn)(void*); size_t off; uint32_t index; } fakes[] = {
        {fsc_TfFree, 580, 0},    {fsc_TfFree, 580, 3000}, {fsc_TfFree, 580, 600},
        {fsc_BfFree, 536, 1024}, {fsc_DfFree, 262668, 7}, {fsc_DfFree, 262668, 2050}};
    for (const auto& f : fakes) {
        qvfs::rec_put_u32(fake, f.off, f.index);
        errno = 0;
        f.fn(fake);
        EXPECT_EQ(QVFS_ERR_BADHANDLE, errno) << f.index;
    }
    fsc_BfFree(recs[0]);  // a file record given to the block-file free
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    fsc_TfFree(nullptr);

    int used = 0;
    for (uint32_t i = 0; i < QVFS_SHARE_INDEXES; ++i) used += owner(i) != 0;
    EXPECT_EQ(2, used);
    EXPECT_TRUE(owner(0) == 100 && owner(1024) == 200);
    EXPECT_EQ(3, sbx_.ipc_objects());
}

TEST_F(PoolTest, ProcessesFindTheSameRecordByOwnerKey) {
    ASSERT_EQ(0, fsc_ShareInit());
    const uint64_t fileKey = 0x1122334455667788ull, blkKey = 0x0000000100000002ull;
    Child c = Child::spawn([&](ChildLink& link) {
        FRESH_PROCESS(link);
        Rec f = kFile.get(fileKey), b = kBlkFile.get(blkKey);
        CHILD_CHECK(link, f != nullptr && b != nullptr);
        std::memcpy(f, "file-rec", 8);
        std::memcpy(b, "blk-rec", 8);
        link.send(f - pool());
        link.send(b - pool());
        return 0;
    });
    EXPECT_TRUE(c.expect(0));
    EXPECT_TRUE(c.expect(0x51000));
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(0x55667788u, g_stQvfsFileList->owner[0][0]);  // low word first
    EXPECT_EQ(0x11223344u, g_stQvfsFileList->owner[0][1]);

    // Found again here, not cleared, with its share index.
    Rec f = kFile.get(fileKey), b = kBlkFile.get(blkKey);
    ASSERT_EQ(pool(), f);
    ASSERT_EQ(pool() + 0x51000, b);
    EXPECT_TRUE(std::memcmp(f, "file-rec", 8) == 0 && std::memcmp(b, "blk-rec", 8) == 0);
    EXPECT_EQ(1024u, qvfs::rec_u32(b, 536));
    EXPECT_EQ(f, fsc_TfGetFileInfo(0));
    // A key that differs only in the high word is another owner.
    EXPECT_EQ(pool() + QVFS_FILE_REC_SIZE, kFile.get(fileKey ^ (uint64_t{1} << 63)));
}

TEST_F(PoolTest, SlotsAreFreedAtTheLastUserAndThe513thRecordHasItsOwnSegment) {
    ASSERT_EQ(0, fsc_ShareInit());
    for (const Kind& k : {kFile, kBlkFile}) {
        SCOPED_TRACE(k.firstIndex);
        const uint64_t base = uint64_t{k.firstIndex + 1} << 32;
        std::vector<Rec> r;
        for (uint32_t s = 0; s < 512; ++s) {
            r.push_back(k.get(base + s));
            ASSERT_EQ(pool() + k.poolOffset + s * k.size, r[s]);
        }
        // Still used elsewhere: kept. Last user (0 or below): slot free; the
        // lowest free slot is taken again, cleared.
        std::memset(r[1], 0xA1, 8);
        k.set_ref(r[1], 1);
        k.release(r[1]);
        EXPECT_EQ(base + 1, owner(k.firstIndex + 1));
        k.set_ref(r[1], 0);
        k.release(r[1]);
        k.set_ref(r[3], -1);
        k.release(r[3]);
        EXPECT_EQ(0u, owner(k.firstIndex + 1));
        EXPECT_EQ(r[1], k.get(base + 1000));
        EXPECT_EQ(0, r[1][0]);
        EXPECT_EQ(k.firstIndex + 1, qvfs::rec_u32(r[1], k.indexOff));
        EXPECT_EQ(r[3], k.get(base + 1001));

        // The 513th lives in the segment of share index first + 512, which
        // another process attaches by the owner key; the segment goes only
        // at the last user.
        const uint32_t index = k.firstIndex + 512;
        const int key = sbx_.share_key(static_cast<int>(index));
        Rec rec = k.get(base + 512);
        ASSERT_TRUE(rec != nullptr && !in_pool(rec));
        EXPECT_EQ(index, qvfs::rec_u32(rec, k.indexOff));
        EXPECT_EQ(k.size, segment_size(key));
        std::memcpy(rec, "parent", 6);
        k.set_ref(rec, 1);
        Child c = Child::spawn([&](ChildLink& link) {
            FRESH_PROCESS(link);
            Rec mine = k.get(base + 512);
            CHILD_CHECK(link, mine != nullptr && std::memcmp(mine, "parent", 6) == 0);
            std::memcpy(mine, "child", 5);
            k.release(mine);  // still used: only detached
            return 0;
        });
        EXPECT_CHILD_OK(c);
        EXPECT_EQ(0, std::memcmp(rec, "child", 5));
        k.release(rec);  // still shrRef 1: detached, kept
        EXPECT_EQ(base + 512, owner(index));
        rec = k.get(base + 512);
        ASSERT_NE(nullptr, rec);
        EXPECT_EQ(0, std::memcmp(rec, "child", 5));
        k.set_ref(rec, 0);
        k.release(rec);
        EXPECT_EQ(0u, owner(index));
        EXPECT_EQ(-1, segment_size(key));
        rec = k.get(base + 999);  // the slot again, a fresh segment
        ASSERT_NE(nullptr, rec);
        EXPECT_TRUE(rec[0] == 0 && owner(index) == base + 999);
    }
    const Rec seen = static_cast<Rec>(fsc_TfGetFileInfo(512));
    ASSERT_TRUE(seen != nullptr && !in_pool(seen));
    EXPECT_EQ(512u, qvfs::rec_u32(seen, 580));
}

TEST_F(PoolTest, DiskRecordsAreRegisteredOncePerDiskAndListed) {
    ASSERT_EQ(0, fsc_ShareInit());
    const uint64_t key3 = (uint64_t{3} << 40) | 0x1234;
    const Rec rec = static_cast<Rec>(fsc_DfMalloc(key3, QVFS_DISK_REC_SIZE));
    ASSERT_NE(nullptr, rec);
    EXPECT_EQ(2051u, qvfs::rec_u32(rec, qvfs::kDiskRecShmNoOff));
    EXPECT_EQ(1u, qvfs::rec_u32(rec, qvfs::kDiskRecStatOff));
    EXPECT_EQ(key3, owner(2051));
    const int segKey = sbx_.share_key(2051);
    EXPECT_EQ(QVFS_DISK_REC_SIZE, segment_size(segKey));
    const qvfs::ShareEntry e = qvfs::share_entry(3);
    EXPECT_TRUE(e.addr == rec && e.key == static_cast<uint32_t>(segKey) && e.id == shmget(segKey, 0, 0));

    // The same owner elsewhere attaches the record as it is; a new owner of
    // the disk registers it afresh.
    qvfs::rec_put_u32(rec, qvfs::kDiskRecMountedOff, 1);
    Child c = Child::spawn([&](ChildLink& link) {
        FRESH_PROCESS(link);
        Rec r = static_cast<Rec>(fsc_DfMalloc(key3, QVFS_DISK_REC_SIZE));
        CHILD_CHECK(link, r != nullptr && qvfs::rec_u32(r, qvfs::kDiskRecMountedOff) == 1);
        r = static_cast<Rec>(fsc_DfMalloc(key3 + 1, QVFS_DISK_REC_SIZE));
        CHILD_CHECK(link, r != nullptr && qvfs::rec_u32(r, qvfs::kDiskRecMountedOff) == 0);
        return 0;
    });
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(key3 + 1, owner(2051));

    // The share table: a banner, then one row per disk with a record; a
    // buffer too small for the banner gets nothing, a short one is cut.
    char buf[512], small[100];
    std::memset(buf, '#', sizeof buf);
    EXPECT_EQ(0, fsc_GetDebugInfo(buf, 99));
    EXPECT_EQ('#', buf[0]);
    ASSERT_NE(nullptr, fsc_DfMalloc((uint64_t{24} << 40) | 1, QVFS_DISK_REC_SIZE));
    ASSERT_NE(nullptr, fsc_DfMalloc(1, QVFS_DISK_REC_SIZE));
    const int len = fsc_GetDebugInfo(buf, sizeof buf);
    const std::string text(buf);
    ASSERT_EQ(text.size(), static_cast<size_t>(len));
    EXPECT_EQ(0u, text.find("===========Share Mem============\nindex\tid\tkey\t\tpointer\n0\t"));
    char row[128];
    std::snprintf(row, sizeof row, "\n3\t%d\t0x%x\t%p\n24\t", e.id, e.key, e.addr);
    EXPECT_NE(std::string::npos, text.find(row)) << text;
    EXPECT_EQ(5, std::count(text.begin(), text.end(), '\n'));
    EXPECT_GE(fsc_GetDebugInfo(small, sizeof small), 100);
    EXPECT_EQ(text.substr(0, 99), small);

    // Freed whatever the counts say: segment and owner gone, table entry kept.
    fsc_DfFree(rec);
    EXPECT_TRUE(owner(2051) == 0 && segment_size(segKey) == -1);
    EXPECT_EQ(rec, qvfs::share_entry(3).addr);
}

}  // namespace
