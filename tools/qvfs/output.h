// output.h - how the tool shows things: sizes in human units or exact bytes,
// local times in ISO 8601, aligned tables, JSON documents and progress bars.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace qvfs::cli {

using Json = nlohmann::ordered_json;

// "1.5 GiB" (binary units, one decimal; plain "512 B" below 1 KiB), or the
// exact number of bytes with --bytes.
std::string size_text(uint64_t bytes);
std::string human_size(uint64_t bytes);

// Text read from a disk (or typed) as it may be shown: printable ASCII stays,
// a backslash becomes "\\", every other byte "\xNN". Table rows stay
// intact and JSON strings valid whatever bytes a damaged entry holds.
std::string printable(std::string_view text);

// Parses a byte count: a decimal or 0x number, optionally followed by a unit
// K, M, G, T (powers of 1024; "KiB", "k", "KB" mean the same). Throws a
// usage failure naming `what`.
uint64_t parse_size(const std::string& text, const char* what);

// Local time of seconds since the epoch: "2024-03-01T14:05:09" for tables,
// "2024-03-01T14:05:09+01:00" for JSON. 0 (never set) gives "-" and null.
std::string time_text(int64_t seconds);
Json time_json(int64_t seconds);

// Parses a time for --from / --to: "YYYY-MM-DD", "YYYY-MM-DDTHH:MM[:SS]"
// (or a space instead of the T), local unless followed by "Z" or an offset
// "+HH:MM"; or "@SECONDS" since the epoch. Throws a usage failure.
int64_t parse_time(const std::string& text, const char* what);

// A table printed with aligned columns; numeric columns are right-aligned.
class Table {
public:
    struct Column {
        std::string title;
        bool right = false;
    };
    explicit Table(std::vector<Column> columns);
    void add(std::vector<std::string> row);
    size_t rows() const { return rows_.size(); }
    void print() const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<std::string>> rows_;
};

// Prints a JSON document on standard output, indented, with a newline.
void print_json(const Json& doc);

// A progress bar on standard error, drawn only when stderr is a terminal or
// --progress asks for it, at most ten times a second. `unit` names what is
// counted ("blocks"); an empty unit counts bytes and shows them as sizes.
class Progress {
public:
    Progress(std::string label, uint64_t total, std::string unit);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(uint64_t done);
    // Draws the final state and ends the line (also done by the destructor).
    void finish();
    bool shown() const { return enabled_; }

private:
    void draw(bool final);
    std::string amount(double v) const;

    std::string label_;
    std::string unit_;
    uint64_t total_;
    uint64_t done_ = 0;
    bool enabled_;
    bool finished_ = false;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_;
};

}  // namespace qvfs::cli
