// What the CP* functions refuse, each in the order of its checks: the code, and the line in the log. Where it
// can, a call would be refused by the checks that follow as well.

#include "support/both_front_ends.h"
#include "support/provider_test.h"

#include "csp/provider_context.h"
#include "foundation/text.h"
#include "token/device_state.h"

#include <climits>
#include <deque>
#include <tuple>

namespace veltra::test {
namespace {

constexpr DWORD kInvalid = ERROR_INVALID_PARAMETER;
constexpr DWORD kTooLong = INT_MAX + 1u;
const std::string kNullContext = ": context is null or not initialized";
const std::string kBadContext = ": invalid or uninitialized context";
const std::string kNullKey = ": key handle is null";
const std::string kNullHash = ": pHashHandle is NULL";
const std::string kNullLength = ": pdwDataLen is null";
const std::string kBadFlags = ": invalid dwFlags=0x00000001";
const std::string kInvalidParameter = ": invalid parameter - ";
const std::string kWeakKey = " not allowed \xE2\x80\x94 key size below 112-bit security strength";

class CspRefusalsTest : public ProviderTest {
protected:
    CspRefusalsTest() {
        world.input = Bytes(16, 'S');
        world.resetOutput();
    }
    ~CspRefusalsTest() override { EXPECT_EQ(world.out.handle, 0u) << "a refusal hands out no handle"; }

    /// Expects calls of `function` to be refused: their arguments, the code and the error lines. An error
    /// that begins with a colon goes behind the function's name. `failing`: the function of the library that
    /// fails, with code 7, on this call of it.
    template <class... Parameters>
    auto refusing(const char* name, BOOL(WINAPI* function)(Parameters...)) {
        return [=, this](const std::tuple<Parameters...>& arguments, std::int64_t code,
                         const std::string& error, const char* failing = nullptr, int onCall = 1) {
            if (failing != nullptr) library.script(failing, {.result = 7, .onCall = onCall});
            const auto call = [&](auto... each) { return run(function, each...); };
            EXPECT_EQ(
                std::apply(call, arguments),
                refused(static_cast<DWORD>(code), linesOf((error.starts_with(':') ? name : "") + error)));
            library.clearScripts();
        };
    }
    /// The application's variable for a length.
    DWORD* variable(DWORD value) { return &variables_.emplace_back(value); }
    BOOL setHmacInfo(ALG_ID algorithm) {
        const HMAC_INFO info{algorithm, nullptr, 0, nullptr, 0};
        return CPSetHashParam(context, hmac, HP_HMAC_INFO, reinterpret_cast<const BYTE*>(&info), 0);
    }

