// veltra verify: checks a detached CMS message or a bare signature over a file.

#include "commands.h"

#include "certificates.h"
#include "ecdsa_signature.h"
#include "error_text.h"
#include "files.h"
#include "installation.h"
#include "public_keys.h"
#include "token_key.h"
#include "wide_text.h"

#include <algorithm>

namespace veltra {
namespace {

constexpr std::size_t kSignatureFileLimit = std::size_t{16} * 1024 * 1024;
constexpr std::size_t kSignedFileLimit = std::size_t{1024} * 1024 * 1024;

int reportBadSignature(const std::string& why, Output& out) {
    out.result("The signature does NOT verify: " + why, {{"verified", false}, {"reason", why}});
    return kExitBadSignature;
}

DWORD messageNumber(HCRYPTMSG message, DWORD parameter) {
    DWORD value = 0;
    DWORD length = sizeof value;
    require(CryptMsgGetParam(message, parameter, 0, &value, &length), "could not read the signed message");
    return value;
}

/// Opens a detached message and feeds it the file.
UniqueMessage decodeMessage(const VerifyOptions& options) {
    const std::vector<unsigned char> encoded = readSmallFile(options.signature, kSignatureFileLimit);
    UniqueMessage message(CryptMsgOpenToDecode(kMessageEncoding, CMSG_DETACHED_FLAG, 0, 0, nullptr, nullptr));
    require(message != nullptr, "could not start decoding");
    require(CryptMsgUpdate(message.get(), encoded.data(), static_cast<DWORD>(encoded.size()), TRUE),
            "the signature file is not a CMS message in DER");
    if (messageNumber(message.get(), CMSG_TYPE_PARAM) != CMSG_SIGNED) {
        throw CommandError("the signature file is a CMS message, but not a signed one");
    }
    // Not every platform takes the content of a detached message in several pieces.
    const std::vector<unsigned char> content = readSmallFile(options.file, kSignedFileLimit);
    require(CryptMsgUpdate(message.get(), content.data(), static_cast<DWORD>(content.size()), TRUE),
            "could not hash the file");
    return message;
}

/// The certificates that a signer may have: the given one alone, or those in the message.
UniqueStore signerCertificates(HCRYPTMSG message, const std::filesystem::path& given) {
    if (given.empty()) {
        return UniqueStore(CertOpenStore(CERT_STORE_PROV_MSG, kMessageEncoding, 0, 0, message));
    }
    UniqueStore store(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, CERT_STORE_CREATE_NEW_FLAG, nullptr));
    const UniqueCertificate certificate = loadCertificate(given);
    require(store && CertAddCertificateContextToStore(store.get(), certificate.get(), CERT_STORE_ADD_ALWAYS,
                                                      nullptr),
            "could not keep the certificate");
    return store;
}

/// A parameter of the `index`th signer, as a platform structure of type `Info` with what it points to behind
/// it.
template <class Info>
class SignerParameter {
public:
    SignerParameter(HCRYPTMSG message, DWORD parameter, DWORD index) {
        require(CryptMsgGetParam(message, parameter, index, nullptr, &length_), kCannotReadSigner);
        buffer_.resize(length_ / sizeof(std::max_align_t) + 1);
        require(CryptMsgGetParam(message, parameter, index, buffer_.data(), &length_), kCannotReadSigner);
    }

    Info* get() { return reinterpret_cast<Info*>(buffer_.data()); }
    [[nodiscard]] DWORD length() const { return length_; }

private:
    static constexpr const char* kCannotReadSigner = "could not read the signer";

