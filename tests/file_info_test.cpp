// File status and file information: the converters and the user-data store
// (including damaged areas), status and information round trips through the
// block, and the debug dump.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/compat.h"

namespace {

// A slice entry whose user-data area starts as `raw`, with guard bytes
// behind it that no converter may touch.
struct Guarded {
    TQvBlkSliceInfo s;
    uint8_t guard[64];
    explicit Guarded(const std::string& raw = "") {
        std::memset(&s, 0, sizeof s);
        std::memcpy(s.userData, raw.data(), raw.size());
        std::memset(guard, 0xA5, sizeof guard);
    }
    bool guard_intact() const {
        return std::all_of(guard, guard + sizeof guard, [](uint8_t g) { return g == 0xA5; });
    }
    std::string area(size_t n = 356) const { return std::string(reinterpret_cast<const char*>(s.userData), n); }
};

std::string head(uint16_t id, uint16_t len) {
    std::string e(4, '\0');
    std::memcpy(e.data(), &id, 2);
    std::memcpy(e.data() + 2, &len, 2);
    return e;
}
std::string entry(uint16_t id, const std::string& data) { return head(id, uint16_t(data.size())) + data; }

int set_ud(TQvBlkSliceInfo* s, uint32_t id, const std::string& data) {
    TQvFileInfo item{const_cast<char*>(data.data()), uint32_t(data.size())};
    return _TQvFileInfoUserData2SliceReserved(&item, s, id);
}

std::string get_ud(const TQvBlkSliceInfo* s, uint32_t id, uint32_t room = 400) {
    std::string buf(room, '\0');
    TQvFileInfo item{buf.data(), room};
    if (_Slice2TQvFileInfoUserData(s, id, &item) != 0) return "<none>";
    buf.resize(item.len);
    return buf;
}

TEST(UserDataTest, AddAppendAndReplaceKeepTheEntriesBehind) {
    Guarded g;
    const struct {
        uint32_t id;
        std::string data, list;  // the entries after the step
    } steps[] = {
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
    EXPECT_EQ("Q", get_ud(&g.s, 4));
    EXPECT_EQ("<none>", get_ud(&g.s, 16));
    EXPECT_EQ("123", get_ud(&g.s, 8, 3));  // the item's length bounds the copy
    EXPECT_EQ("12345", get_ud(&g.s, 8, 100));

    int end = 0;
    EXPECT_EQ(9, _GetOffsetByFuncId(&g.s, 8, nullptr));
    EXPECT_EQ(18, _GetOffsetByFuncId(&g.s, 16, nullptr));  // the list ends first
    EXPECT_EQ(4, _GetOffsetByFuncId(&g.s, 4, &end));
    EXPECT_EQ(18, end);
    EXPECT_TRUE(g.guard_intact());
}

TEST(UserDataTest, SizeLimitsAndRefusals) {
    Guarded g;
    const std::string full(344, 'F');
    TQvFileInfo big{const_cast<char*>(full.data()), 345};
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, _TQvFileInfoUserData2SliceReserved(&big, &g.s, 4));
    EXPECT_EQ(std::string(356, '\0'), g.area());
    ASSERT_EQ(0, set_ud(&g.s, 4, full));  // fills the area exactly
    EXPECT_EQ("UDME", g.area().substr(352));
    ASSERT_EQ(0, set_ud(&g.s, 4, full));  // replacing it in place still fits
    EXPECT_EQ(full, get_ud(&g.s, 4));
    EXPECT_TRUE(g.guard_intact());

    // A replacement that would push the entries behind it out of the area
    // fails and changes nothing; one byte less fits exactly.
    Guarded h;
    ASSERT_EQ(0, set_ud(&h.s, 4, std::string(100, 'a')));
    ASSERT_EQ(0, set_ud(&h.s, 8, std::string(100, 'b')));
    const std::string before = h.area();
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, set_ud(&h.s, 4, std::string(241, 'c')));  // 4+4+241+104+4 > 356
    EXPECT_EQ(before, h.area());
    ASSERT_EQ(0, set_ud(&h.s, 4, std::string(240, 'c')));
    EXPECT_EQ(std::string(100, 'b'), get_ud(&h.s, 8));
    EXPECT_EQ("UDME", h.area().substr(352));

