// Every argument of every entry point, hostile: a call that works is made again and again with one argument
// replaced. Nothing crashes, what must be refused is refused with a reason, and a refusal hands nothing out.

#include "support/blob_bytes.h"
#include "support/provider_test.h"
#include "support/working_calls.h"

#include "foundation/text.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>

namespace veltra::test {
namespace {

using World = BothFrontEnds;

constexpr SECURITY_STATUS kHandle = NTE_INVALID_HANDLE, kParameter = NTE_INVALID_PARAMETER;

/// What a call is refused for when one of these arguments is null or not alive, or has the value behind "=",
/// whatever the arguments of its later rows are.
struct Check {
    std::string_view call, arguments;
    SECURITY_STATUS status;
    std::string_view text; ///< behind the name of the entry point
};

const Check kNoProvider = {"", "provider", kHandle, "provider handle is null or not initialized"};

const Check kChecks[] = {
    {"KSPOpenProvider", "handle", kParameter, "phProvider is null"},
    {"KSPFreeProvider", "provider", kHandle, "provider handle is null"},
    {"KSPOpenKey", "handle", kParameter, "phKey is null"},
    {"KSPCreatePersistedKey", "handle text", kParameter, "phKey or pszAlgId is null"},
    {"KSPGetProviderProperty Name", "text length", kParameter, "pszProperty or pcbResult is null"},
    {"KSPSetProviderProperty SmartCardPin", "text", kParameter, "pszProperty is null"},
    {"KSPSetProviderProperty SmartCardPin", "input", kParameter, "NCRYPT_PIN_PROPERTY pbInput is null"},
    {"KSPGetKeyProperty Name", "cngEcKey", kHandle, "key handle is null"},
    {"KSPGetKeyProperty Name", "text length", kParameter, "pszProperty or pcbResult is null"},
    {"KSPSetKeyProperty SmartCardPin", "cngRsaKey", kHandle, "key handle is null"},
    {"KSPSetKeyProperty SmartCardPin", "text", kParameter, "pszProperty is null"},
    {"KSPSetKeyProperty SmartCardPin", "input", kParameter, "NCRYPT_PIN_PROPERTY pbInput is null"},
    {"KSPSetKeyProperty SmartCardKeyCertificate", "input size", kParameter,
     "NCRYPT_CERTIFICATE_PROPERTY pbInput is null or empty"},
    {"KSPSetKeyProperty SmartCardKeyCertificate", "size=3073", kParameter,
     "NCRYPT_CERTIFICATE_PROPERTY cbInput is too large"},
    {"KSPFinalizeKey", "newKey", kHandle, "key handle is null"},
    {"KSPDeleteKey", "cngRsaKey", kHandle, "key handle is null"},
    {"KSPEncrypt RSA", "cngRsaKey length", kParameter, "key handle or pcbResult is null"},
    {"KSPEncrypt RSA", "input size", kParameter, "pbInput is null or cbInput is zero"},
    {"KSPEncrypt RSA", "capacity=255", NTE_BUFFER_TOO_SMALL, "output buffer too small, required=256"},
    {"KSPEncrypt RSA", "size=2147483648 capacity=2147483648", kParameter, "a length is too large"},
    {"KSPEncrypt AES", "input size", kParameter, "pbInput is null or cbInput is zero"},
    {"KSPEncrypt AES", "size=2147483648", kParameter, "a length is too large"},
    {"KSPDecrypt RSA", "cngRsaKey length", kParameter, "key handle or pcbResult is null"},
    {"KSPDecrypt RSA", "input size", kParameter, "pbInput is null or cbInput is zero"},
    {"KSPDecrypt RSA", "size=2147483632", kParameter, "a length is too large"},
    {"KSPDecrypt AES", "input size", kParameter, "pbInput is null or cbInput is zero"},
    {"KSPDecrypt AES", "size=2147483632", kParameter, "a length is too large"}, // the library adds a block
    {"KSPIsAlgSupported", "text", kParameter, "pszAlgId is null"},
    {"KSPEnumAlgorithms", "count handle", kParameter, "pdwAlgCount or ppAlgList is null"},
    {"KSPEnumKeys", "handle second", kParameter, "ppKeyName or ppEnumState is null"},
    {"KSPImportKey KeyDataBlob", "text input handle", kParameter, "invalid parameters"},
    {"KSPImportKey KeyDataBlob", "size=2147483648", kParameter, "a length is too large"},
    {"KSPExportKey", "cngRsaKey text length", kParameter, "key handle, pszBlobType, or pcbResult is null"},
    {"KSPSignHash", "cngRsaKey length", kParameter, "key handle or pcbResult is null"},
    {"KSPSignHash", "input? size", kParameter, "pbHashValue is null or cbHashValue is zero"},
    {"KSPSignHash", "capacity=255", NTE_BUFFER_TOO_SMALL, "signature buffer too small, required=256"},
    {"KSPSignHash", "size=2147483648 capacity=2147483648", kParameter, "a length is too large"},
    {"KSPVerifySignature", "cngRsaKey", kHandle, "key handle is null"},
    {"KSPVerifySignature", "input hashSize size", kParameter, "invalid input parameters"},
    {"KSPVerifySignature", "hashSize=2147483648 size=2147483648", kParameter, "a length is too large"},
    {"KSPNotifyChangeKey", "handle?", NTE_NOT_SUPPORTED, "not supported"},
    {"KSPSecretAgreement", "provider", kHandle, "provider not initialized"},
    {"KSPSecretAgreement", "handle", kParameter, "phAgreedSecret is null"},
    {"KSPSecretAgreement", "cngEcKey", kHandle, "key handle is null"},
    {"KSPDeriveKey", "secret length", kParameter, "invalid parameter"},
};

/// The checks that a call makes of its arguments, in order.
std::vector<Check> checksOf(const WorkingCall& call) {
    std::vector<Check> checks;
    std::ranges::copy_if(kChecks, std::back_inserter(checks),
                         [&](const Check& check) { return check.call == call.name; });
    const bool takesProvider = std::ranges::any_of(call.arguments, [](const Argument& argument) {
        return argument.name == "provider" && !argument.isOptional;
    });
    const bool saysOtherwise = !checks.empty() && checks[0].arguments == kNoProvider.arguments;
    if (takesProvider && !saysOtherwise) checks.insert(checks.begin(), kNoProvider);
    return checks;
}

/// One hostile value of one argument.
struct Hostile {
    std::uintptr_t value;
    bool isRefused = false;
    std::optional<DWORD> length = {}; ///< what the variable holds that `value` points to
};

class HostileArgumentTest : public ProviderTest {
protected:
    HostileArgumentTest() { setLogLevel(0); }

