#include "pin_input.h"

#include <CLI.hpp>
#include <cstdlib>
#include <iostream>

namespace veltra::softtoken {

namespace {

SecureBytes toSecure(std::string_view text) {
    const BytesView bytes = bytesOf(text);
    return {bytes.begin(), bytes.end()};
}

SecureBytes readLine() {
    SecureBytes line;
    for (int c = std::cin.get(); c != '\n' && c != EOF; c = std::cin.get()) {
        line.push_back(static_cast<unsigned char>(c));
    }
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
}

} // namespace

void PinInput::addOptions(CLI::App& command, const std::string& name, const std::string& meaning) {
    name_ = name;
    const std::string option = "--" + name;
    auto* group = command.add_option_group(name, meaning);
    group->add_option(option + "-env", variable_, "The environment variable that holds it")->type_name("VAR");
    group->add_flag(option + "-stdin", fromStdin_, "The next line of the standard input");
    group->add_option(option, text_, "The PIN itself; other programs can see it")->type_name("TEXT");
    group->require_option(1);
}

SecureBytes PinInput::read() const {
    if (fromStdin_) return readLine();
    if (!variable_.empty()) {
        const char* value = std::getenv(variable_.c_str());
        if (value == nullptr) {
            throw TokenError(Failure::BadArgument, "the environment variable " + variable_ + " is not set");
        }
        return toSecure(value);
    }
    std::cerr << "softtoken: warning: other programs can see a PIN given with --" << name_ << "; use --"
              << name_ << "-env or --" << name_ << "-stdin\n";
    return toSecure(text_);
}

} // namespace veltra::softtoken
