// The files of a token: replaced as a whole, sealed, and what damage to one of them costs.

#include "softtoken_test.h"

#include "contract_records.h"
#include "foundation/windows.h"
#include "pin_vault.h"
#include "token_operations.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <set>
#include <thread>

// The import table's entries of this program, through which the core library reaches the system.
extern "C" {
extern decltype(&WriteFile) __imp_WriteFile;
extern decltype(&FlushFileBuffers) __imp_FlushFileBuffers;
extern decltype(&MoveFileExW) __imp_MoveFileExW;
}

namespace veltra::softtoken::test {

namespace fs = std::filesystem;

namespace {

/// While it lives, the system calls that store a file are written down, and one of them fails. 0: none fails,
/// and nothing is flushed, which saves the time.
class WatchedCalls {
public:
    explicit WatchedCalls(std::size_t failing) {
        failing_ = failing;
        names_.clear();
        replace(__imp_WriteFile, write);
        replace(__imp_FlushFileBuffers, flush);
        replace(__imp_MoveFileExW, move);
    }
    WatchedCalls(const WatchedCalls&) = delete;
    WatchedCalls& operator=(const WatchedCalls&) = delete;
    ~WatchedCalls() {
        replace(__imp_WriteFile, realWrite_);
        replace(__imp_FlushFileBuffers, realFlush_);
        replace(__imp_MoveFileExW, realMove_);
    }
    static std::vector<std::string> names() { return names_; }

private:
    template <class Function>
    static void replace(Function& entry, Function function) {
        DWORD before = 0;
        ASSERT_TRUE(VirtualProtect(&entry, sizeof(entry), PAGE_READWRITE, &before));
        entry = function;
        VirtualProtect(&entry, sizeof(entry), before, &before);
    }
    static bool proceed(const char* name) {
        names_.emplace_back(name);
        SetLastError(ERROR_DISK_FULL);
        return names_.size() != failing_;
    }
    static BOOL WINAPI write(HANDLE file, const void* data, DWORD length, DWORD* written, OVERLAPPED* place) {
        return proceed("write") ? realWrite_(file, data, length, written, place) : FALSE;
    }
    static BOOL WINAPI flush(HANDLE file) {
        return proceed("flush") ? failing_ == 0 || realFlush_(file) : FALSE;
    }
    static BOOL WINAPI move(const wchar_t* from, const wchar_t* to, DWORD flags) {
        return proceed((flags & MOVEFILE_WRITE_THROUGH) != 0 ? "move and flush" : "move")
                   ? realMove_(from, to, flags)
                   : FALSE;
    }

