#include "pin_input.h"

#include "foundation/windows.h"
#include "token_store.h"

#include <CLI.hpp>
#include <algorithm>
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

SecureBytes readVariable(const std::string& name) {
    SecureBytes value(kMaxPinLength + 2); // one byte too many shows up as a PIN that is too long
    const DWORD length = GetEnvironmentVariableA(name.c_str(), reinterpret_cast<char*>(value.data()),
                                                 static_cast<DWORD>(value.size()));
    if (length == 0)
        throw TokenError(Failure::BadArgument, "the environment variable " + name + " is not set");
    value.resize(std::min<std::size_t>(length, value.size() - 1));
    return value;
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
        return readVariable(variable_);
    }
    std::cerr << "softtoken: warning: other programs can see a PIN given with --" << name_ << "; use --"
              << name_ << "-env or --" << name_ << "-stdin\n";
    return toSecure(text_);
}

} // namespace veltra::softtoken
