// Random sequences of the entry points of both front ends, over a device library that answers, fails and
// throws as it likes. The handles are live, freed, of another kind or garbage; buffers end where their length
// says.

#include "fuzz/entry_calls.h"

#include "csp/container_map.h"
#include "token/device_state.h"

#include <climits>
#include <initializer_list>

namespace veltra::fuzz {
namespace {

using Handle = std::uintptr_t;

enum Kind : std::size_t { kContext, kHash, kKey, kProvider, kKspKey, kSecret, kKinds };

constexpr std::array<const char*, 4> kContainers = {"", "fuzz-a", "fuzz-b",
                                                    "12121212121212121212121212121212"};

constexpr std::array<const char*, 28> kLibraryFunctions = {"veltra_init",
                                                           "veltra_getConnectedDeviceList",
                                                           "veltra_initDevice",
                                                           "veltra_getTokenInfo",
                                                           "veltra_validatePassword",
                                                           "veltra_getKeyPairList",
                                                           "veltra_generateKeyPair",
                                                           "veltra_deleteKeyPair",
                                                           "veltra_updateKeyPairDetails",
                                                           "veltra_getCertificateList",
                                                           "veltra_findCertificateForKey",
                                                           "veltra_importCertificate",
                                                           "veltra_getCertificateDetails",
                                                           "veltra_getFilesWithExtensionsAndConvertDER",
                                                           "veltra_getAesKeyList",
                                                           "veltra_importAesKey",
                                                           "veltra_signHash",
                                                           "veltra_verifySignatureHash",
                                                           "veltra_encrypt",
                                                           "veltra_decrypt",
                                                           "veltra_encrypt_aes",
                                                           "veltra_decrypt_aes",
                                                           "veltra_decryptSymetric",
                                                           "veltra_ecdhDerive",
                                                           "veltra_generateRamdomNumber",
                                                           "veltra_initHash",
                                                           "veltra_updateHash",
                                                           "veltra_finalHash"};

/// Plays one input. Every step of kSteps is one method; what a choice is when the input has ended is the
/// ordinary one.
class Player {
public:
    explicit Player(FuzzedDataProvider& input) : in_(input) {}

    void play();

private:
    using Step = void (Player::*)();
    static const std::array<Step, 63> kSteps;

    // Choices

    bool rarely() { return in_.ConsumeIntegral<BYTE>() >= 0xF8; }

    DWORD pick(std::initializer_list<DWORD> known) {
        if (rarely()) return in_.ConsumeIntegral<DWORD>();
        return *(known.begin() + in_.ConsumeIntegralInRange<std::size_t>(0, known.size() - 1));
    }

    DWORD flags() {
        return pick({0, CRYPT_SILENT, CRYPT_VERIFYCONTEXT, CRYPT_NEWKEYSET, CRYPT_FIRST, CRYPT_NEXT,
                     kPadPkcs1Flag, kPadOaepFlag, kPadPssFlag, kPadPkcs1Flag | kPadPssFlag,
                     kPadPkcs1Flag | kPadOaepFlag, CRYPT_VERIFYCONTEXT | CRYPT_SILENT, 2048U << 16,
                     1024U << 16, 0xFFFF0000});
    }

    Handle handle(Kind kind) {
        switch (in_.ConsumeIntegralInRange(0, 15)) {
        case 12:
            return 0;
        case 13:
            return in_.ConsumeIntegral<Handle>();
        case 14:
            return oneOf(freed_);
        case 15:
            return oneOf(live_[in_.ConsumeIntegralInRange<std::size_t>(0, kKinds - 1)]);
        default:
            return oneOf(live_[kind]);
        }
    }

    Handle oneOf(const std::vector<Handle>& handles) {
        if (handles.empty()) return 0;
        return handles[handles.size() - 1 - in_.ConsumeIntegralInRange<std::size_t>(0, handles.size() - 1)];
    }

    template <class Value>
    Value* orNull(Value* pointer) {
        return rarely() ? nullptr : pointer;
    }

    ExactBytes bytes(std::size_t longest = 300) {
        return ExactBytes(
            in_.ConsumeBytes<unsigned char>(in_.ConsumeIntegralInRange<std::size_t>(0, longest)));
    }

    ExactBytes buffer() {
        return ExactBytes(in_.PickValueInArray<std::size_t>({512, 0, 1, 4, 16, 20, 64, 256, 1100, 4096}));
    }

