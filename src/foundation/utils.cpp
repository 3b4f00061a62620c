#include "foundation/utils.h"

#include "foundation/text.h"
#include "foundation/win_handle.h"

#include <psapi.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

namespace veltra {

namespace {

constexpr std::size_t kPathCapacity = 1024;

enum Level : std::uint32_t { kLevelError = 2, kLevelDebug = 3 };

std::optional<std::uint32_t> readLogLevel() {
    std::array<unsigned char, 32> data{};
    auto length = static_cast<DWORD>(data.size());
    const LSTATUS status = RegGetValueA(HKEY_LOCAL_MACHINE, R"(Software\Quenmark\Veltra)", "logLevel",
                                        RRF_RT_ANY, nullptr, data.data(), &length);
    if (status != ERROR_SUCCESS) return std::nullopt;
    std::uint32_t level = 0;
    std::memcpy(&level, data.data(), sizeof(level));
    return level;
}

bool isDebugWanted() {
    return readLogLevel() == kLevelDebug;
}

// Not the same threshold as for debug lines: a level above 3 keeps errors and silences debug lines.
bool isErrorWanted() {
    return readLogLevel().value_or(kLevelError) >= kLevelError;
}

const char* levelTag(std::uint32_t level) {
    return level == kLevelError ? "ERROR ::=>" : "DEBUG ::=>";
}

// Console hosts see these messages; in every other process they go nowhere.
void printToStandardOutput(const char* text) {
    static_cast<void>(std::fputs(text, stdout));
    static_cast<void>(std::fflush(stdout));
}

// The folder that the log file of this process lies in, ending in "/", cut to the path buffer.
std::string logFolderPath() {
    std::array<char, kPathCapacity> base{};
    if (Utils::getLogBaseFolderPath(base.data(), base.size()) != 0) {
        printToStandardOutput("\nUnable to getLogBaseFolderPath");
    }
    std::string path = concat(base.data(), "/Quenmark/", Utils::getProcessName(), "/");
    if (path.size() >= kPathCapacity) path.resize(kPathCapacity - 1);
    return path;
}

template <class... Arguments>
std::string formatted(const char* format, Arguments... arguments) {
    std::array<char, 64> text{};
    static_cast<void>(std::snprintf(text.data(), text.size(), format, arguments...));
    return text.data();
}

// One line is one append: the system puts lines of other threads and processes behind each other. (Wine seeks
// and then writes, so there lines may overlay each other.)
void writeLine(std::uint32_t level, std::string_view message) {
    const std::string folder = logFolderPath();
    Utils::createFolderPath(folder);
    SYSTEMTIME now{};
    GetLocalTime(&now);
    std::string path = concat(folder, formatted("%04u-%02u-%02u", now.wYear, now.wMonth, now.wDay), ".LOG");
    if (path.size() >= kPathCapacity) path.resize(kPathCapacity - 1);
    const std::string line = concat(formatted("%02u/%02u::%02u:%02u:%02u:%03u-> ", now.wDay, now.wMonth,
                                              now.wHour, now.wMinute, now.wSecond, now.wMilliseconds),
                                    "->", levelTag(level), message, "\n");
    const UniqueHandle file =
        ownFile(CreateFileA(path.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                            OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
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
