// Random sequences of the entry points of both front ends, over a device library that answers, fails and
// throws as it likes. The handles are live, freed, of another kind or garbage; buffers end where their length
// says.

#include "fuzz/entry_calls.h"
#include "support/blob_bytes.h"

#include "csp/container_map.h"
#include "token/device_state.h"

#include <climits>
#include <initializer_list>

namespace veltra::fuzz {
namespace {

using Handle = std::uintptr_t;

enum Kind : std::size_t { kContext, kHash, kKey, kProvider, kKspKey, kSecret, kKinds };

/// What one input has opened and not yet closed, and how it chooses. Where the input has ended a choice is
/// the ordinary one.
struct World {
    FuzzedDataProvider& input;
    std::array<std::vector<Handle>, kKinds> live{};
    std::vector<Handle> freed{};
    std::vector<Handle> blocks{}; ///< for KSPFreeBuffer
    bool usedContainers = false;

    // Choices

    bool rarely() { return input.ConsumeIntegral<BYTE>() >= 0xF8; }

    DWORD pick(std::initializer_list<DWORD> known) {
        if (rarely()) return input.ConsumeIntegral<DWORD>();
        return *(known.begin() + input.ConsumeIntegralInRange<std::size_t>(0, known.size() - 1));
    }

    DWORD flags() {
        return pick({0, CRYPT_SILENT, CRYPT_VERIFYCONTEXT, CRYPT_NEXT, kPadPkcs1Flag, kPadOaepFlag,
                     kPadPssFlag, kPadPkcs1Flag | kPadPssFlag, kPadPkcs1Flag | kPadOaepFlag, 2048U << 16,
                     1024U << 16});
    }
    DWORD hashFlags() { return pick({0, 0, 0, 1}); }
    DWORD keySpec() { return pick({AT_KEYEXCHANGE, AT_SIGNATURE, 0}); }
    ALG_ID aesAlgorithm() { return pick({CALG_AES_128, CALG_AES_192, CALG_AES_256, CALG_RC4}); }

    Handle oneOf(const std::vector<Handle>& handles) {
        if (handles.empty()) return 0;
        return handles[handles.size() - 1 - input.ConsumeIntegralInRange<std::size_t>(0, handles.size() - 1)];
    }

    Handle any(Kind kind) {
        switch (input.ConsumeIntegralInRange(0, 15)) {
        case 12:
            return 0;
        case 13:
            return input.ConsumeIntegral<Handle>();
        case 14:
            return oneOf(freed);
        case 15:
            return oneOf(live[input.ConsumeIntegralInRange<std::size_t>(0, kKinds - 1)]);
        default:
            return oneOf(live[kind]);
        }
    }

    template <class Value>
    Value* orNull(Value* pointer) {
        return rarely() ? nullptr : pointer;
    }

    Bytes bytes(std::size_t longest = 300) {
        return input.ConsumeBytes<unsigned char>(input.ConsumeIntegralInRange<std::size_t>(0, longest));
    }

    ExactBytes buffer() {
        return ExactBytes(input.PickValueInArray<std::size_t>({512, 0, 1, 4, 16, 20, 64, 256, 1100, 4096}));
    }

    /// A length that the device library cannot take, which has to be refused before anything is read.
    DWORD orTooLong(DWORD length) {
        return rarely() ? input.PickValueInArray({0x80000000U, 0xFFFFFFFFU}) : length;
    }

    // Calls

    /// Calls what hands out a handle.
    template <class Call>
    void open(Kind kind, Call call) {
        Handle opened = kUntouched;
        const auto entryPoint = [&] { return call(orNull(&opened)); };
        if (kind < kProvider ? cspCall(entryPoint) : kspCall(entryPoint)) {
            require(opened != kUntouched && opened != 0, "a success hands out a handle");
            live[kind].push_back(opened);
        } else {
            require(opened == kUntouched, "a failure leaves the handle alone");
        }
    }

    /// Forgets a handle that was closed; says whether it was live.
    bool forget(Kind kind, Handle closed) {
        if (std::erase(live[kind], closed) == 0) return false;
        freed.push_back(closed);
        return true;
    }

    /// Calls what closes a handle and refuses one that is not live.
    template <class Call>
    void close(Kind kind, Call call) {
        const Handle closed = any(kind);
        const auto entryPoint = [&] { return call(closed); };
        if (kind < kProvider ? cspCall(entryPoint) : kspCall(entryPoint))
            require(forget(kind, closed), "only a live handle is closed");
    }