    char b[4];
    TQvFileInfo noBuf{nullptr, 4}, small{b, 4};
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, _TQvFileInfoUserData2SliceReserved(&noBuf, &h.s, 4));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, set_ud(&h.s, 128, "x"));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, _TQvFileInfoUserData2SliceReserved(nullptr, &h.s, 4));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, _Slice2TQvFileInfoUserData(&h.s, 4, &noBuf));
    EXPECT_ERR(-1, QVFS_ERR_BADHANDLE, _Slice2TQvFileInfoUserData(&h.s, 65, &small));
    Guarded unused;
    EXPECT_ERR(-1, 0, _Slice2TQvFileInfoUserData(&unused.s, 4, &small));  // an unused area is no error
    EXPECT_EQ(-1, _GetOffsetByFuncId(nullptr, 4, nullptr));
}

TEST(UserDataTest, DamagedAreasStayInside) {
    // An entry claiming more bytes than the area holds: read to the area's
    // end; replaced, nothing behind it survives.
    Guarded g("UDMS" + head(4, 0xFFFF) + std::string(348, 'd'));
    EXPECT_EQ(std::string(348, 'd'), get_ud(&g.s, 4, 1000));
    ASSERT_EQ(0, set_ud(&g.s, 4, "fixed"));
    EXPECT_EQ("UDMS" + entry(4, "fixed") + "UDME", g.area(17));
    EXPECT_TRUE(g.guard_intact());

    // No end marker before the walk runs out: a new entry starts over at 4.
    Guarded n("UDMS" + entry(4, std::string(340, 'e')));
    int end = 0;
    EXPECT_EQ(4, _GetOffsetByFuncId(&n.s, 8, &end));
    EXPECT_EQ(-1, end);
    EXPECT_EQ(-1, _GetOffsetByFuncId(&n.s, 8, nullptr));
    ASSERT_EQ(0, set_ud(&n.s, 8, "new"));
    EXPECT_EQ("UDMS" + entry(8, "new") + "UDME", n.area(15));

    // An append near the end is cut at the area's end.
    Guarded c("UDMS" + entry(4, std::string(332, 'f')) + "UDME");
    ASSERT_EQ(0, set_ud(&c.s, 16, std::string(100, 'g')));
    EXPECT_EQ(std::string(12, 'g'), get_ud(&c.s, 16));
    EXPECT_TRUE(c.guard_intact());

    // A list ended by an entry whose funcId is above 64.
    Guarded o("UDMS" + entry(4, "ab") + entry(200, "zz"));
    EXPECT_EQ(10, _GetOffsetByFuncId(&o.s, 8, nullptr));
    ASSERT_EQ(0, set_ud(&o.s, 8, "c"));
    EXPECT_EQ("UDMS" + entry(4, "ab") + entry(8, "c") + "UDME", o.area(19));
}

TEST(FileInfoConvertTest, ItemsTooShortAreRefused) {
    TQvBlkSliceInfo s;
    std::memset(&s, 0, sizeof s);
    char buf[40];
    std::memset(buf, 'z', sizeof buf);
    TQvFileInfo name{buf, 32};
    EXPECT_EQ(0, _Slice2TQvFileInfoPrename(&s, &name));
    EXPECT_EQ('z', buf[0]);  // no previous name: untouched
    name.len = 31;
    EXPECT_ERR(-1, QVFS_ERR_BADARG, _Slice2TQvFileInfoPrename(&s, &name));
    uint32_t va = 7;
    TQvFileInfo v{&va, 3};
    EXPECT_ERR(-1, QVFS_ERR_BADARG, _TQvFileInfoVideoAbstract2Slice(&v, &s));
    v = {nullptr, 4};
    EXPECT_EQ(-1, _Slice2TQvFileInfoVideoAbstract(&s, &v));
    EXPECT_EQ(0u, s.videoAbstract);
}

class FileStatusTest : public qvfs::test::FileCompat {};

