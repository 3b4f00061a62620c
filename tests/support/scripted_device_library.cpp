#include "support/scripted_device_library.h"

#include "foundation/windows.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <numeric>
#include <sstream>
#include <stdexcept>

namespace veltra::test {

namespace {

// Codes without a meaning of their own: the provider must pass them on to its log and nowhere else.
constexpr int kNoSuchToken = 71;
constexpr int kNoSuchKey = 72;
constexpr int kWrongPin = 73;
constexpr int kBufferTooSmall = 74;
constexpr int kBadSignature = 75;
constexpr int kNoSuchHash = 76;
constexpr int kNotACiphertext = 77;
constexpr int kNotACertificate = 78;

constexpr std::size_t kAesBlock = 16;
constexpr int kLongestRsaCiphertext = 512;

constexpr std::size_t kSignatureBytes[] = {0, 128, 256, 384, 512, 64, 96, 132};
constexpr std::size_t kPublicKeyBytes[] = {0, 128, 256, 384, 512, 65, 97, 133};
constexpr std::size_t kDigestBytes[] = {0, 0, 20, 32, 48, 64, 28}; // by mechanism

std::string hex(const unsigned char* bytes, std::size_t length) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string text;
    for (std::size_t i = 0; i < length; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

/// The bytes themselves up to 4, else the first and last two with the length: "0102..FF00(256)".
std::string show(const unsigned char* bytes, int length) {
    if (!bytes) return "null(" + std::to_string(length) + ")";
    if (length <= 4) return length > 0 ? hex(bytes, static_cast<std::size_t>(length)) : "empty";
    return hex(bytes, 2) + ".." + hex(bytes + length - 2, 2) + "(" + std::to_string(length) + ")";
}

struct Block {
    const unsigned char* bytes;
    int length;
};

struct KeyId {
    const unsigned char* bytes;
};

// The arguments of a recorded call.
std::string show(const Block& block) {
    return show(block.bytes, block.length);
}
std::string show(const KeyId& id) {
    return id.bytes ? hex(id.bytes, 2) + ".." + hex(id.bytes + kKeyIdLength - 2, 2) : "null";
}
std::string show(const std::string& text) {
    return text;
}
std::string show(const char* text) {
    return text ? text : "null";
}
std::string show(const int* value) {
    return value ? std::to_string(*value) : "null";
}
template <class Number>
requires(std::is_arithmetic_v<Number> || std::is_enum_v<Number>) std::string show(Number value) {
    return std::to_string(static_cast<std::int64_t>(value));
}

/// "name=value, name=value".
template <class Value, class... Rest>
std::string showAll(const char* name, const Value& value, const Rest&... rest) {
    std::string text = name + ("=" + show(value));
    if constexpr (sizeof...(rest) > 0) text += ", " + showAll(rest...);
    return text;
}

/// What a failing call says of the length is nonsense.
int failWithLength(const Script& script, int* outLength) {
    *outLength = INT_MAX;
    return script.result;
}

/// Hands out what the library allocates; at least as many bytes as a script says that there are.
int handOut(const Bytes& bytes, const Script& script, unsigned char** out, int* outLength) {
    if (script.result) return failWithLength(script, outLength);
    *outLength = script.length.value_or(static_cast<int>(bytes.size()));
    *out = nullptr;
    if (script.noBuffer) return kDeviceOk;
    const auto reported = static_cast<std::size_t>(std::max(*outLength, 1));
    *out = static_cast<unsigned char*>(std::calloc(std::max(bytes.size(), reported), 1));
    std::copy(bytes.begin(), bytes.end(), *out);
    return kDeviceOk;
}

/// Fills the caller's buffer.
int copyOut(const Bytes& bytes, const Script& script, unsigned char* out, int* outLength) {
    if (script.result) return failWithLength(script, outLength);
    if (*outLength < static_cast<int>(bytes.size())) return kBufferTooSmall;
    std::copy(bytes.begin(), bytes.end(), out);
    *outLength = script.length.value_or(static_cast<int>(bytes.size()));
    return kDeviceOk;
}

/// What AES-decrypting `in` gives: PKCS#7 padding is taken off where the data ends like it.
Bytes aesPlaintext(const unsigned char* in, int inLength) {
    Bytes plain = ScriptedDeviceLibrary::maskOf(Bytes(in, in + inLength));
    if (!plain.empty() && plain.back() <= kAesBlock && plain.back() <= plain.size()) {
        plain.erase(plain.end() - plain.back(), plain.end());
    }
    return plain;
}

template <class Record>
bool hasId(const Record& record, const unsigned char* keyId) {
    return std::equal(std::begin(record.keyId), std::end(record.keyId), keyId);
}

/// A record of zeros but for its identifier, `id` 16 times.
template <class Record>
Record& append(std::vector<Record>& records, unsigned char id) {
    Record& record = records.emplace_back();
    std::memset(&record, 0, sizeof record);
    std::fill(std::begin(record.keyId), std::end(record.keyId), id);
    return record;
}

} // namespace

std::string keyNameOf(const unsigned char* keyId) {
    return hex(keyId, kKeyIdLength);
}

void ScriptedToken::logIn() {
    info.session = "session";
    info.words[3] = info.words[4] = 1;
}

bool ScriptedToken::loggedIn() const {
    return !info.session.empty() && info.words[3] == 1 && info.words[4] == 1;
}

VeltraKeyPair& ScriptedToken::addKeyPair(unsigned char id, std::uint32_t keyType, std::uint32_t usage) {
    const Bytes publicKey = ScriptedDeviceLibrary::publicKeyOf(keyType);
    VeltraKeyPair& pair = append(keyPairs, id);
    std::copy(publicKey.begin(), publicKey.end(), pair.publicKey);
    pair.publicKeyLength = static_cast<std::uint32_t>(publicKey.size());
    pair.credentialId[0] = id;
    pair.credentialIdLength = 1;
    std::strcpy(pair.label, kPairLabel);
    pair.usage = usage;
    pair.keyType = keyType;
    return pair;
}

VeltraSymmetricKey& ScriptedToken::addAesKey(unsigned char id, std::uint32_t keyType) {
    VeltraSymmetricKey& key = append(aesKeys, id);
    key.keyType = keyType;
    return key;
}

VeltraCertificate& ScriptedToken::addCertificate(unsigned char id, const Bytes& der) {
    VeltraCertificate& certificate = append(certificates, id);
    std::copy(der.begin(), der.end(), certificate.der);
    certificate.derLength = static_cast<std::uint32_t>(der.size());
    return certificate;
}

void ScriptedDeviceLibrary::reset() {
    const std::scoped_lock lock(mutex_);
    tokens_.clear();
    calls_.clear();
    scripts_.clear();
    hashes_.clear();
    caFiles.clear();
    generatedKeys_ = 0;
}

ScriptedToken& ScriptedDeviceLibrary::addToken(const std::string& serial) {
    const std::scoped_lock lock(mutex_);
    auto token = std::make_unique<ScriptedToken>();
    token->serial = serial;
    token->info.label = "Scripted token";
    token->info.fipsMarker = "3.0.9";
    token->info.firmwareVersion = "2.0.0";
    return *tokens_.emplace_back(std::move(token));
}

void ScriptedDeviceLibrary::setConnected(const std::string& serial, bool connected) {
    const std::scoped_lock lock(mutex_);
    if (ScriptedToken* token = find(serial.c_str())) token->connected = connected;
}

void ScriptedDeviceLibrary::script(const std::string& function, Script script) {
    const std::scoped_lock lock(mutex_);
    scripts_.push_back({.function = function, .script = script});
}

void ScriptedDeviceLibrary::scriptCall(int n, Script script) {
    const std::scoped_lock lock(mutex_);
    script.onCall = n;
    scripts_.push_back({.script = script, .thread = std::this_thread::get_id()});
}

void ScriptedDeviceLibrary::clearScripts() {
    const std::scoped_lock lock(mutex_);
    scripts_.clear();
}

void ScriptedDeviceLibrary::lookAtEveryCall(std::function<void(const std::string&)> look) {
    const std::scoped_lock lock(mutex_);
    look_ = std::move(look);
}

std::vector<std::string> ScriptedDeviceLibrary::calls(std::string_view function) const {
    const std::scoped_lock lock(mutex_);
    std::vector<std::string> texts;
    for (const RecordedCall& call : calls_)
        if (call.thread == std::this_thread::get_id() && (function.empty() || call.function == function))
            texts.push_back(call.text);
    return texts;
}

int ScriptedDeviceLibrary::countOnAllThreads(std::string_view function) const {
    const std::scoped_lock lock(mutex_);
    return static_cast<int>(std::count_if(
        calls_.begin(), calls_.end(), [&](const RecordedCall& call) { return call.function == function; }));
}

void ScriptedDeviceLibrary::clearCalls() {
    const std::scoped_lock lock(mutex_);
    calls_.clear();
}

Bytes ScriptedDeviceLibrary::fakeDigest(int mechanism, const Bytes& data) {
    // FNV-1a, drawn out to the length: every byte and the order of the bytes matter.
    std::uint64_t state = 0xCBF29CE484222325u ^ static_cast<std::uint64_t>(mechanism);
    const auto absorb = [&state](unsigned char byte) { state = (state ^ byte) * 0x100000001B3u; };
    for (const unsigned char byte : data)
        absorb(byte);
    Bytes digest(kDigestBytes[mechanism]);
    for (unsigned char& byte : digest) {
        absorb(0xA5);
        byte = static_cast<unsigned char>(state >> 32);
    }
    return digest;
}

Bytes ScriptedDeviceLibrary::fakeSignature(std::uint32_t keyType) {
    Bytes signature(kSignatureBytes[keyType]);
    std::iota(signature.begin(), signature.end(), static_cast<unsigned char>(1));
    return signature;
}

Bytes ScriptedDeviceLibrary::publicKeyOf(std::uint32_t keyType) {
    Bytes key(kPublicKeyBytes[keyType]);
    std::iota(key.begin(), key.end(), static_cast<unsigned char>(0xC0));
    if (keyType >= kKeyTypeEcP256) key[0] = 4;
    return key;
}

Bytes ScriptedDeviceLibrary::maskOf(Bytes bytes) {
    for (unsigned char& byte : bytes)
        byte ^= 0x5A;
    return bytes;
}

Bytes ScriptedDeviceLibrary::fakeCertificate(const std::string& commonName, const std::string& issuer,
                                             const std::string& subject) {
    const std::string text = commonName + "|" + issuer + "|" + subject;
    Bytes der = {0x30, 0x82, static_cast<unsigned char>(text.size() >> 8),
                 static_cast<unsigned char>(text.size())};
    der.insert(der.end(), text.begin(), text.end());
    return der;
}

Script ScriptedDeviceLibrary::begin(const char* function, const std::string& arguments) {
    SetLastError(0xBAD); // as a library does whose work fails somewhere inside
    calls_.push_back({std::this_thread::get_id(), function, std::string(function) + "(" + arguments + ")"});
    if (look_) look_(calls_.back().text);
    Script merged;
    for (ScriptState& state : scripts_) {
        const bool isOfFunction = state.function.empty() || state.function == function;
        const bool isOfThread =
            state.thread == std::thread::id() || state.thread == std::this_thread::get_id();
        if (!isOfFunction || !isOfThread) continue;
        ++state.callsSeen;
        if (state.script.onCall == 0 || state.script.onCall == state.callsSeen) merged = state.script;
    }
    if (merged.outOfMemory) throw std::bad_alloc();
    if (merged.throws) throw std::runtime_error(std::string("scripted fault in ") + function);
    return merged;
}

ScriptedToken* ScriptedDeviceLibrary::find(const char* serial) {
    for (const auto& token : tokens_)
        if (serial && token->serial == serial) return token.get();
    return nullptr;
}

ScriptedDeviceLibrary::Hash* ScriptedDeviceLibrary::findHash(void* handle) {
    const auto number = reinterpret_cast<std::uintptr_t>(handle);
    return number >= 1 && number <= hashes_.size() ? &hashes_[number - 1] : nullptr;
}

namespace {

using In = const unsigned char*; ///< bytes that a function is given

/// What the library's functions do.
class ScriptedFunctions final : public ScriptedDeviceLibrary {
public:
    int veltra_init(int mode, void* ctx, int kind) override {
        return Call(*this, "veltra_init", ctx, "mode", mode, "kind", kind).script.result;
    }

