// Every call of the device library, and every allocation, that an entry point makes fails once. The scenarios
// are calls that succeed; what they answer and hand out when nothing fails is what they are compared with.

#include "support/allocation_fault.h"
#include "support/blob_bytes.h"
#include "support/provider_test.h"
#include "support/working_calls.h"

#include "foundation/text.h"
#include "token/device_state.h"

#include <algorithm>
#include <span>

namespace veltra::test {
namespace {

using World = BothFrontEnds;

constexpr DWORD kErrors = 2, kEverything = 3; ///< log levels

constexpr std::string_view kHmacValue = "HP_HASHVAL of an HMAC";

/// Kinds of fault, as bits.
enum Kind : unsigned { kCode = 1, kExpired = 2, kNegative = 4, kTooLong = 8, kNoBuffer = 16, kThrows = 32 };
constexpr unsigned kCodes = kCode | kExpired, kLength = kNegative | kTooLong,
                   kAll = kCodes | kLength | kThrows;

struct Fault {
    const char* name;
    Kind kind;
    Script script;
    std::string_view functions = {}; ///< those that it is for; empty: all
};

constexpr std::string_view kBuffers =
    "veltra_decrypt veltra_encrypt_aes veltra_decrypt_aes veltra_ecdhDerive";
constexpr std::string_view kLengths =
    "veltra_decrypt veltra_encrypt_aes veltra_decrypt_aes veltra_ecdhDerive veltra_encrypt "
    "veltra_decryptSymetric veltra_signHash veltra_finalHash veltra_getKeyPairList veltra_getCertificateList "
    "veltra_findCertificateForKey veltra_getAesKeyList veltra_generateKeyPair veltra_importAesKey";

const Fault kFaults[] = {
    {"1", kCode, {.result = 1}},
    {"49", kExpired, {.result = kDeviceSessionExpired}},
    {"51", kCode, {.result = kDeviceWeakHashRefused}},
    {"negative length", kNegative, {.length = -1}, kLengths},
    {"length above the buffer", kTooLong, {.length = 20000}, kLengths},
    {"no buffer", kNoBuffer, {.noBuffer = true}, kBuffers},
    {"exception", kThrows, {.throws = true}},
    {"bad_alloc", kThrows, {.outOfMemory = true}},
};

/// What a fault that an entry point gets over changes.
enum class Effect {
    None,
    OtherResult, ///< it hands out less, as documented
    Spent,       ///< the object is of no use any more, as documented
    MayBeSpent,
};

/// The documented tolerances, and refusals that spend an object, by how the scenario's name begins and the
/// call's number, from 1. Empty and 0 stand for all.
struct Tolerance {
    std::string_view scenario;
    int call;
    std::string_view function;
    unsigned kinds;
    Effect effect = Effect::None;
};

const Tolerance kTolerances[] = {
    // What the library says of its initialisation is not looked at, and a token that refuses its own is only
    // reported. So is one that cannot be read again before its certificate is.
    {"", 0, "veltra_init", kCodes},
    {"CPAcquireContext of a new token", 3, "veltra_init", kThrows},
    {"CPAcquireContext of a new token", 0, "veltra_initDevice", kAll},
    {"KP_CERTIFICATE", 0, "veltra_initDevice", kCodes},
    {"KSPGetKeyProperty SmartCardKeyCertificate", 0, "veltra_initDevice", kCodes},
    // A context and a provider without keys, or without a token, are opened all the same.
    {"CPAcquireContext", 0, "veltra_getKeyPairList", kCodes | kLength},
    {"KSPOpenProvider", 0, "veltra_getConnectedDeviceList", kCodes},
    {"KSPOpenKey", 0, "veltra_getConnectedDeviceList", kCodes},
    {"KSPOpenKey", 2, "veltra_getKeyPairList", kCodes},
    // Token information that cannot be read counts as the stricter case: FIPS 140-3, no session.
    {"", 0, "veltra_getTokenInfo", kAll},
    // Records with impossible lengths are reported and count as empty; other lists only shorten the result.
    {"CPSignHash", 0, "veltra_getKeyPairList", kLength},
    {"CPVerifySignature without a key", 0, "veltra_getKeyPairList", kLength},
    {"CPGetUserKey", 0, "veltra_getKeyPairList", kLength},
    {"CPExportKey", 0, "veltra_getKeyPairList", kLength, Effect::OtherResult},
    {"KSPOpenKey", 0, "veltra_getKeyPairList", kLength},
    {"KSPEnumKeys", 0, "veltra_getKeyPairList", kLength},
    {"PP_CERTCHAIN", 0, "veltra_getKeyPairList", kLength},
    {"PP_CERTCHAIN", 0, "veltra_getCertificateList", kCodes | kLength},
    {"", 0, "veltra_getAesKeyList", kLength},
    {"", 0, "veltra_importAesKey", kLength},
    {"KSPSecretAgreement", 0, "veltra_ecdhDerive", kTooLong},
    // The type of a remembered key that is not in the list stays unknown; the token signs with it.
    {"CPSignHash", 0, "veltra_getKeyPairList", kCodes, Effect::OtherResult},
    // The user logs in again when the session has expired.
    {"", 0, "veltra_signHash", kExpired},
    {"CPDecrypt RSA", 0, "veltra_decrypt", kExpired},
    {"KSPDecrypt RSA", 0, "veltra_decrypt", kExpired},
    // A container is forgotten whatever becomes of its keys.
    {"CPAcquireContext CRYPT_DELETEKEYSET", 0, "veltra_deleteKeyPair", kCodes},
    // The certificate is stored: its issuers and the key pair's label are a convenience.
    {"", 0, "veltra_getFilesWithExtensionsAndConvertDER", kAll},
    {"", 3, "veltra_getCertificateDetails", kAll},
    {"", 4, "veltra_getCertificateDetails", kAll},
    {"", 8, "veltra_getKeyPairList", kAll},
    {"", 0, "veltra_updateKeyPairDetails", kAll},
    // The inner hash of an HMAC is consumed when its outer step fails.
    {kHmacValue, 2, "", kAll, Effect::Spent},
    {kHmacValue, 3, "", kAll, Effect::Spent},
    {kHmacValue, 4, "", kAll, Effect::Spent},
    {kHmacValue, 5, "", kAll, Effect::Spent},
};

const Tolerance* toleranceOf(const WorkingCall& scenario, int call, std::string_view function,
                             const Fault& fault) {
    const auto* const found = std::ranges::find_if(kTolerances, [&](const Tolerance& row) {
        return std::string_view(scenario.name).starts_with(row.scenario) &&
               (row.call == 0 || row.call == call) && (row.function.empty() || row.function == function) &&
               (row.kinds & fault.kind) != 0;
    });
    return found == std::end(kTolerances) ? nullptr : found;
}

bool isAbout(std::string_view functions, std::string_view function) {
    const std::string list = concat(" ", functions, " ");
    return functions.empty() || list.find(concat(" ", function, " ")) != std::string::npos;
}

struct Reply {
    DWORD code = 0;
    std::vector<std::string> errors;
    Output out; ///< with 1 for every handle

