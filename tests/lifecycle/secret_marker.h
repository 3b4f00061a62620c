#pragma once

#include "foundation/windows.h"

#include <array>
#include <span>

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
    /// written. Not synchronised with threads that release memory meanwhile: none does while the tests scan.
    bool isInMemory() const {
        constexpr DWORD kWritable =
            PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
        MEMORY_BASIC_INFORMATION region{};
        const unsigned char* at = nullptr;
        for (; VirtualQuery(at, &region, sizeof region) != 0; at += region.RegionSize) {
            at = static_cast<const unsigned char*>(region.BaseAddress);
            const bool isReadable = (region.Protect & kWritable) != 0 && (region.Protect & PAGE_GUARD) == 0;
            if (region.State == MEM_COMMIT && isReadable && isIn({at, region.RegionSize})) return true;
        }
        return false;
    }

private:
    static constexpr unsigned char kMask = 0xA5;
    // Read at run time, or the compiler would put the secret into the code.
    static inline volatile unsigned char mask_ = kMask;

    /// Parts of 20 bytes: 16 may be those of a register that the system has saved on a stack.
    static constexpr std::size_t kPart = 20;
    static constexpr std::size_t kEnd = kLength - kPart;

    bool isIn(std::span<const unsigned char> memory) const {
        const auto first = static_cast<unsigned char>(masked_[0] ^ mask_);
        const auto firstOfEnd = static_cast<unsigned char>(masked_[kEnd] ^ mask_);
        for (; memory.size() >= kPart; memory = memory.subspan(1)) {
            if (memory[0] != first && memory[0] != firstOfEnd) continue;
            for (const std::size_t width : {sizeof(char), sizeof(WCHAR)})
                if (isAt(memory, 0, width) || isAt(memory, kEnd, width)) return true;
        }
        return false;
    }

    bool isAt(std::span<const unsigned char> memory, std::size_t part, std::size_t width) const {
        if (memory.size() < kPart * width) return false;
        for (std::size_t i = 0; i < kPart; ++i)
            if ((memory[i * width] ^ mask_) != masked_[part + i]) return false;
        return true;
    }

    std::array<unsigned char, kLength> masked_{};
};

} // namespace veltra::test
