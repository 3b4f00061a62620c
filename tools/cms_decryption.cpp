#include "cms_decryption.h"

#include "certificates.h"
#include "error_text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>

namespace veltra {
namespace {

constexpr std::size_t kLongestRsaData = 512; // RSA 4096
constexpr std::size_t kIvLength = 16;

/// The recipient whose content key importContentKey is asked for: the platform hands it no data of ours.
const CERT_INFO* wantedRecipient = nullptr;

bool isAnother(const CMSG_KEY_TRANS_RECIPIENT_INFO& recipient) {
    CERT_ID id = recipient.RecipientId;
    CERT_INFO wanted = *wantedRecipient;
    return id.dwIdChoice == CERT_ID_ISSUER_SERIAL_NUMBER &&
           !(CertCompareCertificateName(X509_ASN_ENCODING, &id.IssuerSerialNumber.Issuer, &wanted.Issuer) &&
             CertCompareIntegerBlob(&id.IssuerSerialNumber.SerialNumber, &wanted.SerialNumber));
}

/// Documented is a pointer to the recipient itself. Wine passes all recipients, to be used with the index.
const CMSG_KEY_TRANS_RECIPIENT_INFO& recipientOf(const CMSG_CTRL_KEY_TRANS_DECRYPT_PARA& parameters) {
    return isAnother(*parameters.pKeyTrans) ? parameters.pKeyTrans[parameters.dwRecipientIndex]
                                            : *parameters.pKeyTrans;
}

/// The IV of AES-CBC (RFC 3565): an OCTET STRING of one block; null for anything else.
const BYTE* ivOf(const CRYPT_ALGORITHM_IDENTIFIER& contentCipher) {
    constexpr std::size_t kHeaderLength = 2;
    const CRYPT_OBJID_BLOB& parameters = contentCipher.Parameters;
    const bool valid = parameters.cbData == kHeaderLength + kIvLength && parameters.pbData[0] == 0x04 &&
                       parameters.pbData[1] == kIvLength;
    return valid ? parameters.pbData + kHeaderLength : nullptr;
}

CryptoKey importSessionKey(HCRYPTPROV context, HCRYPTKEY ownKey, const CRYPT_DATA_BLOB& encrypted) {
    struct {
        BLOBHEADER header;
        ALG_ID encryptionAlgorithm;
        BYTE encryptedKey[kLongestRsaData];
    } blob{};
    if (encrypted.cbData > sizeof blob.encryptedKey) {
        SetLastError(static_cast<DWORD>(NTE_BAD_LEN));
        return {};
    }
    // The provider takes the key's length from the key itself, and keeps an IV only for keys that are
    // announced with more than 128 bits. So every length is announced as AES-256.
    blob.header = {SIMPLEBLOB, CUR_BLOB_VERSION, 0, CALG_AES_256};
    blob.encryptionAlgorithm = CALG_RSA_KEYX;
    std::reverse_copy(encrypted.pbData, encrypted.pbData + encrypted.cbData, blob.encryptedKey);
    HCRYPTKEY key = 0;
    if (!CryptImportKey(context, reinterpret_cast<const BYTE*>(&blob),
                        static_cast<DWORD>(offsetof(decltype(blob), encryptedKey)) + encrypted.cbData, ownKey,
                        0, &key)) {
        return {};
    }
    return CryptoKey(key);
}

/// The platform's way to let an application import the content key (PFN_CMSG_IMPORT_KEY_TRANS). Wine's own
/// function does not know the AES ciphers by their object identifiers, and nothing in Wine sets the IV.
BOOL WINAPI importContentKey(PCRYPT_ALGORITHM_IDENTIFIER contentCipher,
                             PCMSG_CTRL_KEY_TRANS_DECRYPT_PARA parameters, DWORD, void*,
                             HCRYPTKEY* contentKey) {
    const BYTE* iv = ivOf(*contentCipher);
    if (iv == nullptr) {
        SetLastError(static_cast<DWORD>(NTE_BAD_DATA));
        return FALSE;
    }
    HCRYPTKEY ownKeyHandle = 0;
    if (!CryptGetUserKey(parameters->hCryptProv, parameters->dwKeySpec, &ownKeyHandle)) {
        return FALSE;
    }
    const CryptoKey ownKey(ownKeyHandle);
    CryptoKey sessionKey =
        importSessionKey(parameters->hCryptProv, ownKey.get(), recipientOf(*parameters).EncryptedKey);
    if (sessionKey.get() == 0 || !CryptSetKeyParam(sessionKey.get(), KP_IV, iv, 0)) {
        return FALSE;
    }
    *contentKey = sessionKey.release();
    return TRUE;
}

void installImportFunction() {
    const auto entry = [](const char* cipher) {
        return CRYPT_OID_FUNC_ENTRY{cipher, reinterpret_cast<void*>(importContentKey)};
    };
    const std::array entries = {entry(szOID_NIST_AES128_CBC), entry(szOID_NIST_AES192_CBC),
                                entry(szOID_NIST_AES256_CBC)};
    require(CryptInstallOIDFunctionAddress(nullptr, X509_ASN_ENCODING, CMSG_OID_IMPORT_KEY_TRANS_FUNC,
                                           static_cast<DWORD>(entries.size()), entries.data(), 0),
            "could not prepare the decryption");
}

/// Lets the provider ask for the PIN where it has none: importing a key never asks. Only the private key
/// decrypts what is encrypted here.
void verifyUser(const CryptoProvider& context) {
    const CryptoKey key = context.ownKey();
    std::array<BYTE, kLongestRsaData> data{};
    DWORD length = 1;
    require(
        CryptEncrypt(key.get(), 0, TRUE, CRYPT_OAEP, data.data(), &length, static_cast<DWORD>(data.size())) &&
            CryptDecrypt(key.get(), 0, TRUE, CRYPT_OAEP, data.data(), &length),
        "could not decrypt with the container's key");
}

/// A parameter of a message, aligned for the structure that it may be.
std::vector<std::max_align_t> messageParameter(HCRYPTMSG message, DWORD parameter, DWORD index,
                                               DWORD& length) {
    require(CryptMsgGetParam(message, parameter, index, nullptr, &length), "could not read the message");
    std::vector<std::max_align_t> buffer(length / sizeof(std::max_align_t) + 1);
    require(CryptMsgGetParam(message, parameter, index, buffer.data(), &length),
            "could not read the message");
    return buffer;
}

/// Read straight into what is returned, so that no second copy of the plaintext is left behind.
std::vector<BYTE> contentOf(HCRYPTMSG message) {
    DWORD length = 0;
    require(CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, nullptr, &length), "could not read the content");
    std::vector<BYTE> content(length);
    require(CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, content.data(), &length),
            "could not read the content");
    content.resize(length);
    return content;
}