    std::vector<std::string> veltra_getConnectedDeviceList(bool refresh, void* ctx) override {
        const Call call(*this, "veltra_getConnectedDeviceList", ctx, "refresh", refresh);
        std::vector<std::string> serials;
        if (call.script.result) return serials;
        for (const auto& token : tokens_)
            if (token->connected) serials.push_back(token->serial);
        return serials;
    }

    int veltra_initDevice(const char* serial, bool reread, void* ctx) override {
        const Call call(*this, "veltra_initDevice", ctx, "serial", serial, "reread", reread);
        if (call.script.result) return call.script.result;
        return find(serial) ? kDeviceOk : kNoSuchToken;
    }

    TokenInfo veltra_getTokenInfo(const char* serial, void* ctx) override {
        const Call call(*this, "veltra_getTokenInfo", ctx, "serial", serial);
        const ScriptedToken* token = find(serial);
        return token && !call.script.result ? token->info : TokenInfo{};
    }

    int veltra_validatePassword(const char* serial, const char* pin, int mode, int* remaining,
                                void* ctx) override {
        const Call call(*this, "veltra_validatePassword", ctx, "serial", serial, "pin", pin, "mode", mode,
                        "remaining", remaining);
        if (call.script.result) return call.script.result;
        ScriptedToken* token = find(serial);
        if (!token) return kNoSuchToken;
        if (token->remaining > 0 && token->pin == pin) return kDeviceOk;
        *remaining = token->remaining = std::max(token->remaining - 1, 0);
        return kWrongPin;
    }

