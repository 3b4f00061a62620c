#pragma once

#include "token_key.h"

#include <filesystem>
#include <string>

namespace veltra {

// One function per command of the program. Each prints its result to the standard output, returns the exit
// code of the program and throws a CommandError for what it could not do.

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
    SignatureScheme scheme;
    bool der = false; ///< an ECDSA signature in DER instead of r and s side by side
    std::filesystem::path out;
};

struct VerifyOptions {
    std::filesystem::path file;
    std::filesystem::path signature;
    bool raw = false;
    std::wstring container;
    std::filesystem::path certificate;
    SignatureScheme scheme; ///< for a bare signature; a CMS message names its own
    bool der = false;
};

struct EncryptionOptions {
    std::filesystem::path file;
    std::wstring container;
    std::filesystem::path out;
    EncryptionScheme scheme;
    std::filesystem::path publicKey; ///< encrypt: to this key instead of the container's
    bool cms = false;                ///< decrypt: an enveloped CMS message instead of a bare RSA ciphertext
};

struct RandomOptions {
    DWORD length = 0;
    std::filesystem::path out; ///< empty: hexadecimal digits to the standard output
};

struct TokenCertificateOptions {
    std::wstring container;
    std::filesystem::path file; ///< the certificate to import, or where the chain goes
};

int registerProvider(const ProviderChoice& provider);
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

// The commands that only CNG has.

struct StorageKeygenOptions {
    std::wstring algorithm; ///< CNG's name: "RSA", "ECDSA_P256", ...
    DWORD bits = 0;         ///< of an RSA key
    DWORD keySpec = AT_SIGNATURE;
};

struct AgreementOptions {
    std::wstring container;
    std::filesystem::path peer; ///< public key or certificate, PEM or DER
    std::wstring derivation;    ///< CNG's name: "HASH" or "SP800_56ACONCAT"
    const HashAlgorithm* hash = nullptr;
    std::string label;
    std::string context;
    DWORD length = 0;          ///< bytes of the derived key; 0: the whole digest
    std::filesystem::path out; ///< empty: hexadecimal digits to the standard output
};

struct BlobOptions {
    std::wstring container; ///< the key to export, or the one under which an imported key is encrypted
    std::wstring type;      ///< CNG's name; "PEM" exports a SubjectPublicKeyInfo as PEM
    std::filesystem::path file;
};

int generateStorageKey(const ProviderChoice& provider, const StorageKeygenOptions& options);
int deleteStorageKey(const ProviderChoice& provider, const DeleteContainerOptions& options);
int showStorageProvider(const ProviderChoice& provider);
int agreeOnKey(const ProviderChoice& provider, const AgreementOptions& options);
int importKeyBlob(const ProviderChoice& provider, const BlobOptions& options);
int exportKeyBlob(const ProviderChoice& provider, const BlobOptions& options);
int registerKeyStorage(const ProviderChoice& provider);
int unregisterKeyStorage(const ProviderChoice& provider);

} // namespace veltra