    ExactText name(std::initializer_list<const char*> known) {
        const auto index = in_.ConsumeIntegralInRange<std::size_t>(0, known.size());
        return ExactText(index < known.size() ? *(known.begin() + index) : in_.ConsumeRandomLengthString(40));
    }

    /// A length that the device library cannot take, which has to be refused before anything is read.
    DWORD orTooLong(DWORD length) {
        return rarely() ? in_.PickValueInArray<DWORD>({0x80000000, 0xFFFFFFFF}) : length;
    }

    // Handles

    /// Calls what hands out a handle.
    template <class Call>
    void open(Kind kind, Call call) {
        Handle opened = kUntouched;
        if (call(orNull(&opened))) {
            require(opened != kUntouched && opened != 0, "a success hands out a handle");
            live_[kind].push_back(opened);
        } else {
            require(opened == kUntouched, "a failure leaves the handle alone");
        }
    }

    template <class Call>
    void openCsp(Kind kind, Call call) {
        open(kind, [&](Handle* out) { return cspCall([&] { return call(out); }); });
    }

    template <class Call>
    void openKsp(Kind kind, Call call) {
        open(kind, [&](Handle* out) { return kspCall([&] { return call(out); }); });
    }

    /// Forgets a handle that was closed; says whether it was live.
    bool forget(Kind kind, Handle closed) {
        const auto found = std::ranges::find(live_[kind], closed);
        if (found == live_[kind].end()) return false;
        live_[kind].erase(found);
        freed_.push_back(closed);
        return true;
    }

    /// Calls what closes a handle and refuses one that is not live.
    template <class Call>
    void close(Kind kind, Call call) {
        const Handle closed = handle(kind);
        if (call(closed)) require(forget(kind, closed), "only a live handle is closed");
    }

    // Output

    /// Calls what fills a buffer. What CNG writes fits; CryptoAPI tells of more in two ways.
    template <class Call>
    void fillCsp(Call call) {
        const ExactBytes out = buffer();
        DWORD length = out.size();
        BYTE* const data = orNull(out.data());
        DWORD* const lengthOut = orNull(&length);
        cspCall([&] { return call(data, lengthOut); });
    }

    template <class Call>
    void fillKsp(Call call) {
        const ExactBytes out = buffer();
        DWORD size = kUntouched;
        BYTE* const data = orNull(out.data());
        DWORD* const sizeOut = orNull(&size);
        const bool done = kspCall([&] { return call(data, out.size(), sizeOut); });
        require(!done || data == nullptr || size <= out.size(), "what is written fits");
    }

    // CryptoAPI

    void acquire();
    void releaseContext();
    void generateKey();
    void getUserKey();
    void importCspKey();
    void deriveCspKey();
    void createHash();
    void duplicateHash();
    void destroyHash();
    void destroyKey();
    void setCspKeyParameter();
    void setHashParameter();
    void setProviderParameter();
    void hashData();
    void encryptCsp();
    void decryptCsp();
    void verifyCsp();
    void randomBytes();
    void hashSessionKey();
    void getProviderParameter();
    void getCspKeyParameter();
    void getHashParameter();
    void exportCspKey();
    void signCsp();

    // CNG

    void openProvider();
    void freeProvider();
    void openKey();
    void createKey();
    void finalizeKey();
    void deleteKey();
    void freeKey();
    void importKspKey();
    void agree();
    void freeSecret();
    void freeBuffer();
    void setKspKeyProperty();
    void setKspProviderProperty();
    void getKspKeyProperty();
    void getKspProviderProperty();
    void exportKspKey();
    void encryptKsp();
    void decryptKsp();
    void signKsp();
    void verifyKsp();
    void deriveKspKey();
    void isAlgorithmSupported();
    void enumerateAlgorithms();
    void enumerateKeys();
    void promptUser();
    void notifyChange();

    // The world around

    void scriptLibrary();
    void clearScripts() { library().clearScripts(); }
    void plug() { library().setConnected(token().serial, in_.ConsumeBool()); }
    void changeRecord();
    void changeToken();
    void typePins();
    void actDuringDialog();

    void closeAll();

