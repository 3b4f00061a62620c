#include "pin_vault.h"

#include "sealed_data.h"
#include "token_store.h"

#include <algorithm>

namespace veltra::softtoken {

namespace {

constexpr std::size_t kSaltLength = 16;
constexpr std::uint64_t kScryptCost = 1u << 14;

bool isPossiblePin(std::string_view pin) {
    return pin.size() >= kMinPinLength && pin.size() <= kMaxPinLength;
}

void requirePossiblePin(std::string_view pin) {
    if (!isPossiblePin(pin)) throw TokenError(Failure::BadArgument, "a PIN has 4 to 63 characters");
}

} // namespace

void PinVault::create(BytesView tokenId, std::string_view pin, std::uint32_t attempts) const {
    requirePossiblePin(pin);
    if (attempts < 1 || attempts > kMaxAttempts) {
        throw TokenError(Failure::BadArgument, "the number of PIN attempts must be 1 to 100");
    }
    SecureBytes masterKey(kSealingKeyLength);
    fillRandom(masterKey);
    storeMasterKey(tokenId, pin, attempts, masterKey);
    storeAttempts(attempts);
}

std::uint32_t PinVault::attemptsLeft() const {
    const std::optional<Expression> retries = readRecord(folder_ / "retries", "retries");
    if (!retries) throw TokenError(Failure::Damaged, "the file with the PIN attempts is missing");
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(retries->number("left"), kMaxAttempts));
}

SecureBytes PinVault::open(BytesView tokenId, std::string_view pin) const {
    const std::uint32_t left = attemptsLeft();
    if (left == 0) throw TokenError(Failure::PinLocked, "the PIN is locked");
    if (!isPossiblePin(pin)) throw TokenError(Failure::WrongPin, "a PIN has 4 to 63 characters");
    const Expression stored = record();
    storeAttempts(left - 1);
    const SecureBytes key = deriveKeyFromPin(pin, stored.bytes("salt"), stored.number("cost"));
    SecureBytes masterKey;
    try {
        masterKey = unseal(key, tokenId, stored);
    } catch (const TokenError& error) {
        // The file's checksum holds, so what does not authenticate is the key that the PIN gave.
        if (error.failure() == Failure::Damaged) throw TokenError(Failure::WrongPin, "the PIN is wrong");
        throw;
    }
    storeAttempts(static_cast<std::uint32_t>(stored.number("attempts")));
    return masterKey;
}

void PinVault::change(BytesView tokenId, std::string_view oldPin, std::string_view newPin) const {
    requirePossiblePin(newPin);
    const SecureBytes masterKey = open(tokenId, oldPin);
    storeMasterKey(tokenId, newPin, static_cast<std::uint32_t>(record().number("attempts")), masterKey);
}

void PinVault::unblock() const {
    storeAttempts(static_cast<std::uint32_t>(record().number("attempts")));
}

void PinVault::storeMasterKey(BytesView tokenId, std::string_view pin, std::uint32_t attempts,
                              BytesView masterKey) const {
    const Bytes salt = randomBytes(kSaltLength);
    const SecureBytes key = deriveKeyFromPin(pin, salt, kScryptCost);
    writeRecord(folder_ / "pin",
                Expression::build("(pin %S %S %S %S)", Expression::field("attempts", attempts).get(),
                                  Expression::field("salt", salt).get(),
                                  Expression::field("cost", kScryptCost).get(),
                                  seal(key, tokenId, masterKey).get()),
                Overwrite::Allowed);
}

void PinVault::storeAttempts(std::uint32_t left) const {
    writeRecord(folder_ / "retries", Expression::build("(retries %S)", Expression::field("left", left).get()),
                Overwrite::Allowed);
}

Expression PinVault::record() const {
    std::optional<Expression> stored = readRecord(folder_ / "pin", "pin");
    if (!stored) throw TokenError(Failure::Damaged, "the file with the sealed master key is missing");
    return std::move(*stored);
}

} // namespace veltra::softtoken
