#include "session.h"

#include "foundation/windows.h"
#include "sealed_data.h"

#include <dpapi.h>

namespace veltra::softtoken {

namespace {

constexpr std::uint64_t kFileTimePerSecond = 10'000'000;

/// System time in units of 100 ns since 1601, which all processes share.
std::uint64_t systemTime() {
    FILETIME now{};
    GetSystemTimeAsFileTime(&now);
    return (std::uint64_t{now.dwHighDateTime} << 32) | now.dwLowDateTime;
}

/// A view of bytes for the data protection calls, which take non-const pointers and do not write through
/// them.
DATA_BLOB blobOf(BytesView bytes) {
    return {static_cast<DWORD>(bytes.size()), const_cast<BYTE*>(bytes.data())};
}

/// Output of the data protection calls; wiped and released.
class ProtectedOutput {
public:
    ProtectedOutput() = default;
    ProtectedOutput(const ProtectedOutput&) = delete;
    ProtectedOutput& operator=(const ProtectedOutput&) = delete;
    ~ProtectedOutput() {
        if (blob_.pbData == nullptr) return;
        SecureZeroMemory(blob_.pbData, blob_.cbData);
        LocalFree(blob_.pbData);
    }

    [[nodiscard]] DATA_BLOB* get() noexcept { return &blob_; }
    [[nodiscard]] BytesView bytes() const noexcept { return {blob_.pbData, blob_.cbData}; }

private:
    DATA_BLOB blob_{};
};

Bytes protect(BytesView secret, BytesView binding) {
    DATA_BLOB input = blobOf(secret);
    DATA_BLOB entropy = blobOf(binding);
    ProtectedOutput output;
    if (!CryptProtectData(&input, L"Veltra software token session", &entropy, nullptr, nullptr,
                          CRYPTPROTECT_UI_FORBIDDEN, output.get())) {
        throw TokenError(Failure::Storage,
                         "CryptProtectData: system error " + std::to_string(GetLastError()));
    }
    return {output.bytes().begin(), output.bytes().end()};
}

SecureBytes unprotect(BytesView stored, BytesView binding) {
    DATA_BLOB input = blobOf(stored);
    DATA_BLOB entropy = blobOf(binding);
    ProtectedOutput output;
    if (!CryptUnprotectData(&input, nullptr, &entropy, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN,
                            output.get())) {
        throw TokenError(Failure::Damaged,
                         "CryptUnprotectData: system error " + std::to_string(GetLastError()));
    }
    return {output.bytes().begin(), output.bytes().end()};
}

/// The open part of a shared session. Its canonical form is bound into the protected part, so that a changed
/// end does not unlock anything.
Expression sessionTerms(const TokenDescription& description, std::uint64_t endsAt) {
    return Expression::build("(terms %S %S %S)", Expression::field("token-id", description.tokenId).get(),
                             Expression::field("plug-count", description.plugCount).get(),
                             Expression::field("ends-at", endsAt).get());
}

struct SharedSession {
    std::uint64_t endsAt;
    Bytes terms;
    Bytes protectedSecret;
};

/// The session file, when it is for this token as it is plugged in now; it may have ended.
std::optional<SharedSession> readShared(const TokenFolder& token, const TokenDescription& description) {
    try {
        std::optional<SharedSession> session =
            readRecord(token.path() / kSingleSignOnFile, "session", [](const Expression& record) {
                return SharedSession{record.number("ends-at"), record.list("terms").canonical(),
                                     record.bytes("protected")};
            });
        if (session && session->terms != sessionTerms(description, session->endsAt).canonical())
            session.reset();
        return session;
    } catch (const TokenError& error) {
        report(std::string("the single sign-on session is ignored: ") + error.what());
        return std::nullopt;
    }
}

/// Takes an ended session's key off the disk, unless somebody has just begun a new session.
void removeEnded(const TokenFolder& token, const TokenDescription& description) {
    const FileLock lock = token.lock();
    const std::optional<SharedSession> session = readShared(token, description);
    if (session && session->endsAt <= systemTime()) removeFile(token.path() / kSingleSignOnFile);
}

std::optional<SharedSession> readLive(const TokenFolder& token, const TokenDescription& description) {
    std::optional<SharedSession> session = readShared(token, description);
    if (!session || session->endsAt > systemTime()) return session;
    removeEnded(token, description);
    return std::nullopt;
}

} // namespace

UnlockedToken::UnlockedToken(SecureBytes masterKey, std::string_view pin)
    : masterKey_(std::move(masterKey)), verifierKey_(kSealingKeyLength) {
    fillRandom(verifierKey_);
    verifier_ = hmacSha256(verifierKey_, bytesOf(pin));
}

UnlockedToken::UnlockedToken(const Expression& stored)
    : masterKey_(stored.secureBytes("master-key")), verifierKey_(stored.secureBytes("verifier-key")),
      verifier_(stored.bytes("verifier")) {}

Expression UnlockedToken::toExpression() const {
    return Expression::build("(unlocked %S %S %S)", Expression::field("master-key", masterKey_).get(),
                             Expression::field("verifier-key", verifierKey_).get(),
                             Expression::field("verifier", verifier_).get());
}

bool UnlockedToken::isPin(std::string_view pin) const {
    return equalConstantTime(hmacSha256(verifierKey_, bytesOf(pin)), verifier_);
}

ProcessSessions& ProcessSessions::instance() {
    // Never destroyed: at process exit a killed thread may have left the mutex locked.
    static auto& sessions = *new ProcessSessions;
    return sessions;
}

void ProcessSessions::open(const TokenFolder& token, const TokenDescription& description,
                           UnlockedToken unlocked) {
    const std::uint64_t endsAt = description.sessionSeconds == 0
                                     ? 0
                                     : GetTickCount64() + std::uint64_t{description.sessionSeconds} * 1000;
    const std::lock_guard guard(mutex_);
    sessions_.insert_or_assign(
        token.path(), Session{description.tokenId, description.plugCount, endsAt, std::move(unlocked)});
}

void ProcessSessions::close(const TokenFolder& token) {
    const std::lock_guard guard(mutex_);
    sessions_.erase(token.path());
}

std::optional<UnlockedToken> ProcessSessions::find(const TokenFolder& token,
                                                   const TokenDescription& description) {
    const std::lock_guard guard(mutex_);
    const auto found = sessions_.find(token.path());
    if (found == sessions_.end()) return std::nullopt;
    const Session& session = found->second;
    const bool live = session.tokenId == description.tokenId && session.plugCount == description.plugCount &&
                      (session.endsAtMs == 0 || GetTickCount64() < session.endsAtMs);
    if (live) return session.unlocked;
    sessions_.erase(found);
    return std::nullopt;
}

void startSingleSignOn(const TokenFolder& token, const TokenDescription& description,
                       const UnlockedToken& unlocked, std::uint32_t seconds) {
    const Expression terms = sessionTerms(description, systemTime() + seconds * kFileTimePerSecond);
    const Bytes secret = protect(unlocked.toExpression().secureCanonical(), terms.canonical());
    // A damaged session is replaced: it holds nothing that cannot be had again by logging in.
    writeRecord(
        token.path() / kSingleSignOnFile,
        Expression::build("(session %S %S)", terms.get(), Expression::field("protected", secret).get()),
        Overwrite::Allowed);
}

std::uint64_t singleSignOnSecondsLeft(const TokenFolder& token, const TokenDescription& description) {
    const std::optional<SharedSession> session = readLive(token, description);
    if (!session) return 0;
    const std::uint64_t now = systemTime();
    return session->endsAt <= now ? 0 : (session->endsAt - now + kFileTimePerSecond - 1) / kFileTimePerSecond;
}

std::optional<UnlockedToken> findSingleSignOn(const TokenFolder& token, const TokenDescription& description) {
    const std::optional<SharedSession> session = readLive(token, description);
    if (!session) return std::nullopt;
    try {
        return UnlockedToken(Expression::parse(unprotect(session->protectedSecret, session->terms)));
    } catch (const TokenError& error) {
        report(std::string("the single sign-on session is ignored: ") + error.what());
        return std::nullopt;
    }
}

void endSingleSignOn(const TokenFolder& token) {
    const FileLock lock = token.lock();
    removeFile(token.path() / kSingleSignOnFile);
}

UnlockedToken requireSession(const TokenFolder& token, const TokenDescription& description,
                             std::string_view pin) {
    std::optional<UnlockedToken> unlocked = ProcessSessions::instance().find(token, description);
    if (!unlocked) unlocked = findSingleSignOn(token, description);
    if (!unlocked) throw TokenError(Failure::SessionExpired, "the session of " + token.serial() + " is over");
    if (!pin.empty() && !unlocked->isPin(pin)) throw TokenError(Failure::WrongPin, "the PIN is wrong");
    return std::move(*unlocked);
}

} // namespace veltra::softtoken
