// What applications hand to the key storage provider: key blobs, properties, parameter lists.

#include "fuzz/entry_calls.h"
#include "support/blob_bytes.h"

#include "ksp/ksp_secret.h"

#include <array>
#include <climits>

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
    return kspCall(KSPFreeKey, kspProvider(), key);
}

// KSPImportKey

void importKey(FuzzedDataProvider& input) {
    const NCRYPT_KEY_HANDLE anyKey = openAnyKey(input);
    const auto importKey = input.PickValueInArray<NCRYPT_KEY_HANDLE>({0, anyKey, kUntouched});
    const ExactText type(anyOf(input, kBlobNames));
    const ExactBytes blob(input.ConsumeRemainingBytes<unsigned char>());
    const auto key = handleOf([&](NCRYPT_KEY_HANDLE* out) {
        return kspCall(KSPImportKey, kspProvider(), importKey, type.get(), nullptr, out, blob.data(),
                       blob.size(), 0);
    });
    if (key) {
        useKspKey(*key);
        const auto secret = handleOf([&](NCRYPT_SECRET_HANDLE* out) {
            return kspCall(KSPSecretAgreement, kspProvider(), anyKey, *key, out, 0);
        });
        if (secret) require(kspCall(KSPFreeSecret, kspProvider(), *secret), "a secret is freed");
        require(freeKey(*key), "an imported key is freed");
    }
    freeKey(anyKey);
}

std::vector<Bytes> blobSeeds() {
    const Bytes key = counting(32, 1);
    const Bytes masked = ScriptedDeviceLibrary::maskOf(key);
    const auto rsa = [](DWORD length) {
        return joined({dwords({0x31415352, 2048, 3, length, 0, 0}), {1, 0, 1}, counting(length, 0x80)});
    };
    const auto ec = [](DWORD length) {
        return joined({dwords({0x314B4345, length}), counting(std::size_t{2} * length)});
    };
    // Behind each blob: its name's place, the import key, the kind of key. Two of the blobs are far longer
    // than a key object, so that an overrun cannot go unnoticed.
    return {join(rsa(256), Bytes{0, 0, 1}),
            join(rsa(2048), Bytes{1, 0, 1}),
            join(ec(32), Bytes{2, 0, 4}),
            join(ec(1024), Bytes{2, 0, 4}),
            join(dwords({0x206, CALG_RSA_KEYX, 0x31415352, 2048, 65537}), counting(256), Bytes{3, 0, 1}),
            join(dwords({0x4D42444B, 1, 32}), key, Bytes{4, 0, 1}),
            join(ScriptedDeviceLibrary::maskOf({0xA1}), masked, Bytes{5, 0, 1}),
            join(Bytes(256 - key.size()), masked, Bytes{6, 1, 1}),
            join(Bytes(1), masked, Bytes{7, 1, 2})};
}

const Target importKeyTarget("ksp_import_key", importKey, blobSeeds);

// KSPSetKeyProperty, and what a key object does with the properties that it got

// A length above INT_MAX is refused or not looked at; the value's first bytes may be read all the same.
void setProperty(FuzzedDataProvider& input, NCRYPT_KEY_HANDLE key) {
    const std::string name = anyOf(input, kPropertyNames);
    const ExactText property(name);
    const bool claimsTooMuch = input.ConsumeIntegral<BYTE>() == 0xFF;
    const auto length =
        input.ConsumeIntegralInRange<std::size_t>(0, input.ConsumeBool() ? 16 : kCertificateCapacity + 1);
    Bytes value = input.ConsumeBytes<unsigned char>(length);
    const auto claimed = static_cast<DWORD>(claimsTooMuch ? INT_MAX + std::size_t{1} + length : value.size());
    // The PIN is text, of which at most 255 bytes are read.
    if (claimsTooMuch || name == "SmartCardPin") value.resize(255);
    const ExactBytes exact(value);
    BYTE* const data = input.ConsumeIntegral<BYTE>() == 0xFF ? nullptr : exact.data();
    kspCall(KSPSetKeyProperty, kspProvider(), key, property.get(), data, claimed, 0);
}

