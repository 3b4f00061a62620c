// What the entry points of both front ends refuse, each in the order of its checks: the code, and the lines
// in the log.

#include "support/provider_test.h"
#include "support/working_calls.h"

#include "csp/hash_context.h"
#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/device_state.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <sstream>

namespace veltra::test {
namespace {

using World = BothFrontEnds;

/// What working calls are refused for with `value` in these arguments, whatever those of their later rows
/// are. "*length": the value lies there. "!context": it is not set up, which nobody hands out. "!silent": it
/// is. "!pin": nobody has typed it. "!weak", "!ec", "!gone": the key is. "!info": the HMAC has none.
/// "~signHash=2": the second call of veltra_signHash fails, with code 7.
struct Refusal {
    std::string_view calls;     ///< with "/" between their names
    std::string_view arguments; ///< each is enough, but for those with "+" between them
    std::int64_t code;
    std::string errors; ///< behind a colon: what follows the name of the entry point
    std::uintptr_t value = 0;
};

constexpr SECURITY_STATUS kBadHandle = NTE_INVALID_HANDLE, kBadParameter = NTE_INVALID_PARAMETER;
constexpr DWORD kInvalid = ERROR_INVALID_PARAMETER, kMore = ERROR_MORE_DATA;
constexpr SECURITY_STATUS kStorageFull = NTE_TOKEN_KEYSET_STORAGE_FULL, kFailed = NTE_PROVIDER_DLL_FAIL;
constexpr std::uintptr_t kTooLong = INT_MAX + 1u;
constexpr HMAC_INFO kNoDigest{CALG_HMAC, nullptr, 0, nullptr, 0};
const std::string kLongPin(256, '1'), kContainer(32, '1');

const std::string kNullContext = ": context is null or not initialized";
const std::string kBadContext = ": invalid or uninitialized context";
const std::string kNullKey = ": key handle is null";
const std::string kNullHash = ": pHashHandle is NULL";
const std::string kNullLength = ": pdwDataLen is null";
const std::string kInvalidParameter = ": invalid parameter - ";
const std::string kLong = ": a length is too large";
const std::string kWeakKey = " not allowed \xE2\x80\x94 key size below 112-bit security strength";
const std::string kDeleting = ": CRYPT_DELETEKEYSET ";
const std::string kExport = "ExportPublicKeyComponents: ";
const std::string kImport = "CPImportKey - ";
const std::string kOuter = "CPGetHashParam: HMAC outer ";
const std::string kChain = "importCertificateWithChain: chain import failed at index ";
const std::string kNotImported = "\nCPSetKeyParam: KP_CERTIFICATE import failed ret=7";
const std::string kNoValue = "\nCPGetHashParam failed to get hash ";
// Of the login.
const std::string kEnsure = "ensurePasswordValidated: ", kNotEnsured = ": ensurePasswordValidated failed";
const std::string kCancelled = "loginUser: user cancelled password dialog, return FALSE\n";
const std::string kNotTyped = kCancelled + kEnsure + "password validation failed, return false\n";
const std::string kSilent = kEnsure + "CRYPT_SILENT set, cannot prompt for PIN, return false\n";
const std::string kNoDialog = "loginUser: CRYPT_SILENT set, cannot show PIN dialog, return FALSE\n";
const std::string kNoCertificateLogin = "CPSetKeyParam: KP_CERTIFICATE login failed";

const Refusal kRefusals[] = {
    {"CPEncrypt RSA", "length", kInvalid, ": pcbDataLen is null"},
    {"CPExportKey", "length", kInvalid, ": hKey or pcbData is null"},
    {"CPGetProvParam/CPSetProvParam/CPGenRandom of 7/CPGetKeyParam/CPSetKeyParam KP_CERTIFICATE/CPExportKey/"
     "CPSignHash/CPEncrypt RSA/CPDecrypt RSA",
     "context", NTE_BAD_UID, kNullContext},
    {"CPGetKeyParam/CPSetKeyParam KP_CERTIFICATE/CPEncrypt RSA/CPDecrypt RSA", "rsaKey", NTE_BAD_KEY,
     kNullKey},
    {"CPCreateHash", "context+handle", kInvalid, kInvalidParameter + "phHash=0 hProv=0"},
    {"CPDuplicateHash", "context+hash+handle", kInvalid, kInvalidParameter + "phHash=0 hProv=0 hHash=0"},
    {"CPGetHashParam", "context+hash+length", kInvalid, kInvalidParameter + "hProv=0 hHash=0 pcbDataLen=0"},
    {"CPSetHashParam", "context+hmac+data", kInvalid, kInvalidParameter + "hProv=0 hHash=0 pbData=0"},
    {"CPCreateHash/CPDuplicateHash/CPGetHashParam/CPSetHashParam", "flags=1", NTE_BAD_FLAGS,
     ": invalid dwFlags=0x00000001"},
    {"CPGetHashParam/CPSetHashParam", "!context", NTE_BAD_HASH,
     ": context not initialized or hash not valid"},
    {"CPDestroyKey/CPHashData/CPDestroyHash", "context", NTE_BAD_UID, kBadContext},

    {"CPAcquireContext", "handle+data", kInvalid, kInvalidParameter + "phProv=0 pVTable=0"},
    {"CPAcquireContext", "~getConnectedDeviceList", kStorageFull,
     ": valid token not connected, return FALSE"},
    {"CPAcquireContext CRYPT_DELETEKEYSET", "~getConnectedDeviceList", kStorageFull,
     kDeleting + "no token connected"},
    {"CPAcquireContext CRYPT_DELETEKEYSET", "!pin", NTE_FAIL,
     kNotTyped + "CPAcquireContext" + kDeleting + "PIN validation failed"},
    {"CPAcquireContext, silent", "!pin", NTE_SILENT_CONTEXT,
     kDeleting + "CRYPT_SILENT set, cannot prompt for PIN"},
    {"CPReleaseContext with flags", "flags", NTE_BAD_FLAGS, ": invalid dwFlags=0x00ABCDEF", 0xABCDEF},
    {"CPReleaseContext with flags", "context", NTE_BAD_UID, kBadContext},
    {"CPReleaseContext with flags", "!context", NTE_BAD_UID, kBadContext},
    {"CPGetProvParam", "length", kInvalid, kNullLength},
    {"CPGetProvParam", "choice", NTE_BAD_TYPE, ": unsupported dwParam=7", 7},
    {"PP_CERTCHAIN", "~getKeyPairList", NTE_NO_KEY,
     "CPGetProvParam PP_CERTCHAIN: container not found, containerName=" + kContainer},
    {"PP_CERTCHAIN", "~findCertificateForKey", NTE_NO_KEY, "Certificate Is Empty"},
    {"CPGetProvParam of no chain", "", NTE_BAD_KEY,
     "[ERROR] Cannot parse leaf cert\nFailed creating leaf certificate"},
    {"CPSetProvParam", "choice", NTE_BAD_TYPE, ": unsupported dwParam=4294967295", MAXDWORD},
    {"CPSetProvParam", "input?", kInvalid, ": NULL PIN data"},
    {"CPSetProvParam", "input?", NTE_KEYSET_ENTRY_BAD, ": PIN is longer than 255 characters",
     addressOf(kLongPin.data())},
    {"CPSetProvParam", "input?", NTE_KEYSET_ENTRY_BAD,
     "CPSetProvParam - Token password validation failed : 73", addressOf("12")},
    {"CPSetProvParam of the RNG", "input?", kInvalid, ": NULL data for PP_USE_HARDWARE_RNG"},
    {"CPGenRandom of 7", "size", kInvalid, ": invalid buffer or length, cbLen=0"},
    {"CPGenRandom of 7", "data", kInvalid, ": invalid buffer or length, cbLen=7"},
    {"CPGenRandom of 7", "~generateRamdomNumber", kFailed, "Random number generation failed: 7"},

    {"CPGenKey", "handle", kInvalid, ": phKey is NULL"},
    {"CPGenKey", "context", NTE_BAD_UID, "Invalid CSP context"},
    {"CPGenKey", "choice", NTE_BAD_ALGID, "Unsupported algorithm26128", CALG_AES_256},
    // Only an algorithm has a default length; a key specification has none: deliberate.
    {"CPGenKey", "choice=2+flags", NTE_BAD_LEN, "Unsupported Length2", 0xFFFF},
    {"CPGenKey", "flags", NTE_BAD_LEN, "Unsupported Length1", 0xFFFF},
    {"CPGenKey", "!silent", NTE_SILENT_CONTEXT, kSilent + "CPGenKey" + kNotEnsured},
    {"CPGenKey", "!pin", NTE_FAIL, kNotTyped + "CPGenKey" + kNotEnsured},
    {"CPGenKey", "flags", NTE_BAD_LEN, ": RSA-1024 key generation" + kWeakKey, 1 << 16},
    {"CPGenKey", "flags", NTE_BAD_LEN, ": RSA-1024 key generation" + kWeakKey, 1024 << 16},
    {"CPGenKey", "~generateKeyPair", kStorageFull, "RSA Keypair Generation Failed, code=7"},
    {"CPGetUserKey", "handle", NTE_BAD_KEY, ": phUserKey or hProv is null"},
    {"CPGetUserKey", "!context", NTE_BAD_UID, ": context is not initialized"},
    {"CPGetUserKey", "~getKeyPairList", NTE_NO_KEY, ": key list is empty"},
    {"CPGetUserKey", "choice", NTE_BAD_KEY,
     ": requested key not found, dwKeySpec=3 container=" + kContainer + ", return FALSE", 3},
    {"CPGetKeyParam", "choice", NTE_BAD_TYPE, ": unsupported dwParam=1, return FALSE", KP_IV},
    {"CPGetKeyParam", "length", kInvalid, kNullLength},
    {"KP_CERTIFICATE", "length", kInvalid, "CPGetKeyParam" + kNullLength},
    {"KP_CERTIFICATE", "~findCertificateForKey", NTE_NOT_FOUND,
     "CPGetKeyParam: KP_CERTIFICATE not found, return FALSE"},
    {"CPSetKeyParam KP_CERTIFICATE", "input?", kInvalid, ": KP_CERTIFICATE pbData is null"},
    {"CPSetKeyParam KP_CERTIFICATE", "!silent", NTE_FAIL, kNoDialog + kNoCertificateLogin},
    {"CPSetKeyParam KP_CERTIFICATE", "!pin", NTE_FAIL, kCancelled + kNoCertificateLogin},
    {"CPSetKeyParam KP_CERTIFICATE", "~importCertificate", NTE_FAIL, kChain + "0 ret=7" + kNotImported},
    {"CPSetKeyParam KP_CERTIFICATE", "~importCertificate=2", NTE_FAIL, kChain + "1 ret=7" + kNotImported},
    {"CPSetKeyParam of a leaf", "~importCertificate", NTE_FAIL,
     "importCertificateWithChain: leaf import failed ret=7" + kNotImported},
    {"CPDestroyKey", "rsaKey", NTE_BAD_KEY, ": pKeyHandle is NULL"},
    {"CPDeriveKey", "handle", kInvalid, ""},
    {"CPDeriveKey", "!context", NTE_BAD_UID, ""},
    {"CPDeriveKey", "hash", NTE_BAD_HASH, ""},
    {"CPDeriveKey", "choice", NTE_BAD_ALGID, ": unsupported algorithm 0x26625", CALG_RC4},
    {"CPDeriveKey", "~finalHash", NTE_FAIL, ": veltra_finalHash failed"},

    {"CPImportKey PUBLICKEYBLOB", "input", kInvalid, kImport + "Input data is null"},
    {"CPImportKey PUBLICKEYBLOB", "context", NTE_BAD_UID, kImport + "Contest null or not initialised"},
    {"CPImportKey PUBLICKEYBLOB", "handle", kInvalid, kImport + "phKey is null"},
    {"CPImportKey PUBLICKEYBLOB", "size", NTE_BAD_LEN, kImport + "Input data is too long", kTooLong},
    {"CPImportKey PUBLICKEYBLOB", "size", kBadParameter, kImport + "Input data to import is empty", 11},
    {"CPImportKey PUBLICKEYBLOB", "size", kBadParameter, kImport + "Input data to import is empty", 12},
    {"CPExportKey", "choice", NTE_BAD_TYPE, ": unsupported dwBlobType=1", SIMPLEBLOB},
    {"CPExportKey", "choice", ERROR_ACCESS_DENIED, ": PRIVATEKEYBLOB export denied", PRIVATEKEYBLOB},
    {"CPExportKey", "~getKeyPairList", NTE_BAD_KEY, kExport + "key list is empty"},
    {"CPExportKey", "!gone", NTE_BAD_KEY, kExport + "matching key not found in key list"},
    {"CPExportKey", "!ec", NTE_BAD_TYPE,
     kExport + "key algorithm is not RSA, cannot export as PUBLICKEYBLOB"},
    {"CPExportKey", "*length", kMore, kExport + "output buffer too small, required=276", 275},

    {"CPCreateHash", "!context", NTE_BAD_UID, ": context not initialized"},
    {"CPCreateHash", "choice", NTE_BAD_ALGID, ": MD5 blocked (FIPS policy)", CALG_MD5},
    {"CPCreateHash", "choice", NTE_BAD_ALGID, ": SHA-1 blocked (FIPS 140-3 policy)", CALG_SHA1},
    {"CPCreateHash", "choice", NTE_BAD_ALGID, ": unsupported Algid=0x00006610", CALG_AES_256},
    {"CPCreateHash", "~initHash", NTE_FAIL, ": veltra_initHash failed, ret=7"},
    {"CPCreateHash CALG_HMAC", "aesKey", NTE_BAD_KEY, ": CALG_HMAC requires a key handle"},
    {"CPCreateHash with an RSA key", "", NTE_BAD_KEY, ": HMAC key has no symmetric key material"},
    {"CPHashData", "hash", NTE_BAD_HASH, kNullHash},
    {"CPHashData", "input", kInvalid, ": pbData is null"},
    {"CPHashData", "~updateHash", NTE_FAIL, ": veltra_updateHash failed, ret=7"},
    {"CPDuplicateHash", "!context", NTE_BAD_UID, kBadContext},
    {"CPDuplicateHash", "~finalHash", NTE_FAIL, ": veltra_finalHash on source failed, ret=7"},
    {"CPDestroyHash", "hash", NTE_BAD_HASH, kNullHash},
    {"CPHashSessionKey", "hash+rsaKey", ERROR_CALL_NOT_IMPLEMENTED,
     ": not supported, hHash=0 hKey=0 dwFlags=0"},
    {"CPGetHashParam", "choice", NTE_BAD_TYPE, ": unsupported dwParam=0x00000003", 3},
    {"CPGetHashParam", "choice", NTE_BAD_TYPE, ": HP_HMAC_INFO requested but hash is not HMAC", HP_HMAC_INFO},
    {"HP_HASHSIZE of an HMAC", "!info", NTE_BAD_ALGID, "CPGetHashParam: HP_HASHSIZE unsupported mechanism=0"},
    {"HP_HASHVAL of an HMAC", "!info", NTE_BAD_ALGID, "CPGetHashParam: HP_HASHVAL unsupported mechanism=0"},
    {"HP_HASHVAL of an HMAC", "~finalHash", NTE_FAIL, "CPGetHashParam: veltra_finalHash failed, ret=7"},
    {"HP_HASHVAL of an HMAC", "~initHash", NTE_FAIL, kOuter + "veltra_initHash failed, ret=7"},
    {"HP_HASHVAL of an HMAC", "~updateHash", NTE_FAIL, kOuter + "opad update failed, ret=7"},
    {"HP_HASHVAL of an HMAC", "~updateHash=2", NTE_FAIL, kOuter + "inner-result update failed, ret=7"},
    {"HP_HASHVAL of an HMAC", "~finalHash=2", NTE_FAIL, kOuter + "veltra_finalHash failed, ret=7"},
    {"CPSetHashParam", "choice", NTE_BAD_TYPE, ": unsupported dwParam=0x00000004", HP_HASHSIZE},
    {"CPSetHashParam of a digest", "", NTE_BAD_TYPE, ": HP_HMAC_INFO on non-HMAC hash"},
    {"HP_HMAC_INFO", "input", NTE_BAD_ALGID, "CPSetHashParam: unsupported HMAC inner hash 0x00008009",
     addressOf(&kNoDigest)},
    {"HP_HMAC_INFO", "~initHash", NTE_FAIL,
     "CPSetHashParam: veltra_initHash failed for HMAC inner hash, ret=7"},
    {"HP_HMAC_INFO", "~updateHash", NTE_FAIL,
     "CPSetHashParam: veltra_updateHash failed for HMAC ipad, ret=7"},

    {"CPSignHash", "hash", NTE_BAD_HASH, ": hash handle is null"},
    {"CPSignHash", "length", kInvalid, ": pdwSigLen is null"},
    {"CPSignHash", "*length", NTE_BAD_LEN, ": signature buffer length is too large", kTooLong},
    {"CPSignHash", "~finalHash", NTE_FAIL, ": veltra_finalHash failed with ret=7"},
    {"CPSignHash", "!silent", NTE_SILENT_CONTEXT, kSilent + "CPSignHash" + kNotEnsured},
    {"CPSignHash", "!pin", NTE_FAIL, kNotTyped + "CPSignHash" + kNotEnsured},
    {"CPSignHash", "!weak", NTE_BAD_KEY, ": RSA-1024 signing" + kWeakKey},
    {"CPVerifySignature", "context", NTE_BAD_UID, "CSP Context Not Initialized"},
    {"CPVerifySignature", "hash", NTE_BAD_HASH, "Hash Context is not Initialized"},
    {"CPVerifySignature", "input", kInvalid, ": pbSignature is null"},
    {"CPVerifySignature", "size", NTE_BAD_LEN, ": signature length is too large", kTooLong},
    {"CPVerifySignature", "~finalHash", NTE_BAD_HASH,
     "CPGetHashParam: veltra_finalHash failed, ret=7" + kNoValue + "value"},
    {"CPVerifySignature", "size", NTE_BAD_SIGNATURE, "VERIFY SIGNATURE FAILED :: 75", 1},
    {"CPVerifySignature of an HMAC", "!info", NTE_BAD_HASH,
     "CPGetHashParam: HP_HASHVAL unsupported mechanism=0" + kNoValue + "size"},

    {"CPEncrypt RSA", "capacity", kMore, ": buffer too small, cbBufLen=255 requiredSize=256", 255},
    {"CPEncrypt RSA", "*length", NTE_BAD_LEN, "Invalid data length for encrypt: 0"},
    {"CPEncrypt RSA", "capacity+*length", NTE_BAD_LEN, "Invalid data length for encrypt: 2147483648",
     kTooLong},
    {"CPEncrypt RSA", "*length", NTE_BAD_LEN, "Invalid data length for encrypt: 8193", 8193},
    {"CPEncrypt RSA", "~encrypt", kFailed, "Encrypt data failed: 7"},
    {"CPEncrypt AES", "~encrypt_aes", kFailed, ": symmetric encryption failed: 7"},
    {"CPEncrypt AES", "capacity", kMore, ": symmetric output buffer too small, required=32", 31},
    {"CPDecrypt RSA", "inOut", kInvalid, kNullLength},
    {"CPDecrypt RSA", "*inOut", NTE_BAD_DATA, "Invalid data length for decrypt : 0"},
    {"CPDecrypt RSA", "data", NTE_BAD_DATA, "Invalid data length for decrypt : 2147483648"},
    {"CPDecrypt RSA", "*inOut", NTE_BAD_LEN, ": data is too long : 2147483648", kTooLong},
    {"CPDecrypt RSA", "flags", NTE_BAD_FLAGS,
     ": PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)"},
    {"CPDecrypt RSA", "!silent", NTE_SILENT_CONTEXT, kSilent + "CPDecrypt" + kNotEnsured},
    {"CPDecrypt RSA", "!pin", NTE_FAIL, kNotTyped + "CPDecrypt" + kNotEnsured},
    {"CPDecrypt RSA", "~decrypt", kFailed, "Decrypt data failed : 7"},
    {"CPDecrypt AES", "~decrypt_aes", kFailed, "Symmetric decryption failed : 7"},

    {"KSPOpenProvider", "handle", kBadParameter, ": phProvider is null"},
    {"KSPFreeProvider", "provider", kBadHandle, ": provider handle is null"},
    {"KSPOpenKey", "handle", kBadParameter, ": phKey is null"},
    {"KSPCreatePersistedKey", "handle text", kBadParameter, ": phKey or pszAlgId is null"},
    {"KSPGetKeyProperty Name", "cngEcKey", kBadHandle, ": key handle is null"},
    {"KSPGetProviderProperty Name/KSPGetKeyProperty Name", "text length", kBadParameter,
     ": pszProperty or pcbResult is null"},
    {"KSPSetKeyProperty SmartCardPin/KSPDeleteKey/KSPVerifySignature", "cngRsaKey", kBadHandle,
     ": key handle is null"},
    {"KSPSetProviderProperty SmartCardPin/KSPSetKeyProperty SmartCardPin", "text", kBadParameter,
     ": pszProperty is null"},
    {"KSPSetProviderProperty SmartCardPin/KSPSetKeyProperty SmartCardPin", "input", kBadParameter,
     ": NCRYPT_PIN_PROPERTY pbInput is null"},
    {"KSPSetKeyProperty SmartCardKeyCertificate", "input size", kBadParameter,
     ": NCRYPT_CERTIFICATE_PROPERTY pbInput is null or empty"},
    {"KSPSetKeyProperty SmartCardKeyCertificate", "size=3073", kBadParameter,
     ": NCRYPT_CERTIFICATE_PROPERTY cbInput is too large"},
    {"KSPFinalizeKey", "newKey", kBadHandle, ": key handle is null"},
    {"KSPEncrypt RSA/KSPDecrypt RSA/KSPSignHash", "cngRsaKey length", kBadParameter,
     ": key handle or pcbResult is null"},
    {"KSPEncrypt RSA/KSPEncrypt AES/KSPDecrypt RSA/KSPDecrypt AES", "input size", kBadParameter,
     ": pbInput is null or cbInput is zero"},
    {"KSPSignHash", "input? size", kBadParameter, ": pbHashValue is null or cbHashValue is zero"},
    {"KSPEncrypt RSA", "capacity=255", NTE_BUFFER_TOO_SMALL, ": output buffer too small, required=256"},
    {"KSPSignHash", "capacity=255", NTE_BUFFER_TOO_SMALL, ": signature buffer too small, required=256"},
    {"KSPIsAlgSupported", "text", kBadParameter, ": pszAlgId is null"},
    {"KSPEnumAlgorithms", "count handle", kBadParameter, ": pdwAlgCount or ppAlgList is null"},
    {"KSPEnumKeys", "handle second", kBadParameter, ": ppKeyName or ppEnumState is null"},
    {"KSPImportKey KeyDataBlob", "text input handle", kBadParameter, ": invalid parameters"},
    {"KSPExportKey", "cngRsaKey text length", kBadParameter,
     ": key handle, pszBlobType, or pcbResult is null"},
    {"KSPVerifySignature", "input hashSize size", kBadParameter, ": invalid input parameters"},
    {"KSPVerifySignature", "hashSize=2147483648 size=2147483648", kBadParameter, kLong},
    {"KSPEncrypt RSA/KSPSignHash", "size=2147483648 capacity=2147483648", kBadParameter, kLong},
    {"KSPEncrypt AES/KSPImportKey KeyDataBlob", "size=2147483648", kBadParameter, kLong},
    // The library adds a block.
    {"KSPDecrypt RSA/KSPDecrypt AES", "size=2147483632", kBadParameter, kLong},
    {"KSPNotifyChangeKey", "handle?", NTE_NOT_SUPPORTED, ": not supported"},
    {"KSPSecretAgreement", "provider", kBadHandle, ": provider not initialized"},
    {"KSPSecretAgreement", "handle", kBadParameter, ": phAgreedSecret is null"},
    {"KSPSecretAgreement", "cngEcKey", kBadHandle, ": key handle is null"},
    {"KSPDeriveKey", "secret length", kBadParameter, ": invalid parameter"},
    {"GetKeyStorageInterface", "second", kBadParameter, ": ppFunctionTable is null"},
};

/// Of all calls that take a provider and say nothing else of it.
const Refusal kNoProvider = {"", "provider", kBadHandle, ": provider handle is null or not initialized"};

/// The working calls, and some that are only refused.
std::vector<WorkingCall> calls() {
    std::vector<WorkingCall> all = cspCalls();
    std::ranges::copy(cngCalls(), std::back_inserter(all));
    const auto mapContainer = [](World& w) { writeContainerValue(w.token.serial, w.container); };
    const Bytes leaf = ScriptedDeviceLibrary::fakeCertificate("C", "CN=CA", "CN=C");
    all.insert(all.end(),
               {{"CPAcquireContext, silent", CPAcquireContext, "handle serial? =80 data", mapContainer},
                {"CPReleaseContext with flags", CPReleaseContext, "context flags"},
                {"CPSetProvParam of the RNG", CPSetProvParam, "context =38 input? flags"},
                {"CPGetProvParam of no chain", CPGetProvParam, "context =9 data? length flags"},
                {"CPSetKeyParam of a leaf", CPSetKeyParam, "context rsaKey =26 input flags", leaf},
                {"CPGenRandom of 7", CPGenRandom, "context size data", Bytes(7)},
                {"CPCreateHash with an RSA key", CPCreateHash, "context =32777 rsaKey flags handle"},
                {"CPSetHashParam of a digest", CPSetHashParam, "context hash =5 data flags"},
                {"CPVerifySignature of an HMAC", CPVerifySignature, "context hmac data =1 =0 text? flags"}});
    return all;
}

class RefusalsTest : public ProviderTest {
protected:
    void apply(std::string words, std::uintptr_t value, const WorkingCall& call, World& world,
               Values& values) {
        std::ranges::replace(words, '+', ' ');
        for (const Argument& word : argumentsOf(words)) {
            if (word.name == "!context") liveContext(world.context)->initialised = 0;
            if (word.name == "!silent") liveContext(world.context)->silent = 1;
            if (word.name == "!pin") storePin(world.token.serial, Pin());
            if (word.name == "!weak") world.token.keyPairs[0].keyType = kKeyTypeRsa1024;
            if (word.name == "!ec") world.token.keyPairs[0].keyType = kKeyTypeEcP256;
            if (word.name == "!gone") world.token.keyPairs[0].keyId[15] ^= 1;
            if (word.name == "!info") liveHash(world.hmac)->mechanism = 0;
            if (word.name.starts_with('~'))
                library.script("veltra_" + word.name.substr(1),
                               {.result = 7, .onCall = static_cast<int>(word.value)});
            if (word.name[0] == '*') world.out.length = static_cast<DWORD>(value);
            for (std::size_t i = 0; i < values.size(); ++i)
                if (call.arguments[i].name == word.name && call.arguments[i].isOptional == word.isOptional)
                    values[i] = word.value != 0 ? word.value : value;
        }
    }

