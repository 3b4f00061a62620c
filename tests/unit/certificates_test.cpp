#include "support/csp_test.h"
#include "unit/test_certificates.h"

#include "certs/certificate_chain.h"
#include "certs/certificate_import.h"
#include "foundation/text.h"
#include "token/device_state.h"

#include <algorithm>

namespace veltra::test {
namespace {

const DWORD kCertificateChain = 9; // PP_CERTCHAIN, which not every platform header has
const DWORD kNoKey = 0x8009000D;
const std::string kSet = "CPSetKeyParam: KP_CERTIFICATE ";
const std::string kGet = "CPGetKeyParam: KP_CERTIFICATE ";
const std::string kImport = "importCertificateWithChain: ";
const std::string kFolder = "X:/none\\VeltraDSC\\Certificates";

Bytes decoded(const char* base64) {
    DWORD length = 0;
    CryptStringToBinaryA(base64, 0, CRYPT_STRING_BASE64, nullptr, &length, nullptr, nullptr);
    Bytes bytes(length);
    CryptStringToBinaryA(base64, 0, CRYPT_STRING_BASE64, bytes.data(), &length, nullptr, nullptr);
    return bytes;
}

/// The certificate with the first of its names, the issuer's, replaced by one of the same length.
Bytes reissued(Bytes der, const std::string& from, const std::string& to) {
    std::ranges::copy(to, std::ranges::search(der, from).begin());
    return der;
}

class CertificateChainTest : public CspTest {
protected:
    CertificateChainTest() {
        token.addKeyPair(0x11);
        provider = acquire(std::string(32, '1').c_str());
    }
    Answer chain(HCRYPTPROV handle, DWORD capacity) {
        message.assign(capacity, 0xEE);
        length = capacity;
        BYTE* out = capacity != 0 ? message.data() : nullptr;
        return run([&] { return CPGetProvParam(handle, kCertificateChain, out, &length, 0); });
    }
    static VeltraCertificate recordOf(const Bytes& der) { return ScriptedToken().addCertificate(0, der); }

    const Bytes root = decoded(kRootCertificate);
    const Bytes intermediate = decoded(kIntermediateCertificate);
    const Bytes leaf = decoded(kLeafCertificate);
    HCRYPTPROV provider = 0;
    Bytes message;
    DWORD length = 0;
};

TEST_F(CertificateChainTest, MessageHasNoSignersAndTheCertificatesRootFirst) {
    struct Row {
        const char* name;
        std::vector<Bytes> onToken, inMessage; // on the token the key's own first
    };
    for (const Row& row :
         {Row{"whole chain", {leaf, root, {0x30, 0x00}, intermediate}, {root, intermediate, leaf}},
          {"issuer is not on the token", {leaf, root}, {leaf}},
          {"chain without its root", {leaf, intermediate}, {intermediate, leaf}},
          {"self-signed", {root, leaf, intermediate}, {root}}}) {
        SCOPED_TRACE(row.name);
        token.certificates.clear();
        for (const Bytes& der : row.onToken)
            token.addCertificate(token.certificates.empty() ? 0x11 : 0x99, der);
        EXPECT_EQ(chain(provider, 0), accepted(ERROR_MORE_DATA));
        const DWORD size = length;
        EXPECT_EQ(chain(provider, size - 1), accepted(ERROR_MORE_DATA));
        EXPECT_EQ(length, size);
        EXPECT_EQ(message, Bytes(size - 1, 0xEE));
        ASSERT_EQ(chain(provider, size), accepted());
        std::string certificates;
        for (const Bytes& der : row.inMessage)
            certificates += toHex(der);
        const auto lengthOf = [&certificates](std::size_t around) {
            return "82" + toHex8(static_cast<std::uint32_t>(certificates.size() / 2 + around)).substr(4);
        };
        EXPECT_EQ(toHex(message),
                  concat("30", lengthOf(43), "06092A864886F70D010702A0", lengthOf(28), "30", lengthOf(24),
                         "0201013100300B06092A864886F70D010701A0", lengthOf(0), certificates, "3100"));
    }
    EXPECT_THAT(library.calls("veltra_findCertificateForKey").back(), testing::EndsWith("key=1111..1111)"));
    const Bytes other = reissued(root, "Test Root", "Test Inte");
    EXPECT_EQ(buildTokenChain(recordOf(leaf), {recordOf(intermediate), recordOf(other)}).size(), 3u)
        << "two that name each other";
}

TEST_F(CertificateChainTest, Refusals) {
    EXPECT_EQ(chain(acquire("other"), 9000),
              refused(kNoKey, {"CPGetProvParam PP_CERTCHAIN: container not found, containerName=other"}));
    EXPECT_EQ(chain(provider, 9000), refused(kNoKey, {"Certificate Is Empty"}));
    token.addCertificate(0x11, {0x30, 0x82, 0x01, 0x00, 0x05}).derLength = 3073;
    EXPECT_FALSE(chain(provider, 9000).result);
    token.certificates[0].derLength = 5;
    EXPECT_EQ(chain(provider, 9000),
              refused(NTE_BAD_KEY, {"[ERROR] Cannot parse leaf cert", "Failed creating leaf certificate"}));
    EXPECT_EQ(message, Bytes(9000, 0xEE));
}

class KeyCertificateTest : public CspTest {
protected:
    KeyCertificateTest() {
        SetEnvironmentVariableA("VELTRA_HOME", "X:/none");
        token.addKeyPair(0x11);
        storePinOfToken();
    }
    ~KeyCertificateTest() override { SetEnvironmentVariableA("VELTRA_HOME", nullptr); }

