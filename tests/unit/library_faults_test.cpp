// Every call of the device library, and every allocation, that an entry point makes fails once. The scenarios
// are calls that succeed; what they answer and hand out when nothing fails is what they are compared with.

#include "support/allocation_fault.h"
#include "support/blob_bytes.h"
#include "support/both_front_ends.h"
#include "support/provider_test.h"
#include "unit/test_certificates.h"

#include "certs/public_key_blob.h"
#include "foundation/text.h"
#include "token/device_state.h"

#include <algorithm>
#include <climits>

namespace veltra::test {
namespace {

using World = BothFrontEnds;

constexpr DWORD kNoReason = 0xFFFFFFFF;
BYTE digest[32] = {0x55};
BYTE pinText[] = "PIN-that#no.log@has";
BYTE oneByte[] = "x";

DWORD csp(BOOL result) {
    if (result) return 0;
    const DWORD reason = GetLastError();
    return reason == 0 || reason == kUntouched ? kNoReason : reason;
}

DWORD cng(SECURITY_STATUS status) {
    return GetLastError() == kUntouched ? static_cast<DWORD>(status) : kNoReason;
}

DWORD importCsp(World& w) {
    return csp(CPImportKey(w.context, w.input.data(), w.inputLength(), w.rsaKey, 0, &w.out.handle));
}

template <const WCHAR* Type>
DWORD importCng(World& w) {
    return cng(KSPImportKey(w.provider, w.cngRsaKey, Type, nullptr, &w.out.handle, w.input.data(),
                            w.inputLength(), 0));
}

DWORD decryptCsp(World& w, HCRYPTKEY key) {
    return csp(CPDecrypt(w.context, key, 0, TRUE, CRYPT_OAEP, w.data(), &w.out.length));
}

DWORD encryptCsp(World& w, HCRYPTKEY key) {
    return csp(CPEncrypt(w.context, key, 0, TRUE, 0, w.data(), &w.out.length, 256));
}

template <auto Crypt>
DWORD cryptCng(World& w, NCRYPT_KEY_HANDLE key) {
    return cng(
        Crypt(w.provider, key, w.input.data(), w.inputLength(), nullptr, w.data(), 256, &w.out.length, 0));
}

DWORD providerParameter(World& w, DWORD parameter, DWORD flags = 0) {
    return csp(CPGetProvParam(w.context, parameter, w.data(), &w.out.length, flags));
}

DWORD signCsp(World& w) {
    return csp(CPSignHash(w.context, w.hash, AT_KEYEXCHANGE, nullptr, 0, w.data(), &w.out.length));
}

DWORD signCng(World& w) {
    return cng(KSPSignHash(w.provider, w.cngRsaKey, nullptr, digest, sizeof digest, w.data(), 256,
                           &w.out.length, kPadPkcs1Flag));
}

/// The user logs in by the dialog.
void forgetStoredPin(World& w) {
    forgetDisconnected({});
    forgetPin(w.token.serial);
}

void takeRsaCiphertext(World& w) {
    w.input = ciphertextOf(Bytes(16, 'S'));
}
void takeReversedRsaCiphertext(World& w) {
    takeRsaCiphertext(w);
    std::ranges::reverse(w.input);
}
void takeAesBlock(World& w) {
    w.input = Bytes(16, 'S');
}
void takeSignature(World& w) {
    w.input = ScriptedDeviceLibrary::fakeSignature(kKeyTypeRsa2048);
}
void takeReversedSignature(World& w) {
    takeSignature(w);
    std::ranges::reverse(w.input);
}
void takeCertificate(World& w) {
    w.input = ScriptedDeviceLibrary::fakeCertificate("C", "CN=CA", "CN=C");
    w.token.keyPairs[0].label[0] = '\0';
    ScriptedDeviceLibrary::instance().caFiles = {
        {"ca", ScriptedDeviceLibrary::fakeCertificate("CA", "CN=Root", "CN=CA")},
        {"root", ScriptedDeviceLibrary::fakeCertificate("Root", "CN=Root", "CN=Root")}};
}
template <BYTE Type>
void takeBlob(World& w, const Bytes& rest) {
    w.input = joined({{Type, 2, 0, 0}, littleEndian(CALG_AES_128), rest});
}
/// An AES key that the token's AES key wraps; the provider leaves out what is behind it.
Bytes wrappedKey() {
    return ScriptedDeviceLibrary::maskOf(joined({{World::kAes}, Bytes(16, 'W')}));
}

/// One entry point in one use. It returns 0 or why it failed, and puts what it hands out into the output.
struct Scenario {
    const char* name;
    DWORD (*run)(World&);
    void (*prepare)(World&) = [](World&) {};
};

constexpr WCHAR kOpaque[] = L"OpaqueKeyBlob", kKeyData[] = L"KeyDataBlob", kTransport[] = L"OpaqueTransport",
                kRsaPublic[] = L"RSAPUBLICBLOB", kEcPublic[] = L"ECCPUBLICBLOB",
                kLegacyPublic[] = L"CAPIPUBLICBLOB", kCertificate[] = L"SmartCardKeyCertificate",
                kPin[] = L"SmartCardPin";

constexpr const char* kHmacValue = "HP_HASHVAL of an HMAC";

const Scenario kScenarios[] = {
    {"CPAcquireContext",
     [](World& w) { return csp(CPAcquireContext(&w.out.handle, w.container.c_str(), 0, w.table)); }},
    {"CPAcquireContext of a new token",
     [](World& w) { return csp(CPAcquireContext(&w.out.handle, "unknown", 0, w.table)); },
     [](World&) { forgetDisconnected({}); }},
    {"CPAcquireContext CRYPT_DELETEKEYSET",
     [](World& w) {
         return csp(CPAcquireContext(&w.out.handle, w.token.serial.c_str(), CRYPT_DELETEKEYSET, w.table));
     },
     [](World& w) { writeContainerValue(w.token.serial, w.container + '\0'); }},
    {"CPGetUserKey", [](World& w) { return csp(CPGetUserKey(w.context, AT_SIGNATURE, &w.out.handle)); }},
    {"CPGenKey",
     [](World& w) { return csp(CPGenKey(w.context, AT_KEYEXCHANGE, 2048 << 16, &w.out.handle)); }},
    {"CPCreateHash",
     [](World& w) { return csp(CPCreateHash(w.context, CALG_SHA_256, 0, 0, &w.out.handle)); }},
    {"CPHashData", [](World& w) { return csp(CPHashData(w.context, w.hash, oneByte, 1, 0)); }},
    {"HP_HASHVAL",
     [](World& w) { return csp(CPGetHashParam(w.context, w.hash, HP_HASHVAL, w.data(), &w.out.length, 0)); }},
    {kHmacValue,
     [](World& w) { return csp(CPGetHashParam(w.context, w.hmac, HP_HASHVAL, w.data(), &w.out.length, 0)); }},
    {"HP_HMAC_INFO",
     [](World& w) {
         const HMAC_INFO info{CALG_SHA_256, nullptr, 0, nullptr, 0};
         return csp(CPSetHashParam(w.context, w.hmac, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0));
     }},
    {"CPDuplicateHash",
     [](World& w) { return csp(CPDuplicateHash(w.context, w.hash, nullptr, 0, &w.out.handle)); }},
    {"CPDeriveKey",
     [](World& w) { return csp(CPDeriveKey(w.context, CALG_AES_128, w.hash, 0, &w.out.handle)); }},
    {"CPSignHash", signCsp},
    {"CPSignHash with a login", signCsp, forgetStoredPin},
    {"CPVerifySignature",
     [](World& w) {
         return csp(
             CPVerifySignature(w.context, w.hash, w.input.data(), w.inputLength(), w.rsaKey, nullptr, 0));
     },
     takeReversedSignature},
    {"CPVerifySignature without a key",
     [](World& w) {
         return csp(CPVerifySignature(w.context, w.hash, w.input.data(), w.inputLength(), 0, nullptr, 0));
     },
     takeReversedSignature},
    {"CPEncrypt RSA", [](World& w) { return encryptCsp(w, w.rsaKey); }, takeAesBlock},
    {"CPEncrypt AES", [](World& w) { return encryptCsp(w, w.aesKey); }, takeAesBlock},
    {"CPDecrypt RSA", [](World& w) { return decryptCsp(w, w.rsaKey); }, takeReversedRsaCiphertext},
    {"CPDecrypt AES", [](World& w) { return decryptCsp(w, w.aesKey); }, takeAesBlock},
    {"CPImportKey PUBLICKEYBLOB", importCsp,
     [](World& w) { w.input = makePublicKeyBlob(Bytes(256, 'M'), CALG_RSA_KEYX); }},
    {"CPImportKey SIMPLEBLOB", importCsp,
     [](World& w) {
         takeReversedRsaCiphertext(w);
         takeBlob<SIMPLEBLOB>(w, joined({Bytes(4), w.input}));
     }},
    {"CPImportKey PLAINTEXTKEYBLOB", importCsp,
     [](World& w) {
         takeBlob<PLAINTEXTKEYBLOB>(w, joined({littleEndian(16), Bytes(16, 'K')}));
     }},
    {"CPImportKey SYMMETRICWRAPKEYBLOB", importCsp,
     [](World& w) {
         takeBlob<SYMMETRICWRAPKEYBLOB>(w, joined({wrappedKey(), Bytes(4)}));
     }},
    {"CPExportKey",
     [](World& w) {
         return csp(CPExportKey(w.context, w.rsaKey, 0, PUBLICKEYBLOB, 0, w.data(), &w.out.length));
     }},
    {"CPGenRandom", [](World& w) { return csp(CPGenRandom(w.context, 32, w.data())); }},
    {"KP_CERTIFICATE",
     [](World& w) {
         return csp(CPGetKeyParam(w.context, w.rsaKey, KP_CERTIFICATE, w.data(), &w.out.length, 0));
     }},
    {"CPSetKeyParam KP_CERTIFICATE",
     [](World& w) { return csp(CPSetKeyParam(w.context, w.rsaKey, KP_CERTIFICATE, w.input.data(), 0)); },
     takeCertificate},
    {"PP_ENUMALGS", [](World& w) { return providerParameter(w, PP_ENUMALGS, CRYPT_FIRST); }},
    {"PP_CERTCHAIN", [](World& w) { return providerParameter(w, 9); },
     [](World& w) {
         VeltraCertificate& record = w.token.certificates[0];
         record.derLength = sizeof record.der;
         DWORD length = record.derLength;
         CryptStringToBinaryA(kLeafCertificate, 0, CRYPT_STRING_BASE64, record.der, &length, nullptr,
                              nullptr);
         record.derLength = length;
     }},
    {"PP_CONTAINER", [](World& w) { return providerParameter(w, PP_CONTAINER); }},
    {"PP_KEYEXCHANGE_PIN",
     [](World& w) { return csp(CPSetProvParam(w.context, PP_KEYEXCHANGE_PIN, pinText, 0)); },
     forgetStoredPin},
    {"KSPOpenProvider", [](World& w) { return cng(KSPOpenProvider(&w.out.handle, nullptr, 0)); }},
    {"KSPOpenKey",
     [](World& w) {
         return cng(KSPOpenKey(w.provider, &w.out.handle, L"11111111111111111111111111111111", 0, 0));
     }},
    {"KSPCreatePersistedKey",
     [](World& w) {
         return cng(KSPCreatePersistedKey(w.provider, &w.out.handle, L"ECDSA_P256", L"name", 0, 0));
     }},
    {"KSPFinalizeKey", [](World& w) { return cng(KSPFinalizeKey(w.provider, w.cngNewKey, 0)); }},
    {"KSPDeleteKey", [](World& w) { return cng(KSPDeleteKey(w.provider, w.cngRsaKey, 0)); }},
    {"KSPSignHash", signCng},
    {"KSPSignHash with a login", signCng, forgetStoredPin},
    {"KSPVerifySignature",
     [](World& w) {
         return cng(KSPVerifySignature(w.provider, w.cngRsaKey, nullptr, digest, sizeof digest,
                                       w.input.data(), w.inputLength(), kPadPkcs1Flag));
     },
     takeSignature},
    {"KSPEncrypt RSA", [](World& w) { return cryptCng<KSPEncrypt>(w, w.cngRsaKey); }, takeAesBlock},
    {"KSPEncrypt AES", [](World& w) { return cryptCng<KSPEncrypt>(w, w.cngAesKey); }, takeAesBlock},
    {"KSPDecrypt RSA", [](World& w) { return cryptCng<KSPDecrypt>(w, w.cngRsaKey); }, takeRsaCiphertext},
    {"KSPDecrypt AES", [](World& w) { return cryptCng<KSPDecrypt>(w, w.cngAesKey); }, takeAesBlock},
    {"KSPImportKey RSAPUBLICBLOB", importCng<kRsaPublic>,
     [](World& w) {
         w.input = joined({dwords({BCRYPT_RSAPUBLIC_MAGIC, 2048, 0, 256, 0, 0}), Bytes(256)});
     }},
    {"KSPImportKey ECCPUBLICBLOB", importCng<kEcPublic>,
     [](World& w) {
         w.input = joined({dwords({BCRYPT_ECDSA_PUBLIC_P256_MAGIC, 32}), Bytes(64)});
     }},
    {"KSPImportKey CAPIPUBLICBLOB", importCng<kLegacyPublic>,
     [](World& w) { w.input = makePublicKeyBlob(Bytes(256, 'M'), CALG_RSA_KEYX); }},
    {"KSPImportKey OpaqueKeyBlob", importCng<kOpaque>, [](World& w) { w.input = wrappedKey(); }},
    {"KSPImportKey KeyDataBlob", importCng<kKeyData>,
     [](World& w) {
         w.input = joined({dwords({BCRYPT_KEY_DATA_BLOB_MAGIC, 1, 16}), Bytes(16, 'K')});
     }},
    {"KSPImportKey OpaqueTransport", importCng<kTransport>, takeRsaCiphertext},
    {"KSPExportKey",
     [](World& w) {
         return cng(KSPExportKey(w.provider, w.cngRsaKey, 0, kRsaPublic, nullptr, w.data(), w.out.length,
                                 &w.out.length, 0));
     }},
    {"KSPSecretAgreement",
     [](World& w) { return cng(KSPSecretAgreement(w.provider, w.cngEcKey, w.cngEcKey, &w.out.handle, 0)); }},
    {"KSPDeriveKey",
     [](World& w) {
         return cng(KSPDeriveKey(w.provider, w.secret, L"HASH", nullptr, w.data(), 16, &w.out.length, 0));
     }},
    {"SmartCardKeyCertificate",
     [](World& w) {
         return cng(KSPGetKeyProperty(w.provider, w.cngRsaKey, kCertificate, w.data(), w.out.length,
                                      &w.out.length, 0));
     }},
    {"KSPSetKeyProperty SmartCardKeyCertificate",
     [](World& w) {
         return cng(
             KSPSetKeyProperty(w.provider, w.cngRsaKey, kCertificate, w.input.data(), w.inputLength(), 0));
     },
     takeCertificate},
    {"KSPSetKeyProperty SmartCardPin",
     [](World& w) {
         return cng(KSPSetKeyProperty(w.provider, w.cngRsaKey, kPin, pinText, sizeof pinText, 0));
     },
     forgetStoredPin},
    {"KSPSetProviderProperty SmartCardPin",
     [](World& w) { return cng(KSPSetProviderProperty(w.provider, kPin, pinText, sizeof pinText, 0)); },
     forgetStoredPin},
    {"KSPPromptUser", [](World& w) { return cng(KSPPromptUser(w.provider, 0, nullptr, 0)); },
     forgetStoredPin},
    {"KSPGetProviderProperty",
     [](World& w) {
         return cng(KSPGetProviderProperty(w.provider, L"Name", w.data(), w.out.length, &w.out.length, 0));
     }},
    {"KSPEnumAlgorithms",
     [](World& w) {
         return cng(KSPEnumAlgorithms(w.provider, 0, &w.out.count,
                                      reinterpret_cast<NCryptAlgorithmName**>(&w.out.handle), 0));
     }},
    {"KSPEnumKeys",
     [](World& w) {
         return cng(KSPEnumKeys(w.provider, nullptr, reinterpret_cast<NCryptKeyName**>(&w.out.handle),
                                reinterpret_cast<PVOID*>(&w.out.second), 0));
     }},
};

/// Kinds of fault, as bits.
enum Kind : unsigned { kCode = 1, kExpired = 2, kNegative = 4, kTooLong = 8, kNoBuffer = 16, kThrows = 32 };
constexpr unsigned kCodes = kCode | kExpired, kLength = kNegative | kTooLong,
                   kAll = kCodes | kLength | kThrows;

struct Fault {
    const char* name;
    Kind kind;
    Script script;
    std::string_view functions = {}; ///< those that it is for; empty: all
};

constexpr std::string_view kBuffers =
    "veltra_decrypt veltra_encrypt_aes veltra_decrypt_aes veltra_ecdhDerive";
constexpr std::string_view kLengths =
    "veltra_decrypt veltra_encrypt_aes veltra_decrypt_aes veltra_ecdhDerive veltra_encrypt "
    "veltra_decryptSymetric veltra_signHash veltra_finalHash veltra_getKeyPairList veltra_getCertificateList "
    "veltra_findCertificateForKey veltra_getAesKeyList veltra_generateKeyPair veltra_importAesKey";

const Fault kFaults[] = {
    {"1", kCode, {.result = 1}},
    {"49", kExpired, {.result = kDeviceSessionExpired}},
    {"51", kCode, {.result = kDeviceWeakHashRefused}},
    {"negative length", kNegative, {.length = -1}, kLengths},
    {"length above the buffer", kTooLong, {.length = 20000}, kLengths},
    {"no buffer", kNoBuffer, {.noBuffer = true}, kBuffers},
    {"exception", kThrows, {.throws = true}},
    {"bad_alloc", kThrows, {.outOfMemory = true}},
};

/// What a fault that an entry point gets over changes.
enum class Effect {
    None,
    OtherResult, ///< it hands out less, as documented
    Spent,       ///< the object is of no use any more, as documented
    MayBeSpent,
};

/// The documented tolerances, and refusals that spend an object, by the call's number, from 1. Empty and 0
/// stand for all.
struct Tolerance {
    std::string_view scenario;
    int call;
    std::string_view function;
    unsigned kinds;
    Effect effect = Effect::None;
};

const Tolerance kTolerances[] = {
    // What the library says of its initialisation is not looked at, and a token that refuses its own is only
    // reported. So is one that cannot be read again before its certificate is.
    {"", 0, "veltra_init", kCodes},
    {"CPAcquireContext of a new token", 3, "veltra_init", kThrows},
    {"CPAcquireContext of a new token", 0, "veltra_initDevice", kAll},
    {"KP_CERTIFICATE", 0, "veltra_initDevice", kCodes},
    {"SmartCardKeyCertificate", 0, "veltra_initDevice", kCodes},
    // A context and a provider without keys, or without a token, are opened all the same.
    {"CPAcquireContext", 0, "veltra_getKeyPairList", kCodes | kLength},
    {"CPAcquireContext of a new token", 0, "veltra_getKeyPairList", kCodes | kLength},
    {"KSPOpenProvider", 0, "veltra_getConnectedDeviceList", kCodes},
    {"KSPOpenKey", 0, "veltra_getConnectedDeviceList", kCodes},
    {"KSPOpenKey", 2, "veltra_getKeyPairList", kAll},
    // Token information that cannot be read counts as the stricter case: FIPS 140-3, no session.
    {"", 0, "veltra_getTokenInfo", kAll},
    // Records with impossible lengths are reported and count as empty; other lists only shorten the result.
    {"CPSignHash", 0, "veltra_getKeyPairList", kLength},
    {"CPSignHash with a login", 0, "veltra_getKeyPairList", kLength},
    {"CPVerifySignature without a key", 0, "veltra_getKeyPairList", kLength},
    {"CPGetUserKey", 0, "veltra_getKeyPairList", kLength},
    {"CPExportKey", 0, "veltra_getKeyPairList", kLength, Effect::OtherResult},
    {"KSPOpenKey", 0, "veltra_getKeyPairList", kLength},
    {"KSPEnumKeys", 0, "veltra_getKeyPairList", kLength},
    {"PP_CERTCHAIN", 0, "veltra_getKeyPairList", kLength},
    {"PP_CERTCHAIN", 0, "veltra_getCertificateList", kCodes | kLength},
    {"", 0, "veltra_getAesKeyList", kLength},
    {"", 0, "veltra_importAesKey", kLength},
    {"KSPSecretAgreement", 0, "veltra_ecdhDerive", kTooLong},
    // The type of a remembered key that is not in the list stays unknown; the token signs with it.
    {"CPSignHash", 0, "veltra_getKeyPairList", kCodes, Effect::OtherResult},
    {"CPSignHash with a login", 0, "veltra_getKeyPairList", kCodes, Effect::OtherResult},
    // The user logs in again when the session has expired.
    {"", 0, "veltra_signHash", kExpired},
    {"CPDecrypt RSA", 0, "veltra_decrypt", kExpired},
    {"KSPDecrypt RSA", 0, "veltra_decrypt", kExpired},
    // A container is forgotten whatever becomes of its keys.
    {"CPAcquireContext CRYPT_DELETEKEYSET", 0, "veltra_getKeyPairList", kCodes | kLength},
    {"CPAcquireContext CRYPT_DELETEKEYSET", 0, "veltra_deleteKeyPair", kCodes},
    // The certificate is stored: its issuers and the key pair's label are a convenience.
    {"", 0, "veltra_getFilesWithExtensionsAndConvertDER", kAll},
    {"CPSetKeyParam KP_CERTIFICATE", 3, "veltra_getCertificateDetails", kAll},
    {"CPSetKeyParam KP_CERTIFICATE", 4, "veltra_getCertificateDetails", kAll},
    {"CPSetKeyParam KP_CERTIFICATE", 8, "veltra_getKeyPairList", kAll},
    {"KSPSetKeyProperty SmartCardKeyCertificate", 3, "veltra_getCertificateDetails", kAll},
    {"KSPSetKeyProperty SmartCardKeyCertificate", 4, "veltra_getCertificateDetails", kAll},
    {"KSPSetKeyProperty SmartCardKeyCertificate", 8, "veltra_getKeyPairList", kAll},
    {"", 0, "veltra_updateKeyPairDetails", kAll},
    // The inner hash of an HMAC is consumed when its outer step fails.
    {kHmacValue, 2, "", kAll, Effect::Spent},
    {kHmacValue, 3, "", kAll, Effect::Spent},
    {kHmacValue, 4, "", kAll, Effect::Spent},
    {kHmacValue, 5, "", kAll, Effect::Spent},
};

const Tolerance* toleranceOf(const Scenario& scenario, int call, std::string_view function,
                             const Fault& fault) {
    const auto* const found = std::ranges::find_if(kTolerances, [&](const Tolerance& row) {
        return (row.scenario.empty() || row.scenario == scenario.name) &&
               (row.call == 0 || row.call == call) && (row.function.empty() || row.function == function) &&
               (row.kinds & fault.kind) != 0;
    });
    return found == std::end(kTolerances) ? nullptr : found;
}

bool isAbout(std::string_view functions, std::string_view function) {
    const std::string list = concat(" ", functions, " ");
    return functions.empty() || list.find(concat(" ", function, " ")) != std::string::npos;
}

struct Reply {
    DWORD code = 0;
    std::vector<std::string> errors;
    Output out; ///< with 1 for every handle

