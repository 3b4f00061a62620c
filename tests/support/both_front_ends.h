#pragma once

#include "support/scripted_device_library.h"

#include "csp/csp_entry_points.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"

#include <algorithm>
#include <memory>
#include <string>

namespace veltra::test {

/// Where the entry points of the tests put what they hand out.
struct Output {
    static constexpr std::size_t kCapacity = 8192;

    Bytes bytes = Bytes(kCapacity, 0xEE);
    DWORD length = kCapacity;
    DWORD count = 0;
    ULONG_PTR handle = 0;
    ULONG_PTR second = 0;

    bool operator==(const Output&) const = default;
};

/// A token with a key of every kind, and an object of every kind in both front ends that works with it: what
/// an application has that is about to call any entry point. The container is that of the RSA key, and the
/// PIN is known. Everything is released behind it, whatever became of it.
struct BothFrontEnds {
    static constexpr unsigned char kRsa = 0x11;
    static constexpr unsigned char kEc = 0x22;
    static constexpr unsigned char kAes = 0x33;
    static constexpr const char* kPin = "PIN-that#no.log@has";

    /// Resets the library: there is one of these at a time.
    explicit BothFrontEnds(const std::string& serial);
    BothFrontEnds(const BothFrontEnds&) = delete;
    BothFrontEnds& operator=(const BothFrontEnds&) = delete;
    ~BothFrontEnds();

    /// Makes the output as it was, with `input` in front for entry points that work in place.
    void resetOutput();
    BYTE* data() { return out.bytes.data(); }
    DWORD inputLength() const { return static_cast<DWORD>(input.size()); }

    /// The objects that are still alive, of all kinds.
    std::vector<std::uintptr_t> liveHandles() const;

    ScriptedToken& token;
    const std::string container;
    VTableProvStruc* const table = reinterpret_cast<VTableProvStruc*>(this); // nobody looks at more

    HCRYPTPROV context = 0;
    HCRYPTKEY rsaKey = 0;
    HCRYPTKEY aesKey = 0;
    HCRYPTHASH hash = 0;
    HCRYPTHASH hmac = 0; ///< set up, and with data
    NCRYPT_PROV_HANDLE provider = 0;
    NCRYPT_KEY_HANDLE cngRsaKey = 0;
    NCRYPT_KEY_HANDLE cngEcKey = 0;
    NCRYPT_KEY_HANDLE cngAesKey = 0;
    NCRYPT_KEY_HANDLE cngNewKey = 0; ///< created, not finalised
    NCRYPT_SECRET_HANDLE secret = 0;
    ULONG_PTR block = 0; ///< a list that CNG has handed out

    Bytes input;
    Output out;
};

/// A key object of either front end that holds these bytes, or characters, of a key.
template <class Key>
std::unique_ptr<Key> keyWith(const auto& bytes) {
    auto key = std::make_unique<Key>();
    std::ranges::copy(bytes, key->symmetricKey.data());
    key->symmetricKeyLength = static_cast<std::uint32_t>(bytes.size());
    return key;
}

/// A key object as KSPOpenKey makes it of this pair, made without it.
std::unique_ptr<KSP_KEY> openedKey(const VeltraKeyPair& pair);

/// Releases the object behind a handle of any kind; false when there is none.
bool releaseAny(std::uintptr_t handle);
/// A number for the kind of a live object; 0 when there is none.
int kindOf(std::uintptr_t handle);
/// What is behind a live handle of any kind: as long as it is held, nothing else gets its address.
std::shared_ptr<void> recordOf(std::uintptr_t handle);

/// A PKCS#1 ciphertext of `plaintext` as the token has it: big-endian.
Bytes ciphertextOf(const Bytes& plaintext);

} // namespace veltra::test
