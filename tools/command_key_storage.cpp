// What only CNG has: key pairs without containers, derive-key, import-key, export-key, register, unregister;
// and show-provider.

#include "commands.h"

#include "error_text.h"
#include "files.h"
#include "key_storage.h"
#include "public_keys.h"
#include "terminal.h"
#include "wide_text.h"

#include <array>
#include <cstring>

namespace veltra {
namespace {

constexpr std::size_t kBlobLimit = 4096;

Json providerProperty(const KeyStorage& storage, const wchar_t* name) {
    constexpr std::size_t kNumberBytes = sizeof(DWORD);
    std::vector<BYTE> value(256);
    DWORD length = 0;
    const SECURITY_STATUS status = storage.functions().GetProviderProperty(
        storage.handle(), name, value.data(), static_cast<DWORD>(value.size()), &length, 0);
    if (status != kSuccess) {
        return "none: " + describeError(static_cast<DWORD>(status));
    }
    value.resize(length);
    if (length != kNumberBytes) {
        return textOfProperty(value);
    }
    DWORD number = 0;
    std::memcpy(&number, value.data(), sizeof number);
    return number;
}

void listAlgorithms(const KeyStorage& storage, Output& out) {
    NCryptAlgorithmName* names = nullptr;
    DWORD count = 0;
    requireStatus(storage.functions().EnumAlgorithms(storage.handle(), 0, &count, &names, 0),
                  "could not list the algorithms");
    Table table = {{"ALGORITHM", "algorithm"}, {"CLASS", "class"}, {"OPERATIONS", "operations"}};
    for (const NCryptAlgorithmName& name : std::span(names, count)) {
        table.add({toUtf8(name.pszName), name.dwClass, name.dwAlgOperations});
    }
    storage.functions().FreeBuffer(names);
    out.table("algorithms", table, "algorithms");
}

/// The parameters of a key derivation; the buffers point into the options.
class DerivationParameters {
public:
    explicit DerivationParameters(const AgreementOptions& options)
        : hash_(options.hash->cngName), label_(options.label), context_(options.context) {
        add(KDF_HASH_ALGORITHM, hash_.data(), (hash_.size() + 1) * sizeof(wchar_t));
        if (!label_.empty()) add(KDF_LABEL, label_.data(), label_.size());
        if (!context_.empty()) add(KDF_CONTEXT, context_.data(), context_.size());
    }
    DerivationParameters(const DerivationParameters&) = delete;
    DerivationParameters& operator=(const DerivationParameters&) = delete;
    ~DerivationParameters() = default;

    NCryptBufferDesc* get() { return &list_; }

private:
    void add(DWORD type, void* data, std::size_t length) {
        buffers_.at(list_.cBuffers++) = {static_cast<ULONG>(length), type, data};
    }