    std::vector<VeltraKeyPair>& veltra_getKeyPairList(const char* serial, void* ctx) override {
        const Call call(*this, "veltra_getKeyPairList", ctx, "serial", serial);
        return listFor(serial, call.script, keyPairLists_, &ScriptedToken::keyPairs,
                       &VeltraKeyPair::publicKeyLength);
    }

    int veltra_generateKeyPair(const char* serial, const char* pin, VeltraKeyPair* inout,
                               void* ctx) override {
        Call call(*this, "veltra_generateKeyPair", ctx, "serial", serial, "pin", pin, "type", inout->keyType,
                  "usage", inout->usage, "label", quoted(inout->label));
        if (const int code = call.logIn(serial, pin)) return code;
        if (inout->keyType < kKeyTypeRsa1024 || inout->keyType > kKeyTypeEcP521) return kNoSuchKey;
        const auto id = static_cast<unsigned char>(0xE0 + ++generatedKeys_ % 32);
        *inout = call.token->addKeyPair(id, inout->keyType, inout->usage);
        if (call.script.length) inout->publicKeyLength = static_cast<std::uint32_t>(*call.script.length);
        inout->flag = 1;
        return kDeviceOk;
    }

    int veltra_deleteKeyPair(const char* serial, In keyId, const char* pin, bool flag, void* ctx) override {
        Call call(*this, "veltra_deleteKeyPair", ctx, "serial", serial, "key", KeyId{keyId}, "pin", pin,
                  "flag", flag);
        if (const int code = call.logIn(serial, pin)) return code;
        const auto deleted = std::erase_if(call.token->keyPairs,
                                           [&](const VeltraKeyPair& pair) { return hasId(pair, keyId); });
        return deleted ? kDeviceOk : kNoSuchKey;
    }

