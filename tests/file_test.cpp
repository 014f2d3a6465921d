// The file layer: the file table and shared records across processes, the
// user-data store (damaged areas included), status and information round
// trips, and the reclamation of files held by processes killed with SIGKILL.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>

#include "support/child.h"
#include "support/fixture.h"

namespace {

// ---- the file table

using namespace qvfs::test;
using qvfs::file::kFileTableSize;
using qvfs::file::table_entry;

int used_table_slots() {
    int n = 0;
    for (uint32_t i = 0; i < kFileTableSize; ++i) n += table_entry(i) != nullptr;
    return n;
}
int used_share_slots() {
    int n = 0;
    for (uint32_t i = 0; i < qvfs::file::kFileShareIndexes; ++i) n += (g_stQvfsFileList->owner[i][0] | g_stQvfsFileList->owner[i][1]) != 0;
    return n;
}

TEST_F(FileTest, BadNamesAndFailedOpensLeaveNoTrace) {
    TFile f = tf_create();
    ASSERT_EQ(0, tf_CloseFile(f.h));
    const int shares = used_share_slots();
    std::string noDot = f.name, otherDisk = f.name, wrongCode = f.name;
    noDot.erase(23, 1);
    otherDisk.replace(21, 2, "05");                    // disk 5: not mounted
    wrongCode[12] = wrongCode[12] == 'F' ? 'E' : 'F';  // well formed; the block layer refuses it
    for (const std::string& name : {std::string(), noDot, std::string("abc.rvd"), f.name.substr(2), otherDisk,
                                    "/dev/scsi/host07/part1/" + f.name /* the path's disk wins */, wrongCode}) {
        SCOPED_TRACE(name);
        errno = 0;
        EXPECT_EQ(nullptr, tf_open(name));
        // Any code for the wrong check code; the handle and record made for it are given back.
        EXPECT_TRUE(name == wrongCode || errno == QVFS_ERR_BADHANDLE) << "errno " << errno;
        EXPECT_EQ(std::make_pair(0, shares), std::make_pair(used_table_slots(), used_share_slots()));
    }
    const TQvfsOpenParam p = param();
    EXPECT_EQ(nullptr, tf_OpenFile(nullptr, nullptr));
    EXPECT_EQ(nullptr, tf_OpenFile(&p, nullptr));
    TQvFileHandle* h = tf_open(f.name);
    ASSERT_NE(nullptr, h) << "the real name still opens";
    EXPECT_EQ(0, tf_CloseFile(h));
}

TEST_F(FileTest, TheFileTableHolds1024Files) {
    TQvfsOpenParam p = param(2, 0, 0, 0);
    char name[64] = {};
    std::vector<TQvFileHandle*> open;
    for (uint32_t i = 0; i < kFileTableSize; ++i) {
        open.push_back(tf_OpenFile(&p, name));
        ASSERT_TRUE(open.back() != nullptr && open.back()->index == i) << "file " << i << " errno " << errno;
    }
    EXPECT_GE(open.back()->rec->shareIndex, 512) << "beyond the pool: a segment of its own";
    EXPECT_ERR(nullptr, QVFS_ERR_BADHANDLE, tf_OpenFile(&p, name));
    ASSERT_EQ(0, tf_CloseFile(open[100]));
    TQvFileHandle* again = tf_OpenFile(&p, name);
    ASSERT_NE(nullptr, again) << "errno " << errno;
    EXPECT_EQ(100u, again->index);
    EXPECT_EQ(0, tf_Uninit());
    EXPECT_EQ(std::make_pair(0, 0), std::make_pair(used_table_slots(), used_share_slots()));
}

TEST_F(FileTest, ProcessesShareOneRecordAndTheNinthHasNoOwnerSlot) {
    TFile f = tf_create();
    TQvFileRec* rec = f.h->rec;
    const uint32_t index = uint32_t(rec->shareIndex);
    ASSERT_EQ(f.h, tf_open(f.name)) << "one handle per file and process";
    EXPECT_EQ(std::make_tuple(2, 2, 2), std::make_tuple(f.h->inRef, rec->shrRef, owner_count(rec, getpid())));
    ASSERT_EQ(0, tf_CloseFile(f.h));
    ASSERT_EQ(0, tf_CloseFile(f.h));  // children start with an empty file table
    EXPECT_EQ(std::make_pair(false, -1), std::make_pair(share_slot_used(index), owner_count(rec, getpid())))
        << "the record and the owner slot are given back (a pool record stays readable)";
    std::vector<Child> kids;
    for (int i = 0; i < 8; ++i) {
        kids.push_back(Child::spawn([name = f.name](ChildLink& link) {
            TQvFileHandle* h = tf_open(name);
            int64_t cmd = 0;
            CHILD_CHECK(link, h != nullptr && h->inRef == 1 && link.send(h->rec->shrRef));
            CHILD_CHECK(link, link.recv(&cmd) && tf_CloseFile(h) == 0);
            return 0;
        }));
        ASSERT_TRUE(kids.back().expect(i + 1)) << kids.back().describe(kids.back().wait());  // one record for all
    }
    TQvFileHandle* h = tf_open(f.name);
    ASSERT_NE(nullptr, h);
    rec = h->rec;
    EXPECT_EQ(std::make_tuple(index, 9, -1), std::make_tuple(uint32_t(rec->shareIndex), rec->shrRef, owner_count(rec, getpid())));
    ASSERT_EQ(0, tf_CloseFile(h));  // a pool record: it stays mapped
    EXPECT_EQ(8, rec->shrRef);
    for (Child& k : kids) {
        EXPECT_EQ(1, owner_count(rec, k.pid()));
        k.send(1);
        EXPECT_CHILD_OK(k);
    }
    EXPECT_FALSE(share_slot_used(index));
}

// ---- status and information

// A slice entry whose user-data area starts as `raw`, with guard bytes
// behind it that no converter may touch.
struct Guarded {
    TQvBlkSliceInfo s{};
    uint8_t guard[64];
    explicit Guarded(const std::string& raw = "") {
        std::memcpy(s.userData, raw.data(), raw.size());
        std::memset(guard, 0xA5, sizeof guard);
    }
    bool intact() const { return std::all_of(guard, guard + sizeof guard, [](uint8_t g) { return g == 0xA5; }); }
    std::string area(size_t n = 356) const { return std::string(reinterpret_cast<const char*>(s.userData), n); }
};
std::string entry(uint16_t id, const std::string& data, uint16_t len = 0) {
    std::string e(4, '\0');
    len = len != 0 ? len : uint16_t(data.size());
    std::memcpy(e.data(), &id, 2), std::memcpy(e.data() + 2, &len, 2);
    return e + data;
}
int set_ud(TQvBlkSliceInfo* s, uint32_t id, const std::string& data, uint32_t len = 0) {
    TQvFileInfo item{const_cast<char*>(data.data()), len != 0 ? len : uint32_t(data.size())};
    return _TQvFileInfoUserData2SliceReserved(&item, s, id);
}
std::string get_ud(const TQvBlkSliceInfo* s, uint32_t id, uint32_t room = 400) {
    std::string buf(room, '\0');
    TQvFileInfo item{buf.data(), room};
    if (_Slice2TQvFileInfoUserData(s, id, &item) != 0) return "<none>";
    return buf.substr(0, item.len);
}

TEST(UserData, AddAppendReplaceAndLimits) {
    Guarded g;
    const struct { uint32_t id; std::string data, list; } steps[] = {
        {4, "abcd", entry(4, "abcd")},
        {8, "xyz", entry(4, "abcd") + entry(8, "xyz")},            // appended at the marker's place
        {4, "ABCDEFGH", entry(4, "ABCDEFGH") + entry(8, "xyz")},  // longer: the entry behind moves
        {4, "Q", entry(4, "Q") + entry(8, "xyz")},                // shorter
        {8, "12345", entry(4, "Q") + entry(8, "12345")},          // the last entry
    };
    for (const auto& st : steps) {
        ASSERT_EQ(0, set_ud(&g.s, st.id, st.data)) << st.data;
        EXPECT_EQ("UDMS" + st.list + "UDME", g.area(st.list.size() + 8)) << st.data;
    }
    EXPECT_EQ(std::make_tuple(std::string("Q"), std::string("<none>"), std::string("123")),
              std::make_tuple(get_ud(&g.s, 4), get_ud(&g.s, 16), get_ud(&g.s, 8, 3)));  // the item bounds the copy
    int end = 0;
    EXPECT_EQ(std::make_tuple(9, 18, 4), std::make_tuple(_GetOffsetByFuncId(&g.s, 8, nullptr),
                                                         _GetOffsetByFuncId(&g.s, 16, nullptr), _GetOffsetByFuncId(&g.s, 4, &end)));
    EXPECT_EQ(18, end);
    // 344 bytes fill the area exactly, 345 do not; a replacement that would
    // push the entries behind it out fails and changes nothing.
    Guarded f;
    const std::string full(344, 'F');
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, set_ud(&f.s, 4, full, 345));
    EXPECT_EQ(std::string(356, '\0'), f.area());
    ASSERT_EQ(0, set_ud(&f.s, 4, full));
    ASSERT_EQ(0, set_ud(&f.s, 4, full));
    EXPECT_EQ(std::make_pair(full, std::string("UDME")), std::make_pair(get_ud(&f.s, 4), f.area().substr(352)));
    Guarded h;
    ASSERT_EQ(0, set_ud(&h.s, 4, std::string(100, 'a')));
    ASSERT_EQ(0, set_ud(&h.s, 8, std::string(100, 'b')));
    const std::string before = h.area();
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, set_ud(&h.s, 4, std::string(241, 'c')));  // 4+4+241+104+4 > 356
    EXPECT_EQ(before, h.area());
    ASSERT_EQ(0, set_ud(&h.s, 4, std::string(240, 'c')));
    EXPECT_EQ(std::make_pair(std::string(100, 'b'), std::string("UDME")), std::make_pair(get_ud(&h.s, 8), h.area().substr(352)));
    char b[4];
    TQvFileInfo noBuf{nullptr, 4}, small{b, 4};
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, _TQvFileInfoUserData2SliceReserved(&noBuf, &h.s, 4));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, set_ud(&h.s, 128, "x"));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, _TQvFileInfoUserData2SliceReserved(nullptr, &h.s, 4));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, _Slice2TQvFileInfoUserData(&h.s, 4, &noBuf));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, _Slice2TQvFileInfoUserData(&h.s, 65, &small));
    const Guarded unused;
    EXPECT_ERR(-1, 0, _Slice2TQvFileInfoUserData(&unused.s, 4, &small));  // an unused area is no error
    EXPECT_TRUE(g.intact() && f.intact() && h.intact());
}

