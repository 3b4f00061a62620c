#include "support/scripted_device_library.h"

#include "foundation/windows.h"

#include <algorithm>
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

std::string show(const char* text) {
    return text ? text : "null";
}

std::string show(const int* value) {
    return value ? std::to_string(*value) : "null";
}

std::string showKeyId(const unsigned char* keyId) {
    return keyId ? hex(keyId, 2) + ".." + hex(keyId + kKeyIdLength - 2, 2) : "null";
}

std::string show(bool value) {
    return value ? "1" : "0";
}

template <class Enum>
requires std::is_enum_v<Enum> std::string show(Enum value) {
    return std::to_string(static_cast<std::uint32_t>(value));
}

/// Hands out what the library allocates; at least as many bytes as a script says that there are.
int handOut(const Bytes& bytes, const Script& script, unsigned char** out, int* outLength) {
    *outLength = script.length.value_or(static_cast<int>(bytes.size()));
    *out = nullptr;
    if (script.noBuffer) return kDeviceOk;
    const auto reported = static_cast<std::size_t>(std::max(*outLength, 1));
    *out = static_cast<unsigned char*>(std::calloc(std::max(bytes.size(), reported), 1));
    std::copy(bytes.begin(), bytes.end(), *out);
    return kDeviceOk;
}

/// What AES-decrypting `in` gives: PKCS#7 padding is taken off where the data ends like it.
Bytes aesPlaintext(const unsigned char* in, int inLength) {
    Bytes plain = ScriptedDeviceLibrary::maskOf(Bytes(in, in + inLength));
    if (!plain.empty() && plain.back() <= kAesBlock && plain.back() <= plain.size()) {
        plain.resize(plain.size() - plain.back());
    }
    return plain;
}

/// A copy of `list` for the calling thread, with the fault that `script` asks for.
template <class Record>
std::vector<Record>& listFor(std::map<std::thread::id, std::vector<Record>>& lists,
                             const std::vector<Record>* list, const Script& script,
                             std::uint32_t Record::*length) {
    std::vector<Record>& copy = lists[std::this_thread::get_id()];
    copy = list && !script.result ? *list : std::vector<Record>();
    for (Record& record : copy)
        if (script.length)
            record.*length = record.credentialIdLength = static_cast<std::uint32_t>(*script.length);
    return copy;
}

template <class Record>
bool hasId(const Record& record, const unsigned char* keyId) {
    return std::equal(std::begin(record.keyId), std::end(record.keyId), keyId);
}

/// Adds the library context, which the provider always leaves null, only where it is not.
std::string showContext(const void* ctx) {
    return ctx ? ", ctx" : "";
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
    VeltraKeyPair& pair = keyPairs.emplace_back();
    std::memset(&pair, 0, sizeof pair);
    std::fill(std::begin(pair.keyId), std::end(pair.keyId), id);
    std::copy(publicKey.begin(), publicKey.end(), pair.publicKey);
    pair.publicKeyLength = static_cast<std::uint32_t>(publicKey.size());
    pair.credentialId[0] = id;
    pair.credentialIdLength = 1;
    std::strcpy(pair.label, "label");
    pair.usage = usage;
    pair.keyType = keyType;
    return pair;
}

VeltraSymmetricKey& ScriptedToken::addAesKey(unsigned char id, std::uint32_t keyType) {
    VeltraSymmetricKey& key = aesKeys.emplace_back();
    std::memset(&key, 0, sizeof key);
    std::fill(std::begin(key.keyId), std::end(key.keyId), id);
    key.keyType = keyType;
    return key;
}

VeltraCertificate& ScriptedToken::addCertificate(unsigned char id, const Bytes& der) {
    VeltraCertificate& certificate = certificates.emplace_back();
    std::memset(&certificate, 0, sizeof certificate);
    std::fill(std::begin(certificate.keyId), std::end(certificate.keyId), id);
    std::copy(der.begin(), der.end(), certificate.der);
    certificate.derLength = static_cast<std::uint32_t>(der.size());
    return certificate;
}

