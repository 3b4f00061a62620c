// veltra doctor: what support asks a caller on the phone. Nothing here loads foreign code: probes do.

#include "commands.h"

#include "container_map.h"
#include "diagnosis.h"
#include "error_text.h"
#include "installation.h"
#include "key_storage.h"
#include "log_files.h"
#include "probe.h"
#include "wide_text.h"

#include "foundation/text.h"
#include "foundation/win_handle.h"

#include <algorithm>

namespace veltra {
namespace {

constexpr int kJsonSchema = 1;
constexpr int kCertificateWarningDays = 30;
constexpr auto kNotFound = static_cast<NTSTATUS>(0xC0000225); // STATUS_NOT_FOUND

std::string text(const Json& object, const char* member) {
    return object.value(member, std::string());
}

class Doctor {
public:
    Doctor(ProviderChoice provider, DoctorOptions options, Output& out)
        : provider_(std::move(provider)), options_(std::move(options)), out_(out), diagnosis_(out) {}

    int examine() {
        if (options_.sign && !provider_.pin) provider_.pin = askForPin();
        introduce();
        examineCryptoApi();
        examineCng();
        const ProbeResult library = examineLibrary();
        examineOtherLibrary();
        examineTokens(library);
        examineKeys(library);
        examineContainerMap();
        examineLog();
        examineSignatures();
        diagnosis_.finish();
        return diagnosis_.problems() == 0 ? kExitOk : kExitFailed;
    }

private:
    void introduce() {
        const std::string platform = platformName();
        const unsigned bits = 8 * sizeof(void*);
        out_.say(concat("veltra ", VELTRA_VERSION, ", ", bits, "-bit, ", platform, "\n"));
        out_.set("schema", kJsonSchema);
        out_.set("veltra", VELTRA_VERSION);
        out_.set("bits", bits);
        out_.set("platform", platform);
    }

    [[nodiscard]] ProbeResult probe(const std::string& name, const std::filesystem::path& dll,
                                    std::vector<std::wstring> arguments = {},
                                    const SharedPin& pin = nullptr) const {
        arguments.insert(arguments.end(), {L"--silent", L"--provider", provider_.name});
        if (!dll.empty()) arguments.insert(arguments.end(), {L"--dll", dll.native()});
        return runProbeProcess(name, arguments, pin, options_.timeoutSeconds);
    }

    /// Tells of a probe that did not come to its end; true if it did.
    bool reportEnd(const ProbeResult& result, const std::string& id, const std::string& what,
                   const std::string& advice) {
        const Json details = {{"step", result.step}};
        switch (result.end) {
        case ProbeEnd::TimedOut:
            diagnosis_.add(Status::Problem, id,
                           concat(what, " does not come back within ", options_.timeoutSeconds,
                                  " s from: ", result.step),
                           advice, details);
            return false;
        case ProbeEnd::Crashed:
            diagnosis_.add(Status::Problem, id, what + " crashed in: " + result.step, advice, details);
            return false;
        case ProbeEnd::NotStarted:
            diagnosis_.add(Status::Problem, id, "could not start another process to examine " + what,
                           "check what keeps this user from starting programs");
            return false;
        case ProbeEnd::Finished:
            break;
        }
        if (const Json* refusal = result.find("refusal")) {
            diagnosis_.add(Status::Problem, id, refusal->get<std::string>(), advice, details);
            return false;
        }
        return true;
    }

    // CryptoAPI.

    void examineCryptoApi() {
        diagnosis_.section("cryptoapi", "CryptoAPI");
        for (const RegistryView& view : kRegistryViews)
            examineEntry(view);
        if (registered_.empty()) return;
        const ProbeResult result = probe("cryptoapi", registered_);
        reportLoaded(result, "Run 'veltra register' with the right --dll, or reinstall");
    }

