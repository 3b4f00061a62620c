#pragma once

#include "gcrypt_support.h"

#include <filesystem>
#include <string>
#include <utility>

namespace veltra::softtoken {

using NamedCertificates = std::vector<std::pair<std::string, Bytes>>; ///< file name, DER

/// The certificates in a file, PEM or DER; none when it is longer than 4 MiB or cannot be read.
std::vector<Bytes> readCertificateFile(const std::filesystem::path& path);

/// The certificates in all files of `folder` (not of folders in it) whose names end in one of `extensions`
/// (".cer"; case does not matter), sorted by file name, within a file in their order. A file with several
/// certificates gives several pairs; files that cannot be read are reported and left out; a folder that is
/// not there has no files. Texts are in the system's code page.
NamedCertificates readCertificateFolder(std::string_view folder, const std::vector<std::string>& extensions);

} // namespace veltra::softtoken
