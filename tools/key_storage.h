#pragma once

#include "crypto_provider.h"

#include "foundation/win_handle.h"
#include "ksp/key_storage_interface.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace veltra {

/// Throws what failWithCode throws unless `status` is success.
void requireStatus(SECURITY_STATUS status, std::string_view what);

/// The provider's DLL: the chosen one, or VeltraCSP.dll beside this program, or else in the system's folder.
/// A file that is not there throws a CommandError.
std::filesystem::path providerDll(const ProviderChoice& choice);

/// Loads it.
UniqueModule loadProvider(const ProviderChoice& choice);

/// Owner of a handle of a key or an agreed secret, which only its provider can release; 0 owns nothing.
class StorageHandle {
public:
    using Releaser = decltype(&KSPFreeKey);

    StorageHandle(Releaser release, NCRYPT_PROV_HANDLE provider, ULONG_PTR handle)
        : release_(release), provider_(provider), handle_(handle) {}
    StorageHandle(StorageHandle&& other) noexcept
        : release_(other.release_), provider_(other.provider_), handle_(std::exchange(other.handle_, 0)) {}
    StorageHandle(const StorageHandle&) = delete;
    StorageHandle& operator=(const StorageHandle&) = delete;
    StorageHandle& operator=(StorageHandle&&) = delete;
    ~StorageHandle() {
        if (handle_ != 0) release_(provider_, handle_);
    }

    [[nodiscard]] ULONG_PTR get() const { return handle_; }

private:
    Releaser release_;
    NCRYPT_PROV_HANDLE provider_;
    ULONG_PTR handle_;
};

/// The kind of new key pair: "RSA" with its length, or one of the six curve names such as "ECDSA_P256", whose
/// length is fixed.
struct KeyKind {
    std::wstring algorithm;
    DWORD bits = 0;
    DWORD legacyKeySpec = 0;
};

/// The key storage provider, loaded as the system's router loads it: from its DLL, through the function table
/// that GetKeyStorageInterface hands out. Outlives the keys that were opened with it. Every operation throws
/// a CommandError that says what failed. Not for use by several threads at once.
class KeyStorage {
public:
    explicit KeyStorage(const ProviderChoice& choice);
    KeyStorage(const KeyStorage&) = delete;
    KeyStorage& operator=(const KeyStorage&) = delete;
    ~KeyStorage();

    [[nodiscard]] const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& functions() const { return *functions_; }
    [[nodiscard]] NCRYPT_PROV_HANDLE handle() const { return handle_; }

    /// NCRYPT_SILENT_FLAG when the user forbids windows, else 0.
    [[nodiscard]] DWORD silentFlag() const { return silentFlag_; }

    /// Hands the chosen PIN, if any, to the provider, for the token that it is bound to: the first one, or
    /// the one whose key was opened last.
    void givePin() const;

    /// The names of the keys of the token that the provider is bound to.
    [[nodiscard]] std::vector<std::string> keyNames() const;

    /// The key of a container of this user, or the one with this identifier.
    [[nodiscard]] StorageHandle openKey(const std::wstring& container) const;

    /// The key with this identifier, or nothing.
    [[nodiscard]] std::optional<StorageHandle> findKey(const std::wstring& keyId) const;

    [[nodiscard]] StorageHandle generateKey(const KeyKind& kind) const;
    void deleteKey(const StorageHandle& key) const;

    /// `importKey` is the key under which an encrypted blob was encrypted, or null.
    [[nodiscard]] StorageHandle importKey(const std::wstring& blobType, std::vector<BYTE> blob,
                                          const StorageHandle* importKey = nullptr) const;
    [[nodiscard]] std::vector<BYTE> exportKey(const StorageHandle& key, const std::wstring& blobType) const;

    [[nodiscard]] std::vector<BYTE> property(const StorageHandle& key, const wchar_t* name) const;
    [[nodiscard]] DWORD number(const StorageHandle& key, const wchar_t* name) const;
    [[nodiscard]] std::string text(const StorageHandle& key, const wchar_t* name) const;
    [[nodiscard]] KeyDescription describe(const StorageHandle& key) const;

private:
    [[nodiscard]] StorageHandle ownKey(NCRYPT_KEY_HANDLE key) const {
        return {functions_->FreeKey, handle_, key};
    }

    SharedPin pin_;
    DWORD silentFlag_;
    UniqueModule module_;
    const NCRYPT_KEY_STORAGE_FUNCTION_TABLE* functions_ = nullptr;
    NCRYPT_PROV_HANDLE handle_ = 0;
};

/// Wide text as CNG's properties hand it out, its terminator included, in UTF-8.
std::string textOfProperty(const std::vector<BYTE>& value);

} // namespace veltra
