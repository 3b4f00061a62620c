#pragma once

#include "record_file.h"

#include <algorithm>
#include <string>
#include <vector>

namespace veltra::softtoken {

/// What `parse` makes of all records of `kind` in the files of `folder` with `extension`, in the order of
/// their sequence numbers. Damaged files are reported and left out; a folder that is not there is empty.
template <class Stored>
std::vector<Stored> readRecordFolder(const std::filesystem::path& folder, const char* extension,
                                     const char* kind, Stored (*parse)(const Expression&)) {
    std::vector<Stored> records;
    std::error_code error;
    for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
        if (entry->path().extension() != extension) continue;
        try {
            // A file that another process has just deleted is not damaged.
            if (const auto record = readRecord(entry->path(), kind)) records.push_back(parse(*record));
        } catch (const TokenError& failure) {
            report(std::string("a ") + kind + " is skipped: " + failure.what());
        }
    }
    std::ranges::sort(records, {}, &Stored::sequence);
    return records;
}

/// The sequence number of a record that is added to those that readRecordFolder() gave.
template <class Stored>
std::uint64_t nextSequence(const std::vector<Stored>& records) {
    return records.empty() ? 1 : records.back().sequence + 1;
}

/// The label of something that was given none: `prefix` and the first eight digits of its identifier.
inline std::string defaultLabel(const char* prefix, BytesView keyId) {
    return prefix + toHex(keyId).substr(0, 8);
}

} // namespace veltra::softtoken
