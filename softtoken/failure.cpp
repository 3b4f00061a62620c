#include "failure.h"

#include "foundation/windows.h"

#include <atomic>

namespace veltra::softtoken {

namespace {

void writeToDebugger(const char* line) {
    OutputDebugStringA("VeltraDSCLibrary: ");
    OutputDebugStringA(line);
    OutputDebugStringA("\n");
}

std::atomic<Reporter> currentReporter{writeToDebugger};

} // namespace

void setReporter(Reporter reporter) noexcept {
    currentReporter = reporter;
}

void report(const std::string& line) noexcept {
    currentReporter.load()(line.c_str());
}

} // namespace veltra::softtoken
