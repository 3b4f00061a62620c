#include "dialog/window_driver.h"
#include "support/googletest.h"
#include "support/log_file.h"
#include "support/provider_test.h"

#include "csp/csp_entry_points.h"
#include "token_store.h"

#include <tlhelp32.h>

#include <bit>
#include <future>
#include <thread>

namespace veltra::test {
namespace {

constexpr const char* kPin = "123456";
constexpr const char* kLeavingEvent = "VeltraLifecycleTestLeaves";

std::string programFolder() {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    return std::string(path).substr(0, std::string(path).find_last_of('\\') + 1);
}

/// VeltraCSP.dll from `folder`, loaded as an application would.
class LoadedProvider {
public:
    explicit LoadedProvider(const std::string& folder = programFolder())
        : module_(LoadLibraryA((folder + "VeltraCSP.dll").c_str())) {
        bind(acquire_, "CPAcquireContext");
        bind(release_, "CPReleaseContext");
        bind(generate_, "CPGenKey");
    }
    LoadedProvider(const LoadedProvider&) = delete;
    LoadedProvider& operator=(const LoadedProvider&) = delete;
    ~LoadedProvider() { FreeLibrary(module_); }

    HCRYPTPROV acquire(DWORD flags) const {
        HCRYPTPROV context = 0;
        std::uintptr_t table = 0;
        acquire_(&context, nullptr, flags, reinterpret_cast<VTableProvStruc*>(&table));
        return context;
    }
    bool release(HCRYPTPROV context) const { return release_(context, 0) != FALSE; }
    /// Verifies the user and then refuses the length: what the last error tells apart.
    DWORD verifyUser(HCRYPTPROV context) const {
        HCRYPTKEY key = 0;
        generate_(context, AT_SIGNATURE, 1024u << 16, &key);
        return GetLastError();
    }

private:
    template <class Function>
    void bind(Function*& function, const char* name) {
        function = std::bit_cast<Function*>(GetProcAddress(module_, name));
        EXPECT_NE(function, nullptr) << name;
    }

    HMODULE module_;
    decltype(&CPAcquireContext) acquire_ = nullptr;
    decltype(&CPReleaseContext) release_ = nullptr;
    decltype(&CPGenKey) generate_ = nullptr;
};

int threadsOfThisProcess() {
    HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
    THREADENTRY32 entry{};
    entry.dwSize = sizeof entry;
    int count = 0;
    for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry))
        count += entry.th32OwnerProcessID == GetCurrentProcessId();
    CloseHandle(snapshot);
    return count;
}

