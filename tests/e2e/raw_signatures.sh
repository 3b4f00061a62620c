# Bare PKCS#1 v1.5 signatures and the SHA-1 rule of the two token generations.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

opensslVerifies() {
    openssl dgst "-$hash" -verify "$unique.pub" -signature document.sig "$1" >openssl.log 2>&1
}

makeDocument
newToken E2E-RAW --fips 140-2
newCertifiedKey "$unique" --bits 2048 --usage exchange

for hash in sha256 sha384 sha512 sha1; do
    veltra sign document --container "$unique" --raw --hash "$hash" --out document.sig
    [ "$(stat -c %s document.sig)" -eq 256 ] || fail "the signature has not the length of the key"
    opensslVerifies document || fail "OpenSSL refuses $hash: $(cat openssl.log)"
    ! opensslVerifies document.changed || fail "OpenSSL accepts the changed document"
    # Once through the token, once without it.
    for signer in "--container $unique" "--certificate $unique.pem"; do
        # shellcheck disable=SC2086 # an option and its value
        expectExit 0 veltra verify document --raw --signature document.sig --hash "$hash" $signer
        # shellcheck disable=SC2086
        expectFailure 3 "does NOT verify" veltra verify document.changed --raw --signature document.sig \
            --hash "$hash" $signer
    done
done

softtoken set E2E-RAW --fips 140-3
expectFailure 1 NTE_BAD_ALGID veltra sign document --container "$unique" --raw --hash sha1 --out refused.sig
expectFailure 1 NTE_BAD_ALGID veltra sign document --container "$unique" --cms --certificate "$unique.pem" \
    --hash sha1 --out refused.p7s
[ ! -e refused.sig ] && [ ! -e refused.p7s ] || fail "a refused signature left a file"

expectFailure 2 "overwritten" veltra sign document --container "$unique" --raw --out ./document
veltra delete-key --container "$unique" --yes
