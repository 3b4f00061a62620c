#pragma once

#include "support/googletest.h"
#include "unit/test_certificates.h"

#include "foundation/device_library_contract.h"
#include "foundation/text.h"
#include "foundation/windows.h"
#include "pin_vault.h"
#include "token_operations.h"
#include "token_store.h"
#include "x509.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

namespace veltra::softtoken::test {

namespace fs = std::filesystem;

constexpr const char* kSerial = "T1";
constexpr const char* kPin = "123456";
constexpr const char* kWrongPin = "654321";

/// A certificate in base64 as PEM text, and in DER.
inline std::string pemOf(const char* base64, const std::string& lineEnd = "\n") {
    return "-----BEGIN CERTIFICATE-----" + lineEnd + base64 + lineEnd + "-----END CERTIFICATE-----" + lineEnd;
}
inline Bytes derOf(const char* base64) {
    return certificatesIn(bytesOf(pemOf(base64))).at(0);
}

inline Bytes contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}
inline void store(const fs::path& path, BytesView content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
}

inline std::uint32_t attemptsOnDisk(const char* serial = kSerial) {
    return PinVault(TokenFolder(serial).path()).attemptsLeft();
}

/// Opens this process' session.
inline void logIn(const char* pin = kPin, const char* serial = kSerial) {
    std::uint32_t left = 0;
    validatePin(serial, pin, left);
}

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
    EXPECT_TRUE(std::ranges::equal(listed, made, [](const Record& one, const Record& other) {
        return std::memcmp(&one, &other, sizeof(Record)) == 0;
    }));
}

/// A fresh home folder with one plugged-in token kSerial, used through the core library: the exports put
/// nothing but the contract's argument forms around it.
class SoftTokenTest : public testing::Test {
protected:
    SoftTokenTest() {
        SetEnvironmentVariableW(L"VELTRA_SOFTTOKEN_HOME", home_.c_str());
        create(kSerial);
    }
    ~SoftTokenTest() override {
        std::error_code ignored;
        fs::remove_all(home_, ignored);
    }

    /// Makes another token.
    static void create(const char* serial, std::uint32_t attempts = kDefaultAttempts) {
        TokenDescription description;
        description.serial = serial;
        createToken(description, kPin, attempts);
    }
    template <class Change>
    static void change(Change change) {
        const TokenFolder token(kSerial);
        TokenDescription description = token.description();
        change(description);
        token.saveDescription(description);
    }
    static void plugInAgain() {
        setPlugged(TokenFolder(kSerial), false);
        setPlugged(TokenFolder(kSerial), true);
    }

    static VeltraKeyPair generate(std::uint32_t keyType, std::uint32_t usage = kUsageSign) {
        VeltraKeyPair record{};
        record.keyType = keyType;
        record.usage = usage;
        generateKeyPair(kSerial, kPin, record);
        return record;
    }
    static Bytes sign(const VeltraKeyPair& key, const char* pin = kPin, std::size_t hashLength = 32,
                      SignatureScheme scheme = SignatureScheme::Pkcs1) {
        return softtoken::sign(kSerial, key.keyId, pin, Bytes(hashLength), 512, scheme);
    }

    /// A record for importAesKey().
    static VeltraSymmetricKey aesRecord(const Bytes& material) {
        VeltraSymmetricKey record{};
        std::ranges::copy(material, record.key);
        record.keyLength = static_cast<std::uint32_t>(material.size());
        return record;
    }
    /// A record for importCertificate(), whose key identifier is `keyIdByte` repeated.
    static VeltraCertificate certificateRecord(const Bytes& der, unsigned char keyIdByte) {
        VeltraCertificate record{};
        std::ranges::copy(der, record.der);
        record.derLength = static_cast<std::uint32_t>(der.size());
        std::ranges::fill(record.keyId, keyIdByte);
        return record;
    }

    const fs::path home_ = fs::temp_directory_path() / ("softtoken-" + toHex(randomBytes(8)));
    const Bytes root_ = derOf(veltra::test::kRootCertificate);
    const Bytes leaf_ = derOf(veltra::test::kLeafCertificate);
};

} // namespace veltra::softtoken::test
