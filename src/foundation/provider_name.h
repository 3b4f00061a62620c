#pragma once

namespace veltra {

/// The name of both front ends, under which the system knows them.
inline constexpr const char* kProviderName = "Veltra Cryptographic Provider CSP";
inline constexpr const wchar_t* kWideProviderName = L"Veltra Cryptographic Provider CSP";

} // namespace veltra
