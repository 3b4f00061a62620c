#include "token/device_monitor.h"

#include "foundation/module.h"
#include "foundation/utils.h"
#include "foundation/win_handle.h"
#include "token/device_state.h"
#include "token/token_session.h"

#include <atomic>
#include <mutex>

namespace veltra {

namespace {

constexpr DWORD kPollMilliseconds = 1000;

std::atomic<bool> running{false};
std::atomic<bool> stopRequested{false};

/// A Win32 thread and event instead of the standard library's: those hang when a static destructor stops
/// them at process exit or under the loader lock.
struct MonitorThread {
    std::mutex mutex; // held while the two handles change, never while waiting
    UniqueHandle thread;
    UniqueHandle stopEvent;
};

// Created with the first thread and never destroyed: the thread may outlive every static destructor.
MonitorThread& monitorThread() {
    static auto* const instance = new MonitorThread;
    return *instance;
}

// The entries are erased under the lock and reported after it: no lock is held across a log line.
void forgetPulledTokens() {
    const std::vector<std::string> connected = connectedSerials(nullptr);
    for (const std::string& serial : forgetDisconnected({connected.begin(), connected.end()})) {
        Utils::debug("Device disconnected: ", serial);
    }
}

// A poll that fails is skipped: nothing is erased, and the next one comes in a second. The first one of a row
// is reported.
void poll(bool& failing) noexcept {
    try {
        forgetPulledTokens();
        failing = false;
    } catch (...) {
        if (!failing) Utils::error("Device monitor: a poll of the connected tokens failed");
        failing = true;
    }
}

DWORD WINAPI monitorLoop(void* stopEvent) noexcept {
    Utils::debug("Device monitor thread started.");
    bool failing = false;
    DWORD waited = WAIT_TIMEOUT;
    while (!stopRequested && waited == WAIT_TIMEOUT) {
        poll(failing);
        waited = WaitForSingleObject(stopEvent, kPollMilliseconds);
    }
    Utils::debug("Device monitor thread stopped.");
    return 0;
}

// False also without memory; the next caller tries again.
bool startThread() noexcept {
    try {
        MonitorThread& state = monitorThread();
        const std::lock_guard lock(state.mutex);
        stopRequested = false;
        state.stopEvent.reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        if (state.stopEvent) {
            state.thread.reset(CreateThread(nullptr, 0, monitorLoop, state.stopEvent.get(), 0, nullptr));
        }
        return state.thread != nullptr;
    } catch (...) {
        return false;
    }
}

struct StopAtUnload {
    ~StopAtUnload() { stopDeviceMonitor(); }
};
const StopAtUnload stopAtUnload;

} // namespace

void startDeviceMonitor() {
    if (running.exchange(true)) {
        Utils::debug("Monitor thread already running, not starting again.");
        return;
    }
    if (!pinThisModule() || !startThread()) {
        running = false;
        Utils::error("Monitor thread cannot be started");
        return;
    }
    Utils::debug("Monitor thread started (startDeviceMonitor).");
}

void stopDeviceMonitor() {
    if (!running || isProcessTerminating()) return;
    stopRequested = true;
    UniqueHandle thread;
    UniqueHandle stopEvent;
    {
        MonitorThread& state = monitorThread();
        const std::lock_guard lock(state.mutex);
        thread = std::move(state.thread);
        stopEvent = std::move(state.stopEvent);
    }
    if (thread && GetThreadId(thread.get()) != GetCurrentThreadId()) {
        SetEvent(stopEvent.get());
        WaitForSingleObject(thread.get(), INFINITE);
        Utils::debug("Monitor thread joined (stopDeviceMonitor).");
    }
    running = false;
}

} // namespace veltra
