// token_calls.exe: calls of the device library on files, so that OpenSSL can judge what they make. Works on
// the first connected token, in its single-sign-on session. The exit code is the library's result.

#include "softtoken/loaded_library.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <iterator>
#include <stdexcept>

using namespace veltra;
using namespace veltra::softtoken;
using namespace veltra::softtoken::test;

namespace {

constexpr const char* kNoPin = ""; // the session knows it

Bytes readFile(const char* path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) throw std::runtime_error(std::string("cannot read ") + path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

void writeFile(const char* path, BytesView content) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
    if (!file.flush()) throw std::runtime_error(std::string("cannot write ") + path);
}

int lengthOf(const Bytes& bytes) {
    return static_cast<int>(bytes.size());
}

/// The record that `generate` wrote.
VeltraKeyPair readKey(const char* path) {
    VeltraKeyPair key{};
    const Bytes content = readFile(path);
    if (content.size() != sizeof(key)) throw std::runtime_error(std::string(path) + " is no key record");
    std::memcpy(&key, content.data(), sizeof(key));
    return key;
}

/// Writes what a call made, when it succeeded.
int finish(int result, const char* path, BytesView made) {
    if (result == kDeviceOk) writeFile(path, made);
    return result;
}

int generate(const LoadedLibrary& library, const char* serial, char** arguments) {
    VeltraKeyPair key{};
    key.keyType = static_cast<std::uint32_t>(std::atoi(arguments[0]));
    key.usage = kUsageEncrypt;
    const int result = library.generateKeyPair(serial, kNoPin, &key, nullptr);
    if (result == kDeviceOk) writeFile(arguments[2], {key.publicKey, key.publicKeyLength});
    return finish(result, arguments[1], {reinterpret_cast<const unsigned char*>(&key), sizeof(key)});
}

int signPss(const LoadedLibrary& library, const char* serial, char** arguments) {
    const Bytes hash = readFile(arguments[1]);
    Bytes out(512);
    int length = lengthOf(out);
    const int result = library.signHash(serial, readKey(arguments[0]).keyId, kNoPin, hash.data(),
                                        lengthOf(hash), out.data(), &length, false, nullptr, true);
    return finish(result, arguments[2], {out.data(), static_cast<std::size_t>(length)});
}

int encrypt(const LoadedLibrary& library, const char*, char** arguments) {
    const Bytes key = readFile(arguments[1]);
    const Bytes in = readFile(arguments[2]);
    Bytes out(512);
    int length = lengthOf(out);
    const auto padding = static_cast<PaddingMode>(std::atoi(arguments[0]));
    const int result = library.encrypt(EncryptionType::Rsa2048, padding, in.data(), lengthOf(in), out.data(),
                                       &length, key.data(), lengthOf(key), nullptr);
    return finish(result, arguments[3], {out.data(), static_cast<std::size_t>(length)});
}

int decrypt(const LoadedLibrary& library, const char* serial, char** arguments) {
    const Bytes in = readFile(arguments[1]);
    LibraryOutput out;
    const int result = library.decrypt(serial, readKey(arguments[0]).keyId, kNoPin, in.data(), lengthOf(in),
                                       &out.data, &out.length, false, nullptr);
    return finish(result, arguments[2], out.bytes());
}

int derive(const LoadedLibrary& library, const char* serial, char** arguments) {
    const Bytes peer = readFile(arguments[1]);
    LibraryOutput out;
    const int result = library.ecdhDerive(serial, readKey(arguments[0]).keyId, kNoPin, peer.data(),
                                          lengthOf(peer), &out.data, &out.length, nullptr);
    return finish(result, arguments[2], out.bytes());
}

struct Command {
    const char* name;
    int arguments;
    int (*run)(const LoadedLibrary&, const char*, char**);
};

constexpr Command kCommands[] = {
    {"generate", 3, generate}, // TYPE KEY PUBLIC
    {"sign-pss", 3, signPss},  // KEY HASH OUT
    {"encrypt", 4, encrypt},   // PADDING SUBJECT-PUBLIC-KEY-INFO IN OUT
    {"decrypt", 3, decrypt},   // KEY IN OUT
    {"derive", 3, derive},     // KEY POINT OUT
};

} // namespace

int main(int count, char** arguments) {
    try {
        const LoadedLibrary library;
        const std::vector<std::string> serials = library.getConnectedDeviceList(false, nullptr);
        for (const Command& command : kCommands) {
            if (count != command.arguments + 2 || std::strcmp(arguments[1], command.name) != 0) continue;
            return command.run(library, serials.at(0).c_str(), arguments + 2);
        }
        throw std::runtime_error("unknown command, or the wrong number of arguments");
    } catch (const std::exception& error) {
        std::fprintf(stderr, "token_calls: %s\n", error.what());
        return 255;
    }
}
