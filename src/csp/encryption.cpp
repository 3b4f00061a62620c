// CPEncrypt and CPDecrypt. RSA data is little-endian in CryptoAPI and big-endian on the token: ciphertext is
// reversed in both directions. AES data never is.

#include "certs/public_key_encoding.h"
#include "csp/csp_entry_points.h"
#include "csp/csp_login.h"
#include "csp/key_handle.h"
#include "foundation/device_library.h"
#include "foundation/library_buffer.h"
#include "foundation/secret.h"
#include "token/aes_encryption.h"
#include "token/aes_keys.h"
#include "token/crypto_policy.h"
#include "token/key_operations.h"
#include "token/process_iv.h"
#include "token/user_verification.h"

#include <algorithm>
#include <climits>

namespace veltra {

namespace {

constexpr std::size_t kDefaultIvLength = 16;

bool isSymmetric(const KEY_HANDLE& key) {
    return key.symmetricKeyLength >= 1;
}

/// Input and output of one call: the application's buffer, which is both. The length of the input is read
/// once: the application may change its variable while the password dialog is up.
struct DataBuffer {
    BYTE* data;
    DWORD inputLength; ///< at most INT_MAX once it was checked
    DWORD capacity;
    DWORD* outputLength;

    [[nodiscard]] int input() const { return static_cast<int>(inputLength); }
};

// The process's IV for CBC, zeros when none was set; no IV for ECB.
Bytes ivFor(const KEY_HANDLE& key) {
    if (key.mode == CRYPT_MODE_ECB) return {};
    Bytes iv = processIv();
    return iv.empty() ? Bytes(kDefaultIvLength) : iv;
}

// Only CBC looks at the length of the key.
bool hasUsableLength(const KEY_HANDLE& key) {
    return key.mode == CRYPT_MODE_ECB || aesKeyTypeForBits(key.symmetricKeyLength * 8).has_value();
}

Outcome encryptSymmetric(const CSP_CONTEXT& context, const KEY_HANDLE& key, bool final,
                         const DataBuffer& buffer) {
    Utils::debug("CPEncrypt: symmetric encryption, keyLen=", key.symmetricKeyLength);
    if (!hasUsableLength(key)) {
        return refuse(NTE_BAD_KEY,
                      concat("CPEncrypt: unsupported symmetric key length: ", key.symmetricKeyLength));
    }
    const Bytes iv = ivFor(key);
    LibraryBuffer output;
    const AesCipher cipher{.key = {key.symmetricKey.data(), key.symmetricKeyLength},
                           .ecb = key.mode == CRYPT_MODE_ECB,
                           .iv = iv};
    const int code = encryptAes(context.serial, cipher, {buffer.data, buffer.inputLength}, final, output,
                                context.libraryContext);
    if (code != kDeviceOk) {
        return refuse(NTE_PROVIDER_DLL_FAIL, concat("CPEncrypt: symmetric encryption failed: ", code));
    }
    const auto length = static_cast<DWORD>(output.size());
    *buffer.outputLength = length;
    if (buffer.capacity < length) {
        return refuse(ERROR_MORE_DATA,
                      concat("CPEncrypt: symmetric output buffer too small, required=", length));
    }
    std::ranges::copy(output.bytes(), buffer.data);
    Utils::debug("CPEncrypt: symmetric encryption success, length=", length);
    return success();
}

constexpr std::size_t kLongestRsaCiphertext = 512; // of RSA 4096

// The count of public key bytes is compared with sizes in bits: deliberate, and so nearly always RSA 2048.
EncryptionType rsaTypeFor(const KEY_HANDLE& key) {
    return rsaEncryptionType(key.publicKeyLength);
}

// An EC key's point is handed over as it is, for the library to refuse: it must never be encoded as a
// modulus.
Bytes encryptionKeyOf(const KEY_HANDLE& key) {
    const std::span<const unsigned char> stored = key.publicKeyBytes();
    if (key.algId == kEcAlgId) return {stored.begin(), stored.end()};
    return rsaPublicKeyAsDer(stored, {"CSP: Public key is already DER encoded",
                                      "CSP: Public key is raw modulus, converting to DER"});
}

Outcome encryptRsa(const CSP_CONTEXT& context, const KEY_HANDLE& key, DWORD flags, DWORD outputLength,
                   const DataBuffer& buffer) {
    const Bytes publicKey = encryptionKeyOf(key);
    const PaddingMode padding = (flags & CRYPT_OAEP) != 0 ? PaddingMode::OaepSha1 : PaddingMode::Pkcs1;
    // The library may be told a larger type than the key has (rsaTypeFor), so there is room for the longest
    // ciphertext; the capacity that it is told stays the key's.
    SecretBuffer output;
    output.allocate(std::max<std::size_t>(outputLength, kLongestRsaCiphertext));
    std::uint32_t length = 0;
    const int code = encryptForKey(rsaTypeFor(key), padding, {buffer.data, buffer.inputLength}, publicKey,
                                   {output.data(), outputLength}, length, context.libraryContext);
    if (code != kDeviceOk) return refuse(NTE_PROVIDER_DLL_FAIL, concat("Encrypt data failed: ", code));
    std::reverse_copy(output.data(), output.data() + length, buffer.data);
    *buffer.outputLength = length;
    Utils::debug("CPEncrypt - return success");
    return success();
}

Outcome encryptData(const CSP_CONTEXT& context, const KEY_HANDLE& key, bool final, DWORD flags,
                    const DataBuffer& buffer) {
    const DWORD requiredSize = key.keyBits / 8;
    if (buffer.data == nullptr) {
        *buffer.outputLength = requiredSize;
        return success();
    }
    if (buffer.capacity < requiredSize) {
        *buffer.outputLength = requiredSize;
        return refuse(ERROR_MORE_DATA, concat("CPEncrypt: buffer too small, cbBufLen=", buffer.capacity,
                                              " requiredSize=", requiredSize));
    }
    if (buffer.inputLength == 0 || buffer.inputLength > buffer.capacity || buffer.inputLength > INT_MAX) {
        return refuse(NTE_BAD_LEN, concat("Invalid data length for encrypt: ", buffer.inputLength));
    }
    return isSymmetric(key) ? encryptSymmetric(context, key, final, buffer)
                            : encryptRsa(context, key, flags, requiredSize, buffer);
}

// The plaintext as the library gave it, over the ciphertext.
Outcome handOutPlaintext(const LibraryBuffer& plaintext, const DataBuffer& buffer) {
    const auto length = static_cast<DWORD>(plaintext.size());
    *buffer.outputLength = length;
    if (length > buffer.capacity) {
        return refuse(ERROR_MORE_DATA, concat("CPDecrypt: output buffer too small, required=", length));
    }
    std::ranges::copy(plaintext.bytes(), buffer.data);
    Utils::debug("CPDecrypt- return");
    return success();
}

// Key and plaintext go to the debug log, which is off unless somebody turns it on: part of the log format.
Outcome decryptAes(const CSP_CONTEXT& context, const KEY_HANDLE& key, const DataBuffer& buffer) {
    const Bytes iv = ivFor(key);
    Utils::debug("CPDecrypt input iv : ", toHex(iv));
    Utils::debugSecret("CPDecrypt input key : ", {key.symmetricKey.data(), key.symmetricKeyLength});
    LibraryBuffer output;
    const int code = output.fill([&](unsigned char** out, int* outLength) {
        return deviceLibrary().veltra_decrypt_aes(
            context.serial.c_str(), key.symmetricKey.data(), static_cast<int>(key.symmetricKeyLength),
            buffer.data, buffer.input(), out, outLength, false, iv.empty() ? nullptr : iv.data(),
            static_cast<int>(iv.size()), context.libraryContext);
    });
    if (code != kDeviceOk)
        return refuse(NTE_PROVIDER_DLL_FAIL, concat("Symmetric decryption failed : ", code));
    Utils::debugSecret("CPDecrypt - decrypted data : ", output.bytes());
    return handOutPlaintext(output, buffer);
}

Outcome refusePkcs1() {
    const Outcome refused = refuse(
        NTE_BAD_FLAGS, "CPDecrypt: PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)");
    raisePolicyEvent(kPkcs1DecryptBlockedEvent);
    return refused;
}

// The padding is the token's choice: the flag decides about the policy only.
Outcome decryptRsa(const CSP_CONTEXT& context, const KEY_HANDLE& key, DWORD flags, const DataBuffer& buffer) {
    if ((flags & CRYPT_OAEP) == 0 && !context.serial.empty() &&
        !isFips1402Token(context.serial, context.libraryContext)) {
        return refusePkcs1();
    }
    if (const Outcome verified = ensurePasswordValidated(context); !verified) {
        return refuse(verified.code(), "CPDecrypt: ensurePasswordValidated failed");
    }
    Utils::debug("Before reversing encrypted data");
    const Bytes ciphertext(std::reverse_iterator(buffer.data + buffer.inputLength),
                           std::reverse_iterator(buffer.data));
    Utils::debug("After reversing encrypted data");
    Utils::debug("Before decrypting data");
    const TokenKey tokenKey{
        .serial = context.serial, .keyId = key.keyId, .libraryContext = context.libraryContext};
    LibraryBuffer output;
    Outcome verifiedAgain; // why the user could not be verified again, for the last error
    const PinOperationResult result = runWithSessionRetry(
        context.serial, "CPDecrypt: SSO expired, re-prompting for PIN",
        [&](const Pin& pin) { return decryptWithKey(tokenKey, pin, ciphertext, key.tokenFlag != 0, output); },
        [&] {
            verifiedAgain = ensurePasswordValidated(context);
            return static_cast<bool>(verifiedAgain);
        });
    if (result.verificationFailed) {
        return refuse(verifiedAgain.code(), "CPDecrypt: ensurePasswordValidated failed after SSO expiry");
    }
    Utils::debug("After decrypting data");
    if (result.code != kDeviceOk) {
        return refuse(NTE_PROVIDER_DLL_FAIL, concat("Decrypt data failed : ", result.code));
    }
    return handOutPlaintext(output, buffer);
}

} // namespace

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPEncrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH, BOOL Final, DWORD dwFlags, BYTE* pbData,
                      DWORD* pdwDataLen, DWORD dwBufLen) {
    return cspEntry("CPEncrypt", [&] {
        if (pdwDataLen == nullptr) return refuse(ERROR_INVALID_PARAMETER, "CPEncrypt: pcbDataLen is null");
        const auto context = usableContext(hProv);
        if (context == nullptr) return refuse(NTE_BAD_UID, "CPEncrypt: context is null or not initialized");
        const auto key = liveKey(hKey);
        if (key == nullptr) return refuse(NTE_BAD_KEY, "CPEncrypt: key handle is null");
        return encryptData(
            *context, *key, Final != FALSE, dwFlags,
            {.data = pbData, .inputLength = *pdwDataLen, .capacity = dwBufLen, .outputLength = pdwDataLen});
    });
}

