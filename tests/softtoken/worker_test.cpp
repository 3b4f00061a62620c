// Processes that are killed while they use a token, and several that use one at once.

#include "softtoken_test.h"

#include "foundation/windows.h"
#include "lifecycle/child_process.h"
#include "token_operations.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <sstream>
#include <thread>

namespace veltra::softtoken::test {

namespace {

constexpr const char* kNoPin = ""; // the session knows it
constexpr DWORD kPatience = 60'000;

/// Uses the token as a program does, in its single-sign-on session, and writes into a file what it is about
/// to do and what came of it: "begin OPERATION ID", then "done OPERATION ID|ATTEMPTS-LEFT" or "failed
/// OPERATION CODE".
class Worker {
public:
    /// `mine`: the keys that it may change. Others may use the token, too, unless it `triesTheRightPin`.
    Worker(HANDLE journal, unsigned seed, std::vector<VeltraKeyPair> mine, bool triesTheRightPin)
        : journal_(journal), random_(seed), mine_(std::move(mine)), triesTheRightPin_(triesTheRightPin) {}

    void step() {
        const unsigned choice = random_() % 16;
        if (mine_.size() < 2 || (choice < 6 && mine_.size() < 7)) return generate();
        const std::size_t index = random_() % mine_.size();
        const VeltraKeyPair key = mine_[index];
        if (choice < 9) {
            mine_.erase(mine_.begin() + static_cast<std::ptrdiff_t>(index));
            attempt("delete", toHex(key.keyId), [&](std::string&) {
                return veltra_deleteKeyPair(kSerial, key.keyId, kNoPin, false, nullptr);
            });
        } else if (choice < 11) {
            attempt("rename", toHex(key.keyId), [&](std::string&) {
                return veltra_updateKeyPairDetails(kSerial, key.keyId, kNoPin, "renamed", nullptr, 0,
                                                   nullptr);
            });
        } else if (choice < 12) {
            importAes();
        } else {
            tryPin(choice < 15 || !triesTheRightPin_ ? kWrongPin : kPin);
        }
    }

private:
    /// In one piece, and at once: a process that is killed keeps no buffer.
    void say(const std::string& what, const std::string& operation, const std::string& about) {
        const std::string line = what + " " + operation + " " + about + "\n";
        DWORD written = 0;
        WriteFile(journal_, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    }

    /// `call` returns a result code and may change what is written down about it.
    template <class Call>
    void attempt(const char* operation, std::string about, Call call) {
        say("begin", operation, about);
        const int code = call(about);
        say(code == 0 ? "done" : "failed", operation, code == 0 ? about : std::to_string(code));
    }

    void generate() {
        attempt("generate", "-", [&](std::string& id) {
            VeltraKeyPair& key = mine_.emplace_back();
            key.keyType = kKeyTypeEcP256;
            const int code = veltra_generateKeyPair(kSerial, kNoPin, &key, nullptr);
            id = toHex(key.keyId);
            return code;
        });
    }

    void importAes() {
        attempt("import", "-", [&](std::string& id) {
            VeltraSymmetricKey key{};
            key.keyLength = 32;
            const int code = veltra_importAesKey(kSerial, kNoPin, &key, nullptr);
            id = toHex(key.keyId);
            return code;
        });
    }

    void tryPin(const std::string& pin) {
        attempt(pin == kPin ? "right-pin" : "wrong-pin", "-", [&](std::string& attemptsLeft) {
            int left = -1;
            const int code = veltra_validatePassword(kSerial, pin.c_str(), 1, &left, nullptr);
            attemptsLeft = std::to_string(left);
            return (code == 0) == (pin == kPin) ? 0 : -1;
        });
    }

    HANDLE journal_;
    std::mt19937 random_;
    std::vector<VeltraKeyPair> mine_;
    bool triesTheRightPin_;
};

} // namespace

/// The process of the tests below: its threads do so many steps, or with 0 as many as they can.
TEST(TokenWorker, DISABLED_Works) {
    std::istringstream arguments(veltra::test::argumentOfThisChild());
    std::string path;
    unsigned seed = 0;
    unsigned threadCount = 0;
    int steps = 0;
    arguments >> path >> seed >> threadCount >> steps;
    HANDLE journal = CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
    const bool endless = steps == 0;
    unsigned char byte = 0;
    veltra_generateRamdomNumber("", 1, &byte, true, nullptr); // the first one takes long
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < threadCount; ++i) {
        threads.emplace_back([=] {
            Worker worker(journal, seed + i, endless ? keyPairs(kSerial) : std::vector<VeltraKeyPair>(),
                          endless);
            for (int step = 0; endless || step < steps; ++step)
                worker.step();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    ExitProcess(0);
}

namespace {

class WorkerProcess {
public:
    WorkerProcess(fs::path journal, unsigned seed, int threads, int steps)
        : journal_(std::move(journal)),
          process_("TokenWorker.DISABLED_Works", journal_.string() + " " + std::to_string(seed) + " " +
                                                     std::to_string(threads) + " " + std::to_string(steps)) {}

    /// Kills it a moment after it has written so many lines.
    void killAfter(std::size_t lines, DWORD milliseconds) {
        const ULONGLONG start = GetTickCount64();
        while (journal().size() < lines && process_.exitCodeWithin(1) == STILL_ACTIVE) {
            if (GetTickCount64() - start > kPatience) {
                ADD_FAILURE() << "it hangs";
                break;
            }
        }
        Sleep(milliseconds);
        process_.kill();
    }

    void waitForEnd() const { EXPECT_EQ(process_.exitCodeWithin(kPatience), 0u); }

    [[nodiscard]] std::vector<std::string> journal() const {
        std::vector<std::string> lines;
        std::ifstream file(journal_);
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }

private:
    fs::path journal_;
    veltra::test::ChildProcess process_;
};

/// What the token must hold according to the journals.
struct Expectation {
    std::set<std::string> keys; ///< of both kinds
    std::uint32_t attempts = kMaxAttempts;
    std::string begun, about; ///< the operation whose result was not reported

    void replay(const std::vector<std::string>& journal) {
        for (const std::string& entry : journal) {
            std::istringstream words(entry);
            std::string what, operation;
            words >> what >> operation >> about;
            EXPECT_TRUE(what == "begin" || what == "done") << entry;
            begun = what == "begin" ? operation : "";
            if (what == "begin") continue;
            if (operation == "generate" || operation == "import") keys.insert(about);
            if (operation == "delete") keys.erase(about);
            if (operation == "wrong-pin") --attempts;
            if (operation == "right-pin") attempts = kMaxAttempts;
        }
    }

    /// Compares with the token on disk, where the operation whose result is not known may have happened or
    /// not, and goes on from there.
    void check() {
        SCOPED_TRACE("unknown: " + begun + " " + about);
        std::set<std::string> found;
        for (const VeltraKeyPair& key : keyPairs(kSerial)) {
            found.insert(toHex(key.keyId));
            EXPECT_EQ(sign(kSerial, key.keyId, kNoPin, Bytes(32), 64, SignatureScheme::Pkcs1).size(), 64u);
        }
        for (const VeltraSymmetricKey& key : aesKeys(kSerial))
            found.insert(toHex(key.keyId));
        std::vector<std::string> lost, surplus;
        std::ranges::set_difference(keys, found, std::back_inserter(lost));
        std::ranges::set_difference(found, keys, std::back_inserter(surplus));
        if (begun == "delete") std::erase(lost, about);
        EXPECT_THAT(lost, testing::IsEmpty());
        EXPECT_LE(surplus.size(), begun == "generate" || begun == "import" ? 1u : 0u)
            << "something is there that was deleted or never made";

        const std::uint32_t left = attemptsOnDisk();
        const bool counted = left + 1 == attempts && (begun == "wrong-pin" || begun == "right-pin");
        EXPECT_TRUE(left == attempts || counted || (left == kMaxAttempts && begun == "right-pin"))
            << left << " instead of " << attempts;
        keys = found;
        attempts = left;
        begun.clear();
    }
};

int numberFromEnvironment(const char* name, int otherwise) {
    const char* text = std::getenv(name);
    return text == nullptr ? otherwise : std::atoi(text);
}

} // namespace

class WorkerTest : public SoftTokenTest {
protected:
    WorkerTest() {
        deleteToken(TokenFolder(kSerial));
        create(kSerial, kMaxAttempts);
        std::uint32_t left = 0;
        softtoken::logIn(kSerial, kPin, 3600, left);
    }

    [[nodiscard]] WorkerProcess start(unsigned seed, int threads, int steps) const {
        return {home_ / (".journal" + std::to_string(seed)), seed, threads, steps};
    }

    std::ptrdiff_t temporaryFiles() const {
        const fs::recursive_directory_iterator all(home_);
        return std::ranges::count_if(all, [](const auto& it) { return it.path().extension() == ".tmp"; });
    }

    Expectation expected_;
};

// VELTRA_KILLS and VELTRA_KILL_SEED repeat it with other numbers.
TEST_F(WorkerTest, KillingAProcessLosesNothingThatItReportedAndWinsNoPinAttempt) {
    const int kills = numberFromEnvironment("VELTRA_KILLS", 20);
    const auto seed = static_cast<unsigned>(numberFromEnvironment("VELTRA_KILL_SEED", 20261));
    std::mt19937 random(seed);
    std::map<std::string, int> cut;
    std::size_t reported = 0;
    std::ptrdiff_t leftBehind = 0;
    for (int i = 0; i < kills && !HasFailure(); ++i) {
        SCOPED_TRACE(testing::Message() << "kill " << i << " of seed " << seed);
        WorkerProcess worker = start(static_cast<unsigned>(random()), 1, 0);
        worker.killAfter(1 + random() % 16, random() % 20);
        expected_.replay(worker.journal());
        reported += worker.journal().size() / 2;
        ++cut[expected_.begun];
        leftBehind += temporaryFiles();
        expected_.check();
    }
    std::printf("%d kills with seed %u, %zu operations reported, %td temporary files; in the middle of",
                kills, seed, reported, leftBehind);
    for (const auto& [operation, count] : cut)
        std::printf(" %s: %d", operation.empty() ? "nothing" : operation.c_str(), count);
    std::printf("\n");
    static_cast<void>(TokenFolder(kSerial).lock());
    EXPECT_EQ(temporaryFiles(), 0) << "the next to modify the token clears them away";
}

TEST_F(WorkerTest, ProcessesAndTheirThreadsShareAToken) {
    const WorkerProcess workers[] = {start(1, 2, 12), start(3, 2, 12)};
    for (const WorkerProcess& worker : workers) {
        worker.waitForEnd();
        expected_.replay(worker.journal());
    }
    EXPECT_FALSE(expected_.keys.empty());
    EXPECT_LT(expected_.attempts, kMaxAttempts);
    expected_.check();
}

} // namespace veltra::softtoken::test