    int veltra_updateKeyPairDetails(const char* serial, In keyId, const char* pin, const char* label, In data,
                                    int length, void* ctx) override {
        return Call(*this, "veltra_updateKeyPairDetails", ctx, "serial", serial, "key", KeyId{keyId}, "pin",
                    pin, "label", label, "data", Block{data, length})
            .script.result;
    }

    std::vector<VeltraCertificate>& veltra_getCertificateList(const char* serial, void* ctx) override {
        const Call call(*this, "veltra_getCertificateList", ctx, "serial", serial);
        return certificatesOf(serial, call.script);
    }

    VeltraCertificate* veltra_findCertificateForKey(const char* serial, In keyId, void* ctx) override {
        const Call call(*this, "veltra_findCertificateForKey", ctx, "serial", serial, "key", KeyId{keyId});
        for (VeltraCertificate& certificate : certificatesOf(serial, call.script))
            if (hasId(certificate, keyId)) return &certificate;
        return nullptr;
    }

    int veltra_importCertificate(const char* serial, const char* pin, VeltraCertificate* inout,
                                 void* ctx) override {
        Call call(*this, "veltra_importCertificate", ctx, "serial", serial, "pin", pin, "key",
                  KeyId{inout->keyId}, "der", Block{inout->der, static_cast<int>(inout->derLength)}, "label",
                  quoted(inout->label));
        if (const int code = call.logIn(serial, pin)) return code;
        call.token->certificates.push_back(*inout);
        return kDeviceOk;
    }

