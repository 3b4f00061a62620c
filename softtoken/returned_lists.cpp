#include "returned_lists.h"

#include "foundation/windows.h"

namespace veltra::softtoken {

unsigned long currentThreadId() {
    return GetCurrentThreadId();
}

bool hasThreadEnded(unsigned long threadId) {
    HANDLE thread = OpenThread(SYNCHRONIZE, FALSE, threadId);
    if (thread == nullptr) return GetLastError() == ERROR_INVALID_PARAMETER;
    const bool ended = WaitForSingleObject(thread, 0) == WAIT_OBJECT_0;
    CloseHandle(thread);
    return ended;
}

} // namespace veltra::softtoken
