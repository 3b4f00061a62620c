#include "csp/algorithm_table.h"

namespace veltra {

namespace {

constexpr DWORD kSigning = CRYPT_FLAG_SIGNING;
constexpr DWORD kSigningAndIpsec = CRYPT_FLAG_SIGNING | CRYPT_FLAG_IPSEC;

constexpr ReportedAlgorithm rsaSign(DWORD minLength) {
    return {CALG_RSA_SIGN, minLength, 4096, 2048, kSigningAndIpsec, "RSA-Sign", "RSA Signature"};
}
constexpr ReportedAlgorithm rsaExchange(DWORD minLength) {
    return {CALG_RSA_KEYX, minLength, 4096, 2048, kSigningAndIpsec, "RSA-KeyX", "RSA Key Exchange"};
}
constexpr ReportedAlgorithm kAes128 = {
    CALG_AES_128, 128, 128, 128, 0, "AES-128", "Advanced Encryption Standard 128-bit"};
constexpr ReportedAlgorithm kAes192 = {
    CALG_AES_192, 192, 192, 192, 0, "AES-192", "Advanced Encryption Standard 192-bit"};
constexpr ReportedAlgorithm kAes256 = {
    CALG_AES_256, 256, 256, 256, 0, "AES-256", "Advanced Encryption Standard 256-bit"};
constexpr ReportedAlgorithm kSha1 = {
    CALG_SHA1, 160, 160, 160, kSigning, "SHA-1", "Secure Hash Algorithm (SHA-1)"};
constexpr ReportedAlgorithm kSha256 = {
    CALG_SHA_256, 256, 256, 256, kSigning, "SHA-256", "Secure Hash Algorithm 256 (SHA-256)"};
constexpr ReportedAlgorithm kSha384 = {
    CALG_SHA_384, 384, 384, 384, kSigning, "SHA-384", "Secure Hash Algorithm 384 (SHA-384)"};
constexpr ReportedAlgorithm kSha512 = {
    CALG_SHA_512, 512, 512, 512, kSigning, "SHA-512", "Secure Hash Algorithm 512 (SHA-512)"};
constexpr ReportedAlgorithm kHmac = {CALG_HMAC, 0, 0, 0, 0, "HMAC", "Orvo's MAC (HMAC)"};

constexpr ReportedAlgorithm kFips1402Algorithms[] = {
    rsaSign(1024), rsaExchange(1024), kAes128, kAes192, kAes256, kSha1, kSha256, kSha384, kSha512, kHmac};

constexpr ReportedAlgorithm kFips1403Algorithms[] = {
    rsaSign(2048), rsaExchange(2048), kAes128, kAes192, kAes256, kSha256, kSha384, kSha512, kHmac};

} // namespace

std::span<const ReportedAlgorithm> reportedAlgorithms(bool fips1402) {
    if (fips1402) return kFips1402Algorithms;
    return kFips1403Algorithms;
}

} // namespace veltra
