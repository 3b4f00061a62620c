#pragma once

#include "foundation/secret.h"

#include <array>
#include <cstddef>

namespace veltra::test {

/// A secret that is nowhere in this program's memory but masked: what else is found of it, the provider left
/// there.
class SecretMarker {
public:
    static constexpr std::size_t kLength = 32;

    /// `text` is masked by the compiler.
    consteval explicit SecretMarker(const char (&text)[kLength + 1]) {
        for (std::size_t i = 0; i < kLength; ++i)
            masked_[i] = static_cast<unsigned char>(text[i] ^ kMask);
    }

    /// Writes it in clear, for whoever wipes it. Byte by byte, so that no more of it gets into a register.
    void copyTo(unsigned char* out) const {
        for (std::size_t i = 0; i < kLength; ++i)
            static_cast<volatile unsigned char*>(out)[i] = masked_[i] ^ mask_;
    }

    /// Whether its beginning or its end, as bytes or as wide text, is in memory of this process that can be
    /// written. Parts of 20 bytes: 16 may be those of a register that the system has saved on a stack.
    bool isInMemory() const;

private:
    static constexpr unsigned char kMask = 0xA5;
    // Read at run time, or the compiler would put the secret into the code.
    static inline volatile unsigned char mask_ = kMask;

    static constexpr std::size_t kPart = 20;

    bool isIn(const unsigned char* memory, std::size_t length) const;
    bool isAt(const unsigned char* memory, std::size_t part, std::size_t width) const;

    std::array<unsigned char, kLength> masked_{};
};

/// A marker in clear, zero-terminated, wiped when it goes out of scope.
class ClearMarker {
public:
    explicit ClearMarker(const SecretMarker& marker) { marker.copyTo(bytes_.data()); }
    unsigned char* data() { return bytes_.data(); }

private:
    SecretBytes<SecretMarker::kLength + 1> bytes_;
};

} // namespace veltra::test
