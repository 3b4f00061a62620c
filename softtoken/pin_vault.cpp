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

/// The attempts there are after a right PIN, and the master key sealed under a key derived from the PIN.
struct StoredPin {
    std::uint32_t attempts;
    Bytes salt;
    std::uint64_t cost;
    Expression sealed;
};

std::uint32_t toAttempts(std::uint64_t number) {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(number, kMaxAttempts));
}

StoredPin pinFrom(const Expression& record) {
    return {toAttempts(record.number("attempts")), record.bytes("salt"), record.number("cost"),
            record.list("sealed")};
}

std::uint32_t attemptsFrom(const Expression& record) {
    return toAttempts(record.number("left"));
}

StoredPin readPin(const std::filesystem::path& folder) {
    std::vector<StoredPin> stored = readRecordTwice(folder / "pin", "pin", pinFrom, Copies::First);
    if (stored.empty()) throw TokenError(Failure::Damaged, (folder / "pin").string() + " is missing");
    return std::move(stored.front());
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
    const std::filesystem::path path = folder_ / "retries";
    const std::vector<std::uint32_t> left = readRecordTwice(path, "retries", attemptsFrom, Copies::Both);
    if (left.empty()) throw TokenError(Failure::Damaged, path.string() + " is missing");
    // A copy that was restored from an older one gives no attempts back.
    return *std::ranges::min_element(left);
}

SecureBytes PinVault::open(BytesView tokenId, std::string_view pin) const {
    const std::uint32_t left = attemptsLeft();
    if (left == 0) throw TokenError(Failure::PinLocked, "the PIN is locked");
    if (!isPossiblePin(pin)) throw TokenError(Failure::WrongPin, "a PIN has 4 to 63 characters");
    const StoredPin stored = readPin(folder_);
    storeAttempts(left - 1);
    const SecureBytes key = deriveKeyFromPin(pin, stored.salt, stored.cost);
    SecureBytes masterKey;
    try {
        masterKey = unseal(key, tokenId, stored.sealed);
    } catch (const TokenError& error) {
        // The file's checksum holds, so what does not authenticate is the key that the PIN gave.
        if (error.failure() == Failure::Damaged) throw TokenError(Failure::WrongPin, "the PIN is wrong");
        throw;
    }
    storeAttempts(stored.attempts);
    return masterKey;
}

void PinVault::change(BytesView tokenId, std::string_view oldPin, std::string_view newPin) const {
    requirePossiblePin(newPin);
    const SecureBytes masterKey = open(tokenId, oldPin);
    storeMasterKey(tokenId, newPin, readPin(folder_).attempts, masterKey);
}

void PinVault::unblock() const {
    storeAttempts(readPin(folder_).attempts);
}

void PinVault::storeMasterKey(BytesView tokenId, std::string_view pin, std::uint32_t attempts,
                              BytesView masterKey) const {
    const Bytes salt = randomBytes(kSaltLength);
    const SecureBytes key = deriveKeyFromPin(pin, salt, kScryptCost);
    writeRecordTwice(folder_ / "pin",
                     Expression::build("(pin %S %S %S %S)", Expression::field("attempts", attempts).get(),
                                       Expression::field("salt", salt).get(),
                                       Expression::field("cost", kScryptCost).get(),
                                       seal(key, tokenId, masterKey).get()),
                     "pin", pinFrom);
}

void PinVault::storeAttempts(std::uint32_t left) const {
    writeRecordTwice(folder_ / "retries",
                     Expression::build("(retries %S)", Expression::field("left", left).get()), "retries",
                     attemptsFrom);
}

} // namespace veltra::softtoken
