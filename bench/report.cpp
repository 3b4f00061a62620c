#include "report.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace veltra::bench {

namespace {

std::string markdownRow(const std::vector<std::string>& cells) {
    std::string row = "|";
    for (const std::string& cell : cells)
        row += " " + cell + " |";
    return row + "\n";
}

std::string tableInMarkdown(const Table& table) {
    std::string text = "\n## " + table.title + "\n\n" + table.note + "\n\n" + markdownRow(table.columns) +
                       markdownRow(std::vector<std::string>(table.columns.size(), "---"));
    for (const auto& row : table.rows)
        text += markdownRow(row);
    return text;
}

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char letter : text) {
        if (letter == '"' || letter == '\\') out += '\\';
        out += letter;
    }
    return out + '"';
}

/// The elements of `list`, each made text by `show`, in brackets.
template <class List, class Show>
std::string jsonList(const List& list, Show show) {
    std::string out;
    for (const auto& element : list)
        out += (out.empty() ? "" : ",\n") + show(element);
    return "[" + out + "]";
}

std::string jsonTexts(const std::vector<std::string>& texts) {
    std::string out;
    for (const std::string& text : texts)
        out += (out.empty() ? "" : ", ") + quoted(text);
    return "[" + out + "]";
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path);
}

} // namespace

std::string shown(double value) {
    const double size = std::fabs(value);
    int decimals = 0;
    if (size < 100) decimals = size < 10 ? 2 : 1;
    if (size < 1 && size != 0) decimals = 3;
    std::array<char, 64> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), "%.*f", decimals, value));
    return text.data();
}

std::string microseconds(double seconds) {
    return shown(seconds * 1e6);
}

void Report::add(Table table) {
    std::cout << tableInMarkdown(table) << std::flush;
    tables_.push_back(std::move(table));
}

std::string Report::targetsInMarkdown() const {
    Table table{.title = "Targets",
                .note = "The tables below have the times behind them.",
                .columns = {"what", "measured", "target", "outcome"},
                .rows = {}};
    for (const Target& target : targets_) {
        table.rows.push_back({target.what, shown(target.value),
                              (target.atLeast ? "at least " : "at most ") + shown(target.limit),
                              target.met() ? "met" : "**missed**"});
    }
    return tableInMarkdown(table);
}

std::string Report::markdown() const {
    std::string text = "# Measurements\n\n";
    for (const std::string& line : machine_)
        text += "- " + line + "\n";
    text += targetsInMarkdown();
    for (const Table& table : tables_)
        text += tableInMarkdown(table);
    return text;
}

std::string Report::json() const {
    const auto showTarget = [](const Target& target) {
        std::ostringstream out;
        out << "{\"what\": " << quoted(target.what) << ", \"value\": " << target.value
            << ", \"limit\": " << target.limit << ", \"atLeast\": " << (target.atLeast ? "true" : "false")
            << ", \"met\": " << (target.met() ? "true" : "false") << "}";
        return out.str();
    };
    const auto showTable = [](const Table& table) {
        return "{\"title\": " + quoted(table.title) + ", \"columns\": " + jsonTexts(table.columns) +
               ",\n\"rows\": " + jsonList(table.rows, jsonTexts) + "}";
    };
    return "{\"machine\": " + jsonTexts(machine_) + ",\n\"targets\": " + jsonList(targets_, showTarget) +
           ",\n\"tables\": " + jsonList(tables_, showTable) + "}\n";
}

void Report::write(const std::string& folder) const {
    writeFile(folder + "/report.md", markdown());
    writeFile(folder + "/report.json", json());
}

} // namespace veltra::bench
