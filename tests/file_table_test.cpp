// The file table and the shared file records: opening by name in one and in
// several processes, owner slots, the table limit, malformed names, unlink.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "support/child.h"
#include "support/compat.h"

namespace {

using qvfs::file::kFileTableSize;
using qvfs::file::table_entry;
using qvfs::test::Child;
using qvfs::test::ChildLink;

class FileTableTest : public qvfs::test::FileCompat {
protected:
    static int used_share_slots() {
        int n = 0;
        for (uint32_t i = 0; i < qvfs::file::kFileShareIndexes; ++i) n += share_slot_used(i) ? 1 : 0;
        return n;
    }
    static int used_table_slots() {
        int n = 0;
        for (uint32_t i = 0; i < kFileTableSize; ++i) n += table_entry(i) != nullptr ? 1 : 0;
        return n;
    }
};

TEST_F(FileTableTest, RepeatedOpensShareTheHandleAndAReopenLoadsFromDisk) {
    auto a = create(0, 0, 7, 9), b = create();
    ASSERT_TRUE(a.h != nullptr && b.h != nullptr);
    TQvFileRec* rec = a.h->rec;
    const uint32_t index = uint32_t(rec->shareIndex);
    ASSERT_EQ(4, tf_Write(0, "abcd", 4, a.h));
    const TQvBlkSliceInfo written = rec->slice;

    // The bare name, a path that contains it, and a path holding both stored
    // names: the first handle in slot order wins, not the first in the path.
    EXPECT_EQ(a.h, open(a.name));
    EXPECT_EQ(a.h, open("/mnt/export/" + a.name));
    EXPECT_EQ(a.h, open("/x/" + b.name + "/" + a.name));
    EXPECT_EQ(1, b.h->inRef);
    EXPECT_EQ(4, a.h->inRef);
    EXPECT_EQ(4, rec->shrRef);
    EXPECT_EQ(4, owner_count(rec, getpid()));
    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, tf_CloseFile(a.h));
    EXPECT_EQ(1, a.h->inRef);
    EXPECT_EQ(1, rec->shrRef);
    EXPECT_EQ(1, owner_count(rec, getpid()));
    ASSERT_EQ(0, tf_CloseFile(a.h));
    EXPECT_EQ(nullptr, table_entry(0));
    EXPECT_FALSE(share_slot_used(index));
    EXPECT_EQ(-1, owner_count(rec, getpid()));  // pool record: its bytes stay readable

    // Nobody holds it now: opened by name, the entry comes from disk.
    TQvFileHandle* h = open(a.name);
    ASSERT_NE(nullptr, h) << "errno " << errno;
    EXPECT_EQ(0, std::memcmp(&written, &h->rec->slice, sizeof written));
    char back[4] = {};
    EXPECT_EQ(4, tf_Read(0, back, 4, h));
    EXPECT_EQ(0, std::memcmp(back, "abcd", 4));
    EXPECT_EQ(0, tf_CloseFile(h));
    EXPECT_EQ(0, tf_CloseFile(b.h));
}

TEST_F(FileTableTest, BadNamesAndFailedOpensLeaveNoTrace) {
    auto f = create();
    ASSERT_NE(nullptr, f.h);
    ASSERT_EQ(0, tf_CloseFile(f.h));
    const int shares = used_share_slots();
    std::string noDot = f.name, otherDisk = f.name, wrongCode = f.name;
    noDot.erase(23, 1);
    otherDisk.replace(21, 2, "05");                    // location '0', disk 5: not mounted
    wrongCode[12] = wrongCode[12] == 'F' ? 'E' : 'F';  // well formed; the block layer refuses it
    const std::string bad[] = {"", noDot, "abc.rvd", f.name.substr(2) /* the dot 21 characters in */, otherDisk,
                               "/dev/scsi/host07/part1/" + f.name /* the path's disk wins */, wrongCode};
    for (const std::string& name : bad) {
        SCOPED_TRACE(name);
        errno = 0;
        EXPECT_EQ(nullptr, open(name));
        // Any code for the wrong check code; the handle and record made for it are given back.
        EXPECT_TRUE(name == wrongCode || errno == QVFS_ERR_BADHANDLE) << "errno " << errno;
        EXPECT_EQ(0, used_table_slots());
        EXPECT_EQ(shares, used_share_slots());
    }
    TQvfsOpenParam p = param(0, 0, 1, 0);
    EXPECT_EQ(nullptr, tf_OpenFile(nullptr, nullptr));
    EXPECT_EQ(nullptr, tf_OpenFile(&p, nullptr));
    TQvFileHandle* h = open(f.name);  // the real name still opens
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(0, tf_CloseFile(h));
}

