// main.cpp - the qvfs command: global options, subcommands, and the one
// place where failures become an error line and an exit code.
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "cli.h"

namespace qvfs::cli {

namespace {

std::function<int()> g_action;

void on_signal(int) { g_interrupted = 1; }

void install_signals() {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGHUP, &sa, nullptr);
    // A closed output pipe shows as EPIPE on write, so that the tool can
    // unmount before it leaves.
    signal(SIGPIPE, SIG_IGN);
}

// --root (or QVFS_ROOT) becomes the process's QVFS_ROOT before the library's
// first call reads it.
void apply_root() {
    if (g.root.empty()) {
        const char* env = std::getenv("QVFS_ROOT");
        if (env != nullptr) g.root = env;
    }
    if (g.root.empty()) return;
    struct stat st;
    if (::stat(g.root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw Failure(fmt::format("root '{}' is not a directory", g.root));
    char real[PATH_MAX];
    if (realpath(g.root.c_str(), real) != nullptr) g.root = real;
    if (g.root == "/") {
        g.root.clear();
        unsetenv("QVFS_ROOT");
        return;
    }
    setenv("QVFS_ROOT", g.root.c_str(), 1);
}

const char* kFooter =
    "DISK is a disk number 0 to 24 or its device path /dev/scsi/hostNN/part1. Times are local\n"
    "ISO 8601 (2024-03-01T14:05:00, 2024-03-01, or @SECONDS). Exit status: 0 success,\n"
    "1 failure, 2 bad usage, 3 check found damage, 130 interrupted.";

}  // namespace

void set_action(std::function<int()> action) { g_action = std::move(action); }

int run(int argc, char** argv) {
    CLI::App app{"qvfs: inspect, search, export, check and administer qvfs recording disks", "qvfs"};
    app.footer(kFooter);
    app.require_subcommand(1);
    app.fallthrough();  // global options may also follow the subcommand
    app.set_version_flag("--version", fmt::format("qvfs {}", QVFS_TOOL_VERSION));
    app.add_option("--root", g.root, "System root of the disks and keys (sets QVFS_ROOT)")->type_name("DIR");
    app.add_flag("--json", g.json, "Machine-readable JSON output");
    app.add_flag("-b,--bytes", g.bytes, "Exact byte counts instead of human units");
    app.add_flag("--progress", g.progress, "Show progress bars even when standard error is no terminal");

    add_disk_commands(app);
    add_file_commands(app);
    add_check_command(app);
    add_ipc_command(app);
    add_timeline_command(app);
#ifdef QVFS_TOOL_FUSE
    add_view_command(app);
#endif

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::string what = e.what();
        while (!what.empty() && what.back() == '\n') what.pop_back();
        // Name the subcommand whose help explains what went wrong.
        std::string cmd = "qvfs";
        for (const CLI::App* sub = &app; sub != nullptr;) {
            const auto subs = sub->get_subcommands();
            if (subs.empty()) break;
            sub = subs.front();
            cmd += " " + sub->get_name();
        }
        fmt::print(stderr, "qvfs: {} (see '{} --help')\n", what, cmd);
        return kExitUsage;
    } catch (const Failure& f) {  // an argument rejected while parsing
        fmt::print(stderr, "qvfs: {}\n", f.what());
        return f.code;
    }

    try {
        apply_root();
        install_signals();
        return g_action ? g_action() : kExitUsage;
    } catch (const Failure& f) {
        std::fflush(stdout);
        if (*f.what() != '\0') fmt::print(stderr, "qvfs: {}\n", f.what());
        return f.code;
    } catch (const std::exception& e) {
        std::fflush(stdout);
        fmt::print(stderr, "qvfs: {}\n", e.what());
        return kExitFailed;
    }
}

}  // namespace qvfs::cli

int main(int argc, char** argv) { return qvfs::cli::run(argc, argv); }
