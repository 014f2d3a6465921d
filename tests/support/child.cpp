// child.cpp - forked child processes with a value channel and a report channel.

#include "support/child.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>

namespace qvfs::test {
namespace {

int64_t now_ms() {
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool send_all(int fd, const void* p, std::size_t n) {
    const char* c = static_cast<const char*>(p);
    while (n > 0) {
        ssize_t k = ::send(fd, c, n, MSG_NOSIGNAL);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        c += k;
        n -= static_cast<std::size_t>(k);
    }
    return true;
}

// Reads one 8-byte value, waiting at most timeoutMs for it to begin.
bool recv_value(int fd, int64_t* v, int timeoutMs) {
    if (fd < 0) return false;
    struct pollfd pfd = {fd, POLLIN, 0};
    int r;
    do {
        r = ::poll(&pfd, 1, timeoutMs);
    } while (r < 0 && errno == EINTR);
    if (r <= 0) return false;
    char buf[sizeof(int64_t)];
    std::size_t got = 0;
    while (got < sizeof buf) {
        ssize_t k = ::recv(fd, buf + got, sizeof buf - got, 0);
        if (k < 0 && errno == EINTR) continue;
        if (k <= 0) return false;
        got += static_cast<std::size_t>(k);
    }
    std::memcpy(v, buf, sizeof buf);
    return true;
}

void vnote(int fd, const char* fmt, va_list ap) {
    char line[1024];
    int n = std::vsnprintf(line, sizeof line - 1, fmt, ap);
    if (n < 0) return;
    std::size_t len = static_cast<std::size_t>(n) < sizeof line - 1 ? static_cast<std::size_t>(n)
                                                                     : sizeof line - 2;
    line[len++] = '\n';
    send_all(fd, line, len);
}

// Installed in the child: forwards failed EXPECTs to the parent's report.
class FailureForwarder : public ::testing::EmptyTestEventListener {
public:
    explicit FailureForwarder(int fd) : fd_(fd) {}
    void OnTestPartResult(const ::testing::TestPartResult& r) override {
        if (!r.failed()) return;
        ++failures;
        char line[2048];
        int n = std::snprintf(line, sizeof line, "%s:%d: %s\n", r.file_name() ? r.file_name() : "?",
                              r.line_number(), r.summary());
        if (n > 0) send_all(fd_, line, std::min<std::size_t>(static_cast<std::size_t>(n), sizeof line - 1));
    }
    static inline int failures = 0;

private:
    int fd_;
};

}  // namespace

// ---- child side ------------------------------------------------------------------

bool ChildLink::send(int64_t v) { return send_all(chan_, &v, sizeof v); }

bool ChildLink::recv(int64_t* v, int timeoutMs) { return recv_value(chan_, v, timeoutMs); }

void ChildLink::note(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vnote(text_, fmt, ap);
    va_end(ap);
}

int ChildLink::fail(const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    vnote(text_, fmt, ap);
    va_end(ap);
    return 1;
}

// ---- parent side -----------------------------------------------------------------

Child Child::spawn(Body body) {
    Child c;
    int chan[2], text[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, chan) != 0) return c;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, text) != 0) {
        ::close(chan[0]);
        ::close(chan[1]);
        return c;
    }
    std::fflush(nullptr);  // or the child would print the parent's buffered output again
    pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid == 0) {
        // A child never outlives its test: it would go on using keys that a
        // later sandbox may own.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(255);
        ::close(chan[0]);
        ::close(text[0]);
        ChildLink link;
        link.chan_ = chan[1];
        link.text_ = text[1];
        ::testing::UnitTest::GetInstance()->listeners().Append(new FailureForwarder(text[1]));
        int rc;
        try {
            rc = body(link);
        } catch (const std::exception& e) {
            rc = link.fail("exception in child: %s", e.what());
        } catch (...) {
            rc = link.fail("unknown exception in child");
        }
        if (rc < 0 || rc > 255) rc = 255;
        if (rc == 0 && FailureForwarder::failures > 0) rc = 1;
        std::fflush(nullptr);
        ::_exit(rc);
    }
    ::close(chan[1]);
    ::close(text[1]);
    if (pid < 0) {
        ::close(chan[0]);
        ::close(text[0]);
        return c;
    }
    c.pid_ = pid;
    c.chan_ = chan[0];
    c.text_ = text[0];
    ::fcntl(c.text_, F_SETFL, ::fcntl(c.text_, F_GETFL) | O_NONBLOCK);
    return c;
}

