// veltra encrypt, decrypt, random.

#include "commands.h"

#include "cms_decryption.h"
#include "error_text.h"
#include "files.h"
#include "public_keys.h"
#include "token_key.h"
#include "wide_text.h"

namespace veltra {
namespace {

constexpr std::size_t kLongestRsaData = 512; // RSA 4096
constexpr std::size_t kMessageLimit = std::size_t{64} * 1024 * 1024;

std::unique_ptr<TokenKey> requireRsa(std::unique_ptr<TokenKey> key) {
    if (key->describe().algorithm != "RSA") {
        throw CommandError("only RSA keys encrypt and decrypt; 'veltra list-keys' lists the keys");
    }
    return key;
}

Bytes readRsaData(const std::filesystem::path& path) {
    Bytes data = readSmallFile(path, kLongestRsaData);
    if (data.empty()) throw CommandError(inQuotes(path.native()) + " is empty");
    return data;
}

Bytes decryptRsa(const ProviderChoice& provider, const EncryptionOptions& options) {
    const auto tokens = TokenInterface::open(provider);
    return requireRsa(tokens->openKeyForUse(options.container))
        ->decrypt(options.scheme, readRsaData(options.file));
}

Bytes decryptCms(const ProviderChoice& provider, const EncryptionOptions& options) {
    return decryptMessage(CryptoProvider::openForUse(provider, options.container),
                          readSmallFile(options.file, kMessageLimit), inQuotes(options.file.native()));
}

} // namespace

int encryptFile(const ProviderChoice& provider, const EncryptionOptions& options, Output& out) {
    requireDifferentFiles(options.file, options.out);
    const auto tokens = TokenInterface::open(provider);
    const auto key =
        requireRsa(options.publicKey.empty() ? tokens->openKey(options.container)
                                             : tokens->publicKey(loadPublicKeyInfo(options.publicKey)));
    replaceFile(options.out, key->encrypt(options.scheme, readRsaData(options.file)));
    const std::string file = toUtf8(options.out.native());
    out.result("Encrypted to " +
                   (options.publicKey.empty() ? "container " + inQuotes(options.container)
                                              : "the key in " + inQuotes(options.publicKey.native())) +
                   ": " + file,
               {{"file", file}});
    return kExitOk;
}

int decryptFile(const ProviderChoice& provider, const EncryptionOptions& options, Output& out) {
    requireDifferentFiles(options.file, options.out);
    Bytes plaintext = options.cms ? decryptCms(provider, options) : decryptRsa(provider, options);
    replaceFile(options.out, plaintext);
    SecureZeroMemory(plaintext.data(), plaintext.size());
    const std::string file = toUtf8(options.out.native());
    out.result("Decrypted with container " + inQuotes(options.container) + ": " + file, {{"file", file}});
    return kExitOk;
}

int makeRandom(const ProviderChoice& provider, const RandomOptions& options, Output& out) {
    const CryptoProvider context = CryptoProvider::openToken(provider);
    std::vector<BYTE> bytes(options.length);
    require(CryptGenRandom(context.handle(), options.length, bytes.data()), "could not make random bytes");
    writeOrPrint(options.out, bytes, out);
    return kExitOk;
}

} // namespace veltra