    bool operator==(const Reply&) const = default;
};

class LibraryFaultTest : public ProviderTest {
protected:
    LibraryFaultTest() { setLogLevel(2); }

    /// A new world that the scenario was not run in yet, and a user who knows the PIN.
    std::unique_ptr<World> prepared(const Scenario& scenario) {
        removeLog();
        takeRawLogLines();
        auto world = std::make_unique<World>(freshName("Faulty"));
        world->token.pin = reinterpret_cast<const char*>(pinText);
        storePin(world->token.serial, Pin(world->token.pin));
        scenario.prepare(*world);
        prompt.willType({world->token.pin, world->token.pin}); // the second when the session expires
        library.clearCalls();
        return world;
    }

    /// Runs the scenario; what it hands out is released. `armed` goes right in front of it.
    Reply perform(
        const Scenario& scenario, World& world, const std::function<void()>& armed = [] {}) {
        world.resetOutput();
        Reply reply;
        Answer answer = run([&] {
            armed();
            reply.code = scenario.run(world);
            AllocationFault::disarm();
            return reply.code == 0;
        });
        reply.errors = std::move(answer.errors);
        for (std::uintptr_t* handle : {&world.out.handle, &world.out.second})
            if (*handle != 0) *handle = releaseAny(*handle) ? 1 : 2;
        reply.out = world.out;
        return reply;
    }

