#include "token/random_numbers.h"

#include "foundation/device_library.h"

#include <algorithm>
#include <atomic>
#include <climits>

namespace veltra {

namespace {
std::atomic<bool> hardwareRandom{true};
} // namespace

bool usesHardwareRandom() {
    return hardwareRandom;
}

void setHardwareRandom(bool hardware) {
    hardwareRandom = hardware;
}

int fillRandom(const std::string& serial, unsigned char* out, std::size_t length, bool software,
               void* libraryContext) {
    while (length > 0) {
        const std::size_t piece = std::min<std::size_t>(length, INT_MAX);
        const int code = deviceLibrary().veltra_generateRamdomNumber(serial.c_str(), static_cast<int>(piece),
                                                                     out, software, libraryContext);
        if (code != kDeviceOk) return code;
        out += piece;
        length -= piece;
    }
    return kDeviceOk;
}

} // namespace veltra
