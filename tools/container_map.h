#pragma once

#include <string>
#include <vector>

namespace veltra {

/// A container of this user and the identifiers of its keys on tokens, each 32 hexadecimal digits. The first
/// one is the key that opening the container gives.
struct Container {
    std::wstring name;
    std::vector<std::wstring> keyIds;
    bool isDamaged = false; ///< no text, longer than the provider reads, or not all of it identifiers
};

/// The containers that the provider has written down for this user, by name; the tokens are not asked.
/// Entries that are no text, or are longer than the provider reads, are left out as the provider leaves them
/// out.
std::vector<Container> readContainerMap();

/// The same with the entries that are left out there, so that somebody can be told of them.
std::vector<Container> readWholeContainerMap();

/// The container of this name, with no keys if there is none.
Container findContainer(const std::wstring& name);

} // namespace veltra
