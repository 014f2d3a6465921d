// output.cpp - sizes, times, tables, JSON and progress bars.
#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <fmt/format.h>

#include "cli.h"

namespace qvfs::cli {

// ---- sizes ------------------------------------------------------------------

std::string human_size(uint64_t bytes) {
    static constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    if (bytes < 1024) return fmt::format("{} B", bytes);
    double v = static_cast<double>(bytes) / 1024;
    size_t u = 0;
    while (v >= 1024 && u + 1 < std::size(kUnits)) {
        v /= 1024;
        ++u;
    }
    return fmt::format("{:.1f} {}", v, kUnits[u]);
}

std::string size_text(uint64_t bytes) { return g.bytes ? std::to_string(bytes) : human_size(bytes); }

uint64_t parse_size(const std::string& text, const char* what) {
    const auto bad = [&]() -> uint64_t {
        usage_error(fmt::format("invalid {} '{}': expected a byte count such as 4096, 0x1000, 512K or 20G", what, text));
    };
    if (text.empty() || text[0] == '-' || text[0] == '+' || std::isspace(static_cast<unsigned char>(text[0]))) return bad();
    errno = 0;
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || end == text.c_str()) return bad();
    std::string unit(end);
    std::transform(unit.begin(), unit.end(), unit.begin(), [](unsigned char c) { return std::toupper(c); });
    unsigned shift = 0;
    if (unit.empty() || unit == "B") {
        shift = 0;
    } else {
        static constexpr struct {
            char c;
            unsigned shift;
        } kUnits[] = {{'K', 10}, {'M', 20}, {'G', 30}, {'T', 40}};
        const auto it = std::find_if(std::begin(kUnits), std::end(kUnits), [&](auto& u) { return u.c == unit[0]; });
        const std::string rest = unit.substr(1);
        if (it == std::end(kUnits) || !(rest.empty() || rest == "B" || rest == "IB")) return bad();
        shift = it->shift;
    }
    if (shift != 0 && v > (UINT64_MAX >> shift)) return bad();
    return uint64_t(v) << shift;
}

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '\\') out += "\\\\";
        else if (c >= 0x20 && c < 0x7F) out += ch;
        else out += fmt::format("\\x{:02x}", c);
    }
    return out;
}

// ---- times --------------------------------------------------------------------

namespace {

bool local_tm(int64_t seconds, std::tm* tm) {
    const std::time_t t = static_cast<std::time_t>(seconds);
    return localtime_r(&t, tm) != nullptr;
}

}  // namespace

std::string time_text(int64_t seconds) {
    std::tm tm{};
    if (seconds == 0 || !local_tm(seconds, &tm)) return "-";
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    return buf;
}

Json time_json(int64_t seconds) {
    std::tm tm{};
    if (seconds == 0 || !local_tm(seconds, &tm)) return nullptr;
    char buf[64];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    // tm_gmtoff is the local offset east of UTC; ISO 8601 writes it as +HH:MM.
    const long off = tm.tm_gmtoff;
    const long a = off < 0 ? -off : off;
    return fmt::format("{}{}{:02}:{:02}", buf, off < 0 ? '-' : '+', a / 3600, (a / 60) % 60);
}

