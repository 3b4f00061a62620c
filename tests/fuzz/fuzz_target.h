#pragma once

#include "support/scripted_device_library.h"
#include "support/scripted_pin_prompt.h"

#include "foundation/windows.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace veltra::fuzz {

using Bytes = std::vector<unsigned char>;

/// One fuzz target. Its constructor registers it under its name.
struct Target {
    using Run = void (*)(FuzzedDataProvider& input);
    using Seeds = std::vector<Bytes> (*)();

    /// `run` plays one input; `seeds` makes the inputs that the corpus begins with. Bytes and texts are taken
    /// from the front of an input, numbers from its end.
    Target(std::string_view name, Run run, Seeds seeds);

    std::string_view name;
    Run run;
    Seeds seeds;
};

/// Ends the program with a message, which libFuzzer takes for a crash, unless `holds`.
void require(bool holds, const char* what);

// What every input finds anew: no scripts and no recorded calls, nothing that the provider remembers of the
// token but its PIN, and a user who cancels every dialog.

/// The device library behind all targets.
test::ScriptedDeviceLibrary& library();

/// Its one token, "Fuzz", with key pairs of every kind, whose identifiers begin with 0x10 + KeyType, and the
/// AES keys 0xA1 and 0xA2.
test::ScriptedToken& token();

test::ScriptedPinPrompt& prompt();

/// As many bytes as the input says, at most `longest`.
inline Bytes anyBytes(FuzzedDataProvider& input, std::size_t longest) {
    return input.ConsumeBytes<unsigned char>(input.ConsumeIntegralInRange<std::size_t>(0, longest));
}

/// Bytes of `parts`, one behind the other: for seeds.
template <class... Parts>
Bytes join(const Parts&... parts) {
    Bytes out;
    (out.insert(out.end(), std::begin(parts), std::end(parts)), ...);
    return out;
}

/// The bytes of a plain structure: for seeds.
template <class Value>
Bytes bytesOf(const Value& value) {
    const auto* first = reinterpret_cast<const unsigned char*>(&value);
    return {first, first + sizeof(value)};
}

} // namespace veltra::fuzz
