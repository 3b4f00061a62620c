#include "support/both_front_ends.h"

#include "support/blob_bytes.h"

#include "csp/container_map.h"
#include "csp/hash_context.h"
#include "csp/key_handle.h"
#include "csp/provider_context.h"
#include "ksp/ksp_key.h"
#include "ksp/ksp_provider.h"
#include "ksp/ksp_secret.h"
#include "token/device_state.h"
#include "token/key_pairs.h"

#include <algorithm>
#include <stdexcept>

namespace veltra::test {

namespace {

template <class... Records>
struct Kinds {
    /// The number of the kind of a live object, from 1, and the object.
    static std::pair<int, std::shared_ptr<void>> find(std::uintptr_t handle) {
        int kind = 0;
        std::shared_ptr<void> found;
        const bool isLive = ((++kind, found = LiveRecords<Records>::find(handle)) || ...);
        return {isLive ? kind : 0, found};
    }
    static bool release(std::uintptr_t handle) {
        return ((LiveRecords<Records>::take(handle) != nullptr) || ...);
    }
};

using AllKinds = Kinds<CSP_CONTEXT, KEY_HANDLE, HASH_CONTEXT, KSP_PROVIDER, KSP_KEY, KSP_SECRET, void>;

/// An AES key object that holds its key, as an import makes it.
template <class Key>
std::uintptr_t addAesKey(std::uint32_t Key::*bits) {
    auto key = keyWith<Key>(Bytes(16, 'K'));
    key.get()->*bits = 128;
    return LiveRecords<Key>::add(std::move(key));
}

ScriptedToken& freshToken(const std::string& serial) {
    ScriptedDeviceLibrary& library = ScriptedDeviceLibrary::instance();
    library.reset();
    ScriptedToken& token = library.addToken(serial);
    token.pin = BothFrontEnds::kPin;
    token.addKeyPair(BothFrontEnds::kRsa, kKeyTypeRsa2048, kUsageBoth);
    token.addKeyPair(BothFrontEnds::kEc, kKeyTypeEcP256, kUsageBoth);
    token.addAesKey(BothFrontEnds::kAes, kKeyTypeAes128);
    token.addCertificate(BothFrontEnds::kRsa, ScriptedDeviceLibrary::fakeCertificate("A", "CN=B", "CN=A"));
    return token;
}

} // namespace

bool releaseAny(std::uintptr_t handle) {
    return AllKinds::release(handle);
}

int kindOf(std::uintptr_t handle) {
    return AllKinds::find(handle).first;
}

std::unique_ptr<KSP_KEY> openedKey(const VeltraKeyPair& pair) {
    auto key = std::make_unique<KSP_KEY>();
    key->fillFrom(pair);
    key->bitLength = keyBitsOf(pair.keyType);
    key->persisted = true;
    return key;
}

std::shared_ptr<void> recordOf(std::uintptr_t handle) {
    return AllKinds::find(handle).second;
}

Bytes ciphertextOf(const Bytes& plaintext) {
    return joined({Bytes(256 - plaintext.size()), ScriptedDeviceLibrary::maskOf(plaintext)});
}

BothFrontEnds::BothFrontEnds(const std::string& serial)
    : token(freshToken(serial)), container(keyNameOf(token.keyPairs[0].keyId)) {
    storePin(serial, Pin(token.pin));
    const LPCWSTR rsaName = L"11111111111111111111111111111111";
    const LPCWSTR ecName = L"22222222222222222222222222222222";
    // Static: there are zeros between its members.
    static constexpr HMAC_INFO hmacInfo{CALG_SHA_256, nullptr, 0, nullptr, 0};
    const BYTE byte = 'x';
    aesKey = addAesKey(&KEY_HANDLE::keyBits);
    cngAesKey = addAesKey(&KSP_KEY::bitLength);
    const bool csp =
        CPAcquireContext(&context, container.c_str(), 0, table) &&
        CPGetUserKey(context, AT_KEYEXCHANGE, &rsaKey) && CPCreateHash(context, CALG_SHA_256, 0, 0, &hash) &&
        CPCreateHash(context, CALG_HMAC, aesKey, 0, &hmac) &&
        CPSetHashParam(context, hmac, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&hmacInfo), 0) &&
        CPHashData(context, hmac, &byte, 1, 0);
    NCryptAlgorithmName* algorithms = nullptr;
    DWORD count = 0;
    const bool cng =
        0 == (KSPOpenProvider(&provider, nullptr, 0) | KSPOpenKey(provider, &cngRsaKey, rsaName, 0, 0) |
              KSPOpenKey(provider, &cngEcKey, ecName, 0, 0) |
              KSPCreatePersistedKey(provider, &cngNewKey, L"RSA", nullptr, 0, 0) |
              KSPSecretAgreement(provider, cngEcKey, cngEcKey, &secret, 0) |
              KSPEnumAlgorithms(provider, 0, &count, &algorithms, 0));
    if (!csp || !cng) throw std::logic_error("a world without all its objects");
    block = reinterpret_cast<ULONG_PTR>(algorithms);
    resetOutput();
}

BothFrontEnds::~BothFrontEnds() {
    for (const std::uintptr_t handle : liveHandles())
        releaseAny(handle);
    forgetDisconnected({});
    forgetContainer(container);
}

void BothFrontEnds::resetOutput() {
    const Output untouched;
    out = untouched; // copied: the addresses of the application's buffers stay
    if (input.empty()) return;
    std::ranges::copy(input, out.bytes.begin());
    out.length = inputLength();
}

std::vector<std::uintptr_t> BothFrontEnds::liveHandles() const {
    std::vector<std::uintptr_t> handles = {context,   rsaKey,   aesKey,    hash,      hmac,   provider,
                                           cngRsaKey, cngEcKey, cngAesKey, cngNewKey, secret, block};
    std::erase_if(handles, [](std::uintptr_t handle) { return kindOf(handle) == 0; });
    return handles;
}

} // namespace veltra::test
