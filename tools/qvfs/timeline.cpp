// timeline.cpp - the timeline subcommand: recorded time per channel of a
// disk over a time window, as a coverage table (recorded seconds, share of
// the window, gaps) and as an SVG picture (one bar per recorded stretch,
// locked files in their own colour, a labelled time axis).
#include <algorithm>
#include <cmath>
#include <ctime>
#include <fstream>
#include <map>
#include <optional>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include "cli.h"
#include "output.h"

namespace qvfs::cli {

namespace {

struct Args {
    std::string disk, from, to, type, svg;
} a;

struct Span {
    int64_t start = 0, end = 0;  // seconds; end >= start
};

// What one channel holds inside the window.
struct Lane {
    uint32_t channel = 0;
    uint32_t files = 0;
    std::vector<Span> recorded;  // merged, in time order
    std::vector<Span> locked;    // the locked files, as they are
    int64_t seconds = 0;
    uint32_t gaps = 0;
};

// Recordings that follow each other within this many seconds count as one
// stretch: a recorder closes one file and opens the next in the same or the
// next second.
constexpr int64_t kJoin = 1;

// Merges the spans and counts the unrecorded stretches inside [lo, hi].
void settle(Lane& l, std::vector<Span> spans, int64_t lo, int64_t hi) {
    std::sort(spans.begin(), spans.end(), [](const Span& x, const Span& y) { return x.start < y.start; });
    for (const Span& s : spans) {
        if (!l.recorded.empty() && s.start <= l.recorded.back().end + kJoin)
            l.recorded.back().end = std::max(l.recorded.back().end, s.end);
        else
            l.recorded.push_back(s);
    }
    int64_t at = lo;
    for (const Span& s : l.recorded) {
        l.seconds += s.end - s.start;
        if (s.start > at + kJoin) ++l.gaps;
        at = std::max(at, s.end);
    }
    if (hi > at + kJoin) ++l.gaps;
}

// ---- the picture --------------------------------------------------------------------

std::string xml_escape(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out += c;
        }
    }
    return out;
}

std::string local_text(int64_t t, const char* format) {
    const time_t tt = static_cast<time_t>(t);
    struct tm tm {};
    localtime_r(&tt, &tm);
    char buf[64];
    return strftime(buf, sizeof buf, format, &tm) != 0 ? buf : "";
}

// Axis ticks: the smallest round step that gives at most ten, placed on
// round local times; each with its label.
std::vector<std::pair<int64_t, std::string>> ticks(int64_t lo, int64_t hi) {
    static constexpr int64_t kSteps[] = {1,    2,     5,     10,    15,    30,     60,     120,    300,    600,
                                         900,  1800,  3600,  7200,  10800, 21600,  43200,  86400,  172800, 604800,
                                         2592000, 31536000};
    int64_t step = kSteps[std::size(kSteps) - 1];
    for (int64_t s : kSteps)
        if ((hi - lo) / s <= 10) {
            step = s;
            break;
        }
    const char* format = step < 60 ? "%H:%M:%S" : hi - lo <= 86400 ? "%H:%M" : step < 86400 ? "%m-%d %H:%M" : "%Y-%m-%d";
    const time_t tt = static_cast<time_t>(lo);
    struct tm tm {};
    localtime_r(&tt, &tm);
    const int64_t off = tm.tm_gmtoff;
    std::vector<std::pair<int64_t, std::string>> out;
    int64_t t = ((lo + off + step - 1) / step) * step - off;
    for (; t <= hi; t += step) out.emplace_back(t, local_text(t, format));
    return out;
}

