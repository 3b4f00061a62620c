#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/text.h"
#include "ksp/ksp_secret.h"

#include <algorithm>
#include <climits>

namespace veltra::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kConcat = "SP800_56ACONCAT";
const Bytes kSecret = counting(32, 1);

/// A parameter of a derivation; `length` overrides what the list says of it.
struct Parameter {
    ULONG type;
    Bytes bytes;
    std::optional<ULONG> length = {};
};

Bytes wideBytes(const std::string& ascii) {
    Bytes bytes(wideSize(ascii));
    writeWide(ascii, bytes.data());
    return bytes;
}

class KspSecretTest : public KspTest {
protected:
    KspSecretTest() : provider(openProvider()) {
        privateKey = addKey(token.addKeyPair(0x11, kKeyTypeEcP256, kUsageEncrypt));
        auto peer = std::make_unique<KSP_KEY>();
        peer->setPublicKey(ScriptedDeviceLibrary::publicKeyOf(kKeyTypeEcP384)); // not the curve of the key
        peerKey = addKey(std::move(peer));
        storePinOfToken();
    }
    ~KspSecretTest() override {
        for (const NCRYPT_SECRET_HANDLE handle : secrets)
            KSPFreeSecret(0, handle);
    }

    StatusAnswer agree(NCRYPT_PROV_HANDLE with, NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE peer) {
        NCRYPT_SECRET_HANDLE handle = 0;
        const StatusAnswer answer = call([&] { return KSPSecretAgreement(with, key, peer, &handle, 0); });
        EXPECT_EQ(handle != 0, answer == succeeded());
        if (handle != 0) secrets.push_back(handle);
        return answer;
    }
    NCRYPT_SECRET_HANDLE newSecret() {
        EXPECT_EQ(agree(provider, privateKey, peerKey), succeeded());
        return secrets.back();
    }
    StatusAnswer derive(const std::string& kdf, const std::vector<Parameter>& parameters, DWORD capacity) {
        std::vector<NCryptBuffer> buffers;
        for (const Parameter& row : parameters) {
            const auto length = row.length.value_or(static_cast<ULONG>(row.bytes.size()));
            buffers.push_back(
                {length, row.type, row.bytes.empty() ? nullptr : const_cast<BYTE*>(row.bytes.data())});
        }
        NCryptBufferDesc list{0, static_cast<ULONG>(buffers.size()), buffers.data()};
        derived.assign(capacity, 0);
        library.clearCalls();
        return call([&] {
            return KSPDeriveKey(0, secrets.back(), kdf.empty() ? nullptr : wideText(kdf).data(), &list,
                                derived.data(), capacity, &size, 0);
        });
    }
    void expectKey(int mechanism, const Bytes& input, std::size_t length) const {
        Bytes expected = ScriptedDeviceLibrary::fakeDigest(mechanism, input);
        expected.resize(length);
        EXPECT_EQ(size, length);
        EXPECT_EQ(Bytes(derived.begin(), derived.begin() + static_cast<long>(length)), expected);
        EXPECT_THAT(debugLines,
                    ElementsAre("KSPDeriveKey", concat("KSPDeriveKey: derived ", length, " bytes")));
    }

    const NCRYPT_PROV_HANDLE provider;
    NCRYPT_KEY_HANDLE privateKey;
    NCRYPT_KEY_HANDLE peerKey;
    std::vector<NCRYPT_SECRET_HANDLE> secrets;
    Bytes derived;
    DWORD size = 77;
};

TEST_F(KspSecretTest, AgreementChecksInOrder) {
    EXPECT_EQ(call([] { return KSPSecretAgreement(0, 0, 0, nullptr, 0); }),
              failed(NTE_INVALID_HANDLE, {"KSPSecretAgreement: provider not initialized"}));
    token.info.firmwareVersion = "1.5.3";
    const NCRYPT_PROV_HANDLE old = openProvider();
    EXPECT_EQ(call([&] { return KSPSecretAgreement(old, 0, 0, nullptr, 0); }),
              failed(NTE_INVALID_PARAMETER, {"KSPSecretAgreement: phAgreedSecret is null"}));
    EXPECT_EQ(agree(old, 0, 0),
              failed(NTE_NOT_SUPPORTED, {"KSPSecretAgreement: ECDH not supported on firmware 1.5.3"}));
    const StatusAnswer noKey = failed(NTE_INVALID_HANDLE, {"KSPSecretAgreement: key handle is null"});
    EXPECT_EQ(agree(provider, 0, peerKey), noKey);
    EXPECT_EQ(agree(provider, peerKey, provider), noKey);
    EXPECT_EQ(
        agree(provider, peerKey, peerKey),
        failed(NTE_BAD_KEY, {"KSPSecretAgreement: private key has no credential ID (not a device key)"}));
    for (const Bytes& point : {Bytes{}, Bytes{4, 1}, Bytes{2, 1, 2}}) {
        auto peer = std::make_unique<KSP_KEY>();
        peer->setPublicKey(point);
        EXPECT_EQ(agree(provider, privateKey, addKey(std::move(peer))),
                  failed(NTE_BAD_KEY, {"KSPSecretAgreement: peer public key is not uncompressed EC point"}));
    }
    library.addToken(freshName("Unverified"));
    library.setConnected(serial, false);
    EXPECT_EQ(agree(openProvider(), privateKey, peerKey),
              failed(NTE_FAIL, {"KSPSecretAgreement: password validation failed"}));
    EXPECT_THAT(library.calls("veltra_ecdhDerive"), IsEmpty());
}

