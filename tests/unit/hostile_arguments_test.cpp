// Every argument of every entry point, hostile: a call that works is made again and again with one argument
// replaced. Nothing crashes, what must be refused is refused with a reason, and a refusal hands nothing out.

#include "support/blob_bytes.h"
#include "support/both_front_ends.h"
#include "support/provider_test.h"

#include "certs/public_key_blob.h"
#include "foundation/text.h"
#include "ksp/key_storage_interface.h"

#include <algorithm>
#include <climits>

namespace veltra::test {
namespace {

using World = BothFrontEnds;
using Values = std::vector<std::uintptr_t>;

/// Where a pointer of the call points to.
enum class Place { Input, Data, Length, Count, Handle, Second };

enum class Role {
    Live,      ///< a live object of its kind is needed
    Handle,    ///< an object that need not be there, or is not looked at
    Needed,    ///< a pointer that must not be null
    Pointer,   ///< a pointer that may be null
    Text,      ///< wide text that must not be null
    OtherText, ///< text that may be null
    Flags,
    Choice,   ///< which of several things the function does: tried with every other argument
    Size,     ///< of the input
    Capacity, ///< of the output
};

struct Argument {
    Role role;
    std::uintptr_t value = 0;
    std::uintptr_t World::*handle = nullptr;
    Place place = Place::Data;
    Values choices = {};
};

Argument live(std::uintptr_t World::*handle) {
    return {Role::Live, 0, handle};
}
Argument any(std::uintptr_t World::*handle) {
    return {Role::Handle, 0, handle};
}
Argument needed(Place place) {
    return {Role::Needed, 0, nullptr, place};
}
Argument pointer(Place place) {
    return {Role::Pointer, 0, nullptr, place};
}
Argument text(LPCWSTR value) {
    return {Role::Text, reinterpret_cast<std::uintptr_t>(value)};
}
Argument otherText(LPCWSTR value) {
    return {Role::OtherText, reinterpret_cast<std::uintptr_t>(value)};
}
Argument flags(DWORD value = 0) {
    return {Role::Flags, value};
}
Argument number(DWORD value) {
    return {Role::Choice, value, nullptr, Place::Data, {value}};
}
Argument size() {
    return {Role::Size};
}
Argument capacity() {
    return {Role::Capacity};
}
Argument choice(Values values) {
    return {Role::Choice, values.front(), nullptr, Place::Data, std::move(values)};
}

Argument names(std::initializer_list<LPCWSTR> texts) {
    Values values;
    for (const LPCWSTR name : texts)
        values.push_back(reinterpret_cast<std::uintptr_t>(name));
    return choice(std::move(values));
}

Values bits() {
    Values values;
    for (int bit = 0; bit < 32; ++bit)
        values.push_back(std::uintptr_t{1} << bit);
    return values;
}

/// The valid ones, small numbers and single bits.
Argument parameter(Values values) {
    for (std::uintptr_t value = 0; value < 50; ++value)
        values.push_back(value);
    for (const std::uintptr_t value : bits())
        values.push_back(value);
    values.push_back(MAXDWORD);
    return choice(std::move(values));
}

/// Calls a function with arguments of any type. 0 or the failure.
using Invocation = std::function<DWORD(const Values&)>;

template <class Parameter>
Parameter convert(std::uintptr_t value) {
    if constexpr (std::is_pointer_v<Parameter>)
        return reinterpret_cast<Parameter>(value);
    else
        return static_cast<Parameter>(value);
}

template <class Result, class... Parameters, std::size_t... Index>
Invocation invocation(Result(WINAPI* function)(Parameters...), std::index_sequence<Index...>) {
    return [function](const Values& values) -> DWORD {
        SetLastError(kUntouched);
        const auto result = function(convert<Parameters>(values.at(Index))...);
        const DWORD lastError = GetLastError();
        if constexpr (std::is_same_v<Result, BOOL>) {
            EXPECT_TRUE(result || (lastError != 0 && lastError != kUntouched)) << "no reason";
            return result ? 0 : 1;
        } else {
            EXPECT_EQ(lastError, kUntouched);
            return static_cast<DWORD>(result);
        }
    };
}

struct Call {
    template <class Result, class... Parameters>
    Call(const char* name, Result(WINAPI* function)(Parameters...), std::vector<Argument> arguments,
         Bytes input = {}, bool works = true)
        : name(name), invoke(invocation(function, std::index_sequence_for<Parameters...>())),
          arguments(std::move(arguments)), input(std::move(input)), works(works) {
        EXPECT_EQ(sizeof...(Parameters), this->arguments.size()) << name;
    }

