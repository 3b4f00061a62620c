#include "token_store.h"

#include "foundation/windows.h"
#include "pin_vault.h"

#include <algorithm>
#include <array>
#include <cctype>

namespace veltra::softtoken {

namespace fs = std::filesystem;

namespace {

constexpr std::size_t kTokenIdLength = 16;

bool isSerialCharacter(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '-' ||
           c == '_' || c == '.';
}

/// Windows opens a device instead of a file under these names, whatever follows a dot.
bool isDeviceName(std::string_view serial) {
    std::string stem(serial.substr(0, serial.find('.')));
    std::transform(stem.begin(), stem.end(), stem.begin(),
                   [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
    constexpr std::array<std::string_view, 4> kNames = {"CON", "PRN", "AUX", "NUL"};
    if (std::find(kNames.begin(), kNames.end(), stem) != kNames.end()) return true;
    return stem.size() == 4 && (stem.starts_with("COM") || stem.starts_with("LPT")) && stem[3] >= '0' &&
           stem[3] <= '9';
}

bool isValidSerial(std::string_view serial) {
    return !serial.empty() && serial.size() <= kMaxSerialLength && serial.front() != '.' &&
           serial.back() != '.' && std::all_of(serial.begin(), serial.end(), isSerialCharacter) &&
           !isDeviceName(serial);
}

std::wstring environmentValue(const wchar_t* name) {
    std::wstring value(32'768, L'\0');
    value.resize(GetEnvironmentVariableW(name, value.data(), static_cast<DWORD>(value.size())));
    return value;
}

Expression toExpression(const TokenDescription& description) {
    return Expression::build(
        "(token %S %S %S %S %S %S %S %S %S)", Expression::field("serial", bytesOf(description.serial)).get(),
        Expression::field("token-id", description.tokenId).get(),
        Expression::field("label", bytesOf(description.label)).get(),
        Expression::field("fips", bytesOf(description.fips == FipsGeneration::Fips1402 ? "140-2" : "140-3"))
            .get(),
        Expression::field("firmware", bytesOf(description.firmware)).get(),
        Expression::field("session-seconds", description.sessionSeconds).get(),
        Expression::field("clock-mismatch", description.clockMismatch ? 1 : 0).get(),
        Expression::field("plugged", description.plugged ? 1 : 0).get(),
        Expression::field("plug-count", description.plugCount).get());
}

TokenDescription fromExpression(const Expression& record) {
    TokenDescription description;
    description.serial = record.text("serial");
    description.tokenId = record.bytes("token-id");
    description.label = record.text("label");
    description.fips = record.text("fips") == "140-2" ? FipsGeneration::Fips1402 : FipsGeneration::Fips1403;
    description.firmware = record.text("firmware");
    description.sessionSeconds = static_cast<std::uint32_t>(record.number("session-seconds"));
    description.clockMismatch = record.number("clock-mismatch") != 0;
    description.plugged = record.number("plugged") != 0;
    description.plugCount = record.number("plug-count");
    return description;
}

void requireUsableTexts(const TokenDescription& description) {
    if (description.label.size() > kLabelMaxLength) {
        throw TokenError(Failure::BadArgument, "the label is longer than 128 bytes");
    }
    if (description.firmware.empty() || description.firmware.size() > 32) {
        throw TokenError(Failure::BadArgument, "the firmware version must have 1 to 32 characters");
    }
}

// Names that are never taken for a token's: of one that is being made, and of those that are being deleted.
constexpr std::string_view kNewPrefix = ".new-";
constexpr std::string_view kDeletedPrefix = ".deleted-";

/// Best effort: what is left behind is not taken for a token.
void removeTree(const fs::path& path) noexcept {
    std::error_code ignored;
    fs::remove_all(path, ignored);
}

/// Also those that somebody who was killed did not finish with.
void removeDeletedTokens() {
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator(homeFolder(), ignored)) {
        if (entry.path().filename().string().starts_with(kDeletedPrefix)) removeTree(entry.path());
    }
}

/// Takes away what a writer left behind when it was killed. The caller holds the token's lock, so nobody is
/// writing.
void removeTemporaryFiles(const fs::path& token) {
    std::vector<fs::path> left;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(token, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() == kTemporaryExtension) left.push_back(entry->path());
    }
    for (const fs::path& path : left)
        fs::remove(path, error);
}

} // namespace

TokenFolder::TokenFolder(std::string_view serial) : serial_(serial) {
    if (!isValidSerial(serial)) {
        throw TokenError(Failure::BadArgument,
                         "a serial has 1 to 64 letters, digits, '-', '_' or '.', does not "
                         "begin or end with '.' and is not a Windows device name");
    }
    path_ = homeFolder() / serial_;
}

bool TokenFolder::exists() const {
    const DWORD attributes = GetFileAttributesW(path_.c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

FileLock TokenFolder::lock() const {
    // Beside the tokens, not in their folders: a folder with an open file in it cannot be moved away.
    const fs::path locks = homeFolder() / ".locks";
    std::error_code ignored;
    fs::create_directories(homeFolder(), ignored);
    makeFolder(locks);
    FileLock lock(locks / serial_);
    removeTemporaryFiles(path_);
    return lock;
}

TokenDescription TokenFolder::description() const {
    std::vector<TokenDescription> found =
        readRecordTwice(path_ / "token", "token", fromExpression, Copies::First);
    // File names ignore case, serials do not.
    if (found.empty() || found.front().serial != serial_)
        throw TokenError(Failure::NoSuchToken, "there is no token " + serial_);
    return std::move(found.front());
}

TokenDescription TokenFolder::pluggedDescription() const {
    TokenDescription result = description();
    if (!result.plugged)
        throw TokenError(Failure::NoSuchToken, "the token " + serial_ + " is not plugged in");
    return result;
}

void TokenFolder::saveDescription(const TokenDescription& description) const {
    requireUsableTexts(description);
    writeRecordTwice(path_ / "token", toExpression(description), "token", fromExpression);
}

fs::path homeFolder() {
    if (const std::wstring home = environmentValue(L"VELTRA_SOFTTOKEN_HOME"); !home.empty()) return {home};
    const std::wstring local = environmentValue(L"LOCALAPPDATA");
    if (local.empty()) {
        throw TokenError(Failure::Storage, "neither VELTRA_SOFTTOKEN_HOME nor LOCALAPPDATA names a folder");
    }
    return fs::path(local) / "Veltra" / "SoftToken";
}

std::vector<TokenDescription> listTokens() {
    std::vector<TokenDescription> tokens;
    std::error_code error;
    for (fs::directory_iterator entry(homeFolder(), error), end; !error && entry != end;
         entry.increment(error)) {
        const std::string name = entry->path().filename().string();
        if (!isValidSerial(name)) continue;
        try {
            tokens.push_back(TokenFolder(name).description());
        } catch (const TokenError& failure) {
            report(name + " is skipped: " + failure.what());
        }
    }
    std::sort(tokens.begin(), tokens.end(), [](const TokenDescription& left, const TokenDescription& right) {
        return left.serial < right.serial;
    });
    return tokens;
}

void createToken(TokenDescription description, std::string_view pin, std::uint32_t attempts) {
    const TokenFolder token(description.serial);
    requireUsableTexts(description);
    const FileLock lock = token.lock();
    if (token.exists())
        throw TokenError(Failure::AlreadyExists, "there is a token " + token.serial() + " already");

    description.tokenId = randomBytes(kTokenIdLength);
    const fs::path scratch = homeFolder() / (std::string(kNewPrefix) + token.serial());
    try {
        removeTree(scratch);
        makeFolder(scratch);
        makeFolder(scratch / "keys");
        writeRecordTwice(scratch / "token", toExpression(description), "token", fromExpression);
        PinVault(scratch).create(description.tokenId, pin, attempts);
        movePath(scratch, token.path(), Overwrite::Refused);
    } catch (...) {
        removeTree(scratch);
        throw;
    }
}

void deleteToken(const TokenFolder& token) {
    const FileLock lock = token.lock();
    if (!token.exists()) throw TokenError(Failure::NoSuchToken, "there is no token " + token.serial());
    movePath(token.path(), homeFolder() / (std::string(kDeletedPrefix) + toHex(randomBytes(8))),
             Overwrite::Refused);
    removeDeletedTokens();
}

void setPlugged(const TokenFolder& token, bool plugged) {
    const FileLock lock = token.lock();
    TokenDescription description = token.description();
    if (description.plugged == plugged) return;
    description.plugged = plugged;
    if (plugged) ++description.plugCount;
    token.saveDescription(description);
    if (!plugged) removeFile(token.path() / kSingleSignOnFile);
}

} // namespace veltra::softtoken
