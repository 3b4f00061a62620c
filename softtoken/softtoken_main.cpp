// softtoken.exe: makes and manages the tokens that VeltraDSCLibrary.dll presents. It works on the same files
// and does not load the DLL.

#include "aes_key_store.h"
#include "certificate_files.h"
#include "certificate_store.h"
#include "key_store.h"
#include "pin_input.h"
#include "pin_vault.h"
#include "session.h"
#include "text_encoding.h"
#include "token_operations.h"
#include "token_store.h"
#include "x509.h"

#include <CLI.hpp>
#include <algorithm>
#include <cctype>
#include <iomanip>
#include <iostream>
#include <map>
#include <memory>

using namespace veltra;
using namespace veltra::softtoken;

namespace {

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

constexpr std::uint32_t kMaxSeconds = 366u * 24 * 3600;

const std::map<std::string, FipsGeneration> kFipsNames = {{"140-2", FipsGeneration::Fips1402},
                                                          {"140-3", FipsGeneration::Fips1403}};

constexpr const char* kAbout =
    "Makes and manages software tokens: signing tokens without hardware, for development and tests.\n"
    "Their keys lie in files of this user account, sealed under the PIN. Do not use them for keys that "
    "matter.";

constexpr const char* kFooter = R"(
Tokens lie in the folder that VELTRA_SOFTTOKEN_HOME names, or else in
%LOCALAPPDATA%\Veltra\SoftToken. Programs that use them see each change at once.

Examples:
  echo 123456| softtoken create --serial DEV-1 --pin-stdin
  softtoken create --serial DEV-2 --pin-env TOKEN_PIN --fips 140-3 --firmware 1.9.0
  softtoken show DEV-1
  softtoken login DEV-1 --pin-env TOKEN_PIN --seconds 600
  softtoken set DEV-1 --session-seconds 30 --clock-mismatch on
  softtoken import-certificate DEV-1 chain.pem
  softtoken unplug DEV-1
  softtoken delete DEV-1 --yes

"softtoken COMMAND --help" explains a command. Exit code: 0 done, 1 failed, 2 wrong usage.
)";

const char* fipsName(FipsGeneration generation) {
    return generation == FipsGeneration::Fips1402 ? "140-2" : "140-3";
}

/// What a person can do about a failure; empty when the message says it all.
const char* adviceFor(Failure failure) {
    switch (failure) {
    case Failure::NoSuchToken:
        return R"("softtoken list" shows the tokens; "softtoken plug" plugs one in.)";
    case Failure::AlreadyExists:
        return "Choose another serial, or delete the token first.";
    case Failure::PinLocked:
        return R"("softtoken unblock" gives the attempts back.)";
    case Failure::TimeMismatch:
        return R"("softtoken set SERIAL --clock-mismatch off" ends the mismatch.)";
    case Failure::Damaged:
        return "Nothing was changed. Restore the file from a copy, or delete the token.";
    case Failure::Storage:
        return "Check that the folder exists and that you may write to it.";
    case Failure::Busy:
        return "End the program that holds the token, or try again.";
    default:
        return "";
    }
}

template <class Change>
void changeDescription(const TokenFolder& token, Change change) {
    const FileLock lock = token.lock();
    TokenDescription description = token.description();
    change(description);
    token.saveDescription(description);
}

std::string keyTypeName(const KeyKind& kind) {
    return kind.isRsa() ? "RSA-" + std::to_string(kind.bits) : std::string(kind.curve).replace(0, 5, "EC ");
}

const char* usageName(std::uint32_t usage) {
    switch (usage) {
    case kUsageSign:
        return "sign";
    case kUsageEncrypt:
        return "encrypt";
    case kUsageBoth:
        return "sign, encrypt";
    default:
        return "other";
    }
}

// -- What the commands do ---------------------------------------------------------------------------------

void listAll() {
    for (const TokenDescription& token : listTokens()) {
        std::cout << std::left << std::setw(24) << token.serial << "  FIPS " << fipsName(token.fips)
                  << "  firmware " << std::setw(8) << token.firmware << "  "
                  << (token.plugged ? "plugged in" : "unplugged") << '\n';
    }
}

