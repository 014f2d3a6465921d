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

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#if __has_include(<nlohmann/json.hpp>)
#include <nlohmann/json.hpp>
#endif

#include "support/fixture.h"

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
// Starts it with the given standard streams and returns at once: its pid, or -1.
pid_t start_program(const std::string& program, const std::vector<std::string>& args,
                    const std::vector<std::string>& env, int in, int out, int err);

// A failed run: exit code `status` and one line on standard error starting
// with "qvfs: ". That line must equal `err` when `err` starts with "qvfs: ",
// and contain it otherwise.
::testing::AssertionResult fails_with(int status, const ToolRun& r, const std::string& err = "");

// A time as the tool prints it in a zone `offset` seconds east of UTC:
// "2024-03-01T10:00:00+00:00".
std::string iso_time(int64_t t, int offset = 0);

#if __has_include(<nlohmann/json.hpp>)
// The JSON output of a successful run; fails the test on a non-zero status
// or output that is not JSON.
inline nlohmann::json json_of(const ToolRun& r) {
    EXPECT_EQ(0, r.status) << r.describe();
    nlohmann::json j = nlohmann::json::parse(r.out, nullptr, false);
    EXPECT_FALSE(j.is_discarded()) << r.describe();
    return j;
}
#endif

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
    // The runner's words, the tool, args: a command line for start_program.
    std::vector<std::string> command(const std::vector<std::string>& args) const;

    // Records a file through the library in this process: channel, file
    // type, start time and record type as given, `bytes` written, closed.
    // Returns its name; fails the test when it cannot.
    std::string record(uint32_t chn, int32_t fileType, int32_t start, const std::vector<uint8_t>& bytes,
                       int32_t recType = 0, int32_t resSize = 0);

    std::string tool_;
    std::string runner_;
};

}  // namespace qvfs::test
