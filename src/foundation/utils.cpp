#include "foundation/utils.h"

#include "foundation/text.h"
#include "foundation/win_handle.h"

#include <psapi.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

namespace veltra {

namespace {

constexpr std::size_t kPathCapacity = 1024;

enum Level : std::uint32_t { kLevelError = 2, kLevelDebug = 3 };

/// The key of the settings, kept open from the first read that finds it: to open it takes two of three calls
/// of the system that a read would make, and every line begins with a read. Nothing read is kept.
class SettingsKey {
public:
    constexpr SettingsKey() = default;
    SettingsKey(const SettingsKey&) = delete;
    SettingsKey& operator=(const SettingsKey&) = delete;
    ~SettingsKey() {
        if (HKEY key = key_.exchange(nullptr)) RegCloseKey(key);
    }

    /// Null while there is no such key.
    HKEY get() {
        if (HKEY key = key_) return key;
        HKEY opened = nullptr;
        if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kLogSettingsKey, 0, KEY_QUERY_VALUE, &opened) !=
            ERROR_SUCCESS) {
            return nullptr;
        }
        HKEY openedByAnother = nullptr;
        if (key_.compare_exchange_strong(openedByAnother, opened)) return opened;
        RegCloseKey(opened);
        return openedByAnother;
    }

    /// `key` was deleted; there may be a new one. The handle stays open, one for each such deletion: another
    /// thread may be about to read from it, and must not find somebody else's key behind it.
    void forget(HKEY key) { key_.compare_exchange_strong(key, nullptr); }

private:
    std::atomic<HKEY> key_ = nullptr;
};

constinit SettingsKey settingsKey;

// Not the same threshold as for debug lines: a level above 3 keeps errors and silences debug lines.
bool isErrorWanted() {
    return Utils::getLogLevel().value_or(kLevelError) >= kLevelError;
}

// By level; the first stands for every other one. All are ten characters wide. The provider itself writes
// errors and debug lines only.
constexpr std::array kLevelTags = {"INFO  ::=>", "EXCEP ::=>", "ERROR ::=>", "DEBUG ::=>"};

const char* levelTag(std::uint32_t level) {
    return kLevelTags[level < kLevelTags.size() ? level : 0];
}

// Console hosts see these messages; in every other process they go nowhere.
void printToStandardOutput(const char* text) {
    static_cast<void>(std::fputs(text, stdout));
    static_cast<void>(std::fflush(stdout));
}

// The folder that the log file of this process lies in, ending in "/", cut to the path buffer.
std::string logFolderPath() {
    std::string path = concat(Utils::getLogRootPath(), Utils::getProcessName(), "/");
    if (path.size() >= kPathCapacity) path.resize(kPathCapacity - 1);
    return path;
}

template <class... Arguments>
std::string formatted(const char* format, Arguments... arguments) {
    std::array<char, 64> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), format, arguments...));
    return text.data();
}

// How long the turn to append is waited for, and how long by a process that waited in vain the last time.
constexpr DWORD kPatienceMilliseconds = 1000;
constexpr DWORD kImpatienceMilliseconds = 10;

/// The turn to append, among the threads and processes that write the same file. Only Wine needs it: there an
/// append is a look for the end and then a write, so that lines would cover each other. On Windows it is one
/// step, and no lock is taken.
///
/// A mutex of the system, because that is given back when its holder is killed. Who does not get it in time
/// writes all the same: a process that hangs in its turn costs the others time once, never a line.
class AppendTurn {
public:
    AppendTurn() {
        static const bool needed =
            GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
        static std::atomic<bool> patient{true};
        if (!needed) return;
        mutex_.reset(CreateMutexA(nullptr, FALSE, concat("Veltra log of ", Utils::getProcessName()).c_str()));
        if (!mutex_) return;
        const DWORD waited =
            WaitForSingleObject(mutex_.get(), patient ? kPatienceMilliseconds : kImpatienceMilliseconds);
        held_ = waited == WAIT_OBJECT_0 || waited == WAIT_ABANDONED;
        patient = held_;
    }
    AppendTurn(const AppendTurn&) = delete;
    AppendTurn& operator=(const AppendTurn&) = delete;
    ~AppendTurn() {
        if (held_) ReleaseMutex(mutex_.get());
    }

private:
    UniqueHandle mutex_;
    bool held_ = false;
};