    /// Calls what fills a buffer. What CNG writes fits; CryptoAPI tells of more with a success, too.
    template <class Call>
    void fillCsp(Call call) {
        const ExactBytes out = buffer();
        DWORD length = out.size();
        cspCall([&] { return call(orNull(out.data()), orNull(&length)); });
    }

    template <class Call>
    void fillKsp(Call call) {
        const ExactBytes out = buffer();
        DWORD size = kUntouched;
        BYTE* const data = orNull(out.data());
        const bool done = kspCall([&] { return call(data, out.size(), orNull(&size)); });
        require(!done || data == nullptr || size <= out.size(), "what is written fits");
    }
};

using Step = void (*)(World&);

constexpr const char* kContainers[] = {"", "fuzz-a", "fuzz-b", "12121212121212121212121212121212"};

void acquire(World& w) {
    const char* container = w.input.PickValueInArray(kContainers);
    w.usedContainers = w.usedContainers || *container != '\0';
    const DWORD deletes = w.input.ConsumeIntegralInRange(0, 7) == 7 ? CRYPT_DELETEKEYSET : 0;
    const DWORD flags = w.flags() | deletes;
    HCRYPTPROV context = kUntouched;
    const bool done = cspCall([&] {
        return CPAcquireContext(w.orNull(&context), w.orNull(container), flags, w.orNull(anyTable()));
    });
    if (done && (flags & CRYPT_DELETEKEYSET) == 0) w.live[kContext].push_back(context);
}

// Closing what is not live fails in CryptoAPI and for providers, and is no failure in the rest of CNG.
constexpr Step kClosingSteps[] = {
    [](World& w) { w.close(kContext, [&](Handle it) { return CPReleaseContext(it, w.hashFlags()); }); },
    [](World& w) { w.close(kHash, [&](Handle it) { return CPDestroyHash(w.any(kContext), it); }); },
    [](World& w) { w.close(kKey, [&](Handle it) { return CPDestroyKey(w.any(kContext), it); }); },
    [](World& w) { w.close(kProvider, KSPFreeProvider); },
    [](World& w) {
        const Handle key = w.any(kKspKey);
        require(kspCall([&] { return KSPFreeKey(w.any(kProvider), key); }), "freeing a key never fails");
        w.forget(kKspKey, key);
    },
    [](World& w) {
        const Handle secret = w.any(kSecret);
        require(kspCall([&] { return KSPFreeSecret(w.any(kProvider), secret); }),
                "nor does freeing a secret");
        w.forget(kSecret, secret);
    },
    [](World& w) {
        const Handle block = w.rarely() ? w.any(kKspKey) : w.oneOf(w.blocks);
        require(kspCall([&] { return KSPFreeBuffer(reinterpret_cast<void*>(block)); }),
                "nor freeing a block");
        if (std::erase(w.blocks, block) != 0) w.freed.push_back(block);
    },
};

constexpr Step kCspSteps[] = {
    acquire,
    [](World& w) {
        w.open(kKey, [&](Handle* out) {
            const ALG_ID algorithm = w.pick({AT_SIGNATURE, AT_KEYEXCHANGE, CALG_RSA_SIGN, CALG_RSA_KEYX});
            return CPGenKey(w.any(kContext), algorithm, w.flags(), out);
        });
    },
    [](World& w) {
        w.open(kKey, [&](Handle* out) { return CPGetUserKey(w.any(kContext), w.keySpec(), out); });
    },
    [](World& w) {
        const DWORD type = w.pick({PUBLICKEYBLOB, SIMPLEBLOB, PLAINTEXTKEYBLOB, SYMMETRICWRAPKEYBLOB});
        const Bytes header = bytesOf(BLOBHEADER{.bType = static_cast<BYTE>(type),
                                                .bVersion = CUR_BLOB_VERSION,
                                                .reserved = 0,
                                                .aiKeyAlg = w.aesAlgorithm()});
        const ExactBytes blob(join(header, w.bytes()));
        w.open(kKey, [&](Handle* out) {
            return CPImportKey(w.any(kContext), w.orNull(blob.data()), w.orTooLong(blob.size()), w.any(kKey),
                               w.flags(), out);
        });
    },
    [](World& w) {
        w.open(kKey, [&](Handle* out) {
            return CPDeriveKey(w.any(kContext), w.aesAlgorithm(), w.any(kHash), w.flags(), out);
        });
    },
    [](World& w) {
        w.open(kHash, [&](Handle* out) {
            const ALG_ID algorithm = w.pick({CALG_SHA_256, CALG_HMAC, CALG_SHA_512, CALG_SHA1, CALG_MD5});
            return CPCreateHash(w.any(kContext), algorithm, w.any(kKey), w.hashFlags(), out);
        });
    },
    [](World& w) {
        w.open(kHash, [&](Handle* out) {
            return CPDuplicateHash(w.any(kContext), w.any(kHash), nullptr, w.hashFlags(), out);
        });
    },
    [](World& w) {
        const DWORD parameter = w.pick({KP_IV, KP_MODE, KP_PADDING, KP_PERMISSIONS, KP_CERTIFICATE});
        const Bytes value = w.bytes();
        ExactBytes iv(16);
        std::copy_n(value.begin(), std::min<std::size_t>(value.size(), 16), iv.data());
        const ExactBytes argument =
            parameter == KP_CERTIFICATE ? asCertificateArgument(value) : std::move(iv);
        cspCall([&] {
            return CPSetKeyParam(w.any(kContext), w.any(kKey), parameter, w.orNull(argument.data()), 0);
        });
    },
    [](World& w) {
        const HMAC_INFO info{.HashAlgid = w.pick({CALG_SHA_256, CALG_SHA_512, CALG_SHA1, CALG_MD5}),
                             .pbInnerString = nullptr,
                             .cbInnerString = 0,
                             .pbOuterString = nullptr,
                             .cbOuterString = 0};
        const DWORD parameter = w.pick({HP_HMAC_INFO, HP_HASHVAL});
        const ExactBytes value = parameter == HP_HMAC_INFO ? ExactBytes(bytesOf(info)) : ExactBytes(64);
        cspCall([&] {
            return CPSetHashParam(w.any(kContext), w.any(kHash), parameter, w.orNull(value.data()),
                                  w.hashFlags());
        });
    },
    [](World& w) {
        const DWORD parameter =
            w.pick({PP_SIGNATURE_PIN, PP_KEYEXCHANGE_PIN, PP_USE_HARDWARE_RNG, PP_CLIENT_HWND});
        Bytes pin = w.bytes(256);
        pin.resize(256);
        const ExactBytes value(pin);
        cspCall([&] { return CPSetProvParam(w.any(kContext), parameter, w.orNull(value.data()), 0); });
    },
    [](World& w) {
        const ExactBytes data(w.bytes());
        cspCall(
            [&] { return CPHashData(w.any(kContext), w.any(kHash), w.orNull(data.data()), data.size(), 0); });
    },
    [](World& w) {
        const ExactBytes data = w.buffer();
        DWORD length = w.pick({16, 20, 0, 245, data.size()});
        cspCall([&] {
            return CPEncrypt(w.any(kContext), w.any(kKey), 0, w.input.ConsumeBool(), w.pick({0, CRYPT_OAEP}),
                             w.orNull(data.data()), w.orNull(&length), data.size());
        });
    },
    [](World& w) {
        const ExactBytes data(w.bytes());
        DWORD length = w.orTooLong(data.size());
        cspCall([&] {
            return CPDecrypt(w.any(kContext), w.any(kKey), 0, w.input.ConsumeBool(), w.pick({CRYPT_OAEP, 0}),
                             w.orNull(data.data()), w.orNull(&length));
        });
    },
    [](World& w) {
        const ExactBytes signature(w.bytes());
        cspCall([&] {
            return CPVerifySignature(w.any(kContext), w.any(kHash), w.orNull(signature.data()),
                                     w.orTooLong(signature.size()), w.any(kKey), nullptr, 0);
        });
    },
    [](World& w) {
        const ExactBytes out = w.buffer();
        cspCall([&] { return CPGenRandom(w.any(kContext), out.size(), w.orNull(out.data())); });
    },
    [](World& w) {
        cspCall([&] { return CPHashSessionKey(w.any(kContext), w.any(kHash), w.any(kKey), w.flags()); });
    },
    [](World& w) {
        w.fillCsp([&](BYTE* data, DWORD* length) {
            const auto parameter = w.input.ConsumeIntegralInRange<DWORD>(0, 50);
            return CPGetProvParam(w.any(kContext), parameter, data, length, w.flags());
        });
    },
    [](World& w) {
        w.fillCsp([&](BYTE* data, DWORD* length) {
            const auto parameter = w.input.ConsumeIntegralInRange<DWORD>(0, 50);
            return CPGetKeyParam(w.any(kContext), w.any(kKey), parameter, data, length, 0);
        });
    },
    [](World& w) {
        w.fillCsp([&](BYTE* data, DWORD* length) {
            const DWORD parameter = w.pick({HP_HASHVAL, HP_HASHSIZE, HP_ALGID, HP_HMAC_INFO});
            return CPGetHashParam(w.any(kContext), w.any(kHash), parameter, data, length, w.hashFlags());
        });
    },
    [](World& w) {
        w.fillCsp([&](BYTE* data, DWORD* length) {
            const DWORD type = w.pick({PUBLICKEYBLOB, PRIVATEKEYBLOB, SIMPLEBLOB});
            return CPExportKey(w.any(kContext), w.any(kKey), 0, type, 0, data, length);
        });
    },
    [](World& w) {
        w.fillCsp([&](BYTE* data, DWORD* length) {
            return CPSignHash(w.any(kContext), w.any(kHash), w.keySpec(), nullptr, 0, data, length);
        });
    },
};

constexpr std::array<const char*, 5> kKeyNames = {
    "12121212121212121212121212121212", "15151515151515151515151515151515",
    "16161616161616161616161616161616", "E1E1E1E1E1E1E1E1E1E1E1E1E1E1E1E1", ""};
constexpr std::array<const char*, 7> kAlgorithms = {"RSA",       "ECDSA_P256", "ECDH_P256", "ECDH_P384",
                                                    "ECDH_P521", "SHA256",     "AES"};
constexpr std::array<const char*, 2> kFunctions = {"HASH", "SP800_56ACONCAT"};

void enumerateAlgorithms(World& w) {
    DWORD count = kUntouched;
    NCryptAlgorithmName* list = nullptr;
    const bool done = kspCall([&] {
        return KSPEnumAlgorithms(w.any(kProvider), w.pick({0, 1, 2, 4, 8, 16}), w.orNull(&count),
                                 w.orNull(&list), 0);
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
        return KSPEnumKeys(w.any(kProvider), nullptr, w.orNull(&name), w.orNull(&cursor), w.flags());
    });
    require(done == (name != nullptr), "a name exactly with a success");
    // A token without keys leaves its caller a cursor, too.
    require(given == nullptr || cursor == given, "a cursor is never exchanged");
    if (cursor != given) w.blocks.push_back(reinterpret_cast<Handle>(cursor));
    if (!done) return;
    require(!fromWide(name->pszName).empty() && !fromWide(name->pszAlgid).empty(), "a key has names");
    w.blocks.push_back(reinterpret_cast<Handle>(name));
}

constexpr Step kKspSteps[] = {
    [](World& w) { w.open(kProvider, [&](Handle* out) { return KSPOpenProvider(out, nullptr, 0); }); },
    [](World& w) {
        const ExactText name(anyOf(w.input, kKeyNames));
        w.open(kKspKey, [&](Handle* out) {
            return KSPOpenKey(w.any(kProvider), out, w.orNull(name.get()),
                              w.pick({0, AT_KEYEXCHANGE, AT_SIGNATURE}), 0);
        });
    },
    [](World& w) {
        const ExactText name(anyOf(w.input, kKeyNames));
        const ExactText algorithm(anyOf(w.input, kAlgorithms));
        w.open(kKspKey, [&](Handle* out) {
            return KSPCreatePersistedKey(w.any(kProvider), out, w.orNull(algorithm.get()),
                                         w.orNull(name.get()), w.keySpec(), 0);
        });
    },
    [](World& w) { kspCall([&] { return KSPFinalizeKey(w.any(kProvider), w.any(kKspKey), w.flags()); }); },
    [](World& w) { kspCall([&] { return KSPDeleteKey(w.any(kProvider), w.any(kKspKey), w.flags()); }); },
    [](World& w) {
        const ExactText type(anyOf(w.input, kBlobNames));
        const ExactBytes blob(w.bytes());
        w.open(kKspKey, [&](Handle* out) {
            return KSPImportKey(w.any(kProvider), w.any(kKspKey), w.orNull(type.get()), nullptr, out,
                                w.orNull(blob.data()), w.orTooLong(blob.size()), 0);
        });
    },
    [](World& w) {
        w.open(kSecret, [&](Handle* out) {
            return KSPSecretAgreement(w.any(kProvider), w.any(kKspKey), w.any(kKspKey), out, 0);
        });
    },
    [](World& w) {
        const ExactText property(anyOf(w.input, kPropertyNames));
        // At least as long as what is read of a value whose length is not looked at.
        Bytes value = w.bytes();
        const DWORD length = w.orTooLong(static_cast<DWORD>(value.size()));
        value.resize(std::max<std::size_t>(value.size(), 255));
        const ExactBytes argument(value);
        kspCall([&] {
            return KSPSetKeyProperty(w.any(kProvider), w.any(kKspKey), w.orNull(property.get()),
                                     w.orNull(argument.data()), length, 0);
        });
        kspCall([&] {
            return KSPSetProviderProperty(w.any(kProvider), w.orNull(property.get()),
                                          w.orNull(argument.data()), length, 0);
        });
    },
    [](World& w) {
        const ExactText property(anyOf(w.input, kPropertyNames));
        w.fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
            return KSPGetKeyProperty(w.any(kProvider), w.any(kKspKey), property.get(), data, capacity, size,
                                     0);
        });
        w.fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
            return KSPGetProviderProperty(w.any(kProvider), property.get(), data, capacity, size, 0);
        });
    },
    [](World& w) {
        const ExactText type(anyOf(w.input, kBlobNames));
        w.fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
            return KSPExportKey(w.any(kProvider), w.any(kKspKey), 0, type.get(), nullptr, data, capacity,
                                size, 0);
        });
    },
    [](World& w) {
        const ExactBytes in(w.bytes());
        const ExactText hash(anyOf(w.input, kAlgorithms));
        BCRYPT_OAEP_PADDING_INFO padding{.pszAlgId = w.orNull(hash.get()), .pbLabel = nullptr, .cbLabel = 0};
        const auto entryPoint = w.input.ConsumeBool() ? KSPEncrypt : KSPDecrypt;
        w.fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
            return entryPoint(w.any(kProvider), w.any(kKspKey), w.orNull(in.data()), w.orTooLong(in.size()),
                              w.orNull(&padding), data, capacity, size, w.flags());
        });
    },
    [](World& w) {
        const ExactBytes hash(w.bytes(64));
        w.fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
            return KSPSignHash(w.any(kProvider), w.any(kKspKey), nullptr, w.orNull(hash.data()),
                               w.orTooLong(hash.size()), data, capacity, size, w.flags());
        });
    },
    [](World& w) {
        const ExactBytes hash(w.bytes(64));
        const ExactBytes signature(w.bytes());
        kspCall([&] {
            return KSPVerifySignature(w.any(kProvider), w.any(kKspKey), nullptr, w.orNull(hash.data()),
                                      hash.size(), w.orNull(signature.data()), w.orTooLong(signature.size()),
                                      w.flags());
        });
    },
    [](World& w) {
        const ExactText function(anyOf(w.input, kFunctions));
        const ExactBytes value(w.bytes(40));
        NCryptBuffer parameter{.cbBuffer = w.orTooLong(value.size()),
                               .BufferType =
                                   w.input.PickValueInArray<ULONG>({KDF_HASH_ALGORITHM, 0xD, 0xE, 1}),
                               .pvBuffer = value.data()};
        NCryptBufferDesc list{.ulVersion = 0, .cBuffers = 1, .pBuffers = w.orNull(&parameter)};
        w.fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
            return KSPDeriveKey(0, w.any(kSecret), w.orNull(function.get()), w.orNull(&list), data, capacity,
                                size, 0);
        });
    },
    [](World& w) {
        const ExactText algorithm(anyOf(w.input, kAlgorithms));
        kspCall([&] { return KSPIsAlgSupported(w.any(kProvider), w.orNull(algorithm.get()), 0); });
    },
    enumerateAlgorithms,
    enumerateKeys,
    [](World& w) {
        kspCall([&] { return KSPPromptUser(w.any(kProvider), w.any(kKspKey), nullptr, w.flags()); });
    },
    [](World& w) {
        require(!kspCall([&] { return KSPNotifyChangeKey(w.any(kProvider), nullptr, 0); }),
                "it is not supported");
    },
};

