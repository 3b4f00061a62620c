# What only the device library's own functions reach: PSS signatures, every OAEP hash, and key agreement, with
# OpenSSL on the other side.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

tokenCalls() { runWindows "$bin/token_calls.exe" "$@"; }
hex() { od -An -v -tx1 "$1" | tr -d ' \n'; }

# publicKeyInfo NAME ALGORITHM PARAMETERS KEY [SECTION-LINE...]: NAME.pub, the PEM form of a SubjectPublicKeyInfo.
publicKeyInfo() {
    printf '%s\n' asn1=SEQUENCE:info '[info]' algorithm=SEQUENCE:algorithm "key=$4" \
        '[algorithm]' "oid=OID:$2" "parameters=$3" "${@:5}" >"$1.conf"
    openssl asn1parse -genconf "$1.conf" -noout -out "$1.der"
    openssl pkey -pubin -inform DER -in "$1.der" -out "$1.pub"
}

makeDocument
newToken E2E-LIB --fips 140-2
tokenCalls generate 2 rsa.key rsa.modulus
publicKeyInfo rsa rsaEncryption NULL BITWRAP,SEQUENCE:rsa '[rsa]' "n=INTEGER:0x$(hex rsa.modulus)" e=INTEGER:65537

pssVerifies() {
    openssl dgst "-$hash" -sigopt rsa_padding_mode:pss -sigopt rsa_pss_saltlen:digest -verify rsa.pub \
        -signature document.sig "$1" >openssl.log 2>&1
}
for hash in sha1 sha256 sha384 sha512; do
    openssl dgst "-$hash" -binary document >document.hash
    tokenCalls sign-pss rsa.key document.hash document.sig
    pssVerifies document || fail "OpenSSL refuses the PSS signature with $hash: $(cat openssl.log)"
    ! pssVerifies document.changed || fail "OpenSSL accepts the changed document"
done

# A private key that OpenSSL has decrypts what the library encrypted, the token's key what OpenSSL encrypted.
openssl genpkey -quiet -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out theirs.pem
openssl pkey -in theirs.pem -pubout -outform DER -out theirs.der
printf 'a secret \0 of a few bytes' >secret
for mode in 4:sha1 5:sha256 6:sha384 7:sha512 8:sha1; do
    oaep=(-pkeyopt rsa_padding_mode:oaep -pkeyopt "rsa_oaep_md:${mode#*:}" -pkeyopt "rsa_mgf1_md:${mode#*:}")
    tokenCalls encrypt "${mode%:*}" theirs.der secret ours.bin
    openssl pkeyutl -decrypt -inkey theirs.pem "${oaep[@]}" -in ours.bin -out ours.plain
    cmp secret ours.plain || fail "OpenSSL decrypts padding $mode to something else"
    openssl pkeyutl -encrypt -pubin -inkey rsa.pub "${oaep[@]}" -in secret -out theirs.bin
    tokenCalls decrypt rsa.key theirs.bin theirs.plain
    cmp secret theirs.plain || fail "the token decrypts OpenSSL's padding $mode to something else"
done

agreesWithOpenssl() { # KEY-TYPE CURVE FIELD-LENGTH
    tokenCalls generate "$1" ec.key ec.point
    publicKeyInfo ec id-ecPublicKey "OID:$2" "FORMAT:HEX,BITSTRING:$(hex ec.point)"
    for _ in 1 2 3; do
        openssl genpkey -quiet -algorithm EC -pkeyopt "ec_paramgen_curve:$2" -out peer.pem
        openssl pkey -in peer.pem -pubout -outform DER | tail -c $((1 + 2 * $3)) >peer.point
        tokenCalls derive ec.key peer.point ours.secret
        [ "$(stat -c %s ours.secret)" -eq "$3" ] || fail "a secret on $2 has the wrong length"
        openssl pkeyutl -derive -inkey peer.pem -peerkey ec.pub -out theirs.secret
        cmp ours.secret theirs.secret || fail "OpenSSL computes another secret on $2"
    done
}
agreesWithOpenssl 5 prime256v1 32
agreesWithOpenssl 6 secp384r1 48
agreesWithOpenssl 7 secp521r1 66