    bool operator==(const Reply&) const = default;
};

class LibraryFaultTest : public ProviderTest {
protected:
    static std::vector<WorkingCall> scenarios() {
        std::vector<WorkingCall> all = cspCalls();
        std::ranges::copy(cngCalls(), std::back_inserter(all));
        std::erase_if(all, [](const WorkingCall& call) { return call.outcome != Outcome::Served; });
        return all;
    }

    /// A new world that the scenario was not run in yet, and a user who knows the PIN.
    std::unique_ptr<World> prepared(const WorkingCall& scenario, DWORD level = kErrors) {
        removeLog();
        takeRawLogLines();
        setLogLevel(kErrors);
        auto world = std::make_unique<World>(freshName("Faulty"));
        scenario.prepare(*world);
        prompt.willType({world->token.pin, world->token.pin}); // the second when the session expires
        library.clearCalls();
        setLogLevel(level);
        return world;
    }

    /// Runs the scenario; what it hands out is released. `armed` goes right in front of it. No PIN is logged.
    Reply perform(
        const WorkingCall& scenario, World& world, const std::function<void()>& armed = [] {}) {
        world.resetOutput();
        Reply reply;
        const Values values = scenario.valuesIn(world, scenario.choices[0]);
        Answer answer = run([&] {
            armed();
            reply.code = scenario.invoke(values);
            AllocationFault::disarm();
            return reply.code == 0;
        });
        reply.errors = std::move(answer.errors);
        EXPECT_THAT(debugLines, testing::Each(Not(showsPin())));
        EXPECT_THAT(reply.errors, testing::Each(Not(showsPin())));
        for (ULONG_PTR* handle : {&world.out.handle, &world.out.second})
            if (*handle != 0) *handle = releaseAny(*handle) ? 1 : 2;
        reply.out = world.out;
        return reply;
    }