    static inline std::size_t failing_;
    static inline std::vector<std::string> names_;
    static inline const auto realWrite_ = __imp_WriteFile;
    static inline const auto realFlush_ = __imp_FlushFileBuffers;
    static inline const auto realMove_ = __imp_MoveFileExW;
};

Expression numberRecord(std::uint64_t number) {
    return Expression::build("(number %S)", Expression::field("value", number).get());
}

std::optional<std::uint64_t> readNumber(const fs::path& path) {
    return readRecord(path, "number", [](const Expression& record) { return record.number("value"); });
}

constexpr const char* kFolder = "replaced by a folder";
const std::string kDamages[] = {
    "empty", "cut", "continued", "oversized", "bit flipped", "of another kind", "without fields", kFolder};

std::string reported;

/// What the core library reports, as long as it lives.
struct Reports {
    Reports() {
        setReporter([](const char* line) { reported += std::string(line) + "\n"; });
    }
    ~Reports() {
        setReporter([](const char*) {});
    }
};

/// What may become of a file with this content, which is a record of `kind`; the last is a folder in its
/// place.
std::map<std::string, Bytes> damagesOf(const Bytes& content, const char* kind, const Bytes& ofAnotherKind) {
    const auto half = content.begin() + static_cast<std::ptrdiff_t>(content.size() / 2);
    Bytes longer = content;
    longer.push_back(' ');
    Bytes flipped = content;
    flipped[content.size() * 2 / 3] ^= 0x01;
    const fs::path scratch = homeFolder() / "scratch";
    writeRecord(scratch, Expression::build((std::string("(") + kind + " (x y))").c_str()),
                Overwrite::Allowed);
    return {{"empty", {}},
            {"cut", {content.begin(), half}},
            {"continued", longer},
            {"oversized", Bytes(100'000, '(')},
            {"bit flipped", flipped},
            {"of another kind", ofAnotherKind},
            {"without fields", contentOf(scratch)},
            {kFolder, {}}};
}

} // namespace

TEST_F(SoftTokenTest, AFileIsReplacedAsAWholeAndFlushedOrNotAtAll) {
    const fs::path folder = home_ / "records";
    makeFolder(folder);
    writeRecord(folder / "record", numberRecord(1), Overwrite::Allowed);
    for (std::size_t failing = 1; failing <= 4; ++failing) {
        const WatchedCalls calls(failing);
        const int code =
            codeOf([&] { writeRecord(folder / "record", numberRecord(failing), Overwrite::Allowed); });
        EXPECT_EQ(code, failing == 4 ? 0 : static_cast<int>(Failure::Storage));
        EXPECT_EQ(readNumber(folder / "record"), failing == 4 ? 4u : 1u);
        EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 1) << "a temporary file is left";
    }
    EXPECT_EQ(WatchedCalls::names(), (std::vector<std::string>{"write", "flush", "move and flush"}));

    std::atomic<bool> done = false;
    std::thread reader([&] {
        for (std::uint64_t last = 0; !done;) {
            const std::optional<std::uint64_t> now = readNumber(folder / "record");
            ASSERT_TRUE(now && *now >= last);
            last = *now;
            Sleep(1); // on some systems a file cannot be replaced while it is open
        }
    });
    for (std::uint64_t number = 5; number < 30; ++number)
        writeRecord(folder / "record", numberRecord(number), Overwrite::Allowed);
    done = true;
    reader.join();
    EXPECT_EQ(codeOf([&] { writeRecord(folder / "record", numberRecord(0), Overwrite::Refused); }),
              static_cast<int>(Failure::AlreadyExists));
    EXPECT_EQ(readNumber(folder / "record"), 29u);
}

TEST_F(SoftTokenTest, WhatAKilledProcessLeftBehindIsClearedAway) {
    fs::create_directories(home_ / ".new-T2" / "keys");
    fs::create_directories(home_ / ".deleted-1" / "keys");
    const fs::path temporary = TokenFolder(kSerial).path() / "keys" / "1.key.tmp";
    store(temporary, Bytes(9));
    static_cast<void>(TokenFolder(kSerial).lock());
    EXPECT_FALSE(fs::exists(temporary));
    create("T2");
    deleteToken(TokenFolder(kSerial));
    EXPECT_EQ(listTokens().size(), 1u);
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(home_))
        names.insert(entry.path().filename().string());
    EXPECT_EQ(names, (std::set<std::string>{".locks", "T2"}));
}

/// A token with two objects of each kind, used through the core library.
class DamageTest : public SoftTokenTest {
protected:
    DamageTest() {
        open();
        for (unsigned char i = 1; i <= 2; ++i) {
            VeltraKeyPair key{};
            key.keyType = kKeyTypeEcP256;
            generateKeyPair(kSerial, kPin, key);
            VeltraSymmetricKey aesKey = aesRecord(kAesKey);
            importAesKey(kSerial, kPin, aesKey);
            VeltraCertificate certificate = certificateRecord(i == 1 ? root_ : leaf_, i);
            importCertificate(kSerial, kPin, certificate);
        }
        softtoken::logIn(kSerial, kPin, 600, attempts_);
    }

    void open() { validatePin(kSerial, kPin, attempts_); }

    /// The paths of files and the kinds of their records.
    using Files = std::map<fs::path, const char*>;

