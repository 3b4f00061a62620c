#pragma once

#include "gcrypt_support.h"

#include <cstdlib>

namespace veltra::softtoken {

/// Memory from malloc that is going to be a caller's, who releases it with free. Wiped when it is released
/// here instead.
class CallerBuffer {
public:
    /// Throws std::bad_alloc. `length` 0 makes a buffer too, so that a success never hands out null.
    explicit CallerBuffer(std::size_t length);
    explicit CallerBuffer(BytesView content);

    [[nodiscard]] std::span<unsigned char> bytes() const noexcept { return {memory_.get(), length_}; }

    /// Drops, and wipes, what is behind the first `length` bytes.
    void truncate(std::size_t length);

    /// Gives the memory to the caller. Failure::BadArgument when its length is not an int's.
    void handOut(unsigned char** out, int* outLength);

private:
    struct WipeAndFree {
        std::size_t capacity;
        void operator()(unsigned char* memory) const noexcept;
    };

    std::unique_ptr<unsigned char, WipeAndFree> memory_;
    std::size_t length_;
};

} // namespace veltra::softtoken
