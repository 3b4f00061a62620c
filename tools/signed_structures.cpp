#include "signed_structures.h"

#include "der_identifiers.h"
#include "ecdsa_signature.h"
#include "error_text.h"

#include "certs/der_writer.h"

#include <algorithm>
#include <array>

namespace veltra {
namespace {

constexpr std::array<unsigned char, 1> kVersion1 = {1};
constexpr std::array<unsigned char, 1> kVersion3 = {2}; // of a certificate, counted from 0
constexpr std::array<unsigned char, 1> kNoUnusedBits = {0};
constexpr DWORD kSerialNumberLength = 16;

Bytes view(const CRYPT_INTEGER_BLOB& blob) {
    return {blob.pbData, blob.pbData + blob.cbData};
}

/// [0] IMPLICIT instead of the tag of a SET: the content stays as it is.
Bytes implicit0(Bytes set) {
    set.front() = static_cast<unsigned char>(DerTag::Context0);
    return set;
}

Bytes signatureAlgorithm(const TokenKey& key, const HashAlgorithm& hash) {
    return key.describe().algorithm == "RSA"
               ? derAlgorithmIdentifier(hash.rsaSignatureIdentifier, AlgorithmParameters::Null)
               : derAlgorithmIdentifier(hash.ecdsaSignatureIdentifier, AlgorithmParameters::Absent);
}

Bytes signatureOver(const TokenKey& key, const HashAlgorithm& hash, const Pieces& data) {
    Bytes signature = key.sign({&hash, SignaturePadding::Pkcs1}, data);
    return key.describe().algorithm == "RSA" ? signature : ecdsaSignatureAsDer(signature);
}

Pieces onePiece(const Bytes& bytes) {
    return [&bytes](const auto& consume) { consume(bytes); };
}

Bytes attribute(const char* type, const Bytes& value) {
    return derElement(DerTag::Sequence, {derObjectIdentifier(type), derElement(DerTag::Set, {value})});
}

/// SET OF in DER: the elements sorted by their encodings (X.690, 11.6).
Bytes signedAttributes(const HashAlgorithm& hash, const Pieces& data) {
    const CryptoProvider system = CryptoProvider::openSystem();
    const CryptoHash content = system.createHash(hash);
    data([&](std::span<const unsigned char> piece) { hashPiece(content, piece); });
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    std::array attributes = {
        attribute(szOID_RSA_contentType, derObjectIdentifier(szOID_RSA_data)),
        attribute(szOID_RSA_messageDigest, derElement(DerTag::OctetString, {hashValue(content)})),
        attribute(szOID_RSA_signingTime, encodedTime(now)),
    };
    std::ranges::sort(attributes);
    return derElement(DerTag::Set, {attributes[0], attributes[1], attributes[2]});
}

} // namespace

Bytes encodedTime(const FILETIME& time) {
    return askTwice([&](BYTE* encoded, DWORD* length) {
        require(CryptEncodeObject(X509_ASN_ENCODING, X509_CHOICE_OF_TIME, &time, encoded, length),
                "could not encode the time");
    });
}

Bytes detachedSignature(const TokenKey& key, const CERT_CONTEXT& certificate, const HashAlgorithm& hash,
                        const Pieces& data, bool withAttributes) {
    const Bytes attributes = withAttributes ? signedAttributes(hash, data) : Bytes();
    const Bytes signature = signatureOver(key, hash, withAttributes ? onePiece(attributes) : data);
    const Bytes digestAlgorithm = derAlgorithmIdentifier(hash.objectIdentifier, AlgorithmParameters::Absent);
    const Bytes version = derElement(DerTag::Integer, {kVersion1});
    Bytes serialNumber = view(certificate.pCertInfo->SerialNumber);
    std::ranges::reverse(serialNumber); // the platform keeps it little-endian
    const Bytes signer = derElement(
        DerTag::Sequence, {version,
                           derElement(DerTag::Sequence, {view(certificate.pCertInfo->Issuer),
                                                         derElement(DerTag::Integer, {serialNumber})}),
                           digestAlgorithm, withAttributes ? implicit0(attributes) : Bytes(),
                           signatureAlgorithm(key, hash), derElement(DerTag::OctetString, {signature})});
    const Bytes certificates = {certificate.pbCertEncoded,
                                certificate.pbCertEncoded + certificate.cbCertEncoded};
    const Bytes signedData = derElement(
        DerTag::Sequence, {version, derElement(DerTag::Set, {digestAlgorithm}),
                           derElement(DerTag::Sequence, {derObjectIdentifier(szOID_RSA_data)}),
                           derElement(DerTag::Context0, {certificates}), derElement(DerTag::Set, {signer})});
    return derElement(DerTag::Sequence, {derObjectIdentifier(szOID_RSA_signedData),
                                         derElement(DerTag::Context0, {signedData})});
}

Bytes selfSignedCertificate(const TokenKey& key, const HashAlgorithm& hash, const Bytes& subject,
                            const SYSTEMTIME& start, const SYSTEMTIME& end) {
    const auto time = [](const SYSTEMTIME& systemTime) {
        FILETIME fileTime{};
        SystemTimeToFileTime(&systemTime, &fileTime);
        return encodedTime(fileTime);
    };
    Bytes serialNumber(kSerialNumberLength);
    require(CryptGenRandom(CryptoProvider::openSystem().handle(), kSerialNumberLength, serialNumber.data()),
            "could not make a serial number");
    serialNumber.front() = static_cast<unsigned char>((serialNumber.front() & 0x3F) | 0x40); // positive, DER
    const Bytes algorithm = signatureAlgorithm(key, hash);
    const Bytes toBeSigned =
        derElement(DerTag::Sequence,
                   {derElement(DerTag::Context0, {derElement(DerTag::Integer, {kVersion3})}),
                    derElement(DerTag::Integer, {serialNumber}), algorithm, subject,
                    derElement(DerTag::Sequence, {time(start), time(end)}), subject, key.publicKeyInfo()});
    const Bytes signature = signatureOver(key, hash, onePiece(toBeSigned));
    return derElement(DerTag::Sequence,
                      {toBeSigned, algorithm, derElement(DerTag::BitString, {kNoUnusedBits, signature})});
}

} // namespace veltra
