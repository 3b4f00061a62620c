#include "log_files.h"

#include "wide_text.h"

#include "foundation/text.h"
#include "foundation/utils.h"
#include "foundation/win_handle.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace veltra {

std::optional<std::uint32_t> readLogLevel(const RegistryView& view) {
    HKEY opened = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, kLogSettingsKey, 0, KEY_QUERY_VALUE | view.flag, &opened) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    const UniqueRegistryKey key(opened);
    std::array<BYTE, 32> data{};
    auto length = static_cast<DWORD>(data.size());
    if (RegQueryValueExA(key.get(), kLogLevelValue, nullptr, nullptr, data.data(), &length) !=
        ERROR_SUCCESS) {
        return std::nullopt;
    }
    std::uint32_t level = 0;
    std::memcpy(&level, data.data(), sizeof level);
    return level;
}

std::string logLevelMeaning(std::optional<std::uint32_t> level) {
    if (!level) return "errors (not set)";
    if (*level < 2) return "nothing";
    return *level == 3 ? "errors and every step" : "errors";
}

std::filesystem::path logFolder() {
    return std::filesystem::path(toWide(Utils::getLogRootPath())).lexically_normal();
}

std::vector<LogFile> findLogFiles(const std::wstring& process) {
    std::vector<LogFile> files;
    std::error_code error;
    for (std::filesystem::directory_iterator program(logFolder(), error), end; !error && program != end;
         program.increment(error)) {
        const std::wstring name = program->path().filename().native();
        if (!process.empty() &&
            CompareStringOrdinal(name.c_str(), -1, process.c_str(), -1, TRUE) != CSTR_EQUAL) {
            continue;
        }
        std::error_code unreadable;
        for (std::filesystem::directory_iterator file(program->path(), unreadable);
             !unreadable && file != end; file.increment(unreadable)) {
            if (equalsIgnoringCase(toUtf8(file->path().extension().native()), kLogFileExtension)) {
                std::error_code ignored;
                files.push_back({name, file->path(), file->file_size(ignored)});
            }
        }
    }
    std::ranges::sort(files, {}, [](const LogFile& file) { return file.path.native(); });
    return files;
}

} // namespace veltra
