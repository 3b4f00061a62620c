#include "csp/container_map.h"

#include "foundation/text.h"
#include "foundation/win_handle.h"
#include "token/shared_state.h"

#include <algorithm>
#include <array>
#include <map>
#include <string_view>

namespace veltra {

namespace {

constexpr const char* kContainersKey = R"(SOFTWARE\Veltra\CSP\Containers)";
constexpr std::size_t kMaxDataLength = 1024;

using ContainerCache = std::map<std::string, std::vector<std::string>>;

// Call with the shared state mutex held. Never destroyed, like the mutex.
ContainerCache& cache() {
    static auto* const instance = new ContainerCache;
    return *instance;
}

// Call with the shared state mutex held.
std::vector<std::string> cachedKeyNames(const std::string& containerName) {
    const auto found = cache().find(containerName);
    return found == cache().end() ? std::vector<std::string>() : found->second;
}

std::vector<std::string> splitNames(std::string_view text) {
    std::vector<std::string> names;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t comma = std::min(text.find(',', start), text.size());
        if (comma > start) names.emplace_back(text.substr(start, comma - start));
        start = comma + 1;
    }
    return names;
}

std::string joinNames(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        if (!text.empty()) text += ',';
        text += name;
    }
    return text;
}

std::vector<std::string> readRegistry(const std::string& containerName) {
    HKEY opened = nullptr;
    if (RegOpenKeyExA(HKEY_CURRENT_USER, kContainersKey, 0, KEY_READ, &opened) != ERROR_SUCCESS) return {};
    const UniqueRegistryKey key(opened);
    std::array<char, kMaxDataLength> data{};
    DWORD type = REG_NONE;
    auto length = static_cast<DWORD>(data.size());
    if (RegQueryValueExA(key.get(), containerName.c_str(), nullptr, &type,
                         reinterpret_cast<BYTE*>(data.data()), &length) != ERROR_SUCCESS ||
        type != REG_SZ) {
        return {};
    }
    return splitNames(boundedText(data.data(), std::min<std::size_t>(length, data.size())));
}

void writeRegistry(const std::string& containerName, const std::string& data) {
    HKEY opened = nullptr;
    if (RegCreateKeyExA(HKEY_CURRENT_USER, kContainersKey, 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE,
                        nullptr, &opened, nullptr) != ERROR_SUCCESS) {
        return;
    }
    const UniqueRegistryKey key(opened);
    RegSetValueExA(key.get(), containerName.c_str(), 0, REG_SZ, reinterpret_cast<const BYTE*>(data.c_str()),
                   static_cast<DWORD>(data.size() + 1));
}

void deleteFromRegistry(const std::string& containerName) {
    HKEY opened = nullptr;
    if (RegOpenKeyExA(HKEY_CURRENT_USER, kContainersKey, 0, KEY_SET_VALUE, &opened) != ERROR_SUCCESS) return;
    const UniqueRegistryKey key(opened);
    RegDeleteValueA(key.get(), containerName.c_str());
}

} // namespace

MappedContainer lookUpContainer(const std::string& containerName) {
    const std::lock_guard lock(sharedStateMutex());
    MappedContainer mapped{.keyNames = cachedKeyNames(containerName), .fromRegistry = false};
    if (!mapped.keyNames.empty()) return mapped;
    mapped.keyNames = readRegistry(containerName);
    mapped.fromRegistry = !mapped.keyNames.empty();
    if (mapped.fromRegistry) cache()[containerName] = mapped.keyNames;
    return mapped;
}

std::vector<std::string> mappedKeyNames(const std::string& containerName) {
    const std::lock_guard lock(sharedStateMutex());
    std::vector<std::string> names = cachedKeyNames(containerName);
    return names.empty() ? readRegistry(containerName) : names;
}

bool recordKey(const std::string& containerName, const std::string& keyName) {
    const std::lock_guard lock(sharedStateMutex());
    std::vector<std::string>& names = cache()[containerName];
    std::vector<std::string> added = readRegistry(containerName);
    added.push_back(keyName);
    for (std::string& name : added) {
        if (std::ranges::find(names, name) == names.end()) names.push_back(std::move(name));
    }
    const std::string data = joinNames(names);
    if (data.size() >= kMaxDataLength) return false;
    writeRegistry(containerName, data);
    return true;
}

void forgetContainer(const std::string& containerName) {
    const std::lock_guard lock(sharedStateMutex());
    cache().erase(containerName);
    deleteFromRegistry(containerName);
}

} // namespace veltra
