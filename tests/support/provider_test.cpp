#include "support/provider_test.h"

#include "support/both_front_ends.h"
#include "support/sanitizer_stack.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <ostream>
#include <string_view>
#include <utility>

namespace veltra::test {

namespace {

constexpr const char* kContainersKey = R"(SOFTWARE\Veltra\CSP\Containers)";

/// What the threads of runOnThreads share. The count orders what they did before what follows their end also
/// for ThreadSanitizer, which does not see that Win32 waits do.
struct SharedBody {
    const std::function<void()>& run;
    std::atomic<int> ended = 0;
};

DWORD WINAPI runBody(void* shared) {
    announceStackToSanitizer();
    auto* body = static_cast<SharedBody*>(shared);
    body->run();
    ++body->ended;
    return 0;
}

bool isFromMonitorThread(std::string_view line) {
    return line.starts_with("DEBUG Device monitor thread ") ||
           line.starts_with("DEBUG Device disconnected: ") || line.starts_with("ERROR Device monitor: ");
}

} // namespace

std::ostream& operator<<(std::ostream& stream, const Answer& answer) {
    return stream << (answer.result ? "TRUE" : "FALSE") << ", last error 0x" << std::hex << answer.lastError
                  << std::dec << ' ' << testing::PrintToString(answer.errors);
}

void runOnThreads(int count, const std::function<void()>& body) {
    SharedBody shared{.run = body};
    std::vector<HANDLE> threads;
    for (int i = 0; i < count; ++i)
        threads.push_back(CreateThread(nullptr, 0, runBody, &shared, 0, nullptr));
    for (HANDLE thread : threads) {
        WaitForSingleObject(thread, INFINITE);
        CloseHandle(thread);
    }
    EXPECT_EQ(shared.ended, count);
}

void writeContainerValue(const std::string& container, const std::string& data, DWORD type) {
    // A zero behind the data would be taken along as its terminator.
    const std::string unterminated = data + 'x';
    EXPECT_EQ(ERROR_SUCCESS, RegSetKeyValueA(HKEY_CURRENT_USER, kContainersKey, container.c_str(), type,
                                             unterminated.data(), static_cast<DWORD>(data.size())));
}

std::string readContainerValue(const std::string& container) {
    std::array<char, 4096> data{};
    auto length = static_cast<DWORD>(data.size());
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_CURRENT_USER, kContainersKey, 0, KEY_READ, &key) != ERROR_SUCCESS) return {};
    const LSTATUS status = RegQueryValueExA(key, container.c_str(), nullptr, nullptr,
                                            reinterpret_cast<BYTE*>(data.data()), &length);
    RegCloseKey(key);
    return status == ERROR_SUCCESS ? std::string(data.data(), length) : std::string();
}

ProviderTest::ProviderTest() : token((library.reset(), library.addToken(serial))) {
    setDeviceLibrary(&library);
    setPinPrompt(&prompt);
    useOwnLogFolder();
    setLogLevel(3);
    RegDeleteTreeA(HKEY_CURRENT_USER, kContainersKey);
    removeLog();
    takeRawLogLines();
}

ProviderTest::~ProviderTest() {
    setPinPrompt(nullptr);
    for (const std::uintptr_t handle : handles_)
        releaseAny(handle);
}

Answer ProviderTest::run(const std::function<BOOL()>& call) {
    takeLogLines();
    SetLastError(kUntouched);
    Answer answer;
    answer.result = call();
    answer.lastError = GetLastError();
    debugLines.clear();
    for (const std::string& line : takeLogLines())
        (line.starts_with("ERROR ") ? answer.errors : debugLines).push_back(line.substr(6));
    return answer;
}

std::vector<std::string> ProviderTest::takeLogLines() {
    std::vector<std::string> lines = takeRawLogLines();
    std::ranges::transform(lines, lines.begin(), withoutTime);
    std::erase_if(lines, isFromMonitorThread);
    return lines;
}

std::vector<std::string> ProviderTest::takeRawLogLines() {
    const std::string text = readLog();
    if (text.size() < logOffset_) logOffset_ = 0; // removed since the last look
    return linesOf(text.substr(std::exchange(logOffset_, text.size())));
}

std::string ProviderTest::freshName(const std::string& stem) {
    static std::atomic<int> count{0};
    return stem + std::to_string(++count);
}

} // namespace veltra::test
