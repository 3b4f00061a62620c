#pragma once

#include "foundation/device_library_contract.h"
#include "foundation/windows.h"

#include <atomic>
#include <vector>

namespace veltra::bench {

inline constexpr const char* kSerial = "BENCH-1";
inline constexpr unsigned char kRsaKeyByte = 0xA1; ///< every byte of the identifier of the RSA-2048 key
inline constexpr unsigned char kEcKeyByte = 0xEC;  ///< likewise of the P-256 key
inline constexpr const wchar_t* kRsaKeyName = L"A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1";
inline constexpr const wchar_t* kEcKeyName = L"ECECECECECECECECECECECECECECECEC";
inline constexpr const char* kContainerName = "A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1A1";

/// How the stand-in of the device library behaves; the program that measures sets it. Its one token accepts
/// every PIN, and its answers have the right length and no meaning. They come at once, from memory.
struct StandIn {
    std::atomic<DWORD> milliseconds = 0;                    ///< that every call takes
    std::atomic<bool> realHashes = false;                   ///< digests are computed instead of made up
    std::atomic<std::vector<VeltraKeyPair>*> keyPairs = {}; ///< of the token; not owned
    std::atomic<DWORD> tracedThread = 0;                    ///< the thread whose calls go to `trace`
    std::vector<const char*> trace; ///< names of the functions, in the order of the calls
};

} // namespace veltra::bench

extern "C" veltra::bench::StandIn* standIn();