int occurrences(const std::string& text, const std::string& part) {
    int count = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

/// A software token in a home of its own, and the log of this process.
class ModuleLifecycleTest : public testing::Test {
protected:
    ModuleLifecycleTest() {
        useOwnLogFolder();
        setLogLevel(3);
        removeLog();
        SetEnvironmentVariableA("VELTRA_SOFTTOKEN_HOME", (temporaryFolder() + "tokens").c_str());
        if (softtoken::listTokens().empty()) {
            softtoken::TokenDescription description;
            description.serial = "T1";
            softtoken::createToken(description, kPin, 3);
        }
    }
};

TEST_F(ModuleLifecycleTest, LoadingAndVerifyContextsLeaveNothingBehind) {
    for (int i = 0; i < 3; ++i) {
        {
            const LoadedProvider provider;
            const HCRYPTPROV context = provider.acquire(CRYPT_VERIFYCONTEXT);
            EXPECT_NE(context, 0u);
            EXPECT_TRUE(provider.release(context));
            EXPECT_NE(GetModuleHandleA("VeltraCSP.dll"), nullptr);
        }
        EXPECT_EQ(GetModuleHandleA("VeltraCSP.dll"), nullptr) << "the module is unloaded";
    }
}

TEST_F(ModuleLifecycleTest, FiftyLoadsHaveOneMonitorThreadAndOnePrompt) {
    const ULONGLONG begin = GetTickCount64();
    int threads = 0;
    for (int i = 0; i < 50; ++i) {
        const LoadedProvider provider;
        const HCRYPTPROV context = provider.acquire(i == 0 ? 0 : CRYPT_SILENT);
        ASSERT_NE(context, 0u);
        if (i == 0) {
            auto typing = std::async(std::launch::async, [] {
                const HWND dialog = waitForWindow("Verify User Password");
                typeInto(dialog, 1001, kPin);
                pressAndWait(dialog, IDOK);
            });
            EXPECT_EQ(provider.verifyUser(context), static_cast<DWORD>(NTE_BAD_LEN));
            typing.get();
            threads = threadsOfThisProcess();
        }
        EXPECT_EQ(provider.verifyUser(context), static_cast<DWORD>(NTE_BAD_LEN)) << "the PIN is known";
        EXPECT_TRUE(provider.release(context));
    }
    EXPECT_LT(GetTickCount64() - begin, 10000u);
    EXPECT_LE(threadsOfThisProcess(), threads);
    EXPECT_EQ(occurrences(readLog(), "Device monitor thread started."), 1);
    EXPECT_EQ(occurrences(readLog(), "Device monitor thread stopped."), 0);
    EXPECT_EQ(occurrences(readLog(), "Password dialog show window after"), 1);
}

TEST_F(ModuleLifecycleTest, DeviceLibraryBesideTheProviderComesFirstAndAMissingExportIsNamed) {
    const std::string folder = temporaryFolder() + "provider\\";
    CreateDirectoryA(folder.c_str(), nullptr);
    const std::string dll = programFolder() + "VeltraCSP.dll";
    ASSERT_TRUE(CopyFileA(dll.c_str(), (folder + "VeltraCSP.dll").c_str(), FALSE));
    // Any module without the exports will do for a device library.
    ASSERT_TRUE(CopyFileA(dll.c_str(), (folder + "VeltraDSCLibrary.dll").c_str(), FALSE));
    const LoadedProvider provider(folder);
    EXPECT_EQ(provider.acquire(0), 0u);
    EXPECT_EQ(GetLastError(), 0x80090023u);
    EXPECT_EQ(provider.acquire(0), 0u);
    EXPECT_THAT(readLog(), HasSubstr("CPAcquireContext: valid token not connected, return FALSE"));
    EXPECT_EQ(occurrences(readLog(), "ERROR ::=>VeltraDSCLibrary.dll lacks the export veltra_init"), 1);
}

/// How a process leaves while the monitor runs; each is started as a process of its own by the test below.
class LeavingProcess : public ModuleLifecycleTest {
protected:
    void startMonitor() {
        // Loaded for good, as by an application that never frees it.
        auto* provider = new LoadedProvider;
        ASSERT_NE(provider->acquire(CRYPT_SILENT), 0u);
        acquireForever = [provider] {
            for (;;)
                provider->release(provider->acquire(CRYPT_SILENT));
        };
        Sleep(300); // the monitor is between two polls
    }
    static void announce() {
        HANDLE event = OpenEventA(EVENT_MODIFY_STATE, FALSE, kLeavingEvent);
        SetEvent(event);
        CloseHandle(event);
    }
    std::function<void()> acquireForever;
};

TEST_F(LeavingProcess, DISABLED_ByExitProcess) {
    startMonitor();
    announce();
    ExitProcess(7);
}

TEST_F(LeavingProcess, DISABLED_ByExit) {
    startMonitor();
    announce();
    std::exit(7);
}

TEST_F(LeavingProcess, DISABLED_WhileThreadsUseTheProvider) {
    startMonitor();
    for (int i = 0; i < 3; ++i)
        std::thread(acquireForever).detach();
    Sleep(200);
    announce();
    std::exit(7);
}

TEST_F(ModuleLifecycleTest, ProcessEndsAtOnceWhileTheMonitorRuns) {
    HANDLE leaving = CreateEventA(nullptr, FALSE, FALSE, kLeavingEvent);
    for (const char* way : {"ByExitProcess", "ByExit", "WhileThreadsUseTheProvider"}) {
        SCOPED_TRACE(way);
        char program[MAX_PATH] = {};
        GetModuleFileNameA(nullptr, program, MAX_PATH);
        std::string command = "\"" + std::string(program) +
                              "\" --gtest_also_run_disabled_tests --gtest_filter=LeavingProcess.DISABLED_" +
                              way;
        STARTUPINFOA startup{};
        startup.cb = sizeof startup;
        PROCESS_INFORMATION process{};
        ASSERT_TRUE(CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                                   &startup, &process));
        HANDLE events[] = {leaving, process.hProcess};
        EXPECT_EQ(WaitForMultipleObjects(2, events, FALSE, 30000), static_cast<DWORD>(WAIT_OBJECT_0));
        EXPECT_EQ(WaitForSingleObject(process.hProcess, 500), static_cast<DWORD>(WAIT_OBJECT_0))
            << "it neither hangs nor waits for the next poll";
        DWORD code = 0;
        GetExitCodeProcess(process.hProcess, &code);
        EXPECT_EQ(code, 7u);
        TerminateProcess(process.hProcess, 1);
        CloseHandle(process.hThread);
        CloseHandle(process.hProcess);
    }
    CloseHandle(leaving);
}

} // namespace
} // namespace veltra::test
