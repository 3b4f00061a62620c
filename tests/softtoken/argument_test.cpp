// What no caller should pass.

#include "softtoken_test.h"

#include "aes_encryption.h"

#include <tuple>
#include <type_traits>

namespace veltra::softtoken::test {

namespace {

/// Fails the test for every result that is success, or one of the three codes that callers act upon.
void expectRefusals(std::initializer_list<int> results) {
    for (const int result : results)
        EXPECT_THAT(result,
                    testing::AllOf(testing::Ne(kDeviceOk), testing::Ne(kDeviceTimeMismatch),
                                   testing::Ne(kDeviceSessionExpired), testing::Ne(kDeviceWeakHashRefused)))
            << "call " << &result - results.begin();
}

/// The places for a buffer that a function of the DLL hands out. Not empty before, to show who clears it.
struct LibraryOutput {
    unsigned char anything = 0;
    unsigned char* data = &anything;
    int length = 77;

    [[nodiscard]] bool isEmpty() const { return data == nullptr && length == 0; }
};

/// Calls `function` with each argument in turn that has an x in `spoilt` null or -1, and the others valid.
template <class... Parameters>
void refusesEach(const char* name, const char* spoilt, int (*function)(Parameters...),
                 std::type_identity_t<Parameters>... valid) {
    ASSERT_EQ(std::strlen(spoilt), sizeof...(Parameters)) << name;
    for (std::size_t which = 0; which < sizeof...(Parameters); ++which) {
        if (spoilt[which] != 'x') continue;
        SCOPED_TRACE(testing::Message() << name << ", argument " << which);
        std::size_t index = 0;
        const auto pick = [&](auto argument) {
            using Argument = decltype(argument);
            if (index++ != which) return argument;
            if constexpr (std::is_pointer_v<Argument>)
                return Argument{nullptr};
            else
                return static_cast<Argument>(~0u);
        };
        const std::tuple<Parameters...> arguments{pick(valid)...}; // braces: from left to right
        expectRefusals({std::apply(function, arguments)});
    }
}

} // namespace

TEST_F(SoftTokenTest, OnlyNamesOfTokensAreSerials) {
    create("A-token_1.x");
    fs::create_directories(home_ / "not a token");
    fs::create_directories(home_ / "empty");
    EXPECT_EQ(veltra_getConnectedDeviceList(true, nullptr),
              (std::vector<std::string>{"A-token_1.x", kSerial}));
    const std::string outside = "..\\" + home_.filename().string() + "\\" + kSerial;
    const std::string tooLong(100'000, 'T');
    for (const char* serial : {"t1", "empty", "", ".", "..", outside.c_str(), "./T1", "T1.", "T1:x", "NUL",
                               "com1.txt", tooLong.c_str(), "T1\xFF"}) {
        SCOPED_TRACE(std::string(serial).substr(0, 80));
        EXPECT_NE(veltra_initDevice(serial, false, nullptr), 0);
        EXPECT_TRUE(veltra_getTokenInfo(serial, nullptr).model.empty());
        EXPECT_TRUE(veltra_getKeyPairList(serial, nullptr).empty());
        const bool mayBeMade = serial == std::string("t1") || serial == std::string("empty");
        if (mayBeMade) continue;
        EXPECT_EQ(failureOf([&] { create(serial); }), Failure::BadArgument);
    }
}

TEST_F(SoftTokenTest, HostileArgumentsAreRefused) {
    ASSERT_EQ(veltra_validatePassword(kSerial, kPin, 1, nullptr, nullptr), 0);
    logIn();
    const VeltraKeyPair key = generate(kKeyTypeEcP256);
    const VeltraKeyPair rsa = generate(kKeyTypeRsa2048);
    const Bytes der = fromHex("30820122300D06092A864886F70D01010105000382010F003082010A0282010100" +
                              toHex({rsa.publicKey, 256}) + "0203010001"); // SubjectPublicKeyInfo
    const int derLength = static_cast<int>(der.size());
    const Bytes hash(32);
    const Bytes signature = sign(key);
    VeltraKeyPair newKey{};
    VeltraKeyPair rsa1024{};
    rsa1024.keyType = kKeyTypeRsa1024;
    VeltraSymmetricKey aes = aesRecord(Bytes(16));
    VeltraCertificate certificate = certificateRecord(leaf_, 1);
    unsigned char bytes[256] = {};
    LibraryOutput out;
    int length = 256;
    int negative = -1;
    int oneLess = 27;
    CertificateDetails details;
    void* state = nullptr;
    void* other = nullptr;
    ASSERT_EQ(veltra_initHash("", kMechanismSha224, &state, nullptr), 0);
    ASSERT_EQ(veltra_updateHash(state, bytesOf("abc").data(), 3, nullptr), 0);
    const auto* id = key.keyId;
    constexpr auto kEcb = EncryptionType::Aes128Ecb;
    refusesEach("initDevice", "x..", veltra_initDevice, kSerial, false, nullptr);
    refusesEach("validatePassword", "xx...", veltra_validatePassword, kSerial, kPin, 1, &length, nullptr);
    refusesEach("generateKeyPair", "x.x.", veltra_generateKeyPair, kSerial, kPin, &newKey, nullptr);
    refusesEach("deleteKeyPair", "xx...", veltra_deleteKeyPair, kSerial, id, kPin, false, nullptr);
    refusesEach("updateKeyPairDetails", "xx.x.x.", veltra_updateKeyPairDetails, kSerial, id, kPin, "x", bytes,
                0, nullptr);
    refusesEach("importAesKey", "x.x.", veltra_importAesKey, kSerial, kPin, &aes, nullptr);
    refusesEach("importCertificate", "x.x.", veltra_importCertificate, kSerial, kPin, &certificate, nullptr);
    refusesEach("random", ".xx..", veltra_generateRamdomNumber, "", 1, bytes, true, nullptr);
    refusesEach("signHash", "xx.xxxx...", veltra_signHash, kSerial, id, kPin, hash.data(), 32, bytes, &length,
                false, nullptr, false);
    refusesEach("verify", "x.xxxxxx..", veltra_verifySignatureHash, 5, "", hash.data(), 32, key.publicKey, 65,
                signature.data(), 64, nullptr, false);
    refusesEach("ecdhDerive", "xx.xxxx.", veltra_ecdhDerive, kSerial, id, kPin, key.publicKey, 65, &out.data,
                &out.length, nullptr);
    refusesEach("encrypt", "xxxxxxxx.", veltra_encrypt, EncryptionType::Rsa2048, PaddingMode::Pkcs1, bytes,
                16, bytes, &length, der.data(), derLength, nullptr);
    refusesEach("decrypt", "xx.xxxx..", veltra_decrypt, kSerial, rsa.keyId, kPin, bytes, 256, &out.data,
                &out.length, false, nullptr);
    refusesEach("encrypt_aes", ".xxxxxxx..x.x.", veltra_encrypt_aes, "", kEcb, bytes, 16, bytes, 16,
                &out.data, &out.length, false, nullptr, 0, nullptr, 0, nullptr);
    refusesEach("decrypt_aes", ".xxxxxx..x.", veltra_decrypt_aes, "", bytes, 16, bytes, 32, &out.data,
                &out.length, false, bytes, 16, nullptr);
    refusesEach("decryptSymetric", ".xxxxxxxx.", veltra_decryptSymetric, "", bytes, 32, bytes, &length, bytes,
                16, bytes, 16, nullptr);
    refusesEach("initHash", ".xx.", veltra_initHash, "", kMechanismSha256, &other, nullptr);
    refusesEach("updateHash", "xxx.", veltra_updateHash, state, bytes, 1, nullptr);
    refusesEach("finalHash", "xxx.", veltra_finalHash, state, bytes, &length, nullptr);

    const auto signSome = [&](int hashLength, int* capacity) {
        return veltra_signHash(kSerial, id, kPin, bytes, hashLength, bytes, capacity, false, nullptr, false);
    };
    // No such hash, no such token, bad capacities, and keys of another kind.
    expectRefusals(
        {signSome(0, &length), signSome(33, &length), signSome(32, &negative), signSome(32, &oneLess),
         veltra_generateKeyPair(kSerial, kPin, &rsa1024, nullptr),
         veltra_encrypt(EncryptionType::Rsa2048, PaddingMode::Pkcs1, bytes, 16, bytes, &oneLess, der.data(),
                        derLength, nullptr),
         veltra_ecdhDerive(kSerial, rsa.keyId, kPin, key.publicKey, 65, &out.data, &out.length, nullptr),
         veltra_decrypt(kSerial, id, kPin, bytes, 256, &out.data, &out.length, false, nullptr),
         veltra_finalHash(state, bytes, &negative, nullptr),
         veltra_finalHash(state, bytes, &oneLess, nullptr), veltra_updateHash(&state, bytes, 1, nullptr),
         veltra_getCertificateDetails(nullptr, 5, details, nullptr),
         veltra_getCertificateDetails(bytes, -1, details, nullptr), veltra_initHash("", 1, &other, nullptr),
         veltra_initHash("T9", kMechanismSha256, &other, nullptr),
         veltra_generateRamdomNumber("", 1, bytes, false, nullptr),
         veltra_encrypt_aes("T9", kEcb, bytes, 16, bytes, 16, &out.data, &out.length, false, nullptr, 0,
                            nullptr, 0, nullptr),
         veltra_decryptSymetric("T9", bytes, 32, bytes, &length, bytes, 16, bytes, 16, nullptr),
         veltra_decryptSymetric("", bytes, 32, bytes, &negative, bytes, 16, bytes, 16, nullptr)});
    EXPECT_TRUE(out.isEmpty());
    EXPECT_THAT(bytes, testing::Each(0)) << "a refusal leaves the buffer alone";
    EXPECT_EQ(veltra_finalHash(state, bytes, &length, nullptr), 0);
    EXPECT_EQ(toHex({bytes, 4}), "23097D22") << "SHA-224 of abc, FIPS 180-4";
    expectRefusals({veltra_finalHash(state, bytes, &length, nullptr)});
    EXPECT_TRUE(veltra_getKeyPairList(nullptr, nullptr).empty() &&
                veltra_getAesKeyList(nullptr, nullptr).empty() &&
                veltra_getCertificateList(nullptr, nullptr).empty() &&
                veltra_getTokenInfo(nullptr, nullptr).model.empty());
    EXPECT_TRUE(veltra_findCertificateForKey(kSerial, nullptr, nullptr) == nullptr &&
                veltra_findCertificateForKey(nullptr, id, nullptr) == nullptr);
}

TEST_F(SoftTokenTest, AesRefusesWhatDoesNotFit) {
    const Bytes zeros(64);
    const auto* in = zeros.data();
    Bytes buffer(64, 0xAA);
    int capacity = 64;
    LibraryOutput out;
    // The type of an encryption, or 0 for the decryptions; the lengths of key, IV and data.
    constexpr int kCases[][4] = {{1, 24, 16, 16}, {2, 16, 16, 16}, {2, 33, 16, 16}, {5, 32, 0, 16},
                                 {6, 16, 0, 16},  {1, 16, 0, 16},  {1, 16, 16, 15}, {5, 16, 16, 16},
                                 {7, 16, 16, 16}, {0, 16, 16, 0},  {0, 16, 16, 31}, {0, 16, 17, 32},
                                 {0, 20, 16, 32}};
    for (const auto& [type, key, iv, data] : kCases) {
        SCOPED_TRACE(testing::Message() << type << ' ' << key << ' ' << iv << ' ' << data);
        if (type != 0)
            expectRefusals({veltra_encrypt_aes("", static_cast<EncryptionType>(type), in, key, in, data,
                                               &out.data, &out.length, false, in, iv, nullptr, 0, nullptr)});
        else
            expectRefusals(
                {veltra_decrypt_aes("", in, key, in, data, &out.data, &out.length, false, in, iv, nullptr),
                 veltra_decryptSymetric("", in, data, buffer.data(), &capacity, in, iv, in, key, nullptr)});
        EXPECT_TRUE(out.isEmpty());
    }
    const CallerBuffer encrypted = encryptAes(Bytes(16), Bytes(16), Bytes(20), BlockPadding::Pkcs7);
    capacity = 19;
    expectRefusals({veltra_decryptSymetric("", encrypted.bytes().data(), 32, buffer.data(), &capacity, in, 16,
                                           in, 16, nullptr)});
    EXPECT_EQ(capacity, 20) << "what is needed";
    EXPECT_EQ(buffer, Bytes(64, 0xAA)) << "a refusal leaves the buffer alone";
}

} // namespace veltra::softtoken::test
