// veltra list-keys, generate-key, delete-key: containers and the keys behind them.

#include "commands.h"

#include "container_map.h"
#include "error_text.h"
#include "terminal.h"
#include "token_key.h"
#include "wide_text.h"

#include <algorithm>
#include <optional>

namespace veltra {
namespace {

constexpr std::size_t kLongestContainerName = 16383; // the registry's limit for a value's name

std::optional<KeyDescription> describeKey(const TokenInterface& tokens, const std::wstring& keyId) {
    const auto key = tokens.findKey(keyId);
    return key ? std::optional(key->describe()) : std::nullopt;
}

/// A row of the list; `key` is nothing when no connected token has it.
void addKeyRow(Table& table, const Json& container, const std::optional<KeyDescription>& key,
               const std::string& keyId) {
    if (key) {
        table.add({container, key->algorithm, key->bits, key->usage, keyId, nullptr});
    } else {
        table.add({container, nullptr, nullptr, nullptr, keyId, "not on a connected token"});
    }
}

/// The provider deletes on the first token alone, and would forget a container whose keys are on others.
void requireNoOtherToken(const TokenInterface& tokens, const Container& container) {
    const std::vector<std::string> first = tokens.keyIds();
    for (const std::wstring& keyId : container.keyIds) {
        const std::string name = toUtf8(keyId);
        if (std::ranges::find(first, name) == first.end() && tokens.findKey(keyId)) {
            throw CommandError("the key " + name + " of the container " + inQuotes(container.name) +
                               " is on another token than the first, where CryptoAPI deletes nothing; unplug "
                               "the first token");
        }
    }
}

} // namespace

void reportGeneratedKey(const KeyDescription& key, const std::string& keyId, const std::string& container,
                        Output& out) {
    out.result("Generated " + key.algorithm + " " + std::to_string(key.bits) + " key " + keyId +
                   (container.empty() ? "" : " in container '" + container + "'") + ".",
               {{"key", keyId},
                {"container", container.empty() ? Json() : Json(container)},
                {"algorithm", key.algorithm},
                {"bits", key.bits}});
}

int listKeys(const ProviderChoice& provider, Output& out) {
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
    Table table = {{"CONTAINER", "container"},
                   {"ALGORITHM", "algorithm"},
                   {"BITS", "bits"},
                   {"USAGE", "usage"},
                   {"KEY", "key"},
                   {"NOTE", "note"}};
    for (const Container& container : containers) {
        for (const std::wstring& keyId : container.keyIds) {
            addKeyRow(table, toUtf8(container.name), describeKey(*tokens, keyId), toUtf8(keyId));
        }
    }
    for (const std::string& keyId : others) {
        if (const std::optional<KeyDescription> key = describeKey(*tokens, toWide(keyId))) {
            addKeyRow(table, nullptr, key, keyId);
        }
    }
    out.table("keys", table, {}, kNoKeys);
    return kExitOk;
}

int generateKey(const ProviderChoice& provider, const KeygenOptions& options, Output& out) {
    if (options.container.size() > kLongestContainerName) {
        throw CommandError("the container's name is longer than " + std::to_string(kLongestContainerName) +
                               " characters, with which it could not be recorded",
                           kExitUsage);
    }
    // The provider would add the key to the container, where nothing could reach it: opening a container
    // always gives its first key.
    if (const Container existing = findContainer(options.container); !existing.keyIds.empty()) {
        throw CommandError("the container " + inQuotes(existing.name) + " already has the key " +
                           toUtf8(existing.keyIds.front()) +
                           "; choose another name or delete it with 'veltra delete-key'");
    }
    const CryptoProvider context = CryptoProvider::open(provider, options.container, CRYPT_NEWKEYSET);
    context.givePin(provider);
    const CryptoKey key = [&] {
        const Progress progress("Generating the key on the token");
        return context.generateKey(options.keySpec, options.bits);
    }();
    const KeyDescription description = CryptoProvider::describe(key);
    const Container container = findContainer(options.container);
    if (container.keyIds.empty()) {
        throw CommandError("the key was generated, but the container " + inQuotes(options.container) +
                           " could not be written to the registry");
    }
    reportGeneratedKey(description, toUtf8(container.keyIds.front()), toUtf8(options.container), out);
    return kExitOk;
}

int deleteContainer(const ProviderChoice& provider, const DeleteKeyOptions& options, Output& out) {
    const Container container = findContainer(options.container);
    if (container.keyIds.empty()) {
        throw CommandError("there is no container " + inQuotes(options.container) +
                           "; 'veltra list-keys' lists them");
    }
    if (!options.confirmed) {
        throw CommandError("this deletes " + std::to_string(container.keyIds.size()) +
                               " key(s) from the token for good; repeat the command with --yes",
                           kExitUsage);
    }
    const auto tokens = TokenInterface::open(provider);
    requireNoOtherToken(*tokens, container);
    {
        // A PIN that the provider has accepted serves the whole process.
        const CryptoProvider accepted = CryptoProvider::open(provider, container.name);
        accepted.givePin(provider);
        CryptoProvider::deleteContainer(provider, container.name);
    }

    // The provider succeeds when the container is gone, even if the token kept a key.
    for (const std::wstring& keyId : container.keyIds) {
        if (tokens->findKey(keyId)) {
            throw CommandError("the container " + inQuotes(container.name) + " is deleted, but its key " +
                               toUtf8(keyId) + " is still on the token");
        }
    }
    out.result("Deleted container " + inQuotes(container.name) + " and its key(s).",
               {{"container", toUtf8(container.name)}});
    return kExitOk;
}

} // namespace veltra
