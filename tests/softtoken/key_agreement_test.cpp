#include "loaded_library.h"

#include "expression.h"
#include "key_agreement.h"

#include <cstring>

namespace veltra::softtoken::test {

namespace {

Bytes publicKeyOf(const VeltraKeyPair& key) {
    return {key.publicKey, key.publicKey + key.publicKeyLength};
}

/// The same point with the field's prime, 2^521 - 1, added to its x coordinate.
Bytes withUnreducedX(Bytes point) {
    point[1] |= 0x02; // 2^521
    unsigned char* byte = point.data() + 66;
    while ((*byte)-- == 0)
        --byte;
    return point;
}

} // namespace

class KeyAgreementTest : public SoftTokenTest {
protected:
    KeyAgreementTest() { EXPECT_EQ(logIn(), 0); }

    int derive(const unsigned char* keyId, const Bytes& peer, LibraryOutput& secret) const {
        return library_.ecdhDerive(kSerial, keyId, kPin, peer.data(), static_cast<int>(peer.size()),
                                   &secret.data, &secret.length, nullptr);
    }
};

TEST(KeyAgreement, IsThatOfTheStandard) {
    // RFC 5903, 8.1 to 8.3: the initiator's private number, the responder's point, the shared secret. The
    // last one has the first one's point, and a secret that begins with a zero byte.
    struct {
        std::uint32_t type;
        const char *privateNumber, *x, *y, *secret;
    } const cases[] = {
        {kKeyTypeEcP256, "C88F01F510D9AC3F70A292DAA2316DE544E9AAB8AFE84049C62A9C57862D1433",
         "D12DFB5289C8D4F81208B70270398C342296970A0BCCB74C736FC7554494BF63",
         "56FBF3CA366CC23E8157854C13C58D6AAC23F046ADA30F8353E74F33039872AB",
         "D6840F6B42F6EDAFD13116E0E12565202FEF8E9ECE7DCE03812464D04B9442DE"},
        {kKeyTypeEcP384,
         "099F3C7034D4A2C699884D73A375A67F7624EF7C6B3C0F160647B67414DCE655E35B538041E649EE3FAEF896783AB194",
         "E558DBEF53EECDE3D3FCCFC1AEA08A89A987475D12FD950D83CFA41732BC509D0D1AC43A0336DEF96FDA41D0774A3571",
         "DCFBEC7AACF3196472169E838430367F66EEBE3C6E70C416DD5F0C68759DD1FFF83FA40142209DFF5EAAD96DB9E6386C",
         "11187331C279962D93D604243FD592CB9D0A926F422E47187521287E7156C5C4D603135569B9E9D09CF5D4A270F59746"},
        {kKeyTypeEcP521,
         "0037ADE9319A89F4DABDB3EF411AACCCA5123C61ACAB57B5393DCE47608172A095AA85A30FE1C2952C6771D937BA9777F59"
         "5"
         "7B2639BAB072462F68C27A57382D4A52",
         "00D0B3975AC4B799F5BEA16D5E13E9AF971D5E9B984C9F39728B5E5739735A219B97C356436ADC6E95BB0352F6BE64A6C29"
         "1"
         "2D4EF2D0433CED2B6171640012D9460F",
         "015C68226383956E3BD066E797B623C27CE0EAC2F551A10C2C724D9852077B87220B6536C5C408A1D2AEBB8E86D678AE49C"
         "B"
         "57091F4732296579AB44FCD17F0FC56A",
         "01144C7D79AE6956BC8EDB8E7C787C4521CB086FA64407F97894E5E6B2D79B04D1427E73CA4BAA240A34786859810C06B3C"
         "7"
         "15A3A8CC3151F2BEE417996D19F3DDEA"},
        {kKeyTypeEcP256, "C88F01F510D9AC3F70A292DAA2316DE544E9AAB8AFE84049C62A9C57862D14FA",
         "D12DFB5289C8D4F81208B70270398C342296970A0BCCB74C736FC7554494BF63",
         "56FBF3CA366CC23E8157854C13C58D6AAC23F046ADA30F8353E74F33039872AB",
         "00DC77F3AFDEF1AA43BF819D13E72CCB35BC4CF41B43E6AD18C529BA74E9DB45"},
    };
    for (const auto& it : cases) {
        const KeyKind& kind = *findKeyKind(it.type);
        const Expression key = Expression::build("(private-key (ecc (curve %s) %S))", kind.curve,
                                                 Expression::field("d", fromHex(it.privateNumber)).get());
        const SecureBytes secret =
            ecdhSecret(kind, key.secureCanonical(), fromHex(std::string("04") + it.x + it.y));
        EXPECT_EQ(toHex(secret), it.secret);
    }
}

TEST_F(KeyAgreementTest, TwoKeysOfTheTokenAgreeWhateverTheirUsage) {
    for (const std::uint32_t type : {kKeyTypeEcP256, kKeyTypeEcP384, kKeyTypeEcP521}) {
        Bytes previous;
        for (const std::uint32_t usage : {kUsageSign, kUsageEncrypt, kUsageBoth}) {
            SCOPED_TRACE(testing::Message() << "key type " << type << ", usage " << usage);
            const VeltraKeyPair one = generate(type, usage);
            const VeltraKeyPair other = generate(type, kUsageEncrypt);
            EXPECT_EQ(one.usage, usage);
            LibraryOutput first;
            LibraryOutput second;
            ASSERT_EQ(derive(one.keyId, publicKeyOf(other), first), 0);
            ASSERT_EQ(derive(other.keyId, publicKeyOf(one), second), 0);
            EXPECT_EQ(first.bytes().size(), (one.publicKeyLength - 1) / 2);
            EXPECT_EQ(first.bytes(), second.bytes());
            EXPECT_NE(first.bytes(), previous);
            previous = first.bytes();
        }
    }
}

TEST_F(KeyAgreementTest, WhatIsNotAPointOfTheCurveIsRefused) {
    for (const std::uint32_t type : {kKeyTypeEcP256, kKeyTypeEcP384, kKeyTypeEcP521}) {
        const VeltraKeyPair key = generate(type, kUsageEncrypt);
        const Bytes peer = publicKeyOf(generate(type, kUsageEncrypt));
        const auto changed = [&](std::size_t position, unsigned char mask) {
            Bytes point = peer;
            point[position] ^= mask;
            return point;
        };
        const auto prefix = [&](std::size_t length) {
            return Bytes(peer.begin(), peer.begin() + static_cast<std::ptrdiff_t>(length));
        };
        Bytes compressed = prefix(1 + peer.size() / 2);
        compressed[0] = static_cast<unsigned char>(2 | (peer.back() & 1));
        Bytes longer = peer;
        longer.push_back(0);
        Bytes origin(peer.size());
        origin[0] = 0x04;
        struct {
            const char* what;
            Bytes point;
        } cases[] = {
            {"x off the curve", changed(peer.size() / 2, 1)},
            {"y off the curve", changed(peer.size() - 1, 1)},
            {"another curve", publicKeyOf(generate(type == kKeyTypeEcP256 ? 6 : 5))},
            {"truncated", prefix(peer.size() - 1)},
            {"the prefix alone", prefix(1)},
            {"nothing", {}},
            {"too long", longer},
            {"compressed", compressed},
            {"compressed prefix, full length", changed(0, 0x06)},
            {"hybrid form", changed(0, static_cast<unsigned char>(2 | (peer.back() & 1)))},
            {"infinity", {0x00}},
            {"infinity, full length", Bytes(peer.size())},
            {"origin", origin},
            {"coordinates above the prime", Bytes(peer.size(), 0xFF)},
        };
        cases[13].point[0] = 0x04;
        for (const auto& it : cases) {
            LibraryOutput secret;
            const int code = derive(key.keyId, it.point, secret);
            EXPECT_NE(code, 0) << it.what << ", key type " << type;
            EXPECT_NE(code, kDeviceSessionExpired) << it.what;
            EXPECT_TRUE(secret.isEmpty()) << it.what;
        }
        LibraryOutput secret;
        if (type == kKeyTypeEcP521) {
            EXPECT_NE(derive(key.keyId, withUnreducedX(peer), secret), 0);
        }
        EXPECT_EQ(derive(key.keyId, peer, secret), 0) << "the refusals are due to the points";
    }
}

TEST_F(KeyAgreementTest, OtherKeysAndUnusableArgumentsAreRefused) {
    const VeltraKeyPair key = generate(kKeyTypeEcP256, kUsageEncrypt);
    const VeltraKeyPair rsa = generate(kKeyTypeRsa2048, kUsageEncrypt);
    const Bytes peer = publicKeyOf(key);
    const Bytes unknown(kKeyIdLength, 0x5A);
    for (const unsigned char* keyId :
         {rsa.keyId, unknown.data(), static_cast<const unsigned char*>(nullptr)}) {
        LibraryOutput secret;
        EXPECT_NE(derive(keyId, peer, secret), 0);
        EXPECT_TRUE(secret.isEmpty());
    }
    LibraryOutput out;
    const auto call = [&](const char* serial, const unsigned char* point, int length, unsigned char** data,
                          int* dataLength) {
        return library_.ecdhDerive(serial, key.keyId, kPin, point, length, data, dataLength, nullptr);
    };
    EXPECT_NE(call("T9", peer.data(), 65, &out.data, &out.length), 0);
    EXPECT_NE(call(nullptr, peer.data(), 65, &out.data, &out.length), 0);
    EXPECT_NE(call(kSerial, nullptr, 65, &out.data, &out.length), 0);
    EXPECT_NE(call(kSerial, peer.data(), -65, &out.data, &out.length), 0);
    EXPECT_NE(call(kSerial, peer.data(), 65, nullptr, &out.length), 0);
    EXPECT_NE(call(kSerial, peer.data(), 65, &out.data, nullptr), 0);
    EXPECT_TRUE(out.isEmpty());
}

} // namespace veltra::softtoken::test
