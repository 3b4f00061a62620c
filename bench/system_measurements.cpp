// What is measured through the system, and the memory of the process.

#include "foundation/win_handle.h"
#include "measurements.h"

#include <psapi.h>

#include <algorithm>
#include <array>
#include <functional>

namespace veltra::bench {

namespace {

constexpr const char* kRegistration =
    R"(SOFTWARE\Microsoft\Cryptography\Defaults\Provider\Veltra measurement)";
constexpr const char* kRegisteredName = "Veltra measurement";

/// The provider's entry in the registry, under a name of its own, as long as it lives.
class Registration {
public:
    Registration() {
        std::array<char, MAX_PATH> path{};
        const DWORD length = GetModuleFileNameA(GetModuleHandleA("VeltraCSP.dll"), path.data(),
                                                static_cast<DWORD>(path.size()));
        require(length > 0 && length < path.size(), "GetModuleFileName");
        const DWORD type = PROV_RSA_FULL;
        const std::array<BYTE, 136> signature{};
        HKEY opened = nullptr;
        require(RegCreateKeyExA(HKEY_LOCAL_MACHINE, kRegistration, 0, nullptr, REG_OPTION_VOLATILE, KEY_WRITE,
                                nullptr, &opened, nullptr) == ERROR_SUCCESS,
                "registration of the provider");
        const UniqueRegistryKey key(opened);
        const auto set = [&](const char* name, DWORD valueType, const void* data, std::size_t bytes) {
            require(RegSetValueExA(key.get(), name, 0, valueType, static_cast<const BYTE*>(data),
                                   static_cast<DWORD>(bytes)) == ERROR_SUCCESS,
                    name);
        };
        set("Image Path", REG_SZ, path.data(), length + 1);
        set("Type", REG_DWORD, &type, sizeof(type));
        set("Signature", REG_BINARY, signature.data(), signature.size());
    }
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    ~Registration() { RegDeleteKeyA(HKEY_LOCAL_MACHINE, kRegistration); }
};

/// One provider as applications see it.
struct SystemProvider {
    const char* name;
    DWORD type;
    HCRYPTPROV held = 0; ///< so that the system keeps its module loaded

    [[nodiscard]] HCRYPTPROV acquire() const {
        HCRYPTPROV context = 0;
        require(CryptAcquireContextA(&context, nullptr, name, type, CRYPT_VERIFYCONTEXT),
                "CryptAcquireContext");
        return context;
    }

    void acquireAndRelease() const { require(CryptReleaseContext(acquire(), 0), "CryptReleaseContext"); }

