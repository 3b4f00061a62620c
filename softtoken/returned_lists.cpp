#include "returned_lists.h"

#include "foundation/windows.h"

#include <algorithm>

namespace veltra::softtoken {

namespace {

bool hasEnded(DWORD threadId) {
    HANDLE thread = OpenThread(SYNCHRONIZE, FALSE, threadId);
    if (thread == nullptr) return GetLastError() == ERROR_INVALID_PARAMETER;
    const bool ended = WaitForSingleObject(thread, 0) == WAIT_OBJECT_0;
    CloseHandle(thread);
    return ended;
}

} // namespace

ReturnedLists& ReturnedLists::instance() {
    // Never destroyed: at process exit a killed thread may have left the mutex locked.
    static auto& lists = *new ReturnedLists;
    return lists;
}

std::vector<VeltraKeyPair>& ReturnedLists::store(const std::string& serial, std::vector<VeltraKeyPair> list) {
    const std::lock_guard guard(mutex_);
    if (lists_.size() >= sweepAt_) dropEndedThreads();
    auto& slot = lists_[Key{GetCurrentThreadId(), serial}];
    if (!slot) slot = std::make_unique<std::vector<VeltraKeyPair>>();
    *slot = std::move(list);
    return *slot;
}

void ReturnedLists::dropEndedThreads() {
    std::erase_if(lists_, [](const auto& entry) { return hasEnded(entry.first.first); });
    sweepAt_ = std::max<std::size_t>(64, lists_.size() * 2);
}

} // namespace veltra::softtoken
