#include "dialog/window_driver.h"
#include "lifecycle/child_process.h"
#include "support/googletest.h"
#include "support/log_file.h"
#include "support/provider_test.h"

#include "csp/csp_entry_points.h"
#include "foundation/utils.h"
#include "ksp/key_storage_interface.h"
#include "token_store.h"

#include <atomic>
#include <bit>
#include <deque>
#include <future>
#include <set>
#include <thread>

namespace veltra::test {
namespace {

constexpr const char* kPin = "123456";
constexpr const char* kLeavingEvent = "VeltraLifecycleTestLeaves";
constexpr DWORD kPatience = 30000; ///< milliseconds

/// VeltraCSP.dll from `folder`, loaded as an application would.
class LoadedProvider {
public:
    explicit LoadedProvider(const std::string& folder = programFolder())
        : module_(LoadLibraryA((folder + "VeltraCSP.dll").c_str())) {}
    LoadedProvider(const LoadedProvider&) = delete;
    LoadedProvider& operator=(const LoadedProvider&) = delete;
    ~LoadedProvider() { FreeLibrary(module_); }

    HCRYPTPROV acquire(DWORD flags) const {
        HCRYPTPROV context = 0;
        std::uintptr_t table = 0;
        function<decltype(CPAcquireContext)>("CPAcquireContext")(&context, nullptr, flags,
                                                                 reinterpret_cast<VTableProvStruc*>(&table));
        return context;
    }
    bool release(HCRYPTPROV context) const {
        return function<decltype(CPReleaseContext)>("CPReleaseContext")(context, 0) != FALSE;
    }
    /// What CNG is handed out without the module being in use.
    bool hasFunctionsOfCng() const {
        NCRYPT_KEY_STORAGE_FUNCTION_TABLE* functions = nullptr;
        function<decltype(GetKeyStorageInterface)>("GetKeyStorageInterface")(nullptr, &functions, 0);
        return functions != nullptr && functions->OpenProvider != nullptr;
    }
    /// Verifies the user and then refuses the length: what the last error tells apart.
    DWORD verifyUser(HCRYPTPROV context) const {
        HCRYPTKEY key = 0;
        function<decltype(CPGenKey)>("CPGenKey")(context, AT_SIGNATURE, 1024u << 16, &key);
        return GetLastError();
    }

private:
    template <class Function>
    Function* function(const char* name) const {
        return std::bit_cast<Function*>(GetProcAddress(module_, name));
    }