    /// Everything that can be done with what is there, and the attempts to change what is damaged.
    void useToken(const Files& damaged) {
        EXPECT_EQ(connectedSerials(), std::vector<std::string>{kSerial});
        static_cast<void>(tokenInfo(kSerial));
        EXPECT_EQ(codeOf([&] { validatePin(kSerial, kWrongPin, attempts_); }),
                  static_cast<int>(Failure::WrongPin));
        EXPECT_EQ(attempts_, kDefaultAttempts - 1);
        open();
        EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts);
        std::map<std::string, std::size_t> left{{"keys", 2}, {"aes-keys", 2}, {"certificates", 2}};
        for (const auto& [file, kind] : damaged)
            --left[file.parent_path().filename().string()];
        const auto keys = keyPairs(kSerial);
        EXPECT_EQ(keys.size(), left["keys"]);
        for (const VeltraKeyPair& key : keys) {
            EXPECT_EQ(softtoken::sign(kSerial, key.keyId, kPin, Bytes(32), 64, SignatureScheme::Pkcs1).size(),
                      64u);
            renameKeyPair(kSerial, key.keyId, kPin, "renamed");
        }
        const auto aesKeyList = aesKeys(kSerial);
        EXPECT_EQ(aesKeyList.size(), left["aes-keys"]);
        for (const VeltraSymmetricKey& key : aesKeyList)
            EXPECT_EQ(unwrapWithTokenKey(kSerial, key.keyId, kWrapped)->size(), 16u);
        EXPECT_EQ(certificates(kSerial).size(), left["certificates"]);
        for (const auto& [file, kind] : damaged) {
            const std::string folder = file.parent_path().filename().string();
            if (folder == "keys" || folder == "certificates")
                changeDamaged(file.stem().string(), folder == "keys");
        }
        if (damaged.begin()->first.filename() == kSingleSignOnFile) return; // ends with unplugging
        const TokenFolder token(kSerial);
        PinVault(token.path()).change(token.description().tokenId, kPin, kPin);
        setPlugged(token, false);
        setPlugged(token, true);
        open();
    }

    void changeDamaged(const std::string& digits, bool isKey) {
        const Bytes keyId = fromHex(digits);
        if (isKey) {
            EXPECT_NE(codeOf([&] { deleteKeyPair(kSerial, keyId, kPin); }), 0);
            EXPECT_NE(codeOf([&] { renameKeyPair(kSerial, keyId, kPin, "x"); }), 0);
            EXPECT_NE(
                codeOf([&] { softtoken::sign(kSerial, keyId, kPin, Bytes(32), 64, SignatureScheme::Pss); }),
                0);
        } else {
            VeltraCertificate record = certificateRecord(leaf_, keyId.front());
            EXPECT_NE(codeOf([&] { importCertificate(kSerial, kPin, record); }), 0);
        }
    }