    int veltra_getCertificateDetails(In der, int length, CertificateDetails& out, void* ctx) override {
        const Call call(*this, "veltra_getCertificateDetails", ctx, "der", Block{der, length});
        if (call.script.result) return call.script.result;
        std::istringstream text(std::string(der + 4, der + std::max(length, 4)));
        const bool isOurs = std::getline(text, out.commonName, '|') && std::getline(text, out.issuer, '|');
        std::getline(text, out.subject, '|');
        return isOurs ? kDeviceOk : kNotACertificate;
    }

    std::vector<NamedDer> veltra_getFilesWithExtensionsAndConvertDER(
        const std::string& folder, const std::vector<std::string>& extensions, void* ctx) override {
        std::string list;
        for (const std::string& extension : extensions)
            list += " " + extension;
        const Call call(*this, "veltra_getFilesWithExtensionsAndConvertDER", ctx, "folder", folder,
                        "extensions", list);
        return caFiles;
    }

    std::vector<VeltraSymmetricKey>& veltra_getAesKeyList(const char* serial, void* ctx) override {
        const Call call(*this, "veltra_getAesKeyList", ctx, "serial", serial);
        return listFor(serial, call.script, aesKeyLists_, &ScriptedToken::aesKeys,
                       &VeltraSymmetricKey::keyLength);
    }

    int veltra_importAesKey(const char* serial, const char* pin, VeltraSymmetricKey* inout,
                            void* ctx) override {
        Call call(*this, "veltra_importAesKey", ctx, "serial", serial, "pin", pin, "key",
                  Block{inout->key, static_cast<int>(inout->keyLength)}, "type", inout->keyType);
        if (const int code = call.logIn(serial, pin)) return code;
        std::fill(std::begin(inout->keyId), std::end(inout->keyId), 0xAE);
        inout->credentialId[0] = 0xAE;
        inout->credentialIdLength = 1;
        std::strcpy(inout->label, kStoredLabel);
        inout->usage = kUsageBoth;
        inout->flag = 1;
        call.token->aesKeys.push_back(*inout);
        if (call.script.length)
            inout->credentialIdLength = inout->keyLength = static_cast<std::uint32_t>(*call.script.length);
        return kDeviceOk;
    }

    int veltra_encrypt(EncryptionType type, PaddingMode padding, In in, int inLength, unsigned char* out,
                       int* outLength, In key, int keyLength, void* ctx) override {
        const Call call(*this, "veltra_encrypt", ctx, "type", type, "padding", padding, "in",
                        Block{in, inLength}, "out", outLength, "key", Block{key, keyLength});
        if (call.script.result) return call.script.result;
        if (inLength >= *outLength) return kBufferTooSmall;
        Bytes ciphertext = maskOf(Bytes(in, in + inLength));
        const int length = std::min(*outLength, kLongestRsaCiphertext);
        ciphertext.insert(ciphertext.begin(), static_cast<std::size_t>(length - inLength), 0);
        return copyOut(ciphertext, call.script, out, outLength);
    }

    int veltra_decrypt(const char* serial, In keyId, const char* pin, In in, int inLength,
                       unsigned char** out, int* outLength, bool flag, void* ctx) override {
        Call call(*this, "veltra_decrypt", ctx, "serial", serial, "key", KeyId{keyId}, "pin", pin, "in",
                  Block{in, inLength}, "flag", flag);
        if (const int code = call.logIn(serial, pin)) return code;
        if (*in != 0) return kNotACiphertext;
        In end = in + inLength;
        In start = std::find_if(in, end, [](unsigned char byte) { return byte != 0; });
        return handOut(maskOf(Bytes(start, end)), call.script, out, outLength);
    }