    /// Opens the key afresh, so that the key object has the label that the key pair has now.
    Answer set(const Bytes& der, DWORD flags = 0) {
        const HCRYPTPROV provider = acquire(std::string(32, '1').c_str(), flags);
        const HCRYPTKEY key = userKey(provider, AT_SIGNATURE);
        const BYTE* data = der.empty() ? nullptr : der.data();
        library.clearCalls();
        return run([&] { return CPSetKeyParam(provider, key, KP_CERTIFICATE, data, 0); });
    }
    auto lines(const std::string& line) const { return std::ranges::count(debugLines, line); }
    /// The common names of what was imported, in order.
    std::vector<std::string> imported() const {
        std::vector<std::string> names;
        for (const VeltraCertificate& record : token.certificates)
            names.emplace_back(record.der + 4, std::find(record.der + 4, std::end(record.der), '|'));
        return names;
    }
    static Bytes certificate(const std::string& name, const std::string& issuer) {
        return ScriptedDeviceLibrary::fakeCertificate(name, "C=XX, CN=" + issuer + ", O=x", "CN=" + name);
    }

    const Bytes leaf = certificate("leaf", "middle");
};

TEST_F(KeyCertificateTest, ReadingItHasTheSizeProtocolAndRereadsTheToken) {
    const HCRYPTPROV provider = acquire();
    const HCRYPTKEY key = userKey(provider, AT_KEYEXCHANGE);
    BYTE data[64] = {};
    DWORD length = sizeof data;
    const auto get = [&](DWORD capacity, BYTE* out) {
        length = capacity;
        return run([&] { return CPGetKeyParam(provider, key, KP_CERTIFICATE, out, &length, 0); });
    };
    library.clearCalls();
    EXPECT_EQ(get(64, data), refused(NTE_NOT_FOUND, {kGet + "not found, return FALSE"}));
    EXPECT_THAT(library.calls(),
                ElementsAre("veltra_initDevice(serial=" + serial + ", reread=1)",
                            "veltra_findCertificateForKey(serial=" + serial + ", key=1111..1111)"));
    token.addCertificate(0x11, leaf);
    const auto size = static_cast<DWORD>(leaf.size());
    for (BYTE* out : {static_cast<BYTE*>(nullptr), data}) {
        EXPECT_EQ(get(out ? 0 : 9, out), accepted());
        EXPECT_EQ(debugLines.back(), concat(kGet, "size query, len=", size, ", return TRUE"));
        EXPECT_EQ(length, size);
    }
    EXPECT_EQ(get(size - 1, data), refused(ERROR_MORE_DATA, {kGet + "buffer too small, return FALSE"}));
    EXPECT_EQ(length, size);
    EXPECT_EQ(data[0], 0);
    EXPECT_EQ(get(size, data), accepted());
    EXPECT_EQ(Bytes(data, data + size), leaf);
    EXPECT_EQ(debugLines.back(), concat(kGet, "copied, len=", size, ", return TRUE"));
    token.certificates[0].derLength = 0xFFFFFFFF;
    EXPECT_FALSE(get(64, data).result);
}

TEST_F(KeyCertificateTest, NoMoreThanTheDerHeaderSaysIsRead) {
    struct Row {
        Bytes der; // no byte more, so that the sanitizer sees every one too many
        Answer answer;
    };
    const Answer badLength = refused(NTE_BAD_DATA, {kSet + "unsupported DER length encoding"});
    for (const Row& row : {Row{{}, refused(ERROR_INVALID_PARAMETER, {kSet + "pbData is null"})},
                           {{0x31}, refused(NTE_BAD_DATA, {kSet + "invalid DER (not a SEQUENCE)"})},
                           {{0x30, 0x80}, badLength},
                           {{0x30, 0x84}, badLength},
                           {{0x30, 0xFF}, badLength}}) {
        EXPECT_EQ(set(row.der), row.answer);
        EXPECT_THAT(library.calls(), IsEmpty());
    }
    library.script("veltra_getCertificateDetails", {.result = 6});
    const Answer unparsed =
        refused(NTE_FAIL, {kImport + "certificate parsing failed", kSet + "import failed ret=6"});
    for (const auto& [header, total] : {std::pair{Bytes{0x30, 0x7F}, 129u},
                                        {Bytes{0x30, 0x81, 0x80}, 131u},
                                        {Bytes{0x30, 0x82, 0x03, 0x10}, 788u},
                                        {Bytes{0x30, 0x83, 0x00, 0x0B, 0xFB}, 3072u},
                                        {Bytes{0x30, 0x82, 0x0B, 0xFD}, 3073u},
                                        {Bytes{0x30, 0x83, 0xFF, 0xFF, 0xFF}, 16777220u}}) {
        Bytes der = header;
        if (total <= 3072) der.resize(total);
        const Answer answer = set(der);
        EXPECT_EQ(lines(concat(kSet, "DER length=", total)), 1);
        if (total <= 3072) {
            EXPECT_EQ(answer, unparsed);
            EXPECT_THAT(library.calls().back(), testing::EndsWith(concat("(", total, "))")));
        } else {
            EXPECT_EQ(answer.lastError, static_cast<DWORD>(NTE_BAD_DATA));
            EXPECT_THAT(library.calls(), IsEmpty());
        }
    }
}

TEST_F(KeyCertificateTest, IssuersAreImportedNearestFirstAndTheCertificateLast) {
    struct Row {
        std::vector<Bytes> files;
        std::vector<std::string> expected;
        const char*
            missing; // the issuer that ends the walk; empty: it ends with a self-signed one or a guard
    };
    const Bytes middle = certificate("middle", "root");
    const Bytes root = certificate("root", "root");
    for (const Row& row : {Row{{root, {0x30, 0, 0, 0}, middle}, {"middle", "root", "leaf"}, ""},
                           {{root}, {"leaf"}, "middle"},
                           {{middle}, {"middle", "leaf"}, "root"},
                           {{middle, certificate("root", "middle")}, {"middle", "root", "leaf"}, ""},
                           {{certificate("middle", std::string(3100, 'r'))}, {"leaf"}, "middle"}}) {
        token.certificates.clear();
        library.caFiles.clear();
        for (const Bytes& der : row.files)
            library.caFiles.emplace_back("file", der);
        EXPECT_EQ(set(leaf), accepted());
        EXPECT_EQ(imported(), row.expected);
        EXPECT_EQ(
            lines(kImport + "Issuer '" + row.missing + "' NOT found \xE2\x80\x94 skipping chain import"),
            *row.missing != '\0');
        const bool alone = row.expected.size() == 1;
        EXPECT_EQ(lines(kImport + "certificate imported successfully"), alone ? 0 : std::ssize(row.expected));
        EXPECT_EQ(lines(kImport + "chain import skipped \xE2\x80\x94 performing normal leaf import"), alone);
        EXPECT_EQ(lines(kSet + "imported successfully"), 1);
    }
    EXPECT_THAT(library.calls("veltra_getFilesWithExtensionsAndConvertDER"),
                ElementsAre("veltra_getFilesWithExtensionsAndConvertDER(folder=" + kFolder +
                            ", extensions= .cer .der .pem .crt)"));
    EXPECT_EQ(lines(kImport + "CA Folder: " + kFolder), 1);
    const VeltraCertificate& stored = token.certificates.back();
    EXPECT_EQ(keyNameOf(stored.keyId), std::string(32, '1'));
    EXPECT_EQ(Bytes(stored.credentialId, stored.credentialId + stored.credentialIdLength), Bytes{0x11});
    EXPECT_STREQ(stored.label, kPairLabel) << "the key pair's";
    SetEnvironmentVariableA("VELTRA_HOME", "");
    set(leaf);
    EXPECT_EQ(lines(kImport + "CA Folder: \\VeltraDSC\\Certificates"), 0) << "empty: the install folders";
}

TEST_F(KeyCertificateTest, FailedImports) {
    library.script("veltra_importCertificate", {.result = 8, .onCall = 1});
    library.script("veltra_importCertificate", {.result = 8, .onCall = 3});
    EXPECT_EQ(set(leaf),
              refused(NTE_FAIL, {kImport + "leaf import failed ret=8", kSet + "import failed ret=8"}));
    library.caFiles = {{"a.cer", certificate("middle", "root")}, {"b.cer", certificate("root", "root")}};
    EXPECT_EQ(set(leaf), refused(NTE_FAIL, {kImport + "chain import failed at index 1 ret=8",
                                            kSet + "import failed ret=8"}));
    EXPECT_THAT(imported(), ElementsAre("middle")) << "what was imported stays";
}

TEST_F(KeyCertificateTest, LabelIsMadeOfTheNamesAndGivenToAnUnnamedKeyPair) {
    token.keyPairs[0].label[0] = '\0';
    for (const std::size_t issuerLength : {3u, 200u}) {
        const std::string issuer(issuerLength, 'i');
        const std::string label = concat("leaf_C=XX, CN=", issuer, ", O=x").substr(0, 128);
        EXPECT_EQ(set(certificate("leaf", issuer)), accepted());
        EXPECT_EQ(token.certificates.back().label, label);
        EXPECT_EQ(lines(kImport + "label not provided, using: " + label), 1);
        EXPECT_EQ(lines(kImport + "updating empty key pair alias to: " + label), 1);
        EXPECT_EQ(library.calls().back(), "veltra_updateKeyPairDetails(serial=" + serial +
                                              ", key=1111..1111, pin=1234, label=" + label +
                                              ", data=null(0))");
    }
    std::ranges::fill(token.keyPairs[0].label, 'L'); // nothing in it ends it
    EXPECT_EQ(set(leaf), accepted());
    EXPECT_EQ(token.certificates.back().label, std::string(128, 'L'));
    EXPECT_THAT(library.calls("veltra_updateKeyPairDetails"), IsEmpty());
}

TEST_F(KeyCertificateTest, LoginAsksOnceAndKeepsThePin) {
    storePin(serial, Pin());
    for (const DWORD flags : {DWORD{CRYPT_SILENT}, DWORD{0}}) { // refused, cancelled
        const Answer answer = set(leaf, flags);
        EXPECT_EQ(answer.lastError, static_cast<DWORD>(NTE_FAIL));
        EXPECT_EQ(answer.errors.back(), kSet + "login failed");
    }
    EXPECT_THAT(token.certificates, IsEmpty());
    prompt.willType({"1234"});
    EXPECT_EQ(set(leaf), accepted());
    EXPECT_EQ(storedPin(), "1234");
    EXPECT_EQ(set(leaf, CRYPT_SILENT), accepted());
    EXPECT_THAT(prompt.seen(), ElementsAre("ask", "ask"));
}

TEST(CommonNameTest, IsTheFirstMatchThatIsNotEmpty) {
    for (const auto& [name, expected] : {std::pair{"CN=a", "a"},
                                         {"C=XX, CN=a b, O=c", "a b"},
                                         {"CN=a\nCN=b", "a"},
                                         {"CN=a\rb", "a"},
                                         {"CN=,CN=b", "b"},
                                         {"CN=CN=a", "CN=a"},
                                         {"CN=", ""},
                                         {"", ""},
                                         {"cn=a", ""},
                                         {"XCN=a,", "a"},
                                         {"CN=,CN=\nCN=", ""}})
        EXPECT_EQ(commonNameOf(name), expected) << name;
}

} // namespace
} // namespace veltra::test
