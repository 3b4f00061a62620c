#pragma once

// The CryptoAPI provider interface: the 24 functions that the system looks up by name. Contracts: "CryptoAPI
// provider functions" in the platform documentation; all report failures with SetLastError.

#include "foundation/windows.h"

// What the system hands to CPAcquireContext. The headers of newer targets leave it out, and nothing here
// reads it.
struct _VTableProvStruc; // NOLINT(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the platform's
                         // name
using VTableProvStruc = _VTableProvStruc;

extern "C" {

BOOL WINAPI CPAcquireContext(HCRYPTPROV* phProv, const char* szContainer, DWORD dwFlags,
                             VTableProvStruc* pVTable);
BOOL WINAPI CPReleaseContext(HCRYPTPROV hProv, DWORD dwFlags);
BOOL WINAPI CPGetProvParam(HCRYPTPROV hProv, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen, DWORD dwFlags);
BOOL WINAPI CPSetProvParam(HCRYPTPROV hProv, DWORD dwParam, const BYTE* pbData, DWORD dwFlags);

BOOL WINAPI CPGenKey(HCRYPTPROV hProv, ALG_ID Algid, DWORD dwFlags, HCRYPTKEY* phKey);
BOOL WINAPI CPGetUserKey(HCRYPTPROV hProv, DWORD dwKeySpec, HCRYPTKEY* phUserKey);
BOOL WINAPI CPGetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen,
                          DWORD dwFlags);
BOOL WINAPI CPSetKeyParam(HCRYPTPROV hProv, HCRYPTKEY hKey, DWORD dwParam, const BYTE* pbData, DWORD dwFlags);
BOOL WINAPI CPDestroyKey(HCRYPTPROV hProv, HCRYPTKEY hKey);
BOOL WINAPI CPDeriveKey(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTHASH hBaseData, DWORD dwFlags,
                        HCRYPTKEY* phKey);
BOOL WINAPI CPExportKey(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTKEY hPubKey, DWORD dwBlobType, DWORD dwFlags,
                        BYTE* pbData, DWORD* pcbDataLen);
BOOL WINAPI CPImportKey(HCRYPTPROV hProv, const BYTE* pbData, DWORD cbDataLen, HCRYPTKEY hPubKey,
                        DWORD dwFlags, HCRYPTKEY* phKey);
BOOL WINAPI CPGenRandom(HCRYPTPROV hProv, DWORD dwLen, BYTE* pbBuffer);

BOOL WINAPI CPCreateHash(HCRYPTPROV hProv, ALG_ID Algid, HCRYPTKEY hKey, DWORD dwFlags, HCRYPTHASH* phHash);
BOOL WINAPI CPHashData(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbData, DWORD cbData, DWORD dwFlags);
BOOL WINAPI CPHashSessionKey(HCRYPTPROV hProv, HCRYPTHASH hHash, HCRYPTKEY hKey, DWORD dwFlags);
BOOL WINAPI CPGetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, BYTE* pbData, DWORD* pdwDataLen,
                           DWORD dwFlags);
BOOL WINAPI CPSetHashParam(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwParam, const BYTE* pbData,
                           DWORD dwFlags);
BOOL WINAPI CPDuplicateHash(HCRYPTPROV hUID, HCRYPTHASH hHash, DWORD* pdwReserved, DWORD dwFlags,
                            HCRYPTHASH* phHash);
BOOL WINAPI CPDestroyHash(HCRYPTPROV hProv, HCRYPTHASH hHash);

BOOL WINAPI CPSignHash(HCRYPTPROV hProv, HCRYPTHASH hHash, DWORD dwKeySpec, LPCWSTR szDescription,
                       DWORD dwFlags, BYTE* pbSignature, DWORD* pdwSigLen);
BOOL WINAPI CPVerifySignature(HCRYPTPROV hProv, HCRYPTHASH hHash, const BYTE* pbSignature, DWORD cbSigLen,
                              HCRYPTKEY hPubKey, LPCWSTR szDescription, DWORD dwFlags);

BOOL WINAPI CPEncrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH hHash, BOOL Final, DWORD dwFlags,
                      BYTE* pbData, DWORD* pdwDataLen, DWORD dwBufLen);
BOOL WINAPI CPDecrypt(HCRYPTPROV hProv, HCRYPTKEY hKey, HCRYPTHASH hHash, BOOL Final, DWORD dwFlags,
                      BYTE* pbData, DWORD* pdwDataLen);

} // extern "C"
