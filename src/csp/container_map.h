#pragma once

#include <string>
#include <vector>

namespace veltra {

// The container map: which token keys, by key name, belong to a CryptoAPI container name. A process-wide
// cache (exact comparison of names, guarded by the shared state mutex) over the registry, where it persists
// for the user under HKEY_CURRENT_USER "SOFTWARE\Veltra\CSP\Containers": one REG_SZ value per container,
// key names joined by ",". Data of any other type, over 1024 bytes, or missing reads as no keys; nothing in
// it is trusted to be terminated. Every function may be called from any thread.

struct MappedContainer {
    std::vector<std::string> keyNames; ///< in the map's order; empty when the container is not mapped
    bool fromRegistry = false;         ///< read from the registry by this call
};

/// Looks the container up in the cache, then in the registry; a registry answer goes into the cache.
MappedContainer lookUpContainer(const std::string& containerName);

/// The same without putting anything into the cache.
std::vector<std::string> mappedKeyNames(const std::string& containerName);

/// Adds a key to a container, unless it is there already, in the cache and in the registry; keys that another
/// process recorded meanwhile stay. A registry failure is ignored: the key itself is safe on the token. False
/// when the value would become longer than what is ever read back (31 keys fit): then the registry keeps the
/// keys that it has, and only the cache gets the new one.
bool recordKey(const std::string& containerName, const std::string& keyName);

/// Removes a container from the cache and from the registry.
void forgetContainer(const std::string& containerName);

} // namespace veltra
