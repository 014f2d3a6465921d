// Common services and the platform: disk naming, recording file names, the
// shared parameter, inter-process locks (a holder killed with SIGKILL), keys
// and the shared record pool across processes, the sandbox's own teardown,
// a real loop device, the fault table and the task device.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <linux/loop.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cctype>
#include <filesystem>
#include <thread>

#include "common/keys.h"
#include "support/child.h"
#include "support/fixture.h"

namespace {

// ---- naming

using namespace qvfs::test;

TEST(Naming, DevicePathsDiskNumbersAndCharacters) {
    char buf[32] = "untouched";
    EXPECT_ERR(-1, QVFS_ERR_DISKNUM, bf_GetPath(25, buf));
    EXPECT_STREQ("untouched", buf);
    for (uint32_t d = 0; d < QVFS_MAX_DISKS; ++d) {
        ASSERT_EQ(0, bf_GetPath(d, buf));
        EXPECT_EQ(Sandbox::device_path(int(d)), buf);
        EXPECT_EQ(int(d), fsc_GetDiskNumByPath(buf));
        // Every disk's (location, digit) pair of a name reads back as the disk.
        EXPECT_EQ(d, fsc_DiskAtoI(fsc_DiskToLocation(int(d))) * 24 + fsc_DiskAtoI(fsc_DiskItoA(d)));
    }
    const struct { const char* path; int want; } cases[] = {
        {"/mnt/x/dev/scsi/host12/part1", 12},                // the prefix may be anywhere
        {"/dev/scsi/hostab/part1", 0},                       // no digit: disk 0
        {"/dev/scsi/host99/part1", 99},                      // not range-checked here
        {"/dev/scsi/host01/dev/scsi/host02", 1},             // the first occurrence counts
        {"/dev/scsi/host99999999999999999999", 2147483647},  // saturates
        {"", -1}, {"/dev/sda1", -1}, {"/dev/scsi/Host07", -1},  // no prefix: -1, errno kept
    };
    for (const auto& c : cases) {
        errno = 4242;
        EXPECT_EQ(c.want, fsc_GetDiskNumByPath(c.path)) << c.path;
        EXPECT_EQ(4242, errno) << c.path;
    }
    EXPECT_ERR(-1, QVFS_ERR_BADARG, fsc_GetDiskNumByPath(nullptr));
    EXPECT_EQ('?', fsc_DiskItoA(25));
    for (int c = -300; c < 600; ++c) {  // base-36 digits in either case; anything else is 0
        const bool alnum = c >= 0 && c < 128 && std::isalnum(c);
        EXPECT_EQ(!alnum ? 0 : std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10, int(fsc_DiskAtoI(c))) << c;
    }
}

std::string stem(uint32_t disk, int32_t block, uint32_t slice, uint8_t* tag, uint32_t kind) {
    char out[32];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(0, _bf_MakeFileName(disk, block, slice, out, tag, kind));
    return out;
}

TEST(FileName, MakeAndParse) {
    uint8_t fresh[8] = {};
    const std::string s = stem(3, 0x12, 1, fresh, 0), code = s.substr(12, 4);
    EXPECT_EQ("H30000120001" + code + "0000C03.", s);
    EXPECT_TRUE(std::all_of(code.begin(), code.end(), [](char c) { return std::isdigit(c) || (c >= 'A' && c <= 'F'); }));
    EXPECT_EQ("QVND" + code, std::string(reinterpret_cast<char*>(fresh), 8)) << "the tag becomes magic and check code";
    // A set tag keeps its code exactly, case kept.
    uint8_t tag[8] = {'Q', 'V', 'N', 'D', 'a', 'B', '1', '9'};
    EXPECT_EQ("H30000120001aB190000L03.", stem(3, 0x12, 1, tag, 1));
    EXPECT_EQ("H30000120001aB190000B03.", stem(3, 0x12, 1, tag, 2));
    EXPECT_EQ("Hb0000000002aB190000C0b.", stem(11, 0, 2, tag, 7));  // disks 10..24 are letters, location '0'
    EXPECT_EQ("HoABCDEFFFFFaB190000C0o.", stem(24, 0xABCDEF, 0xFFFF, tag, 0));
    // {disk, block} of a name or a path ending in one; -1 leaves the output.
    const struct { const char* name; int disk; uint32_t block; } rows[] = {
        {"H5ABCDEF00011A2B0000C05.rvd", 5, 0xABCDEF},
        {"/dev/scsi/host07/H5000123000112340000C05.rvd", 7, 0x123},  // the device prefix decides the disk
        {"some/dir/Ha0000FF000112340000C0a.jpg", 10, 0xFF},
        {"H0000001000112340000C10.rvd", 24, 1},  // location '1' counts 24 disks
        {"H00012zz000112340000C00.rvd", 0, 0x12},  // hex stops at the first non-hex
        {"H5ABCDEF00011A2B0000C05rvd", -1, 0}, {"H5ABCDEF00011A2B0000C5.rvd", -1, 0},
        {"a.H5ABCDEF00011A2B0000C05.rvd", -1, 0}, {"", -1, 0}, {nullptr, -1, 0},
    };
    for (const auto& r : rows) {
        uint32_t out[2] = {99, 99};
        errno = 0;
        EXPECT_EQ(r.disk < 0 ? -1 : 0, _bf_ParseFileName(r.name, out)) << (r.name ? r.name : "null");
        EXPECT_EQ(std::make_tuple(r.disk < 0 ? 99u : uint32_t(r.disk), r.disk < 0 ? 99u : r.block, 0),
                  std::make_tuple(out[0], out[1], errno));
    }
    const std::string made = stem(24, 0x1FFFF, 0x0FFF, fresh, 1) + "rvd";
    uint32_t out[2] = {};
    EXPECT_EQ(0, _bf_ParseFileName(made.c_str(), out));
    EXPECT_EQ(std::make_pair(24u, 0x1FFFFu), std::make_pair(out[0], out[1])) << "made names parse back";
}

TEST(FileName, SixteenAndTwentySevenCharacterForms) {
    // Kind, location and disk come back as "C00"; an extension other than
    // jpg and rvd as rvd.
    const struct { const char* name; uint8_t ext; const char* back; } rows[] = {
        {"H3000012000112AB0000L03.jpg", 1, "H3000012000112AB0000C00.jpg"},
        {"H3000012000112AB0000C03.rvd", 0, "H3000012000112AB0000C00.rvd"},
        {"H3000012000112AB0000C03.avi", 0xFF, "H3000012000112AB0000C00.rvd"},
    };
    uint8_t n16[16];
    char back[64];
    for (const auto& r : rows) {
        ASSERT_EQ(0, fsc_FileName27To16(n16, r.name));
        EXPECT_EQ(0, std::memcmp(n16, r.name + 1, 15));
        ASSERT_EQ(0, fsc_FileName16To27(n16, back, sizeof back));
        EXPECT_EQ(std::make_pair(r.ext, std::string(r.back)), std::make_pair(n16[15], std::string(back)));
    }
    // Refusals leave the output; 28 bytes with no terminator are not read on.
    char unterminated[28];
    std::memset(unterminated, 'H', sizeof unterminated);
    std::memset(n16, 0xAA, sizeof n16);
    for (const char* bad : {"", "H3000012000112AB0000C03.rv", "H3000012000112AB0000C03.rvdd", (const char*)unterminated})
        EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, fsc_FileName27To16(n16, bad));
    EXPECT_EQ(std::vector<uint8_t>(16, 0xAA), std::vector<uint8_t>(n16, n16 + 16));
    // Byte 0 zero stands for no name; the output size bounds the text.
    const uint8_t none[16] = {0, '5'};
    std::memset(back, 'z', sizeof back);
    EXPECT_EQ(0, fsc_FileName16To27(none, back, sizeof back));
    EXPECT_EQ('z', back[0]);
    ASSERT_EQ(0, fsc_FileName27To16(n16, "H3000012000112AB0000C03.rvd"));
    EXPECT_EQ(0, fsc_FileName16To27(n16, back, 10));
    EXPECT_STREQ("H30000120", back);
}

