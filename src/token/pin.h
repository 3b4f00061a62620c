#pragma once

#include <array>
#include <cstddef>
#include <string_view>

namespace veltra {

/// A user PIN: at most 255 characters in a buffer of its own, zero-terminated and wiped when it goes out of
/// scope.
class Pin {
public:
    static constexpr std::size_t kMaxLength = 255;

    Pin() = default;
    /// Takes the first `maxLength` characters of `text` at most.
    explicit Pin(std::string_view text, std::size_t maxLength = kMaxLength);
    Pin(const Pin&) = default;
    Pin& operator=(const Pin&) = default;
    ~Pin();

    [[nodiscard]] bool empty() const { return text_[0] == '\0'; }
    [[nodiscard]] const char* c_str() const { return text_.data(); }
    [[nodiscard]] std::string_view view() const { return text_.data(); }

private:
    std::array<char, kMaxLength + 1> text_{};
};

} // namespace veltra