    /// Each check of the call refuses by itself, and before all that come behind it.
    void playChecks(const WorkingCall& call) {
        const std::string entryPoint(call.name, std::strcspn(call.name, " "));
        const std::vector<Check> checks = checksOf(call);
        World& w = world();
        call.prepare(w);
        Values values = call.valuesIn(w, call.choices[0]);
        for (std::size_t number = checks.size(); number-- > 0;) {
            const Check& check = checks[number];
            const auto refused = refusedBy(check, w, call);
            for (const auto& [place, hostile] : refused) {
                for (const std::uintptr_t value : hostile) {
                    SCOPED_TRACE(concat(call.name, ", argument ", place, ": 0x", toHexAddress(value)));
                    Values changed = values;
                    changed[place] = value;
                    call.prepare(w);
                    library.clearCalls();
                    DWORD code = 0;
                    const Answer answer = run([&] { return (code = invoke(call, w, changed)) == 0; });
                    EXPECT_EQ(code, static_cast<DWORD>(check.status));
                    EXPECT_THAT(answer.errors, ElementsAre(concat(entryPoint, ": ", check.text)));
                    const DWORD untouched = w.input.empty() ? Output::kCapacity : w.inputLength();
                    EXPECT_EQ(w.out.length, check.status == NTE_BUFFER_TOO_SMALL ? 256 : untouched);
                    EXPECT_THAT(library.calls(), IsEmpty());
                }
            }
            for (const auto& [place, hostile] : refused)
                values[place] = hostile[0];
        }
    }

    void play(const std::vector<WorkingCall>& all) {
        for (const WorkingCall& call : all) {
            world_ = nullptr;
            for (const std::uintptr_t choice : call.choices)
                play(call, choice);
        }
        EXPECT_GT(calls_, 5000);
    }

private:
    /// The world, new when an object of it is gone.
    World& world() {
        if (!world_ || world_->liveHandles().size() != objects_) {
            world_ = nullptr;
            world_ = std::make_unique<World>(freshName("Freed"));
            freed_ = world_->liveHandles();
            freedRecords_.clear();
            std::ranges::transform(freed_, std::back_inserter(freedRecords_), recordOf);
            world_ = nullptr;
            world_ = std::make_unique<World>(freshName("Hostile"));
            objects_ = world_->liveHandles().size();
            EXPECT_EQ(freed_.size(), objects_);
            EXPECT_TRUE(std::ranges::all_of(freed_, [](auto handle) { return kindOf(handle) == 0; }));
        }
        return *world_;
    }

