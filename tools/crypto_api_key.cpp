// The token's keys through CryptoAPI, whose byte order is little-endian.

#include "token_key.h"

#include "error_text.h"
#include "public_keys.h"

#include <algorithm>

namespace veltra {
namespace {

constexpr std::size_t kLongestRsaData = 512; // RSA 4096

[[noreturn]] void unsupported(const std::string& what) {
    throw CommandError("CryptoAPI has no " + what + "; --cng does", kExitUsage);
}

Bytes reversed(Bytes bytes) {
    std::ranges::reverse(bytes);
    return bytes;
}

class CryptoApiKey : public TokenKey {
public:
    /// Without `key`, it is the container's own key, which is opened when it is needed: signing does not need
    /// it, and reports in its own way that the container has none.
    explicit CryptoApiKey(CryptoProvider context, CryptoKey key = CryptoKey())
        : context_(std::move(context)), key_(std::move(key)) {}

    [[nodiscard]] KeyDescription describe() const override { return CryptoProvider::describe(key()); }

    [[nodiscard]] Bytes publicKeyInfo() const override { return exportPublicKeyInfo(context_); }

    [[nodiscard]] Bytes sign(const SignatureScheme& scheme, const Pieces& data) const override {
        const CryptoHash hash = hashOf(scheme, data);
        return reversed(askTwice([&](BYTE* signature, DWORD* length) {
            require(CryptSignHashW(hash.get(), AT_SIGNATURE, nullptr, 0, signature, length),
                    "could not sign the file");
        }));
    }

    [[nodiscard]] bool verify(const SignatureScheme& scheme, const Pieces& data,
                              const Bytes& signature) const override {
        const CryptoHash hash = hashOf(scheme, data);
        const Bytes littleEndian = reversed(signature);
        return verdict(CryptVerifySignatureW(hash.get(), littleEndian.data(),
                                             static_cast<DWORD>(littleEndian.size()), key().get(), nullptr,
                                             0),
                       "could not check the signature");
    }

    [[nodiscard]] Bytes encrypt(const EncryptionScheme& scheme, const Bytes& plaintext) const override {
        Bytes data = plaintext;
        auto length = static_cast<DWORD>(data.size());
        data.resize(std::max(kLongestRsaData, data.size()));
        require(CryptEncrypt(key().get(), 0, TRUE, paddingFlag(scheme), data.data(), &length,
                             static_cast<DWORD>(data.size())),
                kCannotEncrypt);
        data.resize(length);
        return reversed(std::move(data));
    }

    [[nodiscard]] Bytes decrypt(const EncryptionScheme& scheme, const Bytes& ciphertext) const override {
        Bytes data = reversed(ciphertext);
        auto length = static_cast<DWORD>(data.size());
        require(CryptDecrypt(key().get(), 0, TRUE, paddingFlag(scheme), data.data(), &length),
                "could not decrypt the file");
        data.resize(length);
        return data;
    }

    [[nodiscard]] std::optional<Bytes> certificate() const override {
        return CryptoProvider::certificateOf(key());
    }

    void storeCertificate(const CERT_CONTEXT& certificate) const override {
        require(CryptSetKeyParam(key().get(), KP_CERTIFICATE, certificate.pbCertEncoded, 0),
                "could not store the certificate on the token");
    }

private:
    [[nodiscard]] const CryptoKey& key() const {
        if (key_.get() == 0) key_ = context_.ownKey();
        return key_;
    }

    [[nodiscard]] CryptoHash hashOf(const SignatureScheme& scheme, const Pieces& data) const {
        if (scheme.padding == SignaturePadding::Pss) unsupported("PSS signatures");
        CryptoHash hash = context_.createHash(*scheme.hash);
        data([&](std::span<const unsigned char> piece) { hashPiece(hash, piece); });
        return hash;
    }

    static DWORD paddingFlag(const EncryptionScheme& scheme) {
        if (scheme.oaepHash == nullptr) return 0;
        if (scheme.oaepHash->id != CALG_SHA1) unsupported("OAEP with another hash algorithm than sha1");
        return CRYPT_OAEP;
    }

    CryptoProvider context_;
    mutable CryptoKey key_;
};

class CryptoApi : public TokenInterface {
public:
    explicit CryptoApi(ProviderChoice choice) : choice_(std::move(choice)) {}

    [[nodiscard]] std::vector<std::string> keyIds() const override {
        return CryptoProvider::openToken(choice_).containerNames();
    }

    [[nodiscard]] std::unique_ptr<TokenKey> openKey(const std::wstring& container) const override {
        return std::make_unique<CryptoApiKey>(CryptoProvider::open(choice_, container));
    }

    [[nodiscard]] std::unique_ptr<TokenKey> openKeyForUse(const std::wstring& container) const override {
        return std::make_unique<CryptoApiKey>(CryptoProvider::openForUse(choice_, container));
    }

    [[nodiscard]] std::unique_ptr<TokenKey> findKey(const std::wstring& keyId) const override {
        // The identifier is a container name too, and one that finds the key on whichever token has it.
        CryptoProvider context = CryptoProvider::open(choice_, keyId);
        std::optional<CryptoKey> key = context.findOwnKey();
        return key ? std::make_unique<CryptoApiKey>(std::move(context), std::move(*key)) : nullptr;
    }

    // In the system's software provider, which needs no token.
    [[nodiscard]] std::unique_ptr<TokenKey> publicKey(const Bytes& publicKeyInfo) const override {
        CryptoProvider context = CryptoProvider::openSystem();
        DecodedPublicKeyInfo info(publicKeyInfo);
        if (std::string_view(info.get()->Algorithm.pszObjId) != szOID_RSA_RSA) {
            unsupported("public keys but those of RSA");
        }
        HCRYPTKEY key = 0;
        require(CryptImportPublicKeyInfo(context.handle(), X509_ASN_ENCODING, info.get(), &key),
                "could not use the public key");
        return std::make_unique<CryptoApiKey>(std::move(context), CryptoKey(key));
    }

private:
    ProviderChoice choice_;
};

} // namespace

std::unique_ptr<TokenInterface> openCryptoApi(const ProviderChoice& choice) {
    return std::make_unique<CryptoApi>(choice);
}

} // namespace veltra
