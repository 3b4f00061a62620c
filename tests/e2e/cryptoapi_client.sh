# A CryptoAPI application over the token: what applications do, HMAC by RFC 4231, and OpenSSL as the judge of keys and
# ciphertexts. The application is veltra_cryptoapi_client_tests.exe; this script sets up what it uses.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

export VELTRA_CLIENT_PREFIX=$unique VELTRA_CLIENT_PIN=$pin
client() { runApplication veltra_cryptoapi_client_tests "$1"; }
reverse() { perl -0777 -ne 'print scalar reverse'; }
hexOf() { od -An -v -tx1 "$1" | tr -d ' \n'; }

newToken E2E-CLIENT --fips 140-2
for bits in 2048 3072 4096; do newCertifiedKey "$unique-$bits" --bits "$bits" --usage exchange; done

# Keys that are derived from a passphrase: the leading bytes of its digest, zeros behind a short one.
printf 'a passphrase' >passphrase
printf 'a secret \0 of more than two blocks of sixteen bytes' >secret
zeros=$(printf '0%.0s' {1..64})
aes() { # aes ENC-OPTION FILE OUTPUT, for the digest, length and mode of the loop
    local iv=()
    [ "$mode" = ecb ] || iv=(-iv "${zeros:0:32}")
    openssl enc "$1" "-aes-$bits-$mode" -K "$key" "${iv[@]}" -in "$2" -out "$3"
}
forEachDerivedKey() { # runs a command with digest, bits, mode, key and the name of the files
    for digest in sha1 sha256 sha384 sha512; do
        value=$(openssl dgst "-$digest" -r passphrase | cut -d' ' -f1)$zeros
        for bits in 128 192 256; do
            for mode in cbc ecb; do
                key=${value:0:bits/4} name=aes-$digest-$bits-$mode
                "$@"
            done
        done
    done
}
encryptForUs() { aes -e secret "$name.theirs"; }
checkOurs() {
    aes -d "$name.ours" plain || fail "OpenSSL cannot decrypt $name"
    cmp secret plain || fail "OpenSSL decrypts $name to something else"
}
forEachDerivedKey encryptForUs

# Session keys as an application sends them: encrypted for the token's key, little-endian, behind a SIMPLEBLOB header.
head -c 16 /dev/urandom >iv
for kind in "192 0f" "256 10"; do
    read -r bits algorithm <<<"$kind" # the length, and what tells AES of that length
    head -c $((bits / 8)) /dev/urandom >"session-$bits.key"
    {
        printf "\x01\x02\0\0\x$algorithm\x66\0\0\0\xa4\0\0"
        openssl pkeyutl -encrypt -pubin -inkey "$unique-2048.pub" -in "session-$bits.key" | reverse
    } >"session-$bits.blob"
    openssl enc -e "-aes-$bits-cbc" -K "$(hexOf "session-$bits.key")" -iv "$(hexOf iv)" -in secret \
        -out "session-$bits.theirs"
done

for bits in 2048 3072 4096; do
    openssl genpkey -quiet -algorithm RSA -pkeyopt "rsa_keygen_bits:$bits" -out "theirs-$bits.pem"
    openssl rsa -in "theirs-$bits.pem" -pubout -outform MSBLOB -out "theirs-$bits.blob" 2>/dev/null
    for padding in pkcs1 oaep; do
        openssl pkeyutl -encrypt -pubin -inkey "$unique-$bits.pub" -pkeyopt "rsa_padding_mode:$padding" -in secret \
            -out "rsa-$bits-$padding.theirs"
    done
done

# Without a session, each in a process that has no PIN.
runWindows "$bin/veltra_cryptoapi_client_tests.exe" '--gtest_filter=UnverifiedUserTest.*' --gtest_list_tests >list.txt
mapfile -t names < <(tr -d '\r' <list.txt | sed -n 's/^  //p')
[ ${#names[@]} -gt 0 ] || fail "there are no tests without a session"
logIn E2E-CLIENT 1
sleep 2
for name in "${names[@]}"; do client "UnverifiedUserTest.$name"; done

logIn E2E-CLIENT
client "-UnverifiedUserTest.*"

forEachDerivedKey checkOurs
for bits in 192 256; do
    openssl enc -d "-aes-$bits-cbc" -K "$(hexOf "session-$bits.key")" -iv "$(hexOf iv)" -in "session-$bits.ours" \
        -out plain
    cmp secret plain || fail "OpenSSL decrypts the message of the $bits-bit session key to something else"
done
for bits in 2048 3072 4096; do
    openssl rsa -pubin -inform MSBLOB -in "rsa-$bits.blob" -out exported.pub 2>/dev/null ||
        fail "OpenSSL cannot read the $bits-bit public key blob"
    cmp "$unique-$bits.pub" exported.pub || fail "the $bits-bit public key blob is another key than the certificate's"
    for padding in pkcs1 oaep; do
        openssl pkeyutl -decrypt -inkey "theirs-$bits.pem" -pkeyopt "rsa_padding_mode:$padding" \
            -in "rsa-$bits-$padding.ours" -out plain || fail "OpenSSL cannot decrypt $padding of $bits bits"
        cmp secret plain || fail "OpenSSL decrypts $padding of $bits bits to something else"
    done
    veltra delete-key --container "$unique-$bits" --yes
done
