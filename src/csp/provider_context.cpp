#include "csp/provider_context.h"

#include "csp/container_deletion.h"
#include "csp/container_map.h"
#include "csp/csp_entry_points.h"
#include "csp/entry_guard.h"
#include "token/device_monitor.h"
#include "token/key_pairs.h"
#include "token/token_session.h"

#include <algorithm>

namespace veltra {

namespace {

constexpr DWORD kVerifyContextBits = CRYPT_VERIFYCONTEXT; // any of the top four bits counts
constexpr std::uint32_t kFixedWord = 4096;

// The token that holds the key which the container name names, otherwise the first one: key generation will
// create the key of an unknown container there. Empty when no token is connected.
std::string serialForContainer(const std::string& containerName) {
    const std::vector<std::string> serials = connectedSerials(nullptr);
    if (serials.empty()) return {};
    if (containerName.empty()) return serials.front();
    const auto isNamed = [&](const VeltraKeyPair& pair) {
        return hasKeyNameIgnoringCase(pair.keyId, containerName);
    };
    return tokenWithKeyPair(serials, nullptr, isNamed, "").value_or(serials.front());
}

void readKeyList(CSP_CONTEXT& context) {
    context.keyList = keyNamesOf(context.serial, context.libraryContext);
    if (context.keyList.empty()) Utils::debug("Acquire Context :: Key List is empty");
}

void resolveKeyName(CSP_CONTEXT& context) {
    const MappedContainer mapped = lookUpContainer(context.containerName);
    if (mapped.keyNames.empty()) {
        context.keyName = context.containerName;
        return;
    }
    context.keyName = mapped.keyNames.front();
    const char* source = mapped.fromRegistry ? "container (registry) " : "container ";
    Utils::debug("CPAcquireContext - resolved ", source, context.containerName, " -> ", context.keyName);
}

// Binds the context to a token and a key.
Outcome openToken(CSP_CONTEXT& context, const char* container) {
    initialiseLibrary();
    startDeviceMonitor();
    const std::vector<std::string> serials = connectedSerials(context.libraryContext);
    if (serials.empty()) {
        return refuse(NTE_TOKEN_KEYSET_STORAGE_FULL,
                      "CPAcquireContext: valid token not connected, return FALSE");
    }
    initialiseTokens(serials, context.libraryContext, "");
    if (container != nullptr) {
        context.containerName = container;
        Utils::debug("CPAcquireContext - Container name : ", context.containerName);
    } else {
        Utils::debug("CPAcquireContext - Container name not provided");
    }
    context.persistedContainer = !context.containerName.empty();
    context.serial = serialForContainer(context.containerName);
    if (context.serial.empty()) {
        return refuse(NTE_TOKEN_KEYSET_STORAGE_FULL,
                      "CPAcquireContext: no initialized device found, return FALSE");
    }
    readKeyList(context);
    resolveKeyName(context);
    context.fixedWord = kFixedWord;
    return success();
}

Outcome openContext(HCRYPTPROV* phProv, const char* container, DWORD flags) {
    std::unique_ptr<CSP_CONTEXT> context(new (std::nothrow) CSP_CONTEXT);
    if (!context) {
        return refuse(NTE_NO_MEMORY, "CPAcquireContext: failed to allocate CSP context, return FALSE");
    }
    context->silent = (flags & CRYPT_SILENT) != 0;
    Utils::debug("CPAcquireContext - isSilent : ", context->silent);
    const bool verifyOnly = (flags & kVerifyContextBits) != 0;
    if (!verifyOnly) {
        if (const Outcome opened = openToken(*context, container); !opened) return opened;
    }
    context->initialised = 1;
    std::string line =
        verifyOnly ? "CPAcquireContext: CRYPT_VERIFYCONTEXT, no token required, return TRUE"
                   : concat("CPAcquireContext: container=", context->keyName, " serial=", context->serial,
                            " silent=", context->silent, ", return TRUE");
    *phProv = LiveRecords<CSP_CONTEXT>::add(std::move(context));
    Utils::debug(std::move(line));
    return success();
}

} // namespace

void KeySlot::fill(std::span<const unsigned char, kKeyIdLength> id) {
    std::ranges::copy(id, keyId.begin());
    keyIdLength = kKeyIdLength;
}

KeySlot* CSP_CONTEXT::slotOf(DWORD specification) {
    if (specification == AT_SIGNATURE) return &signatureKey;
    if (specification == AT_KEYEXCHANGE) return &exchangeKey;
    return nullptr;
}

bool CSP_CONTEXT::containerMatches(const VeltraKeyPair& pair) const {
    return keyName.empty() || hasKeyName(pair.keyId, keyName);
}

std::shared_ptr<CSP_CONTEXT> usableContext(HCRYPTPROV handle) {
    std::shared_ptr<CSP_CONTEXT> context = liveContext(handle);
    return context != nullptr && context->initialised != 0 ? context : nullptr;
}

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPAcquireContext(HCRYPTPROV* phProv, const char* szContainer, DWORD dwFlags,
                             VTableProvStruc* pVTable) {
    return cspEntry("CPAcquireContext", [&] {
        if (phProv == nullptr || pVTable == nullptr) {
            return refuse(ERROR_INVALID_PARAMETER, concat("CPAcquireContext: invalid parameter - phProv=",
                                                          phProv, " pVTable=", pVTable));
        }
        Utils::debug("CPAcquireContext - dwFlags : ", dwFlags);
        if ((dwFlags & CRYPT_DELETEKEYSET) != 0) {
            *phProv = 0;
            return deleteContainer(szContainer, (dwFlags & CRYPT_SILENT) != 0);
        }
        return openContext(phProv, szContainer, dwFlags);
    });
}

BOOL WINAPI CPReleaseContext(HCRYPTPROV hProv, DWORD dwFlags) {
    return cspEntry("CPReleaseContext", [&] {
        if (dwFlags != 0) {
            return refuse(NTE_BAD_FLAGS, concat("CPReleaseContext: invalid dwFlags=0x", toHex8(dwFlags)));
        }
        if (usableContext(hProv) == nullptr || LiveRecords<CSP_CONTEXT>::take(hProv) == nullptr) {
            return refuse(NTE_BAD_UID, "CPReleaseContext: invalid or uninitialized context");
        }
        return success();
    });
}
