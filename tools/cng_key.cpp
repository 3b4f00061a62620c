// The token's keys through the functions of the key storage provider.

#include "token_key.h"

#include "error_text.h"
#include "key_storage.h"
#include "public_keys.h"
#include "wide_text.h"

namespace veltra {
namespace {

/// The bytes of a two-step call of the provider: `call(output, capacity, length)` returns its status.
template <class Call>
Bytes askStorage(const Call& call, const char* what) {
    return askTwice([&](BYTE* output, DWORD* length) {
        const DWORD capacity = *length;
        requireStatus(call(output, capacity, length), what);
    });
}

class CngKey : public TokenKey {
public:
    CngKey(std::shared_ptr<const KeyStorage> storage, StorageHandle key)
        : storage_(std::move(storage)), key_(std::move(key)) {}

    [[nodiscard]] KeyDescription describe() const override { return storage_->describe(key_); }

    [[nodiscard]] Bytes publicKeyInfo() const override { return exportPublicKeyInfo(*storage_, key_); }

    [[nodiscard]] Bytes sign(const SignatureScheme& scheme, const Pieces& data) const override {
        Bytes digest = digestOf(scheme, data);
        Padding padding(*this, scheme);
        return askStorage(
            [&](BYTE* signature, DWORD capacity, DWORD* length) {
                return storage_->functions().SignHash(storage_->handle(), key_.get(), padding.info(),
                                                      digest.data(), static_cast<DWORD>(digest.size()),
                                                      signature, capacity, length,
                                                      padding.flags() | storage_->silentFlag());
            },
            "could not sign the file");
    }

    [[nodiscard]] bool verify(const SignatureScheme& scheme, const Pieces& data,
                              const Bytes& signature) const override {
        Bytes digest = digestOf(scheme, data);
        Bytes copy = signature;
        Padding padding(*this, scheme);
        const SECURITY_STATUS status = storage_->functions().VerifySignature(
            storage_->handle(), key_.get(), padding.info(), digest.data(), static_cast<DWORD>(digest.size()),
            copy.data(), static_cast<DWORD>(copy.size()), padding.flags());
        if (status == NTE_BAD_SIGNATURE) return false;
        requireStatus(status, "could not check the signature");
        return true;
    }

    [[nodiscard]] Bytes encrypt(const EncryptionScheme& scheme, const Bytes& plaintext) const override {
        return crypt(storage_->functions().Encrypt, scheme, plaintext, kCannotEncrypt);
    }

    [[nodiscard]] Bytes decrypt(const EncryptionScheme& scheme, const Bytes& ciphertext) const override {
        return crypt(storage_->functions().Decrypt, scheme, ciphertext, "could not decrypt the file");
    }

    [[nodiscard]] std::optional<Bytes> certificate() const override {
        DWORD length = 0;
        if (storage_->functions().GetKeyProperty(storage_->handle(), key_.get(), NCRYPT_CERTIFICATE_PROPERTY,
                                                 nullptr, 0, &length, 0) == NTE_NOT_FOUND) {
            return std::nullopt;
        }
        return storage_->property(key_, NCRYPT_CERTIFICATE_PROPERTY);
    }

    void storeCertificate(const CERT_CONTEXT& certificate) const override {
        requireStatus(storage_->functions().SetKeyProperty(
                          storage_->handle(), key_.get(), NCRYPT_CERTIFICATE_PROPERTY,
                          certificate.pbCertEncoded, certificate.cbCertEncoded, storage_->silentFlag()),
                      "could not store the certificate on the token");
    }

private:
    /// The padding information and flag of a signature; EC keys have neither.
    class Padding {
    public:
        Padding(const CngKey& key, const SignatureScheme& scheme)
            : isRsa_(key.storage_->text(key.key_, L"Algorithm Group") == "RSA"),
              isPss_(scheme.padding == SignaturePadding::Pss), pkcs1_{scheme.hash->cngName},
              pss_{scheme.hash->cngName, scheme.hash->length} {
            if (isPss_ && !isRsa_) throw CommandError("only RSA keys have PSS signatures", kExitUsage);
        }

        void* info() {
            if (!isRsa_) return nullptr;
            return isPss_ ? static_cast<void*>(&pss_) : static_cast<void*>(&pkcs1_);
        }
        [[nodiscard]] DWORD flags() const {
            if (!isRsa_) return 0;
            return isPss_ ? kPadPssFlag : kPadPkcs1Flag;
        }

    private:
        bool isRsa_;
        bool isPss_;
        BCRYPT_PKCS1_PADDING_INFO pkcs1_;
        BCRYPT_PSS_PADDING_INFO pss_;
    };

    // The provider takes hashes that the application made.
    static Bytes digestOf(const SignatureScheme& scheme, const Pieces& data) {
        const CryptoProvider system = CryptoProvider::openSystem();
        const CryptoHash hash = system.createHash(*scheme.hash);
        data([&](std::span<const unsigned char> piece) { hashPiece(hash, piece); });
        return hashValue(hash);
    }

    [[nodiscard]] Bytes crypt(decltype(&KSPEncrypt) function, const EncryptionScheme& scheme, Bytes input,
                              const char* what) const {
        BCRYPT_OAEP_PADDING_INFO oaep{scheme.oaepHash != nullptr ? scheme.oaepHash->cngName : nullptr,
                                      nullptr, 0};
        const bool isOaep = scheme.oaepHash != nullptr;
        return askStorage(
            [&](BYTE* output, DWORD capacity, DWORD* length) {
                return function(storage_->handle(), key_.get(), input.data(),
                                static_cast<DWORD>(input.size()), isOaep ? &oaep : nullptr, output, capacity,
                                length, (isOaep ? kPadOaepFlag : kPadPkcs1Flag) | storage_->silentFlag());
            },
            what);
    }

    std::shared_ptr<const KeyStorage> storage_;
    StorageHandle key_;
};

class Cng : public TokenInterface {
public:
    explicit Cng(const ProviderChoice& choice) : storage_(std::make_shared<const KeyStorage>(choice)) {}

    [[nodiscard]] std::vector<std::string> keyIds() const override { return storage_->keyNames(); }

    [[nodiscard]] std::unique_ptr<TokenKey> openKey(const std::wstring& container) const override {
        return keyOf(storage_->openKey(container));
    }

    // The PIN comes after the key, by which the provider finds the key's token.
    [[nodiscard]] std::unique_ptr<TokenKey> openKeyForUse(const std::wstring& container) const override {
        StorageHandle key = storage_->openKey(container);
        storage_->givePin();
        return keyOf(std::move(key));
    }

    [[nodiscard]] std::unique_ptr<TokenKey> findKey(const std::wstring& keyId) const override {
        std::optional<StorageHandle> key = storage_->findKey(keyId);
        return key ? keyOf(std::move(*key)) : nullptr;
    }

    [[nodiscard]] std::unique_ptr<TokenKey> publicKey(const Bytes& publicKeyInfo) const override {
        PublicKeyBlob blob = publicKeyBlob(publicKeyInfo, KeyUse::Sign);
        return keyOf(storage_->importKey(blob.type, std::move(blob.bytes)));
    }

private:
    [[nodiscard]] std::unique_ptr<TokenKey> keyOf(StorageHandle key) const {
        return std::make_unique<CngKey>(storage_, std::move(key));
    }

    std::shared_ptr<const KeyStorage> storage_;
};

} // namespace

std::unique_ptr<TokenInterface> openCng(const ProviderChoice& choice) {
    return std::make_unique<Cng>(choice);
}

} // namespace veltra
