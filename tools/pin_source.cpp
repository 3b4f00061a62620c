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

/// Takes the text over and wipes what it leaves behind. A PIN that the provider would cut is refused: the
/// token would count a wrong one.
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
    if (pin->size() > kLongestPin || pin->find('\0') != std::string::npos) {
        throw CommandError("no token has such a PIN: it is longer than 255 bytes or has a zero in it",
                           kExitUsage);
    }
    return pin;
}

/// Text that was typed, in the code page in which the provider's window would hand it on.
SharedPin ownTyped(std::wstring_view text) {
    if (!fitsNarrowCodePage(text)) {
        throw CommandError("the PIN has characters that the system's code page lacks; give it with --pin-fd",
                           kExitUsage);
    }
    const int length = static_cast<int>(text.size());
    std::string narrow(static_cast<std::size_t>(
                           WideCharToMultiByte(CP_ACP, 0, text.data(), length, nullptr, 0, nullptr, nullptr)),
                       '\0');
    WideCharToMultiByte(CP_ACP, 0, text.data(), length, narrow.data(), static_cast<int>(narrow.size()),
                        nullptr, nullptr);
    return own(narrow);
}

/// Byte by byte, so that nothing behind the line is taken and no buffer keeps the PIN.
SharedPin readFrom(int descriptor) {
    std::string line;
    constexpr std::size_t kMostBytes = kLongestPin + 2; // with the '\r' of a line, and one too many
    line.reserve(kMostBytes);
    char byte = 0;
    int count = 0;
    while (line.size() < kMostBytes && (count = _read(descriptor, &byte, 1)) == 1 && byte != '\n') {
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
    std::array<wchar_t, kLongestPin + 2> value{};
    const DWORD length =
        GetEnvironmentVariableW(name.c_str(), value.data(), static_cast<DWORD>(value.size()));
    SetEnvironmentVariableW(name.c_str(), nullptr);
    if (length == 0) return nullptr;
    if (length >= value.size()) {
        throw CommandError("the environment variable " + toUtf8(name) + " is too long for a PIN", kExitUsage);
    }
    SharedPin pin = ownTyped({value.data(), length});
    wipe(value.data(), sizeof value);
    return pin;
}

} // namespace

SharedPin readPin(PinSource& source) {
    SharedPin usual = readVariable(kUsualVariable);
    if (!source.argument.empty()) {
        std::cerr
            << "veltra: warning: a PIN among the arguments can be seen by everybody who lists the processes, "
               "and stays in the shell's history; use --pin-prompt, --pin-fd or VELTRA_PIN\n";
        std::wstring typed = toWide(source.argument);
        wipe(source.argument.data(), source.argument.size());
        SharedPin pin = ownTyped(typed);
        wipe(typed.data(), typed.size() * sizeof(wchar_t));
        return pin;
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
    std::optional<std::wstring> typed = askForSecret("PIN: ", kLongestPin + 1);
    if (!typed) {
        throw CommandError(
            "there is no terminal to ask for the PIN on; give it with --pin-fd, --pin-stdin or "
            "VELTRA_PIN",
            kExitUsage);
    }
    SharedPin pin = ownTyped(*typed);
    wipe(typed->data(), typed->size() * sizeof(wchar_t));
    return pin;
}

} // namespace veltra
