#include "foundation/module.h"

// Nothing happens when the module loads. When the process ends, its other threads are gone before this is
// called: that is noted before the static objects are destroyed.
extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_DETACH && reserved != nullptr) veltra::noteProcessTermination();
    return TRUE;
}
