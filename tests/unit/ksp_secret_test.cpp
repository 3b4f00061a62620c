#include "support/blob_bytes.h"
#include "support/ksp_test.h"

#include "foundation/text.h"
#include "ksp/ksp_secret.h"

#include <algorithm>
#include <climits>

namespace veltra::test {
namespace {

constexpr const char* kConcat = "SP800_56ACONCAT";
const Bytes kSecret = counting(32, 1);

/// A parameter of a derivation.
NCryptBuffer parameter(ULONG type, const Bytes& bytes) {
    return {static_cast<ULONG>(bytes.size()), type, const_cast<BYTE*>(bytes.data())};
}

class KspSecretTest : public KspTest {
protected:
    KspSecretTest() { storePinOfToken(); }

    /// A key object with this public key and nothing else.
    NCRYPT_KEY_HANDLE keyOf(const Bytes& point) {
        auto key = std::make_unique<KSP_KEY>();
        key->setPublicKey(point);
        return addKey(std::move(key));
    }
    StatusAnswer agree(NCRYPT_KEY_HANDLE key, NCRYPT_KEY_HANDLE peer) {
        secret = 0;
        library.clearCalls();
        const StatusAnswer answer = call(KSPSecretAgreement, provider, key, peer, &secret, 0);
        record = liveSecret(keep(secret));
        EXPECT_EQ(record != nullptr, answer == succeeded());
        return answer;
    }
    StatusAnswer derive(const char* kdf, std::vector<NCryptBuffer> parameters, DWORD capacity = 16) {
        // Without buffers the list is empty whatever its count says.
        const std::size_t count = parameters.empty() ? 3 : parameters.size();
        NCryptBufferDesc list{0, static_cast<ULONG>(count), parameters.data()};
        derived.assign(capacity, 0xEE);
        derived.reserve(1); // a buffer, of whatever size
        library.clearCalls();
        const StatusAnswer answer =
            call(KSPDeriveKey, 0, secret, wideText(kdf).data(), &list, derived.data(), capacity, &size, 0);
        if (answer == succeeded()) derived.resize(size);
        return answer;
    }

