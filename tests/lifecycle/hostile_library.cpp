// A DLL that hangs, crashes or exits while it is loaded, as VELTRA_HOSTILE says. Otherwise a device library
// that never answers the monitor: it has no token for the thread that prepared it, and lets every other one
// wait for good.

#include "foundation/device_library_contract.h"
#include "foundation/windows.h"

#include <array>
#include <atomic>
#include <string_view>

namespace {

std::atomic<DWORD> preparedBy = 0;
std::atomic<bool> hanging = false;

} // namespace

extern "C" {

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (reason != DLL_PROCESS_ATTACH) return TRUE;
    std::array<char, 16> text{};
    GetEnvironmentVariableA("VELTRA_HOSTILE", text.data(), static_cast<DWORD>(text.size()));
    const std::string_view way = text.data();
    if (way == "hang") Sleep(INFINITE);
    if (way == "crash") RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
    if (way == "exit") ExitProcess(0);
    return TRUE;
}

int veltra_init(int, void*, int) {
    preparedBy = GetCurrentThreadId();
    return 0;
}

std::vector<std::string> veltra_getConnectedDeviceList(bool, void*) {
    if (GetCurrentThreadId() != preparedBy) {
        hanging = true;
        Sleep(INFINITE);
    }
    return {};
}

bool isHanging() {
    return hanging;
}

} // extern "C"
