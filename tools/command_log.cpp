// veltra log-level, log: how much is logged, and the log itself.

#include "commands.h"

#include "error_text.h"
#include "log_files.h"
#include "wide_text.h"

#include "foundation/utils.h"
#include "foundation/win_handle.h"

#include <algorithm>
#include <fstream>
#include <map>

namespace veltra {
namespace {

constexpr DWORD kFollowMilliseconds = 300;

void requireSet(LSTATUS status) {
    if (status != ERROR_SUCCESS) {
        failWithCode(static_cast<DWORD>(status), "could not set the log level");
    }
}

/// The newest file of each program.
std::vector<LogFile> newestFiles(const std::wstring& process) {
    std::map<std::wstring, LogFile> newest;
    for (LogFile& file : findLogFiles(process)) {
        const std::wstring name = file.process;
        newest.insert_or_assign(name, std::move(file)); // they come by day
    }
    std::vector<LogFile> files;
    for (auto& [name, file] : newest)
        files.push_back(std::move(file));
    return files;
}

/// The whole lines from `offset` to the end of a file, and `offset` behind them. Others may write it
/// meanwhile.
std::vector<std::string> readLines(const std::filesystem::path& path, std::uintmax_t& offset) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(file, line) && !file.eof()) {
        offset += line.size() + 1;
        lines.push_back(printable(line.substr(0, line.find_last_not_of('\r') + 1)));
    }
    return lines;
}

/// Shows lines under the name of their file, which appears when another file than before has some.
class Printer {
public:
    explicit Printer(Output& out) : out_(out) {}

    void show(const std::filesystem::path& path, std::span<const std::string> lines) {
        if (lines.empty()) return;
        if (path != last_) {
            out_.say("==> " + toUtf8(path.native()) + " <==");
            last_ = path;
        }
        for (const std::string& line : lines)
            out_.say(line);
    }

private:
    Output& out_;
    std::filesystem::path last_;
};

/// Until the user ends the program.
[[noreturn]] void followLog(const LogOptions& options,
                            std::map<std::filesystem::path, std::uintmax_t>& offsets, Printer& printer) {
    for (;;) {
        Sleep(kFollowMilliseconds);
        for (const LogFile& file : newestFiles(options.process)) {
            printer.show(file.path, readLines(file.path, offsets[file.path]));
        }
    }
}

} // namespace

int showLogLevel(Output& out) {
    Table table = {{"PROGRAMS", "programs"}, {"LEVEL", "level"}, {"WRITTEN", "meaning"}};
    for (const RegistryView& view : kRegistryViews) {
        const std::optional<std::uint32_t> level = readLogLevel(view);
        table.add({view.programs, level ? Json(*level) : Json(), logLevelMeaning(level)});
    }
    out.table("levels", table);
    out.set("folder", toUtf8(logFolder().native()));
    out.say("\n0, 1: nothing; 2 and above 3: errors; 3: errors and every step; not set: errors");
    return kExitOk;
}

int setLogLevel(const std::string& level, Output& out) {
    for (const RegistryView& view : kRegistryViews) {
        HKEY opened = nullptr;
        requireSet(RegCreateKeyExA(HKEY_LOCAL_MACHINE, kLogSettingsKey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                   KEY_SET_VALUE | view.flag, nullptr, &opened, nullptr));
        const UniqueRegistryKey key(opened);
        if (level == "default") {
            const LSTATUS status = RegDeleteValueA(key.get(), kLogLevelValue);
            requireSet(status == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : status);
        } else {
            const DWORD number = std::stoul(level);
            requireSet(RegSetValueExA(key.get(), kLogLevelValue, 0, REG_DWORD,
                                      reinterpret_cast<const BYTE*>(&number), sizeof number));
        }
    }
    if (level == "3") {
        out.say("Decrypted data and AES keys can get into the log now; set it back with 'veltra log-level "
                "default'.\n");
    }
    return showLogLevel(out);
}

int showLog(const LogOptions& options, Output& out) {
    if (options.follow && out.isJson()) {
        throw CommandError("--follow has no end, so it cannot be one JSON object", kExitUsage);
    }
    std::map<std::filesystem::path, std::uintmax_t> offsets;
    Printer printer(out);
    Json files = Json::array();
    for (const LogFile& file : newestFiles(options.process)) {
        const std::vector<std::string> lines = readLines(file.path, offsets[file.path]);
        const std::size_t count = options.lines == 0 ? lines.size() : std::min(options.lines, lines.size());
        const std::span<const std::string> last = std::span(lines).last(count);
        printer.show(file.path, last);
        files.push_back({{"process", toUtf8(file.process)},
                         {"path", toUtf8(file.path.native())},
                         {"lines", std::vector(last.begin(), last.end())}});
    }
    if (files.empty()) {
        out.say("There is no log in " + toUtf8(logFolder().native()) + ".");
    }
    out.set("files", std::move(files));
    if (options.follow) followLog(options, offsets, printer);
    return kExitOk;
}

int listLogFiles(const LogOptions& options, Output& out) {
    Table table = {{"PROGRAM", "process"}, {"BYTES", "bytes"}, {"FILE", "path"}};
    for (const LogFile& file : findLogFiles(options.process)) {
        table.add({toUtf8(file.process), file.size, toUtf8(file.path.native())});
    }
    out.table("files", table, {}, "There is no log in " + toUtf8(logFolder().native()) + ".");
    return kExitOk;
}

} // namespace veltra