    BothFrontEnds world{freshName("Token")};
    const HCRYPTPROV context = world.context;
    const HCRYPTKEY rsaKey = world.rsaKey, aesKey = world.aesKey;
    const HCRYPTHASH hash = world.hash, hmac = world.hmac;
    ULONG_PTR* const out = &world.out.handle;
    BYTE* const data = world.data();
    DWORD* const length = &world.out.length;

private:
    std::deque<DWORD> variables_;
};

TEST_F(CspRefusalsTest, OfTheProvider) {
    const auto acquire = refusing("CPAcquireContext", CPAcquireContext);
    acquire({nullptr, "x", CRYPT_DELETEKEYSET, world.table}, kInvalid,
            concat(kInvalidParameter, "phProv=0 pVTable=", world.table));
    acquire({out, "x", 0, nullptr}, kInvalid, concat(kInvalidParameter, "phProv=", out, " pVTable=0"));
    const auto release = refusing("CPReleaseContext", CPReleaseContext);
    release({context, 0xABCDEF}, NTE_BAD_FLAGS, ": invalid dwFlags=0x00ABCDEF");
    release({rsaKey, 0}, NTE_BAD_UID, kBadContext);
    const auto get = refusing("CPGetProvParam", CPGetProvParam);
    get({0, 7, nullptr, nullptr, 0}, NTE_BAD_UID, kNullContext);
    get({context, 7, nullptr, nullptr, 0}, kInvalid, kNullLength);
    get({context, 7, nullptr, length, 0}, NTE_BAD_TYPE, ": unsupported dwParam=7");
    const auto set = refusing("CPSetProvParam", CPSetProvParam);
    const auto text = [](const auto& characters) { return reinterpret_cast<const BYTE*>(&characters[0]); };
    set({0, 7, nullptr, 0}, NTE_BAD_UID, kNullContext);
    set({context, MAXDWORD, nullptr, 0}, NTE_BAD_TYPE, ": unsupported dwParam=4294967295");
    set({context, PP_USE_HARDWARE_RNG, nullptr, 0}, kInvalid, ": NULL data for PP_USE_HARDWARE_RNG");
    set({context, PP_KEYEXCHANGE_PIN, nullptr, 0}, kInvalid, ": NULL PIN data");
    set({context, PP_SIGNATURE_PIN, text(std::string(256, '1')), 0}, NTE_KEYSET_ENTRY_BAD,
        ": PIN is longer than 255 characters");
    set({context, PP_KEYEXCHANGE_PIN, text("12"), 0}, NTE_KEYSET_ENTRY_BAD,
        "CPSetProvParam - Token password validation failed : 73");
    EXPECT_STREQ(getPin(world.token.serial).c_str(), BothFrontEnds::kPin);
    const auto random = refusing("CPGenRandom", CPGenRandom);
    random({0, 0, nullptr}, NTE_BAD_UID, kNullContext);
    random({context, 0, data}, kInvalid, ": invalid buffer or length, cbLen=0");
    random({context, 7, nullptr}, kInvalid, ": invalid buffer or length, cbLen=7");
    random({context, 7, data}, NTE_PROVIDER_DLL_FAIL, "Random number generation failed: 7",
           "veltra_generateRamdomNumber");
}

TEST_F(CspRefusalsTest, OfKeys) {
    // Only an algorithm has a default length; a key specification has none: deliberate.
    const auto generate = refusing("CPGenKey", CPGenKey);
    generate({0, CALG_AES_256, 0, nullptr}, kInvalid, ": phKey is NULL");
    generate({0, CALG_AES_256, 0, out}, NTE_BAD_UID, "Invalid CSP context");
    generate({context, CALG_AES_256, 0, out}, NTE_BAD_ALGID, "Unsupported algorithm26128");
    generate({context, AT_SIGNATURE, 0xFFFF, out}, NTE_BAD_LEN, "Unsupported Length2");
    for (const DWORD bits : {1, 1024})
        generate({context, CALG_RSA_SIGN, bits << 16, out}, NTE_BAD_LEN,
                 ": RSA-1024 key generation" + kWeakKey);
    generate({context, CALG_RSA_SIGN, 0, out}, NTE_TOKEN_KEYSET_STORAGE_FULL,
             "RSA Keypair Generation Failed, code=7", "veltra_generateKeyPair");
    const auto open = refusing("CPGetUserKey", CPGetUserKey);
    open({context, 3, nullptr}, NTE_BAD_KEY, ": phUserKey or hProv is null");
    open({context, 3, out}, NTE_NO_KEY, ": key list is empty", "veltra_getKeyPairList");
    open({context, 3, out}, NTE_BAD_KEY,
         ": requested key not found, dwKeySpec=3 container=" + world.container + ", return FALSE");
    const auto get = refusing("CPGetKeyParam", CPGetKeyParam);
    get({0, 0, KP_IV, nullptr, nullptr, 0}, NTE_BAD_UID, kNullContext);
    get({context, 0, KP_IV, nullptr, nullptr, 0}, NTE_BAD_KEY, kNullKey);
    get({context, rsaKey, KP_IV, nullptr, nullptr, 0}, NTE_BAD_TYPE, ": unsupported dwParam=1, return FALSE");
    for (const DWORD parameter : {KP_MODE, KP_CERTIFICATE})
        get({context, rsaKey, parameter, nullptr, nullptr, 0}, kInvalid, kNullLength);
    const auto set = refusing("CPSetKeyParam", CPSetKeyParam);
    set({0, 0, KP_MODE, nullptr, 0}, NTE_BAD_UID, kNullContext);
    set({context, 0, KP_MODE, nullptr, 0}, NTE_BAD_KEY, kNullKey);
    set({context, rsaKey, KP_CERTIFICATE, nullptr, 0}, kInvalid, ": KP_CERTIFICATE pbData is null");
    const auto destroy = refusing("CPDestroyKey", CPDestroyKey);
    destroy({0, 0}, NTE_BAD_UID, kBadContext);
    destroy({context, context}, NTE_BAD_KEY, ": pKeyHandle is NULL");
    const auto derive = refusing("CPDeriveKey", CPDeriveKey);
    derive({0, CALG_RC4, 0, 0, out}, kInvalid, "");
    derive({context, CALG_RC4, 0, 0, out}, NTE_BAD_HASH, "");
    derive({context, CALG_RC4, hash, 0, out}, NTE_BAD_ALGID, ": unsupported algorithm 0x26625");
    derive({context, CALG_AES_128, hash, 0, out}, NTE_FAIL, ": veltra_finalHash failed", "veltra_finalHash");
    const auto importKey = refusing("CPImportKey", CPImportKey);
    importKey({0, nullptr, 0, 0, 0, nullptr}, kInvalid, "CPImportKey - Input data is null");
    importKey({0, data, 0, 0, 0, nullptr}, NTE_BAD_UID, "CPImportKey - Contest null or not initialised");
    importKey({context, data, 0, 0, 0, nullptr}, kInvalid, "CPImportKey - phKey is null");
    importKey({context, data, kTooLong, 0, 0, out}, NTE_BAD_LEN, "CPImportKey - Input data is too long");
}

TEST_F(CspRefusalsTest, OfExports) {
    const auto exportKey = refusing("CPExportKey", CPExportKey);
    const std::string start = "ExportPublicKeyComponents: ";
    exportKey({0, rsaKey, 0, SIMPLEBLOB, 0, data, nullptr}, kInvalid, ": hKey or pcbData is null");
    exportKey({0, rsaKey, 0, SIMPLEBLOB, 0, data, length}, NTE_BAD_UID, kNullContext);
    exportKey({context, rsaKey, 0, SIMPLEBLOB, 0, data, length}, NTE_BAD_TYPE, ": unsupported dwBlobType=1");
    exportKey({context, rsaKey, 0, PRIVATEKEYBLOB, 0, data, length}, ERROR_ACCESS_DENIED,
              ": PRIVATEKEYBLOB export denied");
    world.token.keyPairs[0].keyType = kKeyTypeEcP256;
    exportKey({context, rsaKey, 0, PUBLICKEYBLOB, 0, data, length}, NTE_BAD_TYPE,
              start + "key algorithm is not RSA, cannot export as PUBLICKEYBLOB");
    world.token.keyPairs[0].keyId[15] ^= 1;
    exportKey({context, rsaKey, 0, PUBLICKEYBLOB, 0, data, length}, NTE_BAD_KEY,
              start + "matching key not found in key list");
    world.token.keyPairs.clear();
    exportKey({context, rsaKey, 0, PUBLICKEYBLOB, 0, data, length}, NTE_BAD_KEY, start + "key list is empty");
}

TEST_F(CspRefusalsTest, OfHashes) {
    const auto create = refusing("CPCreateHash", CPCreateHash);
    create({context, CALG_MD5, 0, 1, nullptr}, kInvalid,
           concat(kInvalidParameter, "phHash=0 hProv=", context));
    create({context, CALG_MD5, 0, 1, out}, NTE_BAD_FLAGS, kBadFlags);
    create({context, CALG_MD5, 0, 0, out}, NTE_BAD_ALGID, ": MD5 blocked (FIPS policy)");
    create({context, CALG_SHA1, 0, 0, out}, NTE_BAD_ALGID, ": SHA-1 blocked (FIPS 140-3 policy)");
    create({context, CALG_HMAC, context, 0, out}, NTE_BAD_KEY, ": CALG_HMAC requires a key handle");
    create({context, CALG_HMAC, rsaKey, 0, out}, NTE_BAD_KEY, ": HMAC key has no symmetric key material");
    create({context, CALG_AES_256, 0, 0, out}, NTE_BAD_ALGID, ": unsupported Algid=0x00006610");
    create({context, CALG_SHA_512, 0, 0, out}, NTE_FAIL, ": veltra_initHash failed, ret=7",
           "veltra_initHash");
    const auto feed = refusing("CPHashData", CPHashData);
    feed({0, 0, nullptr, 1, 0}, NTE_BAD_UID, kBadContext);
    feed({context, context, nullptr, 1, 0}, NTE_BAD_HASH, kNullHash);
    feed({context, hash, nullptr, 1, 0}, kInvalid, ": pbData is null");
    feed({context, hash, data, 1, 0}, NTE_FAIL, ": veltra_updateHash failed, ret=7", "veltra_updateHash");
    const auto duplicate = refusing("CPDuplicateHash", CPDuplicateHash);
    duplicate({context, hash, nullptr, 1, nullptr}, kInvalid,
              concat(kInvalidParameter, "phHash=0 hProv=", context, " hHash=", hash));
    duplicate({context, hash, nullptr, 1, out}, NTE_BAD_FLAGS, kBadFlags);
    duplicate({context, hash, nullptr, 0, out}, NTE_FAIL, ": veltra_finalHash on source failed, ret=7",
              "veltra_finalHash");
    const auto destroy = refusing("CPDestroyHash", CPDestroyHash);
    destroy({0, 0}, NTE_BAD_UID, kBadContext);
    destroy({context, context}, NTE_BAD_HASH, kNullHash);
    refusing("CPHashSessionKey", CPHashSessionKey)({0, 7, 8, MAXDWORD}, ERROR_CALL_NOT_IMPLEMENTED,
                                                   ": not supported, hHash=7 hKey=8 dwFlags=4294967295");
}

TEST_F(CspRefusalsTest, OfHashParameters) {
    HCRYPTHASH notSetUp = 0;
    ASSERT_TRUE(CPCreateHash(context, CALG_HMAC, aesKey, 0, &notSetUp));
    const auto get = refusing("CPGetHashParam", CPGetHashParam);
    get({context, hash, 3, data, nullptr, 1}, kInvalid,
        concat(kInvalidParameter, "hProv=", context, " hHash=", hash, " pcbDataLen=0"));
    get({context, hash, 3, data, length, 1}, NTE_BAD_FLAGS, kBadFlags);
    get({context, hash, 3, data, length, 0}, NTE_BAD_TYPE, ": unsupported dwParam=0x00000003");
    get({context, hash, HP_HMAC_INFO, data, length, 0}, NTE_BAD_TYPE,
        ": HP_HMAC_INFO requested but hash is not HMAC");
    get({context, notSetUp, HP_HASHVAL, data, length, 0}, NTE_BAD_ALGID,
        ": HP_HASHVAL unsupported mechanism=0");
    get({context, notSetUp, HP_HASHSIZE, data, length, 0}, NTE_BAD_ALGID,
        ": HP_HASHSIZE unsupported mechanism=0");
    const auto getValue = [&](const std::string& error, const char* failing, int onCall) {
        ASSERT_TRUE(setHmacInfo(CALG_SHA_256));
        get({context, hmac, HP_HASHVAL, data, length, 0}, NTE_FAIL, error + " failed, ret=7", failing,
            onCall);
    };
    getValue(": veltra_finalHash", "veltra_finalHash", 1);
    getValue(": HMAC outer veltra_initHash", "veltra_initHash", 1);
    getValue(": HMAC outer opad update", "veltra_updateHash", 1);
    getValue(": HMAC outer inner-result update", "veltra_updateHash", 2);
    getValue(": HMAC outer veltra_finalHash", "veltra_finalHash", 2);
    const auto set = refusing("CPSetHashParam", CPSetHashParam);
    set({context, hash, 3, nullptr, 1}, kInvalid,
        concat(kInvalidParameter, "hProv=", context, " hHash=", hash, " pbData=0"));
    set({context, hash, 3, data, 1}, NTE_BAD_FLAGS, kBadFlags);
    set({context, hash, HP_HASHSIZE, data, 0}, NTE_BAD_TYPE, ": unsupported dwParam=0x00000004");
    set({context, hash, HP_HMAC_INFO, data, 0}, NTE_BAD_TYPE, ": HP_HMAC_INFO on non-HMAC hash");
    HMAC_INFO info{CALG_HMAC, nullptr, 0, nullptr, 0};
    const auto* const bytes = reinterpret_cast<const BYTE*>(&info);
    set({context, hmac, HP_HMAC_INFO, bytes, 0}, NTE_BAD_ALGID, ": unsupported HMAC inner hash 0x00008009");
    info.HashAlgid = CALG_SHA_512;
    set({context, hmac, HP_HMAC_INFO, bytes, 0}, NTE_FAIL,
        ": veltra_initHash failed for HMAC inner hash, ret=7", "veltra_initHash");
    set({context, hmac, HP_HMAC_INFO, bytes, 0}, NTE_FAIL, ": veltra_updateHash failed for HMAC ipad, ret=7",
        "veltra_updateHash");
    const auto verify = refusing("CPVerifySignature", CPVerifySignature);
    const std::string end = "\nCPGetHashParam failed to get hash ";
    verify({context, notSetUp, data, 1, 0, nullptr, 0}, NTE_BAD_HASH,
           "CPGetHashParam: HP_HASHVAL unsupported mechanism=0" + end + "size");
    verify({context, hash, data, 1, 0, nullptr, 0}, NTE_BAD_HASH,
           "CPGetHashParam: veltra_finalHash failed, ret=7" + end + "value", "veltra_finalHash");
    CPDestroyHash(context, notSetUp);
}

TEST_F(CspRefusalsTest, OfSignatures) {
    const auto sign = refusing("CPSignHash", CPSignHash);
    sign({0, 0, 1, nullptr, 0, data, nullptr}, NTE_BAD_UID, kNullContext);
    sign({context, 0, 1, nullptr, 0, data, nullptr}, NTE_BAD_HASH, ": hash handle is null");
    sign({context, hash, 1, nullptr, 0, data, nullptr}, kInvalid, ": pdwSigLen is null");
    sign({context, hash, 1, nullptr, 0, data, variable(kTooLong)}, NTE_BAD_LEN,
         ": signature buffer length is too large");
    sign({context, hash, 1, nullptr, 0, data, length}, NTE_FAIL, ": veltra_finalHash failed with ret=7",
         "veltra_finalHash");
    const auto verify = refusing("CPVerifySignature", CPVerifySignature);
    verify({0, 0, nullptr, 1, 0, nullptr, 0}, NTE_BAD_UID, "CSP Context Not Initialized");
    verify({context, 0, nullptr, 1, 0, nullptr, 0}, NTE_BAD_HASH, "Hash Context is not Initialized");
    verify({context, hash, nullptr, 1, 0, nullptr, 0}, kInvalid, ": pbSignature is null");
    verify({context, hash, data, kTooLong, 0, nullptr, 0}, NTE_BAD_LEN, ": signature length is too large");
    verify({context, hash, data, 1, rsaKey, nullptr, 0}, NTE_BAD_SIGNATURE, "VERIFY SIGNATURE FAILED :: 75");
}

TEST_F(CspRefusalsTest, OfEncryption) {
    const auto encrypt = refusing("CPEncrypt", CPEncrypt);
    encrypt({0, 0, 0, TRUE, 0, data, nullptr, 255}, kInvalid, ": pcbDataLen is null");
    encrypt({0, 0, 0, TRUE, 0, data, variable(0), 255}, NTE_BAD_UID, kNullContext);
    encrypt({context, 0, 0, TRUE, 0, data, variable(0), 255}, NTE_BAD_KEY, kNullKey);
    encrypt({context, rsaKey, 0, TRUE, 0, data, variable(0), 255}, ERROR_MORE_DATA,
            ": buffer too small, cbBufLen=255 requiredSize=256");
    for (const DWORD size : {DWORD{0}, DWORD{257}, kTooLong})
        encrypt({context, rsaKey, 0, TRUE, 0, data, variable(size), size == kTooLong ? MAXDWORD : 256},
                NTE_BAD_LEN, concat("Invalid data length for encrypt: ", size));
    encrypt({context, rsaKey, 0, TRUE, 0, data, variable(3), 256}, NTE_PROVIDER_DLL_FAIL,
            "Encrypt data failed: 7", "veltra_encrypt");
    encrypt({context, aesKey, 0, TRUE, 0, data, variable(3), 16}, NTE_PROVIDER_DLL_FAIL,
            ": symmetric encryption failed: 7", "veltra_encrypt_aes");
    encrypt({context, aesKey, 0, TRUE, 0, data, variable(16), 16}, ERROR_MORE_DATA,
            ": symmetric output buffer too small, required=32");
    const auto decrypt = refusing("CPDecrypt", CPDecrypt);
    decrypt({0, 0, 0, TRUE, 0, nullptr, nullptr}, NTE_BAD_UID, kNullContext);
    decrypt({context, context, 0, TRUE, 0, nullptr, nullptr}, NTE_BAD_KEY, kNullKey);
    decrypt({context, rsaKey, 0, TRUE, 0, nullptr, nullptr}, kInvalid, kNullLength);
    decrypt({context, rsaKey, 0, TRUE, 0, nullptr, variable(9)}, NTE_BAD_DATA,
            "Invalid data length for decrypt : 9");
    decrypt({context, rsaKey, 0, TRUE, 0, data, variable(0)}, NTE_BAD_DATA,
            "Invalid data length for decrypt : 0");
    decrypt({context, rsaKey, 0, TRUE, 0, data, variable(kTooLong)}, NTE_BAD_LEN,
            ": data is too long : 2147483648");
    decrypt({context, rsaKey, 0, TRUE, 0, data, variable(256)}, NTE_BAD_FLAGS,
            ": PKCS#1 v1.5 padding not allowed on FIPS 140-3 token (OAEP required)");
    decrypt({context, rsaKey, 0, TRUE, CRYPT_OAEP, data, variable(256)}, NTE_PROVIDER_DLL_FAIL,
            "Decrypt data failed : 7", "veltra_decrypt");
    decrypt({context, aesKey, 0, TRUE, 0, data, variable(16)}, NTE_PROVIDER_DLL_FAIL,
            "Symmetric decryption failed : 7", "veltra_decrypt_aes");
    EXPECT_EQ(Bytes(data, data + 16), world.input) << "nothing is copied";
}

// What nobody hands out.
TEST_F(CspRefusalsTest, OfAContextThatIsNotSetUp) {
    liveContext(context)->initialised = 0;
    const std::string neither = ": context not initialized or hash not valid";
    refusing("CPReleaseContext", CPReleaseContext)({context, 0}, NTE_BAD_UID, kBadContext);
    refusing("CPGetUserKey", CPGetUserKey)({context, 3, out}, NTE_BAD_UID, ": context is not initialized");
    refusing("CPDeriveKey", CPDeriveKey)({context, CALG_RC4, 0, 0, out}, NTE_BAD_UID, "");
    refusing("CPCreateHash", CPCreateHash)({context, 0, 0, 0, out}, NTE_BAD_UID, ": context not initialized");
    refusing("CPGetHashParam", CPGetHashParam)({context, hash, 3, data, length, 0}, NTE_BAD_HASH, neither);
    refusing("CPSetHashParam", CPSetHashParam)({context, hash, 3, data, 0}, NTE_BAD_HASH, neither);
    refusing("CPDuplicateHash", CPDuplicateHash)({context, hash, nullptr, 0, out}, NTE_BAD_UID, kBadContext);
}

// Whoever needs the PIN asks for it before looking at the key.
TEST_F(CspRefusalsTest, OfAUserWhoIsNotVerified) {
    const std::string ensure = "ensurePasswordValidated: ", end = ": ensurePasswordValidated failed";
    const std::string cancelled = "loginUser: user cancelled password dialog, return FALSE\n";
    const std::string cannotAsk = "loginUser: CRYPT_SILENT set, cannot show PIN dialog, return FALSE\n";
    const auto sign = refusing("CPSignHash", CPSignHash);
    world.token.keyPairs[0].keyType = kKeyTypeRsa1024;
    sign({context, hash, 2, nullptr, 0, data, length}, NTE_BAD_KEY, ": RSA-1024 signing" + kWeakKey);
    storePin(world.token.serial, Pin());
    const Bytes der = ScriptedDeviceLibrary::fakeCertificate("A", "CN=B", "CN=A");
    for (const bool silent : {false, true}) {
        liveContext(context)->silent = silent;
        const auto code = silent ? NTE_SILENT_CONTEXT : NTE_FAIL;
        const std::string lines = silent ? ensure + "CRYPT_SILENT set, cannot prompt for PIN, return false\n"
                                         : cancelled + ensure + "password validation failed, return false\n";
        sign({context, hash, 2, nullptr, 0, data, length}, code, lines + "CPSignHash" + end);
        refusing("CPGenKey", CPGenKey)({context, CALG_RSA_SIGN, 1024 << 16, out}, code,
                                       lines + "CPGenKey" + end);
        refusing("CPDecrypt", CPDecrypt)({context, rsaKey, 0, TRUE, CRYPT_OAEP, data, variable(256)}, code,
                                         lines + "CPDecrypt" + end);
        refusing("CPSetKeyParam", CPSetKeyParam)({context, rsaKey, KP_CERTIFICATE, der.data(), 0}, NTE_FAIL,
                                                 (silent ? cannotAsk : cancelled) +
                                                     "CPSetKeyParam: KP_CERTIFICATE login failed");
        EXPECT_THAT(prompt.seen(), SizeIs(4)) << "a silent context asks nobody";
    }
}

} // namespace
} // namespace veltra::test
