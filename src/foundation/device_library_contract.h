#pragma once

// The binary contract of VeltraDSCLibrary.dll, the maker's device library: its records, its result codes and
// the prototypes of its exports, under their own names (misspellings included). Both sides of the boundary
// include this header: the provider, which binds the functions at run time, and the software token, which
// defines them. Standard-library types cross the boundary, so both modules are built with one toolchain and
// share one C runtime.
//
// Conventions of every function:
//   serial    zero-terminated name of a connected token, as veltra_getConnectedDeviceList returned it
//   keyId     16 bytes
//   ctx       opaque context, null in this product
//   result    0 for success, otherwise a library code
//   bytes     big-endian, as the token stores them; every length is a count of bytes
//   out**     a buffer from malloc that the caller releases with free

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace veltra {

/// Result codes that callers tell apart; every other non-zero code is only logged.
constexpr int kDeviceOk = 0;
constexpr int kDeviceTimeMismatch = 48;    ///< veltra_validatePassword: host and token time disagree
constexpr int kDeviceSessionExpired = 49;  ///< a PIN-using operation: the token's session has expired
constexpr int kDeviceWeakHashRefused = 51; ///< veltra_signHash: SHA-1 or MD5 under FIPS 140-3

constexpr std::size_t kKeyIdLength = 16;
constexpr std::size_t kPublicKeyCapacity = 1024;
constexpr std::size_t kCredentialIdCapacity = 128;
constexpr std::size_t kLabelCapacity = 132; ///< at most 128 characters and a NUL
constexpr std::size_t kLabelMaxLength = 128;
constexpr std::size_t kCertificateCapacity = 3072;
constexpr std::size_t kSymmetricKeyCapacity = 32;

/// Key type codes of a key pair.
enum KeyType : std::uint32_t {
    kKeyTypeRsa1024 = 1,
    kKeyTypeRsa2048 = 2,
    kKeyTypeRsa3072 = 3,
    kKeyTypeRsa4096 = 4,
    kKeyTypeEcP256 = 5,
    kKeyTypeEcP384 = 6,
    kKeyTypeEcP521 = 7,
};

/// Key type codes of a symmetric key.
enum SymmetricKeyType : std::uint32_t {
    kKeyTypeAes128 = 8,
    kKeyTypeAes192Or256 = 10,
};

/// Usage codes of a key pair.
enum KeyUsage : std::uint32_t {
    kUsageSign = 1,
    kUsageEncrypt = 2, ///< encryption or agreement
    kUsageBoth = 3,
};

/// Hash algorithm codes of veltra_initHash.
enum HashMechanism : std::uint32_t {
    kMechanismSha1 = 2,
    kMechanismSha256 = 3,
    kMechanismSha384 = 4,
    kMechanismSha512 = 5,
    kMechanismSha224 = 6,
};

/// Cipher selector of veltra_encrypt and veltra_encrypt_aes.
enum class EncryptionType : std::uint32_t {
    Aes128Cbc = 1,
    Aes192Or256Cbc = 2,
    Aes128Ecb = 5,
    Aes192Or256Ecb = 6,
    Rsa1024 = 7,
    Rsa2048 = 8,
    Rsa3072 = 9,
    Rsa4096 = 10,
};

/// Padding selector of veltra_encrypt.
enum class PaddingMode : std::uint32_t {
    Pkcs1 = 1,
    OaepSha1 = 4,
    OaepSha256 = 5,
    OaepSha384 = 6,
    OaepSha512 = 7,
    OaepSha1Alternative = 8,
};

/// One key pair on a token.
struct VeltraKeyPair {
    std::uint32_t header;
    unsigned char keyId[kKeyIdLength];
    unsigned char publicKey[kPublicKeyCapacity]; ///< RSA: bare modulus or DER; EC: uncompressed point
    std::uint32_t publicKeyLength;
    unsigned char credentialId[kCredentialIdCapacity];
    std::uint32_t credentialIdLength;
    char label[kLabelCapacity];
    std::uint32_t usage;   ///< KeyUsage
    std::uint32_t keyType; ///< KeyType
    std::uint32_t flag;    ///< used as a boolean
};
static_assert(sizeof(VeltraKeyPair) == 1324);
static_assert(offsetof(VeltraKeyPair, keyId) == 4);
static_assert(offsetof(VeltraKeyPair, publicKey) == 20);
static_assert(offsetof(VeltraKeyPair, publicKeyLength) == 1044);
static_assert(offsetof(VeltraKeyPair, credentialId) == 1048);
static_assert(offsetof(VeltraKeyPair, credentialIdLength) == 1176);
static_assert(offsetof(VeltraKeyPair, label) == 1180);
static_assert(offsetof(VeltraKeyPair, usage) == 1312);
static_assert(offsetof(VeltraKeyPair, keyType) == 1316);
static_assert(offsetof(VeltraKeyPair, flag) == 1320);

/// One AES key on a token.
struct VeltraSymmetricKey {
    std::uint32_t header;
    unsigned char keyId[kKeyIdLength];
    unsigned char key[kSymmetricKeyCapacity];
    std::uint32_t keyLength;
    unsigned char credentialId[kCredentialIdCapacity];
    std::uint32_t credentialIdLength;
    char label[kLabelCapacity];
    std::uint32_t usage;
    std::uint32_t keyType; ///< SymmetricKeyType
    std::uint32_t flag;
};
static_assert(sizeof(VeltraSymmetricKey) == 332);
static_assert(offsetof(VeltraSymmetricKey, key) == 20);
static_assert(offsetof(VeltraSymmetricKey, keyLength) == 52);
static_assert(offsetof(VeltraSymmetricKey, credentialId) == 56);
static_assert(offsetof(VeltraSymmetricKey, credentialIdLength) == 184);
static_assert(offsetof(VeltraSymmetricKey, label) == 188);
static_assert(offsetof(VeltraSymmetricKey, usage) == 320);
static_assert(offsetof(VeltraSymmetricKey, keyType) == 324);
static_assert(offsetof(VeltraSymmetricKey, flag) == 328);

/// One certificate on a token.
struct VeltraCertificate {
    std::uint32_t header;
    unsigned char keyId[kKeyIdLength];
    unsigned char der[kCertificateCapacity];
    std::uint32_t derLength;
    unsigned char credentialId[kCredentialIdCapacity];
    std::uint32_t credentialIdLength;
    char label[kLabelCapacity];
    unsigned char reserved[20];
};
static_assert(sizeof(VeltraCertificate) == 3380);
static_assert(offsetof(VeltraCertificate, der) == 20);
static_assert(offsetof(VeltraCertificate, derLength) == 3092);
static_assert(offsetof(VeltraCertificate, credentialId) == 3096);
static_assert(offsetof(VeltraCertificate, credentialIdLength) == 3224);
static_assert(offsetof(VeltraCertificate, label) == 3228);
static_assert(offsetof(VeltraCertificate, reserved) == 3360);

/// Parsed fields of a DER certificate.
struct CertificateDetails {
    std::string commonName; ///< of the subject
    std::string issuer;     ///< distinguished name that contains "CN="
    std::string subject;    ///< distinguished name that contains "CN="
};

/// A certificate file that was read: its name, and its content as DER.
using NamedDer = std::pair<std::string, std::vector<unsigned char>>;

/// What a token says about itself.
struct TokenInfo {
    std::string session; ///< non-empty while the token has a logged-in session
    std::string label;
    std::string manufacturer;
    std::string model;
    std::string fipsMarker;      ///< third character "1": FIPS 140-2; anything else: FIPS 140-3
    std::string firmwareVersion; ///< dotted, such as "2.0.0"
    std::string hardwareVersion;
    std::uint32_t words[10] = {}; ///< the fourth and fifth are the single-sign-on flags
    std::string description1;
    std::string description2;
};

} // namespace veltra