    /// Expects the first of the refusals, with these of its words and with what the later ones say.
    void expectFirst(const std::vector<Refusal>& refusals, const std::string& words,
                     const WorkingCall& call) {
        const Refusal& first = refusals.front();
        SCOPED_TRACE(concat(call.name, ", ", words, ", ", first.errors));
        World world(freshName("Token"));
        call.prepare(world);
        world.resetOutput();
        Values values = call.valuesIn(world, call.choices[0]);
        for (std::size_t n = refusals.size(); n-- > 1;)
            apply(std::string(refusals[n].arguments), refusals[n].value, call, world, values);
        apply(words, first.value, call, world, values);
        ScriptedPinPrompt user;
        setPinPrompt(&user);
        Output untouched = world.out;
        const std::string mapped = readContainerValue(world.token.serial);
        const std::string entryPoint(call.name, std::strcspn(call.name, " ,"));
        library.clearCalls();
        DWORD code = 0;
        EXPECT_EQ(run([&] { return (code = call.invoke(values)) == 0; }).errors,
                  linesOf((first.errors.starts_with(':') ? entryPoint : "") + first.errors));
        EXPECT_EQ(code, static_cast<DWORD>(first.code));
        if (code == kMore || first.code == NTE_BUFFER_TOO_SMALL) {
            EXPECT_THAT(first.errors, testing::EndsWith(concat("=", world.out.length)));
            untouched.length = world.out.length;
        }
        EXPECT_EQ(world.out, untouched) << "nothing is handed out";
        EXPECT_TRUE(call.failureOf == failureByLastError || library.calls().empty()) << "CNG checks first";
        EXPECT_EQ(user.seen().size(), first.errors.starts_with(kCancelled) ? 1u : 0u);
        EXPECT_EQ(readContainerValue(world.token.serial), mapped) << "a container loses no key";
        EXPECT_THAT(getPin(world.token.serial).view(), testing::AnyOf("", World::kPin));
    }
};

TEST_F(RefusalsTest, ComeInTheOrderOfTheChecks) {
    std::ptrdiff_t rows = 0, wanted = 0;
    for (const Refusal& row : kRefusals)
        wanted += 1 + std::ranges::count(row.calls, '/');
    for (const WorkingCall& call : calls()) {
        std::vector<Refusal> refusals;
        for (const Refusal& row : kRefusals)
            if (concat("/", row.calls, "/").find(concat("/", call.name, "/")) != std::string::npos)
                refusals.push_back(row);
        rows += std::ssize(refusals);
        const bool takesProvider = std::ranges::any_of(call.arguments, [](const Argument& argument) {
            return argument.name == "provider" && !argument.isOptional;
        });
        if (takesProvider && (refusals.empty() || refusals[0].arguments != "provider"))
            refusals.insert(refusals.begin(), kNoProvider);
        for (; !refusals.empty(); refusals.erase(refusals.begin())) {
            std::istringstream alternatives{std::string(refusals[0].arguments)};
            std::string words;
            alternatives >> words; // none is one, too
            do
                expectFirst(refusals, words, call);
            while (alternatives >> words);
        }
    }
    EXPECT_EQ(rows, wanted) << "a row of no call";
}

} // namespace
} // namespace veltra::test
