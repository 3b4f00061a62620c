#pragma once

#include "foundation/device_library_contract.h"

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace veltra::softtoken {

/// The vectors behind functions that return a reference to a list. Callers copy the list right after the
/// call, without a lock, so each thread gets a vector of its own for each serial; it stays as it is until the
/// same thread asks for the same serial again. (Not thread_local: its destructors crash when the DLL is
/// unloaded.)
class ReturnedLists {
public:
    static ReturnedLists& instance();

    /// Replaces the calling thread's list for `serial`.
    std::vector<VeltraKeyPair>& store(const std::string& serial, std::vector<VeltraKeyPair> list);

private:
    using Key = std::pair<unsigned long, std::string>; ///< thread identifier, serial

    void dropEndedThreads();

    std::mutex mutex_;
    std::map<Key, std::unique_ptr<std::vector<VeltraKeyPair>>> lists_;
    std::size_t sweepAt_ = 64;
};

} // namespace veltra::softtoken
