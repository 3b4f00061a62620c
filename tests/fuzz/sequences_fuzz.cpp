// Random sequences of the entry points of both front ends, over a device library that answers, fails and
// throws as it likes. The calls are those that work, with arguments changed: handles are live, freed, of
// another kind or garbage; buffers end where their length says.

#include "fuzz/entry_calls.h"
#include "support/blob_bytes.h"
#include "support/working_calls.h"

#include "csp/container_map.h"
#include "token/device_state.h"

#include <algorithm>
#include <array>
#include <climits>
#include <deque>
#include <iterator>
#include <map>
#include <random>
#include <set>
#include <utility>

namespace veltra::fuzz {
namespace {

using test::addressOf;
using test::Argument;
using test::Outcome;
using test::Values;
using test::WorkingCall;
using Handle = std::uintptr_t;
using Calls = std::vector<WorkingCall>;

enum Group : std::size_t { kCsp, kCng, kClosing, kGroups };

/// The calls of both front ends, and those of them that close a handle.
const std::array<Calls, kGroups>& calls() {
    static const std::array<Calls, kGroups> all = [] {
        std::array<Calls, kGroups> groups = {test::cspCalls(), test::cngCalls()};
        for (const Group group : {kCsp, kCng})
            std::ranges::copy_if(groups[group], std::back_inserter(groups[kClosing]),
                                 [](const WorkingCall& call) { return call.outcome == Outcome::Spends; });
        return groups;
    }();
    return all;
}

/// A handle that a call handed out, and what it belongs to.
struct Known {
    Handle handle;
    int kind; ///< 0: it was closed
};

/// What one input has opened, and how it chooses. Where the input has ended a choice is the ordinary one.
struct World {
    explicit World(FuzzedDataProvider& chosenBy);

    bool rarely() { return input.ConsumeIntegral<BYTE>() >= 0xF8; }

    std::size_t below(std::size_t count) { return input.ConsumeIntegralInRange<std::size_t>(0, count - 1); }

    template <class Collection>
    auto oneOf(const Collection& values) {
        return values[below(std::size(values))];
    }

    Handle oneOfKind(int kind) {
        std::vector<Handle> handles;
        for (const Known& known : handedOut)
            if (known.kind == kind) handles.insert(handles.begin(), known.handle);
        return handles.empty() ? 0 : oneOf(handles);
    }

    /// Any handle, most often a live one of the kind that the word names.
    Handle any(const std::string& word) {
        const std::size_t choice = below(16);
        if (choice == 12) return 0;
        if (choice == 13) return input.ConsumeIntegral<Handle>();
        if (choice == 14) return oneOfKind(0);
        return oneOfKind(choice == 15 ? input.ConsumeIntegralInRange(1, 7) : kinds.at(word));
    }

    /// Remembers a handle that came out of a call.
    void keep(Handle handle) {
        const int kind = test::kindOf(handle);
        if (kind == 0) return;
        std::erase_if(handedOut, [&](const Known& known) { return known.handle == handle; });
        handedOut.push_back({handle, kind});
    }

    /// Whether this was a live handle and is none any more.
    bool hasDied(Handle handle) {
        const auto known = std::ranges::find(handedOut, handle, &Known::handle);
        if (known == handedOut.end() || test::kindOf(handle) != 0) return false;
        return std::exchange(known->kind, 0) != 0;
    }

