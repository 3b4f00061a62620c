// The files of a token: replaced as a whole, sealed, and what damage to one of them costs.

#include "softtoken_test.h"

#include "contract_records.h"

#include <map>

// The import table's entries of this program, through which the core library reaches the system. On 32-bit
// Windows their names have the size of the arguments.
#ifdef __i386__
#define VELTRA_IMPORT(name, argumentBytes) __asm__("__imp__" #name "@" #argumentBytes)
#else
#define VELTRA_IMPORT(name, argumentBytes) __asm__("__imp_" #name)
#endif
extern decltype(&WriteFile) importedWriteFile VELTRA_IMPORT(WriteFile, 20);
extern decltype(&FlushFileBuffers) importedFlushFileBuffers VELTRA_IMPORT(FlushFileBuffers, 4);
extern decltype(&MoveFileExW) importedMoveFileExW VELTRA_IMPORT(MoveFileExW, 12);

namespace veltra::softtoken::test {

namespace {

std::size_t failingCall = 0;          ///< which of the calls below fails; 0: none, and nobody watches
std::vector<std::string> systemCalls; ///< those that store a file, while one of them is to fail

bool proceed(const char* name) {
    if (failingCall == 0) return true;
    systemCalls.emplace_back(name);
    SetLastError(ERROR_DISK_FULL);
    return systemCalls.size() != failingCall;
}

const auto realWrite = importedWriteFile;
const auto realFlush = importedFlushFileBuffers;
const auto realMove = importedMoveFileExW;

BOOL WINAPI write(HANDLE file, const void* data, DWORD length, DWORD* written, OVERLAPPED* place) {
    return proceed("write") ? realWrite(file, data, length, written, place) : FALSE;
}
BOOL WINAPI flush(HANDLE file) {
    return proceed("flush") ? realFlush(file) : FALSE;
}
BOOL WINAPI move(const wchar_t* from, const wchar_t* to, DWORD flags) {
    const bool flushes = (flags & MOVEFILE_WRITE_THROUGH) != 0;
    return proceed(flushes ? "move and flush" : "move") ? realMove(from, to, flags) : FALSE;
}

template <class Function>
void replace(Function& entry, Function function) {
    DWORD before = 0;
    ASSERT_TRUE(VirtualProtect(&entry, sizeof(entry), PAGE_READWRITE, &before));
    entry = function;
}

/// What is damaged about a file; null for one that is replaced by a folder.
constexpr std::pair<const char*, void (*)(Bytes& content)> kDamages[] = {
    {"empty", [](Bytes& content) { content.clear(); }},
    {"cut", [](Bytes& content) { content.resize(content.size() / 2); }},
    {"continued", [](Bytes& content) { content.push_back(' '); }},
    {"oversized", [](Bytes& content) { content.assign(100'000, '('); }},
    {"bit flipped", [](Bytes& content) { content[content.size() * 2 / 3] ^= 0x01; }},
    {"of another kind", [](Bytes& content) { content = contentOf(homeFolder() / "other"); }},
    {"replaced by a folder", nullptr}};

} // namespace

TEST_F(SoftTokenTest, AFileIsReplacedAsAWholeAndFlushedOrNotAtAll) {
    const fs::path folder = home_ / "records";
    const fs::path file = folder / "record";
    makeFolder(folder);
    writeRecord(file, Expression::build("(record before)"), Overwrite::Allowed);
    const Bytes before = contentOf(file);
    replace(importedWriteFile, write);
    replace(importedFlushFileBuffers, flush);
    replace(importedMoveFileExW, move);
    for (failingCall = 1; failingCall <= 4; ++failingCall) {
        systemCalls.clear();
        const Failure code =
            failureOf([&] { writeRecord(file, Expression::build("(record after)"), Overwrite::Allowed); });
        EXPECT_EQ(code, failingCall == 4 ? kNoFailure : Failure::Storage);
        EXPECT_EQ(contentOf(file) == before, failingCall != 4);
        EXPECT_EQ(std::distance(fs::directory_iterator(folder), {}), 1) << "a temporary file is left";
    }
    failingCall = 0;
    EXPECT_EQ(systemCalls, (std::vector<std::string>{"write", "flush", "move and flush"}));
    const Bytes after = contentOf(file);
    EXPECT_EQ(failureOf([&] { writeRecord(file, Expression::build("(record no)"), Overwrite::Refused); }),
              Failure::AlreadyExists);
    EXPECT_EQ(contentOf(file), after);
    EXPECT_TRUE(parseRecord(file, "record", [](const Expression&) {}));
}

TEST_F(SoftTokenTest, WhatAKilledProcessLeftBehindIsClearedAway) {
    for (const char* folder : {".new-T2", ".deleted-1"})
        fs::create_directories(home_ / folder / "keys");
    const fs::path temporary = TokenFolder(kSerial).path() / "keys" / "1.key.tmp";
    store(temporary, Bytes(9));
    static_cast<void>(TokenFolder(kSerial).lock());
    EXPECT_FALSE(fs::exists(temporary));
    create("T2");
    deleteToken(TokenFolder(kSerial));
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(home_))
        names.push_back(entry.path().filename().string());
    EXPECT_THAT(names, testing::UnorderedElementsAre(".locks", "T2"));
}

/// A token with two objects of each kind, used through the core library.
class DamageTest : public SoftTokenTest {
protected:
    DamageTest() {
        setReporter([](const char* line) { reported_ += std::string(line) + "\n"; });
        logIn();
        for (unsigned char i = 1; i <= 2; ++i) {
            generate(kKeyTypeEcP256);
            VeltraSymmetricKey aesKey = aesRecord(kAesKey);
            importAesKey(kSerial, kPin, aesKey);
            VeltraCertificate certificate = certificateRecord(i == 1 ? root_ : leaf_, i);
            importCertificate(kSerial, kPin, certificate);
        }
        std::uint32_t left = 0;
        softtoken::logIn(kSerial, kPin, 600, left);
    }

    /// Everything that can be done with what is there, which is so many objects of each kind, and the
    /// attempts to change what is damaged.
    void useToken(const std::vector<fs::path>& damaged, std::size_t left) {
        EXPECT_EQ(connectedSerials(), std::vector<std::string>{kSerial});
        static_cast<void>(tokenInfo(kSerial));
        EXPECT_EQ(failureOf([] { logIn(kWrongPin); }), Failure::WrongPin);
        EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts - 1);
        logIn();
        EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts);
        const TokenFolder token(kSerial);
        PinVault(token.path()).change(token.description().tokenId, kPin, kOtherPin);
        EXPECT_EQ(failureOf([] { logIn(); }), Failure::WrongPin);
        logIn(kOtherPin);
        EXPECT_EQ(keyPairs(kSerial).size(), left);
        for (const VeltraKeyPair& key : keyPairs(kSerial)) {
            EXPECT_EQ(sign(key, kOtherPin).size(), 64u);
            renameKeyPair(kSerial, key.keyId, kOtherPin, "renamed");
        }
        EXPECT_EQ(aesKeys(kSerial).size(), left);
        for (const VeltraSymmetricKey& key : aesKeys(kSerial))
            EXPECT_EQ(unwrapWithTokenKey(kSerial, key.keyId, kWrapped)->size(), 16u);
        EXPECT_EQ(certificates(kSerial).size(), left);
        for (const fs::path& file : damaged) {
            const std::string name = file.stem().string();
            if (name.size() != 2 * kKeyIdLength) continue;
            const Bytes keyId = fromHex(name);
            EXPECT_NE(failureOf([&] { deleteKeyPair(kSerial, keyId, kOtherPin); }), kNoFailure);
            EXPECT_NE(failureOf([&] { renameKeyPair(kSerial, keyId, kOtherPin, "x"); }), kNoFailure);
            if (file.extension() != ".certificate") continue;
            VeltraCertificate record = certificateRecord(leaf_, keyId.front());
            EXPECT_NE(failureOf([&] { importCertificate(kSerial, kOtherPin, record); }), kNoFailure);
        }
        change([](TokenDescription&) {});
    }

    // RFC 3394, 4.1.
    const Bytes kAesKey = fromHex("000102030405060708090A0B0C0D0E0F");
    const Bytes kWrapped = fromHex("1FA68B0A8112B447AEF34BD8FB5A7B829D3E862371D2CFE5");
    static constexpr const char* kOtherPin = "another one";
    static inline std::string reported_;
};

TEST_F(DamageTest, ADamagedFileCostsItsObjectAndAMessageNeverTheTokenAndIsNotTouched) {
    const fs::path token = TokenFolder(kSerial).path();
    const auto firstIn = [&](const char* folder) { return fs::directory_iterator(token / folder)->path(); };
    // Damaged at the same time, and how many objects of each kind are left then.
    const std::pair<std::vector<fs::path>, std::size_t> groups[] = {
        {{token / "token", token / "pin", token / "retries", firstIn("keys"), firstIn("aes-keys"),
          firstIn("certificates")},
         1},
        {{token / "token.copy", token / "pin.copy", token / "retries.copy", token / kSingleSignOnFile}, 2}};
    writeRecord(home_ / "other", Expression::build("(other (x y))"), Overwrite::Allowed);
    const fs::path saved = home_ / ".saved";
    fs::copy(token, saved, fs::copy_options::recursive);
    for (const auto& [files, left] : groups) {
        for (const auto& [name, change] : kDamages) {
            SCOPED_TRACE(files.front().filename().string() + " and others: " + name);
            std::map<fs::path, Bytes> contents;
            for (const fs::path& file : files) {
                if (change != nullptr) {
                    change(contents[file] = contentOf(file));
                    store(file, contents[file]);
                } else {
                    fs::remove(file);
                    fs::create_directory(file);
                }
            }
            reported_.clear();
            useToken(files, left);
            for (const fs::path& file : files) {
                EXPECT_THAT(reported_, testing::HasSubstr(file.filename().string() + " is damaged"));
                EXPECT_TRUE(contentOf(file) == contents[file]) << file;
                EXPECT_EQ(fs::is_directory(file), change == nullptr) << file;
            }
            fs::remove_all(token);
            fs::copy(saved, token, fs::copy_options::recursive);
        }
    }
}

TEST_F(DamageTest, CopiesOfObjectsUnderOtherNamesAndInOtherTokensAreUseless) {
    const VeltraKeyPair key = keyPairs(kSerial).front();
    const fs::path file = TokenFolder(kSerial).path() / "keys" / (toHex(key.keyId) + ".key");
    fs::copy_file(file, file.parent_path() / (std::string(32, 'A') + ".key"));
    EXPECT_EQ(keyPairs(kSerial).size(), 2u);
    EXPECT_NE(failureOf([&] { deleteKeyPair(kSerial, fromHex(std::string(32, 'A')), kPin); }), kNoFailure);

    create("T2");
    logIn(kPin, "T2");
    fs::copy_file(file, TokenFolder("T2").path() / "keys" / file.filename());
    EXPECT_EQ(
        failureOf([&] { softtoken::sign("T2", key.keyId, kPin, Bytes(32), 64, SignatureScheme::Pkcs1); }),
        Failure::Damaged);
}

TEST_F(DamageTest, TheLowerOfTwoCountersOfAttemptsCountsAndWithoutBothNobodyGetsIn) {
    const fs::path retries = TokenFolder(kSerial).path() / "retries";
    const Bytes full = contentOf(retries);
    EXPECT_NE(failureOf([] { logIn(kWrongPin); }), kNoFailure);
    store(retries, full);
    EXPECT_EQ(attemptsOnDisk(), kDefaultAttempts - 1);
    store(retries, {});
    store(copyOf(retries), {});
    EXPECT_EQ(failureOf([] { logIn(); }), Failure::Damaged);
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
    EXPECT_EQ(failureOf([&] { openPrivateKey(key, master); }), Failure::Damaged);
    StoredAesKey aesKey = AesKeyStore(TokenFolder(kSerial)).list().front();
    aesKey.usage ^= 1;
    EXPECT_EQ(failureOf([&] { openAesKey(aesKey, master); }), Failure::Damaged);
}

} // namespace veltra::softtoken::test