ScriptedDeviceLibrary& ScriptedDeviceLibrary::instance() {
    static auto* library = new ScriptedDeviceLibrary;
    return *library;
}

void ScriptedDeviceLibrary::reset() {
    const std::scoped_lock lock(mutex_);
    tokens_.clear();
    calls_.clear();
    scripts_.clear();
    scriptedCall_ = {};
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
    scripts_.emplace(function, ScriptState{script});
}

void ScriptedDeviceLibrary::scriptCall(int n, Script script) {
    const std::scoped_lock lock(mutex_);
    script.onCall = n;
    scriptedCall_ = {.script = script, .thread = std::this_thread::get_id()};
}

void ScriptedDeviceLibrary::clearScripts() {
    const std::scoped_lock lock(mutex_);
    scripts_.clear();
    scriptedCall_ = {};
}

void ScriptedDeviceLibrary::lookAtEveryCall(std::function<void(const std::string&)> look) {
    const std::scoped_lock lock(mutex_);
    look_ = std::move(look);
}

std::vector<std::string> ScriptedDeviceLibrary::calls(std::string_view function) const {
    const std::scoped_lock lock(mutex_);
    std::vector<std::string> texts;
    for (const Call& call : calls_)
        if (call.thread == std::this_thread::get_id() && (function.empty() || call.function == function))
            texts.push_back(call.text);
    return texts;
}

int ScriptedDeviceLibrary::countOnAllThreads(std::string_view function) const {
    const std::scoped_lock lock(mutex_);
    return static_cast<int>(std::count_if(calls_.begin(), calls_.end(),
                                          [&](const Call& call) { return call.function == function; }));
}

void ScriptedDeviceLibrary::clearCalls() {
    const std::scoped_lock lock(mutex_);
    calls_.clear();
}

Bytes ScriptedDeviceLibrary::fakeDigest(int mechanism, const Bytes& data) {
    static const std::map<int, std::size_t> kLengths = {{kMechanismSha1, 20},
                                                        {kMechanismSha224, 28},
                                                        {kMechanismSha256, 32},
                                                        {kMechanismSha384, 48},
                                                        {kMechanismSha512, 64}};
    // FNV-1a, drawn out to the length: every byte and the order of the bytes matter.
    std::uint64_t state = 0xCBF29CE484222325u ^ static_cast<std::uint64_t>(mechanism);
    const auto absorb = [&state](unsigned char byte) { state = (state ^ byte) * 0x100000001B3u; };
    for (const unsigned char byte : data)
        absorb(byte);
    Bytes digest(kLengths.at(mechanism));
    for (unsigned char& byte : digest) {
        absorb(0xA5);
        byte = static_cast<unsigned char>(state >> 32);
    }
    return digest;
}

Bytes ScriptedDeviceLibrary::fakeSignature(std::uint32_t keyType) {
    Bytes signature(kSignatureBytes[keyType]);
    for (std::size_t i = 0; i < signature.size(); ++i)
        signature[i] = static_cast<unsigned char>(i + 1);
    return signature;
}

Bytes ScriptedDeviceLibrary::publicKeyOf(std::uint32_t keyType) {
    Bytes key(kPublicKeyBytes[keyType]);
    for (std::size_t i = 0; i < key.size(); ++i)
        key[i] = static_cast<unsigned char>(0xC0 + i);
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
    Bytes der(4 + text.size());
    der[0] = 0x30;
    der[1] = 0x82;
    der[2] = static_cast<unsigned char>(text.size() >> 8);
    der[3] = static_cast<unsigned char>(text.size());
    std::copy(text.begin(), text.end(), der.begin() + 4);
    return der;
}

