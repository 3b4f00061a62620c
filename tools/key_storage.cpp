#include "key_storage.h"

#include "container_map.h"
#include "error_text.h"
#include "wide_text.h"

#include <cstring>

namespace veltra {
namespace {

/// Frees what the provider hands out.
struct BufferFreer {
    decltype(&KSPFreeBuffer) release;
    void operator()(void* buffer) const { release(buffer); }
};
using ProviderBuffer = std::unique_ptr<void, BufferFreer>;

std::filesystem::path folderOfThisProgram() {
    std::wstring program(32768, L'\0');
    program.resize(GetModuleFileNameW(nullptr, program.data(), static_cast<DWORD>(program.size())));
    return std::filesystem::path(program).parent_path();
}

std::filesystem::path systemFolder() {
    std::wstring folder(MAX_PATH, L'\0');
    folder.resize(GetSystemDirectoryW(folder.data(), static_cast<UINT>(folder.size())));
    return folder;
}

/// Beside this program, as after a build, or where the installation puts it.
std::filesystem::path defaultDll() {
    constexpr const wchar_t* kDllName = L"VeltraCSP.dll";
    const std::filesystem::path beside = folderOfThisProgram() / kDllName;
    std::error_code error;
    const std::filesystem::path installed = systemFolder() / kDllName;
    const bool onlyInstalled = !std::filesystem::is_regular_file(beside, error) &&
                               std::filesystem::is_regular_file(installed, error);
    return onlyInstalled ? installed : beside;
}

} // namespace

void requireStatus(SECURITY_STATUS status, std::string_view what) {
    if (status != kSuccess) {
        failWithCode(static_cast<DWORD>(status), what);
    }
}

std::filesystem::path providerDll(const ProviderChoice& choice) {
    const std::filesystem::path chosen = choice.dll.empty() ? defaultDll() : choice.dll;
    std::error_code error;
    std::filesystem::path dll = std::filesystem::absolute(chosen, error);
    if (error || !std::filesystem::is_regular_file(dll, error)) {
        throw CommandError(inQuotes(dll.native()) + " is not a file; --dll names the provider's DLL");
    }
    return dll;
}

UniqueModule loadProvider(const ProviderChoice& choice) {
    const std::filesystem::path dll = providerDll(choice);
    // The folder of the DLL is searched for what it needs itself.
    UniqueModule module(LoadLibraryExW(dll.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
    require(module != nullptr, "could not load " + inQuotes(dll.native()));
    return module;
}

KeyStorage::KeyStorage(const ProviderChoice& choice)
    : pin_(choice.pin), silentFlag_(choice.silent ? kSilentFlag : 0u), module_(loadProvider(choice)) {
    const auto getInterface = reinterpret_cast<decltype(&GetKeyStorageInterface)>(
        reinterpret_cast<void*>(GetProcAddress(module_.get(), "GetKeyStorageInterface")));
    require(getInterface != nullptr, "the DLL is no key storage provider");
    NCRYPT_KEY_STORAGE_FUNCTION_TABLE* functions = nullptr;
    requireStatus(getInterface(choice.name.c_str(), &functions, 0), "could not get the function table");
    functions_ = functions;
    requireStatus(functions_->OpenProvider(&handle_, choice.name.c_str(), 0), "could not open the provider");
}

KeyStorage::~KeyStorage() {
    functions_->FreeProvider(handle_);
}

void KeyStorage::givePin() const {
    if (!pin_) return;
    // This property is narrow text, and the provider only reads it.
    auto* text = reinterpret_cast<BYTE*>(const_cast<char*>(pin_->c_str()));
    const SECURITY_STATUS status = functions_->SetProviderProperty(handle_, L"SmartCardPin", text,
                                                                   static_cast<DWORD>(pin_->size() + 1), 0);
    if (status != kSuccess) failWithPin(static_cast<DWORD>(status));
}

std::vector<std::string> KeyStorage::keyNames() const {
    std::vector<std::string> names;
    const BufferFreer freer{functions_->FreeBuffer};
    ProviderBuffer cursor(nullptr, freer);
    for (;;) {
        NCryptKeyName* name = nullptr;
        void* state = cursor.release();
        const SECURITY_STATUS status = functions_->EnumKeys(handle_, nullptr, &name, &state, 0);
        cursor.reset(state);
        if (status == NTE_NO_MORE_ITEMS) return names;
        requireStatus(status, "could not list the keys");
        const ProviderBuffer owned(name, freer);
        names.push_back(toUtf8(name->pszName));
    }
}

StorageHandle KeyStorage::openKey(const std::wstring& container) const {
    const Container known = findContainer(container);
    const std::wstring& name = known.keyIds.empty() ? container : known.keyIds.front();
    NCRYPT_KEY_HANDLE key = 0;
    requireStatus(functions_->OpenKey(handle_, &key, name.c_str(), 0, silentFlag_),
                  "could not open the key " + inQuotes(container));
    return ownKey(key);
}

std::optional<StorageHandle> KeyStorage::findKey(const std::wstring& keyId) const {
    NCRYPT_KEY_HANDLE key = 0;
    const SECURITY_STATUS status = functions_->OpenKey(handle_, &key, keyId.c_str(), 0, silentFlag_);
    if (status == NTE_NO_KEY) return std::nullopt;
    requireStatus(status, "could not open the key " + inQuotes(keyId));
    return ownKey(key);
}

StorageHandle KeyStorage::generateKey(const KeyKind& kind) const {
    constexpr const char* kCannotGenerate = "could not generate the key";
    NCRYPT_KEY_HANDLE handle = 0;
    requireStatus(functions_->CreatePersistedKey(handle_, &handle, kind.algorithm.c_str(), nullptr,
                                                 kind.legacyKeySpec, 0),
                  kCannotGenerate);
    StorageHandle key = ownKey(handle);
    if (kind.bits != 0) {
        DWORD bits = kind.bits;
        requireStatus(functions_->SetKeyProperty(handle_, handle, NCRYPT_LENGTH_PROPERTY,
                                                 reinterpret_cast<BYTE*>(&bits), sizeof bits, 0),
                      kCannotGenerate);
    }
    requireStatus(functions_->FinalizeKey(handle_, handle, silentFlag_), kCannotGenerate);
    return key;
}

void KeyStorage::deleteKey(const StorageHandle& key) const {
    requireStatus(functions_->DeleteKey(handle_, key.get(), silentFlag_), "could not delete the key");
}

StorageHandle KeyStorage::importKey(const std::wstring& blobType, std::vector<BYTE> blob,
                                    const StorageHandle* importKey) const {
    NCRYPT_KEY_HANDLE key = 0;
    const SECURITY_STATUS status =
        functions_->ImportKey(handle_, importKey != nullptr ? importKey->get() : 0, blobType.c_str(), nullptr,
                              &key, blob.data(), static_cast<DWORD>(blob.size()), silentFlag_);
    SecureZeroMemory(blob.data(), blob.size());
    requireStatus(status, "could not import the key as " + inQuotes(blobType));
    return ownKey(key);
}

std::vector<BYTE> KeyStorage::exportKey(const StorageHandle& key, const std::wstring& blobType) const {
    return askTwice([&](BYTE* blob, DWORD* length) {
        requireStatus(
            functions_->ExportKey(handle_, key.get(), 0, blobType.c_str(), nullptr, blob, *length, length, 0),
            "could not export the key as " + inQuotes(blobType));
    });
}

std::vector<BYTE> KeyStorage::property(const StorageHandle& key, const wchar_t* name) const {
    return askTwice([&](BYTE* value, DWORD* length) {
        requireStatus(functions_->GetKeyProperty(handle_, key.get(), name, value, *length, length, 0),
                      "could not read the key's property " + inQuotes(name));
    });
}

DWORD KeyStorage::number(const StorageHandle& key, const wchar_t* name) const {
    DWORD number = 0;
    const std::vector<BYTE> value = property(key, name);
    std::memcpy(&number, value.data(), std::min(value.size(), sizeof number));
    return number;
}

std::string KeyStorage::text(const StorageHandle& key, const wchar_t* name) const {
    return textOfProperty(property(key, name));
}

KeyDescription KeyStorage::describe(const StorageHandle& key) const {
    const DWORD usage = number(key, NCRYPT_KEY_USAGE_PROPERTY);
    return {text(key, L"Algorithm Group"), number(key, NCRYPT_LENGTH_PROPERTY),
            usageText((usage & kAllowSigningFlag) != 0, (usage & kAllowDecryptFlag) != 0)};
}

std::string textOfProperty(const std::vector<BYTE>& value) {
    std::wstring text(value.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), value.data(), text.size() * sizeof(wchar_t));
    return toUtf8(text.substr(0, text.find(L'\0')));
}

} // namespace veltra
