// The commands of veltra: names, help, options, and what each option becomes for the functions of commands.h.

#include "command_line.h"

#include "wide_text.h"

#include <array>
#include <limits>

namespace veltra {
namespace {

std::filesystem::path pathOf(const std::string& text) {
    return {toWide(text)};
}

CLI::Option* addContainer(CLI::App& command, CommandLine& line, const char* help) {
    return command.add_option("--container", line.container, help)->check(notEmpty())->type_name("NAME");
}

CLI::Option* addFile(CLI::App& command, const char* name, std::string& file, const char* help) {
    return command.add_option(name, file, help)->check(notEmpty())->type_name("FILE");
}

CLI::Option* addOut(CLI::App& command, CommandLine& line, const char* help) {
    return addFile(command, "--out", line.out, help);
}

std::vector<std::string> hashNames() {
    std::vector<std::string> names;
    for (const HashAlgorithm& algorithm : hashAlgorithms()) {
        names.emplace_back(algorithm.name);
    }
    return names;
}

void addHash(CLI::App& command, CommandLine& line, const char* help) {
    command.add_option("--hash", line.hash, help)->check(CLI::IsMember(hashNames()))->capture_default_str();
}

void addSignatureForm(CLI::App& command, CommandLine& line) {
    addHash(command, line, "Hash algorithm; SHA-1 works only on a FIPS 140-2 token");
    command.add_flag("--pss", line.pss, "RSA: PSS instead of PKCS#1 v1.5 padding; needs --raw and --cng");
    command.add_flag("--der", line.der, "EC: the signature in DER instead of r and s; needs --raw and --cng");
}

SignatureScheme schemeOf(const CommandLine& line) {
    if ((line.pss || line.der) && !(line.raw && line.cng)) {
        throw CLI::ValidationError("--pss and --der need --raw and --cng");
    }
    return {findHashAlgorithm(line.hash), line.pss ? SignaturePadding::Pss : SignaturePadding::Pkcs1};
}

/// CNG's key storage functions offer no such thing.
void requireCryptoApi(const CommandLine& line) {
    if (line.cng) {
        throw CLI::ValidationError("this command needs CryptoAPI; leave --cng out");
    }
}

/// A command without options that knows the interface by itself.
template <int (*Command)(const ProviderChoice&, Output&)>
void configurePlain(CLI::App& command, CommandLine&, Action& action) {
    command.callback([&] { action = Command; });
}

/// Commands without options, one per interface.
template <int (*CryptoApi)(const ProviderChoice&, Output&), int (*Cng)(const ProviderChoice&, Output&)>
void configureByInterface(CLI::App& command, CommandLine& line, Action& action) {
    command.callback([&] { action = line.cng ? Cng : CryptoApi; });
}

void configureGenerateKey(CLI::App& command, CommandLine& line, Action& action) {
    addContainer(command, line, "Name of the new container; with --cng there is none");
    command.add_option("--algorithm", line.algorithm, "The kind of key; other than RSA with --cng")
        ->check(CLI::IsMember(
            {"RSA", "ECDSA_P256", "ECDSA_P384", "ECDSA_P521", "ECDH_P256", "ECDH_P384", "ECDH_P521"}))
        ->capture_default_str();
    command.add_option("--bits", line.bits, "Length of an RSA key")
        ->check(CLI::IsMember({2048, 3072, 4096}))
        ->capture_default_str();
    command.add_option("--usage", line.usage, "What the key is for")
        ->check(CLI::IsMember({"sign", "exchange"}))
        ->capture_default_str();
    command.callback([&] {
        if (line.cng != line.container.empty() || (line.algorithm != "RSA" && !line.cng)) {
            throw CLI::ValidationError(
                "give --container, or --cng: CNG has no containers, CryptoAPI only RSA keys");
        }
        action = [&](const ProviderChoice& provider, Output& out) {
            const DWORD keySpec = line.usage == "sign" ? AT_SIGNATURE : AT_KEYEXCHANGE;
            if (provider.cng) {
                return generateStorageKey(provider, {toWide(line.algorithm), line.bits, keySpec}, out);
            }
            return generateKey(provider, {toWide(line.container), line.bits, keySpec}, out);
        };
    });
}

void configureDeleteKey(CLI::App& command, CommandLine& line, Action& action) {
    addContainer(command, line, "The container, or with --cng a key's identifier")->required();
    command.add_flag("--yes", line.confirmed, "Really delete");
    command.callback([&] {
        action = [&](const ProviderChoice& provider, Output& out) {
            const DeleteKeyOptions options{toWide(line.container), line.confirmed};
            return provider.cng ? deleteStorageKey(provider, options, out)
                                : deleteContainer(provider, options, out);
        };
    });
}

void configureCreateCertificate(CLI::App& command, CommandLine& line, Action& action) {
    constexpr int kMostDays = 36500;
    addContainer(command, line, "The container")->required();
    command.add_option("--subject", line.subject, "Distinguished name, such as \"CN=Example\"")
        ->required()
        ->check(notEmpty());
    command.add_option("--days", line.days, "Days of validity")
        ->check(CLI::Range(1, kMostDays))
        ->capture_default_str();
    addOut(command, line, "The certificate, PEM")->required();
    command.callback([&] {
        action = [&](const ProviderChoice& provider, Output& out) {
            return createCertificate(
                provider, {toWide(line.container), toWide(line.subject), line.days, pathOf(line.out)}, out);
        };
    });
}

void configureSign(CLI::App& command, CommandLine& line, Action& action) {
    addFile(command, "file", line.file, "The file to sign")->required();
    addContainer(command, line, "The container")->required();
    auto* form = command.add_option_group("form", "What to write");
    form->add_flag("--cms", line.cms, "A detached CMS message in DER; needs --certificate");
    form->add_flag("--raw", line.raw, "The bare signature, big-endian");
    form->require_option(1);
    addFile(command, "--certificate", line.certificate, "The key's certificate, PEM or DER");
    command.add_flag("--no-attributes", line.withoutAttributes, "CMS: sign the file's hash directly");
    addOut(command, line, "The signature")->required();
    addSignatureForm(command, line);
    command.callback([&] {
        if (line.cms && line.certificate.empty()) {
            throw CLI::ValidationError("--cms needs --certificate");
        }
        const SignatureScheme scheme = schemeOf(line);
        action = [&, scheme](const ProviderChoice& provider, Output& out) {
            return signFile(provider,
                            {pathOf(line.file), toWide(line.container), line.raw, !line.withoutAttributes,
                             pathOf(line.certificate), scheme, line.der, pathOf(line.out)},
                            out);
        };
    });
}

void configureVerify(CLI::App& command, CommandLine& line, Action& action) {
    addFile(command, "file", line.file, "The signed file")->required();
    addFile(command, "--signature", line.signature, "The CMS message or bare signature")->required();
    command.add_flag("--raw", line.raw, "A bare signature, big-endian; needs --certificate or --container");
    addFile(command, "--certificate,--public-key", line.certificate,
            "The signer's certificate, or for --raw the public key, PEM or DER");
    addContainer(command, line, "The container whose key signed");
    addSignatureForm(command, line);
    command.callback([&] {
        if (line.raw && line.certificate.empty() && line.container.empty()) {
            throw CLI::ValidationError("--raw needs --certificate or --container");
        }
        const SignatureScheme scheme = schemeOf(line);
        action = [&, scheme](const ProviderChoice& provider, Output& out) {
            return verifyFile(provider,
                              {pathOf(line.file), pathOf(line.signature), line.raw, toWide(line.container),
                               pathOf(line.certificate), scheme, line.der},
                              out);
        };
    });
}

EncryptionOptions encryptionOptions(const CommandLine& line) {
    const EncryptionScheme scheme{line.oaep ? findHashAlgorithm(line.oaepHash) : nullptr};
    return {pathOf(line.file), toWide(line.container), pathOf(line.out), scheme, pathOf(line.peer), line.cms};
}

CLI::Option* addEncryptionOptions(CLI::App& command, CommandLine& line) {
    addFile(command, "file", line.file, "The input file")->required();
    CLI::Option* container = addContainer(command, line, "The container");
    auto* oaep = command.add_flag("--oaep", line.oaep, "RSA: OAEP instead of PKCS#1 v1.5 padding");
    command.add_option("--oaep-hash", line.oaepHash, "Hash algorithm of OAEP; other than sha1 with --cng")
        ->needs(oaep)
        ->check(CLI::IsMember(hashNames()))
        ->capture_default_str();
    addOut(command, line, "The result")->required();
    return container;
}

void configureEncrypt(CLI::App& command, CommandLine& line, Action& action) {
    addEncryptionOptions(command, line);
    addFile(command, "--public-key", line.peer, "Instead of --container: a public key or certificate");
    command.callback([&] {
        if (line.container.empty() == line.peer.empty()) {
            throw CLI::ValidationError("give --container or --public-key");
        }
        action = [&](const ProviderChoice& provider, Output& out) {
            return encryptFile(provider, encryptionOptions(line), out);
        };
    });
}

void configureDecrypt(CLI::App& command, CommandLine& line, Action& action) {
    addEncryptionOptions(command, line)->required();
    command
        .add_flag("--cms", line.cms, "An enveloped CMS message in DER, its content encrypted with AES-CBC")
        ->excludes("--oaep");
    command.callback([&] {
        if (line.cms) {
            requireCryptoApi(line);
        }
        action = [&](const ProviderChoice& provider, Output& out) {
            return decryptFile(provider, encryptionOptions(line), out);
        };
    });
}

void configureDeriveKey(CLI::App& command, CommandLine& line, Action& action) {
    constexpr DWORD kMostDerivedBytes = 64;
    addContainer(command, line, "The container")->required();
    addFile(command, "--peer", line.peer, "The peer's public key or certificate, PEM or DER")->required();
    command
        .add_option("--kdf", line.derivation,
                    "HASH: of the secret; SP800_56ACONCAT: of label, context, secret")
        ->check(CLI::IsMember({"HASH", "SP800_56ACONCAT"}))
        ->capture_default_str();
    addHash(command, line, "Hash algorithm of the derivation");
    command.add_option("--label", line.label, "Text, for SP800_56ACONCAT");
    command.add_option("--context", line.context, "Text, for SP800_56ACONCAT");
    command
        .add_option("--length", line.length,
                    "Leading bytes to take; at most the digest, by default all of it")
        ->check(CLI::Range(DWORD{1}, kMostDerivedBytes));
    addOut(command, line, "Write the key to this file instead of its digits to the output");
    command.callback([&] {
        action = [&](const ProviderChoice& provider, Output& out) {
            return deriveKey(provider,
                             {toWide(line.container), pathOf(line.peer), toWide(line.derivation),
                              findHashAlgorithm(line.hash), line.label, line.context, line.length,
                              pathOf(line.out)},
                             out);
        };
    });
}

void configureImportKey(CLI::App& command, CommandLine& line, Action& action) {
    addFile(command, "file", line.file, "The blob")->required();
    command.add_option("--blob", line.blobType, "CNG's name of the blob's type, such as KeyDataBlob")
        ->required();
    addContainer(command, line, "The container whose key encrypted the blob, if one did");
    command.callback([&] {
        action = [&](const ProviderChoice& provider, Output& out) {
            return importKeyBlob(provider, {toWide(line.container), toWide(line.blobType), pathOf(line.file)},
                                 out);
        };
    });
}

void configureExportKey(CLI::App& command, CommandLine& line, Action& action) {
    addContainer(command, line, "The container")->required();
    command
        .add_option("--blob", line.blobType, "CNG's name of the blob's type, such as RSAPUBLICBLOB, or PEM")
        ->capture_default_str();
    addOut(command, line, "The public key")->required();
    command.callback([&] {
        action = [&](const ProviderChoice& provider, Output& out) {
            return exportKeyBlob(provider, {toWide(line.container), toWide(line.blobType), pathOf(line.out)},
                                 out);
        };
    });
}

void configureGenerateRandom(CLI::App& command, CommandLine& line, Action& action) {
    constexpr DWORD kMostRandomBytes = 1024 * 1024;
    command.add_option("length", line.length, "Number of bytes")
        ->required()
        ->check(CLI::Range(DWORD{1}, kMostRandomBytes));
    addOut(command, line, "Write the bytes to this file instead of their digits to the output");
    command.callback([&] {
        requireCryptoApi(line);
        action = [&](const ProviderChoice& provider, Output& out) {
            return makeRandom(provider, {line.length, pathOf(line.out)}, out);
        };
    });
}

void configureImportCertificate(CLI::App& command, CommandLine& line, Action& action) {
    addContainer(command, line, "The container")->required();
    addFile(command, "file", line.file, "The certificate, PEM or DER")->required();
    command.callback([&] {
        action = [&](const ProviderChoice& provider, Output& out) {
            return importCertificate(provider, {toWide(line.container), pathOf(line.file)}, out);
        };
    });
}

void configureExportChain(CLI::App& command, CommandLine& line, Action& action) {
    addContainer(command, line, "The container")->required();
    addOut(command, line, "The chain, DER, root first")->required();
    command.callback([&] {
        requireCryptoApi(line);
        action = [&](const ProviderChoice& provider, Output& out) {
            return writeChain(provider, {toWide(line.container), pathOf(line.out)}, out);
        };
    });
}

void configureDoctor(CLI::App& command, CommandLine& line, Action& action) {
    constexpr int kMostSeconds = 600;
    command.add_flag("--sign", line.sign,
                     "Make and verify a signature through both interfaces too; needs a PIN and asks for one");
    addContainer(command, line, "With --sign: the container; default: the first key that signs")
        ->needs("--sign");
    command.add_option("--timeout", line.timeoutSeconds, "Seconds after which a part counts as hanging")
        ->check(CLI::Range(1, kMostSeconds))
        ->capture_default_str();
    // How the program starts itself for the parts that may hang or crash; not for people.
    command.add_option("--probe", line.probe)->group("");
    command.callback([&] {
        action = [&](const ProviderChoice& provider, Output& out) {
            const DoctorOptions options{line.sign, toWide(line.container), line.timeoutSeconds};
            return line.probe.empty() ? diagnose(provider, options, out)
                                      : runProbe(provider, options, line.probe);
        };
    });
}

void configureLogLevel(CLI::App& command, CommandLine& line, Action& action) {
    command.add_option("level", line.level, "0 nothing, 2 errors, 3 errors and every step; or: default")
        ->check(CLI::IsMember({"0", "1", "2", "3", "default"}));
    command.callback([&] {
        action = [&](const ProviderChoice&, Output& out) {
            return line.level.empty() ? showLogLevel(out) : setLogLevel(line.level, out);
        };
    });
}

void configureLog(CLI::App& command, CommandLine& line, Action& action) {
    command.add_option("--process", line.process, "Only the log of this program, such as veltra")
        ->check(notEmpty())
        ->type_name("NAME");
    command.add_option("--lines", line.lines, "How many of the last lines of each file; 0: all")
        ->check(CLI::Range(0, std::numeric_limits<int>::max()).description(""))
        ->capture_default_str();
    auto* files = command.add_flag("--files", line.filesOnly, "List the log's files");
    command.add_flag("--follow", line.follow, "Go on with the lines that are written from now on")
        ->excludes(files);
    command.callback([&] {
        action = [&](const ProviderChoice&, Output& out) {
            const LogOptions options{toWide(line.process), line.lines, line.follow};
            return line.filesOnly ? listLogFiles(options, out) : showLog(options, out);
        };
    });
}

constexpr const char* kSetup = "Setting up";
constexpr const char* kKeys = "Keys";
constexpr const char* kCertificates = "Certificates";
constexpr const char* kWork = "Signing and encrypting";
constexpr const char* kDiagnosis = "Finding out what is wrong";

constexpr std::array kCommands = {
    CommandSpec{kDiagnosis, "doctor", "Examine the installation, the tokens and their keys",
                "doctor\ndoctor --json\ndoctor --sign --container letters", configureDoctor},
    CommandSpec{kDiagnosis, "log-level", "Show or set how much is logged on this computer",
                "log-level\nlog-level 3\nlog-level default", configureLogLevel},
    CommandSpec{kDiagnosis, "log", "Show the last lines of the log",
                "log\nlog --process outlook --lines 100\nlog --follow", configureLog},
    CommandSpec{kDiagnosis, "show-provider", "Show what the provider says about itself and the token",
                "show-provider\nshow-provider --cng",
                configureByInterface<showProvider, showStorageProvider>},
    CommandSpec{kSetup, "register", "Make the provider known to CryptoAPI, or with --cng to CNG",
                "register\nregister --cng\nregister --dll C:\\Veltra\\VeltraCSP.dll",
                configureByInterface<registerProvider, registerKeyStorage>},
    CommandSpec{kSetup, "unregister", "Take that back", "unregister\nunregister --cng",
                configureByInterface<unregisterProvider, unregisterKeyStorage>},
    CommandSpec{kKeys, "list-keys",
                "List your containers and the keys behind them, and the first token's other keys",
                "list-keys\nlist-keys --json", configurePlain<listKeys>},
    CommandSpec{kKeys, "generate-key", "Generate a key on the token, in a new container",
                "generate-key --container letters --bits 3072\ngenerate-key --cng --algorithm ECDSA_P384",
                configureGenerateKey},
    CommandSpec{kKeys, "delete-key", "Delete a container with its keys, for good; with --cng, one key",
                "delete-key --container letters --yes", configureDeleteKey},
    CommandSpec{kKeys, "import-key",
                "CNG: import a key blob; AES keys stay on the token, public keys are only looked at",
                "import-key aes.blob --blob KeyDataBlob", configureImportKey},
    CommandSpec{kKeys, "export-key", "CNG: write a container's public key",
                "export-key --container letters --out letters.pub", configureExportKey},
    CommandSpec{kKeys, "derive-key",
                "CNG: derive a key from the secret of a container's EC key and a peer's public key",
                "derive-key --container 5F...A0 --peer peer.pem --hash sha256", configureDeriveKey},
    CommandSpec{kCertificates, "list-certificates",
                "List the certificates of the first token's keys and of your containers' keys",
                "list-certificates\nlist-certificates --json", configurePlain<listCertificates>},
    CommandSpec{kCertificates, "create-certificate", "Make a self-signed certificate for a container's key",
                "create-certificate --container letters --subject \"CN=Jo Example\" --out letters.pem",
                configureCreateCertificate},
    CommandSpec{kCertificates, "import-certificate",
                "Store a key's certificate, and its issuers, on the token",
                "import-certificate letters.pem --container letters", configureImportCertificate},
    CommandSpec{kCertificates, "export-chain", "Write a key's certificate chain as a PKCS #7 message",
                "export-chain --container letters --out letters.p7b", configureExportChain},
    CommandSpec{kWork, "sign", "Sign a file with a container's key",
                "sign letter.pdf --container letters --cms --certificate letters.pem --out letter.p7s\n"
                "sign letter.pdf --container letters --raw --hash sha384 --out letter.sig",
                configureSign},
    CommandSpec{kWork, "verify", "Check a signature over a file",
                "verify letter.pdf --signature letter.p7s\n"
                "verify letter.pdf --signature letter.sig --raw --certificate letters.pem --hash sha384",
                configureVerify},
    CommandSpec{kWork, "encrypt", "Encrypt a few bytes to a container's RSA key; big-endian",
                "encrypt secret --container letters --oaep --out secret.enc\n"
                "encrypt secret --public-key letters.pem --oaep --out secret.enc",
                configureEncrypt},
    CommandSpec{kWork, "decrypt", "Decrypt what was encrypted to a container's RSA key",
                "decrypt secret.enc --container letters --oaep --out secret\n"
                "decrypt letter.p7m --container letters --cms --out letter.txt",
                configureDecrypt},
    CommandSpec{kWork, "generate-random", "Random bytes, in hexadecimal unless --out is given",
                "generate-random 16", configureGenerateRandom},
};

} // namespace

std::span<const CommandSpec> commandTable() {
    return kCommands;
}

const CLI::Validator& notEmpty() {
    static const CLI::Validator validator(
        [](const std::string& text) {
            return text.empty() ? std::string("must not be empty") : std::string();
        },
        "");
    return validator;
}

} // namespace veltra
