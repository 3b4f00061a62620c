#pragma once

#include "installation.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace veltra {

/// The level that programs of this view log with, from the setting that the provider reads
/// (foundation/utils.h); nothing when it is not set.
std::optional<std::uint32_t> readLogLevel(const RegistryView& view);

/// What a level means: "errors", ...
std::string logLevelMeaning(std::optional<std::uint32_t> level);

/// The folder that has one folder per program.
std::filesystem::path logFolder();

struct LogFile {
    std::wstring process;
    std::filesystem::path path;
    std::uintmax_t size = 0;
};

/// The log files of one program, or of all when `process` is empty, by program and day. Folders and files
/// that cannot be read are left out.
std::vector<LogFile> findLogFiles(const std::wstring& process);

} // namespace veltra
