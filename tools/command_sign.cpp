// veltra sign: a detached CMS message or a bare signature over a file.

#include "commands.h"

#include "certificates.h"
#include "ecdsa_signature.h"
#include "error_text.h"
#include "files.h"
#include "signed_structures.h"
#include "token_key.h"
#include "wide_text.h"

namespace veltra {
namespace {

/// A detached CMS message (RFC 5652) in DER with the certificate inside. Signed attributes: content type,
/// message digest and signing time; the platform adds the first two once there is any.
Bytes platformSignature(const CryptoProvider& context, const CERT_CONTEXT& certificate,
                        const SignOptions& options) {
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    Bytes time = encodedTime(now);
    CRYPT_ATTR_BLOB timeBlob{static_cast<DWORD>(time.size()), time.data()};
    char timeIdentifier[] = szOID_RSA_signingTime;
    CRYPT_ATTRIBUTE timeAttribute{timeIdentifier, 1, &timeBlob};

    std::string hashIdentifier = options.scheme.hash->objectIdentifier;
    CMSG_SIGNER_ENCODE_INFO signer{};
    signer.cbSize = sizeof signer;
    signer.pCertInfo = certificate.pCertInfo;
    signer.hCryptProv = context.handle();
    signer.dwKeySpec = AT_SIGNATURE;
    signer.HashAlgorithm.pszObjId = hashIdentifier.data();
    if (options.attributes) {
        signer.cAuthAttr = 1;
        signer.rgAuthAttr = &timeAttribute;
    }

    CERT_BLOB certificateBlob{certificate.cbCertEncoded, certificate.pbCertEncoded};
    CMSG_SIGNED_ENCODE_INFO info{};
    info.cbSize = sizeof info;
    info.cSigners = 1;
    info.rgSigners = &signer;
    info.cCertEncoded = 1;
    info.rgCertEncoded = &certificateBlob;

    const UniqueMessage message(
        CryptMsgOpenToEncode(kMessageEncoding, CMSG_DETACHED_FLAG, CMSG_SIGNED, &info, nullptr, nullptr));
    require(message != nullptr, "could not start the signed message");
    readInPieces(options.file, [&](std::span<const unsigned char> piece) {
        require(CryptMsgUpdate(message.get(), piece.data(), static_cast<DWORD>(piece.size()), FALSE),
                "could not hash the file");
    });
    require(CryptMsgUpdate(message.get(), nullptr, 0, TRUE), "could not sign the message");
    return askTwice([&](BYTE* encoded, DWORD* length) {
        require(CryptMsgGetParam(message.get(), CMSG_CONTENT_PARAM, 0, encoded, length),
                "could not sign the message");
    });
}

Bytes cmsSignature(const ProviderChoice& provider, const SignOptions& options) {
    const UniqueCertificate certificate = loadCertificate(options.certificate);
    const auto tokens = TokenInterface::open(provider);
    requireSameKey(*tokens->openKey(options.container), *certificate);
    if (provider.cng) {
        return detachedSignature(*tokens->openKeyForUse(options.container), *certificate,
                                 *options.scheme.hash, piecesOf(options.file), options.attributes);
    }
    return platformSignature(CryptoProvider::openForUse(provider, options.container), *certificate, options);
}

Bytes rawSignature(const ProviderChoice& provider, const SignOptions& options) {
    const auto tokens = TokenInterface::open(provider);
    const auto key = tokens->openKeyForUse(options.container);
    if (options.der && key->describe().algorithm == "RSA") {
        throw CommandError("--der is for EC keys", kExitUsage);
    }
    const Bytes signature = key->sign(options.scheme, piecesOf(options.file));
    return options.der ? ecdsaSignatureAsDer(signature) : signature;
}

} // namespace

int signFile(const ProviderChoice& provider, const SignOptions& options, Output& out) {
    requireDifferentFiles(options.file, options.out);
    const Bytes signature = options.raw ? rawSignature(provider, options) : cmsSignature(provider, options);
    replaceFile(options.out, signature);
    const std::string file = toUtf8(options.out.native());
    out.result("Signed with container " + inQuotes(options.container) + ": " + file, {{"file", file}});
    return kExitOk;
}

} // namespace veltra
