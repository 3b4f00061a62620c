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
const std::string kImport = "importCertificateWithChain: ";
const std::string kFolder = "X:/none\\VeltraDSC\\Certificates";

Bytes decoded(const char* base64) {
    DWORD length = 0;
    CryptStringToBinaryA(base64, 0, CRYPT_STRING_BASE64, nullptr, &length, nullptr, nullptr);
    Bytes bytes(length);
    CryptStringToBinaryA(base64, 0, CRYPT_STRING_BASE64, bytes.data(), &length, nullptr, nullptr);
    return bytes;
}

class CertificateChainTest : public CspTest {
protected:
    CertificateChainTest() {
        token.addKeyPair(0x11);
        provider = acquireKey('1');
    }
    Answer chain(HCRYPTPROV handle, DWORD capacity) {
        message.assign(capacity, 0xEE);
        length = capacity;
        BYTE* out = capacity != 0 ? message.data() : nullptr;
        return run(CPGetProvParam, handle, kCertificateChain, out, &length, 0);
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
    // On the token the key's own comes first.
    const auto expectMessage = [&](const std::vector<Bytes>& onToken, const std::vector<Bytes>& inMessage) {
        token.certificates.clear();
        for (const Bytes& der : onToken)
            token.addCertificate(token.certificates.empty() ? 0x11 : 0x99, der);
        EXPECT_EQ(chain(provider, 0), accepted(ERROR_MORE_DATA));
        const DWORD size = length;
        EXPECT_EQ(chain(provider, size - 1), accepted(ERROR_MORE_DATA));
        EXPECT_EQ(length, size);
        EXPECT_EQ(message, Bytes(size - 1, 0xEE));
        ASSERT_EQ(chain(provider, size), accepted());
        std::string certificates;
        for (const Bytes& der : inMessage)
            certificates += toHex(der);
        EXPECT_THAT(toHex(message), testing::AllOf(HasSubstr("06092A864886F70D010702A0"),
                                                   testing::EndsWith(certificates + "3100")));
        EXPECT_EQ(size, certificates.size() / 2 + 47);
    };
    expectMessage({leaf, root, {0x30, 0x00}, intermediate}, {root, intermediate, leaf});
    expectMessage({leaf, root}, {leaf}); // its issuer is not on the token
    expectMessage({leaf, intermediate}, {intermediate, leaf});
    expectMessage({root, leaf, intermediate}, {root});
    EXPECT_THAT(library.calls("veltra_findCertificateForKey").back(), testing::EndsWith("key=1111..1111)"));
    Bytes other = root; // two that name each other
    std::ranges::copy(std::string("Test Inte"), std::ranges::search(other, std::string("Test Root")).begin());
    EXPECT_EQ(buildTokenChain(recordOf(leaf), {recordOf(intermediate), recordOf(other)}).size(), 3u);
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
        const HCRYPTPROV provider = acquireKey('1', flags);
        const HCRYPTKEY key = userKey(provider, AT_SIGNATURE);
        library.clearCalls();
        return run(CPSetKeyParam, provider, key, KP_CERTIFICATE, der.data(), 0);
    }
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

TEST_F(KeyCertificateTest, ReadingItRereadsTheToken) {
    const HCRYPTPROV provider = acquire();
    const HCRYPTKEY key = userKey(provider, AT_KEYEXCHANGE);
    DWORD length = 0;
    library.clearCalls();
    token.addCertificate(0x11, leaf).derLength = 0xFFFFFFFF;
    EXPECT_EQ(run(CPGetKeyParam, provider, key, KP_CERTIFICATE, nullptr, &length, 0),
              refused(NTE_NOT_FOUND, {"CPGetKeyParam: KP_CERTIFICATE not found, return FALSE"}));
    EXPECT_THAT(library.calls(),
                ElementsAre("veltra_initDevice(serial=" + serial + ", reread=1)",
                            "veltra_findCertificateForKey(serial=" + serial + ", key=1111..1111)"));
}

TEST_F(KeyCertificateTest, NoMoreThanTheDerHeaderSaysIsRead) {
    // No buffer has a byte more, so that the sanitizer sees every one too many.
    EXPECT_EQ(set({0x31}), refused(NTE_BAD_DATA, {kSet + "invalid DER (not a SEQUENCE)"}));
    for (const BYTE first : Bytes{0x80, 0x84, 0xFF})
        EXPECT_EQ(set({0x30, first}), refused(NTE_BAD_DATA, {kSet + "unsupported DER length encoding"}));
    EXPECT_THAT(library.calls(), IsEmpty());
    library.script("veltra_getCertificateDetails", {.result = 6});
    const Answer unparsed =
        refused(NTE_FAIL, {kImport + "certificate parsing failed", kSet + "import failed ret=6"});
    for (const auto& [header, total] : {std::pair{Bytes{0x30, 0x7F}, 129u},
                                        {Bytes{0x30, 0x81, 0x80}, 131u},
                                        {Bytes{0x30, 0x83, 0x00, 0x0B, 0xFB}, 3072u},
                                        {Bytes{0x30, 0x82, 0x0B, 0xFD}, 3073u},
                                        {Bytes{0x30, 0x83, 0xFF, 0xFF, 0xFF}, 16777220u}}) {
        Bytes der = header;
        if (total <= 3072) der.resize(total);
        const Answer answer = set(der);
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
    const auto expectImported = [&](const std::vector<Bytes>& files,
                                    const std::vector<std::string>& expected) {
        token.certificates.clear();
        library.caFiles.clear();
        for (const Bytes& der : files)
            library.caFiles.emplace_back("file", der);
        EXPECT_EQ(set(leaf), accepted());
        EXPECT_EQ(imported(), expected);
    };
    const Bytes middle = certificate("middle", "root");
    const Bytes root = certificate("root", "root");
    expectImported({root, {0x30, 0, 0, 0}, middle}, {"middle", "root", "leaf"});
    expectImported({root}, {"leaf"});
    expectImported({middle}, {"middle", "leaf"}); // its issuer is missing
    expectImported({middle, certificate("root", "middle")}, {"middle", "root", "leaf"});
    expectImported({certificate("middle", std::string(3100, 'r'))}, {"leaf"});
    EXPECT_THAT(library.calls("veltra_getFilesWithExtensionsAndConvertDER"),
                ElementsAre("veltra_getFilesWithExtensionsAndConvertDER(folder=" + kFolder +
                            ", extensions= .cer .der .pem .crt)"));
    const VeltraCertificate& stored = token.certificates.back();
    EXPECT_EQ(keyNameOf(stored.keyId), std::string(32, '1'));
    EXPECT_EQ(Bytes(stored.credentialId, stored.credentialId + stored.credentialIdLength), Bytes{0x11});
    EXPECT_STREQ(stored.label, kPairLabel) << "the key pair's";
    SetEnvironmentVariableA("VELTRA_HOME", "");
    set(leaf);
    EXPECT_THAT(library.calls("veltra_getFilesWithExtensionsAndConvertDER"),
                Not(Contains(HasSubstr("folder=\\VeltraDSC"))))
        << "empty: the install folders";
}

TEST_F(KeyCertificateTest, FailedImports) {
    for (const int call : {1, 3})
        library.script("veltra_importCertificate", {.result = 8, .onCall = call});
    storePin(serial, Pin());
    prompt.willType({"1234"});
    EXPECT_EQ(set(leaf),
              refused(NTE_FAIL, {kImport + "leaf import failed ret=8", kSet + "import failed ret=8"}));
    library.caFiles = {{"a.cer", certificate("middle", "root")}, {"b.cer", certificate("root", "root")}};
    EXPECT_EQ(set(leaf), refused(NTE_FAIL, {kImport + "chain import failed at index 1 ret=8",
                                            kSet + "import failed ret=8"}));
    EXPECT_THAT(imported(), ElementsAre("middle")) << "what was imported stays";
    EXPECT_EQ(storedPin(), "1234") << "typed for the first one";
}

TEST_F(KeyCertificateTest, LabelIsMadeOfTheNamesAndGivenToAnUnnamedKeyPair) {
    token.keyPairs[0].label[0] = '\0';
    for (const std::size_t issuerLength : {3u, 200u}) {
        const std::string issuer(issuerLength, 'i');
        const std::string label = concat("leaf_C=XX, CN=", issuer, ", O=x").substr(0, 128);
        EXPECT_EQ(set(certificate("leaf", issuer)), accepted());
        EXPECT_EQ(token.certificates.back().label, label);
        EXPECT_EQ(library.calls().back(), "veltra_updateKeyPairDetails(serial=" + serial +
                                              ", key=1111..1111, pin=1234, label=" + label +
                                              ", data=null(0))");
    }
    std::ranges::fill(token.keyPairs[0].label, 'L'); // nothing in it ends it
    EXPECT_EQ(set(leaf), accepted());
    EXPECT_EQ(token.certificates.back().label, std::string(128, 'L'));
    EXPECT_THAT(library.calls("veltra_updateKeyPairDetails"), IsEmpty());
}

TEST(CommonNameTest, IsTheFirstMatchThatIsNotEmpty) {
    EXPECT_EQ(commonNameOf("C=XX,CN=,CN=a b\rCN=c"), "a b");
    EXPECT_EQ(commonNameOf("cn=a,CN="), "");
}

} // namespace
} // namespace veltra::test
