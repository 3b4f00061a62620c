#include "support/csp_test.h"

#include "foundation/text.h"

namespace veltra::test {

HCRYPTPROV CspTest::acquire(const char* container, DWORD flags) {
    HCRYPTPROV context = 0;
    return CPAcquireContext(&context, container, flags, table) ? keep(context) : 0;
}

HCRYPTKEY CspTest::userKey(HCRYPTPROV context, DWORD keySpec) {
    HCRYPTKEY key = 0;
    return CPGetUserKey(context, keySpec, &key) ? keep(key) : 0;
}

std::string CspTest::textOf(const KEY_HANDLE& key) {
    return concat(key.algId, "/", key.keyBits, "/", key.mode, "/", key.keyUsage, "/", key.tokenFlag,
                  " id=", toHex({key.keyId, 2}), "..(", key.keyIdLength,
                  ") credential=", toHex({key.credentialId, key.credentialIdLength}), " label=", key.label,
                  " secret=", toHex({key.symmetricKey.data(), key.symmetricKeyLength}));
}

} // namespace veltra::test
