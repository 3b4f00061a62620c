#pragma once

#include "foundation/windows.h"

#include <string>

namespace veltra {

/// The module that this code is part of: VeltraCSP.dll, or the program that it is linked into.
HMODULE thisModule();

/// The file of a loaded module; empty when it cannot be read.
std::wstring moduleFile(HMODULE module);

/// The folder of thisModule(), ending in a backslash; empty when it cannot be read.
std::wstring thisModuleFolder();

/// Keeps this module loaded until the process ends, so that its threads never run in unmapped code. False
/// when the system refuses.
bool pinThisModule();

/// The process is ending and all other threads are gone: DllMain notes it, and clean-up that would wait for
/// a thread asks for it.
void noteProcessTermination();
bool isProcessTerminating();

} // namespace veltra
