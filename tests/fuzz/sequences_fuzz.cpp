// Random sequences of the entry points of both front ends, over a device library that answers, fails and
// throws as it likes. The handles are live, freed, of another kind or garbage; buffers end where their length
// says.

#include "fuzz/entry_calls.h"
#include "support/blob_bytes.h"
#include "support/invocation.h"

#include "csp/container_map.h"
#include "token/device_state.h"

#include <climits>
#include <deque>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>

namespace veltra::fuzz {
namespace {

using test::addressOf;
using Handle = std::uintptr_t;

enum Kind : std::size_t { kContext, kHash, kKey, kProvider, kKspKey, kSecret, kKinds };

constexpr std::array<std::string_view, kKinds> kKindNames = {"context",  "hash",   "key",
                                                             "provider", "cngKey", "secret"};

/// What one input has opened and not yet closed, and how it chooses. Where the input has ended a choice is
/// the ordinary one.
struct World {
    FuzzedDataProvider& input;
    std::array<std::vector<Handle>, kKinds> live{};
    std::vector<Handle> freed{};
    std::vector<Handle> blocks{}; ///< for KSPFreeBuffer
    bool usedContainers = false;

    bool rarely() { return input.ConsumeIntegral<BYTE>() >= 0xF8; }

    DWORD pick(std::span<const DWORD> known) {
        if (rarely()) return input.ConsumeIntegral<DWORD>();
        return known[input.ConsumeIntegralInRange<std::size_t>(0, known.size() - 1)];
    }

    Handle oneOf(const std::vector<Handle>& handles) {
        if (handles.empty()) return 0;
        return handles[handles.size() - 1 - input.ConsumeIntegralInRange<std::size_t>(0, handles.size() - 1)];
    }

    Handle any(Kind kind) {
        const int choice = input.ConsumeIntegralInRange(0, 15);
        if (choice == 12) return 0;
        if (choice == 13) return input.ConsumeIntegral<Handle>();
        if (choice == 14) return oneOf(freed);
        return oneOf(live[choice == 15 ? input.ConsumeIntegralInRange<std::size_t>(0, kKinds - 1) : kind]);
    }

    template <class Value>
    Value* orNull(Value* pointer) {
        return rarely() ? nullptr : pointer;
    }

    /// A length that the device library cannot take, which has to be refused before anything is read.
    DWORD orTooLong(DWORD length) {
        return rarely() ? input.PickValueInArray({0x80000000U, 0xFFFFFFFFU}) : length;
    }

