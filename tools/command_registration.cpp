// veltra register, unregister: the registry entries by which CryptoAPI finds a provider.

#include "commands.h"

#include "error_text.h"
#include "installation.h"
#include "key_storage.h"
#include "wide_text.h"

#include "foundation/win_handle.h"

#include <array>
#include <vector>

namespace veltra {
namespace {

constexpr std::array kValueNames = {L"Image Path", L"Type", L"Signature"};
constexpr std::size_t kSignatureBytes = 136;

/// A registry value, or that there is none.
struct RegistryValue {
    const wchar_t* name = nullptr;
    bool exists = false;
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
};

void requireRegistry(LSTATUS status, std::string_view what) {
    if (status != ERROR_SUCCESS) {
        failWithCode(static_cast<DWORD>(status), what);
    }
}

RegistryValue noValue(const wchar_t* name) {
    return {name, false, REG_NONE, {}};
}

RegistryValue readValue(HKEY key, const wchar_t* name) {
    RegistryValue value = noValue(name);
    DWORD length = 0;
    LSTATUS status = RegQueryValueExW(key, name, nullptr, &value.type, nullptr, &length);
    if (status == ERROR_SUCCESS) {
        value.data.resize(length);
        status = RegQueryValueExW(key, name, nullptr, &value.type, value.data.data(), &length);
    }
    if (status == ERROR_FILE_NOT_FOUND) {
        return noValue(name);
    }
    requireRegistry(status, "could not read the present registration");
    value.exists = true;
    value.data.resize(length);
    return value;
}

LSTATUS writeValue(HKEY key, const RegistryValue& value) {
    if (value.exists) {
        return RegSetValueExW(key, value.name, 0, value.type, value.data.data(),
                              static_cast<DWORD>(value.data.size()));
    }
    const LSTATUS status = RegDeleteValueW(key, value.name);
    return status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status;
}

/// Writes all the values, or leaves the key as it was and throws.
void writeAllOrNothing(HKEY key, const std::vector<RegistryValue>& values) {
    std::vector<RegistryValue> before;
    before.reserve(values.size());
    for (const RegistryValue& value : values) {
        before.push_back(readValue(key, value.name));
    }
    for (const RegistryValue& value : values) {
        const LSTATUS status = writeValue(key, value);
        if (status != ERROR_SUCCESS) {
            for (const RegistryValue& old : before) {
                writeValue(key, old);
            }
            failWithCode(static_cast<DWORD>(status), "could not write the registration");
        }
    }
}

RegistryValue textValue(const wchar_t* name, const std::wstring& text) {
    const auto* bytes = reinterpret_cast<const BYTE*>(text.c_str());
    return {name, true, REG_SZ, {bytes, bytes + (text.size() + 1) * sizeof(wchar_t)}};
}

RegistryValue numberValue(const wchar_t* name, DWORD number) {
    const auto* bytes = reinterpret_cast<const BYTE*>(&number);
    return {name, true, REG_DWORD, {bytes, bytes + sizeof number}};
}

/// A key without values and sub-keys is removed; anything that somebody else put there stays.
void removeKeyIfEmpty(const std::wstring& path) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &opened) != ERROR_SUCCESS) {
        return;
    }
    const UniqueRegistryKey key(opened);
    DWORD subKeys = 0;
    DWORD values = 0;
    const LSTATUS status = RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr,
                                            &values, nullptr, nullptr, nullptr, nullptr);
    if (status == ERROR_SUCCESS && subKeys == 0 && values == 0) {
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, path.c_str());
    }
}

} // namespace

int registerProvider(const ProviderChoice& provider, Output& out) {
    const std::filesystem::path dll = providerDll(provider);
    if (constexpr unsigned kOwnBits = 8 * sizeof(void*); fileBits(dll) != kOwnBits) {
        throw CommandError(inQuotes(dll.native()) + " is no " + std::to_string(kOwnBits) +
                           "-bit DLL; --dll names the provider's DLL");
    }
    const std::wstring path = kCryptoApiProviders + provider.name;
    HKEY opened = nullptr;
    requireRegistry(RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE,
                                    KEY_READ | KEY_WRITE, nullptr, &opened, nullptr),
                    "could not create the provider's registry key");
    const UniqueRegistryKey key(opened);
    try {
        // Present systems do not look into the signature, but CryptoAPI wants the value to be there.
        writeAllOrNothing(key.get(),
                          {textValue(kValueNames[0], dll.native()),
                           numberValue(kValueNames[1], PROV_RSA_FULL),
                           {kValueNames[2], true, REG_BINARY, std::vector<BYTE>(kSignatureBytes)}});
    } catch (const CommandError&) {
        removeKeyIfEmpty(path);
        throw;
    }
    out.result("Registered " + inQuotes(provider.name) + ": " + toUtf8(dll.native()),
               {{"provider", toUtf8(provider.name)}, {"file", toUtf8(dll.native())}});
    return kExitOk;
}

int unregisterProvider(const ProviderChoice& provider, Output& out) {
    const std::wstring path = kCryptoApiProviders + provider.name;
    HKEY opened = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ | KEY_WRITE, &opened);
    if (status == ERROR_FILE_NOT_FOUND) {
        out.result(inQuotes(provider.name) + " is not registered.", {{"provider", toUtf8(provider.name)}});
        return kExitOk;
    }
    requireRegistry(status, "could not open the provider's registry key");
    {
        const UniqueRegistryKey key(opened);
        writeAllOrNothing(key.get(),
                          {noValue(kValueNames[0]), noValue(kValueNames[1]), noValue(kValueNames[2])});
    }
    removeKeyIfEmpty(path);
    out.result("Unregistered " + inQuotes(provider.name) + ".", {{"provider", toUtf8(provider.name)}});
    return kExitOk;
}

} // namespace veltra
