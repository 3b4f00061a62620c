#include "provider.h"

#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>

namespace veltra::bench {

namespace {

constexpr const char* kSettingsKey = R"(Software\Quenmark\Veltra)";
constexpr const char* kLogLevelValue = "logLevel";

LSTATUS WINAPI tracedRegGetValue(HKEY key, LPCSTR subKey, LPCSTR value, DWORD flags, LPDWORD type, PVOID data,
                                 LPDWORD length) {
    StandIn& library = *standIn();
    if (library.tracedThread == GetCurrentThreadId() && std::strcmp(value, kLogLevelValue) == 0) {
        library.trace.push_back(kLogLevelRead);
    }
    return RegGetValueA(key, subKey, value, flags, type, data, length);
}

/// Where `module` keeps the address of an imported function.
FARPROC* importSlot(HMODULE module, const char* function) {
    auto* const base = reinterpret_cast<unsigned char*>(module);
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
    const auto* headers = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = headers->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    const auto* descriptor = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
    for (; descriptor->Name != 0; ++descriptor) {
        const auto* name = reinterpret_cast<const IMAGE_THUNK_DATA*>(base + descriptor->OriginalFirstThunk);
        auto* slot = reinterpret_cast<FARPROC*>(base + descriptor->FirstThunk);
        for (; name->u1.AddressOfData != 0; ++name, ++slot) {
            if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal)) continue;
            const auto* import = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(base + name->u1.AddressOfData);
            if (std::strcmp(import->Name, function) == 0) return slot;
        }
    }
    return nullptr;
}

void setImport(FARPROC* slot, FARPROC function) {
    DWORD protection = 0;
    require(VirtualProtect(static_cast<void*>(slot), sizeof(*slot), PAGE_READWRITE, &protection),
            "VirtualProtect");
    *slot = function;
    VirtualProtect(static_cast<void*>(slot), sizeof(*slot), protection, &protection);
}

/// Sees the provider's reads of the log level as long as it lives.
class LogLevelWatch {
public:
    LogLevelWatch() : slot_(importSlot(GetModuleHandleA("VeltraCSP.dll"), "RegGetValueA")) {
        require(slot_ != nullptr, "the provider's import of RegGetValueA");
        before_ = *slot_;
        setImport(slot_, std::bit_cast<FARPROC>(&tracedRegGetValue));
    }
    LogLevelWatch(const LogLevelWatch&) = delete;
    LogLevelWatch& operator=(const LogLevelWatch&) = delete;
    ~LogLevelWatch() { setImport(slot_, before_); }

private:
    FARPROC* slot_;
    FARPROC before_ = nullptr;
};

std::array<unsigned char, 512> in;
std::array<unsigned char, 512> out;
int outLength;
constexpr int kInputLength = 32;
constexpr int kRsaBytes = 256;
constexpr int kDerBytes = 294; // of an RSA-2048 public key
constexpr int kIvBytes = 16;
constexpr const char* kPin = "1234";

// Functions that go on with a hash need one: a made-up one, which all share.
void* sharedHash() {
    static void* hash = nullptr;
    if (hash == nullptr) veltra_initHash(kSerial, kMechanismSha256, &hash, nullptr);
    return hash;
}

/// A call whose result is in a buffer of the library's, which is released.
template <class Call>
Operation releasing(Call call) {
    return [call] {
        unsigned char* buffer = nullptr;
        call(&buffer);
        std::free(buffer); // NOLINT(cppcoreguidelines-no-malloc): the library allocated it with malloc
    };
}