    FuzzedDataProvider& in_;
    std::array<std::vector<Handle>, kKinds> live_;
    std::vector<Handle> freed_;
    std::vector<Handle> blocks_;
    bool usedContainers_ = false;
};

// CryptoAPI

void Player::acquire() {
    const char* container = in_.PickValueInArray(kContainers);
    if (*container != '\0') usedContainers_ = true;
    const DWORD how = in_.ConsumeIntegralInRange(0, 7) == 7 ? CRYPT_DELETEKEYSET | flags() : flags();
    HCRYPTPROV context = kUntouched;
    HCRYPTPROV* const out = orNull(&context);
    const bool done =
        cspCall([&] { return CPAcquireContext(out, orNull(container), how, orNull(anyTable())); });
    if (done && (how & CRYPT_DELETEKEYSET) == 0) live_[kContext].push_back(context);
}

void Player::releaseContext() {
    const DWORD how = pick({0, 0, 0, 1});
    close(kContext, [&](Handle it) { return cspCall([&] { return CPReleaseContext(it, how); }); });
}

void Player::generateKey() {
    const auto context = handle(kContext);
    const ALG_ID algorithm = pick({AT_SIGNATURE, AT_KEYEXCHANGE, CALG_RSA_SIGN, CALG_RSA_KEYX, CALG_AES_256});
    const DWORD how = flags();
    openCsp(kKey, [&](Handle* out) { return CPGenKey(context, algorithm, how, out); });
}

void Player::getUserKey() {
    const auto context = handle(kContext);
    const DWORD specification = pick({AT_KEYEXCHANGE, AT_SIGNATURE, 0});
    openCsp(kKey, [&](Handle* out) { return CPGetUserKey(context, specification, out); });
}

void Player::importCspKey() {
    const auto context = handle(kContext);
    const auto key = handle(kKey);
    const DWORD type =
        pick({PUBLICKEYBLOB, SIMPLEBLOB, PLAINTEXTKEYBLOB, SYMMETRICWRAPKEYBLOB, PRIVATEKEYBLOB});
    const ALG_ID algorithm = pick({CALG_AES_128, CALG_AES_192, CALG_AES_256, CALG_RSA_KEYX});
    const Bytes head = bytesOf(BLOBHEADER{.bType = static_cast<BYTE>(type),
                                          .bVersion = CUR_BLOB_VERSION,
                                          .reserved = 0,
                                          .aiKeyAlg = algorithm});
    const ExactBytes body = bytes();
    const ExactBytes blob(join(head, std::span(body.data(), body.size())));
    const DWORD length = orTooLong(blob.size());
    openCsp(kKey, [&](Handle* out) { return CPImportKey(context, blob.data(), length, key, flags(), out); });
}

void Player::deriveCspKey() {
    const auto context = handle(kContext);
    const auto hash = handle(kHash);
    const ALG_ID algorithm = pick({CALG_AES_128, CALG_AES_192, CALG_AES_256, CALG_RC4});
    openCsp(kKey, [&](Handle* out) { return CPDeriveKey(context, algorithm, hash, flags(), out); });
}

void Player::createHash() {
    const auto context = handle(kContext);
    const auto key = handle(kKey);
    const ALG_ID algorithm = pick({CALG_SHA_256, CALG_HMAC, CALG_SHA_384, CALG_SHA_512, CALG_SHA1, CALG_MD5});
    const DWORD how = pick({0, 0, 0, 1});
    openCsp(kHash, [&](Handle* out) { return CPCreateHash(context, algorithm, key, how, out); });
}

void Player::duplicateHash() {
    const auto context = handle(kContext);
    const auto hash = handle(kHash);
    const DWORD how = pick({0, 0, 0, 1});
    openCsp(kHash, [&](Handle* out) { return CPDuplicateHash(context, hash, nullptr, how, out); });
}

void Player::destroyHash() {
    const auto context = handle(kContext);
    close(kHash, [&](Handle it) { return cspCall([&] { return CPDestroyHash(context, it); }); });
}

void Player::destroyKey() {
    const auto context = handle(kContext);
    close(kKey, [&](Handle it) { return cspCall([&] { return CPDestroyKey(context, it); }); });
}

void Player::setCspKeyParameter() {
    const auto context = handle(kContext);
    const auto key = handle(kKey);
    const DWORD parameter = pick({KP_IV, KP_MODE, KP_PADDING, KP_PERMISSIONS, KP_CERTIFICATE});
    const Bytes value = in_.ConsumeBytes<unsigned char>(in_.ConsumeIntegralInRange<std::size_t>(0, 300));
    Bytes fixed = value;
    fixed.resize(16);
    const ExactBytes argument =
        parameter == KP_CERTIFICATE ? asCertificateArgument(value) : ExactBytes(fixed);
    BYTE* const data = orNull(argument.data());
    cspCall([&] { return CPSetKeyParam(context, key, parameter, data, 0); });
}

// A value of at most 64 bytes, whichever hash it is.
void Player::setHashParameter() {
    const auto context = handle(kContext);
    const auto hash = handle(kHash);
    const DWORD parameter = pick({HP_HMAC_INFO, HP_HASHVAL, HP_ALGID});
    const HMAC_INFO info{.HashAlgid = pick({CALG_SHA_256, CALG_SHA_384, CALG_SHA_512, CALG_SHA1, CALG_MD5}),
                         .pbInnerString = nullptr,
                         .cbInnerString = 0,
                         .pbOuterString = nullptr,
                         .cbOuterString = 0};
    const ExactBytes value = parameter == HP_HMAC_INFO ? ExactBytes(bytesOf(info)) : ExactBytes(64);
    BYTE* const data = orNull(value.data());
    const DWORD how = pick({0, 0, 0, 1});
    cspCall([&] { return CPSetHashParam(context, hash, parameter, data, how); });
}

void Player::setProviderParameter() {
    const auto context = handle(kContext);
    const DWORD parameter = pick({PP_SIGNATURE_PIN, PP_KEYEXCHANGE_PIN, PP_USE_HARDWARE_RNG, PP_CLIENT_HWND});
    Bytes value = in_.ConsumeBytes<unsigned char>(in_.ConsumeIntegralInRange<std::size_t>(0, 256));
    value.resize(256);
    const ExactBytes argument(value);
    BYTE* const data = orNull(argument.data());
    cspCall([&] { return CPSetProvParam(context, parameter, data, 0); });
}

void Player::hashData() {
    const auto context = handle(kContext);
    const auto hash = handle(kHash);
    const ExactBytes data = bytes();
    BYTE* const start = orNull(data.data());
    cspCall([&] { return CPHashData(context, hash, start, data.size(), 0); });
}

void Player::encryptCsp() {
    const auto context = handle(kContext);
    const auto key = handle(kKey);
    const ExactBytes data = buffer();
    DWORD length = pick({16, 20, 0, 245, data.size()});
    BYTE* const start = orNull(data.data());
    cspCall([&] {
        return CPEncrypt(context, key, 0, in_.ConsumeBool(), pick({0, CRYPT_OAEP}), start, orNull(&length),
                         data.size());
    });
}

void Player::decryptCsp() {
    const auto context = handle(kContext);
    const auto key = handle(kKey);
    const ExactBytes data = bytes();
    DWORD length = orTooLong(data.size());
    BYTE* const start = orNull(data.data());
    cspCall([&] {
        return CPDecrypt(context, key, 0, in_.ConsumeBool(), pick({CRYPT_OAEP, 0}), start, orNull(&length));
    });
}

void Player::verifyCsp() {
    const auto context = handle(kContext);
    const auto hash = handle(kHash);
    const auto key = handle(kKey);
    const ExactBytes signature = bytes();
    BYTE* const data = orNull(signature.data());
    const DWORD length = orTooLong(signature.size());
    cspCall([&] { return CPVerifySignature(context, hash, data, length, key, nullptr, 0); });
}

void Player::randomBytes() {
    const auto context = handle(kContext);
    const ExactBytes out = buffer();
    BYTE* const data = orNull(out.data());
    cspCall([&] { return CPGenRandom(context, out.size(), data); });
}

void Player::hashSessionKey() {
    cspCall([&] { return CPHashSessionKey(handle(kContext), handle(kHash), handle(kKey), flags()); });
}

void Player::getProviderParameter() {
    const auto context = handle(kContext);
    const DWORD parameter = in_.ConsumeIntegralInRange<DWORD>(0, 50);
    const DWORD how = flags();
    fillCsp([&](BYTE* data, DWORD* length) { return CPGetProvParam(context, parameter, data, length, how); });
}

void Player::getCspKeyParameter() {
    const auto context = handle(kContext);
    const auto key = handle(kKey);
    const DWORD parameter = in_.ConsumeIntegralInRange<DWORD>(0, 50);
    fillCsp(
        [&](BYTE* data, DWORD* length) { return CPGetKeyParam(context, key, parameter, data, length, 0); });
}

void Player::getHashParameter() {
    const auto context = handle(kContext);
    const auto hash = handle(kHash);
    const DWORD parameter = pick({HP_HASHVAL, HP_HASHSIZE, HP_ALGID, HP_HMAC_INFO});
    const DWORD how = pick({0, 0, 0, 1});
    fillCsp([&](BYTE* data, DWORD* length) {
        return CPGetHashParam(context, hash, parameter, data, length, how);
    });
}

void Player::exportCspKey() {
    const auto context = handle(kContext);
    const auto key = handle(kKey);
    const DWORD type = pick({PUBLICKEYBLOB, PRIVATEKEYBLOB, SIMPLEBLOB});
    fillCsp([&](BYTE* data, DWORD* length) { return CPExportKey(context, key, 0, type, 0, data, length); });
}

void Player::signCsp() {
    const auto context = handle(kContext);
    const auto hash = handle(kHash);
    const DWORD specification = pick({AT_SIGNATURE, AT_KEYEXCHANGE, 0});
    fillCsp([&](BYTE* data, DWORD* length) {
        return CPSignHash(context, hash, specification, nullptr, 0, data, length);
    });
}

// CNG

void Player::openProvider() {
    openKsp(kProvider, [&](Handle* out) { return KSPOpenProvider(out, nullptr, 0); });
}

void Player::freeProvider() {
    close(kProvider, [&](Handle it) { return kspCall([&] { return KSPFreeProvider(it); }); });
}

void Player::openKey() {
    const auto provider = handle(kProvider);
    const ExactText keyName =
        name({"12121212121212121212121212121212", "15151515151515151515151515151515",
              "16161616161616161616161616161616", "E1E1E1E1E1E1E1E1E1E1E1E1E1E1E1E1", ""});
    const DWORD specification = pick({0, AT_KEYEXCHANGE, AT_SIGNATURE});
    openKsp(kKspKey,
            [&](Handle* out) { return KSPOpenKey(provider, out, orNull(keyName.get()), specification, 0); });
}

void Player::createKey() {
    const auto provider = handle(kProvider);
    const ExactText algorithm = name({"RSA", "ECDSA_P256", "ECDH_P384", "ECDSA_P521", "AES"});
    const ExactText keyName = name({"key"});
    const DWORD specification = pick({0, AT_KEYEXCHANGE, AT_SIGNATURE});
    openKsp(kKspKey, [&](Handle* out) {
        return KSPCreatePersistedKey(provider, out, orNull(algorithm.get()), orNull(keyName.get()),
                                     specification, 0);
    });
}

void Player::finalizeKey() {
    kspCall([&] { return KSPFinalizeKey(handle(kProvider), handle(kKspKey), flags()); });
}

void Player::deleteKey() {
    kspCall([&] { return KSPDeleteKey(handle(kProvider), handle(kKspKey), flags()); });
}

// Freeing what is not live is no failure, so here and below the handle may be any.
void Player::freeKey() {
    const Handle freed = handle(kKspKey);
    require(kspCall([&] { return KSPFreeKey(handle(kProvider), freed); }), "freeing a key never fails");
    forget(kKspKey, freed);
}

void Player::importKspKey() {
    const auto provider = handle(kProvider);
    const auto key = handle(kKspKey);
    const ExactText type(anyOf(in_, kBlobNames));
    const ExactBytes blob = bytes();
    const DWORD length = orTooLong(blob.size());
    openKsp(kKspKey, [&](Handle* out) {
        return KSPImportKey(provider, key, orNull(type.get()), nullptr, out, orNull(blob.data()), length, 0);
    });
}

void Player::agree() {
    const auto provider = handle(kProvider);
    const auto privateKey = handle(kKspKey);
    const auto publicKey = handle(kKspKey);
    openKsp(kSecret,
            [&](Handle* out) { return KSPSecretAgreement(provider, privateKey, publicKey, out, 0); });
}

void Player::freeSecret() {
    const Handle freed = handle(kSecret);
    require(kspCall([&] { return KSPFreeSecret(handle(kProvider), freed); }), "freeing a secret never fails");
    forget(kSecret, freed);
}

void Player::freeBuffer() {
    const Handle freed = rarely() ? handle(kKspKey) : oneOf(blocks_);
    require(kspCall([&] { return KSPFreeBuffer(reinterpret_cast<void*>(freed)); }), "freeing never fails");
    if (std::erase(blocks_, freed) != 0) freed_.push_back(freed);
}

void Player::setKspKeyProperty() {
    const auto provider = handle(kProvider);
    const auto key = handle(kKspKey);
    const ExactText property(anyOf(in_, kPropertyNames));
    // At least as long as what is read of a value whose length is not looked at.
    Bytes value = in_.ConsumeBytes<unsigned char>(in_.ConsumeIntegralInRange<std::size_t>(0, 300));
    const DWORD length = orTooLong(static_cast<DWORD>(value.size()));
    value.resize(std::max<std::size_t>(value.size(), 255));
    const ExactBytes argument(value);
    kspCall([&] {
        return KSPSetKeyProperty(provider, key, orNull(property.get()), orNull(argument.data()), length, 0);
    });
}

void Player::setKspProviderProperty() {
    const auto provider = handle(kProvider);
    const ExactText property(anyOf(in_, kPropertyNames));
    Bytes value = in_.ConsumeBytes<unsigned char>(255);
    value.resize(255);
    const ExactBytes argument(value);
    kspCall([&] {
        return KSPSetProviderProperty(provider, orNull(property.get()), orNull(argument.data()),
                                      argument.size(), 0);
    });
}

void Player::getKspKeyProperty() {
    const auto provider = handle(kProvider);
    const auto key = handle(kKspKey);
    const ExactText property(anyOf(in_, kPropertyNames));
    fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
        return KSPGetKeyProperty(provider, key, property.get(), data, capacity, size, 0);
    });
}

