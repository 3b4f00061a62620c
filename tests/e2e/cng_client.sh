# A CNG application over the token: what applications do, CryptoAPI beside it, and AES keys with OpenSSL as the judge.
# The application is veltra_cng_client_tests.exe; this script sets up what it uses.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

export VELTRA_CLIENT_PREFIX=$unique VELTRA_CLIENT_PIN=$pin
client() { runApplication veltra_cng_client_tests "$1"; }
hexOf() { od -An -v -tx1 "$1" | tr -d ' \n'; }
aes() { # aes ENC-OPTION FILE OUTPUT, for the bits and mode of the loop
    local iv=()
    [ "$mode" = ecb ] || iv=(-iv "$(hexOf aes.iv)")
    openssl enc "$1" "-aes-$bits-$mode" -nopad -K "$(hexOf "aes-$bits.key")" "${iv[@]}" -in "$2" -out "$3"
}

newToken E2E-CNG --fips 140-2
newCertifiedKey "$unique-2048" --bits 2048 --usage exchange
VELTRA_CLIENT_RSA_KEY=$(cng list-keys | sed -n "s/^$unique-2048 .* \([0-9A-F]\{32\}\)\r\{0,1\}$/\1/p")
newCngKey --bits 2048
VELTRA_CLIENT_SIGN_KEY=$key
export VELTRA_CLIENT_RSA_KEY VELTRA_CLIENT_SIGN_KEY

# Without a session, each in a process that has no PIN.
logIn E2E-CNG 1
sleep 2
for name in SizeQueriesNeedNeitherPinNorPaddingInformation PinIsTypedOnceAndThenSilentCallsWork \
    PinIsGivenByProviderProperty PinIsGivenByKeyProperty; do
    client "UnverifiedCngUserTest.$name"
done
logIn E2E-CNG

# Whole blocks that do not end like padding.
printf 'three blocks of plaintext, each with sixteen by.' >aes.plain
head -c 16 /dev/urandom >aes.iv
for bits in 128 192 256; do
    head -c $((bits / 8)) /dev/urandom >"aes-$bits.key"
    for mode in cbc ecb; do aes -e aes.plain "aes-$bits-$mode.theirs"; done
done
client "-UnverifiedCngUserTest.*"
for bits in 128 192 256; do
    for mode in cbc ecb; do
        aes -d "aes-$bits-$mode.ours" plain || fail "OpenSSL cannot decrypt AES-$bits-$mode"
        cmp aes.plain plain || fail "OpenSSL decrypts AES-$bits-$mode to something else"
    done
done
# OpenSSL signs a bare 36-byte hash in the same form.
openssl pkeyutl -verify -pubin -inkey key.pub -pkeyopt rsa_padding_mode:pkcs1 -in md5-sha1.hash -sigfile md5-sha1.sig ||
    fail "OpenSSL refuses the signature over MD5 and SHA-1"
veltra delete-key --container "$unique-2048" --yes