    const NCRYPT_KEY_HANDLE privateKey = addKey(token.addKeyPair(0x11, kKeyTypeEcP256, kUsageEncrypt));
    const NCRYPT_KEY_HANDLE peerKey = keyOf(ScriptedDeviceLibrary::publicKeyOf(kKeyTypeEcP384)); ///< longer
    NCRYPT_SECRET_HANDLE secret = 0;
    std::shared_ptr<KSP_SECRET> record; ///< behind it
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
        agree(peerKey, keyOf({})),
        failed(NTE_BAD_KEY, {"KSPSecretAgreement: private key has no credential ID (not a device key)"}));
    for (const Bytes& point : {Bytes{}, Bytes{4, 1}, Bytes{2, 1, 2}})
        EXPECT_EQ(agree(privateKey, keyOf(point)),
                  failed(NTE_BAD_KEY, {"KSPSecretAgreement: peer public key is not uncompressed EC point"}));
    EXPECT_THAT(library.calls(), IsEmpty());
}

TEST_F(KspSecretTest, AgreementPassesThePointWholeAndKeeps66Bytes) {
    for (const int length : {1, 66, 67, 200}) {
        library.script("veltra_ecdhDerive", {.length = length});
        ASSERT_EQ(agree(privateKey, peerKey), succeeded());
        EXPECT_EQ(toHex(record->bytes()), toHex(counting(static_cast<std::size_t>(std::min(length, 66)), 1)));
        EXPECT_THAT(library.calls(), ElementsAre("veltra_ecdhDerive(serial=" + serial +
                                                 ", key=1111..1111, pin=1234, peer=04C1..1F20(97))"));
    }
    for (const auto& [script, code] :
         {std::pair{Script{.result = kDeviceSessionExpired}, 49}, {{.length = 0}, 0}}) {
        library.script("veltra_ecdhDerive", script);
        EXPECT_EQ(agree(privateKey, peerKey),
                  failed(NTE_INTERNAL_ERROR, {concat("KSPSecretAgreement: ECDH derive failed, ret=", code)}));
        EXPECT_THAT(library.calls(), SizeIs(1)) << "no second try";
    }
}

// The fuzz target looks at every list of parameters and every size.
TEST_F(KspSecretTest, DerivationHashesOnceAndNeverExpandsAlsoWithoutTheProvider) {
    const Bytes label = {'l', 'a'}, more = {'b'}, context = {'c', 'o'};
    const std::vector<NCryptBuffer> all = {parameter(14, context), parameter(8, label), parameter(13, label),
                                           NCryptBuffer{100, 13, nullptr}, parameter(13, more)};
    ASSERT_EQ(agree(privateKey, peerKey), succeeded());
    EXPECT_EQ(KSPFreeProvider(provider), 0);
    EXPECT_EQ(derive(kConcat, all, 100), succeeded());
    EXPECT_EQ(derived, ScriptedDeviceLibrary::fakeDigest(3, joined({label, more, context, kSecret})));
    EXPECT_THAT(library.calls(), ElementsAre("veltra_initHash(serial=" + serial + ", algorithm=3)",
                                             "veltra_updateHash(hash=1, data=6C61..1F20(37))",
                                             "veltra_finalHash(hash=1, capacity=32)"));
    EXPECT_EQ(derive("SP800_56A_CONCAT", all, 100), succeeded());
    EXPECT_EQ(derived, ScriptedDeviceLibrary::fakeDigest(3, kSecret))
        << "the platform's name is none here: deliberate";
    Bytes hash = wideBytes("SHA224");
    hash.resize(64); // so much is read of it
    EXPECT_EQ(derive(kConcat, {{INT_MAX, 0, hash.data()}}), succeeded());
    EXPECT_THAT(library.calls()[0], testing::EndsWith("algorithm=6)"));
    for (const NCRYPT_SECRET_HANDLE handle : {secret, secret, NCRYPT_SECRET_HANDLE{0}})
        EXPECT_EQ(call(KSPFreeSecret, 0, handle), succeeded());
}

TEST_F(KspSecretTest, DerivationRefusals) {
    ASSERT_EQ(agree(privateKey, peerKey), succeeded());
    EXPECT_EQ(derive("", {}, 0), failed(NTE_BUFFER_TOO_SMALL, {"KSPDeriveKey: output buffer too small"}));
    EXPECT_EQ(std::exchange(size, 77), 32u);
    for (const auto& [function, script, text] :
         {std::tuple{"veltra_initHash", Script{.result = 7}, "veltra_initHash failed, ret=7"},
          {"veltra_updateHash", {.result = 7}, "veltra_finalHash failed, ret=7"},
          {"veltra_finalHash", {.length = 31}, "veltra_finalHash failed, ret=4294967295"}}) {
        library.clearScripts();
        library.script(function, script);
        EXPECT_EQ(derive("", {}), failed(NTE_INTERNAL_ERROR, {concat("KSPDeriveKey: ", text)}));
    }
    BYTE byte = 1;
    for (const NCryptBuffer& buffer : {NCryptBuffer{INT_MAX, 13, &byte}, {INT_MAX + 1u, 0, &byte}})
        EXPECT_EQ(derive(kConcat, {buffer}),
                  failed(NTE_INVALID_PARAMETER, {"KSPDeriveKey: a length is too large"}));
    record->firmwareVersion = "1.9";
    EXPECT_EQ(derive("", {}),
              failed(NTE_NOT_SUPPORTED, {"KSPDeriveKey: ECDH derive not supported on firmware 1.9"}));
    record->secretLength = 0;
    EXPECT_EQ(derive("", {}), failed(NTE_INVALID_HANDLE, {"KSPDeriveKey: invalid secret handle"}));
    EXPECT_EQ(size, 77u);
}

} // namespace
} // namespace veltra::test