void Player::getKspProviderProperty() {
    const auto provider = handle(kProvider);
    const ExactText property(anyOf(in_, kPropertyNames));
    fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
        return KSPGetProviderProperty(provider, property.get(), data, capacity, size, 0);
    });
}

void Player::exportKspKey() {
    const auto provider = handle(kProvider);
    const auto key = handle(kKspKey);
    const ExactText type(anyOf(in_, kBlobNames));
    fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
        return KSPExportKey(provider, key, 0, type.get(), nullptr, data, capacity, size, 0);
    });
}

void Player::encryptKsp() {
    const auto provider = handle(kProvider);
    const auto key = handle(kKspKey);
    const ExactBytes in = bytes();
    const ExactText hash = name({"SHA256", "SHA1", "SHA384", "SHA512"});
    BCRYPT_OAEP_PADDING_INFO padding{.pszAlgId = orNull(hash.get()), .pbLabel = nullptr, .cbLabel = 0};
    const DWORD length = orTooLong(in.size());
    const DWORD how = flags();
    fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
        return KSPEncrypt(provider, key, orNull(in.data()), length, orNull(&padding), data, capacity, size,
                          how);
    });
}

void Player::decryptKsp() {
    const auto provider = handle(kProvider);
    const auto key = handle(kKspKey);
    const ExactBytes in = bytes();
    const DWORD length = orTooLong(in.size());
    const DWORD how = flags();
    fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
        return KSPDecrypt(provider, key, orNull(in.data()), length, nullptr, data, capacity, size, how);
    });
}

