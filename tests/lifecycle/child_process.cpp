#include "lifecycle/child_process.h"

#include "support/googletest.h"

#include <array>
#include <cstdlib>

namespace veltra::test {

namespace {

constexpr const char* kArgumentVariable = "VELTRA_TEST_CHILD";

std::string programPath() {
    std::array<char, MAX_PATH> path{};
    GetModuleFileNameA(nullptr, path.data(), MAX_PATH);
    return path.data();
}

} // namespace

ChildProcess::ChildProcess(const std::string& test, const std::string& argument) {
    SetEnvironmentVariableA(kArgumentVariable, argument.c_str());
    std::string command = "\"" + programPath() + "\" --gtest_also_run_disabled_tests --gtest_filter=" + test;
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    EXPECT_TRUE(CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               &startup, &process_));
}

ChildProcess::~ChildProcess() {
    kill();
    CloseHandle(process_.hThread);
    CloseHandle(process_.hProcess);
}

void ChildProcess::kill() const {
    TerminateProcess(process_.hProcess, 1);
    EXPECT_EQ(WaitForSingleObject(process_.hProcess, 30'000), WAIT_OBJECT_0) << "it cannot be killed";
}

DWORD ChildProcess::exitCodeWithin(DWORD milliseconds) const {
    WaitForSingleObject(process_.hProcess, milliseconds);
    DWORD code = 0;
    GetExitCodeProcess(process_.hProcess, &code);
    return code;
}

std::string argumentOfThisChild() {
    const char* argument = std::getenv(kArgumentVariable);
    return argument != nullptr ? argument : "";
}

std::string programFolder() {
    const std::string path = programPath();
    return path.substr(0, path.find_last_of('\\') + 1);
}

} // namespace veltra::test