    std::wstring hash_;
    std::string label_;
    std::string context_;
    std::array<BCryptBuffer, 3> buffers_{};
    NCryptBufferDesc list_{NCRYPTBUFFER_VERSION, 0, buffers_.data()};
};

StorageHandle agreedSecret(const KeyStorage& storage, const StorageHandle& own, const StorageHandle& peer) {
    NCRYPT_SECRET_HANDLE secret = 0;
    requireStatus(storage.functions().SecretAgreement(storage.handle(), own.get(), peer.get(), &secret,
                                                      storage.silentFlag()),
                  "could not agree on a secret");
    return {storage.functions().FreeSecret, storage.handle(), secret};
}

HRESULT callRegistration(const ProviderChoice& provider, const char* function) {
    const UniqueModule module = loadProvider(provider);
    const auto call =
        reinterpret_cast<HRESULT(WINAPI*)()>(reinterpret_cast<void*>(GetProcAddress(module.get(), function)));
    require(call != nullptr, "the DLL cannot register itself");
    return call();
}

} // namespace

int generateStorageKey(const ProviderChoice& provider, const StorageKeygenOptions& options, Output& out) {
    const KeyStorage storage(provider);
    storage.givePin();
    const bool isRsa = options.algorithm == BCRYPT_RSA_ALGORITHM;
    const StorageHandle key = [&] {
        const Progress progress("Generating the key on the token");
        return storage.generateKey({options.algorithm, isRsa ? options.bits : 0, options.keySpec});
    }();
    reportGeneratedKey(storage.describe(key), storage.text(key, NCRYPT_NAME_PROPERTY), {}, out);
    return kExitOk;
}

int deleteStorageKey(const ProviderChoice& provider, const DeleteKeyOptions& options, Output& out) {
    const KeyStorage storage(provider);
    const StorageHandle key = storage.openKey(options.container);
    const std::string name = storage.text(key, NCRYPT_NAME_PROPERTY);
    if (!options.confirmed) {
        throw CommandError("this deletes the key " + name +
                               " from the token for good; repeat the command with --yes",
                           kExitUsage);
    }
    storage.givePin();
    storage.deleteKey(key);
    out.result("Deleted the key " + name + ".", {{"key", name}});
    return kExitOk;
}

int showStorageProvider(const ProviderChoice& provider, Output& out) {
    constexpr std::array kProperties = {
        NCRYPT_NAME_PROPERTY,      NCRYPT_IMPL_TYPE_PROPERTY,       NCRYPT_VERSION_PROPERTY,
        NCRYPT_ALGORITHM_PROPERTY, NCRYPT_MAX_NAME_LENGTH_PROPERTY, NCRYPT_SECURITY_DESCR_SUPPORT_PROPERTY,
        NCRYPT_USE_COUNT_PROPERTY};
    const KeyStorage storage(provider);
    Table table = {{"PROPERTY", "property"}, {"VALUE", "value"}};
    for (const wchar_t* property : kProperties) {
        table.add({toUtf8(property), providerProperty(storage, property)});
    }
    out.table("properties", table);
    listAlgorithms(storage, out);
    out.names("keys", storage.keyNames());
    return kExitOk;
}

int deriveKey(const ProviderChoice& provider, const AgreementOptions& options, Output& out) {
    const KeyStorage storage(provider);
    const StorageHandle own = storage.openKey(options.container);
    PublicKeyBlob blob = publicKeyBlob(loadPublicKeyInfo(options.peer), KeyUse::Agree);
    const StorageHandle peer = storage.importKey(blob.type, std::move(blob.bytes));
    storage.givePin();
    const StorageHandle secret = agreedSecret(storage, own, peer);

    DerivationParameters parameters(options);
    std::vector<BYTE> derived(options.length != 0 ? options.length : options.hash->length);
    DWORD length = 0;
    requireStatus(storage.functions().DeriveKey(storage.handle(), secret.get(), options.derivation.c_str(),
                                                parameters.get(), derived.data(),
                                                static_cast<DWORD>(derived.size()), &length, 0),
                  "could not derive a key");
    derived.resize(length);
    writeOrPrint(options.out, derived, out);
    SecureZeroMemory(derived.data(), derived.size());
    return kExitOk;
}

int importKeyBlob(const ProviderChoice& provider, const BlobOptions& options, Output& out) {
    const KeyStorage storage(provider);
    std::optional<StorageHandle> importKey;
    if (!options.container.empty()) {
        importKey.emplace(storage.openKey(options.container));
    }
    storage.givePin();
    const StorageHandle key = storage.importKey(options.type, readSmallFile(options.file, kBlobLimit),
                                                importKey ? &*importKey : nullptr);
    const KeyDescription description = storage.describe(key);
    const std::string file = toUtf8(options.file.native());
    out.result("Imported " + description.algorithm + " " + std::to_string(description.bits) + " key: " + file,
               {{"algorithm", description.algorithm}, {"bits", description.bits}, {"file", file}});
    return kExitOk;
}

int exportKeyBlob(const ProviderChoice& provider, const BlobOptions& options, Output& out) {
    const KeyStorage storage(provider);
    const StorageHandle key = storage.openKey(options.container);
    if (options.type == L"PEM") {
        savePublicKeyInfo(options.file, exportPublicKeyInfo(storage, key));
    } else {
        replaceFile(options.file, storage.exportKey(key, options.type));
    }
    const std::string file = toUtf8(options.file.native());
    out.result("Public key of " + inQuotes(options.container) + ": " + file, {{"file", file}});
    return kExitOk;
}

int registerKeyStorage(const ProviderChoice& provider, Output& out) {
    requireStatus(callRegistration(provider, "DllRegisterServer"), "the provider could not register itself");
    out.result("Registered the key storage provider.", {{"provider", toUtf8(provider.name)}});
    return kExitOk;
}

int unregisterKeyStorage(const ProviderChoice& provider, Output& out) {
    requireStatus(callRegistration(provider, "DllUnregisterServer"),
                  "the provider could not unregister itself");
    out.result("Unregistered the key storage provider.", {{"provider", toUtf8(provider.name)}});
    return kExitOk;
}

} // namespace veltra
