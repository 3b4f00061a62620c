#include "token_key.h"

#include "files.h"

namespace veltra {

std::unique_ptr<TokenInterface> TokenInterface::open(const ProviderChoice& choice) {
    return choice.cng ? openCng(choice) : openCryptoApi(choice);
}

Pieces piecesOf(const std::filesystem::path& file) {
    return [file](const auto& consume) { readInPieces(file, consume); };
}

} // namespace veltra
