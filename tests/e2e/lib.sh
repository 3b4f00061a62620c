# What the end-to-end tests share; sourced by each. VELTRA_BIN is the folder with the programs, VELTRA_WORK an own
# folder of the test, emptied here. A failed check ends the test.
set -euo pipefail
. "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

bin=${VELTRA_BIN:-$veltraRoot/build/release/bin}
work=${VELTRA_WORK:-$veltraRoot/build/e2e/$(basename "$0" .sh)}
rm -rf "$work"
mkdir -p "$work/tokens"
cd "$work"
export VELTRA_SOFTTOKEN_HOME
VELTRA_SOFTTOKEN_HOME=$(windowsPath "$work/tokens")

# Container names of one test do not meet those of another, nor those that an aborted run left behind.
unique=e2e-$(basename "$0" .sh)-$$
pin=135791

# Wine's server kills a program that has not left a second after its end: what it returned is then lost. The test
# fails, but begins anew (support/in-own-prefix).
runProgram() {
    local status=0
    runWindows "$@" || status=$?
    [ "$status" -ne 137 ] || touch "${VELTRA_KILLED_MARK:-/dev/null}"
    return "$status"
}
veltra() { runProgram "$bin/veltra.exe" "$@"; }
softtoken() { runProgram "$bin/softtoken.exe" "$@"; }

# newToken SERIAL [OPTION...]: a plugged-in token with a single-sign-on session.
newToken() {
    printf '%s\n' "$pin" | softtoken create --serial "$@" --pin-stdin
    logIn "$1"
}
logIn() { printf '%s\n' "$pin" | softtoken login "$1" --pin-stdin --seconds "${2:-3600}"; }

# newCertifiedKey CONTAINER KEYGEN-OPTION...: a key with its certificate in CONTAINER.pem, public key in
# CONTAINER.pub.
newCertifiedKey() {
    veltra generate-key --container "$@"
    veltra create-certificate --container "$1" --subject "CN=$1" --out "$1.pem"
    openssl x509 -in "$1.pem" -noout -pubkey >"$1.pub"
}

# The same commands through the key storage provider.
cng() { veltra --cng "$@"; }

# newCngKey KEYGEN-OPTION...: a new key without container, its identifier in `key`, its public key in key.pub.
newCngKey() {
    key=$(cng generate-key "$@" | sed -n 's/^Generated .* key \([0-9A-F]\{32\}\)\.\r\{0,1\}$/\1/p')
    [ -n "$key" ] || fail "the new key has no identifier"
    cng export-key --container "$key" --out key.pub
    openssl pkey -pubin -in key.pub -noout || fail "OpenSSL cannot read the exported public key"
}

# expectExit CODE COMMAND...: the command must end with this exit code; its output is kept in `output`.
expectExit() {
    local expected=$1 actual=0
    shift
    output=$("$@" 2>&1) || actual=$?
    [ "$actual" -eq "$expected" ] || fail "exit code $actual instead of $expected: $*
$output"
}

# expectFailure CODE TEXT COMMAND...: as expectExit, and TEXT must be in the output.
expectFailure() {
    local text=$2
    expectExit "$1" "${@:3}"
    [[ $output == *"$text"* ]] || fail "'$text' is missing in the output of ${*:3}
$output"
}

# runApplication PROGRAM FILTER: the tests of an application that the filter chooses. Under Wine the exit status of a
# crash can get lost, so the last words count.
runApplication() {
    runWindows "$bin/$1.exe" "--gtest_filter=$2" >client.txt || true
    cat client.txt
    ! grep -q 'FAILED TEST' client.txt && grep -q '^\[  PASSED  \] [1-9]' client.txt || fail "tests of $2 failed"
}

# A file of some length with every byte value, and a copy with one changed bit.
makeDocument() {
    head -c 200000 /dev/urandom >document
    cp document document.changed
    printf "\\x$(printf '%02x' $(($(od -An -tu1 -j 99999 -N1 document) ^ 1)))" |
        dd of=document.changed bs=1 seek=99999 conv=notrunc status=none
    ! cmp -s document document.changed || fail "the changed document does not differ"
}

veltra register --dll "$(windowsPath "$bin/VeltraCSP.dll")" >/dev/null
# As an installation has it: an earlier test in this Wine prefix may have left another level.
veltra log-level default >/dev/null
