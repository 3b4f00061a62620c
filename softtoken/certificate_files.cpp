#include "certificate_files.h"

#include "foundation/windows.h"
#include "text_encoding.h"
#include "x509.h"

#include <algorithm>
#include <fstream>

namespace veltra::softtoken {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kLargestFile = std::size_t{4} * 1024 * 1024;

/// Compares as the file system does.
bool equalNames(const std::wstring& left, const std::wstring& right) {
    return CompareStringOrdinal(left.c_str(), -1, right.c_str(), -1, TRUE) == CSTR_EQUAL;
}

std::vector<fs::path> filesWithExtensions(const fs::path& folder,
                                          const std::vector<std::wstring>& extensions) {
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        std::error_code ignored;
        const std::wstring extension = entry->path().extension().wstring();
        const bool wanted = std::ranges::any_of(
            extensions, [&](const std::wstring& text) { return equalNames(text, extension); });
        if (wanted && entry->is_regular_file(ignored)) files.push_back(entry->path());
    }
    std::ranges::sort(files);
    return files;
}

} // namespace

std::vector<Bytes> readCertificateFile(const fs::path& path) {
    std::error_code error;
    const std::uintmax_t length = fs::file_size(path, error);
    if (error || length > kLargestFile) return {};
    Bytes content(static_cast<std::size_t>(length));
    std::ifstream file(path, std::ios::binary);
    file.read(reinterpret_cast<char*>(content.data()), static_cast<std::streamsize>(content.size()));
    content.resize(static_cast<std::size_t>(file.gcount()));
    return certificatesIn(content);
}

NamedCertificates readCertificateFolder(std::string_view folder, const std::vector<std::string>& extensions) {
    std::vector<std::wstring> wanted;
    wanted.reserve(extensions.size());
    for (const std::string& extension : extensions)
        wanted.push_back(fromSystemCodePage(extension));
    NamedCertificates result;
    for (const fs::path& path : filesWithExtensions(fromSystemCodePage(folder), wanted)) {
        const std::string name = toSystemCodePage(path.filename().wstring());
        std::vector<Bytes> certificates = readCertificateFile(path);
        if (certificates.empty()) report(name + " is skipped: there is no certificate in it");
        for (Bytes& der : certificates)
            result.emplace_back(name, std::move(der));
    }
    return result;
}

} // namespace veltra::softtoken