std::string svg(const Disk& d, const std::vector<Lane>& lanes, int64_t lo, int64_t hi) {
    constexpr double kWidth = 1000, kLeft = 80, kRight = 20, kTop = 50, kRow = 22, kBar = 14, kBottom = 30;
    const double height = kTop + kRow * double(std::max<size_t>(lanes.size(), 1)) + kBottom;
    const double span = double(std::max<int64_t>(hi - lo, 1));
    const auto x = [&](int64_t t) { return kLeft + double(t - lo) * (kWidth - kLeft - kRight) / span; };
    std::string s = fmt::format(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} {1}\" "
        "font-family=\"sans-serif\" font-size=\"12\">\n"
        "<title>{2}</title>\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
        "<text x=\"{3}\" y=\"18\" font-size=\"14\">{2}</text>\n"
        "<rect x=\"{4}\" y=\"28\" width=\"12\" height=\"10\" fill=\"#3b78c2\"/><text x=\"{5}\" y=\"37\">recorded</text>\n"
        "<rect x=\"{6}\" y=\"28\" width=\"12\" height=\"10\" fill=\"#e0702b\"/><text x=\"{7}\" y=\"37\">locked</text>\n",
        kWidth, height,
        xml_escape(fmt::format("{}: {} to {}", disk_label(d), time_text(lo), time_text(hi))), kLeft, kWidth - 190,
        kWidth - 174, kWidth - 100, kWidth - 84);
    const double axis = height - kBottom;
    for (const auto& [t, label] : ticks(lo, hi))
        s += fmt::format("<line x1=\"{0:.1f}\" y1=\"{1}\" x2=\"{0:.1f}\" y2=\"{2}\" stroke=\"#cccccc\"/>"
                         "<text x=\"{0:.1f}\" y=\"{3}\" text-anchor=\"middle\">{4}</text>\n",
                         x(t), kTop - 4, axis + 4, axis + 18, xml_escape(label));
    s += fmt::format("<line x1=\"{0}\" y1=\"{1}\" x2=\"{2}\" y2=\"{1}\" stroke=\"black\"/>\n", kLeft, axis,
                     kWidth - kRight);
    // A stretch narrower than a pixel is drawn one pixel wide, so that a
    // short recording or a picture shows.
    const auto bar = [&](const Span& sp, double y, const char* cls, const char* fill, uint32_t chn) {
        const double x0 = x(sp.start), w = std::max(1.0, x(sp.end) - x0);
        return fmt::format("<rect class=\"{}\" data-channel=\"{}\" x=\"{:.1f}\" y=\"{}\" width=\"{:.1f}\" "
                           "height=\"{}\" fill=\"{}\"><title>{} to {}</title></rect>\n",
                           cls, chn, x0, y, w, kBar, fill, time_text(sp.start), time_text(sp.end));
    };
    double y = kTop;
    for (const Lane& l : lanes) {
        s += fmt::format("<text x=\"{}\" y=\"{}\" text-anchor=\"end\">ch {:03}</text>\n", kLeft - 8,
                         y + kBar - 2, l.channel);
        s += fmt::format("<rect x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\" fill=\"#f2f2f2\"/>\n", kLeft, y,
                         kWidth - kLeft - kRight, kBar);
        for (const Span& sp : l.recorded) s += bar(sp, y, "rec", "#3b78c2", l.channel);
        for (const Span& sp : l.locked) s += bar(sp, y, "locked", "#e0702b", l.channel);
        y += kRow;
    }
    if (lanes.empty())
        s += fmt::format("<text x=\"{}\" y=\"{}\">no recordings in the window</text>\n", kLeft, kTop + kBar);
    return s + "</svg>\n";
}

// ---- the command ----------------------------------------------------------------------

