// veltra encrypt, decrypt, random.

#include "commands.h"

#include "cms_decryption.h"
#include "error_text.h"
#include "files.h"
#include "wide_text.h"

#include <algorithm>
#include <iomanip>
#include <iostream>

namespace veltra {
namespace {

constexpr std::size_t kLongestRsaData = 512; // RSA 4096
constexpr std::size_t kMessageLimit = std::size_t{64} * 1024 * 1024;

DWORD paddingFlag(const EncryptionOptions& options) {
    return options.oaep ? CRYPT_OAEP : 0;
}

std::vector<BYTE> decryptRsa(const CryptoProvider& context, const EncryptionOptions& options) {
    std::vector<BYTE> data = readSmallFile(options.file, kLongestRsaData);
    std::ranges::reverse(data); // CryptoAPI's order is little-endian
    const CryptoKey key = context.ownKey();
    auto length = static_cast<DWORD>(data.size());
    require(CryptDecrypt(key.get(), 0, TRUE, paddingFlag(options), data.data(), &length),
            "could not decrypt the file");
    data.resize(length);
    return data;
}

std::vector<BYTE> decryptCms(const CryptoProvider& context, const EncryptionOptions& options) {
    return decryptMessage(context, readSmallFile(options.file, kMessageLimit),
                          inQuotes(options.file.native()));
}

} // namespace

int encryptFile(const ProviderChoice& provider, const EncryptionOptions& options) {
    requireDifferentFiles(options.file, options.out);
    const CryptoProvider context = CryptoProvider::open(provider, options.container);
    const CryptoKey key = context.ownKey();
    std::vector<BYTE> data = readSmallFile(options.file, kLongestRsaData);
    auto length = static_cast<DWORD>(data.size());
    data.resize(kLongestRsaData);
    require(CryptEncrypt(key.get(), 0, TRUE, paddingFlag(options), data.data(), &length,
                         static_cast<DWORD>(data.size())),
            "could not encrypt the file; RSA takes only a few bytes less than the key has");
    data.resize(length);
    std::ranges::reverse(data);
    replaceFile(options.out, data);
    std::cout << "Encrypted to container " << inQuotes(options.container) << ": "
              << toUtf8(options.out.native()) << '\n';
    return kExitOk;
}

int decryptFile(const ProviderChoice& provider, const EncryptionOptions& options) {
    requireDifferentFiles(options.file, options.out);
    const CryptoProvider context = CryptoProvider::openForUse(provider, options.container);
    std::vector<BYTE> plaintext = options.cms ? decryptCms(context, options) : decryptRsa(context, options);
    replaceFile(options.out, plaintext);
    SecureZeroMemory(plaintext.data(), plaintext.size());
    std::cout << "Decrypted with container " << inQuotes(options.container) << ": "
              << toUtf8(options.out.native()) << '\n';
    return kExitOk;
}

int makeRandom(const ProviderChoice& provider, const RandomOptions& options) {
    const CryptoProvider context = CryptoProvider::openToken(provider);
    std::vector<BYTE> bytes(options.length);
    require(CryptGenRandom(context.handle(), options.length, bytes.data()), "could not make random bytes");
    if (!options.out.empty()) {
        replaceFile(options.out, bytes);
        return kExitOk;
    }
    std::cout << std::hex << std::setfill('0');
    for (const BYTE byte : bytes) {
        std::cout << std::setw(2) << static_cast<unsigned>(byte);
    }
    std::cout << std::dec << '\n';
    return kExitOk;
}

} // namespace veltra