    void examineEntry(const RegistryView& view) {
        const std::string id = concat("registered", view.bits);
        const std::string who = std::string(view.programs) + ": ";
        // Programs of the other kind have a provider of their own, which need not be there.
        const Status ifMissing = view.isOwn() ? Status::Problem : Status::Note;
        const std::string registerAdvice =
            view.isOwn() ? "run 'veltra register' as administrator"
                         : concat("install the ", view.bits, "-bit provider if such programs use the token");
        const std::optional<CryptoApiEntry> entry = readCryptoApiEntry(provider_.name, view);
        if (!entry) {
            diagnosis_.add(ifMissing, id, who + "not registered", registerAdvice);
            return;
        }
        const std::filesystem::path file = findImage(entry->image);
        const std::string path = toUtf8(entry->image.native());
        const Json details = {{"path", path}, {"type", entry->type}, {"version", fileVersion(file)}};
        if (entry->image.empty() || entry->type != PROV_RSA_FULL) {
            diagnosis_.add(Status::Problem, id, who + "the registration is damaged", registerAdvice, details);
        } else if (file.empty()) {
            diagnosis_.add(Status::Problem, id, who + "registered, but there is no file " + path,
                           registerAdvice, details);
        } else if (fileBits(file) != view.bits) {
            diagnosis_.add(Status::Problem, id,
                           concat(who, "registered, but ", path, " is no ", view.bits, "-bit DLL"),
                           registerAdvice, details);
        } else {
            diagnosis_.ok(id, who + "registered, " + versionedPath(path, fileVersion(file)), details);
            (view.isOwn() ? registered_ : otherRegistered_) = file;
        }
    }

    static std::string versionedPath(const std::string& path, const std::string& version) {
        return path + (version.empty() ? "" : ", version " + version);
    }

    void reportLoaded(const ProbeResult& result, const std::string& advice) {
        const Json* file = result.find("file");
        const Json* keys = result.find("keys");
        if (file == nullptr) {
            reportEnd(result, "loads", "the provider", advice);
            return;
        }
        diagnosis_.ok("loads", "loads: " + versionedPath(text(*file, "path"), text(*file, "version")), *file);
        if (keys != nullptr) {
            diagnosis_.ok("keys", "lists the first token's keys: " + keys->dump(), {{"count", *keys}});
        } else {
            reportEnd(result, "keys", "the provider",
                      "see what the device library and the tokens have to say below, and 'veltra log'");
        }
    }

    // CNG.

    void examineCng() {
        diagnosis_.section("cng", "CNG");
        const ProbeResult registration = probe("cng-registration", {});
        const Json* answer = registration.find("registration");
        const auto status = answer != nullptr ? answer->value("status", NTSTATUS{-1}) : NTSTATUS{-1};
        if (status >= 0) {
            diagnosis_.ok("registered", "registered, " + text(*answer, "image"), *answer);
            const ProbeResult router = probe("router", {});
            if (reportEnd(router, "router", "CNG",
                          "reinstall, or run 'veltra unregister --cng' and register again")) {
                diagnosis_.ok("router", "CNG opens it");
            }
        } else if (status == kNotFound) {
            diagnosis_.add(Status::Problem, "registered", "not registered",
                           "run 'veltra register --cng' as administrator");
        } else {
            diagnosis_.add(
                Status::Note, "registered", "whether it is registered cannot be asked here",
                "this platform has no list of key storage providers; programs load the DLL themselves");
        }
        providerFile_ = findProviderFile();
        if (providerFile_.empty()) {
            diagnosis_.add(Status::Problem, "loads", "there is no VeltraCSP.dll to load",
                           "reinstall, or name the file with --dll");
            return;
        }
        reportLoaded(probe("cng", providerFile_), "reinstall, or name the right file with --dll");
    }

    /// The DLL that --dll names or that is beside this program, or else the registered one, or else the
    /// system's.
    [[nodiscard]] std::filesystem::path findProviderFile() const {
        try {
            return providerDll(provider_);
        } catch (const CommandError&) {
            if (!provider_.dll.empty()) return {};
            return registered_.empty() ? findImage(L"VeltraCSP.dll") : registered_;
        }
    }

    // The device library and what it tells.

    static constexpr const char* kWhere =
        "install the token maker's software, or put VeltraDSCLibrary.dll beside VeltraCSP.dll";
    static constexpr const char* kReplaceLibrary =
        "the library is too old or another one; install the token maker's present software";

    static std::string joined(const Json& texts) {
        std::string all;
        for (const Json& one : texts)
            all += (all.empty() ? "" : ", ") + one.get<std::string>();
        return all;
    }

