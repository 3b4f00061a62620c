// A DLL that does what VELTRA_HOSTILE says while it is loaded: "hang", "crash" or "exit".

#include "foundation/windows.h"

#include <array>
#include <string_view>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    if (reason != DLL_PROCESS_ATTACH) return TRUE;
    std::array<char, 16> text{};
    const DWORD length =
        GetEnvironmentVariableA("VELTRA_HOSTILE", text.data(), static_cast<DWORD>(text.size()));
    const std::string_view way(text.data(), length);
    if (way == "hang") Sleep(INFINITE);
    if (way == "crash") RaiseException(EXCEPTION_ACCESS_VIOLATION, 0, 0, nullptr);
    if (way == "exit") ExitProcess(0);
    return FALSE;
}
