// KSPGetKeyProperty and KSPSetKeyProperty.

#include "certs/certificate_import.h"
#include "foundation/wide_text.h"
#include "ksp/entry_guard.h"
#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_login.h"
#include "ksp/property_value.h"
#include "ksp/settable_properties.h"
#include "token/certificates.h"
#include "token/device_state.h"
#include "token/key_pairs.h"
#include "token/process_iv.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <optional>

namespace veltra {

namespace {

constexpr const char* kCertificateProperty = "SmartCardKeyCertificate";
constexpr const char* kChainingModeProperty = "ChainingMode";
constexpr const char* kCbcMode = "ChainingModeCBC";
constexpr const char* kEcbMode = "ChainingModeECB";

// Reported for every key, EC keys included: deliberate.
constexpr SupportedLengths kLengths = {
    .minLength = 1024, .maxLength = 4096, .increment = 1024, .defaultLength = 2048};

DWORD usageFlagsOf(const KSP_KEY& key) {
    switch (key.keyUsage) {
    case kUsageSign:
        return kAllowSigningFlag;
    case kUsageEncrypt:
        return kAllowDecryptFlag;
    case kUsageBoth:
        return kAllowSigningFlag | kAllowDecryptFlag;
    default:
        return 0;
    }
}

struct Query {
    NCRYPT_PROV_HANDLE hProvider;
    const KSP_PROVIDER& provider;
    const KSP_KEY& key;
    PropertyOutput out;
};

SECURITY_STATUS getIdentifier(const Query& query) {
    return answerText(query.out, keyName(query.key.credentialId));
}

SECURITY_STATUS getCertificate(const Query& query) {
    const auto certificate =
        freshCertificateOfKey(query.provider.serial(), query.key.credentialId, query.provider.libraryContext);
    if (!certificate) return refuse(NTE_NOT_FOUND, "KSP: Certificate not found for key");
    return answerBytes(query.out, derOf(*certificate));
}

struct ReadableProperty {
    std::string_view name;
    SECURITY_STATUS (*answer)(const Query&);
};

constexpr std::array<ReadableProperty, 14> kReadableProperties = {{
    {"Name", getIdentifier},
    {"Algorithm Name",
     [](const Query& it) { return answerText(it.out, algorithmName(it.key.keyType, it.key.keyUsage)); }},
    {"Algorithm Group",
     [](const Query& it) { return answerText(it.out, algorithmGroup(it.key.keyType, it.key.keyUsage)); }},
    {"Length", [](const Query& it) { return answerDword(it.out, it.key.bitLength); }},
    {"Lengths", [](const Query& it) { return answerValue(it.out, kLengths); }},
    {"Key Usage", [](const Query& it) { return answerDword(it.out, usageFlagsOf(it.key)); }},
    // Claimed although no private key is ever exported: deliberate.
    {"Export Policy", [](const Query& it) { return answerDword(it.out, kAllowExportFlag); }},
    {"Block Length", [](const Query& it) { return answerDword(it.out, it.key.bitLength / CHAR_BIT); }},
    {"Key Type", [](const Query& it) { return answerDword(it.out, 0); }},
    {"Unique Name", getIdentifier},
    {"Provider Handle", [](const Query& it) { return answerValue(it.out, it.hProvider); }},
    {kCertificateProperty, getCertificate},
    {kChainingModeProperty,
     [](const Query& it) { return answerText(it.out, it.key.ecbMode ? kEcbMode : kCbcMode); }},
    {"Security Descr",
     [](const Query&) {
         return refuse(NTE_NOT_SUPPORTED, "KSPGetKeyProperty: NCRYPT_SECURITY_DESCR_PROPERTY not supported");
     }},
}};

SECURITY_STATUS getKeyProperty(const std::string& name, const Query& query) {
    Utils::debug("KSP: GetKeyProperty: ", name);
    const auto* const property = std::ranges::find(kReadableProperties, name, &ReadableProperty::name);
    if (property == kReadableProperties.end()) {
        return refuse(NTE_NOT_SUPPORTED, "KSPGetKeyProperty: unsupported property");
    }
    return property->answer(query);
}

struct Setting {
    KSP_PROVIDER& provider;
    KSP_KEY& key;
    const BYTE* input; ///< may be null
    DWORD length;

