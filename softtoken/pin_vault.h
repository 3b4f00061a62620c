#pragma once

#include "record_file.h"

#include <string_view>

namespace veltra::softtoken {

/// The PIN of one token: the master key sealed under a key derived from it, and the attempts left, both
/// stored twice. Whoever modifies it holds the token's lock.
class PinVault {
public:
    /// `tokenFolder` is the folder of the token's files.
    explicit PinVault(std::filesystem::path tokenFolder) : folder_(std::move(tokenFolder)) {}

    /// Stores a new random master key. Failure::BadArgument for a PIN or a number of attempts outside the
    /// limits.
    void create(BytesView tokenId, std::string_view pin, std::uint32_t attempts) const;

    /// Attempts left; 0: locked. The lower of the two numbers that are stored. Failure::Damaged.
    [[nodiscard]] std::uint32_t attemptsLeft() const;

    /// The master key. The attempt is counted on disk before the PIN is compared and given back when it is
    /// right, so that killing the process never wins one. Failure::WrongPin, Failure::PinLocked (nothing is
    /// compared), Failure::Damaged. A PIN of an impossible length is wrong without costing an attempt.
    [[nodiscard]] SecureBytes open(BytesView tokenId, std::string_view pin) const;

    /// Replaces the PIN; the master key stays. Fails as open() and create() do.
    void change(BytesView tokenId, std::string_view oldPin, std::string_view newPin) const;

    /// Gives all attempts back.
    void unblock() const;

private:
    void storeMasterKey(BytesView tokenId, std::string_view pin, std::uint32_t attempts,
                        BytesView masterKey) const;
    void storeAttempts(std::uint32_t left) const;

    std::filesystem::path folder_;
};

} // namespace veltra::softtoken
