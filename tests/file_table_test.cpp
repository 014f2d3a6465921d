// The file table and the shared file records: opening by name in one and in
// several processes, owner slots, the table limit, malformed names, unlink.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/file_env.h"

namespace {

using qvfs::file::kFileTableSize;
using qvfs::file::table_entry;
using qvfs::test::Child;
using qvfs::test::ChildLink;

class FileTableTest : public qvfs::test::FileTest {
protected:
    TQvFileHandle* open(const std::string& name) {
        std::vector<char> buf(name.begin(), name.end());
        buf.push_back('\0');
        return tf_OpenFile(nullptr, buf.data());
    }
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
    static const TQvFileOwner* owner_of(const TQvFileRec* rec, pid_t pid) {
        for (const TQvFileOwner& o : rec->owner)
            if (o.pid == pid) return &o;
        return nullptr;
    }
};

TEST_F(FileTableTest, RepeatedOpensInOneProcessShareTheHandle) {
    auto a = create();
    auto b = create();
    ASSERT_NE(nullptr, a.h);
    ASSERT_NE(nullptr, b.h);
    ASSERT_NE(a.h, b.h);
    EXPECT_EQ(0u, a.h->index);
    EXPECT_EQ(1u, b.h->index);
    TQvFileRec* rec = a.h->rec;
    const uint32_t index = uint32_t(rec->shareIndex);
    EXPECT_EQ(1, rec->shrRef);
    EXPECT_STREQ(a.name.c_str(), rec->name);

    // The bare name again, then a path that contains it.
    EXPECT_EQ(a.h, open(a.name));
    EXPECT_EQ(a.h, open("/mnt/export/" + a.name));
    EXPECT_EQ(3, a.h->inRef);
    EXPECT_EQ(3, rec->shrRef);
    ASSERT_NE(nullptr, owner_of(rec, getpid()));
    EXPECT_EQ(3, owner_of(rec, getpid())->count);

    // A path holding both stored names opens the first handle in slot order,
    // not the name that comes first in the path.
    EXPECT_EQ(a.h, open("/x/" + b.name + "/" + a.name));
    EXPECT_EQ(1, b.h->inRef);

    for (int i = 0; i < 3; ++i) ASSERT_EQ(0, tf_CloseFile(a.h));
    EXPECT_EQ(1, a.h->inRef);
    EXPECT_EQ(1, rec->shrRef);
    EXPECT_EQ(1, owner_of(rec, getpid())->count);
    ASSERT_EQ(0, tf_CloseFile(a.h));
    EXPECT_EQ(nullptr, table_entry(0));
    EXPECT_FALSE(share_slot_used(index));
    EXPECT_EQ(nullptr, owner_of(rec, getpid()));  // pool record: bytes stay readable
    EXPECT_EQ(b.h, table_entry(1));
    EXPECT_EQ(0, tf_CloseFile(b.h));
}

TEST_F(FileTableTest, ReopenLoadsTheEntryFromDisk) {
    auto f = create(0, 0, 7, 9);
    ASSERT_NE(nullptr, f.h);
    const char data[] = "recording bytes";
    ASSERT_EQ(int(sizeof data), tf_Write(0, data, sizeof data, f.h));
    const TQvBlkSliceInfo written = f.h->rec->slice;
    ASSERT_EQ(0, tf_CloseFile(f.h));
    EXPECT_EQ(0, used_share_slots());

    TQvFileHandle* h = open(f.name);
    ASSERT_NE(nullptr, h) << "errno " << errno;
    EXPECT_NE(nullptr, h->blkFile);
    EXPECT_EQ(0, std::memcmp(&written, &h->rec->slice, sizeof written));
    EXPECT_EQ(7u, h->rec->slice.chn);
    EXPECT_EQ(9u, h->rec->slice.recType);
    char back[sizeof data] = {};
    EXPECT_EQ(int(sizeof data), tf_Read(0, back, sizeof back, h));
    EXPECT_STREQ(data, back);
    EXPECT_EQ(0, tf_CloseFile(h));
}

TEST_F(FileTableTest, BadNamesAndFailedOpensLeaveNoTrace) {
    auto f = create();
    ASSERT_NE(nullptr, f.h);
    ASSERT_EQ(0, tf_CloseFile(f.h));
    const int shares = used_share_slots();

    auto refused = [&](const std::string& name, int code) {
        errno = 0;
        EXPECT_EQ(nullptr, open(name)) << name;
        if (code != 0) {
            EXPECT_EQ(code, errno) << name;
        }
        EXPECT_EQ(0, used_table_slots()) << name;
        EXPECT_EQ(shares, used_share_slots()) << name;
    };
    refused("", QVFS_ERR_BADHANDLE);
    std::string noDot = f.name;
    noDot.erase(23, 1);
    refused(noDot, QVFS_ERR_BADHANDLE);
    refused("abc.rvd", QVFS_ERR_BADHANDLE);
    refused(f.name.substr(2), QVFS_ERR_BADHANDLE);  // dot 21 characters in
    std::string otherDisk = f.name;                  // location '0', disk '5': not mounted
    otherDisk[21] = '0';
    otherDisk[22] = '5';
    refused(otherDisk, QVFS_ERR_BADHANDLE);
    std::string devOther = "/dev/scsi/host07/part1/" + f.name;  // the path's disk wins
    refused(devOther, QVFS_ERR_BADHANDLE);
    // A well-formed name whose check code differs: the block layer refuses
    // it, and the handle and record made for it are given back.
    std::string wrongCode = f.name;
    wrongCode[12] = wrongCode[12] == 'F' ? 'E' : 'F';
    refused(wrongCode, 0);

    EXPECT_EQ(nullptr, tf_OpenFile(nullptr, nullptr));
    TQvfsOpenParam p = param(0, 0, 1, 0);
    EXPECT_EQ(nullptr, tf_OpenFile(&p, nullptr));
    errno = 0;
    EXPECT_EQ(-1, tf_CloseFile(nullptr));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);
    errno = 0;
    EXPECT_EQ(-1, tf_Unlink(nullptr));
    EXPECT_EQ(QVFS_ERR_BADARG, errno);

