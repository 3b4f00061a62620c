#include "certs/certificate_import.h"

#include "foundation/module.h"
#include "foundation/text.h"
#include "foundation/utils.h"
#include "foundation/windows.h"
#include "token/key_pairs.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <map>

namespace veltra {

namespace {

using DerBytes = std::vector<unsigned char>;

struct Issuer {
    DerBytes der;
    std::string issuerName; ///< CN of its own issuer
};
using IssuerIndex = std::map<std::string, Issuer>; ///< by the CN of the subject

constexpr const char* kCertificateFolder = "\\VeltraDSC\\Certificates";

std::string environmentVariable(const char* name) {
    std::array<char, 32768> value{};
    const DWORD length = GetEnvironmentVariableA(name, value.data(), static_cast<DWORD>(value.size()));
    return {value.data(), length < value.size() ? length : 0};
}

std::string caFolderBase() {
    std::string home = environmentVariable("VELTRA_HOME");
    if (!home.empty()) return home;
    for (const char* folder :
         {"C:/Program Files (x86)/Quenmark/Veltra", "C:/Program Files/Quenmark/Veltra"}) {
        if (Utils::isFolderExists(folder)) return folder;
    }
    std::array<char, 32768> path{};
    const DWORD length = GetModuleFileNameA(thisModule(), path.data(), static_cast<DWORD>(path.size()));
    const std::string file(path.data(), length < path.size() ? length : 0);
    const std::size_t separator = file.find_last_of("\\/");
    return separator == std::string::npos ? std::string() : file.substr(0, separator);
}

// An exception in here counts as a file, or a folder, that cannot be read.
int parse(const DerBytes& der, CertificateDetails& details) noexcept {
    try {
        return deviceLibrary().veltra_getCertificateDetails(der.data(), static_cast<int>(der.size()), details,
                                                            nullptr);
    } catch (...) {
        return kDeviceThrew;
    }
}

std::vector<NamedDer> readFolder(const std::string& folder) noexcept {
    try {
        return deviceLibrary().veltra_getFilesWithExtensionsAndConvertDER(
            folder, {".cer", ".der", ".pem", ".crt"}, nullptr);
    } catch (...) {
        return {};
    }
}

// Certificates that do not parse, have no CN, or do not fit a record only shorten the chain.
IssuerIndex readIssuers() {
    const std::string folder = caFolderBase() + kCertificateFolder;
    Utils::debug("importCertificateWithChain: CA Folder: ", folder);
    IssuerIndex index;
    for (auto& [name, der] : readFolder(folder)) {
        CertificateDetails details;
        if (der.size() > kCertificateCapacity || parse(der, details) != kDeviceOk) continue;
        const std::string commonName = commonNameOf(details.subject);
        if (!commonName.empty()) {
            index.insert_or_assign(commonName, Issuer{std::move(der), commonNameOf(details.issuer)});
        }
    }
    return index;
}

// The issuers of a certificate, nearest first. Ends at one that was taken before, so that certificates that
// name each other end too.
std::vector<DerBytes> issuersOf(std::string issuerName, const IssuerIndex& index) {
    std::vector<DerBytes> chain;
    for (;;) {
        const auto issuer = index.find(issuerName);
        if (issuer == index.end()) {
            Utils::debug("importCertificateWithChain: Issuer '", issuerName,
                         "' NOT found \xE2\x80\x94 skipping chain import");
            return chain;
        }
        if (std::ranges::find(chain, issuer->second.der) != chain.end()) return chain;
        chain.push_back(issuer->second.der);
        if (issuer->second.issuerName == issuerName) return chain;
        issuerName = issuer->second.issuerName;
    }
}

VeltraCertificate recordOf(const DerBytes& der) {
    VeltraCertificate record{};
    std::ranges::copy(der, record.der);
    record.derLength = static_cast<std::uint32_t>(der.size());
    return record;
}

int importAlone(const std::string& serial, const Pin& pin, VeltraCertificate& certificate,
                void* libraryContext) {
    Utils::debug(
        "importCertificateWithChain: chain import skipped \xE2\x80\x94 performing normal leaf import");
    const int code =
        deviceLibrary().veltra_importCertificate(serial.c_str(), pin.c_str(), &certificate, libraryContext);
    if (code != kDeviceOk) Utils::error("importCertificateWithChain: leaf import failed ret=", code);
    return code;
}

int importBehindIssuers(const std::string& serial, const Pin& pin, const std::vector<DerBytes>& issuers,
                        VeltraCertificate& certificate, void* libraryContext) {
    std::vector<VeltraCertificate> records;
    records.reserve(issuers.size() + 1);
    for (const DerBytes& issuer : issuers)
        records.push_back(recordOf(issuer));
    records.push_back(certificate);
    for (std::size_t i = 0; i < records.size(); ++i) {
        const int code = deviceLibrary().veltra_importCertificate(serial.c_str(), pin.c_str(), &records[i],
                                                                  libraryContext);
        if (code != kDeviceOk) {
            Utils::error("importCertificateWithChain: chain import failed at index ", i, " ret=", code);
            return code;
        }
        Utils::debug("importCertificateWithChain: certificate imported successfully");
    }
    std::ranges::copy(records.back().keyId, certificate.keyId);
    return kDeviceOk;
}

// The outcome is not looked at: the certificate is stored, and a label is a convenience.
void nameUnlabelledKeyPair(const std::string& serial, const Pin& pin, const VeltraCertificate& certificate,
                           void* libraryContext) {
    const std::string label(boundedText(certificate.label, kLabelMaxLength));
    if (label.empty()) return;
    const std::vector<VeltraKeyPair> pairs = keyPairsOf(serial, libraryContext);
    const VeltraKeyPair* pair = findKeyPair(pairs, certificate.keyId);
    if (pair == nullptr || pair->label[0] != '\0') return;
    Utils::debug("importCertificateWithChain: updating empty key pair alias to: ", label);
    deviceLibrary().veltra_updateKeyPairDetails(serial.c_str(), pair->keyId, pin.c_str(), label.c_str(),
                                                nullptr, 0, libraryContext);
}

} // namespace

std::string commonNameOf(const std::string& distinguishedName) {
    static constexpr std::string_view kPrefix = "CN=";
    for (std::size_t found = distinguishedName.find(kPrefix); found != std::string::npos;
         found = distinguishedName.find(kPrefix, found + 1)) {
        const std::size_t start = found + kPrefix.size();
        const std::size_t end =
            std::min(distinguishedName.find_first_of(",\n\r", start), distinguishedName.size());
        if (end > start) return distinguishedName.substr(start, end - start);
    }
    return {};
}

int importCertificateWithChain(const std::string& serial, const Pin& pin, VeltraCertificate& certificate,
                               void* libraryContext) {
    CertificateDetails details;
    const int parsed = deviceLibrary().veltra_getCertificateDetails(
        certificate.der, static_cast<int>(certificate.derLength), details, nullptr);
    if (parsed != kDeviceOk) {
        Utils::error("importCertificateWithChain: certificate parsing failed");
        return parsed;
    }
    if (certificate.label[0] == '\0') {
        copyLabel(details.commonName + "_" + details.issuer, certificate.label);
        Utils::debug("importCertificateWithChain: label not provided, using: ",
                     boundedText(certificate.label, kLabelMaxLength));
    }
    const std::vector<DerBytes> issuers = issuersOf(commonNameOf(details.issuer), readIssuers());
    const int code = issuers.empty() ? importAlone(serial, pin, certificate, libraryContext)
                                     : importBehindIssuers(serial, pin, issuers, certificate, libraryContext);
    if (code != kDeviceOk) return code;
    try {
        nameUnlabelledKeyPair(serial, pin, certificate, libraryContext);
    } catch (...) {
        Utils::error("importCertificateWithChain: the key pair could not be named");
    }
    return kDeviceOk;
}

} // namespace veltra
