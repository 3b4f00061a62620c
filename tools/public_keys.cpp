#include "public_keys.h"

#include "certificates.h"
#include "der_identifiers.h"
#include "error_text.h"
#include "files.h"
#include "wide_text.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

namespace veltra {
namespace {

constexpr std::size_t kFileLimit = std::size_t{64} * 1024;
constexpr DWORD kRsaExponent = 65537;
constexpr BYTE kUncompressedPoint = 0x04;

constexpr std::array kCurves = {
    Curve{256, 32, szOID_ECC_CURVE_P256, BCRYPT_ECDSA_PUBLIC_P256_MAGIC, BCRYPT_ECDH_PUBLIC_P256_MAGIC},
    Curve{384, 48, szOID_ECC_CURVE_P384, BCRYPT_ECDSA_PUBLIC_P384_MAGIC, BCRYPT_ECDH_PUBLIC_P384_MAGIC},
    Curve{521, 66, szOID_ECC_CURVE_P521, BCRYPT_ECDSA_PUBLIC_P521_MAGIC, BCRYPT_ECDH_PUBLIC_P521_MAGIC},
};

/// DER of a platform structure.
std::vector<BYTE> encode(const char* structureType, const void* structure) {
    return askTwice([&](BYTE* encoded, DWORD* length) {
        require(CryptEncodeObject(X509_ASN_ENCODING, structureType, structure, encoded, length),
                "could not encode the public key");
    });
}

CERT_PUBLIC_KEY_INFO keyInfo(const char* algorithm, std::vector<BYTE>& parameters, std::vector<BYTE>& key) {
    CERT_PUBLIC_KEY_INFO info{};
    info.Algorithm.pszObjId = const_cast<char*>(algorithm); // only read
    info.Algorithm.Parameters = {static_cast<DWORD>(parameters.size()), parameters.data()};
    info.PublicKey = {static_cast<DWORD>(key.size()), key.data(), 0};
    return info;
}

std::vector<BYTE> ecPublicKeyInfo(const KeyStorage& storage, const StorageHandle& key) {
    const std::vector<BYTE> blob = storage.exportKey(key, BCRYPT_ECCPUBLIC_BLOB);
    const Curve* curve = findCurve(storage.number(key, NCRYPT_LENGTH_PROPERTY));
    if (curve == nullptr || blob.size() != sizeof(BCRYPT_ECCKEY_BLOB) + 2 * curve->fieldLength) {
        throw CommandError("the provider's public key has not the length that belongs to its curve");
    }
    std::vector<BYTE> point = {kUncompressedPoint};
    point.insert(point.end(), blob.begin() + sizeof(BCRYPT_ECCKEY_BLOB), blob.end());
    std::vector<BYTE> curveIdentifier = derObjectIdentifier(curve->objectIdentifier);
    return encodePublicKeyInfo(keyInfo(szOID_ECC_PUBLIC_KEY, curveIdentifier, point));
}

std::vector<BYTE> rsaPublicKeyInfo(const KeyStorage& storage, const StorageHandle& key) {
    const std::vector<BYTE> blob = storage.exportKey(key, LEGACY_RSAPUBLIC_BLOB);
    std::vector<BYTE> encodedKey = encode(RSA_CSP_PUBLICKEYBLOB, blob.data());
    std::vector<BYTE> null = {0x05, 0x00};
    return encodePublicKeyInfo(keyInfo(szOID_RSA_RSA, null, encodedKey));
}

PublicKeyBlob rsaBlob(const CRYPT_BIT_BLOB& key) {
    std::vector<BYTE> blob = askTwice([&](BYTE* decoded, DWORD* length) {
        require(CryptDecodeObject(X509_ASN_ENCODING, RSA_CSP_PUBLICKEYBLOB, key.pbData, key.cbData, 0,
                                  decoded, length),
                "the RSA public key is damaged");
    });
    RSAPUBKEY header{};
    if (blob.size() < sizeof(BLOBHEADER) + sizeof header) {
        throw CommandError("the RSA public key is damaged");
    }
    std::memcpy(&header, blob.data() + sizeof(BLOBHEADER), sizeof header);
    if (header.pubexp != kRsaExponent) {
        throw CommandError("the provider takes RSA public keys with the exponent 65537 only");
    }
    return {LEGACY_RSAPUBLIC_BLOB, std::move(blob)};
}

PublicKeyBlob ecBlob(const CERT_PUBLIC_KEY_INFO& info, KeyUse use) {
    const std::span parameters(info.Algorithm.Parameters.pbData, info.Algorithm.Parameters.cbData);
    const std::span point(info.PublicKey.pbData, info.PublicKey.cbData);
    const auto* curve = std::ranges::find_if(kCurves, [&](const Curve& candidate) {
        return std::ranges::equal(parameters, derObjectIdentifier(candidate.objectIdentifier));
    });
    if (curve == kCurves.end() || point.size() != 1 + 2 * curve->fieldLength ||
        point.front() != kUncompressedPoint) {
        throw CommandError("the EC public key is no uncompressed point on P-256, P-384 or P-521");
    }
    const BCRYPT_ECCKEY_BLOB header{use == KeyUse::Sign ? curve->signingMagic : curve->agreementMagic,
                                    static_cast<ULONG>(curve->fieldLength)};
    std::vector<BYTE> blob(sizeof header);
    std::memcpy(blob.data(), &header, sizeof header);
    blob.insert(blob.end(), point.begin() + 1, point.end());
    return {BCRYPT_ECCPUBLIC_BLOB, std::move(blob)};
}

/// The bytes that the file holds as PEM, or the file itself if it is none.
std::vector<BYTE> fromPem(const std::vector<unsigned char>& file) {
    std::vector<BYTE> der(file.size());
    auto length = static_cast<DWORD>(der.size());
    if (!CryptStringToBinaryA(reinterpret_cast<const char*>(file.data()), length, CRYPT_STRING_BASE64HEADER,
                              der.data(), &length, nullptr, nullptr)) {
        return file;
    }
    der.resize(length);
    return der;
}

} // namespace

const Curve* findCurve(DWORD bits) {
    const auto* found = std::ranges::find(kCurves, bits, &Curve::bits);
    return found != kCurves.end() ? found : nullptr;
}

DecodedPublicKeyInfo::DecodedPublicKeyInfo(const std::vector<BYTE>& der) {
    const auto decode = [&](void* decoded, DWORD* length) {
        require(CryptDecodeObject(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, der.data(),
                                  static_cast<DWORD>(der.size()), 0, decoded, length),
                "the public key is damaged");
    };
    DWORD length = 0;
    decode(nullptr, &length);
    buffer_.resize(length / sizeof(std::max_align_t) + 1);
    decode(buffer_.data(), &length);
}

std::vector<BYTE> encodePublicKeyInfo(const CERT_PUBLIC_KEY_INFO& info) {
    return encode(X509_PUBLIC_KEY_INFO, &info);
}

std::vector<BYTE> exportPublicKeyInfo(const CryptoProvider& context) {
    const auto exportKey = [&](void* info, DWORD* length) {
        require(CryptExportPublicKeyInfo(context.handle(), AT_SIGNATURE, X509_ASN_ENCODING,
                                         static_cast<CERT_PUBLIC_KEY_INFO*>(info), length),
                "could not read the container's public key");
    };
    DWORD length = 0;
    exportKey(nullptr, &length);
    std::vector<std::max_align_t> buffer(length / sizeof(std::max_align_t) + 1);
    exportKey(buffer.data(), &length);
    return encodePublicKeyInfo(*reinterpret_cast<const CERT_PUBLIC_KEY_INFO*>(buffer.data()));
}

std::vector<BYTE> exportPublicKeyInfo(const KeyStorage& storage, const StorageHandle& key) {
    return storage.text(key, L"Algorithm Group") == "RSA" ? rsaPublicKeyInfo(storage, key)
                                                          : ecPublicKeyInfo(storage, key);
}

PublicKeyBlob publicKeyBlob(const std::vector<BYTE>& publicKeyInfo, KeyUse use) {
    const DecodedPublicKeyInfo info(publicKeyInfo);
    const std::string_view algorithm = info.get()->Algorithm.pszObjId;
    if (algorithm == szOID_RSA_RSA) {
        return rsaBlob(info.get()->PublicKey);
    }
    if (algorithm == szOID_ECC_PUBLIC_KEY) {
        return ecBlob(*info.get(), use);
    }
    throw CommandError("the public key is neither RSA nor EC");
}

std::vector<BYTE> loadPublicKeyInfo(const std::filesystem::path& path) {
    std::vector<BYTE> der = fromPem(readSmallFile(path, kFileLimit));
    const UniqueCertificate certificate(
        CertCreateCertificateContext(X509_ASN_ENCODING, der.data(), static_cast<DWORD>(der.size())));
    if (certificate) {
        return encodePublicKeyInfo(certificate->pCertInfo->SubjectPublicKeyInfo);
    }
    try {
        const DecodedPublicKeyInfo readable(der);
    } catch (const CommandError&) {
        throw CommandError(inQuotes(path.native()) +
                           " is neither a certificate nor a public key, in PEM or DER");
    }
    return der;
}

void savePublicKeyInfo(const std::filesystem::path& path, const std::vector<BYTE>& publicKeyInfo) {
    std::vector<BYTE> lines = askTwice([&](BYTE* text, DWORD* length) {
        require(CryptBinaryToStringA(publicKeyInfo.data(), static_cast<DWORD>(publicKeyInfo.size()),
                                     CRYPT_STRING_BASE64, reinterpret_cast<char*>(text), length),
                "could not encode the public key as PEM");
    });
    std::erase(lines, BYTE{'\r'});
    std::erase(lines, BYTE{'\0'});
    std::string pem = "-----BEGIN PUBLIC KEY-----\n";
    pem.append(lines.begin(), lines.end()).append("-----END PUBLIC KEY-----\n");
    replaceFile(path, {reinterpret_cast<const unsigned char*>(pem.data()), pem.size()});
}

} // namespace veltra
