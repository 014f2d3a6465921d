// cli_env.h - runs the qvfs command-line tool as a real process against the
// test's sandbox, beside a library started in the test process (disk 0
// formatted and mounted, as ApiTest leaves it), the way the tool runs beside
// a recorder.
//
//   class CliX : public qvfs::test::CliTest {
//   protected:
//       CliX() : CliTest(QVFS_TOOL_PATH, QVFS_TOOL_RUNNER) {}
//   };
//   TEST_F(CliX, Df) {
//       ToolRun r = qvfs({"df", "0", "--json"});
//       EXPECT_EQ(0, r.status) << r.describe();
//   }
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/api_env.h"

namespace qvfs::test {

struct ToolRun {
    int status = -1;  // exit code, or -signal when a signal ended it
    std::string out;  // standard output
    std::string err;  // standard error
    // Status and both streams, for failure messages.
    std::string describe() const;
};

// Runs `program` with `args`. The environment is this process's with the
// "NAME=value" entries of `env` added or replaced; standard input is
// /dev/null. A program still running after timeoutMs is killed (status
// -SIGKILL).
ToolRun run_program(const std::string& program, const std::vector<std::string>& args,
                    const std::vector<std::string>& env = {}, int timeoutMs = 60000);

class CliTest : public ApiTest {
protected:
    // The tool's path, and the command that runs programs of the target
    // (space-separated; empty when they run directly).
    CliTest(const char* tool, const char* runner) : tool_(tool), runner_(runner) {}

    // Runs the tool as "qvfs --root <sandbox> args..." in the UTC time zone
    // (env entries may override TZ).
    ToolRun qvfs(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) const;
    // The same without the --root option.
    ToolRun qvfs_plain(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) const;

    // Records a file through the library in this process: channel, file
    // type, start time and record type as given, `bytes` written, closed.
    // Returns its name; fails the test when it cannot.
    std::string record(uint32_t chn, int32_t fileType, int32_t start, const std::vector<uint8_t>& bytes,
                       int32_t recType = 0, int32_t resSize = 0);

    std::string tool_;
    std::string runner_;
};

}  // namespace qvfs::test