    ProbeResult examineLibrary() {
        diagnosis_.section("library", "Device library");
        ProbeResult result = probe("library", registered_.empty() ? providerFile_ : registered_);
        const Json* library = result.find("library");
        if (library == nullptr) {
            reportEnd(result, "loads", "VeltraDSCLibrary.dll", kWhere);
            return result;
        }
        const std::string path = text(*library, "path");
        if (path.empty()) {
            diagnosis_.add(Status::Problem, "loads",
                           "VeltraDSCLibrary.dll cannot be loaded: " +
                               describeError(library->value("error", 0u)),
                           kWhere, *library);
            return result;
        }
        diagnosis_.ok("loads", versionedPath(path, text(*library, "version")), *library);
        const Json missing = library->value("missing", Json::array());
        if (missing.empty()) {
            diagnosis_.ok("complete", "has every function that the provider needs");
        } else {
            diagnosis_.add(Status::Problem, "complete", "lacks " + joined(missing), kReplaceLibrary,
                           {{"missing", missing}});
            return result;
        }
        const bool ended =
            reportEnd(result, "answers", "the device library",
                      "unplug the token and plug it in again; if that does not help, reinstall the "
                      "token maker's software");
        if (const Json* code = result.find("initialised"); ended && code != nullptr && *code != 0) {
            diagnosis_.add(
                Status::Problem, "answers", "veltra_init fails with code " + code->dump(),
                "restart the computer; if that does not help, reinstall the token maker's software");
        } else if (ended) {
            diagnosis_.ok("answers", "answers");
        }
        return result;
    }

    /// The device library that programs of the other kind find, if their provider is registered.
    void examineOtherLibrary() {
        if (otherRegistered_.empty()) return;
        const RegistryView& view = *std::ranges::find_if_not(kRegistryViews, &RegistryView::isOwn);
        const std::string id = concat("file", view.bits);
        const std::string who = std::string(view.programs) + ": ";
        const ProbeResult result = probe("other-library", otherRegistered_);
        if (!reportEnd(result, id, "the device library of " + std::string(view.programs), kWhere)) return;
        const Json* library = result.find("library");
        if (library == nullptr) {
            diagnosis_.add(Status::Note, id,
                           who + "no VeltraDSCLibrary.dll beside their provider or in the system's folder",
                           kWhere);
            return;
        }
        const std::string path = versionedPath(text(*library, "path"), text(*library, "version"));
        const Json missing = library->value("missing", Json::array());
        if (library->value("bits", 0u) != view.bits) {
            diagnosis_.add(Status::Problem, id, concat(who, path, " is no ", view.bits, "-bit DLL"),
                           concat("put the ", view.bits, "-bit VeltraDSCLibrary.dll in its place"), *library);
        } else if (!missing.empty()) {
            diagnosis_.add(Status::Problem, id, who + path + " lacks " + joined(missing), kReplaceLibrary,
                           *library);
        } else {
            diagnosis_.ok(id, who + path + ", has every function that the provider needs", *library);
        }
    }

    void examineTokens(const ProbeResult& library) {
        diagnosis_.section("tokens", "Tokens");
        for (const Json& token : library.all("token")) {
            diagnosis_.ok(
                "token",
                concat(text(token, "serial"), " '", text(token, "label"), "' ", text(token, "model"),
                       ": FIPS ", text(token, "fips"), ", firmware ", text(token, "firmware"),
                       token.value("session", false) ? ", session open" : ", no session: asks for the PIN"),
                token);
        }
        for (const Json& refusal : library.all("tokenRefusal")) {
            diagnosis_.add(Status::Problem, "token",
                           text(refusal, "serial") + " cannot be initialised: code " +
                               refusal.at("code").dump(),
                           "unplug the token and plug it in again", refusal);
        }
        const Json* connected = library.find("connected");
        if (connected == nullptr) {
            diagnosis_.add(Status::Note, "none", "cannot be asked for without the device library");
        } else if (*connected == 0) {
            diagnosis_.add(Status::Problem, "none", "no token is connected", "plug the token in");
        }
    }

