# Signatures through the key storage provider: RSA with PKCS#1 v1.5 and PSS, ECDSA on three curves, certificates and
# CMS messages; OpenSSL on the other side.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# judge NAME HASH OPENSSL-OPTION... -- VELTRA-OPTION...: OpenSSL and the provider on each other's signatures. The
# private key that OpenSSL has is in theirs.pem; the provider knows its public part, theirs.pub, alone.
judge() {
    local name="$1 with $2" hash=$2 theirs=()
    shift 2
    while [ "$1" != -- ]; do theirs+=("$1") && shift; done
    shift
    cng sign document --container "$key" --raw --hash "$hash" --out document.sig "$@"
    openssl dgst "-$hash" "${theirs[@]}" -verify key.pub -signature document.sig document >openssl.log 2>&1 ||
        fail "OpenSSL refuses $name: $(cat openssl.log)"
    ! openssl dgst "-$hash" "${theirs[@]}" -verify key.pub -signature document.sig document.changed \
        >openssl.log 2>&1 || fail "OpenSSL accepts $name for the changed document"
    expectExit 0 cng verify document --raw --signature document.sig --hash "$hash" --container "$key" "$@"

    openssl dgst "-$hash" "${theirs[@]}" -sign theirs.pem -out theirs.sig document
    expectExit 0 cng verify document --raw --signature theirs.sig --hash "$hash" --public-key theirs.pub "$@"
    expectFailure 3 "does NOT verify" cng verify document.changed --raw --signature theirs.sig --hash "$hash" \
        --public-key theirs.pub "$@"
    expectFailure 3 "does NOT verify" cng verify document --raw --signature theirs.sig --hash "$hash" \
        --container "$key" "$@"
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
        ! openssl cms -verify -binary -inform DER -in document.p7s -content document.changed -CAfile key.pem \
            -out /dev/null 2>openssl.log || fail "OpenSSL accepts the CMS message for the changed document"
    done
}

makeDocument
newToken E2E-CNGSIG --fips 140-2
for bits in 2048 3072 4096; do
    newCngKey --algorithm RSA --bits "$bits"
    openssl genpkey -quiet -algorithm RSA -pkeyopt "rsa_keygen_bits:$bits" -out theirs.pem
    openssl pkey -in theirs.pem -pubout -out theirs.pub
    for hash in sha256 sha384 sha512 sha1; do
        [ "$bits" = 2048 ] || [ "$hash" = sha256 ] || continue
        judge "PKCS#1 of $bits bits" "$hash" --
        judge "PSS of $bits bits" "$hash" -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest -- --pss
    done
    [ "$bits" != 2048 ] || { judgeCertificate && rsaKey=$key; }
done
for curve in P256:prime256v1:64 P384:secp384r1:96 P521:secp521r1:132; do
    IFS=: read -r name opensslName length <<<"$curve"
    newCngKey --algorithm "ECDSA_$name"
    openssl genpkey -quiet -algorithm EC -pkeyopt "ec_paramgen_curve:$opensslName" -out theirs.pem
    openssl pkey -in theirs.pem -pubout -out theirs.pub
    for hash in sha256 sha384 sha512; do judge "ECDSA on $name" "$hash" -- --der; done
    # Some more, so that numbers with leading zeros and with the top bit set are among them.
    for _ in 1 2 3; do
        cng sign document --container "$key" --raw --der --out document.sig
        openssl dgst -sha256 -verify key.pub -signature document.sig document >/dev/null || fail "ECDSA on $name"
    done
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
expectFailure 1 NTE_NOT_SUPPORTED cng sign document --container "$rsaKey" --raw --hash sha1 \
    --out refused.sig
softtoken set E2E-CNGSIG --firmware 1.9.9
expectFailure 1 NTE_NOT_SUPPORTED cng sign document --container "$rsaKey" --raw --pss \
    --out refused.sig
[ ! -e refused.sig ] || fail "a refused signature left a file"

# One key less.
expectFailure 2 "--yes" cng delete-key --container "$key"
cng delete-key --container "$key" --yes
expectFailure 1 NTE_NO_KEY cng sign document --container "$key" --raw --out refused.sig
