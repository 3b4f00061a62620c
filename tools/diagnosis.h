#pragma once

#include "output.h"

#include <string>

namespace veltra {

/// How a finding is: as it should be, worth knowing, or something to act on.
enum class Status { Ok, Note, Problem };

/// The findings of an examination, section by section. People see each as soon as it is made.
class Diagnosis {
public:
    explicit Diagnosis(Output& out) : out_(out) {}

    /// Begins a section. `name` is for programs, `title` for people.
    void section(const std::string& name, const std::string& title);

    /// A finding in the last section. `id` tells programs what it is about, `details` what was found there,
    /// an object or null. `advice` tells what to do; it may be empty.
    void add(Status status, const std::string& id, const std::string& text, const std::string& advice = {},
             Json details = nullptr);

    void ok(const std::string& id, const std::string& text, Json details = nullptr) {
        add(Status::Ok, id, text, {}, std::move(details));
    }

    [[nodiscard]] std::size_t problems() const { return problems_; }

    /// The last line, and everything for programs.
    void finish();

private:
    Output& out_;
    Json sections_ = Json::array();
    std::size_t problems_ = 0;
    std::size_t notes_ = 0;
};

} // namespace veltra