void Player::signKsp() {
    const auto provider = handle(kProvider);
    const auto key = handle(kKspKey);
    const ExactBytes hash = bytes(64);
    const DWORD length = orTooLong(hash.size());
    const DWORD how = flags();
    fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
        return KSPSignHash(provider, key, nullptr, orNull(hash.data()), length, data, capacity, size, how);
    });
}

void Player::verifyKsp() {
    const auto provider = handle(kProvider);
    const auto key = handle(kKspKey);
    const ExactBytes hash = bytes(64);
    const ExactBytes signature = bytes();
    const DWORD length = orTooLong(signature.size());
    kspCall([&] {
        return KSPVerifySignature(provider, key, nullptr, orNull(hash.data()), hash.size(),
                                  orNull(signature.data()), length, flags());
    });
}

void Player::deriveKspKey() {
    const auto secret = handle(kSecret);
    const ExactText function = name({"HASH", "SP800_56ACONCAT"});
    const ExactBytes value = bytes(40);
    NCryptBuffer parameter{.cbBuffer = orTooLong(value.size()),
                           .BufferType = pick({KDF_HASH_ALGORITHM, kKdfLabel, kKdfContext}),
                           .pvBuffer = value.data()};
    const bool isRead = parameter.BufferType == KDF_HASH_ALGORITHM || parameter.BufferType == kKdfLabel ||
                        parameter.BufferType == kKdfContext;
    NCryptBufferDesc list{.ulVersion = 0, .cBuffers = isRead ? 1U : 0U, .pBuffers = orNull(&parameter)};
    fillKsp([&](BYTE* data, DWORD capacity, DWORD* size) {
        return KSPDeriveKey(0, secret, orNull(function.get()), orNull(&list), data, capacity, size, 0);
    });
}