    FuzzedDataProvider& input;
    test::BothFrontEnds objects{"Fuzz"};
    std::map<std::string, int> kinds; ///< of objects, by the words for them
    std::vector<Known> handedOut;
    std::set<std::string> containers = {objects.token.serial}; ///< which one of the calls deletes
};

World::World(FuzzedDataProvider& chosenBy) : input(chosenBy) {
    for (const Calls& group : calls())
        for (const WorkingCall& call : group)
            for (const Argument& argument : call.arguments)
                if (argument.object()) kinds[argument.name] = test::kindOf(objects.*argument.object());
    for (const Handle handle : objects.liveHandles())
        keep(handle);
    HCRYPTPROV context = 0;
    HCRYPTKEY key = 0;
    CPAcquireContext(&context, "22222222222222222222222222222222", 0, objects.table);
    CPGetUserKey(context, AT_SIGNATURE, &key);
    keep(context);
    keep(key);
}

constexpr const char* kTexts[] = {"RSA", "ECDH_P256", "ECDSA_P384", "ECDH_P521", "SHA256", "SP800_56ACONCAT"};
const std::vector<WCHAR> kHashName = test::wideText("SHA256");
constexpr std::size_t kCapacities[] = {512, 0, 1, 4, 16, 20, 64, 256, 1100, 4096};
constexpr DWORD kPlaintexts[] = {16, 20, 0, 245, 512};

/// A call that is being put together: what its arguments refer to, and what is looked at behind it.
class Call {
public:
    Call(World& world, const WorkingCall& played) : w(world), call(played) {}

    void play() {
        if (w.rarely()) call.changeWorld(w.objects);
        Values values;
        for (std::size_t i = 0; i < call.arguments.size(); ++i)
            values.push_back(argument(i));
        const DWORD code = call.invoke(values);
        require(code != test::kNoReason, "a failing CP* sets the last error, and a KSP* leaves it alone");
        lookBehind(code == 0, values);
    }

private:
    bool isAt(std::size_t i, std::initializer_list<std::string_view> names) const {
        return i < call.arguments.size() &&
               std::ranges::find(names, call.arguments[i].name) != std::end(names);
    }

    bool isOf(std::string_view entryPoint) const {
        return std::string_view(call.name).starts_with(entryPoint);
    }

    Handle orNull(const void* pointer) { return w.rarely() ? 0 : addressOf(pointer); }

    Handle block(ExactBytes bytes) { return orNull(memory.emplace_back(std::move(bytes)).data()); }

    /// The call's input, that changed, or any bytes.
    Bytes anyInput() {
        Bytes bytes = call.input;
        if (!w.input.ConsumeBool()) return bytes;
        if (bytes.empty() || w.input.ConsumeBool()) return anyBytes(w.input, 300);
        const std::size_t place = w.below(bytes.size());
        bytes[place] = w.input.ConsumeIntegral<BYTE>();
        if (w.input.ConsumeBool()) bytes.resize(place);
        return bytes;
    }

    /// An input of a length that is not told, or of which so much is read whatever is told, ends in zeros.
    Handle givenInput(bool isExact) {
        Bytes bytes = anyInput();
        size = static_cast<DWORD>(bytes.size());
        if (!isExact) bytes.resize(kCertificateCapacity + 1);
        return block(ExactBytes(bytes));
    }

    /// A length that the device library cannot take has to be refused before anything is read.
    DWORD sizeOrTooLong() { return w.rarely() ? w.oneOf(std::array{0x80000000U, 0xFFFFFFFFU}) : size; }

    Handle anyText(const std::vector<WCHAR>& own) {
        return orNull(w.input.ConsumeBool() ? texts.emplace_back(anyOf(w.input, kTexts)).get() : own.data());
    }

    /// Where output goes, or, in place, where input comes from.
    Handle buffer(std::size_t i) {
        if (isAt(i + 1, {"inOut"})) return givenInput(true);
        capacity = isAt(i + 1, {"length", "capacity"}) ? w.oneOf(kCapacities) : 64;
        return given = block(ExactBytes(capacity));
    }

    Handle lengthPlace(std::size_t i) {
        length = isOf("KSP")                 ? kUntouched
                 : isAt(i, {"inOut"})        ? sizeOrTooLong()
                 : isAt(i + 1, {"capacity"}) ? w.oneOf(kPlaintexts)
                                             : static_cast<DWORD>(capacity);
        return orNull(&length);
    }

    Handle anyFlags(Handle own) {
        static const Values kBits = test::bits();
        if (!w.input.ConsumeBool()) return own;
        return w.rarely() ? CRYPT_VERIFYCONTEXT : own | w.oneOf(kBits);
    }

    Handle cursorPlace() {
        second = cursor = w.input.ConsumeBool() ? w.any("block") : 0;
        return orNull(&second);
    }

