// CPSignHash and CPVerifySignature.

#include "certs/public_key_encoding.h"
#include "csp/csp_entry_points.h"
#include "csp/csp_login.h"
#include "csp/hash_context.h"
#include "foundation/secret.h"
#include "token/key_operations.h"
#include "token/key_pairs.h"
#include "token/token_session.h"
#include "token/user_verification.h"

#include <algorithm>
#include <climits>
#include <span>

namespace veltra {

namespace {

// A token signature that fails and one that does not verify have different codes on purpose.
constexpr DWORD kSignatureFailed = static_cast<DWORD>(NTE_PROVIDER_DLL_FAIL);
constexpr DWORD kVerificationFailed = static_cast<DWORD>(NTE_BAD_SIGNATURE);

bool canSign(const VeltraKeyPair& pair) {
    return pair.usage == kUsageSign || pair.usage == kUsageBoth;
}

bool hasKnownUsage(const VeltraKeyPair& pair) {
    return canSign(pair) || pair.usage == kUsageEncrypt;
}

// The first of the pairs that are the container's.
const VeltraKeyPair* findContainerKey(const std::vector<VeltraKeyPair>& pairs,
                                      bool (*usable)(const VeltraKeyPair&)) {
    const auto found = std::ranges::find_if(pairs, usable);
    return found == pairs.end() ? nullptr : &*found;
}

// A value that was set or finished before stays as it is.
Outcome finishHashForSigning(const CSP_CONTEXT& context, HASH_CONTEXT& hash) {
    if (hash.hashValueLength != 0) return success();
    std::uint32_t length = 0;
    const int code =
        finishDeviceHash(context, hash.deviceHash, hash.hashValue.data(), kDigestBufferLength, length);
    if (code != kDeviceOk)
        return refuse(NTE_FAIL, concat("CPSignHash: veltra_finalHash failed with ret=", code));
    hash.hashValueLength = length;
    hash.finalized = 1;
    return success();
}

// Chooses the key once per hash object; later signatures of the same hash use the same key.
Outcome chooseSigningKey(CSP_CONTEXT& context, HASH_CONTEXT& hash, DWORD keySpec) {
    if (hash.signingKey.filled()) return success();
    const KeySlot* slot = context.slotOf(keySpec);
    const bool remembered = slot != nullptr && slot->filled();
    if (remembered) Utils::debug("CPSignHash: using stored credentialId=", toHex(slot->keyId));
    const std::vector<VeltraKeyPair> pairs =
        keyPairsOf(context.serial, context.libraryContext, [&](const VeltraKeyPair& pair) {
            return remembered ? std::ranges::equal(pair.keyId, slot->keyId) : context.containerMatches(pair);
        });
    if (remembered) {
        hash.signingKey = *slot;
        const VeltraKeyPair* stored = findKeyPair(pairs, slot->keyId);
        if (stored != nullptr) hash.signingKeyType = stored->keyType;
        return success();
    }
    const VeltraKeyPair* pair = findContainerKey(pairs, canSign);
    if (pair == nullptr) pair = findContainerKey(pairs, hasKnownUsage);
    if (pair == nullptr) {
        return refuse(NTE_NO_KEY,
                      concat("CPSignHash: sign key not found for container=", context.containerName));
    }
    hash.signingKey.fill(pair->keyId);
    hash.signingKeyType = pair->keyType;
    return success();
}

// The answer to a size query: 256 for every type but the two long ones, EC keys included.
DWORD signatureLengthFor(std::uint32_t keyType) {
    if (keyType == kKeyTypeRsa3072) return 384;
    if (keyType == kKeyTypeRsa4096) return 512;
    return 256;
}

/// The application's buffer. Its capacity is read once: the application may change its variable while the
/// password dialog is up.
struct SignatureBuffer {
    BYTE* data;
    DWORD capacity; ///< at most INT_MAX if there is data
    DWORD* length;
};

Outcome signOnToken(const CSP_CONTEXT& context, const HASH_CONTEXT& hash, const SignatureBuffer& buffer) {
    const TokenKey key{
        .serial = context.serial, .keyId = hash.signingKey.keyId, .libraryContext = context.libraryContext};
    std::uint32_t length = 0;
    Outcome verifiedAgain; // why the user could not be verified again, for the last error
    const PinOperationResult result = runWithSessionRetry(
        context.serial, "CPSignHash: SSO expired, re-prompting for PIN",
        [&](const Pin& pin) {
            return signWithKey(key, pin, {hash.hashValue.data(), hash.hashValueLength}, false,
                               {buffer.data, buffer.capacity}, length);
        },
        [&] {
            verifiedAgain = ensurePasswordValidated(context);
            return static_cast<bool>(verifiedAgain);
        });
    if (result.verificationFailed) {
        return refuse(verifiedAgain.code(), "CPSignHash: ensurePasswordValidated failed after SSO expiry");
    }
    if (result.code == kDeviceWeakHashRefused) {
        return refuse(NTE_BAD_ALGID, "CPSignHash: SHA1/MD5 signing blocked on FIPS 140-3 token");
    }
    if (result.code != kDeviceOk) return refuse(kSignatureFailed, concat("Sign hash failed : ", result.code));
    if (isRsaKeyType(hash.signingKeyType)) std::reverse(buffer.data, buffer.data + length);
    *buffer.length = length;
    return success();
}

Outcome signHash(CSP_CONTEXT& context, HASH_CONTEXT& hash, DWORD keySpec, DWORD flags,
                 const SignatureBuffer& buffer) {
    if (const Outcome finished = finishHashForSigning(context, hash); !finished) return finished;
    if (const Outcome chosen = chooseSigningKey(context, hash, keySpec); !chosen) return chosen;
    if (buffer.data == nullptr) {
        *buffer.length = signatureLengthFor(hash.signingKeyType);
        return success();
    }
    if (const Outcome verified = ensurePasswordValidated(context); !verified) {
        return refuse(verified.code(), "CPSignHash: ensurePasswordValidated failed");
    }
    Utils::debug("CPSignHash dwFlags : ", flags);
    Utils::debug("CPSignHash hashAlgorithm : ", hash.algId);
    Utils::debug("CPSignHash key mechanism : ", hash.signingKeyType);
    if (hash.signingKeyType == kKeyTypeRsa1024) {
        if (!context.serial.empty()) readTokenInfo(context.serial, context.libraryContext);
        return refuse(NTE_BAD_KEY,
                      "CPSignHash: RSA-1024 signing not allowed \xE2\x80\x94 key size below 112-bit "
                      "security strength");
    }
    return signOnToken(context, hash, buffer);
}

// Verification reads the value as an application would, so that an HMAC object gets its outer hash.
Outcome finishHashForVerifying(HCRYPTPROV hProv, HCRYPTHASH hHash, HASH_CONTEXT& hash) {
    if (hash.hashValueLength != 0) return success();
    DWORD size = 0;
    if (!CPGetHashParam(hProv, hHash, HP_HASHVAL, nullptr, &size, 0)) {
        return refuse(NTE_BAD_HASH, "CPGetHashParam failed to get hash size");
    }
    if (size > hash.hashSize) return refuse(NTE_BAD_HASH, "Hash size larger than expected");
    SecretBytes<kHashValueCapacity> value;
    if (!CPGetHashParam(hProv, hHash, HP_HASHVAL, value.data(), &size, 0)) {
        return refuse(NTE_BAD_HASH, "CPGetHashParam failed to get hash value");
    }
    std::copy_n(value.data(), hash.hashValue.size(), hash.hashValue.begin());
    hash.hashValueLength = size;
    Utils::debug("Hash obtained using CPGetHashParam");
    return success();
}

std::uint32_t keyTypeOf(const KEY_HANDLE& key) {
    if (key.algId == kEcAlgId) {
        if (key.keyBits == 384) return kKeyTypeEcP384;
        return key.keyBits == 521 ? kKeyTypeEcP521 : kKeyTypeEcP256;
    }
    return rsaKeyTypeForBits(key.keyBits).value_or(kKeyTypeRsa2048);
}

VerificationKey verificationKeyOf(const KEY_HANDLE& key) {
    const std::span<const unsigned char> publicKey = key.publicKeyBytes();
    VerificationKey out{.keyType = keyTypeOf(key), .bytes = {}};
    if (key.algId == kEcAlgId) {
        Utils::debug("CPVerifySignature: ECC public key, using raw EC point");
        out.bytes.assign(publicKey.begin(), publicKey.end());
    } else {
        out.bytes = rsaPublicKeyAsDer(publicKey, {"CPVerifySignature: RSA public key already DER encoded",
                                                  "CPVerifySignature: RSA raw modulus, converting to DER"});
    }
    return out;
}

// The key of the context's container. Its RSA keys are always converted, without a look at their form.
Outcome findVerificationKey(const CSP_CONTEXT& context, VerificationKey& out) {
    Utils::error("Key Handle Not Initialized or Public Key Length is zero");
    Utils::debug("Container name : ", context.containerName);
    const std::vector<VeltraKeyPair> pairs =
        keyPairsOf(context.serial, context.libraryContext,
                   [&](const VeltraKeyPair& it) { return context.containerMatches(it); });
    const VeltraKeyPair* pair = findContainerKey(pairs, hasKnownUsage);
    if (pair == nullptr) {
        return refuse(NTE_BAD_KEY,
                      concat("CPVerifySignature: container not found in key list, containerName=",
                             context.containerName));
    }
    const std::span<const unsigned char> publicKey(pair->publicKey, pair->publicKeyLength);
    out.keyType = pair->keyType;
    out.bytes =
        isRsaKeyType(pair->keyType) ? rawModulusAsDer(publicKey) : Bytes(publicKey.begin(), publicKey.end());
    return success();
}

Outcome verifyOnToken(const CSP_CONTEXT& context, const HASH_CONTEXT& hash, const VerificationKey& key,
                      std::span<const BYTE> littleEndianSignature) {
    Bytes signature(littleEndianSignature.begin(), littleEndianSignature.end());
    if (isRsaKeyType(key.keyType)) std::ranges::reverse(signature);
    const int code = verifySignature(context.serial, key, {hash.hashValue.data(), hash.hashValueLength},
                                     signature, false, nullptr);
    if (code != kDeviceOk) return refuse(kVerificationFailed, concat("VERIFY SIGNATURE FAILED :: ", code));
    return success();
}

} // namespace

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPSignHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwKeySpec, LPCWSTR, DWORD dwFlags,
                       BYTE* pbSignature, DWORD* pdwSigLen) {
    return cspEntry("CPSignHash", [&] {
        const auto context = usableContext(hProv);
        if (context == nullptr) return refuse(NTE_BAD_UID, "CPSignHash: context is null or not initialized");
        const auto hash = liveHash(hHash);
        if (hash == nullptr) return refuse(NTE_BAD_HASH, "CPSignHash: hash handle is null");
        if (pdwSigLen == nullptr) return refuse(ERROR_INVALID_PARAMETER, "CPSignHash: pdwSigLen is null");
        const SignatureBuffer buffer{.data = pbSignature, .capacity = *pdwSigLen, .length = pdwSigLen};
        if (buffer.data != nullptr && buffer.capacity > INT_MAX) {
            return refuse(NTE_BAD_LEN, "CPSignHash: signature buffer length is too large");
        }
        return signHash(*context, *hash, dwKeySpec, dwFlags, buffer);
    });
}