    /// `size`: what the call needs for its output.
    std::vector<Hostile> hostileValues(World& w, const Argument& argument, DWORD size) const {
        std::vector<Hostile> all;
        const auto add = [&](const Values& values, bool isRefused) {
            for (const std::uintptr_t value : values)
                all.push_back({value, isRefused});
        };
        const Values sizes = {0, 1, size - 1, size, INT_MAX, MAXDWORD};
        if (argument.object()) {
            Values others = w.liveHandles();
            const int kind = kindOf(w.*argument.object());
            std::erase_if(others, [&](std::uintptr_t handle) { return kindOf(handle) == kind; });
            others.insert(others.end(), {0, 1, ~std::uintptr_t{0}, addressOf(w.data())});
            others.insert(others.end(), freed_.begin(), freed_.end());
            add(others, !argument.isOptional);
        } else if (argument.placeIn(w) != 0) {
            add({0}, !argument.isOptional);
        }
        for (const std::uintptr_t length : sizes)
            if (argument.name == "length" || (argument.name == "inOut" && length != INT_MAX))
                all.push_back({argument.placeIn(w), false, static_cast<DWORD>(length)});
        if (argument.name == "text") add({0}, !argument.isOptional);
        if (argument.name == "text") add({addressOf(longText_.data()), addressOf(L"")}, false);
        if (argument.name == "flags") add(bits(), false);
        if (argument.name == "capacity") add(sizes, false);
        if (argument.name == "size") {
            for (std::uintptr_t length = 0; length < w.input.size(); ++length)
                all.push_back({length});
            all.push_back({MAXDWORD});
        }
        return all;
    }

    /// The places of the arguments that a check looks at, with the values that it refuses.
    std::vector<std::pair<std::size_t, Values>> refusedBy(const Check& check, World& w,
                                                          const WorkingCall& call) const {
        std::vector<std::pair<std::size_t, Values>> refused;
        for (const Argument& word : argumentsOf(check.arguments)) {
            for (std::size_t i = 0; i < call.arguments.size(); ++i) {
                const Argument& argument = call.arguments[i];
                if (argument.name != word.name || argument.isOptional != word.isOptional) continue;
                refused.emplace_back(i, Values{word.value});
                if (!argument.object()) continue;
                for (const Hostile& hostile : hostileValues(w, argument, 0))
                    refused.back().second.push_back(hostile.value);
            }
        }
        return refused;
    }

    DWORD invoke(const WorkingCall& call, World& w, const Values& values, std::optional<DWORD> length = {}) {
        w.resetOutput();
        if (length) w.out.length = *length;
        const Bytes before = w.out.bytes;
        ++calls_;
        prompt.willType({w.token.pin, w.token.pin});
        const DWORD code = call.invoke(values);
        EXPECT_NE(code, kNoReason);
        EXPECT_TRUE(code == 0 || w.out.handle == 0) << "a handle was handed out";
        EXPECT_TRUE(code == 0 || w.out.bytes == before) << "bytes were handed out";
        for (const std::uintptr_t handle : {w.out.handle, w.out.second})
            releaseAny(handle);
        return code;
    }

    void play(const WorkingCall& call, std::uintptr_t choice) {
        call.prepare(world());
        const DWORD code = invoke(call, world(), call.valuesIn(world(), choice));
        EXPECT_TRUE(code == 0 || call.outcome == Outcome::NeverServed || choice != call.choices[0])
            << call.name << " " << code;
        const DWORD size = world().out.length;
        for (std::size_t i = 0; i < call.arguments.size(); ++i) {
            for (std::size_t k = 0, count = 1; k < count; ++k) {
                World& w = world();
                call.prepare(w);
                const std::vector<Hostile> all = hostileValues(w, call.arguments[i], size);
                count = all.size();
                if (count == 0) break;
                Values values = call.valuesIn(w, choice);
                values[i] = all[k].value;
                SCOPED_TRACE(concat(call.name, " choice ", choice, ", argument ", i, ": 0x",
                                    toHexAddress(values[i]), ", length ", all[k].length.value_or(0)));
                const DWORD answer = invoke(call, w, values, all[k].length);
                EXPECT_FALSE(all[k].isRefused && answer == 0) << "accepted";
            }
        }
    }

    int calls_ = 0;
    std::unique_ptr<World> world_;
    std::size_t objects_ = 0;
    Values freed_;                                    ///< of every kind
    std::vector<std::shared_ptr<void>> freedRecords_; ///< so that none of them comes to life again
    const std::vector<WCHAR> longText_ = wideText(std::string(300, 'x'));
};

TEST_F(HostileArgumentTest, CryptoApi) {
    play(cspCalls());
}

TEST_F(HostileArgumentTest, Cng) {
    play(cngCalls());
}

TEST_F(HostileArgumentTest, CngChecksComeInTheirOrder) {
    setLogLevel(2);
    for (const WorkingCall& call : cngCalls())
        playChecks(call);
}

} // namespace
} // namespace veltra::test
