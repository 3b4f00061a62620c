#include "token/device_hash.h"

namespace veltra {

int startDeviceHash(const std::string& serial, std::uint32_t mechanism, void** hash, void* libraryContext) {
    return deviceLibrary().veltra_initHash(serial.c_str(), static_cast<int>(mechanism), hash, libraryContext);
}

int finishDeviceHash(void* hash, std::span<unsigned char> digest, std::uint32_t& length,
                     void* libraryContext) {
    int reported = static_cast<int>(digest.size());
    const int result = deviceLibrary().veltra_finalHash(hash, digest.data(), &reported, libraryContext);
    const int code = checkReportedLength(result, reported, digest.size());
    if (code == kDeviceOk) length = static_cast<std::uint32_t>(reported);
    return code;
}

} // namespace veltra
