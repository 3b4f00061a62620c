#include "support/sanitizer_stack.h"

#include "foundation/windows.h"

#include <cstddef>

// gcc says it with a macro, clang with a feature.
#ifdef __has_feature
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__
#endif
#endif

#ifdef __SANITIZE_ADDRESS__
extern "C" {
void __sanitizer_start_switch_fiber(void** fakeStackSave, const void* bottom, std::size_t size);
void __sanitizer_finish_switch_fiber(void* fakeStackSave, const void** oldBottom, std::size_t* oldSize);
void __lsan_do_leak_check();
}
#endif

namespace veltra::test {

void announceStackToSanitizer() {
#ifdef __SANITIZE_ADDRESS__
    // Of the thread's environment block, where the stack begins and where its memory ends (64-bit offsets).
    const auto* block = reinterpret_cast<const char*>(NtCurrentTeb());
    const char* high = *reinterpret_cast<const char* const*>(block + 0x8);
    const char* low = *reinterpret_cast<const char* const*>(block + 0x1478);
    __sanitizer_start_switch_fiber(nullptr, low, static_cast<std::size_t>(high - low));
    __sanitizer_finish_switch_fiber(nullptr, nullptr, nullptr);
#endif
}

void lookForLeaks() {
#ifdef __SANITIZE_ADDRESS__
    __lsan_do_leak_check();
#endif
}

} // namespace veltra::test