    HMODULE module_;
};

/// How many lines of the log have this text.
std::ptrdiff_t linesWith(const std::string& text) {
    return std::ranges::count_if(
        linesOf(readLog()), [&](const std::string& line) { return line.find(text) != std::string::npos; });
}

/// A folder with a copy of VeltraCSP.dll and, as its device library, one of this file.
std::string folderWithLibrary(const char* library) {
    std::string folder = temporaryFolder() + "provider\\";
    CreateDirectoryA(folder.c_str(), nullptr);
    for (const auto& [from, to] :
         {std::pair{"VeltraCSP.dll", "VeltraCSP.dll"}, {library, "VeltraDSCLibrary.dll"}})
        EXPECT_TRUE(CopyFileA((programFolder() + from).c_str(), (folder + to).c_str(), FALSE)) << from;
    return folder;
}

/// A software token in a home of its own, and the log of this process.
class ModuleLifecycleTest : public testing::Test {
protected:
    ModuleLifecycleTest() {
        useOwnLogFolder();
        setLogLevel(3);
        removeLog();
        SetEnvironmentVariableA("VELTRA_SOFTTOKEN_HOME", (temporaryFolder() + "tokens").c_str());
        if (!softtoken::listTokens().empty()) return;
        softtoken::TokenDescription description;
        description.serial = "T1";
        softtoken::createToken(description, kPin, 3);
    }
};

TEST_F(ModuleLifecycleTest, UnloadedWhenNotInUse) {
    for (int i = 0; i < 3; ++i) {
        {
            const LoadedProvider provider;
            const HCRYPTPROV context = provider.acquire(CRYPT_VERIFYCONTEXT);
            EXPECT_NE(context, 0u);
            EXPECT_TRUE(provider.release(context));
            EXPECT_TRUE(provider.hasFunctionsOfCng());
            EXPECT_NE(GetModuleHandleA("VeltraCSP.dll"), nullptr);
        }
        EXPECT_EQ(GetModuleHandleA("VeltraCSP.dll"), nullptr);
    }
}

TEST_F(ModuleLifecycleTest, PinnedOnceInUse) {
    const ULONGLONG begin = GetTickCount64();
    for (int i = 0; i < 50; ++i) {
        const LoadedProvider provider;
        const HCRYPTPROV context = provider.acquire(i == 0 ? 0 : CRYPT_SILENT);
        ASSERT_NE(context, 0u);
        if (i == 0) {
            auto typing = std::async(std::launch::async, [] { enterPin(kPin); });
            EXPECT_EQ(provider.verifyUser(context), static_cast<DWORD>(NTE_BAD_LEN));
            typing.get();
        }
        EXPECT_EQ(provider.verifyUser(context), static_cast<DWORD>(NTE_BAD_LEN)) << "the PIN is known";
        EXPECT_TRUE(provider.release(context));
    }
    EXPECT_NE(GetModuleHandleA("VeltraCSP.dll"), nullptr);
    EXPECT_LT(GetTickCount64() - begin, 10000u);
    EXPECT_EQ(linesWith("Device monitor thread started."), 1);
    EXPECT_EQ(linesWith("Device monitor thread stopped."), 0);
    EXPECT_EQ(linesWith("Password dialog show window after"), 1);
}

TEST_F(ModuleLifecycleTest, DeviceLibraryBesideTheProviderComesFirstAndAMissingExportIsNamed) {
    // Any module without the exports will do for a device library.
    const LoadedProvider provider(folderWithLibrary("VeltraCSP.dll"));
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(provider.acquire(0), 0u);
        EXPECT_EQ(GetLastError(), 0x80090023u);
    }
    EXPECT_EQ(linesWith("ERROR ::=>CPAcquireContext: valid token not connected, return FALSE"), 2);
    EXPECT_EQ(linesWith("ERROR ::=>VeltraDSCLibrary.dll lacks the export veltra_init"), 1);
}

/// How a process leaves while the monitor runs; each is started as a process of its own by the test below.
TEST_F(ModuleLifecycleTest, DISABLED_Leaves) {
    const std::string way = argumentOfThisChild();
    const bool hangs = way.starts_with("hanging");
    // Loaded for good, as by an application that never frees it.
    const auto* provider =
        new LoadedProvider(hangs ? folderWithLibrary("veltra_hostile_library.dll") : programFolder());
    EXPECT_EQ(provider->acquire(CRYPT_SILENT) == 0, hangs) << "the application itself is answered: no token";
    HMODULE library = GetModuleHandleA("VeltraDSCLibrary.dll");
    while (hangs && !std::bit_cast<bool (*)()>(GetProcAddress(library, "isHanging"))())
        Sleep(10);
    for (int i = 0; i < 3 && way == "threads, exit"; ++i) {
        std::thread([provider] {
            for (;;)
                provider->release(provider->acquire(CRYPT_SILENT));
        }).detach();
    }
    Sleep(300); // the monitor is between two polls, or hangs
    SetEvent(OpenEventA(EVENT_MODIFY_STATE, FALSE, kLeavingEvent));
    way.ends_with("ExitProcess") ? ExitProcess(7) : std::exit(7);
}

TEST_F(ModuleLifecycleTest, ProcessEndsAtOnceWhateverTheMonitorDoes) {
    HANDLE leaving = CreateEventA(nullptr, FALSE, FALSE, kLeavingEvent);
    for (const char* way :
         {"ExitProcess", "exit", "threads, exit", "hanging, ExitProcess", "hanging, exit"}) {
        SCOPED_TRACE(way);
        const ChildProcess child("ModuleLifecycleTest.DISABLED_Leaves", way);
        HANDLE events[] = {leaving, child.handle()};
        EXPECT_EQ(WaitForMultipleObjects(2, events, FALSE, kPatience), static_cast<DWORD>(WAIT_OBJECT_0));
        EXPECT_EQ(child.exitCodeWithin(500), 7u) << "it neither hangs nor waits for the next poll";
    }
    CloseHandle(leaving);
}

constexpr int kLogWriters = 6; ///< processes, of two threads each
constexpr int kLogLines = 100; ///< of each thread

/// Lines of every writer and of different lengths.
std::string logLine(const std::string& writer, int thread, int number) {
    return concat(writer, "/", thread, "/", number,
                  std::string(static_cast<std::size_t>(number * 7 % 61), 'x'));
}

TEST(LogWriter, DISABLED_Writes) {
    std::atomic<int> threads = 0;
    runOnThreads(2, [&] {
        const int thread = threads++;
        for (int i = 0; i < kLogLines; ++i)
            Utils::error(logLine(argumentOfThisChild(), thread, i));
    });
    ExitProcess(7);
}

TEST_F(ModuleLifecycleTest, ManyProcessesWriteOneLogWithoutATornOrLostLine) {
    std::multiset<std::string> expected;
    std::deque<ChildProcess> children;
    for (int writer = 0; writer < kLogWriters; ++writer) {
        children.emplace_back("LogWriter.DISABLED_Writes", std::to_string(writer));
        for (int line = 0; line < 2 * kLogLines; ++line)
            expected.insert("ERROR " + logLine(std::to_string(writer), line / kLogLines, line % kLogLines));
    }
    for (const ChildProcess& child : children)
        EXPECT_EQ(child.exitCodeWithin(kPatience), 7u);
    std::multiset<std::string> found;
    for (const std::string& line : linesOf(readLog()))
        found.insert(withoutTime(line));
    EXPECT_EQ(found, expected);
}

// Only under Wine the writers take turns at all.
TEST_F(ModuleLifecycleTest, AProcessThatHangsWhileItWritesCostsTheOthersTimeOnce) {
    HANDLE turn = CreateMutexA(nullptr, TRUE, concat("Veltra log of ", Utils::getProcessName()).c_str());
    const ULONGLONG begin = GetTickCount64();
    std::async(std::launch::async, [] {
        for (int i = 0; i < 20; ++i)
            Utils::error("a line");
    }).get();
    EXPECT_LT(GetTickCount64() - begin, 3000u);
    EXPECT_EQ(linesWith("ERROR ::=>a line"), 20);
    ReleaseMutex(turn);
    CloseHandle(turn);
}

} // namespace
} // namespace veltra::test
