// Processes that are killed while they use a token, and several that use one at once.

#include "softtoken_test.h"

#include "contract_records.h"
#include "foundation/windows.h"
#include "token_operations.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <map>
#include <random>
#include <set>
#include <sstream>

namespace veltra::softtoken::test {

namespace {

/// A running veltra_token_worker.exe, and what it wrote down.
class WorkerProcess {
public:
    WorkerProcess(const char* serial, unsigned seed, int threads, int operations) {
        SECURITY_ATTRIBUTES inherited{sizeof(inherited), nullptr, TRUE};
        HANDLE output = nullptr;
        EXPECT_TRUE(CreatePipe(&journal_, &output, &inherited, 1 << 20));
        SetHandleInformation(journal_, HANDLE_FLAG_INHERIT, 0);
        STARTUPINFOW start{};
        start.cb = sizeof(start);
        start.dwFlags = STARTF_USESTDHANDLES;
        start.hStdOutput = start.hStdError = output;
        std::wostringstream command;
        command << L"veltra_token_worker.exe " << serial << ' ' << seed << ' ' << threads << ' '
                << operations;
        std::wstring line = command.str();
        PROCESS_INFORMATION process{};
        EXPECT_TRUE(CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &start,
                                   &process));
        CloseHandle(process.hThread);
        CloseHandle(output);
        process_ = process.hProcess;
    }
    WorkerProcess(const WorkerProcess&) = delete;
    WorkerProcess& operator=(const WorkerProcess&) = delete;
    ~WorkerProcess() {
        CloseHandle(process_);
        CloseHandle(journal_);
    }

    /// Kills the process a moment after it has written so many lines.
    void killAfter(std::ptrdiff_t lines, std::chrono::microseconds delay) {
        while (std::ranges::count(text_, '\n') < lines && read()) {
        }
        const auto end = std::chrono::steady_clock::now() + delay;
        while (std::chrono::steady_clock::now() < end) {
        }
        terminate();
    }

    /// The whole lines until its end.
    std::vector<std::string> journal() {
        while (read()) {
        }
        std::vector<std::string> lines;
        std::size_t start = 0;
        for (std::size_t end = text_.find('\n'); end != std::string::npos; end = text_.find('\n', start)) {
            lines.push_back(text_.substr(start, end - start));
            start = end + 1;
        }
        return lines;
    }

private:
    void terminate() {
        TerminateProcess(process_, 99);
        EXPECT_EQ(WaitForSingleObject(process_, kSilenceLimitMs), WAIT_OBJECT_0) << "it cannot be killed";
    }

    /// False at its end. A process that says nothing for too long fails the test and is killed.
    bool read() {
        const ULONGLONG start = GetTickCount64();
        DWORD length = 0;
        while (PeekNamedPipe(journal_, nullptr, 0, nullptr, &length, nullptr) && length == 0) {
            if (GetTickCount64() - start > kSilenceLimitMs) {
                ADD_FAILURE() << "process " << GetProcessId(process_) << " hangs after\n" << text_;
                terminate();
                return false;
            }
            Sleep(1);
        }
        char buffer[4096];
        const bool more = length > 0 && ReadFile(journal_, buffer, sizeof(buffer), &length, nullptr) != 0;
        if (more) text_.append(buffer, length);
        return more;
    }

    static constexpr DWORD kSilenceLimitMs = 60'000;

    HANDLE process_ = nullptr;
    HANDLE journal_ = nullptr;
    std::string text_;
};

/// What the token must hold according to the journals.
struct Expectation {
    std::set<std::string> keys, aesKeys;
    std::string certified;            ///< the key that has the certificate
    std::size_t certificateCount = 0; ///< 2 after a kill between storing the new one and removing the old one
    std::uint32_t attempts;
    std::string begun, about; ///< the operation whose result was not reported

    void replay(const std::vector<std::string>& journal) {
        for (const std::string& entry : journal) {
            std::istringstream words(entry);
            std::string what, operation, detail;
            words >> what >> operation >> detail;
            EXPECT_TRUE(what == "begin" || what == "done") << entry;
            begun = what == "begin" ? operation : "";
            about = detail;
            if (what == "begin") continue;
            if (operation == "generate") keys.insert(detail);
            if (operation == "delete") keys.erase(detail);
            if (operation == "aes") aesKeys.insert(detail);
            if (operation == "certificate") {
                certified = detail;
                certificateCount = 1;
            }
            if (operation == "wrong-pin") --attempts;
            if (operation == "right-pin") attempts = kMaxAttempts;
        }
    }