    void hash() const {
        const std::array<BYTE, 1024> data{};
        std::array<BYTE, 64> digest{};
        DWORD length = digest.size();
        HCRYPTHASH hash = 0;
        require(CryptCreateHash(held, CALG_SHA_256, 0, 0, &hash), "CryptCreateHash");
        require(CryptHashData(hash, data.data(), data.size(), 0), "CryptHashData");
        require(CryptGetHashParam(hash, HP_HASHVAL, digest.data(), &length, 0), "CryptGetHashParam");
        require(CryptDestroyHash(hash), "CryptDestroyHash");
    }
};

/// The least of some looks at the heaps: the monitor thread has memory of its own for moments.
std::size_t restingHeapBytes() {
    std::size_t least = heapBytes();
    for (int i = 0; i < 5; ++i) {
        Sleep(20);
        least = std::min(least, heapBytes());
    }
    return least;
}

/// One kind of handle: how to open and to close one.
struct HandleKind {
    const char* name;
    std::function<ULONG_PTR()> open;
    std::function<void(ULONG_PTR)> close;
};

std::vector<HandleKind> handleKinds(const Application& it) {
    const auto openKey = [&it] {
        HCRYPTKEY key = 0;
        require(CPGetUserKey(it.context, AT_KEYEXCHANGE, &key), "CPGetUserKey");
        return key;
    };
    const auto openProvider = [] {
        NCRYPT_PROV_HANDLE opened = 0;
        requireStatus(ksp().OpenProvider(&opened, L"", 0), "KSPOpenProvider");
        return opened;
    };
    return {
        {"CryptoAPI: context of a container", [] { return acquireContext(); }, releaseContext},
        {"CryptoAPI: key", openKey, [&it](ULONG_PTR handle) { CPDestroyKey(it.context, handle); }},
        {"CryptoAPI: hash", [&it] { return it.newHash(); },
         [&it](ULONG_PTR handle) { CPDestroyHash(it.context, handle); }},
        {"CNG: provider", openProvider, [](ULONG_PTR handle) { ksp().FreeProvider(handle); }},
        {"CNG: key", [&it] { return openCngKey(it.cngProvider); },
         [&it](ULONG_PTR handle) { ksp().FreeKey(it.cngProvider, handle); }},
    };
}

double difference(std::size_t after, std::size_t before) {
    return static_cast<double>(after) - static_cast<double>(before);
}

} // namespace

void measureSystem(const Effort& effort, Report& report) {
    const RealHashes real;
    const Registration registration;
    SystemProvider ours{.name = kRegisteredName, .type = PROV_RSA_FULL};
    SystemProvider platform{.name = MS_ENH_RSA_AES_PROV_A, .type = PROV_RSA_AES};
    ours.held = ours.acquire();
    platform.held = platform.acquire();
    Table table{.title = "Through the system's CryptoAPI",
                .note = "Beside the platform's software provider (" MS_ENH_RSA_AES_PROV_A
                        "). Both modules are loaded already; digests are computed.",
                .columns = {"operation", "platform, us", "Veltra, us", "ratio"},
                .rows = {}};
    const auto add = [&](const char* name, void (SystemProvider::*operation)() const) {
        const Times times =
            measureInTurn({[&] { (platform.*operation)(); }, [&] { (ours.*operation)(); }}, effort);
        table.rows.push_back({name, microseconds(median(times[0])), microseconds(median(times[1])),
                              shown(medianRatio(times[1], times[0]))});
    };
    add("acquire and release, verification only", &SystemProvider::acquireAndRelease);
    add("SHA-256: create, hash 1 KiB, read, destroy", &SystemProvider::hash);
    report.add(std::move(table));
    CryptReleaseContext(ours.held, 0);
    CryptReleaseContext(platform.held, 0);
}

void measureMemory(unsigned signatures, Report& report) {
    constexpr std::size_t kHandles = 1000;
    const TokenKeys keys(1);
    Application application;
    Table handles{.title = "Memory of open handles",
                  .note = "1,000 handles of each kind, all kinds open at the same time.",
                  .columns = {"kind", "bytes of the heap for each", "bytes left when all are closed"},
                  .rows = {}};
    const std::vector<HandleKind> kinds = handleKinds(application);
    std::vector<std::vector<ULONG_PTR>> opened(kinds.size(), std::vector<ULONG_PTR>(kHandles));
    for (std::size_t i = 0; i < kinds.size(); ++i) { // the tables of live handles have grown after this
        std::ranges::generate(opened[i], kinds[i].open);
        std::ranges::for_each(opened[i], kinds[i].close);
    }
    std::vector<double> taken;
    taken.reserve(kinds.size());
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        const std::size_t before = restingHeapBytes();
        std::ranges::generate(opened[i], kinds[i].open);
        taken.push_back(difference(restingHeapBytes(), before));
    }
    for (std::size_t i = 0; i < kinds.size(); ++i) {
        const std::size_t before = restingHeapBytes();
        std::ranges::for_each(opened[i], kinds[i].close);
        const double left = taken[i] + difference(restingHeapBytes(), before);
        handles.rows.push_back({kinds[i].name, shown(taken[i] / kHandles), shown(left)});
    }
    report.add(std::move(handles));

    Table growth{.title = "Growth over " + std::to_string(signatures) + " signatures",
                 .note = "Bytes in use on the heaps, in tenths of the signatures.",
                 .columns = {"operation", "before", "after 1/10", "after 10/10", "growth"},
                 .rows = {}};
    for (const Path& path : pathsOf(application)) {
        const std::string name = path.name;
        if (!name.ends_with("sign")) continue;
        std::vector<std::size_t> bytes;
        bytes.reserve(11);
        bytes.push_back(restingHeapBytes());
        for (int tenth = 0; tenth < 10; ++tenth) {
            for (unsigned i = 0; i < signatures / 10; ++i)
                path.run();
            bytes.push_back(restingHeapBytes());
        }
        const double grown = difference(bytes.back(), bytes[0]);
        growth.rows.push_back({name, std::to_string(bytes[0]), std::to_string(bytes[1]),
                               std::to_string(bytes.back()), shown(grown)});
        report.add(Target{"(f) " + name + ", bytes grown", grown, 0, false});
    }
    report.add(std::move(growth));
}

} // namespace veltra::bench
