// KSPEncrypt and KSPDecrypt. All data is big-endian, in CNG as on the token.

#include "certs/public_key_encoding.h"
#include "foundation/library_buffer.h"
#include "foundation/secret.h"
#include "foundation/wide_text.h"
#include "ksp/entry_guard.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_login.h"
#include "ksp/ksp_provider.h"
#include "ksp/property_value.h"
#include "token/aes_encryption.h"
#include "token/crypto_policy.h"
#include "token/key_operations.h"
#include "token/key_pairs.h"
#include "token/process_iv.h"

#include <array>
#include <climits>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace veltra {

namespace {

using Input = std::span<const unsigned char>;

/// The hash that a BCRYPT_OAEP_PADDING_INFO names. Nothing when the structure or the name in it is missing.
std::optional<std::string> oaepHashName(const void* paddingInfo) {
    if (paddingInfo == nullptr) return std::nullopt;
    // The name comes first, and no more is read: with the flags of both paddings it may be a shorter
    // BCRYPT_PKCS1_PADDING_INFO.
    LPCWSTR name = nullptr;
    std::memcpy(&name, paddingInfo, sizeof(name));
    if (name == nullptr) return std::nullopt;
    return fromWide(name);
}

// Whoever sets the flags of both paddings encrypts with OAEP but is taken for PKCS#1 in decryption:
// deliberate.
PaddingMode encryptionPadding(DWORD flags, const void* paddingInfo) {
    static constexpr std::array<std::pair<std::string_view, PaddingMode>, 4> kOaepModes = {
        {{"SHA1", PaddingMode::OaepSha1Alternative},
         {"SHA256", PaddingMode::OaepSha256},
         {"SHA384", PaddingMode::OaepSha384},
         {"SHA512", PaddingMode::OaepSha512}}};
    if ((flags & kPadOaepFlag) == 0) return PaddingMode::Pkcs1;
    const std::optional<std::string> name = oaepHashName(paddingInfo);
    for (const auto& [hash, mode] : kOaepModes) {
        if (name == hash) return mode;
    }
    return PaddingMode::OaepSha1;
}

void logDecryptionPadding(DWORD flags, const void* paddingInfo) {
    const char* padding = "NONE (defaulting to OAEP)";
    if ((flags & kPadPkcs1Flag) != 0) {
        padding = "PKCS1";
    } else if ((flags & kPadOaepFlag) != 0) {
        padding = "OAEP";
    }
    Utils::debug("KSPDecrypt: dwFlags=0x", toHex8(flags), " padding=", padding);
    if ((flags & kPadOaepFlag) != 0 && paddingInfo != nullptr) {
        Utils::debug("KSPDecrypt: OAEP hash algorithm=", oaepHashName(paddingInfo).value_or("NONE/UNKNOWN"));
    }
}

// Without a look at the key's type.
SECURITY_STATUS answerSize(const KSP_KEY& keyPair, const PropertyOutput& out) {
    *out.size = keyPair.bitLength / 8;
    return kSuccess;
}

// `tooSmallText` is the start of the error line.
SECURITY_STATUS handOut(std::span<const unsigned char> bytes, const PropertyOutput& out,
                        const char* tooSmallText) {
    const SECURITY_STATUS status = answerBytes(out, bytes);
    return status == kSuccess ? status : refuse(status, concat(tooSmallText, bytes.size()));
}

// The IV goes along in ECB mode too, and also when none was set: deliberate.
AesCipher cipherOf(const KSP_KEY& key, std::span<const unsigned char> iv) {
    return {.key = key.symmetricKeyBytes(), .ecb = key.ecbMode, .iv = iv};
}

// A size query encrypts everything, too: only the library knows the size.
SECURITY_STATUS encryptWithAes(const KSP_PROVIDER& provider, const KSP_KEY& key, Input input,
                               const PropertyOutput& out) {
    if (input.size() > INT_MAX) return refuseLength("KSPEncrypt");
    Utils::debug(key.ecbMode ? "KSP: Symmetric encrypt ECB mode" : "KSP: Symmetric encrypt CBC mode");
    const std::vector<unsigned char> iv = processIv();
    LibraryBuffer output;
    const int code =
        encryptAes(provider.serial(), cipherOf(key, iv), input, false, output, provider.libraryContext);
    if (code != kDeviceOk) {
        return refuse(NTE_INTERNAL_ERROR, concat("KSP: Symmetric encryption failed: ", code));
    }
    const SECURITY_STATUS status =
        handOut(output.bytes(), out, "KSPEncrypt: symmetric output buffer too small, required=");
    if (status == kSuccess && out.data != nullptr) {
        Utils::debug("KSP: Symmetric encrypt success, length: ", *out.size);
    }
    return status;
}

// The library writes into the application's buffer. A ciphertext is no secret: what a failing call left there
// stays.
SECURITY_STATUS encryptWithRsa(const KSP_PROVIDER& provider, const KSP_KEY& key, PaddingMode padding,
                               Input input, const PropertyOutput& out) {
    // In this front end here only, the public key is taken for an RSA key's: a point must never be encoded as
    // a modulus.
    if (isEcKeyType(key.keyType)) return refuse(NTE_NOT_SUPPORTED, "KSPEncrypt: an EC key does not encrypt");
    const std::vector<unsigned char> publicKey = rsaPublicKeyAsDer(
        key.publicKeyBytes(), {.alreadyDer = "KSP: Public key is already DER encoded",
                               .rawModulus = "KSP: Public key is raw modulus, converting to DER"});
    std::uint32_t length = 0;
    const int code = encryptForKey(rsaEncryptionType(key.bitLength), padding, input, publicKey,
                                   {out.data, out.capacity}, length, provider.libraryContext);
    if (code != kDeviceOk) return refuse(NTE_INTERNAL_ERROR, concat("KSP: Encrypt failed: ", code));
    *out.size = length;
    Utils::debug("KSP: Encrypt success");
    return kSuccess;
}

SECURITY_STATUS refusePkcs1() {
    const SECURITY_STATUS refused = refuse(
        NTE_NOT_SUPPORTED, "KSPDecrypt: PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)");
    raisePolicyEvent(kPkcs1DecryptBlockedEvent);
    return refused;
}

// The padding is the token's choice: the flags decide about the policy only. So is what to make of an EC key.
SECURITY_STATUS decryptWithRsa(const TokenKey& tokenKey, bool recordFlag, Input input,
                               const PropertyOutput& out, DWORD flags) {
    if (const SECURITY_STATUS status =
            verifyUser("KSPDecrypt", tokenKey.serial, tokenKey.libraryContext, flags);
        status != kSuccess) {
        return status;
    }
    LibraryBuffer plaintext;
    int code = kDeviceOk;
    const SECURITY_STATUS verifiedAgain = runWithPin(
        "KSPDecrypt", tokenKey, "KSP: Decrypt SSO expired, re-prompting for PIN",
        [&](const Pin& pin) { return decryptWithKey(tokenKey, pin, input, recordFlag, plaintext); }, code);
    if (verifiedAgain != kSuccess) return verifiedAgain;
    if (code != kDeviceOk) return refuse(NTE_INTERNAL_ERROR, concat("KSP: Decrypt failed: ", code));
    const SECURITY_STATUS status =
        handOut(plaintext.bytes(), out, "KSPDecrypt: output buffer too small, required=");
    if (status == kSuccess) Utils::debug("KSP: Decrypt success");
    return status;
}

// The key goes to the debug log, which is off unless somebody turns it on: part of the log format.
SECURITY_STATUS decryptWithAes(const std::string& serial, void* libraryContext, const KSP_KEY& key,
                               Input input, const PropertyOutput& out) {
    Utils::debug(key.ecbMode ? "KSP: Symmetric decrypt ECB mode" : "KSP: Symmetric decrypt CBC mode");
    const std::vector<unsigned char> iv = processIv();
    Utils::debug("KSP: Decrypt input iv : ", toHex(iv));
    Utils::debugSecret("KSP: Decrypt input key : ", key.symmetricKeyBytes());
    SecretBuffer plaintext;
    const int code = decryptSymmetric(serial, cipherOf(key, iv), input, plaintext, libraryContext);
    if (code != kDeviceOk) {
        return refuse(NTE_INTERNAL_ERROR, concat("KSP: Symmetric decryption failed: ", code));
    }
    const SECURITY_STATUS status =
        handOut(plaintext.bytes(), out, "KSPDecrypt: symmetric output buffer too small, required=");
    if (status != kSuccess) return status;
    if (out.data == nullptr) {
        Utils::debug("pbOutput == NULL ");
    } else {
        Utils::debug("KSP: Symmetric decrypt success, length: ", *out.size);
    }
    return kSuccess;
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPEncrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                  DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                  DWORD* pcbResult, DWORD dwFlags) {
    return kspEntry("KSPEncrypt", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPEncrypt");
        const auto key = liveKspKey(hKey);
        if (key == nullptr || pcbResult == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPEncrypt: key handle or pcbResult is null");
        }
        if (pbInput == nullptr || cbInput == 0) {
            return refuse(NTE_INVALID_PARAMETER, "KSPEncrypt: pbInput is null or cbInput is zero");
        }
        const PropertyOutput out{.data = pbOutput, .capacity = cbOutput, .size = pcbResult};
        if (key->isSymmetric()) return encryptWithAes(*provider, *key, {pbInput, cbInput}, out);
        if (pbOutput == nullptr) return answerSize(*key, out);
        if (const DWORD size = key->bitLength / 8; cbOutput < size) {
            *pcbResult = size;
            return refuse(NTE_BUFFER_TOO_SMALL,
                          concat("KSPEncrypt: output buffer too small, required=", size));
        }
        // The library is told both lengths, and counts in int.
        if (cbInput > INT_MAX || cbOutput > INT_MAX) return refuseLength("KSPEncrypt");
        return encryptWithRsa(*provider, *key, encryptionPadding(dwFlags, pPaddingInfo), {pbInput, cbInput},
                              out);
    });
}

