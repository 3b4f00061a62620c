#include "support/scripted_device_library.h"

#include "support/blob_bytes.h"

#include "foundation/windows.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <map>
#include <new>
#include <sstream>
#include <stdexcept>

namespace veltra::test {

namespace {

// Codes without a meaning of their own: the provider must pass them on to its log and nowhere else.
constexpr int kNoSuchToken = 71, kNoSuchKey = 72, kWrongPin = 73, kBufferTooSmall = 74, kBadSignature = 75,
              kNoSuchHash = 76, kNotACiphertext = 77, kNotACertificate = 78;

constexpr std::size_t kAesBlock = 16;
constexpr int kLongestRsaCiphertext = 512;

constexpr std::size_t kSignatureBytes[] = {0, 128, 256, 384, 512, 64, 96, 132};
constexpr std::size_t kPublicKeyBytes[] = {0, 128, 256, 384, 512, 65, 97, 133};
constexpr std::size_t kDigestBytes[] = {0, 0, 20, 32, 48, 64, 28}; // by mechanism

std::string ends(const unsigned char* bytes, std::size_t length) {
    return toHex({bytes, 2}) + ".." + toHex({bytes + length - 2, 2});
}

/// The bytes themselves up to 4, else the first and last two with the length: "0102..FF00(256)".
std::string block(const unsigned char* bytes, std::int64_t length) {
    const std::string number = "(" + std::to_string(length) + ")";
    if (!bytes) return "null" + number;
    if (length <= 0) return "empty";
    const auto size = static_cast<std::size_t>(length);
    return size <= 4 ? toHex({bytes, size}) : ends(bytes, size) + number;
}

std::string identifier(const unsigned char* keyId) {
    return keyId ? ends(keyId, kKeyIdLength) : "null";
}

/// An argument of a recorded call, as text.
struct Shown {
    Shown(std::string value) : text(std::move(value)) {}
    Shown(const char* value) : text(value ? value : "null") {}
    Shown(const int* value) : text(value ? std::to_string(*value) : "null") {}
    Shown(std::int64_t value) : text(std::to_string(value)) {}

    std::string text;
};

std::string_view firstOf(std::string_view words) {
    return words.substr(0, words.find(' '));
}

/// "name=value, name=value", with the names behind the first of these words.
std::string showAll(std::string_view words, std::initializer_list<Shown> values) {
    std::string text;
    for (const Shown& value : values) {
        words.remove_prefix(words.find(' ') + 1);
        text.append(text.empty() ? "" : ", ").append(firstOf(words)).append("=").append(value.text);
    }
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

/// The first record of a key; null when there is none.
template <class Record>
Record* findId(std::vector<Record>& records, const unsigned char* keyId) {
    const auto found = std::ranges::find_if(records, [&](auto& record) { return hasId(record, keyId); });
    return found == records.end() ? nullptr : &*found;
}

/// A record of zeros but for its identifier, `id` 16 times.
template <class Record>
Record& append(std::vector<Record>& records, unsigned char id) {
    Record& record = records.emplace_back();
    std::fill(std::begin(record.keyId), std::end(record.keyId), id);
    return record;
}

} // namespace

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

std::vector<std::string> ScriptedDeviceLibrary::calls(std::string_view function) const {
    const std::scoped_lock lock(mutex_);
    std::vector<std::string> texts;
    for (const RecordedCall& call : calls_)
        if (call.thread == std::this_thread::get_id() && (function.empty() || call.function == function))
            texts.push_back(call.text);
    return texts;
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
    return counting(kSignatureBytes[keyType], 1);
}

Bytes ScriptedDeviceLibrary::publicKeyOf(std::uint32_t keyType) {
    Bytes key = counting(kPublicKeyBytes[keyType], 0xC0);
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
    const Bytes text = bytesOf(commonName + "|" + issuer + "|" + subject);
    return joined(
        {{0x30, 0x82}, {static_cast<BYTE>(text.size() >> 8), static_cast<BYTE>(text.size())}, text});
}

Script ScriptedDeviceLibrary::begin(std::string_view function, const std::string& arguments) {
    SetLastError(0xBAD); // as a library does whose work fails somewhere inside
    calls_.push_back(
        {std::this_thread::get_id(), std::string(function), concat(function, "(", arguments, ")")});
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
    if (merged.throws) throw std::runtime_error(concat("scripted fault in ", function));
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
        return Call(*this, ctx, "veltra_init mode kind", {mode, kind}).script.result;
    }