// Damaged areas: nothing is read or written outside the area.
TEST(UserData, DamagedAreasStayInside) {
    // An entry claiming more bytes than the area holds: read to the area's
    // end; replaced, nothing behind it survives.
    Guarded g("UDMS" + entry(4, std::string(348, 'd'), 0xFFFF));
    EXPECT_EQ(std::string(348, 'd'), get_ud(&g.s, 4, 1000));
    ASSERT_EQ(0, set_ud(&g.s, 4, "fixed"));
    EXPECT_EQ("UDMS" + entry(4, "fixed") + "UDME", g.area(17));
    // No end marker before the walk runs out: a new entry starts over at 4.
    Guarded n("UDMS" + entry(4, std::string(340, 'e')));
    int end = 0;
    EXPECT_EQ(std::make_tuple(4, -1, -1), std::make_tuple(_GetOffsetByFuncId(&n.s, 8, &end), end,
                                                          _GetOffsetByFuncId(&n.s, 8, nullptr)));
    ASSERT_EQ(0, set_ud(&n.s, 8, "new"));
    EXPECT_EQ("UDMS" + entry(8, "new") + "UDME", n.area(15));
    // An append near the end is cut at the area's end.
    Guarded c("UDMS" + entry(4, std::string(332, 'f')) + "UDME");
    ASSERT_EQ(0, set_ud(&c.s, 16, std::string(100, 'g')));
    EXPECT_EQ(std::string(12, 'g'), get_ud(&c.s, 16));
    // A list ended by an entry whose function id is above 64.
    Guarded o("UDMS" + entry(4, "ab") + entry(200, "zz"));
    EXPECT_EQ(10, _GetOffsetByFuncId(&o.s, 8, nullptr));
    ASSERT_EQ(0, set_ud(&o.s, 8, "c"));
    EXPECT_EQ("UDMS" + entry(4, "ab") + entry(8, "c") + "UDME", o.area(19));
    EXPECT_TRUE(g.intact() && n.intact() && c.intact() && o.intact());
}

