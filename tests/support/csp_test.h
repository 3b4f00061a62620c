#pragma once

#include "support/both_front_ends.h"
#include "support/provider_test.h"

#include "csp/key_handle.h"
#include "foundation/text.h"

namespace veltra::test {

/// Fixture of the CryptoAPI tests: provider functions with the arguments that vary.
class CspTest : public ProviderTest {
protected:
    /// A context that the fixture releases; 0 when it is refused.
    HCRYPTPROV acquire(const char* container = nullptr, DWORD flags = 0) {
        HCRYPTPROV context = 0;
        return CPAcquireContext(&context, container, flags, table) ? keep(context) : 0;
    }
    /// A context whose container is the key pair `digit` ('1': 0x11).
    HCRYPTPROV acquireKey(char digit) { return acquire(std::string(32, digit).c_str()); }

    HCRYPTKEY userKey(HCRYPTPROV context, DWORD keySpec) {
        HCRYPTKEY key = 0;
        return CPGetUserKey(context, keySpec, &key) ? keep(key) : 0;
    }

    /// What the object holds: "algId/bits/mode/usage/flag id=AEAE..(16) credential=AE label=... secret=" and
    /// the bytes of a symmetric key.
    static std::string textOf(const KEY_HANDLE& key) {
        return concat(key.algId, "/", key.keyBits, "/", key.mode, "/", key.keyUsage, "/", key.tokenFlag,
                      " id=", toHex({key.keyId, 2}), "..(", key.keyIdLength,
                      ") credential=", toHex({key.credentialId, key.credentialIdLength}),
                      " label=", key.label,
                      " secret=", toHex({key.symmetricKey.data(), key.symmetricKeyLength}));
    }

    /// The provider looks at no more of its table than that there is one, and not every system header
    /// declares it.
    VTableProvStruc* const table = reinterpret_cast<VTableProvStruc*>(this);
};

} // namespace veltra::test