/// The steps of a trace by name, with arguments like those of the measured paths.
const std::map<std::string, Operation>& bareSteps() {
    static const std::map<std::string, Operation> steps = {
        {kLogLevelRead, readLogLevel},
        {"veltra_init", [] { veltra_init(0, nullptr, 2); }},
        {"veltra_getConnectedDeviceList", [] { veltra_getConnectedDeviceList(false, nullptr); }},
        {"veltra_getTokenInfo", [] { veltra_getTokenInfo(kSerial, nullptr); }},
        {"veltra_getKeyPairList", [] { veltra_getKeyPairList(kSerial, nullptr); }},
        {"veltra_initHash",
         [] {
             void* hash = nullptr;
             veltra_initHash(kSerial, kMechanismSha256, &hash, nullptr);
         }},
        {"veltra_updateHash", [] { veltra_updateHash(sharedHash(), in.data(), kInputLength, nullptr); }},
        {"veltra_finalHash", [] { veltra_finalHash(sharedHash(), out.data(), &outLength, nullptr); }},
        {"veltra_signHash",
         [] {
             veltra_signHash(kSerial, in.data(), kPin, in.data(), kInputLength, out.data(), &outLength, false,
                             nullptr, false);
         }},
        {"veltra_verifySignatureHash",
         [] {
             veltra_verifySignatureHash(kKeyTypeRsa2048, kSerial, in.data(), kInputLength, in.data(),
                                        kDerBytes, in.data(), kRsaBytes, nullptr, false);
         }},
        {"veltra_encrypt",
         [] {
             veltra_encrypt(EncryptionType::Rsa2048, PaddingMode::OaepSha1, in.data(), kInputLength,
                            out.data(), &outLength, in.data(), kDerBytes, nullptr);
         }},
        {"veltra_decrypt", releasing([](unsigned char** buffer) {
             veltra_decrypt(kSerial, in.data(), kPin, in.data(), kRsaBytes, buffer, &outLength, false,
                            nullptr);
         })},
        {"veltra_encrypt_aes", releasing([](unsigned char** buffer) {
             veltra_encrypt_aes(kSerial, EncryptionType::Aes192Or256Cbc, in.data(), kInputLength, in.data(),
                                kInputLength, buffer, &outLength, true, in.data(), kIvBytes, nullptr, 0,
                                nullptr);
         })},
        {"veltra_decrypt_aes", releasing([](unsigned char** buffer) {
             veltra_decrypt_aes(kSerial, in.data(), kInputLength, in.data(), kInputLength, buffer, &outLength,
                                false, in.data(), kIvBytes, nullptr);
         })},
        {"veltra_decryptSymetric",
         [] {
             veltra_decryptSymetric(kSerial, in.data(), kInputLength, out.data(), &outLength, in.data(),
                                    kIvBytes, in.data(), kInputLength, nullptr);
         }},
        {"veltra_ecdhDerive", releasing([](unsigned char** buffer) {
             veltra_ecdhDerive(kSerial, in.data(), kPin, in.data(), 65, buffer, &outLength, nullptr);
         })},
    };
    return steps;
}

} // namespace

void require(bool succeeded, const char* what) {
    if (!succeeded) throw std::runtime_error(std::string("failed: ") + what);
}

void requireStatus(SECURITY_STATUS status, const char* what) {
    require(status == ERROR_SUCCESS, what);
}

const NCRYPT_KEY_STORAGE_FUNCTION_TABLE& ksp() {
    static const auto* const table = [] {
        NCRYPT_KEY_STORAGE_FUNCTION_TABLE* functions = nullptr;
        requireStatus(GetKeyStorageInterface(nullptr, &functions, 0), "GetKeyStorageInterface");
        return functions;
    }();
    return *table;
}

Trace traceOf(const Operation& operation) {
    StandIn& library = *standIn();
    const LogLevelWatch watch;
    library.trace.clear();
    library.tracedThread = GetCurrentThreadId();
    operation();
    library.tracedThread = 0;
    return library.trace;
}

Operation bareOf(const Trace& trace) {
    std::vector<const Operation*> steps;
    for (const char* step : trace)
        steps.push_back(&bareSteps().at(step));
    return [steps] {
        for (const Operation* step : steps)
            (*step)();
    };
}

void readLogLevel() {
    static HKEY key = nullptr;
    if (key == nullptr &&
        RegOpenKeyExA(HKEY_LOCAL_MACHINE, kSettingsKey, 0, KEY_QUERY_VALUE, &key) != ERROR_SUCCESS) {
        key = nullptr;
        return;
    }
    std::array<unsigned char, 32> data{};
    auto length = static_cast<DWORD>(data.size());
    RegGetValueA(key, nullptr, kLogLevelValue, RRF_RT_ANY, nullptr, data.data(), &length);
}

ErrorLinesOnly::ErrorLinesOnly() {
    constexpr DWORD kErrorLines = 2;
    HKEY opened = nullptr;
    DWORD disposition = 0;
    require(RegCreateKeyExA(HKEY_LOCAL_MACHINE, kSettingsKey, 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr,
                            &opened, &disposition) == ERROR_SUCCESS,
            "the key of the log level");
    key_.reset(opened);
    keyWasThere_ = disposition == REG_OPENED_EXISTING_KEY;
    DWORD level = 0;
    DWORD length = sizeof(level);
    if (RegGetValueA(opened, nullptr, kLogLevelValue, RRF_RT_REG_DWORD, nullptr, &level, &length) ==
        ERROR_SUCCESS) {
        before_ = level;
    }
    require(RegSetValueExA(opened, kLogLevelValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&kErrorLines),
                           sizeof(kErrorLines)) == ERROR_SUCCESS,
            "setting the log level");
}

ErrorLinesOnly::~ErrorLinesOnly() {
    if (before_) {
        RegSetValueExA(key_.get(), kLogLevelValue, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&*before_),
                       sizeof(*before_));
        return;
    }
    RegDeleteValueA(key_.get(), kLogLevelValue);
    if (!keyWasThere_) RegDeleteKeyA(HKEY_LOCAL_MACHINE, kSettingsKey);
}

} // namespace veltra::bench
