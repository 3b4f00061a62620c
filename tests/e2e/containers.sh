# Containers and their keys on two connected tokens, and what a user sees when something is missing.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

sign() { veltra sign document "$@" --raw --out document.sig; }
keysOnToken() { softtoken show E2E-BOX-A | grep -c '^Key ' || true; }

# One token at a time gets its key, because a new key goes to the first token.
echo "a document" >document
for token in A B; do
    newToken "E2E-BOX-$token"
    newCertifiedKey "$unique-$token" --bits 2048
    veltra import-certificate --container "$unique-$token" "$unique-$token.pem"
    softtoken unplug "E2E-BOX-$token"
done
for token in A B; do
    softtoken plug "E2E-BOX-$token"
    logIn "E2E-BOX-$token"
done
veltra list-certificates >certificates.txt
for token in A B; do
    keyId=$(keyIdOf "$unique-$token")
    grep "^$keyId" certificates.txt | grep -q "CN=$unique-$token" ||
        fail "the certificate of token $token is not in the list: $(cat certificates.txt)"
    softtoken show "E2E-BOX-$token" | grep -q "$keyId" || fail "token $token does not have the key $keyId"
    [ $token = B ] || keyA=$keyId
    # A key's identifier is a container name too, and finds the token that has it.
    sign --container "$keyId"
    openssl dgst -sha256 -verify "$unique-$token.pub" -signature document.sig document >/dev/null ||
        fail "the signature is not the one of token $token"
done
for missing in "${keyId,,}" "$unique-unknown"; do expectFailure 1 "0x8009000D" sign --container "$missing"; done

# A key that is away is named by the list of containers and left out of the list of certificates.
softtoken unplug E2E-BOX-B
veltra list-keys | grep "^$unique-B " | grep -q "not on a connected token" || fail "the list has the key that is away"
! veltra list-certificates | grep -q "CN=$unique-B" || fail "the list has the certificate that is away"

# One key per container: a second one could not be reached.
expectFailure 1 "already has the key" veltra generate-key --container "$unique-A"
[ "$(keysOnToken)" -eq 1 ] || fail "the refused key is on the token"

# Nobody can type the PIN here.
softtoken logout E2E-BOX-A
(unset DISPLAY && expectFailure 1 NTE_FAIL sign --container "$unique-A")
logIn E2E-BOX-A
expectFailure 1 NTE_SILENT_CONTEXT sign --silent --container "$unique-A" # a session is not the PIN
softtoken unplug E2E-BOX-A
expectFailure 1 NTE_TOKEN_KEYSET_STORAGE_FULL sign --container "$unique-A"
softtoken plug E2E-BOX-A
logIn E2E-BOX-A

# A log on a full disk changes nothing.
veltra log-level 3 >/dev/null
log=$(find "$WINEPREFIX/drive_c" -path "*/Quenmark/veltra/$(date +%Y-%m-%d).LOG")
rm "$log" && ln -s /dev/full "$log"
expectFailure 0 "Unable to write log" sign --container "$keyA"
expectFailure 0 "Unable to write log" veltra --cng sign document --container "$keyA" --raw --out document.sig
rm "$log"
veltra log-level default >/dev/null

# Deleting asks first, then removes the key and the container.
expectFailure 2 "--yes" veltra delete-key --container "$unique-A"
[ "$(keysOnToken)" -eq 1 ] || fail "the key is gone without --yes"
veltra delete-key --container "$unique-A" --yes
[ "$(keysOnToken)" -eq 0 ] || fail "the key is still on the token"
! veltra list-keys | grep -q "^$unique-A " || fail "the container is still in the list"
expectFailure 1 "no container" veltra delete-key --container "$unique-A" --yes

# Unregistering is clean, and the error says how to go on.
veltra unregister
expectFailure 1 "'veltra register'" sign --container "$unique-A"