    const char* name;
    Invocation invoke;
    std::vector<Argument> arguments;
    Bytes input;
    bool works; ///< as it stands here
};

constexpr auto kInput = Place::Input, kData = Place::Data, kLength = Place::Length, kCount = Place::Count,
               kHandle = Place::Handle, kSecond = Place::Second;

const Bytes kBlock(16, 'S');
const Bytes kSignature(256, 1);

std::vector<Call> cspCalls() {
    const Argument context = live(&World::context), rsaKey = live(&World::rsaKey), hash = live(&World::hash);
    Bytes reversed = ciphertextOf(kBlock);
    std::ranges::reverse(reversed);
    return {
        {"CPAcquireContext",
         CPAcquireContext,
         {needed(kHandle), pointer(kInput), flags(), needed(kData)},
         {'n', 'e', 'w', 0}},
        {"CPReleaseContext", CPReleaseContext, {context, flags(1)}, {}, false},
        {"CPGetProvParam",
         CPGetProvParam,
         {context, parameter({PP_NAME}), pointer(kData), needed(kLength), flags(CRYPT_FIRST)}},
        {"CPSetProvParam",
         CPSetProvParam,
         {context, parameter({PP_CLIENT_HWND, PP_USE_HARDWARE_RNG}), pointer(kData), flags()}},
        {"CPGenKey",
         CPGenKey,
         {context, parameter({AT_KEYEXCHANGE, CALG_RSA_SIGN}), flags(2048 << 16), needed(kHandle)}},
        {"CPGetUserKey", CPGetUserKey, {context, parameter({AT_SIGNATURE}), needed(kHandle)}},
        {"CPGetKeyParam",
         CPGetKeyParam,
         {context, rsaKey, parameter({KP_ALGID}), pointer(kData), needed(kLength), flags()}},
        {"CPSetKeyParam", CPSetKeyParam, {context, rsaKey, parameter({KP_MODE}), pointer(kData), flags()}},
        {"CPDestroyKey", CPDestroyKey, {context, rsaKey}},
        {"CPDeriveKey", CPDeriveKey, {context, parameter({CALG_AES_128}), hash, flags(), needed(kHandle)}},
        {"CPExportKey",
         CPExportKey,
         {context, rsaKey, any(&World::rsaKey), parameter({PUBLICKEYBLOB}), flags(), pointer(kData),
          needed(kLength)}},
        {"CPImportKey",
         CPImportKey,
         {context, needed(kInput), size(), any(&World::rsaKey), flags(), needed(kHandle)},
         makePublicKeyBlob(Bytes(256, 'M'), CALG_RSA_KEYX)},
        {"CPImportKey SIMPLEBLOB",
         CPImportKey,
         {context, needed(kInput), size(), live(&World::rsaKey), flags(), needed(kHandle)},
         joined({{SIMPLEBLOB, 2, 0, 0}, littleEndian(CALG_AES_128), Bytes(4), reversed})},
        {"CPGenRandom", CPGenRandom, {context, number(32), needed(kData)}},
        {"CPCreateHash",
         CPCreateHash,
         {context, parameter({CALG_SHA_256}), any(&World::aesKey), flags(), needed(kHandle)}},
        {"CPCreateHash CALG_HMAC",
         CPCreateHash,
         {context, number(CALG_HMAC), live(&World::aesKey), flags(), needed(kHandle)}},
        {"CPHashData", CPHashData, {context, hash, needed(kInput), number(16), flags()}, kBlock},
        {"CPHashSessionKey", CPHashSessionKey, {context, hash, rsaKey, flags()}, {}, false},
        {"CPGetHashParam",
         CPGetHashParam,
         {context, hash, parameter({HP_HASHVAL}), pointer(kData), needed(kLength), flags()}},
        {"CPSetHashParam",
         CPSetHashParam,
         {context, live(&World::hmac), parameter({HP_HASHVAL, HP_HMAC_INFO}), needed(kData), flags()}},
        {"CPDuplicateHash", CPDuplicateHash, {context, hash, pointer(kCount), flags(), needed(kHandle)}},
        {"CPDestroyHash", CPDestroyHash, {context, hash}},
        {"CPSignHash",
         CPSignHash,
         {context, hash, parameter({AT_SIGNATURE}), otherText(L"text"), flags(), pointer(kData),
          needed(kLength)}},
        {"CPVerifySignature",
         CPVerifySignature,
         {context, hash, needed(kInput), size(), any(&World::rsaKey), otherText(L"text"), flags()},
         [] {
             Bytes bytes = ScriptedDeviceLibrary::fakeSignature(kKeyTypeRsa2048);
             std::ranges::reverse(bytes);
             return bytes;
         }()},
        {"CPEncrypt",
         CPEncrypt,
         {context, rsaKey, any(&World::hash), flags(), flags(), pointer(kData), needed(kLength), capacity()},
         kBlock},
        {"CPEncrypt AES",
         CPEncrypt,
         {context, live(&World::aesKey), any(&World::hash), flags(), flags(), pointer(kData), needed(kLength),
          capacity()},
         kBlock},
        {"CPDecrypt",
         CPDecrypt,
         {context, rsaKey, any(&World::hash), flags(), flags(CRYPT_OAEP), needed(kData), needed(kLength)},
         reversed},
        {"CPDecrypt AES",
         CPDecrypt,
         {context, live(&World::aesKey), any(&World::hash), flags(), flags(), needed(kData), needed(kLength)},
         kBlock},
    };
}

std::vector<Call> cngCalls() {
    const Argument provider = live(&World::provider), anyProvider = any(&World::provider),
                   rsaKey = live(&World::cngRsaKey), ecKey = live(&World::cngEcKey);
    const Bytes signature = ScriptedDeviceLibrary::fakeSignature(kKeyTypeRsa2048);
    const auto keyProperties = [] {
        return names({L"Length", L"Name", L"Algorithm Name", L"Algorithm Group", L"Lengths", L"Key Usage",
                      L"Export Policy", L"Block Length", L"Key Type", L"Unique Name", L"Provider Handle",
                      L"SmartCardKeyCertificate", L"ChainingMode", L"Security Descr", L"SmartCardPin",
                      L"HWND Handle", L"IV", L"none", L""});
    };
    const auto blobTypes = [](LPCWSTR first) {
        return names({first, L"PUBLICBLOB", L"RSAPUBLICBLOB", L"ECCPUBLICBLOB", L"CAPIPUBLICBLOB",
                      L"PRIVATEBLOB", L"CAPIPRIVATEBLOB", L"OpaqueKeyBlob", L"KeyDataBlob",
                      L"OpaqueTransport", L"PKCS8_PRIVATEKEY", L""});
    };
    return {
        {"KSPOpenProvider", KSPOpenProvider, {needed(kHandle), otherText(L"name"), flags()}},
        {"KSPOpenKey",
         KSPOpenKey,
         {provider, needed(kHandle), text(L"11111111111111111111111111111111"), parameter({0}), flags()}},
        {"KSPCreatePersistedKey",
         KSPCreatePersistedKey,
         {provider, needed(kHandle), text(L"RSA"), otherText(L"name"), parameter({0}), flags()}},
        {"KSPGetProviderProperty",
         KSPGetProviderProperty,
         {provider,
          names({L"Name", L"Impl Type", L"Version", L"Algorithm Name", L"Max Name Length",
                 L"Security Descr Support", L"Use Count", L"none"}),
          pointer(kData), capacity(), needed(kLength), flags()}},
        {"KSPGetProviderProperty",
         KSPGetProviderProperty,
         {provider, text(L"Name"), pointer(kData), capacity(), needed(kLength), flags()}},
        {"KSPGetKeyProperty",
         KSPGetKeyProperty,
         {provider, rsaKey, keyProperties(), pointer(kData), capacity(), needed(kLength), flags()}},
        {"KSPGetKeyProperty",
         KSPGetKeyProperty,
         {provider, ecKey, text(L"Name"), pointer(kData), capacity(), needed(kLength), flags()}},
        {"KSPSetProviderProperty",
         KSPSetProviderProperty,
         {provider, names({L"HWND Handle", L"SmartCardPin", L"none"}), pointer(kInput), size(), flags()},
         {'1', '2', '3', '4', 0, 0, 0, 0}},
        {"KSPSetProviderProperty",
         KSPSetProviderProperty,
         {provider, text(L"SmartCardPin"), needed(kInput), size(), flags()},
         {'1', '2', '3', '4', 0}},
        {"KSPSetKeyProperty",
         KSPSetKeyProperty,
         {provider, live(&World::cngAesKey), keyProperties(), pointer(kInput), size(), flags()},
         {'1', '2', '3', '4', 0, 0, 0, 0}},
        {"KSPSetKeyProperty",
         KSPSetKeyProperty,
         {provider, rsaKey, text(L"SmartCardKeyCertificate"), needed(kInput), size(), flags()},
         ScriptedDeviceLibrary::fakeCertificate("C", "CN=C", "CN=C")},
        {"KSPFinalizeKey", KSPFinalizeKey, {provider, live(&World::cngNewKey), flags()}},
        {"KSPDeleteKey", KSPDeleteKey, {provider, rsaKey, flags()}},
        {"KSPFreeProvider", KSPFreeProvider, {provider}},
        {"KSPFreeKey", KSPFreeKey, {anyProvider, any(&World::cngRsaKey)}},
        {"KSPFreeBuffer", KSPFreeBuffer, {any(&World::cngRsaKey)}},
        {"KSPEncrypt",
         KSPEncrypt,
         {provider, rsaKey, needed(kInput), size(), pointer(kCount), pointer(kData), capacity(),
          needed(kLength), flags(kPadPkcs1Flag)},
         kBlock},
        {"KSPEncrypt AES",
         KSPEncrypt,
         {provider, live(&World::cngAesKey), needed(kInput), size(), pointer(kCount), pointer(kData),
          capacity(), needed(kLength), flags()},
         kBlock},
        {"KSPDecrypt",
         KSPDecrypt,
         {provider, rsaKey, needed(kInput), size(), pointer(kSecond), pointer(kData), capacity(),
          needed(kLength), flags()},
         ciphertextOf(kBlock)},
        {"KSPDecrypt AES",
         KSPDecrypt,
         {provider, live(&World::cngAesKey), needed(kInput), size(), pointer(kSecond), pointer(kData),
          capacity(), needed(kLength), flags()},
         kBlock},
        {"KSPIsAlgSupported", KSPIsAlgSupported, {anyProvider, text(L"RSA"), flags()}},
        {"KSPEnumAlgorithms",
         KSPEnumAlgorithms,
         {provider, parameter({0}), needed(kCount), needed(kHandle), flags()}},
        {"KSPEnumKeys",
         KSPEnumKeys,
         {provider, otherText(L"scope"), needed(kHandle), needed(kSecond), flags()}},
        {"KSPImportKey",
         KSPImportKey,
         {provider, any(&World::cngRsaKey), text(L"RSAPUBLICBLOB"), pointer(kCount), needed(kHandle),
          needed(kInput), size(), flags()},
         joined({dwords({0x31415352, 2048, 0, 256, 0, 0}), Bytes(256)})},
        {"KSPImportKey",
         KSPImportKey,
         {provider, any(&World::cngRsaKey), blobTypes(L"KeyDataBlob"), pointer(kCount), needed(kHandle),
          needed(kInput), size(), flags()},
         joined({dwords({0x4D42444B, 1, 16}), kBlock})},
        {"KSPExportKey",
         KSPExportKey,
         {provider, rsaKey, any(&World::cngRsaKey), text(L"RSAPUBLICBLOB"), pointer(kCount), pointer(kData),
          capacity(), needed(kLength), flags()}},
        {"KSPExportKey",
         KSPExportKey,
         {provider, ecKey, any(&World::cngRsaKey), blobTypes(L"ECCPUBLICBLOB"), pointer(kCount),
          pointer(kData), capacity(), needed(kLength), flags()}},
        {"KSPSignHash",
         KSPSignHash,
         {provider, rsaKey, pointer(kCount), pointer(kInput), size(), pointer(kData), capacity(),
          needed(kLength), flags(kPadPkcs1Flag)},
         Bytes(32)},
        {"KSPVerifySignature",
         KSPVerifySignature,
         {provider, rsaKey, pointer(kCount), needed(kInput), number(32), needed(kInput), size(),
          flags(kPadPkcs1Flag)},
         signature},
        {"KSPPromptUser",
         KSPPromptUser,
         {provider, any(&World::cngRsaKey), otherText(L"operation"), flags()}},
        {"KSPNotifyChangeKey", KSPNotifyChangeKey, {anyProvider, pointer(kHandle), flags()}, {}, false},
        {"KSPSecretAgreement", KSPSecretAgreement, {provider, ecKey, ecKey, needed(kHandle), flags()}},
        {"KSPDeriveKey",
         KSPDeriveKey,
         {anyProvider, live(&World::secret), otherText(L"HASH"), pointer(kSecond), pointer(kData), capacity(),
          needed(kLength), flags()}},
        {"KSPFreeSecret", KSPFreeSecret, {anyProvider, any(&World::secret)}},
        {"GetKeyStorageInterface", GetKeyStorageInterface, {otherText(L"name"), needed(kHandle), flags()}},
    };
}

/// One hostile value of one argument.
struct Hostile {
    std::uintptr_t value;
    bool refused = false;             ///< it must be
    std::optional<DWORD> length = {}; ///< what the variable holds that `value` points to
};

class HostileArgumentTest : public ProviderTest {
protected:
    HostileArgumentTest() { setLogLevel(0); }

