#pragma once

#include "gcrypt_support.h"

#include <string>

namespace CLI {
class App;
}

namespace veltra::softtoken {

/// A PIN on the command line: "--NAME-env VAR", "--NAME-stdin" or "--NAME TEXT", exactly one of them.
class PinInput {
public:
    /// Adds the options to `command`. `name` is "pin" or "new-pin", `meaning` what the help says of it. This
    /// object must outlive the parsing.
    void addOptions(CLI::App& command, const std::string& name, const std::string& meaning);

    /// The PIN, from where the options say. Failure::BadArgument when there is none. "--NAME TEXT" warns on
    /// the standard error stream, since other programs can see it.
    [[nodiscard]] SecureBytes read() const;

private:
    std::string name_;
    std::string text_;
    std::string variable_;
    bool fromStdin_ = false;
};

/// The PIN as the token operations take it; valid as long as `pin`.
inline std::string_view textOf(const SecureBytes& pin) {
    return {reinterpret_cast<const char*>(pin.data()), pin.size()};
}

} // namespace veltra::softtoken