// ---- inter-process locks

class Locks : public SandboxTest {
protected:
    void SetUp() override { qvfs::pool_reset_process_state(); }  // no key cached from another root
};
int value(int id) { return semctl(id, 0, GETVAL); }

TEST_F(Locks, InitRefusesBadKeysAndReopensTheSameSetUntouched) {
    errno = 4242;
    EXPECT_EQ(std::make_pair(-1, -1), std::make_pair(fsc_ProcLockInit(0), fsc_ProcLockInit(-1)));
    EXPECT_EQ(4242, errno);
    EXPECT_EQ(0, sbx_.ipc_objects());
    const int key = qvfs::layer_key(qvfs::kProjBlkMutex);
    ASSERT_EQ(sbx_.layer_key(99), key);
    const int id = fsc_ProcLockInit(key);
    ASSERT_GE(id, 0);
    fsc_ProcLock(id);
    EXPECT_EQ(id, fsc_ProcLockInit(key));
    EXPECT_EQ(0, value(id)) << "a held lock stays held";
    errno = 1002;  // the error a call is about to report survives the release
    fsc_ProcUnlock(id);
    EXPECT_EQ(1002, errno);
    EXPECT_EQ(std::make_pair(1, 1), std::make_pair(value(id), sbx_.ipc_objects()));
    // No lock, and a removed set: both calls return at once, silently.
    errno = 55;
    fsc_ProcLock(-1);
    fsc_ProcUnlock(-1);
    ASSERT_EQ(0, semctl(id, 0, IPC_RMID));
    fsc_ProcLock(id);
    EXPECT_EQ(55, errno);
}

