#pragma once

#include "token_store.h"

#include <map>
#include <mutex>

namespace veltra::softtoken {

/// What a validated PIN opened: the master key, and enough to recognise the PIN when it comes again.
class UnlockedToken {
public:
    UnlockedToken(SecureBytes masterKey, std::string_view pin);
    /// "(unlocked ..)", the form in which it is stored, protected.
    explicit UnlockedToken(const Expression& stored);
    [[nodiscard]] Expression toExpression() const;

    [[nodiscard]] const SecureBytes& masterKey() const noexcept { return masterKey_; }
    [[nodiscard]] bool isPin(std::string_view pin) const;

private:
    SecureBytes masterKey_;
    SecureBytes verifierKey_;
    Bytes verifier_; ///< HMAC of the PIN
};

/// The sessions of this process: one for each token whose PIN was validated here. A session ends when its
/// time is up, and when the token is unplugged or made anew. Thread-safe.
class ProcessSessions {
public:
    static ProcessSessions& instance();

    void open(const TokenFolder& token, const TokenDescription& description, UnlockedToken unlocked);
    void close(const TokenFolder& token);
    /// Nothing when there is no live session.
    [[nodiscard]] std::optional<UnlockedToken> find(const TokenFolder& token,
                                                    const TokenDescription& description);

private:
    struct Session {
        Bytes tokenId;
        std::uint64_t plugCount;
        std::uint64_t endsAtMs; ///< on the clock of GetTickCount64; 0: no limit
        UnlockedToken unlocked;
    };

    std::mutex mutex_;
    std::map<std::filesystem::path, Session> sessions_;
};

/// Starts the session that all processes of this user share, for `seconds` from now. The file is protected
/// for the user by CryptProtectData. The caller holds the token's lock.
void startSingleSignOn(const TokenFolder& token, const TokenDescription& description,
                       const UnlockedToken& unlocked, std::uint32_t seconds);

/// Seconds left of the token's shared session; 0 when there is none. Removes the file of one that has ended.
std::uint64_t singleSignOnSecondsLeft(const TokenFolder& token, const TokenDescription& description);

/// Nothing when there is no live shared session or its file is damaged, which is reported.
std::optional<UnlockedToken> findSingleSignOn(const TokenFolder& token, const TokenDescription& description);

/// Ends the shared session, if there is one.
void endSingleSignOn(const TokenFolder& token);

/// What a PIN-using operation works with: this process' session or the shared one. Failure::SessionExpired
/// when neither is live; Failure::WrongPin when `pin` is neither empty nor the one that opened the session
/// (the attempts are not touched).
UnlockedToken requireSession(const TokenFolder& token, const TokenDescription& description,
                             std::string_view pin);

} // namespace veltra::softtoken
