#include "loaded_library.h"

#include <cstring>
#include <fstream>

namespace veltra::softtoken::test {

namespace fs = std::filesystem;

namespace {

// Made with OpenSSL: "Test Root", self-signed, and "Test Leaf", signed by it; both EC P-256.
constexpr const char* kRootPem = "-----BEGIN CERTIFICATE-----\n"
                                 "MIIBwzCCAWmgAwIBAgIUG5WUAP6TblQ6uFKIg45GrH0SyaQwCgYIKoZIzj0EAwIw\n"
                                 "NjELMAkGA1UEBhMCWFgxEzARBgNVBAoMClRlc3QgV29ya3MxEjAQBgNVBAMMCVRl\n"
                                 "c3QgUm9vdDAgFw0yNjExMjMwMDIyNDFaGA8yMTI2MTAzMDAwMjI0MVowNjELMAkG\n"
                                 "A1UEBhMCWFgxEzARBgNVBAoMClRlc3QgV29ya3MxEjAQBgNVBAMMCVRlc3QgUm9v\n"
                                 "dDBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IABLNy/BVekpwXJE1fKBQ01rNWdXia\n"
                                 "WDV9sKk84snSzXwtymEqbCWVfYTLDBP1c0voGoy7HKguJVMsq+FBgAQiUqSjUzBR\n"
                                 "MB0GA1UdDgQWBBRNQEShlMdYO9kdrrQ8WTAU0em62TAfBgNVHSMEGDAWgBRNQESh\n"
                                 "lMdYO9kdrrQ8WTAU0em62TAPBgNVHRMBAf8EBTADAQH/MAoGCCqGSM49BAMCA0gA\n"
                                 "MEUCID8KOv+5clkcDXLKX6uVrLvOh6SO4Hse9ubS9fYGwdoyAiEAsFhDjty4rqVk\n"
                                 "NVSSq471Y3ZxRz/4whFoKveudyssIt4=\n"
                                 "-----END CERTIFICATE-----\n";
constexpr const char* kLeafPem = "-----BEGIN CERTIFICATE-----\n"
                                 "MIIBVTCB/QIBBzAKBggqhkjOPQQDAjA2MQswCQYDVQQGEwJYWDETMBEGA1UECgwK\n"
                                 "VGVzdCBXb3JrczESMBAGA1UEAwwJVGVzdCBSb290MCAXDTI2MTEyMzAwMjI0MVoY\n"
                                 "DzIxMjYxMDMwMDAyMjQxWjA3MQswCQYDVQQGEwJYWDEUMBIGA1UECgwLQ29tbWFz\n"
                                 "LCBJbmMxEjAQBgNVBAMMCVRlc3QgTGVhZjBZMBMGByqGSM49AgEGCCqGSM49AwEH\n"
                                 "A0IABFv4U7018GZZyf5pH/5EGcBpMkdj14w35evWKuBcngOb8a5hKiNHzcDtd47A\n"
                                 "+uGLx28Fcw9KGplNB7EDxHnWf1kwCgYIKoZIzj0EAwIDRwAwRAIgIMJ4B0QrBvIU\n"
                                 "L5t9Idnuj5hUoVE30fcUc/6bHeyT2cUCIADxV3rQapmtTw2629TCbxr8eOrYA9/1\n"
                                 "8/zS0eyTTkQ6\n"
                                 "-----END CERTIFICATE-----\n";

void store(const fs::path& path, std::string_view content) {
    std::ofstream file(path, std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
}

std::string textOf(const Bytes& bytes) {
    return {bytes.begin(), bytes.end()};
}

} // namespace

class CertificateTest : public SoftTokenTest {
protected:
    using Files = std::vector<std::pair<std::string, Bytes>>;

    CertificateTest() {
        EXPECT_EQ(logIn(), 0);
        fs::create_directories(folder_);
        store(folder_ / "root.pem", kRootPem);
        store(folder_ / "leaf.pem", kLeafPem);
        const Files files = read({".pem"});
        if (files.size() != 2) throw std::runtime_error("the certificates of the test cannot be read");
        leaf_ = files[0].second;
        root_ = files[1].second;
        fs::remove(folder_ / "root.pem");
        fs::remove(folder_ / "leaf.pem");
    }