Child::Child(Child&& o) noexcept { *this = std::move(o); }

Child& Child::operator=(Child&& o) noexcept {
    if (this != &o) {
        if (running()) kill_now();
        close_all();
        pid_ = o.pid_;
        reaped_ = o.reaped_;
        result_ = o.result_;
        chan_ = o.chan_;
        text_ = o.text_;
        textBuf_ = std::move(o.textBuf_);
        o.pid_ = -1;
        o.reaped_ = false;
        o.result_ = kNoChild;
        o.chan_ = o.text_ = -1;
    }
    return *this;
}

Child::~Child() {
    if (running()) kill_now();
    close_all();
}

void Child::close_all() {
    if (chan_ >= 0) ::close(chan_);
    if (text_ >= 0) ::close(text_);
    chan_ = text_ = -1;
}

bool Child::send(int64_t v) { return chan_ >= 0 && send_all(chan_, &v, sizeof v); }

bool Child::recv(int64_t* v, int timeoutMs) { return recv_value(chan_, v, timeoutMs); }

bool Child::expect(int64_t want, int timeoutMs) {
    int64_t v = 0;
    return recv(&v, timeoutMs) && v == want;
}

void Child::drain_text(bool block) {
    if (text_ < 0) return;
    char buf[4096];
    for (;;) {
        ssize_t k = ::read(text_, buf, sizeof buf);
        if (k > 0) {
            textBuf_.append(buf, static_cast<std::size_t>(k));
            continue;
        }
        if (k < 0 && errno == EINTR) continue;
        if (k < 0 && errno == EAGAIN && block) {
            // The child is gone, but a grandchild may still hold its end;
            // wait briefly for the rest rather than forever.
            struct pollfd pfd = {text_, POLLIN, 0};
            if (::poll(&pfd, 1, 100) > 0) continue;
        }
        return;
    }
}

int Child::wait(int timeoutMs) {
    if (pid_ <= 0) return kNoChild;
    if (reaped_) return result_;
    int64_t deadline = now_ms() + timeoutMs;
    for (;;) {
        int st = 0;
        pid_t r = ::waitpid(pid_, &st, WNOHANG);
        if (r == pid_) {
            result_ = WIFEXITED(st) ? WEXITSTATUS(st) : signalled(WTERMSIG(st));
            break;
        }
        if (r < 0 && errno != EINTR) {
            result_ = kNoChild;
            break;
        }
        drain_text(false);
        if (now_ms() >= deadline) {
            ::kill(pid_, SIGKILL);
            while (::waitpid(pid_, &st, 0) < 0 && errno == EINTR) {
            }
            result_ = kTimeout;
            break;
        }
        // Sleep until the child writes a report line or 2 ms pass.
        struct pollfd pfd = {text_, POLLIN, 0};
        ::poll(&pfd, 1, 2);
    }
    reaped_ = true;
    drain_text(true);
    return result_;
}

int Child::kill_now() {
    if (running()) ::kill(pid_, SIGKILL);
    return wait();
}

const std::string& Child::text() {
    if (!reaped_) drain_text(false);
    return textBuf_;
}

std::string Child::describe(int result) {
    std::string s = "child " + std::to_string(pid_);
    if (result == kTimeout) {
        s += " did not finish in time (killed)";
    } else if (result == kNoChild) {
        s += " was not started";
    } else if (result < 0) {
        s += " was killed by signal " + std::to_string(-result) + " (" + strsignal(-result) + ")";
    } else {
        s += " exited with " + std::to_string(result);
    }
    const std::string& t = text();
    if (!t.empty()) s += "; it reported:\n" + t;
    return s;
}

}  // namespace qvfs::test
