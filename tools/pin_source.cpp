#include "pin_source.h"

#include "error_text.h"
#include "terminal.h"
#include "wide_text.h"

#include "foundation/secret.h"

#include <io.h>

#include <array>
#include <iostream>

namespace veltra {
namespace {

constexpr std::size_t kLongestPin = 255;
constexpr const wchar_t* kUsualVariable = L"VELTRA_PIN";

/// Takes the text over and wipes what it leaves behind.
SharedPin own(std::string& text) {
    std::shared_ptr<std::string> pin(new std::string(text), [](std::string* owned) {
        wipe(owned->data(), owned->size());
        delete owned;
    });
    wipe(text.data(), text.size());
    text.clear();
    if (pin->empty()) {
        throw CommandError("there is no PIN where it should come from", kExitUsage);
    }
    return pin;
}

/// Byte by byte, so that nothing behind the line is taken and no buffer keeps the PIN.
SharedPin readFrom(int descriptor) {
    std::string line;
    line.reserve(kLongestPin);
    char byte = 0;
    int count = 0;
    while (line.size() < kLongestPin && (count = _read(descriptor, &byte, 1)) == 1 && byte != '\n') {
        line += byte;
    }
    if (count < 0) {
        throw CommandError("could not read the PIN from the file descriptor " + std::to_string(descriptor),
                           kExitUsage);
    }
    if (line.ends_with('\r')) line.pop_back();
    return own(line);
}

/// Null when the variable is not set.
SharedPin readVariable(const std::wstring& name) {
    std::array<wchar_t, kLongestPin + 1> value{};
    const DWORD length =
        GetEnvironmentVariableW(name.c_str(), value.data(), static_cast<DWORD>(value.size()));
    SetEnvironmentVariableW(name.c_str(), nullptr);
    if (length == 0 || length >= value.size()) return nullptr;
    std::string text = toUtf8({value.data(), length});
    wipe(value.data(), sizeof value);
    return own(text);
}

} // namespace

SharedPin readPin(PinSource& source) {
    SharedPin usual = readVariable(kUsualVariable);
    if (!source.argument.empty()) {
        std::cerr
            << "veltra: warning: a PIN among the arguments can be seen by everybody who lists the processes, "
               "and stays in the shell's history; use --pin-prompt, --pin-fd or VELTRA_PIN\n";
        return own(source.argument);
    }
    if (source.descriptor >= 0) return readFrom(source.descriptor);
    if (source.terminal) return askForPin();
    if (source.variable.empty()) return usual;
    SharedPin chosen = readVariable(toWide(source.variable));
    if (!chosen) {
        throw CommandError("the environment variable " + source.variable + " has no PIN", kExitUsage);
    }
    return chosen;
}

SharedPin askForPin() {
    std::optional<std::string> typed = askForSecret("PIN: ", kLongestPin);
    if (!typed) {
        throw CommandError(
            "there is no terminal to ask for the PIN on; give it with --pin-fd, --pin-stdin or "
            "VELTRA_PIN",
            kExitUsage);
    }
    return own(*typed);
}

} // namespace veltra
