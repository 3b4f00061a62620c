#include "output.h"

#include <algorithm>
#include <iostream>

namespace veltra {
namespace {

constexpr int kIndentation = 2;

std::string cellText(const Json& cell) {
    if (cell.is_null()) return "-";
    if (cell.is_boolean()) return cell.get<bool>() ? "yes" : "no";
    return printable(cell.is_string() ? cell.get<std::string>() : jsonText(cell));
}

/// The number of characters of UTF-8 text: bytes that do not continue a character.
std::size_t widthOf(std::string_view text) {
    return static_cast<std::size_t>(std::ranges::count_if(
        text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }));
}

void appendPadded(std::string& line, std::string_view text, std::size_t width) {
    line += text;
    line.append(width - std::min(width, widthOf(text)) + 1, ' ');
}

} // namespace

std::string jsonText(const Json& value, int indentation) {
    return value.dump(indentation, ' ', false, Json::error_handler_t::replace);
}

std::string printable(std::string_view text) {
    std::string result(text);
    std::ranges::replace_if(
        result, [](char byte) { return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7F; }, '?');
    return result;
}

Json Table::toJson() const {
    Json array = Json::array();
    for (const std::vector<Json>& row : rows_) {
        Json object = Json::object();
        for (std::size_t index = 0; index < columns_.size(); ++index) {
            object[std::string(columns_[index].key)] = row.at(index);
        }
        array.push_back(std::move(object));
    }
    return array;
}

std::string Table::toText(std::string_view indentation) const {
    std::vector<std::string> lines(rows_.size() + 1, std::string(indentation));
    for (std::size_t index = 0; index < columns_.size(); ++index) {
        std::vector<std::string> texts = {std::string(columns_[index].title)};
        bool hasValue = false;
        for (const std::vector<Json>& row : rows_) {
            const bool isBlank = row.at(index).is_null() && index + 1 == columns_.size();
            texts.push_back(isBlank ? std::string() : cellText(row.at(index)));
            hasValue = hasValue || !row.at(index).is_null();
        }
        if (!hasValue) continue;
        const std::size_t width = widthOf(*std::ranges::max_element(texts, {}, widthOf));
        for (std::size_t line = 0; line < lines.size(); ++line) {
            appendPadded(lines[line], texts[line], width);
        }
    }
    std::string text;
    for (const std::string& line : lines) {
        text += line.substr(0, line.find_last_not_of(' ') + 1) + '\n';
    }
    return text;
}

void Output::say(std::string_view line) const {
    print(std::string(line) + '\n');
}

void Output::print(std::string_view text) const {
    if (!json_) std::cout << text << std::flush;
}

void Output::set(const std::string& key, Json value) {
    document_[key] = std::move(value);
}

void Output::result(std::string_view sentence, const Json& members) {
    say(sentence);
    document_.update(members);
}

void Output::table(const std::string& key, const Table& table, std::string_view title,
                   std::string_view ifEmpty) {
    if (!title.empty()) say(title);
    if (!table.isEmpty()) {
        print(table.toText(title.empty() ? "" : "  "));
    } else if (!ifEmpty.empty()) {
        say(ifEmpty);
    }
    set(key, table.toJson());
}

void Output::names(const std::string& key, const std::vector<std::string>& names) {
    say(key);
    for (const std::string& name : names) {
        say("  " + printable(name));
    }
    set(key, names);
}

void Output::finish() const {
    if (json_) std::cout << jsonText(document_, kIndentation) << '\n' << std::flush;
}

} // namespace veltra