    /// What a run with a fault may answer, and what the next one on the same objects.
    void judge(const WorkingCall& scenario, World& world, const Reply& undisturbed, const Reply& reply,
               Effect effect, bool wroteDirectly) {
        const bool refusal = reply.code != 0;
        if (refusal) expectRefusal(reply, world, wroteDirectly);
        EXPECT_TRUE(refusal || effect == Effect::OtherResult || reply.out == undisturbed.out);
        const std::string pin = getPin(world.token.serial).c_str();
        EXPECT_TRUE(pin.empty() || pin == world.token.pin);
        if (!refusal) return;
        prompt.willType({world.token.pin});
        const Reply again = perform(scenario, world);
        EXPECT_TRUE(effect == Effect::MayBeSpent ||
                    (again.code == 0 && again.out == undisturbed.out) == (effect != Effect::Spent))
            << "again: " << testing::PrintToString(again.errors);
    }

private:
    /// As text, as wide text or in hexadecimal.
    static testing::Matcher<std::string> showsPin() {
        const std::string pin = World::kPin;
        const Bytes wide = wideBytes(pin);
        return testing::AnyOf(HasSubstr(pin), HasSubstr(toHex(Bytes(pin.begin(), pin.end()))),
                              HasSubstr(std::string(wide.begin(), wide.end() - sizeof(WCHAR))));
    }