    /// What a run with a fault may answer, and what the next one on the same objects.
    void judge(const Scenario& scenario, World& world, const Reply& undisturbed, const Reply& reply,
               Effect effect, bool wroteDirectly) {
        const bool refusal = reply.code != 0;
        if (refusal) expectRefusal(reply, world, wroteDirectly);
        EXPECT_TRUE(refusal || effect == Effect::OtherResult || reply.out == undisturbed.out);
        const std::string pin = getPin(world.token.serial).c_str();
        EXPECT_TRUE(pin.empty() || pin == world.token.pin);
        if (!refusal) return;
        prompt.willType({world.token.pin});
        const Reply again = perform(scenario, world);
        EXPECT_TRUE(effect == Effect::MayBeSpent ||
                    (again.code == 0 && again.out == undisturbed.out) == (effect != Effect::Spent))
            << "again: " << testing::PrintToString(again.errors);
    }

private:
    /// A refusal gives a reason and hands nothing out. The library writes signatures and RSA ciphertexts
    /// straight into the application's buffer: they are no secrets, and stay there.
    static void expectRefusal(const Reply& reply, const World& world, bool wroteDirectly) {
        const DWORD code = reply.code;
        EXPECT_NE(code, kNoReason);
        EXPECT_TRUE(!reply.errors.empty() || code == ERROR_NOT_ENOUGH_MEMORY);
        Output untouched;
        std::ranges::copy(world.input, untouched.bytes.begin());
        if (!world.input.empty()) untouched.length = world.inputLength();
        untouched.second = reply.out.second; // KSPEnumKeys hands its cursor out in any case
        if (wroteDirectly) untouched.bytes = reply.out.bytes;
        const bool tellsSize = code == ERROR_MORE_DATA || code == static_cast<DWORD>(NTE_BUFFER_TOO_SMALL);
        if (tellsSize) untouched.length = reply.out.length;
        EXPECT_TRUE(reply.out == untouched) << "something was handed out, code " << std::hex << code;
    }
};

TEST_F(LibraryFaultTest, EveryLibraryCallFailsOnceInEveryWay) {
    for (const Scenario& scenario : kScenarios) {
        const Reply undisturbed = perform(scenario, *prepared(scenario));
        EXPECT_EQ(undisturbed.code, 0u) << scenario.name << testing::PrintToString(undisturbed.errors);
        std::vector<std::string> calls = library.calls();
        for (std::string& call : calls)
            call.resize(call.find('('));
        int number = 0;
        for (const std::string& function : calls) {
            ++number;
            for (const Fault& fault : kFaults) {
                if (!isAbout(fault.functions, function)) continue;
                SCOPED_TRACE(concat(scenario.name, ": call ", number, ", ", function, ", ", fault.name));
                const Tolerance* tolerance = toleranceOf(scenario, number, function, fault);
                const Effect effect = tolerance ? tolerance->effect : Effect::None;
                const auto world = prepared(scenario);
                library.scriptCall(number, fault.script);
                const Reply reply = perform(scenario, *world);
                library.clearScripts();
                EXPECT_EQ(reply.code == 0, tolerance && effect != Effect::Spent) << std::hex << reply.code;
                EXPECT_FALSE(function == "veltra_validatePassword" && isPinValidated(world->token.serial));
                judge(scenario, *world, undisturbed, reply, effect,
                      fault.script.length && isAbout("veltra_signHash veltra_encrypt", function));
            }
        }
    }
}

// At the most verbose level, in no form, whatever the library answers.
TEST_F(LibraryFaultTest, NoPinIsEverLogged) {
    const std::string pin = reinterpret_cast<const char*>(pinText);
    const std::vector<WCHAR> wide = wideText(pin);
    const std::string kForms[] = {pin,
                                  toHex({pinText, sizeof pinText - 1}),
                                  {reinterpret_cast<const char*>(wide.data()), pin.size() * sizeof(WCHAR)}};
    for (const Scenario& scenario : kScenarios) {
        int calls = 0;
        for (int failing = 0; failing <= calls; ++failing) {
            SCOPED_TRACE(concat(scenario.name, ": call ", failing));
            setLogLevel(0);
            const auto world = prepared(scenario);
            library.scriptCall(failing == 0 ? INT_MAX : failing, {.result = kDeviceSessionExpired});
            setLogLevel(3);
            perform(scenario, *world);
            if (failing == 0) calls = static_cast<int>(library.calls().size());
            library.clearScripts();
            const std::string log = readLog();
            EXPECT_THAT(log, HasSubstr("DEBUG ::=>"));
            for (const std::string& form : kForms)
                EXPECT_THAT(log, Not(HasSubstr(form)));
        }
    }
}

TEST_F(LibraryFaultTest, EveryAllocationFailsOnce) {
    for (const Scenario& scenario : kScenarios) {
        const Reply undisturbed = perform(scenario, *prepared(scenario));
        for (int n = 1, fired = 1; fired != 0; ++n) {
            SCOPED_TRACE(concat(scenario.name, ": allocation ", n));
            const auto world = prepared(scenario);
            const std::size_t keysBefore = world->token.keyPairs.size() + world->token.aesKeys.size();
            const Reply reply = perform(scenario, *world, [&] { AllocationFault::arm(n); });
            fired = AllocationFault::fired();
            if (reply.code != 0) {
                EXPECT_EQ(world->token.keyPairs.size() + world->token.aesKeys.size(), keysBefore)
                    << "a key was made or lost";
            }
            const bool mayBeSpent = std::string_view(scenario.name) == kHmacValue;
            judge(scenario, *world, undisturbed, reply, mayBeSpent ? Effect::MayBeSpent : Effect::None,
                  false);
        }
    }
}

} // namespace
} // namespace veltra::test
