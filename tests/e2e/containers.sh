# Containers and their keys, and what a user sees when something is missing.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

sign() { veltra sign document "$@" --raw --out document.sig; }
keysOnToken() { softtoken show E2E-BOX | grep -c '^Key ' || true; }

echo "a document" >document
newToken E2E-BOX
veltra generate-key --container "$unique" --bits 2048
veltra list-keys >keys.txt
keyId=$(sed -n "s/^$unique  *RSA  *2048  *sign  *\([0-9A-F]\{32\}\)\r\{0,1\}$/\1/p" keys.txt)
[ -n "$keyId" ] || fail "the key is not in the list: $(cat keys.txt)"
softtoken show E2E-BOX | grep -q "$keyId" || fail "the token does not have the key $keyId"

# One key per container: a second one could not be reached.
expectFailure 1 "already has the key" veltra generate-key --container "$unique"
[ "$(keysOnToken)" -eq 1 ] || fail "the refused key is on the token"

# A key's identifier is a container name too, but only in the case in which it is written.
sign --container "$keyId"
expectFailure 1 "0x8009000D" sign --container "${keyId,,}"
expectFailure 1 "0x8009000D" sign --container "$unique-unknown"

# No window, no signature, although the token has a session.
expectFailure 1 NTE_SILENT_CONTEXT sign --silent --container "$unique"

# Nobody can type the PIN here: without a session the signature fails, and the next session brings it back.
logIn E2E-BOX 1
sleep 2
(unset DISPLAY && expectFailure 1 NTE_FAIL sign --container "$unique")
expectFailure 1 NTE_SILENT_CONTEXT sign --silent --container "$unique"
logIn E2E-BOX
sign --container "$unique"

# A token that is not there, and what the log says about it. The log level 2 is what an installation has.
softtoken unplug E2E-BOX
for command in "sign --container $unique" "veltra list-keys" "veltra delete-key --container $unique --yes" \
    "veltra generate-key --container $unique-other"; do
    # shellcheck disable=SC2086 # a command and its arguments
    expectFailure 1 NTE_TOKEN_KEYSET_STORAGE_FULL $command
done
log=$(find "$WINEPREFIX/drive_c" -path "*/Quenmark/veltra/$(date +%Y-%m-%d).LOG" | head -n 1)
grep -q 'ERROR ::=>CPAcquireContext: valid token not connected, return FALSE' "$log" ||
    fail "the log does not say that no token is connected"
softtoken plug E2E-BOX
logIn E2E-BOX

# Deleting asks first, then removes the key and the container.
expectFailure 2 "--yes" veltra delete-key --container "$unique"
[ "$(keysOnToken)" -eq 1 ] || fail "the key is gone without --yes"
veltra delete-key --container "$unique" --yes
[ "$(keysOnToken)" -eq 0 ] || fail "the key is still on the token"
! veltra list-keys | grep -q "^$unique " || fail "the container is still in the list"
expectFailure 1 "no container" veltra delete-key --container "$unique" --yes

# Unregistering is clean, and the error says how to go on.
veltra unregister
expectFailure 1 "'veltra register'" sign --container "$unique"
