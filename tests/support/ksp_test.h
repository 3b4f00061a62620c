#pragma once

#include "support/provider_test.h"

#include "ksp/ksp_entry_points.h"
#include "ksp/ksp_key.h"

#include <type_traits>

namespace veltra::test {

/// What an entry point of the key storage provider answered: its status and the error lines it wrote.
struct StatusAnswer {
    SECURITY_STATUS status = 0;
    std::vector<std::string> errors;

    bool operator==(const StatusAnswer&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const StatusAnswer& answer);

/// This status and exactly these error lines.
StatusAnswer failed(SECURITY_STATUS status, std::vector<std::string> errors);

/// Success without an error line.
StatusAnswer succeeded();

/// Fixture of the key storage provider's tests: a provider on the scripted token.
class KspTest : public ProviderTest {
protected:
    KspTest();

    /// A provider that the fixture frees.
    NCRYPT_PROV_HANDLE openProvider();

    /// Runs one call of an entry point and expects it to leave the last error alone. The debug lines it wrote
    /// are in debugLines.
    StatusAnswer call(const std::function<SECURITY_STATUS()>& entryPoint);
    template <class... Parameters>
    StatusAnswer call(SECURITY_STATUS(WINAPI* function)(Parameters...),
                      std::type_identity_t<Parameters>... arguments) {
        return call([&] { return function(arguments...); });
    }

    /// What `ask(out, capacity)`, which puts the length into `size`, answers in the end, after a query of its
    /// size and a try with one byte too few, refused with this line and the size.
    Bytes answered(const std::function<StatusAnswer(BYTE* out, DWORD capacity)>& ask,
                   const std::string& tooSmall = {});

    /// A key object as KSPOpenKey makes it of this pair, made without it.
    NCRYPT_KEY_HANDLE addKey(const VeltraKeyPair& pair);
    using ProviderTest::addKey;
    NCRYPT_KEY_HANDLE addSymmetricKey(const std::string& bytes);

    NCRYPT_PROV_HANDLE provider = 0;
    DWORD size = 0; ///< what an entry point says of a length
};

} // namespace veltra::test
