#pragma once

#include "output.h"

#include <cstddef>
#include <filesystem>
#include <functional>
#include <span>
#include <vector>

namespace veltra {

/// Reads a file of at most `maxBytes` bytes; a larger or unreadable one throws a CommandError.
std::vector<unsigned char> readSmallFile(const std::filesystem::path& path, std::size_t maxBytes);

/// Hands a file of any size to `consume` piece by piece, in order; an unreadable file throws a CommandError.
void readInPieces(const std::filesystem::path& path,
                  const std::function<void(std::span<const unsigned char>)>& consume);

/// Writes a file, replacing an existing one only once the new content is complete on disk.
void replaceFile(const std::filesystem::path& path, std::span<const unsigned char> content);

/// The same, or hexadecimal digits to the output when `path` is empty.
void writeOrPrint(const std::filesystem::path& path, std::span<const unsigned char> content, Output& out);

/// Throws a CommandError when writing `output` would overwrite `input`.
void requireDifferentFiles(const std::filesystem::path& input, const std::filesystem::path& output);

} // namespace veltra
