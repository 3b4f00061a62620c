#include "softtoken_test.h"

#include "unit/test_certificates.h"

#include <algorithm>
#include <cstring>

namespace veltra::softtoken::test {

class CertificateTest : public SoftTokenTest {
protected:
    using Files = std::vector<std::pair<std::string, Bytes>>;

    CertificateTest() {
        EXPECT_EQ(logIn(), 0);
        fs::create_directories(folder_ / "sub.cer");
    }

    [[nodiscard]] Files read(const std::vector<std::string>& extensions) const {
        return veltra_getFilesWithExtensionsAndConvertDER(folder_.string(), extensions, nullptr);
    }

    static VeltraCertificate import(VeltraCertificate record) {
        EXPECT_EQ(veltra_importCertificate(kSerial, kPin, &record, nullptr), 0);
        return record;
    }

    static std::vector<Bytes> listed() {
        std::vector<Bytes> ders;
        for (const VeltraCertificate& it : veltra_getCertificateList(kSerial, nullptr))
            ders.emplace_back(it.der, it.der + it.derLength);
        return ders;
    }

    const fs::path folder_ = home_ / "certificate files";
};

TEST_F(CertificateTest, DetailsNameSubjectAndIssuerAndNothingElseIsStored) {
    CertificateDetails details;
    const auto read = [&](std::size_t length) {
        return veltra_getCertificateDetails(leaf_.data(), static_cast<int>(length), details, nullptr);
    };
    ASSERT_EQ(read(leaf_.size()), 0);
    for (std::size_t length = 0; length < leaf_.size(); length += 11)
        expectRefusals({read(length)});
    expectRefusals({veltra_getCertificateDetails(nullptr, 5, details, nullptr), read(~std::size_t{0})});
    EXPECT_EQ(details.commonName, "Test Leaf");
    EXPECT_EQ(details.subject, "CN=Test Leaf");
    EXPECT_EQ(details.issuer, "CN=Test Inte");
    VeltraCertificate record = certificateRecord(leaf_, 0x11);
    for (const std::uint32_t length : {0u, 1u, static_cast<std::uint32_t>(leaf_.size()) - 1, 3073u, ~0u}) {
        record.derLength = length;
        expectRefusals({veltra_importCertificate(kSerial, kPin, &record, nullptr)});
    }
    EXPECT_TRUE(listed().empty());
}

TEST_F(CertificateTest, FilesAreReadWhateverTheirFormAndInTheOrderOfTheirNames) {
    const auto pem = [](const char* base64, const char* lineEnd) {
        std::string text = std::string("-----BEGIN CERTIFICATE-----") + lineEnd;
        for (std::string rest = base64; !rest.empty(); rest.erase(0, 64))
            text += rest.substr(0, 64) + lineEnd;
        return text + "-----END CERTIFICATE-----" + lineEnd;
    };
    const std::string root = pem(veltra::test::kRootCertificate, "\n");
    const std::string leaf = pem(veltra::test::kLeafCertificate, "\r\n");
    const std::string der(leaf_.begin(), leaf_.end());
    for (const auto& [name, content] :
         {std::pair("a.cer", der),
          {"b.CRT", root + "some words\n" + leaf},
          {"d.der", root.substr(0, 300) + "\n" + leaf},
          {"empty.cer", ""},
          {"cut.cer", der.substr(0, 200)},
          {"badly.pem", "-----BEGIN CERTIFICATE-----\n!!!!\n-----END CERTIFICATE-----\n"},
          {"e.txt", root},
          {"long.cer", std::string(std::size_t{5} * 1024 * 1024, 'x') + root}})
        store(folder_ / name, bytesOf(content));
    EXPECT_EQ(read({".cer", ".der", ".pem", ".crt"}),
              (Files{{"a.cer", leaf_}, {"b.CRT", root_}, {"b.CRT", leaf_}, {"d.der", leaf_}}));
    EXPECT_EQ(read({".CER"}), (Files{{"a.cer", leaf_}}));
    EXPECT_TRUE(read({}).empty());
    for (const char* folder : {"Z:\\not there", ""})
        EXPECT_TRUE(veltra_getFilesWithExtensionsAndConvertDER(folder, {".cer"}, nullptr).empty());
}

TEST_F(CertificateTest, ACertificateBelongsToOneKeyAndAKeyToOneCertificate) {
    EXPECT_EQ(std::string(import(certificateRecord(leaf_, 0x11)).label), "Certificate-11111111");
    const VeltraCertificate root = import(certificateRecord(root_, 0));
    EXPECT_NE(toHex(root.keyId), std::string(32, '0')) << "an identifier of its own";
    EXPECT_EQ(toHex(import(certificateRecord(root_, 0)).keyId), toHex(root.keyId)) << "again in its place";
    EXPECT_EQ(listed(), (std::vector<Bytes>{leaf_, root_}));

    import(certificateRecord(root_, 0x11));
    EXPECT_EQ(listed(), std::vector<Bytes>{root_}) << "the key's new certificate, nowhere else any more";
    const VeltraCertificate record = import(certificateRecord(leaf_, 0x22));
    EXPECT_EQ(listed(), (std::vector<Bytes>{root_, leaf_}));

    const VeltraCertificate* found = veltra_findCertificateForKey(kSerial, record.keyId, nullptr);
    ASSERT_NE(found, nullptr);
    static_cast<void>(veltra_getCertificateList(kSerial, nullptr));
    EXPECT_EQ(std::memcmp(found, &record, sizeof(record)), 0) << "it stays where it is";
    EXPECT_EQ(veltra_findCertificateForKey(kSerial, root.keyId, nullptr), nullptr);
    const Bytes intermediate = fromBase64(veltra::test::kIntermediateCertificate);
    import(certificateRecord(intermediate, 0x11));
    EXPECT_EQ(listed(), (std::vector<Bytes>{intermediate, leaf_})) << "in the place of the one before";
}

} // namespace veltra::softtoken::test
