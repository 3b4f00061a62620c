#include "support/log_watch.h"

#include "foundation/utils.h"

#include <atomic>
#include <string>

namespace veltra::test {

namespace {

std::atomic<void (*)()> looker = nullptr;

void look() {
    if (auto* const current = looker.load()) current();
}

} // namespace

void lookAtEveryLogLine(void (*look)()) {
    looker = look;
}

// The mangled names of Utils::debug and Utils::error for const char* and std::string&&, and of what a debug
// line of several parts begins with.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the linker's names
void __real__ZN6veltra5Utils5debugEPKc(const char*);
void __real__ZN6veltra5Utils5errorEPKc(const char*);
void __real__ZN6veltra5Utils5debugEONSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(std::string*);
void __real__ZN6veltra5Utils5errorEONSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(std::string*);
bool __real__ZN6veltra5Utils13isDebugWantedEv();

bool __wrap__ZN6veltra5Utils13isDebugWantedEv() {
    look();
    return __real__ZN6veltra5Utils13isDebugWantedEv();
}
void __wrap__ZN6veltra5Utils5debugEPKc(const char* message) {
    look();
    __real__ZN6veltra5Utils5debugEPKc(message);
}
void __wrap__ZN6veltra5Utils5errorEPKc(const char* message) {
    look();
    __real__ZN6veltra5Utils5errorEPKc(message);
}
// A reference is passed as a pointer.
void __wrap__ZN6veltra5Utils5debugEONSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(std::string* line) {
    look();
    __real__ZN6veltra5Utils5debugEONSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(line);
}
void __wrap__ZN6veltra5Utils5errorEONSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(std::string* line) {
    look();
    __real__ZN6veltra5Utils5errorEONSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE(line);
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}

} // namespace veltra::test