NCRYPT_KEY_HANDLE createKey(FuzzedDataProvider& input) {
    const ExactText algorithm(input.PickValueInArray({"RSA", "ECDSA_P256", "ECDH_P521"}));
    NCRYPT_KEY_HANDLE key = 0;
    kspCall(KSPCreatePersistedKey, kspProvider(), &key, algorithm.get(), nullptr, 0, 0);
    return key;
}

void setKeyProperty(FuzzedDataProvider& input) {
    const bool isNew = input.ConsumeBool();
    const NCRYPT_KEY_HANDLE key = isNew ? createKey(input) : openAnyKey(input);
    for (int count = input.ConsumeIntegralInRange(1, 6); count > 0 && input.remaining_bytes() > 0; --count)
        setProperty(input, key);
    kspCall(KSPFinalizeKey, kspProvider(), key, 0);
    useKspKey(key);
    require(freeKey(key), "a key is freed");
}

std::vector<Bytes> propertySeeds() {
    const Bytes value = ScriptedDeviceLibrary::fakeCertificate("name", "CN=a", "CN=b");
    std::vector<Bytes> seeds;
    // Backwards: not new, its type, one property, its name, no claim, up to 3073 bytes, so many, no null.
    for (BYTE name = 0; name < std::size(kPropertyNames); ++name)
        for (const BYTE keyType : {BYTE{1}, BYTE{4}, BYTE{9}})
            seeds.push_back(
                join(value, Bytes{0, static_cast<BYTE>(value.size()), 0, 0, 0, name, 0, keyType, 0}));
    return seeds;
}

const Target propertyTarget("ksp_set_key_property", setKeyProperty, propertySeeds);

// KSPDeriveKey against the rule for it written down once more

struct KdfHash {
    std::string_view name;
    int mechanism;
};

constexpr std::array<KdfHash, 5> kKdfHashes = {{{"SHA256", kMechanismSha256},
                                                {"SHA1", kMechanismSha1},
                                                {"SHA384", kMechanismSha384},
                                                {"SHA512", kMechanismSha512},
                                                {"SHA224", kMechanismSha224}}};

/// A parameter list, and what is expected of it.
struct ParameterList {
    std::vector<ExactBytes> values;
    std::vector<NCryptBuffer> buffers;
    std::string hashName;
    Bytes labels;
    Bytes contexts;
    bool isNameTooLong = false;  ///< of the last buffer that names a hash
    bool isInputTooLong = false; ///< a label or a context
};

Bytes anyValue(FuzzedDataProvider& input) {
    if (input.ConsumeBool()) {
        return anyBytes(input, 40);
    }
    const std::vector<WCHAR> name = test::wideText(input.PickValueInArray(kKdfHashes).name);
    const auto* first = reinterpret_cast<const unsigned char*>(name.data());
    return {first, first + 2 * name.size()};
}

void addBuffer(FuzzedDataProvider& input, ParameterList& list) {
    const auto type =
        input.PickValueInArray<ULONG>({KDF_HASH_ALGORITHM, kKdfLabel, kKdfContext, 1, 2, 3, 0xFFFFFFFF});
    const Bytes value = anyValue(input);
    const auto oddity = input.ConsumeIntegral<BYTE>();
    const bool isNull = oddity == 0xFF;
    const bool claimsTooMuch = oddity == 0xFE;
    const ExactBytes& exact = list.values.emplace_back(value);
    list.buffers.push_back({.cbBuffer = claimsTooMuch ? ULONG{INT_MAX} + 1 : exact.size(),
                            .BufferType = type,
                            .pvBuffer = isNull ? nullptr : exact.data()});
    if (isNull || (value.empty() && !claimsTooMuch)) return;
    if (type == KDF_HASH_ALGORITHM) list.isNameTooLong = claimsTooMuch;
    if (type == kKdfLabel || type == kKdfContext) list.isInputTooLong = list.isInputTooLong || claimsTooMuch;
    if (type == KDF_HASH_ALGORITHM) list.hashName = fromWideBytes(value);
    if (type == kKdfLabel) list.labels = join(list.labels, value);
    if (type == kKdfContext) list.contexts = join(list.contexts, value);
}

