// veltra: uses the tokens behind the Veltra provider as any application would, through the system's CryptoAPI
// or, as the system's CNG does, through the function table of the key storage provider.

#include "commands.h"
#include "error_text.h"
#include "wide_text.h"

#include <CLI.hpp>

#include <shellapi.h>

#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>

namespace veltra {
namespace {

constexpr const char* kFooter = R"(
Exit codes: 0 success, 1 the operation failed, 2 wrong usage, 3 the signature does not verify.
The provider asks for the PIN in a window of its own. For unattended use give the PIN
with --pin-stdin or --pin-env, or log the token in first (the software token: softtoken login SERIAL). 'veltra COMMAND --help' tells a command's options.)";

/// What the command line gives as UTF-8 text, before the commands see it.
struct CommandLine {
    std::string provider;
    bool silent = false;
    bool pinFromInput = false;
    std::string pinVariable;
    std::string dll;
    std::string container;
    std::string usage = "sign";
    std::string subject;
    std::string out;
    std::string file;
    std::string signature;
    std::string certificate;
    std::string hash = "sha256";
    DWORD bits = 2048;
    DWORD length = 0;
    int days = 365;
    bool cms = false;
    bool raw = false;
    std::string oaepHash = "sha1";
    std::string algorithm = "RSA";
    std::string blobType = "PEM";
    std::string peer;
    std::string derivation = "HASH";
    std::string label;
    std::string context;
    bool oaep = false;
    bool pss = false;
    bool der = false;
    bool cng = false;
    bool withoutAttributes = false;
    bool confirmed = false;
};

std::filesystem::path pathOf(const std::string& text) {
    return {toWide(text)};
}

/// The command chosen on the command line, ready to run.
using Action = std::function<int(const ProviderChoice&)>;

const auto kNotEmpty = CLI::Validator(
    [](const std::string& text) { return text.empty() ? std::string("must not be empty") : std::string(); },
    "");

void addContainer(CLI::App& command, CommandLine& line, const std::string& help) {
    command.add_option("--container", line.container, help)->check(kNotEmpty)->type_name("NAME");
}

std::vector<std::string> hashNames() {
    std::vector<std::string> names;
    for (const HashAlgorithm& algorithm : hashAlgorithms()) {
        names.emplace_back(algorithm.name);
    }
    return names;
}

void addHash(CLI::App& command, CommandLine& line) {
    command.add_option("--hash", line.hash, "Hash algorithm; SHA-1 works only on a FIPS 140-2 token")
        ->check(CLI::IsMember(hashNames()))
        ->capture_default_str();
}

void addSignatureForm(CLI::App& command, CommandLine& line) {
    addHash(command, line);
    command.add_flag("--pss", line.pss, "RSA: PSS instead of PKCS#1 v1.5 padding; needs --raw and --cng");
    command.add_flag("--der", line.der, "EC: the signature in DER instead of r and s; needs --raw and --cng");
}

SignatureScheme schemeOf(const CommandLine& line) {
    if ((line.pss || line.der) && !(line.raw && line.cng)) {
        throw CLI::ValidationError("--pss and --der need --raw and --cng");
    }
    return {findHashAlgorithm(line.hash), line.pss ? SignaturePadding::Pss : SignaturePadding::Pkcs1};
}

void addRegistration(CLI::App& app, Action& action) {
    app.add_subcommand("csp-register", "Make the provider known to CryptoAPI on this computer")
        ->callback([&] { action = registerProvider; });
    app.add_subcommand("csp-unregister", "Take that back")->callback([&] { action = unregisterProvider; });
    app.add_subcommand("register", "Make the provider known to CNG on this computer")->callback([&] {
        action = registerKeyStorage;
    });
    app.add_subcommand("unregister", "Take that back")->callback([&] { action = unregisterKeyStorage; });
}

/// CNG's key storage functions offer no such thing.
void requireCryptoApi(const CommandLine& line) {
    if (line.cng) {
        throw CLI::ValidationError("this command needs CryptoAPI; leave --cng out");
    }
}

void addKeys(CLI::App& app, CommandLine& line, Action& action) {
    app.add_subcommand("keys",
                       "List your containers and the keys behind them, and the first token's other keys")
        ->callback([&] { action = listKeys; });

    auto* keygen = app.add_subcommand("keygen", "Generate a key on the token, in a new container");
    addContainer(*keygen, line, "Name of the new container; with --cng there is none");
    keygen->add_option("--algorithm", line.algorithm, "The kind of key; other than RSA with --cng")
        ->check(CLI::IsMember(
            {"RSA", "ECDSA_P256", "ECDSA_P384", "ECDSA_P521", "ECDH_P256", "ECDH_P384", "ECDH_P521"}))
        ->capture_default_str();
    keygen->add_option("--bits", line.bits, "Length of an RSA key")
        ->check(CLI::IsMember({2048, 3072, 4096}))
        ->capture_default_str();
    keygen->add_option("--usage", line.usage, "What the key is for")
        ->check(CLI::IsMember({"sign", "exchange"}))
        ->capture_default_str();
    keygen->callback([&] {
        if (line.cng != line.container.empty() || (line.algorithm != "RSA" && !line.cng)) {
            throw CLI::ValidationError(
                "give --container, or --cng: CNG has no containers, CryptoAPI only RSA keys");
        }
        action = [&](const ProviderChoice& provider) {
            const DWORD keySpec = line.usage == "sign" ? AT_SIGNATURE : AT_KEYEXCHANGE;
            if (provider.cng) {
                return generateStorageKey(provider, {toWide(line.algorithm), line.bits, keySpec});
            }
            return generateKey(provider, {toWide(line.container), line.bits, keySpec});
        };
    });

    auto* remove = app.add_subcommand("delete-container",
                                      "Delete a container with its keys, for good; with --cng, one key")
                       ->alias("delete");
    remove->add_option("container", line.container, "Name of the container")->required()->check(kNotEmpty);
    remove->add_flag("--yes", line.confirmed, "Really delete");
    remove->callback([&] {
        action = [&](const ProviderChoice& provider) {
            const DeleteContainerOptions options{toWide(line.container), line.confirmed};
            return provider.cng ? deleteStorageKey(provider, options) : deleteContainer(provider, options);
        };
    });
}

void addCertificate(CLI::App& app, CommandLine& line, Action& action) {
    constexpr int kMostDays = 36500;
    auto* command = app.add_subcommand("certificate", "Make a self-signed certificate for a container's key");
    addContainer(*command, line, "The container");
    command->get_option("--container")->required();
    command->add_option("--subject", line.subject, "Distinguished name, such as \"CN=Example\"")
        ->required()
        ->check(kNotEmpty);
    command->add_option("--days", line.days, "Days of validity")
        ->check(CLI::Range(1, kMostDays))
        ->capture_default_str();
    command->add_option("--out", line.out, "The certificate, PEM")->required()->type_name("FILE");
    command->callback([&] {
        action = [&](const ProviderChoice& provider) {
            return createCertificate(
                provider, {toWide(line.container), toWide(line.subject), line.days, pathOf(line.out)});
        };
    });
}

void addSign(CLI::App& app, CommandLine& line, Action& action) {
    auto* command = app.add_subcommand("sign", "Sign a file with a container's key");
    command->add_option("file", line.file, "The file to sign")->required();
    addContainer(*command, line, "The container");
    command->get_option("--container")->required();
    auto* form = command->add_option_group("form", "What to write");
    form->add_flag("--cms", line.cms, "A detached CMS message in DER; needs --certificate");
    form->add_flag("--raw", line.raw, "The bare signature, big-endian");
    form->require_option(1);
    command->add_option("--certificate", line.certificate, "The key's certificate, PEM or DER")
        ->type_name("FILE");
    command->add_flag("--no-attributes", line.withoutAttributes, "CMS: sign the file's hash directly");
    command->add_option("--out", line.out, "The signature")->required()->type_name("FILE");
    addSignatureForm(*command, line);
    command->callback([&] {
        if (line.cms && line.certificate.empty()) {
            throw CLI::ValidationError("--cms needs --certificate");
        }
        const SignatureScheme scheme = schemeOf(line);
        action = [&, scheme](const ProviderChoice& provider) {
            return signFile(provider,
                            {pathOf(line.file), toWide(line.container), line.raw, !line.withoutAttributes,
                             pathOf(line.certificate), scheme, line.der, pathOf(line.out)});
        };
    });
}

void addVerify(CLI::App& app, CommandLine& line, Action& action) {
    auto* command = app.add_subcommand("verify", "Check a signature over a file");
    command->add_option("file", line.file, "The signed file")->required();
    command->add_option("--signature", line.signature, "The CMS message or bare signature")
        ->required()
        ->type_name("FILE");
    command->add_flag("--raw", line.raw, "A bare signature, big-endian; needs --certificate or --container");
    command
        ->add_option("--certificate,--public-key", line.certificate,
                     "The signer's certificate, or for --raw the public key, PEM or DER")
        ->type_name("FILE");
    addContainer(*command, line, "The container whose key signed");
    addSignatureForm(*command, line);
    command->callback([&] {
        if (line.raw && line.certificate.empty() && line.container.empty()) {
            throw CLI::ValidationError("--raw needs --certificate or --container");
        }
        const SignatureScheme scheme = schemeOf(line);
        action = [&, scheme](const ProviderChoice& provider) {
            return verifyFile(provider, {pathOf(line.file), pathOf(line.signature), line.raw,
                                         toWide(line.container), pathOf(line.certificate), scheme, line.der});
        };
    });
}

void addEncryption(CLI::App& app, CommandLine& line, Action& action) {
    const auto optionsOf = [&line] {
        const EncryptionScheme scheme{line.oaep ? findHashAlgorithm(line.oaepHash) : nullptr};
        return EncryptionOptions{
            pathOf(line.file), toWide(line.container), pathOf(line.out), scheme, pathOf(line.peer), line.cms};
    };
    const auto add = [&](const char* name, const char* help) {
        auto* command = app.add_subcommand(name, help);
        command->add_option("file", line.file, "The input file")->required();
        addContainer(*command, line, "The container");
        auto* oaep = command->add_flag("--oaep", line.oaep, "RSA: OAEP instead of PKCS#1 v1.5 padding");
        command
            ->add_option("--oaep-hash", line.oaepHash, "Hash algorithm of OAEP; other than sha1 with --cng")
            ->needs(oaep)
            ->check(CLI::IsMember(hashNames()))
            ->capture_default_str();
        command->add_option("--out", line.out, "The result")->required()->type_name("FILE");
        return command;
    };
    auto* encrypt = add("encrypt", "Encrypt a few bytes to a container's RSA key; big-endian");
    encrypt->add_option("--public-key", line.peer, "Instead of --container: a public key or certificate")
        ->type_name("FILE");
    encrypt->callback([&, optionsOf] {
        if (line.container.empty() == line.peer.empty()) {
            throw CLI::ValidationError("give --container or --public-key");
        }
        action = [optionsOf](const ProviderChoice& provider) { return encryptFile(provider, optionsOf()); };
    });
    auto* decrypt = add("decrypt", "Decrypt what was encrypted to a container's RSA key");
    decrypt->get_option("--container")->required();
    decrypt
        ->add_flag("--cms", line.cms, "An enveloped CMS message in DER, its content encrypted with AES-CBC")
        ->excludes("--oaep");
    decrypt->callback([&, optionsOf] {
        if (line.cms) {
            requireCryptoApi(line);
        }
        action = [optionsOf](const ProviderChoice& provider) { return decryptFile(provider, optionsOf()); };
    });
}

void addAgreement(CLI::App& app, CommandLine& line, Action& action) {
    constexpr DWORD kMostDerivedBytes = 64;
    auto* agree = app.add_subcommand(
        "agree", "CNG: derive a key from the secret of a container's EC key and a peer's public key");
    addContainer(*agree, line, "The container");
    agree->get_option("--container")->required();
    agree->add_option("--peer", line.peer, "The peer's public key or certificate, PEM or DER")
        ->required()
        ->type_name("FILE");
    agree
        ->add_option("--kdf", line.derivation,
                     "HASH: of the secret; SP800_56ACONCAT: of label, context, secret")
        ->check(CLI::IsMember({"HASH", "SP800_56ACONCAT"}))
        ->capture_default_str();
    addHash(*agree, line);
    agree->add_option("--label", line.label, "Text, for SP800_56ACONCAT");
    agree->add_option("--context", line.context, "Text, for SP800_56ACONCAT");
    agree
        ->add_option("--length", line.length,
                     "Leading bytes to take; at most the digest, by default all of it")
        ->check(CLI::Range(DWORD{1}, kMostDerivedBytes));
    agree->add_option("--out", line.out, "Write the key to this file instead of its digits to the output")
        ->type_name("FILE");
    agree->callback([&] {
        action = [&](const ProviderChoice& provider) {
            return agreeOnKey(provider, {toWide(line.container), pathOf(line.peer), toWide(line.derivation),
                                         findHashAlgorithm(line.hash), line.label, line.context, line.length,
                                         pathOf(line.out)});
        };
    });
}

void addBlobs(CLI::App& app, CommandLine& line, Action& action) {
    auto* store = app.add_subcommand(
        "import", "CNG: import a key blob; AES keys stay on the token, public keys are only looked at");
    store->add_option("file", line.file, "The blob")->required();
    store->add_option("--blob", line.blobType, "CNG's name of the blob's type, such as KeyDataBlob")
        ->required();
    addContainer(*store, line, "The container whose key encrypted the blob, if one did");
    store->callback([&] {
        action = [&](const ProviderChoice& provider) {
            return importKeyBlob(provider,
                                 {toWide(line.container), toWide(line.blobType), pathOf(line.file)});
        };
    });

    auto* write = app.add_subcommand("export", "CNG: write a container's public key");
    addContainer(*write, line, "The container");
    write->get_option("--container")->required();
    write->add_option("--blob", line.blobType, "CNG's name of the blob's type, such as RSAPUBLICBLOB, or PEM")
        ->capture_default_str();
    write->add_option("--out", line.out, "The public key")->required()->type_name("FILE");
    write->callback([&] {
        action = [&](const ProviderChoice& provider) {
            return exportKeyBlob(provider, {toWide(line.container), toWide(line.blobType), pathOf(line.out)});
        };
    });
}

void addToken(CLI::App& app, CommandLine& line, Action& action) {
    constexpr DWORD kMostRandomBytes = 1024 * 1024;
    auto* random = app.add_subcommand("random", "Random bytes, in hexadecimal unless --out is given");
    random->add_option("length", line.length, "Number of bytes")
        ->required()
        ->check(CLI::Range(DWORD{1}, kMostRandomBytes));
    random->add_option("--out", line.out, "Write the bytes to this file")->type_name("FILE");
    random->callback([&] {
        requireCryptoApi(line);
        action = [&](const ProviderChoice& provider) {
            return makeRandom(provider, {line.length, pathOf(line.out)});
        };
    });

    app.add_subcommand("info", "Show what the provider says about itself and the token")->callback([&] {
        action = line.cng ? showStorageProvider : showProvider;
    });
}

void addTokenCertificates(CLI::App& app, CommandLine& line, Action& action) {
    app.add_subcommand("certs",
                       "List the certificates of the first token's keys and of your containers' keys")
        ->callback([&] { action = listCertificates; });

    auto* store =
        app.add_subcommand("import-cert", "Store a key's certificate, and its issuers, on the token");
    addContainer(*store, line, "The container");
    store->get_option("--container")->required();
    store->add_option("file", line.file, "The certificate, PEM or DER")->required();
    store->callback([&] {
        action = [&](const ProviderChoice& provider) {
            return importCertificate(provider, {toWide(line.container), pathOf(line.file)});
        };
    });

    auto* chain = app.add_subcommand("chain", "Write a key's certificate chain as a PKCS #7 message");
    addContainer(*chain, line, "The container");
    chain->get_option("--container")->required();
    chain->add_option("--out", line.out, "The chain, DER, root first")->required()->type_name("FILE");
    chain->callback([&] {
        requireCryptoApi(line);
        action = [&](const ProviderChoice& provider) {
            return writeChain(provider, {toWide(line.container), pathOf(line.out)});
        };
    });
}

/// The PIN that the options name, wiped when its last owner lets go of it; null if they name none.
std::shared_ptr<const std::string> readPin(const CommandLine& line) {
    if (!line.pinFromInput && line.pinVariable.empty()) {
        return nullptr;
    }
    const std::shared_ptr<std::string> pin(new std::string, [](std::string* text) {
        SecureZeroMemory(text->data(), text->size());
        delete text;
    });
    if (line.pinFromInput) {
        std::getline(std::cin, *pin);
        std::erase(*pin, '\r');
        // NOLINTNEXTLINE(concurrency-mt-unsafe): this process has one thread of its own, and sets no variable
    } else if (const char* value = std::getenv(line.pinVariable.c_str())) {
        *pin = value;
    }
    if (pin->empty()) {
        throw CommandError("there is no PIN where the options say that it is", kExitUsage);
    }
    return pin;
}

/// The arguments of this process in UTF-8, last first, as CLI::App::parse takes them.
std::vector<std::string> reversedArguments() {
    struct Freer {
        void operator()(wchar_t** block) const { LocalFree(block); }
    };
    int count = 0;
    const std::unique_ptr<wchar_t*[], Freer> arguments(CommandLineToArgvW(GetCommandLineW(), &count));
    std::vector<std::string> reversed;
    for (int index = count - 1; arguments && index > 0; --index) {
        reversed.push_back(toUtf8(arguments[static_cast<std::size_t>(index)]));
    }
    return reversed;
}

int run() {
    CommandLine line;
    Action action;
    ProviderChoice provider;
    line.provider = toUtf8(provider.name);

    CLI::App app("Signs, verifies and manages keys on tokens through the Veltra provider.", "veltra");
    app.fallthrough();
    app.require_subcommand(1);
    app.add_option("--provider", line.provider, "Name of the provider")
        ->check(kNotEmpty)
        ->capture_default_str();
    app.add_flag("--cng", line.cng, "Use the key storage provider instead of CryptoAPI");
    app.add_option("--dll", line.dll,
                   "The provider's DLL, for the key storage provider and to register; default: VeltraCSP.dll "
                   "beside this program")
        ->type_name("PATH");
    app.add_flag("--silent", line.silent, "Never let the provider show a window");
    auto* pinFromInput =
        app.add_flag("--pin-stdin", line.pinFromInput, "Read the PIN from the standard input, one line");
    app.add_option("--pin-env", line.pinVariable, "Take the PIN from this environment variable")
        ->type_name("NAME")
        ->check(kNotEmpty)
        ->excludes(pinFromInput);
    addRegistration(app, action);
    addKeys(app, line, action);
    addCertificate(app, line, action);
    addSign(app, line, action);
    addVerify(app, line, action);
    addEncryption(app, line, action);
    addAgreement(app, line, action);
    addBlobs(app, line, action);
    addTokenCertificates(app, line, action);
    addToken(app, line, action);
    app.footer(kFooter); // after the commands, which would take it over

    try {
        app.parse(reversedArguments());
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? kExitOk : kExitUsage;
    }
    provider.name = toWide(line.provider);
    provider.cng = line.cng;
    provider.dll = pathOf(line.dll);
    provider.silent = line.silent;
    provider.pin = readPin(line);
    return action(provider);
}

} // namespace
} // namespace veltra

int main() {
    SetConsoleOutputCP(CP_UTF8);
    try {
        return veltra::run();
    } catch (const veltra::CommandError& error) {
        std::cerr << "veltra: " << error.what() << '\n';
        return error.exitCode();
    } catch (const std::exception& error) {
        std::cerr << "veltra: " << error.what() << '\n';
        return veltra::kExitFailed;
    }
}