TEST_F(FileTest, InformationMaskWalkAndPersistence) {
    TFile prev = tf_create();
    TQvfsOpenParam p = param(1, 0, 0, 0);
    std::strncpy(p.preName, prev.name.c_str(), sizeof p.preName - 1);
    char name[64] = {}, pn[32], ud[64];
    TQvFileHandle* h = tf_OpenFile(&p, name);
    ASSERT_NE(nullptr, h);
    TQvFileInfo items[2] = {{pn, 32}, {ud, 64}};
    // No user data yet: the walk fills the name, then the user-data item fails.
    EXPECT_EQ(-1, tf_GetFileInfo(h, 1 | 4, items, 2));
    EXPECT_EQ(prev.name.substr(0, 16) + "0000C00.rvd", pn);
    // Bit 0 is not settable and consumes no item.
    TQvFileInfo hello{const_cast<char*>("hello"), 5};
    ASSERT_EQ(0, tf_SetFileInfo(h, 1 | 4, &hello, 1));
    ASSERT_EQ(0, tf_GetFileInfo(h, 1 | 4, items, 2));
    EXPECT_EQ("hello", std::string(ud, items[1].len));
    uint32_t va = 0x12345678, other = 0x99;
    TQvFileInfo two[2] = {{&va, 4}, {const_cast<char*>("xy"), 2}};
    ASSERT_EQ(0, tf_SetFileInfo(h, 2 | 8, two, 2));
    EXPECT_EQ(0x12345678u, entry_on_disk(0, name_block(name), name_slice(name)).videoAbstract);
    // A failing converter leaves record and block as they were.
    const TQvBlkSliceInfo before = h->rec->slice;
    std::string tooLong(345, 'L');
    TQvFileInfo bad[2] = {{&other, 4}, {tooLong.data(), 345}};
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, tf_SetFileInfo(h, 2 | 16, bad, 2));
    EXPECT_EQ(0, std::memcmp(&before, &h->rec->slice, sizeof before));
    // The count ends the walk; bits above 6 are ignored.
    char a[8] = "-------", b[8] = "-------";
    TQvFileInfo ab[2] = {{a, 8}, {b, 8}};
    ASSERT_EQ(0, tf_GetFileInfo(h, 4 | 8, ab, 1));
    EXPECT_EQ(std::make_pair(std::string("hello"), std::string("-------")), std::make_pair(std::string(a, 5), std::string(b)));
    ASSERT_EQ(0, tf_GetFileInfo(h, 0x80 | 8, ab, 2));
    EXPECT_EQ(std::make_pair(std::string("xy"), std::string("-------")), std::make_pair(std::string(a, 2), std::string(b)));
    EXPECT_EQ(0, tf_CloseFile(h));
    EXPECT_EQ(0, tf_CloseFile(prev.h));
}

