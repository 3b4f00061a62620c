// Threads of an application in both front ends, on two tokens of which one is pulled and plugged in again,
// while PINs are forgotten, sessions expire, dialogs are answered, and keys come and go.

#include "support/blob_bytes.h"
#include "support/log_watch.h"
#include "support/provider_test.h"

#include "csp/csp_entry_points.h"
#include "foundation/text.h"
#include "ksp/ksp_entry_points.h"
#include "token/device_state.h"
#include "token/shared_state.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>

namespace veltra::test {
namespace {

constexpr int kWorkers = 8;
constexpr int kShare = 10;             ///< signatures of each thread
constexpr ULONGLONG kPatience = 20000; ///< milliseconds after which a lock counts as held for good

/// A token with one key, and the user who knows its PIN.
struct Owner {
    ScriptedToken& token;
    const char* pin;
    unsigned char id; ///< of the key
    std::string name{};
};

thread_local const Owner* user = nullptr; ///< of this thread

/// The provider calls out of itself here: if the calling thread held the lock, nobody would get it.
void takeSharedStateLock() {
    const ULONGLONG start = GetTickCount64();
    while (!sharedStateMutex().try_lock()) {
        if (GetTickCount64() - start > kPatience) {
            ADD_FAILURE() << "the lock is held in a library call, a dialog or a log line";
            return;
        }
        SwitchToThread();
    }
    sharedStateMutex().unlock();
}

/// Every thread's user knows the PIN of one token; now and then he cancels.
class ThreadPrompt final : public PinPrompt {
public:
    Pin askPin() override {
        takeSharedStateLock();
        return ++asked % 5 == 0 ? Pin() : Pin(user->pin);
    }
    void tell(const char*) override { takeSharedStateLock(); }

    std::atomic<int> asked = 0;
};

class ThreadsTest : public ProviderTest {
protected:
    ThreadsTest() : owners{{{token, "1111", 0xA1}, {library.addToken(freshName("Token")), "2222", 0xB1}}} {
        setLogLevel(0);
        setPinPrompt(&threadPrompt);
        for (Owner& owner : owners) {
            owner.token.pin = owner.pin;
            owner.token.remaining = 1'000'000'000;
            owner.name = keyNameOf(owner.token.addKeyPair(owner.id, kKeyTypeRsa2048, kUsageBoth).keyId);
        }
        library.lookAtEveryCall([this](const std::string& call) { look(call); });
        lookAtEveryLogLine(takeSharedStateLock);
    }
    ~ThreadsTest() override {
        lookAtEveryLogLine(nullptr);
        library.lookAtEveryCall(nullptr);
    }

    /// For the time that is asked for, and on a busy machine until every thread has had its share.
    bool isTime() const {
        return GetTickCount64() < end_ ||
               std::ranges::any_of(signatures, [](int count) { return count <= kShare; });
    }

    void runWorker(int number) {
        user = &owners[static_cast<std::size_t>(number % 2)];
        for (int round = 0; isTime(); ++round) {
            signatures[static_cast<std::size_t>(number)] +=
                number % 4 < 2 ? useCryptoApi(round) : useCng(round);
        }
    }

    /// What happens around the application.
    void disturb() {
        for (int round = 0; isTime(); ++round) {
            library.setConnected(owners[1].token.serial, round % 3 != 0);
            forgetPin(owners[static_cast<std::size_t>(round % 2)].token.serial);
            library.clearCalls();
            library.clearScripts();
            if (round % 4 == 0)
                library.script("veltra_signHash", {.result = kDeviceSessionExpired, .onCall = 3});
            Sleep(round % 10 == 0 ? 1200 : 20); // the monitor polls once a second
        }
    }

    std::array<Owner, 2> owners;
    std::array<std::atomic<int>, kWorkers> signatures = {};
    std::atomic<int> generated = 0;
    std::atomic<int> deleted = 0;
    ThreadPrompt threadPrompt;

private:
    // A PIN that the user types for a token is right or wrong; all others must be the token's own.
    void look(const std::string& call) {
        takeSharedStateLock();
        generated += call.starts_with("veltra_generateKeyPair");
        deleted += call.starts_with("veltra_deleteKeyPair");
        if (call.starts_with("veltra_validatePassword")) return;
        for (const auto& [owner, other] : {std::tie(owners[0], owners[1]), std::tie(owners[1], owners[0])}) {
            if (call.find("serial=" + owner.token.serial + ",") == std::string::npos) continue;
            EXPECT_THAT(call, Not(HasSubstr(concat("pin=", other.pin))));
            EXPECT_FALSE(call.starts_with("veltra_signHash") &&
                         call.find("key=" + other.name.substr(0, 2)) != std::string::npos)
                << call;
        }
    }

