# Encryption and key agreement through the key storage provider, and the blobs of its public keys; OpenSSL on the other
# side.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# littleEndian NUMBER: four bytes, as the blobs have them.
littleEndian() { printf "$(printf '\\x%02x\\x%02x\\x%02x\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) 0 0)"; }

newToken E2E-CNGENC --fips 140-2
printf 'a secret \0 of a few bytes' >secret

for bits in 2048 3072 4096; do
    newCngKey --bits "$bits" --usage exchange
    openssl genpkey -quiet -algorithm RSA -pkeyopt "rsa_keygen_bits:$bits" -out theirs.pem
    openssl pkey -in theirs.pem -pubout -out theirs.pub
    for hash in none sha1 sha256 sha384 sha512; do
        ours=() theirs=(-pkeyopt rsa_padding_mode:pkcs1)
        if [ "$hash" != none ]; then
            ours=(--oaep --oaep-hash "$hash")
            theirs=(-pkeyopt rsa_padding_mode:oaep -pkeyopt "rsa_oaep_md:$hash" -pkeyopt "rsa_mgf1_md:$hash")
        fi
        openssl pkeyutl -encrypt -pubin -inkey key.pub "${theirs[@]}" -in secret -out theirs.bin
        cng decrypt theirs.bin --container "$key" "${ours[@]}" --out plain
        cmp secret plain || fail "the token decrypts OpenSSL's $hash padding of $bits bits to something else"
        cng encrypt secret --public-key theirs.pub "${ours[@]}" --out ours.bin
        openssl pkeyutl -decrypt -inkey theirs.pem "${theirs[@]}" -in ours.bin -out plain ||
            fail "OpenSSL cannot decrypt our $hash padding of $bits bits"
        cmp secret plain || fail "OpenSSL decrypts our $hash padding of $bits bits to something else"
    done
    cng export-key --container "$key" --blob CAPIPUBLICBLOB --out key.blob
    openssl rsa -pubin -inform MSBLOB -in key.blob -out blob.pub 2>/dev/null && cmp key.pub blob.pub ||
        fail "CAPIPUBLICBLOB of $bits bits is another key than the exported PEM"
    # The blob's header, the exponent and the modulus, put together from what OpenSSL tells of the key.
    {
        printf RSA1
        for number in "$bits" 3 $((bits / 8)) 0 0; do littleEndian "$number"; done
        printf '\1\0\1'
        openssl rsa -pubin -in key.pub -noout -modulus | sed 's/^Modulus=//' | perl -ne 'chomp; print pack "H*", $_'
    } >expected.blob
    for type in RSAPUBLICBLOB PUBLICBLOB; do
        cng export-key --container "$key" --blob "$type" --out key.blob
        cmp expected.blob key.blob || fail "$type of $bits bits is not the key"
        cng import-key key.blob --blob "$type" | grep -q "^Imported RSA $bits key" || fail "$type is not taken back"
    done
done
# The newer token generation decrypts OAEP only; the policy is asked before the token is.
softtoken set E2E-CNGENC --fips 140-3
expectFailure 1 NTE_NOT_SUPPORTED cng decrypt theirs.bin --container "$key" --out refused
[ ! -e refused ] || fail "a refused decryption left a file"
expectFailure 1 NTE_NOT_SUPPORTED cng export-key --container "$key" --blob PRIVATEBLOB --out refused
expectFailure 1 NTE_NOT_SUPPORTED cng export-key --container "$key" --blob ECCPUBLICBLOB --out refused

hexOf() { od -An -v -tx1 "$1" | tr -d ' \n'; }
agree() { # agree OPTION...: the derived key in digits
    cng derive-key --container "$key" --peer peer.pub "$@" | tr -d '\r\n'
}
digest() { openssl dgst "-$1" -r | cut -d' ' -f1; }
for curve in P256:prime256v1:256 P384:secp384r1:384 P521:secp521r1:521; do
    IFS=: read -r name opensslName bits <<<"$curve"
    newCngKey --algorithm "ECDH_$name"
    cng export-key --container "$key" --blob ECCPUBLICBLOB --out key.blob
    field=$(((bits + 7) / 8))
    {
        printf 'ECK%d' "$(((bits / 128) * 2 - 3))"
        littleEndian "$field"
        openssl pkey -pubin -in key.pub -outform DER | tail -c $((2 * field))
    } >expected.blob
    cmp expected.blob key.blob || fail "ECCPUBLICBLOB on $name is not the key"
    cng import-key key.blob --blob ECCPUBLICBLOB | grep -q "^Imported ECDH $bits key" || fail "the blob is not taken back"

    openssl genpkey -quiet -algorithm EC -pkeyopt "ec_paramgen_curve:$opensslName" -out peer.pem
    openssl pkey -in peer.pem -pubout -out peer.pub
    openssl pkeyutl -derive -inkey peer.pem -peerkey key.pub -out secret.bin
    for hash in sha1 sha256 sha384 sha512; do
        [ "$(agree --hash "$hash")" = "$(digest "$hash" <secret.bin)" ] ||
            fail "OpenSSL derives another key with $hash on $name"
        expected=$({ printf 'a label' && printf 'a context' && cat secret.bin; } | digest "$hash")
        [ "$(agree --hash "$hash" --kdf SP800_56ACONCAT --label 'a label' --context 'a context')" = "$expected" ] ||
            fail "OpenSSL derives another key with SP800_56ACONCAT and $hash on $name"
    done
    # The plain hash does not look at label and context; a short key is the front of the digest.
    [ "$(agree --label 'a label' --length 16)" = "$(digest sha256 <secret.bin | cut -c 1-32)" ] ||
        fail "a short key on $name is not the front of the digest"
    cng derive-key --container "$key" --peer peer.pub --length 64 --out derived.bin
    [ "$(hexOf derived.bin)" = "$(digest sha256 <secret.bin)" ] || fail "a key longer than the digest on $name"
done
softtoken set E2E-CNGENC --firmware 1.5.3
expectFailure 1 NTE_NOT_SUPPORTED agree
