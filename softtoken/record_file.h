#pragma once

#include "expression.h"

#include <chrono>
#include <filesystem>
#include <optional>

namespace veltra::softtoken {

/// Reads the record of `kind` that writeRecord() stored at `path`; nothing when there is no such file.
/// Failure::Damaged when it was cut, changed or is of another kind, Failure::Storage when it cannot be read.
std::optional<Expression> readRecord(const std::filesystem::path& path, const char* kind);

enum class Overwrite { Allowed, Refused };

/// Stores `record` at `path` together with its SHA-256: written to a temporary file in the same folder,
/// flushed to the disk and moved into place, so that a reader, and a crash, see the old file or the new one.
/// Refused: Failure::AlreadyExists when there is a file. Failure::Storage when the file system refuses.
void writeRecord(const std::filesystem::path& path, const Expression& record, Overwrite overwrite);

/// Moves a file or folder, waiting a moment for others that have it open. Failure::AlreadyExists,
/// Failure::Storage.
void movePath(const std::filesystem::path& from, const std::filesystem::path& to, Overwrite overwrite);

/// Deletes a file; a missing one is fine. Failure::Storage.
void removeFile(const std::filesystem::path& path);

/// Failure::Storage unless the folder is there afterwards. The folder above it must exist.
void makeFolder(const std::filesystem::path& path);

/// An exclusive lock between threads and processes, held through an open lock file: the system releases it
/// when its holder dies. Failure::Busy when it is not free within half a minute.
class FileLock {
public:
    explicit FileLock(const std::filesystem::path& path);
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    ~FileLock();

private:
    void* file_;
};

} // namespace veltra::softtoken
