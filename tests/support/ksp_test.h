#pragma once

#include "support/both_front_ends.h"
#include "support/provider_test.h"

namespace veltra::test {

/// What an entry point of the key storage provider answered: its status and the error lines it wrote.
struct StatusAnswer {
    SECURITY_STATUS status = 0;
    std::vector<std::string> errors;

    bool operator==(const StatusAnswer&) const = default;
};

inline std::ostream& operator<<(std::ostream& stream, const StatusAnswer& answer) {
    return stream << "status 0x" << std::hex << static_cast<unsigned long>(answer.status) << std::dec << ' '
                  << testing::PrintToString(answer.errors);
}

/// This status and exactly these error lines.
inline StatusAnswer failed(SECURITY_STATUS status, std::vector<std::string> errors) {
    return {.status = status, .errors = std::move(errors)};
}

/// Success without an error line.
inline StatusAnswer succeeded() {
    return {};
}

/// Fixture of the key storage provider's tests: a provider on the scripted token.
class KspTest : public ProviderTest {
protected:
    KspTest() { library.clearCalls(); }

    /// A provider that the fixture frees.
    NCRYPT_PROV_HANDLE openProvider() {
        NCRYPT_PROV_HANDLE opened = 0;
        EXPECT_EQ(KSPOpenProvider(&opened, nullptr, 0), 0);
        return keep(opened);
    }

    /// Runs one call of an entry point and expects it to leave the last error alone. The debug lines it wrote
    /// are in debugLines.
    StatusAnswer call(const std::function<SECURITY_STATUS()>& entryPoint) {
        SECURITY_STATUS status = 0;
        Answer answer = run([&] { return (status = entryPoint()) == 0; });
        EXPECT_EQ(answer.lastError, kUntouched);
        return {.status = status, .errors = std::move(answer.errors)};
    }
    template <class... Parameters>
    StatusAnswer call(SECURITY_STATUS(WINAPI* function)(Parameters...),
                      std::type_identity_t<Parameters>... arguments) {
        return call([&] { return function(arguments...); });
    }

    /// What `ask(out, capacity)`, which puts the length into `size`, answers in the end, after a query of its
    /// size and a try with one byte too few, refused with this line and the size.
    Bytes answered(const std::function<StatusAnswer(BYTE* out, DWORD capacity)>& ask,
                   const std::string& tooSmall = {}) {
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

    /// A key object as KSPOpenKey makes it of this pair, made without it.
    NCRYPT_KEY_HANDLE addKey(const VeltraKeyPair& pair) { return addKey(openedKey(pair)); }
    using ProviderTest::addKey;
    NCRYPT_KEY_HANDLE addSymmetricKey(const std::string& bytes) { return addKey(keyWith<KSP_KEY>(bytes)); }

    NCRYPT_PROV_HANDLE provider = openProvider();
    DWORD size = 0; ///< what an entry point says of a length
};

} // namespace veltra::test
