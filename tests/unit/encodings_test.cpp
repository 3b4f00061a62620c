#include "support/googletest.h"
#include "support/scripted_device_library.h"

#include "certs/der_reader.h"
#include "certs/public_key_encoding.h"
#include "foundation/text.h"

namespace veltra::test {
namespace {

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
    const std::string rsa = "301C300D06092A864886F70D0101010500";
    for (const std::string& der : {toHex(publicKeyToDer("000041", "010001")),
                                   rsa + "030B0030080201410203010001", std::string("30080201410203010001")}) {
        const Bytes publicKey = fromHex(der);
        EXPECT_EQ(toHex(rsaModulusOf(publicKey)), "41") << der;
    }
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
         }) {
        const Bytes publicKey = fromHex(key);
        EXPECT_EQ(toHex(rsaModulusOf(publicKey)), key);
    }
}

} // namespace
} // namespace veltra::test