    Handle argument(std::size_t i) {
        const Argument& word = call.arguments[i];
        const bool isBehindInput = i > 0 && isAt(i - 1, {"input"});
        if (word.object()) return w.any(word.name);
        if (word.name == "choice") return w.input.ConsumeBool() ? w.oneOf(call.choices) : call.choices[0];
        if (word.name == "flags") return anyFlags(word.value);
        if (word.name == "text") return anyText(word.text);
        if (word.name == "serial") return addressOf(w.objects.token.serial.c_str());
        if (word.name == "input") return givenInput(!isOf("KSPSet") && isAt(i + 1, {"size", "hashSize", ""}));
        if (word.name == "size") return sizeOrTooLong();
        if (word.name == "hashSize" || (word.name.empty() && isBehindInput)) return size;
        if (word.name == "data") return buffer(i);
        if (word.name == "capacity") return capacity;
        if (word.name == "length" || word.name == "inOut") return lengthPlace(i);
        if (word.name == "handle") return orNull(&handle);
        if (word.name == "count") return orNull(&count);
        if (word.name == "second") return cursorPlace();
        if (word.name != "record") return word.value;
        // Padding information that names a hash, or an empty parameter list.
        const std::array<Handle, 4> record = {anyText(kHashName)};
        return block(ExactBytes(bytesOf(record)));
    }

    void lookBehind(bool done, const Values& values) {
        const bool takesHandle =
            std::ranges::find(call.arguments, "handle", &Argument::name) != call.arguments.end();
        const bool opened = handle != kUntouched && handle != 0;
        const bool isAcquire = isOf("CPAcquireContext"); // it may delete
        if (isAcquire && values[1] != 0) w.containers.emplace(reinterpret_cast<const char*>(values[1]));
        require(done || !opened, "a failure hands no handle out");
        require(!done || opened || isAcquire || !takesHandle, "a success hands a handle out");
        require(!isOf("KSPEnumKeys") || cursor == 0 || second == cursor, "a cursor is never exchanged");
        w.keep(handle);
        w.keep(second);
        bool closed = false, neverFails = false;
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (!call.arguments[i].object()) continue;
            closed = w.hasDied(values[i]) || closed;
            neverFails = call.arguments[i].isOptional;
        }
        // Of keys, secrets and blocks of CNG, what is not live is freed already, and that is no failure.
        if (call.outcome == Outcome::Spends)
            require(neverFails ? done : closed == done, "exactly a live handle is closed");
        // CryptoAPI tells of more than fits with a success, too.
        if (isOf("KSP") && done && given != 0) require(length <= capacity, "what is written fits");
    }

