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

/// A certificate in base64 as PEM text.
std::string pemOf(const char* base64, const std::string& lineEnd = "\n");
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

/// Compares what a token lists with the records that calls have filled in, byte by byte.
template <class Record>
void expectSameRecords(const std::vector<Record>& listed, const std::vector<Record>& made) {
    ASSERT_EQ(listed.size(), made.size());
    for (std::size_t i = 0; i < made.size(); ++i)
        EXPECT_EQ(std::memcmp(&listed[i], &made[i], sizeof(Record)), 0) << "record " << i;
}

/// A fresh home folder with one plugged-in token kSerial, used through the core library: the exports put
/// nothing but the contract's argument forms around it.
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
    static void plugInAgain();

    /// Opens this process' session, as long as the PIN is right.
    static void logIn(const char* pin = kPin);
    /// A generated key.
    static VeltraKeyPair generate(std::uint32_t keyType, std::uint32_t usage = kUsageSign);
    static Bytes sign(const VeltraKeyPair& key, const char* pin = kPin, std::size_t hashLength = 32,
                      SignatureScheme scheme = SignatureScheme::Pkcs1);

    /// A record for importAesKey().
    static VeltraSymmetricKey aesRecord(const Bytes& material);
    /// A record for importCertificate(), whose key identifier is `keyIdByte` repeated.
    static VeltraCertificate certificateRecord(const Bytes& der, unsigned char keyIdByte);

    fs::path home_;
    Bytes root_, leaf_; ///< DER of two certificates
};

} // namespace veltra::softtoken::test
