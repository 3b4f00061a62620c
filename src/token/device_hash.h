#pragma once

#include "foundation/device_library.h"

#include <span>
#include <string>

namespace veltra {

/// Starts a hash of the device library, which goes to `hash`; there is no call to release it. `mechanism`:
/// HashMechanism. Returns the library's code.
int startDeviceHash(const std::string& serial, std::uint32_t mechanism, void** hash, void* libraryContext);

/// Finishes `hash` into `digest`. On success `length` is the number of bytes written; a length that does not
/// fit is a failure. Returns the library's code.
int finishDeviceHash(void* hash, std::span<unsigned char> digest, std::uint32_t& length,
                     void* libraryContext);

} // namespace veltra
