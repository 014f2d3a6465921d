// cli_env.cpp - see cli_env.h.
#include "support/cli_env.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sstream>

extern char** environ;

namespace qvfs::test {

std::string ToolRun::describe() const {
    std::ostringstream s;
    s << "status " << status << "\n--- stdout ---\n" << out << "--- stderr ---\n" << err;
    return s.str();
}

namespace {

// A file that is already unlinked, for one of the child's output streams.
int scratch_file() {
    const char* dir = std::getenv("TMPDIR");
    std::string path = std::string(dir != nullptr ? dir : "/tmp") + "/qvfs-out-XXXXXX";
    const int fd = mkostemp(path.data(), O_CLOEXEC);
    if (fd >= 0) ::unlink(path.c_str());
    return fd;
}

std::string contents(int fd) {
    std::string out;
    char buf[65536];
    for (ssize_t n; (n = ::pread(fd, buf, sizeof buf, off_t(out.size()))) > 0;) out.append(buf, size_t(n));
    ::close(fd);
    return out;
}

}  // namespace

pid_t start_program(const std::string& program, const std::vector<std::string>& args,
                    const std::vector<std::string>& env, int in, int out, int err) {
    // Everything the child needs is built before the fork: between fork and
    // exec only async-signal-safe calls are allowed in a threaded process.
    // Later entries replace earlier ones of the same name.
    std::vector<std::string> envs;
    const auto put = [&envs](const std::string& entry) {
        const std::string name = entry.substr(0, entry.find('=') + 1);
        for (auto& e : envs)
            if (e.compare(0, name.size(), name) == 0) {
                e = entry;
                return;
            }
        envs.push_back(entry);
    };
    for (char** e = environ; *e != nullptr; ++e) put(*e);
    for (const auto& x : env) put(x);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (auto& e : envs) envp.push_back(e.data());
    envp.push_back(nullptr);

    const pid_t pid = out < 0 || err < 0 || in < 0 ? -1 : fork();
    if (pid == 0) {
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    return pid;
}

ToolRun run_program(const std::string& program, const std::vector<std::string>& args,
                    const std::vector<std::string>& env, int timeoutMs) {
    ToolRun r;
    const int out = scratch_file(), err = scratch_file(), in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t pid = start_program(program, args, env, in, out, err);
    if (in >= 0) ::close(in);
    // Waits in steps of 2 ms; a program still running after timeoutMs is killed.
    int ws = 0;
    pid_t done = 0;
    for (int waited = 0; pid > 0 && (done = waitpid(pid, &ws, WNOHANG)) != pid; waited += 2) {
        if (done < 0 && errno != EINTR) break;
        if (waited >= timeoutMs) kill(pid, SIGKILL);
        usleep(2000);
    }
    r.status = pid < 0 || done != pid ? -1 : WIFEXITED(ws) ? WEXITSTATUS(ws) : -WTERMSIG(ws);
    r.out = out < 0 ? "" : contents(out);
    r.err = err < 0 ? "" : contents(err);
    if (pid < 0) r.err += std::string("cannot start ") + program + ": " + std::strerror(errno);
    return r;
}

::testing::AssertionResult fails_with(int status, const ToolRun& r, const std::string& err) {
    const bool exact = err.rfind("qvfs: ", 0) == 0;
    if (r.status == status && r.err.rfind("qvfs: ", 0) == 0 &&
        r.err.find('\n') == r.err.size() - 1 && (exact ? r.err == err : r.err.find(err) != std::string::npos))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "want status " << status << " and one error line "
                                         << (exact ? "equal to " : "containing ") << "\"" << err << "\"\n"
                                         << r.describe();
}

std::string iso_time(int64_t t, int offset) {
    const time_t tt = static_cast<time_t>(t + offset);
    std::tm tm{};
    gmtime_r(&tt, &tm);
    char buf[32], zone[16];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    const int m = (offset < 0 ? -offset : offset) / 60 % 1440;
    std::snprintf(zone, sizeof zone, "%c%02d:%02d", offset < 0 ? '-' : '+', m / 60, m % 60);
    return std::string(buf) + zone;
}

ToolRun CliTest::qvfs(const std::vector<std::string>& args, const std::vector<std::string>& env) const {
    std::vector<std::string> all{"--root", sbx_.root()};
    all.insert(all.end(), args.begin(), args.end());
    return qvfs_plain(all, env);
}

std::vector<std::string> CliTest::command(const std::vector<std::string>& args) const {
    std::vector<std::string> cmd;
    std::istringstream words(runner_);
    for (std::string w; words >> w;) cmd.push_back(w);
    cmd.push_back(tool_);
    cmd.insert(cmd.end(), args.begin(), args.end());
    return cmd;
}

ToolRun CliTest::qvfs_plain(const std::vector<std::string>& args, const std::vector<std::string>& env) const {
    std::vector<std::string> cmd = command(args), e{"TZ=UTC"};
    const std::string program = cmd.front();
    cmd.erase(cmd.begin());
    e.insert(e.end(), env.begin(), env.end());
    return run_program(program, cmd, e);
}

std::string CliTest::record(uint32_t chn, int32_t fileType, int32_t start, const std::vector<uint8_t>& bytes,
                            int32_t recType, int32_t resSize) {
    TQvfsOpenParam p = param(chn, fileType, resSize, recType);
    p.startTime = start;
    if (fileType == 3 || fileType == 5) std::strncpy(p.ext, "jpg", sizeof p.ext - 1);
    char name[64] = {};
    const int h = qvfs_OpenV2(&p, name, QVFS_O_RDWR);
    EXPECT_GE(h, 0) << "create failed, errno " << errno;
    if (h < 0) return "";
    if (!bytes.empty()) {
        EXPECT_EQ(static_cast<int>(bytes.size()), qvfs_Write(h, bytes.data(), static_cast<uint32_t>(bytes.size())))
            << "errno " << errno;
    }
    EXPECT_EQ(0, qvfs_Close(h));
    return name;
}

}  // namespace qvfs::test
