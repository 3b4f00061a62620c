#pragma once

#include <cstddef>
#include <string>

namespace veltra {

/// Whether random numbers come from the token's generator (the default) or from the library's software
/// generator. One switch for the process; without a lock: a change takes effect at the next call.
bool usesHardwareRandom();
void setHardwareRandom(bool hardware);

/// Fills `out` with `length` random bytes from the device library; lengths beyond its int are drawn in
/// pieces. Returns the library's code.
int fillRandom(const std::string& serial, unsigned char* out, std::size_t length, bool software,
               void* libraryContext);

} // namespace veltra