    std::vector<std::string> veltra_getConnectedDeviceList(bool refresh, void* ctx) override {
        const Call call(*this, ctx, "veltra_getConnectedDeviceList refresh", {refresh});
        std::vector<std::string> serials;
        if (call.script.result) return serials;
        for (const auto& token : tokens_)
            if (token->connected) serials.push_back(token->serial);
        return serials;
    }

    int veltra_initDevice(const char* serial, bool reread, void* ctx) override {
        const Call call(*this, ctx, "veltra_initDevice serial reread", {serial, reread});
        if (call.script.result) return call.script.result;
        return find(serial) ? kDeviceOk : kNoSuchToken;
    }

    TokenInfo veltra_getTokenInfo(const char* serial, void* ctx) override {
        const Call call(*this, ctx, "veltra_getTokenInfo serial", {serial});
        const ScriptedToken* token = find(serial);
        return token && !call.script.result ? token->info : TokenInfo{};
    }

    int veltra_validatePassword(const char* serial, const char* pin, int mode, int* remaining,
                                void* ctx) override {
        const Call call(*this, ctx, "veltra_validatePassword serial pin mode remaining",
                        {serial, pin, mode, remaining});
        if (call.script.result) return call.script.result;
        ScriptedToken* token = find(serial);
        if (!token) return kNoSuchToken;
        if (token->remaining > 0 && token->pin == pin) return kDeviceOk;
        *remaining = token->remaining = std::max(token->remaining - 1, 0);
        return kWrongPin;
    }

    std::vector<VeltraKeyPair>& veltra_getKeyPairList(const char* serial, void* ctx) override {
        const Call call(*this, ctx, "veltra_getKeyPairList serial", {serial});
        return listFor(serial, call.script, &ScriptedToken::keyPairs, &VeltraKeyPair::publicKeyLength);
    }

    int veltra_generateKeyPair(const char* serial, const char* pin, VeltraKeyPair* inout,
                               void* ctx) override {
        Call call(*this, ctx, "veltra_generateKeyPair serial pin type usage label",
                  {serial, pin, inout->keyType, inout->usage, quoted(inout->label)});
        if (const int code = call.logIn(serial, pin)) return code;
        if (inout->keyType < kKeyTypeRsa1024 || inout->keyType > kKeyTypeEcP521) return kNoSuchKey;
        const auto id = static_cast<unsigned char>(0xE0 + ++generatedKeys_ % 32);
        *inout = call.token->addKeyPair(id, inout->keyType, inout->usage);
        if (call.script.length) inout->publicKeyLength = static_cast<std::uint32_t>(*call.script.length);
        inout->flag = 1;
        return kDeviceOk;
    }

    int veltra_deleteKeyPair(const char* serial, In keyId, const char* pin, bool flag, void* ctx) override {
        Call call(*this, ctx, "veltra_deleteKeyPair serial key pin flag",
                  {serial, identifier(keyId), pin, flag});
        if (const int code = call.logIn(serial, pin)) return code;
        const auto deleted =
            std::erase_if(call.token->keyPairs, [&](auto& pair) { return hasId(pair, keyId); });
        return deleted ? kDeviceOk : kNoSuchKey;
    }

    int veltra_updateKeyPairDetails(const char* serial, In keyId, const char* pin, const char* label, In data,
                                    int length, void* ctx) override {
        return Call(*this, ctx, "veltra_updateKeyPairDetails serial key pin label data",
                    {serial, identifier(keyId), pin, label, block(data, length)})
            .script.result;
    }

    std::vector<VeltraCertificate>& veltra_getCertificateList(const char* serial, void* ctx) override {
        const Call call(*this, ctx, "veltra_getCertificateList serial", {serial});
        return certificatesOf(serial, call.script);
    }

    VeltraCertificate* veltra_findCertificateForKey(const char* serial, In keyId, void* ctx) override {
        const Call call(*this, ctx, "veltra_findCertificateForKey serial key", {serial, identifier(keyId)});
        return findId(certificatesOf(serial, call.script), keyId);
    }

    int veltra_importCertificate(const char* serial, const char* pin, VeltraCertificate* inout,
                                 void* ctx) override {
        Call call(*this, ctx, "veltra_importCertificate serial pin key der label",
                  {serial, pin, identifier(inout->keyId), block(inout->der, inout->derLength),
                   quoted(inout->label)});
        if (const int code = call.logIn(serial, pin)) return code;
        call.token->certificates.push_back(*inout);
        return kDeviceOk;
    }

    int veltra_getCertificateDetails(In der, int length, CertificateDetails& out, void* ctx) override {
        const Call call(*this, ctx, "veltra_getCertificateDetails der", {block(der, length)});
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
        const Call call(*this, ctx, "veltra_getFilesWithExtensionsAndConvertDER folder extensions",
                        {folder, list});
        return caFiles;
    }

