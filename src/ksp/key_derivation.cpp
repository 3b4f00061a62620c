// KSPDeriveKey and KSPFreeSecret. A derived key is the beginning of one digest, which the device library
// computes: there is no counter and no expansion, so a longer key than the digest cannot be had.

#include "foundation/wide_text.h"
#include "ksp/entry_guard.h"
#include "ksp/firmware_version.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_secret.h"
#include "token/device_hash.h"

#include <algorithm>
#include <array>
#include <climits>
#include <span>
#include <string>
#include <vector>

namespace veltra {

namespace {

// The name as this provider knows it, which is not the platform's: deliberate.
constexpr std::string_view kConcatenationKdf = "SP800_56ACONCAT";

constexpr std::size_t kLongestDigest = 64;

struct KdfHash {
    std::string_view name;
    std::uint32_t mechanism;
    std::uint32_t digestLength; ///< bytes
};

// The first row is also that of every name which is not here, and of no name.
constexpr std::array<KdfHash, 5> kKdfHashes = {{
    {"SHA256", kMechanismSha256, 32},
    {"SHA1", kMechanismSha1, 20},
    {"SHA384", kMechanismSha384, 48},
    {"SHA512", kMechanismSha512, 64},
    {"SHA224", kMechanismSha224, 28},
}};

const KdfHash& kdfHash(std::string_view name) {
    for (const KdfHash& row : kKdfHashes) {
        if (row.name == name) return row;
    }
    return kKdfHashes.front();
}

using Parts = std::vector<std::span<const unsigned char>>;

// No hash has a longer name: what is behind these bytes is not read.
constexpr std::size_t kHashNameBytes = 64;

/// What a parameter list says; refers to the application's buffers. Other buffer types are ignored.
struct KdfParameters {
    std::span<const unsigned char> hashName; ///< of the last buffer that names one; wide text
    Parts labels;
    Parts contexts;
};

// A buffer or a list that is null counts as empty, whatever its length says.
KdfParameters readParameters(const NCryptBufferDesc* list) {
    KdfParameters parameters;
    if (list == nullptr || list->pBuffers == nullptr) return parameters;
    for (const NCryptBuffer& buffer : std::span(list->pBuffers, list->cBuffers)) {
        const ULONG type = buffer.BufferType;
        if (buffer.pvBuffer == nullptr || buffer.cbBuffer == 0) continue;
        const std::span bytes(static_cast<const unsigned char*>(buffer.pvBuffer), buffer.cbBuffer);
        if (type == KDF_HASH_ALGORITHM) parameters.hashName = bytes;
        if (type == kKdfLabel) parameters.labels.push_back(bytes);
        if (type == kKdfContext) parameters.contexts.push_back(bytes);
    }
    return parameters;
}

// What is hashed: labels, contexts, secret; for every other derivation function the secret alone.
Parts hashInput(const std::string& kdf, const KdfParameters& parameters, const KSP_SECRET& secret) {
    Parts input;
    if (kdf == kConcatenationKdf) {
        input = parameters.labels;
        input.insert(input.end(), parameters.contexts.begin(), parameters.contexts.end());
    }
    input.push_back(secret.bytes());
    return input;
}

std::uint64_t lengthOf(const Parts& parts) {
    std::uint64_t length = 0;
    for (const auto& part : parts)
        length += part.size();
    return length;
}

using Digest = SecretBytes<kLongestDigest>;

// Hashes `input`, at most INT_MAX bytes, in one piece.
SECURITY_STATUS computeDigest(const KSP_SECRET& secret, const KdfHash& hash, const Parts& input,
                              Digest& digest) {
    SecretBuffer joined;
    joined.allocate(static_cast<std::size_t>(lengthOf(input)));
    unsigned char* end = joined.data();
    for (const auto& part : input)
        end = std::ranges::copy(part, end).out;

    void* deviceHash = nullptr;
    int code = startDeviceHash(secret.deviceSerial, hash.mechanism, &deviceHash, secret.libraryContext);
    if (code != kDeviceOk) {
        return refuse(NTE_INTERNAL_ERROR, concat("KSPDeriveKey: veltra_initHash failed, ret=", code));
    }
    code = deviceLibrary().veltra_updateHash(deviceHash, joined.data(), static_cast<int>(joined.size()),
                                             secret.libraryContext);
    std::uint32_t length = 0;
    if (code == kDeviceOk) {
        code =
            finishDeviceHash(deviceHash, {digest.data(), hash.digestLength}, length, secret.libraryContext);
    }
    // A digest that is shorter than its algorithm's would be filled up with zeros: no key is made of it.
    if (code == kDeviceOk && length != hash.digestLength) code = kDeviceBadLength;
    if (code != kDeviceOk) {
        // An update that failed is reported as the last step, too: deliberate.
        return refuse(NTE_INTERNAL_ERROR, concat("KSPDeriveKey: veltra_finalHash failed, ret=", code));
    }
    return kSuccess;
}

/// Where the caller wants the key. A capacity of 0, or above the digest's length, asks for the whole digest.
struct DerivedKeyOutput {
    PBYTE data;
    DWORD capacity;
    DWORD* size;
};

// A size query hashes as well; the size goes out whenever there is a digest.
SECURITY_STATUS answerKey(const DerivedKeyOutput& out, const Digest& digest, DWORD digestLength) {
    const DWORD length = out.capacity != 0 ? std::min(out.capacity, digestLength) : digestLength;
    *out.size = length;
    if (out.data == nullptr) return kSuccess;
    if (out.capacity < length) {
        return refuse(NTE_BUFFER_TOO_SMALL, "KSPDeriveKey: output buffer too small");
    }
    std::copy_n(digest.data(), length, out.data);
    Utils::debug("KSPDeriveKey: derived ", length, " bytes");
    return kSuccess;
}

SECURITY_STATUS deriveKey(const KSP_SECRET& secret, const std::string& kdf, const NCryptBufferDesc* list,
                          const DerivedKeyOutput& out) {
    if (secret.secretLength < 1) return refuse(NTE_INVALID_HANDLE, "KSPDeriveKey: invalid secret handle");
    if (!isFirmware2OrNewer(secret.firmwareVersion)) {
        return refuse(NTE_NOT_SUPPORTED,
                      concat("KSPDeriveKey: ECDH derive not supported on firmware ", secret.firmwareVersion));
    }
    const KdfParameters parameters = readParameters(list);
    const Parts input = hashInput(kdf, parameters, secret);
    const std::span<const unsigned char> hashName = parameters.hashName;
    if (hashName.size() > INT_MAX || lengthOf(input) > INT_MAX) return refuseLength("KSPDeriveKey");
    const KdfHash& hash = kdfHash(fromWideBytes(hashName.first(std::min(hashName.size(), kHashNameBytes))));
    Digest digest;
    if (const SECURITY_STATUS status = computeDigest(secret, hash, input, digest); status != kSuccess) {
        return status;
    }
    return answerKey(out, digest, hash.digestLength);
}

} // namespace

} // namespace veltra

using namespace veltra;

// The secret brings its token with it: the provider is not looked at, here and in KSPFreeSecret.
SECURITY_STATUS WINAPI KSPDeriveKey(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE hSharedSecret, LPCWSTR pwszKDF,
                                    NCryptBufferDesc* pParameterList, PBYTE pbDerivedKey, DWORD cbDerivedKey,
                                    DWORD* pcbResult, ULONG) {
    return kspEntry("KSPDeriveKey", [&] {
        const auto secret = liveSecret(hSharedSecret);
        if (secret == nullptr || pcbResult == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPDeriveKey: invalid parameter");
        }
        return deriveKey(*secret, fromWide(pwszKDF), pParameterList,
                         {.data = pbDerivedKey, .capacity = cbDerivedKey, .size = pcbResult});
    });
}

SECURITY_STATUS WINAPI KSPFreeSecret(NCRYPT_PROV_HANDLE, NCRYPT_SECRET_HANDLE hSharedSecret) {
    return kspEntry("KSPFreeSecret", [&] {
        LiveRecords<KSP_SECRET>::take(hSharedSecret).reset();
        return kSuccess;
    });
}
