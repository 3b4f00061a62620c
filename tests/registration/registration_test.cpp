#include "lifecycle/child_process.h"
#include "registration/bcrypt_calls.h"
#include "registration/registration.h"
#include "support/googletest.h"
#include "support/log_file.h"

#include <fstream>
#include <iterator>
#include <map>

namespace veltra::test {
namespace {

/// What the stand-in for bcrypt.dll was called with, and what its functions answer, by their first words.
std::vector<std::string> calls;
std::map<std::string, DWORD> statuses;

const std::string kName = "Veltra Cryptographic Provider CSP";
const std::string kEntry = ": 1 null 10001 KEY_STORAGE " + kName;
const std::string kRemove = "Remove" + kEntry, kUnregister = "Unregister: " + kName,
                  kRegister = "Register: " + kName + " 0 0 null VeltraCSP.dll 1 10001 1 1 KEY_STORAGE null",
                  kAdd = "Add" + kEntry + " ffffffff";

/// Puts the stand-in in front, without the export `missing`: the name's last letter is changed in the file,
/// which keeps the names in order.
void installStandIn(const std::string& missing = {}) {
    std::ifstream in(programFolder() + "bcrypt_stand_in.dll", std::ios::binary);
    std::string file{std::istreambuf_iterator<char>(in), {}};
    const std::size_t name = file.find(missing);
    ASSERT_NE(name, std::string::npos);
    if (!missing.empty()) file[name + missing.size() - 1] = '_';
    std::ofstream out(programFolder() + "bcrypt.dll", std::ios::binary | std::ios::trunc);
    ASSERT_TRUE(!file.empty() && out << file);
}

/// What one of the two functions answers, its calls of bcrypt.dll, and how the log ends.
struct Answer {
    HRESULT result = S_OK;
    std::vector<std::string> calls;
    std::string line;
};

void expect(decltype(&DllRegisterServer) function, const std::string& start, const Answer& expected) {
    ASSERT_EQ(GetModuleHandleA("bcrypt.dll"), nullptr) << "a part of the system uses the stand-in";
    calls.clear();
    removeLog();
    EXPECT_EQ(function(), expected.result);
    EXPECT_EQ(calls, expected.calls);
    std::vector<std::string> log;
    for (const std::string& line : linesOf(readLog()))
        log.push_back(withoutTime(line));
    EXPECT_THAT(log, testing::ElementsAre("DEBUG " + start + "ing KSP via CNG API", expected.line));
    EXPECT_EQ(GetModuleHandleA("bcrypt.dll"), nullptr) << "bcrypt.dll is released";
}

void expectBoth(const Answer& registering, const Answer& unregistering) {
    expect(DllRegisterServer, "DllRegisterServer: Register", registering);
    expect(DllUnregisterServer, "DllUnregisterServer: Unregister", unregistering);
}

// Nothing is taken back when a call fails, and a removal that fails is no failure: there may be nothing to
// remove. A failing status is logged in decimal behind "0x", an informational one is none. Only the function
// that removes from the context may be missing; unregistering calls whichever is there.
TEST(RegistrationTest, RegistersAndUnregisters) {
    useOwnLogFolder();
    setLogLevel(3);
    installStandIn();
    const Answer registered = {S_OK,
                               {kRemove, kUnregister, kRegister, kAdd},
                               "DEBUG DllRegisterServer: KSP registered successfully"};
    const std::string removed = "DEBUG DllUnregisterServer: KSP unregistered successfully";
    const Answer unregistered = {S_OK, {kRemove, kUnregister}, removed};
    const Answer notFound = {E_FAIL, {}, "ERROR Failed to find BCrypt registration functions"};
    const auto code = [](DWORD result) { return static_cast<HRESULT>(result); };
    expectBoth(registered, unregistered);
    statuses = {{"Remove", 0xC0000225}, {"Unregister", 0xC0000034}};
    expectBoth(registered, unregistered);
    statuses = {{"Register", 0x40000000}, {"Add", 0x40000000}};
    expectBoth(registered, unregistered);
    statuses = {{"Register", 0xC0000022}};
    expectBoth({code(0xD0000022),
                {kRemove, kUnregister, kRegister},
                "ERROR BCryptRegisterProvider failed: 0x-1073741790"},
               unregistered);
    statuses = {{"Add", 0xC000000D}};
    expectBoth(
        {code(0xD000000D), registered.calls, "ERROR BCryptAddContextFunctionProvider failed: 0x-1073741811"},
        unregistered);
    statuses.clear();
    for (const char* missing : {"BCryptRegisterProvider", "BCryptAddContextFunctionProvider"}) {
        installStandIn(missing);
        expectBoth(notFound, unregistered);
    }
    installStandIn("BCryptUnregisterProvider");
    expectBoth(notFound, {S_OK, {kRemove}, removed});
    installStandIn("BCryptRemoveContextFunctionProvider");
    expectBoth({S_OK, {kUnregister, kRegister, kAdd}, registered.line}, {S_OK, {kUnregister}, removed});
    ASSERT_TRUE(DeleteFileA((programFolder() + "bcrypt.dll").c_str()));
    expectBoth({E_FAIL, {}, "ERROR Failed to load bcrypt.dll"},
               {E_FAIL, {}, "ERROR DllUnregisterServer: LoadLibraryW failed to load bcrypt.dll"});
}

} // namespace
} // namespace veltra::test

LONG bcryptCalled(const char* call) {
    const std::string line = veltra::test::calls.emplace_back(call);
    return static_cast<LONG>(veltra::test::statuses[line.substr(0, line.find(':'))]);
}