    World& world() {
        if (!world_) {
            world_ = std::make_unique<World>(freshName("Hostile"));
            objects_ = world_->liveHandles().size();
        }
        return *world_;
    }
    /// After a call that may have changed it.
    void renewWorld() {
        if (world_->liveHandles().size() != objects_) world_ = nullptr;
    }

    static std::uintptr_t address(World& w, Place place) {
        switch (place) {
        case Place::Input:
            return reinterpret_cast<std::uintptr_t>(w.input.data());
        case Place::Data:
            return reinterpret_cast<std::uintptr_t>(w.data());
        case Place::Length:
            return reinterpret_cast<std::uintptr_t>(&w.out.length);
        case Place::Count:
            return reinterpret_cast<std::uintptr_t>(&w.out.count);
        case Place::Handle:
            return reinterpret_cast<std::uintptr_t>(&w.out.handle);
        case Place::Second:
            return reinterpret_cast<std::uintptr_t>(&w.out.second);
        }
        return 0;
    }

    static std::uintptr_t ordinary(World& w, const Argument& argument) {
        switch (argument.role) {
        case Role::Live:
        case Role::Handle:
            return w.*argument.handle;
        case Role::Needed:
        case Role::Pointer:
            return address(w, argument.place);
        case Role::Size:
            return w.input.size();
        case Role::Capacity:
            return Output::kCapacity;
        default:
            return argument.value;
        }
    }

