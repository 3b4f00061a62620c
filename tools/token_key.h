#pragma once

#include "crypto_provider.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace veltra {

using Bytes = std::vector<unsigned char>;

/// Hands data of any size to its argument, piece by piece and in order.
using Pieces = std::function<void(const std::function<void(std::span<const unsigned char>)>&)>;

/// The content of a file; an unreadable one throws a CommandError when it is read.
Pieces piecesOf(const std::filesystem::path& file);

enum class SignaturePadding : std::uint8_t { Pkcs1, Pss };

/// How to sign. The padding counts for RSA keys only.
struct SignatureScheme {
    const HashAlgorithm* hash = nullptr;
    SignaturePadding padding = SignaturePadding::Pkcs1;
};

/// How to encrypt for an RSA key: OAEP with this hash algorithm, or PKCS#1 v1.5 when it is null.
struct EncryptionScheme {
    const HashAlgorithm* oaepHash = nullptr;
};

constexpr const char* kCannotEncrypt =
    "could not encrypt the file; RSA takes only a few bytes less than the key has";

/// What a list of keys says when it is empty: CNG lists none without a token, too.
constexpr const char* kNoKeys =
    "There are no keys: no token is connected, or it has none yet; 'veltra generate-key' makes one.";

/// A key that was opened through CryptoAPI or CNG. Signatures and ciphertexts are in the byte order that
/// other software uses, big-endian; an ECDSA signature is r and s side by side, each as long as the curve's
/// field. Every operation throws a CommandError that says what failed.
class TokenKey {
public:
    TokenKey() = default;
    TokenKey(const TokenKey&) = delete;
    TokenKey& operator=(const TokenKey&) = delete;
    virtual ~TokenKey() = default;

    [[nodiscard]] virtual KeyDescription describe() const = 0;

    /// SubjectPublicKeyInfo (RFC 5280) in DER.
    [[nodiscard]] virtual Bytes publicKeyInfo() const = 0;

    [[nodiscard]] virtual Bytes sign(const SignatureScheme& scheme, const Pieces& data) const = 0;

    /// False when the signature does not belong to the data and this key.
    [[nodiscard]] virtual bool verify(const SignatureScheme& scheme, const Pieces& data,
                                      const Bytes& signature) const = 0;

    [[nodiscard]] virtual Bytes encrypt(const EncryptionScheme& scheme, const Bytes& plaintext) const = 0;
    [[nodiscard]] virtual Bytes decrypt(const EncryptionScheme& scheme, const Bytes& ciphertext) const = 0;

    /// The certificate in DER that the token has for this key, or nothing.
    [[nodiscard]] virtual std::optional<Bytes> certificate() const = 0;
    virtual void storeCertificate(const CERT_CONTEXT& certificate) const = 0;
};

/// One of the two interfaces through which applications reach the token's keys.
class TokenInterface {
public:
    /// The interface that `choice` names, ready for use.
    static std::unique_ptr<TokenInterface> open(const ProviderChoice& choice);

    TokenInterface() = default;
    TokenInterface(const TokenInterface&) = delete;
    TokenInterface& operator=(const TokenInterface&) = delete;
    virtual ~TokenInterface() = default;

    /// The identifiers of the first token's keys.
    [[nodiscard]] virtual std::vector<std::string> keyIds() const = 0;

    /// The key of a container, or the key with this identifier.
    [[nodiscard]] virtual std::unique_ptr<TokenKey> openKey(const std::wstring& container) const = 0;

    /// The same for use of the private key: hands the chosen PIN to the provider.
    [[nodiscard]] virtual std::unique_ptr<TokenKey> openKeyForUse(const std::wstring& container) const = 0;

    /// The key with this identifier; null when no connected token has it.
    [[nodiscard]] virtual std::unique_ptr<TokenKey> findKey(const std::wstring& keyId) const = 0;

    /// A public key that need not be on a token, from its SubjectPublicKeyInfo.
    [[nodiscard]] virtual std::unique_ptr<TokenKey> publicKey(const Bytes& publicKeyInfo) const = 0;
};

/// What TokenInterface::open makes.
std::unique_ptr<TokenInterface> openCryptoApi(const ProviderChoice& choice);
std::unique_ptr<TokenInterface> openCng(const ProviderChoice& choice);

} // namespace veltra
