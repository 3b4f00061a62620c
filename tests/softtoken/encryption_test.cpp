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

    static int encryptRsa(const VeltraKeyPair& key, int padding, const Bytes& message, Bytes& ciphertext,
                          int capacity = 256, int type = 8) {
        const Bytes der = rsaKeyDer(key);
        ciphertext.assign(256, 0xAA);
        return veltra_encrypt(static_cast<EncryptionType>(type), static_cast<PaddingMode>(padding),
                              message.data(), lengthOf(message), ciphertext.data(), &capacity, der.data(),
                              lengthOf(der), nullptr);
    }

    static int decryptRsa(const VeltraKeyPair& key, const Bytes& ciphertext, LibraryOutput& plaintext) {
        return veltra_decrypt(kSerial, key.keyId, kPin, ciphertext.data(), lengthOf(ciphertext),
                              &plaintext.data, &plaintext.length, false, nullptr);
    }

    static int encryptAes(int type, const Bytes& key, const Bytes& iv, const Bytes& plaintext, bool final,
                          LibraryOutput& ciphertext) {
        return veltra_encrypt_aes("", static_cast<EncryptionType>(type), key.data(), lengthOf(key),
                                  plaintext.data(), lengthOf(plaintext), &ciphertext.data, &ciphertext.length,
                                  final, iv.data(), lengthOf(iv), nullptr, 0, nullptr);
    }

    static int decryptAes(const Bytes& key, const Bytes& iv, const Bytes& ciphertext,
                          LibraryOutput& plaintext) {
        return veltra_decrypt_aes(kSerial, key.data(), lengthOf(key), ciphertext.data(), lengthOf(ciphertext),
                                  &plaintext.data, &plaintext.length, false, iv.data(), lengthOf(iv),
                                  nullptr);
    }

    /// veltra_decryptSymetric without a token into a buffer of this capacity, cut to the length that comes
    /// back.
    static int decryptInto(Bytes& buffer, std::size_t capacity, const Bytes& key, const Bytes& iv,
                           const Bytes& ciphertext) {
        buffer.assign(capacity + 16, 0xAA);
        int length = static_cast<int>(capacity);
        const int result =
            veltra_decryptSymetric("", ciphertext.data(), lengthOf(ciphertext), buffer.data(), &length,
                                   iv.data(), lengthOf(iv), key.data(), lengthOf(key), nullptr);
        EXPECT_EQ(Bytes(buffer.end() - 16, buffer.end()), Bytes(16, 0xAA)) << "written behind the buffer";
        buffer.resize(static_cast<std::size_t>(length), 0xAA);
        return result;
    }

    static int derive(const VeltraKeyPair& key, const Bytes& peer, LibraryOutput& secret) {
        return veltra_ecdhDerive(kSerial, key.keyId, kPin, peer.data(), lengthOf(peer), &secret.data,
                                 &secret.length, nullptr);
    }
};

TEST_F(EncryptionTest, RsaTakesMessagesUpToTheLongestOfTheirPadding) {
    const VeltraKeyPair key = generate(kKeyTypeRsa2048, kUsageEncrypt);
    Bytes out;
    // RFC 8017: 256 bytes less 11, or less twice the hash and 2
    for (const auto& [padding, longest] :
         {std::pair(1, 245u), {4, 214u}, {5, 190u}, {6, 158u}, {7, 126u}, {8, 214u}}) {
        SCOPED_TRACE(padding);
        for (const std::size_t length : {1u, longest}) {
            Bytes message = hashOf(length);
            message[0] = 0; // the first byte of a message is no different
            LibraryOutput plaintext;
            ASSERT_EQ(encryptRsa(key, padding, message, out), 0);
            ASSERT_EQ(decryptRsa(key, out, plaintext), 0);
            EXPECT_EQ(plaintext.bytes(), message);
        }
        expectRefusals({encryptRsa(key, padding, hashOf(longest + 1), out),
                        encryptRsa(key, padding, hashOf(1), out, 255)});
        EXPECT_EQ(out, Bytes(256, 0xAA)) << "a refusal leaves the buffer alone";
    }
    for (const int type : {7, 9, 10}) // the key decides, not the type
        EXPECT_EQ(encryptRsa(key, 1, hashOf(9), out, 256, type), 0);
    for (const int type : {0, 1, 2, 5, 6, 11})
        expectRefusals({encryptRsa(key, 1, hashOf(9), out, 256, type)});
    for (const int padding : {0, 2, 3, 9, -1})
        expectRefusals({encryptRsa(key, padding, hashOf(9), out)});
    const Bytes der = rsaKeyDer(key);
    for (int length = 0; length < lengthOf(der); length += 7) {
        int outLength = 256;
        expectRefusals({veltra_encrypt(EncryptionType::Rsa2048, PaddingMode::Pkcs1, out.data(), 16,
                                       out.data(), &outLength, der.data(), length, nullptr)});
    }
}