    World& w;
    const WorkingCall& call;
    std::deque<ExactBytes> memory;
    std::deque<ExactText> texts;
    DWORD size = 0;           ///< of the last input
    std::size_t capacity = 0; ///< of the output buffer
    Handle given = 0;         ///< the output buffer, or null
    // Variables of the application's.
    DWORD length = kUntouched, count = 0;
    Handle handle = kUntouched, second = 0, cursor = 0;
};

// The library, the token and the user

// One function that was called before, or all of them, so that it does not take luck to meet the next one.
void scriptLibrary(World& w) {
    test::Script script;
    script.result = w.input.PickValueInArray(
        {0, 0, 0, 1, kDeviceTimeMismatch, kDeviceSessionExpired, kDeviceWeakHashRefused, -1});
    if (w.input.ConsumeBool())
        script.length =
            w.input.PickValueInArray({0, 1, 15, 17, 31, 33, 65, 67, 1025, 5000, 70000, -1, INT_MIN});
    script.throws = w.rarely();
    script.outOfMemory = w.rarely();
    script.onCall = w.rarely() ? w.input.ConsumeIntegralInRange(1, 3) : 0;
    const std::string called = w.oneOf(library().calls());
    library().script(w.input.ConsumeBool() ? "" : called.substr(0, called.find('(')), script);
}

// What a record says of itself, the length of its contents above all, is the library's word and no more.
template <class Record>
void changeOneOf(std::vector<Record>& records, std::uint32_t Record::*length, World& w) {
    if (records.empty()) return;
    Record& record = records[w.below(records.size())];
    const DWORD value =
        w.oneOf(std::array<DWORD, 11>{0, 1, 2, 8, 10, 129, 1025, 3073, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF});
    const std::size_t offset = w.below(sizeof(Record) / 4) * 4;
    if (w.input.ConsumeBool()) (w.input.ConsumeBool() ? record.*length : record.credentialIdLength) = value;
    if (w.input.ConsumeBool()) std::ranges::fill(record.label, 'L');
    if (w.input.ConsumeBool())
        std::ranges::copy(bytesOf(value), reinterpret_cast<unsigned char*>(&record) + offset);
}

using Step = void (*)(World& w);

const Step kWorldSteps[] = {
    scriptLibrary,
    scriptLibrary,
    scriptLibrary,
    scriptLibrary,
    [](World&) { library().clearScripts(); },
    [](World& w) { library().setConnected(w.objects.token.serial, w.input.ConsumeBool()); },
    [](World& w) { changeOneOf(w.objects.token.keyPairs, &VeltraKeyPair::publicKeyLength, w); },
    [](World& w) { changeOneOf(w.objects.token.certificates, &VeltraCertificate::derLength, w); },
    [](World& w) { changeOneOf(w.objects.token.aesKeys, &VeltraSymmetricKey::keyLength, w); },
    [](World& w) {
        test::ScriptedToken& token = w.objects.token;
        token.info.fipsMarker = w.input.PickValueInArray({"3.0.9", "2.1.9", "", "1"});
        token.info.firmwareVersion = w.input.ConsumeBool() ? "2.0.0" : w.input.ConsumeRandomLengthString(12);
        if (w.input.ConsumeBool()) token.logIn();
        if (w.input.ConsumeBool()) token.keyPairs.clear();
        token.addCertificate(w.input.ConsumeIntegralInRange<BYTE>(0x11, 0x17),
                             test::ScriptedDeviceLibrary::fakeCertificate("name", "CN=a", "CN=b"));
    },
    [](World& w) {
        forgetDisconnected({});
        const std::string& pin = w.objects.token.pin;
        prompt().willType({w.oneOf(std::array<std::string, 3>{pin, "wrong", ""}), pin});
    },
    // The application's window procedures run while the dialog is up, and may close what is in use.
    [](World& w) {
        prompt().whileAsked([&w] {
            for (const WorkingCall& call : calls()[kClosing])
                Call(w, call).play();
        });
    },
};

void closeAll(World& w) {
    library().clearScripts();
    for (const WorkingCall& call : calls()[kClosing]) {
        Values values = call.valuesIn(w.objects, 0);
        values[0] = call.failureOf == test::failureByLastError ? cspContext() : 0;
        std::size_t place = 0;
        for (std::size_t i = 0; i < values.size(); ++i)
            if (call.arguments[i].object()) place = i;
        for (const Known& known : w.handedOut) {
            if (known.kind != w.kinds.at(call.arguments[place].name)) continue;
            values[place] = known.handle;
            require(call.invoke(values) == 0, "what is open can be closed");
        }
    }
    for (const std::string& container : w.containers)
        forgetContainer(container);
}

void playSequence(FuzzedDataProvider& input) {
    World world(input);
    for (int count = 0; count < 64 && input.remaining_bytes() > 0; ++count) {
        const Group group = world.oneOf(std::array{kGroups, kClosing, kCsp, kCsp, kCsp, kCng, kCng, kCng});
        if (group == kGroups) {
            world.oneOf(kWorldSteps)(world);
        } else {
            Call(world, calls()[group][world.below(calls()[group].size())]).play();
        }
    }
    closeAll(world);
}

// Noise: what the numbers choose changes with every step that is added.
std::vector<Bytes> sequenceSeeds() {
    std::vector<Bytes> seeds(100, Bytes(600));
    std::mt19937 random(1);
    for (Bytes& seed : seeds)
        std::ranges::generate(seed, [&] { return static_cast<unsigned char>(random()); });
    return seeds;
}

const Target sequenceTarget("sequences", playSequence, sequenceSeeds);

} // namespace
} // namespace veltra::fuzz
