// Processes that are killed while they use a token, and several that use one at once.

#include "softtoken_test.h"

#include "lifecycle/child_process.h"
#include "support/log_file.h"

#include <random>
#include <set>
#include <sstream>
#include <thread>

namespace veltra::softtoken::test {

namespace {

constexpr const char* kNoPin = ""; // the session knows it
constexpr DWORD kPatience = 60'000;

/// Uses the token as a program does, in its single-sign-on session, for so many steps, or with 0 until it is
/// killed; then nobody else uses it. Writes into a journal what it is about to do and what came of it: "begin
/// OPERATION KEY", then "done OPERATION KEY" or "failed OPERATION KEY".
void work(HANDLE journal, unsigned seed, int steps) {
    std::mt19937 random(seed);
    const bool isAlone = steps == 0;
    std::vector<VeltraKeyPair> mine = isAlone ? keyPairs(kSerial) : std::vector<VeltraKeyPair>();
    // In one piece, and at once: a process that is killed keeps no buffer.
    const auto say = [&](const std::string& what, const std::string& operation, const std::string& key) {
        const std::string line = what + " " + operation + " " + key + "\n";
        DWORD written = 0;
        WriteFile(journal, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
    };
    // `call` throws when it fails and may change which key is written down.
    const auto attempt = [&](const char* operation, std::string key, auto call) {
        say("begin", operation, key);
        const Failure failure = failureOf([&] { call(key); });
        say(failure == kNoFailure ? "done" : "failed", operation, key);
    };
    for (int step = 0; isAlone || step < steps; ++step) {
        const unsigned choice = random() % 16;
        if (mine.size() < 2 || (choice < 6 && mine.size() < 7)) {
            attempt("generate", "-", [&](std::string& id) {
                VeltraKeyPair& made = mine.emplace_back();
                made.keyType = kKeyTypeEcP256;
                generateKeyPair(kSerial, kNoPin, made);
                id = toHex(made.keyId);
            });
            continue;
        }
        const auto chosen = mine.begin() + static_cast<std::ptrdiff_t>(random() % mine.size());
        const VeltraKeyPair key = *chosen;
        const std::string id = toHex(key.keyId);
        if (choice < 9) {
            mine.erase(chosen);
            attempt("delete", id, [&](auto&) { deleteKeyPair(kSerial, key.keyId, kNoPin); });
        } else if (choice == 9) {
            attempt("import", "-", [&](std::string& made) {
                VeltraSymmetricKey aesKey{};
                aesKey.keyLength = 32;
                importAesKey(kSerial, kNoPin, aesKey);
                made = toHex(aesKey.keyId);
            });
        } else if (choice < 12) {
            attempt("rename", id, [&](auto&) { renameKeyPair(kSerial, key.keyId, kNoPin, "renamed"); });
        } else {
            const bool right = choice == 15 && isAlone;
            attempt(right ? "right-pin" : "wrong-pin", "-", [&](auto&) {
                const Failure code = failureOf([&] { logIn(right ? kPin : kWrongPin); });
                if (code != (right ? kNoFailure : Failure::WrongPin)) throw TokenError(code, "unexpected");
            });
        }
    }
}

} // namespace

/// The process of the tests below, with two threads when it takes so many steps.
TEST(TokenWorker, DISABLED_Works) {
    std::istringstream arguments(veltra::test::argumentOfThisChild());
    std::string path;
    unsigned seed = 0;
    int steps = 0;
    arguments >> path >> seed >> steps;
    HANDLE journal = CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                 FILE_ATTRIBUTE_NORMAL, nullptr);
    randomBytes(1); // the first one takes long
    std::thread other([=] {
        if (steps != 0) work(journal, seed + 1, steps);
    });
    work(journal, seed, steps);
    other.join();
    ExitProcess(0);
}

/// A token with a session for all processes, and what it must hold according to the journals of those that
/// used it.
class WorkerTest : public SoftTokenTest {
protected:
    WorkerTest() {
        deleteToken(TokenFolder(kSerial));
        create(kSerial, kMaxAttempts);
        std::uint32_t left = 0;
        softtoken::logIn(kSerial, kPin, 3600, left);
    }

    /// What makes a process write into the journal.
    static std::string argument(const fs::path& journal, unsigned seed, int steps) {
        return journal.string() + " " + std::to_string(seed) + " " + std::to_string(steps);
    }

    static std::vector<std::string> linesOf(const fs::path& journal) {
        return veltra::test::linesOf(veltra::test::readFile(journal.string()));
    }