    std::vector<VeltraSymmetricKey>& veltra_getAesKeyList(const char* serial, void* ctx) override {
        const Call call(*this, ctx, "veltra_getAesKeyList serial", {serial});
        return listFor(serial, call.script, &ScriptedToken::aesKeys, &VeltraSymmetricKey::keyLength);
    }

    int veltra_importAesKey(const char* serial, const char* pin, VeltraSymmetricKey* inout,
                            void* ctx) override {
        Call call(*this, ctx, "veltra_importAesKey serial pin key type",
                  {serial, pin, block(inout->key, inout->keyLength), inout->keyType});
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
        const Call call(*this, ctx, "veltra_encrypt type padding in out key",
                        {static_cast<int>(type), static_cast<int>(padding), block(in, inLength), outLength,
                         block(key, keyLength)});
        if (call.script.result) return call.script.result;
        if (inLength >= *outLength) return kBufferTooSmall;
        const auto zeros = static_cast<std::size_t>(std::min(*outLength, kLongestRsaCiphertext) - inLength);
        return copyOut(joined({Bytes(zeros), maskOf(Bytes(in, in + inLength))}), call.script, out, outLength);
    }

    int veltra_decrypt(const char* serial, In keyId, const char* pin, In in, int inLength,
                       unsigned char** out, int* outLength, bool flag, void* ctx) override {
        Call call(*this, ctx, "veltra_decrypt serial key pin in flag",
                  {serial, identifier(keyId), pin, block(in, inLength), flag});
        if (const int code = call.logIn(serial, pin)) return code;
        if (*in != 0) return kNotACiphertext;
        In end = in + inLength;
        In start = std::find_if(in, end, [](unsigned char byte) { return byte != 0; });
        return handOut(maskOf(Bytes(start, end)), call.script, out, outLength);
    }

    int veltra_encrypt_aes(const char* serial, EncryptionType type, In key, int keyLength, In in,
                           int inLength, unsigned char** out, int* outLength, bool final, In iv, int ivLength,
                           In extra, int extraLength, void* ctx) override {
        const Call call(*this, ctx, "veltra_encrypt_aes serial type key in final iv extra",
                        {serial, static_cast<int>(type), block(key, keyLength), block(in, inLength), final,
                         block(iv, ivLength), block(extra, extraLength)});
        Bytes plain(in, in + inLength);
        const std::size_t padding = kAesBlock - plain.size() % kAesBlock;
        if (final) plain.insert(plain.end(), padding, static_cast<unsigned char>(padding));
        return handOut(maskOf(plain), call.script, out, outLength);
    }

    int veltra_decrypt_aes(const char* serial, In keyOrKeyId, int keyLength, In in, int inLength,
                           unsigned char** out, int* outLength, bool flag, In iv, int ivLength,
                           void* ctx) override {
        const Call call(
            *this, ctx, "veltra_decrypt_aes serial key in flag iv",
            {serial, block(keyOrKeyId, keyLength), block(in, inLength), flag, block(iv, ivLength)});
        if (call.script.result) return call.script.result;
        ScriptedToken* token = find(serial);
        const bool isWrapped =
            token && keyLength == static_cast<int>(kKeyIdLength) && findId(token->aesKeys, keyOrKeyId);
        if (!isWrapped) return handOut(aesPlaintext(in, inLength), call.script, out, outLength);
        Bytes plain = maskOf(Bytes(in, in + inLength));
        if (plain.empty() || plain[0] != keyOrKeyId[0]) return kNotACiphertext;
        plain.erase(plain.begin());
        return handOut(plain, call.script, out, outLength);
    }

    int veltra_decryptSymetric(const char* serial, In in, int inLength, unsigned char* out, int* outLength,
                               In iv, int ivLength, In key, int keyLength, void* ctx) override {
        const Call call(*this, ctx, "veltra_decryptSymetric serial in out iv key",
                        {serial, block(in, inLength), outLength, block(iv, ivLength), block(key, keyLength)});
        return copyOut(aesPlaintext(in, inLength), call.script, out, outLength);
    }

    int veltra_ecdhDerive(const char* serial, In keyId, const char* pin, In peer, int peerLength,
                          unsigned char** out, int* outLength, void* ctx) override {
        Call call(*this, ctx, "veltra_ecdhDerive serial key pin peer",
                  {serial, identifier(keyId), pin, block(peer, peerLength)});
        if (const int code = call.logIn(serial, pin)) return code;
        const int length = std::max(call.script.length.value_or(32), 0);
        return handOut(counting(static_cast<std::size_t>(length), 1), call.script, out, outLength);
    }

