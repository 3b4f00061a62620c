#include "files.h"

#include "error_text.h"
#include "wide_text.h"

#include "foundation/text.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <string>

namespace veltra {
namespace {

constexpr std::size_t kPieceBytes = std::size_t{64} * 1024;

} // namespace

void readInPieces(const std::filesystem::path& path,
                  const std::function<void(std::span<const unsigned char>)>& consume) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        throw CommandError("could not open " + inQuotes(path.native()) + " for reading; check the name");
    }
    std::vector<char> piece(kPieceBytes);
    while (file) {
        file.read(piece.data(), static_cast<std::streamsize>(piece.size()));
        const auto bytes = std::as_bytes(std::span(piece)).first(static_cast<std::size_t>(file.gcount()));
        consume({reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()});
    }
    if (file.bad()) {
        throw CommandError("could not read all of " + inQuotes(path.native()));
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
    std::filesystem::path temporary = path;
    temporary += L".new";
    {
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(content.data()),
                   static_cast<std::streamsize>(content.size()));
        file.close();
        if (!file) {
            DeleteFileW(temporary.c_str());
            throw CommandError("could not write " + inQuotes(path.native()) +
                               "; check the folder and the free space");
        }
    }
    if (!MoveFileExW(temporary.c_str(), path.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        const DWORD code = GetLastError();
        DeleteFileW(temporary.c_str());
        failWithCode(code, "could not replace " + inQuotes(path.native()));
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
