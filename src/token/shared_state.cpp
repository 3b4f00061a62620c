#include "token/shared_state.h"

namespace veltra {

std::mutex& sharedStateMutex() {
    static auto* const mutex = new std::mutex;
    return *mutex;
}

} // namespace veltra
