// Every argument of every entry point, hostile: a call that works is made again and again with one argument
// replaced. Nothing crashes, what must be refused is refused with a reason, and a refusal hands nothing out.

#include "support/blob_bytes.h"
#include "support/both_front_ends.h"
#include "support/provider_test.h"

#include "certs/public_key_blob.h"
#include "foundation/text.h"
#include "ksp/key_storage_interface.h"

#include <algorithm>
#include <array>
#include <climits>
#include <sstream>

namespace veltra::test {
namespace {

using World = BothFrontEnds;
using Values = std::vector<std::uintptr_t>;

std::uintptr_t addressOf(const void* pointer) {
    return reinterpret_cast<std::uintptr_t>(pointer);
}

/// An argument of a call, as a word. The name of an object or of a place in the world: with "?" behind it, it
/// need not be there, or is not looked at. "text" and "text?": the row's text. "flags", "flags=N". "inOut":
/// the length of the input before and of the output after. "choice": which of several things the function
/// does; every one is tried with everything else. "size": of the input. "capacity": of the output. "=N": a
/// number that stays.
struct Argument {
    explicit Argument(std::string word) : isOptional(word.back() == '?') {
        if (isOptional) word.pop_back();
        const std::size_t sign = std::min(word.find('='), word.size());
        if (sign < word.size()) value = std::stoul(word.substr(sign + 1));
        name = word.substr(0, sign);
    }

    std::string name;
    bool isOptional;
    std::uintptr_t value = 0;
};

const std::map<std::string, ULONG_PTR World::*> kObjects = {
    {"context", &World::context},     {"rsaKey", &World::rsaKey},     {"aesKey", &World::aesKey},
    {"hash", &World::hash},           {"hmac", &World::hmac},         {"provider", &World::provider},
    {"cngRsaKey", &World::cngRsaKey}, {"cngEcKey", &World::cngEcKey}, {"cngAesKey", &World::cngAesKey},
    {"newKey", &World::cngNewKey},    {"secret", &World::secret},
};

/// A structure without content, as long as any that a caller describes a padding or a list with.
constexpr std::array<std::uintptr_t, 4> kEmptyRecord = {};

std::uintptr_t placeOf(World& w, std::string_view name) {
    if (name == "input") return addressOf(w.input.data());
    if (name == "data") return addressOf(w.data());
    if (name == "length" || name == "inOut") return addressOf(&w.out.length);
    if (name == "count") return addressOf(&w.out.count);
    if (name == "handle") return addressOf(&w.out.handle);
    if (name == "second") return addressOf(&w.out.second);
    return name == "record" ? addressOf(kEmptyRecord.data()) : 0;
}

/// Calls a function with arguments of any type. 0 or the failure.
using Invocation = std::function<DWORD(const Values&)>;

template <class Parameter>
Parameter convert(std::uintptr_t value) {
    if constexpr (std::is_pointer_v<Parameter>) {
        return reinterpret_cast<Parameter>(value);
    } else {
        return static_cast<Parameter>(value);
    }
}

template <class Result, class... Parameters, std::size_t... Index>
Invocation invocation(std::string_view name, Result(WINAPI* function)(Parameters...),
                      std::index_sequence<Index...>) {
    // The result does not tell the front end: on some platforms BOOL and SECURITY_STATUS are one type.
    const bool isCryptoApi = name.starts_with("CP");
    return [function, isCryptoApi](const Values& values) -> DWORD {
        EXPECT_EQ(values.size(), sizeof...(Parameters));
        SetLastError(kUntouched);
        const auto result = function(convert<Parameters>(values.at(Index))...);
        const DWORD lastError = GetLastError();
        if (isCryptoApi) {
            EXPECT_TRUE(result || (lastError != 0 && lastError != kUntouched)) << "no reason";
            return result ? 0 : lastError;
        }
        EXPECT_EQ(lastError, kUntouched);
        return static_cast<DWORD>(result);
    };
}

/// A call that works as it stands, with the first of its choices; `alwaysRefused`: one that never does.
struct Call {
    template <class Result, class... Parameters>
    Call(const char* called, Result(WINAPI* function)(Parameters...), const char* words, Bytes bytes = {},
         Values choice = {0}, const WCHAR* wide = L"")
        : name(called), invoke(invocation(called, function, std::index_sequence_for<Parameters...>())),
          input(std::move(bytes)), choices(std::move(choice)), text(wide) {
        std::istringstream stream(words);
        for (std::string word; stream >> word;)
            arguments.emplace_back(word);
    }

