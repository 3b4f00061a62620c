#include "softtoken_test.h"

#include "foundation/windows.h"
#include "pin_vault.h"
#include "unit/test_certificates.h"

#include <fstream>
#include <iterator>

namespace veltra::softtoken::test {

Bytes fromBase64(const char* text) {
    Bytes bytes(4096);
    auto length = static_cast<DWORD>(bytes.size());
    EXPECT_TRUE(CryptStringToBinaryA(text, 0, CRYPT_STRING_BASE64, bytes.data(), &length, nullptr, nullptr));
    bytes.resize(length);
    return bytes;
}

Bytes contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void store(const fs::path& path, BytesView content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
}

std::uint32_t attemptsOnDisk(const char* serial) {
    return PinVault(TokenFolder(serial).path()).attemptsLeft();
}

void expectRefusals(std::initializer_list<int> results) {
    int index = 0;
    for (const int result : results) {
        EXPECT_NE(result, kDeviceOk) << "call " << index;
        EXPECT_FALSE(result == kDeviceTimeMismatch || result == kDeviceSessionExpired ||
                     result == kDeviceWeakHashRefused)
            << "call " << index << ": " << result;
        ++index;
    }
}

SoftTokenTest::SoftTokenTest()
    : home_(fs::temp_directory_path() / ("softtoken-" + toHex(randomBytes(8)))),
      root_(fromBase64(veltra::test::kRootCertificate)), leaf_(fromBase64(veltra::test::kLeafCertificate)) {
    SetEnvironmentVariableW(L"VELTRA_SOFTTOKEN_HOME", home_.c_str());
    create(kSerial);
}

SoftTokenTest::~SoftTokenTest() {
    std::error_code ignored;
    fs::remove_all(home_, ignored);
}

void SoftTokenTest::create(const char* serial, std::uint32_t attempts) {
    TokenDescription description;
    description.serial = serial;
    description.label = "Token of a test";
    createToken(description, kPin, attempts);
}

VeltraKeyPair SoftTokenTest::generate(std::uint32_t keyType, std::uint32_t usage) {
    VeltraKeyPair record{};
    record.keyType = keyType;
    record.usage = usage;
    EXPECT_EQ(veltra_generateKeyPair(kSerial, kPin, &record, nullptr), 0) << "key type " << keyType;
    return record;
}

int SoftTokenTest::sign(const VeltraKeyPair& key, std::size_t hashLength, Bytes& signature, bool pss,
                        const char* pin) {
    signature.assign(512, 0);
    int length = lengthOf(signature);
    const int result =
        veltra_signHash(kSerial, key.keyId, pin, hashOf(hashLength).data(), static_cast<int>(hashLength),
                        signature.data(), &length, false, nullptr, pss);
    signature.resize(static_cast<std::size_t>(length));
    return result;
}

Failure SoftTokenTest::signInCore(BytesView keyId, const char* pin, const char* serial) {
    return failureOf([&] {
        EXPECT_EQ(softtoken::sign(serial, keyId, pin, Bytes(32), 64, SignatureScheme::Pkcs1).size(), 64u);
    });
}

void SoftTokenTest::plugInAgain() {
    setPlugged(TokenFolder(kSerial), false);
    setPlugged(TokenFolder(kSerial), true);
}

VeltraSymmetricKey SoftTokenTest::aesRecord(const Bytes& material) {
    VeltraSymmetricKey record{};
    std::ranges::copy(material, record.key);
    record.keyLength = static_cast<std::uint32_t>(material.size());
    return record;
}

VeltraCertificate SoftTokenTest::certificateRecord(const Bytes& der, unsigned char keyIdByte) {
    VeltraCertificate record{};
    std::ranges::copy(der, record.der);
    record.derLength = static_cast<std::uint32_t>(der.size());
    std::ranges::fill(record.keyId, keyIdByte);
    return record;
}

Bytes SoftTokenTest::hashOf(std::size_t length) {
    Bytes hash(length);
    for (std::size_t i = 0; i < length; ++i)
        hash[i] = static_cast<unsigned char>(0xF1 + 7 * i);
    return hash;
}

} // namespace veltra::softtoken::test