    std::vector<Hostile> hostile(World& w, const Argument& argument, DWORD size) {
        std::vector<Hostile> all;
        switch (argument.role) {
        case Role::Live:
        case Role::Handle:
            for (const std::uintptr_t handle :
                 {std::uintptr_t{0}, std::uintptr_t{1}, ~std::uintptr_t{0}, freed_, address(w, kData)})
                all.push_back({handle, argument.role == Role::Live});
            for (const std::uintptr_t handle : w.liveHandles())
                if (kindOf(handle) != kindOf(w.*argument.handle))
                    all.push_back({handle, argument.role == Role::Live});
            break;
        case Role::Needed:
        case Role::Pointer:
            all.push_back({0, argument.role == Role::Needed});
            if (argument.place == Place::Length)
                for (const DWORD length :
                     {0u, 1u, size - 1, size, static_cast<DWORD>(INT_MAX), MAXDWORD + 0u})
                    all.push_back({address(w, kLength), false, length});
            break;
        case Role::Text:
        case Role::OtherText:
            all = {{0, argument.role == Role::Text},
                   {reinterpret_cast<std::uintptr_t>(longText_.data())},
                   {reinterpret_cast<std::uintptr_t>(L"")}};
            break;
        case Role::Flags:
            for (const std::uintptr_t bit : bits())
                all.push_back({bit});
            all.push_back({MAXDWORD});
            break;
        case Role::Choice:
            break;
        case Role::Size:
            for (std::uintptr_t length = 0; length <= w.input.size(); ++length)
                all.push_back({length});
            all.push_back({MAXDWORD, true});
            break;
        case Role::Capacity:
            for (const DWORD length : {0u, 1u, size - 1, size, static_cast<DWORD>(INT_MAX), MAXDWORD + 0u})
                all.push_back({length});
            break;
        }
        return all;
    }

