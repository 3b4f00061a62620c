#include "csp/container_deletion.h"

#include "csp/container_map.h"
#include "csp/csp_login.h"
#include "token/device_monitor.h"
#include "token/device_state.h"
#include "token/key_pairs.h"
#include "token/token_session.h"

#include <algorithm>

namespace veltra {

namespace {

// The outcome of the initialisation is not looked at, and the token counts as initialised all the same: one
// that refused refuses the deletion as well.
void initialiseFirstToken(const std::string& serial) {
    if (isInitialised(serial)) return;
    initialiseLibrary();
    deviceLibrary().veltra_initDevice(serial.c_str(), false, nullptr);
    markInitialised(serial);
}

Outcome verifyUser(const std::string& serial, bool silent) {
    if (hasUsablePin(serial)) return success();
    if (silent) {
        return refuse(NTE_SILENT_CONTEXT,
                      "CPAcquireContext: CRYPT_DELETEKEYSET CRYPT_SILENT set, cannot prompt for PIN");
    }
    CSP_CONTEXT context;
    context.serial = serial;
    if (!ensurePasswordValidated(context)) {
        return refuse(NTE_FAIL, "CPAcquireContext: CRYPT_DELETEKEYSET PIN validation failed");
    }
    return success();
}

void deleteKeys(const std::string& serial, const std::vector<std::string>& names) {
    const Pin pin = getPin(serial);
    const std::vector<VeltraKeyPair> pairs = keyPairsOf(serial, nullptr);
    for (const std::string& name : names) {
        const auto pair =
            std::ranges::find_if(pairs, [&](const VeltraKeyPair& it) { return hasKeyName(it.keyId, name); });
        if (pair == pairs.end()) {
            Utils::debug("CPAcquireContext: CRYPT_DELETEKEYSET key ", name, " not found on token, skip");
            continue;
        }
        Utils::debug("CPAcquireContext: CRYPT_DELETEKEYSET deleting key ", name);
        const int code = deviceLibrary().veltra_deleteKeyPair(serial.c_str(), pair->keyId, pin.c_str(),
                                                              pair->flag != 0, nullptr);
        if (code != kDeviceOk) {
            Utils::error("CPAcquireContext: CRYPT_DELETEKEYSET deleteKeyPair failed for ", name,
                         " ret=", code);
        }
    }
}

} // namespace

Outcome deleteContainer(const char* container, bool silent) {
    Utils::debug("CPAcquireContext: CRYPT_DELETEKEYSET container=",
                 container != nullptr ? container : "(null)");
    const std::string name = container != nullptr ? container : "";
    if (name.empty()) {
        Utils::debug("CPAcquireContext: CRYPT_DELETEKEYSET no container name, return TRUE");
        return success();
    }
    const std::vector<std::string> keyNames = mappedKeyNames(name);
    if (keyNames.empty()) {
        Utils::debug("CPAcquireContext: CRYPT_DELETEKEYSET no mapped keys for container, return TRUE");
        return success();
    }
    initialiseLibrary();
    startDeviceMonitor();
    const std::vector<std::string> serials = connectedSerials(nullptr);
    if (serials.empty()) {
        return refuse(NTE_TOKEN_KEYSET_STORAGE_FULL,
                      "CPAcquireContext: CRYPT_DELETEKEYSET no token connected");
    }
    const std::string& serial = serials.front();
    initialiseFirstToken(serial);
    if (const Outcome verified = verifyUser(serial, silent); !verified) return verified;
    deleteKeys(serial, keyNames);
    forgetContainer(name);
    Utils::debug("CPAcquireContext: CRYPT_DELETEKEYSET done, return TRUE");
    return success();
}

} // namespace veltra
