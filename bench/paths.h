#pragma once

#include "provider.h"

#include <vector>

namespace veltra::bench {

/// Digests are computed as long as it lives.
class RealHashes {
public:
    RealHashes() { standIn()->realHashes = true; }
    RealHashes(const RealHashes&) = delete;
    RealHashes& operator=(const RealHashes&) = delete;
    ~RealHashes() { standIn()->realHashes = false; }
};

/// The token has `count` RSA keys, the one that is used last, and in front of them a P-256 key.
class TokenKeys {
public:
    explicit TokenKeys(std::size_t count);
    TokenKeys(const TokenKeys&) = delete;
    TokenKeys& operator=(const TokenKeys&) = delete;
    ~TokenKeys() { standIn()->keyPairs = nullptr; }

    /// From now on it is these that the token has.
    void use() { standIn()->keyPairs = &pairs_; }

    [[nodiscard]] std::size_t size() const { return pairs_.size(); }

private:
    std::vector<VeltraKeyPair> pairs_;
};

/// An application with its handles open: a context and keys in each front end, and the PIN accepted. It uses
/// the keys that the token has when it is made. Throws std::runtime_error.
class Application {
public:
    Application();
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;
    ~Application();

    /// A SHA-256 hash of some bytes.
    [[nodiscard]] HCRYPTHASH newHash() const;

    HCRYPTPROV context = 0;
    HCRYPTKEY key = 0;
    HCRYPTKEY aesKey = 0;
    NCRYPT_PROV_HANDLE cngProvider = 0;
    NCRYPT_KEY_HANDLE cngKey = 0;
    NCRYPT_KEY_HANDLE cngEcKey = 0;
    NCRYPT_KEY_HANDLE cngAesKey = 0;
};

/// One thing that applications do, through one front end. Its operation fails with std::runtime_error.
struct Path {
    const char* name;
    Operation run;
};

/// The paths that use keys.
std::vector<Path> pathsOf(const Application& application);
Operation signPath(const Application& application);
Operation cngSignPath(const Application& application);

/// Opening, and one step of each enumeration, in this order.
std::vector<Path> openingPathsOf(const Application& application);

/// A context for the RSA key, or with flags one without a key.
HCRYPTPROV acquireContext(DWORD flags = 0);
void releaseContext(HCRYPTPROV context);
NCRYPT_KEY_HANDLE openCngKey(NCRYPT_PROV_HANDLE cngProvider, const wchar_t* name = kRsaKeyName);

/// Enumerate everything; return how many keys there were.
std::size_t enumerateContainers(HCRYPTPROV context);
std::size_t enumerateCngKeys(NCRYPT_PROV_HANDLE cngProvider);

} // namespace veltra::bench
