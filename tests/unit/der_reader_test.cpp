#include "support/blob_bytes.h"
#include "support/googletest.h"

#include "certs/der_reader.h"
#include "certs/public_key_encoding.h"
#include "foundation/text.h"

namespace veltra::test {
namespace {

TEST(DerReaderTest, LengthsMustBeTheShortestAndFit) {
    struct Row {
        std::string der;
        int contents; ///< bytes of the first INTEGER; -1: none is read
    };
    const std::string zeros(2 * 0x100, '0');
    for (const Row& row : {Row{"", -1},
                           {"02", -1},
                           {"0200", 0},
                           {"020105", 1},
                           {"0201", -1},
                           {"040105", -1},
                           {"0280", -1}, // indefinite
                           {"02810105", -1},
                           {"028180" + zeros, 0x80},
                           {"02820080" + zeros, -1},
                           {"02820100" + zeros, 0x100},
                           {"02820101" + zeros, -1},
                           {"0284FFFFFFFF" + zeros, -1},
                           {"0288FFFFFFFFFFFFFFFF" + zeros, -1},
                           {"0284", -1},
                           {"0282FF", -1}}) {
        const Bytes bytes = fromHex(row.der);
        DerReader reader(bytes);
        const auto contents = reader.read(DerTag::Integer);
        EXPECT_EQ(contents ? static_cast<int>(contents->size()) : -1, row.contents) << row.der;
        if (!contents) {
            EXPECT_EQ(reader.atEnd(), bytes.empty()) << "no step forward: " << row.der;
        }
    }
}

TEST(DerReaderTest, ModulusOfAStoredPublicKey) {
    const std::string algorithm = "300D06092A864886F70D0101010500";
    struct Row {
        const char* name;
        std::string publicKey, modulus;
    };
    const std::string same;
    for (const Row& row : {Row{"SubjectPublicKeyInfo", toHex(publicKeyToDer("C1C2", "010001")), "C1C2"},
                           {"its zeros in front go", toHex(publicKeyToDer("0000C1C2", "010001")), "C1C2"},
                           {"lengths that disagree", "3009020300C1C20202010001", same},
                           {"RSAPublicKey", "300A020300C1C20203010001", "C1C2"},
                           {"bare modulus", "C1C2C3", same},
                           {"bare modulus that begins as DER does", "3082C1C2", same},
                           {"empty", "", same},
                           {"something behind it", "300A020300C1C2020301000100", same},
                           {"something behind the exponent", "300C020300C1C202030100010500", same},
                           {"no exponent", "3005020300C1C2", same},
                           {"negative modulus", "30080201C10203010001", same},
                           {"zero",
                            "3008020100"
                            "0203010001",
                            same},
                           {"another algorithm",
                            "301C300D06092A864886F70D010102050003"
                            "0B00"
                            "3008020141"
                            "0203010001",
                            same},
                           {"unused bits",
                            "301C" + algorithm +
                                "030B01"
                                "3008020141"
                                "0203010001",
                            same},
                           {"empty bit string", "3011" + algorithm + "0300", same},
                           {"this one is good",
                            "301C" + algorithm +
                                "030B00"
                                "3008020141"
                                "0203010001",
                            "41"}}) {
        const Bytes publicKey = fromHex(row.publicKey);
        EXPECT_EQ(toHex(rsaModulusOf(publicKey)), row.modulus.empty() ? row.publicKey : row.modulus)
            << row.name;
    }
}

} // namespace
} // namespace veltra::test
