#include "diagnosis.h"

#include "foundation/text.h"

#include <array>
#include <cstdint>

namespace veltra {
namespace {

/// In the order of the values of Status; all are padded to one width for people.
constexpr std::array<std::string_view, 3> kStatusNames = {"ok", "note", "problem"};
constexpr std::size_t kStatusWidth = 9;

std::string countText(std::uint64_t count, const char* noun) {
    return concat(count == 0 ? "no" : toDecimal(count), " ", noun, count == 1 ? "" : "s");
}

} // namespace

void Diagnosis::section(const std::string& name, const std::string& title) {
    out_.say(concat(sections_.empty() ? "" : "\n", title));
    sections_.push_back({{"section", name}, {"title", title}, {"findings", Json::array()}});
}

void Diagnosis::add(Status status, const std::string& id, const std::string& text, const std::string& advice,
                    Json details) {
    const std::string_view name = kStatusNames.at(static_cast<std::size_t>(status));
    problems_ += status == Status::Problem ? 1 : 0;
    notes_ += status == Status::Note ? 1 : 0;
    out_.say(concat("  ", name, std::string(kStatusWidth - name.size(), ' '), printable(text)));
    if (!advice.empty()) out_.say(concat(std::string(kStatusWidth + 2, ' '), "-> ", printable(advice)));
    sections_.back()["findings"].push_back({{"id", id},
                                            {"status", name},
                                            {"text", text},
                                            {"advice", advice.empty() ? Json() : Json(advice)},
                                            {"details", std::move(details)}});
}

void Diagnosis::finish() {
    out_.say(concat(problems_ == 0 ? "\nHealthy: " : "\nNot healthy: ", countText(problems_, "problem"), ", ",
                    countText(notes_, "note"), "."));
    out_.set("healthy", problems_ == 0);
    out_.set("problems", problems_);
    out_.set("notes", notes_);
    out_.set("sections", std::move(sections_));
}

} // namespace veltra