void Player::isAlgorithmSupported() {
    const ExactText algorithm = name({"RSA", "AES"});
    kspCall([&] { return KSPIsAlgSupported(handle(kProvider), orNull(algorithm.get()), 0); });
}

void Player::enumerateAlgorithms() {
    const auto provider = handle(kProvider);
    const DWORD operations = pick({0, 1, 2, 4, 8, 16, 0xFFFFFFFF});
    DWORD count = kUntouched;
    NCryptAlgorithmName* list = nullptr;
    const bool done = kspCall(
        [&] { return KSPEnumAlgorithms(provider, operations, orNull(&count), orNull(&list), flags()); });
    require(done == (list != nullptr), "a list exactly with a success");
    if (!done) return;
    blocks_.push_back(reinterpret_cast<Handle>(list));
    for (DWORD i = 0; i < count; ++i)
        require(!fromWide(list[i].pszName).empty(), "an algorithm has a name");
}

void Player::enumerateKeys() {
    const auto provider = handle(kProvider);
    NCryptKeyName* keyName = nullptr;
    void* const before =
        rarely() ? reinterpret_cast<void*>(handle(kKspKey)) : reinterpret_cast<void*>(oneOf(blocks_));
    void* state = in_.ConsumeBool() ? before : nullptr;
    void* const known = state;
    const bool done =
        kspCall([&] { return KSPEnumKeys(provider, nullptr, orNull(&keyName), orNull(&state), flags()); });
    require(done == (keyName != nullptr), "a name exactly with a success");
    require(done || state == known, "a failure hands out no cursor");
    if (!done) return;
    require(!fromWide(keyName->pszName).empty(), "a key has a name");
    blocks_.push_back(reinterpret_cast<Handle>(keyName));
    if (state != known) blocks_.push_back(reinterpret_cast<Handle>(state));
}

