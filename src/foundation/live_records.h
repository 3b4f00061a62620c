#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <unordered_map>

namespace veltra {

/// The records behind the handles of one kind that are alive: a handle is the address of its record, and a
/// value that is not the address of a live record of this kind is never dereferenced.
///
/// Thread safety: every function may be called from any thread. A record itself is not locked: the pointer
/// that find returns is good until the handle is taken, and one handle is used by one thread at a time.
template <class Record>
class LiveRecords {
public:
    /// Takes over `record` and returns its handle.
    static std::uintptr_t add(std::unique_ptr<Record> record) {
        const auto handle = reinterpret_cast<std::uintptr_t>(record.get());
        Table& table = instance();
        const std::unique_lock lock(table.mutex);
        table.records.insert_or_assign(handle, std::move(record));
        return handle;
    }

    /// The live record behind `handle`, or null.
    static Record* find(std::uintptr_t handle) {
        Table& table = instance();
        const std::shared_lock lock(table.mutex);
        const auto found = table.records.find(handle);
        return found == table.records.end() ? nullptr : found->second.get();
    }

    /// Ends the life of the handle and hands its record out; null when it was not alive.
    static std::unique_ptr<Record> take(std::uintptr_t handle) {
        Table& table = instance();
        const std::unique_lock lock(table.mutex);
        auto node = table.records.extract(handle);
        return node ? std::move(node.mapped()) : nullptr;
    }

private:
    struct Table {
        std::shared_mutex mutex;
        std::unordered_map<std::uintptr_t, std::unique_ptr<Record>> records;
    };

    // Never destroyed: a thread that process exit killed may have held the lock.
    static Table& instance() {
        static auto* const table = new Table;
        return *table;
    }
};

} // namespace veltra
