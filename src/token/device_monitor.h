#pragma once

namespace veltra {

/// Starts the one background thread that polls the connected tokens once a second and erases what is known
/// of a token that was pulled, its PIN above all. A second start does nothing. Pins this module in memory, so
/// that the thread never runs in unmapped code. Any thread.
void startDeviceMonitor();

/// Stops the thread and waits until it has ended; when the process is ending, its threads are gone already
/// and nothing is waited for. Runs by itself when this module's static objects are destroyed.
void stopDeviceMonitor();

} // namespace veltra