// ---- reclaiming the files of dead processes

using qvfs::file::kPoolFileRecords;
using qvfs::file::reclaim_vanished;
using qvfs::file::task_poll;

class TaskCheck : public FileTest {
protected:
    // Two files on disk, closed: children start with an empty file table.
    void SetUp() override {
        FileTest::SetUp();
        for (std::string* n : {&a_, &b_}) {
            TFile f = tf_create();
            *n = f.name;
            ASSERT_EQ(0, tf_CloseFile(f.h));
        }
    }
    void TearDown() override {
        qvfs::plat::set_task_source(nullptr, nullptr);
        FileTest::TearDown();
    }
    // The share index of the live pool record of `name`, or -1.
    static int find_record(const std::string& name) {
        for (uint32_t i = 0; i < kPoolFileRecords; ++i)
            if (share_slot_used(i) && name == static_cast<TQvFileRec*>(fsc_TfGetFileInfo(i))->name) return int(i);
        return -1;
    }
    // A shared record held by `pid` alone, under a key no file uses.
    static TQvFileRec* fake_record(uint64_t key, pid_t pid) {
        auto* r = static_cast<TQvFileRec*>(fsc_TfMalloc(key, sizeof(TQvFileRec)));
        if (r != nullptr) r->shrRef = 1, r->owner[0] = {pid, 1};
        return r;
    }
    // A child that opens `a` once and `b` (when given) twice, and waits to be killed.
    static Child holder(const std::string& a, const std::string& b = "") {
        Child c = Child::spawn([a, b](ChildLink& link) {
            CHILD_CHECK(link, tf_open(a) != nullptr && (b.empty() || (tf_open(b) && tf_open(b))));
            link.send(1);
            return pause(), 0;
        });
        EXPECT_TRUE(c.expect(1)) << c.describe(c.wait());
        return c;
    }
    static int sysv_mappings() {
        std::ifstream in("/proc/self/maps");
        int n = 0;
        for (std::string line; std::getline(in, line);) n += line.find("SYSV") != std::string::npos;
        return n;
    }
    std::string a_, b_;
};

