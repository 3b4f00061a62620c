#include "registration/bcrypt_calls.h"
#include "registration/registration.h"
#include "support/googletest.h"
#include "support/log_file.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <new>
#include <sstream>

namespace veltra::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Lines = std::vector<std::string>;

Lines calls;
std::map<std::string, LONG> statuses;
bool hasMemory;

std::string besideThisProgram(const std::string& file) {
    char path[MAX_PATH] = {};
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    return std::string(path).substr(0, std::string(path).find_last_of('\\') + 1) + file;
}

/// Puts the stand-in in front, without the export `missing`: the name's last letter is changed in the file,
/// which keeps the names in order.
void installStandIn(const std::string& missing = {}) {
    std::ifstream in(besideThisProgram("bcrypt_stand_in.dll"), std::ios::binary);
    std::string file{std::istreambuf_iterator<char>(in), {}};
    ASSERT_FALSE(file.empty());
    if (!missing.empty()) {
        const std::size_t name = file.find(missing);
        ASSERT_NE(name, std::string::npos);
        file[name + missing.size() - 1] = '_';
    }
    std::ofstream out(besideThisProgram("bcrypt.dll"), std::ios::binary | std::ios::trunc);
    ASSERT_TRUE(out << file);
}

const std::string kRegister = "BCryptRegisterProvider";
const std::string kUnregister = "BCryptUnregisterProvider";
const std::string kAdd = "BCryptAddContextFunctionProvider";
const std::string kRemove = "BCryptRemoveContextFunctionProvider";

const std::string kName = "Veltra Cryptographic Provider CSP";
const std::string kEntry = "table 1, context null, interface 10001, function KEY_STORAGE, provider " + kName;
const std::string kRemoveCall = "Remove: " + kEntry;
const std::string kUnregisterCall = "Unregister: provider " + kName;
const std::string kRegisterCall = "Register: provider " + kName +
                                  ", flags 0, aliases 0 null, user mode VeltraCSP.dll (interface 10001 "
                                  "flags 1 function KEY_STORAGE), kernel mode null";
const std::string kAddCall = "Add: " + kEntry + ", position FFFFFFFF";

const std::string kRegisterStarts = "DEBUG DllRegisterServer: Registering KSP via CNG API";
const std::string kRegistered = "DEBUG DllRegisterServer: KSP registered successfully";
const std::string kUnregisterStarts = "DEBUG DllUnregisterServer: Unregistering KSP via CNG API";
const std::string kUnregistered = "DEBUG DllUnregisterServer: KSP unregistered successfully";

class RegistrationTest : public testing::Test {
protected:
    RegistrationTest() {
        useOwnLogFolder();
        setLogLevel(3);
        statuses.clear();
        hasMemory = true;
        installStandIn();
    }
    ~RegistrationTest() override { DeleteFileA(besideThisProgram("bcrypt.dll").c_str()); }

    /// Runs one of the two functions and expects this result, these calls of bcrypt.dll and these log lines.
    static void expect(decltype(&DllRegisterServer) function, HRESULT result, const Lines& expectedCalls,
                       const Lines& expectedLog) {
        ASSERT_EQ(GetModuleHandleA("bcrypt.dll"), nullptr) << "a part of the system uses the stand-in";
        calls.clear();
        removeLog();
        EXPECT_EQ(function(), result);
        EXPECT_EQ(calls, expectedCalls);
        Lines log;
        std::istringstream raw(readLog());
        for (std::string line; std::getline(raw, line);)
            log.push_back(withoutTime(line));
        EXPECT_EQ(log, expectedLog);
        EXPECT_EQ(GetModuleHandleA("bcrypt.dll"), nullptr) << "bcrypt.dll is released";
    }
};

const Lines kAllCalls = {kRemoveCall, kUnregisterCall, kRegisterCall, kAddCall};
const HRESULT kFail = static_cast<HRESULT>(0x80004005);

