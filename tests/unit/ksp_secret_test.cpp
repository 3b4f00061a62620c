#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/text.h"
#include "ksp/ksp_secret.h"
#include "token/device_state.h"

#include <algorithm>
#include <climits>

namespace veltra::test {
namespace {

const std::string kConcat = "SP800_56ACONCAT";
const Bytes kSecret = counting(32, 1);

/// A parameter of a derivation; `length` overrides what the list says of it.
struct Parameter {
    ULONG type;
    Bytes bytes;
    std::optional<ULONG> length = {};
};

class KspSecretTest : public KspTest {
protected:
    KspSecretTest() {
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

    StatusAnswer agree(NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE peer) {
        NCRYPT_SECRET_HANDLE handle = 0;
        const StatusAnswer answer = call(KSPSecretAgreement, provider, key, peer, &handle, 0);
        EXPECT_EQ(handle != 0, answer == succeeded());
        if (handle != 0) secrets.push_back(handle);
        return answer;
    }
    NCRYPT_SECRET_HANDLE newSecret() {
        EXPECT_EQ(agree(privateKey, peerKey), succeeded());
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
        return call(KSPDeriveKey, 0, secrets.back(), kdf.empty() ? nullptr : wideText(kdf).data(), &list,
                    derived.data(), capacity, &size, 0);
    }
    /// The key is the beginning of the digest of `input`.
    void expectDerived(const std::string& kdf, const std::vector<Parameter>& parameters, DWORD capacity,
                       int mechanism, const Bytes& input) {
        Bytes expected = ScriptedDeviceLibrary::fakeDigest(mechanism, input);
        expected.resize(std::min<std::size_t>(capacity, expected.size()));
        EXPECT_EQ(derive(kdf, parameters, capacity), succeeded());
        derived.resize(size);
        EXPECT_EQ(derived, expected);
        EXPECT_THAT(debugLines,
                    ElementsAre("KSPDeriveKey", concat("KSPDeriveKey: derived ", size, " bytes")));
    }

    NCRYPT_KEY_HANDLE privateKey;
    NCRYPT_KEY_HANDLE peerKey;
    std::vector<NCRYPT_SECRET_HANDLE> secrets;
    Bytes derived;
};

TEST_F(KspSecretTest, AgreementChecksInOrder) {
    token.info.firmwareVersion = "1.5.3";
    provider = openProvider();
    EXPECT_EQ(agree(0, 0),
              failed(NTE_NOT_SUPPORTED, {"KSPSecretAgreement: ECDH not supported on firmware 1.5.3"}));
    token.info.firmwareVersion = "2";
    provider = openProvider();
    EXPECT_EQ(
        agree(peerKey, peerKey),
        failed(NTE_BAD_KEY, {"KSPSecretAgreement: private key has no credential ID (not a device key)"}));
    for (const Bytes& point : {Bytes{}, Bytes{4, 1}, Bytes{2, 1, 2}}) {
        auto peer = std::make_unique<KSP_KEY>();
        peer->setPublicKey(point);
        EXPECT_EQ(agree(privateKey, addKey(std::move(peer))),
                  failed(NTE_BAD_KEY, {"KSPSecretAgreement: peer public key is not uncompressed EC point"}));
    }
    forgetPin(serial);
    EXPECT_EQ(agree(privateKey, peerKey),
              failed(NTE_FAIL, {"KSPSecretAgreement: password validation failed"}));
    EXPECT_THAT(library.calls("veltra_ecdhDerive"), IsEmpty());
}

TEST_F(KspSecretTest, AgreementPassesThePointWholeAndKeeps66Bytes) {
    for (const int length : {1, 32, 66, 67, 200}) {
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
        library.clearCalls();
        library.script("veltra_ecdhDerive", script);
        EXPECT_EQ(agree(privateKey, peerKey),
                  failed(NTE_INTERNAL_ERROR, {concat("KSPSecretAgreement: ECDH derive failed, ret=", code)}));
        EXPECT_EQ(library.calls().size(), 1u) << "no second try";
    }
}

TEST_F(KspSecretTest, DerivationHashesOnceAndNeverExpands) {
    newSecret();
    const Bytes label = {'l', 'a'}, more = {'b'}, context = {'c', 'o'};
    const std::vector<Parameter> all = {{14, context}, {8, {9}},  {13, label},
                                        {9, {9}},      {10, {9}}, {13, more}};
    expectDerived(kConcat, all, 16, kMechanismSha256, joined({label, more, context, kSecret}));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_initHash(serial=" + serial + ", algorithm=3)",
                                             "veltra_updateHash(hash=1, data=6C61..1F20(37))",
                                             "veltra_finalHash(hash=1, capacity=32)"));
    for (const char* other : {"", "HASH", "SP800_56A_CONCAT", "sp800_56aconcat"})
        expectDerived(other, all, 100, kMechanismSha256, kSecret);
    for (const auto& [text, mechanism] :
         {std::pair{"SHA1", 2}, {"SHA224", 6}, {"SHA256", 3}, {"SHA384", 4}, {"SHA512", 5}, {"MD5", 3}}) {
        const Bytes name = wideBytes(text);
        const Bytes unterminated(name.begin(), name.end() - 2), odd(name.begin(), name.end() - 1);
        for (const Bytes& form : {name, unterminated, odd})
            expectDerived(kConcat, {{0, wideBytes("SHA1")}, {0, form}, {0, {}}}, 0xFFFF, mechanism, kSecret);
    }
}

TEST_F(KspSecretTest, DerivedSizes) {
    const NCRYPT_SECRET_HANDLE secret = newSecret();
    const auto ask = [&](BYTE* out, DWORD capacity) {
        NCryptBufferDesc list{0, 3, nullptr}; // no buffers, whatever its count says
        return call(KSPDeriveKey, 0, secret, nullptr, &list, out, capacity, &size, 0);
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
    const auto ask = [&] {
        return call(KSPDeriveKey, provider, secret, nullptr, nullptr, nullptr, 0, &size, 0);
    };
    for (const auto& [function, named] :
         {std::pair{"initHash", "init"}, {"updateHash", "final"}, {"finalHash", "final"}}) {
        library.script(concat("veltra_", function), {.result = 7});
        EXPECT_EQ(ask(),
                  failed(NTE_INTERNAL_ERROR, {concat("KSPDeriveKey: veltra_", named, "Hash failed, ret=7")}));
        library.clearScripts();
    }
    for (const int length : {-1, 31, 33}) {
        library.script("veltra_finalHash", {.length = length});
        EXPECT_EQ(ask().status, NTE_INTERNAL_ERROR);
        library.clearScripts();
    }
    const auto tooLarge = failed(NTE_INVALID_PARAMETER, {"KSPDeriveKey: a length is too large"});
    for (const ULONG type : {0u, 13u, 14u}) // null, whatever its length says
        expectDerived(kConcat, {{type, {}, 100}}, 16, kMechanismSha256, kSecret);
    for (const ULONG type : {13u, 14u}) {
        EXPECT_EQ(derive(kConcat, {{type, {1}, INT_MAX}}, 16), tooLarge) << "with the secret";
        expectDerived("HASH", {{type, {1}, INT_MAX + 1u}}, 16, kMechanismSha256, kSecret); // not looked at
    }
    EXPECT_EQ(derive("HASH", {{0, {1}, INT_MAX + 1u}}, 16), tooLarge);
    Bytes name = wideBytes("SHA1");
    name.resize(64); // so much is read of it
    expectDerived(kConcat, {{0, name, INT_MAX}}, 16, kMechanismSha1, kSecret);
    size = 77;
    liveSecret(secret)->firmwareVersion = "1.9";
    EXPECT_EQ(ask(), failed(NTE_NOT_SUPPORTED, {"KSPDeriveKey: ECDH derive not supported on firmware 1.9"}));
    liveSecret(secret)->secretLength = 0;
    EXPECT_EQ(ask(), failed(NTE_INVALID_HANDLE, {"KSPDeriveKey: invalid secret handle"}));
    EXPECT_EQ(size, 77u);
}

TEST_F(KspSecretTest, SecretOutlivesItsProviderAndIsFreedOnce) {
    const NCRYPT_SECRET_HANDLE secret = newSecret();
    EXPECT_EQ(KSPFreeProvider(provider), 0);
    expectDerived("", {}, 32, kMechanismSha256, kSecret);
    for (const NCRYPT_SECRET_HANDLE handle : {secret, secret, NCRYPT_SECRET_HANDLE{0}})
        EXPECT_EQ(call(KSPFreeSecret, 0, handle), succeeded());
    EXPECT_EQ(derive("", {}, 32).status, NTE_INVALID_PARAMETER);
}

} // namespace
} // namespace veltra::test
