// veltra_fuzz --list                    names of the targets
// veltra_fuzz --seeds TARGET FOLDER     writes the inputs that the target's corpus begins with
// veltra_fuzz --smoke TARGET FOLDER     writes 3000 inputs made of those, the same ones every time
// veltra_fuzz TARGET [OPTION|CORPUS...] runs libFuzzer on the target

#include "fuzz/fuzz_target.h"
#include "support/sanitizer_stack.h"

#include "token/device_state.h"
#include "token/process_iv.h"
#include "token/random_numbers.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>

extern "C" int LLVMFuzzerRunDriver(int* argc, char*** argv,
                                   int (*callback)(const std::uint8_t*, std::size_t));

namespace veltra::fuzz {

namespace {

std::vector<const Target*>& targets() {
    static std::vector<const Target*> all;
    return all;
}

const Target* active = nullptr;

const Target* findTarget(std::string_view name) {
    const auto found = std::ranges::find(targets(), name, &Target::name);
    if (found != targets().end()) return *found;
    std::fprintf(stderr, "there is no target %s\n", std::string(name).c_str());
    return nullptr;
}

std::optional<test::ScriptedPinPrompt> currentPrompt;
test::ScriptedToken* currentToken = nullptr;

void startInput() {
    library().reset();
    currentToken = &library().addToken("Fuzz");
    for (std::uint32_t type = kKeyTypeRsa1024; type <= kKeyTypeEcP521; ++type)
        currentToken->addKeyPair(static_cast<unsigned char>(0x10 + type), type, kUsageBoth);
    currentToken->addAesKey(0xA1, kKeyTypeAes128);
    currentToken->addAesKey(0xA2, kKeyTypeAes192Or256);
    setPinPrompt(&currentPrompt.emplace());
    forgetDisconnected({});
    storePin(currentToken->serial, Pin(currentToken->pin));
    setProcessIv({});
    setHardwareRandom(true);
}

int runInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    startInput();
    active->run(input);
    return 0;
}

void change(Bytes& input, std::mt19937& random) {
    const std::size_t place = random() % (input.size() + 1);
    const auto at = input.begin() + static_cast<std::ptrdiff_t>(place);
    const auto value = static_cast<unsigned char>(random());
    if (place == input.size() || random() % 4 == 0) {
        input.insert(at, value);
    } else if (random() % 4 == 0) {
        input.erase(at);
    } else {
        *at = random() % 2 == 0 ? value : *at ^ static_cast<unsigned char>(1 << value % 8);
    }
}

// The seeds and changed ones. What libFuzzer itself makes of them depends on addresses, and so on the run.
std::vector<Bytes> smokeInputs(const Target& target) {
    constexpr std::size_t kCount = 3000;
    std::mt19937 random(1);
    std::vector<Bytes> inputs = target.seeds();
    for (std::size_t i = 0; inputs.size() < kCount; ++i) {
        Bytes input = inputs[i];
        for (auto changes = 1 + random() % 6; changes > 0; --changes)
            change(input, random);
        inputs.push_back(std::move(input));
    }
    return inputs;
}

int writeInputs(const std::vector<Bytes>& inputs, const std::string& folder) {
    int number = 0;
    for (const Bytes& seed : inputs) {
        std::ofstream file(folder + "/seed-" + std::to_string(number++), std::ios::binary);
        if (!file) return EXIT_FAILURE;
        std::ranges::copy(seed, std::ostreambuf_iterator<char>(file));
    }
    return EXIT_SUCCESS;
}

// Wine's debugger would swallow a crash that libFuzzer is to report.
LONG WINAPI abortOnCrash(EXCEPTION_POINTERS*) {
    std::abort();
}

// The log keeps the key of its settings open. Without one it would look for it at every line.
void makeSettingsKey() {
    HKEY key = nullptr;
    if (RegCreateKeyA(HKEY_LOCAL_MACHINE, R"(Software\Quenmark\Veltra)", &key) == ERROR_SUCCESS)
        RegCloseKey(key);
}

int runFuzzer(const Target& target, int argc, char** argv) {
    active = &target;
    makeSettingsKey();
    std::signal(SIGABRT, SIG_DFL);
    SetUnhandledExceptionFilter(abortOnCrash);
    test::announceStackToSanitizer();
    setDeviceLibrary(&library());
    argv[1] = argv[0];
    --argc;
    ++argv;
    return LLVMFuzzerRunDriver(&argc, &argv, runInput);
}

} // namespace

Target::Target(std::string_view name, Run run, Seeds seeds) : name(name), run(run), seeds(seeds) {
    targets().push_back(this);
}

void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "broken promise: %s\n", what);
    std::abort();
}

test::ScriptedDeviceLibrary& library() {
    return test::ScriptedDeviceLibrary::instance();
}

test::ScriptedToken& token() {
    return *currentToken;
}

test::ScriptedPinPrompt& prompt() {
    return *currentPrompt;
}

} // namespace veltra::fuzz

int main(int argc, char** argv) {
    using namespace veltra::fuzz;
    if (argc == 2 && std::strcmp(argv[1], "--list") == 0) {
        for (const Target* target : targets())
            std::printf("%s\n", std::string(target->name).c_str());
        return EXIT_SUCCESS;
    }
    const bool seeds = argc == 4 && std::strcmp(argv[1], "--seeds") == 0;
    const bool smoke = argc == 4 && std::strcmp(argv[1], "--smoke") == 0;
    const Target* target = argc > 1 ? findTarget(argv[seeds || smoke ? 2 : 1]) : nullptr;
    if (target == nullptr) return EXIT_FAILURE;
    if (seeds || smoke) return writeInputs(seeds ? target->seeds() : smokeInputs(*target), argv[3]);
    return runFuzzer(*target, argc, argv);
}
