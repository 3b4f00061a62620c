#include "gcrypt_support.h"

#include <cstdarg>
#include <new>

namespace veltra::softtoken {

namespace {

constexpr int kSecurePoolBytes = 256 * 1024;

// Everything that goes wrong comes back as an error code; without a handler libgcrypt would also write to the
// standard error stream of the application that loaded the DLL.
void dropLibraryLog(void*, int, const char*, va_list) {}

bool setUp() {
    gcry_set_log_handler(dropLibraryLog, nullptr);
    if (gcry_check_version(GCRYPT_VERSION) == nullptr) {
        throw TokenError(Failure::Crypto, "libgcrypt is older than the headers it was built with");
    }
    gcry_control(GCRYCTL_INIT_SECMEM, kSecurePoolBytes, 0);
    gcry_control(GCRYCTL_AUTO_EXPAND_SECMEM, kSecurePoolBytes, 0);
    gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0);
    return true;
}

struct MacCloser {
    void operator()(gcry_mac_hd_t mac) const noexcept { gcry_mac_close(mac); }
};

} // namespace

void initialiseCrypto() {
    static const bool done = setUp();
    static_cast<void>(done);
}

void* allocateSecure(std::size_t length) {
    initialiseCrypto();
    void* memory = gcry_malloc_secure(length == 0 ? 1 : length);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

BytesView bytesOf(std::string_view text) {
    return {reinterpret_cast<const unsigned char*>(text.data()), text.size()};
}

std::string toHex(BytesView bytes) {
    constexpr std::string_view kDigits = "0123456789ABCDEF";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const unsigned char byte : bytes) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

void checkCrypto(gcry_error_t error, const char* what) {
    if (error == 0) return;
    if (gcry_err_code(error) == GPG_ERR_ENOMEM) throw std::bad_alloc();
    throw TokenError(Failure::Crypto, std::string(what) + ": " + gcry_strerror(error));
}

void fillRandom(std::span<unsigned char> out) {
    initialiseCrypto();
    gcry_randomize(out.data(), out.size(), GCRY_STRONG_RANDOM);
}

Bytes randomBytes(std::size_t length) {
    Bytes bytes(length);
    fillRandom(bytes);
    return bytes;
}

CipherHandle openAes(gcry_cipher_modes mode, BytesView key) {
    if (key.size() != 16 && key.size() != 24 && key.size() != 32) {
        throw TokenError(Failure::BadArgument, "an AES key has 16, 24 or 32 bytes");
    }
    initialiseCrypto();
    const int algorithm = key.size() == 16   ? GCRY_CIPHER_AES128
                          : key.size() == 24 ? GCRY_CIPHER_AES192
                                             : GCRY_CIPHER_AES256;
    gcry_cipher_hd_t raw = nullptr;
    checkCrypto(gcry_cipher_open(&raw, algorithm, mode, GCRY_CIPHER_SECURE), "AES");
    CipherHandle cipher(raw);
    checkCrypto(gcry_cipher_setkey(raw, key.data(), key.size()), "AES key");
    return cipher;
}

Bytes hmacSha256(BytesView key, BytesView message) {
    initialiseCrypto();
    gcry_mac_hd_t raw = nullptr;
    checkCrypto(gcry_mac_open(&raw, GCRY_MAC_HMAC_SHA256, GCRY_MAC_FLAG_SECURE, nullptr), "HMAC");
    const std::unique_ptr<std::remove_pointer_t<gcry_mac_hd_t>, MacCloser> mac(raw);
    checkCrypto(gcry_mac_setkey(raw, key.data(), key.size()), "HMAC key");
    checkCrypto(gcry_mac_write(raw, message.data(), message.size()), "HMAC");
    Bytes result(32);
    std::size_t length = result.size();
    checkCrypto(gcry_mac_read(raw, result.data(), &length), "HMAC");
    return result;
}

bool equalConstantTime(BytesView left, BytesView right) {
    if (left.size() != right.size()) return false;
    unsigned difference = 0;
    for (std::size_t i = 0; i < left.size(); ++i)
        difference |= static_cast<unsigned>(left[i] ^ right[i]);
    return difference == 0;
}

} // namespace veltra::softtoken
