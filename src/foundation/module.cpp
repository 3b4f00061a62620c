#include "foundation/module.h"

#include <array>
#include <atomic>

namespace veltra {

namespace {

std::atomic<bool> processTerminating{false};

HMODULE moduleOfThisCode(DWORD extraFlags) {
    HMODULE module = nullptr;
    // An address inside this module stands for it; the flag says that the "name" is such an address.
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | extraFlags,
                       reinterpret_cast<LPCWSTR>(&processTerminating), &module);
    return module;
}

} // namespace

HMODULE thisModule() {
    return moduleOfThisCode(GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT);
}

std::wstring thisModuleFolder() {
    std::array<wchar_t, 32768> path{};
    const DWORD length = GetModuleFileNameW(thisModule(), path.data(), static_cast<DWORD>(path.size()));
    if (length == 0 || length >= path.size()) return {};
    const std::wstring full(path.data(), length);
    const std::size_t separator = full.find_last_of(L"\\/");
    return separator == std::wstring::npos ? std::wstring() : full.substr(0, separator + 1);
}

void pinThisModule() {
    moduleOfThisCode(GET_MODULE_HANDLE_EX_FLAG_PIN);
}

void noteProcessTermination() {
    processTerminating = true;
}

bool isProcessTerminating() {
    return processTerminating;
}

} // namespace veltra
