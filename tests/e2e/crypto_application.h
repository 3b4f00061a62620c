#pragma once

#include "support/googletest.h"

#include "crypto_provider.h"

#include <functional>
#include <string>
#include <vector>

namespace veltra::test {

using Bytes = std::vector<unsigned char>;

/// What errorOf makes of a FALSE without a last error of its own: a code that no system function sets.
inline constexpr DWORD kNoReasonGiven = 0x20000001;

/// TRUE or FALSE of a call as the error that an application sees: 0 for TRUE alone, otherwise the last error,
/// which the call must have set.
DWORD errorOf(const std::function<BOOL()>& call);

Bytes bytesOf(const std::string& text);
Bytes reversed(Bytes bytes);

/// Files in the current folder, which is the script's.
Bytes readFile(const std::string& name);
void writeFile(const std::string& name, const Bytes& bytes);

/// An application that knows the provider's name and nothing else of it: every call goes through the system's
/// CryptoAPI. cryptoapi_client.sh sets up the token and tells its containers in the environment.
class CryptoApplicationTest : public testing::Test {
protected:
    CryptoApplicationTest();

    /// The container with the RSA key of this length; null opens the token without a container.
    [[nodiscard]] std::string containerOf(int bits) const;
    static CryptoContext open(const char* container, DWORD flags = 0);
    [[nodiscard]] CryptoContext open(DWORD flags = 0) const { return open(container.c_str(), flags); }

    /// The system's own software provider, which shares no code with ours.
    static CryptoContext openSystem();

    static CryptoKey userKey(const CryptoContext& context, DWORD keySpec);
    static Bytes publicBlob(const CryptoKey& key);
    static CryptoKey importKey(const CryptoContext& context, const Bytes& blob,
                               const CryptoKey& decryptionKey = CryptoKey());
    static Bytes encrypt(const CryptoKey& key, const Bytes& plaintext, DWORD flags = 0);
    static Bytes decrypt(const CryptoKey& key, Bytes ciphertext, DWORD flags = 0);

    static CryptoHash createHash(const CryptoContext& context, ALG_ID algorithm, const Bytes& data,
                                 const CryptoKey& key = CryptoKey());
    static Bytes hashValue(const CryptoHash& hash);

    /// Signs into a buffer of exactly `length` bytes, which hold kSignatureFill, without asking for the size.
    static constexpr unsigned char kSignatureFill = 0xEE;
    static DWORD signError(const CryptoHash& hash, DWORD keySpec, Bytes& signature, DWORD length);
    static DWORD signError(const CryptoContext& context);
    /// Whether the system's provider accepts the signature.
    static bool systemVerifies(const Bytes& publicKey, ALG_ID algorithm, const Bytes& data,
                               const Bytes& signature);

    const std::string prefix;
    const std::string container; ///< of the 2048-bit key, which has the certificate
    const std::string pin;
    const Bytes data = bytesOf("what the application signs");
};

} // namespace veltra::test
