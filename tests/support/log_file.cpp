#include "support/log_file.h"

#include <algorithm>
#include <array>
#include <sstream>

namespace veltra::test {

constexpr const char* kSettingsKey = R"(Software\Quenmark\Veltra)";

std::string readFile(const std::string& path) {
    HANDLE file = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                              OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return {};
    std::string text(GetFileSize(file, nullptr), '\0');
    DWORD length = 0;
    ReadFile(file, text.data(), static_cast<DWORD>(text.size()), &length, nullptr);
    CloseHandle(file);
    text.resize(length);
    return text;
}

void useOwnLogFolder() {
    [[maybe_unused]] static const bool once = [] {
        const std::string folder = temporaryFolder() + "veltra-tests-" +
                                   std::to_string(GetCurrentProcessId()) + "-" +
                                   std::to_string(GetTickCount64());
        return CreateDirectoryA(folder.c_str(), nullptr) && SetEnvironmentVariableA("TMP", folder.c_str());
    }();
}

std::string temporaryFolder() {
    std::array<char, MAX_PATH + 2> path{};
    return {path.data(), GetTempPathA(static_cast<DWORD>(path.size()), path.data())};
}

std::vector<std::string> logFiles() {
    std::array<char, MAX_PATH> program{};
    GetModuleFileNameA(nullptr, program.data(), static_cast<DWORD>(program.size()));
    std::string name = program.data();
    name = name.substr(name.find_last_of("\\/") + 1);
    const std::string folder = temporaryFolder() + "Quenmark\\" + name.substr(0, name.find('.')) + "\\";
    std::vector<std::string> paths;
    WIN32_FIND_DATAA found{};
    HANDLE search = FindFirstFileA((folder + "*").c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return paths;
    do {
        if (!(found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) paths.push_back(folder + found.cFileName);
    } while (FindNextFileA(search, &found));
    FindClose(search);
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::string readLog() {
    std::string text;
    for (const std::string& path : logFiles())
        text += readFile(path);
    return text;
}

void removeLog() {
    for (const std::string& path : logFiles())
        DeleteFileA(path.c_str());
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string withoutTime(const std::string& line) {
    const std::size_t tag = line.find("->", line.find("-> ") + 2) + 2;
    return line.substr(tag, 5) + " " + line.substr(tag + 10);
}

void setLogLevel(DWORD level) {
    RegSetKeyValueA(HKEY_LOCAL_MACHINE, kSettingsKey, "logLevel", REG_DWORD, &level, sizeof level);
}

void removeLogLevel() {
    RegDeleteKeyValueA(HKEY_LOCAL_MACHINE, kSettingsKey, "logLevel");
}

} // namespace veltra::test
