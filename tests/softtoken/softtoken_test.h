#pragma once

#include "support/googletest.h"

#include "foundation/device_library_contract.h"
#include "foundation/text.h"
#include "token_operations.h"
#include "token_store.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
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

Bytes fromBase64(const char* text);
Bytes contentOf(const fs::path& path);
void store(const fs::path& path, BytesView content);
std::uint32_t attemptsOnDisk(const char* serial = kSerial);

constexpr Failure kNoFailure{};

/// The failure of a call of the core library, if it fails.
template <class Call>
Failure failureOf(Call call) {
    try {
        call();
        return kNoFailure;
    } catch (const TokenError& error) {
        return error.failure();
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
    ~LibraryOutput() { std::free(data); }

    [[nodiscard]] Bytes bytes() const { return {data, data + length}; }
    [[nodiscard]] bool isEmpty() const { return data == nullptr && length == 0; }
};

/// A fresh home folder with one plugged-in token kSerial.
class SoftTokenTest : public testing::Test {
protected:
    SoftTokenTest();
    ~SoftTokenTest() override;

    /// Makes another token.
    static void create(const char* serial, std::uint32_t attempts = kDefaultAttempts);
    template <class Change>
    static void change(Change change) {
        const TokenFolder token(kSerial);
        TokenDescription description = token.description();
        change(description);
        token.saveDescription(description);
    }

    static int logIn(const char* pin = kPin, int* remaining = nullptr) {
        return veltra_validatePassword(kSerial, pin, 1, remaining, nullptr);
    }
    /// A generated key of kSerial; fails the test when there is none.
    static VeltraKeyPair generate(std::uint32_t keyType, std::uint32_t usage = kUsageSign);
    /// veltra_signHash of kSerial over `hashLength` bytes; fills `signature` when it succeeds.
    static int sign(const VeltraKeyPair& key, std::size_t hashLength, Bytes& signature, bool pss = false,
                    const char* pin = kPin);
    static int sign(const VeltraKeyPair& key, const char* pin = kPin) {
        Bytes signature;
        return sign(key, 32, signature, false, pin);
    }
    /// A signature of a P-256 key by the core library.
    static Failure signInCore(BytesView keyId, const char* pin, const char* serial = kSerial);
    static void plugInAgain();

    /// A record for veltra_importAesKey.
    static VeltraSymmetricKey aesRecord(const Bytes& material);
    /// A record for veltra_importCertificate, whose key identifier is `keyIdByte` repeated.
    static VeltraCertificate certificateRecord(const Bytes& der, unsigned char keyIdByte);

    /// SubjectPublicKeyInfo of an RSA-2048 key with exponent 65537.
    static Bytes rsaKeyDer(BytesView modulus) {
        return fromHex("30820122300D06092A864886F70D01010105000382010F003082010A0282010100" + toHex(modulus) +
                       "0203010001");
    }
    static Bytes hashOf(std::size_t length);

    fs::path home_;
    Bytes root_, leaf_; ///< DER of two certificates
};

} // namespace veltra::softtoken::test