// One line is one append: the system puts lines of other threads and processes behind each other.
void writeLine(std::uint32_t level, std::string_view message) {
    const std::string folder = logFolderPath();
    Utils::createFolderPath(folder);
    SYSTEMTIME now{};
    GetLocalTime(&now);
    std::string path =
        concat(folder, formatted("%04u-%02u-%02u", now.wYear, now.wMonth, now.wDay), kLogFileExtension);
    if (path.size() >= kPathCapacity) path.resize(kPathCapacity - 1);
    const std::string line = concat(formatted("%02u/%02u::%02u:%02u:%02u:%03u-> ", now.wDay, now.wMonth,
                                              now.wHour, now.wMinute, now.wSecond, now.wMilliseconds),
                                    "->", levelTag(level), message, "\n");
    const UniqueHandle file =
        ownFile(CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    const AppendTurn turn;
    DWORD written = 0;
    if (!file || !WriteFile(file.get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr)) {
        printToStandardOutput("\nUnable to write log");
    }
}

void writeIf(bool wanted, std::uint32_t level, std::string_view message) noexcept {
    if (!wanted) return;
    try {
        writeLine(level, message);
    } catch (...) {
        printToStandardOutput("\nUnable to write log");
    }
}

} // namespace

bool Utils::isDebugWanted() noexcept {
    const LastErrorKeeper keeper;
    return getLogLevel() == kLevelDebug;
}

void Utils::writeDebug(const std::string& message) noexcept {
    const LastErrorKeeper keeper;
    writeIf(true, kLevelDebug, message);
}

void Utils::debug(std::string&& message) noexcept {
    const LastErrorKeeper keeper;
    const std::string taken = std::exchange(message, std::string());
    writeIf(isDebugWanted(), kLevelDebug, taken);
}

void Utils::debug(const char* message) noexcept {
    const LastErrorKeeper keeper;
    writeIf(isDebugWanted(), kLevelDebug, message);
}

void Utils::debugSecret(const char* start, std::span<const unsigned char> secret) noexcept {
    const LastErrorKeeper keeper;
    if (!isDebugWanted()) return;
    try {
        writeLine(kLevelDebug, concat(start, toHex(secret)));
    } catch (...) {
        printToStandardOutput("\nUnable to write log");
    }
}

void Utils::error(std::string&& message) noexcept {
    const LastErrorKeeper keeper;
    const std::string taken = std::exchange(message, std::string());
    writeIf(isErrorWanted(), kLevelError, taken);
}

void Utils::error(const char* message) noexcept {
    const LastErrorKeeper keeper;
    writeIf(isErrorWanted(), kLevelError, message);
}

std::optional<std::uint32_t> Utils::getLogLevel() noexcept {
    std::array<unsigned char, 32> data{};
    LSTATUS status = ERROR_KEY_DELETED;
    while (status == ERROR_KEY_DELETED) {
        HKEY key = settingsKey.get();
        if (key == nullptr) return std::nullopt;
        auto length = static_cast<DWORD>(data.size());
        status = RegGetValueA(key, nullptr, kLogLevelValue, RRF_RT_ANY, nullptr, data.data(), &length);
        if (status == ERROR_KEY_DELETED) settingsKey.forget(key);
    }
    if (status != ERROR_SUCCESS) return std::nullopt;
    std::uint32_t level = 0;
    std::memcpy(&level, data.data(), sizeof(level));
    return level;
}

std::string Utils::getLogRootPath() {
    std::array<char, kPathCapacity> base{};
    if (getLogBaseFolderPath(base.data(), base.size()) != 0) {
        printToStandardOutput("\nUnable to getLogBaseFolderPath");
    }
    return concat(base.data(), "/Quenmark/");
}

int Utils::getLogBaseFolderPath(char* buffer, std::size_t size) noexcept {
    if (buffer == nullptr || size == 0) return -1;
    const DWORD length = GetTempPathA(static_cast<DWORD>(size), buffer);
    if (length != 0 && length < size && isFolderExists(buffer)) return 0;
    buffer[0] = '\0';
    return -1;
}

std::string Utils::getProcessName() {
    std::array<char, kPathCapacity> name{};
    const DWORD length =
        K32GetModuleBaseNameA(GetCurrentProcess(), nullptr, name.data(), static_cast<DWORD>(name.size()));
    const std::string base(name.data(), length < name.size() ? length : 0);
    return base.substr(0, base.find('.'));
}

bool Utils::isFolderExists(const char* path) noexcept {
    const DWORD attributes = GetFileAttributesA(path);
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

int Utils::createFolder(const char* path) noexcept {
    return CreateDirectoryA(path, nullptr);
}

void Utils::createFolderPath(const std::string& path) {
    for (std::size_t end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1)) {
        createFolder(path.substr(0, end).c_str());
    }
    createFolder(path.c_str());
}

} // namespace veltra