BOOL WINAPI CPDecrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH, BOOL, DWORD dwFlags, BYTE* pbData,
                      DWORD* pdwDataLen) {
    return cspEntry("CPDecrypt", [&] {
        const auto context = usableContext(hProv);
        if (context == nullptr) return refuse(NTE_BAD_UID, "CPDecrypt: context is null or not initialized");
        const auto key = liveKey(hKey);
        if (key == nullptr) return refuse(NTE_BAD_KEY, "CPDecrypt: key handle is null");
        if (pdwDataLen == nullptr) return refuse(ERROR_INVALID_PARAMETER, "CPDecrypt: pdwDataLen is null");
        const char* padding = (dwFlags & CRYPT_OAEP) != 0 ? "OAEP" : "PKCS1 (defaulting to OAEP)";
        Utils::debug("CPDecrypt - dwFlags : 0x", toHex8(dwFlags), " padding=", padding);
        Utils::debug("CPDecrypt - key id : ", toHex({key->keyId, key->keyIdLength}));
        Utils::debug("CPDecrypt - usage : ", key->keyUsage);
        const DWORD length = *pdwDataLen;
        if (pbData == nullptr || length == 0) {
            return refuse(NTE_BAD_DATA, concat("Invalid data length for decrypt : ", length));
        }
        if (length > INT_MAX) return refuse(NTE_BAD_LEN, concat("CPDecrypt: data is too long : ", length));
        const DataBuffer buffer{
            .data = pbData, .inputLength = length, .capacity = length, .outputLength = pdwDataLen};
        return isSymmetric(*key) ? decryptAes(*context, *key, buffer)
                                 : decryptRsa(*context, *key, dwFlags, buffer);
    });
}