int cmd_timeline() {
    const Disk d = parse_disk(a.disk);
    const auto [type, from, to] = parse_window(a.type, a.from, a.to, true);
    Mounted m(d);

    struct Rec {
        uint32_t channel;
        Span span;
        bool locked;
    };
    std::vector<Rec> recs;
    for (const BlockRow& b : used_blocks(d)) {
        if (type && b.type != *type) continue;
        if (from && b.end != 0 && b.end < *from) continue;
        for (const FileRow& f : block_files(d, b.block)) {
            const Span sp{f.start, std::max(f.start, f.end)};
            if ((from && sp.end < *from) || (to && sp.start > *to)) continue;
            recs.push_back({f.channel, sp, f.lock == 1});
        }
    }
    // The window: as asked, else from the first start to the last end.
    int64_t lo = from.value_or(INT64_MAX), hi = to.value_or(INT64_MIN);
    for (const Rec& r : recs) {
        if (!from) lo = std::min(lo, r.span.start);
        if (!to) hi = std::max(hi, r.span.end);
    }
    if (recs.empty() && !from) lo = to.value_or(0);
    if (hi < lo) hi = lo;
    if (hi == lo) ++hi;

    std::map<uint32_t, std::vector<Span>> spans;
    std::map<uint32_t, Lane> byChannel;
    for (const Rec& r : recs) {
        Lane& l = byChannel[r.channel];
        l.channel = r.channel;
        ++l.files;
        const Span clipped{std::max(r.span.start, lo), std::min(r.span.end, hi)};
        spans[r.channel].push_back(clipped);
        if (r.locked) l.locked.push_back(clipped);
    }
    std::vector<Lane> lanes;
    for (auto& [chn, l] : byChannel) {
        settle(l, spans[chn], lo, hi);
        lanes.push_back(l);
    }

    if (!a.svg.empty()) {
        const std::string picture = svg(d, lanes, lo, hi);
        if (a.svg == "-") {
            fmt::print("{}", picture);
            return kExitOk;
        }
        std::ofstream out(a.svg, std::ios::binary | std::ios::trunc);
        out << picture;
        out.close();
        if (!out) throw Failure(fmt::format("cannot write {}", a.svg));
    }
    const double window = double(hi - lo);
    if (g.json) {
        Json list = Json::array();
        for (const Lane& l : lanes) {
            Json segs = Json::array();
            for (const Span& s : l.recorded) segs.push_back(Json{{"start", time_json(s.start)}, {"end", time_json(s.end)}});
            list.push_back(Json{{"channel", l.channel}, {"files", l.files}, {"locked_files", l.locked.size()},
                                {"recorded_seconds", l.seconds}, {"share", double(l.seconds) / window},
                                {"gaps", l.gaps}, {"recorded", segs}});
        }
        Json doc{{"disk", d.number}, {"from", time_json(lo)}, {"to", time_json(hi)}, {"seconds", hi - lo},
                 {"channels", list}};
        if (!a.svg.empty()) doc["svg"] = a.svg;
        print_json(doc);
        return kExitOk;
    }
    fmt::print("{}: {} to {} ({} s)\n", disk_label(d), time_text(lo), time_text(hi), hi - lo);
    Table t({{"CHANNEL", true}, {"FILES", true}, {"LOCKED", true}, {"RECORDED", true}, {"SHARE", true}, {"GAPS", true}});
    for (const Lane& l : lanes)
        t.add({std::to_string(l.channel), std::to_string(l.files), std::to_string(l.locked.size()),
               fmt::format("{} s", l.seconds), fmt::format("{:.1f}%", 100.0 * double(l.seconds) / window),
               std::to_string(l.gaps)});
    if (t.rows() == 0)
        fmt::print("no recordings in the window\n");
    else
        t.print();
    if (!a.svg.empty()) fmt::print("picture written to {}\n", a.svg);
    return kExitOk;
}

}  // namespace

void add_timeline_command(CLI::App& app) {
    auto* tl = app.add_subcommand("timeline", "Recorded time per channel of a disk: coverage, gaps, an SVG picture");
    tl->add_option("DISK", a.disk, "Disk number or device path")->required();
    tl->add_option("--from", a.from, "Window start (default: the first recording's start)")->type_name("TIME");
    tl->add_option("--to", a.to, "Window end (default: the last recording's end)")->type_name("TIME");
    tl->add_option("--type", a.type, "Only blocks of this data type (REC, IMG, BACK, PIC, FPD, ITS)");
    tl->add_option("--svg", a.svg, "Also draw the timeline as SVG into FILE ('-': only the SVG, on standard output)")
        ->type_name("FILE");
    tl->footer("GAPS counts the unrecorded stretches of a channel inside the window (recordings less than 2 s "
               "apart join); locked files are drawn in orange over the blue recorded time.");
    tl->callback([] { set_action(cmd_timeline); });
}

}  // namespace qvfs::cli