void show(const std::string& serial) {
    const TokenFolder token(serial);
    const TokenDescription description = token.description();
    const auto line = [](const char* name) -> std::ostream& {
        return std::cout << std::left << std::setw(16) << name << ' ';
    };
    const std::uint64_t secondsLeft = singleSignOnSecondsLeft(token, description);
    line("Serial") << description.serial << '\n';
    line("Label") << description.label << '\n';
    line("FIPS") << fipsName(description.fips) << '\n';
    line("Firmware") << description.firmware << '\n';
    line("Plugged in") << (description.plugged ? "yes" : "no") << '\n';
    line("PIN attempts") << PinVault(token.path()).attemptsLeft() << " left\n";
    line("Session") << (description.sessionSeconds == 0 ? "as long as the process"
                                                        : std::to_string(description.sessionSeconds) + " s")
                    << '\n';
    line("Single sign-on") << (secondsLeft == 0 ? "none" : std::to_string(secondsLeft) + " s left") << '\n';
    line("Clock mismatch") << (description.clockMismatch ? "on" : "off") << '\n';
    for (const StoredKeyPair& key : KeyStore(token).list()) {
        line("Key") << toHex(key.keyId) << "  " << keyTypeName(*findKeyKind(key.type)) << "  "
                    << usageName(key.usage) << "  " << key.label << '\n';
    }
    for (const StoredAesKey& key : AesKeyStore(token).list()) {
        line("AES key") << toHex(key.keyId) << "  AES-" << key.keyLength * 8 << "  " << key.label << '\n';
    }
    for (const StoredCertificate& certificate : CertificateStore(token).list()) {
        line("Certificate") << toHex(certificate.keyId) << "  " << certificateDetails(certificate.der).subject
                            << "  " << certificate.label << '\n';
    }
}

