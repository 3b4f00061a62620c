#pragma once

#include <mutex>

namespace veltra {

/// The one mutex of the process-wide state: it guards the device state (device_state.h) and the CryptoAPI
/// front end's container cache. It is held for map and registry operations only: never across a device
/// library call, a dialog, a message box or a log line. It is created on first use and never destroyed,
/// because a thread that process exit killed may have held it.
std::mutex& sharedStateMutex();

} // namespace veltra
