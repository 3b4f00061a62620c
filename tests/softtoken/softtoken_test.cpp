#include "softtoken_test.h"

#include "foundation/windows.h"
#include "pin_vault.h"
#include "unit/test_certificates.h"
#include "x509.h"

#include <fstream>
#include <iterator>

namespace veltra::softtoken::test {

std::string pemOf(const char* base64, const std::string& lineEnd) {
    return "-----BEGIN CERTIFICATE-----" + lineEnd + base64 + lineEnd + "-----END CERTIFICATE-----" + lineEnd;
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

SoftTokenTest::SoftTokenTest()
    : home_(fs::temp_directory_path() / ("softtoken-" + toHex(randomBytes(8)))),
      root_(certificatesIn(bytesOf(pemOf(veltra::test::kRootCertificate))).at(0)),
      leaf_(certificatesIn(bytesOf(pemOf(veltra::test::kLeafCertificate))).at(0)) {
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

void SoftTokenTest::plugInAgain() {
    setPlugged(TokenFolder(kSerial), false);
    setPlugged(TokenFolder(kSerial), true);
}

void SoftTokenTest::logIn(const char* pin) {
    std::uint32_t left = 0;
    validatePin(kSerial, pin, left);
}

VeltraKeyPair SoftTokenTest::generate(std::uint32_t keyType, std::uint32_t usage) {
    VeltraKeyPair record{};
    record.keyType = keyType;
    record.usage = usage;
    generateKeyPair(kSerial, kPin, record);
    return record;
}

Bytes SoftTokenTest::sign(const VeltraKeyPair& key, const char* pin, std::size_t hashLength,
                          SignatureScheme scheme) {
    return softtoken::sign(kSerial, key.keyId, pin, Bytes(hashLength), 512, scheme);
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

} // namespace veltra::softtoken::test