// The padding is logged before the arguments are checked, and the policy is applied before the key is looked
// at, so that it holds for AES keys too: deliberate.
SECURITY_STATUS WINAPI KSPDecrypt(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey, PBYTE pbInput,
                                  DWORD cbInput, VOID* pPaddingInfo, PBYTE pbOutput, DWORD cbOutput,
                                  DWORD* pcbResult, DWORD dwFlags) {
    return kspEntry("KSPDecrypt", [&] {
        logDecryptionPadding(dwFlags, pPaddingInfo);
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPDecrypt");
        const std::string serial = provider->serial();
        void* const context = provider->libraryContext;
        if ((dwFlags & kPadPkcs1Flag) != 0 && !serial.empty() && !isFips1402Token(serial, context)) {
            return refusePkcs1();
        }
        const auto key = liveKspKey(hKey);
        if (key == nullptr || pcbResult == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPDecrypt: key handle or pcbResult is null");
        }
        const PropertyOutput out{.data = pbOutput, .capacity = cbOutput, .size = pcbResult};
        if (!key->isSymmetric() && pbOutput == nullptr) return answerSize(*key, out);
        if (pbInput == nullptr || cbInput == 0) {
            return refuse(NTE_INVALID_PARAMETER, "KSPDecrypt: pbInput is null or cbInput is zero");
        }
        // Before the user is asked for a PIN that could not be used.
        if (cbInput > kMaxSymmetricCiphertext) return refuseLength("KSPDecrypt");
        if (key->isSymmetric()) return decryptWithAes(serial, context, *key, {pbInput, cbInput}, out);
        return decryptWithRsa({.serial = serial, .keyId = key->credentialId, .libraryContext = context},
                              key->recordFlag, {pbInput, cbInput}, out, dwFlags);
    });
}