    void replay(const fs::path& journal) {
        for (const std::string& line : linesOf(journal)) {
            std::istringstream words(line);
            std::string what, operation;
            words >> what >> operation >> key_;
            EXPECT_TRUE(what == "begin" || what == "done") << line;
            begun_ = what == "begin" ? operation : "";
            if (what == "begin") continue;
            if (operation == "generate" || operation == "import") keys_.insert(key_);
            if (operation == "delete") keys_.erase(key_);
            if (operation == "wrong-pin") --attempts_;
            if (operation == "right-pin") attempts_ = kMaxAttempts;
        }
    }

    /// Compares with the token on disk, where the operation whose result is not known may have happened or
    /// not, and goes on from there.
    void check() {
        SCOPED_TRACE("unknown: " + begun_ + " " + key_);
        std::set<std::string> found;
        for (const VeltraKeyPair& key : keyPairs(kSerial)) {
            found.insert(toHex(key.keyId));
            EXPECT_EQ(sign(key, kNoPin).size(), 64u);
        }
        for (const VeltraSymmetricKey& key : aesKeys(kSerial))
            found.insert(toHex(key.keyId));
        if (begun_ == "delete" && !found.contains(key_)) keys_.erase(key_);
        EXPECT_THAT(found, testing::IsSupersetOf(keys_));
        EXPECT_LE(found.size(), keys_.size() + (begun_ == "generate" || begun_ == "import" ? 1 : 0))
            << "something is there that was deleted or never made";

        const std::uint32_t left = attemptsOnDisk();
        const bool counted = left + 1 == attempts_ && begun_.ends_with("-pin");
        EXPECT_TRUE(left == attempts_ || counted || (left == kMaxAttempts && begun_ == "right-pin"))
            << left << " instead of " << attempts_;
        keys_ = found;
        attempts_ = left;
        begun_.clear();
    }

    std::set<std::string> keys_; ///< of both kinds
    std::uint32_t attempts_ = kMaxAttempts;
    std::string begun_, key_; ///< the operation whose result was not reported
};

// VELTRA_KILLS repeats it with another number.
TEST_F(WorkerTest, KillingAProcessLosesNothingThatItReportedAndWinsNoPinAttempt) {
    const char* wanted = std::getenv("VELTRA_KILLS");
    const int kills = wanted == nullptr ? 20 : std::atoi(wanted);
    std::mt19937 random(20261);
    for (int i = 0; i < kills && !HasFailure(); ++i) {
        SCOPED_TRACE(testing::Message() << "kill " << i);
        const fs::path journal = home_ / (".journal" + std::to_string(i));
        const veltra::test::ChildProcess worker("TokenWorker.DISABLED_Works",
                                                argument(journal, static_cast<unsigned>(random()), 0));
        const ULONGLONG end = GetTickCount64() + kPatience;
        for (const std::size_t lines = 1 + random() % 16; linesOf(journal).size() < lines;)
            ASSERT_TRUE(worker.exitCodeWithin(1) == STILL_ACTIVE && GetTickCount64() < end);
        Sleep(random() % 20);
        worker.kill();
        replay(journal);
        check();
    }
    static_cast<void>(TokenFolder(kSerial).lock());
    for (const auto& entry : fs::recursive_directory_iterator(home_))
        EXPECT_NE(entry.path().extension(), kTemporaryExtension) << "the next writer clears them away";
}

TEST_F(WorkerTest, ProcessesAndTheirThreadsShareAToken) {
    const fs::path journals[] = {home_ / ".journal1", home_ / ".journal3"};
    const veltra::test::ChildProcess first("TokenWorker.DISABLED_Works", argument(journals[0], 1, 12));
    const veltra::test::ChildProcess second("TokenWorker.DISABLED_Works", argument(journals[1], 3, 12));
    // Whoever reads meanwhile sees old files or new ones, no halves.
    setReporter([](const char* line) { ADD_FAILURE() << line; });
    const ULONGLONG end = GetTickCount64() + kPatience;
    while (second.exitCodeWithin(1) == STILL_ACTIVE && GetTickCount64() < end)
        keyPairs(kSerial);
    setReporter([](const char*) {});
    EXPECT_EQ(first.exitCodeWithin(kPatience) + second.exitCodeWithin(0), 0u);
    for (const fs::path& journal : journals)
        replay(journal);
    EXPECT_FALSE(keys_.empty());
    EXPECT_LT(attempts_, kMaxAttempts);
    check();
}

} // namespace veltra::softtoken::test
