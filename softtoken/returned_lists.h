#pragma once

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace veltra::softtoken {

unsigned long currentThreadId();
bool hasThreadEnded(unsigned long threadId);

/// The vectors behind functions that return a reference to a list, or to something in one. Callers copy the
/// list right after the call, without a lock, so each thread gets a vector of its own for each serial; it
/// stays as it is until the same thread asks for the same serial again. (Not thread_local: its destructors
/// crash when the DLL is unloaded.) `Use` tells lists of the same records for different functions apart.
template <class Record, class Use = Record>
class ReturnedLists {
public:
    static ReturnedLists& instance() {
        // Never destroyed: at process exit a killed thread may have left the mutex locked.
        static auto& lists = *new ReturnedLists;
        return lists;
    }

    /// Replaces the calling thread's list for `serial`.
    std::vector<Record>& store(const std::string& serial, std::vector<Record> list) {
        const std::lock_guard guard(mutex_);
        if (lists_.size() >= sweepAt_) dropEndedThreads();
        auto& slot = lists_[Key{currentThreadId(), serial}];
        if (!slot) slot = std::make_unique<std::vector<Record>>();
        *slot = std::move(list);
        return *slot;
    }

private:
    using Key = std::pair<unsigned long, std::string>; ///< thread identifier, serial

    void dropEndedThreads() {
        std::erase_if(lists_, [](const auto& entry) { return hasThreadEnded(entry.first.first); });
        sweepAt_ = std::max<std::size_t>(64, lists_.size() * 2);
    }

    std::mutex mutex_;
    std::map<Key, std::unique_ptr<std::vector<Record>>> lists_;
    std::size_t sweepAt_ = 64;
};

} // namespace veltra::softtoken