    const char* name;
    Invocation invoke;
    std::vector<Argument> arguments;
    Bytes input;
    Values choices;
    const WCHAR* text;
};

Values bits() {
    Values values = {MAXDWORD};
    for (int bit = 0; bit < 32; ++bit)
        values.push_back(std::uintptr_t{1} << bit);
    return values;
}

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

const Bytes kNothing, kBlock(16, 'S'), kPin = {'1', '2', '3', '4', 0, 0, 0, 0};
const Bytes kSignature = ScriptedDeviceLibrary::fakeSignature(kKeyTypeRsa2048);
const Bytes kCertificate = ScriptedDeviceLibrary::fakeCertificate("C", "CN=C", "CN=C");

Bytes reversed(Bytes bytes) {
    std::ranges::reverse(bytes);
    return bytes;
}

std::vector<Call> cspCalls() {
    const Bytes ciphertext = reversed(ciphertextOf(kBlock));
    const Bytes sessionKey =
        joined({{SIMPLEBLOB, 2, 0, 0}, littleEndian(CALG_AES_128), Bytes(4), ciphertext});
    return {
        {"CPAcquireContext", CPAcquireContext, "handle input? flags data", {'n', 'e', 'w', 0}},
        {"CPReleaseContext", CPReleaseContext, "context =0"},
        {"CPGetProvParam", CPGetProvParam, "context choice data? length flags=1", kNothing, numbers(PP_NAME)},
        {"CPSetProvParam", CPSetProvParam, "context choice input? flags", kPin, numbers(PP_SIGNATURE_PIN)},
        {"CPGenKey", CPGenKey, "context choice flags=134217728 handle", kNothing, numbers(AT_SIGNATURE)},
        {"CPGetUserKey", CPGetUserKey, "context choice handle", kNothing, numbers(AT_SIGNATURE)},
        {"CPGetKeyParam", CPGetKeyParam, "context rsaKey choice data? length flags", kNothing,
         numbers(KP_MODE)},
        {"CPSetKeyParam", CPSetKeyParam, "context rsaKey choice input? flags", kCertificate,
         numbers(KP_CERTIFICATE)},
        {"CPDestroyKey", CPDestroyKey, "context rsaKey"},
        {"CPDeriveKey", CPDeriveKey, "context choice hash flags handle", kNothing, numbers(CALG_AES_128)},
        {"CPExportKey", CPExportKey, "context rsaKey rsaKey? choice flags data? length", kNothing,
         numbers(PUBLICKEYBLOB)},
        {"CPImportKey", CPImportKey, "context input size rsaKey? flags handle",
         makePublicKeyBlob(Bytes(256, 'M'), CALG_RSA_KEYX)},
        {"CPImportKey", CPImportKey, "context input size rsaKey flags handle", sessionKey},
        {"CPGenRandom", CPGenRandom, "context =32 data"},
        {"CPCreateHash", CPCreateHash, "context choice aesKey? flags handle", kNothing,
         numbers(CALG_SHA_256)},
        {"CPCreateHash", CPCreateHash, "context choice aesKey flags handle", kNothing, {CALG_HMAC}},
        {"CPHashData", CPHashData, "context hash input =16 flags", kBlock},
        {"CPHashSessionKey", CPHashSessionKey, "context hash rsaKey flags"},
        {"CPGetHashParam", CPGetHashParam, "context hash choice data? length flags", kNothing,
         numbers(HP_HASHVAL)},
        {"CPSetHashParam", CPSetHashParam, "context hmac choice data flags", kNothing, numbers(HP_HASHVAL)},
        {"CPDuplicateHash", CPDuplicateHash, "context hash count? flags handle"},
        {"CPDestroyHash", CPDestroyHash, "context hash"},
        {"CPSignHash", CPSignHash, "context hash choice text? flags data? length", kNothing,
         numbers(AT_SIGNATURE)},
        {"CPVerifySignature", CPVerifySignature, "context hash input size rsaKey? text? flags",
         reversed(kSignature)},
        {"CPEncrypt", CPEncrypt, "context rsaKey hash? flags flags data? length capacity", kBlock},
        {"CPEncrypt", CPEncrypt, "context aesKey hash? flags flags data? length capacity", kBlock},
        {"CPDecrypt", CPDecrypt, "context rsaKey hash? flags flags=64 data inOut", ciphertext},
        {"CPDecrypt", CPDecrypt, "context aesKey hash? flags flags data inOut", kBlock},
    };
}

std::vector<Call> cngCalls() {
    const Values providerProperties =
        texts(L"Name", L"Impl Type", L"Version", L"Algorithm Name", L"Use Count", L"HWND Handle");
    const Values keyProperties = texts(
        L"Length", L"Name", L"Algorithm Name", L"Algorithm Group", L"Lengths", L"Key Usage", L"Export Policy",
        L"Block Length", L"Key Type", L"Unique Name", L"Provider Handle", L"SmartCardKeyCertificate",
        L"ChainingMode", L"Security Descr", L"SmartCardPin", L"HWND Handle", L"IV");
    const Values blobs = texts(L"KeyDataBlob", L"PUBLICBLOB", L"ECCPUBLICBLOB", L"CAPIPUBLICBLOB",
                               L"PRIVATEBLOB", L"CAPIPRIVATEBLOB", L"OpaqueKeyBlob", L"RSAPUBLICBLOB",
                               L"OpaqueTransport", L"PKCS8_PRIVATEKEY");
    const Bytes aesBlob = joined({dwords({0x4D42444B, 1, 16}), kBlock, Bytes(30)});
    return {
        {"KSPOpenProvider", KSPOpenProvider, "handle text? flags"},
        {"KSPOpenKey", KSPOpenKey, "provider handle text choice flags", kNothing, numbers(0),
         L"11111111111111111111111111111111"},
        {"KSPCreatePersistedKey", KSPCreatePersistedKey, "provider handle text text? choice flags", kNothing,
         numbers(0), L"RSA"},
        {"KSPGetProviderProperty", KSPGetProviderProperty, "provider choice data? capacity length flags",
         kNothing, providerProperties},
        {"KSPGetProviderProperty",
         KSPGetProviderProperty,
         "provider text data? capacity length flags",
         kNothing,
         {0},
         L"Name"},
        {"KSPGetKeyProperty", KSPGetKeyProperty, "provider cngRsaKey choice data? capacity length flags",
         kNothing, keyProperties},
        {"KSPGetKeyProperty",
         KSPGetKeyProperty,
         "provider cngEcKey text data? capacity length flags",
         kNothing,
         {0},
         L"Name"},
        {"KSPSetProviderProperty", KSPSetProviderProperty, "provider choice input? size flags", kPin,
         texts(L"SmartCardPin", L"HWND Handle")},
        {"KSPSetProviderProperty",
         KSPSetProviderProperty,
         "provider text input =8 flags",
         kPin,
         {0},
         L"SmartCardPin"},
        {"KSPSetKeyProperty", KSPSetKeyProperty, "provider cngAesKey choice input? size flags", kPin,
         keyProperties},
        {"KSPSetKeyProperty",
         KSPSetKeyProperty,
         "provider cngRsaKey text input size flags",
         kCertificate,
         {0},
         L"SmartCardKeyCertificate"},
        {"KSPFinalizeKey", KSPFinalizeKey, "provider newKey flags"},
        {"KSPDeleteKey", KSPDeleteKey, "provider cngRsaKey flags"},
        {"KSPFreeProvider", KSPFreeProvider, "provider"},
        {"KSPFreeKey", KSPFreeKey, "provider? cngRsaKey?"},
        {"KSPFreeBuffer", KSPFreeBuffer, "cngRsaKey?"},
        {"KSPEncrypt", KSPEncrypt, "provider cngRsaKey input size record? data? capacity length flags=2",
         kBlock},
        {"KSPEncrypt", KSPEncrypt, "provider cngAesKey input size record? data? capacity length flags",
         kBlock},
        {"KSPDecrypt", KSPDecrypt, "provider cngRsaKey input size record? data? capacity length flags",
         ciphertextOf(kBlock)},
        {"KSPDecrypt", KSPDecrypt, "provider cngAesKey input size record? data? capacity length flags",
         kBlock},
        {"KSPIsAlgSupported", KSPIsAlgSupported, "provider? text flags", kNothing, {0}, L"RSA"},
        {"KSPEnumAlgorithms", KSPEnumAlgorithms, "provider choice count handle flags", kNothing, numbers(0)},
        {"KSPEnumKeys", KSPEnumKeys, "provider text? handle second flags"},
        {"KSPImportKey",
         KSPImportKey,
         "provider cngRsaKey? text count? handle input size flags",
         aesBlob,
         {0},
         L"KeyDataBlob"},
        {"KSPImportKey", KSPImportKey, "provider cngRsaKey? choice count? handle input size flags", aesBlob,
         blobs},
        {"KSPExportKey",
         KSPExportKey,
         "provider cngRsaKey newKey? text count? data? capacity length flags",
         kNothing,
         {0},
         L"RSAPUBLICBLOB"},
        {"KSPExportKey", KSPExportKey, "provider cngEcKey newKey? choice count? data? capacity length flags",
         kNothing, blobs},
        {"KSPSignHash", KSPSignHash, "provider cngRsaKey count? input? size data? capacity length flags=2",
         Bytes(32)},
        {"KSPVerifySignature", KSPVerifySignature, "provider cngRsaKey count? input =32 input size flags=2",
         kSignature},
        {"KSPPromptUser", KSPPromptUser, "provider cngRsaKey? text? flags"},
        {"KSPNotifyChangeKey", KSPNotifyChangeKey, "provider? handle? flags"},
        {"KSPSecretAgreement", KSPSecretAgreement, "provider cngEcKey cngEcKey handle flags"},
        {"KSPDeriveKey",
         KSPDeriveKey,
         "provider? secret text? record? data? capacity length flags",
         kNothing,
         {0},
         L"HASH"},
        {"KSPFreeSecret", KSPFreeSecret, "provider? secret?"},
        {"GetKeyStorageInterface", GetKeyStorageInterface, "text? handle flags"},
    };
}

/// Calls that are refused as they stand.
bool isNeverServed(const Call& call) {
    const std::string_view name = call.name;
    return name == "CPHashSessionKey" || name == "KSPNotifyChangeKey" ||
           (name == "KSPExportKey" && call.text[0] == 0) ||
           (name == "KSPSetKeyProperty" && call.text[0] == 0);
}

/// One hostile value of one argument.
struct Hostile {
    std::uintptr_t value;
    bool isRefused = false;
    std::optional<DWORD> length = {}; ///< what the variable holds that `value` points to
};

class HostileArgumentTest : public ProviderTest {
protected:
    HostileArgumentTest() { setLogLevel(0); }

