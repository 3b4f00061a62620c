// VeltraDSCLibrary.dll for measurements: every function of the contract, and none of the work behind it, so
// that what is left of the time of a call is the provider's.

#include "stand_in.h"

#include <gcrypt.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

using namespace veltra;
using bench::StandIn;

constexpr int kNotMeasured = 99;
constexpr int kSignatureBytes = 256;
constexpr int kPlaintextBytes = 32;
constexpr int kSharedSecretBytes = 32;
constexpr int kDigestBytes = 32;

StandIn control;
int hashWithoutData = 0; // every hash whose value is made up

void called(const char* function) {
    if (control.tracedThread == GetCurrentThreadId()) control.trace.push_back(function);
    if (const DWORD milliseconds = control.milliseconds) Sleep(milliseconds);
}

int answer(const char* function, int code = kDeviceOk) {
    called(function);
    return code;
}

int answerInto(unsigned char* out, int length, int* outLength) {
    std::fill_n(out, length, static_cast<unsigned char>(0x5A));
    *outLength = length;
    return kDeviceOk;
}

int answerWithBuffer(int length, unsigned char** out, int* outLength) {
    // The caller releases it with free.
    *out = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(length)));
    return answerInto(*out, length, outLength);
}

/// The library that computes digests, prepared at its first use.
void useGcrypt() {
    static const bool ready = [] {
        gcry_check_version(nullptr);
        gcry_control(GCRYCTL_DISABLE_SECMEM);
        gcry_control(GCRYCTL_INITIALIZATION_FINISHED);
        return true;
    }();
    static_cast<void>(ready);
}

std::vector<VeltraKeyPair> noKeyPairs;

} // namespace

extern "C" {

StandIn* standIn() {
    return &control;
}

/// Exported under the names of all functions that no measured path calls.
int __cdecl notMeasured() {
    return kNotMeasured;
}

int __cdecl veltra_init(int, void*, int) {
    return answer("veltra_init");
}

std::vector<std::string> __cdecl veltra_getConnectedDeviceList(bool, void*) {
    called("veltra_getConnectedDeviceList");
    return {bench::kSerial};
}

int __cdecl veltra_initDevice(const char*, bool, void*) {
    return answer("veltra_initDevice");
}

TokenInfo __cdecl veltra_getTokenInfo(const char*, void*) {
    called("veltra_getTokenInfo");
    TokenInfo info;
    info.label = "Measured token";
    info.fipsMarker = "3.0.9";
    info.firmwareVersion = "2.0.0";
    return info;
}

int __cdecl veltra_validatePassword(const char*, const char*, int, int*, void*) {
    return answer("veltra_validatePassword");
}

std::vector<VeltraKeyPair>& __cdecl veltra_getKeyPairList(const char*, void*) {
    called("veltra_getKeyPairList");
    std::vector<VeltraKeyPair>* const pairs = control.keyPairs;
    return pairs != nullptr ? *pairs : noKeyPairs;
}

int __cdecl veltra_importAesKey(const char*, const char*, VeltraSymmetricKey*, void*) {
    return answer("veltra_importAesKey");
}

int __cdecl veltra_signHash(const char*, const unsigned char*, const char*, const unsigned char*, int,
                            unsigned char* out, int* outLength, bool, void*, bool) {
    called("veltra_signHash");
    return answerInto(out, kSignatureBytes, outLength);
}

int __cdecl veltra_verifySignatureHash(unsigned int, const char*, const unsigned char*, int,
                                       const unsigned char*, int, const unsigned char*, int, void*, bool) {
    return answer("veltra_verifySignatureHash");
}

int __cdecl veltra_encrypt(EncryptionType, PaddingMode, const unsigned char*, int, unsigned char* out,
                           int* outLength, const unsigned char*, int, void*) {
    called("veltra_encrypt");
    return answerInto(out, kSignatureBytes, outLength);
}

int __cdecl veltra_decrypt(const char*, const unsigned char*, const char*, const unsigned char*, int,
                           unsigned char** out, int* outLength, bool, void*) {
    called("veltra_decrypt");
    return answerWithBuffer(kPlaintextBytes, out, outLength);
}

int __cdecl veltra_encrypt_aes(const char*, EncryptionType, const unsigned char*, int, const unsigned char*,
                               int inLength, unsigned char** out, int* outLength, bool, const unsigned char*,
                               int, const unsigned char*, int, void*) {
    called("veltra_encrypt_aes");
    return answerWithBuffer(inLength, out, outLength);
}

int __cdecl veltra_decrypt_aes(const char*, const unsigned char*, int, const unsigned char*, int inLength,
                               unsigned char** out, int* outLength, bool, const unsigned char*, int, void*) {
    called("veltra_decrypt_aes");
    return answerWithBuffer(inLength, out, outLength);
}

int __cdecl veltra_decryptSymetric(const char*, const unsigned char*, int inLength, unsigned char* out,
                                   int* outLength, const unsigned char*, int, const unsigned char*, int,
                                   void*) {
    called("veltra_decryptSymetric");
    return answerInto(out, inLength, outLength);
}

int __cdecl veltra_ecdhDerive(const char*, const unsigned char*, const char*, const unsigned char*, int,
                              unsigned char** out, int* outLength, void*) {
    called("veltra_ecdhDerive");
    return answerWithBuffer(kSharedSecretBytes, out, outLength);
}

// SHA-256, whatever is asked for.
int __cdecl veltra_initHash(const char*, int, void** hash, void*) {
    called("veltra_initHash");
    *hash = &hashWithoutData;
    if (!control.realHashes) return kDeviceOk;
    useGcrypt();
    gcry_md_hd_t opened = nullptr;
    if (gcry_md_open(&opened, GCRY_MD_SHA256, 0) != 0) return kNotMeasured;
    *hash = opened;
    return kDeviceOk;
}

int __cdecl veltra_updateHash(void* hash, const unsigned char* data, int length, void*) {
    called("veltra_updateHash");
    if (hash == &hashWithoutData) return kDeviceOk;
    gcry_md_write(static_cast<gcry_md_hd_t>(hash), data, static_cast<std::size_t>(length));
    return kDeviceOk;
}

int __cdecl veltra_finalHash(void* hash, unsigned char* digest, int* inoutLength, void*) {
    called("veltra_finalHash");
    if (hash == &hashWithoutData) return answerInto(digest, kDigestBytes, inoutLength);
    auto* const real = static_cast<gcry_md_hd_t>(hash);
    std::memcpy(digest, gcry_md_read(real, GCRY_MD_SHA256), kDigestBytes);
    gcry_md_close(real);
    *inoutLength = kDigestBytes;
    return kDeviceOk;
}

} // extern "C"
