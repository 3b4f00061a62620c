#include "files.h"

#include "error_text.h"
#include "wide_text.h"

#include "foundation/text.h"

#include "foundation/win_handle.h"

#include <algorithm>
#include <cctype>
#include <string>

namespace veltra {
namespace {

constexpr std::size_t kPieceBytes = std::size_t{64} * 1024;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

UniqueHandle openFile(const std::filesystem::path& path, DWORD access, DWORD creation) {
    return ownFile(CreateFileW(path.c_str(), access, kShareAll, nullptr, creation, 0, nullptr));
}

[[noreturn]] void failWithFile(DWORD code, const std::filesystem::path& path, const char* what) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        throw CommandError(inQuotes(path.native()) + " is a folder; give the name of a file");
    }
    failWithCode(code, what + inQuotes(path.native()));
}

/// Writes to the end and closes; 0, or the error code.
DWORD writeAll(UniqueHandle file, std::span<const unsigned char> content) {
    DWORD written = 0;
    const auto length = static_cast<DWORD>(content.size());
    if (WriteFile(file.get(), content.data(), length, &written, nullptr) && written == length) return 0;
    const DWORD code = GetLastError();
    return code != 0 ? code : ERROR_DISK_FULL;
}

/// What the path names when it is no file that could be replaced, such as NUL; null otherwise.
UniqueHandle openDevice(const std::filesystem::path& path) {
    UniqueHandle file = openFile(path, GENERIC_WRITE, OPEN_EXISTING);
    if (file && GetFileType(file.get()) == FILE_TYPE_DISK) file.reset();
    return file;
}

/// A new file beside `path`, which is nobody else's; null with the last error. `temporary` becomes its path.
UniqueHandle createBeside(const std::filesystem::path& path, std::filesystem::path& temporary) {
    constexpr int kMostTrials = 1000;
    for (int trial = 0; trial < kMostTrials; ++trial) {
        temporary = path;
        temporary += L".new" + (trial == 0 ? std::wstring() : std::to_wstring(trial));
        UniqueHandle file = openFile(temporary, GENERIC_WRITE, CREATE_NEW);
        if (file || GetLastError() != ERROR_FILE_EXISTS) return file;
    }
    return nullptr;
}

} // namespace

void readInPieces(const std::filesystem::path& path,
                  const std::function<void(std::span<const unsigned char>)>& consume) {
    const UniqueHandle file = openFile(path, GENERIC_READ, OPEN_EXISTING);
    if (!file) failWithFile(GetLastError(), path, "could not open ");
    std::vector<unsigned char> piece(kPieceBytes);
    for (;;) {
        DWORD length = 0;
        if (!ReadFile(file.get(), piece.data(), static_cast<DWORD>(piece.size()), &length, nullptr)) {
            failWithFile(GetLastError(), path, "could not read all of ");
        }
        if (length == 0) return;
        consume(std::span(piece).first(length));
    }
}

std::vector<unsigned char> readSmallFile(const std::filesystem::path& path, std::size_t maxBytes) {
    std::vector<unsigned char> content;
    readInPieces(path, [&](std::span<const unsigned char> piece) {
        if (piece.size() > maxBytes - content.size()) {
            throw CommandError(inQuotes(path.native()) + " is larger than " + std::to_string(maxBytes) +
                               " bytes; is it the right file?");
        }
        content.insert(content.end(), piece.begin(), piece.end());
    });
    return content;
}

void replaceFile(const std::filesystem::path& path, std::span<const unsigned char> content) {
    constexpr const char* kCannotWrite = "could not write ";
    if (UniqueHandle device = openDevice(path)) {
        if (const DWORD code = writeAll(std::move(device), content)) failWithFile(code, path, kCannotWrite);
        return;
    }
    std::filesystem::path temporary;
    UniqueHandle file = createBeside(path, temporary);
    if (!file) failWithFile(GetLastError(), path, kCannotWrite);
    DWORD code = writeAll(std::move(file), content);
    if (code == 0 &&
        !MoveFileExW(temporary.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        code = GetLastError();
    }
    if (code != 0) {
        DeleteFileW(temporary.c_str());
        failWithFile(code, path, kCannotWrite);
    }
}

void writeOrPrint(const std::filesystem::path& path, std::span<const unsigned char> content, Output& out) {
    if (path.empty()) {
        std::string digits = toHex(content);
        std::ranges::transform(digits, digits.begin(), // as other programs print digests
                               [](unsigned char digit) { return static_cast<char>(std::tolower(digit)); });
        out.result(digits, {{"bytes", digits}});
    } else {
        replaceFile(path, content);
        out.set("file", toUtf8(path.native()));
    }
}

void requireDifferentFiles(const std::filesystem::path& input, const std::filesystem::path& output) {
    std::error_code ignored;
    if (std::filesystem::equivalent(input, output, ignored)) {
        throw CommandError("--out names the input file itself, which would be overwritten", kExitUsage);
    }
}

} // namespace veltra
