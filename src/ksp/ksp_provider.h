#pragma once

#include "foundation/cng.h"
#include "foundation/live_records.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

namespace veltra {

/// The record behind an NCRYPT_PROV_HANDLE, made by KSPOpenProvider and freed by KSPFreeProvider. It is live
/// once it is initialised.
///
/// Thread safety: opening a key on another token rebinds the provider while other threads use it, so the
/// serial has a lock of its own. An entry point takes the serial once and works on that token to its end.
struct KSP_PROVIDER {
    void* libraryContext = nullptr;           ///< last argument of every library call
    std::atomic<HWND> parentWindow = nullptr; ///< set by "HWND Handle"; the password dialog has no owner
    std::string firmwareVersion;              ///< of the first token when the provider was opened, or empty

    /// The token this provider works on; empty when none was connected.
    [[nodiscard]] std::string serial() const {
        const std::lock_guard lock(mutex_);
        return deviceSerial_;
    }

    void bindTo(std::string serial) {
        const std::lock_guard lock(mutex_);
        deviceSerial_.swap(serial);
    }

private:
    mutable std::mutex mutex_;
    std::string deviceSerial_;
};

/// The live provider behind a handle, or null.
inline std::shared_ptr<KSP_PROVIDER> liveProvider(NCRYPT_PROV_HANDLE handle) {
    return LiveRecords<KSP_PROVIDER>::find(handle);
}

} // namespace veltra
