// veltra keys, keygen, delete-container: containers and the keys behind them.

#include "commands.h"

#include "container_map.h"
#include "error_text.h"
#include "token_key.h"
#include "wide_text.h"

#include <iomanip>
#include <iostream>
#include <optional>

namespace veltra {
namespace {

std::optional<KeyDescription> describeKey(const TokenInterface& tokens, const std::wstring& keyId) {
    const auto key = tokens.findKey(keyId);
    return key ? std::optional(key->describe()) : std::nullopt;
}

void printKeyRow(std::string_view container, std::string_view algorithm, std::string_view bits,
                 std::string_view usage, std::string_view keyId) {
    std::cout << std::left << std::setw(24) << container << ' ' << std::setw(9) << algorithm << ' '
              << std::setw(5) << bits << ' ' << std::setw(8) << usage << ' ' << keyId << '\n';
}

} // namespace

int listKeys(const ProviderChoice& provider) {
    const std::vector<Container> containers = readContainerMap();
    // The keys that no container of this user stands for are reached by their identifiers, which the provider
    // tells for the first token only.
    const auto tokens = TokenInterface::open(provider);
    std::vector<std::string> others = tokens->keyIds();
    for (const Container& container : containers) {
        for (const std::wstring& keyId : container.keyIds) {
            std::erase(others, toUtf8(keyId));
        }
    }
    if (containers.empty() && others.empty()) {
        std::cout << "No containers yet; 'veltra keygen' makes one.\n";
        return kExitOk;
    }
    printKeyRow("CONTAINER", "ALGORITHM", "BITS", "USAGE", "KEY");
    for (const Container& container : containers) {
        for (const std::wstring& keyId : container.keyIds) {
            const std::optional<KeyDescription> key = describeKey(*tokens, keyId);
            printKeyRow(toUtf8(container.name), key ? key->algorithm : "-",
                        key ? std::to_string(key->bits) : "-", key ? key->usage : "-",
                        toUtf8(keyId) + (key ? "" : " (not on a connected token)"));
        }
    }
    for (const std::string& keyId : others) {
        if (const std::optional<KeyDescription> key = describeKey(*tokens, toWide(keyId))) {
            printKeyRow("-", key->algorithm, std::to_string(key->bits), key->usage, keyId);
        }
    }
    return kExitOk;
}

int generateKey(const ProviderChoice& provider, const KeygenOptions& options) {
    // The provider would add the key to the container, where nothing could reach it: opening a container
    // always gives its first key.
    if (const Container existing = findContainer(options.container); !existing.keyIds.empty()) {
        throw CommandError("the container " + inQuotes(existing.name) + " already has the key " +
                           toUtf8(existing.keyIds.front()) +
                           "; choose another name or delete it with 'veltra delete-container'");
    }
    const CryptoProvider context = CryptoProvider::openForUse(provider, options.container, CRYPT_NEWKEYSET);
    const CryptoKey key = context.generateKey(options.keySpec, options.bits);
    const KeyDescription description = CryptoProvider::describe(key);
    const Container container = findContainer(options.container);
    if (container.keyIds.empty()) {
        throw CommandError("the key was generated, but the container " + inQuotes(options.container) +
                           " could not be written to the registry");
    }
    std::cout << "Generated " << description.algorithm << ' ' << description.bits << " key "
              << toUtf8(container.keyIds.front()) << " in container " << inQuotes(options.container) << ".\n";
    return kExitOk;
}

int deleteContainer(const ProviderChoice& provider, const DeleteContainerOptions& options) {
    const Container container = findContainer(options.container);
    if (container.keyIds.empty()) {
        throw CommandError("there is no container " + inQuotes(options.container) +
                           "; 'veltra keys' lists them");
    }
    if (!options.confirmed) {
        throw CommandError("this deletes " + std::to_string(container.keyIds.size()) +
                               " key(s) from the token for good; repeat the command with --yes",
                           kExitUsage);
    }
    {
        // A PIN that the provider has accepted serves the whole process.
        const CryptoProvider accepted = CryptoProvider::openForUse(provider, container.name);
        CryptoProvider::deleteContainer(provider, container.name);
    }

    const auto tokens = TokenInterface::open(provider);
    // The provider succeeds when the container is gone, even if the token kept a key.
    for (const std::wstring& keyId : container.keyIds) {
        if (tokens->findKey(keyId)) {
            throw CommandError("the container " + inQuotes(container.name) + " is deleted, but its key " +
                               toUtf8(keyId) + " is still on the token");
        }
    }
    std::cout << "Deleted container " << inQuotes(container.name) << " and its key(s).\n";
    return kExitOk;
}

} // namespace veltra
