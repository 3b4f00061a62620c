#include "terminal.h"

#include "wide_text.h"

#include "foundation/secret.h"
#include "foundation/win_handle.h"

#include <chrono>
#include <iostream>
#include <vector>

namespace veltra {
namespace {

UniqueHandle openConsole(const wchar_t* name) {
    return ownFile(CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                               nullptr, OPEN_EXISTING, 0, nullptr));
}

void write(HANDLE console, const std::wstring& text) {
    DWORD written = 0;
    WriteConsoleW(console, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

/// Keeps a console from showing what is typed, and puts it back as it was.
class EchoOff {
public:
    explicit EchoOff(HANDLE console) : console_(console) {
        isConsole_ = GetConsoleMode(console, &mode_) != FALSE;
        if (isConsole_) {
            SetConsoleMode(console, ENABLE_PROCESSED_INPUT | ENABLE_LINE_INPUT);
        }
    }
    EchoOff(const EchoOff&) = delete;
    EchoOff& operator=(const EchoOff&) = delete;
    ~EchoOff() {
        if (isConsole_) {
            SetConsoleMode(console_, mode_);
        }
    }

    [[nodiscard]] bool isConsole() const { return isConsole_; }

private:
    HANDLE console_;
    DWORD mode_ = 0;
    bool isConsole_ = false;
};

} // namespace

std::optional<std::wstring> askForSecret(const std::string& question, std::size_t capacity) {
    const UniqueHandle input = openConsole(L"CONIN$");
    const UniqueHandle output = openConsole(L"CONOUT$");
    if (!input || !output) return std::nullopt;
    const EchoOff echoOff(input.get());
    if (!echoOff.isConsole()) return std::nullopt;
    write(output.get(), toWide(question));
    std::vector<wchar_t> typed(capacity + 2); // and the end of the line
    DWORD length = 0;
    const BOOL read =
        ReadConsoleW(input.get(), typed.data(), static_cast<DWORD>(typed.size()), &length, nullptr);
    write(output.get(), L"\r\n");
    const std::wstring_view text(typed.data(), read ? length : 0);
    std::wstring secret(text.substr(0, text.find_first_of(L"\r\n")));
    wipe(typed.data(), typed.size() * sizeof(wchar_t));
    return secret;
}

Progress::Progress(std::string what) : what_(std::move(what)) {
    DWORD mode = 0;
    if (GetConsoleMode(GetStdHandle(STD_ERROR_HANDLE), &mode)) {
        thread_ = std::jthread([this](const std::stop_token& stop) { show(stop); });
    }
}

Progress::~Progress() {
    if (thread_.joinable()) {
        thread_.request_stop();
        thread_.join();
        std::cerr << '\r' << std::string(what_.size() + 12, ' ') << '\r' << std::flush;
    }
}

void Progress::show(const std::stop_token& stop) {
    constexpr std::chrono::milliseconds kStep(250);
    constexpr std::string_view kWheel = R"(|/-\)";
    const auto start = std::chrono::steady_clock::now();
    std::unique_lock lock(mutex_);
    for (std::size_t turn = 0; !stop.stop_requested(); ++turn) {
        const auto passed = std::chrono::steady_clock::now() - start;
        std::cerr << '\r' << what_ << ' ' << kWheel[turn % kWheel.size()] << ' '
                  << std::chrono::duration_cast<std::chrono::seconds>(passed).count() << " s" << std::flush;
        ended_.wait_for(lock, stop, kStep, [] { return false; });
    }
}

} // namespace veltra
