# What the linked files promise: exports, imports, hardening and version.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

objdump=x86_64-w64-mingw32-objdump

exportsOf() { "$objdump" -p "$1" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/s/^\t\[ *[0-9]*\] //p' | LC_ALL=C sort; }
importsOf() { "$objdump" -p "$1" | sed -n 's/^\tDLL Name: //p' | tr '[:upper:]' '[:lower:]' | LC_ALL=C sort -u; }

expected=(
    CPAcquireContext CPCreateHash CPDecrypt CPDeriveKey CPDestroyHash CPDestroyKey CPDuplicateHash CPEncrypt
    CPExportKey CPGenKey CPGenRandom CPGetHashParam CPGetKeyParam CPGetProvParam CPGetUserKey CPHashData
    CPHashSessionKey CPImportKey CPReleaseContext CPSetHashParam CPSetKeyParam CPSetProvParam CPSignHash
    CPVerifySignature DllRegisterServer DllUnregisterServer GetKeyStorageInterface
)
diff <(printf '%s\n' "${expected[@]}") <(exportsOf "$bin/VeltraCSP.dll") || fail "VeltraCSP.dll exports other names"

# Not bcrypt.dll: the provider loads it for its registration only.
systemLibraries=$(printf '%s\n' advapi32.dll crypt32.dll kernel32.dll msvcrt.dll shell32.dll user32.dll \
    ws2_32.dll | LC_ALL=C sort)
for file in VeltraCSP.dll VeltraDSCLibrary.dll veltra.exe softtoken.exe; do
    imports=$(importsOf "$bin/$file")
    grep -qx kernel32.dll <<<"$imports" || fail "the imports of $file could not be read"
    others=$(LC_ALL=C comm -23 <(printf '%s\n' "$imports") <(printf '%s\n' "$systemLibraries"))
    [ -z "$others" ] || fail "$file imports $others"
    characteristics=$("$objdump" -p "$bin/$file" | grep -A 6 '^DllCharacteristics')
    for property in HIGH_ENTROPY_VA DYNAMIC_BASE NX_COMPAT; do
        grep -q "$property" <<<"$characteristics" || fail "$file is not linked with $property"
    done
done

# Resource texts are UTF-16.
for text in ProductName ProductVersion "Veltra CSP"; do
    grep -qaP "$(printf '%s' "$text" | sed 's/./&\\x00/g')" "$bin/VeltraCSP.dll" ||
        fail "the version resource of VeltraCSP.dll lacks '$text'"
done
