#pragma once

#include "foundation/device_library_contract.h"
#include "foundation/live_records.h"
#include "foundation/windows.h"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace veltra {

/// A token key identifier that a context or a hash object remembers, or nothing.
struct KeySlot {
    std::array<unsigned char, kKeyIdLength> keyId{};
    std::uint32_t keyIdLength = 0; ///< kKeyIdLength when filled

    [[nodiscard]] bool filled() const { return keyIdLength == kKeyIdLength; }
    void fill(std::span<const unsigned char, kKeyIdLength> id);
};

/// The record behind an HCRYPTPROV, made by CPAcquireContext and freed by CPReleaseContext. Not locked: one
/// handle is used by one thread at a time.
struct CSP_CONTEXT {
    std::uint64_t reserved = 0;
    std::string serial;               ///< the token this context works on; empty for a verify context
    void* libraryContext = nullptr;   ///< last argument of every library call
    std::string keyName;              ///< the key that the container stands for, or the container name itself
    std::string containerName;        ///< as the application passed it
    std::uint8_t initialised = 0;     ///< 1 once CPAcquireContext succeeded
    std::uint32_t fixedWord = 0;      ///< 4096 in a token context
    std::vector<std::string> keyList; ///< names of all keys at acquisition, in the token's order
    std::uint8_t silent = 0;          ///< 1: no window may be shown for this context
    bool persistedContainer = false;  ///< a container name was given: generated keys are recorded under it
    bool containersEnumerated = false;  ///< PP_ENUMCONTAINERS was answered
    bool containerNameAnswered = false; ///< so was PP_CONTAINER or PP_UNIQUE_CONTAINER; carried, not read
    DWORD keySpec = 0;                  ///< what PP_KEYSET_TYPE reports
    HWND ownerWindow = nullptr;         ///< set by PP_CLIENT_HWND; the password dialog has no owner
    std::size_t algorithmCursor = 0;    ///< shared by PP_ENUMALGS and PP_ENUMALGS_EX
    std::size_t signingProtocolCursor = 0;
    std::size_t containerCursor = 0;
    KeySlot signatureKey;
    KeySlot exchangeKey;

    /// The slot of a key specification; null for one that is neither AT_SIGNATURE nor AT_KEYEXCHANGE.
    KeySlot* slotOf(DWORD specification);

    /// Whether the container stands for this key: no container stands for every key.
    [[nodiscard]] bool containerMatches(const VeltraKeyPair& pair) const;
};

/// The live context behind a handle, or null.
inline std::shared_ptr<CSP_CONTEXT> liveContext(HCRYPTPROV handle) {
    return LiveRecords<CSP_CONTEXT>::find(handle);
}

/// The live, initialised context behind a handle, or null.
std::shared_ptr<CSP_CONTEXT> usableContext(HCRYPTPROV handle);

} // namespace veltra
