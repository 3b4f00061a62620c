// veltra_token_worker.exe SERIAL SEED THREADS OPERATIONS: uses a token the way programs do, through the
// device library and in the token's single-sign-on session, and writes down on its standard output what it is
// about to do and what came of it. With 0 operations it works until it is killed, and tries the right PIN,
// too.
//
// "begin OPERATION [ID]", "done OPERATION ID|ATTEMPTS-LEFT", "failed OPERATION CODE"; the operations are
// generate, delete, rename, sign, aes, certificate, wrong-pin and right-pin.

#include "softtoken_test.h"

#include "foundation/windows.h"
#include "unit/test_certificates.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>

using namespace veltra;
using namespace veltra::softtoken;
using namespace veltra::softtoken::test;

namespace {

constexpr const char* kNoPin = ""; // the session knows it

/// A line in one piece, and at once: a process that is killed keeps no buffer.
void say(const std::string& what, const std::string& operation, const std::string& detail) {
    const std::string line = what + " " + operation + " " + detail + "\n";
    DWORD written = 0;
    WriteFile(GetStdHandle(STD_OUTPUT_HANDLE), line.data(), static_cast<DWORD>(line.size()), &written,
              nullptr);
}

class Worker {
public:
    Worker(const char* serial, unsigned seed, bool endless)
        : serial_(serial), random_(seed), endless_(endless) {}

    void work(int operations) {
        for (int i = 0; endless_ || i < operations; ++i)
            step();
    }

private:
    void step() {
        if (endless_) {
            mine_ = veltra_getKeyPairList(serial_, nullptr);
        } else if (!std::ranges::all_of(mine_, [&](const VeltraKeyPair& key) { return isListed(key); })) {
            say("failed", "list", "-");
        }
        const unsigned choice = random_() % 16;
        if (mine_.size() < 2 || choice < 5)
            return attempt("generate", "-", [&](auto& id) { return generate(id); });
        const std::size_t index = random_() % mine_.size();
        const std::string id = toHex(mine_[index].keyId);
        if (mine_.size() > 6 || choice < 8)
            return attempt("delete", id, [&](auto&) { return remove(index); });
        const VeltraKeyPair& key = mine_[index];
        if (choice < 9) return attempt("sign", id, [&](auto&) { return sign(key); });
        if (choice < 10) return attempt("rename", id, [&](auto&) { return rename(key); });
        if (choice < 11) return attempt("aes", "-", [&](auto& made) { return importAes(made); });
        if (choice < 12) return attempt("certificate", id, [&](auto&) { return importCertificate(key); });
        if (choice < 15 || !endless_)
            return attempt("wrong-pin", "-", [&](auto& left) { return tryWrongPin(left); });
        attempt("right-pin", "-",
                [&](auto&) { return veltra_validatePassword(serial_, kPin, 1, nullptr, nullptr); });
    }

    /// `call` returns a result code and may change what is written down about it.
    template <class Call>
    void attempt(const char* operation, std::string about, Call call) {
        say("begin", operation, about);
        const int code = call(about);
        say(code == 0 ? "done" : "failed", operation, code == 0 ? about : std::to_string(code));
    }

    int generate(std::string& id) {
        VeltraKeyPair key{};
        key.keyType = kKeyTypeEcP256;
        const int code = veltra_generateKeyPair(serial_, kNoPin, &key, nullptr);
        if (code == 0) mine_.push_back(key);
        id = toHex(key.keyId);
        return code;
    }

    int remove(std::size_t index) {
        const int code = veltra_deleteKeyPair(serial_, mine_[index].keyId, kNoPin, false, nullptr);
        mine_.erase(mine_.begin() + static_cast<std::ptrdiff_t>(index));
        return code;
    }

    int sign(const VeltraKeyPair& key) {
        unsigned char bytes[64] = {};
        int length = 64;
        return veltra_signHash(serial_, key.keyId, kNoPin, bytes, 32, bytes, &length, false, nullptr, false);
    }

    int rename(const VeltraKeyPair& key) {
        return veltra_updateKeyPairDetails(serial_, key.keyId, kNoPin, "renamed", nullptr, 0, nullptr);
    }

    int importAes(std::string& id) {
        VeltraSymmetricKey key{};
        key.keyLength = 32;
        const int code = veltra_importAesKey(serial_, kNoPin, &key, nullptr);
        id = toHex(key.keyId);
        return code;
    }

    int importCertificate(const VeltraKeyPair& key) {
        VeltraCertificate record{};
        std::memcpy(record.keyId, key.keyId, kKeyIdLength);
        const Bytes der = fromBase64(veltra::test::kLeafCertificate);
        std::ranges::copy(der, record.der);
        record.derLength = static_cast<std::uint32_t>(der.size());
        return veltra_importCertificate(serial_, kNoPin, &record, nullptr);
    }

    int tryWrongPin(std::string& attemptsLeft) {
        int left = -1;
        const int code = veltra_validatePassword(serial_, kWrongPin, 1, &left, nullptr);
        attemptsLeft = std::to_string(left);
        return code == 0 ? -1 : 0;
    }

    bool isListed(const VeltraKeyPair& key) {
        return std::ranges::any_of(veltra_getKeyPairList(serial_, nullptr), [&](const VeltraKeyPair& it) {
            return std::memcmp(it.keyId, key.keyId, kKeyIdLength) == 0;
        });
    }

    const char* serial_;
    std::mt19937 random_;
    bool endless_;
    std::vector<VeltraKeyPair> mine_; ///< the keys that this thread made; all of the token's when endless
};

} // namespace

int main(int count, char** arguments) {
    if (count != 5) return 2;
    const char* serial = arguments[1];
    const auto seed = static_cast<unsigned>(std::atoi(arguments[2]));
    const int operations = std::atoi(arguments[4]);
    unsigned char byte = 0;
    veltra_generateRamdomNumber("", 1, &byte, true, nullptr); // the first one takes long
    say("begin", "work", "-");
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < static_cast<unsigned>(std::atoi(arguments[3])); ++i)
        threads.emplace_back([&, i] { Worker(serial, seed + i, operations == 0).work(operations); });
    for (std::thread& thread : threads)
        thread.join();
    return 0;
}
