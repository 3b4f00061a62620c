#pragma once

#include "record_file.h"

#include <string>
#include <string_view>
#include <vector>

namespace veltra::softtoken {

/// Which generation of FIPS 140 a token follows; a FIPS 140-3 token refuses to sign MD5 and SHA-1.
enum class FipsGeneration { Fips1402, Fips1403 };

constexpr std::size_t kMaxSerialLength = 64;
constexpr std::size_t kMinPinLength = 4;
constexpr std::size_t kMaxPinLength = 63;
constexpr std::uint32_t kDefaultAttempts = 10;
constexpr std::uint32_t kMaxAttempts = 100;
constexpr const char* kSingleSignOnFile = "session";

/// What a token says about itself, and how it behaves.
struct TokenDescription {
    std::string serial;
    Bytes tokenId;     ///< 16 random bytes: tells a token from an earlier one of the same serial
    std::string label; ///< at most kLabelMaxLength bytes
    FipsGeneration fips = FipsGeneration::Fips1402;
    std::string firmware = "2.1.0";
    std::uint32_t sessionSeconds = 0; ///< how long a validated PIN lasts; 0: as long as the process
    bool clockMismatch = false;       ///< validating the PIN answers Failure::TimeMismatch
    bool plugged = true;
    std::uint64_t plugCount = 1; ///< grows each time the token is plugged in: sessions end with it
};

/// The files of one token; a value that names them, not a handle. Its folder holds
///
///   token          TokenDescription
///   pin            the master key, sealed under a key derived from the PIN
///   retries        PIN attempts left
///   *.copy         a second copy of each of these three, without which the token would be lost
///   session        the single sign-on session, while there is one
///   keys/          one file for each key pair, the private key sealed under the master key
///   aes-keys/      one file for each AES key, sealed under the master key
///   certificates/  one file for each certificate
///
/// Modifications happen under lock(); reading needs no lock, since files are replaced as a whole.
class TokenFolder {
public:
    /// Failure::BadArgument unless `serial` is a valid serial: 1 to 64 letters, digits, '-', '_' and '.', not
    /// beginning or ending with '.', and not a device name of Windows. The folder need not exist.
    explicit TokenFolder(std::string_view serial);

    [[nodiscard]] const std::string& serial() const noexcept { return serial_; }
    [[nodiscard]] const std::filesystem::path& path() const noexcept { return path_; }
    [[nodiscard]] bool exists() const;

    /// Excludes other threads and processes that modify the token. Removes the temporary files of those that
    /// were killed.
    [[nodiscard]] FileLock lock() const;

    /// Failure::NoSuchToken when there is none, Failure::Damaged.
    [[nodiscard]] TokenDescription description() const;
    /// The description of a plugged-in token; Failure::NoSuchToken when it is unplugged, too.
    [[nodiscard]] TokenDescription pluggedDescription() const;
    /// The caller holds lock().
    void saveDescription(const TokenDescription& description) const;

private:
    std::string serial_;
    std::filesystem::path path_;
};

/// Where the tokens are: VELTRA_SOFTTOKEN_HOME, or Veltra\SoftToken in the local application data folder.
/// Read from the environment at each call.
std::filesystem::path homeFolder();

/// All tokens that can be read, sorted by serial; damaged ones are reported and left out.
std::vector<TokenDescription> listTokens();

/// Makes a token: all of it or nothing. `description.serial` names it; tokenId is chosen here. The serial is
/// checked as TokenFolder does, texts and PIN for their lengths (Failure::BadArgument);
/// Failure::AlreadyExists.
void createToken(TokenDescription description, std::string_view pin, std::uint32_t attempts);

/// Deletes a token with all its keys, and what is left of others whose deletion was interrupted.
/// Failure::NoSuchToken.
void deleteToken(const TokenFolder& token);

/// Unplugging ends the sessions of the token.
void setPlugged(const TokenFolder& token, bool plugged);

} // namespace veltra::softtoken