Script ScriptedDeviceLibrary::begin(const char* function, const std::string& arguments) {
    SetLastError(0xBAD); // as a library does whose work fails somewhere inside
    calls_.push_back({std::this_thread::get_id(), function, std::string(function) + "(" + arguments + ")"});
    if (look_) look_(calls_.back().text);
    Script merged;
    const auto [first, last] = scripts_.equal_range(function);
    for (auto it = first; it != last; ++it) {
        ScriptState& state = it->second;
        ++state.callsSeen;
        if (state.script.onCall == 0 || state.script.onCall == state.callsSeen) merged = state.script;
    }
    if (scriptedCall_.thread == std::this_thread::get_id() &&
        ++scriptedCall_.callsSeen == scriptedCall_.script.onCall) {
        merged = scriptedCall_.script;
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

bool ScriptedDeviceLibrary::acceptsPin(const ScriptedToken& token, const char* pin) const {
    return token.loggedIn() || (pin && token.pin == pin);
}

ScriptedDeviceLibrary::Hash* ScriptedDeviceLibrary::findHash(void* handle) {
    const auto number = reinterpret_cast<std::uintptr_t>(handle);
    return number >= 1 && number <= hashes_.size() ? &hashes_[number - 1] : nullptr;
}

int ScriptedDeviceLibrary::veltra_init(int mode, void* ctx, int kind) {
    const std::scoped_lock lock(mutex_);
    return begin("veltra_init",
                 "mode=" + std::to_string(mode) + ", kind=" + std::to_string(kind) + showContext(ctx))
        .result;
}

std::vector<std::string> ScriptedDeviceLibrary::veltra_getConnectedDeviceList(bool refresh, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_getConnectedDeviceList", "refresh=" + std::to_string(refresh) + showContext(ctx));
    std::vector<std::string> serials;
    if (script.result) return serials;
    for (const auto& token : tokens_)
        if (token->connected) serials.push_back(token->serial);
    return serials;
}

int ScriptedDeviceLibrary::veltra_initDevice(const char* serial, bool reread, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_initDevice",
              "serial=" + show(serial) + ", reread=" + std::to_string(reread) + showContext(ctx));
    if (script.result) return script.result;
    return find(serial) ? kDeviceOk : kNoSuchToken;
}

TokenInfo ScriptedDeviceLibrary::veltra_getTokenInfo(const char* serial, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script = begin("veltra_getTokenInfo", "serial=" + show(serial) + showContext(ctx));
    const ScriptedToken* token = find(serial);
    return token && !script.result ? token->info : TokenInfo{};
}

int ScriptedDeviceLibrary::veltra_validatePassword(const char* serial, const char* pin, int mode,
                                                   int* remaining, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_validatePassword", "serial=" + show(serial) + ", pin=" + show(pin) +
                                             ", mode=" + std::to_string(mode) +
                                             ", remaining=" + show(remaining) + showContext(ctx));
    if (script.result) return script.result;
    ScriptedToken* token = find(serial);
    if (!token) return kNoSuchToken;
    if (token->remaining > 0 && token->pin == pin) return kDeviceOk;
    *remaining = token->remaining = std::max(token->remaining - 1, 0);
    return kWrongPin;
}

std::vector<VeltraKeyPair>& ScriptedDeviceLibrary::veltra_getKeyPairList(const char* serial, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script = begin("veltra_getKeyPairList", "serial=" + show(serial) + showContext(ctx));
    const ScriptedToken* token = find(serial);
    return listFor(keyPairLists_, token ? &token->keyPairs : nullptr, script,
                   &VeltraKeyPair::publicKeyLength);
}

int ScriptedDeviceLibrary::veltra_generateKeyPair(const char* serial, const char* pin, VeltraKeyPair* inout,
                                                  void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script = begin(
        "veltra_generateKeyPair",
        "serial=" + show(serial) + ", pin=" + show(pin) + ", type=" + std::to_string(inout->keyType) +
            ", usage=" + std::to_string(inout->usage) + ", label='" + inout->label + "'" + showContext(ctx));
    if (script.result) return script.result;
    ScriptedToken* token = find(serial);
    if (!token) return kNoSuchToken;
    if (!acceptsPin(*token, pin)) return kWrongPin;
    if (inout->keyType < kKeyTypeRsa1024 || inout->keyType > kKeyTypeEcP521) return kNoSuchKey;
    *inout = token->addKeyPair(static_cast<unsigned char>(0xE0 + ++generatedKeys_ % 32), inout->keyType,
                               inout->usage);
    if (script.length) inout->publicKeyLength = static_cast<std::uint32_t>(*script.length);
    inout->flag = 1;
    return kDeviceOk;
}

