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
        return tryAcquire(&context, container, flags) ? keep(context) : 0;
    }
    /// A context whose container is the key pair `digit` ('1': 0x11).
    HCRYPTPROV acquireKey(char digit, DWORD flags = 0) {
        return acquire(std::string(32, digit).c_str(), flags);
    }
    BOOL tryAcquire(HCRYPTPROV* context, const char* container, DWORD flags) {
        return CPAcquireContext(context, container, flags, table);
    }

    HCRYPTHASH createHash(HCRYPTPROV context, ALG_ID algorithm, HCRYPTKEY key = 0) {
        HCRYPTHASH hash = 0;
        EXPECT_TRUE(CPCreateHash(context, algorithm, key, 0, &hash));
        return keep(hash);
    }

    static BOOL hashData(HCRYPTPROV context, HCRYPTHASH hash, const std::string& data) {
        return CPHashData(context, hash, reinterpret_cast<const BYTE*>(data.data()),
                          static_cast<DWORD>(data.size()), 0);
    }

    /// HP_HASHVAL, or nothing when it is refused.
    static Bytes hashValue(HCRYPTPROV context, HCRYPTHASH hash) {
        Bytes value(256);
        DWORD length = 256;
        const BOOL done = CPGetHashParam(context, hash, HP_HASHVAL, value.data(), &length, 0);
        value.resize(done ? length : 0);
        return value;
    }

    /// A hash object with this value set, so that no device hash is in play.
    HCRYPTHASH hashWithValue(HCRYPTPROV context, unsigned char firstByte = 0x11) {
        const HCRYPTHASH hash = createHash(context, CALG_SHA_256);
        Bytes value(32, 0x22);
        value.front() = firstByte;
        EXPECT_TRUE(CPSetHashParam(context, hash, HP_HASHVAL, value.data(), 0));
        return hash;
    }

    HCRYPTKEY userKey(HCRYPTPROV context, DWORD keySpec) {
        HCRYPTKEY key = 0;
        return CPGetUserKey(context, keySpec, &key) ? keep(key) : 0;
    }

    HCRYPTKEY addSymmetricKey(const std::string& bytes) { return addKey(keyWith<KEY_HANDLE>(bytes)); }

    /// What the object holds: "algId/bits/mode/usage/flag id=AEAE..(16) credential=AE label=... secret=" and
    /// the bytes of a symmetric key.
    static std::string textOf(const KEY_HANDLE& key) {
        return concat(key.algId, "/", key.keyBits, "/", key.mode, "/", key.keyUsage, "/", key.tokenFlag,
                      " id=", toHex({key.keyId, 2}), "..(", key.keyIdLength,
                      ") credential=", toHex({key.credentialId, key.credentialIdLength}),
                      " label=", key.label,
                      " secret=", toHex({key.symmetricKey.data(), key.symmetricKeyLength}));
    }

    std::string storedPin() const { return getPin(serial).c_str(); }

    /// The provider looks at no more of its table than that there is one, and not every system header
    /// declares it.
    VTableProvStruc* const table = reinterpret_cast<VTableProvStruc*>(this);
};

} // namespace veltra::test