    Files read(const std::vector<std::string>& extensions) const {
        return library_.getFilesWithExtensionsAndConvertDER(folder_.string(), extensions, nullptr);
    }

    static VeltraCertificate recordOf(const Bytes& der, unsigned char keyIdByte = 0) {
        VeltraCertificate record{};
        std::ranges::copy(der, record.der);
        record.derLength = static_cast<std::uint32_t>(der.size());
        std::ranges::fill(record.keyId, keyIdByte);
        return record;
    }

    VeltraCertificate import(VeltraCertificate record) const {
        EXPECT_EQ(library_.importCertificate(kSerial, kPin, &record, nullptr), 0);
        return record;
    }

    std::vector<Bytes> listed() const {
        std::vector<Bytes> ders;
        for (const VeltraCertificate& it : library_.getCertificateList(kSerial, nullptr))
            ders.emplace_back(it.der, it.der + it.derLength);
        return ders;
    }

    fs::path folder_ = home_ / "certificate files";
    Bytes root_, leaf_;
};

TEST_F(CertificateTest, DetailsNameSubjectAndIssuer) {
    CertificateDetails details;
    ASSERT_EQ(library_.getCertificateDetails(leaf_.data(), static_cast<int>(leaf_.size()), details, nullptr),
              0);
    EXPECT_EQ(details.commonName, "Test Leaf");
    EXPECT_EQ(details.subject, "CN=Test Leaf, O=Commas, Inc, C=XX");
    EXPECT_EQ(details.issuer, "CN=Test Root, O=Test Works, C=XX");
    for (std::size_t length = 0; length < leaf_.size(); length += 11) {
        EXPECT_NE(library_.getCertificateDetails(leaf_.data(), static_cast<int>(length), details, nullptr), 0)
            << length;
    }
    EXPECT_NE(library_.getCertificateDetails(nullptr, 5, details, nullptr), 0);
    EXPECT_NE(library_.getCertificateDetails(leaf_.data(), -1, details, nullptr), 0);
    EXPECT_EQ(details.commonName, "Test Leaf") << "a refusal changes nothing";
}

TEST_F(CertificateTest, FilesAreReadWhateverTheirFormAndInTheOrderOfTheirNames) {
    const std::string noEnd = std::string(kRootPem).substr(0, 300);
    std::string windowsLines;
    for (const char c : std::string(kLeafPem))
        windowsLines += c == '\n' ? std::string("\r\n") : std::string(1, c);
    store(folder_ / "b.CRT", kRootPem + std::string("some words\n") + windowsLines);
    store(folder_ / "a.cer", textOf(leaf_));
    store(folder_ / "c.pem", textOf(root_));
    store(folder_ / "d.der", noEnd + "\n" + kLeafPem);
    store(folder_ / "empty.cer", "");
    store(folder_ / "junk.cer", std::string(5000, 'j'));
    store(folder_ / "cut.cer", textOf(leaf_).substr(0, 200));
    store(folder_ / "cut.pem", noEnd);
    store(folder_ / "badly.pem", "-----BEGIN CERTIFICATE-----\n!!!!\n-----END CERTIFICATE-----\n");
    store(folder_ / "e.txt", kRootPem);
    store(folder_ / "long.cer", std::string(std::size_t{5} * 1024 * 1024, 'x') + kRootPem);
    fs::create_directories(folder_ / "sub.cer");
    const Files expected = {
        {"a.cer", leaf_}, {"b.CRT", root_}, {"b.CRT", leaf_}, {"c.pem", root_}, {"d.der", leaf_}};
    EXPECT_EQ(read({".cer", ".der", ".pem", ".crt"}), expected);
    EXPECT_EQ(read({".CER"}), (Files{{"a.cer", leaf_}}));
    EXPECT_TRUE(read({}).empty());
    folder_ = home_ / "not there";
    EXPECT_TRUE(read({".cer"}).empty());
    EXPECT_TRUE(library_.getFilesWithExtensionsAndConvertDER("", {".cer"}, nullptr).empty());
}

TEST_F(CertificateTest, ACertificateBelongsToOneKeyAndAKeyToOneCertificate) {
    const VeltraCertificate leaf = import(recordOf(leaf_, 0x11));
    EXPECT_EQ(toHex(leaf.keyId), "11111111111111111111111111111111");
    EXPECT_EQ(std::string(leaf.label), "Certificate-11111111");
    const VeltraCertificate root = import(recordOf(root_));
    EXPECT_NE(toHex(root.keyId), std::string(32, '0'));
    EXPECT_EQ(toHex(import(recordOf(root_)).keyId), toHex(root.keyId)) << "stored again in its place";
    EXPECT_EQ(listed(), (std::vector<Bytes>{leaf_, root_}));

    import(recordOf(root_, 0x11));
    EXPECT_EQ(listed(), std::vector<Bytes>{root_}) << "the key's new certificate, nowhere else any more";
    import(recordOf(leaf_, 0x22));
    EXPECT_EQ(listed(), (std::vector<Bytes>{root_, leaf_}));
}

TEST_F(CertificateTest, TheCertificateOfAKeyStaysWhereItIsUntilTheNextQuestion) {
    VeltraCertificate record = recordOf(leaf_, 0x11);
    std::strcpy(record.label, "mine");
    record = import(record);
    import(recordOf(root_, 0x22));
    const VeltraCertificate* found = library_.findCertificateForKey(kSerial, record.keyId, nullptr);
    ASSERT_NE(found, nullptr);
    static_cast<void>(library_.getCertificateList(kSerial, nullptr));
    EXPECT_EQ(std::memcmp(found, &record, sizeof(record)), 0);
    EXPECT_EQ(std::string(found->label), "mine");
    EXPECT_EQ(found->credentialIdLength, kKeyIdLength);
    const unsigned char unknown[kKeyIdLength] = {1};
    EXPECT_EQ(library_.findCertificateForKey(kSerial, unknown, nullptr), nullptr);
    EXPECT_EQ(library_.findCertificateForKey(kSerial, nullptr, nullptr), nullptr);
    EXPECT_EQ(library_.findCertificateForKey(nullptr, record.keyId, nullptr), nullptr);
}

TEST_F(CertificateTest, OnlyCertificatesAreStored) {
    VeltraCertificate record = recordOf(leaf_, 0x11);
    for (const std::uint32_t length : {0u, 1u, static_cast<std::uint32_t>(leaf_.size()) - 1, 3073u, ~0u}) {
        record.derLength = length;
        EXPECT_NE(library_.importCertificate(kSerial, kPin, &record, nullptr), 0) << length;
    }
    EXPECT_NE(library_.importCertificate(kSerial, kPin, nullptr, nullptr), 0);
    EXPECT_NE(library_.importCertificate("T9", kPin, &record, nullptr), 0);
    EXPECT_TRUE(listed().empty());
}

TEST_F(CertificateTest, ADamagedFileIsLeftOutAndNotReplaced) {
    import(recordOf(leaf_, 0x11));
    import(recordOf(root_, 0x22));
    const fs::path file =
        TokenFolder(kSerial).path() / "certificates" / (std::string(32, '1') + ".certificate");
    ASSERT_TRUE(fs::exists(file));
    store(file, "damaged");
    EXPECT_EQ(listed(), std::vector<Bytes>{root_});
    VeltraCertificate record = recordOf(leaf_, 0x11);
    EXPECT_EQ(library_.findCertificateForKey(kSerial, record.keyId, nullptr), nullptr);
    EXPECT_NE(library_.importCertificate(kSerial, kPin, &record, nullptr), 0);
    EXPECT_EQ(fs::file_size(file), 7u);
}

} // namespace veltra::softtoken::test
