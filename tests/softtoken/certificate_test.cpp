#include "softtoken_test.h"

#include "certificate_files.h"

namespace veltra::softtoken::test {

namespace {

VeltraCertificate import(VeltraCertificate record) {
    importCertificate(kSerial, kPin, record);
    return record;
}

std::vector<Bytes> listed() {
    std::vector<Bytes> ders;
    for (const VeltraCertificate& it : certificates(kSerial))
        ders.emplace_back(it.der, it.der + it.derLength);
    return ders;
}

} // namespace

TEST_F(SoftTokenTest, CertificateDetailsNameSubjectAndIssuerAndNothingElseIsStored) {
    logIn();
    const CertificateDetails details = certificateDetails(leaf_);
    EXPECT_EQ(details.commonName, "Test Leaf");
    EXPECT_EQ(details.subject, "CN=Test Leaf");
    EXPECT_EQ(details.issuer, "CN=Test Inte");
    for (std::size_t length = 0; length < leaf_.size(); length += 11)
        EXPECT_EQ(failureOf([&] { certificateDetails(BytesView(leaf_).first(length)); }),
                  Failure::BadArgument);
    VeltraCertificate record = certificateRecord(leaf_, 0x11);
    for (const std::uint32_t length : {0u, 1u, record.derLength - 1, 3073u, ~0u}) {
        record.derLength = length;
        EXPECT_EQ(failureOf([&] { import(record); }), Failure::BadArgument);
    }
    EXPECT_TRUE(listed().empty());
}

TEST_F(SoftTokenTest, CertificateFilesAreReadWhateverTheirFormAndInTheOrderOfTheirNames) {
    const fs::path folder = home_ / "certificate files";
    fs::create_directories(folder / "sub.cer");
    const std::string root = pemOf(veltra::test::kRootCertificate);
    const std::string leaf = pemOf(veltra::test::kLeafCertificate, "\r\n");
    const std::string der(leaf_.begin(), leaf_.end());
    for (const auto& [name, content] : {std::pair("a.cer", der),
                                        {"b.CRT", root + "some words\n" + leaf},
                                        {"d.der", root.substr(0, 300) + "\n" + leaf},
                                        {"empty.cer", ""},
                                        {"cut.cer", der.substr(0, 200)},
                                        {"badly.pem", pemOf("!!!!")},
                                        {"e.txt", root},
                                        {"long.cer", std::string(std::size_t{5} * 1024 * 1024, 'x') + root}})
        store(folder / name, bytesOf(content));
    EXPECT_EQ(readCertificateFolder(folder.string(), {".cer", ".der", ".pem", ".crt"}),
              (NamedCertificates{{"a.cer", leaf_}, {"b.CRT", root_}, {"b.CRT", leaf_}, {"d.der", leaf_}}));
    EXPECT_EQ(readCertificateFolder(folder.string(), {".CER"}), (NamedCertificates{{"a.cer", leaf_}}));
    EXPECT_TRUE(readCertificateFolder(folder.string(), {}).empty());
    for (const char* missing : {"Z:\\not there", ""})
        EXPECT_TRUE(readCertificateFolder(missing, {".cer"}).empty());
}

TEST_F(SoftTokenTest, ACertificateBelongsToOneKeyAndAKeyToOneCertificate) {
    logIn();
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
    const Bytes intermediate = derOf(veltra::test::kIntermediateCertificate);
    import(certificateRecord(intermediate, 0x11));
    EXPECT_EQ(listed(), (std::vector<Bytes>{intermediate, leaf_})) << "in the place of the one before";
}

} // namespace veltra::softtoken::test
