#include "loaded_library.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

namespace veltra::softtoken::test {

namespace fs = std::filesystem;

namespace {

Bytes contentOf(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void store(const fs::path& path, const Bytes& content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
}

} // namespace

TEST_F(SoftTokenTest, DamagedKeyFilesAreLeftOutAndNeverTouched) {
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair damaged = generate(kKeyTypeEcP256);
    const VeltraKeyPair intact = generate(kKeyTypeEcP256);
    const fs::path file = TokenFolder(kSerial).path() / "keys" / (toHex(damaged.keyId) + ".key");
    const Bytes original = contentOf(file);
    ASSERT_FALSE(original.empty());

    std::vector<Bytes> versions = {
        {}, {'('}, Bytes(100'000, '('), Bytes(original.begin(), original.end() - 1)};
    versions.push_back(original);
    versions.back().push_back(' ');
    for (std::size_t i = 0; i < original.size(); i += 37) {
        versions.push_back(original);
        versions.back()[i] ^= 0x01;
    }
    for (const Bytes& version : versions) {
        store(file, version);
        const std::vector<VeltraKeyPair> keys = library_.getKeyPairList(kSerial, nullptr);
        ASSERT_EQ(keys.size(), 1u);
        EXPECT_EQ(std::memcmp(keys[0].keyId, intact.keyId, kKeyIdLength), 0);
        EXPECT_NE(sign(damaged), 0);
        EXPECT_NE(library_.deleteKeyPair(kSerial, damaged.keyId, kPin, false, nullptr), 0);
        EXPECT_NE(library_.updateKeyPairDetails(kSerial, damaged.keyId, kPin, "x", nullptr, 0, nullptr), 0);
        EXPECT_EQ(contentOf(file), version);
    }
    store(file, original);
    EXPECT_EQ(sign(damaged), 0);
}

TEST_F(SoftTokenTest, AKeyMovedToAnotherTokenDoesNotSign) {
    ASSERT_EQ(logIn(), 0);
    const VeltraKeyPair key = generate(kKeyTypeEcP256);
    create("T2");
    ASSERT_EQ(library_.validatePassword("T2", kPin, 1, nullptr, nullptr), 0);
    const std::string name = toHex(key.keyId) + ".key";
    fs::copy_file(TokenFolder(kSerial).path() / "keys" / name, TokenFolder("T2").path() / "keys" / name);
    const Bytes hash = hashOf(32);
    Bytes out(64);
    int length = 64;
    EXPECT_NE(
        library_.signHash("T2", key.keyId, kPin, hash.data(), 32, out.data(), &length, false, nullptr, false),
        0);
}

TEST_F(SoftTokenTest, DamagedTokenFilesAreReportedAsFailures) {
    for (const char* name : {"retries", "pin", "token"}) {
        const fs::path file = TokenFolder(kSerial).path() / name;
        const Bytes original = contentOf(file);
        Bytes changed = original;
        changed[changed.size() / 2] ^= 0x20;
        store(file, changed);
        EXPECT_NE(logIn(), 0) << name;
        EXPECT_EQ(contentOf(file), changed) << name;
        store(file, original);
        EXPECT_EQ(logIn(), 0) << name;
    }
}

TEST_F(SoftTokenTest, OnlyNamesOfTokensAreSerials) {
    create("A-token_1.x");
    fs::create_directories(home_ / "not a token");
    fs::create_directories(home_ / "empty");
    EXPECT_EQ(library_.getConnectedDeviceList(true, nullptr),
              (std::vector<std::string>{"A-token_1.x", kSerial}));
    const std::string outside = "..\\" + home_.filename().string() + "\\" + kSerial;
    for (const std::string& serial :
         {std::string(), std::string("t1"), std::string("."), std::string(".."), outside, std::string("./T1"),
          std::string("T1."), std::string("T1:x"), std::string("NUL"), std::string("com1.txt"),
          std::string("empty"), std::string(100'000, 'T'), std::string("T1\xFF")}) {
        EXPECT_NE(library_.initDevice(serial.c_str(), false, nullptr), 0) << serial.substr(0, 80);
        EXPECT_TRUE(library_.getTokenInfo(serial.c_str(), nullptr).model.empty());
        EXPECT_TRUE(library_.getKeyPairList(serial.c_str(), nullptr).empty());
    }
}

TEST_F(SoftTokenTest, HostileArgumentsAreRefused) {
    ASSERT_EQ(logIn(), 0);
    VeltraKeyPair key = generate(kKeyTypeEcP256);
    unsigned char bytes[64] = {};
    int length = 64;
    int negative = -1;
    void* hash = nullptr;
    const auto& dll = library_;
    EXPECT_NE(dll.initDevice(nullptr, false, nullptr), 0);
    EXPECT_NE(dll.validatePassword(nullptr, kPin, 1, &length, nullptr), 0);
    EXPECT_NE(dll.validatePassword(kSerial, nullptr, 1, nullptr, nullptr), 0);
    EXPECT_TRUE(dll.getKeyPairList(nullptr, nullptr).empty());
    EXPECT_TRUE(dll.getTokenInfo(nullptr, nullptr).model.empty());
    EXPECT_NE(dll.generateKeyPair(kSerial, kPin, nullptr, nullptr), 0);
    EXPECT_NE(dll.deleteKeyPair(kSerial, nullptr, kPin, false, nullptr), 0);
    EXPECT_NE(dll.updateKeyPairDetails(kSerial, key.keyId, kPin, nullptr, nullptr, 0, nullptr), 0);
    EXPECT_NE(dll.updateKeyPairDetails(kSerial, key.keyId, kPin, "x", bytes, -1, nullptr), 0);
    const auto signs = [&](const unsigned char* id, const unsigned char* data, int dataLength,
                           unsigned char* out, int* outLength) {
        return dll.signHash(kSerial, id, kPin, data, dataLength, out, outLength, false, nullptr, false) == 0;
    };
    EXPECT_FALSE(signs(nullptr, bytes, 32, bytes, &length));
    EXPECT_FALSE(signs(key.keyId, nullptr, 32, bytes, &length));
    EXPECT_FALSE(signs(key.keyId, bytes, -32, bytes, &length));
    EXPECT_FALSE(signs(key.keyId, bytes, 0, bytes, &length));
    EXPECT_FALSE(signs(key.keyId, bytes, 33, bytes, &length));
    EXPECT_FALSE(signs(key.keyId, bytes, 32, nullptr, &length));
    EXPECT_FALSE(signs(key.keyId, bytes, 32, bytes, nullptr));
    EXPECT_FALSE(signs(key.keyId, bytes, 32, bytes, &negative));
    for (const std::uint32_t type : {0u, 1u, 2u, 5u, 8u, ~0u}) {
        EXPECT_NE(
            dll.verifySignatureHash(type, nullptr, nullptr, 32, nullptr, 65, nullptr, 64, nullptr, false), 0);
        EXPECT_NE(dll.verifySignatureHash(type, "", bytes, 32, bytes, 64, bytes, 64, nullptr, false), 0);
        EXPECT_NE(dll.verifySignatureHash(type, "", bytes, 32, bytes, 0, bytes, 0, nullptr, true), 0);
    }
    EXPECT_NE(dll.generateRamdomNumber("", -1, bytes, true, nullptr), 0);
    EXPECT_NE(dll.generateRamdomNumber("", 1, nullptr, true, nullptr), 0);
    EXPECT_NE(dll.generateRamdomNumber("", 1, bytes, false, nullptr), 0);
    EXPECT_NE(dll.initHash("", 1, &hash, nullptr), 0);
    EXPECT_NE(dll.initHash("", kMechanismSha256, nullptr, nullptr), 0);
    EXPECT_NE(dll.updateHash(nullptr, bytes, 1, nullptr), 0);
    EXPECT_NE(dll.updateHash(&hash, bytes, 1, nullptr), 0);
    EXPECT_NE(dll.finalHash(&hash, bytes, &length, nullptr), 0);
    ASSERT_EQ(dll.initHash("", kMechanismSha256, &hash, nullptr), 0);
    EXPECT_NE(dll.updateHash(hash, nullptr, 1, nullptr), 0);
    EXPECT_NE(dll.updateHash(hash, bytes, -1, nullptr), 0);
    EXPECT_NE(dll.finalHash(hash, nullptr, &length, nullptr), 0);
    EXPECT_NE(dll.finalHash(hash, bytes, nullptr, nullptr), 0);
    EXPECT_NE(dll.finalHash(hash, bytes, &negative, nullptr), 0);
    EXPECT_EQ(dll.finalHash(hash, bytes, &length, nullptr), 0);
}

TEST_F(SoftTokenTest, RandomNumbersFillExactlyTheBuffer) {
    for (const bool software : {false, true}) {
        Bytes first(34, 0xAA);
        Bytes second = first;
        ASSERT_EQ(library_.generateRamdomNumber(kSerial, 32, first.data() + 1, software, nullptr), 0);
        ASSERT_EQ(library_.generateRamdomNumber(kSerial, 32, second.data() + 1, software, nullptr), 0);
        EXPECT_NE(first, second);
        EXPECT_EQ(first.front(), 0xAA);
        EXPECT_EQ(first.back(), 0xAA);
    }
}

TEST_F(SoftTokenTest, TwoProcessesAndTheirThreadsShareAToken) {
    ASSERT_EQ(logIn(), 0);
    LoadedLibrary other(LoadedLibrary::Instance::Second);
    ASSERT_EQ(other.validatePassword(kSerial, kPin, 1, nullptr, nullptr), 0);
    constexpr int kKeysPerThread = 5;
    std::atomic<int> failures = 0;
    const auto work = [&](const LoadedLibrary& library) {
        for (int i = 0; i < kKeysPerThread; ++i) {
            VeltraKeyPair key{};
            key.keyType = kKeyTypeEcP256;
            if (library.generateKeyPair(kSerial, kPin, &key, nullptr) != 0) ++failures;
            const std::vector<VeltraKeyPair> listed = library.getKeyPairList(kSerial, nullptr);
            const bool found = std::any_of(listed.begin(), listed.end(), [&](const VeltraKeyPair& entry) {
                return std::memcmp(&entry, &key, sizeof(key)) == 0;
            });
            if (!found) ++failures;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back(work, std::cref(library_));
        threads.emplace_back(work, std::cref(other));
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    const std::vector<VeltraKeyPair> all = other.getKeyPairList(kSerial, nullptr);
    EXPECT_EQ(all.size(), threads.size() * kKeysPerThread);
}

TEST_F(SoftTokenTest, AListStaysAsItIsWhileOtherThreadsAskForTheirs) {
    ASSERT_EQ(logIn(), 0);
    static_cast<void>(generate(kKeyTypeEcP256));
    const std::vector<VeltraKeyPair>& mine = library_.getKeyPairList(kSerial, nullptr);
    const VeltraKeyPair* data = mine.data();
    for (int round = 0; round < 100; ++round) { // enough ended threads for their lists to be dropped
        std::thread([&] {
            VeltraKeyPair key{};
            key.keyType = kKeyTypeEcP256;
            if (round == 0) {
                EXPECT_EQ(library_.generateKeyPair(kSerial, kPin, &key, nullptr), 0);
            }
            EXPECT_EQ(library_.getKeyPairList(kSerial, nullptr).size(), 2u);
        }).join();
    }
    EXPECT_EQ(mine.data(), data);
    EXPECT_EQ(mine.size(), 1u);
}

} // namespace veltra::softtoken::test
