# Encryption through both front ends, key agreement through the key storage provider, and the blobs of its public keys;
# OpenSSL on the other side.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# expectBlob TYPE DESCRIPTION: the key's blob is what comes in, and the provider takes it back as this.
expectBlob() {
    cng export-key --container "$key" --blob "$1" --out key.blob
    cmp - key.blob || fail "$1 is not the $2 key"
    cng import-key key.blob --blob "$1" | grep -q "^Imported $2 key" || fail "$1 of the $2 key is not taken back"
}

newToken E2E-CNGENC --fips 140-2
printf 'a secret \0 of a few bytes' >secret

for bits in 4096 3072 2048; do
    newCngKey --bits $bits --usage exchange
    makeTheirs RSA rsa_keygen_bits:$bits
    hashes=sha256
    [ $bits != 2048 ] || hashes='none sha1 sha256 sha384 sha512'
    for hash in $hashes; do
        ours=() theirs=(-pkeyopt rsa_padding_mode:pkcs1)
        if [ $hash != none ]; then
            ours=(--oaep --oaep-hash $hash)
            theirs=(-pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_md:$hash -pkeyopt rsa_mgf1_md:$hash)
        fi
        openssl pkeyutl -encrypt -pubin -inkey key.pub "${theirs[@]}" -in secret -out theirs.bin
        for frontEnd in cng veltra; do
            if [ $frontEnd = veltra ]; then
                [[ $hash =~ ^(none|sha1)$ ]] || continue
                ours=("${ours[@]:0:1}")
            fi
            $frontEnd decrypt theirs.bin --container "$key" "${ours[@]}" --out plain
            cmp secret plain || fail "$frontEnd decrypts OpenSSL's $hash padding of $bits bits to something else"
            $frontEnd encrypt secret --public-key theirs.pub "${ours[@]}" --out ours.bin
            openssl pkeyutl -decrypt -inkey theirs.pem "${theirs[@]}" -in ours.bin -out plain ||
                fail "OpenSSL cannot decrypt $frontEnd's $hash padding of $bits bits"
            cmp secret plain || fail "OpenSSL decrypts $frontEnd's $hash padding of $bits bits to something else"
        done
    done
    # The blob's header, the exponent and the modulus, put together from what OpenSSL tells of the key.
    openssl rsa -pubin -in key.pub -noout -modulus |
        perl -ne "s/Modulus=|\n//g; print pack 'a4V5H6H*', 'RSA1', $bits, 3, $bits / 8, 0, 0, '010001', \$_" |
        expectBlob RSAPUBLICBLOB "RSA $bits"
done
cng export-key --container "$key" --blob CAPIPUBLICBLOB --out key.blob
openssl rsa -pubin -inform MSBLOB -in key.blob -out blob.pub 2>/dev/null && cmp key.pub blob.pub ||
    fail "CAPIPUBLICBLOB is another key than the exported PEM"
# The newer token generation decrypts OAEP only; the policy is asked before the token is.
softtoken set E2E-CNGENC --fips 140-3
for refused in 'decrypt theirs.bin' 'export-key --blob PRIVATEBLOB' 'export-key --blob ECCPUBLICBLOB'; do
    # shellcheck disable=SC2086 # a command and its arguments
    expectFailure 1 NTE_NOT_SUPPORTED cng $refused --container "$key" --out refused
done
[ ! -e refused ] || fail "a refused command left a file"

# agree OPTION...: the derived key in digits
agree() { cng derive-key --container "$key" --peer theirs.pub "$@" | tr -d '\r\n'; }
digest() { openssl dgst "-$1" -r | cut -d' ' -f1; }
for curve in P256:prime256v1:256 P384:secp384r1:384 P521:secp521r1:521; do
    IFS=: read -r name opensslName bits <<<"$curve"
    newCngKey --algorithm "ECDH_$name"
    field=$(((bits + 7) / 8))
    {
        perl -e "print pack 'a3aV', 'ECK', $bits / 128 * 2 - 3, $field"
        openssl pkey -pubin -in key.pub -outform DER | tail -c $((2 * field))
    } | expectBlob ECCPUBLICBLOB "ECDH $bits"

    makeTheirs EC "ec_paramgen_curve:$opensslName"
    openssl pkeyutl -derive -inkey theirs.pem -peerkey key.pub -out secret.bin
    for hash in sha1 sha256 sha384 sha512; do
        [ "$(agree --hash $hash)" = "$(digest $hash <secret.bin)" ] ||
            fail "OpenSSL derives another key with $hash on $name"
    done
    expected=$({ printf 'a label' && printf 'a context' && cat secret.bin; } | digest sha256)
    [ "$(agree --kdf SP800_56ACONCAT --label 'a label' --context 'a context')" = "$expected" ] ||
        fail "OpenSSL derives another key with SP800_56ACONCAT on $name"
done
# The plain hash does not look at label and context; a short key is the front of the digest.
cng derive-key --container "$key" --peer theirs.pub --label 'a label' --length 16 --out derived.bin
[ "$(hexOf derived.bin)" = "$(digest sha256 <secret.bin | cut -c 1-32)" ] || fail "not the front of the digest"
softtoken set E2E-CNGENC --firmware 1.5.3
expectFailure 1 NTE_NOT_SUPPORTED agree