    [[nodiscard]] bool isEmpty() const { return input == nullptr || length == 0; }
    [[nodiscard]] std::span<const unsigned char> bytes() const { return {input, length}; }

    /// Nothing when the input is missing or too short.
    [[nodiscard]] std::optional<DWORD> dword() const {
        DWORD value = 0;
        if (input == nullptr || length < sizeof(value)) return std::nullopt;
        std::memcpy(&value, input, sizeof(value));
        return value;
    }
};

SECURITY_STATUS refuseLargeValue(const char* property) {
    return refuse(NTE_INVALID_PARAMETER, concat("KSPSetKeyProperty: ", property, " cbInput is too large"));
}

SECURITY_STATUS setCertificate(const Setting& setting) {
    if (setting.isEmpty()) {
        return refuse(NTE_INVALID_PARAMETER,
                      "KSPSetKeyProperty: NCRYPT_CERTIFICATE_PROPERTY pbInput is null or empty");
    }
    if (setting.length > kCertificateCapacity) return refuseLargeValue("NCRYPT_CERTIFICATE_PROPERTY");
    const std::string serial = setting.provider.serial();
    void* const libraryContext = setting.provider.libraryContext;
    if (!ensureUserVerified(serial, libraryContext)) {
        return refuse(NTE_FAIL, "KSPSetKeyProperty: password validation failed for certificate import");
    }
    const KSP_KEY& key = setting.key;
    VeltraCertificate record =
        certificateRecordFor({.keyId = key.credentialId,
                              .credentialId = {key.publicKeyExtra.data(), key.publicKeyExtraLength},
                              .label = key.label},
                             setting.bytes());
    const int code = importCertificateWithChain(serial, getPin(serial), record, libraryContext);
    if (code != kDeviceOk)
        return refuse(NTE_INTERNAL_ERROR, concat("KSP: Import certificate failed: ", code));
    Utils::debug("KSP: Certificate stored successfully");
    return kSuccess;
}

// No size is out of range here: KSPFinalizeKey decides what the token makes of it.
SECURITY_STATUS setLength(const Setting& setting) {
    const std::optional<DWORD> bits = setting.dword();
    if (!bits) return kSuccess;
    setting.key.bitLength = *bits;
    Utils::debug("KSP: Key length set to ", *bits);
    return kSuccess;
}

SECURITY_STATUS setUsage(const Setting& setting) {
    const DWORD flags = setting.dword().value_or(0);
    const bool signs = (flags & kAllowSigningFlag) != 0;
    const bool decrypts = (flags & kAllowDecryptFlag) != 0;
    if (signs && decrypts) {
        setting.key.keyUsage = kUsageBoth;
    } else if (signs) {
        setting.key.keyUsage = kUsageSign;
    } else if (decrypts) {
        setting.key.keyUsage = kUsageEncrypt;
    }
    return kSuccess;
}

SECURITY_STATUS setChainingMode(const Setting& setting) {
    constexpr DWORD kEnoughBytes = 64; // more than any mode's name takes
    if (setting.isEmpty()) return kSuccess;
    if (setting.length > INT_MAX) return refuseLargeValue(kChainingModeProperty);
    const std::string mode = fromWideBytes({setting.input, std::min(setting.length, kEnoughBytes)});
    if (mode != kCbcMode && mode != kEcbMode) {
        return refuse(NTE_NOT_SUPPORTED, "KSP: Unsupported chaining mode");
    }
    setting.key.ecbMode = mode == kEcbMode;
    Utils::debug("KSP: Chaining mode set to ", setting.key.ecbMode ? "ECB" : "CBC");
    return kSuccess;
}

// Bytes of an IV for an AES key; that of 24-byte keys is half a block: deliberate. Nothing for keys that are
// no AES keys.
std::optional<DWORD> ivLengthFor(const KSP_KEY& key) {
    switch (key.symmetricKeyLength) {
    case 24:
        return 8;
    case 16:
    case 32:
        return 16;
    default:
        return std::nullopt;
    }
}

// One IV for the whole process, not for the key: deliberate.
SECURITY_STATUS setIv(const Setting& setting) {
    if (setting.isEmpty()) {
        setProcessIv({});
        Utils::debug("KSP: IV cleared");
        return kSuccess;
    }
    const DWORD expected = ivLengthFor(setting.key).value_or(setting.length);
    if (setting.length != expected) {
        return refuse(NTE_INVALID_PARAMETER,
                      concat("KSP: IV size mismatch: got ", setting.length, ", expected ", expected));
    }
    if (setting.length > INT_MAX) return refuseLargeValue("IV");
    setProcessIv(setting.bytes());
    Utils::debug("KSP: IV set, size: ", setting.length);
    return kSuccess;
}

struct WritableProperty {
    std::string_view name;
    SECURITY_STATUS (*set)(const Setting&);
};

constexpr std::array<WritableProperty, 7> kWritableProperties = {{
    {kCertificateProperty, setCertificate},
    {kPinProperty, [](const Setting& it) { return setPin(it.provider, "KSPSetKeyProperty", it.input); }},
    {kWindowHandleProperty,
     [](const Setting& it) { return setParentWindow(it.provider, it.input, it.length); }},
    {"Length", setLength},
    {"Key Usage", setUsage},
    {kChainingModeProperty, setChainingMode},
    {"IV", setIv},
}};

SECURITY_STATUS setKeyProperty(const std::string& name, const Setting& setting) {
    const auto* const property = std::ranges::find(kWritableProperties, name, &WritableProperty::name);
    if (property == kWritableProperties.end()) {
        return refuse(NTE_NOT_SUPPORTED, "KSPSetKeyProperty: unsupported property");
    }
    return property->set(setting);
}

} // namespace

} // namespace veltra

