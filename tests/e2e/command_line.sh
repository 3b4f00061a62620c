# veltra as a command-line tool: help, exit codes, JSON, where the PIN comes from, and the log.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# json MEMBERS ARGUMENT...: the output is one JSON object with these members.
json() {
    veltra "${@:2}" --json >out.json 2>out.err || true
    python3 -c 'import json, sys
sys.exit(not set(sys.argv[1].split()) <= json.load(open("out.json")).keys())' "$1" || fail "--json of $*: $(cat out.json)"
    cat out.json out.err >>everything.txt
}

makeDocument
newToken E2E-LINE --fips 140-2
newCertifiedKey "$unique" --bits 2048 --usage exchange >keygen.txt 2>&1
! grep -q 'Generating' keygen.txt || fail "a progress line where there is no terminal"
veltra sign document --container "$unique" --raw --out document.sig
expectFailure 2 "overwritten" veltra sign document --container "$unique" --raw --out ./document

# Every command has examples.
veltra --help | tr -d '\r' >help.txt
mapfile -t commands < <(sed -n 's/^  \([a-z][a-z-]*\) .*/\1/p' help.txt | grep -v '^veltra$')
[ ${#commands[@]} -ge 20 ] || fail "the help lacks commands: $(cat help.txt)"
for command in "${commands[@]}"; do
    expectFailure 0 "  veltra $command" veltra "$command" --help
done

expectExit 0 veltra verify document --raw --signature document.sig --certificate "$unique.pem"
[ "$(veltra generate-random 32 | tr -d '\r\n' | wc -c)" -eq 64 ] || fail "32 random bytes are not 64 digits"
json keys list-keys
json certificates list-certificates
json 'properties algorithms containers' show-provider
json 'properties algorithms keys' show-provider --cng
json levels log-level
json files log
json files log --files
json bytes generate-random 4
json verified verify document --raw --signature document.sig --container "$unique"
json 'verified reason' verify document.changed --raw --signature document.sig --container "$unique"
json error sign --no-such-option
json error sign document --container none --raw --out refused
grep -q '"code": "0x8009000D NTE_NO_KEY"' out.json || fail "the error has no code: $(cat out.json)"

for usage in "" "no-such-command" "sign document" "log --follow --files" "--pin 1 --pin-stdin list-keys"; do
    # shellcheck disable=SC2086 # arguments
    expectExit 2 veltra $usage
done

# The PIN, where the token has no session.
softtoken logout E2E-LINE
sign() { veltra "$@" --silent sign document --container "$unique" --raw --out document.sig; }
expectFailure 1 NTE_SILENT_CONTEXT sign
VELTRA_PIN=000000 expectFailure 1 "does not accept the PIN: 0x" sign
VELTRA_PIN=$pin expectExit 0 sign
PIN=$pin expectExit 0 sign --pin-env PIN
expectFailure 0 warning sign --pin "$pin"
for row in "0 --pin-stdin" "0 --pin-fd 0" "2 --pin-prompt" "2 --pin-fd 77" "2 --pin-env NOT_SET"; do
    # shellcheck disable=SC2086 # an exit code, an option and its value
    expectExit ${row%% *} sign ${row#* } <<<"$pin"
done
expectExit 2 sign --pin-stdin </dev/null
# On a terminal, which shows the question but not the answer.
touch typescript follow.txt
{ waitFor grep -q 'PIN:' typescript && printf '%s\r' "$pin" && waitFor grep -q 'EXIT_CODE' typescript; } |
    script -qefc "'$veltraRoot/scripts/wine-run' '$bin/veltra.exe' --pin-prompt --silent sign document \
        --container '$unique' --raw --out document.sig" typescript >/dev/null
grep -q 'EXIT_CODE="0"' typescript || fail "nobody was asked on the terminal: $(cat typescript)"

# The log: how much, which files, and what comes.
expectFailure 0 'errors and every step' veltra log-level 3
expectFailure 0 'errors (not set)' veltra log-level default
expectExit 1 sign --provider none
expectFailure 0 'ERROR ::=>' veltra log --process veltra --lines 5
followed() { [ "$(grep -c 'ERROR ::=>' follow.txt)" -ge 2 ]; }
timeout 60 "$veltraRoot/scripts/wine-run" "$bin/veltra.exe" log --process veltra --lines 1 --follow >follow.txt &
follower=$!
waitFor grep -q ERROR follow.txt
expectFailure 1 NTE_SILENT_CONTEXT sign
waitFor followed
kill "$follower" && wait "$follower" 2>/dev/null || true

# Nothing is lost by a refusal or by a file beside: no attempt for a PIN that would be cut or whose key is on another
# token, no file that is not the one that was named.
attempts() { softtoken show E2E-LINE | grep 'PIN attempts'; }
before=$(attempts)
VELTRA_PIN=$(printf '1%.0s' {1..300}) expectFailure 2 'too long' sign
expectFailure 2 'longer than' sign --pin-stdin < <(printf '1%.0s' {1..300})
VELTRA_PIN=000000 expectFailure 1 NTE_NO_KEY veltra sign document --container "$unique-none" --raw --out refused
[ "$(attempts)" = "$before" ] || fail "a refusal cost an attempt: $(attempts) after $before"
echo mine >beside.new
VELTRA_PIN=$pin expectExit 0 veltra --silent sign "$PWD/document" --container "$unique" --raw --out beside
[ "$(cat beside.new)" = mine ] || fail "the file beside the output is gone"
expectFailure 1 'no 64-bit DLL' veltra register --dll document
! grep -q "$pin" everything.txt keygen.txt typescript follow.txt || fail "the PIN is in the output"