    void play(const std::vector<Call>& all) {
        for (const Call& call : all)
            for (const std::uintptr_t choice : call.choices)
                play(call, choice);
        EXPECT_GT(calls_, 5000);
    }

private:
    /// The world, new when an object of it is gone.
    World& world() {
        if (!world_ || world_->liveHandles().size() != objects_) {
            world_ = nullptr;
            world_ = std::make_unique<World>(freshName("Hostile"));
            objects_ = world_->liveHandles().size();
            CPAcquireContext(&freed_, nullptr, CRYPT_VERIFYCONTEXT, world_->table);
            CPReleaseContext(freed_, 0);
        }
        return *world_;
    }

    static Values ordinaryValues(World& w, const Call& call, std::uintptr_t choice) {
        Values values;
        for (const Argument& argument : call.arguments) {
            const auto object = kObjects.find(argument.name);
            std::uintptr_t value = object != kObjects.end() ? w.*object->second : placeOf(w, argument.name);
            if (argument.name == "choice") value = choice;
            if (argument.name == "text") value = addressOf(call.text);
            if (argument.name == "size") value = w.input.size();
            if (argument.name == "capacity") value = Output::kCapacity;
            values.push_back(value != 0 ? value : argument.value);
        }
        return values;
    }

    /// `size`: what the call needs for its output.
    std::vector<Hostile> hostileValues(World& w, const Argument& argument, DWORD size) const {
        std::vector<Hostile> all;
        const auto add = [&](const Values& values, bool isRefused) {
            for (const std::uintptr_t value : values)
                all.push_back({value, isRefused});
        };
        const Values sizes = {0, 1, size - 1, size, INT_MAX, MAXDWORD};
        if (const auto object = kObjects.find(argument.name); object != kObjects.end()) {
            Values others = w.liveHandles();
            const int kind = kindOf(w.*object->second);
            std::erase_if(others, [&](std::uintptr_t handle) { return kindOf(handle) == kind; });
            others.insert(others.end(), {0, 1, ~std::uintptr_t{0}, freed_, addressOf(w.data())});
            add(others, !argument.isOptional);
        } else if (placeOf(w, argument.name) != 0) {
            add({0}, !argument.isOptional);
        }
        for (const std::uintptr_t length : sizes)
            if (argument.name == "length" || (argument.name == "inOut" && length != INT_MAX))
                all.push_back({placeOf(w, "length"), false, static_cast<DWORD>(length)});
        if (argument.name == "text") add({0}, !argument.isOptional);
        if (argument.name == "text") add({addressOf(longText_.data()), addressOf(L"")}, false);
        if (argument.name == "flags") add(bits(), false);
        if (argument.name == "capacity") add(sizes, false);
        if (argument.name == "size") {
            for (std::uintptr_t length = 0; length < w.input.size(); ++length)
                all.push_back({length});
            all.push_back({MAXDWORD});
        }
        return all;
    }