TEST_F(RegistrationTest, RegisteringRemovesTheOldEntryFirst) {
    expect(DllRegisterServer, S_OK, kAllCalls, {kRegisterStarts, kRegistered});
    expect(DllRegisterServer, S_OK, kAllCalls, {kRegisterStarts, kRegistered});
    expect(DllUnregisterServer, S_OK, {kRemoveCall, kUnregisterCall}, {kUnregisterStarts, kUnregistered});
}

TEST_F(RegistrationTest, NothingToRemoveIsNoFailure) {
    statuses = {{"Remove", static_cast<LONG>(0xC0000225)}, {"Unregister", static_cast<LONG>(0xC0000034)}};
    expect(DllRegisterServer, S_OK, kAllCalls, {kRegisterStarts, kRegistered});
    expect(DllUnregisterServer, S_OK, {kRemoveCall, kUnregisterCall}, {kUnregisterStarts, kUnregistered});
}

TEST_F(RegistrationTest, FailingStatusIsLoggedInDecimalBehind0xAndNothingIsTakenBack) {
    statuses = {{"Register", static_cast<LONG>(0xC0000022)}};
    expect(DllRegisterServer, static_cast<HRESULT>(0xD0000022), {kRemoveCall, kUnregisterCall, kRegisterCall},
           {kRegisterStarts, "ERROR BCryptRegisterProvider failed: 0x-1073741790"});
    statuses = {{"Add", static_cast<LONG>(0xC000000D)}};
    expect(DllRegisterServer, static_cast<HRESULT>(0xD000000D), kAllCalls,
           {kRegisterStarts, "ERROR BCryptAddContextFunctionProvider failed: 0x-1073741811"});
    // An informational status is none.
    statuses = {{"Register", 0x40000000}, {"Add", 0x40000000}};
    expect(DllRegisterServer, S_OK, kAllCalls, {kRegisterStarts, kRegistered});
}

TEST_F(RegistrationTest, OnlyTheFunctionThatRemovesFromTheContextMayBeMissing) {
    const Lines notFound = {kRegisterStarts, "ERROR Failed to find BCrypt registration functions"};
    const Lines unregistered = {kUnregisterStarts, kUnregistered};
    for (const std::string& missing : {kRegister, kUnregister, kAdd}) {
        SCOPED_TRACE(missing);
        installStandIn(missing);
        expect(DllRegisterServer, kFail, {}, notFound);
    }
    installStandIn(kRemove);
    expect(DllRegisterServer, S_OK, {kUnregisterCall, kRegisterCall, kAddCall},
           {kRegisterStarts, kRegistered});
    // Unregistering calls whichever is there.
    expect(DllUnregisterServer, S_OK, {kUnregisterCall}, unregistered);
    installStandIn(kUnregister);
    expect(DllUnregisterServer, S_OK, {kRemoveCall}, unregistered);
}

TEST_F(RegistrationTest, WithoutBcryptBothFail) {
    ASSERT_TRUE(DeleteFileA(besideThisProgram("bcrypt.dll").c_str()));
    expect(DllRegisterServer, kFail, {}, {kRegisterStarts, "ERROR Failed to load bcrypt.dll"});
    expect(DllUnregisterServer, kFail, {},
           {kUnregisterStarts, "ERROR DllUnregisterServer: LoadLibraryW failed to load bcrypt.dll"});
}

TEST_F(RegistrationTest, OutOfMemoryIsLoggedUnderTheFunctionsName) {
    hasMemory = false;
    expect(DllRegisterServer, E_OUTOFMEMORY, {}, {kRegisterStarts, "ERROR DllRegisterServer: out of memory"});
    expect(DllUnregisterServer, E_OUTOFMEMORY, {},
           {kUnregisterStarts, "ERROR DllUnregisterServer: out of memory"});
}

} // namespace
} // namespace veltra::test

LONG bcryptCalled(const char* call) {
    if (!veltra::test::hasMemory) throw std::bad_alloc();
    const std::string line = call;
    veltra::test::calls.push_back(line);
    const auto found = veltra::test::statuses.find(line.substr(0, line.find(':')));
    return found == veltra::test::statuses.end() ? 0 : found->second;
}