    void examineKeys(const ProbeResult& library) {
        diagnosis_.section("keys", "Keys and certificates");
        std::vector<Json> certificates = library.all("certificate");
        for (const Json& key : library.all("key")) {
            keys_.push_back(key);
            const std::string id = text(key, "key");
            diagnosis_.ok("key",
                          concat(id, " ", text(key, "type"), ", ", text(key, "usage"), ", token ",
                                 text(key, "token"), containerText(id)),
                          key);
            for (const Json& certificate : certificates) {
                if (text(certificate, "key") == id) examineCertificate(certificate, "certificate of ");
            }
            std::erase_if(certificates, [&](const Json& it) { return text(it, "key") == id; });
        }
        for (const Json& certificate : certificates) {
            examineCertificate(certificate, "certificate without a key, ");
        }
        if (keys_.empty()) {
            diagnosis_.add(Status::Note, "none", "no keys", "'veltra generate-key' makes one");
        }
    }

    static std::string containerText(const std::string& keyId) {
        std::string names;
        for (const Container& container : containers()) {
            if (std::ranges::find(container.keyIds, toWide(keyId)) != container.keyIds.end()) {
                names += ", container '" + toUtf8(container.name) + "'";
            }
        }
        return names;
    }

    void examineCertificate(const Json& certificate, const std::string& what) {
        if (!certificate.value("readable", false)) {
            diagnosis_.add(Status::Problem, "certificate", what + text(certificate, "key") + ": damaged",
                           "import the certificate again with 'veltra import-certificate'", certificate);
            return;
        }
        const int days = certificate.value("daysLeft", 0);
        const std::string name = what + text(certificate, "subject") + ": ";
        const std::string until = "until " + text(certificate, "notAfter");
        if (days < 0) {
            diagnosis_.add(Status::Problem, "certificate", name + "expired, it was valid " + until,
                           "have a new certificate issued and import it with 'veltra import-certificate'",
                           certificate);
        } else if (certificate.value("daysUntilValid", 0) > 0) {
            diagnosis_.add(Status::Problem, "certificate",
                           name + "not valid before " + text(certificate, "notBefore"),
                           "check the date of this computer", certificate);
        } else if (days < kCertificateWarningDays) {
            diagnosis_.add(Status::Note, "certificate",
                           name + until + ", " + std::to_string(days) + " days left",
                           "have a new certificate issued", certificate);
        } else {
            diagnosis_.ok("certificate", name + until + ", " + std::to_string(days) + " days left",
                          certificate);
        }
    }

    // What is on this computer.

    static std::vector<Container> containers() {
        try {
            return readWholeContainerMap();
        } catch (const CommandError&) {
            return {};
        }
    }

    void examineContainerMap() {
        diagnosis_.section("containers", "Container map");
        const std::vector<Container> all = containers();
        for (const Container& container : all)
            examineContainer(container);
        if (all.empty()) diagnosis_.ok("none", "empty");
    }

    void examineContainer(const Container& container) {
        const std::string name = toUtf8(container.name);
        if (container.isDamaged) {
            diagnosis_.add(
                Status::Problem, "entry", concat("'", name, "' is damaged and stands for no key"),
                R"(delete the value in the registry, HKEY_CURRENT_USER\SOFTWARE\Veltra\CSP\Containers)",
                {{"container", name}, {"damaged", true}});
            return;
        }
        for (const std::wstring& wide : container.keyIds) {
            const std::string id = toUtf8(wide);
            const bool isHere =
                std::ranges::any_of(keys_, [&](const Json& key) { return text(key, "key") == id; });
            const Json details = {{"container", name}, {"key", id}, {"connected", isHere}};
            if (isHere) {
                diagnosis_.ok("entry", concat("'", name, "' stands for ", id), details);
            } else {
                // Nothing tells a key that is gone from one whose token is in a drawer.
                diagnosis_.add(
                    Status::Note, "entry",
                    concat("'", name, "' stands for ", id, ", which no connected token has"),
                    concat("plug in the token that has the key; if the key is gone, remove the entry with "
                           "'veltra delete-key --container \"",
                           name, "\" --yes'"),
                    details);
            }
        }
    }

