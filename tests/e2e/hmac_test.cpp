// HMAC with the test cases of RFC 4231. The keys reach the provider as session keys; one that is longer than
// a key object holds is derived instead, as its digest.

#include "e2e/crypto_application.h"

#include <algorithm>
#include <cstring>

namespace veltra::test {
namespace {

Bytes fromHex(const std::string& text) {
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < text.size(); i += 2)
        bytes.push_back(static_cast<unsigned char>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

/// Test cases 1 to 5 by their numbers less one; the keys of 6 and 7 are longer than a key object holds.
struct HmacInput {
    Bytes key;
    Bytes data;
};
const HmacInput kInputs[] = {
    {Bytes(20, 0x0b), bytesOf("Hi There")},
    {bytesOf("Jefe"), bytesOf("what do ya want for nothing?")},
    {Bytes(20, 0xaa), Bytes(50, 0xdd)},
    {fromHex("0102030405060708090a0b0c0d0e0f10111213141516171819"), Bytes(50, 0xcd)},
    {Bytes(20, 0x0c), bytesOf("Test With Truncation")},
};

/// The values of one inner hash; that of case 5 is truncated to 128 bits.
struct HmacAlgorithm {
    ALG_ID hash;
    const char* macs[std::size(kInputs)];
};
const HmacAlgorithm kAlgorithms[] = {
    {CALG_SHA_256,
     {"b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7",
      "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843",
      "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe",
      "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b",
      "a3b6167473100ee06e0c796c2955552b"}},
    {CALG_SHA_384,
     {"afd03944d84895626b0825f4ab46907f15f9dadbe4101ec682aa034c7cebc59cfaea9ea9076ede7f4af152e8b2fa9cb6",
      "af45d2e376484031617f78d2b58a6b1b9c7ef464f5a01b47e42ec3736322445e8e2240ca5e69e2c78b3239ecfab21649",
      "88062608d3e6ad8a0aa2ace014c8a86f0aa635d947ac9febe83ef4e55966144b2a5ab39dc13814b94e3ab6e101a34f27",
      "3e8a69b7783c25851933ab6290af6ca77a9981480850009cc5577c6e1f573b4e6801dd23c4a7d679ccf8a386c674cffb",
      "3abf34c3503b2a23a46efc619baef897"}},
    {CALG_SHA_512,
     {"87aa7cdea5ef619d4ff0b4241a1d6cb02379f4e2ce4ec2787ad0b30545e17cde"
      "daa833b7d6b8a702038b274eaea3f4e4be9d914eeb61f1702e696c203a126854",
      "164b7a7bfcf819e2e395fbe73b56e0a387bd64222e831fd610270cd7ea250554"
      "9758bf75c05a994a6d034f65f8f0e6fdcaeab1a34d4a6b4b636e070a38bce737",
      "fa73b0089d56a284efb0f0756c890be9b1b5dbdd8ee81a3655f83e33b2279d39"
      "bf3e848279a722c806b485a47e67c807b946a337bee8942674278859e13292fb",
      "b0ba465637458c6990e5a8c5f61d4af7e576d97ff94b872de76f8050361ee3db"
      "a91ca5c11aa25eb4d679275cc5788063a5f19741120c4f2de2adebeb10a298dd",
      "415fad6271580a531d4179bc891d87a6"}},
};

/// A blob of a symmetric key: its header, a word that depends on the type, and what follows.
Bytes keyBlob(BYTE type, ALG_ID algorithm, DWORD word, const Bytes& rest) {
    const BLOBHEADER header = {type, CUR_BLOB_VERSION, 0, algorithm};
    Bytes blob(sizeof header + sizeof word + rest.size());
    std::memcpy(blob.data(), &header, sizeof header);
    std::memcpy(blob.data() + sizeof header, &word, sizeof word);
    std::ranges::copy(rest, blob.end() - static_cast<std::ptrdiff_t>(rest.size()));
    return blob;
}

class HmacTest : public CryptoApplicationTest {
protected:
    HmacTest() { recipient = importKey(system, publicBlob(exchangeKey)); }

    /// A session key with these bytes: the system's provider encrypts them for the token.
    CryptoKey sessionKey(const Bytes& bytes) const {
        const Bytes encrypted = encrypt(recipient, bytes);
        return importKey(context, keyBlob(SIMPLEBLOB, CALG_AES_256, CALG_RSA_KEYX, encrypted), exchangeKey);
    }

    Bytes hmac(const CryptoKey& key, ALG_ID algorithm, const Bytes& message) const {
        const CryptoHash hash = createHash(context, CALG_HMAC, {}, key);
        HMAC_INFO info{};
        info.HashAlgid = algorithm;
        EXPECT_TRUE(CryptSetHashParam(hash.get(), HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0))
            << GetLastError();
        EXPECT_TRUE(CryptHashData(hash.get(), message.data(), static_cast<DWORD>(message.size()), 0));
        return hashValue(hash);
    }

    CryptoContext context = open();
    CryptoContext system = openSystem();
    CryptoKey exchangeKey = userKey(context, AT_KEYEXCHANGE);
    CryptoKey recipient;
};

TEST_F(HmacTest, Rfc4231) {
    for (const HmacAlgorithm& algorithm : kAlgorithms) {
        for (std::size_t i = 0; i < std::size(kInputs); ++i) {
            SCOPED_TRACE(testing::Message() << algorithm.hash << ", test case " << i + 1);
            const Bytes expected = fromHex(algorithm.macs[i]);
            Bytes mac = hmac(sessionKey(kInputs[i].key), algorithm.hash, kInputs[i].data);
            if (i == 4) mac.resize(expected.size());
            EXPECT_EQ(mac, expected);
        }
    }
}

// A key longer than the block counts as its digest, which for SHA-256 is a key that fits.
TEST_F(HmacTest, Rfc4231KeysLongerThanABlockByTheirDigest) {
    const CryptoHash keyHash = createHash(context, CALG_SHA_256, Bytes(131, 0xaa));
    HCRYPTKEY derived = 0;
    ASSERT_TRUE(CryptDeriveKey(context.get(), CALG_AES_256, keyHash.get(), 0, &derived));
    const CryptoKey key(derived);
    EXPECT_EQ(hmac(key, CALG_SHA_256, bytesOf("Test Using Larger Than Block-Size Key - Hash Key First")),
              fromHex("60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"));
    EXPECT_EQ(hmac(key, CALG_SHA_256,
                   bytesOf("This is a test using a larger than block-size key and a larger than block-size "
                           "data. The key needs to be hashed before being used by the HMAC algorithm.")),
              fromHex("9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2"));
}

} // namespace
} // namespace veltra::test
