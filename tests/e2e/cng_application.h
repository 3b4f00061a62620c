#pragma once

#include "e2e/crypto_application.h"

#include "foundation/cng.h"

#include <string>

namespace veltra::test {

struct CngObjectFreer {
    void operator()(NCRYPT_HANDLE handle) const { NCryptFreeObject(handle); }
};
using CngHandle = CryptoHandle<CngObjectFreer>; ///< of any object of the NCrypt functions

/// An application that uses CNG, and CryptoAPI beside it: every call goes through the NCrypt functions, as
/// the system's router offers them. cng_client.sh sets up the token and tells its keys in the environment.
class CngApplicationTest : public CryptoApplicationTest {
protected:
    CngApplicationTest();

    static CngHandle openProvider();
    [[nodiscard]] CngHandle openKey(const std::wstring& name, DWORD keySpec = 0, DWORD flags = 0) const;
    [[nodiscard]] CngHandle importKey(const wchar_t* blobType, Bytes blob) const;
    static Bytes exportKey(const CngHandle& key, const wchar_t* blobType);
    static Bytes property(const CngHandle& object, const wchar_t* name);
    static SECURITY_STATUS setProperty(const CngHandle& object, const wchar_t* name, Bytes value);

    /// Signs into a buffer of exactly `length` bytes, without asking for the size.
    static SECURITY_STATUS sign(const CngHandle& key, void* padding, Bytes hash, Bytes& signature,
                                DWORD length, DWORD flags);
    static SECURITY_STATUS verify(const CngHandle& key, void* padding, Bytes hash, Bytes signature,
                                  DWORD flags);

    /// The digest of the data, made by the system's own provider.
    static Bytes digest(ALG_ID algorithm, const Bytes& data);

    const std::wstring rsaKey;  ///< of the container, for encryption too
    const std::wstring signKey; ///< an RSA key for signatures alone
    const CngHandle provider = openProvider();
};

/// ASCII text as CNG takes it, with its terminator.
Bytes wideBytes(const std::wstring& text);

} // namespace veltra::test
