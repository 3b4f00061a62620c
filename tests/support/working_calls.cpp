#include "support/working_calls.h"

#include "support/blob_bytes.h"
#include "unit/test_certificates.h"

#include "certs/public_key_blob.h"
#include "ksp/key_storage_interface.h"
#include "token/device_state.h"

#include <algorithm>
#include <array>
#include <map>
#include <sstream>

namespace veltra::test {

namespace {

using World = BothFrontEnds;

const std::map<std::string, ULONG_PTR World::*> kObjects = {
    {"context", &World::context},     {"rsaKey", &World::rsaKey},     {"aesKey", &World::aesKey},
    {"hash", &World::hash},           {"hmac", &World::hmac},         {"provider", &World::provider},
    {"cngRsaKey", &World::cngRsaKey}, {"cngEcKey", &World::cngEcKey}, {"cngAesKey", &World::cngAesKey},
    {"newKey", &World::cngNewKey},    {"secret", &World::secret},     {"block", &World::block},
};

/// The one that works, small numbers and single bits.
Values numbers(std::uintptr_t first) {
    Values values = {first};
    for (std::uintptr_t value = 0; value < 50; ++value)
        values.push_back(value);
    values.insert(values.end(), {CALG_SHA1, CALG_SHA_512, CALG_MD5, CALG_AES_256, CALG_RSA_SIGN});
    const Values others = bits();
    values.insert(values.end(), others.begin(), others.end());
    return values;
}

/// Names of properties and blobs; the first one works.
template <class... Names>
Values texts(const Names&... names) {
    return {addressOf(names)..., addressOf(L"none"), addressOf(L"")};
}

Bytes terminated(std::string_view text) {
    return joined({bytesOf(text), {0}});
}

Bytes reversed(Bytes bytes) {
    std::ranges::reverse(bytes);
    return bytes;
}

// What the world is changed to.

/// The user logs in by the dialog.
void forgetStoredPin(World& w) {
    forgetDisconnected({});
    forgetPin(w.token.serial);
}

void forgetToken(World&) {
    forgetDisconnected({});
}

/// A container that nobody has opened yet.
void mapContainer(World& w) {
    RegSetKeyValueA(HKEY_CURRENT_USER, R"(SOFTWARE\Veltra\CSP\Containers)", w.token.serial.c_str(), REG_SZ,
                    w.container.c_str(), static_cast<DWORD>(w.container.size() + 1));
}

void addIssuers(World& w) {
    for (VeltraKeyPair& pair : w.token.keyPairs)
        pair.label[0] = '\0';
    ScriptedDeviceLibrary::instance().caFiles = {
        {"ca", ScriptedDeviceLibrary::fakeCertificate("CA", "CN=Root", "CN=CA")},
        {"root", ScriptedDeviceLibrary::fakeCertificate("Root", "CN=Root", "CN=Root")}};
}

void addRealCertificate(World& w) {
    VeltraCertificate& record = w.token.certificates[0];
    DWORD length = sizeof record.der;
    CryptStringToBinaryA(kLeafCertificate, 0, CRYPT_STRING_BASE64, record.der, &length, nullptr, nullptr);
    record.derLength = length;
}

const Bytes kBlock(16, 'S'), kPin = terminated(World::kPin);
/// A structure without content, as long as any that a caller describes a padding or a list with.
constexpr std::array<std::uintptr_t, 4> kEmptyRecord = {};
constexpr const char* kKeyName = "11111111111111111111111111111111";
const Bytes kSignature = ScriptedDeviceLibrary::fakeSignature(kKeyTypeRsa2048);
const Bytes kCertificate = ScriptedDeviceLibrary::fakeCertificate("C", "CN=CA", "CN=C");

template <BYTE Type>
Bytes blob(const Bytes& rest) {
    return joined({{Type, 2, 0, 0}, littleEndian(CALG_AES_128), rest});
}

/// A KSP* function returns its failure and leaves the last error alone.
DWORD failureByStatus(DWORD result) {
    return GetLastError() == kUntouched ? result : kNoReason;
}

/// An AES key that the token's AES key wraps.
Bytes wrappedKey() {
    return ScriptedDeviceLibrary::maskOf(joined({{World::kAes}, Bytes(16, 'W')}));
}

} // namespace

Argument::Argument(std::string word) : isOptional(word.back() == '?') {
    if (isOptional) word.pop_back();
    const std::size_t sign = std::min(word.find('='), word.size());
    name = word.substr(0, sign);
    if (name == "text") {
        text = wideText(word.substr(std::min(sign + 1, word.size())));
    } else if (sign < word.size()) {
        value = std::stoul(word.substr(sign + 1));
    }
}

ULONG_PTR World::*Argument::object() const {
    const auto found = kObjects.find(name);
    return found == kObjects.end() ? nullptr : found->second;
}

std::uintptr_t Argument::placeIn(World& w) const {
    if (name == "input") return addressOf(w.input.data());
    if (name == "serial") return addressOf(w.token.serial.c_str());
    if (name == "data") return addressOf(w.data());
    if (name == "length" || name == "inOut") return addressOf(&w.out.length);
    if (name == "count") return addressOf(&w.out.count);
    if (name == "handle") return addressOf(&w.out.handle);
    if (name == "second") return addressOf(&w.out.second);
    return name == "record" ? addressOf(kEmptyRecord.data()) : 0;
}

std::uintptr_t Argument::in(World& w, std::uintptr_t choice) const {
    if (object()) return w.*object();
    if (placeIn(w) != 0) return placeIn(w);
    if (name == "choice") return choice;
    if (name == "text") return addressOf(text.data());
    if (name == "size") return w.input.size();
    return name == "capacity" ? Output::kCapacity : value;
}

DWORD failureByLastError(DWORD result) {
    if (result != FALSE) return 0;
    const DWORD reason = GetLastError();
    return reason == 0 || reason == kUntouched ? kNoReason : reason;
}

DWORD WorkingCall::invoke(const Values& values) const {
    SetLastError(kUntouched);
    return failureOf(call(values));
}

std::vector<Argument> argumentsOf(std::string_view words) {
    std::istringstream stream{std::string(words)};
    std::vector<Argument> all;
    for (std::string word; stream >> word;) {
        if (word != "out?") {
            all.emplace_back(word);
        } else {
            all.insert(all.end(), {Argument("data?"), Argument("capacity"), Argument("length")});
        }
    }
    return all;
}

void WorkingCall::prepare(World& world) const {
    world.input = input;
    changeWorld(world);
}

Values WorkingCall::valuesIn(World& world, std::uintptr_t choice) const {
    Values values;
    for (const Argument& argument : arguments)
        values.push_back(argument.in(world, choice));
    return values;
}

Values bits() {
    Values values = {MAXDWORD};
    for (int bit = 0; bit < 32; ++bit)
        values.push_back(std::uintptr_t{1} << bit);
    return values;
}

std::vector<WorkingCall> cspCalls() {
    const Bytes ciphertext = reversed(ciphertextOf(kBlock));
    const HMAC_INFO info{CALG_SHA_256, nullptr, 0, nullptr, 0};
    const auto* infoBytes = reinterpret_cast<const BYTE*>(&info);
    const Bytes hmacInfo(infoBytes, infoBytes + sizeof info);
    return {
        {"CPAcquireContext", CPAcquireContext, "handle input? flags data", terminated(kKeyName)},
        {"CPAcquireContext of a new token", CPAcquireContext, "handle input? flags data",
         terminated("unknown"), forgetToken},
        {"CPAcquireContext CRYPT_DELETEKEYSET", CPAcquireContext, "handle serial? =16 data", mapContainer},
        {"CPReleaseContext", CPReleaseContext, "context =0", Outcome::Spends},
        {"CPGetProvParam", CPGetProvParam, "context choice data? length flags=1", numbers(PP_NAME)},
        {"PP_ENUMALGS", CPGetProvParam, "context =1 data? length =1"},
        {"PP_CERTCHAIN", CPGetProvParam, "context =9 data? length flags", addRealCertificate},
        {"CPSetProvParam", CPSetProvParam, "context choice input? flags", kPin, numbers(PP_SIGNATURE_PIN),
         forgetStoredPin},
        {"CPGenKey", CPGenKey, "context choice flags=134217728 handle", numbers(AT_KEYEXCHANGE)},
        {"CPGetUserKey", CPGetUserKey, "context choice handle", numbers(AT_SIGNATURE)},
        {"CPGetKeyParam", CPGetKeyParam, "context rsaKey choice data? length flags", numbers(KP_MODE)},
        {"KP_CERTIFICATE", CPGetKeyParam, "context rsaKey =26 data? length flags"},
        {"CPSetKeyParam KP_CERTIFICATE", CPSetKeyParam, "context rsaKey choice input? flags", kCertificate,
         numbers(KP_CERTIFICATE), addIssuers},
        {"CPDestroyKey", CPDestroyKey, "context rsaKey", Outcome::Spends},
        {"CPDeriveKey", CPDeriveKey, "context choice hash flags handle", numbers(CALG_AES_128)},
        {"CPExportKey", CPExportKey, "context rsaKey rsaKey? choice flags data? length",
         numbers(PUBLICKEYBLOB)},
        {"CPImportKey PUBLICKEYBLOB", CPImportKey, "context input size rsaKey? flags handle",
         makePublicKeyBlob(Bytes(256, 'M'), CALG_RSA_KEYX)},
        {"CPImportKey SIMPLEBLOB", CPImportKey, "context input size rsaKey flags handle",
         blob<SIMPLEBLOB>(joined({Bytes(4), ciphertext}))},
        {"CPImportKey PLAINTEXTKEYBLOB", CPImportKey, "context input size rsaKey? flags handle",
         blob<PLAINTEXTKEYBLOB>(joined({littleEndian(16), Bytes(16, 'K')}))},
        // The provider leaves out the last four bytes.
        {"CPImportKey SYMMETRICWRAPKEYBLOB", CPImportKey, "context input size rsaKey? flags handle",
         blob<SYMMETRICWRAPKEYBLOB>(joined({wrappedKey(), Bytes(4)}))},
        {"CPGenRandom", CPGenRandom, "context =32 data"},
        {"CPCreateHash", CPCreateHash, "context choice aesKey? flags handle", numbers(CALG_SHA_256)},
        {"CPCreateHash CALG_HMAC", CPCreateHash, "context =32777 aesKey flags handle"},
        {"CPHashData", CPHashData, "context hash input =16 flags", kBlock},
        {"CPHashSessionKey", CPHashSessionKey, "context hash rsaKey flags", Outcome::NeverServed},
        {"CPGetHashParam", CPGetHashParam, "context hash choice data? length flags", numbers(HP_HASHVAL)},
        {"HP_HASHSIZE of an HMAC", CPGetHashParam, "context hmac =4 data? length flags"},
        {"HP_HASHVAL of an HMAC", CPGetHashParam, "context hmac =2 data? length flags"},
        {"CPSetHashParam", CPSetHashParam, "context hmac choice data flags", numbers(HP_HASHVAL)},
        {"HP_HMAC_INFO", CPSetHashParam, "context hmac =5 input flags", hmacInfo},
        {"CPDuplicateHash", CPDuplicateHash, "context hash count? flags handle"},
        {"CPDestroyHash", CPDestroyHash, "context hash", Outcome::Spends},
        {"CPSignHash", CPSignHash, "context hash choice text? flags data? length", numbers(AT_KEYEXCHANGE)},
        {"CPSignHash with a login", CPSignHash, "context hash =1 text? flags data? length", forgetStoredPin},
        {"CPVerifySignature", CPVerifySignature, "context hash input size rsaKey? text? flags",
         reversed(kSignature)},
        {"CPVerifySignature without a key", CPVerifySignature, "context hash input size =0 text? flags",
         reversed(kSignature)},
        {"CPEncrypt RSA", CPEncrypt, "context rsaKey hash? flags=1 flags data? length capacity", kBlock},
        {"CPEncrypt AES", CPEncrypt, "context aesKey hash? flags=1 flags data? length capacity", kBlock},
        {"CPDecrypt RSA", CPDecrypt, "context rsaKey hash? flags flags=64 data inOut", ciphertext},
        {"CPDecrypt AES", CPDecrypt, "context aesKey hash? flags flags data inOut", kBlock},
    };
}

std::vector<WorkingCall> cngCalls() {
    const Values providerProperties =
        texts(L"Name", L"Impl Type", L"Version", L"Algorithm Name", L"Use Count", L"HWND Handle");
    const Values keyProperties = texts(
        L"Length", L"Name", L"Algorithm Name", L"Algorithm Group", L"Lengths", L"Key Usage", L"Export Policy",
        L"Block Length", L"Key Type", L"Unique Name", L"Provider Handle", L"SmartCardKeyCertificate",
        L"ChainingMode", L"Security Descr", L"SmartCardPin", L"HWND Handle", L"IV");
    const Values blobs = texts(L"KeyDataBlob", L"PUBLICBLOB", L"ECCPUBLICBLOB", L"CAPIPUBLICBLOB",
                               L"PRIVATEBLOB", L"CAPIPRIVATEBLOB", L"OpaqueKeyBlob", L"RSAPUBLICBLOB",
                               L"OpaqueTransport", L"PKCS8_PRIVATEKEY");
    const Bytes aesBlob = joined({dwords({BCRYPT_KEY_DATA_BLOB_MAGIC, 1, 16}), kBlock, Bytes(30)});
    const Bytes rsaBlob = joined({dwords({BCRYPT_RSAPUBLIC_MAGIC, 2048, 0, 256, 0, 0}), Bytes(256)});
    const Bytes ecBlob = joined({dwords({BCRYPT_ECDSA_PUBLIC_P256_MAGIC, 32}), Bytes(64)});
    std::vector<WorkingCall> calls = {
        {"KSPOpenProvider", KSPOpenProvider, "handle text? flags"},
        {"KSPOpenKey", KSPOpenKey, "provider handle text=11111111111111111111111111111111 choice flags",
         numbers(0)},
        {"KSPCreatePersistedKey", KSPCreatePersistedKey, "provider handle text=ECDSA_P256 text? choice flags",
         numbers(0)},
        {"KSPGetProviderProperty", KSPGetProviderProperty, "provider choice out? flags", providerProperties},
        {"KSPGetProviderProperty Name", KSPGetProviderProperty, "provider text=Name out? flags"},
        {"KSPGetKeyProperty", KSPGetKeyProperty, "provider cngRsaKey choice out? flags", keyProperties},
        {"KSPGetKeyProperty Name", KSPGetKeyProperty, "provider cngEcKey text=Name out? flags"},
        {"KSPGetKeyProperty SmartCardKeyCertificate", KSPGetKeyProperty,
         "provider cngRsaKey text=SmartCardKeyCertificate out? flags"},
        {"KSPSetProviderProperty", KSPSetProviderProperty, "provider choice input? size flags", kPin,
         texts(L"HWND Handle", L"SmartCardPin")},
        {"KSPSetProviderProperty SmartCardPin", KSPSetProviderProperty,
         "provider text=SmartCardPin input =20 flags", kPin, forgetStoredPin},
        {"KSPSetKeyProperty", KSPSetKeyProperty, "provider cngAesKey choice input? size flags", kPin,
         keyProperties, Outcome::NeverServed},
        {"KSPSetKeyProperty SmartCardPin", KSPSetKeyProperty,
         "provider cngRsaKey text=SmartCardPin input =20 flags", kPin, forgetStoredPin},
        {"KSPSetKeyProperty SmartCardKeyCertificate", KSPSetKeyProperty,
         "provider cngRsaKey text=SmartCardKeyCertificate input size flags", kCertificate, addIssuers},
        {"KSPFinalizeKey", KSPFinalizeKey, "provider newKey flags"},
        {"KSPDeleteKey", KSPDeleteKey, "provider cngRsaKey flags"},
        {"KSPFreeProvider", KSPFreeProvider, "provider", Outcome::Spends},
        {"KSPFreeKey", KSPFreeKey, "provider? cngRsaKey?", Outcome::Spends},
        {"KSPFreeBuffer", KSPFreeBuffer, "block?", Outcome::Spends},
        {"KSPEncrypt RSA", KSPEncrypt, "provider cngRsaKey input size record? out? flags=2", kBlock},
        {"KSPEncrypt AES", KSPEncrypt, "provider cngAesKey input size record? out? flags", kBlock},
        {"KSPDecrypt RSA", KSPDecrypt, "provider cngRsaKey input size record? out? flags",
         ciphertextOf(kBlock)},
        {"KSPDecrypt AES", KSPDecrypt, "provider cngAesKey input size record? out? flags", kBlock},
        {"KSPIsAlgSupported", KSPIsAlgSupported, "provider? text=RSA flags"},
        {"KSPEnumAlgorithms", KSPEnumAlgorithms, "provider choice count handle flags", numbers(0)},
        {"KSPEnumKeys", KSPEnumKeys, "provider text? handle second flags"},
        {"KSPImportKey", KSPImportKey, "provider cngRsaKey? choice count? handle input size flags", aesBlob,
         blobs},
        {"KSPImportKey KeyDataBlob", KSPImportKey,
         "provider cngRsaKey? text=KeyDataBlob count? handle input size flags", aesBlob},
        {"KSPImportKey RSAPUBLICBLOB", KSPImportKey,
         "provider cngRsaKey? text=RSAPUBLICBLOB count? handle input size flags", rsaBlob},
        {"KSPImportKey ECCPUBLICBLOB", KSPImportKey,
         "provider cngRsaKey? text=ECCPUBLICBLOB count? handle input size flags", ecBlob},
        {"KSPImportKey CAPIPUBLICBLOB", KSPImportKey,
         "provider cngRsaKey? text=CAPIPUBLICBLOB count? handle input size flags",
         makePublicKeyBlob(Bytes(256, 'M'), CALG_RSA_KEYX)},
        {"KSPImportKey OpaqueKeyBlob", KSPImportKey,
         "provider cngRsaKey? text=OpaqueKeyBlob count? handle input size flags", wrappedKey()},
        {"KSPImportKey OpaqueTransport", KSPImportKey,
         "provider cngRsaKey text=OpaqueTransport count? handle input size flags", ciphertextOf(kBlock)},
        {"KSPExportKey", KSPExportKey, "provider cngRsaKey newKey? text=RSAPUBLICBLOB count? out? flags"},
        {"KSPExportKey of an EC key", KSPExportKey, "provider cngEcKey newKey? choice count? out? flags",
         blobs, Outcome::NeverServed},
        {"KSPSignHash", KSPSignHash, "provider cngRsaKey count? input? size out? flags=2", Bytes(32)},
        {"KSPSignHash with a login", KSPSignHash, "provider cngRsaKey count? input? size out? flags=2",
         Bytes(32), forgetStoredPin},
        {"KSPVerifySignature", KSPVerifySignature,
         "provider cngRsaKey count? input hashSize=32 input size flags=2", kSignature},
        {"KSPPromptUser", KSPPromptUser, "provider cngRsaKey? text? flags", forgetStoredPin},
        {"KSPNotifyChangeKey", KSPNotifyChangeKey, "provider? handle? flags", Outcome::NeverServed},
        {"KSPSecretAgreement", KSPSecretAgreement, "provider cngEcKey cngEcKey handle flags"},
        {"KSPDeriveKey", KSPDeriveKey, "provider? secret text=HASH? record? out? flags"},
        {"KSPFreeSecret", KSPFreeSecret, "provider? secret?", Outcome::Spends},
        {"GetKeyStorageInterface", GetKeyStorageInterface, "text? second flags"},
    };
    for (WorkingCall& call : calls)
        call.failureOf = failureByStatus;
    return calls;
}

} // namespace veltra::test
