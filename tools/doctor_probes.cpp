// The parts of veltra doctor that may hang or crash, each in a process of its own.

#include "commands.h"

#include "certificates.h"
#include "error_text.h"
#include "installation.h"
#include "key_storage.h"
#include "probe.h"
#include "wide_text.h"

#include "foundation/cng.h"
#include "foundation/device_library_binding.h"
#include "foundation/module.h"
#include "foundation/text.h"

#include <array>
#include <bit>
#include <map>

namespace veltra {
namespace {

void reportModule(const ProbeReport& report, HMODULE module) {
    const std::wstring file = moduleFile(module);
    report.fact("file", {{"path", toUtf8(file)}, {"version", fileVersion(file)}});
}

// The device library.

std::string keyTypeName(std::uint32_t type) {
    static const std::map<std::uint32_t, std::string> kNames = {
        {kKeyTypeRsa1024, "RSA 1024"}, {kKeyTypeRsa2048, "RSA 2048"}, {kKeyTypeRsa3072, "RSA 3072"},
        {kKeyTypeRsa4096, "RSA 4096"}, {kKeyTypeEcP256, "EC P-256"},  {kKeyTypeEcP384, "EC P-384"},
        {kKeyTypeEcP521, "EC P-521"}};
    const auto found = kNames.find(type);
    return found != kNames.end() ? found->second : "unknown type " + std::to_string(type);
}

Json describe(const std::string& serial, const TokenInfo& info) {
    // As the provider reads them: the marker's third character, and the session with both flags.
    const bool isOlder = info.fipsMarker.size() > 2 && info.fipsMarker[2] == '1';
    const bool hasSession = !info.session.empty() && info.words[3] == 1 && info.words[4] == 1;
    return {{"serial", serial},
            {"label", info.label},
            {"manufacturer", info.manufacturer},
            {"model", info.model},
            {"fipsMarker", info.fipsMarker},
            {"fips", isOlder ? "140-2" : "140-3"},
            {"firmware", info.firmwareVersion},
            {"hardware", info.hardwareVersion},
            {"session", hasSession}};
}

Json describe(const std::string& serial, const VeltraKeyPair& key) {
    return {{"token", serial},
            {"key", toHex(key.keyId)},
            {"type", keyTypeName(key.keyType)},
            {"label", boundedText(key.label, sizeof key.label)},
            {"usage", usageText((key.usage & kUsageSign) != 0, (key.usage & kUsageEncrypt) != 0)}};
}

Json describe(const std::string& serial, const VeltraCertificate& certificate) {
    std::optional<CertificateFacts> facts;
    if (certificate.derLength <= sizeof certificate.der) {
        facts = certificateFacts({certificate.der, certificate.der + certificate.derLength});
    }
    Json json = {{"token", serial}, {"key", toHex(certificate.keyId)}, {"readable", facts.has_value()}};
    if (facts) {
        json.update({{"subject", facts->subject},
                     {"issuer", facts->issuer},
                     {"notBefore", facts->notBefore},
                     {"notAfter", facts->notAfter},
                     {"daysUntilValid", facts->daysUntilValid},
                     {"daysLeft", facts->daysLeft}});
    }
    return json;
}

void probeToken(const ProbeReport& report, DeviceLibrary& library, const std::string& serial) {
    report.step("veltra_initDevice(" + serial + ")");
    if (const int code = library.veltra_initDevice(serial.c_str(), false, nullptr); code != kDeviceOk) {
        report.fact("tokenRefusal", {{"serial", serial}, {"code", code}});
        return;
    }
    report.step("veltra_getTokenInfo(" + serial + ")");
    report.fact("token", describe(serial, library.veltra_getTokenInfo(serial.c_str(), nullptr)));
    report.step("veltra_getKeyPairList(" + serial + ")");
    for (const VeltraKeyPair& key : library.veltra_getKeyPairList(serial.c_str(), nullptr)) {
        report.fact("key", describe(serial, key));
    }
    report.step("veltra_getCertificateList(" + serial + ")");
    for (const VeltraCertificate& certificate : library.veltra_getCertificateList(serial.c_str(), nullptr)) {
        report.fact("certificate", describe(serial, certificate));
    }
}

/// The provider's DLL is the one beside which the library is looked for first.
void probeLibrary(const ProbeReport& report, const ProviderChoice& provider, const DoctorOptions&) {
    report.step("loading the device library");
    std::wstring folder = provider.dll.parent_path().native();
    if (!folder.empty()) folder += L'\\';
    const DeviceLibraryBinding binding = bindDeviceLibrary(folder);
    report.fact("library", {{"path", toUtf8(binding.file)},
                            {"version", fileVersion(binding.file)},
                            {"error", binding.error},
                            {"missing", binding.missingExports}});
    if (!binding.library) return;
    report.step("veltra_init");
    report.fact("initialised", binding.library->veltra_init(0, nullptr, 2));
    report.step("veltra_getConnectedDeviceList");
    const std::vector<std::string> serials = binding.library->veltra_getConnectedDeviceList(false, nullptr);
    report.fact("connected", serials.size());
    for (const std::string& serial : serials) {
        probeToken(report, *binding.library, serial);
    }
}

/// The library that programs of the other kind get, which pass over one that they cannot load. Neither can
/// this program: the file is read.
void probeOtherLibrary(const ProbeReport& report, const ProviderChoice& provider, const DoctorOptions&) {
    report.step("reading the file of the device library");
    constexpr unsigned kOtherBits = sizeof(void*) == 8 ? 32 : 64;
    std::filesystem::path found;
    for (const std::filesystem::path& folder : {provider.dll.parent_path(), systemFolder(kOtherBits)}) {
        const std::filesystem::path file = folder / "VeltraDSCLibrary.dll";
        std::error_code ignored;
        if (folder.empty() || !std::filesystem::exists(file, ignored)) continue;
        const bool isRight = fileBits(file) == kOtherBits;
        if (found.empty() || isRight) found = file;
        if (isRight) break;
    }
    if (found.empty()) return;
    const std::set<std::string> names = exportedNames(found);
    report.fact("library",
                {{"path", toUtf8(found.native())},
                 {"version", fileVersion(found)},
                 {"bits", fileBits(found)},
                 {"missing", missingExports([&](const char* name) { return names.contains(name); })}});
}

// The two interfaces.

void probeCryptoApi(const ProbeReport& report, const ProviderChoice& provider, const DoctorOptions&) {
    report.step("loading the provider");
    HCRYPTPROV context = 0;
    if (!CryptAcquireContextW(&context, nullptr, provider.name.c_str(), PROV_RSA_FULL, CRYPT_VERIFYCONTEXT)) {
        const DWORD code = GetLastError();
        failWithCode(code, "CryptoAPI cannot load the provider");
    }
    const CryptoContext owner(context);
    reportModule(report, GetModuleHandleW(provider.dll.filename().c_str()));
    report.step("listing the keys");
    report.fact("keys", CryptoProvider::openToken(provider).containerNames().size());
}

void probeCng(const ProbeReport& report, const ProviderChoice& provider, const DoctorOptions&) {
    report.step("loading the provider");
    const UniqueModule module = loadProvider(provider);
    reportModule(report, module.get());
    report.step("opening the provider");
    const KeyStorage storage(provider);
    report.step("listing the keys");
    report.fact("keys", storage.keyNames().size());
}

/// Whether CNG has the provider written down. Wine's function only complains and ends the process.
void probeCngRegistration(const ProbeReport& report, const ProviderChoice& provider, const DoctorOptions&) {
    if (platformName().starts_with("Wine")) return;
    report.step("asking for the registration");
    const UniqueModule bcrypt(LoadLibraryW(L"bcrypt.dll"));
    const auto query = std::bit_cast<decltype(&BCryptQueryProviderRegistration)>(
        GetProcAddress(bcrypt.get(), "BCryptQueryProviderRegistration"));
    const auto release =
        std::bit_cast<decltype(&BCryptFreeBuffer)>(GetProcAddress(bcrypt.get(), "BCryptFreeBuffer"));
    if (query == nullptr || release == nullptr) return;
    ULONG length = 0;
    PCRYPT_PROVIDER_REG entry = nullptr;
    const NTSTATUS status =
        query(provider.name.c_str(), CRYPT_UM, NCRYPT_KEY_STORAGE_INTERFACE, &length, &entry);
    Json image;
    if (status >= 0 && entry != nullptr) {
        image = entry->pUM != nullptr && entry->pUM->pszImage != nullptr ? toUtf8(entry->pUM->pszImage) : "";
        release(entry);
    }
    report.fact("registration", {{"status", status}, {"image", image}});
}

/// Through the system's router, which a registered provider is for.
void probeRouter(const ProbeReport& report, const ProviderChoice& provider, const DoctorOptions&) {
    report.step("opening the provider through ncrypt.dll");
    const UniqueModule ncrypt(LoadLibraryW(L"ncrypt.dll"));
    const auto open = std::bit_cast<decltype(&NCryptOpenStorageProvider)>(
        GetProcAddress(ncrypt.get(), "NCryptOpenStorageProvider"));
    require(open != nullptr, "ncrypt.dll cannot be used");
    NCRYPT_PROV_HANDLE handle = 0;
    requireStatus(open(&handle, provider.name.c_str(), 0), "CNG cannot open the provider");
    report.fact("opened", true);
}

// A signature.

constexpr std::string_view kSignedText = "veltra doctor";

void probeSignature(const ProbeReport& report, const ProviderChoice& provider, const DoctorOptions& options) {
    const SignatureScheme scheme{findHashAlgorithm("sha256"), SignaturePadding::Pkcs1};
    const Pieces data = [](const auto& consume) {
        consume({reinterpret_cast<const unsigned char*>(kSignedText.data()), kSignedText.size()});
    };
    report.step("giving the PIN");
    const auto tokens = TokenInterface::open(provider);
    const auto key = tokens->openKeyForUse(options.container);
    report.fact("pinAccepted", true);
    report.step("signing");
    Bytes signature = key->sign(scheme, data);
    report.step("verifying");
    const bool isGood = key->verify(scheme, data, signature);
    signature.front() ^= 1;
    report.fact("verified", isGood && !key->verify(scheme, data, signature));
}

struct Probe {
    std::string_view name;
    void (*run)(const ProbeReport&, const ProviderChoice&, const DoctorOptions&);
};

constexpr std::array kProbes = {Probe{"library", probeLibrary},
                                Probe{"other-library", probeOtherLibrary},
                                Probe{"cryptoapi", probeCryptoApi},
                                Probe{"cng", probeCng},
                                Probe{"cng-registration", probeCngRegistration},
                                Probe{"router", probeRouter},
                                Probe{"signature", probeSignature}};

} // namespace

int runProbe(const ProviderChoice& provider, const DoctorOptions& options, const std::string& probe) {
    const std::size_t colon = std::min(probe.find(':'), probe.size());
    const ProbeReport report(probe.substr(std::min(colon + 1, probe.size())));
    try {
        for (const Probe& known : kProbes) {
            if (known.name == probe.substr(0, colon)) known.run(report, provider, options);
        }
    } catch (const std::exception& error) {
        report.fact("refusal", error.what());
    } catch (...) {
        report.fact("refusal", "an unknown exception");
    }
    report.finish();
}

} // namespace veltra