    int veltra_encrypt_aes(const char* serial, EncryptionType type, In key, int keyLength, In in,
                           int inLength, unsigned char** out, int* outLength, bool final, In iv, int ivLength,
                           In extra, int extraLength, void* ctx) override {
        const Call call(*this, "veltra_encrypt_aes", ctx, "serial", serial, "type", type, "key",
                        Block{key, keyLength}, "in", Block{in, inLength}, "final", final, "iv",
                        Block{iv, ivLength}, "extra", Block{extra, extraLength});
        Bytes plain(in, in + inLength);
        const std::size_t padding = kAesBlock - plain.size() % kAesBlock;
        if (final) plain.insert(plain.end(), padding, static_cast<unsigned char>(padding));
        return handOut(maskOf(plain), call.script, out, outLength);
    }

    int veltra_decrypt_aes(const char* serial, In keyOrKeyId, int keyLength, In in, int inLength,
                           unsigned char** out, int* outLength, bool flag, In iv, int ivLength,
                           void* ctx) override {
        const Call call(*this, "veltra_decrypt_aes", ctx, "serial", serial, "key",
                        Block{keyOrKeyId, keyLength}, "in", Block{in, inLength}, "flag", flag, "iv",
                        Block{iv, ivLength});
        if (call.script.result) return call.script.result;
        const ScriptedToken* token = find(serial);
        const bool isWrapped = token && keyLength == static_cast<int>(kKeyIdLength) &&
                               std::ranges::any_of(token->aesKeys, [&](const VeltraSymmetricKey& candidate) {
                                   return hasId(candidate, keyOrKeyId);
                               });
        if (!isWrapped) return handOut(aesPlaintext(in, inLength), call.script, out, outLength);
        Bytes plain = maskOf(Bytes(in, in + inLength));
        if (plain.empty() || plain[0] != keyOrKeyId[0]) return kNotACiphertext;
        plain.erase(plain.begin());
        return handOut(plain, call.script, out, outLength);
    }

    int veltra_decryptSymetric(const char* serial, In in, int inLength, unsigned char* out, int* outLength,
                               In iv, int ivLength, In key, int keyLength, void* ctx) override {
        const Call call(*this, "veltra_decryptSymetric", ctx, "serial", serial, "in", Block{in, inLength},
                        "out", outLength, "iv", Block{iv, ivLength}, "key", Block{key, keyLength});
        return copyOut(aesPlaintext(in, inLength), call.script, out, outLength);
    }

    int veltra_ecdhDerive(const char* serial, In keyId, const char* pin, In peer, int peerLength,
                          unsigned char** out, int* outLength, void* ctx) override {
        Call call(*this, "veltra_ecdhDerive", ctx, "serial", serial, "key", KeyId{keyId}, "pin", pin, "peer",
                  Block{peer, peerLength});
        if (const int code = call.logIn(serial, pin)) return code;
        Bytes secret(static_cast<std::size_t>(std::max(call.script.length.value_or(32), 0)));
        std::iota(secret.begin(), secret.end(), static_cast<unsigned char>(1));
        return handOut(secret, call.script, out, outLength);
    }

    int veltra_generateRamdomNumber(const char* serial, int count, unsigned char* out, bool software,
                                    void* ctx) override {
        const Call call(*this, "veltra_generateRamdomNumber", ctx, "serial", serial, "count", count,
                        "software", software);
        if (!call.script.result) std::fill(out, out + count, 0x77);
        return call.script.result;
    }

    int veltra_signHash(const char* serial, In keyId, const char* pin, In hash, int hashLength,
                        unsigned char* out, int* outLength, bool reserved, void* ctx, bool pss) override {
        Call call(*this, "veltra_signHash", ctx, "serial", serial, "key", KeyId{keyId}, "pin", pin, "hash",
                  Block{hash, hashLength}, "out", reserved ? "reserved" : show(outLength), "pss", pss);
        if (const int code = call.logIn(serial, pin)) return code;
        const auto pair = std::ranges::find_if(
            call.token->keyPairs, [&](const VeltraKeyPair& candidate) { return hasId(candidate, keyId); });
        if (pair == call.token->keyPairs.end()) return kNoSuchKey;
        return copyOut(fakeSignature(pair->keyType), call.script, out, outLength);
    }

