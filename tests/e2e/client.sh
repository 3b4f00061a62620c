# Applications over the token, through CryptoAPI and through CNG: what they do, and OpenSSL as the judge of their
# signatures, ciphertexts and HMACs. They are the tests of veltra_client_tests.exe; this script sets up what it uses.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

# client FILTER: the tests that the filter chooses. Under Wine the exit status of a crash can get lost, so the last
# words count.
client() {
    runWindows "$bin/veltra_client_tests.exe" "--gtest_filter=$1" >client.txt || true
    cat client.txt
    ! grep -q 'FAILED TEST' client.txt && grep -q '^\[  PASSED  \] [1-9]' client.txt || fail "tests of $1 failed"
}
# judge FILE BITS-MODE KEY IV: OpenSSL decrypts what an application has encrypted with AES.
judge() {
    local iv=()
    [[ $2 == *-ecb ]] || iv=(-iv "$4")
    openssl enc -d "-aes-$2" -K "$3" "${iv[@]}" -in "$1.ours" -out plain || fail "OpenSSL cannot decrypt $1"
    cmp secret plain || fail "OpenSSL decrypts $1 to something else"
}

newToken E2E-CLIENT --fips 140-2
newCertifiedKey "$unique" --bits 2048 --usage exchange
export VELTRA_CLIENT_CONTAINER=$unique VELTRA_CLIENT_PIN=$pin VELTRA_CLIENT_KEY
VELTRA_CLIENT_KEY=$(keyIdOf "$unique")
printf 'a secret \0 of more than two blocks of sixteen bytes' >secret
printf 'a passphrase' >passphrase
head -c 32 /dev/urandom >aes.key
head -c 16 /dev/urandom >aes.iv

# Without a session, in a process that has no PIN.
softtoken logout E2E-CLIENT
client '*NeedNoPin*'
logIn E2E-CLIENT
client '-*NeedNoPin*'

# Derived keys are the leading bytes of a digest, with zeros behind a short one.
zeros=$(printf '0%.0s' {1..64})
for bits in 128 192 256; do
    for digest in sha1 sha256 sha384 sha512; do
        key=$(openssl dgst "-$digest" -r passphrase | cut -d' ' -f1)$zeros
        for mode in cbc ecb; do
            judge "derived-$digest-$bits-$mode" "$bits-$mode" "${key:0:bits/4}" "${zeros:0:32}"
        done
    done
done
key=$(hexOf aes.key)
for digest in sha1 sha256 sha384 sha512; do
    openssl dgst "-$digest" -verify "$unique.pub" -signature "$digest.sig" secret || fail "OpenSSL refuses $digest"
    openssl dgst "-$digest" -mac HMAC -macopt "hexkey:$key" -binary secret | cmp - "$digest.hmac"
done
for bits in 192 256; do judge "session-$bits-cbc" "$bits-cbc" "${key:0:bits/4}" "$(hexOf aes.iv)"; done
# OpenSSL signs a bare 36-byte hash, as that of MD5 and SHA-1, in the same form.
printf 'Z%.0s' {1..36} >bare.hash
openssl pkeyutl -verify -pubin -inkey "$unique.pub" -pkeyopt rsa_padding_mode:pkcs1 -in bare.hash -sigfile bare.sig ||
    fail "OpenSSL refuses the signature over MD5 and SHA-1"