TEST_F(FileTableTest, TheFileTableHolds1024Files) {
    TQvfsOpenParam p = param(0, 0, 2, 0);
    char name[64] = {};
    std::vector<TQvFileHandle*> open;
    for (uint32_t i = 0; i < kFileTableSize; ++i) {
        open.push_back(tf_OpenFile(&p, name));
        ASSERT_NE(nullptr, open.back()) << "file " << i << " errno " << errno;
        ASSERT_EQ(i, open.back()->index);
    }
    EXPECT_GE(open.back()->rec->shareIndex, 512);  // beyond the pool: a segment of its own
    EXPECT_ERR(nullptr, QVFS_ERR_BADHANDLE, tf_OpenFile(&p, name));

    ASSERT_EQ(0, tf_CloseFile(open[100]));
    TQvFileHandle* again = tf_OpenFile(&p, name);
    ASSERT_NE(nullptr, again) << "errno " << errno;
    EXPECT_EQ(100u, again->index);
    EXPECT_EQ(0, tf_Uninit());
    EXPECT_EQ(0, used_table_slots());
    EXPECT_EQ(0, used_share_slots());
}

TEST_F(FileTableTest, ProcessesShareOneRecordAndTheNinthHasNoOwnerSlot) {
    auto f = create();
    ASSERT_NE(nullptr, f.h);
    const uint32_t index = uint32_t(f.h->rec->shareIndex);
    ASSERT_EQ(0, tf_CloseFile(f.h));  // children start with an empty file table

    std::vector<Child> kids;
    for (int i = 0; i < 8; ++i) {
        kids.push_back(Child::spawn([name = f.name](ChildLink& link) {
            TQvFileHandle* h = open(name);
            CHILD_CHECK(link, h != nullptr && h->inRef == 1);
            link.send(h->rec->shrRef);
            int64_t cmd = 0;
            CHILD_CHECK(link, link.recv(&cmd) && tf_CloseFile(h) == 0);
            return 0;
        }));
        // Found by its owner key: one record for all.
        ASSERT_TRUE(kids.back().expect(i + 1)) << kids.back().describe(kids.back().wait());
    }

    TQvFileHandle* h = open(f.name);
    ASSERT_NE(nullptr, h);
    TQvFileRec* rec = h->rec;
    EXPECT_EQ(index, uint32_t(rec->shareIndex));
    EXPECT_EQ(9, rec->shrRef);
    EXPECT_EQ(-1, owner_count(rec, getpid()));
    for (const Child& k : kids) EXPECT_EQ(1, owner_count(rec, k.pid()));
    ASSERT_EQ(0, tf_CloseFile(h));  // a pool record: it stays mapped
    EXPECT_EQ(8, rec->shrRef);
    for (const Child& k : kids) EXPECT_EQ(1, owner_count(rec, k.pid()));

    for (Child& k : kids) {
        k.send(1);
        EXPECT_CHILD_OK(k);
    }
    EXPECT_FALSE(share_slot_used(index));
}

TEST_F(FileTableTest, UnlinkOnlyWhenNobodyElseHoldsTheFile) {
    auto f = create(), other = create();  // `other` keeps the block alive after f goes
    ASSERT_TRUE(f.h != nullptr && other.h != nullptr);
    // Held by this process: refused without a code, the open survives.
    EXPECT_ERR(-1, 0, tf_Unlink(f.name.c_str()));
    EXPECT_EQ(1, f.h->inRef);
    EXPECT_EQ(1, f.h->rec->shrRef);
    ASSERT_EQ(0, tf_CloseFile(f.h));

    Child holder = Child::spawn([name = f.name](ChildLink& link) {
        TQvFileHandle* h = open(name);
        CHILD_CHECK(link, h != nullptr);
        link.send(1);
        int64_t cmd = 0;
        link.recv(&cmd);
        return tf_CloseFile(h);
    });
    ASSERT_TRUE(holder.expect(1)) << holder.describe(holder.wait());
    // Held by another process: refused, no code (not even one left by
    // opening the record), and the unlink's own handle is gone.
    EXPECT_ERR(-1, 0, tf_Unlink(f.name.c_str()));
    EXPECT_EQ(1, used_table_slots());
    holder.send(1);
    EXPECT_CHILD_OK(holder);

    // Nobody holds it: deleted, and the name no longer opens.
    EXPECT_EQ(0, tf_Unlink(f.name.c_str()));
    EXPECT_EQ(nullptr, open(f.name));
    EXPECT_EQ(0, std::memcmp(entry_on_disk(f.name).magic, "\0\0\0\0", 4));
    EXPECT_EQ(1, used_table_slots());
    EXPECT_EQ(0, tf_CloseFile(other.h));
}

}  // namespace
