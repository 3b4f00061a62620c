#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <vector>

namespace veltra {

/// Overwrites `length` bytes with zeros; the compiler never removes the call.
void wipe(void* data, std::size_t length);

/// A fixed block of key bytes that is wiped when it goes out of scope.
template <std::size_t Length>
class SecretBytes {
public:
    SecretBytes() = default;
    SecretBytes(const SecretBytes&) = delete;
    SecretBytes& operator=(const SecretBytes&) = delete;
    ~SecretBytes() { wipe(bytes_.data(), bytes_.size()); }

    unsigned char* data() { return bytes_.data(); }
    [[nodiscard]] const unsigned char* data() const { return bytes_.data(); }
    [[nodiscard]] static constexpr std::size_t size() { return Length; }
    unsigned char& operator[](std::size_t index) { return bytes_[index]; }

private:
    std::array<unsigned char, Length> bytes_{};
};

/// The same of a length that is known at run time. It never grows, so that no copy is left behind.
class SecretBuffer {
public:
    explicit SecretBuffer(std::size_t length) : bytes_(length) {}
    SecretBuffer(const SecretBuffer&) = delete;
    SecretBuffer& operator=(const SecretBuffer&) = delete;
    ~SecretBuffer() { wipe(bytes_.data(), bytes_.size()); }

    [[nodiscard]] std::span<unsigned char> bytes() { return bytes_; }

private:
    std::vector<unsigned char> bytes_;
};

} // namespace veltra
