// cli_env.cpp - see cli_env.h.
#include "support/cli_env.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

extern char** environ;

namespace qvfs::test {

std::string ToolRun::describe() const {
    std::ostringstream s;
    s << "status " << status << "\n--- stdout ---\n" << out << "--- stderr ---\n" << err;
    return s.str();
}

ToolRun run_program(const std::string& program, const std::vector<std::string>& args,
                    const std::vector<std::string>& env, int timeoutMs) {
    ToolRun r;
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

    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0) {
        r.err = std::string("pipe: ") + std::strerror(errno);
        return r;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        const int in = open("/dev/null", O_RDONLY);
        dup2(in, 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        execve(program.c_str(), argv.data(), envp.data());
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    if (pid < 0) {
        close(outPipe[0]);
        close(errPipe[0]);
        r.err = std::string("fork: ") + std::strerror(errno);
        return r;
    }
    timespec t0;
    clock_gettime(CLOCK_MONOTONIC, &t0);
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&r.out, &r.err};
    int open = 2;
    bool killed = false;
    while (open > 0) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        const long elapsed = (now.tv_sec - t0.tv_sec) * 1000 + (now.tv_nsec - t0.tv_nsec) / 1000000;
        if (elapsed >= timeoutMs && !killed) {
            kill(pid, SIGKILL);
            killed = true;
        }
        if (poll(fds, 2, 200) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buf[65536];
            const ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                sinks[i]->append(buf, static_cast<size_t>(n));
            } else if (n == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    int ws = 0;
    while (waitpid(pid, &ws, 0) < 0 && errno == EINTR) {
    }
    r.status = WIFEXITED(ws) ? WEXITSTATUS(ws) : -WTERMSIG(ws);
    return r;
}

ToolRun CliTest::qvfs(const std::vector<std::string>& args, const std::vector<std::string>& env) const {
    std::vector<std::string> all{"--root", sbx_.root()};
    all.insert(all.end(), args.begin(), args.end());
    return qvfs_plain(all, env);
}

ToolRun CliTest::qvfs_plain(const std::vector<std::string>& args, const std::vector<std::string>& env) const {
    std::vector<std::string> cmd;
    std::istringstream words(runner_);
    for (std::string w; words >> w;) cmd.push_back(w);
    cmd.push_back(tool_);
    cmd.insert(cmd.end(), args.begin(), args.end());
    const std::string program = cmd.front();
    cmd.erase(cmd.begin());
    std::vector<std::string> e{"TZ=UTC"};
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