TEST_F(TaskCheck, ADeadProcessIsReleasedAndTheSurvivorsKeepTheirCounts) {
    EXPECT_ERR(-1, QVFS_ERR_SYS + ENOENT, tc_Init());  // the sandbox has no task device
    Child doomed = holder(a_, b_), alive = holder(b_);
    TQvFileHandle* mine = tf_open(b_);
    ASSERT_NE(nullptr, mine);
    const int ia = find_record(a_);
    ASSERT_GE(ia, 0);
    EXPECT_EQ(std::make_pair(4, 2), std::make_pair(mine->rec->shrRef, owner_count(mine->rec, doomed.pid())));
    TQvFileRec* init = fake_record(0x7700000002ull, 1);  // a process we may not signal still exists
    ASSERT_NE(nullptr, init);
    EXPECT_EQ(0, reclaim_vanished()) << "everybody is alive";
    const pid_t dead = doomed.pid();
    doomed.kill_now();
    EXPECT_TRUE(share_slot_used(uint32_t(ia))) << "nothing happens by itself";
    EXPECT_EQ(1, reclaim_vanished());
    EXPECT_FALSE(share_slot_used(uint32_t(ia))) << "held by the dead one alone: freed";
    EXPECT_EQ(std::make_tuple(2, -1, 1, 1, 1),
              std::make_tuple(mine->rec->shrRef, owner_count(mine->rec, dead), owner_count(mine->rec, alive.pid()),
                              owner_count(mine->rec, getpid()), owner_count(init, 1)));
    // A record nobody counts is freed by any sweep; counts never go below zero.
    auto* stray = static_cast<TQvFileRec*>(fsc_TfMalloc(0x7700000001ull, sizeof(TQvFileRec)));
    ASSERT_NE(nullptr, stray);
    EXPECT_EQ(0, tf_TfReleaseInvalid(dead));
    EXPECT_FALSE(share_slot_used(uint32_t(stray->shareIndex)));
    TQvFileRec r{};
    r.shrRef = 1, r.owner[3] = {77, 5};
    EXPECT_EQ(0, _tf_CheckProcessValid(&r, 77));
    EXPECT_EQ(0, r.owner[3].pid);
    // The poll without a device runs the same sweep and reports 1002.
    alive.kill_now();
    task_poll();
    EXPECT_EQ(std::make_pair(int(QVFS_ERR_BADHANDLE), 1), std::make_pair(errno, mine->rec->shrRef));
    const uint32_t ib = uint32_t(mine->rec->shareIndex);
    ASSERT_EQ(0, tf_CloseFile(mine));
    EXPECT_FALSE(share_slot_used(ib));
}