    int veltra_generateRamdomNumber(const char* serial, int count, unsigned char* out, bool software,
                                    void* ctx) override {
        const Call call(*this, ctx, "veltra_generateRamdomNumber serial count software",
                        {serial, count, software});
        if (!call.script.result) std::fill(out, out + count, 0x77);
        return call.script.result;
    }

    int veltra_signHash(const char* serial, In keyId, const char* pin, In hash, int hashLength,
                        unsigned char* out, int* outLength, bool reserved, void* ctx, bool pss) override {
        Call call(*this, ctx, "veltra_signHash serial key pin hash out pss",
                  {serial, identifier(keyId), pin, block(hash, hashLength),
                   reserved ? Shown("reserved") : Shown(outLength), pss});
        if (const int code = call.logIn(serial, pin)) return code;
        const VeltraKeyPair* pair = findId(call.token->keyPairs, keyId);
        if (!pair) return kNoSuchKey;
        return copyOut(fakeSignature(pair->keyType), call.script, out, outLength);
    }

    int veltra_verifySignatureHash(unsigned int keyType, const char* serial, In hash, int hashLength,
                                   In publicKey, int publicKeyLength, In signature, int signatureLength,
                                   void* ctx, bool pss) override {
        const Call call(*this, ctx, "veltra_verifySignatureHash type serial hash key signature pss",
                        {keyType, serial, block(hash, hashLength), block(publicKey, publicKeyLength),
                         block(signature, signatureLength), pss});
        if (call.script.result) return call.script.result;
        const bool isGood = fakeSignature(keyType) == Bytes(signature, signature + signatureLength);
        return isGood ? kDeviceOk : kBadSignature;
    }

    int veltra_initHash(const char* serial, int algorithm, void** hash, void* ctx) override {
        const Call call(*this, ctx, "veltra_initHash serial algorithm", {serial, algorithm});
        if (call.script.result) return call.script.result;
        hashes_.push_back({algorithm, {}});
        *hash = reinterpret_cast<void*>(hashes_.size());
        return kDeviceOk;
    }

    int veltra_updateHash(void* hash, In data, int length, void* ctx) override {
        const Call call(*this, ctx, "veltra_updateHash hash data",
                        {reinterpret_cast<std::intptr_t>(hash), block(data, length)});
        if (call.script.result) return call.script.result;
        Hash* running = findHash(hash);
        if (!running) return kNoSuchHash;
        running->data.insert(running->data.end(), data, data + length);
        return kDeviceOk;
    }

    int veltra_finalHash(void* hash, unsigned char* digest, int* inoutLength, void* ctx) override {
        const Call call(*this, ctx, "veltra_finalHash hash capacity",
                        {reinterpret_cast<std::intptr_t>(hash), inoutLength});
        const Hash* running = findHash(hash);
        if (!running) return kNoSuchHash;
        return copyOut(fakeDigest(running->mechanism, running->data), call.script, digest, inoutLength);
    }

private:
    /// One call, which is recorded and follows its script; nobody else calls while it lasts.
    struct Call {
        /// `words`: the names of the function and its arguments.
        Call(ScriptedFunctions& called, const void* ctx, std::string_view words,
             std::initializer_list<Shown> arguments)
            : library(called), lock(called.mutex_),
              // The context, which the provider always leaves null, is shown only where it is not.
              script(called.begin(firstOf(words), showAll(words, arguments) + (ctx ? ", ctx" : ""))) {}

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

    /// The calling thread's copy of a list, with the fault that `script` asks for. It stays as it is until
    /// its thread asks again.
    template <class Record>
    std::vector<Record>& listFor(const char* serial, const Script& script,
                                 std::vector<Record> ScriptedToken::*list, std::uint32_t Record::*length) {
        static auto& lists = *new std::map<std::thread::id, std::vector<Record>>;
        const ScriptedToken* token = find(serial);
        std::vector<Record>& copy = lists[std::this_thread::get_id()];
        copy = token && !script.result ? token->*list : std::vector<Record>();
        for (Record& record : copy)
            if (script.length)
                record.*length = record.credentialIdLength = static_cast<std::uint32_t>(*script.length);
        return copy;
    }

    std::vector<VeltraCertificate>& certificatesOf(const char* serial, const Script& script) {
        return listFor(serial, script, &ScriptedToken::certificates, &VeltraCertificate::derLength);
    }
};

} // namespace

ScriptedDeviceLibrary& ScriptedDeviceLibrary::instance() {
    static auto* library = new ScriptedFunctions;
    return *library;
}

} // namespace veltra::test
