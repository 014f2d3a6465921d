// Views of a disk through the qvfs tool: the read-only FUSE view read while
// a recorder writes, the timeline picture, and the listing of the root's
// System V objects.
#include <gtest/gtest.h>

#if defined(QVFS_TOOL_PATH) && defined(QVFS_TOOL_RUNNER) && __has_include(<nlohmann/json.hpp>)

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>

#include "support/child.h"
#include "support/cli_env.h"

extern char** environ;

namespace qvfs::test {
namespace {

constexpr int32_t kT0 = 1709287200;  // 2024-03-01T10:00:00Z

class CliViews : public CliTest {
protected:
    CliViews() : CliTest(QVFS_TOOL_PATH, QVFS_TOOL_RUNNER) {}
};

size_t count(const std::string& s, const std::string& what) {
    size_t n = 0;
    for (size_t at = s.find(what); at != std::string::npos; at = s.find(what, at + 1)) ++n;
    return n;
}

TEST_F(CliViews, TimelineDrawsAGapAsTwoBarsAndMarksLockedTime) {
    const auto end_at = [](const std::string& name, int32_t end) {
        const TimeValue t[2] = {{end, 0}, {end, 0}};
        ASSERT_EQ(0, qvfs_ChangeTime(name.c_str(), t));
    };
    end_at(record(1, 0, kT0, pattern(1, 0, 4096)), kT0 + 600);
    const std::string locked = record(1, 0, kT0 + 1200, pattern(2, 0, 4096));
    end_at(locked, kT0 + 1800);
    ASSERT_EQ(0, qvfs_Lock(locked.c_str(), 1));
    end_at(record(2, 0, kT0, pattern(3, 0, 4096)), kT0 + 1800);

    const std::string svg = sbx_.root() + "/timeline.svg";
    const nlohmann::json j = json_of(qvfs({"timeline", "0", "--svg", svg, "--json"}));
    ASSERT_EQ(2u, j["channels"].size()) << j.dump(1);
    EXPECT_EQ(1800, j["seconds"]);
    const auto& ch1 = j["channels"][0];
    EXPECT_EQ((nlohmann::json{1, 1200, 1, 2, 1}),
              (nlohmann::json{ch1["channel"], ch1["recorded_seconds"], ch1["gaps"], ch1["files"], ch1["locked_files"]}));
    EXPECT_EQ(0, j["channels"][1]["gaps"]);
    EXPECT_EQ(1800, j["channels"][1]["recorded_seconds"]);

    std::ifstream in(svg);
    const std::string pic((std::istreambuf_iterator<char>(in)), {});
    EXPECT_EQ(2u, count(pic, "class=\"rec\" data-channel=\"1\"")) << pic;
    EXPECT_EQ(1u, count(pic, "class=\"locked\" data-channel=\"1\"")) << pic;
    EXPECT_EQ(1u, count(pic, "class=\"rec\" data-channel=\"2\"")) << pic;
    if (std::system("command -v xmllint >/dev/null 2>&1") == 0) {
        EXPECT_EQ(0, std::system(("xmllint --noout '" + svg + "'").c_str())) << pic;
    }
}

TEST_F(CliViews, IpcListsTheRootsObjectsAndKeepsThemWhileAProcessIsAttached) {
    const nlohmann::json j = json_of(qvfs({"ipc", "--json"}));
    const int objects = sbx_.ipc_objects();
    ASSERT_GT(objects, 0);
    EXPECT_EQ(size_t(objects), j["objects"].size()) << j.dump(1);
    EXPECT_TRUE(fails_with(1, qvfs({"ipc", "--remove"}), "process " + std::to_string(getpid()) + " is attached"));
    EXPECT_EQ(objects, sbx_.ipc_objects());
}

#ifdef QVFS_TOOL_FUSE

// The tool serving the view in the foreground; stopped (SIGTERM, then
// SIGKILL and a lazy unmount) when the test ends, however it ends.
struct View {
    pid_t pid = -1;
    std::string dir, log;
    int stop() {
        int st = 0;
        if (pid <= 0) return -1;
        kill(pid, SIGTERM);
        for (int i = 0; i < 500 && waitpid(pid, &st, WNOHANG) == 0; ++i) usleep(10000);
        if (waitpid(pid, &st, WNOHANG) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, &st, 0);
            umount2(dir.c_str(), MNT_DETACH);
            (void)std::system(("fusermount3 -uz '" + dir + "' 2>/dev/null").c_str());
        }
        pid = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    }
    ~View() { stop(); }
};

TEST_F(CliViews, MountViewReadsAGrowingRecordingAndRefusesWrites) {
    if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "/dev/fuse is not usable here";
    if (std::system("command -v fusermount3 >/dev/null 2>&1") != 0) GTEST_SKIP() << "fusermount3 is not installed";
    constexpr uint32_t kChunk = 256 * 1024;
    constexpr int kSteps = 6;
    char* name = static_cast<char*>(mmap(nullptr, 64, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    // The recorder writes one chunk each time the test asks for it.
    Child rec = Child::spawn([&](ChildLink& link) {
        TQvfsOpenParam p = param(3);
        p.startTime = kT0;
        const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
        CHILD_CHECK(link, h >= 0);
        link.send(0);
        for (int64_t k = 0, go; k < kSteps && link.recv(&go); ++k) {
            const auto data = pattern(3, uint64_t(k) * kChunk, kChunk);
            CHILD_CHECK(link, qvfs_Write(h, data.data(), kChunk) == int(kChunk));
            link.send(k + 1);
        }
        return qvfs_Close(h);
    });
    ASSERT_TRUE(rec.expect(0));

    View v;
    v.dir = sbx_.root() + "/view";
    v.log = sbx_.root() + "/view.log";
    ASSERT_EQ(0, mkdir(v.dir.c_str(), 0755));
    std::vector<std::string> args;
    std::istringstream runner(QVFS_TOOL_RUNNER);
    for (std::string w; runner >> w;) args.push_back(w);
    for (const char* a : {tool_.c_str(), "--root", sbx_.root().c_str(), "mount-view", v.dir.c_str(), "0", "-f"})
        args.emplace_back(a);
    std::vector<char*> argv, envp;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    std::string tz = "TZ=UTC";
    for (char** e = environ; *e != nullptr; ++e)
        if (std::strncmp(*e, "TZ=", 3) != 0) envp.push_back(*e);
    envp.push_back(tz.data());
    envp.push_back(nullptr);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 1, v.log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&fa, 1, 2);
    ASSERT_EQ(0, posix_spawn(&v.pid, argv[0], &fa, nullptr, argv.data(), envp.data()));
    posix_spawn_file_actions_destroy(&fa);

    const std::string path = v.dir + "/disk0/ch003/2024-03-01T10-00-00_" + name;
    struct stat st {};
    for (int i = 0; i < 1000 && ::stat(path.c_str(), &st) != 0 && waitpid(v.pid, nullptr, WNOHANG) == 0; ++i)
        usleep(10000);
    if (::stat(path.c_str(), &st) != 0) {
        std::ifstream in(v.log);
        const std::string log((std::istreambuf_iterator<char>(in)), {});
        if (log.find("not permitted") != std::string::npos || log.find("Permission denied") != std::string::npos)
            GTEST_SKIP() << "mounting FUSE is not permitted here: " << log;
        FAIL() << path << " did not appear; the tool said: " << log;
    }
    EXPECT_EQ(0, st.st_size);
    const int fd = ::open(path.c_str(), O_RDONLY);
    ASSERT_GE(fd, 0) << strerror(errno);
    std::vector<uint8_t> got(kChunk + 1);
    for (int k = 0; k < kSteps; ++k) {
        ASSERT_TRUE(rec.send(k));
        ASSERT_TRUE(rec.expect(k + 1));
        ASSERT_EQ(0, ::stat(path.c_str(), &st));
        EXPECT_EQ(off_t(k + 1) * kChunk, st.st_size) << "the size in the view lags behind";
        // Through the descriptor opened on the empty file: the new chunk,
        // then the end of what is recorded so far.
        size_t n = 0;
        for (ssize_t r; n < got.size() && (r = ::read(fd, got.data() + n, got.size() - n)) > 0;) n += size_t(r);
        ASSERT_EQ(kChunk, n) << "step " << k;
        got.resize(kChunk);
        EXPECT_TRUE(got == pattern(3, uint64_t(k) * kChunk, kChunk)) << "step " << k;
        got.resize(kChunk + 1);
    }
    ::close(fd);
    errno = 0;
    EXPECT_EQ(-1, ::open(path.c_str(), O_WRONLY));
    EXPECT_EQ(EROFS, errno);
    EXPECT_CHILD_OK(rec);
    EXPECT_EQ(0, v.stop()) << "the view did not shut down cleanly";
    EXPECT_NE(0, ::stat((v.dir + "/disk0").c_str(), &st)) << "still mounted";
}

#endif  // QVFS_TOOL_FUSE

}  // namespace
}  // namespace qvfs::test

#else
TEST(CliViews, NeedsTheTool) { GTEST_SKIP() << "the qvfs tool is not built for this target"; }
#endif
