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
    using Lines = std::vector<std::string>;

    /// `traces`: debug lines of the question, or of the answer.
    void expectProtocol(const std::function<BOOL(BYTE*, DWORD*)>& call, const Bytes& value, Rule rule,
                        const std::string& tooSmall, const Lines& traces) {
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
        Lines lines = debugLines;
        EXPECT_EQ(ask(0), rule == kRefusedUnlessZero ? question : small);
        EXPECT_EQ(ask(size - 1), small);
        EXPECT_EQ(length, rule == kRefusedWithoutSize ? size - 1 : size);
        EXPECT_EQ(data, Bytes(size, 0xEE));
        EXPECT_EQ(ask(size), accepted());
        EXPECT_EQ(data, joined({value, {0xEE}}));
        lines.insert(lines.end(), debugLines.begin(), debugLines.end());
        EXPECT_EQ(ask(size + 9), accepted());
        EXPECT_EQ(length, size);
        EXPECT_THAT(lines, testing::IsSupersetOf(traces));
    }

    BothFrontEnds world{freshName("Token")};
};

TEST_F(CspSizeProtocolTest, HashParameters) {
    const auto expect = [&](HCRYPTHASH hash, DWORD parameter, const Bytes& value, const std::string& tooSmall,
                            const Lines& traces = {}) {
        const auto call = [&](BYTE* data, DWORD* length) {
            return CPGetHashParam(world.context, hash, parameter, data, length, 0);
        };
        expectProtocol(call, value, kRefused, "CPGetHashParam: " + tooSmall, traces);
    };
    const Bytes value(32, 7);
    ASSERT_TRUE(CPSetHashParam(world.context, world.hash, HP_HASHVAL, value.data(), 0));
    Bytes info = dwords({CALG_SHA_256}); // no inner or outer string, and nothing between the members
    info.resize(sizeof(HMAC_INFO));
    expect(world.hash, HP_ALGID, dwords({CALG_SHA_256}), "HP_ALGID buffer too small",
           {"CPGetHashParam dwParam : 1", "CPGetHashParam mechanism : 3", "Get hash param success"});
    expect(world.hash, HP_HASHSIZE, dwords({32}), "HP_HASHSIZE buffer too small",
           {"Get hash param hashSize : 32"});
    expect(world.hash, HP_HASHVAL, value, "HP_HASHVAL buffer too small for cached hash value");
    expect(world.hmac, HP_HMAC_INFO, info, "HP_HMAC_INFO buffer too small");
}

TEST_F(CspSizeProtocolTest, KeyParameters) {
    liveKey(world.rsaKey)->mode = CRYPT_MODE_ECB;
    const auto expect = [&](DWORD parameter, const Bytes& value, Rule rule, const std::string& name,
                            Lines traces) {
        const auto call = [&](BYTE* data, DWORD* length) {
            return CPGetKeyParam(world.context, world.rsaKey, parameter, data, length, 0);
        };
        for (std::string& trace : traces)
            trace.insert(0, "CPGetKeyParam");
        expectProtocol(call, value, rule, "CPGetKeyParam: " + name + " buffer too small, return FALSE",
                       traces);
    };
    const std::string bits = "KP_BLOCKLEN/KP_KEYLEN", asked = " size query, return TRUE";
    expect(KP_MODE, dwords({CRYPT_MODE_ECB}), kRefused, "KP_MODE",
           {" - dwparam : 4", ": KP_MODE" + asked, " - KP_MODE = 2", ": return TRUE"});
    expect(KP_PERMISSIONS, dwords({15}), kRefusedUnlessZero, "KP_PERMISSIONS", {": KP_PERMISSIONS" + asked});
    expect(KP_ALGID, dwords({CALG_RSA_KEYX}), kRefusedUnlessZero, "KP_ALGID", {" - copying alg id : 41984"});
    expect(KP_BLOCKLEN, dwords({2048}), kRefusedUnlessZero, bits, {": " + bits + asked});
    expect(KP_KEYLEN, dwords({2048}), kRefusedUnlessZero, bits, {" - key id : " + std::string(32, '1')});
    const VeltraCertificate& certificate = world.token.certificates[0];
    const Bytes der(certificate.der, certificate.der + certificate.derLength);
    expect(KP_CERTIFICATE, der, kRefusedUnlessZero, "KP_CERTIFICATE",
           {concat(": KP_CERTIFICATE size query, len=", der.size(), ", return TRUE"),
            concat(": KP_CERTIFICATE copied, len=", der.size(), ", return TRUE")});
}

TEST_F(CspSizeProtocolTest, ProviderParameters) {
    const auto context = liveContext(world.context);
    const auto expect = [&](DWORD parameter, const Bytes& value, Rule rule, const Lines& traces = {}) {
        const auto call = [&](BYTE* data, DWORD* length) {
            return CPGetProvParam(world.context, parameter, data, length, CRYPT_FIRST);
        };
        expectProtocol(call, value, rule, "CPGetProvParam: output buffer too small", traces);
    };
    context->keySpec = 77;
    expect(PP_IMPTYPE, dwords({9}), kRefused,
           {"CPGetProvParam input : 3", "CPGetProvParam not null value provided"});
    expect(PP_VERSION, dwords({0x100}), kRefused, {"CPGetProvParam : 1", "CPGetProvParam out length : 4"});
    expect(PP_PROVTYPE, dwords({1}), kRefused, {"CPGetProvParam return success"});
    expect(PP_KEYSTORAGE, dwords({9}), kRefused);
    expect(PP_KEYSET_TYPE, dwords({77}), kRefusedWithoutSize);
    expect(PP_SIG_KEYSIZE_INC, dwords({1024}), kRefusedWithoutSize);
    expect(PP_KEYX_KEYSIZE_INC, dwords({1024}), kRefusedWithoutSize);
    for (const DWORD pin : {PP_ADMIN_PIN, PP_KEYEXCHANGE_PIN, PP_SIGNATURE_PIN})
        expect(pin, dwords({1}), kAccepted, {"CPGetProvParam: PIN query"});
    expect(PP_USE_HARDWARE_RNG, dwords({1}), kAccepted,
           {"Required size is Large", "CPGetProvParam: PP_USE_HARDWARE_RNG = 1"});
    expect(PP_KEYSPEC, dwords({1}), kAccepted);
    const auto terminated = [](const std::string& text) { return joined({bytesOf(text), {0}}); };
    const std::string name = "CPGetProvParam: PP_CONTAINER/PP_UNIQUE_CONTAINER";
    expect(PP_NAME, terminated("Veltra Cryptographic Provider CSP"), kRefused);
    for (const DWORD container : {PP_CONTAINER, PP_UNIQUE_CONTAINER})
        expect(container, terminated(world.container), kRefused,
               {name + " size query, requiredSize=33, return TRUE",
                name + "=" + world.container + ", return TRUE"});
    EXPECT_TRUE(context->containerNameAnswered);
    expect(PP_ENUMCONTAINERS, terminated(world.container), kAccepted,
           {"CPGetProvParam: returned container -> " + world.container});
    EXPECT_TRUE(context->containersEnumerated);
    // Self-relative, with an access list that is there and null.
    expect(PP_KEYSET_SEC_DESCR, joined({{1, 0, 0x04, 0x80}, Bytes(16)}), kAccepted,
           {"CPGetProvParam: PP_KEYSET_SEC_DESCR"});
}

} // namespace
} // namespace veltra::test
