// api_env.h - a started library (qvfs_Init) with a formatted, mounted disk,
// for tests of the public interface.
//
//   class MyTest : public qvfs::test::ApiTest {};
//   TEST_F(MyTest, X) {
//       std::string name;
//       int h = create(&name);              // a new recording on disk 0
//       ASSERT_GE(h, 0);
//       EXPECT_EQ(5, qvfs_Write(h, "bytes", 5));
//   }
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "api/qvfs.h"
#include "support/sandbox.h"

namespace qvfs::test {

class ApiTest : public SandboxTest {
protected:
    // qvfs_Init, then disk 0 formatted (kBlocks blocks) and mounted through
    // the public calls.
    void SetUp() override;
    // Closes the process's handles (qvfs_DeInit) and unmounts every disk for
    // all processes, so that no flush runs on images the sandbox deletes.
    void TearDown() override;

    static constexpr uint32_t kBlocks = 4;

    // The open-parameter record of a new file on disk 0.
    TQvfsOpenParam param(uint32_t chn = 1, int32_t fileType = 0, int32_t resSize = 0, int32_t recType = 5) const;

    // Creates a file with qvfs_OpenV2 (read-write) and stores its name.
    // Returns the handle; fails the test when it cannot.
    int create(std::string* name, uint32_t chn = 1, int32_t fileType = 0, int32_t resSize = 0,
               int32_t recType = 5);

    // A new file of a channel and record type holding `len` bytes of
    // pattern(chn, ...), closed again; its name. Fails the test when it cannot.
    std::string new_file(uint32_t chn = 1, int32_t recType = 5, size_t len = 3);

    // Opens an existing file by name; the handle or -1.
    static int open_name(const std::string& name, int flags = QVFS_O_RDONLY);

    // The whole content of a file read through a new read-only handle.
    static std::vector<uint8_t> read_all(const std::string& name);

    // The status record of a named file (qvfs_Stat); fails the test when the
    // call fails.
    static TQvFileStat stat_of(const std::string& name);

    std::string disk_;  // device path of disk 0
};

// Deterministic test bytes: byte i of stream `seed`.
uint8_t pattern_byte(uint32_t seed, uint64_t i);
std::vector<uint8_t> pattern(uint32_t seed, uint64_t from, size_t len);

}  // namespace qvfs::test
