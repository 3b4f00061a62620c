#include "loaded_library.h"

#include "foundation/windows.h"

#include <cstdlib>
#include <stdexcept>

namespace veltra::softtoken::test {

LoadedLibrary::LoadedLibrary() : module_(LoadLibraryW(L"VeltraDSCLibrary.dll")) {
    if (module_ == nullptr) throw std::runtime_error("cannot load VeltraDSCLibrary.dll");
}

LoadedLibrary::~LoadedLibrary() {
    FreeLibrary(static_cast<HMODULE>(module_));
}

LoadedLibrary::Symbol LoadedLibrary::find(const char* name) const {
    const FARPROC address =
        module_ == nullptr ? nullptr : GetProcAddress(static_cast<HMODULE>(module_), name);
    if (address == nullptr) throw std::runtime_error(std::string("no export ") + name);
    return {reinterpret_cast<void (*)()>(address)};
}

LibraryOutput::~LibraryOutput() {
    std::free(data);
}

} // namespace veltra::softtoken::test