    /// A refusal gives a reason and hands nothing out. The library writes signatures and RSA ciphertexts
    /// straight into the application's buffer: they are no secrets, and stay there.
    static void expectRefusal(const Reply& reply, const World& world, bool wroteDirectly) {
        const DWORD code = reply.code;
        EXPECT_NE(code, kNoReason);
        EXPECT_TRUE(!reply.errors.empty() || code == ERROR_NOT_ENOUGH_MEMORY);
        Output untouched;
        std::ranges::copy(world.input, untouched.bytes.begin());
        if (!world.input.empty()) untouched.length = world.inputLength();
        untouched.second = reply.out.second; // KSPEnumKeys hands its cursor out in any case
        if (wroteDirectly) untouched.bytes = reply.out.bytes;
        const bool tellsSize = code == ERROR_MORE_DATA || code == static_cast<DWORD>(NTE_BUFFER_TOO_SMALL);
        if (tellsSize) untouched.length = reply.out.length;
        EXPECT_TRUE(reply.out == untouched) << "something was handed out, code " << std::hex << code;
    }
};

TEST_F(LibraryFaultTest, EveryLibraryCallFailsOnceInEveryWay) {
    for (const WorkingCall& scenario : scenarios()) {
        const Reply undisturbed = perform(scenario, *prepared(scenario, kEverything));
        EXPECT_EQ(undisturbed.code, 0u) << scenario.name << testing::PrintToString(undisturbed.errors);
        std::vector<std::string> calls = library.calls();
        for (std::string& call : calls)
            call.resize(call.find('('));
        int number = 0;
        for (const std::string& function : calls) {
            ++number;
            for (const Fault& fault : kFaults) {
                if (!isAbout(fault.functions, function)) continue;
                SCOPED_TRACE(concat(scenario.name, ": call ", number, ", ", function, ", ", fault.name));
                const Tolerance* tolerance = toleranceOf(scenario, number, function, fault);
                const Effect effect = tolerance ? tolerance->effect : Effect::None;
                const auto world = prepared(scenario, kEverything);
                library.scriptCall(number, fault.script);
                const Reply reply = perform(scenario, *world);
                library.clearScripts();
                EXPECT_EQ(reply.code == 0, tolerance && effect != Effect::Spent) << std::hex << reply.code;
                EXPECT_FALSE(function == "veltra_validatePassword" && isPinValidated(world->token.serial));
                judge(scenario, *world, undisturbed, reply, effect,
                      fault.script.length && isAbout("veltra_signHash veltra_encrypt", function));
            }
        }
    }
}

// As they are documented and searched for.
TEST_F(LibraryFaultTest, DebugLinesHaveTheirSpelling) {
    std::vector<std::string> seen;
    for (const WorkingCall& scenario : scenarios()) {
        const auto world = prepared(scenario, kEverything);
        WorkingCall query = scenario;
        for (Argument& argument : query.arguments)
            if (argument.name == "data") argument = Argument("=0");
        // Behind the numbers up to 50 and the algorithms, nothing writes a line of its own.
        for (const std::uintptr_t choice :
             std::span(scenario.choices).first(std::min<std::size_t>(scenario.choices.size(), 56))) {
            for (const WorkingCall& call : {query, scenario}) {
                prompt.willType({world->token.pin});
                world->resetOutput();
                call.invoke(call.valuesIn(*world, choice));
                for (const ULONG_PTR handle : {world->out.handle, world->out.second})
                    releaseAny(handle);
            }
        }
        std::ranges::copy(takeLogLines(), std::back_inserter(seen));
    }
    int count = 0;
    for (const std::string& line : linesOf(readFile(VELTRA_DEBUG_LOG_DOCUMENT))) {
        if (!line.starts_with("    ")) continue;
        EXPECT_THAT(seen, testing::Contains(concat("DEBUG ", line.substr(4))));
        ++count;
    }
    EXPECT_GT(count, 100);
}

TEST_F(LibraryFaultTest, EveryAllocationFailsOnce) {
    for (const WorkingCall& scenario : scenarios()) {
        const Reply undisturbed = perform(scenario, *prepared(scenario));
        for (int n = 1, fired = 1; fired != 0; ++n) {
            SCOPED_TRACE(concat(scenario.name, ": allocation ", n));
            const auto world = prepared(scenario);
            const std::size_t keysBefore = world->token.keyPairs.size() + world->token.aesKeys.size();
            const Reply reply = perform(scenario, *world, [&] { AllocationFault::arm(n); });
            fired = AllocationFault::fired();
            if (reply.code != 0) {
                EXPECT_EQ(world->token.keyPairs.size() + world->token.aesKeys.size(), keysBefore)
                    << "a key was made or lost";
            }
            const bool mayBeSpent = scenario.name == kHmacValue;
            judge(scenario, *world, undisturbed, reply, mayBeSpent ? Effect::MayBeSpent : Effect::None,
                  false);
        }
    }
}

TEST_F(LibraryFaultTest, WithoutMemoryForALogLineTheAnswerSaysSo) {
    for (const WorkingCall& scenario : scenarios()) {
        SCOPED_TRACE(scenario.name);
        const Reply reply =
            perform(scenario, *prepared(scenario), [] { AllocationFault::arm(AllocationFault::kAlways); });
        EXPECT_THAT(reply.code, testing::AnyOf(0, static_cast<DWORD>(NTE_NO_MEMORY)));
        EXPECT_TRUE(reply.code == 0 || reply.out.handle == 0);
    }
}

} // namespace
} // namespace veltra::test
