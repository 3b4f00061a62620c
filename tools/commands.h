#pragma once

#include "output.h"
#include "token_key.h"

#include <filesystem>
#include <string>

namespace veltra {

// One function per command of the program. Each tells its result to the output, returns the exit code of the
// program and throws a CommandError for what it could not do.

struct KeygenOptions {
    std::wstring container;
    DWORD bits = 2048;
    DWORD keySpec = AT_SIGNATURE;
};

struct DeleteKeyOptions {
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

int registerProvider(const ProviderChoice& provider, Output& out);
int unregisterProvider(const ProviderChoice& provider, Output& out);
int listKeys(const ProviderChoice& provider, Output& out);
int generateKey(const ProviderChoice& provider, const KeygenOptions& options, Output& out);
int deleteContainer(const ProviderChoice& provider, const DeleteKeyOptions& options, Output& out);
int createCertificate(const ProviderChoice& provider, const CertificateOptions& options, Output& out);
int signFile(const ProviderChoice& provider, const SignOptions& options, Output& out);
int verifyFile(const ProviderChoice& provider, const VerifyOptions& options, Output& out);
int encryptFile(const ProviderChoice& provider, const EncryptionOptions& options, Output& out);
int decryptFile(const ProviderChoice& provider, const EncryptionOptions& options, Output& out);
int makeRandom(const ProviderChoice& provider, const RandomOptions& options, Output& out);
int listCertificates(const ProviderChoice& provider, Output& out);
int importCertificate(const ProviderChoice& provider, const TokenCertificateOptions& options, Output& out);
int writeChain(const ProviderChoice& provider, const TokenCertificateOptions& options, Output& out);
int showProvider(const ProviderChoice& provider, Output& out);

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

/// What both ways to generate a key tell; CNG's keys have no container.
void reportGeneratedKey(const KeyDescription& key, const std::string& keyId, const std::string& container,
                        Output& out);

int generateStorageKey(const ProviderChoice& provider, const StorageKeygenOptions& options, Output& out);
int deleteStorageKey(const ProviderChoice& provider, const DeleteKeyOptions& options, Output& out);
int showStorageProvider(const ProviderChoice& provider, Output& out);
int deriveKey(const ProviderChoice& provider, const AgreementOptions& options, Output& out);
int importKeyBlob(const ProviderChoice& provider, const BlobOptions& options, Output& out);
int exportKeyBlob(const ProviderChoice& provider, const BlobOptions& options, Output& out);
int registerKeyStorage(const ProviderChoice& provider, Output& out);
int unregisterKeyStorage(const ProviderChoice& provider, Output& out);

// Finding out what is wrong.

struct DoctorOptions {
    bool sign = false;
    std::wstring container; ///< to sign with; empty: the first key that signs
    int timeoutSeconds = 0; ///< for each part that may hang
};

struct LogOptions {
    std::wstring process;  ///< empty: the logs of all programs
    std::size_t lines = 0; ///< 0: all
    bool follow = false;
};

int diagnose(const ProviderChoice& provider, const DoctorOptions& options, Output& out);

/// A part of the examination, in a process of its own; it reports to the one that started it.
int runProbe(const ProviderChoice& provider, const DoctorOptions& options, const std::string& probe);

int showLogLevel(Output& out);
int setLogLevel(const std::string& level, Output& out);
int showLog(const LogOptions& options, Output& out);
int listLogFiles(const LogOptions& options, Output& out);

} // namespace veltra