void Player::promptUser() {
    kspCall([&] { return KSPPromptUser(handle(kProvider), handle(kKspKey), nullptr, flags()); });
}

void Player::notifyChange() {
    require(!kspCall([&] { return KSPNotifyChangeKey(handle(kProvider), nullptr, 0); }),
            "it is not supported");
}

// The world around

void Player::scriptLibrary() {
    const char* function = in_.PickValueInArray(kLibraryFunctions);
    test::Script script;
    script.result =
        in_.PickValueInArray({0, 1, kDeviceTimeMismatch, kDeviceSessionExpired, kDeviceWeakHashRefused, -1});
    if (in_.ConsumeBool())
        script.length =
            in_.PickValueInArray({0, 1, 7, 15, 17, 31, 33, 65, 67, 1025, 5000, 70000, -1, INT_MIN});
    script.throws = rarely();
    script.outOfMemory = rarely();
    script.onCall = in_.ConsumeIntegralInRange(0, 3);
    library().script(function, script);
}

// What a record says of itself is the library's word and no more.
void Player::changeRecord() {
    const auto overwrite = [this](auto& records) {
        if (records.empty()) return;
        auto& record = records[in_.ConsumeIntegralInRange<std::size_t>(0, records.size() - 1)];
        const auto offset = in_.ConsumeIntegralInRange<std::size_t>(0, sizeof(record) / 4 - 1) * 4;
        const DWORD value = pick({0, 1, 2, 8, 10, 129, 1025, 3073, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF});
        std::ranges::copy(bytesOf(value), reinterpret_cast<unsigned char*>(&record) + offset);
        if (in_.ConsumeBool()) std::ranges::fill(record.label, 'L');
    };
    switch (in_.ConsumeIntegralInRange(0, 2)) {
    case 0:
        return overwrite(token().keyPairs);
    case 1:
        return overwrite(token().certificates);
    default:
        return overwrite(token().aesKeys);
    }
}

void Player::changeToken() {
    token().info.fipsMarker = in_.PickValueInArray({"3.0.9", "2.1.9", "", "1"});
    token().info.firmwareVersion = in_.ConsumeBool() ? "2.0.0" : in_.ConsumeRandomLengthString(12);
    if (in_.ConsumeBool()) token().logIn();
    token().addCertificate(in_.ConsumeIntegralInRange<BYTE>(0x11, 0x17),
                           test::ScriptedDeviceLibrary::fakeCertificate("name", "CN=a", "CN=b"));
    if (in_.ConsumeBool()) token().keyPairs.clear();
}

