#include "container_map.h"

#include "error_text.h"

#include "foundation/win_handle.h"

#include <algorithm>
#include <optional>
#include <string_view>

namespace veltra {
namespace {

constexpr const wchar_t* kContainerMapKey = L"SOFTWARE\\Veltra\\CSP\\Containers";
constexpr std::size_t kValueNameCapacity = 16384;
constexpr std::size_t kDataCapacity = 1024;

/// Splits at commas; empty parts are dropped.
std::vector<std::wstring> splitKeyIds(std::wstring_view text) {
    std::vector<std::wstring> keyIds;
    while (!text.empty()) {
        const std::wstring_view keyId = text.substr(0, text.find(L','));
        if (!keyId.empty()) {
            keyIds.emplace_back(keyId);
        }
        text.remove_prefix(std::min(text.size(), keyId.size() + 1));
    }
    return keyIds;
}

bool isKeyId(const std::wstring& text) {
    constexpr std::size_t kDigits = 32;
    return text.size() == kDigits && text.find_first_not_of(L"0123456789ABCDEF") == std::wstring::npos;
}

/// The `index`th value as a container; nothing past the last.
std::optional<Container> readEntry(HKEY key, DWORD index) {
    std::wstring name(kValueNameCapacity, L'\0');
    std::vector<wchar_t> data(kDataCapacity);
    auto nameLength = static_cast<DWORD>(name.size());
    auto dataBytes = static_cast<DWORD>(data.size() * sizeof(wchar_t));
    DWORD type = REG_NONE;
    LSTATUS status = RegEnumValueW(key, index, name.data(), &nameLength, nullptr, &type,
                                   reinterpret_cast<BYTE*>(data.data()), &dataBytes);
    const bool isReadable = status == ERROR_SUCCESS && type == REG_SZ;
    if (status == ERROR_MORE_DATA) {
        nameLength = static_cast<DWORD>(name.size());
        status = RegEnumValueW(key, index, name.data(), &nameLength, nullptr, nullptr, nullptr, nullptr);
    }
    if (status != ERROR_SUCCESS) {
        return std::nullopt;
    }
    name.resize(nameLength);
    if (!isReadable) {
        return Container{std::move(name), {}, true};
    }
    // Registry text need not end in a NUL; what follows one does not belong to it.
    const std::wstring_view text(data.data(), dataBytes / sizeof(wchar_t));
    Container container{std::move(name), splitKeyIds(text.substr(0, text.find(L'\0')))};
    container.isDamaged = container.keyIds.empty() || !std::ranges::all_of(container.keyIds, isKeyId);
    return container;
}

} // namespace

std::vector<Container> readContainerMap() {
    std::vector<Container> containers = readWholeContainerMap();
    std::erase_if(containers, [](const Container& container) { return container.keyIds.empty(); });
    return containers;
}

std::vector<Container> readWholeContainerMap() {
    HKEY opened = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_CURRENT_USER, kContainerMapKey, 0, KEY_READ, &opened);
    if (status == ERROR_FILE_NOT_FOUND) {
        return {};
    }
    if (status != ERROR_SUCCESS) {
        failWithCode(static_cast<DWORD>(status), "could not read the container map in the registry");
    }
    const UniqueRegistryKey key(opened);
    std::vector<Container> containers;
    while (std::optional<Container> container = readEntry(key.get(), static_cast<DWORD>(containers.size()))) {
        containers.push_back(std::move(*container));
    }
    std::ranges::sort(containers, {}, &Container::name);
    return containers;
}

Container findContainer(const std::wstring& name) {
    for (Container& container : readContainerMap()) {
        // Names of registry values do not distinguish upper from lower case.
        if (CompareStringOrdinal(container.name.c_str(), -1, name.c_str(), -1, TRUE) == CSTR_EQUAL) {
            return std::move(container);
        }
    }
    return {name, {}, false};
}

} // namespace veltra
