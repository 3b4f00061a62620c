#include "token/crypto_policy.h"

#include "foundation/win_handle.h"
#include "token/token_session.h"

namespace veltra {

bool isFips1402Token(const std::string& serial, void* libraryContext) {
    const std::string marker = readTokenInfo(serial, libraryContext).fipsMarker;
    return marker.size() >= 3 && marker[2] == '1';
}

void raisePolicyEvent(const char* name) {
    const UniqueHandle event(OpenEventA(EVENT_MODIFY_STATE, FALSE, name));
    if (event) SetEvent(event.get());
}

} // namespace veltra