int64_t parse_time(const std::string& text, const char* what) {
    const auto bad = [&]() -> int64_t {
        usage_error(fmt::format("invalid {} '{}': expected a local time such as 2024-03-01T14:05:00, "
                                "2024-03-01, or @SECONDS",
                                what, text));
    };
    if (!text.empty() && text[0] == '@') {
        errno = 0;
        char* end = nullptr;
        const long long v = std::strtoll(text.c_str() + 1, &end, 10);
        if (errno != 0 || end == text.c_str() + 1 || *end != '\0') return bad();
        return v;
    }
    std::tm tm{};
    int consumed = 0;
    if (std::sscanf(text.c_str(), "%4d-%2d-%2d%n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &consumed) != 3 ||
        consumed != 10)
        return bad();
    size_t pos = 10;
    if (pos < text.size() && (text[pos] == 'T' || text[pos] == ' ')) {
        int n = 0;
        if (std::sscanf(text.c_str() + pos + 1, "%2d:%2d%n", &tm.tm_hour, &tm.tm_min, &n) != 2 || n != 5)
            return bad();
        pos += 1 + 5;
        if (pos < text.size() && text[pos] == ':') {
            if (std::sscanf(text.c_str() + pos + 1, "%2d%n", &tm.tm_sec, &n) != 1 || n != 2) return bad();
            pos += 3;
        }
    }
    // An explicit zone: Z, +HH:MM, +HHMM or +HH.
    bool zoned = false;
    long offset = 0;
    if (pos < text.size()) {
        const std::string zone = text.substr(pos);
        int hh = 0, mm = 0, n = 0;
        if (zone == "Z") {
            zoned = true;
        } else if ((zone[0] == '+' || zone[0] == '-') &&
                   ((std::sscanf(zone.c_str() + 1, "%2d:%2d%n", &hh, &mm, &n) == 2 && n == 5) ||
                    (std::sscanf(zone.c_str() + 1, "%2d%2d%n", &hh, &mm, &n) == 2 && n == 4) ||
                    (std::sscanf(zone.c_str() + 1, "%2d%n", &hh, &n) == 1 && n == 2 && (mm = 0, true))) &&
                   size_t(n) + 1 == zone.size() && hh <= 23 && mm <= 59) {
            zoned = true;
            offset = (zone[0] == '-' ? -1 : 1) * (hh * 3600L + mm * 60L);
        } else {
            return bad();
        }
    }
    if (tm.tm_mon < 1 || tm.tm_mon > 12 || tm.tm_mday < 1 || tm.tm_mday > 31 || tm.tm_hour > 23 ||
        tm.tm_min > 59 || tm.tm_sec > 60)
        return bad();
    tm.tm_year -= 1900;
    tm.tm_mon -= 1;
    const std::tm want = tm;
    std::time_t t;
    if (zoned) {
        t = timegm(&tm);
    } else {
        tm.tm_isdst = -1;  // let the zone rules decide
        t = std::mktime(&tm);
    }
    // Back to a date: a day that does not exist (Feb 30) comes back as
    // another one, and so does a time beyond the platform's time_t.
    std::tm back{};
    if ((zoned ? gmtime_r(&t, &back) : localtime_r(&t, &back)) == nullptr || back.tm_year != want.tm_year ||
        back.tm_mon != want.tm_mon || back.tm_mday != want.tm_mday)
        return bad();
    return static_cast<int64_t>(t) - offset;
}

// ---- tables ----------------------------------------------------------------------

Table::Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

void Table::add(std::vector<std::string> row) {
    row.resize(columns_.size());
    rows_.push_back(std::move(row));
}

void Table::print() const {
    std::vector<size_t> width(columns_.size());
    for (size_t c = 0; c < columns_.size(); ++c) {
        width[c] = columns_[c].title.size();
        for (const auto& r : rows_) width[c] = std::max(width[c], r[c].size());
    }
    const auto line = [&](const std::vector<std::string>& cells) {
        std::string out;
        for (size_t c = 0; c < cells.size(); ++c) {
            const bool last = c + 1 == cells.size();
            if (columns_[c].right)
                out += fmt::format("{:>{}}", cells[c], width[c]);
            else
                out += last ? cells[c] : fmt::format("{:<{}}", cells[c], width[c]);
            if (!last) out += "  ";
        }
        fmt::print("{}\n", out);
    };
    std::vector<std::string> titles;
    for (const auto& col : columns_) titles.push_back(col.title);
    line(titles);
    for (const auto& r : rows_) line(r);
}

// Strings that reach a document are made printable first; replacing what
// is still not UTF-8 keeps the dump from ever throwing.
void print_json(const Json& doc) {
    fmt::print("{}\n", doc.dump(2, ' ', false, Json::error_handler_t::replace));
}

// ---- progress ------------------------------------------------------------------------

Progress::Progress(std::string label, uint64_t total, std::string unit)
    : label_(std::move(label)),
      unit_(std::move(unit)),
      total_(total),
      enabled_(g.progress || isatty(STDERR_FILENO) == 1),
      start_(std::chrono::steady_clock::now()),
      last_(start_ - std::chrono::seconds(1)) {}

Progress::~Progress() { finish(); }

void Progress::update(uint64_t done) {
    done_ = std::min(done, total_);
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - last_ < std::chrono::milliseconds(100)) return;
    last_ = now;
    draw(false);
}

void Progress::finish() {
    if (finished_) return;
    finished_ = true;
    if (enabled_) draw(true);
}

std::string Progress::amount(double v) const {
    if (unit_.empty()) return human_size(static_cast<uint64_t>(v));
    return fmt::format("{:.0f}", v);
}

void Progress::draw(bool final) {
    constexpr int kWidth = 30;
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double frac = total_ == 0 ? 1.0 : double(done_) / double(total_);
    const int filled = static_cast<int>(frac * kWidth);
    const std::string bar = std::string(filled, '#') + std::string(kWidth - filled, '-');
    const double rate = secs > 0 ? double(done_) / secs : 0;
    std::string tail;
    if (unit_.empty())
        tail = fmt::format("{} / {}  {}/s", human_size(done_), human_size(total_), human_size(uint64_t(rate)));
    else
        tail = fmt::format("{} / {} {}  {:.1f} {}/s", done_, total_, unit_, rate, unit_);
    if (final) {
        tail += fmt::format("  {:.1f} s", secs);
    } else if (rate > 0 && done_ < total_) {
        const auto left = static_cast<long>(double(total_ - done_) / rate);
        tail += fmt::format("  {}:{:02} left", left / 60, left % 60);
    }
    // \r and "erase to end of line" redraw in place on a terminal.
    fmt::print(stderr, "\r{}  [{}] {:3.0f}%  {}\x1b[K{}", label_, bar, frac * 100, tail, final ? "\n" : "");
    std::fflush(stderr);
}

}  // namespace qvfs::cli