/// The identifier of the key pair that a certificate is for: with the digits that were given, or else with
/// the certified public key. Empty when the token has no key pair for the certificate.
Bytes findKeyId(const TokenFolder& token, std::string digits, BytesView der) {
    std::ranges::transform(digits, digits.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    const Bytes publicKey = certifiedPublicKey(der);
    for (StoredKeyPair& key : KeyStore(token).list()) {
        if (digits.empty() ? key.publicKey == publicKey : toHex(key.keyId) == digits)
            return std::move(key.keyId);
    }
    if (!digits.empty()) throw TokenError(Failure::NoSuchKey, "there is no key pair " + digits);
    return {};
}

void importCertificates(const std::string& serial, const std::string& file, const std::string& keyDigits) {
    const TokenFolder token(serial);
    static_cast<void>(token.description());
    const std::vector<Bytes> certificates = readCertificateFile(fromSystemCodePage(file));
    if (certificates.empty()) {
        throw TokenError(Failure::BadArgument, file + " cannot be read or has no certificate in it");
    }
    if (!keyDigits.empty() && certificates.size() > 1) {
        throw TokenError(Failure::BadArgument,
                         file + " has several certificates in it; a key pair has only one");
    }
    const FileLock lock = token.lock();
    for (const Bytes& der : certificates) {
        const Bytes keyId = findKeyId(token, keyDigits, der);
        static_cast<void>(CertificateStore(token).put(keyId, "", der));
        std::cout << "Stored " << certificateDetails(der).subject
                  << (keyId.empty() ? ", which is for no key pair of the token"
                                    : " for the key pair " + toHex(keyId))
                  << '\n';
    }
}

void logInOrExplain(const std::string& serial, const SecureBytes& pin, std::uint32_t seconds) {
    std::uint32_t left = 0;
    try {
        logIn(serial, textOf(pin), seconds, left);
    } catch (const TokenError& error) {
        if (error.failure() != Failure::WrongPin) throw;
        throw TokenError(Failure::WrongPin,
                         std::string(error.what()) + "; " + std::to_string(left) + " attempts left");
    }
}

void logOut(const std::string& serial) {
    const TokenFolder token(serial);
    static_cast<void>(token.description());
    endSingleSignOn(token);
}

void unblock(const std::string& serial) {
    const TokenFolder token(serial);
    static_cast<void>(token.description());
    const FileLock lock = token.lock();
    PinVault(token.path()).unblock();
}

void changePin(const std::string& serial, const PinInput& oldPin, const PinInput& newPin) {
    const TokenFolder token(serial);
    const TokenDescription description = token.description();
    const SecureBytes oldText = oldPin.read();
    const SecureBytes newText = newPin.read();
    const FileLock lock = token.lock();
    PinVault(token.path()).change(description.tokenId, textOf(oldText), textOf(newText));
}

// -- The command line -------------------------------------------------------------------------------------

void addSerial(CLI::App& command, std::string& serial) {
    command.add_option("SERIAL", serial, "The token")->required();
}

template <class Action>
void addSimpleCommand(CLI::App& app, const char* name, const char* about, Action action) {
    CLI::App* command = app.add_subcommand(name, about);
    auto serial = std::make_shared<std::string>();
    addSerial(*command, *serial);
    command->callback([serial, action] { action(*serial); });
}

/// Options that describe a token, common to "create" and "set"; what is not given stays empty.
struct DescriptionOptions {
    std::optional<std::string> label, firmware, clockMismatch;
    std::optional<std::string> fips;
    std::optional<std::uint32_t> sessionSeconds;

    void addTo(CLI::App& command) {
        command.add_option("--label", label, "Text that programs show for the token, up to 128 bytes")
            ->type_name("TEXT");
        command
            .add_option("--fips", fips,
                        "140-2, or 140-3, which refuses to sign MD5 and SHA-1 (default 140-2)")
            ->check(CLI::IsMember(kFipsNames))
            ->type_name("GENERATION");
        command.add_option("--firmware", firmware, "Firmware version (default 2.1.0)")->type_name("VERSION");
        command
            .add_option("--session-seconds", sessionSeconds,
                        "How long a program can work after a PIN; 0: no limit (default 0)")
            ->check(CLI::Range(0u, kMaxSeconds))
            ->type_name("N");
        command
            .add_option("--clock-mismatch", clockMismatch, "on: refuse every PIN with code 48 (default off)")
            ->check(CLI::IsMember({"on", "off"}))
            ->type_name("on|off");
    }

    void applyTo(TokenDescription& description) const {
        if (label) description.label = *label;
        if (fips) description.fips = kFipsNames.at(*fips);
        if (firmware) description.firmware = *firmware;
        if (sessionSeconds) description.sessionSeconds = *sessionSeconds;
        if (clockMismatch) description.clockMismatch = *clockMismatch == "on";
    }

    [[nodiscard]] bool empty() const {
        return !label && !fips && !firmware && !sessionSeconds && !clockMismatch;
    }
};

void addCreate(CLI::App& app) {
    struct Options {
        std::string serial;
        DescriptionOptions description;
        PinInput pin;
        std::uint32_t attempts = kDefaultAttempts;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("create", "Make a token and plug it in");
    command
        ->add_option("--serial", options->serial,
                     "Its name: 1 to 64 letters, digits, '-', '_' or '.', not in front or at the end")
        ->required();
    options->pin.addOptions(*command, "pin", "PIN (4 to 63 characters)");
    command->add_option("--attempts", options->attempts, "Wrong PINs until it is locked (default 10)")
        ->check(CLI::Range(1u, kMaxAttempts))
        ->type_name("N");
    options->description.addTo(*command);
    command->callback([options] {
        TokenDescription description;
        description.serial = options->serial;
        description.label = options->serial;
        options->description.applyTo(description);
        createToken(description, textOf(options->pin.read()), options->attempts);
        std::cout << "Created the token " << options->serial << " in " << homeFolder().string() << '\n';
    });
}

void addSet(CLI::App& app) {
    auto serial = std::make_shared<std::string>();
    auto options = std::make_shared<DescriptionOptions>();
    CLI::App* command = app.add_subcommand("set", "Change what a token says about itself and how it behaves");
    addSerial(*command, *serial);
    options->addTo(*command);
    command->callback([serial, options] {
        if (options->empty())
            throw TokenError(Failure::BadArgument, "nothing to set; see softtoken set --help");
        changeDescription(TokenFolder(*serial), [&](TokenDescription& token) { options->applyTo(token); });
    });
}

void addLogin(CLI::App& app) {
    struct Options {
        std::string serial;
        PinInput pin;
        std::uint32_t seconds = 3600;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "login", "Single sign-on: let all programs of this user work without a PIN for a time");
    addSerial(*command, options->serial);
    options->pin.addOptions(*command, "pin", "PIN");
    command->add_option("--seconds", options->seconds, "For how long (default 3600)")
        ->check(CLI::Range(1u, kMaxSeconds))
        ->type_name("N");
    command->callback([options] { logInOrExplain(options->serial, options->pin.read(), options->seconds); });
}

void addChangePin(CLI::App& app) {
    struct Options {
        std::string serial;
        PinInput oldPin, newPin;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand("change-pin", "Replace the PIN; a wrong old PIN costs an attempt");
    addSerial(*command, options->serial);
    options->oldPin.addOptions(*command, "pin", "Old PIN");
    options->newPin.addOptions(*command, "new-pin", "New PIN (4 to 63 characters)");
    command->callback([options] { changePin(options->serial, options->oldPin, options->newPin); });
}

void addImportCertificate(CLI::App& app) {
    struct Options {
        std::string serial, file, key;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "import-certificate", "Store certificates; each takes the place of the one that its key pair had");
    addSerial(*command, options->serial);
    command->add_option("FILE", options->file, "PEM, with one or more certificates, or DER")->required();
    command
        ->add_option("--key", options->key,
                     "Identifier of the key pair it is for (default: the one with its public key; a "
                     "certificate of no key pair is stored too)")
        ->type_name("ID");
    command->callback([options] { importCertificates(options->serial, options->file, options->key); });
}

void addDelete(CLI::App& app) {
    auto serial = std::make_shared<std::string>();
    auto confirmed = std::make_shared<bool>(false);
    CLI::App* command = app.add_subcommand("delete", "Delete a token with all its keys, for good");
    addSerial(*command, *serial);
    command->add_flag("--yes", *confirmed, "Confirms it");
    command->callback([serial, confirmed] {
        if (!*confirmed) {
            throw TokenError(Failure::BadArgument,
                             "this deletes all keys of " + *serial + "; add --yes if that is what you want");
        }
        deleteToken(TokenFolder(*serial));
    });
}

void addCommands(CLI::App& app) {
    addCreate(app);
    app.add_subcommand("list", "List all tokens, unplugged ones too")->callback(listAll);
    addSimpleCommand(app, "show", "Show a token with its state, keys and certificates", show);
    addSimpleCommand(app, "plug", "Plug a token in",
                     [](const std::string& serial) { setPlugged(TokenFolder(serial), true); });
    addSimpleCommand(app, "unplug", "Pull a token out; its sessions end",
                     [](const std::string& serial) { setPlugged(TokenFolder(serial), false); });
    addLogin(app);
    addSimpleCommand(app, "logout", "End single sign-on", logOut);
    addSet(app);
    addChangePin(app);
    addImportCertificate(app);
    addSimpleCommand(app, "unblock",
                     "Give all PIN attempts back; a real token would ask for an unblocking PIN", unblock);
    addDelete(app);
}

int run(int argc, char** argv) {
    CLI::App app(kAbout, "softtoken");
    app.require_subcommand(1);
    addCommands(app);
    app.footer(kFooter); // after the commands, which would take it over
    try {
        app.parse(argc, argv);
        return 0;
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kExitUsage;
    } catch (const TokenError& error) {
        std::cerr << "softtoken: " << error.what() << ".\n";
        if (const std::string advice = adviceFor(error.failure()); !advice.empty())
            std::cerr << advice << '\n';
        return error.failure() == Failure::BadArgument ? kExitUsage : kExitFailure;
    }
}

} // namespace

int main(int argc, char** argv) {
    setReporter([](const char* line) { std::cerr << "softtoken: " << line << '\n'; });
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "softtoken: " << error.what() << '\n';
        return kExitFailure;
    }
}
