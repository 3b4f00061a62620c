#pragma once

#include "foundation/device_library.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace veltra {

/// What looking for the device library came to.
struct DeviceLibraryBinding {
    std::unique_ptr<DeviceLibrary> library; ///< null when no file can be loaded, or it lacks an export
    std::wstring file;                      ///< the loaded file; empty when there is none
    unsigned long error = 0;                ///< system code: why none could be loaded
    std::vector<const char*> missingExports;
};

/// Looks for VeltraDSCLibrary.dll as deviceLibrary() does, with `folder` (ending in a backslash, or empty:
/// none) in the place of this module's folder, and binds it. A library that is bound stays loaded until the
/// process ends.
DeviceLibraryBinding bindDeviceLibrary(const std::wstring& folder);

/// Which of the exports that a device library must have are not among those that `has` knows: for a file that
/// this process cannot load.
std::vector<const char*> missingExports(const std::function<bool(const char*)>& has);

} // namespace veltra
