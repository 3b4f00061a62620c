#pragma once

#include "certs/der_writer.h"

#include <optional>
#include <span>

namespace veltra {

/// Reads the elements of untrusted DER (X.690) from front to back. Refers to the bytes it was made from.
class DerReader {
public:
    explicit DerReader(std::span<const unsigned char> bytes) : rest_(bytes) {}

    /// The contents of the next element if it has this tag. Nothing, and no step forward, when it has another
    /// one, when its length is not the shortest definite form, or when it does not fit the bytes.
    std::optional<std::span<const unsigned char>> read(DerTag tag);

    [[nodiscard]] bool atEnd() const { return rest_.empty(); }

private:
    std::span<const unsigned char> rest_;
};

/// The contents of the one element with this tag that `bytes` consist of.
std::optional<std::span<const unsigned char>> readSingleElement(std::span<const unsigned char> bytes,
                                                                DerTag tag);

} // namespace veltra
