#pragma once

#include "record_file.h"

#include <algorithm>
#include <string>
#include <vector>

namespace veltra::softtoken {

/// What every object of a token that has a file of its own is known by.
struct StoredObject {
    Bytes keyId;                ///< 16 bytes; the file is called after them
    std::string label;          ///< at most kLabelMaxLength bytes
    std::uint64_t sequence = 0; ///< grows with each object of its kind: the order in which they came
};

/// An object that is a key.
struct StoredKey : StoredObject {
    std::uint32_t usage = 0; ///< KeyUsage
    Bytes sealedKey;         ///< canonical "(sealed ..)" expression
};

/// The secret of a key, sealed under the token's master key together with `context`. Failure::Damaged, naming
/// the key, when it does not authenticate.
SecureBytes openSealedKey(const StoredKey& key, BytesView context, BytesView masterKey);

/// "(object ..)" with the fields of a StoredObject, and what it was made of. Failure::Damaged.
Expression toExpression(const StoredObject& object);
StoredObject objectFrom(const Expression& record);

/// The paths of the files in `folder` with `extension`. A folder that is not there is empty; one that cannot
/// be read is reported.
std::vector<std::filesystem::path> filesIn(const std::filesystem::path& folder, std::string_view extension);

/// How the objects of one kind are stored. `Stored` is derived from StoredObject, whose fields need no care
/// here.
template <class Stored>
struct RecordForm {
    const char* kind;
    const char* extension;
    const char* labelPrefix;
    Expression (*print)(const Stored&); ///< a list of the other fields, under names of their own
    Stored (*parse)(const Expression&); ///< the other fields; Failure::Damaged
};

/// The objects of one kind in a folder of a token, one file for each.
template <class Stored>
class RecordFolder {
public:
    RecordFolder(std::filesystem::path folder, const RecordForm<Stored>& form)
        : folder_(std::move(folder)), form_(form) {}

    /// All objects that can be read, in the order of their sequence numbers; damaged files are reported and
    /// left out.
    [[nodiscard]] std::vector<Stored> list() const {
        std::vector<Stored> all;
        for (const std::filesystem::path& path : filesIn(folder_, form_.extension)) {
            try {
                // A file that another process has just deleted is not damaged.
                if (std::optional<Stored> stored = read(path)) all.push_back(std::move(*stored));
            } catch (const TokenError& failure) {
                report(std::string("a ") + form_.kind + " is skipped: " + failure.what());
            }
        }
        std::ranges::sort(all, {}, &Stored::sequence);
        return all;
    }

    /// Nothing when there is no object with this identifier. Failure::Damaged.
    [[nodiscard]] std::optional<Stored> find(BytesView keyId) const { return read(file(keyId)); }

    /// Gives a new object an identifier, unless it has one, the label, and the sequence number after all in
    /// `others`. An empty label becomes the kind's prefix and the first eight digits of the identifier.
    void introduce(StoredObject& object, std::string label, const std::vector<Stored>& others) const {
        if (object.keyId.empty()) object.keyId = randomBytes(kKeyIdLength);
        object.label =
            label.empty() ? form_.labelPrefix + toHex(object.keyId).substr(0, 8) : std::move(label);
        object.sequence = others.empty() ? 1 : others.back().sequence + 1;
    }

    void write(const Stored& stored, Overwrite overwrite) const {
        makeFolder(folder_);
        writeRecord(file(stored.keyId),
                    Expression::build((std::string("(") + form_.kind + " %S %S)").c_str(),
                                      toExpression(stored).get(), form_.print(stored).get()),
                    overwrite);
    }

    void remove(BytesView keyId) const { removeFile(file(keyId)); }

private:
    [[nodiscard]] std::optional<Stored> read(const std::filesystem::path& path) const {
        return readRecord(path, form_.kind, [&](const Expression& record) {
            Stored stored = form_.parse(record);
            static_cast<StoredObject&>(stored) = objectFrom(record);
            if (file(stored.keyId).filename() != path.filename())
                throw TokenError(Failure::Damaged, "it belongs under another name");
            return stored;
        });
    }

    [[nodiscard]] std::filesystem::path file(BytesView keyId) const {
        return folder_ / (toHex(keyId) + form_.extension);
    }

    std::filesystem::path folder_;
    const RecordForm<Stored>& form_;
};

} // namespace veltra::softtoken
