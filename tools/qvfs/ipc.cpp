// ipc.cpp - the ipc subcommand: the System V objects of the current root,
// listed, or removed when no process uses them.
#include <CLI/CLI.hpp>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "cli.h"
#include "output.h"
#include "tools/root_ipc.h"

namespace qvfs::cli {

namespace {

bool g_remove = false;

std::string root_label() { return g.root.empty() ? std::string("/") : g.root; }

int cmd_ipc() {
    // Never starts the library: that would make the key directory and the
    // objects this command is asked about.
    const auto objs = tools::root_ipc_objects(g.root);
    if (g_remove) {
        for (const auto& o : objs) {
            const auto& pids = o.users;
            if (pids.empty()) continue;
            throw Failure(fmt::format("cannot remove the System V objects of root {}: process {} is attached to "
                                      "segment {:#010x} ({}){}; nothing removed",
                                      root_label(), pids.front(), unsigned(o.key), o.what,
                                      o.attached > 1 ? fmt::format(" with {} others", o.attached - 1) : ""));
        }
        const int n = tools::remove_ipc_objects(objs);
        if (g.json)
            print_json(Json{{"root", root_label()}, {"removed", n}});
        else
            fmt::print("removed {} System V object{} of root {}\n", n, n == 1 ? "" : "s", root_label());
        return n == int(objs.size()) ? kExitOk : kExitFailed;
    }
    if (g.json) {
        Json list = Json::array();
        for (const auto& o : objs) {
            Json j{{"kind", o.segment ? "segment" : "semaphore"}, {"key", fmt::format("{:#010x}", unsigned(o.key))},
                   {"id", o.id}, {"object", o.what}};
            if (o.segment) {
                j["bytes"] = o.size;
                j["attached"] = o.attached;
                j["creator_pid"] = o.creator;
                j["attached_pids"] = o.users;
            } else {
                j["semaphores"] = o.size;
            }
            list.push_back(j);
        }
        print_json(Json{{"root", root_label()}, {"objects", list}});
        return kExitOk;
    }
    if (objs.empty()) {
        fmt::print("no System V objects under the keys of root {}\n", root_label());
        return kExitOk;
    }
    Table t({{"KIND"}, {"KEY"}, {"ID", true}, {"OBJECT"}, {"SIZE", true}, {"ATTACHED"}});
    int segs = 0, busy = 0;
    for (const auto& o : objs) {
        std::string att = "-";
        if (o.segment) {
            ++segs;
            const auto& pids = o.users;
            busy += pids.empty() ? 0 : 1;
            att = pids.empty() ? "0" : fmt::format("{} (pid {})", o.attached, fmt::join(pids, ", "));
        }
        t.add({o.segment ? "segment" : "semaphore", fmt::format("{:#010x}", unsigned(o.key)), std::to_string(o.id),
               o.what, o.segment ? size_text(o.size) : fmt::format("{} sem", o.size), att});
    }
    t.print();
    fmt::print("{} segment{} ({} attached), {} semaphore set{} under the keys of root {}\n", segs,
               segs == 1 ? "" : "s", busy, objs.size() - segs, objs.size() - segs == 1 ? "" : "s", root_label());
    return kExitOk;
}

}  // namespace

void add_ipc_command(CLI::App& app) {
    auto* ipc = app.add_subcommand("ipc", "The System V semaphores and shared segments of the root's keys");
    ipc->add_flag("--remove", g_remove,
                  "Remove them all (refused while a process is attached: that would break a running recorder)");
    ipc->callback([] { set_action(cmd_ipc); });
}

}  // namespace qvfs::cli