    void examineLog() {
        diagnosis_.section("log", "Log");
        for (const RegistryView& view : kRegistryViews) {
            const std::optional<std::uint32_t> level = readLogLevel(view);
            const std::string line = std::string(view.programs) + ": " + logLevelMeaning(level);
            const Json details = {{"programs", view.programs}, {"level", level ? Json(*level) : Json()}};
            if (!level || *level == 2) {
                diagnosis_.ok("level", line, details);
            } else {
                diagnosis_.add(Status::Note, "level", line + concat(" (level ", *level, ")"),
                               "'veltra log-level default' makes it errors again", details);
            }
        }
        const std::filesystem::path folder = logFolder();
        const std::vector<LogFile> files = findLogFiles({});
        std::uintmax_t bytes = 0;
        for (const LogFile& file : files)
            bytes += file.size;
        const Json details = {{"path", toUtf8(folder.native())}, {"files", files.size()}, {"bytes", bytes}};
        if (isWritable(folder)) {
            diagnosis_.ok("folder",
                          concat(toUtf8(folder.native()), ", files: ", std::uint64_t{files.size()},
                                 ", bytes: ", std::uint64_t{bytes}),
                          details);
        } else {
            diagnosis_.add(Status::Problem, "folder", toUtf8(folder.native()) + " cannot be written",
                           "give the user write access to the folder", details);
        }
    }

    /// Whether a log file could be made there, or, while there is no log yet, beside it.
    static bool isWritable(const std::filesystem::path& folder) {
        std::error_code ignored;
        const std::filesystem::path existing =
            std::filesystem::is_directory(folder, ignored) ? folder : folder.parent_path().parent_path();
        const std::filesystem::path file =
            existing / (L"veltra-doctor-" + std::to_wstring(GetCurrentProcessId()));
        return ownFile(CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                   FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr)) != nullptr;
    }

    // A signature.

    void examineSignatures() {
        diagnosis_.section("signature", "Signature");
        if (!options_.sign) {
            diagnosis_.ok("skipped", "not made; 'veltra doctor --sign' makes one");
            return;
        }
        const std::wstring container = options_.container.empty() ? signingKey() : options_.container;
        if (container.empty()) {
            diagnosis_.add(Status::Problem, "key", "there is no RSA key to sign with",
                           "name the key with --container, or make one with 'veltra generate-key'");
            return;
        }
        // A PIN that one interface refuses is not tried a second time: wrong ones lock the token.
        if (signBy("cryptoapi", "CryptoAPI", {}, container)) {
            signBy("cng", "CNG", {L"--cng"}, container);
        }
    }

    [[nodiscard]] std::wstring signingKey() const {
        const auto found = std::ranges::find_if(keys_, [](const Json& key) {
            const std::string usage = text(key, "usage");
            return text(key, "type").starts_with("RSA") && (usage == "sign" || usage == "both");
        });
        return found != keys_.end() ? toWide(text(*found, "key")) : std::wstring();
    }

    /// False when the token did not accept the PIN.
    bool signBy(const std::string& id, const std::string& name, std::vector<std::wstring> arguments,
                const std::wstring& container) {
        arguments.insert(arguments.end(), {L"--pin-stdin", L"--sign", L"--container", container});
        const ProbeResult result =
            probe("signature", id == "cng" ? providerFile_ : registered_, arguments, provider_.pin);
        const Json details = {{"key", toUtf8(container)}, {"step", result.step}};
        const Json* verified = result.find("verified");
        if (verified != nullptr && *verified == true) {
            diagnosis_.ok(id, name + ": a signature with " + toUtf8(container) + " was made and verified",
                          details);
        } else if (verified != nullptr) {
            diagnosis_.add(Status::Problem, id, name + ": the signature does not verify",
                           "the token or its certificate is damaged; call its maker", details);
        } else {
            reportEnd(result, id, name, "check the PIN, the key ('veltra list-keys') and 'veltra log'");
        }
        return result.find("pinAccepted") != nullptr;
    }

    ProviderChoice provider_;
    DoctorOptions options_;
    Output& out_;
    Diagnosis diagnosis_;
    std::filesystem::path registered_;      ///< the DLL that CryptoAPI loads; empty: none
    std::filesystem::path otherRegistered_; ///< the same for programs of the other kind, 32 or 64 bits
    std::filesystem::path providerFile_;    ///< the DLL that was examined for CNG
    std::vector<Json> keys_;                ///< on all tokens
};

} // namespace

int diagnose(const ProviderChoice& provider, const DoctorOptions& options, Output& out) {
    return Doctor(provider, options, out).examine();
}

} // namespace veltra
