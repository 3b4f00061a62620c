// The registry value of the container map: anything may be in it, and everything that it names must come back
// as it was when a key is added.

#include "fuzz/fuzz_target.h"

#include "csp/container_map.h"
#include "foundation/win_handle.h"

#include <algorithm>
#include <string>

namespace veltra::fuzz {
namespace {

constexpr const char* kContainer = "fuzz";
const std::string kNewKey(32, 'F');

void writeValue(DWORD type, const std::string& data) {
    HKEY opened = nullptr;
    RegCreateKeyExA(HKEY_CURRENT_USER, R"(SOFTWARE\Veltra\CSP\Containers)", 0, nullptr, 0, KEY_SET_VALUE,
                    nullptr, &opened, nullptr);
    const UniqueRegistryKey key(opened);
    RegSetValueExA(key.get(), kContainer, 0, type, reinterpret_cast<const BYTE*>(data.data()),
                   static_cast<DWORD>(data.size()));
}

void run(FuzzedDataProvider& input) {
    forgetContainer(kContainer);
    const DWORD type = input.ConsumeBool() ? REG_SZ : input.ConsumeIntegralInRange<DWORD>(0, 12);
    writeValue(type, input.ConsumeRemainingBytesAsString());
    const std::vector<std::string> before = mappedKeyNames(kContainer);
    require(before == lookUpContainer(kContainer).keyNames, "both look-ups read the same");
    const bool recorded = recordKey(kContainer, kNewKey);
    const std::vector<std::string> after = mappedKeyNames(kContainer);
    for (const std::string& name : before)
        require(std::ranges::count(after, name) > 0, "no key is lost");
    if (recorded) require(std::ranges::count(after, kNewKey) > 0, "the new key is there");
}

std::vector<Bytes> seeds() {
    const std::string one = std::string(32, 'A') + std::string(1, '\0');
    const std::string two = std::string(32, 'A') + "," + std::string(32, 'B') + std::string(1, '\0');
    return {join(one, Bytes{1}), join(two, Bytes{1}), Bytes(1025, 'C')};
}

const Target target("container_map", run, seeds);

} // namespace
} // namespace veltra::fuzz