// The contract is between two C++ modules: clang's warning that C callers cannot use these types does not
// apply.
#ifdef __clang__
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wreturn-type-c-linkage"
#endif

extern "C" {

int __cdecl veltra_init(int mode, void* ctx, int kind);
std::vector<std::string> __cdecl veltra_getConnectedDeviceList(bool refresh, void* ctx);
int __cdecl veltra_initDevice(const char* serial, bool reread, void* ctx);
veltra::TokenInfo __cdecl veltra_getTokenInfo(const char* serial, void* ctx);
int __cdecl veltra_validatePassword(const char* serial, const char* pin, int mode, int* remaining, void* ctx);
std::vector<veltra::VeltraKeyPair>& __cdecl veltra_getKeyPairList(const char* serial, void* ctx);
int __cdecl veltra_generateKeyPair(const char* serial, const char* pin, veltra::VeltraKeyPair* inout,
                                   void* ctx);
int __cdecl veltra_deleteKeyPair(const char* serial, const unsigned char* keyId, const char* pin, bool flag,
                                 void* ctx);
int __cdecl veltra_updateKeyPairDetails(const char* serial, const unsigned char* keyId, const char* pin,
                                        const char* label, const unsigned char* data, int length, void* ctx);
std::vector<veltra::VeltraCertificate>& __cdecl veltra_getCertificateList(const char* serial, void* ctx);
veltra::VeltraCertificate* __cdecl veltra_findCertificateForKey(const char* serial,
                                                                const unsigned char* keyId, void* ctx);
int __cdecl veltra_importCertificate(const char* serial, const char* pin, veltra::VeltraCertificate* inout,
                                     void* ctx);
int __cdecl veltra_getCertificateDetails(const unsigned char* der, int length,
                                         veltra::CertificateDetails& out, void* ctx);
std::vector<std::pair<
    std::string,
    std::vector<unsigned char>>> __cdecl veltra_getFilesWithExtensionsAndConvertDER(const std::string& folder,
                                                                                    const std::vector<
                                                                                        std::string>&
                                                                                        extensions,
                                                                                    void* ctx);
std::vector<veltra::VeltraSymmetricKey>& __cdecl veltra_getAesKeyList(const char* serial, void* ctx);
int __cdecl veltra_importAesKey(const char* serial, const char* pin, veltra::VeltraSymmetricKey* inout,
                                void* ctx);
int __cdecl veltra_signHash(const char* serial, const unsigned char* keyId, const char* pin,
                            const unsigned char* hash, int hashLength, unsigned char* out, int* outLength,
                            bool reserved, void* ctx, bool pss);
int __cdecl veltra_verifySignatureHash(unsigned int keyType, const char* serial, const unsigned char* hash,
                                       int hashLength, const unsigned char* publicKey, int publicKeyLength,
                                       const unsigned char* signature, int signatureLength, void* ctx,
                                       bool pss);
int __cdecl veltra_encrypt(veltra::EncryptionType type, veltra::PaddingMode padding, const unsigned char* in,
                           int inLength, unsigned char* out, int* outLength, const unsigned char* key,
                           int keyLength, void* ctx);
int __cdecl veltra_decrypt(const char* serial, const unsigned char* keyId, const char* pin,
                           const unsigned char* in, int inLength, unsigned char** out, int* outLength,
                           bool flag, void* ctx);
int __cdecl veltra_encrypt_aes(const char* serial, veltra::EncryptionType type, const unsigned char* key,
                               int keyLength, const unsigned char* in, int inLength, unsigned char** out,
                               int* outLength, bool final, const unsigned char* iv, int ivLength,
                               const unsigned char* extra, int extraLength, void* ctx);
int __cdecl veltra_decrypt_aes(const char* serial, const unsigned char* keyOrKeyId, int keyLength,
                               const unsigned char* in, int inLength, unsigned char** out, int* outLength,
                               bool flag, const unsigned char* iv, int ivLength, void* ctx);
int __cdecl veltra_decryptSymetric(const char* serial, const unsigned char* in, int inLength,
                                   unsigned char* out, int* outLength, const unsigned char* iv, int ivLength,
                                   const unsigned char* key, int keyLength, void* ctx);
int __cdecl veltra_ecdhDerive(const char* serial, const unsigned char* keyId, const char* pin,
                              const unsigned char* peer, int peerLength, unsigned char** out, int* outLength,
                              void* ctx);
int __cdecl veltra_generateRamdomNumber(const char* serial, int count, unsigned char* out, bool software,
                                        void* ctx);
int __cdecl veltra_initHash(const char* serial, int algorithm, void** hash, void* ctx);
int __cdecl veltra_updateHash(void* hash, const unsigned char* data, int length, void* ctx);
int __cdecl veltra_finalHash(void* hash, unsigned char* digest, int* inoutLength, void* ctx);

} // extern "C"

#ifdef __clang__
#pragma clang diagnostic pop
#endif
