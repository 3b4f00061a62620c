// What the CP* functions answer to a question without a buffer, with one that is too small, and with one that
// is large enough.

#include "support/blob_bytes.h"
#include "support/both_front_ends.h"
#include "support/provider_test.h"

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
    void expectProtocol(const std::function<BOOL(BYTE*, DWORD*)>& call, const Bytes& value, Rule rule,
                        const std::string& tooSmall) {
        SCOPED_TRACE(tooSmall + testing::PrintToString(value));
        const auto size = static_cast<DWORD>(value.size());
        const Answer question = accepted(rule == kAccepted ? ERROR_MORE_DATA : kUntouched);
        const Answer small = rule == kAccepted ? question : refused(ERROR_MORE_DATA, {tooSmall});
        Bytes data;
        DWORD length = 0;
        const auto ask = [&](DWORD capacity) {
            data.assign(capacity + 1, 0xEE);
            length = capacity;
            return run([&] { return call(data.data(), &length); });
        };
        EXPECT_EQ(run([&] { return call(nullptr, &length); }), question);
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

    BothFrontEnds world{freshName("Token")};
};

TEST_F(CspSizeProtocolTest, HashParameters) {
    const auto expect = [&](HCRYPTHASH hash, DWORD parameter, const Bytes& value,
                            const std::string& tooSmall) {
        const auto call = [&](BYTE* data, DWORD* length) {
            return CPGetHashParam(world.context, hash, parameter, data, length, 0);
        };
        expectProtocol(call, value, kRefused, concat("CPGetHashParam: ", tooSmall));
    };
    const Bytes value(32, 7);
    ASSERT_TRUE(CPSetHashParam(world.context, world.hash, HP_HASHVAL, value.data(), 0));
    Bytes info = dwords({CALG_SHA_256}); // no inner or outer string, and nothing between the members
    info.resize(sizeof(HMAC_INFO));
    expect(world.hash, HP_ALGID, dwords({CALG_SHA_256}), "HP_ALGID buffer too small");
    expect(world.hash, HP_HASHSIZE, dwords({32}), "HP_HASHSIZE buffer too small");
    expect(world.hash, HP_HASHVAL, value, "HP_HASHVAL buffer too small for cached hash value");
    expect(world.hmac, HP_HMAC_INFO, info, "HP_HMAC_INFO buffer too small");
}

TEST_F(CspSizeProtocolTest, KeyParameters) {
    liveKey(world.rsaKey)->mode = CRYPT_MODE_ECB;
    const auto expect = [&](DWORD parameter, const Bytes& value, Rule rule, const std::string& name) {
        const auto call = [&](BYTE* data, DWORD* length) {
            return CPGetKeyParam(world.context, world.rsaKey, parameter, data, length, 0);
        };
        expectProtocol(call, value, rule, "CPGetKeyParam: " + name + " buffer too small, return FALSE");
    };
    expect(KP_MODE, dwords({CRYPT_MODE_ECB}), kRefused, "KP_MODE");
    expect(KP_PERMISSIONS, dwords({15}), kRefusedUnlessZero, "KP_PERMISSIONS");
    expect(KP_ALGID, dwords({CALG_RSA_KEYX}), kRefusedUnlessZero, "KP_ALGID");
    for (const DWORD bits : {KP_BLOCKLEN, KP_KEYLEN})
        expect(bits, dwords({2048}), kRefusedUnlessZero, "KP_BLOCKLEN/KP_KEYLEN");
    const VeltraCertificate& certificate = world.token.certificates[0];
    const Bytes der(certificate.der, certificate.der + certificate.derLength);
    expect(KP_CERTIFICATE, der, kRefusedUnlessZero, "KP_CERTIFICATE");
}

TEST_F(CspSizeProtocolTest, ProviderParameters) {
    const auto context = liveContext(world.context);
    const auto expect = [&](DWORD parameter, const Bytes& value, Rule rule) {
        const auto call = [&](BYTE* data, DWORD* length) {
            return CPGetProvParam(world.context, parameter, data, length, CRYPT_FIRST);
        };
        expectProtocol(call, value, rule, "CPGetProvParam: output buffer too small");
    };
    context->keySpec = 77;
    for (const auto& [parameter, value] :
         {std::pair{PP_IMPTYPE, 9u}, {PP_VERSION, 0x100u}, {PP_PROVTYPE, 1u}, {PP_KEYSTORAGE, 9u}})
        expect(parameter, dwords({value}), kRefused);
    for (const auto& [parameter, value] :
         {std::pair{PP_KEYSET_TYPE, 77u}, {PP_SIG_KEYSIZE_INC, 1024u}, {PP_KEYX_KEYSIZE_INC, 1024u}})
        expect(parameter, dwords({value}), kRefusedWithoutSize);
    for (const DWORD parameter :
         {PP_ADMIN_PIN, PP_KEYEXCHANGE_PIN, PP_SIGNATURE_PIN, PP_USE_HARDWARE_RNG, PP_KEYSPEC})
        expect(parameter, dwords({1}), kAccepted);
    const auto terminated = [](const std::string& text) { return joined({bytesOf(text), {0}}); };
    expect(PP_NAME, terminated("Veltra Cryptographic Provider CSP"), kRefused);
    for (const DWORD container : {PP_CONTAINER, PP_UNIQUE_CONTAINER})
        expect(container, terminated(world.container), kRefused);
    EXPECT_TRUE(context->containerNameAnswered);
    expect(PP_ENUMCONTAINERS, terminated(world.container), kAccepted);
    EXPECT_TRUE(context->containersEnumerated);
    // Self-relative, with an access list that is there and null.
    expect(PP_KEYSET_SEC_DESCR, joined({{1, 0, 0x04, 0x80}, Bytes(16)}), kAccepted);
}

} // namespace
} // namespace veltra::test