    /// Forgets a handle that was closed; says whether it was live.
    bool forget(Kind kind, Handle closed) {
        if (std::erase(live[kind], closed) == 0) return false;
        freed.push_back(closed);
        return true;
    }
};

using Step = std::function<void(World&)>;

std::vector<std::string> wordsOf(const char* text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

// Calls by the words for their arguments

const std::map<std::string_view, std::vector<DWORD>> kNumbers = {
    {"flags",
     {0, CRYPT_SILENT, CRYPT_VERIFYCONTEXT, CRYPT_NEXT, kPadPkcs1Flag, kPadOaepFlag, kPadPssFlag,
      kPadPkcs1Flag | kPadPssFlag, kPadPkcs1Flag | kPadOaepFlag, 2048U << 16, 1024U << 16}},
    {"hashFlags", {0, 0, 0, 1}},
    {"keySpec", {AT_KEYEXCHANGE, AT_SIGNATURE, 0}},
    {"keyAlgorithm", {AT_SIGNATURE, AT_KEYEXCHANGE, CALG_RSA_SIGN, CALG_RSA_KEYX}},
    {"aes", {CALG_AES_128, CALG_AES_192, CALG_AES_256, CALG_RC4}},
    {"hashAlgorithm", {CALG_SHA_256, CALG_HMAC, CALG_SHA_512, CALG_SHA1, CALG_MD5}},
    {"keyParameter", {KP_IV, KP_MODE, KP_PADDING, KP_PERMISSIONS, KP_CERTIFICATE}},
    {"setHashParameter", {HP_HMAC_INFO, HP_HASHVAL}},
    {"hashParameter", {HP_HASHVAL, HP_HASHSIZE, HP_ALGID, HP_HMAC_INFO}},
    {"pinParameter", {PP_SIGNATURE_PIN, PP_KEYEXCHANGE_PIN, PP_USE_HARDWARE_RNG, PP_CLIENT_HWND}},
    {"importType", {PUBLICKEYBLOB, SIMPLEBLOB, PLAINTEXTKEYBLOB, SYMMETRICWRAPKEYBLOB}},
    {"blobType", {PUBLICKEYBLOB, PRIVATEKEYBLOB, SIMPLEBLOB}},
    {"oaep", {CRYPT_OAEP, 0}},
    {"plaintext", {16, 20, 0, 245, 512}},
    {"kdfType", {KDF_HASH_ALGORITHM, 0xD, 0xE, 1}},
};

constexpr const char* kKeyNames[] = {"12121212121212121212121212121212", "15151515151515151515151515151515",
                                     "16161616161616161616161616161616", "E1E1E1E1E1E1E1E1E1E1E1E1E1E1E1E1",
                                     ""};
constexpr const char* kAlgorithms[] = {"RSA",       "ECDSA_P256", "ECDH_P256", "ECDH_P384",
                                       "ECDH_P521", "SHA256",     "AES"};
constexpr const char* kFunctions[] = {"HASH", "SP800_56ACONCAT"};

const std::map<std::string_view, std::span<const char* const>> kTexts = {{"keyName", kKeyNames},
                                                                         {"algorithm", kAlgorithms},
                                                                         {"kdf", kFunctions},
                                                                         {"blobName", kBlobNames},
                                                                         {"property", kPropertyNames}};

/// A call that is being put together: what its arguments refer to, and what is looked at behind it.
struct Call {
    World& w;
    bool isCng;
    std::deque<ExactBytes> memory{};
    std::deque<ExactText> texts{};
    DWORD number = 0;          ///< the last that was chosen
    DWORD size = 0;            ///< of the last bytes
    DWORD length = kUntouched; ///< a variable of the application's
    const ExactBytes* out = nullptr;
    const BYTE* given = nullptr; ///< the output buffer, or null
    std::optional<Kind> opens{}, closes{};
    Handle opened = kUntouched, closed = 0;

    const ExactBytes& keep(ExactBytes bytes) { return memory.emplace_back(std::move(bytes)); }

    Handle place(ExactBytes bytes) {
        size = bytes.size();
        return addressOf(w.orNull(keep(std::move(bytes)).data()));
    }

    WCHAR* text(std::string_view word) { return texts.emplace_back(anyOf(w.input, kTexts.at(word))).get(); }

    const ExactBytes& buffer() {
        if (out == nullptr) {
            out = &keep(ExactBytes(
                w.input.PickValueInArray<std::size_t>({512, 0, 1, 4, 16, 20, 64, 256, 1100, 4096})));
        }
        return *out;
    }

    Handle lengthOf(DWORD before) {
        length = before;
        return addressOf(w.orNull(&length));
    }
};

DWORD chosen(World& w, std::string_view word) {
    return w.pick(kNumbers.at(word));
}

// At least `length` bytes of a value, of which so many are read whatever its length says; now and then more
// than any value may have.
Handle atLeast(Call& c, std::size_t length) {
    Bytes value = anyBytes(c.w.input, 300);
    if (c.w.rarely()) value.resize(kCertificateCapacity + 1);
    const auto size = static_cast<DWORD>(value.size());
    value.resize(std::max(value.size(), length));
    const Handle place = c.place(ExactBytes(value));
    c.size = size;
    return place;
}

const std::map<std::string_view, Handle (*)(Call&)> kOthers = {
    {"null", [](Call&) { return Handle{0}; }},
    {"table", [](Call& c) { return addressOf(c.w.orNull(anyTable())); }},
    {"upTo50", [](Call& c) { return Handle{c.w.input.ConsumeIntegralInRange<DWORD>(0, 50)}; }},
    {"bool", [](Call& c) { return Handle{c.w.input.ConsumeBool()}; }},
    // Input, and what is said of its length.
    {"bytes", [](Call& c) { return c.place(ExactBytes(anyBytes(c.w.input, 300))); }},
    {"value", [](Call& c) { return atLeast(c, 255); }},
    {"pin", [](Call& c) { return atLeast(c, 256); }},
    {"size", [](Call& c) { return Handle{c.w.orTooLong(c.size)}; }},
    {"exactSize", [](Call& c) { return Handle{c.size}; }},
    {"inOut", [](Call& c) { return c.lengthOf(c.w.orTooLong(c.size)); }},
    {"blob",
     [](Call& c) {
         const DWORD type = (chosen(c.w, "importType") & 0xFF) | CUR_BLOB_VERSION << 8;
         return c.place(ExactBytes(join(test::dwords({type, chosen(c.w, "aes")}), anyBytes(c.w.input, 300))));
     }},
    {"keyValue",
     [](Call& c) {
         if (c.number != KP_CERTIFICATE) return atLeast(c, 16);
         return c.place(asCertificateArgument(anyBytes(c.w.input, 300)));
     }},
    {"hashValue",
     [](Call& c) {
         Bytes value = test::dwords({chosen(c.w, "hashAlgorithm")}); // which an HMAC_INFO begins with
         value.resize(c.number == HP_HMAC_INFO ? sizeof(HMAC_INFO) : 64);
         return c.place(ExactBytes(value));
     }},
    {"padding",
     [](Call& c) {
         BCRYPT_OAEP_PADDING_INFO padding{};
         padding.pszAlgId = c.w.orNull(c.text("algorithm"));
         return c.place(ExactBytes(bytesOf(padding)));
     }},
    {"parameters",
     [](Call& c) {
         Bytes buffers;
         ULONG count = 0;
         for (; count < c.w.input.ConsumeIntegralInRange<ULONG>(0, 4); ++count) {
             const ExactBytes& value = c.keep(ExactBytes(anyBytes(c.w.input, 300)));
             buffers = join(buffers, bytesOf(NCryptBuffer{c.w.orTooLong(value.size()), chosen(c.w, "kdfType"),
                                                          c.w.orNull(value.data())}));
         }
         void* const list = c.w.orNull(c.keep(ExactBytes(buffers)).data());
         return c.place(ExactBytes(bytesOf(NCryptBufferDesc{0, count, static_cast<NCryptBuffer*>(list)})));
     }},
    // Output: the capacity goes in by "length" in CryptoAPI.
    {"out", [](Call& c) { return addressOf(c.given = c.w.orNull(c.buffer().data())); }},
    {"capacity", [](Call& c) { return Handle{c.buffer().size()}; }},
    {"length", [](Call& c) { return c.lengthOf(c.isCng ? kUntouched : c.buffer().size()); }},
    {"plainLength", [](Call& c) { return c.lengthOf(chosen(c.w, "plaintext")); }},
};

/// The value of an argument: "context" any handle, most often a live one of this kind, "+context" the place
/// for a new one, "-context" the one that is closed; a choice of kNumbers; a text of kTexts; one of kOthers.
Handle argument(Call& c, std::string_view word) {
    const char effect = word.front();
    const std::string_view name = effect == '+' || effect == '-' ? word.substr(1) : word;
    if (const auto* const found = std::ranges::find(kKindNames, name); found != kKindNames.end()) {
        const auto kind = static_cast<Kind>(found - kKindNames.begin());
        if (effect == '+') {
            c.opens = kind;
            return addressOf(c.w.orNull(&c.opened));
        }
        const Handle handle = c.w.any(kind);
        if (effect == '-') {
            c.closes = kind;
            c.closed = handle;
        }
        return handle;
    }
    if (kNumbers.contains(word)) return c.number = chosen(c.w, word);
    if (kTexts.contains(word)) return addressOf(c.w.orNull(c.text(word)));
    return kOthers.at(word)(c);
}

void lookBehind(const Call& c, bool done) {
    if (c.opens) {
        require(done ? c.opened != kUntouched && c.opened != 0 : c.opened == kUntouched,
                "a handle is handed out exactly with a success");
        if (done) c.w.live[*c.opens].push_back(c.opened);
    }
    if (c.closes) {
        // Of keys and secrets of CNG, what is not live is freed already, and that is no failure.
        const bool neverFails = *c.closes == kKspKey || *c.closes == kSecret;
        const bool wasLive = done && c.w.forget(*c.closes, c.closed);
        require(neverFails ? done : wasLive == done, "exactly a live handle is closed");
    }
    // CryptoAPI tells of more than fits with a success, too.
    if (c.isCng && done && c.given != nullptr) require(c.length <= c.out->size(), "what is written fits");
}

Step step(bool isCng, const test::Invocation& call, const char* words) {
    return [isCng, call, names = wordsOf(words)](World& w) {
        Call c{.w = w, .isCng = isCng};
        test::Values values;
        for (const std::string& name : names)
            values.push_back(argument(c, name));
        const auto entryPoint = [&] { return call(values); };
        lookBehind(c, isCng ? kspCall(entryPoint) : cspCall(entryPoint));
    };
}

Step csp(auto* function, const char* words) {
    return step(false, test::invocation(function), words);
}

Step ksp(auto* function, const char* words) {
    return step(true, test::invocation(function), words);
}

constexpr const char* kContainers[] = {"", "fuzz-a", "fuzz-b", "12121212121212121212121212121212"};

void acquire(World& w) {
    const char* container = w.input.PickValueInArray(kContainers);
    w.usedContainers = w.usedContainers || *container != '\0';
    const DWORD deletes = w.input.ConsumeIntegralInRange(0, 7) == 7 ? CRYPT_DELETEKEYSET : 0;
    const DWORD flags = chosen(w, "flags") | deletes;
    HCRYPTPROV context = kUntouched;
    const bool done = cspCall([&] {
        return CPAcquireContext(w.orNull(&context), w.orNull(container), flags, w.orNull(anyTable()));
    });
    if (done && (flags & CRYPT_DELETEKEYSET) == 0) w.live[kContext].push_back(context);
}

void freeBlock(World& w) {
    const Handle block = w.rarely() ? w.any(kKspKey) : w.oneOf(w.blocks);
    require(kspCall([&] { return KSPFreeBuffer(reinterpret_cast<void*>(block)); }),
            "freeing a block never fails");
    if (std::erase(w.blocks, block) != 0) w.freed.push_back(block);
}

const Step kClosingSteps[] = {
    csp(CPReleaseContext, "-context hashFlags"),
    csp(CPDestroyHash, "context -hash"),
    csp(CPDestroyKey, "context -key"),
    ksp(KSPFreeProvider, "-provider"),
    ksp(KSPFreeKey, "provider -cngKey"),
    ksp(KSPFreeSecret, "provider -secret"),
    freeBlock,
};

const Step kCspSteps[] = {
    acquire,
    csp(CPGenKey, "context keyAlgorithm flags +key"),
    csp(CPGetUserKey, "context keySpec +key"),
    csp(CPImportKey, "context blob size key flags +key"),
    csp(CPDeriveKey, "context aes hash flags +key"),
    csp(CPCreateHash, "context hashAlgorithm key hashFlags +hash"),
    csp(CPDuplicateHash, "context hash null hashFlags +hash"),
    csp(CPSetKeyParam, "context key keyParameter keyValue null"),
    csp(CPSetHashParam, "context hash setHashParameter hashValue hashFlags"),
    csp(CPSetProvParam, "context pinParameter pin null"),
    csp(CPHashData, "context hash bytes exactSize null"),
    csp(CPEncrypt, "context key null bool oaep out plainLength capacity"),
    csp(CPDecrypt, "context key null bool oaep bytes inOut"),
    csp(CPVerifySignature, "context hash bytes size key null null"),
    csp(CPGenRandom, "context capacity out"),
    csp(CPHashSessionKey, "context hash key flags"),
    csp(CPGetProvParam, "context upTo50 out length flags"),
    csp(CPGetKeyParam, "context key upTo50 out length null"),
    csp(CPGetHashParam, "context hash hashParameter out length hashFlags"),
    csp(CPExportKey, "context key null blobType null out length"),
    csp(CPSignHash, "context hash keySpec null null out length"),
};

void enumerateAlgorithms(World& w) {
    DWORD count = kUntouched;
    NCryptAlgorithmName* list = nullptr;
    const bool done = kspCall([&] {
        return KSPEnumAlgorithms(w.any(kProvider), w.pick(std::array<DWORD, 6>{0, 1, 2, 4, 8, 16}),
                                 w.orNull(&count), w.orNull(&list), 0);
    });
    require(done == (list != nullptr), "a list exactly with a success");
    if (!done) return;
    w.blocks.push_back(reinterpret_cast<Handle>(list));
    for (DWORD i = 0; i < count; ++i)
        require(!fromWide(list[i].pszName).empty(), "an algorithm has a name");
}

void enumerateKeys(World& w) {
    NCryptKeyName* name = nullptr;
    void* const before = reinterpret_cast<void*>(w.rarely() ? w.any(kKspKey) : w.oneOf(w.blocks));
    void* const given = w.input.ConsumeBool() ? before : nullptr;
    void* cursor = given;
    const bool done = kspCall([&] {
        return KSPEnumKeys(w.any(kProvider), nullptr, w.orNull(&name), w.orNull(&cursor), chosen(w, "flags"));
    });
    require(done == (name != nullptr), "a name exactly with a success");
    // A token without keys leaves its caller a cursor, too.
    require(given == nullptr || cursor == given, "a cursor is never exchanged");
    if (cursor != given) w.blocks.push_back(reinterpret_cast<Handle>(cursor));
    if (!done) return;
    require(!fromWide(name->pszName).empty() && !fromWide(name->pszAlgid).empty(), "a key has names");
    w.blocks.push_back(reinterpret_cast<Handle>(name));
}

const Step kKspSteps[] = {
    ksp(KSPOpenProvider, "+provider null null"),
    ksp(KSPOpenKey, "provider +cngKey keyName keySpec null"),
    ksp(KSPCreatePersistedKey, "provider +cngKey algorithm keyName keySpec null"),
    ksp(KSPFinalizeKey, "provider cngKey flags"),
    ksp(KSPDeleteKey, "provider cngKey flags"),
    ksp(KSPImportKey, "provider cngKey blobName null +cngKey bytes size null"),
    ksp(KSPSecretAgreement, "provider cngKey cngKey +secret null"),
    ksp(KSPSetKeyProperty, "provider cngKey property value size null"),
    ksp(KSPSetProviderProperty, "provider property value size null"),
    ksp(KSPGetKeyProperty, "provider cngKey property out capacity length null"),
    ksp(KSPGetProviderProperty, "provider property out capacity length null"),
    ksp(KSPExportKey, "provider cngKey null blobName null out capacity length null"),
    ksp(KSPEncrypt, "provider cngKey bytes size padding out capacity length flags"),
    ksp(KSPDecrypt, "provider cngKey bytes size padding out capacity length flags"),
    ksp(KSPSignHash, "provider cngKey null bytes size out capacity length flags"),
    ksp(KSPVerifySignature, "provider cngKey null bytes exactSize bytes size flags"),
    ksp(KSPDeriveKey, "null secret kdf parameters out capacity length null"),
    ksp(KSPIsAlgSupported, "provider algorithm null"),
    enumerateAlgorithms,
    enumerateKeys,
    ksp(KSPPromptUser, "provider cngKey null flags"),
    ksp(KSPNotifyChangeKey, "provider null null"),
};

// The library, the token and the user

const std::vector<std::string> kLibrary =
    wordsOf("init getConnectedDeviceList initDevice getTokenInfo validatePassword getKeyPairList "
            "generateKeyPair deleteKeyPair getCertificateList findCertificateForKey importCertificate "
            "getCertificateDetails getFilesWithExtensionsAndConvertDER getAesKeyList importAesKey signHash "
            "verifySignatureHash encrypt decrypt encrypt_aes decrypt_aes decryptSymetric ecdhDerive "
            "generateRamdomNumber initHash updateHash finalHash updateKeyPairDetails");

// One function, or all of them, so that it does not take luck to meet the one that is called next.
void scriptLibrary(World& w) {
    test::Script script;
    script.result = w.input.PickValueInArray(
        {0, 0, 0, 1, kDeviceTimeMismatch, kDeviceSessionExpired, kDeviceWeakHashRefused, -1});
    if (w.input.ConsumeBool())
        script.length =
            w.input.PickValueInArray({0, 1, 15, 17, 31, 33, 65, 67, 1025, 5000, 70000, -1, INT_MIN});
    script.throws = w.rarely();
    script.outOfMemory = w.rarely();
    script.onCall = w.rarely() ? w.input.ConsumeIntegralInRange(1, 3) : 0;
    const auto only = w.input.ConsumeIntegralInRange<std::size_t>(0, kLibrary.size() - 1);
    const bool all = w.input.ConsumeBool();
    library().script(all ? std::string() : "veltra_" + kLibrary[only], script);
}

// What a record says of itself, the length of its contents above all, is the library's word and no more.
template <class Record>
void changeOneOf(std::vector<Record>& records, std::uint32_t Record::*length, World& w) {
    if (records.empty()) return;
    Record& record = records[w.input.ConsumeIntegralInRange<std::size_t>(0, records.size() - 1)];
    const DWORD value =
        w.pick(std::array<DWORD, 11>{0, 1, 2, 8, 10, 129, 1025, 3073, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF});
    const auto offset = w.input.ConsumeIntegralInRange<std::size_t>(0, sizeof(Record) / 4 - 1) * 4;
    if (w.input.ConsumeBool()) (w.input.ConsumeBool() ? record.*length : record.credentialIdLength) = value;
    if (w.input.ConsumeBool()) std::ranges::fill(record.label, 'L');
    if (w.input.ConsumeBool())
        std::ranges::copy(bytesOf(value), reinterpret_cast<unsigned char*>(&record) + offset);
}

const Step kWorldSteps[] = {
    scriptLibrary,
    scriptLibrary,
    scriptLibrary,
    scriptLibrary,
    [](World&) { library().clearScripts(); },
    [](World& w) { library().setConnected(token().serial, w.input.ConsumeBool()); },
    [](World& w) { changeOneOf(token().keyPairs, &VeltraKeyPair::publicKeyLength, w); },
    [](World& w) { changeOneOf(token().certificates, &VeltraCertificate::derLength, w); },
    [](World& w) { changeOneOf(token().aesKeys, &VeltraSymmetricKey::keyLength, w); },
    [](World& w) {
        token().info.fipsMarker = w.input.PickValueInArray({"3.0.9", "2.1.9", "", "1"});
        token().info.firmwareVersion =
            w.input.ConsumeBool() ? "2.0.0" : w.input.ConsumeRandomLengthString(12);
        if (w.input.ConsumeBool()) token().logIn();
        if (w.input.ConsumeBool()) token().keyPairs.clear();
        token().addCertificate(w.input.ConsumeIntegralInRange<BYTE>(0x11, 0x17),
                               test::ScriptedDeviceLibrary::fakeCertificate("name", "CN=a", "CN=b"));
    },
    [](World& w) {
        forgetDisconnected({});
        prompt().willType({w.input.PickValueInArray({"1234", "wrong", ""}), "1234"});
    },
    // The application's window procedures run while the dialog is up, and may close what is in use.
    [](World& w) {
        prompt().whileAsked([&w] {
            for (const Step& step : kClosingSteps)
                step(w);
        });
    },
};

template <class Close>
void closeAll(const std::vector<Handle>& handles, Close close) {
    for (const Handle handle : handles)
        require(close(handle), "what is open can be closed");
}

void closeAll(const World& w) {
    library().clearScripts();
    closeAll(w.blocks, [](Handle it) { return KSPFreeBuffer(reinterpret_cast<void*>(it)) == 0; });
    closeAll(w.live[kKspKey], [](Handle it) { return KSPFreeKey(0, it) == 0; });
    closeAll(w.live[kSecret], [](Handle it) { return KSPFreeSecret(0, it) == 0; });
    closeAll(w.live[kProvider], [](Handle it) { return KSPFreeProvider(it) == 0; });
    closeAll(w.live[kHash], [](Handle it) { return CPDestroyHash(cspContext(), it) != FALSE; });
    closeAll(w.live[kKey], [](Handle it) { return CPDestroyKey(cspContext(), it) != FALSE; });
    closeAll(w.live[kContext], [](Handle it) { return CPReleaseContext(it, 0) != FALSE; });
    if (!w.usedContainers) return;
    for (const char* container : kContainers)
        forgetContainer(container);
}

// One of each kind, so that nearly every step has something to work on.
void openSome(World& w) {
    csp(CPAcquireContext, "+context null null table")(w);
    ksp(KSPOpenProvider, "+provider null null")(w);
    const Bytes secret = test::counting(32);
    w.live[kKey] = {openCspKey(secret), openCspKey(kKeyTypeEcP256), openCspKey(kKeyTypeRsa2048)};
    w.live[kKspKey] = {openKspKey(secret), openKspKey(kKeyTypeEcP256), openKspKey(kKeyTypeRsa2048)};
    csp(CPCreateHash, "context hashAlgorithm null null +hash")(w);
}

void playSequence(FuzzedDataProvider& input) {
    World world{.input = input};
    openSome(world);
    for (int count = 0; count < 64 && input.remaining_bytes() > 0; ++count) {
        static const std::span<const Step> kChoices[] = {kWorldSteps, kClosingSteps, kCspSteps, kCspSteps,
                                                         kCspSteps,   kKspSteps,     kKspSteps, kKspSteps};
        const std::span<const Step> steps = input.PickValueInArray(kChoices);
        steps[input.ConsumeIntegralInRange<std::size_t>(0, steps.size() - 1)](world);
    }
    closeAll(world);
}

// Noise: what the numbers choose changes with every step that is added.
std::vector<Bytes> sequenceSeeds() {
    std::vector<Bytes> seeds(100, Bytes(600));
    std::uint32_t state = 1;
    for (Bytes& seed : seeds) {
        for (unsigned char& byte : seed) {
            state = state * 1664525 + 1013904223;
            byte = static_cast<unsigned char>(state >> 24);
        }
    }
    return seeds;
}

const Target sequenceTarget("sequences", playSequence, sequenceSeeds);

} // namespace
} // namespace veltra::fuzz
