#include "registration/registration.h"
#include "support/googletest.h"
#include "support/log_file.h"

#include "foundation/cng.h"

#include <bit>
#include <map>
#include <new>
#include <set>

namespace veltra::test {
namespace {

using Lines = std::vector<std::string>;

const WCHAR* const kName = L"Veltra Cryptographic Provider CSP";
const WCHAR* const kFunction = L"KEY_STORAGE";
constexpr ULONG kInterface = 0x10001;
constexpr const char* kModule = "msacm32.dll"; ///< loaded in the place of bcrypt.dll

bool isThere = true;
bool hasMemory = true;
std::set<std::string> missing;
std::map<std::string, NTSTATUS> statuses;
Lines calls;

NTSTATUS called(const char* call) {
    if (!hasMemory) throw std::bad_alloc();
    calls.emplace_back(call);
    const auto found = statuses.find(call);
    return found == statuses.end() ? 0 : found->second;
}

void expectEntry(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function, LPCWSTR provider) {
    EXPECT_TRUE(table == 1 && context == nullptr && interfaceId == kInterface);
    EXPECT_STREQ(function, kFunction);
    EXPECT_STREQ(provider, kName);
}

NTSTATUS WINAPI registerProvider(LPCWSTR name, ULONG flags, CRYPT_PROVIDER_REG* provider) {
    const CRYPT_IMAGE_REG& image = *provider->pUM;
    const CRYPT_INTERFACE_REG& keyStorage = *image.rgpInterfaces[0];
    EXPECT_STREQ(name, kName);
    EXPECT_STREQ(image.pszImage, L"VeltraCSP.dll");
    EXPECT_STREQ(keyStorage.rgpszFunctions[0], kFunction);
    EXPECT_TRUE(flags == 0 && provider->cAliases == 0 && provider->rgpszAliases == nullptr &&
                provider->pKM == nullptr && image.cInterfaces == 1);
    EXPECT_TRUE(keyStorage.dwInterface == kInterface && keyStorage.dwFlags == 1 &&
                keyStorage.cFunctions == 1);
    return called("Register");
}

NTSTATUS WINAPI unregisterProvider(LPCWSTR name) {
    EXPECT_STREQ(name, kName);
    return called("Unregister");
}

NTSTATUS WINAPI addToContext(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function,
                             LPCWSTR provider, ULONG position) {
    expectEntry(table, context, interfaceId, function, provider);
    EXPECT_EQ(position, 0xFFFFFFFF);
    return called("Add");
}

NTSTATUS WINAPI removeFromContext(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function,
                                  LPCWSTR provider) {
    expectEntry(table, context, interfaceId, function, provider);
    return called("Remove");
}

class RegistrationTest : public testing::Test {
protected:
    RegistrationTest() {
        useOwnLogFolder();
        setLogLevel(3);
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
        calls.clear();
        removeLog();
        EXPECT_EQ(function(), expected.result);
        EXPECT_EQ(calls, expected.calls);
        Lines log = linesOf(readLog());
        std::ranges::transform(log, log.begin(), withoutTime);
        EXPECT_THAT(log, testing::ElementsAre("DEBUG " + start + "ing KSP via CNG API", expected.line));
        EXPECT_EQ(GetModuleHandleA(kModule), nullptr) << "bcrypt.dll is released";
    }
};

// Nothing is taken back when a call fails, and a removal that fails is no failure: there may be nothing to
// remove. A failing status is logged in decimal behind "0x", an informational one is none. Only the function
// that removes from the context may be missing; unregistering calls whichever is there.
TEST_F(RegistrationTest, RegistersAndUnregisters) {
    const Lines removal = {"Remove", "Unregister"}, all = {"Remove", "Unregister", "Register", "Add"};
    const Answer registered = {S_OK, all, "DEBUG DllRegisterServer: KSP registered successfully"};
    const Answer unregistered = {S_OK, removal, "DEBUG DllUnregisterServer: KSP unregistered successfully"};
    const auto code = [](DWORD status) { return static_cast<LONG>(status); };
    expectBoth(registered, unregistered);
    statuses = {{"Remove", code(0xC0000225)}, {"Unregister", code(0xC0000034)}};
    expectBoth(registered, unregistered);
    statuses = {{"Register", 0x40000000}, {"Add", 0x40000000}};
    expectBoth(registered, unregistered);
    statuses = {{"Register", code(0xC0000022)}};
    expectBoth({code(0xD0000022),
                {"Remove", "Unregister", "Register"},
                "ERROR BCryptRegisterProvider failed: 0x-1073741790"},
               unregistered);
    statuses = {{"Add", code(0xC000000D)}};
    expectBoth({code(0xD000000D), all, "ERROR BCryptAddContextFunctionProvider failed: 0x-1073741811"},
               unregistered);
    statuses.clear();
    for (const char* name :
         {"BCryptRegisterProvider", "BCryptAddContextFunctionProvider", "BCryptUnregisterProvider"}) {
        missing = {name};
        const bool removes = missing.contains("BCryptUnregisterProvider");
        expectBoth({E_FAIL, {}, "ERROR Failed to find BCrypt registration functions"},
                   {S_OK, removes ? Lines{"Remove"} : removal, unregistered.line});
    }
    missing = {"BCryptRemoveContextFunctionProvider"};
    expectBoth({S_OK, {"Unregister", "Register", "Add"}, registered.line},
               {S_OK, {"Unregister"}, unregistered.line});
    missing.clear();
    hasMemory = false;
    expectBoth({E_OUTOFMEMORY, {}, "ERROR DllRegisterServer: out of memory"},
               {E_OUTOFMEMORY, {}, "ERROR DllUnregisterServer: out of memory"});
    isThere = false;
    expectBoth({E_FAIL, {}, "ERROR Failed to load bcrypt.dll"},
               {E_FAIL, {}, "ERROR DllUnregisterServer: LoadLibraryW failed to load bcrypt.dll"});
}

HMODULE WINAPI loadStandIn(LPCWSTR name) {
    EXPECT_STREQ(name, L"bcrypt.dll");
    return isThere ? LoadLibraryA(kModule) : nullptr;
}

FARPROC WINAPI findInStandIn(HMODULE module, LPCSTR name) {
    static const std::map<std::string, FARPROC> functions = {
        {"BCryptRegisterProvider", std::bit_cast<FARPROC>(&registerProvider)},
        {"BCryptUnregisterProvider", std::bit_cast<FARPROC>(&unregisterProvider)},
        {"BCryptAddContextFunctionProvider", std::bit_cast<FARPROC>(&addToContext)},
        {"BCryptRemoveContextFunctionProvider", std::bit_cast<FARPROC>(&removeFromContext)}};
    EXPECT_EQ(module, GetModuleHandleA(kModule));
    return missing.contains(name) ? nullptr : functions.at(name);
}

} // namespace
} // namespace veltra::test

// What registration.cpp calls in the place of LoadLibraryW and GetProcAddress, by the linker's names of
// imports.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
auto* __imp_loadStandIn = &veltra::test::loadStandIn;
auto* __imp_findInStandIn = &veltra::test::findInStandIn;
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
}
