#include "fuzz/entry_calls.h"

#include "support/both_front_ends.h"

#include "csp/key_handle.h"
#include "ksp/ksp_key.h"
#include "token/key_pairs.h"

namespace veltra::fuzz {

namespace {

const VeltraKeyPair& pairOf(std::uint32_t keyType) {
    return token().keyPairs.at(keyType - kKeyTypeRsa1024);
}

// The total length that the header of a DER element states in at most three bytes, and the header's length.
std::pair<std::size_t, std::size_t> statedLengths(const Bytes& der) {
    if (der[0] != 0x30) return {1, 1};
    const std::size_t first = der[1];
    if (first < 0x80) return {2 + first, 2};
    if (first < 0x81 || first > 0x83) return {2, 2};
    std::size_t length = 0;
    for (std::size_t i = 0; i < first - 0x80; ++i)
        length = length * 256 + der[2 + i];
    return {length + 2 + first - 0x80, 2 + first - 0x80};
}

} // namespace

std::string anyOf(FuzzedDataProvider& input, std::span<const char* const> known) {
    const auto index = input.ConsumeIntegralInRange<std::size_t>(0, known.size());
    return index < known.size() ? known[index] : input.ConsumeRandomLengthString(40);
}

HCRYPTKEY openCspKey(std::uint32_t keyType) {
    auto key = std::make_shared<KEY_HANDLE>();
    key->fillFrom(pairOf(keyType));
    key->algId = isEcKeyType(keyType) ? kEcAlgId : CALG_RSA_KEYX;
    key->keyBits = keyBitsOf(keyType);
    return LiveRecords<KEY_HANDLE>::add(std::move(key));
}

NCRYPT_KEY_HANDLE openKspKey(std::uint32_t keyType) {
    return LiveRecords<KSP_KEY>::add(test::openedKey(pairOf(keyType)));
}

HCRYPTKEY openCspKey(std::span<const unsigned char> secret) {
    auto key = test::keyWith<KEY_HANDLE>(secret);
    key->keyBits = key->symmetricKeyLength * 8;
    return LiveRecords<KEY_HANDLE>::add(std::move(key));
}

NCRYPT_KEY_HANDLE openKspKey(std::span<const unsigned char> secret) {
    auto key = test::keyWith<KSP_KEY>(secret);
    key->persisted = true;
    return LiveRecords<KSP_KEY>::add(std::move(key));
}

HCRYPTPROV cspContext() {
    static const auto context = handleOf([](HCRYPTPROV* out) {
        auto* const table = reinterpret_cast<VTableProvStruc*>(out); // nobody looks at it
        return cspCall(CPAcquireContext, out, nullptr, 0, table);
    });
    return context.value();
}

NCRYPT_PROV_HANDLE kspProvider() {
    static const auto provider =
        handleOf([](NCRYPT_PROV_HANDLE* out) { return kspCall(KSPOpenProvider, out, nullptr, 0); });
    return provider.value();
}

ExactBytes asCertificateArgument(const Bytes& der) {
    Bytes padded = der;
    padded.resize(std::max<std::size_t>(der.size(), 8));
    const auto [total, header] = statedLengths(padded);
    padded.resize(total <= kCertificateCapacity ? total : header);
    return ExactBytes(padded);
}

void useCspKey(HCRYPTKEY key) {
    const HCRYPTPROV context = cspContext();
    for (const DWORD parameter : {KP_ALGID, KP_KEYLEN, KP_PERMISSIONS, KP_CERTIFICATE}) {
        const ExactBytes value(kCertificateCapacity);
        DWORD length = value.size();
        cspCall(CPGetKeyParam, context, key, parameter, value.data(), &length, 0);
    }
    const ExactBytes blob(2048);
    DWORD blobLength = blob.size();
    cspCall(CPExportKey, context, key, 0, PUBLICKEYBLOB, 0, blob.data(), &blobLength);
    const ExactBytes data(512);
    DWORD length = 20;
    if (cspCall(CPEncrypt, context, key, 0, TRUE, CRYPT_OAEP, data.data(), &length, data.size())) {
        cspCall(CPDecrypt, context, key, 0, TRUE, CRYPT_OAEP, data.data(), &length);
    }
    HCRYPTHASH hash = 0;
    require(cspCall(CPCreateHash, context, CALG_SHA_256, 0, 0, &hash), "a hash");
    cspCall(CPVerifySignature, context, hash, data.data(), data.size(), key, nullptr, 0);
    require(cspCall(CPDestroyHash, context, hash), "a hash is destroyed");
}

void useKspKey(NCRYPT_KEY_HANDLE key) {
    const NCRYPT_PROV_HANDLE provider = kspProvider();
    const auto get = [](DWORD capacity, auto function, auto... arguments) {
        const ExactBytes out(capacity);
        DWORD size = 0;
        const bool done = kspCall(function, arguments..., out.data(), out.size(), &size, 0);
        require(!done || size <= capacity, "what is written fits");
    };
    for (const char* name : kPropertyNames)
        get(64, KSPGetKeyProperty, provider, key, ExactText(name).get());
    for (const char* name : kBlobNames)
        get(1100, KSPExportKey, provider, key, 0, ExactText(name).get(), nullptr);
    const ExactBytes data(32);
    get(512, KSPEncrypt, provider, key, data.data(), data.size(), nullptr);
    get(32, KSPDecrypt, provider, key, data.data(), data.size(), nullptr);
    get(512, KSPSignHash, provider, key, nullptr, data.data(), data.size());
    kspCall(KSPVerifySignature, provider, key, nullptr, data.data(), data.size(), data.data(), data.size(),
            0);
}

} // namespace veltra::fuzz
