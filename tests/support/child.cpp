// child.cpp - forked child processes with a value channel and a report channel.
#include "support/child.h"

#include <fcntl.h>
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

// Installed in a child: failed EXPECTs go to the parent's report.
struct Forwarder : ::testing::EmptyTestEventListener {
    explicit Forwarder(int fd) : fd(fd) {}
    void OnTestPartResult(const ::testing::TestPartResult& r) override {
        if (!r.failed()) return;
        ++failures;
        const std::string line = std::string(r.file_name() ? r.file_name() : "?") + ":" +
                                 std::to_string(r.line_number()) + ": " + r.summary() + "\n";
        send_all(fd, line.data(), line.size());
    }
    int fd;
    static inline int failures = 0;
};

}  // namespace

bool ChildLink::send(int64_t v) { return send_all(chan_, &v, sizeof v); }
bool ChildLink::recv(int64_t* v, int timeoutMs) { return recv_value(chan_, v, timeoutMs); }

int ChildLink::fail(const char* fmt, ...) {
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    const int n = std::vsnprintf(line, sizeof line - 1, fmt, ap);
    va_end(ap);
    const std::size_t len = n < 0 ? 0 : std::min<std::size_t>(std::size_t(n), sizeof line - 2);
    line[len] = '\n';
    send_all(text_, line, len + 1);
    return 1;
}

Child Child::spawn(std::function<int(ChildLink&)> body) {
    Child c;
    int chan[2], text[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, chan) != 0) return c;
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, text) != 0) {
        ::close(chan[0]), ::close(chan[1]);
        return c;
    }
    std::fflush(nullptr);  // or the child would print the parent's buffered output again
    const pid_t parent = ::getpid(), pid = ::fork();
    if (pid == 0) {
        // A child never outlives its test: it would go on using keys that a
        // later sandbox may own.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent) ::_exit(255);
        ::close(chan[0]), ::close(text[0]);
        ChildLink link;
        link.chan_ = chan[1], link.text_ = text[1];
        ::testing::UnitTest::GetInstance()->listeners().Append(new Forwarder(text[1]));
        int rc;
        try {
            rc = body(link);
        } catch (const std::exception& e) {
            rc = link.fail("exception in child: %s", e.what());
        }
        if (rc == 0 && Forwarder::failures > 0) rc = 1;
        std::fflush(nullptr);
        ::_exit(rc < 0 || rc > 255 ? 255 : rc);
    }
    ::close(chan[1]), ::close(text[1]);
    if (pid < 0) {
        ::close(chan[0]), ::close(text[0]);
        return c;
    }
    c.pid_ = pid, c.chan_ = chan[0], c.text_ = text[0];
    ::fcntl(c.text_, F_SETFL, ::fcntl(c.text_, F_GETFL) | O_NONBLOCK);
    return c;
}

Child& Child::operator=(Child&& o) noexcept {
    if (this != &o) {
        release();
        pid_ = o.pid_, reaped_ = o.reaped_, result_ = o.result_, chan_ = o.chan_, text_ = o.text_;
        textBuf_ = std::move(o.textBuf_);
        o.pid_ = o.chan_ = o.text_ = -1;
    }
    return *this;
}

void Child::release() {
    if (pid_ > 0 && !reaped_) kill_now();
    if (chan_ >= 0) ::close(chan_);
    if (text_ >= 0) ::close(text_);
    chan_ = text_ = -1;
}

bool Child::send(int64_t v) { return chan_ >= 0 && send_all(chan_, &v, sizeof v); }
bool Child::recv(int64_t* v, int timeoutMs) { return chan_ >= 0 && recv_value(chan_, v, timeoutMs); }

bool Child::expect(int64_t want, int timeoutMs) {
    int64_t v = 0;
    return recv(&v, timeoutMs) && v == want;
}

void Child::drain_text() {
    char buf[4096];
    ssize_t k;
    while (text_ >= 0 && ((k = ::read(text_, buf, sizeof buf)) > 0 || (k < 0 && errno == EINTR)))
        if (k > 0) textBuf_.append(buf, std::size_t(k));
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
            drain_text();
            struct pollfd pfd = {text_, POLLIN, 0};
            ::poll(&pfd, 1, 2);  // until the child writes a line or 2 ms pass
        }
    }
    drain_text();
    return result_;
}

int Child::kill_now() {
    if (pid_ > 0 && !reaped_) ::kill(pid_, SIGKILL);
    return wait();
}

std::string Child::describe(int result) {
    drain_text();
    const std::string s = "child " + std::to_string(pid_) +
                          (result == kTimeout ? " did not finish in time (killed)"
                           : result < 0       ? " was killed by signal " + std::to_string(-result)
                                              : " exited with " + std::to_string(result));
    return textBuf_.empty() ? s : s + "; it reported:\n" + textBuf_;
}

}  // namespace qvfs::test
