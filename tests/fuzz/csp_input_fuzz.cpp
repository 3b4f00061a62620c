// What applications hand to the CryptoAPI provider: key blobs, certificates, hash parameters.

#include "fuzz/entry_calls.h"
#include "support/blob_bytes.h"

#include "csp/hash_context.h"

#include <array>

namespace veltra::fuzz {
namespace {

using test::counting;
using test::dwords;
using test::joined;
using test::ScriptedDeviceLibrary;

// CPImportKey

void importKey(FuzzedDataProvider& input) {
    const HCRYPTPROV context = cspContext();
    const HCRYPTKEY exchangeKey =
        openCspKey(input.ConsumeIntegralInRange(kKeyTypeRsa1024 + 0, kKeyTypeEcP521 + 0));
    const HCRYPTKEY decryptionKey = input.PickValueInArray<HCRYPTKEY>({exchangeKey, 0, kUntouched});
    const DWORD flags = input.PickValueInArray<DWORD>({0, CRYPT_EXPORTABLE, CRYPT_OAEP});
    const ExactBytes blob(input.ConsumeRemainingBytes<unsigned char>());
    const auto key = handleOf([&](HCRYPTKEY* out) {
        return cspCall(CPImportKey, context, blob.data(), blob.size(), decryptionKey, flags, out);
    });
    if (key) {
        useCspKey(*key);
        require(cspCall(CPDestroyKey, context, *key), "an imported key is destroyed");
        require(!cspCall(CPDestroyKey, context, *key), "and only once");
    }
    CPDestroyKey(context, exchangeKey);
}

Bytes blobHeader(BYTE type, ALG_ID algId) {
    return bytesOf(BLOBHEADER{.bType = type, .bVersion = CUR_BLOB_VERSION, .reserved = 0, .aiKeyAlg = algId});
}

std::vector<Bytes> blobSeeds() {
    const Bytes key = counting(32, 1);
    const Bytes encrypted = joined({Bytes(256 - key.size()), ScriptedDeviceLibrary::maskOf(key)});
    const Bytes wrapped = ScriptedDeviceLibrary::maskOf(joined({{0xA1}, key}));
    const Bytes prefix = dwords({static_cast<DWORD>(key.size())});
    std::vector<Bytes> seeds = {
        joined({blobHeader(PUBLICKEYBLOB, CALG_RSA_KEYX), dwords({0x31415352, 2048, 65537}), counting(256)}),
        joined({blobHeader(PLAINTEXTKEYBLOB, CALG_AES_256), prefix, key}),
        joined({blobHeader(SIMPLEBLOB, CALG_AES_256), dwords({CALG_RSA_KEYX}),
                Bytes(encrypted.rbegin(), encrypted.rend())}),
        joined({blobHeader(SYMMETRICWRAPKEYBLOB, CALG_AES_256), wrapped, prefix}),
        joined({blobHeader(PRIVATEKEYBLOB, CALG_RSA_KEYX), counting(64)})};
    for (Bytes& seed : seeds)
        seed.insert(seed.end(), {0, 0, 1}); // no flags, the exchange key, an RSA key
    return seeds;
}

const Target importKeyTarget("csp_import_key", importKey, blobSeeds);

// CPSetKeyParam(KP_CERTIFICATE), with certificates of authorities that name each other

std::string anyName(FuzzedDataProvider& input) {
    return input.PickValueInArray({"CN=a", "CN=b", "CN=c", "O=d, CN=a", "CN=", ""});
}

void setCertificate(FuzzedDataProvider& input) {
    const HCRYPTPROV context = cspContext();
    token().keyPairs[1].label[0] = input.ConsumeBool() ? 'x' : '\0';
    const HCRYPTKEY key = openCspKey(kKeyTypeRsa2048);
    for (int count = input.ConsumeIntegralInRange(0, 4); count > 0; --count) {
        const std::string subject = anyName(input);
        library().caFiles.emplace_back(
            "file", ScriptedDeviceLibrary::fakeCertificate("name", anyName(input), subject));
    }
    const ExactBytes der = asCertificateArgument(input.ConsumeRemainingBytes<unsigned char>());
    if (cspCall(CPSetKeyParam, context, key, KP_CERTIFICATE, der.data(), 0)) {
        require(!token().certificates.empty(), "a certificate is stored");
        const VeltraCertificate& stored = token().certificates.back();
        require(
            std::ranges::equal(std::span(stored.der, stored.derLength), std::span(der.data(), der.size())),
            "the certificate is stored as it was given");
        useCspKey(key);
    }
    CPDestroyKey(context, key);
}

std::vector<Bytes> certificateSeeds() {
    const Bytes plain = ScriptedDeviceLibrary::fakeCertificate("name", "CN=a", "CN=x");
    Bytes longest = ScriptedDeviceLibrary::fakeCertificate("name", "CN=b", std::string(3055, 'x'));
    const Bytes shortForm = {0x30, 6, 'a', '|', 'b', '|', 'c', '|'};
    return {join(plain, Bytes{0, 0, 0}),          join(plain, Bytes{1, 1, 2, 3, 4}),
            join(plain, Bytes{0, 1, 1, 0, 2, 1}), join(longest, Bytes{0, 1, 1, 2}),
            join(shortForm, Bytes{0, 1, 1}),      {0x30, 0x83, 0, 1, 0, 0, 0}};
}

const Target certificateTarget("csp_set_certificate", setCertificate, certificateSeeds);

// HMAC, against RFC 2104 written down once more.

struct InnerHash {
    ALG_ID algId;
    int mechanism;
    std::size_t blockLength;
};

constexpr std::array<InnerHash, 4> kInnerHashes = {{{CALG_SHA_256, kMechanismSha256, 64},
                                                    {CALG_SHA_384, kMechanismSha384, 128},
                                                    {CALG_SHA_512, kMechanismSha512, 128},
                                                    {CALG_SHA1, kMechanismSha1, 64}}};

Bytes hmac(const InnerHash& hash, Bytes key, const Bytes& data) {
    key.resize(hash.blockLength);
    Bytes inner = key;
    Bytes outer = key;
    for (unsigned char& byte : inner)
        byte ^= 0x36;
    for (unsigned char& byte : outer)
        byte ^= 0x5C;
    const Bytes digest = ScriptedDeviceLibrary::fakeDigest(hash.mechanism, join(inner, data));
    return ScriptedDeviceLibrary::fakeDigest(hash.mechanism, join(outer, digest));
}

bool setHmacInfo(HCRYPTHASH hash, ALG_ID algId) {
    // The texts are never used: whatever the pointers are, nobody looks behind them.
    auto* const nowhere = reinterpret_cast<BYTE*>(std::uintptr_t{kUntouched});
    const HMAC_INFO info{.HashAlgid = algId,
                         .pbInnerString = nowhere,
                         .cbInnerString = kUntouched,
                         .pbOuterString = nowhere,
                         .cbOuterString = kUntouched};
    const ExactBytes argument(bytesOf(info));
    return cspCall(CPSetHashParam, cspContext(), hash, HP_HMAC_INFO, argument.data(), 0);
}

bool addData(HCRYPTHASH hash, const Bytes& data) {
    const ExactBytes argument(data);
    return cspCall(CPHashData, cspContext(), hash, argument.data(), argument.size(), 0);
}

Bytes valueOf(HCRYPTHASH hash) {
    const ExactBytes value(64);
    DWORD length = value.size();
    if (!cspCall(CPGetHashParam, cspContext(), hash, HP_HASHVAL, value.data(), &length, 0)) {
        return {};
    }
    require(length <= value.size(), "a hash value is at most 64 bytes");
    return {value.data(), value.data() + length};
}

void hashParameters(FuzzedDataProvider& input) {
    const HCRYPTPROV context = cspContext();
    const InnerHash inner = input.PickValueInArray(kInnerHashes);
    const auto secret = input.ConsumeBytes<unsigned char>(input.ConsumeIntegralInRange<std::size_t>(1, 32));
    if (secret.empty()) return;
    const HCRYPTKEY key = openCspKey(secret);
    HCRYPTHASH hash = 0;
    const Bytes first = anyBytes(input, 300);
    const Bytes second = anyBytes(input, 300);
    require(cspCall(CPCreateHash, context, CALG_HMAC, key, 0, &hash), "an HMAC");
    require(setHmacInfo(hash, inner.algId), "is set up");
    require(addData(hash, first) && addData(hash, second), "data is hashed");
    require(valueOf(hash) == hmac(inner, secret, join(first, second)), "the value is the HMAC");
    require(cspCall(CPDestroyHash, context, hash), "a hash is destroyed");
    CPDestroyKey(context, key);
}

std::vector<Bytes> hashSeeds() {
    std::vector<Bytes> seeds;
    for (BYTE inner = 0; inner < kInnerHashes.size(); ++inner)
        seeds.push_back(join(counting(400), Bytes{100, 100, 31, inner}));
    return seeds;
}

const Target hashTarget("csp_hash_parameters", hashParameters, hashSeeds);

} // namespace
} // namespace veltra::fuzz
