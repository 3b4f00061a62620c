#pragma once

#include "foundation/text.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace veltra {

/// Where the log's setting is, under HKEY_LOCAL_MACHINE, and the file extension of the log's files.
inline constexpr const char* kLogSettingsKey = R"(Software\Quenmark\Veltra)";
inline constexpr const char* kLogLevelValue = "logLevel";
inline constexpr const char* kLogFileExtension = ".LOG";

/// The log: one text file per process name and day, "<temporary folder>/Quenmark/<process>/<date>.LOG".
///
/// The setting "logLevel" (first 32-bit word of any value type) under HKEY_LOCAL_MACHINE
/// "Software\Quenmark\Veltra" is read at every call, so that a change takes effect at the next line:
///   0, 1     nothing is written
///   2        error lines
///   3        error and debug lines
///   4 ...    error lines
///   missing  error lines
///
/// Thread safety: any thread, any process; every line is one append to a file opened with full sharing, and
/// no lock is taken where the system makes that one step (all but Wine, where a turn is waited for briefly).
/// Nothing that fails in debug and error reaches the caller, and they keep the caller's last error. The
/// file-system helpers below are what they use.
class Utils {
public:
    /// Writes a debug line if "logLevel" is exactly 3. Takes the message over and leaves it empty.
    static void debug(std::string&& message) noexcept;

    static void debug(const char* message) noexcept;

    /// The same for a line of several parts, which are put together only if it is written. Without memory the
    /// line is lost, never what the caller has done: it may have handed out its result.
    template <class First, class Second, class... Rest>
    static void debug(const First& first, const Second& second, const Rest&... rest) noexcept {
        if (!isDebugWanted()) return;
        try {
            writeDebug(concat(first, second, rest...));
        } catch (...) {
            return;
        }
    }

    /// A debug line of `start` and the bytes in hexadecimal. Their text is made only if the line is written,
    /// and never left in memory by a process that does not log.
    static void debugSecret(const char* start, std::span<const unsigned char> secret) noexcept;

    /// Writes an error line unless "logLevel" was read and is below 2. Takes the message over and leaves it
    /// empty.
    static void error(std::string&& message) noexcept;
    static void error(const char* message) noexcept;

    /// The same for a line of several parts; without memory it is lost.
    template <class First, class Second, class... Rest>
    static void error(const First& first, const Second& second, const Rest&... rest) noexcept {
        try {
            error(concat(first, second, rest...));
        } catch (...) {
            return;
        }
    }

    /// The setting as it is read for every line; nothing when it is missing.
    static std::optional<std::uint32_t> getLogLevel() noexcept;

    /// The folder that holds one folder per process name, ending in "/". May throw std::bad_alloc.
    static std::string getLogRootPath();

    /// Fills `buffer` with the temporary folder of the current user, if that is a folder. 0 on success;
    /// -1 on failure, and the buffer is empty.
    static int getLogBaseFolderPath(char* buffer, std::size_t size) noexcept;

    /// Base name of the process's main module up to its first "."; empty when it cannot be read. May throw
    /// std::bad_alloc.
    static std::string getProcessName();

    /// Whether `path` names an existing folder.
    static bool isFolderExists(const char* path) noexcept;

    /// Creates one folder with default security; the result is that of CreateDirectoryA.
    static int createFolder(const char* path) noexcept;

    /// Creates every folder along `path`, whose steps end in "/". May throw std::bad_alloc.
    static void createFolderPath(const std::string& path);

private:
    /// Reads "logLevel".
    static bool isDebugWanted() noexcept;

    /// Writes a debug line whatever the level is.
    static void writeDebug(const std::string& message) noexcept;
};

} // namespace veltra
