#pragma once

#include "pin_source.h"

#include "foundation/windows.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace veltra {

/// Owner of a CryptoAPI handle, which is a number, not a pointer; 0 owns nothing. Clean-up keeps the thread's
/// last error, so that an error can be reported after the handles of a failed operation are gone.
template <class Releaser>
class CryptoHandle {
public:
    CryptoHandle() = default;
    explicit CryptoHandle(ULONG_PTR handle) : handle_(handle) {}
    CryptoHandle(CryptoHandle&& other) noexcept : handle_(std::exchange(other.handle_, 0)) {}
    CryptoHandle& operator=(CryptoHandle&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    CryptoHandle(const CryptoHandle&) = delete;
    CryptoHandle& operator=(const CryptoHandle&) = delete;
    ~CryptoHandle() {
        if (handle_ != 0) {
            const DWORD lastError = GetLastError();
            Releaser{}(handle_);
            SetLastError(lastError);
        }
    }

    [[nodiscard]] ULONG_PTR get() const { return handle_; }

    /// Gives the handle up to the caller.
    [[nodiscard]] ULONG_PTR release() { return std::exchange(handle_, 0); }

private:
    ULONG_PTR handle_ = 0;
};

struct ContextReleaser {
    void operator()(HCRYPTPROV context) const { CryptReleaseContext(context, 0); }
};
struct KeyDestroyer {
    void operator()(HCRYPTKEY key) const { CryptDestroyKey(key); }
};
struct HashDestroyer {
    void operator()(HCRYPTHASH hash) const { CryptDestroyHash(hash); }
};

using CryptoContext = CryptoHandle<ContextReleaser>;
using CryptoKey = CryptoHandle<KeyDestroyer>;
using CryptoHash = CryptoHandle<HashDestroyer>;

/// The bytes of a call that is made twice: with null to learn the length, then for the bytes.
/// `call(BYTE* data, DWORD* length)` throws when it is refused.
template <class Call>
std::vector<BYTE> askTwice(const Call& call) {
    DWORD length = 0;
    call(nullptr, &length);
    std::vector<BYTE> bytes(length);
    call(bytes.data(), &length);
    bytes.resize(length);
    return bytes;
}

/// Which provider to use, how to reach it, and whether it may show a window.
struct ProviderChoice {
    std::wstring name = L"Veltra Cryptographic Provider CSP";
    bool cng = false;          ///< through CNG's key storage functions instead of CryptoAPI
    std::filesystem::path dll; ///< the provider's file; empty: VeltraCSP.dll beside this program
    bool silent = false;
    SharedPin pin; ///< null: the provider asks for the PIN when it needs one
};

struct HashAlgorithm {
    std::string_view name;
    ALG_ID id;
    const char* objectIdentifier;
    const wchar_t* cngName;
    DWORD length; ///< of a digest, in bytes
    const char* rsaSignatureIdentifier;
    const char* ecdsaSignatureIdentifier;
};

/// The hash algorithms by their command line names; null for an unknown name.
std::span<const HashAlgorithm> hashAlgorithms();
const HashAlgorithm* findHashAlgorithm(std::string_view name);

/// Which words describe a key's use: "sign", "exchange", "both" or "none".
std::string usageText(bool signs, bool exchanges);

/// True for a good signature, false for one that does not belong to the data; for anything else that the last
/// error tells, throws a CommandError.
bool verdict(BOOL verified, std::string_view what);

/// What a key says about itself.
struct KeyDescription {
    std::string algorithm;
    DWORD bits = 0;
    std::string usage;
};

/// A context of a provider, opened through the system's CryptoAPI. Every operation throws
/// a CommandError that says what failed. Not for use by several threads at once.
class CryptoProvider {
public:
    /// Opens the container with this name, which must not be empty.
    static CryptoProvider open(const ProviderChoice& choice, const std::wstring& container, DWORD flags = 0);

    /// Opens a container whose private key will be used: as open, and hands the chosen PIN to the provider,
    /// after making sure that the key is on the context's token: the PIN of another token would count as a
    /// wrong one.
    static CryptoProvider openForUse(const ProviderChoice& choice, const std::wstring& container);

    /// Hands the chosen PIN, if there is one, to the provider, for the context's token.
    void givePin(const ProviderChoice& choice) const;

    /// Opens no container in particular: the first connected token.
    static CryptoProvider openToken(const ProviderChoice& choice);

    /// Opens the system's own software provider, for public keys alone.
    static CryptoProvider openSystem();

    /// Deletes a container with its keys.
    static void deleteContainer(const ProviderChoice& choice, const std::wstring& container);

    [[nodiscard]] HCRYPTPROV handle() const { return context_.get(); }

    /// `keySpec` is AT_SIGNATURE or AT_KEYEXCHANGE; `bits` the length of the new RSA key.
    [[nodiscard]] CryptoKey generateKey(DWORD keySpec, DWORD bits) const;

    /// The container's own key. AT_SIGNATURE gives it whatever it is meant for: the provider does not
    /// compare.
    [[nodiscard]] CryptoKey ownKey() const;

    /// The same; nothing when the connected token does not have the key.
    [[nodiscard]] std::optional<CryptoKey> findOwnKey() const;

    static KeyDescription describe(const CryptoKey& key);

    /// The names of PP_ENUMCONTAINERS, which are the identifiers of the keys of the context's token.
    /// CryptoAPI has no way to name the other connected tokens.
    [[nodiscard]] std::vector<std::string> containerNames() const;

    /// The DER bytes of the certificate that the token has for this key (KP_CERTIFICATE); nothing if it has
    /// none.
    static std::optional<std::vector<BYTE>> certificateOf(const CryptoKey& key);

    [[nodiscard]] CryptoHash createHash(const HashAlgorithm& algorithm) const;

private:
    explicit CryptoProvider(CryptoContext context) : context_(std::move(context)) {}

    CryptoContext context_;
};

void hashPiece(const CryptoHash& hash, std::span<const unsigned char> piece);

/// Finishes the hash.
std::vector<BYTE> hashValue(const CryptoHash& hash);

} // namespace veltra