TEST_F(EncryptionTest, WhateverIsWrongWithAnRsaCiphertextGivesOneCode) {
    const VeltraKeyPair key = generate(kKeyTypeRsa2048);
    const Bytes modulus = publicKeyOf(key);
    std::vector<Bytes> wrong = {{}, Bytes(256), Bytes(256, 0xFF), Bytes(255, 1), Bytes(257), modulus};
    for (const int padding : {1, 4, 5, 6, 7}) {
        Bytes ciphertext;
        ASSERT_EQ(encryptRsa(key, padding, hashOf(32), ciphertext), 0);
        wrong.emplace_back(ciphertext.begin(), ciphertext.end() - 1);
        ciphertext[100] ^= 1;
        wrong.push_back(ciphertext);
    }
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
    // What almost is PKCS#1 v1.5 padding (RFC 8017, 7.2.2), and what is.
    struct {
        const char* head;
        std::size_t zeroAt; ///< 0: nowhere
        int messageLength;  ///< -1: wrong
    } const blocks[] = {{"0002", 10, 245}, {"0002", 255, 0}, {"0002", 9, -1},  {"0002", 0, -1},
                        {"0001", 10, -1},  {"0102", 10, -1}, {"0202", 10, -1}, {"025A", 10, -1}};
    for (const auto& it : blocks) {
        Bytes block(256, 0x5A);
        std::ranges::copy(fromHex(it.head), block.begin());
        if (it.zeroAt != 0) block[it.zeroAt] = 0;
        const Bytes ciphertext =
            encrypt(Expression::build("(data (flags raw) (value %b))", 256, block.data()));
        LibraryOutput plaintext;
        if (it.messageLength < 0) {
            wrong.push_back(ciphertext);
        } else {
            EXPECT_EQ(decryptRsa(key, ciphertext, plaintext), 0) << it.head << ' ' << it.zeroAt;
            EXPECT_EQ(plaintext.length, it.messageLength);
        }
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
    for (const auto& [type, keyLength] : {std::pair(1, 16), {2, 24}, {2, 32}, {5, 16}, {6, 24}, {6, 32}}) {
        const Bytes key = hashOf(static_cast<std::size_t>(keyLength));
        const Bytes iv(type < 3 ? 16 : 0, 0x0F);
        for (const std::size_t length : {0, 1, 15, 16, 17, 100'000}) {
            SCOPED_TRACE(testing::Message() << "type " << type << ", " << length << " bytes");
            LibraryOutput padded;
            LibraryOutput decrypted;
            Bytes buffer;
            ASSERT_EQ(encryptAes(type, key, iv, hashOf(length), true, padded), 0);
            EXPECT_EQ(padded.length, static_cast<int>(length / 16 * 16 + 16));
            ASSERT_EQ(decryptAes(key, iv, padded.bytes(), decrypted), 0);
            EXPECT_EQ(decrypted.bytes(), hashOf(length));
            ASSERT_EQ(decryptInto(buffer, length, key, iv, padded.bytes()), 0);
            EXPECT_EQ(buffer, hashOf(length));
        }
    }
    for (const auto& [lastBytes, left] : {std::pair("01", 15u),
                                          {"0202", 14},
                                          {"0102", 16},
                                          {"00", 16},
                                          {"11", 16},
                                          {"10", 16},
                                          {"030303", 13},
                                          {"0303", 16},
                                          {"10101010101010101010101010101010", 0}}) {
        Bytes block(16, 0xEE);
        const Bytes last = fromHex(lastBytes);
        std::ranges::copy(last, block.end() - lengthOf(last));
        LibraryOutput ciphertext;
        LibraryOutput plaintext;
        ASSERT_EQ(encryptAes(5, Bytes(16), {}, block, false, ciphertext), 0);
        ASSERT_EQ(decryptAes(Bytes(16), {}, ciphertext.bytes(), plaintext), 0);
        block.resize(left);
        EXPECT_EQ(plaintext.bytes(), block) << lastBytes;
        EXPECT_NE(plaintext.data, nullptr);
    }
}

TEST_F(EncryptionTest, AesRefusesWhatDoesNotFit) {
    struct {
        int type; ///< of an encryption; 0: the decryptions
        std::size_t keyLength, ivLength, length;
    } const cases[] = {
        {1, 15, 16, 16}, {1, 24, 16, 16}, {1, 0, 16, 16},  {2, 16, 16, 16}, {2, 33, 16, 16}, {5, 32, 0, 16},
        {6, 16, 0, 16},  {1, 16, 15, 16}, {1, 16, 0, 16},  {1, 16, 17, 16}, {7, 16, 16, 16}, {1, 16, 16, 15},
        {5, 16, 0, 17},  {5, 16, 16, 16}, {6, 32, 16, 16}, {2, 32, 0, 16},  {0, 16, 16, 0},  {0, 16, 16, 31},
        {0, 16, 16, 1},  {0, 16, 15, 32}, {0, 16, 17, 32}, {0, 0, 16, 32},  {0, 20, 16, 32}, {0, 17, 0, 16},
    };
    LibraryOutput out;
    Bytes buffer;
    for (const auto& it : cases) {
        SCOPED_TRACE(testing::Message() << it.type << ' ' << it.keyLength << ' ' << it.ivLength);
        const Bytes key(it.keyLength);
        const Bytes iv(it.ivLength);
        const Bytes in(it.length);
        expectRefusals({encryptAes(it.type, key, iv, in, false, out)});
        if (it.type != 0) continue;
        expectRefusals({decryptAes(key, iv, in, out), decryptInto(buffer, 32, key, iv, in)});
        EXPECT_EQ(buffer, Bytes(32, 0xAA));
    }
    expectRefusals({encryptAes(0, Bytes(16), Bytes(16), Bytes(16), false, out)});
    EXPECT_TRUE(out.isEmpty());
    LibraryOutput encrypted;
    ASSERT_EQ(encryptAes(1, Bytes(16), Bytes(16), hashOf(20), true, encrypted), 0);
    for (const std::size_t capacity : {0, 1, 19}) {
        expectRefusals({decryptInto(buffer, capacity, Bytes(16), Bytes(16), encrypted.bytes())});
        EXPECT_EQ(buffer, Bytes(20, 0xAA)) << "left alone, and the length tells what is needed";
    }
}

TEST_F(EncryptionTest, AesKeysAreListedWithoutTheirMaterialAndUnwrapAsTheStandardSays) {
    // RFC 3394, 4.1, 4.4 and 4.6: the keys are the beginnings of these.
    const Bytes wrapping = fromHex("000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F");
    const Bytes wrapped = fromHex("00112233445566778899AABBCCDDEEFF000102030405060708090A0B0C0D0E0F");
    std::vector<VeltraSymmetricKey> made;
    for (const auto& [length, expected] :
         {std::pair(16, "1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5"),
          {24, "031D33264E15D33268F24EC260743EDCE1C6C7DDEE725A936BA814915C6762D2"},
          {32, "28C9F404C4B810F4CBCCB35CFB87F8263F5786E2D80ED326CBC7F0E71A99F43BFB988B9B7A02DD21"}}) {
        SCOPED_TRACE(length);
        VeltraSymmetricKey& key = made.emplace_back(aesRecord({wrapping.begin(), wrapping.begin() + length}));
        key.usage = kUsageEncrypt;
        if (length == 24) std::ranges::fill(key.label, 'x'); // not terminated
        ASSERT_EQ(veltra_importAesKey(kSerial, kPin, &key, nullptr), 0);
        EXPECT_EQ(key.keyType, length == 16 ? kKeyTypeAes128 : kKeyTypeAes192Or256);
        EXPECT_EQ(key.key[15], 0x0F) << "the caller keeps its own copy";
        const Bytes keyId(std::begin(key.keyId), std::end(key.keyId));
        Bytes ciphertext = fromHex(expected);
        LibraryOutput unwrapped;
        LibraryOutput nothing;
        ASSERT_EQ(decryptAes(keyId, {}, ciphertext, unwrapped), 0);
        EXPECT_EQ(unwrapped.bytes(), Bytes(wrapped.begin(), wrapped.begin() + length));
        ciphertext.back() ^= 1;
        for (const std::size_t cut : {ciphertext.size(), std::size_t{23}, std::size_t{16}, std::size_t{0}}) {
            ciphertext.resize(cut);
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
        expectRefusals({veltra_importAesKey(kSerial, kPin, &key, nullptr)});
    }
    expectSameRecords(veltra_getAesKeyList(kSerial, nullptr), made);
}

TEST_F(EncryptionTest, AKeyAgreesWithNothingThatIsNoPointOfItsCurve) {
    LibraryOutput nothing;
    for (const std::uint32_t type : {kKeyTypeEcP256, kKeyTypeEcP384, kKeyTypeEcP521}) {
        const VeltraKeyPair key = generate(type, kUsageSign); // any usage agrees
        const Bytes peer = publicKeyOf(generate(type, kUsageEncrypt));
        const std::size_t half = peer.size() / 2;
        LibraryOutput secret;
        ASSERT_EQ(derive(key, peer, secret), 0);
        EXPECT_EQ(secret.bytes().size(), half);
        const auto parity = static_cast<unsigned char>(2 | (peer.back() & 1));
        Bytes points[] = {peer,
                          peer,
                          peer,
                          peer,
                          peer,
                          peer,
                          peer,
                          peer,
                          Bytes(peer.size()),
                          Bytes(peer.size()),
                          {},
                          {0},
                          publicKeyOf(generate(type == kKeyTypeEcP256 ? kKeyTypeEcP384 : kKeyTypeEcP256))};
        points[0][half] ^= 1;  // x
        points[1].back() ^= 1; // y
        points[2].pop_back();
        points[3].push_back(0);
        points[4].resize(1);
        points[5].resize(1 + half); // compressed
        points[5][0] = parity;
        points[6][0] = 4 ^ parity; // hybrid
        points[8][0] = 4;          // both coordinates 0
        std::fill(points[7].begin() + 1, points[7].end(), static_cast<unsigned char>(0xFF));
        if (type == kKeyTypeEcP521) { // x and the prime, 2^521 - 1
            points[7] = peer;
            points[7][1] |= 2;
            for (std::size_t i = half; points[7][i]-- == 0;)
                --i;
        }
        for (const Bytes& point : points)
            expectRefusals({derive(key, point, nothing)});
    }
    expectRefusals({derive(generate(kKeyTypeRsa2048), publicKeyOf(generate(kKeyTypeEcP256)), nothing)});
    EXPECT_TRUE(nothing.isEmpty());
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
