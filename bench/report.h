#pragma once

#include <string>
#include <vector>

namespace veltra::bench {

/// A table of results: the first column names the row, the others are numbers or words.
struct Table {
    std::string title;
    std::string note; ///< what is compared with what
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;
};

/// A number that shall not be exceeded, or shall be reached.
struct Target {
    std::string what;
    double value;
    double limit;
    bool atLeast; ///< otherwise at most

    [[nodiscard]] bool met() const { return atLeast ? value >= limit : value <= limit; }
};

/// What was measured, for people (Markdown) and for programs (JSON).
class Report {
public:
    void setMachine(std::vector<std::string> lines) { machine_ = std::move(lines); }
    /// Shows the table at once, too: all of them take minutes.
    void add(Table table);
    void add(Target target) { targets_.push_back(std::move(target)); }

    /// Writes report.md and report.json into an existing folder. Throws std::runtime_error.
    void write(const std::string& folder) const;

    /// The targets, as in the report.
    [[nodiscard]] std::string targetsInMarkdown() const;

private:
    [[nodiscard]] std::string markdown() const;
    [[nodiscard]] std::string json() const;

    std::vector<std::string> machine_;
    std::vector<Table> tables_;
    std::vector<Target> targets_;
};

/// A number with three significant digits, without an exponent.
std::string shown(double value);

/// Seconds as microseconds.
std::string microseconds(double seconds);

} // namespace veltra::bench
