#pragma once

#include "foundation/device_library.h"
#include "foundation/secret.h"

#include <cstddef>
#include <cstdlib>
#include <span>

namespace veltra {

/// A buffer that the device library allocates and hands back. It may hold a plaintext, a key or a secret: it
/// is wiped and released, from the C heap that both modules share, when it goes out of scope.
class LibraryBuffer {
public:
    LibraryBuffer() = default;
    LibraryBuffer(const LibraryBuffer&) = delete;
    LibraryBuffer& operator=(const LibraryBuffer&) = delete;
    ~LibraryBuffer() { reset(); }

    /// Runs `call(unsigned char** out, int* outLength)`, a call of the library, into this buffer and returns
    /// its code. A success with a negative length, or with bytes but no buffer, is a failure. What the call
    /// hands out is released whatever comes of it, also when it throws.
    template <class Call>
    int fill(Call call) {
        reset();
        int length = 0;
        int code = call(&data_, &length);
        if (code == kDeviceOk && (length < 0 || (length > 0 && data_ == nullptr))) code = kDeviceBadLength;
        // What the library says of the length without a success is not a length of the buffer.
        if (code == kDeviceOk) size_ = static_cast<std::size_t>(length);
        return code;
    }

    /// What the library handed back; empty after a failure.
    [[nodiscard]] std::span<const unsigned char> bytes() const { return {data_, size_}; }
    [[nodiscard]] std::size_t size() const { return size_; }

private:
    void reset() {
        wipe(data_, size_);
        std::free(data_); // NOLINT(cppcoreguidelines-no-malloc): the library allocated it with malloc
        data_ = nullptr;
        size_ = 0;
    }

    unsigned char* data_ = nullptr;
    std::size_t size_ = 0;
};

} // namespace veltra
