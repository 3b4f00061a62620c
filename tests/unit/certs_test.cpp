// Certificates on the token, and the encodings of public keys.

#include "support/csp_test.h"
#include "unit/test_certificates.h"

#include "certs/certificate_chain.h"
#include "certs/certificate_import.h"
#include "certs/der_reader.h"
#include "certs/public_key_encoding.h"
#include "foundation/text.h"
#include "token/device_state.h"

#include <algorithm>

namespace veltra::test {
namespace {

const std::string kSet = "CPSetKeyParam: KP_CERTIFICATE ";
const std::string kImport = "importCertificateWithChain: ";

Bytes decoded(const char* base64) {
    Bytes bytes(4096);
    auto length = static_cast<DWORD>(bytes.size());
    CryptStringToBinaryA(base64, 0, CRYPT_STRING_BASE64, bytes.data(), &length, nullptr, nullptr);
    bytes.resize(length);
    return bytes;
}

class CertificatesTest : public CspTest {
protected:
    CertificatesTest() {
        SetEnvironmentVariableA("VELTRA_HOME", "X:/none");
        token.addKeyPair(0x11);
        storePinOfToken();
    }
    ~CertificatesTest() override { SetEnvironmentVariableA("VELTRA_HOME", nullptr); }

    /// Opens the key afresh, so that the key object has the label that the key pair has now.
    Answer set(const Bytes& der) {
        const HCRYPTPROV provider = acquireKey('1');
        const HCRYPTKEY key = userKey(provider, AT_SIGNATURE);
        library.clearCalls();
        return run(CPSetKeyParam, provider, key, KP_CERTIFICATE, der.data(), 0);
    }
    static Bytes certificate(const std::string& name, const std::string& issuer) {
        return ScriptedDeviceLibrary::fakeCertificate(name, "C=XX, CN=" + issuer + ", O=x", "CN=" + name);
    }