// Released together, each process creates or opens the lock, then counts
// under it: read, pause, write, so that any overlap of two holders loses a count.
TEST_F(Locks, ProcessesRacingToCreateShareOneLockThatExcludesThem) {
    const int key = qvfs::record_lock_key(700);
    ASSERT_EQ(sbx_.share_key(700) + 0x10000, key);
    auto* counter = static_cast<long*>(mmap(nullptr, sizeof(long), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(MAP_FAILED, static_cast<void*>(counter));
    *counter = 0;
    constexpr int kProcs = 4, kRounds = 300;
    std::vector<Child> kids;
    for (int p = 0; p < kProcs; ++p)
        kids.push_back(Child::spawn([&](ChildLink& link) {
            int64_t go = 0;
            CHILD_CHECK(link, link.recv(&go));
            const int id = fsc_ProcLockInit(key);
            link.send(id);
            for (int r = 0; r < kRounds; ++r) {
                fsc_ProcLock(id);
                const long v = __atomic_load_n(counter, __ATOMIC_RELAXED);
                if (r % 8 == 0) sched_yield();
                __atomic_store_n(counter, v + 1, __ATOMIC_RELAXED);
                fsc_ProcUnlock(id);
            }
            return 0;
        }));
    for (auto& k : kids) ASSERT_TRUE(k.send(1));
    std::vector<int64_t> ids(kProcs, -1);
    for (int p = 0; p < kProcs; ++p) ASSERT_TRUE(kids[p].recv(&ids[p]));
    for (auto& k : kids) EXPECT_CHILD_OK(k);
    EXPECT_GE(ids[0], 0);
    EXPECT_EQ(std::vector<int64_t>(kProcs, ids[0]), ids);
    EXPECT_EQ(std::make_pair(long{kProcs} * kRounds, 1), std::make_pair(*counter, value(int(ids[0]))));
    munmap(counter, sizeof(long));
}

std::atomic<int> g_signals{0};

// A waiter on a lock another process holds: signals do not end its wait,
// killing the holder gives the lock to it.
TEST_F(Locks, AWaitSurvivesSignalsAndAKilledHolderGivesTheLockBack) {
    const int id = fsc_ProcLockInit(qvfs::layer_key(qvfs::kProjFileMutex));
    ASSERT_GE(id, 0);
    Child holder = Child::spawn([&](ChildLink& link) {
        fsc_ProcLock(id);
        link.send(1);
        return pause(), 0;
    });
    ASSERT_TRUE(holder.expect(1));
    struct sigaction sa {};  // no SA_RESTART: the waiter's semop sees EINTR
    sa.sa_handler = [](int) { g_signals.fetch_add(1); };
    ASSERT_EQ(0, sigaction(SIGUSR1, &sa, nullptr));
    auto one_waiter = [&] {  // polls for about five seconds
        for (int i = 0; i < 500 && semctl(id, 0, GETNCNT) != 1; ++i) usleep(10000);
        return semctl(id, 0, GETNCNT) == 1;
    };
    std::atomic<bool> acquired{false};
    std::atomic<int> errnoAfter{0};
    std::thread waiter([&] {
        errno = 777;
        fsc_ProcLock(id);
        errnoAfter = errno, acquired = true;
        fsc_ProcUnlock(id);
    });
    ASSERT_TRUE(one_waiter());
    for (int i = 0; i < 5; ++i, usleep(20000)) pthread_kill(waiter.native_handle(), SIGUSR1);
    EXPECT_GE(g_signals.load(), 1);
    EXPECT_FALSE(acquired.load()) << "the waiter got a held lock";
    EXPECT_TRUE(one_waiter()) << "the waiter gave up";
    EXPECT_EQ(Child::signalled(SIGKILL), holder.kill_now());
    for (int i = 0; i < 500 && !acquired; ++i) usleep(10000);
    EXPECT_TRUE(acquired.load()) << "the killed holder kept the lock";
    if (!acquired) fsc_ProcUnlock(id);
    waiter.join();
    EXPECT_EQ(std::make_pair(777, 1), std::make_pair(errnoAfter.load(), value(id)));
    signal(SIGUSR1, SIG_DFL);
}

// ---- keys and the shared record pool

using Rec = unsigned char*;

// The pool reads and writes these words inside the layers' records.
static_assert(qvfs::kFileRecShrRefOff == offsetof(TQvFileRec, shrRef));
static_assert(qvfs::kFileRecIndexOff == offsetof(TQvFileRec, shareIndex));
static_assert(qvfs::kBlkRecShrRefOff == offsetof(TQvBlkShare, shrRef));
static_assert(qvfs::kBlkRecIndexOff == offsetof(TQvBlkShare, shareIndex));
static_assert(qvfs::kDiskRecMapIndexOff == offsetof(TQvDiskShare, mapIndex));
static_assert(qvfs::kDiskRecStatOff == offsetof(TQvDiskShare, stat));
static_assert(qvfs::kDiskRecMountedOff == offsetof(TQvDiskShare, mounted));
static_assert(qvfs::kDiskRecShmNoOff == offsetof(TQvDiskShare, shmNo));
static_assert(QVFS_DISK_REC_SIZE == sizeof(TQvDiskShare));

class Pool : public SandboxTest {
protected:
    void SetUp() override { qvfs::pool_reset_process_state(); }
    void TearDown() override { qvfs::pool_reset_process_state(); }
};
uint64_t owner(uint32_t i) { return (uint64_t{g_stQvfsFileList->owner[i][1]} << 32) | g_stQvfsFileList->owner[i][0]; }
Rec pool() { return static_cast<Rec>(g_stQvfsShrPool); }
long segment_size(int key) {  // -1 when there is none
    struct shmid_ds ds;
    const int id = shmget(key, 0, 0);
    return id >= 0 && shmctl(id, IPC_STAT, &ds) == 0 ? long(ds.shm_segsz) : -1;
}

// (The key of each index is what the sandbox computes: the other Pool and
// Locks tests find their records and locks under the sandbox's keys.)
TEST_F(Pool, KeysFollowTheKeyFileRuleAndShareInitAttachesOnce) {
    errno = 4242;
    EXPECT_EQ(std::make_pair(-1, -1), std::make_pair(fsc_GetShmKey(-1), fsc_GetShmKey(2073)));
    EXPECT_EQ(4242, errno);
    EXPECT_ERR(-1, QVFS_ERR_BADARG, fsc_GetShareKey("", 1));
    EXPECT_ERR(-1, QVFS_ERR_PROJID, fsc_GetShareKey("/dvr/qvfs/qvfs0", 256));
    const int made = fsc_GetShareKey("/dvr/qvfs/extra", 127);  // first: it makes the key file
    EXPECT_EQ(::ftok(sbx_.real("/dvr/qvfs/extra").c_str(), 127), made) << "made empty";
    // Without the key directory nothing attaches.
    const std::string dir = sbx_.real("/dvr/qvfs");
    std::filesystem::rename(dir, dir + ".away");
    EXPECT_ERR(-1, QVFS_ERR_SYS + ENOENT, fsc_ShareInit());
    std::filesystem::rename(dir + ".away", dir);
    ASSERT_EQ(0, fsc_ShareInit());
    void* list = g_stQvfsFileList;
    ASSERT_EQ(0, fsc_ShareInit());
    EXPECT_EQ(std::make_tuple(long{QVFS_FILE_LIST_SIZE}, long{QVFS_SHR_POOL_SIZE}, uint8_t{1}, list, 3),
              std::make_tuple(segment_size(sbx_.layer_key(65)), segment_size(sbx_.layer_key(66)),
                              g_stQvfsFileList->param1, (void*)g_stQvfsFileList, sbx_.ipc_objects()));
}

TEST_F(Pool, BadRequestsFailWithTheirCodesAndChangeNothing) {
    EXPECT_ERR(nullptr, QVFS_ERR_BADARG, fsc_TfMalloc(1, QVFS_FILE_REC_SIZE));  // nothing attached
    ASSERT_EQ(0, fsc_ShareInit());
    void* file = fsc_TfMalloc(100, QVFS_FILE_REC_SIZE);
    ASSERT_TRUE(file && fsc_BfMalloc(200, QVFS_BLKFILE_REC_SIZE));
    EXPECT_NE(file, fsc_TfMalloc(100 | (uint64_t{1} << 63), QVFS_FILE_REC_SIZE)) << "the high word makes another owner";
    EXPECT_ERR(nullptr, QVFS_ERR_BADHANDLE, fsc_TfMalloc(1, QVFS_BLKFILE_REC_SIZE));  // wrong size
    EXPECT_ERR(nullptr, QVFS_ERR_BADHANDLE, fsc_BfMalloc(0, QVFS_BLKFILE_REC_SIZE));  // owner 0 marks a free slot
    EXPECT_ERR(nullptr, QVFS_ERR_DISKNUM, fsc_DfMalloc(uint64_t{25} << 40, QVFS_DISK_REC_SIZE));
    EXPECT_ERR(nullptr, QVFS_ERR_BADHANDLE, fsc_TfGetFileInfo(1024));
    EXPECT_ERR(nullptr, 0, fsc_TfGetFileInfo(3));  // a free slot
    // Frees of anything that is not a record of the kind where its share index says.
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
    errno = 0;
    fsc_BfFree(file);  // a file record given to the block-file free
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    int used = 0;
    for (uint32_t i = 0; i < QVFS_SHARE_INDEXES; ++i) used += owner(i) != 0;
    EXPECT_EQ(std::make_tuple(3, uint64_t{100}, uint64_t{200}, 3), std::make_tuple(used, owner(0), owner(1024), sbx_.ipc_objects()));
}

// For each kind: 512 records in the pool; the 513th lives in a segment of
// its own that another process attaches by the owner key; slots and
// segments go at the last user, and the lowest free slot comes back cleared.
TEST_F(Pool, RecordsFoundByOwnerKeyAcrossProcessesAndFreedAtTheLastUser) {
    ASSERT_EQ(0, fsc_ShareInit());
    struct Kind {
        void* (*alloc)(uint64_t, uint32_t);
        void (*release)(void*);
        uint32_t size, first, poolOffset;
        size_t shrRefOff, indexOff;
    };
    for (const Kind& k : {Kind{fsc_TfMalloc, fsc_TfFree, QVFS_FILE_REC_SIZE, 0, 0, 576, 580},
                          Kind{fsc_BfMalloc, fsc_BfFree, QVFS_BLKFILE_REC_SIZE, 1024, 0x51000, 520, 536}}) {
        SCOPED_TRACE(k.first);
        const uint64_t base = (uint64_t{k.first + 1} << 32) | 0x11223344;  // the high word matters too
        auto get = [&](uint64_t key) { return static_cast<Rec>(k.alloc(key, k.size)); };
        for (uint32_t s = 0; s < 512; ++s) ASSERT_EQ(pool() + k.poolOffset + s * k.size, get(base + s));
        Rec r1 = get(base + 1);  // found again, not cleared
        std::memset(r1, 0xA1, 8);
        EXPECT_EQ(r1, get(base + 1));
        EXPECT_EQ(std::make_pair(k.first + 1, 0xA1), std::make_pair(qvfs::rec_u32(r1, k.indexOff), int(r1[0])));
        qvfs::rec_put_u32(r1, k.shrRefOff, 1);
        k.release(r1);
        EXPECT_EQ(base + 1, owner(k.first + 1)) << "still used elsewhere: kept";
        qvfs::rec_put_u32(r1, k.shrRefOff, 0);
        k.release(r1);
        EXPECT_EQ(0u, owner(k.first + 1));
        EXPECT_EQ(r1, get(base + 1000)) << "the lowest free slot";
        EXPECT_EQ(0, r1[0]) << "cleared";
        const uint32_t index = k.first + 512;
        const int key = sbx_.share_key(int(index));
        Rec rec = get(base + 512);
        ASSERT_TRUE(rec != nullptr && (rec < pool() || rec >= pool() + QVFS_SHR_POOL_SIZE));
        EXPECT_EQ(std::make_pair(index, long(k.size)), std::make_pair(qvfs::rec_u32(rec, k.indexOff), segment_size(key)));
        std::memcpy(rec, "parent", 6);
        qvfs::rec_put_u32(rec, k.shrRefOff, 1);
        Child c = Child::spawn([&](ChildLink& link) {
            qvfs::pool_reset_process_state();
            Rec mine = fsc_ShareInit() == 0 ? get(base + 512) : nullptr;
            CHILD_CHECK(link, mine != nullptr && std::memcmp(mine, "parent", 6) == 0);
            std::memcpy(mine, "child", 5);
            k.release(mine);  // still used: only detached
            return 0;
        });
        EXPECT_CHILD_OK(c);
        k.release(rec);  // still shrRef 1: detached, kept
        rec = get(base + 512);
        ASSERT_TRUE(rec != nullptr && std::memcmp(rec, "child", 5) == 0 && owner(index) == base + 512);
        qvfs::rec_put_u32(rec, k.shrRefOff, 0);
        k.release(rec);
        EXPECT_EQ(std::make_pair(uint64_t{0}, -1l), std::make_pair(owner(index), segment_size(key)));
    }
}

TEST_F(Pool, DiskRecordsAreRegisteredOncePerDisk) {
    ASSERT_EQ(0, fsc_ShareInit());
    const uint64_t key3 = (uint64_t{3} << 40) | 0x1234;
    const Rec rec = static_cast<Rec>(fsc_DfMalloc(key3, QVFS_DISK_REC_SIZE));
    ASSERT_NE(nullptr, rec);
    const int segKey = sbx_.share_key(2051);
    EXPECT_EQ(std::make_tuple(2051u, 1u, key3, long{QVFS_DISK_REC_SIZE}),
              std::make_tuple(qvfs::rec_u32(rec, qvfs::kDiskRecShmNoOff), qvfs::rec_u32(rec, qvfs::kDiskRecStatOff),
                              owner(2051), segment_size(segKey)));
    const qvfs::ShareEntry e = qvfs::share_entry(3);
    EXPECT_TRUE(e.addr == rec && e.key == uint32_t(segKey) && e.id == shmget(segKey, 0, 0));
    // The same owner elsewhere attaches the record as it is; a new owner of
    // the disk registers it afresh.
    qvfs::rec_put_u32(rec, qvfs::kDiskRecMountedOff, 1);
    Child c = Child::spawn([&](ChildLink& link) {
        qvfs::pool_reset_process_state();
        Rec r = fsc_ShareInit() == 0 ? static_cast<Rec>(fsc_DfMalloc(key3, QVFS_DISK_REC_SIZE)) : nullptr;
        CHILD_CHECK(link, r != nullptr && qvfs::rec_u32(r, qvfs::kDiskRecMountedOff) == 1);
        r = static_cast<Rec>(fsc_DfMalloc(key3 + 1, QVFS_DISK_REC_SIZE));
        CHILD_CHECK(link, r != nullptr && qvfs::rec_u32(r, qvfs::kDiskRecMountedOff) == 0);
        return 0;
    });
    EXPECT_CHILD_OK(c);
    EXPECT_EQ(key3 + 1, owner(2051));
    fsc_DfFree(rec);  // freed whatever the counts say: segment and owner gone
    EXPECT_EQ(std::make_pair(uint64_t{0}, -1l), std::make_pair(owner(2051), segment_size(segKey)));
}

// ---- the platform

namespace plat = qvfs::plat;
using PlatformTest = SandboxTest;

// A real block device: a loop device over a sparse image, linked where the
// library opens disk 6. Needs the rights to attach one.
TEST_F(PlatformTest, LoopDeviceSizeAndPresence) {
    const int ctl = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    const int n = ctl < 0 ? -1 : ::ioctl(ctl, LOOP_CTL_GET_FREE);
    if (ctl >= 0) ::close(ctl);
    const std::string loop = "/dev/loop" + std::to_string(n);
    const int lfd = n < 0 ? -1 : ::open(loop.c_str(), O_RDWR | O_CLOEXEC);
    sbx_.add_disk(7, 64 << 20);
    const int backing = ::open(sbx_.image_path(7).c_str(), O_RDWR | O_CLOEXEC);
    const bool attached = lfd >= 0 && ::ioctl(lfd, LOOP_SET_FD, backing) == 0;
    ::close(backing);
    if (!attached) {
        if (lfd >= 0) ::close(lfd);
        GTEST_SKIP() << "no loop device to attach";
    }
    struct Detach {
        int fd;
        ~Detach() { ::ioctl(fd, LOOP_CLR_FD, 0), ::close(fd); }
    } detach{lfd};
    const std::string dev = Sandbox::device_path(6);
    ASSERT_EQ(0, ::mkdir(sbx_.real("/dev/scsi/host06").c_str(), 0777));
    ASSERT_EQ(0, ::symlink(loop.c_str(), sbx_.real(dev).c_str()));
    EXPECT_EQ(int64_t(64 << 20), plat::device_size(dev.c_str()));
    const int fd = plat::open_device(dev.c_str(), O_RDWR);
    EXPECT_TRUE(fd >= 0 && plat::device_present(fd)) << "the loop driver does not know the request";
    const int id = plat::fault_add({.disk = 6, .ops = plat::kFaultOffline});
    EXPECT_FALSE(plat::device_present(fd));
    plat::fault_clear(id);
    plat::close_fd(fd);
}

// (Left to x86_64 by scripts/armhf.sh: the emulator answers the list request with ENOSYS.)
TEST_F(PlatformTest, TaskDeviceIsOpenedBelowTheRoot) {
    std::array<int32_t, 21> list{};
    ASSERT_EQ(0, plat::make_dirs("/dev"));
    ASSERT_EQ(0, plat::create_key_file("/dev/qvfs_task"));
    const int fd = plat::open_task_device();
    ASSERT_GT(fd, 0);
    EXPECT_EQ(O_RDWR | O_NONBLOCK, ::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
    EXPECT_ERR(-1, ENOTTY, plat::task_list(fd, list.data()));
    ::close(fd);
}

}  // namespace
