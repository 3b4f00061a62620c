#include "foundation/secret.h"

#include "foundation/windows.h"

namespace veltra {

void wipe(void* data, std::size_t length) {
    SecureZeroMemory(data, length);
}

} // namespace veltra
