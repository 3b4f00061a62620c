#pragma once

#include <algorithm>
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

/// Secret bytes of which only running shows how many there are. The whole memory is wiped when it goes out
/// of scope.
class SecretBuffer {
public:
    SecretBuffer() = default;
    SecretBuffer(const SecretBuffer&) = delete;
    SecretBuffer& operator=(const SecretBuffer&) = delete;
    ~SecretBuffer() { wipe(memory_.data(), memory_.size()); }

    /// Makes it `length` zeros; what it held before is wiped.
    void allocate(std::size_t length) {
        wipe(memory_.data(), memory_.size());
        size_ = 0;
        memory_.assign(length, 0);
        size_ = length;
    }

    /// Keeps only the first `length` bytes.
    void truncate(std::size_t length) { size_ = std::min(size_, length); }

    unsigned char* data() { return memory_.data(); }
    [[nodiscard]] std::size_t size() const { return size_; }
    [[nodiscard]] std::span<const unsigned char> bytes() const { return {memory_.data(), size_}; }

private:
    std::vector<unsigned char> memory_;
    std::size_t size_ = 0;
};

} // namespace veltra
