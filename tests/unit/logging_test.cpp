#include "support/log_file.h"
#include "support/provider_test.h"

#include "csp/csp_entry_points.h"
#include "foundation/utils.h"
#include "foundation/win_handle.h"
#include "ksp/ksp_entry_points.h"
#include "token/device_monitor.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>

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

// The key is kept open between the lines.
TEST_F(LoggingTest, LevelIsReadFromTheKeyThatIsThereNow) {
    for (int round = 0; round < 2; ++round) {
        RegDeleteKeyA(HKEY_LOCAL_MACHINE, R"(Software\Quenmark\Veltra)");
        EXPECT_THAT(writeOneOfEach(), ElementsAre(kErrorLine));
        setLogLevel(3);
        EXPECT_THAT(writeOneOfEach(), ElementsAre(kDebugLine, kErrorLine));
    }
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

/// A link at `path` to a device that takes no byte: a full disk. Wine only, which runs programs of the host.
void putFullDiskAt(const std::string& path) {
    using UnixName = char*(CDECL*)(const WCHAR*);
    const auto unixName =
        std::bit_cast<UnixName>(GetProcAddress(GetModuleHandleA("kernel32.dll"), "wine_get_unix_file_name"));
    std::array<WCHAR, MAX_PATH> wide{};
    MultiByteToWideChar(CP_ACP, 0, path.c_str(), -1, wide.data(), static_cast<int>(wide.size()));
    std::string command = concat("Z:\\bin\\ln -s /dev/full ", unixName(wide.data()));
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    PROCESS_INFORMATION process{};
    ASSERT_TRUE(CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                               &startup, &process));
    // For a program of the host Wine leaves in `process` what lay there: to close it would close a handle of
    // somebody else. It cannot be waited for either, nor is its link a file that has attributes.
    UniqueHandle link;
    for (int i = 0; i < 500 && !link; ++i) {
        Sleep(10);
        link = ownFile(CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                   OPEN_EXISTING, 0, nullptr));
    }
    EXPECT_TRUE(link);
}

/// Success and refusal in both front ends: results and last errors.
std::vector<DWORD> answersOfBothFrontEnds() {
    std::vector<DWORD> answers;
    const auto note = [&](auto result) {
        answers.insert(answers.end(), {static_cast<DWORD>(result), GetLastError()});
    };
    std::uintptr_t table = 0;
    HCRYPTPROV context = 0;
    NCRYPT_PROV_HANDLE provider = 0;
    SetLastError(kUntouched);
    note(
        CPAcquireContext(&context, nullptr, CRYPT_VERIFYCONTEXT, reinterpret_cast<VTableProvStruc*>(&table)));
    note(CPGetProvParam(context, 0xFFFF, nullptr, nullptr, 0));
    note(CPReleaseContext(context, 0));
    note(KSPOpenProvider(&provider, nullptr, 0));
    note(KSPFreeProvider(provider));
    note(KSPFreeProvider(0)); // not the old one: another thread may have been given it meanwhile
    return answers;
}

TEST_F(LoggingTest, NoFaultOfTheLogReachesTheCaller) {
    struct Row {
        const char* name;
        std::function<void(const std::string& folder, const std::string& file)> arrange;
    };
    const Row kRows[] = {
        {"full disk", [](const auto&, const auto& file) { putFullDiskAt(file); }},
        {"read-only disk", [](const auto&, const auto&) { SetEnvironmentVariableA("TMP", "Z:\\proc"); }},
        {"a file in the place of the folder",
         [](const auto& folder, const auto&) {
             RemoveDirectoryA(folder.c_str());
             CloseHandle(CreateFileA(folder.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
         }},
        {"a folder in the place of the file",
         [](const auto&, const auto& file) { CreateDirectoryA(file.c_str(), nullptr); }},
    };
    const std::vector<DWORD> expected = answersOfBothFrontEnds();
    const std::string file = logFiles().at(0).substr(temporaryFolder().size());
    const std::string folder = file.substr(0, file.find_last_of('\\'));
    const std::string home = temporaryFolder();
    for (const Row& row : kRows) {
        SCOPED_TRACE(row.name);
        stopDeviceMonitor(); // which the last answers started, and which would write a line in between
        const std::string place = home + freshName("faulty") + "\\";
        Utils::createFolderPath(place + "/Quenmark/veltra_unit_tests");
        testing::internal::CaptureStdout();
        SetEnvironmentVariableA("TMP", place.c_str());
        row.arrange(place + folder, place + file);
        const ULONGLONG begin = GetTickCount64();
        EXPECT_EQ(answersOfBothFrontEnds(), expected);
        EXPECT_LT(GetTickCount64() - begin, 1000u);
        EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("\nUnable to write log"));
        SetEnvironmentVariableA("TMP", home.c_str());
        takeLogLines();
        EXPECT_THAT(writeOneOfEach(), ElementsAre(kDebugLine, kErrorLine)) << "the next line is written";
    }
}

// The log then goes to the root of the drive, where the test leaves nothing behind.
TEST_F(LoggingTest, NorDoesAMissingTemporaryFolder) {
    const std::vector<DWORD> expected = answersOfBothFrontEnds();
    const std::string home = temporaryFolder();
    const std::string file = logFiles().at(0).substr(home.size());
    testing::internal::CaptureStdout();
    SetEnvironmentVariableA("TMP", (home + "missing").c_str());
    EXPECT_EQ(answersOfBothFrontEnds(), expected);
    EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("\nUnable to getLogBaseFolderPath"));
    SetEnvironmentVariableA("TMP", home.c_str());
    DeleteFileA(("/" + file).c_str());
    RemoveDirectoryA("/Quenmark/veltra_unit_tests");
    RemoveDirectoryA("/Quenmark");
}

TEST_F(LoggingTest, LevelMayChangeAtAnyTime) {
    const std::vector<DWORD> expected = answersOfBothFrontEnds();
    std::atomic<int> number = 0;
    std::atomic<bool> changing = true;
    runOnThreads(3, [&] {
        const bool changes = number++ == 0;
        for (DWORD round = 0; changes ? changing.load() : round < 50; ++round) {
            if (!changes) {
                EXPECT_EQ(answersOfBothFrontEnds(), expected);
            } else if (round % 7 == 6) {
                removeLogLevel();
            } else {
                setLogLevel(round % 7);
            }
        }
        changing = false;
    });
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
