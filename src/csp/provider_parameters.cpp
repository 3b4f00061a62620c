// CPGetProvParam and CPSetProvParam.

#include "certs/certificate_chain.h"
#include "csp/csp_entry_points.h"
#include "csp/entry_guard.h"
#include "csp/provider_context.h"
#include "csp/provider_enumeration.h"
#include "foundation/device_library_contract.h"
#include "foundation/provider_name.h"
#include "token/certificates.h"
#include "token/key_pairs.h"
#include "token/random_numbers.h"
#include "token/user_verification.h"

#include <algorithm>
#include <cstring>

namespace veltra {

namespace {

constexpr DWORD kCertificateChain = 9; // PP_CERTCHAIN, which not every platform header has
constexpr DWORD kImplementationType = CRYPT_IMPL_HARDWARE | 8; // 8: CRYPT_IMPL_REMOVABLE, missing likewise
constexpr DWORD kVersion = 0x100;                              // 1.0
constexpr DWORD kKeySizeIncrement = 1024;

/// How a 32-bit answer treats a buffer under four bytes; the cases differ on purpose.
enum class SmallBuffer {
    Refused,            ///< ERROR_MORE_DATA, with the size
    RefusedWithoutSize, ///< ERROR_MORE_DATA, the size left alone
    Accepted,           ///< success with ERROR_MORE_DATA, and so is a size query
};

Outcome answerDword(DWORD value, SmallBuffer rule, BYTE* data, DWORD* dataLength) {
    const bool tooSmall = data != nullptr && *dataLength < sizeof(value);
    if (!tooSmall || rule != SmallBuffer::RefusedWithoutSize) *dataLength = sizeof(value);
    if (rule == SmallBuffer::Accepted && (data == nullptr || tooSmall)) {
        return successWithLastError(ERROR_MORE_DATA);
    }
    if (tooSmall) return refuse(ERROR_MORE_DATA, "CPGetProvParam: output buffer too small");
    if (data != nullptr) std::memcpy(data, &value, sizeof(value));
    return success();
}

// A text with its terminating zero: asked for with null, refused below its size, copied.
Outcome answerText(const std::string& text, BYTE* data, DWORD* dataLength) {
    const auto size = static_cast<DWORD>(text.size() + 1);
    const DWORD available = *dataLength;
    *dataLength = size;
    if (data == nullptr) return success();
    if (available < size) return refuse(ERROR_MORE_DATA, "CPGetProvParam: output buffer too small");
    std::memcpy(data, text.c_str(), size);
    return success();
}

Outcome answerContainer(CSP_CONTEXT& context, BYTE* data, DWORD* dataLength) {
    const Outcome answered = answerText(context.containerName, data, dataLength);
    if (!answered) return answered;
    context.containerNameAnswered = true;
    if (data == nullptr) {
        Utils::debug("CPGetProvParam: PP_CONTAINER/PP_UNIQUE_CONTAINER size query, requiredSize=",
                     *dataLength, ", return TRUE");
    } else {
        Utils::debug("CPGetProvParam: PP_CONTAINER/PP_UNIQUE_CONTAINER=", context.containerName,
                     ", return TRUE");
    }
    return answered;
}

Outcome answerImplementationType(BYTE* data, DWORD* dataLength) {
    if (data != nullptr) Utils::debug("CPGetProvParam not null value provided");
    return answerDword(kImplementationType, SmallBuffer::Refused, data, dataLength);
}

// A PIN is supported; none is ever returned.
Outcome answerPin(BYTE* data, DWORD* dataLength) {
    Utils::debug("CPGetProvParam: PIN query");
    return answerDword(1, SmallBuffer::Accepted, data, dataLength);
}

Outcome answerHardwareRandom(BYTE* data, DWORD* dataLength) {
    const DWORD value = usesHardwareRandom() ? 1 : 0;
    const Outcome answered = answerDword(value, SmallBuffer::Accepted, data, dataLength);
    if (answered.lastError) {
        Utils::debug("Required size is Large");
    } else {
        Utils::debug("CPGetProvParam: PP_USE_HARDWARE_RNG = ", value);
    }
    return answered;
}

// A security descriptor with a null DACL: the token guards its keys, not the system.
Outcome answerSecurityDescriptor(BYTE* data, DWORD* dataLength) {
    Utils::debug("CPGetProvParam: PP_KEYSET_SEC_DESCR");
    SECURITY_DESCRIPTOR descriptor{};
    InitializeSecurityDescriptor(&descriptor, SECURITY_DESCRIPTOR_REVISION);
    SetSecurityDescriptorDacl(&descriptor, TRUE, nullptr, FALSE);
    DWORD size = 0;
    MakeSelfRelativeSD(&descriptor, nullptr, &size);
    const DWORD available = *dataLength;
    *dataLength = size;
    if (data == nullptr || available < size) return successWithLastError(ERROR_MORE_DATA);
    if (!MakeSelfRelativeSD(&descriptor, data, &size)) {
        return refuse(NTE_FAIL, "CPGetProvParam PP_KEYSET_SEC_DESCR: MakeSelfRelativeSD failed");
    }
    return success();
}

// Size query and too small a buffer both succeed with ERROR_MORE_DATA: deliberate.
Outcome BuildCertificateChain(const std::vector<VeltraCertificate>& chain, BYTE* data, DWORD* dataLength) {
    Bytes message;
    if (const DWORD code = encodeCertificateChain(chain, message); code != ERROR_SUCCESS)
        return failure(code);
    const DWORD available = *dataLength;
    *dataLength = static_cast<DWORD>(message.size());
    if (data == nullptr || available < message.size()) return successWithLastError(ERROR_MORE_DATA);
    std::ranges::copy(message, data);
    return success();
}

Outcome answerCertificateChain(const CSP_CONTEXT& context, BYTE* data, DWORD* dataLength) {
    const std::vector<VeltraKeyPair> pairs = keyPairsOf(context.serial, context.libraryContext);
    const std::vector<VeltraCertificate> certificates =
        certificatesOf(context.serial, context.libraryContext);
    const auto pair =
        std::ranges::find_if(pairs, [&](const VeltraKeyPair& it) { return context.containerMatches(it); });
    if (pair == pairs.end()) {
        return refuse(NTE_NO_KEY, concat("CPGetProvParam PP_CERTCHAIN: container not found, containerName=",
                                         context.containerName));
    }
    const auto leaf = certificateOfKey(context.serial, pair->keyId, context.libraryContext);
    return BuildCertificateChain(
        leaf ? buildTokenChain(*leaf, certificates) : std::vector<VeltraCertificate>(), data, dataLength);
}

Outcome getParameter(CSP_CONTEXT& context, DWORD parameter, BYTE* data, DWORD* dataLength, DWORD flags) {
    switch (parameter) {
    case PP_ENUMALGS:
        return enumerateAlgorithms(context, data, dataLength, flags);
    case PP_ENUMALGS_EX:
        return enumerateAlgorithmsEx(context, data, dataLength, flags);
    case PP_ENUMEX_SIGNING_PROT:
        return enumerateSigningProtocols(context, data, dataLength, flags);
    case PP_ENUMCONTAINERS:
        return enumerateContainers(context, data, dataLength, flags);
    case PP_IMPTYPE:
        return answerImplementationType(data, dataLength);
    case PP_NAME:
        return answerText(kProviderName, data, dataLength);
    case PP_VERSION:
        return answerDword(kVersion, SmallBuffer::Refused, data, dataLength);
    case PP_CONTAINER:
    case PP_UNIQUE_CONTAINER:
        return answerContainer(context, data, dataLength);
    case PP_KEYSET_SEC_DESCR:
        return answerSecurityDescriptor(data, dataLength);
    case kCertificateChain:
        return answerCertificateChain(context, data, dataLength);
    case PP_PROVTYPE:
        return answerDword(PROV_RSA_FULL, SmallBuffer::Refused, data, dataLength);
    case PP_KEYSTORAGE:
        return answerDword(kImplementationType, SmallBuffer::Refused, data, dataLength);
    case PP_KEYSET_TYPE:
        return answerDword(context.keySpec, SmallBuffer::RefusedWithoutSize, data, dataLength);
    case PP_ADMIN_PIN:
    case PP_KEYEXCHANGE_PIN:
    case PP_SIGNATURE_PIN:
        return answerPin(data, dataLength);
    case PP_SIG_KEYSIZE_INC:
    case PP_KEYX_KEYSIZE_INC:
        return answerDword(kKeySizeIncrement, SmallBuffer::RefusedWithoutSize, data, dataLength);
    case PP_USE_HARDWARE_RNG:
        return answerHardwareRandom(data, dataLength);
    case PP_KEYSPEC:
        return answerDword(AT_KEYEXCHANGE, SmallBuffer::Accepted, data, dataLength);
    default:
        return refuse(NTE_BAD_TYPE, concat("CPGetProvParam: unsupported dwParam=", parameter));
    }
}

Outcome setPin(const CSP_CONTEXT& context, const BYTE* data) {
    if (data == nullptr) return refuse(ERROR_INVALID_PARAMETER, "CPSetProvParam: NULL PIN data");
    const std::optional<Pin> pin = readApplicationPin(data);
    if (!pin) {
        return refuse(NTE_KEYSET_ENTRY_BAD, "CPSetProvParam: PIN is longer than 255 characters");
    }
    Utils::debug("CPSetProvParam - passwordLength : ", pin->view().size());
    const int code = acceptPin(context.serial, *pin, context.libraryContext);
    if (code != kDeviceOk) {
        return refuse(NTE_KEYSET_ENTRY_BAD,
                      concat("CPSetProvParam - Token password validation failed : ", code));
    }
    return success();
}

Outcome switchHardwareRandom(const BYTE* data) {
    if (data == nullptr) {
        return refuse(ERROR_INVALID_PARAMETER, "CPSetProvParam: NULL data for PP_USE_HARDWARE_RNG");
    }
    DWORD value = 0;
    std::memcpy(&value, data, sizeof(value));
    setHardwareRandom(value != 0);
    Utils::debug("CPSetProvParam: PP_USE_HARDWARE_RNG set to ", value != 0 ? 1U : 0U);
    return success();
}

Outcome setOwnerWindow(CSP_CONTEXT& context, const BYTE* data) {
    context.ownerWindow = nullptr;
    if (data != nullptr) std::memcpy(&context.ownerWindow, data, sizeof(HWND));
    return success();
}

} // namespace

} // namespace veltra

