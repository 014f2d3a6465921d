// child.h - test code in forked child processes: Child::spawn runs a body
// that returns its exit code; CHILD_CHECK reports file, line and condition
// and exits 1; failed EXPECTs in a body are printed (the child shares the
// test's output) and turn exit code 0 into 1; 64-bit values travel both ways.
// The child leaves with _exit (a Sandbox stays the parent's), dies with the
// thread that spawned it and is killed and reaped when its Child goes. A fork
// copies only the forking thread: fork before starting library threads.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace qvfs::test {

class ChildLink {
public:
    bool send(int64_t v);                          // false when the parent is gone
    bool recv(int64_t* v, int timeoutMs = 10000);  // false on timeout or a closed end
    int fail(const char* fmt, ...) __attribute__((format(printf, 2, 3)));  // a line on stderr; returns 1

private:
    friend class Child;
    int chan_ = -1;
};

class Child {
public:
    static constexpr int kTimeout = -1000;  // wait(): still running, killed
    static constexpr int kNoChild = -1001;  // wait(): never started
    static constexpr int signalled(int sig) { return -sig; }

    static Child spawn(std::function<int(ChildLink&)> body);
    Child() = default;
    Child(Child&& o) noexcept { *this = std::move(o); }
    Child& operator=(Child&& o) noexcept;
    ~Child() { release(); }

    pid_t pid() const { return pid_; }
    bool send(int64_t v);
    bool recv(int64_t* v, int timeoutMs = 10000);
    bool expect(int64_t want, int timeoutMs = 10000);  // the next value is `want`
    // The exit code, signalled(sig), or kTimeout after killing a child that
    // did not end in time; the same on every call.
    int wait(int timeoutMs = 30000);
    int kill_now();
    std::string describe(int result) const;  // a wait() result

private:
    void release();
    pid_t pid_ = -1;
    bool reaped_ = false;
    int result_ = kNoChild, chan_ = -1;
};

#define CHILD_CHECK(link, cond) \
    do {                        \
        if (!(cond)) return (link).fail("%s:%d: check failed: %s", __FILE__, __LINE__, #cond); \
    } while (0)

#define EXPECT_CHILD_OK(child)                                          \
    do {                                                                \
        const int child_result_ = (child).wait();                       \
        EXPECT_EQ(0, child_result_) << (child).describe(child_result_); \
    } while (0)

}  // namespace qvfs::test
