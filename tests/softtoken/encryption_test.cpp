// RSA and AES encryption, AES key wrap and key agreement. What the bytes are is judged by the end-to-end
// tests with OpenSSL on the other side; here are the limits, the refusals and the lists.

#include "softtoken_test.h"

#include "key_agreement.h"
#include "rsa_encryption.h"

#include <algorithm>
#include <cstring>

namespace veltra::softtoken::test {

class EncryptionTest : public SoftTokenTest {
protected:
    EncryptionTest() { EXPECT_EQ(logIn(), 0); }

    int encryptRsa(const VeltraKeyPair& key, PaddingMode padding, const Bytes& message, Bytes& ciphertext,
                   int capacity = 512, EncryptionType type = EncryptionType::Rsa2048) const {
        const Bytes der = rsaKeyDer(key);
        ciphertext.assign(512, 0xAA);
        int length = capacity;
        const int result = library_.encrypt(type, padding, message.data(), lengthOf(message),
                                            ciphertext.data(), &length, der.data(), lengthOf(der), nullptr);
        if (result == 0) ciphertext.resize(static_cast<std::size_t>(length));
        return result;
    }

    int decryptRsa(const VeltraKeyPair& key, const Bytes& ciphertext, LibraryOutput& plaintext) const {
        return library_.decrypt(kSerial, key.keyId, kPin, ciphertext.data(), lengthOf(ciphertext),
                                &plaintext.data, &plaintext.length, false, nullptr);
    }

    int encryptAes(int type, const Bytes& key, const Bytes& iv, const Bytes& plaintext, bool final,
                   LibraryOutput& ciphertext) const {
        return library_.encryptAes("", static_cast<EncryptionType>(type), key.data(), lengthOf(key),
                                   plaintext.data(), lengthOf(plaintext), &ciphertext.data,
                                   &ciphertext.length, final, iv.data(), lengthOf(iv), nullptr, 0, nullptr);
    }

    int decryptAes(const Bytes& key, const Bytes& iv, const Bytes& ciphertext,
                   LibraryOutput& plaintext) const {
        return library_.decryptAes(kSerial, key.data(), lengthOf(key), ciphertext.data(),
                                   lengthOf(ciphertext), &plaintext.data, &plaintext.length, false, iv.data(),
                                   lengthOf(iv), nullptr);
    }

    /// veltra_decryptSymetric without a token into a buffer of this capacity, cut to the length that comes
    /// back.
    int decryptInto(Bytes& buffer, std::size_t capacity, const Bytes& key, const Bytes& iv,
                    const Bytes& ciphertext) const {
        buffer.assign(capacity + 16, 0xAA);
        int length = static_cast<int>(capacity);
        const int result =
            library_.decryptSymetric("", ciphertext.data(), lengthOf(ciphertext), buffer.data(), &length,
                                     iv.data(), lengthOf(iv), key.data(), lengthOf(key), nullptr);
        EXPECT_EQ(Bytes(buffer.end() - 16, buffer.end()), Bytes(16, 0xAA)) << "written behind the buffer";
        buffer.resize(static_cast<std::size_t>(length), 0xAA);
        return result;
    }

