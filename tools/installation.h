#pragma once

#include "foundation/windows.h"

#include <array>
#include <filesystem>
#include <optional>
#include <set>
#include <string>

namespace veltra {

/// The registry as 64-bit and as 32-bit programs see it. A 32-bit Windows has one for both.
struct RegistryView {
    const char* programs;
    REGSAM flag;
    unsigned bits;

    /// Whether this program belongs to those that see it.
    [[nodiscard]] bool isOwn() const { return bits == 8 * sizeof(void*); }
};
inline constexpr std::array kRegistryViews = {RegistryView{"64-bit programs", KEY_WOW64_64KEY, 64},
                                              RegistryView{"32-bit programs", KEY_WOW64_32KEY, 32}};

/// Where CryptoAPI's entries of providers are, below HKEY_LOCAL_MACHINE; the provider's name follows.
inline constexpr const wchar_t* kCryptoApiProviders =
    L"SOFTWARE\\Microsoft\\Cryptography\\Defaults\\Provider\\";

/// What CryptoAPI knows of a provider.
struct CryptoApiEntry {
    std::filesystem::path image; ///< as it is written; empty when it is missing or no text
    DWORD type = 0;              ///< PROV_RSA_FULL, ...; 0 when it is missing or no number
};

/// Nothing when the provider has no entry in this view.
std::optional<CryptoApiEntry> readCryptoApiEntry(const std::wstring& provider, const RegistryView& view);

/// The file that the system loads for an image path, which may be a name without a folder; empty when there
/// is none.
std::filesystem::path findImage(const std::filesystem::path& image);

/// The version resource of a file: "1.0.0.0"; empty when it has none.
std::string fileVersion(const std::filesystem::path& file);

/// 64 or 32 for a program file (PE) of that kind, 0 for any other file.
unsigned fileBits(const std::filesystem::path& file);

/// The names that a program file (PE) of either kind exports, as far as the file has them. The system's
/// functions that read it need not be proof against a damaged one: for a probe.
std::set<std::string> exportedNames(const std::filesystem::path& file);

/// The folder of the system's DLLs for 64- or 32-bit programs; empty when the system does not tell it.
std::filesystem::path systemFolder(unsigned bits);

/// Whether the platform is Wine, and which: "Wine 8.0"; "Windows" for all others, with the version.
std::string platformName();

} // namespace veltra