    /// Compares with the token on disk, where the operation whose result is not known may have happened or
    /// not, and goes on from there.
    void check() {
        SCOPED_TRACE("unknown: " + begun + " " + about);
        compare(keys, idsOf(keyPairs(kSerial)), begun == "generate", begun == "delete" ? about : "");
        compare(aesKeys, idsOf(softtoken::aesKeys(kSerial)), begun == "aes", "");
        for (const VeltraKeyPair& key : keyPairs(kSerial))
            EXPECT_EQ(softtoken::sign(kSerial, key.keyId, "", Bytes(32), 64, SignatureScheme::Pkcs1).size(),
                      64u);

        const std::set<std::string> owners = idsOf(certificates(kSerial));
        const bool moving = begun == "certificate";
        EXPECT_TRUE(owners.contains(certified) || certified.empty() || (moving && owners.contains(about)));
        EXPECT_LE(owners.size(), certificateCount + (moving ? 1 : 0));
        certificateCount = owners.size();
        if (owners.contains(about) && moving) certified = about;

        const std::uint32_t left = attemptsOnDisk();
        const bool counted = left + 1 == attempts && (begun == "wrong-pin" || begun == "right-pin");
        EXPECT_TRUE(left == attempts || counted || (left == kMaxAttempts && begun == "right-pin"))
            << left << " instead of " << attempts;
        attempts = left;
        begun.clear();
    }

private:
    template <class Records>
    static std::set<std::string> idsOf(const Records& records) {
        std::set<std::string> ids;
        for (const auto& record : records)
            ids.insert(toHex(record.keyId));
        EXPECT_EQ(ids.size(), records.size());
        return ids;
    }

    /// Everything that is expected is there but perhaps `doubtful`, and nothing else but perhaps one `more`.
    static void compare(std::set<std::string>& expected, const std::set<std::string>& found, bool more,
                        const std::string& doubtful) {
        for (const std::string& id : expected)
            EXPECT_TRUE(found.contains(id) || id == doubtful) << id << " is lost";
        std::size_t surplus = 0;
        for (const std::string& id : found)
            surplus += expected.contains(id) ? 0 : 1;
        EXPECT_LE(surplus, more ? 1u : 0u) << "something is there that was deleted or never made";
        expected = found;
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
        expected_.attempts = kMaxAttempts;
    }

    std::size_t temporaryFiles() const {
        const std::filesystem::recursive_directory_iterator all(home_);
        return static_cast<std::size_t>(
            std::ranges::count_if(all, [](const auto& it) { return it.path().extension() == ".tmp"; }));
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
    std::size_t leftBehind = 0;
    for (int i = 0; i < kills && !HasFailure(); ++i) {
        SCOPED_TRACE(testing::Message() << "kill " << i << " of seed " << seed);
        WorkerProcess worker(kSerial, static_cast<unsigned>(random()), 1, 0);
        worker.killAfter(1 + static_cast<std::ptrdiff_t>(random() % 16),
                         std::chrono::microseconds(random() % 20'000));
        const std::vector<std::string> journal = worker.journal();
        expected_.replay(journal);
        reported += journal.size() / 2;
        ++cut[expected_.begun];
        leftBehind += temporaryFiles();
        expected_.check();
    }
    std::printf("%d kills with seed %u, %zu operations reported, %zu temporary files; in the middle of",
                kills, seed, reported, leftBehind);
    for (const auto& [operation, count] : cut)
        std::printf(" %s: %d", operation.empty() ? "nothing" : operation.c_str(), count);
    std::printf("\n");
    static_cast<void>(TokenFolder(kSerial).lock());
    EXPECT_EQ(temporaryFiles(), 0u) << "the next to modify the token clears them away";
}

TEST_F(WorkerTest, ProcessesAndTheirThreadsShareAToken) {
    WorkerProcess first(kSerial, 1, 2, 12);
    WorkerProcess second(kSerial, 3, 2, 12);
    expected_.replay(first.journal());
    expected_.replay(second.journal());
    EXPECT_FALSE(expected_.keys.empty());
    EXPECT_LT(expected_.attempts, kMaxAttempts);
    expected_.certified.clear(); // which of them was the last to store it is not written down
    expected_.begun.clear();
    expected_.check();
}

} // namespace veltra::softtoken::test
