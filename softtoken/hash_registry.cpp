#include "hash_registry.h"

namespace veltra::softtoken {

namespace {

int libraryAlgorithm(int mechanism) {
    switch (mechanism) {
    case kMechanismSha1:
        return GCRY_MD_SHA1;
    case kMechanismSha224:
        return GCRY_MD_SHA224;
    case kMechanismSha256:
        return GCRY_MD_SHA256;
    case kMechanismSha384:
        return GCRY_MD_SHA384;
    case kMechanismSha512:
        return GCRY_MD_SHA512;
    default:
        throw TokenError(Failure::NotSupported, "unknown hash algorithm " + std::to_string(mechanism));
    }
}

} // namespace

RunningHash::RunningHash(int algorithm) : algorithm_(libraryAlgorithm(algorithm)) {
    initialiseCrypto();
    checkCrypto(gcry_md_open(&raw_, algorithm_, 0), "hash");
}

RunningHash::~RunningHash() {
    gcry_md_close(raw_);
}

void RunningHash::update(BytesView data) {
    const std::lock_guard guard(mutex_);
    gcry_md_write(raw_, data.data(), data.size());
}

std::size_t RunningHash::digestLength() const {
    return gcry_md_get_algo_dlen(algorithm_);
}

Bytes RunningHash::digest() {
    const std::lock_guard guard(mutex_);
    const unsigned char* digest = gcry_md_read(raw_, algorithm_);
    return {digest, digest + digestLength()};
}

HashRegistry& HashRegistry::instance() {
    // Never destroyed: at process exit a killed thread may have left the mutex locked.
    static auto& registry = *new HashRegistry;
    return registry;
}

void* HashRegistry::add(std::shared_ptr<RunningHash> hash) {
    const std::lock_guard guard(mutex_);
    lastHandle_ += 16;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): a name for the caller, never followed
    auto* handle = reinterpret_cast<void*>(lastHandle_);
    hashes_.emplace(handle, std::move(hash));
    return handle;
}

std::shared_ptr<RunningHash> HashRegistry::find(void* handle) {
    const std::lock_guard guard(mutex_);
    const auto found = hashes_.find(handle);
    if (found == hashes_.end()) throw TokenError(Failure::BadArgument, "not a live hash handle");
    return found->second;
}

void HashRegistry::remove(void* handle) {
    const std::lock_guard guard(mutex_);
    if (hashes_.erase(handle) == 0) throw TokenError(Failure::BadArgument, "not a live hash handle");
}

} // namespace veltra::softtoken
