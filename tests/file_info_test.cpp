// File status and file information: the converters and the user-data store
// (including damaged areas), status and information round trips through the
// block, block options and the debug dump.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "support/file_env.h"

namespace {

// A slice entry with guard bytes behind it: no converter may touch them.
struct Guarded {
    TQvBlkSliceInfo s;
    uint8_t guard[64];
    Guarded() {
        std::memset(&s, 0, sizeof s);
        std::memset(guard, 0xA5, sizeof guard);
    }
    bool guard_intact() const {
        for (uint8_t g : guard)
            if (g != 0xA5) return false;
        return true;
    }
    uint8_t* area() { return s.userData; }
};

std::string entry(uint16_t id, const std::string& data) {
    std::string e(4, '\0');
    std::memcpy(e.data(), &id, 2);
    uint16_t len = uint16_t(data.size());
    std::memcpy(e.data() + 2, &len, 2);
    return e + data;
}

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

std::string area_prefix(const TQvBlkSliceInfo& s, size_t n) {
    return std::string(reinterpret_cast<const char*>(s.userData), n);
}

TEST(UserDataTest, AddAppendAndReplaceKeepTheEntriesBehind) {
    Guarded g;
    ASSERT_EQ(0, set_ud(&g.s, 4, "abcd"));
    EXPECT_EQ("UDMS" + entry(4, "abcd") + "UDME", area_prefix(g.s, 16));
    ASSERT_EQ(0, set_ud(&g.s, 8, "xyz"));  // appended at the old marker's place
    EXPECT_EQ("UDMS" + entry(4, "abcd") + entry(8, "xyz") + "UDME", area_prefix(g.s, 23));
    EXPECT_EQ("abcd", get_ud(&g.s, 4));
    EXPECT_EQ("xyz", get_ud(&g.s, 8));

    // Longer and shorter replacements: the entry behind moves along.
    ASSERT_EQ(0, set_ud(&g.s, 4, "ABCDEFGH"));
    EXPECT_EQ("UDMS" + entry(4, "ABCDEFGH") + entry(8, "xyz") + "UDME", area_prefix(g.s, 27));
    ASSERT_EQ(0, set_ud(&g.s, 4, "Q"));
    EXPECT_EQ("UDMS" + entry(4, "Q") + entry(8, "xyz") + "UDME", area_prefix(g.s, 20));
    ASSERT_EQ(0, set_ud(&g.s, 8, "12345"));  // the last entry
    EXPECT_EQ("UDMS" + entry(4, "Q") + entry(8, "12345") + "UDME", area_prefix(g.s, 22));
    EXPECT_EQ("Q", get_ud(&g.s, 4));
    EXPECT_EQ("<none>", get_ud(&g.s, 16));

    int end = 0;
    EXPECT_EQ(9, _GetOffsetByFuncId(&g.s, 8, nullptr));
    EXPECT_EQ(18, _GetOffsetByFuncId(&g.s, 16, nullptr));  // the list ends first
    EXPECT_EQ(4, _GetOffsetByFuncId(&g.s, 4, &end));
    EXPECT_EQ(18, end);
    EXPECT_EQ(18, _GetOffsetByFuncId(&g.s, 32, &end));

    // The item's length bounds the copy; a shorter entry lowers it.
    EXPECT_EQ("123", get_ud(&g.s, 8, 3));
    EXPECT_EQ("12345", get_ud(&g.s, 8, 100));
    EXPECT_TRUE(g.guard_intact());
}

TEST(UserDataTest, SizeLimitsAndRefusals) {
    Guarded g;
    const std::string full(344, 'F');
    TQvFileInfo big{const_cast<char*>(full.data()), 345};
    errno = 0;
    EXPECT_EQ(-1, _TQvFileInfoUserData2SliceReserved(&big, &g.s, 4));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    EXPECT_EQ(std::string(356, '\0'), area_prefix(g.s, 356));
    ASSERT_EQ(0, set_ud(&g.s, 4, full));  // fills the area exactly
    EXPECT_EQ("UDME", std::string(reinterpret_cast<char*>(g.s.userData) + 352, 4));
    EXPECT_EQ(full, get_ud(&g.s, 4));
    ASSERT_EQ(0, set_ud(&g.s, 4, full));  // replacing it in place still fits
    EXPECT_TRUE(g.guard_intact());

    // A replacement that would push the entries behind it out of the area.
    Guarded h;
    ASSERT_EQ(0, set_ud(&h.s, 4, std::string(100, 'a')));
    ASSERT_EQ(0, set_ud(&h.s, 8, std::string(100, 'b')));
    const std::string before = area_prefix(h.s, 356);
    errno = 0;
    EXPECT_EQ(-1, set_ud(&h.s, 4, std::string(241, 'c')));  // 4+4+241+104+4 > 356
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    EXPECT_EQ(before, area_prefix(h.s, 356));
    ASSERT_EQ(0, set_ud(&h.s, 4, std::string(240, 'c')));  // exactly 356
    EXPECT_EQ(std::string(100, 'b'), get_ud(&h.s, 8));
    EXPECT_EQ("UDME", std::string(reinterpret_cast<char*>(h.s.userData) + 352, 4));

    TQvFileInfo item{nullptr, 4};
    errno = 0;
    EXPECT_EQ(-1, _TQvFileInfoUserData2SliceReserved(&item, &h.s, 4));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    errno = 0;
    EXPECT_EQ(-1, set_ud(&h.s, 128, "x"));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    errno = 0;
    EXPECT_EQ(-1, _TQvFileInfoUserData2SliceReserved(nullptr, &h.s, 4));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    errno = 0;
    EXPECT_EQ(-1, _Slice2TQvFileInfoUserData(&h.s, 4, &item));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    char b[4];
    TQvFileInfo small{b, 4};
    errno = 0;
    EXPECT_EQ(-1, _Slice2TQvFileInfoUserData(&h.s, 65, &small));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    Guarded unused;
    errno = 0;
    EXPECT_EQ(-1, _Slice2TQvFileInfoUserData(&unused.s, 4, &small));
    EXPECT_EQ(0, errno);  // an unused area is no error
    EXPECT_EQ(-1, _GetOffsetByFuncId(nullptr, 4, nullptr));
}

TEST(UserDataTest, DamagedAreasStayInside) {
    // An entry claiming more bytes than the area holds.
    Guarded g;
    std::memcpy(g.area(), "UDMS", 4);
    const std::string huge = entry(4, "");
    std::memcpy(g.area() + 4, huge.data(), 4);
    uint16_t len = 0xFFFF;
    std::memcpy(g.area() + 6, &len, 2);
    std::memset(g.area() + 8, 'd', 348);
    EXPECT_EQ(std::string(348, 'd'), get_ud(&g.s, 4, 1000));
    ASSERT_EQ(0, set_ud(&g.s, 4, "fixed"));  // replaced; nothing behind it survives
    EXPECT_EQ(entry(4, "fixed") + "UDME", area_prefix(g.s, 17).substr(4));
    EXPECT_TRUE(g.guard_intact());

    // No end marker before the walk runs out: a new entry starts over at 4.
    Guarded n;
    std::memcpy(n.area(), "UDMS", 4);
    const std::string e = entry(4, std::string(340, 'e'));
    std::memcpy(n.area() + 4, e.data(), e.size());
    int end = 0;
    EXPECT_EQ(4, _GetOffsetByFuncId(&n.s, 8, &end));
    EXPECT_EQ(-1, end);
    EXPECT_EQ(-1, _GetOffsetByFuncId(&n.s, 8, nullptr));
    ASSERT_EQ(0, set_ud(&n.s, 8, "new"));
    EXPECT_EQ(entry(8, "new") + "UDME", area_prefix(n.s, 15).substr(4));
    EXPECT_TRUE(n.guard_intact());

    // An append near the end is cut at the area's end.
    Guarded c;
    std::memcpy(c.area(), "UDMS", 4);
    const std::string filler = entry(4, std::string(332, 'f'));
    std::memcpy(c.area() + 4, filler.data(), filler.size());
    std::memcpy(c.area() + 340, "UDME", 4);
    ASSERT_EQ(0, set_ud(&c.s, 16, std::string(100, 'g')));
    EXPECT_EQ(std::string(12, 'g'), get_ud(&c.s, 16));
    EXPECT_TRUE(c.guard_intact());

    // A list ended by an entry whose funcId is above 64.
    Guarded o;
    std::memcpy(o.area(), "UDMS", 4);
    const std::string two = entry(4, "ab") + entry(200, "zz");
    std::memcpy(o.area() + 4, two.data(), two.size());
    EXPECT_EQ(10, _GetOffsetByFuncId(&o.s, 8, nullptr));
    ASSERT_EQ(0, set_ud(&o.s, 8, "c"));
    EXPECT_EQ(entry(4, "ab") + entry(8, "c") + "UDME", area_prefix(o.s, 19).substr(4));
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
    errno = 0;
    EXPECT_EQ(-1, _Slice2TQvFileInfoPrename(&s, &name));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    uint32_t va = 7;
    TQvFileInfo v{&va, 3};
    errno = 0;
    EXPECT_EQ(-1, _TQvFileInfoVideoAbstract2Slice(&v, &s));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    v = {nullptr, 4};
    EXPECT_EQ(-1, _Slice2TQvFileInfoVideoAbstract(&s, &v));
    EXPECT_EQ(0u, s.videoAbstract);
}

class FileStatusTest : public qvfs::test::FileTest {
protected:
    TQvFileHandle* reopen(const std::string& name) {
        std::string buf = name;
        return tf_OpenFile(nullptr, buf.data());
    }
};

TEST_F(FileStatusTest, StatusRoundTripThroughTheBlock) {
    auto f = create(0, 0, 3, 5);
    ASSERT_NE(nullptr, f.h);
    TQvFileStat st;
    std::memset(&st, 0xEE, sizeof st);
    ASSERT_EQ(0, tf_GetFileStat(&st, f.h));
    EXPECT_EQ(0xEEEEEEEEEEEEEEEEull, st.st.st_dev);  // platform fields are not written
    EXPECT_EQ(0xEEEEEEEEu, st.st.st_blksize);
    EXPECT_EQ(0, st.st.st_size);
    EXPECT_EQ(0, st.st.st_blocks);
    EXPECT_EQ(3u, st.chn);
    EXPECT_EQ(0u, st.lock);
    EXPECT_EQ(5u, st.recType);
    EXPECT_EQ(1700000000u, st.startTime);
    EXPECT_EQ(f.name, st.name);

    // Only the settable fields travel back.
    st.lock = 1;
    st.recType = 7;
    st.st.st_mtim.tv_sec = 1700000123;
    st.chn = 9;
    st.startTime = 1690000000;
    std::memcpy(st.usrParam, "user parameter bytes, 32 long..", 32);
    st.st.st_size = 12345;
    ASSERT_EQ(0, tf_SetFileStat(&st, f.h));
    TQvBlkSliceInfo disk = entry_on_disk(f.name);
    EXPECT_EQ(1u, disk.lock);
    EXPECT_EQ(7u, disk.recType);
    EXPECT_EQ(1700000123u, disk.endTime);
    EXPECT_EQ(9u, disk.chn);
    EXPECT_EQ(1690000000u, disk.startTime);
    EXPECT_EQ(0, std::memcmp(disk.usrParam, "user parameter bytes, 32 long..", 32));
    EXPECT_EQ(disk.dataStart, disk.dataEnd);
    ASSERT_EQ(0, tf_CloseFile(f.h));

    TQvFileHandle* h = reopen(f.name);
    ASSERT_NE(nullptr, h);
    TQvFileStat back;
    std::memset(&back, 0, sizeof back);
    ASSERT_EQ(0, tf_GetFileStat(&back, h));
    EXPECT_EQ(0, back.st.st_size);
    EXPECT_EQ(1700000123, back.st.st_mtim.tv_sec);
    EXPECT_EQ(1700000123, back.st.st_ctim.tv_sec);
    EXPECT_EQ(9u, back.chn);
    EXPECT_EQ(1u, back.lock);
    EXPECT_EQ(7u, back.recType);
    EXPECT_EQ(1690000000u, back.startTime);
    EXPECT_EQ(0, std::memcmp(back.usrParam, st.usrParam, 32));

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

    errno = 0;
    EXPECT_EQ(-1, tf_GetFileStat(nullptr, h));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    errno = 0;
    EXPECT_EQ(-1, tf_SetFileStat(&back, nullptr));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
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
    std::memset(pn, 0, sizeof pn);
    ASSERT_EQ(0, tf_GetFileInfo(h, 1 | 4, items, 2));
    EXPECT_EQ(expectPrev, pn);
    EXPECT_EQ(5u, items[1].len);
    EXPECT_EQ("hello", std::string(ud, 5));

    uint32_t va = 0x12345678;
    TQvFileInfo two[2] = {{&va, 4}, {const_cast<char*>("xy"), 2}};
    ASSERT_EQ(0, tf_SetFileInfo(h, 2 | 8, two, 2));
    EXPECT_EQ(0x12345678u, entry_on_disk(name).videoAbstract);
    EXPECT_EQ(0, std::memcmp(entry_on_disk(name).userData, "UDMS", 4));

    // A failing converter leaves record and block as they were.
    const TQvBlkSliceInfo before = h->rec->slice;
    uint32_t other = 0x99;
    std::string tooLong(345, 'L');
    TQvFileInfo bad[2] = {{&other, 4}, {tooLong.data(), 345}};
    errno = 0;
    EXPECT_EQ(-1, tf_SetFileInfo(h, 2 | 16, bad, 2));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);
    EXPECT_EQ(0, std::memcmp(&before, &h->rec->slice, sizeof before));
    EXPECT_EQ(0x12345678u, entry_on_disk(name).videoAbstract);

