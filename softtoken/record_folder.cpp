#include "record_folder.h"

#include "sealed_data.h"

namespace veltra::softtoken {

namespace fs = std::filesystem;

SecureBytes openSealedKey(const StoredKey& key, BytesView context, BytesView masterKey) {
    try {
        return unseal(masterKey, context, Expression::parse(key.sealedKey));
    } catch (const TokenError& error) {
        throw TokenError(error.failure(), "the key " + toHex(key.keyId) + " is unusable: " + error.what());
    }
}

Expression toExpression(const StoredObject& object) {
    return Expression::build("(object %S %S %S)", Expression::field("key-id", object.keyId).get(),
                             Expression::field("label", bytesOf(object.label)).get(),
                             Expression::field("sequence", object.sequence).get());
}

StoredObject objectFrom(const Expression& record) {
    StoredObject object{record.bytes("key-id"), record.text("label"), record.number("sequence")};
    if (object.keyId.size() != kKeyIdLength || object.label.size() > kLabelMaxLength)
        throw TokenError(Failure::Damaged, "the identifier or the label has an impossible length");
    return object;
}

std::vector<fs::path> filesIn(const fs::path& folder, std::string_view extension) {
    std::vector<fs::path> files;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error)) {
        if (entry->path().extension() == extension) files.push_back(entry->path());
    }
    if (error && error != std::errc::no_such_file_or_directory)
        report(folder.string() + " cannot be read: " + error.message());
    return files;
}

} // namespace veltra::softtoken
