#include "support/csp_test.h"

#include "foundation/text.h"
#include "token/device_state.h"

#include <algorithm>

namespace veltra::test {

CspTest::~CspTest() {
    const HCRYPTPROV any = acquire(nullptr, CRYPT_VERIFYCONTEXT);
    for (const HCRYPTHASH hash : hashes_)
        CPDestroyHash(any, hash);
    for (const HCRYPTKEY key : keys_)
        CPDestroyKey(any, key);
    for (const HCRYPTPROV context : contexts_)
        CPReleaseContext(context, 0);
}

HCRYPTPROV CspTest::acquire(const char* container, DWORD flags) {
    HCRYPTPROV context = 0;
    if (tryAcquire(&context, container, flags)) contexts_.push_back(context);
    return context;
}

BOOL CspTest::tryAcquire(HCRYPTPROV* context, const char* container, DWORD flags) {
    return CPAcquireContext(context, container, flags, table);
}

HCRYPTHASH CspTest::createHash(HCRYPTPROV context, ALG_ID algorithm, HCRYPTKEY key) {
    HCRYPTHASH hash = 0;
    EXPECT_TRUE(CPCreateHash(context, algorithm, key, 0, &hash));
    hashes_.push_back(hash);
    return hash;
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
    if (CPGetUserKey(context, keySpec, &key)) keys_.push_back(key);
    return key;
}

HCRYPTKEY CspTest::addKey(std::unique_ptr<KEY_HANDLE> key) {
    return keys_.emplace_back(LiveRecords<KEY_HANDLE>::add(std::move(key)));
}

HCRYPTKEY CspTest::addSymmetricKey(const std::string& bytes) {
    auto key = std::make_unique<KEY_HANDLE>();
    std::copy(bytes.begin(), bytes.end(), key->symmetricKey.data());
    key->symmetricKeyLength = static_cast<std::uint32_t>(bytes.size());
    return addKey(std::move(key));
}

std::string CspTest::textOf(const KEY_HANDLE& key) {
    return concat(key.algId, "/", key.keyBits, "/", key.mode, "/", key.keyUsage, "/", key.tokenFlag,
                  " id=", toHex({key.keyId, 2}), "..(", key.keyIdLength,
                  ") credential=", toHex({key.credentialId, key.credentialIdLength}), " label=", key.label,
                  " secret=", toHex({key.symmetricKey.data(), key.symmetricKeyLength}));
}

void CspTest::storePinOfToken() {
    storePin(serial, Pin(token.pin));
}

std::string CspTest::storedPin() const {
    return getPin(serial).c_str();
}

} // namespace veltra::test
