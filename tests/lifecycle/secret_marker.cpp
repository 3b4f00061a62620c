#include "lifecycle/secret_marker.h"

#include "foundation/windows.h"

namespace veltra::test {

// Not synchronised with threads that release memory meanwhile: none does while the tests scan.
bool SecretMarker::isInMemory() const {
    constexpr DWORD kWritable =
        PAGE_READWRITE | PAGE_WRITECOPY | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY;
    MEMORY_BASIC_INFORMATION region{};
    const unsigned char* at = nullptr;
    for (; VirtualQuery(at, &region, sizeof region) != 0; at += region.RegionSize) {
        at = static_cast<const unsigned char*>(region.BaseAddress);
        const bool isReadable = (region.Protect & kWritable) != 0 && (region.Protect & PAGE_GUARD) == 0;
        if (region.State == MEM_COMMIT && isReadable && isIn(at, region.RegionSize)) return true;
    }
    return false;
}

bool SecretMarker::isIn(const unsigned char* memory, std::size_t length) const {
    const std::size_t end = kLength - kPart;
    const auto first = static_cast<unsigned char>(masked_[0] ^ mask_);
    const auto firstOfEnd = static_cast<unsigned char>(masked_[end] ^ mask_);
    for (std::size_t at = 0; at + kPart <= length; ++at) {
        if (memory[at] != first && memory[at] != firstOfEnd) continue;
        const bool mayBeWide = at + kPart * sizeof(WCHAR) <= length;
        for (const std::size_t part : {std::size_t{0}, end}) {
            if (isAt(memory + at, part, sizeof(char))) return true;
            if (mayBeWide && isAt(memory + at, part, sizeof(WCHAR))) return true;
        }
    }
    return false;
}

bool SecretMarker::isAt(const unsigned char* memory, std::size_t part, std::size_t width) const {
    for (std::size_t i = 0; i < kPart; ++i)
        if ((memory[i * width] ^ mask_) != masked_[part + i]) return false;
    return true;
}

} // namespace veltra::test
