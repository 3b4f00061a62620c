#include "support/ksp_test.h"

#include "support/both_front_ends.h"

#include "token/key_pairs.h"

#include <ostream>

namespace veltra::test {

std::ostream& operator<<(std::ostream& stream, const StatusAnswer& answer) {
    stream << "status 0x" << std::hex << static_cast<unsigned long>(answer.status) << std::dec;
    for (const std::string& error : answer.errors)
        stream << "\n    " << error;
    return stream;
}

StatusAnswer failed(SECURITY_STATUS status, std::vector<std::string> errors) {
    return {.status = status, .errors = std::move(errors)};
}

StatusAnswer succeeded() {
    return {};
}

KspTest::KspTest() {
    provider = openProvider();
    library.clearCalls();
}

NCRYPT_PROV_HANDLE KspTest::openProvider() {
    NCRYPT_PROV_HANDLE opened = 0;
    EXPECT_EQ(KSPOpenProvider(&opened, nullptr, 0), 0);
    return keep(opened);
}

StatusAnswer KspTest::call(const std::function<SECURITY_STATUS()>& entryPoint) {
    SECURITY_STATUS status = 0;
    Answer answer = run([&] {
        status = entryPoint();
        return status == 0;
    });
    EXPECT_EQ(answer.lastError, kUntouched);
    return {.status = status, .errors = std::move(answer.errors)};
}

Bytes KspTest::answered(const std::function<StatusAnswer(BYTE*, DWORD)>& ask, const std::string& tooSmall) {
    EXPECT_EQ(ask(nullptr, 0), succeeded());
    const DWORD full = size;
    Bytes out(full, 0xEE);
    size = 0;
    std::vector<std::string> lines;
    if (!tooSmall.empty()) lines.push_back(tooSmall + std::to_string(full));
    EXPECT_EQ(ask(out.data(), full - 1), failed(NTE_BUFFER_TOO_SMALL, lines));
    EXPECT_EQ(size, full);
    EXPECT_EQ(out, Bytes(full, 0xEE)) << "nothing is written";
    EXPECT_EQ(ask(out.data(), full + 100), succeeded());
    EXPECT_EQ(size, full);
    return out;
}

NCRYPT_KEY_HANDLE KspTest::addKey(const VeltraKeyPair& pair) {
    auto key = std::make_unique<KSP_KEY>();
    key->fillFrom(pair);
    key->bitLength = keyBitsOf(pair.keyType);
    key->persisted = true;
    return addKey(std::move(key));
}

NCRYPT_KEY_HANDLE KspTest::addSymmetricKey(const std::string& bytes) {
    return addKey(keyWith<KSP_KEY>({reinterpret_cast<const BYTE*>(bytes.data()), bytes.size()}));
}

} // namespace veltra::test
