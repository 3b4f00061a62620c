# CMS messages: detached signatures with every RSA key length and hash, judged by OpenSSL and by the platform, and
# enveloped messages of OpenSSL, decrypted by the platform with a key on the token.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

opensslVerifies() {
    openssl cms -verify -binary -inform DER -in document.p7s -content "$1" -CAfile "$key.pem" -out /dev/null 2>openssl.log
}

# checkMessage HASH SIGN-OPTION...: signs the document with $key and lets both judges see it and the changed copy.
checkMessage() {
    veltra sign document --container "$key" --cms --certificate "$key.pem" --hash "$@" --out document.p7s
    openssl cms -cmsout -print -inform DER -in document.p7s >message.txt
    grep -A 1 digestAlgorithm: message.txt | grep -q "algorithm: $1 " || fail "the message was not made with $1"
    opensslVerifies document || fail "OpenSSL refuses $*: $(cat openssl.log)"
    ! opensslVerifies document.changed || fail "OpenSSL accepts the changed document"
    expectExit 0 veltra verify document --signature document.p7s --certificate "$key.pem"
    expectFailure 3 "does NOT verify" veltra verify document.changed --signature document.p7s
}

makeDocument
newToken E2E-CMS --fips 140-3
for bits in 2048 3072 4096; do
    key=$unique-$bits
    newCertifiedKey "$key" --bits $bits --usage exchange
    openssl pkey -pubin -in "$key.pub" -noout -text | grep -q "($bits bit)" || fail "the key has not $bits bits"
    checkMessage sha256
    grep -q signingTime message.txt || fail "the message has no signing time"
done
key=$unique-2048
other=$unique-3072
checkMessage sha384
checkMessage sha512
checkMessage sha256 --no-attributes
! grep -q signingTime message.txt || fail "--no-attributes has signed attributes"

# A certificate of another key must not end up in a message; a verifier told to expect it must refuse.
expectFailure 1 "belongs to another key" veltra sign document --container "$key" --cms --certificate "$other.pem" \
    --out refused
expectFailure 3 "no signer with this certificate" veltra verify document --signature document.p7s \
    --certificate "$other.pem"
# A damaged message is refused one way or the other, never accepted.
cp document.p7s damaged.p7s
printf '\xff' | dd of=damaged.p7s bs=1 seek=$(($(stat -c %s damaged.p7s) - 20)) conv=notrunc status=none
! veltra verify document --signature damaged.p7s >/dev/null 2>&1 || fail "a damaged message verifies"
expectFailure 1 "not a CMS message" veltra verify document --signature document

# envelop FILE CIPHER OPTION...: encrypts the document into FILE for the certificates among the options.
envelop() { openssl cms -encrypt -binary -outform DER -in document -out "$1" "-$2" "${@:3}"; }
# expectDocument FILE CONTAINER OPTION...
expectDocument() {
    veltra decrypt "$1" --cms --container "$2" --out decrypted "${@:3}"
    cmp document decrypted || fail "$1 decrypts to something else with $2"
}
# refused FILE REASON OPTION...
refused() { expectFailure 1 "$2" veltra decrypt "$1" --cms --container "$key" --out refused "${@:3}"; }

# Around the block length, and long; with every key length.
for case in 15:aes128 16:aes192 17:aes256 200000:aes128; do
    head -c "${case%:*}" /dev/urandom >document
    envelop message.p7m "${case#*:}" "$key.pem"
    expectDocument message.p7m "$key"
done
# The token recognises OAEP key transport by itself.
envelop oaep.p7m aes256 -recip "$key.pem" -keyopt rsa_padding_mode:oaep
expectDocument oaep.p7m "$key"
# The key's own place among the recipients does not matter; who is none of them reads nothing.
envelop several.p7m aes128 "$other.pem" "$key.pem"
for container in "$key" "$other"; do expectDocument several.p7m "$container"; done
envelop foreign.p7m aes256 "$other.pem"
refused foreign.p7m "could not decrypt for any of the message's recipients"
# What the platform or the provider cannot decrypt is refused with the reason.
envelop des3.p7m des3 "$key.pem"
refused des3.p7m "not encrypted with AES-CBC"
envelop pieces.p7m aes256 -stream "$key.pem"
refused pieces.p7m "content in pieces"
openssl cms -cmsout -inform DER -in pieces.p7m -outform DER -out whole.p7m
expectDocument whole.p7m "$key"
head -c 300 message.p7m >cut.p7m
for file in cut.p7m document; do refused $file "not an enveloped CMS message"; done

# Without a session: a refusal where nobody can be asked.
softtoken logout E2E-CMS
refused message.p7m NTE_SILENT_CONTEXT --silent
[ ! -e refused ] || fail "what was refused left a file"