    /// Whether there was a signature.
    bool useCryptoApi(int round) {
        auto* const functions = reinterpret_cast<VTableProvStruc*>(this); // nobody looks at more
        HCRYPTPROV context = 0;
        HCRYPTHASH hash = 0;
        HCRYPTKEY key = 0;
        if (!CPAcquireContext(&context, user->name.c_str(), 0, functions)) return false;
        Bytes signature(256);
        auto length = static_cast<DWORD>(signature.size());
        const Bytes value(32, 0x22);
        const bool isSigned = CPCreateHash(context, CALG_SHA_256, 0, 0, &hash) &&
                              CPSetHashParam(context, hash, HP_HASHVAL, value.data(), 0) &&
                              CPSignHash(context, hash, AT_SIGNATURE, nullptr, 0, signature.data(), &length);
        std::ranges::reverse(signature);
        EXPECT_TRUE(!isSigned || signature == ScriptedDeviceLibrary::fakeSignature(kKeyTypeRsa2048));
        if (CPGetUserKey(context, AT_KEYEXCHANGE, &key)) CPDestroyKey(context, key);
        CPDestroyHash(context, hash);
        CPReleaseContext(context, 0);
        const std::string fresh = "Container" + std::to_string(GetCurrentThreadId());
        if (round % 8 == 0 && CPAcquireContext(&context, fresh.c_str(), CRYPT_NEWKEYSET, functions)) {
            if (CPGenKey(context, CALG_RSA_SIGN, 0, &key)) CPDestroyKey(context, key);
            CPReleaseContext(context, 0);
            CPAcquireContext(&context, fresh.c_str(), CRYPT_DELETEKEYSET, functions);
        }
        return isSigned;
    }

    bool useCng(int round) {
        NCRYPT_PROV_HANDLE provider = 0;
        NCRYPT_KEY_HANDLE key = 0;
        if (KSPOpenProvider(&provider, nullptr, 0) != 0) return false;
        bool isSigned = false;
        if (KSPOpenKey(provider, &key, wideText(user->name).data(), 0, 0) == 0) {
            Bytes signature(256), digest(32);
            DWORD length = 0;
            isSigned = KSPSignHash(provider, key, nullptr, digest.data(), 32, signature.data(), 256, &length,
                                   kPadPkcs1Flag) == 0;
            EXPECT_TRUE(!isSigned || signature == ScriptedDeviceLibrary::fakeSignature(kKeyTypeRsa2048));
            KSPFreeKey(provider, key);
        }
        if (round % 8 == 0 && KSPCreatePersistedKey(provider, &key, L"ECDSA_P256", nullptr, 0, 0) == 0) {
            if (KSPFinalizeKey(provider, key, 0) == 0) KSPDeleteKey(provider, key, 0);
            KSPFreeKey(provider, key);
        }
        NCryptKeyName* found = nullptr;
        PVOID cursor = nullptr;
        while (KSPEnumKeys(provider, nullptr, &found, &cursor, 0) == 0)
            KSPFreeBuffer(found);
        KSPFreeBuffer(cursor);
        KSPFreeProvider(provider);
        return isSigned;
    }

    static ULONGLONG duration() {
        const char* seconds = std::getenv("VELTRA_STRESS_SECONDS");
        return (seconds != nullptr ? std::strtoul(seconds, nullptr, 10) : 5) * 1000;
    }

    const ULONGLONG end_ = GetTickCount64() + duration();
};

// A deadlock, and a thread that gets no signatures, are found by the time limit of the test program.
TEST_F(ThreadsTest, TwoTokensBothFrontEnds) {
    std::atomic<int> started = 0;
    runOnThreads(kWorkers + 1, [&] {
        const int number = started++;
        number < kWorkers ? runWorker(number) : disturb();
    });
    EXPECT_GT(generated, 0);
    EXPECT_GT(deleted, 0);
    EXPECT_GT(threadPrompt.asked, 0);
}

} // namespace
} // namespace veltra::test
