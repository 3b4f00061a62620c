#include "support/csp_test.h"

#include "support/both_front_ends.h"

#include "foundation/text.h"
#include "token/device_state.h"

namespace veltra::test {

HCRYPTPROV CspTest::acquire(const char* container, DWORD flags) {
    HCRYPTPROV context = 0;
    return tryAcquire(&context, container, flags) ? keep(context) : 0;
}

BOOL CspTest::tryAcquire(HCRYPTPROV* context, const char* container, DWORD flags) {
    return CPAcquireContext(context, container, flags, table);
}

HCRYPTHASH CspTest::createHash(HCRYPTPROV context, ALG_ID algorithm, HCRYPTKEY key) {
    HCRYPTHASH hash = 0;
    EXPECT_TRUE(CPCreateHash(context, algorithm, key, 0, &hash));
    return keep(hash);
}

BOOL CspTest::hashData(HCRYPTPROV context, HCRYPTHASH hash, const std::string& data) {
    return CPHashData(context, hash, reinterpret_cast<const BYTE*>(data.data()),
                      static_cast<DWORD>(data.size()), 0);
}

Bytes CspTest::hashValue(HCRYPTPROV context, HCRYPTHASH hash) {
    Bytes value(256);
    auto length = static_cast<DWORD>(value.size());
    if (!CPGetHashParam(context, hash, HP_HASHVAL, value.data(), &length, 0)) return {};
    value.resize(length);
    return value;
}

HCRYPTHASH CspTest::hashWithValue(HCRYPTPROV context, unsigned char firstByte) {
    const HCRYPTHASH hash = createHash(context, CALG_SHA_256);
    Bytes value(32, 0x22);
    value.front() = firstByte;
    EXPECT_TRUE(CPSetHashParam(context, hash, HP_HASHVAL, value.data(), 0));
    return hash;
}

HCRYPTKEY CspTest::userKey(HCRYPTPROV context, DWORD keySpec) {
    HCRYPTKEY key = 0;
    return CPGetUserKey(context, keySpec, &key) ? keep(key) : 0;
}

HCRYPTKEY CspTest::addSymmetricKey(const std::string& bytes) {
    return addKey(keyWith<KEY_HANDLE>({reinterpret_cast<const BYTE*>(bytes.data()), bytes.size()}));
}

std::string CspTest::textOf(const KEY_HANDLE& key) {
    return concat(key.algId, "/", key.keyBits, "/", key.mode, "/", key.keyUsage, "/", key.tokenFlag,
                  " id=", toHex({key.keyId, 2}), "..(", key.keyIdLength,
                  ") credential=", toHex({key.credentialId, key.credentialIdLength}), " label=", key.label,
                  " secret=", toHex({key.symmetricKey.data(), key.symmetricKeyLength}));
}

std::string CspTest::storedPin() const {
    return getPin(serial).c_str();
}

} // namespace veltra::test
