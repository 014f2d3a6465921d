// child.cpp - forked child processes with a value channel and a report channel.
#include "support/child.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstring>

namespace qvfs::test {
namespace {

bool send_all(int fd, const void* p, std::size_t n) {
    for (const char* c = static_cast<const char*>(p); n > 0;) {
        const ssize_t k = ::send(fd, c, n, MSG_NOSIGNAL);
        if (k <= 0 && !(k < 0 && errno == EINTR)) return false;
        if (k > 0) c += k, n -= std::size_t(k);
    }
    return true;
}

bool recv_value(int fd, int64_t* v, int timeoutMs) {
    struct pollfd pfd = {fd, POLLIN, 0};
    int r;
    while ((r = ::poll(&pfd, 1, timeoutMs)) < 0 && errno == EINTR) {
    }
    char buf[sizeof(int64_t)];
    for (std::size_t got = 0; r > 0 && got < sizeof buf;) {
        const ssize_t k = ::recv(fd, buf + got, sizeof buf - got, 0);
        if (k <= 0 && !(k < 0 && errno == EINTR)) return false;
        if (k > 0) got += std::size_t(k);
    }
    if (r > 0) std::memcpy(v, buf, sizeof buf);
    return r > 0;
}

// Installed in a child: counts failed EXPECTs (gtest prints them on the
// standard output the child shares with the parent).
struct FailureCount : ::testing::EmptyTestEventListener {
    void OnTestPartResult(const ::testing::TestPartResult& r) override { failures += r.failed(); }
    static inline int failures = 0;
};

}  // namespace

bool ChildLink::send(int64_t v) { return send_all(chan_, &v, sizeof v); }
bool ChildLink::recv(int64_t* v, int timeoutMs) { return recv_value(chan_, v, timeoutMs); }

int ChildLink::fail(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    std::fprintf(stderr, "child %d: ", int(::getpid()));
    std::vfprintf(stderr, fmt, ap);
    std::fputc('\n', stderr);
    va_end(ap);
    return 1;
}

Child Child::spawn(std::function<int(ChildLink&)> body) {
    Child c;
    int chan[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, chan) != 0) return c;
    std::fflush(nullptr);  // or the child would print the parent's buffered output again
    const pid_t parent = ::getpid(), pid = ::fork();
    if (pid == 0) {
        // A child never outlives its test: it would go on using keys that a
        // later sandbox may own.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(255);
        ::close(chan[0]);
        ChildLink link;
        link.chan_ = chan[1];
        ::testing::UnitTest::GetInstance()->listeners().Append(new FailureCount);
        int rc;
        try {
            rc = body(link);
        } catch (const std::exception& e) {
            rc = link.fail("exception in child: %s", e.what());
        }
        if (rc == 0 && FailureCount::failures > 0) rc = 1;
        std::fflush(nullptr);
        ::_exit(rc < 0 || rc > 255 ? 255 : rc);
    }
    ::close(chan[1]);
    if (pid < 0) {
        ::close(chan[0]);
        return c;
    }
    c.pid_ = pid, c.chan_ = chan[0];
    return c;
}

Child& Child::operator=(Child&& o) noexcept {
    if (this != &o) {
        release();
        pid_ = o.pid_, reaped_ = o.reaped_, result_ = o.result_, chan_ = o.chan_;
        o.pid_ = o.chan_ = -1;
    }
    return *this;
}

void Child::release() {
    if (pid_ > 0 && !reaped_) kill_now();
    if (chan_ >= 0) ::close(chan_);
    chan_ = -1;
}

bool Child::send(int64_t v) { return chan_ >= 0 && send_all(chan_, &v, sizeof v); }
bool Child::recv(int64_t* v, int timeoutMs) { return chan_ >= 0 && recv_value(chan_, v, timeoutMs); }

bool Child::expect(int64_t want, int timeoutMs) {
    int64_t v = 0;
    return recv(&v, timeoutMs) && v == want;
}

int Child::wait(int timeoutMs) {
    if (pid_ <= 0) return kNoChild;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!reaped_) {
        int st = 0;
        const pid_t r = ::waitpid(pid_, &st, WNOHANG);
        if (r == pid_ || (r < 0 && errno != EINTR)) {
            result_ = r < 0 ? kNoChild : WIFEXITED(st) ? WEXITSTATUS(st) : signalled(WTERMSIG(st));
            reaped_ = true;
        } else if (std::chrono::steady_clock::now() >= deadline) {
            ::kill(pid_, SIGKILL);
            while (::waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
            }
            result_ = kTimeout, reaped_ = true;
        } else {
            ::usleep(2000);
        }
    }
    return result_;
}

int Child::kill_now() {
    if (pid_ > 0 && !reaped_) ::kill(pid_, SIGKILL);
    return wait();
}

std::string Child::describe(int result) const {
    return "child " + std::to_string(pid_) +
           (result == kTimeout ? " did not finish in time (killed)"
            : result < 0       ? " was killed by signal " + std::to_string(-result)
                               : " exited with " + std::to_string(result) + " (its report is above)");
}

}  // namespace qvfs::test
