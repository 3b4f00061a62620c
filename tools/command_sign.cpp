// veltra sign: a detached CMS message or a bare signature over a file.

#include "commands.h"

#include "certificates.h"
#include "error_text.h"
#include "files.h"
#include "wide_text.h"

#include <algorithm>
#include <iostream>

namespace veltra {
namespace {

/// The DER form of the present time for the signing-time attribute.
std::vector<BYTE> encodedSigningTime() {
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    return askTwice([&](BYTE* encoded, DWORD* length) {
        require(CryptEncodeObject(X509_ASN_ENCODING, X509_CHOICE_OF_TIME, &now, encoded, length),
                "could not encode the signing time");
    });
}

/// A detached CMS message (RFC 5652) in DER with the certificate inside. Signed attributes: content type,
/// message digest and signing time; the platform adds the first two once there is any.
std::vector<BYTE> cmsSignature(const CryptoProvider& context, const SignOptions& options) {
    const UniqueCertificate certificate = loadCertificate(options.certificate);
    requireSameKey(context, *certificate);

    std::vector<BYTE> time = encodedSigningTime();
    CRYPT_ATTR_BLOB timeBlob{static_cast<DWORD>(time.size()), time.data()};
    char timeIdentifier[] = szOID_RSA_signingTime;
    CRYPT_ATTRIBUTE timeAttribute{timeIdentifier, 1, &timeBlob};

    std::string hashIdentifier = options.hash->objectIdentifier;
    CMSG_SIGNER_ENCODE_INFO signer{};
    signer.cbSize = sizeof signer;
    signer.pCertInfo = certificate->pCertInfo;
    signer.hCryptProv = context.handle();
    signer.dwKeySpec = AT_SIGNATURE;
    signer.HashAlgorithm.pszObjId = hashIdentifier.data();
    if (options.attributes) {
        signer.cAuthAttr = 1;
        signer.rgAuthAttr = &timeAttribute;
    }

    CERT_BLOB certificateBlob{certificate->cbCertEncoded, certificate->pbCertEncoded};
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

/// The bare signature, big-endian as other software writes it; CryptoAPI's own order is little-endian.
std::vector<BYTE> rawSignature(const CryptoProvider& context, const SignOptions& options) {
    const CryptoHash hash = context.createHash(*options.hash);
    readInPieces(options.file, [&](std::span<const unsigned char> piece) { hashPiece(hash, piece); });
    std::vector<BYTE> signature = askTwice([&](BYTE* data, DWORD* length) {
        require(CryptSignHashW(hash.get(), AT_SIGNATURE, nullptr, 0, data, length),
                "could not sign the file");
    });
    std::ranges::reverse(signature);
    return signature;
}

} // namespace

int signFile(const ProviderChoice& provider, const SignOptions& options) {
    requireDifferentFiles(options.file, options.out);
    const CryptoProvider context = CryptoProvider::openForUse(provider, options.container);
    const std::vector<BYTE> signature =
        options.raw ? rawSignature(context, options) : cmsSignature(context, options);
    replaceFile(options.out, signature);
    std::cout << "Signed with container " << inQuotes(options.container) << ": "
              << toUtf8(options.out.native()) << '\n';
    return kExitOk;
}

} // namespace veltra