    // RFC 3394, 4.1.
    const Bytes kAesKey = fromHex("000102030405060708090A0B0C0D0E0F");
    const Bytes kWrapped = fromHex("1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5");
    std::uint32_t attempts_ = 0;
    Reports reports_;
    WatchedCalls unflushed_{0};
};

TEST_F(DamageTest, ADamagedFileCostsItsObjectAndAMessageNeverTheTokenAndIsNotTouched) {
    const fs::path token = TokenFolder(kSerial).path();
    // Damaged at the same time; of what there are two, the other one is a witness.
    Files groups[] = {
        {{token / "token", "token"}, {token / "pin", "pin"}, {token / "retries", "retries"}},
        {{token / "token.copy", "token"}, {token / "pin.copy", "pin"}, {token / "retries.copy", "retries"}},
        {{token / kSingleSignOnFile, "session"}}};
    for (const auto& [folder, kind] : {std::pair("keys", "key-pair"), std::pair("aes-keys", "aes-key"),
                                       std::pair("certificates", "certificate")})
        groups[0].emplace(*fs::directory_iterator(token / folder), kind);
    const fs::path saved = home_ / ".saved";
    fs::copy(token, saved, fs::copy_options::recursive);
    for (const Files& files : groups) {
        for (const std::string& damage : kDamages) {
            SCOPED_TRACE(files.begin()->first.filename().string() + " and others: " + damage);
            std::map<fs::path, Bytes> damaged;
            for (const auto& [file, kind] : files) {
                const bool isCounter = std::strcmp(kind, "retries") == 0;
                const Bytes ofAnotherKind = contentOf(saved / (isCounter ? "pin" : "retries"));
                const Bytes content = damaged[file] =
                    damagesOf(contentOf(file), kind, ofAnotherKind).at(damage);
                fs::remove(file);
                if (damage == kFolder)
                    fs::create_directory(file);
                else
                    store(file, content);
            }
            reported.clear();
            useToken(files);
            for (const auto& [file, content] : damaged) {
                EXPECT_NE(reported.find(file.filename().string() + " is damaged"), std::string::npos)
                    << file.filename() << '\n'
                    << reported;
                EXPECT_TRUE(contentOf(file) == content && fs::is_directory(file) == (damage == kFolder))
                    << file.filename();
            }
            fs::remove_all(token);
            fs::copy(saved, token, fs::copy_options::recursive);
            open();
        }
    }
}

TEST_F(DamageTest, CopiesOfObjectsUnderOtherNamesAndInOtherTokensAreUseless) {
    const VeltraKeyPair key = keyPairs(kSerial).front();
    const fs::path file = TokenFolder(kSerial).path() / "keys" / (toHex(key.keyId) + ".key");
    fs::copy_file(file, file.parent_path() / (std::string(32, 'A') + ".key"));
    EXPECT_EQ(keyPairs(kSerial).size(), 2u);
    EXPECT_NE(codeOf([&] { deleteKeyPair(kSerial, fromHex(std::string(32, 'A')), kPin); }), 0);

    create("T2");
    validatePin("T2", kPin, attempts_);
    fs::copy_file(file, TokenFolder("T2").path() / "keys" / file.filename());
    EXPECT_EQ(codeOf([&] { softtoken::sign("T2", key.keyId, kPin, Bytes(32), 64, SignatureScheme::Pkcs1); }),
              static_cast<int>(Failure::Damaged));
}

TEST_F(DamageTest, AFolderThatIsAFileIsReported) {
    fs::remove_all(TokenFolder(kSerial).path() / "keys");
    store(TokenFolder(kSerial).path() / "keys", Bytes(3));
    EXPECT_TRUE(keyPairs(kSerial).empty());
    EXPECT_NE(reported.find("keys cannot be read"), std::string::npos) << reported;
    EXPECT_EQ(aesKeys(kSerial).size(), 2u);
}

TEST_F(DamageTest, TheLowerOfTwoCountersOfAttemptsCountsAndWithoutBothNobodyGetsIn) {
    const fs::path retries = TokenFolder(kSerial).path() / "retries";
    const Bytes full = contentOf(retries);
    EXPECT_NE(codeOf([&] { validatePin(kSerial, kWrongPin, attempts_); }), 0);
    store(retries, full);
    EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts - 1);
    store(retries, {});
    store(copyOf(retries), {});
    EXPECT_EQ(codeOf([&] { open(); }), static_cast<int>(Failure::Damaged));
    EXPECT_TRUE(contentOf(retries).empty() && contentOf(copyOf(retries)).empty());
}

TEST_F(DamageTest, KeysAreSealedWithTheirPurposeAndNothingSecretIsOnDisk) {
    const SecureBytes master =
        PinVault(TokenFolder(kSerial).path()).open(TokenFolder(kSerial).description().tokenId, kPin);
    StoredKeyPair key = KeyStore(TokenFolder(kSerial)).list().front();
    const SecureBytes number = Expression::parse(openPrivateKey(key, master)).secureBytes("d");
    EXPECT_GE(number.size(), 31u);
    const BytesView secrets[] = {master, number, kAesKey, bytesOf(kPin)};
    for (const auto& entry : fs::recursive_directory_iterator(home_)) {
        const Bytes content = entry.is_regular_file() ? contentOf(entry.path()) : Bytes();
        for (const BytesView& secret : secrets)
            EXPECT_TRUE(std::ranges::search(content, secret).empty()) << entry.path();
    }
    key.usage ^= 1;
    EXPECT_EQ(codeOf([&] { openPrivateKey(key, master); }), static_cast<int>(Failure::Damaged));
    StoredAesKey aesKey = AesKeyStore(TokenFolder(kSerial)).list().front();
    aesKey.usage ^= 1;
    EXPECT_EQ(codeOf([&] { openAesKey(aesKey, master); }), static_cast<int>(Failure::Damaged));
}

} // namespace veltra::softtoken::test
