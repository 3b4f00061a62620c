#pragma once

#include "foundation/windows.h"

/// Exported by the test program, called by the stand-in for bcrypt.dll: one configuration call, as text. The
/// result is the call's status.
extern "C" __declspec(dllexport) LONG bcryptCalled(const char* call);