using namespace veltra;

BOOL WINAPI CPGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags) {
    return cspEntry("CPGetProvParam", [&] {
        const auto context = usableContext(hProv);
        if (context == nullptr)
            return refuse(NTE_BAD_UID, "CPGetProvParam: context is null or not initialized");
        if (pdwDataLen == nullptr)
            return refuse(ERROR_INVALID_PARAMETER, "CPGetProvParam: pdwDataLen is null");
        Utils::debug("CPGetProvParam input : ", dwParam);
        Utils::debug("CPGetProvParam : ", dwFlags);
        const Outcome answered = getParameter(*context, dwParam, pbData, pdwDataLen, dwFlags);
        if (answered) {
            Utils::debug("CPGetProvParam out length : ", *pdwDataLen);
            Utils::debug("CPGetProvParam return success");
        }
        return answered;
    });
}

BOOL WINAPI CPSetProvParam(HCRYPTPROV hProv, DWORD dwParam, const BYTE* pbData, DWORD) {
    return cspEntry("CPSetProvParam", [&] {
        const auto context = usableContext(hProv);
        if (context == nullptr)
            return refuse(NTE_BAD_UID, "CPSetProvParam: context is null or not initialized");
        Utils::debug("CPSetProvParam - input param : ", dwParam);
        switch (dwParam) {
        case PP_CLIENT_HWND:
            return setOwnerWindow(*context, pbData);
        case PP_KEYEXCHANGE_PIN:
        case PP_SIGNATURE_PIN:
            return setPin(*context, pbData);
        case PP_USE_HARDWARE_RNG:
            return switchHardwareRandom(pbData);
        default:
            return refuse(NTE_BAD_TYPE, concat("CPSetProvParam: unsupported dwParam=", dwParam));
        }
    });
}
