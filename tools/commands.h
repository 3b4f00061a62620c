#pragma once

#include "crypto_provider.h"

#include <filesystem>
#include <string>

namespace veltra {

// One function per command of the program. Each prints its result to the standard output, returns the exit
// code of the program and throws a CommandError for what it could not do.

struct RegistrationOptions {
    std::filesystem::path dll; ///< empty: VeltraCSP.dll beside the program
};

struct KeygenOptions {
    std::wstring container;
    DWORD bits = 2048;
    DWORD keySpec = AT_SIGNATURE;
};

struct DeleteContainerOptions {
    std::wstring container;
    bool confirmed = false;
};

struct CertificateOptions {
    std::wstring container;
    std::wstring subject; ///< distinguished name, such as "CN=Example, O=Company"
    int days = 365;
    std::filesystem::path out;
};

struct SignOptions {
    std::filesystem::path file;
    std::wstring container;
    bool raw = false; ///< a bare signature instead of a CMS message
    bool attributes = true;
    std::filesystem::path certificate;
    const HashAlgorithm* hash = nullptr;
    std::filesystem::path out;
};

struct VerifyOptions {
    std::filesystem::path file;
    std::filesystem::path signature;
    bool raw = false;
    std::wstring container;
    std::filesystem::path certificate;
    const HashAlgorithm* hash = nullptr; ///< for a bare signature; a CMS message names its own
};

struct EncryptionOptions {
    std::filesystem::path file;
    std::wstring container;
    std::filesystem::path out;
    bool oaep = false;
    bool cms = false; ///< decrypt: an enveloped CMS message instead of a bare RSA ciphertext
};

struct RandomOptions {
    DWORD length = 0;
    std::filesystem::path out; ///< empty: hexadecimal digits to the standard output
};

struct TokenCertificateOptions {
    std::wstring container;
    std::filesystem::path file; ///< the certificate to import, or where the chain goes
};

int registerProvider(const ProviderChoice& provider, const RegistrationOptions& options);
int unregisterProvider(const ProviderChoice& provider);
int listKeys(const ProviderChoice& provider);
int generateKey(const ProviderChoice& provider, const KeygenOptions& options);
int deleteContainer(const ProviderChoice& provider, const DeleteContainerOptions& options);
int createCertificate(const ProviderChoice& provider, const CertificateOptions& options);
int signFile(const ProviderChoice& provider, const SignOptions& options);
int verifyFile(const ProviderChoice& provider, const VerifyOptions& options);
int encryptFile(const ProviderChoice& provider, const EncryptionOptions& options);
int decryptFile(const ProviderChoice& provider, const EncryptionOptions& options);
int makeRandom(const ProviderChoice& provider, const RandomOptions& options);
int listCertificates(const ProviderChoice& provider);
int importCertificate(const ProviderChoice& provider, const TokenCertificateOptions& options);
int writeChain(const ProviderChoice& provider, const TokenCertificateOptions& options);
int showProvider(const ProviderChoice& provider);

} // namespace veltra