// The library, the token and the user

constexpr auto kLibrary = names(
    "init", "getConnectedDeviceList", "initDevice", "getTokenInfo", "validatePassword", "getKeyPairList",
    "generateKeyPair", "deleteKeyPair", "getCertificateList", "findCertificateForKey", "importCertificate",
    "getCertificateDetails", "getFilesWithExtensionsAndConvertDER", "getAesKeyList", "importAesKey",
    "signHash", "verifySignatureHash", "encrypt", "decrypt", "encrypt_aes", "decrypt_aes", "decryptSymetric",
    "ecdhDerive", "generateRamdomNumber", "initHash", "updateHash", "finalHash", "updateKeyPairDetails");

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
    const char* only = w.input.PickValueInArray(kLibrary);
    const bool all = w.input.ConsumeBool();
    for (const char* function : kLibrary)
        if (all || function == only) library().script(std::string("veltra_") + function, script);
}

// What a record says of itself, the length of its contents above all, is the library's word and no more.
template <class Record>
void changeOneOf(std::vector<Record>& records, std::uint32_t Record::*length, World& w) {
    if (records.empty()) return;
    Record& record = records[w.input.ConsumeIntegralInRange<std::size_t>(0, records.size() - 1)];
    const DWORD value = w.pick({0, 1, 2, 8, 10, 129, 1025, 3073, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF});
    const auto offset = w.input.ConsumeIntegralInRange<std::size_t>(0, sizeof(Record) / 4 - 1) * 4;
    switch (w.input.ConsumeIntegralInRange(0, 3)) {
    case 0:
        record.*length = value;
        break;
    case 1:
        record.credentialIdLength = value;
        break;
    case 2:
        std::ranges::fill(record.label, 'L');
        break;
    default:
        std::ranges::copy(bytesOf(value), reinterpret_cast<unsigned char*>(&record) + offset);
    }
}

