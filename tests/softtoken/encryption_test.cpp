// RSA and AES encryption, AES key wrap and key agreement. What the bytes are is judged by the end-to-end
// tests with OpenSSL on the other side; here are the limits and the refusals.

#include "softtoken_test.h"

#include "key_agreement.h"
#include "rsa_encryption.h"

namespace veltra::softtoken::test {

namespace {

struct RsaKey {
    const GeneratedKeyPair pair = generateKeyPair(*findKeyKind(kKeyTypeRsa2048));
    const RsaPublicKey publicKey{pair.publicKey, fromHex("010001")};

    Bytes encrypt(int padding, BytesView message) const {
        return encryptRsa(publicKey, static_cast<PaddingMode>(padding), message);
    }
    Bytes decrypt(BytesView ciphertext) const {
        const SecureBytes plaintext = decryptRsa(pair.privateKey, pair.publicKey, ciphertext);
        return {plaintext.begin(), plaintext.end()};
    }
    /// What libgcrypt makes of "(data ..)".
    Bytes encryptAsTold(const Expression& data) const {
        const Expression key =
            Expression::build("(public-key (rsa %S %S))", Expression::field("n", publicKey.modulus).get(),
                              Expression::field("e", publicKey.exponent).get());
        gcry_sexp_t raw = nullptr;
        checkCrypto(gcry_pk_encrypt(&raw, data.get(), key.get()), "encryption");
        return fixedLength(Expression(raw).bytes("a"), 256);
    }
};

Bytes plain(const CallerBuffer& buffer) {
    return {buffer.bytes().begin(), buffer.bytes().end()};
}

} // namespace

TEST(RsaEncryption, TakesMessagesUpToTheLongestAndGivesOneCodeForWhateverIsWrongWithACiphertext) {
    const RsaKey key;
    std::vector<Bytes> wrong = {{}, Bytes(256), Bytes(256, 0xFF), Bytes(255, 1), Bytes(257)};
    wrong.push_back(key.publicKey.modulus);
    // RFC 8017: 256 bytes less 11, or less twice the hash and 2
    for (const auto& [padding, longest] :
         {std::pair(1, 245u), {4, 214u}, {5, 190u}, {6, 158u}, {7, 126u}, {8, 214u}}) {
        SCOPED_TRACE(padding);
        const Bytes message(longest, 0); // the first byte of a message is no different
        wrong.push_back(key.encrypt(padding, message));
        EXPECT_EQ(key.decrypt(wrong.back()), message);
        wrong.back()[100] ^= 1;
        for (const std::size_t length : {0u, longest + 1})
            EXPECT_EQ(failureOf([&] { key.encrypt(padding, Bytes(length)); }), Failure::BadArgument);
    }
    wrong.push_back(key.encryptAsTold(
        Expression::build("(data (flags oaep) (hash-algo sha512) (label other) (value message))")));
    // What almost is PKCS#1 v1.5 padding (RFC 8017, 7.2.2), and what is: how it begins and where its zero is.
    const std::tuple<const char*, std::size_t, bool> blocks[] = {
        {"0002", 10, true},  {"0002", 255, true}, {"0002", 9, false}, {"0002", 0, false},
        {"0001", 10, false}, {"0102", 10, false}, {"025A", 10, false}};
    for (const auto& [head, zeroAt, isPadding] : blocks) {
        Bytes block(256, 0x5A);
        std::ranges::copy(fromHex(head), block.begin());
        if (zeroAt != 0) block[zeroAt] = 0;
        const Bytes ciphertext =
            key.encryptAsTold(Expression::build("(data (flags raw) (value %b))", 256, block.data()));
        if (isPadding)
            EXPECT_EQ(key.decrypt(ciphertext), Bytes(255 - zeroAt, 0x5A));
        else
            wrong.push_back(ciphertext);
    }
    for (const Bytes& ciphertext : wrong)
        EXPECT_EQ(failureOf([&] { key.decrypt(ciphertext); }), Failure::Undecryptable)
            << ciphertext.size() << " bytes, " << toHex(ciphertext).substr(0, 32);
}

TEST(AesEncryption, PadsAndTakesOffOnlyValidPadding) {
    const Bytes key(16, 0x7E);
    for (const std::size_t length : {0, 15, 16, 17}) {
        const Bytes padded = plain(encryptAes(key, key, Bytes(length, 9), BlockPadding::Pkcs7));
        EXPECT_EQ(padded.size(), length / 16 * 16 + 16);
        EXPECT_EQ(plain(decryptAes(key, key, padded)), Bytes(length, 9));
    }
    // How a block ends, and how much of it is left.
    const std::pair<const char*, std::size_t> endings[] = {
        {"01", 15}, {"0202", 14}, {"030303", 13}, {"0102", 16}, {"00", 16}, {"11", 16}, {"0303", 16}};
    for (const auto& [end, left] : endings) {
        Bytes block(16, 0xEE);
        std::ranges::copy_backward(fromHex(end), block.end());
        const Bytes ciphertext = plain(encryptAes(key, {}, block, BlockPadding::None));
        block.resize(left);
        EXPECT_EQ(plain(decryptAes(key, {}, ciphertext)), block) << end;
    }
}

TEST_F(SoftTokenTest, AesKeysAreListedWithoutTheirMaterialAndUnwrapAsTheStandardSays) {
    // RFC 3394, 4.1, 4.4 and 4.6: the keys are the beginnings of these.
    const Bytes wrapping = fromHex("000102030405060708090A0B0C0D0E0F101112131415161718191A1B1C1D1E1F");
    logIn();
    std::vector<VeltraSymmetricKey> made;
    for (const auto& [length, expected] :
         {std::pair(16, "1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5"),
          {24, "031D33264E15D33268F24EC260743EDCE1C6C7DDEE725A936BA814915C6762D2"},
          {32, "28C9F404C4B810F4CBCCB35CFB87F8263F5786E2D80ED326CBC7F0E71A99F43BFB988B9B7A02DD21"}}) {
        SCOPED_TRACE(length);
        VeltraSymmetricKey& key = made.emplace_back(aesRecord({wrapping.begin(), wrapping.begin() + length}));
        if (length == 24) std::ranges::fill(key.label, 'x'); // not terminated
        importAesKey(kSerial, kPin, key);
        EXPECT_EQ(key.keyType, length == 16 ? kKeyTypeAes128 : kKeyTypeAes192Or256);
        std::ranges::fill(key.key, static_cast<unsigned char>(0));

        Bytes ciphertext = fromHex(expected);
        const auto unwrap = [&] { return toHex(unwrapWithTokenKey(kSerial, key.keyId, ciphertext).value()); };
        EXPECT_EQ(unwrap(), std::string("00112233445566778899AABBCCDDEEFF000102030405060708090A0B0C0D0E0F",
                                        length * 2));
        ciphertext.back() ^= 1;
        for (const std::size_t cut : {ciphertext.size(), std::size_t{23}, std::size_t{16}, std::size_t{0}}) {
            ciphertext.resize(cut);
            EXPECT_EQ(failureOf(unwrap), Failure::Undecryptable);
        }
    }
    EXPECT_EQ(std::string(made[0].label), "AES-" + toHex(made[0].keyId).substr(0, 8));
    EXPECT_EQ(std::string(made[1].label), std::string(kLabelMaxLength, 'x'));
    for (const std::uint32_t length : {0u, 17u, 33u, 0xFFFFFFFFu}) {
        VeltraSymmetricKey key{};
        key.keyLength = length;
        EXPECT_EQ(failureOf([&] { importAesKey(kSerial, kPin, key); }), Failure::BadArgument);
    }
    expectSameRecords(aesKeys(kSerial), made);
}

TEST(KeyAgreement, NeedsAPointOfTheKeysCurve) {
    for (const std::uint32_t type : {kKeyTypeEcP256, kKeyTypeEcP384, kKeyTypeEcP521}) {
        const KeyKind& kind = *findKeyKind(type);
        const SecureBytes privateKey = generateKeyPair(kind).privateKey;
        const Bytes peer = generateKeyPair(kind).publicKey;
        EXPECT_EQ(ecdhSecret(kind, privateKey, peer).size(), kind.numberLength);

        const KeyKind& other = *findKeyKind(type == kKeyTypeEcP256 ? kKeyTypeEcP384 : kKeyTypeEcP256);
        std::vector<Bytes> points = {{}, {0}, {4}, Bytes(peer.size()), generateKeyPair(other).publicKey};
        points.emplace_back(peer).back() ^= 1;
        points.emplace_back(peer).pop_back();
        points.emplace_back(peer).push_back(0);
        points.emplace_back(peer)[0] = static_cast<unsigned char>(6 | (peer.back() & 1)); // hybrid
        Bytes& compressed = points.emplace_back(peer);
        compressed[0] = static_cast<unsigned char>(2 | (peer.back() & 1));
        compressed.resize(1 + kind.numberLength);
        for (const Bytes& point : points)
            EXPECT_EQ(failureOf([&] { ecdhSecret(kind, privateKey, point); }), Failure::BadArgument)
                << toHex(point);
    }
}

TEST(KeyAgreement, KeepsTheZeroByteInFrontOfASecret) {
    // RFC 5903, 8.1: the responder's point; the initiator's private number is one with such a secret.
    const Bytes number = fromHex("C88F01F510D9AC3F70A292DAA2316DE544E9AAB8AFE84049C62A9C57862D14FA");
    const Expression key = Expression::build("(private-key (ecc (curve \"NIST P-256\") %S))",
                                             Expression::field("d", number).get());
    EXPECT_EQ(toHex(ecdhSecret(*findKeyKind(kKeyTypeEcP256), key.secureCanonical(),
                               fromHex("04D12DFB5289C8D4F81208B70270398C342296970A0BCCB74C736FC7554494BF63"
                                       "56FBF3CA366CC23E8157854C13C58D6AAC23F046ADA30F8353E74F33039872AB"))),
              "00DC77F3AFDEF1AA43BF819D13E72CCB35BC4CF41B43E6AD18C529BA74E9DB45");
}

} // namespace veltra::softtoken::test