    /// Makes the call with `values`; 0 or the failure.
    DWORD invoke(const Call& call, World& w, const Values& values, std::optional<DWORD> length = {}) {
        w.resetOutput();
        if (length) w.out.length = *length;
        const Output before = w.out;
        ++calls;
        const DWORD code = call.invoke(values);
        size_ = w.out.length;
        if (code != 0) {
            EXPECT_TRUE(w.out.handle == 0 && w.out.second == 0) << "handed out";
            EXPECT_TRUE(w.out.bytes == before.bytes) << "bytes";
        }
        for (const std::uintptr_t handle : {w.out.handle, w.out.second})
            if (handle != 0) releaseAny(handle);
        return code;
    }

    void playAll(const Call& call, const Values& choices) {
        const auto valuesFor = [&](World& w) {
            Values values = choices;
            w.input = call.input;
            for (std::size_t i = 0; i < values.size(); ++i)
                if (call.arguments[i].role != Role::Choice) values[i] = ordinary(w, call.arguments[i]);
            return values;
        };
        const bool asWritten = std::ranges::equal(choices, call.arguments, {}, {}, &Argument::value);
        const DWORD code = invoke(call, world(), valuesFor(world()));
        EXPECT_TRUE(!asWritten || (code == 0) == call.works) << std::hex << code;
        const DWORD size = size_;
        for (std::size_t i = 0; i < call.arguments.size(); ++i) {
            renewWorld();
            for (std::size_t k = 0; k < hostile(world(), call.arguments[i], size).size(); ++k) {
                World& w = world();
                Values values = valuesFor(w);
                const Hostile bad = hostile(w, call.arguments[i], size)[k];
                values[i] = bad.value;
                SCOPED_TRACE(concat("argument ", i, " is 0x", toHexAddress(bad.value), ", length ",
                                    bad.length.value_or(0)));
                const DWORD answer = invoke(call, w, values, bad.length);
                EXPECT_FALSE(bad.refused && answer == 0) << "accepted";
                renewWorld();
            }
        }
        renewWorld();
    }