int ScriptedDeviceLibrary::veltra_deleteKeyPair(const char* serial, const unsigned char* keyId,
                                                const char* pin, bool flag, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_deleteKeyPair", "serial=" + show(serial) + ", key=" + showKeyId(keyId) + ", pin=" +
                                          show(pin) + ", flag=" + std::to_string(flag) + showContext(ctx));
    if (script.result) return script.result;
    ScriptedToken* token = find(serial);
    if (!token) return kNoSuchToken;
    if (!acceptsPin(*token, pin)) return kWrongPin;
    const auto deleted = std::erase_if(token->keyPairs, [&](const VeltraKeyPair& pair) {
        return std::equal(std::begin(pair.keyId), std::end(pair.keyId), keyId);
    });
    return deleted ? kDeviceOk : kNoSuchKey;
}

int ScriptedDeviceLibrary::veltra_updateKeyPairDetails(const char* serial, const unsigned char* keyId,
                                                       const char* pin, const char* label,
                                                       const unsigned char* data, int length, void* ctx) {
    const std::scoped_lock lock(mutex_);
    return begin("veltra_updateKeyPairDetails", "serial=" + show(serial) + ", key=" + showKeyId(keyId) +
                                                    ", pin=" + show(pin) + ", label=" + show(label) +
                                                    ", data=" + show(data, length) + showContext(ctx))
        .result;
}

std::vector<VeltraCertificate>& ScriptedDeviceLibrary::veltra_getCertificateList(const char* serial,
                                                                                 void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script = begin("veltra_getCertificateList", "serial=" + show(serial) + showContext(ctx));
    const ScriptedToken* token = find(serial);
    return listFor(certificateLists_, token ? &token->certificates : nullptr, script,
                   &VeltraCertificate::derLength);
}

VeltraCertificate* ScriptedDeviceLibrary::veltra_findCertificateForKey(const char* serial,
                                                                       const unsigned char* keyId,
                                                                       void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script = begin("veltra_findCertificateForKey",
                                "serial=" + show(serial) + ", key=" + showKeyId(keyId) + showContext(ctx));
    const ScriptedToken* token = find(serial);
    for (VeltraCertificate& certificate : listFor(certificateLists_, token ? &token->certificates : nullptr,
                                                  script, &VeltraCertificate::derLength)) {
        if (hasId(certificate, keyId)) return &certificate;
    }
    return nullptr;
}

int ScriptedDeviceLibrary::veltra_importCertificate(const char* serial, const char* pin,
                                                    VeltraCertificate* inout, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_importCertificate",
              "serial=" + show(serial) + ", pin=" + show(pin) + ", key=" + showKeyId(inout->keyId) +
                  ", der=" + show(inout->der, static_cast<int>(inout->derLength)) + ", label='" +
                  inout->label + "'" + showContext(ctx));
    if (script.result) return script.result;
    ScriptedToken* token = find(serial);
    if (!token) return kNoSuchToken;
    if (!acceptsPin(*token, pin)) return kWrongPin;
    token->certificates.push_back(*inout);
    return kDeviceOk;
}

int ScriptedDeviceLibrary::veltra_getCertificateDetails(const unsigned char* der, int length,
                                                        CertificateDetails& out, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_getCertificateDetails", "der=" + show(der, length) + showContext(ctx));
    if (script.result) return script.result;
    std::istringstream text(std::string(der + 4, der + std::max(length, 4)));
    if (!std::getline(text, out.commonName, '|') || !std::getline(text, out.issuer, '|')) {
        return kNotACertificate;
    }
    std::getline(text, out.subject, '|');
    return kDeviceOk;
}

