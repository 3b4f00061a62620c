// What applications hand to the CryptoAPI provider: key blobs and certificates.

#include "fuzz/entry_calls.h"
#include "support/blob_bytes.h"

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

} // namespace
} // namespace veltra::fuzz
