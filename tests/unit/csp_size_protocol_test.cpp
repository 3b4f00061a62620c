// What the CP* functions answer to a question without a buffer, with one that is too small, and with one that
// is large enough.

#include "support/blob_bytes.h"
#include "support/both_front_ends.h"
#include "support/provider_test.h"
#include "unit/test_certificates.h"

#include "csp/key_handle.h"
#include "csp/provider_context.h"
#include "foundation/text.h"

namespace veltra::test {
namespace {

/// How too small a buffer is answered. The cases differ on purpose.
enum Rule {
    kRefused,
    kRefusedUnlessZero, ///< a length of zero is a question
    kRefusedWithoutSize,
    kAccepted, ///< success with ERROR_MORE_DATA, and so is a question
};

class CspSizeProtocolTest : public ProviderTest {
protected:
    void expect(Rule rule, const std::vector<DWORD>& parameters, const Bytes& value,
                const std::string& tooSmall = "CPGetProvParam: output buffer too small") {
        for (const DWORD parameter : parameters) {
            SCOPED_TRACE(concat(tooSmall, parameter));
            const auto size = static_cast<DWORD>(value.size());
            const Answer question = accepted(rule == kAccepted ? ERROR_MORE_DATA : kUntouched);
            const Answer small = rule == kAccepted ? question : refused(ERROR_MORE_DATA, {tooSmall});
            Bytes data;
            DWORD length = 0;
            const auto ask = [&](DWORD capacity) {
                data.assign(capacity + 1, 0xEE);
                length = capacity;
                return run([&] { return get(parameter, data.data(), &length); });
            };
            EXPECT_EQ(run([&] { return get(parameter, nullptr, &length); }), question);
            EXPECT_EQ(length, size);
            EXPECT_EQ(ask(0), rule == kRefusedUnlessZero ? question : small);
            EXPECT_EQ(ask(size - 1), small);
            EXPECT_EQ(length, rule == kRefusedWithoutSize ? size - 1 : size);
            EXPECT_EQ(data, Bytes(size, 0xEE));
            EXPECT_EQ(ask(size), accepted());
            EXPECT_EQ(data, joined({value, {0xEE}}));
            EXPECT_EQ(ask(size + 9), accepted());
            EXPECT_EQ(length, size);
        }
    }

    BothFrontEnds world{freshName("Token")};
    VeltraCertificate& certificate = world.token.certificates[0];
    std::function<BOOL(DWORD parameter, BYTE* data, DWORD* length)> get;
};

TEST_F(CspSizeProtocolTest, HashParameters) {
    HCRYPTHASH hash = world.hash;
    get = [&](DWORD parameter, BYTE* data, DWORD* length) {
        return CPGetHashParam(world.context, hash, parameter, data, length, 0);
    };
    const Bytes value(32, 7);
    ASSERT_TRUE(CPSetHashParam(world.context, world.hash, HP_HASHVAL, value.data(), 0));
    Bytes info = dwords({CALG_SHA_256}); // no inner or outer string, and nothing between the members
    info.resize(sizeof(HMAC_INFO));
    const std::string start = "CPGetHashParam: HP_";
    expect(kRefused, {HP_ALGID}, dwords({CALG_SHA_256}), start + "ALGID buffer too small");
    expect(kRefused, {HP_HASHSIZE}, dwords({32}), start + "HASHSIZE buffer too small");
    expect(kRefused, {HP_HASHVAL}, value, start + "HASHVAL buffer too small for cached hash value");
    hash = world.hmac;
    expect(kRefused, {HP_ALGID}, dwords({CALG_HMAC}), start + "ALGID buffer too small");
    expect(kRefused, {HP_HMAC_INFO}, info, start + "HMAC_INFO buffer too small");
    ASSERT_TRUE(CPCreateHash(world.context, CALG_SHA_512, 0, 0, &hash));
    expect(kRefused, {HP_HASHSIZE}, dwords({64}), start + "HASHSIZE buffer too small");
    CPDestroyHash(world.context, hash);
}

TEST_F(CspSizeProtocolTest, KeyParameters) {
    get = [&](DWORD parameter, BYTE* data, DWORD* length) {
        return CPGetKeyParam(world.context, world.rsaKey, parameter, data, length, 0);
    };
    liveKey(world.rsaKey)->mode = CRYPT_MODE_ECB;
    const std::string start = "CPGetKeyParam: KP_", end = " buffer too small, return FALSE";
    expect(kRefused, {KP_MODE}, dwords({CRYPT_MODE_ECB}), start + "MODE" + end);
    expect(kRefusedUnlessZero, {KP_PERMISSIONS}, dwords({15}), start + "PERMISSIONS" + end);
    expect(kRefusedUnlessZero, {KP_ALGID}, dwords({CALG_RSA_KEYX}), start + "ALGID" + end);
    expect(kRefusedUnlessZero, {KP_BLOCKLEN, KP_KEYLEN}, dwords({2048}), start + "BLOCKLEN/KP_KEYLEN" + end);
    const Bytes der(certificate.der, certificate.der + certificate.derLength);
    expect(kRefusedUnlessZero, {KP_CERTIFICATE}, der, start + "CERTIFICATE" + end);
}

TEST_F(CspSizeProtocolTest, ProviderParameters) {
    get = [&](DWORD parameter, BYTE* data, DWORD* length) {
        return CPGetProvParam(world.context, parameter, data, length, CRYPT_FIRST);
    };
    const auto context = liveContext(world.context);
    context->keySpec = 77;
    expect(kRefused, {PP_IMPTYPE, PP_KEYSTORAGE}, dwords({9}));
    expect(kRefused, {PP_VERSION}, dwords({0x100}));
    expect(kRefused, {PP_PROVTYPE}, dwords({1}));
    expect(kRefusedWithoutSize, {PP_KEYSET_TYPE}, dwords({77}));
    expect(kRefusedWithoutSize, {PP_SIG_KEYSIZE_INC, PP_KEYX_KEYSIZE_INC}, dwords({1024}));
    expect(kAccepted, {PP_ADMIN_PIN, PP_KEYEXCHANGE_PIN, PP_SIGNATURE_PIN}, dwords({1}));
    expect(kAccepted, {PP_USE_HARDWARE_RNG, PP_KEYSPEC}, dwords({1}));
    const Bytes container = joined({bytesOf(world.container), {0}});
    expect(kRefused, {PP_NAME}, bytesOf(std::string("Veltra Cryptographic Provider CSP", 34)));
    expect(kRefused, {PP_CONTAINER, PP_UNIQUE_CONTAINER}, container);
    EXPECT_TRUE(context->containerNameAnswered);
    expect(kAccepted, {PP_ENUMCONTAINERS}, container);
    EXPECT_TRUE(context->containersEnumerated);
    // Self-relative, with an access list that is there and null.
    expect(kAccepted, {PP_KEYSET_SEC_DESCR}, joined({{1, 0, 0x04, 0x80}, Bytes(16)}));
    // PP_CERTCHAIN: a message with a certificate, and without digest algorithms, content and signers.
    DWORD length = sizeof certificate.der;
    CryptStringToBinaryA(kLeafCertificate, 0, CRYPT_STRING_BASE64, certificate.der, &length, nullptr,
                         nullptr);
    certificate.derLength = length;
    expect(
        kAccepted, {9},
        fromHex("3082016706092A864886F70D010702A0820158308201540201013100300B06092A864886F70D010701A082013C" +
                toHex({certificate.der, length}) + "3100"));
}

} // namespace
} // namespace veltra::test