TEST_F(TaskCheck, SweepsGiveBackTheSegmentsTheyAttached) {
    // A full pool: the next records live in segments of their own.
    for (uint64_t i = 0; i < kPoolFileRecords; ++i) ASSERT_NE(nullptr, fake_record(0x7800000000ull + i, getpid()));
    TFile f = tf_create();
    ASSERT_GE(f.h->rec->shareIndex, int(kPoolFileRecords));
    Child c = holder(f.name);
    TQvFileRec* other = fake_record(0x7900000000ull, c.pid());
    ASSERT_TRUE(other != nullptr && other->shareIndex >= int(kPoolFileRecords));
    const int before = sysv_mappings();
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(0, tf_TfReleaseInvalid(999999));
        EXPECT_EQ(0, reclaim_vanished());
    }
    EXPECT_EQ(std::make_pair(before, 2), std::make_pair(sysv_mappings(), f.h->rec->shrRef));
    c.kill_now();
    EXPECT_EQ(1, reclaim_vanished());
    EXPECT_EQ(std::make_tuple(1, 0, before), std::make_tuple(f.h->rec->shrRef, other->shrRef, sysv_mappings()));
    ASSERT_EQ(0, tf_CloseFile(f.h));
}

struct FakeDevice {
    TQvTaskList list{};
    bool fail = false;
    void set(const std::vector<int32_t>& pids) {
        list = TQvTaskList{};
        list.word = 0xABCD;
        std::copy(pids.begin(), pids.end(), list.pid);
    }
    static int read(void* out, void* ctx) {
        auto* dev = static_cast<FakeDevice*>(ctx);
        if (dev->fail) return errno = EIO, -1;
        std::memcpy(out, &dev->list, sizeof dev->list);
        return 0;
    }
};

TEST_F(TaskCheck, DeviceListDifferenceReleasesOnlyWhoLeftTheList) {
    Child c1 = holder(a_), c2 = holder(a_);
    TQvFileHandle* mine = tf_open(a_);
    ASSERT_NE(nullptr, mine);
    TQvFileRec* rec = mine->rec;
    FakeDevice dev;
    qvfs::plat::set_task_source(FakeDevice::read, &dev);
    qvfs::file::task_reset();
    ASSERT_EQ(0, tc_Init());
    const int32_t self = int32_t(getpid()), p1 = c1.pid(), p2 = c2.pid();
    // {list, opens left, c1's count}: the first list only becomes the
    // previous one; moved entries are not gone, up to the last one; who
    // left the list is released, alive or not; the own process never is.
    const struct { std::vector<int32_t> list; int refs, c1; } polls[] = {
        {{self, p1, p2}, 3, 1},
        {{p2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, self, p1}, 3, 1},
        {{p2, 0, p1, self}, 3, 1},
        {{p2, self}, 2, -1},
        {{p2}, 2, -1},
    };
    for (const auto& p : polls) {
        dev.set(p.list);
        task_poll();
        EXPECT_EQ(std::make_pair(p.refs, p.c1), std::make_pair(rec->shrRef, owner_count(rec, p1))) << &p - polls;
    }
    EXPECT_EQ(1, owner_count(rec, self));
    // A failed poll reports 3000 + EIO and keeps the previous list.
    dev.fail = true;
    dev.set({});
    errno = 0;
    task_poll();
    EXPECT_EQ(std::make_pair(QVFS_ERR_SYS + EIO, 2), std::make_pair(errno, rec->shrRef));
    dev.fail = false;
    task_poll();
    EXPECT_EQ(std::make_pair(1, -1), std::make_pair(rec->shrRef, owner_count(rec, p2)));
    const uint32_t index = uint32_t(rec->shareIndex);
    ASSERT_EQ(0, tf_CloseFile(mine));
    EXPECT_FALSE(share_slot_used(index));
}

TEST_F(TaskCheck, SlowThreadReclaimsWithinOnePoll) {
    Child c = holder(a_);
    const int ia = find_record(a_);
    ASSERT_GE(ia, 0);
    auto threads = [] {
        using std::filesystem::directory_iterator;
        return std::distance(directory_iterator("/proc/self/task"), directory_iterator());
    };
    const auto before = threads();
    ASSERT_EQ(0, tc_SetMainTask());
    EXPECT_EQ(0, tc_SetMainTask());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(before + 1, threads());
    EXPECT_TRUE(share_slot_used(uint32_t(ia))) << "the first poll found it alive";
    c.kill_now();
    const auto start = std::chrono::steady_clock::now();
    while (share_slot_used(uint32_t(ia)) && std::chrono::steady_clock::now() - start < std::chrono::seconds(7))
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(share_slot_used(uint32_t(ia)));
    EXPECT_LE(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
}

}  // namespace
