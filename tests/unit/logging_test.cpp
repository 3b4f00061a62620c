#include "support/blob_bytes.h"
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

constexpr const char* kSettingsKey = R"(Software\Quenmark\Veltra)";
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
        RegSetKeyValueA(HKEY_LOCAL_MACHINE, kSettingsKey, "logLevel", type, value.data(),
                        static_cast<DWORD>(length));
        EXPECT_EQ(writeOneOfEach(), expected);
        EXPECT_EQ(logFiles().empty(), expected.empty()) << "silence does not even make the file";
    };
    const std::vector<std::string> both = {kDebugLine, kErrorLine}, error = {kErrorLine};
    expectLines({}, 0, 4, REG_DWORD);
    expectLines({}, 1);
    expectLines(error, 2, 4, REG_DWORD);
    expectLines(both, 3);
    expectLines(error, 4);
    expectLines(error, 0xFFFFFFFF);
    expectLines(both, 3, 8, REG_QWORD);
    expectLines(error, '3', 2, REG_SZ);
    expectLines({}, 1, 32);
    expectLines(error, 1, 33); // as without a value
    removeLogLevel();
    EXPECT_EQ(writeOneOfEach(), error);
}

// The key is kept open between the lines.
TEST_F(LoggingTest, LevelIsReadFromTheKeyThatIsThereNow) {
    for (int round = 0; round < 2; ++round) {
        RegDeleteKeyA(HKEY_LOCAL_MACHINE, kSettingsKey);
        EXPECT_THAT(writeOneOfEach(), ElementsAre(kErrorLine));
        setLogLevel(3);
        EXPECT_THAT(writeOneOfEach(), ElementsAre(kDebugLine, kErrorLine));
    }
}

TEST_F(LoggingTest, LineAndFileNameHaveTheirForm) {
    Utils::error("CPAcquireContext: \xE2\x80\x94 text");
    Utils::debug("");
    std::vector<std::string> lines = takeRawLogLines();
    lines.push_back(logFiles().at(0));
    const std::string date = lines.back().substr(lines.back().size() - sizeof "2026-11-23.LOG" + 1);
    EXPECT_EQ(lines[0].substr(0, 5), date.substr(8, 2) + "/" + date.substr(5, 2));
    for (std::string& line : lines)
        std::ranges::replace_if(
            line, [](char letter) { return letter >= '0' && letter <= '9'; }, '9');
    EXPECT_THAT(lines, ElementsAre("99/99::99:99:99:999-> ->ERROR ::=>CPAcquireContext: \xE2\x80\x94 text",
                                   "99/99::99:99:99:999-> ->DEBUG ::=>",
                                   testing::EndsWith("\\Quenmark\\veltra_unit_tests\\9999-99-99.LOG")));
}

TEST_F(LoggingTest, WritesWhileAnotherHasTheFileOpenAndShares) {
    Utils::error("make the file");
    takeLogLines();
    for (const DWORD shared : {FILE_SHARE_READ | FILE_SHARE_WRITE, 0}) {
        const UniqueHandle other = ownFile(
            CreateFileA(logFiles().at(0).c_str(), GENERIC_READ, shared, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(other);
        Utils::error("kept or lost");
    }
    EXPECT_THAT(takeLogLines(), ElementsAre("ERROR kept or lost"));
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
    const std::vector<DWORD> expected = answersOfBothFrontEnds();
    const std::string file = logFiles().at(0).substr(temporaryFolder().size());
    const std::string folder = file.substr(0, file.find_last_of('\\'));
    const std::string home = temporaryFolder();
    // In a new temporary folder, which `arrange` makes unfit for the log.
    const auto expectAnswers = [&](void (*arrange)(const std::string& folder, const std::string& file),
                                   const char* complaint = "\nUnable to write log") {
        stopDeviceMonitor(); // which the last answers started, and which would write a line in between
        const std::string place = home + freshName("faulty") + "\\";
        Utils::createFolderPath(place + "/Quenmark/veltra_unit_tests");
        testing::internal::CaptureStdout();
        SetEnvironmentVariableA("TMP", place.c_str());
        arrange(place + folder, place + file);
        const ULONGLONG begin = GetTickCount64();
        EXPECT_EQ(answersOfBothFrontEnds(), expected);
        EXPECT_LT(GetTickCount64() - begin, 1000u);
        EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr(complaint));
        SetEnvironmentVariableA("TMP", home.c_str());
        takeLogLines();
        EXPECT_THAT(writeOneOfEach(), ElementsAre(kDebugLine, kErrorLine)) << "the next line is written";
    };
    expectAnswers([](const auto&, const auto& diskFull) { putFullDiskAt(diskFull); });
    expectAnswers([](const auto&, const auto&) { SetEnvironmentVariableA("TMP", "Z:\\proc"); }); // read-only
    expectAnswers([](const auto& fileInstead, const auto&) {
        RemoveDirectoryA(fileInstead.c_str());
        CloseHandle(CreateFileA(fileInstead.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, 0, nullptr));
    });
    expectAnswers(
        [](const auto&, const auto& folderInstead) { CreateDirectoryA(folderInstead.c_str(), nullptr); });
    // Without a temporary folder the log goes to the root of the drive, where nothing is left behind.
    expectAnswers([](const auto&, const auto&) { SetEnvironmentVariableA("TMP", "Z:\\missing"); },
                  "\nUnable to getLogBaseFolderPath");
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

} // namespace
} // namespace veltra::test
