// Takes the place of bcrypt.dll: writes each configuration call out as one line, hands it to the program that
// loaded it, and answers with the status that the program gives back.

#include "registration/bcrypt_calls.h"

#include "foundation/cng.h"

#include <bit>
#include <string>

namespace {

std::string hex(ULONG number) {
    char text[16] = {};
    snprintf(text, sizeof text, "%lX", number);
    return text;
}

std::string text(const WCHAR* wide) {
    if (wide == nullptr) return "null";
    std::string ascii;
    for (; *wide != 0; ++wide)
        ascii += static_cast<char>(*wide);
    return ascii;
}

std::string record(const CRYPT_INTERFACE_REG& entry) {
    std::string line = "interface " + hex(entry.dwInterface) + " flags " + hex(entry.dwFlags);
    for (ULONG i = 0; i < entry.cFunctions; ++i)
        line += " function " + text(entry.rgpszFunctions[i]);
    return line;
}

std::string record(const CRYPT_IMAGE_REG* image) {
    if (image == nullptr) return "null";
    std::string line = text(image->pszImage);
    for (ULONG i = 0; i < image->cInterfaces; ++i)
        line += " (" + record(*image->rgpInterfaces[i]) + ")";
    return line;
}

std::string record(const CRYPT_PROVIDER_REG& provider) {
    const std::string aliases = provider.rgpszAliases == nullptr ? "null" : "given";
    return "aliases " + hex(provider.cAliases) + " " + aliases + ", user mode " + record(provider.pUM) +
           ", kernel mode " + record(provider.pKM);
}

std::string entry(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function, LPCWSTR provider) {
    return "table " + hex(table) + ", context " + text(context) + ", interface " + hex(interfaceId) +
           ", function " + text(function) + ", provider " + text(provider);
}

NTSTATUS answer(const std::string& call) {
    const auto report =
        std::bit_cast<decltype(&bcryptCalled)>(GetProcAddress(GetModuleHandleA(nullptr), "bcryptCalled"));
    return report(call.c_str());
}

} // namespace

extern "C" {

__declspec(dllexport) NTSTATUS WINAPI
    BCryptRegisterProvider(LPCWSTR provider, ULONG flags, CRYPT_PROVIDER_REG* registration) {
    return answer("Register: provider " + text(provider) + ", flags " + hex(flags) + ", " +
                  record(*registration));
}

__declspec(dllexport) NTSTATUS WINAPI BCryptUnregisterProvider(LPCWSTR provider) {
    return answer("Unregister: provider " + text(provider));
}

__declspec(dllexport) NTSTATUS WINAPI
    BCryptAddContextFunctionProvider(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function,
                                     LPCWSTR provider, ULONG position) {
    return answer("Add: " + entry(table, context, interfaceId, function, provider) + ", position " +
                  hex(position));
}

__declspec(dllexport) NTSTATUS WINAPI
    BCryptRemoveContextFunctionProvider(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function,
                                        LPCWSTR provider) {
    return answer("Remove: " + entry(table, context, interfaceId, function, provider));
}

} // extern "C"
