#pragma once

#include <memory>
#include <string>

namespace veltra {

/// Where the options say that the PIN is. At most one of them; without any, the environment variable
/// VELTRA_PIN counts, if it is set.
struct PinSource {
    std::string argument;  ///< the PIN itself, which everybody who lists the processes has seen
    std::string variable;  ///< the name of an environment variable
    int descriptor = -1;   ///< an open file descriptor, of which one line is read
    bool terminal = false; ///< ask on the terminal
};

/// A PIN that is wiped when its last owner lets go of it; null stands for none.
using SharedPin = std::shared_ptr<const std::string>;

/// The PIN; null when there is no source. The text in `source` and the environment variable are gone
/// afterwards, so that no program started from here inherits them. A source without a PIN throws a
/// CommandError.
SharedPin readPin(PinSource& source);

/// The PIN, asked for on the terminal; a CommandError when there is none.
SharedPin askForPin();

} // namespace veltra
