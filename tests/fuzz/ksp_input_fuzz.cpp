// What applications hand to the key storage provider: key blobs.

#include "fuzz/entry_calls.h"
#include "support/blob_bytes.h"

namespace veltra::fuzz {
namespace {

using test::counting;
using test::dwords;
using test::joined;
using test::ScriptedDeviceLibrary;

NCRYPT_KEY_HANDLE openAnyKey(FuzzedDataProvider& input) {
    const auto type = input.ConsumeIntegralInRange<std::uint32_t>(kKeyTypeRsa1024, kKeyTypeEcP521 + 3);
    return type <= kKeyTypeEcP521 ? openKspKey(type) : openKspKey(counting(8 * (type - kKeyTypeEcP384)));
}

bool freeKey(NCRYPT_KEY_HANDLE key) {
    return kspCall([&] { return KSPFreeKey(kspProvider(), key); });
}

// KSPImportKey

void importKey(FuzzedDataProvider& input) {
    const NCRYPT_KEY_HANDLE anyKey = openAnyKey(input);
    const auto importKey = input.PickValueInArray<NCRYPT_KEY_HANDLE>({0, anyKey, kUntouched});
    const ExactText type(anyOf(input, kBlobNames));
    const ExactBytes blob(input.ConsumeRemainingBytes<unsigned char>());
    const auto key = handleOf(kspCall, [&](NCRYPT_KEY_HANDLE* out) {
        return KSPImportKey(kspProvider(), importKey, type.get(), nullptr, out, blob.data(), blob.size(), 0);
    });
    if (key) {
        useKspKey(*key);
        const auto secret = handleOf(kspCall, [&](NCRYPT_SECRET_HANDLE* out) {
            return KSPSecretAgreement(kspProvider(), anyKey, *key, out, 0);
        });
        if (secret)
            require(kspCall([&] { return KSPFreeSecret(kspProvider(), *secret); }), "a secret is freed");
        require(freeKey(*key), "an imported key is freed");
    }
    freeKey(anyKey);
}

std::vector<Bytes> blobSeeds() {
    const auto seed = [](BYTE name, BYTE importKey, BYTE keyType, const Bytes& blob) {
        return join(blob, Bytes{name, importKey, keyType});
    };
    std::vector<Bytes> seeds;
    for (const DWORD bits : {1024U, 2048U, 3072U, 4096U}) {
        const Bytes rsa =
            joined({dwords({0x31415352, bits, 3, bits / 8, 0, 0}), {1, 0, 1}, counting(bits / 8, 0x80)});
        seeds.push_back(seed(0, 0, 1, rsa));
        seeds.push_back(seed(1, 0, 1, rsa));
        seeds.push_back(seed(
            3, 0, 1,
            joined({dwords({0x206, CALG_RSA_KEYX, 0x31415352, bits, 65537}), counting(bits / 8, 0x80)})));
    }
    BYTE curve = 0;
    for (const DWORD length : {32U, 48U, 66U}) {
        for (const DWORD family : {0x314B4345U, 0x31534345U}) {
            const DWORD magic = family + (curve << 25);
            seeds.push_back(seed(2, 0, static_cast<BYTE>(4 + curve),
                                 joined({dwords({magic, length}), counting(2 * length)})));
        }
        ++curve;
    }
    // As long as a key object allows, longer, and so long that it could not go unnoticed.
    for (const DWORD length : {1022U, 1026U, 2048U}) {
        const Bytes body = counting(length, 0x41);
        seeds.push_back(seed(0, 0, 1, joined({dwords({0x31415352, 4096, 3, length, 0, 0}), Bytes(3), body})));
        seeds.push_back(seed(2, 0, 4, joined({dwords({0x314B4345, length / 2}), body})));
    }
    for (const std::size_t length : {16U, 24U, 32U}) {
        const Bytes key = counting(length, 1);
        const Bytes masked = ScriptedDeviceLibrary::maskOf(key);
        seeds.push_back(seed(4, 0, 1, joined({dwords({0x4D42444B, 1, static_cast<DWORD>(length)}), key})));
        seeds.push_back(seed(5, 0, 1, joined({ScriptedDeviceLibrary::maskOf({0xA1}), masked})));
        seeds.push_back(seed(6, 1, 1, joined({Bytes(256 - length), masked})));
        seeds.push_back(seed(7, 1, 2, joined({Bytes(1), masked})));
    }
    return seeds;
}

const Target importKeyTarget("ksp_import_key", importKey, blobSeeds);

} // namespace
} // namespace veltra::fuzz