TEST_F(KspSecretTest, AgreementPassesThePointWholeAndKeeps66Bytes) {
    for (const int length : {1, 32, 66, 67, 200}) {
        library.clearScripts();
        library.clearCalls();
        library.script("veltra_ecdhDerive", {.length = length});
        const auto secret = liveSecret(newSecret());
        EXPECT_EQ(Bytes(secret->bytes().begin(), secret->bytes().end()),
                  counting(static_cast<std::size_t>(std::min(length, 66)), 1));
        EXPECT_THAT(library.calls(), ElementsAre("veltra_ecdhDerive(serial=" + serial +
                                                 ", key=1111..1111, pin=1234, peer=04C1..1F20(97))"));
        EXPECT_EQ(debugLines.back(), concat("KSPSecretAgreement: ECDH shared secret computed, len=", length));
    }
    for (const auto& [script, code] :
         {std::pair{Script{.result = kDeviceSessionExpired}, 49}, {{.length = 0}, 0}, {{.length = -1}, 0}}) {
        library.clearScripts();
        library.clearCalls();
        library.script("veltra_ecdhDerive", script);
        EXPECT_EQ(agree(provider, privateKey, peerKey),
                  failed(NTE_INTERNAL_ERROR, {concat("KSPSecretAgreement: ECDH derive failed, ret=", code)}));
        EXPECT_EQ(library.calls().size(), 1u) << "no second try";
    }
}

TEST_F(KspSecretTest, DerivationHashesOnceAndNeverExpands) {
    newSecret();
    const Bytes label = {'l', 'a'}, more = {'b'}, context = {'c', 'o'};
    const std::vector<Parameter> all = {{14, context}, {8, {9}},  {13, label},
                                        {9, {9}},      {10, {9}}, {13, more}};
    const Bytes everything = joined({label, more, context, kSecret});
    EXPECT_EQ(derive(kConcat, all, 16), succeeded());
    expectKey(kMechanismSha256, everything, 16);
    EXPECT_THAT(library.calls(), ElementsAre("veltra_initHash(serial=" + serial + ", algorithm=3)",
                                             "veltra_updateHash(hash=1, data=6C61..1F20(37))",
                                             "veltra_finalHash(hash=1, capacity=32)"));
    for (const char* other : {"", "HASH", "SP800_56A_CONCAT", "sp800_56aconcat"}) {
        EXPECT_EQ(derive(other, all, 100), succeeded());
        expectKey(kMechanismSha256, kSecret, 32);
    }
    for (const auto& [text, mechanism, length] : {std::tuple{"SHA1", 2, 20u},
                                                  {"SHA224", 6, 28u},
                                                  {"SHA256", 3, 32u},
                                                  {"SHA384", 4, 48u},
                                                  {"SHA512", 5, 64u},
                                                  {"MD5", 3, 32u}}) {
        const Bytes name = wideBytes(text);
        const Bytes unterminated(name.begin(), name.end() - 2), odd(name.begin(), name.end() - 1);
        for (const Bytes& form : {name, unterminated, odd}) {
            EXPECT_EQ(derive(kConcat, {{0, wideBytes("SHA1")}, {0, form}, {0, {}}}, 0xFFFF), succeeded());
            expectKey(mechanism, kSecret, length);
        }
    }
}