    const Bytes leaf = certificate("leaf", "middle");
};

// The whole message is in csp_size_protocol_test.cpp.
TEST_F(CertificatesTest, MessageHasTheChainRootFirst) {
    const Bytes root = decoded(kRootCertificate), middle = decoded(kIntermediateCertificate),
                end = decoded(kLeafCertificate);
    // On the token the key's own comes first.
    const auto expectMessage = [&](const std::vector<Bytes>& onToken, const std::string& inMessage) {
        token.certificates.clear();
        for (const Bytes& der : onToken)
            token.addCertificate(token.certificates.empty() ? 0x11 : 0x99, der);
        Bytes message(4096);
        DWORD length = 4096;
        EXPECT_EQ(run(CPGetProvParam, acquireKey('1'), 9, message.data(), &length, 0), accepted());
        EXPECT_THAT(
            toHex({message.data(), length}),
            testing::EndsWith(concat("A082", toHex8(static_cast<DWORD>(inMessage.size() / 2)).substr(4),
                                     inMessage, "3100")));
    };
    expectMessage({end, root, {0x30, 0x00}, middle}, toHex(root) + toHex(middle) + toHex(end));
    expectMessage({end, root}, toHex(end)); // its issuer is not on the token
    expectMessage({root, end, middle}, toHex(root));
    EXPECT_THAT(library.calls("veltra_findCertificateForKey").back(), testing::EndsWith("key=1111..1111)"));
    Bytes other = root; // two that name each other
    std::ranges::copy(std::string("Test Inte"), std::ranges::search(other, std::string("Test Root")).begin());
    token.certificates.clear();
    for (const Bytes& der : {end, middle, other})
        token.addCertificate(0x11, der);
    EXPECT_EQ(buildTokenChain(token.certificates[0], token.certificates).size(), 4u);
}

TEST_F(CertificatesTest, NoMoreThanTheDerHeaderSaysIsRead) {
    // No buffer has a byte more, so that the sanitizer sees every one too many.
    EXPECT_EQ(set({0x31}), refused(NTE_BAD_DATA, {kSet + "invalid DER (not a SEQUENCE)"}));
    for (const BYTE first : Bytes{0x80, 0x84, 0xFF})
        EXPECT_EQ(set({0x30, first}), refused(NTE_BAD_DATA, {kSet + "unsupported DER length encoding"}));
    for (const Bytes& header : {Bytes{0x30, 0x82, 0x0B, 0xFD}, Bytes{0x30, 0x83, 0xFF, 0xFF, 0xFF}})
        EXPECT_EQ(set(header), refused(NTE_BAD_DATA, {kSet + "is longer than the token stores"}));
    EXPECT_THAT(library.calls(), IsEmpty());
    library.script("veltra_getCertificateDetails", {.result = 6});
    for (const auto& [header, total] : {std::pair{Bytes{0x30, 0x7F}, 129u},
                                        {Bytes{0x30, 0x81, 0x80}, 131u},
                                        {Bytes{0x30, 0x83, 0x00, 0x0B, 0xFB}, 3072u}}) {
        Bytes der = header;
        der.resize(total);
        EXPECT_EQ(set(der),
                  refused(NTE_FAIL, {kImport + "certificate parsing failed", kSet + "import failed ret=6"}));
        EXPECT_THAT(library.calls().back(), testing::EndsWith(concat("(", total, "))")));
    }
}

TEST_F(CertificatesTest, IssuersAreImportedNearestFirstAndTheCertificateLast) {
    storePin(serial, Pin());
    prompt.willType({"1234"}); // once: the login's PIN is kept
    // `expected`: the common names of what is imported. `missing`: the issuer that ends the walk.
    const auto expectImported = [&](const std::vector<Bytes>& files, const std::string& expected,
                                    const std::string& missing = {}) {
        token.certificates.clear();
        library.caFiles.clear();
        for (const Bytes& der : files)
            library.caFiles.emplace_back("file", der);
        EXPECT_EQ(set(leaf), accepted());
        std::string imported;
        for (const VeltraCertificate& record : token.certificates)
            imported.append(record.der + 4, std::find(record.der + 4, std::end(record.der), '|')) += ' ';
        EXPECT_EQ(imported, expected);
        EXPECT_EQ(std::ranges::count(debugLines, kImport + "Issuer '" + missing +
                                                     "' NOT found \xE2\x80\x94 skipping chain import"),
                  missing.empty() ? 0 : 1);
    };
    const Bytes middle = certificate("middle", "root");
    const Bytes root = certificate("root", "root");
    expectImported({root, {0x30, 0, 0, 0}, middle}, "middle root leaf ");
    expectImported({root}, "leaf ", "middle");
    expectImported({middle}, "middle leaf ", "root");
    expectImported({middle, certificate("root", "middle")}, "middle root leaf ");
    expectImported({certificate("middle", std::string(3100, 'r'))}, "leaf ", "middle");
    EXPECT_THAT(
        library.calls("veltra_getFilesWithExtensionsAndConvertDER"),
        ElementsAre("veltra_getFilesWithExtensionsAndConvertDER(folder=X:/none\\VeltraDSC\\Certificates, "
                    "extensions= .cer .der .pem .crt)"));
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

TEST_F(CertificatesTest, LabelIsMadeOfTheNamesAndGivenToAnUnnamedKeyPair) {
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
    EXPECT_EQ(commonNameOf("C=XX,CN=,CN=a b\rCN=c"), "a b") << "the first that is not empty";
}

// More of these, in both directions: fuzz/encodings_fuzz.cpp.
TEST(DerReaderTest, LengthsMustBeTheShortestAndFit) {
    const std::string zeros(2 * 0x100, '0');
    for (const std::string& der :
         {std::string("02"), std::string("0201"), std::string("040105"), "0280" + zeros, "02817F" + zeros,
          "02820080" + zeros, "0283000100" + zeros, "02820101" + zeros, "0284FFFFFFFF" + zeros,
          "0288FFFFFFFFFFFFFFFF" + zeros, std::string("0284"), std::string("0282FF")}) {
        const Bytes bytes = fromHex(der);
        DerReader reader(bytes);
        EXPECT_FALSE(reader.read(DerTag::Integer)) << der;
        EXPECT_FALSE(reader.atEnd()) << "no step forward: " << der;
    }
}

TEST(PublicKeyEncodingTest, DerOfAModulusAndAnExponent) {
    const std::string algorithm = "300D06092A864886F70D0101010500", modulus = toHex(Bytes(256, 0xC0));
    EXPECT_EQ(toHex(publicKeyToDer(modulus, "010001")),
              "30820122" + algorithm + "0382010F003082010A0282010100" + modulus + "0203010001");
    EXPECT_EQ(toHex(publicKeyToDer("0Xf", "0x1")), "301A" + algorithm + "030900300602010F020101");
    EXPECT_THAT(rsaPublicKeyAsDer({}, {"der", "raw"}), IsEmpty()) << "passed on as if it were DER";
}

TEST(PublicKeyEncodingTest, ModulusOfAStoredPublicKey) {
    const auto modulusOf = [](const std::string& key) { return toHex(rsaModulusOf(fromHex(key))); };
    const std::string rsa = "301C300D06092A864886F70D0101010500";
    EXPECT_EQ(modulusOf(toHex(publicKeyToDer("000041", "010001"))), "41");
    EXPECT_EQ(modulusOf(rsa + "030B0030080201410203010001"), "41");
    EXPECT_EQ(modulusOf("30080201410203010001"), "41");
    for (const std::string& key : {
             std::string("C1C2C3"),                 // a bare modulus
             std::string("3082C1C2"),               // one that begins as DER does
             std::string(""),                       // nothing
             std::string("3008020141020301000100"), // something behind it
             std::string("300A02014102030100010500"),
             std::string("3003020141"),           // no exponent
             std::string("30080201C10203010001"), // a negative modulus
             std::string("30080201000203010001"), // zero
             std::string("301C300D06092A864886F70D0101020500030B0030080201410203010001"), // not RSA
             rsa + "030B0130080201410203010001",                                          // unused bits
             std::string("3011300D06092A864886F70D01010105000300"),                       // no bits
         })
        EXPECT_EQ(modulusOf(key), key);
}

} // namespace
} // namespace veltra::test