    std::vector<std::max_align_t> buffer_;
    DWORD length_ = 0;
};

/// The certificate that the `index`th signer names, from `store`; null if it is not there.
UniqueCertificate signerCertificate(HCRYPTMSG message, DWORD index, HCERTSTORE store) {
    SignerParameter<CERT_INFO> name(message, CMSG_SIGNER_CERT_INFO_PARAM, index);
    return UniqueCertificate(CertGetSubjectCertificateFromStore(store, kMessageEncoding, name.get()));
}

/// The content of a DER octet string.
std::vector<BYTE> decodeOctetString(const CRYPT_ATTR_BLOB& encoded) {
    const auto decode = [&](void* decoded, DWORD* length) {
        require(CryptDecodeObject(X509_ASN_ENCODING, X509_OCTET_STRING, encoded.pbData, encoded.cbData, 0,
                                  decoded, length),
                "the message digest in the message is damaged");
    };
    DWORD length = 0;
    decode(nullptr, &length);
    std::vector<std::max_align_t> buffer(length / sizeof(std::max_align_t) + 1);
    decode(buffer.data(), &length);
    const auto* octets = reinterpret_cast<const CRYPT_DATA_BLOB*>(buffer.data());
    return {octets->pbData, octets->pbData + octets->cbData};
}

/// With signed attributes the signature covers the attributes, and one of them holds the digest of the
/// content (RFC 5652, 5.4). Not every platform compares that digest when it checks the signature.
bool digestMatchesContent(HCRYPTMSG message, DWORD index) {
    DWORD length = 0;
    if (!CryptMsgGetParam(message, CMSG_SIGNER_AUTH_ATTR_PARAM, index, nullptr, &length) &&
        GetLastError() == static_cast<DWORD>(CRYPT_E_ATTRIBUTES_MISSING)) {
        return true;
    }
    SignerParameter<CRYPT_ATTRIBUTES> attributes(message, CMSG_SIGNER_AUTH_ATTR_PARAM, index);
    if (attributes.get()->cAttr == 0) {
        return true;
    }
    const CRYPT_ATTRIBUTE* digest =
        CertFindAttribute(szOID_RSA_messageDigest, attributes.get()->cAttr, attributes.get()->rgAttr);
    if (digest == nullptr || digest->cValue != 1) {
        return false;
    }
    SignerParameter<BYTE> computed(message, CMSG_COMPUTED_HASH_PARAM, index);
    return std::ranges::equal(decodeOctetString(digest->rgValue[0]),
                              std::span(computed.get(), computed.length()));
}

/// Wine 8 leaves the signed attributes out of the hash when there is no content.
void requireContent(const std::filesystem::path& file) {
    std::error_code ignored;
    if (std::filesystem::file_size(file, ignored) == 0 && platformName().starts_with("Wine")) {
        throw CommandError("Wine cannot check a message over an empty file; OpenSSL can");
    }
}

/// Every signer has to verify; with a given certificate, every signer that it belongs to, and at least one.
int verifyCms(const VerifyOptions& options, Output& out) {
    const UniqueMessage message = decodeMessage(options);
    const UniqueStore store = signerCertificates(message.get(), options.certificate);
    require(store != nullptr, "could not open the certificates of the message");

    std::vector<std::string> signers;
    const DWORD signerCount = messageNumber(message.get(), CMSG_SIGNER_COUNT_PARAM);
    for (DWORD index = 0; index < signerCount; ++index) {
        const UniqueCertificate certificate = signerCertificate(message.get(), index, store.get());
        if (!certificate) {
            if (options.certificate.empty()) {
                throw CommandError("the message lacks a signer's certificate; give it with --certificate");
            }
            continue;
        }
        // CMSG_CTRL_VERIFY_SIGNATURE takes the certificate's information as a pointer to non-const.
        CERT_INFO signer = *certificate->pCertInfo;
        if (!verdict(CryptMsgControl(message.get(), 0, CMSG_CTRL_VERIFY_SIGNATURE, &signer),
                     "could not check the signature") ||
            !digestMatchesContent(message.get(), index)) {
            requireContent(options.file);
            return reportBadSignature("the file or the message was changed, or another key signed.", out);
        }
        signers.push_back(nameText(certificate->pCertInfo->Subject));
    }
    if (signers.empty()) {
        return reportBadSignature("the message has no signer with this certificate.", out);
    }
    for (const std::string& signer : signers) {
        out.say("Good signature by " + printable(signer) + ".");
    }
    if (options.certificate.empty()) {
        out.say("The certificate came with the message; whether to trust it was not checked.");
    }
    out.set("verified", true);
    out.set("signers", signers);
    out.set("certificateGiven", !options.certificate.empty());
    return kExitOk;
}

int verifyRaw(const ProviderChoice& provider, const VerifyOptions& options, Output& out) {
    const auto tokens = TokenInterface::open(provider);
    const std::unique_ptr<TokenKey> key = options.certificate.empty()
                                              ? tokens->openKey(options.container)
                                              : tokens->publicKey(loadPublicKeyInfo(options.certificate));
    Bytes signature = readSmallFile(options.signature, kSignatureFileLimit);
    if (signature.empty()) return reportBadSignature("its file is empty.", out);
    if (options.der) {
        signature = ecdsaSignatureFromDer(signature, key->describe().bits);
    }
    if (!key->verify(options.scheme, piecesOf(options.file), signature)) {
        return reportBadSignature("the file or the signature was changed, or another key or hash was used.",
                                  out);
    }
    out.result("Good signature.", {{"verified", true}});
    return kExitOk;
}

} // namespace

int verifyFile(const ProviderChoice& provider, const VerifyOptions& options, Output& out) {
    return options.raw ? verifyRaw(provider, options, out) : verifyCms(options, out);
}

} // namespace veltra
