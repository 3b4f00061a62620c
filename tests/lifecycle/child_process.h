#pragma once

#include "foundation/windows.h"
#include "support/googletest.h"

#include <array>
#include <cstdlib>
#include <string>

namespace veltra::test {

constexpr const char* kChildArgument = "VELTRA_TEST_CHILD"; ///< an environment variable

inline std::string programPath() {
    std::array<char, MAX_PATH> path{};
    GetModuleFileNameA(nullptr, path.data(), MAX_PATH);
    return path.data();
}

/// With a separator at its end.
inline std::string programFolder() {
    const std::string path = programPath();
    return path.substr(0, path.find_last_of('\\') + 1);
}

inline std::string argumentOfThisChild() {
    const char* argument = std::getenv(kChildArgument);
    return argument != nullptr ? argument : "";
}

/// This program once more, in a process of its own that runs one disabled test, and is killed with this
/// object.
class ChildProcess {
public:
    /// `argument` is for the test, which gets it from argumentOfThisChild().
    explicit ChildProcess(const std::string& test, const std::string& argument = {}) {
        SetEnvironmentVariableA(kChildArgument, argument.c_str());
        std::string command =
            "\"" + programPath() + "\" --gtest_also_run_disabled_tests --gtest_filter=" + test;
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        EXPECT_TRUE(CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                                   &startup, &process_));
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() {
        kill();
        CloseHandle(process_.hThread);
        CloseHandle(process_.hProcess);
    }

    HANDLE handle() const { return process_.hProcess; }
    /// Returns when it is dead.
    void kill() const {
        TerminateProcess(process_.hProcess, 1);
        EXPECT_EQ(WaitForSingleObject(process_.hProcess, 30'000), WAIT_OBJECT_0) << "it cannot be killed";
    }
    /// Its exit code; STILL_ACTIVE when it has not ended within these milliseconds.
    DWORD exitCodeWithin(DWORD milliseconds) const {
        WaitForSingleObject(process_.hProcess, milliseconds);
        DWORD code = 0;
        GetExitCodeProcess(process_.hProcess, &code);
        return code;
    }

private:
    PROCESS_INFORMATION process_{};
};

} // namespace veltra::test
