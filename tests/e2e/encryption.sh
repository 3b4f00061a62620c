# RSA encryption in both directions, and random numbers; OpenSSL on the other side.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

padding() { # the option of veltra and those of OpenSSL for a padding
    theirs=(-pkeyopt "rsa_padding_mode:$1")
    ours=()
    [ "$1" = pkcs1 ] || ours=("--$1")
}

newToken E2E-ENC --fips 140-2
newCertifiedKey "$unique" --bits 2048 --usage exchange
openssl pkey -pubin -in "$unique.pub" -noout -text | grep -q '(2048 bit)' || fail "the public key is not readable"
printf 'a secret \0 of a few bytes' >secret
for name in pkcs1 oaep; do
    padding $name
    openssl pkeyutl -encrypt -pubin -inkey "$unique.pub" "${theirs[@]}" -in secret -out "$name.theirs"
    veltra decrypt "$name.theirs" --container "$unique" --out "$name.plain" "${ours[@]}"
    cmp secret "$name.plain" || fail "OpenSSL's $name ciphertext decrypts to something else"
    # Only the token has the private key, so it decrypts what the provider encrypted.
    veltra encrypt secret --container "$unique" --out "$name.ours" "${ours[@]}"
    [ "$(stat -c %s "$name.ours")" -eq 256 ] || fail "the $name ciphertext has not the length of the key"
    veltra decrypt "$name.ours" --container "$unique" --out "$name.back" "${ours[@]}"
    cmp secret "$name.back" || fail "the provider's $name ciphertext decrypts to something else"
done

# The 140-3 generation decrypts OAEP only.
softtoken set E2E-ENC --fips 140-3
expectFailure 1 NTE_BAD_FLAGS veltra decrypt pkcs1.theirs --container "$unique" --out refused
[ ! -e refused ] || fail "a refused decryption left a file"
veltra decrypt oaep.theirs --container "$unique" --out oaep.again --oaep
cmp secret oaep.again

[ "$(veltra generate-random 32 | tr -d '\r\n' | wc -c)" -eq 64 ] || fail "32 random bytes are not 64 digits"
[ "$(veltra generate-random 32)" != "$(veltra generate-random 32)" ] || fail "random bytes repeat"
veltra delete-key --container "$unique" --yes