Bytes expectedDigest(const ParameterList& list, bool concatenates, const Bytes& secret) {
    const auto* const named = std::ranges::find(kKdfHashes, list.hashName, &KdfHash::name);
    const int mechanism = named != kKdfHashes.end() ? named->mechanism : kMechanismSha256;
    return ScriptedDeviceLibrary::fakeDigest(
        mechanism, concatenates ? join(list.labels, list.contexts, secret) : secret);
}

void deriveKey(FuzzedDataProvider& input) {
    static constexpr std::array<const char*, 4> kFunctions = {"SP800_56ACONCAT", "HASH", "HMAC", "TRUNCATE"};
    const std::string function = anyOf(input, kFunctions);
    auto record = std::make_shared<KSP_SECRET>();
    const Bytes secret = anyBytes(input, kSecretCapacity);
    std::ranges::copy(secret, record->secret.data());
    record->secretLength = static_cast<std::uint32_t>(secret.size());
    record->deviceSerial = token().serial;
    record->firmwareVersion = "2.0.0";
    const NCRYPT_SECRET_HANDLE handle = LiveRecords<KSP_SECRET>::add(std::move(record));
    ParameterList list;
    for (int count = input.ConsumeIntegralInRange(0, 6); count > 0; --count)
        addBuffer(input, list);
    NCryptBufferDesc description{
        .ulVersion = 0, .cBuffers = static_cast<ULONG>(list.buffers.size()), .pBuffers = list.buffers.data()};

    const ExactText name(function);
    const ExactBytes out(input.ConsumeIntegralInRange<std::size_t>(0, 70));
    BYTE* const data = input.ConsumeBool() ? nullptr : out.data();
    DWORD size = kUntouched;
    const bool done =
        kspCall(KSPDeriveKey, kspProvider(), handle, name.get(), &description, data, out.size(), &size, 0);
    const bool hasRoom = data == nullptr || out.size() != 0;
    const bool concatenates = function == kFunctions[0];
    const bool isTooLong = list.isNameTooLong || (concatenates && list.isInputTooLong);
    require(done == (!secret.empty() && !isTooLong && hasRoom), "a key is derived exactly when it can be");
    if (done) {
        const Bytes digest = expectedDigest(list, concatenates, secret);
        require(size == (out.size() != 0 ? std::min<std::size_t>(out.size(), digest.size()) : digest.size()),
                "the length of the key");
        require(data == nullptr || std::equal(data, data + size, digest.begin()), "the key");
    }
    require(kspCall(KSPFreeSecret, kspProvider(), handle), "a secret is freed");
}

std::vector<Bytes> deriveSeeds() {
    std::vector<Bytes> seeds;
    for (const BYTE function : {BYTE{0}, BYTE{1}}) {
        for (BYTE hash = 0; hash < kKdfHashes.size(); ++hash) {
            // Backwards: function, 32 bytes of secret, three buffers (a hash by its name, a label and a
            // context of ten bytes), 32 bytes of key into a buffer.
            seeds.push_back(
                join(counting(52), Bytes{0, 32, 0, 10, 1, 2, 0, 10, 1, 1, 0, hash, 0, 0, 3, 32, function}));
        }
    }
    return seeds;
}

const Target deriveTarget("ksp_derive_key", deriveKey, deriveSeeds);

} // namespace
} // namespace veltra::fuzz
