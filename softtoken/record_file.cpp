#include "record_file.h"

#include "foundation/windows.h"

#include <array>
#include <memory>

namespace veltra::softtoken {

namespace fs = std::filesystem;

namespace {

constexpr DWORD kLargestRecord = 64 * 1024;
constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr int kAttempts = 200;
constexpr DWORD kPauseMs = 10;
constexpr ULONGLONG kLockLimitMs = 30'000;

struct HandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const noexcept { CloseHandle(handle); }
};
using FileHandle = std::unique_ptr<HANDLE, HandleCloser>;

[[noreturn]] void failStorage(const char* what, const fs::path& path, DWORD error) {
    throw TokenError(error == ERROR_ALREADY_EXISTS || error == ERROR_FILE_EXISTS ? Failure::AlreadyExists
                                                                                 : Failure::Storage,
                     std::string(what) + " " + path.string() + ": system error " + std::to_string(error));
}

bool isMissing(DWORD error) {
    return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

/// Runs `operation` until it succeeds; others that have the file open make it fail for a moment. Returns the
/// last error, 0 for success.
template <class Operation>
DWORD retryWhileShared(Operation operation) {
    for (int attempt = 1;; ++attempt) {
        if (operation()) return ERROR_SUCCESS;
        const DWORD error = GetLastError();
        const bool momentary = error == ERROR_SHARING_VIOLATION || error == ERROR_ACCESS_DENIED;
        if (!momentary || attempt == kAttempts) return error;
        Sleep(kPauseMs);
    }
}

bool isFolder(const fs::path& path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

/// An open file; a null result leaves the reason in `error`.
FileHandle openFile(const fs::path& path, DWORD access, DWORD disposition, DWORD& error) {
    HANDLE file = INVALID_HANDLE_VALUE;
    error = retryWhileShared([&] {
        file = CreateFileW(path.c_str(), access, kShareAll, nullptr, disposition, FILE_ATTRIBUTE_NORMAL,
                           nullptr);
        if (file != INVALID_HANDLE_VALUE) return true;
        // The system denies access to a folder, as it does to a file in use: waiting does not help here.
        const DWORD reason = GetLastError();
        SetLastError(reason == ERROR_ACCESS_DENIED && isFolder(path) ? ERROR_DIRECTORY : reason);
        return false;
    });
    return error == ERROR_SUCCESS ? FileHandle(file) : FileHandle();
}

std::array<unsigned char, 32> sha256(BytesView data) {
    initialiseCrypto();
    std::array<unsigned char, 32> digest{};
    gcry_md_hash_buffer(GCRY_MD_SHA256, digest.data(), data.data(), data.size());
    return digest;
}

std::optional<Bytes> readFile(const fs::path& path) {
    DWORD error = 0;
    const FileHandle file = openFile(path, GENERIC_READ, OPEN_EXISTING, error);
    if (!file) {
        if (isMissing(error)) return std::nullopt;
        if (error == ERROR_DIRECTORY) throw TokenError(Failure::Damaged, "it is a folder");
        failStorage("cannot open", path, error);
    }
    Bytes content(kLargestRecord + 1);
    DWORD length = 0;
    if (!ReadFile(file.get(), content.data(), static_cast<DWORD>(content.size()), &length, nullptr)) {
        failStorage("cannot read", path, GetLastError());
    }
    content.resize(length);
    return content;
}

void writeFile(const fs::path& path, BytesView content) {
    DWORD error = 0;
    const FileHandle file = openFile(path, GENERIC_WRITE, CREATE_NEW, error);
    if (!file) failStorage("cannot create", path, error);
    DWORD written = 0;
    if (!WriteFile(file.get(), content.data(), static_cast<DWORD>(content.size()), &written, nullptr) ||
        written != content.size() || !FlushFileBuffers(file.get())) {
        failStorage("cannot write", path, GetLastError());
    }
}

Expression openEnvelope(BytesView content, const char* kind) {
    if (content.size() > kLargestRecord) throw TokenError(Failure::Damaged, "too long");
    const Expression envelope = Expression::parse(content);
    if (envelope.kind() != "veltra-record-1")
        throw TokenError(Failure::Damaged, "not a record of this version");
    const Expression body = envelope.list("body");
    if (!equalConstantTime(sha256(body.canonical()), envelope.bytes("sha256"))) {
        throw TokenError(Failure::Damaged, "the checksum does not match");
    }
    return body.list(kind);
}

} // namespace

bool parseRecord(const fs::path& path, const char* kind,
                 const std::function<void(const Expression&)>& parse) {
    try {
        const std::optional<Bytes> content = readFile(path);
        if (content) parse(openEnvelope(*content, kind));
        return content.has_value();
    } catch (const TokenError& error) {
        if (error.failure() != Failure::Damaged) throw;
        throw TokenError(Failure::Damaged, path.string() + " is damaged (" + error.what() + ")");
    }
}

void writeRecord(const fs::path& path, const Expression& record, Overwrite overwrite) {
    const Expression body = Expression::build("(body %S)", record.get());
    const Bytes content = Expression::build("(veltra-record-1 %S %S)", body.get(),
                                            Expression::field("sha256", sha256(body.canonical())).get())
                              .canonical();
    fs::path temporary = path;
    temporary += '.';
    temporary += toHex(randomBytes(8));
    temporary += kTemporaryExtension;
    try {
        writeFile(temporary, content);
        movePath(temporary, path, overwrite);
    } catch (...) {
        DeleteFileW(temporary.c_str());
        throw;
    }
}

fs::path copyOf(const fs::path& path) {
    fs::path copy = path;
    return copy += ".copy";
}

void writeRecordTwice(const fs::path& path, const Expression& record, const char* kind,
                      const std::function<void(const Expression&)>& parse) {
    std::optional<TokenError> damage;
    bool written = false;
    for (const fs::path& file : {copyOf(path), path}) {
        try {
            parseRecord(file, kind, parse);
        } catch (const TokenError& error) {
            report(std::string("one of two copies is not replaced: ") + error.what());
            damage = error;
            continue;
        }
        writeRecord(file, record, Overwrite::Allowed);
        written = true;
    }
    if (!written) throw TokenError(*damage);
}

void movePath(const fs::path& from, const fs::path& to, Overwrite overwrite) {
    const DWORD flags =
        MOVEFILE_WRITE_THROUGH | (overwrite == Overwrite::Allowed ? MOVEFILE_REPLACE_EXISTING : 0u);
    const DWORD error = retryWhileShared([&] { return MoveFileExW(from.c_str(), to.c_str(), flags) != 0; });
    if (error != ERROR_SUCCESS) failStorage("cannot replace", to, error);
}

void removeFile(const fs::path& path) {
    const DWORD error = retryWhileShared([&] { return DeleteFileW(path.c_str()) != 0; });
    if (error != ERROR_SUCCESS && !isMissing(error)) failStorage("cannot delete", path, error);
}

void makeFolder(const fs::path& path) {
    if (CreateDirectoryW(path.c_str(), nullptr)) return;
    const DWORD error = GetLastError();
    if (error != ERROR_ALREADY_EXISTS) failStorage("cannot create the folder", path, error);
}

FileLock::FileLock(const fs::path& path) {
    DWORD error = 0;
    FileHandle file = openFile(path, GENERIC_READ | GENERIC_WRITE, OPEN_ALWAYS, error);
    if (!file) failStorage("cannot open the lock", path, error);
    const ULONGLONG start = GetTickCount64();
    OVERLAPPED range{};
    while (!LockFileEx(file.get(), LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &range)) {
        error = GetLastError();
        if (error != ERROR_LOCK_VIOLATION && error != ERROR_IO_PENDING)
            failStorage("cannot lock", path, error);
        if (GetTickCount64() - start > kLockLimitMs) {
            throw TokenError(Failure::Busy, "another program holds " + path.string() + " for too long");
        }
        Sleep(kPauseMs);
    }
    file_ = file.release();
}

FileLock::~FileLock() {
    if (file_ != nullptr) CloseHandle(file_); // the lock goes with it
}

} // namespace veltra::softtoken