    // The count ends the walk; bits above 6 are ignored.
    char a[8] = "-------", b[8] = "-------";
    TQvFileInfo ab[2] = {{a, 8}, {b, 8}};
    ASSERT_EQ(0, tf_GetFileInfo(h, 4 | 8, ab, 1));
    EXPECT_EQ("hello", std::string(a, 5));
    EXPECT_STREQ("-------", b);
    ASSERT_EQ(0, tf_GetFileInfo(h, 0x80 | 8, ab, 2));
    EXPECT_EQ("xy", std::string(a, 2));
    EXPECT_STREQ("-------", b);
    EXPECT_EQ(0, tf_GetFileInfo(h, 0, ab, 2));
    EXPECT_EQ(0, tf_SetFileInfo(h, 0, ab, 2));
    EXPECT_EQ(-1, tf_GetFileInfo(nullptr, 4, ab, 1));
    EXPECT_EQ(-1, tf_SetFileInfo(nullptr, 4, ab, 1));

    // Everything survives a close and a reopen from the block.
    ASSERT_EQ(0, tf_CloseFile(h));
    std::string n = name;
    h = tf_OpenFile(nullptr, n.data());
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
    auto a = create();
    auto b = create(1, 0x10000);
    ASSERT_NE(nullptr, a.h);
    ASSERT_NE(nullptr, b.h);
    ASSERT_EQ(0, tf_UpdataePreRecPtr(b.h, 0, 0));
    std::string t = a.name;
    ASSERT_EQ(a.h, tf_OpenFile(nullptr, t.data()));