std::vector<NamedDer> ScriptedDeviceLibrary::veltra_getFilesWithExtensionsAndConvertDER(
    const std::string& folder, const std::vector<std::string>& extensions, void* ctx) {
    const std::scoped_lock lock(mutex_);
    std::string list;
    for (const std::string& extension : extensions)
        list += " " + extension;
    begin("veltra_getFilesWithExtensionsAndConvertDER",
          "folder=" + folder + ", extensions=" + list + showContext(ctx));
    return caFiles;
}

std::vector<VeltraSymmetricKey>& ScriptedDeviceLibrary::veltra_getAesKeyList(const char* serial, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script = begin("veltra_getAesKeyList", "serial=" + show(serial) + showContext(ctx));
    const ScriptedToken* token = find(serial);
    return listFor(aesKeyLists_, token ? &token->aesKeys : nullptr, script, &VeltraSymmetricKey::keyLength);
}

int ScriptedDeviceLibrary::veltra_importAesKey(const char* serial, const char* pin, VeltraSymmetricKey* inout,
                                               void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_importAesKey", "serial=" + show(serial) + ", pin=" + show(pin) +
                                         ", key=" + show(inout->key, static_cast<int>(inout->keyLength)) +
                                         ", type=" + std::to_string(inout->keyType) + showContext(ctx));
    if (script.result) return script.result;
    ScriptedToken* token = find(serial);
    if (!token) return kNoSuchToken;
    if (!acceptsPin(*token, pin)) return kWrongPin;
    std::fill(std::begin(inout->keyId), std::end(inout->keyId), 0xAE);
    inout->credentialId[0] = 0xAE;
    inout->credentialIdLength = 1;
    std::strcpy(inout->label, "stored");
    inout->usage = kUsageBoth;
    inout->flag = 1;
    token->aesKeys.push_back(*inout);
    if (script.length)
        inout->credentialIdLength = inout->keyLength = static_cast<std::uint32_t>(*script.length);
    return kDeviceOk;
}

int ScriptedDeviceLibrary::veltra_encrypt(EncryptionType type, PaddingMode padding, const unsigned char* in,
                                          int inLength, unsigned char* out, int* outLength,
                                          const unsigned char* key, int keyLength, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_encrypt", "type=" + show(type) + ", padding=" + show(padding) +
                                    ", in=" + show(in, inLength) + ", out=" + show(outLength) +
                                    ", key=" + show(key, keyLength) + showContext(ctx));
    if (script.result) return script.result;
    if (inLength >= *outLength) return kBufferTooSmall;
    *outLength = std::min(*outLength, kLongestRsaCiphertext);
    const Bytes masked = maskOf(Bytes(in, in + inLength));
    std::fill(out, out + *outLength - inLength, 0);
    std::copy(masked.begin(), masked.end(), out + *outLength - inLength);
    *outLength = script.length.value_or(*outLength);
    return kDeviceOk;
}

int ScriptedDeviceLibrary::veltra_decrypt(const char* serial, const unsigned char* keyId, const char* pin,
                                          const unsigned char* in, int inLength, unsigned char** out,
                                          int* outLength, bool flag, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script = begin("veltra_decrypt", "serial=" + show(serial) + ", key=" + showKeyId(keyId) +
                                                      ", pin=" + show(pin) + ", in=" + show(in, inLength) +
                                                      ", flag=" + show(flag) + showContext(ctx));
    if (script.result) return script.result;
    const ScriptedToken* token = find(serial);
    if (!token) return kNoSuchToken;
    if (!acceptsPin(*token, pin)) return kWrongPin;
    if (*in != 0) return kNotACiphertext;
    const unsigned char* end = in + inLength;
    const unsigned char* start = std::find_if(in, end, [](unsigned char byte) { return byte != 0; });
    return handOut(maskOf(Bytes(start, end)), script, out, outLength);
}

