#include "support/log_file.h"
#include "support/provider_test.h"

#include "foundation/utils.h"

#include <algorithm>
#include <array>

namespace veltra::test {
namespace {

class LoggingTest : public ProviderTest {
protected:
    ~LoggingTest() override { setLogLevel(3); }

    std::vector<std::string> writeOneOfEach() {
        Utils::debug("a debug line");
        Utils::error("an error line");
        return takeLogLines();
    }
};

template <class... Fields>
std::string formatted(const char* format, Fields... fields) {
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), format, fields...);
    return text.data();
}

const std::string kDebugLine = "DEBUG a debug line";
const std::string kErrorLine = "ERROR an error line";

TEST_F(LoggingTest, EachLevelWritesItsLines) {
    const std::pair<DWORD, std::vector<std::string>> kRows[] = {
        {0, {}},           {1, {}},           {2, {kErrorLine}},           {3, {kDebugLine, kErrorLine}},
        {4, {kErrorLine}}, {5, {kErrorLine}}, {0xFFFFFFFFu, {kErrorLine}},
    };
    for (const auto& [level, expected] : kRows) {
        SCOPED_TRACE(level);
        removeLog();
        takeRawLogLines();
        setLogLevel(level);
        EXPECT_EQ(writeOneOfEach(), expected);
        EXPECT_EQ(logFiles().empty(), expected.empty()) << "silence does not even make the file";
    }
    removeLogLevel();
    EXPECT_THAT(writeOneOfEach(), ElementsAre(kErrorLine));
}

TEST_F(LoggingTest, LevelIsTheFirstWordOfAnyValueTypeUpTo32Bytes) {
    struct Row {
        DWORD type;
        std::string data;
        std::vector<std::string> expected;
    };
    const std::string three("\3\0\0\0", 4);
    const std::string one("\1\0\0\0", 4);
    const Row kRows[] = {
        {REG_BINARY, three, {kDebugLine, kErrorLine}},
        {REG_QWORD, three + std::string(4, '\0'), {kDebugLine, kErrorLine}},
        {REG_BINARY, one + std::string(28, 'x'), {}},
        {REG_BINARY, one + std::string(29, 'x'), {kErrorLine}},
        {REG_SZ, "3", {kErrorLine}},
    };
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.type);
        RegSetKeyValueA(HKEY_LOCAL_MACHINE, R"(Software\Quenmark\Veltra)", "logLevel", row.type,
                        row.data.data(), static_cast<DWORD>(row.data.size()));
        EXPECT_EQ(writeOneOfEach(), row.expected);
    }
}

TEST_F(LoggingTest, LineAndFileNameHaveTheirForm) {
    SYSTEMTIME before{};
    SYSTEMTIME after{};
    GetLocalTime(&before);
    Utils::error("CPAcquireContext: \xE2\x80\x94 text");
    Utils::debug("");
    GetLocalTime(&after);
    auto lines = takeRawLogLines();
    ASSERT_THAT(lines, SizeIs(2));
    const auto stamp = [](const SYSTEMTIME& time) {
        return formatted("%02u/%02u::%02u:%02u", time.wDay, time.wMonth, time.wHour, time.wMinute);
    };
    EXPECT_THAT(lines[0].substr(0, 12), testing::AnyOf(stamp(before), stamp(after)));
    for (std::string& line : lines)
        std::replace_if(
            line.begin(), line.end(), [](char letter) { return letter >= '0' && letter <= '9'; }, '9');
    EXPECT_THAT(lines, ElementsAre("99/99::99:99:99:999-> ->ERROR ::=>CPAcquireContext: \xE2\x80\x94 text",
                                   "99/99::99:99:99:999-> ->DEBUG ::=>"));
    const std::string date = formatted("%04u-%02u-%02u", before.wYear, before.wMonth, before.wDay);
    EXPECT_THAT(logFiles(), ElementsAre(temporaryFolder() + "Quenmark\\veltra_unit_tests\\" + date + ".LOG"));
    EXPECT_EQ(Utils::getProcessName(), "veltra_unit_tests");
}

TEST_F(LoggingTest, MessageIsTakenOverAndTheCallersLastErrorKept) {
    for (const DWORD level : {1u, 3u}) {
        setLogLevel(level);
        std::string message = "some text that is long enough to live on the heap";
        SetLastError(1234);
        Utils::debug(std::move(message));
        EXPECT_EQ(GetLastError(), 1234u);
        EXPECT_EQ(message, "");
    }
}

TEST_F(LoggingTest, WritesWhileAnotherHoldsTheFile) {
    Utils::error("make the file");
    HANDLE other = CreateFileA(logFiles().at(0).c_str(), GENERIC_READ | GENERIC_WRITE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(other, INVALID_HANDLE_VALUE);
    takeLogLines();
    EXPECT_THAT(writeOneOfEach(), ElementsAre(kDebugLine, kErrorLine));
    CloseHandle(other);
    other = CreateFileA(logFiles().at(0).c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(other, INVALID_HANDLE_VALUE);
    Utils::error("lost");
    CloseHandle(other);
    EXPECT_THAT(takeLogLines(), IsEmpty()) << "lost where nobody else may open it, and no more";
}

TEST_F(LoggingTest, LinesOfManyThreadsAreWhole) {
    constexpr int kThreads = 8;
    constexpr int kLines = 40;
    const std::string text(50, 'x');
    runOnThreads(kThreads, [&] {
        for (int i = 0; i < kLines; ++i)
            Utils::error(std::string(text));
    });
    // Under Wine an append is a seek and a write, so that lines of equal length may cover each other.
    EXPECT_THAT(takeLogLines(), testing::AllOf(SizeIs(testing::Ge(kLines)), testing::Each("ERROR " + text)));
}

TEST_F(LoggingTest, FolderQuestionsTakeOnlyFoldersForFolders) {
    Utils::error("make the file");
    ASSERT_THAT(logFiles(), SizeIs(1));
    const std::string file = logFiles()[0];
    EXPECT_FALSE(Utils::isFolderExists(file.c_str()));
    EXPECT_FALSE(Utils::isFolderExists("C:\\no such folder"));
    EXPECT_TRUE(Utils::isFolderExists(temporaryFolder().c_str()));

    std::array<char, 1024> buffer{};
    EXPECT_EQ(Utils::getLogBaseFolderPath(buffer.data(), buffer.size()), 0);
    EXPECT_EQ(buffer.data(), temporaryFolder());
    const std::string folder = temporaryFolder();
    for (const std::string& unusable : {file, folder + "missing"}) {
        SetEnvironmentVariableA("TMP", unusable.c_str());
        buffer.fill('x');
        EXPECT_EQ(Utils::getLogBaseFolderPath(buffer.data(), buffer.size()), -1) << unusable;
        EXPECT_STREQ(buffer.data(), "") << unusable;
    }
    SetEnvironmentVariableA("TMP", folder.c_str());
    buffer.fill('x');
    EXPECT_EQ(Utils::getLogBaseFolderPath(buffer.data(), 4), -1) << "a buffer too small for the folder";
    EXPECT_STREQ(buffer.data(), "");
}

TEST_F(LoggingTest, EveryFolderAlongAPathIsCreated) {
    const std::string path = temporaryFolder() + "one/two/three/";
    Utils::createFolderPath(path);
    EXPECT_TRUE(Utils::isFolderExists(path.c_str()));
    EXPECT_EQ(Utils::createFolder(path.c_str()), 0) << "it is there already";
}

} // namespace
} // namespace veltra::test
