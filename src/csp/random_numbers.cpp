// CPGenRandom.

#include "token/random_numbers.h"

#include "csp/csp_entry_points.h"
#include "csp/entry_guard.h"
#include "csp/provider_context.h"
#include "foundation/device_library_contract.h"

using namespace veltra;

BOOL WINAPI CPGenRandom(HCRYPTPROV hProv, DWORD dwLen, BYTE* pbBuffer) {
    return cspEntry("CPGenRandom", [&] {
        const auto context = usableContext(hProv);
        if (context == nullptr) return refuse(NTE_BAD_UID, "CPGenRandom: context is null or not initialized");
        if (pbBuffer == nullptr || dwLen == 0) {
            return refuse(ERROR_INVALID_PARAMETER,
                          concat("CPGenRandom: invalid buffer or length, cbLen=", dwLen));
        }
        const bool hasToken = !context->serial.empty();
        if (!hasToken) Utils::debug("CPGenRandom: no token, using software RNG");
        const bool software = !hasToken || !usesHardwareRandom();
        const int code = fillRandom(context->serial, pbBuffer, dwLen, software, context->libraryContext);
        if (code == kDeviceOk) return success();
        const char* reason =
            hasToken ? "Random number generation failed: " : "CPGenRandom: software RNG failed: ";
        return refuse(NTE_PROVIDER_DLL_FAIL, concat(reason, code));
    });
}
