#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>
#include <utility>

namespace veltra {

/// The records behind the handles of one kind that are alive: a handle is the address of its record, and a
/// value that is not the address of a live record of this kind is never dereferenced.
///
/// Thread safety: every function may be called from any thread. A record itself is not locked: one handle is
/// used by one thread at a time. A caller keeps what find returns for as long as it works with the record:
/// the dialog runs the host's window procedures on the calling thread, and one of those may destroy the
/// handle.
template <class Record>
class LiveRecords {
public:
    /// Makes `record` live and returns its handle.
    static std::uintptr_t add(std::shared_ptr<Record> record) {
        const auto handle = reinterpret_cast<std::uintptr_t>(record.get());
        Table& table = instance();
        const std::unique_lock lock(table.mutex);
        table.records.insert_or_assign(handle, std::move(record));
        return handle;
    }

    /// The live record behind `handle`, or null.
    static std::shared_ptr<Record> find(std::uintptr_t handle) {
        Table& table = instance();
        const std::shared_lock lock(table.mutex);
        const auto found = table.records.find(handle);
        return found == table.records.end() ? nullptr : found->second;
    }

    /// Ends the life of the handle and hands its record out; null when it was not alive. The record is gone
    /// when the last caller that holds it lets go.
    [[nodiscard]] static std::shared_ptr<Record> take(std::uintptr_t handle) {
        Table& table = instance();
        const std::unique_lock lock(table.mutex);
        auto node = table.records.extract(handle);
        return node ? std::move(node.mapped()) : nullptr;
    }

private:
    struct Table {
        std::shared_mutex mutex;
        std::unordered_map<std::uintptr_t, std::shared_ptr<Record>> records;
    };

    // Never destroyed: a thread that process exit killed may have held the lock.
    static Table& instance() {
        static auto* const table = new Table;
        return *table;
    }
};

/// A record that is live before its caller knows the handle, so that handing it out cannot fail. One that is
/// not handed out goes again.
template <class Record>
class UnclaimedHandle {
public:
    explicit UnclaimedHandle(std::shared_ptr<Record> record)
        : handle_(LiveRecords<Record>::add(std::move(record))) {}
    UnclaimedHandle(const UnclaimedHandle&) = delete;
    UnclaimedHandle& operator=(const UnclaimedHandle&) = delete;
    ~UnclaimedHandle() { LiveRecords<Record>::take(handle_).reset(); }

    std::uintptr_t handOut() { return std::exchange(handle_, 0); }

private:
    std::uintptr_t handle_;
};

} // namespace veltra
