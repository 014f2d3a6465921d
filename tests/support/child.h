// child.h - run test code in forked child processes.
//
//   Child c = Child::spawn([&](ChildLink& link) {
//       int fd = ...;                       // work in the child
//       CHILD_CHECK(link, fd >= 0);         // on failure: message + exit 1
//       link.send(1);                       // "I hold the lock now"
//       pause();
//       return 0;
//   });
//   ASSERT_TRUE(c.expect(1));               // wait for the child's signal
//   c.kill_now();                           // SIGKILL in the middle of it
//   EXPECT_EQ(c.wait(), Child::signalled(SIGKILL));
//
// The body runs in the child and its return value becomes the exit code;
// the child always leaves with _exit, never returning into the test
// framework, and never runs the parent's destructors (a Sandbox stays the
// parent's). EXPECT_* failures inside a body are forwarded to the parent's
// report text and turn an exit code 0 into 1; ASSERT_* cannot be used in a
// body that returns int, use CHILD_CHECK.
//
// Values travel as 64-bit integers over a socket pair in both directions
// (a peer that is gone gives false, never SIGPIPE); report text travels on a
// second one and is collected by wait().
//
// A child is killed when the thread that spawned it ends (so that no child
// outlives a crashed test): spawn from the test's own thread, or from a
// thread that outlives the child.
//
// A forked child inherits the parent's memory, descriptors, attached
// segments and library state, but only the forking thread: fork before the
// parent starts library threads when the child needs the library's
// per-process state to be consistent.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

namespace qvfs::test {

// The child's end of the channel.
class ChildLink {
public:
    // Sends a value to the parent. False when the parent is gone.
    bool send(int64_t v);
    // Waits for a value from the parent; false on timeout or when the
    // parent closed its end.
    bool recv(int64_t* v, int timeoutMs = 10000);
    // Appends a line to the text the parent shows on failure.
    void note(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
    // note() and return 1, for `return link.fail(...)` in a body.
    int fail(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

private:
    friend class Child;
    int chan_ = -1;  // values, both directions
    int text_ = -1;  // report text to the parent
};

class Child {
public:
    using Body = std::function<int(ChildLink&)>;

    // wait() results other than exit codes 0..255.
    static constexpr int kTimeout = -1000;  // the child was still running (and got SIGKILL)
    static constexpr int kNoChild = -1001;  // never started, or already reaped
    static constexpr int signalled(int sig) { return -sig; }

    // Forks and runs body in the child. On fork failure the Child is empty
    // (pid() -1) and wait() returns kNoChild.
    static Child spawn(Body body);

    Child() = default;
    Child(Child&& o) noexcept;
    Child& operator=(Child&& o) noexcept;
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    // A child still running is killed (SIGKILL) and reaped.
    ~Child();

    pid_t pid() const { return pid_; }
    bool running() const { return pid_ > 0 && !reaped_; }

    // Sends a value to the child; false when it is gone.
    bool send(int64_t v);
    // Waits for a value from the child; false on timeout or when the child
    // ended without sending one.
    bool recv(int64_t* v, int timeoutMs = 10000);
    // recv() and compare: true when the next value is `want`.
    bool expect(int64_t want, int timeoutMs = 10000);

    // Waits for the child to end: its exit code (0..255), signalled(sig)
    // when a signal ended it, or kTimeout after SIGKILLing a child that did
    // not end in time. Repeated calls return the same result.
    int wait(int timeoutMs = 30000);

    // SIGKILL now and reap; returns wait()'s result.
    int kill_now();

    // A readable account of a wait() result and everything the child
    // reported with note()/fail() or failed EXPECTs, for test messages.
    std::string describe(int result);
    // The text the child reported so far.
    const std::string& text();

private:
    void drain_text(bool block);
    void close_all();

    pid_t pid_ = -1;
    bool reaped_ = false;
    int result_ = kNoChild;
    int chan_ = -1;
    int text_ = -1;
    std::string textBuf_;
};

// In a child body: on a false condition, report file, line and condition to
// the parent and return 1 from the body.
#define CHILD_CHECK(link, cond)                                                           \
    do {                                                                                  \
        if (!(cond)) return (link).fail("%s:%d: check failed: %s", __FILE__, __LINE__, #cond); \
    } while (0)

// In a test: waits for a child and expects exit code 0, showing the child's
// report otherwise.
#define EXPECT_CHILD_OK(child)                              \
    do {                                                    \
        int child_result_ = (child).wait();                 \
        EXPECT_EQ(0, child_result_) << (child).describe(child_result_); \
    } while (0)

}  // namespace qvfs::test
