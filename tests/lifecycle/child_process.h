#pragma once

#include "foundation/windows.h"

#include <string>

namespace veltra::test {

/// This program once more, in a process of its own that runs one disabled test, and is killed with this
/// object.
class ChildProcess {
public:
    /// `argument` is for the test, which gets it from argumentOfThisChild().
    explicit ChildProcess(const std::string& test, const std::string& argument = {});
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    HANDLE handle() const { return process_.hProcess; }
    /// Returns when it is dead.
    void kill() const;
    /// Its exit code; STILL_ACTIVE when it has not ended within these milliseconds.
    DWORD exitCodeWithin(DWORD milliseconds) const;

private:
    PROCESS_INFORMATION process_{};
};

std::string argumentOfThisChild();

/// With a separator at its end.
std::string programFolder();

} // namespace veltra::test