BOOL WINAPI CPVerifySignature(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbSignature, DWORD cbSigLen,
                              HCRYPTKEY hPubKey, LPCWSTR, DWORD) {
    return cspEntry("CPVerifySignature", [&] {
        const auto context = usableContext(hProv);
        if (context == nullptr) return refuse(NTE_BAD_UID, "CSP Context Not Initialized");
        const auto hash = liveHash(hHash);
        if (hash == nullptr) return refuse(NTE_BAD_HASH, "Hash Context is not Initialized");
        if (pbSignature == nullptr && cbSigLen != 0) {
            return refuse(ERROR_INVALID_PARAMETER, "CPVerifySignature: pbSignature is null");
        }
        if (cbSigLen > INT_MAX)
            return refuse(NTE_BAD_LEN, "CPVerifySignature: signature length is too large");
        if (const Outcome finished = finishHashForVerifying(hProv, hHash, *hash); !finished) return finished;
        VerificationKey key;
        const auto keyObject = liveKey(hPubKey);
        if (keyObject != nullptr && keyObject->publicKeyLength != 0) {
            key = verificationKeyOf(*keyObject);
        } else if (const Outcome found = findVerificationKey(*context, key); !found) {
            return found;
        }
        return verifyOnToken(*context, *hash, key, {pbSignature, cbSigLen});
    });
}