TEST_F(FileStatusTest, StatusRoundTripThroughTheBlock) {
    auto f = create(0, 0, 3, 5);
    ASSERT_NE(nullptr, f.h);
    TQvFileStat st, back;
    std::memset(&st, 0xEE, sizeof st);
    std::memset(&back, 0xEE, sizeof back);
    ASSERT_EQ(0, tf_GetFileStat(&st, f.h));
    EXPECT_EQ(0xEEEEEEEEEEEEEEEEull, st.st.st_dev);  // platform fields are not written
    EXPECT_EQ(0xEEEEEEEEu, st.st.st_blksize);
    // {size, blocks, channel, lock, record type, start time}
    EXPECT_EQ((std::vector<uint64_t>{0, 0, 3, 0, 5, 1700000000}),
              (std::vector<uint64_t>{uint64_t(st.st.st_size), uint64_t(st.st.st_blocks), st.chn, st.lock, st.recType,
                                     st.startTime}));
    EXPECT_EQ(f.name, st.name);

    // Only the settable fields travel: after a reopen from the block the
    // status is the one set, but for the size and the change time (which
    // reports the end time too).
    st.lock = 1;
    st.recType = 7;
    st.st.st_mtim.tv_sec = 1700000123;
    st.chn = 9;
    st.startTime = 1690000000;
    std::memcpy(st.usrParam, "user parameter bytes, 32 long..", 32);
    st.st.st_size = 12345;
    ASSERT_EQ(0, tf_SetFileStat(&st, f.h));
    ASSERT_EQ(0, tf_CloseFile(f.h));
    TQvFileHandle* h = open(f.name);
    ASSERT_NE(nullptr, h);
    ASSERT_EQ(0, tf_GetFileStat(&back, h));
    st.st.st_size = 0;
    st.st.st_ctim.tv_sec = 1700000123;
    EXPECT_EQ(0, std::memcmp(&st, &back, sizeof st));

    // st_mtime is widened with its sign.
    back.st.st_mtim.tv_sec = -2;
    ASSERT_EQ(0, tf_SetFileStat(&back, h));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFEull, h->rec->slice.endTime);
    // st_blocks truncates toward zero.
    for (auto [len, blocks] : {std::pair{1023, 1}, {511, 0}, {512, 1}, {1024, 2}}) {
        ASSERT_EQ(0, tf_ftruncate(h, uint64_t(len)));
        ASSERT_EQ(0, tf_GetFileStat(&back, h));
        EXPECT_EQ(len, back.st.st_size);
        EXPECT_EQ(blocks, back.st.st_blocks) << len;
    }
    EXPECT_ERR(-1, QVFS_ERR_BADARG, tf_GetFileStat(nullptr, h));
    EXPECT_ERR(-1, QVFS_ERR_BADARG, tf_SetFileStat(&back, nullptr));
    EXPECT_EQ(0, tf_CloseFile(h));
}