int ScriptedDeviceLibrary::veltra_encrypt_aes(const char* serial, EncryptionType type,
                                              const unsigned char* key, int keyLength,
                                              const unsigned char* in, int inLength, unsigned char** out,
                                              int* outLength, bool final, const unsigned char* iv,
                                              int ivLength, const unsigned char* extra, int extraLength,
                                              void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_encrypt_aes", "serial=" + show(serial) + ", type=" + show(type) +
                                        ", key=" + show(key, keyLength) + ", in=" + show(in, inLength) +
                                        ", final=" + show(final) + ", iv=" + show(iv, ivLength) +
                                        ", extra=" + show(extra, extraLength) + showContext(ctx));
    if (script.result) return script.result;
    Bytes plain(in, in + inLength);
    const std::size_t padding = kAesBlock - plain.size() % kAesBlock;
    if (final) plain.insert(plain.end(), padding, static_cast<unsigned char>(padding));
    return handOut(maskOf(plain), script, out, outLength);
}

int ScriptedDeviceLibrary::veltra_decrypt_aes(const char* serial, const unsigned char* keyOrKeyId,
                                              int keyLength, const unsigned char* in, int inLength,
                                              unsigned char** out, int* outLength, bool flag,
                                              const unsigned char* iv, int ivLength, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_decrypt_aes", "serial=" + show(serial) + ", key=" + show(keyOrKeyId, keyLength) +
                                        ", in=" + show(in, inLength) + ", flag=" + show(flag) +
                                        ", iv=" + show(iv, ivLength) + showContext(ctx));
    if (script.result) return script.result;
    const ScriptedToken* token = find(serial);
    const bool isWrapped = token && keyLength == static_cast<int>(kKeyIdLength) &&
                           std::ranges::any_of(token->aesKeys, [&](const VeltraSymmetricKey& candidate) {
                               return hasId(candidate, keyOrKeyId);
                           });
    if (!isWrapped) return handOut(aesPlaintext(in, inLength), script, out, outLength);
    Bytes plain = maskOf(Bytes(in, in + inLength));
    if (plain.empty() || plain[0] != keyOrKeyId[0]) return kNotACiphertext;
    plain.erase(plain.begin());
    return handOut(plain, script, out, outLength);
}

int ScriptedDeviceLibrary::veltra_decryptSymetric(const char* serial, const unsigned char* in, int inLength,
                                                  unsigned char* out, int* outLength, const unsigned char* iv,
                                                  int ivLength, const unsigned char* key, int keyLength,
                                                  void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_decryptSymetric", "serial=" + show(serial) + ", in=" + show(in, inLength) +
                                            ", out=" + show(outLength) + ", iv=" + show(iv, ivLength) +
                                            ", key=" + show(key, keyLength) + showContext(ctx));
    if (script.result) return script.result;
    const Bytes plain = aesPlaintext(in, inLength);
    if (plain.size() > static_cast<std::size_t>(*outLength)) return kBufferTooSmall;
    std::copy(plain.begin(), plain.end(), out);
    *outLength = script.length.value_or(static_cast<int>(plain.size()));
    return kDeviceOk;
}

int ScriptedDeviceLibrary::veltra_ecdhDerive(const char* serial, const unsigned char* keyId, const char* pin,
                                             const unsigned char* peer, int peerLength, unsigned char** out,
                                             int* outLength, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script = begin(
        "veltra_ecdhDerive", "serial=" + show(serial) + ", key=" + showKeyId(keyId) + ", pin=" + show(pin) +
                                 ", peer=" + show(peer, peerLength) + showContext(ctx));
    if (script.result) return script.result;
    const ScriptedToken* token = find(serial);
    if (!token) return kNoSuchToken;
    if (!acceptsPin(*token, pin)) return kWrongPin;
    Bytes secret(static_cast<std::size_t>(std::max(script.length.value_or(32), 0)));
    std::iota(secret.begin(), secret.end(), static_cast<unsigned char>(1));
    return handOut(secret, script, out, outLength);
}

int ScriptedDeviceLibrary::veltra_generateRamdomNumber(const char* serial, int count, unsigned char* out,
                                                       bool software, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_generateRamdomNumber", "serial=" + show(serial) + ", count=" + std::to_string(count) +
                                                 ", software=" + show(software) + showContext(ctx));
    if (script.result) return script.result;
    std::fill(out, out + count, 0x77);
    return kDeviceOk;
}