/// Padding makes even an empty content a block long. Wine takes a content in pieces, which BER allows, for an
/// empty one. A platform that does not tell the length before the decryption has not made that mistake.
bool isContentInPieces(HCRYPTMSG message) {
    DWORD length = 0;
    return CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, nullptr, &length) && length == 0;
}

/// Whether the code is what the provider answers for a key that its own key cannot decrypt, or says nothing.
bool saysWrongKey(DWORD code) {
    const auto status = static_cast<LONG>(code);
    return status == NTE_FAIL || status == CRYPT_E_RECIPIENT_NOT_FOUND;
}

/// Tries the recipients in turn: which of them the container's key is would be known only by its certificate,
/// and that need not be on the token. A refusal has the first code that is not plainly that of another's key.
void decryptForAnyRecipient(HCRYPTMSG message, DWORD recipients, const CryptoProvider& context) {
    CMSG_CTRL_DECRYPT_PARA parameters{};
    parameters.cbSize = sizeof parameters;
    parameters.hCryptProv = context.handle();
    parameters.dwKeySpec = AT_KEYEXCHANGE;
    auto reason = static_cast<DWORD>(CRYPT_E_RECIPIENT_NOT_FOUND);
    for (DWORD index = 0; index < recipients; ++index) {
        DWORD length = 0;
        const auto recipient = messageParameter(message, CMSG_RECIPIENT_INFO_PARAM, index, length);
        wantedRecipient = reinterpret_cast<const CERT_INFO*>(recipient.data());
        parameters.dwRecipientIndex = index;
        const BOOL decrypted = CryptMsgControl(message, 0, CMSG_CTRL_DECRYPT, &parameters);
        const DWORD code = GetLastError();
        wantedRecipient = nullptr;
        if (decrypted) {
            return;
        }
        if (saysWrongKey(reason)) {
            reason = code;
        }
    }
    if (static_cast<LONG>(reason) == NTE_BAD_ALGID) {
        throw CommandError("the message's content is not encrypted with AES-CBC", kExitFailed, reason);
    }
    failWithCode(reason, "could not decrypt for any of the message's recipients");
}

} // namespace

std::vector<BYTE> decryptMessage(const CryptoProvider& context, const std::vector<BYTE>& encoded,
                                 const std::string& name) {
    installImportFunction();
    const UniqueMessage message(CryptMsgOpenToDecode(kMessageEncoding, 0, 0, 0, nullptr, nullptr));
    require(message != nullptr, "could not read the message");
    DWORD recipients = 0;
    DWORD length = sizeof recipients;
    if (!CryptMsgUpdate(message.get(), encoded.data(), static_cast<DWORD>(encoded.size()), TRUE) ||
        !CryptMsgGetParam(message.get(), CMSG_RECIPIENT_COUNT_PARAM, 0, &recipients, &length)) {
        const DWORD code = GetLastError();
        failWithCode(code, name + " is not an enveloped CMS message in DER");
    }
    if (isContentInPieces(message.get())) {
        throw CommandError(name +
                           " has its content in pieces, not in DER; write it anew with 'openssl cms -cmsout "
                           "-inform DER -outform DER'");
    }
    verifyUser(context);
    decryptForAnyRecipient(message.get(), recipients, context);
    return contentOf(message.get());
}

} // namespace veltra