TEST_F(FileStatusTest, InformationMaskWalkAndPersistence) {
    auto prev = create();
    ASSERT_NE(nullptr, prev.h);
    TQvfsOpenParam p = param(0, 0, 1, 0);
    std::strncpy(p.preName, prev.name.c_str(), sizeof p.preName - 1);
    char name[64] = {};
    TQvFileHandle* h = tf_OpenFile(&p, name);
    ASSERT_NE(nullptr, h);
    std::string expectPrev = prev.name;
    expectPrev.replace(16, 7, "0000C00");

    char pn[32], ud[64];
    TQvFileInfo items[2] = {{pn, 32}, {ud, 64}};
    // No user data yet: the walk fills the name, then the user-data item fails.
    EXPECT_EQ(-1, tf_GetFileInfo(h, 1 | 4, items, 2));
    EXPECT_EQ(expectPrev, pn);
    // Bit 0 is not settable and consumes no item.
    TQvFileInfo hello{const_cast<char*>("hello"), 5};
    ASSERT_EQ(0, tf_SetFileInfo(h, 1 | 4, &hello, 1));
    ASSERT_EQ(0, tf_GetFileInfo(h, 1 | 4, items, 2));
    EXPECT_EQ("hello", std::string(ud, items[1].len));

    uint32_t va = 0x12345678, other = 0x99;
    TQvFileInfo two[2] = {{&va, 4}, {const_cast<char*>("xy"), 2}};
    ASSERT_EQ(0, tf_SetFileInfo(h, 2 | 8, two, 2));
    EXPECT_EQ(0x12345678u, entry_on_disk(name).videoAbstract);

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
    EXPECT_EQ("hello", std::string(a, 5));
    EXPECT_STREQ("-------", b);
    ASSERT_EQ(0, tf_GetFileInfo(h, 0x80 | 8, ab, 2));
    EXPECT_EQ("xy", std::string(a, 2));
    EXPECT_STREQ("-------", b);
    EXPECT_EQ(-1, tf_GetFileInfo(nullptr, 4, ab, 1));
    EXPECT_EQ(-1, tf_SetFileInfo(nullptr, 4, ab, 1));

    // Everything survives a close and a reopen from the block.
    ASSERT_EQ(0, tf_CloseFile(h));
    h = open(name);
    ASSERT_NE(nullptr, h);
    uint32_t vaBack = 0;
    TQvFileInfo three[3] = {{&vaBack, 4}, {a, 8}, {b, 8}};
    ASSERT_EQ(0, tf_GetFileInfo(h, 2 | 4 | 8, three, 3));
    EXPECT_EQ(0x12345678u, vaBack);
    EXPECT_EQ("hello", std::string(a, three[1].len));
    EXPECT_EQ("xy", std::string(b, three[2].len));
    EXPECT_EQ(0, tf_CloseFile(h));
    EXPECT_EQ(0, tf_CloseFile(prev.h));
}

TEST_F(FileStatusTest, DebugDumpRowsAndLimits) {
    auto a = create(), b = create(1, 0x10000);
    ASSERT_TRUE(a.h != nullptr && b.h != nullptr);
    ASSERT_EQ(0, tf_UpdataePreRecPtr(b.h, 0, 0));
    ASSERT_EQ(a.h, open(a.name));

    char small[200];
    std::memset(small, 'q', sizeof small);
    EXPECT_EQ(0, tf_GetDebugInfo(small, 139));
    EXPECT_EQ('q', small[0]);
    EXPECT_EQ(0, tf_GetDebugInfo(nullptr, 4096));

    std::string big(1 << 16, '\0');
    const int n = tf_GetDebugInfo(big.data(), int(big.size()));
    ASSERT_GT(n, 0);
    ASSERT_LT(n, int(big.size()));
    big.resize(size_t(n));
    EXPECT_EQ(0u, big.find("=================QVFILE==============\nfileid\terrno\tfilename\t\t\tInRef\tShrRef\t "
                           "StartAddr\t   EndAddr\t  preStart\t    preEnd\n"));
    const TQvBlkSliceInfo &sa = a.h->rec->slice, &sb = b.h->rec->slice;
    char row[256];
    std::snprintf(row, sizeof row, "0\t0\t%s\t2\t2\t%10lld\t%10lld\t%10lld\t%10lld\n", a.name.c_str(),
                  (long long)sa.dataStart, (long long)sa.dataEnd, 0LL, 0LL);
    EXPECT_NE(std::string::npos, big.find(row)) << big;
    std::snprintf(row, sizeof row, "1\t0\t%s\t1\t1\t%10lld\t%10lld\t%10lld\t%10lld\n", b.name.c_str(),
                  (long long)sb.dataStart, (long long)sb.dataEnd, (long long)sb.resStart, (long long)sb.resEnd);
    EXPECT_NE(std::string::npos, big.find(row)) << big;
    EXPECT_NE(std::string::npos, big.find("QVBLOCK"));  // the block layer's part follows

    // A buffer that ends inside the rows: the count reaches the size and
    // nothing is written beyond it.
    std::memset(small, 'q', sizeof small);
    EXPECT_GE(tf_GetDebugInfo(small, 150), 150);
    EXPECT_EQ('\0', small[149]);
    EXPECT_EQ(std::string(50, 'q'), std::string(small + 150, 50));
    EXPECT_EQ(0, tf_CloseFile(a.h));
    EXPECT_EQ(0, tf_CloseFile(a.h));
    EXPECT_EQ(0, tf_CloseFile(b.h));
}

}  // namespace
