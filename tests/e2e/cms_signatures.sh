# Detached CMS signatures with every RSA key length and hash, judged by OpenSSL and by the platform.
. "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

opensslVerifies() {
    openssl cms -verify -binary -inform DER -in "$2" -content "$1" -CAfile "$3" -out /dev/null 2>openssl.log
}

# checkMessage CERTIFICATE HASH SIGN-OPTION...: signs the document and lets both judges see it and the changed copy.
checkMessage() {
    local container=$1 hash=$2 certificate=$1.pem
    shift 2
    rm -f document.p7s
    veltra sign document --container "$container" --cms --certificate "$certificate" --hash "$hash" \
        --out document.p7s "$@"
    openssl cms -cmsout -print -inform DER -in document.p7s >message.txt
    grep -A 1 digestAlgorithm: message.txt | grep -q "algorithm: $hash " || fail "the message was not made with $hash"
    opensslVerifies document document.p7s "$certificate" || fail "OpenSSL refuses $*: $(cat openssl.log)"
    ! opensslVerifies document.changed document.p7s "$certificate" || fail "OpenSSL accepts the changed document"
    expectExit 0 veltra verify document --signature document.p7s
    expectExit 0 veltra verify document --signature document.p7s --certificate "$certificate"
    expectFailure 3 "does NOT verify" veltra verify document.changed --signature document.p7s
}

makeDocument
newToken E2E-CMS --fips 140-3
for bits in 2048 3072 4096; do
    newCertifiedKey "$unique-$bits" --bits "$bits"
    openssl pkey -pubin -in "$unique-$bits.pub" -noout -text | grep -q "($bits bit)" || fail "the key has not $bits bits"
    checkMessage "$unique-$bits" sha256
    grep -q signingTime message.txt || fail "the message has no signing time"
done

key=$unique-2048
checkMessage "$key" sha384
checkMessage "$key" sha512
checkMessage "$key" sha256 --no-attributes
! grep -q signingTime message.txt || fail "--no-attributes has signed attributes"

# A certificate of another key must not end up in a message; a verifier told to expect it must refuse.
expectFailure 1 "belongs to another key" veltra sign document --container "$key" --cms \
    --certificate "$unique-3072.pem" --out wrong.p7s
[ ! -e wrong.p7s ] || fail "a refused signature left a file"
expectFailure 3 "no signer with this certificate" veltra verify document --signature document.p7s \
    --certificate "$unique-3072.pem"

# A damaged message is refused one way or the other, never accepted.
cp document.p7s damaged.p7s
printf '\xff' | dd of=damaged.p7s bs=1 seek=$(($(stat -c %s damaged.p7s) - 20)) conv=notrunc status=none
! veltra verify document --signature damaged.p7s >/dev/null 2>&1 || fail "a damaged message verifies"
expectFailure 1 "not a CMS message" veltra verify document --signature document

for bits in 2048 3072 4096; do veltra delete-key --container "$unique-$bits" --yes; done
