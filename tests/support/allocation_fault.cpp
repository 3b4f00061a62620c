#include "support/allocation_fault.h"

#include <cstddef>
#include <new>

// The linker turns a call of SYMBOL into one of __wrap_SYMBOL, and __real_SYMBOL is what it was. std::size_t
// is another type in each of the three builds, and 32-bit Windows puts a _ before the names of C.
#if defined __MINGW32__ && defined __i386__
#define VELTRA_MANGLED(prefix, rest) "_" prefix "_Znwj" rest
#elif defined __MINGW32__
#define VELTRA_MANGLED(prefix, rest) prefix "_Znwy" rest
#else
#define VELTRA_MANGLED(prefix, rest) prefix "_Znwm" rest
#endif

namespace veltra::test {

namespace {

constexpr int kNever = 0;

thread_local int allocationsLeft = kNever; ///< until the one that fails
thread_local bool hasFired = false;

bool failsNow() {
    if (allocationsLeft == AllocationFault::kAlways) return true;
    if (allocationsLeft == kNever || --allocationsLeft != 0) return false;
    return hasFired = true;
}

} // namespace

void* realNew(std::size_t size) __asm__(VELTRA_MANGLED("__real_", ""));
void* realNothrowNew(std::size_t size, const std::nothrow_t& tag) noexcept
    __asm__(VELTRA_MANGLED("__real_", "RKSt9nothrow_t"));

void* wrappedNew(std::size_t size) __asm__(VELTRA_MANGLED("__wrap_", ""));
void* wrappedNew(std::size_t size) {
    if (failsNow()) throw std::bad_alloc();
    return realNew(size);
}

void* wrappedNothrowNew(std::size_t size, const std::nothrow_t& tag) noexcept
    __asm__(VELTRA_MANGLED("__wrap_", "RKSt9nothrow_t"));
void* wrappedNothrowNew(std::size_t size, const std::nothrow_t& tag) noexcept {
    return failsNow() ? nullptr : realNothrowNew(size, tag);
}

void AllocationFault::arm(int n) {
    hasFired = false;
    allocationsLeft = n;
}

void AllocationFault::disarm() {
    allocationsLeft = kNever;
}

bool AllocationFault::fired() {
    return hasFired;
}

} // namespace veltra::test