    int derive(const unsigned char* keyId, const Bytes& peer, LibraryOutput& secret) const {
        return library_.ecdhDerive(kSerial, keyId, kPin, peer.data(), lengthOf(peer), &secret.data,
                                   &secret.length, nullptr);
    }
};

TEST_F(EncryptionTest, RsaDecryptsEveryPaddingUpToItsLongestMessage) {
    struct {
        PaddingMode padding;
        int overhead; // RFC 8017: 11, and twice the hash and 2
    } const cases[] = {
        {PaddingMode::Pkcs1, 11},      {PaddingMode::OaepSha1, 42},    {PaddingMode::OaepSha256, 66},
        {PaddingMode::OaepSha384, 98}, {PaddingMode::OaepSha512, 130}, {PaddingMode::OaepSha1Alternative, 42},
    };
    for (const std::uint32_t type : {kKeyTypeRsa2048, kKeyTypeRsa3072}) {
        const VeltraKeyPair key = generate(type, kUsageEncrypt);
        const int modulusLength = static_cast<int>(key.publicKeyLength);
        for (const auto& it : cases) {
            const int longest = modulusLength - it.overhead;
            for (const int length : {1, 32, longest}) {
                SCOPED_TRACE(testing::Message() << modulusLength << " bytes, padding "
                                                << static_cast<int>(it.padding) << ", " << length);
                Bytes message = hashOf(static_cast<std::size_t>(length));
                message[0] = 0; // the first byte of a message is no different
                Bytes ciphertext;
                ASSERT_EQ(encryptRsa(key, it.padding, message, ciphertext, modulusLength), 0);
                ASSERT_EQ(lengthOf(ciphertext), modulusLength);
                LibraryOutput plaintext;
                ASSERT_EQ(decryptRsa(key, ciphertext, plaintext), 0);
                EXPECT_EQ(plaintext.bytes(), message);
            }
            Bytes ciphertext;
            expectRefusals({encryptRsa(key, it.padding, hashOf(static_cast<std::size_t>(longest) + 1),
                                       ciphertext, modulusLength),
                            encryptRsa(key, it.padding, hashOf(1), ciphertext, modulusLength - 1)});
            EXPECT_EQ(ciphertext, Bytes(512, 0xAA)) << "a refusal leaves the buffer alone";
        }
    }
    const VeltraKeyPair key = generate(kKeyTypeRsa2048);
    Bytes out;
    for (const int type : {7, 8, 9, 10}) // the key decides, not the type
        EXPECT_EQ(encryptRsa(key, PaddingMode::Pkcs1, hashOf(9), out, 512, static_cast<EncryptionType>(type)),
                  0);
    for (const int type : {0, 1, 2, 5, 6, 11})
        expectRefusals(
            {encryptRsa(key, PaddingMode::Pkcs1, hashOf(9), out, 512, static_cast<EncryptionType>(type))});
    for (const int padding : {0, 2, 3, 9, -1})
        expectRefusals({encryptRsa(key, static_cast<PaddingMode>(padding), hashOf(9), out)});
    const Bytes der = rsaKeyDer(key);
    for (int length = 0; length < lengthOf(der); length += 7) {
        int outLength = 512;
        expectRefusals({library_.encrypt(EncryptionType::Rsa2048, PaddingMode::Pkcs1, out.data(), 16,
                                         out.data(), &outLength, der.data(), length, nullptr)});
    }
}

TEST_F(EncryptionTest, WhateverIsWrongWithAnRsaCiphertextGivesOneCode) {
    const VeltraKeyPair key = generate(kKeyTypeRsa2048);
    const Bytes modulus(key.publicKey, key.publicKey + 256);
    std::vector<Bytes> wrong = {{}, Bytes(256), Bytes(256, 0xFF), Bytes(255, 1), Bytes(257), modulus};
    for (const int padding : {1, 4, 5, 6, 7}) {
        Bytes ciphertext;
        ASSERT_EQ(encryptRsa(key, static_cast<PaddingMode>(padding), hashOf(32), ciphertext), 0);
        wrong.emplace_back(ciphertext.begin(), ciphertext.end() - 1);
        ciphertext[100] ^= 1;
        wrong.push_back(ciphertext);
    }
    // What almost is PKCS#1 v1.5 padding (RFC 8017, 7.2.2), and what is.
    struct {
        const char* head;
        std::size_t zeroAt; ///< 0: nowhere
        int messageLength;  ///< -1: wrong
    } const blocks[] = {{"0002", 10, 245}, {"0002", 255, 0}, {"0002", 9, -1},  {"0002", 0, -1},
                        {"0001", 10, -1},  {"0102", 10, -1}, {"0202", 10, -1}, {"025A", 10, -1}};
    const Expression publicKey =
        Expression::build("(public-key (rsa %S %S))", Expression::field("n", modulus).get(),
                          Expression::field("e", fromHex("010001")).get());
    const auto encrypt = [&](const Expression& data) {
        gcry_sexp_t raw = nullptr;
        checkCrypto(gcry_pk_encrypt(&raw, data.get(), publicKey.get()), "encryption");
        return fixedLength(Expression(raw).bytes("a"), 256);
    };
    for (const char* hash : {"sha1", "sha512"})
        wrong.push_back(encrypt(
            Expression::build("(data (flags oaep) (hash-algo %s) (label other) (value message))", hash)));
    for (const auto& it : blocks) {
        Bytes block(256, 0x5A);
        std::ranges::copy(fromHex(it.head), block.begin());
        if (it.zeroAt != 0) block[it.zeroAt] = 0;
        const Bytes ciphertext =
            encrypt(Expression::build("(data (flags raw) (value %b))", 256, block.data()));
        if (it.messageLength < 0) {
            wrong.push_back(ciphertext);
            continue;
        }
        LibraryOutput plaintext;
        EXPECT_EQ(decryptRsa(key, ciphertext, plaintext), 0) << it.head << ' ' << it.zeroAt;
        EXPECT_EQ(plaintext.length, it.messageLength);
    }
    for (const Bytes& ciphertext : wrong) {
        LibraryOutput plaintext;
        EXPECT_EQ(decryptRsa(key, ciphertext, plaintext), static_cast<int>(Failure::Undecryptable))
            << lengthOf(ciphertext) << " bytes, " << toHex(ciphertext).substr(0, 32);
        EXPECT_TRUE(plaintext.isEmpty());
    }
    LibraryOutput plaintext;
    expectRefusals({decryptRsa(generate(kKeyTypeEcP256), wrong[1], plaintext)});
}

TEST_F(EncryptionTest, AesPadsAndTakesOffOnlyValidPadding) {
    const int types[] = {1, 2, 2, 5, 6, 6};
    const std::size_t keyLengths[] = {16, 24, 32, 16, 24, 32};
    for (int i = 0; i < 6; ++i) {
        const Bytes key = hashOf(keyLengths[i]);
        const Bytes iv(i < 3 ? 16 : 0, 0x0F);
        for (const std::size_t length : {0, 1, 15, 16, 17, 100'000}) {
            SCOPED_TRACE(testing::Message() << "type " << types[i] << ", " << length << " bytes");
            const Bytes message = hashOf(length);
            LibraryOutput padded;
            LibraryOutput decrypted;
            Bytes buffer;
            ASSERT_EQ(encryptAes(types[i], key, iv, message, true, padded), 0);
            EXPECT_EQ(padded.length, static_cast<int>(length / 16 * 16 + 16));
            ASSERT_EQ(decryptAes(key, iv, padded.bytes(), decrypted), 0);
            EXPECT_EQ(decrypted.bytes(), message);
            ASSERT_EQ(decryptInto(buffer, length, key, iv, padded.bytes()), 0);
            EXPECT_EQ(buffer, message);
        }
    }
    struct {
        const char* lastBytes;
        std::size_t left;
    } const cases[] = {{"01", 15},     {"0202", 14}, {"0102", 16},
                       {"00", 16},     {"11", 16},   {"10", 16},
                       {"030303", 13}, {"0303", 16}, {"10101010101010101010101010101010", 0}};
    for (const auto& it : cases) {
        Bytes block(16, 0xEE);
        const Bytes last = fromHex(it.lastBytes);
        std::ranges::copy(last, block.end() - lengthOf(last));
        LibraryOutput ciphertext;
        LibraryOutput plaintext;
        ASSERT_EQ(encryptAes(5, Bytes(16), {}, block, false, ciphertext), 0);
        ASSERT_EQ(decryptAes(Bytes(16), {}, ciphertext.bytes(), plaintext), 0);
        block.resize(it.left);
        EXPECT_EQ(plaintext.bytes(), block) << it.lastBytes;
        EXPECT_NE(plaintext.data, nullptr);
    }
}

TEST_F(EncryptionTest, AesRefusesWhatDoesNotFit) {
    struct {
        int type;
        std::size_t keyLength, ivLength, length;
    } const encryptions[] = {
        {1, 15, 16, 16}, {1, 24, 16, 16}, {1, 0, 16, 16},  {2, 16, 16, 16}, {2, 33, 16, 16}, {5, 32, 0, 16},
        {6, 16, 0, 16},  {1, 16, 15, 16}, {1, 16, 0, 16},  {1, 16, 17, 16}, {0, 16, 16, 16}, {7, 16, 16, 16},
        {1, 16, 16, 15}, {5, 16, 0, 17},  {5, 16, 16, 16}, {6, 32, 16, 16}, {2, 32, 0, 16},
    };
    LibraryOutput out;
    for (const auto& it : encryptions) {
        SCOPED_TRACE(testing::Message() << it.type << ' ' << it.keyLength << ' ' << it.ivLength);
        expectRefusals(
            {encryptAes(it.type, Bytes(it.keyLength), Bytes(it.ivLength), Bytes(it.length), false, out)});
    }
    struct {
        std::size_t keyLength, ivLength, length;
    } const decryptions[] = {{16, 16, 0},  {16, 16, 31}, {16, 16, 1},  {16, 15, 32},
                             {16, 17, 32}, {0, 16, 32},  {20, 16, 32}, {17, 0, 16}};
    Bytes buffer;
    for (const auto& it : decryptions) {
        SCOPED_TRACE(testing::Message() << it.keyLength << ' ' << it.ivLength << ' ' << it.length);
        const Bytes key(it.keyLength);
        const Bytes iv(it.ivLength);
        expectRefusals(
            {decryptAes(key, iv, Bytes(it.length), out), decryptInto(buffer, 32, key, iv, Bytes(it.length))});
        EXPECT_EQ(buffer, Bytes(32, 0xAA));
    }
    EXPECT_TRUE(out.isEmpty());
    LibraryOutput encrypted;
    ASSERT_EQ(encryptAes(1, Bytes(16), Bytes(16), hashOf(20), true, encrypted), 0);
    for (const std::size_t capacity : {0, 1, 19}) {
        expectRefusals({decryptInto(buffer, capacity, Bytes(16), Bytes(16), encrypted.bytes())});
        EXPECT_EQ(buffer, Bytes(20, 0xAA)) << "left alone, and the length tells what is needed";
    }
}

TEST_F(EncryptionTest, AesKeysAreListedWithoutTheirMaterialAndUnwrapAsTheStandardSays) {
    // RFC 3394, 4.1 to 4.6: the keys are prefixes of these.
    const Bytes wrapping = fromHex("000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F");
    const Bytes wrapped = fromHex("00112233445566778899AABBCCDDEEFF000102030405060708090A0B0C0D0E0F");
    struct {
        std::size_t wrappingLength, wrappedLength;
        const char* ciphertext;
    } const cases[] = {
        {16, 16, "1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5"},
        {24, 24, "031D33264E15D33268F24EC260743EDCE1C6C7DDEE725A936BA814915C6762D2"},
        {32, 32, "28C9F404C4B810F4CBCCB35CFB87F8263F5786E2D80ED326CBC7F0E71A99F43BFB988B9B7A02DD21"},
    };
    std::vector<VeltraSymmetricKey> made;
    for (const auto& it : cases) {
        SCOPED_TRACE(it.ciphertext);
        const Bytes material(wrapping.begin(), wrapping.begin() + static_cast<int>(it.wrappingLength));
        VeltraSymmetricKey& key = made.emplace_back(aesRecord(material));
        key.usage = kUsageEncrypt;
        if (it.wrappingLength == 24) std::ranges::fill(key.label, 'x'); // not terminated
        ASSERT_EQ(library_.importAesKey(kSerial, kPin, &key, nullptr), 0);
        EXPECT_EQ(key.keyType, it.wrappingLength == 16 ? kKeyTypeAes128 : kKeyTypeAes192Or256);
        EXPECT_EQ(key.key[15], 0x0F) << "the caller keeps its own copy";
        const Bytes keyId(std::begin(key.keyId), std::end(key.keyId));
        Bytes ciphertext = fromHex(it.ciphertext);
        LibraryOutput unwrapped;
        ASSERT_EQ(decryptAes(keyId, {}, ciphertext, unwrapped), 0);
        EXPECT_EQ(unwrapped.bytes(),
                  Bytes(wrapped.begin(), wrapped.begin() + static_cast<int>(it.wrappedLength)));
        LibraryOutput nothing;
        ciphertext.back() ^= 1;
        for (const std::size_t length :
             {ciphertext.size(), std::size_t{23}, std::size_t{16}, std::size_t{0}}) {
            ciphertext.resize(length);
            expectRefusals({decryptAes(keyId, {}, ciphertext, nothing)});
        }
        EXPECT_TRUE(nothing.isEmpty());
        std::ranges::fill(key.key, static_cast<unsigned char>(0));
    }
    EXPECT_EQ(std::string(made[0].label), "AES-" + toHex(made[0].keyId).substr(0, 8));
    EXPECT_EQ(std::string(made[1].label), std::string(kLabelMaxLength, 'x'));
    for (const std::uint32_t length : {0u, 8u, 17u, 33u, 0xFFFFFFFFu}) {
        VeltraSymmetricKey key{};
        key.keyLength = length;
        expectRefusals({library_.importAesKey(kSerial, kPin, &key, nullptr)});
    }
    const std::vector<VeltraSymmetricKey> listed = library_.getAesKeyList(kSerial, nullptr);
    ASSERT_EQ(listed.size(), made.size());
    EXPECT_EQ(std::memcmp(listed.data(), made.data(), sizeof(VeltraSymmetricKey) * made.size()), 0);
}

TEST_F(EncryptionTest, TwoKeysOfTheTokenAgreeButNotWithWhatIsNoPointOfTheCurve) {
    for (const std::uint32_t type : {kKeyTypeEcP256, kKeyTypeEcP384, kKeyTypeEcP521}) {
        SCOPED_TRACE(testing::Message() << "key type " << type);
        const VeltraKeyPair key = generate(type, kUsageSign); // any usage agrees
        const VeltraKeyPair other = generate(type, kUsageEncrypt);
        const Bytes peer(other.publicKey, other.publicKey + other.publicKeyLength);
        LibraryOutput first;
        LibraryOutput second;
        ASSERT_EQ(derive(key.keyId, peer, first), 0);
        ASSERT_EQ(derive(other.keyId, {key.publicKey, key.publicKey + key.publicKeyLength}, second), 0);
        EXPECT_EQ(first.bytes().size(), peer.size() / 2);
        EXPECT_EQ(first.bytes(), second.bytes());

        const auto changed = [&](std::size_t position, unsigned mask) {
            Bytes point = peer;
            point[position] ^= static_cast<unsigned char>(mask);
            return point;
        };
        const auto resized = [&](std::size_t length, unsigned firstByte) {
            Bytes point = peer;
            point.resize(length);
            point[0] = static_cast<unsigned char>(firstByte);
            return point;
        };
        Bytes origin(peer.size());
        origin[0] = 4;
        Bytes aboveThePrime(peer.size(), 0xFF);
        aboveThePrime[0] = 4;
        Bytes unreduced = peer; // of P-521: its prime, 2^521 - 1, added to x
        unreduced[1] |= 2;
        for (std::size_t i = peer.size() / 2; unreduced[i]-- == 0;)
            --i;
        const unsigned parity = 2u | (peer.back() & 1u);
        const VeltraKeyPair foreign = generate(type == kKeyTypeEcP256 ? 6 : 5);
        const Bytes points[] = {changed(peer.size() / 2, 1), // x off the curve
                                changed(peer.size() - 1, 1), // y
                                {foreign.publicKey, foreign.publicKey + foreign.publicKeyLength},
                                resized(peer.size() - 1, 4),
                                resized(peer.size() + 1, 4),
                                resized(1, 4),
                                {},
                                resized(1 + peer.size() / 2, parity), // compressed
                                changed(0, 4 ^ parity),               // hybrid
                                {0x00},                               // infinity
                                Bytes(peer.size()),
                                origin,
                                aboveThePrime,
                                type == kKeyTypeEcP521 ? unreduced : origin};
        LibraryOutput secret;
        for (const Bytes& point : points)
            expectRefusals({derive(key.keyId, point, secret)});
        EXPECT_TRUE(secret.isEmpty());
    }
    LibraryOutput secret;
    const Bytes point = fromHex("04" + std::string(128, '1'));
    expectRefusals(
        {derive(generate(kKeyTypeRsa2048).keyId, point, secret), derive(Bytes(16).data(), point, secret)});
}

TEST(KeyAgreement, KeepsTheZeroByteInFrontOfASecret) {
    // RFC 5903, 8.1: the responder's point; the initiator's private number is one with such a secret.
    const Expression key = Expression::build(
        "(private-key (ecc (curve \"NIST P-256\") %S))",
        Expression::field("d", fromHex("C88F01F510D9AC3F70A292DAA2316DE544E9AAB8AFE84049C62A9C57862D14FA"))
            .get());
    EXPECT_EQ(toHex(ecdhSecret(*findKeyKind(kKeyTypeEcP256), key.secureCanonical(),
                               fromHex("04D12DFB5289C8D4F81208B70270398C342296970A0BCCB74C736FC7554494BF63"
                                       "56FBF3CA366CC23E8157854C13C58D6AAC23F046ADA30F8353E74F33039872AB"))),
              "00DC77F3AFDEF1AA43BF819D13E72CCB35BC4CF41B43E6AD18C529BA74E9DB45");
}

} // namespace veltra::softtoken::test