    void play(const Call& call) {
        std::vector<Values> all = {{}};
        for (const Argument& argument : call.arguments) {
            std::vector<Values> longer;
            for (const Values& start : all)
                for (const std::uintptr_t value :
                     argument.role == Role::Choice ? argument.choices : Values{argument.value}) {
                    longer.push_back(start);
                    longer.back().push_back(value);
                }
            all = std::move(longer);
        }
        for (const Values& choices : all) {
            SCOPED_TRACE(concat(call.name, testing::PrintToString(choices)));
            playAll(call, choices);
        }
    }

    int calls = 0;

private:
    std::unique_ptr<World> world_;
    std::size_t objects_ = 0;
    DWORD size_ = 0;
    const std::vector<WCHAR> longText_ = wideText(std::string(300, 'x'));
    const std::uintptr_t freed_ = [] {
        HCRYPTPROV context = 0;
        int table = 0;
        CPAcquireContext(&context, nullptr, CRYPT_VERIFYCONTEXT, reinterpret_cast<VTableProvStruc*>(&table));
        CPReleaseContext(context, 0);
        return context;
    }();
};

TEST_F(HostileArgumentTest, CryptoApi) {
    for (const Call& call : cspCalls())
        play(call);
    EXPECT_GT(calls, 5000);
}

TEST_F(HostileArgumentTest, Cng) {
    for (const Call& call : cngCalls())
        play(call);
    EXPECT_GT(calls, 5000);
}

} // namespace
} // namespace veltra::test
