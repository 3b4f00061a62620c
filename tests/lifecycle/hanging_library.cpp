// A device library that never answers the monitor: it has no token for the thread that prepared it, and lets
// every other one wait for good.

#include "foundation/device_library_contract.h"
#include "foundation/windows.h"

#include <atomic>

namespace {

std::atomic<DWORD> preparedBy = 0;
std::atomic<bool> hanging = false;

} // namespace

extern "C" {

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
