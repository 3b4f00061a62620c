#pragma once

#include <span>
#include <vector>

namespace veltra {

/// The AES initialisation vector of the process: both front ends set it, and every symmetric operation of
/// either reads it. One for the whole process on purpose. Has a lock of its own; any thread.
void setProcessIv(std::span<const unsigned char> iv);

/// A snapshot; empty until an IV was set.
std::vector<unsigned char> processIv();

} // namespace veltra
