#pragma once

#include "support/googletest.h"

#include "foundation/device_library_contract.h"
#include "token_store.h"

#include <cstring>
#include <filesystem>
#include <string_view>
#include <vector>

namespace veltra::softtoken::test {

namespace fs = std::filesystem;

constexpr const char* kSerial = "T1";
constexpr const char* kPin = "123456";
constexpr const char* kWrongPin = "654321";

inline int lengthOf(BytesView bytes) {
    return static_cast<int>(bytes.size());
}

/// Of an even number of hexadecimal digits.
Bytes fromHex(std::string_view text);
Bytes fromBase64(const char* text);
Bytes contentOf(const std::filesystem::path& path);
void store(const std::filesystem::path& path, BytesView content);
std::uint32_t attemptsOnDisk(const char* serial = kSerial);

/// The failure of a call of the core library; 0 for success.
template <class Call>
int codeOf(Call call) {
    try {
        call();
        return 0;
    } catch (const TokenError& error) {
        return static_cast<int>(error.failure());
    }
}

/// Fails the test for every result that is success, or one of the three codes that callers act upon.
void expectRefusals(std::initializer_list<int> results);

/// Compares what a list of the DLL holds with the records that calls have filled in, byte by byte.
template <class Record>
void expectSameRecords(const std::vector<Record>& listed, const std::vector<Record>& made) {
    ASSERT_EQ(listed.size(), made.size());
    for (std::size_t i = 0; i < made.size(); ++i)
        EXPECT_EQ(std::memcmp(&listed[i], &made[i], sizeof(Record)), 0) << "record " << i;
}

/// The places for a buffer that a function of the DLL hands out; releases it. Not empty before, to show who
/// clears it.
struct LibraryOutput {
    unsigned char* data = nullptr;
    int length = 77;

    LibraryOutput() = default;
    LibraryOutput(const LibraryOutput&) = delete;
    LibraryOutput& operator=(const LibraryOutput&) = delete;
    ~LibraryOutput();

    [[nodiscard]] Bytes bytes() const { return {data, data + length}; }
    [[nodiscard]] bool isEmpty() const { return data == nullptr && length == 0; }
};

/// A fresh home folder with one plugged-in token kSerial.
class SoftTokenTest : public testing::Test {
protected:
    SoftTokenTest();
    ~SoftTokenTest() override;

    /// Makes another token. Its PIN is derived with the lowest cost that a token may have.
    static void create(const char* serial, std::uint32_t attempts = kDefaultAttempts);
    template <class Change>
    static void change(Change change) {
        const TokenFolder token(kSerial);
        TokenDescription description = token.description();
        change(description);
        token.saveDescription(description);
    }

    /// veltra_validatePassword of kSerial.
    int logIn(const char* pin = kPin, int* remaining = nullptr) const;
    /// A generated key of kSerial; fails the test when there is none.
    [[nodiscard]] VeltraKeyPair generate(std::uint32_t keyType, std::uint32_t usage = kUsageSign) const;
    /// veltra_signHash of kSerial over `hashLength` bytes; fills `signature` when it succeeds.
    int sign(const VeltraKeyPair& key, std::size_t hashLength, Bytes& signature, bool pss = false,
             const char* pin = kPin) const;
    int sign(const VeltraKeyPair& key, const char* pin = kPin) const;
    /// veltra_verifySignatureHash over the same hash as sign().
    [[nodiscard]] int verify(const VeltraKeyPair& key, std::size_t hashLength, const Bytes& signature,
                             bool pss = false) const;
    /// A record for veltra_importAesKey.
    static VeltraSymmetricKey aesRecord(const Bytes& material);
    /// A record for veltra_importCertificate, whose key identifier is `keyIdByte` repeated.
    static VeltraCertificate certificateRecord(const Bytes& der, unsigned char keyIdByte);

    static Bytes publicKeyOf(const VeltraKeyPair& key);
    /// SubjectPublicKeyInfo of an RSA-2048 key with exponent 65537.
    static Bytes rsaKeyDer(const VeltraKeyPair& key);
    static Bytes hashOf(std::size_t length);

    std::filesystem::path home_;
    Bytes root_, leaf_; ///< DER of two certificates
};

} // namespace veltra::softtoken::test