constexpr Step kWorldSteps[] = {
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
            for (const Step step : kClosingSteps)
                step(w);
        });
    },
};

void closeAll(const World& w) {
    library().clearScripts();
    for (const Handle block : w.blocks)
        require(KSPFreeBuffer(reinterpret_cast<void*>(block)) == 0, "a block is freed");
    for (const Handle key : w.live[kKspKey])
        require(KSPFreeKey(0, key) == 0, "a key is freed");
    for (const Handle secret : w.live[kSecret])
        require(KSPFreeSecret(0, secret) == 0, "a secret is freed");
    for (const Handle provider : w.live[kProvider])
        require(KSPFreeProvider(provider) == 0, "a provider is freed");
    for (const Handle hash : w.live[kHash])
        require(CPDestroyHash(cspContext(), hash) != FALSE, "a hash is destroyed");
    for (const Handle key : w.live[kKey])
        require(CPDestroyKey(cspContext(), key) != FALSE, "a key is destroyed");
    for (const Handle context : w.live[kContext])
        require(CPReleaseContext(context, 0) != FALSE, "a context is released");
    if (!w.usedContainers) return;
    for (const char* container : kContainers)
        forgetContainer(container);
}

// One of each kind, so that nearly every step has something to work on.
void openSome(World& w) {
    w.open(kContext, [](Handle* out) { return CPAcquireContext(out, nullptr, 0, anyTable()); });
    w.open(kProvider, [](Handle* out) { return KSPOpenProvider(out, nullptr, 0); });
    const Bytes secret = test::counting(32);
    w.live[kKey] = {openCspKey(secret), openCspKey(kKeyTypeEcP256), openCspKey(kKeyTypeRsa2048)};
    w.live[kKspKey] = {openKspKey(secret), openKspKey(kKeyTypeEcP256), openKspKey(kKeyTypeRsa2048)};
    w.open(kHash, [&](Handle* out) { return CPCreateHash(w.any(kContext), CALG_SHA_256, 0, 0, out); });
}

void playSequence(FuzzedDataProvider& input) {
    World world{.input = input};
    openSome(world);
    for (int count = 0; count < 64 && input.remaining_bytes() > 0; ++count) {
        switch (input.ConsumeIntegralInRange(0, 7)) {
        case 0:
            input.PickValueInArray(kWorldSteps)(world);
            break;
        case 1:
            input.PickValueInArray(kClosingSteps)(world);
            break;
        case 2:
        case 3:
        case 4:
            input.PickValueInArray(kCspSteps)(world);
            break;
        default:
            input.PickValueInArray(kKspSteps)(world);
        }
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
