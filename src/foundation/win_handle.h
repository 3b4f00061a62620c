#pragma once

#include "foundation/windows.h"

#include <memory>
#include <type_traits>

namespace veltra {

/// Owners of platform handles: each closes its handle when it goes out of scope; null owns nothing. A handle
/// whose failure value is INVALID_HANDLE_VALUE is made null by ownFile.
struct HandleCloser {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using UniqueHandle = std::unique_ptr<std::remove_pointer_t<HANDLE>, HandleCloser>;

inline UniqueHandle ownFile(HANDLE file) {
    return UniqueHandle(file == INVALID_HANDLE_VALUE ? nullptr : file);
}

struct RegistryKeyCloser {
    void operator()(HKEY key) const { RegCloseKey(key); }
};
using UniqueRegistryKey = std::unique_ptr<std::remove_pointer_t<HKEY>, RegistryKeyCloser>;

struct ModuleFreer {
    void operator()(HMODULE module) const { FreeLibrary(module); }
};
using UniqueModule = std::unique_ptr<std::remove_pointer_t<HMODULE>, ModuleFreer>;

/// Keeps the thread's last error for the lifetime of the object, so that work done for another purpose
/// (logging, clean-up) does not change what the caller sees.
class LastErrorKeeper {
public:
    LastErrorKeeper() : saved_(GetLastError()) {}
    LastErrorKeeper(const LastErrorKeeper&) = delete;
    LastErrorKeeper& operator=(const LastErrorKeeper&) = delete;
    ~LastErrorKeeper() { SetLastError(saved_); }

private:
    DWORD saved_;
};

} // namespace veltra