void Player::typePins() {
    forgetDisconnected({});
    prompt().willType(
        {in_.PickValueInArray({"1234", "wrong", ""}), in_.PickValueInArray({"1234", "wrong", ""})});
}

// The application's window procedures run while the dialog is up, and may close what is in use.
void Player::actDuringDialog() {
    prompt().whileAsked([this] {
        releaseContext();
        destroyHash();
        destroyKey();
        freeProvider();
        freeKey();
    });
}

void Player::closeAll() {
    library().clearScripts();
    for (const Handle block : blocks_)
        require(KSPFreeBuffer(reinterpret_cast<void*>(block)) == 0, "a block is freed");
    for (const Handle key : live_[kKspKey])
        require(KSPFreeKey(0, key) == 0, "a key is freed");
    for (const Handle secret : live_[kSecret])
        require(KSPFreeSecret(0, secret) == 0, "a secret is freed");
    for (const Handle provider : live_[kProvider])
        require(KSPFreeProvider(provider) == 0, "a provider is freed");
    for (const Handle hash : live_[kHash])
        require(CPDestroyHash(cspContext(), hash) != FALSE, "a hash is destroyed");
    for (const Handle key : live_[kKey])
        require(CPDestroyKey(cspContext(), key) != FALSE, "a key is destroyed");
    for (const Handle context : live_[kContext])
        require(CPReleaseContext(context, 0) != FALSE, "a context is released");
    if (!usedContainers_) return;
    for (const char* container : kContainers)
        forgetContainer(container);
}

// What others build upon is there twice.
constexpr std::array<Player::Step, 63> Player::kSteps = {&Player::acquire,
                                                         &Player::openProvider,
                                                         &Player::getUserKey,
                                                         &Player::openKey,
                                                         &Player::createHash,
                                                         &Player::agree,
                                                         &Player::acquire,
                                                         &Player::releaseContext,
                                                         &Player::generateKey,
                                                         &Player::getUserKey,
                                                         &Player::importCspKey,
                                                         &Player::deriveCspKey,
                                                         &Player::createHash,
                                                         &Player::duplicateHash,
                                                         &Player::destroyHash,
                                                         &Player::destroyKey,
                                                         &Player::setCspKeyParameter,
                                                         &Player::setHashParameter,
                                                         &Player::setProviderParameter,
                                                         &Player::hashData,
                                                         &Player::encryptCsp,
                                                         &Player::decryptCsp,
                                                         &Player::verifyCsp,
                                                         &Player::randomBytes,
                                                         &Player::hashSessionKey,
                                                         &Player::getProviderParameter,
                                                         &Player::getCspKeyParameter,
                                                         &Player::getHashParameter,
                                                         &Player::exportCspKey,
                                                         &Player::signCsp,
                                                         &Player::openProvider,
                                                         &Player::freeProvider,
                                                         &Player::openKey,
                                                         &Player::createKey,
                                                         &Player::finalizeKey,
                                                         &Player::deleteKey,
                                                         &Player::freeKey,
                                                         &Player::importKspKey,
                                                         &Player::agree,
                                                         &Player::freeSecret,
                                                         &Player::freeBuffer,
                                                         &Player::setKspKeyProperty,
                                                         &Player::setKspProviderProperty,
                                                         &Player::getKspKeyProperty,
                                                         &Player::getKspProviderProperty,
                                                         &Player::exportKspKey,
                                                         &Player::encryptKsp,
                                                         &Player::decryptKsp,
                                                         &Player::signKsp,
                                                         &Player::verifyKsp,
                                                         &Player::deriveKspKey,
                                                         &Player::isAlgorithmSupported,
                                                         &Player::enumerateAlgorithms,
                                                         &Player::enumerateKeys,
                                                         &Player::promptUser,
                                                         &Player::notifyChange,
                                                         &Player::scriptLibrary,
                                                         &Player::clearScripts,
                                                         &Player::plug,
                                                         &Player::changeRecord,
                                                         &Player::changeToken,
                                                         &Player::typePins,
                                                         &Player::actDuringDialog};

void Player::play() {
    for (int count = 0; count < 64 && in_.remaining_bytes() > 0; ++count)
        (this->*in_.PickValueInArray(kSteps))();
    closeAll();
}

void playSequence(FuzzedDataProvider& input) {
    Player(input).play();
}

// Noise: what the choices mean changes with every step that is added.
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
