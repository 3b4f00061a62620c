// KSPExportKey: the public half of a key as a blob. Nothing else leaves the token.

#include "certs/public_key_blob.h"
#include "certs/public_key_encoding.h"
#include "foundation/wide_text.h"
#include "ksp/entry_guard.h"
#include "ksp/key_blobs.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_provider.h"
#include "ksp/property_value.h"
#include "token/key_pairs.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace veltra {

namespace {

constexpr std::array<unsigned char, 3> kPublicExponent = {0x01, 0x00, 0x01};

/// A blob: its structure and what follows it.
template <class Header>
Bytes blobOf(const Header& header, std::initializer_list<std::span<const unsigned char>> parts) {
    Bytes blob(sizeof(header));
    std::memcpy(blob.data(), &header, sizeof(header));
    for (const auto& part : parts)
        blob.insert(blob.end(), part.begin(), part.end());
    return blob;
}

SECURITY_STATUS answerBlob(const PropertyOutput& out, const Bytes& blob, const char* tooSmall) {
    const SECURITY_STATUS status = answerBytes(out, blob);
    if (status == NTE_BUFFER_TOO_SMALL) {
        return refuse(status, concat("KSPExportKey: ", tooSmall, ", required=", blob.size()));
    }
    return status;
}

// Whether the key is an RSA key is not asked: deliberate.
SECURITY_STATUS exportRsaPublicKey(const KSP_KEY& key, const PropertyOutput& out) {
    const std::span<const unsigned char> modulus = rsaModulusOf(key.publicKeyBytes());
    const BCRYPT_RSAKEY_BLOB header = {.Magic = BCRYPT_RSAPUBLIC_MAGIC,
                                       .BitLength = key.bitLength,
                                       .cbPublicExp = static_cast<ULONG>(kPublicExponent.size()),
                                       .cbModulus = static_cast<ULONG>(modulus.size()),
                                       .cbPrime1 = 0,
                                       .cbPrime2 = 0};
    const SECURITY_STATUS status = answerBlob(out, blobOf(header, {kPublicExponent, modulus}),
                                              "BCRYPT_RSAPUBLIC_BLOB output buffer too small");
    if (status == kSuccess && out.data != nullptr) {
        Utils::debug("KSP: Public key exported, bits=", key.bitLength);
    }
    return status;
}

SECURITY_STATUS exportLegacyRsaPublicKey(const KSP_KEY& key, const PropertyOutput& out) {
    return answerBlob(out, makePublicKeyBlob(rsaModulusOf(key.publicKeyBytes()), CALG_RSA_KEYX),
                      "LEGACY_RSAPUBLIC_BLOB output buffer too small");
}

SECURITY_STATUS exportEcPublicKey(const KSP_KEY& key, const PropertyOutput& out) {
    Utils::debug("Enter to the BCRYPT_ECCPUBLIC_BLOB");
    if (!isEcKeyType(key.keyType)) return refuse(NTE_NOT_SUPPORTED, "KSPExportKey: key is not ECC");
    const std::span<const unsigned char> point = key.publicKeyBytes();
    if (point.empty() || point.front() != kUncompressedPoint) {
        return refuse(NTE_BAD_KEY, "KSPExportKey: ECC public key not available or invalid format");
    }
    const std::size_t coordinateLength = (point.size() - 1) / 2;
    const BCRYPT_ECCKEY_BLOB header = {.dwMagic = ecBlobMagic(key.keyType, key.keyUsage),
                                       .cbKey = static_cast<ULONG>(coordinateLength)};
    const SECURITY_STATUS status = answerBlob(out, blobOf(header, {point.subspan(1, 2 * coordinateLength)}),
                                              "BCRYPT_ECCPUBLIC_BLOB buffer too small");
    if (status == kSuccess && out.data != nullptr) {
        Utils::debug("KSPExportKey: ECC public key exported, cbKey=", coordinateLength);
    }
    return status;
}

struct BlobType {
    std::string_view name;
    SECURITY_STATUS (*exportKey)(const KSP_KEY&, const PropertyOutput&);
};

constexpr std::array<BlobType, 4> kBlobTypes = {{
    {kRsaPublicBlob, exportRsaPublicKey},
    {kPublicBlob, exportRsaPublicKey},
    {kLegacyRsaPublicBlob, exportLegacyRsaPublicKey},
    {kEccPublicBlob, exportEcPublicKey},
}};

const BlobType* findBlobType(std::string_view name) {
    for (const BlobType& row : kBlobTypes) {
        if (row.name == name) return &row;
    }
    return nullptr;
}

// A key object that came without its public key takes it from the token's key pair. One without an identifier
// has none there: its identifier is zeros, which name nothing.
void completePublicKey(const KSP_PROVIDER& provider, KSP_KEY& key) {
    if (key.publicKeyLength != 0 || key.credentialIdLength == 0) return;
    const std::vector<VeltraKeyPair> pairs = keyPairsOf(provider.serial(), provider.libraryContext);
    if (const VeltraKeyPair* pair = findKeyPair(pairs, key.credentialId)) {
        key.setPublicKey({pair->publicKey, pair->publicKeyLength});
    }
}

SECURITY_STATUS exportKey(const KSP_PROVIDER& provider, KSP_KEY& key, const std::string& type,
                          const PropertyOutput& out) {
    if (type == kPrivateBlob || type == kLegacyRsaPrivateBlob) {
        return refuse(NTE_NOT_SUPPORTED, "KSPExportKey: private key export not supported");
    }
    const BlobType* known = findBlobType(type);
    if (known == nullptr) return refuse(NTE_NOT_SUPPORTED, "KSP: Unsupported blob type for export");
    completePublicKey(provider, key);
    if (key.publicKeyLength == 0) {
        return refuse(NTE_BAD_KEY, "KSP: No public key data available for export");
    }
    return known->exportKey(key, out);
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPExportKey(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, NCRYPT_KEY_HANDLE,
                                    LPCWSTR pszBlobType, NCryptBufferDesc*, PBYTE pbOutput, DWORD cbOutput,
                                    DWORD* pcbResult, DWORD) {
    return kspEntry("KSPExportKey", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPExportKey");
        const auto key = liveKspKey(hKey);
        if (key == nullptr || pszBlobType == nullptr || pcbResult == nullptr) {
            return refuse(NTE_INVALID_PARAMETER,
                          "KSPExportKey: key handle, pszBlobType, or pcbResult is null");
        }
        return exportKey(*provider, *key, fromWide(pszBlobType),
                         {.data = pbOutput, .capacity = cbOutput, .size = pcbResult});
    });
}
