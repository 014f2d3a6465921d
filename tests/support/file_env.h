// file_env.h - a started file layer with a formatted, mounted disk, for tests
// of the file layer and the layers above it.
//
//   class MyTest : public qvfs::test::FileTest {};
//   TEST_F(MyTest, X) {
//       auto f = create();                      // a new recording on disk 0
//       ASSERT_NE(nullptr, f.h);
//       EXPECT_EQ(1, f.h->inRef);
//   }
#pragma once

#include <gtest/gtest.h>

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "file/tf.h"
#include "support/sandbox.h"

namespace qvfs::test {

class FileTest : public SandboxTest {
protected:
    // Starts the layers (tf_Init) and readies disk 0 with a few blocks.
    void SetUp() override;
    // Forced unmount of the disks, so that no flush runs on images the
    // sandbox is about to delete.
    void TearDown() override;

    struct Created {
        TQvFileHandle* h = nullptr;
        std::string name;  // the 27-character name (plus extension)
    };

    // Creates a file on disk 0 through tf_OpenFile: file type 1 gets a
    // reserved area of resSize bytes. Fails the test when it cannot.
    Created create(int32_t fileType = 0, int32_t resSize = 0, uint32_t chn = 1, int32_t recType = 5);

    // The open-parameter record for a file on disk 0.
    TQvfsOpenParam param(int32_t fileType, int32_t resSize, uint32_t chn, int32_t recType) const;

    // The slice entry of a named file as stored on the device (block and
    // slice number taken from the name).
    TQvBlkSliceInfo entry_on_disk(const std::string& name) const;

    // Raw bytes of the disk image at a block address of the named file.
    std::string bytes_on_disk(const std::string& name, uint64_t blockOffset, size_t len) const;

    // Whether owner slot (share index) i of the owner list is in use.
    static bool share_slot_used(uint32_t i);

    // Opens an existing file by its name (or a path holding it); null when
    // tf_OpenFile refuses.
    static TQvFileHandle* open(const std::string& name);

    // The count in pid's owner slot of a record; -1 when pid has no slot.
    static int owner_count(const TQvFileRec* rec, pid_t pid);

    std::string disk_;  // device path of disk 0
};

// Block number and slice number of a text name.
uint32_t name_block(const std::string& name);
uint32_t name_slice(const std::string& name);

}  // namespace qvfs::test
