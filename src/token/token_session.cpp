#include "token/token_session.h"

#include "foundation/utils.h"
#include "token/device_state.h"

namespace veltra {

std::vector<std::string> connectedSerials(void* libraryContext) {
    return deviceLibrary().veltra_getConnectedDeviceList(false, libraryContext);
}

void initialiseLibrary() {
    deviceLibrary().veltra_init(0, nullptr, 2);
}

namespace {

// An exception counts as a refusal of this one token.
int initialiseToken(const std::string& serial, void* libraryContext) {
    try {
        initialiseLibrary();
        return deviceLibrary().veltra_initDevice(serial.c_str(), false, libraryContext);
    } catch (...) {
        return kDeviceThrew;
    }
}

} // namespace

void initialiseTokens(const std::vector<std::string>& serials, void* libraryContext,
                      std::string_view logPrefix) {
    for (const std::string& serial : serials) {
        if (isInitialised(serial)) continue;
        const int code = initialiseToken(serial, libraryContext);
        if (code == kDeviceOk) {
            markInitialised(serial);
        } else {
            Utils::error(logPrefix, "Init device failed for ", serial, " : ", code);
        }
    }
}

TokenInfo readTokenInfo(const std::string& serial, void* libraryContext) {
    try {
        return deviceLibrary().veltra_getTokenInfo(serial.c_str(), libraryContext);
    } catch (...) {
        return {};
    }
}

bool hasLoggedInSession(const TokenInfo& info) {
    return !info.session.empty() && info.words[3] == 1 && info.words[4] == 1;
}

} // namespace veltra