    DWORD invoke(const Call& call, World& w, const Values& values, std::optional<DWORD> length = {}) {
        w.resetOutput();
        if (length) w.out.length = *length;
        const Bytes before = w.out.bytes;
        ++calls_;
        const DWORD code = call.invoke(values);
        EXPECT_TRUE(code == 0 || w.out.handle == 0) << "a handle was handed out";
        EXPECT_TRUE(code == 0 || w.out.bytes == before) << "bytes were handed out";
        for (const std::uintptr_t handle : {w.out.handle, w.out.second})
            releaseAny(handle);
        return code;
    }

    void play(const Call& call, std::uintptr_t choice) {
        world().input = call.input;
        const DWORD code = invoke(call, world(), ordinaryValues(world(), call, choice));
        EXPECT_TRUE(code == 0 || isNeverServed(call) || choice != call.choices[0])
            << call.name << " " << code;
        const DWORD size = world().out.length;
        for (std::size_t i = 0; i < call.arguments.size(); ++i) {
            for (std::size_t k = 0, count = 1; k < count; ++k) {
                World& w = world();
                w.input = call.input;
                const std::vector<Hostile> all = hostileValues(w, call.arguments[i], size);
                count = all.size();
                if (count == 0) break;
                Values values = ordinaryValues(w, call, choice);
                values[i] = all[k].value;
                SCOPED_TRACE(concat(call.name, " choice ", choice, ", argument ", i, ": 0x",
                                    toHexAddress(values[i]), ", length ", all[k].length.value_or(0)));
                const DWORD answer = invoke(call, w, values, all[k].length);
                EXPECT_FALSE(all[k].isRefused && answer == 0) << "accepted";
            }
        }
    }

    int calls_ = 0;
    std::unique_ptr<World> world_;
    std::size_t objects_ = 0;
    HCRYPTPROV freed_ = 0;
    const std::vector<WCHAR> longText_ = wideText(std::string(300, 'x'));
};

TEST_F(HostileArgumentTest, CryptoApi) {
    play(cspCalls());
}

TEST_F(HostileArgumentTest, Cng) {
    play(cngCalls());
}

} // namespace
} // namespace veltra::test
