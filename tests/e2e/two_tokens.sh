# Two connected tokens: what lists and uses the keys of both.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# One token at a time gets its key, because a new key goes to the first token.
for token in A B; do
    newToken "E2E-TWO-$token"
    newCertifiedKey "$unique-$token" --bits 2048
    veltra import-certificate --container "$unique-$token" "$unique-$token.pem"
    softtoken unplug "E2E-TWO-$token"
done
softtoken plug E2E-TWO-A
softtoken plug E2E-TWO-B
for token in A B; do logIn "E2E-TWO-$token"; done

veltra list-keys >keys.txt
veltra list-certificates >certificates.txt
echo "a document" >document
for token in A B; do
    keyId=$(sed -n "s/^$unique-$token  *RSA  *2048  *sign  *\([0-9A-F]\{32\}\)\r\{0,1\}$/\1/p" keys.txt)
    [ -n "$keyId" ] || fail "the key of token $token is not in the list: $(cat keys.txt)"
    grep "^$keyId" certificates.txt | grep -q "CN=$unique-$token" ||
        fail "the certificate of token $token is not in the list: $(cat certificates.txt)"
    # The key's identifier finds the token that has it.
    veltra sign document --container "$keyId" --raw --out document.sig
    openssl dgst -sha256 -verify "$unique-$token.pub" -signature document.sig document >/dev/null ||
        fail "the signature is not the one of token $token"
done

# A key that is away is named by the list of containers and left out of the list of certificates.
softtoken unplug E2E-TWO-B
veltra list-keys | grep "^$unique-B " | grep -q "not on a connected token" || fail "the list has the key that is away"
! veltra list-certificates | grep -q "CN=$unique-B" || fail "the list has the certificate that is away"

veltra delete-key --container "$unique-A" --yes
softtoken plug E2E-TWO-B
softtoken unplug E2E-TWO-A
logIn E2E-TWO-B
veltra delete-key --container "$unique-B" --yes
