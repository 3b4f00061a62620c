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

using Lines = std::vector<std::string>;

Lines calls;
std::map<std::string, LONG> statuses;
bool hasMemory = true;

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

void removeStandIn() {
    ASSERT_TRUE(DeleteFileA(besideThisProgram("bcrypt.dll").c_str()));
}

const std::string kName = "Veltra Cryptographic Provider CSP";
const std::string kEntry = "table 1, context null, interface 10001, function KEY_STORAGE, provider " + kName;
const std::string kRemoveCall = "Remove: " + kEntry;
const std::string kUnregisterCall = "Unregister: provider " + kName;
const std::string kRegisterCall = "Register: provider " + kName +
                                  ", flags 0, aliases 0 null, user mode VeltraCSP.dll (interface 10001 "
                                  "flags 1 function KEY_STORAGE), kernel mode null";
const std::string kAddCall = "Add: " + kEntry + ", position FFFFFFFF";

class RegistrationTest : public testing::Test {
protected:
    RegistrationTest() {
        useOwnLogFolder();
        setLogLevel(3);
        installStandIn();
    }

    /// What one of the two functions answers, its calls of bcrypt.dll and how the log ends.
    struct Answer {
        HRESULT result = S_OK;
        Lines calls;
        std::string line;
    };

    static void expectBoth(const Answer& registering, const Answer& unregistering) {
        expect(DllRegisterServer, "DllRegisterServer: Register", registering);
        expect(DllUnregisterServer, "DllUnregisterServer: Unregister", unregistering);
    }

private:
    static void expect(decltype(&DllRegisterServer) function, const std::string& start,
                       const Answer& expected) {
        ASSERT_EQ(GetModuleHandleA("bcrypt.dll"), nullptr) << "a part of the system uses the stand-in";
        calls.clear();
        removeLog();
        EXPECT_EQ(function(), expected.result);
        EXPECT_EQ(calls, expected.calls);
        Lines log;
        std::istringstream raw(readLog());
        for (std::string line; std::getline(raw, line);)
            log.push_back(withoutTime(line));
        EXPECT_THAT(log, testing::ElementsAre("DEBUG " + start + "ing KSP via CNG API", expected.line));
        EXPECT_EQ(GetModuleHandleA("bcrypt.dll"), nullptr) << "bcrypt.dll is released";
    }
};

const Lines kRemoval = {kRemoveCall, kUnregisterCall};
const Lines kAllCalls = {kRemoveCall, kUnregisterCall, kRegisterCall, kAddCall};

// Nothing is taken back when a call fails, and a removal that fails is no failure: there may be nothing to
// remove. A failing status is logged in decimal behind "0x", an informational one is none. Only the function
// that removes from the context may be missing; unregistering calls whichever is there.
TEST_F(RegistrationTest, RegistersAndUnregisters) {
    const Answer registered = {S_OK, kAllCalls, "DEBUG DllRegisterServer: KSP registered successfully"};
    const std::string unregisteredLine = "DEBUG DllUnregisterServer: KSP unregistered successfully";
    const Answer unregistered = {S_OK, kRemoval, unregisteredLine};
    const Answer notFound = {E_FAIL, {}, "ERROR Failed to find BCrypt registration functions"};
    const auto code = [](DWORD status) { return static_cast<LONG>(status); };
    expectBoth(registered, unregistered);
    statuses = {{"Remove", code(0xC0000225)}, {"Unregister", code(0xC0000034)}};
    expectBoth(registered, unregistered);
    statuses = {{"Register", 0x40000000}, {"Add", 0x40000000}};
    expectBoth(registered, unregistered);
    statuses = {{"Register", code(0xC0000022)}};
    expectBoth({code(0xD0000022),
                {kRemoveCall, kUnregisterCall, kRegisterCall},
                "ERROR BCryptRegisterProvider failed: 0x-1073741790"},
               unregistered);
    statuses = {{"Add", code(0xC000000D)}};
    expectBoth({code(0xD000000D), kAllCalls, "ERROR BCryptAddContextFunctionProvider failed: 0x-1073741811"},
               unregistered);
    statuses.clear();
    installStandIn("BCryptRegisterProvider");
    expectBoth(notFound, unregistered);
    installStandIn("BCryptAddContextFunctionProvider");
    expectBoth(notFound, unregistered);
    installStandIn("BCryptUnregisterProvider");
    expectBoth(notFound, {S_OK, {kRemoveCall}, unregisteredLine});
    installStandIn("BCryptRemoveContextFunctionProvider");
    expectBoth({S_OK, {kUnregisterCall, kRegisterCall, kAddCall}, registered.line},
               {S_OK, {kUnregisterCall}, unregisteredLine});
    installStandIn();
    hasMemory = false;
    expectBoth({E_OUTOFMEMORY, {}, "ERROR DllRegisterServer: out of memory"},
               {E_OUTOFMEMORY, {}, "ERROR DllUnregisterServer: out of memory"});
    removeStandIn();
    expectBoth({E_FAIL, {}, "ERROR Failed to load bcrypt.dll"},
               {E_FAIL, {}, "ERROR DllUnregisterServer: LoadLibraryW failed to load bcrypt.dll"});
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
