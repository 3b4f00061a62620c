#include "support/csp_test.h"

#include "certs/public_key_encoding.h"
#include "foundation/text.h"

#include <algorithm>
#include <cstring>

namespace veltra::test {
namespace {

const std::string kAlgorithm = "300D06092A864886F70D0101010500";

std::string repeated(const std::string& text, std::size_t count) {
    std::string out;
    for (std::size_t i = 0; i < count; ++i)
        out += text;
    return out;
}

TEST(PublicKeyToDerTest, KnownEncodings) {
    struct Row {
        const char* name;
        std::string modulus, exponent, expected;
    };
    const std::string exponent = "0203010001";
    const Row kRows[] = {
        {"2048 bits", repeated("C0", 256), "010001",
         "30820122" + kAlgorithm + "0382010F003082010A0282010100" + repeated("C0", 256) + exponent},
        {"1024 bits", repeated("FF", 128), "010001",
         "30819F" + kAlgorithm + "03818D0030818902818100" + repeated("FF", 128) + exponent},
        {"1024 bits, top bit clear", "7F" + repeated("00", 127), "010001",
         "30819E" + kAlgorithm + "03818C00308188028180" + "7F" + repeated("00", 127) + exponent},
        {"leading zero bytes are kept", "0000C0", "010001",
         "301E" + kAlgorithm + "030D00300A" + "02030000C0" + exponent},
        {"prefix, odd number of digits, both cases", "0Xf", "0x1",
         "301A" + kAlgorithm + "030900" + "3006" + "02010F" + "020101"},
        {"what is no digit counts as zero", "1gZ2", "010001",
         "301D" + kAlgorithm + "030C003009" + "02021002" + exponent},
        {"empty modulus", "", "010001", "301B" + kAlgorithm + "030A003007" + "0200" + exponent},
    };
    for (const Row& row : kRows)
        EXPECT_EQ(toHex(publicKeyToDer(row.modulus, row.exponent)), row.expected) << row.name;

    for (const auto& [bytes, size, start] : {std::tuple{128u, 162u, "30819F"},
                                             {256u, 294u, "30820122"},
                                             {384u, 422u, "308201A2"},
                                             {512u, 550u, "30820222"}}) {
        const Bytes der = publicKeyToDer(repeated("C0", bytes), "010001");
        EXPECT_EQ(der.size(), size);
        EXPECT_EQ(toHex(der).substr(0, std::strlen(start)), start);
    }
    EXPECT_THAT(rsaPublicKeyAsDer({}, {"der", "raw"}), IsEmpty()) << "passed on as if it were DER";
}

class ExportTest : public CspTest {
protected:
    ExportTest() : provider(acquire()) {}

    HCRYPTKEY open(char digit) { return userKey(acquire(std::string(32, digit).c_str()), AT_SIGNATURE); }
    Answer exportKey(HCRYPTKEY key, BYTE* data, DWORD& length, DWORD type = PUBLICKEYBLOB) {
        return run([&] { return CPExportKey(provider, key, 0xBAD, type, 0xFFFFFFFF, data, &length); });
    }

    const HCRYPTPROV provider;
};

TEST_F(ExportTest, BlobHasTheTokensModulusReversed) {
    for (const auto& [type, modulusLength] : {std::pair{1u, 128u}, {2u, 256u}, {3u, 384u}, {4u, 512u}}) {
        SCOPED_TRACE(type);
        token.addKeyPair(static_cast<unsigned char>(type * 0x11), type);
        const HCRYPTKEY key = open(static_cast<char>('0' + type));
        liveKey(key)->publicKey[0] = 0; // the pair on the token counts, not the key object
        DWORD length = 0;
        // A size query succeeds and leaves an error behind: deliberate.
        EXPECT_EQ(exportKey(key, nullptr, length),
                  (Answer{TRUE, ERROR_MORE_DATA, {"Emport public key more data required"}}));
        EXPECT_EQ(length, modulusLength + 20);
        Bytes blob(modulusLength + 20);
        --length;
        EXPECT_EQ(exportKey(key, blob.data(), length),
                  refused(ERROR_MORE_DATA, {"ExportPublicKeyComponents: output buffer too small, required=" +
                                            std::to_string(modulusLength + 20)}));
        EXPECT_EQ(length, modulusLength + 20);
        length = 5000;
        EXPECT_EQ(exportKey(key, blob.data(), length), accepted(ERROR_SUCCESS));
        EXPECT_THAT(debugLines, ElementsAre("CPExportKey", "dwBlobType : 6", "dwFlags : 4294967295",
                                            "key usage : 9216", "Exportkey return status : 1"));
        EXPECT_EQ(length, modulusLength + 20);
        Bytes modulus = ScriptedDeviceLibrary::publicKeyOf(type);
        std::ranges::reverse(modulus);
        const unsigned bits = modulusLength * 8;
        const unsigned char bitLength[] = {static_cast<unsigned char>(bits),
                                           static_cast<unsigned char>(bits >> 8)};
        EXPECT_EQ(toHex(blob), "0602000000240000"
                               "52534131" +
                                   toHex(bitLength) +
                                   "0000"
                                   "01000100" +
                                   toHex(modulus));
    }
}

TEST_F(ExportTest, Refusals) {
    DWORD length = 0;
    token.addKeyPair(0x55, kKeyTypeEcP256);
    const HCRYPTKEY ec = open('5');
    const auto exports = [&](HCRYPTPROV context, HCRYPTKEY key, DWORD* size, DWORD type = PUBLICKEYBLOB) {
        return [=] { return CPExportKey(context, key, 0, type, 0, nullptr, size); };
    };
    const std::string components = "ExportPublicKeyComponents: ";
    expectRefused({
        {exports(provider, 0, &length), ERROR_INVALID_PARAMETER, "CPExportKey: hKey or pcbData is null"},
        {exports(0, ec, nullptr), ERROR_INVALID_PARAMETER, "CPExportKey: hKey or pcbData is null"},
        {exports(0, ec, &length), NTE_BAD_UID, "CPExportKey: context is null or not initialized"},
        {exports(provider, ec, &length, PRIVATEKEYBLOB), ERROR_ACCESS_DENIED,
         "CPExportKey: PRIVATEKEYBLOB export denied"},
        {exports(provider, ec, &length, SIMPLEBLOB), NTE_BAD_TYPE, "CPExportKey: unsupported dwBlobType=1"},
        {exports(provider, ec, &length), NTE_BAD_TYPE,
         components + "key algorithm is not RSA, cannot export as PUBLICKEYBLOB"},
    });
    EXPECT_THAT(debugLines, Contains("Exportkey return status : 0"));
    token.keyPairs[0].keyId[15] ^= 1;
    expectRefused(
        {{exports(provider, ec, &length), NTE_BAD_KEY, components + "matching key not found in key list"}});
    token.keyPairs.clear();
    expectRefused({{exports(provider, ec, &length), NTE_BAD_KEY, components + "key list is empty"}});
}

} // namespace
} // namespace veltra::test
