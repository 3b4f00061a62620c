#include "crypto_provider.h"

#include "container_map.h"
#include "error_text.h"
#include "wide_text.h"

#include "foundation/cng.h"

#include <algorithm>
#include <array>

namespace veltra {
namespace {

constexpr std::array kHashAlgorithms = {
    HashAlgorithm{"sha256", CALG_SHA_256, szOID_NIST_sha256, BCRYPT_SHA256_ALGORITHM, 32, szOID_RSA_SHA256RSA,
                  szOID_ECDSA_SHA256},
    HashAlgorithm{"sha384", CALG_SHA_384, szOID_NIST_sha384, BCRYPT_SHA384_ALGORITHM, 48, szOID_RSA_SHA384RSA,
                  szOID_ECDSA_SHA384},
    HashAlgorithm{"sha512", CALG_SHA_512, szOID_NIST_sha512, BCRYPT_SHA512_ALGORITHM, 64, szOID_RSA_SHA512RSA,
                  szOID_ECDSA_SHA512},
    HashAlgorithm{"sha1", CALG_SHA1, szOID_OIWSEC_sha1, BCRYPT_SHA1_ALGORITHM, 20, szOID_RSA_SHA1RSA,
                  szOID_ECDSA_SHA1},
};

DWORD keyNumber(const CryptoKey& key, DWORD parameter) {
    DWORD value = 0;
    DWORD length = sizeof value;
    require(CryptGetKeyParam(key.get(), parameter, reinterpret_cast<BYTE*>(&value), &length, 0),
            "could not read a property of the key");
    return value;
}

[[noreturn]] void failWithoutKey(const std::wstring& container) {
    constexpr auto kNoKey = static_cast<DWORD>(NTE_NO_KEY);
    const std::string what = "could not open the key of " + inQuotes(container);
    const Container known = findContainer(container);
    if (known.keyIds.empty()) failWithCode(kNoKey, what);
    throw CommandError(what + ": " + errorCodeText(kNoKey) + ": " + toUtf8(known.keyIds.front()) +
                           " is not on the first token; plug its token in, or, with several tokens, name the "
                           "key by this identifier instead of the container",
                       kExitFailed, kNoKey);
}

} // namespace

std::string usageText(bool signs, bool exchanges) {
    if (signs && exchanges) {
        return "both";
    }
    return signs ? "sign" : exchanges ? "exchange" : "none";
}

bool verdict(BOOL verified, std::string_view what) {
    if (verified) {
        return true;
    }
    const DWORD code = GetLastError();
    const bool isBadSignature =
        code == static_cast<DWORD>(NTE_BAD_SIGNATURE) || code == static_cast<DWORD>(CRYPT_E_HASH_VALUE);
    if (!isBadSignature) {
        failWithCode(code, what);
    }
    return false;
}

std::span<const HashAlgorithm> hashAlgorithms() {
    return kHashAlgorithms;
}

const HashAlgorithm* findHashAlgorithm(std::string_view name) {
    const auto* found = std::ranges::find(kHashAlgorithms, name, &HashAlgorithm::name);
    return found != kHashAlgorithms.end() ? found : nullptr;
}

CryptoProvider CryptoProvider::open(const ProviderChoice& choice, const std::wstring& container,
                                    DWORD flags) {
    if (!fitsNarrowCodePage(container)) {
        throw CommandError("the container name has characters that CryptoAPI cannot hand to a provider",
                           kExitUsage);
    }
    if (choice.silent) {
        flags |= CRYPT_SILENT;
    }
    HCRYPTPROV context = 0;
    if (!CryptAcquireContextW(&context, container.c_str(), choice.name.c_str(), PROV_RSA_FULL, flags)) {
        const DWORD code = GetLastError();
        failWithCode(code, "could not open the container " + inQuotes(container));
    }
    return CryptoProvider(CryptoContext(context));
}

CryptoProvider CryptoProvider::openForUse(const ProviderChoice& choice, const std::wstring& container) {
    CryptoProvider provider = open(choice, container);
    if (choice.pin) {
        if (!provider.findOwnKey()) failWithoutKey(container);
        provider.givePin(choice);
    }
    return provider;
}

void CryptoProvider::givePin(const ProviderChoice& choice) const {
    if (!choice.pin) return;
    const auto* text = reinterpret_cast<const BYTE*>(choice.pin->c_str());
    if (!CryptSetProvParam(handle(), PP_SIGNATURE_PIN, text, 0)) failWithPin(GetLastError());
}

CryptoProvider CryptoProvider::openToken(const ProviderChoice& choice) {
    HCRYPTPROV context = 0;
    require(CryptAcquireContextW(&context, nullptr, choice.name.c_str(), PROV_RSA_FULL,
                                 choice.silent ? CRYPT_SILENT : 0u),
            "could not open the token");
    return CryptoProvider(CryptoContext(context));
}

CryptoProvider CryptoProvider::openSystem() {
    HCRYPTPROV context = 0;
    require(CryptAcquireContextW(&context, nullptr, nullptr, PROV_RSA_AES, CRYPT_VERIFYCONTEXT),
            "could not open the system's software provider");
    return CryptoProvider(CryptoContext(context));
}

void CryptoProvider::deleteContainer(const ProviderChoice& choice, const std::wstring& container) {
    HCRYPTPROV none = 0;
    const DWORD flags = CRYPT_DELETEKEYSET | (choice.silent ? CRYPT_SILENT : 0u);
    if (!CryptAcquireContextW(&none, container.c_str(), choice.name.c_str(), PROV_RSA_FULL, flags)) {
        const DWORD code = GetLastError();
        failWithCode(code, "could not delete the container " + inQuotes(container));
    }
}

CryptoKey CryptoProvider::generateKey(DWORD keySpec, DWORD bits) const {
    HCRYPTKEY key = 0;
    require(CryptGenKey(handle(), keySpec, bits << 16, &key), "could not generate the key");
    return CryptoKey(key);
}

CryptoKey CryptoProvider::ownKey() const {
    HCRYPTKEY key = 0;
    require(CryptGetUserKey(handle(), AT_SIGNATURE, &key), "could not open the container's key");
    return CryptoKey(key);
}

std::optional<CryptoKey> CryptoProvider::findOwnKey() const {
    HCRYPTKEY key = 0;
    if (CryptGetUserKey(handle(), AT_SIGNATURE, &key)) {
        return CryptoKey(key);
    }
    const auto code = static_cast<LONG>(GetLastError());
    require(code == NTE_BAD_KEY || code == NTE_NO_KEY, "could not open the container's key");
    return std::nullopt;
}

KeyDescription CryptoProvider::describe(const CryptoKey& key) {
    KeyDescription description;
    // The provider reports elliptic curve keys under the identifier of DSS, the only signature algorithm with
    // a class of its own that CryptoAPI has beside RSA.
    description.algorithm = GET_ALG_TYPE(keyNumber(key, KP_ALGID)) == ALG_TYPE_RSA ? "RSA" : "EC";
    description.bits = keyNumber(key, KP_KEYLEN);
    const DWORD permissions = keyNumber(key, KP_PERMISSIONS);
    description.usage = usageText((permissions & CRYPT_ENCRYPT) != 0, (permissions & CRYPT_DECRYPT) != 0);
    return description;
}

std::vector<std::string> CryptoProvider::containerNames() const {
    std::vector<std::string> names;
    for (DWORD flag = CRYPT_FIRST;; flag = CRYPT_NEXT) {
        std::array<char, 1024> name{};
        auto length = static_cast<DWORD>(name.size());
        if (!CryptGetProvParam(handle(), PP_ENUMCONTAINERS, reinterpret_cast<BYTE*>(name.data()), &length,
                               flag)) {
            require(GetLastError() == ERROR_NO_MORE_ITEMS, "could not list the containers");
            return names;
        }
        names.emplace_back(name.data());
    }
}

std::optional<std::vector<BYTE>> CryptoProvider::certificateOf(const CryptoKey& key) {
    DWORD length = 0;
    if (!CryptGetKeyParam(key.get(), KP_CERTIFICATE, nullptr, &length, 0)) {
        require(static_cast<LONG>(GetLastError()) == NTE_NOT_FOUND, "could not read the certificate");
        return std::nullopt;
    }
    std::vector<BYTE> der(length);
    require(CryptGetKeyParam(key.get(), KP_CERTIFICATE, der.data(), &length, 0),
            "could not read the certificate");
    der.resize(length);
    return der;
}

CryptoHash CryptoProvider::createHash(const HashAlgorithm& algorithm) const {
    HCRYPTHASH hash = 0;
    if (!CryptCreateHash(handle(), algorithm.id, 0, 0, &hash)) {
        const DWORD code = GetLastError();
        failWithCode(code, "could not start a " + std::string(algorithm.name) + " hash");
    }
    return CryptoHash(hash);
}

void hashPiece(const CryptoHash& hash, std::span<const unsigned char> piece) {
    require(CryptHashData(hash.get(), piece.data(), static_cast<DWORD>(piece.size()), 0),
            "could not hash the file");
}

std::vector<BYTE> hashValue(const CryptoHash& hash) {
    return askTwice([&](BYTE* value, DWORD* length) {
        require(CryptGetHashParam(hash.get(), HP_HASHVAL, value, length, 0), "could not hash the file");
    });
}

} // namespace veltra
