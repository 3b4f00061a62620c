#pragma once

#include "gcrypt_support.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

namespace veltra::softtoken {

/// A running digest.
class RunningHash {
public:
    /// `algorithm` is a HashMechanism; Failure::NotSupported for another.
    explicit RunningHash(int algorithm);
    RunningHash(const RunningHash&) = delete;
    RunningHash& operator=(const RunningHash&) = delete;
    ~RunningHash();

    void update(BytesView data);
    [[nodiscard]] std::size_t digestLength() const;
    [[nodiscard]] Bytes digest();

private:
    std::mutex mutex_;
    gcry_md_hd_t raw_ = nullptr;
    int algorithm_;
};

/// The running digests behind the contract's opaque handles. A handle is a number that is never used again,
/// so that a stale or invented one is recognised. Thread-safe.
class HashRegistry {
public:
    static HashRegistry& instance();

    void* add(std::shared_ptr<RunningHash> hash);
    /// Failure::BadArgument for a handle that is not live.
    std::shared_ptr<RunningHash> find(void* handle);
    /// Failure::BadArgument when another thread was faster.
    void remove(void* handle);

private:
    std::mutex mutex_;
    std::map<void*, std::shared_ptr<RunningHash>> hashes_;
    std::uintptr_t lastHandle_ = 0;
};

} // namespace veltra::softtoken