TEST_F(KspSecretTest, DerivedSizes) {
    const NCRYPT_SECRET_HANDLE secret = newSecret();
    const auto ask = [&](BYTE* out, DWORD capacity) {
        NCryptBufferDesc list{0, 3, nullptr}; // no buffers, whatever its count says
        return call([&] { return KSPDeriveKey(0, secret, nullptr, &list, out, capacity, &size, 0); });
    };
    for (const auto& [capacity, expected] : {std::pair{0u, 32u}, {16u, 16u}, {0xFFFFFFFFu, 32u}}) {
        library.clearCalls();
        EXPECT_EQ(ask(nullptr, capacity), succeeded());
        EXPECT_EQ(size, expected);
        EXPECT_EQ(library.calls().size(), 3u) << "a size query hashes";
    }
    BYTE byte = 0x55;
    EXPECT_EQ(ask(&byte, 0), failed(NTE_BUFFER_TOO_SMALL, {"KSPDeriveKey: output buffer too small"}));
    EXPECT_EQ(size, 32u);
    EXPECT_EQ(byte, 0x55);
}

TEST_F(KspSecretTest, DerivationRefusals) {
    const NCRYPT_SECRET_HANDLE secret = newSecret();
    const auto ask = [&](NCRYPT_SECRET_HANDLE handle, DWORD* out) {
        return call([&] { return KSPDeriveKey(provider, handle, nullptr, nullptr, nullptr, 0, out, 0); });
    };
    const StatusAnswer invalid = failed(NTE_INVALID_PARAMETER, {"KSPDeriveKey: invalid parameter"});
    EXPECT_EQ(ask(0, &size), invalid);
    EXPECT_EQ(ask(privateKey, &size), invalid);
    EXPECT_EQ(ask(secret, nullptr), invalid);
    for (const char* function : {"veltra_initHash", "veltra_updateHash", "veltra_finalHash"}) {
        library.script(function, {.result = 7});
        const bool first = std::string(function) == "veltra_initHash";
        EXPECT_EQ(ask(secret, &size),
                  failed(NTE_INTERNAL_ERROR,
                         {concat("KSPDeriveKey: veltra_", first ? "init" : "final", "Hash failed, ret=7")}));
        library.clearScripts();
    }
    for (const int length : {-1, 31, 33}) {
        library.script("veltra_finalHash", {.length = length});
        EXPECT_EQ(ask(secret, &size).status, NTE_INTERNAL_ERROR);
        library.clearScripts();
    }
    for (const ULONG type : {0u, 13u, 14u}) {
        EXPECT_EQ(derive(kConcat, {{type, {}, 100}}, 16), succeeded()) << "null, whatever its length says";
        expectKey(kMechanismSha256, kSecret, 16);
    }
    for (const ULONG type : {13u, 14u}) {
        EXPECT_EQ(derive(kConcat, {{type, {1}, INT_MAX}}, 16),
                  failed(NTE_INVALID_PARAMETER, {"KSPDeriveKey: a length is too large"}))
            << "with the secret";
        EXPECT_EQ(derive("HASH", {{type, {1}, INT_MAX + 1u}}, 16), succeeded()) << "not looked at";
        expectKey(kMechanismSha256, kSecret, 16);
    }
    EXPECT_EQ(derive("HASH", {{0, {1}, INT_MAX + 1u}}, 16),
              failed(NTE_INVALID_PARAMETER, {"KSPDeriveKey: a length is too large"}));
    Bytes name = wideBytes("SHA1");
    name.resize(64);
    EXPECT_EQ(derive(kConcat, {{0, name, INT_MAX}}, 16), succeeded()) << "of a name 64 bytes are read";
    expectKey(kMechanismSha1, kSecret, 16);
    size = 77;
    liveSecret(secret)->firmwareVersion = "1.9";
    EXPECT_EQ(ask(secret, &size),
              failed(NTE_NOT_SUPPORTED, {"KSPDeriveKey: ECDH derive not supported on firmware 1.9"}));
    liveSecret(secret)->secretLength = 0;
    EXPECT_EQ(ask(secret, &size), failed(NTE_INVALID_HANDLE, {"KSPDeriveKey: invalid secret handle"}));
    EXPECT_EQ(size, 77u);
}

TEST_F(KspSecretTest, SecretOutlivesItsProviderAndIsFreedOnce) {
    const NCRYPT_SECRET_HANDLE secret = newSecret();
    EXPECT_EQ(KSPFreeProvider(provider), 0);
    EXPECT_EQ(derive("", {}, 32), succeeded());
    expectKey(kMechanismSha256, kSecret, 32);
    for (const NCRYPT_SECRET_HANDLE handle : {secret, secret, NCRYPT_SECRET_HANDLE{0}})
        EXPECT_EQ(call([&] { return KSPFreeSecret(0, handle); }), succeeded());
    EXPECT_EQ(derive("", {}, 32).status, NTE_INVALID_PARAMETER);
}

} // namespace
} // namespace veltra::test
