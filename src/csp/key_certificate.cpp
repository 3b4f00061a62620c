#include "csp/key_certificate.h"

#include "certs/certificate_import.h"
#include "certs/der_writer.h"
#include "csp/csp_login.h"
#include "token/certificates.h"
#include "token/device_state.h"

#include <algorithm>
#include <optional>

namespace veltra {

namespace {

// Total length of the DER element at `data`, header included, for lengths of up to three bytes; nothing for
// any other form. Reads no more than the header.
std::optional<std::size_t> derTotalLength(const BYTE* data) {
    const BYTE first = data[1];
    if (first < 0x80) return std::size_t{2} + first;
    if (first < 0x81 || first > 0x83) return std::nullopt;
    const std::size_t lengthBytes = first - 0x80U;
    std::size_t length = 0;
    for (std::size_t i = 0; i < lengthBytes; ++i)
        length = (length << 8) | data[2 + i];
    return 2 + lengthBytes + length;
}

// The stored PIN, or that of a new login.
Outcome pinForImport(const CSP_CONTEXT& context, Pin& pin) {
    pin = getPin(context.serial);
    if (!pin.empty() || context.serial.empty()) return success();
    if (!loginUser(context, pin)) return refuse(NTE_FAIL, "CPSetKeyParam: KP_CERTIFICATE login failed");
    storePin(context.serial, pin);
    return success();
}

} // namespace

Outcome getKeyCertificate(const CSP_CONTEXT& context, const KEY_HANDLE& key, BYTE* data, DWORD* dataLength) {
    if (dataLength == nullptr) return refuse(ERROR_INVALID_PARAMETER, "CPGetKeyParam: pdwDataLen is null");
    const auto certificate = freshCertificateOfKey(context.serial, key.keyId, context.libraryContext);
    if (!certificate) return refuse(NTE_NOT_FOUND, "CPGetKeyParam: KP_CERTIFICATE not found, return FALSE");
    const DWORD available = *dataLength;
    const DWORD length = certificate->derLength;
    *dataLength = length;
    if (data == nullptr || available == 0) {
        Utils::debug("CPGetKeyParam: KP_CERTIFICATE size query, len=", length, ", return TRUE");
        return success();
    }
    if (available < length) {
        return refuse(ERROR_MORE_DATA, "CPGetKeyParam: KP_CERTIFICATE buffer too small, return FALSE");
    }
    std::ranges::copy(derOf(*certificate), data);
    Utils::debug("CPGetKeyParam: KP_CERTIFICATE copied, len=", length, ", return TRUE");
    return success();
}

Outcome setKeyCertificate(const CSP_CONTEXT& context, const KEY_HANDLE& key, const BYTE* data) {
    if (data == nullptr)
        return refuse(ERROR_INVALID_PARAMETER, "CPSetKeyParam: KP_CERTIFICATE pbData is null");
    if (data[0] != static_cast<BYTE>(DerTag::Sequence)) {
        return refuse(NTE_BAD_DATA, "CPSetKeyParam: KP_CERTIFICATE invalid DER (not a SEQUENCE)");
    }
    const std::optional<std::size_t> total = derTotalLength(data);
    if (!total) return refuse(NTE_BAD_DATA, "CPSetKeyParam: KP_CERTIFICATE unsupported DER length encoding");
    Utils::debug("CPSetKeyParam: KP_CERTIFICATE DER length=", *total);
    if (*total > kCertificateCapacity) {
        return refuse(NTE_BAD_DATA, "CPSetKeyParam: KP_CERTIFICATE is longer than the token stores");
    }
    Pin pin;
    if (const Outcome ready = pinForImport(context, pin); !ready) return ready;
    VeltraCertificate record =
        certificateRecordFor({.keyId = key.keyId,
                              .credentialId = {key.credentialId, key.credentialIdLength},
                              .label = boundedText(key.label, kLabelMaxLength)},
                             {data, *total});
    const int code = importCertificateWithChain(context.serial, pin, record, context.libraryContext);
    if (code != kDeviceOk) {
        return refuse(NTE_FAIL, concat("CPSetKeyParam: KP_CERTIFICATE import failed ret=", code));
    }
    Utils::debug("CPSetKeyParam: KP_CERTIFICATE imported successfully");
    return success();
}

} // namespace veltra