    int veltra_verifySignatureHash(unsigned int keyType, const char* serial, In hash, int hashLength,
                                   In publicKey, int publicKeyLength, In signature, int signatureLength,
                                   void* ctx, bool pss) override {
        const Call call(*this, "veltra_verifySignatureHash", ctx, "type", keyType, "serial", serial, "hash",
                        Block{hash, hashLength}, "key", Block{publicKey, publicKeyLength}, "signature",
                        Block{signature, signatureLength}, "pss", pss);
        if (call.script.result) return call.script.result;
        const bool isGood = fakeSignature(keyType) == Bytes(signature, signature + signatureLength);
        return isGood ? kDeviceOk : kBadSignature;
    }

    int veltra_initHash(const char* serial, int algorithm, void** hash, void* ctx) override {
        const Call call(*this, "veltra_initHash", ctx, "serial", serial, "algorithm", algorithm);
        if (call.script.result) return call.script.result;
        hashes_.push_back({algorithm, {}});
        *hash = reinterpret_cast<void*>(hashes_.size());
        return kDeviceOk;
    }

    int veltra_updateHash(void* hash, In data, int length, void* ctx) override {
        const Call call(*this, "veltra_updateHash", ctx, "hash", reinterpret_cast<std::uintptr_t>(hash),
                        "data", Block{data, length});
        if (call.script.result) return call.script.result;
        Hash* running = findHash(hash);
        if (!running) return kNoSuchHash;
        running->data.insert(running->data.end(), data, data + length);
        return kDeviceOk;
    }

    int veltra_finalHash(void* hash, unsigned char* digest, int* inoutLength, void* ctx) override {
        const Call call(*this, "veltra_finalHash", ctx, "hash", reinterpret_cast<std::uintptr_t>(hash),
                        "capacity", inoutLength);
        const Hash* running = findHash(hash);
        if (!running) return kNoSuchHash;
        return copyOut(fakeDigest(running->mechanism, running->data), call.script, digest, inoutLength);
    }

private:
    /// One call, which is recorded and follows its script; nobody else calls while it lasts.
    struct Call {
        template <class... Arguments>
        Call(ScriptedFunctions& called, const char* function, const void* ctx, const Arguments&... arguments)
            : library(called), lock(called.mutex_),
              // The context, which the provider always leaves null, is shown only where it is not.
              script(called.begin(function, showAll(arguments...) + (ctx ? ", ctx" : ""))) {}

        /// Why the call fails, if it does; else `token` is the one that it is for.
        int logIn(const char* serial, const char* pin) {
            if (script.result) return script.result;
            token = library.find(serial);
            if (!token) return kNoSuchToken;
            return token->loggedIn() || (pin && token->pin == pin) ? kDeviceOk : kWrongPin;
        }

        ScriptedFunctions& library;
        const std::scoped_lock<std::mutex> lock;
        const Script script;
        ScriptedToken* token = nullptr;
    };

    static std::string quoted(const char* label) { return "'" + std::string(label) + "'"; }

    /// The calling thread's copy of a list, with the fault that `script` asks for.
    template <class Record>
    std::vector<Record>& listFor(const char* serial, const Script& script, Lists<Record>& lists,
                                 std::vector<Record> ScriptedToken::*list, std::uint32_t Record::*length) {
        const ScriptedToken* token = find(serial);
        std::vector<Record>& copy = lists[std::this_thread::get_id()];
        copy = token && !script.result ? token->*list : std::vector<Record>();
        for (Record& record : copy)
            if (script.length)
                record.*length = record.credentialIdLength = static_cast<std::uint32_t>(*script.length);
        return copy;
    }

    std::vector<VeltraCertificate>& certificatesOf(const char* serial, const Script& script) {
        return listFor(serial, script, certificateLists_, &ScriptedToken::certificates,
                       &VeltraCertificate::derLength);
    }
};

} // namespace

ScriptedDeviceLibrary& ScriptedDeviceLibrary::instance() {
    static auto* library = new ScriptedFunctions;
    return *library;
}

} // namespace veltra::test
