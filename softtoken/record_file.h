#pragma once

#include "expression.h"

#include <filesystem>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

namespace veltra::softtoken {

enum class Overwrite { Allowed, Refused };

/// Hands the record of `kind` that writeRecord() stored at `path` to `parse`; false when there is no such
/// file. Failure::Damaged, naming the file, when it was cut, changed or is of another kind, or when `parse`
/// throws that; Failure::Storage when it cannot be read.
bool parseRecord(const std::filesystem::path& path, const char* kind,
                 const std::function<void(const Expression&)>& parse);

/// parseRecord() with the result of `parse`; nothing when there is no such file.
template <class Parse, class Value = std::invoke_result_t<Parse, const Expression&>>
std::optional<Value> readRecord(const std::filesystem::path& path, const char* kind, Parse parse) {
    std::optional<Value> value;
    parseRecord(path, kind, [&](const Expression& record) { value.emplace(parse(record)); });
    return value;
}

/// Stores `record` at `path` together with its SHA-256: written to a temporary file in the same folder,
/// flushed to the disk and moved into place, so that a reader, and a crash, see the old file or the new one.
/// Refused: Failure::AlreadyExists when there is a file. Failure::Storage when the file system refuses.
void writeRecord(const std::filesystem::path& path, const Expression& record, Overwrite overwrite);

/// Where the second file of a record lies that is stored twice, because a token is lost without it.
std::filesystem::path copyOf(const std::filesystem::path& path);

/// The first of a record that writeRecordTwice() stored and of its copy that can be read, or both; what is
/// damaged is reported. Empty when neither is there; fails as parseRecord() does when none can be read.
enum class Copies { First, Both };
template <class Parse, class Value = std::invoke_result_t<Parse, const Expression&>>
std::vector<Value> readRecordTwice(const std::filesystem::path& path, const char* kind, Parse parse,
                                   Copies wanted) {
    std::vector<Value> values;
    std::optional<TokenError> damage;
    for (const std::filesystem::path& file : {path, copyOf(path)}) {
        if (wanted == Copies::First && !values.empty()) break;
        try {
            if (std::optional<Value> value = readRecord(file, kind, parse))
                values.push_back(std::move(*value));
        } catch (const TokenError& error) {
            if (!damage) damage = error;
            report(std::string("one of two copies is skipped: ") + error.what());
        }
    }
    if (values.empty() && damage) throw TokenError(*damage);
    return values;
}

/// Stores `record` at `path` and at its copy, the copy first. One that is damaged, which is what `parse`
/// finds, is reported and stays as it is for whoever can still repair it; Failure::Damaged when both are.
void writeRecordTwice(const std::filesystem::path& path, const Expression& record, const char* kind,
                      const std::function<void(const Expression&)>& parse);

/// The end of the names of files that are being written. One that is there while nobody writes was left
/// behind by a process that was killed.
constexpr const char* kTemporaryExtension = ".tmp";

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
    FileLock(FileLock&& other) noexcept : file_(std::exchange(other.file_, nullptr)) {}
    FileLock& operator=(FileLock&&) = delete;
    ~FileLock();

private:
    void* file_;
};

} // namespace veltra::softtoken