using namespace veltra;

SECURITY_STATUS WINAPI KSPGetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                         LPCWSTR pszProperty, PBYTE pbOutput, DWORD cbOutput,
                                         DWORD* pcbResult, DWORD) {
    return kspEntry("KSPGetKeyProperty", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPGetKeyProperty");
        const auto key = liveKspKey(hKey);
        if (key == nullptr) return refuse(NTE_INVALID_HANDLE, "KSPGetKeyProperty: key handle is null");
        if (pszProperty == nullptr || pcbResult == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPGetKeyProperty: pszProperty or pcbResult is null");
        }
        return getKeyProperty(fromWide(pszProperty),
                              {.hProvider = hProvider,
                               .provider = *provider,
                               .key = *key,
                               .out = {.data = pbOutput, .capacity = cbOutput, .size = pcbResult}});
    });
}

SECURITY_STATUS WINAPI KSPSetKeyProperty(NCRYPT_PROV_HANDLE hProvider, NCRYPT_KEY_HANDLE hKey,
                                         LPCWSTR pszProperty, PBYTE pbInput, DWORD cbInput, DWORD) {
    return kspEntry("KSPSetKeyProperty", [&] {
        const auto provider = liveProvider(hProvider);
        if (provider == nullptr) return refuseProvider("KSPSetKeyProperty");
        const auto key = liveKspKey(hKey);
        if (key == nullptr) return refuse(NTE_INVALID_HANDLE, "KSPSetKeyProperty: key handle is null");
        if (pszProperty == nullptr) {
            return refuse(NTE_INVALID_PARAMETER, "KSPSetKeyProperty: pszProperty is null");
        }
        return setKeyProperty(fromWide(pszProperty),
                              {.provider = *provider, .key = *key, .input = pbInput, .length = cbInput});
    });
}
