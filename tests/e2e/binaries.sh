# What the linked files promise, 64-bit and 32-bit: exports, imports, hardening and version.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

exportsOf() { x86_64-w64-mingw32-objdump -p "$1" | sed -n '/\[Ordinal\/Name Pointer\] Table/,/^$/s/^\t\[ *[0-9]*\] //p' | LC_ALL=C sort; }
importsOf() { x86_64-w64-mingw32-objdump -p "$1" | sed -n 's/^\tDLL Name: //p' | tr '[:upper:]' '[:lower:]' | LC_ALL=C sort -u; }

expected=$(sed -n 's/^    \([A-Za-z]*\).*/\1/p' "$veltraRoot/src/registration/VeltraCSP.def" | LC_ALL=C sort)
[ "$(wc -l <<<"$expected")" -eq 27 ] || fail "the list of exports is not complete"

# Not bcrypt.dll: the provider loads it for its registration only.
systemLibraries=$(printf '%s\n' advapi32.dll crypt32.dll dbghelp.dll kernel32.dll msvcrt.dll shell32.dll user32.dll \
    version.dll ws2_32.dll | LC_ALL=C sort)

# checkPrograms FOLDER FORMAT PROPERTY...: of the files $programs in FOLDER, whose header is of this FORMAT and has each
# PROPERTY.
checkPrograms() {
    local folder=$1 format=$2 file property header imports others text
    shift 2
    diff <(printf '%s\n' "$expected") <(exportsOf "$folder/VeltraCSP.dll") ||
        fail "$folder/VeltraCSP.dll exports other names"
    for file in "${programs[@]}"; do
        imports=$(importsOf "$folder/$file")
        grep -qx kernel32.dll <<<"$imports" || fail "the imports of $folder/$file could not be read"
        others=$(LC_ALL=C comm -23 <(printf '%s\n' "$imports") <(printf '%s\n' "$systemLibraries"))
        [ -z "$others" ] || fail "$folder/$file imports $others"
        header=$(x86_64-w64-mingw32-objdump -p "$folder/$file")
        for property in "file format $format" "$@"; do
            grep -q "$property" <<<"$header" || fail "$folder/$file is not linked with $property"
        done
        # Resource texts are UTF-16.
        for text in ProductName ProductVersion "Veltra CSP" "$file"; do
            grep -qaP "$(printf '%s' "$text" | sed 's/./&\\x00/g')" "$folder/$file" ||
                fail "the version resource of $folder/$file lacks '$text'"
        done
    done
}

programs=(VeltraCSP.dll VeltraDSCLibrary.dll veltra.exe softtoken.exe)
checkPrograms "$bin" pei-x86-64 HIGH_ENTROPY_VA DYNAMIC_BASE NX_COMPAT
programs=(VeltraCSP.dll VeltraDSCLibrary.dll)
checkPrograms "$veltraRoot/build/release-x86/bin" pei-i386 DYNAMIC_BASE NX_COMPAT
