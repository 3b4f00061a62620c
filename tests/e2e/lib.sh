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
logIn() { printf '%s\n' "$pin" | softtoken login "$1" --pin-stdin --seconds 3600; }

# Containers are the user's: those of a test are forgotten when it ends.
containers=()
forgetContainers() {
    local container
    for container in "${containers[@]}"; do
        "$(wineLoader)" reg delete 'HKCU\SOFTWARE\Veltra\CSP\Containers' /v "$container" /f >/dev/null 2>&1 || true
    done
}
trap forgetContainers EXIT

# newCertifiedKey CONTAINER KEYGEN-OPTION...: a key with its certificate in CONTAINER.pem, public key in
# CONTAINER.pub.
newCertifiedKey() {
    containers+=("$1")
    veltra generate-key --container "$@"
    veltra create-certificate --container "$1" --subject "CN=$1" --out "$1.pem"
    openssl x509 -in "$1.pem" -noout -pubkey >"$1.pub"
}

# keyIdOf CONTAINER: the identifier of its RSA-2048 key, as the list has it.
keyIdOf() {
    veltra list-keys | grep -oP "^$1 +RSA +2048 +[a-z]* +\K[0-9A-F]{32}(?=\r?$)" || fail "the key of $1 is not in the list"
}

# The same commands through the key storage provider.
cng() { veltra --cng "$@"; }

# newCngKey KEYGEN-OPTION...: a new key without container, its identifier in `key`, its public key in key.pub.
newCngKey() {
    key=$(cng generate-key "$@" | grep -oP '^Generated .* key \K[0-9A-F]{32}(?=\.\r?$)') || fail "no new key"
    cng export-key --container "$key" --out key.pub
    openssl pkey -pubin -in key.pub -noout || fail "OpenSSL cannot read the exported public key"
}

# waitFor COMMAND...: until it succeeds, for half a minute.
waitFor() {
    local end=$((SECONDS + 30))
    until "$@"; do
        [ $SECONDS -lt $end ] || fail "waited in vain for: $*"
        sleep 0.1
    done
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

# makeTheirs ALGORITHM OPTION: a key of OpenSSL's, theirs.pem, and its public part theirs.pub.
makeTheirs() {
    openssl genpkey -quiet -algorithm "$1" -pkeyopt "$2" -out theirs.pem
    openssl pkey -in theirs.pem -pubout -out theirs.pub
}
hexOf() { od -An -v -tx1 "$1" | tr -d ' \n'; }

# A file of some length with every byte value, and a copy whose last byte is another.
makeDocument() {
    head -c 200000 /dev/urandom >document
    { head -c 199999 document && tail -c 1 document | tr '\000-\377' '\001-\377\000'; } >document.changed
}

veltra register --dll "$(windowsPath "$bin/VeltraCSP.dll")" >/dev/null
# As an installation has it: an earlier test in this Wine prefix may have left another level.
veltra log-level default >/dev/null
