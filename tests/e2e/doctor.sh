# veltra doctor: what it says of an installation that is whole, and of each way in which one can be broken.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

containerMap='HKCU\SOFTWARE\Veltra\CSP\Containers'
providers='HKLM\SOFTWARE\Microsoft\Cryptography\Defaults\Provider'
name='Veltra Cryptographic Provider CSP'
reg() { "$(wineLoader)" reg "$@" >/dev/null; }
seconds=60

# An installation of its own, so that its files can be broken.
mkdir box
restore() {
    cp "$bin/veltra.exe" "$bin/VeltraCSP.dll" "$bin/VeltraDSCLibrary.dll" box
    box register >/dev/null
}
box() { runProgram box/veltra.exe "$@"; }

# doctor EXIT FINDING...: the exit code of the doctor with $arguments, and each finding as "SECTION ID STATUS".
doctor() {
    local expected=$1 actual=0 finding
    # shellcheck disable=SC2086 # arguments
    box doctor --json --timeout "$seconds" ${arguments:-} >doctor.json 2>doctor.err || actual=$?
    cat doctor.json doctor.err >>everything.txt
    python3 -c 'import json, sys
report = json.load(sys.stdin)
assert report["schema"] == 1 and report["healthy"] == (report["problems"] == 0)
for section in report["sections"]:
    for finding in section["findings"]:
        assert finding["status"] != "problem" or finding["advice"], finding
        print(section["section"], finding["id"], finding["status"])' <doctor.json >found.txt ||
        fail "no report: $(cat doctor.json doctor.err)"
    [ "$actual" -eq "$expected" ] || fail "exit code $actual instead of $expected: $(cat doctor.json)"
    for finding in "${@:2}"; do
        grep -qx "$finding" found.txt || fail "'$finding' is missing: $(cat doctor.json)"
    done
}

# broken COMMAND FINDING...: what COMMAND does to the installation is found, and is gone with the next one.
broken() {
    eval "$1"
    doctor 1 "${@:2}"
    restore
}

# Nothing is installed, no token has ever been there, and nothing beside the program either.
cp "$bin/veltra.exe" box
veltra unregister >/dev/null
doctor 1 'cryptoapi registered64 problem' 'cng loads problem' 'library loads problem' 'tokens none note'

restore
doctor 1 'cryptoapi loads ok' 'library complete ok' 'tokens none problem'

newToken E2E-DOC --fips 140-2
newCertifiedKey "$unique" --bits 2048
veltra import-certificate --container "$unique" "$unique.pem" >/dev/null
doctor 0 'cryptoapi registered64 ok' 'cryptoapi keys ok' 'cng keys ok' 'tokens token ok' 'keys certificate ok' \
    'containers entry ok' 'log folder ok' 'signature skipped ok'
expectFailure 0 'session open' box doctor
[[ $output == *'FIPS 140-2, firmware '* ]] || fail "the token is not described: $output"

broken "veltra unregister >/dev/null" 'cryptoapi registered64 problem' 'cng loads ok'
broken "reg add '$providers\\$name' /v Type /t REG_DWORD /d 24 /f" 'cryptoapi registered64 problem'
broken "reg add '$providers\\$name' /v 'Image Path' /d 'C:\\none.dll' /f" 'cryptoapi registered64 problem'
broken 'echo text >box/VeltraCSP.dll' 'cryptoapi registered64 problem' 'cng loads problem'
broken "cp '$bin/veltra_hostile_library.dll' box/VeltraCSP.dll; export VELTRA_HOSTILE=crash" 'cryptoapi loads problem' \
    'cng loads problem' 'library loads ok'
broken 'rm box/VeltraDSCLibrary.dll' 'library loads problem' 'tokens none note'
broken 'cp box/VeltraCSP.dll box/VeltraDSCLibrary.dll' 'library loads ok' 'library complete problem'
for way in crash exit hang; do
    [ $way != hang ] || seconds=2
    broken "cp '$bin/veltra_hostile_library.dll' box/VeltraDSCLibrary.dll; export VELTRA_HOSTILE=$way" \
        'library loads problem' 'tokens none note' 'containers entry note'
done
seconds=60

# The device library of 32-bit programs, which have a provider of their own. What is not in the test's folder is gone
# with the test, even one that fails.
wow64=$WINEPREFIX/drive_c/windows/syswow64
remove32() {
    rm -f "$wow64/VeltraDSCLibrary.dll"
    reg delete "$providers\\$name" /f /reg:32 2>/dev/null || true
}
trap 'remove32; forgetContainers' EXIT
bin32=$veltraRoot/build/release-x86/bin
mkdir -p box32 "$wow64"
cp "$bin32/VeltraCSP.dll" box32
reg add "$providers\\$name" /v 'Image Path' /d "$(windowsPath box32/VeltraCSP.dll)" /f /reg:32
reg add "$providers\\$name" /v Type /t REG_DWORD /d 1 /f /reg:32
doctor 0 'cryptoapi registered32 ok' 'library file32 note'
# libraryFor32 FILE EXIT:STATUS [FOLDER]: what the doctor says of FILE as the device library of 32-bit programs, beside
# their provider or in FOLDER.
libraryFor32() {
    cp "$1" "${3:-box32}/VeltraDSCLibrary.dll"
    doctor "${2%:*}" "library file32 ${2#*:}"
}
libraryFor32 "$bin/VeltraDSCLibrary.dll" 1:problem
libraryFor32 "$bin32/VeltraDSCLibrary.dll" 0:ok "$wow64"
rm "$wow64/VeltraDSCLibrary.dll"
libraryFor32 "$bin32/VeltraCSP.dll" 1:problem
libraryFor32 <(head -c 100000 "$bin32/VeltraDSCLibrary.dll") 1:problem
libraryFor32 "$bin32/VeltraDSCLibrary.dll" 0:ok
remove32

# An entry of the map that names a key which is gone, and damaged ones.
for options in "/d 00112233445566778899AABBCCDDEEFF" "/t REG_BINARY /d 0102" "/d ,,," \
    "/d $(printf 'A%.0s' {1..5000})"; do
    containers+=("$unique-gone-${#containers[@]}")
    # shellcheck disable=SC2086 # options
    reg add "$containerMap" /v "${containers[-1]}" $options /f
done
doctor 1 'containers entry ok' 'containers entry note'
[ "$(grep -c 'containers entry problem' found.txt)" -eq 3 ] || fail "not every damaged entry is found: $(cat doctor.json)"
for entry in "${containers[@]:1}"; do reg delete "$containerMap" /v "$entry" /f; done

# A signature needs a PIN, which no output shows; a wrong one is tried once.
expectFailure 2 "no terminal" box doctor --sign </dev/null
VELTRA_PIN=$pin arguments=--sign doctor 0 'signature cryptoapi ok' 'signature cng ok'
VELTRA_PIN=000000 arguments="--sign --container $unique" doctor 1 'signature cryptoapi problem'
! grep -q '^signature cng' found.txt || fail "a refused PIN was tried twice"
! grep -q "$pin" everything.txt || fail "the PIN is in the output"

veltra log-level 3 >/dev/null
doctor 0 'log level note'
veltra log-level default >/dev/null
# Certificates near their end, and past it.
openssl genpkey -quiet -algorithm RSA -out issuer.key
for days in 10:0:note -1:1:problem; do
    IFS=: read -r last exit status <<<"$days"
    openssl x509 -new -force_pubkey "$unique.pub" -subj "/CN=$unique" -key issuer.key -days "$last" -out late.pem
    veltra import-certificate --container "$unique" late.pem >/dev/null
    doctor "$exit" "keys certificate $status"
done
