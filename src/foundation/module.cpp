#include "foundation/module.h"

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

std::wstring moduleFile(HMODULE module) {
    std::wstring path(32768, L'\0');
    const DWORD length = GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
    return length < path.size() ? path.substr(0, length) : std::wstring();
}

std::wstring thisModuleFolder() {
    const std::wstring path = moduleFile(thisModule());
    const std::size_t separator = path.find_last_of(L"\\/");
    return separator == std::wstring::npos ? std::wstring() : path.substr(0, separator + 1);
}

bool pinThisModule() {
    return moduleOfThisCode(GET_MODULE_HANDLE_EX_FLAG_PIN) != nullptr;
}

void noteProcessTermination() {
    processTerminating = true;
}

bool isProcessTerminating() {
    return processTerminating;
}

} // namespace veltra
