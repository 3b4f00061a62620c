# An application over the token, through CryptoAPI: HMAC by RFC 4231, and OpenSSL as the judge of its ciphertexts. It is
# the tests of veltra_client_tests.exe; this script sets up what they use.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

newToken E2E-CLIENT --fips 140-2
newCertifiedKey "$unique" --bits 2048 --usage exchange
export VELTRA_CLIENT_CONTAINER=$unique
printf 'a secret \0 of more than two blocks of sixteen bytes' >secret
printf 'a passphrase' >passphrase
grep -v '^#' "$veltraRoot/tests/e2e/rfc4231.txt" >rfc4231.txt

# Under Wine the exit status of a crash can get lost, so the last words count.
runWindows "$bin/veltra_client_tests.exe" >client.txt || true
cat client.txt
! grep -q 'FAILED TEST' client.txt && grep -q '^\[  PASSED  \] [1-9]' client.txt || fail "tests failed"

# Derived keys are the leading bytes of a digest, with zeros behind a short one.
zeros=$(printf '0%.0s' {1..64})
for bits in 128 192 256; do
    for digest in sha1 sha256 sha384 sha512; do
        key=$(openssl dgst "-$digest" -r passphrase | cut -d' ' -f1)$zeros
        for mode in cbc ecb; do
            [ $mode = ecb ] && iv=() || iv=(-iv "${zeros:0:32}")
            openssl enc -d "-aes-$bits-$mode" -K "${key:0:bits/4}" "${iv[@]}" -in "$digest-$bits-$mode" -out plain &&
                cmp secret plain || fail "OpenSSL does not decrypt $digest-$bits-$mode to the secret"
        done
    done
done
