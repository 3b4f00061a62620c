#pragma once

#include "foundation/device_library.h"
#include "foundation/text.h"

#include <algorithm>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>

namespace veltra::test {

using Bytes = std::vector<unsigned char>;

/// The labels of key pairs and of imported AES keys: so long that a std::string needs memory for them.
inline constexpr const char* kPairLabel = "label of a key pair";
inline constexpr const char* kStoredLabel = "label of a stored key";

/// A token that exists only in memory. Change it freely while no other thread calls the provider.
struct ScriptedToken {
    std::string serial;
    bool connected = true;
    TokenInfo info;
    std::string pin = "1234";
    int remaining = 3;
    std::vector<VeltraKeyPair> keyPairs;
    std::vector<VeltraCertificate> certificates;
    std::vector<VeltraSymmetricKey> aesKeys;

    /// Makes the token report a logged-in session; it then accepts any PIN.
    void logIn() {
        info.session = "session";
        info.words[3] = info.words[4] = 1;
    }
    bool loggedIn() const { return !info.session.empty() && info.words[3] == 1 && info.words[4] == 1; }

    /// Appends a key pair and returns it. Its identifier is `id` 16 times, its public key the modulus or
    /// point that publicKeyOf gives.
    VeltraKeyPair& addKeyPair(unsigned char id, std::uint32_t keyType = kKeyTypeRsa2048,
                              std::uint32_t usage = kUsageSign);

    /// Appends an AES key whose identifier is `id` 16 times.
    VeltraSymmetricKey& addAesKey(unsigned char id, std::uint32_t keyType);

    /// Appends the certificate of the key `id`.
    VeltraCertificate& addCertificate(unsigned char id, const Bytes& der);
};

/// What a scripted call does instead of, or on top of, its ordinary work.
struct Script {
    int result = 0;                 ///< not 0: the call fails with this code and has no effect
    std::optional<int> length = {}; ///< the length it reports, whatever it wrote
    bool throws = false;            ///< it throws a std::runtime_error
    bool outOfMemory = false;       ///< it throws std::bad_alloc
    int onCall = 0;                 ///< only the n-th call from now on, counted from 1; 0: every call
    bool noBuffer = false;          ///< it hands out no buffer, whatever length it reports
};

/// The device library's double: tokens in memory, deterministic cryptography that keeps byte orders and the
/// order of data visible, a record of every call, and any call made to fail as a test asks. Thread-safe.
///
/// Signatures are the bytes 1, 2, 3, ... and so are shared secrets, 32 of them; a verification succeeds
/// exactly for those. Digests come from fakeDigest. Ciphertexts are the plaintext's bytes changed by maskOf:
/// an RSA ciphertext begins with zeros and one that does not is refused; AES pads the final piece to whole
/// blocks; a wrapped key begins with a byte of the wrapping key's identifier. A certificate is what
/// fakeCertificate makes. There is one instance, because the device monitor's thread may call it at any time:
/// tests reset it.
class ScriptedDeviceLibrary : public DeviceLibrary {
public:
    static ScriptedDeviceLibrary& instance();

    /// Removes tokens, scripts, hashes and recorded calls.
    void reset();

    /// Plugs in a new token behind those that are there. The reference stays good until reset().
    ScriptedToken& addToken(const std::string& serial);
    void setConnected(const std::string& serial, bool connected) {
        const std::scoped_lock lock(mutex_);
        if (ScriptedToken* token = find(serial.c_str())) token->connected = connected;
    }

    /// Scripts the calls of `function` ("veltra_signHash"), or of all when it is empty; several scripts add
    /// up.
    void script(const std::string& function, Script script) {
        const std::scoped_lock lock(mutex_);
        scripts_.push_back({.function = function, .script = script});
    }
    /// Scripts the n-th call, of whatever function, that the current thread makes from now on. A list that a
    /// failing call gives is empty, and the script's length is that of every record of it.
    void scriptCall(int n, Script script) {
        const std::scoped_lock lock(mutex_);
        script.onCall = n;
        scripts_.push_back({.script = script, .thread = std::this_thread::get_id()});
    }
    void clearScripts() {
        const std::scoped_lock lock(mutex_);
        scripts_.clear();
    }

    /// Runs `look` in every call of any thread, with the call's text. Null ends it.
    void lookAtEveryCall(std::function<void(const std::string&)> look) {
        const std::scoped_lock lock(mutex_);
        look_ = std::move(look);
    }

    /// The calls that the current thread made, as text, in order; with a name, only those of that function.
    /// Byte arguments are shown as their first and last bytes and length.
    std::vector<std::string> calls(std::string_view function = {}) const;
    /// The number of calls of `function` from any thread.
    int countOnAllThreads(std::string_view function) const {
        const std::scoped_lock lock(mutex_);
        return static_cast<int>(std::ranges::count(calls_, function, &RecordedCall::function));
    }
    void clearCalls() {
        const std::scoped_lock lock(mutex_);
        calls_.clear();
    }

    static Bytes fakeDigest(int mechanism, const Bytes& data);
    static Bytes fakeSignature(std::uint32_t keyType);
    static Bytes publicKeyOf(std::uint32_t keyType);
    static Bytes maskOf(Bytes bytes);
    static Bytes fakeCertificate(const std::string& commonName, const std::string& issuer,
                                 const std::string& subject);

    /// The files of the CA folder, whatever folder is asked for.
    std::vector<NamedDer> caFiles;

protected:
    struct RecordedCall {
        std::thread::id thread;
        std::string function;
        std::string text;
    };
    struct ScriptState {
        std::string function = {}; ///< empty: all
        Script script;
        std::thread::id thread = {}; ///< none: all
        int callsSeen = 0;
    };
    struct Hash {
        int mechanism = 0;
        Bytes data;
    };

    ScriptedDeviceLibrary() = default;

    // All of these expect mutex_ to be held.
    Script begin(std::string_view function, const std::string& arguments);
    ScriptedToken* find(const char* serial);
    Hash* findHash(void* handle);

    mutable std::mutex mutex_;
    std::vector<std::unique_ptr<ScriptedToken>> tokens_;
    std::vector<RecordedCall> calls_;
    std::vector<ScriptState> scripts_;
    std::function<void(const std::string&)> look_;
    std::vector<Hash> hashes_;
    unsigned char generatedKeys_ = 0;
};

/// "112233445566778899AABBCCDDEEFF00" for a 16-byte key identifier.
inline std::string keyNameOf(const unsigned char* keyId) {
    return toHex({keyId, kKeyIdLength});
}

} // namespace veltra::test
