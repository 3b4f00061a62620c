#pragma once

#include <nlohmann/json.hpp>

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace veltra {

/// Objects keep the order in which their members were added.
using Json = nlohmann::ordered_json;

/// JSON text of a value: UTF-8, in which invalid sequences became U+FFFD.
std::string jsonText(const Json& value, int indentation = -1);

/// Text from a token, a file or the registry as a terminal may see it: control characters become "?".
std::string printable(std::string_view text);

/// A list: to people lines with aligned columns, to programs an array of objects.
class Table {
public:
    struct Column {
        std::string_view title; ///< for people
        std::string_view key;   ///< for programs
    };

    Table(std::initializer_list<Column> columns) : columns_(columns) {}

    /// As many cells as there are columns. Null is no value: people see "-", in the last column nothing.
    void add(std::vector<Json> cells) { rows_.push_back(std::move(cells)); }

    [[nodiscard]] bool isEmpty() const { return rows_.empty(); }
    [[nodiscard]] Json toJson() const;

    /// The lines, each begun with `indentation` and ended by a line feed. A column without any value is left
    /// out.
    [[nodiscard]] std::string toText(std::string_view indentation = "") const;

private:
    std::vector<Column> columns_;
    std::vector<std::vector<Json>> rows_;
};

/// What a command has to tell: sentences and tables for people, or with --json one object for programs. Every
/// command says everything through it, once.
class Output {
public:
    explicit Output(bool json) : json_(json) {}

    [[nodiscard]] bool isJson() const { return json_; }

    /// A line for people alone.
    void say(std::string_view line) const;

    /// Text for people alone, with its own line feeds.
    void print(std::string_view text) const;

    /// A member of the object for programs.
    void set(const std::string& key, Json value);

    /// What the command did: the sentence for people, the members for programs.
    void result(std::string_view sentence, const Json& members);

    /// A table under its title; people see `ifEmpty` in the place of one without rows.
    void table(const std::string& key, const Table& table, std::string_view title = {},
               std::string_view ifEmpty = {});

    /// A list of names.
    void names(const std::string& key, const std::vector<std::string>& names);

    /// Prints the object for programs. At the very end.
    void finish() const;

private:
    bool json_;
    Json document_ = Json::object();
};

} // namespace veltra
