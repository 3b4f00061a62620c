// KSPSignHash and KSPVerifySignature. The padding structure is never read: the token works from the hash and
// its length. Signatures are big-endian, in CNG as on the token.

#include "certs/public_key_encoding.h"
#include "ksp/entry_guard.h"
#include "ksp/firmware_version.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_login.h"
#include "ksp/ksp_provider.h"
#include "token/key_operations.h"
#include "token/key_pairs.h"
#include "token/token_session.h"

#include <climits>
#include <cstdint>
#include <span>
#include <string>

namespace veltra {

namespace {

using Input = std::span<const unsigned char>;

// EC: r and s side by side. The length in bits may be any number that was set as a property.
DWORD signatureLengthOf(const KSP_KEY& key) {
    const std::uint64_t bits = key.bitLength;
    return static_cast<DWORD>(isEcKeyType(key.keyType) ? (bits + 7) >> 2 & ~std::uint64_t{1} : bits / 8);
}

const char* paddingName(bool pss) {
    return pss ? "PSS" : "PKCS1";
}

SECURITY_STATUS refuseOldFirmware(const char* entryPoint, const KSP_PROVIDER& provider) {
    return refuse(NTE_NOT_SUPPORTED,
                  concat(entryPoint, ": PSS not supported on firmware ", provider.firmwareVersion));
}

// RSA-1024 is too weak for every token. The token is read as for every rule of its policy, and what it says
// is dropped: this rule holds whatever the token is.
SECURITY_STATUS refuseWeakKey(const TokenKey& key) {
    if (!key.serial.empty()) readTokenInfo(key.serial, key.libraryContext);
    return refuse(NTE_NOT_SUPPORTED,
                  "KSPSignHash: RSA-1024 signing not allowed \xE2\x80\x94 key size below 112-bit "
                  "security strength");
}

// The library writes into the application's buffer. A signature is no secret: what a failing call left there
// stays.
SECURITY_STATUS signOnToken(const TokenKey& key, Input hash, bool pss, std::span<unsigned char> signature,
                            DWORD* signatureLength) {
    std::uint32_t length = 0;
    int code = kDeviceOk;
    const SECURITY_STATUS verifiedAgain = runWithPin(
        "KSPSignHash", key, "KSP: SignHash SSO expired, re-prompting for PIN",
        [&](const Pin& pin) { return signWithKey(key, pin, hash, pss, signature, length); }, code);
    if (verifiedAgain != kSuccess) return verifiedAgain;
    if (code == kDeviceWeakHashRefused) {
        return refuse(NTE_NOT_SUPPORTED, "KSPSignHash: SHA1/MD5 signing blocked on FIPS 140-3 token");
    }
    if (code != kDeviceOk) return refuse(NTE_INTERNAL_ERROR, concat("KSP: Sign hash failed: ", code));
    *signatureLength = length;
    Utils::debug("KSP: SignHash success, signature length=", length);
    return kSuccess;
}

SECURITY_STATUS signHash(const KSP_PROVIDER& provider, const KSP_KEY& key, Input hash, DWORD flags,
                         std::span<unsigned char> signature, DWORD* signatureLength) {
    const std::string serial = provider.serial();
    const TokenKey tokenKey{
        .serial = serial, .keyId = key.credentialId, .libraryContext = provider.libraryContext};
    if (const SECURITY_STATUS status = verifyUser("KSPSignHash", serial, provider.libraryContext, flags);
        status != kSuccess) {
        return status;
    }
    // With the flags of both paddings a signature is made with PKCS#1 but verified as PSS: deliberate.
    const bool pss = (flags & (kPadPkcs1Flag | kPadPssFlag)) == kPadPssFlag;
    Utils::debug("KSP: SignHash - padding=", paddingName(pss));
    if (pss && !isFirmware2OrNewer(provider.firmwareVersion)) {
        return refuseOldFirmware("KSPSignHash", provider);
    }
    Utils::debug("KSP: SignHash - credential: ", keyName(key.credentialId));
    Utils::debug("KSP: SignHash - hash length: ", hash.size());
    if (key.keyType == kKeyTypeRsa1024) return refuseWeakKey(tokenKey);
    return signOnToken(tokenKey, hash, pss, signature, signatureLength);
}

VerificationKey verificationKeyOf(const KSP_KEY& key) {
    const Input publicKey = key.publicKeyBytes();
    if (isEcKeyType(key.keyType)) {
        Utils::debug("KSP: ECC public key, passing raw EC point");
        return {.keyType = key.keyType, .bytes = {publicKey.begin(), publicKey.end()}};
    }
    return {.keyType = key.keyType,
            .bytes = rsaPublicKeyAsDer(
                publicKey, {.alreadyDer = "KSP: RSA Public key is already DER encoded",
                            .rawModulus = "KSP: RSA Public key is raw modulus, converting to DER"})};
}

SECURITY_STATUS verifyHash(const KSP_PROVIDER& provider, const KSP_KEY& key, Input hash, Input signature,
                           DWORD flags) {
    if (key.publicKeyLength == 0) return refuse(NTE_BAD_KEY, "KSP: No public key for verification");
    const VerificationKey publicKey = verificationKeyOf(key);
    Utils::debug("KSP: VerifySignature - hash length: ", hash.size());
    Utils::debug("KSP: VerifySignature - public key DER length: ", publicKey.bytes.size());
    Utils::debug("KSP: VerifySignature - signature length: ", signature.size());
    const bool pss = (flags & kPadPssFlag) != 0;
    Utils::debug("KSP: VerifySignature - padding=", paddingName(pss));
    if (pss && !isFirmware2OrNewer(provider.firmwareVersion)) {
        return refuseOldFirmware("KSPVerifySignature", provider);
    }
    if (hash.size() > INT_MAX || signature.size() > INT_MAX) return refuseLength("KSPVerifySignature");
    const int code =
        verifySignature(provider.serial(), publicKey, hash, signature, pss, provider.libraryContext);
    if (code != kDeviceOk) return refuse(NTE_BAD_SIGNATURE, concat("KSP: Verify signature failed: ", code));
    Utils::debug("KSP: Verify signature success");
    return kSuccess;
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPSignHash(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID*,
                                   PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature, DWORD cbSignature,
                                   DWORD* pcbResult, DWORD dwFlags) {
    return kspEntry("KSPSignHash", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPSignHash");
        const auto key = liveKspKey(hKey);
        if (key == nullptr || pcbResult == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPSignHash: key handle or pcbResult is null");
        }
        const DWORD size = signatureLengthOf(*key);
        if (pbSignature == nullptr) {
            *pcbResult = size;
            Utils::debug("KSP: SignHash size query, returning ", size);
            return kSuccess;
        }
        if (pbHashValue == nullptr || cbHashValue == 0) {
            return refuse(NTE_INVALID_PARAMETER, "KSPSignHash: pbHashValue is null or cbHashValue is zero");
        }
        if (cbSignature < size) {
            *pcbResult = size;
            return refuse(NTE_BUFFER_TOO_SMALL,
                          concat("KSPSignHash: signature buffer too small, required=", size));
        }
        // Before the user is asked for a PIN that could not be used.
        if (cbHashValue > INT_MAX || cbSignature > INT_MAX) return refuseLength("KSPSignHash");
        return signHash(*provider, *key, {pbHashValue, cbHashValue}, dwFlags, {pbSignature, cbSignature},
                        pcbResult);
    });
}

SECURITY_STATUS WINAPI KSPVerifySignature(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, VOID*,
                                          PBYTE pbHashValue, DWORD cbHashValue, PBYTE pbSignature,
                                          DWORD cbSignature, DWORD dwFlags) {
    return kspEntry("KSPVerifySignature", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPVerifySignature");
        const auto key = liveKspKey(hKey);
        if (key == nullptr) return refuse(NTE_INVALID_HANDLE, "KSPVerifySignature: key handle is null");
        if (pbHashValue == nullptr || cbHashValue == 0 || pbSignature == nullptr || cbSignature == 0) {
            return refuse(NTE_INVALID_PARAMETER, "KSPVerifySignature: invalid input parameters");
        }
        return verifyHash(*provider, *key, {pbHashValue, cbHashValue}, {pbSignature, cbSignature}, dwFlags);
    });
}
