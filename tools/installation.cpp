#include "installation.h"

#include "wide_text.h"

#include "foundation/text.h"
#include "foundation/win_handle.h"

#include <dbghelp.h>

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string_view>
#include <vector>

namespace veltra {
namespace {

constexpr std::size_t kPathCapacity = 32768;

DWORD highWord(DWORD value) {
    return value >> 16;
}
DWORD lowWord(DWORD value) {
    return value & 0xFFFF;
}

} // namespace

std::optional<CryptoApiEntry> readCryptoApiEntry(const std::wstring& provider, const RegistryView& view) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, (kCryptoApiProviders + provider).c_str(), 0, KEY_READ | view.flag,
                      &opened) != ERROR_SUCCESS) {
        return std::nullopt;
    }
    const UniqueRegistryKey key(opened);
    CryptoApiEntry entry;
    std::wstring image(kPathCapacity, L'\0');
    auto bytes = static_cast<DWORD>(image.size() * sizeof(wchar_t));
    if (RegGetValueW(key.get(), nullptr, L"Image Path", RRF_RT_REG_SZ, nullptr, image.data(), &bytes) ==
        ERROR_SUCCESS) {
        entry.image = image.substr(0, image.find(L'\0'));
    }
    bytes = sizeof entry.type;
    RegGetValueW(key.get(), nullptr, L"Type", RRF_RT_REG_DWORD, nullptr, &entry.type, &bytes);
    return entry;
}

std::filesystem::path findImage(const std::filesystem::path& image) {
    std::wstring found(kPathCapacity, L'\0');
    const DWORD length =
        SearchPathW(nullptr, image.c_str(), nullptr, static_cast<DWORD>(found.size()), found.data(), nullptr);
    return length < found.size() ? found.substr(0, length) : std::wstring();
}

std::string fileVersion(const std::filesystem::path& file) {
    DWORD ignored = 0;
    std::vector<std::byte> resource(GetFileVersionInfoSizeW(file.c_str(), &ignored));
    void* value = nullptr;
    UINT length = 0;
    if (resource.empty() ||
        !GetFileVersionInfoW(file.c_str(), 0, static_cast<DWORD>(resource.size()), resource.data()) ||
        !VerQueryValueW(resource.data(), L"\\", &value, &length) || length < sizeof(VS_FIXEDFILEINFO)) {
        return {};
    }
    VS_FIXEDFILEINFO info{};
    std::memcpy(&info, value, sizeof info);
    return concat(highWord(info.dwFileVersionMS), ".", lowWord(info.dwFileVersionMS), ".",
                  highWord(info.dwFileVersionLS), ".", lowWord(info.dwFileVersionLS));
}

unsigned fileBits(const std::filesystem::path& file) {
    std::ifstream stream(file, std::ios::binary);
    const auto read = [&](auto& record, std::streamoff offset) {
        stream.seekg(offset);
        stream.read(reinterpret_cast<char*>(&record), sizeof record);
        return stream.good();
    };
    IMAGE_DOS_HEADER start{};
    IMAGE_NT_HEADERS32 headers{};
    const bool isProgram = read(start, 0) && start.e_magic == IMAGE_DOS_SIGNATURE &&
                           read(headers, start.e_lfanew) && headers.Signature == IMAGE_NT_SIGNATURE;
    if (!isProgram) return 0;
    return headers.FileHeader.Machine == IMAGE_FILE_MACHINE_I386 ? 32 : 64;
}

std::set<std::string> exportedNames(const std::filesystem::path& file) {
    std::set<std::string> names;
    std::ifstream stream(file, std::ios::binary);
    std::vector<char> image{std::istreambuf_iterator(stream), {}};
    auto* const headers = fileBits(file) != 0 ? ImageNtHeader(image.data()) : nullptr;
    if (headers == nullptr) return names;
    // What the file has from this place in it on; nothing where it does not reach.
    const auto from = [&](const void* place) -> std::string_view {
        const auto* const first = static_cast<const char*>(place);
        const char* const end = image.data() + image.size();
        if (first == nullptr || first < image.data() || first > end) return {};
        return {first, static_cast<std::size_t>(end - first)};
    };
    const auto at = [&](DWORD address) {
        return from(ImageRvaToVa(headers, image.data(), address, nullptr));
    };
    ULONG length = 0;
    const std::string_view directory =
        from(ImageDirectoryEntryToData(image.data(), FALSE, IMAGE_DIRECTORY_ENTRY_EXPORT, &length));
    IMAGE_EXPORT_DIRECTORY exports{};
    if (directory.size() < sizeof exports) return names;
    std::memcpy(&exports, directory.data(), sizeof exports);
    const std::string_view addresses = at(exports.AddressOfNames);
    const std::size_t count = std::min<std::size_t>(exports.NumberOfNames, addresses.size() / sizeof(DWORD));
    for (std::size_t i = 0; i < count; ++i) {
        DWORD address = 0;
        std::memcpy(&address, addresses.data() + i * sizeof address, sizeof address);
        const std::string_view text = at(address);
        names.emplace(text.substr(0, text.find('\0')));
    }
    return names;
}

std::filesystem::path systemFolder(unsigned bits) {
    std::wstring folder(kPathCapacity, L'\0');
    const bool isOwn = bits == 8 * sizeof(void*);
    if (!isOwn && bits == 64) { // the name under which 32-bit programs see it
        folder.resize(GetWindowsDirectoryW(folder.data(), kPathCapacity));
        return std::filesystem::path(folder) / "Sysnative";
    }
    folder.resize(isOwn ? GetSystemDirectoryW(folder.data(), kPathCapacity)
                        : GetSystemWow64DirectoryW(folder.data(), kPathCapacity));
    return folder;
}

std::string platformName() {
    const HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
    if (const FARPROC wineVersion = GetProcAddress(ntdll, "wine_get_version")) {
        return concat("Wine ", std::bit_cast<const char*(__cdecl*)()>(wineVersion)());
    }
    RTL_OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    if (const FARPROC getVersion = GetProcAddress(ntdll, "RtlGetVersion")) {
        std::bit_cast<LONG(WINAPI*)(RTL_OSVERSIONINFOW*)>(getVersion)(&version);
    }
    return concat("Windows ", version.dwMajorVersion, ".", version.dwMinorVersion, ".",
                  version.dwBuildNumber);
}

} // namespace veltra