    // The original name still opens.
    TQvFileHandle* h = open(f.name);
    ASSERT_NE(nullptr, h);
    EXPECT_EQ(0, tf_CloseFile(h));
}

TEST_F(FileTableTest, TheFileTableHolds1024Files) {
    std::vector<TQvFileHandle*> open;
    for (uint32_t i = 0; i < kFileTableSize; ++i) {
        TQvfsOpenParam p = param(0, 0, 2, 0);
        char name[64] = {};
        TQvFileHandle* h = tf_OpenFile(&p, name);
        ASSERT_NE(nullptr, h) << "file " << i << " errno " << errno;
        ASSERT_EQ(i, h->index);
        open.push_back(h);
    }
    // Records beyond the pool live in segments of their own.
    EXPECT_GE(open.back()->rec->shareIndex, 512);
    TQvfsOpenParam p = param(0, 0, 2, 0);
    char name[64] = {};
    errno = 0;
    EXPECT_EQ(nullptr, tf_OpenFile(&p, name));
    EXPECT_EQ(QVFS_ERR_BADHANDLE, errno);

    ASSERT_EQ(0, tf_CloseFile(open[100]));
    TQvFileHandle* again = tf_OpenFile(&p, name);
    ASSERT_NE(nullptr, again) << "errno " << errno;
    EXPECT_EQ(100u, again->index);
    open[100] = again;
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
            std::vector<char> buf(name.begin(), name.end());
            buf.push_back('\0');
            TQvFileHandle* h = tf_OpenFile(nullptr, buf.data());
            CHILD_CHECK(link, h != nullptr);
            CHILD_CHECK(link, h->inRef == 1);
            link.send(h->rec->shrRef);
            int64_t cmd = 0;
            CHILD_CHECK(link, link.recv(&cmd));
            CHILD_CHECK(link, tf_CloseFile(h) == 0);
            return 0;
        }));
        int64_t shr = 0;
        ASSERT_TRUE(kids.back().recv(&shr)) << kids.back().describe(kids.back().wait());
        EXPECT_EQ(i + 1, shr);  // found by owner key: one record for all
    }

    TQvFileHandle* h = open(f.name);
    ASSERT_NE(nullptr, h);
    TQvFileRec* rec = h->rec;
    EXPECT_EQ(index, uint32_t(rec->shareIndex));
    EXPECT_EQ(9, rec->shrRef);
    EXPECT_EQ(nullptr, owner_of(rec, getpid()));
    for (const Child& k : kids) {
        ASSERT_NE(nullptr, owner_of(rec, k.pid()));
        EXPECT_EQ(1, owner_of(rec, k.pid())->count);
    }
    ASSERT_EQ(0, tf_CloseFile(h));
    auto* shared = static_cast<TQvFileRec*>(fsc_TfGetFileInfo(index));
    ASSERT_NE(nullptr, shared);
    EXPECT_EQ(8, shared->shrRef);
    for (const Child& k : kids) EXPECT_NE(nullptr, owner_of(shared, k.pid()));

    for (Child& k : kids) {
        k.send(1);
        EXPECT_CHILD_OK(k);
    }
    EXPECT_FALSE(share_slot_used(index));
}

TEST_F(FileTableTest, UnlinkOnlyWhenNobodyElseHoldsTheFile) {
    auto f = create();
    auto other = create();  // keeps the block alive after f goes
    ASSERT_NE(nullptr, f.h);
    ASSERT_NE(nullptr, other.h);

    // Held by this process: refused, the open survives.
    errno = 4242;
    EXPECT_EQ(-1, tf_Unlink(f.name.c_str()));
    EXPECT_EQ(4242, errno);
    EXPECT_EQ(1, f.h->inRef);
    EXPECT_EQ(1, f.h->rec->shrRef);
    ASSERT_EQ(0, tf_CloseFile(f.h));

    // Held by another process: refused.
    Child holder = Child::spawn([name = f.name](ChildLink& link) {
        std::vector<char> buf(name.begin(), name.end());
        buf.push_back('\0');
        TQvFileHandle* h = tf_OpenFile(nullptr, buf.data());
        CHILD_CHECK(link, h != nullptr);
        link.send(1);
        int64_t cmd = 0;
        link.recv(&cmd);
        tf_CloseFile(h);
        return 0;
    });
    ASSERT_TRUE(holder.expect(1)) << holder.describe(holder.wait());
    errno = 4242;
    EXPECT_EQ(-1, tf_Unlink(f.name.c_str()));
    EXPECT_EQ(4242, errno);  // no code, not even one left by opening the record
    EXPECT_EQ(1, used_table_slots());  // only `other`: the unlink's handle is gone
    TQvFileHandle* h = open(f.name);
    ASSERT_NE(nullptr, h);
    ASSERT_EQ(0, tf_CloseFile(h));
    holder.send(1);
    EXPECT_CHILD_OK(holder);

    // Nobody holds it: deleted; the name no longer opens.
    EXPECT_EQ(0, tf_Unlink(f.name.c_str()));
    EXPECT_EQ(nullptr, open(f.name));
    TQvBlkSliceInfo gone = entry_on_disk(f.name);
    EXPECT_EQ(0, std::memcmp(gone.magic, "\0\0\0\0", 4));
    EXPECT_EQ(1, used_table_slots());
    EXPECT_EQ(0, tf_CloseFile(other.h));
}

}  // namespace
