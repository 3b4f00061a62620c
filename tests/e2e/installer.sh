# The installer in a fresh Wine prefix: refused and failed installations leave nothing, the installed provider signs, an
# upgrade keeps what was chosen, and the removal leaves what belongs to the user alone.
work=${VELTRA_WORK:-$(dirname "${BASH_SOURCE[0]}")/../../build/e2e/installer}
rm -rf "$work"
mkdir -p "$work"
export VELTRA_WINEPREFIX=$work/wine
. "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"
set -euo pipefail
cd "$work"
startServices
# Wine says that it is Windows 7 unless told otherwise.
runWindows reg add 'HKCU\Software\Wine' /v Version /d win10 /f >/dev/null
"$(wineServer)" -k
startServices

drive=$WINEPREFIX/drive_c
installed="$drive/Program Files/Quenmark/Veltra"
builds=$veltraRoot/build

package() { "$veltraRoot/scripts/package" --no-build --output "$work" "$@" >/dev/null; }
install() { runWindows msiexec /i "$@" /qn; }
remove() { runWindows msiexec /x "$1" /qn; }
veltra() { runWindows "$installed/veltra.exe" "$@"; }
softtoken() { runWindows "$installed/softtoken.exe" "$@"; }

# snapshot FILE: every registry value with its key and every file of the drive. Left out is what Wine itself keeps
# changing, Windows Installer's own files, and folders, of which Wine leaves an empty one behind after a failure.
snapshot() {
    local root
    {
        for root in HKLM HKCU; do
            runWindows reg export "$root\\Software" "$(windowsPath "$work/export")" /y >/dev/null
            iconv -f utf-16 -t utf-8 "$work/export" | tr -d '\r' | sed -e ':join /\\$/{N; s/\\\n *//; b join}' |
                awk '/^\[/ {key = $0} /^["@]/ {print key $0}'
        done | grep -v -e 'Software\\Wine\\' -e 'CurrentVersion\\Telephony'
        cd "$drive" && find . -path ./windows/Installer -prune -o ! -type d -print
    } | LC_ALL=C sort >"$1"
}

# expectUnchanged FILE TEXT: nothing differs from the snapshot.
expectUnchanged() {
    snapshot now
    diff "$1" now || fail "$2"
}

# expectProvider VIEW FOLDER BUILD: in this registry view, the DLL of this build in this folder is the provider.
expectProvider() {
    local key="HKLM\\Software\\$1Microsoft\\Cryptography\\Defaults\\Provider\\Veltra Cryptographic Provider CSP" values
    values=$(runWindows reg query "$key" | tr -d '\r')
    grep -qi "Image Path *REG_SZ *C:.windows.$2.VeltraCSP.dll$" <<<"$values" &&
        grep -q 'Type *REG_DWORD *0x1$' <<<"$values" &&
        grep -qE 'Signature *REG_BINARY *0{272}$' <<<"$values" || fail "the registration in $key is not right: $values"
    cmp "$drive/windows/$2/VeltraCSP.dll" "$builds/$3/bin/VeltraCSP.dll"
}

# Exactly one product is listed as installed, in this version.
expectVersion() {
    runWindows reg query 'HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall' /s /v DisplayVersion |
        grep -oP 'REG_SZ +\K[0-9.]+' | diff - <(echo "$1") || fail "another version is installed than $1"
}

# The key in the container signs a document through the registered provider, and OpenSSL accepts the signature.
expectSignature() {
    head -c 10000 /dev/urandom >document
    veltra "$@" sign "$(windowsPath document)" --container installed --raw --out "$(windowsPath signature)" >/dev/null
    openssl dgst -sha256 -verify key.pub -signature signature document >/dev/null || fail "OpenSSL refuses the signature"
}

package
version=$(basename VeltraCSP-*.msi -x64.msi)
version=${version#VeltraCSP-}
newer=$((${version%%.*} + 1)).0.0
package --version "$newer"
msi=$(windowsPath "VeltraCSP-$version-x64.msi")
newerMsi=$(windowsPath "VeltraCSP-$newer-x64.msi")
snapshot before

# The software token does not replace a device library of somebody else's.
echo foreign >"$drive/windows/system32/VeltraDSCLibrary.dll"
snapshot foreign
! install "$msi" ADDLOCAL=ALL || fail "a foreign device library does not hinder the software token"
expectUnchanged foreign "a refused installation left something"
rm "$drive/windows/system32/VeltraDSCLibrary.dll"

# A registration that fails ends the installation, which leaves nothing.
regsvr32Settings='HKCU\Software\Wine\AppDefaults\regsvr32.exe'
runWindows reg add "$regsvr32Settings\\DllOverrides" /v bcrypt /d '' /f >/dev/null
! install "$msi" || fail "a failed registration does not end it"
expectUnchanged before "a failed installation left something"
install "$msi" VELTRACNG=optional || fail "the failure of an optional registration ends it"
runWindows reg delete "$regsvr32Settings" /f >/dev/null
remove "$msi"
expectUnchanged before "the removal left something, or took something with it"
[ ! -e "$drive/Program Files/Quenmark" ] || fail "the removal left its folders"

# Installed, with the software token added later.
install "$msi"
expectVersion "$version"
expectProvider '' system32 release
expectProvider 'Wow6432Node\' syswow64 release-x86
[ ! -e "$drive/windows/system32/VeltraDSCLibrary.dll" ] || fail "the software token is installed unasked"
install "$msi" ADDLOCAL=SoftwareToken
for row in system32:release syswow64:release-x86; do
    cmp "$drive/windows/${row%:*}/VeltraDSCLibrary.dll" "$builds/${row#*:}/bin/VeltraDSCLibrary.dll"
done
printf '135791\n' | softtoken create --serial INST-1 --pin-stdin >/dev/null
printf '135791\n' | softtoken login INST-1 --pin-stdin --seconds 3600 >/dev/null
veltra generate-key --container installed --bits 2048 >/dev/null
veltra create-certificate --container installed --subject CN=installed --out "$(windowsPath key.pem)" >/dev/null
openssl x509 -in key.pem -noout -pubkey >key.pub
expectSignature
expectSignature --cng
cp key.pem "$installed/VeltraDSC/Certificates/ca.pem"

# Upgrade in place; the way back is refused.
install "$newerMsi"
expectVersion "$newer"
expectProvider '' system32 release
expectSignature
snapshot upgraded
! install "$msi" || fail "an older version replaces a newer one"
expectUnchanged upgraded "the refused older version changed something"

# Removed, except for what is the user's.
remove "$newerMsi"
snapshot after
users='/VeltraDSC/Certificates/ca.pem$\|/users/[^/]*/\(Temp/Quenmark\|AppData/Local/Veltra\)/'
users+='\|Software\\Veltra\\CSP\\Containers\]'
[ -z "$(LC_ALL=C comm -23 before after)" ] || fail "the removal took away more than was installed"
! LC_ALL=C comm -13 before after | grep -v "$users" || fail "the removal left the above"
# What the user had before is there still.
diff <(grep "$users" upgraded) <(grep "$users" after) || fail "the removal took the user's"
cmp key.pem "$installed/VeltraDSC/Certificates/ca.pem"
