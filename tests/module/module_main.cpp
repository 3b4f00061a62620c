// What the sanitized VeltraCSP.dll has besides the provider: one scripted token, and the bounds of the stack
// of every thread that comes in.

#include "support/sanitizer_stack.h"
#include "support/scripted_device_library.h"

#include "foundation/windows.h"

extern "C" BOOL WINAPI providerMain(HINSTANCE module, DWORD reason, LPVOID reserved);

namespace {

void plugInToken() {
    using namespace veltra;
    test::ScriptedDeviceLibrary& library = test::ScriptedDeviceLibrary::instance();
    library.addToken("Module").addKeyPair(0x11, kKeyTypeRsa2048, kUsageBoth);
    setDeviceLibrary(&library);
}

} // namespace

extern "C" BOOL WINAPI DllMain(HINSTANCE module, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_ATTACH || reason == DLL_THREAD_ATTACH) veltra::test::announceStackToSanitizer();
    if (reason == DLL_PROCESS_ATTACH) plugInToken();
    return providerMain(module, reason, reserved);
}