    char small[200];
    std::memset(small, 'q', sizeof small);
    EXPECT_EQ(0, tf_GetDebugInfo(small, 139));
    EXPECT_EQ('q', small[0]);
    EXPECT_EQ(0, tf_GetDebugInfo(nullptr, 4096));

    std::string big(1 << 16, '\0');
    int n = tf_GetDebugInfo(big.data(), int(big.size()));
    ASSERT_GT(n, 0);
    ASSERT_LT(n, int(big.size()));
    big.resize(size_t(n));
    EXPECT_EQ(0u, big.find("=================QVFILE==============\nfileid\terrno\tfilename\t\t\tInRef\tShrRef\t "
                           "StartAddr\t   EndAddr\t  preStart\t    preEnd\n"));
    const TQvBlkSliceInfo& sa = a.h->rec->slice;
    char row[256];
    std::snprintf(row, sizeof row, "0\t0\t%s\t2\t2\t%10lld\t%10lld\t%10lld\t%10lld\n", a.name.c_str(),
                  (long long)sa.dataStart, (long long)sa.dataEnd, 0LL, 0LL);
    EXPECT_NE(std::string::npos, big.find(row)) << big;
    const TQvBlkSliceInfo& sb = b.h->rec->slice;
    std::snprintf(row, sizeof row, "1\t0\t%s\t1\t1\t%10lld\t%10lld\t%10lld\t%10lld\n", b.name.c_str(),
                  (long long)sb.dataStart, (long long)sb.dataEnd, (long long)sb.resStart, (long long)sb.resEnd);
    EXPECT_NE(std::string::npos, big.find(row)) << big;
    EXPECT_NE(std::string::npos, big.find("QVBLOCK"));  // the block layer's part follows

    // A buffer that ends inside the rows: the count reaches the size and
    // nothing is written beyond it.
    std::memset(small, 'q', sizeof small);
    int m = tf_GetDebugInfo(small, 150);
    EXPECT_GE(m, 150);
    EXPECT_EQ('\0', small[149]);
    for (size_t i = 150; i < sizeof small; ++i) ASSERT_EQ('q', small[i]) << i;

    EXPECT_EQ(0, tf_CloseFile(a.h));
    EXPECT_EQ(0, tf_CloseFile(a.h));
    EXPECT_EQ(0, tf_CloseFile(b.h));
}

}  // namespace
