#include "caller_buffer.h"

#include "foundation/windows.h"

#include <algorithm>
#include <limits>
#include <new>

namespace veltra::softtoken {

CallerBuffer::CallerBuffer(std::size_t length)
    : memory_(static_cast<unsigned char*>(std::malloc(std::max<std::size_t>(length, 1))),
              WipeAndFree{length}),
      length_(length) {
    if (!memory_) throw std::bad_alloc();
}

CallerBuffer::CallerBuffer(BytesView content) : CallerBuffer(content.size()) {
    std::ranges::copy(content, memory_.get());
}

void CallerBuffer::truncate(std::size_t length) {
    if (length >= length_) return;
    SecureZeroMemory(memory_.get() + length, length_ - length);
    length_ = length;
}

void CallerBuffer::handOut(unsigned char** out, int* outLength) {
    if (length_ > static_cast<std::size_t>(std::numeric_limits<int>::max())) {
        throw TokenError(Failure::BadArgument, "the result is too long");
    }
    *outLength = static_cast<int>(length_);
    *out = memory_.release();
}

void CallerBuffer::WipeAndFree::operator()(unsigned char* memory) const noexcept {
    SecureZeroMemory(memory, capacity);
    std::free(memory);
}

} // namespace veltra::softtoken
