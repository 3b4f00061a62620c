// Takes the place of bcrypt.dll: hands each configuration call, as a line of text, to the program that loaded
// it, and answers with the status that the program gives back.

#include "registration/bcrypt_calls.h"

#include "foundation/cng.h"

#include <bit>
#include <sstream>

namespace {

void show(std::ostream& line, ULONG number) {
    line << ' ' << number;
}

void show(std::ostream& line, const void* pointer) {
    line << (pointer == nullptr ? " null" : " given");
}

void show(std::ostream& line, const WCHAR* text) {
    if (text == nullptr) return show(line, static_cast<const void*>(text));
    line << ' ';
    for (; *text != 0; ++text)
        line << static_cast<char>(*text);
}

/// Reports the call with all its arguments, numbers in hexadecimal.
template <class... Arguments>
NTSTATUS answer(const char* call, Arguments... arguments) {
    const auto report =
        std::bit_cast<decltype(&bcryptCalled)>(GetProcAddress(GetModuleHandleA(nullptr), "bcryptCalled"));
    std::ostringstream line;
    line << std::hex << call << ':';
    (show(line, arguments), ...);
    return report(line.str().c_str());
}

} // namespace

extern "C" {

__declspec(dllexport) NTSTATUS WINAPI
    BCryptRegisterProvider(LPCWSTR provider, ULONG flags, CRYPT_PROVIDER_REG* registration) {
    const CRYPT_IMAGE_REG& image = *registration->pUM;
    const CRYPT_INTERFACE_REG& first = *image.rgpInterfaces[0];
    return answer("Register", provider, flags, registration->cAliases, registration->rgpszAliases,
                  image.pszImage, image.cInterfaces, first.dwInterface, first.dwFlags, first.cFunctions,
                  first.rgpszFunctions[0], registration->pKM);
}

__declspec(dllexport) NTSTATUS WINAPI BCryptUnregisterProvider(LPCWSTR provider) {
    return answer("Unregister", provider);
}

__declspec(dllexport) NTSTATUS WINAPI
    BCryptAddContextFunctionProvider(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function,
                                     LPCWSTR provider, ULONG position) {
    return answer("Add", table, context, interfaceId, function, provider, position);
}

__declspec(dllexport) NTSTATUS WINAPI
    BCryptRemoveContextFunctionProvider(ULONG table, LPCWSTR context, ULONG interfaceId, LPCWSTR function,
                                        LPCWSTR provider) {
    return answer("Remove", table, context, interfaceId, function, provider);
}

} // extern "C"
