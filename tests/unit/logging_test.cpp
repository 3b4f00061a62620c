#include "support/blob_bytes.h"
#include "support/provider_test.h"

#include "csp/csp_entry_points.h"
#include "foundation/utils.h"
#include "foundation/win_handle.h"
#include "ksp/ksp_entry_points.h"
#include "token/device_monitor.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <ctime>
#include <iomanip>
#include <sstream>

namespace veltra::test {
namespace {

class LoggingTest : public ProviderTest {
protected:
    std::vector<std::string> writeOneOfEach() {
        Utils::debug("a debug line");
        Utils::error("an error line");
        return takeLogLines();
    }
};

const std::string kDebugLine = "DEBUG a debug line";
const std::string kErrorLine = "ERROR an error line";

TEST_F(LoggingTest, LevelIsTheFirstWordOfAValueOfAnyTypeUpTo32Bytes) {
    const auto expectLines = [&](const std::vector<std::string>& expected, DWORD level,
                                 std::size_t length = 4, DWORD type = REG_BINARY) {
        SCOPED_TRACE(level);
        removeLog();
        takeRawLogLines();
        Bytes value = littleEndian(level);
        value.resize(length, 'x');
        RegSetKeyValueA(HKEY_LOCAL_MACHINE, kLogSettingsKey, kLogLevelValue, type, value.data(),
                        static_cast<DWORD>(length));
        EXPECT_EQ(writeOneOfEach(), expected);
        EXPECT_EQ(logFiles().empty(), expected.empty()) << "silence does not even make the file";
    };
    const std::vector<std::string> both = {kDebugLine, kErrorLine}, error = {kErrorLine};
    expectLines({}, 0, 4, REG_DWORD);
    expectLines({}, 1, 32);
    expectLines(error, 1, 33); // as without a value
    expectLines(error, 2);
    expectLines(both, 3, 8, REG_QWORD);
    expectLines(error, 4);
    expectLines(error, 0xFFFFFFFF);
    expectLines(error, '3', 2, REG_SZ);
    removeLogLevel();
    EXPECT_EQ(writeOneOfEach(), error);
    for (int round = 0; round < 2; ++round) { // the key is kept open between the lines
        RegDeleteKeyA(HKEY_LOCAL_MACHINE, kLogSettingsKey);
        EXPECT_EQ(writeOneOfEach(), error);
        setLogLevel(3);
        EXPECT_EQ(writeOneOfEach(), both);
    }
}

TEST_F(LoggingTest, LineAndFileNameHaveTheirForm) {
    const auto now = [](const char* format) {
        const std::time_t seconds = std::time(nullptr);
        std::ostringstream text;
        text << std::put_time(std::localtime(&seconds), format);
        return text.str();
    };
    const std::string before = now("%d/%m::%H:%M");
    Utils::error("CPAcquireContext: \xE2\x80\x94 text");
    Utils::debug("");
    std::vector<std::string> lines = takeRawLogLines();
    EXPECT_THAT(lines.at(0).substr(0, 12), testing::AnyOf(before, now("%d/%m::%H:%M")));
    for (std::string& line : lines)
        std::ranges::replace_if(
            line, [](char letter) { return letter >= '0' && letter <= '9'; }, '9');
    EXPECT_THAT(lines, ElementsAre("99/99::99:99:99:999-> ->ERROR ::=>CPAcquireContext: \xE2\x80\x94 text",
                                   "99/99::99:99:99:999-> ->DEBUG ::=>"));
    EXPECT_THAT(logFiles(),
                ElementsAre(temporaryFolder() + R"(Quenmark\veltra_unit_tests\)" + now("%Y-%m-%d.LOG")));
}

TEST_F(LoggingTest, WritesWhileAnotherHasTheFileOpenAndShares) {
    Utils::error("make the file");
    takeLogLines();
    const std::string file = logFiles().at(0);
    for (const DWORD shared : {FILE_SHARE_READ | FILE_SHARE_WRITE, 0}) {
        const UniqueHandle other =
            ownFile(CreateFileA(file.c_str(), GENERIC_READ, shared, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(other);
        Utils::error("kept or lost");
    }
    EXPECT_THAT(takeLogLines(), ElementsAre("ERROR kept or lost"));
    EXPECT_FALSE(Utils::isFolderExists(file.c_str()));
    std::array<char, 5> small = {"full"};
    EXPECT_EQ(Utils::getLogBaseFolderPath(small.data(), small.size()), -1);
    EXPECT_STREQ(small.data(), "");
}

/// Success and refusal in both front ends: results and last errors.
std::vector<DWORD> answersOfBothFrontEnds() {
    std::vector<DWORD> answers;
    const auto note = [&](auto result) {
        answers.insert(answers.end(), {static_cast<DWORD>(result), GetLastError()});
    };
    HCRYPTPROV context = 0;
    const auto table = reinterpret_cast<VTableProvStruc*>(&context); // nobody looks at more
    NCRYPT_PROV_HANDLE provider = 0;
    SetLastError(kUntouched);
    note(CPAcquireContext(&context, nullptr, CRYPT_VERIFYCONTEXT, table));
    note(CPGetProvParam(context, 0xFFFF, nullptr, nullptr, 0));
    note(CPReleaseContext(context, 0));
    note(KSPOpenProvider(&provider, nullptr, 0));
    note(KSPFreeProvider(provider));
    note(KSPFreeProvider(0)); // not the old one: another thread may have been given it meanwhile
    return answers;
}

// A full disk: e2e/containers.sh.
TEST_F(LoggingTest, NoFaultOfTheLogReachesTheCaller) {
    const std::vector<DWORD> expected = answersOfBothFrontEnds();
    const std::string home = temporaryFolder(), file = logFiles().at(0).substr(home.size());
    // With a temporary folder that is unfit for the log.
    const auto expectAnswers = [&](const std::string& folder,
                                   const char* complaint = "\nUnable to write log") {
        stopDeviceMonitor(); // which the last answers started, and which would write a line in between
        testing::internal::CaptureStdout();
        SetEnvironmentVariableA("TMP", folder.c_str());
        const ULONGLONG begin = GetTickCount64();
        EXPECT_EQ(answersOfBothFrontEnds(), expected);
        EXPECT_LT(GetTickCount64() - begin, 1000u);
        EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr(complaint));
        SetEnvironmentVariableA("TMP", home.c_str());
        takeLogLines();
        EXPECT_THAT(writeOneOfEach(), ElementsAre(kDebugLine, kErrorLine)) << "the next line is written";
    };
    std::string folderInstead = home + "taken\\" + file;
    std::ranges::replace(folderInstead, '\\', '/');
    Utils::createFolderPath(folderInstead);
    expectAnswers(home + "taken");
    CreateDirectoryA((home + "without").c_str(), nullptr);
    const std::string fileInstead = home + "without\\Quenmark";
    CloseHandle(CreateFileA(fileInstead.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    expectAnswers(home + "without");
    expectAnswers("Z:\\proc"); // read-only
    // Without a temporary folder the log goes to the root of the drive, where nothing is left behind.
    expectAnswers("Z:\\missing", "\nUnable to getLogBaseFolderPath");
    DeleteFileA(("/" + file).c_str());
    RemoveDirectoryA("/Quenmark/veltra_unit_tests");
    RemoveDirectoryA("/Quenmark");
}

TEST_F(LoggingTest, LevelMayChangeAtAnyTime) {
    const std::vector<DWORD> expected = answersOfBothFrontEnds();
    std::atomic<int> number = 0;
    runOnThreads(3, [&] {
        const bool changes = number++ == 0;
        for (DWORD round = 0; round < (changes ? 1000u : 50u); ++round) {
            if (!changes) {
                EXPECT_EQ(answersOfBothFrontEnds(), expected);
            } else if (round % 7 == 6) {
                removeLogLevel();
            } else {
                setLogLevel(round % 7);
            }
        }
    });
}

} // namespace
} // namespace veltra::test
