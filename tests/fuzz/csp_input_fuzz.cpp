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
    const auto key = handleOf(cspCall, [&](HCRYPTKEY* out) {
        return CPImportKey(context, blob.data(), blob.size(), decryptionKey, flags, out);
    });
    if (key) {
        useCspKey(*key);
        require(cspCall([&] { return CPDestroyKey(context, *key); }), "an imported key is destroyed");
        require(!cspCall([&] { return CPDestroyKey(context, *key); }), "and only once");
    }
    CPDestroyKey(context, exchangeKey);
}

Bytes blobHeader(BYTE type, ALG_ID algId) {
    return bytesOf(BLOBHEADER{.bType = type, .bVersion = CUR_BLOB_VERSION, .reserved = 0, .aiKeyAlg = algId});
}

std::vector<Bytes> blobSeeds() {
    std::vector<Bytes> seeds;
    for (const DWORD bits : {1024U, 2048U, 3072U, 4096U}) {
        seeds.push_back(joined({blobHeader(PUBLICKEYBLOB, CALG_RSA_KEYX), dwords({0x31415352, bits, 65537}),
                                counting(bits / 8, 0x80)}));
    }
    for (const std::size_t length : {16U, 24U, 32U}) {
        const Bytes key = counting(length, 1);
        const ALG_ID algId = length == 16 ? CALG_AES_128 : length == 24 ? CALG_AES_192 : CALG_AES_256;
        const Bytes encrypted = joined({Bytes(256 - length), ScriptedDeviceLibrary::maskOf(key)});
        const Bytes wrapped = ScriptedDeviceLibrary::maskOf(joined({{0xA1}, key}));
        const Bytes prefix = dwords({static_cast<DWORD>(length)});
        seeds.push_back(joined({blobHeader(PLAINTEXTKEYBLOB, algId), prefix, key}));
        for (const Bytes& ciphertext : {encrypted, Bytes(encrypted.rbegin(), encrypted.rend())})
            seeds.push_back(
                joined({blobHeader(SIMPLEBLOB, algId), dwords({CALG_RSA_KEYX}), ciphertext, {0, 0, 1}}));
        seeds.push_back(joined({blobHeader(SYMMETRICWRAPKEYBLOB, algId), wrapped, prefix}));
    }
    seeds.push_back(joined({blobHeader(PRIVATEKEYBLOB, CALG_RSA_KEYX), counting(64)}));
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
    if (cspCall([&] { return CPSetKeyParam(context, key, KP_CERTIFICATE, der.data(), 0); })) {
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

// CPSetHashParam, and the set-up of HMAC against RFC 2104 written down once more.

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
    return cspCall([&] { return CPSetHashParam(cspContext(), hash, HP_HMAC_INFO, argument.data(), 0); });
}

bool addData(HCRYPTHASH hash, const Bytes& data) {
    const ExactBytes argument(data);
    return cspCall([&] { return CPHashData(cspContext(), hash, argument.data(), argument.size(), 0); });
}

Bytes valueOf(HCRYPTHASH hash) {
    const ExactBytes value(64);
    DWORD length = value.size();
    if (!cspCall([&] { return CPGetHashParam(cspContext(), hash, HP_HASHVAL, value.data(), &length, 0); })) {
        return {};
    }
    require(length <= value.size(), "a hash value is at most 64 bytes");
    return {value.data(), value.data() + length};
}

// CPSetHashParam takes as many bytes as the hash is long, which the application is expected to know.
void setHashValue(HCRYPTHASH hash) {
    DWORD size = 0;
    DWORD length = sizeof(size);
    cspCall([&] {
        return CPGetHashParam(cspContext(), hash, HP_HASHSIZE, reinterpret_cast<BYTE*>(&size), &length, 0);
    });
    const ExactBytes value(size);
    cspCall([&] { return CPSetHashParam(cspContext(), hash, HP_HASHVAL, value.data(), 0); });
}

void anyStep(FuzzedDataProvider& input, HCRYPTHASH hash) {
    switch (input.ConsumeIntegralInRange(0, 6)) {
    case 0:
        setHmacInfo(hash, input.PickValueInArray(kInnerHashes).algId);
        break;
    case 1:
        setHashValue(hash);
        break;
    case 2:
        addData(hash, anyBytes(input, 300));
        break;
    case 3:
        valueOf(hash);
        break;
    case 4: {
        const ExactBytes value(64);
        const DWORD parameter = input.ConsumeIntegral<BYTE>();
        DWORD length = value.size();
        cspCall([&] { return CPGetHashParam(cspContext(), hash, parameter, value.data(), &length, 0); });
        break;
    }
    case 5: {
        HCRYPTHASH copy = 0;
        if (!cspCall([&] { return CPDuplicateHash(cspContext(), hash, nullptr, 0, &copy); })) break;
        setHmacInfo(copy, input.PickValueInArray(kInnerHashes).algId);
        valueOf(copy);
        require(cspCall([&] { return CPDestroyHash(cspContext(), copy); }), "a copy is destroyed");
        break;
    }
    default: {
        HCRYPTKEY derived = 0;
        const auto algId =
            input.PickValueInArray<ALG_ID>({CALG_AES_128, CALG_AES_192, CALG_AES_256, CALG_RC4});
        if (!cspCall([&] { return CPDeriveKey(cspContext(), algId, hash, 0, &derived); })) break;
        require(cspCall([&] { return CPDestroyKey(cspContext(), derived); }), "a derived key is destroyed");
    }
    }
}

void hashParameters(FuzzedDataProvider& input) {
    const HCRYPTPROV context = cspContext();
    token().info.fipsMarker = input.ConsumeBool() ? "3.0.9" : "2.1.9";
    const InnerHash inner = input.PickValueInArray(kInnerHashes);
    const ALG_ID algId = input.ConsumeBool() ? CALG_HMAC : inner.algId;
    const auto secret = input.ConsumeBytes<unsigned char>(input.ConsumeIntegralInRange<std::size_t>(1, 32));
    if (secret.empty()) return;
    const HCRYPTKEY key = openCspKey(secret);
    HCRYPTHASH hash = kUntouched;
    if (cspCall([&] { return CPCreateHash(context, algId, key, 0, &hash); })) {
        if (algId == CALG_HMAC && setHmacInfo(hash, inner.algId)) {
            const Bytes data = anyBytes(input, 300);
            require(addData(hash, data), "data is hashed");
            require(valueOf(hash) == hmac(inner, secret, data), "the value is the HMAC");
        }
        while (input.remaining_bytes() > 0)
            anyStep(input, hash);
        require(cspCall([&] { return CPDestroyHash(context, hash); }), "a hash is destroyed");
    } else {
        require(hash == kUntouched, "a failing CPCreateHash leaves the handle alone");
    }
    CPDestroyKey(context, key);
}

std::vector<Bytes> hashSeeds() {
    std::vector<Bytes> seeds;
    for (const BYTE isHmac : {BYTE{0}, BYTE{1}}) {
        for (BYTE inner = 0; inner < kInnerHashes.size(); ++inner)
            seeds.push_back(join(counting(400), Bytes{6, 5, 3, 2, 1, 0, 0, 0, 100, 31, isHmac, inner, 1}));
    }
    return seeds;
}

const Target hashTarget("csp_hash_parameters", hashParameters, hashSeeds);

} // namespace
} // namespace veltra::fuzz