int ScriptedDeviceLibrary::veltra_signHash(const char* serial, const unsigned char* keyId, const char* pin,
                                           const unsigned char* hash, int hashLength, unsigned char* out,
                                           int* outLength, bool reserved, void* ctx, bool pss) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_signHash", "serial=" + show(serial) + ", key=" + showKeyId(keyId) +
                                     ", pin=" + show(pin) + ", hash=" + show(hash, hashLength) +
                                     ", out=" + show(outLength) + (reserved ? ", reserved" : "") +
                                     ", pss=" + std::to_string(pss) + showContext(ctx));
    if (script.result) return script.result;
    const ScriptedToken* token = find(serial);
    if (!token) return kNoSuchToken;
    if (!acceptsPin(*token, pin)) return kWrongPin;
    const auto pair =
        std::find_if(token->keyPairs.begin(), token->keyPairs.end(), [&](const auto& candidate) {
            return std::equal(std::begin(candidate.keyId), std::end(candidate.keyId), keyId);
        });
    if (pair == token->keyPairs.end()) return kNoSuchKey;
    const Bytes signature = fakeSignature(pair->keyType);
    if (*outLength < static_cast<int>(signature.size())) return kBufferTooSmall;
    std::copy(signature.begin(), signature.end(), out);
    *outLength = script.length.value_or(static_cast<int>(signature.size()));
    return kDeviceOk;
}

int ScriptedDeviceLibrary::veltra_verifySignatureHash(unsigned int keyType, const char* serial,
                                                      const unsigned char* hash, int hashLength,
                                                      const unsigned char* publicKey, int publicKeyLength,
                                                      const unsigned char* signature, int signatureLength,
                                                      void* ctx, bool pss) {
    const std::scoped_lock lock(mutex_);
    const Script script = begin(
        "veltra_verifySignatureHash",
        "type=" + std::to_string(keyType) + ", serial=" + show(serial) + ", hash=" + show(hash, hashLength) +
            ", key=" + show(publicKey, publicKeyLength) + ", signature=" + show(signature, signatureLength) +
            ", pss=" + std::to_string(pss) + showContext(ctx));
    if (script.result) return script.result;
    const Bytes expected = fakeSignature(keyType);
    const bool same = signatureLength == static_cast<int>(expected.size()) &&
                      std::equal(expected.begin(), expected.end(), signature);
    return same ? kDeviceOk : kBadSignature;
}

int ScriptedDeviceLibrary::veltra_initHash(const char* serial, int algorithm, void** hash, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_initHash",
              "serial=" + show(serial) + ", algorithm=" + std::to_string(algorithm) + showContext(ctx));
    if (script.result) return script.result;
    hashes_.push_back({algorithm, {}});
    *hash = reinterpret_cast<void*>(hashes_.size());
    return kDeviceOk;
}

int ScriptedDeviceLibrary::veltra_updateHash(void* hash, const unsigned char* data, int length, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_updateHash", "hash=" + std::to_string(reinterpret_cast<std::uintptr_t>(hash)) +
                                       ", data=" + show(data, length) + showContext(ctx));
    if (script.result) return script.result;
    Hash* running = findHash(hash);
    if (!running) return kNoSuchHash;
    running->data.insert(running->data.end(), data, data + length);
    return kDeviceOk;
}

int ScriptedDeviceLibrary::veltra_finalHash(void* hash, unsigned char* digest, int* inoutLength, void* ctx) {
    const std::scoped_lock lock(mutex_);
    const Script script =
        begin("veltra_finalHash", "hash=" + std::to_string(reinterpret_cast<std::uintptr_t>(hash)) +
                                      ", capacity=" + show(inoutLength) + showContext(ctx));
    if (script.result) return script.result;
    const Hash* running = findHash(hash);
    if (!running) return kNoSuchHash;
    const Bytes value = fakeDigest(running->mechanism, running->data);
    if (*inoutLength < static_cast<int>(value.size())) return kBufferTooSmall;
    std::copy(value.begin(), value.end(), digest);
    *inoutLength = script.length.value_or(static_cast<int>(value.size()));
    return kDeviceOk;
}

} // namespace veltra::test
