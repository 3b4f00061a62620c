# Signatures through both front ends: RSA with PKCS#1 v1.5, and through the key storage provider PSS and ECDSA on three
# curves, certificates and CMS messages; OpenSSL on the other side.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# judge FRONT-END HASH OPENSSL-OPTION... -- VELTRA-OPTION...: OpenSSL and the provider on each other's signatures with
# the key of $name. The private key that OpenSSL has is in theirs.pem; the provider knows its public part, theirs.pub,
# alone.
judge() {
    local frontEnd=$1 hash=$2 theirs=()
    shift 2
    while [ "$1" != -- ]; do theirs+=("$1") && shift; done
    shift
    "$frontEnd" sign document --container "$key" --raw --hash "$hash" --out document.sig "$@"
    openssl dgst "-$hash" "${theirs[@]}" -verify key.pub -signature document.sig document >openssl.log 2>&1 ||
        fail "OpenSSL refuses $hash and $* with $name: $(cat openssl.log)"
    expectExit 0 "$frontEnd" verify document --raw --signature document.sig --hash "$hash" --container "$key" "$@"

    openssl dgst "-$hash" "${theirs[@]}" -sign theirs.pem -out theirs.sig document
    expectExit 0 "$frontEnd" verify document --raw --signature theirs.sig --hash "$hash" --public-key theirs.pub "$@"
    expectFailure 3 "does NOT verify" "$frontEnd" verify document.changed --raw --signature theirs.sig --hash "$hash" \
        --public-key theirs.pub "$@"
}

# judgeCertificate: a certificate that the key signs for itself, and CMS messages with it.
judgeCertificate() {
    cng create-certificate --container "$key" --subject "CN=$key" --out key.pem
    openssl verify -CAfile key.pem -check_ss_sig key.pem >openssl.log 2>&1 ||
        fail "OpenSSL refuses the certificate: $(cat openssl.log)"
    openssl x509 -in key.pem -noout -pubkey | cmp - key.pub || fail "the certificate has another key"
    cng import-certificate --container "$key" key.pem
    cng list-certificates | grep -q " CN=$key" || fail "the certificate is not on the token"
    for attributes in '' --no-attributes; do
        # shellcheck disable=SC2086 # an option or nothing
        cng sign document --container "$key" --cms --certificate key.pem $attributes --out document.p7s
        openssl cms -verify -binary -inform DER -in document.p7s -content document -CAfile key.pem -out /dev/null \
            2>openssl.log || fail "OpenSSL refuses the CMS message: $(cat openssl.log)"
    done
}

makeDocument
newToken E2E-CNGSIG --fips 140-2
for bits in 4096 3072 2048; do
    name="RSA $bits"
    newCngKey --algorithm RSA --bits $bits
    makeTheirs RSA rsa_keygen_bits:$bits
    hashes=sha256
    [ $bits != 2048 ] || hashes='sha256 sha384 sha512 sha1'
    for hash in $hashes; do
        for frontEnd in cng veltra; do judge $frontEnd $hash --; done
        judge cng $hash -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest -- --pss
    done
done
judgeCertificate
rsaKey=$key
# A hash that is longer than the curve is among them.
for curve in P256:prime256v1:64:sha512 P384:secp384r1:96:sha384 P521:secp521r1:132:sha256; do
    IFS=: read -r name opensslName length hash <<<"$curve"
    newCngKey --algorithm "ECDSA_$name"
    makeTheirs EC "ec_paramgen_curve:$opensslName"
    judge cng "$hash" -- --der
    cng sign document --container "$key" --raw --out document.sig
    [ "$(stat -c %s document.sig)" -eq "$length" ] || fail "r and s on $name have not $length bytes"
    judgeCertificate
done

cng list-keys >keys.txt
for row in 'RSA  *2048' 'RSA  *3072' 'RSA  *4096' 'ECDSA  *256' 'ECDSA  *384' 'ECDSA  *521'; do
    grep -q "$row  *sign" keys.txt || fail "the list lacks $row: $(cat keys.txt)"
done

# What the token and the firmware forbid.
softtoken set E2E-CNGSIG --fips 140-3
expectFailure 1 NTE_NOT_SUPPORTED cng sign document --container "$rsaKey" --raw --hash sha1 --out refused
softtoken set E2E-CNGSIG --firmware 1.9.9
expectFailure 1 NTE_NOT_SUPPORTED cng sign document --container "$rsaKey" --raw --pss --out refused

# One key less.
expectFailure 2 "--yes" cng delete-key --container "$key"
cng delete-key --container "$key" --yes
expectFailure 1 NTE_NO_KEY cng sign document --container "$key" --raw --out refused
[ ! -e refused ] || fail "a refused signature left a file"
